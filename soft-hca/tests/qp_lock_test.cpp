// A QP's send and receive queues have locks of their own: a post on a connected QP never waits
// for the device mutex (which the data path and the other verbs hold), a post that finds another
// pass under way leaves its QP to the engine, and a post that
// races a state change is either refused, flushed or carried out, never lost. QP records outlive
// their QPs (posters hold them without the device mutex) and serve the next QPs created.
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "datapath_fixture.hpp"
#include "device/device.hpp"
#include "device/qp.hpp"

namespace {

using namespace dp;

class QpLock : public DataPathTest {
  protected:
    // Runs `post` on another thread while this one holds `held`; true if it returned meanwhile.
    template <class Mutex>
    static bool returns_while_held(Mutex &held, const std::function<void()> &post) {
        std::atomic<bool> done{false};
        std::thread poster;
        {
            std::lock_guard lk(held);
            poster = std::thread([&] {
                post();
                done = true;
            });
            const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
            while (!done && std::chrono::steady_clock::now() < until) std::this_thread::yield();
        }
        poster.join();
        return done;
    }
    static sh::Device &device(const Side &s) { return *sh::device_by_handle(s.hca); }
};

TEST_F(QpLock, PostsOnAConnectedQpDoNotWaitForTheDeviceMutex) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    pattern(src, 11);
    VAPI_ret_t recv_rc = VAPI_EGEN, send_rc = VAPI_EGEN;
    EXPECT_TRUE(returns_while_held(device(s1).mu, [&] { recv_rc = post_recv(b, 7, {dst.sg(0, 64)}); }))
        << "the receive post waited for the device mutex";
    EXPECT_TRUE(returns_while_held(device(s0).mu, [&] {
        send_rc = post_send(a, 8, VAPI_SEND, {src.sg(0, 48)});
    })) << "the send post waited for the device mutex";
    ASSERT_EQ(recv_rc, VAPI_OK);
    ASSERT_EQ(send_rc, VAPI_OK);
    run();
    auto sent = poll(s0), received = poll(s1);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].id, 8u);
    EXPECT_EQ(sent[0].status, VAPI_SUCCESS);
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].id, 7u);
    EXPECT_EQ(received[0].byte_len, 48u);
    EXPECT_TRUE(std::equal(src.bytes.begin(), src.bytes.begin() + 48, dst.bytes.begin()));
    EXPECT_EQ(dst.bytes[48], 0);
}

TEST_F(QpLock, ARefusedPostOnTheLocklessPathStillSaysWhy) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64);
    VAPI_sg_lst_entry_t five[5] = {src.sg(0, 1), src.sg(1, 1), src.sg(2, 1), src.sg(3, 1), src.sg(4, 1)};
    VAPI_sr_desc_t d{};
    d.opcode = VAPI_SEND;
    d.comp_type = VAPI_SIGNALED;
    d.sg_lst_p = five;
    d.sg_lst_len = 5;  // the QPs take 4
    EXPECT_EQ(VAPI_post_sr(s0.hca, a.hndl, &d), VAPI_E2BIG_SG_NUM);
    EXPECT_EQ(VAPI_post_sr(s0.hca, a.hndl, nullptr), VAPI_EINVAL_PARAM);
    EXPECT_EQ(VAPI_post_sr(s0.hca, 999999, nullptr), VAPI_EINVAL_PARAM);  // the missing request first
    d.sg_lst_len = 1;
    EXPECT_EQ(VAPI_post_sr(s0.hca, 999999, &d), VAPI_EINVAL_QP_HNDL);
    VAPI_rr_desc_t r{};
    r.opcode = VAPI_RECEIVE;
    r.comp_type = VAPI_SIGNALED;
    EXPECT_EQ(VAPI_post_rr(s1.hca, b.hndl, nullptr), VAPI_EINVAL_PARAM);
    EXPECT_EQ(VAPI_post_rr(s1.hca, 999999, &r), VAPI_EINVAL_QP_HNDL);
    // Nothing was queued by the refusals.
    run();
    EXPECT_TRUE(poll(s0).empty());
    EXPECT_TRUE(poll(s1).empty());
}

