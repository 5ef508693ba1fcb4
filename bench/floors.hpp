// The floors the device and the adaptor are measured against, shared by the benchmarks so each
// reports the same thing: a plain memcpy, and half a round trip of one cache line between two
// spinning threads on two cores (the least any hand-off between two agents of this machine can
// cost). Also what every ping-pong here uses: one-way samples and a pair of cores to run on.
#pragma once

#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <thread>
#include <vector>

namespace marlix::bench {

// Copies state.range(0) bytes per iteration; reports bytes per second.
inline void memcpy_floor(benchmark::State &state) {
    const size_t size = size_t(state.range(0));
    std::vector<uint8_t> src(size, 0x5a), dst(size);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), size);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(size));
}

using SteadyClock = std::chrono::steady_clock;

// Half of every round trip, timed with the steady clock into an array sized before the loop
// (nothing is allocated while measuring). Reports the mean and the median one way in
// nanoseconds: the mean shows what preemption and stalls cost, the median what one hand-off
// typically costs. Each round trip includes one read of the clock, whose cost is measured before
// the loop and reported as `clock_read_ns` (half of it is in each one-way figure). The array keeps
// the first kMaxSamples round trips (16 MiB); the mean covers every one.
class OneWaySamples {
  public:
    static constexpr size_t kMaxSamples = size_t(1) << 22;

    explicit OneWaySamples(const benchmark::State &state)
        : round_trip_ns_(std::min(size_t(state.max_iterations), kMaxSamples)) {
        // The median gap between back-to-back reads, so preemption does not inflate it.
        constexpr size_t kReads = 1001;
        std::vector<uint32_t> gaps(kReads - 1);
        auto last = SteadyClock::now();
        for (uint32_t &gap : gaps) {
            const auto now = SteadyClock::now();
            gap = uint32_t(std::chrono::nanoseconds(now - last).count());
            last = now;
        }
        std::nth_element(gaps.begin(), gaps.begin() + ptrdiff_t(gaps.size() / 2), gaps.end());
        clock_read_ns_ = gaps[gaps.size() / 2];
    }

    void add(SteadyClock::time_point sent, SteadyClock::time_point answered) {
        const uint64_t ns = uint64_t(std::chrono::nanoseconds(answered - sent).count());
        sum_ns_ += ns;
        if (count_ < round_trip_ns_.size())
            round_trip_ns_[count_] = uint32_t(std::min<uint64_t>(ns, UINT32_MAX));
        ++count_;
    }

    void report(benchmark::State &state) {
        if (count_ == 0) return;
        const size_t kept = std::min(count_, round_trip_ns_.size());
        const auto mid = round_trip_ns_.begin() + ptrdiff_t(kept / 2);
        std::nth_element(round_trip_ns_.begin(), mid, round_trip_ns_.begin() + ptrdiff_t(kept));
        state.counters["one_way_mean_ns"] = double(sum_ns_) / double(count_) / 2.0;
        state.counters["one_way_median_ns"] = double(*mid) / 2.0;
        state.counters["clock_read_ns"] = double(clock_read_ns_);
    }

  private:
    std::vector<uint32_t> round_trip_ns_;
    uint64_t sum_ns_ = 0;
    size_t count_ = 0;
    uint32_t clock_read_ns_ = 0;
};

// Two of the cores this process may run on, so that a ping-pong's two threads hand off between
// cores rather than through the scheduler. With fewer than two cores nothing is pinned. The
// benchmark's own thread gets its affinity back when the pair goes away.
class CorePair {
  public:
    CorePair() {
        CPU_ZERO(&saved_);
        if (sched_getaffinity(0, sizeof saved_, &saved_) != 0) return;
        int found = 0;
        for (int c = 0; c < CPU_SETSIZE && found < 2; ++c)
            if (CPU_ISSET(c, &saved_)) cpu_[found++] = c;
        pinned_ = found == 2;
        if (pinned_) pin(0);
    }
    ~CorePair() {
        if (pinned_) sched_setaffinity(0, sizeof saved_, &saved_);
    }
    CorePair(const CorePair &) = delete;
    CorePair &operator=(const CorePair &) = delete;

    // Pins the calling thread to the pair's core `which` (0: the benchmark's thread, 1: its peer).
    void pin(int which) const {
        if (!pinned_) return;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu_[which], &one);
        sched_setaffinity(0, sizeof one, &one);
    }

  private:
    cpu_set_t saved_;
    int cpu_[2] = {0, 0};
    bool pinned_ = false;
};

inline double thread_cpu_seconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}
inline double process_cpu_seconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

// The processor time the process spends outside the threads a benchmark runs itself (the
// device's engine, the kernel's interrupt thread), as a fraction of one core over the loop: 0
// when nothing competes with the measured threads.
class OtherThreadsCpu {
  public:
    OtherThreadsCpu() : process_(process_cpu_seconds()), wall_(SteadyClock::now()) {}
    // `own`: processor seconds the benchmark's threads spent in the loop.
    void report(benchmark::State &state, double own) const {
        const double wall = std::chrono::duration<double>(SteadyClock::now() - wall_).count();
        const double others = process_cpu_seconds() - process_ - own;
        state.counters["other_threads_cpu"] = wall > 0 ? std::max(0.0, others) / wall : 0.0;
    }

  private:
    double process_;
    SteadyClock::time_point wall_;
};

// One round trip of a token through one cache line per iteration, the two threads on two cores.
inline void cache_line_pingpong_floor(benchmark::State &state) {
    CorePair cores;
    OneWaySamples samples(state);
    alignas(64) std::atomic<uint64_t> line{0};
    std::atomic<bool> done{false};
    std::thread peer([&] {
        cores.pin(1);
        uint64_t seen = 0;
        while (!done.load(std::memory_order_relaxed)) {
            uint64_t v = line.load(std::memory_order_acquire);
            if (v != seen && (v & 1)) {
                line.store(v + 1, std::memory_order_release);
                seen = v + 1;
            }
        }
    });
    uint64_t v = 0;
    for (auto _ : state) {
        const auto sent = SteadyClock::now();
        line.store(++v, std::memory_order_release);
        while (line.load(std::memory_order_acquire) != v + 1) {
        }
        samples.add(sent, SteadyClock::now());
        ++v;
    }
    done = true;
    peer.join();
    samples.report(state);
}

}  // namespace marlix::bench
