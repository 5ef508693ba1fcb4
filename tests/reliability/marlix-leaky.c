/* marlix-leaky: a module that forgets to free on purpose, so that tests can check how the kernel
 * reports a leak at unload. Parameter `leaks` (default 1): how many objects of 48 bytes the load
 * allocates and the unload leaves behind; writing "leak" to /proc/marlix-leaky/trigger leaves one
 * more of 96 bytes. */
#include <linux/errno.h>
#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/moduleparam.h>
#include <linux/proc_fs.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <asm/uaccess.h>

static int leaks = 1;
module_param(leaks, int, 0);
MODULE_PARM_DESC(leaks, "Objects the load allocates and the unload forgets.");

static struct proc_dir_entry *leaky_dir;
static struct proc_dir_entry *leaky_trigger;

static void *leaky_forget(size_t size) {
    return kmalloc(size, GFP_KERNEL); /* marker: forgotten allocation */
}

static int leaky_write(struct file *file, const char __user *buffer, unsigned long count, void *data) {
    char word[8];
    unsigned long n = count < sizeof(word) - 1 ? count : sizeof(word) - 1;

    (void)file;
    (void)data;
    if (copy_from_user(word, buffer, n)) return -EFAULT;
    word[n] = 0;
    if (strncmp(word, "leak", 4) == 0 && !kmalloc(96, GFP_ATOMIC)) /* marker: leak on request */
        return -ENOMEM;
    return (int)count;
}

static int __init leaky_init(void) {
    int i;

    for (i = 0; i < leaks && i < 16; i++)
        if (!leaky_forget(48)) return -ENOMEM;
    leaky_dir = proc_mkdir("marlix-leaky", NULL);
    if (!leaky_dir) return -ENOMEM;
    leaky_trigger = create_proc_entry("trigger", S_IFREG | 0200, leaky_dir);
    if (!leaky_trigger) {
        remove_proc_entry("marlix-leaky", NULL);
        return -ENOMEM;
    }
    leaky_trigger->write_proc = leaky_write;
    return 0;
}

static void __exit leaky_exit(void) {
    remove_proc_entry("trigger", leaky_dir);
    remove_proc_entry("marlix-leaky", NULL);
}

module_init(leaky_init);
module_exit(leaky_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Leaves allocations behind at unload, for the leak report tests");
