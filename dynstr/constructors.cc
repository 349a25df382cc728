// Constructors that copy text into a new record: from a C string, a piece of
// one, a record, a piece of a record, and the text after a separator.
// Literals are in literal.cc, formatted texts in format.cc.
//
// Each one records its own caller as the record's allocation site, so that
// object listings name the user's call site rather than the library.
#include "dynstr_private.h"

using namespace dynstr_detail;
using memm_detail::PoolLock;

namespace {

// From a plain pointer: allocated without collection, so the reserve may be
// taken, which makes the next placement collect instead.
dynstr *from_substring(uint32_t pool, const char *s, int32_t offset, int32_t length, void *caller) {
    dynstr_pooldesc *desc = s ? loc_stringpool(pool) : nullptr;
    if (!desc)
        return nullptr;
    if (dynstr *d = loc_fromsubstring_direct(desc, s, offset, length, caller))
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
