// The flags of a header, shared between the driver's threads and whoever polls them. Their offset
// of 24 in the packed header keeps them aligned.
#pragma once

#include <windows.h>

#include <mmsystem.h>

namespace device {

inline DWORD flagsOf(const MIDIHDR& header)
{
    return __atomic_load_n(&header.dwFlags, __ATOMIC_ACQUIRE);
}

inline void setFlags(MIDIHDR& header, DWORD flags)
{
    __atomic_store_n(&header.dwFlags, flags, __ATOMIC_RELEASE);
}

} // namespace device
