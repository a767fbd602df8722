#ifndef LUMORA_TESTS_STRESS_WATCHDOG_H
#define LUMORA_TESTS_STRESS_WATCHDOG_H

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <thread>

#if defined(LUMORA_ADDRESS_SANITIZER) || defined(LUMORA_THREAD_SANITIZER)
#include <csignal>
#include <filesystem>
#include <sys/syscall.h>
#include <unistd.h>

// The sanitizers' own; gcc comes without the header that declares it.
extern "C" void __sanitizer_print_stack_trace();
#endif

/// Ends the process with a message if the test that owns it makes no progress: a hang must not look
/// like a slow test.
class Watchdog
{
public:
    /// The whole test gets `limit`; a test of many rounds says alive() in each and gets it anew.
    explicit Watchdog(std::chrono::seconds limit) : limit(limit), thread([this] { run(); }) {}

    ~Watchdog()
    {
        {
            const std::lock_guard<std::mutex> guard(mutex);
            over = true;
        }
        wake.notify_one();
        thread.join();
    }

    void alive()
    {
        const std::lock_guard<std::mutex> guard(mutex);
        deadline = Clock::now() + limit;
    }

private:
    using Clock = std::chrono::steady_clock;

    static std::string testName()
    {
        const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
        return std::string(test->test_suite_name()) + '.' + test->name();
    }

    void run()
    {
        std::unique_lock<std::mutex> guard(mutex);
        while (!over && Clock::now() < deadline)
            wake.wait_until(guard, deadline);
        if (over)
            return;
        std::fprintf(stderr, "%s hangs: no progress for %d s\n", name.c_str(),
                     static_cast<int>(limit.count()));
        printStacks();
        std::abort();
    }

    /// Where each of the other threads is.
    static void printStacks()
    {
#if defined(LUMORA_ADDRESS_SANITIZER) || defined(LUMORA_THREAD_SANITIZER)
        std::signal(SIGUSR1, [](int) { __sanitizer_print_stack_trace(); });
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            const long id = std::stol(task.path().filename().string());
            if (id == syscall(SYS_gettid))
                continue;
            std::fprintf(stderr, "Thread %ld:\n", id);
            syscall(SYS_tgkill, getpid(), id, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::seconds(1)); // it prints by itself
        }
#endif
    }

    const std::string name = testName();
    const std::chrono::seconds limit;
    std::mutex mutex; // guards deadline and over
    std::condition_variable wake;
    Clock::time_point deadline = Clock::now() + limit;
    bool over = false;
    std::thread thread;
};

#endif
