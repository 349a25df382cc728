// Detaching nodes by position and by object in every mode (delete, remove,
// unlink, getandremove, getandunlink, pop, move), with the reference counts of
// the linked objects after each, and the failures that leave a list unchanged.
#include "llist_test_helpers.h"

using namespace llist_test;

namespace {

// (a, b, c) in a node pool; the test holds one reference of each object
// besides the list's, so every count starts at 2 and a release is visible.
struct Fixture {
    Pools p;
    void *a, *b, *c;
    llist_node *list = nullptr;
    std::vector<llist_node *> n;
    Fixture() {
        p = make_pools();
        a = new_record(p.records, 1);
        b = new_record(p.records, 2);
        c = new_record(p.records, 3);
        for (void *o : {a, b, c})
            EXPECT_EQ(llist_addref(&list, o, p.nodes), MEMM_OK);
        n = nodes_of(list);
    }
    std::vector<void *> objs() const { return objects_of(list); }
    std::vector<uint32_t> counts() const { return {refs(a), refs(b), refs(c)}; }
};

using Objs = std::vector<void *>;
using Counts = std::vector<uint32_t>;

} // namespace

// ---------------------------------------------------------------- empty list

TEST(LlistEmptyList, EveryDetachFailsAndEveryReadIsEmpty) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *o = new_record(p.records, 1);
    llist_node *list = nullptr;
    EXPECT_EQ(llist_getlength(list), 0u);
    EXPECT_EQ(llist_getreallength(list), 0u);
    EXPECT_EQ(llist_get_at(list, 0), nullptr);
    EXPECT_EQ(llist_get_at(list, -1), nullptr);
    EXPECT_EQ(llist_delete_at(&list, 0), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_delete_at(&list, -1), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_remove_at(&list, 0), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_unlink_at(&list, 0), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_delete_byobject(&list, o), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_popobject(&list), nullptr);
    EXPECT_EQ(llist_getandremove_at(&list, 0), nullptr);
    EXPECT_EQ(llist_getandunlink_at(&list, 0), nullptr);
    EXPECT_EQ(llist_getandunlink_byobject(&list, o), nullptr);
    llist_node *dst = nullptr;
    EXPECT_EQ(llist_move_byobject(&list, &dst, o), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(refs(o), 1u);
}

// ---------------------------------------------------------------- index -1 in every mode

TEST(LlistMinusOne, DeleteReleasesTheLastNodeAndOneReference) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    EXPECT_EQ(llist_delete_at(&f.list, -1), MEMM_OK);
    EXPECT_EQ(f.objs(), (Objs{f.a, f.b}));
    EXPECT_EQ(f.counts(), (Counts{2, 2, 1}));
    EXPECT_EQ(memm_isvalidobj(f.n[2]), 0);
    EXPECT_EQ(in_use(f.p.nodes), 2u);
}

TEST(LlistMinusOne, RemoveReleasesTheNodeAndHandsTheReferenceBack) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    EXPECT_EQ(llist_remove_at(&f.list, -1), MEMM_OK);
    EXPECT_EQ(f.objs(), (Objs{f.a, f.b}));
    EXPECT_EQ(f.counts(), (Counts{2, 2, 2}));
    EXPECT_EQ(in_use(f.p.nodes), 2u);
}

TEST(LlistMinusOne, UnlinkDetachesTheNodeWithoutReleasingIt) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    EXPECT_EQ(llist_unlink_at(&f.list, -1), MEMM_OK);
    EXPECT_EQ(f.objs(), (Objs{f.a, f.b}));
    EXPECT_EQ(f.counts(), (Counts{2, 2, 2}));
    EXPECT_EQ(in_use(f.p.nodes), 3u);
    EXPECT_EQ(memm_isvalidobj(f.n[2]), 1);
    EXPECT_EQ(obj_of(f.n[2]), f.c);
    // Releasing the held node later releases its object's reference.
    EXPECT_EQ(memm_free(f.n[2]), MEMM_OK);
    EXPECT_EQ(f.counts(), (Counts{2, 2, 1}));
}

TEST(LlistMinusOne, GetAndUnlinkReturnsTheLastNode) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    llist_node *node = llist_getandunlink_at(&f.list, -1);
    EXPECT_EQ(node, f.n[2]);
    EXPECT_EQ(f.objs(), (Objs{f.a, f.b}));
    EXPECT_EQ(f.counts(), (Counts{2, 2, 2}));
    EXPECT_EQ(memm_free(node), MEMM_OK);
    EXPECT_EQ(f.counts(), (Counts{2, 2, 1}));
}

