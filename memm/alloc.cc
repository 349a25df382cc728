// The allocation core: LIFO free lists, the gc retry of collecting pools,
// chains of extension pools, table enlargement and depletion.
#include <unistd.h>

#include "take_slot.h"

namespace memm_detail {

namespace {

constexpr const char *kDepletedText = "pool depleted";

bool has_two_free_slots(const memm_pooldesc *p) { return p->free_head && free_link(p, p->free_head); }

// Reports a pool that cannot serve an allocation: loudly and with report
// files the first time, with one line per failure while it may "reboot".
void loc_deplete(memm_pooldesc *p) {
    char msg[kIntegrityMsgSize] = "";
    if (!loc_memm_integrity_check(msg))
        loc_log("[MEMM] integrity check failed: %s", msg);
    // The report runs the pools' print hooks; one that allocates from the
    // depleted pool must not start the same report again inside it.
    static bool reporting = false;
    if (!(p->flags & MEMM_POOLFLAG_DEPLETION_REPORTED) && !reporting) {
        reporting = true;
        loc_log("memm__calloc() failed for pool '%s' (%s), POOL DEPLETED !!!!!!!!!!!!!!!", p->name, kDepletedText);
        loc_memm_dump_stats("", uint32_t(getpid()), MEMM_REASON_POOL_DEPLETED, msg);
        loc_handle_list_objects(p->name, 0, 1, MEMM_REASON_POOL_DEPLETED);
        p->flags |= MEMM_POOLFLAG_DEPLETION_REPORTED;
        reporting = false;
    }
    if (p->flags & MEMM_POOLFLAG_REBOOT_ON_DEPLETION)
        loc_log("memm__calloc() failed for pool '%s' (%s)", p->name, kDepletedText);
}

uint32_t grown_capacity(uint32_t capacity) { return capacity * 3 / 2 + 2; }

void log_table_enlarged(uint32_t capacity) {
    loc_log("[MEMM] Info: Pooldescr [%s] reallocated to increase its size (%d elements)", desc_at(0)->name,
            int(capacity));
}

// Pool 0 is never extended: a full descriptor table is enlarged instead.
uint8_t *grow_descriptor_table(int32_t attempt, bool collect) {
    memm_pooldesc *p0 = desc_at(0);
    uint32_t capacity = grown_capacity(p0->alloc_count);
    if (loc_init_pooldesc(capacity) != MEMM_OK) {
        loc_log("[MEMM] Error: Failed to extend pool [%d: %s] with an extra dynamic pool", 0, p0->name);
        loc_deplete(p0);
        return nullptr;
    }
    log_table_enlarged(p0->alloc_count);
    uint8_t *slot = memm__calloc(MEMM_POOLDESC_POOL, attempt, collect, false);
    if (!slot)
        loc_deplete(p0);
    return slot;
}

// Serves an allocation of a full root pool from its chain: the first
// extension with a free slot, else a new extension (at most five per chain).
uint8_t *grow_chain(uint32_t root_id, int32_t attempt, bool collect) {
    memm_pooldesc *root = desc_at(root_id);
    uint32_t last_id = root_id;
    int extensions = 0;
    for (uint32_t e = root->next_pool; e != 0 && loc_pool(e); e = desc_at(e)->next_pool) {
        if (uint8_t *slot = memm__calloc(e, attempt, collect, false))
            return slot;
        last_id = e;
        extensions++;
    }
    if (extensions >= MEMM_MAX_EXTENSION_POOLS) {
        loc_deplete(root);
        return nullptr;
    }
    if (root_id == MEMM_POOLDESC_POOL)
        return grow_descriptor_table(attempt, collect);

    memm_pooldesc *p0 = desc_at(0);
    if (p0->max_count == p0->alloc_count) {
        uint32_t capacity = grown_capacity(p0->alloc_count);
        if (loc_init_pooldesc(capacity) == MEMM_OK)
            log_table_enlarged(p0->alloc_count);
        else
            loc_log("[MEMM] Info: Failed to reallocate pooldescr [%s] to increase its size (%d elements)", p0->name,
                    int(capacity));
    }
    const int32_t n = root->alloc_count <= 15 ? 3 : int32_t(root->alloc_count / 5);
    uint32_t ext_id = loc__initpool(root->name, n, int32_t(root->slotsize - 4), &root->options, root_id,
                                    __builtin_return_address(0));
    if (ext_id == MEMM_INVALID_POOL) {
        loc_log("[MEMM] Error: Failed to extend pool [%d: %s] with an extra dynamic pool", int(root_id), root->name);
        loc_deplete(root);
        return nullptr;
    }
    loc_log("[MEMM] Info: Pool [%d: %s] extended with an extra dynamic pool (%d, %d elements)", int(root_id),
            root->name, int(ext_id), n);
    desc_at(last_id)->next_pool = ext_id;
    desc_at(ext_id)->root_pool = root_id;
    uint8_t *slot = memm__calloc(ext_id, attempt, collect, false);
    if (!slot)
        loc_deplete(root);
    return slot;
}

} // namespace

uint8_t *memm__calloc(uint32_t id, int32_t attempt, bool collect, bool fromroot) {
    memm_pooldesc *p = loc_pool(id);
    if (!p)
        return nullptr;
    if (fromroot && p->root_pool != id) {
        id = p->root_pool;
        if (!(p = loc_pool(id)))
            return nullptr;
    }
    uint8_t *slot = nullptr;
    int counter;
    if (p->options.gc && collect) {
        if (has_two_free_slots(p)) {
            slot = loc_take_slot(p, id, nullptr);
            counter = MEMM_ALLOC_CALLS_FIRST_FREE;
        } else {
            if (attempt < kMaxGcAttempts && p->options.gc(p->options.cookie, attempt))
                slot = memm__calloc(id, attempt + 1, true, false);
            counter = MEMM_ALLOC_CALLS_DYNPOOL;
        }
    } else {
        const bool reserve_hit = p->options.gc && !collect &&
                                 int32_t(p->cur_count + uint32_t(p->options.reserve)) >= int32_t(p->alloc_count);
        if (p->free_head) {
            slot = loc_take_slot(p, id, nullptr);
            counter = MEMM_ALLOC_CALLS_FIRST_FREE;
        } else if (p->flags & MEMM_POOLFLAG_NO_EXPANSION) {
            loc_deplete(p);
            counter = MEMM_ALLOC_CALLS_DYNPOOL;
        } else if (!fromroot) {
            return nullptr;
        } else {
            slot = grow_chain(id, attempt, collect);
            counter = MEMM_ALLOC_CALLS_DYNPOOL;
        }
        if (reserve_hit && p->reserve_flag_ptr)
            *p->reserve_flag_ptr = 1;
    }
    if (p->root_pool == id) {
        p->alloc_calls[MEMM_ALLOC_CALLS_TOTAL]++;
        p->alloc_calls[counter]++;
    }
    return slot;
}

namespace {

// The common allocation in one piece, or null when the general path must
// decide: it takes exactly what memm__calloc(id, 0, yes, yes) takes and
// counts it the same way, for a root pool without a gc hook (no retry, no
// reserve) whose free list is not empty (no chain, no depletion).
inline void *calloc_fast(uint32_t id, void *caller) {
    memm_pooldesc *p = loc_pool(id);
    if (!p || p->root_pool != id || p->options.gc || !p->free_head)
        return nullptr;
    uint8_t *slot = loc_take_slot(p, id, caller);
    p->alloc_calls[MEMM_ALLOC_CALLS_TOTAL]++;
    p->alloc_calls[MEMM_ALLOC_CALLS_FIRST_FREE]++;
    return slot_to_obj(slot);
}

} // namespace

void *loc_calloc_entry(uint32_t id, bool collect, bool fromroot, void *caller) {
    uint8_t *slot = memm__calloc(id, 0, collect, fromroot);
    if (!slot)
        return nullptr;
    hdr_set_allocfrom(slot, caller);
    return slot_to_obj(slot);
}

} // namespace memm_detail

