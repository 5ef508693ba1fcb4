// Traffic stress through the module: traffic threads post and poll on many RC, UC and UD QPs of
// both devices, every message checked byte by byte on arrival, while other threads make and
// destroy CQs and QPs, read the statistics page, write control commands and pull InfiniHost1's
// cable. At the end the module's counters must add up to what the threads did.
//
// The size comes from the environment (stress_params.hpp); the default is CI's short run.
#include <chrono>
#include <cstdio>
#include <thread>

#include "adaptor_fixture.hpp"
#include "background.hpp"
#include "flow.hpp"
#include "rig.hpp"
#include "statistics_page.hpp"
#include "stress_params.hpp"
#include "ulp_events.h"

namespace stress {
namespace {

namespace k = marlix::kernel;
namespace st = marlix::stack;
namespace hca = marlix::softhca;
using adaptor_test::kControl;
using adaptor_test::RecordView;

// The module counts its statistics with plain increments and no lock (kept so by design): two
// CPUs counting at the same moment, or a thread preempted between reading and writing a counter
// (likelier in unoptimised builds), lose counts. Counters that several threads update are
// therefore checked as upper bounds, and as lower bounds only within this fraction.
constexpr double kLostCountTolerance = 0.05;

// Async events reach the upper layer through the shim's one receiver, a plain function.
std::atomic<Rig *> g_rig{nullptr};

void count_async_event(const ulp_async_event *e) {
    Rig *rig = g_rig.load();
    if (!rig) return;
    rig->tally.async_callbacks++;
    if (std::string(ulp_async_event_name(e->event_type)) == "ox_async_r_port") {
        const uintptr_t dev = reinterpret_cast<uintptr_t>(e->hca_app_h);
        if (dev == 1 || dev == 2) rig->tally.port_events[dev - 1]++;
    }
}

// A counter that several threads update: at most `did`, and at least `did` less the tolerance.
// `wraps`: the counter is 32 bits wide and may have wrapped. Returns "name: lost/did" for the
// run's summary.
std::string expect_counted(const char *name, uint64_t counted, uint64_t did, bool wraps = false) {
    uint64_t lost;
    if (wraps)
        lost = uint32_t(uint32_t(did) - uint32_t(counted));
    else
        lost = did >= counted ? did - counted : ~0ull;
    EXPECT_LE(double(lost), kLostCountTolerance * double(did))
        << name << ": the module counted " << counted << ", the threads did " << did
        << (wraps ? " (modulo 2^32)" : "");
    return std::string(name) + " " + std::to_string(lost) + "/" + std::to_string(did);
}

class TrafficStress : public adaptor_test::AdaptorFixture {
  protected:
    void SetUp() override {
        // Both devices on the threaded engine and the virtual clock, which the test's own clock
        // thread moves (one jiffy per millisecond) once the HCAs are open, so the run's timers
        // fire in a known rhythm.
        AdaptorFixture::SetUp();
        ASSERT_EQ(hca::EngineKind::Threaded, hca::engine_kind());
        // Nothing of the data path is formatted at trace level 0.
        set_debug_level(0);
        load_ok();
        rig.funcs = provider();
        ASSERT_NE(nullptr, rig.funcs);
        for (uintptr_t dev = 0; dev < 2; ++dev) {
            // The HCA's context names the device in the asynchronous events.
            rig.hca[dev] =
                open_hca(dev == 0 ? "InfiniHost0" : "InfiniHost1", reinterpret_cast<void *>(dev + 1));
            ASSERT_NE(nullptr, rig.hca[dev]);
        }
        std::vector<unsigned char> port(ulp_sizeof_port_attrib(), 0);
        ASSERT_EQ(0, ulp_port_query(rig.funcs, rig.hca[0], 1, port.data()));
        ASSERT_EQ(0, ulp_port_attrib_field(port.data(), "port_state", &rig.port_active_state));
        g_rig = &rig;
        ulp_async_set_receiver(&count_async_event);
        const uint32_t all = uint32_t(ulp_async_request_value("ox_async_even_all"));
        for (void *h : rig.hca) ASSERT_EQ(0, ulp_async_register(rig.funcs, h, 0, all, nullptr));
    }

