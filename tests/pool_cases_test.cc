// What the pool model cannot express, one row per process: start-up, bad
// pool arguments, the descriptor table's growth, depletion of a faulty pool
// or inside its own report, the gc hook and reserve, release hooks, bad
// releases and reference limits, each with the exact log lines it leaves (a
// release line's address shown as <p>, its " called from ..." cut off).
// Growth by extensions and plain depletion are the model's (pool_model_test).
#include <string.h>

#include <atomic>
#include <functional>
#include <thread>

#include "fixture.h"
#include "report_files.h"

namespace {

using memm_test::fill;
using memm_test::fmt;
using Lines = std::vector<std::string>;

struct Row {
    const char *name;
    std::function<void()> run;
    Lines logs;
};
void PrintTo(const Row &row, std::ostream *os) { *os << row.name; }

uint8_t *slot_of(void *obj) { return static_cast<uint8_t *>(obj) - MEMM_OBJHDR_SIZE; }
std::string released(const char *what, int id) { return fmt("[MEMM] memm_free: %s: <p> (poolid = %d)", what, id); }
std::string extended(uint32_t root, const char *name, uint32_t ext, int n) {
    return fmt("[MEMM] Info: Pool [%d: %s] extended with an extra dynamic pool (%d, %d elements)", int(root), name,
               int(ext), n);
}
std::string depleted(const char *name) {
    return fmt("memm__calloc() failed for pool '%s' (pool depleted), POOL DEPLETED !!!!!!!!!!!!!!!", name);
}
std::string failed(const char *name) { return fmt("memm__calloc() failed for pool '%s' (pool depleted)", name); }
std::string table_grown(int n) {
    return fmt("[MEMM] Info: Pooldescr [%s] reallocated to increase its size (%d elements)", MEMM_POOLDESC_NAME, n);
}
const std::string kBroken = "pool %d:%s has bookkeeping error (free[%d] + used[%d] != alloc[%d])\r\n";

// The gc hook: answers "try again" give_up_after times, releasing one
// object of to_release at each attempt.
struct Gc {
    std::vector<int32_t> attempts;
    int give_up_after = 0;
    std::vector<void *> to_release;
};
int gc_hook(void *cookie, int32_t attempt) {
    auto *gc = static_cast<Gc *>(cookie);
    gc->attempts.push_back(attempt);
    if (!gc->to_release.empty())
        memm_free_nolock(gc->to_release.back()), gc->to_release.pop_back();
    return int(gc->attempts.size()) <= gc->give_up_after;
}
uint32_t gc_pool(Gc *gc, int count, uintptr_t reserve = 0) {
    memm_pool_options opts = {};
    opts.gc = gc_hook, opts.cookie = gc, opts.reserve = reserve;
    return memm_initpool("collected", count, 8, &opts);
}

uint32_t g_hook_calls, g_hook_result;
uint32_t counting_free_ex(void *) { return g_hook_calls++, g_hook_result; }
std::vector<void *> g_children;
uint32_t cascade(void *obj, memm_release_fn release) { // releases what obj owns
    uint32_t state;
    memcpy(&state, slot_of(obj), 4);
    EXPECT_TRUE(state & MEMM_STATE_RELEASING);
    g_hook_calls++;
    std::vector<void *> children;
    children.swap(g_children);
    for (void *child : children)
        EXPECT_EQ(release(child), MEMM_OK);
    return MEMM_OK;
}
std::atomic<bool> g_other_locked{false};
uint32_t lock_elsewhere(void *, memm_release_fn) { // deadlocks if run under the lock
    std::thread([] { memm_lock("other"), g_other_locked = true, memm_unlock(); }).join();
    return MEMM_OK;
}
// Whether the lock was held while the hook ran: only its holder may unlock it.
bool g_held;
uint32_t note_lock(void *, memm_release_fn) {
    if ((g_held = memm_unlock() == 0))
        memm_lock("again");
    return MEMM_OK;
}
uint32_t g_hungry;
void allocating_print2(void *, memm_print_fn) { EXPECT_EQ(memm_calloc(g_hungry), nullptr); }

const Row kRows[] = {
    {"FailedStartsLeaveTheLibraryNotStarted",
     [] {
         EXPECT_EQ(memm_init(1, 0), MEMM_ERR_INVALID_ARG);
         EXPECT_EQ(memm_init(16, 6000000), MEMM_ERR_NO_MEMORY); // the string family undoes the start
         EXPECT_EQ(memm_get_number_of_pools(), 0u);
         EXPECT_EQ(memm_initpool("early", 4, 4, nullptr), MEMM_INVALID_POOL);
         EXPECT_EQ(memm_init(2, 1), MEMM_OK);
         EXPECT_STREQ(memm_get_poolname2(1), "dynstr_pool");
         EXPECT_STREQ(dynstr_getstring(dynstr_fromstring(dynstr_initpool("s", 4, 64), "text")), "text");
         EXPECT_EQ(memm_init(8, 0), MEMM_ERR_ALREADY_INITIALIZED);
     },
     {"[MEMM] Error: memm_init() needs room for at least 2 pools (asked for 1)", "[MEMM] Failed to allocate dynstr_pool buffer (cnt=6000000, objsize=400)",
      "dynstring init failed", "loc__initpool() called before mem_init()",
      "[MEMM] Failed to allocate early buffer (cnt=4, objsize=4)", table_grown(5),
      "memm_init() may only be called once per process!"}},
    {"BadPoolArguments",
     [] {
         ASSERT_EQ(memm_init(8, 0), MEMM_OK);
         for (auto [name, count, size] : {std::tuple<const char *, int32_t, int32_t>{nullptr, 4, 8}, {"zero", 0, 8},
                                          {"neg", -3, 8}, {"nosize", 4, 0}, {"negsize", 4, -1}, {"huge", 0x7FFFFFFF, 64}})
             EXPECT_EQ(memm_initpool(name, count, size, nullptr), MEMM_INVALID_POOL);
         EXPECT_NE(memm_initpool("dup", 4, 32, nullptr), MEMM_INVALID_POOL);
         EXPECT_EQ(memm_initpool("dup", 4, 32, nullptr), MEMM_INVALID_POOL);
         EXPECT_EQ(memm_initpool(MEMM_POOLDESC_NAME, 4, 32, nullptr), MEMM_INVALID_POOL);
         EXPECT_NE(memm_initpool("", 4, 32, nullptr), MEMM_INVALID_POOL); // empty names may repeat
         EXPECT_NE(memm_initpool("", 4, 32, nullptr), MEMM_INVALID_POOL);
     },
     {"[MEMM] Failed to allocate <no_name> buffer (cnt=4, objsize=8)",
      "[MEMM] Failed to allocate zero buffer (cnt=0, objsize=8)", "[MEMM] Failed to allocate neg buffer (cnt=-3, objsize=8)",
      "[MEMM] Failed to allocate nosize buffer (cnt=4, objsize=0)",
      "[MEMM] Failed to allocate negsize buffer (cnt=4, objsize=-1)",
      "[MEMM] Failed to allocate huge buffer (cnt=2147483647, objsize=80)",
      "[MEMM] Failed to allocate dup buffer (cnt=4, objsize=48)",
      fmt("[MEMM] Failed to allocate %s buffer (cnt=4, objsize=48)", MEMM_POOLDESC_NAME)}},
    {"TheTableGrowsKeepingDescriptorsInPlace",
     [] {
         ASSERT_EQ(memm_init(3, 0), MEMM_OK);
         static char names[40][8];
         std::vector<memm_pooldesc *> descs;
         std::vector<void *> objs;
         for (int i = 0; i < 40; i++) {
             snprintf(names[i], sizeof names[i], "p%d", i);
             ASSERT_EQ(memm_initpool(names[i], 2, 8, nullptr), uint32_t(i + 1));
             descs.push_back(memm_get_pool_nolock(uint32_t(i + 1))), objs.push_back(memm_calloc(uint32_t(i + 1)));
         }
         EXPECT_EQ(memm_get_pool_nolock(0)->alloc_count, 45u);
         for (uint32_t i = 0; i < 40; i++) {
             EXPECT_TRUE(memm_get_pool_nolock(i + 1) == descs[i] && memm_get_poolid(objs[i]) == i + 1);
             EXPECT_TRUE(!strcmp(memm_get_poolname2(i + 1), names[i]) && memm_isvalidobj(descs[i]));
         }
     },
     {table_grown(6), table_grown(11), table_grown(18), table_grown(29), table_grown(45)}},
    // A chain grows the full descriptor table before it adds an extension.
    {"AnExtensionGrowsTheFullTable",
     [] {
         ASSERT_EQ(memm_init(2, 0), MEMM_OK);
         fill(memm_initpool("grow", 1, 8, nullptr), 3);
         memm_disallow_expansion(2); // the extension: switches ignore it
         memm_depletion_no_reboot(2);
         EXPECT_EQ(memm_get_pool_nolock(2)->flags, MEMM_POOLFLAG_REBOOT_ON_DEPLETION);
     },
     {table_grown(5), extended(1, "grow", 2, 3)}},
    {"AnIntegrityFaultIsLoggedAtEveryDepletedAllocation",
     [] {
         ASSERT_EQ(memm_init(4, 0), MEMM_OK);
         const uint32_t id = memm_initpool("broken", 2, 8, nullptr);
         memm_disallow_expansion(id);
         fill(id, 2);
         memm_get_pool_nolock(id)->cur_count = 1;
         memm_test::clear_logs();
         EXPECT_TRUE(!memm_calloc(id) && !memm_calloc(id));
         memm_get_pool_nolock(id)->cur_count = 2;
     },
     {"[MEMM] integrity check failed: " + fmt(kBroken.c_str(), 1, "broken", 0, 1, 2), depleted("broken"),
      "[MEMM] ERROR: actual object count (2) differs from pool count (1)\r\n", failed("broken"),
      "[MEMM] integrity check failed: " + fmt(kBroken.c_str(), 1, "broken", 0, 1, 2), failed("broken")}},
    {"AHookAllocatingDuringTheReportDoesNotRestartIt",
     [] {
         ASSERT_EQ(memm_init(4, 0), MEMM_OK);
         memm_pool_options opts = {};
         opts.print2 = allocating_print2;
         g_hungry = memm_initpool("hungry", 2, 8, &opts);
         memm_disallow_expansion(g_hungry);
         fill(g_hungry, 2);
         memm_test::clear_logs();
         EXPECT_EQ(memm_calloc(g_hungry), nullptr);
     },
     {depleted("hungry"), failed("hungry"), failed("hungry"), failed("hungry")}},
    {"TheGcHookRunsUntilTwoSlotsAreFree",
     [] {
         ASSERT_EQ(memm_init(4, 0), MEMM_OK);
         Gc gc;
         const uint32_t id = gc_pool(&gc, 4);
         std::vector<void *> objs = fill(id, 3);
         gc.to_release = {objs[0]}, gc.give_up_after = 10;
         EXPECT_NE(memm_calloc(id), nullptr); // attempt 0 frees one: two free now
         EXPECT_EQ(gc.attempts, std::vector<int32_t>({0}));
         const memm_pooldesc *p = memm_get_pool_nolock(id);
         EXPECT_EQ(std::vector<uint64_t>(p->alloc_calls, p->alloc_calls + 3), (std::vector<uint64_t>{5, 4, 1})); // the retry counts
         gc.attempts.clear(), gc.give_up_after = 2;
         EXPECT_EQ(memm_calloc(id), nullptr); // giving up fails although one slot is free
         EXPECT_EQ(gc.attempts, std::vector<int32_t>({0, 1, 2}));
         gc.attempts.clear(), gc.give_up_after = 1 << 30;
         EXPECT_EQ(memm_calloc(id), nullptr); // an endless hook is capped
         EXPECT_EQ(gc.attempts.size(), 64u);
         gc.attempts.clear();
         memm_lock("test");
         EXPECT_NE(memm_calloc_nolock_nogc(id), nullptr); // takes the last slot without the hook
         memm_unlock();
         EXPECT_TRUE(gc.attempts.empty());
     },
     {}},
    {"NogcAllocationsRaiseTheReserveFlagInsideTheReserve",
     [] {
         ASSERT_EQ(memm_init(4, 0), MEMM_OK);
         Gc gc;
         const uint32_t id = gc_pool(&gc, 8, 3);
         uint32_t base = 0, flag = 0;
         ASSERT_NE(memm_get_currentcount_ptr(id, &base, &flag), nullptr);
         memm_lock("test");
         for (int i = 0; i < 6; i++) { // cur 5 + 3 >= 8 raises it
             ASSERT_NE(memm_calloc_nolock_nogc(id), nullptr);
             EXPECT_EQ(flag, i == 5 ? 1u : 0u) << i;
         }
         memm_unlock();
         flag = 0, base = 3;
         memm_calloc(id); // collecting allocations never touch it; the peak follows the users' count
         EXPECT_EQ(flag, 0u);
         EXPECT_EQ(memm_get_pool_nolock(id)->base_peak, 6);
     },
     {}},
    {"DoubleAndInvalidReleases",
     [] {
         ASSERT_EQ(memm_init(4, 0), MEMM_OK);
         const uint32_t id = memm_initpool("twice", 4, 8, nullptr);
         void *obj = memm_calloc(id);
         memm_calloc(id);
         memm_free(obj);
         memm_test::clear_logs();
         EXPECT_TRUE(memm_free(obj) == MEMM_OK && memm_get_pool_nolock(id)->cur_count == 1u);
         EXPECT_TRUE(memm_calloc(id) == obj && memm_calloc(id) != obj); // the free list is intact
         alignas(8) uint8_t fake[32] = {}; // a header naming the pool, outside its storage
         memcpy(fake, &id, 4);
         EXPECT_EQ(memm_free(fake + 16), MEMM_OK);
         EXPECT_EQ(memm_free(memm_get_pool_nolock(id)), MEMM_OK);
     },
     {"memm_free(): double Free", released("Attempt to release invalid pointer", 0x7FFF),
      released("Attempt to release invalid pointer", 1), released("Attempt to release invalid pointer", 0)}},
    {"FreeExKeepsFailsOrReleases",
     [] {
         ASSERT_EQ(memm_init(4, 0), MEMM_OK);
         const uint32_t id = memm_initpool2("hooked", 4, 8, nullptr, counting_free_ex);
         void *obj = memm_calloc(id);
         const memm_pooldesc *p = memm_get_pool_nolock(id);
         g_hook_result = MEMM_KEEP_OBJECT;
         EXPECT_TRUE(memm_free(obj) == MEMM_OK && p->free_calls == 0u);
         g_hook_result = 1;
         EXPECT_TRUE(memm_free(obj) == MEMM_ERR_HOOK_FAILED && p->cur_count == 1u);
         g_hook_result = MEMM_OK;
         EXPECT_TRUE(memm_free(obj) == MEMM_OK && p->cur_count == 0u && p->free_calls == 1u && g_hook_calls == 3u);
     },
     {released("free_ex failed for", 1)}},
    {"AHookMarkingItsObjectFreeIsARecursiveRelease",
     [] {
         ASSERT_EQ(memm_init(4, 0), MEMM_OK);
         const uint32_t id = memm_initpool2("recursive", 4, 8, nullptr, [](void *obj) -> uint32_t {
             const uint32_t free_state = MEMM_STATE_FREE;
             memcpy(slot_of(obj), &free_state, 4);
             return MEMM_OK;
         });
         EXPECT_EQ(memm_free(memm_calloc(id)), MEMM_OK);
         EXPECT_EQ(memm_get_pool_nolock(id)->cur_count, 1u); // not released a second time
     },
     {released("Recursive release detected", 0x7FFF)}},
    {"Free2ExReleasesOwnedObjectsWithoutTheLock",
     [] {
         ASSERT_EQ(memm_init(4, 0), MEMM_OK);
         const uint32_t id = memm_initpool3("owner", 8, 16, nullptr, cascade);
         void *owner = memm_calloc(id);
         g_children = {memm_calloc(id), memm_calloc(id)};
         EXPECT_EQ(memm_free(owner), MEMM_OK);
         EXPECT_TRUE(g_hook_calls == 3u && memm_get_pool_nolock(id)->cur_count == 0u); // the owner, then each child
         void *obj = memm_calloc(memm_initpool3("unlocked", 4, 16, nullptr, lock_elsewhere));
         EXPECT_TRUE(memm_free(obj) == MEMM_OK && g_other_locked);
         const uint32_t noting = memm_initpool3("noting", 4, 16, nullptr, note_lock);
         memm_free(memm_calloc(noting)); // the hook runs without the lock
         EXPECT_FALSE(g_held);
         memm_lock("caller");
         memm_free_nolock(memm_calloc_nolock(noting)); // but not without its caller's
         memm_unlock();
         EXPECT_TRUE(g_held);
         const uint32_t failing = memm_initpool3("failing", 4, 16, nullptr, [](void *, memm_release_fn) -> uint32_t { return 5; });
         obj = memm_calloc(failing);
         EXPECT_TRUE(memm_free(obj) == MEMM_ERR_HOOK_FAILED && memm_isvalidobj(obj));
     },
     {table_grown(8), released("free2_ex failed for", 4)}},
    {"UpTo32767HoldersAndBackDown",
     [] {
         ASSERT_EQ(memm_init(4, 0), MEMM_OK);
         const uint32_t id = memm_initpool2("shared", 4, 8, nullptr, counting_free_ex);
         void *obj = memm_calloc(id);
         const memm_pooldesc *p = memm_get_pool_nolock(id);
         uint32_t tagged = id | MEMM_STATE_TAGGED; // marks survive reference changes
         memcpy(slot_of(obj), &tagged, 4);
         for (uint32_t i = 0; i < MEMM_MAX_EXTRA_REFS; i++)
             ASSERT_EQ(memm_refalloc(obj), obj);
         EXPECT_TRUE(memm_refalloc(obj) == nullptr && memm_get_refcount(obj) == MEMM_MAX_REFS);
         EXPECT_TRUE(p->ref_max == int32_t(MEMM_MAX_EXTRA_REFS) && memm_get_pool_nolock(0)->ref_max == p->ref_max);
         for (uint32_t i = 0; i < MEMM_MAX_EXTRA_REFS; i++)
             ASSERT_EQ(memm_free(obj), MEMM_OK);
         EXPECT_TRUE(g_hook_calls == 0u && p->ref_cur == 0 && memcmp(slot_of(obj), &tagged, 4) == 0);
         EXPECT_TRUE(memm_free(obj) == MEMM_OK && p->free_calls == MEMM_MAX_REFS && !memm_refalloc(obj));
     },
     {"memm__refalloc() failed (too many references for this object)", "memm__refalloc() failed (invalid object passed)"}},
};

class PoolCase : public ::testing::TestWithParam<Row> {};

// Log lines without the caller's address, and with addresses as "<p>".
Lines logs_seen() {
    Lines lines;
    for (std::string line : memm_test::log_texts()) {
        const size_t at = line.find(" called from ");
        if (at != std::string::npos)
            line.erase(at);
        const size_t p = line.find(": 0x"), end = line.find(" (poolid");
        if (p != std::string::npos && end != std::string::npos)
            line.replace(p + 2, end - p - 2, "<p>");
        lines.push_back(line);
    }
    return lines;
}

} // namespace

