// HCA open through the provider table and the exported symbols: the record, the generic PD and
// region, the module reference, the generator timer, and every failure path.
#include <cerrno>
#include <regex>

#include "adaptor_fixture.hpp"

namespace adaptor_test {
namespace {

constexpr unsigned long long kGenMrSize = 0xFFFFFFFFFFFFC000ull;

class HcaOpen : public AdaptorFixture {
  protected:
    int try_open(const char *name, void **hca, void *context = nullptr) {
        return ulp_hca_open(provider(), name, context, hca);
    }
    unsigned refcount() { return k::find_module("adaptor_mlx")->refcount; }
    void *opened_list_head() { return sym<void>("g_opened_mlx_hcas_list"); }
    // The generic registration element of an open HCA.
    RecordView gen_element(void *hca) {
        return RecordView("ox_gen_mr_element_t", adp_list_first(hca_record(hca).at("generic_mem_reg_list")));
    }
};

TEST_F(HcaOpen, LogsEveryStepInOrder) {
    set_debug_level(4);
    load_ok();
    k::log_clear();
    int context = 0;
    void *hca = open_hca("InfiniHost0", &context);
    ASSERT_NE(nullptr, hca);
    auto rec = hca_record(hca);
    auto gen = gen_element(hca);
    const std::string f = "oxi_mlx_hca_open", reg = "ox_mlx_gen_mr_register",
                      phy = "oxi_mlx_phy_mem_region_register", pd = "oxi_mlx_pd_allocate";
    const unsigned long ram = 0x800000000000ul - 0x10000000000ul;
    std::vector<std::string> expected = {
        ad_debug(f, "opened_hca_p: " + kptr(hca)),
        ad_debug(f,
                 "opened_hca_p->opened_cq_array: " + kptr(reinterpret_cast<void *>(rec["opened_cq_array"]))),
        ad_debug(f,
                 "opened_hca_p->opened_qp_array: " + kptr(reinterpret_cast<void *>(rec["opened_qp_array"]))),
        ad_debug(f, "device name: InfiniHost0"),
        ad_debug(f, "after VAPI_open_hca() stat: 0 (MLX)"),
        ad_debug(f, "get the hca_h by VAPI_open_hca (get_hca_h_by_open = true)"),
        ad_debug(f, "New hca_h: 0"),
        ad_debug(f, "ox_opened_hca_t struct: hca_h: 0, app_hca_h: " + kptr(&context)),
        ad_debug(f, "set commpletion event handler for hca_h: 0"),
        ad_debug(pd, "MLX pd_h is 64bit"),
        ad_debug(pd, "New pd_h: 1, hca_h: 0"),
        ad_debug(f, "generic pd_h: 1  for hca_h: 0"),
        ad_debug(reg, ""),
        "Num_of_byte_in_ram: " + std::to_string(ram),
        "End_addr_of_ram: 0000800000000000",
        "Num_of_byte_to_register: " + std::to_string(ram - 4096),
        "",
        "",
        ad_debug(reg, "Doing Physical RAM registration in 1 MR"),
        ad_debug(reg, "Phyical registration size: 68719476736"),
        ad_debug(phy, "iova_request: 0, length: -16384, offset: 0, number_of_buff: 1"),
        ad_debug(phy, "phy_list add: 0, phy_list length: 18446744073709535232"),
        ad_debug(phy, "New p_mem_h: 1, hca_h: 0, l_key: " + std::to_string(gen["l_key"]) +
                          ", r_key: " + std::to_string(gen["r_key"]) + ", IOVA: 0"),
        ad_debug(reg, "1. temp_gen_mr_element_p: " + kptr(gen.base())),
        ad_debug(reg, ""),
        "",
        "     OK Physical Register the RAM in 1 MR",
        "",
        "",
        "",
        "",
        ad_debug(f, "after hca query hca_attrib.port_num: 2"),
        ad_debug(f, "ADAPT_TAVOT_TIMER_CALL_COM - will init the timer"),
        ad_debug(f, "opened_hca_p: " + kptr(hca)),
    };
    auto lines = log();
    EXPECT_EQ(expected, without_lock_trace(lines));

    // The list insertions take the adaptor lock, traced before taking, once held and before release.
    std::vector<std::string> locks;
    for (const auto &l : lines)
        if (is_lock_trace(l)) locks.push_back(l);
    ASSERT_EQ(6u, locks.size());
    const std::regex take(
        R"(DEBUG   : AD_TAVOR : (\w+):\(adaptor_tavor\):---->b ADAPTOR_LOCK cpu\[0\] \(.*adaptor-tavor/hca-open\.cpp\(\d+\) (\w+)\(\)\))");
    const std::regex held(
        R"(DEBUG   : AD_TAVOR : (\w+):\(adaptor_tavor\):---->ADAPTOR_LOCK cpu\[0\] \(.*adaptor-tavor/hca-open\.cpp\(\d+\) (\w+)\(\)\))");
    const std::regex release(
        R"(DEBUG   : AD_TAVOR : (\w+):\(adaptor_tavor\):---->ADAPTOR_UNLOCK cpu\[0\] \(.*adaptor-tavor/hca-open\.cpp\(\d+\) (\w+)\(\)\))");
    EXPECT_TRUE(std::regex_match(locks[0], take)) << locks[0];
    EXPECT_TRUE(std::regex_match(locks[1], held)) << locks[1];
    EXPECT_TRUE(std::regex_match(locks[2], release)) << locks[2];
    EXPECT_NE(std::string::npos, locks[0].find(" oxi_mlx_hca_open())"));
    EXPECT_TRUE(std::regex_match(locks[3], take)) << locks[3];
    EXPECT_NE(std::string::npos, locks[3].find(" ox_mlx_gen_mr_register())"));
    EXPECT_TRUE(std::regex_match(locks[5], release)) << locks[5];
    close_hca(hca);
}

TEST_F(HcaOpen, TheRecordAndTheGenericPair) {
    load_ok();
    int context = 0;
    void *hca = open_hca("InfiniHost1", &context);
    ASSERT_NE(nullptr, hca);
    auto rec = hca_record(hca);
    EXPECT_EQ(1, rec["hca_h"]);  // the software HCA's handle of its second device
    EXPECT_EQ(reinterpret_cast<long long>(&context), rec["app_hca_h"]);
    EXPECT_EQ(1, rec["get_hca_h_by_open"]);
    EXPECT_EQ(2, rec["hca_cap_query.port_num"]);
    EXPECT_EQ(0, rec["num_of_gen_mem_reg"]);
    EXPECT_EQ(0, rec["gen_mem_array_p"]);
    EXPECT_NE(0, rec["opened_cq_array"]);
    EXPECT_NE(0, rec["opened_qp_array"]);
    EXPECT_EQ(0, adp_list_count(rec.at("opened_cq_list")));
    EXPECT_EQ(0, adp_list_count(rec.at("opened_qp_list")));
    EXPECT_EQ(0, adp_list_count(rec.at("events_lists.reg_for_async")));
    EXPECT_EQ(reinterpret_cast<long long>(sym<void>("ox_call_app_async_event_cb")),
              rec["events_lists.async_tasklet.func"]);
    EXPECT_EQ(0, rec["events_lists.async_tasklet.data"]);
    // Newest first on the global list.
    EXPECT_EQ(hca, adp_list_first(opened_list_head()));
    EXPECT_EQ(1, adp_list_count(opened_list_head()));

    // The generic PD is a PD of the device; the generic region covers physical memory from 0.
    uint32_t gen_pd = 0;
    ASSERT_EQ(kOk, ulp_get_gen_pd_h(provider(), hca, &gen_pd));
    EXPECT_EQ(rec["generic_pd_h"], gen_pd);
    EXPECT_NE(0u, gen_pd);
    EXPECT_EQ(1u, hca::pd_count("InfiniHost1"));
    EXPECT_EQ(1u, hca::mr_count("InfiniHost1"));
    EXPECT_TRUE(hca::has_async_handler("InfiniHost1"));
    ASSERT_EQ(1, adp_list_count(rec.at("generic_mem_reg_list")));
    auto gen = gen_element(hca);
    ulp_mr_attrib mr{};
    ASSERT_EQ(kOk, ulp_mr_query(provider(), hca, static_cast<uint64_t>(gen["mr_h"]), &mr));
    EXPECT_EQ(1, gen["hca_h"]);
    EXPECT_EQ(static_cast<long long>(gen_pd), gen["pd_h"]);
    EXPECT_EQ(gen_pd, mr.pd);
    EXPECT_EQ(0, gen["start_mr"]);
    EXPECT_EQ(0, gen["length"]);
    EXPECT_EQ(0, gen["end_mr"]);
    EXPECT_EQ(7, gen["access_con"]);
    EXPECT_EQ(7u, mr.access);
    EXPECT_EQ(static_cast<long long>(mr.l_key), gen["l_key"]);
    EXPECT_EQ(static_cast<long long>(mr.r_key), gen["r_key"]);
    EXPECT_EQ(0, gen["iova"]);
    EXPECT_EQ(nullptr, mr.local_addr);
    EXPECT_EQ(kGenMrSize, mr.local_length);
    EXPECT_EQ(static_cast<long long>(kGenMrSize), gen["phy_length"]);
    EXPECT_EQ(0, gen["phy_offset"]);

    auto s = stats();
    EXPECT_EQ(1, s["opend_device_num"]);
    EXPECT_EQ(1, s["pd_num"]);
    EXPECT_EQ(1, s["last_pd_num"]);
    EXPECT_EQ(1, s["mr_num"]);
    EXPECT_EQ(1, s["last_mr_num"]);
    EXPECT_EQ(0, s["error_num"]);
    for (const char *row : {"mem_hca_ix", "mem_opened_cq_array_ix", "mem_opened_qp_array_ix", "mem_mr_ix"})
        EXPECT_EQ(1, alloc_num(row)) << row;
    EXPECT_EQ(1ul, hca::call_count("VAPI_open_hca"));
    EXPECT_EQ(0ul, hca::call_count("EVAPI_get_hca_hndl"));
    EXPECT_EQ(1ul, hca::call_count("VAPI_query_hca_cap"));
    close_hca(hca);
}

TEST_F(HcaOpen, TheExportedSymbolOpensToo) {
    load_ok();
    void *hca = nullptr;
    ASSERT_EQ(kOk, ulp_hca_open(exported_table(), "InfiniHost0", nullptr, &hca));
    ASSERT_NE(nullptr, hca);
    EXPECT_TRUE(hca::is_open("InfiniHost0"));
    EXPECT_EQ(kOk, ulp_hca_close(exported_table(), hca));
    EXPECT_FALSE(hca::is_open("InfiniHost0"));
}

TEST_F(HcaOpen, AnOpenHcaHoldsTheModule) {
    load_ok();
    EXPECT_EQ(0u, refcount());
    void *first = open_hca("InfiniHost0");
    void *second = open_hca("InfiniHost1");
    EXPECT_EQ(2u, refcount());
    EXPECT_EQ(-EBUSY, k::rmmod("adaptor_mlx"));
    close_hca(second);
    EXPECT_EQ(1u, refcount());
    EXPECT_EQ(-EBUSY, k::rmmod("adaptor_mlx"));
    close_hca(first);
    EXPECT_EQ(0u, refcount());
    unload();
    EXPECT_EQ(0u, module_allocations());
}

TEST_F(HcaOpen, ANameOf32CharactersIsRefused) {
    load_ok();
    k::log_clear();
    void *hca = reinterpret_cast<void *>(0x1234);
    EXPECT_EQ(kHcaName, try_open(std::string(32, 'H').c_str(), &hca));
    EXPECT_EQ(reinterpret_cast<void *>(0x1234), hca);
    EXPECT_EQ((std::vector<std::string>{ad_error("oxi_mlx_hca_open", "error:")}), log());
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(1, stats()["last_error_num"]);
    EXPECT_EQ(0, stats()["VAPI_error_num"]);
    EXPECT_EQ(0u, refcount());
    EXPECT_EQ(0ul, hca::call_count("VAPI_open_hca"));
    EXPECT_EQ(0, alloc_num("mem_hca_ix"));

    // 31 characters fit: the name reaches VAPI (which knows no such device).
    EXPECT_EQ(kErr, try_open(std::string(31, 'H').c_str(), &hca));
    EXPECT_EQ(1ul, hca::call_count("VAPI_open_hca"));
}

TEST_F(HcaOpen, TheSameHcaOpenedTwiceSharesTheVapiHandle) {
    set_debug_level(4);
    load_ok();
    void *first = open_hca("InfiniHost0");
    k::log_clear();
    void *second = open_hca("InfiniHost0");
    ASSERT_NE(first, second);
    auto lines = log();
    EXPECT_TRUE(contains(lines, ad_debug("oxi_mlx_hca_open", "after VAPI_open_hca() stat: " +
                                                                 std::to_string(VAPI_EBUSY_HCA) + " (MLX)")));
    EXPECT_TRUE(contains(
        lines, ad_debug("oxi_mlx_hca_open", "Will try to get HCA handle (if Device is alredy open)")));
    EXPECT_TRUE(contains(lines, ad_debug("oxi_mlx_hca_open",
                                         "get the hca_h by EVAPI_get_hca_hndl (get_hca_h_by_open = false)")));
    EXPECT_EQ(0, hca_record(second)["get_hca_h_by_open"]);
    EXPECT_EQ(1, hca_record(first)["get_hca_h_by_open"]);
    EXPECT_EQ(hca_record(first)["hca_h"], hca_record(second)["hca_h"]);
    EXPECT_NE(hca_record(first)["generic_pd_h"], hca_record(second)["generic_pd_h"]);
    EXPECT_EQ(2, stats()["opend_device_num"]);
    EXPECT_EQ(2, adp_list_count(opened_list_head()));
    EXPECT_EQ(second, adp_list_first(opened_list_head()));
    EXPECT_EQ(0, stats()["error_num"]);  // the refused VAPI_open_hca is not a failure of the open

    // The borrowed handle is released, the device stays open for the first record.
    close_hca(second);
    EXPECT_EQ(1ul, hca::call_count("EVAPI_release_hca_hndl"));
    EXPECT_EQ(0ul, hca::call_count("VAPI_close_hca"));
    EXPECT_TRUE(hca::is_open("InfiniHost0"));
    close_hca(first);
    EXPECT_EQ(1ul, hca::call_count("VAPI_close_hca"));
    EXPECT_FALSE(hca::is_open("InfiniHost0"));
}

TEST_F(HcaOpen, FirstOpenArmsTheGeneratorTimer) {
    set_debug_level(4);
    load_ok();
    auto *timer_is_on = sym<int>("g_com_add_timer_is_on");
    auto *ticks = sym<uint32_t>("g_com_num_of_timer_events");
    EXPECT_EQ(1, *timer_is_on);
    void *first = open_hca("InfiniHost0");
    EXPECT_EQ(0, *timer_is_on);
    k::log_clear();
    void *second = open_hca("InfiniHost1");  // a tick is pending: not armed again
    EXPECT_EQ(0, *timer_is_on);
    EXPECT_EQ(0u, count_with(log(), "will init the timer"));
    k::advance_jiffies(99);
    EXPECT_EQ(0u, *ticks);
    k::advance_jiffies(1);  // one interval (100 jiffies) after the open
    EXPECT_EQ(1u, *ticks);
    EXPECT_EQ(1, *timer_is_on);  // the generator is disabled: the tick stopped it
    close_hca(second);
    k::log_clear();
    void *third = open_hca("InfiniHost1");
    EXPECT_EQ(0, *timer_is_on);
    EXPECT_EQ(1u, count_of(log(),
                           ad_debug("oxi_mlx_hca_open", "ADAPT_TAVOT_TIMER_CALL_COM - will init the timer")));
    close_hca(third);
    close_hca(first);
}

class HcaOpenThreeDevices : public HcaOpen {
  protected:
    void SetUp() override { boot_all(3); }
};

TEST_F(HcaOpenThreeDevices, HcaIxOverridesTheName) {
    load_ok({"hca_ix=2"});
    k::log_clear();
    void *hca = open_hca("InfiniHost0");
    ASSERT_NE(nullptr, hca);
    EXPECT_TRUE(contains(log(), "oxi_mlx_hca_open: ipoib-ud will work with HCA: InfiniHost2"));
    EXPECT_EQ(1ul, hca::call_count("VAPI_open_hca", "InfiniHost2"));
    EXPECT_EQ(0ul, hca::call_count("VAPI_open_hca", "InfiniHost0"));
    EXPECT_TRUE(hca::is_open("InfiniHost2"));
    EXPECT_FALSE(hca::is_open("InfiniHost0"));
    // Whatever the name: the second open borrows the same device.
    void *again = open_hca("no such name");
    EXPECT_EQ(hca_record(hca)["hca_h"], hca_record(again)["hca_h"]);
    close_hca(again);
    close_hca(hca);
}

// ---- Failures -----------------------------------------------------------------------------------

class HcaOpenFailure : public HcaOpen {
  protected:
    void SetUp() override {
        HcaOpen::SetUp();
        load_ok();
        baseline_ = module_allocations();  // what the load itself allocated
        k::log_clear();
    }
    size_t baseline_ = 0;
    void fail_alloc(size_t size, const char *site, unsigned long nth = 1) {
        k::AllocFault fault;
        fault.size = size;
        fault.site = site;
        fault.nth = nth;
        k::add_alloc_fault(fault);
    }
    // Opens with the given fault in place; the caller's pointer must stay untouched.
    int open_failing(const char *name = "InfiniHost0") {
        void *hca = reinterpret_cast<void *>(0x1234);
        int status = try_open(name, &hca);
        EXPECT_EQ(reinterpret_cast<void *>(0x1234), hca);
        return status;
    }
    std::vector<std::string> errors() { return at_level(log(), "ERROR  "); }
};

TEST_F(HcaOpenFailure, RecordAllocation) {
    size_t size = layout_sizeof(adp_layout(), "ox_opened_hca_t");
    fail_alloc(size, "oxi_mlx_hca_open");
    EXPECT_EQ(kAllocMem, open_failing());
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_hca_open",
                           "Fail to allocate memory: ox_opened_hca_t, size: " + std::to_string(size)),
                  ad_error("oxi_mlx_hca_open", "error:")}),
              log());
    auto s = stats();
    EXPECT_EQ(1, s["mem_alloc_error_num"]);
    EXPECT_EQ(1, s["last_mem_alloc_error_num"]);
    EXPECT_EQ(2, s["error_num"]);  // the allocation's, and the open's own
    EXPECT_EQ(2, s["last_error_num"]);
    EXPECT_EQ(0, alloc_num("mem_hca_ix"));
    EXPECT_EQ(0u, refcount());
    EXPECT_EQ(0ul, hca::call_count("VAPI_open_hca"));
}

