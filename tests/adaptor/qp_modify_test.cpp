// QP state transitions through the provider table: the generic mask translated bit by bit per
// target state, the traces, what VAPI receives (read back from the device), the refused targets
// and the VAPI failure.
#include <vapi.h>

#include "queues_fixture.hpp"

namespace adaptor_test {
namespace {

uint64_t at(const char *name) {
    return static_cast<uint64_t>(module_const(name));
}

class QpModify : public QueuesFixture {
  protected:
    void SetUp() override {
        QueuesFixture::SetUp();
        open();
        cq_ = create_cq(64);
        pd_ = alloc_pd();
        lid_ = hca::port_status("InfiniHost0", 1)->lid;
    }
    void TearDown() override {
        if (hca_) {
            for (void *qp : qps_) destroy_qp(qp);
            destroy_cq(cq_);
            close_hca(hca_);
        }
        QueuesFixture::TearDown();
    }

    void *qp(const char *type) {
        void *q = create_qp(qp_type(type), cq_, cq_, pd_);
        qps_.push_back(q);
        return q;
    }

    static QpAttr request(const char *state, uint64_t mask) {
        QpAttr r;
        r.set("modify.qp_modify_into_state", static_cast<uint64_t>(qp_state(state)))
            .set("modify.ox_qp_attr_mask", mask);
        return r;
    }

    int modify(void *q, QpAttr &req, QpAttr *result = nullptr) {
        return ulp_qp_modify(provider(), hca_, q, req.data(), result ? result->data() : nullptr);
    }

    // What the device holds for the QP.
    VAPI_qp_attr_t device_attr(void *q) {
        VAPI_qp_attr_t attr{};
        VAPI_qp_attr_mask_t mask = QP_ATTR_ALL;
        VAPI_qp_init_attr_t init{};
        EXPECT_EQ(VAPI_OK, VAPI_query_qp(static_cast<VAPI_hca_hndl_t>(hca_record(hca_)["hca_h"]), vapi_qp(q),
                                         &attr, &mask, &init));
        return attr;
    }

    void to_init_rc(void *q) {
        QpAttr r = request(
            "init", at("OX_QP_AT_P_KEY_IX") | at("OX_QP_AT_PHY_PORT_NUM") | at("OX_QP_AT_ACCESS_CON_F"));
        r.set("modify.params.init.phy_port_num", 1).set("modify.params.init.access_control", 0x0e);
        ASSERT_EQ(kQOk, modify(q, r));
    }
    void to_init_ud(void *q) {
        QpAttr r =
            request("init", at("OX_QP_AT_P_KEY_IX") | at("OX_QP_AT_PHY_PORT_NUM") | at("OX_QP_AT_Q_KEY"));
        r.set("modify.params.init.phy_port_num", 1).set("modify.params.init.q_key", 0x11111111);
        ASSERT_EQ(kQOk, modify(q, r));
    }
    // The VAPI mask the transition sent, from its trace.
    static std::string mlx_line(int state, int mask) {
        return ad_debug("oxi_mlx_qp_modify", "change to mlx qp_state: " + std::to_string(state) +
                                                 " (qp_attr_mask: " + std::to_string(mask) + ")");
    }

