// Seeded runs of the shared list model (model/list_model.h) over objects of
// three types: plain records, records of a pool so small that some come from
// an extension pool, and dynamic strings. Besides the model's own checks,
// after every step: each object's reference count, the typed lookups and
// enumerations, a cursor enumeration that goes on while the list changes
// under it, and that each node records the test (not the library) as its
// allocation site. The record pools' release hook must never run.
#include <dlfcn.h>

#include <thread>

#include "fixture.h"
#include "model/list_model.h"

namespace {

using namespace memm_model;

int g_released = 0;
uint32_t count_release(void *) { return g_released++, MEMM_OK; }
int collect(void *obj, void *seen) { return static_cast<Objs *>(seen)->push_back(obj), 1; }
const void *module_of(const void *addr) {
    Dl_info info{};
    return dladdr(addr, &info) ? info.dli_fbase : nullptr;
}

uint32_t in_chain(uint32_t root) { // extension pools
    uint32_t n = 0;
    for (uint32_t id = memm_get_pool_nolock(root)->next_pool; id; id = memm_get_pool_nolock(id)->next_pool)
        n++;
    return n;
}

constexpr uint32_t kStrings = 0xFFFFFFFEu; // a cursor kind besides the pool ids: llist_enum_dynstr

class Run {
  public:
    Run(uint32_t seed, int32_t node_size, const char *const names[4])
        : src_(seed), nodes_(llist_initpool(names[0], 4, node_size, nullptr)),
          lists_(src_, nodes_, 4 + 5 * 3, [this] {
              const int i = src_.pick(0, int(objs_.size()));
              return i == int(objs_.size()) ? nullptr : objs_[size_t(i)];
          }) {
        memm_depletion_no_reboot(nodes_);
        const uint32_t records = memm_initpool2(names[1], 8, 8, nullptr, count_release);
        const uint32_t small = memm_initpool2(names[2], 1, 8, nullptr, count_release);
        const uint32_t strings = dynstr_initpool(names[3], 10, 200);
        for (uint32_t pool : {records, records, records, records, small, small})
            objs_.push_back(memm_calloc(pool)), type_[objs_.back()] = pool;
        for (const char *text : {"one", "two"})
            objs_.push_back(dynstr_fromstring(strings, text)), type_[objs_.back()] = strings;
        for (size_t i = 0; i < objs_.size(); i++)
            lists_.keys[objs_[i]] = int32_t(i % 3);
        kinds_ = {records, kStrings, LLIST_TYPE_ANY, small, LLIST_TYPE_NONE, strings};
        strings_ = strings;
        unaligned_ = node_size % 8 != 0;
    }

    void run(int steps) {
        for (int i = 0; i < steps && !::testing::Test::HasFailure(); i++) {
            SCOPED_TRACE(::testing::Message() << "step " << i << ": " << lists_.step());
            ASSERT_EQ(lists_.failure(), "");
            check();
            ASSERT_TRUE(i % 64 || memm_test::sound());
        }
        // The run reached the node pool's last extension, so depletion was predicted too.
        EXPECT_EQ(in_chain(nodes_), 5u);
        lists_.release_all();
        check();
        EXPECT_TRUE(saw_misaligned_ || !unaligned_) << "no 4-byte aligned node was seen";
        for (void *o : objs_)
            EXPECT_EQ(memm_free(o), MEMM_OK);
        EXPECT_EQ(g_released, 6);
    }

  private:
    struct Cursor {
        size_t kind = 0; // into kinds_
        uint32_t index = 0;
        void *last = nullptr;
    };
    RandomSource src_;
    uint32_t nodes_, strings_ = 0;
    ListModel lists_;
    Objs objs_;
    std::map<void *, uint32_t> type_;
    std::vector<uint32_t> kinds_;
    Cursor cursors_[2];
    bool unaligned_ = false, saw_misaligned_ = false;
    const void *self_ = module_of(reinterpret_cast<void *>(&collect));

    Objs matches(const Objs &m, uint32_t kind, size_t from = 0) const {
        Objs v;
        for (size_t i = from; i < m.size(); i++)
            if (m[i] && kind != LLIST_TYPE_NONE && (kind == LLIST_TYPE_ANY || type_.at(m[i]) == (kind == kStrings ? strings_ : kind)))
                v.push_back(m[i]);
        return v;
    }

