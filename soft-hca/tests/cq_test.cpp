// Completion queues through the verbs: sizes, polling, resizing, handlers, arming, limits and
// injected faults.
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "queue_fixture.hpp"

namespace sh = marlix::softhca;

namespace {

struct Fired {
    VAPI_hca_hndl_t hca;
    VAPI_cq_hndl_t cq;
    void *priv;
};
std::vector<Fired> g_fired;
void record_event(VAPI_hca_hndl_t hca, VAPI_cq_hndl_t cq, void *priv) {
    g_fired.push_back({hca, cq, priv});
}

std::vector<VAPI_event_record_t> g_async;
void record_async(VAPI_hca_hndl_t, VAPI_event_record_t *rec, void *) {
    g_async.push_back(*rec);
}

VAPI_wc_desc_t completion(VAPI_wr_id_t id, VAPI_wc_status_t status = VAPI_SUCCESS) {
    VAPI_wc_desc_t wc{};
    wc.id = id;
    wc.status = status;
    wc.opcode = VAPI_CQE_RQ_SEND_DATA;
    wc.byte_len = 1000;
    return wc;
}

class CqTest : public QueueTest {
  protected:
    void SetUp() override {
        QueueTest::SetUp();
        g_fired.clear();
        g_async.clear();
    }
    // What the data path does: push a completion and deliver the event it raises.
    void complete(VAPI_cq_hndl_t h, const VAPI_wc_desc_t &wc, bool solicited = false) {
        sh::Device *dev = sh::device_by_handle(hca);
        sh::PendingEvents events;
        {
            std::lock_guard lk(dev->mu);
            sh::CompletionQueue *c = sh::find_cq(*dev, h);
            ASSERT_NE(c, nullptr);
            sh::push_completion(*c, wc, solicited, events);
        }
        events.deliver(*dev);
    }
};

}  // namespace

TEST(CompletionQueueSize, NextPowerOfTwoMinusOneAtLeastTheRequest) {
    EXPECT_EQ(sh::CompletionQueue::actual_size(0), 1u);
    EXPECT_EQ(sh::CompletionQueue::actual_size(1), 1u);
    EXPECT_EQ(sh::CompletionQueue::actual_size(2), 3u);
    EXPECT_EQ(sh::CompletionQueue::actual_size(3), 3u);
    EXPECT_EQ(sh::CompletionQueue::actual_size(4), 7u);
    EXPECT_EQ(sh::CompletionQueue::actual_size(100), 127u);
    EXPECT_EQ(sh::CompletionQueue::actual_size(131071), 131071u);
}

TEST_F(CqTest, CreateReturnsTheActualSizeAndQueryAgrees) {
    for (auto [req, want] : {std::pair{1u, 1u}, {16u, 31u}, {100u, 127u}, {131071u, 131071u}}) {
        VAPI_cq_hndl_t h = 0;
        VAPI_cqe_num_t actual = 0;
        ASSERT_EQ(VAPI_create_cq(hca, req, &h, &actual), VAPI_OK);
        EXPECT_EQ(actual, want) << req;
        VAPI_cqe_num_t q = 0;
        EXPECT_EQ(VAPI_query_cq(hca, h, &q), VAPI_OK);
        EXPECT_EQ(q, want);
    }
}

TEST_F(CqTest, TooLargeACqIsRefused) {
    VAPI_cq_hndl_t h = 77;
    VAPI_cqe_num_t actual = 77;
    EXPECT_EQ(VAPI_create_cq(hca, 131072, &h, &actual), VAPI_E2BIG_CQ_NUM);
    EXPECT_EQ(h, 77u);
    EXPECT_EQ(VAPI_create_cq(hca, 8, nullptr, &actual), VAPI_EINVAL_PARAM);
    EXPECT_EQ(sh::cq_count("InfiniHost0"), 0u);
}

