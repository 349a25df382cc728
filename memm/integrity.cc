// The pool integrity check: every slot carries its pool's id or the free
// marker, the free list holds only free slots, and free + used = alloc.
#include <stdio.h>

#include "memm_private.h"

namespace memm_detail {

namespace {

// Walks the free list; stops at a link that is not a slot of this pool, so
// a corrupted list is reported (as a count mismatch) instead of followed.
bool check_free_list(uint32_t id, const memm_pooldesc *p, uint32_t *free_count, char *msg) {
    uint32_t n = 0;
    for (uint8_t *slot = p->free_head; slot && n <= p->alloc_count; slot = free_link(p, slot)) {
        if (slot < p->storage || slot > p->last_slot || size_t(slot - p->storage) % p->slotsize != 0)
            break;
        if (hdr_state(slot) != MEMM_STATE_FREE) {
            snprintf(msg, kIntegrityMsgSize, "pool %d:%s has used item[0x%08lx] in free list\r\n", int(id), p->name,
                     static_cast<unsigned long>(reinterpret_cast<uintptr_t>(slot)));
            return false;
        }
        n++;
    }
    *free_count = n;
    return true;
}

bool check_pool(uint32_t id, const memm_pooldesc *p, char *msg) {
    const uint8_t *slot = p->storage;
    for (uint32_t i = 0; i < p->alloc_count; i++, slot += p->slotsize) {
        uint32_t state = hdr_state(slot);
        if (state != MEMM_STATE_FREE && state_poolid(state) != id) {
            snprintf(msg, kIntegrityMsgSize, "pool %d:%s item %d:0x%08lx has invalid poolid: %d", int(id), p->name,
                     int(i), static_cast<unsigned long>(reinterpret_cast<uintptr_t>(slot)), int(state_poolid(state)));
            return false;
        }
    }
    uint32_t free_count = 0;
    if (!check_free_list(id, p, &free_count, msg))
        return false;
    if (free_count + p->cur_count != p->alloc_count) {
        snprintf(msg, kIntegrityMsgSize, "pool %d:%s has bookkeeping error (free[%d] + used[%d] != alloc[%d])\r\n",
                 int(id), p->name, int(free_count), int(p->cur_count), int(p->alloc_count));
        return false;
    }
    return true;
}

} // namespace

int loc_memm_integrity_check(char *msg) {
    msg[0] = '\0';
    const uint32_t capacity = g_registry.capacity.load(std::memory_order_relaxed);
    for (uint32_t id = 0; id < capacity; id++) {
        const memm_pooldesc *p = loc_pool(id);
        if (p && !check_pool(id, p, msg))
            return 0;
    }
    return 1;
}

} // namespace memm_detail
