/* Dynamic strings: small pool records whose texts are packed into a few
 * large string buffers per string pool, compacted in turn by a collector.
 *
 * Records are pool objects: release with memm_free. A record (dynstr) is
 * an object of its string pool's record pool (the string pool's id is that
 * pool's id), allocated by the constructors below with the caller as its
 * one holder. memm_refalloc or dynstr_refalloc adds a holder; memm_free (or
 * memm_free_nolock) drops one, and the last one deletes the text:
 *  - memm_free returns MEMM_OK. The record may stay behind as a deleted
 *    placeholder for its text's bytes until the collector or a neighbour's
 *    release reclaims it; it is no string any more (dynstr_isdynstring
 *    answers 0, dynstr_getstring gives DYNSTR_TEXT_DELETED, the writers
 *    refuse it) and must not be used.
 *  - Releasing it again while it is a placeholder: MEMM_ERR_HOOK_FAILED,
 *    logged "[DYNSTR] loc_dynstr_free_ex: dynstr is already freed" and
 *    "[MEMM] memm_free: free_ex failed for: %p (poolid = %d) called from
 *    %p\r\n"; once its slot is free, memm_free's double-release lines.
 * A list node holding a record holds one of its holders (strlist.h).
 * dynstr_strdup gives a heap copy, released with free(). String pools are
 * never destroyed; their names are kept by pointer, as memm_initpool keeps
 * them, and must stay valid for the life of the process.
 *
 * Storage model. A string pool owns 1 to 4 buffers; one is current. New text
 * is only ever appended at the current buffer's free position. A released
 * text stays in its buffer as a deleted placeholder (its record keeps the
 * slot) until it is merged with a deleted neighbour, cut off the buffer's
 * end, or squeezed out by the collector, which compacts the buffer after the
 * current one and makes it current. A text pointer obtained from a record is
 * therefore valid only until the next write to, or collecting allocation in,
 * the same string pool: copy a text before any such call.
 * Record pools never grow, so records are 8-byte aligned (memm.h, Alignment)
 * and their fields may be read directly. No text is longer than
 * DYNSTR_LONG_SIZE_MAX - 1 characters: the writers cut longer ones.
 *
 * Lock: every function takes the library's lock for its whole run, except
 * the _nolock variants (the caller holds it), dynstr_strlen (no lock),
 * dynstr_getmaxsize (checks the record under the lock and reads its maximum
 * after), dynstr_pool_set_dellist_threshold (no lock) and dynstr_init (no
 * lock of its own); checks said to be made "without the lock" come before it.
 *
 * Log lines:
 *  - Bad arguments are not logged, except by dynstr_getmaxsize,
 *    dynstr_setmaxsize(_nolock) and dynstr_reset ("[DYNSTR]
 *    \"dynstr_getmaxsize() invalid param\"", with that function's name) and
 *    by the pool creators (quoted with them).
 *  - No buffer room for a text even after collection: "Out of string buffer
 *    memory for pool '%s' !!!!!!!!!!!!!!!!!!!!!!!!!!!!!!", and for the first 4
 *    such events of the process a listing of the pool to the
 *    "pool_depleted" list file (memm.h); the writer returns
 *    MEMM_ERR_NO_MEMORY with the record empty, a constructor null.
 *  - No record slot: the allocations that collect give null without a line;
 *    those that do not collect (constructors from a plain pointer or a
 *    format) make the record pool's depletion report (memm.h, Allocation).
 *  - Every other line beginning "[DYNSTR]" (such as "[DYNSTR] WARNING:
 *    ...") reports an inconsistency met in a pool's bookkeeping (a "fixed"
 *    one was repaired): a sign of memory corruption, not of a caller's
 *    mistake.
 * The string pools' lines in the usage table compute percentages with
 * 64-bit products, so they stay right after the lifetime counters pass
 * 2^32 / 100.
 */
#ifndef DYNSTR_H
#define DYNSTR_H

#include <stdarg.h>
#include "memm.h"

