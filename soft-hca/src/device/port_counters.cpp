// A port's data counters in per-thread blocks (see port_counters.hpp).
#include "device/port_counters.hpp"

#include <algorithm>

namespace marlix::softhca {

namespace {

// Incarnations of every counter set of the process, never reused; from 1, so that a thread's
// cache entry never filled (0) matches no set.
std::atomic<uint64_t> next_incarnation{1};
// Threads get a number the first time they count; numbers are never reused either, so a new
// thread never adopts the block of one that exited.
std::atomic<uint64_t> next_thread{1};

// Threads' cache slots: sets take them in turn as they are made, so the ports of the devices
// booted together share none while there are no more of them than slots; an entry that another
// set pushed out is found again under the set's mutex.
std::atomic<uint32_t> next_slot{0};
[[gnu::tls_model("initial-exec")]] thread_local uint64_t t_thread = 0;

}  // namespace

constinit thread_local PortDataCounters::CacheEntry PortDataCounters::cache_[PortDataCounters::kCacheSlots]{};

PortDataCounters::PortDataCounters()
    : incarnation_(next_incarnation.fetch_add(1, std::memory_order_relaxed)),
      slot_(next_slot.fetch_add(1, std::memory_order_relaxed) % kCacheSlots) {}

PortDataCounters::~PortDataCounters() = default;

PortDataCounters::Block &PortDataCounters::attach(uint64_t incarnation) {
    if (t_thread == 0) t_thread = next_thread.fetch_add(1, std::memory_order_relaxed);
    Block *mine = nullptr;
    {
        std::lock_guard lk(mu_);
        // A reset between the caller's load and here: register in the new incarnation.
        incarnation = incarnation_.load(std::memory_order_relaxed);
        for (const std::unique_ptr<Block> &b : blocks_)
            if (b->owner == t_thread) mine = b.get();
        if (!mine) {
            blocks_.push_back(std::make_unique<Block>());
            mine = blocks_.back().get();
            mine->owner = t_thread;
        }
    }
    cache_[slot_] = {incarnation, mine};
    return *mine;
}

uint64_t PortDataCounters::sum(Counter c) const {
    uint64_t s = 0;
    for (const std::unique_ptr<Block> &b : blocks_) s += b->sum[c].load(std::memory_order_relaxed);
    return s;
}

std::array<uint32_t, PortDataCounters::kCounters> PortDataCounters::read() const {
    std::array<uint32_t, kCounters> out{};
    std::lock_guard lk(mu_);
    for (unsigned c = 0; c < kCounters; ++c) {
        // The sums only grow within an incarnation, and base_ is an earlier sum of the same blocks.
        const uint64_t s = sum(Counter(c)), since = s >= base_[c] ? s - base_[c] : 0;
        out[c] = uint32_t(std::min<uint64_t>(since, 0xFFFFFFFFull));
    }
    return out;
}

void PortDataCounters::clear(unsigned which) {
    std::lock_guard lk(mu_);
    for (unsigned c = 0; c < kCounters; ++c)
        if (which & (1u << c)) base_[c] = sum(Counter(c));
}

void PortDataCounters::reset() {
    std::lock_guard lk(mu_);
    incarnation_.store(next_incarnation.fetch_add(1, std::memory_order_relaxed), std::memory_order_relaxed);
    for (std::unique_ptr<Block> &b : blocks_) retired_.push_back(std::move(b));
    blocks_.clear();
    base_.fill(0);
}

size_t PortDataCounters::blocks() const {
    std::lock_guard lk(mu_);
    return blocks_.size();
}

}  // namespace marlix::softhca
