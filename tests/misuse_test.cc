// Misuse: pointers that are no objects, pools of the wrong kind and null
// arguments give their documented result instead of a crash, change nothing
// and leave every pool sound.
#include <gtest/gtest.h>

#include <stdarg.h>
#include <sys/mman.h>
#include <unistd.h>

#include <functional>

#include "dynstr.h"
#include "llist.h"
#include "memm.h"
#include "syslog_capture.h"

namespace {

using memm_test::log_count_prefix;

struct Row {
    const char *what;
    std::function<uintptr_t()> call; // a result code, a flag, or a pointer as a number
    uintptr_t expected;
};

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

// A readable pointer whose 16 bytes in front lie in a page that cannot be read.
void *behind_unreadable_page() {
    const size_t page = size_t(sysconf(_SC_PAGESIZE));
    void *map = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED || mprotect(map, page, PROT_NONE) != 0)
        return nullptr;
    return static_cast<uint8_t *>(map) + page; // kept mapped for the process
}

} // namespace

TEST(Misuse, BadPointersAndPoolsGiveTheirResultAndChangeNothing) {
    ASSERT_EQ(memm_init(8, 2), MEMM_OK);
    const uint32_t plain = memm_initpool("plain", 4, 4, nullptr);
    const uint32_t strings = dynstr_initpool2("strings", 8, 256, 2);
    ASSERT_NE(plain, MEMM_INVALID_POOL);
    ASSERT_NE(strings, MEMM_INVALID_POOL);
    const uint32_t nodes = llist_initpool("nodes", 4, sizeof(llist_node), nullptr);
    void *obj = memm_calloc(plain);
    void *foreign = behind_unreadable_page();
    ASSERT_NE(foreign, nullptr);
    dynstr *rec = dynstr_fromstring(strings, "kept");
    dynstr *released = dynstr_fromstring(strings, "released");
    ASSERT_NE(dynstr_fromstring(strings, "behind"), nullptr); // keeps the released text in its buffer
    memm_free(released);
    ASSERT_TRUE(released->flags & DYNSTR_FLAG_DELETED); // a placeholder, its slot still in use
    llist_node *list = nullptr;
    ASSERT_EQ(llist_addref(&list, obj, nodes), MEMM_OK);
    llist_node *const first = list;

    const Row rows[] = {
        {"memm_isvalidobj, header in an unreadable page", [&] { return memm_isvalidobj(foreign); }, 0},
        {"memm_isvalidobj_nolock, header in an unreadable page", [&] { return memm_isvalidobj_nolock(foreign); }, 0},
        {"memm_isvalidobj, pointer below the header size",
         [&] { return memm_isvalidobj(reinterpret_cast<void *>(uintptr_t(8))); }, 0},
        {"memm_isvalidobj, a live object", [&] { return memm_isvalidobj(obj); }, 1},
        {"memm_isvalidobj_nolock, a descriptor", [&] { return memm_isvalidobj_nolock(memm_get_pool_nolock(plain)); }, 1},
        {"dynstr_setdynstr, source of a plain pool", [&] { return dynstr_setdynstr(rec, static_cast<dynstr *>(obj)); },
         MEMM_ERR_INVALID_ARG},
        {"dynstr_setdynstr_nolock, source of a plain pool",
         [&] {
             memm_lock("misuse");
             const uint32_t r = dynstr_setdynstr_nolock(rec, static_cast<dynstr *>(obj));
             memm_unlock();
             return r;
         },
         MEMM_ERR_INVALID_ARG},
        {"dynstr_setdynstr, released source", [&] { return dynstr_setdynstr(rec, released); }, MEMM_ERR_INVALID_ARG},
        {"dynstr_refalloc, released record", [&] { return uintptr_t(dynstr_refalloc(released)); }, 0},
        {"llist_addobject, plain pool as node pool", [&] { return llist_addobject(&list, obj, plain); },
         MEMM_ERR_NO_MEMORY},
        {"llist_addobject, string pool as node pool", [&] { return llist_addobject(&list, obj, strings); },
         MEMM_ERR_NO_MEMORY},
        {"llist_addref, plain pool as node pool", [&] { return llist_addref(&list, obj, plain); }, MEMM_ERR_NO_MEMORY},
        {"llist_insert_at, string pool as node pool", [&] { return llist_insert_at(&list, obj, 0, strings); },
         MEMM_ERR_NO_MEMORY},
        {"llist_pushobject, descriptor pool as node pool", [&] { return llist_pushobject(&list, obj, 0); },
         MEMM_ERR_NO_MEMORY},
        {"llist_refalloc, plain pool as node pool", [&] { return uintptr_t(llist_refalloc(list, plain)); }, 0},
        {"dynstr_fromprintf, null format", [&] { return uintptr_t(dynstr_fromprintf(strings, nullptr)); }, 0},
        {"dynstr_fromvprintf, null format", [&] { return uintptr_t(fromvprintf(strings, nullptr)); }, 0},
        {"dynstr_addsprintf, null format", [&] { return dynstr_addsprintf(rec, nullptr); }, MEMM_ERR_INVALID_ARG},
        {"dynstr_sprintf, null format", [&] { return dynstr_sprintf(rec, nullptr); }, MEMM_ERR_INVALID_ARG},
    };
    for (const Row &row : rows) {
        const std::vector<uint32_t> before = pool_figures();
        EXPECT_EQ(row.call(), row.expected) << row.what;
        EXPECT_EQ(pool_figures(), before) << row.what;
        EXPECT_TRUE(pools_sound(strings)) << row.what;
        EXPECT_STREQ(dynstr_getstring(rec), "kept") << row.what;
        EXPECT_EQ(list, first) << row.what;
        EXPECT_EQ(llist_getlength(list), 1u) << row.what;
    }
}
