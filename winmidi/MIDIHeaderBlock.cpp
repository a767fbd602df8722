#include "winmidi/MIDIHeaderBlock.h"

#include <algorithm>
#include <cstdint>

static const std::uintptr_t kLowLimit = std::uintptr_t(1) << 32;

// VirtualAlloc's granularity of addresses. The first unit is never allocated.
static const std::uintptr_t kGranularity = 0x10000;

static bool liesLow(const void* block, std::size_t bytes)
{
    return reinterpret_cast<std::uintptr_t>(block) + bytes <= kLowLimit;
}

// Zero-filled pages below 4 GB, from the first free region that is large enough; null if there is
// none. For a process whose heap is higher, as usual in 64 bits.
static void* allocateLowPages(std::size_t bytes)
{
    std::uintptr_t address = kGranularity;
    MEMORY_BASIC_INFORMATION region;
    while (address + bytes <= kLowLimit &&
           VirtualQuery(reinterpret_cast<void*>(address), &region, sizeof region) != 0) {
        const std::uintptr_t regionEnd =
            reinterpret_cast<std::uintptr_t>(region.BaseAddress) + region.RegionSize;
        if (region.State == MEM_FREE && address + bytes <= std::min(regionEnd, kLowLimit)) {
            void* const pages = VirtualAlloc(reinterpret_cast<void*>(address), bytes,
                                             MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
            if (pages)
                return pages;
            address += kGranularity; // another thread was faster; continue after it
        } else {
            address = (regionEnd + kGranularity - 1) / kGranularity * kGranularity;
        }
    }
    return nullptr;
}

MIDIHeaderBlock::~MIDIHeaderBlock()
{
    freeData();
    freeHeaders();
}

bool MIDIHeaderBlock::allocateHeaders()
{
    const std::size_t bytes = size * sizeof(MIDIHDR);
    void* block = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, bytes);
    headersFromHeap = block && liesLow(block, bytes);
    if (block && !headersFromHeap) {
        HeapFree(GetProcessHeap(), 0, block);
        block = allocateLowPages(bytes);
    }
    headers = static_cast<MIDIHDR*>(block);
    return headers != nullptr;
}

bool MIDIHeaderBlock::allocateData()
{
    data = static_cast<unsigned char*>(
        HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, std::size_t(size) * kBufferSize));
    if (!data)
        return false;
    for (MIDIHDR& header : *this)
        attachBuffer(&header);
    return true;
}

void MIDIHeaderBlock::freeData()
{
    if (unsigned char* const block = data.exchange(nullptr))
        HeapFree(GetProcessHeap(), 0, block);
}

void MIDIHeaderBlock::freeHeaders()
{
    MIDIHDR* const block = headers.exchange(nullptr);
    if (block && headersFromHeap)
        HeapFree(GetProcessHeap(), 0, block);
    else if (block)
        VirtualFree(block, 0, MEM_RELEASE);
}

void MIDIHeaderBlock::abandon()
{
    headers = nullptr;
    data = nullptr;
    if (allocateHeaders())
        allocateData();
}

MIDIHDR* MIDIHeaderBlock::find(DWORD address) const
{
    MIDIHDR* const first = headers;
    // An address below the first header wraps to an offset far beyond the last one.
    const std::uintptr_t offset = address - reinterpret_cast<std::uintptr_t>(first);
    if (!first || !data || offset >= size * sizeof(MIDIHDR) || offset % sizeof(MIDIHDR) != 0)
        return nullptr;
    return first + offset / sizeof(MIDIHDR);
}

void MIDIHeaderBlock::attachBuffer(MIDIHDR* header) const
{
    if (!data)
        return;
    header->lpData = reinterpret_cast<LPSTR>(buffer(header));
    header->dwBufferLength = kBufferSize;
}

unsigned char* MIDIHeaderBlock::buffer(const MIDIHDR* header) const
{
    return data + (header - headers) * std::ptrdiff_t(kBufferSize);
}
