// kmalloc/kfree with a record of every live object (owner module, call site), allocation
// fault rules, and the sleeping-while-atomic check of allocations that may sleep.
#include "internal.hpp"
#include <linux/hardirq.h>
#include <linux/kernel.h>
#include <linux/sched.h>
#include <linux/slab.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

namespace marlix::kernel {
namespace {

// Largest general cache of the slab allocator; bigger requests fail as they do on 2.6.
constexpr size_t kMaxSize = 131072;

struct Record {
    size_t size;
    const struct module *owner;
    const char *func, *file;  // point into the caller's image while it is loaded
    int line;
    unsigned long seq;
    std::string func_copy, file_copy;  // filled when the owner's image goes away
    bool detached = false;
};

struct Rule {
    int id;
    AllocFault fault;
    unsigned long seen = 0;
    bool done = false;
};

struct Slab {
    std::mutex m;
    std::unordered_map<const void *, Record> live;
    unsigned long seq = 0;
    std::vector<Rule> rules;
    int next_rule = 1;
    unsigned long injected = 0;
    unsigned long atomic_sleeps = 0;
};

Slab &slab() {
    static Slab *s = new Slab;
    return *s;
}

size_t size_class(size_t size) {
    size_t c = 32;
    while (c < size) c <<= 1;
    return c;
}

bool site_matches(const std::string &site, const char *func, const char *file, int line) {
    if (site.empty()) return true;
    if (func && site == func) return true;
    auto colon = site.rfind(':');
    if (colon == std::string::npos || !file) return false;
    if (site.substr(colon + 1) != std::to_string(line)) return false;
    std::string want = site.substr(0, colon);
    std::string have = file;
    // The file may be named in full, relative to the source tree, or by its last components.
    return have == want ||
           (have.size() > want.size() && have.compare(have.size() - want.size(), want.size(), want) == 0 &&
            have[have.size() - want.size() - 1] == '/');
}

// Called with the slab lock held.
bool should_fail(Slab &s, size_t size, const char *func, const char *file, int line) {
    bool fail = false;
    for (auto &r : s.rules) {
        if (r.done) continue;
        if (r.fault.size && *r.fault.size != size) continue;
        if (!site_matches(r.fault.site, func, file, line)) continue;
        ++r.seen;
        unsigned long nth = r.fault.nth.value_or(1);
        if (r.seen == nth || (r.fault.always && r.seen > nth)) {
            fail = true;
            if (!r.fault.always) r.done = true;
        }
    }
    return fail;
}

Allocation to_allocation(const void *p, const Record &r) {
    Allocation a;
    a.ptr = p;
    a.size = r.size;
    a.owner = r.owner;
    a.func = r.detached ? r.func_copy : (r.func ? r.func : "");
    a.file = r.detached ? r.file_copy : detail::source_relative(r.file);
    a.line = r.line;
    return a;
}

}  // namespace

namespace detail {

void slab_reset() {
    Slab &s = slab();
    std::lock_guard<std::mutex> g(s.m);
    // What modules of an earlier boot left behind is released; the kernel's own objects
    // (made by host libraries that outlive a boot) stay tracked.
    for (auto it = s.live.begin(); it != s.live.end();) {
        if (it->second.owner || it->second.detached) {
            std::free(const_cast<void *>(it->first));  // nothing can reach it any more
            it = s.live.erase(it);
        }
        else
            ++it;
    }
    s.rules.clear();
    s.injected = 0;
    s.atomic_sleeps = 0;
}

void check_might_sleep(const char *file, int line) {
    if (!in_atomic() && !irqs_disabled()) return;
    {
        Slab &s = slab();
        std::lock_guard<std::mutex> g(s.m);
        ++s.atomic_sleeps;
    }
    printk(KERN_ERR "BUG: sleeping function called from invalid context at %s:%d\n", source_relative(file),
           line);
    printk(KERN_ERR "in_atomic(): %d, irqs_disabled(): %d, pid: %d, name: %s\n", in_atomic() ? 1 : 0,
           irqs_disabled() ? 1 : 0, current->pid, current->comm);
}

int slab_report_leaks(const struct module *owner, const std::string &) {
    std::vector<Allocation> leaks;
    {
        Slab &s = slab();
        std::lock_guard<std::mutex> g(s.m);
        std::vector<std::pair<unsigned long, const void *>> order;
        for (auto &[p, r] : s.live) {
            if (r.owner != owner || r.detached) continue;
            r.func_copy = r.func ? r.func : "";
            r.file_copy = source_relative(r.file);
            r.detached = true;
            order.emplace_back(r.seq, p);
        }
        std::sort(order.begin(), order.end());
        for (auto &[seq, p] : order) leaks.push_back(to_allocation(p, s.live.at(p)));
    }
    if (leaks.empty()) return 0;
    printk(KERN_ERR "kmemleak: %d new suspected memory leaks\n", static_cast<int>(leaks.size()));
    for (auto &a : leaks) {
        printk(KERN_ERR "unreferenced object 0x%p (size %zu):\n", a.ptr, a.size);
        printk(KERN_ERR "  allocated at %s (%s:%d)\n", a.func.c_str(), a.file.c_str(), a.line);
    }
    return static_cast<int>(leaks.size());
}

}  // namespace detail

std::vector<Allocation> live_allocations(const struct module *owner, bool all) {
    Slab &s = slab();
    std::lock_guard<std::mutex> g(s.m);
    std::vector<std::pair<unsigned long, Allocation>> v;
    for (auto &[p, r] : s.live) {
        if (owner ? r.owner != owner : (!all && r.owner)) continue;
        v.emplace_back(r.seq, to_allocation(p, r));
    }
    std::sort(v.begin(), v.end(), [](auto &a, auto &b) { return a.first < b.first; });
    std::vector<Allocation> out;
    for (auto &e : v) out.push_back(std::move(e.second));
    return out;
}

size_t live_allocation_count() {
    Slab &s = slab();
    std::lock_guard<std::mutex> g(s.m);
    return s.live.size();
}

unsigned long sleeping_in_atomic_count() {
    Slab &s = slab();
    std::lock_guard<std::mutex> g(s.m);
    return s.atomic_sleeps;
}

void reset_sleeping_in_atomic_count() {
    Slab &s = slab();
    std::lock_guard<std::mutex> g(s.m);
    s.atomic_sleeps = 0;
}

int add_alloc_fault(const AllocFault &fault) {
    Slab &s = slab();
    std::lock_guard<std::mutex> g(s.m);
    Rule r{s.next_rule++, fault};
    s.rules.push_back(r);
    return r.id;
}

void clear_alloc_faults() {
    Slab &s = slab();
    std::lock_guard<std::mutex> g(s.m);
    s.rules.clear();
}

unsigned long injected_alloc_failures() {
    Slab &s = slab();
    std::lock_guard<std::mutex> g(s.m);
    return s.injected;
}

}  // namespace marlix::kernel

