/* The adaptor's log levels and its own trace level. */
#include <linux/module.h>

#include "adaptor-tavor.h"

const char *const odlog_levels[OD_LOG_LEVELS_NUM] = {"PANIC  ", "ERROR  ", "WARNING",
                                                     "INFO   ", "DEBUG  ", "FUNC   "};

/* Set at load from the repository's "debug-level" and rewritten by its change notification. */
int AD_TAVOR_trace_level = 0;
rep_notifier_t AD_TAVOR_log_rep_h = 0;

EXPORT_SYMBOL(AD_TAVOR_trace_level);
EXPORT_SYMBOL(AD_TAVOR_log_rep_h);
