// ulp pd: protection domains of an open HCA.
#include <ostream>

#include "ulp_session.hpp"

namespace marlix::console {
namespace {

int ulp_pd_alloc(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() > 3) return ulp::usage(c, "pd");
    std::string error;
    ulp::Object *hca = s.find("hca", args.size() == 3 ? args[2] : "", error);
    if (!hca) return ulp::refused(c, "pd alloc: " + error);
    uint32_t pd = 0;
    int status = ulp_pd_allocate(hca->funcs, hca->ptr, &pd);
    if (status != 0) return ulp::failed(c, "pd alloc on " + hca->name, status);
    ulp::Object object;
    object.kind = "pd";
    object.hca = hca->name;
    object.handle = pd;
    const ulp::Object &added = s.add(std::move(object));
    c.out() << added.name << ": allocated on " << added.hca << ", pd_h " << pd << "\n";
    return 0;
}

int ulp_pd_free(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() > 3) return ulp::usage(c, "pd");
    std::string error;
    ulp::Object *pd = s.find("pd", args.size() == 3 ? args[2] : "", error);
    if (!pd) return ulp::refused(c, "pd free: " + error);
    ulp::Object *hca = s.hca_of(*pd);
    const std::string name = pd->name;
    const uint64_t handle = pd->handle;
    int status = ulp_pd_deallocate(hca->funcs, hca->ptr, static_cast<uint32_t>(handle));
    if (status != 0) return ulp::failed(c, "pd free " + name, status);
    s.forget(name);
    c.out() << name << ": freed, pd_h " << handle << "\n";
    return 0;
}

// ulp pd alloc [HCA] | ulp pd free [PD]
int ulp_pd(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() >= 2 && args[1] == "alloc") return ulp_pd_alloc(c, s, args);
    if (args.size() >= 2 && args[1] == "free") return ulp_pd_free(c, s, args);
    return ulp::usage(c, "pd");
}

}  // namespace

MARLIX_ULP_SUBCOMMAND(pd, "pd", "ulp pd alloc [HCA] | ulp pd free [PD]",
                      "Allocate a protection domain (named pd1, pd2, ...) or free one.", ulp_pd)

}  // namespace marlix::console
