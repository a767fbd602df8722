// The model's Windows 11 kind of driver, where it differs from the others.
#include "tests/device/Clients.h"

#include <future>

namespace {

using device::Windows11;
using namespace device_test;

constexpr DWORD kForEver = 600'000; // a wait of so long is a hang that the test's time-out ends
constexpr device::SourceId kSource = 1'000'000;

MIDIPiece piece(const Bytes& bytes)
{
    return {MIDIPiece::Kind::SysEx, 0, bytes.data(), bytes.size(), bytes.front() == 0xF0,
            bytes.back() == 0xF7};
}

// Lets SysEx arrive on this thread, as on the worker.
std::size_t arrive(Input& input, const Bytes& bytes)
{
    return input.port->takeNow(kSource, piece(bytes));
}

// Leaves it to the worker.
void leave(Input& input, const Bytes& bytes)
{
    input.port->take(kSource, piece(bytes));
}

void leave(Input& input, DWORD word)
{
    input.port->take(kSource, {MIDIPiece::Kind::Short, word});
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
    Settings settings;
};

// ---- Input --------------------------------------------------------------------------------------

using Windows11Input = Windows11Kind;
using Windows11DeathTest = Windows11Kind;

TEST_F(Windows11Input, ThrowsAwayWhatArrivedBeforeTheStart)
{
    Time::set = 20'000;
    Input input(settings);
    input.port->start();
    Time::set = 10'000; // as if the worker came to it only now
    leave(input, kNoteOn);
    Time::set = 20'000;
    leave(input, 0xF8);
    EXPECT_EQ(input.recorder.waitForShort(1), std::vector<DWORD>{0xF8});
}

TEST_F(Windows11Kind, LooksAtHeadersInItsOwnWay)
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

    Output output(settings, nullptr);
    EXPECT_EQ(output.sendLong(buffer), MMSYSERR_INVALFLAG); // not prepared
    EXPECT_EQ(buffer.flags(), DWORD(MHDR_DONE));
}

TEST_F(Windows11Input, ReturnsAPartialBufferAsAnErrorAndEmptyOnesAsData)
{
    Time::set = 5'000'000;
    Input input(settings);
    const auto buffers = input.startWith(3, 16);
    arrive(input, {0xF0, 1});
    EXPECT_EQ(input.port->stop(), MMSYSERR_NOERROR);
    EXPECT_EQ(input.heard(MIM_LONGERROR), (Messages{{0xF0, 1}}));
    EXPECT_EQ(input.port->reset(), MMSYSERR_NOERROR);
    EXPECT_EQ(input.heard(MIM_LONGDATA), (Messages{{}, {}}));
    for (Buffer* const buffer : buffers)
        EXPECT_EQ(buffer->flags(), kDone);
    // Stamped with the machine's time.
    EXPECT_EQ(input.recorder.notices(MIM_LONGDATA)[0].parameter2, 5000u);
}

TEST_F(Windows11Input, ReturnsWhatAStatusByteBreaksOffAsAnError)
{
    Input input(settings);
    input.startWith(2, 4);
    for (const DWORD status : {0xF9u, 0xFDu}) { // no realtime to this driver
        arrive(input, {0xF0, 3});
        EXPECT_TRUE(input.hear(0xF8));
        EXPECT_TRUE(input.hear(status));
    }
    EXPECT_EQ(input.heard(MIM_LONGERROR), (Messages{{0xF0, 3}, {0xF0, 3}}));
    EXPECT_EQ(input.recorder.waitForShort(2), (std::vector<DWORD>{0xF8, 0xF8}));
}

TEST_F(Windows11Input, ReturnsAnEmptyBufferForABreakWhereOneHasJustBeenReturned)
{
    Input input(settings);
    input.startWith(2, 2);
    leave(input, {0xF0, 1});
    input.port->take(kSource, {MIDIPiece::Kind::Broken});
    input.recorder.waitFor(MIM_LONGDATA, 2);
    // But not where bytes were lost behind that one.
    input.giveBuffers(1, 2);
    arrive(input, {0xF0, 2, 3});
    input.giveBuffers(1, 4);
    arrive(input, {0xF0, 4, 0xF7});
    EXPECT_EQ(input.heard(MIM_LONGDATA), (Messages{{0xF0, 1}, {}, {0xF0, 2}, {0xF0, 4, 0xF7}}));
    EXPECT_TRUE(input.heard(MIM_LONGERROR).empty());
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
    EXPECT_EQ(input.heard(MIM_LONGDATA), (Messages{{0xF0, 1, 0xF7}, {0xF0, 4, 0xF7}}));
}

