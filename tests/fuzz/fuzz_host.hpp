// The machine a fuzz target runs on: the emulated kernel (virtual clock), the host stack and the
// software HCA with two devices (adaptor_host.hpp), booted once per process, with the module loaded
// once through insmod as an operator would (never unloaded: libFuzzer keeps reading the coverage
// counters of every instrumented object it has seen). Only the module's proc files, its provider
// table and its exported symbols are used.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "adaptor_host.hpp"
#include "marlix/kernel.hpp"
#include "marlix/softhca.hpp"
#include "marlix/stack.hpp"
#include "ulp_verbs.h"

namespace fuzz_host {

namespace k = marlix::kernel;
namespace st = marlix::stack;
namespace hca = marlix::softhca;

using adaptor_host::kControl;
using adaptor_host::kLink;
using adaptor_host::module_allocations;

// A finding: print what was wrong and abort, so that libFuzzer saves the input.
[[noreturn]] inline void finding(const std::string &what) {
    std::fprintf(stderr, "FINDING: %s\n", what.c_str());
    for (const auto &line : k::log_lines()) std::fprintf(stderr, "  log: %s\n", line.text.c_str());
    std::abort();
}

// Boots the machine, loads the module and returns its provider table. The stepped engine runs the
// devices only when the harness steps them, so that every run of an input sees the same packets,
// completions and events.
inline const ulp_funcs_t *start(hca::EngineKind engine = hca::EngineKind::Threaded) {
    adaptor_host::boot(2, engine);
    int rc = adaptor_host::load_module();
    if (rc != 0) finding("insmod adaptor-mlx failed: " + std::to_string(rc));
    const ulp_funcs_t *funcs = adaptor_host::provider();
    if (!funcs) finding("provider mlx not registered");
    return funcs;
}

// The kernel reported no leak, no lock misuse and no sleeping call in atomic context.
inline void check_kernel_reports() {
    for (const auto &line : k::log_lines())
        // The kernel's own reports start their line; the module only echoes words after a prefix.
        if (line.text.rfind("kmemleak", 0) == 0 || line.text.rfind("BUG:", 0) == 0)
            finding("kernel report at unload: " + line.text);
    if (k::spinlock_bug_count() != 0) finding("spinlock misuse reported");
    if (k::sleeping_in_atomic_count() != 0) finding("sleeping call in atomic context reported");
}

// Sets the adaptor's and the stack's trace levels (0..5).
inline void set_trace_level(int level) {
    st::set_logger_level(level);
    adaptor_host::set_debug_level(level);
}

inline void write_control(std::string_view text) {
    long n = k::write_file(kControl, text);
    if (n != static_cast<long>(text.size()))
        finding("control write of " + std::to_string(text.size()) + " bytes returned " + std::to_string(n));
}

inline void read_file(const char *path) {
    std::string out;
    int rc = k::read_file(path, out);
    if (rc < 0) finding(std::string("read of ") + path + " failed: " + std::to_string(rc));
}

// Reads up to n bytes of the input as a little-endian value (missing bytes are zero); advances.
inline uint64_t take(const uint8_t *&p, const uint8_t *end, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n && p < end; i++) v |= static_cast<uint64_t>(*p++) << (8 * i);
    return v;
}

// The end of every input: the kernel reported nothing, and the module holds exactly the
// allocations it held before the input (`baseline`).
inline void check_after_input(size_t baseline) {
    check_kernel_reports();
    auto left = module_allocations();
    if (left.size() != baseline)
        finding("module holds " + std::to_string(left.size()) + " allocations instead of " +
                std::to_string(baseline) +
                (left.empty() ? std::string()
                              : ", the last from " + left.back().func + " (" + left.back().file + ":" +
                                    std::to_string(left.back().line) + ")"));
    k::log_clear();
}

// Splits `data` at every `separator` byte.
inline std::vector<std::string_view> split(std::string_view data, char separator) {
    std::vector<std::string_view> out;
    size_t start = 0;
    for (size_t i = 0; i <= data.size(); i++) {
        if (i == data.size() || data[i] == separator) {
            out.push_back(data.substr(start, i - start));
            start = i + 1;
        }
    }
    return out;
}

}  // namespace fuzz_host
