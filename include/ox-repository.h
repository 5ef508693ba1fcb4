/* The stack's configuration repository: a tree of keys ("a/b/c/") holding named values.
 *
 * Values are 8-byte signed integers ("long") or strings. Every call returns 0 on success and a
 * negative errno on failure (-ENOENT: no such key or value; -EINVAL: bad argument or type;
 * -ENOMEM). Watching a key with rep_notify_key_change makes every later change of any value of
 * that key call the callback, in the changer's context, with the new value. */
#ifndef OX_REPOSITORY_H
#define OX_REPOSITORY_H

#include <linux/types.h>

__BEGIN_KERNEL_DECLS

typedef struct rep_key_st *rep_key_h_t;
typedef struct rep_notifier_st *rep_notifier_t;

typedef enum { rep_value_long = 1, rep_value_string = 2 } rep_value_type_t;

/* Called when a value of a watched key changes. `value` points at a long (value_len 8) or a
 * null-terminated string (value_len its length + 1); `context` is what was registered. */
typedef void (*rep_notify_cb_t)(void *context, const char *value_name, rep_value_type_t type,
                                const void *value, int value_len);

int rep_get_root(rep_key_h_t *root_p);
/* Opens `path` (components separated by '/', a trailing '/' allowed) below `parent`. */
int rep_open_key(rep_key_h_t parent, const char *path, rep_key_h_t *key_p);
int rep_close_key(rep_key_h_t key);
/* Copies the value into `buf`: a long needs len >= 8; a string is copied and null-terminated
 * within len bytes. `type_p` may be null. */
int rep_get_value(rep_key_h_t key, const char *value_name, void *buf, int len, rep_value_type_t *type_p);
/* Operator side: creates the key path if needed and sets the value; notifies watchers. */
int rep_set_value(rep_key_h_t key, const char *value_name, rep_value_type_t type, const void *value, int len);
int rep_create_key(rep_key_h_t parent, const char *path, rep_key_h_t *key_p);
int rep_notify_key_change(rep_key_h_t key, rep_notify_cb_t cb, void *context, rep_notifier_t *notifier_p);
/* Cancels a registration; a null notifier is accepted and ignored. */
int rep_notify_del(rep_notifier_t notifier);

__END_KERNEL_DECLS

#endif
