// The model of a driver's port, with each way of calling back: by whoever lets data arrive, and by
// a thread of the port's own. What WinMM's clients see of it is in tests/contract.
#include "tests/device/Clients.h"

#include <algorithm>
#include <array>
#include <future>
#include <map>

namespace {

using namespace device_test;

Settings withOwnThread(bool ownThread)
{
    Settings settings;
    settings.ownThread = ownThread;
    settings.completion = ownThread ? Completion::Thread : Completion::Inline;
    return settings;
}

struct Ports : testing::TestWithParam<bool>
{
    Settings settings = withOwnThread(GetParam());
    Input input{settings};
    Output output{settings, input.port.get()};
};

INSTANTIATE_TEST_SUITE_P(OwnThread, Ports, testing::Bool(), testing::PrintToStringParamName());

// ---- Input --------------------------------------------------------------------------------------

TEST_P(Ports, AStopHandsThePartlyFilledBufferBack)
{
    input.startWith(2, 64);
    output.send({0xF0, 0x01, 0x02});
    ASSERT_EQ(MMSYSERR_NOERROR, input.port->stop());
    EXPECT_EQ((Bytes{0xF0, 0x01, 0x02}), input.recorder.waitForLong(3));
    EXPECT_EQ(1u, input.port->queued());
    // The rest of the message is nobody's when the input starts again.
    input.port->start();
    output.send({0x03, 0xF7});
    output.send(sysEx(10));
    input.recorder.waitForLong(13);
    EXPECT_EQ(sysEx(10), input.heard(MIM_LONGDATA)[1]);
}

TEST_P(Ports, AMessageWithoutItsEndComesBackAsAnError)
{
    input.startWith(4, 64);
    output.send({0xF0, 0x01, 0x02, 0x90, 0x40, 0x64});
    output.send({0xF0, 0x03, 0xF0, 0x04, 0xF7});
    EXPECT_EQ((Bytes{0xF0, 0x04, 0xF7}), input.recorder.waitForLong(3));
    EXPECT_EQ((Messages{{0xF0, 0x01, 0x02}, {0xF0, 0x03}}), input.heard(MIM_LONGERROR));
    EXPECT_EQ(std::vector<DWORD>{kNoteOn}, input.recorder.waitForShort(1));
}

TEST_P(Ports, TheMessagesOfTwoOutputsAreNotMixedIntoOne)
{
    Output second(settings, input.port.get());
    input.startWith(4, 64);
    output.send({0xF0, 0x01});
    second.port->sendShort(kNoteOn);
    output.send({0x02, 0xF7});
    EXPECT_EQ((Bytes{0xF0, 0x01, 0x02, 0xF7}), input.recorder.waitForLong(4));
    EXPECT_EQ(std::vector<DWORD>{kNoteOn}, input.recorder.waitForShort(1));

    output.send({0xF0, 0x03});
    second.send({0xF0, 0x04, 0xF7});
    output.send({0x05, 0xF7});
    EXPECT_EQ((Bytes{0xF0, 0x01, 0x02, 0xF7, 0xF0, 0x04, 0xF7}), input.recorder.waitForLong(7));
    EXPECT_EQ((Bytes{0xF0, 0x03}), input.recorder.waitFor(MIM_LONGERROR, 1)[0].bytes);
    EXPECT_EQ(2u, input.port->loss().bytes);
}

TEST_P(Ports, WhatFindsNoBufferIsLostUpToTheNextMessageAndCounted)
{
    input.startWith(2, 16);
    const Bytes message = sysEx(100);
    output.send(Bytes(message.begin(), message.begin() + 50));
    input.giveBuffers(2, 16);
    output.send(Bytes(message.begin() + 50, message.end()));
    output.send(sysEx(10));
    EXPECT_EQ(42u, input.recorder.waitForLong(42).size());
    EXPECT_EQ(sysEx(10), input.heard(MIM_LONGDATA)[2]);
    EXPECT_EQ(68u, input.port->loss().bytes);
    EXPECT_EQ(1u, input.port->queued());
}

TEST_P(Ports, PrepareAHeaderWhateverItsFlagsSayUnlessItIsTooSmall)
{
    Buffer& buffer = *input.giveBuffers(1, 8).front();
    MIDIHDR* const header = buffer.header();
    EXPECT_EQ(MMSYSERR_NOERROR, input.port->prepare(header, sizeof(MIDIHDR)));
    EXPECT_EQ(kQueued, buffer.flags());
    input.port->reset();
    // Left over in a header that is not prepared, the flag means nothing.
    header->dwFlags = MHDR_INQUEUE | MHDR_DONE;
    EXPECT_EQ(MMSYSERR_NOERROR, input.port->prepare(header, sizeof(MIDIHDR)));
    EXPECT_EQ(DWORD(MHDR_PREPARED), buffer.flags());
    EXPECT_EQ(MMSYSERR_INVALPARAM, input.port->prepare(header, 8));
    EXPECT_EQ(MMSYSERR_INVALPARAM, input.port->addBuffer(header, 8));
    EXPECT_EQ(MMSYSERR_INVALPARAM, input.port->unprepare(header, 8));
}

TEST_P(Ports, AnAbandonedPortCallsNobodyAndTouchesNoHeader)
{
    const Buffer& buffer = *input.startWith(1, 16).front();
    EXPECT_EQ(MIDIERR_STILLPLAYING, input.port->close());
    input.port->abandon();
    EXPECT_FALSE(input.hear(kNoteOn));
    waitAWhile();
    EXPECT_EQ(1u, input.recorder.notices().size()); // the opening
    EXPECT_EQ(kQueued, buffer.flags());
}

// ---- Who calls back, and who waits for it -------------------------------------------------------

// The threads of the notices: 0 is this one, 1 the port's.
std::string threads(Recorder& recorder)
{
    std::vector<std::thread::id> known{std::this_thread::get_id()};
    std::string numbers;
    for (const Notice& notice : recorder.notices()) {
        const auto found = std::find(known.begin(), known.end(), notice.thread);
        numbers += static_cast<char>('0' + (found - known.begin()));
        if (found == known.end())
            known.push_back(notice.thread);
    }
    return numbers;
}

TEST(Callbacks, ComeOnTheThreadThatTheSettingsSay)
{
    struct
    {
        DriverKind kind;
        bool ownThread;
        const char* ofInput; // opened, two arrived, one was returned, closed
        const char* ofOutput;
    } const cases[] = {{DriverKind::WaitsInReset, false, "00000", "000"},
                       {DriverKind::WaitsInReset, true, "01110", "010"},
                       {DriverKind::Windows11, false, "01100", "000"}};
    for (const auto& expected : cases) {
        Settings settings = withOwnThread(expected.ownThread);
        settings.kind = expected.kind;
        Input input(settings);
        Output output(settings, input.port.get());
        input.startWith(2, 64);
        output.port->sendShort(kNoteOn);
        output.send(sysEx(20));
        input.recorder.waitForShort(1);
        input.recorder.waitForLong(20);
        EXPECT_EQ(input.port->reset(), MMSYSERR_NOERROR);
        EXPECT_EQ(input.port->close(), MMSYSERR_NOERROR);
        EXPECT_EQ(output.port->close(), MMSYSERR_NOERROR);
        EXPECT_EQ(threads(input.recorder), expected.ofInput);
        EXPECT_EQ(threads(output.recorder), expected.ofOutput);
    }
}

// Makes a call while the callback for a short message is stuck: 0 a stop, 1 a reset, 2 a close.
void callWhileStuck(const Settings& settings, std::size_t call, bool waits)
{
    std::promise<void> entered;
    std::promise<void> release;
    Input input(settings);
    input.on(MIM_DATA, [&] {
        entered.set_value();
        release.get_future().wait();
    });
    const auto given = input.startWith(call == 1 ? 1 : 0, 16);
    std::thread driver([&] { input.hear(0xF8); });
    entered.get_future().wait();
    std::future<MMRESULT> result = std::async(std::launch::async, [&] {
        return call == 0   ? input.port->stop()
               : call == 1 ? input.port->reset()
                           : input.port->close();
    });
    const std::chrono::milliseconds patience(waits ? 100 : 10000);
    EXPECT_EQ(result.wait_for(patience) == std::future_status::timeout, waits) << call;
    if (call == 1 && !waits) {
        // Whose own thread is to tell that it is back does so later, unless it waits never.
        const bool isTold = settings.kind == DriverKind::WaitsInNeither || !settings.ownThread;
        EXPECT_EQ(kDone, given[0]->flags());
        EXPECT_EQ(isTold ? 1u : 0u, input.recorder.notices(MIM_LONGDATA).size());
    }
    release.set_value();
    driver.join();
    EXPECT_EQ(result.get(), MMSYSERR_NOERROR);
    EXPECT_EQ(call == 2 ? 1u : 0u, input.recorder.notices(MIM_CLOSE).size());
}

TEST(Callbacks, InProgressAreWaitedForWhereTheDriverWaits)
{
    const std::map<DriverKind, std::array<bool, 3>> waits = {
        {DriverKind::WaitsInReset, {false, true, true}},
        {DriverKind::WaitsInClose, {false, false, true}},
        {DriverKind::WaitsInNeither, {false, false, false}},
        {DriverKind::Windows11, {true, true, true}},
    };
    for (const auto& [kind, ofKind] : waits) {
        for (const bool ownThread : {false, true}) {
            Settings settings = withOwnThread(ownThread && kind != DriverKind::Windows11);
            settings.kind = kind;
            for (std::size_t call = 0; call < ofKind.size(); ++call)
                callWhileStuck(settings, call, ofKind[call]);
        }
    }
}

TEST_P(Ports, ResetAndCloseInsideACallbackWaitForNothing)
{
    for (const auto kind : {DriverKind::WaitsInReset, DriverKind::WaitsInClose}) {
        settings.kind = kind;
        Input closing(settings);
        Buffer& buffer = *closing.startWith(1, 16).front();
        closing.on(MIM_DATA, [&] {
            EXPECT_EQ(MMSYSERR_NOERROR, closing.port->reset());
            EXPECT_EQ(MMSYSERR_NOERROR, closing.port->unprepare(buffer.header(), sizeof(MIDIHDR)));
            EXPECT_EQ(MMSYSERR_NOERROR, closing.port->close());
        });
        EXPECT_TRUE(closing.hear(kNoteOn));
        EXPECT_EQ(1u, closing.recorder.waitFor(MIM_CLOSE, 1).size());
        EXPECT_EQ(1u, closing.recorder.notices(MIM_LONGDATA).size());
    }
}

// ---- Output -------------------------------------------------------------------------------------

TEST(FinishedByHand, LongMessagesLetShortOnesPassAndAreDoneOnceThoughAResetTakesThemAway)
{
    Settings settings;
    Input input(settings);
    settings.completion = Completion::Manual;
    Output output(settings, input.port.get());
    input.startWith(2, 16);
    output.begin({0xF0, 1, 0xF7});
    EXPECT_EQ(MMSYSERR_NOERROR, output.port->sendShort(0xF8));
    EXPECT_EQ(MMSYSERR_INVALPARAM, output.port->sendShort(0xF0));
    EXPECT_EQ(std::vector<DWORD>{0xF8}, input.recorder.waitForShort(1));
    EXPECT_TRUE(input.recorder.notices(MIM_LONGDATA).empty());

    Buffer* second = nullptr;
    input.on(MIM_LONGDATA, [&] {
        if (!second) {
            output.port->reset();
            second = &output.begin({0xF0, 2, 0xF7});
        }
    });
    EXPECT_EQ(nullptr, output.port->completeNext());
    EXPECT_EQ(1u, output.recorder.notices(MOM_DONE).size());
    EXPECT_EQ(second->header(), output.port->completeNext());
    EXPECT_EQ(nullptr, output.port->completeNext());
    EXPECT_EQ((Bytes{0xF0, 1, 0xF7, 0xF0, 2, 0xF7}), input.recorder.waitForLong(6));
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
    input.startWith(40, 20);                        // 10 ms of the wire each
    const Buffer& first = output.begin(sysEx(200)); // 100 ms each
    const Buffer& second = output.begin(sysEx(200));
    ASSERT_EQ(MMSYSERR_NOERROR, output.port->sendShort(kNoteOn));
    advance(90);
    EXPECT_EQ(180u, input.recorder.waitForLong(180).size());
    waitAWhile();
    EXPECT_EQ(9u, input.recorder.notices(MIM_LONGDATA).size());
    EXPECT_EQ(kQueued, first.flags());
    EXPECT_EQ(2u, output.port->queued());
    advance(10);
    EXPECT_EQ(1u, output.recorder.waitFor(MOM_DONE, 1).size());
    EXPECT_EQ(kQueued, second.flags());
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
        messages.push_back(output.begin(sysEx(2000)).header());
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
    EXPECT_EQ(0x7F7F9Fu, device::floodWord(262143)); // the last different one
    EXPECT_EQ(device::floodWord(0), device::floodWord(262144));
    settings.generators = {{Kind::Flood, 200, 1000}};
    Input input(settings);
    waitAWhile();
    EXPECT_TRUE(input.recorder.notices(MIM_DATA).empty()); // not started
    input.port->start();
    for (const auto& [milliseconds, count] : {std::pair(99, 100u), std::pair(1000, 200u)}) {
        advance(milliseconds);
        input.recorder.waitForShort(count);
        waitAWhile();
        EXPECT_EQ(flood(count), input.recorder.waitForShort(count));
    }
}

TEST_F(Generators, TakeTurnsAndBeginAnewAtEachStart)
{
    settings.generators = {{Kind::Flood, 3, 0}, {Kind::Dump, 150, 0}};
    settings.repeat = 2;
    Input input(settings);
    input.giveBuffers(12, 64);
    for (std::size_t start = 1; start <= 2; ++start) {
        input.port->start();
        input.recorder.waitForLong(300 * start);
        input.recorder.waitForShort(6 * start);
        input.port->stop();
    }
    std::vector<DWORD> words = flood(6);
    words.insert(words.end(), words.begin(), words.begin() + 6);
    EXPECT_EQ(words, input.recorder.waitForShort(12));
    Bytes expected;
    for (const DWORD number : {0u, 1u, 0u, 1u}) {
        for (DWORD i = 0; i < 150; ++i)
            expected.push_back(device::dumpByte(i, 150, number));
    }
    EXPECT_EQ(expected, input.recorder.waitForLong(600));
}

TEST_F(Generators, EndlessOnesThatFindNoBuffersLetThePortBeResetAndClosed)
{
    settings.generators = {{Kind::Flood, 10, 0}, {Kind::Dump, 1000000, 0}};
    settings.repeat = 0;
    for (int cycle = 0; cycle < 20; ++cycle) {
        Input input(settings);
        input.startWith(4, 64);
        input.recorder.waitForLong(256);
        EXPECT_EQ(MMSYSERR_NOERROR, input.port->reset());
        const std::size_t heard = input.recorder.notices().size();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        EXPECT_EQ(heard, input.recorder.notices().size());
        EXPECT_EQ(MMSYSERR_NOERROR, input.port->close());
    }
}

} // namespace
