/* Object pools: fixed-size objects behind a 16-byte header, constant-time
 * allocation and release, reference counts, release hooks, growth by
 * extension pools, lookup, statistics, object listings and tagging.
 *
 * Conventions of this header (and of dynstr.h, llist.h and strlist.h):
 *  - Results. Each comment says what a function returns on success and on
 *    each failure; a comment above a group of functions states what the whole
 *    group shares. Result codes are MEMM_OK or a MEMM_ERR_* code.
 *  - The lock. One process-wide recursive lock serialises the library. A
 *    function takes it for its whole run unless its comment says "no lock" or
 *    its name ends in _nolock; a _nolock function expects its caller to hold
 *    the lock (memm_lock / memm_unlock) whenever another thread may use the
 *    library. Hooks and callbacks that the library calls run under the lock
 *    unless their comment says otherwise; they may call the library again.
 *  - Logging. Diagnostics go to syslog at LOG_DEBUG (see MEMM_LOG below).
 *    A function logs nothing unless its comment quotes a line. Quoted lines
 *    are printf formats; "\r\n" at the end is part of the line where shown.
 *  - Ownership. A pool object belongs to its holders: the allocation makes
 *    the caller its one holder, memm_refalloc adds one, memm_free drops one,
 *    and the last memm_free gives the slot back to its pool. Pools, their
 *    names and their storage are never destroyed.
 *
 * ---- Alignment of pool objects ----
 * A pool's storage is one block from malloc (16-byte aligned with glibc on
 * 64-bit Arm). Object k of a pool starts at storage + k * slotsize + 16, and
 *     slotsize = (objsize + 19) & ~3
 * (the object size rounded up to a multiple of 4, plus the 16-byte header).
 * Slots are only guaranteed to be 4-byte aligned:
 *  - In a pool as memm_initpool creates it, every object is 8-byte aligned
 *    exactly when objsize % 8 is 0, 5, 6 or 7 (sizeof of a struct that has an
 *    8-byte member always qualifies). With objsize % 8 from 1 to 4 (4, 12,
 *    20, ...) every second object is only 4-byte aligned.
 *  - A full pool grows by extension pools whose slots are 12 bytes longer
 *    than its own. When the first pool's objects are 8-byte aligned, every
 *    second object of each extension pool is not. An object of a pool that
 *    may grow is therefore not always 8-byte aligned, whatever its size.
 * On 64-bit Arm, for an object that may be only 4-byte aligned:
 *  - Keep 8-byte atomics (C11 _Atomic or std::atomic of 8-byte types,
 *    __atomic builtins on pointers or 64-bit counters) and locks
 *    (pthread_mutex_t, pthread_cond_t, std::mutex) out of it: atomic
 *    instructions on a misaligned address raise an alignment fault (SIGBUS)
 *    or, where the CPU accepts them, are not guaranteed to be atomic.
 *  - Plain 8-byte fields (pointers, uint64_t, double) work with ordinary
 *    loads and stores on AArch64 Linux, but C and C++ let the compiler assume
 *    the type's alignment (and UBSan reports the access): read and write
 *    them with memcpy, as the library does with its own header words, or
 *    give them an aligned pool.
 * An aligned pool: choose objsize % 8 of 0, 5, 6 or 7 (for 16-byte
 * alignment objsize % 16 of 0, 13, 14 or 15) and call
 * memm_disallow_expansion right after memm_initpool, so that the pool never
 * grows (when full it is depleted instead). A pool with a gc hook never
 * grows either. The library's own objects that callers read directly are
 * 8-byte aligned: pool descriptors (memm_get_pool_nolock) and string
 * records (dynstr.h). List nodes are not (llist.h).
 */
#ifndef MEMM_H
#define MEMM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__) || defined(__clang__)
#define MEMM_API __attribute__((visibility("default")))
#else
#define MEMM_API
#endif

/* ---- Result codes (uint32_t), shared by all four families ---- */
#define MEMM_OK                       0x00000000u
#define MEMM_ERR_BUFFER_TOO_SMALL     0x80020001u /* caller's output area too small */
#define MEMM_ERR_NO_MEMORY            0x80020002u /* no object or memory could be allocated */
#define MEMM_ERR_INVALID_ARG          0x80020003u /* null / invalid object / bad pool id or position */
#define MEMM_ERR_ALREADY_INITIALIZED  0x80020004u /* memm_init called a second time */
#define MEMM_ERR_HOOK_FAILED          0x80020007u /* a pool's release hook reported a failure */
#define MEMM_KEEP_OBJECT              0x80020009u /* returned only BY a free_ex hook: keep the object */

/* ---- Pools ---- */
#define MEMM_INVALID_POOL             0xFFFFFFFFu /* "no pool"; failure result of pool creation */
#define MEMM_POOLDESC_POOL            0u          /* pool 0 holds all pool descriptors */
#define MEMM_POOLDESC_NAME            "memm_pooldesc"
#define MEMM_INVALID_POOLNAME         "invalid poolid" /* memm_get_poolname(2) of a bad id */
#define MEMM_MAX_EXTENSION_POOLS      5           /* per chain, besides the root pool */

