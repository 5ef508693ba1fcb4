// Protection domains: allocation sized by oxi_mlx_max_ah_per_pd, release, the generic PD that only
// HCA close releases, and failures that are counted without a ring entry.
#include "adaptor_fixture.hpp"

namespace adaptor_test {
namespace {


class Pd : public AdaptorFixture {
  protected:
    void start(const std::vector<std::string> &params = {}) {
        set_debug_level(4);
        load_ok(params);
        hca_ = open_hca("InfiniHost0");
        k::log_clear();
    }
    void TearDown() override {
        if (hca_) close_hca(hca_);
        AdaptorFixture::TearDown();
    }
    void *hca_ = nullptr;
};

TEST_F(Pd, AllocateAndRelease) {
    start();
    uint32_t pd = 0;
    ASSERT_EQ(kOk, ulp_pd_allocate(provider(), hca_, &pd));
    EXPECT_EQ(2u, pd);  // the generic PD is 1
    EXPECT_EQ((std::vector<std::string>{ad_debug("oxi_mlx_pd_allocate", "MLX pd_h is 64bit"),
                                        ad_debug("oxi_mlx_pd_allocate", "New pd_h: 2, hca_h: 0")}),
              log());
    EXPECT_EQ(2, stats()["pd_num"]);
    EXPECT_EQ(2, stats()["last_pd_num"]);
    EXPECT_EQ(2u, hca::pd_count("InfiniHost0"));

    k::log_clear();
    ASSERT_EQ(kOk, ulp_pd_deallocate(exported_table(), hca_, pd));
    EXPECT_EQ((std::vector<std::string>{
                  ad_debug("oxi_mlx_pd_deallocate", "dealloc pd_h: 2, hca_h: 0, PD global statistic: 1")}),
              log());
    EXPECT_EQ(1, stats()["pd_num"]);
    EXPECT_EQ(1, stats()["last_pd_num"]);
    EXPECT_EQ(1u, hca::pd_count("InfiniHost0"));
}

TEST_F(Pd, EachPdIsSizedByTheModuleParameter) {
    // The software HCA refuses a per-PD limit above what the device holds (65536 address handles),
    // so the parameter's value shows in whether an allocation goes through.
    start({"oxi_mlx_max_ah_per_pd=65536"});
    uint32_t pd = 0;
    EXPECT_EQ(kOk, ulp_pd_allocate(provider(), hca_, &pd));
    EXPECT_EQ(kOk, ulp_pd_deallocate(provider(), hca_, pd));
    *sym<int>("oxi_mlx_max_ah_per_pd") = 65537;  // as a write to its /sys/module parameter would
    k::log_clear();
    EXPECT_EQ(kErr, ulp_pd_allocate(provider(), hca_, &pd));
    EXPECT_TRUE(contains(
        log(), ad_error("oxi_mlx_pd_allocate", "MLXAD_ERR: VAPI Fail to allocate PD, hca_h: 0 (mlx:" +
                                                   std::to_string(VAPI_EINVAL_PARAM) + ", MLX)")));
}

TEST_F(Pd, TheDefaultLimit) {
    load_ok();
    EXPECT_EQ(2252, *sym<int>("oxi_mlx_max_ah_per_pd"));
}

TEST_F(Pd, TheGenericPdIsNotReleased) {
    start();
    uint32_t generic = 0;
    ASSERT_EQ(kOk, ulp_get_gen_pd_h(provider(), hca_, &generic));
    k::log_clear();
    EXPECT_EQ(kErr, ulp_pd_deallocate(provider(), hca_, generic));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_pd_deallocate", "The application is trying to destroy generic PD")}),
              log());
    EXPECT_EQ(1, stats()["pd_num"]);
    EXPECT_EQ(1, stats()["last_pd_num"]);
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(0, stats()["VAPI_error_num"]);
    EXPECT_EQ(0ul, hca::call_count("VAPI_dealloc_pd"));
    EXPECT_EQ(1u, hca::pd_count("InfiniHost0"));
}

TEST_F(Pd, AFailedAllocationCountsWithoutARingEntry) {
    start();
    hca::inject_fault("EVAPI_alloc_pd", "InfiniHost0", VAPI_ENOMEM);
    uint32_t pd = 77;
    EXPECT_EQ(kErr, ulp_pd_allocate(provider(), hca_, &pd));
    EXPECT_EQ(77u, pd);
    EXPECT_EQ(
        (std::vector<std::string>{ad_debug("oxi_mlx_pd_allocate", "MLX pd_h is 64bit"),
                                  ad_error("oxi_mlx_pd_allocate",
                                           "MLXAD_ERR: VAPI Fail to allocate PD, hca_h: 0 (mlx:-252, MLX)")}),
        log());
    auto s = stats();
    EXPECT_EQ(1, s["error_num"]);
    EXPECT_EQ(1, s["last_error_num"]);
    EXPECT_EQ(1, s["VAPI_error_num"]);
    EXPECT_EQ(1, s["last_VAPI_error_num"]);
    EXPECT_EQ(1, s["pd_num"]);
    EXPECT_EQ(0u, *exported<uint32_t>("current_avail_ix"));
    EXPECT_EQ(0, ring_entry(0)["func_ix_st"]);
}

TEST_F(Pd, AFailedReleaseCountsWithoutARingEntry) {
    start();
    uint32_t pd = 0;
    ASSERT_EQ(kOk, ulp_pd_allocate(provider(), hca_, &pd));
    k::log_clear();
    EXPECT_EQ(kErr, ulp_pd_deallocate(provider(), hca_, 99));
    EXPECT_EQ((std::vector<std::string>{ad_error(
                  "oxi_mlx_pd_deallocate", "MLXAD_ERR: VAPI Fail to de-allocate PD, The hca_h: 0 (mlx:" +
                                               std::to_string(VAPI_EINVAL_PD_HNDL) + ", MLX)")}),
              log());
    EXPECT_EQ(2, stats()["pd_num"]);
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
    EXPECT_EQ(0u, *exported<uint32_t>("current_avail_ix"));
    EXPECT_EQ(kOk, ulp_pd_deallocate(provider(), hca_, pd));
}

TEST_F(Pd, ReliableDatagramDomainsAreNotSupported) {
    start();
    EXPECT_EQ(3, reinterpret_cast<int (*)(void *, uint32_t *)>(const_cast<void *>(ulp_slot(provider(), 9)))(
                     hca_, nullptr));
    EXPECT_EQ(3, reinterpret_cast<int (*)(void *, uint32_t)>(const_cast<void *>(ulp_slot(provider(), 10)))(
                     hca_, 1));
    EXPECT_TRUE(log().empty());
    EXPECT_EQ(0, stats()["error_num"]);
}

}  // namespace
}  // namespace adaptor_test
