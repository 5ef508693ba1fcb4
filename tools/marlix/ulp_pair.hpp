// Connecting queue pairs through a provider, as an upper layer does: a CQ per side, a QP per side
// on the HCA's generic PD, both driven RESET -> INIT -> RTR -> RTS towards each other (RC, UC) or
// to RTS on their own (UD). Shared by the console (`ulp pingpong`), the data path tests and the
// benchmark. Every call goes through the provider's function table.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ulp_datapath.h"
#include "ulp_verbs.h"
#include "ulp_verbs_queues.h"

namespace marlix::ulp_pair {

// The Q_Key UD pairs use.
inline constexpr uint32_t kQkey = 0x11110000;
// The PSN both directions start at.
inline constexpr uint32_t kPsn = 0x100;

struct Side {
    const ulp_funcs_t *funcs = nullptr;
    void *hca = nullptr;
    uint16_t lid = 0;    // port 1's LID
    uint32_t pd = 0;     // the HCA's generic PD
    uint32_t l_key = 0;  // the generic region's keys
    uint32_t r_key = 0;
    void *cq = nullptr;
    void *qp = nullptr;
    uint32_t qpn = 0;
};

// A modify request: fields set by their path under "modify.params.<state>.", each adding the
// mask bit it belongs to.
class Modify {
  public:
    Modify(const char *state) : state_(state), bytes_(ulp_sizeof_qp_attr(), 0) {
        ulp_qp_attr_set(bytes_.data(), "modify.qp_modify_into_state", uint64_t(ulp_qp_state_value(state)));
    }
    Modify &set(const char *field, uint64_t value) {
        const std::string path = "modify.params." + state_ + "." + field;
        if (ulp_qp_attr_set(bytes_.data(), path.c_str(), value) != 0) ok_ = false;
        mask_ |= ulp_qp_modify_field_mask(state_.c_str(), field);
        return *this;
    }
    int apply(const Side &s) {
        if (!ok_) return -1;
        ulp_qp_attr_set(bytes_.data(), "modify.ox_qp_attr_mask", mask_);
        return ulp_qp_modify(s.funcs, s.hca, s.qp, bytes_.data(), nullptr);
    }

  private:
    std::string state_;
    std::vector<unsigned char> bytes_;
    uint64_t mask_ = 0;
    bool ok_ = true;
};

// Fills what a side needs from its open HCA: port 1's LID, the generic PD and region keys.
inline int prepare(Side &s) {
    std::vector<unsigned char> port(ulp_sizeof_port_attrib(), 0);
    int rc = ulp_port_query(s.funcs, s.hca, 1, port.data());
    if (rc != 0) return rc;
    uint64_t lid = 0;
    ulp_port_attrib_field(port.data(), "port_base_lid", &lid);
    s.lid = uint16_t(lid);
    if ((rc = ulp_get_gen_pd_h(s.funcs, s.hca, &s.pd)) != 0) return rc;
    uint64_t mr = 0;
    return ulp_get_gen_mr_attrib(s.funcs, s.hca, nullptr, 0, &mr, &s.l_key, &s.r_key);
}

// A CQ of `entries` and a QP of `type` ("rc", "uc", "ud") with `depth` requests each way.
inline int create(Side &s, const char *type, uint32_t entries, uint32_t depth) {
    uint32_t actual = 0;
    int rc = ulp_cq_create(s.funcs, s.hca, entries, nullptr, nullptr, &s.cq, &actual);
    if (rc != 0) return rc;
    std::vector<unsigned char> req(ulp_sizeof_qp_attr(), 0), out(ulp_sizeof_qp_attr(), 0);
    ulp_qp_attr_set(req.data(), "create.qp_type", uint64_t(ulp_qp_type_value(type)));
    ulp_qp_attr_set(req.data(), "create.cq_send_h", reinterpret_cast<uint64_t>(s.cq));
    ulp_qp_attr_set(req.data(), "create.cq_receive_h", reinterpret_cast<uint64_t>(s.cq));
    ulp_qp_attr_set(req.data(), "create.send_max_outstand_wr", depth);
    ulp_qp_attr_set(req.data(), "create.receive_max_outstand_wr", depth);
    ulp_qp_attr_set(req.data(), "create.max_scatgat_per_send_wr", 8);
    ulp_qp_attr_set(req.data(), "create.max_scatgat_per_receive_wr", 8);
    ulp_qp_attr_set(req.data(), "create.pd_h", s.pd);
    if ((rc = ulp_qp_create(s.funcs, s.hca, req.data(), nullptr, &s.qp, out.data())) != 0) return rc;
    uint64_t qpn = 0;
    ulp_qp_attr_get(out.data(), "create_return.qp_num", &qpn);
    s.qpn = uint32_t(qpn);
    return 0;
}

// Brings `s` to RTS; for RC and UC towards `peer`.
inline int connect_one(const Side &s, const Side &peer, const std::string &type) {
    int rc;
    if (type == "ud") {
        if ((rc = Modify("init").set("p_key_indx", 0).set("phy_port_num", 1).set("q_key", kQkey).apply(s)) !=
            0)
            return rc;
        if ((rc = Modify("rtr").apply(s)) != 0) return rc;
        return Modify("rts").set("send_psn", kPsn).apply(s);
    }
    if ((rc = Modify("init")
                  .set("p_key_indx", 0)
                  .set("phy_port_num", 1)
                  .set("access_control", 0x0e)
                  .apply(s)) != 0)
        return rc;
    Modify rtr("rtr");
    rtr.set("destanation_qp", peer.qpn)
        .set("receive_psn", kPsn)
        .set("remote_add_vec.dlid", peer.lid)
        .set("remote_add_vec.phy_port_num", 1)
        .set("remote_add_vec.pmtu", 4);
    if (type == "rc") rtr.set("responder_rdma_r_atom_num", 4);
    if ((rc = rtr.apply(s)) != 0) return rc;
    Modify rts("rts");
    rts.set("send_psn", kPsn);
    if (type == "rc")
        rts.set("local_ack_timeout", 14)
            .set("retry_num", 7)
            .set("rnr_num", 7)
            .set("dest_out_rdma_r_atom_num", 4);
    return rts.apply(s);
}

// Both sides created and connected. `a` and `b` name open HCAs (the same one for a loopback pair).
inline int connect(Side &a, Side &b, const char *type, uint32_t entries = 256, uint32_t depth = 128) {
    int rc;
    if ((rc = prepare(a)) != 0 || (rc = prepare(b)) != 0) return rc;
    if ((rc = create(a, type, entries, depth)) != 0 || (rc = create(b, type, entries, depth)) != 0) return rc;
    if ((rc = connect_one(a, b, type)) != 0) return rc;
    return connect_one(b, a, type);
}

// Destroys what create() made (QP, then CQ).
inline void release(Side &s) {
    if (s.qp) ulp_qp_destroy(s.funcs, s.hca, s.qp);
    if (s.cq) ulp_cq_destroy(s.funcs, s.hca, s.cq);
    s.qp = s.cq = nullptr;
}

}  // namespace marlix::ulp_pair
