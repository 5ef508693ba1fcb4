// The emulated host behind a console session: kernel, stack and software HCA.
#include <string_view>

#include "console.hpp"
#include "ulp_session.hpp"
#include "marlix/kernel.hpp"
#include "marlix/stack.hpp"

#if __has_include("marlix/softhca.hpp")
#include "marlix/softhca.hpp"
#define MARLIX_CONSOLE_HAVE_SOFTHCA 1
#endif

namespace marlix::console {

Host::Host(Console &console) {
    ulp::reset_session();
    kernel::BootOptions options;
    options.clock = console.options().real_time ? kernel::ClockMode::Real : kernel::ClockMode::Virtual;
    options.console = [&console](std::string_view line) { console.kernel_console_line(line); };
    kernel::boot(options);
    stack::boot();
#ifdef MARLIX_CONSOLE_HAVE_SOFTHCA
    softhca::boot();  // the default fabric: two devices
#endif
}

Host::~Host() {
    // The clock stops first: its thread runs the kernel's timers.
    stop_clock();
    // The upper layer's objects belong to this host; its buffers go back while the kernel runs.
    ulp::reset_session();
    // Modules go first: their exit routines still use the stack and the HCA.
    kernel::halt(true);
#ifdef MARLIX_CONSOLE_HAVE_SOFTHCA
    softhca::halt();
#endif
    stack::halt();
}

}  // namespace marlix::console
