// List core: node pools, adding, copying by reference, positional insert, the
// node destructor's cascade and releasing whole lists.
#include <dlfcn.h>

#include "llist_test_helpers.h"

using namespace llist_test;
using memm_test::log_count;
using memm_test::log_count_prefix;

namespace {

int noop_print(const char *, ...) { return 0; }
void print_hook(void *) {}
void print2_hook(void *, memm_print_fn) {}
uint32_t foreign_free_ex(void *) { return 1; }

// Path of the module that holds a code address.
std::string module_of(void *addr) {
    Dl_info info{};
    if (!dladdr(addr, &info) || !info.dli_fname)
        return "";
    return info.dli_fname;
}

} // namespace

// ---------------------------------------------------------------- node pools

TEST(LlistInitPool, InstallsDestructorAndPrinterWithoutOptions) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    uint32_t id = llist_initpool("nodes", 8, int32_t(sizeof(llist_node)), nullptr);
    ASSERT_NE(id, MEMM_INVALID_POOL);
    memm_pooldesc *p = memm_get_pool_nolock(id);
    ASSERT_NE(p, nullptr);
    EXPECT_NE(p->options.free_ex, nullptr);
    EXPECT_NE(p->options.print2, nullptr);
    EXPECT_EQ(p->options.print, nullptr);
    EXPECT_EQ(p->options.free2_ex, nullptr);
    EXPECT_STREQ(memm_get_poolname2(id), "nodes");
    // The placeholder printer prints nothing.
    void *node = memm_calloc(id);
    ASSERT_NE(node, nullptr);
    p->options.print2(node, noop_print);
    EXPECT_EQ(memm_free(node), MEMM_OK);
}

TEST(LlistInitPool, KeepsCallersOptionsButAlwaysItsOwnDestructor) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    int cookie = 0;
    memm_pool_options opts = {};
    opts.print = print_hook;
    opts.free_ex = foreign_free_ex;
    opts.cookie = &cookie;
    opts.reserve = 2;
    uint32_t a = llist_initpool("with_print", 8, 16, &opts);
    ASSERT_NE(a, MEMM_INVALID_POOL);
    memm_pooldesc *pa = memm_get_pool_nolock(a);
    EXPECT_EQ(pa->options.print, print_hook);
    EXPECT_EQ(pa->options.print2, nullptr) << "a caller's print hook suppresses the node printer";
    EXPECT_NE(pa->options.free_ex, foreign_free_ex);
    EXPECT_NE(pa->options.free_ex, nullptr);
    EXPECT_EQ(pa->options.cookie, &cookie);
    EXPECT_EQ(pa->options.reserve, 2u);
    EXPECT_EQ(opts.free_ex, foreign_free_ex) << "the caller's record is not changed";

    memm_pool_options opts2 = {};
    opts2.print2 = print2_hook;
    uint32_t b = llist_initpool("with_print2", 8, 16, &opts2);
    ASSERT_NE(b, MEMM_INVALID_POOL);
    EXPECT_EQ(memm_get_pool_nolock(b)->options.print2, print2_hook);
    EXPECT_EQ(memm_get_pool_nolock(b)->options.free_ex, pa->options.free_ex);
}

TEST(LlistInitPool, RefusesObjectSizeBelowTwoPointersWithoutLogging) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    memm_test::clear_logs();
    uint32_t pools = memm_get_number_of_pools();
    EXPECT_EQ(llist_initpool("small", 8, int32_t(sizeof(llist_node)) - 1, nullptr), MEMM_INVALID_POOL);
    EXPECT_EQ(llist_initpool("zero", 8, 0, nullptr), MEMM_INVALID_POOL);
    EXPECT_EQ(llist_initpool("negative", 8, -16, nullptr), MEMM_INVALID_POOL);
    EXPECT_EQ(memm_get_number_of_pools(), pools);
    EXPECT_TRUE(memm_test::log_texts().empty());
    EXPECT_NE(llist_initpool("exact", 8, int32_t(sizeof(llist_node)), nullptr), MEMM_INVALID_POOL);
}

