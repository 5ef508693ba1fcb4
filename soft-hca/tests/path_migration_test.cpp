// Automatic path migration: an armed connected QP that loses its primary path moves to its
// alternate path, says so in VAPI_query_qp and raises VAPI_QP_PATH_MIGRATED; a QP that is not
// armed keeps its path; software may ask for the migration itself.
#include "datapath_fixture.hpp"

using namespace dp;

namespace {

constexpr uint8_t kAltTimeout = 12;  // 16.8 ms

class PathMigration : public DataPathTest {
  protected:
    sh::Options options() override {
        sh::Options o = DataPathTest::options();
        o.cable_all_ports = true;  // port 2 of each device carries the alternate paths
        return o;
    }
    void SetUp() override {
        DataPathTest::SetUp();
        log_async_events();
    }
    static IB_lid_t lid(const Side &s, int port) { return sh::port_status(s.name, port)->lid; }

    // Loads the alternate path of `q` (port 2 to the peer's port 2) and sets the migration state.
    VAPI_ret_t load_alternate(const Qp &q, const Qp &peer, VAPI_mig_state_t mig, VAPI_pkey_ix_t pkey_ix = 0) {
        VAPI_qp_attr_t a{};
        a.qp_state = VAPI_RTS;
        a.alt_av.dlid = lid(*peer.side, 2);
        a.alt_av.sl = 5;
        a.alt_av.port = 2;
        a.alt_port = 2;
        a.alt_pkey_ix = pkey_ix;
        a.alt_timeout = kAltTimeout;
        a.path_mig_state = mig;
        return modify(q, a, QP_ATTR_QP_STATE | QP_ATTR_ALT_PATH | QP_ATTR_PATH_MIG_STATE);
    }
    // RTS->RTS naming the migration state only.
    VAPI_ret_t set_mig_state(const Qp &q, VAPI_mig_state_t mig) {
        VAPI_qp_attr_t a{};
        a.qp_state = VAPI_RTS;
        a.path_mig_state = mig;
        return modify(q, a, QP_ATTR_QP_STATE | QP_ATTR_PATH_MIG_STATE);
    }
    // Sends 256 bytes from `a` to `b` and returns b's receive completion (its status is checked
    // by the caller); the sender's completion and, when the message arrived, the bytes are
    // checked here.
    VAPI_wc_desc_t send(const Qp &a, const Qp &b, uint8_t seed) {
        Buffer &src = buffer(*a.side, 256), &dst = buffer(*b.side, 256);
        pattern(src, seed);
        Delivery m = send_message(a, b, {src.sg(0, 256)}, {dst.sg(0, 256)}, 8, 7);
        EXPECT_EQ(only(m.sent).status, VAPI_SUCCESS);
        const VAPI_wc_desc_t got = only(m.got);
        if (got.status == VAPI_SUCCESS) {
            EXPECT_EQ(dst.bytes, src.bytes);
        }
        return got;
    }
};

TEST_F(PathMigration, PullingThePrimaryCableMovesArmedRcQpsOnBothEndsToTheAlternatePath) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    ASSERT_EQ(load_alternate(a, b, VAPI_ARMED), VAPI_OK);
    ASSERT_EQ(load_alternate(b, a, VAPI_ARMED), VAPI_OK);
    EXPECT_EQ(query(a).path_mig_state, VAPI_ARMED);
    EXPECT_EQ(send(a, b, 1).remote_node_addr.slid, lid(s0, 1));

    const IB_lid_t a_alt_source = lid(s0, 2);
    ASSERT_TRUE(sh::unplug("InfiniHost0", 1));

    // a's primary path left from the lost port; b's led to it.
    VAPI_qp_attr_t qa = query(a), qb = query(b);
    EXPECT_EQ(qa.path_mig_state, VAPI_MIGRATED);
    EXPECT_EQ(qa.port, 2);
    EXPECT_EQ(qa.av.dlid, lid(s1, 2));
    EXPECT_EQ(qa.av.sl, 5);
    EXPECT_EQ(qa.timeout, kAltTimeout);
    EXPECT_EQ(qb.path_mig_state, VAPI_MIGRATED);
    EXPECT_EQ(qb.port, 2);
    EXPECT_EQ(qb.av.dlid, a_alt_source);
    EXPECT_EQ(async0.count(VAPI_QP_PATH_MIGRATED), 1u);
    EXPECT_TRUE(async0.has(VAPI_QP_PATH_MIGRATED, a.hndl));
    EXPECT_EQ(async1.count(VAPI_QP_PATH_MIGRATED), 1u);
    EXPECT_TRUE(async1.has(VAPI_QP_PATH_MIGRATED, b.hndl));
    EXPECT_TRUE(async0.has(VAPI_PORT_ERROR, 1));

