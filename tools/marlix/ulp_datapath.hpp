// What the console's data path subcommands (ulp ah, post, poll, mcast, pingpong) share: buffers
// the upper layer sends from and receives into, the generic region's keys, a QP's peer, waiting
// for the adapters, and reading completions.
#pragma once

#include <cstdint>
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "marlix/softhca.hpp"
#include "ulp_datapath.h"
#include "ulp_queues.hpp"
#include "ulp_session.hpp"

namespace marlix::console::ulp {

// A QP's buffer of at least `bytes`. Buffers stay where they are while the QP lives (work in
// flight may still point into them): a larger request, or one that asks for a `fresh` buffer,
// gets a new one, zeroed, and the old ones are kept until the QP is forgotten. A post that writes
// its data asks for a fresh one, so that it never rewrites what the adapter may still be reading
// for an earlier request.
inline uint8_t *qp_buffer(Object &qp, size_t bytes, bool fresh = false) {
    using Buffers = std::vector<std::unique_ptr<std::vector<uint8_t>>>;
    auto *bufs = reinterpret_cast<Buffers *>(qp.values.count("buffers") ? qp.values["buffers"] : 0);
    if (!bufs) {
        bufs = new Buffers();
        qp.values["buffers"] = reinterpret_cast<uint64_t>(bufs);
        auto previous = qp.release;
        qp.release = [previous](Object &o) {
            delete reinterpret_cast<Buffers *>(o.values.at("buffers"));
            if (previous) previous(o);
        };
    }
    if (fresh || bufs->empty() || bufs->back()->size() < bytes)
        bufs->push_back(std::make_unique<std::vector<uint8_t>>(std::max<size_t>(bytes, 4096), 0));
    return bufs->back()->data();
}

// The keys of an HCA's generic region (0 when the call fails). Posts place every gather address
// inside that region, so its keys are the ones that go with them; they belong to the generic PD,
// where ulp connect makes its QPs.
struct GenericRegion {
    uint32_t l_key = 0;
    uint32_t r_key = 0;
};
inline GenericRegion generic_region(Object &hca) {
    GenericRegion g;
    uint64_t mr = 0;
    ulp_get_gen_mr_attrib(hca.funcs, hca.ptr, nullptr, 0, &mr, &g.l_key, &g.r_key);
    return g;
}
// The generic region's keys of the HCA that holds `qp`.
inline GenericRegion keys_for(Session &s, const Object &qp) {
    return generic_region(*s.hca_of(qp));
}

// The address a peer names for a local buffer (inside the generic region).
inline uint64_t advertised(Object &hca, const void *p) {
    unsigned long adv = 0;
    ulp_va2advertise_addr(hca.funcs, hca.ptr, reinterpret_cast<unsigned long>(p), &adv);
    return adv;
}

// The QP's connected peer: the other QP in the session whose QP number is this QP's destination
// and whose HCA answers at the destination's LID. Null when none is known (datagram QPs).
inline Object *peer_of(Session &s, Object &qp) {
    Object *hca = s.hca_of(qp);
    if (!hca) return nullptr;
    std::vector<unsigned char> attr(ulp_sizeof_qp_attr(), 0);
    void *context = nullptr;
    if (ulp_qp_query(hca->funcs, hca->ptr, qp.ptr, &context, attr.data()) != 0) return nullptr;
    uint64_t dest = 0, dlid = 0;
    ulp_qp_attr_get(attr.data(), "query.destanation_qp", &dest);
    ulp_qp_attr_get(attr.data(), "query.primary_add_vec.dlid", &dlid);
    for (const Object *o : s.all()) {
        if (o->kind != "qp" || o == &qp || o->values.at("qp_num") != dest) continue;
        Object *other = const_cast<Object *>(o);
        Object *other_hca = s.hca_of(*other);
        if (other_hca && port_lid(*other_hca, kPortOfConnections) == dlid) return other;
    }
    return nullptr;
}

// Lets the adapters finish what was posted (the stepped engine runs only when asked).
inline void settle() {
    softhca::run_until_idle();
}

}  // namespace marlix::console::ulp
