// The interpreter: parsing, statuses, -k, -x, exit, help and the stack and clock commands.
#include <vector>

#include "console_fixture.hpp"
#include "marlix/kernel.hpp"

#include <linux/kernel.h>  // printk; last, it renames the formatting calls

using marlix::console::CommandLine;
using marlix::console::parse;

namespace {

std::vector<std::vector<std::string>> words_of(const std::string &text) {
    std::vector<CommandLine> commands;
    std::string error;
    EXPECT_TRUE(parse(text, commands, error)) << error;
    std::vector<std::vector<std::string>> out;
    for (const auto &c : commands) {
        std::vector<std::string> words;
        for (const auto &w : c.words) words.push_back(w.redirect ? "<" + w.text + ">" : w.text);
        out.push_back(words);
    }
    return out;
}

TEST(Parse, SplitsWordsAndCommandsLikeAShell) {
    using W = std::vector<std::vector<std::string>>;
    EXPECT_EQ(words_of("  echo   a\tb  "), (W{{"echo", "a", "b"}}));
    EXPECT_EQ(words_of("echo 'a  b' \"c \\\"d\\\\ \\x\" e\\ f"), (W{{"echo", "a  b", "c \"d\\ \\x", "e f"}}));
    EXPECT_EQ(words_of("a;b ; c"), (W{{"a"}, {"b"}, {"c"}}));
    EXPECT_EQ(words_of("echo 'x;y' \"#z\" a#b # rest ; ignored"), (W{{"echo", "x;y", "#z", "a#b"}}));
    EXPECT_EQ(words_of("echo -n 3 >/sys/x"), (W{{"echo", "-n", "3", "<>>", "/sys/x"}}));
    EXPECT_EQ(words_of("echo 3 '>' b >> c"), (W{{"echo", "3", ">", "b", "<>>>", "c"}}));
    EXPECT_EQ(words_of("''"), (W{{""}}));
    EXPECT_EQ(words_of("# only a comment\n\n"), W{});
}

TEST(Parse, KeepsTheSourceOfEachCommand) {
    std::vector<CommandLine> commands;
    std::string error;
    ASSERT_TRUE(parse("  lsmod ;  cat  /proc/x  ", commands, error));
    ASSERT_EQ(commands.size(), 2u);
    EXPECT_EQ(commands[0].source, "lsmod");
    EXPECT_EQ(commands[1].source, "cat  /proc/x");
}

TEST(Parse, RejectsUnterminatedQuotes) {
    std::vector<CommandLine> commands;
    std::string error;
    EXPECT_FALSE(parse("echo 'abc", commands, error));
    EXPECT_EQ(error, "unexpected end of input while looking for matching `''");
    EXPECT_FALSE(parse("echo \"abc", commands, error));
    EXPECT_EQ(error, "unexpected end of input while looking for matching `\"'");
}

TEST_F(ConsoleTest, UnknownCommandIsReportedWith127) {
    EXPECT_EQ(run("frobnicate now"), 127);
    EXPECT_EQ(err(), "marlix: frobnicate: command not found\n");
    EXPECT_EQ(out(), "");
}

TEST_F(ConsoleTest, ScriptStopsAtTheFirstFailure) {
    EXPECT_EQ(run("echo one; nosuch; echo two"), 127);
    EXPECT_EQ(out(), "one\n");
    EXPECT_EQ(run("echo one\nlogger level x\necho two"), 2);
    EXPECT_EQ(out(), "one\n");
    EXPECT_EQ(err(), "usage: logger level [N]\n");
}

TEST_F(ConsoleTest, KeepGoingRunsEverythingAndReportsTheLastFailure) {
    restart({.keep_going = true});
    EXPECT_EQ(run("echo one; nosuch; echo two; logger level x; echo three"), 2);
    EXPECT_EQ(out(), "one\ntwo\nthree\n");
    EXPECT_EQ(err(), "marlix: nosuch: command not found\nusage: logger level [N]\n");
    EXPECT_EQ(run("echo fine"), 0);
}

TEST_F(ConsoleTest, EchoOptionPrintsEachCommandBeforeItsOutput) {
    restart({.echo = true});
    EXPECT_EQ(run("# a comment\necho  'hi there' ;logger level"), 0);
    EXPECT_EQ(out(), "marlix# echo  'hi there'\nhi there\nmarlix# logger level\n5\n");
}

TEST_F(ConsoleTest, SyntaxErrorFailsTheLine) {
    EXPECT_EQ(run("echo 'open"), 2);
    EXPECT_EQ(err(), "marlix: syntax error: unexpected end of input while looking for matching `''\n");
    EXPECT_EQ(run("echo a >"), 2);
    EXPECT_EQ(err(), "marlix: syntax error near unexpected token `newline'\n");
}

TEST_F(ConsoleTest, ExitStopsWithItsStatus) {
    EXPECT_EQ(run("echo a; exit 3; echo b"), 3);
    EXPECT_EQ(out(), "a\n");
    EXPECT_TRUE(console().exit_requested());
    EXPECT_EQ(console().exit_status(), 3);
}

TEST_F(ConsoleTest, ExitWithoutArgumentUsesTheLastStatus) {
    restart({.keep_going = true});
    EXPECT_EQ(run("nosuch; exit"), 127);
    EXPECT_EQ(console().exit_status(), 127);
}

TEST_F(ConsoleTest, ExitRejectsANonNumber) {
    EXPECT_EQ(run("exit soon"), 2);
    EXPECT_EQ(err(), "marlix: exit: soon: numeric argument required\n");
}

TEST_F(ConsoleTest, HelpListsEveryCommandWithItsUsage) {
    EXPECT_EQ(run("help"), 0);
    for (const char *usage :
         {"insmod NAME [param=value ...]", "rmmod NAME", "lsmod", "cat PATH...", "echo [-n] TEXT [> PATH]",
          "ls PATH...", "dmesg [-c] [-C] [-r] [-t] [-n LEVEL]", "rep get KEY NAME | rep set KEY NAME VALUE",
          "logger level [N]", "jiffies [+N]", "sleep MS", "clock [run|stop]", "help [COMMAND]", "exit [N]"})
        EXPECT_NE(out().find(std::string("  ") + usage), std::string::npos) << usage;
    EXPECT_EQ(run("help sleep"), 0);
    EXPECT_EQ(out().rfind("  sleep MS ", 0), 0u) << out();
    EXPECT_EQ(run("help nothing"), 1);
    EXPECT_EQ(err(), "marlix: help: no help topics match `nothing'\n");
}

TEST_F(ConsoleTest, RepositoryGetAndSet) {
    EXPECT_EQ(run("rep get marlix/modules/adaptor-mlx/ debug-level"), 0);
    EXPECT_EQ(out(), "1\n");
    EXPECT_EQ(run("rep set marlix/modules/adaptor-mlx/ debug-level 4; rep get marlix/modules/adaptor-mlx "
                  "debug-level"),
              0);
    EXPECT_EQ(out(), "4\n");
    EXPECT_EQ(run("rep set a/b/ n -0x10; rep get a/b n"), 0);
    EXPECT_EQ(out(), "-16\n");
    EXPECT_EQ(run("rep set a/b/ s 'two words'; rep get a/b/ s; rep set a/b t 12ab; rep get a/b t"), 0);
    EXPECT_EQ(out(), "two words\n12ab\n");
}

TEST_F(ConsoleTest, RepositoryErrors) {
    EXPECT_EQ(run("rep get no/such/ x"), 1);
    EXPECT_EQ(err(), "rep: no/such/: no such key\n");
    EXPECT_EQ(run("rep get marlix/modules/adaptor-mlx/ missing"), 1);
    EXPECT_EQ(err(), "rep: marlix/modules/adaptor-mlx/: no value named missing\n");
    EXPECT_EQ(run("rep get onlykey"), 2);
    EXPECT_EQ(err(), "usage: rep get KEY NAME | rep set KEY NAME VALUE\n");
    EXPECT_EQ(run("rep remove a b"), 2);
}

TEST_F(ConsoleTest, LoggerLevel) {
    EXPECT_EQ(run("logger level"), 0);
    EXPECT_EQ(out(), "5\n");
    EXPECT_EQ(run("logger level 2; logger level"), 0);
    EXPECT_EQ(out(), "2\n");
    EXPECT_EQ(run("logger"), 2);
    EXPECT_EQ(err(), "usage: logger level [N]\n");
}

TEST_F(ConsoleTest, JiffiesShowsAndAdvancesTheVirtualClock) {
    unsigned long start = marlix::kernel::now_jiffies();
    EXPECT_EQ(run("jiffies"), 0);
    EXPECT_EQ(out(), std::to_string(start) + "\n");
    EXPECT_EQ(run("jiffies +250; sleep 50; jiffies"), 0);
    EXPECT_EQ(out(), std::to_string(start + 300) + "\n");
    EXPECT_EQ(run("jiffies 5"), 2);
    EXPECT_EQ(err(), "usage: jiffies [+N]\n");
    EXPECT_EQ(run("sleep soon"), 1);
    EXPECT_EQ(err(), "sleep: invalid time interval 'soon'\n");
    EXPECT_EQ(marlix::kernel::now_jiffies(), start + 300);
}

}  // namespace

namespace {

TEST_F(ConsoleTest, ConsoleLinesFromOtherThreadsAppearBetweenCommands) {
    ASSERT_EQ(run("dmesg -n 7"), 0);
    marlix::kernel::run_in_softirq([] { printk(KERN_INFO "from the softirq thread\n"); });
    EXPECT_EQ(run("echo next"), 0);
    EXPECT_EQ(out(), "from the softirq thread\nnext\n");
}

TEST_F(ConsoleTest, ConsoleLinesBypassRedirection) {
    ASSERT_EQ(run("insmod marlix-hello; dmesg -n 8"), 0) << err();
    // The unload line goes to the console, not into the file (which is gone by then anyway).
    EXPECT_EQ(run("rmmod marlix-hello > /sys/module/marlix_hello/parameters/count"), 0) << err();
    EXPECT_EQ(out(), "marlix-hello: unloaded\n");
    EXPECT_EQ(err(), "");
}

}  // namespace
