// CQs and QPs made through the provider table for the stress threads, counted in the rig's tally.
#pragma once

#include <atomic>
#include <cstdint>

#include "rig.hpp"
#include "ulp_pair.hpp"

namespace stress {

// Gather entries a stress send uses at most.
inline constexpr uint32_t kMaxPieces = 4;

// A CQ of `entries` on `s.hca`; every completion event adds one to `events` when given.
int make_cq(marlix::ulp_pair::Side &s, uint32_t entries, std::atomic<uint64_t> *events, Tally &tally);
// A QP of `type` ("rc", "uc", "ud") on `s.hca` and `s.pd`, both queues on `s.cq`, `depth` deep.
int make_qp(marlix::ulp_pair::Side &s, const char *type, uint32_t depth, Tally &tally);

}  // namespace stress
