// The process heap, low-address memory and COM task memory.
#include "SimInternal.h"

#include "objbase.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <limits>
#include <map>
#include <mutex>
#include <sanitizer/asan_interface.h>
#include <sys/mman.h>

namespace sim {
namespace internal {

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::uintptr_t kGranularity = 65536; // of what VirtualAlloc reserves
constexpr std::size_t kRedZone = 64;           // before and behind a heap block
constexpr std::size_t kQuarantine = 32;        // freed heap blocks that stay inaccessible
// More than this counts as out of memory, so that a sanitizer's allocator is not asked for it.
constexpr std::size_t kLargestTaskBlock = std::size_t(1) << 30;

// The pages of a block.
struct Pages
{
    void* begin;
    std::size_t length;
};

std::mutex memoryLock;                   // guards what follows
std::map<const void*, Pages> heapBlocks; // by the address given out
std::map<const void*, Pages> virtualBlocks;
std::deque<Pages> quarantine; // oldest first

std::atomic<int> taskBlocks{0};
std::atomic<bool> heapHigh{false};
std::atomic<bool> lowTaken{false};

// Of at least so many bytes; null if there are none.
Pages map(void* place, std::size_t bytes, int flags)
{
    const std::size_t length = (bytes + kPage - 1) / kPage * kPage;
    void* const begin =
        mmap(place, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | flags, -1, 0);
    return {begin == MAP_FAILED ? nullptr : begin, length};
}

void unmap(const Pages& pages)
{
    ASAN_UNPOISON_MEMORY_REGION(pages.begin, pages.length);
    munmap(pages.begin, pages.length);
}

} // namespace

void countMemory(Resources& resources)
{
    const std::lock_guard<std::mutex> guard(memoryLock);
    resources.heapBlocks = static_cast<int>(heapBlocks.size());
    resources.virtualBlocks = static_cast<int>(virtualBlocks.size());
    resources.taskBlocks = taskBlocks.load(std::memory_order_relaxed);
}

void resetMemory()
{
    for (auto* const blocks : {&heapBlocks, &virtualBlocks}) {
        for (const auto& [address, pages] : *blocks)
            unmap(pages);
        blocks->clear();
    }
    for (const Pages& pages : quarantine)
        unmap(pages);
    quarantine.clear();
    taskBlocks.store(0, std::memory_order_relaxed);
    setHeapHigh(false);
}

} // namespace internal

void setHeapHigh(bool high, bool nothingLow)
{
    internal::heapHigh.store(high, std::memory_order_relaxed);
    internal::lowTaken.store(nothingLow, std::memory_order_relaxed);
}

} // namespace sim

using namespace sim::internal;

static char processHeap; // its address is the handle

HANDLE GetProcessHeap(void)
{
    return Entry(SIM_FUNCTION(GetProcessHeap)).serve([] {
        return static_cast<HANDLE>(&processHeap);
    });
}

LPVOID HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes)
{
    return Entry(SIM_FUNCTION(HeapAlloc), heap, nullptr, flags, bytes).serve([&]() -> LPVOID {
        if (heap != &processHeap)
            stopWith("HeapAlloc: not the process heap");
        const int place = heapHigh.load(std::memory_order_relaxed) ? 0 : MAP_32BIT;
        const Pages pages = map(nullptr, bytes + 2 * kRedZone, place);
        if (!pages.begin)
            return nullptr;
        char* const block = static_cast<char*>(pages.begin) + kRedZone;
        if ((flags & HEAP_ZERO_MEMORY) == 0)
            std::memset(block, sim::kMemoryFill, bytes);
        ASAN_POISON_MEMORY_REGION(pages.begin, kRedZone);
        ASAN_POISON_MEMORY_REGION(block + bytes, pages.length - kRedZone - bytes);
        const std::lock_guard<std::mutex> guard(memoryLock);
        heapBlocks[block] = pages;
        return block;
    });
}

