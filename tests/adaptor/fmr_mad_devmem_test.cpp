// FMRs (allocate, map, unmap, free, each field passed on), the device-memory placeholders and
// local MAD processing, with their failures and ring indexes.
#include "datapath_fixture.hpp"

namespace adaptor_test {
namespace {


class Resources : public DataPathFixture {
  protected:
    void SetUp() override {
        DataPathFixture::SetUp();
        k::log_clear();
    }
};

TEST_F(Resources, FmrLifeThroughTheModule) {
    DpRecords fmr("ox_fmr_t");
    fmr[0]
        .set("pd_hndl", gen_pd(0))
        .set("acl", 1)
        .set("max_pages", 4)
        .set("log2_page_sz", 12)
        .set("max_outstanding_maps", 2);
    uint64_t h = 0;
    ASSERT_EQ(kOk, ulp_fmr_alloc(provider(), hcas[0], fmr.data(), &h));
    EXPECT_EQ(1u, hca::fmr_count(kDev[0]));

    std::vector<unsigned long> pages = {0x100000, 0x101000};
    DpRecords map("ox_fmr_map_t");
    map[0]
        .set("start", 0x7000)
        .set("size", 0x1800)
        .set("page_array_len", 2)
        .set("page_array", reinterpret_cast<long long>(pages.data()));
    uint32_t l_key = 0, r_key = 0;
    ASSERT_EQ(kOk, ulp_fmr_map(provider(), hcas[0], h, map.data(), &l_key, &r_key));
    EXPECT_NE(0u, l_key);
    // The page count reached EVAPI: more pages than max_pages are refused there.
    map[0].set("page_array_len", 5);
    std::vector<unsigned long> five(5, 0x100000);
    map[0].set("page_array", reinterpret_cast<long long>(five.data()));
    EXPECT_EQ(kErr, ulp_fmr_map(provider(), hcas[0], h, map.data(), &l_key, &r_key));
    EXPECT_EQ(dp_const("tavor_map_fmr_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(VAPI_EINVAL_PARAM, ring_entry(0)["stat_st"]);

    ASSERT_EQ(kOk, ulp_fmr_unmap(provider(), hcas[0], 1, &h));
    ASSERT_EQ(kOk, ulp_fmr_free(provider(), hcas[0], h));
    EXPECT_EQ(0u, hca::fmr_count(kDev[0]));
    EXPECT_EQ(1, stats()["error_num"]);
    // Nothing else is counted on success: the two generic regions are the only ones.
    EXPECT_EQ(2, stats()["mr_num"]);
}

TEST_F(Resources, FmrFailuresUseTheirIndexes) {
    DpRecords fmr("ox_fmr_t");
    DpRecords map("ox_fmr_map_t");
    uint64_t h = 0x55;
    uint32_t l = 0, r = 0;
    const std::string hh = std::to_string(vapi_hca(0)), s = std::to_string(VAPI_EAGAIN);
    const char *calls[] = {"EVAPI_alloc_fmr", "EVAPI_map_fmr", "EVAPI_unmap_fmr", "EVAPI_free_fmr"};
    for (const char *c : calls) hca::inject_fault(c, kDev[0], VAPI_EAGAIN);
    EXPECT_EQ(kErr, ulp_fmr_alloc(provider(), hcas[0], fmr.data(), &h));
    EXPECT_EQ(kErr, ulp_fmr_map(provider(), hcas[0], h, map.data(), &l, &r));
    EXPECT_EQ(kErr, ulp_fmr_unmap(provider(), hcas[0], 1, &h));
    EXPECT_EQ(kErr, ulp_fmr_free(provider(), hcas[0], h));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_alloc_fmr", "MLXAD_ERR: VAPI Fail to EVAPI_alloc_fmr(), hca_h: " + hh +
                                                    ", (mlx:" + s + ", MLX)"),
                  ad_error("oxi_mlx_map_fmr", "MLXAD_ERR: VAPI Fail to EVAPI_map_fmr(), hca_h: " + hh +
                                                  ", (mlx:" + s + ", MLX)"),
                  ad_error("oxi_mlx_unmap_fmr", "MLXAD_ERR: VAPI Fail to EVAPI_unmap_fmr(), hca_h: " + hh +
                                                    ", (mlx:" + s + ", MLX)"),
                  ad_error("oxi_mlx_free_fmr", "MLXAD_ERR: VAPI Fail to EVAPI_free_fmr(), hca_h: " + hh +
                                                   ", (mlx:" + s + ", MLX)")}),
              log());
    const char *indexes[] = {"tavor_alloc_fmr_indx", "tavor_map_fmr_indx", "tavor_unmap_fmr_indx",
                             "tavor_free_fmr_indx"};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(dp_const(indexes[i]), ring_entry(i)["func_ix_st"]) << i;
        EXPECT_EQ(VAPI_EAGAIN, ring_entry(i)["stat_st"]) << i;
    }
    EXPECT_EQ(0x55u, h);
    EXPECT_EQ(4, stats()["error_num"]);
    EXPECT_EQ(4, stats()["VAPI_error_num"]);
}

