// Destroying a QP or CQ, or closing the device, quiesces its events: once the verb returns no
// handler runs, or will run, with the handle of what was destroyed. Handlers that are running
// are waited for; events raised but not yet started are dropped; a destroy called from inside the
// handler itself returns at once.
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "datapath_fixture.hpp"
#include "marlix/kernel.hpp"

using namespace dp;

namespace {

using namespace std::chrono_literals;

// Polls `pred` for up to ten seconds, so that a broken wait fails the test instead of hanging it.
bool eventually(const std::function<bool()> &pred) {
    const auto give_up = std::chrono::steady_clock::now() + 10s;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > give_up) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// An asynchronous handler that records every event and, while `hold` is set, blocks in the
// handler of the first event until `release()`.
struct Recorder {
    std::mutex m;
    std::vector<VAPI_event_record_t> seen;
    std::atomic<bool> hold{false};
    std::atomic<bool> entered{false};
    std::atomic<bool> released{false};
    std::atomic<bool> finished{false};
    // What the handler does with the event, on the interrupt thread (optional).
    std::function<void(VAPI_hca_hndl_t, const VAPI_event_record_t &)> action;

    static void handler(VAPI_hca_hndl_t hca, VAPI_event_record_t *rec, void *priv) {
        auto *r = static_cast<Recorder *>(priv);
        {
            std::lock_guard lk(r->m);
            r->seen.push_back(*rec);
        }
        if (r->hold.exchange(false)) {
            r->entered = true;
            while (!r->released) std::this_thread::sleep_for(1ms);
        }
        if (r->action) r->action(hca, *rec);
        r->finished = true;
    }
    void release() { released = true; }
    size_t count(VAPI_event_record_type_t type, uint64_t modifier) {
        std::lock_guard lk(m);
        size_t n = 0;
        for (const auto &e : seen) n += e.type == type && e.modifier.qp_hndl == modifier;
        return n;
    }
    size_t size() {
        std::lock_guard lk(m);
        return seen.size();
    }
};

// A completion handler counting its calls; it may act on its CQ from inside.
struct CompletionCounter {
    std::atomic<int> calls{0};
    std::function<void(VAPI_hca_hndl_t, VAPI_cq_hndl_t)> action;
    static void handler(VAPI_hca_hndl_t hca, VAPI_cq_hndl_t cq, void *priv) {
        auto *c = static_cast<CompletionCounter *>(priv);
        c->calls.fetch_add(1);
        if (c->action) c->action(hca, cq);
    }
};

// A verb run on a thread of its own, so that the test can see whether it has returned.
class Background {
  public:
    explicit Background(std::function<VAPI_ret_t()> fn)
        : thread_([this, fn = std::move(fn)] {
              result_ = fn();
              done_ = true;
          }) {}
    ~Background() {
        if (thread_.joinable()) thread_.join();
    }
    bool done() const { return done_; }
    VAPI_ret_t join() {
        thread_.join();
        return result_;
    }

  private:
    std::atomic<bool> done_{false};
    VAPI_ret_t result_ = VAPI_EGEN;
    std::thread thread_;
};

class Quiesce : public DataPathTest {
  protected:
    void SetUp() override {
        marlix::kernel::boot();
        DataPathTest::SetUp();
        ASSERT_EQ(VAPI_set_async_event_handler(s0.hca, Recorder::handler, &rec), VAPI_OK);
    }
    void TearDown() override {
        rec.release();
        marlix::kernel::irq_sync();
        DataPathTest::TearDown();
        marlix::kernel::halt(true);
    }
    // Blocks the interrupt thread in the handler of a port event until rec.release().
    void block_interrupt_thread() {
        rec.hold = true;
        ASSERT_TRUE(sh::raise_async_event("InfiniHost0", uint32_t(VAPI_PORT_ACTIVE), 2));
        ASSERT_TRUE(eventually([&] { return rec.entered.load(); }));
    }
    // A CQ of its own with an RC QP on it, connected to a peer on the other device, and the
    // CQ armed with a completion handler: the next completion raises its event.
    struct Armed {
        VAPI_cq_hndl_t cq = 0;
        Qp qp, peer;
    };
    Armed armed_cq(CompletionCounter &counter) {
        Armed a;
        VAPI_cqe_num_t n = 0;
        EXPECT_EQ(VAPI_create_cq(s0.hca, 15, &a.cq, &n), VAPI_OK);
        a.qp = create(s0, VAPI_TS_RC, 16, a.cq);
        a.peer = create(s1, VAPI_TS_RC);
        connect(a.qp, a.peer, VAPI_TS_RC);
        EVAPI_compl_handler_hndl_t h = 0;
        EXPECT_EQ(EVAPI_set_comp_eventh(s0.hca, a.cq, CompletionCounter::handler, &counter, &h), VAPI_OK);
        EXPECT_EQ(VAPI_req_comp_notif(s0.hca, a.cq, VAPI_NEXT_COMP), VAPI_OK);
        return a;
    }
    // With the interrupt thread blocked, an RDMA write from `a` names an unknown remote key: the
    // responder's QP raises VAPI_LOCAL_WQ_ACCESS_VIOL_ERROR, which waits in the thread's queue.
    void access_violation_while_blocked(const Qp &a) {
        Buffer &src = buffer(s0, 64);
        block_interrupt_thread();
        ASSERT_EQ(post_send(a, 1, VAPI_RDMA_WRITE, {src.sg(0, 8)}, src.addr(), src.rkey + 0x100), VAPI_OK);
        run();
    }
    // An RDMA write from the armed QP: its completion raises the CQ's event.
    void complete_one(const Armed &a) {
        Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
        ASSERT_EQ(post_send(a.qp, 1, VAPI_RDMA_WRITE, {src.sg(0, 8)}, dst.addr(), dst.rkey), VAPI_OK);
        run();
    }
    Recorder rec;
};

TEST_F(Quiesce, QpDestroyWaitsForItsRunningAsyncHandler) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    rec.hold = true;
    ASSERT_TRUE(sh::raise_async_event("InfiniHost0", uint32_t(VAPI_QP_PATH_MIGRATED), a.hndl));
    ASSERT_TRUE(eventually([&] { return rec.entered.load(); }));