TEST_F(CqTest, HandlesAreSmallAndReusedLowestFirst) {
    VAPI_cq_hndl_t a = make_cq(), b = make_cq(), c = make_cq();
    EXPECT_EQ(a, 1u);
    EXPECT_EQ(b, 2u);
    EXPECT_EQ(c, 3u);
    ASSERT_EQ(VAPI_destroy_cq(hca, b), VAPI_OK);
    EXPECT_EQ(make_cq(), 2u);
    EXPECT_EQ(make_cq(), 4u);
}

TEST_F(CqTest, InjectedHandleValues) {
    ASSERT_TRUE(sh::set_next_cq_handle("InfiniHost0", 1000));
    EXPECT_EQ(make_cq(), 1000u);
    ASSERT_TRUE(sh::set_next_cq_handle("InfiniHost0", 1001));
    VAPI_cq_hndl_t h = make_cq();
    EXPECT_EQ(h, 1001u);
    EXPECT_EQ(make_cq(), 1u);  // back to lowest-first
    EXPECT_EQ(VAPI_destroy_cq(hca, 1001), VAPI_OK);
    EXPECT_EQ(VAPI_destroy_cq(hca, 1000), VAPI_OK);
}

TEST_F(CqTest, PollingAnEmptyCqSaysEmptyAndLeavesTheRecord) {
    VAPI_cq_hndl_t h = make_cq();
    VAPI_wc_desc_t wc{};
    wc.id = 0x55;
    EXPECT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_CQ_EMPTY);
    EXPECT_EQ(wc.id, 0x55u);
}

TEST_F(CqTest, PollReturnsCompletionsInOrder) {
    VAPI_cq_hndl_t h = make_cq(4);
    for (VAPI_wr_id_t id = 1; id <= 3; ++id) complete(h, completion(id));
    VAPI_wc_desc_t wc{};
    for (VAPI_wr_id_t id = 1; id <= 3; ++id) {
        ASSERT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_OK);
        EXPECT_EQ(wc.id, id);
        EXPECT_EQ(wc.byte_len, 1000u);
    }
    EXPECT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_CQ_EMPTY);
}

TEST_F(CqTest, PeekSaysWhetherAtLeastNAreQueued) {
    VAPI_cq_hndl_t h = make_cq();
    EXPECT_EQ(EVAPI_peek_cq(hca, h, 1), VAPI_CQ_EMPTY);
    complete(h, completion(1));
    complete(h, completion(2));
    EXPECT_EQ(EVAPI_peek_cq(hca, h, 1), VAPI_OK);
    EXPECT_EQ(EVAPI_peek_cq(hca, h, 2), VAPI_OK);
    EXPECT_EQ(EVAPI_peek_cq(hca, h, 3), VAPI_CQ_EMPTY);
    // Handle 0 is never handed out.
    EXPECT_EQ(EVAPI_peek_cq(hca, 0, 1), VAPI_EINVAL_CQ_HNDL);
}

TEST_F(CqTest, ResizeKeepsTheQueuedCompletions) {
    VAPI_cq_hndl_t h = make_cq(3);
    for (VAPI_wr_id_t id = 1; id <= 3; ++id) complete(h, completion(id));
    VAPI_cqe_num_t actual = 0;
    ASSERT_EQ(VAPI_resize_cq(hca, h, 20, &actual), VAPI_OK);
    EXPECT_EQ(actual, 31u);
    complete(h, completion(4));
    // Shrinking below the four queued entries would lose some.
    EXPECT_EQ(VAPI_resize_cq(hca, h, 2, &actual), VAPI_E2BIG_CQ_NUM);
    EXPECT_EQ(actual, 31u);
    ASSERT_EQ(VAPI_resize_cq(hca, h, 5, &actual), VAPI_OK);
    EXPECT_EQ(actual, 7u);
    VAPI_wc_desc_t wc{};
    for (VAPI_wr_id_t id = 1; id <= 4; ++id) {
        ASSERT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_OK);
        EXPECT_EQ(wc.id, id);
    }
    EXPECT_EQ(VAPI_resize_cq(hca, h, 200000, &actual), VAPI_E2BIG_CQ_NUM);
    EXPECT_EQ(VAPI_resize_cq(hca, 99, 8, &actual), VAPI_EINVAL_CQ_HNDL);
}