/* memm_pooldesc.flags bits */
#define MEMM_POOLFLAG_DEPLETION_REPORTED   0x01u /* the one-time depletion report was made */
#define MEMM_POOLFLAG_NO_EXPANSION         0x02u /* set by memm_disallow_expansion */
#define MEMM_POOLFLAG_REBOOT_ON_DEPLETION  0x04u /* set at creation, cleared by memm_depletion_no_reboot */

/* memm_pooldesc.alloc_calls[] indexes */
#define MEMM_ALLOC_CALLS_TOTAL        0
#define MEMM_ALLOC_CALLS_FIRST_FREE   1
#define MEMM_ALLOC_CALLS_DYNPOOL      2

/* ---- Object header: 16 bytes in front of every object ---- */
#define MEMM_OBJHDR_SIZE              16
#define MEMM_STATE_FREE               0xFFFFFFFFu /* whole state word of a free slot */
#define MEMM_STATE_POOLID_MASK        0x00007FFFu /* bits 0-14: own pool id */
#define MEMM_STATE_RELEASING          0x00008000u /* bit 15: set before a free2_ex hook runs */
#define MEMM_STATE_TAGGED             0x00010000u /* bit 16: tagged mark */
#define MEMM_STATE_REFS_SHIFT         17          /* bits 17-31: extra holders (holders - 1) */
#define MEMM_MAX_EXTRA_REFS           0x7FFEu     /* 32766 */
#define MEMM_MAX_REFS                 32767u      /* most holders one object can have */

/* ---- Listing options (uint32_t bits) ---- */
#define MEMM_LIST_OPT_REQUESTED            0x1u /* set by memm_handle_list_objects; only passed on to list_filter hooks */
#define MEMM_LIST_OPT_ONLY_TAGGED          0x2u /* list tagged objects only; clear = untagged objects only */
#define MEMM_LIST_OPT_HIDE_DELETED_DYNSTR  0x4u /* string pools' list_filter hides deleted records */

/* ---- Reasons understood by memm_handle_tag_objects / memm_handle_list_objects ---- */
#define MEMM_REASON_TAGGING           "tagging"       /* tag + statistics dump /var/memm_dump_tagging_<n> */
#define MEMM_REASON_PROFILING         "profiling"     /* listing to /var/memm_list_profiling_<1..255, then 0> */
#define MEMM_REASON_POOL_DEPLETED     "pool_depleted" /* listing to /root/memm_list_pool_depleted_<pid> */

/* Layout of the object header. A slot may be only 4-byte aligned (see
 * Alignment above), so read these words with memcpy, not through this struct. */
typedef struct memm_objhdr {
    uint32_t state;      /* packed: MEMM_STATE_* ; MEMM_STATE_FREE for a free slot */
    uint32_t reserved;   /* always 0 */
    void    *allocfrom;  /* code address of the allocating call */
} memm_objhdr;

/* ---- Callback types ---- */
/* printf-like print function (a caller's, printf, or the library's file writers) */
typedef int      (*memm_print_fn)(const char *fmt, ...);
/* release function handed to free2_ex hooks; memm_free has this type */
typedef uint32_t (*memm_release_fn)(void *obj);

/* pool options hooks, one type per slot */
typedef void     (*memm_print_stats_fn)(void *cookie, uint32_t *bytes_cur_total,
                                        uint32_t *bytes_max_total, uint32_t *bytes_avail_total,
                                        memm_print_fn print); /* totals may all be null */
typedef void     (*memm_print_hook_fn)(void *obj);                         /* prints by its own means */
typedef uint32_t (*memm_free_ex_fn)(void *obj);                            /* result code or MEMM_KEEP_OBJECT */
typedef uint32_t (*memm_free2_ex_fn)(void *obj, memm_release_fn release);  /* result code; release = memm_free */
typedef int      (*memm_gc_fn)(void *cookie, int32_t attempt);             /* non-zero: try the allocation again */
typedef int      (*memm_list_filter_fn)(void *obj, uint32_t options);      /* non-zero: include the object */
typedef void     (*memm_print2_fn)(void *obj, memm_print_fn print);

/* memm_search match / memm_enum_objects callback */
typedef int      (*memm_match_fn)(void *obj, void *ctx); /* non-zero: match */
typedef int      (*memm_enum_fn)(void *obj, void *ctx);  /* non-zero: go on; 0: stop scanning this pool */

/* Pool options record: nine pointer-sized slots, copied whole at pool
 * creation (extension pools get a copy of their root's). Release hooks run
 * when the last holder releases an object (see memm_free). */
