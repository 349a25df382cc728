// The family's start, string pools with their record pools and buffers,
// record allocation and the small accessors of a record.
#include <stdlib.h>

#include "dynstr_private.h"

namespace dynstr_detail {

Family g_family;

namespace {

using memm_detail::loc_log;

// The descriptor pool's print2 hook.
void print_pooldesc(void *obj, memm_print_fn print) { print(" - '%s'", static_cast<dynstr_pooldesc *>(obj)->name); }

} // namespace

// A cookie is a string-pool descriptor when it is an object of "dynstr_pool".
dynstr_pooldesc *loc_as_pooldesc(void *cookie) {
    if (!cookie)
        return nullptr;
    // Any pool may carry a cookie: read a header only in front of an object
    // of the descriptor pool, whose storage never grows.
    const uint8_t *slot = static_cast<const uint8_t *>(cookie) - memm_detail::kHdrSize;
    const memm_pooldesc *descs = memm_detail::loc_pool(g_family.class_id);
    if (!descs || !memm_detail::loc_in_storage(descs, slot) ||
        memm_detail::state_poolid(memm_detail::hdr_state(slot)) != g_family.class_id)
        return nullptr;
    return static_cast<dynstr_pooldesc *>(cookie);
}

namespace {

// The allocating entries fill in the new record (maximum size, allocation
// site) under the same hold as the allocation: a listing in another thread
// reads those words under the lock, and allocfrom, 8 bytes that may be only
// 4-byte aligned, cannot be written atomically.
dynstr *calloc_maxsize(uint32_t poolid, uint32_t maxsize, void *caller) {
    memm_detail::PoolLock lock("dynstr_calloc_maxsize");
    dynstr *d = static_cast<dynstr *>(memm_calloc_nolock(poolid));
    if (d) {
        // A maximum above the limit leaves the record without one.
        (void)loc_setmaxsize(d, maxsize);
        set_record_allocfrom(d, caller);
    }
    return d;
}

// Undoes a half-made string pool whose record pool already exists. Pools
// cannot be removed, so the record pool is left as a plain pool without hooks
// or cookie: nothing keeps pointing into the released descriptor slot.
void abandon_pool(dynstr_pooldesc *pool, uint32_t poolid) {
    for (char *&base : pool->buf_base) {
        free(base);
        base = nullptr;
    }
    memm_free_nolock(pool->anchor);
    if (memm_pooldesc *records = memm_detail::loc_pool(poolid)) {
        records->options = memm_pool_options{};
        records->base_count_ptr = nullptr;
        records->reserve_flag_ptr = nullptr;
    }
    memm_free_nolock(pool);
}

} // namespace

int loc_isdynstrpool(uint32_t poolid) { return loc_stringpool(poolid) != nullptr; }

int loc_isdynstring(const void *rec) {
    return rec && loc_getdynstrpool(rec) && !is_deleted(static_cast<const dynstr *>(rec));
}



int loc_dynstr_listfilter(void *rec, uint32_t options) {
    const dynstr *d = static_cast<const dynstr *>(rec);
    if (d && !is_deleted(d))
        return 1;
    return (options & MEMM_LIST_OPT_HIDE_DELETED_DYNSTR) ? 0 : 1;
}

} // namespace dynstr_detail

using namespace dynstr_detail;
using memm_detail::loc_log;
using memm_detail::PoolLock;

extern "C" {

uint32_t dynstr_init(uint32_t pool_count) {
    g_family.blank = dynstr{};
    memm_pool_options options = {};
    options.print2 = print_pooldesc;
    g_family.class_id = memm_initpool(DYNSTR_POOL_NAME, int32_t(pool_count), sizeof(dynstr_pooldesc), &options);
    if (g_family.class_id == MEMM_INVALID_POOL) {
        loc_log("dynstring init failed");
        return MEMM_ERR_NO_MEMORY;
    }
    // At most pool_count string pools: the descriptor pool never grows.
    memm_disallow_expansion(g_family.class_id);
    return MEMM_OK;
}

uint32_t dynstr_initpool2(const char *name, uint32_t count, int32_t total_bytes, int32_t buffers) {
    void *caller = __builtin_return_address(0);
    if (buffers > DYNSTR_MAX_BUFFERS) {
        loc_log("dynstr_initpool(): poolcount exceeds maximum");
        return MEMM_INVALID_POOL;
    }
    if (buffers < 1) {
        loc_log("[DYNSTR] dynstr_initpool(): invalid buffer count %d", int(buffers));
        return MEMM_INVALID_POOL;
    }
    // The record pool holds count + 5 slots, a signed 32-bit pool count.
    if (count > uint32_t(INT32_MAX) - DYNSTR_POOL_RESERVE) {
        loc_log("[DYNSTR] dynstr_initpool(): invalid record count %u", count);
        return MEMM_INVALID_POOL;
    }
    // A buffer larger than the long size form could hold a merged
    // placeholder whose size cannot be stored.
    const int32_t buffersize = total_bytes / buffers;
    if (buffersize < 1 || uint32_t(buffersize) > DYNSTR_LONG_SIZE_MAX) {
        loc_log("[DYNSTR] dynstr_initpool(): invalid buffer size %d", int(buffersize));
        return MEMM_INVALID_POOL;
    }

    PoolLock lock("dynstr_initpool");
    auto *pool = static_cast<dynstr_pooldesc *>(memm_calloc_nolock(g_family.class_id));
    if (!pool)
        return MEMM_INVALID_POOL;
    set_record_allocfrom(pool, caller);

    const uint32_t capacity = count + DYNSTR_POOL_RESERVE;
    memm_pool_options options = {};
    options.print_stats = loc_dynstr_print_stats;
    options.free_ex = loc_dynstr_free_ex;
    options.gc = loc_dynstr_gc_hook;
    options.cookie = pool;
    options.reserve = DYNSTR_POOL_RESERVE;
    options.list_filter = loc_dynstr_listfilter;
    options.print2 = loc_dynstr_printobject;
    const uint32_t poolid = memm_initpool(name, int32_t(capacity), sizeof(dynstr), &options);
    if (poolid == MEMM_INVALID_POOL) {
        loc_log("dynstring init failed");
        memm_free(pool);
        return MEMM_INVALID_POOL;
    }
    memm_disallow_expansion(poolid);

    pool->name = name;
    pool->poolid = poolid;
    pool->buffercount = buffers;
    pool->buffersize = buffersize;
    pool->capacity = capacity;
    pool->mincalls = 0xFFFFFFFFu;
    pool->ctx_limit = capacity / uint32_t(buffers);
    pool->anchor = dynstr_calloc(poolid);
    pool->countptr = memm_get_currentcount_ptr(poolid, &pool->delcount, &pool->ctx_depleted);
    // Each buffer carries the collector's record map behind it.
    const size_t bytes = buffer_bytes(buffersize, buffers, capacity);
    for (int32_t k = 0; k < buffers; k++) {
        pool->buf_base[k] = static_cast<char *>(calloc(1, bytes));
        if (!pool->buf_base[k]) {
            abandon_pool(pool, poolid);
            return MEMM_INVALID_POOL;
        }
    }
    return poolid;
}

uint32_t dynstr_initpool(const char *name, uint32_t count, int32_t total_bytes) {
    return dynstr_initpool2(name, count, total_bytes, count <= DYNSTR_INITPOOL_SMALL_COUNT ? 2 : 4);
}

dynstr *dynstr_calloc(uint32_t pool) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("dynstr_calloc");
    dynstr *d = static_cast<dynstr *>(memm_calloc_nolock(pool));
    if (d)
        set_record_allocfrom(d, caller);
    return d;
}

