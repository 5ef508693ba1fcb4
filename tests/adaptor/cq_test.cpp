// CQ create, query, resize, re-target and destroy through the provider table: the record, its
// list entry and array slot, the log, the counters, the ring and the accounting, and every
// failure path through the kernel's allocation faults and the software HCA's call faults.
#include "queues_fixture.hpp"

namespace adaptor_test {
namespace {

class Cq : public QueuesFixture {};

TEST_F(Cq, CreateAndDestroyLogTrackAndCount) {
    set_debug_level(4);
    open();
    k::log_clear();
    int context = 0;
    void *cq = nullptr;
    uint32_t actual = 0;
    ASSERT_EQ(kQOk, ulp_cq_create(provider(), hca_, 100, &CompletionSink::callback, &context, &cq, &actual));
    ASSERT_NE(nullptr, cq);
    EXPECT_EQ(127u, actual);
    const std::string f = "oxi_mlx_cq_create";
    const std::string callback = kptr(reinterpret_cast<void *>(&CompletionSink::callback));
    std::vector<std::string> expected = {
        ad_debug(f, "Entering opened_cq_p into array"),
        ad_debug(f, "New cq_h: 1, " + hex(1) + ", user cq handle: " + kptr(cq) +
                        ", actual size : requested size  127:100"),
        ad_debug(f, "Opened CQ data: hca_h: 0, cq_context: " + kptr(&context) +
                        ", com_event_callback: " + callback),
        ad_debug(f, "Add the new CQ element to the list (hca_h: 0), global statistic CQ num: 1"),
        ad_debug(f, "EVAPI register CQ event handler, hca_h: 0, user cq h: " + kptr(cq) + ", mlx cq h: 1"),
    };
    auto lines = log();
    EXPECT_EQ(expected, without_lock_trace(lines));
    // Only the list insertion is locked.
    EXPECT_EQ(3u, lines.size() - without_lock_trace(lines).size());
    EXPECT_EQ(1u, count_with(lines, "---->ADAPTOR_LOCK cpu[0] ("));

    auto rec = cq_record(cq);
    EXPECT_EQ(1, rec["cq_h"]);
    EXPECT_EQ(reinterpret_cast<long long>(&context), rec["cq_oxuser_context"]);
    EXPECT_EQ(reinterpret_cast<long long>(&CompletionSink::callback), rec["app_com_callback"]);
    EXPECT_EQ(0, rec["internal_p"]);
    EXPECT_NE(0, rec["comp_handler_hndl"]);
    EXPECT_EQ(cq, cq_slot(hca_, 1));
    EXPECT_EQ(cq, cq_list_first(hca_));
    EXPECT_EQ(1, cq_list_count(hca_));
    EXPECT_EQ(1, stats()["cq_num"]);
    EXPECT_EQ(1, stats()["last_cq_num"]);
    EXPECT_EQ(1, alloc_num("mem_cq_ix"));
    EXPECT_EQ(1u, hca::cq_count("InfiniHost0"));
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0, 0, 0}), error_counters());

    k::log_clear();
    ASSERT_EQ(kQOk, ulp_cq_destroy(provider(), hca_, cq));
    const std::string d = "oxi_mlx_cq_destroy";
    expected = {
        ad_debug(d, "EVAPI clear CQ event handler, hca_h: 0, user cq h: " + kptr(cq) + ", mlx cq h: 1"),
        ad_debug(d, "Destroy cq_h: " + hex(1) + ", user cq h: " + kptr(cq) + ", hca_h: 0"),
        ad_debug(d, "Remove cq from the opened_cq_array"),
        ad_debug(d, "hca_h: 0, free opened_cq_p for cq_h: " + hex(1)),
        ad_debug(d, "CQ global statistic: 0"),
    };
    lines = log();
    EXPECT_EQ(expected, lines);  // the unlink takes no lock
    EXPECT_EQ(nullptr, cq_slot(hca_, 1));
    EXPECT_EQ(0, cq_list_count(hca_));
    EXPECT_EQ(0, stats()["cq_num"]);
    EXPECT_EQ(0, stats()["last_cq_num"]);
    EXPECT_EQ(0, alloc_num("mem_cq_ix"));
    EXPECT_EQ(0u, hca::cq_count("InfiniHost0"));
    close_hca(hca_);
}

