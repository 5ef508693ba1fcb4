// A port's data counters: the 4-byte words and the packets it transmits and receives.
//
// Every packet the data path moves is counted on the port it leaves and on the port it reaches,
// and the thread that counts it is whichever thread carries it (a posting thread's pass, the
// engine's round, the pass of the peer's thread delivering a packet here). One set of counter
// words that all of them wrote would move between the cores on every packet. So each thread
// that counts on a port gets a block of its own, one cache line that only it writes, and reading
// the counters adds the blocks up.
//
//   counting  the owning thread adds to its block with a relaxed load and a relaxed store of
//             atomic words: no lock, no read-modify-write instruction, and a reader on another
//             thread sees a value the owner stored. A thread finds its block in a small
//             thread-local cache, at the counter set's own slot, checked against the set's
//             incarnation (which no other set ever has, so it names the set as well); the first
//             count of a thread on a port (or a count after the cache lost the entry) takes the
//             set's mutex to find or register the block. The look-up and the adds are inline:
//             every packet pays them twice, once on each side.
//   reading   sums the blocks under the set's mutex and reports sum - base, where base is the
//             sum at the last clear, stopping at 0xFFFFFFFF as the adapter's 32-bit counters do.
//             The blocks hold 64-bit sums, so a counter that reached 0xFFFFFFFF stays there until
//             it is cleared.
//   clearing  sets base to the sum now, under the set's mutex, while threads go on counting:
//             what is counted after the clear is all in the next reading; a count racing the
//             clear lands on one side of it or the other, never lost and never twice. Each
//             counter is cleared on its own, so a packet racing the clear may be on one side of
//             it in the word counter and on the other in the packet counter.
//   reset     (the device is opened) starts a new incarnation: the blocks counted so far are
//             retired and every thread registers a new one at its next count, so a thread
//             that counted before never adds to the old counts. Retired blocks are kept until
//             the port goes away (halt), so a thread still holding one writes to memory that is
//             alive, and its count goes nowhere.
//
// Blocks live as long as the port: a thread that exits leaves its block, with its counts,
// behind. Incarnations are unique in the process, so a port of a later boot that happens to
// sit at the same address never matches a cache entry made for an earlier one.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "device/limits.hpp"

namespace marlix::softhca {

class PortDataCounters {
  public:
    // The counters, in the order PortCounters lays them out.
    enum Counter : unsigned { kXmitData, kRcvData, kXmitPkts, kRcvPkts, kCounters };

    PortDataCounters();
    ~PortDataCounters();
    PortDataCounters(const PortDataCounters &) = delete;
    PortDataCounters &operator=(const PortDataCounters &) = delete;

    // Counts `packets` packets of `bytes` bytes each (their words rounded up per packet), in the
    // calling thread's block.
    void add(Counter data, Counter pkts, uint64_t bytes, uint64_t packets) {
        add_words(data, pkts, (bytes + 3) / 4 * packets, packets);
    }
    // Counts `packets` packets of `words` 4-byte words in all.
    void add_words(Counter data, Counter pkts, uint64_t words, uint64_t packets) {
        Block &b = block();
        bump(b.sum[data], words);
        bump(b.sum[pkts], packets);
    }

    // Every counter as PortCounters reports it: the count since the last clear (or reset),
    // stopping at 0xFFFFFFFF.
    std::array<uint32_t, kCounters> read() const;
    // Clears the counters whose bit (1 << Counter) is set in `which`.
    void clear(unsigned which);
    // Starts over from zero with new blocks (see the top of this file).
    void reset();

    // Blocks registered in this incarnation (for tests).
    size_t blocks() const;

    // Entries of a thread's cache of blocks: four times the ports of the default system. With
    // more ports than that alive, sets sharing a slot push each other out (and find their block
    // again under their mutex).
    static constexpr uint32_t kCacheSlots = 16;

  private:
    struct alignas(limits::kCacheLine) Block {
        std::array<std::atomic<uint64_t>, kCounters> sum{};
        uint64_t owner = 0;  // the number of the thread that writes it
    };
    // A thread's cache entry for the set at that slot: the incarnation it was made in, and the
    // thread's block of it. Plain words, constant-initialised: reading them tests no guard.
    struct CacheEntry {
        uint64_t incarnation;
        Block *block;
    };
    // Initial-exec: the library is loaded with the program, and a count then reads them without
    // a call into the dynamic linker.
    [[gnu::tls_model("initial-exec")]] static constinit thread_local CacheEntry cache_[kCacheSlots];

    // The owner's add: nobody else writes the word, so a relaxed load and store are the whole of it.
    static void bump(std::atomic<uint64_t> &word, uint64_t n) {
        word.store(word.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
    }
    Block &block() {
        const uint64_t incarnation = incarnation_.load(std::memory_order_relaxed);
        const CacheEntry &e = cache_[slot_];
        if (e.incarnation == incarnation) [[likely]]
            return *e.block;
        return attach(incarnation);
    }
    // The slow path: once per thread per port and incarnation, or after the cache lost the entry.
    Block &attach(uint64_t incarnation);
    uint64_t sum(Counter c) const;  // under mu_

    // Read on every count, written at construction and reset only.
    std::atomic<uint64_t> incarnation_;
    const uint32_t slot_;                          // this set's entry in a thread's cache
    mutable std::mutex mu_;                        // a leaf lock: registration, reading, clearing, reset
    std::vector<std::unique_ptr<Block>> blocks_;   // this incarnation's
    std::vector<std::unique_ptr<Block>> retired_;  // earlier incarnations'
    std::array<uint64_t, kCounters> base_{};
};

}  // namespace marlix::softhca
