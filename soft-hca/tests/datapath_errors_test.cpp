// Every completion error status the data path produces, the state each leaves the QP in, the
// flush behind it, and the asynchronous events that go with them.
#include "datapath_fixture.hpp"

using namespace dp;

namespace {

class DataPathErrors : public DataPathTest {
  protected:
    void SetUp() override {
        DataPathTest::SetUp();
        log_async_events();
    }
};

TEST_F(DataPathErrors, BadLocalKeyIsALocalProtectionErrorAndFlushesTheRest) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64);
    ASSERT_EQ(post_send(a, 1, VAPI_SEND, {{src.addr(), 8, src.lkey + 0x100}}), VAPI_OK);
    ASSERT_EQ(post_send(a, 2, VAPI_SEND, {src.sg(0, 8)}), VAPI_OK);
    ASSERT_EQ(post_recv(a, 3, {src.sg(0, 8)}), VAPI_OK);
    run();
    auto wcs = poll(s0);
    ASSERT_EQ(wcs.size(), 3u);
    EXPECT_EQ(wcs[0].id, 1u);
    EXPECT_EQ(wcs[0].status, VAPI_LOC_PROT_ERR);
    EXPECT_EQ(wcs[0].opcode, VAPI_CQE_SQ_SEND_DATA);
    // Entering ERR flushes the receive queue, then what was behind the failed send.
    EXPECT_EQ(wcs[1].id, 3u);
    EXPECT_EQ(wcs[1].status, VAPI_WR_FLUSH_ERR);
    EXPECT_EQ(wcs[1].opcode, VAPI_CQE_RQ_SEND_DATA);
    EXPECT_EQ(wcs[2].id, 2u);
    EXPECT_EQ(wcs[2].status, VAPI_WR_FLUSH_ERR);
    EXPECT_EQ(state(a), VAPI_ERR);
    // Work posted in ERR is flushed at once.
    ASSERT_EQ(post_send(a, 4, VAPI_SEND, {src.sg(0, 8)}), VAPI_OK);
    EXPECT_EQ(only(poll(s0)).status, VAPI_WR_FLUSH_ERR);
}

TEST_F(DataPathErrors, ReadIntoAReadOnlyBufferIsALocalProtectionError) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &ro = buffer(s0, 64, VAPI_EN_REMOTE_READ), &remote = buffer(s1, 64);
    ASSERT_EQ(post_send(a, 1, VAPI_RDMA_READ, {ro.sg(0, 8)}, remote.addr(), remote.rkey), VAPI_OK);
    run();
    EXPECT_EQ(only(poll(s0)).status, VAPI_LOC_PROT_ERR);
}

TEST_F(DataPathErrors, MessageLongerThanTheReceiveBuffer) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    Delivery m = send_message(a, b, {src.sg(0, 32)}, {dst.sg(0, 16)}, 1, 7);
    const VAPI_wc_desc_t r = only(m.got);
    EXPECT_EQ(r.id, 7u);
    EXPECT_EQ(r.status, VAPI_LOC_LEN_ERR);
    const VAPI_wc_desc_t s = only(m.sent);
    EXPECT_EQ(s.status, VAPI_REM_INV_REQ_ERR);
    EXPECT_EQ(s.vendor_err_syndrome, 0x61u);  // the NAK's syndrome
    EXPECT_EQ(state(a), VAPI_ERR);
    EXPECT_EQ(state(b), VAPI_ERR);
    EXPECT_TRUE(async1.has(VAPI_LOCAL_WQ_INV_REQUEST_ERROR, b.hndl));
}

