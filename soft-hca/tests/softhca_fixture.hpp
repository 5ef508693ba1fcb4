// A fresh two-device system per test, with no faults and zeroed call counts.
#pragma once

#include <evapi.h>
#include <gtest/gtest.h>

#include "marlix/softhca.hpp"

// A request to register `size` bytes of this process's memory at `start` in `pd`.
inline VAPI_mrw_t virtual_region(VAPI_pd_hndl_t pd, const void *start, size_t size, VAPI_mrw_acl_t acl) {
    VAPI_mrw_t req{};
    req.type = VAPI_MR;
    req.start = reinterpret_cast<uintptr_t>(start);
    req.size = size;
    req.pd_hndl = pd;
    req.acl = acl;
    return req;
}

class SoftHcaTest : public ::testing::Test {
  protected:
    void SetUp() override {
        namespace sh = marlix::softhca;
        sh::clear_faults();
        sh::reset_call_counts();
        sh::set_event_dispatcher(nullptr);
        sh::boot(options());
    }
    void TearDown() override {
        namespace sh = marlix::softhca;
        sh::halt();
        sh::clear_faults();
    }
    virtual marlix::softhca::Options options() { return {}; }

    VAPI_hca_hndl_t open(const char *name = "InfiniHost0") {
        VAPI_hca_hndl_t h = 0;
        EXPECT_EQ(VAPI_open_hca(name, &h), VAPI_OK);
        return h;
    }
};
