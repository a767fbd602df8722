// An observer that stalls while its input is flooded: only short messages are lost, and only where
// the record queue keeps room for the notices that hand the buffers back.

#include "tests/stress/Stress.h"
#include "workbench/device/InputPort.h"

#include <random>

namespace {

constexpr std::size_t kBuffers = kInputHeaders;

class OverloadTest : public DeviceTest, public testing::WithParamInterface<sim::DriverKind>
{
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        sim::logCalls(false);
        sim::setDriverKind(GetParam());
        // The tests bring observers of their own, which do not keep everything.
        releaseTransport();
        transport = &MIDITransportInstance(&accessor);
    }
};

/// Compares what arrives with what is expected, and waits at the first message until it is let go.
class StalledObserver : public TMIDIReaderRefConInterface
{
public:
    virtual ~StalledObserver() = default;

    int read(int length, const void* data, bool, bool) override
    {
        const auto* const bytes = static_cast<const unsigned char*>(data);
        if (received == 0) {
            reached.open();
            gate.wait();
        }
        const std::size_t i = received;
        if (i >= expected.size() || expected[i] != Bytes(bytes, bytes + length))
            ++wrong;
        received = i + 1;
        return 0;
    }

    std::vector<Bytes> expected; ///< complete before the gate opens
    Gate reached;
    Gate gate;
    std::atomic<std::size_t> received{0};
    std::atomic<std::size_t> wrong{0};
};

TEST_P(OverloadTest, OnlyShortMessagesThatWouldTouchTheReserveAreLostAndAllElseComesInOrder)
{
    const Watchdog watchdog(std::chrono::seconds(30));
    StalledObserver observer;
    transport->registerMIDIobserver(&observer);
    ASSERT_NE(transport->openInput(1), nullptr);
    sim::shortMessage(input, device::floodWord(0));
    observer.reached.wait(); // the queue is empty, and nobody empties it from here on
    observer.expected.push_back({0x90, 0, 0, 0});

    // What the rules say, counted apart from the queue.
    std::size_t room = 524288;
    std::size_t buffers = kBuffers;
    std::size_t dropped = 0;
    std::mt19937 random(4711);
    for (std::uint64_t n = 1; n <= 100'000; ++n) {
        const std::size_t length = 8 + random() % 9000;
        const std::size_t pieces = (length + 4095) / 4096;
        if (n % 100 == 0 && pieces <= buffers) {
            const Bytes message = sim::floodSysEx(n, length);
            ASSERT_EQ(sim::sysEx(input, message.data(), length), length);
            observer.expected.push_back(message);
            buffers -= pieces;
            room -= pieces * 8;
        } else {
            const DWORD message = device::floodWord(DWORD(n));
            sim::shortMessage(input, message);
            if (room < 6160) {
                ++dropped;
                continue;
            }
            observer.expected.push_back({static_cast<unsigned char>(message),
                                         static_cast<unsigned char>(message >> 8),
                                         static_cast<unsigned char>(message >> 16), 0});
            room -= 8;
        }
    }
    EXPECT_GT(dropped, 0u);
    EXPECT_LT(buffers, 3u) << "the flood was to fill nearly all buffers";
    EXPECT_GE(room, 8 * buffers + 16) << "the reserve for the other notices";

    observer.gate.open();
    while (sim::queuedBuffers(input) < kBuffers || observer.received < observer.expected.size())
        std::this_thread::yield();
    EXPECT_EQ(observer.received, observer.expected.size());
    EXPECT_EQ(observer.wrong, 0u);
    EXPECT_EQ(transport->closeInput(), 0);
}

TEST_P(OverloadTest, AfterStallsThatFillTheQueueEverySysExIsByteExactAndEveryBufferBack)
{
    constexpr std::size_t kLength = 5000;
    constexpr int kStalls = 3;
    constexpr std::uint64_t kRecords = 65536; // that the queue holds
    Watchdog watchdog(std::chrono::seconds(30));
    FloodChecker checker(kLength);
    std::atomic<int> stalls{0};
    checker.onRead = [&] {
        if (checker.messages() % 5'000 != 1 || stalls == kStalls)
            return;
        // Every callback signals once, whether or not there was room for its record.
        const std::uint64_t full = sim::callCount("SetEvent") + kRecords;
        while (sim::callCount("SetEvent") < full)
            std::this_thread::yield();
        watchdog.alive();
        ++stalls;
    };
    transport->registerMIDIobserver(&checker);
    ASSERT_NE(transport->openInput(1), nullptr);
    sim::Flood flood(input, 20, kLength);
    while (stalls < kStalls)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const sim::FloodReport report = flood.stop();

    while (sim::queuedBuffers(input) < kBuffers || checker.sysExMessages < report.sysExMessages)
        std::this_thread::yield();
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_EQ(checker.sysExMessages, report.sysExMessages);
    EXPECT_LT(checker.shortMessages, report.shortMessages) << "the queue never ran full";
    EXPECT_EQ(checker.errors, 0u);
    EXPECT_EQ(checker.cut, 0u);
}

INSTANTIATE_TEST_SUITE_P(Driver, OverloadTest,
                         testing::Values(sim::DriverKind::WaitsInReset, sim::DriverKind::Windows11),
                         driverName);

} // namespace
