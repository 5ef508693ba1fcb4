#include "datapath/wq.hpp"

#include <algorithm>
#include <cstring>

namespace marlix::softhca {

namespace {
uint32_t pow2_at_least(uint32_t n) {
    uint32_t p = 1;
    while (p < n) p <<= 1;
    return p;
}

void copy_payload(SendEntry &to, const SendEntry &from, uint32_t sg_stride, uint32_t inline_stride) {
    std::copy_n(from.sg, std::min(from.sg_count, sg_stride), to.sg);
    if (from.inline_data && to.inline_data)
        std::memcpy(to.inline_data, from.inline_data, std::min(from.inline_len, inline_stride));
}
void copy_payload(RecvEntry &to, const RecvEntry &from, uint32_t sg_stride, uint32_t) {
    // The first entry came with the entry itself.
    const uint32_t n = std::min(from.sg_count, sg_stride);
    if (n > 1) std::copy_n(from.more, n - 1, to.more);
}
void set_areas(SendEntry &e, VAPI_sg_lst_entry_t *sg, uint8_t *inl) {
    e.sg = sg;
    e.inline_data = inl;
}
void set_areas(RecvEntry &e, VAPI_sg_lst_entry_t *sg, uint8_t *) {
    e.more = sg;
}
}  // namespace

template <class Entry>
void WorkRing<Entry>::bind(uint32_t slot) {
    set_areas(slots_[slot], sg_area_.data() + size_t(slot) * sg_area_stride_,
              inline_stride_ ? inline_area_.data() + size_t(slot) * inline_stride_ : nullptr);
}

template <class Entry>
bool WorkRing<Entry>::resize(uint32_t depth, uint32_t sg_stride, uint32_t inline_stride) {
    const uint32_t n = pow2_at_least(std::max<uint32_t>(depth, 1));
    if (n < count()) return false;
    std::vector<Entry> slots(n);
    // Every slot has room for at least one gather entry in the area, even one that keeps it.
    const uint32_t area_stride =
        std::max<uint32_t>(sg_stride, Entry::kGatherInside + 1) - Entry::kGatherInside;
    std::vector<VAPI_sg_lst_entry_t> sg(size_t(n) * area_stride);
    std::vector<uint8_t> inl(size_t(n) * inline_stride);
    WorkRing<Entry> fresh;
    fresh.slots_.swap(slots);
    fresh.sg_area_.swap(sg);
    fresh.inline_area_.swap(inl);
    fresh.depth_ = depth;
    fresh.mask_ = n - 1;
    fresh.sg_stride_ = std::max<uint32_t>(sg_stride, 1);
    fresh.inline_stride_ = inline_stride;
    fresh.sg_area_stride_ = area_stride;
    for (uint32_t i = 0; i < n; ++i) fresh.bind(i);
    // Entries keep their positions, so PSN bookkeeping that refers to them stays valid.
    const uint64_t head = head_.load(), tail = tail_.load();
    for (uint64_t p = head; p != tail; ++p) {
        const Entry &from = at(p);
        Entry &to = fresh.at(p);
        to = from;
        fresh.bind(uint32_t(p & fresh.mask_));  // the copy took the old ring's areas
        copy_payload(to, from, fresh.sg_stride_, fresh.inline_stride_);
    }
    slots_.swap(fresh.slots_);
    sg_area_.swap(fresh.sg_area_);
    inline_area_.swap(fresh.inline_area_);
    depth_ = fresh.depth_;
    mask_ = fresh.mask_;
    sg_stride_ = fresh.sg_stride_;
    inline_stride_ = fresh.inline_stride_;
    sg_area_stride_ = fresh.sg_area_stride_;
    return true;
}

template class WorkRing<SendEntry>;
template class WorkRing<RecvEntry>;

}  // namespace marlix::softhca
