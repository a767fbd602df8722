// The parts of lumora-midi that need no MIDI.

#include "tests/unit/OutOfMemory.h"
#include "tools/Decode.h"
#include "tools/Failure.h"
#include "tools/Filter.h"
#include "tools/Manufacturers.h"
#include "tools/MessageQueue.h"
#include "tools/MidiBytes.h"
#include "tools/MidiFile.h"
#include "tools/Pacing.h"
#include "tools/Ports.h"
#include "tools/Statistics.h"
#include "tools/Text.h"
#include "tools/Words.h"

#include <gtest/gtest.h>

#include <functional>

static QByteArray bytes(const char* text)
{
    return QByteArray::fromHex(text);
}

// What a refused input is told, and with which status.
static Failure failureOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const Failure& failure) {
        return failure;
    }
    return {ExitStatus::Done, QString()};
}

static void expectBadData(const std::function<void()>& action, const char* fragment)
{
    const Failure failure = failureOf(action);
    EXPECT_EQ(failure.status, ExitStatus::BadData);
    EXPECT_TRUE(failure.message.contains(QString::fromUtf8(fragment)))
        << failure.message.toStdString();
}

// --- Hexadecimal text

TEST(Hex, TakesBytesApartOrJoinedInAnyCase)
{
    EXPECT_EQ(parseHex({"F0", "7d10", "f7"}), bytes("f07d10f7"));
    EXPECT_EQ(parseHex({" F0 7D\t10 F7 "}), bytes("f07d10f7"));
    EXPECT_EQ(parseHex({}), QByteArray());
}

TEST(Hex, RefusesAnOddDigitWithItsOffset)
{
    expectBadData([] { parseHex({"F0", "7"}); }, "Odd hexadecimal digit at offset 3");
    expectBadData([] { parseHex({"F07", "10"}); }, "at offset 2");
}

TEST(Hex, RefusesAnythingElseWithItsOffset)
{
    expectBadData([] { parseHex({"F0", "G0"}); }, "\"G\" is not a hexadecimal digit, at offset 3");
    expectBadData([] { parseHex({"F-"}); }, "at offset 1");
    expectBadData([] { parseHex({"+F"}); }, "at offset 0");
    expectBadData([] { parseHex({QString::fromUtf8("٣")}); }, "at offset 0");
}

TEST(Hex, NamesAWholeCharacterBeyondThoseOfOneUnit)
{
    expectBadData(
        [] {
            parseHex({"F0", QString::fromUtf8("🎹")});
        },
        "\"🎹\" is not a hexadecimal digit, at offset 3 of \"F0 🎹\".");
    expectBadData([] { parseHex({QString(QChar(0xD83C))}); },
                  "is not a hexadecimal digit, at offset 0");
}

// --- Messages

TEST(Messages, AreSplitByTheirStatusBytes)
{
    const QVector<QByteArray> expected = {bytes("903c64"), bytes("c505"), bytes("f07d10f7"),
                                          bytes("f21020"), bytes("f305"), bytes("f8")};
    EXPECT_EQ(splitMessages(bytes("903c64c505f07d10f7f21020f305f8")), expected);
}

TEST(Messages, MustBeComplete)
{
    expectBadData([] { splitMessages(bytes("903c64903c")); }, "cut off, at offset 3");
    expectBadData([] { splitMessages(bytes("90f8")); }, "F8 in place of a data byte at offset 1");
    expectBadData([] { splitMessages(bytes("f07d10")); }, "No F7");
}

TEST(Messages, NeedAStatusByteOfTheirOwn)
{
    expectBadData([] { splitMessages(bytes("903c643d64")); },
                  "3D does not begin a message, at offset 3");
    expectBadData([] { splitMessages(bytes("f7")); }, "F7 does not begin a message, at offset 0");
}

// --- .syx files

TEST(SysExFile, IsSplitAtEveryF7)
{
    const QVector<QByteArray> expected = {bytes("f07d10f7"), bytes("f0f7"), bytes("f07d7ff7")};
    EXPECT_EQ(splitSysEx(bytes("f07d10f7f0f7f07d7ff7")), expected);
    EXPECT_TRUE(splitSysEx(QByteArray()).isEmpty());
}

TEST(SysExFile, MayHaveNothingOutsideOfItsMessages)
{
    expectBadData([] { splitSysEx(bytes("00f07d10f7")); }, "00 is outside F0 … F7, at offset 0");
    expectBadData([] { splitSysEx(bytes("f07d10f70af07df7")); },
                  "0A is outside F0 … F7, at offset 4");
    expectBadData([] { splitSysEx(bytes("f07df7903c64")); }, "90 is outside F0 … F7, at offset 3");
}

TEST(SysExFile, PaddingMayBeSkippedAndIsCounted)
{
    int padding = 0;
    const QVector<QByteArray> expected = {bytes("f07d10f7"), bytes("f07d11f7")};
    EXPECT_EQ(splitSysEx(bytes("00f07d10f70d0a00f07d11f70000"), &padding), expected);
    EXPECT_EQ(padding, 6);
    expectBadData([&] { splitSysEx(bytes("f07d10f701"), &padding); }, "01 is outside");
    expectBadData([&] { splitSysEx(bytes("f07d10f7f7"), &padding); }, "F7 is outside");
}

TEST(SysExFile, MustEndItsMessages)
{
    expectBadData([] { splitSysEx(bytes("f07d10f7f07d")); },
                  "No F7 ends the SysEx message that begins at offset 4");
    expectBadData([] { splitSysEx(bytes("f07d10f07d10f7")); },
                  "Status byte F0 within the SysEx message that begins at 0, at offset 3");
}

TEST(SysExFile, OffsetsOfLargeFilesAreGivenInBothBases)
{
    QByteArray file(10000, '\x01');
    file[0] = '\xF0';
    file[9999] = '\xF7';
    expectBadData([=] { splitSysEx(file + '\x01'); }, "at offset 10,000 (0x2710)");
}

// --- What arrives

