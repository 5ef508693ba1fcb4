// simple_strtoul and friends, and the kernel's character classes.
#include <gtest/gtest.h>

#include <climits>

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

TEST(Strtoul, MostNegativeValuesAndWrapping) {
    char *end;
    const char *min_dec = "-9223372036854775808";
    EXPECT_EQ(simple_strtol(min_dec, &end, 0), LONG_MIN);
    EXPECT_EQ(end, min_dec + 20);
    EXPECT_EQ(simple_strtol("-0x8000000000000000", &end, 0), LONG_MIN);
    EXPECT_EQ(*end, '\0');
    EXPECT_EQ(simple_strtol("-01000000000000000000000", &end, 0), LONG_MIN);
    EXPECT_EQ(simple_strtoll(min_dec, &end, 10), LLONG_MIN);
    EXPECT_EQ(simple_strtoll("-8000000000000000", &end, 16), LLONG_MIN);
    EXPECT_EQ(simple_strtol("-9223372036854775807", &end, 0), LONG_MIN + 1);
    // Values out of range wrap, as the kernel's do.
    EXPECT_EQ(simple_strtol("9223372036854775808", &end, 0), LONG_MIN);
    EXPECT_EQ(simple_strtol("-18446744073709551615", &end, 0), 1L);
    EXPECT_EQ(simple_strtoll("-18446744073709551616", &end, 0), 0LL);
    EXPECT_EQ(simple_strtoul("-1", &end, 0), 0u);  // no sign for the unsigned forms
    EXPECT_STREQ(end, "-1");
    EXPECT_EQ(simple_strtol("-", &end, 0), 0L);  // a sign alone: nothing after it converts
    EXPECT_STREQ(end, "");
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

TEST(Sscanf, MostNegativeValues) {
    int i = 0;
    long l = 0;
    long long ll = 0;
    short h = 0;
    EXPECT_EQ(sscanf("-2147483648 -9223372036854775808 -9223372036854775808 -32768", "%d %ld %lld %hd", &i,
                     &l, &ll, &h),
              4);
    EXPECT_EQ(i, INT_MIN);
    EXPECT_EQ(l, LONG_MIN);
    EXPECT_EQ(ll, LLONG_MIN);
    EXPECT_EQ(h, SHRT_MIN);
    EXPECT_EQ(sscanf("-0x8000000000000000", "%li", &l), 1);
    EXPECT_EQ(l, LONG_MIN);
    EXPECT_EQ(sscanf("-9223372036854775808", "%Li", &ll), 1);
    EXPECT_EQ(ll, LLONG_MIN);
    // A width that would overflow an int reads as unlimited; a width cuts the number.
    const char *volatile huge_width = "%99999999999999999999ld";  // not a literal: no compile-time check
    EXPECT_EQ(sscanf("-9223372036854775808", huge_width, &l), 1);
    EXPECT_EQ(l, LONG_MIN);
    EXPECT_EQ(sscanf("-9223372036854775808", "%3ld", &l), 1);
    EXPECT_EQ(l, -92);
}

}  // namespace
