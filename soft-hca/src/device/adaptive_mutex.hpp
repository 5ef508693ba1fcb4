// The device's mutexes are held for a few hundred nanoseconds at a time (one packet's work, one
// completion), often by a thread running on the other core. Waiting for one by sleeping costs a
// futex wait and wake, several microseconds; spinning a little first costs far less when the
// holder is about to let go. After a bounded spin it sleeps like any mutex.
#pragma once

#include <mutex>

namespace marlix::softhca {

class AdaptiveMutex {
  public:
    void lock() {
        for (int i = 0; i < kSpins; ++i) {
            if (mu_.try_lock()) return;
            relax();
        }
        mu_.lock();
    }
    bool try_lock() { return mu_.try_lock(); }
    void unlock() { mu_.unlock(); }

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
};

}  // namespace marlix::softhca