TEST(Received, WholeSysExHasNothingButDataBytesWithin)
{
    EXPECT_TRUE(isWholeSysEx(bytes("f07d10f7")));
    EXPECT_TRUE(isWholeSysEx(bytes("f0f7")));
    EXPECT_FALSE(isWholeSysEx(bytes("f07d10")));
    EXPECT_FALSE(isWholeSysEx(bytes("f07df07d10f7")));
    EXPECT_FALSE(isWholeSysEx(bytes("7d10f7")));
    EXPECT_FALSE(isWholeSysEx(bytes("f0")));
    EXPECT_FALSE(isWholeSysEx(QByteArray()));
}

TEST(Received, RealTimeMessagesAreTakenOutOfSysExWithTheirPadding)
{
    EXPECT_EQ(withoutRealTime(bytes("f07df800000010fe000000f7")), bytes("f07d10f7"));
    EXPECT_EQ(withoutRealTime(bytes("f07d000000f7")), bytes("f07d000000f7"));
    EXPECT_EQ(withoutRealTime(bytes("f07df81000f7")), bytes("f07df81000f7"))
        << "no padding: kept as it came";
}

// --- Between the thread that receives and the one that prints

using std::chrono::milliseconds;

static const MessageQueue::time_point kStart{};

static void push(MessageQueue* queue, const char* text, MessageQueue::time_point time = kStart)
{
    const QByteArray message = bytes(text);
    queue->push(message.constData(), static_cast<int>(message.size()), time);
}

TEST(Queue, GivesMessagesInOrderWithTheirTimes)
{
    MessageQueue queue(1000);
    push(&queue, "903c64", kStart + milliseconds(1));
    push(&queue, "f0f7", kStart + milliseconds(2));
    ReceivedMessage message;
    ASSERT_TRUE(queue.take(&message, kStart));
    EXPECT_EQ(message.bytes, bytes("903c64"));
    EXPECT_EQ(message.time, kStart + milliseconds(1));
    ASSERT_TRUE(queue.take(&message, kStart));
    EXPECT_EQ(message.bytes, bytes("f0f7"));
    EXPECT_FALSE(queue.take(&message, kStart));
    EXPECT_EQ(queue.lost().messages, 0);
}

TEST(Queue, DropsAndCountsWhatComesWhenItIsFull)
{
    MessageQueue queue(2 * MessageQueue::kMessageCost);
    push(&queue, "903c64");
    push(&queue, "f07df7"); // with this one it is full
    push(&queue, "f07d01f7");
    push(&queue, "c505");
    EXPECT_EQ(queue.lost().messages, 2);
    EXPECT_EQ(queue.lost().bytes, 6);

    ReceivedMessage message;
    ASSERT_TRUE(queue.take(&message, kStart));
    push(&queue, "d140");
    EXPECT_EQ(queue.lost().messages, 2) << "there is room again";
    ASSERT_TRUE(queue.take(&message, kStart));
    EXPECT_EQ(message.bytes, bytes("f07df7"));
    ASSERT_TRUE(queue.take(&message, kStart));
    EXPECT_EQ(message.bytes, bytes("d140"));
}

TEST(Queue, AMessageLargerThanAllItsRoomIsTaken)
{
    MessageQueue queue(1000);
    push(&queue, "903c64");
    const QByteArray large(5000, '\x01');
    queue.push(large.constData(), 5000, kStart);
    EXPECT_EQ(queue.lost().messages, 0);
    ReceivedMessage message;
    queue.take(&message, kStart);
    ASSERT_TRUE(queue.take(&message, kStart));
    EXPECT_EQ(message.bytes, large);
}

TEST(Queue, WhatComesAtItsEndOrLaterIsNeitherTakenNorLost)
{
    MessageQueue queue(MessageQueue::kMessageCost);
    queue.endAt(kStart + milliseconds(10));
    queue.endAt(kStart + milliseconds(20)); // the earlier one counts
    push(&queue, "c501", kStart + milliseconds(9));
    push(&queue, "c502", kStart + milliseconds(10));
    push(&queue, "c503", kStart + milliseconds(11));
    ReceivedMessage message;
    ASSERT_TRUE(queue.take(&message, kStart));
    EXPECT_EQ(message.bytes, bytes("c501"));
    EXPECT_FALSE(queue.take(&message, kStart));
    EXPECT_EQ(queue.lost().messages, 0);
}

TEST(Queue, WithoutMemoryAMessageIsLost)
{
    MessageQueue queue(1000 * 1000);
    const int pushed = 1000; // more than any block of the queue's has room for
    {
        const OutOfMemory nowhere;
        for (int i = 0; i < pushed; ++i)
            queue.push("\xC5\x05", 2, kStart);
    }
    EXPECT_GT(queue.lost().messages, 0);
    ReceivedMessage message;
    int taken = 0;
    while (queue.take(&message, kStart)) {
        EXPECT_EQ(message.bytes, bytes("c505"));
        ++taken;
    }
    EXPECT_EQ(taken + queue.lost().messages, pushed);
    EXPECT_EQ(queue.lost().bytes, 2 * queue.lost().messages);
}

// --- Decoding

TEST(Text, NamesEveryChannelMessage)
{
    EXPECT_EQ(toText(bytes("803c40")), "Note Off ch 1 C4 velocity 64");
    EXPECT_EQ(toText(bytes("903c64")), "Note On ch 1 C4 velocity 100");
    EXPECT_EQ(toText(bytes("af3d10")), "Key Pressure ch 16 C#4 pressure 16");
    EXPECT_EQ(toText(bytes("b0077f")), "Control Change ch 1 7 Volume value 127");
    EXPECT_EQ(toText(bytes("b00301")), "Control Change ch 1 3 value 1");
    EXPECT_EQ(toText(bytes("c505")), "Program Change ch 6 program 5");
    EXPECT_EQ(toText(bytes("d140")), "Channel Pressure ch 2 pressure 64");
    EXPECT_EQ(toText(bytes("e00040")), "Pitch Bend ch 1 value 0");
    EXPECT_EQ(toText(bytes("e00000")), "Pitch Bend ch 1 value -8192");
    EXPECT_EQ(toText(bytes("e07f7f")), "Pitch Bend ch 1 value 8191");
}