typedef struct memm_pool_options {
    memm_print_stats_fn  print_stats; /* extra report lines; adds to the running byte totals */
    memm_print_hook_fn   print;       /* object listings, when print2 is not set */
    memm_free_ex_fn      free_ex;     /* final release: MEMM_OK frees the slot, MEMM_KEEP_OBJECT keeps the object, other codes fail */
    memm_free2_ex_fn     free2_ex;    /* final release, takes precedence over free_ex; MEMM_OK frees the slot, other codes fail; runs unlocked when entered via memm_free */
    memm_gc_fn           gc;          /* asked when fewer than two slots are free; the pool then never grows */
    void                *cookie;      /* opaque; passed to gc and print_stats */
    uintptr_t            reserve;     /* free-slot threshold of the reserve flag (memm_get_currentcount_ptr); value fits 32 bits */
    memm_list_filter_fn  list_filter; /* object listings */
    memm_print2_fn       print2;      /* object listings, preferred over print */
} memm_pool_options;

/* Pool descriptor: one per pool, itself an object of pool 0 (8-byte
 * aligned, never moves). Read it under the lock. */
typedef struct memm_pooldesc {
    const char        *name;             /* caller's string, not copied; extensions share the root's */
    uint8_t           *storage;          /* first slot (one block of alloc_count * slotsize bytes) */
    uint32_t           slotsize;         /* bytes per slot, header included: (objsize + 19) & ~3 */
    uint32_t           cur_count;        /* objects in use */
    uint32_t           max_count;        /* highest cur_count */
    uint32_t           alloc_count;      /* number of slots */
    int32_t            base_peak;        /* highest cur_count - *base_count_ptr seen at an allocation */
    uint32_t          *base_count_ptr;   /* set by memm_get_currentcount_ptr */
    uint32_t          *reserve_flag_ptr; /* set by memm_get_currentcount_ptr */
    uint8_t           *last_slot;        /* start of the last slot (inclusive end) */
    uint8_t           *free_head;        /* first free slot, null when none */
    int32_t            ref_cur;          /* extra references held on this pool's objects */
    int32_t            ref_max;          /* peak of ref_cur (pool 0: peak over all pools) */
    uint64_t           free_calls;       /* successful releases */
    uint64_t           alloc_calls[3];   /* MEMM_ALLOC_CALLS_TOTAL / _FIRST_FREE / _DYNPOOL (root pools) */
    uint8_t            flags;            /* MEMM_POOLFLAG_* */
    memm_pool_options  options;          /* copy of the creator's record */
    uint32_t           next_pool;        /* next pool of the chain, 0 when none */
    uint32_t           root_pool;        /* chain's root id; a root holds its own id */
} memm_pooldesc;

/* ================= Library start ================= */
/* memm_init(pool_count, dynstr_pool_count) starts the library once per
 * process; nothing is ever destroyed afterwards. No lock: call it before
 * other threads use the library.
 *  - MEMM_OK: started. pool_count is the initial capacity of the descriptor
 *    table (pool 0 included; above 32767, the most 15-bit pool ids allow, it
 *    is lowered to 32767; the table grows by itself when full).
 *    dynstr_pool_count is the number of string pools the process may ever
 *    create (dynstr_init); 0 starts no string family.
 *  - MEMM_ERR_ALREADY_INITIALIZED on any later call, which changes nothing
 *    and logs "memm_init() may only be called once per process!".
 *  - MEMM_ERR_INVALID_ARG for pool_count below 2, logged as "[MEMM] Error:
 *    memm_init() needs room for at least 2 pools (asked for %u)".
 *  - MEMM_ERR_NO_MEMORY (nothing logged) when the first table cannot be
 *    obtained, and MEMM_ERR_NO_MEMORY when the string family cannot be
 *    started (dynstr_init's lines are logged). In both cases the library is
 *    left not started, exactly as before the call, and memm_init may be
 *    called again.
 * Functions called before memm_init fail cleanly (no pool exists); the lock
 * works from static initialisation on.
 *
 * Environment, read once by memm_init:
 *   MEMM_LOG=stderr           every diagnostic line is also written to
 *                             standard error, followed by a newline unless
 *                             it ends with one already (default:
 *                             syslog only, LOG_DEBUG). A diagnostic logged
 *                             before memm_init looks at the variable itself.
 *   MEMM_REPORT_DIR=<folder>  every dump and list file is written into that
 *                             folder instead of /var or /root, same file
 *                             names. Unset or empty: the usual folders. A
 *                             path longer than PATH_MAX is logged ("Could not
 *                             open ... file") and the report is not written.
 */
MEMM_API uint32_t memm_init(uint32_t pool_count, uint32_t dynstr_pool_count);   /* result code (above); no lock */

