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

    /// As those of Progress.
    void begin(int bytes);
    void end();

private:
    void draw();

    const QElapsedTimer clock;

    std::mutex mutex; // guards what follows
    std::condition_variable changed;
    bool ended = false;
    Progress progress;

    std::thread drawer;
};

#endif
