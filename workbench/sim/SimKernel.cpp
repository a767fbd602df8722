// Events, waits and time.
#include "SimInternal.h"

#include "objbase.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <linux/futex.h>
#include <memory>
#include <mutex>
#include <ostream>
#include <sched.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <thread>
#include <time.h>
#include <unistd.h>

namespace sim {
namespace internal {

namespace {

thread_local DWORD lastError = 0;

// ---- Events -------------------------------------------------------------------------------------

// An event is the word that its waiters sleep on. Setting is a release and a satisfied wait an
// acquire of that word, and that is all the order that an event gives: two threads that set the
// same event are not ordered by it.
struct Event
{
    std::atomic<std::uint32_t> signalled;
    std::atomic<std::uint32_t> manualReset;
};

// An open handle. Handles of one named event share the event.
struct HandleSlot
{
    std::atomic<Event*> event; // null: closed or never opened
    Event own;
};

// A handle value is never used a second time before reset(), so that a stale one is always found
// out and a waiter whose handle is closed under it still waits on valid memory.
constexpr std::size_t kHandleSlots = std::size_t(1) << 21;
std::atomic<std::size_t> slotsUsed{0};
std::atomic<int> openHandles{0};

HandleSlot* handleSlots()
{
    static HandleSlot* const slots = [] {
        void* const memory =
            mmap(nullptr, kHandleSlots * sizeof(HandleSlot), PROT_READ | PROT_WRITE,
                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED)
            stopWith("no address space for handles");
        return static_cast<HandleSlot*>(memory);
    }();
    return slots;
}

HANDLE handleOf(std::size_t index)
{
    return reinterpret_cast<HANDLE>((index + 1) * 4);
}

HandleSlot* slotOf(HANDLE handle)
{
    const std::uintptr_t value = reinterpret_cast<std::uintptr_t>(handle);
    if (value == 0 || value % 4 != 0 || value / 4 > slotsUsed.load(std::memory_order_relaxed))
        return nullptr;
    return &handleSlots()[value / 4 - 1];
}

Event* eventOf(HANDLE handle)
{
    HandleSlot* const slot = slotOf(handle);
    return slot ? slot->event.load(std::memory_order_relaxed) : nullptr;
}

struct NamedEvent
{
    std::u16string name;
    Event* event;
    int handles;
};

std::mutex namesLock; // guards namedEvents
std::vector<NamedEvent> namedEvents;

void futexWait(std::atomic<std::uint32_t>& word, std::uint32_t whileValue, const timespec* timeout)
{
    syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, whileValue, timeout, nullptr, 0);
}

void futexWake(std::atomic<std::uint32_t>& word, int waiters)
{
    syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, waiters, nullptr, nullptr, 0);
}

void set(Event& event)
{
    // Whoever found it unsignalled wakes the waiters; a second signal has nobody more to wake.
    if (event.signalled.exchange(1, std::memory_order_release) == 0)
        futexWake(event.signalled, event.manualReset.load(std::memory_order_relaxed) ? INT_MAX : 1);
}

// Takes the signal of an auto-reset event, or sees that of a manual-reset one.
bool tryTake(Event& event)
{
    if (event.manualReset.load(std::memory_order_relaxed))
        return event.signalled.load(std::memory_order_acquire) == 1;
    std::uint32_t expected = 1;
    return event.signalled.compare_exchange_strong(expected, 0, std::memory_order_acquire,
                                                   std::memory_order_relaxed);
}

using Clock = std::chrono::steady_clock;

// When a wait has to give up.
class Deadline
{
public:
    explicit Deadline(DWORD milliseconds)
        : infinite(milliseconds == INFINITE),
          end(Clock::now() + std::chrono::milliseconds(infinite ? 0 : milliseconds))
    {}