TEST(Text, PaddingIsNotPartOfAChannelMessage)
{
    EXPECT_EQ(trimmed(bytes("903c6400")), bytes("903c64"));
    EXPECT_EQ(trimmed(bytes("c5050000")), bytes("c505"));
    EXPECT_EQ(trimmed(bytes("f07d00f7")), bytes("f07d00f7"));
    EXPECT_EQ(toText(bytes("c5050000")), "Program Change ch 6 program 5");
}

TEST(Text, SysExTellsLengthManufacturerAndFirstBytes)
{
    EXPECT_EQ(toText(bytes("f07d10f7")),
              "SysEx 4 bytes, manufacturer 7D (non-commercial), F0 7D 10 F7");
    EXPECT_EQ(toText(bytes("f000112233f7")),
              "SysEx 6 bytes, manufacturer 00 11 22, F0 00 11 22 33 F7");
    EXPECT_EQ(toText(bytes("f0f7")), "SysEx 2 bytes, no manufacturer, F0 F7");
    QByteArray large(10000, '\x01');
    large[0] = '\xF0';
    large[9999] = '\xF7';
    EXPECT_EQ(toText(large), QString::fromUtf8("SysEx 10,000 bytes, manufacturer 01 (Sequential), "
                                               "F0 01 01 01 01 01 01 01 01 01 01 01 …"));
}

TEST(Text, WhatIsNoMessageIsShownAsBytes)
{
    EXPECT_EQ(toText(bytes("90")), "Bytes 90");
    EXPECT_EQ(toText(bytes("0102")), "Bytes 01 02");
    EXPECT_EQ(toText(QByteArray()), "Bytes ");
}

TEST(Text, NotesCountFromTheOctaveBelowZero)
{
    EXPECT_EQ(noteName(0), "C-1");
    EXPECT_EQ(noteName(127), "G9");
}

TEST(Json, NoteHasItsValuesByName)
{
    const QJsonObject expected = {{"type", "note_on"}, {"channel", 1},    {"note", 60},
                                  {"name", "C4"},      {"velocity", 100}, {"bytes", "90 3C 64"}};
    EXPECT_EQ(toJson(bytes("903c6400")), expected);
}

TEST(Json, ControllersWithoutANameHaveNone)
{
    const QJsonObject volume = {{"type", "control_change"}, {"channel", 2}, {"controller", 7},
                                {"name", "Volume"},         {"value", 1},   {"bytes", "B1 07 01"}};
    const QJsonObject nameless = {{"type", "control_change"},
                                  {"channel", 2},
                                  {"controller", 3},
                                  {"value", 1},
                                  {"bytes", "B1 03 01"}};
    EXPECT_EQ(toJson(bytes("b10701")), volume);
    EXPECT_EQ(toJson(bytes("b10301")), nameless);
}

TEST(Json, SysExHasAllItsBytes)
{
    const QJsonObject expected = {
        {"type", "sysex"}, {"length", 5}, {"manufacturer", "45"}, {"bytes", "F0 45 10 20 F7"}};
    EXPECT_EQ(toJson(bytes("f0451020f7")), expected) << "a maker without a name";
    EXPECT_EQ(toJson(bytes("f0411020f7")).value("manufacturer_name"), QString("Roland"));
}

// --- Ports

static const QUuid kFirst("{11111111-1111-1111-1111-111111111111}");
static const QUuid kSecond("{22222222-2222-2222-2222-222222222222}");
static const QUuid kThird("{33333333-3333-3333-3333-333333333333}");

static const QVector<Port> kPorts = {
    {1, "Synth", kThird}, {2, "Twin", kFirst}, {10, "Twin", kSecond}};

TEST(Ports, AreOrderedByNumberAndNamedInFull)
{
    const QVector<Port> ports = portsOf({{kFirst, "10;B"}, {kSecond, "2;A;x"}, {kThird, "3;"}});
    ASSERT_EQ(ports.size(), 3);
    EXPECT_EQ(ports[0].number, 2);
    EXPECT_EQ(ports[0].name, "A;x");
    EXPECT_EQ(ports[0].id, kSecond);
    EXPECT_EQ(ports[1].number, 3);
    EXPECT_EQ(ports[1].name, "");
    EXPECT_EQ(ports[2].number, 10);
}

TEST(Ports, AreFoundByIdentifierNumberAndUniqueName)
{
    EXPECT_EQ(findPort(kPorts, kSecond.toString(), false).number, 10);
    EXPECT_EQ(findPort(kPorts, kSecond.toString(QUuid::WithoutBraces).toUpper(), false).number, 10);
    EXPECT_EQ(findPort(kPorts, "10", false).id, kSecond);
    EXPECT_EQ(findPort(kPorts, "Synth", false).id, kThird);
}

TEST(Ports, AreFoundByAUniquePartOfTheNameInAnyCase)
{
    const QVector<Port> ports = {
        {1, "Big Synth", kFirst}, {2, "synth", kSecond}, {3, "Größe", kThird}};
    EXPECT_EQ(findPort(ports, "big", false).number, 1);
    EXPECT_EQ(findPort(ports, "SYNTH", false).number, 2) << "a whole name counts more";
    EXPECT_EQ(findPort(ports, QString::fromUtf8("GRÖ"), false).number, 3);
    const Failure failure = failureOf([&] { findPort(ports, "Syn", false); });
    EXPECT_EQ(failure.status, ExitStatus::NoSuchPort);
    EXPECT_EQ(failure.message.count('\n'), 2) << "both are listed";
}

TEST(Ports, TheNullIdentifierIsOneLikeAnyOther)
{
    const QVector<Port> ports = {{1, "", kFirst}, {2, "Synth", QUuid()}};
    EXPECT_EQ(findPort(ports, "{00000000-0000-0000-0000-000000000000}", false).number, 2);
    EXPECT_EQ(findPort(ports, "00000000-0000-0000-0000-000000000000", false).number, 2);
    EXPECT_EQ(findPort(ports, "", false).number, 1) << "no identifier: the name";
}

TEST(Ports, ANumberIsAlsoANameWhereNoPortHasThatNumber)
{
    EXPECT_EQ(findPort({{1, "303", kFirst}}, "303", false).id, kFirst);
    EXPECT_EQ(findPort({{1, "2", kFirst}, {2, "1", kSecond}}, "2", false).id, kSecond);
}

