// A string pool's storage recomputed from its buffer lists and compared with
// every stored counter.
#ifndef MEMM_MODEL_STRING_STORAGE_H
#define MEMM_MODEL_STRING_STORAGE_H

#include <string>

#include "dynstr.h"
#include "failures.h"

namespace memm_model {

inline dynstr_pooldesc *string_pool(uint32_t pool) {
    return static_cast<dynstr_pooldesc *>(memm_getpoolcookie_bypoolid(pool));
}

// Empty for sound storage of a pool holding `live` records besides its
// anchor: the integrity check passes, each buffer is packed in list order
// with an all-zero free tail, every counter matches a walk of the lists,
// every slot in use is a live record, a placeholder or the anchor, and no
// staged text is left behind. Otherwise what is wrong.
inline std::string storage_fault(uint32_t pool, size_t live) {
    const dynstr_pooldesc *desc = string_pool(pool);
    if (dynstr_integrity_check(pool, 0) != 1)
        return "integrity check failed";
    uint32_t used = 0, delbytes = 0, delcount = 0;
    for (int k = 0; k < desc->buffercount; k++) {
        uint32_t b_used = 0, b_count = 0, b_del = 0, b_delbytes = 0;
        const dynstr *prev = nullptr;
        for (const dynstr *d = desc->buf_first[k]; d; prev = d, d = d->next) {
            if (d->prev != prev || d->str != desc->buf_base[k] + b_used)
                return str("buffer ", k, " not packed in list order");
            const uint32_t size = DYNSTR_SIZE(d->flags);
            b_used += size, b_count++;
            if (d->flags & DYNSTR_FLAG_DELETED)
                b_del++, b_delbytes += size;
        }
        if (desc->buf_last[k] != prev || desc->buf_used[k] != b_used || desc->buf_count[k] != b_count ||
            desc->buf_delcount[k] != b_del || desc->buf_delbytes[k] != b_delbytes)
            return str("buffer ", k, " last record or counters differ from a walk: used ", b_used, ", count ", b_count);
        for (uint32_t i = b_used; i < uint32_t(desc->buffersize); i++)
            if (desc->buf_base[k][i] != 0)
                return str("free tail of buffer ", k, " not zero at ", i);
        used += b_used, delbytes += b_delbytes, delcount += b_del;
    }
    if (desc->usedbytes != used || desc->delbytes != delbytes || desc->delcount != delcount)
        return str("pool counters differ from a walk: usedbytes ", used, ", delbytes ", delbytes);
    const uint32_t slots = memm_get_pool_nolock(pool)->cur_count;
    if (slots != live + delcount + 1 || (desc->state & DYNSTR_STATE_DYNMEM_PENDING))
        return str("record slots in use ", slots, ", expected ", live + delcount + 1, ", or dynmem left pending");
    return "";
}

} // namespace memm_model

#endif
