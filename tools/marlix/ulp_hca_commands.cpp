// ulp open, ulp close and ulp query: an HCA of the provider "mlx" as an upper layer uses it.
#include <cstdio>
#include <ostream>
#include <vector>

#include "ulp_session.hpp"

namespace marlix::console {
namespace {

// The table room the queries give: more than any port of the adapter has.
constexpr uint32_t kTableRoom = 256;

int ulp_open(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() > 2) return ulp::usage(c, "open");
    const ulp_funcs_t *funcs = ulp_find_provider(ulp::kProvider);
    if (!funcs) return ulp::refused(c, "no provider \"mlx\" (is adaptor-mlx loaded?)");
    const std::string device = args.size() == 2 ? args[1] : ulp_default_hca_name();
    void *hca = nullptr;
    int status = ulp_hca_open(funcs, device.c_str(), nullptr, &hca);
    if (status != 0) return ulp::failed(c, "open " + device, status);
    if (!hca) {
        // The provider answered ok without a handle: nothing to use.
        c.err() << "ulp: open " << device << ": " << ulp_status_name(status) << " (" << status
                << ") without an HCA handle\n";
        return 1;
    }
    ulp::Object object;
    object.kind = "hca";
    object.device = device;
    object.funcs = funcs;
    object.ptr = hca;
    const ulp::Object &added = s.add(std::move(object));
    c.out() << added.name << ": " << device << " opened\n";
    return 0;
}

int ulp_close(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() > 2) return ulp::usage(c, "close");
    std::string error;
    ulp::Object *hca = s.find("hca", args.size() == 2 ? args[1] : "", error);
    if (!hca) return ulp::refused(c, "close: " + error);
    const std::string name = hca->name, device = hca->device;
    int status = ulp_hca_close(hca->funcs, hca->ptr);
    // The provider releases the HCA whatever the status: its objects are gone too.
    s.forget(name);
    if (status != 0) return ulp::failed(c, "close " + name, status);
    c.out() << name << ": " << device << " closed\n";
    return 0;
}

bool parse_port(const std::string &text, unsigned &port) {
    uint64_t value = 0;
    if (!ulp::parse_number(text, value) || value > 255) return false;
    port = static_cast<unsigned>(value);
    return true;
}

// A GID in the usual notation: the generic record holds the bytes in reverse order.
std::string gid_text(const uint8_t *generic) {
    std::string out;
    char part[8];
    for (int k = 15; k >= 1; k -= 2) {
        std::snprintf(part, sizeof(part), "%02x%02x", generic[k], generic[k - 1]);
        if (!out.empty()) out += ":";
        out += part;
    }
    return out;
}

// ulp query hca | port N | gid N | pkey N   [HCA]
int ulp_query(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() < 2) return ulp::usage(c, "query");
    const std::string &what = args[1];
    const bool has_port = what == "port" || what == "gid" || what == "pkey";
    const size_t words = has_port ? 3 : 2;
    if ((what != "hca" && !has_port) || args.size() < words || args.size() > words + 1)
        return ulp::usage(c, "query");
    unsigned port = 0;
    if (has_port && !parse_port(args[2], port))
        return ulp::refused(c, "query: not a port number: " + args[2]);
    std::string error;
    ulp::Object *hca = s.find("hca", args.size() > words ? args[words] : "", error);
    if (!hca) return ulp::refused(c, "query: " + error);
    char line[512];

    if (what == "hca") {
        std::vector<unsigned char> attrib(ulp_sizeof_hca_attrib(), 0);
        int status = ulp_hca_query(hca->funcs, hca->ptr, attrib.data());
        if (status != 0) return ulp::failed(c, "query hca on " + hca->name, status);
        ulp_format_hca_attrib(attrib.data(), line, sizeof(line));
        c.out() << hca->name << ": " << line << "\n";
    } else if (what == "port") {
        std::vector<unsigned char> attrib(ulp_sizeof_port_attrib(), 0);
        int status = ulp_port_query(hca->funcs, hca->ptr, port, attrib.data());
        if (status != 0)
            return ulp::failed(c, "query port " + std::to_string(port) + " on " + hca->name, status);
        ulp_format_port_attrib(attrib.data(), line, sizeof(line));
        c.out() << hca->name << ": " << line << "\n";
    } else if (what == "gid") {
        std::vector<uint8_t> gids(kTableRoom * 16, 0);
        uint32_t size = kTableRoom;
        int status = ulp_get_port_gid_tbl(hca->funcs, hca->ptr, port, &size, gids.data());
        if (status != 0)
            return ulp::failed(c, "query gid " + std::to_string(port) + " on " + hca->name, status);
        c.out() << hca->name << ": port " << port << ": " << size << " GIDs";
        if (size) c.out() << ", GID 0 " << gid_text(gids.data());
        c.out() << "\n";
    } else {
        std::vector<uint16_t> pkeys(kTableRoom, 0);
        uint32_t size = kTableRoom;
        int status = ulp_get_port_partition_tbl(hca->funcs, hca->ptr, port, &size, pkeys.data());
        if (status != 0)
            return ulp::failed(c, "query pkey " + std::to_string(port) + " on " + hca->name, status);
        c.out() << hca->name << ": port " << port << ": " << size << " P_Keys";
        if (size) {
            std::snprintf(line, sizeof(line), "0x%04x", pkeys[0]);
            c.out() << ", P_Key 0 " << line;
        }
        c.out() << "\n";
    }
    return 0;
}

}  // namespace

MARLIX_ULP_SUBCOMMAND(open, "open", "ulp open [HCA]",
                      "Open an HCA (by default the verbs core's default HCA); it is named hca1, hca2, ...",
                      ulp_open)
MARLIX_ULP_SUBCOMMAND(
    close, "close", "ulp close [HCA]",
    "Close an HCA (by name or device; by default the most recently opened) and forget its objects.",
    ulp_close)
MARLIX_ULP_SUBCOMMAND(
    query, "query", "ulp query hca|port N|gid N|pkey N [HCA]",
    "Query the HCA's capabilities, a port, or the first entries of a port's GID or P_Key table.", ulp_query)

}  // namespace marlix::console
