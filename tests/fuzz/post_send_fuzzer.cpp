// Fuzzes the work-request translation: random generic send requests (every opcode value, invalid
// ones included; any flags, immediate data, remote address and key, address handle, gather lists
// of any count) posted through the provider table on a connected RC or UC pair, a UD pair or the
// GSI / SMI QPs of two HCAs, by post send, inline send, GSI send and send list; then the stepped
// engine runs and both CQs are polled.
//
// Input: byte 0 picks the transport (its value mod 5: rc, uc, ud, gsi, smi) and in bits 3-5 the
// trace level (above 5 means 5); byte 1 the number of receives posted on the peer first (mod 17).
// Then posts, each one byte `h` and its operands:
//   h & 3      the path: post send, inline send, GSI send on a partition key, send list
//   h & 4      the operation type is a raw 32-bit value from the input (else the transport's own)
//   h & 8      the post's VAPI/EVAPI call fails
//   h & 0x10   the engine runs after the post
//   h & 0x20   the send list's block allocation fails
//   GSI send: four bytes of partition key index. Send list: one byte, the number of requests
//   (mod 5). Then each request: wr_id (8), completion_notification (1), gather count (1), wr_type
//   (4), immediate indicator (1), immediate data (4), solicited (1), fence (1), atomic (1), a key
//   byte (below), remote address (8), remote key (4), address handle (4), remote QP (4), Q_Key
//   (4), two atomic operands (8 each), then for each of the first 16 gather entries an offset
//   (2), a length (2) and a local key (4).
//   Key byte: bit 0 the gather entries use the generic region's local key (else the input's),
//   bit 1 the remote key is the peer's generic key (else the input's), bit 2 the address handle
//   is the one to the peer (else the input's value), bit 3 the remote QP is the peer's, bit 4 the
//   Q_Key is the peer's.
//
// What the harness keeps valid, because the module trusts it: the gather list pointer (a list of
// 256 entries the harness owns, so every count stays inside it) and, whenever a key would let the
// device reach memory, the addresses: a gather entry whose key is a valid key, or of an inline
// send (copied from the kernel address as it stands), lies inside the harness's local buffer; a
// remote address with a valid remote key lies inside the peer's buffer. With any other key the
// input's values stand, and the device must refuse them without touching memory.
//
// Checks: every completion polled names a request that was accepted (by its wr_id, at most as
// often as it was posted); the QPs and CQs are destroyed after each input; the module holds the
// allocations it held before, and the kernel reported no leak, no lock misuse and no sleeping call
// in atomic context.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <vapi.h>

#include "datapath_layout.h"
#include "fuzz_host.hpp"
#include "module_layout.h"
#include "ulp_datapath.h"
#include "ulp_pair.hpp"
#include "ulp_verbs_queues.h"

using namespace fuzz_host;
namespace pair = marlix::ulp_pair;

