/* Look-ups in a layout table (see layout-table.h). */
#include <string.h>

#include "layout-table.h"

/* Integer fields are 1, 2, 4 or 8 bytes wide, in the host's byte order: x86_64, little-endian, so
 * a field's first bytes are the low bytes of its value. */
static int is_integer_size(size_t size) {
    return size == 1 || size == 2 || size == 4 || size == 8;
}

static int load(const void *field, size_t size, int is_signed, long long *value) {
    unsigned long long bits = 0;

    if (!is_integer_size(size)) return -1;
    memcpy(&bits, field, size);
    if (is_signed && size < 8 && ((bits >> (8 * size - 1)) & 1)) bits |= ~0ull << (8 * size);
    *value = (long long)bits;
    return 0;
}

static int store(void *field, size_t size, unsigned long long value) {
    if (!is_integer_size(size)) return -1;
    memcpy(field, &value, size);
    return 0;
}

const struct layout_field *layout_find(const struct layout_table *table, const char *record,
                                       const char *field) {
    size_t i;

    for (i = 0; i < table->n_fields; i++)
        if (!strcmp(table->fields[i].record, record) && !strcmp(table->fields[i].field, field))
            return &table->fields[i];
    return 0;
}

size_t layout_sizeof(const struct layout_table *table, const char *record) {
    size_t i;

    for (i = 0; i < table->n_sizes; i++)
        if (!strcmp(table->sizes[i].record, record)) return table->sizes[i].size;
    return 0;
}

long layout_offset(const struct layout_table *table, const char *record, const char *field) {
    const struct layout_field *f = layout_find(table, record, field);
    return f ? (long)f->offset : -1;
}

int layout_get(const struct layout_table *table, const char *record, const void *base, const char *field,
               long long *value) {
    const struct layout_field *f = layout_find(table, record, field);

    if (!f || !f->size) return -1;
    return load((const char *)base + f->offset, f->size, f->is_signed, value);
}

int layout_set(const struct layout_table *table, const char *record, void *base, const char *field,
               long long value) {
    const struct layout_field *f = layout_find(table, record, field);

    if (!f || !f->size) return -1;
    return store((char *)base + f->offset, f->size, (unsigned long long)value);
}

long long layout_const(const struct layout_table *table, const char *name, int *found) {
    size_t i;

    for (i = 0; i < table->n_constants; i++) {
        if (!strcmp(table->constants[i].name, name)) {
            if (found) *found = 1;
            return table->constants[i].value;
        }
    }
    if (found) *found = 0;
    return 0;
}
