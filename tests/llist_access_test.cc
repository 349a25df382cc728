// Reading lists: the two lengths and the null-object rule, positional access,
// setobject_at and the searches.
#include <atomic>
#include <chrono>
#include <thread>

#include "llist_test_helpers.h"

using namespace llist_test;

namespace {

using Objs = std::vector<void *>;

// (a, null, b): a node with a null object in the middle.
struct NullInMiddle {
    Pools p;
    void *a, *b;
    llist_node *list = nullptr;
    std::vector<llist_node *> n;
    NullInMiddle() {
        p = make_pools();
        a = new_record(p.records, 1);
        b = new_record(p.records, 2);
        EXPECT_EQ(llist_addobject(&list, a, p.nodes), MEMM_OK);
        EXPECT_EQ(llist_addobject(&list, nullptr, p.nodes), MEMM_OK);
        EXPECT_EQ(llist_addobject(&list, b, p.nodes), MEMM_OK);
        n = nodes_of(list);
    }
};

int match_id(void *obj, void *key) { return obj && static_cast<Record *>(obj)->id == *static_cast<int *>(key); }

std::vector<void *> g_seen;
int record_every(void *obj, void *) {
    g_seen.push_back(obj);
    return 0;
}

// A match function that calls back into the library (the lock is recursive).
int match_by_refcount(void *obj, void *key) { return obj && memm_get_refcount(obj) == *static_cast<uint32_t *>(key); }

} // namespace

// ---------------------------------------------------------------- null linked_obj length rule

TEST(LlistNullObjectRule, LengthStopsAtTheNullNodeButPositionsWalkPastIt) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    NullInMiddle t;
    EXPECT_EQ(llist_getlength(t.list), 1u);
    memm_lock("test");
    EXPECT_EQ(llist_getlength_nolock(t.list), 1u);
    memm_unlock();
    EXPECT_EQ(llist_getreallength(t.list), 3u);
    EXPECT_EQ(llist_get_at(t.list, 0), t.n[0]);
    EXPECT_EQ(llist_get_at(t.list, 1), t.n[1]);
    EXPECT_EQ(llist_get_at(t.list, 2), t.n[2]);
    EXPECT_EQ(llist_get_at(t.list, 3), nullptr);
    EXPECT_EQ(llist_getobject_at(t.list, 1), nullptr);
    EXPECT_EQ(llist_getobject_at(t.list, 2), t.b);
    // Negative indexes count from the length, 1: -1 is a.
    EXPECT_EQ(llist_get_at(t.list, -1), t.n[0]);
    EXPECT_EQ(llist_getobject_at(t.list, -1), t.a);
    EXPECT_EQ(llist_get_at(t.list, -2), nullptr);
}

TEST(LlistNullObjectRule, DetachWalksPastTheNullNodeToo) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    NullInMiddle t;
    EXPECT_EQ(llist_delete_at(&t.list, -2), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_getandremove_at(&t.list, 2), t.b);
    EXPECT_EQ(refs(t.b), 1u);
    EXPECT_EQ(memm_free(t.b), MEMM_OK);
    // -1 addresses a.
    EXPECT_EQ(llist_delete_at(&t.list, -1), MEMM_OK);
    EXPECT_EQ(memm_isvalidobj(t.a), 0);
    EXPECT_EQ(objects_of(t.list), (Objs{nullptr}));
    EXPECT_EQ(llist_getlength(t.list), 0u);
    EXPECT_EQ(llist_getreallength(t.list), 1u);
    // Length 0: a negative index resolves below 0 and fails.
    EXPECT_EQ(llist_delete_at(&t.list, -1), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_delete_at(&t.list, 0), MEMM_OK);
    EXPECT_EQ(t.list, nullptr);
    EXPECT_EQ(in_use(t.p.nodes), 0u);
}

