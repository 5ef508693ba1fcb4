// Statistics, the VAPI error ring, the accounting and translation tables, and the log filter.
#include <cstring>

#include "adaptor_fixture.hpp"

namespace adaptor_test {
namespace {

class Bookkeeping : public AdaptorFixture {};

TEST_F(Bookkeeping, LogNeedsBothLevels) {
    load_ok();
    // Stack-wide 5, adaptor 0: nothing.
    st::set_logger_level(5);
    set_debug_level(0);
    EXPECT_EQ(0u, count_with(command("show_reg_mem"), "AD_TAVOR"));
    EXPECT_EQ(0u, count_with(command("event_ctrl"), "AD_TAVOR"));
    // Stack-wide 0, adaptor 5: nothing either.
    st::set_logger_level(0);
    set_debug_level(5);
    EXPECT_EQ(0u, count_with(command("show_reg_mem"), "AD_TAVOR"));
    EXPECT_EQ(0u, count_with(command("event_ctrl"), "AD_TAVOR"));
    // Both at DEBUG: the line is printed with its prefix.
    st::set_logger_level(4);
    set_debug_level(4);
    EXPECT_TRUE(contains(command("show_reg_mem"), proc_debug("proc_show_registration_mem_info", "argc: 1")));
    // Both at ERROR: errors only.
    st::set_logger_level(1);
    set_debug_level(1);
    auto lines = command("event_ctrl");
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("proc_event_generation_ctrl", "ERROR - need 1 arg () (args:1)", "tavor_proc")}),
              lines);
}

TEST_F(Bookkeeping, LogLineIsPrintedAtKernelLevelSix) {
    load_ok();
    set_debug_level(4);
    command("show_reg_mem");
    bool found = false;
    for (const auto &line : k::log_lines()) {
        if (line.text == proc_debug("proc_show_registration_mem_info", "argc: 1")) {
            EXPECT_EQ(6, line.level);
            found = true;
        }
    }
    EXPECT_TRUE(found);
}

TEST_F(Bookkeeping, StatisticsAreZeroAfterLoad) {
    load_ok();
    auto *stats = exported<unsigned char>("g_stat");
    ASSERT_NE(nullptr, stats);
    std::vector<unsigned char> zero(layout_sizeof(adp_layout(), "tavor_stats"), 0);
    ASSERT_GT(zero.size(), 200u);
    EXPECT_EQ(0, std::memcmp(zero.data(), stats, zero.size()));
}

TEST_F(Bookkeeping, RingKeepsTheLastTwentyAndWraps) {
    load_ok();
    auto record = sym<void>("ox_mlx_record_vapi_err");
    ASSERT_NE(nullptr, record);
    auto fn = [&](unsigned func_ix, int stat) { adp_call_record_vapi_err(record, func_ix, stat); };
    auto *ix = exported<uint32_t>("current_avail_ix");
    ASSERT_NE(nullptr, exported<void>("g_last_vapi_err_array"));
    EXPECT_EQ(20, module_const("LAST_VAPI_ERR_NUM"));
    ASSERT_NE(nullptr, ix);
    EXPECT_EQ(0u, *ix);
    for (int i = 1; i <= 19; i++) fn(i, -200 - i);
    EXPECT_EQ(19u, *ix);
    fn(20, -220);
    EXPECT_EQ(0u, *ix);  // 19 wraps to 0
    fn(21, -221);        // the 21st overwrites the oldest
    EXPECT_EQ(1u, *ix);
    EXPECT_EQ(21, ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(-221, ring_entry(0)["stat_st"]);
    EXPECT_EQ(2, ring_entry(1)["func_ix_st"]);
    EXPECT_EQ(-202, ring_entry(1)["stat_st"]);
    EXPECT_EQ(20, ring_entry(19)["func_ix_st"]);
}

TEST_F(Bookkeeping, AccountingTableAfterLoad) {
    load_ok();
    auto *table = sym<void>("g_alloc_mem_array");
    ASSERT_NE(nullptr, table);
    const int mem_last_ix = mem_ix("mem_last_ix");
    ASSERT_EQ(10, mem_last_ix);
    const char *names[10] = {"ox_opened_hca_t    ", "ox_gen_mr_element_t", "ox_opened_cq_t     ",
                             "tasklet_struct     ", "ox_opened_qp_t     ", "ox_asy_ev_element_t",
                             "mem_gen_mem_array_p", "mem_opened_cq_array", "mem_opened_qp_array",
                             "mem_g_com_cq_array "};
    for (int i = 0; i < mem_last_ix; i++) {
        EXPECT_STREQ(names[i], adp_alloc_row_name(table, i)) << i;
        EXPECT_EQ(19u, std::strlen(adp_alloc_row_name(table, i))) << i;
    }
    auto size = [&](const char *ix) { return alloc_row(mem_ix(ix))["struct_size"]; };
    EXPECT_EQ(static_cast<long long>(layout_sizeof(adp_layout(), "ox_opened_hca_t")), size("mem_hca_ix"));
    EXPECT_EQ(static_cast<long long>(layout_sizeof(adp_layout(), "ox_gen_mr_element_t")), size("mem_mr_ix"));
    EXPECT_GT(size("mem_cq_ix"), 0);
    EXPECT_EQ(40, size("mem_tasklet_ix"));  // struct tasklet_struct on x86_64
    EXPECT_GT(size("mem_qp_ix"), 232);      // holds a send descriptor and 8 gather entries
    EXPECT_EQ(static_cast<long long>(layout_sizeof(adp_layout(), "ox_asy_ev_element_t")),
              size("mem_async_ix"));
    EXPECT_EQ(0, size("mem_gen_mem_array_p_ix"));
    EXPECT_EQ(8000, size("mem_opened_cq_array_ix"));
    EXPECT_EQ(8000, size("mem_opened_qp_array_ix"));
    EXPECT_EQ(800, size("mem_g_com_cq_array_ix"));
    for (int i = 0; i < mem_last_ix; i++)
        EXPECT_EQ(i == mem_ix("mem_g_com_cq_array_ix") ? 1 : 0, alloc_row(i)["alloc_num"]) << i;
}

TEST_F(Bookkeeping, ReleasingAnUncountedKindIsReported) {
    load_ok();
    auto *err = sym<uint32_t>("mem_statistic_err");
    const void *add_fn = sym<void>("mem_alloc_add");
    const void *del_fn = sym<void>("mem_alloc_del");
    ASSERT_TRUE(err && add_fn && del_fn);
    auto add = [&](int ix) { adp_call_mem_alloc(add_fn, ix); };
    auto del = [&](int ix) { adp_call_mem_alloc(del_fn, ix); };
    const int mem_qp_ix = mem_ix("mem_qp_ix"), mem_tasklet_ix = mem_ix("mem_tasklet_ix");
    EXPECT_EQ(0u, *err);

    add(mem_qp_ix);
    add(mem_qp_ix);
    EXPECT_EQ(2, alloc_row(mem_qp_ix)["alloc_num"]);
    k::log_clear();
    del(mem_qp_ix);
    EXPECT_EQ(1, alloc_row(mem_qp_ix)["alloc_num"]);
    EXPECT_EQ(0u, *err);
    EXPECT_TRUE(log().empty());

    del(mem_tasklet_ix);
    EXPECT_EQ(0, alloc_row(mem_tasklet_ix)["alloc_num"]);
    EXPECT_EQ(1u, *err);
    del(mem_tasklet_ix);
    EXPECT_EQ(2u, *err);
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("mem_alloc_del", "g_alloc_mem_array[3].alloc_num == 0, mem_statistic_err: 1"),
                  ad_error("mem_alloc_del", "g_alloc_mem_array[3].alloc_num == 0, mem_statistic_err: 2")}),
              log());
}

