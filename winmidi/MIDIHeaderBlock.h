#ifndef LUMORA_WINMIDI_MIDIHEADERBLOCK_H
#define LUMORA_WINMIDI_MIDIHEADERBLOCK_H

#include <atomic>
#include <cstddef>
#include <windows.h>

#include <mmsystem.h>

/// A fixed pool of MIDIHDRs, each with a data buffer of kBufferSize bytes from one block. The
/// headers lie below 4 GB, so that the low 32 bits of an address, all that a callback gets,
/// identify a header. Nothing moves between allocation and release, so WinMM may hold pointers into
/// the pool.
class MIDIHeaderBlock
{
public:
    /// Bytes in one buffer.
    static const DWORD kBufferSize = 4096;

    explicit MIDIHeaderBlock(unsigned int size) : size(size) {}
    ~MIDIHeaderBlock();

    MIDIHeaderBlock(const MIDIHeaderBlock&) = delete;
    MIDIHeaderBlock& operator=(const MIDIHeaderBlock&) = delete;

    /// Allocates zero-filled headers; false without memory below 4 GB.
    bool allocateHeaders();

    /// Allocates the zero-filled data block, after the headers, and sets their lpData and
    /// dwBufferLength. False without memory.
    bool allocateData();

    // Safe to call twice, and without an allocation.
    void freeData();
    void freeHeaders();

    /// Leaves headers and data to a driver that did not return them, for the life of the process,
    /// and allocates new ones. Without memory for those the block is empty.
    void abandon();

    // The headers, for a range-based for loop; none before they are allocated.
    MIDIHDR* begin() const { return headers; }
    MIDIHDR* end() const { return headers ? headers + size : nullptr; }

    bool hasData() const { return data != nullptr; }

    /// The header at `address`; null if it is not one of these. Safe on a callback's thread.
    MIDIHDR* find(DWORD address) const;

    /// Makes a header of this pool point at its buffer again. Does nothing without data.
    void attachBuffer(MIDIHDR* header) const;

    /// The buffer of a header of this pool, even if a driver has changed its lpData.
    unsigned char* buffer(const MIDIHDR* header) const;

private:
    const unsigned int size;
    std::atomic<MIDIHDR*> headers{nullptr};
    std::atomic<unsigned char*> data{nullptr};
    bool headersFromHeap = false;
};

/// A header's field that the driver's thread and one of ours access at the same time. To WinMM it
/// is a plain integer, so the atomic must have the same layout.
template <class Field>
std::atomic<Field>& atomicField(MIDIHDR* header, std::size_t offset)
{
    static_assert(sizeof(std::atomic<Field>) == sizeof(Field), "as large as the field itself");
    static_assert(std::atomic<Field>::is_always_lock_free, "no lock that the driver does not know");
    return *reinterpret_cast<std::atomic<Field>*>(reinterpret_cast<char*>(header) + offset);
}

inline std::atomic<DWORD>& flagsOf(MIDIHDR* header)
{
    return atomicField<DWORD>(header, offsetof(MIDIHDR, dwFlags));
}

inline std::atomic<DWORD_PTR>& userOf(MIDIHDR* header)
{
    return atomicField<DWORD_PTR>(header, offsetof(MIDIHDR, dwUser));
}

#endif
