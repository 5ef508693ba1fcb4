// On the threaded engine a send post whose send CQ already holds completions that nobody asked an
// event for only queues: the poll that finds that CQ empty carries every post left on the device
// through in one pass (a window of single posts then costs what a list does), and so do a peek
// and an arming. When nobody polls, the engine carries them after a while of its own. The engine's
// look is set far out here (ten seconds), so that what a test sees before it polls is exact.
#include <atomic>
#include <chrono>
#include <thread>

#include "datapath_fixture.hpp"
#include "device/device.hpp"
#include "marlix/kernel.hpp"

using namespace dp;

namespace {

constexpr uint32_t kFarLookUs = 10'000'000;

class LeftPosts : public DataPathTest {
  protected:
    LeftPosts() { engine_ = sh::EngineKind::Threaded; }
    sh::Options options() override {
        sh::Options o = DataPathTest::options();
        o.engine_look_us = look_us_;
        return o;
    }
    void SetUp() override {
        marlix::kernel::boot();
        DataPathTest::SetUp();
    }
    void TearDown() override {
        DataPathTest::TearDown();
        marlix::kernel::halt(true);
    }

    // An RC pair with `n` receives of 8 bytes posted at b, into consecutive 8-byte slots of `dst`,
    // and `src` holding a distinct 8-byte message in each slot.
    struct Link {
        Qp a, b;
        Buffer *src = nullptr, *dst = nullptr;
    };
    Link link(uint32_t n) {
        auto [a, b] = pair(VAPI_TS_RC, s0, s1);
        Link l{a, b, &buffer(s0, 8 * n), &buffer(s1, 8 * n)};
        pattern(*l.src, 3);
        for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(post_recv(b, 100 + i, {l.dst->sg(8 * i, 8)}), VAPI_OK);
        // The engine's first rounds are over and it sleeps: none of them takes a post left next.
        run();
        return l;
    }
    VAPI_ret_t send(const Link &l, uint32_t i) { return post_send(l.a, i, VAPI_SEND, {l.src->sg(8 * i, 8)}); }
    // Whether message i has arrived in its slot.
    static bool arrived(const Link &l, uint32_t i) {
        return std::equal(l.src->bytes.begin() + 8 * i, l.src->bytes.begin() + 8 * i + 8,
                          l.dst->bytes.begin() + 8 * i);
    }
    // Two sends on a fresh link: the first runs at once, the second is left behind its
    // completion.
    Link one_left() {
        Link l = link(2);
        EXPECT_EQ(send(l, 0), VAPI_OK);
        EXPECT_EQ(send(l, 1), VAPI_OK);
        EXPECT_FALSE(arrived(l, 1));
        return l;
    }
    // One completion polled from the side's CQ, or a record of 0xff bytes when it has none.
    static VAPI_wc_desc_t poll_one(const Side &s) {
        VAPI_wc_desc_t wc = unwritten_completion();
        if (VAPI_poll_cq(s.hca, s.cq, &wc) != VAPI_OK) wc = unwritten_completion();
        return wc;
    }