/* ================= Pools ================= */
/* memm_initpool creates a pool of `count` objects of `objsize` bytes and
 * returns its id (1 to 32766), or MEMM_INVALID_POOL. Lock reason
 * "memm_initpool". memm_initpool2 and memm_initpool3 are memm_initpool with
 * an options record that sets only print and free_ex, or print and free2_ex.
 *  - name is kept by pointer, never copied: it must stay valid and unchanged
 *    for the life of the process (a literal or static storage, not a stack
 *    buffer). It names the pool in reports, listings and log lines, and its
 *    extension pools share it. options may be null; the record is copied.
 *  - Refused, with nothing created: a null name, count <= 0, objsize <= 0,
 *    a call before memm_init, a non-empty name that another root pool
 *    already has (the text is compared; "" may be used more than once),
 *    storage (count x slot size) above 2^31 - 1 bytes, no memory for the
 *    storage or no descriptor left. Each failure logs
 *    "[MEMM] Failed to allocate %s buffer (cnt=%d, objsize=%d)" with the name
 *    ("<no_name>" for null), count and objsize (the slot size once the
 *    arguments are valid); before memm_init also
 *    "loc__initpool() called before mem_init()".
 *  - A full descriptor table is enlarged by about half, logging "[MEMM] Info:
 *    Pooldescr [memm_pooldesc] reallocated to increase its size (%d
 *    elements)". Descriptors never move: pointers from memm_get_pool_nolock
 *    and memm_get_currentcount_ptr stay valid for the life of the process.
 *    Enlarging restarts pool 0's allocation and release counters only.
 */
MEMM_API uint32_t memm_initpool(const char *name, int32_t count, int32_t objsize,
                                const memm_pool_options *options);              /* pool id or MEMM_INVALID_POOL; options may be null */
MEMM_API uint32_t memm_initpool2(const char *name, int32_t count, int32_t objsize,
                                 memm_print_hook_fn print, memm_free_ex_fn free_ex);   /* pool id or MEMM_INVALID_POOL */
MEMM_API uint32_t memm_initpool3(const char *name, int32_t count, int32_t objsize,
                                 memm_print_hook_fn print, memm_free2_ex_fn free2_ex); /* pool id or MEMM_INVALID_POOL */

/* ================= The lock ================= */
/* memm_lock takes the library's recursive lock, or nests once more when the
 * calling thread holds it already; memm_unlock drops one level. Hold it
 * around _nolock calls and around reads of a descriptor.
 *  - reason is kept by pointer (use a literal): it is named as the previous
 *    reason when a later lock is refused. A lock is refused only when the
 *    nesting depth would pass 2^32 - 1; the call then logs "Could not lock %d
 *    (reason = %s, previous reason = %s\r\n" (11, EAGAIN) and returns
 *    without another level.
 *  - A waiting thread sleeps until the lock is freed; the lock is not fair
 *    (a running thread may take it first).
 *  - fork: the child holds the lock exactly when the forking thread held it
 *    (with the same depth; it unlocks as often as the parent would). A child
 *    may use the library only if no other thread of the parent held the lock
 *    at the moment of the fork (the parent forks while holding the lock
 *    itself, or has no other thread that uses the library); otherwise the
 *    lock stays taken for good in the child, which must not call the library
 *    and should only exec or _exit. */
MEMM_API void     memm_lock(const char *reason);   /* nothing; reason kept by pointer */
MEMM_API int      memm_unlock(void);               /* 0, or EPERM (nothing changed) when the calling thread does not hold the lock */

/* ================= Allocation ================= */
/* The allocators return a zero-filled object whose one holder is the
 * caller, with the caller's return address recorded as its allocation
 * site, or null. An invalid pool id gives null, nothing logged.
 * memm_calloc (lock reason "memm_calloc") and memm_calloc_nolock allocate
 * from the chain of the given pool (an extension's id stands for its root):
 *  - A pool without a gc hook that is full takes the first free slot of its
 *    extension pools, else creates a new one of 3 slots (pools of up to 15)
 *    or a fifth of the root's count, at most MEMM_MAX_EXTENSION_POOLS,
 *    logging "[MEMM] Info: Pool [%d: %s] extended with an extra dynamic pool
 *    (%d, %d elements)" (root id and name, new id, slots). Extension slots
 *    are 12 bytes longer (see Alignment).
 *  - A pool with a gc hook never grows: with fewer than two free slots it
 *    calls gc(cookie, attempt) and tries again while gc returns non-zero,
 *    at most 64 times (attempts 0 to 63); when gc gives up the result is
 *    null, nothing logged.
 *  - Depletion: when the chain cannot grow (five extensions exist, the
 *    extension cannot be created, logged "[MEMM] Error: Failed to extend pool
 *    [%d: %s] with an extra dynamic pool", or memm_disallow_expansion was
 *    called) the result is null. The first depletion of a pool logs
 *    "memm__calloc() failed for pool '%s' (pool depleted), POOL DEPLETED
 *    !!!!!!!!!!!!!!!", appends the usage table of every pool to
 *    /root/memm_dump_pool_depleted_<pid> and a listing of the last 251
 *    untagged objects of each pool whose name begins with the depleted
 *    pool's name (deleted string records hidden) to
 *    /root/memm_list_pool_depleted_<pid>. This and every later
 *    failure also logs "memm__calloc() failed for pool '%s' (pool depleted)"
 *    unless memm_depletion_no_reboot was called. A failed integrity check
 *    adds "[MEMM] integrity check failed: %s". The process is never stopped.
 * memm_calloc_nolock_nogc allocates from exactly the given pool: it never
 * calls gc and never grows a chain. With no free slot it returns null,
 * silently, or with the depletion report when memm_disallow_expansion was
 * called for that pool. In a pool with a gc hook, when no more than
 * options.reserve slots were free before it, it stores 1 through the reserve
 * flag (memm_get_currentcount_ptr). */