    bool finished_when_destroy_returned = false;
    Background destroy([&] {
        VAPI_ret_t rc = VAPI_destroy_qp(s0.hca, a.hndl);
        finished_when_destroy_returned = rec.finished;
        return rc;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(destroy.done());                // the handler still runs with the QP's handle
    EXPECT_EQ(sh::qp_count("InfiniHost0"), 0u);  // the QP is gone all the same
    rec.release();
    EXPECT_EQ(destroy.join(), VAPI_OK);
    EXPECT_TRUE(finished_when_destroy_returned);
    EXPECT_EQ(rec.count(VAPI_QP_PATH_MIGRATED, a.hndl), 1u);
}

TEST_F(Quiesce, CqDestroyWaitsForItsRunningCompletionHandler) {
    CompletionCounter counter;
    std::atomic<bool> entered{false}, released{false}, finished{false};
    counter.action = [&](VAPI_hca_hndl_t, VAPI_cq_hndl_t) {
        entered = true;
        while (!released) std::this_thread::sleep_for(1ms);
        finished = true;
    };
    Armed a = armed_cq(counter);
    complete_one(a);
    ASSERT_TRUE(eventually([&] { return entered.load(); }));
    ASSERT_EQ(VAPI_destroy_qp(s0.hca, a.qp.hndl), VAPI_OK);  // a QP's gate is not the CQ's

    bool finished_when_destroy_returned = false;
    Background destroy([&] {
        VAPI_ret_t rc = VAPI_destroy_cq(s0.hca, a.cq);
        finished_when_destroy_returned = finished;
        return rc;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(destroy.done());
    released = true;
    EXPECT_EQ(destroy.join(), VAPI_OK);
    EXPECT_TRUE(finished_when_destroy_returned);
    EXPECT_EQ(counter.calls.load(), 1);
}

TEST_F(Quiesce, QueuedEventsOfADestroyedQpAreNotDelivered) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Qp other = create(s0, VAPI_TS_UD);
    block_interrupt_thread();
    // Raised while the interrupt thread is busy: both wait in its queue.
    ASSERT_TRUE(sh::raise_async_event("InfiniHost0", uint32_t(VAPI_LOCAL_WQ_CATASTROPHIC_ERROR), a.hndl));
    ASSERT_TRUE(sh::raise_async_event("InfiniHost0", uint32_t(VAPI_QP_COMM_ESTABLISHED), other.hndl));
    // Nothing of a's runs, so its destroy does not wait (and could not: the thread is blocked).
    ASSERT_EQ(VAPI_destroy_qp(s0.hca, a.hndl), VAPI_OK);
    rec.release();
    marlix::kernel::irq_sync();
    EXPECT_EQ(rec.count(VAPI_LOCAL_WQ_CATASTROPHIC_ERROR, a.hndl), 0u);
    EXPECT_EQ(rec.count(VAPI_QP_COMM_ESTABLISHED, other.hndl), 1u);  // other QPs' events still arrive
    EXPECT_EQ(rec.size(), 2u);                                       // the port event and that one
}

TEST_F(Quiesce, AnEventOfADestroyedQpDoesNotReachTheQpThatReusesItsHandle) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    const VAPI_qp_hndl_t handle = a.hndl;
    block_interrupt_thread();
    ASSERT_TRUE(sh::raise_async_event("InfiniHost0", uint32_t(VAPI_QP_COMM_ESTABLISHED), handle));
    ASSERT_EQ(VAPI_destroy_qp(s0.hca, handle), VAPI_OK);
    Qp again = create(s0, VAPI_TS_RC);
    ASSERT_EQ(again.hndl, handle);  // handles are reused lowest-first
    rec.release();
    marlix::kernel::irq_sync();
    EXPECT_EQ(rec.count(VAPI_QP_COMM_ESTABLISHED, handle), 0u);
    // The new QP's own events are delivered.
    ASSERT_TRUE(sh::raise_async_event("InfiniHost0", uint32_t(VAPI_QP_COMM_ESTABLISHED), handle));
    marlix::kernel::irq_sync();
    EXPECT_EQ(rec.count(VAPI_QP_COMM_ESTABLISHED, handle), 1u);
}

TEST_F(Quiesce, QueuedEventsOfTheDataPathAreDroppedWithTheirQp) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s0);
    ASSERT_NO_FATAL_FAILURE(access_violation_while_blocked(a));
    auto wcs = poll(s0);
    ASSERT_EQ(wcs.size(), 1u);
    EXPECT_EQ(wcs[0].status, VAPI_REM_ACCESS_ERR);
    ASSERT_EQ(VAPI_destroy_qp(s0.hca, b.hndl), VAPI_OK);
    rec.release();
    marlix::kernel::irq_sync();
    EXPECT_EQ(rec.count(VAPI_LOCAL_WQ_ACCESS_VIOL_ERROR, b.hndl), 0u);
    EXPECT_EQ(rec.size(), 1u);  // the port event only
}

