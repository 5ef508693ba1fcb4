// What the ulp cq, qp and connect subcommands share: QP attribute records by field path, the
// attributes an upper layer sends for each transition, and the calls that make CQs and QPs and
// register them as session objects.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "ulp_session.hpp"
#include "ulp_verbs_queues.h"

namespace marlix::console::ulp {

// A QP attribute record (the generic attribute union), zeroed.
class QpRecord {
  public:
    QpRecord() : bytes_(ulp_sizeof_qp_attr(), 0) {}
    bool set(const std::string &field, uint64_t value) {
        return ulp_qp_attr_set(data(), field.c_str(), value) == 0;
    }
    uint64_t get(const std::string &field) const {
        uint64_t value = 0;
        ulp_qp_attr_get(bytes_.data(), field.c_str(), &value);
        return value;
    }
    void *data() { return bytes_.data(); }

  private:
    std::vector<unsigned char> bytes_;
};

// A CQ's completion events, counted by its callback (the CQ's context points at the counter).
inline void count_completion_event(uint64_t context) {
    reinterpret_cast<std::atomic<uint64_t> *>(context)->fetch_add(1);
}
inline uint64_t completion_events(const Object &cq) {
    return reinterpret_cast<const std::atomic<uint64_t> *>(cq.values.at("events_counter"))->load();
}

// Creates a CQ of `entries` on `hca` and adds it to the session; status of the entry point.
inline int create_cq(Session &s, Object &hca, uint32_t entries, Object **made) {
    auto *counter = new std::atomic<uint64_t>(0);
    void *cq = nullptr;
    uint32_t actual = 0;
    int status = ulp_cq_create(hca.funcs, hca.ptr, entries, &count_completion_event, counter, &cq, &actual);
    if (status != 0 && !cq) {
        delete counter;
        return status;
    }
    // A CQ whose handler could not be registered is still made: the session keeps it to destroy it.
    Object object;
    object.kind = "cq";
    object.hca = hca.name;
    object.ptr = cq;
    object.values = {
        {"entries", actual}, {"requested", entries}, {"events_counter", reinterpret_cast<uint64_t>(counter)}};
    object.release = [](Object &o) {
        delete reinterpret_cast<std::atomic<uint64_t> *>(o.values.at("events_counter"));
    };
    *made = &s.add(std::move(object));
    return status;
}

// Queue sizes of the QPs the console makes.
inline constexpr uint32_t kQpWorkRequests = 16;
inline constexpr uint32_t kQpGatherEntries = 1;
inline constexpr uint32_t kPortOfConnections = 1;

// Creates a QP of `type` (a generic type value) in `pd` on the CQs; `port` > 0 asks for a special
// QP on that port. Adds it to the session.
inline int create_qp(Session &s, Object &hca, int type, const Object &pd, const Object &scq,
                     const Object &rcq, unsigned port, Object **made) {
    QpRecord req, result;
    req.set("create.qp_type", static_cast<uint64_t>(type));
    req.set("create.cq_send_h", reinterpret_cast<uint64_t>(scq.ptr));
    req.set("create.cq_receive_h", reinterpret_cast<uint64_t>(rcq.ptr));
    req.set("create.send_max_outstand_wr", kQpWorkRequests);
    req.set("create.receive_max_outstand_wr", kQpWorkRequests);
    req.set("create.max_scatgat_per_send_wr", kQpGatherEntries);
    req.set("create.max_scatgat_per_receive_wr", kQpGatherEntries);
    req.set("create.pd_h", pd.handle);
    void *qp = nullptr;
    int status = port ? ulp_qp_get_special(hca.funcs, hca.ptr, port, req.data(), nullptr, &qp, result.data())
                      : ulp_qp_create(hca.funcs, hca.ptr, req.data(), nullptr, &qp, result.data());
    if (status != 0) return status;
    Object object;
    object.kind = "qp";
    object.hca = hca.name;
    object.ptr = qp;
    object.values = {{"type", static_cast<uint64_t>(type)},
                     {"qp_num", result.get("create_return.qp_num")},
                     {"send_wr", result.get("create_return.send_max_outstand_wr")},
                     {"receive_wr", result.get("create_return.receive_max_outstand_wr")},
                     {"send_sg", result.get("create_return.max_scatgat_per_send_wr")},
                     {"receive_sg", result.get("create_return.max_scatgat_per_receive_wr")},
                     {"port", port ? port : kPortOfConnections}};
    *made = &s.add(std::move(object));
    return 0;
}

// The attributes an upper layer sends on the way to `state` for a QP of `type`, by their path
// under "modify.params.<state>.": the port and partition on INIT (a queue key for datagrams,
// remote read and write for connections); the path MTU and PSN on RTR, the requester's timers
// and PSN on RTS. The destination (destanation_qp, remote_add_vec.dlid) is the caller's.
inline std::map<std::string, uint64_t> default_attributes(const std::string &state, int type) {
    const bool datagram = type == ulp_qp_type_value("ud") || type >= ulp_qp_type_value("smi");
    const bool reliable = type == ulp_qp_type_value("rc");
    if (state == "init") {
        std::map<std::string, uint64_t> a = {{"p_key_indx", 0}, {"phy_port_num", kPortOfConnections}};
        if (datagram)
            a["q_key"] = 0x11111111;
        else
            a["access_control"] = 0x06;
        return a;
    }
    if (state == "rtr" && !datagram) {
        std::map<std::string, uint64_t> a = {{"receive_psn", 0}, {"remote_add_vec.pmtu", 3}};
        if (reliable) a["responder_rdma_r_atom_num"] = 4;
        return a;
    }
    if (state == "rts") {
        std::map<std::string, uint64_t> a = {{"send_psn", 0}};
        if (reliable) {
            a["local_ack_timeout"] = 14;
            a["retry_num"] = 7;
            a["rnr_num"] = 7;
            a["dest_out_rdma_r_atom_num"] = 4;
        }
        return a;
    }
    return {};
}

// Moves `qp` to `state` with `attributes` (paths under "modify.params.<state>."); each attribute
// sets its mask bit, and an attribute "mask" replaces the computed mask. On success the depths the
// device reports land in `result`. Returns the entry point's status, or -1 with `error` set for an
// attribute the record does not have.
inline int modify_qp(Object &hca, Object &qp, const std::string &state,
                     const std::map<std::string, uint64_t> &attributes, QpRecord &result,
                     std::string &error) {
    QpRecord req;
    req.set("modify.qp_modify_into_state", static_cast<uint64_t>(ulp_qp_state_value(state.c_str())));
    req.set("modify.qp_type", qp.values["type"]);
    uint64_t mask = 0;
    bool explicit_mask = false;
    for (const auto &[field, value] : attributes) {
        if (field == "mask") {
            mask = value;
            explicit_mask = true;
            continue;
        }
        if (!req.set("modify.params." + state + "." + field, value)) {
            error = "no attribute " + field + " on the way to " + state;
            return -1;
        }
        const uint64_t bit = ulp_qp_modify_field_mask(state.c_str(), field.c_str());
        if (!explicit_mask) mask |= bit;
    }
    // The requester's timers of RTR travel with the address vector.
    if (!explicit_mask && state == "rtr" && (mask & ulp_qp_modify_field_mask("rtr", "remote_add_vec.dlid"))) {
        for (const char *timer : {"l_ack_timeout", "retry_count", "rnr_retry_count"})
            if (attributes.count(std::string("remote_add_vec.") + timer)) {
                static const std::map<std::string, std::string> bits = {
                    {"l_ack_timeout", "local_ack_timeout"},
                    {"retry_count", "retry_num"},
                    {"rnr_retry_count", "rnr_num"}};
                mask |= ulp_qp_modify_field_mask("rts", bits.at(timer).c_str());
            }
    }
    req.set("modify.ox_qp_attr_mask", mask);
    return ulp_qp_modify(hca.funcs, hca.ptr, qp.ptr, req.data(), result.data());
}

// The LID of port `port` of an open HCA (0 when the query fails).
inline uint64_t port_lid(Object &hca, unsigned port) {
    std::vector<unsigned char> attrib(ulp_sizeof_port_attrib(), 0);
    uint64_t lid = 0;
    if (ulp_port_query(hca.funcs, hca.ptr, port, attrib.data()) != 0) return 0;
    ulp_port_attrib_field(attrib.data(), "port_base_lid", &lid);
    return lid;
}

}  // namespace marlix::console::ulp