TEST_F(HcaOpenFailure, CqArrayAllocation) {
    fail_alloc(1001 * sizeof(void *), "oxi_mlx_hca_open");
    EXPECT_EQ(kAllocMem, open_failing());
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_hca_open", "Fail to allocate memory: opened_hca_p->opened_cq_array"),
                  ad_error("oxi_mlx_hca_open", "error1: V_FREE(opened_hca_p)"),
                  ad_error("oxi_mlx_hca_open", "error:")}),
              log());
    EXPECT_EQ(1, stats()["mem_alloc_error_num"]);
    EXPECT_EQ(2, stats()["error_num"]);
    EXPECT_EQ(0, alloc_num("mem_hca_ix"));
    EXPECT_EQ(0, alloc_num("mem_opened_cq_array_ix"));
    EXPECT_EQ(0, sym<int>("mem_statistic_err")[0]);
    EXPECT_EQ(0u, refcount());
    EXPECT_EQ(baseline_, module_allocations());
}

TEST_F(HcaOpenFailure, QpArrayAllocation) {
    fail_alloc(1001 * sizeof(void *), "oxi_mlx_hca_open", 2);
    EXPECT_EQ(kAllocMem, open_failing());
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_hca_open", "Fail to allocate memory: opened_hca_p->opened_qp_array"),
                  ad_error("oxi_mlx_hca_open", "error2: V_FREE(opened_hca_p->opened_cq_array)"),
                  ad_error("oxi_mlx_hca_open", "error1: V_FREE(opened_hca_p)"),
                  ad_error("oxi_mlx_hca_open", "error:")}),
              log());
    EXPECT_EQ(0, alloc_num("mem_opened_cq_array_ix"));
    EXPECT_EQ(0, alloc_num("mem_opened_qp_array_ix"));
    EXPECT_EQ(0u, refcount());
    EXPECT_EQ(baseline_, module_allocations());
}

