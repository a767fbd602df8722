// The process heap, low-address memory and COM task memory.
#include "SimInternal.h"

#include "objbase.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iterator>
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
    std::uintptr_t address; // what was given out
    std::uintptr_t mapping; // where the pages begin, guard pages included
    std::size_t mapped;     // their length
    std::size_t size;       // what was asked for
    bool fromHeap;
};

std::mutex memoryLock;                  // guards blocks and quarantine
std::map<std::uintptr_t, Block> blocks; // by address
std::deque<Block> quarantine;
std::size_t quarantined = 0;

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

// The block whose memory holds the address, or blocks.end(). memoryLock is held.
std::map<std::uintptr_t, Block>::iterator blockAround(std::uintptr_t address)
{
    const auto next = blocks.upper_bound(address);
    if (next == blocks.begin())
        return blocks.end();
    const auto block = std::prev(next);
    return address - block->first < block->second.size ? block : blocks.end();
}

bool isAddressBetween(std::uintptr_t address, std::uintptr_t begin, std::uintptr_t end)
{
    return address >= begin && address < end;
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
    std::FILE* const maps = std::fopen("/proc/self/maps", "r");
    if (!maps)
        stopWith("cannot read /proc/self/maps");
    char line[512];
    while (std::fgets(line, sizeof line, maps)) {
        char* rest = nullptr;
        const std::uintptr_t begin = std::strtoull(line, &rest, 16);
        const std::uintptr_t end = *rest == '-' ? std::strtoull(rest + 1, nullptr, 16) : 0;
        if (end <= begin)
            continue; // the tail of an overlong line
        if (isAddressBetween(address, begin, end)) {
            region = {begin, end, false};
            break;
        }
        if (begin > address) {
            region.end = std::min(region.end, begin);
            break;
        }
        region.begin = end;
    }
    std::fclose(maps);
    return region;
}

} // namespace

int positionInBlock(std::uint64_t address, std::size_t size)
{
    const std::lock_guard<std::mutex> guard(memoryLock);
    std::uintptr_t begin = 0;
    const auto live = blockAround(address);
    if (live != blocks.end()) {
        begin = live->first;
    } else {
        const auto freed =
            std::find_if(quarantine.rbegin(), quarantine.rend(),
                         [&](const Block& block) { return address - block.address < block.size; });
        if (freed != quarantine.rend())
            begin = freed->address;
    }
    if (begin == 0 || (address - begin) % size != 0)
        return -1;
    return static_cast<int>((address - begin) / size);
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
    for (const Block& block : quarantine)
        unmap(block);
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

using sim::internal::Entry;
using sim::internal::Function;

// Any address will do that nothing else has and that a test recognises.
static HANDLE processHeap()
{
    static char heap;
    return &heap;
}

HANDLE GetProcessHeap(void)
{
    Entry entry(Function::GetProcessHeap);
    return entry.fails() ? entry.fail<HANDLE>() : entry.returns(processHeap());
}

LPVOID HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes)
{
    using namespace sim::internal;
    Entry entry(Function::HeapAlloc, heap, nullptr, flags, bytes);
    if (entry.fails())
        return entry.fail<LPVOID>();
    if (heap != processHeap())
        stopWith("HeapAlloc: not the process heap");

    // [guard page] [slack, poisoned] [block] [tail below 16 bytes, poisoned] [guard page]
    const std::size_t occupied = roundUp(bytes, kHeapAlignment);
    const std::size_t accessible = roundUp(std::max<std::size_t>(occupied, 1), kPage);
    const std::size_t mapped = accessible + 2 * kPage;
    const int place = heapHigh.load(std::memory_order_relaxed) ? 0 : MAP_32BIT;
    void* const mapping =
        mmap(nullptr, mapped, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | place, -1, 0);
    if (mapping == MAP_FAILED) {
        setLastError(ERROR_NOT_ENOUGH_MEMORY);
        return entry.returns(LPVOID{});
    }
    const std::uintptr_t begin = addressOf(mapping) + kPage;
    const std::uintptr_t end = begin + accessible;
    const std::uintptr_t block = end - occupied;
    mprotect(pointerTo(begin), accessible, PROT_READ | PROT_WRITE);
    if ((flags & HEAP_ZERO_MEMORY) == 0)
        std::memset(pointerTo(block), sim::kMemoryFill, bytes);
    ASAN_POISON_MEMORY_REGION(pointerTo(begin), block - begin);
    ASAN_POISON_MEMORY_REGION(pointerTo(block + bytes), occupied - bytes);
    {
        const std::lock_guard<std::mutex> guard(memoryLock);
        blocks[block] = {block, addressOf(mapping), mapped, bytes, true};
    }
    heapBlocks.fetch_add(1, std::memory_order_relaxed);
    return entry.returns(pointerTo(block));
}

