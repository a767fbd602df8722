#include "transport/MIDIPortList.h"

#include "ports/MIDIPortAccessor.h"
#include "ports/PortLabel.h"
#include "qt/StringPieces.h"
#include "transport/MIDITransport.h"
#include "utilities/OLEString.h"

#include <new>
#include <objbase.h>

// Separates label and identifier in a port's sort key. Longer than the label's own ';', so that the
// two cannot be confused.
static const char kIdSeparator[] = "<;>";

static GUID toGUID(const QUuid& id)
{
    GUID guid = {id.data1, id.data2, id.data3, {}};
    for (int i = 0; i < 8; ++i)
        guid.Data4[i] = id.data4[i];
    return guid;
}

// One text for each port, sorted by label as text, and by identifier where labels are equal.
static QStringList sortedPortTexts(const TSystemMIDIMap& map)
{
    QStringList texts;
    for (TSystemMIDIMap::const_iterator port = map.begin(); port != map.end(); ++port)
        texts.append(port.value() + QLatin1String(kIdSeparator) + port.key().toString());
    texts.sort();
    return texts;
}

// Leaves a name that can be freed, even when it throws.
static void fillEntry(TMIDIPortEntry* entry, const QString& text)
{
    entry->portName = nullptr;
    entry->portId = toGUID(QUuid());
    entry->portName = CreateOLEString(QString());
    entry->portNumber = 0;

    const QStringList pieces = nonEmptyPieces(text, QLatin1String(kIdSeparator));
    if (pieces.size() < 2)
        return;
    entry->portId = toGUID(QUuid(pieces.at(1)));
    const PortLabel label(pieces.at(0));
    if (!label.hasName())
        return;
    // The placeholder string is dropped, not freed: by design.
    entry->portName = CreateOLEString(label.name());
    entry->portNumber = label.number();
}

void TMIDITransport::MIDIPorts(IMIDIPortAccessor* accessor, bool output, void* list)
{
    TMIDIPortList* const ports = static_cast<TMIDIPortList*>(list);
    if (ports->entries || !accessor)
        return;
    ports->count = static_cast<unsigned int>(accessor->numberOfPlugs(output));
    if (ports->count > 0)
        ports->entries = static_cast<TMIDIPortEntry*>(
            CoTaskMemAlloc(std::size_t(ports->count) * sizeof(TMIDIPortEntry)));
    unsigned int filled = 0;
    try {
        const QStringList texts = sortedPortTexts(accessor->plugs(output));
        for (const QString& text : texts) {
            if (ports->entries && filled < ports->count) // a host's accessor may count fewer
                fillEntry(&ports->entries[filled++], text);
        }
    } catch (const std::bad_alloc&) {
        // As without memory for the array: callers may not handle exceptions.
        while (filled > 0)
            CoTaskMemFree(ports->entries[--filled].portName);
        CoTaskMemFree(ports->entries);
        ports->entries = nullptr;
    }
}

QString TMIDITransport::friendlyName(const QUuid& id) const
{
    QString name;
    for (const bool output : {true, false}) {
        const TSystemMIDIMap& map = accessor->plugs(output);
        const TSystemMIDIMap::const_iterator port = map.find(id);
        if (port != map.end()) {
            name = PortLabel(port.value()).name();
            break;
        }
    }
    // Markers that a stored label may contain. This library adds none.
    name.remove(QLatin1String("<[Inp]>"));
    name.remove(QLatin1String("<[Out]>"));
    return name.isEmpty() ? id.toString() : name;
}

static int portNumber(const TSystemMIDIMap& map, const QUuid& id)
{
    const TSystemMIDIMap::const_iterator port = map.find(id);
    return port == map.end() ? 0 : PortLabel(port.value()).number();
}

int TMIDITransport::getInpDescriptorPort(const QUuid& id) const
{
    return portNumber(accessor->plugs(false), id);
}

int TMIDITransport::getOutDescriptorPort(const QUuid& id) const
{
    return portNumber(accessor->plugs(true), id);
}