TEST_F(Quiesce, TheSameEventIsDeliveredWhenTheQpLives) {
    // The control case of the test above: nothing destroyed, the event arrives.
    auto [a, b] = pair(VAPI_TS_RC, s0, s0);
    ASSERT_NO_FATAL_FAILURE(access_violation_while_blocked(a));
    rec.release();
    marlix::kernel::irq_sync();
    EXPECT_EQ(rec.count(VAPI_LOCAL_WQ_ACCESS_VIOL_ERROR, b.hndl), 1u);
}

TEST_F(Quiesce, QueuedCompletionEventsOfADestroyedCqAreNotDelivered) {
    CompletionCounter counter;
    Armed a = armed_cq(counter);
    block_interrupt_thread();
    complete_one(a);
    ASSERT_EQ(poll(s0, a.cq).size(), 1u);  // the completion is there, its event queued
    ASSERT_EQ(VAPI_destroy_qp(s0.hca, a.qp.hndl), VAPI_OK);
    ASSERT_EQ(VAPI_destroy_cq(s0.hca, a.cq), VAPI_OK);
    rec.release();
    marlix::kernel::irq_sync();
    EXPECT_EQ(counter.calls.load(), 0);
}

TEST_F(Quiesce, CompletionEventOfALiveCqIsDeliveredAfterTheBlock) {
    CompletionCounter counter;
    Armed a = armed_cq(counter);
    block_interrupt_thread();
    complete_one(a);
    ASSERT_EQ(VAPI_destroy_qp(s0.hca, a.qp.hndl), VAPI_OK);  // the QP goes, the CQ stays
    rec.release();
    marlix::kernel::irq_sync();
    EXPECT_EQ(counter.calls.load(), 1);
}

TEST_F(Quiesce, DestroyFromInsideTheQpsOwnHandlerReturns) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    std::atomic<VAPI_ret_t> destroyed{VAPI_EGEN};
    std::atomic<bool> after{false};
    rec.action = [&](VAPI_hca_hndl_t hca, const VAPI_event_record_t &e) {
        if (e.type != VAPI_LOCAL_WQ_CATASTROPHIC_ERROR) return;
        destroyed = VAPI_destroy_qp(hca, e.modifier.qp_hndl);
        after = true;
    };
    ASSERT_TRUE(sh::raise_async_event("InfiniHost0", uint32_t(VAPI_LOCAL_WQ_CATASTROPHIC_ERROR), a.hndl));
    ASSERT_TRUE(eventually([&] { return after.load(); }));
    EXPECT_EQ(destroyed.load(), VAPI_OK);
    marlix::kernel::irq_sync();
    EXPECT_EQ(sh::qp_count("InfiniHost0"), 0u);
}

