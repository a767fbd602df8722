// Real threads that meet in the transport: for ThreadSanitizer, which sees what the tests do not
// assert. Flooded opening and closing is CloseUnderFloodTest.cpp's.

#include "tests/stress/Stress.h"

namespace {

constexpr std::size_t kSysExLength = 5000;

class RaceTest : public SimTest, public testing::WithParamInterface<sim::DriverKind>
{
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        sim::logCalls(false);
        input = addInput(u"In");
        sim::DeviceOptions options;
        options.kind = GetParam();
        options.completion = sim::Completion::Thread;
        output = sim::addOutput(u"Out", options);
        accessor.maps[false][uuid(1)] = "1;In";
        accessor.maps[true][uuid(2)] = "1;Out";
    }

    static int addInput(const char16_t* name)
    {
        sim::DeviceOptions options;
        options.kind = GetParam();
        return sim::addInput(name, options);
    }

    static void waitForMessages(const FloodChecker& checker, std::uint64_t count)
    {
        const std::uint64_t before = checker.messages();
        while (checker.messages() < before + count)
            std::this_thread::yield();
    }

    MapAccessor accessor;
    FloodChecker checker{kSysExLength};
    Watchdog watchdog{std::chrono::seconds(20)};
    int input = -1;
    int output = -1;
};

TEST_P(RaceTest, AnObserverCallsBackWhileTheHostOpensAndCloses)
{
    TMIDITransport& transport = MIDITransportInstance(&accessor);
    std::uint64_t wrong = 0;
    checker.onRead = [&] {
        const unsigned char note[] = {0x90, 60, 100};
        transport.registerMIDIobserver(&checker);
        transport.outputData(sizeof note, note);
        transport.openInput(0);
        transport.openOutput(0);
        wrong += transport.friendlyName(uuid(2)) != QLatin1String("Out");
        wrong += transport.getInpDescriptorPort(uuid(1)) != 1;
        wrong += transport.getOutPortDescriptor(1) != uuid(2);
    };
    transport.registerMIDIobserver(&checker);
    ASSERT_NE(transport.openOutput(1), nullptr);
    sim::Flood flood(input, 4, kSysExLength);
    for (int round = 0; round < 20; ++round) {
        watchdog.alive();
        ASSERT_NE(transport.openInput(1), nullptr);
        waitForMessages(checker, 20);
        ASSERT_EQ(transport.closeInput(), 0);
    }
    flood.stop();
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(checker.errors, 0u);
    transport.Release();
}

TEST_P(RaceTest, AnObserverThatOpensAndClosesTheOutputDoesNotHoldUpTheClosingOfTheInput)
{
    TMIDITransport& transport = MIDITransportInstance(&accessor);
    checker.onRead = [&] {
        // Either may be turned away while the host closes the input.
        if (!transport.openOutput(0))
            transport.openOutput(1);
        else
            transport.closeOutput();
    };
    transport.registerMIDIobserver(&checker);
    sim::Flood flood(input, 4, kSysExLength);
    for (int round = 0; round < 20; ++round) {
        watchdog.alive();
        ASSERT_NE(transport.openInput(1), nullptr);
        waitForMessages(checker, 20);
        ASSERT_EQ(transport.closeInput(), 0);
    }
    flood.stop();
    transport.Release();
}

TEST_P(RaceTest, TerminateStopsADeliveryInProgress)
{
    for (int round = 0; round < 20; ++round) {
        watchdog.alive();
        TMIDITransport& transport = MIDITransportInstance(&accessor);
        FloodChecker terminated(kSysExLength);
        std::atomic<std::uint64_t> before{UINT64_MAX};
        std::atomic<int> later{0};
        terminated.onRead = [&] { later += terminated.messages() > before; };
        transport.registerMIDIobserver(&terminated);
        ASSERT_NE(transport.openInput(1), nullptr);
        sim::Flood flood(input, 4, kSysExLength);
        waitForMessages(terminated, 50);
        transport.terminate();
        before = terminated.messages();
        const std::uint64_t sent = sim::callCount("SetEvent");
        while (sim::callCount("SetEvent") < sent + 500) // one for each message
            std::this_thread::yield();
        ASSERT_EQ(transport.closeInput(), 0); // after one more drain
        flood.stop();
        EXPECT_LE(later, 1) << "only the call that was under way comes to its end";
        EXPECT_EQ(terminated.errors, 0u);
        transport.Release();
    }
}

