// Multicast attach and detach through the verbs: group and LID checks, UD only, the per-group
// limit, membership and injected faults.
#include "queue_fixture.hpp"

namespace sh = marlix::softhca;

namespace {

class McastTest : public QueueTest {
  protected:
    void SetUp() override {
        QueueTest::SetUp();
        std::memset(mgid, 0, sizeof mgid);
        mgid[0] = 0xff;
        mgid[1] = 0x12;
        mgid[15] = 0x01;
    }
    std::vector<VAPI_qp_hndl_t> members(const IB_gid_t gid) {
        sh::Device *dev = sh::device_by_handle(hca);
        std::lock_guard lk(dev->mu);
        return sh::mcast_group_members(*dev, gid);
    }
    IB_gid_t mgid;
    static constexpr IB_lid_t kMlid = 0xC001;
};

}  // namespace

TEST_F(McastTest, AttachedUdQpsAreMembersUntilDetached) {
    VAPI_qp_hndl_t a = make_qp(VAPI_TS_UD), b = make_qp(VAPI_TS_UD);
    ASSERT_EQ(VAPI_attach_to_multicast(hca, mgid, a, kMlid), VAPI_OK);
    ASSERT_EQ(VAPI_attach_to_multicast(hca, mgid, b, kMlid), VAPI_OK);
    EXPECT_EQ(members(mgid), (std::vector<VAPI_qp_hndl_t>{a, b}));
    ASSERT_EQ(VAPI_detach_from_multicast(hca, mgid, a, kMlid), VAPI_OK);
    EXPECT_EQ(members(mgid), (std::vector<VAPI_qp_hndl_t>{b}));
    // Not a member any more.
    EXPECT_EQ(VAPI_detach_from_multicast(hca, mgid, a, kMlid), VAPI_EINVAL_PARAM);
    ASSERT_EQ(VAPI_detach_from_multicast(hca, mgid, b, kMlid), VAPI_OK);
    EXPECT_TRUE(members(mgid).empty());
    // The group is gone with its last member.
    EXPECT_EQ(VAPI_detach_from_multicast(hca, mgid, b, kMlid), VAPI_EINVAL_MCG_GID);
}

TEST_F(McastTest, GidAndLidMustBeMulticast) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UD);
    IB_gid_t unicast = {0xfe, 0x80};
    EXPECT_EQ(VAPI_attach_to_multicast(hca, unicast, qp, kMlid), VAPI_EINVAL_MCG_GID);
    EXPECT_EQ(VAPI_attach_to_multicast(hca, mgid, qp, 0xBFFF), VAPI_EINVAL_MCG_LID);
    EXPECT_EQ(VAPI_attach_to_multicast(hca, mgid, qp, 0xFFFF), VAPI_EINVAL_MCG_LID);
    EXPECT_EQ(VAPI_attach_to_multicast(hca, mgid, qp, 0xC000), VAPI_OK);
    // One group, one MLID.
    VAPI_qp_hndl_t other = make_qp(VAPI_TS_UD);
    EXPECT_EQ(VAPI_attach_to_multicast(hca, mgid, other, 0xFFFE), VAPI_EINVAL_MCG_LID);
    EXPECT_EQ(VAPI_detach_from_multicast(hca, mgid, qp, 0xC002), VAPI_EINVAL_MCG_LID);
    EXPECT_EQ(VAPI_attach_to_multicast(hca, mgid, 99, kMlid), VAPI_EINVAL_QP_HNDL);
}

TEST_F(McastTest, OnlyUnreliableDatagramQpsAttach) {
    VAPI_qp_hndl_t rc = make_qp(VAPI_TS_RC), uc = make_qp(VAPI_TS_UC);
    EXPECT_EQ(VAPI_attach_to_multicast(hca, mgid, rc, kMlid), VAPI_EINVAL_SERVICE_TYPE);
    EXPECT_EQ(VAPI_attach_to_multicast(hca, mgid, uc, kMlid), VAPI_EINVAL_SERVICE_TYPE);
    VAPI_qp_init_attr_t a = init_attr(VAPI_TS_UD, cq, cq);
    VAPI_qp_hndl_t gsi = 0;
    VAPI_qp_cap_t cap{};
    ASSERT_EQ(VAPI_get_special_qp(hca, 1, VAPI_GSI_QP, &a, &gsi, &cap), VAPI_OK);
    EXPECT_EQ(VAPI_attach_to_multicast(hca, mgid, gsi, kMlid), VAPI_EINVAL_SERVICE_TYPE);
}

