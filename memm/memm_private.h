// Internal interface of the object-pool family, shared by the files of memm/.
//
// Slot layout (every pool):  [ state | reserved | allocfrom ][ object ... ]
//                             0       4          8            16
// A slot is `slotsize` bytes, a multiple of 4, so slots (and the words in
// them) may be only 4-byte aligned: allocfrom and the free links are read
// and written through memcpy.
//
// Words read without the lock: memm_get_poolid, memm_instanceof_no_ori and
// memm_get_pool_nolock read state words, memm_get_number_of_pools reads pool
// 0's max_count, while lock holders write them. Those words are accessed
// only through the helpers below, as relaxed 32-bit atomics on their 4-byte
// aligned addresses: the readers accept a momentary value, the accesses are
// still race-free, and they compile to plain loads and stores. allocfrom
// (8 bytes, maybe only 4-byte aligned) is read and written only under the
// lock.
//
// The descriptor table is pool 0: descriptor i is the object of slot i of
// pool 0's storage. The table lives in one address range reserved at start-up
// for the largest possible table (pool ids are 15 bits); enlarging it commits
// more of that range, so descriptors never move.
#ifndef MEMM_PRIVATE_H
#define MEMM_PRIVATE_H

#include <errno.h>
#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <atomic>

#if defined(__has_include)
#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#define MEMM_HAVE_SINGLE_THREADED 1
#endif
#endif

#include "memm.h"

#define MEMM_INTERNAL __attribute__((visibility("hidden")))

namespace memm_detail {

static_assert(sizeof(memm_objhdr) == MEMM_OBJHDR_SIZE, "object header is 16 bytes");
static_assert(sizeof(memm_pool_options) == 9 * sizeof(void *), "options record has nine slots");

constexpr uint32_t kHdrSize = MEMM_OBJHDR_SIZE;
constexpr uint32_t kAllocfromOffset = 8;
constexpr uint32_t kRefUnit = 1u << MEMM_STATE_REFS_SHIFT;
// Ids are 15 bits and 0x7FFF is the pool id bits of a free slot's state
// word, so the table never holds more than 0x7FFF descriptors (ids 0..0x7FFE).
constexpr uint32_t kMaxTableCapacity = MEMM_STATE_POOLID_MASK;
constexpr uint32_t kDescSlotSize = (sizeof(memm_pooldesc) + 19) & ~3u;
static_assert(kDescSlotSize % 8 == 0, "descriptors stay naturally aligned");

// A gc hook that keeps answering "try again" would recurse without bound;
// after this many retries the allocation fails as if the hook had given up.
constexpr int32_t kMaxGcAttempts = 64;

// One entry of the ordered index of pool storage (storageindex.cc).
struct StorageRange {
    uintptr_t start; // the pool's storage
    uint32_t id;     // the pool
};

// The process-wide recursive lock (lock.cc). `word` is a futex word with
// three states: 0 free, 1 held, 2 held while threads may sleep on it. A
// thread that must wait sets 2 before it sleeps, so the unlock that frees
// the word sees 2 and wakes one sleeper: no wake-up is ever missed and none
// waits on a timeout. `owner` is the holder's thread token (null when free),
// read by other threads only to learn that they are not the holder, hence
// relaxed; `depth` counts the holder's nested locks and is touched by the
// holder alone, so nesting costs no atomic operation.
struct RecursiveLock {
    std::atomic<uint32_t> word{0};
    std::atomic<const void *> owner{nullptr};
    uint32_t depth = 0;
};
static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) && std::atomic<uint32_t>::is_always_lock_free,
              "the lock word is a plain 32-bit futex word");

// Process-wide state of the family. `table` and `capacity` are written only
// under the lock (and by memm_init before any other call); the lock-free
// readers accept a momentary value, hence the relaxed atomics.
struct Registry {
    std::atomic<uint8_t *> table{nullptr}; // pool 0's storage; null = not started
    std::atomic<uint32_t> capacity{0};     // pool 0's alloc_count
    size_t reserved_bytes = 0;              // address range kept for the table
    RecursiveLock lock;                     // statically ready: usable before memm_init
    const char *prev_reason = "";           // reason of the last successful lock
    // Ordered index of pool storage, written under the lock (and by
    // memm_init): range_count entries sorted by start, room committed for
    // range_room of them in an address range reserved for one per pool id.
    StorageRange *ranges = nullptr;
    uint32_t range_count = 0;
    uint32_t range_room = 0;
};
MEMM_INTERNAL extern Registry g_registry;

// ---- words read without the lock ---------------------------------------------
inline uint32_t load_shared_word(const uint32_t *word) { return __atomic_load_n(word, __ATOMIC_RELAXED); }
inline void store_shared_word(uint32_t *word, uint32_t value) { __atomic_store_n(word, value, __ATOMIC_RELAXED); }

