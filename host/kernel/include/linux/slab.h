/* kmalloc/kfree.
 *
 * Every allocation records the module that made it (THIS_MODULE) and its call site (function,
 * file, line), so the host can report what a module leaves behind at unload and tests can make
 * chosen allocations fail. A GFP_KERNEL allocation may sleep: made while atomic it is reported
 * as "BUG: sleeping function called from invalid context". */
#ifndef _LINUX_SLAB_H
#define _LINUX_SLAB_H

#include <linux/types.h>
#include <linux/gfp.h>

struct module;

__BEGIN_KERNEL_DECLS
void *__marlix_kmalloc(size_t size, gfp_t flags, struct module *owner, const char *func, const char *file,
                       int line);
void kfree(const void *objp);
/* Size class the slab allocator would serve a request of `size` from (32 .. 131072). */
size_t ksize(const void *objp);
__END_KERNEL_DECLS

#define kmalloc(size, flags) __marlix_kmalloc((size), (flags), THIS_MODULE, __func__, __FILE__, __LINE__)
#define kzalloc(size, flags) \
    __marlix_kmalloc((size), (flags) | __GFP_ZERO, THIS_MODULE, __func__, __FILE__, __LINE__)

#include <linux/module.h>

#endif
