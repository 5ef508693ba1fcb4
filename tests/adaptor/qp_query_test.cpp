// QP query through the provider table: every field translated back, the CQs as the caller's
// handles (array, list, missing), the fields left alone, the access bits OR-ed in, the state
// table and the states outside it, and the VAPI failure.
#include <vapi.h>

#include "queues_fixture.hpp"

namespace adaptor_test {
namespace {

uint64_t at(const char *name) {
    return static_cast<uint64_t>(module_const(name));
}

const std::string kF = "oxi_mlx_qp_query";

class QpQuery : public QueuesFixture {
  protected:
    void SetUp() override {
        QueuesFixture::SetUp();
        open();
        pd_ = alloc_pd();
        lid_ = hca::port_status("InfiniHost0", 1)->lid;
    }
    void TearDown() override {
        if (hca_) close_hca(hca_);
        QueuesFixture::TearDown();
    }
    VAPI_hca_hndl_t vapi_hca() { return static_cast<VAPI_hca_hndl_t>(hca_record(hca_)["hca_h"]); }

    int modify(void *q, QpAttr &req) { return ulp_qp_modify(provider(), hca_, q, req.data(), nullptr); }

    // An RC QP through INIT (remote write and read), RTR to itself and RTS, with a GID 0F .. 00 in
    // the request.
    void connect_to_self(void *q) {
        QpAttr i;
        i.set("modify.qp_modify_into_state", qp_state("init"))
            .set("modify.ox_qp_attr_mask",
                 at("OX_QP_AT_P_KEY_IX") | at("OX_QP_AT_PHY_PORT_NUM") | at("OX_QP_AT_ACCESS_CON_F"))
            .set("modify.params.init.phy_port_num", 1)
            .set("modify.params.init.access_control", 0x06);
        ASSERT_EQ(kQOk, modify(q, i));
        QpAttr r;
        const std::string av = "modify.params.rtr.remote_add_vec.";
        r.set("modify.qp_modify_into_state", qp_state("rtr"))
            .set("modify.ox_qp_attr_mask",
                 at("OX_QP_AT_DEST_QP") | at("OX_QP_AT_R_PSN") | at("OX_QP_AT_ADD_VEC") |
                     at("OX_QP_AT_RESP_RDMA_ATOM_OUT_NUM") | at("OX_QP_AT_L_ACK_T") |
                     at("OX_QP_AT_RETRY_NUM") | at("OX_QP_AT_RNR_NUM") | at("OX_QP_AT_OPTIONAL") |
                     at("OX_QP_AT_MIN_RNR_NAK_T"))
            .set("modify.params.rtr.destanation_qp", static_cast<uint64_t>(qp_record(q)["qp_num"]))
            .set("modify.params.rtr.receive_psn", 0x321)
            .set("modify.params.rtr.responder_rdma_r_atom_num", 4)
            .set("modify.params.rtr.opt_min_rnr_nak_timer", 14)
            .set((av + "service_level").c_str(), 5)
            .set((av + "grh_flag").c_str(), 1)
            .set((av + "dlid").c_str(), lid_)
            .set((av + "pmtu").c_str(), 4)
            .set((av + "max_static_rate").c_str(), 3)
            .set((av + "l_ack_timeout").c_str(), 16)
            .set((av + "retry_count").c_str(), 6)
            .set((av + "rnr_retry_count").c_str(), 7)
            .set((av + "global_dest.flow_lable").c_str(), 0x2345)
            .set((av + "global_dest.hope_limit").c_str(), 11)
            .set((av + "global_dest.traffic_class").c_str(), 12)
            .set((av + "global_dest.s_gid_index").c_str(), 0);
        uint8_t *gid = r.bytes((av + "global_dest.d_gid").c_str());
        for (int k = 0; k < 16; k++) gid[k] = static_cast<uint8_t>(15 - k);
        ASSERT_EQ(kQOk, modify(q, r));
        // The requester's timers take effect on the way to RTS.
        QpAttr t;
        t.set("modify.qp_modify_into_state", qp_state("rts"))
            .set("modify.ox_qp_attr_mask", at("OX_QP_AT_L_ACK_T") | at("OX_QP_AT_DEST_RDMA_ATOM_OUT_NUM") |
                                               at("OX_QP_AT_RETRY_NUM") | at("OX_QP_AT_RNR_NUM") |
                                               at("OX_QP_AT_S_PSN"))
            .set("modify.params.rts.local_ack_timeout", 16)
            .set("modify.params.rts.dest_out_rdma_r_atom_num", 2)
            .set("modify.params.rts.retry_num", 6)
            .set("modify.params.rts.rnr_num", 7)
            .set("modify.params.rts.send_psn", 0x654);
        ASSERT_EQ(kQOk, modify(q, t));
    }

