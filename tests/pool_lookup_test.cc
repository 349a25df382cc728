// Validation levels, identity, chain indexes and walks.
#include <gtest/gtest.h>

#include <vector>

#include "memm.h"
#include "syslog_capture.h"

namespace {

// A root of 10 slots, filled, plus its first 3-slot extension holding one object.
struct Chain {
    uint32_t root, ext;
    std::vector<void *> objs; // root's ten, then the extension's first
};

Chain make_chain() {
    Chain c;
    c.root = memm_initpool("chain", 10, 12, nullptr);
    for (int i = 0; i < 11; i++)
        c.objs.push_back(memm_calloc(c.root));
    c.ext = memm_get_poolid(c.objs.back());
    return c;
}

} // namespace

TEST(Validity, ExtensionObjectThroughEveryIdentityFunction) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    int cookie;
    memm_pool_options opts = {};
    opts.cookie = &cookie;
    uint32_t root = memm_initpool("ident", 1, 8, &opts);
    memm_calloc(root);
    void *obj = memm_calloc(root);
    uint32_t ext = memm_get_poolid(obj);
    ASSERT_NE(ext, root);
    EXPECT_EQ(memm_instanceof(obj, root), 1);
    EXPECT_EQ(memm_instanceof(obj, ext), 0);
    EXPECT_EQ(memm_instanceof_no_ori(obj, root), 0);
    EXPECT_EQ(memm_instanceof_no_ori(obj, ext), 1);
    EXPECT_EQ(memm_instanceof_with_mem_range_check(obj, root), 0);
    EXPECT_EQ(memm_instanceof_with_mem_range_check(obj, ext), 0); // family is the root, not ext
    EXPECT_EQ(memm_isvalidobjfrompool(root, obj), 0);
    EXPECT_EQ(memm_isvalidobjfrompool(ext, obj), 1);
    EXPECT_EQ(memm_isvalidobj_ex(obj), 1);
    EXPECT_EQ(memm_isvalidobj(obj), 1);
    EXPECT_STREQ(memm_get_poolname(obj), "ident");
    EXPECT_EQ(memm_getpoolcookie(obj), &cookie);
    EXPECT_EQ(memm_getpoolcookie_nolock(obj), &cookie);
    EXPECT_EQ(memm_getpoolcookie_bypoolid(ext), &cookie);
    EXPECT_EQ(memm_getindex(obj), 1u);
    EXPECT_EQ(memm_getobject_byindex(root, 1), obj);
}

TEST(Validity, ReleasedObjectFailsOnlyTheHeaderCheck) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    uint32_t id = memm_initpool("released", 4, 8, nullptr);
    void *obj = memm_calloc(id);
    void *never = static_cast<uint8_t *>(obj) + 2 * memm_get_pool_nolock(id)->slotsize;
    memm_free(obj);
    EXPECT_EQ(memm_isvalidobj(obj), 0);
    EXPECT_EQ(memm_isvalidobj_nolock(obj), 0);
    EXPECT_EQ(memm_isvalidobj_ex(obj), 1);
    EXPECT_EQ(memm_isvalidobjfrompool(id, obj), 1);
    EXPECT_EQ(memm_isvalidobjfrompool(id, never), 0); // beyond the high-water mark
    EXPECT_EQ(memm_isvalidobjfrompool(id, static_cast<uint8_t *>(obj) + 4), 0);
}

TEST(Validity, DescriptorsPassTheExactSlotTest) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    uint32_t id = memm_initpool("d", 4, 8, nullptr);
    EXPECT_EQ(memm_isvalidobj_ex(memm_get_pool_nolock(id)), 1);
    EXPECT_EQ(memm_isvalidobjfrompool(0, memm_get_pool_nolock(id)), 1);
    int on_stack = 0;
    EXPECT_EQ(memm_isvalidobj_ex(&on_stack), 0);
    EXPECT_EQ(memm_isvalidobj_ex(nullptr), 0);
    EXPECT_EQ(memm_isvalidobjfrompool(id, nullptr), 0);
}

