// Costs of the kernel services on the adaptor's hot paths: the filtered log when its level is
// off, a line that is logged, a non-sleeping allocation, and a lock taken with interrupts saved.
#include <benchmark/benchmark.h>

#include <linux/kernel.h>
#include <linux/slab.h>
#include <linux/spinlock.h>

#include "marlix/kernel.hpp"

namespace {

struct Booted {
    Booted() { marlix::kernel::boot(); }
    ~Booted() { marlix::kernel::halt(); }
};

int trace_level_stack = 5;
int trace_level_own = 1;

// The adaptor tests both levels before it formats anything.
#define BENCH_LOG(level, fmt, ...)                                                        \
    do {                                                                                  \
        if (trace_level_stack >= (level) && trace_level_own >= (level))                   \
            printk("<6>%s : AD_TAVOR : %s:(%s):" fmt "\n", "DEBUG  ", __func__, "bench",  \
                   __VA_ARGS__);                                                          \
    } while (0)

void BM_FilteredLogOff(benchmark::State &state) {
    Booted booted;
    for (auto _ : state) {
        BENCH_LOG(4, "user qp_h %p, mlx qp_h: %ld, qp num: %d", (void *)&state, 17L, 1024);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_FilteredLogOff);

void BM_PrintkLine(benchmark::State &state) {
    Booted booted;
    unsigned long n = 0;
    for (auto _ : state) {
        printk("<6>DEBUG   : AD_TAVOR : %s:(%s):user qp_h %p, mlx qp_h: %ld, qp num: %d\n", __func__,
               "adaptor_tavor", (void *)&state, 17L, static_cast<int>(n++));
        if ((n & 0xfff) == 0) marlix::kernel::log_clear();
    }
}
BENCHMARK(BM_PrintkLine);

void BM_KernelSnprintf(benchmark::State &state) {
    char buf[256];
    for (auto _ : state) {
        int len = snprintf(buf, sizeof(buf), "%d) send sg, addr: %llx, length: %d, l_key: %d", 3,
                           0x12345678ULL, 4096, 77);
        benchmark::DoNotOptimize(len);
    }
}
BENCHMARK(BM_KernelSnprintf);

void BM_KmallocAtomic(benchmark::State &state) {
    Booted booted;
    const size_t size = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void *p = kmalloc(size, GFP_ATOMIC);
        benchmark::DoNotOptimize(p);
        kfree(p);
    }
}
BENCHMARK(BM_KmallocAtomic)->Arg(160)->Arg(8008);

void BM_SpinLockIrqsave(benchmark::State &state) {
    Booted booted;
    DEFINE_SPINLOCK(lock);
    unsigned long flags;
    for (auto _ : state) {
        spin_lock_irqsave(&lock, flags);
        benchmark::ClobberMemory();
        spin_unlock_irqrestore(&lock, flags);
    }
}
BENCHMARK(BM_SpinLockIrqsave);

}  // namespace
