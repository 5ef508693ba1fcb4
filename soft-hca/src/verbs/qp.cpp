// Queue pair verbs: create (regular and special QPs), modify through the state machine, query,
// destroy; flushing of the work queues when a QP enters the error state.
#include "device/qp.hpp"
#include "datapath/datapath.hpp"
#include "device/limits.hpp"
#include "device/path_migration.hpp"
#include "engine/engine.hpp"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <tuple>

namespace marlix::softhca {

namespace {

using qpsm::QpKind;
using qpsm::QpState;

using namespace limits;

uint32_t round_up_pow2(uint32_t n) {
    if (n == 0) return 0;
    uint32_t p = 1;
    while (p < n) p <<= 1;
    return p;
}

qpsm::DeviceLimits limits_of(const Device &dev) {
    qpsm::DeviceLimits l;
    l.num_ports = dev.cap.phys_port_num;
    l.pkey_table_len = dev.cap.max_pkeys;
    l.gid_table_len = kGidTableLen;
    l.max_mtu = MTU2048;
    l.max_qp_ous_rd_atom = dev.cap.max_qp_ous_rd_atom;
    l.max_qp_init_rd_atom = dev.cap.max_qp_init_rd_atom;
    return l;
}

qpsm::PathValues path_of(const VAPI_ud_av_t &av) {
    qpsm::PathValues p;
    p.port = av.port;
    p.sl = av.sl;
    p.static_rate = av.static_rate;
    p.sgid_index = av.sgid_index;
    p.grh = av.grh_flag != 0;
    p.flow_label = av.flow_label;
    return p;
}

qpsm::ModifyValues values_of(const VAPI_qp_attr_t &a) {
    qpsm::ModifyValues v;
    const uint32_t state = raw_value(a.qp_state);
    v.qp_state = static_cast<QpState>(state > 6 ? 7 : state);
    v.port = a.port;
    v.pkey_ix = a.pkey_ix;
    const uint32_t mtu = raw_value(a.path_mtu);
    v.path_mtu = static_cast<uint8_t>(mtu > 0xff ? 0 : mtu);
    v.timeout = a.timeout;
    v.retry_count = a.retry_count;
    v.rnr_retry = a.rnr_retry;
    v.min_rnr_timer = a.min_rnr_timer;
    v.rq_psn = a.rq_psn;
    v.sq_psn = a.sq_psn;
    v.dest_qp_num = a.dest_qp_num;
    v.qp_ous_rd_atom = a.qp_ous_rd_atom;
    v.ous_dst_rd_atom = a.ous_dst_rd_atom;
    v.remote_atomic_flags = a.remote_atomic_flags;
    v.path_mig_state = raw_value(a.path_mig_state);
    v.av = path_of(a.av);
    v.alt_av = path_of(a.alt_av);
    v.alt_port = a.alt_port;
    v.alt_pkey_ix = a.alt_pkey_ix;
    v.alt_timeout = a.alt_timeout;
    return v;
}

VAPI_ret_t status_of(const qpsm::Check &c) {
    using qpsm::Verdict;
    switch (c.verdict) {
        case Verdict::Ok:
            return VAPI_OK;
        case Verdict::NotSupported:
            return VAPI_ENOSYS;
        case Verdict::BadTransition:
            return VAPI_EINVAL_QP_STATE;
        case Verdict::MissingAttr:
        case Verdict::AttrNotAllowed:
        case Verdict::BadMask:
            return VAPI_EINVAL_ATTR;
        case Verdict::BadPort:
            return VAPI_EINVAL_PORT;
        case Verdict::BadPkeyIndex:
            return VAPI_EINVAL_PKEY_IX;
        case Verdict::BadMtu:
            return VAPI_EINVAL_MTU;
        case Verdict::BadValue: {
            std::string_view f = c.field;
            if (f == "path_mig_state") return VAPI_EINVAL_MIG_STATE;
            if (f.ends_with("sgid_index")) return VAPI_EINVAL_GID_IX;
            return VAPI_EINVAL_PARAM;
        }
    }
    return VAPI_EGEN;
}

// The lowest free QP number from 0x400 (QP0 and QP1 are the special QPs; the numbers below
// 0x400 are kept for them as on the adapter).
std::optional<VAPI_qp_num_t> allocate_qp_num(Device &dev) {
    const uint64_t n = dev.qp_numbers.allocate();
    if (n > kLastQpNum) {
        dev.qp_numbers.release(n);
        return std::nullopt;
    }
    return VAPI_qp_num_t(n);
}

// Validates the requested capabilities and computes what the QP really gets: work queue depths
// rounded up to a power of two, gather entries as asked, and inline room at least what the
// gather entries of one send WQE occupy.
VAPI_ret_t grant_caps(const Device &dev, const VAPI_qp_cap_t &req, VAPI_qp_cap_t &out) {
    if (req.max_oust_wr_sq > dev.cap.max_qp_ous_wr || req.max_oust_wr_rq > dev.cap.max_qp_ous_wr)
        return VAPI_E2BIG_WR_NUM;
    if (req.max_sg_size_sq > dev.cap.max_num_sg_ent || req.max_sg_size_rq > dev.cap.max_num_sg_ent)
        return VAPI_E2BIG_SG_NUM;
    const uint32_t max_inline = dev.cap.max_num_sg_ent * kSgEntryBytes;
    if (req.max_inline_data_sq > max_inline) return VAPI_E2BIG_INLINE;
    out.max_oust_wr_sq = round_up_pow2(req.max_oust_wr_sq);
    out.max_oust_wr_rq = round_up_pow2(req.max_oust_wr_rq);
    out.max_sg_size_sq = req.max_sg_size_sq;
    out.max_sg_size_rq = req.max_sg_size_rq;
    uint32_t inl = (req.max_inline_data_sq + kSgEntryBytes - 1) / kSgEntryBytes * kSgEntryBytes;
    out.max_inline_data_sq = std::max(inl, std::max<uint32_t>(req.max_sg_size_sq, 1) * kSgEntryBytes);
    return VAPI_OK;
}

bool valid_sig_type(uint32_t t) {
    return t == VAPI_SIGNAL_ALL_WR || t == VAPI_SIGNAL_REQ_WR;
}

// The checks and bookkeeping regular and special QPs share. `ts` is the transport the QP runs.
VAPI_ret_t create_common(Device &dev, const VAPI_qp_init_attr_t &req, VAPI_ts_type_t ts,
                         VAPI_special_qp_t special, IB_port_t port, Qp *&out) {
    if (!valid_sig_type(raw_value(req.sq_sig_type)) || !valid_sig_type(raw_value(req.rq_sig_type)))
        return VAPI_EINVAL_PARAM;
    Pd *pd = dev.find_pd(req.pd_hndl);
    if (!pd) return VAPI_EINVAL_PD_HNDL;
    CompletionQueue *scq = find_cq(dev, req.sq_cq_hndl);
    CompletionQueue *rcq = find_cq(dev, req.rq_cq_hndl);
    if (!scq || !rcq) return VAPI_EINVAL_CQ_HNDL;
    VAPI_qp_cap_t cap{};
    if (VAPI_ret_t rc = grant_caps(dev, req.cap, cap); rc != VAPI_OK) return rc;
    if (dev.qps.size() >= dev.cap.max_num_qp) return VAPI_EOL;

    VAPI_qp_num_t qp_num = 0;
    QpKind kind = QpKind::Regular;
    switch (special) {
        case VAPI_SMI_QP:
            kind = QpKind::Smi;
            break;
        case VAPI_GSI_QP:
            qp_num = 1;
            kind = QpKind::Gsi;
            break;
        default: {
            std::optional<VAPI_qp_num_t> n = allocate_qp_num(dev);
            if (!n) return VAPI_EOL;
            qp_num = *n;
            kind = special == VAPI_REGULAR_QP ? QpKind::Regular : QpKind::Raw;
        }
    }
    // The record of a QP destroyed earlier if there is one (see the top of qp.hpp).
    std::unique_ptr<Object> record;
    if (!dev.spare_qps.empty()) {
        record = std::move(dev.spare_qps.back());
        dev.spare_qps.pop_back();
    } else {
        record = std::make_unique<Qp>();
    }
    Qp *qp = static_cast<Qp *>(record.get());
    {
        // A poster that looked the record up as an earlier QP finds it is no longer that one.
        QpQueueLock queues(*qp);
        static_cast<QpContext &>(*qp) = QpContext{};
        qp->qp_num = qp_num;
        qp->kind = kind;
        qp->special = special;
        qp->special_port = port;
        qp->init = req;
        qp->init.ts_type = ts;
        qp->init.cap = cap;
        if (ts != VAPI_TS_RD) qp->init.rdd_hndl = 0;
        qp->attr.qp_state = VAPI_RESET;
        qp->attr.qp_num = qp->qp_num;
        qp->attr.cap = cap;
        qp->attr.port = port;
        qp->attr.min_rnr_timer = kDefaultMinRnrTimer;
        qp->send_cq = scq;
        qp->recv_cq = rcq;
        qp->hndl = dev.qp_handles.allocate();
        qp->sq.clear();
        qp->rq.clear();
        qp->sq.resize(cap.max_oust_wr_sq, cap.max_sg_size_sq, cap.max_inline_data_sq);
        qp->rq.resize(cap.max_oust_wr_rq, cap.max_sg_size_rq, 0);
    }

    pd->users++;
    scq->qp_users++;
    rcq->qp_users++;
    out = qp;
    dev.qps[qp->hndl] = std::move(record);
    publish_qp(dev, *qp);
    return VAPI_OK;
}

// Back to RESET: the requester and responder forget the connection.
void reset_datapath_state(Qp &qp) {
    qp.next_send = qp.sent_high = qp.sq.head();
    qp.next_psn = qp.expected_psn = qp.msn = 0;
    qp.rd_atom_outstanding = 0;
    qp.retransmit_at = qp.rnr_wait_until = 0;
    qp.sqd_event_due = qp.in_message = qp.recv_taken = qp.message_failed = qp.nak_sent = false;
    qp.comm_established = false;
    qp.atomic_replay = {};
}

qpsm::Transport transport_of(const Qp &qp) {
    if (qp.kind != QpKind::Regular) return qpsm::Transport::UD;
    return static_cast<qpsm::Transport>(qp.transport());
}

// Resizing the work queues (QP_ATTR_CAP): a depth of 0 keeps the current depth (callers that
// change one queue only send the other as 0); a new depth is rounded like at creation and may
// not drop below the work requests queued now. Gather and inline sizes are fixed at creation.
VAPI_ret_t resized_caps(const Device &dev, const Qp &qp, const VAPI_qp_cap_t &req, VAPI_qp_cap_t &out) {
    out = qp.cap();
    for (auto [want, have, queued] : {std::tuple{req.max_oust_wr_sq, &out.max_oust_wr_sq, qp.sq.count()},
                                      std::tuple{req.max_oust_wr_rq, &out.max_oust_wr_rq, qp.rq.count()}}) {
        if (want == 0) continue;
        if (want > dev.cap.max_qp_ous_wr) return VAPI_E2BIG_WR_NUM;
        uint32_t depth = round_up_pow2(want);
        if (depth < queued) return VAPI_E2BIG_WR_NUM;
        *have = depth;
    }
    return VAPI_OK;
}

void apply(Qp &qp, const VAPI_qp_attr_t &a, VAPI_qp_attr_mask_t mask) {
    VAPI_qp_attr_t &t = qp.attr;
    if (mask & QP_ATTR_EN_SQD_ASYN_NOTIF) t.en_sqd_asyn_notif = a.en_sqd_asyn_notif;
    if (mask & QP_ATTR_REMOTE_ATOMIC_FLAGS) t.remote_atomic_flags = a.remote_atomic_flags;
    if (mask & QP_ATTR_PKEY_IX) t.pkey_ix = a.pkey_ix;
    if (mask & QP_ATTR_PORT) t.port = a.port;
    if (mask & QP_ATTR_QKEY) t.qkey = a.qkey;
    if (mask & QP_ATTR_AV) t.av = a.av;
    if (mask & QP_ATTR_PATH_MTU) t.path_mtu = a.path_mtu;
    if (mask & QP_ATTR_TIMEOUT) t.timeout = a.timeout;
    if (mask & QP_ATTR_RETRY_COUNT) t.retry_count = a.retry_count;
    if (mask & QP_ATTR_RNR_RETRY) t.rnr_retry = a.rnr_retry;
    if (mask & QP_ATTR_RQ_PSN) t.rq_psn = a.rq_psn;
    if (mask & QP_ATTR_QP_OUS_RD_ATOM) t.qp_ous_rd_atom = a.qp_ous_rd_atom;
    if (mask & QP_ATTR_ALT_PATH) {
        t.alt_av = a.alt_av;
        t.alt_timeout = a.alt_timeout;
        t.alt_port = a.alt_port;
        t.alt_pkey_ix = a.alt_pkey_ix;
        qp.alt_path_loaded = true;
    }
    if (mask & QP_ATTR_MIN_RNR_TIMER) t.min_rnr_timer = a.min_rnr_timer;
    if (mask & QP_ATTR_SQ_PSN) t.sq_psn = a.sq_psn;
    if (mask & QP_ATTR_OUS_DST_RD_ATOM) t.ous_dst_rd_atom = a.ous_dst_rd_atom;
    if (mask & QP_ATTR_PATH_MIG_STATE) t.path_mig_state = a.path_mig_state;
    if (mask & QP_ATTR_DEST_QP_NUM) t.dest_qp_num = a.dest_qp_num;
}

}  // namespace

}  // namespace marlix::softhca

