/* Look-ups in a layout table (see layout-table.h). */
#include <string.h>

#include "record-field.h"

#include "layout-table.h"

static const struct layout_field *find(const struct layout_table *t, const char *record, const char *field) {
    size_t i;

    for (i = 0; i < t->n_fields; i++)
        if (!strcmp(t->fields[i].record, record) && !strcmp(t->fields[i].field, field)) return &t->fields[i];
    return 0;
}

size_t layout_sizeof(const struct layout_table *table, const char *record) {
    size_t i;

    for (i = 0; i < table->n_sizes; i++)
        if (!strcmp(table->sizes[i].record, record)) return table->sizes[i].size;
    return 0;
}

long layout_offset(const struct layout_table *table, const char *record, const char *field) {
    const struct layout_field *f = find(table, record, field);
    return f ? (long)f->offset : -1;
}

int layout_get(const struct layout_table *table, const char *record, const void *base, const char *field,
               long long *value) {
    const struct layout_field *f = find(table, record, field);

    if (!f || !f->size) return -1;
    return record_field_load((const char *)base + f->offset, f->size, f->is_signed, value);
}

int layout_set(const struct layout_table *table, const char *record, void *base, const char *field,
               long long value) {
    const struct layout_field *f = find(table, record, field);

    if (!f || !f->size) return -1;
    return record_field_store((char *)base + f->offset, f->size, (unsigned long long)value);
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
