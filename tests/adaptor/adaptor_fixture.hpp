// Shared fixture of the adaptor suites: a booted kernel (virtual clock), stack and software HCA
// with two devices (adaptor_host.hpp), and helpers to load the module, drive its proc files and
// read the log.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "adaptor_host.hpp"
#include "marlix/kernel.hpp"
#include "marlix/softhca.hpp"
#include "marlix/stack.hpp"
#include "module_layout.hpp"
#include "ulp_verbs.h"

namespace adaptor_test {

namespace k = marlix::kernel;
namespace st = marlix::stack;
namespace hca = marlix::softhca;

using adaptor_host::kControl;
using adaptor_host::kLink;
using adaptor_host::kVersion;

// "<level name> : AD_TAVOR : <func>:(<label>):<message>" as a filtered log line reads.
inline std::string ad_line(const char *level, const std::string &func, const std::string &message,
                           const char *label = "adaptor_tavor") {
    return std::string(level) + " : AD_TAVOR : " + func + ":(" + label + "):" + message;
}
inline std::string ad_error(const std::string &func, const std::string &message,
                            const char *label = "adaptor_tavor") {
    return ad_line("ERROR  ", func, message, label);
}
inline std::string ad_debug(const std::string &func, const std::string &message,
                            const char *label = "adaptor_tavor") {
    return ad_line("DEBUG  ", func, message, label);
}
inline std::string proc_debug(const std::string &func, const std::string &message) {
    return ad_debug(func, message, "tavor_proc");
}

// The usage text the control file prints, one entry per line.
inline std::vector<std::string> usage_lines() {
    return {
        "usage:",
        "show_c       - show compilation flags",
        "show_reg_mem - show registration memory data",
        "show_err     - show last adaptor reported VAPI errors",
        "show_mem     - show adaptor memory allocations",
        "comstop      - stop calling the completion events on timer",
        "comstart     - start/restart calling completion events [number for comsett]",
        "comsett      - set the time intervals in jiffise",
        "comshow      - show: time intervals, work mode, registered cq's",
        "commode      - change work mode [1/2], 1: call all cq, 2: call only registered cq",
        "comaddcq     - add cq to the list [0xUSER cq h pointer] or [MLX cq h]",
        "comremcq     - remove cq from the list [0xUSER cq h pointer] or [MLX cq h]",
        "event_ctrl   - ctrl event generation 1- no events, 0- events, 11- no events+comstart, 10- "
        "events+comstop",
        "event_show   - show event generation data",
        "pollcq       - poll CQ - [0xUSER cq h] or [MLX cq h] or [CQ index 1,2,3... as in the proc prints] "
        "or [0] - "
        "will poll all CQ",
    };
}

class AdaptorFixture : public ::testing::Test {
  protected:
    void SetUp() override { boot_all(2); }

    void TearDown() override {
        if (module_handle_) dlclose(module_handle_);
        module_handle_ = nullptr;
        adaptor_host::halt();
    }

    // The machine with `devices` devices, the software HCA's call counts at zero.
    void boot_all(int devices, hca::EngineKind engine = hca::EngineKind::Threaded) {
        adaptor_host::boot(devices, engine);
        hca::reset_call_counts();
    }

    static void set_debug_level(long level) { ASSERT_EQ(0, adaptor_host::set_debug_level(level)); }

    int load(const std::vector<std::string> &args = {}) { return adaptor_host::load_module(args); }

    void load_ok(const std::vector<std::string> &args = {}) { ASSERT_EQ(0, load(args)); }

    static std::vector<std::string> log() {
        std::vector<std::string> out;
        for (const auto &line : k::log_lines()) out.push_back(line.text);
        if (!k::log_partial().empty()) out.push_back(k::log_partial());
        return out;
    }

    // Writes `text` to the control file and returns the log lines it produced.
    static std::vector<std::string> command(std::string_view text) {
        k::log_clear();
        EXPECT_EQ(static_cast<long>(text.size()), k::write_file(kControl, text));
        return log();
    }

    static std::string read(const std::string &path) {
        std::string out;
        EXPECT_GE(k::read_file(path, out), 0) << path;
        return out;
    }

