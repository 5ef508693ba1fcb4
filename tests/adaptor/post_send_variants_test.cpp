// The send variants: GSI send on a chosen P_Key index, inline send (addresses unchanged) and the
// send list (one EVAPI call, one block, gather entries one slot apart).
#include "datapath_fixture.hpp"

namespace adaptor_test {
namespace {


class SendVariants : public DataPathFixture {
  protected:
    void SetUp() override {
        DataPathFixture::SetUp();
        c0 = cq(0);
        rc = qp(0, VAPI_TS_RC, c0, (int)dp_const("ox_qp_type_r_conn"));
        to_error(rc);
        ud_qp = ud(0, c0);
        ah = vapi_ah(0, lid[1]);
        k::log_clear();
    }
    DpCq c0;
    DpQp rc, ud_qp;
    VAPI_ud_av_hndl_t ah = 0;
};

// ---- GSI -----------------------------------------------------------------------------------------

class GsiSend : public SendVariants {
  protected:
    void SetUp() override {
        SendVariants::SetUp();
        VAPI_qp_init_attr_t a{};
        a.sq_cq_hndl = a.rq_cq_hndl = c0.vapi;
        a.cap.max_oust_wr_sq = a.cap.max_oust_wr_rq = 16;
        a.cap.max_sg_size_sq = a.cap.max_sg_size_rq = 4;
        a.sq_sig_type = VAPI_SIGNAL_ALL_WR;
        a.rq_sig_type = VAPI_SIGNAL_ALL_WR;
        a.pd_hndl = gen_pd(0);
        a.ts_type = VAPI_TS_UD;
        VAPI_qp_cap_t cap{};
        ASSERT_EQ(VAPI_OK, VAPI_get_special_qp(vapi_hca(0), 1, VAPI_GSI_QP, &a, &gsi.vapi, &cap));
        gsi.num = 1;
        gsi.record = dpl_make_qp_record(hcas[0], gsi.vapi, 2, (int)dp_const("ox_qp_type_special_gsi_1"));
        VAPI_qp_attr_t attr{};
        attr.qp_state = VAPI_ERR;
        VAPI_qp_attr_mask_t m = QP_ATTR_QP_STATE;
        ASSERT_EQ(VAPI_OK, VAPI_modify_qp(vapi_hca(0), gsi.vapi, &attr, &m, &cap));
        k::log_clear();
        hca::reset_call_counts();
    }
    DpQp gsi;
};

TEST_F(GsiSend, PostsThroughEvapiWithThePkeyIndexAndCountsAsAPostSend) {
    DpBuffer &buf = buffer(256);
    DpRecords sg("ox_scatgat_t");
    entry(sg, 0, buf.data(), 256, gen_lkey[0]);
    DpRecords wr("ox_wr_t");
    wr[0]
        .set("wr_type", dp_const("ox_wr_send"))
        .set("completion_notification", 1)
        .set("num_of_data_segments", 1);
    wr[0]
        .set("type.send.send_qp_type.ud_type.r_add_h", (long long)ah)
        .set("type.send.send_qp_type.ud_type.r_qp_num", 1);
    set_sg(wr[0], sg);
    const long long takes = send_lock_takes(gsi);
    ASSERT_EQ(kOk, ulp_post_gsi_send_on_pkey(provider(), hcas[0], gsi.record, wr.data(),
                                             dp_const("ox_operation_type_send_ud"), 3));
    EXPECT_EQ(1ul, hca::call_count("EVAPI_post_gsi_sr"));
    EXPECT_EQ(0ul, hca::call_count("VAPI_post_sr"));
    EXPECT_EQ(ah, sr_desc(gsi).remote_ah);
    EXPECT_EQ(gen_addr(0, buf.data()), sg_s(gsi)[0].addr);
    EXPECT_EQ(1, stats()["post_s_num"]);
    EXPECT_EQ(1, stats()["last_post_s_num"]);
    EXPECT_EQ(256, stats()["tx_byte"]);
    EXPECT_EQ(takes + 1, send_lock_takes(gsi));  // a special QP is not RC: it locks
    const auto lines = log();
    EXPECT_EQ(
        0u, lines.front().find(ad_debug("oxi_mlx_post_gsi_send_on_pkey", "---->before OX_SPECIFIC_SL_LOCK")));

    // The index reaches EVAPI unchanged: one past the table is refused by the device.
    const int past = 64;
    EXPECT_EQ(kErr, ulp_post_gsi_send_on_pkey(provider(), hcas[0], gsi.record, wr.data(),
                                              dp_const("ox_operation_type_send_ud"), past));
    EXPECT_EQ(dp_const("post_send_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(VAPI_EINVAL_PKEY_IX, ring_entry(0)["stat_st"]);
    EXPECT_TRUE(contains(
        log(), ad_error("oxi_mlx_post_gsi_send_on_pkey",
                        "MLX AD_ERR: Fail to post send WR, hca_h: " + std::to_string(vapi_hca(0)) +
                            ", qp_h: " + kptr(reinterpret_cast<void *>(gsi.vapi)) + ", user qp h: " +
                            kptr(gsi.record) + " (mlx:" + std::to_string(VAPI_EINVAL_PKEY_IX) + ", MLX)")));
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
    EXPECT_EQ(0, send_lock_held(gsi));
}

TEST_F(GsiSend, UnsupportedOperationTypeIsRefusedAsInPostSend) {
    DpRecords wr("ox_wr_t");
    EXPECT_EQ(kNotImplemented, ulp_post_gsi_send_on_pkey(provider(), hcas[0], gsi.record, wr.data(),
                                                         dp_const("ox_operation_type_send_raw"), 0));
    EXPECT_EQ(2, stats()["error_num"]);
    EXPECT_EQ(0ul, hca::call_count("EVAPI_post_gsi_sr"));
    EXPECT_EQ(0, send_lock_held(gsi));
}

// ---- Inline ---------------------------------------------------------------------------------------

TEST_F(SendVariants, InlinePassesAddressesUnchanged) {
    DpBuffer &buf = buffer(64, 0x33);
    DpRecords sg("ox_scatgat_t", 2);
    entry(sg, 0, buf.data(), 40, 5);
    entry(sg, 1, buf.data() + 40, 8, 6);
    DpRecords wr("ox_wr_t");
    wr[0]
        .set("wr_type", dp_const("ox_wr_send"))
        .set("completion_notification", 1)
        .set("num_of_data_segments", 2);
    set_sg(wr[0], sg);
    ASSERT_EQ(kOk, ulp_inline_post_send(provider(), hcas[0], rc.record, wr.data(),
                                        dp_const("ox_operation_type_send_rc")));
    EXPECT_EQ(buf.addr(), sg_s(rc)[0].addr);
    EXPECT_EQ(40u, sg_s(rc)[0].len);
    EXPECT_EQ(5u, sg_s(rc)[0].lkey);
    EXPECT_EQ(buf.addr() + 40, sg_s(rc)[1].addr);
    EXPECT_EQ(1ul, hca::call_count("EVAPI_post_inline_sr"));
    EXPECT_EQ(1, stats()["inline_send_num"]);
    EXPECT_EQ(1, stats()["inline_send_num_last"]);
    EXPECT_EQ(0, stats()["post_s_num"]);
    EXPECT_EQ(48, stats()["tx_byte"]);
    EXPECT_EQ(2, stats()["acc_sg"]);
    const auto lines = log();
    EXPECT_EQ(
        ad_debug("oxi_mlx_inline_post_send", "working with: OX_TAVOR_STACK_SAVE_FOR_POST_SEND_IN_OPENED_QP"),
        lines.front());
    EXPECT_TRUE(contains(lines, ad_debug("ox_mlx_common_post_send_prep",
                                         "0) v_address: " + kptr(buf.data()) + ", length: 40, l_key: 5")));
    EXPECT_TRUE(
        contains(lines, ad_debug("ox_mlx_common_post_send_prep",
                                 "1) v_address: " + kptr(buf.data() + 40) + ", length: 8, l_key: 6")));
}

TEST_F(SendVariants, InlineFailureUsesItsOwnRingIndex) {
    DpBuffer &buf = buffer(512);
    DpRecords sg("ox_scatgat_t");
    entry(sg, 0, buf.data(), 512, 0);  // more than the QP's inline room
    DpRecords wr("ox_wr_t");
    wr[0].set("wr_type", dp_const("ox_wr_send")).set("num_of_data_segments", 1);
    wr[0].set("type.send.send_qp_type.ud_type.r_add_h", (long long)ah);
    set_sg(wr[0], sg);
    EXPECT_EQ(kErr, ulp_inline_post_send(provider(), hcas[0], ud_qp.record, wr.data(),
                                         dp_const("ox_operation_type_send_ud")));
    EXPECT_EQ(dp_const("tavor_inline_post_send_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(VAPI_E2BIG_INLINE, ring_entry(0)["stat_st"]);
    EXPECT_EQ((std::vector<std::string>{ad_error(
                  "oxi_mlx_inline_post_send",
                  "MLXAD_ERR: VAPI Fail to EVAPI_post_inline_sr(), hca_h: " + std::to_string(vapi_hca(0)) +
                      ", (mlx:" + std::to_string(VAPI_E2BIG_INLINE) + ", MLX)")}),
              at_level(log(), "ERROR  "));
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
    EXPECT_EQ(0, stats()["inline_send_num"]);
    EXPECT_EQ(0, send_lock_held(ud_qp));
}

// ---- Lists ----------------------------------------------------------------------------------------

TEST_F(SendVariants, ListOfFourIsOneCallAndTakesNoLockOnRc) {
    DpBuffer &buf = buffer(64);
    DpRecords sg("ox_scatgat_t", 4);
    DpRecords wrs("ox_wr_t", 4);
    for (int i = 0; i < 4; ++i) {
        entry(sg, i, buf.data() + 16 * i, 16, gen_lkey[0]);
        wrs[i].set("wr_id", 100 + i).set("wr_type", dp_const("ox_wr_send")).set("completion_notification", 1);
        wrs[i].set("num_of_data_segments", 1).set("scatgat_list", reinterpret_cast<long long>(sg[i].base()));
    }
    const long long takes = send_lock_takes(rc);
    const size_t before = module_allocations();
    ASSERT_EQ(kOk, ulp_post_send_list(provider(), hcas[0], rc.record, 4, wrs.data(),
                                      dp_const("ox_operation_type_send_rc")));
    EXPECT_EQ(1ul, hca::call_count("EVAPI_post_sr_list"));
    EXPECT_EQ(4, stats()["post_s_list_num"]);
    EXPECT_EQ(4, stats()["last_post_s_list_num"]);
    EXPECT_EQ(64, stats()["tx_byte"]);
    EXPECT_EQ(4, stats()["acc_sg"]);
    EXPECT_EQ(takes, send_lock_takes(rc));
    EXPECT_TRUE(contains(log(), ad_debug("oxi_mlx_post_send_list", "send alloc_size: 928")));
    EXPECT_EQ(before, module_allocations());  // the block is freed
    // The QP was in error: each request completes flushed, in order.
    auto wcs = poll_all(c0);
    ASSERT_EQ(4u, wcs.size());
    for (int i = 0; i < 4; ++i) EXPECT_EQ(100 + i, wc_view(wcs[i])["wr_id"]);
}

TEST_F(SendVariants, ListOnUdLocksOnce) {
    DpRecords wrs("ox_wr_t", 2);
    for (int i = 0; i < 2; ++i)
        wrs[i]
            .set("wr_type", dp_const("ox_wr_send"))
            .set("type.send.send_qp_type.ud_type.r_add_h", (long long)ah);
    const long long takes = send_lock_takes(ud_qp);
    ASSERT_EQ(kOk, ulp_post_send_list(provider(), hcas[0], ud_qp.record, 2, wrs.data(),
                                      dp_const("ox_operation_type_send_ud")));
    EXPECT_EQ(takes + 1, send_lock_takes(ud_qp));
    EXPECT_EQ(0, send_lock_held(ud_qp));
    EXPECT_EQ(2, stats()["post_s_list_num"]);
}

TEST_F(SendVariants, ListAllocationFailureReleasesTheLock) {
    k::AllocFault fault;
    fault.site = "oxi_mlx_post_send_list";
    k::add_alloc_fault(fault);
    DpRecords wrs("ox_wr_t", 2);
    EXPECT_EQ(kAllocMem, ulp_post_send_list(provider(), hcas[0], ud_qp.record, 2, wrs.data(),
                                            dp_const("ox_operation_type_send_ud")));
    EXPECT_EQ(0, send_lock_held(ud_qp));
    EXPECT_TRUE(contains(log(), ad_error("oxi_mlx_post_send_list", "Fail to allocate memory: mlx_p")));
    EXPECT_EQ(1, stats()["mem_alloc_error_num"]);
    EXPECT_EQ(1, stats()["last_mem_alloc_error_num"]);
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(0ul, hca::call_count("EVAPI_post_sr_list"));
}

// A list whose block of descriptors would not fit a 32-bit size is refused before anything is
// allocated or read; the UD QP's lock is released again.
TEST_F(SendVariants, ListTooLargeForOneBlockIsRefused) {
    const size_t before = module_allocations();
    EXPECT_EQ(kInvalidParameter, ulp_post_send_list(provider(), hcas[0], ud_qp.record, 0xffffffffu, nullptr,
                                                    dp_const("ox_operation_type_send_ud")));
    EXPECT_TRUE(contains(
        log(), ad_error("oxi_mlx_post_send_list", "ERROR - num_of_requests: 4294967295 is too large")));
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(0, send_lock_held(ud_qp));
    EXPECT_EQ(before, module_allocations());
    EXPECT_EQ(0ul, hca::call_count("EVAPI_post_sr_list"));
}

TEST_F(SendVariants, ListWithAnUnsupportedTypePostsNothing) {
    DpRecords wrs("ox_wr_t", 3);
    const size_t before = module_allocations();
    EXPECT_EQ(kNotImplemented, ulp_post_send_list(provider(), hcas[0], ud_qp.record, 3, wrs.data(),
                                                  dp_const("ox_operation_type_send_raw")));
    EXPECT_EQ(2, stats()["error_num"]);
    EXPECT_EQ(0ul, hca::call_count("EVAPI_post_sr_list"));
    EXPECT_EQ(before, module_allocations());
    EXPECT_EQ(0, send_lock_held(ud_qp));
    const auto lines = log();
    EXPECT_TRUE(contains(
        lines, ad_error("oxi_mlx_post_send_list", "ERROR - ox_mlx_common_post_send_prep() returned error")));
    EXPECT_EQ(0u, lines.back().find(ad_debug("oxi_mlx_post_send_list", "---->OX_SPECIFIC_SL_UNLOCK cpu[")));
}

TEST_F(SendVariants, ListVapiFailureFreesTheBlockAndRecords) {
    hca::inject_fault("EVAPI_post_sr_list", kDev[0], VAPI_EAGAIN);
    DpRecords wrs("ox_wr_t", 2);
    const size_t before = module_allocations();
    EXPECT_EQ(kErr, ulp_post_send_list(provider(), hcas[0], rc.record, 2, wrs.data(),
                                       dp_const("ox_operation_type_send_rc")));
    EXPECT_EQ(before, module_allocations());
    EXPECT_EQ(dp_const("tavor_post_send_list_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(VAPI_EAGAIN, ring_entry(0)["stat_st"]);
    EXPECT_TRUE(contains(
        log(), ad_error("oxi_mlx_post_send_list", "MLXAD_ERR: VAPI Fail to EVAPI_post_sr_list(), hca_h: " +
                                                      std::to_string(vapi_hca(0)) +
                                                      ", (mlx:" + std::to_string(VAPI_EAGAIN) + ", MLX)")));
    EXPECT_EQ(0, stats()["post_s_list_num"]);
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
}

}  // namespace
}  // namespace adaptor_test
