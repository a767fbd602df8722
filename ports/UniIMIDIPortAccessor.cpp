#include "ports/Export.h"

#include <QMap>
#include <QString>
#include <QUuid>

// Exports all of TSystemMIDIMap's base class. Must come before the class that derives from it.
template class LUMORA_TRANSPORT_EXPORT QMap<QUuid, QString>;

#include "ports/MIDIPortAccessor.h"
#include "ports/PortLabel.h"
#include "ports/PortTable.h"

#include <new>
#include <objbase.h>

TSystemMIDIMap::TSystemMIDIMap() = default;
TSystemMIDIMap::TSystemMIDIMap(const TSystemMIDIMap& other) = default;
TSystemMIDIMap::~TSystemMIDIMap() = default;
TSystemMIDIMap& TSystemMIDIMap::operator=(const TSystemMIDIMap& other) = default;

static QUuid freshIdentifier()
{
    GUID guid = {};
    CoCreateGuid(&guid);
    // Field by field: QUuid converts a GUID only where Qt is built for Windows.
    return QUuid(guid.Data1, guid.Data2, guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2],
                 guid.Data4[3], guid.Data4[4], guid.Data4[5], guid.Data4[6], guid.Data4[7]);
}

UniIMIDIPortAccessor::UniIMIDIPortAccessor(const QString& organization, const QString& application)
    : organization(organization), application(application)
{}

UniIMIDIPortAccessor::UniIMIDIPortAccessor(const UniIMIDIPortAccessor& other) = default;
UniIMIDIPortAccessor& UniIMIDIPortAccessor::operator=(const UniIMIDIPortAccessor& other) = default;
UniIMIDIPortAccessor::~UniIMIDIPortAccessor() = default;

void UniIMIDIPortAccessor::init()
{
    try {
        const PortTable table(organization, application);
        for (const bool output : {false, true}) {
            const StoredPorts stored = table.read(output);
            const int count = numberOfSystemPorts(output);
            for (int index = 0; index < count; ++index) {
                const QString label = PortLabel::compose(index, systemPortName(index, output));
                QUuid id;
                if (!stored.find(label, &id))
                    id = freshIdentifier();
                plugMaps[output][id] = label;
            }
        }
    } catch (const std::bad_alloc&) {
        // The ports after this one are missing from the maps.
    }
}

void UniIMIDIPortAccessor::Release()
{
    try {
        PortTable table(organization, application);
        for (const bool output : {false, true}) {
            StoredPorts stored = table.read(output);
            stored.appendNew(plugMaps[output]);
            table.write(output, stored);
        }
    } catch (const std::bad_alloc&) {
        // As if the store could not be written.
    }
    delete this;
}

// The first port in the map's order with this device name; the null identifier if there is none.
static QUuid identifierOfName(const TSystemMIDIMap& map, const QString& name)
{
    for (TSystemMIDIMap::const_iterator port = map.begin(); port != map.end(); ++port) {
        const PortLabel label(port.value());
        if (label.hasName() && label.name() == name)
            return port.key();
    }
    return QUuid();
}

QUuid UniIMIDIPortAccessor::portIdentity(const QString& name, bool) const
{
    // The null identifier can be an input's real key: this still searches the outputs.
    const QUuid input = identifierOfName(plugMaps[false], name);
    return input.isNull() ? identifierOfName(plugMaps[true], name) : input;
}

QString UniIMIDIPortAccessor::portName(const QUuid& id) const
{
    for (const TSystemMIDIMap& map : plugMaps) {
        const TSystemMIDIMap::const_iterator port = map.find(id);
        if (port != map.end())
            return port.value();
    }
    return QLatin1String("<unknown port name>");
}

int UniIMIDIPortAccessor::numberOfPlugs(bool output) const
{
    // Through the virtual plugs(), so that a subclass that overrides it also changes the count.
    return static_cast<int>(plugs(output).size());
}

const TSystemMIDIMap& UniIMIDIPortAccessor::plugs(bool output) const
{
    return plugMaps[output];
}
