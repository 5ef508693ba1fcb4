// Long messages: a send or RDMA write of many packets crosses a healthy link as one train, whose
// middle packets the responder places in one go. Every byte, every completion and every counted
// packet must be what the packets one by one would give.
#include "datapath_fixture.hpp"

namespace {

using namespace dp;

class Trains : public DataPathTest {};

TEST_F(Trains, TwentyPacketWriteLandsWholeAndCountsEveryPacket) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 40000), &dst = buffer(s1, 41000, kAllAccess, 0xee);
    pattern(src, 9);
    auto before0 = port_counters(s0), before1 = port_counters(s1);
    ASSERT_EQ(post_send(a, 5, VAPI_RDMA_WRITE, {src.sg(0, 40000)}, dst.addr() + 600, dst.rkey), VAPI_OK);
    run();
    const VAPI_wc_desc_t w = only(poll(s0));
    EXPECT_EQ(w.status, VAPI_SUCCESS);
    EXPECT_EQ(w.id, 5u);
    EXPECT_EQ(w.byte_len, 40000u);
    EXPECT_EQ(0, std::memcmp(dst.bytes.data() + 600, src.bytes.data(), 40000));
    EXPECT_EQ(dst.bytes[599], 0xee);
    EXPECT_EQ(dst.bytes[40600], 0xee);
    // 19 packets of 2048 and one of 1088; the first carries the RETH; each adds LRH, BTH, ICRC.
    auto after0 = port_counters(s0), after1 = port_counters(s1);
    const uint32_t words = (40000 + 16 + 20 * 24) / 4;
    EXPECT_EQ(after0[2] - before0[2], 20u);
    EXPECT_EQ(after1[3] - before1[3], 20u);
    EXPECT_EQ(after0[0] - before0[0], words);
    EXPECT_EQ(after1[1] - before1[1], words);
    EXPECT_EQ(after1[2] - before1[2], 1u);  // one ACK, for the last packet
}

// A message takes one packet up to the path MTU (2048 here) and one more for each MTU or part
// beyond it; an empty one still takes a packet.
TEST_F(Trains, AMessageTakesOnePacketPerMtuOrPartOfOne) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 4097), &dst = buffer(s1, 4097, kAllAccess, 0xee);
    pattern(src, 3);
    const std::pair<uint32_t, uint32_t> cases[] = {{0, 1},    {1, 1},    {2047, 1}, {2048, 1},
                                                   {2049, 2}, {4096, 2}, {4097, 3}};
    for (auto [len, packets] : cases) {
        SCOPED_TRACE(len);
        auto before0 = port_counters(s0), before1 = port_counters(s1);
        std::vector<VAPI_sg_lst_entry_t> sg;
        if (len) sg.push_back(src.sg(0, len));
        ASSERT_EQ(post_send(a, len, VAPI_RDMA_WRITE, sg, dst.addr(), dst.rkey), VAPI_OK);
        run();
        const VAPI_wc_desc_t w = only(poll(s0));
        EXPECT_EQ(w.status, VAPI_SUCCESS);
        EXPECT_EQ(w.byte_len, len);
        EXPECT_EQ(0, std::memcmp(dst.bytes.data(), src.bytes.data(), len));
        auto after0 = port_counters(s0), after1 = port_counters(s1);
        EXPECT_EQ(after0[2] - before0[2], packets);  // sent
        EXPECT_EQ(after1[3] - before1[3], packets);  // received
    }
}

