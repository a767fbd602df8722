// The little of Win32 that the cable needs in C++ clothes: an owned handle, the environment, and
// the time that all processes share.
#pragma once

#include <optional>
#include <string>
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

// As it is now: the C library's copy is from the beginning of the process.
inline std::optional<std::wstring> environment(const wchar_t* name)
{
    constexpr DWORD longest = 32767; // that a variable can be
    std::wstring text(longest, L'\0');
    SetLastError(ERROR_SUCCESS);
    text.resize(GetEnvironmentVariableW(name, text.data(), longest));
    if (text.empty() && GetLastError() == ERROR_ENVVAR_NOT_FOUND)
        return std::nullopt;
    return text;
}

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