// ---- header words -------------------------------------------------------
inline uint32_t hdr_state(const uint8_t *slot) {
    // A misaligned address is no slot, only a foreign pointer that a
    // validating call was given: nothing writes there, read it bytewise.
    if (reinterpret_cast<uintptr_t>(slot) % alignof(uint32_t)) {
        uint32_t s;
        memcpy(&s, slot, sizeof s);
        return s;
    }
    return load_shared_word(reinterpret_cast<const uint32_t *>(slot));
}
inline void hdr_set_state(uint8_t *slot, uint32_t s) { store_shared_word(reinterpret_cast<uint32_t *>(slot), s); }
// Writes a whole header: the state word (through the atomic helper, as
// lock-free readers may be reading it), the zero reserved word and allocfrom.
inline void hdr_write(uint8_t *slot, uint32_t state, void *allocfrom) {
    const uint32_t reserved = 0;
    hdr_set_state(slot, state);
    memcpy(slot + sizeof(uint32_t), &reserved, sizeof reserved);
    memcpy(slot + kAllocfromOffset, &allocfrom, sizeof allocfrom);
}
inline void *hdr_allocfrom(const uint8_t *slot) {
    void *p;
    memcpy(&p, slot + kAllocfromOffset, sizeof p);
    return p;
}
inline void hdr_set_allocfrom(uint8_t *slot, void *p) { memcpy(slot + kAllocfromOffset, &p, sizeof p); }
inline uint32_t state_poolid(uint32_t state) { return state & MEMM_STATE_POOLID_MASK; }

inline uint8_t *obj_to_slot(void *obj) { return static_cast<uint8_t *>(obj) - kHdrSize; }
inline void *slot_to_obj(uint8_t *slot) { return slot + kHdrSize; }

// A free slot links to the next free slot from the first word of its object
// area. Objects of 1 to 4 bytes have an object area too small for a pointer;
// their link goes into the (then unused) allocfrom word instead.
// In a build for memory checkers the rest of a free slot's object area is
// inaccessible (poison.h); the header and the link always stay readable.
inline size_t free_link_offset(const memm_pooldesc *p) {
    return p->slotsize >= kHdrSize + sizeof(void *) ? kHdrSize : kAllocfromOffset;
}
inline uint8_t *free_link(const memm_pooldesc *p, const uint8_t *slot) {
    uint8_t *next;
    memcpy(&next, slot + free_link_offset(p), sizeof next);
    return next;
}
inline void set_free_link(const memm_pooldesc *p, uint8_t *slot, uint8_t *next) {
    memcpy(slot + free_link_offset(p), &next, sizeof next);
}

// ---- descriptor table ---------------------------------------------------
inline uint8_t *desc_slot(uint32_t id) {
    return g_registry.table.load(std::memory_order_relaxed) + size_t(id) * kDescSlotSize;
}
inline memm_pooldesc *desc_at(uint32_t id) { return reinterpret_cast<memm_pooldesc *>(desc_slot(id) + kHdrSize); }

// The descriptor of the pool that `id` names, or null when it names none
// (out of the table, 0xFFFFFFFF, or a free descriptor slot).
inline memm_pooldesc *loc_pool(uint32_t id) {
    // Acquire: a reader without the lock that sees a grown capacity also
    // sees the free markers of the new descriptor slots.
    if (id >= g_registry.capacity.load(std::memory_order_acquire))
        return nullptr;
    if (hdr_state(desc_slot(id)) == MEMM_STATE_FREE)
        return nullptr;
    return desc_at(id);
}
// Descriptor slots ever used (pool 0's max_count): the walks over all pools
// visit ids below it. 0 before memm_init, so those walks find nothing.
inline uint32_t loc_pool_count() {
    return g_registry.capacity.load(std::memory_order_relaxed) ? load_shared_word(&desc_at(0)->max_count) : 0;
}
// Raises a pool's max_count; pool 0's is read without the lock.
inline void set_max_count(memm_pooldesc *p, uint32_t count) { store_shared_word(&p->max_count, count); }
// Raises the pool's peak figures to `count` objects in use.
inline void loc_note_count(memm_pooldesc *p, uint32_t count) {
    if (count > p->max_count)
        set_max_count(p, count);
    if (p->base_count_ptr) {
        const int32_t d = int32_t(count - *p->base_count_ptr);
        if (d > p->base_peak)
            p->base_peak = d;
    }
}
inline uint32_t loc_pool_id(const memm_pooldesc *p) {
    return uint32_t((reinterpret_cast<const uint8_t *>(p) - kHdrSize - desc_slot(0)) / kDescSlotSize);
}

