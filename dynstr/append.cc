// Appending: the primitive loc_addstring_size and the public appends.
//
// An append takes one of three paths:
//   in place  the text ends at the current buffer's free position and the
//             free tail holds the new characters: they are written behind
//             it and nothing moves
//               [ ... | text0 ][ 0 0 0 0 0 ]  =>  [ ... | text+new0 ][ 0 0 ]
//   moved     otherwise, when the free tail holds old and new text: the old
//             text is copied to the free position, the new characters behind
//             it, and the old place becomes a deleted placeholder
//   staged    otherwise: old and new text are assembled in a dynmem block of
//             exactly the final size, which loc_dynstr_updatepool places
//             after collecting
#include "dynstr_private.h"

namespace dynstr_detail {

using memm_detail::loc_log;

uint32_t loc_addstring_size(dynstr *d, const char *src, uint32_t n) {
    // loc_isdynstring, finding the pool only once.
    dynstr_pooldesc *pool = loc_getdynstrpool(d);
    if (!pool || is_deleted(d))
        return MEMM_ERR_INVALID_ARG;
    const uint32_t old_size = size_of(d);
    const size_t old_len = old_size ? old_size - 1 : 0;
    const uint32_t maxsize = DYNSTR_MAXSIZE(d->flags);
    // Characters that may still be added: up to the maximum size, and up to
    // the largest size the size field holds.
    const size_t limit = maxsize ? maxsize : DYNSTR_LONG_SIZE_MAX;
    const size_t room = limit > old_len + 1 ? limit - old_len - 1 : 0;
    // Measuring the source first sizes every path by the text actually
    // appended (n may exceed it), and makes a source inside the record's own
    // text safe to copy even when it is overwritten in place.
    const size_t add = strnlen(src, n < room ? n : room);
    if (add == 0)
        return MEMM_OK; // a full record or an empty source: nothing changes
    const size_t new_size = old_len + add + 1;

    const uint32_t c = pool->curbuffer;
    const char *free_pos = pool->buf_base[c] + pool->buf_used[c];
    const size_t free_bytes = size_t(pool->buffersize) - pool->buf_used[c];
    dynstr *old = nullptr;
    if (is_buffered(d) && DYNSTR_BNR(d->flags) == c && d->str + old_size == free_pos && free_bytes >= add) {
        // In place: loc_dynstr_updatepool counts the whole new size again,
        // and the record already is the list's last.
        pool->buf_used[c] -= old_size;
        pool->usedbytes -= old_size;
    } else {
        if (loc_dynstr_detach(pool, d, &old) != MEMM_OK)
            return MEMM_ERR_NO_MEMORY;
        if (free_bytes >= new_size) {
            (void)loc_getfreespace(pool, d);
        } else if (!loc_dynmem_alloc(pool, d, int32_t(new_size))) {
            // No block: the record ends empty, its old text deleted.
            (void)loc_dynstr_updatepool(pool, d);
            if (maxsize)
                (void)loc_setmaxsize(d, maxsize);
            memm_free_nolock(old);
            return MEMM_ERR_NO_MEMORY;
        }
        // Only a record that had text takes its size over: the blank
        // record's size 0 would null the freshly placed text pointer.
        if (old->str) {
            if (strlcpy(d->str, old->str, new_size) >= new_size)
                loc_log("[DYNSTR] %s: %s\r\n", "WARNING", "loc_addstring_size truncated the original string");
            loc_setstrsize(d, size_of(old));
        }
        if (maxsize)
            (void)loc_setmaxsize(d, maxsize);
    }

    // A source inside the record's own text (appending it to itself) lies
    // wholly in front of the new characters: the copy never overlaps.
    memcpy(d->str + old_len, src, add);
    d->str[old_len + add] = '\0';
    loc_setstrsize(d, uint32_t(new_size));
    const uint32_t settled = loc_dynstr_updatepool(pool, d);
    if (old)
        memm_free_nolock(old);
    return settled;
}

} // namespace dynstr_detail

using namespace dynstr_detail;
using memm_detail::PoolLock;

namespace {

// The checks common to dynstr_addstring_size and dynstr_addstring, taken
// before the lock.
uint32_t add_string(dynstr *d, const char *s, uint32_t n, const char *reason) {
    if (!d)
        return MEMM_ERR_INVALID_ARG;
    if (!s || !*s || n < 1)
        return MEMM_OK;
    PoolLock lock(reason);
    return loc_addstring_size(d, s, n);
}

} // namespace

extern "C" {

uint32_t dynstr_addstring_size(dynstr *d, const char *s, uint32_t n) {
    return add_string(d, s, n, "dynstr_addstring_size");
}

uint32_t dynstr_addstring(dynstr *d, const char *s) {
    if (!s)
        return MEMM_ERR_INVALID_ARG;
    const size_t len = strlen(s);
    return add_string(d, s, len > UINT32_MAX ? UINT32_MAX : uint32_t(len), "dynstr_addstring");
}

uint32_t dynstr_adddynstr(dynstr *d, dynstr *src) {
    if (!d || !src || d == src)
        return MEMM_ERR_INVALID_ARG;
    PoolLock lock("dynstr_adddynstr");
    if (!loc_isdynstring(d) || !loc_isdynstring(src))
        return MEMM_ERR_INVALID_ARG;
    const uint32_t size = size_of(src);
    if (size <= 1)
        return MEMM_OK;
    return loc_addstring_size(d, src->str, size - 1);
}

} // extern "C"
