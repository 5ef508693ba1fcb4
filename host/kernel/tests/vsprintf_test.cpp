// The kernel's formatting: %p, null strings, qualifiers, flags, widths and return values.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <linux/kernel.h>

namespace {

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...) {
    char buf[256];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

TEST(Vsprintf, PointerIsSixteenHexDigitsWithoutPrefix) {
    EXPECT_EQ(fmt("%p", (void *)0x1234abcdUL), "000000001234abcd");
    EXPECT_EQ(fmt("0x%p", (void *)0xffff8800deadbeefUL), "0xffff8800deadbeef");
    EXPECT_EQ(fmt("%p", (void *)nullptr), "0000000000000000");
    EXPECT_EQ(fmt("0x%p", (void *)nullptr), "0x0000000000000000");
    EXPECT_EQ(fmt("[%8p]", (void *)0xabUL), "[      ab]");  // an explicit width drops the zero padding
}

TEST(Vsprintf, NullAndLowStringsPrintNullMarker) {
    const char *volatile null_string = nullptr;
    EXPECT_EQ(fmt("%s", null_string), "<NULL>");
    EXPECT_EQ(fmt("[%s]", (const char *)0x10), "[<NULL>]");
    EXPECT_EQ(fmt("[%-12s]", "abc"), "[abc         ]");
    EXPECT_EQ(fmt("[%12s]", "abc"), "[         abc]");
    EXPECT_EQ(fmt("[%.2s]", "abcdef"), "[ab]");
    EXPECT_EQ(fmt("[%*s]", 5, "ab"), "[   ab]");
    EXPECT_EQ(fmt("[%-*s]", 5, "ab"), "[ab   ]");
    EXPECT_EQ(fmt("[%.*s]", 3, "abcdef"), "[abc]");
}

TEST(Vsprintf, IntegerQualifiers) {
    EXPECT_EQ(fmt("%Lu", 18446744073709551615ULL), "18446744073709551615");
    EXPECT_EQ(fmt("%llx", 0x123456789abcdefULL), "123456789abcdef");
    EXPECT_EQ(fmt("%ld", -5000000000L), "-5000000000");
    EXPECT_EQ(fmt("[%8lu]", 42UL), "[      42]");
    EXPECT_EQ(fmt("[%8d]", -42), "[     -42]");
    EXPECT_EQ(fmt("[%-8d]", 42), "[42      ]");
    EXPECT_EQ(fmt("[%08d]", -42), "[-0000042]");
// Deliberate mismatches: an int given to %hd/%hu is truncated as the kernel does, and %Z is the
// kernel's old spelling of %z, which the host compiler's format check does not know.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
    EXPECT_EQ(fmt("%hd", 70000), "4464");      // truncated to a short
    EXPECT_EQ(fmt("%hd", 0x18000), "-32768");  // and sign-extended from there
    EXPECT_EQ(fmt("%hu", 70000), "4464");
    EXPECT_EQ(fmt("%zu %Zu", (size_t)17, (size_t)18), "17 18");
#pragma GCC diagnostic pop
    EXPECT_EQ(fmt("%u", -1), "4294967295");
    EXPECT_EQ(fmt("%i", -7), "-7");
}

TEST(Vsprintf, FlagsAndBases) {
    EXPECT_EQ(fmt("%+d % d %+d", 5, 5, -5), "+5  5 -5");
    EXPECT_EQ(fmt("%#x %#X %#o", 255, 255, 8), "0xff 0XFF 010");
    EXPECT_EQ(fmt("%o %x %X", 8, 0xbeef, 0xbeef), "10 beef BEEF");
    EXPECT_EQ(fmt("[%#10x]", 255), "[      0xff]");
    EXPECT_EQ(fmt("[%#010x]", 255), "[0x000000ff]");
    EXPECT_EQ(fmt("[%.5d]", 42), "[00042]");
    EXPECT_EQ(fmt("[%c%3c%-3c]", 'a', 'b', 'c'), "[a  bc  ]");
    EXPECT_EQ(fmt("100%%"), "100%");
}

TEST(Vsprintf, UnknownConversionIsCopied) {
    const char *unknown = "%q|%";  // not a literal, so the compiler's format check stays out
    char buf[16];
    EXPECT_EQ(snprintf(buf, sizeof buf, unknown, 0), 4);
    EXPECT_STREQ(buf, "%q|%");  // a lone '%' at the end is kept too
}

TEST(Vsprintf, PercentNStoresCountSoFar) {
    int n = -1;
    EXPECT_EQ(fmt("abc%nde", &n), "abcde");
    EXPECT_EQ(n, 3);
}

TEST(Vsprintf, SnprintfReturnsWouldBeLength) {
    char buf[8];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(snprintf(buf, sizeof buf, "%s", "0123456789"), 10);
    EXPECT_STREQ(buf, "0123456");
    EXPECT_EQ(snprintf(buf, 0, "%d", 12345), 5);
    EXPECT_EQ(buf[0], '0');  // untouched with size 0
    EXPECT_EQ(scnprintf(buf, sizeof buf, "%s", "0123456789"), 7);
    EXPECT_EQ(scnprintf(buf, 0, "%s", "0123456789"), 0);
    EXPECT_EQ(scnprintf(buf, sizeof buf, "ab"), 2);
    char big[64];
    EXPECT_EQ(sprintf(big, "%d-%s", 12, "x"), 4);
    EXPECT_STREQ(big, "12-x");
}

}  // namespace
