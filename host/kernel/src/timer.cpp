// jiffies and kernel timers. Pending timers sit on one list ordered by expiry (equal expiry:
// in the order they were armed) and run on the softirq thread in softirq context. Under the
// virtual clock jiffies moves only in advance_jiffies(); under the real clock a ticker thread
// adds one every millisecond.
#include "internal.hpp"
#include <linux/jiffies.h>
#include <linux/kernel.h>
#include <linux/timer.h>

#include <atomic>
#include <chrono>

extern "C" {
volatile u64 jiffies_64 = 0;
}

namespace marlix::kernel {
namespace {

struct Timers {
    std::mutex m;
    list_head pending = {&pending, &pending};
    timer_list *running = nullptr;
    ClockMode mode = ClockMode::Virtual;
    std::thread ticker;
    std::atomic<bool> ticker_stop{false};
    bool run_posted = false;  // real clock: a run of due timers is queued on the softirq thread
};

Timers &timers() {
    static Timers *t = new Timers;
    return *t;
}

// Marks an initialised timer (timer->base); any non-null value does.
char g_timer_base;

unsigned long now() {
    return (unsigned long)__atomic_load_n(&jiffies_64, __ATOMIC_ACQUIRE);
}
void set_now(unsigned long j) {
    __atomic_store_n(&jiffies_64, u64(j), __ATOMIC_RELEASE);
}

bool pending_locked(const timer_list *t) {
    return t->entry.next != nullptr;
}

void detach_locked(timer_list *t) {
    list_del(&t->entry);  // leaves next/prev null: not pending
}

void insert_locked(Timers &ts, timer_list *t) {
    list_head *pos;
    // After every timer that expires no later than this one.
    for (pos = ts.pending.next; pos != &ts.pending; pos = pos->next) {
        timer_list *o = list_entry(pos, timer_list, entry);
        if (time_after(o->expires, t->expires)) break;
    }
    __list_add(&t->entry, pos->prev, pos);
}

// On the softirq thread: runs every pending timer due by `limit`, in expiry order. With
// `move_clock` (virtual clock) jiffies is stepped to each timer's expiry before it runs.
void run_due(unsigned long limit, bool move_clock) {
    Timers &ts = timers();
    for (;;) {
        timer_list *t;
        void (*fn)(unsigned long);
        unsigned long data;
        {
            std::lock_guard<std::mutex> g(ts.m);
            if (list_empty(&ts.pending)) break;
            t = list_entry(ts.pending.next, timer_list, entry);
            if (time_after(t->expires, limit)) break;
            if (move_clock && time_after(t->expires, now())) set_now(t->expires);
            detach_locked(t);
            fn = t->function;
            data = t->data;
            ts.running = t;
        }
        if (fn) {
            detail::run_handler("timer", reinterpret_cast<const void *>(fn), [&] { fn(data); });
        } else {
            printk(KERN_ERR "timer 0x%p expired without a function\n", t);
        }
        {
            std::lock_guard<std::mutex> g(ts.m);
            ts.running = nullptr;
        }
        detail::softirq_thread().notify_progress();
    }
}

void ticker_loop() {
    Timers &ts = timers();
    auto next = std::chrono::steady_clock::now();
    while (!ts.ticker_stop.load()) {
        next += std::chrono::milliseconds(1);
        std::this_thread::sleep_until(next);
        set_now(now() + 1);
        bool post = false;
        {
            std::lock_guard<std::mutex> g(ts.m);
            if (!ts.run_posted && !list_empty(&ts.pending) &&
                time_after_eq(now(), list_entry(ts.pending.next, timer_list, entry)->expires)) {
                ts.run_posted = true;
                post = true;
            }
        }
        if (post)
            detail::softirq_thread().post([&ts] {
                {
                    std::lock_guard<std::mutex> g(ts.m);
                    ts.run_posted = false;
                }
                run_due(now(), false);
            });
    }
}

}  // namespace

namespace detail {

void time_boot(ClockMode mode) {
    Timers &ts = timers();
    {
        std::lock_guard<std::mutex> g(ts.m);
        while (!list_empty(&ts.pending)) detach_locked(list_entry(ts.pending.next, timer_list, entry));
        ts.running = nullptr;
        ts.mode = mode;
        ts.run_posted = false;
    }
    set_now(0);
    if (mode == ClockMode::Real) {
        ts.ticker_stop = false;
        ts.ticker = std::thread(ticker_loop);
    }
}

void time_halt() {
    Timers &ts = timers();
    if (ts.ticker.joinable()) {
        ts.ticker_stop = true;
        ts.ticker.join();
    }
    std::lock_guard<std::mutex> g(ts.m);
    while (!list_empty(&ts.pending)) detach_locked(list_entry(ts.pending.next, timer_list, entry));
}

void drop_stale_timers(const AddressTest &in_module, const std::string &modname) {
    Timers &ts = timers();
    std::vector<const void *> dropped;
    {
        std::lock_guard<std::mutex> g(ts.m);
        list_head *pos, *n;
        list_for_each_safe(pos, n, &ts.pending) {
            timer_list *t = list_entry(pos, timer_list, entry);
            if (in_module(t) || in_module(reinterpret_cast<const void *>(t->function))) {
                detach_locked(t);
                dropped.push_back(t);
            }
        }
    }
    // The module's image is about to go away; a timer left armed would run code that is gone.
    for (auto *t : dropped)
        printk(KERN_ERR "%s: timer 0x%p still pending at unload, removed\n", modname.c_str(), t);
}

}  // namespace detail

ClockMode clock_mode() {
    return timers().mode;
}
unsigned long now_jiffies() {
    return now();
}

void advance_jiffies(unsigned long n) {
    Timers &ts = timers();
    if (ts.mode == ClockMode::Real) {
        std::this_thread::sleep_for(std::chrono::milliseconds(n));
        return;
    }
    detail::softirq_thread().run_and_wait([n] {
        unsigned long target = now() + n;
        run_due(target, true);
        set_now(target);
    });
}

}  // namespace marlix::kernel

