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

#include "device/lock_word.hpp"

namespace marlix::softhca {

class AdaptiveMutex : public LockWord {
  public:
    void lock() {
        if (!try_lock()) lock_contended();
    }
    void unlock() {
        if (word_.exchange(0, std::memory_order_release) == 2) word_.notify_one();
    }

  private:
    void lock_contended() {
        // Spinning costs less than the sleep it may spare.
        if (spin_to_take()) return;
        // Mark the mutex as slept on, and sleep until it is released; whoever takes it from
        // here takes it marked, so that its unlock wakes the next sleeper.
        uint32_t seen = word_.exchange(2, std::memory_order_acquire);
        while (seen != 0) {
            word_.wait(2, std::memory_order_relaxed);
            seen = word_.exchange(2, std::memory_order_acquire);
        }
    }
};

}  // namespace marlix::softhca
