// Completion events and the data path's asynchronous events, delivered on the emulated kernel's
// interrupt thread in hardirq context.
#include <atomic>
#include <chrono>
#include <thread>

#include "datapath_fixture.hpp"
#include "marlix/kernel.hpp"

using namespace dp;

namespace {

struct Seen {
    std::atomic<int> calls{0};
    VAPI_hca_hndl_t hca = 0;
    VAPI_cq_hndl_t cq = 0;
    unsigned long in_irq_count = 0;
    std::thread::id thread;
};

void on_completion(VAPI_hca_hndl_t hca, VAPI_cq_hndl_t cq, void *priv) {
    auto *s = static_cast<Seen *>(priv);
    s->hca = hca;
    s->cq = cq;
    s->in_irq_count = in_irq();
    s->thread = std::this_thread::get_id();
    s->calls.fetch_add(1);
}

class DataPathEvents : public DataPathTest {
  protected:
    void SetUp() override {
        marlix::kernel::boot();
        DataPathTest::SetUp();
        log_async_events();
    }
    void TearDown() override {
        DataPathTest::TearDown();
        marlix::kernel::halt(true);
    }
    void settle() {
        run();
        marlix::kernel::irq_sync();
    }
    // on_completion(), recording into `seen`, becomes the completion handler of the side's CQ.
    static void watch(const Side &s, Seen &seen) {
        EVAPI_compl_handler_hndl_t h = 0;
        ASSERT_EQ(EVAPI_set_comp_eventh(s.hca, s.cq, on_completion, &seen, &h), VAPI_OK);
    }
};

TEST_F(DataPathEvents, ArmedCqCallsItsHandlerOnceInHardirqContext) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Seen seen;
    watch(s1, seen);
    ASSERT_EQ(VAPI_req_comp_notif(s1.hca, s1.cq, VAPI_NEXT_COMP), VAPI_OK);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    ASSERT_EQ(post_recv(b, 1, {dst.sg(0, 64)}), VAPI_OK);
    ASSERT_EQ(post_recv(b, 2, {dst.sg(0, 64)}), VAPI_OK);
    ASSERT_EQ(post_send(a, 1, VAPI_SEND, {src.sg(0, 8)}), VAPI_OK);
    ASSERT_EQ(post_send(a, 2, VAPI_SEND, {src.sg(0, 8)}), VAPI_OK);
    settle();
    EXPECT_EQ(seen.calls.load(), 1);  // one event per arming
    EXPECT_EQ(seen.hca, s1.hca);
    EXPECT_EQ(seen.cq, s1.cq);
    EXPECT_NE(seen.in_irq_count, 0u);
    EXPECT_NE(seen.thread, std::this_thread::get_id());  // the kernel's interrupt thread
    EXPECT_EQ(poll(s1).size(), 2u);
}

TEST_F(DataPathEvents, SolicitedArmingWaitsForASolicitedMessage) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Seen seen;
    watch(s1, seen);
    ASSERT_EQ(VAPI_req_comp_notif(s1.hca, s1.cq, VAPI_SOLIC_COMP), VAPI_OK);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    for (int i = 0; i < 2; ++i) ASSERT_EQ(post_recv(b, i, {dst.sg(0, 64)}), VAPI_OK);
    ASSERT_EQ(post_send(a, 1, VAPI_SEND, {src.sg(0, 8)}), VAPI_OK);
    settle();
    EXPECT_EQ(seen.calls.load(), 0);
    SendWr solicited(2, VAPI_SEND, {src.sg(0, 8)});
    solicited.d.set_se = TRUE;
    ASSERT_EQ(post(a, solicited), VAPI_OK);
    settle();
    EXPECT_EQ(seen.calls.load(), 1);
}

TEST_F(DataPathEvents, CountArmingWaitsForThatManyCompletions) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Seen seen;
    watch(s0, seen);
    EXPECT_EQ(EVAPI_req_ncomp_notif(s0.hca, s0.cq, 0), VAPI_E2BIG_CQ_NUM);
    ASSERT_EQ(EVAPI_req_ncomp_notif(s0.hca, s0.cq, 3), VAPI_OK);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(post_send(a, i, VAPI_RDMA_WRITE, {src.sg(0, 8)}, dst.addr(), dst.rkey), VAPI_OK);
    settle();
    EXPECT_EQ(seen.calls.load(), 0);
    ASSERT_EQ(post_send(a, 2, VAPI_RDMA_WRITE, {src.sg(0, 8)}, dst.addr(), dst.rkey), VAPI_OK);
    settle();
    EXPECT_EQ(seen.calls.load(), 1);
    EXPECT_EQ(poll(s0).size(), 3u);
}

