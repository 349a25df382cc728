// Node pools, adding and inserting, and the node destructor's cascade: the
// exact results of failures and of a failing release, which the model test
// (where every call succeeds or fails cleanly) cannot express.
#include <thread>

#include "llist_test_helpers.h"

using namespace llist_test;

TEST(LlistInitPool, RefusesSmallObjectsAndAlwaysInstallsTheDestructor) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    memm_test::clear_logs();
    const uint32_t pools = memm_get_number_of_pools();
    for (int32_t size : {int32_t(sizeof(llist_node)) - 1, 0, -16})
        EXPECT_EQ(llist_initpool("small", 8, size, nullptr), MEMM_INVALID_POOL) << size;
    EXPECT_EQ(memm_get_number_of_pools(), pools);
    EXPECT_TRUE(memm_test::log_texts().empty());

    // A caller's free_ex would keep nodes from releasing their objects.
    memm_pool_options opts = {};
    opts.free_ex = [](void *) -> uint32_t { return 1; };
    const uint32_t a = llist_initpool("a", 8, int32_t(sizeof(llist_node)), &opts);
    ASSERT_NE(a, MEMM_INVALID_POOL);
    EXPECT_NE(memm_get_pool_nolock(a)->options.free_ex, opts.free_ex);
    EXPECT_NE(memm_get_pool_nolock(a)->options.free_ex, nullptr);
}

TEST(LlistAdd, FailuresLeaveTheReferencesWhereDocumented) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    Objs r = new_records(p.records, 2);
    void *o = r[0];
    llist_node *list = nullptr;
    // No node, or no list address: nothing changes (addref gives back the
    // reference it took; insert and push allocate nothing).
    EXPECT_EQ(llist_addobject(&list, o, MEMM_INVALID_POOL), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(llist_addref(&list, o, MEMM_INVALID_POOL), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(llist_insert_at(&list, o, 0, MEMM_INVALID_POOL), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(llist_addref(nullptr, o, p.nodes), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_insert_at(nullptr, o, 0, p.nodes), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_pushobject(nullptr, o, p.nodes), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(refs(o), 1u);
    EXPECT_EQ(in_use(p.nodes), 0u);

    // An object at the most holders gets a null node; a copy with no nodes
    // to be had gives back every reference it took.
    for (uint32_t i = 0; i < MEMM_MAX_EXTRA_REFS; i++)
        ASSERT_EQ(memm_refalloc(o), o);
    EXPECT_EQ(llist_addref(&list, r[1], p.nodes), MEMM_OK);
    EXPECT_EQ(llist_addref(&list, o, p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(list), (Objs{r[1], nullptr}));
    EXPECT_EQ(refs(o), MEMM_MAX_REFS);
    EXPECT_EQ(llist_refalloc(list, MEMM_INVALID_POOL), nullptr);
    EXPECT_EQ(refs(r[1]), 2u);
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    EXPECT_EQ(llist_free_plist(nullptr), MEMM_ERR_INVALID_ARG);

    // addobject without a list address releases the reference handed over.
    EXPECT_EQ(llist_addobject(nullptr, r[1], p.nodes), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(memm_isvalidobj(r[1]), 0);
    EXPECT_EQ(g_released, 1);
    EXPECT_EQ(in_use(p.nodes), 0u);
}

// Releasing the first node of (r0 .. r4) while r[k]'s release fails: the
// nodes between the first and the failing one go with their objects; the
// failing node and those behind it, and the first node, stay allocated.
TEST(LlistDestructor, CascadeReleasesTheListAndStopsAtAFailingRelease) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    for (size_t k : {0u, 2u, 4u}) {
        SCOPED_TRACE(k);
        g_released = 0;
        Objs r = new_records(p.records, 5);
        llist_node *list = list_of(r, p.nodes, false);
        std::vector<llist_node *> n = nodes_of(list);
        g_refuse = {r[k]};
        EXPECT_EQ(llist_free_plist(&list), MEMM_ERR_HOOK_FAILED);
        EXPECT_EQ(list, nullptr);
        for (size_t i = 0; i < 5; i++) {
            const int kept = i == 0 || (k > 0 && i >= k);
            EXPECT_EQ(memm_isvalidobj(n[i]), kept) << i;
            EXPECT_EQ(memm_isvalidobj(r[i]), kept) << i;
        }
        EXPECT_EQ(next_of(n[0]), nullptr) << "no pointer to released followers is kept";
        EXPECT_EQ(next_of(n[k]), nullptr);
        EXPECT_EQ(g_released, k == 0 ? 4 : int(k) - 1);
        g_refuse.clear();
        // The survivors: the failing node, the chain behind it, the first.
        for (llist_node *s : {k ? n[k] : nullptr, k && k < 4 ? n[k + 1] : nullptr, n[0]})
            EXPECT_EQ(memm_free(s), MEMM_OK);
        EXPECT_EQ(in_use(p.nodes), 0u);
        EXPECT_EQ(g_released, 5);
    }
    EXPECT_TRUE(integrity_ok());
}

// Threads building and tearing down their own lists of shared objects: every
// list operation takes the lock, so the counts come out exact.
TEST(LlistThreads, SharedObjectsKeepExactCounts) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    Objs shared = new_records(p.records, 4);
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; t++)
        workers.emplace_back([&] {
            for (int round = 0; round < 500; round++) {
                llist_node *list = nullptr;
                for (void *o : shared)
                    ASSERT_EQ(llist_addref(&list, o, p.nodes), MEMM_OK);
                ASSERT_EQ(llist_delete_byobject(&list, shared[round % 4]), MEMM_OK);
                ASSERT_EQ(llist_free_plist(&list), MEMM_OK);
            }
        });
    for (auto &w : workers)
        w.join();
    for (void *o : shared)
        EXPECT_EQ(memm_get_refcount(o), 1u);
    EXPECT_EQ(memm_get_pool_nolock(p.nodes)->cur_count, 0u);
}
