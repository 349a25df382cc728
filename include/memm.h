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
#define MEMM_POOLFLAG_DEPLETION_REPORTED   0x01u
#define MEMM_POOLFLAG_NO_EXPANSION         0x02u
#define MEMM_POOLFLAG_REBOOT_ON_DEPLETION  0x04u

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

/* Layout of the object header. A slot may be only 4-byte aligned, so the
 * implementation reads/writes these words with memcpy, not through this struct. */
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

/* Pool options record: nine pointer-sized slots, copied whole at pool creation. */
typedef struct memm_pool_options {
    memm_print_stats_fn  print_stats; /* extra report lines; adds to the running byte totals */
    memm_print_hook_fn   print;       /* object listings, when print2 is not set */
    memm_free_ex_fn      free_ex;     /* final release */
    memm_free2_ex_fn     free2_ex;    /* final release, takes precedence over free_ex; runs unlocked when entered via memm_free */
    memm_gc_fn           gc;          /* called when the pool runs low */
    void                *cookie;      /* opaque; passed to gc and print_stats */
    uintptr_t            reserve;     /* slots held back for _nogc allocations (value fits 32 bits) */
    memm_list_filter_fn  list_filter; /* object listings */
    memm_print2_fn       print2;      /* object listings, preferred over print */
} memm_pool_options;

/* Pool descriptor: one per pool, itself an object of pool 0. */
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

/* ================= Library, pools and lock =================
 *
 * memm_init(pool_count, dynstr_pool_count) starts the library once per
 * process; nothing is ever destroyed afterwards.
 *  - pool_count is the initial capacity of the descriptor table (pool 0
 *    included). Below 2 it is refused with MEMM_ERR_INVALID_ARG and the
 *    library stays not started; above 32767 (pool ids are 15 bits) it is
 *    lowered to 32767. When the first table cannot be obtained the result is
 *    MEMM_ERR_NO_MEMORY and the library also stays not started, so a later
 *    memm_init may try again.
 *  - When dynstr_pool_count is not 0 but the string family cannot be started
 *    (dynstr_init fails: its descriptor pool cannot be created, for instance
 *    storage above 2^31 - 1 bytes), the result is MEMM_ERR_NO_MEMORY and the
 *    start is undone: the library is left not started, exactly as before the
 *    call (dynstr_init's log lines remain), so a later memm_init may try
 *    again, with or without the string family.
 *  - The descriptor table never moves: address space for the largest
 *    possible table (32767 descriptors) is reserved once and each enlargement
 *    commits more of it. Pointers from memm_get_pool_nolock and
 *    memm_get_currentcount_ptr therefore stay valid for the life of the
 *    process. Enlarging restarts pool 0's allocation and release counters;
 *    its counts of descriptors in use, its reference figures (pool 0's
 *    ref_max is the peak over all pools) and its flags are kept.
 *  - The lock is recursive and ready from static initialisation, so a call
 *    made by mistake before memm_init meets a working lock (and fails
 *    cleanly). memm_unlock returns 0, or EPERM, changing nothing, when the
 *    calling thread does not hold the lock. A thread waiting for the lock
 *    sleeps and is woken when the lock is freed; the lock is not fair (a
 *    running thread may take it first).
 *  - fork: the child holds the lock exactly when the forking thread held it
 *    (with the same depth; it unlocks as often as the parent would). A child
 *    may use the library only if no other thread of the parent held the
 *    lock at the moment of the fork (for instance: the parent forks while
 *    holding the lock itself, or has no other thread that uses the
 *    library); otherwise the lock stays taken for good in the child, which
 *    must not call the library and should only exec or _exit.
 *
 * Pool creation refuses a null name, count <= 0, objsize <= 0, a duplicate
 * non-empty root name, and storage (count x slot size) above 2^31 - 1 bytes,
 * each with the "[MEMM] Failed to allocate ..." log line and MEMM_INVALID_POOL.
 *
 * Slots are (objsize + 19) & ~3 bytes, so objects may be only 4-byte aligned
 * when the rounded size is not a multiple of 8: the library reads and writes
 * header words and free-list links with memcpy, and callers storing pointers
 * in such objects should do the same. A free slot keeps its free-list link in
 * the first pointer-sized word of its object area; objects of 1 to 4 bytes,
 * too small for a pointer, keep it in the header's allocfrom word instead.
 *
 * A pool's gc hook is asked at most 64 times for one allocation (attempts 0
 * to 63); after that the allocation fails as if the hook had given up.
 */
