// In place of the C library's allocation functions, over the same allocator: operator new and Qt's
// containers end up here, in every library of the process.

#include "bench/Bench.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <malloc.h>
#include <sys/mman.h>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}

// Blocks of this size and more are large: about where Windows' heaps draw the line, and more than
// the record queue.
static const int kLargeBlock = 1024 * 1024;

static const std::size_t kStoreBytes = std::size_t(256) << 20;

static thread_local std::uint64_t allocated = 0;

// The memory of the one large block of a benchmark that has it kept. One thread at a time.
static void* store = nullptr;
static bool storeTaken = false;

static void* takeStore(std::size_t size)
{
    if (!store || storeTaken || size < std::size_t(kLargeBlock) || size > kStoreBytes)
        return nullptr;
    storeTaken = true;
    return store;
}

std::uint64_t bench::allocations()
{
    return allocated;
}

void bench::letLargeBlocksComeFresh()
{
    // Left to itself the C library would begin to keep them, at some size and some moment. Of the
    // others it keeps the memory, up to the size of a large one.
    mallopt(M_MMAP_THRESHOLD, kLargeBlock);
    mallopt(M_TRIM_THRESHOLD, kLargeBlock);
}

bench::KeptMemory::KeptMemory()
{
    static void* const memory = mmap(nullptr, kStoreBytes, PROT_READ | PROT_WRITE,
                                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    store = memory == MAP_FAILED ? nullptr : memory;
}

bench::KeptMemory::~KeptMemory()
{
    store = nullptr;
}

bool bench::KeptMemory::isReady() const
{
    return store != nullptr;
}

extern "C" {

void* malloc(std::size_t size)
{
    ++allocated;
    void* const kept = takeStore(size);
    return kept ? kept : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size)
{
    ++allocated;
    return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size)
{
    ++allocated;
    if (block && block == store)
        return size <= kStoreBytes ? block : nullptr;
    void* const kept = takeStore(size);
    if (!kept)
        return __libc_realloc(block, size);
    if (block)
        std::memcpy(kept, block, std::min(size, malloc_usable_size(block)));
    __libc_free(block);
    return kept;
}

void free(void* block)
{
    if (block && block == store)
        storeTaken = false;
    else
        __libc_free(block);
}

void* memalign(std::size_t alignment, std::size_t size)
{
    ++allocated;
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size)
{
    return memalign(alignment, size);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size)
{
    *block = memalign(alignment, size);
    return *block ? 0 : ENOMEM;
}
}
