// A port's data counters are counted by every thread that carries a packet through the port,
// each in a block of its own, and read through PortCounters: the totals are exact whoever
// counted, a clear while threads count loses nothing counted after it, the 32-bit counters stop
// at 0xFFFFFFFF, and a device opened again (or a system booted again) counts from zero, also in
// a thread that counted before.
#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "datapath_fixture.hpp"
#include "device/device.hpp"

namespace {

using namespace dp;

// PortCounters' CounterSelect bits of the data counters.
constexpr uint16_t kSelectXmitData = 0x1000, kSelectRcvData = 0x2000, kSelectXmitPkts = 0x4000,
                   kSelectRcvPkts = 0x8000;
constexpr uint16_t kSelectData = kSelectXmitData | kSelectRcvData | kSelectXmitPkts | kSelectRcvPkts;

// Indexes into port_counters().
constexpr size_t kXmitData = 0, kRcvData = 1, kXmitPkts = 2, kRcvPkts = 3;

// An 8-byte send is LRH 8 + BTH 12 + 8 + ICRC 4 = 32 bytes; its ACK LRH 8 + BTH 12 + AETH 4 +
// ICRC 4 = 28. In 4-byte words:
constexpr uint32_t kSendWords = 8, kAckWords = 7;

class PortCounters : public DataPathTest {
  protected:
    static sh::Port &port1(const Side &s) {
        sh::Port *p = sh::device_by_handle(s.hca)->port(1);
        if (!p) throw std::logic_error("the device has no port 1");
        return *p;
    }

    // PortCounters Set on port 1 clearing the counters `select` names; returns the MAD status.
    static uint16_t clear_counters(const Side &s, uint16_t select) {
        const std::array<uint8_t, 256> out = port_counters_mad(s, 0x02, select);
        return uint16_t(out[4] << 8 | out[5]);
    }

    // PortCounters' LinkDownedCounter of port 1.
    static uint8_t link_downed(const Side &s) { return port_counters_mad(s, 0x01)[64 + 7]; }

