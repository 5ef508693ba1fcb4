// Fixture of the CQ and QP suites: the module loaded, an HCA open through the provider table, and
// helpers that create CQs and QPs the way an upper layer does and read their tracking records.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "adaptor_fixture.hpp"
#include "ulp_verbs_queues.h"

namespace adaptor_test {

inline const int kQOk = kOk, kQErr = kErr, kQErrAllocMem = kAllocMem, kQErrNotImplemented = kNotImplemented,
                 kQErrInvalidState = kInvalidState, kQErrInvalidVendRet = kInvalidVendRet,
                 kQErrInvalidParameter = kInvalidParameter;

// Generic QP types and states by value, read from the shim's names.
inline int qp_type(const char *short_name) {
    return ulp_qp_type_value(short_name);
}
inline int qp_state(const char *short_name) {
    return ulp_qp_state_value(short_name);
}

// An upper layer's completion callback that records what it was given.
struct CompletionSink {
    static inline std::atomic<int> calls{0};
    static inline std::atomic<uint64_t> last_context{0};
    static void callback(uint64_t context) {
        last_context = context;
        calls++;
    }
    static void other_callback(uint64_t context) {
        last_context = context + 1;
        calls += 100;
    }
    static void reset() {
        calls = 0;
        last_context = 0;
    }
};

// A QP attribute record (ox_qp_attr_t) filled by field path.
class QpAttr {
  public:
    QpAttr() : bytes_(ulp_sizeof_qp_attr(), 0) {}
    QpAttr &set(const char *field, uint64_t value) {
        EXPECT_EQ(0, ulp_qp_attr_set(data(), field, value)) << field;
        return *this;
    }
    uint64_t get(const char *field) const {
        uint64_t value = 0;
        EXPECT_EQ(0, ulp_qp_attr_get(data(), field, &value)) << field;
        return value;
    }
    uint8_t *bytes(const char *field) {
        uint8_t *p = ulp_qp_attr_bytes(data(), field);
        EXPECT_NE(nullptr, p) << field;
        return p;
    }
    void *data() { return bytes_.data(); }
    const void *data() const { return bytes_.data(); }

  private:
    std::vector<unsigned char> bytes_;
};

class QueuesFixture : public AdaptorFixture {
  protected:
    void SetUp() override {
        AdaptorFixture::SetUp();
        CompletionSink::reset();
    }

    // Loads the module and opens `device`.
    void open(const char *device = "InfiniHost0") {
        load_ok();
        hca_ = open_hca(device);
        ASSERT_NE(nullptr, hca_);
    }

    void *create_cq(uint32_t entries = 100, void *context = nullptr) {
        void *cq = nullptr;
        uint32_t actual = 0;
        EXPECT_EQ(kQOk,
                  ulp_cq_create(provider(), hca_, entries, &CompletionSink::callback, context, &cq, &actual));
        return cq;
    }
    void destroy_cq(void *cq) { EXPECT_EQ(kQOk, ulp_cq_destroy(provider(), hca_, cq)); }

    // A create request of `type` on the given CQs and PD, with small queues.
    static QpAttr create_request(int type, void *scq, void *rcq, uint32_t pd) {
        QpAttr req;
        req.set("create.qp_type", static_cast<uint64_t>(type))
            .set("create.cq_send_h", reinterpret_cast<uint64_t>(scq))
            .set("create.cq_receive_h", reinterpret_cast<uint64_t>(rcq))
            .set("create.send_max_outstand_wr", 16)
            .set("create.receive_max_outstand_wr", 32)
            .set("create.max_scatgat_per_send_wr", 2)
            .set("create.max_scatgat_per_receive_wr", 3)
            .set("create.pd_h", pd);
        return req;
    }

    uint32_t alloc_pd() {
        uint32_t pd = 0;
        EXPECT_EQ(kQOk, ulp_pd_allocate(provider(), hca_, &pd));
        return pd;
    }

    void *create_qp(int type, void *scq, void *rcq, uint32_t pd, void *context = nullptr,
                    QpAttr *out = nullptr) {
        QpAttr req = create_request(type, scq, rcq, pd);
        QpAttr result;
        void *qp = nullptr;
        EXPECT_EQ(kQOk, ulp_qp_create(provider(), hca_, req.data(), context, &qp, result.data()));
        if (out) *out = result;
        return qp;
    }
    void destroy_qp(void *qp) { EXPECT_EQ(kQOk, ulp_qp_destroy(provider(), hca_, qp)); }

    RecordView cq_record(void *cq) { return RecordView("ox_opened_cq_t", cq); }
    RecordView qp_record(void *qp) { return RecordView("ox_opened_qp_t", qp); }

    void *cq_slot(void *hca, size_t i) {
        return reinterpret_cast<void **>(hca_record(hca)["opened_cq_array"])[i];
    }
    void *qp_slot(void *hca, size_t i) {
        return reinterpret_cast<void **>(hca_record(hca)["opened_qp_array"])[i];
    }
    int cq_list_count(void *hca) { return adp_list_count(hca_record(hca).at("opened_cq_list")); }
    int qp_list_count(void *hca) { return adp_list_count(hca_record(hca).at("opened_qp_list")); }
    void *cq_list_first(void *hca) { return adp_list_first(hca_record(hca).at("opened_cq_list")); }
    void *qp_list_first(void *hca) { return adp_list_first(hca_record(hca).at("opened_qp_list")); }

    // The VAPI handle a record carries.
    unsigned long vapi_cq(void *cq) { return static_cast<unsigned long>(cq_record(cq)["cq_h"]); }
    unsigned long vapi_qp(void *qp) { return static_cast<unsigned long>(qp_record(qp)["qp_h"]); }

    void expect_ring(int slot, const char *index_name, int status) {
        EXPECT_EQ(module_const(index_name), ring_entry(slot)["func_ix_st"]) << "slot " << slot;
        EXPECT_EQ(status, ring_entry(slot)["stat_st"]) << "slot " << slot;
    }
    long long ring_ix() { return *exported<unsigned>("current_avail_ix"); }

    // error_num, VAPI_error_num, mem_alloc_error_num and their companions as a tuple of six.
    std::vector<long long> error_counters() {
        auto s = stats();
        return {s["error_num"],           s["last_error_num"],      s["VAPI_error_num"],
                s["last_VAPI_error_num"], s["mem_alloc_error_num"], s["last_mem_alloc_error_num"]};
    }

    void *hca_ = nullptr;
};

inline std::string hex(unsigned long v) {
    return kptr(reinterpret_cast<void *>(v));
}

}  // namespace adaptor_test