TEST(LlistMinusOne, GetAndRemoveReturnsTheLastObjectWithTheListsReference) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    EXPECT_EQ(llist_getandremove_at(&f.list, -1), f.c);
    EXPECT_EQ(f.objs(), (Objs{f.a, f.b}));
    EXPECT_EQ(f.counts(), (Counts{2, 2, 2}));
    EXPECT_EQ(in_use(f.p.nodes), 2u);
}

TEST(LlistMinusOne, GetAtAndGetObjectAtAddressTheLastNode) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    EXPECT_EQ(llist_get_at(f.list, -1), f.n[2]);
    EXPECT_EQ(llist_getobject_at(f.list, -1), f.c);
    EXPECT_EQ(llist_get_at(f.list, -3), f.n[0]);
    EXPECT_EQ(llist_get_at(f.list, -4), nullptr);
    EXPECT_EQ(llist_getobject_at(f.list, -4), nullptr);
    EXPECT_EQ(llist_get_at(f.list, 3), nullptr);
    EXPECT_EQ(llist_get_at(f.list, INT32_MIN), nullptr);
}

TEST(LlistNegativeIndex, MinusLengthAddressesTheFirstNode) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    EXPECT_EQ(llist_delete_at(&f.list, -3), MEMM_OK);
    EXPECT_EQ(f.objs(), (Objs{f.b, f.c}));
    EXPECT_EQ(f.counts(), (Counts{1, 2, 2}));
    EXPECT_EQ(llist_remove_at(&f.list, -2), MEMM_OK);
    EXPECT_EQ(f.objs(), (Objs{f.c}));
    EXPECT_EQ(f.counts(), (Counts{1, 2, 2}));
    EXPECT_EQ(llist_getandremove_at(&f.list, -1), f.c);
    EXPECT_EQ(f.list, nullptr);
}

TEST(LlistNegativeIndex, MiddleNodes) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    EXPECT_EQ(llist_getandunlink_at(&f.list, -2), f.n[1]);
    EXPECT_EQ(f.objs(), (Objs{f.a, f.c}));
    EXPECT_EQ(next_of(f.n[1]), nullptr);
    EXPECT_EQ(next_of(f.n[0]), f.n[2]);
    EXPECT_EQ(memm_free(f.n[1]), MEMM_OK);
    EXPECT_EQ(f.counts(), (Counts{2, 1, 2}));
}

// ---------------------------------------------------------------- out of range: list unchanged

TEST(LlistOutOfRange, DetachingAtLengthOrBelowMinusLengthFailsForEveryMode) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    memm_test::clear_logs();
    for (int32_t index : {3, 4, 1000, INT32_MAX, -4, -5, INT32_MIN}) {
        SCOPED_TRACE(index);
        EXPECT_EQ(llist_delete_at(&f.list, index), MEMM_ERR_INVALID_ARG);
        EXPECT_EQ(llist_remove_at(&f.list, index), MEMM_ERR_INVALID_ARG);
        EXPECT_EQ(llist_unlink_at(&f.list, index), MEMM_ERR_INVALID_ARG);
        EXPECT_EQ(llist_getandremove_at(&f.list, index), nullptr);
        EXPECT_EQ(llist_getandunlink_at(&f.list, index), nullptr);
        EXPECT_EQ(f.list, f.n[0]);
        EXPECT_EQ(nodes_of(f.list), f.n);
        EXPECT_EQ(f.counts(), (Counts{2, 2, 2}));
        EXPECT_EQ(in_use(f.p.nodes), 3u);
    }
    EXPECT_TRUE(memm_test::log_texts().empty()) << "list functions log nothing";
}

TEST(LlistOutOfRange, ObjectNotInTheListFailsForEveryMode) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    void *x = new_record(f.p.records, 9);
    llist_node *dst = nullptr;
    for (void *key : {x, static_cast<void *>(nullptr)}) {
        EXPECT_EQ(llist_delete_byobject(&f.list, key), MEMM_ERR_INVALID_ARG);
        EXPECT_EQ(llist_remove_byobject(&f.list, key), MEMM_ERR_INVALID_ARG);
        EXPECT_EQ(llist_unlink_byobject(&f.list, key), MEMM_ERR_INVALID_ARG);
        EXPECT_EQ(llist_getandunlink_byobject(&f.list, key), nullptr);
        EXPECT_EQ(llist_move_byobject(&f.list, &dst, key), MEMM_ERR_INVALID_ARG);
    }
    EXPECT_EQ(nodes_of(f.list), f.n);
    EXPECT_EQ(dst, nullptr);
    EXPECT_EQ(f.counts(), (Counts{2, 2, 2}));
    EXPECT_EQ(refs(x), 1u);
}

