// Work queues: power-of-two rings of fixed-stride entries, sized when the QP is created (and
// again only when a modify changes the depth). A post writes the next free entry, the data path
// consumes from the front; neither allocates.
//
// One producer side and one consumer side, each serialised by its own lock: posters hold the
// queue's lock (Qp::sq_mu / Qp::rq_mu), the data path holds the device mutex. The tail is
// published with a release store once the entry is written, and the head with a release store
// once the entry is done with, so each side reads the other's position with an acquire load
// and never touches an entry the other side owns. Resizing and clearing hold both locks.
//
// A send entry holds the descriptor, its gather list (in the ring's gather area, stride = the
// QP's gather capacity) and, for inline sends, the data (in the ring's inline area, stride = the
// QP's inline capacity). The requester's progress on the entry lives beside it. A receive entry
// is one cache line with the first entry of its gather list inside it, the rest in the ring's
// gather area (stride = the QP's gather capacity - 1): a receive of one buffer costs the
// responder the one line the poster wrote.
#pragma once

#include <vapi_types.h>

#include "device/limits.hpp"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <vector>

namespace marlix::softhca {

// Where a send entry stands.
enum class SendPhase : uint8_t {
    Queued,  // posted, not yet (re)transmitted
    Sent,    // every packet sent; waiting for the acknowledgement or response
    Done,    // completed (success or error), waiting to be retired in order
};

// Entries start on a cache line of their own: a poster writes one while the data path reads its
// neighbour.
struct alignas(limits::kCacheLine) SendEntry {
    static constexpr uint32_t kGatherInside = 0;  // gather entries kept in the entry itself
    VAPI_sr_desc_t desc{};                        // sg_lst_p is not used: the gather list is `sg`
    uint32_t sg_count = 0;
    uint32_t inline_len = 0;  // inline sends: bytes in the inline area
    uint64_t bytes = 0;       // the message's bytes as posted (gather list or inline data)
    bool is_inline = false;
    bool has_pkey_ix = false;  // GSI sends on an explicit P_Key index
    VAPI_pkey_ix_t pkey_ix = 0;
    // Requester state.
    SendPhase phase = SendPhase::Queued;
    uint32_t first_psn = 0;  // RC/UC: PSN of the first packet
    uint32_t last_psn = 0;   // RC/UC: PSN of the last packet (reads: of the last response)
    // The byte count its completion reports, set when the requester takes it: `bytes`, but 8
    // for an atomic and 0 for an outcome a test forced.
    uint64_t length = 0;
    uint32_t read_received = 0;              // RDMA read: bytes of response data placed so far
    VAPI_wc_status_t status = VAPI_SUCCESS;  // outcome once Done
    uint32_t syndrome = 0;
    VAPI_sg_lst_entry_t *sg = nullptr;  // into the ring's gather area
    uint8_t *inline_data = nullptr;     // into the ring's inline area
};

struct alignas(limits::kCacheLine) RecvEntry {
    static constexpr uint32_t kGatherInside = 1;
    VAPI_rr_desc_t desc{};  // sg_lst_p is not used: the gather list is sge(0 .. sg_count - 1)
    uint32_t sg_count = 0;
    VAPI_sg_lst_entry_t *more = nullptr;  // entries 1 .. sg_count - 1, in the ring's gather area
    VAPI_sg_lst_entry_t first{};

    const VAPI_sg_lst_entry_t &sge(uint32_t i) const { return i == 0 ? first : more[i - 1]; }
    // Copies a gather list of `n` entries (no more than the ring's gather capacity).
    void set_gather(const VAPI_sg_lst_entry_t *sg, uint32_t n) {
        sg_count = n;
        if (n == 0) return;
        first = sg[0];
        if (n > 1) std::copy_n(sg + 1, n - 1, more);
    }
};
static_assert(sizeof(RecvEntry) == limits::kCacheLine,
              "a receive entry with its first gather entry is one line");

// A ring of `depth` entries (a power of two), with `sg_stride` gather entries and `inline_stride`
// inline bytes per entry. Positions only grow; the slot is position & mask.
template <class Entry>
class WorkRing {
  public:
    WorkRing() = default;
    WorkRing(const WorkRing &) = delete;
    WorkRing &operator=(const WorkRing &) = delete;

