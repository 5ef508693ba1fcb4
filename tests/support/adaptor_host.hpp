// The machine the adaptor module runs on in its test suites and fuzz targets, brought up the one
// way they all need: the emulated kernel on its virtual clock (time moves only when the harness
// moves it), the host stack, and the software HCA with its devices; then the module loaded through
// insmod as an operator loads it, and its provider table found through the stack's verbs core as
// an upper layer finds it. What each harness does with a failure (a test assertion, a fuzz
// finding) stays with the harness.
#pragma once

#include <string>
#include <vector>

#include "marlix/kernel.hpp"
#include "marlix/softhca.hpp"
#include "marlix/stack.hpp"
#include "ulp_verbs.h"

namespace adaptor_host {

inline constexpr const char *kModuleFile = "adaptor-mlx";  // what insmod loads
inline constexpr const char *kProvider = "mlx";
inline constexpr const char *kControl = "/proc/marlix/adaptor-mlx/control";
inline constexpr const char *kLink = "/proc/marlix/adaptor-mlx/link";
inline constexpr const char *kVersion = "/proc/marlix/adaptor-mlx/version";

// Boots the kernel, the stack and `devices` devices ("InfiniHost0", ...) run by `engine`.
inline void boot(int devices = 2,
                 marlix::softhca::EngineKind engine = marlix::softhca::EngineKind::Threaded) {
    marlix::kernel::BootOptions options;
    options.clock = marlix::kernel::ClockMode::Virtual;
    marlix::kernel::boot(options);
    marlix::stack::boot();
    marlix::softhca::Options hca_options;
    hca_options.device_count = devices;
    hca_options.engine = engine;
    marlix::softhca::boot(hca_options);
}

// Disarms every fault a harness armed and halts the three again (the kernel by force: a module
// still loaded is dropped).
inline void halt() {
    marlix::kernel::clear_alloc_faults();
    marlix::kernel::clear_proc_faults();
    marlix::softhca::clear_faults();
    marlix::kernel::halt(true);
    marlix::stack::halt();
    marlix::softhca::halt();
}

// insmod of the module with its parameters ("hca_ix=1"); the kernel's status.
inline int load_module(const std::vector<std::string> &args = {}) {
    return marlix::kernel::insmod(kModuleFile, args);
}

// The provider table the module registered, or null.
inline const ulp_funcs_t *provider() {
    return ulp_find_provider(kProvider);
}

// The adaptor's trace level, through the stack's repository as an operator sets it; 0 or the
// repository's status.
inline int set_debug_level(long level) {
    return marlix::stack::set_long(marlix::stack::kAdaptorKey, "debug-level", level);
}

// Allocations still live that the module's own sources made.
inline std::vector<marlix::kernel::Allocation> module_allocations() {
    std::vector<marlix::kernel::Allocation> out;
    for (const auto &a : marlix::kernel::live_allocations(nullptr, true))
        if (a.file.find("adaptor-tavor") != std::string::npos) out.push_back(a);
    return out;
}

}  // namespace adaptor_host
