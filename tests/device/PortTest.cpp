// The model of a driver's port, with each way of calling back: by whoever lets data arrive, and by
// a thread of the port's own.
#include "tests/device/Clients.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

using contract::Notice;
using contract::sysEx;
using contract::waitAWhile;
using device::Completion;
using device::DriverKind;
using namespace device_test;

struct Ports : testing::TestWithParam<bool>
{
    Ports()
    {
        Time::set = -1;
        settings.ownThread = GetParam();
        settings.clock = &Time::now;
        settings.completion = GetParam() ? Completion::Thread : Completion::Inline;
    }
    Settings settings;
};

INSTANTIATE_TEST_SUITE_P(Callbacks, Ports, testing::Bool(), [](const auto& chosen) {
    return std::string(chosen.param ? "OnAThreadOfThePort" : "WhereTheyArise");
});

// ---- Input --------------------------------------------------------------------------------------

TEST_P(Ports, AStopHandsThePartlyFilledBufferBack)
{
    Input input(settings);
    Output output(settings, input.port.get());
    input.startWith(2, 64);
    output.send({0xF0, 0x01, 0x02});
    ASSERT_EQ(MMSYSERR_NOERROR, input.port->stop());
    EXPECT_EQ((Bytes{0xF0, 0x01, 0x02}), input.recorder.waitForLong(3));
    EXPECT_EQ(1u, input.port->counters().queuedBuffers);
    // The rest of the message is nobody's when the input starts again.
    input.port->start();
    output.send({0x03, 0xF7});
    output.send(sysEx(10));
    input.recorder.waitForLong(13);
    EXPECT_EQ(sysEx(10), input.recorder.notices(MIM_LONGDATA)[1].bytes);
}

TEST_P(Ports, AMessageWithoutItsEndComesBackAsAnError)
{
    Input input(settings);
    Output output(settings, input.port.get());
    input.startWith(4, 64);
    output.send({0xF0, 0x01, 0x02, 0x90, 0x40, 0x64});
    output.send({0xF0, 0x03, 0xF0, 0x04, 0xF7});
    EXPECT_EQ((Bytes{0xF0, 0x04, 0xF7}), input.recorder.waitForLong(3));
    const std::vector<Notice> errors = input.recorder.notices(MIM_LONGERROR);
    ASSERT_EQ(2u, errors.size());
    EXPECT_EQ((Bytes{0xF0, 0x01, 0x02}), errors[0].bytes);
    EXPECT_EQ((Bytes{0xF0, 0x03}), errors[1].bytes);
    EXPECT_EQ(std::vector<DWORD>{kNoteOn}, input.recorder.waitForShort(1));
}

TEST_P(Ports, TheMessagesOfTwoOutputsAreNotMixedIntoOne)
{
    Input input(settings);
    Output first(settings, input.port.get());
    Output second(settings, input.port.get());
    input.startWith(4, 64);
    first.send({0xF0, 0x01});
    second.port->sendShort(kNoteOn);
    first.send({0x02, 0xF7});
    EXPECT_EQ((Bytes{0xF0, 0x01, 0x02, 0xF7}), input.recorder.waitForLong(4));
    EXPECT_EQ(std::vector<DWORD>{kNoteOn}, input.recorder.waitForShort(1));

    first.send({0xF0, 0x03});
    second.send({0xF0, 0x04, 0xF7});
    first.send({0x05, 0xF7});
    EXPECT_EQ((Bytes{0xF0, 0x01, 0x02, 0xF7, 0xF0, 0x04, 0xF7}), input.recorder.waitForLong(7));
    EXPECT_EQ((Bytes{0xF0, 0x03}), input.recorder.waitFor(MIM_LONGERROR, 1)[0].bytes);
    EXPECT_EQ(2u, input.port->counters().dropped.bytes);
}

TEST_P(Ports, SplitHandsBuffersBackEarly)
{
    settings.split = 10;
    Input input(settings);
    Output output(settings, input.port.get());
    input.startWith(8, 64);
    output.send(sysEx(25));
    EXPECT_EQ(sysEx(25), input.recorder.waitForLong(25));
    const std::vector<Notice> notices = input.recorder.notices(MIM_LONGDATA);
    ASSERT_EQ(3u, notices.size());
    EXPECT_EQ(10u, notices[0].bytes.size());
    EXPECT_EQ(5u, notices[2].bytes.size());
}

