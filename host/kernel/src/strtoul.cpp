// simple_strtoul and friends: no white space skipping, base 0 guesses from the prefix
// ("0x" hex, leading "0" octal, else decimal), conversion stops at the first character that is
// not a digit of the base. Values that do not fit wrap around as the kernel's do; a leading '-'
// negates in unsigned arithmetic, so "-9223372036854775808" is LONG_MIN and nothing overflows.
#include "internal.hpp"
#include <linux/ctype.h>
#include <linux/kernel.h>

namespace {
inline int upper(int c) {
    return islower(c) ? c - ('a' - 'A') : c;
}

template <typename T>
T strtou(const char *cp, char **endp, unsigned int base) {
    T result = 0, value;
    if (!base) {
        base = 10;
        if (*cp == '0') {
            base = 8;
            cp++;
            if (upper(*cp) == 'X' && isxdigit(cp[1])) {
                cp++;
                base = 16;
            }
        }
    } else if (base == 16 && cp[0] == '0' && upper(cp[1]) == 'X' && isxdigit(cp[2])) {
        cp += 2;
    }
    while (isxdigit(*cp) && (value = isdigit(*cp) ? *cp - '0' : upper(*cp) - 'A' + 10) < base) {
        result = result * base + value;
        cp++;
    }
    if (endp) *endp = const_cast<char *>(cp);
    return result;
}
}  // namespace

extern "C" {
unsigned long simple_strtoul(const char *cp, char **endp, unsigned int base) {
    return strtou<unsigned long>(cp, endp, base);
}
long simple_strtol(const char *cp, char **endp, unsigned int base) {
    if (*cp == '-') return static_cast<long>(0 - strtou<unsigned long>(cp + 1, endp, base));
    return static_cast<long>(strtou<unsigned long>(cp, endp, base));
}
unsigned long long simple_strtoull(const char *cp, char **endp, unsigned int base) {
    return strtou<unsigned long long>(cp, endp, base);
}
long long simple_strtoll(const char *cp, char **endp, unsigned int base) {
    if (*cp == '-') return static_cast<long long>(0 - strtou<unsigned long long>(cp + 1, endp, base));
    return static_cast<long long>(strtou<unsigned long long>(cp, endp, base));
}
}
