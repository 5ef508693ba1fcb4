// Several threads posting on one UD QP through the module at once, on the threaded engine: the
// QP's s_sl serialises their use of the record's descriptor, so every datagram arrives whole and
// the lock is taken once per post.
#include <thread>

#include "datapath_fixture.hpp"
#include "ulp_pair.hpp"

namespace adaptor_test {
namespace {

namespace pair = marlix::ulp_pair;

class PostConcurrency : public DataPathFixture {
  protected:
    hca::EngineKind engine() override { return hca::EngineKind::Threaded; }
    long debug_level() override { return 0; }
};

TEST_F(PostConcurrency, ThreadsPostingOnOneUdQpLoseNothing) {
    constexpr int kThreads = 4, kPerThread = 50, kBytes = 64;
    pair::Side tx, rx;
    tx.funcs = rx.funcs = provider();
    tx.hca = hcas[0];
    rx.hca = hcas[1];
    ASSERT_EQ(0, pair::prepare(tx));
    ASSERT_EQ(0, pair::prepare(rx));
    ASSERT_EQ(0, pair::create(tx, "ud", 1024, 512));
    ASSERT_EQ(0, pair::create(rx, "ud", 1024, 512));
    ASSERT_EQ(0, pair::connect_one(tx, rx, "ud"));
    ASSERT_EQ(0, pair::connect_one(rx, tx, "ud"));
    uint64_t ah = 0;
    ASSERT_EQ(0, ulp_ah_create_simple(provider(), hcas[0], tx.pd, rx.lid, 0, &ah));

    const int total = kThreads * kPerThread;
    DpBuffer &in = buffer(size_t(total) * (kBytes + 40), 0);
    for (int i = 0; i < total; ++i)
        ASSERT_EQ(0, ulp_post_receive_simple(provider(), hcas[1], rx.qp, i, in.data() + i * (kBytes + 40),
                                             kBytes + 40, rx.l_key));
    // Each thread sends from its own buffer; byte 0 names the thread, byte 1 the message.
    std::vector<DpBuffer *> out;
    for (int t = 0; t < kThreads; ++t) out.push_back(&buffer(size_t(kPerThread) * kBytes));
    DpView qp_view("ox_opened_qp_t", tx.qp);
    const long long takes = qp_view["s_sl.acquisitions"];
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int m = 0; m < kPerThread; ++m) {
                uint8_t *p = out[t]->data() + m * kBytes;
                for (int b = 0; b < kBytes; ++b) p[b] = uint8_t(t * 64 + m + b);
                p[0] = uint8_t(t);
                p[1] = uint8_t(m);
                ulp_send_target target{};
                target.ah = ah;
                target.remote_qpn = rx.qpn;
                target.q_key = pair::kQkey;
                if (ulp_post_send_simple(provider(), hcas[0], tx.qp, ulp_operation_type("ud"), ulp_op_send,
                                         uint64_t(t) << 32 | m, p, kBytes, tx.l_key, &target) != 0)
                    failures++;
            }
        });
    }
    for (auto &th : threads) th.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(takes + total, qp_view["s_sl.acquisitions"]);
    EXPECT_EQ(0, qp_view["s_sl.slock"]);

    // Every datagram arrives once and whole.
    std::vector<int> seen(total, 0);
    int received = 0;
    for (int round = 0; round < 1000 && received < total; ++round) {
        hca::run_until_idle();
        std::vector<char> wc(ulp_sizeof_wc(), 0);
        while (ulp_poll(provider(), hcas[1], rx.cq, wc.data()) == 0) {
            DpView v = wc_view(wc);
            ASSERT_EQ(0, v["completion_status"]);
            ASSERT_EQ(kBytes + 40, v["num_bytes_transfered"]);
            const uint8_t *p = in.data() + v["wr_id"] * (kBytes + 40) + 40;
            const int t = p[0], m = p[1];
            ASSERT_LT(t, kThreads);
            ASSERT_LT(m, kPerThread);
            EXPECT_EQ(0, std::memcmp(p, out[t]->data() + m * kBytes, kBytes)) << t << "/" << m;
            seen[t * kPerThread + m]++;
            received++;
        }
    }
    EXPECT_EQ(total, received);
    for (int i = 0; i < total; ++i) EXPECT_EQ(1, seen[i]) << i;
    // The module counts its statistics with plain increments and no lock, so posts made at the
    // same moment on several CPUs may lose a count; never more than were made.
    EXPECT_LE(stats()["post_s_num"], total);
    EXPECT_GT(stats()["post_s_num"], 0);
    EXPECT_EQ(total * kBytes, stats()["tx_byte"]);
    ASSERT_EQ(0, ulp_ah_destroy(provider(), hcas[0], ah));
    pair::release(tx);
    pair::release(rx);
}

}  // namespace
}  // namespace adaptor_test
