// ulp cq: completion queues of an open HCA. Each CQ counts the completion events its callback
// receives; the query shows the count.
#include <ostream>

#include "ulp_queues.hpp"

namespace marlix::console {
namespace {

// ulp cq create ENTRIES [HCA]
int ulp_cq_create_cmd(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() < 3 || args.size() > 4) return ulp::usage(c, "cq");
    uint64_t entries = 0;
    if (!ulp::parse_number(args[2], entries) || entries > UINT32_MAX)
        return ulp::refused(c, "cq create: not a number of entries: " + args[2]);
    std::string error;
    ulp::Object *hca = s.find("hca", args.size() == 4 ? args[3] : "", error);
    if (!hca) return ulp::refused(c, "cq create: " + error);
    ulp::Object *cq = nullptr;
    int status = ulp::create_cq(s, *hca, static_cast<uint32_t>(entries), &cq);
    if (status != 0) {
        // Kept when the CQ exists nonetheless (its event handler could not be set): destroy it by name.
        if (cq) c.err() << "ulp: " << cq->name << " created without an event handler\n";
        return ulp::failed(c, "cq create " + args[2] + " on " + hca->name, status);
    }
    c.out() << cq->name << ": created on " << hca->name << ", " << cq->values["entries"] << " entries (asked "
            << entries << ")\n";
    return 0;
}

// ulp cq query [CQ]
int ulp_cq_query_cmd(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() > 3) return ulp::usage(c, "cq");
    std::string error;
    ulp::Object *cq = s.find("cq", args.size() == 3 ? args[2] : "", error);
    if (!cq) return ulp::refused(c, "cq query: " + error);
    ulp::Object *hca = s.hca_of(*cq);
    uint32_t size = 0;
    void *context = nullptr;
    int status = ulp_cq_query(hca->funcs, hca->ptr, cq->ptr, &size, &context);
    if (status != 0) return ulp::failed(c, "cq query " + cq->name, status);
    c.out() << cq->name << ": " << size << " entries, " << ulp::completion_events(*cq)
            << " completion events\n";
    return 0;
}

// ulp cq resize N [CQ]
int ulp_cq_resize_cmd(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() < 3 || args.size() > 4) return ulp::usage(c, "cq");
    uint64_t entries = 0;
    if (!ulp::parse_number(args[2], entries) || entries > UINT32_MAX)
        return ulp::refused(c, "cq resize: not a number of entries: " + args[2]);
    std::string error;
    ulp::Object *cq = s.find("cq", args.size() == 4 ? args[3] : "", error);
    if (!cq) return ulp::refused(c, "cq resize: " + error);
    ulp::Object *hca = s.hca_of(*cq);
    uint32_t actual = 0;
    int status = ulp_cq_resize(hca->funcs, hca->ptr, cq->ptr, static_cast<uint32_t>(entries), &actual);
    if (status != 0) return ulp::failed(c, "cq resize " + cq->name, status);
    cq->values["entries"] = actual;
    c.out() << cq->name << ": resized to " << actual << " entries (asked " << entries << ")\n";
    return 0;
}

// ulp cq destroy [CQ]
int ulp_cq_destroy_cmd(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() > 3) return ulp::usage(c, "cq");
    std::string error;
    ulp::Object *cq = s.find("cq", args.size() == 3 ? args[2] : "", error);
    if (!cq) return ulp::refused(c, "cq destroy: " + error);
    ulp::Object *hca = s.hca_of(*cq);
    const std::string name = cq->name;
    int status = ulp_cq_destroy(hca->funcs, hca->ptr, cq->ptr);
    if (status != 0) return ulp::failed(c, "cq destroy " + name, status);
    s.forget(name);
    c.out() << name << ": destroyed\n";
    return 0;
}

int ulp_cq(Console &c, ulp::Session &s, const std::vector<std::string> &args) {
    if (args.size() >= 2) {
        if (args[1] == "create") return ulp_cq_create_cmd(c, s, args);
        if (args[1] == "query") return ulp_cq_query_cmd(c, s, args);
        if (args[1] == "resize") return ulp_cq_resize_cmd(c, s, args);
        if (args[1] == "destroy") return ulp_cq_destroy_cmd(c, s, args);
    }
    return ulp::usage(c, "cq");
}

}  // namespace

MARLIX_ULP_SUBCOMMAND(cq, "cq",
                      "ulp cq create ENTRIES [HCA] | ulp cq query|destroy [CQ] | ulp cq resize N [CQ]",
                      "Create (named cq1, cq2, ...), query, resize or destroy a completion queue.", ulp_cq)

}  // namespace marlix::console