TEST(Ports, AnAmbiguousNameListsItsCandidates)
{
    const Failure failure = failureOf([] { findPort(kPorts, "Twin", true); });
    EXPECT_EQ(failure.status, ExitStatus::NoSuchPort);
    EXPECT_TRUE(failure.message.startsWith("More than one output matches \"Twin\""));
    EXPECT_TRUE(failure.message.contains(kFirst.toString()));
    EXPECT_TRUE(failure.message.contains(kSecond.toString()));
    EXPECT_FALSE(failure.message.contains(kThird.toString()));
}

TEST(Ports, AnUnknownOneListsAll)
{
    for (const char* text : {"Piano", "3", "0", "", "{44444444-4444-4444-4444-444444444444}"}) {
        const Failure failure = failureOf([=] { findPort(kPorts, text, false); });
        EXPECT_EQ(failure.status, ExitStatus::NoSuchPort) << text;
        EXPECT_TRUE(failure.message.contains("These are the inputs")) << text;
        EXPECT_EQ(failure.message.count('\n'), 3) << text;
    }
    EXPECT_TRUE(
        failureOf([] { findPort({}, "1", false); }).message.contains("no MIDI input at all"));
}

TEST(Ports, ControlCharactersOfANameDoNotReachTheTerminal)
{
    const Port port = {1, "A\r\n\033[31mB", kFirst};
    EXPECT_EQ(describe(port, false), QString::fromUtf8("input 1 \"A\uFFFD\uFFFD\uFFFD[31mB\""));
    const Failure failure = failureOf([=] { findPort({port}, "2", false); });
    EXPECT_TRUE(failure.message.endsWith(QString::fromUtf8("  A\uFFFD\uFFFD\uFFFD[31mB")));
    EXPECT_EQ(findPort({port}, port.name, false).id, kFirst) << "the name itself is as it was";
}

// --- Pacing

TEST(Pacing, ChunksAreOf4096Bytes)
{
    EXPECT_EQ(chunksOf(10000), (QVector<int>{4096, 4096, 1808}));
    EXPECT_EQ(chunksOf(4096), (QVector<int>{4096}));
    EXPECT_EQ(chunksOf(4097), (QVector<int>{4096, 1}));
    EXPECT_EQ(chunksOf(0), QVector<int>());
}

TEST(Pacing, WireTimeIsRoundedUp)
{
    EXPECT_EQ(wireMs(3125), 1000);
    EXPECT_EQ(wireMs(1), 1);
    EXPECT_EQ(wireMs(0), 0);
    EXPECT_EQ(sendMs(10000), 3200 + 2 * 100);
    EXPECT_EQ(replyMs(10000), 2 * 3400 + 2000);
}

TEST(WireQueue, AnEmptyOneIsThroughAtOnce)
{
    EXPECT_LE(WireQueue().emptyAt(), 0);
    EXPECT_EQ(WireQueue().bytesLeft(5), 0);
}

TEST(WireQueue, ShortMessagesAddUp)
{
    WireQueue queue;
    queue.sent(3125, 0);
    queue.sent(3125, 500);
    EXPECT_EQ(queue.emptyAt(), 2000);
    EXPECT_EQ(queue.bytesLeft(1000), 3125);
    EXPECT_EQ(queue.bytesLeft(2500), 0);
}

TEST(WireQueue, AnIdleWireStartsAnew)
{
    WireQueue queue;
    queue.sent(3125, 0);
    queue.sent(3125, 10000);
    EXPECT_EQ(queue.emptyAt(), 11000);
}

TEST(WireQueue, OfALongMessageOnlyTheLastChunkIsLeft)
{
    WireQueue queue;
    queue.sent(3125, 0);
    queue.sent(2 * kChunkBytes + 3125, 9000);
    EXPECT_EQ(queue.emptyAt(), 10000);
}

TEST(WireQueue, NoMoreThanEightChunksAreOnTheirWay)
{
    WireQueue queue;
    for (int i = 0; i < 100; ++i)
        queue.sent(3125, 50); // a port much faster than the wire
    EXPECT_EQ(queue.emptyAt(), 50 + 8 * 1000);
}

// --- What the user asks of the pace

static Pace paceOf(int gap, int chunk, int rate)
{
    Pace pace;
    pace.gap = gap;
    pace.chunk = chunk;
    pace.rate = rate;
    return pace;
}

TEST(Pacer, WithoutAWishMessagesFollowAtOnce)
{
    Pacer pacer{Pace()};
    pacer.sent(3125, true, 0, 5);
    EXPECT_EQ(pacer.nextAt(), 5);
}

TEST(Pacer, AGapIsSilenceOnTheWire)
{
    Pacer pacer(paceOf(300, 0, 0));
    pacer.sent(3125, true, 0, 5);
    EXPECT_EQ(pacer.nextAt(), 5 + 1000 + 300);
    Pacer threeAtOnce(paceOf(300, 0, 0));
    for (int i = 0; i < 3; ++i)
        threeAtOnce.sent(3125, true, 0, 0);
    EXPECT_EQ(threeAtOnce.nextAt(), 3000 + 300);
}

TEST(Pacer, ALongMessageIsHandedOverInPiecesOfSixteenChunks)
{
    EXPECT_EQ(Pacer{Pace()}.pieceBytes(), 16 * 4096);
}

TEST(Pacer, BetweenPiecesThePauseOfTheLibraryIsKept)
{
    Pacer slow{Pace()}; // chunks that take as long as on the wire
    slow.sent(2 * kChunkBytes, false, 0, wireMs(kChunkBytes) + kPauseMs);
    EXPECT_EQ(slow.nextAt(), wireMs(kChunkBytes) + kPauseMs + wireMs(kChunkBytes) + kPauseMs);
    Pacer fast{Pace()}; // chunks that take 10 ms
    fast.sent(11 * kChunkBytes, false, 0, 10 * (10 + kPauseMs));
    EXPECT_EQ(fast.nextAt(), 10 * (10 + kPauseMs) + 2 * 10 + kDriverMs + kPauseMs);
}

