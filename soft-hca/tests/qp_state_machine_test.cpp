// The QP state machine on its own: legal transitions, required and optional attributes per
// transport, and value range checks.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "device/qp_state_machine.hpp"

using namespace marlix::softhca::qpsm;
using namespace marlix::softhca::qpsm::attr;

namespace {

const DeviceLimits kLimits{};

// Values that pass every range check.
ModifyValues valid_values(QpState to) {
    ModifyValues v;
    v.qp_state = to;
    v.port = 1;
    v.pkey_ix = 0;
    v.path_mtu = 4;
    v.timeout = 14;
    v.retry_count = 7;
    v.rnr_retry = 7;
    v.min_rnr_timer = 12;
    v.rq_psn = 0xabcdef;
    v.sq_psn = 0x123456;
    v.dest_qp_num = 0x405;
    v.qp_ous_rd_atom = 4;
    v.ous_dst_rd_atom = 4;
    v.remote_atomic_flags = 7;
    v.path_mig_state = 2;
    v.av.port = 1;
    v.av.sl = 15;
    v.av.grh = true;
    v.av.sgid_index = 31;
    v.av.flow_label = 0xfffff;
    v.alt_av = v.av;
    v.alt_port = 2;
    v.alt_pkey_ix = 63;
    v.alt_timeout = 31;
    return v;
}

struct Kind {
    const char *name;
    Transport transport;
    QpKind kind;
};
const Kind kRC{"RC", Transport::RC, QpKind::Regular};
const Kind kUC{"UC", Transport::UC, QpKind::Regular};
const Kind kUD{"UD", Transport::UD, QpKind::Regular};
const Kind kSMI{"SMI", Transport::UD, QpKind::Smi};
const Kind kGSI{"GSI", Transport::UD, QpKind::Gsi};

Check modify_valid(const Kind &k, QpState from, QpState to, uint32_t mask) {
    return check_modify(k.transport, k.kind, from, mask, valid_values(to), kLimits);
}

// Every transition a modify request may ask for, with its required and its optional bits.
struct Row {
    QpState from, to;
    uint32_t required, optional;
};

std::vector<Row> expected_rows(const Kind &k) {
    const bool connected = k.transport != Transport::UD;
    const bool rc = k.transport == Transport::RC;
    const bool special = k.kind != QpKind::Regular;
    std::vector<Row> rows;
    for (unsigned s = 0; s < kStateCount; ++s) {
        rows.push_back({QpState(s), QpState::Reset, 0, 0});
        rows.push_back({QpState(s), QpState::Err, 0, 0});
    }
    uint32_t running = rc          ? kAltPath | kRemoteAtomicFlags | kMinRnrTimer | kPathMigState | kCap
                       : connected ? kAltPath | kRemoteAtomicFlags | kPathMigState | kCap
                                   : kQkey | kCap;
    if (connected) {
        rows.push_back({QpState::Reset, QpState::Init, kPkeyIx | kPort | kRemoteAtomicFlags, 0});
        rows.push_back({QpState::Init, QpState::Init, 0, kPkeyIx | kPort | kRemoteAtomicFlags});
        uint32_t rtr_req = kAv | kPathMtu | kDestQpNum | kRqPsn | (rc ? kQpOusRdAtom : 0);
        uint32_t rtr_opt = kAltPath | kRemoteAtomicFlags | kPkeyIx | kCap | kTimeout | kRetryCount |
                           kRnrRetry | (rc ? kMinRnrTimer : 0);
        rows.push_back({QpState::Init, QpState::Rtr, rtr_req, rtr_opt});
        uint32_t rts_req = kSqPsn | (rc ? kTimeout | kRetryCount | kRnrRetry | kOusDstRdAtom : 0);
        rows.push_back({QpState::Rtr, QpState::Rts, rts_req, running});
        uint32_t sqd =
            kAv | kPathMtu | kAltPath | kRemoteAtomicFlags | kPathMigState | kPkeyIx | kPort | kCap;
        if (rc) sqd |= kTimeout | kRetryCount | kRnrRetry | kQpOusRdAtom | kOusDstRdAtom | kMinRnrTimer;
        rows.push_back({QpState::Sqd, QpState::Sqd, 0, sqd});
        if (!rc) rows.push_back({QpState::Sqe, QpState::Rts, 0, kRemoteAtomicFlags});
    } else {
        if (special)
            rows.push_back({QpState::Reset, QpState::Init, kPkeyIx | kQkey, kPort});
        else
            rows.push_back({QpState::Reset, QpState::Init, kPkeyIx | kPort | kQkey, 0});
        rows.push_back({QpState::Init, QpState::Init, 0, kPkeyIx | kPort | kQkey});
        rows.push_back(
            {QpState::Init, QpState::Rtr, 0, kPkeyIx | kQkey | kCap | kTimeout | kRetryCount | kRnrRetry});
        rows.push_back({QpState::Rtr, QpState::Rts, kSqPsn, running});
        rows.push_back({QpState::Sqd, QpState::Sqd, 0, kPkeyIx | kQkey | kCap});
        rows.push_back({QpState::Sqe, QpState::Rts, 0, kQkey});
    }
    rows.push_back({QpState::Rts, QpState::Rts, 0, running});
    rows.push_back({QpState::Rts, QpState::Sqd, 0, kEnSqdAsynNotif});
    rows.push_back({QpState::Sqd, QpState::Rts, 0, running});
    return rows;
}

const Row *find_row(const std::vector<Row> &rows, QpState from, QpState to) {
    for (const Row &r : rows)
        if (r.from == from && r.to == to) return &r;
    return nullptr;
}

std::vector<uint32_t> single_bits(uint32_t mask) {
    std::vector<uint32_t> bits;
    for (uint32_t b = 1; b != 0; b <<= 1)
        if (mask & b) bits.push_back(b);
    return bits;
}

class EveryKind : public ::testing::TestWithParam<Kind> {};

}  // namespace

