// insmod, rmmod, lsmod and dmesg around the marlix-hello test module.
#include <cstdio>

#include "console_fixture.hpp"
#include "marlix/kernel.hpp"

namespace {

std::string stamp(unsigned long jiffies) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "[%5lu.%06lu] ", jiffies / 1000, (jiffies % 1000) * 1000);
    return buf;
}

TEST_F(ConsoleTest, LsmodOfAFreshHostShowsOnlyTheHeader) {
    EXPECT_EQ(run("lsmod"), 0);
    EXPECT_EQ(out(), "Module                  Size  Used by\n");
}

TEST_F(ConsoleTest, InsmodOfAMissingModule) {
    EXPECT_EQ(run("insmod no-such-module"), 1);
    EXPECT_EQ(err(), "insmod: ERROR: could not load module no-such-module: No such file or directory\n");
    EXPECT_EQ(run("insmod /nowhere/x.ko"), 1);
    EXPECT_EQ(err(), "insmod: ERROR: could not load module /nowhere/x.ko: No such file or directory\n");
    EXPECT_EQ(run("insmod"), 2);
    EXPECT_EQ(err(), "usage: insmod NAME [param=value ...]\n");
}

TEST_F(ConsoleTest, RmmodOfAModuleThatIsNotLoaded) {
    EXPECT_EQ(run("rmmod marlix-hello"), 1);
    EXPECT_EQ(err(), "rmmod: ERROR: Module marlix_hello is not currently loaded\n");
    EXPECT_EQ(run("rmmod"), 2);
    EXPECT_EQ(err(), "usage: rmmod NAME\n");
}

TEST_F(ConsoleTest, HelloModuleLoadsReportsItsParameterAndUnloads) {
    EXPECT_EQ(run("insmod marlix-hello count=5"), 0) << err();
    EXPECT_EQ(err(), "");

    EXPECT_EQ(run("lsmod"), 0);
    EXPECT_EQ(out().substr(0, 38 + 20), "Module                  Size  Used by\nmarlix_hello        ")
        << out();
    EXPECT_EQ(out().substr(out().size() - 4), "  0\n") << out();

    EXPECT_EQ(run("cat /proc/marlix-hello/status"), 0);
    EXPECT_EQ(out(), "marlix-hello: count=5\n");
    EXPECT_EQ(run("ls /proc/marlix-hello"), 0);
    EXPECT_EQ(out(), "status\n");
    EXPECT_EQ(run("cat /sys/module/marlix_hello/parameters/count"), 0);
    EXPECT_EQ(out(), "5\n");

    EXPECT_EQ(run("echo 7 > /sys/module/marlix_hello/parameters/count"), 0) << err();
    EXPECT_EQ(run("cat /proc/marlix-hello/status"), 0);
    EXPECT_EQ(out(), "marlix-hello: count=7\n");
    EXPECT_EQ(run("echo -n 8 >/sys/module/marlix_hello/parameters/count; cat /proc/marlix-hello/status"), 0);
    EXPECT_EQ(out(), "marlix-hello: count=8\n");

    EXPECT_EQ(run("echo many > /sys/module/marlix_hello/parameters/count"), 1);
    EXPECT_EQ(err(), "marlix: echo: write error: Invalid argument\n");
    EXPECT_EQ(out(), "");

    EXPECT_EQ(run("insmod marlix-hello"), 1);
    EXPECT_EQ(err(), "insmod: ERROR: could not insert module marlix-hello.ko: File exists\n");

    EXPECT_EQ(run("rmmod marlix-hello"), 0) << err();
    EXPECT_EQ(run("lsmod"), 0);
    EXPECT_EQ(out(), "Module                  Size  Used by\n");
    EXPECT_EQ(run("cat /proc/marlix-hello/status"), 1);
    EXPECT_EQ(err(), "cat: /proc/marlix-hello/status: No such file or directory\n");

    EXPECT_EQ(run("dmesg -t"), 0);
    EXPECT_EQ(out(), "marlix-hello: loaded\nmarlix-hello: unloaded\n");
}