using namespace marlix::softhca;

extern "C" {

VAPI_ret_t VAPI_create_qp(VAPI_hca_hndl_t hca_hndl, const VAPI_qp_init_attr_t *qp_init_attr_p,
                          VAPI_qp_hndl_t *qp_hndl_p, VAPI_qp_prop_t *qp_prop_p) {
    Call call(Verb::VAPI_create_qp, hca_hndl);
    if (call.failed()) return call.status();
    if (!qp_init_attr_p || !qp_hndl_p || !qp_prop_p) return VAPI_EINVAL_PARAM;
    const uint32_t ts_raw = raw_value(qp_init_attr_p->ts_type);
    // Reliable datagram (and with it EE contexts) is not offered by this adapter.
    if (ts_raw == VAPI_TS_RD) return VAPI_ENOSYS;
    if (ts_raw != VAPI_TS_RC && ts_raw != VAPI_TS_UC && ts_raw != VAPI_TS_UD) return VAPI_EINVAL_SERVICE_TYPE;
    const VAPI_ts_type_t ts = static_cast<VAPI_ts_type_t>(ts_raw);
    Qp *qp = nullptr;
    VAPI_ret_t rc = create_common(call.dev(), *qp_init_attr_p, ts, VAPI_REGULAR_QP, 0, qp);
    if (rc != VAPI_OK) return rc;
    *qp_hndl_p = qp->hndl;
    qp_prop_p->qp_num = qp->qp_num;
    call.unlock();
    engine_kick();  // lets the engine free the records of QPs destroyed before
    qp_prop_p->cap = qp->cap();
    return VAPI_OK;
}

VAPI_ret_t VAPI_get_special_qp(VAPI_hca_hndl_t hca_hndl, IB_port_t port, VAPI_special_qp_t qp_type,
                               const VAPI_qp_init_attr_t *qp_init_attr_p, VAPI_qp_hndl_t *qp_hndl_p,
                               VAPI_qp_cap_t *qp_cap_p) {
    Call call(Verb::VAPI_get_special_qp, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    if (!qp_init_attr_p || !qp_hndl_p || !qp_cap_p) return VAPI_EINVAL_PARAM;
    if (!dev.port(port)) return VAPI_EINVAL_PORT;
    const uint32_t type_raw = raw_value(qp_type);
    if (type_raw != VAPI_SMI_QP && type_raw != VAPI_GSI_QP && type_raw != VAPI_RAW_IPV6_QP &&
        type_raw != VAPI_RAW_ETY_QP)
        return VAPI_EINVAL_SPECIAL_QP;
    // QP0 and QP1 exist once per port; the raw QPs once per port and as often as the device's
    // raw QP capability allows in all.
    uint32_t same_type = 0;
    for (auto &[h, obj] : dev.qps) {
        const Qp *other = static_cast<const Qp *>(obj.get());
        if (other->special != qp_type) continue;
        if (other->special_port == port) return VAPI_EINVAL_SPECIAL_QP;
        ++same_type;
    }
    if ((qp_type == VAPI_RAW_IPV6_QP && same_type >= dev.cap.max_raw_ipv6_qp) ||
        (qp_type == VAPI_RAW_ETY_QP && same_type >= dev.cap.max_raw_ethy_qp))
        return VAPI_EINVAL_SPECIAL_QP;
    VAPI_ts_type_t ts = (qp_type == VAPI_SMI_QP || qp_type == VAPI_GSI_QP) ? VAPI_TS_UD : VAPI_TS_RAW;
    Qp *qp = nullptr;
    VAPI_ret_t rc = create_common(dev, *qp_init_attr_p, ts, qp_type, port, qp);
    if (rc != VAPI_OK) return rc;
    *qp_hndl_p = qp->hndl;
    *qp_cap_p = qp->cap();
    return VAPI_OK;
}

VAPI_ret_t VAPI_modify_qp(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl, const VAPI_qp_attr_t *qp_attr_p,
                          const VAPI_qp_attr_mask_t *qp_attr_mask_p, VAPI_qp_cap_t *qp_cap_p) {
    Call call(Verb::VAPI_modify_qp, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    Qp *qp = find_qp(dev, qp_hndl);
    if (!qp) return VAPI_EINVAL_QP_HNDL;
    if (!qp_attr_p || !qp_attr_mask_p) return VAPI_EINVAL_PARAM;
    const VAPI_qp_attr_mask_t mask = *qp_attr_mask_p;
    qpsm::Check check = qpsm::check_modify(transport_of(*qp), qp->kind, qp->state(), mask,
                                           values_of(*qp_attr_p), limits_of(dev));
    if (!check.ok()) return status_of(check);
    // A special QP serves the port it was created for.
    if (qp->kind != QpKind::Regular && (mask & QP_ATTR_PORT) && qp_attr_p->port != qp->special_port)
        return VAPI_EINVAL_PORT;
    VAPI_qp_cap_t cap = qp->cap();
    if (mask & QP_ATTR_CAP)
        if (VAPI_ret_t rc = resized_caps(dev, *qp, qp_attr_p->cap, cap); rc != VAPI_OK) return rc;

    const QpState from = qp->state();
    const QpState to = static_cast<QpState>(qp_attr_p->qp_state);
    const bool was_armed = raw_value(qp->attr.path_mig_state) == VAPI_ARMED;
    PendingEvents events;
    std::optional<QpQueueLock> queues(std::in_place, *qp);
    if (to == QpState::Reset) {
        // Back to RESET: queued work is discarded without completions and every attribute is
        // forgotten except what creation fixed.
        qp->sq.clear();
        qp->rq.clear();
        deactivate(dev, *qp);
        reset_datapath_state(*qp);
        VAPI_qp_attr_t fresh{};
        fresh.qp_num = qp->qp_num;
        fresh.port = qp->special_port;
        fresh.min_rnr_timer = kDefaultMinRnrTimer;
        qp->attr = fresh;
        qp->alt_path_loaded = false;
    } else {
        VAPI_qp_attr_mask_t applied = mask;
        // Send-side timers named on the way into RTR are accepted and ignored (RTS sets them).
        if (from == QpState::Init && to == QpState::Rtr)
            applied &= ~(QP_ATTR_TIMEOUT | QP_ATTR_RETRY_COUNT | QP_ATTR_RNR_RETRY);
        apply(*qp, *qp_attr_p, applied);
    }
    if (cap.max_oust_wr_sq != qp->cap().max_oust_wr_sq)
        qp->sq.resize(cap.max_oust_wr_sq, qp->cap().max_sg_size_sq, qp->cap().max_inline_data_sq);
    if (cap.max_oust_wr_rq != qp->cap().max_oust_wr_rq)
        qp->rq.resize(cap.max_oust_wr_rq, qp->cap().max_sg_size_rq, 0);
    qp->init.cap = cap;
    qp->attr.cap = cap;
    qp->attr.qp_state = qp_attr_p->qp_state;
    qp->attr.sq_draining = FALSE;
    // The data path starts from the PSNs and retry budgets the transitions set.
    if (to == QpState::Rtr && from == QpState::Init) {
        qp->expected_psn = qp->attr.rq_psn;
        qp->comm_established = false;
    }
    if (to == QpState::Rts && (from == QpState::Rtr || (mask & QP_ATTR_SQ_PSN)))
        qp->next_psn = qp->attr.sq_psn;
    if (to == QpState::Rts) {
        qp->retries_left = qp->attr.retry_count;
        qp->rnr_retries_left = qp->attr.rnr_retry;
        activate(dev, *qp);  // requests posted meanwhile (SQD, SQE) go out now
    }
    // Migration asked for by software: an armed QP told to be MIGRATED takes its alternate path
    // now (the caller knows, so no event is raised). Otherwise the state is only recorded.
    if (to == QpState::Rts && (mask & QP_ATTR_PATH_MIG_STATE) &&
        raw_value(qp_attr_p->path_mig_state) == VAPI_MIGRATED && was_armed && qp->alt_path_loaded)
        switch_to_alternate_path(dev, *qp);
    if (to == QpState::Err) flush_qp(dev, *qp, events);
    if (to == QpState::Sqd && from == QpState::Rts) {
        // The requester sends nothing new; the QP asked to be told when what is in flight is
        // answered.
        qp->sqd_event_due = qp->attr.en_sqd_asyn_notif;
        qp->attr.sq_draining = qp->sq.head() != qp->next_send;
        if (qp->sqd_event_due && !qp->attr.sq_draining) {
            qp->sqd_event_due = false;
            qp_event(*qp, VAPI_SEND_QUEUE_DRAINED, events);
        }
    }
    if (qp_cap_p) *qp_cap_p = cap;
    queues.reset();
    call.unlock();
    events.deliver(dev);
    engine_kick();
    return VAPI_OK;
}

VAPI_ret_t VAPI_query_qp(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl, VAPI_qp_attr_t *qp_attr_p,
                         VAPI_qp_attr_mask_t *qp_attr_mask_p, VAPI_qp_init_attr_t *qp_init_attr_p) {
    Call call(Verb::VAPI_query_qp, hca_hndl);
    if (call.failed()) return call.status();
    Qp *qp = find_qp(call.dev(), qp_hndl);
    if (!qp) return VAPI_EINVAL_QP_HNDL;
    if (!qp_attr_p) return VAPI_EINVAL_PARAM;
    *qp_attr_p = qp->attr;
    // A test may make the QP report a state of its choice, even one that is no state at all.
    if (qp->reported_state) std::memcpy(&qp_attr_p->qp_state, &*qp->reported_state, sizeof(uint32_t));
    if (qp_attr_mask_p) *qp_attr_mask_p = QP_ATTR_ALL;
    if (qp_init_attr_p) *qp_init_attr_p = qp->init;
    return VAPI_OK;
}

VAPI_ret_t VAPI_destroy_qp(VAPI_hca_hndl_t hca_hndl, VAPI_qp_hndl_t qp_hndl) {
    Call call(Verb::VAPI_destroy_qp, hca_hndl);
    if (call.failed()) return call.status();
    Device &dev = call.dev();
    Qp *qp = find_qp(dev, qp_hndl);
    if (!qp) return VAPI_EINVAL_QP_HNDL;
    // Queued work requests go with the QP, without completions; group memberships end.
    detach_qp_from_all_groups(dev, *qp);
    if (Pd *pd = dev.find_pd(qp->init.pd_hndl)) pd->users--;
    if (CompletionQueue *cq = find_cq(dev, qp->init.sq_cq_hndl)) cq->qp_users--;
    if (CompletionQueue *cq = find_cq(dev, qp->init.rq_cq_hndl)) cq->qp_users--;
    deactivate(dev, *qp);
    withdraw_qp(dev, *qp);
    {
        QpQueueLock queues(*qp);
        qp->destroyed = true;
    }
    // The record outlives its handle until the engine's next round on this device: a packet
    // of the current round may still read from its rings. Then it serves a new QP.
    auto it = dev.qps.find(qp_hndl);
    dev.retired.push_back(std::move(it->second));
    dev.qps.erase(it);
    dev.qp_handles.release(qp_hndl);
    dev.qp_numbers.release(qp->qp_num);  // (the special QPs' 0 and 1 are not the pool's)
    // The QP's events already raised are dropped if they have not started; those running are
    // waited for, without the device mutex (a handler may call verbs), and not the one this
    // destroy may be called from.
    EventGateRef gate = qp->event_gate;
    gate->close();
    call.unlock();
    gate->wait_idle();
    return VAPI_OK;
}

}  // extern "C"
