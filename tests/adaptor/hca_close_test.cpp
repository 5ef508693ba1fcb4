// HCA close: the teardown in order, records an upper layer left behind, the borrowed handle, and
// every step that fails while the teardown goes on.
#include <cerrno>

#include "adaptor_fixture.hpp"

namespace adaptor_test {
namespace {


class HcaClose : public AdaptorFixture {
  protected:
    void SetUp() override {
        AdaptorFixture::SetUp();
        set_debug_level(4);
        load_ok();
        baseline_ = module_allocations();
    }
    int close(void *hca) { return ulp_hca_close(provider(), hca); }
    size_t baseline_ = 0;
};

TEST_F(HcaClose, TearsDownInOrder) {
    void *hca = open_hca("InfiniHost0");
    auto rec = hca_record(hca);
    const std::string qp_array = kptr(reinterpret_cast<void *>(rec["opened_qp_array"]));
    const std::string cq_array = kptr(reinterpret_cast<void *>(rec["opened_cq_array"]));
    const long long mr_rows = alloc_num("mem_mr_ix");
    k::log_clear();
    EXPECT_EQ(kOk, close(hca));
    const std::string f = "oxi_mlx_hca_close", gen = "ox_mlx_destroy_gen_mem_reg";
    EXPECT_EQ(
        (std::vector<std::string>{
            ad_debug(f, "close hca_h: 0, will free adaptor internal data"),
            ad_debug(gen, "look for generic mr_h in the list and deregister the mem (hca_h: 0)"),
            ad_debug(gen, "foud 1, mem_reg_h: 1, remove from list"),
            ad_debug("oxi_mlx_mem_region_destroy", "Destroy MR, hca_h: 0, v_mem_h: 1"),
            ad_debug(gen, "num of gen MR: -1 (hca_h: 0)"),
            ad_debug(f, "dealloc pd_h: 1, hca_h: 0, PD global statistic: 0"),
            ad_debug(f, "Look for CQ element - need to be empty if we are dealing with good applications"),
            ad_debug(f, "Look for QP element - need to be empty if we are dealing with good applications"),
            ad_debug("ox_mlx_destroy_async_events", "Remove and free from list 0 elements"),
            ad_debug(f, "Free opened_qp_array: " + qp_array + ", opened_cq_array: " + cq_array),
            ad_debug(f, "going to close hca"),
            ad_debug(f, "Free ox_opened_hca_t for hca_h: 0 (struct hca_h: 0)"),
            ad_debug(f, "opened device number:0"),
        }),
        without_lock_trace(log()));
    // The unlink from the global list is the only step under the adaptor lock.
    EXPECT_EQ(3u, count_with(log(), "ADAPTOR_"));
    EXPECT_EQ(1u, count_with(log(), "---->b ADAPTOR_LOCK cpu[0] ("));

    auto s = stats();
    EXPECT_EQ(0, s["opend_device_num"]);
    EXPECT_EQ(0, s["pd_num"]);
    EXPECT_EQ(0, s["mr_num"]);
    EXPECT_EQ(0, s["error_num"]);
    EXPECT_EQ(nullptr, adp_list_first(sym<void>("g_opened_mlx_hcas_list")));
    for (const char *row : {"mem_hca_ix", "mem_opened_cq_array_ix", "mem_opened_qp_array_ix"})
        EXPECT_EQ(0, alloc_num(row)) << row;
    // The generic element is freed without being uncounted: each open and close leaves the row one
    // higher.
    EXPECT_EQ(mr_rows, alloc_num("mem_mr_ix"));
    EXPECT_EQ(1, alloc_num("mem_mr_ix"));
    EXPECT_EQ(0, *sym<uint32_t>("mem_statistic_err"));
    EXPECT_EQ(baseline_, module_allocations());
    EXPECT_FALSE(hca::is_open("InfiniHost0"));
    EXPECT_FALSE(hca::has_async_handler("InfiniHost0"));
    EXPECT_EQ(0u, hca::resource_count("InfiniHost0"));
    EXPECT_EQ(0u, k::find_module("adaptor_mlx")->refcount);

    void *again = open_hca("InfiniHost0");
    close_hca(again);
    EXPECT_EQ(2, alloc_num("mem_mr_ix"));
}

TEST_F(HcaClose, FreesTheCqAndQpRecordsLeftBehindWithoutDestroyingThem) {
    void *hca = open_hca("InfiniHost0");
    void *cq_low = adp_link_cq_record(hca, 7);
    void *cq_high = adp_link_cq_record(hca, 4000);
    void *qp = adp_link_qp_record(hca, 12);
    size_t live = 0;
    for (const auto &a : k::live_allocations(nullptr, true))
        live += (a.ptr == cq_low || a.ptr == cq_high || a.ptr == qp);
    ASSERT_EQ(3u, live);
    // As CQ and QP creation would have counted them.
    auto s = stats();
    s.set("cq_num", 2);
    s.set("last_cq_num", 2);
    s.set("qp_num", 1);
    s.set("last_qp_num", 1);
    auto add = [&](const char *row) { adp_call_mem_alloc(sym<void>("mem_alloc_add"), mem_ix(row)); };
    add("mem_cq_ix");
    add("mem_cq_ix");
    add("mem_qp_ix");
    k::log_clear();
    EXPECT_EQ(kOk, close(hca));
    const std::string f = "oxi_mlx_hca_close";
    auto lines = without_lock_trace(log());
    auto at = [&](const std::string &line) {
        return std::find(lines.begin(), lines.end(), line) - lines.begin();
    };
    const auto cq_header =
        at(ad_debug(f, "Look for CQ element - need to be empty if we are dealing with good applications"));
    ASSERT_LT(cq_header + 7, static_cast<long>(lines.size()));
    EXPECT_EQ(
        (std::vector<std::string>{
            ad_debug(f, "hca_h: 0, free opened_cq_p for cq_h: 4000"),
            ad_debug(f, "opened CQ number:1"),
            ad_debug(f, "hca_h: 0, free opened_cq_p for cq_h: 7"),
            ad_debug(f, "opened CQ number:0"),
            ad_debug(f, "Look for QP element - need to be empty if we are dealing with good applications"),
            ad_debug(f, "hca_h: 0, free opened_qp_p for qp_h: 12"),
            ad_debug(f, "opened QP number:0"),
        }),
        std::vector<std::string>(lines.begin() + cq_header + 1, lines.begin() + cq_header + 8));
    EXPECT_EQ(0, s["cq_num"]);
    EXPECT_EQ(0, s["last_cq_num"]);
    EXPECT_EQ(0, s["qp_num"]);
    EXPECT_EQ(0, s["last_qp_num"]);
    EXPECT_EQ(0, alloc_num("mem_cq_ix"));
    EXPECT_EQ(0, alloc_num("mem_qp_ix"));
    EXPECT_EQ(0ul, hca::call_count("VAPI_destroy_cq"));
    EXPECT_EQ(0ul, hca::call_count("VAPI_destroy_qp"));
    // The records themselves were freed.
    for (const auto &a : k::live_allocations(nullptr, true)) {
        EXPECT_NE(cq_low, a.ptr);
        EXPECT_NE(cq_high, a.ptr);
        EXPECT_NE(qp, a.ptr);
    }
}

TEST_F(HcaClose, DiscardsTheAsynchronousRegistrations) {
    void *hca = open_hca("InfiniHost0");
    adp_link_async_registration(hca);
    adp_link_async_registration(hca);
    stats().set("registered_async_event_cb_num", 2);
    stats().set("last_registered_async_event_cb_num", 2);
    k::log_clear();
    EXPECT_EQ(kOk, close(hca));
    EXPECT_TRUE(
        contains(log(), ad_debug("ox_mlx_destroy_async_events", "Remove and free from list 2 elements")));
    EXPECT_EQ(0, stats()["registered_async_event_cb_num"]);
    EXPECT_EQ(0, stats()["last_registered_async_event_cb_num"]);
    EXPECT_EQ(0, alloc_num("mem_async_ix"));  // never counted by teardown
}

TEST_F(HcaClose, AGenericRegistrationArrayIsFreedAndUncounted) {
    // Open never sets the array; were it set, close frees it and uncounts its row, which open
    // never counted: the accounting reports the release of an uncounted kind.
    void *hca = open_hca("InfiniHost0");
    void *array = adp_kmalloc(64);
    hca_record(hca).set("gen_mem_array_p", reinterpret_cast<long long>(array));
    k::log_clear();
    EXPECT_EQ(kOk, close(hca));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("mem_alloc_del", "g_alloc_mem_array[6].alloc_num == 0, mem_statistic_err: 1")}),
              at_level(log(), "ERROR  "));
    EXPECT_EQ(1u, *sym<uint32_t>("mem_statistic_err"));
    for (const auto &a : k::live_allocations(nullptr, true)) EXPECT_NE(array, a.ptr);
}