TEST_F(CqTest, OverrunDropsTheCompletionAndRaisesACqError) {
    ASSERT_EQ(VAPI_set_async_event_handler(hca, record_async, nullptr), VAPI_OK);
    VAPI_cq_hndl_t h = make_cq(1);
    complete(h, completion(1));
    complete(h, completion(2));
    complete(h, completion(3));
    ASSERT_EQ(g_async.size(), 1u);  // raised once, when the ring first overflowed
    EXPECT_EQ(g_async[0].type, VAPI_CQ_ERROR);
    EXPECT_EQ(g_async[0].syndrome, VAPI_CQ_ERR_OVERRUN);
    EXPECT_EQ(g_async[0].modifier.cq_hndl, h);
    VAPI_wc_desc_t wc{};
    ASSERT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_OK);
    EXPECT_EQ(wc.id, 1u);
    EXPECT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_CQ_EMPTY);
}

TEST_F(CqTest, AnArmedCqThatOverflowsRaisesItsEventAndTheCqErrorOnce) {
    ASSERT_EQ(VAPI_set_async_event_handler(hca, record_async, nullptr), VAPI_OK);
    VAPI_cq_hndl_t h = make_cq(1);
    EVAPI_compl_handler_hndl_t hh = 0;
    ASSERT_EQ(EVAPI_set_comp_eventh(hca, h, record_event, nullptr, &hh), VAPI_OK);
    complete(h, completion(1));  // fills the ring, raises nothing
    EXPECT_TRUE(g_fired.empty());
    EXPECT_TRUE(g_async.empty());
    ASSERT_EQ(VAPI_req_comp_notif(hca, h, VAPI_NEXT_COMP), VAPI_OK);
    complete(h, completion(2));  // dropped; the arming still fires, and the overrun is raised
    ASSERT_EQ(g_fired.size(), 1u);
    ASSERT_EQ(g_async.size(), 1u);
    EXPECT_EQ(g_async[0].syndrome, VAPI_CQ_ERR_OVERRUN);
    complete(h, completion(3));  // disarmed and already overrun: nothing more
    EXPECT_EQ(g_fired.size(), 1u);
    EXPECT_EQ(g_async.size(), 1u);
    VAPI_wc_desc_t wc{};
    ASSERT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_OK);
    EXPECT_EQ(wc.id, 1u);
    // Room again: an unarmed push goes in and raises nothing.
    complete(h, completion(4));
    ASSERT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_OK);
    EXPECT_EQ(wc.id, 4u);
    EXPECT_EQ(g_fired.size(), 1u);
    EXPECT_EQ(g_async.size(), 1u);
}

TEST_F(CqTest, DestroyIsRefusedWhileAQpUsesTheCq) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UD);
    EXPECT_EQ(VAPI_destroy_cq(hca, cq), VAPI_EBUSY);
    ASSERT_EQ(VAPI_destroy_qp(hca, qp), VAPI_OK);
    EXPECT_EQ(VAPI_destroy_cq(hca, cq), VAPI_OK);
    EXPECT_EQ(VAPI_destroy_cq(hca, cq), VAPI_EINVAL_CQ_HNDL);
    EXPECT_EQ(sh::cq_count("InfiniHost0"), 0u);
}

TEST_F(CqTest, ACqUsedByTwoQpsStaysBusyUntilBothAreGone) {
    VAPI_qp_hndl_t a = make_qp(VAPI_TS_UD);
    VAPI_qp_hndl_t b = make_qp(VAPI_TS_RC);
    ASSERT_EQ(VAPI_destroy_qp(hca, a), VAPI_OK);
    EXPECT_EQ(VAPI_destroy_cq(hca, cq), VAPI_EBUSY);
    ASSERT_EQ(VAPI_destroy_qp(hca, b), VAPI_OK);
    EXPECT_EQ(VAPI_destroy_cq(hca, cq), VAPI_OK);
}

