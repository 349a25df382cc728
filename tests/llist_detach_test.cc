// Indexes, detaching failures that leave a list unchanged, the null
// linked_obj rule and an object held twice: the cases spelt out, on top of
// the model test's random runs.
#include "llist_test_helpers.h"

using namespace llist_test;

// Every kind of index on (a, b, c): {index, node addressed, insert position},
// -1 for none / refused. Reference counts in every mode are the model's.
TEST(LlistIndex, NegativeZeroLengthAndBeyond) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    Objs r = new_records(p.records, 4);
    const struct { int32_t index; int at, ins; } cases[] = {
        {0, 0, 0},     {1, 1, 1},   {2, 2, 2},   {3, -1, 3},  {-1, 2, 2},          {-2, 1, 1},
        {-3, 0, 0},    {-4, -1, 0}, {-5, -1, 0}, {4, -1, -1}, {INT32_MIN, -1, 0}, {INT32_MAX, -1, -1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.index);
        Objs left(r.begin(), r.begin() + 3), inserted = left;
        llist_node *list = list_of(left, p.nodes);
        const std::vector<llist_node *> n = nodes_of(list);
        if (c.at >= 0)
            left.erase(left.begin() + c.at);
        if (c.ins >= 0)
            inserted.insert(inserted.begin() + c.ins, r[3]);
        EXPECT_EQ(llist_get_at(list, c.index), c.at < 0 ? nullptr : n[size_t(c.at)]);
        EXPECT_EQ(llist_insert_at(&list, r[3], c.index, p.nodes), c.ins < 0 ? MEMM_ERR_INVALID_ARG : MEMM_OK);
        EXPECT_EQ(objects_of(list), inserted);
        EXPECT_EQ(refs(r[3]), 1u) << "a refused insert leaves the caller its reference";
        EXPECT_EQ(in_use(p.nodes), inserted.size()) << "and no node behind";
        if (c.ins >= 0) {
            ASSERT_EQ(llist_remove_byobject(&list, r[3]), MEMM_OK);
        }
        EXPECT_EQ(llist_delete_at(&list, c.index), c.at < 0 ? MEMM_ERR_INVALID_ARG : MEMM_OK);
        EXPECT_EQ(objects_of(list), left);
        EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    }
    // An empty list takes index 0 only.
    llist_node *list = nullptr;
    EXPECT_EQ(llist_insert_at(&list, r[3], -1, p.nodes), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_insert_at(&list, r[3], 1, p.nodes), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_insert_at(&list, r[3], 0, p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(list), (Objs{r[3]}));
}

TEST(LlistDetachFailures, LeaveTheListUnchanged) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    Objs r = new_records(p.records, 4);
    llist_node *list = list_of({r[0], r[1], r[2]}, p.nodes);
    const std::vector<llist_node *> n = nodes_of(list);
    FakeNode fake(r[0], list);
    llist_node *fake_list = fake.node(), *empty = nullptr;
    memm_test::clear_logs();
    auto refused = [&](llist_node **pl, int32_t index, void *key) {
        llist_node *dst = nullptr;
        EXPECT_EQ(llist_delete_at(pl, index), MEMM_ERR_INVALID_ARG);
        EXPECT_EQ(llist_remove_at(pl, index), MEMM_ERR_INVALID_ARG);
        EXPECT_EQ(llist_unlink_at(pl, index), MEMM_ERR_INVALID_ARG);
        EXPECT_EQ(llist_getandremove_at(pl, index), nullptr);
        EXPECT_EQ(llist_getandunlink_at(pl, index), nullptr);
        EXPECT_EQ(llist_delete_byobject(pl, key), MEMM_ERR_INVALID_ARG);
        EXPECT_EQ(llist_remove_byobject(pl, key), MEMM_ERR_INVALID_ARG);
        EXPECT_EQ(llist_unlink_byobject(pl, key), MEMM_ERR_INVALID_ARG);
        EXPECT_EQ(llist_getandunlink_byobject(pl, key), nullptr);
        EXPECT_EQ(llist_move_byobject(pl, &dst, key), MEMM_ERR_INVALID_ARG);
        EXPECT_EQ(dst, nullptr);
        if (pl != &list) {
            EXPECT_EQ(llist_popobject(pl), nullptr);
        }
    };
    refused(nullptr, 0, r[0]);
    refused(&empty, 0, r[0]);
    refused(&fake_list, 1, r[1]); // a first node that is no pool object
    refused(&list, 3, r[3]);      // past the end; an object it does not hold
    // A null destination is refused before anything is detached.
    EXPECT_EQ(llist_move_byobject(&list, nullptr, r[1]), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(fake_list, fake.node());
    EXPECT_EQ(nodes_of(list), n);
    for (size_t i = 0; i < 4; i++)
        EXPECT_EQ(refs(r[i]), i < 3 ? 2u : 1u);
    EXPECT_EQ(in_use(p.nodes), 3u);
    EXPECT_TRUE(memm_test::log_texts().empty());
    // The readers that check nodes refuse one that is no pool object.
    EXPECT_EQ(llist_get_first(fake.node()), nullptr);
    EXPECT_EQ(llist_get_next(fake.node()), nullptr);
    EXPECT_EQ(llist_getobject_this(fake.node()), nullptr);
    EXPECT_EQ(llist_get_at(fake.node(), 1), nullptr);
    EXPECT_EQ(llist_getreallength(fake.node()), 0u);
    EXPECT_EQ(llist_searchobject(list, r[0], nullptr), nullptr) << "a null match matches nothing";

    // A failing object release is reported, but the node has left the list.
    ASSERT_EQ(memm_free(r[1]), MEMM_OK);
    g_refuse = {r[1]};
    EXPECT_EQ(llist_delete_at(&list, 1), MEMM_ERR_HOOK_FAILED);
    EXPECT_EQ(objects_of(list), (Objs{r[0], r[2]}));
    EXPECT_EQ(memm_isvalidobj(n[1]), 1);
    EXPECT_EQ(next_of(n[1]), nullptr);
    g_refuse.clear();
    EXPECT_EQ(memm_free(n[1]), MEMM_OK);
    EXPECT_EQ(memm_isvalidobj(r[1]), 0);
}

