// The module loader: insmod/rmmod of .ko shared objects, the exported symbol table, module
// reference counts and the parameter files under /sys/module.
//
// A module registers its exported symbols, parameters and modinfo from constructors while
// dlopen() maps it, before the loader knows where its `__this_module` is; those registrations
// wait, keyed by the `struct module *` they name, until the loader claims them.
#include "internal.hpp"
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/stat.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <map>
#include <memory>
#include <sys/stat.h>

#ifndef MARLIX_DEFAULT_MODULE_DIR
#define MARLIX_DEFAULT_MODULE_DIR "."
#endif

namespace marlix::kernel {
namespace {

struct Range {
    uintptr_t lo, hi;
};

struct PendingSymbol {
    std::string name;
    const void *value;
    int gpl;
};

struct Pending {
    std::vector<PendingSymbol> symbols;
    std::vector<kernel_param *> params;
    std::vector<std::pair<std::string, std::string>> info;
};

enum class State { Coming, Live, Going };

struct Loaded {
    std::string name, path;
    void *handle = nullptr;
    struct module *mod = nullptr;
    std::atomic<int> refcount{0};
    std::atomic<State> state{State::Coming};
    std::vector<kernel_param *> params;
    std::vector<std::pair<std::string, std::string>> info;
    std::vector<Range> ranges;
    std::vector<std::string> users;  // guarded by the symbol lock
};

struct Symbol {
    std::string name;
    const void *value;
    Loaded *owner;  // null: the kernel itself
    int gpl;
};

struct Modules {
    std::recursive_mutex m;  // the module list; held across insmod/rmmod
    std::vector<std::unique_ptr<Loaded>> list;
    std::string module_path;  // from boot options

    std::mutex pending_m;
    std::map<struct module *, Pending> pending;
    std::vector<kernel_param *> builtin_params;

    std::mutex sym_m;
    std::vector<Symbol> symbols;

