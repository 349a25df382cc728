// Releasing a record whose text lies in a buffer: the record stays behind as
// a deleted placeholder for its bytes, merges with deleted neighbours, and is
// given back at once when it ends its buffer.
//
// Merging joins two adjacent placeholders into one C string by overwriting
// the terminator between them with '&', so the placeholder still satisfies
// strlen + 1 == size:
//   [ "ab\0" del ][ "cde\0" del ]  =>  [ "ab&cde\0" del ]
#include "dynstr_private.h"

namespace dynstr_detail {

namespace {

using memm_detail::loc_log;

void mark_deleted(dynstr_pooldesc *pool, dynstr *d, uint32_t k) {
    const uint32_t size = size_of(d);
    d->flags |= DYNSTR_FLAG_DELETED;
    pool->buf_delcount[k]++;
    pool->buf_delbytes[k] += size;
    pool->del_total++;
    pool->delbytes_total += size;
    pool->delcount++;
    pool->delbytes += size;
    if (!pool->buf_firstdel[k] || pool->buf_firstdel[k]->str > d->str)
        pool->buf_firstdel[k] = d;
    (void)loc_setmaxsize(d, 0);
}

// Absorbs a deleted predecessor and a deleted successor into d.
void loc_merge_deleted_dynstr(dynstr_pooldesc *pool, dynstr *d, uint32_t k) {
    dynstr *prev = d->prev;
    if (prev && is_deleted(prev)) {
        if (prev->str + size_of(prev) == d->str) {
            d->str[-1] = '&';
            d->str = prev->str;
            loc_setstrsize(d, size_of(prev) + size_of(d));
            if (pool->buf_firstdel[k] == prev)
                pool->buf_firstdel[k] = d;
            loc_dynstr_unlink(pool, prev->prev, prev, d, k);
            note_text(pool, k, d);
        } else {
            loc_log("[DYNSTR] loc_merge_deleted_dynstr: non-successive dynstr (prev) - no merge");
        }
    }
    dynstr *next = d->next;
    if (next && is_deleted(next)) {
        if (next->str == d->str + size_of(d)) {
            next->str[-1] = '&';
            loc_setstrsize(d, size_of(d) + size_of(next));
            loc_dynstr_unlink(pool, d, next, next->next, k);
        } else {
            loc_log("[DYNSTR] loc_merge_deleted_dynstr: non-successive dynstr (next) - no merge");
        }
    }
}

// A placeholder that ends its buffer is dead tail: zero it (the free tail
// stays all zero) and give bytes and slot back.
void cut_off(dynstr_pooldesc *pool, dynstr *d, uint32_t k) {
    const uint32_t size = size_of(d);
    memset(d->str, 0, size);
    pool->buf_used[k] -= size;
    pool->usedbytes -= size;
    pool->delbytes -= size;
    pool->recup_bytes += size;
    pool->buf_delbytes[k] -= size;
    if (pool->buf_firstdel[k] == d)
        pool->buf_firstdel[k] = nullptr;
    loc_dynstr_unlink(pool, d->prev, d, nullptr, k);
}

// The last text of its buffer with no placeholder in front of it: what
// mark_deleted and cut_off do together, each counter changed once (the
// deleted counts and bytes would rise and fall straight back).
void cut_off_at_once(dynstr_pooldesc *pool, memm_pooldesc *records, dynstr *d, uint32_t k) {
    const uint32_t size = size_of(d);
    d->flags |= DYNSTR_FLAG_DELETED;
    (void)loc_setmaxsize(d, 0);
    pool->del_total++;
    pool->delbytes_total += size;
    // mark_deleted would make d the first deleted record, cut_off forget it.
    if (pool->buf_firstdel[k] && pool->buf_firstdel[k]->str > d->str)
        pool->buf_firstdel[k] = nullptr;
    zero_text(d->str, size);
    pool->buf_used[k] -= size;
    pool->usedbytes -= size;
    pool->recup_bytes += size;
    dynstr *prev = d->prev;
    if (prev)
        prev->next = nullptr;
    else
        pool->buf_first[k] = nullptr;
    pool->buf_last[k] = prev;
    d->str = nullptr;
    pool->buf_count[k]--;
    pool->recup_ctx++;
    release_unbuffered(records, d);
}

// The release hook's work for a record of pool `records` (null: none).
uint32_t release_record(memm_pooldesc *records, dynstr *d) {
    dynstr_pooldesc *pool = records ? string_pool_of(records) : nullptr;
    if (!pool) {
        loc_log("[DYNSTR] \"loc_dynstr_free_ex invalid param\"");
        return MEMM_ERR_INVALID_ARG;
    }
    const uint32_t k = buffer_of(d);
    if (!d->str || k == kNoBuffer)
        return MEMM_OK; // no buffer bytes: the slot simply goes back
    if (g_family.gc_running) {
        // The collector releases a placeholder it has already squeezed out.
        pool->buf_count[k]--;
        return MEMM_OK;
    }
    if (is_deleted(d)) {
        loc_log("[DYNSTR] loc_dynstr_free_ex: dynstr is already freed");
        return MEMM_ERR_INVALID_ARG;
    }
    if (pool->buf_last[k] == d && !d->next && !(d->prev && is_deleted(d->prev))) {
        cut_off_at_once(pool, records, d, k);
        return MEMM_KEEP_OBJECT;
    }
    mark_deleted(pool, d, k);
    loc_merge_deleted_dynstr(pool, d, k);
    if (pool->buf_last[k] == d)
        cut_off(pool, d, k);
    // The slot is kept as a placeholder, or was already released by cut_off.
    return MEMM_KEEP_OBJECT;
}

uint32_t release_with_pool(memm_pooldesc *records, void *rec) {
    return release_record(records, static_cast<dynstr *>(rec));
}

} // namespace

uint32_t loc_dynstr_free_ex(void *rec) {
    auto *d = static_cast<dynstr *>(rec);
    return release_record(d ? pool_of_object(d) : nullptr, d);
}

void loc_dynstr_unlink(dynstr_pooldesc *pool, dynstr *prev, dynstr *d, dynstr *next, uint32_t k) {
    if (prev)
        prev->next = next;
    else
        pool->buf_first[k] = next;
    if (next)
        next->prev = prev;
    else
        pool->buf_last[k] = prev;
    d->str = nullptr; // no buffer bytes left: the release hook has nothing to do
    pool->buf_count[k]--;
    pool->delcount--;
    pool->recup_ctx++;
    pool->buf_delcount[k]--;
    release_unbuffered(records_of(pool), d);
}

} // namespace dynstr_detail

// A record's release finds its pool once (memm_private.h).
const memm_detail::PoolHook memm_detail::g_pool_hook = {dynstr_detail::loc_dynstr_free_ex,
                                                        dynstr_detail::release_with_pool};
