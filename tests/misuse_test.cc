// Misuse: null, foreign, released and wrong-kind pointers and bad pool ids
// give each public function its documented result instead of a crash, change
// nothing and leave every pool sound.
#include <gtest/gtest.h>

#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>

#include "strlist.h"
#include "syslog_capture.h"

namespace {

using memm_test::log_count_prefix;

// The bad inputs. A row names those it is run with; each run passes one of
// them as `Bad` (a pointer, or a pool id) and is checked on its own.
enum : uint32_t {
    kNull = 1u << 0,       // null pointer
    kForeign = 1u << 1,    // no pool object, 16 readable (zero) bytes in front
    kUnreadable = 1u << 2, // no pool object, its 16 bytes in front unreadable
    kFreed = 1u << 3,      // slot given back to its pool
    kDeleted = 1u << 4,    // released string record, still a placeholder in its buffer
    kPlainObj = 1u << 5,   // live object of a plain pool, given as a record
    kNoPool = 1u << 6,     // MEMM_INVALID_POOL
    kBeyond = 1u << 7,     // beyond the descriptor table
    kUnused = 1u << 8,     // inside the table, naming no pool
    kZero = 1u << 9,       // the descriptor pool where a user pool is expected
    kPlainPool = 1u << 10, // plain pool given as string or node pool
    kStrPool = 1u << 11,   // string pool given as node pool
    kNodePool = 1u << 12,  // node pool given as string pool
    kKinds = 13,
    kNotObj = kNull | kForeign | kFreed,
    kAnyPtr = kNotObj | kUnreadable,
    kNotRec = kNotObj | kDeleted | kPlainObj,
    kBadNode = kForeign | kFreed, // a first node that fails the header check
    kNoSuchPool = kNoPool | kBeyond | kUnused,
    kNotStrPool = kNoSuchPool | kZero | kPlainPool | kNodePool,
    kNotNodePool = kNoSuchPool | kZero | kPlainPool | kStrPool,
};
const char *const kKindNames[kKinds] = {"null",       "foreign",   "unreadable", "released", "deleted record",
                                        "plain obj",  "no pool",   "beyond",     "unused id", "pool 0",
                                        "plain pool", "string pool", "node pool"};

struct Bad {
    void *p;
    uint32_t id;
    dynstr *d() const { return static_cast<dynstr *>(p); }
    llist_node *n() const { return static_cast<llist_node *>(p); }
};

// A result code, a flag, or a pointer as a number.
struct Value {
    uintptr_t v;
    Value(uintptr_t n) : v(n) {}
    Value(const volatile void *p) : v(reinterpret_cast<uintptr_t>(p)) {}
};

struct Row {
    const char *what;
    uint32_t kinds; // 0: run once as written
    std::function<Value(Bad)> call;
    uintptr_t expected;
    const char *log = nullptr; // null: not checked; "": nothing logged; else every line begins so
};

constexpr uintptr_t kInvalidArg = MEMM_ERR_INVALID_ARG, kNoMemory = MEMM_ERR_NO_MEMORY;

// What no misuse may change: the counts and references of every pool.
std::vector<uint32_t> pool_figures() {
    std::vector<uint32_t> figures;
    for (uint32_t id = 0; id < memm_get_number_of_pools(); id++)
        if (const memm_pooldesc *p = memm_get_pool_nolock(id))
            figures.insert(figures.end(), {p->cur_count, uint32_t(p->ref_cur)});
    return figures;
}

// Both integrity checks pass: the pool check and every string pool's (run by
// the overall statistics, which log what they find).
::testing::AssertionResult pools_sound(uint32_t string_pool) {
    memm_test::clear_logs();
    memm_get_overall_stats(nullptr, nullptr, nullptr, nullptr, nullptr);
    if (log_count_prefix("[MEMM] integrity check failed") || log_count_prefix("[MEMM] dynstr integrity check failed"))
        return ::testing::AssertionFailure() << memm_test::log_texts().front();
    if (dynstr_integrity_check(string_pool, 0) != 1)
        return ::testing::AssertionFailure() << "string pool check failed";
    return ::testing::AssertionSuccess();
}

dynstr *fromvprintf(uint32_t pool, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    dynstr *d = dynstr_fromvprintf(pool, fmt, ap);
    va_end(ap);
    return d;
}

// A _nolock call under the lock its caller must hold.
template <class F> uintptr_t locked(F f) {
    memm_lock("misuse");
    const uintptr_t r = uintptr_t(f());
    memm_unlock();
    return r;
}

uintptr_t same(const char *a, const char *b) { return a && b && strcmp(a, b) == 0; }
uintptr_t dup_is(char *copy, const char *text) { // releases the heap copy
    const uintptr_t r = same(copy, text);
    free(copy);
    return r;
}

int quiet(const char *, ...) { return 0; }
int every(void *, void *) { return 1; }
int32_t by_address(void *a, void *b) { return a < b ? -1 : a > b; }
int32_t by_address_ex(void *, void *a, void *b) { return by_address(a, b); }

// A readable pointer whose 16 bytes in front lie in a page that cannot be read.
void *behind_unreadable_page() {
    const size_t page = size_t(sysconf(_SC_PAGESIZE));
    void *map = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED || mprotect(map, page, PROT_NONE) != 0)
        return nullptr;
    return static_cast<uint8_t *>(map) + page; // kept mapped for the process
}

alignas(16) uint8_t foreign_area[64]; // a "header" of zeros, and room behind
int plain_cookie;

} // namespace