TEST(Pacer, ChunksHaveThePauseOfTheLibraryBetweenThem)
{
    Pacer pacer(paceOf(0, 625, 0));
    EXPECT_EQ(pacer.pieceBytes(), 625);
    pacer.sent(625, false, 0, 2);
    EXPECT_EQ(pacer.nextAt(), 2 + 200 + 100);
    pacer.sent(10, true, 302, 303);
    EXPECT_EQ(pacer.nextAt(), 303) << "the next message may follow";
}

TEST(Pacer, ARateHoldsWithinMessagesAndBetweenThem)
{
    Pacer pacer(paceOf(0, 0, 1000));
    EXPECT_EQ(pacer.pieceBytes(), 100) << "what it gives in 100 ms";
    pacer.sent(100, false, 0, 1);
    EXPECT_EQ(pacer.nextAt(), 100);
    pacer.sent(50, true, 100, 101);
    EXPECT_EQ(pacer.nextAt(), 150);
    EXPECT_EQ(Pacer(paceOf(0, 0, 1)).pieceBytes(), 1);
    EXPECT_EQ(Pacer(paceOf(0, 0, 1000000)).pieceBytes(), 4096);
    EXPECT_EQ(Pacer(paceOf(0, 256, 1000)).pieceBytes(), 256);
}

TEST(Pacer, AboveWireSpeedOnlyTheRateCounts)
{
    Pacer pacer(paceOf(0, 0, 31250));
    pacer.sent(3125, false, 0, 0);
    EXPECT_EQ(pacer.nextAt(), 100);
}

TEST(Progress, ExpectsWireTimePausesAndGaps)
{
    const auto expected = [](const QVector<int>& messages, const Pace& pace) {
        return Progress(messages, pace).leftMs(0);
    };
    EXPECT_EQ(expected({10000}, paceOf(500, 0, 0)), 3400);
    EXPECT_EQ(expected({3125, 3125, 3125}, paceOf(500, 0, 0)), 3000 + 2 * 500);
    EXPECT_EQ(expected({3125}, paceOf(0, 625, 0)), 1000 + 4 * 100);
    EXPECT_EQ(expected({3000}, paceOf(0, 0, 1000)), 3000);
    EXPECT_EQ(expected({}, paceOf(500, 0, 0)), 0);
    EXPECT_EQ(Progress({3125, 3125, 3125}, Pace()).totalBytes(), 9375);
}

TEST(Progress, WithinAPieceFollowsTheWireAndStandsStillInPauses)
{
    Progress progress({10000}, Pace());
    progress.begin(10000, 0);
    EXPECT_EQ(progress.bytesThrough(0), 0);
    EXPECT_EQ(progress.bytesThrough(1000), 3125);
    EXPECT_EQ(progress.bytesThrough(1311), 4096);
    EXPECT_EQ(progress.bytesThrough(1411), 4096);
    EXPECT_EQ(progress.bytesThrough(1411 + 1000), 4096 + 3125);
    EXPECT_EQ(progress.bytesThrough(60000), 9999)
        << "the last byte is only known to be sent at the end";
}

TEST(Progress, APieceWaitsForThoseInFrontOfIt)
{
    Progress progress({3125, 3125}, Pace());
    progress.begin(3125, 0);
    progress.end(0);
    progress.begin(3125, 0);
    EXPECT_EQ(progress.bytesThrough(500), 1563);
    EXPECT_EQ(progress.bytesThrough(1500), 3125 + 1562);
}

TEST(Progress, LearnsTheRateOfThePort)
{
    // 16,384,000 bytes in pieces of 16 chunks to a port that is done with each chunk at once.
    const int pieces = 250;
    Progress progress({pieces * kPieceBytes}, Pace());
    EXPECT_GT(progress.leftMs(0), 90 * 60 * 1000) << "at wire speed";
    progress.begin(kPieceBytes, 0);
    progress.end(1500);
    EXPECT_GT(progress.leftMs(1500), 6 * 60 * 1000);
    EXPECT_LT(progress.leftMs(1500), 8 * 60 * 1000);
    EXPECT_GT(progress.bytesThrough(1600), progress.bytesThrough(1500)) << "goes on meanwhile";
    for (int piece = 1; piece < pieces; ++piece) {
        progress.begin(kPieceBytes, piece * 1700);
        progress.end(piece * 1700 + 1500);
    }
    EXPECT_LT(progress.leftMs(pieces * 1700), 1000);
}

TEST(Progress, DoesNotLearnFromWhatIsOnlyQueued)
{
    Progress progress({1000, 1000, 1000}, Pace());
    progress.begin(1000, 0);
    progress.end(1);
    progress.begin(1000, 1);
    progress.end(2);
    EXPECT_NEAR(double(progress.leftMs(2)), 960, 5);
}

TEST(Progress, LineTellsPercentBytesAndTimeLeft)
{
    Progress progress({10000}, Pace());
    EXPECT_EQ(progress.line(0, 79), "[--------------------]   0 %  0 of 10,000 bytes  0:04 left");
    progress.begin(10000, 0);
    EXPECT_EQ(progress.line(800, 79),
              "[#####---------------]  25 %  2,500 of 10,000 bytes  0:03 left");
}

TEST(Progress, LineKeepsTheTimeLeftInANarrowTerminal)
{
    Progress progress({10000}, Pace());
    progress.begin(10000, 0);
    EXPECT_EQ(progress.line(800, 49), "[#------]  25 %  2,500 of 10,000 bytes  0:03 left");
    EXPECT_EQ(progress.line(800, 39), "[#####---------------]  25 %  0:03 left");
    EXPECT_EQ(progress.line(800, 30), "[##---------]  25 %  0:03 left");
    EXPECT_EQ(progress.line(800, 20), " 25 %  0:03 left");
    EXPECT_EQ(progress.line(800, 5), " 25 %");
    EXPECT_EQ(progress.line(800, 0), "");
}

// --- Messages in words

static QVector<QByteArray> words(const char* text)
{
    return parseMessages(QString::fromUtf8(text).split(QLatin1Char(' ')));
}

