#include "datapath/packet.hpp"

#include <algorithm>
#include <cstring>

namespace marlix::softhca {

void Packet::read_payload_pieces(uint64_t skip, uint8_t *dst, size_t len) const {
    for (uint32_t i = 0; i < span_count && len > 0; ++i) {
        const ByteSpan &s = spans[i];
        if (skip >= s.len) {
            skip -= s.len;
            continue;
        }
        size_t n = std::min<size_t>(s.len - skip, len);
        std::memcpy(dst, s.ptr + skip, n);
        dst += n;
        len -= n;
        skip = 0;
    }
}

}  // namespace marlix::softhca
