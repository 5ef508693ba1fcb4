// `fault kmalloc`: kernel allocation faults armed from the console, and operator input at the
// edges of the integer range (the most negative 64-bit value) written to the adaptor's files.
#include <string>

#include "console_fixture.hpp"
#include "marlix/kernel.hpp"

namespace {

TEST_F(ConsoleTest, FaultKmallocUsage) {
    const std::string usage =
        "usage: fault DEVICE|* CALL|* STATUS [once|nth N|always] | fault kmalloc [nth N] [size BYTES] "
        "[site FUNCTION|FILE:LINE] [once|always] | fault kmalloc clear|status | fault clear\n";
    for (const char *bad : {"fault kmalloc nth", "fault kmalloc nth 1 nth 2", "fault kmalloc once always",
                            "fault kmalloc bogus 3", "fault kmalloc site", "fault kmalloc clear now"}) {
        EXPECT_EQ(run(bad), 2) << bad;
        EXPECT_EQ(err(), usage) << bad;
    }
    EXPECT_EQ(run("fault kmalloc nth 0"), 1);
    EXPECT_EQ(err(), "fault: kmalloc: not a count (1, 2, ...): 0\n");
    EXPECT_EQ(run("fault kmalloc nth -1"), 1);
    EXPECT_EQ(err(), "fault: kmalloc: not a count (1, 2, ...): -1\n");
    EXPECT_EQ(run("fault kmalloc size 12k"), 1);
    EXPECT_EQ(err(), "fault: kmalloc: not a size in bytes: 12k\n");
    EXPECT_EQ(run("fault kmalloc status"), 0);
    EXPECT_EQ(out(), "kmalloc failures injected: 0\n");
}

// The completion generator's array is the allocation of 800 bytes at load; without it the
// module still loads and counts the failure.
TEST_F(ConsoleTest, FaultKmallocBySizeAndSiteReachesTheGeneratorFailure) {
    ASSERT_EQ(run("fault kmalloc size 800 site ox_mlx_prepare_generator; insmod adaptor-mlx"), 0) << err();
    EXPECT_EQ(run("fault kmalloc status"), 0);
    EXPECT_EQ(out(), "kmalloc failures injected: 1\n");
    ASSERT_EQ(run("cat /proc/marlix/adaptor-mlx/control"), 0) << err();
    EXPECT_TRUE(has_line(out(), "     errors: 1 (1)")) << out();
    EXPECT_TRUE(has_line(out(), " mem errors: 1 (1)")) << out();
    ASSERT_EQ(run("rmmod adaptor-mlx; insmod adaptor-mlx; cat /proc/marlix/adaptor-mlx/control"), 0) << err();
    EXPECT_TRUE(has_line(out(), " mem errors: 0 (0)")) << out();  // the fault fired once only
}

TEST_F(ConsoleTest, FaultKmallocFailsTheLoadAndClearDisarms) {
    // The version record's banner is the first allocation of module_version_init.
    EXPECT_EQ(run("fault kmalloc site module_version_init always; insmod adaptor-mlx"), 1);
    EXPECT_EQ(err(), "insmod: ERROR: could not insert module adaptor-mlx.ko: Cannot allocate memory\n");
    EXPECT_EQ(run("insmod adaptor-mlx"), 1);  // `always` keeps failing
    EXPECT_EQ(run("fault kmalloc status"), 0);
    EXPECT_EQ(out(), "kmalloc failures injected: 2\n");
    EXPECT_EQ(run("fault clear; insmod adaptor-mlx; rmmod adaptor-mlx"), 0) << err();
    EXPECT_EQ(run("fault kmalloc nth 2; fault kmalloc clear; insmod adaptor-mlx"), 0) << err();
    EXPECT_EQ(run("fault kmalloc status"), 0);
    EXPECT_EQ(out(), "kmalloc failures injected: 2\n");
}

// An allocation failure while the module is removed leaves no proc entry behind.
TEST_F(ConsoleTest, FaultKmallocDuringRmmod) {
    for (const char *mode : {"", " always"}) {
        ASSERT_EQ(run("insmod adaptor-mlx; dmesg -C"), 0) << err();
        ASSERT_EQ(run(std::string("fault kmalloc nth 1") + mode + "; rmmod adaptor-mlx"), 0) << err();
        EXPECT_EQ(run("fault kmalloc clear; ls /proc/marlix"), 0);
        EXPECT_EQ(out(), "adaptor-mlx\n") << mode;  // the directory stays, empty
        EXPECT_EQ(run("ls /proc/marlix/adaptor-mlx"), 0);
        EXPECT_EQ(out(), "") << mode;
        EXPECT_EQ(run("dmesg -t"), 0);
        EXPECT_EQ(out().find("still registered at unload"), std::string::npos) << out();
    }
}

TEST_F(ConsoleTest, PollcqOfTheMostNegativeValue) {
    ASSERT_EQ(run("insmod adaptor-mlx; dmesg -C"), 0) << err();
    ASSERT_EQ(run("echo pollcq 0x8000000000000000 > /proc/marlix/adaptor-mlx/control; dmesg -t"), 0) << err();
    EXPECT_EQ(out(), "poll_cq_num: -9223372036854775808\nERROR - Didn't find cq_h: 0x8000000000000000\n");
}

TEST_F(ConsoleTest, GeneratorCqCommandsOfTheMostNegativeValueAtDebugLevel) {
    ASSERT_EQ(run("logger level 4; rep set marlix/modules/adaptor-mlx/ debug-level 4; insmod adaptor-mlx"), 0)
        << err();
    ASSERT_EQ(run("dmesg -C; echo comaddcq 0x8000000000000000 > /proc/marlix/adaptor-mlx/control; dmesg -t"),
              0)
        << err();
    EXPECT_TRUE(has_line(out(),
                         "DEBUG   : AD_TAVOR : proc_com_addcq:(tavor_proc):poll_cq_num: "
                         "-9223372036854775808"))
        << out();
    EXPECT_TRUE(has_line(out(), "Didn't find cq_h: 8000000000000000")) << out();
    ASSERT_EQ(run("dmesg -C; echo comremcq 0x8000000000000000 > /proc/marlix/adaptor-mlx/control; dmesg -t"),
              0)
        << err();
    EXPECT_TRUE(has_line(out(),
                         "DEBUG   : AD_TAVOR : proc_com_remcq:(tavor_proc):poll_cq_num: "
                         "-9223372036854775808"))
        << out();
    EXPECT_TRUE(has_line(out(), "ERROR - Didn't find cq_h: 8000000000000000")) << out();
}

TEST_F(ConsoleTest, HcaIxOfTheMostNegativeValueIsRefused) {
    EXPECT_EQ(run("insmod adaptor-mlx hca_ix=-0x8000000000000000"), 1);
    EXPECT_EQ(err(), "insmod: ERROR: could not insert module adaptor-mlx.ko: Invalid argument\n");
    EXPECT_EQ(run("dmesg -t"), 0);
    EXPECT_TRUE(has_line(out(), "adaptor_mlx: `-0x8000000000000000' invalid for parameter `hca_ix'"))
        << out();
    EXPECT_EQ(run("insmod adaptor-mlx hca_ix=-9223372036854775808"), 1);
    EXPECT_EQ(err(), "insmod: ERROR: could not insert module adaptor-mlx.ko: Invalid argument\n");

    ASSERT_EQ(run("insmod adaptor-mlx"), 0) << err();
    EXPECT_EQ(run("echo -9223372036854775808 > /sys/module/adaptor_mlx/parameters/hca_ix"), 1);
    EXPECT_EQ(err(), "marlix: echo: write error: Invalid argument\n");
    EXPECT_EQ(run("echo -0x8000000000000000 > /sys/module/adaptor_mlx/parameters/hca_ix"), 1);
    EXPECT_EQ(run("cat /sys/module/adaptor_mlx/parameters/hca_ix"), 0);
    EXPECT_EQ(out(), "0\n");
    EXPECT_EQ(run("echo -2147483648 > /sys/module/adaptor_mlx/parameters/hca_ix; "
                  "cat /sys/module/adaptor_mlx/parameters/hca_ix"),
              0);
    EXPECT_EQ(out(), "-2147483648\n");
}

}  // namespace
