// The standard library's mutex and condition; under Wine slim ones, which stay out of the server
// process unless they are contended and wake a thread 10 us sooner.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include <windows.h>

namespace device {

#ifdef _WIN32

class Mutex
{
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() { AcquireSRWLockExclusive(&slim); }
    void unlock() { ReleaseSRWLockExclusive(&slim); }
    SRWLOCK* native_handle() { return &slim; }

private:
    SRWLOCK slim = SRWLOCK_INIT;
};

class Condition
{
public:
    using Milliseconds = std::chrono::milliseconds;

    void wait_for(std::unique_lock<Mutex>& lock, Milliseconds limit)
    {
        SleepConditionVariableSRW(&condition, lock.mutex()->native_handle(),
                                  static_cast<DWORD>(limit.count()), 0);
    }
    template <typename Done>
    bool wait_for(std::unique_lock<Mutex>& lock, Milliseconds limit, Done done)
    {
        using std::chrono::steady_clock;
        const auto end = steady_clock::now() + limit;
        while (!done()) {
            const auto left = std::chrono::ceil<Milliseconds>(end - steady_clock::now());
            if (left.count() <= 0)
                return false;
            wait_for(lock, left);
        }
        return true;
    }
    void notify_all() { WakeAllConditionVariable(&condition); }

private:
    CONDITION_VARIABLE condition = CONDITION_VARIABLE_INIT;
};

#else

using Mutex = std::mutex;
using Condition = std::condition_variable;

#endif

using Lock = std::unique_lock<Mutex>;

} // namespace device
