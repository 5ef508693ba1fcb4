// Statistics, the VAPI error ring, the accounting and translation tables, and the log filter.
#include <cstring>

#include "adaptor_fixture.hpp"
#include "module_mirror.hpp"

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
    auto *stats = exported<TavorStats>("g_stat");
    ASSERT_NE(nullptr, stats);
    TavorStats zero;
    std::memset(&zero, 0, sizeof(zero));
    EXPECT_EQ(0, std::memcmp(&zero, stats, sizeof(zero)));
}

TEST_F(Bookkeeping, RingKeepsTheLastTwentyAndWraps) {
    load_ok();
    auto record = sym<void>("ox_mlx_record_vapi_err");
    ASSERT_NE(nullptr, record);
    auto fn = reinterpret_cast<record_vapi_err_fn>(record);
    auto *ring = exported<VapiErr>("g_last_vapi_err_array");
    auto *ix = exported<uint32_t>("current_avail_ix");
    ASSERT_NE(nullptr, ring);
    ASSERT_NE(nullptr, ix);
    EXPECT_EQ(0u, *ix);
    for (int i = 1; i <= 19; i++) fn(i, -200 - i);
    EXPECT_EQ(19u, *ix);
    fn(20, -220);
    EXPECT_EQ(0u, *ix);  // 19 wraps to 0
    fn(21, -221);        // the 21st overwrites the oldest
    EXPECT_EQ(1u, *ix);
    EXPECT_EQ(21u, ring[0].func_ix_st);
    EXPECT_EQ(-221, ring[0].stat_st);
    EXPECT_EQ(2u, ring[1].func_ix_st);
    EXPECT_EQ(-202, ring[1].stat_st);
    EXPECT_EQ(20u, ring[19].func_ix_st);
}

TEST_F(Bookkeeping, AccountingTableAfterLoad) {
    load_ok();
    auto *table = sym<AllocMem>("g_alloc_mem_array");
    ASSERT_NE(nullptr, table);
    const char *names[mem_last_ix] = {"ox_opened_hca_t    ", "ox_gen_mr_element_t", "ox_opened_cq_t     ",
                                      "tasklet_struct     ", "ox_opened_qp_t     ", "ox_asy_ev_element_t",
                                      "mem_gen_mem_array_p", "mem_opened_cq_array", "mem_opened_qp_array",
                                      "mem_g_com_cq_array "};
    for (int i = 0; i < mem_last_ix; i++) {
        EXPECT_STREQ(names[i], table[i].name) << i;
        EXPECT_EQ(19u, std::strlen(table[i].name)) << i;
    }
    EXPECT_GT(table[mem_hca_ix].struct_size, 0u);
    EXPECT_GT(table[mem_mr_ix].struct_size, 0u);
    EXPECT_GT(table[mem_cq_ix].struct_size, 0u);
    EXPECT_EQ(40u, table[mem_tasklet_ix].struct_size);  // struct tasklet_struct on x86_64
    EXPECT_GT(table[mem_qp_ix].struct_size, 232u);      // holds a send descriptor and 8 gather entries
    EXPECT_GT(table[mem_async_ix].struct_size, 0u);
    EXPECT_EQ(0u, table[mem_gen_mem_array_p_ix].struct_size);
    EXPECT_EQ(8000u, table[mem_opened_cq_array_ix].struct_size);
    EXPECT_EQ(8000u, table[mem_opened_qp_array_ix].struct_size);
    EXPECT_EQ(800u, table[mem_g_com_cq_array_ix].struct_size);
    for (int i = 0; i < mem_last_ix; i++)
        EXPECT_EQ(i == mem_g_com_cq_array_ix ? 1u : 0u, table[i].alloc_num) << i;
}

TEST_F(Bookkeeping, ReleasingAnUncountedKindIsReported) {
    load_ok();
    auto *table = sym<AllocMem>("g_alloc_mem_array");
    auto *err = sym<uint32_t>("mem_statistic_err");
    auto add = reinterpret_cast<mem_alloc_fn>(sym<void>("mem_alloc_add"));
    auto del = reinterpret_cast<mem_alloc_fn>(sym<void>("mem_alloc_del"));
    ASSERT_TRUE(table && err && add && del);
    EXPECT_EQ(0u, *err);

    add(mem_qp_ix);
    add(mem_qp_ix);
    EXPECT_EQ(2u, table[mem_qp_ix].alloc_num);
    k::log_clear();
    del(mem_qp_ix);
    EXPECT_EQ(1u, table[mem_qp_ix].alloc_num);
    EXPECT_EQ(0u, *err);
    EXPECT_TRUE(log().empty());

    del(mem_tasklet_ix);
    EXPECT_EQ(0u, table[mem_tasklet_ix].alloc_num);
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

}  // namespace
}  // namespace adaptor_test
