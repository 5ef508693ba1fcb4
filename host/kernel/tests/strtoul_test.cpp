// simple_strtoul and friends, and the kernel's character classes.
#include <gtest/gtest.h>

#include <linux/ctype.h>
#include <linux/kernel.h>

namespace {

TEST(Strtoul, BaseZeroGuessesFromPrefix) {
    char *end;
    EXPECT_EQ(simple_strtoul("0x1f", &end, 0), 31u);
    EXPECT_EQ(*end, '\0');
    EXPECT_EQ(simple_strtoul("017", &end, 0), 15u);
    EXPECT_EQ(simple_strtoul("019", &end, 0), 1u);  // 9 is not octal
    EXPECT_STREQ(end, "9");
    EXPECT_EQ(simple_strtoul("42abc", &end, 0), 42u);
    EXPECT_STREQ(end, "abc");
    EXPECT_EQ(simple_strtoul("0x", &end, 0), 0u);  // "x" without a hex digit is not a prefix
    EXPECT_STREQ(end, "x");
    EXPECT_EQ(simple_strtoul(" 5", &end, 0), 0u);  // no white space skipping
    EXPECT_STREQ(end, " 5");
    EXPECT_EQ(simple_strtoul("9", nullptr, 0), 9u);
}

TEST(Strtoul, ExplicitBases) {
    char *end;
    EXPECT_EQ(simple_strtoul("ff", &end, 16), 255u);
    EXPECT_EQ(simple_strtoul("0xff", &end, 16), 255u);
    EXPECT_EQ(simple_strtoul("777", &end, 8), 511u);
    EXPECT_EQ(simple_strtoul("1012", &end, 2), 5u);
    EXPECT_STREQ(end, "2");
    EXPECT_EQ(simple_strtol("-12", &end, 10), -12);
    EXPECT_EQ(simple_strtoull("18446744073709551615", &end, 10), 18446744073709551615ULL);
    EXPECT_EQ(simple_strtoul("0x100000000", &end, 0), 0x100000000UL);
}

TEST(Ctype, Latin1Classes) {
    EXPECT_TRUE(isspace(0xA0));
    EXPECT_TRUE(isspace(' '));
    EXPECT_TRUE(isspace('\t'));
    EXPECT_TRUE(isupper(0xC0));
    EXPECT_TRUE(islower(0xE9));
    EXPECT_FALSE(isalpha(0xD7));  // multiplication sign
    EXPECT_TRUE(isxdigit('F'));
    EXPECT_FALSE(isxdigit('g'));
    EXPECT_TRUE(iscntrl(0x7F));
    EXPECT_FALSE(isprint(0x85));
}

}  // namespace

namespace {

TEST(Sscanf, WordsAndNumbers) {
    char word[16];
    int a = 0;
    unsigned long b = 0;
    int n = 0;
    EXPECT_EQ(sscanf("pollcq  0x10 300 more", "%15s %i %lu%n", word, &a, &b, &n), 3);
    EXPECT_STREQ(word, "pollcq");
    EXPECT_EQ(a, 16);
    EXPECT_EQ(b, 300u);
    EXPECT_EQ(n, 16);
    EXPECT_EQ(sscanf("x=-5", "x=%d", &a), 1);
    EXPECT_EQ(a, -5);
    EXPECT_EQ(sscanf("abc", "%d", &a), 0);
}

}  // namespace
