// The model's Windows 11 kind of driver.
#include "tests/device/Clients.h"

#include <future>

namespace {

using contract::Notice;
using contract::sysEx;
using contract::waitAWhile;
using device::DriverKind;
using device::Windows11;
using namespace device_test;

constexpr DWORD kQueued = MHDR_PREPARED | MHDR_INQUEUE;
constexpr DWORD kDone = MHDR_PREPARED | MHDR_DONE;
constexpr DWORD kForEver = 600'000; // a wait of so long is a hang that the test's time-out ends

MIDIPiece piece(const Bytes& bytes)
{
    return {MIDIPiece::Kind::SysEx, 0, bytes.data(), bytes.size(), bytes.front() == 0xF0,
            bytes.back() == 0xF7};
}

struct Windows11Kind : testing::Test
{
    Windows11Kind()
    {
        Time::set = -1;
        settings.kind = DriverKind::Windows11;
        settings.clock = &Time::now;
        settings.windows11.sendPiece = 20;
    }

    // Lets SysEx arrive on this thread, as the worker.
    std::size_t arrive(Input& input, const Bytes& bytes)
    {
        return input.port->sysEx(kSource, piece(bytes));
    }
    // Leaves it to the port's worker.
    static void leave(Input& input, const Bytes& bytes)
    {
        input.port->take(kSource, piece(bytes), nullptr);
    }
    static void leave(Input& input, DWORD word)
    {
        input.port->take(kSource, {MIDIPiece::Kind::Short, word}, nullptr);
    }

    static std::vector<Bytes> heard(Input& input, UINT message)
    {
        std::vector<Bytes> result;
        for (const Notice& notice : input.recorder.notices(message))
            result.push_back(notice.bytes);
        return result;
    }

