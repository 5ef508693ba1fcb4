/* The module's version record: one line under /proc/marlix/<module>/version. */
#ifndef AD_TAVOR_MODULE_VERSION_H
#define AD_TAVOR_MODULE_VERSION_H

#include <linux/types.h>

__BEGIN_KERNEL_DECLS

/* Builds the banner and creates "marlix/<module_name>/version" (creating the directories when
 * needed). Returns 0 on success, non-zero on failure (nothing is left behind then). */
int module_version_init(char *module_name, char *version_string, char *tag_name);
/* Removes the file and releases the banner; the directories stay. */
void module_version_exit(char *module_name);
/* Read handler of the version file. */
int version_read_proc(char *page, char **start, off_t off, int count, int *eof, void *data);

__END_KERNEL_DECLS

#endif
