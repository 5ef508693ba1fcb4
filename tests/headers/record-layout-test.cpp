// Field order of the interface and tracking records, and agreement between the C and the C++
// compiler on every probed size and offset.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "probes.h"

namespace {

unsigned long OffsetOf(const std::string &record, const std::string &field) {
    for (unsigned long i = 0; i < ox_cpp_field_count; ++i)
        if (record == ox_cpp_fields[i].record && field == ox_cpp_fields[i].field)
            return ox_cpp_fields[i].offset;
    ADD_FAILURE() << "no probe for " << record << "." << field;
    return ~0ul;
}

TEST(RecordLayout, CAndCppSeeTheSameSizesAndOffsets) {
    ASSERT_EQ(ox_c_layout_count, ox_cpp_layout_count);
    for (unsigned long i = 0; i < ox_cpp_layout_count; ++i)
        EXPECT_EQ(ox_c_layout[i].value, ox_cpp_layout[i].value) << ox_cpp_layout[i].what;
    ASSERT_EQ(ox_c_field_count, ox_cpp_field_count);
    for (unsigned long i = 0; i < ox_cpp_field_count; ++i)
        EXPECT_EQ(ox_c_fields[i].offset, ox_cpp_fields[i].offset)
            << ox_cpp_fields[i].record << "." << ox_cpp_fields[i].field;
}

TEST(RecordLayout, FieldsOfEveryRecordAreInDeclarationOrder) {
    std::map<std::string, std::vector<const ox_field_probe *>> by_record;
    for (unsigned long i = 0; i < ox_cpp_field_count; ++i)
        by_record[ox_cpp_fields[i].record].push_back(&ox_cpp_fields[i]);
    EXPECT_GE(by_record.size(), 40u);
    for (const auto &[record, fields] : by_record) {
        for (size_t i = 1; i < fields.size(); ++i) {
            // Typed links share the list node: `prev` follows `next`, nothing precedes them.
            EXPECT_LT(fields[i - 1]->offset, fields[i]->offset)
                << record << "." << fields[i]->field << " is not after " << fields[i - 1]->field;
        }
        EXPECT_EQ(fields.front()->offset, 0u) << record << " starts with " << fields.front()->field;
    }
}

TEST(RecordLayout, WorkRequestAndCompletionStartWithTheRequestId) {
    EXPECT_EQ(OffsetOf("ox_wr_t", "wr_id"), 0u);
    EXPECT_EQ(OffsetOf("ox_wr_t", "completion_notification"), 8u);
    EXPECT_EQ(OffsetOf("ox_wc_t", "wr_id"), 0u);
    EXPECT_EQ(OffsetOf("ox_wc_t", "operation_type"), 8u);
}

TEST(RecordLayout, ProviderRecord) {
    EXPECT_EQ(OffsetOf("ox_hca_prov_t", "next"), 0u);
    EXPECT_EQ(OffsetOf("ox_hca_prov_t", "prev"), 8u);
    EXPECT_EQ(OffsetOf("ox_hca_prov_t", "hp_name"), 16u);
    EXPECT_EQ(OffsetOf("ox_hca_prov_t", "hp_funcs"), 24u);
    EXPECT_EQ(OffsetOf("ox_hca_prov_t", "hp_devices"), 32u);
    EXPECT_EQ(OffsetOf("ox_hca_prov_t", "hp_open_hcas"), 32u + 90 * 8);
}

TEST(RecordLayout, TrackingRecordsStartWithTheirLinks) {
    for (const char *record : {"ox_opened_hca_t", "ox_gen_mr_element_t", "ox_opened_cq_t", "ox_opened_qp_t",
                               "ox_asy_ev_element_t", "ox_async_eve_cb_element_t"}) {
        EXPECT_EQ(OffsetOf(record, "next"), 0u) << record;
        EXPECT_EQ(OffsetOf(record, "prev"), 8u) << record;
    }
}

TEST(RecordLayout, PhysicalBufferIsStartThenSize) {
    EXPECT_EQ(OffsetOf("ox_phy_buf_t", "start"), 0u);
    EXPECT_EQ(OffsetOf("ox_phy_buf_t", "size"), 8u);
}

TEST(TrackingRecords, RecordsLinkedThroughTheNodeAreReachedThroughTheTypedLinks) {
    EXPECT_EQ(ox_probe_list_links(), 0);
}

}  // namespace
