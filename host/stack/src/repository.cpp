// The configuration repository: a tree of keys holding named long or string values, with
// change notification.
//
// One recursive lock guards the whole tree. Callbacks run under it, in the changer's thread, so
// that once rep_notify_del returns its callback is never called again; being recursive, it lets
// a callback read the repository or cancel registrations. Handles are checked against the sets
// of live keys and notifiers, so a stale or foreign handle gets -EINVAL instead of a crash.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "internal.hpp"

// Kernel-side headers last: their macros (__init, sprintf) must not reach the C++ library.
#include "ox-repository.h"

struct rep_key_st {
    std::string name;
    rep_key_st *parent = nullptr;
    std::map<std::string, std::unique_ptr<rep_key_st>, std::less<>> children;
    struct Value {
        rep_value_type_t type;
        long number;
        std::string text;
    };
    std::map<std::string, Value, std::less<>> values;
};

struct rep_notifier_st {
    rep_key_st *key;
    rep_notify_cb_t cb;
    void *context;
};

namespace {

std::recursive_mutex g_lock;
std::unique_ptr<rep_key_st> g_root;
std::set<const rep_key_st *> g_live_keys;
std::vector<std::unique_ptr<rep_notifier_st>> g_notifiers;  // in registration order

rep_key_st *root_locked() {
    if (!g_root) {
        g_root = std::make_unique<rep_key_st>();
        g_live_keys.insert(g_root.get());
    }
    return g_root.get();
}

// A null parent stands for the root.
rep_key_st *resolve_parent(rep_key_h_t parent) {
    if (!parent) return root_locked();
    return g_live_keys.count(parent) ? parent : nullptr;
}

std::vector<std::string_view> split_path(std::string_view path) {
    std::vector<std::string_view> parts;
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t slash = path.find('/', pos);
        if (slash == std::string_view::npos) slash = path.size();
        if (slash > pos) parts.push_back(path.substr(pos, slash - pos));
        pos = slash + 1;
    }
    return parts;
}

// Walks `path` below `key`; creates missing keys when `create`. Null when a key is missing.
rep_key_st *walk(rep_key_st *key, std::string_view path, bool create) {
    for (std::string_view part : split_path(path)) {
        auto it = key->children.find(part);
        if (it == key->children.end()) {
            if (!create) return nullptr;
            auto child = std::make_unique<rep_key_st>();
            child->name = std::string(part);
            child->parent = key;
            g_live_keys.insert(child.get());
            it = key->children.emplace(std::string(part), std::move(child)).first;
        }
        key = it->second.get();
    }
    return key;
}

// A value name may carry a key path in front of it ("sub/key/name").
bool split_value_name(const char *value_name, std::string_view &path, std::string_view &name) {
    if (!value_name) return false;
    std::string_view full(value_name);
    size_t slash = full.rfind('/');
    if (slash == std::string_view::npos) {
        path = {};
        name = full;
    } else {
        path = full.substr(0, slash);
        name = full.substr(slash + 1);
    }
    return !name.empty();
}

void notify_locked(rep_key_st *key, const std::string &name, const rep_key_st::Value &value) {
    // Snapshot: a callback may register or cancel notifiers.
    std::vector<rep_notifier_st *> targets;
    for (auto &n : g_notifiers)
        if (n->key == key) targets.push_back(n.get());
    for (rep_notifier_st *n : targets) {
        bool still_registered = false;
        for (auto &live : g_notifiers) still_registered |= live.get() == n;
        if (!still_registered) continue;
        if (value.type == rep_value_long) {
            long copy = value.number;
            n->cb(n->context, name.c_str(), rep_value_long, &copy, static_cast<int>(sizeof copy));
        } else {
            std::string copy = value.text;
            n->cb(n->context, name.c_str(), rep_value_string, copy.c_str(),
                  static_cast<int>(copy.size() + 1));
        }
    }
}

}  // namespace

namespace marlix::stack::detail {

void repository_reset() {
    std::lock_guard guard(g_lock);
    g_notifiers.clear();
    g_live_keys.clear();
    g_root.reset();
}

}  // namespace marlix::stack::detail