    static constexpr device::SourceId kSource = 1'000'000;
    Settings settings;
};

using Messages = std::vector<Bytes>;

// ---- Input --------------------------------------------------------------------------------------

using Windows11Input = Windows11Kind;
using Windows11DeathTest = Windows11Kind;

TEST_F(Windows11Input, CallsBackArrivalsOnItsWorkerAndTheRestInsideTheCalls)
{
    settings.worker = true;
    Input input(settings);
    input.startWith(3, 16);
    leave(input, kNoteOn);
    leave(input, Bytes{0xF0, 1, 0xF7});
    input.recorder.waitForShort(1);
    input.recorder.waitForLong(3);
    EXPECT_EQ(input.port->reset(), MMSYSERR_NOERROR);
    EXPECT_EQ(input.port->close(), MMSYSERR_NOERROR);
    const std::vector<Notice> notices = input.recorder.notices();
    ASSERT_EQ(notices.size(), 6u);
    for (std::size_t i = 0; i < notices.size(); ++i) {
        const bool arrived = i == 1 || i == 2;
        EXPECT_EQ(notices[i].thread == std::this_thread::get_id(), !arrived) << i;
    }
    EXPECT_EQ(notices[1].thread, notices[2].thread);
    EXPECT_EQ(notices.back().message, UINT(MIM_CLOSE));
}

TEST_F(Windows11Input, ThrowsAwayWhatArrivedBeforeTheStart)
{
    settings.worker = true;
    Time::set = 10'000;
    Input input(settings);
    input.recorder.also = [&](const Notice& notice) {
        EXPECT_TRUE(notice.message != MIM_DATA || notice.parameter1 == 0xF8);
    };
    leave(input, kNoteOn);
    Time::set = 20'000;
    input.port->start();
    leave(input, 0xF8);
    EXPECT_EQ(input.recorder.waitForShort(1), std::vector<DWORD>{0xF8});
}

TEST_F(Windows11Input, TakesEachHeaderThatIsLargeEnoughWhateverItsFlags)
{
    Input input(settings);
    Buffer buffer(16);
    EXPECT_EQ(input.port->addBuffer(buffer.header(), 31), MMSYSERR_INVALPARAM);
    EXPECT_EQ(input.port->addBuffer(nullptr, 32), MMSYSERR_INVALPARAM);
    buffer.header()->dwFlags = MHDR_DONE;
    EXPECT_EQ(input.port->addBuffer(buffer.header(), 32), MMSYSERR_NOERROR);
    EXPECT_EQ(buffer.flags(), DWORD(MHDR_INQUEUE));
    EXPECT_EQ(input.port->reset(), MMSYSERR_NOERROR);
    EXPECT_EQ(buffer.flags(), DWORD(MHDR_DONE));
}

TEST_F(Windows11Input, ReturnsABufferWhenItIsFullOrAtF7AndForNoPause)
{
    Input input(settings);
    input.startWith(5, 4);
    arrive(input, {0xF0, 1, 2, 3, 4});
    EXPECT_EQ(heard(input, MIM_LONGDATA), (Messages{{0xF0, 1, 2, 3}}));
    arrive(input, {5, 0xF7});
    arrive(input, {0xF0, 0xF7});
    arrive(input, {0xF0, 6, 7, 0xF7});
    EXPECT_EQ(heard(input, MIM_LONGDATA),
              (Messages{{0xF0, 1, 2, 3}, {4, 5, 0xF7}, {0xF0, 0xF7}, {0xF0, 6, 7, 0xF7}}));
    EXPECT_EQ(input.port->queued(), 1u);
}

TEST_F(Windows11Input, ReturnsAPartialBufferAsAnErrorAndEmptyOnesAsData)
{
    Input input(settings);
    const auto buffers = input.startWith(3, 16);
    arrive(input, {0xF0, 1});
    EXPECT_EQ(input.port->stop(), MMSYSERR_NOERROR);
    EXPECT_EQ(heard(input, MIM_LONGERROR), (Messages{{0xF0, 1}}));
    EXPECT_EQ(input.port->reset(), MMSYSERR_NOERROR);
    EXPECT_EQ(heard(input, MIM_LONGDATA), (Messages{{}, {}}));
    for (Buffer* const buffer : buffers)
        EXPECT_EQ(buffer->flags(), kDone);
}

TEST_F(Windows11Input, ReturnsWhatAStatusByteBreaksOffAsAnError)
{
    Input input(settings);
    input.startWith(6, 4);
    for (const MIDIPiece::Kind how : {MIDIPiece::Kind::Broken, MIDIPiece::Kind::SysEx}) {
        arrive(input, {0xF0, 1});
        if (how == MIDIPiece::Kind::Broken)
            input.port->sysExBroken(kSource);
        else
            arrive(input, {0xF0, 2, 0xF7});
    }
    for (const DWORD status : {0xF9u, 0xFDu}) { // no realtime to this driver
        arrive(input, {0xF0, 3});
        EXPECT_TRUE(input.port->shortMessage(0xF8));
        EXPECT_TRUE(input.port->shortMessage(status));
    }
    EXPECT_EQ(heard(input, MIM_LONGERROR), (Messages{{0xF0, 1}, {0xF0, 1}, {0xF0, 3}, {0xF0, 3}}));
    EXPECT_EQ(heard(input, MIM_LONGDATA), (Messages{{0xF0, 2, 0xF7}}));
    EXPECT_EQ(input.recorder.waitForShort(2), (std::vector<DWORD>{0xF8, 0xF8}));
}

TEST_F(Windows11Input, ReturnsAnEmptyBufferForABreakWhereOneHasJustBeenReturned)
{
    Input input(settings);
    input.startWith(2, 2);
    arrive(input, {0xF0, 1});
    input.port->sysExBroken(kSource);
    EXPECT_EQ(heard(input, MIM_LONGDATA), (Messages{{0xF0, 1}, {}}));
    EXPECT_TRUE(heard(input, MIM_LONGERROR).empty());
}

TEST_F(Windows11Input, WaitsForABufferWithinAMessage)
{
    settings.windows11.bufferWithin = kForEver;
    Input input(settings);
    input.startWith(1, 16);
    std::thread worker([&] { EXPECT_EQ(arrive(input, sysEx(30)), 30u); });
    input.recorder.waitForLong(16);
    input.giveBuffers(1, 16);
    worker.join();
    EXPECT_EQ(input.recorder.waitForLong(30), sysEx(30));
}

TEST_F(Windows11Input, ThrowsTheRestOfAMessageAwaySilentlyWhenNoBufferComes)
{
    Input input(settings);
    input.startWith(1, 16);
    EXPECT_EQ(arrive(input, sysEx(30)), 16u);
    // Its end is thrown away too, although there is a buffer by now.
    const Bytes message = sysEx(40);
    input.giveBuffers(1, 16);
    arrive(input, Bytes(message.begin(), message.begin() + 20));
    input.giveBuffers(1, 64);
    EXPECT_EQ(arrive(input, Bytes(message.begin() + 20, message.end())), 0u);
    arrive(input, {0xF0, 1, 0xF7});
    const Messages data = heard(input, MIM_LONGDATA);
    ASSERT_EQ(data.size(), 3u);
    EXPECT_EQ(data[2], (Bytes{0xF0, 1, 0xF7}));
    EXPECT_TRUE(heard(input, MIM_LONGERROR).empty());
}

TEST_F(Windows11Input, WaitsForABufferAtF0UnlessTheLastMessageFoundNone)
{
    settings.windows11.bufferAtStart = kForEver;
    Input input(settings);
    input.port->start();
    std::thread worker([&] { EXPECT_EQ(arrive(input, {0xF0, 1, 0xF7}), 3u); });
    waitAWhile();
    input.giveBuffers(1, 16);
    worker.join();

    worker = std::thread([&] { EXPECT_EQ(arrive(input, {0xF0, 2, 0xF7}), 0u); });
    waitAWhile();
    EXPECT_EQ(input.port->stop(), MMSYSERR_NOERROR); // wakes the wait
    worker.join();
    input.port->start();
    EXPECT_EQ(arrive(input, {0xF0, 3, 0xF7}), 0u); // at once
    input.giveBuffers(1, 16);
    EXPECT_EQ(arrive(input, {0xF0, 4, 0xF7}), 3u);
    EXPECT_EQ(heard(input, MIM_LONGDATA), (Messages{{0xF0, 1, 0xF7}, {0xF0, 4, 0xF7}}));
}

TEST_F(Windows11Input, StampsTheBuffersOfAResetWithTheMachinesTime)
{
    Time::set = 5'000'000;
    Input input(settings);
    input.startWith(2, 16);
    arrive(input, {0xF0, 0xF7});
    input.port->reset();
    const std::vector<Notice> notices = input.recorder.notices(MIM_LONGDATA);
    ASSERT_EQ(notices.size(), 2u);
    EXPECT_EQ(notices[0].parameter2, 0u);
    EXPECT_EQ(notices[1].parameter2, 5000u);
}

TEST_F(Windows11Input, LetsStopResetAndCloseWaitForTheWorker)
{
    for (int call = 0; call < 3; ++call) {
        Input input(settings);
        std::promise<void> entered;
        std::promise<void> release;
        input.recorder.also = [&](const Notice& notice) {
            if (notice.message == MIM_DATA) {
                entered.set_value();
                release.get_future().wait();
            }
        };
        input.port->start();
        std::thread worker([&] { input.port->shortMessage(0xF8); });
        entered.get_future().wait();
        std::atomic<bool> returned{false};
        std::thread caller([&] {
            const MMRESULT result = call == 0   ? input.port->stop()
                                    : call == 1 ? input.port->reset()
                                                : input.port->close();
            EXPECT_EQ(result, MMSYSERR_NOERROR);
            returned = true;
        });
        waitAWhile();
        EXPECT_FALSE(returned) << call;
        release.set_value();
        worker.join();
        caller.join();
    }
}

TEST_F(Windows11DeathTest, AStopInsideTheWorkersCallbackNeverReturns)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Input input(settings);
    input.recorder.also = [&](const Notice& notice) {
        if (notice.message == MIM_DATA)
            input.port->stop();
    };
    input.port->start();
    EXPECT_DEATH(input.port->shortMessage(0xF8), "never returns");
}