TEST_F(QpLock, ADestroyedQpsHandleIsRefusedAtOnce) {
    Qp q = create(s0, VAPI_TS_RC);
    Buffer &src = buffer(s0, 64);
    ASSERT_EQ(VAPI_destroy_qp(s0.hca, q.hndl), VAPI_OK);
    EXPECT_EQ(post_send(q, 1, VAPI_SEND, {src.sg(0, 8)}), VAPI_EINVAL_QP_HNDL);
    EXPECT_EQ(post_recv(q, 2, {src.sg(0, 8)}), VAPI_EINVAL_QP_HNDL);
}

// Posters find the first kFastQpHandles QPs of a device in a table they read without a lock;
// the QPs after those are found under the device mutex. Their posts must work the same, and a
// send posted there marks the device as one where sends are posted, as any other does.
TEST_F(QpLock, QpsBeyondTheLocklessTableMoveDataThroughTheDeviceMutex) {
    std::vector<Qp> fill;
    for (Side *s : {&s0, &s1})
        for (size_t i = 0; i < sh::Device::kFastQpHandles; ++i) fill.push_back(create(*s, VAPI_TS_RC, 1));
    ASSERT_FALSE(HasFailure());
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    ASSERT_GE(a.hndl, sh::Device::kFastQpHandles);
    ASSERT_GE(b.hndl, sh::Device::kFastQpHandles);
    EXPECT_EQ(sh::posting_qp(device(s0), a.hndl), nullptr);
    EXPECT_FALSE(device(s0).sends_posted.load());
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    pattern(src, 9);
    Delivery there = send_message(a, b, {src.sg(0, 24)}, {dst.sg(8, 32)}, 11, 12);
    ASSERT_EQ(there.sent.size(), 1u);
    EXPECT_EQ(there.sent[0].id, 11u);
    EXPECT_EQ(there.sent[0].status, VAPI_SUCCESS);
    ASSERT_EQ(there.got.size(), 1u);
    EXPECT_EQ(there.got[0].id, 12u);
    EXPECT_EQ(there.got[0].status, VAPI_SUCCESS);
    EXPECT_EQ(there.got[0].byte_len, 24u);
    EXPECT_TRUE(std::equal(src.bytes.begin(), src.bytes.begin() + 24, dst.bytes.begin() + 8));
    EXPECT_TRUE(device(s0).sends_posted.load());
    // And back, a list of two receives on the far QP.
    Delivery back = send_message(b, a, {dst.sg(8, 24)}, {src.sg(32, 16), src.sg(48, 16)}, 13, 14);
    ASSERT_EQ(back.got.size(), 1u);
    EXPECT_EQ(back.got[0].status, VAPI_SUCCESS);
    EXPECT_EQ(back.got[0].byte_len, 24u);
    EXPECT_TRUE(std::equal(src.bytes.begin(), src.bytes.begin() + 24, src.bytes.begin() + 32));
    EXPECT_TRUE(device(s1).sends_posted.load());
}