TEST_F(Cq, NewestFirstOnTheListAndThroughTheExportedSymbols) {
    open();
    void *a = create_cq(10);
    void *cq = nullptr;
    uint32_t actual = 0;
    ASSERT_EQ(kQOk,
              ulp_cq_create(exported_table(), hca_, 10, &CompletionSink::callback, nullptr, &cq, &actual));
    EXPECT_EQ(15u, actual);
    EXPECT_EQ(cq, cq_list_first(hca_));
    EXPECT_EQ(2, cq_list_count(hca_));
    EXPECT_EQ(a, cq_slot(hca_, vapi_cq(a)));
    EXPECT_EQ(cq, cq_slot(hca_, vapi_cq(cq)));
    EXPECT_EQ(2, stats()["cq_num"]);
    EXPECT_EQ(kQOk, ulp_cq_destroy(exported_table(), hca_, a));
    EXPECT_EQ(cq, cq_list_first(hca_));
    destroy_cq(cq);
    EXPECT_EQ(0, stats()["cq_num"]);
    close_hca(hca_);
}

TEST_F(Cq, HandleOf1000HasASlotAnd1001OnlyTheList) {
    open();
    // Slot 1000 exists and reads as empty on a fresh HCA.
    EXPECT_EQ(nullptr, cq_slot(hca_, 1000));
    EXPECT_EQ(nullptr, qp_slot(hca_, 1000));
    ASSERT_TRUE(hca::set_next_cq_handle("InfiniHost0", 1000));
    void *at = create_cq();
    ASSERT_TRUE(hca::set_next_cq_handle("InfiniHost0", 1001));
    set_debug_level(4);
    k::log_clear();
    void *above = create_cq();
    EXPECT_EQ(0u, count_of(log(), ad_debug("oxi_mlx_cq_create", "Entering opened_cq_p into array")));
    EXPECT_EQ(1000u, vapi_cq(at));
    EXPECT_EQ(1001u, vapi_cq(above));
    EXPECT_EQ(at, cq_slot(hca_, 1000));
    EXPECT_EQ(2, cq_list_count(hca_));
    EXPECT_EQ(above, cq_list_first(hca_));

    // Destroying the one above the boundary leaves the array as it was.
    k::log_clear();
    destroy_cq(above);
    EXPECT_EQ(0u, count_of(log(), ad_debug("oxi_mlx_cq_destroy", "Remove cq from the opened_cq_array")));
    EXPECT_EQ(at, cq_slot(hca_, 1000));
    EXPECT_EQ(1, cq_list_count(hca_));
    destroy_cq(at);
    EXPECT_EQ(nullptr, cq_slot(hca_, 1000));
    EXPECT_EQ(0, cq_list_count(hca_));
    close_hca(hca_);
}

TEST_F(Cq, RecordAllocationFailure) {
    open();
    k::AllocFault fault;
    fault.site = "oxi_mlx_cq_create";
    k::add_alloc_fault(fault);
    k::log_clear();
    void *cq = reinterpret_cast<void *>(0x1234);
    uint32_t actual = 77;
    EXPECT_EQ(kQErrAllocMem,
              ulp_cq_create(provider(), hca_, 100, &CompletionSink::callback, nullptr, &cq, &actual));
    EXPECT_EQ((std::vector<std::string>{ad_error(
                  "oxi_mlx_cq_create", "Fail to allocate memory: ox_opened_cq_t, will destroy cq_h: 4660")}),
              log());
    EXPECT_EQ((std::vector<long long>{1, 1, 0, 0, 1, 1}), error_counters());
    EXPECT_EQ(reinterpret_cast<void *>(0x1234), cq);
    EXPECT_EQ(77u, actual);
    EXPECT_EQ(0u, hca::call_count("VAPI_create_cq"));
    EXPECT_EQ(0, alloc_num("mem_cq_ix"));
    EXPECT_EQ(0, stats()["cq_num"]);
    EXPECT_EQ(0, ring_ix());
    close_hca(hca_);
}

