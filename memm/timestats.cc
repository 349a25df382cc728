// The time report: allocation and release counts per pool. The library reads
// no clock, so the duration columns (total/avg/max) keep their place in the
// layout but always show zero.
#include <stdio.h>

#include "memm_private.h"

namespace memm_detail {

namespace {

bool listed(const memm_pooldesc *p, const char *prefix) { return p->name && loc_prefix_selects(prefix, p->name); }

void print_heading(const char *third) {
    printf("%3s %-25s  %-35s \r\n", "id", "pool name", third);
    printf("%3s %-25s  %-35s \r\n", "--", "---------", "------------------------------");
}

// One share line under a pool's allocation line: how many of its allocations
// went this way, as a percentage of all of them.
void print_alloc_share(const char *label, uint64_t count, uint64_t total) {
    if (count == 0)
        return;
    printf("     - %-22s %8lu%%: %5lu.%03lu /%4lu.%03lu /%4lu.%03lu", label,
           static_cast<unsigned long>(count * 100 / total), 0ul, 0ul, 0ul, 0ul, 0ul, 0ul);
    printf("\r\n");
}

} // namespace

} // namespace memm_detail

using namespace memm_detail;

extern "C" {

int memm_print_timestats(const char *prefix) {
    // The result is that of releasing the lock, so no scope guard here.
    loc_lock("memm_print_timestats");
    const uint32_t used = loc_pool_count();

    print_heading("alloc cnt: total/avg/max (msec)");
    for (uint32_t id = 0; id < used; id++) {
        const memm_pooldesc *p = loc_pool(id);
        const uint64_t total = p ? p->alloc_calls[MEMM_ALLOC_CALLS_TOTAL] : 0;
        if (total == 0 || !listed(p, prefix))
            continue;
        printf("%3d %-25s  %8lu: %5lu.%03lu /%4lu.%03lu /%4lu.%03lu\r\n", int(id), p->name,
               static_cast<unsigned long>(total), 0ul, 0ul, 0ul, 0ul, 0ul, 0ul);
        print_alloc_share("first_free", p->alloc_calls[MEMM_ALLOC_CALLS_FIRST_FREE], total);
        print_alloc_share("dynpool", p->alloc_calls[MEMM_ALLOC_CALLS_DYNPOOL], total);
    }

    printf("\r\n");
    print_heading("free cnt: total/avg/max (msec)");
    for (uint32_t id = 0; id < used; id++) {
        const memm_pooldesc *p = loc_pool(id);
        if (!p || p->free_calls == 0 || !listed(p, prefix))
            continue;
        printf("%3d %-25s  %8lu: %lu.%03lu/%lu.%03lu/%lu.%03lu\r\n", int(id), p->name,
               static_cast<unsigned long>(p->free_calls), 0ul, 0ul, 0ul, 0ul, 0ul, 0ul);
        if (p->options.print_stats)
            p->options.print_stats(p->options.cookie, nullptr, nullptr, nullptr, printf);
    }
    return loc_unlock();
}

} // extern "C"