    void TearDown() override {
        ulp_async_set_receiver(nullptr);
        g_rig = nullptr;
        AdaptorFixture::TearDown();
    }

    // Counters only one context updates, or that are updated under a lock or atomically, add up
    // exactly. `acc_sg0`: the gather count before the run.
    void expect_exact_counters(long long acc_sg0) {
        RecordView g = stats();
        Tally &t = rig.tally;
        const uint64_t live_cqs = t.cqs_created - t.cqs_destroyed, live_qps = t.qps_created - t.qps_destroyed;
        EXPECT_EQ(0, g["error_num"]);
        EXPECT_EQ(0, g["VAPI_error_num"]);
        EXPECT_EQ(0, g["mem_alloc_error_num"]);
        EXPECT_EQ(2, g["opend_device_num"]);
        EXPECT_EQ(live_cqs, uint64_t(g["cq_num"]));
        EXPECT_EQ(live_qps, uint64_t(g["qp_num"]));
        EXPECT_EQ(t.ahs_created - t.ahs_destroyed, uint64_t(g["ah_num"]));
        EXPECT_EQ(live_cqs, uint64_t(alloc_num("mem_cq_ix")));
        EXPECT_EQ(live_qps, uint64_t(alloc_num("mem_qp_ix")));
        // Gather entries are counted atomically, receive posts under the adaptor lock.
        EXPECT_EQ(t.send_segments, uint64_t(g["acc_sg"] - acc_sg0));
        EXPECT_EQ(t.receive_posts, uint64_t(g["post_r_num"]));
        EXPECT_EQ(t.receive_list_requests, uint64_t(g["post_r_list_num"]));
        // Events are counted on the interrupt thread alone.
        EXPECT_EQ(t.cq_callbacks, uint64_t(g["com_event_num"]));
        EXPECT_EQ(t.async_callbacks, uint64_t(g["async_event_num"]));
        EXPECT_EQ(2, g["registered_async_event_cb_num"]);
        // Each pull takes InfiniHost1's port down and back up; InfiniHost0's port never moves.
        EXPECT_EQ(2 * t.cable_pulls, t.port_events[1]);
        EXPECT_EQ(0u, t.port_events[0]);
    }

    // Counters that several traffic threads update at once.
    void expect_bounded_counters() {
        RecordView g = stats();
        Tally &t = rig.tally;
        const std::string lost[] = {
            expect_counted("post_s_num", uint64_t(g["post_s_num"]), t.send_posts),
            expect_counted("tx_byte", uint64_t(g["tx_byte"]), t.tx_bytes, true),
            expect_counted("rx_byte", uint64_t(g["rx_byte"]), t.rx_bytes, true),
            expect_counted("poll_num", uint64_t(g["poll_num"]), t.polls),
            expect_counted("poll_cq_empty_num", uint64_t(g["poll_cq_empty_num"]), t.polls_empty),
            expect_counted("com_notify_num", uint64_t(g["com_notify_num"]), t.arms),
        };
        std::printf("traffic stress: counts the unlocked counters lost:");
        for (const auto &l : lost) std::printf(" %s", l.c_str());
        std::printf("\n");
        EXPECT_LE(uint64_t(g["ox_send_error_status"]), t.send_error_completions.load());
        EXPECT_EQ(0, g["ox_receive_error_status"]);
        EXPECT_EQ(0u, t.receive_error_completions);
    }