    std::mutex range_m;
    std::vector<std::pair<Range, Loaded *>> ranges;
};

Modules &mods() {
    static Modules *m = new Modules;
    return *m;
}

Loaded *loaded_of(const struct module *mod) {
    return mod ? static_cast<Loaded *>(mod->host) : nullptr;
}

std::string kernel_name(const std::string &file) {
    std::string base = file.substr(file.find_last_of('/') + 1);
    if (base.size() > 3 && base.compare(base.size() - 3, 3, ".ko") == 0) base.resize(base.size() - 3);
    for (auto &c : base)
        if (c == '-') c = '_';
    return base;
}

bool is_file(const std::string &p) {
    struct stat st {};
    return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

Loaded *find_locked(Modules &ms, const std::string &name) {
    std::string want = kernel_name(name);
    for (auto &l : ms.list)
        if (l->name == want) return l.get();
    return nullptr;
}

// Load segments of the object behind a dlopen() handle.
std::vector<Range> image_ranges(void *handle) {
    struct Query {
        uintptr_t base;
        std::vector<Range> ranges;
    } q{};
    link_map *lm = nullptr;
    if (dlinfo(handle, RTLD_DI_LINKMAP, &lm) != 0 || !lm) return {};
    q.base = lm->l_addr;
    dl_iterate_phdr(
        [](dl_phdr_info *info, size_t, void *data) {
            auto *q = static_cast<Query *>(data);
            if (info->dlpi_addr != q->base) return 0;
            for (int i = 0; i < info->dlpi_phnum; ++i) {
                const auto &ph = info->dlpi_phdr[i];
                if (ph.p_type == PT_LOAD)
                    q->ranges.push_back(
                        {info->dlpi_addr + ph.p_vaddr, info->dlpi_addr + ph.p_vaddr + ph.p_memsz});
            }
            return 1;
        },
        &q);
    return q.ranges;
}

bool in_ranges(const std::vector<Range> &rs, const void *p) {
    auto a = reinterpret_cast<uintptr_t>(p);
    for (auto &r : rs)
        if (a >= r.lo && a < r.hi) return true;
    return false;
}

bool same_param_name(const char *a, const std::string &b) {
    size_t i = 0;
    for (; a[i] && i < b.size(); ++i) {
        char x = a[i] == '-' ? '_' : a[i], y = b[i] == '-' ? '_' : b[i];
        if (x != y) return false;
    }
    return !a[i] && i == b.size();
}

// Sets the module's parameters from "name=value" words.
int parse_args(Loaded &l, const std::vector<std::string> &args) {
    for (const auto &word : args) {
        auto eq = word.find('=');
        std::string param = word.substr(0, eq);
        std::string value = eq == std::string::npos ? std::string() : word.substr(eq + 1);
        const char *val = eq == std::string::npos ? nullptr : value.c_str();
        kernel_param *kp = nullptr;
        for (auto *p : l.params)
            if (same_param_name(p->name, param)) kp = p;
        if (!kp) {
            printk(KERN_ERR "%s: Unknown parameter `%s'\n", l.name.c_str(), param.c_str());
            return -EINVAL;
        }
        int ret = kp->set(val, kp);
        if (ret == -ENOSPC) {
            printk(KERN_ERR "%s: `%s' too large for parameter `%s'\n", l.name.c_str(), val ? val : "",
                   param.c_str());
            return ret;
        }
        if (ret) {
            printk(KERN_ERR "%s: `%s' invalid for parameter `%s'\n", l.name.c_str(), val ? val : "",
                   param.c_str());
            return ret;
        }
    }
    return 0;
}

void remove_symbols(Modules &ms, Loaded *l) {
    std::lock_guard<std::mutex> g(ms.sym_m);
    std::erase_if(ms.symbols, [l](const Symbol &s) { return s.owner == l; });
    for (auto &other : ms.list) std::erase(other->users, l->name);
}

// Everything that must happen before a module's image is unmapped, for a module whose init
// failed as for one that is being removed.
void tear_down(Modules &ms, Loaded *l) {
    remove_symbols(ms, l);
    // Work queued by the module may still be running in the softirq or interrupt thread.
    detail::softirq_thread().sync();
    detail::irq_thread().sync();
    auto in_module = [l](const void *p) { return p && in_ranges(l->ranges, p); };
    detail::drop_stale_timers(in_module, l->name);
    detail::drop_stale_tasklets(in_module, l->name);
    detail::proc_neutralize(in_module, l->mod, l->name);
    for (auto *kp : l->params) detail::params_forget(kp);
    detail::slab_report_leaks(l->mod, l->name);
    {
        std::lock_guard<std::mutex> g(ms.range_m);
        std::erase_if(ms.ranges, [l](const auto &e) { return e.second == l; });
    }
    l->mod->host = nullptr;
    dlclose(l->handle);
    // A module that stays mapped would keep its old data at the next load.
    if (void *still = dlopen(l->path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD)) {
        dlclose(still);
        printk(KERN_WARNING "%s: image still mapped after unload\n", l->name.c_str());
    }
}

int do_rmmod(Modules &ms, Loaded *l, bool force) {
    State expected = State::Live;
    if (!l->state.compare_exchange_strong(expected, State::Going)) return -EBUSY;
    if (l->refcount.load() > 0 && !force) {
        l->state = State::Live;
        return -EBUSY;
    }
    if (!l->mod->exit && l->mod->init && !force) {
        // Without an exit routine a module cannot be taken out again.
        l->state = State::Live;
        return -EBUSY;
    }
    if (l->mod->exit) l->mod->exit();
    tear_down(ms, l);
    std::erase_if(ms.list, [l](const auto &p) { return p.get() == l; });
    return 0;
}

ModuleInfo info_of(Modules &ms, const Loaded &l) {
    ModuleInfo mi;
    mi.name = l.name;
    mi.path = l.path;
    mi.refcount = static_cast<unsigned int>(std::max(0, l.refcount.load()));
    {
        std::lock_guard<std::mutex> g(ms.sym_m);
        mi.users = l.users;
    }
    mi.info = l.info;
    return mi;
}

std::vector<std::string> split_path(const std::string &rel) {
    std::vector<std::string> parts;
    size_t pos = 0;
    while (pos <= rel.size()) {
        size_t slash = rel.find('/', pos);
        if (slash == std::string::npos) slash = rel.size();
        if (slash > pos) parts.push_back(rel.substr(pos, slash - pos));
        pos = slash + 1;
    }
    return parts;
}

kernel_param *find_param(Loaded *l, const std::string &name) {
    for (auto *kp : l->params)
        if (kp->perm && name == kp->name) return kp;
    return nullptr;
}

}  // namespace

// ---- Host controls ---------------------------------------------------------------------------------------

std::string module_path() {
    Modules &ms = mods();
    std::lock_guard<std::recursive_mutex> g(ms.m);
    if (!ms.module_path.empty()) return ms.module_path;
    if (const char *env = std::getenv("MARLIX_MODULE_PATH"); env && *env) return env;
    return MARLIX_DEFAULT_MODULE_DIR;
}

std::string resolve_module_file(const std::string &name_or_path) {
    if (name_or_path.empty()) return {};
    if (name_or_path.find('/') != std::string::npos)
        return is_file(name_or_path) ? name_or_path : std::string();
    std::string file = name_or_path;
    if (file.size() < 3 || file.compare(file.size() - 3, 3, ".ko") != 0) file += ".ko";
    std::string dashed = file;
    for (auto &c : dashed)
        if (c == '_') c = '-';
    std::string search = module_path();
    size_t pos = 0;
    while (pos <= search.size()) {
        size_t colon = search.find(':', pos);
        if (colon == std::string::npos) colon = search.size();
        std::string dir = search.substr(pos, colon - pos);
        pos = colon + 1;
        if (dir.empty()) continue;
        for (const std::string &f : {file, dashed})
            if (is_file(dir + "/" + f)) return dir + "/" + f;
    }
    return {};
}

int insmod(const std::string &file, const std::vector<std::string> &args) {
    if (!booted()) return -ENODEV;
    std::string path = resolve_module_file(file);
    if (path.empty()) return -ENOENT;
    Modules &ms = mods();
    std::lock_guard<std::recursive_mutex> g(ms.m);
    std::string name = kernel_name(path);
    if (find_locked(ms, name)) return -EEXIST;

    void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char *err = dlerror();
        printk(KERN_ERR "%s: cannot load module: %s\n", name.c_str(), err ? err : "unknown error");
        std::lock_guard<std::mutex> pg(ms.pending_m);
        ms.pending.clear();
        return -ENOEXEC;
    }
    auto *mod = static_cast<struct module *>(dlsym(handle, "__this_module"));
    Pending pending;
    {
        std::lock_guard<std::mutex> pg(ms.pending_m);
        if (mod) {
            auto it = ms.pending.find(mod);
            if (it != ms.pending.end()) pending = std::move(it->second);
        }
        ms.pending.clear();
    }
    if (!mod) {
        printk(KERN_ERR "%s: module has no __this_module\n", name.c_str());
        dlclose(handle);
        return -ENOEXEC;
    }

