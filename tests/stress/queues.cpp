#include "queues.hpp"

namespace stress {

int make_queues(marlix::ulp_pair::Side &s, const char *type, uint32_t entries, uint32_t depth, Tally &tally) {
    const int rc = marlix::ulp_pair::create(s, type, entries, depth);
    if (s.cq) tally.cqs_created++;
    if (s.qp) tally.qps_created++;
    return rc;
}

void count_completion_event(uint64_t context) {
    reinterpret_cast<std::atomic<uint64_t> *>(context)->fetch_add(1);
}

}  // namespace stress
