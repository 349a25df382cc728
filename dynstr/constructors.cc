// Constructors that copy text into a new record: from a C string, a piece of
// one, a record, a piece of a record, and the text after a separator.
// Literals are in literal.cc, formatted texts in format.cc.
//
// Each one records its own caller as the record's allocation site, so that
// object listings name the user's call site rather than the library.
#include "../memm/take_slot.h"
#include "dynstr_private.h"

using namespace dynstr_detail;
using memm_detail::PoolLock;

namespace {

// A new record of `pool` holding a piece of a C string, made in one pass when
// nothing on the way can collect; null when that does not hold, and then
// nothing has changed: the caller takes the plain way. `records` is the pool
// that the plain way would allocate from: the way is taken only when that is
// pool's own record pool.
//
// The plain way allocates the record (without collection), detaches its
// blank text into a temporary record (allocated the same way), places the
// text and gives the temporary record back. A blank record has nothing to
// detach, so when nothing on that way can collect, the temporary record is
// only counted: both allocations' counters and its release's, the record
// pool's peaks as they were with it in use, and the free list, which the
// temporary record's slot leaves as it found it. A collection would release
// placeholders while the temporary record is held, so it would end up in
// front of them on the free list; hence the conditions that none runs:
// neither allocation reaches the reserve (which would set ctx_depleted), it
// is not set already, no staged text is pending, the text fits the current
// buffer's free tail and does not take that buffer over its record limit.
// Kept inline in its one caller: as a call it costs the short string pair a
// few percent.
__attribute__((always_inline)) inline dynstr *fromsubstring_direct(dynstr_pooldesc *pool, memm_pooldesc *records,
                                                                   const char *src, int32_t offset, int32_t length,
                                                                   void *caller) {
    using namespace memm_detail;
    const uint32_t id = pool->poolid;
    if (records->root_pool != id || !records->options.gc || !records->free_head ||
        !free_link(records, records->free_head) || pool->ctx_depleted || (pool->state & DYNSTR_STATE_DYNMEM_PENDING))
        return nullptr;
    const uint32_t in_use = records->cur_count;
    const int32_t reserve = records->options.reserve;
    if (int32_t(in_use + uint32_t(reserve)) >= int32_t(records->alloc_count) ||
        int32_t(in_use + 1 + uint32_t(reserve)) >= int32_t(records->alloc_count))
        return nullptr;
    const Piece piece = string_piece(src, offset, length);
    const size_t len = piece.len < DYNSTR_LONG_SIZE_MAX ? piece.len : DYNSTR_LONG_SIZE_MAX - 1;
    const uint32_t size = piece.text ? uint32_t(len + 1) : 0;
    const uint32_t c = pool->curbuffer;
    if (int64_t(size) > int64_t(pool->buffersize) - int64_t(pool->buf_used[c]) ||
        (size && pool->buf_count[c] + 1 > pool->ctx_limit))
        return nullptr;

    // The record's slot, handed out as an allocation hands it out; then the
    // traces of the temporary record: held once beside it, then released.
    uint8_t *slot = loc_take_slot_noting(records, id, caller, in_use + 2);
    records->alloc_calls[MEMM_ALLOC_CALLS_TOTAL] += 2;
    records->alloc_calls[MEMM_ALLOC_CALLS_FIRST_FREE] += 2;
    records->free_calls++;

    auto *d = static_cast<dynstr *>(slot_to_obj(slot));
    pool->calls++;
    pool->calls_since_gc++;
    if (size == 0) {
        d->flags = DYNSTR_FLAG_LITERAL; // settled as the empty text
        return d;
    }
    d->str = pool->buf_base[c] + pool->buf_used[c];
    copy_text(d->str, piece.text, len);
    d->str[len] = '\0';
    d->flags = size <= DYNSTR_SHORT_SIZE_MAX ? size : DYNSTR_FLAG_LONG | size; // loc_setstrsize on a zeroed record
    loc_dynstr_claim(pool, d, c, size);
    return d;
}

// From a plain pointer: allocated without collection, so the reserve may be
// taken, which makes the next placement collect instead.
dynstr *from_substring(uint32_t pool, const char *s, int32_t offset, int32_t length, void *caller) {
    memm_pooldesc *records = s ? memm_detail::loc_pool(pool) : nullptr;
    dynstr_pooldesc *desc = records ? string_pool_of(records) : nullptr; // loc_stringpool(pool)
    if (!desc)
        return nullptr;
    if (dynstr *d = fromsubstring_direct(desc, records, s, offset, length, caller))
        return d;
    dynstr *d = new_record(pool, false, caller);
    return d ? keep_if_written(d, loc_setsubstring(d, s, nullptr, offset, length)) : nullptr;
}

// From a record: into the source's own pool, with a collecting allocation
// (which may move the source's text; the writer reads it only afterwards).
// A source that is not a live record gives null before anything is
// allocated, so no foreign pool is touched.
dynstr *from_subdynstr(dynstr *src, int32_t offset, int32_t length, void *caller) {
    if (!loc_isdynstring(src))
        return nullptr;
    dynstr *d = new_record(memm_get_poolid(src), true, caller);
    return d ? keep_if_written(d, loc_setsubstring(d, nullptr, src, offset, length)) : nullptr;
}

} // namespace

extern "C" {

dynstr *dynstr_fromstring_nolock(uint32_t pool, const char *s) {
    return from_substring(pool, s, 0, -1, __builtin_return_address(0));
}

dynstr *dynstr_fromstring(uint32_t pool, const char *s) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("dynstr_fromstring");
    return from_substring(pool, s, 0, -1, caller);
}

dynstr *dynstr_fromsubstring(uint32_t pool, const char *s, int32_t offset, int32_t length) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("dynstr_fromsubstring");
    return from_substring(pool, s, offset, length, caller);
}

dynstr *dynstr_fromdynstr_nolock(dynstr *src) { return from_subdynstr(src, 0, -1, __builtin_return_address(0)); }

dynstr *dynstr_fromdynstr(dynstr *src) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("dynstr_fromdynstr");
    return from_subdynstr(src, 0, -1, caller);
}

dynstr *dynstr_fromsubdynstr_nolock(dynstr *src, int32_t offset, int32_t length) {
    return from_subdynstr(src, offset, length, __builtin_return_address(0));
}

dynstr *dynstr_fromsubdynstr(dynstr *src, int32_t offset, int32_t length) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("dynstr_fromsubdynstr");
    return from_subdynstr(src, offset, length, caller);
}

// Deliberately records no caller of its own: the record keeps the address
// that dynstr_fromsubdynstr_nolock stored, one inside this function.
dynstr *dynstr_fromlastsep(dynstr *src, char sep) {
    if (!src || !sep)
        return nullptr;
    PoolLock lock("dynstr_fromlastsep");
    if (!loc_isdynstring(src) || size_of(src) == 0)
        return nullptr;
    const char *last = strrchr(src->str, sep);
    if (!last)
        return nullptr;
    return dynstr_fromsubdynstr_nolock(src, int32_t(last + 1 - src->str), -1);
}

} // extern "C"