TEST_P(Ports, LostLongDataIsCounted)
{
    Input input(settings);
    Output output(settings, input.port.get());
    input.startWith(2, 16);
    output.send(sysEx(100));
    input.recorder.waitForLong(32);
    EXPECT_EQ(68u, input.port->counters().dropped.bytes);
    EXPECT_EQ(32u, input.port->counters().delivered.bytes);
    EXPECT_EQ(0u, input.port->counters().queuedBuffers);
}

TEST_P(Ports, HoldLetsBytesWaitForABuffer)
{
    settings.hold = 5000;
    settings.completion = Completion::Thread;
    Input input(settings);
    Output output(settings, input.port.get());
    input.startWith(1, 64);
    Buffer* const message = output.begin(sysEx(200));
    waitAWhile();
    EXPECT_NE(0u, message->flags() & MHDR_INQUEUE);
    input.giveBuffers(4, 64);
    EXPECT_EQ(sysEx(200), input.recorder.waitForLong(200));
    EXPECT_EQ(1u, output.recorder.waitFor(MOM_DONE, 1).size());
    EXPECT_EQ(0u, input.port->counters().dropped.bytes);
}

TEST(HeldBytes, DoNotHoldUpAResetOfTheOutput)
{
    Time::set = 0; // stands still: the hold would never end
    Settings settings;
    settings.ownThread = true;
    settings.clock = &Time::now;
    settings.hold = 5000;
    settings.completion = Completion::Thread;
    Input input(settings);
    Output output(settings, input.port.get());
    input.port->start();
    output.begin(sysEx(20));
    waitAWhile();
    EXPECT_EQ(MMSYSERR_NOERROR, output.port->reset());
    EXPECT_EQ(1u, output.recorder.notices(MOM_DONE).size());
}

TEST_P(Ports, APreparedHeaderIsPreparedAgainWhateverItsFlagsSay)
{
    Buffer buffer(8);
    EXPECT_EQ(MMSYSERR_NOERROR, device::prepareHeader(buffer.header(), sizeof(MIDIHDR)));
    EXPECT_EQ(MMSYSERR_NOERROR, device::prepareHeader(buffer.header(), sizeof(MIDIHDR)));
    device::markQueued(*buffer.header());
    EXPECT_EQ(MMSYSERR_NOERROR, device::prepareHeader(buffer.header(), sizeof(MIDIHDR)));
    EXPECT_EQ(MIDIERR_STILLPLAYING, device::unprepareHeader(buffer.header(), sizeof(MIDIHDR)));
    // Left over in a header that is not prepared, the flag means nothing.
    buffer.header()->dwFlags = MHDR_INQUEUE | MHDR_DONE;
    EXPECT_EQ(MMSYSERR_NOERROR, device::prepareHeader(buffer.header(), sizeof(MIDIHDR)));
    EXPECT_EQ(DWORD(MHDR_PREPARED), buffer.flags());
    EXPECT_EQ(MMSYSERR_INVALPARAM, device::prepareHeader(buffer.header(), 8));
    EXPECT_EQ(MMSYSERR_INVALPARAM, device::checkHeader(buffer.header(), 8));
    EXPECT_EQ(MMSYSERR_INVALPARAM, device::unprepareHeader(buffer.header(), 8));
}

TEST_P(Ports, AnAbandonedPortCallsNobodyAndTouchesNoHeader)
{
    Input input(settings);
    const Buffer& buffer = *input.startWith(1, 16).front();
    EXPECT_FALSE(input.port->wasRefused());
    EXPECT_EQ(MIDIERR_STILLPLAYING, input.port->close());
    EXPECT_TRUE(input.port->wasRefused());
    input.recorder.waitFor(MIM_OPEN, 1);
    input.port->abandon();
    EXPECT_FALSE(input.port->shortMessage(kNoteOn));
    waitAWhile();
    EXPECT_EQ(1u, input.recorder.notices().size());
    EXPECT_EQ(DWORD(MHDR_PREPARED | MHDR_INQUEUE), buffer.flags());
}

// ---- Who calls back, and who waits for it -------------------------------------------------------

