// The compacting collector of string buffers.
//
// Buffer layout and invariants (buffer k of a string pool):
//  - bytes [0, buf_used) are covered without gaps by the texts, terminators
//    included, of the records in buffer k's allocation list, in list order,
//    live and deleted alike; a record covers exactly DYNSTR_SIZE bytes, so
//    its successor starts at str + DYNSTR_SIZE;
//  - buf_used is the sum of those sizes, buf_count the list length,
//    buf_delcount/buf_delbytes the deleted records and their bytes;
//  - bytes [buf_used, buffersize) are zero, so a text written at the free
//    position is terminated by the buffer itself;
//  - buf_firstdel is the lowest deleted record, or null when none is known.
//
// One compaction (D = deleted placeholders, a..e = live texts):
//
//   before  [a][b][ D ][c][d][D][e][0000000]
//                  ^ buf_firstdel
//   after   [a][b][c][d][e][00000000000000]
//
// [a][b] lie below the first deleted record and are not touched; the runs
// [c][d] and [e] move down with one memmove each, and every live record's
// str drops by the deleted bytes below it.
//
// The collector works on buffer (curbuffer + 1) % buffercount and makes it
// current, so the buffers take turns and each is compacted just before new
// text goes into it again. It touches one buffer and allocates nothing.
#include "../memm/poison.h"
#include "dynstr_private.h"

namespace dynstr_detail {

namespace {

using memm_detail::loc_log;

// Slides n bytes of text down to dst (below src, the ranges may overlap).
// Texts of up to 64 bytes are loaded whole before they are stored, without
// the call.
inline void move_down(char *dst, const char *src, size_t n) {
    if (n > 64 || n < 16)
        memmove(dst, src, n);
    else if (n > 32)
        move_ends<32>(dst, src, n);
    else
        move_ends<16>(dst, src, n);
}

// The collector trusts the list but says so when it finds it out of order.
void check_order(const dynstr *cur, const dynstr *next, uint32_t g) {
    if (next && next->str < cur->str)
        loc_log("[DYNSTR] loc_dynstr_gc dynstr->str sort error.");
    if (buffer_of(cur) != g)
        loc_log("[DYNSTR] loc_dynstr_gc curr_dynstr has wrong buffernr.");
    if (next && buffer_of(next) != g)
        loc_log("[DYNSTR] loc_dynstr_gc next_dynstr has wrong buffernr.");
    if (cur->str && strlen(cur->str) + 1 != size_of(cur))
        loc_log("[DYNSTR] loc_dynstr_gc strlen+1 != dynstr_size.");
}

// The record pool as the walk checks its records: the header check of
// releases_at_once with the pool's id and storage bounds at hand.
struct RecordSlots {
    uint32_t id;
    uintptr_t first, last; // storage and last slot; first > last when there is no storage

    explicit RecordSlots(const memm_pooldesc *records)
        : id(memm_detail::loc_pool_id(records)), first(reinterpret_cast<uintptr_t>(records->storage)),
          last(reinterpret_cast<uintptr_t>(records->last_slot)) {
        if (!records->storage)
            first = UINTPTR_MAX, last = 0;
    }
    // releases_at_once: one holder, and the header names this pool.
    bool releases_at_once(dynstr *d) const {
        const uint8_t *slot = memm_detail::obj_to_slot(d);
        const uintptr_t addr = reinterpret_cast<uintptr_t>(slot);
        const uint32_t state = memm_detail::hdr_state(slot);
        return state < memm_detail::kRefUnit && memm_detail::state_poolid(state) == id && addr >= first &&
               addr <= last;
    }
};

// Prefetches, from the record map, the records whose texts start up to
// kAhead chunks beyond the walk's current text. Each chunk is taken once, so
// a collection issues at most one prefetch pair per chunk.
struct Lookahead {
    static constexpr uint32_t kAhead = 16;
    RecordMap map;
    uintptr_t base;     // the buffer's address
    uint32_t next = 0;  // first chunk not prefetched yet

    Lookahead(const dynstr_pooldesc *pool, uint32_t g)
        : map(pool, g), base(reinterpret_cast<uintptr_t>(pool->buf_base[g])) {}

