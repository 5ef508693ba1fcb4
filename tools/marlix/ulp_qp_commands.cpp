// ulp qp: queue pairs of an open HCA: create (ordinary and special), drive through the states,
// query and destroy.
#include <cstdio>
#include <ostream>

#include "ulp_queues.hpp"

namespace marlix::console {
namespace {

// PD, send CQ and receive CQ from the words at `first` on (each optional; the receive CQ defaults
// to the send CQ).
bool find_pd_and_cqs(Console &c, ulp::Session &s, const std::vector<std::string> &args, size_t first,
                     const std::string &what, ulp::Object *&pd, ulp::Object *&scq, ulp::Object *&rcq) {
    std::string error;
    auto word = [&](size_t i) { return args.size() > i ? args[i] : std::string(); };
    pd = s.find("pd", word(first), error);
    if (pd) scq = s.find("cq", word(first + 1), error);
    if (pd && scq) rcq = word(first + 2).empty() ? scq : s.find("cq", word(first + 2), error);
    if (!pd || !scq || !rcq) {
        ulp::refused(c, what + ": " + error);
        return false;
    }
    if (s.hca_of(*scq) != s.hca_of(*pd) || s.hca_of(*rcq) != s.hca_of(*pd)) {
        ulp::refused(c,
                     what + ": " + pd->name + ", " + scq->name + " and " + rcq->name + " are not on one HCA");
        return false;
    }
    return true;
}

std::string describe_created(const ulp::Object &qp, const ulp::Object &pd, const ulp::Object &scq,
                             const ulp::Object &rcq) {
    const auto &v = qp.values;
    return "in " + pd.name + ", send " + scq.name + ", receive " + rcq.name + ", qp_num " +
           std::to_string(v.at("qp_num")) + ", send wr " + std::to_string(v.at("send_wr")) + ", receive wr " +
           std::to_string(v.at("receive_wr")) + ", send sg " + std::to_string(v.at("send_sg")) +
           ", receive sg " + std::to_string(v.at("receive_sg"));
}

// ulp qp create rc|uc|ud [PD [SCQ [RCQ]]]
int ulp_qp_create_cmd(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() < 3 || args.size() > 6) return ulp::usage(c, "qp");
    const int type = ulp_qp_type_value(args[2].c_str());
    if (args[2] != "rc" && args[2] != "uc" && args[2] != "ud")
        return ulp::refused(c, "qp create: not a QP type: " + args[2]);
    ulp::Object *pd = nullptr, *scq = nullptr, *rcq = nullptr;
    if (!find_pd_and_cqs(c, s, args, 3, "qp create", pd, scq, rcq)) return 1;
    ulp::Object *hca = s.hca_of(*pd);
    ulp::Object *qp = nullptr;
    int status = ulp::create_qp(s, *hca, type, *pd, *scq, *rcq, 0, &qp);
    if (status != 0) return ulp::failed(c, "qp create " + args[2] + " on " + hca->name, status);
    c.out() << qp->name << ": " << args[2] << " created on " << hca->name << " "
            << describe_created(*qp, *pd, *scq, *rcq) << "\n";
    return 0;
}

// ulp qp special smi|gsi PORT [PD [SCQ [RCQ]]]
int ulp_qp_special_cmd(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() < 4 || args.size() > 7) return ulp::usage(c, "qp");
    if (args[2] != "smi" && args[2] != "gsi")
        return ulp::refused(c, "qp special: not a special QP: " + args[2]);
    uint64_t port = 0;
    if (!ulp::parse_number(args[3], port) || port == 0 || port > 255)
        return ulp::refused(c, "qp special: not a port: " + args[3]);
    ulp::Object *pd = nullptr, *scq = nullptr, *rcq = nullptr;
    if (!find_pd_and_cqs(c, s, args, 4, "qp special", pd, scq, rcq)) return 1;
    ulp::Object *hca = s.hca_of(*pd);
    ulp::Object *qp = nullptr;
    int status = ulp::create_qp(s, *hca, ulp_qp_type_value(args[2].c_str()), *pd, *scq, *rcq,
                                static_cast<unsigned>(port), &qp);
    if (status != 0) return ulp::failed(c, "qp special " + args[2] + " on " + hca->name, status);
    c.out() << qp->name << ": " << args[2] << " on port " << port << " of " << hca->name << " "
            << describe_created(*qp, *pd, *scq, *rcq) << "\n";
    return 0;
}