MEMM_API void    *memm_calloc(uint32_t poolid);              /* zero-filled object or null */
MEMM_API void    *memm_calloc_nolock(uint32_t poolid);       /* zero-filled object or null */
MEMM_API void    *memm_calloc_nolock_nogc(uint32_t poolid);  /* zero-filled object or null; never collects, never extends, may use the reserve */

/* ================= Release and references ================= */
/* memm_free (lock reason "memm_free") and memm_free_nolock drop one holder
 * of obj:
 *  - null: MEMM_OK, nothing done.
 *  - An object with more than one holder: one holder dropped, MEMM_OK; no
 *    hook runs.
 *  - The last holder: the pool's free2_ex hook runs if set, else free_ex.
 *    Entered through memm_free, free2_ex runs with the lock lowered by one
 *    level (a caller that held the lock before still holds it). Then the slot
 *    goes back to the pool (MEMM_OK); the object's bytes stay as they were
 *    until the slot is allocated again. free_ex returning MEMM_KEEP_OBJECT
 *    keeps the object allocated (the hook has taken it over): MEMM_OK.
 *  - A hook returning any other code: MEMM_ERR_HOOK_FAILED, the object stays
 *    allocated with its holder, logged "[MEMM] memm_free: free_ex failed
 *    for: %p (poolid = %d) called from %p\r\n" (free2_ex for that hook). A
 *    hook that released the object itself: MEMM_OK, logged "[MEMM]
 *    memm_free: Recursive release detected: %p (poolid = %d) called from
 *    %p\r\n".
 *  - Double release (the slot is free): MEMM_OK, nothing changed, logged
 *    "memm_free(): double Free" and then the invalid-pointer line below with
 *    poolid 32767. A slot that has been allocated again since is no longer
 *    free: releasing the old pointer then releases the new object.
 *  - A foreign pointer (its header names no pool or lies outside that pool's
 *    storage) or a pool descriptor: MEMM_OK, nothing changed, logged
 *    "[MEMM] memm_free: Attempt to release invalid pointer: %p (poolid = %d)
 *    called from %p\r\n".
 * In these lines the first %p is the header's address (obj - 16), poolid
 * the id bits found there, the last %p the caller's return address. The
 * release stays constant-time by reading the header before checking where
 * it lies: the 16 bytes in front of a foreign pointer must be readable. To
 * test an arbitrary pointer, use memm_isvalidobj first. String records and
 * list nodes are released the same way (dynstr.h, llist.h). */
MEMM_API uint32_t memm_free(void *obj);                      /* MEMM_OK or MEMM_ERR_HOOK_FAILED; matches memm_release_fn */
MEMM_API uint32_t memm_free_nolock(void *obj);               /* MEMM_OK or MEMM_ERR_HOOK_FAILED */
/* memm_refalloc (lock reason "memm_refalloc") adds a holder, who releases
 * it with a memm_free of their own. Null for a null obj (nothing logged), for a header
 * naming no pool (a released slot, for instance), logged "memm__refalloc()
 * failed (invalid object passed)", and for an object that already has
 * MEMM_MAX_REFS holders, logged "memm__refalloc() failed (too many references
 * for this object)". memm_refalloc(_nolock) and memm_get_refcount do not check
 * that the header lies in that pool, so they are no test of an arbitrary
 * pointer either. */
MEMM_API void    *memm_refalloc(void *obj);                  /* obj with one more holder, or null */
MEMM_API void    *memm_refalloc_nolock(void *obj);           /* obj with one more holder, or null */
MEMM_API uint32_t memm_get_refcount(void *obj);              /* number of holders; 0 for null or invalid */

/* ================= Pool policy switches ================= */
/* Both take the lock (reason: the function's name), act only on an id that
 * names a root pool and ignore any other id silently; neither can be undone.
 * memm_disallow_expansion: the pool never grows. Call it right after
 * creating the pool: from then on an allocation that finds the root pool
 * full is a depletion (see Allocation), even when extension pools made
 * earlier still have free slots. It keeps an aligned pool aligned (see
 * Alignment).
 * memm_depletion_no_reboot: failed allocations of the depleted pool no
 * longer log "memm__calloc() failed for pool '%s' (pool depleted)" each
 * time; the one-time depletion report stays. With or without it the library
 * never restarts or stops the process. */
MEMM_API void     memm_disallow_expansion(uint32_t poolid);  /* nothing; root pools only */
MEMM_API void     memm_depletion_no_reboot(uint32_t poolid); /* nothing; root pools only */

