/* Loadable modules.
 *
 * A module is a shared object (<name>.ko) that the host loads with insmod. The build adds a
 * small stub that defines `__this_module` (name from KBUILD_MODNAME) and points it at the
 * module's init_module/cleanup_module, which module_init()/module_exit() define. Exported
 * symbols, parameters and modinfo strings register themselves with the loading kernel while
 * the object is being mapped, before init runs. */
#ifndef _LINUX_MODULE_H
#define _LINUX_MODULE_H

#include <linux/types.h>
#include <linux/compiler.h>
#include <linux/moduleparam.h>

#define MODULE_NAME_LEN 60

struct module {
    char name[MODULE_NAME_LEN];
    int (*init)(void);
    void (*exit)(void);
    void *host; /* the loader's record of this module; null until loaded */
};

struct kernel_symbol {
    const void *value;
    const char *name;
};

#ifdef MODULE
__BEGIN_KERNEL_DECLS
extern struct module __this_module;
__END_KERNEL_DECLS
#define THIS_MODULE (&__this_module)
#else
#define THIS_MODULE ((struct module *)0)
#endif

__BEGIN_KERNEL_DECLS
/* Called by the macros below while a module is being mapped. */
void __marlix_export_symbol(struct module *owner, const char *name, const void *value, int gpl_only);
void __marlix_modinfo(struct module *owner, const char *tag, const char *value);

int try_module_get(struct module *module);
void module_put(struct module *module);
void __module_get(struct module *module);
unsigned int module_refcount(struct module *mod);

/* Looks up an exported symbol and takes a reference on the module that owns it (null when
 * no such symbol is exported). __symbol_put drops that reference again. */
void *__symbol_get(const char *symbol);
void __symbol_put(const char *symbol);
__END_KERNEL_DECLS

#define __MARLIX_CAT2(a, b) a##b
#define __MARLIX_CAT(a, b) __MARLIX_CAT2(a, b)

#define module_init(initfn) \
    __KERNEL_EXTERN_C int init_module(void) { return initfn(); }
#define module_exit(exitfn) \
    __KERNEL_EXTERN_C void cleanup_module(void) { exitfn(); }

#define __EXPORT_SYMBOL(sym, gpl)                                                    \
    static void __attribute__((constructor, used)) __marlix_ksymtab_##sym(void) {    \
        __marlix_export_symbol(THIS_MODULE, #sym, (const void *)&sym, gpl);          \
    }
#define EXPORT_SYMBOL(sym) __EXPORT_SYMBOL(sym, 0)
#define EXPORT_SYMBOL_GPL(sym) __EXPORT_SYMBOL(sym, 1)

#define __MODULE_INFO(tag, info)                                                                         \
    static void __attribute__((constructor, used)) __MARLIX_CAT(__marlix_modinfo_, __LINE__)(void) {    \
        __marlix_modinfo(THIS_MODULE, #tag, info);                                                       \
    }
#define MODULE_LICENSE(x) __MODULE_INFO(license, x)
#define MODULE_AUTHOR(x) __MODULE_INFO(author, x)
#define MODULE_DESCRIPTION(x) __MODULE_INFO(description, x)
#define MODULE_VERSION(x) __MODULE_INFO(version, x)

#endif
