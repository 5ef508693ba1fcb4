#include "device/device.hpp"
#include "softhca_fixture.hpp"

namespace sh = marlix::softhca;

TEST_F(SoftHcaTest, PdsAreAllocatedAndReleased) {
    VAPI_hca_hndl_t h = open();
    VAPI_pd_hndl_t a, b;
    ASSERT_EQ(EVAPI_alloc_pd(h, 2252, &a), VAPI_OK);
    ASSERT_EQ(VAPI_alloc_pd(h, &b), VAPI_OK);
    EXPECT_NE(a, b);
    EXPECT_EQ(sh::pd_count("InfiniHost0"), 2u);
    EXPECT_EQ(VAPI_dealloc_pd(h, a), VAPI_OK);
    EXPECT_EQ(VAPI_dealloc_pd(h, a), VAPI_EINVAL_PD_HNDL);
    EXPECT_EQ(sh::pd_count("InfiniHost0"), 1u);
}

TEST_F(SoftHcaTest, PdAvLimitBeyondTheDeviceIsRefused) {
    VAPI_hca_hndl_t h = open();
    VAPI_pd_hndl_t pd;
    EXPECT_EQ(EVAPI_alloc_pd(h, 65537, &pd), VAPI_EINVAL_PARAM);
    EXPECT_EQ(EVAPI_alloc_pd(h, 1, nullptr), VAPI_EINVAL_PARAM);
}

TEST_F(SoftHcaTest, PdInUseCannotBeReleased) {
    VAPI_hca_hndl_t h = open();
    VAPI_pd_hndl_t pd;
    ASSERT_EQ(EVAPI_alloc_pd(h, 4, &pd), VAPI_OK);
    static char buf[256];
    VAPI_mrw_t req = virtual_region(pd, buf, sizeof buf, 0), rep{};
    VAPI_mr_hndl_t mr;
    ASSERT_EQ(VAPI_register_mr(h, &req, &mr, &rep), VAPI_OK);
    EXPECT_EQ(VAPI_dealloc_pd(h, pd), VAPI_EBUSY);
    ASSERT_EQ(VAPI_deregister_mr(h, mr), VAPI_OK);
    EXPECT_EQ(VAPI_dealloc_pd(h, pd), VAPI_OK);
}

TEST_F(SoftHcaTest, PdLimitOfTheDeviceGivesOutOfResources) {
    VAPI_hca_hndl_t h = open();
    sh::Device *d = sh::device_by_name("InfiniHost0");
    {
        std::lock_guard lk(d->mu);
        d->cap.max_pd_num = 2;  // a small device keeps the test fast
    }
    VAPI_pd_hndl_t pd;
    ASSERT_EQ(VAPI_alloc_pd(h, &pd), VAPI_OK);
    ASSERT_EQ(VAPI_alloc_pd(h, &pd), VAPI_OK);
    EXPECT_EQ(VAPI_alloc_pd(h, &pd), VAPI_EOL);
}
