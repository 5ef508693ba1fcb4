// The device's mutexes are held for a few hundred nanoseconds at a time (one packet's work, one
// completion, one post), often by a thread running on the other core, and taken several times
// per message. So they are small and inline: taking a free one is one compare-and-swap and
// releasing it one exchange, with no call into the threads library. Waiting for one spins a
// little first (sleeping costs a futex wait and wake, several microseconds, when the holder is
// usually about to let go), watching the word with plain reads, and then sleeps on it.
//
// The word: 0 free, 1 held, 2 held with a thread perhaps asleep on it (then unlock wakes one).
#pragma once

#include <atomic>
#include <cstdint>

namespace marlix::softhca {

class AdaptiveMutex {
  public:
    AdaptiveMutex() = default;
    AdaptiveMutex(const AdaptiveMutex &) = delete;
    AdaptiveMutex &operator=(const AdaptiveMutex &) = delete;

    bool try_lock() {
        uint32_t free = 0;
        return word_.compare_exchange_strong(free, 1, std::memory_order_acquire, std::memory_order_relaxed);
    }
    void lock() {
        if (!try_lock()) lock_contended();
    }
    void unlock() {
        if (word_.exchange(0, std::memory_order_release) == 2) word_.notify_one();
    }

  private:
    void lock_contended() {
        // About one to five microseconds of spinning: the cost of the sleep it may spare.
        for (int i = 0; i < kSpins; ++i) {
            if (word_.load(std::memory_order_relaxed) == 0 && try_lock()) return;
            relax();
        }
        // Mark the mutex as slept on, and sleep until it is released; whoever takes it from
        // here takes it marked, so that its unlock wakes the next sleeper.
        uint32_t seen = word_.exchange(2, std::memory_order_acquire);
        while (seen != 0) {
            word_.wait(2, std::memory_order_relaxed);
            seen = word_.exchange(2, std::memory_order_acquire);
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
