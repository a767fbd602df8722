#include "ports/PortTable.h"

// By direction: false = input, true = output.
static const char* const kNamesKeys[2] = {"/preferences/SystemPorts/Input/portNames",
                                          "/preferences/SystemPorts/Output/portNames"};
static const char* const kIdsKeys[2] = {"/preferences/SystemPorts/Input/portIds",
                                        "/preferences/SystemPorts/Output/portIds"};

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
    // Identifiers of one map differ, so those appended here cannot hide each other.
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

StoredPorts PortTable::read(bool output) const
{
    StoredPorts ports;
    ports.names = settings.readListEntry(QLatin1String(kNamesKeys[output]));
    ports.ids = settings.readListEntry(QLatin1String(kIdsKeys[output]));
    return ports;
}

void PortTable::write(bool output, const StoredPorts& ports)
{
    settings.writeEntry(QLatin1String(kNamesKeys[output]), ports.names);
    settings.writeEntry(QLatin1String(kIdsKeys[output]), ports.ids);
}
