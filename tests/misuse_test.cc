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
    void *obj = memm_calloc(plain);
    void *foreign = behind_unreadable_page();
    ASSERT_NE(foreign, nullptr);

    const Row rows[] = {
        {"memm_isvalidobj, header in an unreadable page", [&] { return memm_isvalidobj(foreign); }, 0},
        {"memm_isvalidobj_nolock, header in an unreadable page", [&] { return memm_isvalidobj_nolock(foreign); }, 0},
        {"memm_isvalidobj, pointer below the header size",
         [&] { return memm_isvalidobj(reinterpret_cast<void *>(uintptr_t(8))); }, 0},
        {"memm_isvalidobj, a live object", [&] { return memm_isvalidobj(obj); }, 1},
        {"memm_isvalidobj_nolock, a descriptor", [&] { return memm_isvalidobj_nolock(memm_get_pool_nolock(plain)); }, 1},
    };
    for (const Row &row : rows) {
        const std::vector<uint32_t> before = pool_figures();
        EXPECT_EQ(row.call(), row.expected) << row.what;
        EXPECT_EQ(pool_figures(), before) << row.what;
        EXPECT_TRUE(pools_sound(strings)) << row.what;
    }
}
