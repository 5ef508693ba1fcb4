// Fuzzes QP modify: random target states, attribute masks and attribute values on a fresh QP of a
// random type, driven through the provider table as an upper layer does, with queries between.
//
// Input: byte 0 picks the QP type (rc, uc, ud by turns); then any number of modify requests, each
// one byte of target state, eight bytes of mask and then eight bytes for every integer field under
// "modify.params." in record order and sixteen for every GID, as far as the input reaches (the
// rest of the record stays zero). Target state and mask are stored as given, so out-of-range
// values reach the module too.
//
// The CQs and the PD are made once; each input creates its QP, modifies and queries it, and
// destroys it. After each input the module must hold exactly the allocations it held before, and
// the kernel must have reported no lock misuse and no sleeping call in atomic context.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_host.hpp"
#include "ulp_verbs_queues.h"

using namespace fuzz_host;

namespace {

const ulp_funcs_t *g_funcs;
void *g_hca;
void *g_cq;
uint32_t g_pd;
size_t g_baseline_allocations;
std::vector<const char *> g_int_fields;  // "modify.params...." integer fields, in record order
std::vector<const char *> g_gid_fields;

void collect_fields() {
    for (size_t i = 0;; i++) {
        const char *name = ulp_qp_attr_field_name("modify.params.", i);
        if (!name) break;
        g_int_fields.push_back(name);
    }
    std::vector<unsigned char> probe(ulp_sizeof_qp_attr());
    for (const char *gid : {"modify.params.rtr.remote_add_vec.global_dest.d_gid",
                            "modify.params.rtr.opt_alternate_path.al_path_add_vec.global_dest.d_gid",
                            "modify.params.rts.opt_alternate_path.al_path_add_vec.global_dest.d_gid"})
        if (ulp_qp_attr_bytes(probe.data(), gid)) g_gid_fields.push_back(gid);
}

void put(std::vector<uint8_t> &out, uint64_t v, size_t n) {
    for (size_t i = 0; i < n; i++) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// One modify request in the input format: state, mask, then the given fields' values in record
// order (fields not named are zero); the mask is the union of the named fields' bits.
std::vector<uint8_t> request(const char *state, const std::vector<std::pair<std::string, uint64_t>> &values) {
    std::vector<uint8_t> out;
    uint64_t mask = 0;
    size_t last = 0;
    for (size_t i = 0; i < g_int_fields.size(); i++)
        for (const auto &[name, value] : values)
            if (name == g_int_fields[i]) last = i + 1;
    std::string prefix = std::string("modify.params.") + state + ".";
    for (const auto &[name, value] : values)
        if (name.rfind(prefix, 0) == 0) mask |= ulp_qp_modify_field_mask(state, name.c_str() + prefix.size());
    put(out, static_cast<uint64_t>(ulp_qp_state_value(state)), 1);
    put(out, mask, 8);
    for (size_t i = 0; i < last; i++) {
        uint64_t v = 0;
        for (const auto &[name, value] : values)
            if (name == g_int_fields[i]) v = value;
        put(out, v, 8);
    }
    return out;
}

// MARLIX_FUZZ_WRITE_SEEDS=DIR: writes the seed corpus (the usual paths through the states for
// each QP type, built from the shim's own state values and mask bits) and exits.
void write_seeds(const char *dir) {
    const std::vector<std::pair<std::string, uint64_t>> init = {{"modify.params.init.p_key_indx", 0},
                                                                {"modify.params.init.phy_port_num", 1},
                                                                {"modify.params.init.q_key", 0x11111111},
                                                                {"modify.params.init.access_control", 7}};
    const std::vector<std::pair<std::string, uint64_t>> rtr = {
        {"modify.params.rtr.remote_add_vec.dlid", 2},       {"modify.params.rtr.remote_add_vec.pmtu", 4},
        {"modify.params.rtr.destanation_qp", 0x50},         {"modify.params.rtr.receive_psn", 0},
        {"modify.params.rtr.responder_rdma_r_atom_num", 4}, {"modify.params.rtr.opt_min_rnr_nak_timer", 1}};
    const std::vector<std::pair<std::string, uint64_t>> rts = {
        {"modify.params.rts.local_ack_timeout", 14},
        {"modify.params.rts.retry_num", 7},
        {"modify.params.rts.rnr_num", 7},
        {"modify.params.rts.send_psn", 0},
        {"modify.params.rts.dest_out_rdma_r_atom_num", 4}};
    const char *names[] = {"rc", "uc", "ud"};
    for (int t = 0; t < 3; t++) {
        std::vector<std::vector<uint8_t>> steps = {request("init", init), request("rtr", rtr),
                                                   request("rts", rts),   request("sqd", {}),
                                                   request("err", {}),    request("reset", {})};
        std::vector<uint8_t> all = {static_cast<uint8_t>(t)};
        for (size_t n = 0; n < steps.size(); n++) {
            all.insert(all.end(), steps[n].begin(), steps[n].end());
            std::string path = std::string(dir) + "/" + names[t] + "-" + std::to_string(n + 1) + "-steps";
            FILE *f = std::fopen(path.c_str(), "wb");
            if (!f) finding("cannot write " + path);
            std::fwrite(all.data(), 1, all.size(), f);
            std::fclose(f);
        }
    }
    std::exit(0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    g_funcs = start();
    if (ulp_hca_open(g_funcs, "InfiniHost0", nullptr, &g_hca) != 0) finding("HCA open failed");
    uint32_t actual = 0;
    if (ulp_cq_create(g_funcs, g_hca, 64, nullptr, nullptr, &g_cq, &actual) != 0) finding("CQ create failed");
    if (ulp_pd_allocate(g_funcs, g_hca, &g_pd) != 0) finding("PD allocate failed");
    collect_fields();
    if (const char *dir = std::getenv("MARLIX_FUZZ_WRITE_SEEDS")) write_seeds(dir);
    g_baseline_allocations = module_allocations().size();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return -1;
    const uint8_t *p = data, *end = data + size;
    static const char *const kTypes[] = {"rc", "uc", "ud"};
    const int type = ulp_qp_type_value(kTypes[*p++ % 3]);

    std::vector<unsigned char> req(ulp_sizeof_qp_attr(), 0), out(ulp_sizeof_qp_attr(), 0);
    ulp_qp_attr_set(req.data(), "create.qp_type", static_cast<uint64_t>(type));
    ulp_qp_attr_set(req.data(), "create.cq_send_h", reinterpret_cast<uint64_t>(g_cq));
    ulp_qp_attr_set(req.data(), "create.cq_receive_h", reinterpret_cast<uint64_t>(g_cq));
    ulp_qp_attr_set(req.data(), "create.send_max_outstand_wr", 8);
    ulp_qp_attr_set(req.data(), "create.receive_max_outstand_wr", 8);
    ulp_qp_attr_set(req.data(), "create.max_scatgat_per_send_wr", 2);
    ulp_qp_attr_set(req.data(), "create.max_scatgat_per_receive_wr", 2);
    ulp_qp_attr_set(req.data(), "create.pd_h", g_pd);
    void *qp = nullptr;
    k::log_clear();
    if (ulp_qp_create(g_funcs, g_hca, req.data(), nullptr, &qp, out.data()) != 0 || !qp)
        finding("QP create failed");

    while (p < end) {
        std::vector<unsigned char> attr(ulp_sizeof_qp_attr(), 0), result(ulp_sizeof_qp_attr(), 0);
        ulp_qp_attr_set(attr.data(), "modify.qp_modify_into_state", take(p, end, 1));
        ulp_qp_attr_set(attr.data(), "modify.ox_qp_attr_mask", take(p, end, 8));
        ulp_qp_attr_set(attr.data(), "modify.qp_type", static_cast<uint64_t>(type));
        for (const char *field : g_int_fields) {
            if (p >= end) break;
            ulp_qp_attr_set(attr.data(), field, take(p, end, 8));
        }
        for (const char *gid : g_gid_fields) {
            uint8_t *bytes = ulp_qp_attr_bytes(attr.data(), gid);
            for (size_t i = 0; i < 16 && p < end; i++) bytes[i] = *p++;
        }
        ulp_qp_modify(g_funcs, g_hca, qp, attr.data(), result.data());
        void *context = nullptr;
        std::vector<unsigned char> query(ulp_sizeof_qp_attr(), 0);
        ulp_qp_query(g_funcs, g_hca, qp, &context, query.data());
        if (k::log_lines().size() > 2000) k::log_clear();
    }

    if (ulp_qp_destroy(g_funcs, g_hca, qp) != 0) finding("QP destroy failed");
    check_after_input(g_baseline_allocations);
    return 0;
}