    void *cq_ = nullptr;
    uint32_t pd_ = 0;
    uint16_t lid_ = 0;
    std::vector<void *> qps_;
};

const std::string kF = "oxi_mlx_qp_modify";

TEST_F(QpModify, InitTracesEveryBitAndSendsItsMask) {
    void *q = qp("rc");
    set_debug_level(5);
    k::log_clear();
    QpAttr r =
        request("init", at("OX_QP_AT_P_KEY_IX") | at("OX_QP_AT_PHY_PORT_NUM") | at("OX_QP_AT_ACCESS_CON_F"));
    r.set("modify.params.init.p_key_indx", 0)
        .set("modify.params.init.phy_port_num", 1)
        .set("modify.params.init.access_control", 0x0f);
    QpAttr result;
    ASSERT_EQ(kQOk, modify(q, r, &result));
    const std::string n = std::to_string(qp_record(q)["qp_num"]);
    std::vector<std::string> expected = {
        ad_debug(kF, "user qp_h " + kptr(q) + ", mlx qp_h: " + std::to_string(vapi_qp(q)) + ", qp num: " + n),
        ad_debug(kF, "ox_qp_attr_mask: 0x3800"),
        ad_debug(kF, "bitmask: OX_QP_AT_STATE"),
        ad_debug(kF, "change to qp_state: 1(1)"),
        ad_debug(kF, "change QP state into INIT"),
        ad_debug(kF, "bitmask: OX_QP_AT_P_KEY_IX"),
        ad_func(kF, "bitmask: 13(16), value: 0(0)"),
        ad_debug(kF, "bitmask: OX_QP_AT_PHY_PORT_NUM"),
        ad_func(kF, "bitmask: 12(32), value: 1(1)"),
        ad_debug(kF, "bitmask: OX_QP_AT_ACCESS_CON_F"),
        ad_debug(kF, "remote_atomic_flags = VAPI_EN_REM_ATOMIC_OP"),
        ad_debug(kF, "remote_atomic_flags = VAPI_EN_REM_READ"),
        ad_debug(kF, "remote_atomic_flags = VAPI_EN_REM_WRITE"),
        ad_func(kF, "bitmask: 11(8), value: 7(15)"),
        ad_debug(kF, "state: 1, attr_mask: 57, pkey_ix: 0, attr_mlx.port: 1, qkey: 0"),
        mlx_line(1, 57),
        ad_debug(kF, "OK - VAPI_modify_qp()"),
        ad_debug(kF, "OK - VAPI_modify_qp(), max_oust_wr_rq: 32, max_oust_wr_sq: 16"),
    };
    EXPECT_EQ(expected, log());
    EXPECT_EQ(16u, result.get("modify_return.send_max_outstand_wr"));
    EXPECT_EQ(32u, result.get("modify_return.receive_max_outstand_wr"));
    auto attr = device_attr(q);
    EXPECT_EQ(VAPI_INIT, attr.qp_state);
    EXPECT_EQ(7u, attr.remote_atomic_flags);
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0, 0, 0}), error_counters());
}

TEST_F(QpModify, LocalAccessBitsAreDroppedAndQkeyGoesToUd) {
    void *q = qp("ud");
    set_debug_level(4);
    k::log_clear();
    QpAttr r = request("init", at("OX_QP_AT_P_KEY_IX") | at("OX_QP_AT_PHY_PORT_NUM") | at("OX_QP_AT_Q_KEY"));
    r.set("modify.params.init.phy_port_num", 2).set("modify.params.init.q_key", 0x1234);
    ASSERT_EQ(kQOk, modify(q, r));
    EXPECT_TRUE(
        contains(log(), ad_debug(kF, "state: 1, attr_mask: 113, pkey_ix: 0, attr_mlx.port: 2, qkey: 4660")));
    auto attr = device_attr(q);
    EXPECT_EQ(0x1234u, attr.qkey);
    EXPECT_EQ(2, attr.port);

    void *rc = qp("rc");
    k::log_clear();
    QpAttr a =
        request("init", at("OX_QP_AT_P_KEY_IX") | at("OX_QP_AT_PHY_PORT_NUM") | at("OX_QP_AT_ACCESS_CON_F"));
    a.set("modify.params.init.phy_port_num", 1).set("modify.params.init.access_control", 0x11);
    ASSERT_EQ(kQOk, modify(rc, a));
    EXPECT_EQ(0u, count_with(log(), "remote_atomic_flags = "));
    EXPECT_EQ(0u, device_attr(rc).remote_atomic_flags);
}