TEST_F(HcaOpenFailure, NeitherOpenNorBorrowGivesAHandle) {
    EXPECT_EQ(kErr, open_failing("NoSuchHca"));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_hca_open", "ERROR EVAPI_get_hca_hndl(): NoSuchHca (mlx:-243, MLX)"),
                  ad_error("oxi_mlx_hca_open", "error3: V_FREE(opened_hca_p->opened_qp_array)"),
                  ad_error("oxi_mlx_hca_open", "error2: V_FREE(opened_hca_p->opened_cq_array)"),
                  ad_error("oxi_mlx_hca_open", "error1: V_FREE(opened_hca_p)"),
                  ad_error("oxi_mlx_hca_open", "error:")}),
              log());
    auto s = stats();
    EXPECT_EQ(1, s["error_num"]);
    EXPECT_EQ(1, s["VAPI_error_num"]);
    EXPECT_EQ(1, s["last_VAPI_error_num"]);
    EXPECT_EQ(0, s["opend_device_num"]);
    EXPECT_EQ(0u, *exported<uint32_t>("current_avail_ix"));  // open writes no ring entry
    EXPECT_EQ(0, ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(0u, refcount());
    EXPECT_EQ(baseline_, module_allocations());

    // A device VAPI refuses to open and that is not open either.
    hca::inject_fault("VAPI_open_hca", "InfiniHost0", VAPI_EGEN);
    k::log_clear();
    EXPECT_EQ(kErr, open_failing("InfiniHost0"));
    EXPECT_EQ(ad_error("oxi_mlx_hca_open", "ERROR EVAPI_get_hca_hndl(): InfiniHost0 (mlx:-243, MLX)"),
              log()[0]);
    EXPECT_EQ(2, stats()["VAPI_error_num"]);
}