TEST(LlistOutOfRange, NullListAddressFailsForEveryMode) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    llist_node *dst = nullptr;
    EXPECT_EQ(llist_delete_at(nullptr, 0), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_remove_at(nullptr, 0), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_unlink_at(nullptr, 0), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_delete_byobject(nullptr, f.a), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_remove_byobject(nullptr, f.a), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_unlink_byobject(nullptr, f.a), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_getandremove_at(nullptr, 0), nullptr);
    EXPECT_EQ(llist_popobject(nullptr), nullptr);
    EXPECT_EQ(llist_getandunlink_at(nullptr, 0), nullptr);
    EXPECT_EQ(llist_getandunlink_byobject(nullptr, f.a), nullptr);
    EXPECT_EQ(llist_move_byobject(nullptr, &dst, f.a), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(dst, nullptr);
}

TEST(LlistOutOfRange, InvalidFirstNodeRefusesEveryDetach) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    FakeObject fake;
    set_obj(fake.node(), f.a);
    set_next(fake.node(), f.list);
    llist_node *list = fake.node();
    llist_node *dst = nullptr;
    EXPECT_EQ(llist_delete_at(&list, 0), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_delete_at(&list, 1), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_remove_at(&list, 1), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_unlink_at(&list, 2), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_delete_byobject(&list, f.b), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_popobject(&list), nullptr);
    EXPECT_EQ(llist_getandunlink_byobject(&list, f.c), nullptr);
    EXPECT_EQ(llist_move_byobject(&list, &dst, f.b), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(list, fake.node());
    EXPECT_EQ(next_of(fake.node()), f.n[0]);
    EXPECT_EQ(nodes_of(f.list), f.n);
    EXPECT_EQ(f.counts(), (Counts{2, 2, 2}));
    // A released first node is no pool object either.
    llist_node *stale = f.n[0];
    llist_node *keep = f.list;
    ASSERT_EQ(llist_unlink_at(&keep, 0), MEMM_OK);
    ASSERT_EQ(memm_free(stale), MEMM_OK);
    llist_node *dangling = stale;
    EXPECT_EQ(llist_delete_at(&dangling, 0), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_get_at(dangling, 0), nullptr);
    f.list = keep;
}

// ---------------------------------------------------------------- single node

TEST(LlistOnlyNode, DeleteEmptiesTheListAndReleasesOneReference) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *o = new_record(p.records, 1);
    llist_node *list = nullptr;
    ASSERT_EQ(llist_addref(&list, o, p.nodes), MEMM_OK);
    EXPECT_EQ(llist_delete_at(&list, 0), MEMM_OK);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(refs(o), 1u);
    EXPECT_EQ(in_use(p.nodes), 0u);
}

TEST(LlistOnlyNode, RemoveKeepsTheCount) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *o = new_record(p.records, 1);
    llist_node *list = nullptr;
    ASSERT_EQ(llist_addobject(&list, o, p.nodes), MEMM_OK);
    EXPECT_EQ(llist_remove_at(&list, 0), MEMM_OK);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(refs(o), 1u);
    EXPECT_EQ(memm_isvalidobj(o), 1);
    EXPECT_EQ(in_use(p.nodes), 0u);
    EXPECT_EQ(g_released, 0);
}

TEST(LlistOnlyNode, GetAndRemoveReturnsTheObjectWithItsCountUnchanged) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *o = new_record(p.records, 1);
    llist_node *list = nullptr;
    ASSERT_EQ(llist_addobject(&list, o, p.nodes), MEMM_OK);
    EXPECT_EQ(llist_getandremove_at(&list, 0), o);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(refs(o), 1u);
    EXPECT_EQ(in_use(p.nodes), 0u);
}

TEST(LlistOnlyNode, PopReturnsTheObjectWithItsCountUnchanged) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *o = new_record(p.records, 1);
    llist_node *list = nullptr;
    ASSERT_EQ(llist_addobject(&list, o, p.nodes), MEMM_OK);
    EXPECT_EQ(llist_popobject(&list), o);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(refs(o), 1u);
    EXPECT_EQ(llist_popobject(&list), nullptr);
}