TEST_F(DataPathErrors, BadRemoteKeyIsARemoteAccessError) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    ASSERT_EQ(post_send(a, 1, VAPI_RDMA_WRITE, {src.sg(0, 8)}, dst.addr(), dst.rkey ^ 0x300), VAPI_OK);
    run();
    EXPECT_EQ(only(poll(s0)).status, VAPI_REM_ACCESS_ERR);
    EXPECT_EQ(state(a), VAPI_ERR);
    EXPECT_EQ(state(b), VAPI_ERR);
    EXPECT_TRUE(async1.has(VAPI_LOCAL_WQ_ACCESS_VIOL_ERROR, b.hndl));
    // Out of bounds and without the right are the same error.
    auto [c, d] = pair(VAPI_TS_RC, s0, s1);
    Buffer &ro = buffer(s1, 64, VAPI_EN_REMOTE_READ);
    ASSERT_EQ(post_send(c, 2, VAPI_RDMA_WRITE, {src.sg(0, 8)}, ro.addr(), ro.rkey), VAPI_OK);
    auto [e, f] = pair(VAPI_TS_RC, s0, s1);
    ASSERT_EQ(post_send(e, 3, VAPI_RDMA_READ, {src.sg(0, 16)}, dst.addr() + 56, dst.rkey), VAPI_OK);
    run();
    EXPECT_EQ(statuses(poll(s0)), (std::vector{VAPI_REM_ACCESS_ERR, VAPI_REM_ACCESS_ERR}));
}

TEST_F(DataPathErrors, ReceiveBufferWithABadKeyIsARemoteOperationalError) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    Delivery m = send_message(a, b, {src.sg(0, 8)}, {{dst.addr(), 16, dst.lkey + 0x500}}, 1, 1);
    EXPECT_EQ(only(m.sent).status, VAPI_REM_OP_ERR);
    EXPECT_EQ(only(m.got).status, VAPI_LOC_PROT_ERR);
    EXPECT_TRUE(async1.has(VAPI_LOCAL_WQ_CATASTROPHIC_ERROR, b.hndl));
}

TEST_F(DataPathErrors, TooManyReadsForTheResponderIsAnInvalidRequest) {
    Conn c;
    c.rd_atom = 4;
    Qp a = create(s0, VAPI_TS_RC), b = create(s1, VAPI_TS_RC);
    connect_one(a, b, VAPI_TS_RC, c);
    c.rd_atom = 1;  // the responder takes one read at a time
    connect_one(b, a, VAPI_TS_RC, c);
    Buffer &local = buffer(s0, 64), &remote = buffer(s1, 64);
    ASSERT_EQ(post_send(a, 1, VAPI_RDMA_READ, {local.sg(0, 8)}, remote.addr(), remote.rkey), VAPI_OK);
    ASSERT_EQ(post_send(a, 2, VAPI_RDMA_READ, {local.sg(8, 8)}, remote.addr(), remote.rkey), VAPI_OK);
    run();
    EXPECT_EQ(statuses(poll(s0)), (std::vector{VAPI_SUCCESS, VAPI_REM_INV_REQ_ERR}));
}

TEST_F(DataPathErrors, MisalignedAtomicIsAnInvalidRequest) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &local = buffer(s0, 64), &remote = buffer(s1, 64);
    ASSERT_EQ(post_send(a, 1, VAPI_ATOMIC_FETCH_AND_ADD, {local.sg(0, 8)}, remote.addr() + 4, remote.rkey),
              VAPI_OK);
    run();
    EXPECT_EQ(only(poll(s0)).status, VAPI_REM_INV_REQ_ERR);
}

TEST_F(DataPathErrors, DestroyedAddressHandleIsALocalQpOperationError) {
    Qp a = ud(s0);
    Buffer &src = buffer(s0, 64);
    VAPI_ud_av_hndl_t h = ah(s0, s1.lid);
    SendWr wr(5, VAPI_SEND, {src.sg(0, 8)});
    wr.to(h, 0x400);
    ASSERT_EQ(post(a, wr), VAPI_OK);
    ASSERT_EQ(VAPI_destroy_addr_hndl(s0.hca, h), VAPI_OK);
    run();
    EXPECT_EQ(only(poll(s0)).status, VAPI_LOC_QP_OP_ERR);
    EXPECT_EQ(state(a), VAPI_SQE);
}