    uintptr_t chunk_of(const char *str) const { return (reinterpret_cast<uintptr_t>(str) - base) >> map.shift; }

    void start(const char *str) {
        const uintptr_t chunk = chunk_of(str);
        next = chunk < map.count ? uint32_t(chunk) : map.count;
    }
    void reach(const char *str) {
        const uintptr_t chunk = chunk_of(str); // huge when str lies elsewhere
        if (chunk >= map.count)
            return;
        const uint32_t until = chunk + kAhead < map.count ? uint32_t(chunk) + kAhead : map.count;
        // The buffer is read in order too: ask for its lines a little ahead.
        __builtin_prefetch(reinterpret_cast<const void *>(reinterpret_cast<uintptr_t>(str) + 256));
        for (; next < until; next++) {
            // The slot header and the record's links may lie in two cache lines.
            const uintptr_t record = map.record_of(map.entry[next]);
            __builtin_prefetch(reinterpret_cast<const void *>(record - memm_detail::kHdrSize));
            __builtin_prefetch(reinterpret_cast<const void *>(record + sizeof(dynstr) - 1));
        }
    }
    // cur's text now starts at str.
    void moved(const dynstr *cur, const char *str) const {
        map.note(cur, uint32_t(reinterpret_cast<uintptr_t>(str) - base));
    }
};

// Working state of one compaction walk.
struct Compaction {
    char *dst = nullptr;     // where the next run of live texts goes (null: nothing deleted seen yet)
    char *src = nullptr;     // start of the pending run of live texts
    uint32_t pending = 0;    // bytes in that run
    uint32_t shift = 0;      // deleted bytes seen so far
    uint32_t reclaimed = 0;  // placeholders released
    uint32_t pushed = 0;     // of those, slots pushed on the free list by the walk itself
    bool in_deleted_run = false;

