// The completion ring, arming, and collecting the events a completion raises.
#include "device/cq.hpp"
#include "device/qp.hpp"

namespace marlix::softhca {

uint64_t CompletionQueue::actual_size(uint32_t requested) {
    uint64_t ring = 2;
    while (ring - 1 < requested) ring <<= 1;
    return ring - 1;
}

uint32_t CompletionQueue::size() const {
    std::lock_guard lk(mu_);
    return static_cast<uint32_t>(slots_.size());
}

bool CompletionQueue::push(const VAPI_wc_desc_t &wc) {
    const uint64_t tail = tail_.load(std::memory_order_relaxed);
    if (tail - seen_head_ >= slots_.size()) {
        seen_head_ = head_.load(std::memory_order_acquire);
        if (tail - seen_head_ >= slots_.size()) {
            overrun_ = true;
            return false;
        }
    }
    slots_[tail_index_].wc = wc;
    tail_index_ = next(tail_index_);
    tail_.store(tail + 1, std::memory_order_release);
    return true;
}

VAPI_ret_t CompletionQueue::pop(VAPI_wc_desc_t *wc) {
    std::lock_guard lk(poll_mu_);
    if (dead_) return VAPI_EINVAL_CQ_HNDL;
    const uint64_t head = head_.load(std::memory_order_relaxed);
    if (head == seen_tail_) {
        seen_tail_ = tail_.load(std::memory_order_acquire);
        if (head == seen_tail_) return VAPI_CQ_EMPTY;
    }
    *wc = slots_[head_index_].wc;
    head_index_ = next(head_index_);
    head_.store(head + 1, std::memory_order_release);
    return VAPI_OK;
}

bool CompletionQueue::resize(uint32_t new_size) {
    std::lock_guard producer(mu_);
    std::lock_guard consumer(poll_mu_);
    const uint32_t queued = count();
    if (new_size < queued || new_size == 0) return false;
    std::vector<Slot> slots(new_size);
    for (uint32_t i = 0, from = head_index_; i < queued; ++i, from = next(from))
        slots[i].wc = slots_[from].wc;
    slots_.swap(slots);
    // The positions stay (they only count); the slots start again from the first.
    head_index_ = 0;
    tail_index_ = queued == new_size ? 0 : queued;
    seen_head_ = head_.load(std::memory_order_relaxed);
    seen_tail_ = tail_.load(std::memory_order_relaxed);
    return true;
}

void CompletionQueue::arm(VAPI_cq_notif_type_t type) {
    std::lock_guard lk(mu_);
    if (type == VAPI_NEXT_COMP || armed_ == VAPI_NOTIF_NONE) armed_ = type;
}

void CompletionQueue::arm_count(uint32_t n) {
    std::lock_guard lk(mu_);
    armed_count_ = n;
}

bool CompletionQueue::set_handler(const Handler &h) {
    std::lock_guard lk(mu_);
    if (handler_) return false;
    handler_ = h;
    return true;
}

bool CompletionQueue::clear_handler(EVAPI_compl_handler_hndl_t hndl) {
    std::lock_guard lk(mu_);
    if (!handler_ || handler_->hndl != hndl) return false;
    handler_.reset();
    return true;
}

void CompletionQueue::kill() {
    std::lock_guard producer(mu_);
    std::lock_guard consumer(poll_mu_);
    dead_ = true;
    // Nothing left to poll; the slots keep one entry so the ring arithmetic stays defined for
    // anything still holding the record.
    head_.store(tail_.load(std::memory_order_relaxed), std::memory_order_release);
    seen_head_ = seen_tail_ = head_.load(std::memory_order_relaxed);
    head_index_ = tail_index_ = 0;
    std::vector<Slot>(1).swap(slots_);
}

std::optional<CompletionEvent> CompletionQueue::complete(const VAPI_wc_desc_t &wc, bool solicited,
                                                         bool *overran) {
    std::lock_guard lk(mu_);
    const bool was_overrun = overrun_;
    push(wc);
    if (overran) *overran = !was_overrun && overrun_;
    bool due = armed_ == VAPI_NEXT_COMP ||
               (armed_ == VAPI_SOLIC_COMP && (solicited || raw_value(wc.status) != VAPI_SUCCESS));
    if (armed_count_ != 0 && count() >= armed_count_) due = true;
    if (!due) return std::nullopt;
    armed_ = VAPI_NOTIF_NONE;
    armed_count_ = 0;
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

void push_completion(CompletionQueue &cq, const VAPI_wc_desc_t &wc, bool solicited, PendingEvents &events) {
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
    if (!completions.empty()) {
        // One interrupt for the batch: the handlers run one after the other in it.
        SmallList<CompletionEvent, 8> batch = completions;
        dispatch_event([batch] {
            for (size_t i = 0; i < batch.size(); ++i) batch[i].fire();
        });
    }
    for (size_t i = 0; i < async.size(); ++i) dev.raise_async_event(async[i].record, async[i].gate);
    completions.clear();
    async.clear();
}

}  // namespace marlix::softhca
