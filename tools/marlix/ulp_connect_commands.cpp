// ulp connect: a CQ and a QP in the generic PD of each of the two most recently opened HCAs (or
// twice on the one HCA open), both brought to RTS with each other as destination.
#include <ostream>

#include "ulp_queues.hpp"

namespace marlix::console {
namespace {

inline constexpr uint32_t kConnectCqEntries = 64;

struct Side {
    ulp::Object *hca = nullptr;
    ulp::Object *pd = nullptr;
    ulp::Object *cq = nullptr;
    ulp::Object *qp = nullptr;
    uint64_t lid = 0;
};

// The session's name for the HCA's generic PD, added the first time a pair is connected on it.
// Traffic through the module gathers from its generic region, whose keys belong to that PD, so the
// QPs of a pair live there.
ulp::Object *generic_pd(Console &c, ulp::Session &s, ulp::Object &hca) {
    for (const ulp::Object *o : s.all())
        if (o->kind == "pd" && o->hca == hca.name && o->values.count("generic"))
            return const_cast<ulp::Object *>(o);
    uint32_t pd_h = 0;
    int status = ulp_get_gen_pd_h(hca.funcs, hca.ptr, &pd_h);
    if (status != 0) {
        ulp::failed(c, "connect: generic pd of " + hca.name, status);
        return nullptr;
    }
    ulp::Object pd;
    pd.kind = "pd";
    pd.hca = hca.name;
    pd.handle = pd_h;
    pd.values["generic"] = 1;
    return &s.add(std::move(pd));
}

// Makes the CQ and QP of one side, in the HCA's generic PD.
int make_side(Console &c, ulp::Session &s, int type, Side &side) {
    side.pd = generic_pd(c, s, *side.hca);
    if (!side.pd) return 1;
    int status = ulp::create_cq(s, *side.hca, kConnectCqEntries, &side.cq);
    if (status != 0) return ulp::failed(c, "connect: cq create on " + side.hca->name, status);
    status = ulp::create_qp(s, *side.hca, type, *side.pd, *side.cq, *side.cq, 0, &side.qp);
    if (status != 0) return ulp::failed(c, "connect: qp create on " + side.hca->name, status);
    side.lid = ulp::port_lid(*side.hca, ulp::kPortOfConnections);
    return 0;
}

int step(Console &c, Side &side, const std::string &state, std::map<std::string, uint64_t> attributes) {
    ulp::QpRecord result;
    std::string error;
    int status = ulp::modify_qp(*side.hca, *side.qp, state, attributes, result, error);
    if (status < 0) return ulp::refused(c, "connect: " + error);
    if (status != 0) return ulp::failed(c, "connect: qp modify " + side.qp->name + " " + state, status);
    return 0;
}

// ulp connect rc|uc|ud
int ulp_connect(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() != 2) return ulp::usage(c, "connect");
    const std::string kind = args[1];
    if (kind != "rc" && kind != "uc" && kind != "ud")
        return ulp::refused(c, "connect: not a QP type: " + kind);
    const int type = ulp_qp_type_value(kind.c_str());
    std::vector<ulp::Object *> hcas;
    for (const ulp::Object *o : s.all())
        if (o->kind == "hca") hcas.push_back(const_cast<ulp::Object *>(o));
    if (hcas.empty()) return ulp::refused(c, "connect: no HCA is open");
    Side a, b;
    a.hca = hcas.size() >= 2 ? hcas[hcas.size() - 2] : hcas.back();
    b.hca = hcas.back();
    if (make_side(c, s, type, a) || make_side(c, s, type, b)) return 1;

    for (Side *side : {&a, &b})
        if (step(c, *side, "init", ulp::default_attributes("init", type))) return 1;
    const bool datagram = kind == "ud";
    for (auto [side, peer] : {std::pair{&a, &b}, std::pair{&b, &a}}) {
        auto attributes = ulp::default_attributes("rtr", type);
        if (!datagram) {
            attributes["destanation_qp"] = peer->qp->values["qp_num"];
            attributes["remote_add_vec.dlid"] = peer->lid;
        }
        if (step(c, *side, "rtr", attributes)) return 1;
    }
    for (Side *side : {&a, &b})
        if (step(c, *side, "rts", ulp::default_attributes("rts", type))) return 1;

    c.out() << "connect " << kind << ": " << a.qp->name << " on " << a.hca->name << " (qp_num "
            << a.qp->values["qp_num"] << ", lid " << a.lid << ") <-> " << b.qp->name << " on " << b.hca->name
            << " (qp_num " << b.qp->values["qp_num"] << ", lid " << b.lid << "), both ox_qp_state_rts\n";
    return 0;
}

}  // namespace

MARLIX_ULP_SUBCOMMAND(
    connect, "connect", "ulp connect rc|uc|ud",
    "Make a CQ and a QP in the generic PD of each of the two most recently opened HCAs (or two "
    "on the one open) and bring both QPs to RTS with each other as destination.",
    ulp_connect)

}  // namespace marlix::console
