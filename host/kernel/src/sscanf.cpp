// sscanf as the kernel has it: white space in the format skips white space in the input,
// conversions %c %s %d %i %u %o %x %X %n with * (no assignment), widths and the h/l/L/ll/Z/z
// qualifiers; numbers go through simple_strto*, so there is no overflow detection (values wrap,
// without undefined arithmetic). Widths are read without overflow; beyond INT_MAX they mean INT_MAX.
#include "internal.hpp"
#include <linux/ctype.h>
#include <linux/kernel.h>

extern "C" {

int marlix_k_vsscanf(const char *buf, const char *fmt, va_list args) {
    const char *str = buf;
    int num = 0;
    while (*fmt && *str) {
        if (isspace(*fmt)) {
            while (isspace(*fmt)) ++fmt;
            while (isspace(*str)) ++str;
            continue;
        }
        if (*fmt != '%' || fmt[1] == '%') {
            if (*fmt == '%') ++fmt;
            if (*fmt++ != *str++) break;
            continue;
        }
        ++fmt;
        bool skip = false;
        if (*fmt == '*') {
            skip = true;
            ++fmt;
        }
        int field_width = -1;
        if (isdigit(*fmt)) {
            field_width = 0;
            while (isdigit(*fmt)) {
                int d = *fmt++ - '0';
                field_width = field_width > (INT_MAX - d) / 10 ? INT_MAX : field_width * 10 + d;
            }
        }
        int qualifier = -1;
        if (*fmt == 'h' || *fmt == 'l' || *fmt == 'L' || *fmt == 'Z' || *fmt == 'z') {
            qualifier = *fmt++;
            if (qualifier == 'l' && *fmt == 'l') {
                qualifier = 'L';
                ++fmt;
            }
        }
        if (!*fmt) break;
        char conv = *fmt++;
        if (conv == 'n') {
            if (!skip) *va_arg(args, int *) = static_cast<int>(str - buf);
            continue;
        }
        if (conv == 'c') {
            if (field_width == -1) field_width = 1;
            char *s = skip ? nullptr : va_arg(args, char *);
            while (field_width-- > 0 && *str) {
                if (s) *s++ = *str;
                ++str;
            }
            if (!skip) ++num;
            continue;
        }
        while (isspace(*str)) ++str;
        if (!*str) break;
        if (conv == 's') {
            if (field_width == -1) field_width = INT_MAX;
            char *s = skip ? nullptr : va_arg(args, char *);
            while (*str && !isspace(*str) && field_width-- > 0) {
                if (s) *s++ = *str;
                ++str;
            }
            if (s) *s = '\0';
            if (!skip) ++num;
            continue;
        }
        int base = 10;
        bool is_sign = false;
        switch (conv) {
            case 'o':
                base = 8;
                break;
            case 'x':
            case 'X':
                base = 16;
                break;
            case 'i':
                base = 0;
                [[fallthrough]];
            case 'd':
                is_sign = true;
                break;
            case 'u':
                break;
            default:
                return num;  // unknown conversion: stop, as the kernel does
        }
        char digit = *str;
        if (is_sign && digit == '-') digit = str[1];
        if (!digit || (base == 16 && !isxdigit(digit)) || (base == 10 && !isdigit(digit)) ||
            (base == 8 && (!isdigit(digit) || digit > '7')) || (base == 0 && !isdigit(digit)))
            break;
        char *next;
        unsigned long long v;
        if (is_sign)
            v = static_cast<unsigned long long>(simple_strtoll(str, &next, base));
        else
            v = simple_strtoull(str, &next, base);
        if (field_width > 0 && next - str > field_width) {
            // Honour the width by converting only its first characters.
            std::string part(str, field_width);
            char *pend;
            v = is_sign ? static_cast<unsigned long long>(simple_strtoll(part.c_str(), &pend, base))
                        : simple_strtoull(part.c_str(), &pend, base);
            next = const_cast<char *>(str) + (pend - part.c_str());
        }
        str = next;
        if (skip) continue;
        switch (qualifier) {
            case 'h':
                *va_arg(args, short *) = static_cast<short>(v);
                break;
            case 'l':
                *va_arg(args, long *) = static_cast<long>(v);
                break;
            case 'L':
                *va_arg(args, long long *) = static_cast<long long>(v);
                break;
            case 'Z':
            case 'z':
                *va_arg(args, size_t *) = static_cast<size_t>(v);
                break;
            default:
                *va_arg(args, int *) = static_cast<int>(v);
                break;
        }
        ++num;
    }
    return num;
}

int marlix_k_sscanf(const char *buf, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    int i = marlix_k_vsscanf(buf, fmt, args);
    va_end(args);
    return i;
}

}  // extern "C"