TEST_F(QpLock, AQpThatReusesADestroyedQpsRecordStartsEmpty) {
    // A QP with a receive queued and a send stuck behind an RNR wait, then destroyed.
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64), &old_dst = buffer(s0, 64);
    pattern(src, 3);
    ASSERT_EQ(post_recv(a, 90, {old_dst.sg(0, 64)}), VAPI_OK);
    ASSERT_EQ(VAPI_destroy_qp(s0.hca, a.hndl), VAPI_OK);
    run();  // the round that lets the record go
    // The next QP of the device gets the record (and the handle, the lowest free).
    auto [c, d] = pair(VAPI_TS_RC, s0, s1);
    EXPECT_EQ(c.hndl, a.hndl);
    // d sends to c: c has no receive of its own, so the old one must not take it.
    ASSERT_EQ(post_send(d, 5, VAPI_SEND, {dst.sg(0, 16)}), VAPI_OK);
    run();
    EXPECT_TRUE(poll(s0).empty()) << "the destroyed QP's receive completed on the new one";
    EXPECT_EQ(old_dst.bytes, std::vector<uint8_t>(64, 0));
    // Once c posts a receive the send goes through (RNR retries for ever).
    ASSERT_EQ(post_recv(c, 6, {old_dst.sg(0, 64)}), VAPI_OK);
    std::vector<VAPI_wc_desc_t> got;
    for (int i = 0; i < 20 && got.empty(); ++i) {
        sh::advance_clock(1);
        got = poll(s0);
    }
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].id, 6u);
    EXPECT_EQ(got[0].status, VAPI_SUCCESS);
    EXPECT_EQ(got[0].byte_len, 16u);
    auto sent = poll(s1);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].id, 5u);
    EXPECT_EQ(sent[0].status, VAPI_SUCCESS);
    (void)b;
}

// Between two threads that each post on one device and poll the other's answers, the lines a
// request needs at the receiving device were last written by the other thread. A pass notes in
// the sending QP where they are, so that the next post starts bringing them over at once.
class PeerLines : public QpLock {
  protected:
    using L = sh::Qp::PeerLines;
    static const void *noted(sh::Device &dev, const Qp &q, L::Line line) {
        std::lock_guard lk(dev.mu);
        return sh::find_qp_by_num(dev, q.num, 1)->peer_lines.line[line].load();
    }
    // One 16-byte send from `a` (on side `sa`) into a receive posted at `b` (on side `sb`).
    void send_one(const Qp &a, Side &sa, const Qp &b, Side &sb) {
        Buffer &src = buffer(sa, 64), &dst = buffer(sb, 64);
        ASSERT_EQ(post_recv(b, 1, {dst.sg(0, 32)}), VAPI_OK);
        ASSERT_EQ(post_send(a, 3, VAPI_SEND, {src.sg(0, 16)}), VAPI_OK);
        run();
    }
    void expect_none_noted(sh::Device &dev, const Qp &q) {
        for (size_t i = 0; i < L::kCount; ++i) EXPECT_EQ(noted(dev, q, L::Line(i)), nullptr) << i;
    }
};

TEST_F(PeerLines, ASendNotesTheReceiversMutexQueueAndNextCqSlot) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    pattern(src, 5);
    ASSERT_EQ(post_recv(b, 1, {dst.sg(0, 32)}), VAPI_OK);
    ASSERT_EQ(post_recv(b, 2, {dst.sg(32, 32)}), VAPI_OK);
    expect_none_noted(device(s0), a);
    ASSERT_EQ(post_send(a, 3, VAPI_SEND, {src.sg(0, 16)}), VAPI_OK);
    run();
    ASSERT_EQ(poll(s1).size(), 1u);
    sh::Device &receiver = device(s1);
    std::lock_guard lk(receiver.mu);
    sh::Qp &rq = *sh::find_qp_by_num(receiver, b.num, 1);
    ASSERT_EQ(rq.rq.head(), 1u);
    EXPECT_EQ(noted(device(s0), a, L::kMutex), &receiver.mu);
    EXPECT_EQ(noted(device(s0), a, L::kResponder), &rq.expected_psn);
    EXPECT_EQ(noted(device(s0), a, L::kCqSlot), rq.recv_cq->next_slot());
    EXPECT_EQ(noted(device(s0), a, L::kRqFront), &rq.rq.at(1)) << "not the entry of the next receive";
    // The responder saw both receives posted: the next message needs no look at the poster's
    // position, so its line is left where it is.
    EXPECT_EQ(noted(device(s0), a, L::kRqTail), nullptr);
}