TEST(Identity, NullAndInvalidIds) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    uint32_t id = memm_initpool("x", 4, 8, nullptr);
    void *obj = memm_calloc(id);
    const uint32_t capacity = memm_get_pool_nolock(0)->alloc_count;
    EXPECT_EQ(memm_get_poolid(nullptr), MEMM_INVALID_POOL);
    EXPECT_STREQ(memm_get_poolname(nullptr), MEMM_INVALID_POOLNAME);
    EXPECT_STREQ(memm_get_poolname2(capacity), MEMM_INVALID_POOLNAME);
    EXPECT_STREQ(memm_get_poolname2(MEMM_INVALID_POOL), MEMM_INVALID_POOLNAME);
    EXPECT_STREQ(memm_get_poolname2(2), MEMM_INVALID_POOLNAME); // a free descriptor slot
    EXPECT_STREQ(memm_get_poolname2(0), MEMM_POOLDESC_NAME);
    EXPECT_EQ(memm_instanceof(nullptr, MEMM_INVALID_POOL), 1);
    EXPECT_EQ(memm_instanceof_no_ori(nullptr, MEMM_INVALID_POOL), 1);
    EXPECT_EQ(memm_instanceof(nullptr, id), 0);
    EXPECT_EQ(memm_instanceof_with_mem_range_check(obj, capacity), 0);
    EXPECT_EQ(memm_instanceof_with_mem_range_check(nullptr, id), 0);
    EXPECT_EQ(memm_instanceof_with_mem_range_check(obj, id), 1);
    EXPECT_EQ(memm_getpoolcookie(nullptr), nullptr);
    EXPECT_EQ(memm_getpoolcookie_bypoolid(MEMM_INVALID_POOL), nullptr);
    EXPECT_EQ(memm_getpoolcookie_bypoolid_nolock(capacity), nullptr);
    EXPECT_EQ(memm_get_pool_nolock(capacity), nullptr);
    EXPECT_EQ(memm_get_currentcount_ptr(MEMM_INVALID_POOL, nullptr, nullptr), nullptr);
    EXPECT_EQ(memm_getindex(nullptr), 0u);
    EXPECT_EQ(memm_getobject_byindex(capacity, 0), nullptr);
    EXPECT_EQ(memm_search(capacity, nullptr, [](void *, void *) { return 1; }), nullptr);
    EXPECT_EQ(memm_search(id, nullptr, nullptr), nullptr);
    EXPECT_EQ(memm_getfirst(MEMM_INVALID_POOL), nullptr);
    EXPECT_EQ(memm_getnext(nullptr), nullptr);
    EXPECT_EQ(memm_enum_objects(capacity, nullptr, nullptr), 0u);
    EXPECT_TRUE(memm_test::logs().empty()); // lookups never log
}

TEST(Identity, NumberOfPoolsCountsExtensionsAndPoolZero) {
    EXPECT_EQ(memm_get_number_of_pools(), 0u);
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    EXPECT_EQ(memm_get_number_of_pools(), 1u);
    make_chain();
    EXPECT_EQ(memm_get_number_of_pools(), 3u);
}

TEST(Indexes, FreeNegativeAndOutOfRangeIndexesGiveNull) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    Chain c = make_chain();
    EXPECT_EQ(memm_getindex(c.objs[10]), 10u);
    EXPECT_EQ(memm_getobject_byindex(c.root, 10), c.objs[10]);
    EXPECT_EQ(memm_getobject_byindex(c.root, 11), nullptr); // free extension slot
    EXPECT_EQ(memm_getobject_byindex(c.root, 13), nullptr); // past the chain
    EXPECT_EQ(memm_getobject_byindex(c.root, -1), nullptr);
    EXPECT_EQ(memm_getobject_byindex(c.ext, 0), c.objs[10]); // from the extension on
    // From the extension only that pool is walked.
    EXPECT_EQ(memm_getfirst(c.ext), c.objs[10]);
    EXPECT_EQ(memm_getnext(c.objs[10]), nullptr);
}

TEST(Walks, ReleasingTheCurrentObjectEndsTheWalk) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    Chain c = make_chain();
    void *first = memm_getfirst(c.root);
    ASSERT_EQ(first, c.objs[0]);
    memm_free(first);
    EXPECT_EQ(memm_getnext(first), nullptr);
}

