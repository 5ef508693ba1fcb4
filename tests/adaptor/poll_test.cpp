// Completion polling: the generic completion compared field by field with the VAPI completion
// of the same work, the status and remote-type tables, the byte and error counters, the empty
// CQ, unknown statuses, failures; the VAPI-form poll; arming (and the switch that suppresses
// it), peek and the handler setter that always refuses.
#include <regex>

#include "datapath_fixture.hpp"

namespace adaptor_test {
namespace {


class Poll : public DataPathFixture {
  protected:
    void SetUp() override {
        DataPathFixture::SetUp();
        c0 = cq(0);
        c1 = cq(1);
        k::log_clear();
        hca::reset_call_counts();
    }
    // One UD datagram of `payload` bytes from side 0 to side 1 (receive posted first, with `id`).
    void ud_exchange(DpQp &from, DpQp &to, VAPI_ud_av_hndl_t ah, DpBuffer &src, DpBuffer &dst,
                     uint32_t payload, uint64_t id) {
        ASSERT_EQ(kOk, ulp_post_receive_simple(provider(), hcas[to.side], to.record, id, dst.data(),
                                               uint32_t(dst.bytes.size()), gen_lkey[to.side]));
        ulp_send_target t{};
        t.ah = ah;
        t.remote_qpn = to.num;
        t.q_key = 0x11110000;
        ASSERT_EQ(kOk, ulp_post_send_simple(provider(), hcas[from.side], from.record,
                                            dp_const("ox_operation_type_send_ud"), ulp_op_send, id + 1000,
                                            src.data(), payload, gen_lkey[from.side], &t));
        run();
    }
    DpCq c0, c1;
};

TEST_F(Poll, EmptyCqIsNotAnErrorAndLeavesTheRecordAlone) {
    std::vector<char> wc(ulp_sizeof_wc(), char(0xa5));
    EXPECT_EQ(kCqEmpty, ulp_poll(provider(), hcas[0], c0.record, wc.data()));
    for (char c : wc) EXPECT_EQ(char(0xa5), c);
    EXPECT_EQ(1, stats()["poll_num"]);
    EXPECT_EQ(1, stats()["last_poll_num"]);
    EXPECT_EQ(1, stats()["poll_cq_empty_num"]);
    EXPECT_EQ(1, stats()["last_poll_cq_empty_num"]);
    EXPECT_EQ(0, stats()["error_num"]);
    const std::string f = "oxi_mlx_poll_for_completion";
    EXPECT_EQ(
        (std::vector<std::string>{ad_debug(f, "polling CQ, hca_h: " + std::to_string(vapi_hca(0)) +
                                                  ", cq_h: " + kptr(reinterpret_cast<void *>(c0.vapi)) +
                                                  ", user cq h: " + kptr(c0.record)),
                                  ad_debug(f, "Empty CQ: cq_h: " + kptr(reinterpret_cast<void *>(c0.vapi)) +
                                                  ", user cq h: " + kptr(c0.record))}),
        log());
}

TEST_F(Poll, UdReceiveMatchesTheVapiCompletionFieldByField) {
    DpQp s = ud(0, c0), r = ud(1, c1);
    VAPI_ud_av_hndl_t ah = vapi_ah(0, lid[1]);
    DpBuffer &src = buffer(1000, 0x42), &d1 = buffer(1040), &d2 = buffer(1040);
    ud_exchange(s, r, ah, src, d1, 1000, 77);
    ud_exchange(s, r, ah, src, d2, 1000, 77);
    EXPECT_EQ(0, std::memcmp(d1.data() + 40, src.data(), 1000));

    VAPI_wc_desc_t v{};
    ASSERT_EQ(kOk, ulp_poll_vapi(provider(), hcas[1], c1.record, &v));
    EXPECT_EQ(VAPI_SUCCESS, v.status);
    EXPECT_EQ(0, stats()["rx_byte"]);  // the VAPI form counts no bytes
    std::vector<char> wc(ulp_sizeof_wc(), 0);
    ASSERT_EQ(kOk, ulp_poll(provider(), hcas[1], c1.record, wc.data()));
    DpView g = wc_view(wc);
    EXPECT_EQ((long long)v.id, g["wr_id"]);
    EXPECT_EQ(77, g["wr_id"]);
    EXPECT_EQ((long long)v.opcode, g["operation_type"]);
    EXPECT_EQ(6, g["operation_type"]);  // ox_wc_send_rq
    EXPECT_EQ((long long)v.byte_len, g["num_bytes_transfered"]);
    EXPECT_EQ(1040, g["num_bytes_transfered"]);
    EXPECT_EQ((long long)v.imm_data_valid, g["immidiate_data_indicator"]);
    EXPECT_EQ((long long)v.imm_data, g["immidiate_data"]);
    EXPECT_EQ((long long)v.remote_node_addr.slid, g["addres_info.slid"]);
    EXPECT_EQ(lid[0], g["addres_info.slid"]);
    EXPECT_EQ((long long)v.remote_node_addr.sl, g["addres_info.sl"]);
    EXPECT_EQ((long long)v.remote_node_addr.qp_ety.qp, g["addres_info.source_qp"]);
    EXPECT_EQ((long long)s.num, g["addres_info.source_qp"]);
    EXPECT_EQ(0, g["addres_info.etertype"]);    // not the raw branch
    EXPECT_EQ(0, g["addres_info.eec_number"]);  // not the RD branch
    EXPECT_EQ((long long)v.remote_node_addr.ee_dlid.dst_path_bits, g["addres_info.dlid_path_bits"]);
    EXPECT_EQ(dp_const("ox_qp_type_u_dgram"), g["addres_info.remote_qp_type"]);
    EXPECT_EQ((long long)v.grh_flag, g["grh_indicator"]);
    EXPECT_EQ((long long)v.pkey_ix, g["p_key_index"]);
    EXPECT_EQ(0, g["completion_status"]);
    EXPECT_EQ((long long)v.free_res_count, g["freed_resource"]);

    EXPECT_EQ(1040, stats()["rx_byte"]);
    EXPECT_EQ(1040, stats()["last_rx_byte"]);
    EXPECT_EQ(2, stats()["poll_num"]);
    EXPECT_EQ(1, stats()["poll_vapi_num"]);
    const auto lines = log();
    EXPECT_TRUE(contains(lines, ad_debug("oxi_mlx_poll_for_completion",
                                         "Datagram - remote address info QP: " + std::to_string(s.num))));
    EXPECT_TRUE(contains(lines, ad_debug("oxi_mlx_poll_for_completion", "mlx parmeters (RD/UD):")));
    EXPECT_TRUE(contains(lines, "  byte_len: 1040"));

    // The sender's completions add nothing to the received bytes.
    auto sends = poll_all(c0);
    ASSERT_EQ(2u, sends.size());
    EXPECT_EQ(0, wc_view(sends[0])["operation_type"]);
    EXPECT_EQ(1077, wc_view(sends[0])["wr_id"]);
    EXPECT_EQ(1040, stats()["rx_byte"]);
}

TEST_F(Poll, FlushedReceiveCountsAReceiveErrorAndLogsNoError) {
    DpQp q = qp(0, VAPI_TS_RC, c0, (int)dp_const("ox_qp_type_r_conn"));
    to_error(q);
    DpBuffer &r = buffer(64);
    ASSERT_EQ(kOk, ulp_post_receive_simple(provider(), hcas[0], q.record, 5, r.data(), 64, gen_lkey[0]));
    k::log_clear();
    std::vector<char> wc(ulp_sizeof_wc(), 0);
    ASSERT_EQ(kOk, ulp_poll(provider(), hcas[0], c0.record, wc.data()));
    EXPECT_EQ(5, wc_view(wc)["completion_status"]);  // ox_comp_status_wr_flush_err
    EXPECT_EQ(6, wc_view(wc)["operation_type"]);
    EXPECT_EQ(5, wc_view(wc)["wr_id"]);
    EXPECT_EQ(1, stats()["ox_receive_error_status"]);
    EXPECT_EQ(1, stats()["ox_receive_last_error_status"]);
    EXPECT_EQ(0, stats()["ox_send_error_status"]);
    EXPECT_EQ(0, stats()["error_num"]);
    EXPECT_TRUE(at_level(log(), "ERROR  ").empty());
}

TEST_F(Poll, StatusTwentyOneReadsAsOneHundredAndIsLoggedWithTheRunningTotal) {
    DpQp s = ud(0, c0);
    VAPI_ud_av_hndl_t ah = vapi_ah(0, lid[1]);
    ASSERT_TRUE(
        hca::complete_next_with_status(kDev[0], s.vapi, hca::WorkQueue::Send, VAPI_COMP_LOCAL_ABORT_ERR, 7));
    ulp_send_target t{};
    t.ah = ah;
    t.remote_qpn = 2;
    ASSERT_EQ(kOk, ulp_post_send_simple(provider(), hcas[0], s.record, dp_const("ox_operation_type_send_ud"),
                                        ulp_op_send, 9, nullptr, 0, 0, &t));
    run();
    k::log_clear();
    std::vector<char> wc(ulp_sizeof_wc(), 0);
    ASSERT_EQ(kOk, ulp_poll(provider(), hcas[0], c0.record, wc.data()));
    EXPECT_EQ(100, wc_view(wc)["completion_status"]);
    EXPECT_EQ(1, stats()["ox_send_error_status"]);
    EXPECT_EQ(1, stats()["ox_send_last_error_status"]);
    const auto errors = at_level(log(), "ERROR  ");
    ASSERT_EQ(1u, errors.size());
    std::smatch m;
    const std::regex re(
        std::regex_replace(ad_error("oxi_mlx_poll_for_completion",
                                    "MRX: completion_status: 100 (MLX: 21, syndrom: 7), total err num: "),
                           std::regex(R"([()\[\]])"), R"(\$&)") +
        R"((\d+) \(not print flush errors\))");
    ASSERT_TRUE(std::regex_match(errors[0], m, re)) << errors[0];
    const int total = std::stoi(m[1]);

    // The next logged error counts one more.
    ASSERT_TRUE(
        hca::complete_next_with_status(kDev[0], s.vapi, hca::WorkQueue::Send, VAPI_REM_ACCESS_ERR, 0));
    // The QP is in error after the first: post again flushes (not logged); use a fresh QP.
    DpQp s2 = ud(0, c0);
    ASSERT_TRUE(
        hca::complete_next_with_status(kDev[0], s2.vapi, hca::WorkQueue::Send, VAPI_REM_ACCESS_ERR, 0));
    ASSERT_EQ(kOk, ulp_post_send_simple(provider(), hcas[0], s2.record, dp_const("ox_operation_type_send_ud"),
                                        ulp_op_send, 10, nullptr, 0, 0, &t));
    run();
    k::log_clear();
    ASSERT_EQ(kOk, ulp_poll(provider(), hcas[0], c0.record, wc.data()));
    EXPECT_EQ(10, wc_view(wc)["completion_status"]);
    EXPECT_TRUE(contains(log(), ad_error("oxi_mlx_poll_for_completion",
                                         "MRX: completion_status: 10 (MLX: 10, syndrom: 0), total err num: " +
                                             std::to_string(total + 1) + " (not print flush errors)")));
}

TEST_F(Poll, UnknownStatusLeavesTheCallersStatus) {
    DpQp s = ud(0, c0);
    VAPI_ud_av_hndl_t ah = vapi_ah(0, lid[1]);
    ASSERT_TRUE(
        hca::complete_next_with_status(kDev[0], s.vapi, hca::WorkQueue::Send, VAPI_wc_status_t(30), 0));
    ulp_send_target t{};
    t.ah = ah;
    ASSERT_EQ(kOk, ulp_post_send_simple(provider(), hcas[0], s.record, dp_const("ox_operation_type_send_ud"),
                                        ulp_op_send, 11, nullptr, 0, 0, &t));
    run();
    k::log_clear();
    std::vector<char> wc(ulp_sizeof_wc(), 0);
    wc_view(wc).set("completion_status", 3);
    ASSERT_EQ(kOk, ulp_poll(provider(), hcas[0], c0.record, wc.data()));
    EXPECT_EQ(3, wc_view(wc)["completion_status"]);
    EXPECT_EQ(11, wc_view(wc)["wr_id"]);
    const auto errors = at_level(log(), "ERROR  ");
    ASSERT_EQ(2u, errors.size());
    EXPECT_EQ(ad_error("oxi_mlx_poll_for_completion", "ERROR - wc_desc.status: 30"), errors[0]);
    EXPECT_NE(std::string::npos, errors[1].find("MRX: completion_status: 3 (MLX: 30, syndrom: 0)"));
}

TEST_F(Poll, RdmaReadCompletionCountsTheBytesThatCameIn) {
    auto [a, b] = connected(VAPI_TS_RC, c0, c1);
    DpBuffer &remote = buffer(512, 0x77), &local = buffer(512, 0);
    ulp_send_target t{};
    t.remote_addr = gen_addr(1, remote.data());
    t.r_key = gen_rkey[1];
    ASSERT_EQ(kOk, ulp_post_send_simple(provider(), hcas[0], a.record, dp_const("ox_operation_type_send_rc"),
                                        ulp_op_read, 1, local.data(), 512, gen_lkey[0], &t));
    EXPECT_EQ(0, stats()["tx_byte"]);
    run();
    EXPECT_EQ(0, std::memcmp(local.data(), remote.data(), 512));
    std::vector<char> wc(ulp_sizeof_wc(), 0);
    ASSERT_EQ(kOk, ulp_poll(provider(), hcas[0], c0.record, wc.data()));
    EXPECT_EQ(2, wc_view(wc)["operation_type"]);  // ox_wc_rdma_read_sq
    EXPECT_EQ(512, wc_view(wc)["num_bytes_transfered"]);
    EXPECT_EQ(512, stats()["rx_byte"]);
    EXPECT_EQ(512, stats()["last_rx_byte"]);
}

TEST_F(Poll, VapiFailureIsReportedAndRecorded) {
    hca::inject_fault("VAPI_poll_cq", kDev[0], VAPI_EINVAL_CQ_HNDL, hca::FaultMode::Always);
    std::vector<char> wc(ulp_sizeof_wc(), 0);
    EXPECT_EQ(kErr, ulp_poll(provider(), hcas[0], c0.record, wc.data()));
    VAPI_wc_desc_t v{};
    EXPECT_EQ(kErr, ulp_poll_vapi(provider(), hcas[0], c0.record, &v));
    const std::string tail = "MLX AD_ERR: Fail to poll CQ, hca_h: " + std::to_string(vapi_hca(0)) +
                             ", cq_h: " + kptr(reinterpret_cast<void *>(c0.vapi)) +
                             ", user cq h: " + kptr(c0.record) +
                             " (mlx:" + std::to_string(VAPI_EINVAL_CQ_HNDL) + ", MLX)";
    EXPECT_EQ((std::vector<std::string>{ad_error("oxi_mlx_poll_for_completion", tail),
                                        ad_error("oxi_mlx_poll_for_completion_vapi", tail)}),
              at_level(log(), "ERROR  "));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(dp_const("poll_for_completion_indx"), ring_entry(i)["func_ix_st"]);
        EXPECT_EQ(VAPI_EINVAL_CQ_HNDL, ring_entry(i)["stat_st"]);
    }
    EXPECT_EQ(2, stats()["error_num"]);
    EXPECT_EQ(2, stats()["VAPI_error_num"]);
    EXPECT_EQ(2, stats()["poll_num"]);
    EXPECT_EQ(1, stats()["poll_vapi_num"]);
    EXPECT_EQ(0, stats()["poll_cq_empty_num"]);
}

TEST_F(Poll, VapiFormCountsErrorsByQueue) {
    DpQp q = qp(0, VAPI_TS_RC, c0, (int)dp_const("ox_qp_type_r_conn"));
    to_error(q);
    DpBuffer &r = buffer(64);
    ASSERT_EQ(kOk, ulp_post_receive_simple(provider(), hcas[0], q.record, 1, r.data(), 64, gen_lkey[0]));
    ulp_send_target t{};
    ASSERT_EQ(kOk, ulp_post_send_simple(provider(), hcas[0], q.record, dp_const("ox_operation_type_send_rc"),
                                        ulp_op_send, 2, r.data(), 8, gen_lkey[0], &t));
    VAPI_wc_desc_t v{};
    ASSERT_EQ(kOk, ulp_poll_vapi(provider(), hcas[0], c0.record, &v));
    ASSERT_EQ(kOk, ulp_poll_vapi(provider(), hcas[0], c0.record, &v));
    EXPECT_EQ(kCqEmpty, ulp_poll_vapi(provider(), hcas[0], c0.record, &v));
    EXPECT_EQ(1, stats()["ox_receive_error_status"]);
    EXPECT_EQ(1, stats()["ox_send_error_status"]);
    EXPECT_EQ(3, stats()["poll_vapi_num"]);
    EXPECT_EQ(3, stats()["poll_num"]);
    EXPECT_EQ(1, stats()["poll_cq_empty_num"]);
    EXPECT_EQ(0, stats()["rx_byte"]);
}

TEST_F(Poll, TranslationTablesHoldWhatUpperLayersExpect) {
    const auto *status = sym<signed char>("wc_status_mlx_to_ox_translation");
    ASSERT_NE(nullptr, status);
    for (int i = 0; i < 19; ++i) EXPECT_EQ(i, status[i]) << i;
    EXPECT_EQ(19, status[19]);  // fatal: general
    EXPECT_EQ(19, status[20]);  // general
    EXPECT_EQ(100, status[21]);
    const auto *remote = sym<signed char>("r_qp_type_mlx_to_ox_translation");
    ASSERT_NE(nullptr, remote);
    EXPECT_EQ(dp_const("ox_qp_type_r_dgram"), remote[0]);
    EXPECT_EQ(dp_const("ox_qp_type_u_dgram"), remote[1]);
    EXPECT_EQ(dp_const("ox_qp_type_special_raw_eter"), remote[2]);
    EXPECT_EQ(dp_const("ox_qp_type_special_raw_ipv6"), remote[3]);
    const auto *notify = sym<signed char>("com_notify_ox_to_mlx_translation");
    ASSERT_NE(nullptr, notify);
    EXPECT_EQ(VAPI_SOLIC_COMP, notify[0]);
    EXPECT_EQ(VAPI_NEXT_COMP, notify[1]);
}

// ---- Arming, peek, handler ---------------------------------------------------------------------

TEST_F(Poll, ArmingMapsTheRequestAndCounts) {
    ASSERT_EQ(kOk, ulp_request_notification(provider(), hcas[0], c0.record, 1));
    ASSERT_EQ(kOk, ulp_request_notification(provider(), hcas[0], c0.record, 0));
    EXPECT_EQ(2, stats()["com_notify_num"]);
    EXPECT_EQ(2, stats()["last_com_notify_num"]);
    EXPECT_EQ(2ul, hca::call_count("VAPI_req_comp_notif"));
    const std::string head = "comp notify: hca_h: " + std::to_string(vapi_hca(0)) +
                             ", cq_h: " + kptr(reinterpret_cast<void *>(c0.vapi)) +
                             ", user cq h: " + kptr(c0.record);
    EXPECT_EQ((std::vector<std::string>{ad_debug("oxi_mlx_request_completion_notification",
                                                 head + ", ox comp_notify: 0, mlx notify: 1"),
                                        ad_debug("oxi_mlx_request_completion_notification",
                                                 head + ", ox comp_notify: 1, mlx notify: 2")}),
              log());
}

TEST_F(Poll, ArmingWhileEventsAreOffDoesNothing) {
    command("event_ctrl 1");
    k::log_clear();
    EXPECT_EQ(kOk, ulp_request_notification(provider(), hcas[0], c0.record, 0));
    EXPECT_EQ(0, stats()["com_notify_num"]);
    EXPECT_EQ(0ul, hca::call_count("VAPI_req_comp_notif"));
    EXPECT_EQ((std::vector<std::string>{ad_debug("oxi_mlx_request_completion_notification",
                                                 "ADAPTOR_TAVOR_NO_CQ_EVENTS - no events")}),
              log());
    command("event_ctrl 0");
    EXPECT_EQ(kOk, ulp_request_notification(provider(), hcas[0], c0.record, 0));
    EXPECT_EQ(1, stats()["com_notify_num"]);
}

TEST_F(Poll, ArmingFailureAndUnknownRequest) {
    hca::inject_fault("VAPI_req_comp_notif", kDev[0], VAPI_EINVAL_CQ_HNDL);
    EXPECT_EQ(kErr, ulp_request_notification(provider(), hcas[0], c0.record, 0));
    EXPECT_TRUE(contains(log(), ad_error("oxi_mlx_request_completion_notification",
                                         "MLXAD_ERR: VAPI Fail to request completion notification, hca_h: " +
                                             std::to_string(vapi_hca(0)) +
                                             ", cq_h: " + kptr(reinterpret_cast<void *>(c0.vapi)) +
                                             ", user cq_h: " + kptr(c0.record) +
                                             " (mlx:" + std::to_string(VAPI_EINVAL_CQ_HNDL) + ", MLX)")));
    EXPECT_EQ(dp_const("request_completion_notification_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
    EXPECT_EQ(1, stats()["com_notify_num"]);
    // A request past the two-row table is refused without reading past it.
    k::log_clear();
    EXPECT_EQ(kInvalidParameter, ulp_request_notification(provider(), hcas[0], c0.record, 2));
    EXPECT_EQ((std::vector<std::string>{ad_error("oxi_mlx_request_completion_notification",
                                                 "ERROR - comp_notify: 2 is not a notification type")}),
              log());
    EXPECT_EQ(1ul, hca::call_count("VAPI_req_comp_notif"));
    EXPECT_EQ(2, stats()["error_num"]);
}

TEST_F(Poll, PeekAnswersOkWhateverVapiSays) {
    hca::inject_fault("EVAPI_peek_cq", kDev[0], VAPI_EINVAL_CQ_HNDL);
    EXPECT_EQ(kOk, ulp_peek_cq(provider(), hcas[0], 12345));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_peek_cq",
                           "MLXAD_ERR: VAPI Fail to EVAPI_peek_cq(), hca_h: " + std::to_string(vapi_hca(0)) +
                               ", (mlx:" + std::to_string(VAPI_EINVAL_CQ_HNDL) + ", MLX)")}),
              log());
    EXPECT_EQ(dp_const("tavor_peek_cq_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(VAPI_EINVAL_CQ_HNDL, ring_entry(0)["stat_st"]);
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
    EXPECT_EQ(1ul, hca::call_count("EVAPI_peek_cq"));
    EXPECT_EQ(kOk, ulp_peek_cq(exported_table(), hcas[0], 0));
    EXPECT_EQ(2ul, hca::call_count("EVAPI_peek_cq"));
}

TEST_F(Poll, TheCompletionHandlerCannotBeReplaced) {
    for (void *handler : {static_cast<void *>(nullptr), static_cast<void *>(&c0)}) {
        k::log_clear();
        EXPECT_EQ(kErr, ulp_set_completion_event_handler(provider(), hcas[0], handler));
        EXPECT_EQ((std::vector<std::string>{ad_error("oxi_mlx_set_completion_event_handler",
                                                     "ERROR - application cann't change the completion event "
                                                     "handler - will brake the adaptor !!!!!")}),
                  log());
    }
    EXPECT_EQ(2, stats()["error_num"]);
    EXPECT_EQ(0, stats()["VAPI_error_num"]);
}

}  // namespace
}  // namespace adaptor_test
