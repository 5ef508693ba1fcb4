// The completion event generator against real CQs: as built it is disabled, so the tick that follows
// an HCA open stops it; with its flag cleared it calls the completion handler of the first HCA's CQs
// (all of them, or the selected ones) every period, through the same handler the device calls.
#include "queues_fixture.hpp"

namespace adaptor_test {
namespace {

const std::string kTick = "ox_com_timer_generator";

class CompletionGenerator : public QueuesFixture {
  protected:
    uint8_t &disabled() { return *sym<uint8_t>("g_com_disable_timer"); }
    int &timer_is_on() { return *sym<int>("g_com_add_timer_is_on"); }
    int32_t &period() { return *sym<int32_t>("g_com_num_jiff_intervals"); }
    int32_t &work_mode() { return *sym<int32_t>("g_com_work_mode"); }
    void **&selection() { return *sym<void **>("g_com_cq_array"); }
    uint32_t ticks() { return *sym<uint32_t>("g_com_num_of_timer_events"); }
    uint32_t cq_calls() { return *sym<uint32_t>("g_com_total_num_off_cq_calls"); }
    void tick() {
        const void *fn = sym<void>("ox_com_timer_generator");
        k::run_in_softirq([&] { adp_call_timer(fn, 1); });
    }
};

TEST_F(CompletionGenerator, AsBuiltTheTickAfterAnOpenStopsIt) {
    open();
    void *cq = create_cq();
    EXPECT_EQ(0, timer_is_on());
    set_debug_level(4);
    k::log_clear();
    k::advance_jiffies(100);
    EXPECT_EQ(1u, ticks());
    EXPECT_EQ(1, timer_is_on());
    EXPECT_EQ(0u, cq_calls());
    EXPECT_EQ(0, CompletionSink::calls.load());
    EXPECT_EQ(0, stats()["com_event_num"]);
    auto lines = log();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(ad_debug(kTick, "timer is disable - g_com_disable_timer: 1"), lines[0]);
    EXPECT_EQ("", lines[1]);
    // Nothing more happens.
    k::advance_jiffies(1000);
    EXPECT_EQ(1u, ticks());
    destroy_cq(cq);
    close_hca(hca_);
}

TEST_F(CompletionGenerator, EnabledItCallsEveryCqOfTheHcaEachPeriod) {
    open();
    int a_ctx = 0, b_ctx = 0;
    void *a = create_cq(16, &a_ctx);
    void *b = create_cq(16, &b_ctx);
    disabled() = 0;
    k::advance_jiffies(100);
    EXPECT_EQ(1u, ticks());
    EXPECT_EQ(2u, cq_calls());
    EXPECT_EQ(2, CompletionSink::calls.load());
    EXPECT_EQ(2, stats()["com_event_num"]);
    EXPECT_EQ(0, timer_is_on());  // re-armed: the counter is not touched
    k::advance_jiffies(99);
    EXPECT_EQ(1u, ticks());
    k::advance_jiffies(1);
    EXPECT_EQ(2u, ticks());
    EXPECT_EQ(4u, cq_calls());
    EXPECT_EQ(4, stats()["last_com_event_num"]);
    // The newest CQ is at the head of the list: it is called first.
    EXPECT_EQ(reinterpret_cast<uint64_t>(&a_ctx), CompletionSink::last_context.load());
    // A CQ destroyed between ticks is no longer called.
    destroy_cq(a);
    k::advance_jiffies(100);
    EXPECT_EQ(5u, cq_calls());
    EXPECT_EQ(reinterpret_cast<uint64_t>(&b_ctx), CompletionSink::last_context.load());
    // Stopping: the next tick hands the arming back.
    disabled() = 1;
    k::advance_jiffies(100);
    EXPECT_EQ(4u, ticks());
    EXPECT_EQ(5u, cq_calls());
    EXPECT_EQ(1, timer_is_on());
    destroy_cq(b);
    close_hca(hca_);
}

TEST_F(CompletionGenerator, APeriodOfZeroIsResetAndStopsTheTimer) {
    open();
    void *cq = create_cq();
    disabled() = 0;
    period() = 0;
    k::advance_jiffies(100);
    EXPECT_EQ(1u, ticks());
    EXPECT_EQ(100, period());
    EXPECT_EQ(0u, cq_calls());
    EXPECT_EQ(1, timer_is_on());
    k::advance_jiffies(1000);
    EXPECT_EQ(1u, ticks());
    destroy_cq(cq);
    close_hca(hca_);
}

TEST_F(CompletionGenerator, APeriodOfZeroPrintsItsReset) {
    open();
    disabled() = 0;
    period() = 0;
    k::log_clear();
    tick();
    EXPECT_EQ((std::vector<std::string>{"ERROR - g_com_num_jiff_intervals: 0, will reset value"}), log());
    EXPECT_EQ(100, period());
    close_hca(hca_);
}

TEST_F(CompletionGenerator, WorkModeTwoWithoutASelectionArrayFallsBackToAll) {
    open();
    void *cq = create_cq();
    disabled() = 0;
    work_mode() = 2;
    void **saved = selection();
    selection() = nullptr;
    k::log_clear();
    tick();
    selection() = saved;
    EXPECT_EQ((std::vector<std::string>{
                  "ERROR - g_com_work_mode == OX_COM_WA_WORK_MODE_SELECTED (2) and g_com_cq_array == NULL",
                  "change work mode to OX_COM_WA_WORK_MODE_ALL (1)"}),
              log());
    EXPECT_EQ(1, work_mode());
    EXPECT_EQ(1u, cq_calls());
    EXPECT_EQ(1, CompletionSink::calls.load());
    destroy_cq(cq);
    close_hca(hca_);
}

TEST_F(CompletionGenerator, WorkModeTwoCallsTheSelectedCqsUpToTheFirstEmptyEntry) {
    open();
    int a_ctx = 0, b_ctx = 0, c_ctx = 0;
    void *a = create_cq(16, &a_ctx);
    void *b = create_cq(16, &b_ctx);
    void *c = create_cq(16, &c_ctx);
    disabled() = 0;
    work_mode() = 2;
    // An empty selection calls nothing, and the timer goes on.
    tick();
    EXPECT_EQ(0u, cq_calls());
    EXPECT_EQ(0, CompletionSink::calls.load());
    EXPECT_EQ(1u, ticks());
    EXPECT_EQ(0, timer_is_on());
    selection()[0] = c;
    selection()[1] = a;
    selection()[3] = b;  // behind the first empty entry: not reached
    tick();
    EXPECT_EQ(2u, cq_calls());
    EXPECT_EQ(2, CompletionSink::calls.load());
    EXPECT_EQ(reinterpret_cast<uint64_t>(&a_ctx), CompletionSink::last_context.load());
    selection()[0] = selection()[1] = selection()[3] = nullptr;
    work_mode() = 1;
    destroy_cq(a);
    destroy_cq(b);
    destroy_cq(c);
    close_hca(hca_);
}

TEST_F(CompletionGenerator, WithTwoHcasOnlyTheFirstOnTheListIsServed) {
    load_ok();
    void *h0 = open_hca("InfiniHost0");
    void *h1 = open_hca("InfiniHost1");
    int ctx0 = 0, ctx1 = 0;
    hca_ = h0;
    void *cq0 = create_cq(16, &ctx0);
    hca_ = h1;
    void *cq1 = create_cq(16, &ctx1);
    disabled() = 0;
    tick();
    // The newest open HCA heads the list.
    EXPECT_EQ(1u, cq_calls());
    EXPECT_EQ(reinterpret_cast<uint64_t>(&ctx1), CompletionSink::last_context.load());
    destroy_cq(cq1);
    close_hca(h1);
    tick();
    EXPECT_EQ(2u, cq_calls());
    EXPECT_EQ(reinterpret_cast<uint64_t>(&ctx0), CompletionSink::last_context.load());
    hca_ = h0;
    destroy_cq(cq0);
    close_hca(h0);
    // No HCA left: the tick says so and stops.
    k::log_clear();
    tick();
    EXPECT_EQ((std::vector<std::string>{"ERROR - the HCA is not open"}), log());
    EXPECT_EQ(2u, cq_calls());
}

}  // namespace
}  // namespace adaptor_test
