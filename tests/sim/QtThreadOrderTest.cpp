// The order that Qt gives to threads must be known to ThreadSanitizer, else it reports these plain
// variables; in other builds the tests only show that Qt works through QtThreadOrder.cpp as
// without.

#include "qt/RecursiveMutex.h"

#include <QThread>
#include <atomic>
#include <climits>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

namespace {

struct Worker : QThread
{
    void run() override { ++work; }
    int work = 0;
};

TEST(QtThreadOrder, AMutexOrdersItsOwners)
{
    lumora::RecursiveMutex mutex;
    int plain = 0;
    const auto count = [&] {
        for (int i = 0; i < 20000; ++i) {
            const lumora::RecursiveMutexLocker outer(&mutex);
            const lumora::RecursiveMutexLocker inner(&mutex);
            ++plain;
        }
    };
    std::thread other(count);
    count();
    other.join();
    EXPECT_EQ(plain, 40000);
}

TEST(QtThreadOrder, ATriedLockOrdersOnlyWhenItSucceeds)
{
    QMutex mutex;
    int plain = 0;
    std::atomic<bool> refused{false};
    mutex.lock();
    std::thread other([&] {
        EXPECT_FALSE(mutex.tryLock());
        refused.store(true, std::memory_order_relaxed);
        while (!mutex.tryLock(1)) {
        }
        ++plain;
        mutex.unlock();
    });
    while (!refused.load(std::memory_order_relaxed))
        std::this_thread::yield();
    ++plain;
    mutex.unlock();
    other.join();
    EXPECT_EQ(plain, 2);
}

TEST(QtThreadOrder, WaitingComesAfterAllThatTheThreadDid)
{
    for (int i = 0; i < 200; ++i) {
        auto worker = std::make_unique<Worker>();
        worker->start(QThread::TimeCriticalPriority);
        if (i % 2 == 0)
            worker->wait(ULONG_MAX);
        EXPECT_TRUE(worker->wait());
        EXPECT_EQ(worker->work, 1);
    }
}

TEST(QtThreadOrder, WaitingForAThreadThatNeverRanReturnsAtOnce)
{
    Worker worker;
    EXPECT_TRUE(worker.wait());
}

} // namespace
