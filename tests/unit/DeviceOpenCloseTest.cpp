#include "tests/unit/TestSupport.h"

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace {

class DeviceOpenCloseTest : public DeviceTest
{
protected:
    static std::vector<std::string> midiCalls()
    {
        std::vector<std::string> names;
        for (const std::string& name : sim::callNames()) {
            if (name.compare(0, 4, "midi") == 0)
                names.push_back(name);
        }
        return names;
    }

    /// Nothing is open, no thread runs and no flag is left behind.
    void expectClosed()
    {
        EXPECT_EQ(device().hMidiIn, nullptr);
        EXPECT_FALSE(device().closingInput);
        EXPECT_EQ(Access::pusher(*transport), nullptr);
        EXPECT_EQ(sim::inUse().inputPorts, 0);
        EXPECT_EQ(sim::inUse().inputBuffers, 0);
        EXPECT_EQ(transport->closeInput(), -1);
    }
};

TEST_F(DeviceOpenCloseTest, ConstructionSetsUpTheEventAndAllBuffersInOrder)
{
    releaseTransport();
    sim::clearCalls();
    makeTransport();
    const std::vector<sim::Call> events = sim::calls("CreateEventW");
    ASSERT_EQ(events.size(), 2u); // the transport's own, then this one
    EXPECT_FALSE(sim::isSignalled(device().doneEvent));
    std::vector<std::uint64_t> sizes;
    for (const sim::Call& call : sim::calls("HeapAlloc"))
        sizes.push_back(call.arguments[1]);
    EXPECT_EQ(sizes, (std::vector<std::uint64_t>{86016, 3145728, 896, 32768}));
    EXPECT_EQ(device().recordQueue.space(), 524288);
}

TEST_F(DeviceOpenCloseTest, EachFailedSetUpStepSkipsTheLaterOnesAndIsSurvived)
{
    struct
    {
        const char* function;
        unsigned call;
        int heapCalls;
    } const steps[] = {{"CreateEventW", 2, 0},
                       {"HeapAlloc", 1, 1},
                       {"HeapAlloc", 2, 2},
                       {"HeapAlloc", 3, 3},
                       {"HeapAlloc", 4, 4}};
    for (const auto& step : steps) {
        SCOPED_TRACE(std::string(step.function) + " " + std::to_string(step.call));
        releaseTransport();
        sim::failCall(step.function, step.call);
        sim::clearCalls();
        makeTransport();
        EXPECT_TRUE(transport->valid());
        EXPECT_EQ(sim::calls("HeapAlloc").size(), std::size_t(step.heapCalls));

        const unsigned char message[3] = {0x90, 1, 2};
        EXPECT_EQ(transport->outputData(3, message), false);
        ASSERT_NE(transport->openOutput(1), nullptr);
        EXPECT_FALSE(transport->outputData(3, message));
        EXPECT_EQ(transport->closeOutput(), 0);
        transport->openInput(1);
        transport->closeInput();
        expectClosed();
    }
}

TEST_F(DeviceOpenCloseTest, WithoutInputBuffersAnInputStillDeliversShortMessages)
{
    releaseTransport();
    sim::failCall("HeapAlloc", 1);
    makeTransport();
    ASSERT_NE(transport->openInput(1), nullptr);
    sim::shortMessage(input, 0x643C90);
    EXPECT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(transport->closeInput(), 0);
}

TEST_F(DeviceOpenCloseTest, CountsComeFromTheAccessor)
{
    accessor.maps[0].insert(uuid(1), "1;A");
    accessor.maps[0].insert(uuid(2), "2;B");
    accessor.maps[1].insert(uuid(3), "1;C");
    EXPECT_EQ(transport->numberOfInputs(), 2);
    EXPECT_EQ(transport->numberOfOutputs(), 1);
}

TEST_F(DeviceOpenCloseTest, DescriptorsAreFoundByTheNumberInTheLabel)
{
    accessor.maps[0].insert(uuid(7), "2;Device");
    EXPECT_EQ(transport->getInpPortDescriptor(2), uuid(7));
    EXPECT_TRUE(transport->getInpPortDescriptor(3).isNull());
    EXPECT_TRUE(transport->getOutPortDescriptor(2).isNull());
    accessor.maps[1].insert(uuid(8), "11;Other");
    EXPECT_EQ(transport->getOutPortDescriptor(11), uuid(8));
}

TEST_F(DeviceOpenCloseTest, OfTwoEntriesWithOneNumberTheFirstInMapOrderWins)
{
    accessor.maps[0].insert(uuid(2), "1;B");
    accessor.maps[0].insert(uuid(1), "1;A");
    EXPECT_EQ(transport->getInpPortDescriptor(1), uuid(1));
}

TEST_F(DeviceOpenCloseTest, AnEntryWithoutANumberIsPortZero)
{
    accessor.maps[1].insert(uuid(1), "x;A");
    EXPECT_EQ(transport->getOutPortDescriptor(0), uuid(1));
}

TEST_F(DeviceOpenCloseTest, WithoutAnAccessorThereAreNoPorts)
{
    TMIDITransport& bare = MIDITransportInstance(nullptr);
    EXPECT_EQ(bare.numberOfInputs(), 0);
    EXPECT_EQ(bare.numberOfOutputs(), 0);
    EXPECT_TRUE(bare.getInpPortDescriptor(1).isNull());
    EXPECT_TRUE(bare.getOutPortDescriptor(1).isNull());
    bare.Release();
}

TEST_F(DeviceOpenCloseTest, APortNumberBelowOneOpensNothing)
{
    for (const int port : {0, -1, INT_MIN}) {
        EXPECT_EQ(transport->openInput(port), nullptr);
        EXPECT_EQ(transport->openOutput(port), nullptr);
    }
    EXPECT_TRUE(midiCalls().empty());

    void* const in = transport->openInput(1);
    void* const out = transport->openOutput(1);
    ASSERT_NE(in, nullptr);
    ASSERT_NE(out, nullptr);
    sim::clearCalls();
    EXPECT_EQ(transport->openInput(0), in);
    EXPECT_EQ(transport->openInput(-3), in);
    EXPECT_EQ(transport->openOutput(0), out);
    EXPECT_TRUE(midiCalls().empty());
}

TEST_F(DeviceOpenCloseTest, APortBeyondTheLastOneIsNotOpened)
{
    EXPECT_EQ(transport->openInput(2), nullptr);
    EXPECT_EQ(transport->openInput(INT_MAX), nullptr);
    expectClosed();
    EXPECT_EQ(transport->openOutput(2), nullptr);
    EXPECT_EQ(transport->closeOutput(), -1);
}

TEST_F(DeviceOpenCloseTest, OpeningAnInputPreparesAndQueuesAllHeadersThenStarts)
{
    sim::clearCalls();
    void* const handle = transport->openInput(1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle, device().hMidiIn);
    EXPECT_NE(Access::pusher(*transport), nullptr);
    EXPECT_EQ(sim::queuedBuffers(input), 768u);
    EXPECT_TRUE(sim::shortMessage(input, 0x643C90));

    std::vector<std::string> names = midiCalls();
    ASSERT_GE(names.size(), 2u + 2 * 768);
    EXPECT_EQ(names.front(), "midiInOpen");
    EXPECT_EQ(names[1 + 2 * 768], "midiInStart");
    const std::vector<sim::Call> prepares = sim::calls("midiInPrepareHeader");
    const std::vector<sim::Call> adds = sim::calls("midiInAddBuffer");
    for (int i = 0; i < 768; ++i) {
        EXPECT_EQ(names[std::size_t(1 + 2 * i)], "midiInPrepareHeader");
        EXPECT_EQ(names[std::size_t(2 + 2 * i)], "midiInAddBuffer");
        EXPECT_EQ(prepares[std::size_t(i)].header, device().inHeaders.begin() + i);
        EXPECT_EQ(prepares[std::size_t(i)].headerFlags, 0u);
        EXPECT_EQ(adds[std::size_t(i)].header, device().inHeaders.begin() + i);
        EXPECT_EQ(adds[std::size_t(i)].headerLength, 4096u);
    }
}

TEST_F(DeviceOpenCloseTest, ThePusherStartsOnceTheDeviceHas)
{
    bool started = false;
    sim::onCall("midiInStart", [&](const sim::Call&) {
        started = true;
        EXPECT_EQ(Access::pusher(*transport), nullptr);
        EXPECT_NE(device().hMidiIn, nullptr);
    });
    ASSERT_NE(transport->openInput(1), nullptr);
    EXPECT_TRUE(started);
    EXPECT_NE(Access::pusher(*transport), nullptr);
}

TEST_F(DeviceOpenCloseTest, OpeningClearsWhatAnEarlierUseLeftInTheHeaders)
{
    for (MIDIHDR& header : device().inHeaders) {
        header.dwFlags = MHDR_DONE | MHDR_PREPARED;
        header.dwBytesRecorded = 12;
        header.dwUser = 34;
        header.lpNext = &header;
        header.dwOffset = 56;
    }
    ASSERT_NE(transport->openInput(1), nullptr);
    for (const sim::Call& call : sim::calls("midiInPrepareHeader"))
        EXPECT_EQ(call.headerFlags, 0u);
    for (const MIDIHDR& header : device().inHeaders) {
        EXPECT_EQ(header.dwBytesRecorded, 0u);
        EXPECT_EQ(header.dwUser, 0u);
        EXPECT_TRUE(header.lpNext != &header);
        EXPECT_EQ(header.dwOffset, 0u);
    }
}

TEST_F(DeviceOpenCloseTest, ClosingAnInputRunsTheStepsInOrder)
{
    ASSERT_NE(transport->openInput(1), nullptr);
    sim::clearCalls();
    bool closing = false;
    sim::onCall("midiInStop", [&](const sim::Call&) {
        closing = device().closingInput && !Access::pusher(*transport);
    });
    sim::onCall("midiInReset", [&](const sim::Call&) { EXPECT_EQ(device().hMidiIn, nullptr); });
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_TRUE(closing);
    EXPECT_EQ(sim::callCount("midiInReset"), 1u);

    const std::vector<std::string> names = midiCalls();
    ASSERT_EQ(names.size(), 768u + 3);
    EXPECT_EQ(names[0], "midiInStop");
    EXPECT_EQ(names[1], "midiInReset");
    const std::vector<sim::Call> unprepares = sim::calls("midiInUnprepareHeader");
    for (int i = 0; i < 768; ++i) {
        EXPECT_EQ(names[std::size_t(2 + i)], "midiInUnprepareHeader");
        EXPECT_EQ(unprepares[std::size_t(i)].header, device().inHeaders.begin() + i);
        EXPECT_EQ(unprepares[std::size_t(i)].result, DWORD(MMSYSERR_NOERROR));
    }
    EXPECT_EQ(names.back(), "midiInClose");
    expectClosed();
}

TEST_F(DeviceOpenCloseTest, ClosingTwiceSaysThatNothingWasOpen)
{
    transport->openInput(1);
    transport->openOutput(1);
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_EQ(transport->closeInput(), -1);
    EXPECT_EQ(transport->closeOutput(), 0);
    EXPECT_EQ(transport->closeOutput(), -1);
}

TEST_F(DeviceOpenCloseTest, EveryFailureOfAnOpenEndsInAFullClose)
{
    struct Failure
    {
        const char* function;
        unsigned call;
    };
    std::vector<Failure> failures = {{"midiInOpen", 1}, {"midiInStart", 1}};
    for (unsigned n = 1; n <= 768; ++n)
        failures.push_back({"midiInAddBuffer", n});
    sim::logCalls(false);
    sim::useVirtualTime();
    for (const Failure& failure : failures) {
        SCOPED_TRACE(std::string(failure.function) + " " + std::to_string(failure.call));
        sim::failCall(failure.function, failure.call);
        ASSERT_EQ(transport->openInput(1), nullptr);
        expectClosed();
        sim::clearFailures();
    }
    ASSERT_NE(transport->openInput(1), nullptr);
    EXPECT_EQ(sim::queuedBuffers(input), 768u);
}

TEST_F(DeviceOpenCloseTest, AFailedPrepareShowsAsTheRefusedBuffer)
{
    sim::failCall("midiInPrepareHeader", 5);
    EXPECT_EQ(transport->openInput(1), nullptr);
    expectClosed();
}

TEST_F(DeviceOpenCloseTest, FailuresWhileClosingAreIgnored)
{
    for (const char* function : {"midiInStop", "midiInUnprepareHeader"}) {
        ASSERT_NE(transport->openInput(1), nullptr);
        sim::failCall(function, 1);
        EXPECT_EQ(transport->closeInput(), 0);
        expectClosed();
    }
    ASSERT_NE(transport->openOutput(1), nullptr);
    sim::failCall("midiOutReset", 1);
    sim::failCall("midiOutUnprepareHeader", 3);
    EXPECT_EQ(transport->closeOutput(), 0);
    EXPECT_EQ(sim::inUse().outputPorts, 0);
}

TEST_F(DeviceOpenCloseTest, OpeningOverAnOpenInputThatFailsClosesTheOldOne)
{
    ASSERT_NE(transport->openInput(1), nullptr);
    EXPECT_EQ(transport->openInput(9), nullptr);
    expectClosed();
}

TEST_F(DeviceOpenCloseTest, AnOutputIsOpenedWithoutPreparingAHeader)
{
    sim::clearCalls();
    void* const handle = transport->openOutput(1);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle, device().hMidiOut);
    EXPECT_EQ(midiCalls(), std::vector<std::string>{"midiOutOpen"});
    sim::clearCalls();
    bool closing = false;
    sim::onCall("midiOutReset", [&](const sim::Call&) { closing = device().closingOutput; });
    EXPECT_EQ(transport->closeOutput(), 0);
    EXPECT_TRUE(closing);
    const std::vector<std::string> names = midiCalls();
    ASSERT_EQ(names.size(), 10u);
    EXPECT_EQ(names.front(), "midiOutReset");
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(sim::calls("midiOutUnprepareHeader")[std::size_t(i)].header,
                  device().outHeaders.begin() + i);
    EXPECT_EQ(names.back(), "midiOutClose");
    EXPECT_FALSE(device().closingOutput);
}

