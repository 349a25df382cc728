// The ordered index of pool storage: which pool's storage holds an address.
//
// The validators that promise to survive any pointer (memm_isvalidobj and
// memm_isvalidobj_nolock) must not read the header in front of a pointer
// before they know that header lies in some pool's storage. A pool's storage
// is one block that never moves and never dies, and blocks never overlap, so
// an array of (storage start, pool id) sorted by start answers in
// O(log pools):
//
//   ranges: [ 0x5000 p3 ][ 0x7000 p0 ][ 0x9000 p1 ] ...
//   addr 0x7040 -> last start <= addr is p0 -> inside p0's storage?
//
// An entry keeps the id, not the end: pool 0's storage (the descriptor table)
// grows in place, so the end is read from the descriptor, where it is always
// current. The array has room for one entry per possible pool id; its pages
// are committed as entries are added, like the table's.
#include <sys/mman.h>
#include <unistd.h>

#include "memm_private.h"

namespace memm_detail {

namespace {

size_t page_bytes() { return size_t(sysconf(_SC_PAGESIZE)); }

// Commits the pages for `entries` entries. Lock held.
bool commit_ranges(uint32_t entries) {
    const size_t page = page_bytes();
    const size_t bytes = (size_t(entries) * sizeof(StorageRange) + page - 1) / page * page;
    if (mprotect(g_registry.ranges, bytes, PROT_READ | PROT_WRITE) != 0)
        return false;
    g_registry.range_room = uint32_t(bytes / sizeof(StorageRange));
    return true;
}

} // namespace

bool loc_storage_index_reset() {
    if (!g_registry.ranges) {
        const size_t page = page_bytes();
        const size_t bytes = (size_t(kMaxTableCapacity) * sizeof(StorageRange) + page - 1) / page * page;
        void *base = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (base == MAP_FAILED)
            return false;
        g_registry.ranges = static_cast<StorageRange *>(base);
    }
    g_registry.range_count = 0;
    return true;
}

bool loc_storage_index_add(const uint8_t *storage, uint32_t id) {
    const uint32_t count = g_registry.range_count;
    // One entry per descriptor slot at most: the reservation always suffices.
    if (count >= kMaxTableCapacity || (count == g_registry.range_room && !commit_ranges(count + 1)))
        return false;
    StorageRange *ranges = g_registry.ranges;
    const uintptr_t start = reinterpret_cast<uintptr_t>(storage);
    uint32_t at = count;
    while (at > 0 && ranges[at - 1].start > start)
        at--;
    memmove(ranges + at + 1, ranges + at, size_t(count - at) * sizeof(StorageRange));
    ranges[at] = StorageRange{start, id};
    g_registry.range_count = count + 1;
    return true;
}

memm_pooldesc *loc_storage_pool(uintptr_t addr) {
    const StorageRange *ranges = g_registry.ranges;
    uint32_t lo = 0, hi = g_registry.range_count;
    while (lo < hi) { // first entry that starts beyond addr
        const uint32_t mid = lo + (hi - lo) / 2;
        if (ranges[mid].start <= addr)
            lo = mid + 1;
        else
            hi = mid;
    }
    if (lo == 0)
        return nullptr;
    memm_pooldesc *p = loc_pool(ranges[lo - 1].id);
    return p && loc_in_storage(p, reinterpret_cast<const void *>(addr)) ? p : nullptr;
}

} // namespace memm_detail
