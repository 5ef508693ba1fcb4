// Fuzzes the control file: its word splitter, its command table and the 14 commands, with and
// without HCAs open, interleaved with reads of the statistics page and the link file.
//
// Input: one flag byte, then the writes, separated by the byte 0x1e (each piece is one write()
// of the control file, so a piece may hold blanks, newlines, zeros and any other byte).
//   flag bit 0   open InfiniHost0 through the provider table before the writes, close it after
//   flag bit 1   open InfiniHost1 too
//   flag bit 2   read the statistics page (the control file) after every write
//   flag bit 3   read the link file after every write
//   flag bits 4-6  trace level of the adaptor and of the stack (0..7, above 5 means 5)
//   flag bit 7   with InfiniHost0 open, create two CQs on it first (targets for pollcq, comaddcq
//                and comremcq, by record address, VAPI handle or list position) and destroy them
//                after
//
// The module is loaded once for the whole run: libFuzzer keeps the coverage counters of every
// instrumented object it has seen, so an instrumented module must never be unmapped. Each input
// starts by switching events back on and stopping the proc generator, so that little of the proc
// interface's own state carries over (the generator period does: it cannot be set below 1).
// After the input the HCAs are closed: the module must hold exactly the allocations it held
// before, and the kernel must have reported no lock misuse and no sleeping call in atomic
// context.
#include <cstddef>
#include <cstdint>

#include "fuzz_host.hpp"
#include "ulp_verbs_queues.h"

using namespace fuzz_host;

namespace {

void *open_hca(const ulp_funcs_t *funcs, const char *name) {
    void *h = nullptr;
    int rc = ulp_hca_open(funcs, name, nullptr, &h);
    if (rc != 0 || !h) finding(std::string("HCA open of ") + name + " failed: " + ulp_status_name(rc));
    return h;
}

void close_hca(const ulp_funcs_t *funcs, void *h) {
    int rc = ulp_hca_close(funcs, h);
    if (rc != 0) finding(std::string("HCA close failed: ") + ulp_status_name(rc));
}

}  // namespace

namespace {
size_t g_baseline_allocations;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    start();
    g_baseline_allocations = module_allocations().size();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return -1;
    const uint8_t flags = data[0];
    std::string_view text(reinterpret_cast<const char *>(data + 1), size - 1);
    int level = (flags >> 4) & 7;
    set_trace_level(level > 5 ? 5 : level);

    k::log_clear();
    write_control("event_ctrl 0");
    write_control("comstop");
    const ulp_funcs_t *funcs = adaptor_host::provider();
    if (!funcs) finding("provider mlx not registered");
    void *hca0 = (flags & 1) ? open_hca(funcs, "InfiniHost0") : nullptr;
    void *hca1 = (flags & 2) ? open_hca(funcs, "InfiniHost1") : nullptr;
    void *cqs[2] = {nullptr, nullptr};
    if (hca0 && (flags & 0x80)) {
        for (void *&cq : cqs) {
            uint32_t actual = 0;
            if (ulp_cq_create(funcs, hca0, 16, nullptr, nullptr, &cq, &actual) != 0)
                finding("CQ create failed");
        }
    }

    for (std::string_view piece : split(text, '\x1e')) {
        write_control(piece);
        if (flags & 4) read_file(kControl);
        if (flags & 8) read_file(kLink);
        // Keep the log short: only this input's last lines matter for a finding.
        if (k::log_lines().size() > 2000) k::log_clear();
    }

    for (void *cq : cqs)
        if (cq && ulp_cq_destroy(funcs, hca0, cq) != 0) finding("CQ destroy failed");
    if (hca1) close_hca(funcs, hca1);
    if (hca0) close_hca(funcs, hca0);
    check_after_input(g_baseline_allocations);
    return 0;
}
