// The completion ring, arming, and collecting the events a completion raises.
#include "device/cq.hpp"
#include "device/qp.hpp"

namespace marlix::softhca {

uint64_t CompletionQueue::actual_size(uint32_t requested) {
    uint64_t ring = 2;
    while (ring - 1 < requested) ring <<= 1;
    return ring - 1;
}

bool CompletionQueue::push(const VAPI_wc_desc_t &wc) {
    if (count_ == slots_.size()) {
        overrun_ = true;
        return false;
    }
    slots_[(head_ + count_) % slots_.size()] = wc;
    ++count_;
    ready_.store(count_, std::memory_order_release);
    return true;
}

bool CompletionQueue::pop(VAPI_wc_desc_t *wc) {
    if (count_ == 0) return false;
    *wc = slots_[head_];
    head_ = static_cast<uint32_t>((head_ + 1) % slots_.size());
    --count_;
    ready_.store(count_, std::memory_order_release);
    return true;
}

bool CompletionQueue::resize(uint32_t new_size) {
    if (new_size < count_ || new_size == 0) return false;
    std::vector<VAPI_wc_desc_t> slots(new_size);
    for (uint32_t i = 0; i < count_; ++i) slots[i] = peek(i);
    slots_.swap(slots);
    head_ = 0;
    return true;
}

void CompletionQueue::arm(VAPI_cq_notif_type_t type) {
    if (type == VAPI_NEXT_COMP || armed_ == VAPI_NOTIF_NONE) armed_ = type;
}

std::optional<CompletionEvent> CompletionQueue::complete(const VAPI_wc_desc_t &wc, bool solicited) {
    push(wc);
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
    if (handler) {
        ev.handler = handler->fn;
        ev.private_data = handler->private_data;
    }
    return ev;
}

CompletionQueue *find_cq(Device &dev, VAPI_cq_hndl_t cq) {
    auto it = dev.cqs.find(cq);
    return it == dev.cqs.end() ? nullptr : static_cast<CompletionQueue *>(it->second.get());
}

void push_completion(CompletionQueue &cq, const VAPI_wc_desc_t &wc, bool solicited, PendingEvents &events) {
    bool was_overrun = cq.overrun();
    std::optional<CompletionEvent> ev = cq.complete(wc, solicited);
    if (ev && ev->handler) events.completions.push_back(*ev);
    if (!was_overrun && cq.overrun()) {
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