TEST_F(QpModify, RcConnectsThroughRtrAndRts) {
    void *a = qp("rc");
    void *b = qp("rc");
    to_init_rc(a);
    to_init_rc(b);
    set_debug_level(5);
    k::log_clear();
    const uint64_t mask = at("OX_QP_AT_DEST_QP") | at("OX_QP_AT_R_PSN") | at("OX_QP_AT_ADD_VEC") |
                          at("OX_QP_AT_L_ACK_T") | at("OX_QP_AT_RETRY_NUM") | at("OX_QP_AT_RNR_NUM") |
                          at("OX_QP_AT_RESP_RDMA_ATOM_OUT_NUM");
    QpAttr r = request("rtr", mask);
    const std::string av = "modify.params.rtr.remote_add_vec.";
    r.set("modify.params.rtr.destanation_qp", static_cast<uint64_t>(qp_record(b)["qp_num"]))
        .set("modify.params.rtr.receive_psn", 0x100)
        .set("modify.params.rtr.responder_rdma_r_atom_num", 4)
        .set((av + "phy_port_num").c_str(), 2)
        .set((av + "service_level").c_str(), 3)
        .set((av + "grh_flag").c_str(), 1)
        .set((av + "dlid").c_str(), lid_)
        .set((av + "pmtu").c_str(), 3)
        .set((av + "max_static_rate").c_str(), 2)
        .set((av + "l_ack_timeout").c_str(), 14)
        .set((av + "retry_count").c_str(), 6)
        .set((av + "rnr_retry_count").c_str(), 5)
        .set((av + "source_path_bit").c_str(), 0)
        .set((av + "global_dest.flow_lable").c_str(), 0x12345)
        .set((av + "global_dest.hope_limit").c_str(), 9)
        .set((av + "global_dest.traffic_class").c_str(), 7)
        .set((av + "global_dest.s_gid_index").c_str(), 0);
    uint8_t *gid = r.bytes((av + "global_dest.d_gid").c_str());
    for (int i = 0; i < 16; i++) gid[i] = static_cast<uint8_t>(i);
    ASSERT_EQ(kQOk, modify(a, r));
    const int vmask = QP_ATTR_QP_STATE | QP_ATTR_DEST_QP_NUM | QP_ATTR_RQ_PSN | QP_ATTR_AV |
                      QP_ATTR_PATH_MTU | QP_ATTR_TIMEOUT | QP_ATTR_RETRY_COUNT | QP_ATTR_RNR_RETRY |
                      QP_ATTR_QP_OUS_RD_ATOM;
    const std::string dq = std::to_string(qp_record(b)["qp_num"]);
    std::vector<std::string> expected = {
        ad_debug(kF, "change QP state into RTR"),
        ad_debug(kF, "bitmask: OX_QP_AT_DEST_QP"),
        ad_func(kF, "bitmask: 16(67108864), value: " + dq + "(" + dq + ")"),
        ad_debug(kF, "bitmask: OX_QP_AT_R_PSN"),
        ad_func(kF, "bitmask: 10(4096), value: 256(256)"),
        ad_debug(kF, "bitmask: OX_QP_AT_ADD_VEC"),
        ad_debug(kF, "qp_attr_mlx.av.dlid: " + std::to_string(lid_)),
        ad_debug(kF, "qp_attr_mlx.av.static_rate: 2"),
        ad_debug(kF, "qp_attr_mlx.av.sl: 3"),
        ad_debug(kF, "qp_attr_mlx.av.src_path_bits: 0"),
        ad_debug(kF, "qp_attr_mlx.av.port: 1"),
        ad_debug(kF, "qp_attr_mlx.path_mtu: 3 (ox: 3)"),
        ad_func(kF, "bitmask: 20(384)"),
        ad_debug(kF, "bitmask: OX_QP_AT_L_ACK_T"),
        ad_func(kF, "bitmask: 24(512), value: 14(14)"),
        ad_debug(kF, "bitmask: OX_QP_AT_RETRY_NUM"),
        ad_func(kF, "bitmask: 25(1024), value: 6(6)"),
        ad_debug(kF, "bitmask: OX_QP_AT_RNR_NUM"),
        ad_func(kF, "bitmask: 26(2048), value: 5(5)"),
        ad_debug(kF, "bitmask: OX_QP_AT_RESP_RDMA_ATOM_OUT_NUM"),
        ad_func(kF, "bitmask: 18(8192), value: 4(4)"),
        mlx_line(2, vmask),
    };
    auto lines = log();
    auto first = std::find(lines.begin(), lines.end(), expected.front());
    ASSERT_NE(lines.end(), first);
    EXPECT_EQ(expected, std::vector<std::string>(first, first + static_cast<long>(expected.size())));

    auto attr = device_attr(a);
    EXPECT_EQ(VAPI_RTR, attr.qp_state);
    EXPECT_EQ(1, attr.av.port);  // whatever the request said
    for (int i = 0; i < 16; i++) EXPECT_EQ(15 - i, attr.av.dgid[i]) << i;
    EXPECT_EQ(lid_, attr.av.dlid);
    EXPECT_EQ(3, attr.av.sl);
    EXPECT_EQ(1, attr.av.grh_flag);
    EXPECT_EQ(0x12345u, attr.av.flow_label);
    EXPECT_EQ(9, attr.av.hop_limit);
    EXPECT_EQ(7, attr.av.traffic_class);
    EXPECT_EQ(3, attr.path_mtu);
    EXPECT_EQ(0x100u, attr.rq_psn);
    EXPECT_EQ(static_cast<uint32_t>(qp_record(b)["qp_num"]), attr.dest_qp_num);
    EXPECT_EQ(4, attr.qp_ous_rd_atom);

    k::log_clear();
    const uint64_t rts_mask = at("OX_QP_AT_L_ACK_T") | at("OX_QP_AT_DEST_RDMA_ATOM_OUT_NUM") |
                              at("OX_QP_AT_RETRY_NUM") | at("OX_QP_AT_RNR_NUM") | at("OX_QP_AT_S_PSN");
    QpAttr s = request("rts", rts_mask);
    s.set("modify.params.rts.local_ack_timeout", 18)
        .set("modify.params.rts.dest_out_rdma_r_atom_num", 2)
        .set("modify.params.rts.retry_num", 7)
        .set("modify.params.rts.rnr_num", 3)
        .set("modify.params.rts.send_psn", 0x200);
    ASSERT_EQ(kQOk, modify(a, s));
    const int rts_vmask = QP_ATTR_QP_STATE | QP_ATTR_TIMEOUT | QP_ATTR_OUS_DST_RD_ATOM | QP_ATTR_RETRY_COUNT |
                          QP_ATTR_RNR_RETRY | QP_ATTR_SQ_PSN;
    lines = log();
    EXPECT_TRUE(contains(lines, ad_debug(kF, "change QP state into RTS")));
    EXPECT_TRUE(contains(lines, ad_func(kF, "bitmask: 24(512), value: 18(18)")));
    EXPECT_TRUE(contains(lines, ad_func(kF, "bitmask: 17(8388608), value: 2(2)")));
    EXPECT_TRUE(contains(lines, ad_func(kF, "bitmask: 9(4194304), value: 512(512)")));
    EXPECT_TRUE(contains(
        lines, ad_debug(kF, "qp_state: 3, qp_attr_mask: " + std::to_string(rts_vmask) + ", sq_psn: 512")));
    EXPECT_TRUE(contains(lines, mlx_line(3, rts_vmask)));
    attr = device_attr(a);
    EXPECT_EQ(VAPI_RTS, attr.qp_state);
    EXPECT_EQ(18, attr.timeout);
    EXPECT_EQ(7, attr.retry_count);
    EXPECT_EQ(3, attr.rnr_retry);
    EXPECT_EQ(0x200u, attr.sq_psn);
    EXPECT_EQ(2, attr.ous_dst_rd_atom);
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0, 0, 0}), error_counters());
}