TEST_F(Cq, VapiCreateFailureFreesTheRecord) {
    open();
    const size_t before = module_allocations();
    hca::inject_fault("VAPI_create_cq", "InfiniHost0", VAPI_ENOMEM);
    k::log_clear();
    void *cq = nullptr;
    uint32_t actual = 0;
    EXPECT_EQ(kQErr, ulp_cq_create(provider(), hca_, 100, &CompletionSink::callback, nullptr, &cq, &actual));
    EXPECT_EQ((std::vector<std::string>{ad_error(
                  "oxi_mlx_cq_create", "MLXAD_ERR: VAPI Fail to create CQ, hca_h: 0 (mlx:-252, MLX)")}),
              log());
    EXPECT_EQ((std::vector<long long>{1, 1, 1, 1, 0, 0}), error_counters());
    expect_ring(0, "cq_create_indx", VAPI_ENOMEM);
    EXPECT_EQ(1, ring_ix());
    EXPECT_EQ(nullptr, cq);
    EXPECT_EQ(0, alloc_num("mem_cq_ix"));
    EXPECT_EQ(0, cq_list_count(hca_));
    EXPECT_EQ(0, stats()["cq_num"]);
    EXPECT_EQ(before, module_allocations());
    close_hca(hca_);
}

TEST_F(Cq, HandlerRegistrationFailureLeavesAUsableCountedCq) {
    open();
    hca::inject_fault("EVAPI_set_comp_eventh", "InfiniHost0", VAPI_EGEN);
    k::log_clear();
    int context = 0;
    void *cq = nullptr;
    uint32_t actual = 0;
    EXPECT_EQ(kQErr, ulp_cq_create(provider(), hca_, 100, &CompletionSink::callback, &context, &cq, &actual));
    ASSERT_NE(nullptr, cq);
    EXPECT_EQ(
        (std::vector<std::string>{ad_error(
            "oxi_mlx_cq_create", "MLXAD_ERR: EVAPI Fail to register CQ event handler, hca_h: 0, user cq h: " +
                                     kptr(cq) + ", mlx cq h: 1 (mlx:-255, MLX)")}),
        log());
    // Counted as a VAPI failure but not as an error; the CQ is created, listed and counted.
    EXPECT_EQ((std::vector<long long>{0, 0, 1, 1, 0, 0}), error_counters());
    expect_ring(0, "req_comp_cq_indx", VAPI_EGEN);
    EXPECT_EQ(cq, cq_slot(hca_, 1));
    EXPECT_EQ(cq, cq_list_first(hca_));
    EXPECT_EQ(1, stats()["cq_num"]);
    EXPECT_EQ(1, alloc_num("mem_cq_ix"));
    EXPECT_EQ(0, cq_record(cq)["comp_handler_hndl"]);
    EXPECT_EQ(1u, hca::cq_count("InfiniHost0"));

    // Usable through the handle it returned ...
    uint32_t size = 0;
    void *ctx = nullptr;
    EXPECT_EQ(kQOk, ulp_cq_query(provider(), hca_, cq, &size, &ctx));
    EXPECT_EQ(127u, size);
    EXPECT_EQ(&context, ctx);
    // ... and destroyed by the caller: there is no handler to clear, which is reported, and the CQ goes.
    EXPECT_EQ(kQOk, ulp_cq_destroy(provider(), hca_, cq));
    EXPECT_EQ(0u, hca::cq_count("InfiniHost0"));
    EXPECT_EQ(0, stats()["cq_num"]);
    expect_ring(1, "del_comp_cq_indx", VAPI_EINVAL_COMPL_HNDL);
    close_hca(hca_);
}

TEST_F(Cq, QueryReturnsSizeAndContext) {
    set_debug_level(4);
    open();
    int context = 0;
    void *cq = create_cq(100, &context);
    k::log_clear();
    uint32_t size = 0;
    void *ctx = nullptr;
    ASSERT_EQ(kQOk, ulp_cq_query(provider(), hca_, cq, &size, &ctx));
    EXPECT_EQ(127u, size);
    EXPECT_EQ(&context, ctx);
    EXPECT_EQ((std::vector<std::string>{ad_debug("oxi_mlx_cq_query", "cq_size: 127")}), log());
    destroy_cq(cq);
    close_hca(hca_);
}

