// Checks shared by the string tests: a string pool's storage recomputed from
// its buffer lists and compared with every stored counter.
#ifndef MEMM_TEST_DYNSTR_SUPPORT_H
#define MEMM_TEST_DYNSTR_SUPPORT_H

#include <gtest/gtest.h>

#include <string.h>

#include "dynstr.h"

namespace memm_test {

inline dynstr_pooldesc *string_pool(uint32_t pool) {
    return static_cast<dynstr_pooldesc *>(memm_getpoolcookie_bypoolid(pool));
}

// Sound storage for a pool holding `live` records besides its anchor: the
// integrity check passes, each buffer is packed in list order with an
// all-zero free tail, every counter matches a walk of the lists, every slot
// in use is a live record, a placeholder or the anchor, and no staged text
// is left behind.
inline ::testing::AssertionResult storage_consistent(uint32_t pool, size_t live) {
    const dynstr_pooldesc *desc = string_pool(pool);
    if (dynstr_integrity_check(pool, 0) != 1)
        return ::testing::AssertionFailure() << "integrity check failed";
    uint32_t used = 0, delbytes = 0, delcount = 0;
    for (int k = 0; k < desc->buffercount; k++) {
        uint32_t b_used = 0, b_count = 0, b_del = 0, b_delbytes = 0;
        const dynstr *prev = nullptr;
        for (const dynstr *d = desc->buf_first[k]; d; prev = d, d = d->next) {
            if (d->prev != prev || d->str != desc->buf_base[k] + b_used)
                return ::testing::AssertionFailure() << "buffer " << k << " not packed in list order";
            const uint32_t size = DYNSTR_SIZE(d->flags);
            b_used += size, b_count++;
            if (d->flags & DYNSTR_FLAG_DELETED)
                b_del++, b_delbytes += size;
        }
        if (desc->buf_last[k] != prev)
            return ::testing::AssertionFailure() << "buf_last of buffer " << k;
        if (desc->buf_used[k] != b_used || desc->buf_count[k] != b_count || desc->buf_delcount[k] != b_del ||
            desc->buf_delbytes[k] != b_delbytes)
            return ::testing::AssertionFailure()
                   << "buffer " << k << " counters used/count/delcount/delbytes " << desc->buf_used[k] << "/"
                   << desc->buf_count[k] << "/" << desc->buf_delcount[k] << "/" << desc->buf_delbytes[k]
                   << ", walked " << b_used << "/" << b_count << "/" << b_del << "/" << b_delbytes;
        for (uint32_t i = b_used; i < uint32_t(desc->buffersize); i++)
            if (desc->buf_base[k][i] != 0)
                return ::testing::AssertionFailure() << "free tail of buffer " << k << " not zero at " << i;
        used += b_used, delbytes += b_delbytes, delcount += b_del;
    }
    if (desc->usedbytes != used || desc->delbytes != delbytes || desc->delcount != delcount)
        return ::testing::AssertionFailure() << "pool counters usedbytes/delbytes/delcount " << desc->usedbytes << "/"
                                             << desc->delbytes << "/" << desc->delcount << ", walked " << used << "/"
                                             << delbytes << "/" << delcount;
    const uint32_t slots = memm_get_pool_nolock(pool)->cur_count;
    if (slots != live + delcount + 1)
        return ::testing::AssertionFailure() << "record slots in use " << slots << ", expected " << live + delcount + 1;
    if (desc->state & DYNSTR_STATE_DYNMEM_PENDING)
        return ::testing::AssertionFailure() << "dynmem left pending";
    return ::testing::AssertionSuccess();
}

// The allocation site recorded in a record's header.
inline void *allocfrom(const dynstr *d) {
    void *at;
    memcpy(&at, reinterpret_cast<const char *>(d) - MEMM_OBJHDR_SIZE + 8, sizeof at);
    return at;
}

// Collections run so far in the pool for one reason, over all buffers.
inline uint32_t collections(uint32_t pool, int reason) {
    uint32_t n = 0;
    for (const auto &row : string_pool(pool)->gc_reason)
        n += row[reason];
    return n;
}

} // namespace memm_test

#endif