// ---- Output -------------------------------------------------------------------------------------

struct Windows11Output : Windows11Kind
{
    static MMRESULT send(Output& output, const Buffer* buffer)
    {
        return output.port->sendLong(const_cast<Buffer*>(buffer)->header(), sizeof(MIDIHDR));
    }
};

TEST_F(Windows11Output, HasFinishedAMessageWhenTheSendReturns)
{
    Settings receiver;
    Input input(receiver);
    input.startWith(3, 4096);
    Output output(settings, input.port.get());
    Buffer* const message = output.prepared(sysEx(5000));
    DWORD flags = 0;
    input.recorder.also = [&](const Notice& notice) {
        if (notice.message == MIM_LONGDATA)
            flags = message->flags();
    };
    EXPECT_EQ(send(output, message), MMSYSERR_NOERROR);
    input.recorder.also = nullptr;
    EXPECT_EQ(flags, DWORD(MHDR_PREPARED)); // never queued
    EXPECT_EQ(message->flags(), kDone);
    const std::vector<Notice> done = output.recorder.notices(MOM_DONE);
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0].thread, std::this_thread::get_id());
    EXPECT_EQ(input.recorder.waitForLong(5000), sysEx(5000));
}

TEST_F(Windows11Output, RefusesAMessageThatIsNotPreparedByItsFlag)
{
    Output output(settings, nullptr);
    Buffer buffer(sysEx(8));
    EXPECT_EQ(send(output, &buffer), MMSYSERR_INVALFLAG);
    EXPECT_EQ(buffer.flags(), 0u);
}