    // A QP made outside the adaptor on CQs the adaptor does not know, registered by handle.
    void *outside_qp(VAPI_cq_hndl_t scq, VAPI_cq_hndl_t rcq, VAPI_qp_hndl_t *vapi_qp_h) {
        VAPI_qp_init_attr_t init{};
        init.sq_cq_hndl = scq;
        init.rq_cq_hndl = rcq;
        init.cap.max_oust_wr_sq = 4;
        init.cap.max_oust_wr_rq = 4;
        init.cap.max_sg_size_sq = 1;
        init.cap.max_sg_size_rq = 1;
        init.pd_hndl = pd_;
        init.ts_type = VAPI_TS_UD;
        VAPI_qp_prop_t prop{};
        EXPECT_EQ(VAPI_OK, VAPI_create_qp(vapi_hca(), &init, vapi_qp_h, &prop));
        EXPECT_EQ(kQOk, ulp_qp_add_h(provider(), hca_, reinterpret_cast<void *>(*vapi_qp_h),
                                     static_cast<int>(prop.qp_num)));
        return qp_list_first(hca_);
    }

    uint32_t pd_ = 0;
    uint16_t lid_ = 0;
};

TEST_F(QpQuery, TranslatesEveryFieldBack) {
    void *scq = create_cq(16), *rcq = create_cq(16);
    int context = 0;
    void *q = create_qp(qp_type("rc"), scq, rcq, pd_, &context);
    connect_to_self(q);
    set_debug_level(4);
    k::log_clear();

    // Fields the query does not write keep what the caller put there; access bits are OR-ed in.
    QpAttr out;
    out.set("query.ox_qp_attr_mask", 0x5a)
        .set("query.qp_type", 7)
        .set("query.primary_add_vec.phy_port_num", 9)
        .set("query.alternate_path.al_path_port_num", 8)
        .set("query.alternate_path.al_path_add_vec.phy_port_num", 7)
        .set("query.max_send_inline_data", 99)
        .set("query.recv_solicited_events", 1)
        .set("query.send_signaled_comp", 1)
        .set("query.flow_control", 3)
        .set("query.access_control", 0x01);
    void *ctx = nullptr;
    ASSERT_EQ(kQOk, ulp_qp_query(provider(), hca_, q, &ctx, out.data()));
    EXPECT_EQ(&context, ctx);
    const std::string n = std::to_string(qp_record(q)["qp_num"]);
    std::vector<std::string> expected = {
        ad_debug(kF, "before VAPI_query_qp(), qp_attr_mask: 134217727"),
        ad_debug(kF, "Working with: hca_context->opened_cq_array[" + std::to_string(vapi_cq(rcq)) + "]"),
        ad_debug(kF, "Working with: hca_context->opened_cq_array[" + std::to_string(vapi_cq(scq)) + "]"),
        ad_debug(kF, "q_key: 0, qp_num: " + n + ", qp_state: 3"),
    };
    EXPECT_EQ(expected, log());

    EXPECT_EQ(0x5au, out.get("query.ox_qp_attr_mask"));
    EXPECT_EQ(7u, out.get("query.qp_type"));
    EXPECT_EQ(9u, out.get("query.primary_add_vec.phy_port_num"));
    EXPECT_EQ(8u, out.get("query.alternate_path.al_path_port_num"));
    EXPECT_EQ(7u, out.get("query.alternate_path.al_path_add_vec.phy_port_num"));
    EXPECT_EQ(99u, out.get("query.max_send_inline_data"));
    EXPECT_EQ(1u, out.get("query.recv_solicited_events"));
    EXPECT_EQ(1u, out.get("query.send_signaled_comp"));
    EXPECT_EQ(3u, out.get("query.flow_control"));
    EXPECT_EQ(0x07u, out.get("query.access_control"));  // 0x01 kept, remote read and write added

    EXPECT_EQ(static_cast<uint64_t>(qp_state("rts")), out.get("query.qp_state"));
    EXPECT_EQ(0x654u, out.get("query.send_psn"));
    EXPECT_EQ(2u, out.get("query.responder_rdma_r_atom_num"));
    EXPECT_EQ(static_cast<uint64_t>(qp_record(q)["qp_num"]), out.get("query.qp_num"));
    EXPECT_EQ(reinterpret_cast<uint64_t>(scq), out.get("query.cq_send_h"));
    EXPECT_EQ(reinterpret_cast<uint64_t>(rcq), out.get("query.cq_receive_h"));
    EXPECT_EQ(16u, out.get("query.send_max_outstand_wr"));
    EXPECT_EQ(32u, out.get("query.receive_max_outstand_wr"));
    EXPECT_EQ(2u, out.get("query.max_scatgat_per_send_wr"));
    EXPECT_EQ(3u, out.get("query.max_scatgat_per_receive_wr"));
    EXPECT_EQ(0x321u, out.get("query.receve_psn"));
    EXPECT_EQ(1u, out.get("query.phy_port_num"));
    EXPECT_EQ(0u, out.get("query.primary_p_key_indx"));
    EXPECT_EQ(pd_, out.get("query.pd_h"));
    EXPECT_EQ(0u, out.get("query.rdd_h"));
    EXPECT_EQ(static_cast<uint64_t>(qp_record(q)["qp_num"]), out.get("query.destanation_qp"));
    EXPECT_EQ(4u, out.get("query.rdma_r_atom_outstand_num"));
    EXPECT_EQ(14u, out.get("query.min_rnr_nak_timer"));
    EXPECT_EQ(5u, out.get("query.primary_add_vec.service_level"));
    EXPECT_EQ(1u, out.get("query.primary_add_vec.grh_flag"));
    EXPECT_EQ(lid_, out.get("query.primary_add_vec.dlid"));
    EXPECT_EQ(4u, out.get("query.primary_add_vec.pmtu"));
    EXPECT_EQ(3u, out.get("query.primary_add_vec.max_static_rate"));
    EXPECT_EQ(16u, out.get("query.primary_add_vec.l_ack_timeout"));
    EXPECT_EQ(6u, out.get("query.primary_add_vec.retry_count"));
    EXPECT_EQ(7u, out.get("query.primary_add_vec.rnr_retry_count"));
    EXPECT_EQ(0x2345u, out.get("query.primary_add_vec.global_dest.flow_lable"));
    EXPECT_EQ(11u, out.get("query.primary_add_vec.global_dest.hope_limit"));
    EXPECT_EQ(12u, out.get("query.primary_add_vec.global_dest.traffic_class"));
    // The device holds 00 01 .. 0F; the caller gets 0F 0E .. 00.
    VAPI_qp_attr_t attr{};
    VAPI_qp_attr_mask_t mask = QP_ATTR_ALL;
    VAPI_qp_init_attr_t init{};
    ASSERT_EQ(VAPI_OK, VAPI_query_qp(vapi_hca(), vapi_qp(q), &attr, &mask, &init));
    uint8_t *gid = out.bytes("query.primary_add_vec.global_dest.d_gid");
    for (int k = 0; k < 16; k++) {
        EXPECT_EQ(k, attr.av.dgid[k]) << k;
        EXPECT_EQ(15 - k, gid[k]) << k;
    }
    // The alternate path reports the primary MTU.
    EXPECT_EQ(4u, out.get("query.alternate_path.al_path_add_vec.pmtu"));
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0, 0, 0}), error_counters());
    destroy_qp(q);
    destroy_cq(scq);
    destroy_cq(rcq);
}