TEST_F(PeerLines, TheReceiversQueuePositionIsNotedWhenTheResponderMustReadItNext) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    send_one(a, s0, b, s1);  // the only receive posted: taken
    ASSERT_EQ(poll(s1).size(), 1u);
    sh::Device &receiver = device(s1);
    const void *tail = nullptr;
    {
        std::lock_guard lk(receiver.mu);
        tail = sh::find_qp_by_num(receiver, b.num, 1)->rq.tail_line();
    }
    EXPECT_EQ(noted(device(s0), a, L::kRqTail), tail);
}

TEST_F(PeerLines, TheResponderReadsThePostersPositionOnlyWhenTheReceivesItKnowsOfRunOut) {
    // Receives posted after the responder last looked are still found, and a flush that empties
    // the queue past what the responder saw (its last look falls behind the front) leaves it
    // finding none.
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    pattern(src, 12);
    ASSERT_EQ(post_recv(b, 1, {dst.sg(0, 16)}), VAPI_OK);
    ASSERT_EQ(post_send(a, 2, VAPI_SEND, {src.sg(0, 16)}), VAPI_OK);
    run();
    ASSERT_EQ(post_recv(b, 3, {dst.sg(16, 16)}), VAPI_OK);
    ASSERT_EQ(post_recv(b, 4, {dst.sg(32, 16)}), VAPI_OK);
    ASSERT_EQ(post_send(a, 5, VAPI_SEND, {src.sg(16, 16)}), VAPI_OK);
    ASSERT_EQ(post_send(a, 6, VAPI_SEND, {src.sg(32, 16)}), VAPI_OK);
    run();
    auto got = poll(s1);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[1].id, 3u);
    EXPECT_EQ(got[2].id, 4u);
    EXPECT_EQ(got[2].status, VAPI_SUCCESS);
    EXPECT_TRUE(std::equal(src.bytes.begin(), src.bytes.begin() + 48, dst.bytes.begin()));
    // Two receives the responder sees, then a flush through the error state takes both.
    ASSERT_EQ(post_recv(b, 7, {dst.sg(0, 16)}), VAPI_OK);
    ASSERT_EQ(post_recv(b, 8, {dst.sg(16, 16)}), VAPI_OK);
    ASSERT_EQ(post_send(a, 9, VAPI_SEND, {src.sg(48, 16)}), VAPI_OK);
    run();
    ASSERT_EQ(poll(s1).size(), 1u);                          // 7 taken; the responder knows of 8
    ASSERT_EQ(post_recv(b, 10, {dst.sg(32, 16)}), VAPI_OK);  // posted after it looked
    VAPI_qp_attr_t attr{};
    attr.qp_state = VAPI_ERR;
    VAPI_qp_attr_mask_t mask = 0;
    QP_ATTR_MASK_SET(mask, QP_ATTR_QP_STATE);
    ASSERT_EQ(modify(b, attr, mask), VAPI_OK);
    run();
    auto flushed = poll(s1);
    ASSERT_EQ(flushed.size(), 2u);
    EXPECT_EQ(flushed[0].id, 8u);
    EXPECT_EQ(flushed[0].status, VAPI_WR_FLUSH_ERR);
    EXPECT_EQ(flushed[1].id, 10u);
    EXPECT_EQ(flushed[1].status, VAPI_WR_FLUSH_ERR);
    sh::Device &receiver = device(s1);
    std::lock_guard lk(receiver.mu);
    sh::Qp &q = *sh::find_qp_by_num(receiver, b.num, 1);
    EXPECT_FALSE(q.rq.has_front()) << "the responder still counts a flushed receive";
}

TEST_F(PeerLines, AWriteWithoutImmediateDataNotesNoReceiveQueueOrCqSlot) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    ASSERT_EQ(post_recv(b, 1, {dst.sg(0, 32)}), VAPI_OK);
    ASSERT_EQ(post_send(a, 3, VAPI_RDMA_WRITE, {src.sg(0, 16)}, dst.addr(), dst.rkey), VAPI_OK);
    run();
    ASSERT_EQ(poll(s0).size(), 1u);
    EXPECT_EQ(noted(device(s0), a, L::kMutex), &device(s1).mu);
    EXPECT_NE(noted(device(s0), a, L::kResponder), nullptr);
    EXPECT_EQ(noted(device(s0), a, L::kCqSlot), nullptr);
    EXPECT_EQ(noted(device(s0), a, L::kRqTail), nullptr);
    EXPECT_EQ(noted(device(s0), a, L::kRqFront), nullptr);
}

