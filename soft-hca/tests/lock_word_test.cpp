// The device's own locks: the short lock (queue and CQ poll locks), which spins and yields, and
// the adaptive mutex (the device mutex), which spins and then sleeps until its holder wakes it.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "device/adaptive_mutex.hpp"
#include "device/short_lock.hpp"

namespace sh = marlix::softhca;

namespace {

// Threads that take the lock in turn lose no increment, and the lock is free afterwards.
template <class Lock>
void expect_every_increment_counted(Lock &lock) {
    uint64_t count = 0;
    constexpr int kThreads = 4, kEach = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < kEach; ++i) {
                std::lock_guard lk(lock);
                ++count;
            }
        });
    for (std::thread &t : threads) t.join();
    EXPECT_EQ(count, uint64_t(kThreads) * kEach);
    EXPECT_TRUE(lock.try_lock());
    EXPECT_FALSE(lock.try_lock());
    lock.unlock();
}

TEST(ShortLock, CountsEveryIncrementOfThreadsThatContendForIt) {
    sh::ShortLock lock;
    expect_every_increment_counted(lock);
}

TEST(AdaptiveMutex, CountsEveryIncrementOfThreadsThatContendForIt) {
    sh::AdaptiveMutex lock;
    expect_every_increment_counted(lock);
}

// A waiter that outlasts its spin goes to sleep on the mutex; the holder's release must wake it
// (a release that lost the wake-up would leave it asleep for ever, and the test would time out).
TEST(AdaptiveMutex, AWaiterThatWentToSleepIsWokenByTheRelease) {
    sh::AdaptiveMutex lock;
    lock.lock();
    std::atomic<bool> started{false}, got{false};
    std::thread waiter([&] {
        started = true;
        lock.lock();
        got = true;
        lock.unlock();
    });
    while (!started) std::this_thread::yield();
    // Far longer than the spin (about a microsecond or five): the waiter is asleep by now.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(got.load());
    lock.unlock();
    waiter.join();
    EXPECT_TRUE(got.load());
    EXPECT_TRUE(lock.try_lock());
    lock.unlock();
}

}  // namespace
