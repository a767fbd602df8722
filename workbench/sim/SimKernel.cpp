// Events, waits and time.
#include "SimInternal.h"

#include "objbase.h"

#include <algorithm>
#include <chrono>
#include <linux/futex.h>
#include <mutex>
#include <sys/random.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace sim {
namespace internal {

namespace {

// ---- Events -------------------------------------------------------------------------------------

// An event is the word that its waiters sleep on, 1 when it is signalled. Setting is a release and
// a satisfied wait an acquire of that word, and that is all the order that an event gives: two
// threads that set the same event are not ordered by it.
using Event = std::atomic<std::uint32_t>;

// What a handle points to. Handles of one named event share the event.
struct HandleSlot
{
    std::atomic<Event*> event{nullptr}; // null: closed or never opened
    Event own{0};
};

// A handle is never used a second time before reset(), so that a stale one is always found out and
// a waiter whose handle is closed under it still waits on valid memory. All zero, and few enough
// for the compiler to see that, so that the kernel backs only what is used.
constexpr std::size_t kHandleSlots = std::size_t(1) << 17;
HandleSlot slots[kHandleSlots];
std::atomic<std::size_t> slotsUsed{0};
std::atomic<int> openHandles{0};

// An open handle of an event that has a name.
struct NamedEvent
{
    std::u16string name;
    Event* event;
};

std::mutex namesLock; // guards namedEvents
std::vector<NamedEvent> namedEvents;

// Null if the handle is not open.
Event* eventOf(HANDLE handle)
{
    auto* const slot = static_cast<HandleSlot*>(handle);
    return slot ? slot->event.load(std::memory_order_relaxed) : nullptr;
}

// INFINITE is 49 days.
DWORD waitFor(HANDLE handle, DWORD milliseconds)
{
    Event* const event = eventOf(handle);
    if (!event)
        return WAIT_FAILED;
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
        std::uint32_t expected = 1;
        if (event->compare_exchange_strong(expected, 0, std::memory_order_acquire,
                                           std::memory_order_relaxed))
            return WAIT_OBJECT_0;
        const std::int64_t left = std::chrono::nanoseconds(end - Clock::now()).count();
        if (left <= 0)
            return WAIT_TIMEOUT;
        const timespec timeout{left / 1'000'000'000, left % 1'000'000'000};
        syscall(SYS_futex, event, FUTEX_WAIT_PRIVATE, 0, &timeout, nullptr, 0);
    }
}

// ---- Time ---------------------------------------------------------------------------------------

std::atomic<bool> virtualTime{false};
std::atomic<std::uint32_t> virtualNow{0}; // wraps like timeGetTime
std::atomic<int> sleepError{0};

} // namespace

DWORD now()
{
    if (virtualTime.load(std::memory_order_relaxed))
        return virtualNow.load(std::memory_order_relaxed);
    return static_cast<DWORD>(device::steadyMicroseconds() / 1000);
}

void countKernel(Resources& resources)
{
    resources.handles = openHandles.load(std::memory_order_relaxed);
}

void resetKernel()
{
    const std::size_t used = slotsUsed.load(std::memory_order_relaxed);
    for (std::size_t i = 0; i < used; ++i) {
        HandleSlot& slot = slots[i];
        slot.event.store(nullptr, std::memory_order_relaxed);
        slot.own.store(0, std::memory_order_relaxed);
    }
    slotsUsed.store(0, std::memory_order_relaxed);
    openHandles.store(0, std::memory_order_relaxed);
    namedEvents.clear();
    virtualTime.store(false, std::memory_order_relaxed);
    sleepError.store(0, std::memory_order_relaxed);
}

} // namespace internal

using namespace internal;

void useVirtualTime(DWORD start)
{
    virtualNow.store(start, std::memory_order_relaxed);
    virtualTime.store(true, std::memory_order_relaxed);
}

void setSleepError(int milliseconds)
{
    sleepError.store(milliseconds, std::memory_order_relaxed);
}

std::vector<std::u16string> eventNames()
{
    const std::lock_guard<std::mutex> guard(namesLock);
    std::vector<std::u16string> names;
    for (const NamedEvent& named : namedEvents)
        names.push_back(named.name);
    return names;
}

bool isSignalled(HANDLE handle)
{
    const Event* const event = eventOf(handle);
    if (!event)
        stopWith("isSignalled: not an open event");
    return event->load() == 1;
}

} // namespace sim

using namespace sim::internal;

