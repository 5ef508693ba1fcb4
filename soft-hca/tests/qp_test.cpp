// Queue pairs through the verbs: creation and its checks, special QPs, modify through the state
// machine, query, destroy, handle values and injected faults.
#include <vector>

#include "queue_fixture.hpp"

namespace sh = marlix::softhca;

namespace {

std::vector<VAPI_event_record_t> g_async;
void record_async(VAPI_hca_hndl_t, VAPI_event_record_t *rec, void *) {
    g_async.push_back(*rec);
}

class QpTest : public QueueTest {
  protected:
    void SetUp() override {
        QueueTest::SetUp();
        g_async.clear();
        cq = make_cq();
    }
    VAPI_ret_t create(const VAPI_qp_init_attr_t &a, VAPI_qp_hndl_t *qp = nullptr,
                      VAPI_qp_prop_t *prop = nullptr) {
        VAPI_qp_hndl_t h = 0;
        VAPI_qp_prop_t p{};
        return VAPI_create_qp(hca, &a, qp ? qp : &h, prop ? prop : &p);
    }
    VAPI_ret_t special(IB_port_t port, VAPI_special_qp_t type, VAPI_qp_hndl_t *qp,
                       VAPI_qp_cap_t *cap = nullptr) {
        VAPI_qp_init_attr_t a = init_attr(VAPI_TS_UD, cq, cq);
        VAPI_qp_cap_t c{};
        return VAPI_get_special_qp(hca, port, type, &a, qp, cap ? cap : &c);
    }
};

}  // namespace

TEST_F(QpTest, CreateGrantsRoundedCapabilitiesAndAQpNumberFrom0x400) {
    VAPI_qp_init_attr_t a = init_attr(VAPI_TS_RC, cq, cq);
    a.cap.max_oust_wr_sq = 5;
    a.cap.max_oust_wr_rq = 100;
    a.cap.max_sg_size_sq = 3;
    a.cap.max_sg_size_rq = 59;
    VAPI_qp_hndl_t qp = 0;
    VAPI_qp_prop_t prop{};
    ASSERT_EQ(create(a, &qp, &prop), VAPI_OK);
    EXPECT_EQ(qp, 1u);
    EXPECT_EQ(prop.qp_num, 0x400u);
    EXPECT_EQ(prop.cap.max_oust_wr_sq, 8u);
    EXPECT_EQ(prop.cap.max_oust_wr_rq, 128u);
    EXPECT_EQ(prop.cap.max_sg_size_sq, 3u);
    EXPECT_EQ(prop.cap.max_sg_size_rq, 59u);
    EXPECT_EQ(prop.cap.max_inline_data_sq, 48u);  // the room of three gather entries
    VAPI_qp_prop_t second{};
    VAPI_qp_hndl_t qp2 = 0;
    ASSERT_EQ(create(init_attr(VAPI_TS_UD, cq, cq), &qp2, &second), VAPI_OK);
    EXPECT_EQ(qp2, 2u);
    EXPECT_EQ(second.qp_num, 0x401u);
    EXPECT_EQ(sh::qp_count("InfiniHost0"), 2u);
}

TEST_F(QpTest, EveryTransportButReliableDatagram) {
    for (VAPI_ts_type_t ts : {VAPI_TS_RC, VAPI_TS_UC, VAPI_TS_UD})
        EXPECT_EQ(create(init_attr(ts, cq, cq)), VAPI_OK);
    EXPECT_EQ(create(init_attr(VAPI_TS_RD, cq, cq)), VAPI_ENOSYS);
    EXPECT_EQ(create(init_attr(VAPI_TS_RAW, cq, cq)), VAPI_EINVAL_SERVICE_TYPE);
    VAPI_qp_init_attr_t bad = init_attr(VAPI_TS_UD, cq, cq);
    set_raw(bad.ts_type, 9);
    EXPECT_EQ(create(bad), VAPI_EINVAL_SERVICE_TYPE);
    EXPECT_EQ(sh::qp_count("InfiniHost0"), 3u);
}

