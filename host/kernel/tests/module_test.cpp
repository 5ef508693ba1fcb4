// The module loader: load and unload, parameters and their sysfs files, references, symbols,
// failing init, duplicate exports and the leak report.
#include "kernel_fixture.hpp"

#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/module.h>

namespace mk = marlix::kernel;
using Lines = std::vector<std::string>;

namespace {

bool contains(const Lines &lines, const std::string &text) {
    for (auto &l : lines)
        if (l == text) return true;
    return false;
}

TEST_F(KernelTest, ModuleLoadsWithParamsAndUnloads) {
    ASSERT_NE(mk::resolve_module_file("kernel-test-mod"), "");
    ASSERT_EQ(mk::insmod("kernel-test-mod", {"count=7", "label=hello", "flag", "big=0x10"}), 0);
    EXPECT_EQ(texts(), (Lines{"ktm: init count=7 label=hello flag=1 big=16 loads=0"}));
    auto info = mk::find_module("kernel_test_mod");
    ASSERT_TRUE(info);
    EXPECT_EQ(info->name, "kernel_test_mod");
    EXPECT_EQ(info->refcount, 0u);
    EXPECT_EQ(mk::modules().size(), 1u);
    EXPECT_NE(std::find(info->info.begin(), info->info.end(),
                        std::pair<std::string, std::string>{"parm", "count:How many things to count."}),
              info->info.end());

    std::string out;
    EXPECT_EQ(mk::read_file("/proc/ktm", out), 0);
    EXPECT_EQ(out, "count=7 label=hello loads=1\n");

    EXPECT_EQ(mk::rmmod("kernel-test-mod"), 0);
    EXPECT_EQ(texts().back(), "ktm: exit");
    EXPECT_FALSE(mk::find_module("kernel_test_mod"));
    EXPECT_FALSE(mk::file_exists("/proc/ktm"));
    EXPECT_EQ(mk::rmmod("kernel_test_mod"), -ENOENT);
}

TEST_F(KernelTest, EveryLoadGetsFreshModuleData) {
    ASSERT_EQ(mk::insmod("kernel-test-mod"), 0);
    ASSERT_EQ(mk::rmmod("kernel_test_mod"), 0);
    mk::log_clear();
    ASSERT_EQ(mk::insmod("kernel-test-mod"), 0);
    EXPECT_EQ(texts(), (Lines{"ktm: init count=3 label=none flag=0 big=0 loads=0"}));
}

TEST_F(KernelTest, LoadingTwiceIsRefused) {
    ASSERT_EQ(mk::insmod("kernel-test-mod"), 0);
    EXPECT_EQ(mk::insmod("kernel-test-mod"), -EEXIST);
    EXPECT_EQ(mk::insmod("no-such-module"), -ENOENT);
}

TEST_F(KernelTest, SysfsParameterFiles) {
    ASSERT_EQ(mk::insmod("kernel-test-mod", {"count=5"}), 0);
    std::vector<std::string> names;
    ASSERT_EQ(mk::list_dir("/sys/module/kernel_test_mod/parameters", names), 0);
    EXPECT_EQ(names, (Lines{"count", "big", "label", "flag"}));  // perm 0: no file

    std::string out;
    EXPECT_EQ(mk::read_file("/sys/module/kernel_test_mod/parameters/count", out), 0);
    EXPECT_EQ(out, "5\n");
    EXPECT_EQ(mk::write_file("/sys/module/kernel_test_mod/parameters/count", "12\n"), 3);
    EXPECT_EQ(mk::read_file("/sys/module/kernel_test_mod/parameters/count", out), 0);
    EXPECT_EQ(out, "12\n");
    EXPECT_EQ(mk::write_file("/sys/module/kernel_test_mod/parameters/count", "abc"), -EINVAL);
    EXPECT_EQ(mk::write_file("/sys/module/kernel_test_mod/parameters/count", "99999999999"), -EINVAL);
    EXPECT_EQ(mk::read_file("/sys/module/kernel_test_mod/parameters/count", out), 0);
    EXPECT_EQ(out, "12\n");
    EXPECT_EQ(mk::write_file("/sys/module/kernel_test_mod/parameters/big", "1"), -EACCES);  // 0444
    EXPECT_EQ(mk::read_file("/sys/module/kernel_test_mod/parameters/flag", out), 0);
    EXPECT_EQ(out, "N\n");
    EXPECT_EQ(mk::read_file("/sys/module/kernel_test_mod/parameters/hidden", out), -ENOENT);
    EXPECT_EQ(mk::read_file("/sys/module/kernel_test_mod/refcnt", out), 0);
    EXPECT_EQ(out, "0\n");
    ASSERT_EQ(mk::rmmod("kernel_test_mod"), 0);
    EXPECT_FALSE(mk::file_exists("/sys/module/kernel_test_mod/parameters/count"));
}

TEST_F(KernelTest, UnknownParameterFailsTheLoad) {
    EXPECT_EQ(mk::insmod("kernel-test-mod", {"nosuch=1"}), -EINVAL);
    EXPECT_EQ(texts(), (Lines{"kernel_test_mod: Unknown parameter `nosuch'"}));
    EXPECT_EQ(levels(), (std::vector<int>{3}));
    EXPECT_TRUE(mk::modules().empty());
    EXPECT_EQ(mk::insmod("kernel-test-mod", {"count=x"}), -EINVAL);
    EXPECT_EQ(texts().back(), "kernel_test_mod: `x' invalid for parameter `count'");
}

TEST_F(KernelTest, FailedInitReturnsItsErrnoAndLeavesNothing) {
    EXPECT_EQ(mk::insmod("kernel-test-mod", {"init_result=-19"}), -ENODEV);
    EXPECT_TRUE(mk::modules().empty());
    EXPECT_EQ(mk::lookup_symbol("ktm_add"), nullptr);
    EXPECT_FALSE(mk::file_exists("/sys/module/kernel_test_mod"));
    EXPECT_EQ(mk::insmod("kernel-test-mod"), 0);  // and it can be loaded afterwards
}

TEST_F(KernelTest, ExportedSymbolsAndReferences) {
    ASSERT_EQ(mk::insmod("kernel-test-mod", {"count=100"}), 0);
    const void *add = mk::lookup_symbol("ktm_add");
    ASSERT_NE(add, nullptr);
    bool listed = false;
    for (auto &s : mk::exported_symbols())
        if (s.name == "ktm_add") {
            listed = true;
            EXPECT_EQ(s.owner, "kernel_test_mod");
            EXPECT_EQ(s.value, add);
        }
    EXPECT_TRUE(listed);
    EXPECT_EQ(mk::find_module("kernel_test_mod")->refcount, 0u);

    auto *fn = reinterpret_cast<int (*)(int, int)>(__symbol_get("ktm_add"));
    ASSERT_NE(fn, nullptr);
    EXPECT_EQ(fn(1, 2), 103);
    EXPECT_EQ(mk::find_module("kernel_test_mod")->refcount, 1u);
    EXPECT_EQ(mk::rmmod("kernel_test_mod"), -EBUSY);
    EXPECT_TRUE(mk::find_module("kernel_test_mod"));
    __symbol_put("ktm_add");
    EXPECT_EQ(__symbol_get("no_such_symbol"), nullptr);
    EXPECT_EQ(mk::rmmod("kernel_test_mod"), 0);
    EXPECT_EQ(mk::lookup_symbol("ktm_add"), nullptr);
}

TEST_F(KernelTest, DuplicateExportFailsTheSecondModule) {
    ASSERT_EQ(mk::insmod("kernel-test-mod"), 0);
    EXPECT_EQ(mk::insmod("kernel-test-dup"), -ENOEXEC);
    EXPECT_EQ(texts().back(), "kernel_test_dup: exports duplicate symbol ktm_add (owned by kernel_test_mod)");
    EXPECT_EQ(mk::modules().size(), 1u);
}

TEST_F(KernelTest, LeaksAreReportedAtUnloadAndStayListed) {
    ASSERT_EQ(mk::insmod("kernel-test-mod", {"leak=2"}), 0);
    auto live = mk::live_allocations();
    ASSERT_EQ(live.size(), 2u);
    const struct module *owner = live[0].owner;
    ASSERT_NE(owner, nullptr);
    EXPECT_EQ(mk::live_allocations(owner).size(), 2u);
    mk::log_clear();
    ASSERT_EQ(mk::rmmod("kernel_test_mod"), 0);
    auto t = texts();
    ASSERT_EQ(t.size(), 6u);
    EXPECT_EQ(t[0], "ktm: exit");
    EXPECT_EQ(t[1], "kmemleak: 2 new suspected memory leaks");
    char expect[128];
    snprintf(expect, sizeof expect, "unreferenced object 0x%p (size 24):", live[0].ptr);
    EXPECT_EQ(t[2], expect);
    EXPECT_EQ(t[3], "  allocated at ktm_init (host/kernel/tests/modules/test_mod.c:" +
                        std::to_string(live[0].line) + ")");
    snprintf(expect, sizeof expect, "unreferenced object 0x%p (size 25):", live[1].ptr);
    EXPECT_EQ(t[4], expect);
    auto after = mk::live_allocations();
    ASSERT_EQ(after.size(), 2u);
    EXPECT_EQ(after[0].func, "ktm_init");
    EXPECT_EQ(after[0].file, "host/kernel/tests/modules/test_mod.c");
}

TEST_F(KernelTest, HaltUnloadsModulesUnlessRefused) {
    ASSERT_EQ(mk::insmod("kernel-test-mod"), 0);
    EXPECT_FALSE(mk::halt(false));
    EXPECT_TRUE(mk::booted());
    EXPECT_TRUE(mk::halt(true));
    EXPECT_FALSE(mk::booted());
    mk::boot();
    EXPECT_TRUE(mk::modules().empty());
}

TEST_F(KernelTest, ListsSysModule) {
    ASSERT_EQ(mk::insmod("kernel-test-mod"), 0);
    std::vector<std::string> names;
    ASSERT_EQ(mk::list_dir("/sys/module", names), 0);
    EXPECT_EQ(names, (Lines{"kernel_test_mod/"}));
    ASSERT_EQ(mk::list_dir("/sys/module/kernel_test_mod", names), 0);
    EXPECT_EQ(names, (Lines{"parameters/", "refcnt"}));
    EXPECT_TRUE(contains(names, "refcnt"));
}

}  // namespace
