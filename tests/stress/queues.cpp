#include "queues.hpp"

#include <vector>

namespace stress {
namespace {

void count_completion_event(uint64_t context) {
    reinterpret_cast<std::atomic<uint64_t> *>(context)->fetch_add(1);
}

}  // namespace

int make_cq(marlix::ulp_pair::Side &s, uint32_t entries, std::atomic<uint64_t> *events, Tally &tally) {
    uint32_t actual = 0;
    const int rc = ulp_cq_create(s.funcs, s.hca, entries, events ? &count_completion_event : nullptr, events,
                                 &s.cq, &actual);
    if (rc == 0) tally.cqs_created++;
    return rc;
}

int make_qp(marlix::ulp_pair::Side &s, const char *type, uint32_t depth, Tally &tally) {
    std::vector<unsigned char> req(ulp_sizeof_qp_attr(), 0), out(ulp_sizeof_qp_attr(), 0);
    ulp_qp_attr_set(req.data(), "create.qp_type", uint64_t(ulp_qp_type_value(type)));
    ulp_qp_attr_set(req.data(), "create.cq_send_h", reinterpret_cast<uint64_t>(s.cq));
    ulp_qp_attr_set(req.data(), "create.cq_receive_h", reinterpret_cast<uint64_t>(s.cq));
    ulp_qp_attr_set(req.data(), "create.send_max_outstand_wr", depth);
    ulp_qp_attr_set(req.data(), "create.receive_max_outstand_wr", depth);
    ulp_qp_attr_set(req.data(), "create.max_scatgat_per_send_wr", kMaxPieces);
    ulp_qp_attr_set(req.data(), "create.max_scatgat_per_receive_wr", 1);
    ulp_qp_attr_set(req.data(), "create.pd_h", s.pd);
    const int rc = ulp_qp_create(s.funcs, s.hca, req.data(), nullptr, &s.qp, out.data());
    if (rc != 0) return rc;
    tally.qps_created++;
    uint64_t qpn = 0;
    ulp_qp_attr_get(out.data(), "create_return.qp_num", &qpn);
    s.qpn = uint32_t(qpn);
    return 0;
}

}  // namespace stress