TEST_F(QpTest, CreateChecksItsResources) {
    VAPI_qp_init_attr_t a = init_attr(VAPI_TS_RC, cq, cq);
    a.pd_hndl = 99;
    EXPECT_EQ(create(a), VAPI_EINVAL_PD_HNDL);
    a = init_attr(VAPI_TS_RC, 99, cq);
    EXPECT_EQ(create(a), VAPI_EINVAL_CQ_HNDL);
    a = init_attr(VAPI_TS_RC, cq, 99);
    EXPECT_EQ(create(a), VAPI_EINVAL_CQ_HNDL);
    a = init_attr(VAPI_TS_RC, cq, cq);
    a.cap.max_oust_wr_sq = 16385;
    EXPECT_EQ(create(a), VAPI_E2BIG_WR_NUM);
    a = init_attr(VAPI_TS_RC, cq, cq);
    a.cap.max_sg_size_rq = 60;
    EXPECT_EQ(create(a), VAPI_E2BIG_SG_NUM);
    a = init_attr(VAPI_TS_RC, cq, cq);
    a.cap.max_inline_data_sq = 59 * 16 + 1;
    EXPECT_EQ(create(a), VAPI_E2BIG_INLINE);
    a = init_attr(VAPI_TS_RC, cq, cq);
    set_raw(a.sq_sig_type, 2);
    EXPECT_EQ(create(a), VAPI_EINVAL_PARAM);
    a = init_attr(VAPI_TS_RC, cq, cq);
    VAPI_qp_hndl_t h = 0;
    EXPECT_EQ(VAPI_create_qp(hca, &a, &h, nullptr), VAPI_EINVAL_PARAM);
    EXPECT_EQ(VAPI_create_qp(hca, nullptr, &h, nullptr), VAPI_EINVAL_PARAM);
    EXPECT_EQ(sh::qp_count("InfiniHost0"), 0u);
    // Nothing was left counted against the PD or the CQ.
    EXPECT_EQ(VAPI_destroy_cq(hca, cq), VAPI_OK);
    EXPECT_EQ(VAPI_dealloc_pd(hca, pd), VAPI_OK);
}

TEST_F(QpTest, ThePdStaysInUseWhileAQpLives) {
    VAPI_qp_hndl_t qp = 0;
    ASSERT_EQ(create(init_attr(VAPI_TS_UC, cq, cq), &qp), VAPI_OK);
    EXPECT_EQ(VAPI_dealloc_pd(hca, pd), VAPI_EBUSY);
    ASSERT_EQ(VAPI_destroy_qp(hca, qp), VAPI_OK);
    EXPECT_EQ(VAPI_destroy_qp(hca, qp), VAPI_EINVAL_QP_HNDL);
    EXPECT_EQ(VAPI_dealloc_pd(hca, pd), VAPI_OK);
}

TEST_F(QpTest, HandlesAndQpNumbersAreReusedLowestFirst) {
    VAPI_qp_hndl_t a = 0, b = 0, c = 0;
    VAPI_qp_prop_t pb{};
    ASSERT_EQ(create(init_attr(VAPI_TS_UD, cq, cq), &a), VAPI_OK);
    ASSERT_EQ(create(init_attr(VAPI_TS_UD, cq, cq), &b, &pb), VAPI_OK);
    ASSERT_EQ(create(init_attr(VAPI_TS_UD, cq, cq), &c), VAPI_OK);
    ASSERT_EQ(VAPI_destroy_qp(hca, b), VAPI_OK);
    VAPI_qp_hndl_t d = 0;
    VAPI_qp_prop_t pd_{};
    ASSERT_EQ(create(init_attr(VAPI_TS_UD, cq, cq), &d, &pd_), VAPI_OK);
    EXPECT_EQ(d, b);
    EXPECT_EQ(pb.qp_num, 0x401u);
    EXPECT_EQ(pd_.qp_num, pb.qp_num);
}

