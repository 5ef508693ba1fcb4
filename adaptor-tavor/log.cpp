/* The adaptor's log levels and its own trace level. */
#include <linux/module.h>

#include "adaptor-tavor.h"

const char *const odlog_levels[OD_LOG_LEVELS_NUM] = {"PANIC  ", "ERROR  ", "WARNING",
                                                     "INFO   ", "DEBUG  ", "FUNC   "};

/* Set at load from the repository's "debug-level" and rewritten by its change notification.
 * Until the repository has been read, errors are reported (so that the start-up failures that
 * come before, such as a failed HCA listing, are seen) and nothing more. */
int AD_TAVOR_trace_level = OD_LOG_ERROR;
rep_notifier_t AD_TAVOR_log_rep_h = 0;

EXPORT_SYMBOL(AD_TAVOR_trace_level);
EXPORT_SYMBOL(AD_TAVOR_log_rep_h);
