// Posting work requests: validation against the QP's state, transport and capabilities, and
// queueing on the QP for the data path. A list post is all or nothing: every request is checked
// before the first one is queued. A post on a connected QP takes only the lock of the queue it
// posts to; datagram and special QPs (address handles) and stopped queues (flushes) take the
// device mutex as well.
#include <algorithm>
#include <cstring>
#include <optional>

#include "datapath/datapath.hpp"
#include "device/qp.hpp"
#include "engine/engine.hpp"

namespace marlix::softhca {

namespace {

using qpsm::QpKind;
using qpsm::QpState;

bool opcode_allowed(const Qp &qp, uint32_t op) {
    if (qp.kind != QpKind::Regular || qp.transport() == VAPI_TS_UD)
        return op == VAPI_SEND || op == VAPI_SEND_WITH_IMM;
    switch (op) {
        case VAPI_SEND:
        case VAPI_SEND_WITH_IMM:
        case VAPI_RDMA_WRITE:
        case VAPI_RDMA_WRITE_WITH_IMM:
            return true;
        case VAPI_RDMA_READ:
        case VAPI_ATOMIC_CMP_AND_SWP:
        case VAPI_ATOMIC_FETCH_AND_ADD:
            return qp.transport() == VAPI_TS_RC;
        default:
            return false;
    }
}

bool valid_comp_type(uint32_t t) {
    return t == VAPI_SIGNALED || t == VAPI_UNSIGNALED;
}

// The send queue takes work in RTS and SQD (where it waits); in SQE and ERR it takes it only to
// complete it at once with a flush error. Before RTS there is nothing to send with.
bool send_queue_open(QpState s) {
    return s == QpState::Rts || s == QpState::Sqd || s == QpState::Sqe || s == QpState::Err;
}

[[gnu::always_inline]] inline VAPI_ret_t check_send(Device &dev, Qp &qp, const VAPI_sr_desc_t *d,
                                                    bool is_inline, size_t pending) {
    if (!d) return VAPI_EINVAL_PARAM;
    // Raw QPs carry no traffic on this adapter.
    if (qp.kind == QpKind::Raw) return VAPI_ENOSYS;
    if (!send_queue_open(qp.state())) return VAPI_EINVAL_QP_STATE;
    const uint32_t opcode = raw_value(d->opcode);
    if (!opcode_allowed(qp, opcode)) return VAPI_EINVAL_OP;
    if (!valid_comp_type(raw_value(d->comp_type))) return VAPI_EINVAL_PARAM;
    if (d->sg_lst_len > 0 && !d->sg_lst_p) return VAPI_EINVAL_PARAM;
    if (is_inline) {
        // Inline data cannot carry what a read or an atomic returns.
        if (opcode != VAPI_SEND && opcode != VAPI_SEND_WITH_IMM && opcode != VAPI_RDMA_WRITE &&
            opcode != VAPI_RDMA_WRITE_WITH_IMM)
            return VAPI_EINVAL_OP;
        if (d->sg_lst_len > dev.cap.max_num_sg_ent) return VAPI_E2BIG_SG_NUM;
        uint64_t total = 0;
        for (uint32_t i = 0; i < d->sg_lst_len; ++i) {
            if (d->sg_lst_p[i].len > 0 && d->sg_lst_p[i].addr == 0) return VAPI_EINVAL_VA;
            total += d->sg_lst_p[i].len;
        }
        if (total > qp.cap().max_inline_data_sq) return VAPI_E2BIG_INLINE;
    } else if (d->sg_lst_len > qp.cap().max_sg_size_sq) {
        return VAPI_E2BIG_SG_NUM;
    }
    if (qp.kind != QpKind::Regular || qp.transport() == VAPI_TS_UD) {
        if (!find_ah_av(dev, d->remote_ah)) return VAPI_EINVAL_AV_HNDL;
    }
    if (!qp.sq.room_for(uint32_t(pending), qp.cap().max_oust_wr_sq)) return VAPI_E2BIG_WR_NUM;
    return VAPI_OK;
}

// Writes a send request into the next free entry of the ring.
[[gnu::always_inline]] inline void write_send(Qp &qp, const VAPI_sr_desc_t &d, bool is_inline,
                                              const std::optional<VAPI_pkey_ix_t> &pkey_ix) {
    SendEntry &w = qp.sq.next_free();
    w.desc = d;
    w.desc.sg_lst_p = nullptr;
    w.is_inline = is_inline;
    w.has_pkey_ix = pkey_ix.has_value();
    w.pkey_ix = pkey_ix.value_or(0);
    w.phase = SendPhase::Queued;
    w.status = VAPI_SUCCESS;
    w.syndrome = 0;
    w.length = 0;
    w.inline_len = 0;
    if (is_inline) {
        // The data is taken now: the caller may reuse its buffers as soon as the post returns.
        w.sg_count = 0;
        for (uint32_t i = 0; i < d.sg_lst_len; ++i) {
            const VAPI_sg_lst_entry_t &e = d.sg_lst_p[i];
            std::memcpy(w.inline_data + w.inline_len, reinterpret_cast<const void *>(uintptr_t(e.addr)),
                        e.len);
            w.inline_len += e.len;
        }
        w.bytes = w.inline_len;
    } else {
        // Entry by entry: most lists hold one or two, which a call to memmove would cost more.
        // The message's length is summed on the way, once, rather than by every transmission.
        w.sg_count = d.sg_lst_len;
        uint64_t bytes = 0;
        for (uint32_t i = 0; i < d.sg_lst_len; ++i) {
            w.sg[i] = d.sg_lst_p[i];
            bytes += d.sg_lst_p[i].len;
        }
        w.bytes = bytes;
    }
    qp.sq.push();
}

VAPI_ret_t check_recv(Qp &qp, const VAPI_rr_desc_t *d, size_t pending) {
    if (!d) return VAPI_EINVAL_PARAM;
    // The receive queue takes work from INIT on (in ERR only to flush it at once).
    if (qp.state() == QpState::Reset) return VAPI_EINVAL_QP_STATE;
    if (!valid_comp_type(raw_value(d->comp_type))) return VAPI_EINVAL_PARAM;
    if (d->sg_lst_len > 0 && !d->sg_lst_p) return VAPI_EINVAL_PARAM;
    if (d->sg_lst_len > qp.cap().max_sg_size_rq) return VAPI_E2BIG_SG_NUM;
    if (!qp.rq.room_for(uint32_t(pending), qp.cap().max_oust_wr_rq)) return VAPI_E2BIG_WR_NUM;
    return VAPI_OK;
}

void write_recv(Qp &qp, const VAPI_rr_desc_t &d) {
    RecvEntry &w = qp.rq.next_free();
    w.desc = d;
    w.desc.sg_lst_p = nullptr;
    w.set_gather(d.sg_lst_p, d.sg_lst_len);
    qp.rq.push();
}

struct SendPost {
    bool one = false;  // a single request: a missing one is refused before the QP is looked up
    bool is_inline = false;
    bool gsi_only = false;
    std::optional<VAPI_pkey_ix_t> pkey_ix;
};

// The device a post names, counted and checked for injected faults, or the status to return.
[[gnu::always_inline]] inline Device *posting_device(Verb verb, VAPI_hca_hndl_t hca, VAPI_ret_t &status) {
    Device *dev = device_by_handle(hca);
    status = check_faults(verb, dev);
    if (status != VAPI_OK) return nullptr;
    if (!dev || !dev->open.load(std::memory_order_acquire)) {
        status = VAPI_EINVAL_HCA_HNDL;
        return nullptr;
    }
    return dev;
}

// Checks every request, then queues them all (the QP's send queue lock held). Inline into the
// verbs that post one request; lists call it out of line (queue_send_list), which costs them
// fewer instructions per request.
[[gnu::always_inline]] inline VAPI_ret_t queue_sends(Device &dev, Qp &qp, const VAPI_sr_desc_t *descs,
                                                     uint32_t n, const SendPost &how) {
    if (how.gsi_only && qp.special != VAPI_GSI_QP) return VAPI_EINVAL_QP_HNDL;
    if (how.pkey_ix && *how.pkey_ix >= dev.cap.max_pkeys) return VAPI_EINVAL_PKEY_IX;
    if (n > 0 && !descs) return VAPI_EINVAL_PARAM;
    for (uint32_t i = 0; i < n; ++i)
        if (VAPI_ret_t rc = check_send(dev, qp, &descs[i], how.is_inline, i); rc != VAPI_OK) return rc;
    for (uint32_t i = 0; i < n; ++i) write_send(qp, descs[i], how.is_inline, how.pkey_ix);
    return VAPI_OK;
}

[[gnu::noinline]] VAPI_ret_t queue_send_list(Device &dev, Qp &qp, const VAPI_sr_desc_t *descs, uint32_t n,
                                             const SendPost &how) {
    return queue_sends(dev, qp, descs, n, how);
}

// One request inline, a list out of line.
[[gnu::always_inline]] inline VAPI_ret_t queue_posted(Device &dev, Qp &qp, const VAPI_sr_desc_t *descs,
                                                      uint32_t n, const SendPost &how) {
    return how.one ? queue_sends(dev, qp, descs, n, how) : queue_send_list(dev, qp, descs, n, how);
}

// A send queue that is stopped completes what it takes at once, with a flush error.
bool send_queue_stopped(const Qp &qp) {
    return qp.state() == QpState::Sqe || qp.state() == QpState::Err;
}

// Whether a send post needs the device mutex: datagram and special QPs look up address handles,
// and a stopped send queue flushes.
bool send_needs_device(const Qp &qp) {
    return qp.kind != QpKind::Regular || qp.transport() == VAPI_TS_UD || send_queue_stopped(qp);
}

// Inline into each verb, so that what the verb fixes (one request, inline or not, GSI) is a
// constant there and the checks it settles go.
[[gnu::always_inline]] inline VAPI_ret_t post_sends(Verb verb, VAPI_hca_hndl_t hca, VAPI_qp_hndl_t qp_hndl,
                                                    const VAPI_sr_desc_t *descs, uint32_t n,
                                                    const SendPost &how) {
    VAPI_ret_t status = VAPI_OK;
    Device *dev = posting_device(verb, hca, status);
    if (!dev) return status;
    if (how.one && !descs) return VAPI_EINVAL_PARAM;
    // The common case takes the QP's send queue lock only, so posters on other QPs and the data
    // path (which holds the device mutex) do not wait for each other.
    if (Qp *qp = posting_qp(*dev, qp_hndl)) {
        engine_expect_pass(*dev);
        std::unique_lock queue(qp->sq_mu);
        if (qp->live_as(qp_hndl) && !send_needs_device(*qp)) {
            VAPI_ret_t rc = queue_posted(*dev, *qp, descs, n, how);
            // A QP still on the doorbell list is run by whoever takes it from there, and that
            // one sees what was just queued (see ring_doorbell()): nothing more to ring.
            const bool rung = qp->doorbell_rung.load(std::memory_order_relaxed);
            queue.unlock();
            // The doorbell: the requester takes it from here, on the engine (or on this thread).
            if (rc == VAPI_OK && !rung) engine_doorbell(*dev, qp);
            return rc;
        }
    }
    Call call(dev, Call::Checked{});
    if (call.failed()) return call.status();
    Qp *qp = find_qp(*dev, qp_hndl);
    if (!qp) return VAPI_EINVAL_QP_HNDL;
    engine_expect_pass(*dev);  // marks the device for QPs beyond the lockless table too
    std::unique_lock queue(qp->sq_mu);
    if (VAPI_ret_t rc = queue_posted(*dev, *qp, descs, n, how); rc != VAPI_OK) return rc;
    if (send_queue_stopped(*qp)) {
        PendingEvents events;
        flush_send_queue(*dev, *qp, events);
        queue.unlock();
        call.unlock();
        events.deliver(*dev);
        return VAPI_OK;
    }
    activate(*dev, *qp);
    queue.unlock();
    call.unlock();
    engine_doorbell(*dev, nullptr);
    return VAPI_OK;
}

// Checks every request, then queues them all (the QP's receive queue lock held). Inline into
// VAPI_post_rr, which posts one; lists call it out of line (queue_recv_list), as sends do.
[[gnu::always_inline]] inline VAPI_ret_t queue_recvs(Qp &qp, const VAPI_rr_desc_t *descs, uint32_t n) {
    if (n > 0 && !descs) return VAPI_EINVAL_PARAM;
    for (uint32_t i = 0; i < n; ++i)
        if (VAPI_ret_t rc = check_recv(qp, &descs[i], i); rc != VAPI_OK) return rc;
    for (uint32_t i = 0; i < n; ++i) write_recv(qp, descs[i]);
    return VAPI_OK;
}

[[gnu::noinline]] VAPI_ret_t queue_recv_list(Qp &qp, const VAPI_rr_desc_t *descs, uint32_t n) {
    return queue_recvs(qp, descs, n);
}

[[gnu::always_inline]] inline VAPI_ret_t queue_recvs_posted(Qp &qp, const VAPI_rr_desc_t *descs, uint32_t n,
                                                            bool one) {
    return one ? queue_recvs(qp, descs, 1) : queue_recv_list(qp, descs, n);
}

// `one`: a single request, refused before the QP is looked up when it is missing. Inline into
// each verb, as post_sends().
[[gnu::always_inline]] inline VAPI_ret_t post_recvs(Verb verb, VAPI_hca_hndl_t hca, VAPI_qp_hndl_t qp_hndl,
                                                    const VAPI_rr_desc_t *descs, uint32_t n, bool one) {
    VAPI_ret_t status = VAPI_OK;
    Device *dev = posting_device(verb, hca, status);
    if (!dev) return status;
    if (one && !descs) return VAPI_EINVAL_PARAM;
    // The responder takes receives from the ring as they are published: nothing to ring.
    if (Qp *qp = posting_qp(*dev, qp_hndl)) {
        std::unique_lock queue(qp->rq_mu);
        if (qp->live_as(qp_hndl) && qp->state() != QpState::Err)
            return queue_recvs_posted(*qp, descs, n, one);
    }
    Call call(dev, Call::Checked{});
    if (call.failed()) return call.status();
    Qp *qp = find_qp(*dev, qp_hndl);
    if (!qp) return VAPI_EINVAL_QP_HNDL;
    std::unique_lock queue(qp->rq_mu);
    if (VAPI_ret_t rc = queue_recv_list(*qp, descs, n); rc != VAPI_OK) return rc;
    if (qp->state() == QpState::Err) {
        PendingEvents events;
        flush_recv_queue(*dev, *qp, events);
        queue.unlock();
        call.unlock();
        events.deliver(*dev);
    }
    return VAPI_OK;
}

}  // namespace

}  // namespace marlix::softhca

