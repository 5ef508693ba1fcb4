// Module start-up and shut-down, provider registration, parameters and exported symbols.
#include <fstream>
#include <iterator>

#include "adaptor_fixture.hpp"
#include "slot-names.h"

namespace adaptor_test {
namespace {

// The 73 entry points in table order.
#define OX_SLOT_NAME(index, name) #name,
const std::vector<std::string> kVerbs = {OX_HCA_FUNC_SLOTS_LIST(OX_SLOT_NAME)};
#undef OX_SLOT_NAME

class LoadUnload : public AdaptorFixture {
  protected:
    static const st::ProviderInfo *mlx(const std::vector<st::ProviderInfo> &all) {
        for (const auto &p : all)
            if (p.name == "mlx") return &p;
        return nullptr;
    }
};

TEST_F(LoadUnload, RegistersProviderWithTheDevicesAndItsTable) {
    load_ok();
    auto all = st::providers();
    const auto *p = mlx(all);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ((std::vector<std::string>{"InfiniHost0", "InfiniHost1"}), p->devices);
    EXPECT_EQ(static_cast<const void *>(p->funcs), sym<void>("oxi_mlx_funcs"));
}

TEST_F(LoadUnload, TableSlotsFollowTheEntryPointOrder) {
    load_ok();
    ASSERT_EQ(73u, kVerbs.size());
    auto *slots = reinterpret_cast<void *const *>(st::provider_funcs("mlx"));
    ASSERT_NE(nullptr, slots);
    for (size_t i = 0; i < kVerbs.size(); i++) {
        std::string name = "oxi_mlx_" + kVerbs[i];
        void *fn = sym<void>(name.c_str());
        ASSERT_NE(nullptr, fn) << name;
        EXPECT_EQ(fn, slots[i]) << "slot " << i << " " << name;
    }
}

TEST_F(LoadUnload, ExportsEntryPointsAndServices) {
    load_ok();
    int exported_entry_points = 0;
    for (const auto &verb : kVerbs) {
        std::string name = "oxi_mlx_" + verb;
        const void *value = k::lookup_symbol(name);
        if (verb == "post_send_nop" || verb == "process_local_mad") {
            EXPECT_EQ(nullptr, value) << name;
        } else {
            EXPECT_EQ(sym<void>(name.c_str()), value) << name;
            exported_entry_points += value != nullptr;
        }
    }
    EXPECT_EQ(71, exported_entry_points);
    for (const char *name :
         {"ox_mlx_destroy_async_events", "AD_TAVOR_trace_level", "AD_TAVOR_log_rep_h", "g_stat",
          "g_last_vapi_err_array", "current_avail_ix", "g_opened_mlx_hcas_list", "ox_mlx_sl"})
        EXPECT_EQ(sym<void>(name), k::lookup_symbol(name)) << name;
    EXPECT_NE(nullptr, k::lookup_symbol("ox_mlx_destroy_async_events"));
}

TEST_F(LoadUnload, NotSupportedSlotsRefuse) {
    load_ok();
    using rdd_fn = int (*)(void *, uint32_t *);
    auto fn = reinterpret_cast<rdd_fn>(exported<void>("oxi_mlx_rdd_allocate"));
    ASSERT_NE(nullptr, fn);
    uint32_t rdd = 0;
    EXPECT_EQ(3, fn(nullptr, &rdd));  // ox_return_err_not_implemented
}

TEST_F(LoadUnload, WithoutHcasTheProviderHasNoDevices) {
    TearDown();
    boot_all(0);
    load_ok();
    auto all = st::providers();
    const auto *p = mlx(all);
    ASSERT_NE(nullptr, p);
    EXPECT_TRUE(p->devices.empty());
}

TEST_F(LoadUnload, ReadsTheTraceLevelAndFollowsItsChanges) {
    load_ok();
    EXPECT_TRUE(contains(log(), "LOGGER: Added key marlix/modules/adaptor-mlx/, trace level 1"));
    auto *level = exported<int>("AD_TAVOR_trace_level");
    ASSERT_NE(nullptr, level);
    EXPECT_EQ(1, *level);
    EXPECT_FALSE(contains(command("show_reg_mem"), proc_debug("proc_show_registration_mem_info", "argc: 1")));

    set_debug_level(4);  // no reload
    EXPECT_EQ(4, *level);
    EXPECT_TRUE(contains(command("show_reg_mem"), proc_debug("proc_show_registration_mem_info", "argc: 1")));

    set_debug_level(3);
    EXPECT_EQ(3, *level);
    EXPECT_FALSE(contains(command("show_reg_mem"), proc_debug("proc_show_registration_mem_info", "argc: 1")));
}

TEST_F(LoadUnload, LoadsSilentWithoutTheRepositoryKey) {
    st::halt();  // an empty repository
    st::set_logger_level(5);
    load_ok();
    EXPECT_TRUE(contains(
        log(), "OD_LOGGER: rep_open_key failed for, marlix/modules/adaptor-mlx/ -- disabling logging"));
    EXPECT_EQ(0, *exported<int>("AD_TAVOR_trace_level"));
    EXPECT_EQ(0u, count_with(log(), "AD_TAVOR"));
    // Nothing at any level, errors included.
    EXPECT_EQ(0u, count_with(command("show_reg_mem"), "AD_TAVOR"));
    EXPECT_EQ(0u, count_with(command("event_ctrl"), "AD_TAVOR"));
    EXPECT_EQ(0u, count_with(command("comaddcq"), "AD_TAVOR"));
}

TEST_F(LoadUnload, LoadsSilentWithoutTheTraceLevelValue) {
    st::halt();
    st::set_logger_level(5);
    ASSERT_EQ(0, st::set_long(st::kAdaptorKey, "other-value", 4));
    load_ok();
    EXPECT_TRUE(contains(
        log(), "OD_LOGGER: rep_get_value failed for, marlix/modules/adaptor-mlx/ -- disabling logging"));
    EXPECT_EQ(0, *exported<int>("AD_TAVOR_trace_level"));
    // Without a registration, a value set later is not followed.
    set_debug_level(4);
    EXPECT_EQ(0, *exported<int>("AD_TAVOR_trace_level"));
    EXPECT_EQ(0u, count_with(command("show_reg_mem"), "AD_TAVOR"));
}

TEST_F(LoadUnload, IdentifierBufferFailureRegistersNoDevices) {
    k::AllocFault fault;
    fault.size = 2880;
    fault.site = "ox_mlx_register_provider";
    k::add_alloc_fault(fault);
    load_ok();
    EXPECT_TRUE(contains(log(), ad_error("ox_mlx_register_provider", "kmalloc(2880) failed")));
    auto all = st::providers();
    const auto *p = mlx(all);
    ASSERT_NE(nullptr, p);
    EXPECT_TRUE(p->devices.empty());
    EXPECT_EQ(1ul, k::injected_alloc_failures());
}

TEST_F(LoadUnload, ListingFailureStillRegisters) {
    hca::inject_fault("EVAPI_list_hcas", "*", -255);
    load_ok();
    EXPECT_EQ(1u, count_with(log(), ad_error("ox_mlx_register_provider", "EVAPI_list_hcas() failed -255 ")));
    EXPECT_NE(nullptr, mlx(st::providers()));
}

TEST_F(LoadUnload, VersionRecordFailureFailsTheLoad) {
    k::add_proc_create_fault("adaptor-mlx/version", true);
    EXPECT_EQ(-12, load());
    EXPECT_TRUE(contains(log(), ad_error("ox_mlx_init", "Could not init module version!")));
    EXPECT_FALSE(k::find_module("adaptor_mlx").has_value());
    EXPECT_FALSE(k::file_exists(kControl));
    EXPECT_EQ(0u, module_allocations());
    // The repository registration went with the module: changing the level reaches nobody.
    set_debug_level(4);
}

TEST_F(LoadUnload, ControlFileFailureRemovesTheVersionRecord) {
    k::add_proc_create_fault("adaptor-mlx/control", true);
    EXPECT_EQ(-12, load());
    EXPECT_TRUE(contains(log(), ad_error("ox_mlx_init", "Could not create proc entry!")));
    EXPECT_FALSE(k::file_exists(kVersion));
    EXPECT_EQ(0u, module_allocations());
    set_debug_level(4);
}

TEST_F(LoadUnload, LinkFileFailureLeavesTheControlFile) {
    k::add_proc_create_fault("adaptor-mlx/link", true);
    EXPECT_EQ(-12, load());
    EXPECT_TRUE(contains(log(), ad_error("ox_mlx_init", "Could not create proc entry!")));
    EXPECT_FALSE(k::file_exists(kVersion));
    EXPECT_FALSE(k::file_exists(kLink));
    EXPECT_TRUE(k::file_exists(kControl));  // not removed on this path
}

TEST_F(LoadUnload, GeneratorArrayFailureStillLoads) {
    k::AllocFault fault;
    fault.size = 800;
    fault.site = "ox_mlx_prepare_generator";
    k::add_alloc_fault(fault);
    load_ok();
    auto lines = log();
    EXPECT_TRUE(
        contains(lines, ad_error("ox_mlx_prepare_generator", "Fail to allocate memory: g_com_cq_array")));
    EXPECT_TRUE(contains(
        lines, ad_error("ox_mlx_prepare_generator", "the completion generator work mode can be 1 only !!!")));
    auto s = stats();
    EXPECT_EQ(1, s["mem_alloc_error_num"]);
    EXPECT_EQ(1, s["last_mem_alloc_error_num"]);
    EXPECT_EQ(1, s["error_num"]);
    EXPECT_EQ(1, s["last_error_num"]);
    EXPECT_EQ(0, s["VAPI_error_num"]);
    EXPECT_EQ(1, *sym<int32_t>("g_com_work_mode"));
    EXPECT_EQ(nullptr, *sym<void *>("g_com_cq_array"));
    EXPECT_EQ(0, alloc_num("mem_g_com_cq_array_ix"));
    unload();
    EXPECT_EQ(0u, module_allocations());
}

TEST_F(LoadUnload, GeneratorIsPreparedNotArmed) {
    load_ok();
    EXPECT_EQ(100, *sym<int32_t>("g_com_num_jiff_intervals"));
    EXPECT_EQ(1, *sym<int>("g_com_add_timer_is_on"));
    EXPECT_EQ(1, *sym<uint8_t>("g_com_disable_timer"));
    EXPECT_NE(nullptr, *sym<void *>("g_com_cq_array"));
    // Nothing fires: the timer is not armed.
    k::advance_jiffies(1000);
    EXPECT_EQ(0u, *sym<uint32_t>("g_com_num_of_timer_events"));
}

TEST_F(LoadUnload, GeneratorTickWithoutHcaStops) {
    load_ok();
    const void *tick_fn = sym<void>("ox_com_timer_generator");
    ASSERT_NE(nullptr, tick_fn);
    auto tick = [&](unsigned long data) { adp_call_timer(tick_fn, data); };
    k::log_clear();
    k::run_in_softirq([&] { tick(1); });
    EXPECT_EQ((std::vector<std::string>{"ERROR - the HCA is not open"}), log());
    EXPECT_EQ(1u, *sym<uint32_t>("g_com_num_of_timer_events"));
    EXPECT_EQ(2, *sym<int>("g_com_add_timer_is_on"));  // stopped: handed back, not re-armed
}

TEST_F(LoadUnload, UnloadLeavesNothingBehind) {
    load_ok();
    EXPECT_TRUE(k::file_exists(kControl));
    EXPECT_TRUE(k::file_exists(kLink));
    EXPECT_TRUE(k::file_exists(kVersion));
    EXPECT_GT(module_allocations(), 0u);
    unload();
    EXPECT_EQ(0u, module_allocations());
    EXPECT_FALSE(k::file_exists(kControl));
    EXPECT_FALSE(k::file_exists(kLink));
    EXPECT_FALSE(k::file_exists(kVersion));
    EXPECT_EQ(nullptr, mlx(st::providers()));
    EXPECT_EQ(nullptr, k::lookup_symbol("oxi_mlx_hca_open"));
    set_debug_level(4);  // the notification was cancelled
    // A second life works the same.
    load_ok();
    EXPECT_TRUE(k::file_exists(kControl));
    unload();
    EXPECT_EQ(0u, module_allocations());
}

TEST_F(LoadUnload, ModuleParameters) {
    load_ok();
    EXPECT_EQ("2252", read("/sys/module/adaptor_mlx/parameters/oxi_mlx_max_ah_per_pd").substr(0, 4));
    EXPECT_EQ('0', read("/sys/module/adaptor_mlx/parameters/hca_ix").at(0));
    EXPECT_EQ(2252, *sym<int>("oxi_mlx_max_ah_per_pd"));
    unload();
    load_ok({"hca_ix=3", "oxi_mlx_max_ah_per_pd=16"});
    EXPECT_EQ(3, *sym<int>("hca_ix"));
    EXPECT_EQ(16, *sym<int>("oxi_mlx_max_ah_per_pd"));
    EXPECT_EQ("16", read("/sys/module/adaptor_mlx/parameters/oxi_mlx_max_ah_per_pd").substr(0, 2));
}

}  // namespace
}  // namespace adaptor_test