TEST_F(Trains, LongSendScattersAcrossReceivePiecesOnBothTransports) {
    for (VAPI_ts_type_t ts : {VAPI_TS_RC, VAPI_TS_UC}) {
        SCOPED_TRACE(ts == VAPI_TS_RC ? "RC" : "UC");
        auto [a, b] = pair(ts, s0, s1);
        Buffer &src = buffer(s0, 12000), &dst = buffer(s1, 14000, kAllAccess, 0xee);
        pattern(src, 3);
        // Six packets; the receive pieces end inside the middle packets.
        Delivery m = send_message(a, b, {src.sg(0, 11000)},
                                  {dst.sg(0, 3000), dst.sg(4000, 5000), dst.sg(10000, 4000)}, 4, 8);
        const VAPI_wc_desc_t sent = only(m.sent);
        EXPECT_EQ(sent.status, VAPI_SUCCESS);
        EXPECT_EQ(sent.byte_len, 11000u);
        const VAPI_wc_desc_t got = only(m.got);
        EXPECT_EQ(got.status, VAPI_SUCCESS);
        EXPECT_EQ(got.id, 8u);
        EXPECT_EQ(got.byte_len, 11000u);
        EXPECT_EQ(0, std::memcmp(dst.bytes.data(), src.bytes.data(), 3000));
        EXPECT_EQ(0, std::memcmp(dst.bytes.data() + 4000, src.bytes.data() + 3000, 5000));
        EXPECT_EQ(0, std::memcmp(dst.bytes.data() + 10000, src.bytes.data() + 8000, 3000));
        EXPECT_EQ(dst.bytes[3500], 0xee);
        EXPECT_EQ(dst.bytes[9500], 0xee);
        EXPECT_EQ(dst.bytes[13500], 0xee);
    }
}

TEST_F(Trains, SendOverflowingTheReceiveInAMiddlePacketIsAnInvalidRequest) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 10000), &dst = buffer(s1, 10000, kAllAccess, 0xee);
    pattern(src, 1);
    // The third of five packets no longer fits the 5000-byte receive request.
    Delivery m = send_message(a, b, {src.sg(0, 10000)}, {dst.sg(0, 5000)}, 1, 7);
    EXPECT_EQ(only(m.got).status, VAPI_LOC_LEN_ERR);
    EXPECT_EQ(only(m.sent).status, VAPI_REM_INV_REQ_ERR);
    EXPECT_EQ(state(a), VAPI_ERR);
    EXPECT_EQ(state(b), VAPI_ERR);
    EXPECT_EQ(0, std::memcmp(dst.bytes.data(), src.bytes.data(), 4096));  // the packets that fitted
    EXPECT_EQ(dst.bytes[5000], 0xee);
}

TEST_F(Trains, WriteBeyondTheRegionInAMiddlePacketIsARemoteAccessError) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 10000), &dst = buffer(s1, 4000);
    // The region ends inside the second packet: the first packet's key check refuses the write.
    ASSERT_EQ(post_send(a, 1, VAPI_RDMA_WRITE, {src.sg(0, 10000)}, dst.addr(), dst.rkey), VAPI_OK);
    run();
    EXPECT_EQ(only(poll(s0)).status, VAPI_REM_ACCESS_ERR);
    EXPECT_EQ(state(b), VAPI_ERR);
}

// A train that arrives whole and in order is placed as one message. The same messages sent with
// the receiver's link delaying every packet (so that they arrive one by one) must leave the same
// bytes, completions and counters.
struct TrainOutcome {
    std::vector<VAPI_wc_desc_t> sent, got;
    std::array<uint32_t, 4> counters0{}, counters1{};
    std::vector<uint8_t> landed;
};

