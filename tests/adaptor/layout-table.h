/* A table of a record family's layout, measured by the C compiler where the records' headers are
 * included: field offsets, sizes and signedness by name, record sizes by name, constants by name.
 * The tests' layout units (module-layout.c, datapath-layout.c) each fill one table with the
 * macros below and hand it out (adp_layout(), dpl_layout()); the tests look things up in it
 * through the calls here, or through the named views of layout_view.hpp. */
#ifndef ADAPTOR_TEST_LAYOUT_TABLE_H
#define ADAPTOR_TEST_LAYOUT_TABLE_H

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
#define LAYOUT_INT(record, field)                                                      \
    {                                                                                  \
#record, #field, offsetof(record, field), sizeof(((record *)0)->field),        \
            (__typeof__(((record *)0)->field))-1 < (__typeof__(((record *)0)->field))1 \
    }
#define LAYOUT_PTR(record, field) \
    { #record, #field, offsetof(record, field), sizeof(void *), 0 }
#define LAYOUT_AT(record, field) \
    { #record, #field, offsetof(record, field), 0, 0 }
#define LAYOUT_SIZE(record) \
    { #record, sizeof(record) }
#define LAYOUT_CONST(name) \
    { #name, (long long)(name) }

#define LAYOUT_COUNT(array) (sizeof(array) / sizeof((array)[0]))
#define LAYOUT_TABLE(fields, sizes, constants) \
    { fields, LAYOUT_COUNT(fields), sizes, LAYOUT_COUNT(sizes), constants, LAYOUT_COUNT(constants) }

/* 0 when the record is unknown. */
size_t layout_sizeof(const struct layout_table *table, const char *record);
/* -1 when the record or field is unknown. */
long layout_offset(const struct layout_table *table, const char *record, const char *field);
/* Reads (sign-extended when the field is signed) or writes an integer or pointer field of the
 * record at `base`; -1 for an unknown field or one reached by offset only. */
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
