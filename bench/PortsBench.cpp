// Port lists, lookups and the stored table.

#include "bench/Bench.h"

#include "ports/PortLabel.h"
#include "ports/PortTable.h"
#include "transport/MIDIPortList.h"

#include <QFile>
#include <QTemporaryDir>
#include <cstring>
#include <objbase.h>
#include <string>

using benchmark::State;
using namespace bench;

namespace {

const char kOrganization[] = "Lumora Bench";
const char kApplication[] = "Ports";
const int kLookups = 256; ///< in a batch
const int kLists = 16;    ///< in a batch
const int kPresent = 32;  ///< devices of each direction beside a stored table

void addDevices(int count)
{
    sim::reset();
    sim::logCalls(false);
    for (int i = 0; i < count; ++i) {
        const std::string number = std::to_string(i + 1);
        const std::u16string name = u"MIDI Port " + std::u16string(number.begin(), number.end());
        sim::addInput(name);
        sim::addOutput(name);
    }
}

/// A folder of its own for the system-wide settings.
class Store
{
public:
    Store() { QSettings::setPath(QSettings::NativeFormat, QSettings::SystemScope, folder.path()); }

    /// Fills the table with `count` ports of each direction, the devices present last.
    void fill(int count)
    {
        {
            PortTable table(kOrganization, kApplication);
            for (const bool output : {false, true}) {
                StoredPorts ports;
                for (int i = 0; i < count - kPresent; ++i)
                    append(ports, i + kPresent, QLatin1String("A Device That Is Gone"));
                for (int i = 0; i < kPresent; ++i)
                    append(ports, i, QLatin1String("MIDI Port ") + QString::number(i + 1));
                table.write(output, ports);
            }
        }
        QFile file(fileName());
        if (file.open(QIODevice::ReadOnly))
            contents = file.readAll();
    }

    bool isFilled() const { return !contents.isEmpty(); }

    /// Writes the file anew, so that Qt reads it anew, as it does in a process' first run.
    void touch() const
    {
        QFile file(fileName());
        if (file.open(QIODevice::WriteOnly))
            file.write(contents);
    }

private:
    QString fileName() const
    {
        return QSettings(QSettings::SystemScope, kOrganization, kApplication).fileName();
    }

    static void append(StoredPorts& ports, int index, const QString& name)
    {
        ports.names.append(PortLabel::compose(index, name));
        ports.ids.append(QUuid::createUuid().toString());
    }

    const QTemporaryDir folder;
    QByteArray contents;
};

/// `count` ports of each direction and a transport for them.
class Ports
{
public:
    explicit Ports(int count)
    {
        addDevices(count);
        accessor = MIDIPortAccessor(kOrganization, kApplication);
        transport = &MIDITransportInstance(accessor);
        inputs = accessor->plugs(false).keys();
    }
    ~Ports()
    {
        transport->Release();
        accessor->Release();
    }

    Ports(const Ports&) = delete;
    Ports& operator=(const Ports&) = delete;

    /// Another input each time.
    const QUuid& input(int i) const { return inputs.at(i % inputs.size()); }