BOOL HeapFree(HANDLE heap, DWORD flags, LPVOID memory)
{
    using namespace sim::internal;
    Entry entry(Function::HeapFree, memory, nullptr, flags);
    if (entry.fails())
        return entry.fail<BOOL>();
    if (heap != processHeap())
        stopWith("HeapFree: not the process heap");
    if (!memory)
        return entry.returns(TRUE);

    const std::lock_guard<std::mutex> guard(memoryLock);
    const auto found = blocks.find(addressOf(memory));
    if (found == blocks.end() || !found->second.fromHeap)
        stopWith("HeapFree: not a live heap block");
    const Block block = found->second;
    blocks.erase(found);
    heapBlocks.fetch_sub(1, std::memory_order_relaxed);

    // The pages lose their contents, but keep their place for a while.
    mmap(pointerTo(block.mapping), block.mapped, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED,
         -1, 0);
    ASAN_POISON_MEMORY_REGION(pointerTo(block.mapping), block.mapped);
    quarantine.push_back(block);
    quarantined += block.mapped;
    while (quarantined > kQuarantineBytes) {
        quarantined -= quarantine.front().mapped;
        unmap(quarantine.front());
        quarantine.pop_front();
    }
    return entry.returns(TRUE);
}

LPVOID VirtualAlloc(LPVOID address, SIZE_T bytes, DWORD type, DWORD protection)
{
    using namespace sim::internal;
    Entry entry(Function::VirtualAlloc, address, nullptr, bytes, type);
    if (entry.fails())
        return entry.fail<LPVOID>();
    // Reserving and committing in one step is all that is offered.
    const DWORD both = MEM_RESERVE | MEM_COMMIT;
    if (bytes == 0 || (type & both) != both || protection != PAGE_READWRITE) {
        setLastError(ERROR_INVALID_PARAMETER);
        return entry.returns(LPVOID{});
    }
    const std::uintptr_t wanted = addressOf(address) / kGranularity * kGranularity;
    const bool low = address && wanted < kFourGigabytes;
    if (address && (wanted < kLowestAddress || wanted > kHighestAddress ||
                    (low && lowRangeOccupied.load(std::memory_order_relaxed)))) {
        setLastError(ERROR_INVALID_ADDRESS);
        return entry.returns(LPVOID{});
    }
    const std::size_t asked = bytes + (addressOf(address) - wanted);
    const std::size_t mapped = roundUp(asked, kPage);
    void* mapping = MAP_FAILED;
    if (address) {
        mapping = mmap(pointerTo(wanted), mapped, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    } else {
        // An aligned piece is cut from a larger one.
        const std::size_t spare = mapped + kGranularity;
        void* const whole =
            mmap(nullptr, spare, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (whole != MAP_FAILED) {
            const std::uintptr_t aligned = roundUp(addressOf(whole), kGranularity);
            const std::size_t front = aligned - addressOf(whole);
            if (front > 0)
                munmap(whole, front);
            munmap(pointerTo(aligned + mapped), spare - front - mapped);
            mapping = pointerTo(aligned);
        }
    }
    if (mapping == MAP_FAILED) {
        setLastError(address ? ERROR_INVALID_ADDRESS : ERROR_NOT_ENOUGH_MEMORY);
        return entry.returns(LPVOID{});
    }
    // The rest of the last page could be used on Windows, but nobody asked for it.
    ASAN_POISON_MEMORY_REGION(pointerTo(addressOf(mapping) + asked), mapped - asked);
    {
        const std::lock_guard<std::mutex> guard(memoryLock);
        blocks[addressOf(mapping)] = {addressOf(mapping), addressOf(mapping), mapped, asked, false};
    }
    virtualBlocks.fetch_add(1, std::memory_order_relaxed);
    return entry.returns(mapping);
}

BOOL VirtualFree(LPVOID address, SIZE_T bytes, DWORD type)
{
    using namespace sim::internal;
    Entry entry(Function::VirtualFree, address, nullptr, bytes, type);
    if (entry.fails())
        return entry.fail<BOOL>();
    const std::lock_guard<std::mutex> guard(memoryLock);
    const auto found = blocks.find(addressOf(address));
    if (type != MEM_RELEASE || bytes != 0 || found == blocks.end() || found->second.fromHeap) {
        setLastError(type != MEM_RELEASE || bytes != 0 ? ERROR_INVALID_PARAMETER
                                                       : ERROR_INVALID_ADDRESS);
        return entry.returns(FALSE);
    }
    unmap(found->second);
    blocks.erase(found);
    virtualBlocks.fetch_sub(1, std::memory_order_relaxed);
    return entry.returns(TRUE);
}

SIZE_T VirtualQuery(LPCVOID address, PMEMORY_BASIC_INFORMATION information, SIZE_T length)
{
    using namespace sim::internal;
    Entry entry(Function::VirtualQuery, address, nullptr, length);
    if (entry.fails())
        return entry.fail<SIZE_T>();
    const std::uintptr_t page = addressOf(address) / kPage * kPage;
    if (!information || length < sizeof *information || page > kHighestAddress) {
        setLastError(ERROR_INVALID_PARAMETER);
        return entry.returns(SIZE_T{0});
    }
    Region region{0, kFourGigabytes, false};
    if (page >= kFourGigabytes || !lowRangeOccupied.load(std::memory_order_relaxed))
        region = regionAround(page);
    *information = {};
    information->BaseAddress = pointerTo(page);
    information->RegionSize = region.end - page;
    if (region.isFree) {
        information->State = MEM_FREE;
        information->Protect = PAGE_NOACCESS;
    } else {
        information->AllocationBase = pointerTo(region.begin);
        information->AllocationProtect = PAGE_READWRITE;
        information->State = MEM_COMMIT;
        information->Protect = PAGE_READWRITE;
        information->Type = MEM_PRIVATE;
    }
    return entry.returns(SIZE_T{sizeof *information});
}

void GetSystemInfo(LPSYSTEM_INFO information)
{
    using namespace sim::internal;
    Entry entry(Function::GetSystemInfo);
    *information = {};
    information->dwPageSize = kPage;
    information->lpMinimumApplicationAddress = pointerTo(kLowestAddress);
    information->lpMaximumApplicationAddress = pointerTo(kHighestAddress);
    information->dwNumberOfProcessors = 1;
    information->dwActiveProcessorMask = 1;
    information->dwAllocationGranularity = kGranularity;
}

// The C library's heap below, so that AddressSanitizer and LeakSanitizer watch task memory.
LPVOID CoTaskMemAlloc(SIZE_T bytes)
{
    using namespace sim::internal;
    Entry entry(Function::CoTaskMemAlloc, nullptr, nullptr, bytes);
    if (entry.fails())
        return entry.fail<LPVOID>();
    void* const memory = bytes <= kLargestTaskBlock ? std::malloc(bytes) : nullptr;
    if (memory) {
        std::memset(memory, sim::kMemoryFill, bytes);
        taskBlocks.fetch_add(1, std::memory_order_relaxed);
    }
    return entry.returns(memory);
}

void CoTaskMemFree(LPVOID memory)
{
    using namespace sim::internal;
    Entry entry(Function::CoTaskMemFree, memory);
    if (memory)
        taskBlocks.fetch_sub(1, std::memory_order_relaxed);
    std::free(memory);
}
