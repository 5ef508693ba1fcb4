// QP create, special QPs, destroy and the context through the provider table: the record, its
// list entry and array slot, the result record, the log, the counters, the ring and the
// accounting, and every failure path.
#include "queues_fixture.hpp"

namespace adaptor_test {
namespace {

class QpCreate : public QueuesFixture {
  protected:
    void SetUp() override {
        QueuesFixture::SetUp();
        open();
        scq_ = create_cq(64);
        rcq_ = create_cq(64);
        pd_ = alloc_pd();
    }
    void TearDown() override {
        if (hca_) {
            destroy_cq(scq_);
            destroy_cq(rcq_);
            close_hca(hca_);
        }
        QueuesFixture::TearDown();
    }
    void *scq_ = nullptr, *rcq_ = nullptr;
    uint32_t pd_ = 0;
};

TEST_F(QpCreate, CreateAndDestroyLogTrackAndCount) {
    set_debug_level(4);
    k::log_clear();
    int context = 0;
    QpAttr req = create_request(qp_type("rc"), scq_, rcq_, pd_);
    req.set("create.signaling_type", 1).set("create.recv_solicited_events", 0);
    QpAttr result;
    void *qp = nullptr;
    ASSERT_EQ(kQOk, ulp_qp_create(provider(), hca_, req.data(), &context, &qp, result.data()));
    ASSERT_NE(nullptr, qp);
    auto rec = qp_record(qp);
    const unsigned long h = vapi_qp(qp);
    const long long qpn = rec["qp_num"];
    const std::string f = "oxi_mlx_qp_create";
    std::vector<std::string> expected = {
        ad_debug(f, "mlx sq_sig_type: 1"),
        ad_debug(f, "mlx rq_sig_type: 0"),
        ad_debug(f, "vend param: send size: 16, receive size: 32, ts type: 0 (0)"),
        ad_debug(f, "Entering opened_qp_p into array"),
        ad_debug(f, "New qp_h: " + hex(h) + ", user qp h: " + kptr(qp) + ", qp num: " + std::to_string(qpn)),
    };
    auto lines = log();
    EXPECT_EQ(expected, without_lock_trace(lines));
    EXPECT_EQ(3u, lines.size() - without_lock_trace(lines).size());

    // The result: the QP number and the depths the device granted.
    EXPECT_EQ(static_cast<uint64_t>(qpn), result.get("create_return.qp_num"));
    EXPECT_GE(qpn, 2);
    EXPECT_EQ(16u, result.get("create_return.send_max_outstand_wr"));
    EXPECT_EQ(32u, result.get("create_return.receive_max_outstand_wr"));
    EXPECT_EQ(2u, result.get("create_return.max_scatgat_per_send_wr"));
    EXPECT_EQ(3u, result.get("create_return.max_scatgat_per_receive_wr"));

    EXPECT_EQ(reinterpret_cast<long long>(&context), rec["qp_oxuser_context"]);
    EXPECT_EQ(qp_type("rc"), rec["type"]);
    EXPECT_EQ(qp, qp_slot(hca_, h));
    EXPECT_EQ(qp, qp_list_first(hca_));
    EXPECT_EQ(1, stats()["qp_num"]);
    EXPECT_EQ(1, stats()["last_qp_num"]);
    EXPECT_EQ(1, alloc_num("mem_qp_ix"));
    EXPECT_EQ(1u, hca::qp_count("InfiniHost0"));

    // What VAPI was given comes back through the query.
    QpAttr query;
    void *ctx = nullptr;
    ASSERT_EQ(kQOk, ulp_qp_query(provider(), hca_, qp, &ctx, query.data()));
    EXPECT_EQ(reinterpret_cast<uint64_t>(scq_), query.get("query.cq_send_h"));
    EXPECT_EQ(reinterpret_cast<uint64_t>(rcq_), query.get("query.cq_receive_h"));
    EXPECT_EQ(pd_, query.get("query.pd_h"));
    EXPECT_EQ(2u, query.get("query.max_scatgat_per_send_wr"));
    EXPECT_EQ(3u, query.get("query.max_scatgat_per_receive_wr"));

    k::log_clear();
    ASSERT_EQ(kQOk, ulp_qp_destroy(provider(), hca_, qp));
    const std::string d = "oxi_mlx_qp_destroy", hs = std::to_string(h);
    expected = {
        ad_debug(d, "Going to destroy qp_h: " + hs + " hca_h:0"),
        ad_debug(d, "Destroy qp_h: " + hs + ", hca_h: 0, will free adaptor data"),
        ad_debug(d, "in the array array, " + hs),
        ad_debug(d, "Free opened_qp_p for qp_h: " + hex(h) + ", hca_h: 0, g_stat.qp_num: 0"),
    };
    EXPECT_EQ(expected, log());  // the unlink takes no lock
    EXPECT_EQ(nullptr, qp_slot(hca_, h));
    EXPECT_EQ(0, qp_list_count(hca_));
    EXPECT_EQ(0, stats()["qp_num"]);
    EXPECT_EQ(0, stats()["last_qp_num"]);
    EXPECT_EQ(0, alloc_num("mem_qp_ix"));
    EXPECT_EQ(0u, hca::qp_count("InfiniHost0"));
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0, 0, 0}), error_counters());
}

