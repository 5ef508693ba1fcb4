// Completion queues of the software HCA: a fixed-size ring of completion entries per CQ, the
// arming state for completion events and the CQ's completion handler.
//
// The ring has a producer side and a consumer side that share nothing but the slot that passes
// between them:
//   - the producer side (pushes, arming, the handler) is serialised by the device mutex of the
//     CQ's device: every push comes from the data path or a flush, which run under it, and every
//     verb that arms the CQ, sets its handler, resizes or destroys it holds it through its Call.
//     The CQ has no producer lock of its own;
//   - the consumer side (polls) is under `poll_mu_`, which only pollers take;
//   - resizing and destroying hold the device mutex and take `poll_mu_` as well.
// A slot says itself whether it holds the completion a poller waits for: the producer writes the
// completion and then, with a release store, the slot's sequence (the completion's position + 1,
// in 32 bits); a poller compares the sequence of the slot at its head with its own position + 1.
// So a busy poller watches the one cache line the producer writes next, and the producer's
// position is read only by count() (peeking, arming by count). The producer reads the consumer's
// position only when its own last view of it says the ring is full. A slot that holds nothing
// has a sequence that cannot match the next position it will hold.
//
// Rings are never handed back to the allocator: the empty-poll answer, ready(), reads the slot
// at the head without any lock, possibly of a ring that a resize or a destroy has just replaced.
// A replaced ring goes to a pool for the next ring of its size; whatever a stale ready() reads
// there is a sequence word, and at worst it sends that poll to pop(), which looks again under
// the consumer's lock.
//
// The data path pushes completions with CompletionQueue::complete() and fires the returned
// event after releasing every lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <optional>

#include "device/short_lock.hpp"
#include "device/device.hpp"
#include "device/event_gate.hpp"
#include "device/limits.hpp"

namespace marlix::softhca {

// A completion event to deliver once the device lock is released.
struct CompletionEvent {
    VAPI_completion_event_handler_t handler = nullptr;
    VAPI_hca_hndl_t hca = 0;
    VAPI_cq_hndl_t cq = 0;
    void *private_data = nullptr;
    EventGateRef gate;  // the CQ's: once it is destroyed the event is dropped
    void fire() const {
        EventPass pass(gate.get());
        if (pass.ok() && handler) handler(hca, cq, private_data);
    }
};

// Aligned, so that the consumer's line at the end of the record is its own.
class alignas(limits::kCacheLine) CompletionQueue : public Object {
  public:
    // The size a CQ really gets for a request: the adapter's rings hold a power of two entries
    // and keep one free, so the usable size is the next power of two minus one that is at least
    // the request (a request of 0 gets the smallest ring, 1 entry).
    static uint64_t actual_size(uint32_t requested);

    explicit CompletionQueue(uint32_t size);
    ~CompletionQueue() override;
    CompletionQueue(const CompletionQueue &) = delete;
    CompletionQueue &operator=(const CompletionQueue &) = delete;

    // The producer's methods (size, resize, arming, complete, handlers, kill) are called with the
    // device mutex held; pop() takes the consumer's lock itself.
    uint32_t size() const { return size_; }
    // Completions waiting to be polled.
    uint32_t count() const {
        const uint64_t head = head_.load(std::memory_order_acquire);
        return uint32_t(tail_.load(std::memory_order_acquire) - head);
    }
    // Whether a poll may find something: the empty-poll answer, read without any lock. Exact for
    // the thread that polls; a poll racing another poll of the same CQ, or a resize, may be told
    // "empty" while the other moves the head.
    bool ready() const {
        const Slot *slot = watch_.load(std::memory_order_acquire);
        return slot->seq.load(std::memory_order_acquire) ==
               sequence_of(head_.load(std::memory_order_relaxed));
    }

    // Whether completions wait here and no event is asked for: whoever consumes them will poll,
    // and a post that feeds this CQ may leave its work to that poll (see the threaded engine).
    // Read without any lock; a stale answer costs at most a wait for the engine's next look.
    // It reads the lines a poller reads, never the producer's, which another core may be
    // writing.
    bool awaits_poll() const { return !event_asked_.load(std::memory_order_relaxed) && ready(); }

    // The slot the next push fills (producer side), for a prefetch by whoever pushes next.
    const void *next_slot() const { return &ring_[tail_index_]; }
    // Takes the oldest completion: VAPI_OK, VAPI_CQ_EMPTY, or VAPI_EINVAL_CQ_HNDL once destroyed.
    VAPI_ret_t pop(VAPI_wc_desc_t *wc);
    // Changes the ring size keeping every queued completion in order; false when they do not fit.
    bool resize(uint32_t new_size);

    // Arming: the next completion (or next solicited one) raises one event, then the CQ is
    // disarmed until armed again. Arming for "next" covers a pending "solicited" request.
    void arm(VAPI_cq_notif_type_t type);
    // Arming for a number of completions: one event once the CQ holds at least `n`.
    void arm_count(uint32_t n);

    // Pushes a completion and says whether it raised an event (the handler may be null when no
    // handler is set; the event is then consumed with nobody to tell, as on the adapter). A full
    // ring drops it and marks the CQ overrun; `overran` says whether this push did that first.
    std::optional<CompletionEvent> complete(const VAPI_wc_desc_t &wc, bool solicited, bool *overran);
    // The same for the common case, which raises nothing: pushes the completion when the CQ is
    // not armed and its ring has room by the producer's last look at the consumer. False, with
    // nothing done, otherwise (complete() then does the whole work).
    bool push_unarmed(const VAPI_wc_desc_t &wc);

