/* A log line of the adaptor module, compiled from the module's own header and macro, as every
 * entry point on the data path carries it. The trace level is the module's variable (a copy here,
 * since the benchmark does not load the module). */
#include "adaptor-tavor.h"

int AD_TAVOR_trace_level = 0;
const char *const odlog_levels[OD_LOG_LEVELS_NUM] = {"PANIC  ", "ERROR  ", "WARNING", "INFO   ", "DEBUG  ", "FUNC   "};

void bench_module_debug_line(const void *qp, int count, unsigned long address);

__attribute__((noinline)) void bench_module_debug_line(const void *qp, int count, unsigned long address) {
    AD_TAVOR_DEBUG("user qp_h %p, requests: %d, first address: 0x%lx", qp, count, address);
}