    uint32_t look_us_ = kFarLookUs;
};

TEST_F(LeftPosts, APostBehindAnUnpolledCompletionWaitsForThePollThatFindsTheCqEmpty) {
    Link l = link(2);
    ASSERT_EQ(send(l, 0), VAPI_OK);
    ASSERT_TRUE(arrived(l, 0)) << "a post onto an empty CQ runs at once";
    ASSERT_EQ(send(l, 1), VAPI_OK);
    EXPECT_FALSE(arrived(l, 1)) << "left for the poll: the send CQ holds the first completion";
    // The receiving side's device has nothing left on it: its poll carries nothing.
    EXPECT_EQ(poll_one(s1).id, 100u);
    EXPECT_EQ(poll_one(s1).id, unwritten_completion().id);
    EXPECT_FALSE(arrived(l, 1));

    const VAPI_wc_desc_t first = poll_one(s0);  // the completion that was there
    EXPECT_EQ(first.id, 0u);
    EXPECT_FALSE(arrived(l, 1));
    const VAPI_wc_desc_t second = poll_one(s0);  // the CQ is empty: the left post goes through
    EXPECT_EQ(second.id, 1u);
    EXPECT_EQ(second.status, VAPI_SUCCESS);
    EXPECT_EQ(second.opcode, VAPI_CQE_SQ_SEND_DATA);
    EXPECT_TRUE(arrived(l, 1));
    const VAPI_wc_desc_t received = poll_one(s1);
    EXPECT_EQ(received.id, 101u);
    EXPECT_EQ(received.byte_len, 8u);
}

TEST_F(LeftPosts, PostsLeftTogetherGoInOrderInOnePassWithOneAck) {
    constexpr uint32_t kLeft = 8;
    Link l = link(1 + kLeft);
    ASSERT_EQ(send(l, 0), VAPI_OK);
    for (uint32_t i = 1; i <= kLeft; ++i) ASSERT_EQ(send(l, i), VAPI_OK);
    for (uint32_t i = 1; i <= kLeft; ++i) EXPECT_FALSE(arrived(l, i)) << i;
    const auto before0 = port_counters(s0), before1 = port_counters(s1);
    auto sent = poll(s0);
    const auto after0 = port_counters(s0), after1 = port_counters(s1);
    // PortXmitPkts / PortRcvPkts: eight requests one way, one ACK back for them all.
    EXPECT_EQ(after0[2] - before0[2], kLeft);
    EXPECT_EQ(after1[3] - before1[3], kLeft);
    EXPECT_EQ(after1[2] - before1[2], 1u);
    EXPECT_EQ(after0[3] - before0[3], 1u);
    ASSERT_EQ(sent.size(), 1 + kLeft);
    for (uint32_t i = 0; i <= kLeft; ++i) {
        EXPECT_EQ(sent[i].id, i);
        EXPECT_EQ(sent[i].status, VAPI_SUCCESS);
        EXPECT_TRUE(arrived(l, i)) << i;
    }
    auto received = poll(s1);
    ASSERT_EQ(received.size(), 1 + kLeft);
    for (uint32_t i = 0; i <= kLeft; ++i) EXPECT_EQ(received[i].id, 100 + i);
}

TEST_F(LeftPosts, AnArmedCqHasItsPostsRunAtOnce) {
    Link l = link(2);
    ASSERT_EQ(send(l, 0), VAPI_OK);
    ASSERT_EQ(VAPI_req_comp_notif(s0.hca, s0.cq, VAPI_NEXT_COMP), VAPI_OK);
    ASSERT_EQ(send(l, 1), VAPI_OK);
    EXPECT_TRUE(arrived(l, 1)) << "an event was asked for: nobody is sure to poll";
}

TEST_F(LeftPosts, ArmingCarriesWhatWasLeftAndRaisesTheEvent) {
    Link l = one_left();
    std::atomic<int> events{0};
    EVAPI_compl_handler_hndl_t h = 0;
    auto on_event = [](VAPI_hca_hndl_t, VAPI_cq_hndl_t, void *p) {
        static_cast<std::atomic<int> *>(p)->fetch_add(1);
    };
    ASSERT_EQ(EVAPI_set_comp_eventh(s0.hca, s0.cq, on_event, &events, &h), VAPI_OK);
    ASSERT_EQ(VAPI_req_comp_notif(s0.hca, s0.cq, VAPI_NEXT_COMP), VAPI_OK);
    EXPECT_TRUE(arrived(l, 1));
    marlix::kernel::irq_sync();
    EXPECT_EQ(events.load(), 1) << "the left send completed after the arming";
    auto sent = poll(s0);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1].id, 1u);
}