TEST_P(RaceTest, ReleaseDuringDeliveryEndsItAndClosesThePorts)
{
    for (int round = 0; round < 20; ++round) {
        watchdog.alive();
        TMIDITransport& transport = MIDITransportInstance(&accessor);
        FloodChecker released(kSysExLength);
        transport.registerMIDIobserver(&released);
        ASSERT_NE(transport.openInput(1), nullptr);
        ASSERT_NE(transport.openOutput(1), nullptr);
        sim::Flood flood(input, 4, kSysExLength);
        waitForMessages(released, 50);
        EXPECT_EQ(transport.Release(), 0u);
        const std::uint64_t messages = released.messages();
        EXPECT_EQ(released.errors, 0u);
        EXPECT_EQ(sim::inUse(), sim::Resources());
        flood.stop(); // on and on until here
        EXPECT_EQ(released.messages(), messages);
    }
}

TEST_P(RaceTest, TwoTransportsWorkOnTwoInputsAtOnce)
{
    const int second = addInput(u"Second");
    // The factory counts transports without a lock, so one thread makes both.
    TMIDITransport& one = MIDITransportInstance(&accessor);
    TMIDITransport& two = MIDITransportInstance(&accessor);
    const auto host = [&](TMIDITransport& transport, int port) {
        FloodChecker own(kSysExLength);
        transport.registerMIDIobserver(&own);
        for (int round = 0; round < 20; ++round) {
            watchdog.alive();
            EXPECT_NE(transport.openInput(port), nullptr);
            waitForMessages(own, 30);
            EXPECT_EQ(transport.closeInput(), 0);
        }
        EXPECT_EQ(own.errors, 0u);
        transport.Release();
    };
    sim::Flood flood(input, 4, kSysExLength);
    sim::Flood secondFlood(second, 4, kSysExLength);
    std::thread other([&] { host(two, second + 1); });
    host(one, input + 1);
    other.join();
    flood.stop();
    secondFlood.stop();
}

TEST_P(RaceTest, DumpsGoOutWhileInputComesIn)
{
    sim::useVirtualTime(); // no waiting between chunks
    const int returning = addInput(u"Returning");
    sim::connect(output, returning);
    TMIDITransport& sender = MIDITransportInstance(&accessor);
    TMIDITransport& receiver = MIDITransportInstance(&accessor);
    FloodChecker returned(10'000);
    sender.registerMIDIobserver(&checker);
    receiver.registerMIDIobserver(&returned);
    ASSERT_NE(sender.openInput(input + 1), nullptr);
    ASSERT_NE(sender.openOutput(1), nullptr);
    ASSERT_NE(receiver.openInput(returning + 1), nullptr);
    sim::Flood flood(input, 4, kSysExLength);
    for (std::uint64_t n = 0; n < 100; ++n) {
        const Bytes dump = sim::floodSysEx(n, 10'000);
        ASSERT_TRUE(sender.outputData(static_cast<int>(dump.size()), dump.data()));
    }
    while (returned.sysExMessages < 100)
        std::this_thread::yield();
    flood.stop();
    EXPECT_EQ(returned.errors, 0u);
    EXPECT_EQ(returned.cut, 0u);
    EXPECT_EQ(checker.errors, 0u);
    sender.Release();
    receiver.Release();
}

TEST_P(RaceTest, ClosingTheOutputEndsALongDumpOfAnotherThread)
{
    sim::useVirtualTime();
    TMIDITransport& transport = MIDITransportInstance(&accessor);
    const Bytes dump = sim::floodSysEx(0, 400'000);
    // The dump's later pauses last until the port is closed, so that it cannot end before.
    std::atomic<int> pauses{0};
    std::atomic<bool> closed{false};
    sim::onCall("Sleep", [&](const sim::Call& call) {
        const std::uint64_t milliseconds = call.arguments[0];
        if (milliseconds <
            100) { // no pause: the closing thread waits, and the sender needs its time
            std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
            return;
        }
        for (const bool late = ++pauses > 50; late && !closed;)
            std::this_thread::yield();
    });
    for (int round = 0; round < 100; ++round) {
        watchdog.alive();
        pauses = 0;
        closed = false;
        ASSERT_NE(transport.openOutput(1), nullptr) << "round " << round;
        bool sent = true;
        const std::uint64_t before = sim::callCount("midiOutLongMsg");
        std::thread sender(
            [&] { sent = transport.outputData(static_cast<int>(dump.size()), dump.data()); });
        while (sim::callCount("midiOutLongMsg") < before + std::uint64_t(round % 5))
            std::this_thread::yield();
        EXPECT_EQ(transport.closeOutput(), 0);
        closed = true;
        sender.join();
        EXPECT_FALSE(sent);
        ASSERT_EQ(sim::inUse().outputPorts, 0) << "round " << round;
    }
    sim::clearHooks();
    transport.Release();
}

INSTANTIATE_TEST_SUITE_P(Driver, RaceTest, kDriverKinds, driverName);

} // namespace