TEST_F(QpModify, RequesterTimersTravelOnlyWithTheAddressVector) {
    void *q = qp("ud");
    to_init_ud(q);
    set_debug_level(4);
    k::log_clear();
    QpAttr r = request("rtr", at("OX_QP_AT_L_ACK_T") | at("OX_QP_AT_RETRY_NUM") | at("OX_QP_AT_RNR_NUM"));
    r.set("modify.params.rtr.remote_add_vec.l_ack_timeout", 14);
    ASSERT_EQ(kQOk, modify(q, r));
    auto lines = log();
    EXPECT_EQ(0u, count_with(lines, "bitmask: OX_QP_AT_L_ACK_T"));
    EXPECT_EQ(0u, count_with(lines, "bitmask: OX_QP_AT_RETRY_NUM"));
    EXPECT_TRUE(contains(lines, mlx_line(2, QP_ATTR_QP_STATE)));
    EXPECT_EQ(VAPI_RTR, device_attr(q).qp_state);
}

TEST_F(QpModify, EmptyMaskStillChangesTheState) {
    void *q = qp("ud");
    to_init_ud(q);
    set_debug_level(4);
    k::log_clear();
    QpAttr r = request("rtr", 0);
    ASSERT_EQ(kQOk, modify(q, r));
    EXPECT_TRUE(contains(log(), mlx_line(2, QP_ATTR_QP_STATE)));
    EXPECT_EQ(VAPI_RTR, device_attr(q).qp_state);
    QpAttr s = request("rts", at("OX_QP_AT_S_PSN"));
    s.set("modify.params.rts.send_psn", 9);
    ASSERT_EQ(kQOk, modify(q, s));
    k::log_clear();
    QpAttr again = request("rts", 0);
    ASSERT_EQ(kQOk, modify(q, again));
    EXPECT_TRUE(contains(log(), mlx_line(3, QP_ATTR_QP_STATE)));
    EXPECT_EQ(VAPI_RTS, device_attr(q).qp_state);
    EXPECT_EQ(9u, device_attr(q).sq_psn);
}

