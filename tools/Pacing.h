#ifndef LUMORA_TOOLS_PACING_H
#define LUMORA_TOOLS_PACING_H

#include <QString>
#include <QVector>

// How long sending takes. All times in milliseconds; points in time on any clock that does not
// run backwards.

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

/// The sizes of the chunks of a message, in order.
QVector<int> chunksOf(int bytes);

/// What `bytes` need on the wire, rounded up.
qint64 wireMs(qint64 bytes);

/// What a message needs at wire speed, with the pauses between its chunks.
qint64 sendMs(int bytes);

/// What of the data handed to the library may still be on its way, since the library does not wait
/// for the last chunk of a message. An upper bound: a port may be faster than the wire.
class WireQueue
{
public:
    /// outputData() took a message of `bytes` and returned at `now`.
    void sent(int bytes, qint64 now);

    /// When all of it must be through.
    qint64 emptyAt() const { return empty; }

    /// The bytes that may not be through at `now`.
    qint64 bytesLeft(qint64 now) const;

private:
    QVector<int> inFlight; // sizes of the chunks, oldest first
    qint64 empty = 0;
};

/// How far a number of messages is.
class Progress
{
public:
    /// `gap` is waited between two messages.
    Progress(const QVector<int>& messages, int gap);

    qint64 totalBytes() const { return total; }

    /// What all of it takes.
    qint64 expectedMs() const { return expected; }

    /// What the rest takes once `bytes` are through.
    qint64 leftMs(qint64 bytes) const;

    /// "[#####---------------]  25 %  2,500 of 10,000 bytes  0:03 left"
    QString line(qint64 bytes) const;

    /// The bytes of a message that are through `elapsed` after its sending began: all but the last
    /// at most, for it is not known to be sent.
    static qint64 bytesThrough(int message, qint64 elapsed);

private:
    qint64 total = 0;
    qint64 expected = 0;
};

#endif