TEST(LlistPop, TakesTheFirstObjectEachTime) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    EXPECT_EQ(llist_popobject(&f.list), f.a);
    EXPECT_EQ(llist_popobject(&f.list), f.b);
    EXPECT_EQ(f.objs(), (Objs{f.c}));
    EXPECT_EQ(f.counts(), (Counts{2, 2, 2}));
    EXPECT_EQ(in_use(f.p.nodes), 1u);
}

TEST(LlistPop, NodeWithANullObjectIsReleasedAndGivesNull) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *o = new_record(p.records, 1);
    llist_node *list = nullptr;
    ASSERT_EQ(llist_addobject(&list, nullptr, p.nodes), MEMM_OK);
    ASSERT_EQ(llist_addobject(&list, o, p.nodes), MEMM_OK);
    EXPECT_EQ(llist_popobject(&list), nullptr);
    EXPECT_EQ(objects_of(list), (Objs{o}));
    EXPECT_EQ(in_use(p.nodes), 1u);
}

// ---------------------------------------------------------------- by object

TEST(LlistByObject, DeleteRemoveUnlinkAffectTheNodeHoldingTheObject) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    EXPECT_EQ(llist_delete_byobject(&f.list, f.b), MEMM_OK);
    EXPECT_EQ(f.objs(), (Objs{f.a, f.c}));
    EXPECT_EQ(f.counts(), (Counts{2, 1, 2}));
    EXPECT_EQ(llist_remove_byobject(&f.list, f.c), MEMM_OK);
    EXPECT_EQ(f.objs(), (Objs{f.a}));
    EXPECT_EQ(f.counts(), (Counts{2, 1, 2}));
    EXPECT_EQ(llist_unlink_byobject(&f.list, f.a), MEMM_OK);
    EXPECT_EQ(f.list, nullptr);
    EXPECT_EQ(f.counts(), (Counts{2, 1, 2}));
    EXPECT_EQ(in_use(f.p.nodes), 1u);
    EXPECT_EQ(memm_free(f.n[0]), MEMM_OK);
    EXPECT_EQ(f.counts(), (Counts{1, 1, 2}));
}

TEST(LlistByObject, GetAndUnlinkReturnsTheNodeStillHoldingItsObject) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    llist_node *node = llist_getandunlink_byobject(&f.list, f.a);
    EXPECT_EQ(node, f.n[0]);
    EXPECT_EQ(f.list, f.n[1]);
    EXPECT_EQ(next_of(node), nullptr);
    EXPECT_EQ(obj_of(node), f.a);
    EXPECT_EQ(f.counts(), (Counts{2, 2, 2}));
    EXPECT_EQ(memm_free(node), MEMM_OK);
    EXPECT_EQ(f.counts(), (Counts{1, 2, 2}));
    EXPECT_EQ(f.objs(), (Objs{f.b, f.c}));
}

TEST(LlistSameObjectTwice, OnlyTheFirstNodeIsAffected) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    ASSERT_EQ(llist_addref(&f.list, f.a, f.p.nodes), MEMM_OK); // (a, b, c, a)
    EXPECT_EQ(refs(f.a), 3u);
    EXPECT_EQ(llist_getindex_byobject(f.list, f.a), 0u);
    EXPECT_EQ(llist_search_byobject(f.list, f.a), f.n[0]);
    EXPECT_EQ(llist_delete_byobject(&f.list, f.a), MEMM_OK);
    EXPECT_EQ(f.objs(), (Objs{f.b, f.c, f.a}));
    EXPECT_EQ(refs(f.a), 2u);
    EXPECT_EQ(llist_getindex_byobject(f.list, f.a), 2u);
    EXPECT_EQ(llist_delete_byobject(&f.list, f.a), MEMM_OK);
    EXPECT_EQ(refs(f.a), 1u);
    EXPECT_EQ(llist_inlist(f.list, f.a), 0);
    EXPECT_EQ(llist_delete_byobject(&f.list, f.a), MEMM_ERR_INVALID_ARG);
}

TEST(LlistSameObjectTwice, RemoveAndMoveTakeTheFirstNode) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    ASSERT_EQ(llist_insert_at(&f.list, memm_refalloc(f.c), 1, f.p.nodes), MEMM_OK); // (a, c, b, c)
    llist_node *second_c = llist_get_at(f.list, 1);
    EXPECT_EQ(refs(f.c), 3u);
    llist_node *dst = nullptr;
    EXPECT_EQ(llist_move_byobject(&f.list, &dst, f.c), MEMM_OK);
    EXPECT_EQ(dst, second_c);
    EXPECT_EQ(f.objs(), (Objs{f.a, f.b, f.c}));
    EXPECT_EQ(refs(f.c), 3u);
    EXPECT_EQ(llist_remove_byobject(&f.list, f.c), MEMM_OK);
    EXPECT_EQ(refs(f.c), 3u);
    EXPECT_EQ(f.objs(), (Objs{f.a, f.b}));
    EXPECT_EQ(objects_of(dst), (Objs{f.c}));
    EXPECT_EQ(llist_free_plist(&dst), MEMM_OK);
    EXPECT_EQ(refs(f.c), 2u);
}

