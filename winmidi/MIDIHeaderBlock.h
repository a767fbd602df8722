#ifndef LUMORA_WINMIDI_MIDIHEADERBLOCK_H
#define LUMORA_WINMIDI_MIDIHEADERBLOCK_H

#include <windows.h>

#include <mmsystem.h>

/// A fixed pool of MIDIHDRs, each with a data buffer of kBufferSize bytes out of one block. The
/// headers lie below 4 GB, so that the low 32 bits of an address, which are all that a callback
/// keeps, identify a header. Nothing moves between allocation and release, so WinMM may hold
/// pointers into the pool.
class MIDIHeaderBlock
{
public:
    /// Bytes in one buffer.
    static const DWORD kBufferSize = 4096;

    explicit MIDIHeaderBlock(unsigned int size) : size(size) {}
    ~MIDIHeaderBlock();

    MIDIHeaderBlock(const MIDIHeaderBlock&) = delete;
    MIDIHeaderBlock& operator=(const MIDIHeaderBlock&) = delete;

    /// Zero-filled headers; false if there is no memory below 4 GB.
    bool allocateHeaders();

    /// The zero-filled data block, for headers that are allocated; sets their lpData and
    /// dwBufferLength. False if there is no memory.
    bool allocateData();

    // Safe to call twice, and for what was never allocated.
    void freeData();
    void freeHeaders();

    // The headers, for a range-based for loop; none before they are allocated.
    MIDIHDR* begin() const { return headers; }
    MIDIHDR* end() const { return headers ? headers + size : headers; }

    bool hasData() const { return data != nullptr; }

    /// The header at `address`; null if that is none of these.
    MIDIHDR* find(DWORD address) const;

    /// The buffer of a header of this pool, whatever its lpData says by now.
    unsigned char* buffer(const MIDIHDR* header) const;

private:
    const unsigned int size;
    MIDIHDR* headers = nullptr;
    unsigned char* data = nullptr;
    bool headersFromHeap = false;
};

#endif