TEST_F(CqTest, CompletionHandlerFiresOncePerArming) {
    VAPI_cq_hndl_t h = make_cq();
    int cookie = 0;
    EVAPI_compl_handler_hndl_t hh = 0;
    ASSERT_EQ(EVAPI_set_comp_eventh(hca, h, record_event, &cookie, &hh), VAPI_OK);
    complete(h, completion(1));
    EXPECT_TRUE(g_fired.empty());  // not armed
    ASSERT_EQ(VAPI_req_comp_notif(hca, h, VAPI_NEXT_COMP), VAPI_OK);
    complete(h, completion(2));
    complete(h, completion(3));
    ASSERT_EQ(g_fired.size(), 1u);
    EXPECT_EQ(g_fired[0].hca, hca);
    EXPECT_EQ(g_fired[0].cq, h);
    EXPECT_EQ(g_fired[0].priv, &cookie);
}

TEST_F(CqTest, SolicitedArmingWaitsForASolicitedOrFailedCompletion) {
    VAPI_cq_hndl_t h = make_cq();
    EVAPI_compl_handler_hndl_t hh = 0;
    ASSERT_EQ(EVAPI_set_comp_eventh(hca, h, record_event, nullptr, &hh), VAPI_OK);
    ASSERT_EQ(VAPI_req_comp_notif(hca, h, VAPI_SOLIC_COMP), VAPI_OK);
    complete(h, completion(1), false);
    EXPECT_TRUE(g_fired.empty());
    complete(h, completion(2), true);
    EXPECT_EQ(g_fired.size(), 1u);
    ASSERT_EQ(VAPI_req_comp_notif(hca, h, VAPI_SOLIC_COMP), VAPI_OK);
    complete(h, completion(3, VAPI_LOC_PROT_ERR), false);
    EXPECT_EQ(g_fired.size(), 2u);
    // "Next" arming widens a pending solicited one.
    ASSERT_EQ(VAPI_req_comp_notif(hca, h, VAPI_SOLIC_COMP), VAPI_OK);
    ASSERT_EQ(VAPI_req_comp_notif(hca, h, VAPI_NEXT_COMP), VAPI_OK);
    complete(h, completion(4), false);
    EXPECT_EQ(g_fired.size(), 3u);
}

TEST_F(CqTest, ArmingWithAnUnknownTypeIsRefused) {
    VAPI_cq_hndl_t h = make_cq();
    EXPECT_EQ(VAPI_req_comp_notif(hca, h, VAPI_NOTIF_NONE), VAPI_EINVAL_NOTIF_TYPE);
    EXPECT_EQ(VAPI_req_comp_notif(hca, h, static_cast<VAPI_cq_notif_type_t>(3)), VAPI_EINVAL_NOTIF_TYPE);
    EXPECT_EQ(VAPI_req_comp_notif(hca, 55, VAPI_NEXT_COMP), VAPI_EINVAL_CQ_HNDL);
}

