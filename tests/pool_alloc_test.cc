// Allocation: extension chains, the gc hook and reserve, depletion reports.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "memm.h"
#include "syslog_capture.h"

using memm_test::fmt;
using memm_test::log_count;
using memm_test::log_count_prefix;

namespace {

std::string extended_line(uint32_t root, const char *name, uint32_t ext, int n) {
    return fmt("[MEMM] Info: Pool [%d: %s] extended with an extra dynamic pool (%d, %d elements)", int(root), name,
               int(ext), n);
}
std::string depleted_line(const char *name) {
    return fmt("memm__calloc() failed for pool '%s' (%s), POOL DEPLETED !!!!!!!!!!!!!!!", name, "pool depleted");
}
std::string reboot_line(const char *name) { return fmt("memm__calloc() failed for pool '%s' (%s)", name, "pool depleted"); }

std::vector<void *> fill(uint32_t id, int n) {
    std::vector<void *> objs;
    for (int i = 0; i < n; i++)
        objs.push_back(memm_calloc(id));
    return objs;
}

} // namespace

TEST(Chain, SmallRootGrowsByThreeSlotExtensions) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t root = memm_initpool("small", 10, 8, nullptr);
    fill(root, 10);
    memm_test::clear_logs();
    void *obj = memm_calloc(root);
    ASSERT_NE(obj, nullptr);
    uint32_t ext = memm_get_poolid(obj);
    EXPECT_NE(ext, root);
    EXPECT_EQ(log_count(extended_line(root, "small", ext, 3)), 1u);
    memm_pooldesc *r = memm_get_pool_nolock(root), *e = memm_get_pool_nolock(ext);
    EXPECT_EQ(r->next_pool, ext);
    EXPECT_EQ(e->root_pool, root);
    EXPECT_EQ(e->name, r->name);
    EXPECT_EQ(e->alloc_count, 3u);
    EXPECT_EQ(e->slotsize, r->slotsize + 12); // created with the root's slot size - 4
    // The next two come from the same extension without a new one.
    memm_test::clear_logs();
    EXPECT_EQ(memm_get_poolid(memm_calloc(root)), ext);
    EXPECT_EQ(memm_get_poolid(memm_calloc(root)), ext);
    EXPECT_EQ(memm_test::logs().size(), 0u);
}

TEST(Chain, LargeRootGrowsByAFifthAndStopsAfterFiveExtensions) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    uint32_t root = memm_initpool("large", 100, 16, nullptr);
    fill(root, 100 + 5 * 20);
    std::vector<uint32_t> chain;
    for (uint32_t id = memm_get_pool_nolock(root)->next_pool; id; id = memm_get_pool_nolock(id)->next_pool) {
        chain.push_back(id);
        EXPECT_EQ(memm_get_pool_nolock(id)->alloc_count, 20u);
        EXPECT_EQ(memm_get_pool_nolock(id)->cur_count, 20u);
    }
    ASSERT_EQ(chain.size(), size_t(MEMM_MAX_EXTENSION_POOLS));

    memm_test::clear_logs();
    EXPECT_EQ(memm_calloc(root), nullptr);
    EXPECT_EQ(log_count(depleted_line("large")), 1u);
    EXPECT_EQ(log_count(reboot_line("large")), 1u);
    EXPECT_EQ(log_count_prefix("[MEMM] integrity check failed"), 0u);
    EXPECT_TRUE(memm_get_pool_nolock(root)->flags & MEMM_POOLFLAG_DEPLETION_REPORTED);

    // Reported once; the per-failure line repeats until switched off.
    memm_test::clear_logs();
    EXPECT_EQ(memm_calloc(root), nullptr);
    EXPECT_EQ(log_count(depleted_line("large")), 0u);
    EXPECT_EQ(log_count(reboot_line("large")), 1u);
    memm_depletion_no_reboot(root);
    memm_test::clear_logs();
    EXPECT_EQ(memm_calloc(root), nullptr);
    EXPECT_EQ(memm_test::logs().size(), 0u);
}

TEST(Chain, DepletedPoolServesAgainOnceSlotsAreReleased) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    uint32_t root = memm_initpool("again", 2, 8, nullptr);
    memm_disallow_expansion(root);
    std::vector<void *> objs = fill(root, 2);
    EXPECT_EQ(memm_calloc(root), nullptr);
    ASSERT_EQ(memm_free(objs[0]), MEMM_OK);
    EXPECT_EQ(memm_calloc(root), objs[0]);
}

