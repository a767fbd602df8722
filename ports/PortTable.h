#ifndef LUMORA_PORTS_PORTTABLE_H
#define LUMORA_PORTS_PORTTABLE_H

#include "ports/MIDIPortAccessor.h"
#include "qt/Qt3Settings.h"

#include <QStringList>

/// The known ports of one direction, as stored: element k of `names` (labels) and element k of
/// `ids` (identifiers as text) describe one port. Nothing else links the two lists.
struct StoredPorts
{
    QStringList names;
    QStringList ids;

    /// Whether the table has an identifier for `label`, and which: the null QUuid if the stored
    /// text is none. Of equal labels the first one counts.
    bool find(const QString& label, QUuid* id) const;

    /// Appends the ports of `map` whose identifier's text is not stored yet, in the map's order.
    /// Nothing is ever removed, reordered or relabelled.
    void appendNew(const TSystemMIDIMap& map);
};

/// The table of every port ever seen, in the system-wide scope of an application's settings store.
/// The store is open while the object lives and flushed when it ends.
///
/// Processes share it without a lock. Of two that write at the same moment one may lose what it
/// appends, but a label does not come to stand beside the other's identifier.
class PortTable
{
public:
    PortTable(const QString& organization, const QString& application);

    StoredPorts read(bool output) const;
    void write(bool output, const StoredPorts& ports);

private:
    StoredPorts readOnce(bool output) const;

    mutable Qt3Settings settings; // reading is no const member in Qt 4
};

#endif