TEST_F(DeviceOpenCloseTest, ARefusedOutputOpenGivesNull)
{
    sim::failCall("midiOutOpen", 1);
    EXPECT_EQ(transport->openOutput(1), nullptr);
    EXPECT_EQ(device().hMidiOut, nullptr);
    EXPECT_EQ(transport->closeOutput(), -1);
}

TEST_F(DeviceOpenCloseTest, AnOutputThatIsOpenIsNotLookedAtWhenAnotherIsOpened)
{
    sim::addOutput(u"Second");
    void* const first = transport->openOutput(1);
    void* const second = transport->openOutput(2);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second, first);
    EXPECT_EQ(sim::inUse().outputPorts, 2);
    EXPECT_EQ(transport->openOutput(9), nullptr);
    EXPECT_EQ(device().hMidiOut, nullptr);
    EXPECT_EQ(sim::inUse().outputPorts, 2);
    EXPECT_EQ(transport->closeOutput(), -1);
    for (void* const handle : {first, second})
        EXPECT_EQ(midiOutClose(static_cast<HMIDIOUT>(handle)), DWORD(MMSYSERR_NOERROR));
}

TEST_F(DeviceOpenCloseTest, AskingForTheOpenOutputDoesNotWaitForAnOpenInProgress)
{
    void* const handle = transport->openOutput(1);
    std::atomic<bool> held{false};
    std::atomic<bool> asked{false};
    std::thread opener([&] {
        const RecursiveMutexLocker locker(&device().mutex);
        held = true;
        while (!asked)
            std::this_thread::yield();
    });
    while (!held)
        std::this_thread::yield();
    EXPECT_EQ(transport->openOutput(0), handle);
    asked = true;
    opener.join();
}

