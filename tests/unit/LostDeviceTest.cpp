// Devices that are pulled out, refuse to close, or come back to what was closed long ago.

#include "tests/stress/Watchdog.h"
#include "tests/unit/TestSupport.h"

#include <cstdint>
#include <cstring>

namespace {

DWORD low32(const void* address)
{
    return static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(address));
}

/// The parameter: whether the heap lies above 4 GB, so that the headers need pages of their own.
class LostDeviceTest : public DeviceTest, public testing::WithParamInterface<bool>
{
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        releaseTransport();
        sim::setHeapHigh(GetParam());
        makeTransport();
    }

    /// A device that was pulled out: it refuses everything, and keeps what it has.
    static void pullOut()
    {
        for (const char* function :
             {"midiInStop", "midiInReset", "midiInUnprepareHeader", "midiInAddBuffer",
              "midiOutReset", "midiOutUnprepareHeader", "midiOutPrepareHeader", "midiOutLongMsg"})
            sim::failCall(function, 1, MMSYSERR_NODRIVER, sim::kAllFromThere);
    }

    /// Writes to a header and its data as a driver does that still has it.
    static void touch(MIDIHDR* header)
    {
        header->dwFlags = (header->dwFlags & ~MHDR_INQUEUE) | MHDR_DONE;
        header->dwBytesRecorded = 1;
        std::memset(header->lpData, 0xF0, header->dwBufferLength);
    }

    /// One set of headers and one of data that a lost device keeps.
    sim::Resources oneSet() const
    {
        sim::Resources resources;
        resources.heapBlocks = GetParam() ? 1 : 2;
        resources.virtualBlocks = GetParam() ? 1 : 0;
        return resources;
    }

    const Watchdog watchdog{std::chrono::seconds(20)};
};

TEST_P(LostDeviceTest, AnInputThatCannotBeClosedKeepsItsBuffersAndItsCallbackDoesNothing)
{
    ASSERT_NE(transport->openInput(1), nullptr);
    MIDIHDR* const header = device().inHeaders.begin() + 5;
    pullOut();
    EXPECT_EQ(transport->closeInput(), 0);
    ASSERT_EQ(sim::calls("GetModuleHandleExW").size(), 1u) << "the callback's code must stay";
    EXPECT_EQ(
        sim::calls("GetModuleHandleExW")[0].arguments[0],
        std::uint64_t(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS));
    releaseTransport();

    // The driver is unloaded only now.
    touch(header);
    EXPECT_TRUE(sim::raw(input, MIM_LONGERROR, low32(header), 0));
    EXPECT_TRUE(sim::raw(input, MIM_DATA, 0x643C90, 0));
    EXPECT_TRUE(sim::raw(input, MIM_CLOSE, 0, 0));
    EXPECT_EQ(recorder.count(), 0u);
    left = oneSet();
    left.inputPorts = 1;
    left.inputBuffers = int(kInputHeaders);
}

TEST_P(LostDeviceTest, ATransportWhoseInputWasLostOpensAnotherWithFreshBuffers)
{
    const int second = sim::addInput(u"Second");
    ASSERT_NE(transport->openInput(1), nullptr);
    MIDIHDR* const lost = device().inHeaders.begin();
    pullOut();
    EXPECT_EQ(transport->closeInput(), 0);
    sim::clearFailures();
    ASSERT_NE(transport->openInput(2), nullptr);
    EXPECT_EQ(sim::queuedBuffers(second), 768u);
    EXPECT_NE(device().inHeaders.begin(), lost);

    // What the lost one still reports takes no buffer of the other.
    touch(lost);
    EXPECT_TRUE(sim::raw(input, MIM_LONGDATA, low32(lost), 0));
    const Bytes message = {0xF0, 1, 2, 0xF7};
    sim::sysEx(second, message.data(), message.size());
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.received()[0].bytes, message);
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_EQ(recorder.count(), 1u);
    releaseTransport();
    left = oneSet();
    left.inputPorts = 1;
    left.inputBuffers = int(kInputHeaders);
}

TEST_P(LostDeviceTest, AnInputWhoseResetIsRefusedIsNotWaitedFor)
{
    ASSERT_NE(transport->openInput(1), nullptr);
    pullOut();
    sim::clearCalls();
    releaseTransport();
    EXPECT_TRUE(sim::calls("Sleep").empty());
    left = oneSet();
    left.inputPorts = 1;
    left.inputBuffers = int(kInputHeaders);
}