TEST_F(QpCreate, EachTypeGetsItsTransport) {
    set_debug_level(4);
    struct Case {
        const char *type;
        int ts;
    } cases[] = {{"rc", VAPI_TS_RC}, {"uc", VAPI_TS_UC}, {"ud", VAPI_TS_UD}};
    std::vector<void *> qps;
    for (const auto &c : cases) {
        k::log_clear();
        void *qp = create_qp(qp_type(c.type), scq_, rcq_, pd_);
        ASSERT_NE(nullptr, qp) << c.type;
        EXPECT_EQ(1u, count_of(log(), ad_debug("oxi_mlx_qp_create",
                                               "vend param: send size: 16, receive size: 32, ts type: " +
                                                   std::to_string(c.ts) + " (" +
                                                   std::to_string(qp_type(c.type)) + ")")))
            << c.type;
        EXPECT_EQ(qp_type(c.type), qp_record(qp)["type"]);
        qps.push_back(qp);
    }
    // Reliable datagram goes to VAPI as RD; whether the device takes it is its business.
    k::log_clear();
    QpAttr req = create_request(qp_type("rd"), scq_, rcq_, pd_), result;
    void *rd = nullptr;
    int rc = ulp_qp_create(provider(), hca_, req.data(), nullptr, &rd, result.data());
    EXPECT_EQ(1u, count_of(log(), ad_debug("oxi_mlx_qp_create",
                                           "vend param: send size: 16, receive size: 32, ts type: " +
                                               std::to_string(VAPI_TS_RD) + " (2)")));
    if (rc == kQOk) qps.push_back(rd);
    EXPECT_EQ(static_cast<long long>(qps.size()), stats()["qp_num"]);
    // Newest first.
    EXPECT_EQ(qps.back(), qp_list_first(hca_));
    for (void *qp : qps) destroy_qp(qp);
    EXPECT_EQ(0, stats()["qp_num"]);
}

TEST_F(QpCreate, TypesOutsideTheTableAreRefused) {
    for (int type : {4, 5, 8, 9, -1}) {
        k::log_clear();
        QpAttr req = create_request(type, scq_, rcq_, pd_), result;
        void *qp = reinterpret_cast<void *>(0x99);
        EXPECT_EQ(kQErrInvalidParameter,
                  ulp_qp_create(provider(), hca_, req.data(), nullptr, &qp, result.data()));
        EXPECT_EQ((std::vector<std::string>{
                      ad_error("oxi_mlx_qp_create", "ERROR not valid qp type: " + std::to_string(type))}),
                  log());
        EXPECT_EQ(reinterpret_cast<void *>(0x99), qp);
    }
    EXPECT_EQ((std::vector<long long>{5, 5, 0, 0, 0, 0}), error_counters());
    EXPECT_EQ(0u, hca::call_count("VAPI_create_qp"));
    EXPECT_EQ(0, alloc_num("mem_qp_ix"));
    EXPECT_EQ(0, stats()["qp_num"]);
}

