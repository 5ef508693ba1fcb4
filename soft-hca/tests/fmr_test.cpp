#include <vector>

#include <asm/page.h>
#include "device/device.hpp"
#include "softhca_fixture.hpp"

namespace sh = marlix::softhca;

class FmrTest : public SoftHcaTest {
  protected:
    void SetUp() override {
        SoftHcaTest::SetUp();
        h = open();
        ASSERT_EQ(EVAPI_alloc_pd(h, 16, &pd), VAPI_OK);
        props.pd_hndl = pd;
        props.acl = VAPI_EN_LOCAL_WRITE | VAPI_EN_REMOTE_WRITE;
        props.max_pages = 4;
        props.log2_page_sz = 12;
        props.max_outstanding_maps = 2;
    }
    sh::Device &dev() { return *sh::device_by_name("InfiniHost0"); }
    VAPI_hca_hndl_t h = 0;
    VAPI_pd_hndl_t pd = 0;
    EVAPI_fmr_t props{};
};

TEST_F(FmrTest, EveryMapGetsNewKeysAndTheOldOnesStopWorking) {
    alignas(4096) static uint8_t pages[2][4096];
    VAPI_phy_addr_t list[2] = {__pa(pages[0]), __pa(pages[1])};
    EVAPI_fmr_hndl_t f;
    ASSERT_EQ(EVAPI_alloc_fmr(h, &props, &f), VAPI_OK);
    EVAPI_fmr_map_t map{0x5000, 8192, 2, list};
    VAPI_lkey_t l1, l2;
    VAPI_rkey_t r1, r2;
    ASSERT_EQ(EVAPI_map_fmr(h, f, &map, &l1, &r1), VAPI_OK);
    ASSERT_EQ(EVAPI_map_fmr(h, f, &map, &l2, &r2), VAPI_OK);
    EXPECT_NE(l1, l2);
    EXPECT_NE(r1, r2);
    {
        std::vector<sh::HostSpan> spans;
        std::lock_guard lk(dev().mu);
        EXPECT_EQ(dev().translate(l1, false, pd, 0x5000, 8, 0, spans), VAPI_EINVAL_L_KEY);
        ASSERT_EQ(dev().translate(r2, true, pd, 0x6000, 8, VAPI_EN_REMOTE_WRITE, spans), VAPI_OK);
        EXPECT_EQ(spans[0].ptr, pages[1]);
    }
    // Two outstanding maps is the limit until an unmap.
    EXPECT_EQ(EVAPI_map_fmr(h, f, &map, &l1, &r1), VAPI_EOL);
    EXPECT_EQ(EVAPI_free_fmr(h, f), VAPI_EBUSY);
    ASSERT_EQ(EVAPI_unmap_fmr(h, 1, &f), VAPI_OK);
    {
        std::vector<sh::HostSpan> spans;
        std::lock_guard lk(dev().mu);
        EXPECT_EQ(dev().translate(l2, false, pd, 0x5000, 8, 0, spans), VAPI_EINVAL_L_KEY);
    }
    ASSERT_EQ(EVAPI_map_fmr(h, f, &map, &l1, &r1), VAPI_OK);
    ASSERT_EQ(EVAPI_unmap_fmr(h, 1, &f), VAPI_OK);
    EXPECT_EQ(EVAPI_free_fmr(h, f), VAPI_OK);
    EXPECT_EQ(EVAPI_free_fmr(h, f), VAPI_EINVAL_FMR_HNDL);
    EXPECT_EQ(VAPI_dealloc_pd(h, pd), VAPI_OK);
}

TEST_F(FmrTest, RefusedMaps) {
    alignas(4096) static uint8_t page[4096];
    VAPI_phy_addr_t list[5] = {__pa(page), __pa(page), __pa(page), __pa(page), __pa(page)};
    EVAPI_fmr_hndl_t f;
    ASSERT_EQ(EVAPI_alloc_fmr(h, &props, &f), VAPI_OK);
    VAPI_lkey_t l;
    VAPI_rkey_t r;
    EVAPI_fmr_map_t map{0, 4096, 5, list};  // more pages than the FMR holds
    EXPECT_EQ(EVAPI_map_fmr(h, f, &map, &l, &r), VAPI_EINVAL_PARAM);
    map = {0x800, 4096, 1, list};  // starts mid-page, so needs two pages
    EXPECT_EQ(EVAPI_map_fmr(h, f, &map, &l, &r), VAPI_EINVAL_LEN);
    VAPI_phy_addr_t odd = __pa(page) + 8;
    map = {0, 16, 1, &odd};
    EXPECT_EQ(EVAPI_map_fmr(h, f, &map, &l, &r), VAPI_EINVAL_PARAM);
    EXPECT_EQ(EVAPI_map_fmr(h, f + 7, &map, &l, &r), VAPI_EINVAL_FMR_HNDL);
    EVAPI_fmr_hndl_t bad[2] = {f, f + 7};
    EXPECT_EQ(EVAPI_unmap_fmr(h, 2, bad), VAPI_EINVAL_FMR_HNDL);
}

TEST_F(FmrTest, RefusedAllocations) {
    EVAPI_fmr_hndl_t f;
    EVAPI_fmr_t p = props;
    p.log2_page_sz = 11;
    EXPECT_EQ(EVAPI_alloc_fmr(h, &p, &f), VAPI_EINVAL_PARAM);
    p = props;
    p.max_outstanding_maps = 0;
    EXPECT_EQ(EVAPI_alloc_fmr(h, &p, &f), VAPI_EINVAL_PARAM);
    p = props;
    p.pd_hndl = 999;
    EXPECT_EQ(EVAPI_alloc_fmr(h, &p, &f), VAPI_EINVAL_PD_HNDL);
    EXPECT_EQ(sh::fmr_count("InfiniHost0"), 0u);
}