    static std::array<uint32_t, 4> minus(const std::array<uint32_t, 4> &a, const std::array<uint32_t, 4> &b) {
        return {a[0] - b[0], a[1] - b[1], a[2] - b[2], a[3] - b[3]};
    }
};

TEST_F(PortCounters, TwoThreadsCountingOnOnePortGiveExactTotals) {
    sh::Port &port = port1(s0);
    constexpr uint32_t kCounts = 100000;
    std::atomic<int> running{2};
    auto counter = [&] {
        for (uint32_t i = 0; i < kCounts; ++i) {
            port.count_xmit(60);    // 15 words
            port.count_rcv(28, 2);  // 7 words each
        }
        running.fetch_sub(1);
    };
    std::thread a(counter), b(counter);
    // Read while they count: the counters only grow.
    std::array<uint32_t, 4> last{};
    while (running.load() > 0) {
        const auto now = port_counters(s0);
        for (size_t c = 0; c < 4; ++c) EXPECT_GE(now[c], last[c]) << "counter " << c;
        last = now;
    }
    a.join();
    b.join();
    const auto total = port_counters(s0);
    EXPECT_EQ(total[kXmitPkts], 2 * kCounts);
    EXPECT_EQ(total[kXmitData], 2 * kCounts * 15);
    EXPECT_EQ(total[kRcvPkts], 2 * kCounts * 2);
    EXPECT_EQ(total[kRcvData], 2 * kCounts * 2 * 7);
    EXPECT_EQ(port.data_counters.blocks(), 2u) << "one block per counting thread";
    // The other port and the other device counted nothing.
    EXPECT_EQ(port_counters(s1), (std::array<uint32_t, 4>{}));
}

TEST_F(PortCounters, ClearWhileCountingLosesNothingCountedAfterTheClear) {
    sh::Port &port = port1(s0);
    std::atomic<bool> cleared{false};  // the clear has returned
    std::atomic<uint32_t> counted{0};
    uint32_t after = 0, total = 0;
    constexpr uint32_t kAfter = 50000;
    std::thread t([&] {
        while (after < kAfter) {
            const bool after_clear = cleared.load(std::memory_order_acquire);
            port.count_xmit(4);
            port.count_rcv(8);
            ++total;
            if (after_clear) ++after;
            counted.store(total, std::memory_order_release);
        }
    });
    while (counted.load(std::memory_order_acquire) < 1000) std::this_thread::yield();
    EXPECT_EQ(clear_counters(s0, kSelectXmitData | kSelectXmitPkts), 0);
    cleared.store(true, std::memory_order_release);
    t.join();
    const auto c = port_counters(s0);
    // Every count made after the clear returned is there; what was counted before it is gone,
    // but for counts racing the clear itself (each counter is cleared on its own, so a packet
    // racing it may land after the clear in one and before it in the other).
    for (size_t k : {kXmitPkts, kXmitData}) {
        EXPECT_GE(c[k], after) << "counter " << k;
        EXPECT_LE(c[k], total - 1000) << "counter " << k;  // the thousand counted before it began
    }
    // The counters the clear did not name kept everything.
    EXPECT_EQ(c[kRcvPkts], total);
    EXPECT_EQ(c[kRcvData], 2 * total);
    // With nobody counting, a clear leaves exactly what is counted after it.
    EXPECT_EQ(clear_counters(s0, kSelectData), 0);
    EXPECT_EQ(port_counters(s0), (std::array<uint32_t, 4>{}));
    port.count_xmit(4, 3);
    EXPECT_EQ(port_counters(s0), (std::array<uint32_t, 4>{3, 0, 3, 0}));
}

TEST_F(PortCounters, StopAtTheirWidthUntilCleared) {
    sh::Port &port = port1(s0);
    port.count_xmit(4, 0xFFFFFFF0u);
    EXPECT_EQ(port_counters(s0), (std::array<uint32_t, 4>{0xFFFFFFF0u, 0, 0xFFFFFFF0u, 0}));
    port.count_xmit(4, 0x20);
    EXPECT_EQ(port_counters(s0), (std::array<uint32_t, 4>{0xFFFFFFFFu, 0, 0xFFFFFFFFu, 0}));
    port.count_xmit(4);
    EXPECT_EQ(port_counters(s0), (std::array<uint32_t, 4>{0xFFFFFFFFu, 0, 0xFFFFFFFFu, 0}));
    // Two threads' blocks, each below the width, add up beyond it.
    auto half = [&] { port.count_rcv(8, 0x80000000u); };
    std::thread a(half), b(half);
    a.join();
    b.join();
    EXPECT_EQ(port_counters(s0),
              (std::array<uint32_t, 4>{0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu}));
    // A clear starts the named counter from zero; the others stay stopped.
    EXPECT_EQ(clear_counters(s0, kSelectXmitPkts), 0);
    port.count_xmit(4);
    EXPECT_EQ(port_counters(s0), (std::array<uint32_t, 4>{0xFFFFFFFFu, 0xFFFFFFFFu, 1, 0xFFFFFFFFu}));
}

TEST_F(PortCounters, ADeviceOpenedAgainCountsFromZeroInAThreadThatCountedBefore) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src = buffer(s0, 64), &dst = buffer(s1, 64);
    Delivery m = send_message(a, b, {src.sg(0, 8)}, {dst.sg(0, 8)});
    ASSERT_EQ(only(m.sent).status, VAPI_SUCCESS);
    EXPECT_EQ(port_counters(s0), (std::array<uint32_t, 4>{kSendWords, kAckWords, 1, 1}));
    sh::unplug(s0.name, 1);
    sh::plug(s0.name, 1);
    EXPECT_EQ(link_downed(s0), 1);

    // This thread ran the devices' passes, so it counted on both ports; close and open both.
    ASSERT_EQ(VAPI_close_hca(s0.hca), VAPI_OK);
    ASSERT_EQ(VAPI_close_hca(s1.hca), VAPI_OK);
    ASSERT_NO_FATAL_FAILURE(open_side(s0, "InfiniHost0"));
    ASSERT_NO_FATAL_FAILURE(open_side(s1, "InfiniHost1"));
    EXPECT_EQ(port_counters(s0), (std::array<uint32_t, 4>{}));
    EXPECT_EQ(port_counters(s1), (std::array<uint32_t, 4>{}));
    EXPECT_EQ(link_downed(s0), 0);

    auto [c, d] = pair(VAPI_TS_RC, s0, s1);
    Buffer &src2 = buffer(s0, 64), &dst2 = buffer(s1, 64);
    m = send_message(c, d, {src2.sg(0, 8)}, {dst2.sg(0, 8)});
    ASSERT_EQ(only(m.sent).status, VAPI_SUCCESS);
    EXPECT_EQ(port_counters(s0), (std::array<uint32_t, 4>{kSendWords, kAckWords, 1, 1}));
    EXPECT_EQ(port_counters(s1), (std::array<uint32_t, 4>{kAckWords, kSendWords, 1, 1}));
    EXPECT_EQ(port1(s0).data_counters.blocks(), 1u);
}

TEST_F(PortCounters, ASystemBootedAgainCountsFromZeroInAThreadThatCountedBefore) {
    port1(s0).count_xmit(4, 5);
    EXPECT_EQ(port_counters(s0), (std::array<uint32_t, 4>{5, 0, 5, 0}));
    // The new devices may sit where the old ones did: this thread's cached block must not be
    // taken for theirs.
    sh::halt();
    sh::boot(options());
    ASSERT_NO_FATAL_FAILURE(open_side(s0, "InfiniHost0"));
    port1(s0).count_xmit(4, 2);
    EXPECT_EQ(port_counters(s0), (std::array<uint32_t, 4>{2, 0, 2, 0}));
}

