#include "tests/unit/OutOfMemory.h"

#include <cstdlib>
#include <new>

enum class Shortage { none, always, once };

static thread_local Shortage shortage = Shortage::none;
static thread_local unsigned untilShortage = 0;
static thread_local bool failed = false;

OutOfMemory::OutOfMemory(unsigned onlyNth)
{
    shortage = onlyNth == 0 ? Shortage::always : Shortage::once;
    untilShortage = onlyNth;
    failed = false;
}

OutOfMemory::~OutOfMemory()
{
    shortage = Shortage::none;
}

bool OutOfMemory::met()
{
    return failed;
}

static bool failsNow()
{
    if (shortage == Shortage::none || (shortage == Shortage::once && --untilShortage > 0))
        return false;
    if (shortage == Shortage::once)
        shortage = Shortage::none;
    failed = true;
    return true;
}

// In place of the program's allocation functions; the array and nothrow forms end up here too.
void* operator new(std::size_t size)
{
    void* const block = failsNow() ? nullptr : std::malloc(size);
    if (!block)
        throw std::bad_alloc();
    return block;
}

void* operator new[](std::size_t size)
{
    return operator new(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept
{
    return operator new(size, tag);
}

void operator delete(void* block) noexcept
{
    std::free(block);
}

void operator delete[](void* block) noexcept
{
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept
{
    std::free(block);
}

void operator delete[](void* block, std::size_t) noexcept
{
    std::free(block);
}

// ThreadSanitizer calls it before its own is ready. Not on Windows, where a DLL has the C
// library's.
#if !defined(LUMORA_THREAD_SANITIZER) && !defined(_WIN32)

#if defined(LUMORA_ADDRESS_SANITIZER)
extern "C" void* __interceptor_realloc(void* block, std::size_t size);
#else
#include <dlfcn.h>
#endif

// Where Qt's containers grow. In place of the C library's, for Qt's own calls, too.
extern "C" void* realloc(void* block, std::size_t size)
{
#if defined(LUMORA_ADDRESS_SANITIZER)
    auto* const original = &__interceptor_realloc;
#else
    using Realloc = void*(void*, std::size_t);
    static auto* const original = reinterpret_cast<Realloc*>(dlsym(RTLD_NEXT, "realloc"));
#endif
    return shortage == Shortage::always && failsNow() ? nullptr : original(block, size);
}

#endif