TEST_F(Windows11Output, FailsWhenAPieceIsNotTakenAndThenAtOnceUntilTheServiceMoves)
{
    settings.windows11.sendPiece = 100;
    Output output(settings, nullptr);
    Buffer* const message = output.prepared(sysEx(8));
    output.port->stall(true);
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(send(output, message), MMSYSERR_ERROR);
    const auto taken = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(taken, std::chrono::milliseconds(100));
    EXPECT_LT(taken, std::chrono::seconds(10)); // 20 if each waited
    EXPECT_EQ(message->flags(), DWORD(MHDR_PREPARED));
    EXPECT_TRUE(output.recorder.notices(MOM_DONE).empty());
    output.port->stall(false);
    EXPECT_EQ(send(output, message), MMSYSERR_NOERROR);
}

TEST_F(Windows11Output, MayGiveTheHeaderOfAFailedSendBack)
{
    for (const auto how :
         {Windows11::FailedLong::DoneWithError, Windows11::FailedLong::DoneWithSuccess}) {
        settings.windows11.failedLong = how;
        Output output(settings, nullptr);
        Buffer* const message = output.prepared(sysEx(8));
        output.port->stall(true);
        const MMRESULT result = send(output, message);
        EXPECT_EQ(result == MMSYSERR_NOERROR, how == Windows11::FailedLong::DoneWithSuccess);
        EXPECT_EQ(message->flags(), kDone);
        EXPECT_EQ(output.recorder.notices(MOM_DONE).size(), 1u);
    }
}

TEST_F(Windows11Output, KeepsRunningStatusForShortMessagesAndNeedsOne)
{
    Settings receiver;
    Input input(receiver);
    input.port->start();
    Output output(settings, input.port.get());
    EXPECT_EQ(output.port->sendShort(0x6541), MMSYSERR_INVALPARAM);
    EXPECT_EQ(output.port->sendShort(kNoteOn), MMSYSERR_NOERROR);
    EXPECT_EQ(output.port->sendShort(0x6541), MMSYSERR_NOERROR);
    EXPECT_EQ(input.recorder.waitForShort(2), (std::vector<DWORD>{kNoteOn, 0x654190}));
}