TEST_F(PeerLines, AQpThatReusesARecordStartsWithNone) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    send_one(a, s0, b, s1);
    ASSERT_NE(noted(device(s0), a, L::kMutex), nullptr);
    ASSERT_EQ(VAPI_destroy_qp(s0.hca, a.hndl), VAPI_OK);
    run();
    auto [c, d] = pair(VAPI_TS_RC, s0, s1);
    ASSERT_EQ(c.hndl, a.hndl) << "the new QP did not get the old record";
    expect_none_noted(device(s0), c);
    (void)d;
}

TEST_F(PeerLines, ASendWithinItsOwnDeviceNotesNothing) {
    // Loopback: the pass already holds the receiving device, whose lines are its own.
    auto [a, b] = pair(VAPI_TS_RC, s0, s0);
    send_one(a, s0, b, s0);
    ASSERT_EQ(poll(s0).size(), 2u);
    expect_none_noted(device(s0), a);
}

class QpLockThreaded : public QpLock {
  protected:
    QpLockThreaded() { engine_ = sh::EngineKind::Threaded; }

    // Polls `s`'s CQ until `n` completions arrived or 10 seconds passed.
    std::vector<VAPI_wc_desc_t> wait_for(Side &s, size_t n) {
        std::vector<VAPI_wc_desc_t> out;
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        VAPI_wc_desc_t wc{};
        while (out.size() < n && std::chrono::steady_clock::now() < until)
            if (VAPI_poll_cq(s.hca, s.cq, &wc) == VAPI_OK) out.push_back(wc);
        return out;
    }

    // The send `id` of `len` bytes from side 0 completed and its bytes landed on side 1.
    void expect_delivered(VAPI_wr_id_t id, const Buffer &src, const Buffer &dst, uint32_t len) {
        auto sent = wait_for(s0, 1);
        ASSERT_EQ(sent.size(), 1u) << "the send did not complete";
        EXPECT_EQ(sent[0].id, id);
        EXPECT_EQ(sent[0].status, VAPI_SUCCESS);
        auto received = wait_for(s1, 1);
        ASSERT_EQ(received.size(), 1u);
        EXPECT_EQ(received[0].byte_len, len);
        EXPECT_TRUE(std::equal(src.bytes.begin(), src.bytes.begin() + len, dst.bytes.begin()));
    }
};

TEST_F(QpLockThreaded, APostThatFindsAPassUnderWayLeavesItsQpToTheEngine) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    pattern(src, 21);
    ASSERT_EQ(post_recv(b, 1, {dst.sg(0, 64)}), VAPI_OK);
    sh::Device &dev = device(s0);
    {
        // As another thread's pass would while the wire carries its packets.
        std::lock_guard lk(dev.mu);
        dev.pass_running = true;
    }
    ASSERT_EQ(post_send(a, 2, VAPI_SEND, {src.sg(0, 32)}), VAPI_OK);
    {
        std::lock_guard lk(dev.mu);
        EXPECT_EQ(dev.active_qps.size(), 1u) << "the post did not leave its QP for the engine";
        dev.pass_running = false;
    }
    expect_delivered(2, src, dst, 32);
    std::lock_guard lk(dev.mu);
    EXPECT_TRUE(dev.active_qps.empty());
}

