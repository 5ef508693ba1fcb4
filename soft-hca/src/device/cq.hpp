// Completion queues of the software HCA: a fixed-size ring of completion entries per CQ, the
// arming state for completion events and the CQ's completion handler. Each CQ has its own lock
// (under the device mutex in the lock order, and a leaf): the completer pushes under it with its
// device mutex held, while polls, peeks and arming take it alone, so a poller does not wait for
// the passes that deliver into the device. The data path pushes completions with
// CompletionQueue::complete() and fires the returned event after releasing every lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "device/adaptive_mutex.hpp"
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

class CompletionQueue : public Object {
  public:
    // The size a CQ really gets for a request: the adapter's rings hold a power of two entries
    // and keep one free, so the usable size is the next power of two minus one that is at least
    // the request (a request of 0 gets the smallest ring, 1 entry).
    static uint64_t actual_size(uint32_t requested);

    explicit CompletionQueue(uint32_t size) : slots_(size) {}

    // The methods below take the CQ's lock themselves.
    uint32_t size() const;
    uint32_t count() const;
    // The same, readable without the lock (the empty-poll answer).
    uint32_t ready() const { return ready_.load(std::memory_order_acquire); }

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
    // One completion per cache line: the completer writes one while a poller reads another.
    struct alignas(limits::kCacheLine) Slot {
        VAPI_wc_desc_t wc;
    };
    bool push(const VAPI_wc_desc_t &wc);
    // The slot `i` places after the head (i < size).
    uint32_t at(uint32_t i) const {
        const uint32_t pos = head_ + i;
        return pos >= slots_.size() ? pos - uint32_t(slots_.size()) : pos;
    }
    const VAPI_wc_desc_t &peek(uint32_t i) const { return slots_[at(i)].wc; }

    mutable AdaptiveMutex mu_;
    std::vector<Slot> slots_;
    uint32_t head_ = 0;
    uint32_t count_ = 0;

    bool overrun_ = false;
    bool dead_ = false;
    VAPI_cq_notif_type_t armed_ = VAPI_NOTIF_NONE;
    uint32_t armed_count_ = 0;
    std::optional<Handler> handler_;
    // What an empty poll reads, last and alone in its line: a poller spinning on it does not
    // pull the lock and the ring's positions away from the completer that holds them.
    alignas(limits::kCacheLine) std::atomic<uint32_t> ready_{0};
};

}  // namespace marlix::softhca
