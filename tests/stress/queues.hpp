// CQs and QPs made through the provider table for the stress threads, counted in the rig's tally.
#pragma once

#include <atomic>
#include <cstdint>

#include "rig.hpp"
#include "ulp_pair.hpp"

namespace stress {

// A CQ of `entries` and a QP of `type` ("rc", "uc", "ud") on it, `depth` deep each way, on
// `s.hca` and `s.pd`; what was made is counted even when the QP failed (its CQ is then in `s.cq`).
int make_queues(marlix::ulp_pair::Side &s, const char *type, uint32_t entries, uint32_t depth, Tally &tally);

// A CQ's completion callback that adds one to the counter its context points at.
void count_completion_event(uint64_t context);

}  // namespace stress