TEST_F(QpTest, InjectedHandleValuesAreDistinctFromQpNumbers) {
    ASSERT_TRUE(sh::set_next_qp_handle("InfiniHost0", 1000));
    VAPI_qp_hndl_t qp = 0;
    VAPI_qp_prop_t prop{};
    ASSERT_EQ(create(init_attr(VAPI_TS_RC, cq, cq), &qp, &prop), VAPI_OK);
    EXPECT_EQ(qp, 1000u);
    EXPECT_EQ(prop.qp_num, 0x400u);
    ASSERT_TRUE(sh::set_next_qp_handle("InfiniHost0", 1001));
    ASSERT_EQ(create(init_attr(VAPI_TS_RC, cq, cq), &qp), VAPI_OK);
    EXPECT_EQ(qp, 1001u);
    bring_up(1001, VAPI_TS_RC);
    EXPECT_EQ(state_of(1001), VAPI_RTS);
    EXPECT_EQ(VAPI_destroy_qp(hca, 1001), VAPI_OK);
    EXPECT_EQ(VAPI_destroy_qp(hca, 1000), VAPI_OK);
}

TEST_F(QpTest, SpecialQpsAreQp0AndQp1OncePerPort) {
    VAPI_qp_hndl_t smi = 0, gsi = 0, gsi2 = 0, x = 0;
    VAPI_qp_cap_t cap{};
    ASSERT_EQ(special(1, VAPI_SMI_QP, &smi, &cap), VAPI_OK);
    EXPECT_EQ(cap.max_oust_wr_sq, 4u);
    ASSERT_EQ(special(1, VAPI_GSI_QP, &gsi), VAPI_OK);
    ASSERT_EQ(special(2, VAPI_GSI_QP, &gsi2), VAPI_OK);
    EXPECT_EQ(special(1, VAPI_GSI_QP, &x), VAPI_EINVAL_SPECIAL_QP);
    EXPECT_EQ(special(3, VAPI_GSI_QP, &x), VAPI_EINVAL_PORT);
    EXPECT_EQ(special(0, VAPI_SMI_QP, &x), VAPI_EINVAL_PORT);
    EXPECT_EQ(special(1, VAPI_REGULAR_QP, &x), VAPI_EINVAL_SPECIAL_QP);
    VAPI_qp_init_attr_t init;
    EXPECT_EQ(query(smi, &init).qp_num, 0u);
    EXPECT_EQ(init.ts_type, VAPI_TS_UD);
    VAPI_qp_attr_t a = query(gsi2);
    EXPECT_EQ(a.qp_num, 1u);
    EXPECT_EQ(a.port, 2);
    // Released, the port's QP1 can be taken again.
    ASSERT_EQ(VAPI_destroy_qp(hca, gsi), VAPI_OK);
    EXPECT_EQ(special(1, VAPI_GSI_QP, &x), VAPI_OK);
}

TEST_F(QpTest, RawQpsExistButAreLimitedByTheDevice) {
    VAPI_qp_hndl_t raw = 0, x = 0;
    ASSERT_EQ(special(1, VAPI_RAW_ETY_QP, &raw), VAPI_OK);
    EXPECT_EQ(special(2, VAPI_RAW_ETY_QP, &x), VAPI_EINVAL_SPECIAL_QP);  // one per device
    EXPECT_EQ(special(2, VAPI_RAW_IPV6_QP, &x), VAPI_OK);
    VAPI_qp_init_attr_t init;
    VAPI_qp_attr_t a = query(raw, &init);
    EXPECT_GE(a.qp_num, 0x400u);
    EXPECT_LT(a.qp_num, 1u << 24);
    EXPECT_EQ(init.ts_type, VAPI_TS_RAW);
}