using namespace marlix::softhca;

extern "C" {

VAPI_ret_t VAPI_post_sr(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl, const VAPI_sr_desc_t *sr_desc_p) {
    SendPost how;
    how.one = true;
    return post_sends(Verb::VAPI_post_sr, hca_hndl, qp_hndl, sr_desc_p, 1, how);
}

VAPI_ret_t EVAPI_post_inline_sr(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl,
                                const VAPI_sr_desc_t *sr_desc_p) {
    SendPost how;
    how.one = true;
    how.is_inline = true;
    return post_sends(Verb::EVAPI_post_inline_sr, hca_hndl, qp_hndl, sr_desc_p, 1, how);
}

VAPI_ret_t EVAPI_post_sr_list(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl, u_int32_t num_of_requests,
                              const VAPI_sr_desc_t *sr_desc_array) {
    return post_sends(Verb::EVAPI_post_sr_list, hca_hndl, qp_hndl, sr_desc_array, num_of_requests,
                      SendPost{});
}

VAPI_ret_t EVAPI_post_gsi_sr(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl,
                             const VAPI_sr_desc_t *sr_desc_p, VAPI_pkey_ix_t pkey_index) {
    SendPost how;
    how.one = true;
    how.gsi_only = true;
    how.pkey_ix = pkey_index;
    return post_sends(Verb::EVAPI_post_gsi_sr, hca_hndl, qp_hndl, sr_desc_p, 1, how);
}

VAPI_ret_t VAPI_post_rr(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl, const VAPI_rr_desc_t *rr_desc_p) {
    return post_recvs(Verb::VAPI_post_rr, hca_hndl, qp_hndl, rr_desc_p, 1, true);
}

VAPI_ret_t EVAPI_post_rr_list(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl, u_int32_t num_of_requests,
                              const VAPI_rr_desc_t *rr_desc_array) {
    return post_recvs(Verb::EVAPI_post_rr_list, hca_hndl, qp_hndl, rr_desc_array, num_of_requests, false);
}

}  // extern "C"
