/* What the probe translation units measured, as plain data: the test binaries read it without
 * including the interface headers (and so without the emulated kernel's headers next to the C++
 * library). One table per language for layouts, so the two compilers can be compared. */
#ifndef HEADERS_TEST_PROBES_H
#define HEADERS_TEST_PROBES_H

#ifdef __cplusplus
extern "C" {
#endif

/* A size or an offset, named by the expression that produced it. */
struct ox_layout_probe {
    const char *what;
    unsigned long value;
};

/* Offset of a field; fields of one record are listed in declaration order. */
struct ox_field_probe {
    const char *record;
    const char *field;
    unsigned long offset;
};

/* A constant and the value it must have. */
struct ox_value_probe {
    const char *what;
    long long value;
    long long expected;
};

extern const struct ox_layout_probe ox_c_layout[];
extern const struct ox_layout_probe ox_cpp_layout[];
extern const unsigned long ox_c_layout_count;
extern const unsigned long ox_cpp_layout_count;

extern const struct ox_field_probe ox_c_fields[];
extern const struct ox_field_probe ox_cpp_fields[];
extern const unsigned long ox_c_field_count;
extern const unsigned long ox_cpp_field_count;

/* The table slots: record "ox_hca_func_t", field = member name, in slot order. */
extern const struct ox_field_probe ox_c_slots[];
extern const struct ox_field_probe ox_cpp_slots[];
extern const unsigned long ox_c_slot_count;
extern const unsigned long ox_cpp_slot_count;

extern const struct ox_value_probe ox_cpp_values[];
extern const unsigned long ox_cpp_value_count;

/* Calls every unsupported entry point with the given sentinels and stores each result; returns
 * the number of calls made, or -1 if a call changed an output it was given. */
int ox_probe_not_supported(int *results, int max);

/* The list walk through the typed links: returns 0 when a record added through its list node is
 * found again through `next`, `prev` and list_entry, else the number of the failed check. */
int ox_probe_list_links(void);

#ifdef __cplusplus
}
#endif

#endif