TEST_F(DataPathErrors, ReceiverNotReadyIsRetriedUntilTheReceiveIsPosted) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);  // RNR retry 7: for ever
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    pattern(src, 1);
    ASSERT_EQ(post_send(a, 1, VAPI_SEND, {src.sg(0, 8)}), VAPI_OK);
    run();
    sh::advance_clock(50);
    EXPECT_TRUE(poll(s0).empty());
    ASSERT_EQ(post_recv(b, 2, {dst.sg(0, 8)}), VAPI_OK);
    sh::advance_clock(1);
    EXPECT_EQ(only(poll(s0)).status, VAPI_SUCCESS);
    EXPECT_EQ(0, std::memcmp(dst.bytes.data(), src.bytes.data(), 8));
}

TEST_F(DataPathErrors, ReceiverNotReadyTooOftenIsRnrRetryExceeded) {
    Conn c;
    c.rnr_retry = 2;
    auto [a, b] = pair(VAPI_TS_RC, s0, s1, c);
    Buffer &src = buffer(s0, 64);
    ASSERT_EQ(post_send(a, 1, VAPI_SEND, {src.sg(0, 8)}), VAPI_OK);
    run();
    EXPECT_TRUE(poll(s0).empty());  // waiting out the RNR timer
    sh::advance_clock(5);
    EXPECT_EQ(only(poll(s0)).status, VAPI_RNR_RETRY_EXC_ERR);
    EXPECT_EQ(state(a), VAPI_ERR);
    EXPECT_EQ(state(b), VAPI_RTS);  // the responder did nothing wrong
}

TEST_F(DataPathErrors, PeerGoneIsRetryExceededAfterTheRetries) {
    Conn c;
    c.timeout = 12;  // 16.8 ms
    c.retry_count = 3;
    auto [a, b] = pair(VAPI_TS_RC, s0, s1, c);
    Buffer &src = buffer(s0, 64);
    ASSERT_EQ(VAPI_destroy_qp(s1.hca, b.hndl), VAPI_OK);
    ASSERT_EQ(post_send(a, 1, VAPI_SEND, {src.sg(0, 8)}), VAPI_OK);
    run();
    sh::advance_clock(60);  // three timeouts: three retransmissions
    EXPECT_TRUE(poll(s0).empty());
    sh::advance_clock(20);  // the fourth
    EXPECT_EQ(only(poll(s0)).status, VAPI_RETRY_EXC_ERR);
    EXPECT_EQ(state(a), VAPI_ERR);
}

TEST_F(DataPathErrors, CablePulledIsRetryExceededAndPortErrorThenRecovers) {
    Conn c;
    c.timeout = 10;  // 4.2 ms
    c.retry_count = 1;
    auto [a, b] = pair(VAPI_TS_RC, s0, s1, c);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    ASSERT_TRUE(sh::unplug("InfiniHost1", 1));
    EXPECT_TRUE(async1.events.size() >= 1 && async1.events.back().type == VAPI_PORT_ERROR);
    ASSERT_EQ(post_recv(b, 1, {dst.sg(0, 8)}), VAPI_OK);
    ASSERT_EQ(post_send(a, 1, VAPI_SEND, {src.sg(0, 8)}), VAPI_OK);
    sh::advance_clock(20);
    EXPECT_EQ(only(poll(s0)).status, VAPI_RETRY_EXC_ERR);
    ASSERT_TRUE(sh::plug("InfiniHost1", 1));
    EXPECT_EQ(async1.events.back().type, VAPI_PORT_ACTIVE);
    EXPECT_EQ(async1.events.back().modifier.port_num, 1);
}