class WholeTrains : public Trains {
  protected:
    TrainOutcome carry(bool one_by_one) {
        auto [a, b] = pair(VAPI_TS_RC, s0, s1);
        Buffer &src = buffer(s0, 12000), &dst = buffer(s1, 30000, kAllAccess, 0xee);
        pattern(src, 17);
        const auto c0 = port_counters(s0), c1 = port_counters(s1);
        if (one_by_one) delay_packets(s1, 1);
        // A send with immediate data of five packets into a receive of two pieces, then an RDMA
        // write with immediate data of four packets, which takes the next receive.
        EXPECT_EQ(post_recv(b, 20, {dst.sg(0, 5000), dst.sg(6000, 8000)}), VAPI_OK);
        EXPECT_EQ(post_recv(b, 21, {dst.sg(29000, 16)}), VAPI_OK);
        SendWr send(10, VAPI_SEND_WITH_IMM, {src.sg(0, 9000)});
        send.d.imm_data = 0xabcd;
        send.d.set_se = TRUE;
        EXPECT_EQ(post(a, send), VAPI_OK);
        SendWr write(11, VAPI_RDMA_WRITE_WITH_IMM, {src.sg(1000, 7000)}, dst.addr() + 15000, dst.rkey);
        write.d.imm_data = 0x1234;
        EXPECT_EQ(post(a, write), VAPI_OK);
        for (int i = 0; i < 10; ++i) {
            run();
            sh::advance_clock(2);
        }
        EXPECT_TRUE(sh::set_link_faults("InfiniHost1", 1, {}));
        run();
        TrainOutcome o;
        o.sent = poll(s0);
        o.got = poll(s1);
        const auto e0 = port_counters(s0), e1 = port_counters(s1);
        for (int i = 0; i < 4; ++i) {
            o.counters0[i] = e0[i] - c0[i];
            o.counters1[i] = e1[i] - c1[i];
        }
        o.landed = dst.bytes;
        return o;
    }
};

// The completion with the QP numbers taken out (each run has QPs of its own).
VAPI_wc_desc_t without_qp_numbers(VAPI_wc_desc_t wc) {
    wc.local_qp_num = 0;
    wc.remote_node_addr.qp_ety.qp = 0;
    return wc;
}

TEST_F(WholeTrains, LeaveWhatTheirPacketsOneByOneLeave) {
    const TrainOutcome whole = carry(false);
    const TrainOutcome single = carry(true);
    ASSERT_EQ(whole.sent.size(), 2u);
    ASSERT_EQ(whole.got.size(), 2u);
    EXPECT_EQ(whole.got[0].byte_len, 9000u);
    EXPECT_EQ(whole.got[0].imm_data, 0xabcdu);
    EXPECT_EQ(whole.got[1].opcode, VAPI_CQE_RQ_RDMA_WITH_IMM);
    EXPECT_EQ(whole.got[1].byte_len, 7000u);
    EXPECT_EQ(whole.counters1[3], 9u) << "five send packets and four write packets received";
    EXPECT_EQ(whole.counters1[2], 1u) << "the two messages arrived in one burst: one ACK";
    ASSERT_EQ(single.sent.size(), 2u);
    ASSERT_EQ(single.got.size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
        const VAPI_wc_desc_t ws = without_qp_numbers(whole.sent[i]), ss = without_qp_numbers(single.sent[i]);
        const VAPI_wc_desc_t wg = without_qp_numbers(whole.got[i]), sg = without_qp_numbers(single.got[i]);
        EXPECT_EQ(0, std::memcmp(&ws, &ss, sizeof ws)) << "send " << i;
        EXPECT_EQ(0, std::memcmp(&wg, &sg, sizeof wg)) << "receive " << i;
    }
    // What the sender sent and the receiver received (the ACKs drawn may differ: packets one by
    // one are acknowledged one message at a time).
    EXPECT_EQ(whole.counters0[0], single.counters0[0]);
    EXPECT_EQ(whole.counters0[2], single.counters0[2]);
    EXPECT_EQ(whole.counters1[1], single.counters1[1]);
    EXPECT_EQ(whole.counters1[3], single.counters1[3]);
    EXPECT_EQ(whole.landed, single.landed);
}