TEST_F(DeviceOpenCloseTest, ACallbackInProgressIsWaitedForWhenTheInputCloses)
{
    ASSERT_NE(transport->openInput(1), nullptr);
    std::atomic<bool> inCallback{false};
    std::atomic<bool> leave{false};
    std::atomic<bool> closed{false};
    std::thread::id driverThread;
    sim::onCall("SetEvent", [&](const sim::Call&) {
        if (std::this_thread::get_id() != driverThread)
            return;
        inCallback = true;
        while (!leave)
            std::this_thread::yield();
    });
    // A driver that waits for its thread neither in its reset nor in its close.
    std::atomic<bool> known{false};
    std::thread driver([&] {
        while (!known)
            std::this_thread::yield();
        Access::midiInProc(*transport, MIM_OPEN, 0);
    });
    driverThread = driver.get_id();
    known = true;
    while (!inCallback)
        std::this_thread::yield();
    std::thread host([&] {
        EXPECT_EQ(transport->closeInput(), 0);
        closed = true;
    });
    while (sim::callCount("midiInClose") == 0)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(closed);
    leave = true;
    host.join();
    driver.join();
}

TEST_F(DeviceOpenCloseTest, NoSignalOfAClosedOutputIsLeft)
{
    ASSERT_NE(transport->openOutput(1), nullptr);
    for (MIDIHDR& header : device().outHeaders)
        header.dwUser = reinterpret_cast<DWORD_PTR>(device().doneEvent);
    SetEvent(device().doneEvent);
    EXPECT_EQ(transport->closeOutput(), 0);
    EXPECT_FALSE(sim::isSignalled(device().doneEvent));
    // Nor does a callback that comes after the close leave one.
    for (MIDIHDR& header : device().outHeaders)
        Access::midiOutProc(MOM_DONE,
                            static_cast<DWORD>(reinterpret_cast<std::uintptr_t>(&header)));
    EXPECT_FALSE(sim::isSignalled(device().doneEvent));
}