using namespace marlix::kernel;

extern "C" {

void *__marlix_kmalloc(size_t size, gfp_t flags, struct module *owner, const char *func, const char *file,
                       int line) {
    if (flags & __GFP_WAIT) detail::check_might_sleep(file, line);
    Slab &s = slab();
    {
        std::lock_guard<std::mutex> g(s.m);
        if (should_fail(s, size, func, file, line)) {
            ++s.injected;
            return nullptr;
        }
    }
    if (size > kMaxSize) return nullptr;
    // The object is exactly as large as asked, so that overruns are caught by the host's
    // memory checkers even where the size class would have hidden them.
    void *p = std::malloc(size ? size : 1);
    if (!p) return nullptr;
    if (flags & __GFP_ZERO) std::memset(p, 0, size);
    std::lock_guard<std::mutex> g(s.m);
    s.live[p] = Record{size, owner, func, file, line, ++s.seq, {}, {}, false};
    return p;
}

void kfree(const void *objp) {
    if (!objp) return;
    Slab &s = slab();
    {
        std::lock_guard<std::mutex> g(s.m);
        auto it = s.live.find(objp);
        if (it != s.live.end()) {
            s.live.erase(it);
            std::free(const_cast<void *>(objp));
            return;
        }
    }
    // Freeing something kmalloc did not hand out (or freeing twice): report it and leave the
    // memory alone rather than corrupt the heap.
    printk(KERN_ERR "kfree: bad object 0x%p (not allocated, or already freed)\n", objp);
    dump_stack();
}

size_t ksize(const void *objp) {
    if (!objp) return 0;
    Slab &s = slab();
    std::lock_guard<std::mutex> g(s.m);
    auto it = s.live.find(objp);
    return it == s.live.end() ? 0 : size_class(it->second.size);
}

}  // extern "C"