/* ================= Validation, identity, lookup ================= */
/* Nothing here logs; an invalid id or pointer gives the "not found" result
 * shown with each function. Each takes the lock unless it says "no lock"
 * (or its name ends in _nolock).
 * memm_isvalidobj, memm_isvalidobj_nolock, memm_isvalidobj_ex,
 * memm_isvalidobjfrompool and memm_instanceof_with_mem_range_check are safe
 * for any pointer, also one into memory that is not readable. The first two
 * find the pool whose storage holds the header (a search of the pools'
 * storage ranges, O(log pools)) and read the header only then: a released
 * object answers 0. memm_isvalidobjfrompool and memm_isvalidobj_ex compare
 * addresses only and do not read the header: they answer 1 for a released
 * object too. The other functions taking an object read its header without
 * such a check.
 * memm_instanceof and memm_instanceof_no_ori compare the id they find with
 * poolid as it is: a null object, and for memm_instanceof an object whose
 * header names no pool (a released slot), has the id 0xFFFFFFFF, and
 * memm_instanceof_no_ori takes a released slot's id as 0x7FFF (state & 0x7FFF
 * of the free marker). Those ids therefore answer 1 for such objects. */
MEMM_API int      memm_isvalidobj(void *obj);                                  /* 1 if the header lies in a pool's storage and names that pool, else 0 */
MEMM_API int      memm_isvalidobj_nolock(void *obj);                           /* as memm_isvalidobj; no lock */
MEMM_API int      memm_isvalidobjfrompool(uint32_t poolid, void *obj);         /* 1 if obj is an exact slot of that pool's own storage (among slots ever used), else 0 */
MEMM_API int      memm_isvalidobj_ex(void *obj);                               /* 1 if obj is an exact slot of any pool, else 0; O(pools) */
MEMM_API int      memm_instanceof(void *obj, uint32_t poolid);                 /* 1 if obj's root pool is poolid, else 0 */
MEMM_API int      memm_instanceof_no_ori(void *obj, uint32_t poolid);          /* 1 if obj's own pool is poolid, else 0; no lock */
MEMM_API int      memm_instanceof_with_mem_range_check(void *obj, uint32_t poolid); /* 1 if obj lies in that pool's own storage and memm_instanceof holds, else 0 */
MEMM_API uint32_t memm_get_poolid(void *obj);                                  /* own pool id (state & 0x7FFF); MEMM_INVALID_POOL for null; no lock */
/* Pool names are the creators' strings, valid for the life of the process. */
MEMM_API const char *memm_get_poolname2(uint32_t poolid);                      /* pool name, or MEMM_INVALID_POOLNAME */
MEMM_API const char *memm_get_poolname(void *obj);                             /* name of obj's own pool, or MEMM_INVALID_POOLNAME */
MEMM_API void    *memm_getpoolcookie(void *obj);                               /* cookie of obj's own pool, or null */
MEMM_API void    *memm_getpoolcookie_nolock(void *obj);                        /* cookie of obj's own pool, or null */
MEMM_API void    *memm_getpoolcookie_bypoolid(uint32_t poolid);                /* pool's cookie, or null */
MEMM_API void    *memm_getpoolcookie_bypoolid_nolock(uint32_t poolid);         /* pool's cookie, or null */
/* Pool ids in use lie below this number; ids of free descriptor slots
 * among them name no pool. */
MEMM_API uint32_t memm_get_number_of_pools(void);                              /* pools created so far (pool 0 and extensions included); 0 before memm_init; no lock */
/* Records two counters of the pool's user in the pool and returns the
 * address of the pool's cur_count (objects in use), valid for the life of
 * the process; null, changing nothing, for an id that names no pool. Each
 * call replaces both pointers; null switches a feature off. The pointed-to
 * words must stay valid as long as they are recorded.
 *  - base_count: a count of objects that the user still holds but no longer
 *    counts as in use. memm_get_stats, memm_get_overall_stats and the usage
 *    table then report cur_count - *base_count as current and, as peak,
 *    the highest such difference seen at an allocation.
 *  - reserve_flag: memm_calloc_nolock_nogc stores 1 there when it allocates
 *    from a pool with a gc hook that had no more than options.reserve free
 *    slots; only the user clears it.
 * A string pool's record pool uses both for itself: do not call this for a
 * string pool's id. */
MEMM_API uint32_t *memm_get_currentcount_ptr(uint32_t poolid, uint32_t *base_count,
                                             uint32_t *reserve_flag);           /* address of the pool's cur_count, or null */
MEMM_API memm_pooldesc *memm_get_pool_nolock(uint32_t poolid);                 /* the pool's descriptor (never moves), or null; no lock */
/* Chain index: slots of the root pool count from 0, those of the first
 * extension go on after the root's alloc_count, and so on. memm_getindex
 * gives 0 both for the first slot of a root pool and for a null object or
 * a header naming no pool (a released slot): test with memm_isvalidobj
 * first. memm_getobject_byindex counts from the given pool (give a root's
 * id to count over the chain) and returns the object of that slot only when
 * it is in use; null for a negative or too large index or a free slot. */
