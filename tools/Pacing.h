#ifndef LUMORA_TOOLS_PACING_H
#define LUMORA_TOOLS_PACING_H

#include <QString>
#include <QVector>

// How long sending takes. Times are in milliseconds, on any monotonic clock that is at 0 when
// sending begins.

/// The library sends a message in chunks of this many bytes …
const int kChunkBytes = 4096;
/// … pauses at least this long between them …
const int kPauseMs = 100;
/// … and has at most this many chunks in flight.
const int kChunksInFlight = 8;
/// MIDI's wire speed: 31,250 bits a second, 10 bits a byte.
const int kWireBytesPerSecond = 3125;

/// What driver and port may need in addition to the time on the wire.
const int kDriverMs = 100;

/// How much of a message the library gets at once: few enough chunks to learn the port's speed
/// soon, and enough that our own pause between pieces matters little.
const int kPieceBytes = 16 * kChunkBytes;

/// The sizes of the chunks of a message, in order.
QVector<int> chunksOf(int bytes);

/// The time of `bytes` on the wire, rounded up.
qint64 wireMs(qint64 bytes);

/// The time of a message at wire speed, with the pauses between its chunks.
qint64 sendMs(int bytes);

/// How long to wait for a message to come back: the far end may receive all of it before it sends
/// it on, and the systems in between add delays.
qint64 replyMs(int bytes);

/// The data handed to the library that may still be in flight, since the library does not wait for
/// the last chunk of a message. An upper bound: a port may be faster than the wire.
class WireQueue
{
public:
    /// outputData() took `bytes` and returned at `now`.
    void sent(int bytes, qint64 now);

    /// When all of it must have left.
    qint64 emptyAt() const { return empty; }

    /// The bytes that may not have left at `now`.
    qint64 bytesLeft(qint64 now) const;

    /// The bytes that the library may not have waited for, even on a fast port.
    qint64 bytesUnknown() const;

private:
    QVector<int> inFlight; // sizes of the chunks, oldest first
    qint64 empty = 0;
};

/// How the user wants messages paced. 0: not set.
struct Pace
{
    int gap = 0;   ///< silence on the wire between two messages, in milliseconds
    int chunk = 0; ///< bytes of a message sent without a pause, up to kChunkBytes
    int rate = 0;  ///< bytes per second, at most
};

/// Computes when the library may get the next piece of data.
class Pacer
{
public:
    explicit Pacer(const Pace& pace) : pace(pace) {}

    /// The most bytes of a message to hand over at once.
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

/// The progress of sending messages. Computed from wire speed at first, from the port's own speed
/// as soon as the library has waited for some of the data.
class Progress
{
public:
    Progress(const QVector<int>& messages, const Pace& pace);

    qint64 totalBytes() const { return total; }

    /// The library gets a piece of `bytes` at `now` …
    void begin(int bytes, qint64 now);
    /// … and has taken it at `now`.
    void end(qint64 now);

    /// The bytes that have left, without the last one of a piece that the library still has.
    qint64 bytesThrough(qint64 now) const;

    /// The time for the rest.
    qint64 leftMs(qint64 now) const;

    /// "[#####---------------]  25 %  2,500 of 10,000 bytes  0:03 left" in at most `width` columns.
    /// In a narrow terminal it omits first the number of bytes, then the bar.
    QString line(qint64 now, int width) const;

private:
    qint64 total = 0;
    qint64 expected = 0; // the time for all of it at wire speed
    qint64 handed = 0;   // the bytes that the library has taken
    int piece = 0;       // the bytes that it is taking …
    qint64 pieceStart = 0;
    WireQueue queue;
    qint64 known = 0;   // the bytes that had left …
    qint64 knownAt = 0; // … at this time
};

#endif