// ulp qp modify [QP] STATE [ATTR=VALUE...]
int ulp_qp_modify_cmd(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() < 3) return ulp::usage(c, "qp");
    size_t i = 2;
    std::string qp_name;
    if (ulp_qp_state_value(args[i].c_str()) < 0) qp_name = args[i++];
    if (i >= args.size() || ulp_qp_state_value(args[i].c_str()) < 0)
        return ulp::refused(c, "qp modify: no state (init, rtr, rts, sqd, err, reset)");
    std::string state = args[i++];
    if (state == "error") state = "err";
    std::string error;
    ulp::Object *qp = s.find("qp", qp_name, error);
    if (!qp) return ulp::refused(c, "qp modify: " + error);
    ulp::Object *hca = s.hca_of(*qp);
    auto attributes = ulp::default_attributes(state, static_cast<int>(qp->values["type"]));
    for (; i < args.size(); i++) {
        const size_t eq = args[i].find('=');
        uint64_t value = 0;
        if (eq == std::string::npos || !ulp::parse_number(args[i].substr(eq + 1), value))
            return ulp::refused(c, "qp modify: not ATTR=VALUE: " + args[i]);
        attributes[args[i].substr(0, eq)] = value;
    }
    ulp::QpRecord result;
    int status = ulp::modify_qp(*hca, *qp, state, attributes, result, error);
    if (status < 0) return ulp::refused(c, "qp modify: " + error);
    if (status != 0) return ulp::failed(c, "qp modify " + qp->name + " " + state, status);
    c.out() << qp->name << ": modified to " << ulp_qp_state_name(ulp_qp_state_value(state.c_str()))
            << ", send wr " << result.get("modify_return.send_max_outstand_wr") << ", receive wr "
            << result.get("modify_return.receive_max_outstand_wr") << "\n";
    return 0;
}

// The session's name of a CQ handle, or the handle in hex.
std::string cq_name(ulp::Session &s, uint64_t handle) {
    for (const ulp::Object *o : s.all())
        if (o->kind == "cq" && reinterpret_cast<uint64_t>(o->ptr) == handle) return o->name;
    char text[32];
    std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(handle));
    return text;
}

// ulp qp query [QP]: one line naming the QP, then one line per field of the generic query record.
int ulp_qp_query_cmd(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() > 3) return ulp::usage(c, "qp");
    std::string error;
    ulp::Object *qp = s.find("qp", args.size() == 3 ? args[2] : "", error);
    if (!qp) return ulp::refused(c, "qp query: " + error);
    ulp::Object *hca = s.hca_of(*qp);
    ulp::QpRecord out;
    // The query leaves the type to the caller: the session knows it.
    out.set("query.qp_type", qp->values["type"]);
    void *context = nullptr;
    int status = ulp_qp_query(hca->funcs, hca->ptr, qp->ptr, &context, out.data());
    if (status != 0) return ulp::failed(c, "qp query " + qp->name, status);
    c.out() << qp->name << " on " << hca->name << ":\n";
    const std::string prefix = "query.";
    for (size_t k = 0;; k++) {
        const char *field = ulp_qp_attr_field_name(prefix.c_str(), k);
        if (!field) break;
        const std::string name = std::string(field).substr(prefix.size());
        const uint64_t value = out.get(field);
        c.out() << "  " << name << ": ";
        if (name == "qp_state")
            c.out() << ulp_qp_state_name(static_cast<int>(value));
        else if (name == "qp_type")
            c.out() << ulp_qp_type_name(static_cast<int>(value));
        else if (name == "cq_send_h" || name == "cq_receive_h")
            c.out() << cq_name(s, value);
        else
            c.out() << value;
        c.out() << "\n";
    }
    for (const char *gid : {"query.primary_add_vec.global_dest.d_gid",
                            "query.alternate_path.al_path_add_vec.global_dest.d_gid"}) {
        const uint8_t *bytes = ulp_qp_attr_bytes(out.data(), gid);
        c.out() << "  " << (gid + prefix.size()) << ":";
        char text[4];
        for (int b = 0; b < 16; b++) {
            std::snprintf(text, sizeof(text), "%s%02x", b ? ":" : " ", bytes[b]);
            c.out() << text;
        }
        c.out() << "\n";
    }
    return 0;
}

// ulp qp destroy [QP]
int ulp_qp_destroy_cmd(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() > 3) return ulp::usage(c, "qp");
    std::string error;
    ulp::Object *qp = s.find("qp", args.size() == 3 ? args[2] : "", error);
    if (!qp) return ulp::refused(c, "qp destroy: " + error);
    ulp::Object *hca = s.hca_of(*qp);
    const std::string name = qp->name;
    int status = ulp_qp_destroy(hca->funcs, hca->ptr, qp->ptr);
    if (status != 0) return ulp::failed(c, "qp destroy " + name, status);
    s.forget(name);
    c.out() << name << ": destroyed\n";
    return 0;
}

int ulp_qp(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() >= 2) {
        if (args[1] == "create") return ulp_qp_create_cmd(c, s, args);
        if (args[1] == "special") return ulp_qp_special_cmd(c, s, args);
        if (args[1] == "modify") return ulp_qp_modify_cmd(c, s, args);
        if (args[1] == "query") return ulp_qp_query_cmd(c, s, args);
        if (args[1] == "destroy") return ulp_qp_destroy_cmd(c, s, args);
    }
    return ulp::usage(c, "qp");
}

}  // namespace

MARLIX_ULP_SUBCOMMAND(
    qp, "qp",
    "ulp qp create rc|uc|ud [PD [SCQ [RCQ]]] | ulp qp special smi|gsi PORT [PD [SCQ [RCQ]]] | "
    "ulp qp modify [QP] init|rtr|rts|sqd|err|reset [ATTR=VALUE...] | ulp qp query|destroy [QP]",
    "Create (named qp1, qp2, ...), move through the states, query or destroy a queue pair.", ulp_qp)

}  // namespace marlix::console