TEST_F(Cq, QueryFailureCountsWithoutRingAndStoresNoContext) {
    open();
    int context = 0;
    void *cq = create_cq(100, &context);
    hca::inject_fault("VAPI_query_cq", "InfiniHost0", VAPI_EINVAL_CQ_HNDL);
    k::log_clear();
    uint32_t size = 0;
    void *ctx = reinterpret_cast<void *>(0x77);
    EXPECT_EQ(kQErr, ulp_cq_query(provider(), hca_, cq, &size, &ctx));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_cq_query", "MLX Fail to query CQ, hca_h: 0, cq_h: " + hex(1) +
                                                   ", user cq handle: " + kptr(cq) + " (mlx:-240, MLX)")}),
              log());
    EXPECT_EQ((std::vector<long long>{1, 1, 1, 1, 0, 0}), error_counters());
    EXPECT_EQ(0, ring_ix());
    EXPECT_EQ(reinterpret_cast<void *>(0x77), ctx);
    destroy_cq(cq);
    close_hca(hca_);
}

TEST_F(Cq, ResizeAndItsFailure) {
    set_debug_level(4);
    open();
    void *cq = create_cq(100);
    k::log_clear();
    uint32_t actual = 0;
    ASSERT_EQ(kQOk, ulp_cq_resize(provider(), hca_, cq, 300, &actual));
    EXPECT_EQ(511u, actual);
    EXPECT_EQ((std::vector<std::string>{
                  ad_debug("oxi_mlx_cq_resize", "resize CQ for cq_h: " + hex(1) + ", user cq h: " + kptr(cq) +
                                                    ", actual size:requested size  511:300")}),
              log());
    uint32_t size = 0;
    void *ctx = nullptr;
    ASSERT_EQ(kQOk, ulp_cq_query(provider(), hca_, cq, &size, &ctx));
    EXPECT_EQ(511u, size);

    hca::inject_fault("VAPI_resize_cq", "InfiniHost0", VAPI_E2BIG_CQ_NUM);
    k::log_clear();
    EXPECT_EQ(kQErr, ulp_cq_resize(provider(), hca_, cq, 1000, &actual));
    EXPECT_EQ(
        (std::vector<std::string>{ad_error(
            "oxi_mlx_cq_resize", "MLX Fail to resize CQ, hca_h: 0, cq_h: " + hex(1) + ", user cq h: " +
                                     kptr(cq) + "(mlx:" + std::to_string(VAPI_E2BIG_CQ_NUM) + ", MLX)")}),
        log());
    EXPECT_EQ((std::vector<long long>{1, 1, 1, 1, 0, 0}), error_counters());
    EXPECT_EQ(0, ring_ix());
    EXPECT_EQ(1, cq_record(cq)["cq_h"]);
    ASSERT_EQ(kQOk, ulp_cq_query(provider(), hca_, cq, &size, &ctx));
    EXPECT_EQ(511u, size);
    destroy_cq(cq);
    close_hca(hca_);
}