TEST_F(McastTest, AttachingTwiceIsRefused) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UD);
    ASSERT_EQ(VAPI_attach_to_multicast(hca, mgid, qp, kMlid), VAPI_OK);
    EXPECT_EQ(VAPI_attach_to_multicast(hca, mgid, qp, kMlid), VAPI_EINVAL_PARAM);
    EXPECT_EQ(members(mgid).size(), 1u);
}

TEST_F(McastTest, AGroupHoldsAtMost56Qps) {
    VAPI_cq_hndl_t big = make_cq(256);
    std::vector<VAPI_qp_hndl_t> qps;
    for (int i = 0; i < 57; ++i) {
        VAPI_qp_init_attr_t a = init_attr(VAPI_TS_UD, big, big);
        VAPI_qp_hndl_t h = 0;
        VAPI_qp_prop_t prop{};
        ASSERT_EQ(VAPI_create_qp(hca, &a, &h, &prop), VAPI_OK);
        qps.push_back(h);
    }
    for (int i = 0; i < 56; ++i) ASSERT_EQ(VAPI_attach_to_multicast(hca, mgid, qps[i], kMlid), VAPI_OK);
    EXPECT_EQ(VAPI_attach_to_multicast(hca, mgid, qps[56], kMlid), VAPI_E2BIG_MCG_SIZE);
    // Another group is not affected.
    IB_gid_t other;
    std::memcpy(other, mgid, sizeof other);
    other[15] = 2;
    EXPECT_EQ(VAPI_attach_to_multicast(hca, other, qps[56], 0xC002), VAPI_OK);
}

TEST_F(McastTest, DestroyingAQpLeavesItsGroups) {
    VAPI_qp_hndl_t a = make_qp(VAPI_TS_UD), b = make_qp(VAPI_TS_UD);
    ASSERT_EQ(VAPI_attach_to_multicast(hca, mgid, a, kMlid), VAPI_OK);
    ASSERT_EQ(VAPI_attach_to_multicast(hca, mgid, b, kMlid), VAPI_OK);
    ASSERT_EQ(VAPI_destroy_qp(hca, a), VAPI_OK);
    EXPECT_EQ(members(mgid), (std::vector<VAPI_qp_hndl_t>{b}));
    // A new QP that reuses the handle is not a member.
    VAPI_qp_hndl_t c = make_qp(VAPI_TS_UD);
    EXPECT_EQ(c, a);
    EXPECT_EQ(VAPI_detach_from_multicast(hca, mgid, c, kMlid), VAPI_EINVAL_PARAM);
}

TEST_F(McastTest, InjectedFaults) {
    VAPI_qp_hndl_t qp = make_qp(VAPI_TS_UD);
    sh::inject_fault("VAPI_attach_to_multicast", "InfiniHost0", VAPI_EAGAIN);
    EXPECT_EQ(VAPI_attach_to_multicast(hca, mgid, qp, kMlid), VAPI_EAGAIN);
    EXPECT_TRUE(members(mgid).empty());
    ASSERT_EQ(VAPI_attach_to_multicast(hca, mgid, qp, kMlid), VAPI_OK);
    sh::inject_fault("VAPI_detach_from_multicast", "*", VAPI_EGEN);
    EXPECT_EQ(VAPI_detach_from_multicast(hca, mgid, qp, kMlid), VAPI_EGEN);
    EXPECT_EQ(members(mgid).size(), 1u);
    EXPECT_EQ(VAPI_detach_from_multicast(hca, mgid, qp, kMlid), VAPI_OK);
    EXPECT_EQ(sh::call_count("VAPI_attach_to_multicast"), 2u);
}
