// The software HCA at the VAPI level, on the threaded engine, across its two devices:
//
//   BM_SendMessageRate            8-byte sends posted and polled on one QP, one signalled request
//                                 per post, a window of 64
//   BM_SendMessageRateList/N      the same sends N to a post call (EVAPI_post_sr_list), the last
//                                 of each list signalled
//   BM_SendMessageRateModerated   one send per post call, every 16th signalled
//   BM_RdmaWrite/N, BM_Memcpy/N   RDMA write bandwidth, one write outstanding, beside memcpy
//   BM_RdmaWriteBesideMemcpy/N    the two alternated in one loop, with their ratio
//   BM_SendPingPong               an RC send ping-pong between two threads on two cores
//   BM_SendPingPongOneThread      the same exchange with both QPs driven by one thread: what the
//                                 device itself costs, without any hand-off between cores
//   BM_CacheLinePingPong          the floor of a cross-core hand-off
//
// These are the baseline the adaptor is measured against (docs/soft-hca.md, Speed).
#include <benchmark/benchmark.h>

#include "floors.hpp"
#include "rc_fabric.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include <evapi.h>

namespace {

namespace mb = marlix::bench;
using mb::RcEnd;
using mb::RcFabric;
using mb::SteadyClock;

constexpr uint32_t kMsg = 8;

// The receiving side of the message-rate benchmarks (side 1): takes every receive that completed
// and posts it again, one request per post, the same in every variant.
struct Receiver {
    const RcEnd &end;
    uint64_t next_id;
    void replenish() {
        VAPI_wc_desc_t wc{};
        while (end.poll(wc)) end.recv(next_id++, 0, kMsg);
    }
};

Receiver receives_ahead(const RcFabric &f, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) f.end[1].recv(i, (i % 64) * kMsg, kMsg);
    return Receiver{f.end[1], count};
}

// 8-byte sends on one QP: post a window, poll what completes, keep the window full. Every send
// is signalled and every receive completes, so each message costs two posts and two polls.
void BM_SendMessageRate(benchmark::State &state) {
    constexpr uint32_t kWindow = 64;
    RcFabric f(4096, 256);
    Receiver rx = receives_ahead(f, 2 * kWindow);
    VAPI_wc_desc_t wc{};
    mb::send_window(
        state, kWindow, 1, [&](uint64_t id) { f.end[0].send(id, uint32_t(id % 64) * kMsg, kMsg, true); },
        [&](uint64_t &done) {
            while (f.end[0].poll(wc)) ++done;
        },
        [&] { rx.replenish(); });
}
BENCHMARK(BM_SendMessageRate)->UseRealTime();

// What perftest's bandwidth tests do to spare the sender: requests posted `per_call` to a call,
// and only every `signal_every`-th signalled (completion moderation). An RC send queue completes
// in order, so a signalled completion tells that every request up to it is done. The window is
// 128 requests, so that two lists of 64 can be in flight. The receiver is as above.
void send_rate_moderated(benchmark::State &state, uint32_t per_call, uint32_t signal_every) {
    constexpr uint32_t kWindow = 128;
    RcFabric f(4096, 256);
    Receiver rx = receives_ahead(f, 2 * kWindow);
    const RcEnd &tx = f.end[0];
    std::vector<VAPI_sg_lst_entry_t> sg(per_call);
    std::vector<VAPI_sr_desc_t> list(per_call);
    for (uint32_t i = 0; i < per_call; ++i) {
        sg[i] = {tx.base + (i % 64) * kMsg, kMsg, tx.lkey};
        list[i] = VAPI_sr_desc_t{};
        list[i].opcode = VAPI_SEND;
        list[i].sg_lst_p = &sg[i];
        list[i].sg_lst_len = 1;
    }
    // The last request of the run is signalled too, so that the drain after the loop ends.
    const uint64_t last = uint64_t(state.max_iterations) * per_call - 1;
    VAPI_wc_desc_t wc{};
    mb::send_window(
        state, kWindow, per_call,
        [&](uint64_t first) {
            for (uint32_t i = 0; i < per_call; ++i) {
                const uint64_t id = first + i;
                list[i].id = id;
                list[i].comp_type =
                    (id + 1) % signal_every == 0 || id == last ? VAPI_SIGNALED : VAPI_UNSIGNALED;
            }
            if (per_call == 1)
                VAPI_post_sr(tx.hca, tx.qp, list.data());
            else
                EVAPI_post_sr_list(tx.hca, tx.qp, per_call, list.data());
        },
        [&](uint64_t &done) {
            while (tx.poll(wc)) done = wc.id + 1;
        },
        [&] { rx.replenish(); });
}

