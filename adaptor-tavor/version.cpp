/* The version record: "<name> <version> <tag> (<compiler>) (<kernel>) (<date>) <time>\n". */
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/ctype.h>
#include <linux/proc_fs.h>
#include <linux/version.h>
#include <linux/compile.h>

#include "adaptor-tavor.h"
#include "module-version.h"

#define VERSION_FIELD_MAX 9
#define TAG_FIELD_MAX 29
/* Longest name accepted for the proc path; longer names are cut. */
#define MODULE_NAME_FIELD_MAX 64

static char *module_banner = 0;

static const char version_compiler[] = "(" __VERSION__ ")";
static const char version_kernel[] = "(" UTS_RELEASE ")";
static const char version_date[] = "(" __DATE__ ")";
static const char version_time[] = __TIME__;

/* Copies s[0..len) into out (size out_size) without leading and trailing white space. */
static void copy_trimmed(char *out, size_t out_size, const char *s, size_t len) {
    size_t n;

    while (len > 0 && isspace(*s)) {
        s++;
        len--;
    }
    while (len > 0 && isspace(s[len - 1])) len--;
    n = len < out_size - 1 ? len : out_size - 1;
    memcpy(out, s, n);
    out[n] = 0;
}

/* The text of a revision keyword ("$Keyword: text $"): what lies between the first ':' and the
 * following '$', trimmed and cut to `max` characters. Empty when there is no such keyword. */
static void keyword_text(char *out, size_t max, const char *s) {
    const char *colon = s ? strchr(s, ':') : 0;
    const char *dollar = colon ? strchr(colon + 1, '$') : 0;
    char trimmed[256];

    out[0] = 0;
    if (!dollar) return;
    copy_trimmed(trimmed, sizeof(trimmed), colon + 1, (size_t)(dollar - colon - 1));
    copy_trimmed(out, max + 1, trimmed, strlen(trimmed));
}

/* The module name as the record and the proc path use it: trimmed, "Unknown" when empty. */
static void module_name_field(char *out, size_t out_size, const char *module_name) {
    if (module_name)
        copy_trimmed(out, out_size, module_name, strlen(module_name));
    else
        out[0] = 0;
    if (!out[0]) strcpy(out, "Unknown");
}

/* kmalloc'd "marlix/<name><suffix>", or null. */
static char *proc_path(const char *name, const char *suffix) {
    size_t len = strlen("marlix/") + strlen(name) + strlen(suffix) + 1;
    char *path = (char *)kmalloc(len, GFP_KERNEL);

    if (path) sprintf(path, "marlix/%s%s", name, suffix);
    return path;
}

static struct proc_dir_entry *create_version_file(const char *name) {
    struct proc_dir_entry *entry = 0;
    char *path = proc_path(name, "/version");

    if (!path) return 0;
    entry = create_proc_entry(path, S_IFREG | S_IRUGO, 0);
    if (entry) {
        entry->read_proc = version_read_proc;
        entry->data = 0;
    }
    kfree(path);
    return entry;
}

/* Creates marlix/<name>, and marlix itself first when that is what is missing. */
static void create_version_dirs(const char *name) {
    char *dir = proc_path(name, "");

    if (!dir) return;
    if (!proc_mkdir(dir, 0)) {
        proc_mkdir("marlix", 0);
        proc_mkdir(dir, 0);
    }
    kfree(dir);
}

int module_version_init(char *module_name, char *version_string, char *tag_name) {
    char name[MODULE_NAME_FIELD_MAX + 1];
    char version[VERSION_FIELD_MAX + 1];
    char tag[TAG_FIELD_MAX + 1];
    const char *compiler = version_compiler[2] ? version_compiler : "(Unknown Compiler)";
    const char *kernel = version_kernel[2] ? version_kernel : "(Unknown Kernel)";
    size_t len;

    module_name_field(name, sizeof(name), module_name);
    /* A version string without a revision keyword (like a plain "1.0.0") is shown as "0". */
    keyword_text(version, VERSION_FIELD_MAX, version_string);
    if (!version[0]) strcpy(version, "0");
    keyword_text(tag, TAG_FIELD_MAX, tag_name);
    if (!tag[0]) strcpy(tag, "NoTag");

    len = strlen(name) + strlen(version) + strlen(tag) + strlen(compiler) + strlen(kernel) +
          strlen(version_date) + strlen(version_time) + 6 + 1 + 1;
    module_banner = (char *)kmalloc(len, GFP_KERNEL);
    if (!module_banner) return -1;
    sprintf(module_banner, "%s %s %s %s %s %s %s\n", name, version, tag, compiler, kernel, version_date,
            version_time);

    if (!create_version_file(name)) {
        create_version_dirs(name);
        if (!create_version_file(name)) {
            kfree(module_banner);
            module_banner = 0;
            return -1;
        }
    }
    return 0;
}

/* Removal builds the path on the stack: it must not depend on an allocation, or a failure at
 * unload would leave the file behind with a read handler in a module that is gone. */
void module_version_exit(char *module_name) {
    char name[MODULE_NAME_FIELD_MAX + 1];
    char path[sizeof("marlix/") + MODULE_NAME_FIELD_MAX + sizeof("/version")];

    module_name_field(name, sizeof(name), module_name);
    snprintf(path, sizeof(path), "marlix/%s/version", name);
    remove_proc_entry(path, 0);
    kfree(module_banner);
    module_banner = 0;
}

int version_read_proc(char *page, char **start, off_t off, int count, int *eof, void *data) {
    int len;

    (void)data;
    len = sprintf(page, "%s", module_banner ? module_banner : "Error\n");
    if (off + count >= len) *eof = 1;
    if (off >= len) return 0;
    *start = page + off;
    len -= (int)off;
    if (len > count) len = count;
    return len < 0 ? 0 : len;
}
