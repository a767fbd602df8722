#ifndef LUMORA_PORTS_MIDIPORTACCESSOR_H
#define LUMORA_PORTS_MIDIPORTACCESSOR_H

/// \file
/// The system's MIDI ports. Every port has an identifier that persists from run to run; its
/// position in the system's device list changes when devices come and go.
///
/// A port label is "number;name": the device's 1-based position in the system's list, in decimal,
/// then ';', then the system's name for the device.
///
/// Every bool that selects a direction means false = input, true = output.

#include "ports/Export.h"

#include <QMap>
#include <QString>
#include <QUuid>

/// Port labels by port identifier, in ascending order of the identifiers.
class LUMORA_TRANSPORT_EXPORT TSystemMIDIMap : public QMap<QUuid, QString>
{
public:
    /// @{
    /// As QMap's: an empty map, or one that shares its entries with `other` until it is changed.
    /// Thread-safe: no. Blocks: no.
    TSystemMIDIMap();
    TSystemMIDIMap(const TSystemMIDIMap& other);
    ~TSystemMIDIMap();
    TSystemMIDIMap& operator=(const TSystemMIDIMap& other);
    /// @}
};

/// The system's ports at the time when MIDIPortAccessor() made the accessor. Release() destroys it.
///
/// It needs no lock: it is filled before anyone can see it, and only read afterwards.
class IMIDIPortAccessor
{
public:
    /// Appends the ports first seen in this run to the stored table and deletes the accessor, which
    /// must outlive every transport made for it. If the store cannot be written, it reports no
    /// error, and the next run makes new identifiers.
    /// Thread-safe: no, the last call of all. Blocks: while it reads and writes the store.
    virtual void Release() = 0;

    /// The identifier of the port whose device name is exactly `name`; the null QUuid if there is
    /// none. Ignores `output` and searches both directions, inputs first: if an input and an output
    /// have the same name, the result is the input's identifier. Never finds a name that contains
    /// ';'.
    /// Thread-safe: yes. Blocks: no.
    virtual QUuid portIdentity(const QString& name, bool output) const = 0;

    /// The whole label of the port `id`, inputs first; "<unknown port name>" if there is none.
    /// Thread-safe: yes. Blocks: no.
    virtual QString portName(const QUuid& id) const = 0;

    /// The number of ports of a direction.
    /// Thread-safe: yes. Blocks: no.
    virtual int numberOfPlugs(bool output) const = 0;

    /// The ports of a direction. The map stays the accessor's, never changes, and is valid until
    /// Release().
    /// Thread-safe: yes. Blocks: no.
    virtual const TSystemMIDIMap& plugs(bool output) const = 0;

protected:
    /// Reached through Release().
    ~IMIDIPortAccessor() = default;
};

/// The platform-independent part of the accessor. A platform's subclass supplies only
/// systemPortName() and numberOfSystemPorts().
class LUMORA_TRANSPORT_EXPORT UniIMIDIPortAccessor : public IMIDIPortAccessor
{
public:
    /// Starts with no ports. `organization` and `application` name the settings store that holds
    /// the table of known ports, in its system-wide scope.
    /// Thread-safe: yes. Blocks: no.
    UniIMIDIPortAccessor(const QString& organization, const QString& application);

    /// @{
    /// Copies the ports and the names of the store.
    /// Thread-safe: no. Blocks: no.
    UniIMIDIPortAccessor(const UniIMIDIPortAccessor& other);
    UniIMIDIPortAccessor& operator=(const UniIMIDIPortAccessor& other);
    /// @}

    /// Gives every present device the identifier that the stored table has for its label, or a
    /// fresh one. Writes nothing. The factory calls it once.
    /// Thread-safe: no. Blocks: while it reads the store and asks the drivers.
    void init();

    void Release() override;
    QUuid portIdentity(const QString& name, bool output) const override;
    QString portName(const QUuid& id) const override;
    int numberOfPlugs(bool output) const override;
    const TSystemMIDIMap& plugs(bool output) const override;

protected:
    /// Reached through Release(), which saves the table.
    /// Thread-safe: no, the last call of all. Blocks: no.
    virtual ~UniIMIDIPortAccessor();

    /// The system's name of device `index` (0-based); empty if the system cannot name it.
    /// Thread-safe: yes. Blocks: while it asks the driver.
    virtual QString systemPortName(int index, bool output) = 0;

    /// The system's current number of devices.
    /// Thread-safe: yes. Blocks: while it asks the system.
    virtual int numberOfSystemPorts(bool output) = 0;

private:
    TSystemMIDIMap plugMaps[2];
    QString organization;
    QString application;
};

/// The ports of Windows, as WinMM counts and names them.
class WinIMIDIPortAccessor : public UniIMIDIPortAccessor
{
public:
    /// Starts with no ports. MIDIPortAccessor() makes a filled one.
    /// Thread-safe: yes. Blocks: no.
    WinIMIDIPortAccessor(const QString& organization, const QString& application);

protected:
    /// Reached through Release().
    /// Thread-safe: no, the last call of all. Blocks: no.
    ~WinIMIDIPortAccessor() override;

    QString systemPortName(int index, bool output) override;
    int numberOfSystemPorts(bool output) override;
};

/// Makes the accessor of this system's ports, with the identifiers that earlier runs stored under
/// `organization` and `application`. The caller owns it and destroys it with Release(). Never null.
/// Throws std::bad_alloc without memory.
/// Thread-safe: yes. Blocks: while it reads the store and asks the drivers.
LUMORA_TRANSPORT_EXPORT IMIDIPortAccessor* MIDIPortAccessor(const QString& organization,
                                                            const QString& application);

#endif