TEST_F(HcaOpenFailure, AsyncHandlerRegistrationReturnsOkWithoutAHandle) {
    hca::inject_fault("VAPI_set_async_event_handler", "InfiniHost0", VAPI_EGEN);
    EXPECT_EQ(kOk, open_failing());
    auto errors = this->errors();
    EXPECT_EQ(
        (std::vector<std::string>{
            ad_error("oxi_mlx_hca_open",
                     "MLXAD_ERR: VAPI Fail to set async event callback for device handle: 0 (mlx:-255, MLX)"),
            ad_error("oxi_mlx_hca_open", "error4: Will close mlx device with handle: 0"),
            // Close releases a generic PD that was never allocated (handle 0).
            ad_error("oxi_mlx_hca_close",
                     "MLXAD_ERR: VAPI Fail to de-allocate PD, The hca_h: 0 (mlx:-241, MLX)")}),
        errors);
    auto s = stats();
    EXPECT_EQ(1, s["error_num"]);  // the PD release in close; the registration itself is not counted
    EXPECT_EQ(1, s["VAPI_error_num"]);
    EXPECT_EQ(0, s["opend_device_num"]);
    EXPECT_EQ(0, s["pd_num"]);
    EXPECT_EQ(0, adp_list_count(opened_list_head()));
    EXPECT_EQ(0u, refcount());
    EXPECT_FALSE(hca::is_open("InfiniHost0"));
    EXPECT_EQ(0u, hca::resource_count("InfiniHost0"));
    EXPECT_EQ(baseline_, module_allocations());
}