// (a, null, b): the length is 1 and negative indexes count from it, while
// walks by position go on past the null node.
TEST(LlistNullObject, LengthStopsAtTheNullNodeAndPositionsWalkPastIt) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    Objs r = new_records(p.records, 4);
    void *a = r[0], *b = r[1], *x = r[2], *y = r[3];
    llist_node *list = list_of({a, nullptr, b}, p.nodes, false);
    EXPECT_EQ(llist_getlength(list), 1u);
    EXPECT_EQ(llist_getreallength(list), 3u);
    EXPECT_EQ(llist_getobject_at(list, 2), b);
    EXPECT_EQ(llist_getobject_at(list, -1), a);
    EXPECT_EQ(llist_get_at(list, -2), nullptr);
    EXPECT_EQ(llist_delete_at(&list, -2), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_insert_at(&list, x, -1, p.nodes), MEMM_OK); // -1 + 1: the front
    EXPECT_EQ(llist_insert_at(&list, y, 4, p.nodes), MEMM_OK);  // past the null node: the end
    EXPECT_EQ(objects_of(list), (Objs{x, a, nullptr, b, y}));
    EXPECT_EQ(llist_getandremove_at(&list, 3), b);
    EXPECT_EQ(llist_getandremove_at(&list, 2), nullptr) << "the null node is released all the same";
    EXPECT_EQ(objects_of(list), (Objs{x, a, y}));
    EXPECT_EQ(llist_getlength(list), 3u);
}

// (a, b, a, a): every by-object operation takes the first node holding a.
TEST(LlistSameObjectTwice, ByObjectOperationsTakeTheFirstNode) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    Objs r = new_records(p.records, 2);
    void *a = r[0];
    llist_node *list = list_of({a, r[1], a, a}, p.nodes);
    const std::vector<llist_node *> n = nodes_of(list);
    EXPECT_EQ(llist_move_byobject(&list, &list, a), MEMM_OK);
    EXPECT_EQ(nodes_of(list), (std::vector<llist_node *>{n[1], n[2], n[3], n[0]}));
    EXPECT_EQ(llist_delete_byobject(&list, a), MEMM_OK);
    EXPECT_EQ(llist_remove_byobject(&list, a), MEMM_OK);
    EXPECT_EQ(nodes_of(list), (std::vector<llist_node *>{n[1], n[0]}));
    EXPECT_EQ(refs(a), 3u) << "one reference released, one handed back";
    EXPECT_EQ(llist_getandunlink_byobject(&list, a), n[0]);
    EXPECT_EQ(nodes_of(list), (std::vector<llist_node *>{n[1]}));
}
