// The little of Win32 that the cable needs in C++ clothes: an owned handle, and the time that all
// processes share.
#pragma once

#include <utility>
#include <windows.h>

namespace cable {

class Handle
{
public:
    Handle() = default;
    explicit Handle(HANDLE itsHandle)
        : handle(itsHandle == INVALID_HANDLE_VALUE ? nullptr : itsHandle)
    {}
    Handle(Handle&& other) noexcept : handle(std::exchange(other.handle, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept
    {
        std::swap(handle, other.handle);
        return *this;
    }
    ~Handle() { reset(); }

    explicit operator bool() const { return handle != nullptr; }
    HANDLE get() const { return handle; }
    void reset()
    {
        if (handle)
            CloseHandle(handle);
        handle = nullptr;
    }

private:
    HANDLE handle = nullptr;
};

inline LONGLONG nanoseconds()
{
    static const LONGLONG frequency = [] {
        LARGE_INTEGER value;
        QueryPerformanceFrequency(&value);
        return value.QuadPart;
    }();
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    // Split so that the product cannot overflow however long the machine has been up.
    return now.QuadPart / frequency * 1000000000 +
           now.QuadPart % frequency * 1000000000 / frequency;
}

inline LONGLONG microseconds()
{
    return nanoseconds() / 1000;
}

} // namespace cable
