// Everything the device needs from the machine it runs in, and nothing more: raise an interrupt,
// map a physical address, read the clock. The device model, the data path and the engines reach
// their host only through these calls (host_interface.cpp implements them over the emulated
// kernel), so a different host means a different host_interface.cpp.
#pragma once

#include <cstdint>
#include <functional>

namespace marlix::softhca::host {

// Runs `fn` as the adapter's interrupt handler would run: in hardirq context on the host's
// interrupt thread (at once when the host kernel is not booted). Never called with a device lock
// held.
void raise_interrupt(std::function<void()> fn);

// The host memory a physical address names (the kernel's direct map).
void *phys_to_host(uint64_t phys);

// The host's clock in nanoseconds: the emulated kernel's clock (virtual or real as it was booted).
// The device takes its time from its engine, which reads it here; nothing in the device reads the
// wall clock.
uint64_t now_ns();

}  // namespace marlix::softhca::host
