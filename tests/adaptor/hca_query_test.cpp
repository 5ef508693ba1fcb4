// The capability query and HCA modify, through the provider table and the exported symbols.
#include <vector>

#include "adaptor_fixture.hpp"

namespace adaptor_test {
namespace {


class HcaQuery : public AdaptorFixture {
  protected:
    void SetUp() override {
        AdaptorFixture::SetUp();
        load_ok();
        hca_ = open_hca("InfiniHost1");
        baseline_ = module_allocations();
        k::log_clear();
    }
    void TearDown() override {
        if (hca_) close_hca(hca_);
        AdaptorFixture::TearDown();
    }
    uint64_t field(const std::vector<unsigned char> &attrib, const char *name) {
        uint64_t value = 0;
        EXPECT_EQ(0, ulp_hca_attrib_field(attrib.data(), name, &value)) << name;
        return value;
    }
    uint32_t hca_h() { return static_cast<uint32_t>(hca_record(hca_)["hca_h"]); }
    void *hca_ = nullptr;
    size_t baseline_ = 0;
};

TEST_F(HcaQuery, TranslatesEveryCapabilityField) {
    VAPI_hca_cap_t cap{};
    VAPI_hca_vendor_t vendor{};
    ASSERT_EQ(VAPI_OK, VAPI_query_hca_cap(hca_h(), &vendor, &cap));
    for (const ulp_funcs_t *table : {provider(), exported_table()}) {
        std::vector<unsigned char> attrib(ulp_sizeof_hca_attrib(), 0xA5);
        ASSERT_EQ(kOk, ulp_hca_query(table, hca_, attrib.data()));
        EXPECT_EQ(cap.max_num_qp, field(attrib, "max_qp_num"));
        EXPECT_EQ(cap.max_qp_ous_wr, field(attrib, "max_outstand_wr_on_qp"));
        // The flags keep the masked bit, not 0/1.
        EXPECT_EQ(cap.flags & 1u, field(attrib, "support_modify_outstand_wr"));
        EXPECT_EQ(cap.flags & 2u, field(attrib, "bad_p_key_count_f"));
        EXPECT_EQ(cap.flags & 4u, field(attrib, "bad_q_key_count_f"));
        EXPECT_EQ(cap.flags & 8u, field(attrib, "support_raw_multicast"));
        EXPECT_EQ(cap.flags & 16u, field(attrib, "support_path_migration"));
        EXPECT_EQ(cap.flags & 32u, field(attrib, "ability_change_prim_phy_port"));
        EXPECT_EQ(cap.max_num_sg_ent, field(attrib, "max_scatgat_per_wr"));
        EXPECT_EQ(cap.max_num_sg_ent_rd, field(attrib, "max_rd_scatgat_per_wr"));
        EXPECT_EQ(cap.max_num_cq, field(attrib, "max_cq_num"));
        EXPECT_EQ(cap.max_num_ent_cq, field(attrib, "max_cq_entries"));
        EXPECT_EQ(cap.max_num_mr, field(attrib, "max_mem_region_num"));
        EXPECT_EQ(cap.max_mr_size, field(attrib, "max_block_size_byte"));
        EXPECT_EQ(cap.max_pd_num, field(attrib, "max_pd_num"));
        EXPECT_EQ(cap.page_size_cap, field(attrib, "page_size"));
        EXPECT_EQ(cap.phys_port_num, field(attrib, "port_num"));
        EXPECT_EQ(cap.max_pkeys, field(attrib, "max_partition_num"));
        uint64_t high = 0;
        for (int k = 0; k < 7; k++) high |= cap.node_guid[k];
        EXPECT_EQ((high << 8) | cap.node_guid[7], field(attrib, "guid"));
        EXPECT_EQ(cap.local_ca_ack_delay, field(attrib, "ack_delay"));
        EXPECT_EQ(cap.max_ee_ous_rd_atom, field(attrib, "max_read_atom_eec_outstanding"));
        EXPECT_EQ(cap.max_res_rd_atom, field(attrib, "max_read_atom_resources"));
        EXPECT_EQ(cap.max_qp_init_rd_atom, field(attrib, "max_qp_depth_for_init_read_atom"));
        EXPECT_EQ(cap.max_ee_init_rd_atom, field(attrib, "max_eec_depth_for_init_read_atom"));
        EXPECT_EQ(static_cast<uint64_t>(cap.atomic_cap), field(attrib, "atom_suport"));
        EXPECT_EQ(cap.max_ee_num, field(attrib, "max_eec_num"));
        EXPECT_EQ(cap.max_rdd_num, field(attrib, "max_rdd_num"));
        EXPECT_EQ(cap.max_mw_num, field(attrib, "max_mem_win_num"));
        EXPECT_EQ(cap.max_raw_ipv6_qp, field(attrib, "max_raw_ipv6_qp_num"));
        EXPECT_EQ(cap.max_raw_ethy_qp, field(attrib, "max_raw_eter_qp_num"));
        EXPECT_EQ(cap.max_mcast_grp_num, field(attrib, "max_multicast_group"));
        EXPECT_EQ(cap.max_mcast_qp_attach_num, field(attrib, "max_qp_num_per_multicast_group"));
        EXPECT_EQ(cap.max_ah_num, field(attrib, "max_add_handle"));
        EXPECT_EQ(cap.max_num_fmr, field(attrib, "max_fmr_num"));
        EXPECT_EQ(cap.max_num_map_per_fmr, field(attrib, "max_maps_per_fmr"));
        EXPECT_EQ(vendor.vendor_id, field(attrib, "vendor_attrib.vendor_id"));
        EXPECT_EQ(vendor.vendor_part_id, field(attrib, "vendor_attrib.part_id"));
        EXPECT_EQ(vendor.hw_ver, field(attrib, "vendor_attrib.hw_version"));
    }
    EXPECT_EQ(0, stats()["error_num"]);
    EXPECT_TRUE(log().empty());  // a successful query logs nothing
}

TEST_F(HcaQuery, TheNodeGuidIsFoldedIntoSixteenBits) {
    const void *fold = sym<void>("ox_mlx_fold_node_guid");
    ASSERT_NE(nullptr, fold);
    const unsigned char guid[8] = {0x00, 0x02, 0xC9, 0x01, 0x00, 0x00, 0x12, 0x34};
    EXPECT_EQ(0xDB34ull, adp_call_fold_node_guid(fold, guid));
    const unsigned char zero_high[8] = {0, 0, 0, 0, 0, 0, 0, 0xff};
    EXPECT_EQ(0xffull, adp_call_fold_node_guid(fold, zero_high));
}

TEST_F(HcaQuery, AFailedQueryIsCountedAndRecorded) {
    hca::inject_fault("VAPI_query_hca_cap", "InfiniHost1", VAPI_EINVAL_HCA_HNDL);
    std::vector<unsigned char> attrib(ulp_sizeof_hca_attrib(), 0);
    EXPECT_EQ(kErr, ulp_hca_query(provider(), hca_, attrib.data()));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_hca_query",
                           "MLXAD_ERR: VAPI Fail to query mlx device with the handle: 1 (mlx:-244, MLX)")}),
              log());
    auto s = stats();
    EXPECT_EQ(1, s["error_num"]);
    EXPECT_EQ(1, s["last_error_num"]);
    EXPECT_EQ(1, s["VAPI_error_num"]);
    EXPECT_EQ(1, s["last_VAPI_error_num"]);
    EXPECT_EQ(1u, *exported<uint32_t>("current_avail_ix"));
    EXPECT_EQ(module_const("hca_query_indx"), ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(1, ring_entry(0)["func_ix_st"]);
    EXPECT_EQ(VAPI_EINVAL_HCA_HNDL, ring_entry(0)["stat_st"]);
}