TEST(OwnThread, MakesEveryCallbackOfItsPort)
{
    Settings settings;
    settings.ownThread = true;
    settings.completion = Completion::Thread;
    Input input(settings);
    {
        Output output(settings, input.port.get());
        input.startWith(4, 64);
        output.port->sendShort(kNoteOn);
        output.send(sysEx(20));
        input.recorder.waitForLong(20);
        for (const Notice& notice : output.recorder.notices())
            EXPECT_NE(std::this_thread::get_id(), notice.thread);
    }
    input.port->reset();
    input.port->close();
    const std::vector<Notice> notices = input.recorder.notices();
    EXPECT_EQ(UINT(MIM_CLOSE), notices.back().message);
    for (const Notice& notice : notices)
        EXPECT_EQ(notices[0].thread, notice.thread);
    EXPECT_NE(std::this_thread::get_id(), notices[0].thread);
}

struct StuckCallback : testing::TestWithParam<std::tuple<DriverKind, bool>>
{
    // Whether the action ends while the callback is stuck; lets the callback go on if it does not.
    template <typename Action>
    bool endsMeanwhile(Action action)
    {
        std::atomic<bool> ended{false};
        std::thread thread([&] {
            action();
            ended = true;
        });
        for (int i = 0; i < 100 && !ended; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const bool result = ended;
        release = release || !result;
        thread.join();
        return result;
    }
    std::atomic<bool> inside{false};
    std::atomic<bool> release{false};
};

TEST_P(StuckCallback, IsWaitedForWhereTheDriverWaits)
{
    const DriverKind kind = std::get<0>(GetParam());
    Settings settings;
    settings.kind = kind;
    settings.ownThread = std::get<1>(GetParam());
    Input input(settings, [&](const Notice& notice) {
        if (notice.message != MIM_DATA)
            return;
        inside = true;
        while (!release)
            std::this_thread::yield();
    });
    input.port->start();
    std::thread driver([&] { input.port->shortMessage(0xF8); });
    while (!inside)
        std::this_thread::yield();

    const bool resetEnded = endsMeanwhile([&] { input.port->reset(); });
    EXPECT_EQ(resetEnded, kind != DriverKind::WaitsInReset);
    if (resetEnded) {
        const bool closeEnded = endsMeanwhile([&] { input.port->close(); });
        EXPECT_EQ(closeEnded, kind == DriverKind::WaitsInNeither);
    } else {
        EXPECT_EQ(MMSYSERR_NOERROR, input.port->close());
    }
    release = true;
    driver.join();
    EXPECT_EQ(1u, input.recorder.waitFor(MIM_CLOSE, 1).size());
}

INSTANTIATE_TEST_SUITE_P(Kinds, StuckCallback,
                         testing::Combine(testing::Values(DriverKind::WaitsInReset,
                                                          DriverKind::WaitsInClose,
                                                          DriverKind::WaitsInNeither),
                                          testing::Bool()));

TEST_P(Ports, ResetAndCloseInsideACallbackWaitForNothing)
{
    for (const auto kind : {DriverKind::WaitsInReset, DriverKind::WaitsInClose}) {
        settings.kind = kind;
        device::InputPort* port = nullptr;
        Buffer* buffer = nullptr;
        Input input(settings, [&](const Notice& notice) {
            if (notice.message != MIM_DATA)
                return;
            EXPECT_EQ(MMSYSERR_NOERROR, port->reset());
            EXPECT_EQ(MMSYSERR_NOERROR, port->unprepare(buffer->header(), sizeof(MIDIHDR)));
            EXPECT_EQ(MMSYSERR_NOERROR, port->close());
        });
        port = input.port.get();
        buffer = input.startWith(1, 16).front();
        EXPECT_TRUE(input.port->shortMessage(kNoteOn));
        EXPECT_EQ(1u, input.recorder.waitFor(MIM_CLOSE, 1).size());
        EXPECT_EQ(1u, input.recorder.notices(MIM_LONGDATA).size());
    }
}

// ---- Output -------------------------------------------------------------------------------------

struct FinishedByHand : testing::Test
{
    static Settings settings(Completion completion)
    {
        Settings result;
        result.completion = completion;
        return result;
    }
    Input input{settings(Completion::Inline)};
    Output output{settings(Completion::Manual), input.port.get()};
};

TEST_F(FinishedByHand, MessagesAreDoneInOrder)
{
    Buffer* const first = output.begin({0xF0, 1, 0xF7});
    Buffer* const second = output.begin({0xF0, 2, 0xF7});
    EXPECT_EQ(DWORD(MHDR_PREPARED | MHDR_INQUEUE), first->flags());
    EXPECT_EQ(2u, output.port->queued());
    EXPECT_EQ(MIDIERR_STILLPLAYING, output.port->close());
    EXPECT_EQ(first->header(), output.port->completeNext());
    EXPECT_EQ(DWORD(MHDR_PREPARED | MHDR_DONE), first->flags());
    EXPECT_EQ(second->header(), output.port->completeNext());
    EXPECT_EQ(nullptr, output.port->completeNext());
    EXPECT_EQ(2u, output.recorder.notices(MOM_DONE).size());
}

TEST_F(FinishedByHand, WhatAResetTakesAwayWhileItPlaysIsDoneOnce)
{
    input.startWith(2, 16);
    output.begin({0xF0, 1, 0xF7});
    Buffer* second = nullptr;
    input.recorder.also = [&](const Notice& notice) {
        if (notice.message == MIM_LONGDATA && !second) {
            output.port->reset();
            second = output.begin({0xF0, 2, 0xF7});
        }
    };
    EXPECT_EQ(nullptr, output.port->completeNext());
    EXPECT_EQ(1u, output.recorder.notices(MOM_DONE).size());
    EXPECT_EQ(second->header(), output.port->completeNext());
}

TEST_F(FinishedByHand, ShortMessagesPassLongOnes)
{
    input.startWith(1, 16);
    output.begin({0xF0, 1, 0xF7});
    EXPECT_EQ(MMSYSERR_NOERROR, output.port->sendShort(0xF8));
    EXPECT_EQ(MMSYSERR_INVALPARAM, output.port->sendShort(0xF0));
    EXPECT_EQ(std::vector<DWORD>{0xF8}, input.recorder.waitForShort(1));
    EXPECT_TRUE(input.recorder.notices(MIM_LONGDATA).empty());
    output.port->completeNext();
    EXPECT_EQ((Bytes{0xF0, 1, 0xF7}), input.recorder.waitForLong(3));
}

// ---- The wire's speed ---------------------------------------------------------------------------

// Time stands still until the test moves it, and a paced output goes on within a few ms of that.
struct Pace : testing::Test
{
    Pace()
    {
        Time::set = 0;
        settings.ownThread = true;
        settings.clock = &Time::now;
        settings.completion = Completion::Thread;
    }
    void advance(int milliseconds) { Time::set = Time::set + milliseconds * 1000; }

