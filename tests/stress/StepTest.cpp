// Two threads that meet at one instruction after the other. No seam in the sources is needed: the
// processor stops the one thread after each instruction, by its trap flag, while the other works.

#include "tests/stress/Stress.h"

// ThreadSanitizer's own threads and signals do not go with it.
#if defined(__x86_64__) && !defined(__SANITIZE_THREAD__)

#include <csignal>

namespace {

constexpr unsigned long kTrapFlag = 0x100;

std::atomic<int> steps{0};
std::atomic<int> meeting{0}; ///< the step at which the stepping thread stands still; 0: none
std::atomic<bool> met{false};
std::atomic<bool> goOn{false};

/// SIGTRAP's handler, on the stepping thread.
void step(int)
{
    if (++steps != meeting)
        return;
    met = true;
    while (!goOn)
        std::this_thread::yield();
}

// Both first leave alone what the compiler may keep below the stack pointer.

/// Has step() called after each instruction of the calling thread.
__attribute__((noinline)) void startStepping()
{
    asm volatile(
        "lea -128(%%rsp), %%rsp; pushfq; orq %0, (%%rsp); popfq; lea 128(%%rsp), %%rsp" ::"i"(
            kTrapFlag)
        : "cc", "memory");
}

__attribute__((noinline)) void stopStepping()
{
    asm volatile(
        "lea -128(%%rsp), %%rsp; pushfq; andq %0, (%%rsp); popfq; lea 128(%%rsp), %%rsp" ::"i"(
            ~kTrapFlag)
        : "cc", "memory");
}

class StepTest : public DeviceTest
{
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        sim::logCalls(false);
        sim::useVirtualTime();
        struct sigaction action = {};
        action.sa_handler = step;
        sigaction(SIGTRAP, &action, &before);
    }

    void TearDown() override
    {
        sigaction(SIGTRAP, &before, nullptr);
        DeviceTest::TearDown();
    }

    struct sigaction before = {};
};

TEST_F(StepTest, ASenderWhoseSignalIsLostEndsAtWhateverMomentThePortIsClosed)
{
    Watchdog watchdog(std::chrono::seconds(20));
    // The port is closed while a callback and a sender stand still: it must not wait for either.
    sim::setDriverKind(sim::DriverKind::WaitsInNeither);
    sim::setSleepError(999);
    const std::uint64_t host = sim::currentThread();
    // From the signal for the chunk, which fails, to the wait for it.
    sim::onCall("SetEvent", [&](const sim::Call&) {
        if (sim::currentThread() != host)
            startStepping();
    });
    sim::onCall("WaitForSingleObject", [&](const sim::Call&) {
        stopStepping();
        met = true;
    });
    const Bytes dump(5000, 0x11);
    const auto closeAt = [&](int number) {
        watchdog.alive();
        ASSERT_NE(transport->openOutput(1), nullptr);
        steps = 0;
        meeting = number;
        met = false;
        goOn = false;
        sim::clearFailures();
        sim::failCall("SetEvent");
        bool sent = true;
        std::thread sender([&] {
            sent = transport->outputData(static_cast<int>(dump.size()), dump.data());
            stopStepping();
        });
        while (!met)
            std::this_thread::yield();
        EXPECT_EQ(transport->closeOutput(), 0);
        goOn = true;
        sender.join();
        EXPECT_FALSE(sent) << "closed at step " << number;
    };
    closeAt(0);
    const int all = steps;
    ASSERT_GT(all, 100);
    // What must not be parted is many instructions long.
    for (int number = all; number > 0 && !HasFatalFailure(); number -= 3)
        closeAt(number);
}

} // namespace

#endif
