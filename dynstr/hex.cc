// Hex texts: byte arrays written as two lowercase digits per byte, and read
// back.
//
// The writer knows the text's size before it writes, so it needs no
// measuring pass: it writes straight into the current buffer's free tail,
// or into a dynmem block of exactly that size when the tail is too short.
// The reader does not validate: every character pair gives a byte by fixed
// formulas, so only the output size can make it fail.
#include <ctype.h>

#include "dynstr_private.h"

namespace dynstr_detail {

namespace {

const char kHexDigits[] = "0123456789abcdef";

// Whole bytes of `count` whose text fits `maxsize` (0: none) and the size
// field; a maximum size thus leaves an odd size, never half a byte.
uint32_t bytes_that_fit(uint32_t count, uint32_t maxsize) {
    uint64_t size = 2 * uint64_t(count) + 1;
    if (maxsize && maxsize < size)
        size = maxsize;
    if (size > DYNSTR_LONG_SIZE_MAX)
        size = DYNSTR_LONG_SIZE_MAX;
    return uint32_t((size - 1) / 2);
}

} // namespace

uint32_t loc_sethexstring(dynstr *d, const uint8_t *data, uint32_t count) {
    Write w;
    if (const uint32_t refused = loc_dynstr_begin_write(d, &w))
        return refused;

    uint32_t result = MEMM_OK;
    const uint32_t bytes = data ? bytes_that_fit(count, w.maxsize) : 0;
    if (bytes > 0) {
        const uint32_t size = 2 * bytes + 1;
        // The destination is all zero (free tail or fresh block), so the
        // terminator is already in place.
        if (int64_t(size) <= loc_getfreespace(w.pool, d) || loc_dynmem_alloc(w.pool, d, int32_t(size))) {
            for (uint32_t i = 0; i < bytes; i++) {
                d->str[2 * i] = kHexDigits[data[i] >> 4];
                d->str[2 * i + 1] = kHexDigits[data[i] & 0xF];
            }
            loc_setstrsize(d, size);
        } else {
            result = MEMM_ERR_NO_MEMORY; // str is null: the record ends empty
        }
    }

    return loc_dynstr_end_write(w, d, result);
}

} // namespace dynstr_detail

using namespace dynstr_detail;
using memm_detail::PoolLock;

namespace {

// The byte of one digit pair. Letters count from 'a' = 10; anything else is
// taken as it comes, modulo 16 for the high nibble, as a signed byte for the
// low one. A missing low digit (odd length) leaves the low nibble 0.
uint8_t pair_value(unsigned char hi, unsigned char lo) {
    const int h = tolower(hi), l = tolower(lo);
    const int high = (h > 96 ? h - 87 : h) % 16;
    if (lo == '\0')
        return uint8_t(high << 4);
    const int low = l < 97 ? l - 48 : l - 87;
    return uint8_t((high << 4) | low);
}

} // namespace

extern "C" {

dynstr *dynstr_hexstringfromdata(uint32_t pool, const uint8_t *data, uint32_t count) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("dynstr_hexstringfromdata");
    if (!loc_isdynstrpool(pool))
        return nullptr;
    dynstr *d = new_record(pool, true, caller);
    return d ? keep_if_written(d, loc_sethexstring(d, data, count)) : nullptr;
}

uint32_t dynstr_sethexstring(dynstr *d, const uint8_t *data, uint32_t count) {
    PoolLock lock("dynstr_sethexstring");
    return loc_sethexstring(d, data, count);
}

uint32_t dynstr_gethexstring(dynstr *d, uint8_t *out, int32_t outsize) {
    if (!d || !out)
        return MEMM_ERR_INVALID_ARG;
    PoolLock lock("dynstr_gethexstring");
    if (!loc_isdynstring(d))
        return MEMM_ERR_INVALID_ARG;
    const char *text = d->str ? d->str : "";
    const size_t len = strlen(text);
    const size_t bytes = (len + 1) / 2;
    if (outsize < 0 || bytes > size_t(outsize))
        return MEMM_ERR_BUFFER_TOO_SMALL;
    memset(out, 0, size_t(outsize));
    for (size_t i = 0; i < bytes; i++)
        out[i] = pair_value(static_cast<unsigned char>(text[2 * i]), static_cast<unsigned char>(text[2 * i + 1]));
    return MEMM_OK;
}

} // extern "C"
