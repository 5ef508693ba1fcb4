/* printk, the kernel's own formatting routines and small helpers.
 *
 * sprintf/snprintf/vsnprintf here are the kernel's (lib/vsprintf.c semantics: %p is sixteen
 * zero-padded lower-case hex digits without "0x", a null %s prints "<NULL>", the h/l/L/ll/Z/z
 * qualifiers as the kernel reads them). They are renamed at the preprocessor level so that
 * kernel code gets the kernel's behaviour while the host process keeps the C library's. Kernel
 * code must therefore not include <stdio.h>. */
#ifndef _LINUX_KERNEL_H
#define _LINUX_KERNEL_H

#include <stdarg.h>
#include <linux/types.h>
#include <linux/compiler.h>

#define KERN_EMERG "<0>"
#define KERN_ALERT "<1>"
#define KERN_CRIT "<2>"
#define KERN_ERR "<3>"
#define KERN_WARNING "<4>"
#define KERN_NOTICE "<5>"
#define KERN_INFO "<6>"
#define KERN_DEBUG "<7>"

#define sprintf marlix_k_sprintf
#define snprintf marlix_k_snprintf
#define vsnprintf marlix_k_vsnprintf
#define vsprintf marlix_k_vsprintf
#define scnprintf marlix_k_scnprintf
#define vscnprintf marlix_k_vscnprintf
#define sscanf marlix_k_sscanf
#define vsscanf marlix_k_vsscanf

__BEGIN_KERNEL_DECLS

int printk(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
int vprintk(const char *fmt, va_list args) __attribute__((format(printf, 1, 0)));

int marlix_k_sprintf(char *buf, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
int marlix_k_snprintf(char *buf, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
int marlix_k_vsnprintf(char *buf, size_t size, const char *fmt, va_list args)
    __attribute__((format(printf, 3, 0)));
int marlix_k_vsprintf(char *buf, const char *fmt, va_list args) __attribute__((format(printf, 2, 0)));
int marlix_k_scnprintf(char *buf, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
int marlix_k_vscnprintf(char *buf, size_t size, const char *fmt, va_list args)
    __attribute__((format(printf, 3, 0)));

int marlix_k_sscanf(const char *buf, const char *fmt, ...) __attribute__((format(scanf, 2, 3)));
int marlix_k_vsscanf(const char *buf, const char *fmt, va_list args) __attribute__((format(scanf, 2, 0)));

unsigned long simple_strtoul(const char *cp, char **endp, unsigned int base);
long simple_strtol(const char *cp, char **endp, unsigned int base);
unsigned long long simple_strtoull(const char *cp, char **endp, unsigned int base);
long long simple_strtoll(const char *cp, char **endp, unsigned int base);

/* Prints the emulated stack trace line ("Call Trace: ...") to the kernel log. */
void dump_stack(void);

__END_KERNEL_DECLS

#define ARRAY_SIZE(x) (sizeof(x) / sizeof((x)[0]))
#ifndef offsetof
#define offsetof(TYPE, MEMBER) __builtin_offsetof(TYPE, MEMBER)
#endif
#define container_of(ptr, type, member) ((type *)((char *)(ptr)-offsetof(type, member)))

#endif
