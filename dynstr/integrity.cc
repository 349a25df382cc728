// The integrity check of a string pool: walks every buffer's allocation list
// and reports each inconsistency on standard output. It only reports; the
// collector is the one that repairs its own counters.
#include <stdio.h>

#include "dynstr_private.h"

namespace dynstr_detail {

namespace {

bool check_buffer(const dynstr_pooldesc *pool, int k) {
    bool ok = true;
    const dynstr *first = pool->buf_first[k];
    const dynstr *last = pool->buf_last[k];
    if (!first && pool->buf_used[k]) {
        printf("\r\n  - E: buffer %d has no first dynstr but has used bytes, ", k);
        ok = false;
    }
    if (!last && pool->buf_used[k]) {
        printf("\r\n  - E: buffer %d has no last dynstr but has used bytes, ", k);
        ok = false;
    }
    if (last && uint32_t(last->str - pool->buf_base[k]) + size_of(last) != pool->buf_used[k]) {
        printf("\r\n  - E: buffer %d used bytes doesn't match last dynstr, ", k);
        ok = false;
    }
    if (first && first->prev) {
        printf("\r\n  - E: first has nonzero prev, ");
        ok = false;
    }
    return ok;
}

bool check_record(const dynstr_pooldesc *pool, uint32_t k, dynstr *cur) {
    bool ok = true;
    const dynstr *next = cur->next;
    const uint32_t size = size_of(cur);
    const uint32_t maxsize = DYNSTR_MAXSIZE(cur->flags);
    if (maxsize && maxsize < size) {
        printf("\r\n  - E: DYNSTR_MAXSIZE(%d) < DYNSTR_SIZE(%d), ", int(maxsize), int(size));
        ok = false;
    }
    if (size && cur->str) {
        const unsigned long actual = strlen(cur->str) + 1;
        if (actual != size) {
            printf("\r\n  - E: DYNSTR_SIZE(%d) != strlen+1(%lu, '%s'), ", int(size), actual,
                   dynstr_getstring_nolock(cur));
            ok = false;
        }
    }
    if (next && next->prev != cur) {
        printf("\r\n  - E: next->prev != curr, ");
        ok = false;
    }
    if (loc_getbuffernr(cur) != k) {
        printf("\r\n  - E: curr has wrong buffernr, ");
        ok = false;
    }
    if (!cur->str || (cur->flags & DYNSTR_FLAG_LITERAL)) {
        printf("\r\n  - E: literal pstr found, ");
        ok = false;
    }
    if (next && cur->str >= next->str) {
        printf("\r\n  - E: next->str >= curr->str, ");
        ok = false;
    }
    if (!next && cur != pool->buf_last[k]) {
        printf("\r\n  - E: !next && last != curr, ");
        ok = false;
    }
    return ok;
}

} // namespace

} // namespace dynstr_detail

using namespace dynstr_detail;

extern "C" {

int dynstr_integrity_check_nolock(uint32_t pool, uint32_t verbose) {
    // The anchor record guarantees a string pool has a first object.
    void *first = memm_getfirst(pool);
    const dynstr_pooldesc *desc = first ? loc_getdynstrpool(first) : nullptr;
    if (!desc)
        return 1;
    if (verbose)
        printf("Checking dynstr pool '%s'\r\n", desc->name);
    int result = 1;
    for (int k = 0; k < desc->buffercount; k++) {
        if (verbose)
            printf(" + alloc-list buffer %d: ", k);
        bool ok = check_buffer(desc, k);
        int cnt = 0;
        int delcnt = 0;
        // A list never holds more records than the pool has slots; the bound
        // keeps a corrupted, cyclic list from hanging the check.
        for (dynstr *cur = desc->buf_first[k]; cur && uint32_t(cnt) <= desc->capacity; cur = cur->next) {
            if (verbose) {
                printf("\r\n%p", static_cast<void *>(cur));
                loc_dynstr_printobject(cur, printf);
            }
            ok = check_record(desc, uint32_t(k), cur) && ok;
            cnt++;
            delcnt += is_deleted(cur);
        }
        if (!ok)
            result = 0;
        if (verbose)
            printf("%s--> cnt=%d, delcnt=%d\r\n", ok ? "" : "\r\n  ", cnt, delcnt);
    }
    return result;
}

int dynstr_integrity_check(uint32_t pool, uint32_t verbose) {
    memm_detail::PoolLock lock("dynstr_integrity_check");
    return dynstr_integrity_check_nolock(pool, verbose);
}

} // extern "C"