    // False once the time is up. `remaining` stays as it is for an infinite wait.
    bool left(timespec& remaining) const
    {
        if (infinite)
            return true;
        const auto nanoseconds =
            std::chrono::duration_cast<std::chrono::nanoseconds>(end - Clock::now()).count();
        if (nanoseconds <= 0)
            return false;
        remaining.tv_sec = static_cast<time_t>(nanoseconds / 1000000000);
        remaining.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
        return true;
    }

    bool isInfinite() const { return infinite; }

private:
    const bool infinite;
    const Clock::time_point end;
};

DWORD waitForOne(Event& event, const Deadline& deadline)
{
    timespec remaining{};
    while (!tryTake(event)) {
        if (!deadline.left(remaining))
            return WAIT_TIMEOUT;
        futexWait(event.signalled, 0, deadline.isInfinite() ? nullptr : &remaining);
    }
    return WAIT_OBJECT_0;
}

// All or none: what was taken before one was missing is put back.
bool tryTakeAll(const std::vector<Event*>& events)
{
    for (Event* event : events) {
        if (event->signalled.load(std::memory_order_relaxed) == 0)
            return false;
    }
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (tryTake(*events[i]))
            continue;
        while (i > 0)
            set(*events[--i]);
        return false;
    }
    return true;
}

// Several objects are polled: nobody is in a hurry there, and one word to sleep on is not enough.
DWORD waitForSeveral(const std::vector<Event*>& events, bool all, const Deadline& deadline)
{
    timespec remaining{};
    for (;;) {
        if (all) {
            if (tryTakeAll(events))
                return WAIT_OBJECT_0;
        } else {
            for (std::size_t i = 0; i < events.size(); ++i) {
                if (tryTake(*events[i]))
                    return WAIT_OBJECT_0 + static_cast<DWORD>(i);
            }
        }
        if (!deadline.left(remaining))
            return WAIT_TIMEOUT;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

// ---- Time ---------------------------------------------------------------------------------------

std::atomic<bool> virtualTime{false};
std::atomic<std::uint32_t> virtualNow{0}; // wraps like timeGetTime
std::atomic<int> sleepError{0};

using SleepHook = std::function<void(DWORD)>;
std::mutex sleepHookLock; // guards sleepHook itself, not its run
std::shared_ptr<const SleepHook> sleepHook;
std::atomic<bool> hasSleepHook{false};

void runSleepHook(DWORD milliseconds)
{
    if (!hasSleepHook.load(std::memory_order_relaxed))
        return;
    std::shared_ptr<const SleepHook> hook;
    {
        const std::lock_guard<std::mutex> guard(sleepHookLock);
        hook = sleepHook;
    }
    if (hook && *hook)
        (*hook)(milliseconds);
}

} // namespace

void setLastError(DWORD error)
{
    lastError = error;
}

DWORD now()
{
    if (virtualTime.load(std::memory_order_relaxed))
        return virtualNow.load(std::memory_order_relaxed);
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<DWORD>(time.tv_sec * 1000 + time.tv_nsec / 1000000);
}

void countKernel(Resources& resources)
{
    resources.handles = openHandles.load(std::memory_order_relaxed);
}

void resetKernel()
{
    const std::size_t used = slotsUsed.load(std::memory_order_relaxed);
    for (std::size_t i = 0; i < used; ++i) {
        HandleSlot& slot = handleSlots()[i];
        slot.event.store(nullptr, std::memory_order_relaxed);
        slot.own.signalled.store(0, std::memory_order_relaxed);
    }
    slotsUsed.store(0, std::memory_order_relaxed);
    openHandles.store(0, std::memory_order_relaxed);
    {
        const std::lock_guard<std::mutex> guard(namesLock);
        namedEvents.clear();
    }
    virtualTime.store(false, std::memory_order_relaxed);
    sleepError.store(0, std::memory_order_relaxed);
    onSleep(nullptr);
    lastError = 0;
}

} // namespace internal

using namespace internal;

void useVirtualTime(DWORD start)
{
    virtualNow.store(start, std::memory_order_relaxed);
    virtualTime.store(true, std::memory_order_relaxed);
}

