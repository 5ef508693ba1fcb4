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

uint32_t CompletionQueue::count() const {
    std::lock_guard lk(mu_);
    return count_;
}

bool CompletionQueue::push(const VAPI_wc_desc_t &wc) {
    if (count_ == slots_.size()) {
        overrun_ = true;
        return false;
    }
    slots_[at(count_)].wc = wc;
    ++count_;
    ready_.store(count_, std::memory_order_release);
    return true;
}

VAPI_ret_t CompletionQueue::pop(VAPI_wc_desc_t *wc) {
    std::lock_guard lk(mu_);
    if (dead_) return VAPI_EINVAL_CQ_HNDL;
    if (count_ == 0) return VAPI_CQ_EMPTY;
    *wc = slots_[head_].wc;
    head_ = at(1);
    --count_;
    ready_.store(count_, std::memory_order_release);
    return VAPI_OK;
}

bool CompletionQueue::resize(uint32_t new_size) {
    std::lock_guard lk(mu_);
    if (new_size < count_ || new_size == 0) return false;
    std::vector<Slot> slots(new_size);
    for (uint32_t i = 0; i < count_; ++i) slots[i].wc = peek(i);
    slots_.swap(slots);
    head_ = 0;
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
    std::lock_guard lk(mu_);
    dead_ = true;
    count_ = 0;
    ready_.store(0, std::memory_order_release);
    std::vector<Slot>().swap(slots_);
    slots_.resize(1);  // keeps the ring arithmetic defined for anything still holding the record
}

std::optional<CompletionEvent> CompletionQueue::complete(const VAPI_wc_desc_t &wc, bool solicited,
                                                         bool *overran) {
    std::lock_guard lk(mu_);
    const bool was_overrun = overrun_;
    push(wc);
    if (overran) *overran = !was_overrun && overrun_;
    bool due = armed_ == VAPI_NEXT_COMP ||
               (armed_ == VAPI_SOLIC_COMP && (solicited || raw_value(wc.status) != VAPI_SUCCESS));
    if (armed_count_ != 0 && count_ >= armed_count_) due = true;
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

void PendingEvents::deliver(Device &dev) {
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
