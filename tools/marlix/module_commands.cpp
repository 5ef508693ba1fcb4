// insmod, rmmod and lsmod, with kmod's messages.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "console.hpp"
#include "marlix/kernel.hpp"

namespace marlix::console {
namespace {

// kmod's wording for the errors whose strerror text would mislead.
const char *insert_strerror(int error) {
    switch (error) {
        case ENOEXEC:
            return "Invalid module format";
        case ENOENT:
            return "Unknown symbol in module, or unknown parameter (see dmesg)";
        default:
            return std::strerror(error);
    }
}

bool is_path(const std::string &name) {
    return name.find('/') != std::string::npos ||
           (name.size() > 3 && name.compare(name.size() - 3, 3, ".ko") == 0);
}

// "dir/adaptor-mlx.ko" or "adaptor-mlx" -> "adaptor_mlx", as the kernel names modules.
std::string kernel_name(const std::string &arg) {
    std::string name = std::filesystem::path(arg).filename().string();
    if (name.size() > 3 && name.compare(name.size() - 3, 3, ".ko") == 0) name.resize(name.size() - 3);
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

int cmd_insmod(Console &c, const std::vector<std::string> &args) {
    if (args.size() < 2) return c.usage();
    const std::string &name = args[1];
    std::string file = kernel::resolve_module_file(name);
    if (file.empty()) {
        c.err() << "insmod: ERROR: could not load module " << name << ": No such file or directory\n";
        return 1;
    }
    std::vector<std::string> params(args.begin() + 2, args.end());
    int rc = kernel::insmod(file, params);
    if (rc < 0) {
        std::string shown = is_path(name) ? name : name + ".ko";
        c.err() << "insmod: ERROR: could not insert module " << shown << ": " << insert_strerror(-rc) << "\n";
        return 1;
    }
    return 0;
}

int cmd_rmmod(Console &c, const std::vector<std::string> &args) {
    if (args.size() != 2) return c.usage();
    std::string name = kernel_name(args[1]);
    auto info = kernel::find_module(name);
    if (!info) {
        c.err() << "rmmod: ERROR: Module " << name << " is not currently loaded\n";
        return 1;
    }
    if (!info->users.empty()) {
        c.err() << "rmmod: ERROR: Module " << name << " is in use by:";
        for (const std::string &user : info->users) c.err() << " " << user;
        c.err() << "\n";
        return 1;
    }
    int rc = kernel::rmmod(name);
    if (rc == -ENOENT) {
        c.err() << "rmmod: ERROR: Module " << name << " is not currently loaded\n";
        return 1;
    }
    if (rc == -EBUSY) {
        c.err() << "rmmod: ERROR: Module " << name << " is in use\n";
        return 1;
    }
    if (rc < 0) {
        c.err() << "rmmod: ERROR: could not remove module " << args[1] << ": " << std::strerror(-rc) << "\n";
        return 1;
    }
    return 0;
}

int cmd_lsmod(Console &c, const std::vector<std::string> &args) {
    if (args.size() != 1) return c.usage();
    c.out() << "Module                  Size  Used by\n";
    std::vector<kernel::ModuleInfo> modules = kernel::modules();
    // Newest first, as /proc/modules lists them.
    for (auto it = modules.rbegin(); it != modules.rend(); ++it) {
        std::error_code ec;
        auto size = std::filesystem::file_size(it->path, ec);
        if (ec) size = 0;
        char row[128];
        std::snprintf(row, sizeof row, "%-19s %8lu  %u", it->name.c_str(), static_cast<unsigned long>(size),
                      it->refcount);
        c.out() << row;
        for (size_t i = 0; i < it->users.size(); ++i) c.out() << (i == 0 ? " " : ",") << it->users[i];
        c.out() << "\n";
    }
    return 0;
}

MARLIX_CONSOLE_COMMAND(insmod, "insmod", "insmod NAME [param=value ...]",
                       "Load a module (a path to a .ko, or a name looked up on the module path).", cmd_insmod)
MARLIX_CONSOLE_COMMAND(rmmod, "rmmod", "rmmod NAME", "Unload a module.", cmd_rmmod)
MARLIX_CONSOLE_COMMAND(lsmod, "lsmod", "lsmod", "List the loaded modules.", cmd_lsmod)

}  // namespace
}  // namespace marlix::console