void setTime(DWORD time)
{
    virtualNow.store(time, std::memory_order_relaxed);
}

void advanceTime(DWORD milliseconds)
{
    virtualNow.fetch_add(milliseconds, std::memory_order_relaxed);
}

void setSleepError(int milliseconds)
{
    sleepError.store(milliseconds, std::memory_order_relaxed);
}

void onSleep(std::function<void(DWORD)> hook)
{
    const std::lock_guard<std::mutex> guard(sleepHookLock);
    hasSleepHook.store(static_cast<bool>(hook), std::memory_order_relaxed);
    sleepHook = std::make_shared<const SleepHook>(std::move(hook));
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
    return event->signalled.load(std::memory_order_acquire) == 1;
}

} // namespace sim

using sim::internal::Entry;
using sim::internal::Function;

HANDLE CreateEventW(LPSECURITY_ATTRIBUTES, BOOL manualReset, BOOL initialState, LPCWSTR name)
{
    using namespace sim::internal;
    Entry entry(Function::CreateEventW, nullptr, nullptr, manualReset != FALSE,
                initialState != FALSE);
    if (entry.fails())
        return entry.fail<HANDLE>();

    const std::size_t index = slotsUsed.fetch_add(1, std::memory_order_relaxed);
    if (index >= kHandleSlots)
        stopWith("out of handles; reset() makes them anew");
    HandleSlot& slot = handleSlots()[index];
    slot.own.manualReset.store(manualReset != FALSE, std::memory_order_relaxed);
    slot.own.signalled.store(initialState != FALSE, std::memory_order_relaxed);
    Event* event = &slot.own;
    DWORD error = ERROR_SUCCESS;
    if (name && *name) {
        const std::lock_guard<std::mutex> guard(namesLock);
        const auto named =
            std::find_if(namedEvents.begin(), namedEvents.end(),
                         [&](const NamedEvent& candidate) { return candidate.name == name; });
        if (named == namedEvents.end()) {
            namedEvents.push_back({name, event, 1});
        } else {
            ++named->handles;
            event = named->event;
            error = ERROR_ALREADY_EXISTS;
        }
    }
    slot.event.store(event, std::memory_order_relaxed);
    openHandles.fetch_add(1, std::memory_order_relaxed);
    setLastError(error);
    return entry.returns(handleOf(index));
}

BOOL CloseHandle(HANDLE handle)
{
    using namespace sim::internal;
    Entry entry(Function::CloseHandle, handle);
    if (entry.fails())
        return entry.fail<BOOL>();
    HandleSlot* const slot = slotOf(handle);
    Event* const event = slot ? slot->event.exchange(nullptr, std::memory_order_relaxed) : nullptr;
    if (!event) {
        setLastError(ERROR_INVALID_HANDLE);
        return entry.returns(FALSE);
    }
    {
        const std::lock_guard<std::mutex> guard(namesLock);
        const auto named =
            std::find_if(namedEvents.begin(), namedEvents.end(),
                         [&](const NamedEvent& candidate) { return candidate.event == event; });
        if (named != namedEvents.end() && --named->handles == 0)
            namedEvents.erase(named);
    }
    openHandles.fetch_sub(1, std::memory_order_relaxed);
    return entry.returns(TRUE);
}

BOOL SetEvent(HANDLE handle)
{
    using namespace sim::internal;
    Entry entry(Function::SetEvent, handle);
    if (entry.fails())
        return entry.fail<BOOL>();
    Event* const event = eventOf(handle);
    if (!event) {
        setLastError(ERROR_INVALID_HANDLE);
        return entry.returns(FALSE);
    }
    set(*event);
    return entry.returns(TRUE);
}

