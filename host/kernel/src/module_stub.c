/* Linked into every module (the emulation's counterpart of the kernel's generated .mod.c):
 * names the module and points the loader at its init and exit routines. */
#include <linux/module.h>

extern int init_module(void) __attribute__((weak));
extern void cleanup_module(void) __attribute__((weak));

struct module __this_module = {
    .name = KBUILD_MODNAME,
    .init = init_module,
    .exit = cleanup_module,
    .host = 0,
};