TEST_F(QpCreate, RecordAllocationFailure) {
    k::AllocFault fault;
    fault.site = "oxi_mlx_qp_create";
    k::add_alloc_fault(fault);
    k::log_clear();
    QpAttr req = create_request(qp_type("rc"), scq_, rcq_, pd_), result;
    void *qp = nullptr;
    EXPECT_EQ(kQErrAllocMem, ulp_qp_create(provider(), hca_, req.data(), nullptr, &qp, result.data()));
    EXPECT_EQ(
        (std::vector<std::string>{ad_error("oxi_mlx_qp_create", "Fail to allocate memory: ox_opened_qp_t")}),
        log());
    EXPECT_EQ((std::vector<long long>{1, 1, 0, 0, 1, 1}), error_counters());
    EXPECT_EQ(nullptr, qp);
    EXPECT_EQ(0u, hca::call_count("VAPI_create_qp"));
    EXPECT_EQ(0, alloc_num("mem_qp_ix"));
}

TEST_F(QpCreate, VapiCreateFailureFreesTheRecord) {
    const size_t before = module_allocations();
    hca::inject_fault("VAPI_create_qp", "InfiniHost0", VAPI_EAGAIN);
    k::log_clear();
    QpAttr req = create_request(qp_type("ud"), scq_, rcq_, pd_), result;
    result.set("create_return.qp_num", 4242);
    void *qp = nullptr;
    EXPECT_EQ(kQErr, ulp_qp_create(provider(), hca_, req.data(), nullptr, &qp, result.data()));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_qp_create", "AD_ERR: VAPI Fail to create QP, hca_h: 0 (mlx:-253, MLX)")}),
              log());
    EXPECT_EQ((std::vector<long long>{1, 1, 1, 1, 0, 0}), error_counters());
    expect_ring(0, "qp_create_indx", VAPI_EAGAIN);
    EXPECT_EQ(nullptr, qp);
    EXPECT_EQ(4242u, result.get("create_return.qp_num"));
    EXPECT_EQ(0, alloc_num("mem_qp_ix"));
    EXPECT_EQ(0, qp_list_count(hca_));
    EXPECT_EQ(before, module_allocations());
}

TEST_F(QpCreate, RequestAndResultMayShareOneRecord) {
    QpAttr attr = create_request(qp_type("ud"), scq_, rcq_, pd_);
    void *qp = nullptr;
    ASSERT_EQ(kQOk, ulp_qp_create(provider(), hca_, attr.data(), nullptr, &qp, attr.data()));
    EXPECT_EQ(qp_type("ud"), qp_record(qp)["type"]);
    EXPECT_EQ(static_cast<uint64_t>(qp_record(qp)["qp_num"]), attr.get("create_return.qp_num"));
    destroy_qp(qp);
}

TEST_F(QpCreate, HandleOf1000HasASlotAnd1001OnlyTheList) {
    ASSERT_TRUE(hca::set_next_qp_handle("InfiniHost0", 1000));
    void *at = create_qp(qp_type("rc"), scq_, rcq_, pd_);
    ASSERT_TRUE(hca::set_next_qp_handle("InfiniHost0", 1001));
    set_debug_level(4);
    k::log_clear();
    void *above = create_qp(qp_type("rc"), scq_, rcq_, pd_);
    EXPECT_EQ(0u, count_of(log(), ad_debug("oxi_mlx_qp_create", "Entering opened_qp_p into array")));
    EXPECT_EQ(1000u, vapi_qp(at));
    EXPECT_EQ(1001u, vapi_qp(above));
    EXPECT_EQ(at, qp_slot(hca_, 1000));
    EXPECT_EQ(2, qp_list_count(hca_));
    k::log_clear();
    destroy_qp(above);
    EXPECT_EQ(0u, count_with(log(), "in the array array"));
    EXPECT_EQ(at, qp_slot(hca_, 1000));
    destroy_qp(at);
    EXPECT_EQ(nullptr, qp_slot(hca_, 1000));
    EXPECT_EQ(0, qp_list_count(hca_));
}

