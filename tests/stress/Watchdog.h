#ifndef LUMORA_TESTS_STRESS_WATCHDOG_H
#define LUMORA_TESTS_STRESS_WATCHDOG_H

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

/// Ends the process with a message if the test that owns it does not end in time: a hang must not
/// look like a slow test.
class Watchdog
{
public:
    explicit Watchdog(std::chrono::seconds limit)
        : name(testing::UnitTest::GetInstance()->current_test_info()->name()),
          thread([this, limit] { run(limit); })
    {}

    ~Watchdog()
    {
        {
            const std::lock_guard<std::mutex> guard(mutex);
            over = true;
        }
        wake.notify_one();
        thread.join();
    }

private:
    void run(std::chrono::seconds limit)
    {
        std::unique_lock<std::mutex> guard(mutex);
        if (wake.wait_for(guard, limit, [this] { return over; }))
            return;
        std::fprintf(stderr, "%s hangs: not done within %d s\n", name,
                     static_cast<int>(limit.count()));
        std::abort();
    }

    const char* const name;
    std::mutex mutex; // guards over
    std::condition_variable wake;
    bool over = false;
    std::thread thread;
};

#endif