// ---- HCA modify -----------------------------------------------------------------------------------

TEST_F(HcaQuery, ModifyWithOnlyTheBadPKeyFlagStillCallsVapiWithAnEmptyMask) {
    set_debug_level(4);
    const auto before = hca::port_status("InfiniHost1", 1)->capability_mask;
    EXPECT_EQ(kOk, ulp_hca_modify(provider(), hca_, 1, 0, 1, 0));
    EXPECT_EQ(
        (std::vector<std::string>{ad_error("oxi_mlx_hca_modify", "not implemented yet"),
                                  ad_debug("oxi_mlx_hca_modify", "modify HCA attributes for hca_h: 1")}),
        log());
    EXPECT_EQ(1ul, hca::call_count("VAPI_modify_hca_attr"));
    EXPECT_EQ(before, hca::port_status("InfiniHost1", 1)->capability_mask);
    EXPECT_EQ(0, stats()["error_num"]);  // reported, not counted
}

TEST_F(HcaQuery, ModifyWithBothCounterFlagsReportsBoth) {
    EXPECT_EQ(kOk, ulp_hca_modify(exported_table(), hca_, 1, 0, 1, 1));
    EXPECT_EQ((std::vector<std::string>{ad_error("oxi_mlx_hca_modify", "not implemented yet"),
                                        ad_error("oxi_mlx_hca_modify", "not implemented yet")}),
              log());
}