TEST(LlistInitPool, OtherFailuresAreThePoolLayers) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    memm_test::clear_logs();
    EXPECT_EQ(llist_initpool("nocount", 0, 16, nullptr), MEMM_INVALID_POOL);
    EXPECT_EQ(log_count("[MEMM] Failed to allocate nocount buffer (cnt=0, objsize=16)"), 1u);
    ASSERT_NE(llist_initpool("twice", 4, 16, nullptr), MEMM_INVALID_POOL);
    EXPECT_EQ(llist_initpool("twice", 4, 16, nullptr), MEMM_INVALID_POOL);
}

// ---------------------------------------------------------------- adding

TEST(LlistAdd, ListTakesOverTheCallersReference) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    std::vector<void *> r = new_records(p.records, 3);
    llist_node *list = nullptr;
    for (void *o : r)
        ASSERT_EQ(llist_addobject(&list, o, p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(list), r);
    EXPECT_EQ(llist_getlength(list), 3u);
    EXPECT_EQ(in_use(p.nodes), 3u);
    for (void *o : r)
        EXPECT_EQ(refs(o), 1u);
    // The list's release is the objects' last release.
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(g_released, 3);
    EXPECT_EQ(in_use(p.nodes), 0u);
    for (void *o : r)
        EXPECT_EQ(memm_isvalidobj(o), 0);
}

TEST(LlistAdd, NolockVariantUnderCallersLock) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *a = new_record(p.records, 1);
    void *b = new_record(p.records, 2);
    llist_node *list = nullptr;
    memm_lock("test");
    EXPECT_EQ(llist_addobject_nolock(&list, a, p.nodes), MEMM_OK);
    EXPECT_EQ(llist_addobject_nolock(&list, b, p.nodes), MEMM_OK);
    EXPECT_EQ(llist_getlength_nolock(list), 2u);
    EXPECT_EQ(llist_get_at_nolock(list, 1), nodes_of(list)[1]);
    memm_unlock();
    EXPECT_EQ(objects_of(list), (std::vector<void *>{a, b}));
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
}

TEST(LlistAdd, NullListAddressReleasesTheHandedOverReference) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *o = new_record(p.records, 1);
    ASSERT_EQ(memm_refalloc(o), o);
    EXPECT_EQ(llist_addobject(nullptr, o, p.nodes), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(refs(o), 1u);
    EXPECT_EQ(in_use(p.nodes), 0u) << "the node allocated for it is released";
    memm_lock("test");
    EXPECT_EQ(llist_addobject_nolock(nullptr, o, p.nodes), MEMM_ERR_INVALID_ARG);
    memm_unlock();
    EXPECT_EQ(memm_isvalidobj(o), 0) << "its last reference went with the node";
    EXPECT_EQ(g_released, 1);
}