/* Environment variables, read once by memm_init:
 *  - MEMM_LOG=stderr: every diagnostic line, which always goes to syslog at
 *    LOG_DEBUG, is also written to standard error, followed by a newline.
 *    (A diagnostic logged before memm_init looks at the variable itself.)
 *  - MEMM_REPORT_DIR=<folder>: every dump and list file is written into that
 *    folder, under its usual file name, instead of /var or /root. Unset or
 *    empty: the usual folders. A path longer than PATH_MAX is logged
 *    ("Could not open ... file") and the report is not written. */
MEMM_API uint32_t memm_init(uint32_t pool_count, uint32_t dynstr_pool_count);   /* result code; MEMM_ERR_ALREADY_INITIALIZED on a 2nd call; dynstr_pool_count 0 = no string family; no lock (creates it) */
MEMM_API uint32_t memm_initpool(const char *name, int32_t count, int32_t objsize,
                                const memm_pool_options *options);              /* pool id or MEMM_INVALID_POOL; options may be null */
MEMM_API uint32_t memm_initpool2(const char *name, int32_t count, int32_t objsize,
                                 memm_print_hook_fn print, memm_free_ex_fn free_ex);   /* pool id or MEMM_INVALID_POOL */
MEMM_API uint32_t memm_initpool3(const char *name, int32_t count, int32_t objsize,
                                 memm_print_hook_fn print, memm_free2_ex_fn free2_ex); /* pool id or MEMM_INVALID_POOL */
MEMM_API void     memm_lock(const char *reason);   /* nothing; reason kept by pointer */
MEMM_API int      memm_unlock(void);               /* the mutex-unlock result: 0, or EPERM when not the holder */

/* ================= Allocation, release, references ================= */
/* memm_free and memm_free_nolock keep a constant-time release: they read the
 * header (the 16 bytes in front of obj) before checking that it lies in a
 * pool, so a pointer that is not a pool object must still have 16 readable
 * bytes in front of it. Such a pointer is logged and ignored (result 0). To
 * test an arbitrary pointer, use memm_isvalidobj first. */
MEMM_API void    *memm_calloc(uint32_t poolid);              /* zero-filled object or null */
MEMM_API void    *memm_calloc_nolock(uint32_t poolid);       /* zero-filled object or null */
MEMM_API void    *memm_calloc_nolock_nogc(uint32_t poolid);  /* zero-filled object or null; never collects, never extends, may use the reserve */
MEMM_API uint32_t memm_free(void *obj);                      /* result code (0 for null; MEMM_ERR_HOOK_FAILED); matches memm_release_fn */
MEMM_API uint32_t memm_free_nolock(void *obj);               /* result code (0 for null; MEMM_ERR_HOOK_FAILED) */
/* memm_refalloc(_nolock) and memm_get_refcount count an object invalid when
 * its header's pool id names no pool (a released slot, for instance); they do
 * not check that the header lies in that pool, so they are no test of an
 * arbitrary pointer either. */
MEMM_API void    *memm_refalloc(void *obj);                  /* obj with one more holder, or null */
MEMM_API void    *memm_refalloc_nolock(void *obj);           /* obj with one more holder, or null */
MEMM_API uint32_t memm_get_refcount(void *obj);              /* number of holders; 0 for null or invalid */
MEMM_API void     memm_disallow_expansion(uint32_t poolid);  /* nothing; root pools only */
MEMM_API void     memm_depletion_no_reboot(uint32_t poolid); /* nothing; root pools only */