TEST_P(EveryKind, LegalTransitionsAreExactlyTheExpectedOnes) {
    const Kind &k = GetParam();
    auto rows = expected_rows(k);
    for (unsigned f = 0; f < kStateCount; ++f) {
        for (unsigned t = 0; t < kStateCount; ++t) {
            SCOPED_TRACE(std::string(k.name) + " " + state_name(QpState(f)) + "->" + state_name(QpState(t)));
            AttrRules r = transition_rules(k.transport, k.kind, QpState(f), QpState(t));
            const Row *want = find_row(rows, QpState(f), QpState(t));
            ASSERT_EQ(r.legal, want != nullptr);
            if (!want) {
                Check c = modify_valid(k, QpState(f), QpState(t), kState);
                EXPECT_EQ(c.verdict, Verdict::BadTransition);
                continue;
            }
            EXPECT_EQ(r.required, want->required);
            EXPECT_EQ(r.optional, want->optional);
        }
    }
}

TEST_P(EveryKind, RequiredAloneAndRequiredWithEveryOptionalPass) {
    const Kind &k = GetParam();
    for (const Row &row : expected_rows(k)) {
        SCOPED_TRACE(std::string(k.name) + " " + state_name(row.from) + "->" + state_name(row.to));
        EXPECT_TRUE(modify_valid(k, row.from, row.to, kState | row.required).ok());
        EXPECT_TRUE(modify_valid(k, row.from, row.to, kState | row.required | row.optional).ok());
        for (uint32_t opt : single_bits(row.optional))
            EXPECT_TRUE(modify_valid(k, row.from, row.to, kState | row.required | opt).ok()) << opt;
    }
}

TEST_P(EveryKind, EachMissingRequiredAttributeIsNamed) {
    const Kind &k = GetParam();
    for (const Row &row : expected_rows(k)) {
        for (uint32_t bit : single_bits(row.required)) {
            SCOPED_TRACE(std::string(k.name) + " " + state_name(row.from) + "->" + state_name(row.to));
            Check c = modify_valid(k, row.from, row.to, kState | (row.required & ~bit));
            EXPECT_EQ(c.verdict, Verdict::MissingAttr);
            EXPECT_EQ(c.bits, bit);
        }
    }
}

