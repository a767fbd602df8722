// An input that is opened and closed over and over while its driver never stops sending.

#include "tests/stress/FloodCycles.h"
#include "tests/stress/Stress.h"

namespace {

const int kCycles = floodCycles(kThreadSanitizer ? 100 : 200);
constexpr std::size_t kSysExLength = 5000; // two buffers, so that a close can cut a message in two

class CloseUnderFloodTest : public SimTest, public testing::WithParamInterface<sim::DriverKind>
{
protected:
    using Access = TransportTestAccess;

    void SetUp() override
    {
        SimTest::SetUp();
        sim::logCalls(false);
        sim::DeviceOptions options;
        options.kind = GetParam();
        input = sim::addInput(u"Flooded", options);
    }

    /// The headers that are the library's again: with no device and not prepared.
    static int headersBack(TMIDITransport& transport)
    {
        int back = 0;
        for (const MIDIHDR& header : Access::device(transport).inHeaders)
            back += (header.dwFlags & (MHDR_INQUEUE | MHDR_PREPARED)) == 0;
        return back;
    }

    /// What the simulation itself keeps on the heap of each port that was opened and had buffers.
    std::size_t bytesPerPort()
    {
        constexpr std::size_t kPorts = 100;
        std::vector<MIDIHDR> headers(kInputHeaders);
        char buffer[16] = {};
        const std::size_t before = allocatedBytes();
        for (std::size_t i = 0; i < kPorts; ++i) {
            HMIDIIN port = nullptr;
            midiInOpen(&port, static_cast<UINT>(input), 0, 0, CALLBACK_NULL);
            for (MIDIHDR& header : headers) {
                header = {};
                header.lpData = buffer;
                header.dwBufferLength = sizeof buffer;
                midiInPrepareHeader(port, &header, sizeof header);
                midiInAddBuffer(port, &header, sizeof header);
            }
            midiInReset(port);
            for (MIDIHDR& header : headers)
                midiInUnprepareHeader(port, &header, sizeof header);
            midiInClose(port);
        }
        return (allocatedBytes() - before) / kPorts;
    }