TEST_F(QpTest, SpecialQpsTakeTheirPortFromCreation) {
    VAPI_qp_hndl_t gsi = 0;
    ASSERT_EQ(special(2, VAPI_GSI_QP, &gsi), VAPI_OK);
    VAPI_qp_attr_t a = full_attr(VAPI_INIT);
    EXPECT_EQ(modify(gsi, a, QP_ATTR_QP_STATE | QP_ATTR_PKEY_IX | QP_ATTR_QKEY | QP_ATTR_PORT),
              VAPI_EINVAL_PORT);
    EXPECT_EQ(modify(gsi, a, QP_ATTR_QP_STATE | QP_ATTR_PKEY_IX), VAPI_EINVAL_ATTR);  // Q_Key is required
    ASSERT_EQ(modify(gsi, a, QP_ATTR_QP_STATE | QP_ATTR_PKEY_IX | QP_ATTR_QKEY), VAPI_OK);
    ASSERT_EQ(modify(gsi, full_attr(VAPI_RTR), QP_ATTR_QP_STATE), VAPI_OK);
    ASSERT_EQ(modify(gsi, full_attr(VAPI_RTS), QP_ATTR_QP_STATE | QP_ATTR_SQ_PSN), VAPI_OK);
    VAPI_qp_attr_t q = query(gsi);
    EXPECT_EQ(q.qp_state, VAPI_RTS);
    EXPECT_EQ(q.port, 2);
    EXPECT_EQ(q.qkey, 0x11111111u);
}

TEST_F(QpTest, EveryTransportReachesRtsAndQueryReportsTheAttributes) {
    for (VAPI_ts_type_t ts : {VAPI_TS_RC, VAPI_TS_UC, VAPI_TS_UD}) {
        SCOPED_TRACE(ts);
        VAPI_qp_hndl_t qp = 0;
        ASSERT_EQ(create(init_attr(ts, cq, cq), &qp), VAPI_OK);
        EXPECT_EQ(state_of(qp), VAPI_RESET);
        bring_up(qp, ts, VAPI_INIT);
        EXPECT_EQ(state_of(qp), VAPI_INIT);
        ASSERT_EQ(modify(qp, full_attr(VAPI_RTR), rtr_mask(ts)), VAPI_OK);
        EXPECT_EQ(state_of(qp), VAPI_RTR);
        VAPI_qp_cap_t cap{};
        ASSERT_EQ(modify(qp, full_attr(VAPI_RTS), rts_mask(ts), &cap), VAPI_OK);
        EXPECT_EQ(cap.max_oust_wr_sq, 4u);
        EXPECT_EQ(cap.max_oust_wr_rq, 4u);
        VAPI_qp_init_attr_t init;
        VAPI_qp_attr_mask_t m;
        VAPI_qp_attr_t a = query(qp, &init, &m);
        EXPECT_EQ(m, static_cast<VAPI_qp_attr_mask_t>(QP_ATTR_ALL));
        EXPECT_EQ(a.qp_state, VAPI_RTS);
        EXPECT_EQ(a.sq_psn, 200u);
        EXPECT_EQ(a.cap.max_oust_wr_sq, 4u);
        EXPECT_EQ(init.ts_type, ts);
        EXPECT_EQ(init.sq_cq_hndl, cq);
        EXPECT_EQ(init.pd_hndl, pd);
        EXPECT_EQ(init.sq_sig_type, VAPI_SIGNAL_REQ_WR);
        if (ts != VAPI_TS_UD) {
            EXPECT_EQ(a.dest_qp_num, 0x401u);
            EXPECT_EQ(a.rq_psn, 100u);
            EXPECT_EQ(a.path_mtu, MTU2048);
            EXPECT_EQ(a.av.dlid, 2);
            EXPECT_EQ(a.remote_atomic_flags,
                      static_cast<VAPI_rdma_atom_acl_t>(VAPI_EN_REM_WRITE | VAPI_EN_REM_READ));
        } else {
            EXPECT_EQ(a.qkey, 0x11111111u);
        }
        if (ts == VAPI_TS_RC) {
            EXPECT_EQ(a.timeout, 14);
            EXPECT_EQ(a.retry_count, 7);
            EXPECT_EQ(a.ous_dst_rd_atom, 4);
            EXPECT_EQ(a.min_rnr_timer, 12);
        }
    }
}

