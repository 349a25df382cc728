// Library start-up, the descriptor table (pool 0) and pool creation.
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "memm_private.h"
#include "poison.h"

#include "dynstr.h"

namespace memm_detail {

namespace {

// Pool 0's only hook; it writes to standard output whatever the listing's
// print function is (memm.h says so where listings are described).
void print_pooldesc(void *obj) { printf(" - '%s'", static_cast<memm_pooldesc *>(obj)->name); }

size_t page_round(size_t bytes) {
    size_t page = size_t(sysconf(_SC_PAGESIZE));
    return (bytes + page - 1) / page * page;
}

// Reserves address space for the largest table once; pages are committed as
// the table grows, so no descriptor ever moves.
uint8_t *reserve_table_range() {
    size_t bytes = page_round(size_t(kMaxTableCapacity) * kDescSlotSize);
    void *base = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base == MAP_FAILED)
        return nullptr;
    g_registry.reserved_bytes = bytes;
#if defined(__SANITIZE_ADDRESS__)
    // Pool storage is referenced only from descriptors in this range.
    __lsan_register_root_region(base, bytes);
#endif
    return static_cast<uint8_t *>(base);
}

uint8_t *g_table_range = nullptr; // reserved range, kept across a failed start

bool commit_table(uint32_t capacity) {
    size_t bytes = page_round(size_t(capacity) * kDescSlotSize);
    return mprotect(g_table_range, bytes, PROT_READ | PROT_WRITE) == 0;
}

bool name_in_use(const char *name) {
    uint32_t used = loc_pool_count();
    for (uint32_t id = 0; id < used; id++) {
        memm_pooldesc *p = loc_pool(id);
        if (p && p->name && strcmp(p->name, name) == 0)
            return true;
    }
    return false;
}

// Returns the library to "not started" after a start whose string family
// failed. Nothing but pool 0 exists then (the failed creation gave its
// descriptor slot back), so forgetting the table is enough: the next
// memm_init rebuilds pool 0 and the storage index in the range kept.
void unstart() {
    g_registry.capacity.store(0, std::memory_order_release);
    g_registry.table.store(nullptr, std::memory_order_relaxed);
}

} // namespace

void loc_initslots(memm_pooldesc *p, uint32_t first) {
    uint8_t *slot = p->storage + size_t(first) * p->slotsize;
    const size_t bytes = size_t(p->alloc_count - first) * p->slotsize;
    // Slots kept from a failed start were marked free for memory checkers;
    // they are fresh memory again.
    loc_unpoison_range(slot, bytes);
    memset(slot, 0, bytes);
    for (; slot < p->last_slot; slot += p->slotsize) {
        hdr_set_state(slot, MEMM_STATE_FREE);
        set_free_link(p, slot, slot + p->slotsize);
        loc_poison_slot(p, slot);
    }
    hdr_set_state(p->last_slot, MEMM_STATE_FREE);
    loc_poison_slot(p, p->last_slot);
}

// Builds pool 0 for `capacity` descriptors the first time, enlarges it later.
// Enlarging keeps every descriptor in place (ids and addresses stay valid),
// threads the new slots in front of any free descriptor slots and restarts
// pool 0's allocation and release counters.
uint32_t loc_init_pooldesc(uint32_t capacity) {
    uint32_t old_capacity = g_registry.capacity.load(std::memory_order_relaxed);
    if (capacity > kMaxTableCapacity)
        capacity = kMaxTableCapacity;
    if (capacity <= old_capacity)
        return MEMM_ERR_NO_MEMORY;
    if (!g_table_range && !(g_table_range = reserve_table_range()))
        return MEMM_ERR_NO_MEMORY;
    if (!commit_table(capacity))
        return MEMM_ERR_NO_MEMORY;
    // The first table starts the storage index with pool 0's own storage.
    if (!old_capacity && !(loc_storage_index_reset() && loc_storage_index_add(g_table_range, MEMM_POOLDESC_POOL)))
        return MEMM_ERR_NO_MEMORY;

    uint8_t *table = g_table_range;
    memm_pooldesc *p0 = reinterpret_cast<memm_pooldesc *>(table + kHdrSize);
    uint8_t *old_free_head = old_capacity ? p0->free_head : nullptr;
    if (old_capacity) {
        p0->free_calls = 0;
        memset(p0->alloc_calls, 0, sizeof p0->alloc_calls);
    } else {
        memset(table, 0, kDescSlotSize); // slot 0: state 0 = pool 0, in use
        p0->name = MEMM_POOLDESC_NAME;
        p0->storage = table;
        p0->slotsize = kDescSlotSize;
        p0->options.print = print_pooldesc;
        p0->cur_count = p0->max_count = 1;
    }
    p0->alloc_count = capacity;
    p0->last_slot = table + size_t(capacity - 1) * kDescSlotSize;

    uint32_t first_new = old_capacity ? old_capacity : 1;
    loc_initslots(p0, first_new);
    set_free_link(p0, p0->last_slot, old_free_head);
    p0->free_head = table + size_t(first_new) * kDescSlotSize;

    g_registry.table.store(table, std::memory_order_relaxed);
    g_registry.capacity.store(capacity, std::memory_order_release);
    return MEMM_OK;
}

