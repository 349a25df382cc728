// Formatting: the writer loc_vsprintf and the printf family built on it.
//
// The output's length is not known in advance, so loc_vsprintf prints once
// where the text would go anyway, the current buffer's free tail, and learns
// the length from vsnprintf's result; only output that did not fit is
// printed a second time, into a dynmem block of exactly the right size. The
// caller's arguments are therefore read at most twice.
//
// The outcomes of empty output, output with a zero byte and a failing
// vsnprintf are documented in dynstr.h.
#include <stdio.h>

#include "dynstr_private.h"

namespace dynstr_detail {

namespace {

int print(char *dst, size_t size, const char *fmt, va_list ap) {
    va_list pass;
    va_copy(pass, ap);
    const int n = vsnprintf(dst, size, fmt, pass);
    va_end(pass);
    return n;
}

// Zeroes what a print left behind the text's first zero byte in the free
// tail (output containing a zero byte), which must stay all zero.
void clear_behind_text(char *text, size_t written) {
    const size_t len = strnlen(text, written);
    memset(text + len, 0, written - len);
}

} // namespace

uint32_t loc_vsprintf(dynstr *d, int append, const char *fmt, va_list ap) {
    if (!fmt)
        return MEMM_ERR_INVALID_ARG;
    Write w;
    if (const uint32_t refused = loc_dynstr_begin_write(d, &w))
        return refused;
    dynstr_pooldesc *const pool = w.pool;
    const uint32_t maxsize = w.maxsize;
    dynstr *const old = w.old;
    // Length of the text kept in front of the output.
    const size_t keep = append && old->str && size_of(old) ? size_of(old) - 1 : 0;

    // First pass, into the free tail when the kept text fits there, else
    // into a one-byte scratch area just to learn the length. A maximum size
    // within the free tail caps the capacity: output cut there is final.
    const size_t free_bytes = size_t(loc_getfreespace(pool, d));
    char *const free_pos = d->str;
    const bool capped = maxsize && maxsize <= free_bytes;
    const size_t capacity = capped ? maxsize : free_bytes;
    // An append to an empty text only measures and then stages, like an
    // append whose old text does not fit the tail.
    const bool direct = append ? keep > 0 && capacity > keep : capacity > 0;
    char scratch[1];
    int printed;
    if (direct) {
        if (keep)
            memcpy(free_pos, old->str, keep);
        printed = print(free_pos + keep, capacity - keep, fmt, ap);
    } else {
        printed = print(scratch, sizeof scratch, fmt, ap);
    }

    uint32_t result = MEMM_OK;
    bool staged = false;
    if (printed < 0) {
        if (direct)
            memset(free_pos, 0, capacity); // what vsnprintf left is undefined
        d->str = nullptr;
        result = MEMM_ERR_INVALID_ARG;
    } else if (direct && (keep + size_t(printed) < capacity || capped)) {
        // It fitted, or was cut at the maximum size: the text stays here.
        const size_t printed_len = keep + size_t(printed);
        clear_behind_text(free_pos, printed_len < capacity ? printed_len : capacity - 1);
    } else {
        if (direct)
            memset(free_pos, 0, capacity); // it did not fit: give the tail its zeros back
        size_t len = keep + size_t(printed);
        if (maxsize && maxsize <= len + 1)
            len = maxsize - 1;
        if (len >= DYNSTR_LONG_SIZE_MAX)
            len = DYNSTR_LONG_SIZE_MAX - 1;
        if (len == 0) {
            d->str = nullptr;
        } else if (!loc_dynmem_alloc(pool, d, int32_t(len + 1))) {
            result = MEMM_ERR_NO_MEMORY; // str is null: the record ends empty
        } else {
            staged = true;
            if (keep)
                memcpy(d->str, old->str, keep);
            if (print(d->str + keep, len + 1 - keep, fmt, ap) < 0) {
                memset(d->str, 0, len + 1);
                result = MEMM_ERR_INVALID_ARG;
            }
        }
    }

    // The size is what is actually there. An empty staged text keeps size
    // 0, which makes loc_dynstr_updatepool free its block.
    const size_t len = d->str ? strlen(d->str) : 0;
    if (len)
        loc_setstrsize(d, uint32_t(len + 1));
    else if (!staged)
        loc_setstrsize(d, 0);
    return loc_dynstr_end_write(w, d, result);
}

} // namespace dynstr_detail

using namespace dynstr_detail;
using memm_detail::PoolLock;

namespace dynstr_detail {

// Formatted text of a new record, allocated without collection like every
// constructor from a plain pointer.
dynstr *loc_fromvprintf(uint32_t pool, void *caller, const char *fmt, va_list ap) {
    if (!fmt || !loc_isdynstrpool(pool))
        return nullptr;
    dynstr *d = new_record(pool, false, caller);
    return d ? keep_if_written(d, loc_vsprintf(d, 0, fmt, ap)) : nullptr;
}

dynstr *loc_fromprintf(uint32_t pool, void *caller, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    dynstr *d = loc_fromvprintf(pool, caller, fmt, ap);
    va_end(ap);
    return d;
}

uint32_t loc_sprintf(dynstr *d, const char *fmt, ...) {
    if (!loc_isdynstring(d))
        return MEMM_ERR_INVALID_ARG;
    va_list ap;
    va_start(ap, fmt);
    const uint32_t result = loc_vsprintf(d, 0, fmt, ap);
    va_end(ap);
    return result;
}

} // namespace dynstr_detail

namespace {

// Formatting into a caller's record: live records of a string pool only.
uint32_t locked_vsprintf(dynstr *d, int append, const char *reason, const char *fmt, va_list ap) {
    PoolLock lock(reason);
    return loc_isdynstring(d) ? loc_vsprintf(d, append, fmt, ap) : MEMM_ERR_INVALID_ARG;
}

} // namespace

extern "C" {

dynstr *dynstr_fromprintf(uint32_t pool, const char *fmt, ...) {
    void *caller = __builtin_return_address(0);
    va_list ap;
    va_start(ap, fmt);
    dynstr *d;
    {
        PoolLock lock("dynstr_fromprintf");
        d = loc_fromvprintf(pool, caller, fmt, ap);
    }
    va_end(ap);
    return d;
}

dynstr *dynstr_fromvprintf(uint32_t pool, const char *fmt, va_list ap) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("dynstr_fromvprintf");
    return loc_fromvprintf(pool, caller, fmt, ap);
}

uint32_t dynstr_sprintf(dynstr *d, const char *fmt, ...) {
    if (!d || !fmt)
        return MEMM_ERR_INVALID_ARG;
    va_list ap;
    va_start(ap, fmt);
    const uint32_t result = locked_vsprintf(d, 0, "dynstr_sprintf", fmt, ap);
    va_end(ap);
    return result;
}

uint32_t dynstr_addsprintf(dynstr *d, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const uint32_t result = locked_vsprintf(d, 1, "dynstr_addsprintf", fmt, ap);
    va_end(ap);
    return result;
}

} // extern "C"
