// Assignments that replace a record's text by a copy of a C string, of a
// record's text, or of a piece of either. All go through loc_setsubstring,
// which checks the record's pool itself; the forms with a source record and
// dynstr_setsubstring check liveness up front.
#include "dynstr_private.h"

using namespace dynstr_detail;
using memm_detail::PoolLock;

extern "C" {

uint32_t dynstr_setstring_nolock(dynstr *d, const char *s) { return loc_setsubstring(d, s, nullptr, 0, -1); }

uint32_t dynstr_setstring(dynstr *d, const char *s) {
    PoolLock lock("dynstr_setstring");
    return loc_setsubstring(d, s, nullptr, 0, -1);
}

// src may be d: the writer then copies from the detached old text. The
// writer reads src's text, so src must be a live record, not merely an
// object.
uint32_t dynstr_setdynstr_nolock(dynstr *d, dynstr *src) {
    if (!loc_isdynstring(src))
        return MEMM_ERR_INVALID_ARG;
    return loc_setsubstring(d, nullptr, src, 0, -1);
}

uint32_t dynstr_setdynstr(dynstr *d, dynstr *src) {
    PoolLock lock("dynstr_setdynstr");
    return dynstr_setdynstr_nolock(d, src);
}

uint32_t dynstr_setsubstring(dynstr *d, const char *s, int32_t offset, int32_t length) {
    PoolLock lock("dynstr_setsubstring");
    if (!loc_isdynstring(d))
        return MEMM_ERR_INVALID_ARG;
    return loc_setsubstring(d, s, nullptr, offset, length);
}

uint32_t dynstr_setsubdynstr(dynstr *d, dynstr *src, int32_t offset, int32_t length) {
    PoolLock lock("dynstr_setsubdynstr");
    if (!loc_isdynstring(d) || !loc_isdynstring(src))
        return MEMM_ERR_INVALID_ARG;
    return loc_setsubstring(d, nullptr, src, offset, length);
}

} // extern "C"
