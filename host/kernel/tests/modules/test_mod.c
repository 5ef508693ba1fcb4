/* A small module for the loader tests: parameters of several types, exported symbols, a
 * choice of init result, allocations it can leave behind, and a proc file. */
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/moduleparam.h>
#include <linux/proc_fs.h>
#include <linux/slab.h>

static int count = 3;
static unsigned long big = 0;
static char *label = "none";
static int flag = 0;
static int init_result = 0;
static int leak = 0;
static int hidden = 7;
static int loads_seen = 0; /* stays 0 at load when every load gets fresh data */

module_param(count, int, 0644);
MODULE_PARM_DESC(count, "How many things to count.");
module_param(big, ulong, 0444);
module_param(label, charp, 0644);
module_param(flag, bool, 0644);
module_param(init_result, int, 0);
module_param(leak, int, 0);
module_param(hidden, int, 0);

static struct proc_dir_entry *ktm_file;
static void *leaked[8];

int ktm_add(int a, int b) {
    return a + b + count;
}
EXPORT_SYMBOL(ktm_add);

int ktm_loads(void) {
    return loads_seen;
}
EXPORT_SYMBOL(ktm_loads);

static int ktm_read(char *page, char **start, off_t off, int len, int *eof, void *data) {
    int n = sprintf(page, "count=%d label=%s loads=%d\n", count, label, loads_seen);
    (void)start;
    (void)data;
    if (off >= n) {
        *eof = 1;
        return 0;
    }
    *eof = 1;
    return n - off < len ? n - off : len;
}

static int __init ktm_init(void) {
    int i;
    printk(KERN_INFO "ktm: init count=%d label=%s flag=%d big=%lu loads=%d\n", count, label, flag, big,
           loads_seen);
    loads_seen++;
    if (init_result) return init_result;
    for (i = 0; i < leak && i < 8; i++) leaked[i] = kmalloc(24 + i, GFP_KERNEL);
    ktm_file = create_proc_read_entry("ktm", 0444, NULL, ktm_read, NULL);
    return 0;
}

static void __exit ktm_exit(void) {
    remove_proc_entry("ktm", NULL);
    printk(KERN_INFO "ktm: exit\n");
}

module_init(ktm_init);
module_exit(ktm_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("kernel loader test module");