// The close that undoes a failed handler registration fails too: open says so and still answers
// ox_return_ok; the record is gone either way, and the device stays open in VAPI.
TEST_F(HcaOpenFailure, AsyncHandlerRegistrationAndTheCloseAfterItFail) {
    hca::inject_fault("VAPI_set_async_event_handler", "InfiniHost0", VAPI_EGEN);
    hca::inject_fault("VAPI_close_hca", "InfiniHost0", VAPI_EINVAL_HCA_HNDL);
    EXPECT_EQ(kOk, open_failing());
    EXPECT_EQ(
        (std::vector<std::string>{
            ad_error("oxi_mlx_hca_open",
                     "MLXAD_ERR: VAPI Fail to set async event callback for device handle: 0 (mlx:-255, MLX)"),
            ad_error("oxi_mlx_hca_open", "error4: Will close mlx device with handle: 0"),
            ad_error("oxi_mlx_hca_close",
                     "MLXAD_ERR: VAPI Fail to de-allocate PD, The hca_h: 0 (mlx:-241, MLX)"),
            ad_error("oxi_mlx_hca_close", "MLXAD_ERR: VAPI Fail to close device handle: 0 (mlx:-244, MLX)"),
            ad_error("oxi_mlx_hca_open", "Fail to close mlx device with handle: 0")}),
        errors());
    auto s = stats();
    EXPECT_EQ(2, s["error_num"]);  // the PD release and the device close, both in close
    EXPECT_EQ(2, s["VAPI_error_num"]);
    EXPECT_EQ(0, s["opend_device_num"]);
    EXPECT_EQ(0, adp_list_count(opened_list_head()));
    EXPECT_EQ(0u, refcount());
    EXPECT_EQ(baseline_, module_allocations());
    EXPECT_TRUE(hca::is_open("InfiniHost0"));
    EXPECT_EQ(VAPI_OK, VAPI_close_hca(0));
}

