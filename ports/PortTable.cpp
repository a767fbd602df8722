#include "ports/PortTable.h"

// By direction: false = input, true = output.
static const char* const kNamesKeys[2] = {"/preferences/SystemPorts/Input/portNames",
                                          "/preferences/SystemPorts/Output/portNames"};
static const char* const kIdsKeys[2] = {"/preferences/SystemPorts/Input/portIds",
                                        "/preferences/SystemPorts/Output/portIds"};

// How often to read or write a table that another process is writing, until it is consistent.
static const int kAttempts = 10;

// How many entries `list` has after those of `start`; -1 if it does not begin with them.
static int continuation(const QStringList& list, const QStringList& start)
{
    return list.mid(0, start.size()) == start ? static_cast<int>(list.size() - start.size()) : -1;
}

bool StoredPorts::find(const QString& label, QUuid* id) const
{
    const auto index = names.indexOf(label);
    // An outside edit can leave fewer identifiers than names.
    if (index < 0 || index >= ids.size())
        return false;
    *id = QUuid(ids.at(index));
    return true;
}

void StoredPorts::appendNew(const TSystemMIDIMap& map)
{
    // A map's identifiers differ, so none of them hides another.
    for (TSystemMIDIMap::const_iterator port = map.begin(); port != map.end(); ++port) {
        const QString text = port.key().toString();
        if (ids.contains(text))
            continue;
        names.append(port.value());
        ids.append(text);
    }
}

PortTable::PortTable(const QString& organization, const QString& application)
{
    settings.setPath(organization, application, QSettings::SystemScope);
}

StoredPorts PortTable::readOnce(bool output) const
{
    StoredPorts ports;
    ports.names = settings.readListEntry(QLatin1String(kNamesKeys[output]));
    ports.ids = settings.readListEntry(QLatin1String(kIdsKeys[output]));
    return ports;
}

StoredPorts PortTable::read(bool output) const
{
    // If another process writes meanwhile, one list may be old and the other new, or, where a value
    // grows while Qt reads it, empty.
    StoredPorts ports = readOnce(output);
    for (int attempt = 1; attempt < kAttempts; ++attempt) {
        const StoredPorts later = readOnce(output);
        if (later.names == ports.names && later.ids == ports.ids)
            break;
        ports = later;
    }
    return ports;
}

void PortTable::write(bool output, const StoredPorts& ports)
{
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        settings.writeEntry(QLatin1String(kNamesKeys[output]), ports.names);
        settings.writeEntry(QLatin1String(kIdsKeys[output]), ports.ids);
        // Both lists must be ours, with equally many entries added, or both another process's. A
        // mix would pair its labels with our identifiers for good.
        const StoredPorts now = read(output);
        if (continuation(now.names, ports.names) == continuation(now.ids, ports.ids))
            return;
    }
}
