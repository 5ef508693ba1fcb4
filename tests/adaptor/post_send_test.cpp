// Post send: the translation of every field of a generic request into the QP record's VAPI
// descriptor, the gather-address rule, the per-transport fields, the counters, the lock rule
// (non-RC QPs only), the refusals and the VAPI failure; and the VAPI-form post and the two stubs.
#include <cstdio>

#include "datapath_fixture.hpp"

namespace adaptor_test {
namespace {


std::string hex(unsigned long long v) {
    char buf[32];
    std::snprintf(buf, sizeof(buf), "%llx", v);
    return buf;
}

class PostSend : public DataPathFixture {
  protected:
    void SetUp() override {
        DataPathFixture::SetUp();
        c0 = cq(0);
        rc = qp(0, VAPI_TS_RC, c0, (int)dp_const("ox_qp_type_r_conn"));
        to_error(rc);  // takes every send and flushes it: nothing leaves the device
        ud_qp = ud(0, c0);
        ah = vapi_ah(0, lid[1]);
        k::log_clear();
    }

    // A request whose every field holds a value of its own, so that a test sees which ones reach
    // VAPI. Two gather entries into `buf`.
    void fill_everything(DpView wr, DpRecords &sg, DpBuffer &buf) {
        wr.set("wr_id", 0x1122334455667788LL)
            .set("completion_notification", 1)
            .set("num_of_data_segments", 2)
            .set("user_define_p", 0x7777)
            .set("wr_type", dp_const("ox_wr_send_immed"))
            .set("type.send.immidiate_data_indicator", 1)
            .set("type.send.immidiate_data", 0xabcdef01)
            .set("type.send.solicited_event", 1);
        // The union's members overlap: the RC view's fields are set last so they hold.
        wr.set("type.send.send_qp_type.rc_type.fance_indicator", 1)
            .set("type.send.send_qp_type.rc_type.r_addr", 0x123456789aLL)
            .set("type.send.send_qp_type.rc_type.r_r_key", 0x4242)
            .set("type.send.send_qp_type.rc_type.atomic", 1)
            .set("type.send.send_qp_type.rc_type.atomic_operands.atom_first_operand", 0x1111)
            .set("type.send.send_qp_type.rc_type.atomic_operands.atom_second_operand", 0x2222)
            .set("type.send.send_qp_type.rc_type.atomic_operands.atom_return_operand", 0x3333);
        entry(sg, 0, buf.data(), 100, gen_lkey[0]);
        entry(sg, 1, buf.data() + 200, 28, gen_lkey[0]);
        set_sg(wr, sg);
    }

