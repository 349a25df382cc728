// Joining a string list into the text of one record: the writer
// loc_dynstr_setstrlist and the three constructors built on it.
//
// A join's length is not known in advance and the items are not copied
// anywhere first, so the writer works in at most two filling attempts:
//
//   attempt 1: straight into the current buffer's free tail
//              (capacity: the tail, or the maximum size when the tail holds it)
//   overflow?  zero what was written, count the exact size once,
//              take a dynmem block of that size
//   attempt 2: into the block; sized exactly, it cannot overflow
//
// An attempt capped by the maximum size never overflows into a second one:
// it keeps the whole items that fitted (and a separator that fitted behind
// the last of them), since texts are cut at the maximum size, never refused.
#include "../llist/llist_private.h"
#include "dynstr_private.h"

namespace dynstr_detail {

namespace {

using llist_detail::node_next;
using llist_detail::node_obj;
using memm_detail::loc_log;

// A join refuses totals whose size would not fit a signed 32-bit count.
constexpr uint64_t kMaxJoinTotal = 2147483647u;

struct Join {
    const char *sep;
    size_t seplen;
    unsigned char esc;
    int32_t first, end;
};

// The text of every item, or null when a node does not hold a live record:
// such a node makes the whole join fail.
const char *item_text(llist_node *node) {
    void *obj = node_obj(node);
    return loc_isdynstring(obj) ? dynstr_getstring_nolock(static_cast<dynstr *>(obj)) : nullptr;
}

uint32_t item_escapes(const char *text, const Join &j) {
    return j.esc ? loc_count_escapes(text, j.sep, j.esc) : 0;
}

enum class Fill { kDone, kOverflow, kBadNode };

// One filling attempt into `dst` (all zero, `capacity` bytes). On return
// *size is the text's size (terminator included, 0 when no item was written).
Fill fill(char *dst, size_t capacity, llist_node *list, const Join &j, size_t *size) {
    *size = 0;
    int32_t pos = 0;
    bool written = false;
    for (llist_node *node = list; node; node = node_next(node), pos++) {
        const char *text = item_text(node);
        if (!text)
            return Fill::kBadNode;
        if (pos < j.first || pos >= j.end)
            continue;
        if (written) {
            if (*size + j.seplen > capacity)
                return Fill::kOverflow;
            const size_t len = *size - 1;
            if (strlcpy(dst + len, j.sep, capacity - len) >= capacity - len)
                loc_log("[DYNSTR] %s: %s\r\n", "WARNING", "loc_dynstr_setstrlist truncated separator");
            *size += j.seplen;
        }
        const size_t itemlen = strlen(text);
        const size_t escapes = item_escapes(text, j);
        if ((*size ? *size : 1) + itemlen + escapes > capacity)
            return Fill::kOverflow;
        const size_t len = *size ? *size - 1 : 0;
        if (escapes) {
            char *out = dst + len;
            for (const char *c = text; *c; c++) {
                if (*c == j.sep[0] || static_cast<unsigned char>(*c) == j.esc)
                    *out++ = char(j.esc);
                *out++ = *c;
            }
            *out = '\0';
        } else if (strlcpy(dst + len, text, capacity - len) >= capacity - len) {
            loc_log("[DYNSTR] %s: %s\r\n", "WARNING", "loc_dynstr_setstrlist truncated strlist item");
        }
        *size = *size ? *size + itemlen + escapes : itemlen + escapes + 1;
        written = true;
    }
    return Fill::kDone;
}

// The exact length of the join (without terminator), or kMaxJoinTotal and
// more when it is too long; false when a node does not hold a live record.
bool measure(llist_node *list, const Join &j, uint64_t *total) {
    *total = 0;
    int32_t pos = 0;
    bool written = false;
    for (llist_node *node = list; node; node = node_next(node), pos++) {
        const char *text = item_text(node);
        if (!text)
            return false;
        if (pos < j.first || pos >= j.end)
            continue;
        *total += strlen(text) + item_escapes(text, j) + (written ? j.seplen : 0);
        written = true;
    }
    return true;
}

} // namespace

uint32_t loc_count_escapes(const char *text, const char *sep, unsigned char esc) {
    if (!text || !esc || !sep || strlen(sep) > 1)
        return 0;
    uint32_t count = 0;
    for (const char *c = text; *c; c++)
        if (*c == sep[0] || static_cast<unsigned char>(*c) == esc)
            count++;
    return count;
}

uint32_t loc_dynstr_setstrlist(dynstr *d, llist_node *list, const char *sep, unsigned char esc, int32_t first,
                               int32_t end) {
    if (!sep)
        return MEMM_ERR_INVALID_ARG;
    Write w;
    if (const uint32_t refused = loc_dynstr_begin_write(d, &w))
        return refused;
    const uint32_t maxsize = w.maxsize;
    const Join j{sep, strlen(sep), esc, first, end};

    uint32_t result = MEMM_OK;
    size_t size = 0;
    if (list) {
        // Attempt 1 into the free tail, attempt 2 into an exactly sized block.
        size_t room = size_t(loc_getfreespace(w.pool, d));
        bool capped = false; // the size field, not the block, limits attempt 2
        for (int attempt = 1; attempt <= 2; attempt++) {
            const bool truncating = capped || (maxsize && room >= maxsize);
            const size_t capacity = maxsize && room >= maxsize ? maxsize : room;
            const Fill filled = fill(d->str, capacity, list, j, &size);
            if (filled == Fill::kDone || (filled == Fill::kOverflow && truncating))
                break;
            memset(d->str, 0, size); // the tail stays all zero; a block is emptied
            size = 0;
            uint64_t total = 0;
            if (filled == Fill::kBadNode || !measure(list, j, &total) || total >= kMaxJoinTotal) {
                result = MEMM_ERR_INVALID_ARG;
                break;
            }
            if (total == 0)
                break;
            // A join longer than the size field can hold keeps the whole
            // items that fit, as at a maximum size.
            capped = total + 1 > DYNSTR_LONG_SIZE_MAX;
            room = capped ? DYNSTR_LONG_SIZE_MAX : size_t(total + 1);
            if (!loc_dynmem_alloc(w.pool, d, int32_t(room))) {
                result = MEMM_ERR_NO_MEMORY;
                break;
            }
        }
    }

    // An empty or failed join takes no buffer space. A staged block keeps
    // its pointer with size 0, so that loc_dynstr_updatepool frees it.
    if (size > 1)
        loc_setstrsize(d, uint32_t(size));
    else if (!(w.pool->state & DYNSTR_STATE_DYNMEM_PENDING))
        d->str = nullptr;
    return loc_dynstr_end_write(w, d, result);
}

} // namespace dynstr_detail