TEST_F(Cq, ModifyAttribReplacesOnlyWhatIsGiven) {
    set_debug_level(5);
    open();
    int first = 0, second = 0;
    void *cq = create_cq(100, &first);
    auto rec = cq_record(cq);
    k::log_clear();
    // Both null: nothing changes.
    EXPECT_EQ(kQOk, ulp_cq_modify_attrib(provider(), hca_, cq, nullptr, nullptr));
    EXPECT_EQ(reinterpret_cast<long long>(&first), rec["cq_oxuser_context"]);
    EXPECT_EQ(reinterpret_cast<long long>(&CompletionSink::callback), rec["app_com_callback"]);
    // The context alone.
    EXPECT_EQ(kQOk, ulp_cq_modify_attrib(provider(), hca_, cq, &second, nullptr));
    EXPECT_EQ(reinterpret_cast<long long>(&second), rec["cq_oxuser_context"]);
    EXPECT_EQ(reinterpret_cast<long long>(&CompletionSink::callback), rec["app_com_callback"]);
    // The callback alone.
    EXPECT_EQ(kQOk, ulp_cq_modify_attrib(provider(), hca_, cq, nullptr, &CompletionSink::other_callback));
    EXPECT_EQ(reinterpret_cast<long long>(&second), rec["cq_oxuser_context"]);
    EXPECT_EQ(reinterpret_cast<long long>(&CompletionSink::other_callback), rec["app_com_callback"]);
    // No VAPI call, no lock, no log, nothing counted.
    EXPECT_TRUE(log().empty());
    EXPECT_EQ((std::vector<long long>{0, 0, 0, 0, 0, 0}), error_counters());
    uint32_t size = 0;
    void *ctx = nullptr;
    ASSERT_EQ(kQOk, ulp_cq_query(provider(), hca_, cq, &size, &ctx));
    EXPECT_EQ(&second, ctx);
    destroy_cq(cq);
    close_hca(hca_);
}

TEST_F(Cq, ClearingTheHandlerFailsAndTheCqIsDestroyedAnyway) {
    open();
    void *cq = create_cq();
    hca::inject_fault("EVAPI_clear_comp_eventh", "InfiniHost0", VAPI_EGEN);
    k::log_clear();
    EXPECT_EQ(kQOk, ulp_cq_destroy(provider(), hca_, cq));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_cq_destroy",
                           "MLXAD_ERR: ERROR - EVAPI Fail to clear CQ event handler, hca_h: 0, user cq h: " +
                               kptr(cq) + ", mlx cq h: 1 (mlx:-255, MLX)"),
                  ad_error("oxi_mlx_cq_destroy",
                           "MLXAD_ERR: ERROR completion handler will oops !!! (free the opened cq struct)"),
              }),
              log());
    EXPECT_EQ((std::vector<long long>{1, 1, 1, 1, 0, 0}), error_counters());
    expect_ring(0, "del_comp_cq_indx", VAPI_EGEN);
    EXPECT_EQ(0u, hca::cq_count("InfiniHost0"));
    EXPECT_EQ(0, cq_list_count(hca_));
    EXPECT_EQ(nullptr, cq_slot(hca_, 1));
    EXPECT_EQ(0, stats()["cq_num"]);
    EXPECT_EQ(0, alloc_num("mem_cq_ix"));
    close_hca(hca_);
}

TEST_F(Cq, DestroyFailureLeavesTheRecordListedAndCounted) {
    open();
    void *cq = create_cq();
    hca::inject_fault("VAPI_destroy_cq", "InfiniHost0", VAPI_EBUSY);
    k::log_clear();
    EXPECT_EQ(kQErr, ulp_cq_destroy(provider(), hca_, cq));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_cq_destroy", "MLX Fail to destroy CQ, hca_h: 0, cq_h: " + hex(1) +
                                                     ", user cq h: " + kptr(cq) + " (mlx:-251, MLX)")}),
              log());
    EXPECT_EQ((std::vector<long long>{1, 1, 1, 1, 0, 0}), error_counters());
    expect_ring(0, "cq_destroy_indx", VAPI_EBUSY);
    EXPECT_EQ(cq, cq_list_first(hca_));
    EXPECT_EQ(cq, cq_slot(hca_, 1));
    EXPECT_EQ(1, stats()["cq_num"]);
    EXPECT_EQ(1, alloc_num("mem_cq_ix"));
    EXPECT_EQ(1u, hca::cq_count("InfiniHost0"));

    // A second destroy finds the handler already cleared (reported) and completes.
    EXPECT_EQ(kQOk, ulp_cq_destroy(provider(), hca_, cq));
    expect_ring(1, "del_comp_cq_indx", VAPI_EINVAL_COMPL_HNDL);
    EXPECT_EQ(0, cq_list_count(hca_));
    EXPECT_EQ(0, stats()["cq_num"]);
    EXPECT_EQ(0u, hca::cq_count("InfiniHost0"));
    close_hca(hca_);
}

}  // namespace
}  // namespace adaptor_test