TEST_F(HcaOpenFailure, GenericPdAllocation) {
    hca::inject_fault("EVAPI_alloc_pd", "InfiniHost0", VAPI_EAGAIN);
    EXPECT_EQ(kErr, open_failing());
    EXPECT_EQ(
        (std::vector<std::string>{
            ad_error("oxi_mlx_pd_allocate", "MLXAD_ERR: VAPI Fail to allocate PD, hca_h: 0 (mlx:-253, MLX)"),
            ad_error("oxi_mlx_hca_open", "Fail to allocate pd can't register the RAM, hca_h: 0"),
            ad_error("oxi_mlx_hca_open", "error4: Will close mlx device with handle: 0"),
            ad_error("oxi_mlx_hca_close",
                     "MLXAD_ERR: VAPI Fail to de-allocate PD, The hca_h: 0 (mlx:-241, MLX)")}),
        errors());
    EXPECT_EQ(2, stats()["error_num"]);
    EXPECT_EQ(2, stats()["VAPI_error_num"]);
    EXPECT_EQ(0u, *exported<uint32_t>("current_avail_ix"));
    EXPECT_EQ(0u, refcount());
    EXPECT_FALSE(hca::is_open("InfiniHost0"));
}

TEST_F(HcaOpenFailure, GenericRegionRegistration) {
    hca::inject_fault("VAPI_register_mr", "InfiniHost0", VAPI_ENOMEM);
    EXPECT_EQ(kErr, open_failing());
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_phy_mem_region_register",
                           "MLXAD_ERR: VAPI Fail to register PMR, hca_h: 0 (mlx:-252, MLX)"),
                  ad_error("ox_mlx_gen_mr_register", "ERROR: in register Physical MR number: 0"),
                  ad_error("oxi_mlx_hca_open", "Fail to register the RAM, hca_h: 0"),
                  ad_error("oxi_mlx_hca_open", "error4: Will close mlx device with handle: 0")}),
              errors());
    auto s = stats();
    EXPECT_EQ(2, s["error_num"]);
    EXPECT_EQ(1, s["VAPI_error_num"]);
    EXPECT_EQ(0, s["pd_num"]);  // the generic PD went with the close
    EXPECT_EQ(0, s["mr_num"]);
    EXPECT_EQ(1u, *exported<uint32_t>("current_avail_ix"));
    EXPECT_EQ(module_const("phy_mem_region_register_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(VAPI_ENOMEM, ring_entry(0)["stat_st"]);
    EXPECT_EQ(0, alloc_num("mem_mr_ix"));
    EXPECT_EQ(0u, refcount());
    EXPECT_EQ(0u, hca::resource_count("InfiniHost0"));
}

TEST_F(HcaOpenFailure, GenericElementAllocationDestroysTheRegion) {
    fail_alloc(layout_sizeof(adp_layout(), "ox_gen_mr_element_t"), "ox_mlx_gen_mr_register");
    EXPECT_EQ(kErr, open_failing());
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("ox_mlx_gen_mr_register", "Fail to allocate memory: ox_gen_mr_element_t"),
                  ad_error("oxi_mlx_hca_open", "Fail to register the RAM, hca_h: 0"),
                  ad_error("oxi_mlx_hca_open", "error4: Will close mlx device with handle: 0")}),
              errors());
    auto s = stats();
    EXPECT_EQ(1, s["mem_alloc_error_num"]);
    EXPECT_EQ(1, s["error_num"]);
    EXPECT_EQ(0, s["mr_num"]);
    EXPECT_EQ(1ul, hca::call_count("VAPI_deregister_mr"));
    EXPECT_EQ(0, alloc_num("mem_mr_ix"));
    EXPECT_EQ(0u, refcount());
    EXPECT_EQ(baseline_, module_allocations());
}