    const Store store;
    IMIDIPortAccessor* accessor;
    TMIDITransport* transport;
    QList<QUuid> inputs;
};

// ---- Lists and lookups --------------------------------------------------------------------------

void free(TMIDIPortList& list)
{
    for (unsigned i = 0; i < list.count; ++i)
        CoTaskMemFree(list.entries[i].portName);
    CoTaskMemFree(list.entries);
    list = {};
}

void freeAll(TMIDIPortList (&lists)[kLists])
{
    for (TMIDIPortList& list : lists)
        free(list);
}

void portList(State& state)
{
    const Ports ports(static_cast<int>(state.range(0)));
    TMIDIPortList lists[kLists] = {};
    measure(
        state, kLists, [&] { freeAll(lists); },
        [&] {
            for (TMIDIPortList& list : lists)
                TMIDITransport::MIDIPorts(ports.accessor, false, &list);
        });
    expect(state, lists[0].count == state.range(0));
    freeAll(lists);
}

// The two calls of the accessor, and a copy of a finished list: the same blocks of task memory, the
// same bytes.
void floorPortList(State& state)
{
    const Ports ports(static_cast<int>(state.range(0)));
    TMIDIPortList model = {};
    TMIDITransport::MIDIPorts(ports.accessor, false, &model);
    std::vector<std::size_t> nameBytes;
    for (unsigned i = 0; i < model.count; ++i)
        nameBytes.push_back(2 * std::char_traits<WCHAR>::length(model.entries[i].portName) + 2);
    TMIDIPortList lists[kLists] = {};
    measure(
        state, kLists, [&] { freeAll(lists); },
        [&] {
            for (TMIDIPortList& list : lists) {
                list.count = static_cast<unsigned>(ports.accessor->numberOfPlugs(false));
                benchmark::DoNotOptimize(ports.accessor->plugs(false));
                const std::size_t bytes = list.count * sizeof(TMIDIPortEntry);
                list.entries = static_cast<TMIDIPortEntry*>(CoTaskMemAlloc(bytes));
                std::memcpy(list.entries, model.entries, bytes);
                for (unsigned i = 0; i < list.count; ++i) {
                    WCHAR* const name = static_cast<WCHAR*>(CoTaskMemAlloc(nameBytes[i]));
                    std::memcpy(name, model.entries[i].portName, nameBytes[i]);
                    list.entries[i].portName = name;
                }
            }
        });
    freeAll(lists);
    free(model);
}

// Inputs, which are looked up behind the outputs.
void friendlyName(State& state)
{
    const Ports ports(static_cast<int>(state.range(0)));
    measure(state, kLookups, nothing, [&] {
        for (int i = 0; i < kLookups; ++i)
            benchmark::DoNotOptimize(ports.transport->friendlyName(ports.input(i)));
    });
}

void descriptorPort(State& state)
{
    const Ports ports(static_cast<int>(state.range(0)));
    measure(state, kLookups, nothing, [&] {
        for (int i = 0; i < kLookups; ++i)
            benchmark::DoNotOptimize(ports.transport->getInpDescriptorPort(ports.input(i)));
    });
}

// The way back, which walks the ports.
void portDescriptor(State& state)
{
    const Ports ports(static_cast<int>(state.range(0)));
    measure(state, kLookups, nothing, [&] {
        for (int i = 0; i < kLookups; ++i)
            benchmark::DoNotOptimize(
                ports.transport->getInpPortDescriptor(i % ports.inputs.size() + 1));
    });
}

// One virtual call and the search in Qt's map.
void floorLookup(State& state)
{
    const Ports ports(static_cast<int>(state.range(0)));
    measure(state, kLookups, nothing, [&] {
        for (int i = 0; i < kLookups; ++i) {
            const TSystemMIDIMap& map = ports.accessor->plugs(false);
            benchmark::DoNotOptimize(map.find(ports.input(i)));
        }
    });
}

// ---- The stored table ---------------------------------------------------------------------------

/// A stored table, and the devices that are its last entries.
class StoredTable
{
public:
    explicit StoredTable(State& state)
    {
        addDevices(kPresent);
        store.fill(static_cast<int>(state.range(0)));
        if (!store.isFilled())
            state.SkipWithError("the settings cannot be stored");
    }

    void touch() { store.touch(); }

    /// Whether the accessor has found its devices in the table.
    static bool isStored(const IMIDIPortAccessor& accessor)
    {
        const StoredPorts stored = PortTable(kOrganization, kApplication).read(true);
        const TSystemMIDIMap& ports = accessor.plugs(true);
        return ports.size() == kPresent && stored.ids.contains(ports.firstKey().toString());
    }

private:
    Store store;
};

void accessorInit(State& state)
{
    StoredTable table(state);
    IMIDIPortAccessor* accessor = nullptr;
    measure(
        state, 1,
        [&] {
            if (accessor)
                accessor->Release();
            table.touch();
        },
        [&] { accessor = MIDIPortAccessor(kOrganization, kApplication); });
    expect(state, accessor && table.isStored(*accessor));
    accessor->Release();
}

// Reading the lists, and nothing else.
void floorInit(State& state)
{
    StoredTable table(state);
    measure(
        state, 1, [&] { table.touch(); },
        [&] {
            const PortTable stored(kOrganization, kApplication);
            benchmark::DoNotOptimize(stored.read(false));
            benchmark::DoNotOptimize(stored.read(true));
        });
}

void accessorRelease(State& state)
{
    StoredTable table(state);
    IMIDIPortAccessor* accessor = nullptr;
    measure(
        state, 1,
        [&] {
            table.touch();
            accessor = MIDIPortAccessor(kOrganization, kApplication);
        },
        [&] { accessor->Release(); });
}

// Reading the lists and writing them back, and nothing else.
void floorRelease(State& state)
{
    StoredTable table(state);
    measure(
        state, 1,
        [&] {
            table.touch();
            PortTable(kOrganization, kApplication).read(false);
        },
        [&] {
            PortTable stored(kOrganization, kApplication);
            for (const bool output : {false, true})
                stored.write(output, stored.read(output));
        });
}

void perPorts(benchmark::internal::Benchmark* benchmark)
{
    for (const int count : {2, 32, 256})
        benchmark->Arg(count);
    benchmark->UseManualTime();
}

void perEntries(benchmark::internal::Benchmark* benchmark)
{
    for (const int count : {100, 10'000})
        benchmark->Arg(count);
    benchmark->UseManualTime();
}

BENCHMARK(portList)->Apply(perPorts);
BENCHMARK(floorPortList)->Apply(perPorts);
BENCHMARK(friendlyName)->Apply(perPorts);
BENCHMARK(descriptorPort)->Apply(perPorts);
BENCHMARK(portDescriptor)->Apply(perPorts);
BENCHMARK(floorLookup)->Apply(perPorts);
BENCHMARK(accessorInit)->Apply(perEntries);
BENCHMARK(floorInit)->Apply(perEntries);
BENCHMARK(accessorRelease)->Apply(perEntries);
BENCHMARK(floorRelease)->Apply(perEntries);

} // namespace
