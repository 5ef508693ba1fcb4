// The look-ups of a layout table (layout-table.h), on a record of this file: every integer width,
// signed and unsigned, a pointer, a 16-byte field and a nested member.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "layout-table.h"

namespace {

struct inner_rec {
    uint16_t lid;
};

struct sample_rec {
    int8_t s8;
    uint8_t u8;
    int16_t s16;
    uint16_t u16;
    int32_t s32;
    uint32_t u32;
    int64_t s64;
    uint64_t u64;
    void *ptr;
    uint8_t gid[16];
    inner_rec path;
};

const layout_field kFields[] = {
    LAYOUT_INT(sample_rec, s8),
    LAYOUT_INT(sample_rec, u8),
    LAYOUT_INT(sample_rec, s16),
    LAYOUT_INT(sample_rec, u16),
    LAYOUT_INT(sample_rec, s32),
    LAYOUT_INT(sample_rec, u32),
    LAYOUT_INT(sample_rec, s64),
    LAYOUT_INT(sample_rec, u64),
    LAYOUT_PTR(sample_rec, ptr),
    LAYOUT_AT(sample_rec, gid),
    LAYOUT_RAW_TAG(sample_rec, path.lid, 0x40),
    LAYOUT_RAW(inner_rec, lid),
};
// Raw entries: any field read as an unsigned number of its size.
const layout_field kRawFields[] = {LAYOUT_RAW(sample_rec, s32), LAYOUT_RAW(sample_rec, gid)};
const layout_size kSizes[] = {LAYOUT_SIZE(sample_rec), LAYOUT_SIZE(inner_rec)};
constexpr long long kAnswer = -42;
const layout_constant kConstants[] = {LAYOUT_CONST(kAnswer)};
const layout_table kTable = LAYOUT_TABLE(kFields, kSizes, kConstants);
const layout_table kRawTable = LAYOUT_FIELDS_TABLE(kRawFields);

long long get(const layout_table &table, const char *record, const void *base, const char *field) {
    long long v = 0x5a5a;
    EXPECT_EQ(0, layout_get(&table, record, base, field, &v)) << field;
    return v;
}

TEST(LayoutTable, SignedFieldsReadSignExtendedAndUnsignedOnesZeroExtended) {
    sample_rec r;
    std::memset(&r, 0xff, sizeof r);
    EXPECT_EQ(-1, get(kTable, "sample_rec", &r, "s8"));
    EXPECT_EQ(0xff, get(kTable, "sample_rec", &r, "u8"));
    EXPECT_EQ(-1, get(kTable, "sample_rec", &r, "s16"));
    EXPECT_EQ(0xffff, get(kTable, "sample_rec", &r, "u16"));
    EXPECT_EQ(-1, get(kTable, "sample_rec", &r, "s32"));
    EXPECT_EQ(0xffffffffll, get(kTable, "sample_rec", &r, "u32"));
    EXPECT_EQ(-1, get(kTable, "sample_rec", &r, "s64"));
    EXPECT_EQ(-1, get(kTable, "sample_rec", &r, "u64"));  // all 64 bits, as a long long
    // A raw entry reads the same bits unsigned.
    EXPECT_EQ(0xffffffffll, get(kRawTable, "sample_rec", &r, "s32"));
    r.s16 = 0x1234;
    r.s32 = -0x12345678;
    EXPECT_EQ(0x1234, get(kTable, "sample_rec", &r, "s16"));
    EXPECT_EQ(-0x12345678, get(kTable, "sample_rec", &r, "s32"));
}

TEST(LayoutTable, WritesStoreTheLowBytesOfTheValue) {
    sample_rec r{};
    EXPECT_EQ(0, layout_set(&kTable, "sample_rec", &r, "u16", 0x12345));
    EXPECT_EQ(0x2345, r.u16);
    EXPECT_EQ(0, layout_set(&kTable, "sample_rec", &r, "s8", -2));
    EXPECT_EQ(-2, r.s8);
    EXPECT_EQ(0, r.u8);  // its neighbour is untouched
    EXPECT_EQ(0, layout_set(&kTable, "sample_rec", &r, "ptr", reinterpret_cast<long long>(&r)));
    EXPECT_EQ(&r, r.ptr);
    EXPECT_EQ(0, layout_set(&kTable, "sample_rec", &r, "path.lid", 0xbeef));
    EXPECT_EQ(0xbeef, r.path.lid);
    EXPECT_EQ(0xbeef, get(kTable, "inner_rec", &r.path, "lid"));
}

TEST(LayoutTable, UnknownNamesAndFieldsOfOtherSizesAreRefused) {
    sample_rec r{};
    long long v = 7;
    EXPECT_EQ(-1, layout_get(&kTable, "sample_rec", &r, "nope", &v));
    EXPECT_EQ(-1, layout_get(&kTable, "other_rec", &r, "s8", &v));
    EXPECT_EQ(-1, layout_set(&kTable, "sample_rec", &r, "nope", 1));
    // Reached by offset only.
    EXPECT_EQ(-1, layout_get(&kTable, "sample_rec", &r, "gid", &v));
    EXPECT_EQ(static_cast<long>(offsetof(sample_rec, gid)), layout_offset(&kTable, "sample_rec", "gid"));
    EXPECT_EQ(-1, layout_offset(&kTable, "sample_rec", "nope"));
    // Sixteen bytes: found with its size, but no integer.
    const layout_field *gid = layout_find(&kRawTable, "sample_rec", "gid");
    ASSERT_NE(nullptr, gid);
    EXPECT_EQ(16u, gid->size);
    EXPECT_EQ(offsetof(sample_rec, gid), gid->offset);
    EXPECT_EQ(-1, layout_get(&kRawTable, "sample_rec", &r, "gid", &v));
    EXPECT_EQ(-1, layout_set(&kRawTable, "sample_rec", &r, "gid", 1));
    EXPECT_EQ(7, v);
    EXPECT_EQ(nullptr, layout_find(&kRawTable, "sample_rec", "s8"));
}

TEST(LayoutTable, TagsSizesAndConstants) {
    const layout_field *lid = layout_find(&kTable, "sample_rec", "path.lid");
    ASSERT_NE(nullptr, lid);
    EXPECT_EQ(0x40u, lid->tag);
    EXPECT_EQ(0u, layout_find(&kTable, "sample_rec", "s8")->tag);
    EXPECT_EQ(sizeof(sample_rec), layout_sizeof(&kTable, "sample_rec"));
    EXPECT_EQ(0u, layout_sizeof(&kTable, "nope"));
    EXPECT_EQ(0u, layout_sizeof(&kRawTable, "sample_rec"));  // a table of fields alone
    int found = 0;
    EXPECT_EQ(-42, layout_const(&kTable, "kAnswer", &found));
    EXPECT_EQ(1, found);
    EXPECT_EQ(0, layout_const(&kTable, "kQuestion", &found));
    EXPECT_EQ(0, found);
    EXPECT_EQ(0, layout_const(&kRawTable, "kAnswer", nullptr));
}

}  // namespace
