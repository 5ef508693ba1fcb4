// Device interrupts: handlers run one at a time on the interrupt thread ("irq/1", cpu 1) in
// hardirq context. Interrupts stay enabled while a handler runs, as for a handler registered
// without SA_INTERRUPT.
#include "internal.hpp"
#include <linux/hardirq.h>

namespace marlix::kernel {

void raise_irq(std::function<void()> fn, bool wait) {
    auto &irq = detail::irq_thread();
    auto job = [fn = std::move(fn)] { detail::run_handler("irq handler", nullptr, fn); };
    if (!irq.running()) {
        // Not booted: run here, in hardirq context all the same.
        add_preempt_count(HARDIRQ_OFFSET);
        job();
        sub_preempt_count(HARDIRQ_OFFSET);
        return;
    }
    // An interrupt raised from the interrupt thread itself is queued behind the running one;
    // waiting for it there would never end.
    if (wait && !irq.on_this_thread())
        irq.run_and_wait(job);
    else
        irq.post(std::move(job));
}

void irq_sync() {
    detail::irq_thread().sync();
}

}  // namespace marlix::kernel
