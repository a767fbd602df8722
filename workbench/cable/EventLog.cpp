#include "workbench/cable/EventLog.h"

#include "workbench/cable/System.h"
#include "workbench/device/Settings.h"

#include <cstdio>
#include <iomanip>
#include <sstream>

namespace cable {

namespace {

// Null without a log. Never closed: threads may log while the process ends.
HANDLE openLog()
{
    const std::wstring path = environment(L"LUMORA_CABLE_LOG").value_or(L"");
    if (path.empty())
        return nullptr;
    const HANDLE file = CreateFileW(path.c_str(), FILE_APPEND_DATA | SYNCHRONIZE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file != INVALID_HANDLE_VALUE)
        return file;
    complain("the file that LUMORA_CABLE_LOG names cannot be written");
    return nullptr;
}

} // namespace

void logEvent(const char* direction, unsigned position, const std::string& text)
{
    static const HANDLE file = openLog();
    // Wine finds the end of the file and writes there in two steps, so processes take turns.
    static const HANDLE turn = CreateMutexW(nullptr, FALSE, L"lumora-cable-log");
    if (!file)
        return;
    std::ostringstream line;
    line << std::fixed << std::setprecision(3)
         << static_cast<double>(device::steadyMicroseconds()) / 1000 << ' ' << direction << ' '
         << position << ' ' << text << '\n';
    const std::string bytes = line.str();
    DWORD written = 0;
    WaitForSingleObject(turn, INFINITE);
    WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    ReleaseMutex(turn);
}

void complain(const std::string& sentence)
{
    std::fprintf(stderr, "lumora cable: %s\n", sentence.c_str());
}

} // namespace cable