void BM_SendMessageRateList(benchmark::State &state) {
    const uint32_t n = uint32_t(state.range(0));
    send_rate_moderated(state, n, n);
}
BENCHMARK(BM_SendMessageRateList)->Arg(16)->Arg(64)->UseRealTime();

void BM_SendMessageRateModerated(benchmark::State &state) {
    send_rate_moderated(state, 1, 16);
}
BENCHMARK(BM_SendMessageRateModerated)->UseRealTime();

// RDMA writes of one size, one outstanding at a time (signalled), against memcpy of the same size.
void BM_RdmaWrite(benchmark::State &state) {
    const uint32_t size = uint32_t(state.range(0));
    RcFabric f(size, 16);
    uint64_t id = 0;
    for (auto _ : state) {
        f.end[0].send(id++, 0, size, true, VAPI_RDMA_WRITE, f.remote(1), f.rkey[1]);
        f.end[0].wait();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * size);
}
BENCHMARK(BM_RdmaWrite)->RangeMultiplier(4)->Range(64, 1 << 20)->UseRealTime();

void BM_Memcpy(benchmark::State &state) {
    mb::memcpy_floor(state);
}
BENCHMARK(BM_Memcpy)->RangeMultiplier(4)->Range(64, 1 << 20)->UseRealTime();

// The ratio the write is judged by, taken in one loop so that both see the same machine (this
// VM's speed drifts between runs more than the ratio sought): the loop alternates blocks of 32
// memcpys from side 0's buffer to side 1's with blocks of 32 RDMA writes between the same buffers
// (each signalled and waited for), and times each block with the steady clock. Blocks, rather than
// one of each in turn, so that each runs with its own working set warm, as when measured alone.
// `ratio` is memcpy's time over the write's: 1 means the write costs no more than the copy.
void BM_RdmaWriteBesideMemcpy(benchmark::State &state) {
    constexpr int kBlock = 32;
    const uint32_t size = uint32_t(state.range(0));
    RcFabric f(size, 16);
    uint8_t *src = f.buf[0].data();
    uint8_t *dst = f.buf[1].data();
    uint64_t id = 0;
    SteadyClock::duration copy{}, write{};
    for (auto _ : state) {
        const auto t0 = SteadyClock::now();
        for (int i = 0; i < kBlock; ++i) {
            std::memcpy(dst, src, size);
            benchmark::ClobberMemory();
        }
        const auto t1 = SteadyClock::now();
        bool failed = false;
        for (int i = 0; i < kBlock; ++i) {
            f.end[0].send(id++, 0, size, true, VAPI_RDMA_WRITE, f.remote(1), f.rkey[1]);
            failed = failed || f.end[0].wait().status != VAPI_SUCCESS;
        }
        const auto t2 = SteadyClock::now();
        if (failed) {
            state.SkipWithError("an RDMA write failed");
            break;
        }
        copy += t1 - t0;
        write += t2 - t1;
    }
    const double n = double(std::max<int64_t>(1, state.iterations())) * kBlock;
    const double copy_ns = std::chrono::duration<double, std::nano>(copy).count() / n;
    const double write_ns = std::chrono::duration<double, std::nano>(write).count() / n;
    state.counters["memcpy_ns"] = copy_ns;
    state.counters["write_ns"] = write_ns;
    state.counters["ratio"] = write_ns > 0 ? copy_ns / write_ns : 0;
}
BENCHMARK(BM_RdmaWriteBesideMemcpy)->RangeMultiplier(4)->Range(4096, 1 << 20)->UseRealTime();

// The ping-pongs below work as perftest's send latency test does: receives posted ahead on both
// sides, sends unsignalled, so each CQ holds only the receives that arrive and each side
// busy-polls its own. A receive used up is posted again after the round trip is timed.
constexpr uint32_t kAhead = 32;
// Receives land at offset 0, sends go from the other half of the buffer: were both in one cache
// line, the responder writing a message and the echo reading its reply would share it.
constexpr uint32_t kPingOffset = 2048;