#ifdef __cplusplus
extern "C" {
#endif

struct llist_node; /* defined in llist.h; the joins only take a list pointer */

/* ---- Limits and fixed numbers ---- */
#define DYNSTR_MAXSIZE_LIMIT          2047u       /* largest maximum size (length + terminator) */
#define DYNSTR_SHORT_SIZE_MAX         0xFFFFu     /* larger sizes switch a record to the long form */
#define DYNSTR_LONG_SIZE_MAX          0x07FFFFFFu /* largest representable size */
#define DYNSTR_MAX_BUFFERS            4           /* string buffers per string pool */
#define DYNSTR_POOL_RESERVE           5           /* extra record slots (the record pool's reserve) */
#define DYNSTR_INITPOOL_SMALL_COUNT   10000u      /* dynstr_initpool: 2 buffers up to this count, else 4 */
#define DYNSTR_POOL_NAME              "dynstr_pool" /* pool of dynstr_pooldesc objects */

/* ---- dynstr.flags ---- */
#define DYNSTR_FLAG_LONG              0x20000000u /* bit 29: long form (size in bits 0-26, no maximum) */
#define DYNSTR_FLAG_DELETED           0x40000000u /* bit 30 */
#define DYNSTR_FLAG_LITERAL           0x80000000u /* bit 31: text not in a string buffer */
#define DYNSTR_MAXSIZE_SHIFT          16          /* short form: maximum size in bits 16-26 */
#define DYNSTR_BNR_SHIFT              27          /* buffer number in bits 27-28 */
#define DYNSTR_SIZE(flags)    (((flags) & DYNSTR_FLAG_LONG) ? ((flags) & DYNSTR_LONG_SIZE_MAX) : ((flags) & DYNSTR_SHORT_SIZE_MAX))
#define DYNSTR_MAXSIZE(flags) (((flags) & DYNSTR_FLAG_LONG) ? 0u : (((flags) >> DYNSTR_MAXSIZE_SHIFT) & 0x7FFu))
#define DYNSTR_BNR(flags)     (((flags) >> DYNSTR_BNR_SHIFT) & 0x3u)

/* ---- dynstr_pooldesc.state bits and collection reasons (gc_reason[][reason]) ---- */
#define DYNSTR_STATE_DYNMEM_PENDING   0x01u
#define DYNSTR_STATE_DEPLETED         0x02u
#define DYNSTR_GC_CTX_BALANCE         0
#define DYNSTR_GC_CTX_DEPLETED        1
#define DYNSTR_GC_BUFFER_FULL         2

/* ---- Placeholder texts of dynstr_getstring ---- */
#define DYNSTR_TEXT_NOT_MEMMSTR       "*NOT_MEMMSTR*"    /* null, bad pool id, or pool without cookie */
#define DYNSTR_TEXT_NOT_DYNSTR        "*NOT_DYNSTR*"     /* object of a pool that is not a string pool */
#define DYNSTR_TEXT_DELETED           "*DELETED_DYNSTR*" /* deleted record */

/* ---- Address record of dynstr_setipaddr_any / dynstr_getipaddr_any ---- */
#define DYNSTR_IPADDR_FAMILY_V4       1u
#define DYNSTR_IPADDR_FAMILY_V6       2u

/* The string record (an object of a string pool's record pool). */
typedef struct dynstr {
    char          *str;   /* text, zero-terminated; null for the empty string */
    uint32_t       flags; /* packed size / maximum size / buffer number / state bits (DYNSTR_*) */
    struct dynstr *prev;  /* previous record in its buffer's allocation list */
    struct dynstr *next;  /* next record in that list */
} dynstr;

/* Descriptor of a string pool: an object of "dynstr_pool" and the record pool's cookie.
 * Arrays of four are per string buffer; the first buffercount entries are used. */
typedef struct dynstr_pooldesc {
    const char *name;             /* caller's pool name, not copied */
    uint32_t    poolid;           /* record pool id (= the string pool's id) */
    int32_t     buffercount;      /* 1..4 */
    uint32_t    curbuffer;        /* buffer new text is appended to */
    int32_t     buffersize;       /* bytes per buffer */
    dynstr     *anchor;           /* one record, never released */
    uint32_t    capacity;         /* record slots (count + 5) */
    uint32_t   *countptr;         /* record pool's cur_count */
    uint32_t    delcount;         /* deleted records (record pool's base_count_ptr points here) */
    uint32_t    delbytes;
    uint32_t    usedbytes;
    uint32_t    peaklive;
    uint8_t     state;            /* DYNSTR_STATE_* */
    uint32_t    ctx_depleted;     /* record pool's reserve_flag_ptr points here */
    uint32_t    ctx_limit;        /* capacity / buffercount */
    char       *buf_base[4];
    dynstr     *buf_first[4];
    dynstr     *buf_last[4];
    dynstr     *buf_firstdel[4];
    uint32_t    buf_used[4];
    uint32_t    buf_count[4];
    uint32_t    mincalls;         /* starts at 0xFFFFFFFF */
    uint32_t    calls;
    uint32_t    calls_since_gc;
    uint32_t    del_total;
    uint32_t    delbytes_total;
    uint32_t    recup_ctx;
    uint32_t    recup_bytes;
    uint32_t    fill_sum;
    uint32_t    buf_peaklive[4];
    uint32_t    buf_delcount[4];
    uint32_t    buf_delbytes[4];
    uint32_t    gc_count;
    uint32_t    gc_reason[4][3];  /* [buffer current at the time][DYNSTR_GC_*] */
    uint32_t    gc_ctx;
    uint32_t    gc_bytes;
} dynstr_pooldesc;

/* Address record: family tag followed directly by the address bytes. */
typedef struct dynstr_ipaddr {
    uint32_t family;   /* DYNSTR_IPADDR_FAMILY_V4 or _V6 */
    uint8_t  addr[16]; /* IPv4: first 4 bytes (network order); IPv6: all 16 */
} dynstr_ipaddr;

/* ================= Family start, string pools, records ================= */
/* Creates the pool "dynstr_pool" for pool_count string pools; it never
 * grows, so at most pool_count string pools can ever exist. memm_init calls
 * it. MEMM_ERR_NO_MEMORY when the pool cannot be created, logged "dynstring
 * init failed" after memm_initpool's line. A second call fails that way (the
 * name is taken) and leaves no pool recognised as a string pool. */
MEMM_API uint32_t dynstr_init(uint32_t pool_count);                          /* MEMM_OK or MEMM_ERR_NO_MEMORY; memm_init calls it; no lock of its own */
/* Creates a string pool: a record pool of count + 5 slots (5 held in
 * reserve, expansion disallowed) and `buffers` string buffers of
 * total_bytes / buffers bytes each. The name is kept by pointer.
 * MEMM_INVALID_POOL, with nothing created, for:
 *  - buffers above 4: "dynstr_initpool(): poolcount exceeds maximum";
 *  - buffers below 1: "[DYNSTR] dynstr_initpool(): invalid buffer count %d";
 *  - count above 2^31 - 6: "[DYNSTR] dynstr_initpool(): invalid record
 *    count %u";
 *  - a buffer size below 1 byte or above DYNSTR_LONG_SIZE_MAX bytes:
 *    "[DYNSTR] dynstr_initpool(): invalid buffer size %d";
 *  (these four are checked without the lock)
 *  - no string pool descriptor left: once dynstr_init's pool_count is
 *    reached, "dynstr_pool" is depleted, with its report (memm.h,
 *    Allocation); without a string family, nothing is logged;
 *  - a record pool memm_initpool refuses (a taken name, for instance): its
 *    line, then "dynstring init failed".
 * Each buffer is allocated with a map behind it that the collector uses to
 * find records ahead of its walk: 4 bytes for every chunk of the buffer,
 * chunks being a power of two of at least 32 bytes chosen so that all maps
 * together hold no more entries than the pool has record slots (plus one
 * per buffer).
 * When a string buffer cannot be allocated after the record pool exists,
 * the result is MEMM_INVALID_POOL too, nothing logged and nothing left
 * dangling: the record pool, which cannot be removed, stays registered as
 * an inert plain pool without hooks or cookie, so its name remains taken
 * and no string operation accepts its id. */
MEMM_API uint32_t dynstr_initpool2(const char *name, uint32_t count, int32_t total_bytes,
                                   int32_t buffers);                         /* string pool id or MEMM_INVALID_POOL */
/* dynstr_initpool2 with 2 buffers up to 10000 records, else 4. */
MEMM_API uint32_t dynstr_initpool(const char *name, uint32_t count, int32_t total_bytes); /* string pool id or MEMM_INVALID_POOL */
/* Record allocation (collecting, so it may move texts of that pool). The
 * pool id is not checked to be a string pool. */
MEMM_API dynstr  *dynstr_calloc(uint32_t pool);                              /* new empty record or null */
MEMM_API dynstr  *dynstr_calloc_maxsize(uint32_t pool, uint32_t maxsize);    /* new empty record or null; maxsize > 2047 leaves none */
MEMM_API dynstr  *dynstr_calloc_maxsize_nolock(uint32_t pool, uint32_t maxsize); /* new empty record or null */
MEMM_API dynstr  *dynstr_calloc_maxlen(uint32_t pool, uint32_t maxlen);      /* new empty record (maxsize = maxlen + 1) or null */
/* As memm_refalloc, but null for a released record that is still a deleted
 * placeholder of its buffer (nothing logged, no holder added); other objects
 * are passed to memm_refalloc unchecked. Lock reason "dynstr_refalloc". */
MEMM_API dynstr  *dynstr_refalloc(dynstr *d);                                /* d with one more holder, or null */
MEMM_API int      dynstr_isdynstring(void *p);                               /* 1 if p is a live record of a string pool, else 0 */
MEMM_API uint32_t dynstr_strlen(dynstr *d);                                  /* text length; 0 for null or empty; no lock */
/* 0 for a d that is not a live record, logged "[DYNSTR]
 * \"dynstr_getmaxsize() invalid param\"". */
MEMM_API uint32_t dynstr_getmaxsize(dynstr *d);                              /* maximum size, 0 for none or invalid */
/* Sets the maximum size (0 = none), first cutting a longer text to
 * maxsize - 1 characters. Above 2047 the text is cut all the same, the
 * record is left without a maximum and the result is MEMM_ERR_INVALID_ARG.
 * When the cut fails (no record slot for the old text) the text and the old
 * maximum stay and the cut's result is returned, so a maximum never lies
 * below the text's size. A d that is not a live record: MEMM_ERR_INVALID_ARG,
 * logged "[DYNSTR] \"dynstr_setmaxsize() invalid param\"". */
MEMM_API uint32_t dynstr_setmaxsize(dynstr *d, uint32_t maxsize);            /* result code */
MEMM_API uint32_t dynstr_setmaxsize_nolock(dynstr *d, uint32_t maxsize);     /* result code */
/* Empties a live record and removes its maximum size. MEMM_ERR_INVALID_ARG
 * for anything else, logged "[DYNSTR] \"dynstr_reset() invalid param\"". */
MEMM_API uint32_t dynstr_reset(dynstr *d);                                   /* result code */
MEMM_API uint32_t dynstr_pool_set_dellist_threshold(uint32_t pool, uint32_t threshold); /* always MEMM_OK, no effect; no lock */

/* ================= Integrity check ================= */
/* Walks every buffer's allocation list of the string pool and prints each
 * inconsistency to standard output (verbose: every record as well). Never
 * repairs anything. A pool id that leads to no string pool counts as sound. */
MEMM_API int      dynstr_integrity_check(uint32_t pool, uint32_t verbose);        /* 1 if consistent (or not a string pool), else 0 */
MEMM_API int      dynstr_integrity_check_nolock(uint32_t pool, uint32_t verbose); /* 1 if consistent (or not a string pool), else 0 */

/* ================= Constructors (new record or null) ================= */
/* Every constructor records its caller as the record's allocation site
 * (dynstr_fromlastsep excepted) and keeps nothing when it fails: no record,
 * no buffer room, or a bad argument all give null. Texts are cut at
 * DYNSTR_LONG_SIZE_MAX - 1 characters. Constructors from a plain pointer or
 * a format allocate without collection (they may use the pool's reserve);
 * those from a record or a literal allocate with collection. */

/* A copy of s. Null for a null s or a pool id that is not a string pool. */
MEMM_API dynstr  *dynstr_fromstring(uint32_t pool, const char *s);                /* new record or null */
MEMM_API dynstr  *dynstr_fromstring_nolock(uint32_t pool, const char *s);         /* new record or null */
/* A copy of length characters of s from offset (length < 0: to the end).
 * Offsets outside 0..strlen(s) are clamped to it, lengths to the rest. */
MEMM_API dynstr  *dynstr_fromsubstring(uint32_t pool, const char *s, int32_t offset, int32_t length); /* new record or null; length < 0 = to the end */
/* A copy of src's text in src's own pool. Null when src is not a live
 * record of a string pool (nothing is allocated then). */
MEMM_API dynstr  *dynstr_fromdynstr(dynstr *src);                                 /* new record in src's pool, or null */
MEMM_API dynstr  *dynstr_fromdynstr_nolock(dynstr *src);                          /* new record in src's pool, or null */
/* A piece of src's text in src's own pool: a negative offset counts as 0,
 * one beyond the text as its end; length < 0 or too long: to the end. */
MEMM_API dynstr  *dynstr_fromsubdynstr(dynstr *src, int32_t offset, int32_t length);        /* new record in src's pool, or null */
MEMM_API dynstr  *dynstr_fromsubdynstr_nolock(dynstr *src, int32_t offset, int32_t length); /* new record in src's pool, or null */
/* A record that refers to literal itself, which must outlive the record
 * and never change. It takes no buffer space. Never pass a text from
 * dynstr_getstring: buffered texts move and die; copy them instead. */
MEMM_API dynstr  *dynstr_fromliteral(uint32_t pool, const char *literal);         /* new record referring to literal (not copied), or null */
MEMM_API dynstr  *dynstr_fromliteral_nolock(uint32_t pool, const char *literal);  /* new record referring to literal (not copied), or null */
/* The text behind the last sep of a live, non-empty src, in src's pool
 * (empty when sep ends the text). Null for a zero sep or no sep in the text.
 * The record's allocation site is inside the library, not the caller. */
MEMM_API dynstr  *dynstr_fromlastsep(dynstr *src, char sep);                      /* new record with the text after the last sep, or null */
/* The formatted text. Null, with nothing allocated, for a null fmt. */
MEMM_API dynstr  *dynstr_fromprintf(uint32_t pool, const char *fmt, ...);         /* new record or null */
MEMM_API dynstr  *dynstr_fromvprintf(uint32_t pool, const char *fmt, va_list ap); /* new record or null */

/* ================= Assignments and appends (result code) ================= */
/* Every writer cuts its text at the record's maximum size - 1 characters
 * (a maximum never causes a failure) and keeps the maximum; without a
 * maximum it cuts at DYNSTR_LONG_SIZE_MAX - 1. On failure the record is left
 * holding the empty string, except where said otherwise; its old text is
 * gone. MEMM_ERR_NO_MEMORY: no record was left to hold the old text while
 * writing (the record is unchanged then), no staging memory, or no buffer
 * room after collection ("Out of string buffer memory ..." above).
 * MEMM_ERR_INVALID_ARG, with the record unchanged, for a released record
 * that is still a deleted placeholder: writing into it would revive dead
 * space. A source may point into the record's own text (for instance an
 * argument from dynstr_getstring of the same record). While a writer works,
 * the record's old text is held by a temporary record that carries the
 * string's own allocation site, so a listing of the placeholder it leaves
 * names the code that made the text. The record keeps its holders and its
 * allocation site. */

/* Replaces the text by a copy of s. MEMM_ERR_INVALID_ARG for a null s or a
 * record outside a string pool. */
MEMM_API uint32_t dynstr_setstring(dynstr *d, const char *s);                     /* result code */
MEMM_API uint32_t dynstr_setstring_nolock(dynstr *d, const char *s);              /* result code */
/* Replaces the text by a copy of src's text; src may be d itself (the text
 * stays, moved to a new place). MEMM_ERR_INVALID_ARG, with d unchanged, when
 * src is not a live record of a string pool (null, another pool's object, a
 * released record); MEMM_ERR_INVALID_ARG for a record d outside a string
 * pool. */
MEMM_API uint32_t dynstr_setdynstr(dynstr *d, dynstr *src);                       /* result code; src may be d */
MEMM_API uint32_t dynstr_setdynstr_nolock(dynstr *d, dynstr *src);                /* result code; src may be d */
/* Replaces the text by a piece of s (clamped as for dynstr_fromsubstring).
 * MEMM_ERR_INVALID_ARG when d is not a live record or s is null. */
MEMM_API uint32_t dynstr_setsubstring(dynstr *d, const char *s, int32_t offset, int32_t length);  /* result code */
/* Replaces the text by a piece of src's text (clamped as for
 * dynstr_fromsubdynstr); src may be d. MEMM_ERR_INVALID_ARG unless both are
 * live records. */
MEMM_API uint32_t dynstr_setsubdynstr(dynstr *d, dynstr *src, int32_t offset, int32_t length);    /* result code */
/* Makes d refer to literal (not copied; it must outlive its use and never
 * change, so not a text from dynstr_getstring); d's old buffered text
 * becomes deleted space. When d's maximum
 * size is not above strlen(literal), a copy cut to maximum size - 1 is
 * stored instead. MEMM_ERR_INVALID_ARG for a null argument or a d that is
 * not a live record; MEMM_ERR_NO_MEMORY with d unchanged when no record is
 * left to hold the old text. */
MEMM_API uint32_t dynstr_setliteral(dynstr *d, const char *literal);              /* result code */
/* Replaces the text by the formatted text. MEMM_ERR_INVALID_ARG for a null
 * d or fmt (checked without the lock) or a d that is not a live record.
 * Formatting (here, in dynstr_addsprintf and in dynstr_fromprintf):
 * output that is empty, or begins with a zero byte, gives the empty string;
 * output containing a zero byte ends there. When vsnprintf fails (a
 * negative result, such as an encoding error) nothing is allocated or
 * copied: the record is left empty and the result is MEMM_ERR_INVALID_ARG
 * (a constructor gives null). */
MEMM_API uint32_t dynstr_sprintf(dynstr *d, const char *fmt, ...);                /* result code */
/* Appends the formatted text. MEMM_ERR_INVALID_ARG, with d unchanged, when
 * d is not a live record or fmt is null. */
MEMM_API uint32_t dynstr_addsprintf(dynstr *d, const char *fmt, ...);             /* result code */
/* Appends at most n characters of s (a count beyond the string's end costs
 * nothing). The text grows in place when it is the last one written to the
 * current buffer and the room suffices; otherwise it moves to the free
 * position (its old place becomes deleted space) or, when the current buffer
 * lacks room, into a buffer that a collection frees. A record already at its
 * maximum size stays as it is, text position included. MEMM_ERR_INVALID_ARG
 * for a null d or a d that is not a live record; MEMM_OK without doing
 * anything for a null or empty s or n = 0 (checked without the lock). */
MEMM_API uint32_t dynstr_addstring_size(dynstr *d, const char *s, uint32_t n);    /* result code; appends at most n characters */
/* Appends all of s. MEMM_ERR_INVALID_ARG for a null s, otherwise as
 * dynstr_addstring_size. */
MEMM_API uint32_t dynstr_addstring(dynstr *d, const char *s);                     /* result code */
/* Appends src's text. MEMM_ERR_INVALID_ARG for a null argument, src == d
 * (both checked without the lock), or either not a live record; MEMM_OK
 * without doing anything for an empty src. */
MEMM_API uint32_t dynstr_adddynstr(dynstr *d, dynstr *src);                       /* result code; src == d is MEMM_ERR_INVALID_ARG */

/* ================= Reading ================= */
/* The text where it lies: valid until the next write to, or collecting
 * allocation in, the same string pool. */
MEMM_API const char *dynstr_getstring(dynstr *d);          /* text, "" or a DYNSTR_TEXT_* placeholder; never null */
MEMM_API const char *dynstr_getstring_nolock(dynstr *d);   /* text, "" or a DYNSTR_TEXT_* placeholder; never null */

/* ================= Typed conversions ================= */
/* Constructors: a new record of the string pool holding the value's text,
 * with the caller as its allocation site; null for a pool id that is not a
 * string pool or when the text cannot be stored (nothing is kept then).
 * The long forms print all 64 bits. An IPv4 address value holds the four
 * bytes as inet_pton stores them: the first octet in the lowest-addressed
 * byte (bits 0-7 on a little-endian machine). */
MEMM_API dynstr  *dynstr_fromulong(uint32_t pool, unsigned long v);     /* new record ("%lu") or null */
MEMM_API dynstr  *dynstr_fromuint32(uint32_t pool, uint32_t v);         /* new record ("%u") or null */
MEMM_API dynstr  *dynstr_fromlong(uint32_t pool, long v);               /* new record ("%ld") or null */
MEMM_API dynstr  *dynstr_fromint32(uint32_t pool, int32_t v);           /* new record ("%i") or null */
MEMM_API dynstr  *dynstr_fromipv4addr(uint32_t pool, uint32_t addr);    /* new record "a.b.c.d" or null; addr in network byte order */
MEMM_API dynstr  *dynstr_fromipaddr(uint32_t pool, uint32_t addr);      /* same as dynstr_fromipv4addr */
/* Two lowercase digits per byte, high nibble first; a null data or a count
 * of 0 gives the empty string. At most (DYNSTR_LONG_SIZE_MAX - 1) / 2 bytes
 * are written, whole bytes only. Allocates with collection. */
MEMM_API dynstr  *dynstr_hexstringfromdata(uint32_t pool, const uint8_t *data, uint32_t count); /* new record of lowercase hex, or null */

/* Setters: replace the text by the value's text, as dynstr_sprintf does
 * (cut at the maximum size, the empty string left on failure).
 * MEMM_ERR_INVALID_ARG for a null d or a d that is not a live record. */
MEMM_API uint32_t dynstr_setulong(dynstr *d, unsigned long v);          /* result code */
MEMM_API uint32_t dynstr_setuint32(dynstr *d, uint32_t v);              /* result code */
MEMM_API uint32_t dynstr_setlong(dynstr *d, long v);                    /* result code */
MEMM_API uint32_t dynstr_setint32(dynstr *d, int32_t v);                /* result code */
MEMM_API uint32_t dynstr_setipv4addr(dynstr *d, uint32_t addr);         /* result code */
MEMM_API uint32_t dynstr_setipaddr(dynstr *d, uint32_t addr);           /* result code; same as dynstr_setipv4addr */
/* The text inet_ntop makes; MEMM_ERR_INVALID_ARG for a null addr16 too. */
MEMM_API uint32_t dynstr_setipv6addr(dynstr *d, const uint8_t *addr16); /* result code; addr16: 16 bytes, network order */
/* As dynstr_setipv4addr (first 4 address bytes) or dynstr_setipv6addr by
 * the family; MEMM_ERR_INVALID_ARG for a null addr or another family. */
MEMM_API uint32_t dynstr_setipaddr_any(dynstr *d, const dynstr_ipaddr *addr); /* result code */
/* d refers to the library's constant "1" (any v but 0) or "0", as
 * dynstr_setliteral does; a maximum size of 1 leaves the empty string. */
MEMM_API uint32_t dynstr_setbool(dynstr *d, int v);                     /* result code; text "1" or "0" */
/* Two lowercase digits per byte; a maximum size keeps whole bytes only
 * (maxsize 4 keeps one byte), and at most (DYNSTR_LONG_SIZE_MAX - 1) / 2
 * bytes are written. A null data or a count of 0 leaves the empty string.
 * MEMM_ERR_INVALID_ARG when d is not a live record. */
MEMM_API uint32_t dynstr_sethexstring(dynstr *d, const uint8_t *data, uint32_t count); /* result code */

/* Getters: MEMM_ERR_INVALID_ARG for a null argument, an empty record
 * (except dynstr_getbool and dynstr_gethexstring), a d that is not a live
 * record, or a text that does not parse; the result is written only on
 * success unless said otherwise.
 * Numbers: sscanf "%u" or "%i" (octal 0..., hex 0x...) must read one number
 * with nothing but blanks around it. A number followed by a word is refused
 * but still stored in *out. "%u" takes a minus sign and wraps; the long
 * getters are the 32-bit ones under a second name. */
MEMM_API uint32_t dynstr_getuint32(dynstr *d, uint32_t *out);           /* result code */
MEMM_API uint32_t dynstr_getulong(dynstr *d, uint32_t *out);            /* result code; 32-bit, same as dynstr_getuint32 */
MEMM_API uint32_t dynstr_getint32(dynstr *d, int32_t *out);             /* result code */
MEMM_API uint32_t dynstr_getlong(dynstr *d, int32_t *out);              /* result code; 32-bit, same as dynstr_getint32 */
/* 0 for an empty record or a text that is empty or begins with '0' or 'f';
 * 1 for any other text ("FALSE" and "no" included). */
MEMM_API uint32_t dynstr_getbool(dynstr *d, int *out);                  /* result code; *out 0 or 1 */
/* inet_pton's rules; a literal empty text is the address 0 (0.0.0.0, ::). */
MEMM_API uint32_t dynstr_getipv4addr(dynstr *d, uint32_t *out);         /* result code */
MEMM_API uint32_t dynstr_getipaddr(dynstr *d, uint32_t *out);           /* result code; same as dynstr_getipv4addr */
MEMM_API uint32_t dynstr_getipv6addr(dynstr *d, uint8_t *out16);        /* result code; out16: 16 bytes */
/* IPv4 first (family 1, first 4 address bytes), then IPv6 (family 2); on
 * failure the family is left as it was. */
MEMM_API uint32_t dynstr_getipaddr_any(dynstr *d, dynstr_ipaddr *out);  /* result code */
/* 12 hex digits, or 17 characters: 6 digit pairs with any one character
 * between each two (separators need not be alike). */
MEMM_API uint32_t dynstr_getmacaddr(dynstr *d, uint8_t *out6);          /* result code; out6: 6 bytes */
/* (length + 1) / 2 bytes, an odd last digit as a high nibble; the rest of
 * out is zeroed. MEMM_ERR_BUFFER_TOO_SMALL (also for a negative outsize)
 * leaves out untouched. Digits are
 * not validated: other characters give bytes by fixed formulas. An empty
 * record gives 0 bytes. */
MEMM_API uint32_t dynstr_gethexstring(dynstr *d, uint8_t *out, int32_t outsize); /* result code; MEMM_ERR_BUFFER_TOO_SMALL */

/* ================= Comparison and copying ================= */
/* Texts are read as dynstr_getstring gives them: a bad record takes part
 * with its placeholder text, an empty one as "". None of these fails on a
 * bad record. Comparisons give the C library function's result. */
MEMM_API int      dynstr_strcmp(dynstr *a, dynstr *b);                    /* strcmp result */
MEMM_API int      dynstr_strcmp2(dynstr *a, const char *b);               /* strcmp result; null b compares as "" */
MEMM_API int      dynstr_strcmpi(dynstr *a, dynstr *b);                   /* strcasecmp result */
MEMM_API int      dynstr_strcmpi2(dynstr *a, const char *b);              /* strcasecmp result; null b compares as "" */
MEMM_API int      dynstr_strncmp(dynstr *a, dynstr *b, uint32_t n);       /* strncmp result */
MEMM_API int      dynstr_strncmp2(dynstr *a, const char *b, uint32_t n);  /* strncmp result; null b compares as "" */
/* Copies at most n - 1 characters into dst, zero-fills the rest of its n
 * bytes. n = 0 or a null dst: nothing written. */
MEMM_API char    *dynstr_strncpy(char *dst, dynstr *d, uint32_t n);       /* dst (always terminated, at most n - 1 characters) */
/* A copy on the heap, not a pool object. */
MEMM_API char    *dynstr_strdup(dynstr *d);                               /* heap copy (release with free) or null */
/* Replaces every `from` by `to` in place and stores the number replaced in
 * *count (0 first, whatever happens next). A literal text is first copied
 * into a buffer, so the caller's constant never changes; a failed copy
 * gives its result code (MEMM_ERR_NO_MEMORY). MEMM_ERR_INVALID_ARG for a
 * zero from or to (count untouched) or a d that is not a live record. */
MEMM_API uint32_t dynstr_replace_char(dynstr *d, char from, char to, uint32_t *count); /* result code; count may be null */

/* ================= Joining string lists ================= */
/* A new record of string pool `pool` holding the texts of a string list (a
 * list whose linked objects are records, see strlist.h) in list order, with
 * sep between each two items. sep must not be null; it may be empty or
 * longer than one character.
 *  - Every node of the list must hold a live record, also nodes outside the
 *    range and a node with a null linked_obj (which ends the list's length);
 *    otherwise the join fails.
 *  - An empty list, an empty range and a single empty item give the empty
 *    string; the items "" and "" joined with "," give ",".
 *  - The join is written straight into the pool's current buffer; only when
 *    it does not fit there is its exact size counted and the text written
 *    again into a block of that size. The items are never copied elsewhere.
 * Null when pool is not a string pool, the join fails (a node without a
 * live record, a total of 2147483647 bytes or more, no memory) or no record
 * is left, and for a null sep. A join longer than DYNSTR_LONG_SIZE_MAX - 1
 * characters keeps the whole items that fit. The record keeps the
 * allocation site stored by its allocation (inside this library), not the
 * caller's. */
MEMM_API dynstr  *dynstr_fromstrlist(uint32_t pool, struct llist_node *list, const char *sep);   /* new record or null */
/* As dynstr_fromstrlist with the items at positions first .. end - 1 only
 * (positions counted from 0; no negative positions from the end). */
MEMM_API dynstr  *dynstr_frompartialstrlist(uint32_t pool, struct llist_node *list, const char *sep,
                                            int32_t first, int32_t end);                          /* new record (items first..end-1) or null */
/* As dynstr_fromstrlist, escaping when sep has at most one character and
 * esc is not 0: every character of an item equal to sep's character or to
 * esc is preceded by esc, so that strlist_fromstring_escaped gives the items
 * back ("a,b" and "c^d" with ',' and '^' give "a^,b,c^^d"). With an empty
 * sep only esc characters are doubled; a longer sep escapes nothing. */
MEMM_API dynstr  *dynstr_fromstrlist_escaped(uint32_t pool, struct llist_node *list, const char *sep,
                                             unsigned char esc);                                  /* new record or null; esc 0 = no escaping */

#ifdef __cplusplus
}
#endif

#endif /* DYNSTR_H */
