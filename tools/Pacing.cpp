#include "tools/Pacing.h"

#include "tools/Text.h"

#include <algorithm>
#include <numeric>

// How many pieces a second a rate without --chunk gives.
static const int kRatePiecesPerSecond = 10;

// For everything but the wire, there and back.
static const qint64 kSlackMs = 2000;

QVector<int> chunksOf(int bytes)
{
    QVector<int> chunks;
    for (; bytes > 0; bytes -= chunks.last())
        chunks.append(std::min(bytes, kChunkBytes));
    return chunks;
}

static qint64 msAt(qint64 bytes, int bytesPerSecond)
{
    return (bytes * 1000 + bytesPerSecond - 1) / bytesPerSecond;
}

qint64 wireMs(qint64 bytes)
{
    return msAt(bytes, kWireBytesPerSecond);
}

static int pausesIn(int bytes)
{
    return bytes > 0 ? (bytes - 1) / kChunkBytes : 0;
}

static int lastChunkOf(int bytes)
{
    return bytes - pausesIn(bytes) * kChunkBytes;
}

qint64 sendMs(int bytes)
{
    return wireMs(bytes) + qint64(pausesIn(bytes)) * kPauseMs;
}

qint64 replyMs(int bytes)
{
    return 2 * sendMs(bytes) + kSlackMs;
}

void WireQueue::sent(int bytes, qint64 now)
{
    // The library waited for every chunk but the last, and so for everything before them. It only
    // queues a single chunk, once one of its buffers is free.
    if (pausesIn(bytes) > 0) {
        inFlight.clear();
        empty = now;
    }
    if (bytes > 0)
        inFlight.append(lastChunkOf(bytes));
    if (inFlight.size() > kChunksInFlight)
        inFlight.removeFirst();
    const qint64 atMost = now + wireMs(bytesUnknown());
    empty =
        std::min(std::max(empty, now) + wireMs(inFlight.isEmpty() ? 0 : inFlight.last()), atMost);
}

qint64 WireQueue::bytesLeft(qint64 now) const
{
    return std::max<qint64>(0, empty - now) * kWireBytesPerSecond / 1000;
}

qint64 WireQueue::bytesUnknown() const
{
    return std::accumulate(inFlight.begin(), inFlight.end(), qint64(0));
}

int Pacer::pieceBytes() const
{
    if (pace.chunk > 0)
        return pace.chunk;
    if (pace.rate > 0)
        return std::clamp(pace.rate / kRatePiecesPerSecond, 1, kChunkBytes);
    return kPieceBytes;
}

// The longest that the last chunk of a piece may take: its time on the wire, or twice that of the
// chunks before it.
static qint64 lastChunkMs(int bytes, qint64 elapsed)
{
    const int pauses = pausesIn(bytes);
    const qint64 onWire = wireMs(lastChunkOf(bytes));
    if (pauses == 0)
        return onWire;
    const qint64 chunkMs = std::max<qint64>(0, elapsed - qint64(pauses) * kPauseMs) / pauses;
    return std::min(onWire, 2 * chunkMs + kDriverMs);
}

void Pacer::sent(int bytes, bool endsMessage, qint64 start, qint64 now)
{
    queue.sent(bytes, now);
    next = now;
    if (endsMessage && pace.gap > 0)
        next = queue.emptyAt() + pace.gap;
    // Keeps the library's pauses within a message: it makes none between two calls.
    if (!endsMessage && pace.chunk > 0)
        next = queue.emptyAt() + (pace.rate > 0 ? 0 : kPauseMs);
    if (!endsMessage && pace.chunk == 0 && pace.rate == 0)
        next = now + lastChunkMs(bytes, now - start) + kPauseMs;
    if (pace.rate > 0)
        next = std::max(next, start + msAt(bytes, pace.rate));
}

static qint64 expectedMs(int message, const Pace& pace)
{
    const qint64 atRate = pace.rate > 0 ? msAt(message, pace.rate) : 0;
    if (pace.chunk == 0 || pace.rate > 0)
        return std::max(atRate, sendMs(message));
    return wireMs(message) + qint64((message - 1) / pace.chunk) * kPauseMs;
}

Progress::Progress(const QVector<int>& messages, const Pace& pace)
{
    for (const int bytes : messages) {
        total += bytes;
        expected += expectedMs(bytes, pace) + pace.gap;
    }
    if (!messages.isEmpty())
        expected -= pace.gap;
}

void Progress::begin(int bytes, qint64 now)
{
    piece = bytes;
    pieceStart = now;
}

void Progress::end(qint64 now)
{
    handed += piece;
    queue.sent(piece, now);
    piece = 0;
    const qint64 through = handed - queue.bytesUnknown();
    if (through > 0 && now > 0) {
        known = through;
        knownAt = now;
    }
}

// The bytes of a piece that have left at wire speed, `elapsed` after its first byte.
static qint64 bytesOnWire(qint64 elapsed)
{
    const qint64 period = wireMs(kChunkBytes) + kPauseMs;
    const qint64 partial =
        std::min<qint64>(kChunkBytes, elapsed % period * kWireBytesPerSecond / 1000);
    return elapsed / period * kChunkBytes + partial;
}

qint64 Progress::bytesThrough(qint64 now) const
{
    const qint64 most = handed + std::max(0, piece - 1);
    if (known > 0)
        return std::min(most, known + (now - knownAt) * known / knownAt);
    // A piece waits for those before it.
    const qint64 start = std::max(pieceStart, queue.emptyAt());
    const qint64 current = piece > 0 && now > start ? bytesOnWire(now - start) : 0;
    return std::clamp<qint64>(handed - queue.bytesLeft(now) + current, 0, most);
}

qint64 Progress::leftMs(qint64 now) const
{
    const qint64 rest = total - bytesThrough(now);
    if (known > 0)
        return rest * knownAt / known;
    return total > 0 ? expected * rest / total : 0;
}

QString Progress::line(qint64 now, int width) const
{
    const qint64 through = bytesThrough(now);
    const int percent = total > 0 ? static_cast<int>(100 * through / total) : 0;
    const QString left = clockTime(leftMs(now)) + QLatin1String(" left");
    const QString share = QString::number(percent).rightJustified(3) + QLatin1String(" %  ");
    const QString bytes =
        QStringLiteral("%1 of %2  ").arg(grouped(through), counted(total, "byte"));

    const int fullBar = 20;
    const int leastBar = 5;
    const int frame = 3; // brackets and a blank
    const auto room = [&](const QString& text) { return width - static_cast<int>(text.size()); };
    QString text = share + bytes + left;
    if (room(text) < frame + leastBar)
        text = share + left;
    const int bar = std::min(fullBar, room(text) - frame);
    if (bar < leastBar)
        return text.left(width);
    const int done = total > 0 ? static_cast<int>(bar * through / total) : 0;
    return QLatin1Char('[') + QString(done, QLatin1Char('#')) +
           QString(bar - done, QLatin1Char('-')) + QLatin1String("] ") + text;
}
