// The locks of a work queue's posters (Qp::sq_mu, Qp::rq_mu) and of a CQ's pollers are held for
// a few dozen instructions: one request written, one completion read. They are taken on every
// post and every poll, mostly by one thread, so what matters is what an uncontended take and
// release cost: one compare-and-swap to take and a plain store to release (the device mutex's
// release is an exchange, which costs as much again, since it must learn whether a thread sleeps
// on it). Nobody sleeps on these: a waiter spins a little and then yields its core, so that a
// holder that lost its core gets it back.
#pragma once

#include <atomic>
#include <thread>

#include "device/lock_word.hpp"

namespace marlix::softhca {

class ShortLock : public LockWord {
  public:
    void lock() {
        if (!try_lock()) lock_contended();
    }
    void unlock() { word_.store(0, std::memory_order_release); }

  private:
    [[gnu::noinline]] void lock_contended() {
        while (!spin_to_take()) std::this_thread::yield();
    }
};

}  // namespace marlix::softhca
