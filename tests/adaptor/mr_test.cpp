// Memory regions: virtual and physical registration, query, destroy, the counters they share,
// the ring entries of their failures, and the memory calls that are not supported.
#include <vector>

#include "adaptor_fixture.hpp"

namespace adaptor_test {
namespace {

constexpr uint32_t kLocalWrite = 1, kRemoteWrite = 2, kRemoteRead = 4;

class Mr : public AdaptorFixture {
  protected:
    void SetUp() override {
        AdaptorFixture::SetUp();
        set_debug_level(4);
        load_ok();
        hca_ = open_hca("InfiniHost0");
        ASSERT_EQ(kOk, ulp_pd_allocate(provider(), hca_, &pd_));
        buffer_.resize(8192);
        k::log_clear();
    }
    void TearDown() override {
        close_hca(hca_);
        AdaptorFixture::TearDown();
    }
    void expect_ring(int slot, const char *index, int status) {
        EXPECT_EQ(module_const(index), ring_entry(slot)["func_ix_st"]) << slot;
        EXPECT_EQ(status, ring_entry(slot)["stat_st"]) << slot;
    }
    void *hca_ = nullptr;
    uint32_t pd_ = 0;
    std::vector<char> buffer_;
};

TEST_F(Mr, VirtualRegisterQueryDestroy) {
    uint64_t mr = 0;
    uint32_t l_key = 0, r_key = 0;
    const uint32_t acl = kLocalWrite | kRemoteWrite | kRemoteRead;
    ASSERT_EQ(kOk, ulp_mr_register(provider(), hca_, buffer_.data(), 4096, pd_, acl, &mr, &l_key, &r_key));
    EXPECT_EQ(2u, mr);  // the generic region is 1
    EXPECT_NE(0u, l_key);
    EXPECT_EQ(
        (std::vector<std::string>{ad_debug("oxi_mlx_mem_region_register",
                                           "before VAPI_register_mr(): req_mrw.size 4096, req_mrw.start: " +
                                               kptr(buffer_.data()) + ", acl: 7(7)"),
                                  ad_debug("oxi_mlx_mem_region_register",
                                           "New v_mem_h: 2, hca_h: 0, l_key: " + std::to_string(l_key) +
                                               ", r_key: " + std::to_string(r_key))}),
        log());
    EXPECT_EQ(2, stats()["mr_num"]);
    EXPECT_EQ(2, stats()["last_mr_num"]);
    EXPECT_EQ(2u, hca::mr_count("InfiniHost0"));

    k::log_clear();
    ulp_mr_attrib attrib{};
    ASSERT_EQ(kOk, ulp_mr_query(exported_table(), hca_, mr, &attrib));
    EXPECT_EQ(buffer_.data(), attrib.local_addr);
    EXPECT_EQ(4096ul, attrib.local_length);
    EXPECT_EQ(buffer_.data(), attrib.remote_addr);
    EXPECT_EQ(4096ul, attrib.remote_length);
    EXPECT_EQ(pd_, attrib.pd);
    EXPECT_EQ(acl, attrib.access);
    EXPECT_EQ(l_key, attrib.l_key);
    EXPECT_EQ(r_key, attrib.r_key);
    EXPECT_EQ((std::vector<std::string>{ad_debug("oxi_mlx_mem_region_query", "OK - VAPI_query_mr()")}),
              log());

    k::log_clear();
    ASSERT_EQ(kOk, ulp_mr_destroy(provider(), hca_, mr));
    EXPECT_EQ((std::vector<std::string>{
                  ad_debug("oxi_mlx_mem_region_destroy", "Destroy MR, hca_h: 0, v_mem_h: 2")}),
              log());
    EXPECT_EQ(1, stats()["mr_num"]);
    EXPECT_EQ(1, stats()["last_mr_num"]);
    EXPECT_EQ(1u, hca::mr_count("InfiniHost0"));
    EXPECT_EQ(0, stats()["error_num"]);
}

TEST_F(Mr, APhysicalListOfOneBufferLogsThatBuffer) {
    const uint64_t starts[] = {0x200000}, sizes[] = {0x4000};
    uint64_t mr = 0, iova = 0;
    uint32_t l_key = 0, r_key = 0;
    ASSERT_EQ(kOk, ulp_phy_mr_register(provider(), hca_, 1, starts, sizes, 0x7000, 0x2000, 0x1000, pd_,
                                       kLocalWrite, &mr, &iova, &l_key, &r_key));
    EXPECT_EQ(0x7000u, iova);  // the reply's start
    const std::string f = "oxi_mlx_phy_mem_region_register";
    EXPECT_EQ((std::vector<std::string>{
                  ad_debug(f, "iova_request: 28672, length: 8192, offset: 4096, number_of_buff: 1"),
                  ad_debug(f, "phy_list add: 2097152, phy_list length: 16384"),
                  ad_debug(f, "New p_mem_h: 2, hca_h: 0, l_key: " + std::to_string(l_key) +
                                  ", r_key: " + std::to_string(r_key) + ", IOVA: 28672")}),
              log());
    ulp_mr_attrib attrib{};
    ASSERT_EQ(kOk, ulp_mr_query(provider(), hca_, mr, &attrib));
    EXPECT_EQ(reinterpret_cast<void *>(0x7000), attrib.local_addr);
    EXPECT_EQ(0x2000ul, attrib.local_length);
    EXPECT_EQ(2, stats()["mr_num"]);
    ASSERT_EQ(kOk, ulp_mr_destroy(provider(), hca_, mr));
}

TEST_F(Mr, APhysicalListOfSeveralBuffersLogsOnlyTheCount) {
    const uint64_t starts[] = {0x200000, 0x400000, 0x10000}, sizes[] = {0x1000, 0x2000, 0x1000};
    uint64_t mr = 0, iova = 0;
    uint32_t l_key = 0, r_key = 0;
    ASSERT_EQ(kOk, ulp_phy_mr_register(exported_table(), hca_, 3, starts, sizes, 0x10000, 0x4000, 0, pd_,
                                       kLocalWrite | kRemoteRead, &mr, &iova, &l_key, &r_key));
    auto lines = log();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(ad_debug("oxi_mlx_phy_mem_region_register",
                       "iova_request: 65536, length: 16384, offset: 0, number_of_buff: 3"),
              lines[0]);
    EXPECT_EQ(0u, count_with(lines, "phy_list add"));
}

TEST_F(Mr, RegionsOfBothKindsShareTheCounters) {
    const uint64_t starts[] = {0x200000}, sizes[] = {0x4000};
    uint64_t phys = 0, virt = 0, iova = 0;
    uint32_t l_key = 0, r_key = 0;
    ASSERT_EQ(kOk, ulp_phy_mr_register(provider(), hca_, 1, starts, sizes, 0, 0x4000, 0, pd_, kLocalWrite,
                                       &phys, &iova, &l_key, &r_key));
    ASSERT_EQ(
        kOk, ulp_mr_register(provider(), hca_, buffer_.data(), 100, pd_, kLocalWrite, &virt, &l_key, &r_key));
    EXPECT_EQ(3, stats()["mr_num"]);
    ASSERT_EQ(kOk, ulp_mr_destroy(provider(), hca_, phys));
    EXPECT_EQ(2, stats()["mr_num"]);
    ASSERT_EQ(kOk, ulp_mr_destroy(provider(), hca_, virt));
    EXPECT_EQ(1, stats()["mr_num"]);
    EXPECT_EQ(1, stats()["last_mr_num"]);
}

TEST_F(Mr, AFailedRegistrationIsRecorded) {
    uint64_t mr = 55;
    uint32_t l_key = 66, r_key = 77;
    // Remote write without local write: VAPI refuses the access rights as they were handed on.
    EXPECT_EQ(kErr, ulp_mr_register(provider(), hca_, buffer_.data(), 4096, pd_, kRemoteWrite, &mr, &l_key,
                                    &r_key));
    EXPECT_EQ(55u, mr);
    EXPECT_EQ(66u, l_key);
    EXPECT_EQ(ad_error("oxi_mlx_mem_region_register", "MLXAD_ERR: VAPI Fail to register MR, hca_h: 0 (mlx:" +
                                                          std::to_string(VAPI_EINVAL_ACL) + ", MLX)"),
              log().back());
    auto s = stats();
    EXPECT_EQ(1, s["error_num"]);
    EXPECT_EQ(1, s["last_error_num"]);
    EXPECT_EQ(1, s["VAPI_error_num"]);
    EXPECT_EQ(1, s["last_VAPI_error_num"]);
    EXPECT_EQ(1, s["mr_num"]);
    expect_ring(0, "mem_region_register_indx", VAPI_EINVAL_ACL);
    EXPECT_EQ(30, ring_entry(0)["func_ix_st"]);
}

TEST_F(Mr, AFailedPhysicalRegistrationIsRecorded) {
    // The list is not checked here: VAPI sees the unaligned buffer and refuses it.
    const uint64_t starts[] = {0x200001}, sizes[] = {0x4000};
    uint64_t mr = 0, iova = 0;
    uint32_t l_key = 0, r_key = 0;
    EXPECT_EQ(kErr, ulp_phy_mr_register(provider(), hca_, 1, starts, sizes, 0, 0x1000, 0, pd_, kLocalWrite,
                                        &mr, &iova, &l_key, &r_key));
    EXPECT_EQ(
        ad_error("oxi_mlx_phy_mem_region_register", "MLXAD_ERR: VAPI Fail to register PMR, hca_h: 0 (mlx:" +
                                                        std::to_string(VAPI_EINVAL_PARAM) + ", MLX)"),
        log().back());
    expect_ring(0, "phy_mem_region_register_indx", VAPI_EINVAL_PARAM);
    EXPECT_EQ(31, ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
    EXPECT_EQ(1, stats()["mr_num"]);
}

TEST_F(Mr, AFailedQueryLeavesTheOutputsAndTheRing) {
    ulp_mr_attrib attrib{};
    attrib.local_length = 123;
    attrib.pd = 9;
    EXPECT_EQ(kErr, ulp_mr_query(provider(), hca_, 999, &attrib));
    EXPECT_EQ(123ul, attrib.local_length);
    EXPECT_EQ(9u, attrib.pd);
    EXPECT_EQ(
        (std::vector<std::string>{ad_error("oxi_mlx_mem_region_query",
                                           "MLXAD_ERR: VAPI Fail to query MR, hca_h: 0, v_mem_h: 999 (mlx:" +
                                               std::to_string(VAPI_EINVAL_MR_HNDL) + ", MLX)")}),
        log());
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
    EXPECT_EQ(0u, *exported<uint32_t>("current_avail_ix"));
    EXPECT_EQ(0, ring_entry(0)["func_ix_st"]);
}

TEST_F(Mr, AFailedDestroyIsRecorded) {
    uint64_t mr = 0;
    uint32_t l_key = 0, r_key = 0;
    ASSERT_EQ(kOk,
              ulp_mr_register(provider(), hca_, buffer_.data(), 64, pd_, kLocalWrite, &mr, &l_key, &r_key));
    hca::inject_fault("VAPI_deregister_mr", "InfiniHost0", VAPI_EBUSY);
    k::log_clear();
    EXPECT_EQ(kErr, ulp_mr_destroy(provider(), hca_, mr));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_mem_region_destroy",
                           "MLXAD_ERR: VAPI Fail to destroy MR, hca_h: 0, v_mem_h: 2 (mlx:-251, MLX)")}),
              log());
    expect_ring(0, "mem_region_destroy_indx", VAPI_EBUSY);
    EXPECT_EQ(33, ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(2, stats()["mr_num"]);
    EXPECT_EQ(kOk, ulp_mr_destroy(provider(), hca_, mr));
    EXPECT_EQ(1, stats()["mr_num"]);
}

TEST_F(Mr, UnsupportedMemoryCallsRefuseWhateverTheArguments) {
    for (const ulp_funcs_t *table : {provider(), exported_table()}) {
        int results[7] = {};
        ASSERT_EQ(7, adp_call_unsupported_memory(table, hca_, results));
        for (int r : results) EXPECT_EQ(kNotImplemented, r);
    }
    EXPECT_TRUE(log().empty());
    EXPECT_EQ(0, stats()["error_num"]);
}

}  // namespace
}  // namespace adaptor_test