namespace {

constexpr size_t kLocalSize = 64 * 1024;
constexpr size_t kPeerSize = 256 * 1024;
constexpr size_t kRecvSlot = 8 * 1024;        // receives on the peer: slots from the start
constexpr size_t kRemoteWindow = 128 * 1024;  // RDMA and atomics: from here on
constexpr uint32_t kMaxEntryLength = 4096;    // per gather entry inside the local buffer
constexpr uint32_t kGsiQkey = 0x80010000;
constexpr size_t kListEntries = 256;
constexpr size_t kEntriesFromInput = 16;
// The start of the kernel's direct map (physical page 0): memory no allocation ever returns.
constexpr unsigned long kUnownedAddress = 0x10000000000ul;

const char *const kDevices[2] = {"InfiniHost0", "InfiniHost1"};

struct Transport {
    const char *name;     // QP type short name
    bool special;         // GSI or SMI through the special-QP call
    const char *op_type;  // the operation type its requests use
};
const Transport kTransports[] = {{"rc", false, "ox_operation_type_send_rc"},
                                 {"uc", false, "ox_operation_type_send_uc"},
                                 {"ud", false, "ox_operation_type_send_ud"},
                                 {"gsi", true, "ox_operation_type_send_ud"},
                                 {"smi", true, "ox_operation_type_send_ud"}};

const ulp_funcs_t *g_funcs;
pair::Side g_side[2];  // 0 sends, 1 receives
uint64_t g_ah;         // address handle on side 0 towards side 1's port 1
unsigned char *g_local;
unsigned char *g_peer;
size_t g_baseline_allocations;
long long g_ok;

long long constant(const char *name) {
    int found = 0;
    long long v = layout_const(dpl_layout(), name, &found);
    if (!found) finding(std::string("no constant ") + name);
    return v;
}

void set(const char *record, void *base, const std::string &field, long long value) {
    if (layout_set(dpl_layout(), record, base, field.c_str(), value) != 0)
        finding(std::string("no field ") + record + "." + field);
}

// The address the peer advertises for a byte of its buffer (inside its generic region).
uint64_t advertised(const pair::Side &s, const void *addr) {
    unsigned long adv = 0;
    if (ulp_va2advertise_addr(g_funcs, s.hca, reinterpret_cast<unsigned long>(addr), &adv) != 0)
        finding("va2advertise_addr failed");
    return adv;
}

// A key that reaches memory: one of the generic regions' keys on either side.
bool valid_key(uint32_t key) {
    for (const pair::Side &s : g_side)
        if (key == s.l_key || key == s.r_key) return true;
    return false;
}

// The QPs and CQs of one input.
struct Pair {
    const Transport *t;
    void *cq[2] = {nullptr, nullptr};
    void *qp[2] = {nullptr, nullptr};
    uint32_t qpn[2] = {0, 0};
};

void make_special(Pair &pr, int side) {
    pair::Side &s = g_side[side];
    uint32_t actual = 0;
    if (ulp_cq_create(g_funcs, s.hca, 64, nullptr, nullptr, &pr.cq[side], &actual) != 0)
        finding("CQ create failed");
    std::vector<unsigned char> req(ulp_sizeof_qp_attr(), 0), out(ulp_sizeof_qp_attr(), 0);
    ulp_qp_attr_set(req.data(), "create.qp_type", uint64_t(ulp_qp_type_value(pr.t->name)));
    ulp_qp_attr_set(req.data(), "create.cq_send_h", reinterpret_cast<uint64_t>(pr.cq[side]));
    ulp_qp_attr_set(req.data(), "create.cq_receive_h", reinterpret_cast<uint64_t>(pr.cq[side]));
    ulp_qp_attr_set(req.data(), "create.send_max_outstand_wr", 16);
    ulp_qp_attr_set(req.data(), "create.receive_max_outstand_wr", 16);
    ulp_qp_attr_set(req.data(), "create.max_scatgat_per_send_wr", 8);
    ulp_qp_attr_set(req.data(), "create.max_scatgat_per_receive_wr", 8);
    ulp_qp_attr_set(req.data(), "create.pd_h", s.pd);
    if (ulp_qp_get_special(g_funcs, s.hca, 1, req.data(), nullptr, &pr.qp[side], out.data()) != 0)
        finding(std::string("special QP ") + pr.t->name + " failed");
    pr.qpn[side] = std::strcmp(pr.t->name, "gsi") == 0 ? 1 : 0;
}

Pair make_pair(const Transport &t) {
    Pair pr;
    pr.t = &t;
    for (int side = 0; side < 2; side++) {
        pair::Side s = g_side[side];
        if (t.special) {
            make_special(pr, side);
        } else {
            if (pair::create(s, t.name, 64, 16) != 0) finding(std::string("QP create failed: ") + t.name);
            pr.cq[side] = s.cq;
            pr.qp[side] = s.qp;
            pr.qpn[side] = s.qpn;
        }
    }
    for (int side = 0; side < 2; side++) {
        pair::Side s = g_side[side], peer = g_side[1 - side];
        s.qp = pr.qp[side];
        s.qpn = pr.qpn[side];
        peer.qpn = pr.qpn[1 - side];
        const std::string kind = t.special ? "ud" : t.name;
        if (pair::connect_one(s, peer, kind) != 0) finding(std::string("QP connect failed: ") + t.name);
    }
    return pr;
}

void destroy_pair(Pair &pr) {
    for (int side = 0; side < 2; side++) {
        if (ulp_qp_destroy(g_funcs, g_side[side].hca, pr.qp[side]) != 0) finding("QP destroy failed");
        if (ulp_cq_destroy(g_funcs, g_side[side].hca, pr.cq[side]) != 0) finding("CQ destroy failed");
    }
}

// One request from the input into `wr`, its gather entries into `list`.
void read_request(const uint8_t *&p, const uint8_t *end, const Pair &pr, long long op_type, unsigned char *wr,
                  unsigned char *list, bool is_inline) {
    const size_t wr_size = layout_sizeof(dpl_layout(), "ox_wr_t"),
                 sg_size = layout_sizeof(dpl_layout(), "ox_scatgat_t");
    std::memset(wr, 0, wr_size);
    set("ox_wr_t", wr, "wr_id", static_cast<long long>(take(p, end, 8)));
    set("ox_wr_t", wr, "completion_notification", static_cast<long long>(take(p, end, 1)));
    const uint32_t count = static_cast<uint32_t>(take(p, end, 1));
    set("ox_wr_t", wr, "num_of_data_segments", count);
    set("ox_wr_t", wr, "scatgat_list", reinterpret_cast<long long>(list));
    set("ox_wr_t", wr, "wr_type", static_cast<long long>(take(p, end, 4)));
    set("ox_wr_t", wr, "type.send.immidiate_data_indicator", static_cast<long long>(take(p, end, 1)));
    set("ox_wr_t", wr, "type.send.immidiate_data", static_cast<long long>(take(p, end, 4)));
    set("ox_wr_t", wr, "type.send.solicited_event", static_cast<long long>(take(p, end, 1)));
    const long long fence = static_cast<long long>(take(p, end, 1));
    const long long atomic = static_cast<long long>(take(p, end, 1));
    const uint8_t keys = static_cast<uint8_t>(take(p, end, 1));
    const uint64_t raw_addr = take(p, end, 8);
    uint32_t r_key = static_cast<uint32_t>(take(p, end, 4));
    uint32_t ah = static_cast<uint32_t>(take(p, end, 4));
    uint32_t r_qp = static_cast<uint32_t>(take(p, end, 4));
    uint32_t q_key = static_cast<uint32_t>(take(p, end, 4));
    const long long operand1 = static_cast<long long>(take(p, end, 8));
    const long long operand2 = static_cast<long long>(take(p, end, 8));

    const pair::Side &peer = g_side[1];
    if (keys & 2) r_key = peer.r_key;
    uint64_t r_addr = raw_addr;
    if (valid_key(r_key))
        r_addr = advertised(
            peer, g_peer + kRemoteWindow + raw_addr % (kPeerSize - kRemoteWindow - 8 * kMaxEntryLength));
    if (keys & 4) ah = static_cast<uint32_t>(g_ah);
    if (keys & 8) r_qp = pr.qpn[1];
    if (keys & 16) q_key = std::strcmp(pr.t->name, "gsi") == 0 ? kGsiQkey : pair::kQkey;

    // The fields of the transport the request is posted as; other operation types get none.
    const bool rc = op_type == constant("ox_operation_type_send_rc");
    const bool uc = op_type == constant("ox_operation_type_send_uc");
    const bool rd = op_type == constant("ox_operation_type_send_rd");
    const bool ud = op_type == constant("ox_operation_type_send_ud");
    const std::string variant = std::string("type.send.send_qp_type.") + (rc   ? "rc_type."
                                                                          : uc ? "uc_type."
                                                                          : rd ? "rd_type."
                                                                               : "ud_type.");
    auto field = [&](const char *name, long long value) { set("ox_wr_t", wr, variant + name, value); };
    if (rc || uc || rd) {
        field("r_addr", static_cast<long long>(r_addr));
        field("r_r_key", r_key);
    }
    if (rc || rd) field("fance_indicator", fence);
    if (rc || uc) {
        field("atomic", atomic);
        field("atomic_operands.atom_first_operand", operand1);
        field("atomic_operands.atom_second_operand", operand2);
    }
    if (rd || ud) {
        field("r_qp_num", r_qp);
        field("r_q_key", q_key);
    }
    if (ud) field("r_add_h", ah);

    // Gather entries: the first 16 from the input, the rest empty entries in the buffer.
    const uint32_t l_key_valid = g_side[0].l_key;
    for (size_t i = 0; i < kListEntries; i++) {
        unsigned char *e = list + i * sg_size;
        uint32_t offset = 0, length = 0, l_key = l_key_valid;
        if (i < kEntriesFromInput && i < count) {
            offset = static_cast<uint32_t>(take(p, end, 2));
            length = static_cast<uint32_t>(take(p, end, 2));
            l_key = static_cast<uint32_t>(take(p, end, 4));
            if (keys & 1) l_key = l_key_valid;
        }
        unsigned long address;
        if (is_inline || valid_key(l_key)) {
            length %= kMaxEntryLength + 1;
            address = reinterpret_cast<unsigned long>(g_local + offset % (kLocalSize - kMaxEntryLength));
        } else {
            // Somewhere in the direct map that nobody owns: the key must stop the device.
            address = kUnownedAddress + offset * 4099ul;
        }
        set("ox_scatgat_t", e, "v_address", static_cast<long long>(address));
        set("ox_scatgat_t", e, "length", length);
        set("ox_scatgat_t", e, "l_key", l_key);
    }
}

void inject(bool fail, const char *call) {
    if (fail) hca::inject_fault(call, kDevices[0], VAPI_EAGAIN);
}

// Polls a CQ empty; every completion must name an accepted request. With MARLIX_FUZZ_VERBOSE set,
// each completion is printed (to see what an input makes the pair do).
void drain(int side, void *cq, std::map<uint64_t, int> &accepted) {
    static const bool verbose = std::getenv("MARLIX_FUZZ_VERBOSE") != nullptr;
    std::vector<unsigned char> wc(ulp_sizeof_wc());
    for (int n = 0; n < 4096; n++) {
        if (ulp_poll(g_funcs, g_side[side].hca, cq, wc.data()) != g_ok) return;
        long long id = 0, status = 0, bytes = 0;
        layout_get(dpl_layout(), "ox_wc_t", wc.data(), "wr_id", &id);
        if (verbose) {
            layout_get(dpl_layout(), "ox_wc_t", wc.data(), "completion_status", &status);
            layout_get(dpl_layout(), "ox_wc_t", wc.data(), "num_bytes_transfered", &bytes);
            std::fprintf(stderr, "side %d: wr_id 0x%llx %s, %lld bytes\n", side,
                         static_cast<unsigned long long>(id), ulp_comp_status_name(static_cast<int>(status)),
                         bytes);
        }
        auto it = accepted.find(static_cast<uint64_t>(id));
        if (it == accepted.end() || it->second == 0)
            finding("a completion names wr_id " + std::to_string(static_cast<unsigned long long>(id)) +
                    ", which was not posted (or has completed already)");
        it->second--;
    }
    finding("a CQ does not run empty");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    g_funcs = start(hca::EngineKind::Stepped);
    for (int side = 0; side < 2; side++) {
        g_side[side].funcs = g_funcs;
        if (ulp_hca_open(g_funcs, kDevices[side], nullptr, &g_side[side].hca) != 0)
            finding("HCA open failed");
        if (pair::prepare(g_side[side]) != 0) finding("HCA prepare failed");
    }
    if (ulp_ah_create_simple(g_funcs, g_side[0].hca, g_side[0].pd, g_side[1].lid, 0, &g_ah) != 0)
        finding("AH create failed");
    // Larger than one kmalloc may be: host memory, which the direct map covers as well.
    g_local = new unsigned char[kLocalSize]();
    g_peer = new unsigned char[kPeerSize]();
    g_ok = layout_const(adp_layout(), "ox_return_ok", nullptr);
    g_baseline_allocations = module_allocations().size();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return -1;
    const uint8_t *p = data, *end = data + size;
    const Transport &t = kTransports[p[0] % 5];
    const int level = (p[0] >> 3) & 7;
    const unsigned receives = p[1] % 17;
    p += 2;
    set_trace_level(level > 5 ? 5 : level);
    k::log_clear();

    Pair pr = make_pair(t);
    std::map<uint64_t, int> accepted[2];
    for (unsigned i = 0; i < receives; i++) {
        const uint64_t id = 0xb0000000u + i;
        if (ulp_post_receive_simple(g_funcs, g_side[1].hca, pr.qp[1], id, g_peer + i * kRecvSlot,
                                    static_cast<uint32_t>(kRecvSlot), g_side[1].l_key) == g_ok)
            accepted[1][id]++;
    }

    const size_t wr_size = layout_sizeof(dpl_layout(), "ox_wr_t"),
                 sg_size = layout_sizeof(dpl_layout(), "ox_scatgat_t");
    std::vector<unsigned char> wrs(4 * wr_size), lists(4 * kListEntries * sg_size);
    while (p < end) {
        const uint8_t h = *p++;
        const int path = h & 3;
        long long op_type = constant(t.op_type);
        if (h & 4) op_type = static_cast<int32_t>(take(p, end, 4));
        const bool fail = (h & 8) != 0;
        int pkey_index = 0;
        uint32_t count = 1;
        if (path == 2) pkey_index = static_cast<int>(take(p, end, 4));
        if (path == 3) count = static_cast<uint32_t>(take(p, end, 1) % 5);
        for (uint32_t i = 0; i < count; i++)
            read_request(p, end, pr, op_type, &wrs[i * wr_size], &lists[i * kListEntries * sg_size],
                         path == 1);

        int rc = -1;
        void *hca0 = g_side[0].hca;
        switch (path) {
            case 0:
                inject(fail, "VAPI_post_sr");
                rc = ulp_post_send(g_funcs, hca0, pr.qp[0], wrs.data(), static_cast<int>(op_type));
                break;
            case 1:
                inject(fail, "EVAPI_post_inline_sr");
                rc = ulp_inline_post_send(g_funcs, hca0, pr.qp[0], wrs.data(), static_cast<int>(op_type));
                break;
            case 2:
                inject(fail, "EVAPI_post_gsi_sr");
                rc = ulp_post_gsi_send_on_pkey(g_funcs, hca0, pr.qp[0], wrs.data(), static_cast<int>(op_type),
                                               pkey_index);
                break;
            case 3: {
                inject(fail, "EVAPI_post_sr_list");
                if (h & 0x20) {
                    k::AllocFault fault;
                    fault.site = "oxi_mlx_post_send_list";
                    k::add_alloc_fault(fault);
                }
                rc =
                    ulp_post_send_list(g_funcs, hca0, pr.qp[0], count, wrs.data(), static_cast<int>(op_type));
                k::clear_alloc_faults();
                break;
            }
        }
        hca::clear_faults();
        if (rc == g_ok) {
            for (uint32_t i = 0; i < count; i++) {
                long long id = 0;
                layout_get(dpl_layout(), "ox_wr_t", &wrs[i * wr_size], "wr_id", &id);
                accepted[0][static_cast<uint64_t>(id)]++;
            }
        }
        if (h & 0x10) hca::run_until_idle(10000);
        if (k::log_lines().size() > 2000) k::log_clear();
    }

    // Let the pair finish what it can (acknowledgement and RNR timers included), then poll.
    hca::run_until_idle(10000);
    hca::advance_clock(20);
    hca::run_until_idle(10000);
    k::irq_sync();
    for (int side = 0; side < 2; side++) drain(side, pr.cq[side], accepted[side]);
    destroy_pair(pr);
    hca::run_until_idle(10000);
    k::irq_sync();

    check_after_input(g_baseline_allocations);
    return 0;
}