TEST(LlistAdd, NoNodeLeavesTheObjectUntouched) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *o = new_record(p.records, 1);
    llist_node *list = nullptr;
    EXPECT_EQ(llist_addobject(&list, o, MEMM_INVALID_POOL), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(llist_addobject(&list, o, 999), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(llist_addobject(nullptr, o, MEMM_INVALID_POOL), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(refs(o), 1u);
    EXPECT_EQ(g_released, 0);
}

TEST(LlistAdd, NullObjectNodeEndsTheLength) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *a = new_record(p.records, 1);
    void *b = new_record(p.records, 2);
    llist_node *list = nullptr;
    ASSERT_EQ(llist_addobject(&list, a, p.nodes), MEMM_OK);
    ASSERT_EQ(llist_addobject(&list, nullptr, p.nodes), MEMM_OK);
    ASSERT_EQ(llist_addobject(&list, b, p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(list), (std::vector<void *>{a, nullptr, b}));
    EXPECT_EQ(llist_getlength(list), 1u);
    EXPECT_EQ(llist_getreallength(list), 3u);
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    EXPECT_EQ(g_released, 2);
    EXPECT_EQ(in_use(p.nodes), 0u);
}

TEST(LlistAdd, NodesRecordTheCallersCallSite) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *o = new_record(p.records, 1);
    llist_node *list = nullptr;
    ASSERT_EQ(llist_addref(&list, o, p.nodes), MEMM_OK);
    ASSERT_EQ(llist_addobject(&list, o, p.nodes), MEMM_OK);
    ASSERT_EQ(llist_insert_at(&list, memm_refalloc(o), 1, p.nodes), MEMM_OK);
    ASSERT_EQ(llist_pushobject(&list, memm_refalloc(o), p.nodes), MEMM_OK);
    llist_node *copy = llist_refalloc(list, p.nodes);
    std::vector<llist_node *> all = nodes_of(list);
    for (llist_node *n : nodes_of(copy))
        all.push_back(n);
    ASSERT_EQ(all.size(), 8u);
    std::string library = module_of(reinterpret_cast<void *>(&llist_addobject));
    std::string self = module_of(reinterpret_cast<void *>(&module_of));
    ASSERT_NE(library, self);
    for (llist_node *n : all) {
        memm_objhdr h;
        memcpy(&h, reinterpret_cast<uint8_t *>(n) - MEMM_OBJHDR_SIZE, sizeof h);
        EXPECT_EQ(module_of(h.allocfrom), self) << "allocfrom points into " << module_of(h.allocfrom);
    }
    EXPECT_EQ(refs(o), 8u);
    EXPECT_EQ(llist_free_plist(&copy), MEMM_OK);
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    EXPECT_EQ(g_released, 1);
}

// ---------------------------------------------------------------- addref

TEST(LlistAddRef, TakesItsOwnReference) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *o = new_record(p.records, 1);
    llist_node *list = nullptr;
    ASSERT_EQ(llist_addref(&list, o, p.nodes), MEMM_OK);
    EXPECT_EQ(refs(o), 2u);
    ASSERT_EQ(llist_addref(&list, o, p.nodes), MEMM_OK);
    EXPECT_EQ(refs(o), 3u);
    EXPECT_EQ(objects_of(list), (std::vector<void *>{o, o}));
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    EXPECT_EQ(refs(o), 1u);
    EXPECT_EQ(g_released, 0);
}

TEST(LlistAddRef, ObjectAtMaximumReferencesAppendsANullNode) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *o = new_record(p.records, 1);
    void *first = new_record(p.records, 2);
    for (uint32_t i = 0; i < MEMM_MAX_EXTRA_REFS; i++)
        ASSERT_EQ(memm_refalloc(o), o);
    ASSERT_EQ(refs(o), MEMM_MAX_REFS);
    llist_node *list = nullptr;
    ASSERT_EQ(llist_addobject(&list, first, p.nodes), MEMM_OK);
    EXPECT_EQ(llist_addref(&list, o, p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(list), (std::vector<void *>{first, nullptr}));
    EXPECT_EQ(llist_getlength(list), 1u);
    EXPECT_EQ(refs(o), MEMM_MAX_REFS);
    EXPECT_EQ(log_count("memm__refalloc() failed (too many references for this object)"), 1u);
    // A null object cannot take a reference either.
    EXPECT_EQ(llist_addref(&list, nullptr, p.nodes), MEMM_OK);
    EXPECT_EQ(llist_getreallength(list), 3u);
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    EXPECT_EQ(refs(o), MEMM_MAX_REFS);
    EXPECT_EQ(in_use(p.nodes), 0u);
}

TEST(LlistAddRef, NoNodeGivesTheNewReferenceBack) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *o = new_record(p.records, 1);
    llist_node *list = nullptr;
    EXPECT_EQ(llist_addref(&list, o, MEMM_INVALID_POOL), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(refs(o), 1u);
    EXPECT_EQ(list, nullptr);
}

TEST(LlistAddRef, NullListAddressLeavesTheCountAsItWas) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *o = new_record(p.records, 1);
    EXPECT_EQ(llist_addref(nullptr, o, p.nodes), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(refs(o), 1u);
    EXPECT_EQ(in_use(p.nodes), 0u);
    EXPECT_EQ(g_released, 0);
}

// ---------------------------------------------------------------- refalloc