    Settings settings;
};

TEST_F(Pace, MessagesTakeTurnsAndStayQueuedUntilTheyAreThrough)
{
    Input input(settings);
    settings.pace = 2000;
    Output output(settings, input.port.get());
    input.giveBuffers(40, 20); // 10 ms of the wire each
    input.port->start();
    Buffer* const first = output.begin(sysEx(200)); // 100 ms each
    Buffer* const second = output.begin(sysEx(200));
    ASSERT_EQ(MMSYSERR_NOERROR, output.port->sendShort(kNoteOn));
    advance(90);
    EXPECT_EQ(180u, input.recorder.waitForLong(180).size());
    waitAWhile();
    EXPECT_EQ(9u, input.recorder.notices(MIM_LONGDATA).size());
    EXPECT_EQ(DWORD(MHDR_PREPARED | MHDR_INQUEUE), first->flags());
    EXPECT_EQ(2u, output.port->counters().queuedBuffers);
    advance(10);
    EXPECT_EQ(1u, output.recorder.waitFor(MOM_DONE, 1).size());
    EXPECT_EQ(DWORD(MHDR_PREPARED | MHDR_INQUEUE), second->flags());
    advance(101);
    EXPECT_EQ(2u, output.recorder.waitFor(MOM_DONE, 2).size());
    waitAWhile();
    EXPECT_TRUE(input.recorder.notices(MIM_DATA).empty()); // 1.5 ms
    advance(1);
    EXPECT_EQ(std::vector<DWORD>{kNoteOn}, input.recorder.waitForShort(1));
}

TEST_F(Pace, ResetCompletesWhatIsUnderWayAndWhatWaits)
{
    Input input(settings);
    settings.pace = 1000;
    Output output(settings, input.port.get());
    input.startWith(8, 64);
    std::vector<MIDIHDR*> messages;
    for (int i = 0; i < 4; ++i)
        messages.push_back(output.begin(sysEx(2000))->header());
    advance(100);
    input.recorder.waitForLong(64);
    EXPECT_EQ(MIDIERR_STILLPLAYING, output.port->close());
    ASSERT_EQ(MMSYSERR_NOERROR, output.port->reset());
    std::vector<MIDIHDR*> done;
    for (const Notice& notice : output.recorder.notices(MOM_DONE))
        done.push_back(notice.header);
    EXPECT_EQ(messages, done);
    // The wire is free again, and the message cut short is an error at the far end.
    output.begin({0xF0, 0x01, 0xF7});
    advance(100);
    EXPECT_EQ(1u, input.recorder.waitFor(MIM_LONGERROR, 1).size());
    EXPECT_EQ(5u, output.recorder.waitFor(MOM_DONE, 5).size());
}

// ---- Generators ---------------------------------------------------------------------------------

struct Generators : Pace
{
    using Kind = device::Generator::Kind;

