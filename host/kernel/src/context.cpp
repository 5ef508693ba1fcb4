// Execution contexts: the task of each host thread, its preempt count and interrupt flag, and
// the kernel threads (softirq, hardirq) that run work in a context of their own.
#include "internal.hpp"
#include <linux/hardirq.h>
#include <linux/kernel.h>
#include <linux/sched.h>
#include <linux/smp.h>

#include <atomic>
#include <cstring>
#include <type_traits>

namespace marlix::kernel::detail {
namespace {
std::atomic<unsigned long> g_generation{1};
std::atomic<int> g_next_pid{1000};
}  // namespace

namespace {
// The running thread's context, reached through a plain pointer: the library's thread-locals use
// the initial-exec model (it is loaded with the program), and the pointer is constant-initialised,
// so that a look at the context (every spinlock, preemption and interrupt-flag operation makes
// several) costs neither a call into the dynamic linker nor a guard test. The context itself is
// made at the thread's first look.
[[gnu::tls_model("initial-exec")]] constinit thread_local ThreadContext *t_ctx = nullptr;

// Nothing to destroy: the pointer stays good while other thread-locals' destructors run at exit.
static_assert(std::is_trivially_destructible_v<ThreadContext>);

[[gnu::noinline]] ThreadContext &first_ctx() {
    [[gnu::tls_model("initial-exec")]] thread_local ThreadContext owner;
    t_ctx = &owner;
    return owner;
}

ThreadContext &own_ctx() {
    if (ThreadContext *t = t_ctx) [[likely]]
        return *t;
    return first_ctx();
}

struct TaskStore {
    std::mutex m;
    std::deque<task_struct> tasks;  // a deque never moves its elements
};
TaskStore &task_store() {
    static auto *s = new TaskStore;
    return *s;
}
}  // namespace

task_struct *new_task() {
    TaskStore &s = task_store();
    std::lock_guard<std::mutex> g(s.m);
    return &s.tasks.emplace_back();
}

ThreadContext &ctx() {
    ThreadContext &t = own_ctx();
    unsigned long gen = g_generation.load(std::memory_order_acquire);
    if (!t.service && t.generation != gen) {
        t.generation = gen;
        t.preempt = 0;
        t.irqs_off = 0;
        t.cpu = 0;
        t.task->pid = g_next_pid.fetch_add(1);
        std::strncpy(t.task->comm, "marlix", TASK_COMM_LEN - 1);
    }
    return t;
}

void make_service_thread(const char *comm, int pid, int cpu) {
    ThreadContext &t = own_ctx();  // not ctx(): a kernel thread takes no process pid
    t.service = true;
    t.cpu = cpu;
    t.preempt = 0;
    t.irqs_off = 0;
    t.task->pid = pid;
    std::memset(t.task->comm, 0, sizeof t.task->comm);
    std::strncpy(t.task->comm, comm, TASK_COMM_LEN - 1);
}

void reset_tasks() {
    g_next_pid.store(1000);
    g_generation.fetch_add(1, std::memory_order_acq_rel);
}

void run_handler(const char *what, const void *fn, const std::function<void()> &call) {
    ThreadContext &t = ctx();
    unsigned long before = t.preempt;
    int irqs = t.irqs_off;
    call();
    if (t.preempt != before) {
        printk(KERN_ERR "huh, entered %s 0x%p with preempt_count %08lx, exited with %08lx?\n", what, fn,
               before, t.preempt);
        t.preempt = before;
    }
    if (t.irqs_off != irqs) {
        printk(KERN_ERR "%s 0x%p returned with interrupts %s\n", what, fn,
               t.irqs_off ? "disabled" : "enabled");
        t.irqs_off = irqs;
    }
}

// ---- ContextThread -----------------------------------------------------------------------------------

void ContextThread::start(const char *comm, int pid, int cpu, unsigned long preempt_offset) {
    if (started_) return;
    stopping_ = false;
    busy_ = false;
    jobs_.clear();
    thread_ = std::thread(&ContextThread::loop, this, std::string(comm), pid, cpu, preempt_offset);
    id_ = thread_.get_id();
    started_ = true;
}

void ContextThread::stop() {
    if (!started_) return;
    {
        std::lock_guard<std::mutex> g(m_);
        stopping_ = true;
    }
    work_cv_.notify_all();
    thread_.join();
    started_ = false;
    std::lock_guard<std::mutex> g(m_);
    jobs_.clear();
}

void ContextThread::loop(std::string comm, int pid, int cpu, unsigned long preempt_offset) {
    make_service_thread(comm.c_str(), pid, cpu);
    ThreadContext &t = ctx();
    std::unique_lock<std::mutex> lk(m_);
    for (;;) {
        work_cv_.wait(lk, [&] { return stopping_ || !jobs_.empty(); });
        if (jobs_.empty()) break;  // stopping and drained
        auto job = std::move(jobs_.front());
        jobs_.pop_front();
        busy_ = true;
        lk.unlock();
        t.preempt += preempt_offset;
        job();
        t.preempt -= preempt_offset;
        lk.lock();
        busy_ = false;
        done_cv_.notify_all();
    }
}

void ContextThread::post(std::function<void()> job) {
    {
        std::lock_guard<std::mutex> g(m_);
        jobs_.push_back(std::move(job));
    }
    work_cv_.notify_one();
}

void ContextThread::run_and_wait(const std::function<void()> &job) {
    if (on_this_thread() || !started_) {
        // Already in this context (or the kernel is not running): run in place.
        job();
        return;
    }
    bool done = false;
    post([&] {
        job();
        std::lock_guard<std::mutex> g(m_);
        done = true;
    });
    std::unique_lock<std::mutex> lk(m_);
    done_cv_.wait(lk, [&] { return done; });
}

void ContextThread::sync() {
    if (on_this_thread() || !started_) return;
    std::unique_lock<std::mutex> lk(m_);
    done_cv_.wait(lk, [&] { return jobs_.empty() && !busy_; });
}

void ContextThread::wait_until(const std::function<bool()> &pred) {
    std::unique_lock<std::mutex> lk(m_);
    while (!pred()) {
        if (!started_ || (jobs_.empty() && !busy_)) {
            // Nothing will run that could change the answer; give other threads a turn.
            lk.unlock();
            std::this_thread::yield();
            lk.lock();
            continue;
        }
        done_cv_.wait(lk);
    }
}

void ContextThread::notify_progress() {
    std::lock_guard<std::mutex> g(m_);
    done_cv_.notify_all();
}

ContextThread &softirq_thread() {
    static ContextThread *t = new ContextThread;
    return *t;
}
ContextThread &irq_thread() {
    static ContextThread *t = new ContextThread;
    return *t;
}

}  // namespace marlix::kernel::detail

