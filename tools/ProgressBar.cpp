#include "tools/ProgressBar.h"

#include "tools/Console.h"

ProgressBar::ProgressBar(const Progress& progress, const QElapsedTimer& clock)
    : clock(clock), progress(progress)
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

void ProgressBar::begin(int bytes)
{
    const std::lock_guard<std::mutex> guard(mutex);
    progress.begin(bytes, clock.elapsed());
}

void ProgressBar::end()
{
    const std::lock_guard<std::mutex> guard(mutex);
    progress.end(clock.elapsed());
}

void ProgressBar::draw()
{
    std::unique_lock<std::mutex> guard(mutex);
    while (!ended) {
        showInPlace(progress.line(clock.elapsed(), errorWidth()));
        changed.wait_for(guard, kRedraw);
    }
}
