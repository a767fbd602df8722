#include "tools/Interruption.h"

#include "tools/Console.h"
#include "tools/Failure.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <windows.h>

static std::atomic<bool> endRequested(false);
static std::atomic<const char*> currentNotice(nullptr);

// Runs on a system thread.
static BOOL WINAPI onConsoleEvent(DWORD event)
{
    const bool again = endRequested.exchange(true);
    if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT) {
        if (again) {
            leaveTerminal();
            ExitProcess(static_cast<UINT>(ExitStatus::Failed));
        }
        if (const char* const notice = currentNotice)
            say(QString::fromUtf8(notice));
        return TRUE;
    }
    // The console is closing. The process ends when this returns, so it leaves the main thread all
    // the time that the system grants.
    Sleep(INFINITE);
    return TRUE;
}

void catchInterruption()
{
    SetConsoleCtrlHandler(&onConsoleEvent, TRUE);
}

void answerInterruption(const char* notice)
{
    currentNotice = notice;
}

bool interrupted()
{
    return endRequested;
}

bool sleepFor(qint64 milliseconds)
{
    using namespace std::chrono;
    const auto end = steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!interrupted()) {
        const auto now = steady_clock::now();
        if (now >= end)
            return true;
        std::this_thread::sleep_for(std::min<steady_clock::duration>(
            end - now, std::chrono::milliseconds(kInterruptionPollMs)));
    }
    return false;
}
