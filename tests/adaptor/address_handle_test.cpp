// Address handles: every field of the generic vector to VAPI's and back (the GID reversed both
// ways), the fields that belong to connected paths left alone, the counter, and the failures
// with their ring indexes.
#include "datapath_fixture.hpp"

namespace adaptor_test {
namespace {


class AddressHandle : public DataPathFixture {
  protected:
    void SetUp() override {
        DataPathFixture::SetUp();
        k::log_clear();
    }
    static void fill(DpView av) {
        av.set("phy_port_num", 1)
            .set("service_level", 5)
            .set("grh_flag", 1)
            .set("dlid", 0x1234)
            .set("max_static_rate", 3)
            .set("source_path_bit", 2)
            .set("global_dest.flow_lable", 0x54321)
            .set("global_dest.hope_limit", 9)
            .set("global_dest.traffic_class", 0x1c)
            .set("global_dest.s_gid_index", 0);
        auto *gid = static_cast<uint8_t *>(av.at("global_dest.d_gid"));
        for (int i = 0; i < 16; ++i) gid[i] = uint8_t(i);
    }
};

TEST_F(AddressHandle, CreateReversesTheGidAndCounts) {
    DpRecords av("ox_add_vec_t");
    fill(av[0]);
    uint64_t ah = 0;
    ASSERT_EQ(kOk, ulp_ah_create(provider(), hcas[0], gen_pd(0), av.data(), &ah));
    EXPECT_NE(0u, ah);
    EXPECT_EQ(1, stats()["ah_num"]);
    EXPECT_EQ(1, stats()["last_ah_num"]);
    EXPECT_EQ(1u, hca::ah_count(kDev[0]));

    VAPI_ud_av_t v{};
    ASSERT_EQ(VAPI_OK, VAPI_query_addr_hndl(vapi_hca(0), ah, &v));
    for (int i = 0; i < 16; ++i) EXPECT_EQ(15 - i, v.dgid[i]) << i;
    EXPECT_EQ(0x1234, v.dlid);
    EXPECT_EQ(0x54321u, v.flow_label);
    EXPECT_EQ(1, v.grh_flag);
    EXPECT_EQ(9, v.hop_limit);
    EXPECT_EQ(0, v.sgid_index);
    EXPECT_EQ(5, v.sl);
    EXPECT_EQ(2, v.src_path_bits);
    EXPECT_EQ(3, v.static_rate);
    EXPECT_EQ(0x1c, v.traffic_class);
    EXPECT_EQ(1, v.port);

    const std::string f = "oxi_mlx_address_hndl_create";
    const auto lines = log();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(ad_debug(f, "take from user: av.port = 1"), lines[0]);
    EXPECT_EQ(ad_debug(f, "going to VAPI_create_addr_hndl:"), lines[1]);
    EXPECT_TRUE(contains(lines, " dgid[0]: 15, dlid: 4660,"));
    EXPECT_TRUE(contains(lines, ad_debug(f, "MLX ah is 64bit")));
    EXPECT_EQ(ad_debug(f, "Create new AH: " + kptr(reinterpret_cast<void *>(ah))), lines.back());
}

TEST_F(AddressHandle, QueryReversesBackAndLeavesConnectedFieldsAndPd) {
    DpRecords av("ox_add_vec_t");
    fill(av[0]);
    uint64_t ah = 0;
    ASSERT_EQ(kOk, ulp_ah_create(provider(), hcas[0], gen_pd(0), av.data(), &ah));
    DpRecords out("ox_add_vec_t");
    out[0].set("pmtu", 4).set("l_ack_timeout", 11).set("retry_count", 6).set("rnr_retry_count", 5);
    uint32_t pd = 0xdead;
    k::log_clear();
    ASSERT_EQ(kOk, ulp_ah_query(provider(), hcas[0], ah, out.data(), &pd));
    const auto *gid = static_cast<uint8_t *>(out[0].at("global_dest.d_gid"));
    for (int i = 0; i < 16; ++i) EXPECT_EQ(i, gid[i]) << i;
    for (const char *f : {"phy_port_num", "service_level", "grh_flag", "dlid", "max_static_rate",
                          "source_path_bit", "global_dest.flow_lable", "global_dest.hope_limit",
                          "global_dest.traffic_class", "global_dest.s_gid_index"})
        EXPECT_EQ(av[0][f], out[0][f]) << f;
    EXPECT_EQ(4, out[0]["pmtu"]);
    EXPECT_EQ(11, out[0]["l_ack_timeout"]);
    EXPECT_EQ(6, out[0]["retry_count"]);
    EXPECT_EQ(5, out[0]["rnr_retry_count"]);
    EXPECT_EQ(0xdeadu, pd);
    const auto lines = log();
    EXPECT_EQ(ad_debug("oxi_mlx_address_hndl_query", "after VAPI mlx param: dgid[0]: 15, dlid: 4660,"),
              lines[0]);
    EXPECT_TRUE(
        contains(lines, ad_debug("oxi_mlx_address_hndl_query", "after VAPI ox param: dgid: 0, dlid: 4660,")));
    EXPECT_EQ(1, stats()["ah_num"]);
}

TEST_F(AddressHandle, ModifyCountsNothingDestroyUncounts) {
    DpRecords av("ox_add_vec_t");
    fill(av[0]);
    uint64_t ah = 0;
    ASSERT_EQ(kOk, ulp_ah_create(provider(), hcas[0], gen_pd(0), av.data(), &ah));
    av[0].set("dlid", 0x42);
    k::log_clear();
    ASSERT_EQ(kOk, ulp_ah_modify(provider(), hcas[0], ah, av.data()));
    EXPECT_EQ(
        (std::vector<std::string>{ad_debug("oxi_mlx_address_hndl_modify", "take from user: av.port = 1")}),
        log());
    VAPI_ud_av_t v{};
    ASSERT_EQ(VAPI_OK, VAPI_query_addr_hndl(vapi_hca(0), ah, &v));
    EXPECT_EQ(0x42, v.dlid);
    EXPECT_EQ(1, stats()["ah_num"]);
    k::log_clear();
    ASSERT_EQ(kOk, ulp_ah_destroy(provider(), hcas[0], ah));
    EXPECT_EQ((std::vector<std::string>{ad_debug(
                  "oxi_mlx_address_hndl_destroy",
                  "Destroy add_h: " + std::to_string(ah) + ", for hca_h: " + std::to_string(vapi_hca(0)))}),
              log());
    EXPECT_EQ(0, stats()["ah_num"]);
    EXPECT_EQ(0, stats()["last_ah_num"]);
    EXPECT_EQ(0u, hca::ah_count(kDev[0]));
}

TEST_F(AddressHandle, FailuresAreReportedWithTheirRingIndexes) {
    DpRecords av("ox_add_vec_t");
    fill(av[0]);
    uint64_t ah = 0x77;
    const std::string h = std::to_string(vapi_hca(0));
    struct Case {
        const char *call, *func, *index, *message;
    } cases[] = {
        {"VAPI_create_addr_hndl", "oxi_mlx_address_hndl_create", "address_hndl_create_indx",
         "MLXAD_ERR: VAPI Fail to create address handle, hca_h: %H (mlx:%S, MLX)"},
        {"VAPI_modify_addr_hndl", "oxi_mlx_address_hndl_modify", "address_hndl_modify_indx",
         "MLXAD_ERR: VAPI Fail to modify address handle, hca_h: %H, add_h: 119 (mlx:%S, MLX)"},
        {"VAPI_query_addr_hndl", "oxi_mlx_address_hndl_query", "address_hndl_query_indx",
         "MLXAD_ERR: VAPI Fail to query address handle, hca_h: %H, add_h: 119 (mlx:%S, MLX)"},
        {"VAPI_destroy_addr_hndl", "oxi_mlx_address_hndl_destroy", "address_hndl_destroy_indx",
         "MLXAD_ERR: VAPI Fail to destroy address handle, hca_h: %H, add_h: 119 (mlx:%S, MLX)"},
    };
    int slot = 0;
    for (const Case &c : cases) {
        hca::inject_fault(c.call, kDev[0], VAPI_EAGAIN);
        k::log_clear();
        int rc = -1;
        uint32_t pd = 0;
        switch (slot) {
            case 0:
                rc = ulp_ah_create(provider(), hcas[0], gen_pd(0), av.data(), &ah);
                break;
            case 1:
                rc = ulp_ah_modify(provider(), hcas[0], ah, av.data());
                break;
            case 2:
                rc = ulp_ah_query(provider(), hcas[0], ah, av.data(), &pd);
                break;
            case 3:
                rc = ulp_ah_destroy(provider(), hcas[0], ah);
                break;
        }
        EXPECT_EQ(kErr, rc) << c.call;
        std::string m = c.message;
        m.replace(m.find("%H"), 2, h);
        m.replace(m.find("%S"), 2, std::to_string(VAPI_EAGAIN));
        EXPECT_EQ((std::vector<std::string>{ad_error(c.func, m)}), at_level(log(), "ERROR  ")) << c.call;
        EXPECT_EQ(dp_const(c.index), ring_entry(slot)["func_ix_st"]) << c.call;
        EXPECT_EQ(VAPI_EAGAIN, ring_entry(slot)["stat_st"]) << c.call;
        ++slot;
    }
    EXPECT_EQ(0x77u, ah);  // a failed create leaves the handle alone
    EXPECT_EQ(4, stats()["error_num"]);
    EXPECT_EQ(4, stats()["VAPI_error_num"]);
    EXPECT_EQ(0, stats()["ah_num"]);
}

TEST_F(AddressHandle, ThePerPdBoundIsVapisAndAFailedCreateIsNotCounted) {
    uint32_t pd = 0;
    ASSERT_EQ(kOk, ulp_pd_allocate(provider(), hcas[0], &pd));
    // The module sizes each PD for oxi_mlx_max_ah_per_pd handles; reload with 2 to reach it.
    ASSERT_EQ(kOk, ulp_hca_close(provider(), hcas[0]));
    ASSERT_EQ(kOk, ulp_hca_close(provider(), hcas[1]));
    unload();
    ASSERT_EQ(0, load({"oxi_mlx_max_ah_per_pd=2"}));
    void *h = open_hca(kDev[0]);
    ASSERT_EQ(kOk, ulp_pd_allocate(provider(), h, &pd));
    uint64_t ah[3] = {};
    EXPECT_EQ(kOk, ulp_ah_create_simple(provider(), h, pd, 1, 0, &ah[0]));
    EXPECT_EQ(kOk, ulp_ah_create_simple(provider(), h, pd, 1, 0, &ah[1]));
    EXPECT_EQ(kErr, ulp_ah_create_simple(provider(), h, pd, 1, 0, &ah[2]));
    EXPECT_EQ(2, stats()["ah_num"]);
    EXPECT_EQ(dp_const("address_hndl_create_indx"), ring_entry(0)["func_ix_st"]);
    hcas[0] = h;
    hcas[1] = open_hca(kDev[1]);
}

}  // namespace
}  // namespace adaptor_test