using namespace memm_detail;

namespace {

// Applies a policy switch to a root pool; any other id is ignored.
void set_root_flag(uint32_t id, uint8_t flag, bool on) {
    memm_pooldesc *p = loc_pool(id);
    if (!p || p->root_pool != id)
        return;
    if (on)
        p->flags |= flag;
    else
        p->flags &= uint8_t(~flag);
}

} // namespace

extern "C" {

void *memm_calloc(uint32_t poolid) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("memm_calloc");
    if (void *obj = calloc_fast(poolid, caller))
        return obj;
    return loc_calloc_entry(poolid, true, true, caller);
}

void *memm_calloc_nolock(uint32_t poolid) {
    return loc_calloc_entry(poolid, true, true, __builtin_return_address(0));
}

void *memm_calloc_nolock_nogc(uint32_t poolid) {
    return loc_calloc_entry(poolid, false, false, __builtin_return_address(0));
}

void memm_disallow_expansion(uint32_t poolid) {
    PoolLock lock("memm_disallow_expansion");
    set_root_flag(poolid, MEMM_POOLFLAG_NO_EXPANSION, true);
}

void memm_depletion_no_reboot(uint32_t poolid) {
    PoolLock lock("memm_depletion_no_reboot");
    set_root_flag(poolid, MEMM_POOLFLAG_REBOOT_ON_DEPLETION, false);
}

} // extern "C"
