#include "tools/ProgressBar.h"

#include "tools/Console.h"

#include <algorithm>

static const std::chrono::milliseconds kRedraw(200);

ProgressBar::ProgressBar(const Progress& progress, const QElapsedTimer& clock)
    : progress(progress), clock(clock)
{
    if (progress.totalBytes() > kChunkBytes && errorIsTerminal())
        drawer = std::thread([this] { draw(); });
}

ProgressBar::~ProgressBar()
{
    if (!drawer.joinable())
        return;
    {
        const std::lock_guard<std::mutex> guard(mutex);
        ended = true;
    }
    changed.notify_one();
    drawer.join();
    showInPlace(QString());
}

void ProgressBar::sending(qint64 nowSent, int bytes, const WireQueue& nowQueued)
{
    const std::lock_guard<std::mutex> guard(mutex);
    sent = nowSent;
    message = bytes;
    messageStart = clock.elapsed();
    queue = nowQueued;
}

qint64 ProgressBar::bytesThrough() const
{
    const qint64 now = clock.elapsed();
    const qint64 queued = queue.bytesLeft(now);
    // A message waits for those in front of it.
    const qint64 start = std::max(messageStart, queue.emptyAt());
    const qint64 current = now > start ? Progress::bytesThrough(message, now - start) : 0;
    return std::max<qint64>(0, sent - queued + current);
}

void ProgressBar::draw()
{
    std::unique_lock<std::mutex> guard(mutex);
    while (!ended) {
        showInPlace(progress.line(bytesThrough()));
        changed.wait_for(guard, kRedraw);
    }
}