// `slot` lies between p's storage and last slot. The address may belong to
// any allocation, so it is compared as a number.
inline bool loc_in_storage(const memm_pooldesc *p, const void *slot) {
    const uintptr_t addr = reinterpret_cast<uintptr_t>(slot);
    return p->storage && addr >= reinterpret_cast<uintptr_t>(p->storage) &&
           addr <= reinterpret_cast<uintptr_t>(p->last_slot);
}

// Header check: the header's pool id names a pool and the header lies inside
// that pool's storage. Returns that pool, or null.
inline memm_pooldesc *loc_header_pool(const uint8_t *slot) {
    if (!slot)
        return nullptr;
    memm_pooldesc *p = loc_pool(state_poolid(hdr_state(slot)));
    return p && loc_in_storage(p, slot) ? p : nullptr;
}
// The header check on an object pointer, inline for the other families' hot
// paths (list nodes, string records). It reads the state word before any
// range check, so the 16 bytes in front of obj must be readable: fine for a
// pointer its caller presents as a node or a record, not for an arbitrary
// one. memm_isvalidobj(_nolock) give the same answer for any pointer through
// loc_storage_pool first; the hot paths keep this form, one load cheaper
// than a search of the storage index.
inline bool loc_isvalidobj(const void *obj) {
    return obj && loc_header_pool(static_cast<const uint8_t *>(obj) - kHdrSize);
}

// ---- storage index (storageindex.cc; lock held) ----------------------------------
// Empties the index, reserving its address range the first time; false when
// the range cannot be reserved.
MEMM_INTERNAL bool loc_storage_index_reset();
// Records the storage of pool `id`; false when no room can be committed.
MEMM_INTERNAL bool loc_storage_index_add(const uint8_t *storage, uint32_t id);
// The pool whose storage (storage to last_slot inclusive) holds `addr`, or
// null. Reads no memory at addr.
MEMM_INTERNAL memm_pooldesc *loc_storage_pool(uintptr_t addr);

// ---- lock -----------------------------------------------------------------
// A thread's token is the address of its own copy of this variable: unique
// among live threads, and one load away (initial-exec TLS, no call).
MEMM_INTERNAL extern __thread char loc_thread_token __attribute__((tls_model("initial-exec")));
inline const void *loc_self() { return &loc_thread_token; }

// True while the process certainly has one thread only: the C library
// clears its flag before a second thread starts (and sets it in the child of
// a fork). No other thread can then compete for the lock, and a thread made
// later sees the lock's plain stores through its own creation, so the lock
// word is set and cleared without an atomic read-modify-write.
inline bool loc_single_threaded() {
#ifdef MEMM_HAVE_SINGLE_THREADED
    return __libc_single_threaded;
#else
    return false;
#endif
}

// Slow halves of the lock (lock.cc): sleeping until the word is free,
// waking a sleeper, and the log line of a refused lock.
MEMM_INTERNAL void loc_lock_wait();
MEMM_INTERNAL void loc_lock_wake();
MEMM_INTERNAL void loc_lock_refused(int err, const char *reason);

// Takes the lock, or nests once more when this thread holds it already. An
// uncontended lock is one compare-and-swap (a plain store while the process
// has one thread); a nested one no atomic at all.
inline void loc_lock(const char *reason) {
    RecursiveLock &l = g_registry.lock;
    const void *self = loc_self();
    if (l.owner.load(std::memory_order_relaxed) == self) {
        if (__builtin_expect(l.depth == UINT32_MAX, 0)) {
            loc_lock_refused(EAGAIN, reason); // as a recursive mutex whose count is full
            return;
        }
        l.depth++;
    } else {
        uint32_t free_word = 0;
        if (loc_single_threaded() && l.word.load(std::memory_order_relaxed) == 0)
            l.word.store(1, std::memory_order_relaxed);
        else if (!l.word.compare_exchange_strong(free_word, 1, std::memory_order_acquire, std::memory_order_relaxed))
            loc_lock_wait();
        l.owner.store(self, std::memory_order_relaxed);
        l.depth = 1;
    }
    g_registry.prev_reason = reason;
}

// Drops one level; the last one frees the word (one exchange) and wakes a
// sleeper if one may be waiting. EPERM, changing nothing, when this thread
// does not hold the lock.
inline int loc_unlock() {
    RecursiveLock &l = g_registry.lock;
    if (l.owner.load(std::memory_order_relaxed) != loc_self())
        return EPERM;
    if (--l.depth)
        return 0;
    l.owner.store(nullptr, std::memory_order_relaxed);
    if (loc_single_threaded()) // and so nobody sleeps on the word
        l.word.store(0, std::memory_order_relaxed);
    else if (l.word.exchange(0, std::memory_order_release) == 2)
        loc_lock_wake();
    return 0;
}