TEST(Words, NameEveryChannelMessage)
{
    EXPECT_EQ(words("on 60 100"), QVector<QByteArray>{bytes("903c64")});
    EXPECT_EQ(words("off 60 1"), QVector<QByteArray>{bytes("803c01")});
    EXPECT_EQ(words("pp C4 16"), QVector<QByteArray>{bytes("a03c10")});
    EXPECT_EQ(words("cc 7 127"), QVector<QByteArray>{bytes("b0077f")});
    EXPECT_EQ(words("pc 5"), QVector<QByteArray>{bytes("c005")});
    EXPECT_EQ(words("cp 64"), QVector<QByteArray>{bytes("d040")});
    EXPECT_EQ(words("pb 8192"), QVector<QByteArray>{bytes("e00040")});
    EXPECT_EQ(words("pb 16383"), QVector<QByteArray>{bytes("e07f7f")});
    EXPECT_EQ(words("pb 1"), QVector<QByteArray>{bytes("e00100")});
}

TEST(Words, AVelocityMayLack)
{
    const QVector<QByteArray> expected = {bytes("903c40"), bytes("803c40"), bytes("f8")};
    EXPECT_EQ(words("on C4 off C4 F8"), expected);
}

TEST(Words, AChannelIsThatOfTheWordsBehindIt)
{
    const QVector<QByteArray> expected = {bytes("c005"), bytes("c105"), bytes("b10701"),
                                          bytes("cf05")};
    EXPECT_EQ(words("pc 5 ch 2 pc 5 cc 7 1 ch 16 pc 5"), expected);
}

TEST(Words, StandBesideHexadecimalBytes)
{
    const QVector<QByteArray> expected = {bytes("f07d10f7"), bytes("903c64"), bytes("b0077f"),
                                          bytes("cc05")};
    EXPECT_EQ(words("F0 7D10 f7 ON 60 100 B0 07 7F CC 05"), expected);
    EXPECT_EQ(parseMessages({"on 60", "100"}), QVector<QByteArray>{bytes("903c64")});
}

TEST(Words, PanicEndsAllNotesAndSoundOnEveryChannel)
{
    const QVector<QByteArray> messages = words("panic");
    ASSERT_EQ(messages.size(), 32);
    EXPECT_EQ(messages.at(0), bytes("b07b00"));
    EXPECT_EQ(messages.at(1), bytes("b07800"));
    EXPECT_EQ(messages.at(30), bytes("bf7b00"));
    EXPECT_EQ(messages.at(31), bytes("bf7800"));
}

TEST(Words, NotesHaveNames)
{
    EXPECT_EQ(noteNumber("C4"), 60);
    EXPECT_EQ(noteNumber("c4"), 60);
    EXPECT_EQ(noteNumber("C-1"), 0);
    EXPECT_EQ(noteNumber("G9"), 127);
    EXPECT_EQ(noteNumber("A4"), 69);
    EXPECT_EQ(noteNumber("B3"), 59);
    EXPECT_EQ(noteNumber("C#4"), 61);
    EXPECT_EQ(noteNumber("Db4"), 61);
    EXPECT_EQ(noteNumber("bb4"), 70);
    EXPECT_EQ(noteNumber("Cb4"), 59);
    EXPECT_EQ(noteNumber("127"), 127);
    for (const char* text : {"128", "-1", "H4", "C", "C10", "G#9", "Cb-1", "C##4", "", "4C"})
        EXPECT_EQ(noteNumber(text), -1) << text;
    for (int note = 0; note < 128; ++note)
        EXPECT_EQ(noteNumber(noteName(note)), note);
}

TEST(Words, AreRefusedWithTheWordThatIsWrong)
{
    expectBadData([] { words("on H4 100"); }, "\"H4\" after \"on\" is not a note: 0 to 127");
    expectBadData([] { words("on 60 128"); },
                  "\"128\" after \"on\" is not a number from 0 to 127.");
    expectBadData([] { words("pc %1"); }, "\"%1\" after \"pc\" is not a number from 0 to 127.");
    expectBadData([] { words("cc 7"); }, "A number is missing after \"cc\".");
    expectBadData([] { words("on"); }, "A note is missing after \"on\".");
    expectBadData([] { words("ch 17 pc 1"); }, "\"17\" after \"ch\" is not a number from 1 to 16.");
    expectBadData([] { words("pb 16384"); }, "is not a number from 0 to 16383.");
    expectBadData([] { words("cc 07 F8"); }, "(The byte CC is written in capital letters.)");
    expectBadData([] { words("on 60 100 64"); }, "64 does not begin a message, at offset 0");
    expectBadData([] { words("onn 60"); }, "\"o\" is not a hexadecimal digit");
}

// --- MIDI files

static QByteArray chunk(const char* type, const QByteArray& content)
{
    QByteArray length(4, '\0');
    for (int i = 0; i < 4; ++i)
        length[i] = static_cast<char>(content.size() >> (24 - 8 * i));
    return QByteArray(type) + length + content;
}

static QByteArray midiFile(int format, const QVector<QByteArray>& tracks)
{
    QByteArray file = bytes("000000000060");
    file[1] = static_cast<char>(format);
    file[3] = static_cast<char>(tracks.size());
    file = chunk("MThd", file);
    for (const QByteArray& track : tracks)
        file += chunk("MTrk", track);
    return file;
}

TEST(MidiFile, IsKnownByItsBeginning)
{
    EXPECT_TRUE(isMidiFile("MThd"));
    EXPECT_FALSE(isMidiFile("MTh"));
    EXPECT_FALSE(isMidiFile(bytes("f07df7")));
}

TEST(MidiFile, SysExIsFoundAmongOtherEvents)
{
    // A tempo, a note with running status behind it, SysEx, a program change, SysEx, the end.
    const QByteArray track = bytes("00ff510307a120"
                                   "00903c64"
                                   "60"
                                   "3c00"
                                   "00f0037d10f7"
                                   "8148c005"
                                   "00f0057d010203f7"
                                   "00ff2f00");
    const QVector<QByteArray> expected = {bytes("f07d10f7"), bytes("f07d010203f7")};
    EXPECT_EQ(sysExOfMidiFile(midiFile(0, {track})), expected);
}