using namespace dynstr_detail;
using memm_detail::PoolLock;

namespace {

// The record keeps the allocation site that the allocation stored.
dynstr *from_strlist(uint32_t pool, llist_node *list, const char *sep, unsigned char esc, int32_t first,
                     int32_t end) {
    if (!loc_isdynstrpool(pool))
        return nullptr;
    auto *d = static_cast<dynstr *>(memm_calloc_nolock(pool));
    return d ? keep_if_written(d, loc_dynstr_setstrlist(d, list, sep, esc, first, end)) : nullptr;
}

int32_t whole_list_end(llist_node *list) { return int32_t(llist_getlength_nolock(list)); }

} // namespace

extern "C" {

dynstr *dynstr_fromstrlist(uint32_t pool, llist_node *list, const char *sep) {
    PoolLock lock("dynstr_fromstrlist");
    return from_strlist(pool, list, sep, 0, 0, whole_list_end(list));
}

dynstr *dynstr_frompartialstrlist(uint32_t pool, llist_node *list, const char *sep, int32_t first, int32_t end) {
    PoolLock lock("dynstr_frompartialstrlist");
    return from_strlist(pool, list, sep, 0, first, end);
}

dynstr *dynstr_fromstrlist_escaped(uint32_t pool, llist_node *list, const char *sep, unsigned char esc) {
    PoolLock lock("dynstr_fromstrlist_escaped");
    return from_strlist(pool, list, sep, esc, 0, whole_list_end(list));
}

} // extern "C"