TEST(LlistRefAlloc, CopiesNodeForNodeWithOneMoreReferenceEach) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    uint32_t other = llist_initpool("other_nodes", 8, 24, nullptr);
    std::vector<void *> r = new_records(p.records, 3);
    llist_node *list = nullptr;
    for (void *o : r)
        ASSERT_EQ(llist_addobject(&list, o, p.nodes), MEMM_OK);
    ASSERT_EQ(llist_addref(&list, r[1], p.nodes), MEMM_OK);

    llist_node *copy = llist_refalloc(list, other);
    EXPECT_EQ(objects_of(copy), (std::vector<void *>{r[0], r[1], r[2], r[1]}));
    EXPECT_EQ(objects_of(list), (std::vector<void *>{r[0], r[1], r[2], r[1]}));
    EXPECT_EQ(in_use(other), 4u);
    EXPECT_EQ(refs(r[0]), 2u);
    EXPECT_EQ(refs(r[1]), 4u);
    EXPECT_EQ(refs(r[2]), 2u);
    for (llist_node *n : nodes_of(copy))
        EXPECT_EQ(memm_get_poolid(n), other);

    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    EXPECT_EQ(g_released, 0);
    EXPECT_EQ(refs(r[1]), 2u);
    EXPECT_EQ(llist_free_plist(&copy), MEMM_OK);
    EXPECT_EQ(g_released, 3);
}

TEST(LlistRefAlloc, EmptyListAndNullObjectsAndMissingNodes) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    EXPECT_EQ(llist_refalloc(nullptr, p.nodes), nullptr);
    void *a = new_record(p.records, 1);
    void *b = new_record(p.records, 2);
    llist_node *list = nullptr;
    ASSERT_EQ(llist_addobject(&list, a, p.nodes), MEMM_OK);
    ASSERT_EQ(llist_addobject(&list, nullptr, p.nodes), MEMM_OK);
    ASSERT_EQ(llist_addobject(&list, b, p.nodes), MEMM_OK);
    // Every node is copied, the null one as a null node.
    llist_node *copy = llist_refalloc(list, p.nodes);
    EXPECT_EQ(objects_of(copy), (std::vector<void *>{a, nullptr, b}));
    EXPECT_EQ(refs(a), 2u);
    EXPECT_EQ(refs(b), 2u);
    // No node for any of them: an empty result and no reference left behind.
    EXPECT_EQ(llist_refalloc(list, MEMM_INVALID_POOL), nullptr);
    EXPECT_EQ(refs(a), 2u);
    EXPECT_EQ(refs(b), 2u);
    EXPECT_EQ(llist_free_plist(&copy), MEMM_OK);
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    EXPECT_EQ(g_released, 2);
}

// ---------------------------------------------------------------- insert

namespace {

struct ThreeList {
    Pools p;
    void *a, *b, *c, *x;
    llist_node *list = nullptr;
    ThreeList() {
        p = make_pools();
        a = new_record(p.records, 1);
        b = new_record(p.records, 2);
        c = new_record(p.records, 3);
        x = new_record(p.records, 9);
        EXPECT_EQ(llist_addobject(&list, a, p.nodes), MEMM_OK);
        EXPECT_EQ(llist_addobject(&list, b, p.nodes), MEMM_OK);
        EXPECT_EQ(llist_addobject(&list, c, p.nodes), MEMM_OK);
    }
};

} // namespace

TEST(LlistInsert, IndexZeroInsertsAtTheFront) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    ThreeList t;
    EXPECT_EQ(llist_insert_at(&t.list, t.x, 0, t.p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(t.list), (std::vector<void *>{t.x, t.a, t.b, t.c}));
    EXPECT_EQ(refs(t.x), 1u);
}

TEST(LlistInsert, IndexLengthAppends) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    ThreeList t;
    EXPECT_EQ(llist_insert_at(&t.list, t.x, 3, t.p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(t.list), (std::vector<void *>{t.a, t.b, t.c, t.x}));
}