/* ================= Validation, identity, lookup ================= */
/* memm_isvalidobj, memm_isvalidobj_nolock, memm_isvalidobj_ex,
 * memm_isvalidobjfrompool and memm_instanceof_with_mem_range_check are safe
 * for any pointer, also one into memory that is not readable. The first two
 * find the pool whose storage holds the header (a search of the pools'
 * storage ranges, O(log pools)) and read the header only then. The other
 * functions taking an object read its header without such a check.
 * memm_instanceof and memm_instanceof_no_ori compare the id they find with
 * poolid as it is: a null object, and for memm_instanceof an object whose
 * header names no pool (a released slot), has the id 0xFFFFFFFF, and
 * memm_instanceof_no_ori takes a released slot's id as 0x7FFF (state & 0x7FFF
 * of the free marker). Those ids therefore answer 1 for such objects. */
MEMM_API int      memm_isvalidobj(void *obj);                                  /* 1 if the header check passes, else 0 */
MEMM_API int      memm_isvalidobj_nolock(void *obj);                           /* 1 if the header check passes, else 0 */
MEMM_API int      memm_isvalidobjfrompool(uint32_t poolid, void *obj);         /* 1 if obj is an exact slot of that pool, else 0 */
MEMM_API int      memm_isvalidobj_ex(void *obj);                               /* 1 if obj is an exact slot of any pool, else 0 */
MEMM_API int      memm_instanceof(void *obj, uint32_t poolid);                 /* 1 if obj's root pool is poolid, else 0 */
MEMM_API int      memm_instanceof_no_ori(void *obj, uint32_t poolid);          /* 1 if obj's own pool is poolid, else 0; no lock */
MEMM_API int      memm_instanceof_with_mem_range_check(void *obj, uint32_t poolid); /* 1 if obj lies in that pool's own storage and memm_instanceof holds, else 0 */
MEMM_API uint32_t memm_get_poolid(void *obj);                                  /* own pool id (state & 0x7FFF); MEMM_INVALID_POOL for null; no lock */
MEMM_API const char *memm_get_poolname2(uint32_t poolid);                      /* pool name, or MEMM_INVALID_POOLNAME */
MEMM_API const char *memm_get_poolname(void *obj);                             /* name of obj's own pool, or MEMM_INVALID_POOLNAME */
MEMM_API void    *memm_getpoolcookie(void *obj);                               /* cookie of obj's own pool, or null */
MEMM_API void    *memm_getpoolcookie_nolock(void *obj);                        /* cookie of obj's own pool, or null */
MEMM_API void    *memm_getpoolcookie_bypoolid(uint32_t poolid);                /* pool's cookie, or null */
MEMM_API void    *memm_getpoolcookie_bypoolid_nolock(uint32_t poolid);         /* pool's cookie, or null */
MEMM_API uint32_t memm_get_number_of_pools(void);                              /* pools created so far (pool 0 and extensions included); 0 before memm_init; no lock */
MEMM_API uint32_t *memm_get_currentcount_ptr(uint32_t poolid, uint32_t *base_count,
                                             uint32_t *reserve_flag);           /* address of the pool's cur_count, or null */
MEMM_API memm_pooldesc *memm_get_pool_nolock(uint32_t poolid);                 /* the pool's descriptor, or null */
MEMM_API uint32_t memm_getindex(void *obj);                                    /* chain index; 0 for null or a header naming no pool */
MEMM_API void    *memm_getobject_byindex(uint32_t poolid, int32_t index);      /* in-use object at that chain index, or null */
MEMM_API void    *memm_search(uint32_t poolid, void *ctx, memm_match_fn match); /* first matching in-use object of the chain walk, or null */
MEMM_API void    *memm_getfirst(uint32_t poolid);                              /* first in-use object of the walk, or null */
MEMM_API void    *memm_getnext(void *obj);                                     /* next in-use object of the walk, or null */
MEMM_API uint32_t memm_enum_objects(uint32_t poolid, memm_enum_fn cb, void *ctx);        /* number of in-use objects visited */
MEMM_API uint32_t memm_enum_objects_nolock(uint32_t poolid, memm_enum_fn cb, void *ctx); /* number of in-use objects visited */

