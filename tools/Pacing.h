#ifndef LUMORA_TOOLS_PACING_H
#define LUMORA_TOOLS_PACING_H

#include <QString>
#include <QVector>

// How long sending takes. All times in milliseconds; points in time on any clock that does not
// run backwards and is at 0 when sending begins.

/// The library sends a message in chunks of this many bytes …
const int kChunkBytes = 4096;
/// … pauses at least this long between them …
const int kPauseMs = 100;
/// … and has at most this many chunks on their way.
const int kChunksInFlight = 8;
/// MIDI's wire speed: 31,250 bits a second, 10 bits a byte.
const int kWireBytesPerSecond = 3125;

/// What driver and port may need on top of the time on the wire.
const int kDriverMs = 100;

/// How much of a message is given to the library at once: few enough chunks to learn soon how fast
/// the port is, enough to make the pause of our own between two pieces matter little.
const int kPieceBytes = 16 * kChunkBytes;

/// The sizes of the chunks of a message, in order.
QVector<int> chunksOf(int bytes);

/// What `bytes` need on the wire, rounded up.
qint64 wireMs(qint64 bytes);

/// What a message needs at wire speed, with the pauses between its chunks.
qint64 sendMs(int bytes);

/// How long to wait for a message to come back: a lead's other end may take it in whole before it
/// sends it on, and the systems in between have their own delays.
qint64 replyMs(int bytes);

/// What of the data handed to the library may still be on its way, since the library does not wait
/// for the last chunk of a message. An upper bound: a port may be faster than the wire.
class WireQueue
{
public:
    /// outputData() took `bytes` and returned at `now`.
    void sent(int bytes, qint64 now);

    /// When all of it must be through.
    qint64 emptyAt() const { return empty; }

    /// The bytes that may not be through at `now`.
    qint64 bytesLeft(qint64 now) const;

    /// The bytes that the library need not have waited for, however fast the port is.
    qint64 bytesUnknown() const;

private:
    QVector<int> inFlight; // sizes of the chunks, oldest first
    qint64 empty = 0;
};

/// How the user wants messages to be spread out. 0 stands for no wish.
struct Pace
{
    int gap = 0;   ///< silence on the wire between two messages, in milliseconds
    int chunk = 0; ///< bytes of a message that go out without a pause, up to kChunkBytes
    int rate = 0;  ///< bytes a second, at most
};

/// Tells when the next piece of the data may be handed to the library.
class Pacer
{
public:
    explicit Pacer(const Pace& pace) : pace(pace) {}

    /// How many bytes of a message to hand over at once, at most.
    int pieceBytes() const;

    /// outputData() was called with a piece of `bytes` at `start` and returned at `now`.
    void sent(int bytes, bool endsMessage, qint64 start, qint64 now);

    /// When the next piece may follow.
    qint64 nextAt() const { return next; }

    const WireQueue& onTheirWay() const { return queue; }

private:
    const Pace pace;
    WireQueue queue;
    qint64 next = 0;
};

/// How far a number of messages is. Computed from wire speed at first, from the port's own speed as
/// soon as the library has waited for some of the data.
class Progress
{
public:
    Progress(const QVector<int>& messages, const Pace& pace);

    qint64 totalBytes() const { return total; }

    /// A piece of `bytes` is handed to the library at `now` …
    void begin(int bytes, qint64 now);
    /// … which has taken it at `now`.
    void end(qint64 now);

    /// The bytes that are through: never the last one of a piece that the library still has.
    qint64 bytesThrough(qint64 now) const;

    /// What the rest takes.
    qint64 leftMs(qint64 now) const;

    /// "[#####---------------]  25 %  2,500 of 10,000 bytes  0:03 left" in at most `width` columns.
    /// Where there is little room, the number of bytes goes first and the bar next.
    QString line(qint64 now, int width) const;

private:
    qint64 total = 0;
    qint64 expected = 0; // what all takes at wire speed
    qint64 handed = 0;   // the bytes that the library has taken
    int piece = 0;       // the bytes that it is taking …
    qint64 pieceStart = 0;
    WireQueue queue;
    qint64 known = 0; // the bytes that were through …
    qint64 knownAt = 0;
};

#endif