TEST(Walks, SearchFindsTheFirstMatchInWalkOrder) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    Chain c = make_chain();
    for (size_t i = 0; i < c.objs.size(); i++)
        *static_cast<int *>(c.objs[i]) = int(i % 4);
    int key = 2;
    auto match = [](void *obj, void *ctx) { return int(*static_cast<int *>(obj) == *static_cast<int *>(ctx)); };
    EXPECT_EQ(memm_search(c.root, &key, match), c.objs[2]);
    memm_free(c.objs[2]);
    memm_free(c.objs[6]);
    EXPECT_EQ(memm_search(c.root, &key, match), c.objs[10]);
    key = 9;
    EXPECT_EQ(memm_search(c.root, &key, match), nullptr);
}

TEST(Walks, SearchGoesOnWhenTheMatchFunctionReleasesObjects) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    Chain c = make_chain();
    for (size_t i = 0; i < c.objs.size(); i++)
        *static_cast<int *>(c.objs[i]) = int(i);
    int key = 7;
    // Releases every object that is not the one sought.
    auto release_others = [](void *obj, void *ctx) {
        if (*static_cast<int *>(obj) == *static_cast<int *>(ctx))
            return 1;
        memm_free(obj);
        return 0;
    };
    EXPECT_EQ(memm_search(c.root, &key, release_others), c.objs[7]);
    EXPECT_EQ(memm_get_pool_nolock(c.root)->cur_count, 3u); // 7, 8 and 9 are left
}

TEST(Walks, ADescriptorTakenDirectlyFromPoolZeroIsAnEmptyPool) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    void *desc = memm_calloc(MEMM_POOLDESC_POOL);
    ASSERT_NE(desc, nullptr);
    const uint32_t id = memm_getindex(desc);
    EXPECT_EQ(memm_getfirst(id), nullptr);
    EXPECT_EQ(memm_enum_objects(id, nullptr, nullptr), 0u);
    EXPECT_EQ(memm_search(id, nullptr, [](void *, void *) { return 1; }), nullptr);
    int x;
    EXPECT_EQ(memm_isvalidobj_ex(&x), 0);
}

TEST(Walks, EnumerationStopsPerPool) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    Chain c = make_chain();
    memm_calloc(c.root); // the extension now holds two
    int visited = 0;
    auto go_on = [](void *, void *ctx) { return ++*static_cast<int *>(ctx), 1; };
    auto stop = [](void *, void *ctx) { return ++*static_cast<int *>(ctx), 0; };
    EXPECT_EQ(memm_enum_objects(c.root, go_on, &visited), 12u);
    EXPECT_EQ(visited, 12);
    visited = 0;
    EXPECT_EQ(memm_enum_objects(c.root, stop, &visited), 2u); // one per non-empty pool
    EXPECT_EQ(visited, 2);
    EXPECT_EQ(memm_enum_objects(c.root, nullptr, nullptr), 2u);
    memm_lock("test");
    EXPECT_EQ(memm_enum_objects_nolock(c.ext, go_on, &visited), 2u);
    memm_unlock();
}

TEST(Walks, CallbacksMayCallBackIntoTheLibrary) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    Chain c = make_chain();
    // Releasing each visited object from inside the walk, with nested locking calls.
    auto release = [](void *obj, void *) {
        EXPECT_STREQ(memm_get_poolname(obj), "chain");
        EXPECT_NE(memm_getindex(obj), 999u);
        return int(memm_free(obj) == MEMM_OK);
    };
    EXPECT_EQ(memm_enum_objects(c.root, release, nullptr), 11u);
    EXPECT_EQ(memm_getfirst(c.root), nullptr);
    EXPECT_EQ(memm_get_pool_nolock(c.root)->cur_count, 0u);
}

TEST(Walks, CurrentCountPointerRecordsTheUsersCounters) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    uint32_t id = memm_initpool("counted", 4, 8, nullptr);
    uint32_t base = 0, flag = 0;
    uint32_t *cur = memm_get_currentcount_ptr(id, &base, &flag);
    memm_pooldesc *p = memm_get_pool_nolock(id);
    EXPECT_EQ(cur, &p->cur_count);
    EXPECT_EQ(p->base_count_ptr, &base);
    EXPECT_EQ(p->reserve_flag_ptr, &flag);
    memm_calloc(id);
    EXPECT_EQ(*cur, 1u);
    memm_get_currentcount_ptr(id, nullptr, nullptr);
    EXPECT_EQ(p->base_count_ptr, nullptr);
}