TEST(Chain, NoExpansionDepletesAtOnceAndCountsAsDynpool) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    uint32_t root = memm_initpool("fixed", 3, 8, nullptr);
    memm_disallow_expansion(root);
    fill(root, 3);
    memm_test::clear_logs();
    EXPECT_EQ(memm_calloc(root), nullptr);
    EXPECT_EQ(memm_get_pool_nolock(root)->next_pool, 0u);
    EXPECT_EQ(log_count(depleted_line("fixed")), 1u);
    EXPECT_EQ(log_count_prefix("[MEMM] Info: Pool"), 0u);
    const memm_pooldesc *p = memm_get_pool_nolock(root);
    EXPECT_EQ(p->alloc_calls[MEMM_ALLOC_CALLS_TOTAL], 4u);
    EXPECT_EQ(p->alloc_calls[MEMM_ALLOC_CALLS_FIRST_FREE], 3u);
    EXPECT_EQ(p->alloc_calls[MEMM_ALLOC_CALLS_DYNPOOL], 1u);
}

TEST(Chain, SwitchesIgnoreExtensionIds) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    uint32_t root = memm_initpool("sw", 1, 8, nullptr);
    fill(root, 2);
    uint32_t ext = memm_get_pool_nolock(root)->next_pool;
    ASSERT_NE(ext, 0u);
    memm_disallow_expansion(ext);
    memm_depletion_no_reboot(ext);
    memm_disallow_expansion(12345);
    EXPECT_EQ(memm_get_pool_nolock(ext)->flags, MEMM_POOLFLAG_REBOOT_ON_DEPLETION);
}

TEST(Chain, NogcEntryNeverExtends) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    uint32_t root = memm_initpool("nogc", 2, 8, nullptr);
    fill(root, 2);
    memm_test::clear_logs();
    memm_lock("test");
    EXPECT_EQ(memm_calloc_nolock_nogc(root), nullptr);
    memm_unlock();
    EXPECT_EQ(memm_test::logs().size(), 0u);
    EXPECT_EQ(memm_get_pool_nolock(root)->next_pool, 0u);
}

TEST(Chain, ExtensionNeedingATableGrowthStillWorks) {
    ASSERT_EQ(memm_init(2, 0), MEMM_OK);
    uint32_t root = memm_initpool("grow", 1, 8, nullptr); // the table of 2 is now full
    fill(root, 1);
    memm_test::clear_logs();
    void *obj = memm_calloc(root);
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(log_count(fmt("[MEMM] Info: Pooldescr [%s] reallocated to increase its size (%d elements)",
                            MEMM_POOLDESC_NAME, 5)),
              1u);
    EXPECT_EQ(log_count(extended_line(root, "grow", 2, 3)), 1u);
}

namespace {

struct GcState {
    std::vector<int32_t> attempts;
    int give_up_after = 0; // answers "try again" this many times
    std::vector<void *> *to_release = nullptr;
};

int gc_hook(void *cookie, int32_t attempt) {
    auto *gc = static_cast<GcState *>(cookie);
    gc->attempts.push_back(attempt);
    if (gc->to_release && !gc->to_release->empty()) {
        memm_free_nolock(gc->to_release->back());
        gc->to_release->pop_back();
    }
    return int(gc->attempts.size()) <= gc->give_up_after;
}

uint32_t make_gc_pool(GcState *gc, int count, uintptr_t reserve = 0) {
    memm_pool_options opts = {};
    opts.gc = gc_hook;
    opts.cookie = gc;
    opts.reserve = reserve;
    return memm_initpool("collected", count, 8, &opts);
}

} // namespace

TEST(Gc, HookRunsUntilTwoSlotsAreFree) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    GcState gc;
    uint32_t id = make_gc_pool(&gc, 4);
    std::vector<void *> objs = fill(id, 3); // one slot left
    EXPECT_TRUE(gc.attempts.empty());
    std::vector<void *> release = {objs[0]};
    gc.to_release = &release;
    gc.give_up_after = 10;
    void *obj = memm_calloc(id); // attempt 0 frees one: two free now
    EXPECT_NE(obj, nullptr);
    EXPECT_EQ(gc.attempts, std::vector<int32_t>({0}));
    const memm_pooldesc *p = memm_get_pool_nolock(id);
    EXPECT_EQ(p->alloc_calls[MEMM_ALLOC_CALLS_TOTAL], 5u); // the retry counts as a pass of its own
    EXPECT_EQ(p->alloc_calls[MEMM_ALLOC_CALLS_FIRST_FREE], 4u);
    EXPECT_EQ(p->alloc_calls[MEMM_ALLOC_CALLS_DYNPOOL], 1u);
}

