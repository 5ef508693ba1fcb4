// Tasklets and the softirq thread's host controls. A scheduled tasklet runs once on the
// softirq thread however often it was scheduled before it ran; a disabled one waits, off the
// queue, until it is enabled again.
#include "internal.hpp"
#include <linux/hardirq.h>
#include <linux/interrupt.h>
#include <linux/kernel.h>

#include <algorithm>

namespace marlix::kernel {
namespace {

constexpr unsigned long SCHED = 1UL << TASKLET_STATE_SCHED;
constexpr unsigned long RUN = 1UL << TASKLET_STATE_RUN;

struct Tasklets {
    std::mutex m;
    std::deque<tasklet_struct *> queued;   // scheduled, waiting for the softirq thread
    std::vector<tasklet_struct *> parked;  // scheduled while disabled
};

Tasklets &tasklets() {
    static Tasklets *t = new Tasklets;
    return *t;
}

unsigned long state(const tasklet_struct *t) {
    return __atomic_load_n(&t->state, __ATOMIC_ACQUIRE);
}

void run_tasklet(tasklet_struct *t);

// One job per queued tasklet; the job takes whatever is first in line, so a tasklet dropped
// from the line (its module went away) leaves a job that finds nothing to do.
void queue(tasklet_struct *t) {
    {
        std::lock_guard<std::mutex> g(tasklets().m);
        tasklets().queued.push_back(t);
    }
    detail::softirq_thread().post([] {
        tasklet_struct *next = nullptr;
        {
            std::lock_guard<std::mutex> g(tasklets().m);
            if (tasklets().queued.empty()) return;
            next = tasklets().queued.front();
            tasklets().queued.pop_front();
        }
        run_tasklet(next);
    });
}

void run_tasklet(tasklet_struct *t) {
    if (atomic_read(&t->count)) {
        std::lock_guard<std::mutex> g(tasklets().m);
        // tasklet_enable may have run between the check and here
        if (atomic_read(&t->count)) {
            tasklets().parked.push_back(t);
            return;
        }
    }
    __atomic_fetch_or(&t->state, RUN, __ATOMIC_ACQ_REL);
    __atomic_fetch_and(&t->state, ~SCHED, __ATOMIC_ACQ_REL);
    void (*fn)(unsigned long) = t->func;
    unsigned long data = t->data;
    detail::run_handler("tasklet", reinterpret_cast<const void *>(fn), [&] { fn(data); });
    __atomic_fetch_and(&t->state, ~RUN, __ATOMIC_ACQ_REL);
}

// Takes a parked tasklet off the parked list; true when it was there.
bool unpark(tasklet_struct *t) {
    Tasklets &ts = tasklets();
    std::lock_guard<std::mutex> g(ts.m);
    auto it = std::find(ts.parked.begin(), ts.parked.end(), t);
    if (it == ts.parked.end()) return false;
    ts.parked.erase(it);
    return true;
}

}  // namespace

void softirq_sync() {
    detail::softirq_thread().sync();
}

void run_in_softirq(const std::function<void()> &fn) {
    auto &soft = detail::softirq_thread();
    if (!soft.running() && !soft.on_this_thread()) {
        // Not booted: run here, with the softirq bit set all the same.
        add_preempt_count(SOFTIRQ_OFFSET);
        fn();
        sub_preempt_count(SOFTIRQ_OFFSET);
        return;
    }
    soft.run_and_wait(fn);
}

namespace detail {
void tasklets_reset() {
    std::lock_guard<std::mutex> g(tasklets().m);
    tasklets().parked.clear();
    tasklets().queued.clear();
}

void drop_stale_tasklets(const AddressTest &in_module, const std::string &modname) {
    std::vector<tasklet_struct *> dropped;
    {
        Tasklets &ts = tasklets();
        std::lock_guard<std::mutex> g(ts.m);
        auto stale = [&](tasklet_struct *t) {
            if (!in_module(t) && !in_module(reinterpret_cast<const void *>(t->func))) return false;
            dropped.push_back(t);
            return true;
        };
        ts.queued.erase(std::remove_if(ts.queued.begin(), ts.queued.end(), stale), ts.queued.end());
        ts.parked.erase(std::remove_if(ts.parked.begin(), ts.parked.end(), stale), ts.parked.end());
    }
    for (auto *t : dropped)
        printk(KERN_ERR "%s: tasklet 0x%p still scheduled at unload, removed\n", modname.c_str(), t);
}
}  // namespace detail

}  // namespace marlix::kernel

using namespace marlix::kernel;

extern "C" {

void tasklet_init(struct tasklet_struct *t, void (*func)(unsigned long), unsigned long data) {
    t->next = nullptr;
    t->state = 0;
    atomic_set(&t->count, 0);
    t->func = func;
    t->data = data;
}

void tasklet_schedule(struct tasklet_struct *t) {
    if (__atomic_fetch_or(&t->state, SCHED, __ATOMIC_ACQ_REL) & SCHED) return;
    queue(t);
}

void tasklet_hi_schedule(struct tasklet_struct *t) {
    tasklet_schedule(t);
}

void tasklet_disable(struct tasklet_struct *t) {
    atomic_inc(&t->count);
    // Wait for a run in progress, as the kernel's tasklet_unlock_wait does.
    auto &soft = detail::softirq_thread();
    if (!soft.on_this_thread()) soft.wait_until([t] { return !(state(t) & RUN); });
}

void tasklet_enable(struct tasklet_struct *t) {
    if (atomic_dec_and_test(&t->count) && unpark(t)) queue(t);
}

void tasklet_kill(struct tasklet_struct *t) {
    if (in_interrupt()) {
        printk("Attempt to kill tasklet from interrupt\n");
        return;
    }
    // A disabled tasklet would never run; it is simply taken off its queue.
    if (unpark(t)) __atomic_fetch_and(&t->state, ~SCHED, __ATOMIC_ACQ_REL);
    auto &soft = detail::softirq_thread();
    if (soft.running()) soft.wait_until([t] { return !(state(t) & (SCHED | RUN)) || unpark(t); });
    __atomic_fetch_and(&t->state, ~(SCHED | RUN), __ATOMIC_ACQ_REL);
}

}  // extern "C"