TEST_F(DeviceOpenCloseTest, AChunkOfAnOutputThatIsClosedByNowIsNotWaitedFor)
{
    ASSERT_NE(transport->openOutput(1), nullptr);
    const unsigned period = device().senders.period();
    EXPECT_EQ(transport->closeOutput(), 0);
    EXPECT_FALSE(device().awaitChunk(device().outHeaders.begin(), period));
}

TEST_F(DeviceOpenCloseTest, ASenderWhoseThreadWasEndedDoesNotKeepTheOutputFromClosing)
{
    sim::useVirtualTime();
    ASSERT_NE(transport->openOutput(1), nullptr);
    const Senders::Sending lost(&device().senders);
    const DWORD start = timeGetTime();
    EXPECT_EQ(transport->closeOutput(), 0);
    EXPECT_EQ(timeGetTime() - start, 1350u);
    EXPECT_TRUE(sim::isSignalled(device().doneEvent)) << "it may be late, and still wait";
    left.heapBlocks = 2; // and still use its header
}

TEST_F(DeviceOpenCloseTest, AClosingOutputWaitsForASenderThatHasJustLooked)
{
    ASSERT_NE(transport->openOutput(1), nullptr);
    const unsigned char note[] = {0x90, 1, 2};
    ASSERT_TRUE(transport->outputData(3, note));
    // The next sender unprepares the header that is done by now: it has looked, and sends next.
    std::thread host;
    std::atomic<bool> closing{false};
    std::atomic<bool> waits{false};
    std::atomic<bool> closed{false};
    std::atomic<bool> sent{false};
    sim::onCall("Sleep", [&](const sim::Call&) {
        waits = true;
        while (!sent)
            std::this_thread::yield();
    });
    sim::onCall("midiOutUnprepareHeader", [&](const sim::Call&) {
        if (closing.exchange(true))
            return;
        host = std::thread([&] {
            EXPECT_EQ(transport->closeOutput(), 0);
            closed = true;
        });
        while (!waits && !closed)
            std::this_thread::yield();
    });
    EXPECT_TRUE(transport->outputData(3, note));
    sent = true;
    host.join();
    EXPECT_EQ(sim::sent(output).size(), 2u);
    const std::vector<std::string> names = midiCalls();
    EXPECT_EQ(names.back(), "midiOutClose") << "nothing may be sent behind it";
}