TEST_F(QpModify, OptionalAttributesNeedTheirGate) {
    // Bit 22 without bit 28 adds nothing.
    void *q = qp("ud");
    to_init_ud(q);
    set_debug_level(4);
    k::log_clear();
    QpAttr r = request("rtr", at("OX_QP_AT_ALT_PATH") | at("OX_QP_AT_Q_KEY") | at("OX_QP_AT_MIN_RNR_NAK_T"));
    ASSERT_EQ(kQOk, modify(q, r));
    auto lines = log();
    EXPECT_EQ(0u, count_with(lines, "need to fill some opt attributes"));
    EXPECT_EQ(0u, count_with(lines, "bitmask: OX_QP_AT_ALT_PATH"));
    EXPECT_TRUE(contains(lines, mlx_line(2, QP_ATTR_QP_STATE)));

    // Bit 28 alone adds nothing either.
    void *p = qp("ud");
    to_init_ud(p);
    k::log_clear();
    QpAttr g = request("rtr", at("OX_QP_AT_OPTIONAL"));
    ASSERT_EQ(kQOk, modify(p, g));
    lines = log();
    EXPECT_TRUE(contains(lines, ad_debug(kF, "need to fill some opt attributes")));
    EXPECT_TRUE(contains(lines, mlx_line(2, QP_ATTR_QP_STATE)));

    // With the gate, the UD queue key goes as an optional attribute.
    void *u = qp("ud");
    to_init_ud(u);
    k::log_clear();
    QpAttr qk = request("rtr", at("OX_QP_AT_OPTIONAL") | at("OX_QP_AT_Q_KEY"));
    qk.set("modify.params.rtr.opt_q_key", 0x4321);
    ASSERT_EQ(kQOk, modify(u, qk));
    EXPECT_TRUE(contains(log(), ad_debug(kF, "bitmask: OX_QP_AT_Q_KEY")));
    EXPECT_TRUE(contains(log(), mlx_line(2, QP_ATTR_QP_STATE | QP_ATTR_QKEY)));
    EXPECT_EQ(0x4321u, device_attr(u).qkey);
}