    // Traffic flows both ways on port 2.
    VAPI_wc_desc_t to_b = send(a, b, 2);
    EXPECT_EQ(to_b.status, VAPI_SUCCESS);
    EXPECT_EQ(to_b.remote_node_addr.slid, a_alt_source);
    VAPI_wc_desc_t to_a = send(b, a, 3);
    EXPECT_EQ(to_a.status, VAPI_SUCCESS);
    EXPECT_EQ(to_a.remote_node_addr.slid, lid(s1, 2));
    EXPECT_EQ(state(a), VAPI_RTS);
    EXPECT_EQ(state(b), VAPI_RTS);
}

TEST_F(PathMigration, ARequestLostOnThePrimaryPathIsRetransmittedOnTheAlternate) {
    Conn c;
    c.retry_count = 1;
    auto [a, b] = pair(VAPI_TS_RC, s0, s1, c);
    ASSERT_EQ(load_alternate(a, b, VAPI_ARMED), VAPI_OK);
    ASSERT_EQ(load_alternate(b, a, VAPI_ARMED), VAPI_OK);
    Buffer &src = buffer(s0, 128), &dst = buffer(s1, 128);
    pattern(src, 9);
    drop_packets(s0, 1);
    ASSERT_EQ(post_send(a, 1, VAPI_RDMA_WRITE, {src.sg(0, 128)}, dst.addr(), dst.rkey), VAPI_OK);
    run();
    ASSERT_EQ(sh::link_dropped_packets("InfiniHost0", 1), 1u);
    EXPECT_TRUE(poll(s0).empty());  // unanswered

    ASSERT_TRUE(sh::unplug("InfiniHost0", 1));
    sh::advance_clock(1);  // the retransmission goes at once, on the new path
    auto wcs = poll(s0);
    ASSERT_EQ(wcs.size(), 1u);
    EXPECT_EQ(wcs[0].status, VAPI_SUCCESS);
    EXPECT_EQ(wcs[0].id, 1u);
    EXPECT_EQ(dst.bytes, src.bytes);
}

TEST_F(PathMigration, AQpThatIsNotArmedKeepsItsPathAndRunsOutOfRetries) {
    Conn c;
    c.timeout = 10;  // 4.2 ms
    c.retry_count = 2;
    auto [a, b] = pair(VAPI_TS_RC, s0, s1, c);
    ASSERT_EQ(load_alternate(a, b, VAPI_REARM), VAPI_OK);
    ASSERT_TRUE(sh::unplug("InfiniHost0", 1));
    VAPI_qp_attr_t qa = query(a);
    EXPECT_EQ(qa.path_mig_state, VAPI_REARM);
    EXPECT_EQ(qa.port, 1);
    EXPECT_EQ(qa.av.dlid, lid(s1, 1));
    EXPECT_EQ(async0.count(VAPI_QP_PATH_MIGRATED), 0u);

    Buffer &src = buffer(s0, 64);
    ASSERT_EQ(post_send(a, 1, VAPI_SEND, {src.sg(0, 8)}), VAPI_OK);
    sh::advance_clock(100);
    auto wcs = poll(s0);
    ASSERT_EQ(wcs.size(), 1u);
    EXPECT_EQ(wcs[0].status, VAPI_RETRY_EXC_ERR);
    EXPECT_EQ(state(a), VAPI_ERR);
}

TEST_F(PathMigration, ArmedWithoutAnAlternatePathDoesNotMigrate) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    ASSERT_EQ(set_mig_state(a, VAPI_ARMED), VAPI_OK);
    EXPECT_FALSE(sh::migrate_path("InfiniHost0", a.hndl));
    EXPECT_EQ(query(a).port, 1);
    EXPECT_EQ(async0.count(VAPI_QP_PATH_MIGRATED), 0u);
}

