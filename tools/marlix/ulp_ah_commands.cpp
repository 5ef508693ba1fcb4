// ulp ah: address handles of unreliable-datagram sends.
#include <ostream>

#include "ulp_datapath.hpp"

namespace marlix::console {
namespace {

// ulp ah create [PD] DLID [SL]
int ulp_ah_create(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    // The PD is named (pd1) or omitted; the numbers follow.
    size_t i = 2;
    std::string pd_name;
    if (i < args.size() && args[i].rfind("pd", 0) == 0) pd_name = args[i++];
    uint64_t dlid = 0, sl = 0;
    if (i >= args.size() || !ulp::parse_number(args[i++], dlid) || dlid > 0xffff) return ulp::usage(c, "ah");
    if (i < args.size() && (!ulp::parse_number(args[i++], sl) || sl > 15)) return ulp::usage(c, "ah");
    if (i != args.size()) return ulp::usage(c, "ah");
    std::string error;
    ulp::Object *pd = s.find("pd", pd_name, error);
    if (!pd) return ulp::refused(c, "ah create: " + error);
    ulp::Object *hca = s.hca_of(*pd);
    uint64_t ah = 0;
    int status = ulp_ah_create_simple(hca->funcs, hca->ptr, static_cast<uint32_t>(pd->handle),
                                      static_cast<uint16_t>(dlid), static_cast<uint8_t>(sl), &ah);
    if (status != 0) return ulp::failed(c, "ah create on " + pd->name, status);
    ulp::Object object;
    object.kind = "ah";
    object.hca = hca->name;
    object.handle = ah;
    object.values = {{"dlid", dlid}, {"sl", sl}, {"pd", pd->handle}};
    const ulp::Object &added = s.add(std::move(object));
    c.out() << added.name << ": created on " << hca->name << " in " << pd->name << ", dlid " << dlid
            << ", sl " << sl << ", add_h " << ah << "\n";
    return 0;
}

// ulp ah destroy [AH]
int ulp_ah_destroy(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() > 3) return ulp::usage(c, "ah");
    std::string error;
    ulp::Object *ah = s.find("ah", args.size() == 3 ? args[2] : "", error);
    if (!ah) return ulp::refused(c, "ah destroy: " + error);
    ulp::Object *hca = s.hca_of(*ah);
    const std::string name = ah->name;
    const uint64_t handle = ah->handle;
    int status = ulp_ah_destroy(hca->funcs, hca->ptr, handle);
    if (status != 0) return ulp::failed(c, "ah destroy " + name, status);
    s.forget(name);
    c.out() << name << ": destroyed, add_h " << handle << "\n";
    return 0;
}

int ulp_ah(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() >= 2 && args[1] == "create") return ulp_ah_create(c, s, args);
    if (args.size() >= 2 && args[1] == "destroy") return ulp_ah_destroy(c, s, args);
    return ulp::usage(c, "ah");
}

}  // namespace

MARLIX_ULP_SUBCOMMAND(ah, "ah", "ulp ah create [PD] DLID [SL] | ulp ah destroy [AH]",
                      "Create an address handle to DLID (named ah1, ah2, ...) or destroy one.", ulp_ah)

}  // namespace marlix::console
