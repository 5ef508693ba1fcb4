// Port properties and the GID and P_Key tables, through the provider table and the exported
// symbols: the translation, the room the caller gives, and every failure.
#include <array>
#include <cstring>
#include <vector>

#include "adaptor_fixture.hpp"

namespace adaptor_test {
namespace {


class PortQuery : public AdaptorFixture {
  protected:
    void SetUp() override {
        AdaptorFixture::SetUp();
        load_ok();
        hca_ = open_hca("InfiniHost0");
        baseline_ = module_allocations();
        k::log_clear();
    }
    void TearDown() override {
        if (hca_) close_hca(hca_);
        AdaptorFixture::TearDown();
    }
    uint64_t field(const std::vector<unsigned char> &attrib, const char *name) {
        uint64_t value = 0;
        EXPECT_EQ(0, ulp_port_attrib_field(attrib.data(), name, &value)) << name;
        return value;
    }
    std::vector<unsigned char> query(unsigned port, int expected_status = kOk) {
        std::vector<unsigned char> attrib(ulp_sizeof_port_attrib(), 0);
        EXPECT_EQ(expected_status, ulp_port_query(provider(), hca_, port, attrib.data()));
        return attrib;
    }
    void expect_ring(int slot, const char *index, int status) {
        EXPECT_EQ(module_const(index), ring_entry(slot)["func_ix_st"]) << slot;
        EXPECT_EQ(status, ring_entry(slot)["stat_st"]) << slot;
    }
    void fail_alloc(size_t size, const char *site) {
        k::AllocFault fault;
        fault.size = size;
        fault.site = site;
        k::add_alloc_fault(fault);
    }
    void *hca_ = nullptr;
    size_t baseline_ = 0;
};

TEST_F(PortQuery, TranslatesEveryPortField) {
    VAPI_hca_port_t port{};
    ASSERT_EQ(VAPI_OK, VAPI_query_hca_port_prop(0, 1, &port));
    for (const ulp_funcs_t *table : {provider(), exported_table()}) {
        std::vector<unsigned char> attrib(ulp_sizeof_port_attrib(), 0xA5);
        ASSERT_EQ(kOk, ulp_port_query(table, hca_, 1, attrib.data()));
        EXPECT_EQ(1u, field(attrib, "port_num"));
        EXPECT_EQ(static_cast<uint64_t>(port.max_mtu), field(attrib, "port_mtu"));
        EXPECT_EQ(static_cast<uint64_t>(port.state), field(attrib, "port_state"));
        EXPECT_EQ(4u, field(attrib, "port_state"));  // the subnet manager brought the cabled port up
        EXPECT_EQ(port.lid, field(attrib, "port_base_lid"));
        EXPECT_EQ(port.lmc, field(attrib, "port_lmc"));
        EXPECT_EQ(port.gid_tbl_len, field(attrib, "port_sgid_table_size"));
        EXPECT_EQ(port.pkey_tbl_len, field(attrib, "port_parti_table_size"));
        EXPECT_EQ(port.max_vl_num, field(attrib, "port_max_vl_num"));
        EXPECT_EQ(port.bad_pkey_counter, field(attrib, "port_bad_p_key_count"));
        EXPECT_EQ(port.qkey_viol_counter, field(attrib, "port_bad_q_key_count"));
        EXPECT_EQ(port.sm_lid, field(attrib, "port_sma_address_info.sm_lid"));
        EXPECT_EQ(port.sm_sl, field(attrib, "port_sma_address_info.service_level"));
        // Open leaves no single generic region counted: the adapted message size.
        EXPECT_EQ(65536u, field(attrib, "port_message_size"));
        EXPECT_NE(static_cast<uint64_t>(port.max_msg_sz), field(attrib, "port_message_size"));
    }
    EXPECT_TRUE(log().empty());
}

TEST_F(PortQuery, CapabilityBitsFromTheVapiMask) {
    struct Case {
        uint32_t vapi;
        uint64_t generic;
    };
    // Only the subnet manager, SNMP tunnel, device management and vendor class bits pass.
    for (const Case &c :
         {Case{0, 0}, Case{IB_CAP_MASK_IS_SM, 1}, Case{IB_CAP_MASK_IS_SNMP_TUNN_SUP, 4},
          Case{IB_CAP_MASK_IS_DEVICE_MGMT_SUP, 8}, Case{IB_CAP_MASK_IS_VENDOR_CLS_SUP, 16},
          Case{0xffffffffu, 1 | 4 | 8 | 16}, Case{~(0x2u | 0x20000u | 0x80000u | 0x100000u), 0}}) {
        // Set the port's mask through HCA modify's VAPI call, as an SM agent would.
        VAPI_hca_attr_t attr{};
        attr.is_sm = (c.vapi & IB_CAP_MASK_IS_SM) != 0;
        attr.is_snmp_tun_sup = (c.vapi & IB_CAP_MASK_IS_SNMP_TUNN_SUP) != 0;
        attr.is_dev_mgt_sup = (c.vapi & IB_CAP_MASK_IS_DEVICE_MGMT_SUP) != 0;
        attr.is_vendor_cls_sup = (c.vapi & IB_CAP_MASK_IS_VENDOR_CLS_SUP) != 0;
        VAPI_hca_attr_mask_t mask =
            HCA_ATTR_IS_SM | HCA_ATTR_IS_SNMP_TUN_SUP | HCA_ATTR_IS_DEV_MGT_SUP | HCA_ATTR_IS_VENDOR_CLS_SUP;
        ASSERT_EQ(VAPI_OK, VAPI_modify_hca_attr(0, 1, &attr, &mask));
        EXPECT_EQ(c.generic, field(query(1), "port_capability_support")) << std::hex << c.vapi;
    }
}

TEST_F(PortQuery, OneGenericRegionGivesThePortsOwnMessageSize) {
    set_debug_level(5);
    VAPI_hca_port_t port{};
    ASSERT_EQ(VAPI_OK, VAPI_query_hca_port_prop(0, 2, &port));
    EXPECT_EQ(65536u, field(query(2), "port_message_size"));
    EXPECT_EQ((std::vector<std::string>{ad_func("oxi_mlx_port_query", "adapt message size considerations")}),
              log());
    hca_record(hca_).set("num_of_gen_mem_reg", 1);
    k::log_clear();
    EXPECT_EQ(static_cast<uint64_t>(port.max_msg_sz), field(query(2), "port_message_size"));
    EXPECT_EQ((std::vector<std::string>{
                  ad_func("oxi_mlx_port_query", "1 gen MR - no adapt message size considerations")}),
              log());
    hca_record(hca_).set("num_of_gen_mem_reg", 0);
}

TEST_F(PortQuery, AFailedQueryIsCountedAndRecorded) {
    query(3, kErr);  // the HCA has two ports
    EXPECT_EQ(
        (std::vector<std::string>{ad_error(
            "oxi_mlx_port_query", "MLXAD_ERR: VAPI Fail to query mlx device (hca_h: 0) port number 3")}),
        log());
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(1, stats()["VAPI_error_num"]);
    expect_ring(0, "port_query_indx", VAPI_EINVAL_PORT);
}

// ---- GID table ------------------------------------------------------------------------------------

class GidTable : public PortQuery {
  protected:
    using Gid = std::array<uint8_t, 16>;
    std::vector<Gid> vapi_table(unsigned port) {
        std::vector<IB_gid_t> raw(32);
        u_int16_t len = 0;
        EXPECT_EQ(VAPI_OK, VAPI_query_hca_gid_tbl(0, port, 32, &len, raw.data()));
        std::vector<Gid> out(len);
        for (size_t i = 0; i < len; i++) std::memcpy(out[i].data(), raw[i], 16);
        return out;
    }
    int read(unsigned port, uint32_t &size, std::vector<Gid> &out, const ulp_funcs_t *table = nullptr) {
        return ulp_get_port_gid_tbl(table ? table : provider(), hca_, port, &size, out.front().data());
    }
};

TEST_F(GidTable, EveryGidComesOutReversed) {
    set_debug_level(5);
    auto vapi = vapi_table(1);
    ASSERT_EQ(32u, vapi.size());
    std::vector<Gid> out(32);
    uint32_t size = 32;
    ASSERT_EQ(kOk, read(1, size, out));
    EXPECT_EQ(32u, size);
    for (size_t i = 0; i < 32; i++)
        for (int k = 0; k < 16; k++) ASSERT_EQ(vapi[i][15 - k], out[i][k]) << i << ":" << k;
    EXPECT_NE(vapi[0], out[0]);

    const std::string f = "oxi_mlx_get_port_gid_tbl";
    auto lines = log();
    ASSERT_EQ(6u, lines.size());
    EXPECT_EQ(ad_func(f, "port_num: 1, port_sgid_table_size: 32, gid_tbl_p: " + kptr(out.front().data())),
              lines[0]);
    EXPECT_EQ(ad_func("oxi_mlx_port_query", "adapt message size considerations"), lines[1]);
    EXPECT_EQ(ad_func(f, "port_attrib.port_sgid_table_size: 32"), lines[2]);
    EXPECT_EQ(0u, lines[3].rfind(ad_func(f, "gid_array_p: "), 0)) << lines[3];
    EXPECT_EQ(ad_func(f, "tbl_len_out: 32, port_sgid_table_size: 32, min: 32"), lines[4]);
    EXPECT_EQ(ad_func(f, "OUT port_sgid_table_size: 32"), lines[5]);
    EXPECT_EQ(baseline_, module_allocations());  // the buffer went back
}

TEST_F(GidTable, ASmallerTableGetsOnlyWhatFits) {
    auto vapi = vapi_table(2);
    std::vector<Gid> out(6);
    const Gid untouched = {0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee,
                           0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee, 0xee};
    out[4] = out[5] = untouched;
    uint32_t size = 4;
    ASSERT_EQ(kOk, read(2, size, out, exported_table()));
    EXPECT_EQ(4u, size);
    for (size_t i = 0; i < 4; i++)
        for (int k = 0; k < 16; k++) ASSERT_EQ(vapi[i][15 - k], out[i][k]);
    EXPECT_EQ(untouched, out[4]);
}

TEST_F(GidTable, ALargerTableGetsThePortsEntries) {
    std::vector<Gid> out(100);
    uint32_t size = 100;
    ASSERT_EQ(kOk, read(1, size, out));
    EXPECT_EQ(32u, size);
}

TEST_F(GidTable, ThePortQueryInsideFails) {
    std::vector<Gid> out(4);
    uint32_t size = 4;
    EXPECT_EQ(kErr, read(7, size, out));
    EXPECT_EQ(4u, size);
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_port_query",
                           "MLXAD_ERR: VAPI Fail to query mlx device (hca_h: 0) port number 7"),
                  ad_error("oxi_mlx_get_port_gid_tbl",
                           "MLXAD_ERR: VAPI Fail to query mlx device (hca_h: 0) port number 7")}),
              log());
    EXPECT_EQ(2, stats()["error_num"]);
    EXPECT_EQ(2, stats()["VAPI_error_num"]);
    // The inner query's status, then the port query's index again with the ox_return_t received.
    expect_ring(0, "port_query_indx", VAPI_EINVAL_PORT);
    expect_ring(1, "port_query_indx", kErr);
}