TEST(LlistInsert, MinusOneGoesBeforeTheLastNode) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    ThreeList t;
    EXPECT_EQ(llist_insert_at(&t.list, t.x, -1, t.p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(t.list), (std::vector<void *>{t.a, t.b, t.x, t.c}));
    EXPECT_EQ(llist_insert_at(&t.list, memm_refalloc(t.x), -2, t.p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(t.list), (std::vector<void *>{t.a, t.b, t.x, t.x, t.c}));
    EXPECT_EQ(refs(t.x), 2u);
}

TEST(LlistInsert, BeyondTheEndFailsAndLeavesEverythingAsItWas) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    ThreeList t;
    llist_node *before = t.list;
    memm_test::clear_logs();
    EXPECT_EQ(llist_insert_at(&t.list, t.x, 4, t.p.nodes), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_insert_at(&t.list, t.x, 100, t.p.nodes), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_insert_at(&t.list, t.x, INT32_MAX, t.p.nodes), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(t.list, before);
    EXPECT_EQ(objects_of(t.list), (std::vector<void *>{t.a, t.b, t.c}));
    EXPECT_EQ(in_use(t.p.nodes), 3u) << "the node allocated for the insert is released";
    EXPECT_EQ(refs(t.x), 1u) << "the object's reference stays with the caller";
    EXPECT_EQ(memm_isvalidobj(t.x), 1);
    EXPECT_EQ(g_released, 0);
    EXPECT_TRUE(memm_test::log_texts().empty()) << "list functions log nothing";
}

TEST(LlistInsert, IndexBelowMinusLengthInsertsAtTheFront) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    ThreeList t;
    EXPECT_EQ(llist_insert_at(&t.list, t.x, -4, t.p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(t.list), (std::vector<void *>{t.x, t.a, t.b, t.c}));
    void *y = new_record(t.p.records, 10);
    EXPECT_EQ(llist_insert_at(&t.list, y, INT32_MIN, t.p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(t.list), (std::vector<void *>{y, t.x, t.a, t.b, t.c}));
}

TEST(LlistInsert, MinusLengthInsertsAtTheFront) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    ThreeList t;
    EXPECT_EQ(llist_insert_at(&t.list, t.x, -3, t.p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(t.list), (std::vector<void *>{t.x, t.a, t.b, t.c}));
}

TEST(LlistInsert, EmptyListAcceptsOnlyIndexZero) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *x = new_record(p.records, 1);
    llist_node *list = nullptr;
    EXPECT_EQ(llist_insert_at(&list, x, -1, p.nodes), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_insert_at(&list, x, 1, p.nodes), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(in_use(p.nodes), 0u);
    EXPECT_EQ(refs(x), 1u);
    EXPECT_EQ(llist_insert_at(&list, x, 0, p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(list), (std::vector<void *>{x}));
}

TEST(LlistInsert, NegativeIndexUsesTheLengthUpToTheFirstNullObject) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *a = new_record(p.records, 1);
    void *b = new_record(p.records, 2);
    void *x = new_record(p.records, 3);
    void *y = new_record(p.records, 4);
    llist_node *list = nullptr;
    ASSERT_EQ(llist_addobject(&list, a, p.nodes), MEMM_OK);
    ASSERT_EQ(llist_addobject(&list, nullptr, p.nodes), MEMM_OK);
    ASSERT_EQ(llist_addobject(&list, b, p.nodes), MEMM_OK);
    // Length 1: -1 resolves to 0.
    EXPECT_EQ(llist_insert_at(&list, x, -1, p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(list), (std::vector<void *>{x, a, nullptr, b}));
    // Positive indexes walk past the null node: 4 appends.
    EXPECT_EQ(llist_insert_at(&list, y, 4, p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(list), (std::vector<void *>{x, a, nullptr, b, y}));
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    EXPECT_EQ(g_released, 4);
}

TEST(LlistInsert, NullListAddressAllocatesNothing) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    void *x = new_record(p.records, 1);
    uint64_t calls = memm_get_pool_nolock(p.nodes)->alloc_calls[MEMM_ALLOC_CALLS_TOTAL];
    EXPECT_EQ(llist_insert_at(nullptr, x, 0, p.nodes), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(llist_pushobject(nullptr, x, p.nodes), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(memm_get_pool_nolock(p.nodes)->alloc_calls[MEMM_ALLOC_CALLS_TOTAL], calls);
    EXPECT_EQ(refs(x), 1u);
}

TEST(LlistInsert, NoNodeLeavesTheListAndObjectUntouched) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    ThreeList t;
    EXPECT_EQ(llist_insert_at(&t.list, t.x, 0, MEMM_INVALID_POOL), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(llist_pushobject(&t.list, t.x, MEMM_INVALID_POOL), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(objects_of(t.list), (std::vector<void *>{t.a, t.b, t.c}));
    EXPECT_EQ(refs(t.x), 1u);
}

TEST(LlistInsert, PushPutsTheObjectFirst) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    ThreeList t;
    EXPECT_EQ(llist_pushobject(&t.list, t.x, t.p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(t.list), (std::vector<void *>{t.x, t.a, t.b, t.c}));
    llist_node *empty = nullptr;
    void *y = new_record(t.p.records, 5);
    EXPECT_EQ(llist_pushobject(&empty, y, t.p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(empty), (std::vector<void *>{y}));
    EXPECT_EQ(refs(y), 1u);
}

// ---------------------------------------------------------------- destructor

TEST(LlistDestructor, ReleasingTheFirstNodeReleasesTheWholeList) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    std::vector<void *> r = new_records(p.records, 5);
    llist_node *list = nullptr;
    for (void *o : r) {
        ASSERT_EQ(memm_refalloc(o), o);
        ASSERT_EQ(llist_addobject(&list, o, p.nodes), MEMM_OK);
    }
    for (void *o : r)
        ASSERT_EQ(refs(o), 2u);
    EXPECT_EQ(memm_free(list), MEMM_OK);
    EXPECT_EQ(in_use(p.nodes), 0u);
    for (void *o : r)
        EXPECT_EQ(refs(o), 1u);
    EXPECT_EQ(g_released, 0);
    EXPECT_TRUE(integrity_ok());
}

TEST(LlistDestructor, CutOffNodeReleasesOnlyItselfAndItsObject) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    ThreeList t;
    std::vector<llist_node *> n = nodes_of(t.list);
    // Cut B out by hand, clear its next and release it.
    set_next(n[0], n[2]);
    set_next(n[1], nullptr);
    EXPECT_EQ(memm_free(n[1]), MEMM_OK);
    EXPECT_EQ(memm_isvalidobj(t.b), 0);
    EXPECT_EQ(memm_isvalidobj(t.a), 1);
    EXPECT_EQ(memm_isvalidobj(t.c), 1);
    EXPECT_EQ(in_use(t.p.nodes), 2u);
    // Clearing linked_obj as well releases the node alone.
    set_next(n[0], nullptr);
    set_obj(n[2], nullptr);
    EXPECT_EQ(memm_free(n[2]), MEMM_OK);
    EXPECT_EQ(memm_isvalidobj(t.c), 1);
    EXPECT_EQ(refs(t.c), 1u);
    EXPECT_EQ(in_use(t.p.nodes), 1u);
}

TEST(LlistDestructor, StopsAtTheFirstFailingRelease) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    std::vector<void *> r = new_records(p.records, 5);
    llist_node *list = nullptr;
    for (void *o : r)
        ASSERT_EQ(llist_addobject(&list, o, p.nodes), MEMM_OK);
    std::vector<llist_node *> n = nodes_of(list);
    g_refuse.insert(r[3]);
    memm_test::clear_logs();

    EXPECT_EQ(llist_free_plist(&list), MEMM_ERR_HOOK_FAILED);
    EXPECT_EQ(list, nullptr);
    // Nodes 1 and 2 were released with their objects, in order.
    EXPECT_EQ(memm_isvalidobj(n[1]), 0);
    EXPECT_EQ(memm_isvalidobj(n[2]), 0);
    EXPECT_EQ(memm_isvalidobj(r[1]), 0);
    EXPECT_EQ(memm_isvalidobj(r[2]), 0);
    EXPECT_EQ(g_released, 2);
    // Node 3's object refused: node 3 stays, cut off; node 4 behind it stays
    // with its object; the first node keeps its object and points nowhere.
    EXPECT_EQ(memm_isvalidobj(n[3]), 1);
    EXPECT_EQ(next_of(n[3]), nullptr);
    EXPECT_EQ(obj_of(n[3]), r[3]);
    EXPECT_EQ(memm_isvalidobj(n[4]), 1);
    EXPECT_EQ(obj_of(n[4]), r[4]);
    EXPECT_EQ(refs(r[4]), 1u);
    EXPECT_EQ(memm_isvalidobj(n[0]), 1);
    EXPECT_EQ(next_of(n[0]), nullptr);
    EXPECT_EQ(refs(r[0]), 1u);
    EXPECT_EQ(in_use(p.nodes), 3u);
    // The pool layer logs the refused object, then node 3, then the first node.
    EXPECT_EQ(log_count_prefix("[MEMM] memm_free: free_ex failed for: "), 3u);

    // Once the object accepts, the survivors can be released one by one.
    g_refuse.clear();
    EXPECT_EQ(memm_free(n[3]), MEMM_OK);
    EXPECT_EQ(memm_free(n[4]), MEMM_OK);
    EXPECT_EQ(memm_free(n[0]), MEMM_OK);
    EXPECT_EQ(in_use(p.nodes), 0u);
    EXPECT_EQ(g_released, 5);
    EXPECT_TRUE(integrity_ok());
}

TEST(LlistDestructor, FailingOwnObjectKeepsTheNodeAfterReleasingTheRest) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    ThreeList t;
    std::vector<llist_node *> n = nodes_of(t.list);
    g_refuse.insert(t.a);
    EXPECT_EQ(llist_free_plist(&t.list), MEMM_ERR_HOOK_FAILED);
    EXPECT_EQ(memm_isvalidobj(t.b), 0);
    EXPECT_EQ(memm_isvalidobj(t.c), 0);
    EXPECT_EQ(in_use(t.p.nodes), 1u);
    EXPECT_EQ(memm_isvalidobj(n[0]), 1);
    EXPECT_EQ(next_of(n[0]), nullptr) << "no pointer to the released followers is kept";
    g_refuse.clear();
    EXPECT_EQ(memm_free(n[0]), MEMM_OK);
    EXPECT_EQ(g_released, 3);
}

TEST(LlistDestructor, FollowerWithAnExtraHolderSurvivesAlone) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    ThreeList t;
    std::vector<llist_node *> n = nodes_of(t.list);
    ASSERT_EQ(memm_refalloc(n[1]), n[1]);
    EXPECT_EQ(llist_free_plist(&t.list), MEMM_OK);
    // B's node only lost a holder: it stays, holding b, cut off from C.
    EXPECT_EQ(memm_isvalidobj(n[1]), 1);
    EXPECT_EQ(next_of(n[1]), nullptr);
    EXPECT_EQ(refs(t.b), 1u);
    EXPECT_EQ(memm_isvalidobj(t.a), 0);
    EXPECT_EQ(memm_isvalidobj(t.c), 0);
    EXPECT_EQ(memm_free(n[1]), MEMM_OK);
    EXPECT_EQ(memm_isvalidobj(t.b), 0);
    EXPECT_EQ(in_use(t.p.nodes), 0u);
}

TEST(LlistDestructor, ListOfListsReleasesTheInnerLists) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    llist_node *inner1 = nullptr;
    llist_node *inner2 = nullptr;
    std::vector<void *> r = new_records(p.records, 4);
    ASSERT_EQ(llist_addobject(&inner1, r[0], p.nodes), MEMM_OK);
    ASSERT_EQ(llist_addobject(&inner1, r[1], p.nodes), MEMM_OK);
    ASSERT_EQ(llist_addobject(&inner2, r[2], p.nodes), MEMM_OK);
    ASSERT_EQ(llist_addobject(&inner2, r[3], p.nodes), MEMM_OK);
    llist_node *outer = nullptr;
    ASSERT_EQ(llist_addobject(&outer, inner1, p.nodes), MEMM_OK);
    ASSERT_EQ(llist_addobject(&outer, inner2, p.nodes), MEMM_OK);
    EXPECT_EQ(in_use(p.nodes), 6u);
    EXPECT_EQ(llist_free_plist(&outer), MEMM_OK);
    EXPECT_EQ(in_use(p.nodes), 0u);
    EXPECT_EQ(g_released, 4);
}

// ---------------------------------------------------------------- free_plist

TEST(LlistFreePlist, ReturnsEveryNodeAndOneReferenceOfEachObject) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    std::vector<void *> r = new_records(p.records, 6);
    llist_node *list = nullptr;
    for (void *o : r)
        ASSERT_EQ(llist_addref(&list, o, p.nodes), MEMM_OK);
    ASSERT_EQ(llist_addref(&list, r[0], p.nodes), MEMM_OK);
    EXPECT_EQ(in_use(p.nodes), 7u);
    EXPECT_EQ(refs(r[0]), 3u);
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(in_use(p.nodes), 0u);
    EXPECT_EQ(refs(r[0]), 1u);
    for (size_t i = 1; i < r.size(); i++)
        EXPECT_EQ(refs(r[i]), 1u);
    EXPECT_EQ(memm_get_pool_nolock(p.nodes)->free_calls, 7u);
}

