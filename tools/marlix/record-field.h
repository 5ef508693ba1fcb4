/* Reading and writing one integer field of a record by its offset and size, for code that names
 * fields at run time (the upper layer's attribute setter, the tests' layout tables). Sizes other
 * than 1, 2, 4 and 8 bytes are refused with -1. */
#ifndef MARLIX_RECORD_FIELD_H
#define MARLIX_RECORD_FIELD_H

#include <stddef.h>
#include <stdint.h>

static inline int record_field_load(const void *field, size_t size, int is_signed, long long *value) {
    switch (size) {
        case 1:
            *value = is_signed ? (long long)*(const int8_t *)field : (long long)*(const uint8_t *)field;
            return 0;
        case 2:
            *value = is_signed ? (long long)*(const int16_t *)field : (long long)*(const uint16_t *)field;
            return 0;
        case 4:
            *value = is_signed ? (long long)*(const int32_t *)field : (long long)*(const uint32_t *)field;
            return 0;
        case 8:
            *value = (long long)*(const uint64_t *)field;
            return 0;
        default:
            return -1;
    }
}

static inline int record_field_store(void *field, size_t size, unsigned long long value) {
    switch (size) {
        case 1:
            *(uint8_t *)field = (uint8_t)value;
            return 0;
        case 2:
            *(uint16_t *)field = (uint16_t)value;
            return 0;
        case 4:
            *(uint32_t *)field = (uint32_t)value;
            return 0;
        case 8:
            *(uint64_t *)field = (uint64_t)value;
            return 0;
        default:
            return -1;
    }
}

#endif
