// Fuzzes the completion translation: completion entries with any status, opcode, remote address
// type and field values (also outside their enumerations) are written into a CQ of the software
// HCA as the adapter writes them, then polled through the provider table in the generic and in
// the VAPI form, with the CQ armed in between so that completion events run too.
//
// Input: one flag byte (bits 0-2 the trace level of the adaptor and of the stack, above 5 means
// 5), then commands, each one byte `c` followed by its operands:
//   c % 4 == 0  push one completion: the fields of the VAPI completion record in record order,
//               each as many little-endian bytes as the field holds (missing bytes are zero);
//               c & 0x10 marks it solicited. Skipped when the CQ is full.
//   c % 4 == 1  poll in the generic form into a record filled with the next byte (fields the
//               translation leaves alone keep it); c & 0x40 makes this VAPI_poll_cq fail with
//               the status in the next byte (as a negative VAPI status)
//   c % 4 == 2  poll in the VAPI form (same fault bit)
//   c % 4 == 3  arm the CQ: c & 0x20 takes a raw 32-bit notification type from the next four
//               bytes, otherwise c & 0x10 picks solicited-only or next completion
// After the input the CQ is drained. Every successful poll is checked against the entry pushed
// first: identifier, byte count, opcode, immediate data and the status through the status table
// (the caller's value when the status has no translation). The module must hold the allocations
// it held before, and the kernel must have reported nothing.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include <vapi.h>

#include "datapath_layout.h"
#include "fuzz_host.hpp"
#include "module_layout.h"
#include "ulp_datapath.h"
#include "ulp_verbs_queues.h"

using namespace fuzz_host;