TEST(LlistFreePlist, EmptyListAndNullAddress) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    (void)p;
    llist_node *list = nullptr;
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(llist_free_plist(nullptr), MEMM_ERR_INVALID_ARG);
}

TEST(LlistFreePlist, InvalidFirstNodeStillClearsTheVariable) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools();
    (void)p;
    FakeObject fake;
    llist_node *list = fake.node();
    memm_test::clear_logs();
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(log_count_prefix("[MEMM] memm_free: Attempt to release invalid pointer: "), 1u);
}

// ---------------------------------------------------------------- lists in an unaligned node pool

// Slots of (20 + 19) & ~3 = 36 bytes: every other node is only 4-byte aligned.
TEST(LlistUnalignedNodes, EveryOperationWorksOnFourByteAlignedNodes) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    Pools p = make_pools(20, 16);
    std::vector<void *> r = new_records(p.records, 6);
    llist_node *list = nullptr;
    for (int i = 0; i < 4; i++)
        ASSERT_EQ(llist_addref(&list, r[i], p.nodes), MEMM_OK);
    bool misaligned = false;
    for (llist_node *n : nodes_of(list))
        misaligned |= reinterpret_cast<uintptr_t>(n) % 8 != 0;
    EXPECT_TRUE(misaligned);

    ASSERT_EQ(llist_insert_at(&list, memm_refalloc(r[4]), -1, p.nodes), MEMM_OK);
    ASSERT_EQ(llist_pushobject(&list, memm_refalloc(r[5]), p.nodes), MEMM_OK);
    EXPECT_EQ(objects_of(list), (std::vector<void *>{r[5], r[0], r[1], r[2], r[4], r[3]}));
    EXPECT_EQ(llist_getlength(list), 6u);
    EXPECT_EQ(llist_getreallength(list), 6u);
    EXPECT_EQ(llist_getobject_at(list, -2), r[4]);
    EXPECT_EQ(llist_getobject_this(llist_get_next(llist_get_first(list))), r[0]);
    EXPECT_EQ(llist_getindex_byobject(list, r[2]), 3u);
    EXPECT_EQ(llist_search_byobject(list, r[1]), llist_get_at(list, 2));
    EXPECT_EQ(llist_inlist(list, r[3]), 1);

    EXPECT_EQ(llist_delete_at(&list, 1), MEMM_OK);
    EXPECT_EQ(refs(r[0]), 1u);
    EXPECT_EQ(llist_remove_byobject(&list, r[1]), MEMM_OK);
    EXPECT_EQ(refs(r[1]), 2u);
    EXPECT_EQ(memm_free(r[1]), MEMM_OK);
    EXPECT_EQ(llist_setobject_at(list, memm_refalloc(r[0]), 0), MEMM_OK);
    EXPECT_EQ(refs(r[5]), 1u);
    llist_node *other = nullptr;
    EXPECT_EQ(llist_move_byobject(&list, &other, r[4]), MEMM_OK);
    llist_node *node = llist_getandunlink_byobject(&list, r[2]);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(llist_getobject_this(node), r[2]);
    EXPECT_EQ(memm_free(node), MEMM_OK);
    EXPECT_EQ(objects_of(list), (std::vector<void *>{r[0], r[3]}));
    EXPECT_EQ(objects_of(other), (std::vector<void *>{r[4]}));
    void *popped = llist_popobject(&list);
    EXPECT_EQ(popped, r[0]);
    EXPECT_EQ(memm_free(popped), MEMM_OK);
    llist_node *copy = llist_refalloc(list, p.nodes);
    EXPECT_EQ(objects_of(copy), (std::vector<void *>{r[3]}));
    EXPECT_EQ(llist_free_plist(&copy), MEMM_OK);
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    EXPECT_EQ(llist_free_plist(&other), MEMM_OK);
    EXPECT_EQ(in_use(p.nodes), 0u);
    for (void *o : r)
        EXPECT_EQ(refs(o), 1u);
    EXPECT_EQ(g_released, 0);
    EXPECT_TRUE(integrity_ok());
}