TEST_P(LostDeviceTest, AnOutputThatCannotBeClosedKeepsItsBuffersAndItsCallbackDoesNothing)
{
    sim::setCompletion(output, sim::Completion::Manual);
    ASSERT_NE(transport->openOutput(1), nullptr);
    const unsigned char note[] = {0x90, 1, 2};
    ASSERT_TRUE(transport->outputData(3, note));
    const MIDIHDR* const header = sim::sent(output)[0].header;
    pullOut();
    sim::clearCalls();
    EXPECT_EQ(transport->closeOutput(), 0);
    EXPECT_TRUE(sim::calls("Sleep").empty()) << "there is nothing to wait for";
    EXPECT_EQ(sim::callCount("GetModuleHandleExW"), 1u);
    releaseTransport();
    EXPECT_EQ(sim::completeOutput(output), header);
    EXPECT_TRUE(header->dwFlags & MHDR_DONE);
    left = oneSet();
    left.outputPorts = 1;
}

TEST_P(LostDeviceTest, HeadersThatADeviceKeptAreNeverUsedAgain)
{
    const int second = sim::addOutput(u"Second");
    sim::setCompletion(output, sim::Completion::Manual);
    sim::setCompletion(second, sim::Completion::Manual);
    ASSERT_NE(transport->openOutput(1), nullptr);
    const unsigned char note[] = {0x90, 1, 2};
    ASSERT_TRUE(transport->outputData(3, note));
    MIDIHDR* const kept = const_cast<MIDIHDR*>(sim::sent(output)[0].header);
    sim::useVirtualTime();
    sim::failCall("midiOutReset", 1, MMSYSERR_NOERROR, sim::kAllFromThere); // resets nothing
    const DWORD start = timeGetTime();
    EXPECT_EQ(transport->closeOutput(), 0);
    EXPECT_LE(timeGetTime() - start, 1000u);
    EXPECT_EQ(kept->dwFlags & (MHDR_INQUEUE | MHDR_DONE), DWORD(MHDR_INQUEUE));
    EXPECT_EQ(kept->lpData[0], char(0x90));

    ASSERT_NE(transport->openOutput(2), nullptr);
    const unsigned char other[] = {0x80, 1, 2};
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(transport->outputData(3, other));
        EXPECT_NE(sim::sent(second)[std::size_t(i)].header, kept);
    }
    EXPECT_EQ(kept->lpData[0], char(0x90));
    sim::clearFailures();
    EXPECT_EQ(transport->closeOutput(), 0);
    EXPECT_EQ(sim::completeOutput(output), kept);
    releaseTransport();
    left = oneSet();
    left.outputPorts = 1;
}

TEST_P(LostDeviceTest, ACallbackThatBeginsAfterTheLastReleaseDoesNothing)
{
    ASSERT_NE(transport->openInput(1), nullptr);
    ASSERT_NE(transport->openOutput(1), nullptr);
    const DWORD_PTR instance = Access::instance(*transport);
    const DWORD inHeader = low32(device().inHeaders.begin());
    const DWORD outHeader = low32(device().outHeaders.begin());
    releaseTransport();
    sim::clearCalls();
    Access::midiInProc(instance, MIM_DATA, 0x643C90);
    Access::midiInProc(instance, MIM_LONGDATA, inHeader);
    Access::midiOutProc(MOM_DONE, outHeader);
    EXPECT_TRUE(sim::calls("SetEvent").empty());
}

INSTANTIATE_TEST_SUITE_P(Heap, LostDeviceTest, testing::Bool(),
                         [](const auto& high) { return high.param ? "Above4GB" : "Below4GB"; });

class LateDeviceTest : public DeviceTest
{
protected:
    /// Of the closing of an input whose observer's chunk is lost, 1.35 s, on a busy machine.
    static constexpr std::chrono::seconds kInTime{5};

    const Watchdog watchdog{std::chrono::seconds(20)};
};

TEST_F(LateDeviceTest, ABufferIsTakenWhateverHandleTheDriverCallsBackWith)
{
    openForDraining();
    const Bytes message = {0xF0, 1, 2, 0xF7};
    sim::sysEx(input, message.data(), message.size());
    InputRecord record;
    ASSERT_TRUE(device().takeRecord(&record));
    Access::midiInProc(Access::instance(*transport), MIM_LONGDATA, record.param);
    Access::drain(*transport);
    EXPECT_EQ(recorder.count(), 1u);
    EXPECT_EQ(sim::queuedBuffers(input), 768u);
}

