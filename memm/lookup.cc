// Object validation, identity questions and walks over pool chains.
// Nothing here logs: invalid ids and pointers give the not-found result.
#include "memm_private.h"

namespace memm_detail {

namespace {

// 1 when `obj` is exactly the object of one of the first max_count slots of
// `p`'s own storage (slots ever handed out); the header is not read. The
// pointer may belong to any allocation, so it is compared as a number.
int is_exact_slot(const memm_pooldesc *p, const void *obj) {
    const uintptr_t addr = reinterpret_cast<uintptr_t>(obj), base = reinterpret_cast<uintptr_t>(p->storage);
    if (p->slotsize == 0 || addr < base + kHdrSize)
        return 0;
    const uintptr_t k = (addr - base) / p->slotsize;
    return k < p->max_count && addr == base + k * p->slotsize + kHdrSize;
}

// The family (root pool id) of the object's own pool, 0xFFFFFFFF when none.
uint32_t family_of(void *obj) {
    if (!obj)
        return MEMM_INVALID_POOL;
    const memm_pooldesc *p = loc_pool(state_poolid(hdr_state(obj_to_slot(obj))));
    return p ? p->root_pool : MEMM_INVALID_POOL;
}

// The header check for a pointer that may point anywhere: the header is
// read only once it is known to lie in some pool's storage. The address is
// computed as a number, so a pointer below 16 is no pointer arithmetic.
int isvalidobj_anywhere(const void *obj) {
    const uintptr_t addr = reinterpret_cast<uintptr_t>(obj);
    if (addr < kHdrSize || !loc_storage_pool(addr - kHdrSize))
        return 0;
    return loc_header_pool(static_cast<const uint8_t *>(obj) - kHdrSize) != nullptr;
}

memm_pooldesc *pool_of(void *obj) { return obj ? loc_pool(state_poolid(hdr_state(obj_to_slot(obj)))) : nullptr; }

inline uint8_t *slot_at(const memm_pooldesc *p, uint32_t i) { return p->storage + size_t(i) * p->slotsize; }

// First in-use slot from slot index i of `p` on, then in the pools after it.
// Walks count slots rather than compare addresses, so a pool without
// storage (a descriptor handed out by a direct allocation from pool 0) is
// simply empty.
uint8_t *first_in_use_from(memm_pooldesc *p, uint32_t i) {
    for (; p; p = loc_next_in_chain(p), i = 0)
        for (; i < p->alloc_count; i++)
            if (hdr_state(slot_at(p, i)) != MEMM_STATE_FREE)
                return slot_at(p, i);
    return nullptr;
}

// Shared step of memm_getfirst (no header: start of pool `id`) and
// memm_getnext (the slot after `slot`, in the pool its header names).
void *loc_getnext(uint32_t id, uint8_t *slot) {
    memm_pooldesc *p;
    uint32_t i = 0;
    if (slot) {
        if (!(p = loc_pool(state_poolid(hdr_state(slot)))))
            return nullptr;
        i = uint32_t((slot - p->storage) / p->slotsize) + 1;
    } else if (!(p = loc_pool(id))) {
        return nullptr;
    }
    uint8_t *found = first_in_use_from(p, i);
    return found ? slot_to_obj(found) : nullptr;
}

} // namespace

uint32_t loc_enum_objects(uint32_t id, memm_enum_fn cb, void *ctx, bool single_pool) {
    uint32_t count = 0;
    for (memm_pooldesc *p = loc_pool(id); p; p = single_pool ? nullptr : loc_next_in_chain(p)) {
        for (uint32_t i = 0; i < p->alloc_count; i++) {
            // Read when reached: a callback may release objects ahead.
            if (hdr_state(slot_at(p, i)) == MEMM_STATE_FREE)
                continue;
            count++;
            if (!cb || !cb(slot_to_obj(slot_at(p, i)), ctx))
                break;
        }
    }
    return count;
}

} // namespace memm_detail

using namespace memm_detail;

