// The report hooks of a string pool: the one-line record description
// (print2, used by object listings and the verbose integrity check) and the
// buffer statistics (print_stats, used by the statistics reports).
#include "dynstr_private.h"

namespace dynstr_detail {

namespace {

constexpr size_t kPreviewChars = 50;
constexpr size_t kPreviewKeep = 47; // longer texts show this many characters and "..."

// Percentages: signed division for the pool lines, 0 for a zero divisor.
// The products are taken in 64 bits: a daemon's lifetime counters (bytes
// reclaimed, collections) pass 2^32 / 100 long before they pass 2^32.
int pct_signed(uint32_t part, uint32_t whole) {
    const int32_t den = int32_t(whole);
    return den ? int(int64_t(int32_t(part)) * 100 / den) : 0;
}

unsigned pct_unsigned(uint32_t part, uint32_t whole) { return whole ? unsigned(uint64_t(part) * 100u / whole) : 0; }

unsigned per_gc(uint32_t total, uint32_t gc_count) { return gc_count ? total / gc_count : 0; }

void print_pool_lines(const dynstr_pooldesc *pool, uint32_t *live_total, uint32_t *peak_total,
                      uint32_t *capacity_total, memm_print_fn print) {
    const uint32_t gcs = pool->gc_count;
    const uint32_t capacity = uint32_t(pool->buffercount) * uint32_t(pool->buffersize);
    const uint32_t live = pool->usedbytes - pool->delbytes;
    // Fillers keep the columns in place as the collection count grows.
    const char *p1 = gcs < 1000000 ? " " : "";
    const char *p2 = gcs < 10000000 ? " " : "";
    const bool depleted = pool->state & DYNSTR_STATE_DEPLETED;
    print("\r\n    - %d %8s %s%s%18s%6d,%6d   %6d,%6d,%6d  (%s%3d%%)    curr:%5d%%", int(pool->buffercount), "buffers,",
          p1, p2, "#gc, min#/gc:", int(gcs), int(pool->mincalls), int(live), int(pool->peaklive), int(capacity),
          depleted ? ">" : " ", depleted ? 100 : pct_signed(pool->peaklive, capacity), pct_signed(live, capacity));
    *live_total += live;
    *peak_total += pool->peaklive;
    *capacity_total += capacity;

    for (int k = 0; k < pool->buffercount; k++) {
        // Bounded like the integrity check: a broken list must not hang a report.
        uint32_t records = 0;
        for (const dynstr *d = pool->buf_first[k]; d && records <= pool->capacity; d = d->next)
            records++;
        const uint32_t buf_live = pool->buf_used[k] - pool->buf_delbytes[k];
        print("\r\n %3s %s%13s %d, %13s%6d,%6d   %6d,%6d,%6d  ( %3d%%)    curr:%5d%%", "",
              uint32_t(k) == pool->curbuffer ? "->" : "- ", "string buffer", k + 1, "# used/del:",
              int(records - pool->buf_delcount[k]), int(pool->buf_delcount[k]), int(buf_live),
              int(pool->buf_peaklive[k]), int(pool->buffersize),
              pct_signed(pool->buf_peaklive[k], uint32_t(pool->buffersize)),
              pct_signed(buf_live, uint32_t(pool->buffersize)));
    }
}

void print_collector_lines(const dynstr_pooldesc *pool, memm_print_fn print) {
    const uint32_t gcs = pool->gc_count;
    print("    - updatepool calls per gc avg/min: %u/%u\r\n", per_gc(pool->calls, gcs), unsigned(pool->mincalls));
    print("    - recup ctx/data: %2u%%/%2u%%, gc_cnt:%u, avg dynstr/bytes/fill: %u/%u/%u%%\r\n",
          pct_unsigned(pool->recup_ctx, pool->del_total), pct_unsigned(pool->recup_bytes, pool->delbytes_total),
          unsigned(gcs), per_gc(pool->gc_ctx, gcs), per_gc(pool->gc_bytes, gcs), per_gc(pool->fill_sum, gcs));
    if (!gcs)
        return;
    for (int k = 0; k < pool->buffercount; k++) {
        const uint32_t *reasons = pool->gc_reason[k];
        print(" %19s %d, %s %3d%%/%3d%%/%3d%%\r\n", "- string buffer", k + 1,
              "gc reason ctx_balance/ctx_depleted/buffer_full:", int(pct_unsigned(reasons[0], gcs)),
              int(pct_unsigned(reasons[1], gcs)), int(pct_unsigned(reasons[2], gcs)));
    }
}

} // namespace

void loc_dynstr_printobject(void *rec, memm_print_fn print) {
    auto *d = static_cast<dynstr *>(rec);
    if (!d || !loc_getdynstrpool(d))
        return;
    char preview[kPreviewChars + 1] = {};
    if (d->str) {
        memcpy(preview, d->str, strnlen(d->str, kPreviewChars));
        if (strlen(preview) > kPreviewKeep)
            memcpy(preview + kPreviewKeep, "...", 4);
    }
    print(" - bnr=%d, maxsize=%d, size=%d, %s%sdata=0x%08lx='%s', allocaddr %p", int(loc_getbuffernr(d)),
          int(DYNSTR_MAXSIZE(d->flags)), int(size_of(d)), is_deleted(d) ? "deleted, " : "",
          (!d->str || (d->flags & DYNSTR_FLAG_LITERAL)) ? "literal, " : "",
          static_cast<unsigned long>(reinterpret_cast<uintptr_t>(d->str)), preview, record_allocfrom(d));
}

void loc_dynstr_print_stats(void *cookie, uint32_t *live_total, uint32_t *peak_total, uint32_t *capacity_total,
                            memm_print_fn print) {
    // Only descriptors of "dynstr_pool" are string pools.
    if (!cookie || !print || !memm_instanceof_no_ori(cookie, g_family.class_id))
        return;
    const auto *pool = static_cast<const dynstr_pooldesc *>(cookie);
    if (live_total && peak_total && capacity_total)
        print_pool_lines(pool, live_total, peak_total, capacity_total, print);
    else
        print_collector_lines(pool, print);
}

} // namespace dynstr_detail
