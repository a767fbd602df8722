#ifndef LUMORA_PORTS_PORTTABLE_H
#define LUMORA_PORTS_PORTTABLE_H

#include "ports/MIDIPortAccessor.h"
#include "qt/Qt3Settings.h"

#include <QStringList>

/// The stored ports of one direction: element k of `names` (labels) and element k of `ids`
/// (identifiers as text) describe one port. Nothing else links the two lists.
struct StoredPorts
{
    QStringList names;
    QStringList ids;

    /// Finds the identifier of `label`; the null QUuid if the stored text is invalid. Of equal
    /// labels the first one counts. False if the table has none.
    bool find(const QString& label, QUuid* id) const;

    /// Appends the ports of `map` whose identifiers are not stored yet, in the map's order. Never
    /// removes, reorders or relabels a port.
    void appendNew(const TSystemMIDIMap& map);
};

/// The table of every port ever seen, in the system-wide scope of an application's settings store.
/// The store is open while the object lives; the destructor flushes it.
///
/// Processes share it without a lock. Of two that write at the same moment one may lose what it
/// appended, but write() keeps the labels of one from being paired with the other's identifiers.
class PortTable
{
public:
    PortTable(const QString& organization, const QString& application);

    StoredPorts read(bool output) const;
    void write(bool output, const StoredPorts& ports);

private:
    StoredPorts readOnce(bool output) const;

    mutable Qt3Settings settings; // Qt 4's read members are not const
};

#endif