TEST_F(GidTable, TheBufferCannotBeAllocated) {
    fail_alloc(32 * 16, "oxi_mlx_get_port_gid_tbl");
    std::vector<Gid> out(4);
    uint32_t size = 4;
    EXPECT_EQ(kAllocMem, read(1, size, out));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_get_port_gid_tbl", "Fail to allocate memory: gid_array_p, size: 512")}),
              log());
    EXPECT_EQ(1, stats()["mem_alloc_error_num"]);
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(0, stats()["VAPI_error_num"]);
}

TEST_F(GidTable, VapiRefusesTheRead) {
    hca::inject_fault("VAPI_query_hca_gid_tbl", "InfiniHost0", VAPI_EGEN);
    std::vector<Gid> out(4);
    uint32_t size = 4;
    EXPECT_EQ(kErr, read(1, size, out));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_get_port_gid_tbl",
                           "MLXAD_ERR: VAPI Fail to VAPI_query_hca_gid_tbl for port: 1 (mlx:-255, MLX)")}),
              log());
    expect_ring(0, "get_port_gid_tbl_indx", VAPI_EGEN);
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(baseline_, module_allocations());
}

TEST_F(GidTable, VapiNeedsALargerBuffer) {
    hca::inject_fault("VAPI_query_hca_gid_tbl", "InfiniHost0", VAPI_EAGAIN);
    std::vector<Gid> out(4);
    uint32_t size = 4;
    EXPECT_EQ(kInsufficient, read(1, size, out));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_get_port_gid_tbl",
                           "MLXAD_ERR: VAPI Fail to VAPI_query_hca_gid_tbl for port: 1 (mlx:-253, MLX)"),
                  // Printed whatever the trace level, without the prefix.
                  "The actual gid table sieze needed is: 0"}),
              log());
    expect_ring(0, "get_port_gid_tbl_indx", VAPI_EAGAIN);
    EXPECT_EQ(baseline_, module_allocations());
}