TEST_F(Windows11DeathTest, AStopInsideTheWorkersCallbackNeverReturns)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Input input(settings);
    input.on(MIM_DATA, [&] { input.port->stop(); });
    input.port->start();
    EXPECT_DEATH(input.hear(0xF8), "never returns");
}

// ---- Output -------------------------------------------------------------------------------------

using Windows11Output = Windows11Kind;

TEST_F(Windows11Output, HasFinishedAMessageWhenTheSendReturns)
{
    Input input(Settings{});
    input.startWith(2, 4096);
    Output output(settings, input.port.get());
    Buffer& message = output.prepared(sysEx(5000));
    DWORD flags = 0;
    input.on(MIM_LONGDATA, [&] { flags = message.flags(); });
    EXPECT_EQ(output.sendLong(message), MMSYSERR_NOERROR);
    EXPECT_EQ(flags, DWORD(MHDR_PREPARED)); // never queued
    EXPECT_EQ(message.flags(), kDone);
    EXPECT_EQ(input.recorder.waitForLong(5000), sysEx(5000));
}

TEST_F(Windows11Output, FailsWhenAPieceIsNotTakenAndThenAtOnceUntilTheServiceMoves)
{
    settings.windows11.sendPiece = 100;
    Output output(settings, nullptr);
    Buffer& message = output.prepared(sysEx(8));
    output.port->stall(true);
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(output.sendLong(message), MMSYSERR_ERROR);
    const auto taken = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(taken, std::chrono::milliseconds(100));
    EXPECT_LT(taken, std::chrono::seconds(10)); // 20 if each waited
    EXPECT_EQ(message.flags(), DWORD(MHDR_PREPARED));
    EXPECT_TRUE(output.recorder.notices(MOM_DONE).empty());
    output.port->stall(false);
    EXPECT_EQ(output.sendLong(message), MMSYSERR_NOERROR);
}

TEST_F(Windows11Output, EndsAFailedSendAsItsSwitchesSay)
{
    using Failed = Windows11::FailedLong;
    for (const auto how : {Failed::DoneWithError, Failed::DoneWithSuccess}) {
        settings.windows11.failedLong = how;
        settings.windows11.shortsDoNotWait = how == Failed::DoneWithSuccess;
        Output output(settings, nullptr);
        Buffer& message = output.prepared(sysEx(8));
        output.port->stall(true);
        const DWORD expected = how == Failed::DoneWithSuccess ? MMSYSERR_NOERROR : MMSYSERR_ERROR;
        EXPECT_EQ(output.sendLong(message), expected);
        EXPECT_EQ(message.flags(), kDone);
        EXPECT_EQ(output.recorder.notices(MOM_DONE).size(), 1u);
        EXPECT_EQ(output.port->sendShort(kNoteOn), expected);
    }
}

TEST_F(Windows11Output, KeepsRunningStatusForShortMessagesAndNeedsOne)
{
    Input input(Settings{});
    input.port->start();
    Output output(settings, input.port.get());
    EXPECT_EQ(output.port->sendShort(0x6541), MMSYSERR_INVALPARAM);
    EXPECT_EQ(output.port->sendShort(kNoteOn), MMSYSERR_NOERROR);
    EXPECT_EQ(output.port->sendShort(0x6541), MMSYSERR_NOERROR);
    EXPECT_EQ(input.recorder.waitForShort(2), (std::vector<DWORD>{kNoteOn, 0x654190}));
}