TEST_F(QpQuery, CqsAbove1000AreFoundOnTheList) {
    ASSERT_TRUE(hca::set_next_cq_handle("InfiniHost0", 1001));
    void *scq = create_cq(16);
    ASSERT_TRUE(hca::set_next_cq_handle("InfiniHost0", 2000));
    void *rcq = create_cq(16);
    void *q = create_qp(qp_type("ud"), scq, rcq, pd_);
    set_debug_level(4);
    k::log_clear();
    QpAttr out;
    void *ctx = nullptr;
    ASSERT_EQ(kQOk, ulp_qp_query(provider(), hca_, q, &ctx, out.data()));
    EXPECT_EQ(reinterpret_cast<uint64_t>(scq), out.get("query.cq_send_h"));
    EXPECT_EQ(reinterpret_cast<uint64_t>(rcq), out.get("query.cq_receive_h"));
    auto lines = log();
    EXPECT_EQ(0u, count_with(lines, "Working with:"));
    EXPECT_TRUE(contains(
        lines, ad_debug("ox_mlx_get_user_cq_h", "Find cq_h:" + hex(2000) + ", user cq h: " + kptr(rcq))));
    EXPECT_TRUE(contains(
        lines, ad_debug("ox_mlx_get_user_cq_h", "Find cq_h:" + hex(1001) + ", user cq h: " + kptr(scq))));
    EXPECT_EQ(6u, lines.size() - without_lock_trace(lines).size());
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0, 0, 0}), error_counters());
    destroy_qp(q);
    destroy_cq(scq);
    destroy_cq(rcq);
}