    void move_pending(const char *run_end) {
        if (uint32_t(run_end - src) != pending) {
            loc_log("[DYNSTR] WARNING: loc_dynstr_gc fixed wrong stringsize.");
            pending = uint32_t(run_end - src);
        }
        move_down(dst, src, pending);
        dst += pending;
        src = nullptr;
        pending = 0;
    }
};

// The free-list push of loc_release_slot without its counters.
inline void push_free(memm_pooldesc *records, uint8_t *slot) {
    memm_detail::hdr_set_state(slot, MEMM_STATE_FREE);
    memm_detail::set_free_link(records, slot, records->free_head);
    records->free_head = slot;
    memm_detail::loc_poison_slot(records, slot);
}

// Walks buffer g from its first deleted record: releases every placeholder,
// relinks the survivors, slides each run of live texts down and notes the
// survivors' new places in the record map. It goes by the next links alone;
// the map only brings records into the cache ahead of it.
Compaction compact(dynstr_pooldesc *pool, uint32_t g, dynstr *first_deleted) {
    Compaction w;
    memm_pooldesc *const records = records_of(pool);
    const RecordSlots slots(records);
    Lookahead ahead(pool, g);
    if (first_deleted)
        ahead.start(first_deleted->str);
    dynstr *kept = first_deleted ? first_deleted->prev : nullptr; // last surviving record
    for (dynstr *cur = first_deleted; cur;) {
        ahead.reach(cur->str);
        dynstr *next = cur->next; // read before cur's slot is released
        check_order(cur, next, g);
        const uint32_t size = size_of(cur);
        if (is_deleted(cur)) {
            w.reclaimed++;
            if (!w.in_deleted_run) {
                if (!w.dst)
                    w.dst = cur->str; // compaction starts at the first dead byte
                else
                    w.move_pending(cur->str);
                w.in_deleted_run = true;
            }
            w.shift += size;
            // What the release hook does while the collector runs, without
            // it, and the slot's push on the free list; the counters of
            // those releases are settled once after the walk.
            if (slots.releases_at_once(cur)) {
                if (is_buffered(cur))
                    pool->buf_count[DYNSTR_BNR(cur->flags)]--;
                push_free(records, memm_detail::obj_to_slot(cur));
                w.pushed++;
            } else {
                memm_free_nolock(cur);
            }
        } else if (w.in_deleted_run) {
            cur->prev = kept;
            if (kept)
                kept->next = cur;
            else
                pool->buf_first[g] = cur;
            kept = cur;
            w.src = cur->str;
            w.pending = size;
            cur->str -= w.shift;
            ahead.moved(cur, cur->str);
            w.in_deleted_run = false;
        } else {
            kept = cur;
            w.pending += size;
            cur->str -= w.shift;
            ahead.moved(cur, cur->str);
        }
        cur = next;
    }
    if (w.dst && !w.in_deleted_run) {
        move_down(w.dst, w.src, w.pending);
        w.dst += w.pending;
    }
    records->cur_count -= w.pushed;
    records->free_calls += w.pushed;
    if (w.in_deleted_run) {
        pool->buf_last[g] = kept;
        if (kept)
            kept->next = nullptr;
    }
    return w;
}

// Buffer g's lowest deleted record as recorded. One that is no longer a
// placeholder of buffer g (its memory written after its release) would send
// the compaction into another buffer: then the list is searched instead.
dynstr *first_deleted_of(dynstr_pooldesc *pool, uint32_t g) {
    dynstr *d = pool->buf_firstdel[g];
    if (!d || (is_deleted(d) && loc_getbuffernr(d) == g))
        return d;
    loc_log("[DYNSTR] WARNING: loc_dynstr_gc fixed wrong first deleted dynstr.");
    uint32_t n = 0;
    for (d = pool->buf_first[g]; d && n <= pool->capacity; d = d->next, n++)
        if (is_deleted(d))
            return d;
    return nullptr;
}

} // namespace

void loc_dynstr_gc(dynstr_pooldesc *pool, int reason) {
    const uint32_t g = (pool->curbuffer + 1) % uint32_t(pool->buffercount);
    dynstr *first_deleted = first_deleted_of(pool, g);
    if (pool->calls_since_gc < pool->mincalls)
        pool->mincalls = pool->calls_since_gc;
    pool->calls_since_gc = 0;
    if (pool->buf_first[g] == first_deleted)
        pool->buf_first[g] = nullptr; // set again at the first survivor
    pool->fill_sum += uint32_t(uint64_t(pool->buf_used[g]) * 100 / uint32_t(pool->buffersize));

    g_family.gc_running = true;
    const Compaction w = compact(pool, g, first_deleted);
    if (w.dst) {
        char *base = pool->buf_base[g];
        const uint32_t freed = uint32_t(base + pool->buf_used[g] - w.dst);
        if (pool->buf_delbytes[g] != freed)
            loc_log("[DYNSTR] WARNING: loc_dynstr_gc fixed wrong total gc'd bytes (%d->%d).",
                    int(pool->buf_delbytes[g]), int(freed));
        if (pool->buf_delcount[g] != w.reclaimed)
            loc_log("[DYNSTR] WARNING: loc_dynstr_gc fixed wrong total gc'd dynstr (%d->%d).",
                    int(pool->buf_delcount[g]), int(w.reclaimed));
        pool->buf_delcount[g] = 0;
        pool->buf_delbytes[g] = 0;
        memset(w.dst, 0, freed);
        pool->buf_used[g] = uint32_t(w.dst - base);
        pool->usedbytes -= freed;
        pool->delbytes -= freed;
        pool->delcount -= w.reclaimed;
        pool->gc_ctx += w.reclaimed;
        pool->gc_bytes += freed;
    }
    g_family.gc_running = false;
    pool->gc_count++;
    pool->gc_reason[pool->curbuffer][reason]++;
    pool->curbuffer = g;
    pool->buf_firstdel[g] = nullptr;
    pool->ctx_depleted = 0;
}

int loc_dynstr_gc_hook(void *cookie, int32_t attempt) {
    auto *pool = static_cast<dynstr_pooldesc *>(cookie);
    // One collection per buffer and allocation; then the allocation fails.
    if (attempt >= pool->buffercount)
        return 0;
    loc_dynstr_gc(pool, DYNSTR_GC_CTX_DEPLETED);
    return 1;
}

} // namespace dynstr_detail
