/* adaptor-mlx: the filtered kernel log.
 *
 * Every line goes out as "<6>LEVEL   : AD_TAVOR : <function>:(<label>):<message>", and only when
 * the stack-wide logger_trace_level and then the adaptor's AD_TAVOR_trace_level are both at
 * least the line's level. The test comes before any argument is evaluated, so a level that is
 * filtered out costs two compares on the data path.
 *
 * Compiles as C and as C++. */
#ifndef AD_TAVOR_ADAPTOR_LOG_H
#define AD_TAVOR_ADAPTOR_LOG_H

#include <linux/kernel.h>

#include "ox-logger.h"
#include "ox-repository.h"

__BEGIN_KERNEL_DECLS

/* Log levels; the names printed for them are odlog_levels[level]. */
typedef enum {
    OD_LOG_PANIC = 0,
    OD_LOG_ERROR = 1,
    OD_LOG_WARNING = 2,
    OD_LOG_INFO = 3,
    OD_LOG_DEBUG = 4,
    OD_LOG_FUNC = 5
} od_log_level_t;

#define OD_LOG_LEVELS_NUM 6

/* Level names, each padded to seven characters. */
extern const char *const odlog_levels[OD_LOG_LEVELS_NUM];

/* The adaptor's own trace level (kept current by the repository) and its notification. */
extern int AD_TAVOR_trace_level;
extern rep_notifier_t AD_TAVOR_log_rep_h;

/* Source label printed in every line; the proc interface's files define "tavor_proc". */
#ifndef AD_TAVOR_SRC_LABEL
#define AD_TAVOR_SRC_LABEL "adaptor_tavor"
#endif

/* A line of level L is printed only when the stack-wide level and then the adaptor's level are
 * both at least L; the test is made before the arguments are evaluated or formatted, so a
 * disabled level costs two compares. The macro adds the line's newline. */
#define AD_TAVOR_LOG(level, fmt, ...)                                                       \
    do {                                                                                    \
        if (logger_trace_level >= (int)(level) && AD_TAVOR_trace_level >= (int)(level))     \
            printk("<6>%s : AD_TAVOR : %s:(%s):" fmt "\n", odlog_levels[(level)], __func__, \
                   AD_TAVOR_SRC_LABEL, ##__VA_ARGS__);                                      \
    } while (0)

#define AD_TAVOR_PANIC(fmt, ...) AD_TAVOR_LOG(OD_LOG_PANIC, fmt, ##__VA_ARGS__)
#define AD_TAVOR_ERROR(fmt, ...) AD_TAVOR_LOG(OD_LOG_ERROR, fmt, ##__VA_ARGS__)
#define AD_TAVOR_WARNING(fmt, ...) AD_TAVOR_LOG(OD_LOG_WARNING, fmt, ##__VA_ARGS__)
#define AD_TAVOR_INFO(fmt, ...) AD_TAVOR_LOG(OD_LOG_INFO, fmt, ##__VA_ARGS__)
#define AD_TAVOR_DEBUG(fmt, ...) AD_TAVOR_LOG(OD_LOG_DEBUG, fmt, ##__VA_ARGS__)
#define AD_TAVOR_FUNC(fmt, ...) AD_TAVOR_LOG(OD_LOG_FUNC, fmt, ##__VA_ARGS__)

/* The literal printed after a VAPI status in "(mlx:%d, %s)". */
#define AD_TAVOR_MLX_STR "MLX"

__END_KERNEL_DECLS

#endif
