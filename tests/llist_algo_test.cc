// Whole-list operations and enumerations: the argument failures, the callback
// enumeration (lock not held, the current node deleted under it), a clone
// that runs out of nodes, and the node printer. The rest is in the model test.
#include <thread>

#include "llist_test_helpers.h"
#include "report_files.h"

using namespace llist_test;

namespace {

int32_t by_address(void *a, void *b) { return a < b ? -1 : a > b; }
int32_t by_address_ex(void *, void *a, void *b) { return by_address(a, b); }

struct Deleter {
    llist_node **plist;
    Objs seen;
    bool delete_next = false;
};

// Deletes the node of the object it is given (or the one after it) and shows
// that the lock is free: another thread's list call would wait forever.
int delete_current(void *obj, void *ctx) {
    Deleter *d = static_cast<Deleter *>(ctx);
    d->seen.push_back(obj);
    std::thread([&] { EXPECT_GT(llist_getlength(*d->plist), 0u); }).join();
    void *victim = d->delete_next ? llist_getobject_at(*d->plist, 1) : obj;
    EXPECT_EQ(llist_delete_byobject(d->plist, victim), MEMM_OK);
    return 1;
}

int stop_at_once(void *, void *calls) {
    ++*static_cast<int *>(calls);
    return 0;
}

std::string line_of(void *obj) {
    memm_test::take_printed();
    memm_printobject2(obj, 0, memm_test::print_capture);
    return memm_test::take_printed();
}

} // namespace

// Null arguments: the documented result, and nothing changes.
TEST(LlistAlgoArguments, NullArgumentsChangeNothing) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    Objs r = new_records(p.records, 3);
    llist_node *list = list_of({r[1], r[0]}, p.nodes), *empty = nullptr;
    const std::vector<llist_node *> n = nodes_of(list);
    uint32_t index = 0;
    void *last = r[2];
    dynstr *last_string = nullptr;
    memm_test::clear_logs();
    const struct {
        uint32_t got, expected;
    } rows[] = {
        {llist_sort(nullptr, by_address), MEMM_ERR_INVALID_ARG},
        {llist_sort(&list, nullptr), MEMM_ERR_INVALID_ARG},
        {llist_sort_ex(nullptr, nullptr, by_address_ex), MEMM_ERR_INVALID_ARG},
        {llist_sort_ex(&list, nullptr, nullptr), MEMM_ERR_INVALID_ARG},
        {llist_reverse(nullptr), MEMM_ERR_INVALID_ARG},
        {llist_clone(nullptr, list, p.nodes), MEMM_ERR_INVALID_ARG},
        {llist_addlist(nullptr, list), MEMM_ERR_INVALID_ARG},
        {llist_addlist(&list, nullptr), MEMM_ERR_INVALID_ARG},
        {llist_insert_list_at(nullptr, list, 0), MEMM_ERR_INVALID_ARG},
        {llist_insert_list_at(&list, nullptr, 7), MEMM_OK},
        // No list address, no order, no node: nothing added, r[2] untouched.
        {llist_insert_sorted(nullptr, r[2], p.nodes, by_address), MEMM_OK},
        {llist_insert_sorted(&list, r[2], p.nodes, nullptr), MEMM_OK},
        {llist_insert_sorted(&list, r[2], MEMM_INVALID_POOL, by_address), MEMM_OK},
        {llist_enumcb_bytype(list, p.records, nullptr, nullptr), 0},
        {llist_clone(&empty, nullptr, p.nodes), MEMM_OK},
    };
    for (size_t i = 0; i < sizeof rows / sizeof rows[0]; i++)
        EXPECT_EQ(rows[i].got, rows[i].expected) << "row " << i;
    EXPECT_EQ(llist_split_at(nullptr, 0), nullptr);
    EXPECT_EQ(llist_get_bytype(nullptr, LLIST_TYPE_ANY, 0), nullptr);
    EXPECT_EQ(llist_enum_bytype(list, LLIST_TYPE_ANY, nullptr, &last), nullptr);
    EXPECT_EQ(llist_enum_bytype(list, LLIST_TYPE_ANY, &index, nullptr), nullptr);
    EXPECT_EQ(llist_enum_bytype(empty, LLIST_TYPE_ANY, &index, &last), nullptr);
    EXPECT_EQ(llist_enum_dynstr(list, nullptr, &last_string), nullptr);
    EXPECT_EQ(llist_enum_dynstr(list, &index, nullptr), nullptr);
    EXPECT_EQ(last, r[2]);
    EXPECT_EQ(index, 0u);
    EXPECT_EQ(empty, nullptr);
    EXPECT_EQ(nodes_of(list), n);
    EXPECT_EQ(refs(r[0]), 2u);
    EXPECT_EQ(refs(r[1]), 2u);
    EXPECT_EQ(refs(r[2]), 1u);
    EXPECT_EQ(in_use(p.nodes), 2u);
    EXPECT_TRUE(memm_test::log_texts().empty());
}