namespace {

const char *const kDevice = "InfiniHost0";

const ulp_funcs_t *g_funcs;
void *g_hca;
void *g_cq;
uint32_t g_cq_size;
VAPI_cq_hndl_t g_vapi_cq;
size_t g_baseline_allocations;
unsigned long g_events;
long long g_cq_empty;  // ox_return_err_cq_empty

void on_completion(uint64_t) {
    g_events++;
}

// Fills a field of any integer or enumeration type with raw bytes of the input.
template <class F>
void fill(F &field, const uint8_t *&p, const uint8_t *end) {
    uint64_t v = take(p, end, sizeof(F));
    std::memcpy(&field, &v, sizeof(F));  // little-endian host: the low bytes
}

template <class F>
uint32_t raw32(const F &field) {
    static_assert(sizeof(F) == 4);
    uint32_t v;
    std::memcpy(&v, &field, sizeof v);
    return v;
}

VAPI_wc_desc_t completion_from(const uint8_t *&p, const uint8_t *end) {
    VAPI_wc_desc_t wc;
    std::memset(&wc, 0, sizeof wc);
    fill(wc.status, p, end);
    fill(wc.id, p, end);
    fill(wc.local_qp_num, p, end);
    fill(wc.opcode, p, end);
    fill(wc.byte_len, p, end);
    fill(wc.imm_data_valid, p, end);
    fill(wc.imm_data, p, end);
    fill(wc.remote_node_addr.type, p, end);
    fill(wc.remote_node_addr.slid, p, end);
    fill(wc.remote_node_addr.sl, p, end);
    fill(wc.remote_node_addr.qp_ety.qp, p, end);
    fill(wc.remote_node_addr.ee_dlid.loc_eecn, p, end);
    fill(wc.grh_flag, p, end);
    fill(wc.pkey_ix, p, end);
    fill(wc.vendor_err_syndrome, p, end);
    fill(wc.free_res_count, p, end);
    return wc;
}

long long wc_field(const std::vector<unsigned char> &wc, const char *field) {
    long long v = 0;
    if (layout_get(dpl_layout(), "ox_wc_t", wc.data(), field, &v) != 0)
        finding(std::string("no field ox_wc_t.") + field);
    return v;
}

// The generic status a VAPI status reads as: the translation table's row (VAPI's two fatal
// statuses read as the general error, local abort as 100), or the caller's value for a status
// past the table.
long long expected_status(uint32_t vapi_status, long long callers) {
    if (vapi_status < 19) return vapi_status;  // the first 19 are numbered alike
    if (vapi_status < 21) return 19;           // ox_comp_status_general_err
    if (vapi_status == 21) return 100;
    return callers;
}

void check_generic(const VAPI_wc_desc_t &in, const std::vector<unsigned char> &out,
                   long long callers_status) {
    // Compared in their low 32 bits: enumeration fields read back as the compiler's unsigned type.
    auto expect = [&](const char *field, long long want) {
        long long got = wc_field(out, field);
        if (static_cast<uint32_t>(got) != static_cast<uint32_t>(want))
            finding(std::string("ox_wc_t.") + field + " is " + std::to_string(got) + ", expected " +
                    std::to_string(want));
    };
    expect("wr_id", static_cast<long long>(in.id));
    expect("num_bytes_transfered", in.byte_len);
    expect("immidiate_data", in.imm_data);
    expect("immidiate_data_indicator", in.imm_data_valid);
    expect("p_key_index", in.pkey_ix);
    expect("freed_resource", in.free_res_count);
    // The opcode is copied as it is, VAPI's invalid opcode and unknown values included.
    expect("operation_type", raw32(in.opcode));
    expect("completion_status", expected_status(raw32(in.status), callers_status));
    expect("addres_info.slid", in.remote_node_addr.slid);
    const uint32_t type = raw32(in.remote_node_addr.type);
    int found = 0;
    static const char *const kTypes[] = {"ox_qp_type_r_dgram", "ox_qp_type_u_dgram",
                                         "ox_qp_type_special_raw_eter", "ox_qp_type_special_raw_ipv6"};
    expect("addres_info.remote_qp_type",
           layout_const(dpl_layout(), type < 4 ? kTypes[type] : "ox_qp_type_not_valid", &found));
}

void check_vapi(const VAPI_wc_desc_t &in, const VAPI_wc_desc_t &out) {
    if (in.id != out.id || in.byte_len != out.byte_len || raw32(in.status) != raw32(out.status) ||
        raw32(in.opcode) != raw32(out.opcode) || in.imm_data != out.imm_data)
        finding("the VAPI form of the poll changed the completion");
}

void inject_poll_fault(uint8_t status_byte) {
    // A failing status (not VAPI_OK, not the empty-CQ status the module treats as no completion).
    VAPI_ret_t status = static_cast<VAPI_ret_t>(-static_cast<int>(status_byte % 250) - 1);
    if (status == VAPI_CQ_EMPTY) status = VAPI_EAGAIN;
    hca::inject_fault("VAPI_poll_cq", kDevice, status);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    g_funcs = start(hca::EngineKind::Stepped);
    if (ulp_hca_open(g_funcs, kDevice, nullptr, &g_hca) != 0) finding("HCA open failed");
    if (ulp_cq_create(g_funcs, g_hca, 32, on_completion, nullptr, &g_cq, &g_cq_size) != 0)
        finding("CQ create failed");
    long long handle = 0;
    if (layout_get(dpl_layout(), "ox_opened_cq_t", g_cq, "cq_h", &handle) != 0)
        finding("no field ox_opened_cq_t.cq_h");
    g_vapi_cq = static_cast<VAPI_cq_hndl_t>(handle);
    g_cq_empty = layout_const(adp_layout(), "ox_return_err_cq_empty", nullptr);
    g_baseline_allocations = module_allocations().size();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return -1;
    const uint8_t *p = data, *end = data + size;
    const int level = *p++ & 7;
    set_trace_level(level > 5 ? 5 : level);
    k::log_clear();

    std::deque<VAPI_wc_desc_t> queued;
    std::vector<unsigned char> wc(ulp_sizeof_wc());
    auto poll_generic = [&](uint8_t fill_byte) {
        std::memset(wc.data(), fill_byte, wc.size());
        const long long callers_status = wc_field(wc, "completion_status");
        int rc = ulp_poll(g_funcs, g_hca, g_cq, wc.data());
        if (rc == 0) {
            if (queued.empty()) finding("a poll returned a completion nobody pushed");
            check_generic(queued.front(), wc, callers_status);
            queued.pop_front();
        } else if (rc == g_cq_empty && !queued.empty()) {
            finding("a poll found the CQ empty with completions queued");
        }
        return rc;
    };

    while (p < end) {
        const uint8_t c = *p++;
        switch (c % 4) {
            case 0: {
                VAPI_wc_desc_t in = completion_from(p, end);
                if (queued.size() >= g_cq_size) break;  // a full CQ would overrun
                if (!hca::push_completion(kDevice, g_vapi_cq, in, (c & 0x10) != 0)) finding("push refused");
                queued.push_back(in);
                break;
            }
            case 1: {
                const uint8_t fill_byte = static_cast<uint8_t>(take(p, end, 1));
                if (c & 0x40) inject_poll_fault(static_cast<uint8_t>(take(p, end, 1)));
                poll_generic(fill_byte);
                hca::clear_faults();
                break;
            }
            case 2: {
                if (c & 0x40) inject_poll_fault(static_cast<uint8_t>(take(p, end, 1)));
                VAPI_wc_desc_t out;
                std::memset(&out, 0, sizeof out);
                if (ulp_poll_vapi(g_funcs, g_hca, g_cq, &out) == 0) {
                    if (queued.empty()) finding("a VAPI poll returned a completion nobody pushed");
                    check_vapi(queued.front(), out);
                    queued.pop_front();
                }
                hca::clear_faults();
                break;
            }
            case 3: {
                int notify = (c & 0x10) ? 1 : 0;
                if (c & 0x20) notify = static_cast<int>(take(p, end, 4));
                ulp_request_notification(g_funcs, g_hca, g_cq, notify);
                break;
            }
        }
        k::irq_sync();
        if (k::log_lines().size() > 2000) k::log_clear();
    }

    while (!queued.empty())
        if (poll_generic(0) != 0) finding("the CQ does not give back what was pushed");
    if (poll_generic(0) != g_cq_empty) finding("the drained CQ is not empty");
    k::irq_sync();
    check_after_input(g_baseline_allocations);
    return 0;
}