TEST(LlistRealLength, StopsAtTheFirstNodeThatIsNoPoolObject) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    NullInMiddle t;
    FakeObject fake;
    set_obj(fake.node(), t.a);
    set_next(t.n[2], fake.node());
    EXPECT_EQ(llist_getreallength(t.list), 3u);
    llist_node *fake_list = fake.node();
    EXPECT_EQ(llist_getreallength(fake_list), 0u);
    EXPECT_EQ(llist_getlength(fake_list), 1u) << "the length does not check nodes";
    set_next(t.n[2], nullptr);
    EXPECT_EQ(llist_getreallength(nullptr), 0u);
    EXPECT_EQ(llist_getlength(nullptr), 0u);
}

// ---------------------------------------------------------------- node accessors

TEST(LlistAccessors, FirstNextAndThisCheckTheNode) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    NullInMiddle t;
    EXPECT_EQ(llist_get_first(t.list), t.n[0]);
    EXPECT_EQ(llist_get_next(t.n[0]), t.n[1]);
    EXPECT_EQ(llist_get_next(t.n[2]), nullptr);
    EXPECT_EQ(llist_getobject_this(t.n[0]), t.a);
    EXPECT_EQ(llist_getobject_this(t.n[1]), nullptr);
    EXPECT_EQ(llist_get_first(nullptr), nullptr);
    EXPECT_EQ(llist_get_next(nullptr), nullptr);
    EXPECT_EQ(llist_getobject_this(nullptr), nullptr);
    FakeObject fake;
    set_obj(fake.node(), t.a);
    set_next(fake.node(), t.n[0]);
    EXPECT_EQ(llist_get_first(fake.node()), nullptr);
    EXPECT_EQ(llist_get_next(fake.node()), nullptr);
    EXPECT_EQ(llist_getobject_this(fake.node()), nullptr);
    EXPECT_EQ(llist_get_at(fake.node(), 0), nullptr);
    EXPECT_EQ(llist_getobject_at(fake.node(), 1), nullptr);
}

// ---------------------------------------------------------------- setobject_at

TEST(LlistSetObject, ReleasesExactlyOneReferenceOfTheOldAndNoneOfTheNew) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    NullInMiddle t;
    void *x = new_record(t.p.records, 7);
    ASSERT_EQ(memm_refalloc(t.b), t.b);
    ASSERT_EQ(memm_refalloc(x), x);
    EXPECT_EQ(llist_setobject_at(t.list, x, -1 + 3), MEMM_OK); // index 2: b
    EXPECT_EQ(refs(t.b), 1u);
    EXPECT_EQ(refs(x), 2u);
    EXPECT_EQ(objects_of(t.list), (Objs{t.a, nullptr, x}));
    // Replacing the null object releases nothing.
    void *y = new_record(t.p.records, 8);
    EXPECT_EQ(llist_setobject_at(t.list, y, 1), MEMM_OK);
    EXPECT_EQ(objects_of(t.list), (Objs{t.a, y, x}));
    EXPECT_EQ(refs(y), 1u);
    EXPECT_EQ(llist_getlength(t.list), 3u);
    // The last reference of the old object goes: it is released.
    void *z = new_record(t.p.records, 9);
    EXPECT_EQ(llist_setobject_at(t.list, z, -3), MEMM_OK);
    EXPECT_EQ(memm_isvalidobj(t.a), 0);
    EXPECT_EQ(g_released, 1);
}

TEST(LlistSetObject, NoNodeAtTheIndexChangesNothing) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    NullInMiddle t;
    void *x = new_record(t.p.records, 7);
    EXPECT_EQ(llist_setobject_at(t.list, x, 3), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_setobject_at(t.list, x, -2), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_setobject_at(nullptr, x, 0), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(objects_of(t.list), (Objs{t.a, nullptr, t.b}));
    EXPECT_EQ(refs(x), 1u);
    EXPECT_EQ(refs(t.a), 1u);
    EXPECT_EQ(refs(t.b), 1u);
}

// ---------------------------------------------------------------- searches

