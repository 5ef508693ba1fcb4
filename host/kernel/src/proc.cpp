// The proc filesystem. Entries form a tree under proc_root; each directory keeps its entries
// newest first, and a name may be registered twice (the newest one is found first). Reads
// follow the kernel's proc_file_read loop, so a read handler sees the same page, offsets and
// *start protocol as on a real 2.6 kernel.
#include "internal.hpp"
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/proc_fs.h>
#include <asm/page.h>
#include <asm/uaccess.h>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>

extern "C" {
struct proc_dir_entry proc_root = {1,
                                   5,
                                   "/proc",
                                   S_IFDIR | S_IRUGO | S_IXUGO,
                                   2,
                                   0,
                                   0,
                                   0,
                                   nullptr,
                                   nullptr,
                                   nullptr,
                                   nullptr,
                                   nullptr,
                                   nullptr,
                                   ATOMIC_INIT(0),
                                   0,
                                   nullptr};
}

namespace marlix::kernel {
namespace {

// A kernel-made entry together with the storage of its name.
struct Entry {
    proc_dir_entry de{};
    std::string name;
};
static_assert(offsetof(Entry, de) == 0);

Entry *entry_of(proc_dir_entry *de) {
    return reinterpret_cast<Entry *>(de);
}

struct Fault {
    std::string suffix;
    bool always;
};

struct Proc {
    std::mutex m;
    unsigned int next_ino = 0xF0000000u;
    std::vector<Fault> faults;
    std::vector<proc_dir_entry *> detached;  // removed while busy, or orphaned with a removed parent
};

Proc &proc() {
    static Proc *p = new Proc;
    return *p;
}

// Bytes the kernel asks a read handler for at a time.
constexpr long PROC_BLOCK_SIZE = PAGE_SIZE - 1024;
// How much a reader asks for per read() (as cat does), and where a read of a runaway file stops.
constexpr size_t kReadChunk = 131072;
constexpr size_t kReadLimit = 16u << 20;

bool match(size_t len, const char *name, const proc_dir_entry *de) {
    return de->namelen == len && std::memcmp(name, de->name, len) == 0;
}

proc_dir_entry *child(proc_dir_entry *dir, const char *name, size_t len) {
    for (proc_dir_entry *de = dir->subdir; de; de = de->next)
        if (match(len, name, de)) return de;
    return nullptr;
}

// Resolves every component but the last; fails when a directory on the way is missing.
bool xlate(const char *name, proc_dir_entry **dir, const char **residual) {
    proc_dir_entry *de = *dir ? *dir : &proc_root;
    const char *cp = name;
    for (;;) {
        const char *next = std::strchr(cp, '/');
        if (!next) break;
        de = child(de, cp, next - cp);
        if (!de) return false;
        cp = next + 1;
    }
    *residual = cp;
    *dir = de;
    return true;
}

std::string path_of(const proc_dir_entry *de) {
    std::string p;
    for (; de && de != &proc_root; de = de->parent)
        p = std::string(de->name, de->namelen) + (p.empty() ? "" : "/") + p;
    return p;
}

// Full lookup of a path relative to /proc ("" is /proc itself).
proc_dir_entry *lookup(const std::string &rel) {
    proc_dir_entry *de = &proc_root;
    size_t pos = 0;
    while (pos < rel.size()) {
        size_t slash = rel.find('/', pos);
        if (slash == std::string::npos) slash = rel.size();
        if (slash > pos) {
            de = child(de, rel.data() + pos, slash - pos);
            if (!de) return nullptr;
        }
        pos = slash + 1;
    }
    return de;
}

bool creation_fault(Proc &p, const std::string &rel) {
    std::string full = "/proc/" + rel;
    for (auto it = p.faults.begin(); it != p.faults.end(); ++it) {
        if (full.size() >= it->suffix.size() &&
            full.compare(full.size() - it->suffix.size(), it->suffix.size(), it->suffix) == 0) {
            if (!it->always) p.faults.erase(it);
            return true;
        }
    }
    return false;
}

void free_tree(proc_dir_entry *de) {
    while (de) {
        proc_dir_entry *next = de->next;
        free_tree(de->subdir);
        delete entry_of(de);
        de = next;
    }
}

proc_dir_entry *create(const char *name, mode_t mode, proc_dir_entry *parent, const void *caller) {
    if (S_ISDIR(mode)) {
        if ((mode & 07777) == 0) mode |= S_IRUGO | S_IXUGO;
    } else {
        if ((mode & S_IFMT) == 0) mode |= S_IFREG;
        if ((mode & 07777) == 0) mode |= S_IRUGO;
    }
    struct module *owner = detail::module_for_address(caller);
    Proc &p = proc();
    std::lock_guard<std::mutex> g(p.m);
    const char *fn;
    if (!name || !xlate(name, &parent, &fn) || !*fn) return nullptr;
    std::string rel = path_of(parent);
    rel += (rel.empty() ? "" : "/") + std::string(fn);
    if (creation_fault(p, rel)) return nullptr;
    auto *e = new Entry;
    e->name = fn;
    proc_dir_entry *de = &e->de;
    de->low_ino = p.next_ino++;
    de->name = e->name.c_str();
    de->namelen = static_cast<unsigned short>(e->name.size());
    de->mode = mode;
    de->nlink = S_ISDIR(mode) ? 2 : 1;
    de->parent = parent;
    de->owner = owner;
    atomic_set(&de->count, 0);
    de->next = parent->subdir;
    parent->subdir = de;
    if (S_ISDIR(mode)) parent->nlink++;
    return de;
}

// Keeps an entry alive while a handler runs; null when there is no such entry.
proc_dir_entry *get_entry(const std::string &rel) {
    Proc &p = proc();
    std::lock_guard<std::mutex> g(p.m);
    proc_dir_entry *de = lookup(rel);
    if (de && de != &proc_root) atomic_inc(&de->count);
    return de;
}

void put_entry(proc_dir_entry *de) {
    if (de == &proc_root) return;
    Proc &p = proc();
    std::lock_guard<std::mutex> g(p.m);
    if (atomic_dec_and_test(&de->count) && de->deleted && !de->subdir) {
        for (auto it = p.detached.begin(); it != p.detached.end(); ++it)
            if (*it == de) {
                p.detached.erase(it);
                break;
            }
        delete entry_of(de);
    }
}

// One read() system call on the file: the kernel's proc_file_read.
long proc_file_read(proc_dir_entry *dp, std::string &out, size_t nbytes, loff_t *ppos) {
    char *page = static_cast<char *>(std::calloc(1, PAGE_SIZE));
    if (!page) return -ENOMEM;
    long retval = 0;
    int eof = 0;
    while (nbytes > 0 && !eof) {
        long count = std::min<long>(PROC_BLOCK_SIZE, static_cast<long>(nbytes));
        char *start = nullptr;
        long n;
        if (dp->read_proc)
            n = dp->read_proc(page, &start, static_cast<off_t>(*ppos), static_cast<int>(count), &eof,
                              dp->data);
        else
            break;
        if (n == 0) break; /* end of file */
        if (n < 0) {       /* error */
            if (retval == 0) retval = n;
            break;
        }
        if (start == nullptr) {
            if (n > static_cast<long>(PAGE_SIZE)) {
                printk(KERN_ERR "proc_file_read: Apparent buffer overflow!\n");
                n = PAGE_SIZE;
            }
            n -= *ppos;
            if (n <= 0) break;
            if (n > count) n = count;
            start = page + *ppos;
        } else if (start < page) {
            // The handler returns a record count in `start`: the position moves by that much.
            if (n > static_cast<long>(PAGE_SIZE)) {
                printk(KERN_ERR "proc_file_read: Apparent buffer overflow!\n");
                n = PAGE_SIZE;
            }
            if (n > count) printk(KERN_WARNING "proc_file_read: Read count exceeded\n");
        } else {
            unsigned long startoff = static_cast<unsigned long>(start - page);
            if (n > static_cast<long>(PAGE_SIZE - startoff)) {
                printk(KERN_ERR "proc_file_read: Apparent buffer overflow!\n");
                n = PAGE_SIZE - startoff;
            }
            if (n > count) n = count;
        }
        const char *src = start < page ? page : start;
        // The data must lie inside the page: a handler that points elsewhere gets nothing
        // copied rather than a read of stray memory.
        if (src < page || src + n > page + PAGE_SIZE) {
            if (retval == 0) retval = -EFAULT;
            break;
        }
        out.append(src, n);
        *ppos += start < page ? reinterpret_cast<unsigned long>(start) : n;
        nbytes -= n;
        retval += n;
    }
    std::free(page);
    return retval;
}

}  // namespace

void add_proc_create_fault(const std::string &path_suffix, bool always) {
    Proc &p = proc();
    std::lock_guard<std::mutex> g(p.m);
    p.faults.push_back({path_suffix, always});
}

void clear_proc_faults() {
    Proc &p = proc();
    std::lock_guard<std::mutex> g(p.m);
    p.faults.clear();
}

namespace detail {

void proc_reset() {
    Proc &p = proc();
    std::lock_guard<std::mutex> g(p.m);
    free_tree(proc_root.subdir);
    proc_root.subdir = nullptr;
    proc_root.nlink = 2;
    for (auto *de : p.detached) {
        free_tree(de->subdir);
        delete entry_of(de);
    }
    p.detached.clear();
    p.faults.clear();
    p.next_ino = 0xF0000000u;
}

void proc_neutralize(const AddressTest &in_module, const struct module *owner, const std::string &modname) {
    std::vector<std::string> disabled;
    {
        Proc &p = proc();
        std::lock_guard<std::mutex> g(p.m);
        std::function<void(proc_dir_entry *)> walk = [&](proc_dir_entry *de) {
            for (; de; de = de->next) {
                if (de->owner == owner) de->owner = nullptr;
                if (in_module(reinterpret_cast<const void *>(de->read_proc)) ||
                    in_module(reinterpret_cast<const void *>(de->write_proc))) {
                    de->read_proc = nullptr;
                    de->write_proc = nullptr;
                    disabled.push_back(path_of(de));
                }
                walk(de->subdir);
            }
        };
        walk(proc_root.subdir);
        for (auto *de : p.detached) walk(de);
    }
    // Left registered by a module that is going away: reading it would run code that is gone,
    // so the entry stays but without its handlers.
    for (auto &path : disabled)
        printk(KERN_ERR "%s: /proc/%s still registered at unload, handlers disabled\n", modname.c_str(),
               path.c_str());
}

int proc_read(const std::string &rel, std::string &out) {
    proc_dir_entry *de = get_entry(rel);
    if (!de) return -ENOENT;
    if (S_ISDIR(de->mode)) {
        put_entry(de);
        return -EISDIR;
    }
    struct module *owner = de->owner;
    if (owner && !try_module_get(owner)) {
        put_entry(de);
        return -ENXIO;
    }
    out.clear();
    loff_t pos = 0;
    long r = 0;
    for (;;) {
        r = proc_file_read(de, out, kReadChunk, &pos);
        if (r <= 0) break;
        if (out.size() >= kReadLimit) {
            printk(KERN_WARNING "read of /proc/%s stopped after %zu bytes\n", rel.c_str(), out.size());
            r = 0;
            break;
        }
    }
    if (owner) module_put(owner);
    put_entry(de);
    return r < 0 ? static_cast<int>(r) : 0;
}

long proc_write(const std::string &rel, std::string_view data) {
    proc_dir_entry *de = get_entry(rel);
    if (!de) return -ENOENT;
    long r;
    struct module *owner = de->owner;
    if (S_ISDIR(de->mode)) {
        r = -EISDIR;
    } else if (!de->write_proc) {
        r = -EIO;
    } else if (owner && !try_module_get(owner)) {
        r = -ENXIO;
        owner = nullptr;
    } else {
        // The handler gets the writer's bytes as they are: not terminated, exactly `count` long.
        char *buf = static_cast<char *>(std::malloc(data.size() ? data.size() : 1));
        std::memcpy(buf, data.data(), data.size());
        std::string path = "/proc/" + rel;
        struct file f {
            path.c_str(), O_WRONLY, 0
        };
        r = de->write_proc(&f, buf, data.size(), de->data);
        std::free(buf);
        if (owner) module_put(owner);
    }
    put_entry(de);
    return r;
}

int proc_list(const std::string &rel, std::vector<std::string> &out) {
    Proc &p = proc();
    std::lock_guard<std::mutex> g(p.m);
    proc_dir_entry *dir = lookup(rel);
    if (!dir) return -ENOENT;
    if (!S_ISDIR(dir->mode)) return -ENOTDIR;
    for (proc_dir_entry *de = dir->subdir; de; de = de->next)
        out.push_back(std::string(de->name, de->namelen) + (S_ISDIR(de->mode) ? "/" : ""));
    return 0;
}

bool proc_exists(const std::string &rel) {
    Proc &p = proc();
    std::lock_guard<std::mutex> g(p.m);
    return lookup(rel) != nullptr;
}

}  // namespace detail
}  // namespace marlix::kernel

