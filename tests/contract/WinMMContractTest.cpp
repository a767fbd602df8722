// The contract between WinMM and its client, as far as the library relies on it: handles, headers
// and callbacks. Independent of the driver under WinMM.

#include "ContractPorts.h"
#include "MidiRecorder.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>

namespace {

using contract::Buffer;
using contract::Bytes;
using contract::Input;
using contract::Notice;
using contract::Output;
using contract::Recorder;
using contract::sysEx;
using contract::waitAWhile;

constexpr DWORD kNoteOn = 0x00644090;

constexpr DWORD kQueued = MHDR_PREPARED | MHDR_INQUEUE;
constexpr DWORD kDone = MHDR_PREPARED | MHDR_DONE;

class WinMMInput : public testing::Test
{
protected:
    void SetUp() override { contract::connectOnePair(); }
};

class WinMMOutput : public testing::Test
{
protected:
    void SetUp() override { contract::connectOnePair(); }
};

// ---- Handles --------------------------------------------------------------------------------

TEST_F(WinMMInput, OpeningAndClosingAreCalledBackFirstAndLast)
{
    Input input;
    ASSERT_EQ(MMSYSERR_NOERROR, input.result);
    ASSERT_NE(nullptr, input.handle);
    ASSERT_EQ(1u, input.recorder.waitFor(MIM_OPEN, 1).size());
    input.giveBuffers(1, 16);
    ASSERT_EQ(MMSYSERR_NOERROR, input.reset());
    input.close();

    const std::vector<Notice> notices = input.recorder.notices();
    ASSERT_EQ(3u, notices.size());
    EXPECT_EQ(MIM_OPEN, notices[0].message);
    EXPECT_EQ(MIM_LONGDATA, notices[1].message);
    EXPECT_EQ(MIM_CLOSE, notices[2].message);
}

TEST_F(WinMMOutput, OpeningAndClosingAreCalledBackFirstAndLast)
{
    Output output;
    ASSERT_EQ(MMSYSERR_NOERROR, output.result);
    ASSERT_EQ(1u, output.recorder.waitFor(MOM_OPEN, 1).size());
    ASSERT_TRUE(output.sendLong(sysEx(8)));
    output.close();

    const std::vector<Notice> notices = output.recorder.notices();
    ASSERT_EQ(3u, notices.size());
    EXPECT_EQ(MOM_OPEN, notices[0].message);
    EXPECT_EQ(MOM_DONE, notices[1].message);
    EXPECT_EQ(MOM_CLOSE, notices[2].message);
}

TEST_F(WinMMInput, AnOpenPortIsRefusedToASecondClientUntilItIsClosed)
{
    Input first;
    ASSERT_EQ(MMSYSERR_NOERROR, first.result);
    EXPECT_EQ(MMSYSERR_ALLOCATED, Input().result);
    first.close();
    EXPECT_EQ(MMSYSERR_NOERROR, Input().result);
}

TEST_F(WinMMOutput, AnOpenPortIsRefusedToASecondClientUntilItIsClosed)
{
    Output first;
    ASSERT_EQ(MMSYSERR_NOERROR, first.result);
    EXPECT_EQ(MMSYSERR_ALLOCATED, Output().result);
    first.close();
    EXPECT_EQ(MMSYSERR_NOERROR, Output().result);
}

TEST_F(WinMMInput, ADeviceBeyondTheLastIsABadDeviceIdentifier)
{
    EXPECT_EQ(MMSYSERR_BADDEVICEID, Input(midiInGetNumDevs()).result);
}

TEST_F(WinMMOutput, ADeviceBeyondTheLastIsABadDeviceIdentifier)
{
    EXPECT_EQ(MMSYSERR_BADDEVICEID, Output(midiOutGetNumDevs()).result);
}

TEST_F(WinMMInput, AHandleIsInvalidOnceClosed)
{
    Input input;
    const HMIDIIN handle = input.handle;
    input.close();
    Buffer buffer(16);
    EXPECT_EQ(MMSYSERR_INVALHANDLE, midiInStart(handle));
    EXPECT_EQ(MMSYSERR_INVALHANDLE, midiInPrepareHeader(handle, buffer.header(), sizeof(MIDIHDR)));
    EXPECT_EQ(MMSYSERR_INVALHANDLE, midiInAddBuffer(handle, buffer.header(), sizeof(MIDIHDR)));
    EXPECT_EQ(MMSYSERR_INVALHANDLE, midiInReset(handle));
    EXPECT_EQ(MMSYSERR_INVALHANDLE, midiInClose(handle));
}

TEST_F(WinMMOutput, TheNullHandleIsInvalid)
{
    Buffer buffer(16);
    EXPECT_EQ(MMSYSERR_INVALHANDLE,
              midiOutPrepareHeader(nullptr, buffer.header(), sizeof(MIDIHDR)));
    EXPECT_EQ(MMSYSERR_INVALHANDLE, midiOutShortMsg(nullptr, kNoteOn));
    EXPECT_EQ(MMSYSERR_INVALHANDLE, midiOutReset(nullptr));
    EXPECT_EQ(MMSYSERR_INVALHANDLE, midiOutClose(nullptr));
}

TEST_F(WinMMInput, CloseIsRefusedWhileABufferIsQueued)
{
    // Outlives the test: where the refused close frees the handle, the port keeps the buffer until
    // it is opened anew.
    static Buffer buffer(16);
    static Recorder recorder;
    HMIDIIN handle = nullptr;
    ASSERT_EQ(MMSYSERR_NOERROR, midiInOpen(&handle, 0, Recorder::inputCallback(),
                                           recorder.instance(), CALLBACK_FUNCTION));
    ASSERT_EQ(MMSYSERR_NOERROR, midiInPrepareHeader(handle, buffer.header(), sizeof(MIDIHDR)));
    ASSERT_EQ(MMSYSERR_NOERROR, midiInAddBuffer(handle, buffer.header(), sizeof(MIDIHDR)));

    EXPECT_EQ(MIDIERR_STILLPLAYING, midiInClose(handle));
    EXPECT_TRUE(recorder.notices(MIM_CLOSE).empty());
    EXPECT_NE(0u, buffer.flags() & MHDR_INQUEUE);

    if (contract::refusedCloseFreesHandle) {
        EXPECT_EQ(MMSYSERR_INVALHANDLE, midiInReset(handle));
    } else {
        EXPECT_EQ(MMSYSERR_NOERROR, midiInReset(handle));
        EXPECT_EQ(MMSYSERR_NOERROR,
                  midiInUnprepareHeader(handle, buffer.header(), sizeof(MIDIHDR)));
        EXPECT_EQ(MMSYSERR_NOERROR, midiInClose(handle));
    }
    EXPECT_EQ(MMSYSERR_NOERROR, Input().result);
}

// ---- Headers ----------------------------------------------------------------------------------

TEST_F(WinMMInput, PreparingAndUnpreparingMayBeRepeated)
{
    Input input;
    Buffer buffer(16);
    EXPECT_EQ(MMSYSERR_NOERROR, input.unprepare(buffer));
    EXPECT_EQ(MMSYSERR_NOERROR, input.prepare(buffer));
    EXPECT_EQ(MHDR_PREPARED, buffer.flags());
    EXPECT_EQ(MMSYSERR_NOERROR, input.prepare(buffer));
    EXPECT_EQ(MHDR_PREPARED, buffer.flags());
    EXPECT_EQ(MMSYSERR_NOERROR, input.unprepare(buffer));
    EXPECT_EQ(0u, buffer.flags() & MHDR_PREPARED);
    EXPECT_EQ(MMSYSERR_NOERROR, input.unprepare(buffer));
}

TEST_F(WinMMOutput, PreparingAndUnpreparingMayBeRepeated)
{
    Output output;
    Buffer buffer(16);
    EXPECT_EQ(MMSYSERR_NOERROR, output.unprepare(buffer));
    EXPECT_EQ(MMSYSERR_NOERROR, output.prepare(buffer));
    EXPECT_EQ(MHDR_PREPARED, buffer.flags());
    EXPECT_EQ(MMSYSERR_NOERROR, output.prepare(buffer));
    EXPECT_EQ(MHDR_PREPARED, buffer.flags());
    EXPECT_EQ(MMSYSERR_NOERROR, output.unprepare(buffer));
    EXPECT_EQ(0u, buffer.flags() & MHDR_PREPARED);
    EXPECT_EQ(MMSYSERR_NOERROR, output.unprepare(buffer));
}

TEST_F(WinMMInput, AnUnpreparedBufferIsNotQueued)
{
    Input input;
    Buffer buffer(16);
    EXPECT_EQ(MIDIERR_UNPREPARED, input.queue(buffer));
    EXPECT_EQ(0u, buffer.flags());
}

TEST_F(WinMMOutput, AnUnpreparedMessageIsNotSent)
{
    Output output;
    Buffer buffer(sysEx(16));
    EXPECT_EQ(MIDIERR_UNPREPARED, output.queue(buffer));
    EXPECT_EQ(0u, buffer.flags());
    waitAWhile();
    EXPECT_TRUE(output.recorder.notices(MOM_DONE).empty());
}

TEST_F(WinMMInput, ANullHeaderOrOneWithoutDataIsAnInvalidParameter)
{
    Input input;
    EXPECT_EQ(MMSYSERR_INVALPARAM, midiInPrepareHeader(input.handle, nullptr, sizeof(MIDIHDR)));
    EXPECT_EQ(MMSYSERR_INVALPARAM, midiInAddBuffer(input.handle, nullptr, sizeof(MIDIHDR)));
    MIDIHDR empty = {};
    EXPECT_EQ(MMSYSERR_INVALPARAM, midiInPrepareHeader(input.handle, &empty, sizeof(MIDIHDR)));
}

TEST_F(WinMMOutput, ANullHeaderOrOneWithoutDataIsAnInvalidParameter)
{
    Output output;
    EXPECT_EQ(MMSYSERR_INVALPARAM, midiOutPrepareHeader(output.handle, nullptr, sizeof(MIDIHDR)));
    EXPECT_EQ(MMSYSERR_INVALPARAM, midiOutLongMsg(output.handle, nullptr, sizeof(MIDIHDR)));
    MIDIHDR empty = {};
    EXPECT_EQ(MMSYSERR_INVALPARAM, midiOutPrepareHeader(output.handle, &empty, sizeof(MIDIHDR)));
}

TEST_F(WinMMInput, AQueuedBufferIsTheDrivers)
{
    Input input;
    Buffer& buffer = *input.giveBuffers(1, 16).front();
    EXPECT_EQ(kQueued, buffer.flags());
    EXPECT_EQ(MIDIERR_STILLPLAYING, input.unprepare(buffer));
    EXPECT_EQ(MIDIERR_STILLPLAYING, input.queue(buffer));
    EXPECT_EQ(kQueued, buffer.flags());
}

TEST_F(WinMMOutput, AMessageSentIsDoneStillPreparedAndNoLongerQueued)
{
    Output output;
    Buffer& buffer = *output.beginLong(sysEx(16));
    const std::vector<Notice> done = output.recorder.waitFor(MOM_DONE, 1);
    ASSERT_EQ(1u, done.size());
    EXPECT_EQ(buffer.header(), done[0].header);
    EXPECT_EQ(kDone, done[0].flags);
    EXPECT_EQ(kDone, buffer.flags());
    EXPECT_EQ(MMSYSERR_NOERROR, output.unprepare(buffer));
}

TEST_F(WinMMOutput, AMessageDoneMayBeSentAgainWithoutPreparing)
{
    Output output;
    Buffer& buffer = *output.beginLong(sysEx(16));
    ASSERT_EQ(1u, output.recorder.waitFor(MOM_DONE, 1).size());
    EXPECT_EQ(MMSYSERR_NOERROR, output.queue(buffer));
    EXPECT_EQ(2u, output.recorder.waitFor(MOM_DONE, 2).size());
}

TEST_F(WinMMOutput, MessagesAreDoneInTheOrderOfSending)
{
    Output output;
    std::vector<MIDIHDR*> sent;
    for (int i = 0; i < 50; ++i) {
        Buffer* buffer = output.beginLong(sysEx(20));
        ASSERT_NE(nullptr, buffer);
        sent.push_back(buffer->header());
    }
    std::vector<MIDIHDR*> done;
    for (const Notice& notice : output.recorder.waitFor(MOM_DONE, sent.size()))
        done.push_back(notice.header);
    EXPECT_EQ(sent, done);
}

TEST_F(WinMMOutput, ResetCompletesEveryMessageOnce)
{
    Output output;
    std::vector<Buffer*> buffers;
    for (int i = 0; i < 8; ++i)
        buffers.push_back(output.beginLong(sysEx(4096)));
    ASSERT_EQ(MMSYSERR_NOERROR, output.reset());
    for (Buffer* buffer : buffers) {
        EXPECT_EQ(kDone, buffer->flags());
        EXPECT_EQ(MMSYSERR_NOERROR, output.unprepare(*buffer));
    }
    EXPECT_EQ(8u, output.recorder.waitFor(MOM_DONE, 8).size());
    waitAWhile();
    EXPECT_EQ(8u, output.recorder.notices(MOM_DONE).size());
}

// ---- Input ------------------------------------------------------------------------------------

TEST_F(WinMMInput, AShortMessageArrivesPackedWithATimeStamp)
{
    Input input;
    Output output;
    ASSERT_EQ(MMSYSERR_NOERROR, input.start());
    ASSERT_EQ(MMSYSERR_NOERROR, output.sendShort(kNoteOn));
    ASSERT_EQ(MMSYSERR_NOERROR, output.sendShort(0x000005C0));
    ASSERT_EQ(MMSYSERR_NOERROR, output.sendShort(0x000000F8));
    EXPECT_EQ((std::vector<DWORD>{kNoteOn, 0x05C0, 0xF8}), input.recorder.waitForShort(3));
    const std::vector<Notice> notices = input.recorder.notices(MIM_DATA);
    for (std::size_t i = 1; i < notices.size(); ++i)
        EXPECT_LE(notices[i - 1].parameter2, notices[i].parameter2);
}

TEST_F(WinMMInput, NothingArrivesBeforeTheStart)
{
    Input input;
    Output output;
    input.giveBuffers(1, 16);
    output.sendShort(kNoteOn);
    ASSERT_TRUE(output.sendLong(sysEx(8)));
    waitAWhile();
    EXPECT_TRUE(input.recorder.notices(MIM_DATA).empty());
    EXPECT_TRUE(input.recorder.notices(MIM_LONGDATA).empty());

    ASSERT_EQ(MMSYSERR_NOERROR, input.start());
    output.sendShort(kNoteOn + 0x100);
    EXPECT_EQ(std::vector<DWORD>{kNoteOn + 0x100}, input.recorder.waitForShort(1));
}

TEST_F(WinMMInput, NothingArrivesAfterTheStopAndTheBuffersStayQueued)
{
    Input input;
    Output output;
    const std::vector<Buffer*> buffers = input.giveBuffers(2, 16);
    ASSERT_EQ(MMSYSERR_NOERROR, input.start());
    output.sendShort(kNoteOn);
    ASSERT_EQ(1u, input.recorder.waitForShort(1).size());
    ASSERT_EQ(MMSYSERR_NOERROR, input.stop());

    output.sendShort(kNoteOn);
    ASSERT_TRUE(output.sendLong(sysEx(8)));
    waitAWhile();
    EXPECT_EQ(1u, input.recorder.notices(MIM_DATA).size());
    EXPECT_TRUE(input.recorder.notices(MIM_LONGDATA).empty());
    for (const Buffer* buffer : buffers)
        EXPECT_EQ(kQueued, buffer->flags());

    ASSERT_EQ(MMSYSERR_NOERROR, input.start());
    ASSERT_TRUE(output.sendLong(sysEx(12)));
    EXPECT_EQ(sysEx(12), input.recorder.waitForLong(12));
}

TEST_F(WinMMInput, ASysExMessageArrivesInABuffer)
{
    Input input;
    Output output;
    Buffer& buffer = *input.giveBuffers(1, 64).front();
    input.start();
    ASSERT_TRUE(output.sendLong(sysEx(20)));

    const std::vector<Notice> notices = input.recorder.waitFor(MIM_LONGDATA, 1);
    ASSERT_EQ(1u, notices.size());
    EXPECT_EQ(buffer.header(), notices[0].header);
    EXPECT_EQ(sysEx(20), notices[0].bytes);
    EXPECT_EQ(kDone, notices[0].flags);
    EXPECT_EQ(20u, buffer.recorded());
    EXPECT_EQ(MMSYSERR_NOERROR, input.unprepare(buffer));
    EXPECT_EQ(0u, buffer.flags() & MHDR_PREPARED);
}

TEST_F(WinMMInput, ALongMessageIsSplitOverTheBuffersInOrder)
{
    Input input;
    Output output;
    const std::vector<Buffer*> buffers = input.giveBuffers(4, 32);
    input.start();
    ASSERT_TRUE(output.sendLong(sysEx(80)));

    EXPECT_EQ(sysEx(80), input.recorder.waitForLong(80));
    const std::vector<Notice> notices = input.recorder.notices(MIM_LONGDATA);
    ASSERT_EQ(3u, notices.size());
    for (std::size_t i = 0; i < notices.size(); ++i)
        EXPECT_EQ(buffers[i]->header(), notices[i].header);
    EXPECT_EQ(32u, notices[0].bytes.size());
    EXPECT_EQ(32u, notices[1].bytes.size());
    EXPECT_EQ(16u, notices[2].bytes.size());
    EXPECT_EQ(kQueued, buffers[3]->flags());
}

TEST_F(WinMMInput, AMessageThatFillsItsBufferExactlyTakesNoSecondOne)
{
    Input input;
    Output output;
    const std::vector<Buffer*> buffers = input.giveBuffers(2, 32);
    input.start();
    ASSERT_TRUE(output.sendLong(sysEx(32)));
    EXPECT_EQ(sysEx(32), input.recorder.waitForLong(32));
    waitAWhile();
    EXPECT_EQ(1u, input.recorder.notices(MIM_LONGDATA).size());
    EXPECT_EQ(kQueued, buffers[1]->flags());
}

TEST_F(WinMMInput, AMessageSentInPiecesArrivesWhole)
{
    Input input;
    Output output;
    input.giveBuffers(8, 64);
    input.start();
    const Bytes message = sysEx(150);
    ASSERT_TRUE(output.sendLong(Bytes(message.begin(), message.begin() + 70)));
    EXPECT_EQ(64u, input.recorder.waitForLong(64).size());
    ASSERT_TRUE(output.sendLong(Bytes(message.begin() + 70, message.begin() + 71)));
    waitAWhile();
    EXPECT_EQ(1u, input.recorder.notices(MIM_LONGDATA).size()); // the second is not full
    ASSERT_TRUE(output.sendLong(Bytes(message.begin() + 71, message.end())));
    EXPECT_EQ(message, input.recorder.waitForLong(message.size()));
    EXPECT_EQ(3u, input.recorder.notices(MIM_LONGDATA).size());
}

TEST_F(WinMMInput, WithoutABufferLongDataIsLostAndTheNextMessageArrives)
{
    Input input;
    Output output;
    input.start();
    ASSERT_TRUE(output.sendLong(sysEx(20)));
    input.giveBuffers(1, 64);
    waitAWhile();
    EXPECT_TRUE(input.recorder.notices(MIM_LONGDATA).empty());
    ASSERT_TRUE(output.sendLong(sysEx(30)));
    EXPECT_EQ(sysEx(30), input.recorder.waitForLong(30));
}

TEST_F(WinMMInput, ShortMessagesNeedNoBuffer)
{
    Input input;
    Output output;
    input.start();
    std::vector<DWORD> sent;
    for (DWORD i = 0; i < 1000; ++i) {
        sent.push_back(0x90 | (i & 0x7F) << 8 | (i >> 7) << 16);
        ASSERT_EQ(MMSYSERR_NOERROR, output.sendShort(sent.back()));
    }
    EXPECT_EQ(sent, input.recorder.waitForShort(sent.size()));
}

TEST_F(WinMMInput, ChannelMessagesInALongMessageArriveAsShortOnes)
{
    Input input;
    Output output;
    Buffer& buffer = *input.giveBuffers(1, 64).front();
    input.start();
    ASSERT_TRUE(output.sendLong({0x90, 0x40, 0x64}));
    ASSERT_TRUE(output.sendLong({0xC1, 0x05, 0xB0, 0x07, 0x7F, 0x0A, 0x40}));
    EXPECT_EQ((std::vector<DWORD>{kNoteOn, 0x05C1, 0x7F07B0, 0x400AB0}),
              input.recorder.waitForShort(4));
    EXPECT_EQ(kQueued, buffer.flags());
}

TEST_F(WinMMInput, RealtimeMessagesInsideSysExArriveByThemselves)
{
    Input input;
    Output output;
    input.giveBuffers(4, 64);
    input.start();
    ASSERT_TRUE(output.sendLong({0xF0, 0x7D, 0x01, 0xF8, 0x02, 0xFE, 0xF7}));
    EXPECT_EQ((Bytes{0xF0, 0x7D, 0x01, 0x02, 0xF7}), input.recorder.waitForLong(5));
    EXPECT_EQ((std::vector<DWORD>{0xF8, 0xFE}), input.recorder.waitForShort(2));
}

TEST_F(WinMMInput, ResetHandsEveryQueuedBufferBackEmptyInOrder)
{
    Input input;
    const std::vector<Buffer*> buffers = input.giveBuffers(100, 32);
    input.start();
    ASSERT_EQ(MMSYSERR_NOERROR, input.reset());
    for (Buffer* buffer : buffers) {
        EXPECT_EQ(kDone, buffer->flags());
        EXPECT_EQ(0u, buffer->recorded());
    }
    const std::vector<Notice> notices = input.recorder.waitFor(MIM_LONGDATA, buffers.size());
    ASSERT_EQ(buffers.size(), notices.size());
    for (std::size_t i = 0; i < notices.size(); ++i) {
        EXPECT_EQ(buffers[i]->header(), notices[i].header);
        EXPECT_TRUE(notices[i].bytes.empty());
    }
    for (Buffer* buffer : buffers)
        EXPECT_EQ(MMSYSERR_NOERROR, input.unprepare(*buffer));
    EXPECT_EQ(MMSYSERR_NOERROR, midiInClose(input.handle));
    input.handle = nullptr;
}

TEST_F(WinMMInput, ResetHandsBackTheBuffersOfAnInputThatWasNeverStarted)
{
    Input input;
    input.giveBuffers(3, 32);
    ASSERT_EQ(MMSYSERR_NOERROR, input.reset());
    EXPECT_EQ(3u, input.recorder.waitFor(MIM_LONGDATA, 3).size());
}

TEST_F(WinMMInput, ResetStopsTheInput)
{
    Input input;
    Output output;
    input.start();
    ASSERT_EQ(MMSYSERR_NOERROR, input.reset());
    output.sendShort(kNoteOn);
    waitAWhile();
    EXPECT_TRUE(input.recorder.notices(MIM_DATA).empty());
}

TEST_F(WinMMInput, ABufferMayBeQueuedAgainFromTheCallback)
{
    HMIDIIN handle = nullptr;
    Input input(0, [&handle](const Notice& notice) {
        if (notice.message == MIM_LONGDATA && !notice.bytes.empty())
            midiInAddBuffer(handle, notice.header, sizeof(MIDIHDR));
    });
    handle = input.handle;
    Output output;
    // While the callback returns one buffer, the other takes the next message.
    input.giveBuffers(2, 64);
    input.start();
    Bytes expected;
    for (std::size_t i = 0; i < 100; ++i) {
        const Bytes message = sysEx(8 + i % 50);
        ASSERT_TRUE(output.sendLong(message));
        expected.insert(expected.end(), message.begin(), message.end());
        ASSERT_EQ(expected.size(), input.recorder.waitForLong(expected.size()).size());
    }
    EXPECT_EQ(expected, input.recorder.waitForLong(expected.size()));
}

TEST_F(WinMMInput, ShortAndLongMessagesKeepTheirOrder)
{
    Input input;
    Output output;
    input.giveBuffers(40, 16);
    input.start();
    std::vector<UINT> expected;
    for (DWORD i = 0; i < 20; ++i) {
        ASSERT_TRUE(output.sendLong(sysEx(10)));
        ASSERT_EQ(MMSYSERR_NOERROR, output.sendShort(kNoteOn + (i << 8)));
        expected.insert(expected.end(), {UINT(MIM_LONGDATA), UINT(MIM_DATA)});
    }
    input.recorder.waitForShort(20);
    std::vector<UINT> arrived;
    for (const Notice& notice : input.recorder.notices())
        if (notice.message == MIM_DATA || notice.message == MIM_LONGDATA)
            arrived.push_back(notice.message);
    EXPECT_EQ(expected, arrived);
}

TEST_F(WinMMInput, ManyOpeningsAndClosingsGiveEveryBufferBack)
{
    Output output;
    for (int cycle = 0; cycle < 30; ++cycle) {
        Input input;
        ASSERT_EQ(MMSYSERR_NOERROR, input.result) << "cycle " << cycle;
        input.giveBuffers(64, 16);
        input.start();
        ASSERT_TRUE(output.sendLong(sysEx(40)));
        input.recorder.waitForLong(40);
        ASSERT_EQ(MMSYSERR_NOERROR, input.reset());
        ASSERT_EQ(64u, input.recorder.waitFor(MIM_LONGDATA, 64).size()) << "cycle " << cycle;
    }
}

} // namespace
