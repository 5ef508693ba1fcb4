// Generator and event control commands of the control file.
#include "adaptor_fixture.hpp"

namespace adaptor_test {
namespace {

class ProcGenerator : public AdaptorFixture {
  protected:
    void SetUp() override {
        AdaptorFixture::SetUp();
        load_ok();
    }
};

TEST_F(ProcGenerator, StartingTwiceComplainsAndArmsNothing) {
    EXPECT_TRUE(command("comstart").empty());
    EXPECT_EQ((std::vector<std::string>{"ERROR - the timer was alredy running"}), command("comstart"));
    EXPECT_EQ((std::vector<std::string>{"ERROR - the timer was alredy running",
                                        "new_jiff_timer_num: 7, old value: 0"}),
              command("comstart 7"));
    EXPECT_EQ((std::vector<std::string>{"ERROR - to many args (args:3)"}), command("comstart 1 2"));
    k::log_clear();
    k::advance_jiffies(1000);
    EXPECT_TRUE(log().empty());
    EXPECT_EQ((std::vector<std::string>{"disable the timer - last one more completion generation !!!"}),
              command("comstop"));
    EXPECT_EQ((std::vector<std::string>{"ERROR - to many args (args:2)"}), command("comstop now"));
}

TEST_F(ProcGenerator, SetTime) {
    EXPECT_EQ((std::vector<std::string>{"ERROR - new jiff num < 1 (0)"}), command("comsett 0"));
    EXPECT_EQ((std::vector<std::string>{"new_jiff_timer_num: 32, old value: 0"}), command("comsett 0x20"));
    // Start with a bad period keeps the old one.
    EXPECT_EQ((std::vector<std::string>{"ERROR - new jiff num < 1 (0)"}), command("comstart 0"));
    EXPECT_EQ((std::vector<std::string>{"ERROR - need new jiff num (args:1)"}), command("comsett"));
    auto lines = command("comshow");
    EXPECT_TRUE(contains(lines, "g_com_num_jiff_intervals: 32 (HZ: 1000)"));
}

TEST_F(ProcGenerator, Show) {
    EXPECT_EQ((std::vector<std::string>{
                  "g_com_disable_timer: 1", "g_com_work_mode: 1", "g_com_num_jiff_intervals: 0 (HZ: 1000)",
                  "g_com_index_of_selected_cq: 0", "g_com_num_of_timer_events: 0",
                  "g_com_total_num_off_cq_calls: 0", "g_com_cq_array: 0000000000000000"}),
              command("comshow"));
    EXPECT_EQ((std::vector<std::string>{"ERROR - to many args (args:2)"}), command("comshow 1"));
}

TEST_F(ProcGenerator, WorkMode) {
    EXPECT_EQ((std::vector<std::string>{"ERROR - new work mode can be 1 or 2 (3)"}), command("commode 3"));
    EXPECT_EQ((std::vector<std::string>{"ERROR - new work mode == old work mode (1:1)"}),
              command("commode 1"));
    EXPECT_EQ((std::vector<std::string>{"ERROR - can't modify to work mode 2 !!!, no allocated cq array"}),
              command("commode 2"));
    EXPECT_EQ((std::vector<std::string>{"ERROR - need new work mode (args:1)"}), command("commode"));
}

TEST_F(ProcGenerator, CqSelectionWithoutAnyCq) {
    EXPECT_EQ((std::vector<std::string>{"ERROR - need CQ handle (user or IBM) (args:1)"}),
              command("comaddcq"));
    EXPECT_EQ((std::vector<std::string>{"Didn't find cq_h: 0000000000000005"}), command("comaddcq 5"));
    EXPECT_EQ((std::vector<std::string>{"ERROR - Didn't find cq_h: 0000000000000010"}),
              command("comremcq 0x10"));
}

TEST_F(ProcGenerator, EventControlAndShow) {
    auto *no_events = sym<uint8_t>("no_events_active");
    ASSERT_NE(nullptr, no_events);
    EXPECT_EQ((std::vector<std::string>{"Working with events - interrupts", "Working in a events mode",
                                        "no_events_active: 0", "g_com_disable_timer: 1"}),
              command("event_show"));
    EXPECT_EQ((std::vector<std::string>{"no_events_active = true"}), command("event_ctrl 11"));
    EXPECT_EQ(1, *no_events);
    EXPECT_EQ((std::vector<std::string>{"Working without events - no interrupts", "Working in a polling mode",
                                        "no_events_active: 1", "g_com_disable_timer: 0"}),
              command("event_show"));
    EXPECT_EQ((std::vector<std::string>{"no_events_active = false"}), command("event_ctrl 10"));
    EXPECT_EQ(0, *no_events);
    EXPECT_EQ((std::vector<std::string>{"no_events_active = true"}), command("event_ctrl 1"));
    EXPECT_EQ((std::vector<std::string>{"no_events_active = false - events generation"}),
              command("event_ctrl 0"));
    EXPECT_TRUE(command("event_ctrl 7").empty());
    EXPECT_EQ((std::vector<std::string>{"ERROR - to many args (args:2)"}), command("event_show x"));
}

TEST_F(ProcGenerator, PollTestWithoutCqs) {
    EXPECT_EQ((std::vector<std::string>{"poll_cq_num: 5", "ERROR - Didn't find cq_h: 0x0000000000000005"}),
              command("pollcq 5"));
    EXPECT_EQ((std::vector<std::string>{"poll_cq_num: 0"}), command("pollcq 0"));
    EXPECT_EQ((std::vector<std::string>{
                  "ERROR - need [CQ handle (user or MLX or index 1,2,3...) if 0 will poll all CQ] (args:1)"}),
              command("pollcq"));
}

}  // namespace
}  // namespace adaptor_test
