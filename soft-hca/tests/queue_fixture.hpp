// An open device with a PD, helpers that create CQs and QPs and drive QPs through their states,
// and a look inside the device at what a QP has queued.
#pragma once

#include <cstring>
#include <functional>
#include <mutex>

#include "device/qp.hpp"
#include "softhca_fixture.hpp"

// Stores a value that is none of the enumerators into an enumeration field, as a C caller can.
template <class E>
void set_raw(E &field, uint32_t value) {
    static_assert(sizeof(E) == sizeof value);
    std::memcpy(&field, &value, sizeof value);
}

class QueueTest : public SoftHcaTest {
  protected:
    // Nothing moves unless the test steps the devices: what a post queued stays where it is.
    marlix::softhca::Options options() override {
        marlix::softhca::Options o;
        o.engine = marlix::softhca::EngineKind::Stepped;
        return o;
    }

    void SetUp() override {
        SoftHcaTest::SetUp();
        hca = open();
        ASSERT_EQ(EVAPI_alloc_pd(hca, 8, &pd), VAPI_OK);
    }

    VAPI_cq_hndl_t make_cq(VAPI_cqe_num_t size = 16) {
        VAPI_cq_hndl_t cq = 0;
        VAPI_cqe_num_t actual = 0;
        EXPECT_EQ(VAPI_create_cq(hca, size, &cq, &actual), VAPI_OK);
        return cq;
    }

    VAPI_qp_init_attr_t init_attr(VAPI_ts_type_t ts, VAPI_cq_hndl_t scq, VAPI_cq_hndl_t rcq) {
        VAPI_qp_init_attr_t a{};
        a.sq_cq_hndl = scq;
        a.rq_cq_hndl = rcq;
        a.cap.max_oust_wr_sq = 4;
        a.cap.max_oust_wr_rq = 4;
        a.cap.max_sg_size_sq = 2;
        a.cap.max_sg_size_rq = 2;
        a.sq_sig_type = VAPI_SIGNAL_REQ_WR;
        a.rq_sig_type = VAPI_SIGNAL_ALL_WR;
        a.pd_hndl = pd;
        a.ts_type = ts;
        return a;
    }

    // A QP on one fresh CQ for both queues.
    VAPI_qp_hndl_t make_qp(VAPI_ts_type_t ts, VAPI_qp_prop_t *prop_out = nullptr) {
        if (!cq) cq = make_cq();
        VAPI_qp_init_attr_t a = init_attr(ts, cq, cq);
        VAPI_qp_hndl_t qp = 0;
        VAPI_qp_prop_t prop{};
        EXPECT_EQ(VAPI_create_qp(hca, &a, &qp, &prop), VAPI_OK);
        if (prop_out) *prop_out = prop;
        return qp;
    }

    VAPI_ret_t modify(VAPI_qp_hndl_t qp, const VAPI_qp_attr_t &attr, VAPI_qp_attr_mask_t mask,
                      VAPI_qp_cap_t *cap = nullptr) {
        VAPI_qp_cap_t c{};
        return VAPI_modify_qp(hca, qp, &attr, &mask, cap ? cap : &c);
    }

    // The attribute values of a complete path from RESET to RTS for every transport.
    static VAPI_qp_attr_t full_attr(VAPI_qp_state_t state) {
        VAPI_qp_attr_t a{};
        a.qp_state = state;
        a.port = 1;
        a.pkey_ix = 0;
        a.qkey = 0x11111111;
        a.remote_atomic_flags = VAPI_EN_REM_WRITE | VAPI_EN_REM_READ;
        a.av.dlid = 2;
        a.av.port = 1;
        a.path_mtu = MTU2048;
        a.dest_qp_num = 0x401;
        a.rq_psn = 100;
        a.qp_ous_rd_atom = 4;
        a.min_rnr_timer = 12;
        a.sq_psn = 200;
        a.timeout = 14;
        a.retry_count = 7;
        a.rnr_retry = 7;
        a.ous_dst_rd_atom = 4;
        return a;
    }