using marlix::kernel::detail::ctx;

extern "C" {

unsigned long *__marlix_preempt_count_ptr(void) {
    return &ctx().preempt;
}

unsigned long __marlix_local_irq_save(void) {
    auto &t = ctx();
    unsigned long old = t.irqs_off;
    t.irqs_off = 1;
    return old;
}
void __marlix_local_irq_restore(unsigned long flags) {
    ctx().irqs_off = flags ? 1 : 0;
}
void __marlix_local_irq_disable(void) {
    ctx().irqs_off = 1;
}
void __marlix_local_irq_enable(void) {
    ctx().irqs_off = 0;
}
int __marlix_irqs_disabled(void) {
    return ctx().irqs_off;
}

int __marlix_smp_processor_id(void) {
    return ctx().cpu;
}

struct task_struct *get_current(void) {
    return ctx().task;
}

void(might_sleep)(void) {
    marlix::kernel::detail::check_might_sleep("<unknown>", 0);
}

void __marlix_might_sleep(const char *file, int line) {
    marlix::kernel::detail::check_might_sleep(file, line);
}

void schedule(void) {
    if (in_atomic() || irqs_disabled()) {
        printk(KERN_ERR "bad: scheduling while atomic!\n");
        dump_stack();
    }
    std::this_thread::yield();
}

}  // extern "C"

namespace marlix::kernel {
void set_current_cpu(int cpu) {
    ctx().cpu = cpu;
}
}  // namespace marlix::kernel