// Holds the global lock for one public entry point.
class PoolLock {
  public:
    explicit PoolLock(const char *reason) { loc_lock(reason); }
    ~PoolLock() { loc_unlock(); }
    PoolLock(const PoolLock &) = delete;
    PoolLock &operator=(const PoolLock &) = delete;
};

// ---- logging --------------------------------------------------------------
// Formats into a stack buffer and sends the line to syslog at LOG_DEBUG,
// and to standard error as well under MEMM_LOG=stderr.
MEMM_INTERNAL void loc_log(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// ---- settings from the environment ----------------------------------------
// Reads MEMM_LOG and MEMM_REPORT_DIR; memm_init calls it once. Takes the lock.
MEMM_INTERNAL void loc_read_environment();
// Whether diagnostics also go to standard error (MEMM_LOG=stderr).
MEMM_INTERNAL bool loc_log_to_stderr();

// ---- registry (lock held unless noted) --------------------------------------
MEMM_INTERNAL uint32_t loc_init_pooldesc(uint32_t capacity);
MEMM_INTERNAL void loc_initslots(memm_pooldesc *p, uint32_t first);
MEMM_INTERNAL uint32_t loc__initpool(const char *name, int32_t count, int32_t objsize,
                                     const memm_pool_options *options, uint32_t root, void *caller);

// ---- allocation and release (lock held) --------------------------------------
MEMM_INTERNAL uint8_t *memm__calloc(uint32_t id, int32_t attempt, bool collect, bool fromroot);
MEMM_INTERNAL void *loc_calloc_entry(uint32_t id, bool collect, bool fromroot, void *caller);
MEMM_INTERNAL uint32_t memm__free(uint8_t *slot, void *caller, bool relock);
MEMM_INTERNAL void loc_release_slot(memm_pooldesc *p, uint8_t *slot);
// A free_ex hook that has a second form taking the pool the header check
// found, so a release does not look the pool up twice. For such a release
// the two forms do the same; the library's own record pools use it.
struct PoolHook {
    memm_free_ex_fn hook;
    uint32_t (*with_pool)(memm_pooldesc *p, void *obj);
};
MEMM_INTERNAL extern const PoolHook g_pool_hook;
// Taking a slot off the free list: take_slot.h.

// ---- lookup (lock held) ----------------------------------------------------
// Visits the in-use objects of pool `id` and, unless `single_pool`, of the
// pools after it in its chain; a callback's 0 ends the current pool only.
MEMM_INTERNAL uint32_t loc_enum_objects(uint32_t id, memm_enum_fn cb, void *ctx, bool single_pool);
// The next pool of a chain walk, or null at the chain's end.
inline memm_pooldesc *loc_next_in_chain(const memm_pooldesc *p) {
    return p->next_pool ? loc_pool(p->next_pool) : nullptr;
}

// ---- integrity and reports (lock held) ---------------------------------------
constexpr size_t kIntegrityMsgSize = 100;
MEMM_INTERNAL int loc_memm_integrity_check(char *msg);
MEMM_INTERNAL void loc_memm_dump_stats(const char *prefix, uint32_t number, const char *reason, const char *info);
MEMM_INTERNAL void loc_handle_list_objects(const char *prefix, int only_tagged, int hide_deleted, const char *reason);

// ---- reports, listings and tagging -----------------------------------------
// A pool is selected when `prefix` is null or empty, or when its name begins
// with exactly those characters.
inline bool loc_prefix_selects(const char *prefix, const char *name) {
    if (!prefix || !*prefix)
        return true;
    return name && strncmp(name, prefix, strlen(prefix)) == 0;
}
// part x 100 / whole in signed 32-bit arithmetic like every figure of the
// reports (the product wraps), truncated toward zero; 0 for an empty whole.
inline int32_t loc_percent(uint32_t part, uint32_t whole) {
    const int32_t num = int32_t(part * 100u), den = int32_t(whole);
    if (den == 0)
        return 0;
    return den == -1 ? int32_t(0u - uint32_t(num)) : num / den;
}
// Report and list files are named in a buffer of this size; a name that does
// not fit is refused like a file that cannot be opened, never cut.
constexpr size_t kReportPathSize = PATH_MAX;
// Writes the path of report file `fmt`... into `path`: in MEMM_REPORT_DIR
// when memm_init found it set, else in `default_dir`. False when the path
// does not fit (or MEMM_REPORT_DIR was too long); `path` then holds what did.
// Lock held.
MEMM_INTERNAL bool loc_report_path(char (&path)[kReportPathSize], const char *default_dir, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
// The usage table through `print` (nothing when null). Takes the lock.
MEMM_INTERNAL void loc_print_stats(const char *prefix, memm_print_fn print);
// The object line of `slot` (null allowed) through `print`. Lock held.
MEMM_INTERNAL void loc_printobject(uint8_t *slot, int details, memm_print_fn print);

} // namespace memm_detail

#endif
