// The flags of a header, shared between the driver's threads and whoever polls them. Their offset
// of 24 in the packed header keeps them aligned, which a compiler does not know.
#pragma once

#include <cstddef>
#include <windows.h>

#include <mmsystem.h>

namespace device {

inline DWORD* flagsAddress(const MIDIHDR& header)
{
    const char* const bytes = reinterpret_cast<const char*>(&header);
    return reinterpret_cast<DWORD*>(const_cast<char*>(bytes + offsetof(MIDIHDR, dwFlags)));
}

inline DWORD flagsOf(const MIDIHDR& header)
{
    return __atomic_load_n(flagsAddress(header), __ATOMIC_ACQUIRE);
}

inline void setFlags(MIDIHDR& header, DWORD flags)
{
    __atomic_store_n(flagsAddress(header), flags, __ATOMIC_RELEASE);
}

} // namespace device
