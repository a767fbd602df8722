// The little of Win32 that the cable needs in C++ clothes: an owned handle, and the environment.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <windows.h>

namespace cable {

struct HandleCloser
{
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, HandleCloser>;

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

} // namespace cable