// The callback runs without the lock and may delete the node it was given:
// every object is still visited. Deleting the node after it ends the walk.
TEST(LlistEnumCallback, CallbackMayDeleteTheCurrentNode) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    const uint32_t other = memm_initpool("other", 4, 8, nullptr);
    Objs r = new_records(p.records, 4);
    void *x = memm_calloc(other);
    Deleter d{nullptr, {}};
    llist_node *list = list_of({r[0], x, r[1], r[2], r[3]}, p.nodes);
    d.plist = &list;
    EXPECT_EQ(llist_enumcb_bytype(list, p.records, delete_current, &d), 4u);
    EXPECT_EQ(d.seen, (Objs{r[0], r[1], r[2], r[3]}));
    EXPECT_EQ(objects_of(list), (Objs{x}));

    list = list_of({r[0], r[1], r[2]}, p.nodes);
    d = Deleter{&list, {}, true};
    EXPECT_EQ(llist_enumcb_bytype(list, p.records, delete_current, &d), 1u);
    EXPECT_EQ(d.seen, (Objs{r[0]}));
    EXPECT_EQ(objects_of(list), (Objs{r[0], r[2]}));

    int calls = 0;
    EXPECT_EQ(llist_enumcb_bytype(list, p.records, stop_at_once, &calls), 0u);
    EXPECT_EQ(calls, 1);
    for (void *o : r)
        EXPECT_EQ(refs(o), o == r[0] || o == r[2] ? 2u : 1u);
}

// A clone that runs out of nodes half way releases the whole destination
// (with the node it held before) and gives back every reference it took.
TEST(LlistClone, NodePoolRunningDryDropsTheDestination) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    Objs r = new_records(p.records, 5);
    llist_node *src = list_of({r[0], r[1], r[2], r[3]}, p.nodes);
    // A pool of one node and its extension pools, filled up but for three.
    const uint32_t small = llist_initpool("dry", 1, int32_t(sizeof(llist_node)), nullptr);
    llist_node *dst = nullptr;
    ASSERT_EQ(llist_addref(&dst, r[4], small), MEMM_OK);
    Objs fillers;
    while (void *f = memm_calloc(small))
        fillers.push_back(f);
    ASSERT_GE(fillers.size(), 3u);
    for (int i = 0; i < 3; i++) {
        memm_free(fillers.back());
        fillers.pop_back();
    }
    EXPECT_EQ(llist_clone(&dst, src, small), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(dst, nullptr);
    EXPECT_EQ(in_use(small), fillers.size());
    for (void *o : r)
        EXPECT_EQ(refs(o), o == r[4] ? 1u : 2u);

    // With room, the copy is appended and each object gains one holder.
    for (void *f : fillers)
        memm_free(f);
    ASSERT_EQ(llist_addref(&dst, r[4], small), MEMM_OK);
    EXPECT_EQ(llist_clone(&dst, src, small), MEMM_OK);
    EXPECT_EQ(objects_of(dst), (Objs{r[4], r[0], r[1], r[2], r[3]}));
    for (void *o : r)
        EXPECT_EQ(refs(o), o == r[4] ? 2u : 3u);
}

// A node's details are the object lines of its next node and of its object;
// listings of a node pool show them, and a pool's own print hook stays.
TEST(LlistNodePrinter, ListingsShowNextAndLinkedObject) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    Objs r = new_records(p.records, 2);
    llist_node *list = list_of(r, p.nodes, false);
    llist_node *last = next_of(list);
    const std::string first_details = ", next= :" + line_of(last) + ", linked_obj= :" + line_of(r[0]);
    const std::string last_details = ", next= :" + line_of(nullptr) + ", linked_obj= :" + line_of(r[1]);
    EXPECT_EQ(line_of(nullptr), " Obj is 0x0: null !!\n");
    const std::string first_line = line_of(list);
    memm_printobject2(list, 1, memm_test::print_capture);
    EXPECT_EQ(memm_test::take_printed(), first_line + first_details);
    const std::string listed = memm_test::listing("llt_nodes", 0);
    EXPECT_NE(listed.find(" \r\n" + line_of(list) + first_details + "\r\n"), std::string::npos) << listed;
    EXPECT_NE(listed.find(" \r\n" + line_of(last) + last_details + "\r\n"), std::string::npos) << listed;

    memm_pool_options opts{};
    opts.print2 = [](void *, memm_print_fn print) { print(" - mine"); };
    const uint32_t own = llist_initpool("own", 2, int32_t(sizeof(llist_node)), &opts);
    llist_node *mine = list_of({r[0]}, own);
    const std::string mine_line = line_of(mine);
    memm_printobject2(mine, 1, memm_test::print_capture);
    EXPECT_EQ(memm_test::take_printed(), mine_line + " - mine");
}
