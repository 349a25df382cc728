// The release core and reference counting.
#include "memm_private.h"
#include "poison.h"

namespace memm_detail {

// Pushes a slot on its pool's free list (last released, first reused). The
// object's bytes stay as they were until the slot is taken again.
void loc_release_slot(memm_pooldesc *p, uint8_t *slot) {
    p->cur_count--;
    hdr_set_state(slot, MEMM_STATE_FREE);
    set_free_link(p, slot, p->free_head);
    p->free_head = slot;
    p->free_calls++;
    loc_poison_slot(p, slot);
}

namespace {

// A hook that let the object go may have released it itself already.
uint32_t finish_after_hook(memm_pooldesc *p, uint8_t *slot, void *caller) {
    if (hdr_state(slot) == MEMM_STATE_FREE) {
        loc_log("[MEMM] memm_free: Recursive release detected: %p (poolid = %d) called from %p\r\n",
                static_cast<void *>(slot), int(MEMM_STATE_POOLID_MASK), caller);
        return MEMM_OK;
    }
    loc_release_slot(p, slot);
    return MEMM_OK;
}

// The end of a release after its free_ex hook answered `r`: the slot is
// freed unless the hook kept or failed it.
inline uint32_t finish_free_ex(memm_pooldesc *p, uint8_t *slot, uint32_t r, void *caller) {
    if (r == MEMM_KEEP_OBJECT)
        return MEMM_OK;
    if (r != MEMM_OK) {
        loc_log("[MEMM] memm_free: free_ex failed for: %p (poolid = %d) called from %p\r\n",
                static_cast<void *>(slot), int(state_poolid(hdr_state(slot))), caller);
        return MEMM_ERR_HOOK_FAILED;
    }
    return finish_after_hook(p, slot, caller);
}

} // namespace

// Drops one holder of the object at `slot`; the last holder runs the pool's
// release hook and frees the slot. With `relock` (entered through memm_free)
// the lock is lowered once around a free2_ex hook, so the hook may wait for
// other threads that need the lock.
uint32_t memm__free(uint8_t *slot, void *caller, bool relock) {
    if (!slot)
        return MEMM_OK;
    memm_pooldesc *p = loc_header_pool(slot);
    const uint32_t state = hdr_state(slot);
    const uint32_t id = state_poolid(state);
    if (!p || id == MEMM_POOLDESC_POOL) {
        if (state == MEMM_STATE_FREE)
            loc_log("memm_free(): double Free");
        loc_log("[MEMM] memm_free: Attempt to release invalid pointer: %p (poolid = %d) called from %p\r\n",
                static_cast<void *>(slot), int(id), caller);
        return MEMM_OK;
    }
    if (state > (kRefUnit - 1)) {
        if (p->ref_cur > 0)
            hdr_set_state(slot, state - kRefUnit);
        p->ref_cur--;
        p->free_calls++;
        return MEMM_OK;
    }

    if (p->options.free2_ex) {
        void *obj = slot_to_obj(slot);
        hdr_set_state(slot, state | MEMM_STATE_RELEASING);
        if (relock)
            loc_unlock();
        uint32_t r = p->options.free2_ex(obj, memm_free);
        if (relock)
            loc_lock("memm_free");
        if (r != MEMM_OK) {
            loc_log("[MEMM] memm_free: free2_ex failed for: %p (poolid = %d) called from %p\r\n",
                    static_cast<void *>(slot), int(state_poolid(hdr_state(slot))), caller);
            return MEMM_ERR_HOOK_FAILED;
        }
        return finish_after_hook(p, slot, caller);
    }
    if (p->options.free_ex)
        return finish_free_ex(p, slot, p->options.free_ex(slot_to_obj(slot)), caller);
    loc_release_slot(p, slot);
    return MEMM_OK;
}

} // namespace memm_detail

using namespace memm_detail;

namespace {

// The pool of a release that memm__free would take past its checks, or null
// when it must decide: the header check passes, the object is no
// descriptor, has a single holder and its pool no free2_ex hook.
inline memm_pooldesc *single_holder_pool(const uint8_t *slot) {
    const uint32_t state = hdr_state(slot);
    if (state >= kRefUnit || state_poolid(state) == MEMM_POOLDESC_POOL) // a free slot's state is above too
        return nullptr;
    memm_pooldesc *p = loc_pool(state_poolid(state));
    if (!p || !loc_in_storage(p, slot) || p->options.free2_ex)
        return nullptr;
    return p;
}

void *refalloc_nolock(void *obj) {
    if (!obj)
        return nullptr;
    uint8_t *slot = obj_to_slot(obj);
    const uint32_t state = hdr_state(slot);
    memm_pooldesc *p = loc_pool(state_poolid(state));
    if (!p) {
        loc_log("memm__refalloc() failed (%s)", "invalid object passed");
        return nullptr;
    }
    const uint32_t extra = (state >> MEMM_STATE_REFS_SHIFT) + 1;
    if (extra > MEMM_MAX_EXTRA_REFS) {
        loc_log("memm__refalloc() failed (%s)", "too many references for this object");
        return nullptr;
    }
    hdr_set_state(slot, (state & (kRefUnit - 1)) | (extra << MEMM_STATE_REFS_SHIFT));
    p->ref_cur++;
    if (p->ref_cur > p->ref_max)
        p->ref_max = p->ref_cur;
    memm_pooldesc *p0 = desc_at(0);
    if (p->ref_cur > p0->ref_max)
        p0->ref_max = p->ref_cur;
    return obj;
}

} // namespace

extern "C" {

uint32_t memm_free(void *obj) {
    if (!obj)
        return MEMM_OK;
    void *caller = __builtin_return_address(0);
    PoolLock lock("memm_free");
    uint8_t *slot = obj_to_slot(obj);
    if (memm_pooldesc *p = single_holder_pool(slot)) {
        if (p->options.free_ex) {
            // The hook's second form takes the pool found here (memm__free
            // calls the hook as it is given).
            const uint32_t r = p->options.free_ex == g_pool_hook.hook ? g_pool_hook.with_pool(p, obj)
                                                                       : p->options.free_ex(obj);
            return finish_free_ex(p, slot, r, caller);
        }
        loc_release_slot(p, slot);
        return MEMM_OK;
    }
    return memm__free(slot, caller, true);
}

uint32_t memm_free_nolock(void *obj) {
    if (!obj)
        return MEMM_OK;
    return memm__free(obj_to_slot(obj), __builtin_return_address(0), false);
}

void *memm_refalloc(void *obj) {
    PoolLock lock("memm_refalloc");
    return refalloc_nolock(obj);
}

void *memm_refalloc_nolock(void *obj) { return refalloc_nolock(obj); }

uint32_t memm_get_refcount(void *obj) {
    if (!obj)
        return 0;
    PoolLock lock("memm_get_refcount");
    const uint32_t state = hdr_state(obj_to_slot(obj));
    return loc_pool(state_poolid(state)) ? (state >> MEMM_STATE_REFS_SHIFT) + 1 : 0;
}

} // extern "C"
