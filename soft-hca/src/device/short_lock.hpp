// The locks of a work queue's posters (Qp::sq_mu, Qp::rq_mu) and of a CQ's pollers are held for
// a few dozen instructions: one request written, one completion read. They are taken on every
// post and every poll, mostly by one thread, so what matters is what an uncontended take and
// release cost: one compare-and-swap to take and a plain store to release (the device mutex's
// release is an exchange, which costs as much again, since it must learn whether a thread sleeps
// on it). Nobody sleeps on these: a waiter spins a little and then yields its core, so that a
// holder that lost its core gets it back.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

namespace marlix::softhca {

class ShortLock {
  public:
    ShortLock() = default;
    ShortLock(const ShortLock &) = delete;
    ShortLock &operator=(const ShortLock &) = delete;

    bool try_lock() {
        uint32_t free = 0;
        return word_.compare_exchange_strong(free, 1, std::memory_order_acquire, std::memory_order_relaxed);
    }
    void lock() {
        if (!try_lock()) lock_contended();
    }
    void unlock() { word_.store(0, std::memory_order_release); }

  private:
    [[gnu::noinline]] void lock_contended() {
        for (;;) {
            for (int i = 0; i < kSpins; ++i) {
                if (word_.load(std::memory_order_relaxed) == 0 && try_lock()) return;
                relax();
            }
            std::this_thread::yield();
        }
    }
    static void relax() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }
    static constexpr int kSpins = 100;
    std::atomic<uint32_t> word_{0};
};

}  // namespace marlix::softhca
