/* The proc control interface: the control file (commands written, statistics page read) and the
 * link file. Its files log under the label "tavor_proc" and keep their own copies of the
 * generator variables and of the memory accounting table. */
#ifndef TAVOR_PROC_H
#define TAVOR_PROC_H

#include <linux/types.h>
#include <linux/fs.h>

#ifdef TAVOR_PROC_SOURCE
#define AD_TAVOR_SRC_LABEL "tavor_proc"
#endif
#include "adaptor-tavor.h"

__BEGIN_KERNEL_DECLS

#define PROC_CONTROL_PATH "marlix/adaptor-mlx/control"
#define PROC_LINK_PATH "marlix/adaptor-mlx/link"

/* Write handler of the control file: runs one command; always consumes the whole write. */
int proc_write(struct file *file, const char __user *user_buffer, unsigned long count, void *data);
/* Read handler of the control file: the statistics page. */
int print_mlx_adaptor_statistic(char *page, char **start, off_t off, int count, int *eof, void *data);
/* Read handler of the link file: the state of port 1 of the default HCA. */
int proc_read_link(char *buffer, char **start, off_t offset, int length, int *eof, void *data);

typedef void (*proc_cmd_func_t)(int argc, char **argv);

struct proc_command_st {
    const char *cmd_name;
    proc_cmd_func_t cmd_func;
    const char *help;
};

#define PROC_COMMANDS_NUM 14
extern const struct proc_command_st gen_proc_commands[PROC_COMMANDS_NUM];

/* Diagnostic dumps. */
void proc_show_compile_flags(int argc, char **argv);
void proc_show_registration_mem_info(int argc, char **argv);
void proc_show_last_err(int argc, char **argv);
void proc_show_mem_alloc(int argc, char **argv);

/* Generator and event control. */
void proc_com_stop(int argc, char **argv);
void proc_com_start(int argc, char **argv);
void proc_com_set_time(int argc, char **argv);
void proc_com_show(int argc, char **argv);
void proc_com_mode(int argc, char **argv);
void proc_com_addcq(int argc, char **argv);
void proc_com_remcq(int argc, char **argv);
void proc_event_generation_ctrl(int argc, char **argv);
void proc_event_ctrl_show(int argc, char **argv);
void proc_poll_cq_test(int argc, char **argv);

__END_KERNEL_DECLS

#endif