TEST_F(Windows11Output, HoldsUpEveryCallToAnyPortWhileAnotherCallWaitsForItsSend)
{
    settings.windows11.sendPiece = kForEver;
    Output output(settings, nullptr);
    Input other(settings);
    Buffer& message = output.prepared(sysEx(8));
    output.port->stall(true);
    const auto inBackground = [](auto call) {
        auto result = std::async(std::launch::async, call);
        waitAWhile();
        return result;
    };
    auto send = inBackground([&] { return output.sendLong(message); });
    // Another port's calls pass as long as nobody asks for the sending one.
    EXPECT_EQ(other.port->start(), MMSYSERR_NOERROR);
    auto reset = inBackground([&] { return output.port->reset(); });
    auto stop = inBackground([&] { return other.port->stop(); });
    for (auto* const call : {&send, &reset, &stop}) // the reset cuts nothing off
        EXPECT_EQ(call->wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    output.port->stall(false);
    for (auto* const call : {&send, &reset, &stop})
        EXPECT_EQ(call->get(), MMSYSERR_NOERROR);
}

// ---- Unplugging ---------------------------------------------------------------------------------

using Windows11Unplugged = Windows11Kind;

TEST_F(Windows11Unplugged, PortsRefuseEveryCallAndAnInputKeepsItsBuffers)
{
    Output output(settings, nullptr);
    Buffer& message = output.prepared(sysEx(8));
    output.port->unplug();
    EXPECT_EQ(output.sendLong(message), MMSYSERR_NODRIVER);
    EXPECT_EQ(output.port->sendShort(kNoteOn), MMSYSERR_NODRIVER);
    EXPECT_EQ(output.port->reset(), MMSYSERR_NODRIVER);
    EXPECT_EQ(output.port->close(), MMSYSERR_NOERROR);
    EXPECT_EQ(output.recorder.notices(MOM_CLOSE).size(), 1u);
    for (const bool holdsBytes : {true, false}) {
        Input input(settings);
        const auto kept = input.startWith(2, 16);
        Buffer& other = input.prepared(16);
        if (holdsBytes)
            arrive(input, {0xF0, 1});
        input.port->unplug();
        EXPECT_EQ(input.port->start(), MMSYSERR_NODRIVER);
        EXPECT_EQ(input.port->stop(), MMSYSERR_NODRIVER);
        EXPECT_EQ(input.port->reset(), MMSYSERR_NODRIVER);
        EXPECT_EQ(input.add(other), MMSYSERR_NODRIVER);
        EXPECT_EQ(input.port->unprepare(other.header(), sizeof(MIDIHDR)), MMSYSERR_NODRIVER);
        EXPECT_EQ(input.port->prepare(other.header(), sizeof(MIDIHDR)), MMSYSERR_NODRIVER);
        EXPECT_EQ(input.port->unprepare(kept[0]->header(), sizeof(MIDIHDR)), MIDIERR_STILLPLAYING);
        EXPECT_EQ(input.port->close(), MIDIERR_STILLPLAYING);
        EXPECT_EQ(kept[0]->flags(), kQueued);
        EXPECT_FALSE(input.hear(kNoteOn));
        EXPECT_EQ(input.recorder.notices().size(), 1u); // no word of the loss

        // Until the driver is unloaded: the first header goes back if it holds bytes.
        input.port->unload();
        EXPECT_EQ(input.heard(MIM_LONGERROR), holdsBytes ? (Messages{{0xF0, 1}}) : Messages());
        EXPECT_EQ(kept[0]->flags(), holdsBytes ? kDone : kQueued);
        EXPECT_EQ(kept[1]->flags(), kQueued);
        EXPECT_EQ(input.recorder.notices().back().message, UINT(MIM_CLOSE));
        EXPECT_FALSE(input.port->isOpen());
    }
}

TEST_F(Windows11Unplugged, DeliversWhatWasHandedOverBefore)
{
    Input input(settings);
    std::promise<void> release;
    input.on(MIM_DATA, [&] { release.get_future().wait(); });
    input.startWith(1, 16);
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
    settings.windows11.failedLong = Windows11::FailedLong::DoneWithError;
    Output output(settings, nullptr);
    Buffer& message = output.prepared(sysEx(8));
    output.port->stall(true);
    auto send = std::async(std::launch::async, [&] { return output.sendLong(message); });
    waitAWhile();
    output.port->unplug();
    EXPECT_EQ(message.flags(), kDone);
    EXPECT_EQ(send.get(), MMSYSERR_ERROR);
    EXPECT_EQ(output.sendLong(message), MMSYSERR_NODRIVER);
}

TEST_F(Windows11Unplugged, StopAndResetWorkWithoutANoticeOrWithCleanUpAndTheInputCloses)
{
    for (const bool isNoticed : {false, true}) {
        settings.windows11.noticesRemoval = isNoticed;
        settings.windows11.cleansUpAfterRemoval = isNoticed;
        Input input(settings);
        Output output(settings, nullptr);
        input.startWith(2, 16);
        Buffer& message = output.prepared(sysEx(8));
        input.port->unplug();
        output.port->unplug();
        EXPECT_EQ(output.sendLong(message), isNoticed ? MMSYSERR_NODRIVER : MMSYSERR_ERROR);
        EXPECT_EQ(input.port->start(), isNoticed ? MMSYSERR_NODRIVER : MMSYSERR_NOERROR);
        EXPECT_EQ(input.port->stop(), MMSYSERR_NOERROR);
        EXPECT_EQ(input.port->reset(), MMSYSERR_NOERROR);
        EXPECT_EQ(input.heard(MIM_LONGDATA).size(), 2u);
        EXPECT_EQ(input.port->close(), MMSYSERR_NOERROR);
    }
}

} // namespace