TEST_F(Windows11Output, LetsShortMessagesWaitOnlyIfToldTo)
{
    for (const bool waits : {false, true}) {
        settings.windows11.shortsDoNotWait = !waits;
        Output output(settings, nullptr);
        output.port->stall(true);
        EXPECT_EQ(output.port->sendShort(kNoteOn) == MMSYSERR_NOERROR, !waits);
    }
}

TEST_F(Windows11Output, HoldsUpEveryCallToAnyPortWhileAnotherCallWaitsForItsSend)
{
    settings.windows11.sendPiece = kForEver;
    Output output(settings, nullptr);
    Input other(settings);
    Buffer* const message = output.prepared(sysEx(8));
    output.port->stall(true);
    std::thread sender([&] { EXPECT_EQ(send(output, message), MMSYSERR_NOERROR); });
    waitAWhile();
    // Another port's calls pass as long as nobody asks for the sending one.
    EXPECT_EQ(other.port->start(), MMSYSERR_NOERROR);

    std::atomic<int> returned{0};
    std::thread resetter([&] {
        EXPECT_EQ(output.port->reset(), MMSYSERR_NOERROR);
        ++returned;
    });
    waitAWhile();
    std::thread third([&] {
        EXPECT_EQ(other.port->stop(), MMSYSERR_NOERROR);
        ++returned;
    });
    waitAWhile();
    EXPECT_EQ(returned, 0);
    EXPECT_TRUE(output.recorder.notices(MOM_DONE).empty()); // the reset cuts nothing off
    output.port->stall(false);
    sender.join();
    resetter.join();
    third.join();
    EXPECT_EQ(returned, 2);
}

// ---- Unplugging ---------------------------------------------------------------------------------

using Windows11Unplugged = Windows11Output;

TEST_F(Windows11Unplugged, InputRefusesEveryCallAndKeepsItsBuffers)
{
    Input input(settings);
    const Buffer& kept = *input.giveBuffers(1, 16).front();
    Buffer other(16);
    EXPECT_EQ(input.port->prepare(other.header(), sizeof(MIDIHDR)), MMSYSERR_NOERROR);
    input.port->start();
    arrive(input, {0xF0, 1});
    input.port->unplug();
    EXPECT_EQ(input.port->start(), MMSYSERR_NODRIVER);
    EXPECT_EQ(input.port->stop(), MMSYSERR_NODRIVER);
    EXPECT_EQ(input.port->reset(), MMSYSERR_NODRIVER);
    EXPECT_EQ(input.add(other), MMSYSERR_NODRIVER);
    EXPECT_EQ(input.port->unprepare(other.header(), sizeof(MIDIHDR)), MMSYSERR_NODRIVER);
    EXPECT_EQ(input.port->prepare(other.header(), sizeof(MIDIHDR)), MMSYSERR_NODRIVER);
    EXPECT_EQ(input.port->unprepare(input.buffers[0]->header(), sizeof(MIDIHDR)),
              MIDIERR_STILLPLAYING);
    EXPECT_EQ(input.port->close(), MIDIERR_STILLPLAYING);
    EXPECT_EQ(kept.flags(), kQueued);
    EXPECT_FALSE(input.port->shortMessage(kNoteOn));
    EXPECT_EQ(input.recorder.notices().size(), 1u); // no word of the loss

    // Until the driver is unloaded: the first header goes back for the bytes that it holds.
    input.port->unload();
    EXPECT_EQ(heard(input, MIM_LONGERROR), (Messages{{0xF0, 1}}));
    EXPECT_EQ(kept.flags(), kDone);
    EXPECT_EQ(input.recorder.notices().back().message, UINT(MIM_CLOSE));
    EXPECT_FALSE(input.port->isOpen());
}

TEST_F(Windows11Unplugged, UnloadingReturnsNoEmptyHeader)
{
    Input input(settings);
    const auto kept = input.giveBuffers(2, 16);
    input.port->unplug();
    EXPECT_EQ(input.port->close(), MIDIERR_STILLPLAYING);
    input.port->unload();
    EXPECT_EQ(kept[0]->flags(), kQueued);
    EXPECT_EQ(kept[1]->flags(), kQueued);
    EXPECT_EQ(input.recorder.notices(MIM_CLOSE).size(), 1u);
}