    auto owned = std::make_unique<Loaded>();
    Loaded *l = owned.get();
    l->name = name;
    l->path = path;
    l->handle = handle;
    l->mod = mod;
    l->params = std::move(pending.params);
    l->info = std::move(pending.info);
    l->ranges = image_ranges(handle);
    std::memset(mod->name, 0, sizeof mod->name);
    std::strncpy(mod->name, name.c_str(), MODULE_NAME_LEN - 1);

    {
        std::lock_guard<std::mutex> sg(ms.sym_m);
        for (size_t i = 0; i < pending.symbols.size(); ++i) {
            const auto &ps = pending.symbols[i];
            const char *owner = nullptr;
            for (auto &s : ms.symbols)
                if (s.name == ps.name) owner = s.owner ? s.owner->name.c_str() : "kernel";
            for (size_t j = 0; j < i && !owner; ++j)
                if (pending.symbols[j].name == ps.name) owner = name.c_str();
            if (owner) {
                printk(KERN_ERR "%s: exports duplicate symbol %s (owned by %s)\n", name.c_str(),
                       ps.name.c_str(), owner);
                std::erase_if(ms.symbols, [l](const Symbol &s) { return s.owner == l; });
                dlclose(handle);
                return -ENOEXEC;
            }
            ms.symbols.push_back({ps.name, ps.value, l, ps.gpl});
        }
    }
    {
        std::lock_guard<std::mutex> rg(ms.range_m);
        for (auto &r : l->ranges) ms.ranges.push_back({r, l});
    }
    mod->host = l;
    ms.list.push_back(std::move(owned));

