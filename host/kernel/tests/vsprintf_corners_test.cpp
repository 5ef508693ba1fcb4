// The formatter at the edges of every signed type: the most negative value of each width with
// every flag, width and precision, and widths and precisions too large to honour.
#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

// The host's formatter is the reference; it is captured before the kernel's headers rename it.
namespace host_ref {
std::string format(const char *f, ...) {
    char buf[128];
    va_list ap;
    va_start(ap, f);
    std::vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}
}  // namespace host_ref

#include <linux/kernel.h>

namespace {

std::string kfmt(const char *f, ...) {
    char buf[128];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

// One integer conversion with its argument, passed as the width its qualifier reads.
struct Corner {
    const char *qualifier;  // "", "h", "l", "ll", "L"
    char conversion;        // 'd' or 'i'
    long long value;
    const char *host_qualifier;  // the host's spelling of the same width
};

std::vector<Corner> corners() {
    std::vector<Corner> v;
    for (char conv : {'d', 'i'}) {
        for (long long x : {(long long)INT_MIN, (long long)INT_MIN + 1, -1LL, 1LL, (long long)INT_MAX})
            v.push_back({"", conv, x, ""});
        for (long long x :
             {(long long)LONG_MIN, (long long)LONG_MIN + 1, (long long)INT_MIN - 1, (long long)LONG_MAX})
            v.push_back({"l", conv, x, "l"});
        for (long long x : {LLONG_MIN, LLONG_MIN + 1, LLONG_MAX}) {
            v.push_back({"ll", conv, x, "ll"});
            v.push_back({"L", conv, x, "ll"});
        }
        for (long long x : {(long long)SHRT_MIN, (long long)SHRT_MIN + 1, (long long)SHRT_MAX})
            v.push_back({"h", conv, x, "h"});
    }
    return v;
}

bool wide(const Corner &c) {
    return c.qualifier[0] == 'l' || c.qualifier[0] == 'L';
}

// Formats c's value with the kernel's formatter or the host's, with a '*' width argument or not.
std::string call(bool host, const std::string &f, const Corner &c, bool star, int width) {
    auto *format = host ? host_ref::format : kfmt;
    if (wide(c)) return star ? format(f.c_str(), width, c.value) : format(f.c_str(), c.value);
    return star ? format(f.c_str(), width, (int)c.value) : format(f.c_str(), (int)c.value);
}

// Every flag combination, width and precision of every corner; the kernel's output must match
// the C library's wherever the two define the same thing. They differ in one place: with both
// '0' and a precision the kernel still pads with zeros up to the width (the C library pads with
// blanks); that case is compared against the zero-padded width it amounts to.
TEST(VsprintfCorners, EveryFlagWidthAndPrecisionMatchesTheReference) {
    const char *flag_sets[] = {"",   "-",  "+",  " ",  "0",  "#",     "-+",
                               "- ", "-0", "+0", " 0", "+ ", "-+0 #", "0#"};
    const int widths[] = {-1, 0, 1, 11, 19, 20, 21, 26};
    const int precisions[] = {-1, 0, 1, 11, 19, 20, 22};
    int compared = 0;
    for (const Corner &c : corners()) {
        for (const char *flags : flag_sets) {
            for (int w : widths) {
                for (bool star : {false, true}) {
                    if (star && w < 0) continue;
                    for (int p : precisions) {
                        std::string width_text = w < 0 ? "" : (star ? "*" : std::to_string(w));
                        std::string prec_text = p < 0 ? "" : "." + std::to_string(p);
                        std::string kernel_fmt =
                            std::string("%") + flags + width_text + prec_text + c.qualifier + c.conversion;
                        std::string host_flags = flags;
                        std::erase(host_flags, '#');  // has no meaning for decimal conversions
                        bool zero_pad = host_flags.find('0') != std::string::npos &&
                                        host_flags.find('-') == std::string::npos;
                        std::string host_fmt;
                        int host_width = w;
                        if (zero_pad && p >= 0) {
                            // Zeros up to the larger of the width and sign + precision.
                            bool has_sign =
                                c.value < 0 || host_flags.find_first_of("+ ") != std::string::npos;
                            host_width = std::max(w, p + (has_sign ? 1 : 0));
                            host_fmt = "%" + host_flags + "*" + c.host_qualifier + c.conversion;
                            std::string expected = call(true, host_fmt, c, true, host_width);
                            EXPECT_EQ(call(false, kernel_fmt, c, star, w), expected)
                                << kernel_fmt << " of " << c.value;
                        } else {
                            host_fmt =
                                "%" + host_flags + width_text + prec_text + c.host_qualifier + c.conversion;
                            EXPECT_EQ(call(false, kernel_fmt, c, star, w), call(true, host_fmt, c, star, w))
                                << kernel_fmt << " of " << c.value;
                        }
                        ++compared;
                    }
                }
            }
        }
    }
    EXPECT_GT(compared, 30000);
}

TEST(VsprintfCorners, MostNegativeValuesWrittenOut) {
    EXPECT_EQ(kfmt("%ld", LONG_MIN), "-9223372036854775808");
    EXPECT_EQ(kfmt("%li", LONG_MIN), "-9223372036854775808");
    EXPECT_EQ(kfmt("%lld", LLONG_MIN), "-9223372036854775808");
    EXPECT_EQ(kfmt("%Ld", LLONG_MIN), "-9223372036854775808");
    EXPECT_EQ(kfmt("%d", INT_MIN), "-2147483648");
    EXPECT_EQ(kfmt("%hd", SHRT_MIN), "-32768");
    EXPECT_EQ(kfmt("%hd", INT_MIN), "0");  // the low 16 bits
    EXPECT_EQ(kfmt("[%25ld]", LONG_MIN), "[     -9223372036854775808]");
    EXPECT_EQ(kfmt("[%-25ld]", LONG_MIN), "[-9223372036854775808     ]");
    EXPECT_EQ(kfmt("[%025ld]", LONG_MIN), "[-000009223372036854775808]");
    EXPECT_EQ(kfmt("[%+ld]", LONG_MIN), "[-9223372036854775808]");
    EXPECT_EQ(kfmt("[% ld]", LONG_MIN), "[-9223372036854775808]");
    EXPECT_EQ(kfmt("[%.22lld]", LLONG_MIN), "[-0009223372036854775808]");
    EXPECT_EQ(kfmt("[%1d]", INT_MIN), "[-2147483648]");
    EXPECT_EQ(kfmt("[%*d]", 13, INT_MIN), "[  -2147483648]");
    EXPECT_EQ(kfmt("[%*d]", -13, INT_MIN), "[-2147483648  ]");
    EXPECT_EQ(kfmt("[%012.3d]", -5), "[-00000000005]");  // zero padding with a precision
    // Unsigned conversions show the bits.
    EXPECT_EQ(kfmt("%lu", LONG_MIN), "9223372036854775808");
    EXPECT_EQ(kfmt("%lx", LONG_MIN), "8000000000000000");
    EXPECT_EQ(kfmt("%#lo", LONG_MIN), "01000000000000000000000");
    EXPECT_EQ(kfmt("%X", INT_MIN), "80000000");
    // Zero with precision 0 still prints its digit.
    EXPECT_EQ(kfmt("[%.0d]", 0), "[0]");
    EXPECT_EQ(kfmt("[%+.0d]", 0), "[+0]");
}

TEST(VsprintfCorners, OversizedWidthsAndPrecisionsAreCut) {
    char buf[16];
    const int kMax = (1 << 23) - 1;
    // A width of INT_MIN through '*' means left-justified; its magnitude is cut.
    // The formats are not literals, so that the compiler's own format checks stay out.
    const char *volatile star_d = "%*d|";
    EXPECT_EQ(snprintf(buf, sizeof buf, star_d, INT_MIN, 5), kMax + 1);
    EXPECT_STREQ(buf, "5              ");
    EXPECT_EQ(snprintf(buf, sizeof buf, star_d, INT_MAX, 5), kMax + 1);
    EXPECT_STREQ(buf, "               ");
    const char *volatile long_width = "%99999999999999999999d";
    EXPECT_EQ(snprintf(buf, sizeof buf, long_width, -7), kMax);
    const char *volatile long_precision = "%.2147483648d";
    EXPECT_EQ(snprintf(buf, sizeof buf, long_precision, -7), kMax + 1);
    EXPECT_STREQ(buf, "-00000000000000");
    // A negative precision through '*' counts as none.
    EXPECT_EQ(snprintf(buf, sizeof buf, "[%.*d]", INT_MIN, 42), 4);
    EXPECT_STREQ(buf, "[42]");
    EXPECT_EQ(snprintf(buf, sizeof buf, "[%.*s]", INT_MIN, "abc"), 2);
    const char *volatile star_s = "[%*s]", *volatile star_c = "[%*c]", *volatile star_p = "[%*p]";
    EXPECT_EQ(snprintf(buf, sizeof buf, star_s, INT_MIN, "abc"), kMax + 2);
    EXPECT_EQ(snprintf(buf, sizeof buf, star_c, INT_MIN, 'x'), kMax + 2);
    EXPECT_EQ(snprintf(buf, sizeof buf, star_p, INT_MIN, (void *)1), kMax + 2);
}

}  // namespace
