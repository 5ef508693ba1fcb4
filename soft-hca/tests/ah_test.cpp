// Address handles through the verbs: create/modify/query/destroy, address vector checks, the
// per-PD limit and injected faults.
#include "queue_fixture.hpp"

namespace sh = marlix::softhca;

namespace {

class AhTest : public QueueTest {
  protected:
    VAPI_ret_t create(const VAPI_ud_av_t &av, VAPI_ud_av_hndl_t *h, VAPI_pd_hndl_t in_pd = 0) {
        return VAPI_create_addr_hndl(hca, in_pd ? in_pd : pd, &av, h);
    }
};

}  // namespace

TEST_F(AhTest, CreateQueryModifyDestroy) {
    VAPI_ud_av_t av = good_av();
    av.grh_flag = TRUE;
    av.sgid_index = 31;
    av.hop_limit = 64;
    av.flow_label = 0xfffff;
    av.traffic_class = 7;
    for (int i = 0; i < 16; ++i) av.dgid[i] = uint8_t(0xf0 + i);
    VAPI_ud_av_hndl_t h = 0;
    ASSERT_EQ(create(av, &h), VAPI_OK);
    EXPECT_EQ(h, 1u);
    EXPECT_EQ(sh::ah_count("InfiniHost0"), 1u);
    VAPI_ud_av_t q{};
    ASSERT_EQ(VAPI_query_addr_hndl(hca, h, &q), VAPI_OK);
    EXPECT_EQ(std::memcmp(&q, &av, sizeof av), 0);
    av.dlid = 9;
    av.port = 2;
    ASSERT_EQ(VAPI_modify_addr_hndl(hca, h, &av), VAPI_OK);
    ASSERT_EQ(VAPI_query_addr_hndl(hca, h, &q), VAPI_OK);
    EXPECT_EQ(q.dlid, 9);
    EXPECT_EQ(q.port, 2);
    ASSERT_EQ(VAPI_destroy_addr_hndl(hca, h), VAPI_OK);
    EXPECT_EQ(VAPI_destroy_addr_hndl(hca, h), VAPI_EINVAL_AV_HNDL);
    EXPECT_EQ(VAPI_query_addr_hndl(hca, h, &q), VAPI_EINVAL_AV_HNDL);
    EXPECT_EQ(VAPI_modify_addr_hndl(hca, h, &av), VAPI_EINVAL_AV_HNDL);
    EXPECT_EQ(sh::ah_count("InfiniHost0"), 0u);
}

TEST_F(AhTest, AddressVectorIsValidated) {
    VAPI_ud_av_hndl_t h = 0;
    VAPI_ud_av_t av = good_av();
    av.port = 0;
    EXPECT_EQ(create(av, &h), VAPI_EINVAL_PORT);
    av.port = 3;
    EXPECT_EQ(create(av, &h), VAPI_EINVAL_PORT);
    av = good_av();
    av.sl = 16;
    EXPECT_EQ(create(av, &h), VAPI_EINVAL_AH);
    av = good_av();
    av.static_rate = 8;
    EXPECT_EQ(create(av, &h), VAPI_EINVAL_AH);
    av = good_av();
    av.grh_flag = TRUE;
    av.sgid_index = 32;
    EXPECT_EQ(create(av, &h), VAPI_EINVAL_GID_IX);
    av.grh_flag = FALSE;  // without a GRH the index is not used
    EXPECT_EQ(create(av, &h), VAPI_OK);
    av = good_av();
    av.sl = 20;
    EXPECT_EQ(VAPI_modify_addr_hndl(hca, h, &av), VAPI_EINVAL_AH);
    VAPI_ud_av_t q{};
    ASSERT_EQ(VAPI_query_addr_hndl(hca, h, &q), VAPI_OK);
    EXPECT_EQ(q.sl, 2);  // unchanged by the refused modify
    EXPECT_EQ(VAPI_create_addr_hndl(hca, pd, nullptr, &h), VAPI_EINVAL_PARAM);
    EXPECT_EQ(VAPI_create_addr_hndl(hca, pd, &av, nullptr), VAPI_EINVAL_PARAM);
    EXPECT_EQ(VAPI_create_addr_hndl(hca, 77, &av, &h), VAPI_EINVAL_PD_HNDL);
    EXPECT_EQ(sh::ah_count("InfiniHost0"), 1u);
}

TEST_F(AhTest, ThePdLimitIsEnforcedAndFreedOnDestroy) {
    VAPI_pd_hndl_t small = 0;
    ASSERT_EQ(EVAPI_alloc_pd(hca, 2, &small), VAPI_OK);
    VAPI_ud_av_hndl_t a = 0, b = 0, c = 0;
    ASSERT_EQ(create(good_av(), &a, small), VAPI_OK);
    ASSERT_EQ(create(good_av(), &b, small), VAPI_OK);
    EXPECT_EQ(create(good_av(), &c, small), VAPI_EOL);
    // Another PD has its own limit.
    EXPECT_EQ(create(good_av(), &c), VAPI_OK);
    ASSERT_EQ(VAPI_destroy_addr_hndl(hca, a), VAPI_OK);
    EXPECT_EQ(create(good_av(), &a, small), VAPI_OK);
    EXPECT_EQ(a, 1u);  // handles reused lowest-first

    VAPI_pd_hndl_t none = 0;
    ASSERT_EQ(EVAPI_alloc_pd(hca, 0, &none), VAPI_OK);
    EXPECT_EQ(create(good_av(), &c, none), VAPI_EOL);
}

TEST_F(AhTest, APdWithAddressHandlesIsBusy) {
    VAPI_ud_av_hndl_t h = 0;
    ASSERT_EQ(create(good_av(), &h), VAPI_OK);
    EXPECT_EQ(VAPI_dealloc_pd(hca, pd), VAPI_EBUSY);
    ASSERT_EQ(VAPI_destroy_addr_hndl(hca, h), VAPI_OK);
    EXPECT_EQ(VAPI_dealloc_pd(hca, pd), VAPI_OK);
}

TEST_F(AhTest, InjectedFaults) {
    sh::inject_fault("VAPI_create_addr_hndl", "InfiniHost0", VAPI_EAGAIN);
    VAPI_ud_av_hndl_t h = 0;
    EXPECT_EQ(create(good_av(), &h), VAPI_EAGAIN);
    EXPECT_EQ(sh::ah_count("InfiniHost0"), 0u);
    ASSERT_EQ(create(good_av(), &h), VAPI_OK);
    sh::inject_fault("VAPI_destroy_addr_hndl", "*", VAPI_EGEN);
    EXPECT_EQ(VAPI_destroy_addr_hndl(hca, h), VAPI_EGEN);
    EXPECT_EQ(VAPI_destroy_addr_hndl(hca, h), VAPI_OK);
    EXPECT_EQ(sh::call_count("VAPI_destroy_addr_hndl", "InfiniHost0"), 2u);
    EXPECT_EQ(sh::call_count("VAPI_modify_addr_hndl"), 0u);
}