extern "C" {

int rep_get_root(rep_key_h_t *root_p) {
    if (!root_p) return -EINVAL;
    std::lock_guard guard(g_lock);
    *root_p = root_locked();
    return 0;
}

int rep_open_key(rep_key_h_t parent, const char *path, rep_key_h_t *key_p) {
    if (!path || !key_p) return -EINVAL;
    std::lock_guard guard(g_lock);
    rep_key_st *base = resolve_parent(parent);
    if (!base) return -EINVAL;
    rep_key_st *key = walk(base, path, false);
    if (!key) return -ENOENT;
    *key_p = key;
    return 0;
}

int rep_create_key(rep_key_h_t parent, const char *path, rep_key_h_t *key_p) {
    if (!path) return -EINVAL;
    std::lock_guard guard(g_lock);
    rep_key_st *base = resolve_parent(parent);
    if (!base) return -EINVAL;
    rep_key_st *key = walk(base, path, true);
    if (key_p) *key_p = key;
    return 0;
}

// Keys live as long as the repository does; closing only checks the handle.
int rep_close_key(rep_key_h_t key) {
    std::lock_guard guard(g_lock);
    return key && g_live_keys.count(key) ? 0 : -EINVAL;
}

int rep_get_value(rep_key_h_t key, const char *value_name, void *buf, int len, rep_value_type_t *type_p) {
    std::string_view path, name;
    if (!buf || len <= 0 || !split_value_name(value_name, path, name)) return -EINVAL;
    std::lock_guard guard(g_lock);
    rep_key_st *base = resolve_parent(key);
    if (!base) return -EINVAL;
    rep_key_st *holder = walk(base, path, false);
    if (!holder) return -ENOENT;
    auto it = holder->values.find(name);
    if (it == holder->values.end()) return -ENOENT;
    const rep_key_st::Value &value = it->second;
    if (value.type == rep_value_long) {
        if (len < static_cast<int>(sizeof(long))) return -EINVAL;
        std::memcpy(buf, &value.number, sizeof(long));
    } else {
        // Truncated to fit, always terminated.
        size_t n = std::min(value.text.size(), static_cast<size_t>(len) - 1);
        std::memcpy(buf, value.text.data(), n);
        static_cast<char *>(buf)[n] = '\0';
    }
    if (type_p) *type_p = value.type;
    return 0;
}

// A string value is read up to its terminating null, within `len` bytes (len < 0: no bound).
int rep_set_value(rep_key_h_t key, const char *value_name, rep_value_type_t type, const void *value,
                  int len) {
    std::string_view path, name;
    if (!value || !split_value_name(value_name, path, name)) return -EINVAL;
    rep_key_st::Value v{type, 0, {}};
    if (type == rep_value_long) {
        if (len < static_cast<int>(sizeof(long))) return -EINVAL;
        std::memcpy(&v.number, value, sizeof(long));
    } else if (type == rep_value_string) {
        const char *s = static_cast<const char *>(value);
        size_t n = len < 0 ? std::strlen(s) : strnlen(s, static_cast<size_t>(len));
        v.text.assign(s, n);
    } else {
        return -EINVAL;
    }
    std::lock_guard guard(g_lock);
    rep_key_st *base = resolve_parent(key);
    if (!base) return -EINVAL;
    rep_key_st *holder = walk(base, path, true);
    std::string value_key(name);
    holder->values[value_key] = v;
    notify_locked(holder, value_key, v);
    return 0;
}

int rep_notify_key_change(rep_key_h_t key, rep_notify_cb_t cb, void *context, rep_notifier_t *notifier_p) {
    if (!cb) return -EINVAL;
    std::lock_guard guard(g_lock);
    rep_key_st *target = resolve_parent(key);
    if (!target) return -EINVAL;
    g_notifiers.push_back(std::make_unique<rep_notifier_st>(rep_notifier_st{target, cb, context}));
    if (notifier_p) *notifier_p = g_notifiers.back().get();
    return 0;
}

int rep_notify_del(rep_notifier_t notifier) {
    if (!notifier) return 0;
    std::lock_guard guard(g_lock);
    for (auto it = g_notifiers.begin(); it != g_notifiers.end(); ++it) {
        if (it->get() == notifier) {
            g_notifiers.erase(it);
            return 0;
        }
    }
    return -EINVAL;
}

}  // extern "C"
