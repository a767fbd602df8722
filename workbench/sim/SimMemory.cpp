// The process heap, low-address memory and COM task memory.
#include "SimInternal.h"

#include "objbase.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <mutex>
#include <sys/mman.h>

#ifdef SIM_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) ((void)(address), (void)(size))
#endif

namespace sim {
namespace internal {

namespace {

constexpr std::uintptr_t kPage = 4096;
constexpr std::uintptr_t kGranularity = 65536;
constexpr std::uintptr_t kFourGigabytes = std::uintptr_t(1) << 32;
constexpr std::uintptr_t kLowestAddress = 0x10000;
constexpr std::uintptr_t kHighestAddress = 0x7FFFFFFEFFFF;
constexpr std::uintptr_t kHeapAlignment = 16;
// More than this counts as out of memory, so that a sanitizer's allocator is not asked for it.
constexpr std::size_t kLargestTaskBlock = std::size_t(1) << 30;
// Freed memory that is kept inaccessible, so that a late access stops the program.
constexpr std::size_t kQuarantineBytes = std::size_t(64) << 20;

constexpr std::uintptr_t roundUp(std::uintptr_t value, std::uintptr_t unit)
{
    return (value + unit - 1) / unit * unit;
}

std::uintptr_t addressOf(const void* pointer)
{
    return reinterpret_cast<std::uintptr_t>(pointer);
}

void* pointerTo(std::uintptr_t address)
{
    return reinterpret_cast<void*>(address);
}

struct Block
{
    std::uintptr_t mapping; // where the pages begin, guard pages included
    std::size_t mapped;     // their length
    std::size_t size;       // what was asked for
    enum { Heap, Pages, Freed } state;
};

std::mutex memoryLock;                  // guards what follows
std::map<std::uintptr_t, Block> blocks; // by the address given out; of the freed, the latest
std::deque<std::uintptr_t> quarantine;  // freed heap blocks, oldest first
std::size_t quarantined = 0;            // bytes mapped for them

std::atomic<int> heapBlocks{0};
std::atomic<int> virtualBlocks{0};
std::atomic<int> taskBlocks{0};
std::atomic<bool> heapHigh{false};
std::atomic<bool> lowRangeOccupied{false};

void unmap(const Block& block)
{
    ASAN_UNPOISON_MEMORY_REGION(pointerTo(block.mapping), block.mapped);
    munmap(pointerTo(block.mapping), block.mapped);
}

// The stretch of the process' address space around the address: as much of it as is mapped, or as
// much as is free.
struct Region
{
    std::uintptr_t begin;
    std::uintptr_t end;
    bool isFree;
};

Region regionAround(std::uintptr_t address)
{
    Region region{0, kHighestAddress + 1, true};
    std::ifstream maps("/proc/self/maps");
    if (!maps)
        stopWith("cannot read /proc/self/maps");
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    for (char dash; maps >> std::hex >> begin >> dash >> end;) {
        if (address < begin) {
            region.end = std::min(region.end, begin);
            break;
        }
        if (address < end)
            return {begin, end, false};
        region.begin = end;
        maps.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return region;
}

} // namespace

int positionInBlock(std::uint64_t address, std::size_t size)
{
    const std::lock_guard<std::mutex> guard(memoryLock);
    const auto next = blocks.upper_bound(address);
    if (next == blocks.begin())
        return -1;
    const auto& [begin, block] = *std::prev(next);
    const std::size_t offset = address - begin;
    return offset < block.size && offset % size == 0 ? static_cast<int>(offset / size) : -1;
}

void countMemory(Resources& resources)
{
    resources.heapBlocks = heapBlocks.load(std::memory_order_relaxed);
    resources.virtualBlocks = virtualBlocks.load(std::memory_order_relaxed);
    resources.taskBlocks = taskBlocks.load(std::memory_order_relaxed);
}

void resetMemory()
{
    const std::lock_guard<std::mutex> guard(memoryLock);
    for (const auto& block : blocks)
        unmap(block.second);
    blocks.clear();
    quarantine.clear();
    quarantined = 0;
    heapBlocks.store(0, std::memory_order_relaxed);
    virtualBlocks.store(0, std::memory_order_relaxed);
    taskBlocks.store(0, std::memory_order_relaxed);
    heapHigh.store(false, std::memory_order_relaxed);
    lowRangeOccupied.store(false, std::memory_order_relaxed);
}

} // namespace internal

using namespace internal;

void setHeapHigh(bool high)
{
    heapHigh.store(high, std::memory_order_relaxed);
}

void setLowRangeOccupied(bool occupied)
{
    lowRangeOccupied.store(occupied, std::memory_order_relaxed);
}

} // namespace sim

using namespace sim::internal;

// Any address will do that nothing else has and that a test recognises.
static HANDLE processHeap()
{
    static char heap;
    return &heap;
}

HANDLE GetProcessHeap(void)
{
    return Entry(Function::GetProcessHeap).serve([] { return processHeap(); });
}

static void* heapAlloc(DWORD flags, SIZE_T bytes)
{
    // [guard page] [slack, poisoned] [block] [tail below 16 bytes, poisoned] [guard page]
    const std::size_t occupied = roundUp(bytes, kHeapAlignment);
    const std::size_t accessible = roundUp(std::max<std::size_t>(occupied, 1), kPage);
    const std::size_t mapped = accessible + 2 * kPage;
    const int place = heapHigh.load(std::memory_order_relaxed) ? 0 : MAP_32BIT;
    void* const mapping =
        mmap(nullptr, mapped, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | place, -1, 0);
    if (mapping == MAP_FAILED) {
        setLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    const std::uintptr_t begin = addressOf(mapping) + kPage;
    const std::uintptr_t end = begin + accessible;
    const std::uintptr_t block = end - occupied;
    mprotect(pointerTo(begin), accessible, PROT_READ | PROT_WRITE);
    if ((flags & HEAP_ZERO_MEMORY) == 0)
        std::memset(pointerTo(block), sim::kMemoryFill, bytes);
    ASAN_POISON_MEMORY_REGION(pointerTo(begin), block - begin);
    ASAN_POISON_MEMORY_REGION(pointerTo(block + bytes), occupied - bytes);
    const std::lock_guard<std::mutex> guard(memoryLock);
    blocks[block] = {addressOf(mapping), mapped, bytes, Block::Heap};
    heapBlocks.fetch_add(1, std::memory_order_relaxed);
    return pointerTo(block);
}

LPVOID HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes)
{
    return Entry(Function::HeapAlloc, heap, nullptr, flags, bytes).serve([&] {
        if (heap != processHeap())
            stopWith("HeapAlloc: not the process heap");
        return heapAlloc(flags, bytes);
    });
}

static void heapFree(void* memory)
{
    const std::lock_guard<std::mutex> guard(memoryLock);
    const auto found = blocks.find(addressOf(memory));
    if (found == blocks.end() || found->second.state != Block::Heap)
        stopWith("HeapFree: not a live heap block");
    Block& block = found->second;
    block.state = Block::Freed;
    heapBlocks.fetch_sub(1, std::memory_order_relaxed);

    // The pages lose their contents, but keep their place for a while.
    mmap(pointerTo(block.mapping), block.mapped, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED,
         -1, 0);
    ASAN_POISON_MEMORY_REGION(pointerTo(block.mapping), block.mapped);
    quarantine.push_back(found->first);
    quarantined += block.mapped;
    while (quarantined > kQuarantineBytes) {
        const auto oldest = blocks.find(quarantine.front());
        quarantine.pop_front();
        quarantined -= oldest->second.mapped;
        unmap(oldest->second);
        blocks.erase(oldest);
    }
}

BOOL HeapFree(HANDLE heap, DWORD flags, LPVOID memory)
{
    return Entry(Function::HeapFree, memory, nullptr, flags).serve([&] {
        if (heap != processHeap())
            stopWith("HeapFree: not the process heap");
        if (memory)
            heapFree(memory);
        return TRUE;
    });
}

// Reserves and commits in one step, at an address that the caller has found free.
LPVOID VirtualAlloc(LPVOID address, SIZE_T bytes, DWORD type, DWORD protection)
{
    return Entry(Function::VirtualAlloc, address, nullptr, bytes, type).serve([&]() -> LPVOID {
        const std::uintptr_t wanted = addressOf(address);
        if (wanted < kLowestAddress || wanted % kGranularity != 0 || bytes == 0 ||
            type != (MEM_RESERVE | MEM_COMMIT) || protection != PAGE_READWRITE)
            stopWith("VirtualAlloc: reserves and commits at an aligned address only");
        const std::size_t mapped = roundUp(bytes, kPage);
        void* mapping = MAP_FAILED;
        if (wanted >= kFourGigabytes || !lowRangeOccupied.load(std::memory_order_relaxed))
            mapping = mmap(address, mapped, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        if (mapping == MAP_FAILED) {
            setLastError(ERROR_INVALID_ADDRESS);
            return nullptr;
        }
        // The rest of the last page could be used on Windows, but nobody asked for it.
        ASAN_POISON_MEMORY_REGION(pointerTo(wanted + bytes), mapped - bytes);
        const std::lock_guard<std::mutex> guard(memoryLock);
        blocks[wanted] = {wanted, mapped, bytes, Block::Pages};
        virtualBlocks.fetch_add(1, std::memory_order_relaxed);
        return mapping;
    });
}

BOOL VirtualFree(LPVOID address, SIZE_T bytes, DWORD type)
{
    return Entry(Function::VirtualFree, address, nullptr, bytes, type).serve([&] {
        const std::lock_guard<std::mutex> guard(memoryLock);
        const auto found = blocks.find(addressOf(address));
        if (type != MEM_RELEASE || bytes != 0 || found == blocks.end() ||
            found->second.state != Block::Pages)
            stopWith("VirtualFree: not the release of a live block");
        unmap(found->second);
        blocks.erase(found);
        virtualBlocks.fetch_sub(1, std::memory_order_relaxed);
        return TRUE;
    });
}

// Tells what is free and how far that goes.
SIZE_T VirtualQuery(LPCVOID address, PMEMORY_BASIC_INFORMATION information, SIZE_T length)
{
    return Entry(Function::VirtualQuery, address, nullptr, length).serve([&]() -> SIZE_T {
        const std::uintptr_t page = addressOf(address) / kPage * kPage;
        if (length < sizeof *information || page > kHighestAddress) {
            setLastError(ERROR_INVALID_PARAMETER);
            return 0;
        }
        Region region{0, kFourGigabytes, false};
        if (page >= kFourGigabytes || !lowRangeOccupied.load(std::memory_order_relaxed))
            region = regionAround(page);
        *information = {};
        information->BaseAddress = pointerTo(page);
        information->RegionSize = region.end - page;
        information->State = region.isFree ? MEM_FREE : MEM_COMMIT;
        information->Protect = region.isFree ? PAGE_NOACCESS : PAGE_READWRITE;
        return sizeof *information;
    });
}

// The C library's heap below, so that AddressSanitizer and LeakSanitizer watch task memory.
LPVOID CoTaskMemAlloc(SIZE_T bytes)
{
    return Entry(Function::CoTaskMemAlloc, nullptr, nullptr, bytes).serve([&] {
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
    const Entry entry(Function::CoTaskMemFree, memory);
    if (memory)
        taskBlocks.fetch_sub(1, std::memory_order_relaxed);
    std::free(memory);
}