TEST(Gc, HookGivingUpFailsAlthoughOneSlotIsFree) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    GcState gc;
    gc.give_up_after = 2;
    uint32_t id = make_gc_pool(&gc, 4);
    fill(id, 3);
    gc.attempts.clear();
    memm_test::clear_logs();
    EXPECT_EQ(memm_calloc(id), nullptr);
    EXPECT_EQ(gc.attempts, std::vector<int32_t>({0, 1, 2}));
    EXPECT_EQ(memm_test::logs().size(), 0u);
    EXPECT_EQ(memm_get_pool_nolock(id)->next_pool, 0u);
    // The no-collection entry takes the last slot without asking the hook.
    gc.attempts.clear();
    memm_lock("test");
    EXPECT_NE(memm_calloc_nolock_nogc(id), nullptr);
    memm_unlock();
    EXPECT_TRUE(gc.attempts.empty());
}

TEST(Gc, EndlessHookIsCapped) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    GcState gc;
    gc.give_up_after = 1 << 30;
    uint32_t id = make_gc_pool(&gc, 2);
    fill(id, 1);
    gc.attempts.clear();
    EXPECT_EQ(memm_calloc(id), nullptr);
    EXPECT_EQ(gc.attempts.size(), 64u);
    EXPECT_EQ(gc.attempts.back(), 63);
}

TEST(Gc, NogcAllocationsRaiseTheReserveFlagInsideTheReserve) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    GcState gc;
    uint32_t id = make_gc_pool(&gc, 8, 3);
    uint32_t base = 0, flag = 0;
    ASSERT_NE(memm_get_currentcount_ptr(id, &base, &flag), nullptr);
    memm_lock("test");
    for (int i = 0; i < 5; i++) { // cur 0..4: 4 + 3 < 8
        ASSERT_NE(memm_calloc_nolock_nogc(id), nullptr);
        ASSERT_EQ(flag, 0u) << i;
    }
    ASSERT_NE(memm_calloc_nolock_nogc(id), nullptr); // cur 5 + 3 >= 8
    EXPECT_EQ(flag, 1u);
    memm_unlock();
    // Collecting allocations never touch the flag.
    flag = 0;
    gc.give_up_after = 0;
    memm_calloc(id);
    EXPECT_EQ(flag, 0u);
}

TEST(Gc, BasePeakFollowsTheUsersCount) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    uint32_t id = memm_initpool("based", 10, 8, nullptr);
    uint32_t base = 0;
    memm_get_currentcount_ptr(id, &base, nullptr);
    fill(id, 4);
    EXPECT_EQ(memm_get_pool_nolock(id)->base_peak, 4);
    base = 3;
    fill(id, 2); // cur 6 - 3
    EXPECT_EQ(memm_get_pool_nolock(id)->base_peak, 4);
}

TEST(Depletion, IntegrityFaultIsLoggedAtEveryDepletedAllocation) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    uint32_t id = memm_initpool("broken", 2, 8, nullptr);
    memm_disallow_expansion(id);
    fill(id, 2);
    memm_get_pool_nolock(id)->cur_count = 1; // free 0 + used 1 != alloc 2
    memm_test::clear_logs();
    EXPECT_EQ(memm_calloc(id), nullptr);
    EXPECT_EQ(memm_calloc(id), nullptr);
    EXPECT_EQ(log_count(fmt("[MEMM] integrity check failed: %s",
                            fmt("pool %d:%s has bookkeeping error (free[%d] + used[%d] != alloc[%d])\r\n", int(id),
                                "broken", 0, 1, 2)
                                .c_str())),
              2u);
    EXPECT_EQ(log_count(depleted_line("broken")), 1u);
}

namespace {
uint32_t g_hungry_pool;
int g_hook_allocations;
// A listing hook that (wrongly) allocates from the pool being listed.
void allocating_print2(void *, memm_print_fn) {
    g_hook_allocations++;
    EXPECT_EQ(memm_calloc(g_hungry_pool), nullptr);
}
} // namespace

TEST(Depletion, AHookAllocatingDuringTheReportDoesNotRestartIt) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    memm_pool_options opts = {};
    opts.print2 = allocating_print2;
    g_hungry_pool = memm_initpool("hungry", 2, 8, &opts);
    memm_disallow_expansion(g_hungry_pool);
    fill(g_hungry_pool, 2);
    memm_test::clear_logs();
    EXPECT_EQ(memm_calloc(g_hungry_pool), nullptr);
    EXPECT_EQ(g_hook_allocations, 2); // one line per listed object, each allocating once
    EXPECT_EQ(log_count(depleted_line("hungry")), 1u);
    EXPECT_EQ(log_count(reboot_line("hungry")), 3u);
}