TEST_F(DeviceOpenCloseTest, AMessageThatBeginsWhileTheOutputClosesIsTurnedAway)
{
    ASSERT_NE(transport->openOutput(1), nullptr);
    const unsigned char note[] = {0x90, 1, 2};
    bool sent = true;
    sim::onCall("midiOutReset", [&](const sim::Call&) { sent = transport->outputData(3, note); });
    EXPECT_EQ(transport->closeOutput(), 0);
    EXPECT_FALSE(sent);
    EXPECT_TRUE(sim::sent(output).empty());
}

TEST_F(DeviceOpenCloseTest, ADeviceThatReturnsNoBufferAtAResetIsWaitedForASecond)
{
    sim::useVirtualTime();
    sim::setSleepError(14); // as with the usual tick of the system's timer
    openForDraining();
    sim::failCall("midiInReset", 1, MMSYSERR_NOERROR); // returns nothing
    const DWORD start = timeGetTime();
    DWORD waited = 0;
    sim::onCall("midiInUnprepareHeader", [&](const sim::Call&) {
        if (waited == 0)
            waited = timeGetTime() - start;
        while (sim::returnBuffer(input, 0)) { // later than anybody would wait
        }
    });
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_GE(waited, 1000u);
    EXPECT_LT(waited, 1000u + 15);
    expectClosed();
    EXPECT_EQ(device().recordQueue.avail(), 0);
}

