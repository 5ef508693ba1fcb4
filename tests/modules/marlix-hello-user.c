/* marlix-hello-user: uses marlix-hello's exported marlix_hello_count() for as long as it is
 * loaded, so marlix-hello shows it as a user and cannot be removed first. */
#include <linux/errno.h>
#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/module.h>

static int (*hello_count)(void);

static int __init hello_user_init(void) {
    hello_count = (int (*)(void))__symbol_get("marlix_hello_count");
    if (!hello_count) return -ENOENT;
    printk(KERN_INFO "marlix-hello-user: count is %d\n", hello_count());
    return 0;
}

static void __exit hello_user_exit(void) {
    __symbol_put("marlix_hello_count");
}

module_init(hello_user_init);
module_exit(hello_user_exit);

MODULE_LICENSE("GPL");