TEST_P(EveryKind, EachAttributeOutsideTheTransitionIsRefusedAndNamed) {
    const Kind &k = GetParam();
    for (const Row &row : expected_rows(k)) {
        uint32_t outside = kKnown & ~(kState | row.required | row.optional);
        for (uint32_t bit : single_bits(outside)) {
            SCOPED_TRACE(std::string(k.name) + " " + state_name(row.from) + "->" + state_name(row.to));
            Check c = modify_valid(k, row.from, row.to, kState | row.required | bit);
            EXPECT_EQ(c.verdict, Verdict::AttrNotAllowed);
            EXPECT_EQ(c.bits, bit);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Transports, EveryKind, ::testing::Values(kRC, kUC, kUD, kSMI, kGSI),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(QpStateMachine, TransitionCountsPerTransport) {
    auto count = [](const Kind &k) {
        int n = 0;
        for (unsigned f = 0; f < kStateCount; ++f)
            for (unsigned t = 0; t < kStateCount; ++t)
                n += transition_rules(k.transport, k.kind, QpState(f), QpState(t)).legal;
        return n;
    };
    // 14 into RESET/ERR, RESET->INIT, INIT->INIT, INIT->RTR, RTR->RTS, RTS->RTS, RTS->SQD,
    // SQD->SQD, SQD->RTS, and SQE->RTS for all but RC.
    EXPECT_EQ(count(kRC), 22);
    EXPECT_EQ(count(kUC), 23);
    EXPECT_EQ(count(kUD), 23);
    EXPECT_EQ(count(kGSI), 23);
}

TEST(QpStateMachine, RepresentativeIllegalTransitions) {
    const std::vector<std::tuple<QpState, QpState>> illegal = {
        {QpState::Reset, QpState::Rtr}, {QpState::Reset, QpState::Rts}, {QpState::Reset, QpState::Sqd},
        {QpState::Init, QpState::Rts},  {QpState::Init, QpState::Sqd},  {QpState::Rtr, QpState::Init},
        {QpState::Rtr, QpState::Rtr},   {QpState::Rts, QpState::Init},  {QpState::Rts, QpState::Rtr},
        {QpState::Sqd, QpState::Init},  {QpState::Sqe, QpState::Init},  {QpState::Sqe, QpState::Sqd},
        {QpState::Err, QpState::Init},  {QpState::Err, QpState::Rts},   {QpState::Reset, QpState::Sqe},
        {QpState::Rts, QpState::Sqe},
    };
    for (const Kind &k : {kRC, kUC, kUD, kSMI}) {
        for (auto [from, to] : illegal) {
            SCOPED_TRACE(std::string(k.name) + " " + state_name(from) + "->" + state_name(to));
            EXPECT_EQ(modify_valid(k, from, to, kState).verdict, Verdict::BadTransition);
        }
    }
    // A reliable connection has no SQE->RTS recovery.
    EXPECT_EQ(modify_valid(kRC, QpState::Sqe, QpState::Rts, kState).verdict, Verdict::BadTransition);
    EXPECT_TRUE(modify_valid(kUD, QpState::Sqe, QpState::Rts, kState).ok());
    // A state number beyond ERR is no transition at all.
    ModifyValues v = valid_values(QpState::Init);
    v.qp_state = static_cast<QpState>(7);
    EXPECT_EQ(check_modify(Transport::UD, QpKind::Regular, QpState::Reset, kState, v, kLimits).verdict,
              Verdict::BadTransition);
}

TEST(QpStateMachine, ReliableDatagramIsNotSupported) {
    Check c = modify_valid(Kind{"RD", Transport::RD, QpKind::Regular}, QpState::Reset, QpState::Init,
                           kState | kPkeyIx | kPort | kQkey);
    EXPECT_EQ(c.verdict, Verdict::NotSupported);
    EXPECT_FALSE(transition_rules(Transport::RD, QpKind::Regular, QpState::Reset, QpState::Err).legal);
}

TEST(QpStateMachine, MaskWithoutStateOrWithReservedBitsIsRefused) {
    Check c = modify_valid(kUD, QpState::Reset, QpState::Init, kPkeyIx | kPort | kQkey);
    EXPECT_EQ(c.verdict, Verdict::BadMask);
    c = modify_valid(kUD, QpState::Reset, QpState::Init, kState | kPkeyIx | kPort | kQkey | kReserved);
    EXPECT_EQ(c.verdict, Verdict::BadMask);
    EXPECT_EQ(c.bits, kReserved);
    c = modify_valid(kUD, QpState::Reset, QpState::Init, kState | kPkeyIx | kPort | kQkey | 0x8000);
    EXPECT_EQ(c.verdict, Verdict::BadMask);
    EXPECT_EQ(c.bits, 0x8000u);
    c = modify_valid(kUD, QpState::Reset, QpState::Init, kState | kPkeyIx | kPort | kQkey | 0x8000000);
    EXPECT_EQ(c.verdict, Verdict::BadMask);
}

TEST(QpStateMachine, StateOnlyRequestsWhereNothingIsRequired) {
    EXPECT_TRUE(modify_valid(kUD, QpState::Init, QpState::Rtr, kState).ok());
    EXPECT_TRUE(modify_valid(kRC, QpState::Rts, QpState::Rts, kState).ok());
    EXPECT_TRUE(modify_valid(kRC, QpState::Rtr, QpState::Err, kState).ok());
    EXPECT_EQ(modify_valid(kUD, QpState::Rtr, QpState::Rts, kState).verdict, Verdict::MissingAttr);
    // Reset and error take the state only.
    Check c = modify_valid(kRC, QpState::Rts, QpState::Reset, kState | kQkey);
    EXPECT_EQ(c.verdict, Verdict::AttrNotAllowed);
    EXPECT_EQ(c.bits, kQkey);
}

namespace {

struct ValueCase {
    const char *name;
    uint32_t mask;  // besides the state bit, for an RC SQD->SQD request which accepts nearly everything
    void (*spoil)(ModifyValues &);
    Verdict verdict;
    const char *field;
};

}  // namespace

TEST(QpStateMachine, ValuesOutsideTheirRangeAreRefused) {
    const std::vector<ValueCase> cases = {
        {"port 0", kPort, [](ModifyValues &v) { v.port = 0; }, Verdict::BadPort, "port"},
        {"port 3", kPort, [](ModifyValues &v) { v.port = 3; }, Verdict::BadPort, "port"},
        {"pkey 64", kPkeyIx, [](ModifyValues &v) { v.pkey_ix = 64; }, Verdict::BadPkeyIndex, "pkey_ix"},
        {"mtu 0", kPathMtu, [](ModifyValues &v) { v.path_mtu = 0; }, Verdict::BadMtu, "path_mtu"},
        {"mtu 4096", kPathMtu, [](ModifyValues &v) { v.path_mtu = 5; }, Verdict::BadMtu, "path_mtu"},
        {"timeout", kTimeout, [](ModifyValues &v) { v.timeout = 32; }, Verdict::BadValue, "timeout"},
        {"retry", kRetryCount, [](ModifyValues &v) { v.retry_count = 8; }, Verdict::BadValue, "retry_count"},
        {"rnr retry", kRnrRetry, [](ModifyValues &v) { v.rnr_retry = 8; }, Verdict::BadValue, "rnr_retry"},
        {"rnr timer", kMinRnrTimer, [](ModifyValues &v) { v.min_rnr_timer = 32; }, Verdict::BadValue,
         "min_rnr_timer"},
        {"rd atom", kQpOusRdAtom, [](ModifyValues &v) { v.qp_ous_rd_atom = 5; }, Verdict::BadValue,
         "qp_ous_rd_atom"},
        {"init rd atom", kOusDstRdAtom, [](ModifyValues &v) { v.ous_dst_rd_atom = 5; }, Verdict::BadValue,
         "ous_dst_rd_atom"},
        {"access", kRemoteAtomicFlags, [](ModifyValues &v) { v.remote_atomic_flags = 8; }, Verdict::BadValue,
         "remote_atomic_flags"},
        {"mig state", kPathMigState, [](ModifyValues &v) { v.path_mig_state = 3; }, Verdict::BadValue,
         "path_mig_state"},
        {"av port", kAv, [](ModifyValues &v) { v.av.port = 3; }, Verdict::BadPort, "av.port"},
        {"av sl", kAv, [](ModifyValues &v) { v.av.sl = 16; }, Verdict::BadValue, "av.sl"},
        {"av rate", kAv, [](ModifyValues &v) { v.av.static_rate = 8; }, Verdict::BadValue, "av.static_rate"},
        {"av sgid", kAv, [](ModifyValues &v) { v.av.sgid_index = 32; }, Verdict::BadValue, "av.sgid_index"},
        {"av flow", kAv, [](ModifyValues &v) { v.av.flow_label = 1u << 20; }, Verdict::BadValue,
         "av.flow_label"},
        {"alt port", kAltPath, [](ModifyValues &v) { v.alt_port = 3; }, Verdict::BadPort, "alt_port"},
        {"alt pkey", kAltPath, [](ModifyValues &v) { v.alt_pkey_ix = 64; }, Verdict::BadPkeyIndex,
         "alt_pkey_ix"},
        {"alt timeout", kAltPath, [](ModifyValues &v) { v.alt_timeout = 32; }, Verdict::BadValue,
         "alt_timeout"},
        {"alt sl", kAltPath, [](ModifyValues &v) { v.alt_av.sl = 16; }, Verdict::BadValue, "alt_av.sl"},
    };
    for (const ValueCase &vc : cases) {
        SCOPED_TRACE(vc.name);
        ModifyValues v = valid_values(QpState::Sqd);
        EXPECT_TRUE(
            check_modify(Transport::RC, QpKind::Regular, QpState::Sqd, kState | vc.mask, v, kLimits).ok());
        vc.spoil(v);
        Check c = check_modify(Transport::RC, QpKind::Regular, QpState::Sqd, kState | vc.mask, v, kLimits);
        EXPECT_EQ(c.verdict, vc.verdict);
        EXPECT_STREQ(c.field, vc.field);
    }
}

TEST(QpStateMachine, PsnAndQpNumberAreTwentyFourBits) {
    ModifyValues v = valid_values(QpState::Rtr);
    const uint32_t rtr = kState | kAv | kPathMtu | kDestQpNum | kRqPsn;
    v.rq_psn = 0xffffff;
    v.dest_qp_num = 0xffffff;
    EXPECT_TRUE(check_modify(Transport::UC, QpKind::Regular, QpState::Init, rtr, v, kLimits).ok());
    v.rq_psn = 0x1000000;
    EXPECT_STREQ(check_modify(Transport::UC, QpKind::Regular, QpState::Init, rtr, v, kLimits).field,
                 "rq_psn");
    v.rq_psn = 0;
    v.dest_qp_num = 0x1000000;
    EXPECT_STREQ(check_modify(Transport::UC, QpKind::Regular, QpState::Init, rtr, v, kLimits).field,
                 "dest_qp_num");
    ModifyValues r = valid_values(QpState::Rts);
    r.sq_psn = 0x1000000;
    EXPECT_STREQ(
        check_modify(Transport::UD, QpKind::Regular, QpState::Rtr, kState | kSqPsn, r, kLimits).field,
        "sq_psn");
}

TEST(QpStateMachine, ValuesOfAttributesNotInTheMaskAreNotChecked) {
    ModifyValues v = valid_values(QpState::Init);
    v.path_mtu = 9;
    v.timeout = 99;
    v.av.sl = 99;
    EXPECT_TRUE(check_modify(Transport::UD, QpKind::Regular, QpState::Reset, kState | kPkeyIx | kPort | kQkey,
                             v, kLimits)
                    .ok());
}

TEST(QpStateMachine, AddressVectorWithoutGrhIgnoresGlobalFields) {
    ModifyValues v = valid_values(QpState::Sqd);
    v.av.grh = false;
    v.av.sgid_index = 200;
    v.av.flow_label = 0xffffffff;
    v.av.port = 0;  // the QP's own port
    EXPECT_TRUE(check_modify(Transport::RC, QpKind::Regular, QpState::Sqd, kState | kAv, v, kLimits).ok());
}

TEST(QpStateMachine, LimitsComeFromTheDevice) {
    DeviceLimits one_port;
    one_port.num_ports = 1;
    one_port.max_mtu = 2;
    ModifyValues v = valid_values(QpState::Init);
    v.port = 2;
    Check c = check_modify(Transport::UD, QpKind::Regular, QpState::Reset, kState | kPkeyIx | kPort | kQkey,
                           v, one_port);
    EXPECT_EQ(c.verdict, Verdict::BadPort);
    ModifyValues s = valid_values(QpState::Sqd);
    s.path_mtu = 3;
    EXPECT_EQ(
        check_modify(Transport::RC, QpKind::Regular, QpState::Sqd, kState | kPathMtu, s, one_port).verdict,
        Verdict::BadMtu);
}

TEST(QpStateMachine, NamesForLogsAndMessages) {
    EXPECT_STREQ(state_name(QpState::Rts), "RTS");
    EXPECT_STREQ(state_name(QpState::Err), "ERR");
    EXPECT_STREQ(verdict_name(Verdict::MissingAttr), "missing required attribute");
    EXPECT_STREQ(verdict_name(Verdict::BadTransition), "illegal transition");
}