void post_ahead(const RcFabric &f) {
    for (uint32_t i = 0; i < kAhead; ++i) {
        f.end[0].recv(i, 0, kMsg);
        f.end[1].recv(i, 0, kMsg);
    }
}

bool received(benchmark::State &state, const VAPI_wc_desc_t &wc) {
    if (wc.status == VAPI_SUCCESS && wc.opcode == VAPI_CQE_RQ_SEND_DATA) return true;
    state.SkipWithError("a ping-pong completion that is not a successful receive");
    return false;
}

// Side 0 on the benchmark's thread, side 1 echoing on a second thread, each on a core of its own;
// no other thread of the process runs meanwhile (`other_threads_cpu` shows it: the device's
// engine stays asleep, since each post carries its message through on the posting thread).
void BM_SendPingPong(benchmark::State &state) {
    RcFabric f(4096, 64);
    post_ahead(f);
    mb::CorePair cores;
    mb::OneWaySamples samples(state);
    std::atomic<bool> stop{false};
    std::atomic<double> echo_cpu{0};
    std::atomic<bool> echo_failed{false};
    const mb::OtherThreadsCpu others;
    const double cpu0 = mb::thread_cpu_seconds();
    std::thread echo([&] {
        cores.pin(1);
        const double start = mb::thread_cpu_seconds();
        const RcEnd &e = f.end[1];
        VAPI_wc_desc_t wc{};
        uint64_t n = 0;
        while (!stop.load(std::memory_order_relaxed)) {
            if (!e.poll(wc)) continue;
            if (wc.status != VAPI_SUCCESS) echo_failed = true;
            e.send(n, kPingOffset, kMsg, false);
            e.recv(n++, 0, kMsg);
        }
        echo_cpu = mb::thread_cpu_seconds() - start;
    });
    const RcEnd &e = f.end[0];
    uint64_t n = 0;
    for (auto _ : state) {
        const auto sent = SteadyClock::now();
        e.send(n, kPingOffset, kMsg, false);
        const VAPI_wc_desc_t wc = e.wait();
        samples.add(sent, SteadyClock::now());
        if (!received(state, wc)) break;
        e.recv(n++, 0, kMsg);
    }
    const double own = mb::thread_cpu_seconds() - cpu0;
    stop = true;
    echo.join();
    if (echo_failed) state.SkipWithError("the echo side got a failed completion");
    samples.report(state);
    others.report(state, own + echo_cpu.load());
}
BENCHMARK(BM_SendPingPong)->UseRealTime();

// Both QPs driven by the benchmark's thread, as the console's ib_send_lat does: each post carries
// its message through both devices on this thread, so this is the device's own cost of a message
// (post, requester, responder, acknowledgement, poll), with nothing handed between cores.
void BM_SendPingPongOneThread(benchmark::State &state) {
    RcFabric f(4096, 64);
    post_ahead(f);
    mb::OneWaySamples samples(state);
    const mb::OtherThreadsCpu others;
    const double cpu0 = mb::thread_cpu_seconds();
    uint64_t n = 0;
    for (auto _ : state) {
        const auto sent = SteadyClock::now();
        f.end[0].send(n, kPingOffset, kMsg, false);
        const VAPI_wc_desc_t ping = f.end[1].wait();
        f.end[1].send(n, kPingOffset, kMsg, false);
        const VAPI_wc_desc_t pong = f.end[0].wait();
        samples.add(sent, SteadyClock::now());
        if (!received(state, ping) || !received(state, pong)) break;
        f.end[1].recv(n, 0, kMsg);
        f.end[0].recv(n++, 0, kMsg);
    }
    samples.report(state);
    others.report(state, mb::thread_cpu_seconds() - cpu0);
}
BENCHMARK(BM_SendPingPongOneThread)->UseRealTime();

// Two threads on two cores passing a token through one cache line: the floor of any cross-core
// hand-off, with the same statistics as the ping-pongs.
void BM_CacheLinePingPong(benchmark::State &state) {
    mb::cache_line_pingpong_floor(state);
}
BENCHMARK(BM_CacheLinePingPong)->UseRealTime();

}  // namespace