// ---- P_Key table ----------------------------------------------------------------------------------

class PkeyTable : public PortQuery {
  protected:
    int read(unsigned port, uint32_t &size, std::vector<uint16_t> &out, const ulp_funcs_t *table = nullptr) {
        return ulp_get_port_partition_tbl(table ? table : provider(), hca_, port, &size, out.data());
    }
};

TEST_F(PkeyTable, PkeysComeOutUnchanged) {
    set_debug_level(5);
    std::vector<VAPI_pkey_t> vapi(64);
    u_int16_t len = 0;
    ASSERT_EQ(VAPI_OK, VAPI_query_hca_pkey_tbl(0, 1, 64, &len, vapi.data()));
    ASSERT_EQ(64u, len);
    std::vector<uint16_t> out(3, 0x1111);
    uint32_t size = 3;
    ASSERT_EQ(kOk, read(1, size, out));
    EXPECT_EQ(3u, size);
    for (size_t i = 0; i < 3; i++) EXPECT_EQ(vapi[i], out[i]) << i;
    EXPECT_EQ(0xFFFF, out[0]);  // the default partition

    const std::string f = "oxi_mlx_get_port_partition_tbl";
    auto lines = log();
    ASSERT_EQ(9u, lines.size());
    EXPECT_EQ(ad_func(f, "port_num: 1, port_parti_table_size: 3, pkey_tbl_p: " + kptr(out.data())), lines[0]);
    EXPECT_EQ(ad_func("oxi_mlx_port_query", "adapt message size considerations"), lines[1]);
    EXPECT_EQ(ad_func(f, "port_attrib.port_parti_table_size: 64"), lines[2]);
    EXPECT_EQ(0u, lines[3].rfind(ad_func(f, "pkey_array_p: "), 0)) << lines[3];
    EXPECT_EQ(ad_func(f, "tbl_len_out: 64, port_parti_table_size: 3, min: 3"), lines[4]);
    EXPECT_EQ(ad_func(f, "0) MLX pkey: 65535, OX pkey: 65535"), lines[5]);
    EXPECT_EQ(ad_func(f, "1) MLX pkey: " + std::to_string(vapi[1]) + ", OX pkey: " + std::to_string(vapi[1])),
              lines[6]);
    EXPECT_EQ(ad_func(f, "OUT port_parti_table_size: 3"), lines[8]);
    EXPECT_EQ(baseline_, module_allocations());
}

