// The module's version record.
#include <algorithm>
#include <regex>

#include "adaptor_fixture.hpp"

namespace adaptor_test {
namespace {

class VersionRecord : public AdaptorFixture {
  protected:
    // Replaces the module's own record by one built from the given arguments, returns init's result.
    int rebuild(const char *name, const char *version, const char *tag) {
        exit_(const_cast<char *>("adaptor-mlx"));
        return init_(const_cast<char *>(name), const_cast<char *>(version), const_cast<char *>(tag));
    }
    void SetUp() override {
        AdaptorFixture::SetUp();
        load_ok();
        init_fn_ = sym<void>("module_version_init");
        exit_fn_ = sym<void>("module_version_exit");
        ASSERT_TRUE(init_fn_ && exit_fn_);
    }
    void restore(const char *name) {
        exit_(const_cast<char *>(name));
        ASSERT_EQ(0, init_(const_cast<char *>("adaptor-mlx"), const_cast<char *>("1.0.0"),
                           const_cast<char *>("$Name: REL_TAG_V1_0_20060112 $")));
    }
    int init_(char *name, char *version, char *tag) {
        return adp_call_version_init(init_fn_, name, version, tag);
    }
    void exit_(char *name) { adp_call_version_exit(exit_fn_, name); }
    const void *init_fn_ = nullptr;
    const void *exit_fn_ = nullptr;
};

const std::string kBuildTail =
    R"( \(.+\) \(2\.6\.9-marlix\) \([A-Z][a-z]{2} [ 0-9][0-9] [0-9]{4}\) [0-9]{2}:[0-9]{2}:[0-9]{2}\n)";

TEST_F(VersionRecord, TheModulesLine) {
    std::string text = read(kVersion);
    EXPECT_TRUE(std::regex_match(text, std::regex("adaptor-mlx 0 REL_TAG_V1_0_20060112" + kBuildTail)))
        << text;
}

TEST_F(VersionRecord, TagWithoutKeywordIsNoTag) {
    ASSERT_EQ(0, rebuild("vtest", "1.0.0", "REL_TAG_V1_0_20060112"));
    std::string text = read("/proc/marlix/vtest/version");
    EXPECT_TRUE(std::regex_match(text, std::regex("vtest 0 NoTag" + kBuildTail))) << text;
    restore("vtest");
}

TEST_F(VersionRecord, LongTagIsCutTo29) {
    ASSERT_EQ(0, rebuild("vtest", "1.0.0", "$Name: ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789 $"));
    std::string text = read("/proc/marlix/vtest/version");
    EXPECT_TRUE(std::regex_match(text, std::regex("vtest 0 ABCDEFGHIJKLMNOPQRSTUVWXYZ012" + kBuildTail)))
        << text;
    restore("vtest");
}

TEST_F(VersionRecord, TrimsAndFillsDefaults) {
    ASSERT_EQ(0, rebuild("  vtest\t", " $Revision: 1.23 $ ", "  $Name:   REL_X   $  "));
    std::string text = read("/proc/marlix/vtest/version");
    EXPECT_TRUE(std::regex_match(text, std::regex("vtest 1.23 REL_X" + kBuildTail))) << text;
    restore("vtest");

    ASSERT_EQ(0, rebuild("   ", "", "$Name: $"));
    text = read("/proc/marlix/Unknown/version");
    EXPECT_TRUE(std::regex_match(text, std::regex("Unknown 0 NoTag" + kBuildTail))) << text;
    restore("Unknown");

    ASSERT_EQ(0, rebuild("vtest", "$Revision: 1234567890123 $", "$Name: T $"));
    text = read("/proc/marlix/vtest/version");
    EXPECT_TRUE(std::regex_match(text, std::regex("vtest 123456789 T" + kBuildTail))) << text;
    restore("vtest");
}

TEST_F(VersionRecord, DirectoryFallBacks) {
    // The directory is missing and its first creation fails: "marlix" then the directory again.
    k::add_proc_create_fault("marlix/newmod", false);
    ASSERT_EQ(0, rebuild("newmod", "1.0.0", "$Name: N $"));
    EXPECT_TRUE(k::file_exists("/proc/marlix/newmod/version"));
    restore("newmod");
    EXPECT_FALSE(k::file_exists("/proc/marlix/newmod/version"));
}

TEST_F(VersionRecord, FailureLeavesNothing) {
    size_t before = module_allocations();
    k::add_proc_create_fault("failmod/version", true);
    EXPECT_NE(0, rebuild("failmod", "1.0.0", "$Name: N $"));
    EXPECT_EQ(before - 1, module_allocations());  // the module's own banner went with the exit
    k::clear_proc_faults();
    ASSERT_EQ(0, init_(const_cast<char *>("adaptor-mlx"), const_cast<char *>("1.0.0"),
                       const_cast<char *>("$Name: REL_TAG_V1_0_20060112 $")));
    EXPECT_EQ(before, module_allocations());
}

// Unloading removes the record even when allocations fail: the first one of rmmod, or all of them.
TEST_F(VersionRecord, UnloadRemovesTheFileWhateverAllocationsFail) {
    for (bool always : {false, true}) {
        SCOPED_TRACE(always ? "every allocation fails" : "the first allocation fails");
        if (!k::find_module("adaptor_mlx")) load_ok();
        ASSERT_TRUE(k::file_exists(kVersion));
        size_t before = module_allocations();
        ASSERT_GT(before, 0u);
        k::AllocFault fault;
        fault.nth = 1;
        fault.always = always;
        k::add_alloc_fault(fault);
        k::log_clear();
        unload();
        k::clear_alloc_faults();
        EXPECT_FALSE(k::file_exists(kVersion));
        EXPECT_EQ(0u, count_with(log(), "still registered at unload"));
        EXPECT_EQ(0u, count_with(log(), "kmemleak"));
        EXPECT_EQ(0u, module_allocations());
    }
    // Loading again finds no stale entry: there is exactly one version file.
    load_ok();
    std::vector<std::string> names;
    ASSERT_EQ(0, k::list_dir("/proc/marlix/adaptor-mlx", names));
    EXPECT_EQ(1u, std::count(names.begin(), names.end(), "version"));
}

}  // namespace
}  // namespace adaptor_test
