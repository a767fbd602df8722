#include "tools/MidiFile.h"

#include "tools/Failure.h"
#include "tools/MidiBytes.h"
#include "tools/Text.h"

#include <algorithm>

static const char kHeaderType[] = "MThd";
static const char kTrackType[] = "MTrk";
static const int kTypeLength = 4;
static const quint32 kHeaderLength = 6;
static const quint32 kFormatOfPieces = 2;
static const unsigned char kMeta = 0xFF;
static const unsigned char kEndOfTrack = 0x2F;

[[noreturn]] static void refuseFile(const QString& what, int offset)
{
    throw Failure{ExitStatus::BadData,
                  QStringLiteral("Damaged MIDI file: %1 at offset %2 (0x%3).")
                      .arg(what, grouped(offset), QString::number(offset, 16).toUpper())};
}

namespace {

// Parses a file, or a part of it.
class Reader
{
public:
    Reader(const QByteArray& bytes, int start, int end) : bytes(bytes), position(start), end(end) {}

    bool atEnd() const { return position == end; }
    int at() const { return position; }

    unsigned char peek() const
    {
        if (atEnd())
            refuseFile(QStringLiteral("it is cut off"), position);
        return static_cast<unsigned char>(bytes.at(position));
    }

    unsigned char byte()
    {
        const unsigned char value = peek();
        ++position;
        return value;
    }

    quint32 number(int length)
    {
        quint32 value = 0;
        for (; length > 0; --length)
            value = value << 8 | byte();
        return value;
    }

    // Seven bits per byte; the last one is below 0x80.
    quint32 variableNumber()
    {
        const int start = position;
        quint32 value = 0;
        for (int i = 0; i < 4; ++i) {
            const unsigned char next = byte();
            value = value << 7 | (next & 0x7Fu);
            if (next < 0x80)
                return value;
        }
        refuseFile(QStringLiteral("a number has more than 4 bytes"), start);
    }

    QByteArray take(quint32 length)
    {
        const int start = position;
        skip(length);
        return bytes.mid(start, position - start);
    }

    Reader part(quint32 length)
    {
        const int start = position;
        skip(length);
        return Reader(bytes, start, position);
    }

    void skip(quint32 length)
    {
        if (length > static_cast<quint32>(end - position))
            refuseFile(QStringLiteral("it is cut off, %1 are missing")
                           .arg(counted(qint64(length) - (end - position), "byte")),
                       end);
        position += static_cast<int>(length);
    }

private:
    const QByteArray& bytes;
    int position;
    int end;
};

struct Event
{
    quint64 ticks; // since the beginning
    QByteArray sysEx;
};

// Joins the packets of SysEx messages.
class Packets
{
public:
    explicit Packets(QVector<Event>* events) : events(events) {}

    void begin(const QByteArray& data, quint64 ticks, int offset)
    {
        expectNone();
        pending = QByteArray(1, static_cast<char>(kSysExStart)) + data;
        pendingAt = offset;
        finish(ticks);
    }

    // Without an unfinished message, the packet is an escape for any bytes.
    void goOn(const QByteArray& data, quint64 ticks)
    {
        if (!pending.isEmpty()) {
            pending += data;
            finish(ticks);
        } else if (isWholeSysEx(data)) {
            events->append({ticks, data});
        }
    }

    void expectNone() const
    {
        if (!pending.isEmpty())
            refuseFile(QStringLiteral("no F7 ends the SysEx message that begins"), pendingAt);
    }

private:
    void finish(quint64 ticks)
    {
        if (static_cast<unsigned char>(pending.back()) != kSysExEnd)
            return;
        if (!isWholeSysEx(pending))
            refuseFile(QStringLiteral("a status byte is within the SysEx message that begins"),
                       pendingAt);
        events->append({ticks, pending});
        pending.clear();
    }

    QVector<Event>* events;
    QByteArray pending;
    int pendingAt = 0;
};

} // namespace

static void readTrack(Reader track, QVector<Event>* events)
{
    Packets packets(events);
    unsigned char status = 0; // of the previous channel message; 0 if there was none
    quint64 ticks = 0;
    while (!track.atEnd()) {
        ticks += track.variableNumber();
        const int offset = track.at();
        unsigned char next = track.peek();
        if (next >= 0x80)
            track.byte();
        else if (status == 0)
            refuseFile(QStringLiteral("a data byte is where a status byte should be"), offset);
        else
            next = status; // running status
        if (next == kSysExStart) {
            packets.begin(track.take(track.variableNumber()), ticks, offset);
        } else if (next == kSysExEnd) {
            packets.goOn(track.take(track.variableNumber()), ticks);
        } else if (next == kMeta) {
            const unsigned char type = track.byte();
            track.skip(track.variableNumber());
            if (type == kEndOfTrack)
                break;
        } else if (next < kSysExStart) {
            status = next;
            track.skip(static_cast<quint32>(messageLength(next) - 1));
        } else {
            refuseFile(QStringLiteral("%1 does not begin an event").arg(hex(next)), offset);
        }
    }
    packets.expectNone();
}

bool isMidiFile(const QByteArray& bytes)
{
    return bytes.startsWith(kHeaderType);
}

QVector<QByteArray> sysExOfMidiFile(const QByteArray& bytes)
{
    Reader file(bytes, 0, static_cast<int>(bytes.size()));
    file.take(kTypeLength);
    const quint32 headerLength = file.number(4);
    if (headerLength < kHeaderLength)
        refuseFile(QStringLiteral("the header is too short"), kTypeLength);
    Reader header = file.part(headerLength);
    const quint32 format = header.number(2);
    const quint32 tracks = header.number(2);

    QVector<Event> events;
    quint32 found = 0;
    while (!file.atEnd()) {
        const bool isTrack = file.take(kTypeLength) == kTrackType;
        const Reader content = file.part(file.number(4));
        if (!isTrack)
            continue; // another program's kind of chunk
        ++found;
        readTrack(content, &events);
    }
    if (found < tracks)
        refuseFile(QStringLiteral("it is cut off, it has %1 of %2 tracks").arg(found).arg(tracks),
                   static_cast<int>(bytes.size()));

    // Tracks play at the same time, except in format 2, where each is a piece of its own.
    if (format != kFormatOfPieces)
        std::stable_sort(events.begin(), events.end(), [](const Event& left, const Event& right) {
            return left.ticks < right.ticks;
        });
    QVector<QByteArray> messages;
    for (const Event& event : events)
        messages.append(event.sysEx);
    return messages;
}
