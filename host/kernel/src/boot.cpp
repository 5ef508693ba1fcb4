// Boot and halt: every service back to its initial state, the softirq and interrupt threads
// started (boot) or stopped (halt).
#include "internal.hpp"
#include <linux/preempt.h>

#include <atomic>
#include <stdexcept>

namespace marlix::kernel {
namespace detail {
void set_module_path(const std::string &path);
}

namespace {
std::mutex g_boot_mutex;
std::atomic<bool> g_booted{false};

// Fixed identities of the kernel's own threads.
constexpr int kSoftirqPid = 3;
constexpr int kIrqPid = 4;
}  // namespace

void boot(const BootOptions &options) {
    std::lock_guard<std::mutex> g(g_boot_mutex);
    if (g_booted) throw std::logic_error("marlix::kernel::boot: the kernel is already running");
    detail::reset_tasks();
    detail::log_reset(options);
    detail::slab_reset();
    reset_spinlock_bug_count();
    detail::proc_reset();
    detail::tasklets_reset();
    detail::modules_boot();
    detail::set_module_path(options.module_path);
    detail::mm_boot();
    detail::time_boot(options.clock);
    detail::softirq_thread().start("ksoftirqd/0", kSoftirqPid, 0, SOFTIRQ_OFFSET);
    detail::irq_thread().start("irq/1", kIrqPid, 1, HARDIRQ_OFFSET);
    g_booted = true;
}

bool halt(bool force) {
    std::lock_guard<std::mutex> g(g_boot_mutex);
    if (!g_booted) return true;
    if (!detail::modules_unload_all(force)) return false;
    detail::time_halt();
    detail::softirq_thread().stop();
    detail::irq_thread().stop();
    detail::tasklets_reset();
    g_booted = false;
    return true;
}

bool booted() {
    return g_booted;
}

}  // namespace marlix::kernel
