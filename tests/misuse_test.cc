// Misuse: null, foreign, released and wrong-kind pointers and bad pool ids
// give each public function its documented result instead of a crash, change
// nothing and leave every pool sound. A row lists the calls that share one
// expected result, the bad inputs they are run with (0: once, as written) and
// the log it expects (null: not checked; "": nothing; else every line begins so).
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>

#include "fixture.h"
#include "strlist.h"

namespace {

using memm_test::log_count_prefix;

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
// A call with the bad input as b, and as l a list head the call may change.
#define C(...) [&](Bad b) -> Value { llist_node *l = b.n(); (void)l; return Value((__VA_ARGS__)); }
// A _nolock call under the lock its caller must hold.
#define L(...) [&](Bad b) -> Value { (void)b; memm_lock("misuse"); Value v((__VA_ARGS__)); memm_unlock(); return v; }

struct Row {
    uint32_t kinds;
    uintptr_t expected;
    const char *log;
    std::vector<std::function<Value(Bad)>> calls;
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

dynstr *fromvprintf(uint32_t pool, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    dynstr *d = dynstr_fromvprintf(pool, fmt, ap);
    va_end(ap);
    return d;
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
    const uint32_t unused = memm_get_number_of_pools();
    ASSERT_TRUE(unused < memm_get_pool_nolock(0)->alloc_count && !memm_get_pool_nolock(unused));
    void *obj = memm_calloc(plain), *freed = memm_calloc(plain), *unreadable = behind_unreadable_page();
    ASSERT_EQ(memm_free(freed), MEMM_OK);
    ASSERT_NE(unreadable, nullptr);
    dynstr *rec = dynstr_fromstring(strings, "kept"), *deleted = dynstr_fromstring(strings, "released");
    ASSERT_NE(dynstr_fromstring(strings, "behind"), nullptr); // keeps the released text in its buffer
    memm_free(deleted);
    ASSERT_TRUE(deleted->flags & DYNSTR_FLAG_DELETED); // a placeholder, its slot still in use
    // Records whose texts parse, so a getter's null output is what it refuses.
    dynstr *num = dynstr_fromstring(strings, "12"), *v4 = dynstr_fromstring(strings, "10.0.0.1");
    dynstr *v6 = dynstr_fromstring(strings, "::1"), *mac = dynstr_fromstring(strings, "00:11:22:33:44:55");
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
        {0, MEMM_ERR_ALREADY_INITIALIZED, nullptr, {C(memm_init(8, 2))}},
        {0, MEMM_INVALID_POOL, "[MEMM] Failed to allocate", {C(memm_initpool(nullptr, 4, 4, nullptr)),
            C(memm_initpool2(nullptr, 4, 4, nullptr, nullptr)), C(memm_initpool3(nullptr, 4, 4, nullptr, nullptr)),
            C(llist_initpool(nullptr, 4, sizeof(llist_node), nullptr))}},
        {kNoSuchPool, 0, nullptr, {C(memm_calloc(b.id)), C(memm_disallow_expansion(b.id), 0),
            C(memm_depletion_no_reboot(b.id), 0), C(memm_instanceof(obj, b.id)), C(memm_instanceof_no_ori(obj, b.id)),
            C(memm_instanceof_with_mem_range_check(obj, b.id)), C(memm_getpoolcookie_bypoolid(b.id)),
            C(memm_get_currentcount_ptr(b.id, &u, &i)), C(memm_get_pool_nolock(b.id)),
            C(memm_getobject_byindex(b.id, 0)), C(memm_search(b.id, nullptr, every)), C(memm_getfirst(b.id)),
            C(memm_enum_objects(b.id, every, nullptr)), C(dynstr_calloc(b.id)), C(dynstr_calloc_maxsize(b.id, 8)),
            C(dynstr_calloc_maxlen(b.id, 8))}},
        {kNotObj, MEMM_OK, nullptr, {C(memm_free(b.p))}},
        {kNull | kFreed, 0, nullptr, {C(memm_refalloc(b.p)), C(memm_get_refcount(b.p)),
            C(memm_instanceof(b.p, plain)), C(memm_instanceof_no_ori(b.p, plain)), C(memm_getpoolcookie(b.p)),
            C(memm_getindex(b.p)), C(memm_getnext(b.p)), C(dynstr_refalloc(b.d()))}},
        {kAnyPtr, 0, nullptr, {C(memm_isvalidobj(b.p)), C(memm_isvalidobj_nolock(b.p)),
            C(memm_instanceof_with_mem_range_check(b.p, plain))}},
        {0, 0, nullptr, {C(memm_isvalidobj(reinterpret_cast<void *>(uintptr_t(8)))),
            C(memm_getobject_byindex(plain, -1)), C(memm_print_stats2(nullptr, nullptr), 0),
            C(memm_printobject2(obj, 1, nullptr)), C(memm_print_objects4(nullptr, 0, nullptr, 0), 0),
            C(memm_print_objects3(nullptr, 0, nullptr), 0),
            C(memm_handle_tag_objects("no such pool", 1, 0, nullptr), 0),
            C(memm_handle_list_objects("no such pool", 0, 0, nullptr), 0), C(dynstr_fromstring(strings, nullptr)),
            C(dynstr_fromsubstring(strings, nullptr, 0, 1)), C(dynstr_fromliteral(strings, nullptr)),
            C(dynstr_fromprintf(strings, nullptr)), C(fromvprintf(strings, nullptr)),
            C(dynstr_strncpy(nullptr, rec, 8)), C(dynstr_fromstrlist(strings, slist, nullptr)),
            C(dynstr_fromstrlist(strings, list, ",")), C(dynstr_frompartialstrlist(strings, slist, nullptr, 0, 1)),
            C(dynstr_frompartialstrlist(strings, list, ",", 0, 1)),
            C(dynstr_fromstrlist_escaped(strings, slist, nullptr, '^')),
            C(dynstr_fromstrlist_escaped(strings, list, ",", '^')),
            C(strlist_fromstring(nullptr, ",", nodes, strings)),
            C(strlist_fromstring_escaped(nullptr, ',', '^', nodes, strings)),
            C(strlist_fromstringarr(nullptr, nodes, strings)), C(strlist_getlength(nullptr)),
            C(strlist_getdynstr_at(list, 0)), C(strlist_getdynstr_at(slist, 1)), C(strlist_getdynstr_at(nullptr, 0)),
            C(i = 0, dlast = nullptr, strlist_enum_dynstr(list, &i, &dlast)),
            C(strlist_enum_dynstr(slist, nullptr, &dlast)), C(strlist_todynstr(slist, nullptr, strings)),
            C(strlist_todynstr(list, ",", strings)), C(strlist_partialtodynstr(slist, nullptr, strings, 0, 1)),
            C(strlist_partialtodynstr(list, ",", strings, 0, 1))}},
        {kDeleted, 1, nullptr, {C(memm_isvalidobj(b.p)), C(same(dynstr_getstring(b.d()), DYNSTR_TEXT_DELETED)),
            L(same(dynstr_getstring_nolock(b.d()), DYNSTR_TEXT_DELETED)),
            C(dup_is(dynstr_strdup(b.d()), DYNSTR_TEXT_DELETED))}},
        {kAnyPtr & ~kFreed, 0, nullptr, {C(memm_isvalidobjfrompool(plain, b.p)), C(memm_isvalidobj_ex(b.p))}},
        {kFreed, 1, nullptr, {C(memm_isvalidobjfrompool(plain, b.p)), C(memm_isvalidobj_ex(b.p)),
            C(memm_instanceof_no_ori(b.p, MEMM_STATE_POOLID_MASK))}},
        {kStrPool | kNoSuchPool, 0, nullptr, {C(memm_isvalidobjfrompool(b.id, obj))}},
        {kNull | kFreed, 1, nullptr, {C(memm_instanceof(b.p, MEMM_INVALID_POOL)),
            C(same(memm_get_poolname(b.p), MEMM_INVALID_POOLNAME))}},
        {kNull, 1, nullptr, {C(memm_instanceof_no_ori(b.p, MEMM_INVALID_POOL))}},
        {kNull, MEMM_INVALID_POOL, nullptr, {C(memm_get_poolid(b.p))}},
        {kFreed, MEMM_STATE_POOLID_MASK, nullptr, {C(memm_get_poolid(b.p))}},
        {kNoSuchPool, 1, nullptr, {C(same(memm_get_poolname2(b.id), MEMM_INVALID_POOLNAME))}},
        {kNoSuchPool, kInvalidArg, nullptr, {C(memm_get_stats(b.id, &u, &u, &u))}},
        {0, MEMM_OK, nullptr, {C(memm_get_overall_stats(nullptr, nullptr, nullptr, nullptr, nullptr)),
            C(dynstr_addstring_size(rec, nullptr, 1))}},
        {kNotObj, 0, nullptr, {C(memm_printobject2(b.p, 1, quiet)), C(memm_printobject(b.p, 1)),
            C(dynstr_strcmp(b.d(), nullptr)), C(dynstr_strcmp2(b.d(), DYNSTR_TEXT_NOT_MEMMSTR)),
            C(dynstr_strcmpi(b.d(), nullptr)), C(dynstr_strncmp(b.d(), nullptr, 5)),
            C(dynstr_strncmp2(b.d(), "*NOT_", 5))}},
        {0, MEMM_INVALID_POOL, "[DYNSTR] dynstr_initpool(): invalid buffer count 0",
            {C(dynstr_initpool2("x", 4, 64, 0))}},
        {0, MEMM_INVALID_POOL, "[DYNSTR] dynstr_initpool(): invalid record count 2147483643",
            {C(dynstr_initpool2("x", 2147483643u, 64, 1))}},
        {0, MEMM_INVALID_POOL, nullptr, {C(dynstr_initpool2(nullptr, 4, 64, 1)), C(dynstr_initpool(nullptr, 4, 64))}},
        {kDeleted, 0, "", {C(dynstr_refalloc(b.d()))}},
        {kNotRec, 0, nullptr, {C(dynstr_isdynstring(b.p)), C(dynstr_getmaxsize(b.d())), C(dynstr_fromdynstr(b.d())),
            C(dynstr_fromsubdynstr(b.d(), 0, 1)), C(dynstr_fromlastsep(b.d(), '*')),
            C(strlist_fromdynstr(b.d(), ",", nodes))}},
        {kNull, 0, nullptr, {C(dynstr_strlen(b.d()))}},
        {kNotRec, kInvalidArg, nullptr, {C(dynstr_setmaxsize(b.d(), 8)), C(dynstr_reset(b.d())),
            C(dynstr_setstring(b.d(), "x")), C(dynstr_setdynstr(b.d(), rec)), C(dynstr_setdynstr(rec, b.d())),
            C(dynstr_setsubstring(b.d(), "x", 0, 1)), C(dynstr_setsubdynstr(b.d(), rec, 0, 1)),
            C(dynstr_setsubdynstr(rec, b.d(), 0, 1)), C(dynstr_setliteral(b.d(), "x")),
            C(dynstr_sprintf(b.d(), "%d", 1)), C(dynstr_addsprintf(b.d(), "%d", 1)),
            C(dynstr_addstring_size(b.d(), "x", 1)), C(dynstr_addstring(b.d(), "x")), C(dynstr_adddynstr(b.d(), rec)),
            C(dynstr_adddynstr(rec, b.d())), C(dynstr_setulong(b.d(), 1)), C(dynstr_setuint32(b.d(), 1)),
            C(dynstr_setlong(b.d(), 1)), C(dynstr_setint32(b.d(), 1)), C(dynstr_setipv4addr(b.d(), 1)),
            C(dynstr_setipaddr(b.d(), 1)), C(dynstr_setipv6addr(b.d(), bytes)), C(dynstr_setipaddr_any(b.d(), &ip)),
            C(dynstr_setbool(b.d(), 1)), C(dynstr_sethexstring(b.d(), bytes, 2)), C(dynstr_getuint32(b.d(), &u)),
            C(dynstr_getulong(b.d(), &u)), C(dynstr_getint32(b.d(), &s)), C(dynstr_getlong(b.d(), &s)),
            C(dynstr_getbool(b.d(), &flag)), C(dynstr_getipv4addr(b.d(), &u)), C(dynstr_getipaddr(b.d(), &u)),
            C(dynstr_getipv6addr(b.d(), out)), C(dynstr_getipaddr_any(b.d(), &ip)), C(dynstr_getmacaddr(b.d(), out)),
            C(dynstr_gethexstring(b.d(), out, 16)), C(dynstr_replace_char(b.d(), 'k', 'x', &u))}},
        {kNotStrPool, MEMM_OK, nullptr, {C(dynstr_pool_set_dellist_threshold(b.id, 1))}},
        {kNotStrPool, 1, nullptr, {C(dynstr_integrity_check(b.id, 1))}},
        {kNotStrPool, 0, nullptr, {C(dynstr_fromstring(b.id, "x")), C(dynstr_fromsubstring(b.id, "xy", 0, 1)),
            C(dynstr_fromliteral(b.id, "x")), C(dynstr_fromprintf(b.id, "%d", 1)), C(fromvprintf(b.id, "%d", 1)),
            C(dynstr_fromulong(b.id, 1)), C(dynstr_fromuint32(b.id, 1)), C(dynstr_fromlong(b.id, 1)),
            C(dynstr_fromint32(b.id, 1)), C(dynstr_fromipv4addr(b.id, 1)), C(dynstr_fromipaddr(b.id, 1)),
            C(dynstr_hexstringfromdata(b.id, bytes, 2)), C(dynstr_fromstrlist(b.id, slist, ",")),
            C(dynstr_frompartialstrlist(b.id, slist, ",", 0, 1)),
            C(dynstr_fromstrlist_escaped(b.id, slist, ",", '^')), C(strlist_fromstring("a,b", ",", nodes, b.id)),
            [&](Bad b) -> Value { (void)b; char t[] = "a^,b,c"; return strlist_fromstring_escaped(t, ',', '^', nodes, b.id); },
            C(strlist_fromstringarr(arr, nodes, b.id)), C(strlist_clone(slist, nodes, b.id)),
            C(strlist_todynstr(slist, ",", b.id)), C(strlist_partialtodynstr(slist, ",", b.id, 0, 1))}},
        {0, kInvalidArg, nullptr, {C(dynstr_setstring(rec, nullptr)), C(dynstr_setsubstring(rec, nullptr, 0, 1)),
            C(dynstr_setliteral(rec, nullptr)), C(dynstr_sprintf(rec, nullptr)), C(dynstr_addsprintf(rec, nullptr)),
            C(dynstr_addstring(rec, nullptr)), C(dynstr_adddynstr(rec, rec)), C(dynstr_setipv6addr(rec, nullptr)),
            C(dynstr_setipaddr_any(rec, nullptr)), C(dynstr_setipaddr_any(rec, &no_family)),
            C(dynstr_getuint32(num, nullptr)), C(dynstr_getulong(num, nullptr)), C(dynstr_getint32(num, nullptr)),
            C(dynstr_getlong(num, nullptr)), C(dynstr_getbool(num, nullptr)), C(dynstr_getipv4addr(v4, nullptr)),
            C(dynstr_getipaddr(v4, nullptr)), C(dynstr_getipv6addr(v6, nullptr)),
            C(dynstr_getipaddr_any(v6, nullptr)), C(dynstr_getmacaddr(mac, nullptr)),
            C(dynstr_gethexstring(num, nullptr, 16)), C(dynstr_replace_char(rec, 0, 'x', &u)),
            C(dynstr_replace_char(rec, 'k', 0, &u)), C(strlist_addstring(nullptr, "x", nodes, strings)),
            C(strlist_addliteral(nullptr, "x", nodes, strings)), C(strlist_adduint32(nullptr, 1, nodes, strings)),
            C(strlist_addulong(nullptr, 1, nodes, strings)),
            C(dynstr_refalloc(rec), strlist_adddynstr(nullptr, rec, nodes)), C(strlist_addref(nullptr, rec, nodes)),
            C(strlist_getuint32_at(list, &u, 0)), C(strlist_getuint32_at(slist, &u, 1)),
            C(strlist_getulong_at(list, &u, 0)), C(strlist_getulong_at(nullptr, &u, 0)),
            C(strlist_setstring_at(list, "x", 0)), C(strlist_setstring_at(slist, "x", 1)),
            C(strlist_setstring_at(nullptr, "x", 0))}},
        {kNotObj, 1, nullptr, {C(same(dynstr_getstring(b.d()), DYNSTR_TEXT_NOT_MEMMSTR)),
            L(same(dynstr_getstring_nolock(b.d()), DYNSTR_TEXT_NOT_MEMMSTR)),
            [&](Bad b) -> Value { (void)b; char t[16]; return same(dynstr_strncpy(t, b.d(), sizeof t), DYNSTR_TEXT_NOT_MEMMSTR); },
            C(dup_is(dynstr_strdup(b.d()), DYNSTR_TEXT_NOT_MEMMSTR)), C(llist_free_plist(&l) == MEMM_OK && !l)}},
        {kPlainObj, 1, nullptr, {C(same(dynstr_getstring(b.d()), DYNSTR_TEXT_NOT_DYNSTR)),
            L(same(dynstr_getstring_nolock(b.d()), DYNSTR_TEXT_NOT_DYNSTR))}},
        {kDeleted, 0, nullptr, {C(dynstr_strcmp2(b.d(), DYNSTR_TEXT_DELETED))}},
        {0, 1, nullptr, {C(dynstr_strcmp2(rec, nullptr) > 0), C(dynstr_strcmpi2(rec, nullptr) > 0),
            C(dynstr_strncmp2(rec, nullptr, 5) > 0),
            [&](Bad b) -> Value { (void)b; char t[] = "abc"; return dynstr_strncpy(t, rec, 0) == t && same(t, "abc"); },
            C(same(strlist_getstring_at(list, 0), "")), C(same(strlist_getstring_at(slist, 1), "")),
            C(same(strlist_getstring_at(nullptr, 0), ""))}},
        {kPlainObj, 0, nullptr, {C(dynstr_strcmpi2(b.d(), "*not_dynstr*"))}},
        {kNotNodePool, kNoMemory, "", {C(llist_addobject(&list, obj, b.id)), C(llist_addref(&list, obj, b.id)),
            C(llist_insert_at(&list, obj, 0, b.id)), C(llist_pushobject(&list, obj, b.id)),
            C(strlist_adddynstr(&slist, rec, b.id)), C(strlist_addref(&slist, rec, b.id))}},
        {0, kInvalidArg, "", {C(memm_refalloc(obj), llist_addobject(nullptr, obj, nodes)),
            L(memm_refalloc_nolock(obj), llist_addobject_nolock(nullptr, obj, nodes)),
            C(llist_addref(nullptr, obj, nodes)), C(llist_insert_at(nullptr, obj, 0, nodes)),
            C(llist_insert_at(&list, obj, 2, nodes)), C(llist_pushobject(nullptr, obj, nodes)),
            C(llist_delete_at(nullptr, 0)), C(llist_delete_at(&list, 1)), C(llist_delete_at(&list, -2)),
            C(llist_delete_byobject(nullptr, obj)), C(llist_remove_at(nullptr, 0)), C(llist_remove_at(&list, 1)),
            C(llist_remove_byobject(nullptr, obj)), C(llist_unlink_at(nullptr, 0)), C(llist_unlink_at(&list, 1)),
            C(llist_unlink_byobject(nullptr, obj)), C(llist_move_byobject(nullptr, &spare, obj)),
            C(llist_move_byobject(&list, nullptr, obj)), C(llist_setobject_at(list, obj, 1)),
            C(llist_free_plist(nullptr)), C(llist_sort(nullptr, by_address)), C(llist_sort(&list, nullptr)),
            C(llist_sort_ex(nullptr, nullptr, by_address_ex)), C(llist_sort_ex(&list, nullptr, nullptr)),
            C(llist_reverse(nullptr)), C(llist_clone(nullptr, list, nodes)), C(llist_addlist(nullptr, spare)),
            C(llist_addlist(&list, nullptr)), C(llist_insert_list_at(nullptr, spare, 0)),
            C(llist_insert_list_at(&list, spare, 2)), C(strlist_delete_at(nullptr, 0)),
            C(strlist_delete_at(&slist, 1)), C(strlist_remove_at(nullptr, 0)), C(strlist_remove_at(&slist, 1)),
            C(strlist_remove_byobject(nullptr, rec))}},
        {kNotNodePool, 0, "", {C(llist_refalloc(list, b.id)), C(strlist_refalloc(slist, b.id))}},
        {kBadNode, kInvalidArg, "", {C(llist_delete_at(&l, 0)), C(llist_delete_at(&l, -1)),
            C(llist_delete_byobject(&l, obj)), C(llist_remove_at(&l, 0)), C(llist_remove_byobject(&l, obj)),
            C(llist_unlink_at(&l, 0)), C(llist_unlink_byobject(&l, obj)), C(llist_move_byobject(&l, &spare, obj))}},
        {kNotObj, kInvalidArg, "", {C(llist_delete_byobject(&list, b.p)), C(llist_remove_byobject(&list, b.p)),
            C(llist_unlink_byobject(&list, b.p)), C(llist_move_byobject(&list, &spare, b.p)),
            C(llist_setobject_at(b.n(), obj, 0))}},
        {kBadNode, 0, "", {C(llist_getandremove_at(&l, 0)), C(llist_getandremove_at(&l, -1)),
            C(llist_getandunlink_at(&l, 0)), C(llist_getandunlink_byobject(&l, obj)), C(llist_split_at(&l, 1)),
            C(llist_split_at(&l, -1))}},
        {0, 0, "", {C(llist_getandremove_at(nullptr, 0)), C(llist_getandremove_at(&list, 1)),
            C(llist_popobject(nullptr)), C(llist_getandunlink_at(nullptr, 0)), C(llist_getandunlink_at(&list, 1)),
            C(llist_getandunlink_byobject(nullptr, obj)), C(llist_get_at(list, 1)), C(llist_get_at(list, -2)),
            C(llist_getobject_at(list, 1)), C(llist_searchobject(list, obj, nullptr)),
            C(llist_searchobject(nullptr, obj, every)), C(llist_getlength(nullptr)), C(llist_split_at(nullptr, 0)),
            C(llist_split_at(&list, 2)), C(llist_split_at(&list, -2)),
            C(llist_get_bytype(nullptr, LLIST_TYPE_ANY, 0)), C(llist_enum_bytype(list, plain, nullptr, &last)),
            C(llist_enum_bytype(list, plain, &i, nullptr)),
            C(i = 0, last = nullptr, llist_enum_bytype(nullptr, plain, &i, &last)),
            C(i = 0, dlast = nullptr, llist_enum_dynstr(list, &i, &dlast)),
            C(llist_enum_dynstr(slist, nullptr, &dlast)), C(llist_enum_dynstr(slist, &i, nullptr)),
            C(llist_enumcb_bytype(list, plain, nullptr, nullptr)),
            C(llist_enumcb_bytype(list, LLIST_TYPE_ANY, every, nullptr))}},
        {kBadNode | kNull, 0, "", {C(llist_popobject(&l))}},
        {kNotObj, 0, "", {C(llist_getandunlink_byobject(&list, b.p)), C(llist_get_first(b.n())),
            C(llist_get_next(b.n())), C(llist_get_at(b.n(), 0)), C(llist_get_at(b.n(), -1)),
            C(llist_getobject_at(b.n(), 0)), C(llist_getobject_this(b.n())), C(llist_search_byobject(list, b.p)),
            C(llist_inlist(list, b.p)), C(llist_getreallength(b.n()))}},
        {kNotObj, 0xFFFFFFFFu, "", {C(llist_getindex_byobject(list, b.p))}},
        {kNotNodePool, MEMM_OK, "", {C(llist_insert_sorted(&list, obj, b.id, by_address))}},
        {0, MEMM_OK, "", {C(llist_insert_sorted(nullptr, obj, nodes, by_address)),
            C(llist_insert_sorted(&list, obj, nodes, nullptr)), C(llist_insert_list_at(&list, nullptr, 0))}},
        {kBadNode, 1, "", {C(llist_split_at(&l, 0) == b.n() && !l)}},
        {kNotNodePool, 1, "", {C(l = nullptr, llist_clone(&l, list, b.id) == kNoMemory && !l)}},
        {kBeyond | kUnused | kNodePool, 0, "", {C(llist_get_bytype(list, b.id, 0)),
            C(i = 0, last = nullptr, llist_enum_bytype(list, b.id, &i, &last)),
            C(llist_enumcb_bytype(list, b.id, every, nullptr))}},
        {kNotStrPool, kNoMemory, nullptr, {C(strlist_addstring(&slist, "x", nodes, b.id)),
            C(strlist_addliteral(&slist, "x", nodes, b.id)), C(strlist_adduint32(&slist, 1, nodes, b.id)),
            C(strlist_addulong(&slist, 1, nodes, b.id))}},
        {kNotNodePool, kNoMemory, nullptr, {C(strlist_addstring(&slist, "x", b.id, strings)),
            C(strlist_addliteral(&slist, "x", b.id, strings)), C(strlist_adduint32(&slist, 1, b.id, strings)),
            C(strlist_addulong(&slist, 1, b.id, strings))}},
        {0, kNoMemory, nullptr, {C(strlist_addstring(&slist, nullptr, nodes, strings)),
            C(strlist_addliteral(&slist, nullptr, nodes, strings))}},
        {kNotNodePool, 0, nullptr, {C(strlist_fromstring("a,b", ",", b.id, strings)),
            C(strlist_fromdynstr(rec, ",", b.id)),
            [&](Bad b) -> Value { (void)b; char t[] = "a^,b,c"; return strlist_fromstring_escaped(t, ',', '^', b.id, strings); },
            C(strlist_fromstringarr(arr, b.id, strings)), C(strlist_clone(slist, b.id, strings))}},
        {kNotRec, kInvalidArg, "", {C(strlist_remove_byobject(&slist, b.d()))}},
    };
    for (size_t r = 0; r < sizeof rows / sizeof rows[0]; r++) {
        const Row &row = rows[r];
        for (size_t c = 0; c < row.calls.size(); c++)
            for (uint32_t k = 0; k < kKinds; k++) {
                if (row.kinds ? !(row.kinds & (1u << k)) : k > 0)
                    continue;
                SCOPED_TRACE(::testing::Message() << "row " << r << ", call " << c << ", bad input " << k);
                const std::vector<uint32_t> before = pool_figures();
                memm_test::clear_logs();
                EXPECT_EQ(row.calls[c](bad[k]).v, row.expected);
                const size_t lines = memm_test::log_texts().size();
                if (row.log) {
                    EXPECT_TRUE(*row.log ? lines > 0 && log_count_prefix(row.log) == lines : lines == 0);
                }
                EXPECT_EQ(pool_figures(), before);
                EXPECT_TRUE(memm_test::sound());
                EXPECT_STREQ(dynstr_getstring(rec), "kept");
                EXPECT_STREQ(dynstr_getstring(deleted), DYNSTR_TEXT_DELETED);
                EXPECT_TRUE(list == first && spare == spare_first && slist == sfirst);
                EXPECT_TRUE(llist_getlength(list) == 1 && llist_getlength(spare) == 1 && llist_getlength(slist) == 1);
            }
    }
}
