#ifndef LUMORA_TOOLS_PROGRESSBAR_H
#define LUMORA_TOOLS_PROGRESSBAR_H

#include "tools/Pacing.h"

#include <QElapsedTimer>
#include <condition_variable>
#include <mutex>
#include <thread>

/// Shows the progress of sending on standard error, if that is a terminal and the data is more than
/// one chunk. Its own thread draws, since the sender is blocked. The destructor ends the thread and
/// clears the line.
class ProgressBar
{
public:
    /// `clock` was started when sending began.
    ProgressBar(const Progress& progress, const QElapsedTimer& clock);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    /// See Progress.
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