TEST(MidiFile, TracksOfFormat1PlayAtTheSameTime)
{
    const QByteArray first = bytes("00f0027d01f7"
                                   "00"
                                   "ff2f00");
    const QByteArray one = bytes("0af0037d01f7"
                                 "14f0037d03f7"
                                 "00ff2f00");
    const QByteArray two = bytes("14f0037d02f7"
                                 "00ff2f00");
    const QVector<QByteArray> expected = {bytes("f07d01f7"), bytes("f07d02f7"), bytes("f07d03f7")};
    EXPECT_EQ(sysExOfMidiFile(midiFile(1, {one, two})), expected);
    const QVector<QByteArray> inTurn = {bytes("f07d01f7"), bytes("f07d03f7"), bytes("f07d02f7")};
    EXPECT_EQ(sysExOfMidiFile(midiFile(2, {one, two})), inTurn);
    EXPECT_EQ(failureOf([=] { sysExOfMidiFile(midiFile(1, {first})); }).status,
              ExitStatus::BadData);
}

TEST(MidiFile, PacketsAreOneMessage)
{
    const QByteArray track = bytes("00f0027d01"
                                   "05f70202"
                                   "03"
                                   "05f70104"
                                   "00f70105"
                                   "00f702"
                                   "06f7"
                                   "00ff2f00");
    EXPECT_EQ(sysExOfMidiFile(midiFile(0, {track})),
              QVector<QByteArray>{bytes("f07d010203040506f7")});
}

TEST(MidiFile, OfEscapedBytesOnlySysExIsTaken)
{
    const QByteArray track = bytes("00f701f8"
                                   "00f703f07df7"
                                   "00f703f30105"
                                   "00ff2f00");
    EXPECT_EQ(sysExOfMidiFile(midiFile(0, {track})), QVector<QByteArray>{bytes("f07df7")});
}

TEST(MidiFile, MayHaveNoSysExAndForeignChunks)
{
    EXPECT_TRUE(sysExOfMidiFile(midiFile(0, {bytes("00903c6460803c0000ff2f00")})).isEmpty());
    EXPECT_TRUE(sysExOfMidiFile(midiFile(0, {}) + chunk("XFIH", "anything")).isEmpty());
}

TEST(MidiFile, IsRefusedWhereverItIsCutOff)
{
    const QByteArray whole = midiFile(1, {bytes("00f0037d10f700ff2f00"), bytes("00ff2f00")});
    EXPECT_EQ(sysExOfMidiFile(whole).size(), 1);
    for (int length = 4; length < whole.size(); ++length) {
        const Failure failure = failureOf([&] { sysExOfMidiFile(whole.left(length)); });
        EXPECT_EQ(failure.status, ExitStatus::BadData) << length;
        EXPECT_TRUE(failure.message.startsWith("Damaged MIDI file: it is cut off")) << length;
    }
}

TEST(MidiFile, DamageIsToldWithItsOffset)
{
    const auto refusal = [](const QByteArray& track) {
        return failureOf([&] { sysExOfMidiFile(midiFile(0, {track})); }).message;
    };
    EXPECT_EQ(refusal(bytes("003c64")), "Damaged MIDI file: a data byte is where a status byte "
                                        "should be at offset 23 (0x17).");
    EXPECT_TRUE(refusal(bytes("00f0027d1000ff2f00")).contains("no F7 ends the SysEx message"));
    EXPECT_TRUE(refusal(bytes("00f0037d90f700ff2f00")).contains("a status byte is within"));
    EXPECT_TRUE(refusal(bytes("00f0017d00f0027df7")).contains("no F7 ends"));
    EXPECT_TRUE(refusal(bytes("00f400")).contains("F4 does not begin an event"));
    EXPECT_TRUE(refusal(bytes("ffffffff7f903c64")).contains("a number has more than 4 bytes"));
    EXPECT_TRUE(refusal(bytes("00f0ffffff7f7d")).contains("it is cut off"));
}

// --- Choosing messages

static bool passes(const std::function<void(Filter&)>& set, const char* message)
{
    Filter filter;
    set(filter);
    return filter.passes(bytes(message));
}

TEST(Filters, EverythingPassesAtFirst)
{
    for (const char* message : {"903c6400", "f07df7", "f8", ""})
        EXPECT_TRUE(passes([](Filter&) {}, message)) << message;
}

TEST(Filters, ChannelsPassAlone)
{
    const auto some = [](Filter& filter) { filter.setChannels("2,10-12"); };
    EXPECT_TRUE(passes(some, "913c6400"));
    EXPECT_TRUE(passes(some, "c9050000"));
    EXPECT_TRUE(passes(some, "bb077f00"));
    EXPECT_FALSE(passes(some, "903c6400"));
    EXPECT_FALSE(passes(some, "9c3c6400"));
    EXPECT_FALSE(passes(some, "f17d")) << "no channel";
}

TEST(Filters, KindsPassAlone)
{
    static const struct
    {
        const char* kind;
        QVector<const char*> messages;
    } kinds[] = {{"note", {"903c6400", "8f3c6400"}},
                 {"pressure", {"a03c6400", "d0400000"}},
                 {"cc", {"b0077f00"}},
                 {"pc", {"c0050000"}},
                 {"pb", {"e0004000"}},
                 {"sysex", {"f07df7"}}};
    for (const auto& wanted : kinds) {
        for (const auto& entry : kinds) {
            for (const char* message : entry.messages)
                EXPECT_EQ(passes([&](Filter& filter) { filter.setKinds(wanted.kind); }, message),
                          entry.kind == wanted.kind)
                    << wanted.kind << ' ' << message;
        }
    }
    EXPECT_TRUE(passes([](Filter& filter) { filter.setKinds("note,sysex"); }, "f07df7"));
}

TEST(Filters, AMakerPassesByIdentifierOrName)
{
    const auto maker = [](const char* text) {
        return [text](Filter& filter) { filter.setMaker(text); };
    };
    EXPECT_TRUE(passes(maker("41"), "f0411042f7"));
    EXPECT_FALSE(passes(maker("41"), "f0421042f7"));
    EXPECT_TRUE(passes(maker("00 20 29"), "f000202902f7"));
    EXPECT_TRUE(passes(maker("002029"), "f000202902f7"));
    EXPECT_FALSE(passes(maker("002029"), "f000202a02f7"));
    EXPECT_TRUE(passes(maker("roLand"), "f0411042f7"));
    EXPECT_FALSE(passes(maker("roland"), "f0431042f7"));
    EXPECT_FALSE(passes(maker("roland"), "903c6400"));
}