dynstr *dynstr_calloc_maxsize(uint32_t pool, uint32_t maxsize) {
    return calloc_maxsize(pool, maxsize, __builtin_return_address(0));
}

dynstr *dynstr_calloc_maxsize_nolock(uint32_t pool, uint32_t maxsize) {
    void *caller = __builtin_return_address(0);
    dynstr *d = static_cast<dynstr *>(memm_calloc_nolock(pool));
    if (d) {
        (void)loc_setmaxsize(d, maxsize);
        set_record_allocfrom(d, caller);
    }
    return d;
}

dynstr *dynstr_calloc_maxlen(uint32_t pool, uint32_t maxlen) {
    return calloc_maxsize(pool, maxlen + 1, __builtin_return_address(0));
}

dynstr *dynstr_refalloc(dynstr *d) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("dynstr_refalloc");
    // A released record still in use as a placeholder is no string: a
    // holder taken on it would keep the collector from giving its slot back.
    // Other objects are passed on unchecked, as memm_refalloc takes them.
    if (loc_getdynstrpool(d) && is_deleted(d))
        return nullptr;
    dynstr *r = static_cast<dynstr *>(memm_refalloc_nolock(d));
    if (r)
        set_record_allocfrom(r, caller);
    return r;
}

int dynstr_isdynstring(void *p) {
    PoolLock lock("dynstr_isdynstring");
    return loc_isdynstring(p);
}

uint32_t dynstr_strlen(dynstr *d) {
    if (!d)
        return 0;
    const uint32_t size = size_of(d);
    return size ? size - 1 : 0;
}

uint32_t dynstr_getmaxsize(dynstr *d) {
    if (!dynstr_isdynstring(d)) {
        loc_log("[DYNSTR] \"dynstr_getmaxsize() invalid param\"");
        return 0;
    }
    return DYNSTR_MAXSIZE(d->flags);
}

uint32_t dynstr_setmaxsize_nolock(dynstr *d, uint32_t maxsize) {
    if (!loc_isdynstring(d)) {
        loc_log("[DYNSTR] \"dynstr_setmaxsize() invalid param\"");
        return MEMM_ERR_INVALID_ARG;
    }
    if (maxsize && size_of(d) > maxsize) {
        // A failed cut keeps the text, so it keeps the old maximum too: a
        // maximum below the text's size would break the record.
        const uint32_t cut = loc_setsubstring(d, d->str, nullptr, 0, int32_t(maxsize - 1));
        if (cut != MEMM_OK && size_of(d) > maxsize)
            return cut;
        const uint32_t set = loc_setmaxsize(d, maxsize);
        return cut != MEMM_OK ? cut : set;
    }
    return loc_setmaxsize(d, maxsize);
}

uint32_t dynstr_setmaxsize(dynstr *d, uint32_t maxsize) {
    PoolLock lock("dynstr_setmaxsize");
    return dynstr_setmaxsize_nolock(d, maxsize);
}

uint32_t dynstr_reset(dynstr *d) {
    PoolLock lock("dynstr_reset");
    if (!loc_isdynstring(d)) {
        loc_log("[DYNSTR] \"dynstr_reset() invalid param\"");
        return MEMM_ERR_INVALID_ARG;
    }
    (void)loc_setmaxsize(d, 0);
    return loc_setsubstring(d, "", nullptr, 0, 0);
}

uint32_t dynstr_pool_set_dellist_threshold(uint32_t pool, uint32_t threshold) {
    (void)pool;
    (void)threshold;
    return MEMM_OK;
}

} // extern "C"