TEST_P(PoolCase, Run) {
    memm_test::clear_logs();
    GetParam().run();
    EXPECT_EQ(logs_seen(), GetParam().logs);
    EXPECT_TRUE(memm_test::sound());
}

INSTANTIATE_TEST_SUITE_P(Rows, PoolCase, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row> &info) { return std::string(info.param.name); });

#if defined(__SANITIZE_ADDRESS__)
#define POOL_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define POOL_TEST_ASAN 1
#endif
#endif

// A released object is poisoned behind its free link, so reading it is a
// use after release that AddressSanitizer reports; taking the slot again
// makes it readable. 60-byte slots put every second slot 4 bytes off an
// 8-byte boundary.
TEST(ReleaseDeathTest, ReadingAReleasedObjectIsReportedUnderAsan) {
#ifndef POOL_TEST_ASAN
    GTEST_SKIP() << "needs a build with AddressSanitizer";
#else
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    const uint32_t id = memm_initpool("watched", 4, 44, nullptr);
    auto *a = static_cast<volatile uint8_t *>(memm_calloc(id)), *b = static_cast<volatile uint8_t *>(memm_calloc(id));
    ASSERT_EQ(reinterpret_cast<uintptr_t>(b) % 8, 4u);
    ASSERT_EQ(memm_free(const_cast<uint8_t *>(a)), MEMM_OK);
    ASSERT_EQ(memm_free(const_cast<uint8_t *>(b)), MEMM_OK);
    EXPECT_DEATH((void)a[20], "use-after-poison");
    EXPECT_DEATH((void)b[20], "use-after-poison");
    EXPECT_DEATH((void)b[8], "use-after-poison"); // shares a granule with the link
    EXPECT_TRUE(memm_test::sound()); // the walks still read free headers
    EXPECT_EQ(memm_calloc(id), const_cast<uint8_t *>(b));
    EXPECT_EQ(b[20], 0);
#endif
}
