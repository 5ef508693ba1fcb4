/* The stack's logger: one stack-wide trace level, and the repository callback that keeps a
 * component's own level current. */
#ifndef OX_LOGGER_H
#define OX_LOGGER_H

#include <linux/types.h>
#include "ox-repository.h"

__BEGIN_KERNEL_DECLS

/* Stack-wide trace level (0 PANIC .. 5 FUNC); components log a level L only when this is >= L. */
extern int logger_trace_level;

/* rep_notify_cb_t that stores a changed long value, as an int, in the int that `context`
 * points at. Other types are ignored. */
void trace_lvl_change_cb(void *context, const char *value_name, rep_value_type_t type, const void *value,
                         int value_len);

__END_KERNEL_DECLS

#endif
