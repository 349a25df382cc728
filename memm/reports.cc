// Pool statistics: the counts of one pool, the overall counts and the usage
// table with its running byte total.
//
// The figures of a pool are its raw counts, except for pools whose user keeps
// a count of its own (`base_count_ptr`, the string pools' deleted records):
// there the current count is lowered by that count and the peak is
// `base_peak`. Bytes are counts times the slot size of the chain's root, so
// the rows of one chain add up to the chain's sum row.
#include <stdio.h>

#include "memm_private.h"

#include "dynstr.h"

namespace memm_detail {

namespace {

struct Figures {
    uint32_t cur, max, avail;
};

Figures loc_pool_figures(const memm_pooldesc *p) {
    Figures f{p->cur_count, p->max_count, p->alloc_count};
    if (p->base_count_ptr) {
        f.cur -= *p->base_count_ptr;
        f.max = uint32_t(p->base_peak);
    }
    return f;
}

// A string pool (the pools with a gc hook) gets its own check, silently;
// its result decides whether the report mentions it.
bool string_pool_sound(uint32_t id, const memm_pooldesc *p) {
    return !p->options.gc || dynstr_integrity_check_nolock(id, 0) != 0;
}

// Name column: names longer than the column are cut to 22 characters + "...".
const char *row_label(const char *name, char (&buf)[26]) {
    if (strlen(name) <= 25)
        return name;
    memcpy(buf, name, 22);
    memcpy(buf + 22, "...", 4);
    return buf;
}

const char kRowFormat[] = "%3d %-25s %6d,%6d,%6d   %6d,%6d,%6d  (%1s%3d%%)   ";

struct ByteTotals {
    uint32_t cur = 0, max = 0, avail = 0;
};

// Prints the rows of the chain rooted at `root_id`, each followed by its
// reference column and its pool's print_stats lines, then the sum row when
// the chain has more than one row.
void print_chain(uint32_t root_id, const memm_pooldesc *root, ByteTotals *totals, memm_print_fn print) {
    const uint32_t slotsize = root->slotsize;
    Figures sum{0, 0, 0};
    int32_t ref_sum = 0, ref_max = 0;
    bool depleted = false;
    int rows = 0;
    uint32_t id = root_id;
    for (const memm_pooldesc *p = root; p; p = loc_next_in_chain(p), rows++) {
        if (rows > 0) {
            print("\r\n");
            id = desc_at(id)->next_pool;
        }
        depleted = depleted || (p->flags & MEMM_POOLFLAG_DEPLETION_REPORTED);
        const char *mark = depleted ? ">" : p->next_pool ? "+" : " ";
        char cut[26];
        const Figures f = loc_pool_figures(p);
        print(kRowFormat, int(id), rows == 0 ? row_label(root->name, cut) : " - extension -", int(f.cur), int(f.max),
              int(f.avail), int(f.cur * slotsize), int(f.max * slotsize), int(f.avail * slotsize), mark,
              int(loc_percent(f.max, f.avail)));
        ref_sum += p->ref_cur;
        if (rows == 0 || p->ref_max > ref_max)
            ref_max = p->ref_max;
        if (root_id == MEMM_POOLDESC_POOL)
            print("  obj:%5d,%5d", int(p->ref_max), int(MEMM_MAX_REFS));
        else
            print("%5d,%5d", int(ref_sum), int(ref_max));

        totals->cur += f.cur * slotsize;
        totals->max += f.max * slotsize;
        totals->avail += f.avail * slotsize;
        if (p->options.print_stats)
            p->options.print_stats(p->options.cookie, &totals->cur, &totals->max, &totals->avail, print);
        sum.cur += f.cur;
        sum.max += f.max;
        sum.avail += f.avail;
    }
    if (rows > 1)
        print("\r\n%3d %-25s %6d,%6d,%6d   %6d,%6d,%6d  (%1s%3d%%)   ", int(root_id), " ---- sum ----", int(sum.cur),
              int(sum.max), int(sum.avail), int(sum.cur * slotsize), int(sum.max * slotsize),
              int(sum.avail * slotsize), " ", int(loc_percent(sum.max, sum.avail)));
    print("\r\n");
}

} // namespace

void loc_print_stats(const char *prefix, memm_print_fn print) {
    if (!print)
        return;
    PoolLock lock("loc_print_stats");
    char msg[kIntegrityMsgSize];
    if (!loc_memm_integrity_check(msg))
        print("[MEMM] integrity check failed: %s\r\n", msg);

    ByteTotals totals;
    bool any_row = false;
    const uint32_t used = loc_pool_count();
    for (uint32_t id = 0; id < used; id++) {
        const memm_pooldesc *p = loc_pool(id);
        if (!p)
            continue;
        if (!string_pool_sound(id, p))
            print("[MEMM] dynstr integrity check failed: %d (%s)\r\n", int(id), p->name);
        if (p->root_pool != id || !p->name || !loc_prefix_selects(prefix, p->name))
            continue;
        if (!any_row) {
            print("%3s %-25s %-22s %-31s %-18s\r\n", "id", "pool name", "count: cur,max,avail",
                  "bytes: cur,max,avail  (max.%)", "ref cur,max,avail");
            print("%3s %-25s %-22s %-31s %-18s\r\n", "--", "---------", "--------------------",
                  "-----------------------------", "-----------------");
            any_row = true;
        }
        print_chain(id, p, &totals, print);
    }
    if (any_row) {
        print(" %-29s %-21s %-30s\r\n", "----------------------", "", "-----------------------------");
        print(" %-29s %-21s %6d,%6d,%6d  ( %3d%%)\r\n", "Total usage", "", int(totals.cur), int(totals.max),
              int(totals.avail), int(loc_percent(totals.max, totals.avail)));
    }
    print("\r\n");
}

} // namespace memm_detail

