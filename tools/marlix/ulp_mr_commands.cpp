// ulp mr: memory regions over kernel buffers the upper layer allocates.
#include <cstdio>
#include <ostream>

#include "ulp_session.hpp"

namespace marlix::console {
namespace {

// Local write, remote write and remote read.
constexpr uint32_t kAccess = 7;

std::string hex(uint64_t value) {
    char text[32];
    std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

// ulp mr reg BYTES [PD]
int ulp_mr_reg(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() < 3 || args.size() > 4) return ulp::usage(c, "mr");
    uint64_t bytes = 0;
    if (!ulp::parse_number(args[2], bytes) || bytes == 0)
        return ulp::refused(c, "mr reg: not a size: " + args[2]);
    std::string error;
    ulp::Object *pd = s.find("pd", args.size() == 4 ? args[3] : "", error);
    if (!pd) return ulp::refused(c, "mr reg: " + error);
    ulp::Object *hca = s.hca_of(*pd);
    void *buffer = ulp_kmalloc(bytes);
    if (!buffer) return ulp::refused(c, "mr reg: cannot allocate " + args[2] + " bytes");
    uint64_t mr = 0;
    uint32_t l_key = 0, r_key = 0;
    int status = ulp_mr_register(hca->funcs, hca->ptr, buffer, bytes, static_cast<uint32_t>(pd->handle),
                                 kAccess, &mr, &l_key, &r_key);
    if (status != 0) {
        ulp_kfree(buffer);
        return ulp::failed(c, "mr reg " + args[2] + " in " + pd->name, status);
    }
    ulp::Object object;
    object.kind = "mr";
    object.hca = hca->name;
    object.ptr = buffer;
    object.handle = mr;
    object.values = {{"length", bytes}, {"l_key", l_key}, {"r_key", r_key}};
    object.release = [](ulp::Object &o) { ulp_kfree(o.ptr); };
    const ulp::Object &added = s.add(std::move(object));
    c.out() << added.name << ": " << bytes << " bytes registered in " << pd->name << " on " << hca->name
            << ", mr_h " << mr << ", l_key " << hex(l_key) << ", r_key " << hex(r_key) << "\n";
    return 0;
}

int ulp_mr_query_cmd(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() > 3) return ulp::usage(c, "mr");
    std::string error;
    ulp::Object *mr = s.find("mr", args.size() == 3 ? args[2] : "", error);
    if (!mr) return ulp::refused(c, "mr query: " + error);
    ulp::Object *hca = s.hca_of(*mr);
    ulp_mr_attrib attrib{};
    int status = ulp_mr_query(hca->funcs, hca->ptr, mr->handle, &attrib);
    if (status != 0) return ulp::failed(c, "mr query " + mr->name, status);
    c.out() << mr->name << ": addr " << hex(reinterpret_cast<uint64_t>(attrib.local_addr)) << ", length "
            << attrib.local_length << ", pd_h " << attrib.pd << ", access " << hex(attrib.access)
            << ", l_key " << hex(attrib.l_key) << ", r_key " << hex(attrib.r_key) << "\n";
    return 0;
}

int ulp_mr_dereg(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() > 3) return ulp::usage(c, "mr");
    std::string error;
    ulp::Object *mr = s.find("mr", args.size() == 3 ? args[2] : "", error);
    if (!mr) return ulp::refused(c, "mr dereg: " + error);
    ulp::Object *hca = s.hca_of(*mr);
    const std::string name = mr->name;
    const uint64_t handle = mr->handle;
    int status = ulp_mr_destroy(hca->funcs, hca->ptr, handle);
    if (status != 0) return ulp::failed(c, "mr dereg " + name, status);
    s.forget(name);
    c.out() << name << ": deregistered, mr_h " << handle << "\n";
    return 0;
}

// ulp mr reg BYTES [PD] | ulp mr query [MR] | ulp mr dereg [MR]
int ulp_mr(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() >= 2 && args[1] == "reg") return ulp_mr_reg(c, s, args);
    if (args.size() >= 2 && args[1] == "query") return ulp_mr_query_cmd(c, s, args);
    if (args.size() >= 2 && args[1] == "dereg") return ulp_mr_dereg(c, s, args);
    return ulp::usage(c, "mr");
}

}  // namespace

MARLIX_ULP_SUBCOMMAND(
    mr, "mr", "ulp mr reg BYTES [PD] | ulp mr query [MR] | ulp mr dereg [MR]",
    "Register a kernel buffer of BYTES (access local write, remote write, remote read) as a "
    "memory region (named mr1, mr2, ...), query or deregister one.",
    ulp_mr)

}  // namespace marlix::console
