/* Pages and the kernel's direct map of physical memory.
 *
 * The whole host address space above PAGE_OFFSET is the direct map: a kernel virtual address
 * v has the physical address v - PAGE_OFFSET, and __va() turns a physical address back into
 * memory a device can really read and write. */
#ifndef _ASM_PAGE_H
#define _ASM_PAGE_H

#define PAGE_SHIFT 12
#define PAGE_SIZE (1UL << PAGE_SHIFT)
#define PAGE_MASK (~(PAGE_SIZE - 1))
#define PAGE_OFFSET 0x10000000000UL

#define __pa(x) ((unsigned long)(x) - PAGE_OFFSET)
#define __va(x) ((void *)((unsigned long)(x) + PAGE_OFFSET))
#define virt_to_phys(x) __pa(x)
#define phys_to_virt(x) __va(x)
#define PAGE_ALIGN(addr) (((addr) + PAGE_SIZE - 1) & PAGE_MASK)

#endif