    static VAPI_qp_attr_mask_t init_mask(VAPI_ts_type_t ts) {
        return QP_ATTR_QP_STATE | QP_ATTR_PKEY_IX | QP_ATTR_PORT |
               (ts == VAPI_TS_UD ? QP_ATTR_QKEY : QP_ATTR_REMOTE_ATOMIC_FLAGS);
    }
    static VAPI_qp_attr_mask_t rtr_mask(VAPI_ts_type_t ts) {
        if (ts == VAPI_TS_UD) return QP_ATTR_QP_STATE;
        VAPI_qp_attr_mask_t m =
            QP_ATTR_QP_STATE | QP_ATTR_AV | QP_ATTR_PATH_MTU | QP_ATTR_DEST_QP_NUM | QP_ATTR_RQ_PSN;
        if (ts == VAPI_TS_RC) m |= QP_ATTR_QP_OUS_RD_ATOM | QP_ATTR_MIN_RNR_TIMER;
        return m;
    }
    static VAPI_qp_attr_mask_t rts_mask(VAPI_ts_type_t ts) {
        VAPI_qp_attr_mask_t m = QP_ATTR_QP_STATE | QP_ATTR_SQ_PSN;
        if (ts == VAPI_TS_RC)
            m |= QP_ATTR_TIMEOUT | QP_ATTR_RETRY_COUNT | QP_ATTR_RNR_RETRY | QP_ATTR_OUS_DST_RD_ATOM;
        return m;
    }

    // Drives a fresh QP of transport `ts` up to `target` (INIT, RTR or RTS).
    void bring_up(VAPI_qp_hndl_t qp, VAPI_ts_type_t ts, VAPI_qp_state_t target = VAPI_RTS) {
        ASSERT_EQ(modify(qp, full_attr(VAPI_INIT), init_mask(ts)), VAPI_OK);
        if (target == VAPI_INIT) return;
        ASSERT_EQ(modify(qp, full_attr(VAPI_RTR), rtr_mask(ts)), VAPI_OK);
        if (target == VAPI_RTR) return;
        ASSERT_EQ(modify(qp, full_attr(VAPI_RTS), rts_mask(ts)), VAPI_OK);
    }

    // The QP's attributes as VAPI_query_qp reports them, and into `init` and `mask` its creation
    // attributes and the mask of what was reported. Every record is read into 0xff bytes first, so
    // that a field the verb leaves unwritten cannot pass for a zero (RESET, port 0) a test expects.
    VAPI_qp_attr_t query(VAPI_qp_hndl_t qp, VAPI_qp_init_attr_t *init = nullptr,
                         VAPI_qp_attr_mask_t *mask = nullptr) {
        VAPI_qp_attr_t a;
        VAPI_qp_init_attr_t i;
        VAPI_qp_attr_mask_t m;
        std::memset(&a, 0xff, sizeof a);
        std::memset(&i, 0xff, sizeof i);
        std::memset(&m, 0xff, sizeof m);
        EXPECT_EQ(VAPI_query_qp(hca, qp, &a, &m, &i), VAPI_OK);
        if (init) *init = i;
        if (mask) *mask = m;
        return a;
    }

    VAPI_qp_state_t state_of(VAPI_qp_hndl_t qp) { return query(qp).qp_state; }

    // Runs `fn` on the QP's record under the device lock.
    void inspect_qp(VAPI_qp_hndl_t qp, const std::function<void(marlix::softhca::Qp &)> &fn) {
        namespace sh = marlix::softhca;
        sh::Device *dev = sh::device_by_handle(hca);
        ASSERT_NE(dev, nullptr);
        std::lock_guard lk(dev->mu);
        sh::Qp *q = sh::find_qp(*dev, qp);
        ASSERT_NE(q, nullptr);
        fn(*q);
    }

    VAPI_ud_av_t good_av() {
        VAPI_ud_av_t av{};
        av.port = 1;
        av.dlid = 3;
        av.sl = 2;
        return av;
    }

    VAPI_hca_hndl_t hca = 0;
    VAPI_pd_hndl_t pd = 0;
    VAPI_cq_hndl_t cq = 0;
};
