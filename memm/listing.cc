// Object listings: per selected pool a banner, its usage line and print_stats
// lines, then one object line per listed object.
//
// With a limit L, the listing counter of a pool of n objects in use starts at
// L - n and every object in use adds 1 before the tag and filter tests; the
// objects that leave it negative are passed over, so the last L + 1 objects
// (in address order) are listed.
#include <stdio.h>

#include "memm_private.h"

namespace memm_detail {

namespace {

// Listing state: one listing at a time (the lock serialises them).
struct ListingState {
    int32_t counter = 0;
    uint32_t limit = 0; // 0 = no limit
};
ListingState g_listing;

struct ListingCtx {
    uint32_t options;
    uint32_t poolid;
    memm_print_fn print;
};

// Scratch totals for a pool's print_stats hook: a listing adds nothing up.
struct ScratchTotals {
    uint32_t cur = 0, max = 0, avail = 0;
};

} // namespace

// Per-object step of a listing: applies the limit, the tag option and the
// pool's list_filter, then prints the object line with details. Always 1, so
// the enumeration goes on.
int loc_memm_printobjectline(void *obj, void *ctx_ptr) {
    if (++g_listing.counter < 0)
        return 1;
    PoolLock lock("loc_memm_printobjectline");
    const ListingCtx *ctx = static_cast<const ListingCtx *>(ctx_ptr);
    uint8_t *slot = obj_to_slot(obj);
    const bool tagged = (hdr_state(slot) & MEMM_STATE_TAGGED) != 0;
    if (tagged != ((ctx->options & MEMM_LIST_OPT_ONLY_TAGGED) != 0))
        return 1;
    const memm_pooldesc *p = loc_pool(ctx->poolid);
    if (p && p->options.list_filter && !p->options.list_filter(obj, ctx->options))
        return 1;
    ctx->print(" \r\n");
    loc_printobject(slot, 1, ctx->print);
    ctx->print("\r\n");
    return 1;
}

namespace {

void list_pool(uint32_t id, const memm_pooldesc *p, uint32_t options, memm_print_fn print) {
    print("\r\n====== LIST OF STATISTICS OF POOL %s ======\r\n", p->name);
    print("%s%susage cur/max/avail (max.%%): %d/%d/%d (%d%%)\r\n", p->name, "..........................",
          int(p->cur_count), int(p->max_count), int(p->alloc_count),
          int(loc_percent(p->max_count, p->alloc_count)));
    if (p->options.print_stats) {
        ScratchTotals scratch;
        p->options.print_stats(p->options.cookie, &scratch.cur, &scratch.max, &scratch.avail, print);
    }
    print("\r\n====== LIST OF OBJECTS IN POOL %s ======\r\n", p->name);
    if (g_listing.limit != 0)
        g_listing.counter = int32_t(g_listing.limit - p->cur_count);

    ListingCtx ctx{options, id, print};
    // This pool alone: extension pools come on their own turn.
    const uint32_t count = loc_enum_objects(id, loc_memm_printobjectline, &ctx, true);
    // Standard output, not the print function: the console sees each pool
    // end even while the listing goes to a file.
    puts("\r");
    if (count != p->cur_count)
        loc_log("[MEMM] ERROR: actual object count (%d) differs from pool count (%d)\r\n", int(count),
                int(p->cur_count));
}

} // namespace

} // namespace memm_detail

using namespace memm_detail;

extern "C" {

void memm_print_objects4(const char *prefix, uint32_t options, memm_print_fn print, uint32_t limit) {
    if (!print)
        return;
    PoolLock lock("memm_print_objects4");
    g_listing.counter = 0;
    // A limit beyond what the signed counter holds lists everything, as no
    // limit does, instead of wrapping round to a negative start.
    g_listing.limit = limit > uint32_t(INT32_MAX) ? 0 : limit;
    for (uint32_t id = 0; id < loc_pool_count(); id++) {
        const memm_pooldesc *p = loc_pool(id);
        if (p && p->name && loc_prefix_selects(prefix, p->name))
            list_pool(id, p, options, print);
    }
    print("\r\n");
}

void memm_print_objects3(const char *prefix, uint32_t options, memm_print_fn print) {
    memm_print_objects4(prefix, options, print, 0);
}

void memm_print_objects2(const char *prefix, uint32_t options) { memm_print_objects4(prefix, options, printf, 0); }

void memm_print_objects(const char *prefix) { memm_print_objects4(prefix, 0, printf, 0); }

} // extern "C"