    DpCq c0;
    DpQp rc, ud_qp;
    VAPI_ud_av_hndl_t ah = 0;
};

TEST_F(PostSend, RcTranslationCopiesExactlyTheFieldsItShould) {
    DpRecords wr("ox_wr_t");
    DpRecords sg("ox_scatgat_t", 2);
    DpBuffer &buf = buffer(256);
    fill_everything(wr[0], sg, buf);
    const long long takes = send_lock_takes(rc);

    ASSERT_EQ(
        kOk, ulp_post_send(provider(), hcas[0], rc.record, wr.data(), dp_const("ox_operation_type_send_rc")));

    const VAPI_sr_desc_t &d = sr_desc(rc);
    EXPECT_EQ(0x1122334455667788ull, d.id);
    EXPECT_EQ(VAPI_SEND_WITH_IMM, d.opcode);
    EXPECT_EQ(VAPI_SIGNALED, d.comp_type);
    EXPECT_EQ(sg_s(rc), d.sg_lst_p);
    EXPECT_EQ(2u, d.sg_lst_len);
    EXPECT_EQ(0u, d.imm_data);  // never copied
    EXPECT_EQ(1, d.fence);
    EXPECT_EQ(0u, d.remote_ah);
    EXPECT_EQ(0u, d.remote_qp);
    EXPECT_EQ(0u, d.remote_qkey);
    EXPECT_EQ(0u, d.ethertype);
    EXPECT_EQ(0u, d.eecn);
    EXPECT_EQ(FALSE, d.set_se);  // the solicited flag is never set
    EXPECT_EQ(0x123456789aull, d.remote_addr);
    EXPECT_EQ(0x4242u, d.r_key);
    EXPECT_EQ(0u, d.compare_add);  // atomic operands are never copied
    EXPECT_EQ(0u, d.swap);
    EXPECT_EQ(gen_addr(0, buf.data()), sg_s(rc)[0].addr);
    EXPECT_EQ(100u, sg_s(rc)[0].len);
    EXPECT_EQ(gen_lkey[0], sg_s(rc)[0].lkey);
    EXPECT_EQ(gen_addr(0, buf.data() + 200), sg_s(rc)[1].addr);
    EXPECT_EQ(28u, sg_s(rc)[1].len);
    EXPECT_EQ(gen_lkey[0], sg_s(rc)[1].lkey);

    // Counters: one post, 128 bytes out, two gather entries; no lock on an RC QP.
    EXPECT_EQ(1, stats()["post_s_num"]);
    EXPECT_EQ(1, stats()["last_post_s_num"]);
    EXPECT_EQ(128, stats()["tx_byte"]);
    EXPECT_EQ(128, stats()["last_tx_byte"]);
    EXPECT_EQ(2, stats()["acc_sg"]);
    EXPECT_EQ(0, stats()["error_num"]);
    EXPECT_EQ(takes, send_lock_takes(rc));
    EXPECT_EQ(1ul, hca::call_count("VAPI_post_sr"));

    const std::string f = "ox_mlx_common_post_send_prep";
    const std::string src0 = hex(buf.addr()), src1 = hex(buf.addr() + 200);
    EXPECT_EQ((std::vector<std::string>{
                  ad_debug(f, "user qp_h " + kptr(rc.record) + ", mlx qp_h: " + std::to_string(rc.vapi) +
                                  ", qp num: " + std::to_string(rc.num)),
                  ad_debug(f, "ox completion_notification: 1, mlx comp_type: 0"),
                  ad_debug(f, "post sr parameters: sg_lst_p: " + kptr(nullptr) + "(" + kptr(sg.data()) +
                                  "), wr_id: 1122334455667788(1122334455667788)"),
                  ad_debug(f, "0) send sg, addr: " + hex(gen_addr(0, buf.data())) +
                                  ", length: 100, l_key: " + std::to_string(gen_lkey[0]) +
                                  "  src addr: " + src0 + " PAGE_OFFSET: 10000000000"),
                  ad_debug(f, "1) send sg, addr: " + hex(gen_addr(0, buf.data() + 200)) +
                                  ", length: 28, l_key: " + std::to_string(gen_lkey[0]) +
                                  "  src addr: " + src1 + " PAGE_OFFSET: 10000000000"),
              }),
              log());
}

TEST_F(PostSend, EveryOpcodeHasItsVapiOpcode) {
    const std::pair<const char *, VAPI_wr_opcode_t> table[] = {
        {"ox_wr_send", VAPI_SEND},
        {"ox_wr_send_immed", VAPI_SEND_WITH_IMM},
        {"ox_wr_rdma_read", VAPI_RDMA_READ},
        {"ox_wr_rdma_write", VAPI_RDMA_WRITE},
        {"ox_wr_rdma_write_immed", VAPI_RDMA_WRITE_WITH_IMM},
        {"ox_wr_compare_swap", VAPI_ATOMIC_CMP_AND_SWP},
        {"ox_wr_fetch_add", VAPI_ATOMIC_FETCH_AND_ADD},
    };
    for (const auto &[name, vapi] : table) {
        DpRecords wr("ox_wr_t");
        wr[0].set("wr_type", dp_const(name)).set("completion_notification", 1);
        ASSERT_EQ(kOk, ulp_post_send(provider(), hcas[0], rc.record, wr.data(),
                                     dp_const("ox_operation_type_send_rc")))
            << name;
        EXPECT_EQ(vapi, sr_desc(rc).opcode) << name;
    }
    // ox_wr_receive has a row too; VAPI refuses it on a send queue.
    DpRecords wr("ox_wr_t");
    wr[0].set("wr_type", dp_const("ox_wr_receive"));
    EXPECT_EQ(kErr, ulp_post_send(provider(), hcas[0], rc.record, wr.data(),
                                  dp_const("ox_operation_type_send_rc")));
    EXPECT_EQ(VAPI_RECEIVE, sr_desc(rc).opcode);
}

TEST_F(PostSend, CompletionNotificationZeroIsUnsignalledAnyOtherValueSignalled) {
    for (int value : {0, 1, 2, 7, 8, 255}) {
        DpRecords wr("ox_wr_t");
        wr[0].set("wr_type", dp_const("ox_wr_send")).set("completion_notification", value);
        ASSERT_EQ(kOk, ulp_post_send(provider(), hcas[0], rc.record, wr.data(),
                                     dp_const("ox_operation_type_send_rc")));
        EXPECT_EQ(value == 0 ? VAPI_UNSIGNALED : VAPI_SIGNALED, sr_desc(rc).comp_type) << value;
    }
}

TEST_F(PostSend, RdmaReadMovesNoBytesOutASendDoes) {
    DpBuffer &buf = buffer(4096);
    DpRecords sg("ox_scatgat_t");
    entry(sg, 0, buf.data(), 4096, gen_lkey[0]);
    DpRecords wr("ox_wr_t");
    wr[0].set("wr_type", dp_const("ox_wr_rdma_read")).set("num_of_data_segments", 1);
    set_sg(wr[0], sg);
    ASSERT_EQ(
        kOk, ulp_post_send(provider(), hcas[0], rc.record, wr.data(), dp_const("ox_operation_type_send_rc")));
    EXPECT_EQ(0, stats()["tx_byte"]);
    EXPECT_EQ(0, stats()["last_tx_byte"]);
    EXPECT_EQ(1, stats()["acc_sg"]);
    wr[0].set("wr_type", dp_const("ox_wr_send"));
    ASSERT_EQ(
        kOk, ulp_post_send(provider(), hcas[0], rc.record, wr.data(), dp_const("ox_operation_type_send_rc")));
    EXPECT_EQ(4096, stats()["tx_byte"]);
    EXPECT_EQ(4096, stats()["last_tx_byte"]);
    EXPECT_EQ(2, stats()["acc_sg"]);
    EXPECT_EQ(2, stats()["post_s_num"]);
}

TEST_F(PostSend, ZeroGatherEntriesPostAnEmptyListAndCountNoBytes) {
    DpRecords wr("ox_wr_t");
    wr[0].set("wr_type", dp_const("ox_wr_send")).set("completion_notification", 1);
    ASSERT_EQ(
        kOk, ulp_post_send(provider(), hcas[0], rc.record, wr.data(), dp_const("ox_operation_type_send_rc")));
    EXPECT_EQ(0u, sr_desc(rc).sg_lst_len);
    EXPECT_EQ(sg_s(rc), sr_desc(rc).sg_lst_p);
    EXPECT_EQ(0, stats()["tx_byte"]);
    EXPECT_EQ(0, stats()["acc_sg"]);
    EXPECT_EQ(1, stats()["post_s_num"]);
}

TEST_F(PostSend, UcTakesAddressAndKeyButNoFence) {
    set_debug_level(5);
    k::log_clear();
    DpRecords wr("ox_wr_t");
    wr[0].set("wr_type", dp_const("ox_wr_rdma_write")).set("completion_notification", 1);
    wr[0]
        .set("type.send.send_qp_type.uc_type.r_addr", 0xfeed0000)
        .set("type.send.send_qp_type.uc_type.r_r_key", 77);
    wr[0].set("type.send.send_qp_type.uc_type.atomic_operands.atom_first_operand", 5);
    ASSERT_EQ(
        kOk, ulp_post_send(provider(), hcas[0], rc.record, wr.data(), dp_const("ox_operation_type_send_uc")));
    const VAPI_sr_desc_t &d = sr_desc(rc);
    EXPECT_EQ(0xfeed0000ull, d.remote_addr);
    EXPECT_EQ(77u, d.r_key);
    EXPECT_EQ(0, d.fence);
    EXPECT_EQ(0u, d.compare_add);
    const std::string f = "ox_mlx_common_post_send_prep";
    const auto lines = log();
    EXPECT_TRUE(contains(lines, ad_func(f, "ox_operation_type_send_uc")));
    EXPECT_TRUE(contains(
        lines,
        ad_debug(f,
                 "need to fix: work_req->type.send.send_qp_type.uc_type.atomic_operands.atom_first_operan")));
    EXPECT_TRUE(contains(
        lines,
        ad_debug(
            f, "need to fix: work_req->type.send.send_qp_type.uc_type.atomic_operands.atom_second_operand")));
}

TEST_F(PostSend, RdTakesFenceAddressKeyQpAndQkeyButNotTheEec) {
    set_debug_level(5);
    k::log_clear();
    DpRecords wr("ox_wr_t");
    wr[0].set("wr_type", dp_const("ox_wr_send")).set("completion_notification", 1);
    wr[0]
        .set("type.send.send_qp_type.rd_type.fance_indicator", 1)
        .set("type.send.send_qp_type.rd_type.r_addr", 0xabc000)
        .set("type.send.send_qp_type.rd_type.r_r_key", 9)
        .set("type.send.send_qp_type.rd_type.r_qp_num", 0x33)
        .set("type.send.send_qp_type.rd_type.r_q_key", 0x44)
        .set("type.send.send_qp_type.rd_type.eec_number", 0x55);
    ASSERT_EQ(
        kOk, ulp_post_send(provider(), hcas[0], rc.record, wr.data(), dp_const("ox_operation_type_send_rd")));
    const VAPI_sr_desc_t &d = sr_desc(rc);
    EXPECT_EQ(1, d.fence);
    EXPECT_EQ(0xabc000ull, d.remote_addr);
    EXPECT_EQ(9u, d.r_key);
    EXPECT_EQ(0x33u, d.remote_qp);
    EXPECT_EQ(0x44u, d.remote_qkey);
    EXPECT_EQ(0u, d.eecn);
    EXPECT_TRUE(contains(log(), ad_func("ox_mlx_common_post_send_prep", "ox_operation_type_send_rd")));
}

TEST_F(PostSend, UdTakesTheAddressHandleAndLocksOncePerPost) {
    DpRecords wr("ox_wr_t");
    wr[0].set("wr_type", dp_const("ox_wr_send")).set("completion_notification", 1);
    wr[0]
        .set("type.send.send_qp_type.ud_type.r_add_h", (long long)ah)
        .set("type.send.send_qp_type.ud_type.r_q_key", 0x11110000)
        .set("type.send.send_qp_type.ud_type.r_qp_num", 0x99);
    const long long takes = send_lock_takes(ud_qp);
    ASSERT_EQ(kOk, ulp_post_send(provider(), hcas[0], ud_qp.record, wr.data(),
                                 dp_const("ox_operation_type_send_ud")));
    const VAPI_sr_desc_t &d = sr_desc(ud_qp);
    EXPECT_EQ(ah, d.remote_ah);
    EXPECT_EQ(0x11110000u, d.remote_qkey);
    EXPECT_EQ(0x99u, d.remote_qp);
    EXPECT_EQ(0ull, d.remote_addr);
    EXPECT_EQ(takes + 1, send_lock_takes(ud_qp));
    EXPECT_EQ(0, send_lock_held(ud_qp));

    const auto lines = log();
    const std::string e = "oxi_mlx_post_send";
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(0u, lines.front().find(ad_debug(e, "---->before OX_SPECIFIC_SL_LOCK cpu[")));
    EXPECT_EQ(ad_debug(e, "---->OX_SPECIFIC_SL_LOCK"), lines[1]);
    EXPECT_EQ(0u, lines.back().find(ad_debug(e, "---->OX_SPECIFIC_SL_UNLOCK cpu[")));
    EXPECT_NE(std::string::npos, lines.back().find("oxi_mlx_post_send())"));
    EXPECT_TRUE(contains(
        lines, ad_debug("ox_mlx_common_post_send_prep",
                        "post sr UD parameters: remote_ah: " + std::to_string(ah) + "(" + std::to_string(ah) +
                            "), remote_qkey: 286326784(286326784), "
                            "remote_qp: 153(153)")));
}

TEST_F(PostSend, RawOperationTypeIsRefusedCountedTwiceAndLeavesTheLockFree) {
    DpRecords wr("ox_wr_t");
    wr[0].set("wr_type", dp_const("ox_wr_send"));
    const long long takes = send_lock_takes(ud_qp);
    for (const char *type :
         {"ox_operation_type_send_raw", "ox_operation_type_receive", "ox_operation_type_bind"}) {
        k::log_clear();
        const long long errors = stats()["error_num"];
        EXPECT_EQ(kNotImplemented,
                  ulp_post_send(provider(), hcas[0], ud_qp.record, wr.data(), dp_const(type)));
        EXPECT_EQ(errors + 2, stats()["error_num"]) << type;
        EXPECT_TRUE(contains(
            log(), ad_error("oxi_mlx_post_send", "ERROR - ox_mlx_common_post_send_prep() returned error")));
        EXPECT_EQ(0, send_lock_held(ud_qp));
    }
    EXPECT_EQ(6, stats()["last_error_num"]);
    EXPECT_EQ(takes + 3, send_lock_takes(ud_qp));
    EXPECT_EQ(0ul, hca::call_count("VAPI_post_sr"));
    EXPECT_EQ(0, stats()["post_s_num"]);
    EXPECT_EQ(0, stats()["VAPI_error_num"]);
}

TEST_F(PostSend, VapiFailureIsReportedRecordedAndReleasesTheLock) {
    hca::inject_fault("VAPI_post_sr", kDev[0], VAPI_EAGAIN);
    DpRecords wr("ox_wr_t");
    wr[0].set("wr_type", dp_const("ox_wr_send")).set("type.send.send_qp_type.ud_type.r_add_h", (long long)ah);
    const long long takes = send_lock_takes(ud_qp);
    EXPECT_EQ(kErr, ulp_post_send(provider(), hcas[0], ud_qp.record, wr.data(),
                                  dp_const("ox_operation_type_send_ud")));
    EXPECT_EQ(takes + 1, send_lock_takes(ud_qp));
    EXPECT_EQ(0, send_lock_held(ud_qp));
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(1, stats()["last_error_num"]);
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
    EXPECT_EQ(1, stats()["last_VAPI_error_num"]);
    EXPECT_EQ(0, stats()["post_s_num"]);
    EXPECT_EQ(dp_const("post_send_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(VAPI_EAGAIN, ring_entry(0)["stat_st"]);
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_post_send",
                           "MLX AD_ERR: Fail to post send WR, hca_h: " + std::to_string(vapi_hca(0)) +
                               ", qp_h: " + kptr(reinterpret_cast<void *>(ud_qp.vapi)) + ", user qp h: " +
                               kptr(ud_qp.record) + " (mlx:" + std::to_string(VAPI_EAGAIN) + ", MLX)")}),
              at_level(log(), "ERROR  "));
}