TEST(LlistByObject, NullObjectMatchesTheFirstNodeWithANullObject) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    ASSERT_EQ(llist_insert_at(&f.list, nullptr, 1, f.p.nodes), MEMM_OK); // (a, null, b, c)
    EXPECT_EQ(llist_getindex_byobject(f.list, nullptr), 1u);
    EXPECT_EQ(llist_delete_byobject(&f.list, nullptr), MEMM_OK);
    EXPECT_EQ(f.objs(), (Objs{f.a, f.b, f.c}));
    EXPECT_EQ(f.counts(), (Counts{2, 2, 2}));
    EXPECT_EQ(in_use(f.p.nodes), 3u);
}

// ---------------------------------------------------------------- failing release inside a detach

TEST(LlistFailingRelease, DeleteReportsItAndTheNodeHasLeftTheList) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    ASSERT_EQ(memm_free(f.b), MEMM_OK); // the list now holds b's only reference
    g_refuse.insert(f.b);
    EXPECT_EQ(llist_delete_at(&f.list, 1), MEMM_ERR_HOOK_FAILED);
    EXPECT_EQ(f.objs(), (Objs{f.a, f.c}));
    EXPECT_EQ(memm_isvalidobj(f.n[1]), 1) << "the node whose release failed stays allocated";
    EXPECT_EQ(next_of(f.n[1]), nullptr);
    EXPECT_EQ(memm_isvalidobj(f.b), 1);
    g_refuse.clear();
    EXPECT_EQ(memm_free(f.n[1]), MEMM_OK);
    EXPECT_EQ(memm_isvalidobj(f.b), 0);
}

// ---------------------------------------------------------------- move

TEST(LlistMove, AppendsTheNodeToTheDestinationWithoutChangingCounts) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    void *x = new_record(f.p.records, 9);
    llist_node *dst = nullptr;
    ASSERT_EQ(llist_addobject(&dst, x, f.p.nodes), MEMM_OK);
    EXPECT_EQ(llist_move_byobject(&f.list, &dst, f.b), MEMM_OK);
    EXPECT_EQ(f.objs(), (Objs{f.a, f.c}));
    EXPECT_EQ(objects_of(dst), (Objs{x, f.b}));
    EXPECT_EQ(llist_move_byobject(&f.list, &dst, f.a), MEMM_OK);
    EXPECT_EQ(f.list, f.n[2]);
    EXPECT_EQ(objects_of(dst), (Objs{x, f.b, f.a}));
    EXPECT_EQ(f.counts(), (Counts{2, 2, 2}));
    EXPECT_EQ(in_use(f.p.nodes), 4u);
    EXPECT_EQ(llist_move_byobject(&f.list, &dst, f.c), MEMM_OK);
    EXPECT_EQ(f.list, nullptr);
    EXPECT_EQ(llist_getlength(dst), 4u);
}

TEST(LlistMove, NullDestinationLeavesTheSourceUnchanged) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    memm_test::clear_logs();
    EXPECT_EQ(llist_move_byobject(&f.list, nullptr, f.b), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(nodes_of(f.list), f.n);
    EXPECT_EQ(f.objs(), (Objs{f.a, f.b, f.c}));
    EXPECT_EQ(f.counts(), (Counts{2, 2, 2}));
    EXPECT_EQ(in_use(f.p.nodes), 3u);
    EXPECT_TRUE(memm_test::log_texts().empty());
}

TEST(LlistMove, WithinOneListMovesTheNodeToTheEnd) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Fixture f;
    EXPECT_EQ(llist_move_byobject(&f.list, &f.list, f.a), MEMM_OK);
    EXPECT_EQ(f.objs(), (Objs{f.b, f.c, f.a}));
    EXPECT_EQ(llist_move_byobject(&f.list, &f.list, f.a), MEMM_OK);
    EXPECT_EQ(f.objs(), (Objs{f.b, f.c, f.a}));
    EXPECT_EQ(f.counts(), (Counts{2, 2, 2}));
}