    // First and second object of each type; the callback enumeration up to
    // the length (it compares types with memm_instanceof, so "any" gives none).
    void check_types(llist_node *list, const Objs &m) {
        for (uint32_t kind : kinds_) {
            if (kind == kStrings)
                continue;
            const Objs all = matches(m, kind);
            EXPECT_EQ(llist_get_bytype(list, kind, 0), all.empty() ? nullptr : all[0]) << kind;
            EXPECT_EQ(llist_get_bytype(list, kind, 5), all.size() < 2 ? nullptr : all[1]) << kind;
            const Objs counted(m.begin(), m.begin() + long(length(m)));
            Objs seen;
            const uint32_t delivered = llist_enumcb_bytype(list, kind, collect, &seen);
            EXPECT_EQ(delivered, seen.size());
            EXPECT_EQ(seen, kind == LLIST_TYPE_ANY ? Objs{} : matches(counted, kind)) << kind;
        }
    }

    // One step of the list's cursor enumeration; the next kind after the end.
    void advance_cursor(int l) {
        const Objs &m = lists_.model[l];
        llist_node *list = lists_.lists[l];
        Cursor &c = cursors_[l];
        const uint32_t kind = kinds_[c.kind];
        const size_t resume = c.last ? size_t(std::find(m.begin(), m.end(), c.last) - m.begin()) : m.size();
        Objs next;
        if (c.index == 0)
            next = matches(m, kind);
        else if (resume < m.size()) // the last object itself is the first match there
            next = matches(m, kind, resume + 1);
        else if (c.index < matches(m, kind).size())
            next = {matches(m, kind)[c.index]};
        void *expected = next.empty() ? nullptr : next[0];
        const Cursor before = c;
        void *got;
        if (kind == kStrings) {
            dynstr *last = static_cast<dynstr *>(c.last);
            got = llist_enum_dynstr(list, &c.index, &last);
            c.last = last;
        } else if (src_.pick(0, 1)) {
            got = llist_enum_bytype(list, kind, &c.index, &c.last);
        } else {
            memm_lock("model");
            got = llist_enum_bytype_nolock(list, kind, &c.index, &c.last);
            memm_unlock();
        }
        EXPECT_EQ(got, expected) << "kind " << kind;
        // An empty list is a null one: nothing changes.
        EXPECT_EQ(c.index, list ? before.index + (expected ? 1 : 0) : before.index);
        EXPECT_EQ(c.last, list ? got : before.last);
        if (!got && list)
            c = Cursor{(c.kind + 1) % kinds_.size(), 0, nullptr};
    }

    void check() {
        EXPECT_EQ(lists_.fault(objs_), "");
        for (int l = 0; l < 2; l++) {
            for (llist_node *n : nodes_of(lists_.lists[l])) {
                void *site;
                memcpy(&site, reinterpret_cast<uint8_t *>(n) - MEMM_OBJHDR_SIZE + 8, sizeof site);
                EXPECT_EQ(module_of(site), self_);
                saw_misaligned_ |= reinterpret_cast<uintptr_t>(n) % 8 != 0;
            }
            check_types(lists_.lists[l], lists_.model[l]);
            advance_cursor(l);
        }
        for (void *o : objs_)
            EXPECT_EQ(memm_get_refcount(o), 1 + lists_.in_lists(o));
        EXPECT_EQ(g_released, 0);
    }
};

void run_seeds(std::initializer_list<uint32_t> seeds, int32_t node_size) {
    static const char *const names[][4] = {
        {"n1", "r1", "m1", "s1"}, {"n2", "r2", "m2", "s2"}, {"n3", "r3", "m3", "s3"}, {"n4", "r4", "m4", "s4"}};
    ASSERT_EQ(memm_init(32, 4), MEMM_OK);
    for (size_t i = 0; i < seeds.size(); i++) {
        SCOPED_TRACE(testing::Message() << "seed " << seeds.begin()[i]);
        g_released = 0;
        Run(seeds.begin()[i], node_size, names[i]).run(3000);
    }
}

} // namespace

TEST(LlistModel, RandomOperations) { run_seeds({1u, 2u, 3u, 20240601u}, int32_t(sizeof(llist_node))); }
// Slots of 20 bytes + header: nodes only 4-byte aligned (clean under UBSan).
TEST(LlistModel, RandomOperationsOnUnalignedNodes) { run_seeds({7u, 8u, 9u}, 20); }