    int ret = parse_args(*l, args);
    if (ret == 0 && mod->init) ret = mod->init();
    if (ret < 0) {
        l->state = State::Going;
        tear_down(ms, l);
        std::erase_if(ms.list, [l](const auto &p) { return p.get() == l; });
        return ret;
    }
    l->state = State::Live;
    return 0;
}

int rmmod(const std::string &name) {
    Modules &ms = mods();
    std::lock_guard<std::recursive_mutex> g(ms.m);
    Loaded *l = find_locked(ms, name);
    if (!l) return -ENOENT;
    return do_rmmod(ms, l, false);
}

std::vector<ModuleInfo> modules() {
    Modules &ms = mods();
    std::lock_guard<std::recursive_mutex> g(ms.m);
    std::vector<ModuleInfo> out;
    for (auto &l : ms.list) out.push_back(info_of(ms, *l));
    return out;
}

std::optional<ModuleInfo> find_module(const std::string &name) {
    Modules &ms = mods();
    std::lock_guard<std::recursive_mutex> g(ms.m);
    if (Loaded *l = find_locked(ms, name)) return info_of(ms, *l);
    return std::nullopt;
}

std::vector<ExportedSymbol> exported_symbols() {
    Modules &ms = mods();
    std::lock_guard<std::mutex> g(ms.sym_m);
    std::vector<ExportedSymbol> out;
    for (auto &s : ms.symbols) out.push_back({s.name, s.value, s.owner ? s.owner->name : std::string()});
    return out;
}

const void *lookup_symbol(const std::string &name) {
    Modules &ms = mods();
    std::lock_guard<std::mutex> g(ms.sym_m);
    for (auto &s : ms.symbols)
        if (s.name == name) return s.value;
    return nullptr;
}

namespace detail {

void modules_boot() {
    Modules &ms = mods();
    std::lock_guard<std::recursive_mutex> g(ms.m);
    ms.module_path.clear();
}

void set_module_path(const std::string &path) {
    Modules &ms = mods();
    std::lock_guard<std::recursive_mutex> g(ms.m);
    ms.module_path = path;
}

bool modules_loaded() {
    Modules &ms = mods();
    std::lock_guard<std::recursive_mutex> g(ms.m);
    return !ms.list.empty();
}

bool modules_unload_all(bool force) {
    Modules &ms = mods();
    std::lock_guard<std::recursive_mutex> g(ms.m);
    if (!force) return ms.list.empty();
    while (!ms.list.empty()) {
        Loaded *l = ms.list.back().get();
        l->state = State::Live;  // a forced removal ignores users and references
        do_rmmod(ms, l, true);
    }
    return true;
}

struct module *module_for_address(const void *addr) {
    Modules &ms = mods();
    std::lock_guard<std::mutex> g(ms.range_m);
    auto a = reinterpret_cast<uintptr_t>(addr);
    for (auto &[r, l] : ms.ranges)
        if (a >= r.lo && a < r.hi) return l->mod;
    return nullptr;
}

// Paths below /sys/module: "<module>", "<module>/refcnt", "<module>/parameters/<name>".
int sysfs_read(const std::string &rel, std::string &out) {
    Modules &ms = mods();
    std::lock_guard<std::recursive_mutex> g(ms.m);
    auto parts = split_path(rel);
    Loaded *l = parts.empty() ? nullptr : find_locked(ms, parts[0]);
    if (!l || parts[0] != l->name) return -ENOENT;
    if (parts.size() == 2 && parts[1] == "refcnt") {
        char buf[32];
        snprintf(buf, sizeof buf, "%d\n", l->refcount.load());
        out = buf;
        return 0;
    }
    if (parts.size() == 1 || (parts.size() == 2 && parts[1] == "parameters")) return -EISDIR;
    if (parts.size() != 3 || parts[1] != "parameters") return -ENOENT;
    kernel_param *kp = find_param(l, parts[2]);
    if (!kp) return -ENOENT;
    if (!(kp->perm & S_IRUGO)) return -EACCES;
    std::vector<char> buf(4096 + 2, 0);
    int count = kp->get(buf.data(), kp);
    if (count < 0) return count;
    out.assign(buf.data(), std::min(count, 4096));
    out += '\n';
    return 0;
}

long sysfs_write(const std::string &rel, std::string_view data) {
    Modules &ms = mods();
    std::lock_guard<std::recursive_mutex> g(ms.m);
    auto parts = split_path(rel);
    Loaded *l = parts.empty() ? nullptr : find_locked(ms, parts[0]);
    if (!l || parts[0] != l->name) return -ENOENT;
    if (parts.size() == 2 && parts[1] == "refcnt") return -EACCES;
    if (parts.size() != 3 || parts[1] != "parameters") return parts.size() < 3 ? -EISDIR : -ENOENT;
    kernel_param *kp = find_param(l, parts[2]);
    if (!kp) return -ENOENT;
    // Files without write permission are refused even though the emulated operator is root.
    if (!(kp->perm & S_IWUGO)) return -EACCES;
    if (data.size() >= 4096) return -ENOSPC;
    std::string text(data);  // sysfs hands the handler a terminated copy
    int err = kp->set(text.c_str(), kp);
    return err ? err : static_cast<long>(data.size());
}

int sysfs_list(const std::string &rel, std::vector<std::string> &out) {
    Modules &ms = mods();
    std::lock_guard<std::recursive_mutex> g(ms.m);
    auto parts = split_path(rel);
    if (parts.empty()) {
        for (auto &l : ms.list) out.push_back(l->name + "/");
        return 0;
    }
    Loaded *l = find_locked(ms, parts[0]);
    if (!l || parts[0] != l->name) return -ENOENT;
    if (parts.size() == 1) {
        out.push_back("parameters/");
        out.push_back("refcnt");
        return 0;
    }
    if (parts.size() == 2 && parts[1] == "parameters") {
        for (auto *kp : l->params)
            if (kp->perm) out.push_back(kp->name);
        return 0;
    }
    if (parts.size() == 2 && parts[1] == "refcnt") return -ENOTDIR;
    if (parts.size() == 3 && parts[1] == "parameters" && find_param(l, parts[2])) return -ENOTDIR;
    return -ENOENT;
}

bool sysfs_exists(const std::string &rel) {
    std::vector<std::string> ignored;
    int r = sysfs_list(rel, ignored);
    return r == 0 || r == -ENOTDIR;
}

}  // namespace detail
}  // namespace marlix::kernel