TEST_F(Windows11Unplugged, InputWithoutBuffersAndOutputsClose)
{
    Input input(settings);
    Output output(settings, nullptr);
    Buffer* const message = output.prepared(sysEx(8));
    input.port->unplug();
    output.port->unplug();
    EXPECT_EQ(send(output, message), MMSYSERR_NODRIVER);
    EXPECT_EQ(output.port->sendShort(kNoteOn), MMSYSERR_NODRIVER);
    EXPECT_EQ(output.port->reset(), MMSYSERR_NODRIVER);
    EXPECT_EQ(output.port->unprepare(message->header(), sizeof(MIDIHDR)), MMSYSERR_NODRIVER);
    EXPECT_EQ(input.port->close(), MMSYSERR_NOERROR);
    EXPECT_EQ(output.port->close(), MMSYSERR_NOERROR);
    EXPECT_EQ(input.recorder.notices(MIM_CLOSE).size(), 1u);
    EXPECT_EQ(output.recorder.notices(MOM_CLOSE).size(), 1u);
}

TEST_F(Windows11Unplugged, DeliversWhatWasHandedOverBefore)
{
    settings.worker = true;
    Input input(settings);
    input.giveBuffers(1, 16);
    std::promise<void> release;
    input.recorder.also = [&](const Notice& notice) {
        if (notice.message == MIM_DATA)
            release.get_future().wait();
    };
    input.port->start();
    leave(input, kNoteOn);
    leave(input, Bytes{0xF0, 1, 0xF7});
    input.recorder.waitForShort(1);
    input.port->unplug();
    leave(input, Bytes{0xF0, 2, 0xF7});
    release.set_value();
    EXPECT_EQ(input.recorder.waitForLong(3), (Bytes{0xF0, 1, 0xF7}));
}

TEST_F(Windows11Unplugged, NoticeWaitsForASendToGiveUp)
{
    settings.windows11.sendPiece = 200;
    Output output(settings, nullptr);
    Buffer* const message = output.prepared(sysEx(8));
    output.port->stall(true);
    std::atomic<bool> gaveUp{false};
    std::thread sender([&] {
        EXPECT_EQ(send(output, message), MMSYSERR_ERROR);
        gaveUp = true;
    });
    waitAWhile();
    output.port->unplug();
    sender.join();
    EXPECT_TRUE(gaveUp);
    EXPECT_EQ(send(output, message), MMSYSERR_NODRIVER);
}

TEST_F(Windows11Unplugged, WithoutANoticeEverythingGoesOnAndSendsTimeOut)
{
    settings.windows11.noticesRemoval = false;
    Input input(settings);
    const auto buffers = input.giveBuffers(2, 16);
    Output output(settings, nullptr);
    input.port->start();
    input.port->unplug();
    output.port->unplug();
    EXPECT_EQ(send(output, output.prepared(sysEx(8))), MMSYSERR_ERROR);
    EXPECT_EQ(input.port->stop(), MMSYSERR_NOERROR);
    EXPECT_EQ(input.port->reset(), MMSYSERR_NOERROR);
    EXPECT_EQ(buffers[1]->flags(), kDone);
    EXPECT_EQ(input.port->close(), MMSYSERR_NOERROR);
}

TEST_F(Windows11Unplugged, WithCleanUpStopAndResetWorkAndTheInputCloses)
{
    settings.windows11.cleansUpAfterRemoval = true;
    Input input(settings);
    const auto buffers = input.startWith(2, 16);
    input.port->unplug();
    EXPECT_EQ(input.add(*buffers[0]), MMSYSERR_NODRIVER);
    EXPECT_EQ(input.port->stop(), MMSYSERR_NOERROR);
    EXPECT_EQ(input.port->reset(), MMSYSERR_NOERROR);
    EXPECT_EQ(heard(input, MIM_LONGDATA).size(), 2u);
    EXPECT_EQ(input.port->close(), MMSYSERR_NOERROR);
}

} // namespace