MEMM_API uint32_t memm_getindex(void *obj);                                    /* chain index; 0 for null or a header naming no pool */
MEMM_API void    *memm_getobject_byindex(uint32_t poolid, int32_t index);      /* in-use object at that chain index, or null */
/* Walks go through the in-use objects of the given pool in slot order and
 * then through the later pools of its chain. A callback may release objects,
 * also the one it is shown; objects released ahead are not visited. */
MEMM_API void    *memm_search(uint32_t poolid, void *ctx, memm_match_fn match); /* first in-use object that match accepts, or null (also for a null match) */
MEMM_API void    *memm_getfirst(uint32_t poolid);                              /* first in-use object of the walk, or null */
MEMM_API void    *memm_getnext(void *obj);                                     /* next in-use object after obj (in obj's pool, then the chain's later pools); null at the end, for null or a released obj */
/* cb returning 0 ends the walk of the current pool only; the next pool of
 * the chain is still walked. A null cb reaches the first object of each
 * pool and stops there. */
MEMM_API uint32_t memm_enum_objects(uint32_t poolid, memm_enum_fn cb, void *ctx);        /* number of in-use objects reached */
MEMM_API uint32_t memm_enum_objects_nolock(uint32_t poolid, memm_enum_fn cb, void *ctx); /* number of in-use objects reached; no lock */

/* ================= Statistics ================= */
/* Figures of a pool: current = cur_count, peak = max_count, available =
 * alloc_count; for a pool with a base_count (memm_get_currentcount_ptr,
 * string pools) current = cur_count - *base_count and peak = base_peak.
 * memm_get_stats gives the figures of the one pool named, root or
 * extension: extension pools are not added. For a whole chain, add the
 * figures of its pools under the lock:
 *     memm_lock("chain stats");
 *     for (id = root; ; id = memm_get_pool_nolock(id)->next_pool) {
 *         memm_get_stats(id, &c, &m, &a); cur += c; max += m; avail += a;
 *         if (memm_get_pool_nolock(id)->next_pool == 0) break;
 *     }
 *     memm_unlock();
 * (the summed peak is that of the usage table's sum row: the sum of the
 * pools' own peaks). memm_get_stats writes its outputs only on success.
 * memm_get_overall_stats adds up the figures of every root pool whose name
 * the prefix selects (pool 0 and the string family's pools included),
 * without their extension pools; bytes_cur is current x slot size. For the
 * figures of every pool, extensions included, call memm_get_stats for each
 * id below memm_get_number_of_pools() (ids naming no pool give
 * MEMM_ERR_INVALID_ARG). Outputs may be null; the others are set to 0 first.
 * Prefix: null or "" selects every pool, otherwise the first strlen(prefix)
 * characters of the name must match. Percentages are peak * 100 / available
 * in 32-bit signed arithmetic, 0 for an empty pool.
 * memm_get_overall_stats and the usage table run the integrity check first
 * and go on after a fault: memm_get_overall_stats logs "[MEMM] integrity
 * check failed: %s" and, per string pool that fails its own check, "[MEMM]
 * dynstr integrity check failed: %d (%s)"; the usage table prints the same
 * lines (ending in "\r\n") through its print function instead. */
MEMM_API uint32_t memm_get_stats(uint32_t poolid, uint32_t *count_cur, uint32_t *count_max,
                                 uint32_t *count_avail);                        /* MEMM_OK, or MEMM_ERR_INVALID_ARG for an id naming no pool or a null output */
MEMM_API uint32_t memm_get_overall_stats(const char *prefix, uint32_t *count_cur, uint32_t *count_max,
                                         uint32_t *count_avail, uint32_t *bytes_cur); /* always MEMM_OK; outputs may be null */
/* The usage table: one row per pool of each selected chain (a mark "+"
 * when an extension follows, ">" from a depleted pool on), a sum row for a
 * chain of several pools, the reference columns, each pool's print_stats
 * lines, and the byte totals. Lock reason "loc_print_stats". */
MEMM_API void     memm_print_stats(const char *prefix);                         /* nothing; usage table through printf */
MEMM_API void     memm_print_stats2(const char *prefix, memm_print_fn print);   /* nothing; usage table through print (nothing if null) */
/* Allocation counts of each selected pool that has allocated (with the
 * shares served from a free slot, "first_free", and by growth or
 * collection, "dynpool"), then release counts. The duration columns are
 * always 0: the library reads no clock. */
MEMM_API int      memm_print_timestats(const char *prefix);                     /* 0 (the unlock result); report through printf */