TEST_F(QpCreate, DestroyFailureLeavesTheRecordIntact) {
    void *qp = create_qp(qp_type("uc"), scq_, rcq_, pd_);
    const unsigned long h = vapi_qp(qp);
    hca::inject_fault("VAPI_destroy_qp", "InfiniHost0", VAPI_EINVAL_QP_HNDL);
    k::log_clear();
    EXPECT_EQ(kQErr, ulp_qp_destroy(provider(), hca_, qp));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_qp_destroy", "MLXAD_ERR: VAPI Fail to destroy QP, hca_h: 0, qp_h: " +
                                                     std::to_string(h) + " (mlx:-239, MLX)")}),
              log());
    EXPECT_EQ((std::vector<long long>{1, 1, 1, 1, 0, 0}), error_counters());
    expect_ring(0, "qp_destroy_indx", VAPI_EINVAL_QP_HNDL);
    EXPECT_EQ(qp, qp_slot(hca_, h));
    EXPECT_EQ(qp, qp_list_first(hca_));
    EXPECT_EQ(1, stats()["qp_num"]);
    EXPECT_EQ(1, alloc_num("mem_qp_ix"));
    destroy_qp(qp);
    EXPECT_EQ(0, stats()["qp_num"]);
}

TEST_F(QpCreate, ContextSet) {
    int a = 0;
    void *qp = create_qp(qp_type("ud"), scq_, rcq_, pd_, &a);
    k::log_clear();
    int b = 0;
    EXPECT_EQ(kQOk, ulp_qp_context_set(provider(), hca_, qp, &b));
    EXPECT_EQ(reinterpret_cast<long long>(&b), qp_record(qp)["qp_oxuser_context"]);
    QpAttr query;
    void *ctx = nullptr;
    ASSERT_EQ(kQOk, ulp_qp_query(provider(), hca_, qp, &ctx, query.data()));
    EXPECT_EQ(&b, ctx);
    EXPECT_EQ(kQOk, ulp_qp_context_set(exported_table(), hca_, qp, nullptr));
    EXPECT_EQ(0, qp_record(qp)["qp_oxuser_context"]);
    destroy_qp(qp);
}

TEST_F(QpCreate, EecCallsAreNotSupported) {
    int results[4] = {-1, -1, -1, -1};
    ASSERT_EQ(4, ulp_eec_calls(provider(), hca_, results));
    for (int r : results) EXPECT_EQ(kQErrNotImplemented, r);
    ASSERT_EQ(4, ulp_eec_calls(exported_table(), hca_, results));
    for (int r : results) EXPECT_EQ(kQErrNotImplemented, r);
}

// ---- Special QPs --------------------------------------------------------------------------------------

TEST_F(QpCreate, GsiAndSmiReportTheirSpecialCodeAsQpNumber) {
    set_debug_level(4);
    struct Case {
        const char *type;
        uint64_t code;
    } cases[] = {{"gsi", VAPI_GSI_QP}, {"smi", VAPI_SMI_QP}};
    for (const auto &c : cases) {
        k::log_clear();
        int context = 0;
        QpAttr req = create_request(qp_type(c.type), scq_, rcq_, pd_), result;
        void *qp = reinterpret_cast<void *>(0x55);
        ASSERT_EQ(kQOk, ulp_qp_get_special(provider(), hca_, 1, req.data(), &context, &qp, result.data()))
            << c.type;
        auto rec = qp_record(qp);
        const unsigned long h = vapi_qp(qp);
        const std::string f = "oxi_mlx_qp_get_special";
        std::vector<std::string> expected = {
            ad_debug(f, "mlx sq_sig_type: 0"),
            ad_debug(f, "mlx rq_sig_type: 0"),
            ad_debug(f, "vend param: send size: 16, receive size: 32, ts type: 3 (" +
                            std::to_string(qp_type(c.type)) + ")"),
            ad_debug(f, "before VAPI_get_special_qp()"),
            // The caller's variable, before the handle is written into it.
            ad_debug(f, "New special qp_h: 85, hca_h: 0"),
            ad_debug(f, "New special qp_h: " + hex(h) + ", user qp h: " + kptr(qp) +
                            ", qp num: " + std::to_string(c.code)),
        };
        EXPECT_EQ(expected, without_lock_trace(log())) << c.type;
        EXPECT_EQ(c.code, result.get("create_return.qp_num"));
        EXPECT_EQ(static_cast<long long>(c.code), rec["qp_num"]);
        EXPECT_EQ(16u, result.get("create_return.send_max_outstand_wr"));
        EXPECT_EQ(32u, result.get("create_return.receive_max_outstand_wr"));
        EXPECT_EQ(2u, result.get("create_return.max_scatgat_per_send_wr"));
        EXPECT_EQ(3u, result.get("create_return.max_scatgat_per_receive_wr"));
        EXPECT_EQ(qp_type(c.type), rec["type"]);
        EXPECT_EQ(reinterpret_cast<long long>(&context), rec["qp_oxuser_context"]);
        // Special QPs get no array slot.
        EXPECT_EQ(nullptr, qp_slot(hca_, h));
        EXPECT_EQ(qp, qp_list_first(hca_));
        EXPECT_EQ(1, stats()["qp_num"]);
        EXPECT_EQ(1, alloc_num("mem_qp_ix"));
        destroy_qp(qp);
        EXPECT_EQ(0, stats()["qp_num"]);
        EXPECT_EQ(0, alloc_num("mem_qp_ix"));
    }
}