    // Completion handler registered with EVAPI_set_comp_eventh.
    struct Handler {
        VAPI_completion_event_handler_t fn = nullptr;
        void *private_data = nullptr;
        EVAPI_compl_handler_hndl_t hndl = 0;
    };
    // Installs a handler unless one is set (false then).
    bool set_handler(const Handler &h);
    // Removes the handler with that handle; false when it is not this CQ's.
    bool clear_handler(EVAPI_compl_handler_hndl_t hndl);

    // Destroy: polls that looked the CQ up before it went away answer "invalid handle" from now
    // on, and the ring's memory is released (the record itself stays until the device closes).
    void kill();

    // Identity, filled by the owner so that events name the CQ.
    VAPI_hca_hndl_t hca = 0;
    VAPI_cq_hndl_t hndl = 0;
    // QPs whose send or receive queue completes here (destroy is refused while non-zero).
    uint32_t qp_users = 0;
    // What destroy closes and waits on: the CQ's completion and CQ error events in flight.
    EventGateRef event_gate = std::make_shared<EventGate>();

  private:
    // One completion per cache line, with its sequence. A VAPI_wc_desc_t fills a line: its 4-byte
    // status, 4 bytes of padding before the 8-byte id, then the rest. The slot keeps the status
    // and everything from the id on, byte for byte, and its sequence where the padding was.
    struct alignas(limits::kCacheLine) Slot {
        std::atomic<uint32_t> seq{0};
        uint32_t status = 0;
        unsigned char rest[sizeof(VAPI_wc_desc_t) - offsetof(VAPI_wc_desc_t, id)];
    };
    struct RingPool;
    static RingPool &ring_pool();
    // A ring of `n` slots from the pool (or new), numbered for an empty ring whose first slot
    // takes position `first`; and a ring handed back.
    static Slot *take_ring(uint32_t n, uint64_t first);
    static void give_ring(Slot *ring, uint32_t n);
    static uint32_t sequence_of(uint64_t position) { return uint32_t(position + 1); }
    static void store(Slot &slot, const VAPI_wc_desc_t &wc);
    static void load(const Slot &slot, VAPI_wc_desc_t *wc);

    bool push(const VAPI_wc_desc_t &wc);
    // Writes the completion at position `tail` (the ring has room) and publishes it.
    void put(uint64_t tail, const VAPI_wc_desc_t &wc);
    uint32_t next(uint32_t index) const { return index + 1 == size_ ? 0 : index + 1; }

    // Read by both sides, written only with the device mutex and the consumer's lock held.
    Slot *ring_ = nullptr;
    uint32_t size_ = 0;
    bool dead_ = false;
    // armed_ or armed_count_ set (written with them), for awaits_poll(): here, on the line both
    // sides read, not beside the producer's position, which changes with every push.
    std::atomic<bool> event_asked_{false};

    // Producer side, serialised by the device mutex.
    alignas(limits::kCacheLine) std::atomic<uint64_t> tail_{0};  // completions pushed so far
    uint32_t tail_index_ = 0;                                    // the slot the next push fills
    uint64_t seen_head_ = 0;                                     // head_ as the producer last read it
    bool overrun_ = false;
    VAPI_cq_notif_type_t armed_ = VAPI_NOTIF_NONE;
    uint32_t armed_count_ = 0;
    std::optional<Handler> handler_;

    // Consumer side.
    alignas(limits::kCacheLine) mutable ShortLock poll_mu_;
    std::atomic<uint64_t> head_{0};             // completions polled so far
    uint32_t head_index_ = 0;                   // the slot the next poll takes
    std::atomic<const Slot *> watch_{nullptr};  // that slot, for ready()
};

// Inline: every completion the data path pushes, and every one polled, comes through these.
inline void CompletionQueue::store(Slot &slot, const VAPI_wc_desc_t &wc) {
    std::memcpy(&slot.status, &wc.status, sizeof slot.status);
    std::memcpy(slot.rest, reinterpret_cast<const unsigned char *>(&wc) + offsetof(VAPI_wc_desc_t, id),
                sizeof slot.rest);
}

inline void CompletionQueue::load(const Slot &slot, VAPI_wc_desc_t *wc) {
    std::memcpy(&wc->status, &slot.status, sizeof slot.status);
    std::memcpy(reinterpret_cast<unsigned char *>(wc) + offsetof(VAPI_wc_desc_t, id), slot.rest,
                sizeof slot.rest);
}

inline VAPI_ret_t CompletionQueue::pop(VAPI_wc_desc_t *wc) {
    std::lock_guard lk(poll_mu_);
    if (dead_) return VAPI_EINVAL_CQ_HNDL;
    const uint64_t head = head_.load(std::memory_order_relaxed);
    const Slot &slot = ring_[head_index_];
    if (slot.seq.load(std::memory_order_acquire) != sequence_of(head)) return VAPI_CQ_EMPTY;
    load(slot, wc);
    head_index_ = next(head_index_);
    head_.store(head + 1, std::memory_order_release);
    watch_.store(&ring_[head_index_], std::memory_order_release);
    return VAPI_OK;
}

inline void CompletionQueue::put(uint64_t tail, const VAPI_wc_desc_t &wc) {
    Slot &slot = ring_[tail_index_];
    store(slot, wc);
    slot.seq.store(sequence_of(tail), std::memory_order_release);
    tail_index_ = next(tail_index_);
    tail_.store(tail + 1, std::memory_order_release);
}

inline bool CompletionQueue::push_unarmed(const VAPI_wc_desc_t &wc) {
    if (armed_ != VAPI_NOTIF_NONE || armed_count_ != 0) return false;
    const uint64_t tail = tail_.load(std::memory_order_relaxed);
    // Full as far as the producer last saw: complete() looks at the consumer's position again.
    if (tail - seen_head_ >= size_) return false;
    put(tail, wc);
    return true;
}

}  // namespace marlix::softhca