TEST_F(LeftPosts, ArmingForACountCarriesWhatWasLeft) {
    Link l = one_left();
    ASSERT_EQ(EVAPI_req_ncomp_notif(s0.hca, s0.cq, 2), VAPI_OK);
    EXPECT_TRUE(arrived(l, 1));
}

TEST_F(LeftPosts, APeekCountsWhatWasLeft) {
    Link l = one_left();
    EXPECT_EQ(EVAPI_peek_cq(s0.hca, s0.cq, 2), VAPI_OK);
    EXPECT_TRUE(arrived(l, 1));
}

TEST_F(LeftPosts, APollThatFindsAPassUnderWayLeavesWhatWasLeftToTheEngineAtOnce) {
    Link l = one_left();
    EXPECT_EQ(poll_one(s0).id, 0u);
    sh::Device &dev = *sh::device_by_handle(s0.hca);
    {
        // As another thread's pass would while the wire carries its packets.
        std::lock_guard lk(dev.mu);
        dev.pass_running = true;
    }
    // The CQ is empty, but the pass under way has the device: the poll cannot carry the post.
    EXPECT_EQ(poll_one(s0).id, unwritten_completion().id);
    {
        std::lock_guard lk(dev.mu);
        EXPECT_NE(dev.doorbells.load(), nullptr) << "the left post was taken while a pass was under way";
        dev.pass_running = false;
    }
    // The poll kicked the engine, which carries the post once the pass has ended, well before
    // its own look (ten seconds). Only the receiving side is polled meanwhile, and it carries
    // nothing of the sender's.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    std::vector<VAPI_wc_desc_t> received;
    while (received.size() < 2 && std::chrono::steady_clock::now() < until)
        for (const VAPI_wc_desc_t &wc : poll(s1)) received.push_back(wc);
    ASSERT_EQ(received.size(), 2u) << "the engine did not carry the post at once";
    EXPECT_EQ(received[1].id, 101u);
    EXPECT_EQ(received[1].byte_len, 8u);
    EXPECT_TRUE(arrived(l, 1));
    // The receive completes before the acknowledgement is in: the send's completion follows.
    VAPI_wc_desc_t sent = unwritten_completion();
    while (sent.id != 1u && std::chrono::steady_clock::now() < until) sent = poll_one(s0);
    EXPECT_EQ(sent.id, 1u);
    EXPECT_EQ(sent.status, VAPI_SUCCESS);
}

// The same with another engine or look.
template <sh::EngineKind kEngine, uint32_t kLookUs>
class LeftPostsWith : public LeftPosts {
  protected:
    LeftPostsWith() {
        engine_ = kEngine;
        look_us_ = kLookUs;
    }
};
using LeftPostsSoonLooked = LeftPostsWith<sh::EngineKind::Threaded, 1000>;

TEST_F(LeftPostsSoonLooked, TheEngineCarriesWhatNobodyPolls) {
    Link l = link(2);
    ASSERT_EQ(send(l, 0), VAPI_OK);
    ASSERT_EQ(send(l, 1), VAPI_OK);
    // The sending side's CQ is never polled; the engine carries the send after its look.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::vector<VAPI_wc_desc_t> received;
    while (received.size() < 2 && std::chrono::steady_clock::now() < until) {
        for (const VAPI_wc_desc_t &wc : poll(s1)) received.push_back(wc);
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[1].id, 101u);
    EXPECT_TRUE(arrived(l, 1));
}

using LeftPostsStepped = LeftPostsWith<sh::EngineKind::Stepped, kFarLookUs>;

TEST_F(LeftPostsStepped, APollCarriesNothingOnTheSteppedEngine) {
    Link l = link(1);
    ASSERT_EQ(send(l, 0), VAPI_OK);
    EXPECT_EQ(poll_one(s0).id, unwritten_completion().id);
    EXPECT_FALSE(arrived(l, 0)) << "only a step moves data on the stepped engine";
    run();
    EXPECT_TRUE(arrived(l, 0));
    EXPECT_EQ(poll_one(s0).id, 0u);
}

}  // namespace