TEST_F(WholeTrains, AWriteWithImmediateFindingNoReceiveWaitsForOne) {
    // The data is written; the immediate data needs a receive: receiver not ready until one comes.
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 10000), &dst = buffer(s1, 10000, kAllAccess, 0xee);
    pattern(src, 23);
    SendWr write(4, VAPI_RDMA_WRITE_WITH_IMM, {src.sg(0, 9000)}, dst.addr(), dst.rkey);
    write.d.imm_data = 77;
    ASSERT_EQ(post(a, write), VAPI_OK);
    run();
    VAPI_wc_desc_t wc{};
    EXPECT_EQ(VAPI_poll_cq(s0.hca, s0.cq, &wc), VAPI_CQ_EMPTY);
    EXPECT_EQ(0, std::memcmp(dst.bytes.data(), src.bytes.data(), 9000));
    ASSERT_EQ(post_recv(b, 5, {}), VAPI_OK);
    sh::advance_clock(700);  // past any RNR timer
    run();
    const VAPI_wc_desc_t sent = only(poll(s0));
    EXPECT_EQ(sent.status, VAPI_SUCCESS);
    EXPECT_EQ(sent.id, 4u);
    const VAPI_wc_desc_t got = only(poll(s1));
    EXPECT_EQ(got.id, 5u);
    EXPECT_EQ(got.opcode, VAPI_CQE_RQ_RDMA_WITH_IMM);
    EXPECT_EQ(got.imm_data, 77u);
    EXPECT_EQ(got.byte_len, 9000u);
}

// On the threaded engine a post whose device's data path is free does the work on the posting
// thread: the completion is there when the post returns.
class PostingThread : public DataPathTest {
  protected:
    PostingThread() { engine_ = sh::EngineKind::Threaded; }
};

TEST_F(PostingThread, CompletesTheRequestBeforeThePostReturns) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 8192), &dst = buffer(s1, 8192);
    pattern(src, 5);
    run();  // the engine has nothing left to do and is not running a round
    post_message(a, b, {src.sg(0, 6000)}, {dst.sg(0, 8192)}, 1, 2);
    const VAPI_wc_desc_t sent = only(poll(s0));
    EXPECT_EQ(sent.id, 1u);
    EXPECT_EQ(sent.status, VAPI_SUCCESS);
    const VAPI_wc_desc_t got = only(poll(s1));
    EXPECT_EQ(got.id, 2u);
    EXPECT_EQ(got.byte_len, 6000u);
    EXPECT_EQ(0, std::memcmp(dst.bytes.data(), src.bytes.data(), 6000));
}

// With no kernel to queue it, a completion handler runs at once on the thread whose pass raised
// the event; a handler that posts there runs a pass of its own inside the first one's delivery.
// Each event must still be raised exactly once.
struct PostingHandler {
    VAPI_hca_hndl_t hca = 0;
    VAPI_cq_hndl_t cq = 0;
    VAPI_qp_hndl_t qp = 0;
    VAPI_sg_lst_entry_t sg{};
    int calls = 0;
    static void fire(VAPI_hca_hndl_t, VAPI_cq_hndl_t, void *priv) {
        auto *h = static_cast<PostingHandler *>(priv);
        if (++h->calls != 1) return;
        // The first event arms the CQ again and posts the second send from inside the handler.
        VAPI_req_comp_notif(h->hca, h->cq, VAPI_NEXT_COMP);
        VAPI_sr_desc_t d{};
        d.id = 2;
        d.opcode = VAPI_SEND;
        d.comp_type = VAPI_SIGNALED;
        d.sg_lst_p = &h->sg;
        d.sg_lst_len = 1;
        VAPI_post_sr(h->hca, h->qp, &d);
    }
};

