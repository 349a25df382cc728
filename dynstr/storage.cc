// Placement: the size field, the current buffer's free position, dynmem
// staging, detaching a record's old text, and settling a written text into
// the current buffer (loc_dynstr_updatepool).
//
// The write protocol every writer follows:
//   1. remember the record's maximum size
//   2. loc_dynstr_detach: a temporary record takes over the old text and its
//      place in the allocation list; the record is blank
//   3. loc_getfreespace: write the new text at the current buffer's free
//      position if it fits, else into a loc_dynmem_alloc block
//   4. loc_setstrsize with the predicted size
//   5. loc_dynstr_updatepool (the only step that may collect)
//   6. write the maximum size back
//   7. release the temporary record: the old text becomes a placeholder
// The temporary record is allocated without collection, so no text moves
// between steps 2 and 5.
#include <stdlib.h>

#include "dynstr_private.h"

namespace dynstr_detail {

namespace {

using memm_detail::loc_log;

// Moves a staged text into the first buffer that has room after being
// collected, trying each buffer once. Frees the staging block either way.
// Returns false when no buffer had room.
bool settle_staged(dynstr_pooldesc *pool, dynstr *d) {
    char *block = d->str;
    bool placed = false;
    if (block) {
        const uint32_t size = size_of(d);
        if (size == 0) {
            // Nothing to place: the text settles as the empty string.
            d->str = nullptr;
            placed = true;
        }
        for (int32_t attempt = 0; !placed && attempt < pool->buffercount; attempt++) {
            loc_dynstr_gc(pool, DYNSTR_GC_BUFFER_FULL);
            if (loc_getfreespace(pool, d) >= int32_t(size)) {
                if (strlcpy(d->str, block, size) >= size)
                    loc_log("[DYNSTR] %s: %s\r\n", "WARNING", "loc_dynstr_updatepool truncated dynmem source");
                d->flags &= ~DYNSTR_FLAG_LITERAL;
                placed = true;
            }
        }
        // Unplaced, the record points at the last free position tried (one
        // past the buffer's end when it is full) or at the block freed here:
        // neither is a text.
        if (!placed)
            d->str = nullptr;
        free(block);
    }
    pool->state &= uint8_t(~DYNSTR_STATE_DYNMEM_PENDING);
    return placed;
}

// No buffer has room for a text: the record is emptied and the pool marked.
// Only the first few events of the process request an object listing, since
// each one writes a file. The record is emptied before the listing, whose
// record printer reads the text of every record in the pool.
uint32_t out_of_buffer_memory(dynstr_pooldesc *pool, dynstr *d) {
    d->str = nullptr;
    loc_setstrsize(d, 0);
    const char *name = memm_get_poolname(d);
    loc_log("Out of string buffer memory for pool '%s' !!!!!!!!!!!!!!!!!!!!!!!!!!!!!!", name);
    if (g_family.depletion_listings < kMaxDepletionListings) {
        g_family.depletion_listings++;
        memm_detail::loc_handle_list_objects(name, 0, 1, MEMM_REASON_POOL_DEPLETED);
    }
    pool->state |= DYNSTR_STATE_DEPLETED;
    return MEMM_ERR_NO_MEMORY;
}

} // namespace

int32_t loc_getfreespace(dynstr_pooldesc *pool, dynstr *d) {
    const uint32_t c = pool->curbuffer;
    d->str = pool->buf_base[c] + pool->buf_used[c];
    return pool->buffersize - int32_t(pool->buf_used[c]);
}

int loc_dynmem_alloc(dynstr_pooldesc *pool, dynstr *d, int32_t size) {
    d->str = size > 0 ? static_cast<char *>(malloc(size_t(size))) : nullptr;
    if (!d->str)
        return 0;
    memset(d->str, 0, size_t(size));
    d->flags |= DYNSTR_FLAG_LITERAL;
    pool->state |= DYNSTR_STATE_DYNMEM_PENDING;
    return 1;
}

uint32_t loc_dynstr_detach(dynstr_pooldesc *pool, dynstr *d, dynstr **tmp) {
    // Without collection: nothing may move while the writer works. The
    // temporary record carries the string's allocation site, so a listing of
    // the placeholder it leaves behind names who made the text.
    auto *t = static_cast<dynstr *>(memm_detail::loc_calloc_entry(pool->poolid, false, false, record_allocfrom(d)));
    if (!t)
        return MEMM_ERR_NO_MEMORY;
    *t = *d;
    if (is_buffered(d)) {
        const uint32_t k = DYNSTR_BNR(d->flags);
        if (d->prev)
            d->prev->next = t;
        else
            pool->buf_first[k] = t;
        if (d->next)
            d->next->prev = t;
        else
            pool->buf_last[k] = t;
        note_text(pool, k, t);
    }
    *d = g_family.blank;
    *tmp = t;
    return MEMM_OK;
}

uint32_t loc_dynstr_updatepool(dynstr_pooldesc *pool, dynstr *d) {
    pool->calls++;
    pool->calls_since_gc++;
    uint32_t c = pool->curbuffer;
    if (pool->state & DYNSTR_STATE_DYNMEM_PENDING) {
        if (!settle_staged(pool, d))
            return out_of_buffer_memory(pool, d);
        c = pool->curbuffer;
    }

    const uint32_t actual = d->str ? uint32_t(strlen(d->str)) + 1 : 0;
    if (actual != size_of(d)) {
        loc_log("[DYNSTR] %s: %s\r\n", "WARNING", "loc_dynstr_updatepool fixed wrong predicted size");
        loc_setstrsize(d, actual);
    }
    const uint32_t size = size_of(d);
    if (size == 0) {
        // The empty string takes no buffer space.
        d->str = nullptr;
        d->flags |= DYNSTR_FLAG_LITERAL;
        return MEMM_OK;
    }

    loc_dynstr_claim(pool, d, c, size);

    if (pool->buf_count[c] > pool->ctx_limit)
        loc_dynstr_gc(pool, DYNSTR_GC_CTX_BALANCE);
    // A collection clears ctx_depleted, so this runs only when none ran.
    if (pool->ctx_depleted)
        loc_dynstr_gc(pool, DYNSTR_GC_CTX_DEPLETED);
    return MEMM_OK;
}

uint32_t loc_dynstr_begin_write(dynstr *d, Write *w) {
    w->pool = loc_getdynstrpool(d);
    if (!w->pool || is_deleted(d))
        return MEMM_ERR_INVALID_ARG;
    w->maxsize = DYNSTR_MAXSIZE(d->flags);
    return loc_dynstr_detach(w->pool, d, &w->old) == MEMM_OK ? MEMM_OK : MEMM_ERR_NO_MEMORY;
}

uint32_t loc_dynstr_end_write(const Write &w, dynstr *d, uint32_t result) {
    const uint32_t settled = loc_dynstr_updatepool(w.pool, d);
    if (w.maxsize)
        (void)loc_setmaxsize(d, w.maxsize);
    // An old text in a buffer becomes a placeholder through the release
    // hook; any other old record is simply given back.
    if (is_buffered(w.old))
        memm_free_nolock(w.old);
    else
        release_unbuffered(records_of(w.pool), w.old);
    return result != MEMM_OK ? result : settled;
}

} // namespace dynstr_detail