TEST_F(ConsoleTest, DmesgFormatsClearsAndShowsRawLevels) {
    unsigned long at = marlix::kernel::now_jiffies() + 1500;
    ASSERT_EQ(run("dmesg -C; jiffies +1500; insmod marlix-hello"), 0) << err();
    EXPECT_EQ(run("dmesg"), 0);
    EXPECT_EQ(out(), stamp(at) + "marlix-hello: loaded\n");
    EXPECT_EQ(run("dmesg -r"), 0);
    EXPECT_EQ(out(), "<6>" + stamp(at) + "marlix-hello: loaded\n");
    EXPECT_EQ(run("dmesg -rt"), 0);
    EXPECT_EQ(out(), "<6>marlix-hello: loaded\n");
    EXPECT_EQ(run("dmesg -c -t"), 0);
    EXPECT_EQ(out(), "marlix-hello: loaded\n");
    EXPECT_EQ(run("dmesg"), 0);
    EXPECT_EQ(out(), "");
    EXPECT_EQ(run("dmesg -x"), 2);
    EXPECT_EQ(err(), "usage: dmesg [-c] [-C] [-r] [-t] [-n LEVEL]\n");
}

TEST_F(ConsoleTest, DmesgConsoleLevelEchoesLinesLive) {
    EXPECT_EQ(run("insmod marlix-hello; rmmod marlix-hello"), 0);
    EXPECT_EQ(out(), "") << "console level 0 keeps the console quiet";
    EXPECT_EQ(run("dmesg -n 7"), 0);
    EXPECT_EQ(marlix::kernel::console_loglevel(), 7);
    EXPECT_EQ(run("insmod marlix-hello"), 0);
    EXPECT_NE(out().find("marlix-hello: loaded\n"), std::string::npos) << out();
    EXPECT_EQ(run("dmesg -n 6; rmmod marlix-hello"), 0);
    EXPECT_EQ(out(), "") << "level 6 hides KERN_INFO";
    EXPECT_EQ(run("dmesg -n debug"), 0);
    EXPECT_EQ(marlix::kernel::console_loglevel(), 8);
    EXPECT_EQ(run("dmesg -n loud"), 1);
    EXPECT_EQ(err(), "dmesg: unknown level 'loud'\n");
    EXPECT_EQ(run("dmesg -n 9"), 1);
    EXPECT_EQ(err(), "dmesg: klogctl failed: Invalid argument\n");
}

}  // namespace

namespace {

TEST_F(ConsoleTest, AModuleInUseCannotBeRemovedFirst) {
    ASSERT_EQ(run("insmod marlix-hello count=4; insmod marlix-hello-user"), 0) << err();
    EXPECT_EQ(run("lsmod"), 0);
    std::string listing = out();
    size_t user_row = listing.find("\nmarlix_hello_user ");
    size_t hello_row = listing.find("\nmarlix_hello ");
    ASSERT_NE(user_row, std::string::npos) << listing;
    ASSERT_NE(hello_row, std::string::npos) << listing;
    EXPECT_LT(user_row, hello_row) << "newest first";
    EXPECT_EQ(listing.substr(listing.size() - 22), "  1 marlix_hello_user\n") << listing;

    EXPECT_EQ(run("rmmod marlix-hello"), 1);
    EXPECT_EQ(err(), "rmmod: ERROR: Module marlix_hello is in use by: marlix_hello_user\n");
    EXPECT_EQ(run("rmmod marlix_hello_user; rmmod marlix-hello"), 0) << err();
    EXPECT_EQ(run("dmesg -t"), 0);
    EXPECT_EQ(out(), "marlix-hello: loaded\nmarlix-hello-user: count is 4\nmarlix-hello: unloaded\n");
}

TEST_F(ConsoleTest, InsmodReportsAFailingInit) {
    EXPECT_EQ(run("insmod marlix-hello-user"), 1);
    EXPECT_EQ(
        err(),
        "insmod: ERROR: could not insert module marlix-hello-user.ko: Unknown symbol in module, or unknown "
        "parameter (see dmesg)\n");
}

}  // namespace
