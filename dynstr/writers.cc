// The substring writer behind the copying constructors and assignments, and
// reading a record's text.
#include "dynstr_private.h"

namespace dynstr_detail {

namespace {

const char kEmptyText[] = "";

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
