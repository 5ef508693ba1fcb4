/* marlix-guards: misuses the kernel on request, so that tests can check that the kernel reports
 * each misuse and stays usable. Writing a word to /proc/marlix-guards/trigger runs it:
 *
 *   sleep-in-atomic     might_sleep() under a spinlock with interrupts disabled
 *   kmalloc-in-atomic   kmalloc(GFP_KERNEL) under a spinlock
 *   sleep-in-bh         might_sleep() with bottom halves disabled (spin_lock_bh)
 *   lock-twice          spin_lock of a lock this task already holds, then two unlocks
 *   lock-twice-irqsave  the same with spin_lock_irqsave
 *   unlock-unheld       spin_unlock of a lock nobody holds
 *   unlock-twice        spin_lock_irqsave, then spin_unlock_irqrestore twice
 *   hold / release      take the lock and return holding it; release it (from any task)
 *   clean               lock and unlock correctly (reports nothing)
 *
 * Reading the file shows the lock's state: "locked: N, acquisitions: N". */
#include <linux/errno.h>
#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/proc_fs.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include <asm/uaccess.h>

static DEFINE_SPINLOCK(guards_lock);
static struct proc_dir_entry *guards_dir;

static void sleep_in_atomic(void) {
    unsigned long flags;

    spin_lock_irqsave(&guards_lock, flags);
    might_sleep(); /* marker: sleeps while atomic */
    spin_unlock_irqrestore(&guards_lock, flags);
}

static void kmalloc_in_atomic(void) {
    void *p;

    spin_lock(&guards_lock);
    p = kmalloc(64, GFP_KERNEL); /* marker: allocates while atomic */
    spin_unlock(&guards_lock);
    kfree(p);
}

static void sleep_in_bh(void) {
    spin_lock_bh(&guards_lock);
    might_sleep(); /* marker: sleeps with bottom halves off */
    spin_unlock_bh(&guards_lock);
}

static void lock_twice(void) {
    spin_lock(&guards_lock);
    spin_lock(&guards_lock);
    spin_unlock(&guards_lock);
    spin_unlock(&guards_lock);
}

static void lock_twice_irqsave(void) {
    unsigned long outer, inner;

    spin_lock_irqsave(&guards_lock, outer);
    spin_lock_irqsave(&guards_lock, inner);
    spin_unlock_irqrestore(&guards_lock, inner);
    spin_unlock_irqrestore(&guards_lock, outer);
}

static void unlock_twice(void) {
    unsigned long flags;

    spin_lock_irqsave(&guards_lock, flags);
    spin_unlock_irqrestore(&guards_lock, flags);
    spin_unlock_irqrestore(&guards_lock, flags);
}

static void clean(void) {
    unsigned long flags;

    spin_lock_irqsave(&guards_lock, flags);
    spin_unlock_irqrestore(&guards_lock, flags);
    spin_lock_bh(&guards_lock);
    spin_unlock_bh(&guards_lock);
}

static int guards_write(struct file *file, const char __user *buffer, unsigned long count, void *data) {
    char word[32];
    size_t n = count < sizeof(word) - 1 ? count : sizeof(word) - 1;

    (void)file;
    (void)data;
    if (copy_from_user(word, buffer, n)) return -EFAULT;
    word[n] = 0;
    while (n > 0 && (word[n - 1] == '\n' || word[n - 1] == ' ')) word[--n] = 0;

    if (!strcmp(word, "sleep-in-atomic"))
        sleep_in_atomic();
    else if (!strcmp(word, "kmalloc-in-atomic"))
        kmalloc_in_atomic();
    else if (!strcmp(word, "sleep-in-bh"))
        sleep_in_bh();
    else if (!strcmp(word, "lock-twice"))
        lock_twice();
    else if (!strcmp(word, "lock-twice-irqsave"))
        lock_twice_irqsave();
    else if (!strcmp(word, "unlock-unheld"))
        spin_unlock(&guards_lock);
    else if (!strcmp(word, "unlock-twice"))
        unlock_twice();
    else if (!strcmp(word, "hold"))
        spin_lock(&guards_lock);
    else if (!strcmp(word, "release"))
        spin_unlock(&guards_lock);
    else if (!strcmp(word, "clean"))
        clean();
    else
        return -EINVAL;
    return (int)count;
}

static int guards_read(char *page, char **start, off_t off, int count, int *eof, void *data) {
    int len;

    (void)data;
    len = sprintf(page, "locked: %d, acquisitions: %lu\n", spin_is_locked(&guards_lock),
                  spin_lock_acquisitions(&guards_lock));
    if (off >= len) {
        *eof = 1;
        return 0;
    }
    *start = page + off;
    len -= (int)off;
    if (len > count) len = count;
    *eof = 1;
    return len;
}

static int __init guards_init(void) {
    struct proc_dir_entry *trigger;

    guards_dir = proc_mkdir("marlix-guards", NULL);
    if (!guards_dir) return -ENOMEM;
    trigger = create_proc_entry("trigger", S_IFREG | 0644, guards_dir);
    if (!trigger) {
        remove_proc_entry("marlix-guards", NULL);
        return -ENOMEM;
    }
    trigger->read_proc = guards_read;
    trigger->write_proc = guards_write;
    return 0;
}

static void __exit guards_exit(void) {
    remove_proc_entry("trigger", guards_dir);
    remove_proc_entry("marlix-guards", NULL);
}

module_init(guards_init);
module_exit(guards_exit);

MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Misuses spinlocks and sleeps while atomic on request, for the kernel's checks");