namespace {
llist_node *g_list;
bool g_delete_next;
// Deletes the node of the object it is given (or the one after it), and
// shows that the lock is free: another thread's list call would wait forever.
int delete_current(void *obj, void *seen) {
    static_cast<Objs *>(seen)->push_back(obj);
    std::thread([] { EXPECT_GT(llist_getlength(g_list), 0u); }).join();
    EXPECT_EQ(llist_delete_byobject(&g_list, g_delete_next ? llist_getobject_at(g_list, 1) : obj), MEMM_OK);
    return 1;
}
Objs records(uint32_t pool, int n) {
    Objs v;
    for (int i = 0; i < n; i++)
        v.push_back(memm_calloc(pool));
    return v;
}
llist_node *list_of(const Objs &objs, uint32_t nodes) { // each node holds a reference of its own
    llist_node *list = nullptr;
    for (void *o : objs)
        EXPECT_EQ(llist_addref(&list, o, nodes), MEMM_OK);
    return list;
}
uint32_t g_refused; // the record whose release the hook refuses
uint32_t refuse_one(void *obj) { return *static_cast<uint32_t *>(obj) == g_refused ? 1 : MEMM_OK; }
} // namespace

// What the model's clean outcomes cannot show: the enumeration callback
// runs without the lock and may delete its node; a release that fails half
// way through a list's cascade; node pools refuse objects too small for a
// node; an object at the most holders gets a null node.
TEST(LlistCases, CallbackDeletionCascadeFailureAndLimits) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    const uint32_t nodes = llist_initpool("nodes", 64, int32_t(sizeof(llist_node)), nullptr);
    const uint32_t recs = memm_initpool2("recs", 16, 8, nullptr, refuse_one);
    Objs r = records(recs, 4), seen;
    void *x = memm_calloc(memm_initpool("other", 4, 8, nullptr));
    g_list = list_of({r[0], x, r[1], r[2], r[3]}, nodes);
    EXPECT_EQ(llist_enumcb_bytype(g_list, recs, delete_current, &seen), 4u);
    EXPECT_EQ(seen, (Objs{r[0], r[1], r[2], r[3]}));
    EXPECT_EQ(objects_of(g_list), (Objs{x}));
    g_list = list_of({r[0], r[1], r[2]}, nodes), g_delete_next = true, seen.clear();
    EXPECT_EQ(llist_enumcb_bytype(g_list, recs, delete_current, &seen), 1u); // deleting the next ends the walk
    EXPECT_EQ(objects_of(g_list), (Objs{r[0], r[2]}));

    // (o0 .. o4) handed over, o[k]'s release refused: the nodes between the
    // first and the failing one go with their objects; the failing node,
    // those behind it and the first node stay.
    for (uint32_t k : {0u, 2u, 4u}) {
        Objs o = records(recs, 5);
        for (uint32_t i = 0; i < 5; i++)
            *static_cast<uint32_t *>(o[i]) = 100 + i;
        llist_node *list = nullptr;
        for (void *obj : o)
            llist_addobject(&list, obj, nodes);
        const std::vector<llist_node *> n = nodes_of(list);
        g_refused = 100 + k;
        EXPECT_EQ(llist_free_plist(&list), MEMM_ERR_HOOK_FAILED);
        EXPECT_EQ(list, nullptr);
        for (size_t i = 0; i < 5; i++) {
            const int kept = i == 0 || (k > 0 && i >= k);
            EXPECT_TRUE(memm_isvalidobj(n[i]) == kept && memm_isvalidobj(o[i]) == kept) << k << " " << i;
        }
        EXPECT_TRUE(next_of(n[0]) == nullptr && next_of(n[k]) == nullptr) << "no pointer to released followers";
        g_refused = 0;
        for (llist_node *s : {k ? n[k] : nullptr, k && k < 4 ? n[k + 1] : nullptr, n[0]})
            EXPECT_EQ(memm_free(s), MEMM_OK);
    }
    for (int32_t size : {int32_t(sizeof(llist_node)) - 1, 0, -16})
        EXPECT_EQ(llist_initpool("small", 8, size, nullptr), MEMM_INVALID_POOL);
    for (uint32_t i = 0; i < MEMM_MAX_EXTRA_REFS; i++)
        memm_refalloc(r[3]);
    llist_node *full = nullptr;
    EXPECT_EQ(llist_addref(&full, r[3], nodes), MEMM_OK);
    EXPECT_EQ(objects_of(full), (Objs{nullptr}));
    EXPECT_EQ(memm_get_refcount(r[3]), MEMM_MAX_REFS);
    EXPECT_TRUE(memm_test::sound());
}