TEST_F(QpLockThreaded, APassWhoseReceiverIsBusyLetsItsOwnDeviceGoFirst) {
    // A pass keeps its device's mutex while the wire carries its packets, but never waits for the
    // receiving device's while it holds it: with the receiver's mutex taken, the pass lets its own
    // go (the pass still under way) before it waits, and finishes once the receiver is free.
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    pattern(src, 33);
    ASSERT_EQ(post_recv(b, 1, {dst.sg(0, 64)}), VAPI_OK);
    sh::Device &sender = device(s0), &receiver = device(s1);
    bool let_go = false;
    VAPI_ret_t rc = VAPI_EGEN;
    std::unique_lock busy(receiver.mu);
    std::thread poster([&] { rc = post_send(a, 2, VAPI_SEND, {src.sg(0, 40)}); });
    // Seen under the sender's mutex: a pass under way that is not holding it.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!let_go && std::chrono::steady_clock::now() < until) {
        if (!sender.mu.try_lock()) continue;  // (waiting for it here would deadlock a pass that kept it)
        let_go = sender.pass_running;
        sender.mu.unlock();
    }
    EXPECT_TRUE(let_go) << "the pass kept its device's mutex while it waited for the receiver's";
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    VAPI_wc_desc_t wc{};
    EXPECT_EQ(VAPI_poll_cq(s1.hca, s1.cq, &wc), VAPI_CQ_EMPTY)
        << "a message arrived past the receiver's mutex";
    busy.unlock();
    poster.join();
    EXPECT_EQ(rc, VAPI_OK);
    expect_delivered(2, src, dst, 40);
    std::lock_guard lk(sender.mu);
    EXPECT_FALSE(sender.pass_running);
}

TEST_F(QpLockThreaded, PostsRacingTheErrorStateAreEachCompletedOnce) {
    // One thread posts signalled sends as fast as it can while this one moves the QP to ERR: each
    // send the post accepted completes exactly once, with success or a flush, none stranded.
    constexpr int kPosts = 120;
    Qp a = create(s0, VAPI_TS_RC, 128), b = create(s1, VAPI_TS_RC, 128);
    connect(a, b, VAPI_TS_RC);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    for (int i = 0; i < kPosts; ++i) ASSERT_EQ(post_recv(b, 1000 + i, {dst.sg(0, 64)}), VAPI_OK);
    std::atomic<int> accepted{0}, tried{0};
    std::atomic<bool> errored{false};
    std::thread poster([&] {
        for (int i = 0; i < kPosts; ++i) {
            // The move to ERR lands somewhere among the first half; the second half follows it.
            if (i == kPosts / 2)
                while (!errored) std::this_thread::yield();
            if (post_send(a, i, VAPI_SEND, {src.sg(0, 8)}) == VAPI_OK) ++accepted;
            ++tried;
        }
    });
    while (tried < 10) std::this_thread::yield();
    VAPI_qp_attr_t attr{};
    attr.qp_state = VAPI_ERR;
    EXPECT_EQ(modify(a, attr, QP_ATTR_QP_STATE), VAPI_OK);
    errored = true;
    poster.join();
    const int posts = tried;
    ASSERT_EQ(posts, kPosts);
    EXPECT_EQ(accepted.load(), posts) << "posts in ERR are taken and flushed, not refused";
    auto done = wait_for(s0, size_t(posts));
    ASSERT_EQ(done.size(), size_t(posts));
    std::vector<int> seen(posts, 0);
    bool flushed = false;
    for (const auto &wc : done) {
        ASSERT_LT(wc.id, uint64_t(posts));
        ++seen[wc.id];
        EXPECT_TRUE(wc.status == VAPI_SUCCESS || wc.status == VAPI_WR_FLUSH_ERR) << wc.status;
        if (wc.status == VAPI_WR_FLUSH_ERR)
            flushed = true;
        else
            EXPECT_FALSE(flushed) << "a success after a flush: completions out of order";
    }
    for (int i = 0; i < posts; ++i) EXPECT_EQ(seen[i], 1) << "request " << i;
    EXPECT_TRUE(flushed) << "the posts after the move to ERR were not flushed";
    VAPI_wc_desc_t extra{};
    EXPECT_EQ(VAPI_poll_cq(s0.hca, s0.cq, &extra), VAPI_CQ_EMPTY);
}

}  // namespace