// On the threaded engine, with two QPs on each port, one thread sending on each: whoever carries
// the packets (either posting thread's pass, or the engine's round), every packet is counted once.
class PortCountersThreaded : public PortCounters {
  protected:
    PortCountersThreaded() { engine_ = sh::EngineKind::Threaded; }

    // Waits for one completion on `cq`; false after ten seconds without one.
    static bool wait_completion(const Side &s, VAPI_cq_hndl_t cq, VAPI_wc_desc_t &wc) {
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (VAPI_poll_cq(s.hca, cq, &wc) != VAPI_OK)
            if (std::chrono::steady_clock::now() > until) return false;
        return true;
    }
};

TEST_F(PortCountersThreaded, TwoQpsOnOnePortDrivenFromTwoThreadsGiveExactTotals) {
    // A separate CQ per QP, so that each thread polls only its own completions; no ack timeout,
    // so a slow thread draws no retransmission.
    auto cq = [](Side &s) {
        VAPI_cq_hndl_t h = 0;
        VAPI_cqe_num_t n = 0;
        EXPECT_EQ(VAPI_create_cq(s.hca, 64, &h, &n), VAPI_OK);
        return h;
    };
    Conn conn;
    conn.timeout = 0;
    struct Flow {
        Qp from, to;
        VAPI_cq_hndl_t from_cq, to_cq;
        Buffer *src, *dst;
    };
    Flow flows[2];
    for (int i = 0; i < 2; ++i) {
        Side &sa = i == 0 ? s0 : s1, &sb = i == 0 ? s1 : s0;  // one flow each way
        Flow &f = flows[i];
        f.from_cq = cq(sa);
        f.to_cq = cq(sb);
        f.from = create(sa, VAPI_TS_RC, 16, f.from_cq);
        f.to = create(sb, VAPI_TS_RC, 16, f.to_cq);
        connect(f.from, f.to, VAPI_TS_RC, conn);
        f.src = &buffer(sa, 8);
        f.dst = &buffer(sb, 8);
    }
    const auto before0 = port_counters(s0), before1 = port_counters(s1);
    constexpr uint32_t kMessages = 2000;
    std::atomic<bool> failed{false};
    auto drive = [&](Flow &f) {
        for (uint32_t m = 0; m < kMessages && !failed; ++m) {
            VAPI_wc_desc_t wc{};
            if (post_recv(f.to, m, {f.dst->sg(0, 8)}) != VAPI_OK ||
                post_send(f.from, m, VAPI_SEND, {f.src->sg(0, 8)}) != VAPI_OK ||
                !wait_completion(*f.from.side, f.from_cq, wc) || wc.status != VAPI_SUCCESS ||
                !wait_completion(*f.to.side, f.to_cq, wc) || wc.status != VAPI_SUCCESS)
                failed = true;
        }
    };
    std::thread t0(drive, std::ref(flows[0])), t1(drive, std::ref(flows[1]));
    t0.join();
    t1.join();
    ASSERT_FALSE(failed);
    // Each port sent kMessages sends and kMessages ACKs, and received as many of each.
    const std::array<uint32_t, 4> each{kMessages * (kSendWords + kAckWords),
                                       kMessages * (kSendWords + kAckWords), 2 * kMessages, 2 * kMessages};
    EXPECT_EQ(minus(port_counters(s0), before0), each);
    EXPECT_EQ(minus(port_counters(s1), before1), each);
}

}  // namespace

namespace {

// More counter sets than a thread's cache has slots: sets that share a slot push each other out,
// and a thread whose entry was pushed out finds its own block again rather than starting another.
TEST(PortDataCounters, AThreadFindsItsBlockAgainAfterAnotherSetTookItsCacheSlot) {
    constexpr size_t kSets = 2 * sh::PortDataCounters::kCacheSlots + 3;
    std::vector<std::unique_ptr<sh::PortDataCounters>> sets;
    for (size_t i = 0; i < kSets; ++i) sets.push_back(std::make_unique<sh::PortDataCounters>());
    for (int round = 0; round < 3; ++round)
        for (size_t i = 0; i < kSets; ++i)
            sets[i]->add(sh::PortDataCounters::kXmitData, sh::PortDataCounters::kXmitPkts, 4 * (i + 1), 1);
    for (size_t i = 0; i < kSets; ++i) {
        EXPECT_EQ(sets[i]->read(), (std::array<uint32_t, 4>{uint32_t(3 * (i + 1)), 0, 3, 0})) << "set " << i;
        EXPECT_EQ(sets[i]->blocks(), 1u) << "set " << i;
    }
}

}  // namespace