    // The statistics page says the same as the record, and a second read shows no change.
    void expect_page_agrees() {
        RecordView g = stats();
        StatisticsPage page, again;
        std::string why, text;
        ASSERT_GE(k::read_file(kControl, text), 0);
        ASSERT_TRUE(parse_statistics_page(text, page, &why)) << why;
        text.clear();
        ASSERT_GE(k::read_file(kControl, text), 0);
        ASSERT_TRUE(parse_statistics_page(text, again, &why)) << why;
        EXPECT_EQ(2, page.hca_lines);
        auto as_printed = [](long long v) { return (long long)int32_t(uint32_t(v)); };
        EXPECT_EQ(as_printed(g["cq_num"]), page.counter("num of CQ"));
        EXPECT_EQ(as_printed(g["qp_num"]), page.counter("num of QP"));
        EXPECT_EQ(as_printed(g["post_s_num"]), page.counter("send WR"));
        EXPECT_EQ(as_printed(g["acc_sg"]), page.counter("acc sg"));
        EXPECT_EQ(as_printed(g["post_r_num"]), page.counter("receive WR"));
        EXPECT_EQ(as_printed(g["post_r_list_num"]), page.counter("receive WR", 2));
        EXPECT_EQ(as_printed(g["tx_byte"]), page.counter("Byte - TX"));
        EXPECT_EQ(as_printed(g["rx_byte"]), page.counter("Byte - TX", 2));
        EXPECT_EQ(as_printed(g["poll_num"]), page.counter("poll"));
        EXPECT_EQ(as_printed(g["com_event_num"]), page.counter("comp event"));
        EXPECT_EQ(as_printed(g["async_event_num"]), page.counter("async event"));
        EXPECT_EQ(0, page.counter("errors"));
        EXPECT_TRUE(again.companions_zero(&why)) << why;
        for (const auto &[label, numbers] : page.lines)
            for (size_t i = 0; i + 1 < numbers.size(); i += 2)
                if (label != "acc sg" && label != "vapi (s,r,p)") {
                    EXPECT_EQ(numbers[i], again.lines[label][i]) << label;
                }
    }