TEST_F(DeviceOpenCloseTest, AnOutputThatPlaysForEverIsGivenUpInTime)
{
    sim::useVirtualTime();
    ASSERT_NE(transport->openOutput(1), nullptr);
    const HMIDIOUT handle = device().hMidiOut;
    sim::failCall("midiOutClose", 1, MIDIERR_STILLPLAYING, sim::kAllFromThere);
    const DWORD start = timeGetTime();
    EXPECT_EQ(transport->closeOutput(), 0);
    EXPECT_EQ(timeGetTime() - start, 500u);
    EXPECT_GT(sim::callCount("midiOutClose"), 1u) << "the first may come too early";
    EXPECT_EQ(sim::callCount("midiOutReset"), sim::callCount("midiOutClose"));
    EXPECT_FALSE(device().closingOutput);
    EXPECT_EQ(transport->closeOutput(), -1);
    sim::clearFailures();
    EXPECT_EQ(midiOutClose(handle), DWORD(MMSYSERR_NOERROR));
    left.heapBlocks = 2;
}

TEST_F(DeviceOpenCloseTest, ASenderThatWaitsForALostChunkIsReleasedWhenTheOutputCloses)
{
    sim::setCompletion(output, sim::Completion::Manual);
    ASSERT_NE(transport->openOutput(1), nullptr);
    const HMIDIOUT handle = device().hMidiOut;
    std::atomic<bool> waits{false};
    sim::onCall("WaitForSingleObject", [&](const sim::Call&) { waits = true; });
    bool sent = true;
    std::thread sender([&] {
        const Bytes dump(5000, 0x11);
        sent = transport->outputData(int(dump.size()), dump.data());
    });
    while (!waits)
        std::this_thread::yield();
    // The device was pulled out: it gives nothing back and cannot be closed.
    sim::failCall("midiOutReset", 1, MMSYSERR_NODRIVER, sim::kAllFromThere);
    EXPECT_EQ(transport->closeOutput(), 0);
    sender.join();
    EXPECT_FALSE(sent);
    sim::clearFailures();
    midiOutReset(handle);
    EXPECT_EQ(midiOutClose(handle), DWORD(MMSYSERR_NOERROR));
    left.heapBlocks = 2; // left to the device
}

