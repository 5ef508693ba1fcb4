// What the device's own locks share: the processor's pause for a spinning waiter, and a lock
// word taken with one compare-and-swap (0 free, 1 held; the adaptive mutex adds 2, held with a
// thread perhaps asleep on it).
#pragma once

#include <atomic>
#include <cstdint>

namespace marlix::softhca {

// One step of a spinning wait: tells the processor (and a sibling hyperthread) that this thread
// only waits.
inline void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

class LockWord {
  public:
    LockWord() = default;
    LockWord(const LockWord &) = delete;
    LockWord &operator=(const LockWord &) = delete;

    bool try_lock() {
        uint32_t free = 0;
        return word_.compare_exchange_strong(free, 1, std::memory_order_acquire, std::memory_order_relaxed);
    }

  protected:
    // Spins a bounded while for the word to come free and takes it; false when it did not.
    bool spin_to_take() {
        for (int i = 0; i < kSpins; ++i) {
            if (word_.load(std::memory_order_relaxed) == 0 && try_lock()) return true;
            cpu_relax();
        }
        return false;
    }
    // About one to five microseconds of spinning.
    static constexpr int kSpins = 100;
    std::atomic<uint32_t> word_{0};
};

}  // namespace marlix::softhca
