// Several posting and polling threads on several connections for a bounded time, on the
// threaded engine: every message arrives exactly once, in order, with every byte right. The same
// scenario on the stepped engine, driven from one thread, gives the same trace on every run.
#include <chrono>
#include <thread>

#include "datapath_fixture.hpp"

using namespace dp;

namespace {

constexpr int kPairs = 4;
constexpr uint32_t kSlots = 16;       // messages in flight per connection
constexpr uint32_t kMsgBytes = 3000;  // two packets each

struct Connection {
    Qp a, b;
    VAPI_cq_hndl_t scq = 0, rcq = 0;
    Buffer *src = nullptr, *dst = nullptr;
    uint64_t sent = 0, send_done = 0, received = 0;
    uint64_t errors = 0;
    std::vector<uint64_t> trace;  // completion ids in the order they were polled
};

class Stress : public DataPathTest {
  protected:
    Stress() { engine_ = sh::EngineKind::Threaded; }

    void build() {
        for (int i = 0; i < kPairs; ++i) {
            Connection &c = conns_[i];
            Side &sa = sides[i % 2], &sb = sides[(i + 1) % 2];
            VAPI_cqe_num_t n = 0;
            ASSERT_EQ(VAPI_create_cq(sa.hca, 255, &c.scq, &n), VAPI_OK);
            ASSERT_EQ(VAPI_create_cq(sb.hca, 255, &c.rcq, &n), VAPI_OK);
            c.a = create(sa, VAPI_TS_RC, kSlots, c.scq);
            c.b = create(sb, VAPI_TS_RC, kSlots, c.rcq);
            connect(c.a, c.b, VAPI_TS_RC);
            c.src = &buffer(sa, kSlots * kMsgBytes);
            c.dst = &buffer(sb, kSlots * kMsgBytes);
        }
    }

    static void fill(Connection &c, uint64_t seq) {
        uint8_t *p = c.src->bytes.data() + (seq % kSlots) * kMsgBytes;
        std::memcpy(p, &seq, 8);
        for (uint32_t i = 8; i < kMsgBytes; ++i) p[i] = uint8_t(seq * 31 + i);
    }

    static bool check(const Connection &c, uint64_t seq) {
        const uint8_t *p = c.dst->bytes.data() + (seq % kSlots) * kMsgBytes;
        uint64_t got = 0;
        std::memcpy(&got, p, 8);
        if (got != seq) return false;
        for (uint32_t i = 8; i < kMsgBytes; ++i)
            if (p[i] != uint8_t(seq * 31 + i)) return false;
        return true;
    }

    // One step of a connection's driver: keep the window full, take completions. Returns false
    // on a broken invariant.
    bool pump(Connection &c, uint64_t limit) {
        while (c.sent < limit && c.sent - c.received < kSlots && c.sent - c.send_done < kSlots) {
            const uint64_t seq = c.sent;
            const uint32_t off = uint32_t(seq % kSlots) * kMsgBytes;
            fill(c, seq);
            if (post_recv(c.b, seq, {c.dst->sg(off, kMsgBytes)}) != VAPI_OK) return false;
            if (post_send(c.a, seq, VAPI_SEND, {c.src->sg(off, kMsgBytes)}) != VAPI_OK) return false;
            ++c.sent;
        }
        VAPI_wc_desc_t wc{};
        while (VAPI_poll_cq(c.b.side->hca, c.rcq, &wc) == VAPI_OK) {
            c.trace.push_back(wc.id | 1ull << 63);
            if (wc.status != VAPI_SUCCESS || wc.id != c.received || wc.byte_len != kMsgBytes ||
                !check(c, c.received))
                ++c.errors;
            ++c.received;
        }
        while (VAPI_poll_cq(c.a.side->hca, c.scq, &wc) == VAPI_OK) {
            c.trace.push_back(wc.id);
            if (wc.status != VAPI_SUCCESS || wc.id != c.send_done) ++c.errors;
            ++c.send_done;
        }
        return c.errors == 0;
    }

    // The stepped scenario: every connection driven in turn with one engine step between turns
    // (and a millisecond of clock now and then, for retransmissions). Returns every completion
    // id in the order polled, the error counts, and the packets the links lost.
    std::vector<uint64_t> stepped_trace(uint64_t messages) {
        std::vector<uint64_t> trace;
        for (int round = 0; round < 200000; ++round) {
            bool done = true;
            for (Connection &c : conns_) {
                pump(c, messages);
                done = done && c.received == messages && c.send_done == messages;
            }
            if (done) break;
            if (sh::step() == 0) sh::advance_clock(1);
        }
        for (Connection &c : conns_) {
            trace.insert(trace.end(), c.trace.begin(), c.trace.end());
            trace.push_back(c.errors);
        }
        trace.push_back(sh::link_dropped_packets("InfiniHost1", 1));
        return trace;
    }

    Connection conns_[kPairs];
};

class StressThreaded : public Stress {};

TEST_F(StressThreaded, ManyThreadsPostAndPollWithoutLossOrDuplication) {
    build();
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    std::vector<std::thread> threads;
    for (int i = 0; i < kPairs; ++i) {
        threads.emplace_back([this, i, until] {
            Connection &c = conns_[i];
            while (std::chrono::steady_clock::now() < until)
                if (!pump(c, UINT64_MAX)) return;
            // Stop posting; collect what is still in flight.
            const uint64_t last = c.sent;
            const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
            while ((c.received < last || c.send_done < last) && std::chrono::steady_clock::now() < give_up)
                if (!pump(c, last)) return;
        });
    }
    for (auto &t : threads) t.join();
    for (int i = 0; i < kPairs; ++i) {
        const Connection &c = conns_[i];
        SCOPED_TRACE(i);
        EXPECT_EQ(c.errors, 0u);
        EXPECT_GT(c.sent, 0u);
        EXPECT_EQ(c.received, c.sent);
        EXPECT_EQ(c.send_done, c.sent);
    }
}

class StressStepped : public Stress {
  protected:
    StressStepped() { engine_ = sh::EngineKind::Stepped; }
};

TEST_F(StressStepped, TheSameScenarioGivesTheSameTraceOnEveryRun) {
    std::vector<uint64_t> first;
    for (int run = 0; run < 3; ++run) {
        SCOPED_TRACE(run);
        if (run > 0) {
            // A fresh system for each run.
            TearDown();
            for (Connection &c : conns_) c = Connection{};
            buffers.clear();
            SetUp();
        }
        build();
        // Some loss on one link makes the runs take retransmissions too.
        drop_packets(s1, 3);
        std::vector<uint64_t> trace = stepped_trace(200);
        EXPECT_EQ(sh::link_dropped_packets("InfiniHost1", 1), 3u);
        for (const Connection &c : conns_) {
            EXPECT_EQ(c.errors, 0u);
            EXPECT_EQ(c.received, 200u);
        }
        if (run == 0)
            first = trace;
        else
            EXPECT_EQ(trace, first);
    }
}

}  // namespace
