// What both endpoints keep around their verbs: the test buffers they hand out, the completion
// events of the CQs made with events, and the way a failed set-up call is reported. Each endpoint
// adds only its verbs: how a call is made and named, and what its handles are.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "perftest/page_buffers.hpp"
#include "perftest/transport.hpp"

namespace marlix::perftest {

// Completion events of one CQ: counted by the layer's handler (on the kernel's interrupt thread),
// waited for by the test.
class CqEvents {
  public:
    // From the layer's completion handler.
    void signal() {
        {
            std::lock_guard lk(mu_);
            ++count_;
        }
        cv_.notify_all();
    }
    // At an arm: only events after it count.
    void arm() {
        std::lock_guard lk(mu_);
        seen_ = count_;
    }
    // Waits up to `timeout_ms` for an event after the last arm (or the last event waited for).
    bool wait(int timeout_ms) {
        std::unique_lock lk(mu_);
        if (!cv_.wait_for(lk, std::chrono::milliseconds(timeout_ms), [&] { return count_ != seen_; }))
            return false;
        seen_ = count_;
        return true;
    }

  private:
    std::mutex mu_;
    std::condition_variable cv_;
    uint32_t count_ = 0;
    uint32_t seen_ = 0;
};

class EndpointBase : public Endpoint {
  public:
    uint8_t *allocate_buffer(size_t length, std::string &error) final {
        return buffers_.allocate(length, error);
    }

    bool wait_event(CqId cq, int timeout_ms) final {
        CqEvents *ev = events_of(cq);
        return ev && ev->wait(timeout_ms);
    }

  protected:
    // "<call> failed: <status name> (<status>)".
    virtual std::string failure(const char *call, int status) const = 0;

    // A set-up call's status: true for success (0 in both layers), else false with the call and
    // its status in `error`.
    bool succeeded(int status, const char *call, std::string &error) const {
        if (status == 0) return true;
        error = failure(call, status);
        return false;
    }

    // The events of a CQ made with events; they live as long as the endpoint, so that a handler
    // still running after the CQ is gone finds them.
    void keep_events(CqId cq, std::unique_ptr<CqEvents> events) {
        events_.emplace_back(cq, std::move(events));
    }
    CqEvents *events_of(CqId cq) {
        for (auto &e : events_)
            if (e.first == cq) return e.second.get();
        return nullptr;
    }
    // Before the layer's arm: events of the CQ from before do not count.
    void arm_events(CqId cq) {
        if (CqEvents *ev = events_of(cq)) ev->arm();
    }

  private:
    PageBuffers buffers_;
    std::vector<std::pair<CqId, std::unique_ptr<CqEvents>>> events_;
};

}  // namespace marlix::perftest