TEST_F(QpTest, IllegalTransitionsAndMaskErrorsSayWhich) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_RC);
    // RESET -> RTR skips INIT.
    EXPECT_EQ(modify(qp, full_attr(VAPI_RTR), rtr_mask(VAPI_TS_RC)), VAPI_EINVAL_QP_STATE);
    // INIT without the access flags an RC QP needs.
    EXPECT_EQ(modify(qp, full_attr(VAPI_INIT), QP_ATTR_QP_STATE | QP_ATTR_PKEY_IX | QP_ATTR_PORT),
              VAPI_EINVAL_ATTR);
    // A Q_Key has no place in an RC QP.
    EXPECT_EQ(modify(qp, full_attr(VAPI_INIT), init_mask(VAPI_TS_RC) | QP_ATTR_QKEY), VAPI_EINVAL_ATTR);
    // The state bit is always needed; the QP number cannot be set.
    EXPECT_EQ(modify(qp, full_attr(VAPI_INIT), init_mask(VAPI_TS_RC) & ~QP_ATTR_QP_STATE), VAPI_EINVAL_ATTR);
    EXPECT_EQ(modify(qp, full_attr(VAPI_INIT), init_mask(VAPI_TS_RC) | QP_ATTR_QP_NUM), VAPI_EINVAL_ATTR);
    EXPECT_EQ(state_of(qp), VAPI_RESET);
    bring_up(qp, VAPI_TS_RC, VAPI_INIT);
    // A send queue's own attributes do not belong in RTR.
    EXPECT_EQ(modify(qp, full_attr(VAPI_RTR), rtr_mask(VAPI_TS_RC) | QP_ATTR_SQ_PSN), VAPI_EINVAL_ATTR);
    EXPECT_EQ(modify(qp, full_attr(VAPI_RTS), rts_mask(VAPI_TS_RC)), VAPI_EINVAL_QP_STATE);
    EXPECT_EQ(modify(qp, full_attr(VAPI_SQE), QP_ATTR_QP_STATE), VAPI_EINVAL_QP_STATE);
    EXPECT_EQ(modify(qp, full_attr(static_cast<VAPI_qp_state_t>(7)), QP_ATTR_QP_STATE), VAPI_EINVAL_QP_STATE);
    EXPECT_EQ(state_of(qp), VAPI_INIT);
}

TEST_F(QpTest, ValuesAreCheckedWithTheirOwnStatus) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UC);
    VAPI_qp_attr_t a = full_attr(VAPI_INIT);
    a.port = 3;
    EXPECT_EQ(modify(qp, a, init_mask(VAPI_TS_UC)), VAPI_EINVAL_PORT);
    a = full_attr(VAPI_INIT);
    a.pkey_ix = 64;
    EXPECT_EQ(modify(qp, a, init_mask(VAPI_TS_UC)), VAPI_EINVAL_PKEY_IX);
    bring_up(qp, VAPI_TS_UC, VAPI_INIT);
    a = full_attr(VAPI_RTR);
    a.path_mtu = MTU4096;  // beyond the port's 2048
    EXPECT_EQ(modify(qp, a, rtr_mask(VAPI_TS_UC)), VAPI_EINVAL_MTU);
    a = full_attr(VAPI_RTR);
    a.av.grh_flag = TRUE;
    a.av.sgid_index = 32;
    EXPECT_EQ(modify(qp, a, rtr_mask(VAPI_TS_UC)), VAPI_EINVAL_GID_IX);
    a = full_attr(VAPI_RTR);
    a.av.sl = 16;
    EXPECT_EQ(modify(qp, a, rtr_mask(VAPI_TS_UC)), VAPI_EINVAL_PARAM);
    a = full_attr(VAPI_RTR);
    a.path_mig_state = static_cast<VAPI_mig_state_t>(3);
    EXPECT_EQ(modify(qp, a, rtr_mask(VAPI_TS_UC)), VAPI_OK);  // not in the mask: not looked at
    ASSERT_EQ(modify(qp, full_attr(VAPI_RTS), rts_mask(VAPI_TS_UC)), VAPI_OK);
    a = full_attr(VAPI_RTS);
    a.path_mig_state = static_cast<VAPI_mig_state_t>(3);
    EXPECT_EQ(modify(qp, a, QP_ATTR_QP_STATE | QP_ATTR_PATH_MIG_STATE), VAPI_EINVAL_MIG_STATE);
}

