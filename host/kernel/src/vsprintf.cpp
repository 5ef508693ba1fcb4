// The kernel's formatting routines. They differ from the C library's on purpose: %p prints
// sixteen zero-padded hex digits without "0x", a %s whose pointer lies in the first page prints
// "<NULL>", "ll" reads as "L", and unknown conversions are copied through.
//
// Every step is defined for every argument: the most negative value of each width is negated in
// unsigned arithmetic, and field widths and precisions, however they are written, are held to
// kMaxFieldWidth, so no count in here can overflow.
#include "internal.hpp"
#include <linux/ctype.h>
#include <linux/kernel.h>
#include <asm/page.h>

#include <algorithm>
#include <climits>
#include <cstring>

namespace {

enum { ZEROPAD = 1, SIGN = 2, PLUS = 4, SPACE = 8, LEFT = 16, SPECIAL = 32, LARGE = 64 };

// Largest field width or precision honoured; larger ones (written out, or passed with '*') are
// cut to it. Far more than any page or log line holds, and small enough that the padding
// arithmetic stays within an int.
constexpr int kMaxFieldWidth = (1 << 23) - 1;

int clamp_width(long w) {
    return static_cast<int>(std::clamp<long>(w, -kMaxFieldWidth, kMaxFieldWidth));
}

// Output cursor: counts every character, stores only those that fit before `end`.
struct Out {
    char *buf;
    long pos;
    long end;  // index of the last byte that may be written (size - 1)
    void put(char c) {
        if (pos <= end) buf[pos] = c;
        ++pos;
    }
};

// Reads a decimal width or precision; every digit is consumed, the value stops growing past
// kMaxFieldWidth.
int skip_atoi(const char **s) {
    int i = 0;
    while (isdigit(**s)) {
        int d = *((*s)++) - '0';
        if (i <= kMaxFieldWidth) i = i * 10 + d;
    }
    return clamp_width(i);
}

void number(Out &o, unsigned long long num, int base, int size, int precision, int type) {
    static const char small_digits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    static const char large_digits[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    const char *digits = (type & LARGE) ? large_digits : small_digits;
    char tmp[66];
    if (type & LEFT) type &= ~ZEROPAD;
    char c = (type & ZEROPAD) ? '0' : ' ';
    char sign = 0;
    if (type & SIGN) {
        if (static_cast<long long>(num) < 0) {
            sign = '-';
            num = 0 - num;  // unsigned: the magnitude of LLONG_MIN has no signed counterpart
            size--;
        } else if (type & PLUS) {
            sign = '+';
            size--;
        } else if (type & SPACE) {
            sign = ' ';
            size--;
        }
    }
    if (type & SPECIAL) {
        if (base == 16)
            size -= 2;
        else if (base == 8)
            size--;
    }
    int i = 0;
    if (num == 0)
        tmp[i++] = '0';
    else
        while (num != 0) {
            tmp[i++] = digits[num % base];
            num /= base;
        }
    if (i > precision) precision = i;
    size -= precision;
    if (!(type & (ZEROPAD | LEFT)))
        while (size-- > 0) o.put(' ');
    if (sign) o.put(sign);
    if (type & SPECIAL) {
        if (base == 8) {
            o.put('0');
        } else if (base == 16) {
            o.put('0');
            o.put(digits[33]);
        }
    }
    if (!(type & LEFT))
        while (size-- > 0) o.put(c);
    while (i < precision--) o.put('0');
    while (i-- > 0) o.put(tmp[i]);
    while (size-- > 0) o.put(' ');
}

}  // namespace

extern "C" {

int marlix_k_vsnprintf(char *buf, size_t size, const char *fmt, va_list args) {
    // A size that is negative as an int is refused outright, as the kernel does.
    if (static_cast<int>(size) < 0) return 0;
    Out o{buf, 0, static_cast<long>(size) - 1};

    for (; *fmt; ++fmt) {
        if (*fmt != '%') {
            o.put(*fmt);
            continue;
        }
        int flags = 0;
    repeat:
        ++fmt; /* this also skips the first '%' */
        switch (*fmt) {
            case '-':
                flags |= LEFT;
                goto repeat;
            case '+':
                flags |= PLUS;
                goto repeat;
            case ' ':
                flags |= SPACE;
                goto repeat;
            case '#':
                flags |= SPECIAL;
                goto repeat;
            case '0':
                flags |= ZEROPAD;
                goto repeat;
        }

        int field_width = -1;
        if (isdigit(*fmt)) {
            field_width = skip_atoi(&fmt);
        } else if (*fmt == '*') {
            ++fmt;
            field_width = clamp_width(va_arg(args, int));
            if (field_width < 0) {
                field_width = -field_width;
                flags |= LEFT;
            }
        }

        int precision = -1;
        if (*fmt == '.') {
            ++fmt;
            if (isdigit(*fmt)) {
                precision = skip_atoi(&fmt);
            } else if (*fmt == '*') {
                ++fmt;
                precision = clamp_width(va_arg(args, int));
            }
            if (precision < 0) precision = 0;
        }

        int qualifier = -1;
        if (*fmt == 'h' || *fmt == 'l' || *fmt == 'L' || *fmt == 'Z' || *fmt == 'z') {
            qualifier = *fmt;
            ++fmt;
            if (qualifier == 'l' && *fmt == 'l') {
                qualifier = 'L';
                ++fmt;
            }
        }

        int base = 10;
        switch (*fmt) {
            case 'c': {
                if (!(flags & LEFT))
                    while (--field_width > 0) o.put(' ');
                char c = static_cast<unsigned char>(va_arg(args, int));
                o.put(c);
                while (--field_width > 0) o.put(' ');
                continue;
            }
            case 's': {
                const char *s = va_arg(args, const char *);
                if (reinterpret_cast<unsigned long>(s) < PAGE_SIZE) s = "<NULL>";
                int len =
                    static_cast<int>(strnlen(s, static_cast<size_t>(static_cast<unsigned int>(precision))));
                if (!(flags & LEFT))
                    while (len < field_width--) o.put(' ');
                for (int i = 0; i < len; ++i) o.put(*s++);
                while (len < field_width--) o.put(' ');
                continue;
            }
            case 'p':
                if (field_width == -1) {
                    field_width = 2 * sizeof(void *);
                    flags |= ZEROPAD;
                }
                number(o, reinterpret_cast<unsigned long>(va_arg(args, void *)), 16, field_width, precision,
                       flags);
                continue;
            case 'n':
                if (qualifier == 'l') {
                    *va_arg(args, long *) = o.pos;
                } else if (qualifier == 'Z' || qualifier == 'z') {
                    *va_arg(args, size_t *) = o.pos;
                } else {
                    *va_arg(args, int *) = static_cast<int>(o.pos);
                }
                continue;
            case '%':
                o.put('%');
                continue;
            case 'o':
                base = 8;
                break;
            case 'X':
                flags |= LARGE;
                [[fallthrough]];
            case 'x':
                base = 16;
                break;
            case 'd':
            case 'i':
                flags |= SIGN;
                [[fallthrough]];
            case 'u':
                break;
            default:
                o.put('%');
                if (*fmt)
                    o.put(*fmt);
                else
                    --fmt;
                continue;
        }
        unsigned long long num;
        if (qualifier == 'L') {
            num = va_arg(args, long long);
        } else if (qualifier == 'l') {
            num = va_arg(args, unsigned long);
            if (flags & SIGN) num = static_cast<long>(num);
        } else if (qualifier == 'Z' || qualifier == 'z') {
            num = va_arg(args, size_t);
        } else if (qualifier == 'h') {
            num = static_cast<unsigned short>(va_arg(args, int));
            if (flags & SIGN) num = static_cast<short>(num);
        } else {
            num = va_arg(args, unsigned int);
            if (flags & SIGN) num = static_cast<int>(num);
        }
        number(o, num, base, field_width, precision, flags);
    }
    if (o.pos <= o.end)
        buf[o.pos] = '\0';
    else if (size > 0)
        buf[o.end] = '\0';  // no terminator at all when the buffer has no room
    return static_cast<int>(std::min<long>(o.pos, INT_MAX));
}

int marlix_k_vscnprintf(char *buf, size_t size, const char *fmt, va_list args) {
    int i = marlix_k_vsnprintf(buf, size, fmt, args);
    if (size == 0) return 0;
    return (static_cast<size_t>(i) >= size) ? static_cast<int>(size - 1) : i;
}

int marlix_k_snprintf(char *buf, size_t size, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    int i = marlix_k_vsnprintf(buf, size, fmt, args);
    va_end(args);
    return i;
}

int marlix_k_scnprintf(char *buf, size_t size, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    int i = marlix_k_vscnprintf(buf, size, fmt, args);
    va_end(args);
    return i;
}

int marlix_k_vsprintf(char *buf, const char *fmt, va_list args) {
    return marlix_k_vsnprintf(buf, INT_MAX, fmt, args);
}

int marlix_k_sprintf(char *buf, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    int i = marlix_k_vsnprintf(buf, INT_MAX, fmt, args);
    va_end(args);
    return i;
}

}  // extern "C"