TEST_F(PostSend, RequestsTheRecordCannotHoldAreRefused) {
    // Nine gather entries would write past the record's eight.
    DpRecords sg("ox_scatgat_t", 9);
    DpRecords wr("ox_wr_t");
    wr[0].set("wr_type", dp_const("ox_wr_send")).set("num_of_data_segments", 9);
    set_sg(wr[0], sg);
    EXPECT_EQ(kInvalidParameter, ulp_post_send(provider(), hcas[0], rc.record, wr.data(),
                                               dp_const("ox_operation_type_send_rc")));
    EXPECT_TRUE(
        contains(log(), ad_error("ox_mlx_common_post_send_prep", "ERROR - num_of_data_segments: 9 > 8")));
    // A bind request has no VAPI opcode.
    k::log_clear();
    wr[0].set("wr_type", dp_const("ox_wr_mem_win_bind")).set("num_of_data_segments", 0);
    EXPECT_EQ(kInvalidParameter, ulp_post_send(provider(), hcas[0], rc.record, wr.data(),
                                               dp_const("ox_operation_type_send_rc")));
    EXPECT_TRUE(
        contains(log(), ad_error("ox_mlx_common_post_send_prep", "ERROR - wr_type: 8 has no VAPI opcode")));
    EXPECT_EQ(2, stats()["error_num"]);
    EXPECT_EQ(0, stats()["acc_sg"]);
    EXPECT_EQ(0, stats()["tx_byte"]);
    EXPECT_EQ(0ul, hca::call_count("VAPI_post_sr"));
    // Eight are fine.
    wr[0].set("wr_type", dp_const("ox_wr_send")).set("num_of_data_segments", 8);
    EXPECT_EQ(
        kOk, ulp_post_send(provider(), hcas[0], rc.record, wr.data(), dp_const("ox_operation_type_send_rc")));
}

