/* Linked into every module (the emulation's counterpart of the kernel's generated .mod.c):
 * names the module and points the loader at its init and exit routines. */
#include <linux/module.h>

/* Hidden, so that the references bind to this module's own routines: the C library exports
 * an init_module of its own (the system call) that would otherwise win the symbol lookup. */
extern int init_module(void) __attribute__((weak, visibility("hidden")));
extern void cleanup_module(void) __attribute__((weak, visibility("hidden")));

struct module __this_module = {
    .name = KBUILD_MODNAME,
    .init = init_module,
    .exit = cleanup_module,
    .host = 0,
};