TEST_F(QpQuery, CqsTheAdaptorDoesNotKnowAreReportedAndCounted) {
    // Receive CQ: a small handle with no record (empty slot); send CQ: a large one, on no list.
    VAPI_cq_hndl_t small = 0, large = 0;
    VAPI_cqe_num_t n = 0;
    ASSERT_EQ(VAPI_OK, VAPI_create_cq(vapi_hca(), 8, &small, &n));
    ASSERT_TRUE(hca::set_next_cq_handle("InfiniHost0", 1500));
    ASSERT_EQ(VAPI_OK, VAPI_create_cq(vapi_hca(), 8, &large, &n));
    ASSERT_EQ(1500u, large);
    void *known = create_cq(8);  // examined by the list walk
    VAPI_qp_hndl_t vapi_qp_h = 0;
    void *q = outside_qp(large, small, &vapi_qp_h);
    set_debug_level(4);
    k::log_clear();
    QpAttr out;
    out.set("query.cq_receive_h", 0x1111).set("query.cq_send_h", 0x2222);
    void *ctx = reinterpret_cast<void *>(1);
    ASSERT_EQ(kQOk, ulp_qp_query(provider(), hca_, q, &ctx, out.data()));
    EXPECT_EQ(nullptr, ctx);
    std::vector<std::string> expected = {
        ad_debug(kF, "before VAPI_query_qp(), qp_attr_mask: 134217727"),
        ad_debug(kF, "Working with: hca_context->opened_cq_array[" + std::to_string(small) + "]"),
        ad_error(kF, "ERROR - opened_hca_p->opened_cq_array[] == NULL"),
        ad_debug("ox_mlx_get_user_cq_h",
                 "Working with: hca_context->opened_cq_array[" + std::to_string(small) + "]"),
        ad_debug("ox_mlx_get_user_cq_h", "opened_cq_p: " + kptr(nullptr)),
        ad_error("ox_mlx_get_user_cq_h",
                 "ERROR - didn't find opened_cq_p->cq_h == cq_h " + hex(vapi_cq(known)) + ":" + hex(1500)),
        ad_error(kF, "Didn't find user handle for receive CQ"),
        ad_debug(kF, "q_key: 0, qp_num: " + std::to_string(qp_record(q)["qp_num"]) + ", qp_state: 0"),
    };
    EXPECT_EQ(expected, without_lock_trace(log()));
    // The empty slot answers null; the missing large handle leaves the caller's value.
    EXPECT_EQ(0u, out.get("query.cq_receive_h"));
    EXPECT_EQ(0x2222u, out.get("query.cq_send_h"));
    EXPECT_EQ((std::vector<long long>{2, 2, 0, 0, 0, 0}), error_counters());
    EXPECT_EQ(0, ulp_qp_rem_h(provider(), hca_, reinterpret_cast<void *>(vapi_qp_h),
                              static_cast<int>(qp_record(q)["qp_num"])));
    EXPECT_EQ(VAPI_OK, VAPI_destroy_qp(vapi_hca(), vapi_qp_h));
    destroy_cq(known);
}