    Rig rig;
};

TEST_F(TrafficStress, CountersAddUpAndEveryByteArrivesOnce) {
    const StressParams params = StressParams::from_environment();
    std::printf("traffic stress: %s\n", params.describe().c_str());
    RecordView g = stats();
    const long long acc_sg0 = g["acc_sg"];

    // The probe CQ lives on the HCA opened last, the head of the module's list, whose CQs the
    // control commands walk.
    marlix::ulp_pair::Side probe;
    probe.funcs = rig.funcs;
    probe.hca = rig.hca[1];
    uint32_t probe_entries = 0;
    ASSERT_EQ(0, ulp_cq_create(rig.funcs, probe.hca, 16, nullptr, nullptr, &probe.cq, &probe_entries));
    rig.tally.cqs_created++;

    // Flows: every transport between every pair of devices, some posting receives as lists, the
    // loopback flows of InfiniHost0 (never cut by the cable) also arming their receive CQs.
    static const int kRoutes[4][2] = {{0, 1}, {1, 0}, {0, 0}, {1, 1}};
    static const Transport kTransports[3] = {Transport::Rc, Transport::Ud, Transport::Uc};
    std::vector<std::vector<std::unique_ptr<Flow>>> flows(params.threads);
    for (int t = 0; t < params.threads; ++t)
        for (int f = 0; f < params.flows_per_thread; ++f) {
            FlowPlan plan;
            plan.id = uint32_t(t * params.flows_per_thread + f);
            plan.transport = kTransports[plan.id % 3];
            plan.from = kRoutes[(plan.id / 3) % 4][0];
            plan.to = kRoutes[(plan.id / 3) % 4][1];
            plan.batch = plan.transport == Transport::Ud ? 16 : 8;
            plan.max_length = plan.transport == Transport::Rc   ? 256u << 10
                              : plan.transport == Transport::Uc ? 64u << 10
                                                                : 2048;
            plan.receive_lists = plan.id % 2 == 1;
            plan.arm = plan.from == 0 && plan.to == 0;
            flows[t].push_back(std::make_unique<Flow>(rig, plan));
            ASSERT_TRUE(flows[t].back()->open()) << flows[t].back()->name();
        }

    // Run until enough bytes arrived (and the cable was pulled twice at least), the time is up,
    // or something failed.
    const auto start = std::chrono::steady_clock::now();
    // A jiffy per millisecond: RC retransmissions and RNR waits run on the device's clock.
    std::atomic<bool> clock_stop{false};
    std::thread clock([&] {
        while (!clock_stop) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            k::advance_jiffies(1);
        }
    });
    std::vector<std::thread> threads;
    for (auto &own : flows)
        threads.emplace_back([&] {
            while (!rig.stop)
                for (auto &flow : own) {
                    if (rig.stop) break;
                    flow->run_batch();
                }
        });
    threads.emplace_back([&] { run_churn(rig); });
    threads.emplace_back([&] { run_statistics_reader(rig); });
    threads.emplace_back([&] { run_control_writer(rig, probe.cq); });
    threads.emplace_back([&] { run_cable(rig); });
    bool out_of_time = false;
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (rig.failed()) break;
        const double elapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (rig.tally.bytes_checked >= params.bytes && rig.tally.cable_pulls >= 2) break;
        if (elapsed >= params.seconds) {
            out_of_time = true;
            break;
        }
    }
    rig.stop = true;
    for (auto &th : threads) th.join();
    clock_stop = true;
    clock.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    Tally &t = rig.tally;
    std::printf(
        "traffic stress: %llu bytes in %llu messages checked in %.1f s (%.1f MB/s); %llu datagrams lost, "
        "%llu RC breaks (%llu messages unfinished), %llu cable pulls; %llu CQs and %llu QPs made and "
        "destroyed in all; %llu statistics reads, %llu control writes\n",
        (unsigned long long)t.bytes_checked, (unsigned long long)t.messages_checked, seconds,
        double(t.bytes_checked) / seconds / 1e6, (unsigned long long)t.datagrams_lost,
        (unsigned long long)t.rc_breaks, (unsigned long long)t.rc_unfinished,
        (unsigned long long)t.cable_pulls, (unsigned long long)t.cqs_created.load(),
        (unsigned long long)t.qps_created.load(), (unsigned long long)t.statistics_reads,
        (unsigned long long)t.control_writes);
    ASSERT_FALSE(rig.failed());
    if (params.bytes_required) {
        EXPECT_FALSE(out_of_time) << "only " << t.bytes_checked << " of " << params.bytes << " bytes in "
                                  << params.seconds << " s";
    }
    for (auto &own : flows)
        for (auto &flow : own) EXPECT_GT(flow->batches(), 0u) << flow->name() << " never finished a batch";
    EXPECT_GE(t.cable_pulls, 1u);
    EXPECT_GT(t.statistics_reads, 0u);
    EXPECT_GT(t.control_writes, 0u);
    EXPECT_GT(t.cqs_created, 0u);

    // Let the devices and the interrupts that are still on their way finish.
    hca::run_until_idle();
    k::irq_sync();

    expect_exact_counters(acc_sg0);
    expect_bounded_counters();
    expect_page_agrees();

    // Everything goes; the module's lists and the devices are empty again.
    for (auto &own : flows)
        for (auto &flow : own) flow->close();
    ASSERT_EQ(0, ulp_cq_destroy(rig.funcs, probe.hca, probe.cq));
    EXPECT_EQ(0, g["cq_num"]);
    EXPECT_EQ(0, g["qp_num"]);
    EXPECT_EQ(0, g["ah_num"]);
    EXPECT_EQ(0, alloc_num("mem_cq_ix"));
    EXPECT_EQ(0, alloc_num("mem_qp_ix"));
    for (const char *dev : {"InfiniHost0", "InfiniHost1"}) {
        EXPECT_EQ(0u, hca::cq_count(dev)) << dev;
        EXPECT_EQ(0u, hca::qp_count(dev)) << dev;
    }
    EXPECT_EQ(0u, k::spinlock_bug_count());
    EXPECT_EQ(0u, k::sleeping_in_atomic_count());
}

}  // namespace
}  // namespace stress