TEST_F(QpTest, ModifyResizesTheWorkQueues) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UD);
    bring_up(qp, VAPI_TS_UD, VAPI_INIT);
    VAPI_qp_attr_t a = full_attr(VAPI_RTR);
    a.cap.max_oust_wr_rq = 20;  // the send depth stays as it is
    VAPI_qp_cap_t cap{};
    ASSERT_EQ(modify(qp, a, QP_ATTR_QP_STATE | QP_ATTR_CAP, &cap), VAPI_OK);
    EXPECT_EQ(cap.max_oust_wr_rq, 32u);
    EXPECT_EQ(cap.max_oust_wr_sq, 4u);
    a = full_attr(VAPI_RTS);
    a.cap.max_oust_wr_sq = 20000;
    EXPECT_EQ(modify(qp, a, rts_mask(VAPI_TS_UD) | QP_ATTR_CAP, &cap), VAPI_E2BIG_WR_NUM);
    EXPECT_EQ(state_of(qp), VAPI_RTR);
}

TEST_F(QpTest, ResetForgetsTheAttributesAndErrorIsReachableFromAnywhere) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_RC);
    bring_up(qp, VAPI_TS_RC);
    ASSERT_EQ(modify(qp, full_attr(VAPI_ERR), QP_ATTR_QP_STATE), VAPI_OK);
    EXPECT_EQ(state_of(qp), VAPI_ERR);
    EXPECT_EQ(modify(qp, full_attr(VAPI_INIT), init_mask(VAPI_TS_RC)), VAPI_EINVAL_QP_STATE);
    ASSERT_EQ(modify(qp, full_attr(VAPI_RESET), QP_ATTR_QP_STATE), VAPI_OK);
    VAPI_qp_attr_t a = query(qp);
    EXPECT_EQ(a.qp_state, VAPI_RESET);
    EXPECT_EQ(a.sq_psn, 0u);
    EXPECT_EQ(a.dest_qp_num, 0u);
    EXPECT_EQ(a.qp_num, 0x400u);
    bring_up(qp, VAPI_TS_RC);
    EXPECT_EQ(state_of(qp), VAPI_RTS);
}

TEST_F(QpTest, DrainingTheSendQueueTellsTheOwnerWhenAsked) {
    ASSERT_EQ(VAPI_set_async_event_handler(hca, record_async, nullptr), VAPI_OK);
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UD);
    bring_up(qp, VAPI_TS_UD);
    VAPI_qp_attr_t a = full_attr(VAPI_SQD);
    ASSERT_EQ(modify(qp, a, QP_ATTR_QP_STATE), VAPI_OK);
    EXPECT_TRUE(g_async.empty());
    ASSERT_EQ(modify(qp, full_attr(VAPI_RTS), QP_ATTR_QP_STATE), VAPI_OK);
    a.en_sqd_asyn_notif = TRUE;
    ASSERT_EQ(modify(qp, a, QP_ATTR_QP_STATE | QP_ATTR_EN_SQD_ASYN_NOTIF), VAPI_OK);
    ASSERT_EQ(g_async.size(), 1u);
    EXPECT_EQ(g_async[0].type, VAPI_SEND_QUEUE_DRAINED);
    EXPECT_EQ(g_async[0].modifier.qp_hndl, qp);
    EXPECT_EQ(state_of(qp), VAPI_SQD);
    ASSERT_EQ(modify(qp, full_attr(VAPI_SQD), QP_ATTR_QP_STATE | QP_ATTR_QKEY), VAPI_OK);
    ASSERT_EQ(modify(qp, full_attr(VAPI_RTS), QP_ATTR_QP_STATE), VAPI_OK);
}

