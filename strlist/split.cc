// Splitting text into string lists: a C string or a record's text at a
// separator string, and a C string at a separator character with escapes.
#include "strlist_private.h"

using dynstr_detail::keep_if_written;
using dynstr_detail::loc_setsubstring;
using dynstr_detail::new_record;
using memm_detail::PoolLock;
using strlist_detail::ListBuilder;

namespace {

// The characters [start, start + len) in a new record of `pool` (no maximum
// size); null when the record cannot be made.
dynstr *piece_record(uint32_t pool, const char *start, size_t len) {
    if (!dynstr_detail::loc_isdynstrpool(pool))
        return nullptr;
    dynstr *d = new_record(pool, false, nullptr);
    const int32_t n = len > INT32_MAX ? INT32_MAX : int32_t(len);
    return d ? keep_if_written(d, loc_setsubstring(d, start, nullptr, 0, n)) : nullptr;
}

// Where the piece that starts at `from` ends: at the next separator, or at
// the text's end (then *last is set). An empty separator never matches.
const char *piece_end(const char *from, const char *sep, bool *last) {
    const char *at = sep && *sep ? strstr(from, sep) : nullptr;
    *last = !at;
    return at ? at : from + strlen(from);
}

// Decodes s in place (see strlist.h) and returns the number of items: the
// unescaped separators plus one. The items are left behind each other,
// each ended by a terminator.
size_t decode_escaped(char *s, char sep, char esc) {
    size_t items = 1;
    char *out = s;
    for (const char *in = s; *in; in++) {
        if (*in == esc) {
            if (!in[1])
                break; // a trailing escape character stands for nothing
            *out++ = *++in;
        } else if (*in == sep) {
            *out++ = '\0';
            items++;
        } else {
            *out++ = *in;
        }
    }
    *out = '\0';
    return items;
}

} // namespace

extern "C" {

llist_node *strlist_fromstring(const char *s, const char *sep, uint32_t nodepool, uint32_t strpool) {
    ListBuilder out(nodepool, __builtin_return_address(0));
    PoolLock lock("strlist_fromstring");
    if (!s)
        return nullptr;
    const size_t seplen = sep ? strlen(sep) : 0;
    for (bool last = false; !last;) {
        const char *end = piece_end(s, sep, &last);
        out.append(piece_record(strpool, s, size_t(end - s)));
        s = end + seplen;
    }
    return out.list();
}

// Making a piece may collect the record's buffer and move its text, so the
// text is fetched anew for every piece and the pieces are cut by offset.
llist_node *strlist_fromdynstr(dynstr *d, const char *sep, uint32_t nodepool) {
    ListBuilder out(nodepool, __builtin_return_address(0));
    if (memm_get_poolid(d) == MEMM_INVALID_POOL)
        return nullptr;
    PoolLock lock("strlist_fromdynstr");
    const size_t seplen = sep ? strlen(sep) : 0;
    size_t offset = 0;
    for (bool last = false; !last;) {
        const char *text = dynstr_getstring_nolock(d);
        const char *end = piece_end(text + offset, sep, &last);
        const size_t len = size_t(end - text) - offset;
        const int32_t n = last ? -1 : (len > INT32_MAX ? INT32_MAX : int32_t(len));
        out.append(dynstr_fromsubdynstr_nolock(d, offset > INT32_MAX ? INT32_MAX : int32_t(offset), n));
        offset += len + seplen;
    }
    return out.list();
}

llist_node *strlist_fromstring_escaped(char *s, char sep, char esc, uint32_t nodepool, uint32_t strpool) {
    ListBuilder out(nodepool, __builtin_return_address(0));
    PoolLock lock("strlist_fromstring_escaped");
    if (!s)
        return nullptr;
    const char *item = s;
    for (size_t n = decode_escaped(s, sep, esc); n > 0; n--, item += strlen(item) + 1) {
        if (!out.append(dynstr_fromstring_nolock(strpool, item))) {
            out.discard();
            return nullptr;
        }
    }
    return out.list();
}

} // extern "C"
