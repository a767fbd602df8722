// Every call that the library makes of Windows is made to fail, one at a time, in the whole life of
// an accessor and a transport; or the device is pulled out at it. Nothing may be kept or damaged,
// nothing half may be delivered, and whatever does not need what is lacking must work afterwards.

#include "tests/stress/Stress.h"
#include "transport/MIDIPortList.h"

#include <cstdio>
#include <map>
#include <objbase.h>

namespace {

/// The calls of Windows that can fail. With SetEvent only the signals to the pusher thread: a
/// sender waits for the signal of its device however long that takes.
const char* const kFunctions[] = {"CloseHandle",
                                  "CoCreateGuid",
                                  "CoTaskMemAlloc",
                                  "CreateEventW",
                                  "GetModuleHandleExW",
                                  "HeapAlloc",
                                  "HeapFree",
                                  "ResetEvent",
                                  "SetEvent",
                                  "VirtualAlloc",
                                  "VirtualFree",
                                  "VirtualQuery",
                                  "WaitForMultipleObjects",
                                  "WaitForSingleObject",
                                  "midiInAddBuffer",
                                  "midiInClose",
                                  "midiInGetDevCapsW",
                                  "midiInGetNumDevs",
                                  "midiInOpen",
                                  "midiInPrepareHeader",
                                  "midiInReset",
                                  "midiInStart",
                                  "midiInStop",
                                  "midiInUnprepareHeader",
                                  "midiOutClose",
                                  "midiOutGetDevCapsW",
                                  "midiOutGetNumDevs",
                                  "midiOutLongMsg",
                                  "midiOutOpen",
                                  "midiOutPrepareHeader",
                                  "midiOutReset",
                                  "midiOutShortMsg",
                                  "midiOutUnprepareHeader"};

using Counts = std::map<std::string, std::uint64_t>;

Counts countCalls()
{
    Counts counts;
    for (const char* const function : kFunctions)
        counts[function] = sim::callCount(function);
    return counts;
}

/// What stays in use when the system refuses to take it back.
sim::Resources keptAfter(const std::string& function, bool heapHigh)
{
    sim::Resources kept;
    if (function == "CloseHandle")
        kept.handles = 1;
    else if (function == "HeapFree")
        kept.heapBlocks = 1;
    else if (function == "VirtualFree")
        kept.virtualBlocks = 1;
    else if (function == "midiInClose" || function == "midiInReset")
        kept.inputPorts = 1; // WinMM does not close a port that holds buffers
    else if (function == "midiOutClose")
        kept.outputPorts = 1;
    if (function == "midiInReset")
        kept.inputBuffers = kInputHeaders;
    if (kept.inputPorts + kept.outputPorts > 0) {
        // Headers and data of the lost port stay for the driver.
        kept.heapBlocks = heapHigh ? 1 : 2;
        kept.virtualBlocks = heapHigh ? 1 : 0;
    }
    return kept;
}

Bytes sysEx(std::size_t length)
{
    Bytes bytes(length, 0x11);
    bytes.front() = 0xF0;
    bytes.back() = 0xF7;
    return bytes;
}

struct Machine
{
    const char* name;
    sim::DriverKind driver;
    bool heapHigh; ///< above 4 GB, so that the headers need pages of their own
};

std::string nameOf(const testing::TestParamInfo<Machine>& machine)
{
    return machine.param.name;
}

class EveryFailureTest : public testing::TestWithParam<Machine>
{
protected:
    using Access = TransportTestAccess;

    void SetUp() override
    {
        ASSERT_TRUE(folder.isValid());
        QSettings::setPath(QSettings::NativeFormat, QSettings::SystemScope, folder.path());
        reset();
    }

    void TearDown() override { sim::reset(); }

    /// A machine with one input and one output, and an empty table of known ports.
    void reset()
    {
        QFile::remove(folder.path() + "/Lumora Tests/Every Failure.conf");
        sim::reset();
        sim::useVirtualTime();
        sim::logCalls(false);
        sim::setHeapHigh(GetParam().heapHigh);
        sim::DeviceOptions options;
        options.kind = GetParam().driver;
        input = sim::addInput(u"In", options);
        output = sim::addOutput(u"Out", options);
    }

    /// Lists the inputs, and frees all that was allocated for it: also the placeholder texts, which
    /// nobody else can.
    void list()
    {
        sim::clearCalls();
        sim::logCalls(true);
        TMIDIPortList ports = {0, nullptr};
        TMIDITransport::MIDIPorts(accessor, false, &ports);
        sim::logCalls(false);
        for (const sim::Call& call : sim::calls("CoTaskMemAlloc"))
            CoTaskMemFree(reinterpret_cast<void*>(call.result));
    }

