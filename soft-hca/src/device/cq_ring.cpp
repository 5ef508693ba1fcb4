// The completion ring, arming, and collecting the events a completion raises.
#include <cstring>
#include <map>
#include <memory>

#include "device/cq.hpp"
#include "device/qp.hpp"

namespace marlix::softhca {

uint64_t CompletionQueue::actual_size(uint32_t requested) {
    uint64_t ring = 2;
    while (ring - 1 < requested) ring <<= 1;
    return ring - 1;
}

static_assert(sizeof(VAPI_wc_desc_t) == limits::kCacheLine && offsetof(VAPI_wc_desc_t, status) == 0 &&
                  sizeof(VAPI_wc_status_t) == 4 && offsetof(VAPI_wc_desc_t, id) == 8,
              "a completion is its status, 4 bytes of padding and the rest, in one cache line");

// Replaced rings by size, for the next ring of that size. A leaf lock: taken by the verbs that
// create, resize and destroy CQs (under the device mutex) and when a device closes.
struct CompletionQueue::RingPool {
    std::mutex mu;
    std::multimap<uint32_t, std::unique_ptr<Slot[]>> free;
};

CompletionQueue::RingPool &CompletionQueue::ring_pool() {
    // Never destroyed: a ready() may read a pooled ring as long as the process runs.
    static RingPool *pool = new RingPool;
    return *pool;
}

CompletionQueue::Slot *CompletionQueue::take_ring(uint32_t n, uint64_t first) {
    Slot *ring = nullptr;
    {
        RingPool &pool = ring_pool();
        std::lock_guard lk(pool.mu);
        if (auto it = pool.free.find(n); it != pool.free.end()) {
            ring = it->second.release();
            pool.free.erase(it);
        }
    }
    if (!ring) ring = new Slot[n];
    // Each slot one short of the first position it will hold.
    for (uint32_t i = 0; i < n; ++i) ring[i].seq.store(uint32_t(first + i), std::memory_order_relaxed);
    return ring;
}

void CompletionQueue::give_ring(Slot *ring, uint32_t n) {
    if (!ring) return;
    RingPool &pool = ring_pool();
    std::lock_guard lk(pool.mu);
    pool.free.emplace(n, std::unique_ptr<Slot[]>(ring));
}

CompletionQueue::CompletionQueue(uint32_t size) : ring_(take_ring(size, 0)), size_(size) {
    watch_.store(ring_, std::memory_order_release);
}

CompletionQueue::~CompletionQueue() {
    give_ring(ring_, size_);
}

bool CompletionQueue::push(const VAPI_wc_desc_t &wc) {
    const uint64_t tail = tail_.load(std::memory_order_relaxed);
    if (tail - seen_head_ >= size_) {
        seen_head_ = head_.load(std::memory_order_acquire);
        if (tail - seen_head_ >= size_) {
            overrun_ = true;
            return false;
        }
    }
    put(tail, wc);
    return true;
}

bool CompletionQueue::resize(uint32_t new_size) {
    std::lock_guard consumer(poll_mu_);
    const uint32_t queued = count();
    if (new_size < queued || new_size == 0) return false;
    // The positions stay (they only count); the queued completions move to the first slots of
    // the new ring and take their sequences with them.
    const uint64_t head = head_.load(std::memory_order_relaxed);
    Slot *ring = take_ring(new_size, head);
    for (uint32_t i = 0, from = head_index_; i < queued; ++i, from = next(from)) {
        ring[i].status = ring_[from].status;
        std::memcpy(ring[i].rest, ring_[from].rest, sizeof ring[i].rest);
        ring[i].seq.store(sequence_of(head + i), std::memory_order_relaxed);
    }
    give_ring(ring_, size_);
    ring_ = ring;
    size_ = new_size;
    head_index_ = 0;
    tail_index_ = queued == new_size ? 0 : queued;
    seen_head_ = head;
    watch_.store(ring_, std::memory_order_release);
    return true;
}

void CompletionQueue::arm(VAPI_cq_notif_type_t type) {
    if (type == VAPI_NEXT_COMP || armed_ == VAPI_NOTIF_NONE) armed_ = type;
    event_asked_.store(true, std::memory_order_relaxed);
}

void CompletionQueue::arm_count(uint32_t n) {
    armed_count_ = n;
    event_asked_.store(true, std::memory_order_relaxed);
}

bool CompletionQueue::set_handler(const Handler &h) {
    if (handler_) return false;
    handler_ = h;
    return true;
}

bool CompletionQueue::clear_handler(EVAPI_compl_handler_hndl_t hndl) {
    if (!handler_ || handler_->hndl != hndl) return false;
    handler_.reset();
    return true;
}

void CompletionQueue::kill() {
    std::lock_guard consumer(poll_mu_);
    dead_ = true;
    // Nothing left to poll; a ring of one empty slot stays for anything still holding the
    // record, and the ring goes back to the pool.
    const uint64_t tail = tail_.load(std::memory_order_relaxed);
    Slot *parked = take_ring(1, tail);
    give_ring(ring_, size_);
    ring_ = parked;
    size_ = 1;
    head_.store(tail, std::memory_order_release);
    seen_head_ = tail;
    head_index_ = tail_index_ = 0;
    watch_.store(ring_, std::memory_order_release);
}

std::optional<CompletionEvent> CompletionQueue::complete(const VAPI_wc_desc_t &wc, bool solicited,
                                                         bool *overran) {
    const bool was_overrun = overrun_;
    push(wc);
    if (overran) *overran = !was_overrun && overrun_;
    bool due = armed_ == VAPI_NEXT_COMP ||
               (armed_ == VAPI_SOLIC_COMP && (solicited || raw_value(wc.status) != VAPI_SUCCESS));
    if (armed_count_ != 0 && count() >= armed_count_) due = true;
    if (!due) return std::nullopt;
    armed_ = VAPI_NOTIF_NONE;
    armed_count_ = 0;
    event_asked_.store(false, std::memory_order_relaxed);
    CompletionEvent ev;
    ev.hca = hca;
    ev.cq = hndl;
    ev.gate = event_gate;
    if (handler_) {
        ev.handler = handler_->fn;
        ev.private_data = handler_->private_data;
    }
    return ev;
}

CompletionQueue *find_cq(Device &dev, VAPI_cq_hndl_t cq) {
    auto it = dev.cqs.find(cq);
    return it == dev.cqs.end() ? nullptr : static_cast<CompletionQueue *>(it->second.get());
}

void push_completion_raising(CompletionQueue &cq, const VAPI_wc_desc_t &wc, bool solicited,
                             PendingEvents &events) {
    bool overran = false;
    std::optional<CompletionEvent> ev = cq.complete(wc, solicited, &overran);
    if (ev && ev->handler) events.completions.push_back(*ev);
    if (overran) {
        VAPI_event_record_t rec{};
        rec.type = VAPI_CQ_ERROR;
        rec.syndrome = VAPI_CQ_ERR_OVERRUN;
        rec.modifier.cq_hndl = cq.hndl;
        events.async.push_back({rec, cq.event_gate});
    }
}

void PendingEvents::deliver_all(Device &dev) {
    // The list is emptied before anything is raised: a handler that runs at once (no kernel to
    // queue it) may post, and the pass that post runs may collect into this same list (a
    // thread's pass keeps its lists from pass to pass).
    const SmallList<CompletionEvent, 8> batch = completions;
    const SmallList<AsyncEvent, 4> raised = async;
    completions.clear();
    async.clear();
    if (!batch.empty()) {
        // One interrupt for the batch: the handlers run one after the other in it.
        dispatch_event([batch] {
            for (size_t i = 0; i < batch.size(); ++i) batch[i].fire();
        });
    }
    for (size_t i = 0; i < raised.size(); ++i) dev.raise_async_event(raised[i].record, raised[i].gate);
}

}  // namespace marlix::softhca