    // Sizes the ring; keeps the entries between head and tail in order. False if they do not fit.
    bool resize(uint32_t depth, uint32_t sg_stride, uint32_t inline_stride);

    uint32_t depth() const { return depth_; }
    uint32_t count() const { return uint32_t(tail() - head()); }
    bool empty() const { return head() == tail(); }
    bool full() const { return count() >= depth_; }
    uint32_t free_slots() const { return depth_ - count(); }
    uint64_t head() const { return head_.load(std::memory_order_acquire); }
    uint64_t tail() const { return tail_.load(std::memory_order_acquire); }

    Entry &at(uint64_t pos) { return slots_[pos & mask_]; }
    const Entry &at(uint64_t pos) const { return slots_[pos & mask_]; }
    Entry &front() { return at(head()); }
    // The entry a post fills next (producer side); publish it with push().
    Entry &next_free() { return at(own_tail_); }
    void push() { tail_.store(++own_tail_, std::memory_order_release); }
    // Consumer side: the front entry is done with.
    void pop() { head_.store(head_.load(std::memory_order_relaxed) + 1, std::memory_order_release); }
    // Consumer side: whether an entry is queued. It reads the producer's position only when the
    // last one it saw says the ring is empty: a consumer on another core than the poster (the
    // responder of a pass run by the sending thread) would otherwise pull that line, which every
    // post writes, on every message.
    bool has_front() {
        const uint64_t h = head_.load(std::memory_order_relaxed);
        if (h < seen_tail_) [[likely]]
            return true;
        seen_tail_ = tail_.load(std::memory_order_acquire);
        return h < seen_tail_;
    }
    // Consumer side: whether the next has_front() must read the producer's position.
    bool front_needs_look() const { return head_.load(std::memory_order_relaxed) >= seen_tail_; }
    // Consumer side: starts bringing the front entry's line in, if the consumer knows of one, so
    // that it is on its way before the consumer needs it.
    void prefetch_front() const {
        const uint64_t h = head_.load(std::memory_order_relaxed);
        if (h < seen_tail_) __builtin_prefetch(&at(h), 0, 3);
    }
    // The producer's position's cache line, for a prefetch by whoever consumes next.
    const void *tail_line() const { return &tail_; }
    // Producer side: whether `pending` entries already checked and one more stay under `limit`
    // outstanding. It reads the consumer's position only when the last one it saw says no, so a
    // poster does not pull the consumer's cache line on every post.
    bool room_for(uint32_t pending, uint32_t limit) {
        const uint64_t t = own_tail_;
        if (t - seen_head_ + pending < limit) return true;
        seen_head_ = head_.load(std::memory_order_acquire);
        return t - seen_head_ + pending < limit;
    }
    // Both locks held.
    void clear() {
        head_.store(0, std::memory_order_relaxed);
        seen_tail_ = 0;
        tail_.store(0, std::memory_order_release);
        own_tail_ = 0;
        seen_head_ = 0;
    }
    uint32_t sg_stride() const { return sg_stride_; }
    uint32_t inline_stride() const { return inline_stride_; }

  private:
    void bind(uint32_t slot);
    std::vector<Entry> slots_;
    std::vector<VAPI_sg_lst_entry_t> sg_area_;
    std::vector<uint8_t> inline_area_;
    uint32_t depth_ = 0, mask_ = 0, sg_stride_ = 0, inline_stride_ = 0;
    uint32_t sg_area_stride_ = 0;  // gather entries per slot in the gather area
    // The consumer's and the producer's positions, each in a cache line of its own.
    alignas(limits::kCacheLine) std::atomic<uint64_t> head_{0};
    // The consumer's last look at tail_ (never ahead of it; positions only grow, so it may fall
    // behind head_ when a flush empties the ring), beside the position only the consumer writes.
    uint64_t seen_tail_ = 0;
    alignas(limits::kCacheLine) std::atomic<uint64_t> tail_{0};
    // The producer's own view, on a line the consumer never reads: the consumer reads tail_,
    // and a poster that read it back after the consumer (on another core) had would wait for it.
    alignas(limits::kCacheLine) uint64_t own_tail_ = 0;  // == tail_, producer side
    uint64_t seen_head_ = 0;  // the producer's last look at head_ (never ahead of it)
};

using SendRing = WorkRing<SendEntry>;
using RecvRing = WorkRing<RecvEntry>;

}  // namespace marlix::softhca
