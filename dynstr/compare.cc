// Comparing texts, copying them out of the string buffers, and replacing
// single characters in place.
//
// Every operation reads texts as dynstr_getstring does, so none fails on a
// bad record: such a record takes part with its placeholder text. The lock
// is held throughout, since the collector may move a text as soon as it is
// released; the copies are how a caller keeps a text beyond that.
#include <stdlib.h>
#include <strings.h>

#include "dynstr_private.h"

using namespace dynstr_detail;
using memm_detail::PoolLock;

namespace {

const char *text_of(dynstr *d) { return dynstr_getstring_nolock(d); }
const char *or_empty(const char *s) { return s ? s : ""; }

} // namespace

extern "C" {

int dynstr_strcmp(dynstr *a, dynstr *b) {
    PoolLock lock("dynstr_strcmp");
    return strcmp(text_of(a), text_of(b));
}

int dynstr_strcmp2(dynstr *a, const char *b) {
    PoolLock lock("dynstr_strcmp2");
    return strcmp(text_of(a), or_empty(b));
}

int dynstr_strcmpi(dynstr *a, dynstr *b) {
    PoolLock lock("dynstr_strcmpi");
    return strcasecmp(text_of(a), text_of(b));
}

int dynstr_strcmpi2(dynstr *a, const char *b) {
    PoolLock lock("dynstr_strcmpi2");
    return strcasecmp(text_of(a), or_empty(b));
}

int dynstr_strncmp(dynstr *a, dynstr *b, uint32_t n) {
    PoolLock lock("dynstr_strncmp");
    return strncmp(text_of(a), text_of(b), n);
}

int dynstr_strncmp2(dynstr *a, const char *b, uint32_t n) {
    PoolLock lock("dynstr_strncmp2");
    return strncmp(text_of(a), or_empty(b), n);
}

char *dynstr_strncpy(char *dst, dynstr *d, uint32_t n) {
    // No room even for a terminator: nothing is written.
    if (!dst || n == 0)
        return dst;
    PoolLock lock("dynstr_strncpy");
    strncpy(dst, text_of(d), n - 1);
    dst[n - 1] = '\0';
    return dst;
}

char *dynstr_strdup(dynstr *d) {
    PoolLock lock("dynstr_strdup");
    return strdup(text_of(d));
}

uint32_t dynstr_replace_char(dynstr *d, char from, char to, uint32_t *count) {
    if (!from || !to)
        return MEMM_ERR_INVALID_ARG;
    if (count)
        *count = 0;
    PoolLock lock("dynstr_replace_char");
    if (!loc_isdynstring(d))
        return MEMM_ERR_INVALID_ARG;
    if (!d->str || !strchr(d->str, from))
        return MEMM_OK;
    if (d->flags & DYNSTR_FLAG_LITERAL) {
        // The text is the caller's constant: change a copy in a buffer instead.
        const uint32_t result = dynstr_setdynstr_nolock(d, d);
        if (result != MEMM_OK)
            return result;
    }
    // The length stays, so the text is changed where it lies.
    uint32_t replaced = 0;
    for (char *p = strchr(d->str, from); p; p = strchr(p + 1, from)) {
        *p = to;
        replaced++;
    }
    if (count)
        *count = replaced;
    return MEMM_OK;
}

} // extern "C"