/* ================= Statistics reports ================= */
/* Reports select pools by name prefix: null or "" selects every pool, otherwise
 * the first strlen(prefix) characters of the name must match. They run the pool
 * integrity check first and report a fault, then go on. Percentages are
 * max * 100 / avail in 32-bit signed arithmetic, 0 for an empty pool.
 * memm_get_stats also rejects an id below the capacity that names no pool (a
 * free descriptor slot). A null print function prints nothing. */
MEMM_API uint32_t memm_get_stats(uint32_t poolid, uint32_t *count_cur, uint32_t *count_max,
                                 uint32_t *count_avail);                        /* MEMM_OK or MEMM_ERR_INVALID_ARG */
MEMM_API uint32_t memm_get_overall_stats(const char *prefix, uint32_t *count_cur, uint32_t *count_max,
                                         uint32_t *count_avail, uint32_t *bytes_cur); /* always MEMM_OK; outputs may be null */
MEMM_API void     memm_print_stats(const char *prefix);                         /* nothing; usage table to stdout */
MEMM_API void     memm_print_stats2(const char *prefix, memm_print_fn print);   /* nothing; usage table through print (nothing if null) */
MEMM_API int      memm_print_timestats(const char *prefix);                     /* the mutex-unlock result; report to stdout */

/* ================= Object listings and tagging ================= */
/* Object lines end in "\n"; listings add "\r\n" around them. A listing with
 * limit L shows at most the last L + 1 objects in use of each pool (the limit
 * counts objects before the tag and filter tests); a limit above 2^31 - 1
 * counts as no limit. A null print function lists
 * nothing. Pool 0's print hook writes the pool names to stdout, also when the
 * listing goes to a file.
 * Report files (dumps and lists) are appended to, never truncated. Their names
 * are built in a 64-byte buffer, which the reasons in use always fit; a name
 * that would not fit is refused with the "Could not open" log line, like a
 * file that cannot be opened, and never cut. */
MEMM_API int      memm_printobject2(void *obj, int details, memm_print_fn print); /* the mutex-unlock result */
MEMM_API int      memm_printobject(void *obj, int details);                       /* the mutex-unlock result; prints to stdout */
MEMM_API void     memm_print_objects4(const char *prefix, uint32_t options, memm_print_fn print,
                                      uint32_t limit);                            /* nothing; options MEMM_LIST_OPT_*, limit 0 = none */
MEMM_API void     memm_print_objects3(const char *prefix, uint32_t options, memm_print_fn print); /* nothing; limit 0 */
MEMM_API void     memm_print_objects2(const char *prefix, uint32_t options);      /* nothing; stdout, limit 0 */
MEMM_API void     memm_print_objects(const char *prefix);                         /* nothing; options 0, stdout, limit 0 */
MEMM_API int      memm_tag_objects(const char *prefix, int tag);                  /* the mutex-unlock result; tag != 0 sets, 0 clears */
MEMM_API void     memm_handle_tag_objects(const char *prefix, int tag, uint32_t number,
                                          const char *reason);                    /* nothing; dump file only for MEMM_REASON_TAGGING */
MEMM_API void     memm_handle_list_objects(const char *prefix, int only_tagged, int hide_deleted,
                                           const char *reason);                   /* nothing; list file only for "profiling"/"pool_depleted" */

#ifdef __cplusplus
}
#endif

#endif /* MEMM_H */