TEST_F(QpCreate, RawSpecialQpLeavesTheQpNumberAlone) {
    set_debug_level(4);
    for (const char *type : {"raw_ipv6", "raw_eter"}) {
        k::log_clear();
        QpAttr req = create_request(qp_type(type), scq_, rcq_, pd_), result;
        result.set("create_return.qp_num", 4242);
        void *qp = nullptr;
        ASSERT_EQ(kQOk, ulp_qp_get_special(provider(), hca_, 2, req.data(), nullptr, &qp, result.data()))
            << type;
        EXPECT_EQ(4242u, result.get("create_return.qp_num"));
        EXPECT_EQ(1u, count_of(log(),
                               ad_debug("oxi_mlx_qp_get_special",
                                        "New special QP but it is not smi or gsi - do not know the QP num")));
        EXPECT_EQ(qp_type(type), qp_record(qp)["type"]);
        destroy_qp(qp);
    }
}

TEST_F(QpCreate, SpecialFailureAndRefusedTypes) {
    hca::inject_fault("VAPI_get_special_qp", "InfiniHost0", VAPI_EBUSY);
    k::log_clear();
    QpAttr req = create_request(qp_type("gsi"), scq_, rcq_, pd_), result;
    void *qp = nullptr;
    EXPECT_EQ(kQErr, ulp_qp_get_special(provider(), hca_, 1, req.data(), nullptr, &qp, result.data()));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_qp_get_special",
                           "MLXAD_ERR: VAPI Fail to create special QP, hca_h: 0 (mlx:-251, MLX)")}),
              log());
    EXPECT_EQ((std::vector<long long>{1, 1, 1, 1, 0, 0}), error_counters());
    expect_ring(0, "qp_get_special_indx", VAPI_EBUSY);
    EXPECT_EQ(nullptr, qp);
    EXPECT_EQ(0, alloc_num("mem_qp_ix"));

    // An ordinary type asks VAPI for a regular QP through the special call, which VAPI refuses.
    QpAttr rc_req = create_request(qp_type("rc"), scq_, rcq_, pd_);
    EXPECT_EQ(kQErr, ulp_qp_get_special(provider(), hca_, 1, rc_req.data(), nullptr, &qp, result.data()));
    EXPECT_EQ(module_const("qp_get_special_indx"), ring_entry(1)["func_ix_st"]);

    // No table entry beyond the raw types.
    k::log_clear();
    QpAttr bad = create_request(8, scq_, rcq_, pd_);
    EXPECT_EQ(kQErrInvalidParameter,
              ulp_qp_get_special(provider(), hca_, 1, bad.data(), nullptr, &qp, result.data()));
    EXPECT_EQ((std::vector<std::string>{ad_error("oxi_mlx_qp_get_special", "ERROR not valid qp type: 8")}),
              log());

    k::AllocFault fault;
    fault.site = "oxi_mlx_qp_get_special";
    k::add_alloc_fault(fault);
    k::log_clear();
    EXPECT_EQ(kQErrAllocMem,
              ulp_qp_get_special(provider(), hca_, 1, req.data(), nullptr, &qp, result.data()));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_qp_get_special", "Fail to allocate memory: ox_opened_qp_t")}),
              log());
    EXPECT_EQ(0, stats()["qp_num"]);
    EXPECT_EQ(0, alloc_num("mem_qp_ix"));
}

}  // namespace
}  // namespace adaptor_test