TEST_F(QpModify, RtrOptionalGroupWithAlternatePathOnPortOne) {
    void *a = qp("rc");
    to_init_rc(a);
    set_debug_level(5);
    k::log_clear();
    const uint64_t mask = at("OX_QP_AT_DEST_QP") | at("OX_QP_AT_R_PSN") | at("OX_QP_AT_ADD_VEC") |
                          at("OX_QP_AT_RESP_RDMA_ATOM_OUT_NUM") | at("OX_QP_AT_OPTIONAL") |
                          at("OX_QP_AT_ALT_PATH") | at("OX_QP_AT_MIN_RNR_NAK_T") | at("OX_QP_AT_P_KEY_IX") |
                          at("OX_QP_AT_R_MAX_OUT_WR") | at("OX_QP_AT_S_MAX_OUT_WR") |
                          at("OX_QP_AT_ACCESS_CON_F");
    QpAttr r = request("rtr", mask);
    const std::string alt = "modify.params.rtr.opt_alternate_path.";
    r.set("modify.params.rtr.destanation_qp", static_cast<uint64_t>(qp_record(a)["qp_num"]))
        .set("modify.params.rtr.remote_add_vec.dlid", lid_)
        .set("modify.params.rtr.remote_add_vec.pmtu", 2)
        .set((alt + "al_path_p_key_indx").c_str(), 0)
        .set((alt + "al_path_port_num").c_str(), 2)
        .set((alt + "al_path_add_vec.dlid").c_str(), lid_)
        .set((alt + "al_path_add_vec.l_ack_timeout").c_str(), 12)
        .set("modify.params.rtr.opt_min_rnr_nak_timer", 12)
        .set("modify.params.rtr.opt_receive_max_outstand_wr", 64)
        .set("modify.params.rtr.opt_send_max_outstand_wr", 32)
        .set("modify.params.rtr.opt_access_control", 0x02);
    uint8_t *gid = r.bytes((alt + "al_path_add_vec.global_dest.d_gid").c_str());
    for (int i = 0; i < 16; i++) gid[i] = static_cast<uint8_t>(0xf0 + i);
    QpAttr result;
    ASSERT_EQ(kQOk, modify(a, r, &result));
    const int vmask = QP_ATTR_QP_STATE | QP_ATTR_DEST_QP_NUM | QP_ATTR_RQ_PSN | QP_ATTR_AV |
                      QP_ATTR_PATH_MTU | QP_ATTR_QP_OUS_RD_ATOM | QP_ATTR_ALT_PATH | QP_ATTR_MIN_RNR_TIMER |
                      QP_ATTR_PKEY_IX | QP_ATTR_CAP | QP_ATTR_REMOTE_ATOMIC_FLAGS;
    std::vector<std::string> expected = {
        ad_debug(kF, "need to fill some opt attributes"),
        ad_debug(kF, "bitmask: OX_QP_AT_ALT_PATH"),
        ad_func(kF, "bitmask: 22(16384)"),
        ad_debug(kF, "bitmask: OX_QP_AT_MIN_RNR_NAK_T"),
        ad_func(kF, "bitmask: 19(2097152), value: 12(12)"),
        ad_debug(kF, "bitmask: OX_QP_AT_P_KEY_IX"),
        ad_func(kF, "bitmask: 13(16), value: 0(0)"),
        ad_debug(kF, "bitmask: OX_QP_AT_R_MAX_OUT_WR"),
        ad_func(kF, "bitmask: 6(33554432), value: 64(64)"),
        ad_debug(kF, "bitmask: OX_QP_AT_S_MAX_OUT_WR"),
        ad_func(kF, "bitmask: 5(33554432), value: 32(32)"),
        ad_debug(kF, "bitmask: OX_QP_AT_ACCESS_CON_F"),
        ad_debug(kF, "remote_atomic_flags = VAPI_EN_REM_WRITE"),
        ad_func(kF, "bitmask: 11(8), value: 1(2)"),
        mlx_line(2, vmask),
        ad_debug(kF, "OK - VAPI_modify_qp()"),
        ad_debug(kF, "OK - VAPI_modify_qp(), max_oust_wr_rq: 64, max_oust_wr_sq: 32"),
    };
    auto lines = log();
    auto first = std::find(lines.begin(), lines.end(), expected.front());
    ASSERT_NE(lines.end(), first);
    EXPECT_EQ(expected, std::vector<std::string>(first, lines.end()));
    EXPECT_EQ(32u, result.get("modify_return.send_max_outstand_wr"));
    EXPECT_EQ(64u, result.get("modify_return.receive_max_outstand_wr"));
    auto attr = device_attr(a);
    EXPECT_EQ(1, attr.alt_av.port);
    EXPECT_EQ(lid_, attr.alt_av.dlid);
    EXPECT_EQ(12, attr.alt_timeout);
    for (int i = 0; i < 16; i++) EXPECT_EQ(0xff - i, attr.alt_av.dgid[i]) << i;
    EXPECT_EQ(0, attr.alt_port);
    EXPECT_EQ(12, attr.min_rnr_timer);
    EXPECT_EQ(1u, attr.remote_atomic_flags);
}