using namespace marlix::kernel;

extern "C" {

struct proc_dir_entry *create_proc_entry(const char *name, mode_t mode, struct proc_dir_entry *parent) {
    return create(name, mode, parent, __builtin_return_address(0));
}

struct proc_dir_entry *proc_mkdir(const char *name, struct proc_dir_entry *parent) {
    return create(name, S_IFDIR | S_IRUGO | S_IXUGO, parent, __builtin_return_address(0));
}

struct proc_dir_entry *create_proc_read_entry(const char *name, mode_t mode, struct proc_dir_entry *base,
                                              read_proc_t *read_proc, void *data) {
    proc_dir_entry *res = create(name, mode, base, __builtin_return_address(0));
    if (res) {
        res->read_proc = read_proc;
        res->data = data;
    }
    return res;
}

void remove_proc_entry(const char *name, struct proc_dir_entry *parent) {
    Proc &p = proc();
    std::lock_guard<std::mutex> g(p.m);
    const char *fn;
    if (!name || !xlate(name, &parent, &fn)) return;
    size_t len = std::strlen(fn);
    for (proc_dir_entry **pp = &parent->subdir; *pp; pp = &(*pp)->next) {
        proc_dir_entry *de = *pp;
        if (!match(len, fn, de)) continue;
        *pp = de->next;
        de->next = nullptr;
        if (S_ISDIR(de->mode)) parent->nlink--;
        de->nlink = 0;
        if (de->subdir)
            printk(KERN_WARNING "remove_proc_entry: %s/%s still has entries; they are no longer reachable\n",
                   parent->name, de->name);
        if (atomic_read(&de->count))
            printk("remove_proc_entry: %s/%s busy, count=%d\n", parent->name, de->name,
                   atomic_read(&de->count));
        if (atomic_read(&de->count) == 0 && !de->subdir) {
            delete entry_of(de);
        } else {
            // Busy (a reader is inside a handler) or still holding entries: kept until the
            // last reader leaves, or until the next boot.
            de->deleted = 1;
            p.detached.push_back(de);
        }
        break;
    }
}

}  // extern "C"
