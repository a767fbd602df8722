#ifndef LUMORA_TOOLS_PROGRESSBAR_H
#define LUMORA_TOOLS_PROGRESSBAR_H

#include "tools/Pacing.h"

#include <QElapsedTimer>
#include <condition_variable>
#include <mutex>
#include <thread>

/// Shows on standard error how far sending is, if that is a terminal and the data is more than one
/// chunk. A thread of its own draws, since the sender is blocked; it is gone, and its line with it,
/// when the object ends.
class ProgressBar
{
public:
    /// `clock` runs since sending began.
    ProgressBar(const Progress& progress, const QElapsedTimer& clock);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    /// The sender begins a message of `bytes` behind `nowSent` bytes that were handed over, of
    /// which `nowQueued` is still on the way.
    void sending(qint64 nowSent, int bytes, const WireQueue& nowQueued);

private:
    void draw();
    qint64 bytesThrough() const;

    const Progress progress;
    const QElapsedTimer clock;

    std::mutex mutex; // guards what follows
    std::condition_variable changed;
    bool ended = false;
    qint64 sent = 0;
    int message = 0;
    qint64 messageStart = 0;
    WireQueue queue;

    std::thread drawer;
};

#endif