TEST_F(PostSend, VapiFormNeedsExactlyOneGatherEntryAndRewritesItInPlace) {
    DpBuffer &buf = buffer(64);
    VAPI_sg_lst_entry_t sg[2] = {{buf.addr(), 32, gen_lkey[0]}, {buf.addr() + 32, 32, gen_lkey[0]}};
    VAPI_sr_desc_t d{};
    d.opcode = VAPI_SEND;
    d.comp_type = VAPI_SIGNALED;
    d.sg_lst_p = sg;
    d.sg_lst_len = 2;
    EXPECT_EQ(kInvalidParameter, ulp_post_send_vapi(provider(), hcas[0], rc.record, &d));
    EXPECT_EQ((std::vector<std::string>{"ERROR - ((VAPI_sr_desc_t*)work_req)->sg_lst_len: 2 != 1"}), log());
    EXPECT_EQ(0ul, hca::call_count("VAPI_post_sr"));
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(1, stats()["post_vapi_s_num"]);
    EXPECT_EQ(2, stats()["acc_sg"]);
    EXPECT_EQ(buf.addr(), sg[0].addr);

    d.sg_lst_len = 1;
    EXPECT_EQ(kOk, ulp_post_send_vapi(provider(), hcas[0], rc.record, &d));
    EXPECT_EQ(gen_addr(0, buf.data()), sg[0].addr);
    EXPECT_EQ(2, stats()["post_vapi_s_num"]);
    EXPECT_EQ(1, stats()["post_s_num"]);
    EXPECT_EQ(1, stats()["last_post_s_num"]);
    EXPECT_EQ(3, stats()["acc_sg"]);
    EXPECT_EQ(0, stats()["tx_byte"]);
    EXPECT_EQ(1ul, hca::call_count("VAPI_post_sr"));

    // A failure is reported as a post send's, under its own name; no lock on any QP type.
    hca::inject_fault("VAPI_post_sr", kDev[0], VAPI_EINVAL_QP_HNDL);
    k::log_clear();
    sg[0].addr = buf.addr();
    const long long takes = send_lock_takes(ud_qp);
    EXPECT_EQ(kErr, ulp_post_send_vapi(provider(), hcas[0], ud_qp.record, &d));
    EXPECT_EQ(takes, send_lock_takes(ud_qp));
    EXPECT_EQ((std::vector<std::string>{ad_error(
                  "oxi_mlx_post_send_vapi",
                  "MLX AD_ERR: Fail to post send WR, hca_h: " + std::to_string(vapi_hca(0)) + ", qp_h: " +
                      kptr(reinterpret_cast<void *>(ud_qp.vapi)) + ", user qp h: " + kptr(ud_qp.record) +
                      " (mlx:" + std::to_string(VAPI_EINVAL_QP_HNDL) + ", MLX)")}),
              log());
    EXPECT_EQ(dp_const("post_send_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(VAPI_EINVAL_QP_HNDL, ring_entry(0)["stat_st"]);
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
}

TEST_F(PostSend, TheTwoStubsRefuseAndTouchNothing) {
    DpRecords wr("ox_wr_t");
    char packet[16] = {};
    for (const ulp_funcs_t *funcs : {provider(), exported_table()}) {
        if (funcs == exported_table()) {
            // oxi_mlx_post_send_nop is not exported; only the table reaches it.
            EXPECT_EQ(kNotImplemented, ulp_instant_send(funcs, hcas[0], rc.record, packet, sizeof(packet)));
            continue;
        }
        EXPECT_EQ(kNotImplemented, ulp_post_send_nop(funcs, hcas[0], rc.record, wr.data(), 0));
        EXPECT_EQ(kNotImplemented, ulp_instant_send(funcs, hcas[0], rc.record, packet, sizeof(packet)));
    }
    EXPECT_EQ(0, stats()["error_num"]);
    EXPECT_EQ(0, stats()["post_s_num"]);
    EXPECT_TRUE(log().empty());
}

TEST_F(PostSend, ExportedSymbolPostsLikeTheTable) {
    DpRecords wr("ox_wr_t");
    wr[0].set("wr_type", dp_const("ox_wr_send")).set("completion_notification", 0).set("wr_id", 5);
    ASSERT_EQ(kOk, ulp_post_send(exported_table(), hcas[0], rc.record, wr.data(),
                                 dp_const("ox_operation_type_send_rc")));
    EXPECT_EQ(5u, sr_desc(rc).id);
    EXPECT_EQ(VAPI_UNSIGNALED, sr_desc(rc).comp_type);
    EXPECT_EQ(1, stats()["post_s_num"]);
}

}  // namespace
}  // namespace adaptor_test