    static Bytes dump(DWORD length, DWORD number)
    {
        Bytes bytes(length);
        for (DWORD i = 0; i < length; ++i)
            bytes[i] = device::dumpByte(i, length, number);
        return bytes;
    }
    static std::vector<DWORD> flood(DWORD count)
    {
        std::vector<DWORD> words;
        for (DWORD i = 0; i < count; ++i)
            words.push_back(device::floodWord(i));
        return words;
    }
};

TEST_F(Generators, AFloodKeepsItsRateAndEnds)
{
    settings.generators = {{Kind::Flood, 200, 1000}};
    Input input(settings);
    waitAWhile();
    EXPECT_TRUE(input.recorder.notices(MIM_DATA).empty()); // not started
    input.port->start();
    advance(99);
    EXPECT_EQ(flood(100), input.recorder.waitForShort(100));
    waitAWhile();
    EXPECT_EQ(100u, input.recorder.notices(MIM_DATA).size());
    advance(1000);
    EXPECT_EQ(flood(200), input.recorder.waitForShort(200));
    waitAWhile();
    EXPECT_EQ(200u, input.port->counters().delivered.shortMessages);
}

TEST_F(Generators, TakeTurnsAndBeginAnewAtEachStart)
{
    settings.generators = {{Kind::Flood, 3, 0}, {Kind::Dump, 150, 0}};
    settings.repeat = 2;
    Input input(settings);
    input.giveBuffers(12, 64);
    Bytes expected;
    for (std::size_t start = 1; start <= 2; ++start) {
        input.port->start();
        for (DWORD number = 0; number < 2; ++number) {
            const Bytes bytes = dump(150, number);
            expected.insert(expected.end(), bytes.begin(), bytes.end());
        }
        EXPECT_EQ(expected, input.recorder.waitForLong(300 * start));
        input.recorder.waitForShort(6 * start);
        input.port->stop();
    }
    std::vector<DWORD> words = flood(6);
    words.insert(words.end(), words.begin(), words.begin() + 6);
    EXPECT_EQ(words, input.recorder.waitForShort(12));
    std::vector<std::size_t> lengths;
    for (const Notice& notice : input.recorder.notices(MIM_LONGDATA))
        lengths.push_back(notice.bytes.size());
    EXPECT_EQ((std::vector<std::size_t>{64, 64, 22, 64, 64, 22, 64, 64, 22, 64, 64, 22}), lengths);
}

TEST_F(Generators, AnEndlessOneEndsWithTheReset)
{
    settings.generators = {{Kind::Flood, 10, 0}, {Kind::Dump, 100, 0}};
    settings.repeat = 0;
    settings.hold = 5000; // for ever, as time stands still
    Input input(settings);
    input.startWith(4, 64);
    // The dump waits for buffers; those that come back are not queued again.
    EXPECT_LE(200u, input.recorder.waitForLong(200).size());
    ASSERT_EQ(MMSYSERR_NOERROR, input.port->reset());
    const std::size_t heard = input.recorder.notices().size();
    waitAWhile();
    EXPECT_EQ(heard, input.recorder.notices().size());
}

TEST_F(Generators, AnEndlessDumpThatFindsNoBuffersLetsThePortClose)
{
    settings.generators = {{Kind::Dump, 1000000, 0}};
    settings.repeat = 0;
    for (int cycle = 0; cycle < 20; ++cycle) {
        Input input(settings);
        input.port->start();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        EXPECT_EQ(MMSYSERR_NOERROR, input.port->close());
    }
}

TEST_F(Generators, EachOf262144FloodMessagesIsAnotherOne)
{
    std::vector<DWORD> words = flood(262144);
    std::sort(words.begin(), words.end());
    EXPECT_EQ(words.end(), std::adjacent_find(words.begin(), words.end()));
    EXPECT_EQ(device::floodWord(0), device::floodWord(262144));
}

} // namespace
