#include "tests/unit/TestSupport.h"

#include <cstdint>
#include <cstring>

namespace {

/// Records come from the simulated driver's callback; the test drains them itself.
class InputTest : public DeviceTest
{
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        openForDraining();
    }

    int drain() { return Access::drain(*transport); }

    int queuedRecords() { return device().recordQueue.avail() / 8; }

    DWORD address(int headerIndex)
    {
        return static_cast<DWORD>(
            reinterpret_cast<std::uintptr_t>(device().inHeaders.begin() + headerIndex));
    }

    /// Leaves exactly `bytes` bytes free in the record queue.
    void fillQueueTo(int bytes)
    {
        const InputRecord record = {MIM_ERROR, 0};
        while (device().recordQueue.space() > bytes)
            device().recordQueue.write(&record, sizeof record);
        ASSERT_EQ(device().recordQueue.space(), bytes);
    }

    /// Consumes the event's signal; whether there was one.
    bool wasSignalled()
    {
        return WaitForSingleObject(Access::dataEvent(*transport), 0) == WAIT_OBJECT_0;
    }

    static Bytes sysEx(std::size_t length)
    {
        Bytes bytes(length);
        for (std::size_t i = 0; i < length; ++i)
            bytes[i] = static_cast<unsigned char>(i % 128);
        bytes.front() = 0xF0;
        bytes.back() = 0xF7;
        return bytes;
    }
};

TEST_F(InputTest, TheCallbackQueuesMessageCodeAndParameterAndSignals)
{
    wasSignalled();
    sim::raw(input, 0x3C9, 0xDEADBEEF, 0x1234);
    EXPECT_TRUE(wasSignalled());
    ASSERT_EQ(device().recordQueue.avail(), 8);
    DWORD record[2];
    device().recordQueue.read(record, 8);
    EXPECT_EQ(record[0], 0x3C9u);
    EXPECT_EQ(record[1], 0xDEADBEEFu);
}

TEST_F(InputTest, AShortMessageIsDeliveredAsFourBytesInPackingOrder)
{
    sim::shortMessage(input, 0x00643C90);
    sim::shortMessage(input, 0x000005C3);
    sim::shortMessage(input, 0xAA643C90);
    EXPECT_EQ(drain(), 0);
    const std::vector<Received> received = recorder.received();
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(received[0].bytes, Bytes({0x90, 0x3C, 0x64, 0x00}));
    EXPECT_EQ(received[1].bytes, Bytes({0xC3, 0x05, 0x00, 0x00}));
    EXPECT_EQ(received[2].bytes, Bytes({0x90, 0x3C, 0x64, 0xAA}));
}

TEST_F(InputTest, ASysExBufferIsDeliveredAndIsBackBeforeTheObserverRuns)
{
    const Bytes message = sysEx(300);
    std::size_t queuedDuringDelivery = 0;
    recorder.onRead = [&] { queuedDuringDelivery = sim::queuedBuffers(input); };
    EXPECT_EQ(sim::sysEx(input, message.data(), message.size()), message.size());
    EXPECT_EQ(sim::queuedBuffers(input), 767u);
    EXPECT_EQ(drain(), 0);
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.received()[0].bytes, message);
    EXPECT_EQ(queuedDuringDelivery, 768u);
}

TEST_F(InputTest, ALongSysExIsReassembledFromItsBuffers)
{
    const Bytes message = sysEx(10000);
    sim::sysEx(input, message.data(), message.size());
    EXPECT_EQ(queuedRecords(), 3);
    drain();
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.received()[0].bytes, message);
    EXPECT_EQ(sim::queuedBuffers(input), 768u);
}

TEST_F(InputTest, ThreeMegabytesWaitWholeForAStalledConsumer)
{
    const Bytes message = sysEx(3000000);
    EXPECT_EQ(sim::sysEx(input, message.data(), message.size()), message.size());
    drain();
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.received()[0].bytes, message);
}

TEST_F(InputTest, AnEmptyReturnedBufferGoesBackAndDeliversNothing)
{
    MIDIHDR* const header = sim::returnBuffer(input, 0);
    ASSERT_NE(header, nullptr);
    drain();
    EXPECT_EQ(recorder.count(), 0u);
    EXPECT_EQ(sim::queuedBuffers(input), 768u);
}