TEST_F(DataPathErrors, ALostPacketIsRetransmittedAndTheMessageArrivesOnce) {
    Conn c;
    c.timeout = 10;
    auto [a, b] = pair(VAPI_TS_RC, s0, s1, c);
    Buffer &src = buffer(s0, 8192), &dst = buffer(s1, 8192);
    pattern(src, 4);
    ASSERT_EQ(post_recv(b, 1, {dst.sg(0, 8192)}), VAPI_OK);
    ASSERT_EQ(post_recv(b, 2, {dst.sg(0, 8192)}), VAPI_OK);
    drop_packets(s0, 3);  // every packet of the message: nobody can ask for it again
    ASSERT_EQ(post_send(a, 1, VAPI_SEND, {src.sg(0, 5000)}), VAPI_OK);
    run();
    EXPECT_TRUE(poll(s0).empty());
    sh::advance_clock(10);
    EXPECT_EQ(only(poll(s0)).status, VAPI_SUCCESS);
    // Once: the duplicates were not taken as a second message.
    EXPECT_EQ(only(poll(s1)).byte_len, 5000u);
    EXPECT_EQ(0, std::memcmp(dst.bytes.data(), src.bytes.data(), 5000));
    EXPECT_EQ(sh::link_dropped_packets("InfiniHost0", 1), 3u);
}

TEST_F(DataPathErrors, AnAckPastALostReadResponseLeavesTheReadToTheTimer) {
    Conn c;
    c.timeout = 10;  // 4.2 ms
    auto [a, b] = pair(VAPI_TS_RC, s0, s1, c);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    pattern(src, 5);
    pattern(dst, 9);
    // The requests wait on the requester's link; once they are on their way, the link loses the
    // first reply coming back (the read response) and lets the write's ACK behind it through.
    delay_packets(s0, 2);
    ASSERT_EQ(post_send(a, 1, VAPI_RDMA_READ, {src.sg(0, 16)}, dst.addr(), dst.rkey), VAPI_OK);
    ASSERT_EQ(post_send(a, 2, VAPI_RDMA_WRITE, {src.sg(32, 8)}, dst.addr() + 32, dst.rkey), VAPI_OK);
    run();
    drop_packets(s0, 1);
    sh::advance_clock(2);
    EXPECT_EQ(sh::link_dropped_packets("InfiniHost0", 1), 1u);
    EXPECT_EQ(0, std::memcmp(dst.bytes.data() + 32, src.bytes.data() + 32, 8));  // written
    // The ACK cannot answer the read, and the write completes only after it: both wait for the
    // timer, which the ACK started again.
    EXPECT_TRUE(poll(s0).empty());
    sh::advance_clock(5);
    auto s = poll(s0);
    ASSERT_EQ(s.size(), 2u);
    EXPECT_EQ(s[0].id, 1u);
    EXPECT_EQ(s[0].status, VAPI_SUCCESS);
    EXPECT_EQ(s[1].id, 2u);
    EXPECT_EQ(s[1].status, VAPI_SUCCESS);
    EXPECT_EQ(0, std::memcmp(src.bytes.data(), dst.bytes.data(), 16));
}

TEST_F(DataPathErrors, APacketLostInTheMiddleIsAskedForAgain) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 8192), &dst = buffer(s1, 8192);
    pattern(src, 6);
    // Drop only the first packet; the two after it arrive out of sequence and the responder NAKs.
    drop_packets(s0, 1);
    Delivery m = send_message(a, b, {src.sg(0, 6000)}, {dst.sg(0, 8192)}, 1, 1);
    // Go-back-N within the same run, without waiting for the timer.
    EXPECT_EQ(only(m.sent).status, VAPI_SUCCESS);
    EXPECT_EQ(only(m.got).status, VAPI_SUCCESS);
    EXPECT_EQ(0, std::memcmp(dst.bytes.data(), src.bytes.data(), 6000));
}

