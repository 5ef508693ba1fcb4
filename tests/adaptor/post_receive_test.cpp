// Receive posting: the translation into the QP record's receive descriptor under the adaptor
// lock, the list block with its scatter entries one slot apart (seen through the bytes that
// land), the VAPI forms that rewrite the caller's descriptors in place, and the failures.
#include "datapath_fixture.hpp"

namespace adaptor_test {
namespace {


class PostReceive : public DataPathFixture {
  protected:
    void SetUp() override {
        DataPathFixture::SetUp();
        c0 = cq(0);
        c1 = cq(1);
        std::tie(a, b) = connected(VAPI_TS_RC, c0, c1);
        k::log_clear();
        hca::reset_call_counts();
    }
    int adaptor_lock_held() { return *exported<int>("ox_mlx_sl"); }

    // Sends `len` bytes of `src` from a to b through the module.
    void send(DpBuffer &src, uint32_t len, uint64_t id) {
        ulp_send_target t{};
        ASSERT_EQ(kOk,
                  ulp_post_send_simple(provider(), hcas[0], a.record, dp_const("ox_operation_type_send_rc"),
                                       ulp_op_send, id, src.data(), len, gen_lkey[0], &t));
    }

    DpCq c0, c1;
    DpQp a, b;
};

TEST_F(PostReceive, SingleTranslatesUnderTheAdaptorLock) {
    DpBuffer &buf = buffer(300);
    DpRecords sg("ox_scatgat_t", 2);
    entry(sg, 0, buf.data(), 100, gen_lkey[1]);
    entry(sg, 1, buf.data() + 100, 200, gen_lkey[1]);
    DpRecords wr("ox_wr_t");
    wr[0].set("wr_id", 0xabcdef).set("completion_notification", 1).set("num_of_data_segments", 2);
    wr[0].set("wr_type", dp_const("ox_wr_send"));  // ignored: a receive is a receive
    wr[0].set("type.send.send_qp_type.rc_type.r_addr", 0x1234);
    set_sg(wr[0], sg);
    const long long send_takes = send_lock_takes(b);
    ASSERT_EQ(kOk, ulp_post_receive(provider(), hcas[1], b.record, wr.data()));

    const VAPI_rr_desc_t &d = rr_desc(b);
    EXPECT_EQ(0xabcdefull, d.id);
    EXPECT_EQ(VAPI_RECEIVE, d.opcode);
    EXPECT_EQ(VAPI_SIGNALED, d.comp_type);
    EXPECT_EQ(sg_r(b), d.sg_lst_p);
    EXPECT_EQ(2u, d.sg_lst_len);
    EXPECT_EQ(gen_addr(1, buf.data()), sg_r(b)[0].addr);
    EXPECT_EQ(100u, sg_r(b)[0].len);
    EXPECT_EQ(gen_lkey[1], sg_r(b)[0].lkey);
    EXPECT_EQ(gen_addr(1, buf.data() + 100), sg_r(b)[1].addr);
    EXPECT_EQ(200u, sg_r(b)[1].len);
    EXPECT_EQ(1, stats()["post_r_num"]);
    EXPECT_EQ(1, stats()["last_post_r_num"]);
    EXPECT_EQ(0, stats()["rx_byte"]);
    EXPECT_EQ(0, stats()["acc_sg"]);
    EXPECT_EQ(send_takes, send_lock_takes(b));  // not the QP's own lock
    EXPECT_EQ(0, adaptor_lock_held());

    const auto lines = log();
    const std::string e = "oxi_mlx_post_receive", f = "ox_mlx_common_post_receive_prep";
    ASSERT_EQ(6u, lines.size());
    EXPECT_EQ(0u, lines[0].find(ad_debug(e, "---->b ADAPTOR_LOCK cpu[")));
    EXPECT_EQ(0u, lines[1].find(ad_debug(e, "---->ADAPTOR_LOCK cpu[")));
    EXPECT_EQ(ad_debug(f, "user qp_h " + kptr(b.record) + ", mlx qp_h: " + std::to_string(b.vapi) +
                              ", qp num: " + std::to_string(b.num)),
              lines[2]);
    EXPECT_EQ(ad_debug(f, "0) v_address: " + std::to_string(buf.addr()) +
                              ", length: 100, l_key: " + std::to_string(gen_lkey[1])),
              lines[3]);
    EXPECT_EQ(ad_debug(f, "1) v_address: " + std::to_string(buf.addr() + 100) +
                              ", length: 200, l_key: " + std::to_string(gen_lkey[1])),
              lines[4]);
    EXPECT_EQ(0u, lines[5].find(ad_debug(e, "---->ADAPTOR_UNLOCK cpu[")));
}

TEST_F(PostReceive, UnsignalledAndFailure) {
    DpRecords wr("ox_wr_t");
    wr[0].set("completion_notification", 0);
    ASSERT_EQ(kOk, ulp_post_receive(provider(), hcas[1], b.record, wr.data()));
    EXPECT_EQ(VAPI_UNSIGNALED, rr_desc(b).comp_type);
    EXPECT_EQ(0u, rr_desc(b).sg_lst_len);

    hca::inject_fault("VAPI_post_rr", kDev[1], VAPI_E2BIG_WR_NUM);
    k::log_clear();
    EXPECT_EQ(kErr, ulp_post_receive(provider(), hcas[1], b.record, wr.data()));
    EXPECT_EQ(0, adaptor_lock_held());
    EXPECT_EQ((std::vector<std::string>{ad_error(
                  "oxi_mlx_post_receive",
                  "MLX AD_ERR: Fail to post recieve WR, hca_h: " + std::to_string(vapi_hca(1)) +
                      ", qp_h: " + kptr(reinterpret_cast<void *>(b.vapi)) + ", user qp h: " + kptr(b.record) +
                      " (mlx:" + std::to_string(VAPI_E2BIG_WR_NUM) + ", MLX)")}),
              at_level(log(), "ERROR  "));
    EXPECT_EQ(0u, log().back().find(ad_debug("oxi_mlx_post_receive", "---->ADAPTOR_UNLOCK cpu[")));
    EXPECT_EQ(dp_const("post_receive_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(VAPI_E2BIG_WR_NUM, ring_entry(0)["stat_st"]);
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
    EXPECT_EQ(1, stats()["post_r_num"]);
}

TEST_F(PostReceive, MoreThanEightScatterEntriesAreRefused) {
    DpRecords sg("ox_scatgat_t", 9);
    DpRecords wr("ox_wr_t");
    wr[0].set("num_of_data_segments", 9);
    set_sg(wr[0], sg);
    EXPECT_EQ(kInvalidParameter, ulp_post_receive(provider(), hcas[1], b.record, wr.data()));
    EXPECT_EQ(0ul, hca::call_count("VAPI_post_rr"));
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(0, adaptor_lock_held());
    EXPECT_TRUE(
        contains(log(), ad_error("ox_mlx_common_post_receive_prep", "ERROR - num_of_data_segments: 9 > 8")));
    EXPECT_EQ(kInvalidParameter, ulp_post_receive_list(provider(), hcas[1], b.record, 1, wr.data()));
    EXPECT_EQ(0ul, hca::call_count("EVAPI_post_rr_list"));
}

TEST_F(PostReceive, ListOfThreeSingleEntryRequestsLandsInThreeBuffers) {
    DpBuffer &r = buffer(3 * 64, 0);
    DpRecords sg("ox_scatgat_t", 3);
    DpRecords wrs("ox_wr_t", 3);
    for (int i = 0; i < 3; ++i) {
        entry(sg, i, r.data() + 64 * i, 64, gen_lkey[1]);
        wrs[i].set("wr_id", 10 + i).set("completion_notification", 1).set("num_of_data_segments", 1);
        wrs[i].set("scatgat_list", reinterpret_cast<long long>(sg[i].base()));
    }
    const size_t before = module_allocations();
    ASSERT_EQ(kOk, ulp_post_receive_list(provider(), hcas[1], b.record, 3, wrs.data()));
    EXPECT_EQ(before, module_allocations());
    EXPECT_EQ(1ul, hca::call_count("EVAPI_post_rr_list"));
    EXPECT_EQ(3, stats()["post_r_list_num"]);
    EXPECT_EQ(3, stats()["last_post_r_list_num"]);
    EXPECT_EQ(3u, count_with(log(), "user qp_h " + kptr(b.record)));

    DpBuffer &s = buffer(3 * 64);
    for (int i = 0; i < 3 * 64; ++i) s.bytes[i] = uint8_t(i * 3 + 1);
    DpBuffer &s0 = buffer(64), &s1 = buffer(64), &s2 = buffer(64);
    DpBuffer *src[3] = {&s0, &s1, &s2};
    for (int i = 0; i < 3; ++i) {
        std::memcpy(src[i]->data(), s.data() + 64 * i, 64);
        send(*src[i], 64, i);
    }
    run();
    EXPECT_EQ(0, std::memcmp(r.data(), s.data(), 3 * 64));
    auto wcs = poll_all(c1);
    ASSERT_EQ(3u, wcs.size());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(10 + i, wc_view(wcs[i])["wr_id"]);
        EXPECT_EQ(64, wc_view(wcs[i])["num_bytes_transfered"]);
    }
}

TEST_F(PostReceive, ListEntriesOverlapOneSlotPerRequest) {
    // Two requests of two entries each: the first request's second entry is the second
    // request's first entry.
    DpBuffer &r = buffer(4 * 32, 0);
    DpRecords sg0("ox_scatgat_t", 2), sg1("ox_scatgat_t", 2);
    entry(sg0, 0, r.data() + 0, 32, gen_lkey[1]);
    entry(sg0, 1, r.data() + 32, 32, gen_lkey[1]);
    entry(sg1, 0, r.data() + 64, 32, gen_lkey[1]);
    entry(sg1, 1, r.data() + 96, 32, gen_lkey[1]);
    DpRecords wrs("ox_wr_t", 2);
    wrs[0].set("wr_id", 1).set("completion_notification", 1).set("num_of_data_segments", 2);
    set_sg(wrs[0], sg0);
    wrs[1].set("wr_id", 2).set("completion_notification", 1).set("num_of_data_segments", 2);
    set_sg(wrs[1], sg1);
    ASSERT_EQ(kOk, ulp_post_receive_list(provider(), hcas[1], b.record, 2, wrs.data()));

    DpBuffer &s = buffer(64);
    for (int i = 0; i < 64; ++i) s.bytes[i] = uint8_t(0x80 + i);
    send(s, 64, 1);
    run();
    // The first receive scattered into r[0..32) and then r[64..96), not r[32..64).
    EXPECT_EQ(0, std::memcmp(r.data(), s.data(), 32));
    EXPECT_EQ(0, std::memcmp(r.data() + 64, s.data() + 32, 32));
    for (int i = 32; i < 64; ++i) EXPECT_EQ(0, r.bytes[i]) << i;
}

// A list whose block of descriptors would not fit a 32-bit size is refused before anything is
// allocated or read, and the adaptor lock is released.
TEST_F(PostReceive, ListTooLargeForOneBlockIsRefused) {
    const size_t before = module_allocations();
    EXPECT_EQ(kInvalidParameter, ulp_post_receive_list(provider(), hcas[1], b.record, 0xffffffffu, nullptr));
    EXPECT_TRUE(contains(
        log(), ad_error("oxi_mlx_post_receive_list", "ERROR - num_of_requests: 4294967295 is too large")));
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(0, adaptor_lock_held());
    EXPECT_EQ(before, module_allocations());
    EXPECT_EQ(0ul, hca::call_count("EVAPI_post_rr_list"));
}

TEST_F(PostReceive, EmptyListStillAllocatesAndCallsEvapi) {
    const unsigned long injected = k::injected_alloc_failures();
    k::AllocFault fault;
    fault.site = "oxi_mlx_post_receive_list";
    fault.size = 0;
    k::add_alloc_fault(fault);
    // The zero-size block is asked for: the fault above catches it.
    EXPECT_EQ(kAllocMem, ulp_post_receive_list(provider(), hcas[1], b.record, 0, nullptr));
    EXPECT_EQ(injected + 1, k::injected_alloc_failures());
    EXPECT_TRUE(contains(log(), ad_error("oxi_mlx_post_receive_list", "Fail to allocate memory: mlx_p")));
    EXPECT_EQ(1, stats()["mem_alloc_error_num"]);
    EXPECT_EQ(1, stats()["last_mem_alloc_error_num"]);
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(0, adaptor_lock_held());
    EXPECT_EQ(0ul, hca::call_count("EVAPI_post_rr_list"));

    ASSERT_EQ(kOk, ulp_post_receive_list(provider(), hcas[1], b.record, 0, nullptr));
    EXPECT_EQ(1ul, hca::call_count("EVAPI_post_rr_list"));
    EXPECT_EQ(0, stats()["post_r_list_num"]);
}

TEST_F(PostReceive, ListFailureIsRecordedUnderItsOwnIndex) {
    hca::inject_fault("EVAPI_post_rr_list", kDev[1], VAPI_EAGAIN);
    DpRecords wrs("ox_wr_t", 2);
    const size_t before = module_allocations();
    EXPECT_EQ(kErr, ulp_post_receive_list(provider(), hcas[1], b.record, 2, wrs.data()));
    EXPECT_EQ(before, module_allocations());
    EXPECT_EQ(0, adaptor_lock_held());
    EXPECT_EQ(dp_const("tavor_post_receive_list_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(VAPI_EAGAIN, ring_entry(0)["stat_st"]);
    EXPECT_TRUE(contains(log(), ad_error("oxi_mlx_post_receive_list",
                                         "MLXAD_ERR: VAPI Fail to EVAPI_post_rr_list(), hca_h: " +
                                             std::to_string(vapi_hca(1)) +
                                             ", (mlx:" + std::to_string(VAPI_EAGAIN) + ", MLX)")));
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
    EXPECT_EQ(0, stats()["post_r_list_num"]);
}

TEST_F(PostReceive, VapiFormRewritesTheCallersAddressesEveryTime) {
    DpBuffer &r = buffer(64);
    VAPI_sg_lst_entry_t sg[2] = {{r.addr(), 32, gen_lkey[1]}, {r.addr() + 32, 32, gen_lkey[1]}};
    VAPI_rr_desc_t d{};
    d.id = 7;
    d.opcode = VAPI_RECEIVE;
    d.comp_type = VAPI_SIGNALED;
    d.sg_lst_p = sg;
    d.sg_lst_len = 2;
    ASSERT_EQ(kOk, ulp_post_receive_vapi(provider(), hcas[1], b.record, &d));
    const uint64_t once0 = gen_addr(1, r.data()), once1 = gen_addr(1, r.data() + 32);
    EXPECT_EQ(once0, sg[0].addr);
    EXPECT_EQ(once1, sg[1].addr);
    EXPECT_EQ(1, stats()["post_vapi_r_num"]);
    EXPECT_EQ(1, stats()["post_r_num"]);
    EXPECT_EQ(1, stats()["last_post_r_num"]);
    EXPECT_TRUE(log().empty());  // no lock, no trace
    // Posting it again translates again.
    ASSERT_EQ(kOk, ulp_post_receive_vapi(provider(), hcas[1], b.record, &d));
    EXPECT_EQ(gen_iova(1) + (once0 - PAGE_OFFSET), sg[0].addr);
    EXPECT_EQ(2, stats()["post_vapi_r_num"]);

    hca::inject_fault("VAPI_post_rr", kDev[1], VAPI_EAGAIN);
    sg[0].addr = r.addr();
    sg[1].addr = r.addr() + 32;
    EXPECT_EQ(kErr, ulp_post_receive_vapi(provider(), hcas[1], b.record, &d));
    EXPECT_EQ((std::vector<std::string>{ad_error(
                  "oxi_mlx_post_receive_vapi",
                  "MLX AD_ERR: Fail to post send WR, hca_h: " + std::to_string(vapi_hca(1)) +
                      ", qp_h: " + kptr(reinterpret_cast<void *>(b.vapi)) + ", user qp h: " + kptr(b.record) +
                      " (mlx:" + std::to_string(VAPI_EAGAIN) + ", MLX)")}),
              log());
    EXPECT_EQ(dp_const("post_receive_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(3, stats()["post_vapi_r_num"]);
    EXPECT_EQ(2, stats()["post_r_num"]);
}

TEST_F(PostReceive, VapiListFormRewritesEveryDescriptor) {
    DpBuffer &r = buffer(96);
    VAPI_sg_lst_entry_t sg[3] = {
        {r.addr(), 32, gen_lkey[1]}, {r.addr() + 32, 32, gen_lkey[1]}, {r.addr() + 64, 32, gen_lkey[1]}};
    VAPI_rr_desc_t d[2]{};
    for (int i = 0; i < 2; ++i) {
        d[i].id = 20 + i;
        d[i].opcode = VAPI_RECEIVE;
        d[i].comp_type = VAPI_SIGNALED;
    }
    d[0].sg_lst_p = sg;
    d[0].sg_lst_len = 2;
    d[1].sg_lst_p = sg + 2;
    d[1].sg_lst_len = 1;
    ASSERT_EQ(kOk, ulp_post_receive_list_vapi(provider(), hcas[1], b.record, 2, d));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(gen_addr(1, r.data() + 32 * i), sg[i].addr) << i;
    EXPECT_EQ(1, stats()["post_vapi_r_num"]);
    EXPECT_EQ(2, stats()["post_r_list_num"]);
    EXPECT_EQ(2, stats()["last_post_r_list_num"]);
    EXPECT_EQ(1ul, hca::call_count("EVAPI_post_rr_list"));

    hca::inject_fault("EVAPI_post_rr_list", kDev[1], VAPI_EAGAIN);
    EXPECT_EQ(kErr, ulp_post_receive_list_vapi(provider(), hcas[1], b.record, 2, d));
    EXPECT_EQ(dp_const("tavor_post_receive_list_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_TRUE(
        contains(log(), ad_error("oxi_mlx_post_receive_list_vapi",
                                 "MLX AD_ERR: Fail to post send WR, hca_h: " + std::to_string(vapi_hca(1)) +
                                     ", qp_h: " + kptr(reinterpret_cast<void *>(b.vapi)) + ", user qp h: " +
                                     kptr(b.record) + " (mlx:" + std::to_string(VAPI_EAGAIN) + ", MLX)")));
}

}  // namespace
}  // namespace adaptor_test
