// ulp post: one work request through the provider, from and into the QP's own buffer (inside the
// HCA's generic region). Sends carry a pattern that names the request: byte i of request N is
// (N * 31 + i) mod 256.
//
//   ulp post send|write|read|cas|faa [QP] BYTES   a send; or an RDMA/atomic on the connected
//                                                 peer QP's buffer
//   ulp post recv [QP] BYTES                      a receive of up to BYTES
//
// A UD send goes through the most recent address handle made on the QP's HCA, to the datagram QP of
// the session that answers at the handle's DLID, with the Q_Key that ulp connect gives.
#include <algorithm>
#include <map>
#include <ostream>

#include "ulp_datapath.hpp"

namespace marlix::console {
namespace {

// Work request ids count per QP from 1.
uint64_t next_wr_id(ulp::Object &qp) {
    return ++qp.values["posted"];
}

void fill_pattern(uint8_t *p, size_t bytes, uint64_t wr_id) {
    for (size_t i = 0; i < bytes; ++i) p[i] = static_cast<uint8_t>(wr_id * 31 + i);
}

// The UD destination an address handle reaches: the most recent other datagram QP at its DLID.
ulp::Object *datagram_destination(ulp::Session &s, ulp::Object &qp, uint64_t dlid) {
    const auto all = s.all();
    for (auto it = all.rbegin(); it != all.rend(); ++it) {
        ulp::Object *o = const_cast<ulp::Object *>(*it);
        if (o->kind != "qp" || o == &qp || o->values.at("type") != qp.values.at("type")) continue;
        ulp::Object *hca = s.hca_of(*o);
        if (hca && ulp::port_lid(*hca, ulp::kPortOfConnections) == dlid) return o;
    }
    return nullptr;
}

int post_recv(Console &c, ulp::Session &s, ulp::Object &qp, uint64_t bytes) {
    ulp::Object *hca = s.hca_of(qp);
    uint8_t *buf = ulp::qp_buffer(qp, bytes);
    const uint64_t id = next_wr_id(qp);
    int status = ulp_post_receive_simple(hca->funcs, hca->ptr, qp.ptr, id, buf, static_cast<uint32_t>(bytes),
                                         ulp::keys_for(s, qp).l_key);
    if (status != 0) return ulp::failed(c, "post recv on " + qp.name, status);
    c.out() << "post recv on " << qp.name << ": wr_id " << id << ", " << bytes << " bytes\n";
    return 0;
}

int post_send(Console &c, ulp::Session &s, ulp::Object &qp, const std::string &op_name, uint64_t bytes) {
    static const std::map<std::string, ulp_send_op> ops = {{"send", ulp_op_send},
                                                           {"write", ulp_op_write},
                                                           {"read", ulp_op_read},
                                                           {"cas", ulp_op_cas},
                                                           {"faa", ulp_op_faa}};
    const ulp_send_op op = ops.at(op_name);
    ulp::Object *hca = s.hca_of(qp);
    const int type = static_cast<int>(qp.values.at("type"));
    const char *transport = type == ulp_qp_type_value("rc")   ? "rc"
                            : type == ulp_qp_type_value("uc") ? "uc"
                                                              : "ud";
    ulp_send_target target{};
    std::string to;
    if (std::string(transport) == "ud") {
        if (op != ulp_op_send) return ulp::refused(c, "post " + op_name + ": a datagram QP only sends");
        ulp::Object *ah = nullptr;
        for (const ulp::Object *o : s.all())
            if (o->kind == "ah" && o->hca == hca->name) ah = const_cast<ulp::Object *>(o);
        if (!ah) return ulp::refused(c, "post send: no address handle on " + hca->name);
        ulp::Object *dest = datagram_destination(s, qp, ah->values.at("dlid"));
        if (!dest)
            return ulp::refused(c,
                                "post send: no datagram QP at dlid " + std::to_string(ah->values.at("dlid")));
        target.ah = ah->handle;
        target.remote_qpn = static_cast<uint32_t>(dest->values.at("qp_num"));
        target.q_key = 0x11111111;
        to = " to " + dest->name + " through " + ah->name;
    } else if (op != ulp_op_send) {
        ulp::Object *peer = ulp::peer_of(s, qp);
        if (!peer) return ulp::refused(c, "post " + op_name + ": " + qp.name + " has no connected peer");
        ulp::Object *peer_hca = s.hca_of(*peer);
        target.remote_addr = ulp::advertised(*peer_hca, ulp::qp_buffer(*peer, bytes));
        target.r_key = ulp::keys_for(s, *peer).r_key;
        to = " on " + peer->name;
    }
    // Data the host writes goes into a buffer no earlier request uses.
    const bool writes_data = op == ulp_op_send || op == ulp_op_write;
    uint8_t *buf = ulp::qp_buffer(qp, bytes, writes_data);
    const uint64_t id = next_wr_id(qp);
    if (writes_data) fill_pattern(buf, bytes, id);
    int status = ulp_post_send_simple(hca->funcs, hca->ptr, qp.ptr, ulp_operation_type(transport), op, id,
                                      buf, static_cast<uint32_t>(bytes), ulp::keys_for(s, qp).l_key, &target);
    if (status != 0) return ulp::failed(c, "post " + op_name + " on " + qp.name, status);
    c.out() << "post " << op_name << " on " << qp.name << to << ": wr_id " << id << ", " << bytes
            << " bytes\n";
    return 0;
}

// ulp post send|write|read|cas|faa|recv [QP] BYTES
int ulp_post(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    static const std::vector<std::string> kinds = {"send", "write", "read", "cas", "faa", "recv"};
    if (args.size() < 3 || args.size() > 4) return ulp::usage(c, "post");
    if (std::find(kinds.begin(), kinds.end(), args[1]) == kinds.end()) return ulp::usage(c, "post");
    uint64_t bytes = 0;
    if (!ulp::parse_number(args.back(), bytes) || bytes > (1u << 30)) return ulp::usage(c, "post");
    std::string error;
    ulp::Object *qp = s.find("qp", args.size() == 4 ? args[2] : "", error);
    if (!qp) return ulp::refused(c, "post " + args[1] + ": " + error);
    if (args[1] == "recv") return post_recv(c, s, *qp, bytes);
    return post_send(c, s, *qp, args[1], bytes);
}

}  // namespace

MARLIX_ULP_SUBCOMMAND(post, "post", "ulp post send|write|read|cas|faa [QP] BYTES | ulp post recv [QP] BYTES",
                      "Post one work request of BYTES from (or into) the QP's buffer; RDMA and atomics "
                      "work on the connected peer's buffer.",
                      ulp_post)

}  // namespace marlix::console
