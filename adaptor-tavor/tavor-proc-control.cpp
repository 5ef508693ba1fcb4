/* The control file's write handler: split the written text into words and run the command the
 * first word names. */
#define TAVOR_PROC_SOURCE
#include <linux/kernel.h>
#include <linux/string.h>
#include <linux/ctype.h>
#include <asm/uaccess.h>

#include "tavor-proc.h"

#define PROC_WRITE_BUFFER_SIZE 4096
#define PROC_MAX_WORDS 10
#define PROC_MAX_WORD_LEN 20

const struct proc_command_st gen_proc_commands[PROC_COMMANDS_NUM] = {
    {"show_c", proc_show_compile_flags, "show compilation flags"},
    {"show_reg_mem", proc_show_registration_mem_info, "show registration memory data"},
    {"show_err", proc_show_last_err, "show last adaptor reported VAPI errors"},
    {"show_mem", proc_show_mem_alloc, "show adaptor memory allocations"},
    {"comstop", proc_com_stop, "stop calling the completion events on timer"},
    {"comstart", proc_com_start, "start/restart calling completion events [number for comsett]"},
    {"comsett", proc_com_set_time, "set the time intervals in jiffise"},
    {"comshow", proc_com_show, "show: time intervals, work mode, registered cq's"},
    {"commode", proc_com_mode, "change work mode [1/2], 1: call all cq, 2: call only registered cq"},
    {"comaddcq", proc_com_addcq, "add cq to the list [0xUSER cq h pointer] or [MLX cq h]"},
    {"comremcq", proc_com_remcq, "remove cq from the list [0xUSER cq h pointer] or [MLX cq h]"},
    {"event_ctrl", proc_event_generation_ctrl,
     "ctrl event generation 1- no events, 0- events, 11- no events+comstart, 10- events+comstop"},
    {"event_show", proc_event_ctrl_show, "show event generation data"},
    {"pollcq", proc_poll_cq_test,
     "poll CQ - [0xUSER cq h] or [MLX cq h] or [CQ index 1,2,3... as in the proc prints] or [0] - will poll "
     "all CQ"},
};

/* One copy for the whole module, reused by every write: concurrent writers share it. */
static char proc_write_buffer[PROC_WRITE_BUFFER_SIZE];
static char proc_words[PROC_MAX_WORDS][PROC_MAX_WORD_LEN + 1];
static char *args[PROC_MAX_WORDS];

static void print_usage(void) {
    int i;

    printk("usage:\n");
    for (i = 0; i < PROC_COMMANDS_NUM; i++)
        printk("%-12s - %s\n", gen_proc_commands[i].cmd_name, gen_proc_commands[i].help);
}

/* Splits the first `len` bytes of the buffer into at most ten words of at most 20 characters;
 * a longer word is cut into pieces of 20. Returns the number of words. */
static int split_words(unsigned long len) {
    unsigned long pos = 0;
    int word = 0;
    int j = 0;

    while (pos < len && proc_write_buffer[pos] != 0 && word < PROC_MAX_WORDS) {
        char c = proc_write_buffer[pos];

        if (isspace(c)) {
            if (j != 0) {
                proc_words[word][j] = 0;
                word++;
                j = 0;
            }
            pos++;
        } else if (j < PROC_MAX_WORD_LEN) {
            proc_words[word][j++] = c;
            pos++;
        } else {
            /* The character starts the next word. */
            proc_words[word][PROC_MAX_WORD_LEN] = 0;
            word++;
            j = 0;
        }
    }
    /* After ten complete words there is no word in progress: stop there. */
    if (word < PROC_MAX_WORDS) {
        proc_words[word][j] = 0;
        if (!isspace(proc_write_buffer[len - 1])) word++;
    }
    return word;
}

int proc_write(struct file *file, const char __user *user_buffer, unsigned long count, void *data) {
    /* Only the first 4096 bytes of a longer write are looked at; the rest is consumed unread. */
    unsigned long len = count < PROC_WRITE_BUFFER_SIZE ? count : PROC_WRITE_BUFFER_SIZE;
    int words = 0;
    int i;

    (void)file;
    (void)data;
    copy_from_user(proc_write_buffer, user_buffer, len);
    for (i = 0; i < PROC_MAX_WORDS; i++) {
        proc_words[i][0] = 0;
        args[i] = proc_words[i];
    }
    if (len > 0) words = split_words(len);

    if (words == 0) {
        print_usage();
        return (int)count;
    }
    for (i = 0; i < PROC_COMMANDS_NUM; i++) {
        if (strcmp(args[0], gen_proc_commands[i].cmd_name) == 0) {
            gen_proc_commands[i].cmd_func(words, args);
            return (int)count;
        }
    }
    printk("gen /proc: unknown command:");
    for (i = 0; i < words; i++) printk(" '%s'", args[i]);
    printk("\n");
    print_usage();
    return (int)count;
}