TEST(LlistSearch, SearchObjectCallsTheMatchOnEveryNode) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    NullInMiddle t;
    int key = 2;
    EXPECT_EQ(llist_searchobject(t.list, &key, match_id), t.b);
    key = 5;
    EXPECT_EQ(llist_searchobject(t.list, &key, match_id), nullptr);
    EXPECT_EQ(llist_searchobject(t.list, &key, nullptr), nullptr);
    g_seen.clear();
    EXPECT_EQ(llist_searchobject(t.list, nullptr, record_every), nullptr);
    EXPECT_EQ(g_seen, (Objs{t.a, nullptr, t.b})) << "nodes with a null object are visited too";
    EXPECT_EQ(llist_searchobject(nullptr, &key, match_id), nullptr);
}

TEST(LlistSearch, MatchFunctionMayCallTheLibrary) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    NullInMiddle t;
    ASSERT_EQ(memm_refalloc(t.b), t.b);
    uint32_t two = 2;
    EXPECT_EQ(llist_searchobject(t.list, &two, match_by_refcount), t.b);
}

TEST(LlistSearch, ByObjectIndexAndInlist) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    NullInMiddle t;
    void *x = new_record(t.p.records, 7);
    EXPECT_EQ(llist_search_byobject(t.list, t.b), t.n[2]);
    EXPECT_EQ(llist_search_byobject(t.list, x), nullptr);
    EXPECT_EQ(llist_search_byobject(t.list, nullptr), t.n[1]);
    EXPECT_EQ(llist_getindex_byobject(t.list, t.a), 0u);
    EXPECT_EQ(llist_getindex_byobject(t.list, t.b), 2u);
    EXPECT_EQ(llist_getindex_byobject(t.list, x), 0xFFFFFFFFu);
    EXPECT_EQ(llist_getindex_byobject(nullptr, x), 0xFFFFFFFFu);
    EXPECT_EQ(llist_inlist(t.list, t.b), 1);
    EXPECT_EQ(llist_inlist(t.list, x), 0);
    EXPECT_EQ(llist_inlist(t.list, nullptr), 0) << "a null object is never in a list";
    EXPECT_EQ(llist_inlist(nullptr, t.a), 0);
}

// ---------------------------------------------------------------- the lock

TEST(LlistLock, ListCallsWaitForAnotherThreadsHold) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    NullInMiddle t;
    void *x = new_record(t.p.records, 7);
    memm_lock("test holder");
    std::atomic<bool> done{false};
    std::thread other([&] {
        EXPECT_EQ(llist_addobject(&t.list, x, t.p.nodes), MEMM_OK);
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(done.load());
    EXPECT_EQ(in_use(t.p.nodes), 3u);
    memm_unlock();
    other.join();
    EXPECT_TRUE(done.load());
    EXPECT_EQ(objects_of(t.list), (Objs{t.a, nullptr, t.b, x}));
}

// Two threads add and delete references of the same objects on one shared
// list; every call holds the lock for its whole run, so no update is lost.
TEST(LlistLock, ConcurrentAddsAndDeletesKeepCountsExact) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools(int32_t(sizeof(llist_node)), 2048);
    std::vector<void *> r = new_records(p.records, 4);
    llist_node *list = nullptr;
    auto worker = [&](int seed) {
        for (int i = 0; i < 2000; i++) {
            void *o = r[size_t((i + seed) % 4)];
            EXPECT_EQ(llist_addref(&list, o, p.nodes), MEMM_OK);
            if (i % 3 == 2) {
                // Two deletes: this thread has added at least two more
                // nodes than it has deleted, so the list holds two.
                EXPECT_EQ(llist_delete_at(&list, -1), MEMM_OK);
                EXPECT_EQ(llist_delete_at(&list, 0), MEMM_OK);
            }
        }
    };
    std::thread t1(worker, 0);
    std::thread t2(worker, 1);
    t1.join();
    t2.join();
    uint32_t len = llist_getlength(list);
    EXPECT_EQ(len, 2u * (2000 - 2 * (2000 / 3)));
    uint32_t held = 0;
    for (void *o : r)
        held += refs(o) - 1;
    EXPECT_EQ(held, len);
    EXPECT_EQ(in_use(p.nodes), len);
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    for (void *o : r)
        EXPECT_EQ(refs(o), 1u);
}