TEST_F(PkeyTable, ALargerTableGetsThePortsEntries) {
    std::vector<uint16_t> out(200, 0x1111);
    uint32_t size = 200;
    ASSERT_EQ(kOk, read(2, size, out, exported_table()));
    EXPECT_EQ(64u, size);
    EXPECT_EQ(0x1111, out[64]);
}

TEST_F(PkeyTable, ThePortQueryInsideFails) {
    std::vector<uint16_t> out(4);
    uint32_t size = 4;
    EXPECT_EQ(kErr, read(5, size, out));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_port_query",
                           "MLXAD_ERR: VAPI Fail to query mlx device (hca_h: 0) port number 5"),
                  ad_error("oxi_mlx_get_port_partition_tbl",
                           "MLXAD_ERR: VAPI Fail to query mlx device (hca_h: 0) port number 5")}),
              log());
    expect_ring(0, "port_query_indx", VAPI_EINVAL_PORT);
    expect_ring(1, "port_query_indx", kErr);
    EXPECT_EQ(2, stats()["VAPI_error_num"]);
}

TEST_F(PkeyTable, TheBufferCannotBeAllocated) {
    fail_alloc(64 * 2, "oxi_mlx_get_port_partition_tbl");
    std::vector<uint16_t> out(4);
    uint32_t size = 4;
    EXPECT_EQ(kAllocMem, read(1, size, out));
    EXPECT_EQ((std::vector<std::string>{ad_error("oxi_mlx_get_port_partition_tbl",
                                                 "Fail to allocate memory: pkey_array_p, size: 128")}),
              log());
    EXPECT_EQ(1, stats()["mem_alloc_error_num"]);
}

TEST_F(PkeyTable, VapiRefusesTheRead) {
    hca::inject_fault("VAPI_query_hca_pkey_tbl", "InfiniHost0", VAPI_EINVAL_PORT);
    std::vector<uint16_t> out(4);
    uint32_t size = 4;
    EXPECT_EQ(kErr, read(1, size, out));
    EXPECT_EQ((std::vector<std::string>{
                  ad_error("oxi_mlx_get_port_partition_tbl",
                           "MLXAD_ERR: VAPI Fail to VAPI_query_hca_pkey_tbl for port: 1 (mlx:-242, MLX)")}),
              log());
    expect_ring(0, "get_port_partition_tbl_indx", VAPI_EINVAL_PORT);
    EXPECT_EQ(baseline_, module_allocations());
}

TEST_F(PkeyTable, VapiNeedsALargerBuffer) {
    hca::inject_fault("VAPI_query_hca_pkey_tbl", "InfiniHost0", VAPI_EAGAIN);
    std::vector<uint16_t> out(4);
    uint32_t size = 4;
    EXPECT_EQ(kInsufficient, read(1, size, out));
    EXPECT_EQ(
        (std::vector<std::string>{
            ad_error("oxi_mlx_get_port_partition_tbl",
                     "MLXAD_ERR: VAPI Fail to VAPI_query_hca_pkey_tbl for port: 1 (mlx:-253, MLX)"),
            ad_error("oxi_mlx_get_port_partition_tbl", "ERROR - The actual p_key table sieze needed is: 0")}),
        log());
    expect_ring(0, "get_port_partition_tbl_indx", VAPI_EAGAIN);
    EXPECT_EQ(1, stats()["error_num"]);
    EXPECT_EQ(baseline_, module_allocations());
}

}  // namespace
}  // namespace adaptor_test