TEST_F(CqTest, HandlerIsClearedByItsHandleAndOnlyOnce) {
    VAPI_cq_hndl_t h = make_cq();
    EVAPI_compl_handler_hndl_t hh = 0, other = 0;
    ASSERT_EQ(EVAPI_set_comp_eventh(hca, h, record_event, nullptr, &hh), VAPI_OK);
    EXPECT_EQ(EVAPI_set_comp_eventh(hca, h, record_event, nullptr, &other), VAPI_EBUSY);
    EXPECT_EQ(EVAPI_set_comp_eventh(hca, h, nullptr, nullptr, &other), VAPI_EINVAL_PARAM);
    EXPECT_EQ(EVAPI_set_comp_eventh(hca, 42, record_event, nullptr, &other), VAPI_EINVAL_CQ_HNDL);
    EXPECT_EQ(EVAPI_clear_comp_eventh(hca, hh + 100), VAPI_EINVAL_COMPL_HNDL);
    ASSERT_EQ(EVAPI_clear_comp_eventh(hca, hh), VAPI_OK);
    EXPECT_EQ(EVAPI_clear_comp_eventh(hca, hh), VAPI_EINVAL_COMPL_HNDL);
    ASSERT_EQ(VAPI_req_comp_notif(hca, h, VAPI_NEXT_COMP), VAPI_OK);
    complete(h, completion(1));
    EXPECT_TRUE(g_fired.empty());
    // A new handler gets a new handle.
    EVAPI_compl_handler_hndl_t again = 0;
    ASSERT_EQ(EVAPI_set_comp_eventh(hca, h, record_event, nullptr, &again), VAPI_OK);
    EXPECT_NE(again, hh);
}

TEST_F(CqTest, HandlerRunsWithoutTheDeviceLock) {
    // Polling takes only the CQ's lock, so the handler's poll alone would not notice a device
    // mutex held around it. A verb that takes that mutex, called from another thread while the
    // handler waits, must be answered before the handler returns.
    struct Probe {
        std::thread asker;
        std::atomic<bool> answered{false};
        bool answered_in_handler = false;
        int polled = 0;
    } probe;
    VAPI_cq_hndl_t h = make_cq();
    EVAPI_compl_handler_hndl_t hh = 0;
    auto handler = [](VAPI_hca_hndl_t hca, VAPI_cq_hndl_t c, void *priv) {
        auto *p = static_cast<Probe *>(priv);
        VAPI_wc_desc_t wc;
        while (VAPI_poll_cq(hca, c, &wc) == VAPI_OK) ++p->polled;
        p->asker = std::thread([p, hca, c] {
            VAPI_cqe_num_t n = 0;
            VAPI_query_cq(hca, c, &n);
            p->answered = true;
        });
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!p->answered && std::chrono::steady_clock::now() < give_up) std::this_thread::yield();
        p->answered_in_handler = p->answered;
    };
    ASSERT_EQ(EVAPI_set_comp_eventh(hca, h, handler, &probe, &hh), VAPI_OK);
    ASSERT_EQ(VAPI_req_comp_notif(hca, h, VAPI_NEXT_COMP), VAPI_OK);
    complete(h, completion(1));
    if (probe.asker.joinable()) probe.asker.join();
    EXPECT_EQ(probe.polled, 1);
    EXPECT_TRUE(probe.answered_in_handler) << "the handler ran with the device mutex held";
}

TEST_F(CqTest, InjectedFaultsFailTheChosenCall) {
    sh::inject_fault("VAPI_create_cq", "InfiniHost0", VAPI_EAGAIN);
    VAPI_cq_hndl_t h = 0;
    VAPI_cqe_num_t actual = 0;
    EXPECT_EQ(VAPI_create_cq(hca, 8, &h, &actual), VAPI_EAGAIN);
    EXPECT_EQ(sh::cq_count("InfiniHost0"), 0u);
    EXPECT_EQ(VAPI_create_cq(hca, 8, &h, &actual), VAPI_OK);
    sh::inject_fault("VAPI_destroy_cq", "*", VAPI_EGEN, sh::FaultMode::Always);
    EXPECT_EQ(VAPI_destroy_cq(hca, h), VAPI_EGEN);
    EXPECT_EQ(VAPI_destroy_cq(hca, h), VAPI_EGEN);
    EXPECT_EQ(sh::cq_count("InfiniHost0"), 1u);
    sh::clear_faults();
    EXPECT_EQ(VAPI_destroy_cq(hca, h), VAPI_OK);
    EXPECT_EQ(sh::call_count("VAPI_create_cq"), 2u);
    EXPECT_EQ(sh::call_count("VAPI_destroy_cq"), 3u);
    EXPECT_EQ(sh::call_count("VAPI_poll_cq"), 0u);
}