/* ================= Object listings and tagging ================= */
/* The object line of memm_printobject2:
 *     "%d.%s.%d.0x%08lx allocfrom=%p" (own pool id, pool name, slot index,
 *     object address, allocation site), then ".[%d refs]\n" when it has
 *     more than one holder, then ".[tagged]\n" or ".[untagged]\n";
 *     " Obj is 0x0: null !!\n" for null;
 *     "\n ?.?.?.0x%08lx: invalid object\n" when the header check fails (a
 *     released object, for instance).
 * details != 0 lets the pool's print2 (through print) or else print (by its
 * own means) show the object after its line; 0 prints the line only. A null
 * print prints nothing. The header is read: 16 bytes in front of obj must be
 * readable. Lock reason "memm_printobject". */
MEMM_API int      memm_printobject2(void *obj, int details, memm_print_fn print); /* 0 (the unlock result) */
MEMM_API int      memm_printobject(void *obj, int details);                       /* 0 (the unlock result); through printf */
/* A listing (lock reason "memm_print_objects4") goes through print; a null
 * print lists nothing. Each pool whose name the prefix selects is listed on
 * its own (extension pools, which bear their root's name, included): a
 * heading, its usage line (raw counts), its print_stats lines, and the
 * object line with details of each listed object. Listed are untagged
 * objects, or with MEMM_LIST_OPT_ONLY_TAGGED tagged ones, that the pool's
 * list_filter (given the options) accepts. A limit L lists at most the last
 * L + 1 objects in use of each pool (counted before the tag and filter
 * tests); 0, or a limit above 2^31 - 1, lists all. When a pool's walk
 * finds another number of objects than its count, "[MEMM] ERROR: actual
 * object count (%d) differs from pool count (%d)\r\n" is logged.
 * Two pieces go to standard output whatever print is (also when a listing
 * goes to a list file): the line end after each pool's objects ("\r" and a
 * newline), and the descriptor lines of pool 0 ("memm_pooldesc"), whose
 * print hook writes " - '%s'" with the pool's name by printf. A prefix that
 * does not select "memm_pooldesc" keeps the latter off the console. */
MEMM_API void     memm_print_objects4(const char *prefix, uint32_t options, memm_print_fn print,
                                      uint32_t limit);                            /* nothing; options MEMM_LIST_OPT_*, limit 0 = none */
MEMM_API void     memm_print_objects3(const char *prefix, uint32_t options, memm_print_fn print); /* nothing; limit 0 */
MEMM_API void     memm_print_objects2(const char *prefix, uint32_t options);      /* nothing; printf, limit 0 */
MEMM_API void     memm_print_objects(const char *prefix);                         /* nothing; options 0, printf, limit 0 */
/* Tagging marks every object in use now, so that a later listing shows only
 * what was created since (untagged) or only what was there (tagged); a new
 * object starts untagged. memm_tag_objects sets (tag != 0) or clears (0)
 * the mark on the objects of each selected pool and of the later pools of
 * its chain, and logs "%stagged %d object(s) in pool %s\r\n" ("un" when
 * clearing) per selected pool; an extension pool is selected on its own too
 * (with its root's name), so it gets a line of its own. */
MEMM_API int      memm_tag_objects(const char *prefix, int tag);                  /* 0 (the unlock result) */
/* memm_tag_objects, then, only when reason is MEMM_REASON_TAGGING, a dump
 * under the same hold of the lock: "Info: Tagging done using
 * memm_handle_tag_objects." and the usage table of the selected pools are
 * appended to /var/memm_dump_tagging_<number>. number serves only to name
 * that file. Other reasons (null included) tag without a file. */
MEMM_API void     memm_handle_tag_objects(const char *prefix, int tag, uint32_t number,
                                          const char *reason);                    /* nothing */
/* Appends a listing to a list file: reason MEMM_REASON_PROFILING to
 * /var/memm_list_profiling_<n> (n = 1 to 255 for the process's first 255
 * such lists, 0 for all later ones), no limit; MEMM_REASON_POOL_DEPLETED to
 * /root/memm_list_pool_depleted_<pid>, limit 250. Any other reason (null
 * included) does nothing. The file starts with "List created with
 * option:OnlyTagged=%s and hideDeletedDynstr=%s" (Yes/No) and "Creation
 * reason=%s"; the listing has the options MEMM_LIST_OPT_REQUESTED,
 * MEMM_LIST_OPT_ONLY_TAGGED when only_tagged != 0 and
 * MEMM_LIST_OPT_HIDE_DELETED_DYNSTR when hide_deleted != 0. Lock reason
 * "memm_handle_list_objects".
 * Report files (dumps and lists) are appended to, never truncated; the lock
 * is held from opening a file to closing it. A file that cannot be opened,
 * or whose name would not fit 64 bytes, is not written (never cut) and
 * logged "Could not open %s file" (a dump: "Could not open %s stats file"). */
MEMM_API void     memm_handle_list_objects(const char *prefix, int only_tagged, int hide_deleted,
                                           const char *reason);                   /* nothing */

#ifdef __cplusplus
}
#endif

#endif /* MEMM_H */
