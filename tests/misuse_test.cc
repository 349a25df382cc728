// Misuse: null, foreign, released and wrong-kind pointers and bad pool ids
// give their documented result instead of a crash, change nothing and leave
// every pool sound. One call stands for each way of checking input: thin
// wrappers, _nolock twins and functions that share a check are not repeated. A row lists the calls that share one
// expected result, the bad inputs they are run with (0: once, as written) and
// the log it expects (null: not checked; "": nothing; else every line begins so).
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
    void *obj = memm_calloc(plain), *freed = memm_calloc(plain), *unreadable = behind_unreadable_page();
    ASSERT_EQ(memm_free(freed), MEMM_OK);
    ASSERT_NE(unreadable, nullptr);
    dynstr *rec = dynstr_fromstring(strings, "kept"), *deleted = dynstr_fromstring(strings, "released");
    ASSERT_NE(dynstr_fromstring(strings, "behind"), nullptr); // keeps the released text in its buffer
    memm_free(deleted); // a placeholder, its slot still in use
    dynstr *num = dynstr_fromstring(strings, "12"); // parses, so a getter's null output is what it refuses
    llist_node *list = nullptr, *slist = nullptr;     // a plain object's list, and a string list
    ASSERT_EQ(llist_addref(&list, obj, nodes), MEMM_OK);
    ASSERT_EQ(strlist_addref(&slist, rec, nodes), MEMM_OK);
    llist_node *const first = list, *const sfirst = slist;

    const Bad bad[kKinds] = {{nullptr, 0},       {foreign_area + 16, 0}, {unreadable, 0}, {freed, 0},
                             {deleted, 0},       {obj, 0},               {nullptr, MEMM_INVALID_POOL},
                             {nullptr, 0x7FFF},  {nullptr, unused},      {nullptr, 0},
                             {nullptr, plain},   {nullptr, strings},     {nullptr, nodes}};
    uint32_t u = 0, i = 0;
    void *last = nullptr;
    dynstr *dlast = nullptr;
    const char *const arr[] = {"a", "b", nullptr};

    // A call is here when it catches a library fault no other call catches:
    // functions that share their validation with a listed one (the _nolock
    // twins, the strlist forwards to llist, sibling setters, getters and
    // constructors) are left out.
    const Row rows[] = {
        {0, MEMM_ERR_ALREADY_INITIALIZED, nullptr, {C(memm_init(8, 2))}},
        {kNoSuchPool, 0, nullptr, {C(memm_disallow_expansion(b.id), 0),
            C(memm_instanceof_with_mem_range_check(obj, b.id))}},
        {kNotObj, MEMM_OK, nullptr, {C(memm_free(b.p))}},
        {kAnyPtr, 0, nullptr, {C(memm_isvalidobj(b.p))}},
        {kDeleted, 1, nullptr, {C(memm_isvalidobj(b.p))}},
        {kAnyPtr & ~kFreed, 0, nullptr, {C(memm_isvalidobj_ex(b.p))}},
        {kFreed, 1, nullptr, {C(memm_isvalidobj_ex(b.p))}},
        {kNotObj, 0, nullptr, {C(memm_printobject2(b.p, 1, quiet)), C(dynstr_strcmp(b.d(), nullptr))}},
        {kNull | kFreed, 0, nullptr, {C(dynstr_refalloc(b.d()))}},
        {0, MEMM_INVALID_POOL, "[DYNSTR] dynstr_initpool(): invalid buffer count 0",
            {C(dynstr_initpool2("x", 4, 64, 0))}},
        {0, MEMM_INVALID_POOL, "[DYNSTR] dynstr_initpool(): invalid record count 2147483643",
            {C(dynstr_initpool2("x", 2147483643u, 64, 1))}},
        {0, MEMM_INVALID_POOL, nullptr, {C(dynstr_initpool2(nullptr, 4, 64, 1))}},
        {kNotStrPool, 0, nullptr, {C(dynstr_fromulong(b.id, 1))}},
        {kNotRec, kInvalidArg, nullptr, {C(dynstr_setstring(b.d(), "x")), C(dynstr_addstring_size(b.d(), "x", 1)),
            C(dynstr_getuint32(b.d(), &u)), C(dynstr_setsubdynstr(rec, b.d(), 0, 1)), C(dynstr_adddynstr(rec, b.d()))}},
        {0, kInvalidArg, nullptr, {C(dynstr_setliteral(rec, nullptr)), C(dynstr_getuint32(num, nullptr)),
            C(dynstr_gethexstring(num, nullptr, 16)), C(dynstr_replace_char(rec, 0, 'x', &u)),
            C(dynstr_refalloc(rec), strlist_adddynstr(nullptr, rec, nodes))}},
        {0, 0, nullptr, {C(dynstr_fromliteral(strings, nullptr)), C(dynstr_strncpy(nullptr, rec, 8)),
            C(dynstr_frompartialstrlist(strings, list, ",", 0, 1)), C(strlist_fromstringarr(nullptr, nodes, strings)),
            C(strlist_getdynstr_at(slist, 1))}},
        {0, 1, nullptr,
            {[&](Bad) -> Value { char t[] = "abc"; return dynstr_strncpy(t, rec, 0) == t && !strcmp(t, "abc"); }}},
        {0, kInvalidArg, "", {C(llist_insert_at(&list, obj, 2, nodes)), C(llist_delete_at(nullptr, 0)),
            C(llist_sort(nullptr, by_address)), C(llist_sort_ex(nullptr, nullptr, by_address_ex))}},
        {kNotObj, kInvalidArg, "", {C(llist_delete_byobject(&list, b.p))}},
        {kBadNode, 0, "", {C(llist_getandremove_at(&l, 0))}},
        {0, 0, "", {C(i = 0, dlast = nullptr, llist_enum_dynstr(list, &i, &dlast)),
            C(llist_enumcb_bytype(list, LLIST_TYPE_ANY, every, nullptr))}},
        {kNotObj, 0, "", {C(llist_search_byobject(list, b.p)), C(llist_inlist(list, b.p))}},
        {kNotObj, 0xFFFFFFFFu, "", {C(llist_getindex_byobject(list, b.p))}},
        {0, MEMM_OK, "", {C(llist_insert_sorted(nullptr, obj, nodes, by_address))}},
        {kBeyond | kUnused | kNodePool, 0, "", {C(i = 0, last = nullptr, llist_enum_bytype(list, b.id, &i, &last))}},
        {kNotNodePool, kNoMemory, nullptr, {C(strlist_addstring(&slist, "x", b.id, strings)),
            C(strlist_addliteral(&slist, "x", b.id, strings)), C(strlist_adduint32(&slist, 1, b.id, strings))}},
        {kNotNodePool, 0, nullptr, {C(strlist_fromstringarr(arr, b.id, strings))}},
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
                EXPECT_TRUE(!row.log || (*row.log ? lines > 0 && log_count_prefix(row.log) == lines : lines == 0));
                EXPECT_EQ(pool_figures(), before);
                EXPECT_TRUE(memm_test::sound());
                EXPECT_STREQ(dynstr_getstring(rec), "kept");
                EXPECT_STREQ(dynstr_getstring(deleted), DYNSTR_TEXT_DELETED);
                EXPECT_TRUE(list == first && slist == sfirst);
                EXPECT_TRUE(llist_getlength(list) == 1 && llist_getlength(slist) == 1);
            }
    }
}
