// What an emulated InfiniHost adapter is and can do, in one place: identity, table sizes, queue
// and key limits, the data path's own bounds. The verbs and the data path read these; the device's
// capability record (VAPI_query_hca_cap) is filled from them.
#pragma once

#include <vapi_types.h>

#include <cstddef>
#include <cstdint>

namespace marlix::softhca::limits {

// ---- Identity ----------------------------------------------------------------------------------
// What two threads write apart goes in different cache lines of this size.
constexpr size_t kCacheLine = 64;

constexpr uint64_t kNodeGuidBase = 0x0002c90000001000ull;  // Mellanox OUI 00:02:c9; + 0x1000 per device
constexpr uint32_t kVendorId = 0x02c9;
constexpr uint32_t kVendorPartId = 23108;
constexpr uint32_t kHwVersion = 0xa1;

// ---- Ports -------------------------------------------------------------------------------------
constexpr unsigned kGidTableLen = 32;
constexpr unsigned kPkeyTableLen = 64;
constexpr unsigned kMaxMtuCode = MTU2048;  // 2048 bytes
// PortInfo.CapabilityMask of every port; the port that hosts the subnet manager adds IsSM.
constexpr IB_port_cap_mask_t kDefaultPortCapMask = 0x02510a68;

// ---- Queues ------------------------------------------------------------------------------------
constexpr uint32_t kMaxQps = 64512;
constexpr uint32_t kMaxWrPerQueue = 16384;
constexpr uint32_t kMaxSgEntries = 59;
constexpr uint32_t kMaxSgEntriesRd = 54;
constexpr uint32_t kMaxCqs = 65408;
constexpr uint32_t kMaxCqEntries = 131071;
// Regular QP numbers start above the range kept for QP0/QP1 and end at the 24-bit limit.
constexpr VAPI_qp_num_t kFirstQpNum = 0x400;
constexpr VAPI_qp_num_t kLastQpNum = 0xffffff;
// A send WQE holds up to the device's gather entries of 16 bytes each; inline data uses the
// same room.
constexpr uint32_t kSgEntryBytes = 16;
constexpr uint32_t kMaxInlineData = kMaxSgEntries * kSgEntryBytes;
// The responder's minimum RNR NAK timer when the QP was never given one: code 12, 0.64 ms.
constexpr uint8_t kDefaultMinRnrTimer = 12;
// Outstanding RDMA reads and atomics a QP may have as requester / accept as responder.
constexpr uint32_t kMaxQpInitRdAtom = 4;
constexpr uint32_t kMaxQpOusRdAtom = 4;

// ---- Memory ------------------------------------------------------------------------------------
constexpr uint32_t kMaxMrs = 131056;
constexpr uint32_t kMaxPds = 32764;
constexpr uint32_t kMaxFmrs = 32768;
constexpr uint32_t kMaxAhs = 65536;

// ---- Multicast ---------------------------------------------------------------------------------
constexpr uint32_t kMaxMcastGroups = 8192;
constexpr uint32_t kMaxQpsPerMcastGroup = 56;
constexpr IB_lid_t kFirstMulticastLid = 0xC000;
constexpr IB_lid_t kLastMulticastLid = 0xFFFE;  // 0xFFFF is the permissive LID

// ---- Data path ---------------------------------------------------------------------------------
// The receive buffer of a UD QP starts with room for a global route header.
constexpr uint32_t kGrhBytes = 40;
// Atomic operations work on 8 aligned bytes.
constexpr uint32_t kAtomicBytes = 8;

}  // namespace marlix::softhca::limits
