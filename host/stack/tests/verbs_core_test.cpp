#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "marlix/kernel.hpp"
#include "marlix/stack.hpp"
#include "ox-verbs-core.h"

namespace {

class VerbsCore : public ::testing::Test {
  protected:
    void SetUp() override {
        marlix::kernel::boot();
        marlix::stack::boot();
        marlix::kernel::log_clear();
    }
    void TearDown() override {
        marlix::stack::halt();
        marlix::kernel::halt(true);
    }

    std::vector<std::string> log() {
        std::vector<std::string> out;
        for (const auto &line : marlix::kernel::log_lines())
            out.push_back("<" + std::to_string(line.level) + ">" + line.text);
        return out;
    }

    ox_hca_func_t funcs_a{};
    ox_hca_func_t funcs_b{};
};

TEST_F(VerbsCore, RegistrationCopiesTheNamesSoTheCallerMayFreeThem) {
    char *name = strdup("mlx");
    char *devices[3] = {strdup("InfiniHost0"), strdup("InfiniHost1"), nullptr};
    ox_hca_prov_t *prov = nullptr;
    ASSERT_EQ(ox_provider_reg(name, &funcs_a, devices, &prov), ox_return_ok);
    ASSERT_NE(prov, nullptr);
    std::memset(name, 'X', 3);
    std::memset(devices[0], 'X', 11);
    std::free(name);
    std::free(devices[0]);
    std::free(devices[1]);

    EXPECT_STREQ(prov->hp_name, "mlx");
    EXPECT_EQ(prov->hp_funcs, &funcs_a);
    EXPECT_STREQ(prov->hp_devices[0], "InfiniHost0");
    EXPECT_STREQ(prov->hp_devices[1], "InfiniHost1");
    EXPECT_EQ(prov->hp_devices[2], nullptr);

    auto providers = marlix::stack::providers();
    ASSERT_EQ(providers.size(), 1u);
    EXPECT_EQ(providers[0].name, "mlx");
    EXPECT_EQ(providers[0].devices, (std::vector<std::string>{"InfiniHost0", "InfiniHost1"}));
    EXPECT_EQ(providers[0].funcs, &funcs_a);
    EXPECT_EQ(ox_provider_unreg(prov), ox_return_ok);
}

TEST_F(VerbsCore, ReadsAtMostNinetyDeviceNames) {
    std::vector<std::string> names;
    for (int i = 0; i < 100; ++i) names.push_back("dev" + std::to_string(i));
    std::vector<char *> list;
    for (auto &n : names) list.push_back(n.data());  // 100 entries, none null
    ox_hca_prov_t *prov = nullptr;
    ASSERT_EQ(ox_provider_reg("big", &funcs_a, list.data(), &prov), ox_return_ok);
    auto providers = marlix::stack::providers();
    ASSERT_EQ(providers.size(), 1u);
    ASSERT_EQ(providers[0].devices.size(), 90u);
    EXPECT_EQ(providers[0].devices.back(), "dev89");
    EXPECT_EQ(ox_find_hca_funcs("dev89"), &funcs_a);
    EXPECT_EQ(ox_find_hca_funcs("dev90"), nullptr);
}

TEST_F(VerbsCore, NoDevicesAndANullListAreAccepted) {
    ox_hca_prov_t *a = nullptr, *b = nullptr;
    char *empty[1] = {nullptr};
    ASSERT_EQ(ox_provider_reg("a", &funcs_a, empty, &a), ox_return_ok);
    ASSERT_EQ(ox_provider_reg("b", &funcs_b, nullptr, &b), ox_return_ok);
    EXPECT_STREQ(ox_default_hca_name(), "InfiniHost0");
    EXPECT_EQ(ox_find_provider_funcs("b"), &funcs_b);
}

TEST_F(VerbsCore, DefaultNameIsTheFirstDeviceOfTheFirstProvider) {
    EXPECT_STREQ(ox_default_hca_name(), "InfiniHost0");
    char *first[] = {const_cast<char *>("hcaA"), const_cast<char *>("hcaB"), nullptr};
    char *second[] = {const_cast<char *>("hcaC"), nullptr};
    ox_hca_prov_t *p1 = nullptr, *p2 = nullptr;
    ASSERT_EQ(ox_provider_reg("one", &funcs_a, first, &p1), ox_return_ok);
    ASSERT_EQ(ox_provider_reg("two", &funcs_b, second, &p2), ox_return_ok);
    EXPECT_STREQ(ox_default_hca_name(), "hcaA");
    ASSERT_EQ(ox_provider_unreg(p1), ox_return_ok);
    EXPECT_STREQ(ox_default_hca_name(), "hcaC");
    ASSERT_EQ(ox_provider_unreg(p2), ox_return_ok);
    EXPECT_STREQ(ox_default_hca_name(), "InfiniHost0");
}

TEST_F(VerbsCore, FindsTablesByProviderAndDeviceName) {
    char *first[] = {const_cast<char *>("InfiniHost0"), nullptr};
    char *second[] = {const_cast<char *>("soft0"), const_cast<char *>("soft1"), nullptr};
    ox_hca_prov_t *p1 = nullptr, *p2 = nullptr;
    ASSERT_EQ(ox_provider_reg("mlx", &funcs_a, first, &p1), ox_return_ok);
    ASSERT_EQ(ox_provider_reg("soft", &funcs_b, second, &p2), ox_return_ok);
    EXPECT_EQ(ox_find_provider_funcs("mlx"), &funcs_a);
    EXPECT_EQ(ox_find_provider_funcs("soft"), &funcs_b);
    EXPECT_EQ(ox_find_provider_funcs("none"), nullptr);
    EXPECT_EQ(ox_find_provider_funcs(nullptr), nullptr);
    EXPECT_EQ(ox_find_hca_funcs("InfiniHost0"), &funcs_a);
    EXPECT_EQ(ox_find_hca_funcs("soft1"), &funcs_b);
    EXPECT_EQ(ox_find_hca_funcs("InfiniHost9"), nullptr);
    EXPECT_EQ(marlix::stack::provider_funcs("soft"), &funcs_b);
    EXPECT_EQ(marlix::stack::device_funcs("InfiniHost0"), &funcs_a);

    ASSERT_EQ(ox_provider_unreg(p1), ox_return_ok);
    EXPECT_EQ(ox_find_provider_funcs("mlx"), nullptr);
    EXPECT_EQ(ox_find_hca_funcs("InfiniHost0"), nullptr);
    EXPECT_EQ(marlix::stack::providers().size(), 1u);
}

TEST_F(VerbsCore, UnregisterOfNullOrUnknownRecordIsRefusedSafely) {
    EXPECT_EQ(ox_provider_unreg(nullptr), ox_return_ok);
    ox_hca_prov_t *prov = nullptr;
    ASSERT_EQ(ox_provider_reg("mlx", &funcs_a, nullptr, &prov), ox_return_ok);
    ox_hca_prov_t stranger{};
    EXPECT_EQ(ox_provider_unreg(&stranger), ox_return_err);
    EXPECT_EQ(ox_provider_reg(nullptr, &funcs_a, nullptr, &prov), ox_return_err);
    EXPECT_EQ(ox_provider_reg("x", &funcs_a, nullptr, nullptr), ox_return_err);
}

TEST_F(VerbsCore, RegisteringANameAgainReplacesTheOldRecord) {
    ox_hca_prov_t *old_prov = nullptr, *new_prov = nullptr;
    ASSERT_EQ(ox_provider_reg("mlx", &funcs_a, nullptr, &old_prov), ox_return_ok);
    ASSERT_EQ(ox_provider_reg("mlx", &funcs_b, nullptr, &new_prov), ox_return_ok);
    EXPECT_EQ(ox_find_provider_funcs("mlx"), &funcs_b);
    EXPECT_EQ(marlix::stack::providers().size(), 1u);
    EXPECT_EQ(ox_provider_unreg(new_prov), ox_return_ok);
    EXPECT_TRUE(marlix::stack::providers().empty());
}

TEST_F(VerbsCore, ShowAllPrintsEveryProviderAndDevice) {
    ox_hca_show_all();
    EXPECT_EQ(log(), (std::vector<std::string>{"<6>verbs core: no providers registered"}));
    marlix::kernel::log_clear();

    char *devices[] = {const_cast<char *>("InfiniHost0"), const_cast<char *>("InfiniHost1"), nullptr};
    ox_hca_prov_t *p1 = nullptr, *p2 = nullptr;
    ASSERT_EQ(ox_provider_reg("mlx", &funcs_a, devices, &p1), ox_return_ok);
    ASSERT_EQ(ox_provider_reg("empty", &funcs_b, nullptr, &p2), ox_return_ok);
    ox_hca_show_all();
    EXPECT_EQ(log(), (std::vector<std::string>{
                         "<6>verbs core: provider mlx, 2 device(s)",
                         "<6>verbs core:   InfiniHost0",
                         "<6>verbs core:   InfiniHost1",
                         "<6>verbs core: provider empty, 0 device(s)",
                     }));
}

TEST_F(VerbsCore, BootDropsEveryProvider) {
    ox_hca_prov_t *prov = nullptr;
    ASSERT_EQ(ox_provider_reg("mlx", &funcs_a, nullptr, &prov), ox_return_ok);
    marlix::stack::boot();
    EXPECT_TRUE(marlix::stack::providers().empty());
    EXPECT_EQ(ox_find_provider_funcs("mlx"), nullptr);
}

}  // namespace
