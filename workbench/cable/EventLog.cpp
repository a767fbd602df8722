#include "workbench/cable/EventLog.h"

#include "workbench/cable/System.h"
#include "workbench/device/Settings.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iomanip>

namespace cable {

namespace {

// Not open without a log. Never closed: threads may log while the process ends.
std::ofstream& openLog()
{
    auto& log = *new std::ofstream;
    const std::filesystem::path path = environment(L"LUMORA_CABLE_LOG").value_or(L"");
    if (!path.empty())
        log.open(path, std::ios::app | std::ios::binary);
    if (!log)
        complain("the file that LUMORA_CABLE_LOG names cannot be written");
    return log;
}

} // namespace

void logEvent(const char* direction, unsigned position, const std::string& text)
{
    static std::ofstream& log = openLog();
    // Wine finds the end of the file and writes there in two steps, so processes take turns.
    static const HANDLE turn = CreateMutexW(nullptr, FALSE, L"lumora-cable-log");
    if (!log.is_open())
        return;
    const double now = static_cast<double>(device::steadyMicroseconds()) / 1000;
    WaitForSingleObject(turn, INFINITE);
    log << std::fixed << std::setprecision(3) << now << ' ' << direction << ' ' << position << ' '
        << text << '\n'
        << std::flush;
    ReleaseMutex(turn);
}

void complain(const std::string& sentence)
{
    std::fprintf(stderr, "lumora cable: %s\n", sentence.c_str());
}

} // namespace cable
