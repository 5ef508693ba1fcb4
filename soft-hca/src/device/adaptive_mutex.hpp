// The device's mutexes are held for a few hundred nanoseconds at a time (one packet's work, one
// completion), often by a thread running on the other core. Waiting for one by sleeping costs a
// futex wait and wake, several microseconds; spinning a little first costs far less when the
// holder is about to let go. After a bounded spin it sleeps like any mutex.
#pragma once

#include <atomic>
#include <mutex>

namespace marlix::softhca {

class AdaptiveMutex {
  public:
    void lock() {
        if (try_lock()) return;
        // Spin on a plain read and try only when the mutex looks free: a try is a locked
        // instruction that would pull the line away from the holder each time.
        for (int i = 0; i < kSpins; ++i) {
            if (!held_.load(std::memory_order_relaxed) && try_lock()) return;
            relax();
        }
        mu_.lock();
        held_.store(true, std::memory_order_relaxed);
    }
    bool try_lock() {
        if (!mu_.try_lock()) return false;
        held_.store(true, std::memory_order_relaxed);
        return true;
    }
    void unlock() {
        held_.store(false, std::memory_order_relaxed);
        mu_.unlock();
    }

  private:
    // About one to five microseconds: the cost of the sleep it may spare.
    static constexpr int kSpins = 100;
    static void relax() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }
    std::mutex mu_;
    std::atomic<bool> held_{false};  // a hint for spinners, beside the mutex in its line
};

}  // namespace marlix::softhca