TEST_F(QpModify, RtsOptionalGroupLeavesTheAlternatePortZero) {
    void *a = qp("uc");
    QpAttr i =
        request("init", at("OX_QP_AT_P_KEY_IX") | at("OX_QP_AT_PHY_PORT_NUM") | at("OX_QP_AT_ACCESS_CON_F"));
    i.set("modify.params.init.phy_port_num", 1);
    ASSERT_EQ(kQOk, modify(a, i));
    QpAttr r = request("rtr", at("OX_QP_AT_DEST_QP") | at("OX_QP_AT_R_PSN") | at("OX_QP_AT_ADD_VEC"));
    r.set("modify.params.rtr.destanation_qp", static_cast<uint64_t>(qp_record(a)["qp_num"]))
        .set("modify.params.rtr.remote_add_vec.dlid", lid_)
        .set("modify.params.rtr.remote_add_vec.pmtu", 2);
    ASSERT_EQ(kQOk, modify(a, r));
    set_debug_level(5);

    // The send-queue-drained notification goes with bit 27; the device takes it only on the way
    // to SQD, so it refuses this transition.
    k::log_clear();
    QpAttr n = request("rts", at("OX_QP_AT_S_PSN") | at("OX_QP_AT_SQD_NOTIFY"));
    n.set("modify.params.rts.send_psn", 5).set("modify.params.rts.sqd_state", 1);
    EXPECT_EQ(kQErr, modify(a, n));
    EXPECT_TRUE(contains(log(), ad_func(kF, "bitmask: 27(2), value: 1(1)")));
    EXPECT_TRUE(contains(log(), mlx_line(3, QP_ATTR_QP_STATE | QP_ATTR_SQ_PSN | QP_ATTR_EN_SQD_ASYN_NOTIF)));
    expect_ring(0, "qp_modify_indx", VAPI_EINVAL_ATTR);

    k::log_clear();
    QpAttr s = request("rts", at("OX_QP_AT_S_PSN") | at("OX_QP_AT_OPTIONAL") | at("OX_QP_AT_ALT_PATH") |
                                  at("OX_QP_AT_PATH_MIG_STATE"));
    s.set("modify.params.rts.send_psn", 5)
        .set("modify.params.rts.opt_path_migrate_state", 1)
        .set("modify.params.rts.opt_alternate_path.al_path_port_num", 2)
        .set("modify.params.rts.opt_alternate_path.al_path_add_vec.dlid", lid_)
        .set("modify.params.rts.opt_alternate_path.al_path_add_vec.l_ack_timeout", 9);
    ASSERT_EQ(kQOk, modify(a, s));
    auto lines = log();
    EXPECT_TRUE(contains(lines, ad_debug(kF, "need to fill some opt attributes")));
    EXPECT_TRUE(contains(lines, ad_func(kF, "bitmask: 22(16384)")));
    EXPECT_TRUE(contains(lines, ad_func(kF, "bitmask: 21(16777216), value: 1(1)")));
    EXPECT_TRUE(contains(
        lines, mlx_line(3, QP_ATTR_QP_STATE | QP_ATTR_SQ_PSN | QP_ATTR_ALT_PATH | QP_ATTR_PATH_MIG_STATE)));
    auto attr = device_attr(a);
    EXPECT_EQ(VAPI_RTS, attr.qp_state);
    EXPECT_EQ(0, attr.alt_av.port);
    EXPECT_EQ(lid_, attr.alt_av.dlid);
    EXPECT_EQ(9, attr.alt_timeout);
    EXPECT_EQ(VAPI_REARM, attr.path_mig_state);
}

