// Page-aligned, zeroed buffers that an endpoint hands out and frees together. Host memory is the
// emulated kernel's direct map, so any of them is also a kernel buffer.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace marlix::perftest {

class PageBuffers {
  public:
    PageBuffers() = default;
    PageBuffers(const PageBuffers &) = delete;
    PageBuffers &operator=(const PageBuffers &) = delete;
    ~PageBuffers() { release(); }

    // A buffer of at least `length` bytes, rounded up to whole pages; nullptr and `error` set
    // when memory runs out.
    uint8_t *allocate(size_t length, std::string &error) {
        const size_t rounded = (length + 4095) / 4096 * 4096;
        void *p = std::aligned_alloc(4096, rounded);
        if (!p) {
            error = "out of memory for a buffer of " + std::to_string(length) + " bytes";
            return nullptr;
        }
        std::memset(p, 0, rounded);
        buffers_.push_back(p);
        return static_cast<uint8_t *>(p);
    }

    void release() {
        for (void *p : buffers_) std::free(p);
        buffers_.clear();
    }

  private:
    std::vector<void *> buffers_;
};

}  // namespace marlix::perftest