TEST_F(PostingThread, AHandlerThatPostsFromItsEventGetsEachEventOnce) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    ASSERT_EQ(post_recv(b, 10, {dst.sg(0, 32)}), VAPI_OK);
    ASSERT_EQ(post_recv(b, 11, {dst.sg(32, 32)}), VAPI_OK);
    PostingHandler h;
    h.hca = s0.hca;
    h.cq = s0.cq;
    h.qp = a.hndl;
    h.sg = src.sg(0, 16);
    EVAPI_compl_handler_hndl_t hh = 0;
    ASSERT_EQ(EVAPI_set_comp_eventh(s0.hca, s0.cq, PostingHandler::fire, &h, &hh), VAPI_OK);
    ASSERT_EQ(VAPI_req_comp_notif(s0.hca, s0.cq, VAPI_NEXT_COMP), VAPI_OK);
    run();
    ASSERT_EQ(post_send(a, 1, VAPI_SEND, {src.sg(0, 16)}), VAPI_OK);
    run();
    EXPECT_EQ(h.calls, 2) << "one event for each completion that followed an arming";
    const std::vector<VAPI_wc_desc_t> sent = poll(s0);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].id, 1u);
    EXPECT_EQ(sent[1].id, 2u);
    EXPECT_EQ(poll(s1).size(), 2u);
    EXPECT_EQ(EVAPI_clear_comp_eventh(s0.hca, hh), VAPI_OK);
}

TEST_F(PostingThread, LeavesADelayedLinkToTheEngine) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    run();
    delay_packets(s1, 1);
    ASSERT_EQ(post_send(a, 1, VAPI_RDMA_WRITE, {src.sg(0, 8)}, dst.addr(), dst.rkey), VAPI_OK);
    VAPI_wc_desc_t wc{};
    EXPECT_EQ(VAPI_poll_cq(s0.hca, s0.cq, &wc), VAPI_CQ_EMPTY);  // held on the link, not done here
    ASSERT_TRUE(sh::set_link_faults("InfiniHost1", 1, {}));
    // The engine delivers it once the delay has passed.
    sh::advance_clock(2);
    for (int i = 0; i < 2000 && VAPI_poll_cq(s0.hca, s0.cq, &wc) != VAPI_OK; ++i) sh::run_until_idle();
    EXPECT_EQ(wc.id, 1u);
    EXPECT_EQ(wc.status, VAPI_SUCCESS);
}

}  // namespace

namespace {

// Bursts of RDMA reads, more than the responder takes at once, each posted as one list: the
// posting thread's pass sends what the limit allows and leaves the rest to the engine's turns.
// Each pass of the sender is a new round for the responder, so no read is refused for exceeding
// its limit.
TEST_F(PostingThread, BurstsOfReadsStayWithinTheRespondersLimit) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);  // 4 reads outstanding each way
    Buffer &local = buffer(s0, 4096), &remote = buffer(s1, 4096);
    pattern(remote, 7);
    constexpr uint32_t kBurst = 15;
    std::vector<VAPI_sg_lst_entry_t> sg(kBurst);
    std::vector<VAPI_sr_desc_t> reads(kBurst);
    for (uint64_t burst = 0; burst < 100; ++burst) {
        for (uint32_t i = 0; i < kBurst; ++i) {
            const uint32_t at = uint32_t((burst * kBurst + i) % 512) * 8;
            sg[i] = local.sg(at, 8);
            VAPI_sr_desc_t &d = reads[i];
            d = {};
            d.id = burst * kBurst + i;
            d.opcode = VAPI_RDMA_READ;
            d.comp_type = VAPI_SIGNALED;
            d.sg_lst_p = &sg[i];
            d.sg_lst_len = 1;
            d.remote_addr = remote.addr() + at;
            d.r_key = remote.rkey;
        }
        ASSERT_EQ(EVAPI_post_sr_list(s0.hca, a.hndl, kBurst, reads.data()), VAPI_OK);
        VAPI_wc_desc_t wc{};
        for (uint32_t done = 0; done < kBurst;) {
            if (VAPI_poll_cq(s0.hca, s0.cq, &wc) != VAPI_OK) continue;
            ASSERT_EQ(wc.status, VAPI_SUCCESS) << "read " << wc.id;
            ASSERT_EQ(wc.id, burst * kBurst + done);
            ++done;
        }
    }
    EXPECT_EQ(0, std::memcmp(local.bytes.data(), remote.bytes.data(), 4096));
    EXPECT_EQ(state(b), VAPI_RTS);
}

}  // namespace
