// Shared plumbing between the kernel service files. Not part of the kernel's interface.
//
// Every service file includes this first: the host's C and C++ headers must be seen before the
// kernel's, whose macros (current, sprintf, ...) would otherwise rewrite them.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "marlix/kernel.hpp"

#include <linux/sched.h>
#include <linux/timer.h>
#include <linux/interrupt.h>
#include <linux/proc_fs.h>

struct kernel_param;
struct module;

namespace marlix::kernel::detail {

// ---- Execution contexts ---------------------------------------------------------------------------

task_struct *new_task();

struct ThreadContext {
    unsigned long preempt = 0;
    int irqs_off = 0;
    int cpu = 0;
    unsigned long generation = 0;  // boot generation the task identity belongs to
    bool service = false;          // softirq/irq thread: identity fixed by the kernel
    // Tasks are never freed (not even when their host thread ends), so that a lock's record of
    // its holder can always be named in a report.
    task_struct *task = new_task();
};
// The running thread's context; process threads get a fresh task (pid) once per boot.
ThreadContext &ctx();
void make_service_thread(const char *comm, int pid, int cpu);
void reset_tasks();  // boot: pids start again at 1000

// A kernel thread that runs queued jobs one after the other in a fixed context.
class ContextThread {
  public:
    void start(const char *comm, int pid, int cpu, unsigned long preempt_offset);
    void stop();
    bool running() const { return started_; }
    bool on_this_thread() const { return started_ && std::this_thread::get_id() == id_; }
    void post(std::function<void()> job);
    // Runs job on the thread and waits for it (inline when already on the thread).
    void run_and_wait(const std::function<void()> &job);
    // Waits until no job is queued or running.
    void sync();
    // Waits until pred() holds; pred is re-checked after every job.
    void wait_until(const std::function<bool()> &pred);
    void notify_progress();

  private:
    void loop(std::string comm, int pid, int cpu, unsigned long preempt_offset);
    std::thread thread_;
    std::thread::id id_;
    bool started_ = false;
    std::mutex m_;
    std::condition_variable work_cv_, done_cv_;
    std::deque<std::function<void()>> jobs_;
    bool busy_ = false, stopping_ = false;
};

ContextThread &softirq_thread();
ContextThread &irq_thread();

// Runs fn with the context bookkeeping checked afterwards: a handler that returns with a
// different preempt count or with interrupts still disabled is reported and repaired.
void run_handler(const char *what, const void *fn, const std::function<void()> &call);

// ---- Log ------------------------------------------------------------------------------------------
void log_reset(const BootOptions &options);
// Strips the source tree prefix from a __FILE__ path, as kernel messages name files relative
// to the tree.
const char *source_relative(const char *file);

// ---- Allocations ------------------------------------------------------------------------------------
void slab_reset();
void check_might_sleep(const char *file, int line);
// At unload: copy the call site strings of the module's allocations (its image goes away)
// and print the leak report. Returns the number of leaked objects.
int slab_report_leaks(const struct module *owner, const std::string &modname);

// ---- Clock, timers, tasklets --------------------------------------------------------------------------
void time_boot(ClockMode mode);
void time_halt();
// Unload safety: drops pending timers and queued tasklets that live in or call into a module.
using AddressTest = std::function<bool(const void *)>;
void drop_stale_timers(const AddressTest &in_module, const std::string &modname);
void drop_stale_tasklets(const AddressTest &in_module, const std::string &modname);
void tasklets_reset();

// ---- Interrupts --------------------------------------------------------------------------------------
void irq_boot();
void irq_halt();

// ---- proc ----------------------------------------------------------------------------------------------
void proc_reset();
void proc_neutralize(const AddressTest &in_module, const struct module *owner, const std::string &modname);
int proc_read(const std::string &rel, std::string &out);
long proc_write(const std::string &rel, std::string_view data);
int proc_list(const std::string &rel, std::vector<std::string> &out);
bool proc_exists(const std::string &rel);

// ---- Modules and sysfs ------------------------------------------------------------------------------
void modules_boot();
bool modules_unload_all(bool force);
bool modules_loaded();
struct module *module_for_address(const void *addr);
int sysfs_read(const std::string &rel, std::string &out);
long sysfs_write(const std::string &rel, std::string_view data);
int sysfs_list(const std::string &rel, std::vector<std::string> &out);
bool sysfs_exists(const std::string &rel);
void params_forget(const struct kernel_param *kp);

// ---- Memory --------------------------------------------------------------------------------------------
void mm_boot();

}  // namespace marlix::kernel::detail