TEST(Misuse, BadInputsGiveTheirResultAndChangeNothing) {
    ASSERT_EQ(memm_init(8, 2), MEMM_OK);
    memm_pool_options with_cookie = {};
    with_cookie.cookie = &plain_cookie; // a pool with a cookie that is no string pool
    const uint32_t plain = memm_initpool("plain", 4, 4, &with_cookie);
    const uint32_t strings = dynstr_initpool2("strings", 16, 1024, 2);
    const uint32_t nodes = llist_initpool("nodes", 8, sizeof(llist_node), nullptr);
    ASSERT_NE(plain, MEMM_INVALID_POOL);
    ASSERT_NE(strings, MEMM_INVALID_POOL);
    ASSERT_NE(nodes, MEMM_INVALID_POOL);
    const uint32_t unused = memm_get_number_of_pools();
    ASSERT_TRUE(unused < memm_get_pool_nolock(0)->alloc_count && !memm_get_pool_nolock(unused));

    void *obj = memm_calloc(plain);
    void *freed = memm_calloc(plain);
    ASSERT_EQ(memm_free(freed), MEMM_OK);
    void *unreadable = behind_unreadable_page();
    ASSERT_NE(unreadable, nullptr);
    dynstr *rec = dynstr_fromstring(strings, "kept");
    dynstr *deleted = dynstr_fromstring(strings, "released");
    ASSERT_NE(dynstr_fromstring(strings, "behind"), nullptr); // keeps the released text in its buffer
    memm_free(deleted);
    ASSERT_TRUE(deleted->flags & DYNSTR_FLAG_DELETED); // a placeholder, its slot still in use
    // Records whose texts parse, so a getter's null output is what it refuses.
    dynstr *num = dynstr_fromstring(strings, "12"), *v4 = dynstr_fromstring(strings, "10.0.0.1");
    dynstr *v6 = dynstr_fromstring(strings, "::1"), *mac = dynstr_fromstring(strings, "00:11:22:33:44:55");
    ASSERT_TRUE(num && v4 && v6 && mac);
    llist_node *list = nullptr, *spare = nullptr, *slist = nullptr; // plain objects, and a string list
    ASSERT_EQ(llist_addref(&list, obj, nodes), MEMM_OK);
    ASSERT_EQ(llist_addref(&spare, obj, nodes), MEMM_OK);
    ASSERT_EQ(strlist_addref(&slist, rec, nodes), MEMM_OK);
    llist_node *const first = list, *const spare_first = spare, *const sfirst = slist;

    const Bad bad[kKinds] = {{nullptr, 0},       {foreign_area + 16, 0}, {unreadable, 0}, {freed, 0},
                             {deleted, 0},       {obj, 0},               {nullptr, MEMM_INVALID_POOL},
                             {nullptr, 0x7FFF},  {nullptr, unused},      {nullptr, 0},
                             {nullptr, plain},   {nullptr, strings},     {nullptr, nodes}};
    const uint8_t bytes[16] = {1};
    const dynstr_ipaddr no_family = {7, {1}};
    uint32_t u = 0, i = 0;
    int32_t s = 0;
    int flag = 0;
    uint8_t out[16] = {};
    dynstr_ipaddr ip = {};
    void *last = nullptr;
    dynstr *dlast = nullptr;
    const char *const arr[] = {"a", "b", nullptr};

    const Row rows[] = {
        // memm.h: library and pools
        {"memm_init, second call", 0, [&](Bad) { return memm_init(8, 2); }, MEMM_ERR_ALREADY_INITIALIZED},
        {"memm_initpool, null name", 0, [&](Bad) { return memm_initpool(nullptr, 4, 4, nullptr); }, MEMM_INVALID_POOL,
         "[MEMM] Failed to allocate"},
        {"memm_initpool2, null name", 0, [&](Bad) { return memm_initpool2(nullptr, 4, 4, nullptr, nullptr); },
         MEMM_INVALID_POOL, "[MEMM] Failed to allocate"},
        {"memm_initpool3, null name", 0, [&](Bad) { return memm_initpool3(nullptr, 4, 4, nullptr, nullptr); },
         MEMM_INVALID_POOL, "[MEMM] Failed to allocate"},
        // memm.h: allocation, release, references
        {"memm_calloc", kNoSuchPool, [&](Bad b) { return memm_calloc(b.id); }, 0},
        {"memm_calloc_nolock", kNoSuchPool, [&](Bad b) { return locked([&] { return memm_calloc_nolock(b.id); }); }, 0},
        {"memm_calloc_nolock_nogc", kNoSuchPool,
         [&](Bad b) { return locked([&] { return memm_calloc_nolock_nogc(b.id); }); }, 0},
        {"memm_free", kNotObj, [&](Bad b) { return memm_free(b.p); }, MEMM_OK},
        {"memm_free_nolock", kNotObj, [&](Bad b) { return locked([&] { return memm_free_nolock(b.p); }); }, MEMM_OK},
        {"memm_refalloc", kNull | kFreed, [&](Bad b) { return memm_refalloc(b.p); }, 0},
        {"memm_refalloc_nolock", kNull | kFreed,
         [&](Bad b) { return locked([&] { return memm_refalloc_nolock(b.p); }); }, 0},
        {"memm_get_refcount", kNull | kFreed, [&](Bad b) { return memm_get_refcount(b.p); }, 0},
        {"memm_disallow_expansion", kNoSuchPool, [&](Bad b) { return memm_disallow_expansion(b.id), 0; }, 0},
        {"memm_depletion_no_reboot", kNoSuchPool, [&](Bad b) { return memm_depletion_no_reboot(b.id), 0; }, 0},
        // memm.h: validation, identity, lookup
        {"memm_isvalidobj", kAnyPtr, [&](Bad b) { return memm_isvalidobj(b.p); }, 0},
        {"memm_isvalidobj, pointer below the header size",
         0, [&](Bad) { return memm_isvalidobj(reinterpret_cast<void *>(uintptr_t(8))); }, 0},
        {"memm_isvalidobj, a placeholder keeps its slot", kDeleted, [&](Bad b) { return memm_isvalidobj(b.p); }, 1},
        {"memm_isvalidobj_nolock", kAnyPtr, [&](Bad b) { return memm_isvalidobj_nolock(b.p); }, 0},
        {"memm_isvalidobjfrompool", kAnyPtr & ~kFreed, [&](Bad b) { return memm_isvalidobjfrompool(plain, b.p); }, 0},
        {"memm_isvalidobjfrompool, a released slot is still a slot", kFreed,
         [&](Bad b) { return memm_isvalidobjfrompool(plain, b.p); }, 1},
        {"memm_isvalidobjfrompool, another pool", kStrPool | kNoSuchPool,
         [&](Bad b) { return memm_isvalidobjfrompool(b.id, obj); }, 0},
        {"memm_isvalidobj_ex", kAnyPtr & ~kFreed, [&](Bad b) { return memm_isvalidobj_ex(b.p); }, 0},
        {"memm_isvalidobj_ex, a released slot is still a slot", kFreed,
         [&](Bad b) { return memm_isvalidobj_ex(b.p); }, 1},
        {"memm_instanceof", kNull | kFreed, [&](Bad b) { return memm_instanceof(b.p, plain); }, 0},
        {"memm_instanceof, no pool's object bears the no-pool id", kNull | kFreed,
         [&](Bad b) { return memm_instanceof(b.p, MEMM_INVALID_POOL); }, 1},
        {"memm_instanceof, bad pool", kNoSuchPool, [&](Bad b) { return memm_instanceof(obj, b.id); }, 0},
        {"memm_instanceof_no_ori", kNull | kFreed, [&](Bad b) { return memm_instanceof_no_ori(b.p, plain); }, 0},
        {"memm_instanceof_no_ori, null bears the no-pool id", kNull,
         [&](Bad b) { return memm_instanceof_no_ori(b.p, MEMM_INVALID_POOL); }, 1},
        {"memm_instanceof_no_ori, a released slot bears its marker's id", kFreed,
         [&](Bad b) { return memm_instanceof_no_ori(b.p, MEMM_STATE_POOLID_MASK); }, 1},
        {"memm_instanceof_no_ori, bad pool", kNoSuchPool, [&](Bad b) { return memm_instanceof_no_ori(obj, b.id); }, 0},
        {"memm_instanceof_with_mem_range_check", kAnyPtr,
         [&](Bad b) { return memm_instanceof_with_mem_range_check(b.p, plain); }, 0},
        {"memm_instanceof_with_mem_range_check, bad pool", kNoSuchPool,
         [&](Bad b) { return memm_instanceof_with_mem_range_check(obj, b.id); }, 0},
        {"memm_get_poolid, null", kNull, [&](Bad b) { return memm_get_poolid(b.p); }, MEMM_INVALID_POOL},
        {"memm_get_poolid, released slot: its marker's bits", kFreed, [&](Bad b) { return memm_get_poolid(b.p); },
         MEMM_STATE_POOLID_MASK},
        {"memm_get_poolname2", kNoSuchPool,
         [&](Bad b) { return same(memm_get_poolname2(b.id), MEMM_INVALID_POOLNAME); }, 1},
        {"memm_get_poolname", kNull | kFreed,
         [&](Bad b) { return same(memm_get_poolname(b.p), MEMM_INVALID_POOLNAME); }, 1},
        {"memm_getpoolcookie", kNull | kFreed, [&](Bad b) { return memm_getpoolcookie(b.p); }, 0},
        {"memm_getpoolcookie_nolock", kNull | kFreed,
         [&](Bad b) { return locked([&] { return memm_getpoolcookie_nolock(b.p); }); }, 0},
        {"memm_getpoolcookie_bypoolid", kNoSuchPool, [&](Bad b) { return memm_getpoolcookie_bypoolid(b.id); }, 0},
        {"memm_getpoolcookie_bypoolid_nolock", kNoSuchPool,
         [&](Bad b) { return locked([&] { return memm_getpoolcookie_bypoolid_nolock(b.id); }); }, 0},
        {"memm_get_currentcount_ptr", kNoSuchPool, [&](Bad b) { return memm_get_currentcount_ptr(b.id, &u, &i); }, 0},
        {"memm_get_pool_nolock", kNoSuchPool, [&](Bad b) { return memm_get_pool_nolock(b.id); }, 0},
        {"memm_getindex", kNull | kFreed, [&](Bad b) { return memm_getindex(b.p); }, 0},
        {"memm_getobject_byindex", kNoSuchPool, [&](Bad b) { return memm_getobject_byindex(b.id, 0); }, 0},
        {"memm_getobject_byindex, negative index", 0, [&](Bad) { return memm_getobject_byindex(plain, -1); }, 0},
        {"memm_search", kNoSuchPool, [&](Bad b) { return memm_search(b.id, nullptr, every); }, 0},
        {"memm_getfirst", kNoSuchPool, [&](Bad b) { return memm_getfirst(b.id); }, 0},
        {"memm_getnext", kNull | kFreed, [&](Bad b) { return memm_getnext(b.p); }, 0},
        {"memm_enum_objects", kNoSuchPool, [&](Bad b) { return memm_enum_objects(b.id, every, nullptr); }, 0},
        {"memm_enum_objects_nolock", kNoSuchPool,
         [&](Bad b) { return locked([&] { return memm_enum_objects_nolock(b.id, every, nullptr); }); }, 0},
        // memm.h: reports and listings
        {"memm_get_stats", kNoSuchPool, [&](Bad b) { return memm_get_stats(b.id, &u, &u, &u); }, kInvalidArg},
        {"memm_get_overall_stats, null outputs", 0,
         [&](Bad) { return memm_get_overall_stats(nullptr, nullptr, nullptr, nullptr, nullptr); }, MEMM_OK},
        {"memm_print_stats2, null print", 0, [&](Bad) { return memm_print_stats2(nullptr, nullptr), 0; }, 0},
        {"memm_printobject2, null print", 0, [&](Bad) { return memm_printobject2(obj, 1, nullptr); }, 0},
        {"memm_printobject2", kNotObj, [&](Bad b) { return memm_printobject2(b.p, 1, quiet); }, 0},
        {"memm_printobject", kNotObj, [&](Bad b) { return memm_printobject(b.p, 1); }, 0},
        {"memm_print_objects4, null print", 0, [&](Bad) { return memm_print_objects4(nullptr, 0, nullptr, 0), 0; }, 0},
        {"memm_print_objects3, null print", 0, [&](Bad) { return memm_print_objects3(nullptr, 0, nullptr), 0; }, 0},
        {"memm_handle_tag_objects, null reason", 0,
         [&](Bad) { return memm_handle_tag_objects("no such pool", 1, 0, nullptr), 0; }, 0},
        {"memm_handle_list_objects, null reason", 0,
         [&](Bad) { return memm_handle_list_objects("no such pool", 0, 0, nullptr), 0; }, 0},

        // dynstr.h: string pools and records
        {"dynstr_initpool2, no buffers", 0, [&](Bad) { return dynstr_initpool2("x", 4, 64, 0); }, MEMM_INVALID_POOL,
         "[DYNSTR] dynstr_initpool(): invalid buffer count 0"},
        {"dynstr_initpool2, null name", 0, [&](Bad) { return dynstr_initpool2(nullptr, 4, 64, 1); }, MEMM_INVALID_POOL},
        {"dynstr_initpool, null name", 0, [&](Bad) { return dynstr_initpool(nullptr, 4, 64); }, MEMM_INVALID_POOL},
        {"dynstr_calloc", kNoSuchPool, [&](Bad b) { return dynstr_calloc(b.id); }, 0},
        {"dynstr_calloc_maxsize", kNoSuchPool, [&](Bad b) { return dynstr_calloc_maxsize(b.id, 8); }, 0},
        {"dynstr_calloc_maxsize_nolock", kNoSuchPool,
         [&](Bad b) { return locked([&] { return dynstr_calloc_maxsize_nolock(b.id, 8); }); }, 0},
        {"dynstr_calloc_maxlen", kNoSuchPool, [&](Bad b) { return dynstr_calloc_maxlen(b.id, 8); }, 0},
        {"dynstr_refalloc", kNull | kFreed, [&](Bad b) { return dynstr_refalloc(b.d()); }, 0},
        {"dynstr_refalloc", kDeleted, [&](Bad b) { return dynstr_refalloc(b.d()); }, 0, ""},
        {"dynstr_isdynstring", kNotRec, [&](Bad b) { return dynstr_isdynstring(b.p); }, 0},
        {"dynstr_strlen", kNull, [&](Bad b) { return dynstr_strlen(b.d()); }, 0},
        {"dynstr_getmaxsize", kNotRec, [&](Bad b) { return dynstr_getmaxsize(b.d()); }, 0},
        {"dynstr_setmaxsize", kNotRec, [&](Bad b) { return dynstr_setmaxsize(b.d(), 8); }, kInvalidArg},
        {"dynstr_setmaxsize_nolock", kNotRec,
         [&](Bad b) { return locked([&] { return dynstr_setmaxsize_nolock(b.d(), 8); }); }, kInvalidArg},
        {"dynstr_reset", kNotRec, [&](Bad b) { return dynstr_reset(b.d()); }, kInvalidArg},
        {"dynstr_pool_set_dellist_threshold", kNotStrPool,
         [&](Bad b) { return dynstr_pool_set_dellist_threshold(b.id, 1); }, MEMM_OK},
        {"dynstr_integrity_check", kNotStrPool, [&](Bad b) { return dynstr_integrity_check(b.id, 1); }, 1},
        {"dynstr_integrity_check_nolock", kNotStrPool,
         [&](Bad b) { return locked([&] { return dynstr_integrity_check_nolock(b.id, 1); }); }, 1},
        // dynstr.h: constructors
        {"dynstr_fromstring", kNotStrPool, [&](Bad b) { return dynstr_fromstring(b.id, "x"); }, 0},
        {"dynstr_fromstring, null text", 0, [&](Bad) { return dynstr_fromstring(strings, nullptr); }, 0},
        {"dynstr_fromstring_nolock", kNotStrPool,
         [&](Bad b) { return locked([&] { return dynstr_fromstring_nolock(b.id, "x"); }); }, 0},
        {"dynstr_fromstring_nolock, null text", 0,
         [&](Bad) { return locked([&] { return dynstr_fromstring_nolock(strings, nullptr); }); }, 0},
        {"dynstr_fromsubstring", kNotStrPool, [&](Bad b) { return dynstr_fromsubstring(b.id, "xy", 0, 1); }, 0},
        {"dynstr_fromsubstring, null text", 0, [&](Bad) { return dynstr_fromsubstring(strings, nullptr, 0, 1); }, 0},
        {"dynstr_fromdynstr", kNotRec, [&](Bad b) { return dynstr_fromdynstr(b.d()); }, 0},
        {"dynstr_fromdynstr_nolock", kNotRec,
         [&](Bad b) { return locked([&] { return dynstr_fromdynstr_nolock(b.d()); }); }, 0},
        {"dynstr_fromsubdynstr", kNotRec, [&](Bad b) { return dynstr_fromsubdynstr(b.d(), 0, 1); }, 0},
        {"dynstr_fromsubdynstr_nolock", kNotRec,
         [&](Bad b) { return locked([&] { return dynstr_fromsubdynstr_nolock(b.d(), 0, 1); }); }, 0},
        {"dynstr_fromliteral", kNotStrPool, [&](Bad b) { return dynstr_fromliteral(b.id, "x"); }, 0},
        {"dynstr_fromliteral, null literal", 0, [&](Bad) { return dynstr_fromliteral(strings, nullptr); }, 0},
        {"dynstr_fromliteral_nolock", kNotStrPool,
         [&](Bad b) { return locked([&] { return dynstr_fromliteral_nolock(b.id, "x"); }); }, 0},
        {"dynstr_fromliteral_nolock, null literal", 0,
         [&](Bad) { return locked([&] { return dynstr_fromliteral_nolock(strings, nullptr); }); }, 0},
        {"dynstr_fromlastsep", kNotRec, [&](Bad b) { return dynstr_fromlastsep(b.d(), '*'); }, 0},
        {"dynstr_fromprintf", kNotStrPool, [&](Bad b) { return dynstr_fromprintf(b.id, "%d", 1); }, 0},
        {"dynstr_fromprintf, null format", 0, [&](Bad) { return dynstr_fromprintf(strings, nullptr); }, 0},
        {"dynstr_fromvprintf", kNotStrPool, [&](Bad b) { return fromvprintf(b.id, "%d", 1); }, 0},
        {"dynstr_fromvprintf, null format", 0, [&](Bad) { return fromvprintf(strings, nullptr); }, 0},
        // dynstr.h: assignments and appends
        {"dynstr_setstring", kNotRec, [&](Bad b) { return dynstr_setstring(b.d(), "x"); }, kInvalidArg},
        {"dynstr_setstring, null text", 0, [&](Bad) { return dynstr_setstring(rec, nullptr); }, kInvalidArg},
        {"dynstr_setstring_nolock", kNotRec,
         [&](Bad b) { return locked([&] { return dynstr_setstring_nolock(b.d(), "x"); }); }, kInvalidArg},
        {"dynstr_setstring_nolock, null text", 0,
         [&](Bad) { return locked([&] { return dynstr_setstring_nolock(rec, nullptr); }); }, kInvalidArg},
        {"dynstr_setdynstr", kNotRec, [&](Bad b) { return dynstr_setdynstr(b.d(), rec); }, kInvalidArg},
        {"dynstr_setdynstr, source", kNotRec, [&](Bad b) { return dynstr_setdynstr(rec, b.d()); }, kInvalidArg},
        {"dynstr_setdynstr_nolock", kNotRec,
         [&](Bad b) { return locked([&] { return dynstr_setdynstr_nolock(b.d(), rec); }); }, kInvalidArg},
        {"dynstr_setdynstr_nolock, source", kNotRec,
         [&](Bad b) { return locked([&] { return dynstr_setdynstr_nolock(rec, b.d()); }); }, kInvalidArg},
        {"dynstr_setsubstring", kNotRec, [&](Bad b) { return dynstr_setsubstring(b.d(), "x", 0, 1); }, kInvalidArg},
        {"dynstr_setsubstring, null text", 0,
         [&](Bad) { return dynstr_setsubstring(rec, nullptr, 0, 1); }, kInvalidArg},
        {"dynstr_setsubdynstr", kNotRec, [&](Bad b) { return dynstr_setsubdynstr(b.d(), rec, 0, 1); }, kInvalidArg},
        {"dynstr_setsubdynstr, source", kNotRec, [&](Bad b) { return dynstr_setsubdynstr(rec, b.d(), 0, 1); },
         kInvalidArg},
        {"dynstr_setliteral", kNotRec, [&](Bad b) { return dynstr_setliteral(b.d(), "x"); }, kInvalidArg},
        {"dynstr_setliteral, null literal", 0, [&](Bad) { return dynstr_setliteral(rec, nullptr); }, kInvalidArg},
        {"dynstr_sprintf", kNotRec, [&](Bad b) { return dynstr_sprintf(b.d(), "%d", 1); }, kInvalidArg},
        {"dynstr_sprintf, null format", 0, [&](Bad) { return dynstr_sprintf(rec, nullptr); }, kInvalidArg},
        {"dynstr_addsprintf", kNotRec, [&](Bad b) { return dynstr_addsprintf(b.d(), "%d", 1); }, kInvalidArg},
        {"dynstr_addsprintf, null format", 0, [&](Bad) { return dynstr_addsprintf(rec, nullptr); }, kInvalidArg},
        {"dynstr_addstring_size", kNotRec, [&](Bad b) { return dynstr_addstring_size(b.d(), "x", 1); }, kInvalidArg},
        {"dynstr_addstring_size, null text", 0, [&](Bad) { return dynstr_addstring_size(rec, nullptr, 1); }, MEMM_OK},
        {"dynstr_addstring", kNotRec, [&](Bad b) { return dynstr_addstring(b.d(), "x"); }, kInvalidArg},
        {"dynstr_addstring, null text", 0, [&](Bad) { return dynstr_addstring(rec, nullptr); }, kInvalidArg},
        {"dynstr_adddynstr", kNotRec, [&](Bad b) { return dynstr_adddynstr(b.d(), rec); }, kInvalidArg},
        {"dynstr_adddynstr, source", kNotRec, [&](Bad b) { return dynstr_adddynstr(rec, b.d()); }, kInvalidArg},
        {"dynstr_adddynstr, itself", 0, [&](Bad) { return dynstr_adddynstr(rec, rec); }, kInvalidArg},
        // dynstr.h: reading
        {"dynstr_getstring", kNotObj, [&](Bad b) { return same(dynstr_getstring(b.d()), DYNSTR_TEXT_NOT_MEMMSTR); }, 1},
        {"dynstr_getstring", kPlainObj,
         [&](Bad b) { return same(dynstr_getstring(b.d()), DYNSTR_TEXT_NOT_DYNSTR); }, 1},
        {"dynstr_getstring", kDeleted, [&](Bad b) { return same(dynstr_getstring(b.d()), DYNSTR_TEXT_DELETED); }, 1},
        {"dynstr_getstring_nolock", kNotObj,
         [&](Bad b) { return locked([&] { return same(dynstr_getstring_nolock(b.d()), DYNSTR_TEXT_NOT_MEMMSTR); }); },
         1},
        {"dynstr_getstring_nolock", kPlainObj,
         [&](Bad b) { return locked([&] { return same(dynstr_getstring_nolock(b.d()), DYNSTR_TEXT_NOT_DYNSTR); }); },
         1},
        {"dynstr_getstring_nolock", kDeleted,
         [&](Bad b) { return locked([&] { return same(dynstr_getstring_nolock(b.d()), DYNSTR_TEXT_DELETED); }); }, 1},
        // dynstr.h: typed conversions
        {"dynstr_fromulong", kNotStrPool, [&](Bad b) { return dynstr_fromulong(b.id, 1); }, 0},
        {"dynstr_fromuint32", kNotStrPool, [&](Bad b) { return dynstr_fromuint32(b.id, 1); }, 0},
        {"dynstr_fromlong", kNotStrPool, [&](Bad b) { return dynstr_fromlong(b.id, 1); }, 0},
        {"dynstr_fromint32", kNotStrPool, [&](Bad b) { return dynstr_fromint32(b.id, 1); }, 0},
        {"dynstr_fromipv4addr", kNotStrPool, [&](Bad b) { return dynstr_fromipv4addr(b.id, 1); }, 0},
        {"dynstr_fromipaddr", kNotStrPool, [&](Bad b) { return dynstr_fromipaddr(b.id, 1); }, 0},
        {"dynstr_hexstringfromdata", kNotStrPool, [&](Bad b) { return dynstr_hexstringfromdata(b.id, bytes, 2); }, 0},
        {"dynstr_setulong", kNotRec, [&](Bad b) { return dynstr_setulong(b.d(), 1); }, kInvalidArg},
        {"dynstr_setuint32", kNotRec, [&](Bad b) { return dynstr_setuint32(b.d(), 1); }, kInvalidArg},
        {"dynstr_setlong", kNotRec, [&](Bad b) { return dynstr_setlong(b.d(), 1); }, kInvalidArg},
        {"dynstr_setint32", kNotRec, [&](Bad b) { return dynstr_setint32(b.d(), 1); }, kInvalidArg},
        {"dynstr_setipv4addr", kNotRec, [&](Bad b) { return dynstr_setipv4addr(b.d(), 1); }, kInvalidArg},
        {"dynstr_setipaddr", kNotRec, [&](Bad b) { return dynstr_setipaddr(b.d(), 1); }, kInvalidArg},
        {"dynstr_setipv6addr", kNotRec, [&](Bad b) { return dynstr_setipv6addr(b.d(), bytes); }, kInvalidArg},
        {"dynstr_setipv6addr, null address", 0, [&](Bad) { return dynstr_setipv6addr(rec, nullptr); }, kInvalidArg},
        {"dynstr_setipaddr_any", kNotRec, [&](Bad b) { return dynstr_setipaddr_any(b.d(), &ip); }, kInvalidArg},
        {"dynstr_setipaddr_any, null address", 0, [&](Bad) { return dynstr_setipaddr_any(rec, nullptr); }, kInvalidArg},
        {"dynstr_setipaddr_any, no family", 0, [&](Bad) { return dynstr_setipaddr_any(rec, &no_family); }, kInvalidArg},
        {"dynstr_setbool", kNotRec, [&](Bad b) { return dynstr_setbool(b.d(), 1); }, kInvalidArg},
        {"dynstr_sethexstring", kNotRec, [&](Bad b) { return dynstr_sethexstring(b.d(), bytes, 2); }, kInvalidArg},
        {"dynstr_getuint32", kNotRec, [&](Bad b) { return dynstr_getuint32(b.d(), &u); }, kInvalidArg},
        {"dynstr_getuint32, null output", 0, [&](Bad) { return dynstr_getuint32(num, nullptr); }, kInvalidArg},
        {"dynstr_getulong", kNotRec, [&](Bad b) { return dynstr_getulong(b.d(), &u); }, kInvalidArg},
        {"dynstr_getulong, null output", 0, [&](Bad) { return dynstr_getulong(num, nullptr); }, kInvalidArg},
        {"dynstr_getint32", kNotRec, [&](Bad b) { return dynstr_getint32(b.d(), &s); }, kInvalidArg},
        {"dynstr_getint32, null output", 0, [&](Bad) { return dynstr_getint32(num, nullptr); }, kInvalidArg},
        {"dynstr_getlong", kNotRec, [&](Bad b) { return dynstr_getlong(b.d(), &s); }, kInvalidArg},
        {"dynstr_getlong, null output", 0, [&](Bad) { return dynstr_getlong(num, nullptr); }, kInvalidArg},
        {"dynstr_getbool", kNotRec, [&](Bad b) { return dynstr_getbool(b.d(), &flag); }, kInvalidArg},
        {"dynstr_getbool, null output", 0, [&](Bad) { return dynstr_getbool(num, nullptr); }, kInvalidArg},
        {"dynstr_getipv4addr", kNotRec, [&](Bad b) { return dynstr_getipv4addr(b.d(), &u); }, kInvalidArg},
        {"dynstr_getipv4addr, null output", 0, [&](Bad) { return dynstr_getipv4addr(v4, nullptr); }, kInvalidArg},
        {"dynstr_getipaddr", kNotRec, [&](Bad b) { return dynstr_getipaddr(b.d(), &u); }, kInvalidArg},
        {"dynstr_getipaddr, null output", 0, [&](Bad) { return dynstr_getipaddr(v4, nullptr); }, kInvalidArg},
        {"dynstr_getipv6addr", kNotRec, [&](Bad b) { return dynstr_getipv6addr(b.d(), out); }, kInvalidArg},
        {"dynstr_getipv6addr, null output", 0, [&](Bad) { return dynstr_getipv6addr(v6, nullptr); }, kInvalidArg},
        {"dynstr_getipaddr_any", kNotRec, [&](Bad b) { return dynstr_getipaddr_any(b.d(), &ip); }, kInvalidArg},
        {"dynstr_getipaddr_any, null output", 0, [&](Bad) { return dynstr_getipaddr_any(v6, nullptr); }, kInvalidArg},
        {"dynstr_getmacaddr", kNotRec, [&](Bad b) { return dynstr_getmacaddr(b.d(), out); }, kInvalidArg},
        {"dynstr_getmacaddr, null output", 0, [&](Bad) { return dynstr_getmacaddr(mac, nullptr); }, kInvalidArg},
        {"dynstr_gethexstring", kNotRec, [&](Bad b) { return dynstr_gethexstring(b.d(), out, 16); }, kInvalidArg},
        {"dynstr_gethexstring, null output", 0,
         [&](Bad) { return dynstr_gethexstring(num, nullptr, 16); }, kInvalidArg},
        // dynstr.h: comparison and copying; a bad record reads as its placeholder text
        {"dynstr_strcmp", kNotObj, [&](Bad b) { return dynstr_strcmp(b.d(), nullptr); }, 0},
        {"dynstr_strcmp2", kNotObj, [&](Bad b) { return dynstr_strcmp2(b.d(), DYNSTR_TEXT_NOT_MEMMSTR); }, 0},
        {"dynstr_strcmp2", kDeleted, [&](Bad b) { return dynstr_strcmp2(b.d(), DYNSTR_TEXT_DELETED); }, 0},
        {"dynstr_strcmp2, null text as \"\"", 0, [&](Bad) { return dynstr_strcmp2(rec, nullptr) > 0; }, 1},
        {"dynstr_strcmpi", kNotObj, [&](Bad b) { return dynstr_strcmpi(b.d(), nullptr); }, 0},
        {"dynstr_strcmpi2", kPlainObj, [&](Bad b) { return dynstr_strcmpi2(b.d(), "*not_dynstr*"); }, 0},
        {"dynstr_strcmpi2, null text as \"\"", 0, [&](Bad) { return dynstr_strcmpi2(rec, nullptr) > 0; }, 1},
        {"dynstr_strncmp", kNotObj, [&](Bad b) { return dynstr_strncmp(b.d(), nullptr, 5); }, 0},
        {"dynstr_strncmp2", kNotObj, [&](Bad b) { return dynstr_strncmp2(b.d(), "*NOT_", 5); }, 0},
        {"dynstr_strncmp2, null text as \"\"", 0, [&](Bad) { return dynstr_strncmp2(rec, nullptr, 5) > 0; }, 1},
        {"dynstr_strncpy", kNotObj,
         [&](Bad b) { char t[16]; return same(dynstr_strncpy(t, b.d(), sizeof t), DYNSTR_TEXT_NOT_MEMMSTR); }, 1},
        {"dynstr_strncpy, null destination", 0, [&](Bad) { return dynstr_strncpy(nullptr, rec, 8); }, 0},
        {"dynstr_strncpy, size 0", 0,
         [&](Bad) { char t[] = "abc"; return dynstr_strncpy(t, rec, 0) == t && same(t, "abc"); }, 1},
        {"dynstr_strdup", kNotObj, [&](Bad b) { return dup_is(dynstr_strdup(b.d()), DYNSTR_TEXT_NOT_MEMMSTR); }, 1},
        {"dynstr_strdup", kDeleted, [&](Bad b) { return dup_is(dynstr_strdup(b.d()), DYNSTR_TEXT_DELETED); }, 1},
        {"dynstr_replace_char", kNotRec, [&](Bad b) { return dynstr_replace_char(b.d(), 'k', 'x', &u); }, kInvalidArg},
        {"dynstr_replace_char, zero from", 0, [&](Bad) { return dynstr_replace_char(rec, 0, 'x', &u); }, kInvalidArg},
        {"dynstr_replace_char, zero to", 0, [&](Bad) { return dynstr_replace_char(rec, 'k', 0, &u); }, kInvalidArg},
        // dynstr.h: joins
        {"dynstr_fromstrlist", kNotStrPool, [&](Bad b) { return dynstr_fromstrlist(b.id, slist, ","); }, 0},
        {"dynstr_fromstrlist, null separator", 0, [&](Bad) { return dynstr_fromstrlist(strings, slist, nullptr); }, 0},
        {"dynstr_fromstrlist, plain objects", 0, [&](Bad) { return dynstr_fromstrlist(strings, list, ","); }, 0},
        {"dynstr_frompartialstrlist", kNotStrPool,
         [&](Bad b) { return dynstr_frompartialstrlist(b.id, slist, ",", 0, 1); }, 0},
        {"dynstr_frompartialstrlist, null separator", 0,
         [&](Bad) { return dynstr_frompartialstrlist(strings, slist, nullptr, 0, 1); }, 0},
        {"dynstr_frompartialstrlist, plain objects", 0,
         [&](Bad) { return dynstr_frompartialstrlist(strings, list, ",", 0, 1); }, 0},
        {"dynstr_fromstrlist_escaped", kNotStrPool,
         [&](Bad b) { return dynstr_fromstrlist_escaped(b.id, slist, ",", '^'); }, 0},
        {"dynstr_fromstrlist_escaped, null separator", 0,
         [&](Bad) { return dynstr_fromstrlist_escaped(strings, slist, nullptr, '^'); }, 0},
        {"dynstr_fromstrlist_escaped, plain objects", 0,
         [&](Bad) { return dynstr_fromstrlist_escaped(strings, list, ",", '^'); }, 0},

        // llist.h: node pools, adding, inserting (list functions log nothing)
        {"llist_initpool, null name", 0, [&](Bad) { return llist_initpool(nullptr, 4, sizeof(llist_node), nullptr); },
         MEMM_INVALID_POOL, "[MEMM] Failed to allocate"},
        {"llist_addobject", kNotNodePool, [&](Bad b) { return llist_addobject(&list, obj, b.id); }, kNoMemory, ""},
        {"llist_addobject, null plist takes the reference", 0,
         [&](Bad) { return memm_refalloc(obj), llist_addobject(nullptr, obj, nodes); }, kInvalidArg, ""},
        {"llist_addobject_nolock", kNotNodePool,
         [&](Bad b) { return locked([&] { return llist_addobject_nolock(&list, obj, b.id); }); }, kNoMemory, ""},
        {"llist_addobject_nolock, null plist takes the reference", 0,
         [&](Bad) { return memm_refalloc(obj), locked([&] { return llist_addobject_nolock(nullptr, obj, nodes); }); },
         kInvalidArg, ""},
        {"llist_addref", kNotNodePool, [&](Bad b) { return llist_addref(&list, obj, b.id); }, kNoMemory, ""},
        {"llist_addref, null plist", 0, [&](Bad) { return llist_addref(nullptr, obj, nodes); }, kInvalidArg, ""},
        {"llist_refalloc", kNotNodePool, [&](Bad b) { return llist_refalloc(list, b.id); }, 0, ""},
        {"llist_insert_at", kNotNodePool, [&](Bad b) { return llist_insert_at(&list, obj, 0, b.id); }, kNoMemory, ""},
        {"llist_insert_at, null plist", 0,
         [&](Bad) { return llist_insert_at(nullptr, obj, 0, nodes); }, kInvalidArg, ""},
        {"llist_insert_at, beyond the end", 0,
         [&](Bad) { return llist_insert_at(&list, obj, 2, nodes); }, kInvalidArg, ""},
        {"llist_pushobject", kNotNodePool, [&](Bad b) { return llist_pushobject(&list, obj, b.id); }, kNoMemory, ""},
        {"llist_pushobject, null plist", 0,
         [&](Bad) { return llist_pushobject(nullptr, obj, nodes); }, kInvalidArg, ""},
        // llist.h: delete, remove, unlink, move
        {"llist_delete_at", kBadNode,
         [&](Bad b) { llist_node *l = b.n(); return llist_delete_at(&l, 0); }, kInvalidArg, ""},
        {"llist_delete_at, from the end", kBadNode,
         [&](Bad b) { llist_node *l = b.n(); return llist_delete_at(&l, -1); }, kInvalidArg, ""},
        {"llist_delete_at, null plist", 0, [&](Bad) { return llist_delete_at(nullptr, 0); }, kInvalidArg, ""},
        {"llist_delete_at, beyond the end", 0, [&](Bad) { return llist_delete_at(&list, 1); }, kInvalidArg, ""},
        {"llist_delete_at, still negative", 0, [&](Bad) { return llist_delete_at(&list, -2); }, kInvalidArg, ""},
        {"llist_delete_byobject", kBadNode,
         [&](Bad b) { llist_node *l = b.n(); return llist_delete_byobject(&l, obj); }, kInvalidArg, ""},
        {"llist_delete_byobject, null plist", 0,
         [&](Bad) { return llist_delete_byobject(nullptr, obj); }, kInvalidArg, ""},
        {"llist_delete_byobject, not in the list", kNotObj, [&](Bad b) { return llist_delete_byobject(&list, b.p); },
         kInvalidArg, ""},
        {"llist_remove_at", kBadNode,
         [&](Bad b) { llist_node *l = b.n(); return llist_remove_at(&l, 0); }, kInvalidArg, ""},
        {"llist_remove_at, null plist", 0, [&](Bad) { return llist_remove_at(nullptr, 0); }, kInvalidArg, ""},
        {"llist_remove_at, beyond the end", 0, [&](Bad) { return llist_remove_at(&list, 1); }, kInvalidArg, ""},
        {"llist_remove_byobject", kBadNode,
         [&](Bad b) { llist_node *l = b.n(); return llist_remove_byobject(&l, obj); }, kInvalidArg, ""},
        {"llist_remove_byobject, null plist", 0,
         [&](Bad) { return llist_remove_byobject(nullptr, obj); }, kInvalidArg, ""},
        {"llist_remove_byobject, not in the list", kNotObj, [&](Bad b) { return llist_remove_byobject(&list, b.p); },
         kInvalidArg, ""},
        {"llist_unlink_at", kBadNode,
         [&](Bad b) { llist_node *l = b.n(); return llist_unlink_at(&l, 0); }, kInvalidArg, ""},
        {"llist_unlink_at, null plist", 0, [&](Bad) { return llist_unlink_at(nullptr, 0); }, kInvalidArg, ""},
        {"llist_unlink_at, beyond the end", 0, [&](Bad) { return llist_unlink_at(&list, 1); }, kInvalidArg, ""},
        {"llist_unlink_byobject", kBadNode,
         [&](Bad b) { llist_node *l = b.n(); return llist_unlink_byobject(&l, obj); }, kInvalidArg, ""},
        {"llist_unlink_byobject, null plist", 0,
         [&](Bad) { return llist_unlink_byobject(nullptr, obj); }, kInvalidArg, ""},
        {"llist_unlink_byobject, not in the list", kNotObj, [&](Bad b) { return llist_unlink_byobject(&list, b.p); },
         kInvalidArg, ""},
        {"llist_move_byobject", kBadNode,
         [&](Bad b) { llist_node *l = b.n(); return llist_move_byobject(&l, &spare, obj); }, kInvalidArg, ""},
        {"llist_move_byobject, null source", 0,
         [&](Bad) { return llist_move_byobject(nullptr, &spare, obj); }, kInvalidArg, ""},
        {"llist_move_byobject, null destination", 0, [&](Bad) { return llist_move_byobject(&list, nullptr, obj); },
         kInvalidArg, ""},
        {"llist_move_byobject, not in the list", kNotObj,
         [&](Bad b) { return llist_move_byobject(&list, &spare, b.p); }, kInvalidArg, ""},
        {"llist_getandremove_at", kBadNode,
         [&](Bad b) { llist_node *l = b.n(); return llist_getandremove_at(&l, 0); }, 0, ""},
        {"llist_getandremove_at, from the end", kBadNode,
         [&](Bad b) { llist_node *l = b.n(); return llist_getandremove_at(&l, -1); }, 0, ""},
        {"llist_getandremove_at, null plist", 0, [&](Bad) { return llist_getandremove_at(nullptr, 0); }, 0, ""},
        {"llist_getandremove_at, beyond the end", 0, [&](Bad) { return llist_getandremove_at(&list, 1); }, 0, ""},
        {"llist_popobject", kBadNode | kNull, [&](Bad b) { llist_node *l = b.n(); return llist_popobject(&l); }, 0, ""},
        {"llist_popobject, null plist", 0, [&](Bad) { return llist_popobject(nullptr); }, 0, ""},
        {"llist_getandunlink_at", kBadNode,
         [&](Bad b) { llist_node *l = b.n(); return llist_getandunlink_at(&l, 0); }, 0, ""},
        {"llist_getandunlink_at, null plist", 0, [&](Bad) { return llist_getandunlink_at(nullptr, 0); }, 0, ""},
        {"llist_getandunlink_at, beyond the end", 0, [&](Bad) { return llist_getandunlink_at(&list, 1); }, 0, ""},
        {"llist_getandunlink_byobject", kBadNode,
         [&](Bad b) { llist_node *l = b.n(); return llist_getandunlink_byobject(&l, obj); }, 0, ""},
        {"llist_getandunlink_byobject, null plist", 0,
         [&](Bad) { return llist_getandunlink_byobject(nullptr, obj); }, 0, ""},
        {"llist_getandunlink_byobject, not in the list", kNotObj,
         [&](Bad b) { return llist_getandunlink_byobject(&list, b.p); }, 0, ""},
        // llist.h: access and search
        {"llist_get_first", kNotObj, [&](Bad b) { return llist_get_first(b.n()); }, 0, ""},
        {"llist_get_next", kNotObj, [&](Bad b) { return llist_get_next(b.n()); }, 0, ""},
        {"llist_get_at", kNotObj, [&](Bad b) { return llist_get_at(b.n(), 0); }, 0, ""},
        {"llist_get_at, from the end", kNotObj, [&](Bad b) { return llist_get_at(b.n(), -1); }, 0, ""},
        {"llist_get_at, beyond the end", 0, [&](Bad) { return llist_get_at(list, 1); }, 0, ""},
        {"llist_get_at, still negative", 0, [&](Bad) { return llist_get_at(list, -2); }, 0, ""},
        {"llist_get_at_nolock", kNotObj,
         [&](Bad b) { return locked([&] { return llist_get_at_nolock(b.n(), 0); }); }, 0, ""},
        {"llist_getobject_at", kNotObj, [&](Bad b) { return llist_getobject_at(b.n(), 0); }, 0, ""},
        {"llist_getobject_at, beyond the end", 0, [&](Bad) { return llist_getobject_at(list, 1); }, 0, ""},
        {"llist_getobject_this", kNotObj, [&](Bad b) { return llist_getobject_this(b.n()); }, 0, ""},
        {"llist_setobject_at", kNotObj, [&](Bad b) { return llist_setobject_at(b.n(), obj, 0); }, kInvalidArg, ""},
        {"llist_setobject_at, beyond the end", 0,
         [&](Bad) { return llist_setobject_at(list, obj, 1); }, kInvalidArg, ""},
        {"llist_searchobject, null match", 0, [&](Bad) { return llist_searchobject(list, obj, nullptr); }, 0, ""},
        {"llist_searchobject, empty list", 0, [&](Bad) { return llist_searchobject(nullptr, obj, every); }, 0, ""},
        {"llist_search_byobject", kNotObj, [&](Bad b) { return llist_search_byobject(list, b.p); }, 0, ""},
        {"llist_getindex_byobject", kNotObj,
         [&](Bad b) { return llist_getindex_byobject(list, b.p); }, 0xFFFFFFFFu, ""},
        {"llist_inlist", kNotObj, [&](Bad b) { return llist_inlist(list, b.p); }, 0, ""},
        {"llist_getlength, empty list", 0, [&](Bad) { return llist_getlength(nullptr); }, 0, ""},
        {"llist_getlength_nolock, empty list", 0,
         [&](Bad) { return locked([&] { return llist_getlength_nolock(nullptr); }); }, 0, ""},
        {"llist_getreallength", kNotObj, [&](Bad b) { return llist_getreallength(b.n()); }, 0, ""},
        {"llist_free_plist, null plist", 0, [&](Bad) { return llist_free_plist(nullptr); }, kInvalidArg, ""},
        {"llist_free_plist, no node: the release ignores it", kNotObj,
         [&](Bad b) { llist_node *l = b.n(); return llist_free_plist(&l) == MEMM_OK && !l; }, 1},
        // llist.h: sorting, splitting, cloning, joining
        {"llist_sort, null plist", 0, [&](Bad) { return llist_sort(nullptr, by_address); }, kInvalidArg, ""},
        {"llist_sort, null compare", 0, [&](Bad) { return llist_sort(&list, nullptr); }, kInvalidArg, ""},
        {"llist_sort_ex, null plist", 0,
         [&](Bad) { return llist_sort_ex(nullptr, nullptr, by_address_ex); }, kInvalidArg, ""},
        {"llist_sort_ex, null compare", 0,
         [&](Bad) { return llist_sort_ex(&list, nullptr, nullptr); }, kInvalidArg, ""},
        {"llist_insert_sorted", kNotNodePool,
         [&](Bad b) { return llist_insert_sorted(&list, obj, b.id, by_address); }, MEMM_OK, ""},
        {"llist_insert_sorted, null plist", 0,
         [&](Bad) { return llist_insert_sorted(nullptr, obj, nodes, by_address); }, MEMM_OK, ""},
        {"llist_insert_sorted, null compare", 0,
         [&](Bad) { return llist_insert_sorted(&list, obj, nodes, nullptr); }, MEMM_OK, ""},
        {"llist_reverse, null plist", 0, [&](Bad) { return llist_reverse(nullptr); }, kInvalidArg, ""},
        {"llist_split_at", kBadNode, [&](Bad b) { llist_node *l = b.n(); return llist_split_at(&l, 1); }, 0, ""},
        {"llist_split_at, from the end", kBadNode,
         [&](Bad b) { llist_node *l = b.n(); return llist_split_at(&l, -1); }, 0, ""},
        {"llist_split_at, index 0 moves any first node", kBadNode,
         [&](Bad b) { llist_node *l = b.n(); return llist_split_at(&l, 0) == b.n() && !l; }, 1, ""},
        {"llist_split_at, null plist", 0, [&](Bad) { return llist_split_at(nullptr, 0); }, 0, ""},
        {"llist_split_at, beyond the end", 0, [&](Bad) { return llist_split_at(&list, 2); }, 0, ""},
        {"llist_split_at, still negative", 0, [&](Bad) { return llist_split_at(&list, -2); }, 0, ""},
        {"llist_clone", kNotNodePool,
         [&](Bad b) { llist_node *d = nullptr; return llist_clone(&d, list, b.id) == kNoMemory && !d; }, 1, ""},
        {"llist_clone, null pdst", 0, [&](Bad) { return llist_clone(nullptr, list, nodes); }, kInvalidArg, ""},
        {"llist_addlist, null plist", 0, [&](Bad) { return llist_addlist(nullptr, spare); }, kInvalidArg, ""},
        {"llist_addlist, null list", 0, [&](Bad) { return llist_addlist(&list, nullptr); }, kInvalidArg, ""},
        {"llist_insert_list_at, null plist", 0,
         [&](Bad) { return llist_insert_list_at(nullptr, spare, 0); }, kInvalidArg, ""},
        {"llist_insert_list_at, null list", 0,
         [&](Bad) { return llist_insert_list_at(&list, nullptr, 0); }, MEMM_OK, ""},
        {"llist_insert_list_at, beyond the end", 0,
         [&](Bad) { return llist_insert_list_at(&list, spare, 2); }, kInvalidArg, ""},
        // llist.h: typed enumeration
        {"llist_get_bytype, no such type", kBeyond | kUnused | kNodePool,
         [&](Bad b) { return llist_get_bytype(list, b.id, 0); }, 0, ""},
        {"llist_get_bytype, empty list", 0, [&](Bad) { return llist_get_bytype(nullptr, LLIST_TYPE_ANY, 0); }, 0, ""},
        {"llist_enum_bytype, no such type", kBeyond | kUnused | kNodePool,
         [&](Bad b) { i = 0, last = nullptr; return llist_enum_bytype(list, b.id, &i, &last); }, 0, ""},
        {"llist_enum_bytype, null index", 0,
         [&](Bad) { return llist_enum_bytype(list, plain, nullptr, &last); }, 0, ""},
        {"llist_enum_bytype, null last", 0, [&](Bad) { return llist_enum_bytype(list, plain, &i, nullptr); }, 0, ""},
        {"llist_enum_bytype, empty list", 0,
         [&](Bad) { i = 0, last = nullptr; return llist_enum_bytype(nullptr, plain, &i, &last); }, 0, ""},
        {"llist_enum_bytype_nolock, null index", 0,
         [&](Bad) { return locked([&] { return llist_enum_bytype_nolock(list, plain, nullptr, &last); }); }, 0, ""},
        {"llist_enum_bytype_nolock, null last", 0,
         [&](Bad) { return locked([&] { return llist_enum_bytype_nolock(list, plain, &i, nullptr); }); }, 0, ""},
        {"llist_enum_dynstr, plain objects", 0,
         [&](Bad) { i = 0, dlast = nullptr; return llist_enum_dynstr(list, &i, &dlast); }, 0, ""},
        {"llist_enum_dynstr, null index", 0, [&](Bad) { return llist_enum_dynstr(slist, nullptr, &dlast); }, 0, ""},
        {"llist_enum_dynstr, null last", 0, [&](Bad) { return llist_enum_dynstr(slist, &i, nullptr); }, 0, ""},
        {"llist_enumcb_bytype, null callback", 0,
         [&](Bad) { return llist_enumcb_bytype(list, plain, nullptr, nullptr); }, 0, ""},
        {"llist_enumcb_bytype, any type delivers nothing", 0,
         [&](Bad) { return llist_enumcb_bytype(list, LLIST_TYPE_ANY, every, nullptr); }, 0, ""},
        {"llist_enumcb_bytype, no such type", kBeyond | kUnused | kNodePool,
         [&](Bad b) { return llist_enumcb_bytype(list, b.id, every, nullptr); }, 0, ""},

        // strlist.h: building and adding
        {"strlist_addstring", kNotStrPool,
         [&](Bad b) { return strlist_addstring(&slist, "x", nodes, b.id); }, kNoMemory},
        {"strlist_addstring, node pool", kNotNodePool,
         [&](Bad b) { return strlist_addstring(&slist, "x", b.id, strings); }, kNoMemory},
        {"strlist_addstring, null text", 0,
         [&](Bad) { return strlist_addstring(&slist, nullptr, nodes, strings); }, kNoMemory},
        {"strlist_addstring, null plist", 0,
         [&](Bad) { return strlist_addstring(nullptr, "x", nodes, strings); }, kInvalidArg},
        {"strlist_addstring_nolock", kNotStrPool,
         [&](Bad b) { return locked([&] { return strlist_addstring_nolock(&slist, "x", nodes, b.id); }); }, kNoMemory},
        {"strlist_addstring_nolock, node pool", kNotNodePool,
         [&](Bad b) { return locked([&] { return strlist_addstring_nolock(&slist, "x", b.id, strings); }); },
         kNoMemory},
        {"strlist_addstring_nolock, null text", 0,
         [&](Bad) { return locked([&] { return strlist_addstring_nolock(&slist, nullptr, nodes, strings); }); },
         kNoMemory},
        {"strlist_addstring_nolock, null plist", 0,
         [&](Bad) { return locked([&] { return strlist_addstring_nolock(nullptr, "x", nodes, strings); }); },
         kInvalidArg},
        {"strlist_addliteral", kNotStrPool,
         [&](Bad b) { return strlist_addliteral(&slist, "x", nodes, b.id); }, kNoMemory},
        {"strlist_addliteral, node pool", kNotNodePool,
         [&](Bad b) { return strlist_addliteral(&slist, "x", b.id, strings); }, kNoMemory},
        {"strlist_addliteral, null literal", 0,
         [&](Bad) { return strlist_addliteral(&slist, nullptr, nodes, strings); }, kNoMemory},
        {"strlist_addliteral, null plist", 0,
         [&](Bad) { return strlist_addliteral(nullptr, "x", nodes, strings); }, kInvalidArg},
        {"strlist_adduint32", kNotStrPool, [&](Bad b) { return strlist_adduint32(&slist, 1, nodes, b.id); }, kNoMemory},
        {"strlist_adduint32, node pool", kNotNodePool,
         [&](Bad b) { return strlist_adduint32(&slist, 1, b.id, strings); }, kNoMemory},
        {"strlist_adduint32, null plist", 0,
         [&](Bad) { return strlist_adduint32(nullptr, 1, nodes, strings); }, kInvalidArg},
        {"strlist_addulong", kNotStrPool, [&](Bad b) { return strlist_addulong(&slist, 1, nodes, b.id); }, kNoMemory},
        {"strlist_addulong, node pool", kNotNodePool, [&](Bad b) { return strlist_addulong(&slist, 1, b.id, strings); },
         kNoMemory},
        {"strlist_addulong, null plist", 0,
         [&](Bad) { return strlist_addulong(nullptr, 1, nodes, strings); }, kInvalidArg},
        {"strlist_adddynstr", kNotNodePool, [&](Bad b) { return strlist_adddynstr(&slist, rec, b.id); }, kNoMemory, ""},
        {"strlist_adddynstr, null plist takes the reference", 0,
         [&](Bad) { return dynstr_refalloc(rec), strlist_adddynstr(nullptr, rec, nodes); }, kInvalidArg},
        {"strlist_addref", kNotNodePool, [&](Bad b) { return strlist_addref(&slist, rec, b.id); }, kNoMemory, ""},
        {"strlist_addref, null plist", 0, [&](Bad) { return strlist_addref(nullptr, rec, nodes); }, kInvalidArg},
        {"strlist_fromstring", kNotStrPool, [&](Bad b) { return strlist_fromstring("a,b", ",", nodes, b.id); }, 0},
        {"strlist_fromstring, node pool", kNotNodePool,
         [&](Bad b) { return strlist_fromstring("a,b", ",", b.id, strings); }, 0},
        {"strlist_fromstring, null text", 0, [&](Bad) { return strlist_fromstring(nullptr, ",", nodes, strings); }, 0},
        {"strlist_fromdynstr", kNotRec, [&](Bad b) { return strlist_fromdynstr(b.d(), ",", nodes); }, 0},
        {"strlist_fromdynstr, node pool", kNotNodePool, [&](Bad b) { return strlist_fromdynstr(rec, ",", b.id); }, 0},
        {"strlist_fromstring_escaped", kNotStrPool,
         [&](Bad b) { char t[] = "a^,b,c"; return strlist_fromstring_escaped(t, ',', '^', nodes, b.id); }, 0},
        {"strlist_fromstring_escaped, node pool", kNotNodePool,
         [&](Bad b) { char t[] = "a^,b,c"; return strlist_fromstring_escaped(t, ',', '^', b.id, strings); }, 0},
        {"strlist_fromstring_escaped, null text", 0,
         [&](Bad) { return strlist_fromstring_escaped(nullptr, ',', '^', nodes, strings); }, 0},
        {"strlist_fromstringarr", kNotStrPool, [&](Bad b) { return strlist_fromstringarr(arr, nodes, b.id); }, 0},
        {"strlist_fromstringarr, node pool", kNotNodePool,
         [&](Bad b) { return strlist_fromstringarr(arr, b.id, strings); }, 0},
        {"strlist_fromstringarr, null array", 0,
         [&](Bad) { return strlist_fromstringarr(nullptr, nodes, strings); }, 0},
        {"strlist_clone", kNotStrPool, [&](Bad b) { return strlist_clone(slist, nodes, b.id); }, 0},
        {"strlist_clone, node pool", kNotNodePool, [&](Bad b) { return strlist_clone(slist, b.id, strings); }, 0},
        {"strlist_refalloc", kNotNodePool, [&](Bad b) { return strlist_refalloc(slist, b.id); }, 0, ""},
        // strlist.h: reading and changing items
        {"strlist_getlength, empty list", 0, [&](Bad) { return strlist_getlength(nullptr); }, 0},
        {"strlist_getdynstr_at, plain objects", 0, [&](Bad) { return strlist_getdynstr_at(list, 0); }, 0},
        {"strlist_getdynstr_at, beyond the end", 0, [&](Bad) { return strlist_getdynstr_at(slist, 1); }, 0},
        {"strlist_getdynstr_at, empty list", 0, [&](Bad) { return strlist_getdynstr_at(nullptr, 0); }, 0},
        {"strlist_getstring_at, plain objects", 0, [&](Bad) { return same(strlist_getstring_at(list, 0), ""); }, 1},
        {"strlist_getstring_at, beyond the end", 0, [&](Bad) { return same(strlist_getstring_at(slist, 1), ""); }, 1},
        {"strlist_getstring_at, empty list", 0, [&](Bad) { return same(strlist_getstring_at(nullptr, 0), ""); }, 1},
        {"strlist_getuint32_at, plain objects", 0, [&](Bad) { return strlist_getuint32_at(list, &u, 0); }, kInvalidArg},
        {"strlist_getuint32_at, beyond the end", 0,
         [&](Bad) { return strlist_getuint32_at(slist, &u, 1); }, kInvalidArg},
        {"strlist_getulong_at, plain objects", 0, [&](Bad) { return strlist_getulong_at(list, &u, 0); }, kInvalidArg},
        {"strlist_getulong_at, empty list", 0, [&](Bad) { return strlist_getulong_at(nullptr, &u, 0); }, kInvalidArg},
        {"strlist_setstring_at, plain objects", 0,
         [&](Bad) { return strlist_setstring_at(list, "x", 0); }, kInvalidArg},
        {"strlist_setstring_at, beyond the end", 0,
         [&](Bad) { return strlist_setstring_at(slist, "x", 1); }, kInvalidArg},
        {"strlist_setstring_at, empty list", 0,
         [&](Bad) { return strlist_setstring_at(nullptr, "x", 0); }, kInvalidArg},
        {"strlist_delete_at, null plist", 0, [&](Bad) { return strlist_delete_at(nullptr, 0); }, kInvalidArg, ""},
        {"strlist_delete_at, beyond the end", 0, [&](Bad) { return strlist_delete_at(&slist, 1); }, kInvalidArg, ""},
        {"strlist_remove_at, null plist", 0, [&](Bad) { return strlist_remove_at(nullptr, 0); }, kInvalidArg, ""},
        {"strlist_remove_at, beyond the end", 0, [&](Bad) { return strlist_remove_at(&slist, 1); }, kInvalidArg, ""},
        {"strlist_remove_byobject, null plist", 0,
         [&](Bad) { return strlist_remove_byobject(nullptr, rec); }, kInvalidArg, ""},
        {"strlist_remove_byobject, not in the list", kNotRec,
         [&](Bad b) { return strlist_remove_byobject(&slist, b.d()); }, kInvalidArg, ""},
        {"strlist_enum_dynstr, plain objects", 0,
         [&](Bad) { i = 0, dlast = nullptr; return strlist_enum_dynstr(list, &i, &dlast); }, 0},
        {"strlist_enum_dynstr, null index", 0, [&](Bad) { return strlist_enum_dynstr(slist, nullptr, &dlast); }, 0},
        // strlist.h: joining
        {"strlist_todynstr", kNotStrPool, [&](Bad b) { return strlist_todynstr(slist, ",", b.id); }, 0},
        {"strlist_todynstr, null separator", 0, [&](Bad) { return strlist_todynstr(slist, nullptr, strings); }, 0},
        {"strlist_todynstr, plain objects", 0, [&](Bad) { return strlist_todynstr(list, ",", strings); }, 0},
        {"strlist_partialtodynstr", kNotStrPool,
         [&](Bad b) { return strlist_partialtodynstr(slist, ",", b.id, 0, 1); }, 0},
        {"strlist_partialtodynstr, null separator", 0,
         [&](Bad) { return strlist_partialtodynstr(slist, nullptr, strings, 0, 1); }, 0},
        {"strlist_partialtodynstr, plain objects", 0,
         [&](Bad) { return strlist_partialtodynstr(list, ",", strings, 0, 1); }, 0},
    };
    for (const Row &row : rows) {
        for (uint32_t k = 0; k < kKinds; k++) {
            if (row.kinds ? !(row.kinds & (1u << k)) : k > 0)
                continue;
            const std::string what = row.kinds ? std::string(row.what) + ", " + kKindNames[k] : row.what;
            const std::vector<uint32_t> before = pool_figures();
            memm_test::clear_logs();
            EXPECT_EQ(row.call(bad[k]).v, row.expected) << what;
            const size_t lines = memm_test::logs().size();
            if (row.log && *row.log) {
                EXPECT_TRUE(lines > 0 && log_count_prefix(row.log) == lines) << what; // the promised line, no other
            } else if (row.log) {
                EXPECT_EQ(lines, 0u) << what;
            }
            EXPECT_EQ(pool_figures(), before) << what;
            EXPECT_TRUE(pools_sound(strings)) << what;
            EXPECT_STREQ(dynstr_getstring(rec), "kept") << what;
            EXPECT_STREQ(dynstr_getstring(deleted), DYNSTR_TEXT_DELETED) << what;
            EXPECT_TRUE(list == first && spare == spare_first && slist == sfirst) << what;
            EXPECT_TRUE(llist_getlength(list) == 1 && llist_getlength(spare) == 1 && llist_getlength(slist) == 1)
                << what;
        }
    }
}
