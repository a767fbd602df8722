// Any labels in the maps: the list in plain memory, names and numbers, against a model of what a
// label means.

#include "tests/fuzz/Fuzz.h"
#include "transport/MIDIPortList.h"

#include <QMap>
#include <objbase.h>

namespace {

/// The pieces of `text`, empty ones dropped.
std::vector<std::u16string> piecesOf(const std::u16string& text, const std::u16string& separator)
{
    std::vector<std::u16string> pieces;
    for (std::size_t at = 0; at <= text.size();) {
        const std::size_t end = std::min(text.find(separator, at), text.size());
        if (end > at)
            pieces.push_back(text.substr(at, end - at));
        at = end + separator.size();
    }
    return pieces;
}

struct Entry
{
    long long number = 0;
    QUuid id;
    std::u16string name;
    bool hasName = false;
};

int numberOf(const std::u16string& text)
{
    return fromUnits(text).toInt();
}

/// One line of the list, made from the text that ports are sorted by.
Entry entryOf(const std::u16string& text)
{
    Entry entry;
    const std::vector<std::u16string> pieces = piecesOf(text, u"<;>");
    if (pieces.size() < 2)
        return entry;
    entry.id = QUuid(fromUnits(pieces[1]));
    const std::vector<std::u16string> label = piecesOf(pieces[0], u";");
    entry.hasName = label.size() >= 2;
    if (entry.hasName) {
        entry.name = label[1];
        entry.number = numberOf(label[0]);
    }
    return entry;
}

std::vector<Entry> entriesOf(const TSystemMIDIMap& map)
{
    std::vector<std::u16string> texts;
    for (auto port = map.begin(); port != map.end(); ++port)
        texts.push_back((port.value() + "<;>" + port.key().toString()).toStdU16String());
    std::sort(texts.begin(), texts.end());
    std::vector<Entry> entries;
    for (const std::u16string& text : texts)
        entries.push_back(entryOf(text));
    return entries;
}

void removeAll(std::u16string& text, const std::u16string& marker)
{
    std::size_t at = 0;
    while ((at = text.find(marker, at)) != std::u16string::npos)
        text.erase(at, marker.size());
}

/// Lists one direction; the `failing`-th allocation fails, 0 for none.
void checkList(MapAccessor& accessor, bool output, unsigned failing)
{
    sim::clearCalls();
    sim::logCalls(true);
    if (failing > 0)
        sim::failCall("CoTaskMemAlloc", failing);
    TMIDIPortList list = {77, nullptr};
    TMIDITransport::MIDIPorts(&accessor, output, &list);
    sim::clearFailures();
    sim::logCalls(false);

    const unsigned count = static_cast<unsigned>(accessor.numberOfPlugs(output));
    FUZZ_CHECK(list.count == count);
    const std::vector<Entry> entries = entriesOf(accessor.maps[output]);
    FUZZ_CHECK((list.entries == nullptr) == (count == 0 || failing == 1));
    unsigned allocations = count > 0 ? 1 : 0;
    for (unsigned i = 0; list.entries && i < count && i < entries.size(); ++i) {
        const TMIDIPortEntry& entry = list.entries[i];
        FUZZ_CHECK(entry.portNumber == entries[i].number);
        FUZZ_CHECK(QUuid(entry.portId.Data1, entry.portId.Data2, entry.portId.Data3,
                         entry.portId.Data4[0], entry.portId.Data4[1], entry.portId.Data4[2],
                         entry.portId.Data4[3], entry.portId.Data4[4], entry.portId.Data4[5],
                         entry.portId.Data4[6], entry.portId.Data4[7]) == entries[i].id);
        allocations += entries[i].hasName ? 2 : 1; // a placeholder, and a name in its place
        if (allocations == failing)
            FUZZ_CHECK(!entry.portName);
        else
            FUZZ_CHECK(entry.portName && entry.portName == std::u16string(entries[i].name.c_str()));
    }
    // Including the replaced placeholders, which only this count of allocations can free.
    unsigned allocated = 0;
    for (const sim::Call& call : sim::calls("CoTaskMemAlloc")) {
        ++allocated;
        CoTaskMemFree(reinterpret_cast<void*>(call.result));
    }
    FUZZ_CHECK(allocated == allocations);
}

void checkLookups(const TMIDITransport& transport, const MapAccessor& accessor, const QUuid& id)
{
    const QString* label = nullptr;
    int numbers[2] = {0, 0};
    for (const bool output : {false, true}) {
        const auto port = accessor.maps[output].constFind(id);
        if (port == accessor.maps[output].constEnd())
            continue;
        label = &port.value(); // an output comes before an input
        const std::vector<std::u16string> pieces = piecesOf(label->toStdU16String(), u";");
        numbers[output] = pieces.empty() ? 0 : numberOf(pieces[0]);
    }
    FUZZ_CHECK(transport.getInpDescriptorPort(id) == numbers[0]);
    FUZZ_CHECK(transport.getOutDescriptorPort(id) == numbers[1]);

    std::u16string name;
    if (label) {
        const std::vector<std::u16string> pieces = piecesOf(label->toStdU16String(), u";");
        name = pieces.size() < 2 ? u"" : pieces[1];
    }
    removeAll(name, u"<[Inp]>");
    removeAll(name, u"<[Out]>");
    const QString expected = name.empty() ? id.toString() : fromUnits(name);
    FUZZ_CHECK(transport.friendlyName(id) == expected);
}

void checkDescriptors(const TMIDITransport& transport, const MapAccessor& accessor, int number)
{
    QUuid expected[2];
    for (const bool output : {false, true}) {
        const TSystemMIDIMap& map = accessor.maps[output];
        for (auto port = map.begin(); port != map.end(); ++port) {
            const std::vector<std::u16string> pieces =
                piecesOf(port.value().toStdU16String(), u";");
            if ((pieces.empty() ? 0 : numberOf(pieces[0])) == number) {
                expected[output] = port.key();
                break;
            }
        }
    }
    FUZZ_CHECK(transport.getInpPortDescriptor(number) == expected[0]);
    FUZZ_CHECK(transport.getOutPortDescriptor(number) == expected[1]);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzInput fuzz(data, size);
    const FuzzRun run;
    MapAccessor accessor;
    const unsigned failing = fuzz.below(16);
    if (fuzz.below(4) == 0)
        accessor.countOverride = static_cast<int>(fuzz.below(16));
    for (const bool output : {false, true}) {
        for (unsigned left = fuzz.below(8); left > 0; --left)
            accessor.maps[output][fuzz.uuid()] = fuzz.text();
    }
    TMIDITransport& transport = MIDITransportInstance(&accessor);
    for (unsigned char n = 0; n < 9; ++n)
        checkLookups(transport, accessor, ::uuid(n));
    for (int number = -1; number < 4; ++number)
        checkDescriptors(transport, accessor, number);
    transport.Release();
    for (const bool output : {false, true})
        checkList(accessor, output, failing);
    return 0;
}
