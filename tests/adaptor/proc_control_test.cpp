// The control file's parser and command table, and the link file.
#include <evapi.h>

#include "adaptor_fixture.hpp"

namespace adaptor_test {
namespace {

class ProcControl : public AdaptorFixture {
  protected:
    void SetUp() override {
        AdaptorFixture::SetUp();
        load_ok();
        set_debug_level(4);
    }
    static std::vector<std::string> with_usage(std::vector<std::string> head) {
        for (const auto &l : usage_lines()) head.push_back(l);
        return head;
    }
};

TEST_F(ProcControl, BlanksAroundTheCommandWord) {
    auto lines = command("   comshow   ");
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(proc_debug("proc_com_show", "argc: 1"), lines[0]);
    EXPECT_TRUE(contains(lines, "g_com_disable_timer: 1"));
}

TEST_F(ProcControl, LastWordCountsWithOrWithoutNewline) {
    auto lines = command("comsett 25");
    EXPECT_EQ((std::vector<std::string>{proc_debug("proc_com_set_time", "argc: 2"),
                                        proc_debug("proc_com_set_time", "new_jiff_timer_num: 25"),
                                        "new_jiff_timer_num: 25, old value: 0"}),
              lines);
    lines = command("comsett 25\n");
    EXPECT_EQ((std::vector<std::string>{proc_debug("proc_com_set_time", "argc: 2"),
                                        proc_debug("proc_com_set_time", "new_jiff_timer_num: 25"),
                                        "new_jiff_timer_num: 25, old value: 25"}),
              lines);
}

TEST_F(ProcControl, LongWordsAreCutIntoPiecesOfTwenty) {
    EXPECT_EQ(with_usage({"gen /proc: unknown command: 'abcdefghijklmnopqrst' 'uvwxy'"}),
              command("abcdefghijklmnopqrstuvwxy"));
    // Exactly 20 characters stay one word.
    EXPECT_EQ(with_usage({"gen /proc: unknown command: 'abcdefghijklmnopqrst'"}),
              command("abcdefghijklmnopqrst\n"));
}

TEST_F(ProcControl, OnlyTenWordsAreKept) {
    EXPECT_EQ(with_usage({"gen /proc: unknown command: 'a' 'b' 'c' 'd' 'e' 'f' 'g' 'h' 'i' 'j'"}),
              command("a b c d e f g h i j k l\n"));
}

TEST_F(ProcControl, EmptyWritesPrintTheUsage) {
    EXPECT_EQ(usage_lines(), command(""));
    EXPECT_EQ(usage_lines(), command("      "));
    EXPECT_EQ(usage_lines(), command("\n\t \n"));
}

TEST_F(ProcControl, UnknownWordsAreEchoed) {
    EXPECT_EQ(with_usage({"gen /proc: unknown command: 'foo' 'bar'"}), command("foo bar\n"));
    // Matching is exact and case-sensitive.
    EXPECT_EQ(with_usage({"gen /proc: unknown command: 'SHOW_C'"}), command("SHOW_C"));
}

TEST_F(ProcControl, WritesBeyondTheBufferAreConsumedWhole) {
    std::string big(5000, 'x');
    auto lines = command(big);
    std::string words;
    for (int i = 0; i < 10; i++) words += " '" + std::string(20, 'x') + "'";
    EXPECT_EQ(with_usage({"gen /proc: unknown command:" + words}), lines);
}

TEST_F(ProcControl, ShowCompileFlags) {
    EXPECT_EQ((std::vector<std::string>{
                  "compile with: MLX_EVAPI_CQ_EH_CHANGES",
                  "compile with: MLX_BUG_POST_SEND_NEED_LOCK - only UD, lock per QP",
                  "compile with: MLX_BUG_POST_RECEIVE_NEED_LOCK",
                  "compile with: OX_TAVOR_STACK_SAVE_FOR_POST_SEND_IN_OPENED_QP",
                  "compile with: OX_TAVOR_STACK_SAVE_FOR_POST_RECEIVE_IN_OPENED_QP",
                  "compile with: ADAPT_TAVOT_TIMER_CALL_COM",
                  "compile with: ADAPTOR_TAVOR_NO_CQ_EVENTS",
                  "compile with: ADAPT_ALLOC_MEM_STATISTIC",
                  "compile with: OX_CQ_POLL_TEST",
                  "compile with: REGISTER_RAM_IN_ONE_PHY_MR",
                  "compile with: OX_ADAPT_COMPILE_WITHOUT_DEVMEM_CAP",
                  "support: inline, list send/receive",
              }),
              command("show_c extra words ignored"));
}

TEST_F(ProcControl, LinkReportsPortOne) {
    hca::reset_call_counts();
    EXPECT_EQ("PORT_ACTIVE\n", read(kLink));
    // Each handler call opens and closes; a read may call the handler more than once.
    EXPECT_GE(hca::call_count("VAPI_open_hca"), 1ul);
    EXPECT_EQ(hca::call_count("VAPI_open_hca"), hca::call_count("VAPI_close_hca"));
    EXPECT_EQ(hca::call_count("VAPI_open_hca"), hca::call_count("VAPI_query_hca_port_prop"));
    EXPECT_EQ(0ul, hca::call_count("EVAPI_release_hca_hndl"));
    EXPECT_FALSE(hca::is_open("InfiniHost0"));
    ASSERT_TRUE(hca::unplug("InfiniHost0", 1));
    EXPECT_EQ("PORT_DOWN\n", read(kLink));
}

TEST_F(ProcControl, LinkBorrowsAnOpenDevice) {
    VAPI_hca_hndl_t mine = 0;
    ASSERT_EQ(VAPI_OK, VAPI_open_hca("InfiniHost0", &mine));
    hca::reset_call_counts();
    EXPECT_EQ("PORT_ACTIVE\n", read(kLink));
    EXPECT_GE(hca::call_count("EVAPI_get_hca_hndl"), 1ul);
    EXPECT_EQ(hca::call_count("EVAPI_get_hca_hndl"), hca::call_count("EVAPI_release_hca_hndl"));
    EXPECT_EQ(0ul, hca::call_count("VAPI_close_hca"));
    EXPECT_TRUE(hca::is_open("InfiniHost0"));
    EXPECT_EQ(VAPI_OK, VAPI_close_hca(mine));
}

TEST_F(ProcControl, LinkReportsVapiFailures) {
    hca::inject_fault("VAPI_open_hca", "*", VAPI_EGEN);
    hca::inject_fault("EVAPI_get_hca_hndl", "*", VAPI_EINVAL_HCA_ID);
    EXPECT_EQ("VAPI_ERROR_HCA -243\n", read(kLink));
    hca::clear_faults();
    hca::reset_call_counts();
    hca::inject_fault("VAPI_query_hca_port_prop", "*", VAPI_EINVAL_PORT);
    EXPECT_EQ("VAPI_ERROR_QUERY -242\n", read(kLink));
    EXPECT_EQ(hca::call_count("VAPI_open_hca"), hca::call_count("VAPI_close_hca"));
    EXPECT_FALSE(hca::is_open("InfiniHost0"));
}

}  // namespace
}  // namespace adaptor_test