TEST_F(QpModify, DrainAndErrorStatesAreRefused) {
    void *q = qp("rc");
    const unsigned long calls = hca::call_count("VAPI_modify_qp");
    long long errors = 0;
    for (int state : {6, 7, 8, 9, 11}) {
        k::log_clear();
        QpAttr r;
        r.set("modify.qp_modify_into_state", static_cast<uint64_t>(state))
            .set("modify.ox_qp_attr_mask", ~0ull);
        EXPECT_EQ(kQErrInvalidState, modify(q, r)) << state;
        EXPECT_EQ((std::vector<std::string>{ad_error(kF, "ERROR not valid state: " + std::to_string(state))}),
                  log());
        errors++;
        EXPECT_EQ((std::vector<long long>{errors, errors, 0, 0, 0, 0}), error_counters());
    }
    // The recoveries to RTS are not implemented: nothing is counted.
    set_debug_level(4);
    struct Case {
        const char *state;
        const char *line;
    } cases[] = {{"sqd_to_rts", "change QP state into SQD_RTS"},
                 {"sqe_to_rts", "change QP state into SQE_RTS"}};
    for (const auto &c : cases) {
        k::log_clear();
        QpAttr r = request(c.state, ~0ull);
        EXPECT_EQ(kQErrNotImplemented, modify(q, r)) << c.state;
        auto lines = log();
        EXPECT_EQ(ad_debug(kF, c.line), lines.back());
        EXPECT_TRUE(contains(
            lines, ad_debug(kF, "change to qp_state: 3(" + std::to_string(qp_state(c.state)) + ")")));
    }
    EXPECT_EQ((std::vector<long long>{errors, errors, 0, 0, 0, 0}), error_counters());
    EXPECT_EQ(calls, hca::call_count("VAPI_modify_qp"));
    EXPECT_EQ(VAPI_RESET, device_attr(q).qp_state);
}

TEST_F(QpModify, VapiFailureIsCountedAndRecorded) {
    void *q = qp("rc");
    hca::inject_fault("VAPI_modify_qp", "InfiniHost0", VAPI_EINVAL_QP_STATE);
    k::log_clear();
    QpAttr r = request("init", at("OX_QP_AT_P_KEY_IX"));
    EXPECT_EQ(kQErr, modify(q, r));
    EXPECT_EQ(
        (std::vector<std::string>{ad_error(
            kF, "MLX AD_ERR: Fail to modify QP, hca_h: 0, qp_h: " + hex(vapi_qp(q)) + ", user qp h: " +
                    kptr(q) + ", into state: 1  (mlx:" + std::to_string(VAPI_EINVAL_QP_STATE) + ", MLX)")}),
        log());
    EXPECT_EQ((std::vector<long long>{1, 1, 1, 1, 0, 0}), error_counters());
    expect_ring(0, "qp_modify_indx", VAPI_EINVAL_QP_STATE);
    EXPECT_EQ(VAPI_RESET, device_attr(q).qp_state);

    // The device's own refusal of a transition takes the same path.
    QpAttr rts = request("rts", 0);
    EXPECT_EQ(kQErr, modify(q, rts));
    expect_ring(1, "qp_modify_indx", static_cast<int>(ring_entry(1)["stat_st"]));
    EXPECT_NE(0, ring_entry(1)["stat_st"]);
}

TEST_F(QpModify, WithoutAResultRecordAndThroughTheExportedSymbols) {
    void *q = qp("ud");
    set_debug_level(4);
    k::log_clear();
    QpAttr r = request("init", at("OX_QP_AT_P_KEY_IX") | at("OX_QP_AT_PHY_PORT_NUM") | at("OX_QP_AT_Q_KEY"));
    r.set("modify.params.init.phy_port_num", 1);
    ASSERT_EQ(kQOk, ulp_qp_modify(exported_table(), hca_, q, r.data(), nullptr));
    EXPECT_EQ(ad_debug(kF, "No return parameters"), log().back());
    // Reset and error take the state alone.
    k::log_clear();
    QpAttr e = request("err", ~0ull);
    ASSERT_EQ(kQOk, modify(q, e));
    auto lines = log();
    EXPECT_TRUE(contains(lines, ad_debug(kF, "change QP state into ERROR")));
    EXPECT_TRUE(contains(lines, mlx_line(6, QP_ATTR_QP_STATE)));
    EXPECT_EQ(VAPI_ERR, device_attr(q).qp_state);
    k::log_clear();
    QpAttr z = request("reset", ~0ull);
    ASSERT_EQ(kQOk, modify(q, z));
    EXPECT_TRUE(contains(log(), ad_debug(kF, "change QP state into RESET")));
    EXPECT_TRUE(contains(log(), mlx_line(0, QP_ATTR_QP_STATE)));
    EXPECT_EQ(VAPI_RESET, device_attr(q).qp_state);
}

}  // namespace
}  // namespace adaptor_test