TEST_F(CqTest, NthCallFaultOnPoll) {
    VAPI_cq_hndl_t h = make_cq();
    complete(h, completion(1));
    sh::inject_fault("VAPI_poll_cq", "InfiniHost0", VAPI_EFATAL, sh::FaultMode::Nth, 2);
    VAPI_wc_desc_t wc{};
    EXPECT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_OK);
    EXPECT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_EFATAL);
    EXPECT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_CQ_EMPTY);
}

TEST_F(CqTest, CqsOfAClosedDeviceAreGone) {
    VAPI_cq_hndl_t h = make_cq();
    ASSERT_EQ(VAPI_close_hca(hca), VAPI_OK);
    VAPI_cqe_num_t n = 0;
    EXPECT_EQ(VAPI_query_cq(hca, h, &n), VAPI_EINVAL_HCA_HNDL);
    hca = open();
    EXPECT_EQ(VAPI_query_cq(hca, h, &n), VAPI_EINVAL_CQ_HNDL);
    EXPECT_EQ(sh::cq_count("InfiniHost0"), 0u);
}

TEST_F(CqTest, HandlesArePerDevice) {
    VAPI_hca_hndl_t other = open("InfiniHost1");
    VAPI_cq_hndl_t a = make_cq();
    VAPI_cq_hndl_t b = 0;
    VAPI_cqe_num_t n = 0;
    ASSERT_EQ(VAPI_create_cq(other, 4, &b, &n), VAPI_OK);
    EXPECT_EQ(a, b);
    ASSERT_EQ(VAPI_destroy_cq(other, b), VAPI_OK);
    EXPECT_EQ(VAPI_query_cq(hca, a, &n), VAPI_OK);
}

TEST_F(CqTest, QueuedCompletionsKeepTheirOrderThroughWrapsAndResizes) {
    ASSERT_EQ(VAPI_set_async_event_handler(hca, record_async, nullptr), VAPI_OK);
    VAPI_cq_hndl_t h = make_cq(3);
    VAPI_wr_id_t pushed = 0, polled = 0;
    VAPI_wc_desc_t wc{};
    auto push = [&](int n) {
        for (int i = 0; i < n; ++i) complete(h, completion(++pushed));
    };
    auto poll = [&](int n) {
        for (int i = 0; i < n; ++i) {
            ASSERT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_OK);
            EXPECT_EQ(wc.id, ++polled);
        }
    };
    // Around the three slots several times, two at a time, so the head is not at the first slot.
    for (int lap = 0; lap < 8; ++lap) {
        push(2);
        poll(2);
    }
    EXPECT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_CQ_EMPTY);
    // A full ring grows; what it held comes out first, then what the larger ring takes.
    push(3);
    VAPI_cqe_num_t actual = 0;
    ASSERT_EQ(VAPI_resize_cq(hca, h, 5, &actual), VAPI_OK);
    ASSERT_EQ(actual, 7u);
    EXPECT_EQ(EVAPI_peek_cq(hca, h, 3), VAPI_OK);
    EXPECT_EQ(EVAPI_peek_cq(hca, h, 4), VAPI_CQ_EMPTY);
    push(4);
    poll(7);
    EXPECT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_CQ_EMPTY);
    // Around the new ring, then a shrink with two queued: too small is refused, enough is kept.
    for (int lap = 0; lap < 5; ++lap) {
        push(3);
        poll(3);
    }
    push(2);
    EXPECT_EQ(VAPI_resize_cq(hca, h, 1, &actual), VAPI_E2BIG_CQ_NUM);
    ASSERT_EQ(VAPI_resize_cq(hca, h, 3, &actual), VAPI_OK);
    ASSERT_EQ(actual, 3u);
    push(1);
    poll(1);
    push(1);
    poll(3);
    EXPECT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_CQ_EMPTY);
    EXPECT_EQ(pushed, polled);
    EXPECT_TRUE(g_async.empty());  // nothing was dropped
}

