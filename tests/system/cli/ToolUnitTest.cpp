// The parts of lumora-midi that need no MIDI.

#include "tests/unit/OutOfMemory.h"
#include "tools/Decode.h"
#include "tools/Failure.h"
#include "tools/MessageQueue.h"
#include "tools/MidiBytes.h"
#include "tools/Pacing.h"
#include "tools/Ports.h"
#include "tools/Statistics.h"
#include "tools/Text.h"

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
    expectBadData([] { parseHex({"F0", "G0"}); }, "\"G\" is no hexadecimal digit, at offset 3");
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
        "\"🎹\" is no hexadecimal digit, at offset 3 of \"F0 🎹\".");
    expectBadData([] { parseHex({QString(QChar(0xD83C))}); },
                  "is no hexadecimal digit, at offset 0");
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
    expectBadData([] { splitMessages(bytes("903c643d64")); }, "3D begins no message, at offset 3");
    expectBadData([] { splitMessages(bytes("f7")); }, "F7 begins no message, at offset 0");
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
    expectBadData([] { splitSysEx(bytes("00f07d10f7")); },
                  "00 lies outside of F0 … F7, at offset 0");
    expectBadData([] { splitSysEx(bytes("f07d10f70af07df7")); },
                  "0A lies outside of F0 … F7, at offset 4");
    expectBadData([] { splitSysEx(bytes("f07df7903c64")); },
                  "90 lies outside of F0 … F7, at offset 3");
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
    EXPECT_EQ(toText(large), QString::fromUtf8("SysEx 10,000 bytes, manufacturer 01, "
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
        {"type", "sysex"}, {"length", 5}, {"manufacturer", "7D"}, {"bytes", "F0 7D 10 20 F7"}};
    EXPECT_EQ(toJson(bytes("f07d1020f7")), expected);
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
    EXPECT_TRUE(failure.message.startsWith("More than one output is named \"Twin\""));
    EXPECT_TRUE(failure.message.contains(kFirst.toString()));
    EXPECT_TRUE(failure.message.contains(kSecond.toString()));
    EXPECT_FALSE(failure.message.contains(kThird.toString()));
}

TEST(Ports, AnUnknownOneListsAll)
{
    for (const char* text :
         {"synth", "Syn", "3", "0", "", "{44444444-4444-4444-4444-444444444444}"}) {
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

TEST(Progress, ExpectsWireTimePausesAndGaps)
{
    EXPECT_EQ(Progress({10000}, 500).expectedMs(), 3400);
    EXPECT_EQ(Progress({3125, 3125, 3125}, 500).expectedMs(), 3000 + 2 * 500);
    EXPECT_EQ(Progress({3125, 3125, 3125}, 500).totalBytes(), 9375);
    EXPECT_EQ(Progress({}, 500).expectedMs(), 0);
}

TEST(Progress, TheRestTakesItsShareOfTheTime)
{
    const Progress progress({10000}, 0);
    EXPECT_EQ(progress.leftMs(0), 3400);
    EXPECT_EQ(progress.leftMs(5000), 1700);
    EXPECT_EQ(progress.leftMs(10000), 0);
}

TEST(Progress, WithinAMessageFollowsTheWireAndStandsStillInPauses)
{
    EXPECT_EQ(Progress::bytesThrough(10000, 0), 0);
    EXPECT_EQ(Progress::bytesThrough(10000, 1000), 3125);
    EXPECT_EQ(Progress::bytesThrough(10000, 1311), 4096);
    EXPECT_EQ(Progress::bytesThrough(10000, 1411), 4096);
    EXPECT_EQ(Progress::bytesThrough(10000, 1411 + 1000), 4096 + 3125);
    EXPECT_EQ(Progress::bytesThrough(10000, 60000), 9999)
        << "the last byte is only known to be sent at the end";
    EXPECT_EQ(Progress::bytesThrough(0, 1000), 0);
}

TEST(Progress, LineTellsPercentBytesAndTimeLeft)
{
    const Progress progress({10000}, 0);
    EXPECT_EQ(progress.line(0), "[--------------------]   0 %  0 of 10,000 bytes  0:04 left");
    EXPECT_EQ(progress.line(2500),
              "[#####---------------]  25 %  2,500 of 10,000 bytes  0:03 left");
    EXPECT_EQ(progress.line(10000),
              "[####################] 100 %  10,000 of 10,000 bytes  0:00 left");
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
