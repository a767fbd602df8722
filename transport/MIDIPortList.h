#ifndef LUMORA_TRANSPORT_MIDIPORTLIST_H
#define LUMORA_TRANSPORT_MIDIPORTLIST_H

/// \file
/// The port list as plain memory, for code that shares only the layout with this library, and
/// neither Qt nor a C++ runtime. Offsets are part of the contract.

#include <cstddef>
#include <windows.h>

/// One port: 32 bytes.
struct TMIDIPortEntry
{
    /// 1-based; 0 if the stored label has no number or no name.
    long long portNumber;

    /// The port's identifier; all zero if it could not be read.
    GUID portId;

    /// The device name, zero-terminated, in COM task memory of its own. Null without memory.
    WCHAR* portName;
};

/// Filled by TMIDITransport::MIDIPorts(). The caller supplies the record with `entries` null, and
/// afterwards frees each entry's portName and then `entries` with CoTaskMemFree.
struct TMIDIPortList
{
    unsigned int count;      ///< the number of ports
    TMIDIPortEntry* entries; ///< `count` entries; null if there are none, or without memory
};

static_assert(sizeof(TMIDIPortEntry) == 32, "the stride of the array");
static_assert(offsetof(TMIDIPortEntry, portNumber) == 0, "layout shared with other binaries");
static_assert(offsetof(TMIDIPortEntry, portId) == 8, "layout shared with other binaries");
static_assert(sizeof(GUID) == 16, "layout shared with other binaries");
static_assert(offsetof(TMIDIPortEntry, portName) == 24, "layout shared with other binaries");
static_assert(sizeof(TMIDIPortList) == 16, "layout shared with other binaries");
static_assert(offsetof(TMIDIPortList, count) == 0, "layout shared with other binaries");
static_assert(offsetof(TMIDIPortList, entries) == 8, "layout shared with other binaries");

#endif
