#include <cstring>
#include <vector>

#include <asm/page.h>
#include "device/device.hpp"
#include "softhca_fixture.hpp"

namespace sh = marlix::softhca;

class MrTest : public SoftHcaTest {
  protected:
    void SetUp() override {
        SoftHcaTest::SetUp();
        h = open();
        ASSERT_EQ(EVAPI_alloc_pd(h, 16, &pd), VAPI_OK);
    }
    VAPI_mrw_t virt(void *p, size_t n, VAPI_mrw_acl_t acl) { return virtual_region(pd, p, n, acl); }
    sh::Device &dev() { return *sh::device_by_name("InfiniHost0"); }
    VAPI_hca_hndl_t h = 0;
    VAPI_pd_hndl_t pd = 0;
};

TEST_F(MrTest, VirtualRegionGetsKeysAndIsQueryable) {
    std::vector<char> buf(8192);
    VAPI_mrw_t req = virt(buf.data(), buf.size(), VAPI_EN_LOCAL_WRITE | VAPI_EN_REMOTE_READ), rep{};
    VAPI_mr_hndl_t mr;
    ASSERT_EQ(VAPI_register_mr(h, &req, &mr, &rep), VAPI_OK);
    EXPECT_NE(rep.l_key, 0u);
    EXPECT_EQ(rep.start, req.start);
    EXPECT_EQ(rep.size, 8192u);
    VAPI_mrw_t q;
    std::memset(&q, 0xff, sizeof q);  // every field checked below must come from the query
    VAPI_virt_addr_t rs = 0;
    VAPI_size_t rsz = 0;
    ASSERT_EQ(VAPI_query_mr(h, mr, &q, &rs, &rsz), VAPI_OK);
    EXPECT_EQ(q.l_key, rep.l_key);
    EXPECT_EQ(q.r_key, rep.r_key);
    EXPECT_EQ(q.pd_hndl, pd);
    EXPECT_EQ(q.acl, VAPI_EN_LOCAL_WRITE | VAPI_EN_REMOTE_READ);
    EXPECT_EQ(rs, req.start);
    EXPECT_EQ(rsz, 8192u);
    EXPECT_EQ(sh::mr_count("InfiniHost0"), 1u);
    ASSERT_EQ(VAPI_deregister_mr(h, mr), VAPI_OK);
    EXPECT_EQ(VAPI_query_mr(h, mr, &q, &rs, &rsz), VAPI_EINVAL_MR_HNDL);
    EXPECT_EQ(VAPI_deregister_mr(h, mr), VAPI_EINVAL_MR_HNDL);
}

TEST_F(MrTest, TranslateChecksKeyBoundsAndRights) {
    std::vector<char> buf(4096);
    VAPI_mrw_t req = virt(buf.data(), buf.size(), VAPI_EN_LOCAL_WRITE | VAPI_EN_REMOTE_READ), rep{};
    VAPI_mr_hndl_t mr;
    ASSERT_EQ(VAPI_register_mr(h, &req, &mr, &rep), VAPI_OK);
    std::vector<sh::HostSpan> spans;
    std::lock_guard lk(dev().mu);
    ASSERT_EQ(dev().translate(rep.l_key, false, pd, req.start + 16, 100, VAPI_EN_LOCAL_WRITE, spans),
              VAPI_OK);
    ASSERT_EQ(spans.size(), 1u);
    EXPECT_EQ(spans[0].ptr, reinterpret_cast<uint8_t *>(buf.data() + 16));
    EXPECT_EQ(spans[0].len, 100u);
    EXPECT_EQ(dev().translate(rep.l_key, false, pd, req.start + 4000, 100, 0, spans), VAPI_EINVAL_LEN);
    EXPECT_EQ(dev().translate(rep.r_key, true, pd, req.start, 8, VAPI_EN_REMOTE_WRITE, spans), VAPI_EPERM);
    EXPECT_EQ(dev().translate(rep.r_key, true, pd, req.start, 8, VAPI_EN_REMOTE_READ, spans), VAPI_OK);
    EXPECT_EQ(dev().translate(rep.l_key + 1, false, pd, req.start, 8, 0, spans), VAPI_EINVAL_L_KEY);
    EXPECT_EQ(dev().translate(rep.l_key, false, pd + 100, req.start, 8, 0, spans), VAPI_EINVAL_PD_HNDL);
}

