// Completion queue verbs: create, query, resize, destroy, completion handlers, arming, peeking
// and polling.
#include <atomic>
#include <string>

#include "device/cq.hpp"
#include "engine/engine.hpp"
#include "device/qp.hpp"

namespace marlix::softhca {

namespace {

// Completion handler handles are unique across devices and never reused, so a stale handle
// cannot clear the handler of a CQ that was created later.
std::atomic<EVAPI_compl_handler_hndl_t> g_next_handler_hndl{1};

}  // namespace

}  // namespace marlix::softhca

using namespace marlix::softhca;

extern "C" {

VAPI_ret_t VAPI_create_cq(VAPI_hca_hndl_t hca_hndl, VAPI_cqe_num_t cqe_num, VAPI_cq_hndl_t *cq_hndl_p,
                          VAPI_cqe_num_t *num_of_entries_p) {
    Call call(Verb::VAPI_create_cq, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    if (!cq_hndl_p || !num_of_entries_p) return VAPI_EINVAL_PARAM;
    if (cqe_num > dev.cap.max_num_ent_cq) return VAPI_E2BIG_CQ_NUM;
    if (dev.cqs.size() >= dev.cap.max_num_cq) return VAPI_EOL;
    uint64_t size = CompletionQueue::actual_size(cqe_num);
    if (size > dev.cap.max_num_ent_cq) size = dev.cap.max_num_ent_cq;
    auto cq = std::make_unique<CompletionQueue>(static_cast<uint32_t>(size));
    cq->hca = dev.hndl;
    cq->hndl = dev.cq_handles.allocate();
    *cq_hndl_p = cq->hndl;
    *num_of_entries_p = cq->size();
    if (cq->hndl < Device::kFastCqHandles) dev.fast_cqs[cq->hndl].store(cq.get(), std::memory_order_release);
    dev.cqs[cq->hndl] = std::move(cq);
    return VAPI_OK;
}

VAPI_ret_t VAPI_query_cq(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl, VAPI_cqe_num_t *num_of_entries_p) {
    Call call(Verb::VAPI_query_cq, hca_hndl);
    if (call.failed()) return call.status();
    CompletionQueue *cq = find_cq(call.dev(), cq_hndl);
    if (!cq) return VAPI_EINVAL_CQ_HNDL;
    if (!num_of_entries_p) return VAPI_EINVAL_PARAM;
    *num_of_entries_p = cq->size();
    return VAPI_OK;
}

VAPI_ret_t VAPI_resize_cq(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl, VAPI_cqe_num_t cqe_num,
                          VAPI_cqe_num_t *num_of_entries_p) {
    Call call(Verb::VAPI_resize_cq, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    CompletionQueue *cq = find_cq(dev, cq_hndl);
    if (!cq) return VAPI_EINVAL_CQ_HNDL;
    if (!num_of_entries_p) return VAPI_EINVAL_PARAM;
    if (cqe_num > dev.cap.max_num_ent_cq) return VAPI_E2BIG_CQ_NUM;
    uint64_t size = CompletionQueue::actual_size(cqe_num);
    if (size > dev.cap.max_num_ent_cq) size = dev.cap.max_num_ent_cq;
    // Shrinking below the completions still queued would lose them: refused.
    if (!cq->resize(static_cast<uint32_t>(size))) return VAPI_E2BIG_CQ_NUM;
    *num_of_entries_p = cq->size();
    return VAPI_OK;
}

VAPI_ret_t VAPI_destroy_cq(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl) {
    Call call(Verb::VAPI_destroy_cq, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    CompletionQueue *cq = find_cq(dev, cq_hndl);
    if (!cq) return VAPI_EINVAL_CQ_HNDL;
    if (cq->qp_users != 0) return VAPI_EBUSY;
    if (cq_hndl < Device::kFastCqHandles) dev.fast_cqs[cq_hndl].store(nullptr, std::memory_order_release);
    // A poll that looked the CQ up without a lock may still hold it: it finds it dead.
    cq->kill();
    EventGateRef gate = cq->event_gate;
    auto it = dev.cqs.find(cq_hndl);
    dev.retired_cqs.push_back(std::move(it->second));
    dev.cqs.erase(it);
    dev.cq_handles.release(cq_hndl);
    // As for a QP: events not started are dropped, running handlers (on other threads) waited for
    // once the device mutex is released.
    gate->close();
    call.unlock();
    gate->wait_idle();
    return VAPI_OK;
}

}  // extern "C"

namespace {

// A poll the table of CQs does not answer: under the device mutex, which also says why it fails.
[[gnu::noinline]] VAPI_ret_t poll_locked(Device *dev, VAPI_cq_hndl_t cq_hndl, VAPI_wc_desc_t *comp_desc_p) {
    Call call(dev, Call::Checked{});
    if (call.failed()) return call.status();
    CompletionQueue *cq = find_cq(call.dev(), cq_hndl);
    if (!cq) return VAPI_EINVAL_CQ_HNDL;
    if (!comp_desc_p) return VAPI_EINVAL_PARAM;
    return cq->pop(comp_desc_p);
}

// Arming asks for an event: posts left for a poll (see the threaded engine) go through once the
// CQ is armed, so that what they complete raises it.
VAPI_ret_t carry_after_arming(VAPI_hca_hndl_t hca_hndl, VAPI_ret_t rc) {
    if (rc != VAPI_OK) return rc;
    if (Device *dev = device_by_handle(hca_hndl); dev && dev->open.load(std::memory_order_acquire))
        engine_carry(*dev);
    return rc;
}

// Arms the CQ with `arm` (which checks its own arguments) under the verb's call.
template <class Arm>
VAPI_ret_t arm_cq(Verb verb, VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl, Arm &&arm) {
    Call call(verb, hca_hndl);
    if (call.failed()) return call.status();
    CompletionQueue *cq = find_cq(call.dev(), cq_hndl);
    if (!cq) return VAPI_EINVAL_CQ_HNDL;
    return arm(*cq);
}

}  // namespace

extern "C" {

VAPI_ret_t VAPI_poll_cq(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl, VAPI_wc_desc_t *comp_desc_p) {
    Device *dev = device_by_handle(hca_hndl);
    if (VAPI_ret_t rc = check_faults(Verb::VAPI_poll_cq, dev); rc != VAPI_OK) return rc;
    // Polling takes only the CQ's own lock (and none when the CQ is empty, the common case of a
    // busy poller), never the device mutex that the passes delivering into the device hold.
    if (dev && dev->open.load(std::memory_order_acquire) && comp_desc_p && cq_hndl < Device::kFastCqHandles) {
        if (CompletionQueue *fast = dev->fast_cqs[cq_hndl].load(std::memory_order_acquire)) {
            if (fast->ready()) {
                engine_expect_post(*dev);
                return fast->pop(comp_desc_p);
            }
            // Nothing here: posts left for a poll (see the threaded engine) go through now.
            engine_carry(*dev);
            return fast->ready() ? fast->pop(comp_desc_p) : VAPI_CQ_EMPTY;
        }
    }
    if (dev && dev->open.load(std::memory_order_acquire)) engine_carry(*dev);
    return poll_locked(dev, cq_hndl, comp_desc_p);
}

VAPI_ret_t VAPI_req_comp_notif(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl,
                               VAPI_cq_notif_type_t notif_type) {
    return carry_after_arming(hca_hndl,
                              arm_cq(Verb::VAPI_req_comp_notif, hca_hndl, cq_hndl, [&](CompletionQueue &cq) {
                                  const uint32_t type = raw_value(notif_type);
                                  if (type != VAPI_SOLIC_COMP && type != VAPI_NEXT_COMP)
                                      return VAPI_EINVAL_NOTIF_TYPE;
                                  cq.arm(notif_type);
                                  return VAPI_OK;
                              }));
}

VAPI_ret_t EVAPI_peek_cq(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl, VAPI_cqe_num_t cqe_num) {
    // Posts left for a poll count as done for a peek: they go through first.
    if (Device *dev = device_by_handle(hca_hndl); dev && dev->open.load(std::memory_order_acquire))
        engine_carry(*dev);
    Call call(Verb::EVAPI_peek_cq, hca_hndl);
    if (call.failed()) return call.status();
    CompletionQueue *cq = find_cq(call.dev(), cq_hndl);
    if (!cq) return VAPI_EINVAL_CQ_HNDL;
    // "Not yet" is the empty-CQ status rather than a failure: peeking never changes the CQ.
    return cq->count() >= cqe_num ? VAPI_OK : VAPI_CQ_EMPTY;
}

VAPI_ret_t EVAPI_req_ncomp_notif(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl, VAPI_cqe_num_t cqe_num) {
    return carry_after_arming(
        hca_hndl, arm_cq(Verb::EVAPI_req_ncomp_notif, hca_hndl, cq_hndl, [&](CompletionQueue &cq) {
            if (cqe_num == 0 || cqe_num > cq.size()) return VAPI_E2BIG_CQ_NUM;
            cq.arm_count(cqe_num);
            return VAPI_OK;
        }));
}

VAPI_ret_t EVAPI_set_comp_eventh(VAPI_hca_hndl_t hca_hndl, VAPI_cq_hndl_t cq_hndl,
                                 VAPI_completion_event_handler_t completion_handler, void *private_data,
                                 EVAPI_compl_handler_hndl_t *completion_handler_hndl_p) {
    Call call(Verb::EVAPI_set_comp_eventh, hca_hndl);
    if (call.failed()) return call.status();
    CompletionQueue *cq = find_cq(call.dev(), cq_hndl);
    if (!cq) return VAPI_EINVAL_CQ_HNDL;
    if (!completion_handler || !completion_handler_hndl_p) return VAPI_EINVAL_PARAM;
    // One handler per CQ: a second one must clear the first.
    CompletionQueue::Handler h;
    h.fn = completion_handler;
    h.private_data = private_data;
    h.hndl = g_next_handler_hndl.fetch_add(1);
    if (!cq->set_handler(h)) return VAPI_EBUSY;
    *completion_handler_hndl_p = h.hndl;
    return VAPI_OK;
}

VAPI_ret_t EVAPI_clear_comp_eventh(VAPI_hca_hndl_t hca_hndl,
                                   EVAPI_compl_handler_hndl_t completion_handler_hndl) {
    Call call(Verb::EVAPI_clear_comp_eventh, hca_hndl);
    if (call.failed()) return call.status();
    for (auto &[hndl, obj] : call.dev().cqs) {
        if (static_cast<CompletionQueue *>(obj.get())->clear_handler(completion_handler_hndl)) return VAPI_OK;
    }
    return VAPI_EINVAL_COMPL_HNDL;
}

}  // extern "C"
