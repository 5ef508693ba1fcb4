/* marlix-hello: a small module for the console's tests. It has one integer parameter, "count",
 * and a proc file /proc/marlix-hello/status that reports it; marlix_hello_count() is exported. */
#include <linux/errno.h>
#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/moduleparam.h>
#include <linux/proc_fs.h>

static int count = 1;
module_param(count, int, 0644);
MODULE_PARM_DESC(count, "A number the status file reports.");

static struct proc_dir_entry *hello_dir;

/* For marlix-hello-user, which takes it with symbol_get. */
int marlix_hello_count(void) {
    return count;
}
EXPORT_SYMBOL(marlix_hello_count);

static int hello_status_read(char *page, char **start, off_t off, int len, int *eof, void *data) {
    int n;
    (void)data;
    (void)len;
    if (off > 0) {
        *eof = 1;
        return 0;
    }
    n = sprintf(page, "marlix-hello: count=%d\n", count);
    *start = page;
    *eof = 1;
    return n;
}

static int __init hello_init(void) {
    struct proc_dir_entry *status;

    hello_dir = proc_mkdir("marlix-hello", NULL);
    if (!hello_dir) return -ENOMEM;
    status = create_proc_entry("status", S_IFREG | 0444, hello_dir);
    if (!status) {
        remove_proc_entry("marlix-hello", NULL);
        return -ENOMEM;
    }
    status->read_proc = hello_status_read;
    printk(KERN_INFO "marlix-hello: loaded\n");
    return 0;
}

static void __exit hello_exit(void) {
    remove_proc_entry("status", hello_dir);
    remove_proc_entry("marlix-hello", NULL);
    printk(KERN_INFO "marlix-hello: unloaded\n");
}

module_init(hello_init);
module_exit(hello_exit);

MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Test module of the marlix console");