TEST_F(InputTest, ABufferWithAnErrorGoesBackAndDeliversNothing)
{
    const Bytes message = sysEx(20);
    sim::returnBuffer(input, 20, message.data(), message.size(), MIM_LONGERROR);
    drain();
    EXPECT_EQ(recorder.count(), 0u);
    EXPECT_EQ(sim::queuedBuffers(input), 768u);
}

TEST_F(InputTest, AClaimBeyondTheBufferIsCutToTheBuffer)
{
    for (const DWORD claim : {4097u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        const Bytes data(4096, 0xF0);
        sim::returnBuffer(input, claim, data.data(), data.size());
        drain();
    }
    // Never more than a buffer's worth was taken: F0 … without F7 stays pending.
    EXPECT_EQ(Access::observerBlock(*transport).pendingSysEx->size(), 3 * 4096);
    EXPECT_EQ(sim::queuedBuffers(input), 768u);
}

TEST_F(InputTest, AnAddressThatIsNoneOfTheHeadersIsIgnored)
{
    const DWORD first = address(0);
    for (const DWORD wrong : {DWORD(0), first - 112, first + 8, address(768), DWORD(0xFFFFFFF0)}) {
        sim::raw(input, MIM_LONGDATA, wrong, 0);
        sim::raw(input, MIM_LONGERROR, wrong, 0);
    }
    sim::clearCalls();
    EXPECT_EQ(drain(), 0);
    EXPECT_EQ(sim::callCount("midiInUnprepareHeader"), 0u);
    EXPECT_EQ(recorder.count(), 0u);
}

TEST_F(InputTest, ACloseRecordEndsTheDrainAndKeepsWhatIsBehindIt)
{
    sim::raw(input, MIM_CLOSE, 0, 0);
    sim::shortMessage(input, 0x643C90);
    EXPECT_EQ(drain(), 1);
    EXPECT_EQ(recorder.count(), 0u);
    EXPECT_EQ(queuedRecords(), 1);
    EXPECT_EQ(drain(), 0);
    EXPECT_EQ(recorder.count(), 1u);
}

TEST_F(InputTest, OtherMessageCodesAreConsumedAndProduceNothing)
{
    for (const UINT code : {UINT(MIM_OPEN), UINT(MIM_ERROR), UINT(MIM_MOREDATA), 0u, 0xFFFFu})
        sim::raw(input, code, 0x643C90, 0);
    EXPECT_EQ(drain(), 0);
    EXPECT_EQ(recorder.count(), 0u);
    EXPECT_EQ(queuedRecords(), 0);
}

TEST_F(InputTest, AShortMessageNeedsTheReserveFreeButANoticeOnlyItsOwnRoom)
{
    fillQueueTo(6160);
    wasSignalled();
    sim::shortMessage(input, 0x643C90);
    EXPECT_EQ(device().recordQueue.space(), 6152);
    EXPECT_TRUE(wasSignalled());

    sim::shortMessage(input, 0x643C90);
    EXPECT_EQ(device().recordQueue.space(), 6152) << "dropped: the reserve is touched";
    EXPECT_TRUE(wasSignalled()) << "signalled all the same";

    sim::returnBuffer(input, 0);
    EXPECT_EQ(device().recordQueue.space(), 6144);
    EXPECT_TRUE(wasSignalled());
    drain();
    EXPECT_EQ(sim::queuedBuffers(input), 768u);
}

TEST_F(InputTest, TheReserveHoldsEveryBufferNoticeAndTwoMore)
{
    fillQueueTo(6160);
    for (int i = 0; i < 768; ++i)
        ASSERT_NE(sim::returnBuffer(input, 0), nullptr);
    sim::raw(input, MIM_ERROR, 0, 0);
    sim::raw(input, MIM_ERROR, 0, 0);
    EXPECT_EQ(device().recordQueue.space(), 0);
    wasSignalled();
    sim::raw(input, MIM_LONGDATA, address(0), 0);
    EXPECT_EQ(device().recordQueue.space(), 0) << "a full queue drops silently";
    EXPECT_TRUE(wasSignalled());
    drain();
    EXPECT_EQ(sim::queuedBuffers(input), 768u);
}

TEST_F(InputTest, WhileClosingNothingIsQueuedOrSignalled)
{
    drain();
    wasSignalled();
    device().closingInput = true;
    sim::shortMessage(input, 0x643C90);
    sim::raw(input, MIM_LONGDATA, address(0), 0);
    EXPECT_EQ(device().recordQueue.avail(), 0);
    EXPECT_FALSE(wasSignalled());
    device().closingInput = false;
}

TEST_F(InputTest, TheResetOfAClosingPortQueuesNothing)
{
    drain();
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_EQ(device().recordQueue.avail(), 0);
}

TEST_F(InputTest, ABufferStillPlayingIsTriedAgainWithAYieldEachTime)
{
    const Bytes message = sysEx(10);
    sim::sysEx(input, message.data(), message.size());
    sim::failCall("midiInUnprepareHeader", 1, MIDIERR_STILLPLAYING, 25);
    sim::clearCalls();
    drain();
    EXPECT_EQ(sim::calls("midiInUnprepareHeader").size(), 26u);
    const std::vector<sim::Call> sleeps = sim::calls("Sleep");
    ASSERT_EQ(sleeps.size(), 25u);
    for (const sim::Call& sleep : sleeps)
        EXPECT_EQ(sleep.arguments[0], 0u);
    EXPECT_EQ(recorder.count(), 1u);
    EXPECT_EQ(sim::queuedBuffers(input), 768u);
}

TEST_F(InputTest, ABufferThatPlaysForEverDoesNotKeepThePortFromClosing)
{
    EXPECT_EQ(transport->closeInput(), 0);
    ASSERT_NE(transport->openInput(1), nullptr);
    sim::failCall("midiInUnprepareHeader", 1, MIDIERR_STILLPLAYING, 1000000000);
    const Bytes message = sysEx(10);
    sim::sysEx(input, message.data(), message.size());
    while (sim::callCount("midiInUnprepareHeader") < 770)
        std::this_thread::yield();
    sim::onCall("midiInStop", [](const sim::Call&) { sim::clearFailures(); });
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_EQ(recorder.count(), 1u) << "its data was copied out before";
}

TEST_F(InputTest, RecyclingCallsUnprepareThenPrepareThenAddWithClearedFields)
{
    const Bytes message = sysEx(10);
    sim::sysEx(input, message.data(), message.size());
    sim::clearCalls();
    drain();
    std::vector<std::string> names;
    for (const sim::Call& call : sim::calls()) {
        if (call.header)
            names.push_back(call.function);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"midiInUnprepareHeader", "midiInPrepareHeader",
                                               "midiInAddBuffer"}));
    EXPECT_EQ(sim::calls("midiInPrepareHeader")[0].headerFlags, 0u);
    EXPECT_EQ(device().inHeaders.begin()->dwBytesRecorded, 0u);
}

