/* Exports a symbol the test module already exports: loading both must fail. */
#include <linux/module.h>

int ktm_add(int a, int b) {
    return a - b;
}
EXPORT_SYMBOL(ktm_add);

static int __init dup_init(void) {
    return 0;
}
static void __exit dup_exit(void) {}
module_init(dup_init);
module_exit(dup_exit);
MODULE_LICENSE("GPL");
