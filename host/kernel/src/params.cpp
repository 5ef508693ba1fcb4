// Standard module parameter types: how "name=value" text becomes a value and back.
#include "internal.hpp"
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/moduleparam.h>

#include <cstring>
#include <map>
#include <memory>

namespace {

// Values that are not numbers but are required to stay after the text they came from.
std::mutex g_charp_mutex;
std::map<const kernel_param *, std::unique_ptr<std::string>> &charp_store() {
    static auto *m = new std::map<const kernel_param *, std::unique_ptr<std::string>>;
    return *m;
}

// Text to number as the kernel does: any prefix that parses is taken, the rest ignored; the
// value must fit the parameter's type.
template <typename Type, typename Tmp, Tmp (*strtofn)(const char *, char **, unsigned int)>
int set_number(const char *val, kernel_param *kp) {
    if (!val) return -EINVAL;
    char *endp;
    Tmp l = strtofn(val, &endp, 0);
    if (endp == val || static_cast<Tmp>(static_cast<Type>(l)) != l) return -EINVAL;
    *static_cast<Type *>(kp->arg) = static_cast<Type>(l);
    return 0;
}

}  // namespace

namespace marlix::kernel::detail {
void params_forget(const struct kernel_param *kp) {
    std::lock_guard<std::mutex> g(g_charp_mutex);
    charp_store().erase(kp);
}
}  // namespace marlix::kernel::detail

extern "C" {

int param_set_short(const char *val, struct kernel_param *kp) {
    return set_number<short, long, simple_strtol>(val, kp);
}
int param_get_short(char *buffer, struct kernel_param *kp) {
    return sprintf(buffer, "%hi", *(short *)kp->arg);
}
int param_set_ushort(const char *val, struct kernel_param *kp) {
    return set_number<unsigned short, unsigned long, simple_strtoul>(val, kp);
}
int param_get_ushort(char *buffer, struct kernel_param *kp) {
    return sprintf(buffer, "%hu", *(unsigned short *)kp->arg);
}
int param_set_int(const char *val, struct kernel_param *kp) {
    return set_number<int, long, simple_strtol>(val, kp);
}
int param_get_int(char *buffer, struct kernel_param *kp) {
    return sprintf(buffer, "%i", *(int *)kp->arg);
}
int param_set_uint(const char *val, struct kernel_param *kp) {
    return set_number<unsigned int, unsigned long, simple_strtoul>(val, kp);
}
int param_get_uint(char *buffer, struct kernel_param *kp) {
    return sprintf(buffer, "%u", *(unsigned int *)kp->arg);
}
int param_set_long(const char *val, struct kernel_param *kp) {
    return set_number<long, long, simple_strtol>(val, kp);
}
int param_get_long(char *buffer, struct kernel_param *kp) {
    return sprintf(buffer, "%li", *(long *)kp->arg);
}
int param_set_ulong(const char *val, struct kernel_param *kp) {
    return set_number<unsigned long, unsigned long, simple_strtoul>(val, kp);
}
int param_get_ulong(char *buffer, struct kernel_param *kp) {
    return sprintf(buffer, "%lu", *(unsigned long *)kp->arg);
}

int param_set_charp(const char *val, struct kernel_param *kp) {
    if (!val) {
        printk(KERN_ERR "%s: string parameter expected\n", kp->name);
        return -EINVAL;
    }
    if (std::strlen(val) > 1024) {
        printk(KERN_ERR "%s: string parameter too long\n", kp->name);
        return -ENOSPC;
    }
    // The kernel keeps the load arguments for the module's lifetime; the copy kept here
    // serves the same purpose (and also outlives text written through sysfs).
    std::lock_guard<std::mutex> g(g_charp_mutex);
    auto &slot = charp_store()[kp];
    slot = std::make_unique<std::string>(val);
    *(char **)kp->arg = slot->data();
    return 0;
}
int param_get_charp(char *buffer, struct kernel_param *kp) {
    return sprintf(buffer, "%s", *((char **)kp->arg));
}

int param_set_bool(const char *val, struct kernel_param *kp) {
    /* No equals means "set"... */
    if (!val) val = "1";
    switch (val[0]) {
        case 'y':
        case 'Y':
        case '1':
            *(int *)kp->arg = 1;
            return 0;
        case 'n':
        case 'N':
        case '0':
            *(int *)kp->arg = 0;
            return 0;
    }
    return -EINVAL;
}
int param_get_bool(char *buffer, struct kernel_param *kp) {
    return sprintf(buffer, "%c", (*(int *)kp->arg) ? 'Y' : 'N');
}

}  // extern "C"