TEST_F(InputTest, AHeaderThatCannotBeRecycledLeavesTheRotationAndReturnsWithTheNextOpening)
{
    const Bytes message = sysEx(10);
    for (const char* function :
         {"midiInUnprepareHeader", "midiInPrepareHeader", "midiInAddBuffer"}) {
        sim::sysEx(input, message.data(), message.size());
        sim::failCall(function, 1, MMSYSERR_NOMEM);
        drain();
    }
    EXPECT_EQ(recorder.count(), 3u) << "the data was copied out before";
    EXPECT_EQ(sim::queuedBuffers(input), 765u);
    EXPECT_EQ(transport->closeInput(), 0);
    openForDraining();
    EXPECT_EQ(sim::queuedBuffers(input), 768u);
}

TEST_F(InputTest, RecordsLeftAtTheCloseStayAndAreDeliveredWithTheNextOpening)
{
    drain();
    sim::shortMessage(input, 0x643C90);
    // Without a pusher nothing drains at the close.
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_EQ(queuedRecords(), 1);
    ASSERT_NE(transport->openInput(1), nullptr);
    EXPECT_TRUE(recorder.waitFor(1));
}

TEST_F(InputTest, AnUnfinishedSysExOutlivesTheClose)
{
    const Bytes start = {0xF0, 1};
    sim::sysEx(input, start.data(), start.size());
    drain();
    EXPECT_EQ(transport->closeInput(), 0);
    openForDraining();
    const Bytes end = {0xF7};
    sim::sysEx(input, end.data(), end.size());
    drain();
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.received()[0].bytes, Bytes({0xF0, 1, 0xF7}));
}

