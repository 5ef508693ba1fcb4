/* Module parameters. Each parameter is set from "name=value" at load time and, when its
 * permission bits are non-zero, appears as /sys/module/<module>/parameters/<name>. */
#ifndef _LINUX_MODULEPARAM_H
#define _LINUX_MODULEPARAM_H

#include <linux/types.h>
#include <linux/compiler.h>

struct module;
struct kernel_param;

typedef int (*param_set_fn)(const char *val, struct kernel_param *kp);
typedef int (*param_get_fn)(char *buffer, struct kernel_param *kp); /* buffer holds 4096 bytes */

struct kernel_param {
    const char *name;
    unsigned int perm;
    param_set_fn set;
    param_get_fn get;
    void *arg;
};

__BEGIN_KERNEL_DECLS
int param_set_int(const char *val, struct kernel_param *kp);
int param_get_int(char *buffer, struct kernel_param *kp);
int param_set_uint(const char *val, struct kernel_param *kp);
int param_get_uint(char *buffer, struct kernel_param *kp);
int param_set_long(const char *val, struct kernel_param *kp);
int param_get_long(char *buffer, struct kernel_param *kp);
int param_set_ulong(const char *val, struct kernel_param *kp);
int param_get_ulong(char *buffer, struct kernel_param *kp);
int param_set_short(const char *val, struct kernel_param *kp);
int param_get_short(char *buffer, struct kernel_param *kp);
int param_set_ushort(const char *val, struct kernel_param *kp);
int param_get_ushort(char *buffer, struct kernel_param *kp);
int param_set_charp(const char *val, struct kernel_param *kp);
int param_get_charp(char *buffer, struct kernel_param *kp);
int param_set_bool(const char *val, struct kernel_param *kp);
int param_get_bool(char *buffer, struct kernel_param *kp);

void __marlix_register_param(struct module *owner, struct kernel_param *kp);
void __marlix_param_desc(struct module *owner, const char *name, const char *desc);
__END_KERNEL_DECLS

#define module_param_named(name, value, type, perm)                                             \
    static struct kernel_param __param_##name = {#name, (perm), param_set_##type, param_get_##type, \
                                                 (void *)&(value)};                              \
    static void __attribute__((constructor, used)) __marlix_param_reg_##name(void) {            \
        __marlix_register_param(THIS_MODULE, &__param_##name);                                   \
    }
/* In C, <stdbool.h> makes `bool` a macro for _Bool, which module_param passes on expanded. */
#define param_set__Bool param_set_bool
#define param_get__Bool param_get_bool
#define module_param(name, type, perm) module_param_named(name, name, type, perm)

#define MODULE_PARM_DESC(var, desc)                                                          \
    static void __attribute__((constructor, used)) __marlix_param_desc_##var(void) {         \
        __marlix_param_desc(THIS_MODULE, #var, desc);                                        \
    }

#endif