using namespace memm_detail;

extern "C" {

uint32_t memm_get_stats(uint32_t poolid, uint32_t *count_cur, uint32_t *count_max, uint32_t *count_avail) {
    PoolLock lock("memm_get_stats");
    const memm_pooldesc *p = loc_pool(poolid);
    if (!p || !count_cur || !count_max || !count_avail)
        return MEMM_ERR_INVALID_ARG;
    const Figures f = loc_pool_figures(p);
    *count_cur = f.cur;
    *count_max = f.max;
    *count_avail = f.avail;
    return MEMM_OK;
}

uint32_t memm_get_overall_stats(const char *prefix, uint32_t *count_cur, uint32_t *count_max, uint32_t *count_avail,
                                uint32_t *bytes_cur) {
    uint32_t scratch[4];
    uint32_t *out[4] = {count_cur, count_max, count_avail, bytes_cur};
    for (int i = 0; i < 4; i++) {
        if (!out[i])
            out[i] = &scratch[i];
        *out[i] = 0;
    }
    PoolLock lock("memm_get_overall_stats");
    char msg[kIntegrityMsgSize];
    if (!loc_memm_integrity_check(msg))
        loc_log("[MEMM] integrity check failed: %s", msg);

    const uint32_t used = loc_pool_count();
    for (uint32_t id = 0; id < used; id++) {
        const memm_pooldesc *p = loc_pool(id);
        if (!p)
            continue;
        if (!string_pool_sound(id, p))
            loc_log("[MEMM] dynstr integrity check failed: %d (%s)", int(id), p->name);
        // A root's figures cover the root alone: extension pools stay out.
        if (p->root_pool != id || !loc_prefix_selects(prefix, p->name))
            continue;
        const Figures f = loc_pool_figures(p);
        *out[0] += f.cur;
        *out[1] += f.max;
        *out[2] += f.avail;
        *out[3] += f.cur * p->slotsize;
    }
    return MEMM_OK;
}

void memm_print_stats(const char *prefix) { loc_print_stats(prefix, printf); }

void memm_print_stats2(const char *prefix, memm_print_fn print) { loc_print_stats(prefix, print); }

} // extern "C"
