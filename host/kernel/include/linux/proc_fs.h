/* The proc filesystem, 2.6 style: entries with read_proc/write_proc handlers.
 *
 * Names given to create_proc_entry/proc_mkdir/remove_proc_entry may be paths relative to
 * `parent` (or to /proc when parent is null); every directory on the path must already exist,
 * otherwise creation fails and returns null. Reads go through the kernel's proc_file_read loop:
 * one 4096-byte page per call, the *start protocol, offsets and eof. */
#ifndef _LINUX_PROC_FS_H
#define _LINUX_PROC_FS_H

#include <linux/types.h>
#include <linux/fs.h>
#include <linux/stat.h>
#include <asm/atomic.h>

typedef int(read_proc_t)(char *page, char **start, off_t off, int count, int *eof, void *data);
typedef int(write_proc_t)(struct file *file, const char __user *buffer, unsigned long count, void *data);

struct proc_dir_entry {
    unsigned int low_ino;
    unsigned short namelen;
    const char *name;
    mode_t mode;
    nlink_t nlink;
    uid_t uid;
    gid_t gid;
    unsigned long size;
    struct proc_dir_entry *next, *parent, *subdir;
    void *data;
    read_proc_t *read_proc;
    write_proc_t *write_proc;
    atomic_t count; /* readers/writers inside a handler */
    int deleted;
    struct module *owner;
};

__BEGIN_KERNEL_DECLS
extern struct proc_dir_entry proc_root;

struct proc_dir_entry *create_proc_entry(const char *name, mode_t mode, struct proc_dir_entry *parent);
struct proc_dir_entry *proc_mkdir(const char *name, struct proc_dir_entry *parent);
void remove_proc_entry(const char *name, struct proc_dir_entry *parent);
struct proc_dir_entry *create_proc_read_entry(const char *name, mode_t mode, struct proc_dir_entry *base,
                                              read_proc_t *read_proc, void *data);
__END_KERNEL_DECLS

#endif
