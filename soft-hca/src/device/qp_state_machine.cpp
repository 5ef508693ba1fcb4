#include "device/qp_state_machine.hpp"

namespace marlix::softhca::qpsm {

namespace {

using namespace attr;

// Transition rules grouped by service: connected (RC, UC) and datagram (UD and the special QPs).
enum class Service { RC, UC, UD, Special };

Service service_of(Transport transport, QpKind kind) {
    if (kind != QpKind::Regular) return Service::Special;
    switch (transport) {
        case Transport::RC:
            return Service::RC;
        case Transport::UC:
            return Service::UC;
        default:
            return Service::UD;
    }
}

// The requester's timers: ack timeout, transport retries, RNR retries.
constexpr uint32_t kRtsTimers = kTimeout | kRetryCount | kRnrRetry;

AttrRules legal(uint32_t required, uint32_t optional) {
    return AttrRules{true, required, optional};
}

// The attributes that may change while the QP keeps running (RTS->RTS, SQD->RTS) and on the way
// into RTS; a resize of the work queues is accepted wherever the QP enters RTR or RTS.
uint32_t running_optional(Service s) {
    switch (s) {
        case Service::RC:
            return kAltPath | kRemoteAtomicFlags | kMinRnrTimer | kPathMigState | kCap;
        case Service::UC:
            return kAltPath | kRemoteAtomicFlags | kPathMigState | kCap;
        default:
            return kQkey | kCap;
    }
}

AttrRules rules_for(Service s, QpState from, QpState to) {
    // Reset and error can be entered from anywhere, and take nothing but the state.
    if (to == QpState::Reset || to == QpState::Err) return legal(0, 0);
    switch (from) {
        case QpState::Reset:
            if (to != QpState::Init) break;
            switch (s) {
                case Service::RC:
                case Service::UC:
                    return legal(kPkeyIx | kPort | kRemoteAtomicFlags, 0);
                case Service::UD:
                    return legal(kPkeyIx | kPort | kQkey, 0);
                case Service::Special:
                    // QP0/QP1 are bound to their port when they are created; naming it again is
                    // accepted.
                    return legal(kPkeyIx | kQkey, kPort);
            }
            break;
        case QpState::Init:
            if (to == QpState::Init) {
                if (s == Service::RC || s == Service::UC)
                    return legal(0, kPkeyIx | kPort | kRemoteAtomicFlags);
                return legal(0, kPkeyIx | kPort | kQkey);
            }
            if (to == QpState::Rtr) {
                // The send-side timers (ack timeout, retry counts) belong to RTS; callers that set
                // them together with the path on the way into RTR are accepted, as the adapter
                // does, and the values are ignored there.
                switch (s) {
                    case Service::RC:
                        // Without a minimum RNR timer the responder uses the QP's default.
                        return legal(
                            kAv | kPathMtu | kDestQpNum | kRqPsn | kQpOusRdAtom,
                            kMinRnrTimer | kAltPath | kRemoteAtomicFlags | kPkeyIx | kCap | kRtsTimers);
                    case Service::UC:
                        return legal(kAv | kPathMtu | kDestQpNum | kRqPsn,
                                     kAltPath | kRemoteAtomicFlags | kPkeyIx | kCap | kRtsTimers);
                    default:
                        return legal(0, kPkeyIx | kQkey | kCap | kRtsTimers);
                }
            }
            break;
        case QpState::Rtr:
            if (to != QpState::Rts) break;
            if (s == Service::RC)
                return legal(kSqPsn | kTimeout | kRetryCount | kRnrRetry | kOusDstRdAtom,
                             running_optional(s));
            return legal(kSqPsn, running_optional(s));
        case QpState::Rts:
            if (to == QpState::Rts) return legal(0, running_optional(s));
            if (to == QpState::Sqd) return legal(0, kEnSqdAsynNotif);
            break;
        case QpState::Sqd:
            if (to == QpState::Rts) return legal(0, running_optional(s));
            if (to == QpState::Sqd) {
                switch (s) {
                    case Service::RC:
                        return legal(0, kAv | kPathMtu | kTimeout | kRetryCount | kRnrRetry | kQpOusRdAtom |
                                            kOusDstRdAtom | kAltPath | kRemoteAtomicFlags | kMinRnrTimer |
                                            kPathMigState | kPkeyIx | kPort | kCap);
                    case Service::UC:
                        return legal(0, kAv | kPathMtu | kAltPath | kRemoteAtomicFlags | kPathMigState |
                                            kPkeyIx | kPort | kCap);
                    default:
                        return legal(0, kPkeyIx | kQkey | kCap);
                }
            }
            break;
        case QpState::Sqe:
            // A reliable connection never stops in SQE (its send errors take the whole QP to ERR).
            if (to != QpState::Rts || s == Service::RC) break;
            if (s == Service::UC) return legal(0, kRemoteAtomicFlags);
            return legal(0, kQkey);
        case QpState::Err:
            break;
    }
    return AttrRules{};
}

bool fits_bits(uint32_t value, unsigned width) {
    return value < (1u << width);
}

Check bad(Verdict verdict, const char *field) {
    return Check{verdict, 0, field};
}

Check check_path(const PathValues &av, const char *port_field, const char *field_prefix_sl,
                 const char *sgid_field, const char *rate_field, const char *flow_field,
                 const DeviceLimits &limits) {
    if (av.port != 0 && (av.port < 1 || av.port > limits.num_ports)) return bad(Verdict::BadPort, port_field);
    if (!fits_bits(av.sl, 4)) return bad(Verdict::BadValue, field_prefix_sl);
    if (!fits_bits(av.static_rate, 3)) return bad(Verdict::BadValue, rate_field);
    if (av.grh) {
        if (av.sgid_index >= limits.gid_table_len) return bad(Verdict::BadValue, sgid_field);
        if (!fits_bits(av.flow_label, 20)) return bad(Verdict::BadValue, flow_field);
    }
    return Check{};
}

Check check_values(uint32_t mask, const ModifyValues &v, const DeviceLimits &limits) {
    if ((mask & kPort) && (v.port < 1 || v.port > limits.num_ports)) return bad(Verdict::BadPort, "port");
    if ((mask & kPkeyIx) && v.pkey_ix >= limits.pkey_table_len) return bad(Verdict::BadPkeyIndex, "pkey_ix");
    if (mask & kAv) {
        Check c =
            check_path(v.av, "av.port", "av.sl", "av.sgid_index", "av.static_rate", "av.flow_label", limits);
        if (!c.ok()) return c;
    }
    if ((mask & kPathMtu) && (v.path_mtu < 1 || v.path_mtu > limits.max_mtu))
        return bad(Verdict::BadMtu, "path_mtu");
    if ((mask & kTimeout) && !fits_bits(v.timeout, 5)) return bad(Verdict::BadValue, "timeout");
    if ((mask & kRetryCount) && !fits_bits(v.retry_count, 3)) return bad(Verdict::BadValue, "retry_count");
    if ((mask & kRnrRetry) && !fits_bits(v.rnr_retry, 3)) return bad(Verdict::BadValue, "rnr_retry");
    if ((mask & kMinRnrTimer) && !fits_bits(v.min_rnr_timer, 5))
        return bad(Verdict::BadValue, "min_rnr_timer");
    if ((mask & kRqPsn) && !fits_bits(v.rq_psn, 24)) return bad(Verdict::BadValue, "rq_psn");
    if ((mask & kSqPsn) && !fits_bits(v.sq_psn, 24)) return bad(Verdict::BadValue, "sq_psn");
    if ((mask & kDestQpNum) && !fits_bits(v.dest_qp_num, 24)) return bad(Verdict::BadValue, "dest_qp_num");
    if ((mask & kQpOusRdAtom) && v.qp_ous_rd_atom > limits.max_qp_ous_rd_atom)
        return bad(Verdict::BadValue, "qp_ous_rd_atom");
    if ((mask & kOusDstRdAtom) && v.ous_dst_rd_atom > limits.max_qp_init_rd_atom)
        return bad(Verdict::BadValue, "ous_dst_rd_atom");
    if ((mask & kRemoteAtomicFlags) && (v.remote_atomic_flags & ~7u) != 0)
        return bad(Verdict::BadValue, "remote_atomic_flags");
    if ((mask & kPathMigState) && v.path_mig_state > 2) return bad(Verdict::BadValue, "path_mig_state");
    if (mask & kAltPath) {
        // An alternate port of 0 means the primary port: the path then differs only in its LID.
        if (v.alt_port != 0 && v.alt_port > limits.num_ports) return bad(Verdict::BadPort, "alt_port");
        if (v.alt_pkey_ix >= limits.pkey_table_len) return bad(Verdict::BadPkeyIndex, "alt_pkey_ix");
        if (!fits_bits(v.alt_timeout, 5)) return bad(Verdict::BadValue, "alt_timeout");
        Check c = check_path(v.alt_av, "alt_av.port", "alt_av.sl", "alt_av.sgid_index", "alt_av.static_rate",
                             "alt_av.flow_label", limits);
        if (!c.ok()) return c;
    }
    return Check{};
}

}  // namespace

AttrRules transition_rules(Transport transport, QpKind kind, QpState from, QpState to) {
    if (transport == Transport::RD && kind == QpKind::Regular) return AttrRules{};
    if (static_cast<unsigned>(from) >= kStateCount || static_cast<unsigned>(to) >= kStateCount)
        return AttrRules{};
    return rules_for(service_of(transport, kind), from, to);
}

Check check_modify(Transport transport, QpKind kind, QpState from, uint32_t mask, const ModifyValues &values,
                   const DeviceLimits &limits) {
    if (transport == Transport::RD && kind == QpKind::Regular)
        return Check{Verdict::NotSupported, 0, "transport"};
    if (!(mask & kState) || (mask & ~kKnown) != 0) return Check{Verdict::BadMask, mask & ~kKnown, "mask"};
    if (static_cast<unsigned>(values.qp_state) >= kStateCount) return bad(Verdict::BadTransition, "qp_state");
    AttrRules r = transition_rules(transport, kind, from, values.qp_state);
    if (!r.legal) return bad(Verdict::BadTransition, "qp_state");
    uint32_t given = mask & ~kState;
    if (uint32_t missing = r.required & ~given) return Check{Verdict::MissingAttr, missing, "mask"};
    if (uint32_t extra = given & ~(r.required | r.optional))
        return Check{Verdict::AttrNotAllowed, extra, "mask"};
    return check_values(mask, values, limits);
}

const char *state_name(QpState state) {
    switch (state) {
        case QpState::Reset:
            return "RESET";
        case QpState::Init:
            return "INIT";
        case QpState::Rtr:
            return "RTR";
        case QpState::Rts:
            return "RTS";
        case QpState::Sqd:
            return "SQD";
        case QpState::Sqe:
            return "SQE";
        case QpState::Err:
            return "ERR";
    }
    return "UNKNOWN";
}

const char *verdict_name(Verdict verdict) {
    switch (verdict) {
        case Verdict::Ok:
            return "ok";
        case Verdict::NotSupported:
            return "not supported";
        case Verdict::BadTransition:
            return "illegal transition";
        case Verdict::MissingAttr:
            return "missing required attribute";
        case Verdict::AttrNotAllowed:
            return "attribute not allowed in this transition";
        case Verdict::BadMask:
            return "invalid attribute mask";
        case Verdict::BadPort:
            return "invalid port";
        case Verdict::BadPkeyIndex:
            return "invalid P_Key index";
        case Verdict::BadMtu:
            return "invalid path MTU";
        case Verdict::BadValue:
            return "attribute value out of range";
    }
    return "unknown";
}

}  // namespace marlix::softhca::qpsm
