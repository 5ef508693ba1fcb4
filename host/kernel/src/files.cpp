// The operator's view of the pseudo file systems: /proc and /sys/module.
#include "internal.hpp"
#include <linux/errno.h>

namespace marlix::kernel {
namespace {

enum class Fs { None, Root, Sys, Proc, SysModule };

// Splits an absolute path into its file system and the path inside it (no slashes at the ends).
Fs classify(const std::string &path, std::string &rel) {
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    auto under = [&](const std::string &prefix) {
        if (p == prefix) {
            rel.clear();
            return true;
        }
        if (p.compare(0, prefix.size() + 1, prefix + "/") == 0) {
            rel = p.substr(prefix.size() + 1);
            return true;
        }
        return false;
    };
    if (p == "/") return Fs::Root;
    if (under("/proc")) return Fs::Proc;
    if (under("/sys/module")) return Fs::SysModule;
    if (p == "/sys") return Fs::Sys;
    return Fs::None;
}

}  // namespace

int read_file(const std::string &path, std::string &out) {
    std::string rel;
    switch (classify(path, rel)) {
        case Fs::Proc:
            return detail::proc_read(rel, out);
        case Fs::SysModule:
            return detail::sysfs_read(rel, out);
        case Fs::Root:
        case Fs::Sys:
            return -EISDIR;
        default:
            return -ENOENT;
    }
}

long write_file(const std::string &path, std::string_view data) {
    std::string rel;
    switch (classify(path, rel)) {
        case Fs::Proc:
            return detail::proc_write(rel, data);
        case Fs::SysModule:
            return detail::sysfs_write(rel, data);
        case Fs::Root:
        case Fs::Sys:
            return -EISDIR;
        default:
            return -ENOENT;
    }
}

int list_dir(const std::string &path, std::vector<std::string> &out) {
    std::string rel;
    out.clear();
    switch (classify(path, rel)) {
        case Fs::Root:
            out = {"proc/", "sys/"};
            return 0;
        case Fs::Sys:
            out = {"module/"};
            return 0;
        case Fs::Proc:
            return detail::proc_list(rel, out);
        case Fs::SysModule:
            return detail::sysfs_list(rel, out);
        default:
            return -ENOENT;
    }
}

bool file_exists(const std::string &path) {
    std::string rel;
    switch (classify(path, rel)) {
        case Fs::Root:
        case Fs::Sys:
            return true;
        case Fs::Proc:
            return detail::proc_exists(rel);
        case Fs::SysModule:
            return detail::sysfs_exists(rel);
        default:
            return false;
    }
}

}  // namespace marlix::kernel
