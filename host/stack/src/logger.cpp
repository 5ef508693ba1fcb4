// The stack's logger: the stack-wide trace level and the repository callback that keeps a
// component's own level in step with its "debug-level" value.
#include "internal.hpp"

// Kernel-side headers last: their macros (__init, sprintf) must not reach the C++ library.
#include "ox-logger.h"

extern "C" {

int logger_trace_level = 5;

void trace_lvl_change_cb(void *context, const char * /*value_name*/, rep_value_type_t type, const void *value,
                         int value_len) {
    if (!context || !value || type != rep_value_long || value_len < static_cast<int>(sizeof(long))) return;
    *static_cast<int *>(context) = static_cast<int>(*static_cast<const long *>(value));
}

}  // extern "C"

namespace marlix::stack::detail {

void logger_reset() {
    logger_trace_level = 5;
}

}  // namespace marlix::stack::detail