    // A symbol of the loaded module, exported or not.
    template <typename T>
    T *sym(const char *name) {
        if (!module_handle_) {
            auto info = k::find_module("adaptor_mlx");
            if (!info) return nullptr;
            module_handle_ = dlopen(info->path.c_str(), RTLD_NOW | RTLD_NOLOAD);
            if (!module_handle_) return nullptr;
        }
        return reinterpret_cast<T *>(dlsym(module_handle_, name));
    }

    template <typename T>
    static T *exported(const char *name) {
        return reinterpret_cast<T *>(const_cast<void *>(k::lookup_symbol(name)));
    }

    // Allocations made by the module's own source files that are still live.
    static size_t module_allocations() { return adaptor_host::module_allocations().size(); }

    // The module's statistics record, error ring and accounting table.
    RecordView stats() { return RecordView("tavor_stats", exported<void>("g_stat")); }
    RecordView ring_entry(int i) {
        return RecordView("vapi_err_st", exported<void>("g_last_vapi_err_array")).element(i);
    }
    RecordView alloc_row(int index) {
        return RecordView("alloc_mem_t", sym<void>("g_alloc_mem_array")).element(index);
    }
    long long alloc_num(const char *index_name) { return alloc_row(mem_ix(index_name))["alloc_num"]; }

    // The provider "mlx" as the verbs core hands it to an upper layer.
    static const ulp_funcs_t *provider() { return adaptor_host::provider(); }
    // A table of the module's exported entry points, slot by slot.
    static const ulp_funcs_t *exported_table() {
        return static_cast<const ulp_funcs_t *>(
            adp_table_of_exported_symbols([](const char *name) { return k::lookup_symbol(name); }));
    }

    // Opens an HCA through the provider table, as an upper layer does; returns the record.
    void *open_hca(const char *name = "InfiniHost0", void *context = nullptr) {
        const ulp_funcs_t *funcs = provider();
        EXPECT_NE(nullptr, funcs);
        if (!funcs) return nullptr;
        void *hca = nullptr;
        EXPECT_EQ(0, ulp_hca_open(funcs, name, context, &hca)) << name;
        EXPECT_NE(nullptr, hca);
        return hca;
    }
    void close_hca(void *hca) { EXPECT_EQ(0, ulp_hca_close(provider(), hca)); }
    RecordView hca_record(void *hca) { return RecordView("ox_opened_hca_t", hca); }

    void unload() {
        if (module_handle_) dlclose(module_handle_);
        module_handle_ = nullptr;
        ASSERT_EQ(0, k::rmmod("adaptor_mlx"));
    }

  private:
    void *module_handle_ = nullptr;
};

// A pointer as the kernel's %p prints it: sixteen zero-padded lower-case hex digits.
inline std::string kptr(const void *p) {
    char buf[32];
    std::snprintf(buf, sizeof(buf), "%016lx", reinterpret_cast<unsigned long>(p));
    return buf;
}

inline std::string ad_func(const std::string &func, const std::string &message) {
    return ad_line("FUNC   ", func, message);
}

// Whether a line is the DEBUG trace of taking or releasing the adaptor lock.
inline bool is_lock_trace(const std::string &line) {
    return line.find("ADAPTOR_LOCK cpu[") != std::string::npos ||
           line.find("ADAPTOR_UNLOCK cpu[") != std::string::npos;
}

// `lines` without the lock traces.
inline std::vector<std::string> without_lock_trace(const std::vector<std::string> &lines) {
    std::vector<std::string> out;
    for (const auto &l : lines)
        if (!is_lock_trace(l)) out.push_back(l);
    return out;
}

// The lines of one level ("ERROR  ", "DEBUG  ", ...).
inline std::vector<std::string> at_level(const std::vector<std::string> &lines, const char *level) {
    std::vector<std::string> out;
    for (const auto &l : lines)
        if (l.rfind(std::string(level) + " : AD_TAVOR : ", 0) == 0) out.push_back(l);
    return out;
}

// Lines of `all` equal to `line`.
inline size_t count_of(const std::vector<std::string> &all, const std::string &line) {
    size_t n = 0;
    for (const auto &l : all) n += (l == line);
    return n;
}

inline bool contains(const std::vector<std::string> &all, const std::string &line) {
    return count_of(all, line) > 0;
}

inline size_t count_with(const std::vector<std::string> &all, std::string_view part) {
    size_t n = 0;
    for (const auto &l : all) n += (l.find(part) != std::string::npos);
    return n;
}

}  // namespace adaptor_test
