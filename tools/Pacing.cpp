#include "tools/Pacing.h"

#include "tools/Text.h"

#include <algorithm>
#include <numeric>

QVector<int> chunksOf(int bytes)
{
    QVector<int> chunks;
    for (; bytes > 0; bytes -= chunks.last())
        chunks.append(std::min(bytes, kChunkBytes));
    return chunks;
}

qint64 wireMs(qint64 bytes)
{
    return (bytes * 1000 + kWireBytesPerSecond - 1) / kWireBytesPerSecond;
}

static int pausesIn(int bytes)
{
    return bytes > 0 ? (bytes - 1) / kChunkBytes : 0;
}

qint64 sendMs(int bytes)
{
    return wireMs(bytes) + qint64(pausesIn(bytes)) * kPauseMs;
}

void WireQueue::sent(int bytes, qint64 now)
{
    // The library waited for every chunk but the last, and so for all that was before them. A
    // single chunk it only queues, once fewer than all its buffers are in use.
    if (pausesIn(bytes) > 0) {
        inFlight.clear();
        empty = now;
    }
    if (bytes > 0)
        inFlight.append(chunksOf(bytes).last());
    if (inFlight.size() > kChunksInFlight)
        inFlight.removeFirst();
    const qint64 atMost =
        now + wireMs(std::accumulate(inFlight.begin(), inFlight.end(), qint64(0)));
    empty =
        std::min(std::max(empty, now) + wireMs(inFlight.isEmpty() ? 0 : inFlight.last()), atMost);
}

qint64 WireQueue::bytesLeft(qint64 now) const
{
    return std::max<qint64>(0, empty - now) * kWireBytesPerSecond / 1000;
}

Progress::Progress(const QVector<int>& messages, int gap)
{
    for (const int bytes : messages) {
        total += bytes;
        expected += sendMs(bytes) + gap;
    }
    if (!messages.isEmpty())
        expected -= gap;
}

qint64 Progress::leftMs(qint64 bytes) const
{
    return total > 0 ? expected * (total - bytes) / total : 0;
}

QString Progress::line(qint64 bytes) const
{
    const int width = 20;
    const int done = total > 0 ? static_cast<int>(width * bytes / total) : 0;
    const int percent = total > 0 ? static_cast<int>(100 * bytes / total) : 0;
    return QStringLiteral("[%1%2] %3 %  %4 of %5  %6 left")
        .arg(QString(done, QLatin1Char('#')), QString(width - done, QLatin1Char('-')))
        .arg(percent, 3)
        .arg(grouped(bytes), counted(total, "byte"), clockTime(leftMs(bytes)));
}

qint64 Progress::bytesThrough(int message, qint64 elapsed)
{
    const qint64 period = sendMs(kChunkBytes) + kPauseMs;
    const qint64 chunks = elapsed / period;
    const qint64 partial =
        std::min<qint64>(kChunkBytes, elapsed % period * kWireBytesPerSecond / 1000);
    return std::min<qint64>(chunks * kChunkBytes + partial, std::max(0, message - 1));
}
