// The InfiniBand queue pair state machine of the software HCA: which modify-QP transitions are
// legal, which attributes each transition requires or accepts for each transport, and the range
// checks of the attribute values. Pure logic with no device state, so it can be tested alone and
// called under the device lock.
#pragma once

#include <cstdint>

namespace marlix::softhca::qpsm {

// QP states, numbered as the verbs number them.
enum class QpState : uint8_t { Reset = 0, Init = 1, Rtr = 2, Rts = 3, Sqd = 4, Sqe = 5, Err = 6 };
constexpr unsigned kStateCount = 7;

// Transport service types, numbered as the verbs number them.
enum class Transport : uint8_t { RC = 0, RD = 1, UC = 2, UD = 3 };

// Special QPs (QP0, QP1 and the raw QPs) are datagram QPs bound to a port at creation; they
// follow the datagram rules except that their port need not be given again.
enum class QpKind : uint8_t { Regular, Smi, Gsi, Raw };

// Attribute mask bits of a modify request.
namespace attr {
constexpr uint32_t kState = 0x1;
constexpr uint32_t kEnSqdAsynNotif = 0x2;
constexpr uint32_t kReserved = 0x4;
constexpr uint32_t kRemoteAtomicFlags = 0x8;
constexpr uint32_t kPkeyIx = 0x10;
constexpr uint32_t kPort = 0x20;
constexpr uint32_t kQkey = 0x40;
constexpr uint32_t kAv = 0x80;
constexpr uint32_t kPathMtu = 0x100;
constexpr uint32_t kTimeout = 0x200;
constexpr uint32_t kRetryCount = 0x400;
constexpr uint32_t kRnrRetry = 0x800;
constexpr uint32_t kRqPsn = 0x1000;
constexpr uint32_t kQpOusRdAtom = 0x2000;
constexpr uint32_t kAltPath = 0x4000;
constexpr uint32_t kMinRnrTimer = 0x200000;
constexpr uint32_t kSqPsn = 0x400000;
constexpr uint32_t kOusDstRdAtom = 0x800000;
constexpr uint32_t kPathMigState = 0x1000000;
constexpr uint32_t kCap = 0x2000000;
constexpr uint32_t kDestQpNum = 0x4000000;
// Every bit a modify request may carry (0x7ffffff is "all attributes" for a query; the bits
// in between are unused and refused like the reserved one).
constexpr uint32_t kKnown = kState | kEnSqdAsynNotif | kRemoteAtomicFlags | kPkeyIx | kPort | kQkey | kAv |
                            kPathMtu | kTimeout | kRetryCount | kRnrRetry | kRqPsn | kQpOusRdAtom | kAltPath |
                            kMinRnrTimer | kSqPsn | kOusDstRdAtom | kPathMigState | kCap | kDestQpNum;
}  // namespace attr

// What the device allows, for the value checks.
struct DeviceLimits {
    unsigned num_ports = 2;
    unsigned pkey_table_len = 64;
    unsigned gid_table_len = 32;
    unsigned max_mtu = 4;  // 2048 bytes
    unsigned max_qp_ous_rd_atom = 4;
    unsigned max_qp_init_rd_atom = 4;
};

// One path (address vector plus the path fields that sit beside it in the QP attributes).
struct PathValues {
    uint8_t port = 0;  // the address vector's own port; 0 means "the QP's port"
    uint8_t sl = 0;
    uint8_t static_rate = 0;
    uint8_t sgid_index = 0;
    bool grh = false;
    uint32_t flow_label = 0;
};

// The attribute values a modify request carries, as far as they are checked here.
struct ModifyValues {
    QpState qp_state = QpState::Reset;
    uint8_t port = 0;
    uint16_t pkey_ix = 0;
    uint8_t path_mtu = 0;
    uint8_t timeout = 0;
    uint8_t retry_count = 0;
    uint8_t rnr_retry = 0;
    uint8_t min_rnr_timer = 0;
    uint32_t rq_psn = 0;
    uint32_t sq_psn = 0;
    uint32_t dest_qp_num = 0;
    uint32_t qp_ous_rd_atom = 0;
    uint32_t ous_dst_rd_atom = 0;
    uint32_t remote_atomic_flags = 0;
    uint32_t path_mig_state = 0;
    PathValues av;
    PathValues alt_av;
    uint8_t alt_port = 0;
    uint16_t alt_pkey_ix = 0;
    uint8_t alt_timeout = 0;
};

enum class Verdict {
    Ok,
    NotSupported,    // the transport is not offered by this adapter (RD)
    BadTransition,   // from -> to is not a legal modify transition for this transport
    MissingAttr,     // a required attribute is absent from the mask (bits says which)
    AttrNotAllowed,  // an attribute not accepted by this transition is in the mask (bits says which)
    BadMask,         // reserved or unknown mask bits, or no state bit
    BadPort,         // port (or address-vector port) outside 1..num_ports
    BadPkeyIndex,    // P_Key index outside the table
    BadMtu,          // path MTU outside 256..port maximum
    BadValue,        // another value outside its field width or device limit (field says which)
};

struct Check {
    Verdict verdict = Verdict::Ok;
    uint32_t bits = 0;       // the offending mask bits, when a mask rule failed
    const char *field = "";  // the offending attribute, when a value check failed
    bool ok() const { return verdict == Verdict::Ok; }
};

struct AttrRules {
    bool legal = false;
    uint32_t required = 0;  // besides the state bit
    uint32_t optional = 0;
};

// The rules of one transition. Illegal transitions have legal == false.
AttrRules transition_rules(Transport transport, QpKind kind, QpState from, QpState to);

// Checks a whole modify request against the QP's transport, kind and current state.
Check check_modify(Transport transport, QpKind kind, QpState from, uint32_t mask, const ModifyValues &values,
                   const DeviceLimits &limits);

const char *state_name(QpState state);
const char *verdict_name(Verdict verdict);

}  // namespace marlix::softhca::qpsm