TEST(Filters, AllOfThemMustAgree)
{
    const auto both = [](Filter& filter) {
        filter.setChannels("1");
        filter.setKinds("cc");
    };
    EXPECT_TRUE(passes(both, "b0077f00"));
    EXPECT_FALSE(passes(both, "b1077f00"));
    EXPECT_FALSE(passes(both, "903c6400"));
}

TEST(Filters, WhatCannotBeReadIsWrongUsage)
{
    Filter filter;
    for (const char* text : {"", "0", "17", "1,", "2-1", "1-", "x", "1;2"})
        EXPECT_EQ(failureOf([&] { filter.setChannels(text); }).status, ExitStatus::WrongUsage)
            << text;
    for (const char* text : {"", "notes", "note,", "Note"})
        EXPECT_EQ(failureOf([&] { filter.setKinds(text); }).status, ExitStatus::WrongUsage) << text;
    for (const char* text : {"", " "})
        EXPECT_EQ(failureOf([&] { filter.setMaker(text); }).status, ExitStatus::WrongUsage) << text;
}

// --- Makers and identities

TEST(Manufacturers, AreNamedByOneByteOrThree)
{
    EXPECT_EQ(manufacturerName(bytes("41")), "Roland");
    EXPECT_EQ(manufacturerName(bytes("7d")), "non-commercial");
    EXPECT_EQ(manufacturerName(bytes("002029")), "Focusrite/Novation");
    EXPECT_EQ(manufacturerName(bytes("000041")), "Microsoft");
    for (const char* id : {"", "45", "00", "0020", "007f7f", "f0"})
        EXPECT_EQ(manufacturerName(bytes(id)), "") << id;
}

TEST(Identity, AReplyIsTakenApart)
{
    EXPECT_EQ(identityText(bytes("f07e10060241040602000001000 0f7")),
              "Device 10: maker 41 (Roland), family 772, model 2, version 00 01 00 00");
    EXPECT_EQ(identityText(bytes("f07e7f06020020290102030405060708f7")),
              "Device 7F (any): maker 00 20 29 (Focusrite/Novation), family 257, model 515, "
              "version 05 06 07 08");
}

TEST(Identity, NothingElseIsOne)
{
    for (const char* message : {"f07e7f0601f7", "f07e10060241f7", "f07f100602410406020000010000f7",
                                "f07e1006024104060200000100f7", "f07e100602f7", "f0f7", "903c64"})
        EXPECT_EQ(identityText(bytes(message)), "") << message;
}

// --- Small things

TEST(Statistics, PercentileIsTheNearestRank)
{
    QVector<double> values;
    for (int i = 1; i <= 100; ++i)
        values.append(i);
    EXPECT_EQ(percentile(values, 50), 50);
    EXPECT_EQ(percentile(values, 99), 99);
    EXPECT_EQ(percentile(values, 100), 100);
    EXPECT_EQ(percentile({7}, 50), 7);
    EXPECT_EQ(percentile({1, 2}, 50), 1);
}

TEST(Wording, ADumpHasOffsetsAndCharacters)
{
    EXPECT_EQ(hexDump(bytes("f07d48656c6c6ff7")),
              "  000000  F0 7D 48 65 6C 6C 6F F7                           .}Hello.\n");
    EXPECT_EQ(hexDump(QByteArray(17, 'A')),
              "  000000  41 41 41 41 41 41 41 41  41 41 41 41 41 41 41 41  AAAAAAAAAAAAAAAA\n"
              "  000010  41                                                A\n");
    EXPECT_EQ(hexDump(QByteArray()), "");
}

TEST(Wording, TextIsWrappedAtBlanks)
{
    EXPECT_EQ(wrapped("one two three", 7, 0), "one two\nthree");
    EXPECT_EQ(wrapped("one two three", 8, 2), "one two\n  three");
    EXPECT_EQ(wrapped("incomprehensible word", 5, 0), "incomprehensible\nword");
    EXPECT_EQ(wrapped("one two", 80, 4), "one two");
}

TEST(Wording, PrintableReplacesControlCharactersAlone)
{
    for (const int control : {0x00, 0x1B, 0x1F, 0x7F, 0x80, 0x9B, 0x9F})
        EXPECT_EQ(printable(QString(QChar(control))), QString::fromUtf8("\uFFFD")) << control;
    const QString name = QString::fromUtf8(" ~\u00A0Größe 鍵盤 🎹 ♫");
    EXPECT_EQ(printable(name), name);
}

TEST(Wording, PiecesPartNoSurrogatePair)
{
    const QString text = QString::fromUtf8("a🎹🎹b"); // 1 + 2 + 2 + 1 units
    EXPECT_EQ(pieceEnd(text, 0, 2), 1);
    EXPECT_EQ(pieceEnd(text, 1, 2), 3);
    EXPECT_EQ(pieceEnd(text, 0, 3), 3);
    EXPECT_EQ(pieceEnd(text, 3, 2), 5);
    EXPECT_EQ(pieceEnd(text, 5, 2), 6);
    EXPECT_EQ(pieceEnd(text, 0, 6), 6);
    EXPECT_EQ(pieceEnd(text, 0, 100), 6);
    EXPECT_EQ(pieceEnd(QString(3, QChar(0xD83C)), 0, 2), 2) << "no pair";
}

TEST(Wording, NumbersDurationsAndStops)
{
    EXPECT_EQ(grouped(1234567), "1,234,567");
    EXPECT_EQ(counted(1, "byte"), "1 byte");
    EXPECT_EQ(counted(4096, "byte"), "4,096 bytes");
    EXPECT_EQ(duration(999), "999 ms");
    EXPECT_EQ(duration(1340), "1.3 s");
    EXPECT_EQ(clockTime(1), "0:01");
    EXPECT_EQ(clockTime(335000), "5:35");
    EXPECT_EQ(sentence("File not found"), "File not found.");
    EXPECT_EQ(sentence("File not found."), "File not found.");
}
