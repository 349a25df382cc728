// Internal interface of the dynamic-string family, shared by the files of
// dynstr/. Every function here runs with the global lock held and never
// takes it itself.
//
// A record's text is in one of four states:
//   empty     str null, size 0 (literal bit set once a write settled it)
//   buffered  literal bit clear; linked, in address order, into the
//             allocation list of buffer bnr, covering DYNSTR_SIZE bytes
//   literal   the caller's constant text, literal bit set, in no list
//   staged    a dynmem block (literal bit set) while a write is in progress,
//             moved into a buffer by the next loc_dynstr_updatepool
// A deleted record (deleted bit) is a buffered placeholder for dead bytes.
#ifndef DYNSTR_PRIVATE_H
#define DYNSTR_PRIVATE_H

#include "../memm/memm_private.h"
#include "dynstr.h"
#include "record_map.h"

namespace dynstr_detail {

static_assert(sizeof(dynstr) == 32, "record layout fixed by the API");

constexpr uint32_t kNoBuffer = 0xFFFFFFFFu;
constexpr uint32_t kSizeMaskShort = DYNSTR_SHORT_SIZE_MAX;
constexpr uint32_t kSizeMaskLong = DYNSTR_LONG_SIZE_MAX;
constexpr uint32_t kMaxsizeBits = 0x7FFu << DYNSTR_MAXSIZE_SHIFT;
constexpr uint32_t kBnrBits = 0x3u << DYNSTR_BNR_SHIFT;
constexpr int kMaxDepletionListings = 4;

// Process-wide state of the family, guarded by the global lock.
struct Family {
    uint32_t class_id = MEMM_INVALID_POOL; // id of "dynstr_pool"
    bool gc_running = false;               // the collector is releasing placeholders
    int depletion_listings = 0;            // "pool_depleted" listings requested so far
    dynstr blank = {};                     // image copied over a detached record
};
MEMM_INTERNAL extern Family g_family;

// ---- small record accessors ---------------------------------------------
inline uint32_t size_of(const dynstr *d) { return DYNSTR_SIZE(d->flags); }
inline bool is_deleted(const dynstr *d) { return d->flags & DYNSTR_FLAG_DELETED; }
// The text lies in a string buffer (and the record in an allocation list).
inline bool is_buffered(const dynstr *d) { return d->str && !(d->flags & DYNSTR_FLAG_LITERAL); }
inline void set_bnr(dynstr *d, uint32_t bnr) { d->flags = (d->flags & ~kBnrBits) | (bnr << DYNSTR_BNR_SHIFT); }
// The buffer holding the text, kNoBuffer for an empty, literal or staged one
// (loc_getbuffernr without its null check, for the hot loops).
inline uint32_t buffer_of(const dynstr *d) { return is_buffered(d) ? DYNSTR_BNR(d->flags) : kNoBuffer; }
inline void *record_allocfrom(dynstr *d) { return memm_detail::hdr_allocfrom(memm_detail::obj_to_slot(d)); }
inline void set_record_allocfrom(void *d, void *caller) {
    memm_detail::hdr_set_allocfrom(memm_detail::obj_to_slot(d), caller);
}

// The size field, the maximum size and the buffer number, inline for the
// hot paths of writing, releasing and collecting.
inline void loc_setstrsize(dynstr *d, uint32_t size) {
    constexpr uint32_t kKeptInShortForm = kBnrBits | DYNSTR_FLAG_DELETED | DYNSTR_FLAG_LITERAL;
    if (size <= DYNSTR_SHORT_SIZE_MAX) {
        if (size == 0)
            d->str = nullptr;
        if (d->flags & DYNSTR_FLAG_LONG)
            d->flags = (d->flags & kKeptInShortForm) | size; // back to short form, no maximum
        else
            d->flags = (d->flags & ~kSizeMaskShort) | size;
    } else if (size <= DYNSTR_LONG_SIZE_MAX) {
        d->flags = (d->flags & ~kSizeMaskLong) | DYNSTR_FLAG_LONG | size;
    } else {
        memm_detail::loc_log("[DYNSTR] loc_setstrsize with invalid size");
    }
}

inline uint32_t loc_setmaxsize(dynstr *d, uint32_t maxsize) {
    if (d->flags & DYNSTR_FLAG_LONG)
        return MEMM_OK;
    d->flags &= ~kMaxsizeBits;
    if (maxsize > DYNSTR_MAXSIZE_LIMIT)
        return MEMM_ERR_INVALID_ARG;
    d->flags |= maxsize << DYNSTR_MAXSIZE_SHIFT;
    return MEMM_OK;
}

inline uint32_t loc_getbuffernr(const dynstr *d) {
    if (!d) {
        memm_detail::loc_log("[DYNSTR] \"Failed to get buffer nr\"");
        return kNoBuffer;
    }
    return is_buffered(d) ? DYNSTR_BNR(d->flags) : kNoBuffer;
}

// The record pool of a string pool.
inline memm_pooldesc *records_of(const dynstr_pooldesc *pool) { return memm_detail::loc_pool(pool->poolid); }
// Releasing d with memm_free_nolock would run the release hook and then
// free the slot: the header names the record pool and no extra holder is
// left. When the hook is known to let such a record go, the slot can be
// given back directly (loc_release_slot: the same counters, free-list push
// and poisoning) without the hook's pool lookups; any other record takes
// memm_free_nolock, so nothing differs either way.
// (The header check names `records`, a pool in use, exactly when the
// header's pool id is the index of records' descriptor and the slot lies in
// its storage.)
inline bool releases_at_once(const memm_pooldesc *records, dynstr *d) {
    const uint8_t *slot = memm_detail::obj_to_slot(d);
    const uint32_t state = memm_detail::hdr_state(slot);
    return state < memm_detail::kRefUnit && memm_detail::desc_at(memm_detail::state_poolid(state)) == records &&
           memm_detail::loc_in_storage(records, slot);
}
// Releases a record that owns no buffer bytes (str null, or a literal or
// staged text), for which the release hook only answers "go ahead".
inline void release_unbuffered(memm_pooldesc *records, dynstr *d) {
    if (releases_at_once(records, d))
        memm_detail::loc_release_slot(records, memm_detail::obj_to_slot(d));
    else
        memm_free_nolock(d);
}

// Moves n bytes, N <= n <= 2N, as two loads of N bytes from both ends (which
// may overlap) before any store, so the ranges may overlap too.
template <size_t N> inline void move_ends(char *dst, const char *src, size_t n) {
    char head[N], tail[N];
    memcpy(head, src, N);
    memcpy(tail, src + n - N, N);
    memcpy(dst, head, N);
    memcpy(dst + n - N, tail, N);
}

// Copying and zeroing n bytes of text. Most texts are short: up to 32 bytes
// two moves of a fixed size from both ends save the call.
inline void copy_text(char *dst, const char *src, size_t n) {
    if (n > 32) {
        memcpy(dst, src, n);
    } else if (n >= 16) {
        move_ends<16>(dst, src, n);
    } else if (n >= 8) {
        move_ends<8>(dst, src, n);
    } else {
        for (size_t i = 0; i < n; i++)
            dst[i] = src[i];
    }
}
inline void zero_text(char *dst, size_t n) {
    static const char zeros[16] = {};
    if (n > 32) {
        memset(dst, 0, n);
    } else if (n >= 16) {
        memcpy(dst, zeros, 16);
        memcpy(dst + n - 16, zeros, 16);
    } else if (n >= 8) {
        memcpy(dst, zeros, 8);
        memcpy(dst + n - 8, zeros, 8);
    } else {
        for (size_t i = 0; i < n; i++)
            dst[i] = 0;
    }
}

// Bounded copy: at most size - 1 characters, always terminated when size is
// above 0. Returns strlen(src), so a result >= size means the copy was cut.
MEMM_INTERNAL size_t strlcpy(char *dst, const char *src, size_t size);

// ---- records and pools (pools.cc) ------------------------------------------
// The cookie as a string-pool descriptor when it is an object of
// "dynstr_pool", else null.
MEMM_INTERNAL dynstr_pooldesc *loc_as_pooldesc(void *cookie);
MEMM_INTERNAL uint32_t loc_dynstr_free_ex(void *rec);
// The string pool whose records pool p holds, or null. A pool with the
// string records' release hook carries its descriptor as cookie: only
// dynstr_initpool2 installs the hook (a half-made pool loses it again before
// its descriptor goes), so while the descriptor pool is known (a failed
// second dynstr_init forgets it), a pool that has the hook, even one made
// with a copy of a record pool's options, has a descriptor cookie; that
// answer needs no reading of the descriptor pool.
inline dynstr_pooldesc *string_pool_of(const memm_pooldesc *p) {
    if (p->options.free_ex == loc_dynstr_free_ex && p->options.cookie && g_family.class_id != MEMM_INVALID_POOL)
        return static_cast<dynstr_pooldesc *>(p->options.cookie);
    return loc_as_pooldesc(p->options.cookie);
}

// The pool of a record (of any object: null when its header names no pool).
inline memm_pooldesc *pool_of_object(const void *obj) {
    const uint8_t *slot = static_cast<const uint8_t *>(obj) - memm_detail::kHdrSize;
    return memm_detail::loc_pool(memm_detail::state_poolid(memm_detail::hdr_state(slot)));
}
inline dynstr_pooldesc *loc_getdynstrpool(const void *rec) {
    if (!rec)
        return nullptr;
    memm_pooldesc *p = pool_of_object(rec);
    return p ? string_pool_of(p) : nullptr;
}
// The string pool that `pool` names, or null (loc_isdynstrpool's answer).
inline dynstr_pooldesc *loc_stringpool(uint32_t poolid) {
    memm_pooldesc *p = memm_detail::loc_pool(poolid);
    return p ? string_pool_of(p) : nullptr;
}
MEMM_INTERNAL int loc_isdynstrpool(uint32_t pool);
MEMM_INTERNAL int loc_isdynstring(const void *rec);
MEMM_INTERNAL int loc_dynstr_listfilter(void *rec, uint32_t options);

// ---- placement (storage.cc) ----------------------------------------------------
MEMM_INTERNAL int32_t loc_getfreespace(dynstr_pooldesc *pool, dynstr *d);
MEMM_INTERNAL int loc_dynmem_alloc(dynstr_pooldesc *pool, dynstr *d, int32_t size);
MEMM_INTERNAL uint32_t loc_dynstr_detach(dynstr_pooldesc *pool, dynstr *d, dynstr **tmp);
MEMM_INTERNAL uint32_t loc_dynstr_updatepool(dynstr_pooldesc *pool, dynstr *d);
// Claims `size` bytes at buffer c's free position, where d's text lies, and
// appends d to the buffer's list: the placement step of loc_dynstr_updatepool.
inline void loc_dynstr_claim(dynstr_pooldesc *pool, dynstr *d, uint32_t c, uint32_t size) {
    pool->buf_used[c] += size;
    pool->usedbytes += size;
    if (pool->usedbytes - pool->delbytes > pool->peaklive)
        pool->peaklive = pool->usedbytes - pool->delbytes;
    if (pool->buf_used[c] - pool->buf_delbytes[c] > pool->buf_peaklive[c])
        pool->buf_peaklive[c] = pool->buf_used[c] - pool->buf_delbytes[c];
    // A text extended in place is already the list's last record.
    if (pool->buf_last[c] != d) {
        dynstr *last = pool->buf_last[c];
        if (last)
            last->next = d;
        else
            pool->buf_first[c] = d;
        d->prev = last;
        d->next = nullptr;
        pool->buf_last[c] = d;
        pool->buf_count[c]++;
    }
    set_bnr(d, c);
    note_text(pool, c, d);
}

// A write in progress: the record's pool, its maximum size and the
// temporary record holding its old text (steps 1-2 and 5-7 of the write
// protocol in storage.cc; the writer does steps 3-4 in between).
struct Write {
    dynstr_pooldesc *pool;
    uint32_t maxsize;
    dynstr *old;
};
// Opens a write into d. MEMM_ERR_INVALID_ARG for a record outside a string
// pool or a deleted placeholder (writing into it would revive dead space
// behind the collector's back); MEMM_ERR_NO_MEMORY when no record is left
// for the old text. On success d is blank.
MEMM_INTERNAL uint32_t loc_dynstr_begin_write(dynstr *d, Write *w);
// Settles what the writer left in d, writes the maximum size back and
// releases the old text. Returns `result` if the writer failed, else the
// placement's result.
MEMM_INTERNAL uint32_t loc_dynstr_end_write(const Write &w, dynstr *d, uint32_t result);

// ---- deletion (deletion.cc) ------------------------------------------------------
MEMM_INTERNAL void loc_dynstr_unlink(dynstr_pooldesc *pool, dynstr *prev, dynstr *d, dynstr *next, uint32_t k);

// ---- collection (collector.cc) ----------------------------------------------------
MEMM_INTERNAL void loc_dynstr_gc(dynstr_pooldesc *pool, int reason);
MEMM_INTERNAL int loc_dynstr_gc_hook(void *cookie, int32_t attempt);

// ---- reports (stats.cc) ---------------------------------------------------------------
MEMM_INTERNAL void loc_dynstr_printobject(void *rec, memm_print_fn print);
MEMM_INTERNAL void loc_dynstr_print_stats(void *cookie, uint32_t *live_total, uint32_t *peak_total,
                                          uint32_t *capacity_total, memm_print_fn print);

// ==== writers: constructors, assignments, appends, formatting ================
// Each writer follows the write protocol of storage.cc, so a source that
// points into the record's own old text stays readable while it works.

// A piece of a text: `len` characters at `text`; a null text when there is
// nothing to copy.
struct Piece {
    const char *text = nullptr;
    size_t len = 0;
};
// The piece [offset, offset + length) of a C string. Offsets outside the
// string are clamped as for a source record; a negative length means "to the
// end". Only as much of src is measured as the piece needs, so cutting
// pieces off a long text one by one does not rescan its rest each time.
inline Piece string_piece(const char *src, int32_t offset, int32_t length) {
    const size_t need = length < 0 ? SIZE_MAX : size_t(offset < 0 ? 0 : offset) + size_t(length);
    const size_t full = need == SIZE_MAX ? strlen(src) : strnlen(src, need);
    const size_t off = offset < 0 ? 0 : (size_t(offset) > full ? full : size_t(offset));
    const size_t avail = full - off;
    const size_t len = (length < 0 || size_t(length) > avail) ? avail : size_t(length);
    return len >= 1 ? Piece{src + off, len} : Piece{};
}

// The substring writer (writers.cc): a piece of `src`, or of `src_rec` when
// `src` is null, replaces the text.
MEMM_INTERNAL uint32_t loc_setsubstring(dynstr *d, const char *src, dynstr *src_rec, int32_t offset, int32_t length);
// The append primitive (append.cc): at most n characters of src go behind the
// text, in place when the text ends at the current buffer's free position.
MEMM_INTERNAL uint32_t loc_addstring_size(dynstr *d, const char *src, uint32_t n);
// The formatting writer (format.cc): replaces the text, or appends to it when
// `append` is set, formatting at most twice.
MEMM_INTERNAL uint32_t loc_vsprintf(dynstr *d, int append, const char *fmt, va_list ap);

// The join writer (join.cc): the items of `list` at positions [first, end)
// with sep between them, and escaped by esc when it is not 0, replace the
// text. Every node must hold a live record.
MEMM_INTERNAL uint32_t loc_dynstr_setstrlist(dynstr *d, llist_node *list, const char *sep, unsigned char esc,
                                             int32_t first, int32_t end);
// Characters of text that an escaped join doubles: those equal to sep's
// character or to esc; 0 when sep is longer than one character or esc is 0.
MEMM_INTERNAL uint32_t loc_count_escapes(const char *text, const char *sep, unsigned char esc);

// A new record of a string pool holding the formatted text, with `caller`
// as its allocation site (format.cc); null for a pool id that is not a
// string pool or when the text cannot be stored. The typed constructors
// pass their own caller, so listings name the user's line.
MEMM_INTERNAL dynstr *loc_fromvprintf(uint32_t pool, void *caller, const char *fmt, va_list ap);
MEMM_INTERNAL dynstr *loc_fromprintf(uint32_t pool, void *caller, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
// Replaces the text of a live record by the formatted text (format.cc);
// MEMM_ERR_INVALID_ARG for anything else. The lock reason is the caller's.
MEMM_INTERNAL uint32_t loc_sprintf(dynstr *d, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// ==== conversions =============================================================
// The hex writer (hex.cc): two lowercase digits per byte of data replace the
// text; a maximum size keeps whole bytes only.
MEMM_INTERNAL uint32_t loc_sethexstring(dynstr *d, const uint8_t *data, uint32_t count);
// Address parsers (convert.cc): the empty text is the zero address.
// IPv4: the four bytes as inet_pton stores them, first octet lowest in memory.
MEMM_INTERNAL uint32_t loc_getipv4addr(const char *text, uint32_t *out);
MEMM_INTERNAL uint32_t loc_getipv6addr(const char *text, uint8_t *out16);

// A constructor's new record, with `caller` as its allocation site. `collect`
// picks a collecting allocation (record or literal sources) over one that
// may use the reserve (plain pointers and formats).
inline dynstr *new_record(uint32_t pool, bool collect, void *caller) {
    return static_cast<dynstr *>(memm_detail::loc_calloc_entry(pool, collect, collect, caller));
}
// A constructor keeps its record only when the writer that filled it succeeded.
inline dynstr *keep_if_written(dynstr *d, uint32_t result) {
    if (result == MEMM_OK)
        return d;
    memm_free_nolock(d);
    return nullptr;
}

} // namespace dynstr_detail

#endif