BOOL ResetEvent(HANDLE handle)
{
    using namespace sim::internal;
    Entry entry(Function::ResetEvent, handle);
    if (entry.fails())
        return entry.fail<BOOL>();
    Event* const event = eventOf(handle);
    if (!event) {
        setLastError(ERROR_INVALID_HANDLE);
        return entry.returns(FALSE);
    }
    event->signalled.store(0, std::memory_order_relaxed);
    return entry.returns(TRUE);
}

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds)
{
    using namespace sim::internal;
    Entry entry(Function::WaitForSingleObject, handle, nullptr, milliseconds);
    if (entry.fails())
        return entry.returns(entry.failure());
    Event* const event = eventOf(handle);
    if (!event) {
        setLastError(ERROR_INVALID_HANDLE);
        return entry.returns(WAIT_FAILED);
    }
    return entry.returns(waitForOne(*event, Deadline(milliseconds)));
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds)
{
    using namespace sim::internal;
    const HANDLE first = handles && count > 0 ? handles[0] : nullptr;
    Entry entry(Function::WaitForMultipleObjects, first, nullptr, count, milliseconds);
    if (entry.fails())
        return entry.returns(entry.failure());
    if (!handles || count == 0 || count > MAXIMUM_WAIT_OBJECTS) {
        setLastError(ERROR_INVALID_PARAMETER);
        return entry.returns(WAIT_FAILED);
    }
    if (count == 1) {
        Event* const event = eventOf(first);
        if (event)
            return entry.returns(waitForOne(*event, Deadline(milliseconds)));
    } else {
        std::vector<Event*> events;
        for (DWORD i = 0; i < count; ++i) {
            if (Event* const event = eventOf(handles[i]))
                events.push_back(event);
        }
        if (events.size() == count)
            return entry.returns(waitForSeveral(events, waitAll != FALSE, Deadline(milliseconds)));
    }
    setLastError(ERROR_INVALID_HANDLE);
    return entry.returns(WAIT_FAILED);
}

// One module, which is never unloaded.
BOOL GetModuleHandleExW(DWORD flags, LPCWSTR name, HMODULE* module)
{
    using namespace sim::internal;
    Entry entry(Function::GetModuleHandleExW, name, nullptr, flags);
    if (entry.fails())
        return entry.fail<BOOL>();
    *module = reinterpret_cast<HMODULE>(std::uintptr_t(1) << 16);
    return entry.returns(TRUE);
}

DWORD GetLastError(void)
{
    using namespace sim::internal;
    Entry entry(Function::GetLastError);
    return entry.returns(lastError);
}

void Sleep(DWORD milliseconds)
{
    using namespace sim::internal;
    Entry entry(Function::Sleep, nullptr, nullptr, milliseconds);
    runSleepHook(milliseconds);
    if (virtualTime.load(std::memory_order_relaxed)) {
        if (milliseconds > 0) {
            const std::int64_t passed =
                std::int64_t(milliseconds) + sleepError.load(std::memory_order_relaxed);
            sim::advanceTime(static_cast<DWORD>(std::max<std::int64_t>(passed, 1)));
        }
        sched_yield();
    } else if (milliseconds == 0) {
        sched_yield();
    } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    }
}

DWORD timeGetTime(void)
{
    Entry entry(Function::timeGetTime);
    return entry.returns(sim::internal::now());
}

HRESULT CoCreateGuid(GUID* guid)
{
    using namespace sim::internal;
    Entry entry(Function::CoCreateGuid);
    if (entry.fails())
        return entry.returns(static_cast<HRESULT>(entry.failure()));
    if (getrandom(guid, sizeof *guid, 0) != static_cast<ssize_t>(sizeof *guid))
        stopWith("no random bytes for a GUID");
    // Version 4, variant 1: random, as Windows makes them.
    guid->Data3 = static_cast<unsigned short>((guid->Data3 & 0x0FFF) | 0x4000);
    guid->Data4[0] = static_cast<unsigned char>((guid->Data4[0] & 0x3F) | 0x80);
    return entry.returns(S_OK);
}
