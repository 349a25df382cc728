// Handing out a free slot, inline for the allocators' fast paths (the pool
// pair and the one-pass string constructor).
#ifndef MEMM_TAKE_SLOT_H
#define MEMM_TAKE_SLOT_H

#include "memm_private.h"
#include "poison.h"

namespace memm_detail {

// Zero-fills n bytes (4 <= n, a multiple of 4) at a 4-byte aligned address.
// Object areas are mostly small: up to 64 bytes two stores of a fixed size
// from both ends, which may overlap, save the call.
inline void zero_area(uint8_t *area, size_t n) {
    static const uint8_t zeros[32] = {};
    if (n > 64)
        memset(area, 0, n);
    else if (n >= 32) {
        memcpy(area, zeros, 32);
        memcpy(area + n - 32, zeros, 32);
    } else if (n >= 16) {
        memcpy(area, zeros, 16);
        memcpy(area + n - 16, zeros, 16);
    } else if (n >= 8) {
        memcpy(area, zeros, 8);
        memcpy(area + n - 8, zeros, 8);
    } else {
        memcpy(area, zeros, 4);
        memcpy(area + n - 4, zeros, 4);
    }
}

// Pops the head of p's free list (which must not be empty) and hands the
// slot out zero-filled but for its state word and allocfrom: the header is
// written whole, then only the object area is cleared. Counts it in use and
// raises the pool's peaks to `peak` objects in use (at least the new count).
inline uint8_t *loc_take_slot_noting(memm_pooldesc *p, uint32_t id, void *allocfrom, uint32_t peak) {
    uint8_t *slot = p->free_head;
    p->free_head = free_link(p, slot);
    loc_unpoison_slot(p, slot);
    hdr_write(slot, id, allocfrom);
    zero_area(slot + kHdrSize, p->slotsize - kHdrSize);
    p->cur_count++;
    loc_note_count(p, peak);
    return slot;
}

inline uint8_t *loc_take_slot(memm_pooldesc *p, uint32_t id, void *allocfrom) {
    return loc_take_slot_noting(p, id, allocfrom, p->cur_count + 1);
}

} // namespace memm_detail

#endif