uint32_t loc__initpool(const char *name, int32_t count, int32_t objsize, const memm_pool_options *options,
                       uint32_t root, void *caller) {
    int64_t shown_size = objsize;
    auto fail = [&]() {
        loc_log("[MEMM] Failed to allocate %s buffer (cnt=%d, objsize=%d)", name ? name : "<no_name>", count,
                int(shown_size));
        return MEMM_INVALID_POOL;
    };
    if (!name || count <= 0 || objsize <= 0)
        return fail();
    if (!g_registry.capacity.load(std::memory_order_relaxed)) {
        loc_log("loc__initpool() called before mem_init()");
        return fail();
    }
    const uint32_t slotsize = (uint32_t(objsize) + 19u) & ~3u;
    shown_size = int32_t(slotsize);
    if (root == MEMM_INVALID_POOL && name[0] && name_in_use(name))
        return fail();
    // Pool storage is one block whose size must fit a signed 32-bit count.
    const int64_t bytes = int64_t(count) * slotsize;
    if (bytes > INT32_MAX)
        return fail();

    uint8_t *dslot = memm__calloc(MEMM_POOLDESC_POOL, 0, true, true);
    if (!dslot)
        return fail();
    hdr_set_allocfrom(dslot, caller);
    uint8_t *storage = static_cast<uint8_t *>(malloc(size_t(bytes)));
    if (!storage) {
        loc_release_slot(desc_at(0), dslot);
        return fail();
    }
    const uint32_t id = uint32_t((dslot - desc_slot(0)) / kDescSlotSize);
    if (!loc_storage_index_add(storage, id)) {
        free(storage);
        loc_release_slot(desc_at(0), dslot);
        return fail();
    }
    memm_pooldesc *p = desc_at(id);
    p->name = name;
    p->storage = storage;
    p->slotsize = slotsize;
    p->alloc_count = uint32_t(count);
    p->free_head = storage;
    p->last_slot = storage + size_t(count - 1) * slotsize;
    p->flags = MEMM_POOLFLAG_REBOOT_ON_DEPLETION;
    p->next_pool = 0;
    p->root_pool = id;
    if (options)
        p->options = *options;
    loc_initslots(p, 0);
    return id;
}

} // namespace memm_detail

using namespace memm_detail;

namespace {

// The creators record their caller as the descriptor's allocation site, so a
// listing of pool 0 shows where each pool was created.
uint32_t initpool_entry(const char *name, int32_t count, int32_t objsize, const memm_pool_options *options,
                        void *caller) {
    PoolLock lock("memm_initpool");
    return loc__initpool(name, count, objsize, options, MEMM_INVALID_POOL, caller);
}

} // namespace

extern "C" {

uint32_t memm_init(uint32_t pool_count, uint32_t dynstr_pool_count) {
    if (g_registry.capacity.load(std::memory_order_acquire)) {
        loc_log("memm_init() may only be called once per process!");
        return MEMM_ERR_ALREADY_INITIALIZED;
    }
    if (pool_count < 2) {
        loc_log("[MEMM] Error: memm_init() needs room for at least 2 pools (asked for %u)", pool_count);
        return MEMM_ERR_INVALID_ARG;
    }
    loc_read_environment();
    // The lock needs no creation (it is ready from static initialisation),
    // so a call that comes before memm_init cannot meet an unready lock.
    if (loc_init_pooldesc(pool_count) != MEMM_OK)
        return MEMM_ERR_NO_MEMORY;
    if (dynstr_pool_count) {
        const uint32_t r = dynstr_init(dynstr_pool_count);
        if (r != MEMM_OK) {
            unstart();
            return r;
        }
    }
    return MEMM_OK;
}

uint32_t memm_initpool(const char *name, int32_t count, int32_t objsize, const memm_pool_options *options) {
    return initpool_entry(name, count, objsize, options, __builtin_return_address(0));
}

uint32_t memm_initpool2(const char *name, int32_t count, int32_t objsize, memm_print_hook_fn print,
                        memm_free_ex_fn free_ex) {
    memm_pool_options options = {};
    options.print = print;
    options.free_ex = free_ex;
    return initpool_entry(name, count, objsize, &options, __builtin_return_address(0));
}

uint32_t memm_initpool3(const char *name, int32_t count, int32_t objsize, memm_print_hook_fn print,
                        memm_free2_ex_fn free2_ex) {
    memm_pool_options options = {};
    options.print = print;
    options.free2_ex = free2_ex;
    return initpool_entry(name, count, objsize, &options, __builtin_return_address(0));
}

} // extern "C"
