#include "workbench/device/Header.h"

#include <cstddef>

namespace device {

namespace {

DWORD* flagsAddress(const MIDIHDR& header)
{
    const char* const bytes = reinterpret_cast<const char*>(&header);
    return reinterpret_cast<DWORD*>(const_cast<char*>(bytes + offsetof(MIDIHDR, dwFlags)));
}

// All that a client of any age must have; what follows is the driver's own.
bool isLargeEnough(DWORD_PTR size)
{
    return size >= offsetof(MIDIHDR, dwOffset);
}

bool hasData(const MIDIHDR& header)
{
    return header.lpData && header.dwBufferLength > 0;
}

} // namespace

DWORD flagsOf(const MIDIHDR& header)
{
    return __atomic_load_n(flagsAddress(header), __ATOMIC_ACQUIRE);
}

void setFlags(MIDIHDR& header, DWORD flags)
{
    __atomic_store_n(flagsAddress(header), flags, __ATOMIC_RELEASE);
}

void markQueued(MIDIHDR& header)
{
    setFlags(header, (flagsOf(header) & ~DWORD(MHDR_DONE)) | MHDR_INQUEUE);
}

void markDone(MIDIHDR& header)
{
    setFlags(header, (flagsOf(header) & ~DWORD(MHDR_INQUEUE)) | MHDR_DONE);
}

// Once prepared it stays so, whatever else the flags say.
MMRESULT prepareHeader(MIDIHDR* header, DWORD_PTR size)
{
    if (!header || !isLargeEnough(size) || !hasData(*header))
        return MMSYSERR_INVALPARAM;
    const DWORD flags = flagsOf(*header);
    if ((flags & MHDR_PREPARED) == 0)
        setFlags(*header, (flags & ~DWORD(MHDR_DONE | MHDR_INQUEUE)) | MHDR_PREPARED);
    return MMSYSERR_NOERROR;
}

MMRESULT unprepareHeader(MIDIHDR* header, DWORD_PTR size)
{
    if (!header || !isLargeEnough(size))
        return MMSYSERR_INVALPARAM;
    const DWORD flags = flagsOf(*header);
    if ((flags & MHDR_PREPARED) == 0)
        return MMSYSERR_NOERROR;
    if (flags & MHDR_INQUEUE)
        return MIDIERR_STILLPLAYING;
    setFlags(*header, flags & ~DWORD(MHDR_PREPARED));
    return MMSYSERR_NOERROR;
}

MMRESULT checkHeader(const MIDIHDR* header, DWORD_PTR size)
{
    if (!header || !isLargeEnough(size))
        return MMSYSERR_INVALPARAM;
    const DWORD flags = flagsOf(*header);
    if ((flags & MHDR_PREPARED) == 0)
        return MIDIERR_UNPREPARED;
    if (flags & MHDR_INQUEUE)
        return MIDIERR_STILLPLAYING;
    return hasData(*header) ? MMRESULT(MMSYSERR_NOERROR) : MMRESULT(MMSYSERR_INVALPARAM);
}

} // namespace device