TEST_F(HcaOpenFailure, GenericElementAllocationAndRegionDestroy) {
    fail_alloc(layout_sizeof(adp_layout(), "ox_gen_mr_element_t"), "ox_mlx_gen_mr_register");
    hca::inject_fault("VAPI_deregister_mr", "InfiniHost0", VAPI_EBUSY);
    EXPECT_EQ(kErr, open_failing());
    auto errors = this->errors();
    ASSERT_GE(errors.size(), 3u);
    EXPECT_EQ(ad_error("oxi_mlx_mem_region_destroy",
                       "MLXAD_ERR: VAPI Fail to destroy MR, hca_h: 0, v_mem_h: 1 (mlx:-251, MLX)"),
              errors[1]);
    EXPECT_EQ(ad_error("ox_mlx_gen_mr_register", "Fail to deregister MR (Physical): 1"), errors[2]);
    EXPECT_EQ(module_const("mem_region_destroy_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(VAPI_EBUSY, ring_entry(0)["stat_st"]);
    EXPECT_EQ(0u, refcount());
}

TEST_F(HcaOpenFailure, CapabilityQueryReleasesARecordStillListed) {
    set_debug_level(4);
    hca::inject_fault("VAPI_query_hca_cap", "InfiniHost0", VAPI_EFATAL);
    EXPECT_EQ(kErr, open_failing());
    auto lines = log();
    ASSERT_FALSE(lines.empty());
    // The record's address, from the first line of the open.
    const std::string first = lines.front();
    const std::string prefix = ad_debug("oxi_mlx_hca_open", "opened_hca_p: ");
    ASSERT_EQ(0u, first.rfind(prefix, 0)) << first;
    const unsigned long record = std::stoul(first.substr(prefix.size()), nullptr, 16);
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_hca_query",
                           "MLXAD_ERR: VAPI Fail to query mlx device with the handle: 0 (mlx:-254, MLX)"),
                  ad_error("oxi_mlx_hca_open", "Fail to query HCA and fill HCA cap, hca_h: 0"),
                  ad_error("oxi_mlx_hca_open", "error3: V_FREE(opened_hca_p->opened_qp_array)"),
                  ad_error("oxi_mlx_hca_open", "error2: V_FREE(opened_hca_p->opened_cq_array)"),
                  ad_error("oxi_mlx_hca_open", "error1: V_FREE(opened_hca_p)"),
                  ad_error("oxi_mlx_hca_open", "error:")}),
              at_level(lines, "ERROR  "));
    EXPECT_EQ(module_const("hca_query_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(VAPI_EFATAL, ring_entry(0)["stat_st"]);
    auto s = stats();
    EXPECT_EQ(2, s["error_num"]);       // the query's own failure, and the open's
    EXPECT_EQ(1, s["VAPI_error_num"]);  // the query's only: open counts VAPI failures of its own step
    EXPECT_EQ(1, s["opend_device_num"]);
    EXPECT_EQ(0, alloc_num("mem_hca_ix"));
    EXPECT_EQ(0u, refcount());

    // The released record is still the head of the global list: its address is compared, the
    // record itself is not read. Then the list is emptied again so later walks are safe.
    void *head = opened_list_head();
    EXPECT_EQ(reinterpret_cast<void *>(record), adp_list_first(head));
    adp_list_reset(head);
    EXPECT_EQ(nullptr, adp_list_first(head));
    // The device, its generic PD and region stay behind, and so does the region's element.
    EXPECT_TRUE(hca::is_open("InfiniHost0"));
    EXPECT_EQ(2u, hca::resource_count("InfiniHost0"));
    EXPECT_EQ(baseline_ + 1, module_allocations());  // the generic element
}

}  // namespace
}  // namespace adaptor_test