using namespace marlix::kernel;

extern "C" {

void init_timer(struct timer_list *timer) {
    timer->entry.next = nullptr;
    timer->entry.prev = nullptr;
    timer->base = &g_timer_base;
}

void add_timer(struct timer_list *timer) {
    Timers &ts = timers();
    bool was_pending;
    {
        std::lock_guard<std::mutex> g(ts.m);
        was_pending = pending_locked(timer);
        if (was_pending) detach_locked(timer);
        timer->base = &g_timer_base;
        insert_locked(ts, timer);
    }
    // Arming an armed timer is a bug in the caller; it is re-armed at the new time.
    if (was_pending) printk(KERN_ERR "add_timer: timer 0x%p already pending, re-armed\n", timer);
}

int mod_timer(struct timer_list *timer, unsigned long expires) {
    Timers &ts = timers();
    std::lock_guard<std::mutex> g(ts.m);
    int ret = 0;
    if (pending_locked(timer)) {
        if (timer->expires == expires) return 1;
        detach_locked(timer);
        ret = 1;
    }
    timer->expires = expires;
    timer->base = &g_timer_base;
    insert_locked(ts, timer);
    return ret;
}

int del_timer(struct timer_list *timer) {
    Timers &ts = timers();
    std::lock_guard<std::mutex> g(ts.m);
    if (!pending_locked(timer)) return 0;
    detach_locked(timer);
    return 1;
}

int del_timer_sync(struct timer_list *timer) {
    int ret = del_timer(timer);
    auto &soft = detail::softirq_thread();
    if (soft.on_this_thread()) return ret;  // a handler cannot wait for itself
    Timers &ts = timers();
    soft.wait_until([&] {
        std::lock_guard<std::mutex> g(ts.m);
        return ts.running != timer;
    });
    // The handler may have re-armed the timer while we waited.
    return del_timer(timer) || ret;
}

int timer_pending(const struct timer_list *timer) {
    Timers &ts = timers();
    std::lock_guard<std::mutex> g(ts.m);
    return pending_locked(timer);
}

}  // extern "C"