TEST_F(HcaQuery, ModifyWritesEverySelectedCapabilityAsFalse) {
    // The port's default mask has the vendor-class bit set, and no subnet manager bit.
    const auto before = hca::port_status("InfiniHost1", 1)->capability_mask;
    ASSERT_NE(0u, before & IB_CAP_MASK_IS_VENDOR_CLS_SUP);
    std::vector<unsigned char> port(ulp_sizeof_port_attrib(), 0);
    ASSERT_EQ(kOk, ulp_port_query(provider(), hca_, 1, port.data()));
    uint64_t caps = 0;
    ASSERT_EQ(0, ulp_port_attrib_field(port.data(), "port_capability_support", &caps));
    EXPECT_EQ(16u, caps);

    // Asking for vendor class and subnet manager: both are written, as false.
    EXPECT_EQ(kOk, ulp_hca_modify(provider(), hca_, 1, 16 | 1, 0, 0));
    const auto after = hca::port_status("InfiniHost1", 1)->capability_mask;
    EXPECT_EQ(before & ~(IB_CAP_MASK_IS_VENDOR_CLS_SUP | IB_CAP_MASK_IS_SM), after);
    ASSERT_EQ(kOk, ulp_port_query(provider(), hca_, 1, port.data()));
    ASSERT_EQ(0, ulp_port_attrib_field(port.data(), "port_capability_support", &caps));
    EXPECT_EQ(0u, caps);
    // Port 2 was not touched.
    EXPECT_EQ(before, hca::port_status("InfiniHost1", 2)->capability_mask);
}

TEST_F(HcaQuery, ModifyFailureIsCountedWithoutARingEntry) {
    hca::inject_fault("VAPI_modify_hca_attr", "InfiniHost1", VAPI_EPERM);
    EXPECT_EQ(kErr, ulp_hca_modify(provider(), hca_, 1, 1, 0, 0));
    EXPECT_EQ((std::vector<std::string>{ad_error(
                  "oxi_mlx_hca_modify",
                  "MLXAD_ERR: VAPI Fail to modify device attributes for device handle: 1 (mlx:-248, MLX)")}),
              log());
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
    EXPECT_EQ(1, stats()["last_VAPI_error_num"]);
    EXPECT_EQ(0u, *exported<uint32_t>("current_avail_ix"));
    EXPECT_EQ(0, ring_entry(0)["func_ix_st"]);
}

TEST_F(HcaQuery, ModifyOfAPortTheHcaDoesNotHave) {
    EXPECT_EQ(kErr, ulp_hca_modify(provider(), hca_, 9, 1, 0, 0));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_hca_modify",
                           "MLXAD_ERR: VAPI Fail to modify device attributes for device handle: 1 (mlx:" +
                               std::to_string(VAPI_EINVAL_PORT) + ", MLX)")}),
              log());
}

}  // namespace
}  // namespace adaptor_test
