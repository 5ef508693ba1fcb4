// The floors the device and the adaptor are measured against, shared by the benchmarks so each
// reports the same thing: a plain memcpy, and half a round trip of one cache line between two
// spinning threads (the least any hand-off between two agents of this machine can cost).
#pragma once

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <cstring>
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

// One round trip of a token per iteration; reports half of it under `counter` (seconds, as a
// rate inverted).
inline void cache_line_pingpong_floor(benchmark::State &state, const char *counter) {
    alignas(64) std::atomic<uint64_t> line{0};
    std::atomic<bool> done{false};
    std::thread peer([&] {
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
        line.store(++v, std::memory_order_release);
        while (line.load(std::memory_order_acquire) != v + 1) {
        }
        ++v;
    }
    done = true;
    peer.join();
    state.counters[counter] = benchmark::Counter(double(state.iterations()) * 2,
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

}  // namespace marlix::bench