TEST_F(InputTest, TheDrainPassesItsFlagOn)
{
    const Bytes chunk = {1, 2, 0xF7};
    sim::sysEx(input, chunk.data(), chunk.size());
    sim::shortMessage(input, 0xF7000001);
    Access::drain(*transport, false);
    ASSERT_EQ(recorder.count(), 2u);
    EXPECT_FALSE(recorder.received()[0].strictStart);
    EXPECT_EQ(recorder.received()[1].bytes, Bytes({1, 0, 0, 0xF7}));

    sim::sysEx(input, chunk.data(), chunk.size());
    sim::shortMessage(input, 0xF7000001);
    Access::drain(*transport, true);
    EXPECT_EQ(recorder.count(), 2u);
}

TEST_F(InputTest, ABufferNoticeLeftFromBeforeTheOpeningIsNotActedUpon)
{
    drain();
    const Bytes message = sysEx(10);
    sim::sysEx(input, message.data(), message.size()); // header 0
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_EQ(queuedRecords(), 1);

    // Header 0 is with the device again, and the old notice must neither wait for it nor take it.
    openForDraining();
    EXPECT_EQ(drain(), 0);
    EXPECT_EQ(recorder.count(), 0u);
    EXPECT_EQ(sim::queuedBuffers(input), 768u);

    sim::sysEx(input, message.data(), message.size());
    EXPECT_EQ(drain(), 0);
    EXPECT_EQ(recorder.count(), 1u);
}

TEST_F(InputTest, ANoticeBehindACloseRecordIsNotActedUponWithTheNextOpening)
{
    const Bytes message = sysEx(10);
    sim::raw(input, MIM_CLOSE, 0, 0);
    sim::sysEx(input, message.data(), message.size());
    EXPECT_EQ(drain(), 1);
    EXPECT_EQ(transport->closeInput(), 0);
    openForDraining();
    EXPECT_EQ(drain(), 0);
    EXPECT_EQ(sim::queuedBuffers(input), 768u);
}

TEST_F(InputTest, DrainedWithoutAnOpenPortANoticeIsHarmless)
{
    const Bytes message = sysEx(10);
    sim::sysEx(input, message.data(), message.size());
    EXPECT_EQ(transport->closeInput(), 0);
    EXPECT_EQ(drain(), 0);
    EXPECT_EQ(recorder.count(), 1u);
}

TEST_F(InputTest, NoCallHoldsTheQueueLock)
{
    const auto queueIsFree = [this] {
        const bool isFree = device().recordQueue.mutex()->tryLock();
        if (isFree)
            device().recordQueue.mutex()->unlock();
        return isFree;
    };
    bool freeInCall = false;
    bool freeInObserver = false;
    sim::onCall("midiInUnprepareHeader", [&](const sim::Call&) { freeInCall = queueIsFree(); });
    recorder.onRead = [&] { freeInObserver = queueIsFree(); };
    const Bytes message = sysEx(10);
    sim::sysEx(input, message.data(), message.size());
    drain();
    EXPECT_TRUE(freeInCall);
    EXPECT_TRUE(freeInObserver);
}

TEST_F(InputTest, TheCallbackCallsNothingOfWindowsButSetEvent)
{
    sim::clearCalls();
    sim::shortMessage(input, 0x643C90);
    EXPECT_EQ(sim::callNames(), std::vector<std::string>{"SetEvent"});
}

TEST_F(InputTest, AnOpenInputDeliversWhatTheDriverSendsInOrder)
{
    EXPECT_EQ(transport->closeInput(), 0);
    const std::size_t before = recorder.count();
    ASSERT_NE(transport->openInput(1), nullptr);
    std::vector<Bytes> sent;
    for (unsigned char n = 0; n < 200; ++n) {
        if (n % 4 == 0) {
            sent.push_back(sim::floodSysEx(n, 5000));
            sim::sysEx(input, sent.back().data(), sent.back().size());
        } else {
            sent.push_back({0x90, static_cast<unsigned char>(n / 2), 100, 0});
            sim::shortMessage(input, DWORD(0x640090 | n / 2 << 8));
        }
    }
    ASSERT_TRUE(recorder.waitFor(before + sent.size()));
    EXPECT_EQ(transport->closeInput(), 0);
    std::vector<Bytes> delivered;
    for (const Received& message : recorder.received())
        delivered.push_back(message.bytes);
    EXPECT_EQ(delivered, sent);
}

} // namespace
