// Literals: records that refer to a caller's constant text instead of a
// copy. Such a record owns no buffer bytes and is in no allocation list, so
// it costs a record slot only; the caller's text must outlive the record and
// must not change.
#include "dynstr_private.h"

using namespace dynstr_detail;
using memm_detail::PoolLock;

namespace {

// A literal can be held unchanged only when it fits the maximum size and
// the size field.
bool holds_as_literal(size_t len, uint32_t maxsize) {
    return (!maxsize || maxsize > len) && len < DYNSTR_LONG_SIZE_MAX;
}

// Points a record without buffered text at the literal.
void refer_to(dynstr *d, const char *literal, size_t len, uint32_t maxsize) {
    d->str = const_cast<char *>(literal);
    d->flags = DYNSTR_FLAG_LITERAL; // drops a previous literal's size
    loc_setstrsize(d, uint32_t(len + 1));
    if (maxsize)
        (void)loc_setmaxsize(d, maxsize);
}

dynstr *from_literal(uint32_t pool, const char *literal, void *caller) {
    if (!literal || !loc_isdynstrpool(pool))
        return nullptr;
    dynstr *d = new_record(pool, true, caller);
    if (!d)
        return nullptr;
    const size_t len = strlen(literal);
    if (!holds_as_literal(len, 0))
        return keep_if_written(d, loc_setsubstring(d, literal, nullptr, 0, -1));
    refer_to(d, literal, len, 0);
    return d;
}

} // namespace

extern "C" {

dynstr *dynstr_fromliteral_nolock(uint32_t pool, const char *literal) {
    return from_literal(pool, literal, __builtin_return_address(0));
}

dynstr *dynstr_fromliteral(uint32_t pool, const char *literal) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("dynstr_fromliteral");
    return from_literal(pool, literal, caller);
}

uint32_t dynstr_setliteral(dynstr *d, const char *literal) {
    if (!d || !literal)
        return MEMM_ERR_INVALID_ARG;
    PoolLock lock("dynstr_setliteral");
    if (!loc_isdynstring(d))
        return MEMM_ERR_INVALID_ARG;
    const uint32_t maxsize = DYNSTR_MAXSIZE(d->flags);
    const size_t len = strlen(literal);
    // A literal over the maximum size cannot be kept unchanged: store a cut copy.
    if (!holds_as_literal(len, maxsize))
        return loc_setsubstring(d, literal, nullptr, 0, -1);
    if (is_buffered(d)) {
        // The old text becomes deleted space in its buffer.
        dynstr *old;
        if (loc_dynstr_detach(loc_getdynstrpool(d), d, &old) != MEMM_OK)
            return MEMM_ERR_NO_MEMORY;
        memm_free_nolock(old);
    }
    refer_to(d, literal, len, maxsize);
    return MEMM_OK;
}

} // extern "C"