extern "C" {

// ---- validity -------------------------------------------------------------

int memm_isvalidobj(void *obj) {
    PoolLock lock("memm_isvalidobj");
    return isvalidobj_anywhere(obj);
}

int memm_isvalidobj_nolock(void *obj) { return isvalidobj_anywhere(obj); }

int memm_isvalidobjfrompool(uint32_t poolid, void *obj) {
    if (!obj)
        return 0;
    PoolLock lock("memm_isvalidobjfrompool");
    const memm_pooldesc *p = loc_pool(poolid);
    return p ? is_exact_slot(p, obj) : 0;
}

int memm_isvalidobj_ex(void *obj) {
    if (!obj)
        return 0;
    PoolLock lock("memm_isvalidobj_ex");
    const uint32_t used = loc_pool_count();
    for (uint32_t id = 0; id < used; id++) {
        const memm_pooldesc *p = loc_pool(id);
        if (p && is_exact_slot(p, obj))
            return 1;
    }
    return 0;
}

// ---- identity ---------------------------------------------------------------

int memm_instanceof(void *obj, uint32_t poolid) {
    PoolLock lock("memm_instanceof");
    return family_of(obj) == poolid;
}

int memm_instanceof_no_ori(void *obj, uint32_t poolid) {
    return (obj ? state_poolid(hdr_state(obj_to_slot(obj))) : MEMM_INVALID_POOL) == poolid;
}

int memm_instanceof_with_mem_range_check(void *obj, uint32_t poolid) {
    {
        PoolLock lock("memm_instanceof");
        const memm_pooldesc *p = loc_pool(poolid);
        const uint8_t *slot = obj ? obj_to_slot(obj) : nullptr;
        if (!p || !loc_in_storage(p, slot))
            return 0;
    }
    return memm_instanceof(obj, poolid);
}

uint32_t memm_get_poolid(void *obj) { return obj ? state_poolid(hdr_state(obj_to_slot(obj))) : MEMM_INVALID_POOL; }

const char *memm_get_poolname2(uint32_t poolid) {
    PoolLock lock("memm_get_poolname2");
    const memm_pooldesc *p = loc_pool(poolid);
    return p ? p->name : MEMM_INVALID_POOLNAME;
}

const char *memm_get_poolname(void *obj) { return memm_get_poolname2(memm_get_poolid(obj)); }

void *memm_getpoolcookie_nolock(void *obj) {
    const memm_pooldesc *p = pool_of(obj);
    return p ? p->options.cookie : nullptr;
}

void *memm_getpoolcookie(void *obj) {
    PoolLock lock("memm_getpoolcookie");
    return memm_getpoolcookie_nolock(obj);
}

void *memm_getpoolcookie_bypoolid_nolock(uint32_t poolid) {
    const memm_pooldesc *p = loc_pool(poolid);
    return p ? p->options.cookie : nullptr;
}

void *memm_getpoolcookie_bypoolid(uint32_t poolid) {
    PoolLock lock("memm_getpoolcookie_bypoolid");
    return memm_getpoolcookie_bypoolid_nolock(poolid);
}

uint32_t memm_get_number_of_pools(void) { return loc_pool_count(); }

uint32_t *memm_get_currentcount_ptr(uint32_t poolid, uint32_t *base_count, uint32_t *reserve_flag) {
    PoolLock lock("memm_get_currentcount_ptr");
    memm_pooldesc *p = loc_pool(poolid);
    if (!p)
        return nullptr;
    p->base_count_ptr = base_count;
    p->reserve_flag_ptr = reserve_flag;
    return &p->cur_count;
}

memm_pooldesc *memm_get_pool_nolock(uint32_t poolid) { return loc_pool(poolid); }

// ---- indexes ------------------------------------------------------------------

uint32_t memm_getindex(void *obj) {
    if (!obj)
        return 0;
    PoolLock lock("memm_getindex");
    const uint32_t own_id = state_poolid(hdr_state(obj_to_slot(obj)));
    const memm_pooldesc *own = loc_pool(own_id);
    if (!own)
        return 0;
    uint32_t index = 0;
    for (const memm_pooldesc *p = loc_pool(own->root_pool); p && p != own; p = loc_next_in_chain(p))
        index += p->alloc_count;
    return index + uint32_t((obj_to_slot(obj) - own->storage) / own->slotsize);
}

void *memm_getobject_byindex(uint32_t poolid, int32_t index) {
    PoolLock lock("memm_getobject_byindex");
    if (index < 0)
        return nullptr;
    uint32_t n = uint32_t(index);
    for (memm_pooldesc *p = loc_pool(poolid); p; p = loc_next_in_chain(p)) {
        if (n < p->alloc_count) {
            uint8_t *slot = p->storage + size_t(n) * p->slotsize;
            return state_poolid(hdr_state(slot)) == loc_pool_id(p) ? slot_to_obj(slot) : nullptr;
        }
        n -= p->alloc_count;
    }
    return nullptr;
}

// ---- walks --------------------------------------------------------------------

void *memm_search(uint32_t poolid, void *ctx, memm_match_fn match) {
    PoolLock lock("memm_search");
    if (!match)
        return nullptr;
    // The walk keeps its own position: a match function may release the
    // object it is shown, which ends that object's header but not the walk.
    for (memm_pooldesc *p = loc_pool(poolid); p; p = loc_next_in_chain(p))
        for (uint32_t i = 0; i < p->alloc_count; i++)
            if (hdr_state(slot_at(p, i)) != MEMM_STATE_FREE && match(slot_to_obj(slot_at(p, i)), ctx))
                return slot_to_obj(slot_at(p, i));
    return nullptr;
}

void *memm_getfirst(uint32_t poolid) {
    PoolLock lock("memm_getfirst");
    return loc_getnext(poolid, nullptr);
}

void *memm_getnext(void *obj) {
    PoolLock lock("memm_getnext");
    return obj ? loc_getnext(MEMM_INVALID_POOL, obj_to_slot(obj)) : nullptr;
}

uint32_t memm_enum_objects(uint32_t poolid, memm_enum_fn cb, void *ctx) {
    PoolLock lock("memm_enum_objects");
    return loc_enum_objects(poolid, cb, ctx, false);
}

uint32_t memm_enum_objects_nolock(uint32_t poolid, memm_enum_fn cb, void *ctx) {
    return loc_enum_objects(poolid, cb, ctx, false);
}

} // extern "C"
