// ulp poll: every completion a CQ holds, each on one line with the generic field names; the
// adapters first finish what was posted.
#include <ostream>

#include "ulp_datapath.hpp"

namespace marlix::console {
namespace {

// ulp poll [CQ]
int ulp_poll(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() > 2) return ulp::usage(c, "poll");
    std::string error;
    ulp::Object *cq = s.find("cq", args.size() == 2 ? args[1] : "", error);
    if (!cq) return ulp::refused(c, "poll: " + error);
    ulp::Object *hca = s.hca_of(*cq);
    ulp::settle();
    int n = 0;
    for (;;) {
        char line[256];
        int status = ulp_poll_simple(hca->funcs, hca->ptr, cq->ptr, nullptr, line, sizeof(line));
        if (status == ulp_cq_empty) break;
        if (status != 0) return ulp::failed(c, "poll " + cq->name, status);
        c.out() << cq->name << ": " << line << "\n";
        ++n;
    }
    if (n == 0) c.out() << cq->name << ": empty\n";
    return 0;
}

}  // namespace

MARLIX_ULP_SUBCOMMAND(poll, "poll", "ulp poll [CQ]",
                      "Print every completion the CQ holds, with the generic field names.", ulp_poll)

}  // namespace marlix::console