TEST_F(QpTest, BadHandlesAndArguments) {
    VAPI_qp_attr_t a = full_attr(VAPI_INIT);
    VAPI_qp_attr_mask_t m = init_mask(VAPI_TS_UD);
    VAPI_qp_cap_t cap{};
    EXPECT_EQ(VAPI_modify_qp(hca, 5, &a, &m, &cap), VAPI_EINVAL_QP_HNDL);
    EXPECT_EQ(VAPI_modify_qp(hca + 1000, 5, &a, &m, &cap), VAPI_EINVAL_HCA_HNDL);
    VAPI_qp_init_attr_t init{};
    EXPECT_EQ(VAPI_query_qp(hca, 5, &a, &m, &init), VAPI_EINVAL_QP_HNDL);
    EXPECT_EQ(VAPI_destroy_qp(hca, 5), VAPI_EINVAL_QP_HNDL);
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UD);
    EXPECT_EQ(VAPI_modify_qp(hca, qp, nullptr, &m, &cap), VAPI_EINVAL_PARAM);
    EXPECT_EQ(VAPI_modify_qp(hca, qp, &a, nullptr, &cap), VAPI_EINVAL_PARAM);
    EXPECT_EQ(VAPI_modify_qp(hca, qp, &a, &m, nullptr), VAPI_OK);  // the capabilities are optional
    EXPECT_EQ(VAPI_query_qp(hca, qp, nullptr, &m, &init), VAPI_EINVAL_PARAM);
}

TEST_F(QpTest, InjectedFaultsLeaveNothingBehind) {
    sh::inject_fault("VAPI_create_qp", "InfiniHost0", VAPI_EOL);
    VAPI_qp_hndl_t qp = 0;
    EXPECT_EQ(create(init_attr(VAPI_TS_RC, cq, cq), &qp), VAPI_EOL);
    EXPECT_EQ(sh::qp_count("InfiniHost0"), 0u);
    ASSERT_EQ(create(init_attr(VAPI_TS_RC, cq, cq), &qp), VAPI_OK);
    sh::inject_fault("VAPI_modify_qp", "*", VAPI_EGEN, sh::FaultMode::Nth, 2);
    ASSERT_EQ(modify(qp, full_attr(VAPI_INIT), init_mask(VAPI_TS_RC)), VAPI_OK);
    EXPECT_EQ(modify(qp, full_attr(VAPI_RTR), rtr_mask(VAPI_TS_RC)), VAPI_EGEN);
    EXPECT_EQ(state_of(qp), VAPI_INIT);
    sh::inject_fault("VAPI_get_special_qp", "InfiniHost0", VAPI_EBUSY);
    VAPI_qp_hndl_t smi = 0;
    EXPECT_EQ(special(1, VAPI_SMI_QP, &smi), VAPI_EBUSY);
    EXPECT_EQ(special(1, VAPI_SMI_QP, &smi), VAPI_OK);
    EXPECT_EQ(sh::call_count("VAPI_modify_qp", "InfiniHost0"), 2u);
    EXPECT_EQ(sh::call_count("VAPI_destroy_qp"), 0u);
}

TEST_F(QpTest, CloseReleasesQpsAndTheirHandles) {
    make_qp(VAPI_TS_RC);
    make_qp(VAPI_TS_UD);
    ASSERT_EQ(VAPI_close_hca(hca), VAPI_OK);
    EXPECT_EQ(sh::qp_count("InfiniHost0"), 0u);
    hca = open();
    ASSERT_EQ(EVAPI_alloc_pd(hca, 8, &pd), VAPI_OK);
    cq = make_cq();
    VAPI_qp_prop_t prop{};
    EXPECT_EQ(make_qp(VAPI_TS_UD, &prop), 1u);
    EXPECT_EQ(prop.qp_num, 0x400u);
}

TEST_F(QpTest, QpsAreFoundByNumberAndPort) {
    VAPI_qp_hndl_t gsi1 = 0, gsi2 = 0, smi1 = 0;
    ASSERT_EQ(special(1, VAPI_GSI_QP, &gsi1), VAPI_OK);
    ASSERT_EQ(special(2, VAPI_GSI_QP, &gsi2), VAPI_OK);
    ASSERT_EQ(special(1, VAPI_SMI_QP, &smi1), VAPI_OK);
    VAPI_qp_prop_t prop{};
    VAPI_qp_hndl_t ud = make_qp(VAPI_TS_UD, &prop);
    auto found = [&](VAPI_qp_num_t num, IB_port_t port) -> VAPI_qp_hndl_t {
        VAPI_qp_hndl_t h = 0;
        sh::Device *dev = sh::device_by_handle(hca);
        std::lock_guard lk(dev->mu);
        if (sh::Qp *qp = sh::find_qp_by_num(*dev, num, port)) h = qp->hndl;
        return h;
    };
    EXPECT_EQ(found(1, 1), gsi1);
    EXPECT_EQ(found(1, 2), gsi2);
    EXPECT_EQ(found(0, 1), smi1);
    EXPECT_EQ(found(0, 2), 0u);
    EXPECT_EQ(found(prop.qp_num, 1), ud);
    EXPECT_EQ(found(prop.qp_num, 2), ud);
    EXPECT_EQ(found(prop.qp_num + 1, 1), 0u);
}