TEST_F(Quiesce, CompletionHandlerMayDestroyItsQpAndCq) {
    CompletionCounter counter;
    std::atomic<VAPI_ret_t> qp_rc{VAPI_EGEN}, cq_rc{VAPI_EGEN};
    std::atomic<bool> after{false};
    Armed a = armed_cq(counter);
    counter.action = [&](VAPI_hca_hndl_t hca, VAPI_cq_hndl_t cq) {
        qp_rc = VAPI_destroy_qp(hca, a.qp.hndl);
        cq_rc = VAPI_destroy_cq(hca, cq);
        after = true;
    };
    complete_one(a);
    ASSERT_TRUE(eventually([&] { return after.load(); }));
    EXPECT_EQ(qp_rc.load(), VAPI_OK);
    EXPECT_EQ(cq_rc.load(), VAPI_OK);
    EXPECT_EQ(sh::cq_count("InfiniHost0"), 1u);  // the fixture's CQ
}

TEST_F(Quiesce, CloseWaitsForARunningHandlerAndDropsWhatIsQueued) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    block_interrupt_thread();
    ASSERT_TRUE(sh::raise_async_event("InfiniHost0", uint32_t(VAPI_QP_COMM_ESTABLISHED), a.hndl));
    ASSERT_TRUE(sh::raise_async_event("InfiniHost0", uint32_t(VAPI_PORT_ERROR), 1));
    bool finished_when_close_returned = false;
    Background close([&] {
        VAPI_ret_t rc = VAPI_close_hca(s0.hca);
        finished_when_close_returned = rec.finished;
        return rc;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(close.done());  // the port event's handler is still running
    rec.release();
    EXPECT_EQ(close.join(), VAPI_OK);
    EXPECT_TRUE(finished_when_close_returned);
    marlix::kernel::irq_sync();
    EXPECT_EQ(rec.size(), 1u);  // neither the QP's event nor the second port event ran
    // Opened again, the device delivers events as before.
    ASSERT_EQ(VAPI_open_hca("InfiniHost0", &s0.hca), VAPI_OK);
    ASSERT_EQ(VAPI_set_async_event_handler(s0.hca, Recorder::handler, &rec), VAPI_OK);
    ASSERT_TRUE(sh::raise_async_event("InfiniHost0", uint32_t(VAPI_PORT_ERROR), 1));
    marlix::kernel::irq_sync();
    EXPECT_EQ(rec.count(VAPI_PORT_ERROR, 1), 1u);
}

TEST_F(Quiesce, CloseFromInsideAHandlerReturns) {
    std::atomic<VAPI_ret_t> closed{VAPI_EGEN};
    std::atomic<bool> after{false};
    rec.action = [&](VAPI_hca_hndl_t hca, const VAPI_event_record_t &) {
        closed = VAPI_close_hca(hca);
        after = true;
    };
    ASSERT_TRUE(sh::raise_async_event("InfiniHost0", uint32_t(VAPI_LOCAL_CATASTROPHIC_ERROR), 0));
    ASSERT_TRUE(eventually([&] { return after.load(); }));
    EXPECT_EQ(closed.load(), VAPI_OK);
    EXPECT_FALSE(sh::is_open("InfiniHost0"));
    ASSERT_EQ(VAPI_open_hca("InfiniHost0", &s0.hca), VAPI_OK);  // for the fixture's teardown
}

// With the kernel not booted, events run at once on the thread that raises them; a handler that
// destroys the QP its event names is then inside its own pass on that thread.
class QuiesceInline : public DataPathTest {};

TEST_F(QuiesceInline, DestroyFromAHandlerRunAtOnceReturns) {
    ASSERT_FALSE(marlix::kernel::booted());
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Recorder rec;
    std::atomic<VAPI_ret_t> destroyed{VAPI_EGEN};
    rec.action = [&](VAPI_hca_hndl_t hca, const VAPI_event_record_t &e) {
        destroyed = VAPI_destroy_qp(hca, e.modifier.qp_hndl);
    };
    ASSERT_EQ(VAPI_set_async_event_handler(s0.hca, Recorder::handler, &rec), VAPI_OK);
    ASSERT_TRUE(sh::raise_async_event("InfiniHost0", uint32_t(VAPI_QP_COMM_ESTABLISHED), a.hndl));
    EXPECT_TRUE(rec.finished);  // ran, and returned, before raise_async_event did
    EXPECT_EQ(destroyed.load(), VAPI_OK);
    EXPECT_EQ(sh::qp_count("InfiniHost0"), 0u);
}

}  // namespace