TEST_F(QpQuery, StatesThroughTheTableAndBeyondIt) {
    void *cq = create_cq(16);
    void *q = create_qp(qp_type("ud"), cq, cq, pd_);
    struct Case {
        uint32_t vapi;
        const char *ox;
    } cases[] = {{VAPI_RESET, "reset"}, {VAPI_INIT, "init"}, {VAPI_RTR, "rtr"}, {VAPI_RTS, "rts"},
                 {VAPI_SQD, "sqd"},     {VAPI_SQE, "sqe"},   {VAPI_ERR, "err"}};
    for (const auto &c : cases) {
        ASSERT_TRUE(hca::set_reported_qp_state("InfiniHost0", vapi_qp(q), c.vapi));
        QpAttr out;
        void *ctx = nullptr;
        ASSERT_EQ(kQOk, ulp_qp_query(provider(), hca_, q, &ctx, out.data())) << c.ox;
        EXPECT_EQ(static_cast<uint64_t>(qp_state(c.ox)), out.get("query.qp_state")) << c.ox;
    }
    for (uint32_t raw : {7u, 0xffffffffu}) {
        ASSERT_TRUE(hca::set_reported_qp_state("InfiniHost0", vapi_qp(q), raw));
        k::log_clear();
        QpAttr out;
        out.set("query.qp_state", 0x77);
        void *ctx = nullptr;
        EXPECT_EQ(kQErrInvalidVendRet, ulp_qp_query(provider(), hca_, q, &ctx, out.data()));
        EXPECT_EQ((std::vector<std::string>{
                      ad_error(kF, "QP mlx state: " + std::to_string(static_cast<int>(raw)))}),
                  log());
        // The other fields are written already; the state is not.
        EXPECT_EQ(static_cast<uint64_t>(qp_record(q)["qp_num"]), out.get("query.qp_num"));
        EXPECT_EQ(reinterpret_cast<uint64_t>(cq), out.get("query.cq_send_h"));
        EXPECT_EQ(0x77u, out.get("query.qp_state"));
    }
    EXPECT_EQ((std::vector<long long>{2, 2, 2, 2, 0, 0}), error_counters());
    EXPECT_EQ(0, ring_ix());
    hca::set_reported_qp_state("InfiniHost0", vapi_qp(q), std::nullopt);
    destroy_qp(q);
    destroy_cq(cq);
}

TEST_F(QpQuery, VapiFailureWritesNothing) {
    void *cq = create_cq(16);
    int context = 0;
    void *q = create_qp(qp_type("uc"), cq, cq, pd_, &context);
    hca::inject_fault("VAPI_query_qp", "InfiniHost0", VAPI_EINVAL_QP_HNDL);
    k::log_clear();
    QpAttr out;
    out.set("query.qp_num", 0x4242).set("query.access_control", 0x10);
    void *ctx = reinterpret_cast<void *>(1);
    EXPECT_EQ(kQErr, ulp_qp_query(exported_table(), hca_, q, &ctx, out.data()));
    EXPECT_EQ((std::vector<std::string>{ad_error(kF, "MLXAD_ERR: VAPI Fail to query QP, hca_h: 0, qp_h: " +
                                                         std::to_string(vapi_qp(q)) + " (mlx:-239, MLX)")}),
              log());
    EXPECT_EQ((std::vector<long long>{1, 1, 1, 1, 0, 0}), error_counters());
    expect_ring(0, "qp_query_indx", VAPI_EINVAL_QP_HNDL);
    EXPECT_EQ(reinterpret_cast<void *>(1), ctx);
    EXPECT_EQ(0x4242u, out.get("query.qp_num"));
    EXPECT_EQ(0x10u, out.get("query.access_control"));
    destroy_qp(q);
    destroy_cq(cq);
}

}  // namespace
}  // namespace adaptor_test