TEST_F(HcaClose, ABorrowedHandleIsReleasedNotClosed) {
    void *owner = open_hca("InfiniHost1");
    void *borrower = open_hca("InfiniHost1");
    k::log_clear();
    EXPECT_EQ(kOk, close(borrower));
    EXPECT_EQ(1ul, hca::call_count("EVAPI_release_hca_hndl"));
    EXPECT_EQ(0ul, hca::call_count("VAPI_close_hca"));
    EXPECT_TRUE(hca::is_open("InfiniHost1"));
    // The borrower's generic PD and region went, the owner's stay.
    EXPECT_EQ(2u, hca::resource_count("InfiniHost1"));
    EXPECT_EQ(1, stats()["opend_device_num"]);
    EXPECT_EQ(1u, k::find_module("adaptor_mlx")->refcount);
    EXPECT_EQ(kOk, close(owner));
    EXPECT_EQ(1ul, hca::call_count("VAPI_close_hca"));
}

TEST_F(HcaClose, EveryFailingStepIsCountedAndTheTeardownGoesOn) {
    void *hca = open_hca("InfiniHost0");
    const unsigned ring_before = *exported<uint32_t>("current_avail_ix");
    hca::inject_fault("VAPI_set_async_event_handler", "InfiniHost0", VAPI_EGEN);
    hca::inject_fault("VAPI_deregister_mr", "InfiniHost0", VAPI_EBUSY);
    hca::inject_fault("VAPI_dealloc_pd", "InfiniHost0", VAPI_EBUSY);
    k::log_clear();
    EXPECT_EQ(kOk, close(hca));  // only the final close decides
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_hca_close",
                           "MLXAD_ERR: VAPI Fail to deregister async event callback for "
                           "device handle: 0 (mlx:-255, MLX)"),
                  ad_error("oxi_mlx_mem_region_destroy",
                           "MLXAD_ERR: VAPI Fail to destroy MR, hca_h: 0, v_mem_h: 1 (mlx:-251, MLX)"),
                  ad_error("ox_mlx_destroy_gen_mem_reg", "Fail to deregister mr_h: 1, hca_h: 0"),
                  ad_error("oxi_mlx_hca_close",
                           "MLXAD_ERR: VAPI Fail to de-allocate PD, The hca_h: 0 (mlx:-251, MLX)"),
              }),
              at_level(log(), "ERROR  "));
    auto s = stats();
    EXPECT_EQ(3, s["error_num"]);
    EXPECT_EQ(3, s["VAPI_error_num"]);
    EXPECT_EQ(3, s["last_VAPI_error_num"]);
    EXPECT_EQ(1, s["pd_num"]);  // the generic PD was not released
    EXPECT_EQ(1, s["mr_num"]);
    // Close's own failures write no ring entry; the region destroy writes its own.
    EXPECT_EQ(ring_before + 1, *exported<uint32_t>("current_avail_ix"));
    EXPECT_EQ(module_const("mem_region_destroy_indx"), ring_entry(ring_before)["func_ix_st"]);
    EXPECT_EQ(0, s["opend_device_num"]);
    EXPECT_EQ(baseline_, module_allocations());
    EXPECT_EQ(0u, k::find_module("adaptor_mlx")->refcount);
}