TEST_F(LateDeviceTest, ACallbackWhoseThreadWasEndedDoesNotKeepTheInputFromClosing)
{
    std::atomic<bool> inCallback{false};
    std::atomic<bool> leave{false};
    ASSERT_NE(transport->openInput(1), nullptr);
    const DWORD_PTR instance = Access::instance(*transport);
    std::atomic<std::thread::id> driverThread;
    sim::onCall("SetEvent", [&](const sim::Call&) {
        if (std::this_thread::get_id() != driverThread)
            return;
        inCallback = true;
        while (!leave)
            std::this_thread::yield();
    });
    std::thread driver([&] {
        driverThread = std::this_thread::get_id();
        Access::midiInProc(instance, MIM_DATA, 0x643C90);
    });
    while (!inCallback)
        std::this_thread::yield();
    sim::useVirtualTime();
    const DWORD start = timeGetTime();
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_LE(timeGetTime() - start, 1000u);
    releaseTransport();
    // It may also have been slow only: then it must not meet anything that is gone.
    leave = true;
    driver.join();
    EXPECT_EQ(sim::callCount("GetModuleHandleExW"), 1u) << "its code must stay";
    left.handles = 2; // the events and all buffers
    left.heapBlocks = 4;
}

TEST_F(LateDeviceTest, TheObserversDumpToADeviceThatWasPulledOutDoesNotKeepTheInputFromClosing)
{
    sim::setCompletion(output, sim::Completion::Manual);
    ASSERT_NE(transport->openInput(1), nullptr);
    ASSERT_NE(transport->openOutput(1), nullptr);
    std::atomic<bool> sending{false};
    std::atomic<int> refused{0};
    recorder.onRead = [&] {
        const Bytes dump(5000, 0x11);
        sending = true;
        refused += !transport->outputData(int(dump.size()), dump.data());
    };
    // Several, each of which sends a dump when it is delivered.
    for (int i = 0; i < 10; ++i)
        sim::shortMessage(input, 0x643C90);
    while (!sending || sim::inUse().outputBuffers == 0)
        std::this_thread::yield();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, kInTime);
    EXPECT_EQ(recorder.count(), 10u);
    EXPECT_EQ(refused, 10);
    while (sim::completeOutput(output)) {
    }
    // To the next closing the loss means nothing.
    bool sent = false;
    recorder.onRead = [&] {
        while (!device().closingInput)
            std::this_thread::yield();
        const Bytes dump(5000, 0x11);
        sent = transport->outputData(int(dump.size()), dump.data());
    };
    sim::setCompletion(output, sim::Completion::Inline);
    ASSERT_NE(transport->openInput(1), nullptr);
    sim::shortMessage(input, 0x643C90);
    ASSERT_TRUE(recorder.waitFor(11));
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_TRUE(sent);
}

TEST_F(LateDeviceTest, TheObserversSpinOnAFullPoolDoesNotKeepTheInputFromClosing)
{
    sim::logCalls(false);
    sim::setCompletion(output, sim::Completion::Manual);
    ASSERT_NE(transport->openInput(1), nullptr);
    ASSERT_NE(transport->openOutput(1), nullptr);
    const unsigned char note[] = {0x90, 1, 2};
    for (int i = 0; i < 8; ++i)
        ASSERT_TRUE(transport->outputData(3, note));
    std::atomic<bool> sending{false};
    std::atomic<bool> sent{true};
    recorder.onRead = [&] {
        sending = true;
        sent = transport->outputData(3, note);
    };
    sim::shortMessage(input, 0x643C90);
    while (!sending)
        std::this_thread::yield();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, kInTime);
    EXPECT_FALSE(sent);
}

TEST_F(LateDeviceTest, AnOutputWaitsForTheChunkThatItsResetDidNotFinish)
{
    sim::useVirtualTime();
    sim::setCompletion(output, sim::Completion::Manual);
    sim::failCall("midiOutReset", 1, MMSYSERR_NOERROR, sim::kAllFromThere); // finishes nothing
    for (const DWORD late : {0u, 1u, 5u, 20u, 490u}) {
        SCOPED_TRACE(late);
        ASSERT_NE(transport->openOutput(1), nullptr);
        const unsigned char note[] = {0x90, 1, 2};
        ASSERT_TRUE(transport->outputData(3, note));
        const std::uint64_t closes = sim::callCount("midiOutClose");
        const DWORD start = timeGetTime();
        sim::onCall("Sleep", [&](const sim::Call&) {
            if (timeGetTime() - start >= late)
                sim::completeOutput(output);
        });
        EXPECT_EQ(transport->closeOutput(), 0);
        EXPECT_EQ(sim::callCount("midiOutClose"), closes + 1) << "a handle is closed only once";
        EXPECT_EQ(sim::inUse().outputPorts, 0);
        sim::clearHooks();
    }
}