TEST_F(DataPathErrors, DelayedPacketsArriveWhenTheirTimeComes) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    pattern(src, 2);
    delay_packets(s1, 3);
    post_message(a, b, {src.sg(0, 64)}, {dst.sg(0, 64)}, 1, 1);
    run();
    EXPECT_TRUE(poll(s1).empty());
    sh::advance_clock(3);  // in, then the ACK out: both through the delayed port
    EXPECT_EQ(poll(s1).size(), 1u);
    sh::advance_clock(3);
    EXPECT_EQ(poll(s0).size(), 1u);
    EXPECT_EQ(0, std::memcmp(dst.bytes.data(), src.bytes.data(), 64));
}

TEST_F(DataPathErrors, ForcedStatusesForTests) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    ASSERT_TRUE(
        sh::complete_next_with_status("InfiniHost0", a.hndl, sh::WorkQueue::Send, VAPI_BAD_RESP_ERR, 0x77));
    ASSERT_EQ(post_send(a, 1, VAPI_SEND, {src.sg(0, 8)}), VAPI_OK);
    ASSERT_EQ(post_send(a, 2, VAPI_SEND, {src.sg(0, 8)}), VAPI_OK);
    run();
    auto s = poll(s0);
    ASSERT_EQ(s.size(), 2u);
    EXPECT_EQ(s[0].status, VAPI_BAD_RESP_ERR);
    EXPECT_EQ(s[0].vendor_err_syndrome, 0x77u);
    EXPECT_EQ(s[1].status, VAPI_WR_FLUSH_ERR);
    EXPECT_EQ(state(a), VAPI_ERR);
    // A receive forced to succeed without data.
    auto [c, d] = pair(VAPI_TS_RC, s0, s1);
    ASSERT_EQ(post_recv(d, 9, {dst.sg(0, 64)}), VAPI_OK);
    ASSERT_TRUE(
        sh::complete_next_with_status("InfiniHost1", d.hndl, sh::WorkQueue::Receive, VAPI_COMP_GENERAL_ERR));
    ASSERT_EQ(post_send(c, 3, VAPI_SEND, {src.sg(0, 8)}), VAPI_OK);
    run();
    const VAPI_wc_desc_t r = only(poll(s1));
    EXPECT_EQ(r.id, 9u);
    EXPECT_EQ(r.status, VAPI_COMP_GENERAL_ERR);
    EXPECT_EQ(only(poll(s0)).status, VAPI_REM_OP_ERR);
    EXPECT_FALSE(sh::complete_next_with_status("InfiniHost0", 999, sh::WorkQueue::Send, VAPI_SUCCESS));
}

TEST_F(DataPathErrors, CqOverrunPutsTheCqInErrorAndRaisesTheEvent) {
    VAPI_cq_hndl_t small = 0;
    VAPI_cqe_num_t n = 0;
    ASSERT_EQ(VAPI_create_cq(s0.hca, 1, &small, &n), VAPI_OK);
    ASSERT_EQ(n, 1u);
    Qp a = create(s0, VAPI_TS_RC, 16, small), b = create(s1, VAPI_TS_RC);
    connect(a, b, VAPI_TS_RC);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(post_send(a, i, VAPI_RDMA_WRITE, {src.sg(0, 8)}, dst.addr(), dst.rkey), VAPI_OK);
    run();
    EXPECT_TRUE(async0.has(VAPI_CQ_ERROR, small));
    EXPECT_EQ(poll(s0, small).size(), 1u);
}

TEST_F(DataPathErrors, CatastrophicErrorStopsTheDevice) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64);
    ASSERT_EQ(post_recv(a, 1, {src.sg(0, 8)}), VAPI_OK);
    ASSERT_TRUE(sh::inject_catastrophic_error("InfiniHost0"));
    ASSERT_FALSE(async0.events.empty());
    EXPECT_EQ(async0.events.back().type, VAPI_LOCAL_CATASTROPHIC_ERROR);
    EXPECT_EQ(only(poll(s0)).status, VAPI_WR_FLUSH_ERR);
    EXPECT_EQ(state(a), VAPI_ERR);
}

}  // namespace
