// The kernel log: levels, continuation, default level, clearing, console mirror.
#include "kernel_fixture.hpp"

#include <linux/jiffies.h>
#include <linux/kernel.h>

namespace mk = marlix::kernel;
using Lines = std::vector<std::string>;

namespace {

TEST_F(KernelTest, LevelPrefixSetsLineLevelAndIsNotText) {
    printk(KERN_INFO "hello %d\n", 1);
    printk(KERN_ERR "bad\n");
    printk("plain\n");
    EXPECT_EQ(texts(), (Lines{"hello 1", "bad", "plain"}));
    EXPECT_EQ(levels(), (std::vector<int>{6, 3, 4}));
}

TEST_F(KernelTest, ContinuationJoinsUntilNewline) {
    printk(KERN_DEBUG "part one, ");
    EXPECT_TRUE(mk::log_lines().empty());
    EXPECT_EQ(mk::log_partial(), "part one, ");
    printk("<6>not a level here, ");
    printk("end\nsecond\n");
    EXPECT_EQ(texts(), (Lines{"part one, <6>not a level here, end", "second"}));
    EXPECT_EQ(levels(), (std::vector<int>{7, 4}));
    EXPECT_EQ(mk::log_partial(), "");
}

TEST_F(KernelTest, SeveralLinesInOneCallEachTakeTheirOwnLevel) {
    printk("<2>a\n<5>b\nc\n");
    EXPECT_EQ(texts(), (Lines{"a", "b", "c"}));
    EXPECT_EQ(levels(), (std::vector<int>{2, 5, 4}));
}

TEST_F(KernelTest, PrintkReturnsFormattedLength) {
    EXPECT_EQ(printk("<6>abc\n"), 7);
}

TEST_F(KernelTest, LongMessagesAreCutAtTheKernelBuffer) {
    std::string big(2000, 'x');
    printk("%s\n", big.c_str());
    printk("after\n");
    ASSERT_EQ(mk::log_lines().size(), 1u);  // the newline was cut off: the next printk continues the line
    EXPECT_EQ(mk::log_lines()[0].text, std::string(1023, 'x') + "after");
}

TEST_F(KernelTest, ClearEmptiesTheLog) {
    printk("one\n");
    mk::log_clear();
    EXPECT_TRUE(mk::log_lines().empty());
    printk("two\n");
    EXPECT_EQ(texts(), (Lines{"two"}));
}

TEST_F(KernelTest, LinesCarryTheirStartTime) {
    printk("early ");
    mk::advance_jiffies(1500);
    printk("late\nnext\n");
    auto lines = mk::log_lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].stamp_jiffies, 0u);
    EXPECT_EQ(lines[1].stamp_jiffies, 1500u);
    EXPECT_EQ(mk::format_log_line(lines[1], false, true), "[    1.500000] next");
    EXPECT_EQ(mk::format_log_line(lines[1], true, false), "<4>next");
    EXPECT_EQ(mk::format_log_line(lines[0], false, false), "early late");
}

class ConsoleTest : public KernelTest {
  protected:
    mk::BootOptions options() override {
        mk::BootOptions o;
        o.console_loglevel = 5;
        o.default_message_loglevel = 6;
        o.console = [this](std::string_view line) { seen.emplace_back(line); };
        return o;
    }
    Lines seen;
};

TEST_F(ConsoleTest, MirrorsLinesBelowConsoleLevel) {
    printk(KERN_ERR "error\n");
    printk(KERN_INFO "info\n");
    printk("default\n");  // default level 6 from the boot options
    printk(KERN_NOTICE "notice\n");
    printk(KERN_WARNING "warning\n");
    EXPECT_EQ(seen, (Lines{"error", "warning"}));
    mk::set_console_loglevel(8);
    EXPECT_EQ(mk::console_loglevel(), 8);
    printk(KERN_DEBUG "debug\n");
    EXPECT_EQ(seen.back(), "debug");
    EXPECT_EQ(levels()[2], 6);
}

TEST_F(KernelTest, DumpStackPrintsCallTrace) {
    dump_stack();
    auto t = texts();
    ASSERT_EQ(t.size(), 2u);
    EXPECT_EQ(t[0], "Call Trace:");
    EXPECT_EQ(t[1].substr(0, 3), " [<");
}

}  // namespace
