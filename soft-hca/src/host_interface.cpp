// The software HCA's host interface over the emulated Linux kernel.
#include "host_interface.hpp"

#include <asm/page.h>  // the kernel's direct map: physical memory is at __va(phys)

#include "marlix/kernel.hpp"

namespace marlix::softhca::host {

void raise_interrupt(std::function<void()> fn) {
    kernel::raise_irq(std::move(fn), false);
}

void *phys_to_host(uint64_t phys) {
    return __va(phys);
}

uint64_t now_ns() {
    // HZ is 1000: one jiffy is a millisecond.
    return uint64_t(kernel::now_jiffies()) * 1000000ull;
}

}  // namespace marlix::softhca::host
