// ulp mcast: attaching a datagram QP to a multicast group and detaching it. The GID is written as
// on the wire (IPv6 notation, "ff12:401b::1"); the group's LID is 0xc001 unless given.
#include <arpa/inet.h>

#include <cstdio>
#include <ostream>

#include "ulp_datapath.hpp"

namespace marlix::console {
namespace {

inline constexpr uint64_t kDefaultMlid = 0xc001;

// ulp mcast attach|detach [QP] GID [MLID]
int ulp_mcast(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() < 3 || args.size() > 5 || (args[1] != "attach" && args[1] != "detach"))
        return ulp::usage(c, "mcast");
    // The GID is the first word with a colon; a QP name may come before it, a LID after it.
    size_t g = 2;
    std::string qp_name;
    if (args[g].find(':') == std::string::npos) qp_name = args[g++];
    if (g >= args.size()) return ulp::usage(c, "mcast");
    unsigned char wire[16];
    if (inet_pton(AF_INET6, args[g].c_str(), wire) != 1)
        return ulp::refused(c, "mcast: not a GID: " + args[g]);
    uint64_t mlid = kDefaultMlid;
    if (g + 1 < args.size() && (!ulp::parse_number(args[g + 1], mlid) || mlid > 0xffff))
        return ulp::usage(c, "mcast");
    if (g + 2 < args.size()) return ulp::usage(c, "mcast");
    std::string error;
    ulp::Object *qp = s.find("qp", qp_name, error);
    if (!qp) return ulp::refused(c, "mcast " + args[1] + ": " + error);
    ulp::Object *hca = s.hca_of(*qp);
    // The generic order is the wire order reversed.
    uint8_t gid[16];
    for (int i = 0; i < 16; ++i) gid[i] = wire[15 - i];
    int status = args[1] == "attach"
                     ? ulp_mcast_attach(hca->funcs, hca->ptr, static_cast<uint16_t>(mlid), gid, qp->ptr)
                     : ulp_mcast_detach(hca->funcs, hca->ptr, static_cast<uint16_t>(mlid), gid,
                                        static_cast<uint32_t>(qp->values.at("port")), qp->ptr);
    if (status != 0) return ulp::failed(c, "mcast " + args[1] + " " + qp->name, status);
    char text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, wire, text, sizeof(text));
    char lid[16];
    std::snprintf(lid, sizeof(lid), "0x%04llx", static_cast<unsigned long long>(mlid));
    c.out() << qp->name << ": " << (args[1] == "attach" ? "attached to " : "detached from ") << text
            << " (mlid " << lid << ")\n";
    return 0;
}

}  // namespace

MARLIX_ULP_SUBCOMMAND(mcast, "mcast", "ulp mcast attach|detach [QP] GID [MLID]",
                      "Attach a datagram QP to the multicast group GID (wire notation, e.g. ff12:401b::1) or "
                      "detach it.",
                      ulp_mcast)

}  // namespace marlix::console