    MapAccessor accessor;
    FloodChecker checker{kSysExLength};
    int input = -1;
};

class LateCallbackTest : public DeviceTest
{};

TEST_P(CloseUnderFloodTest, EveryCycleGetsAllBuffersBackAndNothingGrows)
{
    const std::size_t portBytes = bytesPerPort();
    Watchdog watchdog(std::chrono::seconds(20));
    TMIDITransport& transport = MIDITransportInstance(&accessor);
    transport.registerMIDIobserver(&checker);
    sim::Flood flood(input, 3, kSysExLength);

    int buffersGiven = 0;
    sim::onCall("midiInStart", [&](const sim::Call&) {
        buffersGiven = static_cast<int>(sim::queuedBuffers(input));
    });

    sim::Resources resources;
    int threads = 0;
    std::size_t bytes = 0;
    constexpr int kWarmUp = 20;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        watchdog.alive();
        const std::uint64_t before = checker.messages();
        buffersGiven = 0;
        ASSERT_NE(transport.openInput(1), nullptr) << "cycle " << cycle;
        ASSERT_EQ(buffersGiven, 768) << "cycle " << cycle;
        // Every other close comes in the middle of the delivery, the rest into the opening.
        while (cycle % 2 == 0 && checker.messages() < before + 20)
            std::this_thread::yield();
        ASSERT_EQ(transport.closeInput(), 0) << "cycle " << cycle;
        ASSERT_EQ(headersBack(transport), 768) << "cycle " << cycle;
        if (cycle == kWarmUp) {
            resources = sim::inUse();
            threads = settledThreadCount(3); // this one, the flood and the watchdog
            bytes = allocatedBytes();
        }
    }
    EXPECT_EQ(sim::inUse(), resources);
    EXPECT_EQ(settledThreadCount(threads), threads);
    const std::size_t simulated = std::size_t(kCycles - kWarmUp) * portBytes;
    EXPECT_LT(allocatedBytes(), bytes + simulated + 100'000) << "bytes per port: " << portBytes;

    flood.stop();
    EXPECT_EQ(checker.errors, 0u);
    EXPECT_GT(checker.shortMessages, 0u);
    EXPECT_GT(checker.sysExMessages, 0u);
    transport.Release();
    RecordProperty("shortMessages", std::to_string(checker.shortMessages));
    RecordProperty("sysExMessages", std::to_string(checker.sysExMessages));
    RecordProperty("cutSysExMessages", std::to_string(checker.cut));
}

TEST_P(CloseUnderFloodTest, AFreshTransportForEachCycleMeetsNoCallbackOfTheLast)
{
    Watchdog watchdog(std::chrono::seconds(20));
    sim::Flood flood(input, 3, kSysExLength);
    int losses = 0;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        watchdog.alive();
        TMIDITransport& transport = MIDITransportInstance(&accessor);
        transport.registerMIDIobserver(&checker);
        const std::uint64_t before = checker.messages();
        ASSERT_NE(transport.openInput(1), nullptr) << "cycle " << cycle;
        while (cycle % 2 == 0 && checker.messages() < before + 20)
            std::this_thread::yield();
        const bool isLost = GetParam() == sim::DriverKind::Windows11 && cycle % 50 == 49;
        if (isLost)
            sim::unplugInput(input);
        if (cycle % 3 != 0) { // or the last Release closes
            ASSERT_EQ(transport.closeInput(), 0) << "cycle " << cycle;
        }
        ASSERT_EQ(transport.Release(), 0u);
        if (isLost) {
            ++losses;
            sim::unloadDriver(); // which touches what it kept, and calls back
            sim::plugIn();
        }
    }
    flood.stop();
    EXPECT_EQ(checker.errors, 0u);
    left.heapBlocks = 2 * losses; // headers and data, left to the driver
}

TEST_P(CloseUnderFloodTest, WithThePortOpenEveryBufferIsBackAfterTheFlood)
{
    Watchdog watchdog(std::chrono::seconds(20));
    TMIDITransport& transport = MIDITransportInstance(&accessor);
    transport.registerMIDIobserver(&checker);
    for (int round = 0; round < 20; ++round) {
        watchdog.alive();
        ASSERT_NE(transport.openInput(1), nullptr);
        const std::uint64_t before = checker.messages();
        checker.restart();
        sim::Flood flood(input, 3, kSysExLength);
        while (checker.messages() < before + 200)
            std::this_thread::yield();
        flood.stop();
        while (sim::queuedBuffers(input) < 768)
            std::this_thread::yield();
        ASSERT_EQ(transport.closeInput(), 0);
    }
    EXPECT_EQ(checker.errors, 0u);
    transport.Release();
}

TEST_F(LateCallbackTest, ANoticeOfAPortThatIsClosedDoesNotTakeABufferOfTheNextOne)
{
    const Watchdog watchdog(std::chrono::seconds(20));
    sim::logCalls(false);
    ASSERT_NE(transport->openInput(1), nullptr);
    const MIDIHDR* const header = device().inHeaders.begin();
    EXPECT_EQ(transport->closeInput(), 0);
    ASSERT_NE(transport->openInput(1), nullptr);

    // A driver that does not wait for its callbacks: this one was on its way since before the
    // close. The header is with the device again.
    Access::midiInProc(*transport, MIM_LONGDATA,
                       static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(header)));
    sim::shortMessage(input, 0x643C90);
    EXPECT_TRUE(recorder.waitFor(1)) << "the pusher waits for a buffer that is not back";
    EXPECT_EQ(sim::queuedBuffers(input), 768u);
    EXPECT_EQ(transport->closeInput(), 0);
}

INSTANTIATE_TEST_SUITE_P(Driver, CloseUnderFloodTest, kDriverKinds, driverName);

} // namespace
