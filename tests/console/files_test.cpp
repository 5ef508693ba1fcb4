// cat, ls and echo redirection errors.
#include "console_fixture.hpp"

namespace {

TEST_F(ConsoleTest, EchoPrintsItsWords) {
    EXPECT_EQ(run("echo a  b 'c  d'; echo -n x; echo"), 0);
    EXPECT_EQ(out(), "a b c  d\nx\n");
}

TEST_F(ConsoleTest, RedirectionIntoAMissingFile) {
    EXPECT_EQ(run("echo 1 > /proc/nothing/here"), 1);
    EXPECT_EQ(err(), "marlix: /proc/nothing/here: No such file or directory\n");
    EXPECT_EQ(out(), "");
}

TEST_F(ConsoleTest, CatErrors) {
    EXPECT_EQ(run("cat /proc/nothing"), 1);
    EXPECT_EQ(err(), "cat: /proc/nothing: No such file or directory\n");
    EXPECT_EQ(run("cat"), 2);
    EXPECT_EQ(err(), "usage: cat PATH...\n");
}

TEST_F(ConsoleTest, LsErrors) {
    EXPECT_EQ(run("ls /proc/nothing"), 2);
    EXPECT_EQ(err(), "ls: cannot access '/proc/nothing': No such file or directory\n");
    EXPECT_EQ(run("ls"), 2);
    EXPECT_EQ(err(), "usage: ls PATH...\n");
}

}  // namespace
