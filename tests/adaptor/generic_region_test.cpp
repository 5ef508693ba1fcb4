// The HCA's generic pair: its PD, the region over all of memory, and advertised addresses.
#include "adaptor_fixture.hpp"

namespace adaptor_test {
namespace {

constexpr unsigned long kPageOffset = 0x10000000000ul;

class GenericRegion : public AdaptorFixture {
  protected:
    void SetUp() override {
        AdaptorFixture::SetUp();
        set_debug_level(4);
        load_ok();
        hca_ = open_hca("InfiniHost1");
        k::log_clear();
    }
    void TearDown() override {
        close_hca(hca_);
        AdaptorFixture::TearDown();
    }
    RecordView gen_element() {
        return RecordView("ox_gen_mr_element_t", adp_list_first(hca_record(hca_).at("generic_mem_reg_list")));
    }
    void *hca_ = nullptr;
};

TEST_F(GenericRegion, TheGenericPd) {
    uint32_t pd = 0;
    EXPECT_EQ(kOk, ulp_get_gen_pd_h(provider(), hca_, &pd));
    EXPECT_EQ(hca_record(hca_)["generic_pd_h"], pd);
    const std::string f = "oxi_mlx_get_gen_pd_h";
    EXPECT_EQ((std::vector<std::string>{ad_debug(f, "opened_hca_p: " + kptr(hca_)),
                                        ad_debug(f, "look for hca_h: 1"),
                                        ad_debug(f, "find generic pd_h: " + std::to_string(pd))}),
              log());
}

TEST_F(GenericRegion, TheSameRegionWhateverAddressAndLength) {
    auto gen = gen_element();
    uint64_t mr = 0;
    uint32_t l_key = 0, r_key = 0;
    EXPECT_EQ(kOk, ulp_get_gen_mr_attrib(provider(), hca_, nullptr, 0, &mr, &l_key, &r_key));
    EXPECT_EQ(static_cast<uint64_t>(gen["mr_h"]), mr);
    EXPECT_EQ(gen["l_key"], l_key);
    EXPECT_EQ(gen["r_key"], r_key);
    const std::string line =
        ad_debug("oxi_mlx_get_gen_mr_attrib",
                 "One MR - find mr_h: " + std::to_string(mr) + ", addr: " + kptr(nullptr) +
                     ", size: 0, l_key: " + std::to_string(l_key) + ", r_key: " + std::to_string(r_key));
    EXPECT_EQ(std::vector<std::string>{line}, log());

    char buffer[64];
    for (auto [addr, length] : {std::pair<void *, unsigned long>{buffer, sizeof(buffer)},
                                std::pair<void *, unsigned long>{reinterpret_cast<void *>(~0ul), ~0ul}}) {
        uint64_t mr2 = 0;
        uint32_t l2 = 0, r2 = 0;
        EXPECT_EQ(kOk, ulp_get_gen_mr_attrib(exported_table(), hca_, addr, length, &mr2, &l2, &r2));
        EXPECT_EQ(mr, mr2);
        EXPECT_EQ(l_key, l2);
        EXPECT_EQ(r_key, r2);
    }
    EXPECT_EQ(3u, count_of(log(), line));
}

TEST_F(GenericRegion, AdvertisedAddressesAreRelativeToTheRegionsIova) {
    char buffer[64];
    const unsigned long v = reinterpret_cast<unsigned long>(buffer);
    unsigned long adv = 0;
    EXPECT_EQ(kOk, ulp_va2advertise_addr(provider(), hca_, v, &adv));
    EXPECT_EQ(v - kPageOffset, adv);  // the generic region's IOVA is 0
    char expected[128];
    std::snprintf(expected, sizeof(expected), "One Physical MR - IN: %lx, OUT: %lx", v, v - kPageOffset);
    EXPECT_EQ(std::vector<std::string>{ad_debug("oxi_mlx_va2advertise_addr", expected)}, log());

    // The rule adds whatever IOVA the generic registration received.
    gen_element().set("iova", 0x5000);
    EXPECT_EQ(kOk, ulp_va2advertise_addr(exported_table(), hca_, kPageOffset + 0x1234, &adv));
    EXPECT_EQ(0x6234ul, adv);
    gen_element().set("iova", 0);
}

}  // namespace
}  // namespace adaptor_test