// Auto-reset events only.
HANDLE CreateEventW(LPSECURITY_ATTRIBUTES, BOOL manualReset, BOOL initialState, LPCWSTR name)
{
    Entry entry(SIM_FUNCTION(CreateEventW), nullptr, nullptr, manualReset != FALSE,
                initialState != FALSE);
    return entry.serve([&] {
        const std::size_t index = slotsUsed.fetch_add(1, std::memory_order_relaxed);
        if (manualReset)
            stopWith("there are no manual-reset events");
        if (index >= kHandleSlots)
            stopWith("out of handles; reset() makes them anew");
        HandleSlot& slot = slots[index];
        slot.own.store(initialState != FALSE, std::memory_order_relaxed);
        Event* event = &slot.own;
        if (name && *name) {
            const std::lock_guard<std::mutex> guard(namesLock);
            const auto named =
                std::find_if(namedEvents.begin(), namedEvents.end(),
                             [&](const NamedEvent& candidate) { return candidate.name == name; });
            if (named != namedEvents.end())
                event = named->event;
            namedEvents.push_back({name, event});
        }
        slot.event.store(event, std::memory_order_relaxed);
        openHandles.fetch_add(1, std::memory_order_relaxed);
        return static_cast<HANDLE>(&slot);
    });
}

BOOL CloseHandle(HANDLE handle)
{
    return Entry(SIM_FUNCTION(CloseHandle), handle).serve([&] {
        const Event* const event = eventOf(handle);
        if (!event)
            return FALSE;
        static_cast<HandleSlot*>(handle)->event.store(nullptr, std::memory_order_relaxed);
        openHandles.fetch_sub(1, std::memory_order_relaxed);
        const std::lock_guard<std::mutex> guard(namesLock);
        const auto named =
            std::find_if(namedEvents.begin(), namedEvents.end(),
                         [&](const NamedEvent& candidate) { return candidate.event == event; });
        if (named != namedEvents.end())
            namedEvents.erase(named);
        return TRUE;
    });
}

BOOL SetEvent(HANDLE handle)
{
    return Entry(SIM_FUNCTION(SetEvent), handle).serve([&] {
        Event* const event = eventOf(handle);
        // Whoever found it unsignalled wakes a waiter; a second signal has nobody more to wake.
        if (event && event->exchange(1, std::memory_order_release) == 0)
            syscall(SYS_futex, event, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
        return event != nullptr;
    });
}

BOOL ResetEvent(HANDLE handle)
{
    return Entry(SIM_FUNCTION(ResetEvent), handle).serve([&] {
        Event* const event = eventOf(handle);
        if (event)
            event->store(0, std::memory_order_relaxed);
        return event != nullptr;
    });
}

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds)
{
    Entry entry(SIM_FUNCTION(WaitForSingleObject), handle, nullptr, milliseconds);
    return entry.serve([&] { return waitFor(handle, milliseconds); }, WAIT_FAILED);
}

// For one object only.
DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL, DWORD milliseconds)
{
    if (count != 1)
        stopWith("WaitForMultipleObjects: for one object only");
    Entry entry(SIM_FUNCTION(WaitForMultipleObjects), *handles, nullptr, count, milliseconds);
    return entry.serve([&] { return waitFor(*handles, milliseconds); }, WAIT_FAILED);
}

// One module, which is never unloaded.
BOOL GetModuleHandleExW(DWORD flags, LPCWSTR name, HMODULE* module)
{
    return Entry(SIM_FUNCTION(GetModuleHandleExW), name, nullptr, flags).serve([&] {
        *module = reinterpret_cast<HMODULE>(std::uintptr_t(1) << 16);
        return TRUE;
    });
}

// Why a call failed is not kept, as nobody looks.
DWORD GetLastError(void)
{
    return Entry(SIM_FUNCTION(GetLastError)).serve([] { return DWORD(0); });
}

void Sleep(DWORD milliseconds)
{
    const Entry entry(SIM_FUNCTION(Sleep), nullptr, nullptr, milliseconds);
    if (milliseconds > 0 && virtualTime.load(std::memory_order_relaxed)) {
        const std::int64_t passed =
            std::int64_t(milliseconds) + sleepError.load(std::memory_order_relaxed);
        virtualNow.fetch_add(static_cast<DWORD>(std::max<std::int64_t>(passed, 1)),
                             std::memory_order_relaxed);
        milliseconds = 0;
    }
    if (milliseconds == 0)
        std::this_thread::yield();
    else
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

DWORD timeGetTime(void)
{
    return Entry(SIM_FUNCTION(timeGetTime)).serve([] { return now(); });
}

HRESULT CoCreateGuid(GUID* guid)
{
    const auto make = [&] {
        if (getrandom(guid, sizeof *guid, 0) != static_cast<ssize_t>(sizeof *guid))
            stopWith("no random bytes for a GUID");
        return S_OK;
    };
    return Entry(SIM_FUNCTION(CoCreateGuid)).serve(make, DWORD(E_FAIL));
}
