// A burst of requests that reaches the responder in one go draws one acknowledgement: the
// responder lets a later ACK of the same QP take the place of the one still waiting to go, but
// never across a response of another kind.
#include "datapath_fixture.hpp"

namespace {

using namespace dp;

class Burst : public DataPathTest {
  protected:
    // Posts the requests as one list.
    VAPI_ret_t post_list(const Qp &q, std::vector<SendWr> &wrs) {
        std::vector<VAPI_sr_desc_t> d;
        for (SendWr &w : wrs) d.push_back(*w.desc());
        return EVAPI_post_sr_list(q.side->hca, q.hndl, uint32_t(d.size()), d.data());
    }
};

TEST_F(Burst, AListOfSendsDrawsOneAck) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    pattern(src, 5);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(post_recv(b, 100 + i, {dst.sg(16 * i, 16)}), VAPI_OK);
    std::vector<SendWr> wrs;
    for (int i = 0; i < 4; ++i) wrs.emplace_back(i, VAPI_SEND, std::vector{src.sg(16 * i, 16)});
    const auto before0 = port_counters(s0), before1 = port_counters(s1);
    ASSERT_EQ(post_list(a, wrs), VAPI_OK);
    run();
    const auto after0 = port_counters(s0), after1 = port_counters(s1);
    // PortXmitPkts / PortRcvPkts: four requests one way, one ACK back.
    EXPECT_EQ(after0[2] - before0[2], 4u);
    EXPECT_EQ(after1[3] - before1[3], 4u);
    EXPECT_EQ(after1[2] - before1[2], 1u);
    EXPECT_EQ(after0[3] - before0[3], 1u);
    auto sent = poll(s0);
    ASSERT_EQ(sent.size(), 4u);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(sent[i].id, uint64_t(i));
        EXPECT_EQ(sent[i].status, VAPI_SUCCESS);
        EXPECT_EQ(sent[i].byte_len, 16u);
    }
    auto received = poll(s1);
    ASSERT_EQ(received.size(), 4u);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(received[i].id, uint64_t(100 + i));
    EXPECT_EQ(dst.bytes, src.bytes);
}

TEST_F(Burst, AReadResponseBetweenSendsKeepsBothAcks) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64), &sink = buffer(s0, 64);
    pattern(dst, 40);
    for (int i = 0; i < 2; ++i) ASSERT_EQ(post_recv(b, 100 + i, {dst.sg(32 + 16 * i, 16)}), VAPI_OK);
    std::vector<SendWr> wrs;
    wrs.emplace_back(0, VAPI_SEND, std::vector{src.sg(0, 16)});
    wrs.emplace_back(1, VAPI_RDMA_READ, std::vector{sink.sg(0, 8)}, dst.addr(), dst.rkey);
    wrs.emplace_back(2, VAPI_SEND, std::vector{src.sg(16, 16)});
    const std::vector<uint8_t> readable(dst.bytes.begin(), dst.bytes.begin() + 8);
    const auto before1 = port_counters(s1);
    ASSERT_EQ(post_list(a, wrs), VAPI_OK);
    run();
    // ACK, read response, ACK: the read response stands between the two ACKs.
    EXPECT_EQ(port_counters(s1)[2] - before1[2], 3u);
    auto sent = poll(s0);
    ASSERT_EQ(sent.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(sent[i].id, uint64_t(i));
        EXPECT_EQ(sent[i].status, VAPI_SUCCESS);
    }
    EXPECT_EQ(sent[1].opcode, VAPI_CQE_SQ_RDMA_READ);
    EXPECT_TRUE(std::equal(readable.begin(), readable.end(), sink.bytes.begin()));
    EXPECT_EQ(poll(s1).size(), 2u);
}

}  // namespace