TEST_F(DeviceOpenCloseTest, AnObserverThatClosesTheOutputWaitsForAnOpenInProgress)
{
    ASSERT_NE(transport->openInput(1), nullptr);
    std::atomic<bool> waits{false};
    std::atomic<bool> spins{false};
    std::atomic<int> closed{-2};
    const std::thread::id here = std::this_thread::get_id();
    sim::onCall("Sleep", [&](const sim::Call& call) {
        if (std::this_thread::get_id() == here)
            return;
        waits = true;
        spins = spins || call.arguments[0] == 0;
    });
    recorder.onRead = [&] { closed = transport->closeOutput(); };
    sim::onCall("midiOutOpen", [&](const sim::Call&) {
        sim::shortMessage(input, 0x643C90);
        for (int i = 0; i < 10000 && !waits; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    EXPECT_NE(transport->openOutput(1), nullptr);
    for (int i = 0; i < 10000 && closed == -2; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(waits);
    EXPECT_FALSE(spins) << "at time-critical priority it would keep the other from going on";
    EXPECT_EQ(closed, 0);
    EXPECT_EQ(sim::inUse().outputPorts, 0);
}

TEST_F(DeviceOpenCloseTest, TheLastReleaseClosesBothPortsAndFreesEverythingInOrder)
{
    ASSERT_NE(transport->openInput(1), nullptr);
    ASSERT_NE(transport->openOutput(1), nullptr);
    const std::uint64_t inData =
        reinterpret_cast<std::uint64_t>(device().inHeaders.buffer(device().inHeaders.begin()));
    const std::uint64_t outData =
        reinterpret_cast<std::uint64_t>(device().outHeaders.buffer(device().outHeaders.begin()));
    const std::uint64_t inHeaders = reinterpret_cast<std::uint64_t>(device().inHeaders.begin());
    const std::uint64_t outHeaders = reinterpret_cast<std::uint64_t>(device().outHeaders.begin());
    sim::clearCalls();
    releaseTransport();
    EXPECT_EQ(sim::inUse(), sim::Resources());
    std::vector<std::uint64_t> freed;
    for (const sim::Call& call : sim::calls("HeapFree")) {
        for (const std::uint64_t value : {call.handle, call.arguments[0], call.arguments[1]}) {
            if (value == inData || value == outData || value == inHeaders || value == outHeaders)
                freed.push_back(value);
        }
    }
    EXPECT_EQ(freed, (std::vector<std::uint64_t>{inData, outData, outHeaders, inHeaders}));
    const std::vector<std::string> names = sim::callNames();
    const auto position = [&](const char* name) {
        return std::find(names.begin(), names.end(), name) - names.begin();
    };
    EXPECT_LT(position("midiInClose"), position("midiOutClose"));
    EXPECT_LT(position("midiOutClose"), position("HeapFree"));
    EXPECT_LT(position("HeapFree"), position("CloseHandle"));
}

TEST_F(DeviceOpenCloseTest, WithAHighHeapPortsOpenAndReceiveAllTheSame)
{
    releaseTransport();
    sim::setHeapHigh(true);
    makeTransport();
    ASSERT_NE(transport->openInput(1), nullptr);
    const Bytes message = {0xF0, 1, 2, 3, 0xF7};
    sim::sysEx(input, message.data(), message.size());
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.received()[0].bytes, message);
    EXPECT_EQ(transport->closeInput(), 0);
    releaseTransport();
    sim::setHeapHigh(false);
}

TEST_F(DeviceOpenCloseTest, ManyCyclesGiveAllBuffersBackEveryTime)
{
    sim::logCalls(false);
    for (const sim::DriverKind kind :
         {sim::DriverKind::WaitsInReset, sim::DriverKind::WaitsInClose,
          sim::DriverKind::WaitsInNeither, sim::DriverKind::Windows11}) {
        sim::setDriverKind(kind);
        const sim::Flood flood(input, 5);
        for (int round = 0; round < 50; ++round) {
            ASSERT_NE(transport->openInput(1), nullptr);
            ASSERT_EQ(transport->closeInput(), 0);
            EXPECT_EQ(sim::inUse().inputBuffers, 0);
        }
    }
    expectClosed();
}

} // namespace