TEST_F(LateDeviceTest, AChunkThatIsReportedButNeverMarkedDoneIsNotWaitedForWithoutEnd)
{
    sim::setCompletion(output, sim::Completion::Manual);
    ASSERT_NE(transport->openOutput(1), nullptr);
    const Bytes dump(4097, 0x11);
    std::atomic<bool> ended{false};
    bool sent = false;
    std::thread sender([&] {
        sent = transport->outputData(int(dump.size()), dump.data());
        ended = true;
    });
    while (sim::inUse().outputBuffers == 0)
        std::this_thread::yield();
    sim::rawOutput(output, MOM_DONE, low32(sim::sent(output)[0].header), 0);
    for (int i = 0; i < 500 && !ended; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(ended);
    while (!ended)
        sim::completeOutput(output);
    sender.join();
    EXPECT_TRUE(sent);
    EXPECT_EQ(sim::sent(output).size(), 2u);
}

TEST_F(LateDeviceTest, ARefusedChunkThatTheDriverReportsAllTheSameEndsNoLaterWait)
{
    ASSERT_NE(transport->openOutput(1), nullptr);
    const Bytes dump(4097, 0x11);
    sim::onCall("midiOutLongMsg", [&](const sim::Call& call) {
        call.header->dwFlags |= MHDR_DONE;
        sim::rawOutput(output, MOM_DONE, low32(call.header), 0);
    });
    sim::failCall("midiOutLongMsg");
    EXPECT_FALSE(transport->outputData(int(dump.size()), dump.data()));
    EXPECT_FALSE(sim::isSignalled(device().doneEvent));
    EXPECT_EQ(device().outHeaders.begin()->dwFlags, 0u);
    sim::clearHooks();
    EXPECT_TRUE(transport->outputData(int(dump.size()), dump.data()));
}

TEST_F(LateDeviceTest, ASendThatWindows11GivesUpIsBorneHoweverTheDriverEndsIt)
{
    using Failed = sim::Windows11::FailedLong;
    for (const Failed failed :
         {Failed::StaysWithClient, Failed::DoneWithError, Failed::DoneWithSuccess}) {
        SCOPED_TRACE(int(failed));
        sim::DeviceOptions options;
        options.kind = sim::DriverKind::Windows11;
        options.windows11.sendPiece = 5;
        options.windows11.failedLong = failed;
        const int number = sim::addOutput(u"Stalled", options);
        ASSERT_NE(transport->openOutput(number + 1), nullptr);
        const Bytes lost(4097, 0x11);
        const Bytes dump(4097, 0x22);
        sim::stallOutput(number, true);
        EXPECT_EQ(transport->outputData(int(lost.size()), lost.data()),
                  failed == Failed::DoneWithSuccess);
        EXPECT_FALSE(sim::isSignalled(device().doneEvent));
        sim::stallOutput(number, false);
        sim::clearSent(number);
        EXPECT_TRUE(transport->outputData(int(dump.size()), dump.data()));
        ASSERT_EQ(sim::sent(number).size(), 2u);
        EXPECT_EQ(sim::sent(number)[0].bytes, Bytes(4096, 0x22));
        EXPECT_GE(sim::sent(number)[1].time - sim::sent(number)[0].time, 100u);
        EXPECT_EQ(transport->closeOutput(), 0);
    }
}

TEST_F(LateDeviceTest, ARefusedChunkThatTheDriverKeepsIsNotUsedAgain)
{
    ASSERT_NE(transport->openOutput(1), nullptr);
    const unsigned char note[] = {0x90, 1, 2};
    sim::onCall("midiOutLongMsg",
                [&](const sim::Call& call) { call.header->dwFlags |= MHDR_INQUEUE; });
    sim::failCall("midiOutLongMsg");
    EXPECT_FALSE(transport->outputData(3, note));
    sim::clearHooks();
    EXPECT_TRUE(transport->outputData(3, note));
    EXPECT_EQ(sim::sent(output).back().header, device().outHeaders.begin() + 1);
    device().outHeaders.begin()->dwFlags = MHDR_DONE;
}

TEST_F(LateDeviceTest, AnObserverThatReadsTheTransportIsStillKnownWhenItClosesTheInput)
{
    std::atomic<int> closed{0};
    recorder.onRead = [&] {
        static_cast<TMIDIReaderRefConInterface&>(*transport).read(0, nullptr, true, false);
        closed = transport->closeInput();
    };
    ASSERT_NE(transport->openInput(1), nullptr);
    sim::shortMessage(input, 0x643C90);
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_EQ(closed, -1);
}

} // namespace