TEST_F(Bookkeeping, TranslationTableIsFilled) {
    load_ok();
    auto *table = sym<int>("g_status_mlx_to_ox_translation");
    ASSERT_NE(nullptr, table);
    EXPECT_EQ(0, table[0]);
    for (int i = 1; i < 256; i++) ASSERT_EQ(1, table[i]) << i;
}

TEST_F(Bookkeeping, TheTranslationTableReadByStatusMagnitude) {
    load_ok();
    const void *fn = sym<void>("ox_mlx_status_to_ox");
    ASSERT_NE(nullptr, fn);
    EXPECT_EQ(0, adp_call_status_to_ox(fn, 0));
    EXPECT_EQ(1, adp_call_status_to_ox(fn, -1));
    EXPECT_EQ(1, adp_call_status_to_ox(fn, -255));
    EXPECT_EQ(1, adp_call_status_to_ox(fn, -256));  // beyond the table
    EXPECT_EQ(1, adp_call_status_to_ox(fn, -2147483647 - 1));
    EXPECT_EQ(1, adp_call_status_to_ox(fn, 7));
    // What the table holds decides, not the status: a cleared entry reads back as it is.
    sym<int>("g_status_mlx_to_ox_translation")[253] = 0;
    EXPECT_EQ(0, adp_call_status_to_ox(fn, -253));
}

// The return codes the tests compare with are the module's own, each found in its header.
TEST(ReturnCodes, AreReadFromTheModuleHeader) {
    EXPECT_EQ(kOk, module_const("ox_return_ok"));
    EXPECT_EQ(kErr, module_const("ox_return_err"));
    EXPECT_EQ(kAllocMem, module_const("ox_return_err_alloc_mem"));
    EXPECT_EQ(kNotImplemented, module_const("ox_return_err_not_implemented"));
    EXPECT_EQ(kHcaName, module_const("ox_return_err_hca_name"));
    EXPECT_EQ(kInsufficient, module_const("ox_return_err_insufficient_resources"));
    EXPECT_EQ(kInvalidState, module_const("ox_return_err_invalid_state"));
    EXPECT_EQ(kInvalidVendRet, module_const("ox_return_err_invalid_vend_ret"));
    EXPECT_EQ(kInvalidParameter, module_const("ox_return_err_invalid_parameter"));
    EXPECT_EQ(kCqEmpty, module_const("ox_return_err_cq_empty"));
    EXPECT_NE(kOk, kErr);
}

}  // namespace
}  // namespace adaptor_test