using namespace marlix::kernel;

extern "C" {

void __marlix_export_symbol(struct module *owner, const char *name, const void *value, int gpl_only) {
    Modules &ms = mods();
    if (owner) {
        std::lock_guard<std::mutex> g(ms.pending_m);
        ms.pending[owner].symbols.push_back({name, value, gpl_only});
        return;
    }
    // Exported by the kernel itself (a host library): part of the table from now on.
    std::lock_guard<std::mutex> g(ms.sym_m);
    for (auto &s : ms.symbols)
        if (s.name == name) {
            if (s.value != value) printk(KERN_ERR "kernel: duplicate export of %s ignored\n", name);
            return;
        }
    ms.symbols.push_back({name, value, nullptr, gpl_only});
}

void __marlix_modinfo(struct module *owner, const char *tag, const char *value) {
    if (!owner) return;
    Modules &ms = mods();
    std::lock_guard<std::mutex> g(ms.pending_m);
    ms.pending[owner].info.emplace_back(tag, value);
}

void __marlix_register_param(struct module *owner, struct kernel_param *kp) {
    Modules &ms = mods();
    std::lock_guard<std::mutex> g(ms.pending_m);
    if (owner)
        ms.pending[owner].params.push_back(kp);
    else
        ms.builtin_params.push_back(kp);
}

void __marlix_param_desc(struct module *owner, const char *name, const char *desc) {
    if (!owner) return;
    Modules &ms = mods();
    std::lock_guard<std::mutex> g(ms.pending_m);
    ms.pending[owner].info.emplace_back("parm", std::string(name) + ":" + desc);
}

int try_module_get(struct module *module) {
    Loaded *l = loaded_of(module);
    if (!l) return 1;  // built into the kernel, or not loaded through insmod
    if (l->state.load() == State::Going) return 0;
    l->refcount.fetch_add(1);
    if (l->state.load() == State::Going) {
        // Lost the race with rmmod, which saw no references and is unloading.
        l->refcount.fetch_sub(1);
        return 0;
    }
    return 1;
}

void __module_get(struct module *module) {
    if (Loaded *l = loaded_of(module)) l->refcount.fetch_add(1);
}

void module_put(struct module *module) {
    Loaded *l = loaded_of(module);
    if (!l) return;
    int cur = l->refcount.load();
    while (cur > 0 && !l->refcount.compare_exchange_weak(cur, cur - 1)) {
    }
    if (cur <= 0) printk(KERN_ERR "module_put: %s reference count already 0\n", l->name.c_str());
}

unsigned int module_refcount(struct module *mod) {
    Loaded *l = loaded_of(mod);
    return l ? static_cast<unsigned int>(std::max(0, l->refcount.load())) : 0;
}

void *__symbol_get(const char *symbol) {
    Modules &ms = mods();
    struct module *caller = detail::module_for_address(__builtin_return_address(0));
    Loaded *owner = nullptr;
    const void *value = nullptr;
    {
        std::lock_guard<std::mutex> g(ms.sym_m);
        for (auto &s : ms.symbols)
            if (s.name == symbol) {
                owner = s.owner;
                value = s.value;
                break;
            }
    }
    if (!value) return nullptr;
    if (owner && !try_module_get(owner->mod)) return nullptr;
    if (owner && caller && loaded_of(caller) && loaded_of(caller) != owner) {
        std::lock_guard<std::mutex> g(ms.sym_m);
        const std::string &user = loaded_of(caller)->name;
        if (std::find(owner->users.begin(), owner->users.end(), user) == owner->users.end())
            owner->users.push_back(user);
    }
    return const_cast<void *>(value);
}

void __symbol_put(const char *symbol) {
    Modules &ms = mods();
    Loaded *owner = nullptr;
    {
        std::lock_guard<std::mutex> g(ms.sym_m);
        for (auto &s : ms.symbols)
            if (s.name == symbol) owner = s.owner;
    }
    if (owner) module_put(owner->mod);
}

}  // extern "C"