TEST_F(MrTest, RefusedRegistrations) {
    std::vector<char> buf(64);
    VAPI_mr_hndl_t mr;
    VAPI_mrw_t rep{};
    VAPI_mrw_t req = virt(buf.data(), buf.size(), VAPI_EN_REMOTE_WRITE);  // needs local write
    EXPECT_EQ(VAPI_register_mr(h, &req, &mr, &rep), VAPI_EINVAL_ACL);
    req = virt(buf.data(), buf.size(), 0x40);
    EXPECT_EQ(VAPI_register_mr(h, &req, &mr, &rep), VAPI_EINVAL_ACL);
    req = virt(buf.data(), 0, 0);
    EXPECT_EQ(VAPI_register_mr(h, &req, &mr, &rep), VAPI_EINVAL_LEN);
    req = virt(buf.data(), buf.size(), 0);
    req.pd_hndl = 12345;
    EXPECT_EQ(VAPI_register_mr(h, &req, &mr, &rep), VAPI_EINVAL_PD_HNDL);
    req = virt(buf.data(), buf.size(), 0);
    req.type = VAPI_MW;
    EXPECT_EQ(VAPI_register_mr(h, &req, &mr, &rep), VAPI_ENOSYS);
    req = virt(nullptr, 16, 0);
    EXPECT_EQ(VAPI_register_mr(h, &req, &mr, &rep), VAPI_EINVAL_VA);
    EXPECT_EQ(sh::mr_count("InfiniHost0"), 0u);
}

TEST_F(MrTest, WholeMemoryPhysicalRegionReachesKernelBuffers) {
    VAPI_phy_buf_t all{0, 0xFFFFFFFFFFFFC000ull};
    VAPI_mrw_t req{}, rep{};
    req.type = VAPI_MPR;
    req.start = 0;
    req.size = 0xFFFFFFFFFFFFC000ull;
    req.pd_hndl = pd;
    req.acl = 7;
    req.pbuf_list_len = 1;
    req.pbuf_list_p = &all;
    req.iova_offset = 0;
    VAPI_mr_hndl_t mr;
    rep.start = 0xdead000;  // so that the check below sees what the verb wrote
    ASSERT_EQ(VAPI_register_mr(h, &req, &mr, &rep), VAPI_OK);
    EXPECT_EQ(rep.start, 0u);  // the requested IOVA is the assigned one
    // A buffer at kernel virtual address v sits at IOVA v - PAGE_OFFSET in this region.
    static char buf[64];
    uint64_t kernel_va = reinterpret_cast<uintptr_t>(buf);
    uint64_t iova = kernel_va - PAGE_OFFSET;
    std::vector<sh::HostSpan> spans;
    std::lock_guard lk(dev().mu);
    ASSERT_EQ(dev().translate(rep.l_key, false, pd, iova, sizeof buf, VAPI_EN_LOCAL_WRITE, spans), VAPI_OK);
    ASSERT_EQ(spans.size(), 1u);
    EXPECT_EQ(spans[0].ptr, reinterpret_cast<uint8_t *>(buf));
}

TEST_F(MrTest, PhysicalRegionSpansItsBuffersFromTheOffset) {
    alignas(4096) static uint8_t a[8192], b[4096];
    VAPI_phy_buf_t bufs[2] = {{__pa(a), sizeof a}, {__pa(b), sizeof b}};
    VAPI_mrw_t req{}, rep{};
    req.type = VAPI_MPR;
    req.start = 0x100000 + 0x10;
    req.size = 8192 + 4096 - 0x10;
    req.pd_hndl = pd;
    req.acl = VAPI_EN_LOCAL_WRITE;
    req.pbuf_list_len = 2;
    req.pbuf_list_p = bufs;
    req.iova_offset = 0x10;
    VAPI_mr_hndl_t mr;
    ASSERT_EQ(VAPI_register_mr(h, &req, &mr, &rep), VAPI_OK);
    std::vector<sh::HostSpan> spans;
    std::lock_guard lk(dev().mu);
    // The last 16 bytes of a and the first 16 of b.
    ASSERT_EQ(dev().translate(rep.l_key, false, pd, req.start + 8192 - 0x20, 32, 0, spans), VAPI_OK);
    ASSERT_EQ(spans.size(), 2u);
    EXPECT_EQ(spans[0].ptr, a + 8192 - 16);
    EXPECT_EQ(spans[0].len, 16u);
    EXPECT_EQ(spans[1].ptr, b);
    EXPECT_EQ(spans[1].len, 16u);
}

TEST_F(MrTest, PhysicalRegionWithUnalignedBufferOrTooLongIsRefused) {
    VAPI_phy_buf_t buf{0x1001, 4096};
    VAPI_mrw_t req{}, rep{};
    req.type = VAPI_MPR;
    req.size = 4096;
    req.pd_hndl = pd;
    req.pbuf_list_len = 1;
    req.pbuf_list_p = &buf;
    VAPI_mr_hndl_t mr;
    EXPECT_EQ(VAPI_register_mr(h, &req, &mr, &rep), VAPI_EINVAL_PARAM);
    buf.start = 0x1000;
    req.size = 4097;
    EXPECT_EQ(VAPI_register_mr(h, &req, &mr, &rep), VAPI_EINVAL_LEN);
    req.size = 4096;
    req.pbuf_list_len = 0;
    EXPECT_EQ(VAPI_register_mr(h, &req, &mr, &rep), VAPI_EINVAL_PARAM);
}
