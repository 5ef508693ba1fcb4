/* Kernel memory for the upper layer's buffers: what it registers is kernel memory, as an upper
 * layer in the kernel would hand over. */
#include <linux/slab.h>

#include "ulp_verbs.h"

void *ulp_kmalloc(size_t size) {
    return kzalloc(size, GFP_KERNEL);
}

void ulp_kfree(void *buffer) {
    kfree(buffer);
}
