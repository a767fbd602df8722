// The rules for a header between a client and a driver.
#pragma once

#include "workbench/device/Settings.h"

namespace device {

// The part of a header that Windows 11's driver asks for.
constexpr DWORD_PTR kLeastHeader = 32;

// dwFlags is shared between the driver's threads and whoever polls it. Its offset of 24 in the
// packed header keeps it aligned.
DWORD flagsOf(const MIDIHDR& header);
void setFlags(MIDIHDR& header, DWORD flags);

// The header becomes the driver's, and the client's again.
void markQueued(MIDIHDR& header);
void markDone(MIDIHDR& header);

MMRESULT prepareHeader(MIDIHDR* header, DWORD_PTR size);
MMRESULT unprepareHeader(MIDIHDR* header, DWORD_PTR size);
// Whether a client may hand the header over now.
MMRESULT checkHeader(const MIDIHDR* header, DWORD_PTR size);

} // namespace device