TEST_F(QpTest, RtrAcceptsTheRequesterTimersAndIgnoresThem) {
    for (VAPI_ts_type_t ts : {VAPI_TS_RC, VAPI_TS_UC, VAPI_TS_UD}) {
        SCOPED_TRACE(ts);
        VAPI_qp_hndl_t qp = make_qp(ts);
        bring_up(qp, ts, VAPI_INIT);
        VAPI_qp_attr_t a = full_attr(VAPI_RTR);
        a.timeout = 20;
        a.retry_count = 3;
        a.rnr_retry = 5;
        ASSERT_EQ(modify(qp, a, rtr_mask(ts) | QP_ATTR_TIMEOUT | QP_ATTR_RETRY_COUNT | QP_ATTR_RNR_RETRY),
                  VAPI_OK);
        VAPI_qp_attr_t q = query(qp);
        EXPECT_EQ(q.qp_state, VAPI_RTR);
        EXPECT_EQ(q.timeout, 0);
        EXPECT_EQ(q.retry_count, 0);
        EXPECT_EQ(q.rnr_retry, 0);
        // RTS sets them.
        ASSERT_EQ(modify(qp, full_attr(VAPI_RTS), rts_mask(ts)), VAPI_OK);
        EXPECT_EQ(query(qp).timeout, ts == VAPI_TS_RC ? 14 : 0);
    }
}

TEST_F(QpTest, ReliableRtrWithoutRnrTimerGetsTheDefault) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_RC);
    bring_up(qp, VAPI_TS_RC, VAPI_INIT);
    VAPI_qp_attr_t a = full_attr(VAPI_RTR);
    a.min_rnr_timer = 3;  // not in the mask: not taken
    ASSERT_EQ(modify(qp, a, rtr_mask(VAPI_TS_RC) & ~QP_ATTR_MIN_RNR_TIMER), VAPI_OK);
    VAPI_qp_attr_t q = query(qp);
    EXPECT_EQ(q.qp_state, VAPI_RTR);
    EXPECT_EQ(q.min_rnr_timer, 12);  // 0.64 ms
}

TEST_F(QpTest, QueryReportsTheStateATestChose) {
    namespace sh = marlix::softhca;
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_RC);
    bring_up(qp, VAPI_TS_RC, VAPI_RTS);
    ASSERT_TRUE(sh::set_reported_qp_state("InfiniHost0", qp, uint32_t(VAPI_SQE)));
    EXPECT_EQ(state_of(qp), VAPI_SQE);
    ASSERT_TRUE(sh::set_reported_qp_state("InfiniHost0", qp, 0x1234u));
    VAPI_qp_attr_t q = query(qp);
    uint32_t raw = 0;
    std::memcpy(&raw, &q.qp_state, sizeof raw);
    EXPECT_EQ(raw, 0x1234u);
    // The real state is untouched: RTS still takes RTS -> RTS.
    EXPECT_EQ(modify(qp, full_attr(VAPI_RTS), QP_ATTR_QP_STATE), VAPI_OK);
    ASSERT_TRUE(sh::set_reported_qp_state("InfiniHost0", qp, std::nullopt));
    EXPECT_EQ(state_of(qp), VAPI_RTS);
    EXPECT_FALSE(sh::set_reported_qp_state("InfiniHost0", 999, 1u));
    EXPECT_FALSE(sh::set_reported_qp_state("InfiniHost9", qp, 1u));
}