    /// Lists, opens, receives, sends and closes. With `all` everything must succeed.
    void use(TMIDITransport& transport, Recorder& recorder, bool all)
    {
        list();
        const std::size_t before = recorder.count();
        const bool opened = transport.openInput(1) != nullptr;
        transport.openOutput(1);
        for (const Bytes& message : {Bytes{0x90, 1, 2, 0}, sysEx(10000), Bytes{0x90, 3, 4, 0}}) {
            if (message[0] == 0xF0)
                sim::sysEx(input, message.data(), message.size());
            else
                sim::shortMessage(input, DWORD(message[0] | message[1] << 8 | message[2] << 16));
        }
        if (all) {
            EXPECT_TRUE(opened);
            EXPECT_TRUE(recorder.waitFor(before + 3));
        } else if (opened) {
            CircularBuffer& queue = Access::device(transport).recordQueue;
            const auto isEmpty = [&] {
                const MutexLocker locker(queue.mutex());
                return queue.avail() == 0;
            };
            for (int i = 0; i < 20 && !isEmpty(); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }

        const unsigned char note[] = {0x90, 0x3C, 0x64};
        sim::clearSent(output);
        const bool shortSent = Access::outputShortData(transport, 2, note + 1, note[0]);
        EXPECT_EQ(sim::sent(output).size(), shortSent ? 1u : 0u);
        sim::clearSent(output);
        const Bytes dump = sysEx(10000);
        const bool dumpSent = transport.outputData(int(dump.size()), dump.data());
        Bytes accepted;
        for (const sim::Sent& chunk : sim::sent(output))
            accepted.insert(accepted.end(), chunk.bytes.begin(), chunk.bytes.end());
        EXPECT_EQ(accepted, Bytes(dump.begin(), dump.begin() + long(accepted.size())));
        EXPECT_EQ(dumpSent, accepted.size() == dump.size());
        if (all) {
            EXPECT_TRUE(shortSent);
            EXPECT_TRUE(dumpSent);
        }

        const DWORD start = timeGetTime();
        transport.closeInput();
        transport.closeOutput();
        closing = timeGetTime() - start;
        const TWinMIDIPrivate& device = Access::device(transport);
        EXPECT_FALSE(device.closingInput);
        EXPECT_FALSE(device.closingOutput);
        EXPECT_EQ(device.hMidiIn, nullptr);
        EXPECT_EQ(device.hMidiOut, nullptr);
        EXPECT_EQ(Access::pusher(transport), nullptr);
    }

    /// From its call `n` on, the device that `function` is called for is not there any more.
    void pullOutAt(const std::string& function, unsigned n)
    {
        sim::onCall(function, [=](const sim::Call&) {
            if (sim::callCount(function) < n || pulledOut.exchange(true))
                return;
            if (isOfInput(function))
                sim::unplugInput(input);
            else
                sim::unplugOutput(output);
        });
    }

    static bool isOfInput(const std::string& function)
    {
        return function.compare(0, 6, "midiIn") == 0;
    }

    /// A whole life, used twice; `function`, if any, fails at its call `n`, or loses its device
    /// then.
    void live(const char* function, unsigned n, bool losesDevice = false)
    {
        pulledOut = false;
        if (function && losesDevice)
            pullOutAt(function, n);
        else if (function)
            sim::failCall(function, n);
        accessor =
            MIDIPortAccessor(QStringLiteral("Lumora Tests"), QStringLiteral("Every Failure"));
        TMIDITransport& transport = MIDITransportInstance(accessor);
        ASSERT_TRUE(transport.valid());
        Recorder recorder;
        transport.registerMIDIobserver(&recorder);
        const TWinMIDIPrivate& device = Access::device(transport);
        const bool complete = Access::dataEvent(transport) && device.doneEvent &&
                              device.inHeaders.hasData() && device.outHeaders.hasData();
        if (!function) {
            sim::onCall("SetEvent", [&](const sim::Call& call) {
                signalsToPusher.push_back(reinterpret_cast<HANDLE>(call.handle) ==
                                          Access::dataEvent(transport));
            });
        }
        use(transport, recorder, !function);
        afterFirstUse = countCalls();
        if (losesDevice) {
            sim::clearHooks();
            sim::plugIn();
            EXPECT_LE(closing, 50u);
        }
        const sim::Resources kept = function && !losesDevice && sim::callCount(function) >= n
                                        ? keptAfter(function, GetParam().heapHigh)
                                        : sim::Resources();
        const bool portsAreFree = kept.inputPorts == 0 && kept.outputPorts == 0;
        use(transport, recorder, complete && portsAreFree);
        beforeRelease = countCalls();
        transport.Release();
        accessor->Release();
        afterRelease = countCalls();

        const std::vector<Received> received = recorder.received();
        const Bytes whole = sysEx(10000);
        for (const Received& message : received) {
            EXPECT_TRUE(message.bytes == whole || message.bytes == Bytes({0x90, 1, 2, 0}) ||
                        message.bytes == Bytes({0x90, 3, 4, 0}));
        }
    }

    /// Of the many calls that differ in nothing but their header a few will do, on all machines but
    /// one.
    static bool isOneOfMany(unsigned n, unsigned last)
    {
        return n > 3 && n < last - 3 && last > 700 && n % 97 != 0;
    }

    QTemporaryDir folder;
    IMIDIPortAccessor* accessor = nullptr;
    int input = -1;
    int output = -1;
    Counts afterFirstUse;
    Counts beforeRelease;
    Counts afterRelease;
    DWORD closing = 0; ///< milliseconds that the last closing of both ports took
    std::atomic<bool> pulledOut{false};
    std::vector<bool> signalsToPusher; ///< for each SetEvent of the life without a failure
};

TEST_P(EveryFailureTest, LeavesNothingBehindAndTheRestAtWork)
{
    Watchdog watchdog(std::chrono::seconds(20));
    live(nullptr, 0);
    EXPECT_EQ(sim::inUse(), sim::Resources());
    const Counts first = afterFirstUse;
    const Counts second = beforeRelease;
    const Counts all = afterRelease;
    const std::vector<bool> toPusher = signalsToPusher;
    int faults = 0;
    for (const char* const function : kFunctions) {
        const auto last = static_cast<unsigned>(all.at(function));
        for (unsigned n = 1; n <= last; ++n) {
            // The second use makes the same calls as the first.
            if (n > first.at(function) && n <= second.at(function))
                continue;
            if ((GetParam().heapHigh || kThreadSanitizer) && isOneOfMany(n, last))
                continue;
            if (std::string(function) == "SetEvent" && !toPusher.at(n - 1))
                continue;
            SCOPED_TRACE(std::string(function) + " " + std::to_string(n));
            watchdog.alive();
            reset();
            live(function, n);
            if (sim::callCount(function) < n)
                continue; // the pusher thread waited less often this time
            ++faults;
            EXPECT_EQ(sim::inUse(), keptAfter(function, GetParam().heapHigh));
            if (HasFailure())
                return;
        }
    }
    EXPECT_GT(faults, 50);
    RecordProperty("faults", faults);
    std::printf("Failures made: %d\n", faults);
}

class PulledOutTest : public EveryFailureTest
{};

TEST_P(PulledOutTest, ALostDeviceCostsItsBuffersAtMostAndWorksWhenItIsBack)
{
    Watchdog watchdog(std::chrono::seconds(20));
    live(nullptr, 0);
    const Counts first = afterFirstUse;
    int losses = 0;
    for (const std::string function : kFunctions) {
        if (function.compare(0, 4, "midi") != 0)
            continue;
        const auto last = static_cast<unsigned>(first.at(function));
        for (unsigned n = 1; n <= last; ++n) {
            if (isOneOfMany(n, last))
                continue;
            SCOPED_TRACE(function + " " + std::to_string(n));
            watchdog.alive();
            reset();
            live(function.c_str(), n, true);
            EXPECT_TRUE(pulledOut);
            const int lost = sim::inUse().inputPorts;
            losses += lost;
            sim::Resources kept =
                lost ? keptAfter("midiInClose", GetParam().heapHigh) : sim::Resources();
            kept.inputBuffers = sim::inUse().inputBuffers;
            EXPECT_EQ(sim::inUse(), kept);
            // What the driver still does with what it keeps: ASan would tell.
            const unsigned char late[] = {0xF0, 1, 2};
            EXPECT_EQ(sim::returnBuffer(input, 3, late, 3, MIM_LONGERROR) != nullptr, lost == 1);
            sim::unloadDriver();
            kept.inputPorts = 0;
            kept.inputBuffers = 0;
            EXPECT_EQ(sim::inUse(), kept);
            if (HasFailure())
                return;
        }
    }
    EXPECT_GT(losses, 20);
}

INSTANTIATE_TEST_SUITE_P(
    On, EveryFailureTest,
    testing::Values(Machine{"HeapBelow4GB", sim::DriverKind::WaitsInReset, false},
                    Machine{"HeapAbove4GB", sim::DriverKind::WaitsInReset, true},
                    Machine{"Windows11HeapAbove4GB", sim::DriverKind::Windows11, true}),
    nameOf);

// Ports of other drivers go on serving their clients.
INSTANTIATE_TEST_SUITE_P(
    On, PulledOutTest,
    testing::Values(Machine{"Windows11HeapBelow4GB", sim::DriverKind::Windows11, false},
                    Machine{"Windows11HeapAbove4GB", sim::DriverKind::Windows11, true}),
    nameOf);

} // namespace
