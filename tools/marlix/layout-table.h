/* A table of a record family's layout, measured by the C compiler where the records' headers are
 * included: field offsets, sizes and signedness by name, record sizes by name, constants by name.
 *
 * Code that names fields at run time fills one table with the macros below and looks things up
 * in it through the calls here: the upper-layer shim reads the attribute records it hands out as
 * opaque buffers (ulp_verbs.c, ulp_verbs_queues.c), and the adaptor tests' layout units
 * (tests/adaptor/module-layout.c, datapath-layout.c) hand the tests the module's records
 * (adp_layout(), dpl_layout(), and the named views of layout_view.hpp). The records' headers sit
 * on the emulated kernel's C headers, so the tables are filled in C; this header and the look-ups
 * are plain C and may be used from C++. */
#ifndef MARLIX_LAYOUT_TABLE_H
#define MARLIX_LAYOUT_TABLE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct layout_field {
    const char *record;
    const char *field; /* its C name; nested members with a dot */
    size_t offset;
    size_t size; /* 0: reached by offset only (list heads, arrays, embedded records) */
    int is_signed;
    /* What the table's owner attaches to the field (the shim: the modify mask bit that selects
     * it); 0 unless the entry sets it. */
    unsigned long long tag;
};

struct layout_size {
    const char *record;
    size_t size;
};

struct layout_constant {
    const char *name;
    long long value;
};

struct layout_table {
    const struct layout_field *fields;
    size_t n_fields;
    const struct layout_size *sizes;
    size_t n_sizes;
    const struct layout_constant *constants;
    size_t n_constants;
};

/* Entries. A nested member named in a macro argument must stay on one line: a line break inside
 * the argument would enter the stringified name. */
#define LAYOUT_INT(record, field)                                                         \
    {                                                                                     \
#record, #field, offsetof(record, field), sizeof(((record *)0)->field),           \
            (__typeof__(((record *)0)->field))-1 < (__typeof__(((record *)0)->field))1, 0 \
    }
#define LAYOUT_PTR(record, field) \
    { #record, #field, offsetof(record, field), sizeof(void *), 0, 0 }
#define LAYOUT_AT(record, field) \
    { #record, #field, offsetof(record, field), 0, 0, 0 }
/* A field of any type read as an unsigned number of its own size (1, 2, 4 or 8 bytes); a field of
 * another size (a GID) is found by name and reached through its offset. */
#define LAYOUT_RAW(record, field) LAYOUT_RAW_TAG(record, field, 0)
#define LAYOUT_RAW_TAG(record, field, tag) \
    { #record, #field, offsetof(record, field), sizeof(((record *)0)->field), 0, (tag) }
#define LAYOUT_SIZE(record) \
    { #record, sizeof(record) }
#define LAYOUT_CONST(name) \
    { #name, (long long)(name) }

#define LAYOUT_COUNT(array) (sizeof(array) / sizeof((array)[0]))
#define LAYOUT_TABLE(fields, sizes, constants) \
    { fields, LAYOUT_COUNT(fields), sizes, LAYOUT_COUNT(sizes), constants, LAYOUT_COUNT(constants) }
/* A table of fields alone (no record sizes, no constants). */
#define LAYOUT_FIELDS_TABLE(fields) \
    { fields, LAYOUT_COUNT(fields), NULL, 0, NULL, 0 }

/* The entry of a record's field, or null when the table does not know it. */
const struct layout_field *layout_find(const struct layout_table *table, const char *record,
                                       const char *field);
/* 0 when the record is unknown. */
size_t layout_sizeof(const struct layout_table *table, const char *record);
/* -1 when the record or field is unknown. */
long layout_offset(const struct layout_table *table, const char *record, const char *field);
/* Reads (sign-extended when the field is signed) or writes an integer or pointer field of the
 * record at `base`; -1 for an unknown field, one reached by offset only, or one whose size is
 * not 1, 2, 4 or 8 bytes. */
int layout_get(const struct layout_table *table, const char *record, const void *base, const char *field,
               long long *value);
int layout_set(const struct layout_table *table, const char *record, void *base, const char *field,
               long long value);
/* The constant's value; `found` (may be null) tells whether it exists. */
long long layout_const(const struct layout_table *table, const char *name, int *found);

#ifdef __cplusplus
}
#endif

#endif