BOOL HeapFree(HANDLE, DWORD flags, LPVOID memory)
{
    return Entry(SIM_FUNCTION(HeapFree), memory, nullptr, flags).serve([&] {
        const std::lock_guard<std::mutex> guard(memoryLock);
        const auto freed = heapBlocks.extract(memory);
        if (!freed)
            stopWith("HeapFree: not a live heap block");
        // The pages lose their contents, but keep their place for a while.
        mmap(freed.mapped().begin, freed.mapped().length, PROT_NONE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
        quarantine.push_back(freed.mapped());
        if (quarantine.size() > kQuarantine) {
            unmap(quarantine.front());
            quarantine.pop_front();
        }
        return TRUE;
    });
}

// Reserves and commits in one step, at an address that the caller has found free.
LPVOID VirtualAlloc(LPVOID address, SIZE_T bytes, DWORD type, DWORD protection)
{
    return Entry(SIM_FUNCTION(VirtualAlloc), address, nullptr, bytes, type).serve([&]() -> LPVOID {
        if (!address || reinterpret_cast<std::uintptr_t>(address) % kGranularity != 0 ||
            type != (MEM_RESERVE | MEM_COMMIT) || protection != PAGE_READWRITE)
            stopWith("VirtualAlloc: reserves and commits at an aligned address only");
        const Pages pages = map(address, bytes, MAP_FIXED_NOREPLACE);
        if (!pages.begin)
            return nullptr;
        // The rest of the last page could be used on Windows, but nobody asked for it.
        ASAN_POISON_MEMORY_REGION(static_cast<char*>(address) + bytes, pages.length - bytes);
        const std::lock_guard<std::mutex> guard(memoryLock);
        virtualBlocks[address] = pages;
        return address;
    });
}

BOOL VirtualFree(LPVOID address, SIZE_T bytes, DWORD type)
{
    return Entry(SIM_FUNCTION(VirtualFree), address, nullptr, bytes, type).serve([&] {
        const std::lock_guard<std::mutex> guard(memoryLock);
        const auto freed = virtualBlocks.extract(address);
        if (type != MEM_RELEASE || bytes != 0 || !freed)
            stopWith("VirtualFree: not the release of a live block");
        unmap(freed.mapped());
        return TRUE;
    });
}

// Tells what is free and how far that goes.
SIZE_T VirtualQuery(LPCVOID address, PMEMORY_BASIC_INFORMATION information, SIZE_T length)
{
    return Entry(SIM_FUNCTION(VirtualQuery), address, nullptr, length).serve([&]() -> SIZE_T {
        const std::uintptr_t page = reinterpret_cast<std::uintptr_t>(address) / kPage * kPage;
        // The first mapping that ends behind it.
        std::uintptr_t begin = 0;
        std::uintptr_t end = lowTaken.load(std::memory_order_relaxed) ? std::uintptr_t(1) << 32 : 0;
        std::ifstream maps("/proc/self/maps");
        for (char dash; end <= page && maps >> std::hex >> begin >> dash >> end;)
            maps.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
        if (end <= page)
            stopWith("VirtualQuery: beyond all memory");
        const bool isFree = page < begin;
        *information = {};
        information->BaseAddress = reinterpret_cast<void*>(page);
        information->RegionSize = (isFree ? begin : end) - page;
        information->State = isFree ? MEM_FREE : MEM_COMMIT;
        return sizeof *information;
    });
}

// The C library's heap below, so that AddressSanitizer and LeakSanitizer watch task memory.
LPVOID CoTaskMemAlloc(SIZE_T bytes)
{
    return Entry(SIM_FUNCTION(CoTaskMemAlloc), nullptr, nullptr, bytes).serve([&] {
        void* const memory = bytes <= kLargestTaskBlock ? std::malloc(bytes) : nullptr;
        if (memory) {
            std::memset(memory, sim::kMemoryFill, bytes);
            taskBlocks.fetch_add(1, std::memory_order_relaxed);
        }
        return memory;
    });
}

void CoTaskMemFree(LPVOID memory)
{
    const Entry entry(SIM_FUNCTION(CoTaskMemFree), memory);
    if (memory)
        taskBlocks.fetch_sub(1, std::memory_order_relaxed);
    std::free(memory);
}