TEST_F(Resources, DeviceMemoryIsNotSupportedAndLogsOnlyAtError) {
    const std::string h = std::to_string(vapi_hca(0));
    EXPECT_EQ(kNotImplemented, ulp_alloc_dev_mem(provider(), hcas[0], 17));
    EXPECT_EQ(kNotImplemented, ulp_free_dev_mem(exported_table(), hcas[0], -3));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_alloc_dev_mem",
                           "ERROR hca_h " + h + ", oxi_mlx_alloc_dev_mem() not suported (17)"),
                  ad_error("oxi_mlx_free_dev_mem",
                           "ERROR hca_h " + h + ", oxi_mlx_free_dev_mem() not suported (-3)")}),
              log());
    EXPECT_EQ(0, stats()["error_num"]);
    set_debug_level(0);
    k::log_clear();
    EXPECT_EQ(kNotImplemented, ulp_alloc_dev_mem(provider(), hcas[0], 0));
    EXPECT_TRUE(log().empty());
}

TEST_F(Resources, LocalMadGetsTheAgentsAnswer) {
    // A NodeInfo Get to the subnet management agent of port 1.
    uint8_t in[256] = {}, out[256] = {};
    in[0] = 1;     // base version
    in[1] = 0x01;  // subnet management, LID routed
    in[2] = 1;     // class version
    in[3] = 0x01;  // Get
    in[16] = 0x00;
    in[17] = 0x11;  // NodeInfo
    ASSERT_EQ(kOk, ulp_process_local_mad(provider(), hcas[0], 1, 3, in, out));
    EXPECT_EQ(0x81, out[3]);  // GetResp
    EXPECT_EQ(0, out[4]);
    EXPECT_EQ(0, out[5]);
    EXPECT_EQ(1ul, hca::call_count("EVAPI_process_local_mad"));
    EXPECT_TRUE(log().empty());

    // The failure is recorded under device memory release's index.
    EXPECT_EQ(kErr, ulp_process_local_mad(provider(), hcas[0], 9, 3, in, out));
    EXPECT_EQ((std::vector<std::string>{ad_error(
                  "oxi_mlx_process_local_mad",
                  "MLXAD_ERR: VAPI Fail to EVAPI_process_local_mad(), hca_h: " + std::to_string(vapi_hca(0)) +
                      ", (mlx:" + std::to_string(VAPI_EINVAL_PORT) + ", MLX)")}),
              log());
    EXPECT_EQ(dp_const("tavor_free_dev_mem_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(VAPI_EINVAL_PORT, ring_entry(0)["stat_st"]);
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
    // Not an exported symbol: only the table reaches it.
    EXPECT_EQ(nullptr, k::lookup_symbol("oxi_mlx_process_local_mad"));
}

}  // namespace
}  // namespace adaptor_test