TEST_F(DataPathEvents, FirstPacketInRtrEstablishesTheConnection) {
    Qp a = create(s0, VAPI_TS_RC), b = create(s1, VAPI_TS_RC);
    connect_one(a, b, VAPI_TS_RC, Conn{});
    // b stops in RTR: it receives but does not send yet.
    VAPI_qp_attr_t at{};
    at.qp_state = VAPI_INIT;
    at.port = 1;
    at.remote_atomic_flags = VAPI_EN_REM_WRITE;
    ASSERT_EQ(modify(b, at, QP_ATTR_QP_STATE | QP_ATTR_PORT | QP_ATTR_PKEY_IX | QP_ATTR_REMOTE_ATOMIC_FLAGS),
              VAPI_OK);
    at.qp_state = VAPI_RTR;
    at.av.dlid = s0.lid;
    at.path_mtu = MTU2048;
    at.dest_qp_num = a.num;
    at.rq_psn = 0x100;
    at.qp_ous_rd_atom = 1;
    ASSERT_EQ(modify(b, at,
                     QP_ATTR_QP_STATE | QP_ATTR_AV | QP_ATTR_PATH_MTU | QP_ATTR_DEST_QP_NUM | QP_ATTR_RQ_PSN |
                         QP_ATTR_QP_OUS_RD_ATOM),
              VAPI_OK);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    ASSERT_EQ(post_send(a, 1, VAPI_RDMA_WRITE, {src.sg(0, 8)}, dst.addr(), dst.rkey), VAPI_OK);
    ASSERT_EQ(post_send(a, 2, VAPI_RDMA_WRITE, {src.sg(0, 8)}, dst.addr(), dst.rkey), VAPI_OK);
    settle();
    EXPECT_EQ(async1.count(VAPI_QP_COMM_ESTABLISHED, b.hndl), 1u);
    EXPECT_EQ(poll(s0).size(), 2u);
}

TEST_F(DataPathEvents, SendQueueDrainedWhenWhatWasInFlightIsAnswered) {
    Conn c;
    c.timeout = 10;
    auto [a, b] = pair(VAPI_TS_RC, s0, s1, c);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    // The request goes out but its packet is lost: the QP is still draining when it enters SQD.
    drop_packets(s0, 1);
    ASSERT_EQ(post_send(a, 1, VAPI_RDMA_WRITE, {src.sg(0, 8)}, dst.addr(), dst.rkey), VAPI_OK);
    settle();
    VAPI_qp_attr_t at{};
    at.qp_state = VAPI_SQD;
    at.en_sqd_asyn_notif = TRUE;
    ASSERT_EQ(modify(a, at, QP_ATTR_QP_STATE | QP_ATTR_EN_SQD_ASYN_NOTIF), VAPI_OK);
    marlix::kernel::irq_sync();
    EXPECT_FALSE(async0.has(VAPI_SEND_QUEUE_DRAINED, a.hndl));
    // Posted in SQD: waits.
    ASSERT_EQ(post_send(a, 2, VAPI_RDMA_WRITE, {src.sg(0, 8)}, dst.addr(), dst.rkey), VAPI_OK);
    sh::advance_clock(5);  // the retransmission is answered
    marlix::kernel::irq_sync();
    EXPECT_TRUE(async0.has(VAPI_SEND_QUEUE_DRAINED, a.hndl));
    EXPECT_EQ(only(poll(s0)).id, 1u);
    at.qp_state = VAPI_RTS;
    ASSERT_EQ(modify(a, at, QP_ATTR_QP_STATE), VAPI_OK);
    settle();
    EXPECT_EQ(only(poll(s0)).id, 2u);
}

TEST_F(DataPathEvents, AnyAsyncEventCanBeRaisedForTests) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    ASSERT_TRUE(sh::raise_async_event("InfiniHost0", uint32_t(VAPI_QP_PATH_MIGRATED), a.hndl));
    marlix::kernel::irq_sync();
    EXPECT_TRUE(async0.has(VAPI_QP_PATH_MIGRATED, a.hndl));
}

TEST_F(DataPathEvents, ThreadedEngineMovesDataWithoutStepping) {
    // The same system with the threaded engine: posts complete on their own.
    sh::Options o;
    o.engine = sh::EngineKind::Threaded;
    sh::boot(o);
    EXPECT_EQ(sh::engine_kind(), sh::EngineKind::Threaded);
    Side t0, t1;
    ASSERT_NO_FATAL_FAILURE(open_side(t0, "InfiniHost0"));
    ASSERT_NO_FATAL_FAILURE(open_side(t1, "InfiniHost1"));
    auto [a, b] = pair(VAPI_TS_RC, t0, t1);
    Buffer &src = buffer(t0, 4096), &dst = buffer(t1, 4096);
    pattern(src, 3);
    ASSERT_EQ(post_recv(b, 1, {dst.sg(0, 4096)}), VAPI_OK);
    ASSERT_EQ(post_send(a, 1, VAPI_SEND, {src.sg(0, 4096)}), VAPI_OK);
    std::vector<VAPI_wc_desc_t> got;
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (got.empty() && std::chrono::steady_clock::now() < give_up) {
        got = poll(t1);
        if (got.empty()) std::this_thread::yield();
    }
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].byte_len, 4096u);
    sh::run_until_idle();
    EXPECT_EQ(poll(t0).size(), 1u);
    EXPECT_EQ(dst.bytes, src.bytes);
}

}  // namespace
