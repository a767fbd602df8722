#include "System.h"

#include <memory>

namespace cable {
namespace {

DWORD WINAPI runBody(void* parameter)
{
    const std::unique_ptr<std::function<void()>> body(
        static_cast<std::function<void()>*>(parameter));
    (*body)();
    return 0;
}

LONGLONG timeIn(LONGLONG unitsPerSecond)
{
    static const LONGLONG frequency = [] {
        LARGE_INTEGER value;
        QueryPerformanceFrequency(&value);
        return value.QuadPart;
    }();
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    // Split so that the product cannot overflow however long the machine has been up.
    return now.QuadPart / frequency * unitsPerSecond +
           now.QuadPart % frequency * unitsPerSecond / frequency;
}

} // namespace

Handle startThread(std::function<void()> body)
{
    auto owned = std::make_unique<std::function<void()>>(std::move(body));
    Handle thread(CreateThread(nullptr, 0, runBody, owned.get(), 0, nullptr));
    if (thread)
        static_cast<void>(owned.release()); // runBody owns it now
    return thread;
}

LONGLONG microseconds()
{
    return timeIn(1000000);
}

LONGLONG nanoseconds()
{
    return timeIn(1000000000);
}

} // namespace cable
