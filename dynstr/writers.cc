// The substring writer behind the copying constructors and assignments, and
// reading a record's text.
#include "../memm/poison.h"
#include "dynstr_private.h"

namespace dynstr_detail {

namespace {

const char kEmptyText[] = "";

struct Piece {
    const char *text = nullptr; // null: nothing to copy
    size_t len = 0;
};

// The piece [offset, offset + length) of a C string. Offsets outside the
// string are clamped as for a source record; a negative length means "to the
// end". Only as much of src is measured as the piece needs, so cutting
// pieces off a long text one by one does not rescan its rest each time.
Piece string_piece(const char *src, int32_t offset, int32_t length) {
    const size_t need = length < 0 ? SIZE_MAX : size_t(offset < 0 ? 0 : offset) + size_t(length);
    const size_t full = need == SIZE_MAX ? strlen(src) : strnlen(src, need);
    const size_t off = offset < 0 ? 0 : (size_t(offset) > full ? full : size_t(offset));
    const size_t avail = full - off;
    const size_t len = (length < 0 || size_t(length) > avail) ? avail : size_t(length);
    return len >= 1 ? Piece{src + off, len} : Piece{};
}

// The same piece of a record's text.
Piece record_piece(const dynstr *src, int32_t offset, int32_t length) {
    const uint32_t size = size_of(src);
    const int64_t srclen = src->str && size ? size - 1 : 0;
    int64_t off = offset < 0 ? 0 : (offset > srclen ? srclen : offset);
    int64_t len = length < 0 ? (src->str ? srclen - off : 0) : length;
    if (off + len > srclen)
        len = srclen - off;
    return (len > 0 && src->str) ? Piece{src->str + off, size_t(len)} : Piece{};
}

} // namespace

uint32_t loc_setsubstring(dynstr *d, const char *src, dynstr *src_rec, int32_t offset, int32_t length) {
    if (!src && !src_rec)
        return MEMM_ERR_INVALID_ARG;
    Write w;
    if (const uint32_t refused = loc_dynstr_begin_write(d, &w))
        return refused;
    if (src_rec == d)
        src_rec = w.old; // self-assignment reads the detached text
    const Piece piece = src ? string_piece(src, offset, length) : record_piece(src_rec, offset, length);

    bool staging_failed = false;
    // A maximum size of 1 leaves room for no character: the text is the
    // empty string, which takes no buffer space and so never fails for want
    // of it.
    if (piece.text && w.maxsize != 1) {
        // Texts are cut, never refused: at the maximum size, and at the
        // largest size the size field can hold.
        size_t size = piece.len + 1;
        if (size > DYNSTR_LONG_SIZE_MAX)
            size = DYNSTR_LONG_SIZE_MAX;
        if (w.maxsize && w.maxsize < size)
            size = w.maxsize;
        // The old text stays readable (it belongs to `w.old` now), so a
        // source inside it is safe; the new text never overlaps it.
        if (int64_t(size) <= loc_getfreespace(w.pool, d) || loc_dynmem_alloc(w.pool, d, int32_t(size))) {
            // Bounded by the source's terminator too: a literal whose text
            // changed under it may be shorter than its size says, and the
            // bytes behind its terminator must not land in the free tail.
            const size_t len = strnlen(piece.text, size - 1);
            memcpy(d->str, piece.text, len);
            d->str[len] = '\0';
            loc_setstrsize(d, uint32_t(len + 1));
        } else {
            staging_failed = true;
        }
    }

    return loc_dynstr_end_write(w, d, staging_failed ? MEMM_ERR_NO_MEMORY : MEMM_OK);
}

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
dynstr *loc_fromsubstring_direct(dynstr_pooldesc *pool, const char *src, int32_t offset, int32_t length,
                                 void *caller) {
    using namespace memm_detail;
    memm_pooldesc *const records = records_of(pool);
    const uint32_t id = pool->poolid;
    if (!records || records->root_pool != id || !records->options.gc || !records->free_head ||
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
    uint8_t *slot = loc_take_slot(records, id, caller);
    loc_note_count(records, in_use + 2);
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
    memcpy(d->str, piece.text, len);
    d->str[len] = '\0';
    loc_setstrsize(d, uint32_t(size));
    loc_dynstr_claim(pool, d, c, size);
    return d;
}

} // namespace dynstr_detail

using namespace dynstr_detail;
using memm_detail::PoolLock;

extern "C" {

const char *dynstr_getstring_nolock(dynstr *d) {
    if (!d)
        return DYNSTR_TEXT_NOT_MEMMSTR;
    const uint8_t *slot = memm_detail::obj_to_slot(d);
    const memm_pooldesc *p = memm_detail::loc_pool(memm_detail::state_poolid(memm_detail::hdr_state(slot)));
    if (!p || !p->options.cookie)
        return DYNSTR_TEXT_NOT_MEMMSTR;
    if (!loc_getdynstrpool(d))
        return DYNSTR_TEXT_NOT_DYNSTR;
    if (is_deleted(d))
        return DYNSTR_TEXT_DELETED;
    return d->str ? d->str : kEmptyText;
}

const char *dynstr_getstring(dynstr *d) {
    PoolLock lock("dynstr_getstring");
    return dynstr_getstring_nolock(d);
}

} // extern "C"
