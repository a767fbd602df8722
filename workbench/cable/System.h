// The little of Win32 that the cable needs in C++ clothes: a lock, a condition, an owned handle, a
// thread, the time.

#ifndef LUMORA_CABLE_SYSTEM_H
#define LUMORA_CABLE_SYSTEM_H

#include <functional>
#include <mutex>
#include <windows.h>

namespace cable {

// A slim lock: under Wine it stays out of the server process unless it is contended.
class Mutex
{
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() { AcquireSRWLockExclusive(&lock_); }
    void unlock() { ReleaseSRWLockExclusive(&lock_); }
    SRWLOCK* native() { return &lock_; }

private:
    SRWLOCK lock_ = SRWLOCK_INIT;
};

using Lock = std::unique_lock<Mutex>;

class Condition
{
public:
    Condition() = default;
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;

    // May return early: the caller looks again at what it waits for.
    void wait(Lock& lock, DWORD milliseconds = INFINITE)
    {
        SleepConditionVariableSRW(&condition_, lock.mutex()->native(), milliseconds, 0);
    }
    void notifyAll() { WakeAllConditionVariable(&condition_); }

private:
    CONDITION_VARIABLE condition_ = CONDITION_VARIABLE_INIT;
};

class Handle
{
public:
    Handle() = default;
    explicit Handle(HANDLE handle) : handle_(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
    Handle(Handle&& other) noexcept : handle_(other.handle_) { other.handle_ = nullptr; }
    Handle& operator=(Handle&& other) noexcept
    {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~Handle() { reset(); }

    explicit operator bool() const { return handle_ != nullptr; }
    HANDLE get() const { return handle_; }
    void reset()
    {
        if (handle_)
            CloseHandle(handle_);
        handle_ = nullptr;
    }

private:
    HANDLE handle_ = nullptr;
};

// Runs `body` on a thread of its own, which not everybody can wait for: what it uses, the body owns
// a share of. Returns the thread, null if the system gives none.
Handle startThread(std::function<void()> body);

// Waits until the thread is gone, not just done with its work: Wine may crash a process that ends
// while a thread of it is on its way out.
inline void join(const Handle& thread)
{
    WaitForSingleObject(thread.get(), INFINITE);
}

// Time since an arbitrary moment, the same for all processes.
LONGLONG microseconds();
LONGLONG nanoseconds();

} // namespace cable

#endif