TEST_F(CqTest, AnOverrunAfterTheRingWrappedRaisesOneCqErrorAndKeepsWhatItHeld) {
    ASSERT_EQ(VAPI_set_async_event_handler(hca, record_async, nullptr), VAPI_OK);
    VAPI_cq_hndl_t h = make_cq(3);
    VAPI_wc_desc_t wc{};
    for (VAPI_wr_id_t id = 1; id <= 8; ++id) {
        complete(h, completion(id));
        ASSERT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_OK);
        EXPECT_EQ(wc.id, id);
    }
    for (VAPI_wr_id_t id = 100; id < 105; ++id) complete(h, completion(id));
    ASSERT_EQ(g_async.size(), 1u);
    EXPECT_EQ(g_async[0].type, VAPI_CQ_ERROR);
    EXPECT_EQ(g_async[0].syndrome, VAPI_CQ_ERR_OVERRUN);
    EXPECT_EQ(g_async[0].modifier.cq_hndl, h);
    for (VAPI_wr_id_t id = 100; id < 103; ++id) {
        ASSERT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_OK);
        EXPECT_EQ(wc.id, id);
    }
    EXPECT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_CQ_EMPTY);
    // The CQ stays overrun: it takes completions again as room is made, and overflowing once
    // more raises nothing new.
    for (VAPI_wr_id_t id = 200; id < 206; ++id) complete(h, completion(id));
    EXPECT_EQ(g_async.size(), 1u);
    for (VAPI_wr_id_t id = 200; id < 203; ++id) {
        ASSERT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_OK);
        EXPECT_EQ(wc.id, id);
    }
    EXPECT_EQ(VAPI_poll_cq(hca, h, &wc), VAPI_CQ_EMPTY);
}

TEST_F(CqTest, ARingLeftFullByADestroyOrAResizeServesTheNextCqEmpty) {
    VAPI_wc_desc_t wc{};
    VAPI_cq_hndl_t gone = make_cq(15);
    for (VAPI_wr_id_t id = 1; id <= 15; ++id) complete(gone, completion(id));
    ASSERT_EQ(VAPI_destroy_cq(hca, gone), VAPI_OK);
    VAPI_cq_hndl_t fresh = make_cq(15);
    EXPECT_EQ(VAPI_poll_cq(hca, fresh, &wc), VAPI_CQ_EMPTY);
    EXPECT_EQ(EVAPI_peek_cq(hca, fresh, 1), VAPI_CQ_EMPTY);
    complete(fresh, completion(99));
    ASSERT_EQ(VAPI_poll_cq(hca, fresh, &wc), VAPI_OK);
    EXPECT_EQ(wc.id, 99u);
    EXPECT_EQ(VAPI_poll_cq(hca, fresh, &wc), VAPI_CQ_EMPTY);

    VAPI_cq_hndl_t grown = make_cq(7);
    for (VAPI_wr_id_t id = 1; id <= 7; ++id) complete(grown, completion(id));
    VAPI_cqe_num_t actual = 0;
    ASSERT_EQ(VAPI_resize_cq(hca, grown, 15, &actual), VAPI_OK);
    VAPI_cq_hndl_t other = make_cq(7);
    EXPECT_EQ(VAPI_poll_cq(hca, other, &wc), VAPI_CQ_EMPTY);
    complete(other, completion(50));
    for (VAPI_wr_id_t id = 1; id <= 7; ++id) {
        ASSERT_EQ(VAPI_poll_cq(hca, grown, &wc), VAPI_OK);
        EXPECT_EQ(wc.id, id);
    }
    EXPECT_EQ(VAPI_poll_cq(hca, grown, &wc), VAPI_CQ_EMPTY);
    ASSERT_EQ(VAPI_poll_cq(hca, other, &wc), VAPI_OK);
    EXPECT_EQ(wc.id, 50u);
}
