#include "payload.hpp"

#include <cstring>
#include <sstream>

namespace stress {
namespace {

uint32_t header_check(const MessageHeader &h) {
    uint64_t x = (uint64_t(h.flow) << 32 | h.length) ^ (h.seq * 0x9e3779b97f4a7c15ull) ^ h.magic;
    x ^= x >> 29;
    x *= 0xbf58476d1ce4e5b9ull;
    x ^= x >> 32;
    return uint32_t(x);
}

// The body's bytes: an xorshift stream seeded by the header, eight bytes per step.
struct BodyStream {
    uint64_t state;
    explicit BodyStream(const MessageHeader &h)
        : state((uint64_t(h.flow) << 40) ^ (h.seq * 0xd1b54a32d192ed03ull) ^ h.length ^
                0x2545f4914f6cdd1dull) {
        if (state == 0) state = 1;
    }
    uint64_t next() {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return state;
    }
};

}  // namespace

void fill_message(uint8_t *p, uint32_t flow, uint64_t seq, uint32_t length) {
    MessageHeader h{kMessageMagic, flow, seq, length, 0};
    h.check = header_check(h);
    std::memcpy(p, &h, kHeaderBytes);
    BodyStream s(h);
    size_t i = kHeaderBytes;
    for (; i + 8 <= length; i += 8) {
        const uint64_t v = s.next();
        std::memcpy(p + i, &v, 8);
    }
    if (i < length) {
        const uint64_t v = s.next();
        std::memcpy(p + i, &v, length - i);
    }
}

std::string check_message(const uint8_t *p, size_t length, uint32_t flow, MessageHeader *header) {
    std::ostringstream why;
    if (length < kHeaderBytes) {
        why << length << " bytes arrived, shorter than a header";
        return why.str();
    }
    MessageHeader h;
    std::memcpy(&h, p, kHeaderBytes);
    if (h.magic != kMessageMagic || h.check != header_check(h)) {
        why << "damaged header (" << length << " bytes arrived)";
        return why.str();
    }
    if (h.flow != flow) {
        why << "message " << h.seq << " of flow " << h.flow << " arrived";
        return why.str();
    }
    if (h.length != length) {
        why << "message " << h.seq << " of " << h.length << " bytes arrived as " << length;
        return why.str();
    }
    if (header) *header = h;
    BodyStream s(h);
    size_t i = kHeaderBytes;
    for (; i + 8 <= length; i += 8) {
        const uint64_t v = s.next();
        if (std::memcmp(p + i, &v, 8) != 0) break;
    }
    if (i + 8 > length && i < length) {
        const uint64_t v = s.next();
        if (std::memcmp(p + i, &v, length - i) == 0) i = length;
    } else if (i + 8 > length) {
        i = length;
    }
    if (i < length) {
        why << "message " << h.seq << " (" << length << " bytes) differs from byte " << i;
        return why.str();
    }
    return {};
}

}  // namespace stress
