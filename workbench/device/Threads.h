// Locks, conditions and the time, where the standard library would be slow on Wine or would not be
// the same for all processes. Threads are std::thread: joining one waits until it is gone, not just
// done with its work; Wine may crash a process that ends while a thread of it is on its way out.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include <windows.h>

namespace device {

#ifdef _WIN32

// Under Wine a slim lock stays out of the server process unless it is contended.
class Mutex
{
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() { AcquireSRWLockExclusive(&slim); }
    void unlock() { ReleaseSRWLockExclusive(&slim); }

private:
    friend class Condition;
    SRWLOCK slim = SRWLOCK_INIT;
};

#else

using Mutex = std::mutex;

#endif

using Lock = std::unique_lock<Mutex>;

class Condition
{
public:
    // May return early: the caller looks again at what it waits for.
    void wait(Lock& lock, DWORD milliseconds = INFINITE)
    {
#ifdef _WIN32
        SleepConditionVariableSRW(&condition, &lock.mutex()->slim, milliseconds, 0);
#else
        if (milliseconds == INFINITE)
            condition.wait(lock);
        else
            condition.wait_for(lock, std::chrono::milliseconds(milliseconds));
#endif
    }

    // True once `done` is, false if that takes longer.
    template <typename Done>
    bool waitFor(Lock& lock, DWORD milliseconds, Done done)
    {
        using std::chrono::steady_clock;
        const auto end = steady_clock::now() + std::chrono::milliseconds(milliseconds);
        while (!done()) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now());
            if (left.count() <= 0)
                return false;
            wait(lock, static_cast<DWORD>(left.count()));
        }
        return true;
    }

    void notifyAll()
    {
#ifdef _WIN32
        WakeAllConditionVariable(&condition);
#else
        condition.notify_all();
#endif
    }

private:
#ifdef _WIN32
    CONDITION_VARIABLE condition = CONDITION_VARIABLE_INIT;
#else
    std::condition_variable condition;
#endif
};

// Microseconds since an arbitrary moment.
using Clock = std::int64_t (*)();

inline std::int64_t steadyMicroseconds()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

} // namespace device
