#include "workbench/cable/EventLog.h"

#include "workbench/cable/System.h"

#include <cstdarg>
#include <cstdio>
#include <string>

namespace cable {

namespace {

class EventLog
{
public:
    EventLog()
    {
        const std::wstring path = environment(L"LUMORA_CABLE_LOG").value_or(L"");
        if (path.empty())
            return;
        file = Handle(CreateFileW(path.c_str(), FILE_APPEND_DATA | SYNCHRONIZE,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        // Wine finds the end of the file and writes there in two steps, so processes take turns.
        turn = Handle(CreateMutexW(nullptr, FALSE, L"lumora-cable-log"));
        if (!file)
            complain("the file that LUMORA_CABLE_LOG names cannot be written");
    }

    void write(const char* line, std::size_t length)
    {
        if (!file)
            return;
        WaitForSingleObject(turn.get(), INFINITE);
        DWORD written = 0;
        WriteFile(file.get(), line, static_cast<DWORD>(length), &written, nullptr);
        ReleaseMutex(turn.get());
    }

    bool isOpen() const { return static_cast<bool>(file); }

private:
    Handle file;
    Handle turn;
};

} // namespace

void logEvent(const char* direction, unsigned position, const char* format, ...)
{
    static EventLog& log = *new EventLog; // never destroyed: threads may log while the process ends
    if (!log.isOpen())
        return;
    const LONGLONG now = microseconds();
    char text[160];
    va_list arguments;
    va_start(arguments, format);
    __mingw_vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    char line[240];
    const int length = __mingw_snprintf(line, sizeof line, "%lld.%03d %s %u %s\n", now / 1000,
                                        static_cast<int>(now % 1000), direction, position, text);
    if (length > 0)
        log.write(line, static_cast<std::size_t>(length));
}

void complain(const char* sentence)
{
    const std::string line = "lumora cable: " + std::string(sentence) + "\n";
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), line.data(), static_cast<DWORD>(line.size()),
              &written, nullptr);
}

} // namespace cable