TEST_F(PathMigration, TheControlMigratesAnArmedQpOnce) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    ASSERT_EQ(load_alternate(a, b, VAPI_ARMED, 3), VAPI_OK);
    EXPECT_TRUE(sh::migrate_path("InfiniHost0", a.hndl));
    VAPI_qp_attr_t qa = query(a);
    EXPECT_EQ(qa.path_mig_state, VAPI_MIGRATED);
    EXPECT_EQ(qa.port, 2);
    EXPECT_EQ(qa.pkey_ix, 3);
    EXPECT_EQ(qa.timeout, kAltTimeout);
    EXPECT_EQ(qa.av.dlid, lid(s1, 2));
    ASSERT_EQ(async0.events.size(), 1u);
    EXPECT_EQ(async0.events[0].type, VAPI_QP_PATH_MIGRATED);
    EXPECT_EQ(async0.events[0].modifier.qp_hndl, a.hndl);
    // Migrated: the alternate path is used up until a new one is loaded and armed.
    EXPECT_FALSE(sh::migrate_path("InfiniHost0", a.hndl));
    EXPECT_EQ(async0.events.size(), 1u);
    EXPECT_TRUE(async1.events.empty());  // the control acts on the one QP only
    EXPECT_EQ(query(b).port, 1);
    EXPECT_FALSE(sh::migrate_path("InfiniHost0", 999));
    EXPECT_FALSE(sh::migrate_path("InfiniHost9", a.hndl));
}

TEST_F(PathMigration, UcQpsMigrateToo) {
    auto [a, b] = pair(VAPI_TS_UC, s0, s1);
    ASSERT_EQ(load_alternate(a, b, VAPI_ARMED), VAPI_OK);
    EXPECT_TRUE(sh::migrate_path("InfiniHost0", a.hndl));
    EXPECT_TRUE(async0.has(VAPI_QP_PATH_MIGRATED, a.hndl));
    VAPI_wc_desc_t got = send(a, b, 4);
    EXPECT_EQ(got.status, VAPI_SUCCESS);
    EXPECT_EQ(got.remote_node_addr.slid, lid(s0, 2));
}

// Software asks for the migration itself (RTS->RTS naming MIGRATED): an armed QP switches to its
// alternate path, one that is not armed only records the state; neither raises an event.
struct SoftwareMigrationCase {
    const char *name;
    VAPI_mig_state_t loaded;  // the migration state loaded with the alternate path
    IB_port_t port;           // the port the QP then sends from, to the peer's port of that number
};

void PrintTo(const SoftwareMigrationCase &c, std::ostream *os) {
    *os << c.name;
}

class SoftwareMigration : public PathMigration,
                          public ::testing::WithParamInterface<SoftwareMigrationCase> {};

TEST_P(SoftwareMigration, MovesOnlyAnArmedQpAndRaisesNoEvent) {
    const SoftwareMigrationCase &c = GetParam();
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    ASSERT_EQ(load_alternate(a, b, c.loaded), VAPI_OK);
    ASSERT_EQ(set_mig_state(a, VAPI_MIGRATED), VAPI_OK);
    VAPI_qp_attr_t qa = query(a);
    EXPECT_EQ(qa.path_mig_state, VAPI_MIGRATED);
    EXPECT_EQ(qa.port, c.port);
    EXPECT_EQ(qa.av.dlid, lid(s1, c.port));
    EXPECT_EQ(async0.count(VAPI_QP_PATH_MIGRATED), 0u);
    // Requests leave from that port; b answers where they came from.
    VAPI_wc_desc_t got = send(a, b, 5);
    EXPECT_EQ(got.status, VAPI_SUCCESS);
    EXPECT_EQ(got.remote_node_addr.slid, lid(s0, c.port));
}

INSTANTIATE_TEST_SUITE_P(Requested, SoftwareMigration,
                         ::testing::Values(SoftwareMigrationCase{"Armed", VAPI_ARMED, 2},
                                           SoftwareMigrationCase{"NotArmed", VAPI_REARM, 1}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(PathMigration, PullingAnUnrelatedCableMovesNothing) {
    auto [a, b] = pair(VAPI_TS_RC, s0, s1);
    ASSERT_EQ(load_alternate(a, b, VAPI_ARMED), VAPI_OK);
    ASSERT_EQ(load_alternate(b, a, VAPI_ARMED), VAPI_OK);
    ASSERT_TRUE(sh::unplug("InfiniHost1", 2));  // an alternate path's port, not a primary one
    EXPECT_EQ(query(a).path_mig_state, VAPI_ARMED);
    EXPECT_EQ(query(b).path_mig_state, VAPI_ARMED);
    EXPECT_EQ(async0.count(VAPI_QP_PATH_MIGRATED) + async1.count(VAPI_QP_PATH_MIGRATED), 0u);
}

}  // namespace