TEST_F(HcaClose, AFailedCloseOfTheDeviceReturnsAnErrorAndStillFreesTheRecord) {
    void *hca = open_hca("InfiniHost0");
    hca::inject_fault("VAPI_close_hca", "InfiniHost0", VAPI_EINVAL_HCA_HNDL);
    k::log_clear();
    EXPECT_EQ(kErr, close(hca));
    EXPECT_EQ((std::vector<std::string>{ad_error(
                  "oxi_mlx_hca_close", "MLXAD_ERR: VAPI Fail to close device handle: 0 (mlx:-244, MLX)")}),
              at_level(log(), "ERROR  "));
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
    EXPECT_EQ(0u, *exported<uint32_t>("current_avail_ix"));
    EXPECT_EQ(0, stats()["opend_device_num"]);
    EXPECT_EQ(0, alloc_num("mem_hca_ix"));
    EXPECT_EQ(baseline_, module_allocations());
    EXPECT_EQ(0u, k::find_module("adaptor_mlx")->refcount);
    EXPECT_EQ(0, k::rmmod("adaptor_mlx"));
}

TEST_F(HcaClose, AFailedReleaseOfABorrowedHandle) {
    void *owner = open_hca("InfiniHost0");
    void *borrower = open_hca("InfiniHost0");
    hca::inject_fault("EVAPI_release_hca_hndl", "InfiniHost0", VAPI_EGEN);
    k::log_clear();
    EXPECT_EQ(kErr, close(borrower));
    EXPECT_TRUE(contains(log(), ad_error("oxi_mlx_hca_close",
                                         "MLXAD_ERR: VAPI Fail to close device handle: 0 (mlx:-255, MLX)")));
    EXPECT_EQ(kOk, close(owner));
}

}  // namespace
}  // namespace adaptor_test
