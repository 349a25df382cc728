// Seeded runs of the shared list model (model/list_model.h) over objects of
// three types: plain records, records of a pool so small that some come from
// an extension pool, and dynamic strings. Besides the model's own checks,
// after every step: each object's reference count, and the typed lookups
// and cursor enumerations.
#include <thread>

#include "fixture.h"
#include "model/list_model.h"

namespace {

using namespace memm_model;

// The pools are unnamed, so that every run makes its own.
class ListRun {
  public:
    ListRun(uint32_t seed, int32_t node_size)
        : src_(seed), nodes_(llist_initpool("", 4, node_size, nullptr)), lists_(src_, nodes_, 4 + 5 * 3, [this] {
              const int i = src_.pick(0, int(objs_.size()));
              return i == int(objs_.size()) ? nullptr : objs_[size_t(i)];
          }) {
        memm_depletion_no_reboot(nodes_);
        const uint32_t records = memm_initpool("", 8, 8, nullptr);
        const uint32_t small = memm_initpool("", 1, 8, nullptr);
        for (uint32_t pool : {records, records, records, records, small, small, strings_, strings_}) {
            objs_.push_back(pool == strings_ ? dynstr_fromstring(pool, "text") : memm_calloc(pool));
            type_[objs_.back()] = pool;
            lists_.keys[objs_.back()] = int32_t(objs_.size() % 3);
        }
    }

    void run(int steps) {
        for (int i = 0; i < steps && !::testing::Test::HasFailure(); i++) {
            SCOPED_TRACE(::testing::Message() << "step " << i << ": " << lists_.step());
            ASSERT_EQ(lists_.failure(), "");
            check();
            ASSERT_TRUE(i % 64 || memm_test::sound());
        }
        // The run reached the node pool's last extension, so depletion was predicted too.
        EXPECT_EQ(chain_sum(nodes_, [](const memm_pooldesc *) { return 1; }), 1u + MEMM_MAX_EXTENSION_POOLS);
        lists_.release_all();
        check();
    }

  private:
    RandomSource src_;
    uint32_t nodes_, strings_ = dynstr_initpool("", 10, 200);
    ListModel lists_;
    Objs objs_;
    std::map<void *, uint32_t> type_;

    // The objects of a kind (a root pool id, "any", or "none", which is 0)
    // from a position on; null objects are of no kind.
    Objs matches(const Objs &m, uint32_t kind, size_t from = 0) const {
        Objs v;
        for (size_t i = from; i < m.size(); i++)
            if (m[i] && kind && (kind == LLIST_TYPE_ANY || type_.at(m[i]) == kind))
                v.push_back(m[i]);
        return v;
    }

    // Each kind's first object, and its cursor enumeration over the whole
    // list: the cursor resumes behind its last object while that is in the
    // list, else (here every other step) at its count of matches.
    void check_types(llist_node *list, const Objs &m) {
        for (uint32_t kind : {type_.at(objs_[0]), type_.at(objs_[4]), strings_, LLIST_TYPE_ANY, LLIST_TYPE_NONE}) {
            const Objs all = matches(m, kind);
            EXPECT_EQ(llist_get_bytype(list, kind, 0), all.empty() ? nullptr : all[0]) << kind;
            uint32_t index = 0, delivered = 0;
            void *last = nullptr;
            for (size_t step = 0; step <= all.size(); step++) {
                size_t at;
                last = step % 2 ? last : nullptr;
                const Objs next = index == 0                   ? all
                                  : last && find(m, last, &at) ? matches(m, kind, at + 1)
                                  : index < all.size()         ? Objs{all[index]}
                                                               : Objs{};
                EXPECT_EQ(llist_enum_bytype(list, kind, &index, &last), next.empty() ? nullptr : next[0]) << kind;
                EXPECT_EQ(index, delivered += !next.empty()) << kind;
            }
        }
    }

    // The model's checks, the typed lookups, and every object's holders: the
    // run itself and one per node.
    void check() {
        EXPECT_EQ(lists_.fault(objs_), "");
        for (int l = 0; l < 2; l++)
            check_types(lists_.lists[l], lists_.model[l]);
        for (void *o : objs_)
            EXPECT_EQ(memm_get_refcount(o), 1 + lists_.in_lists(o));
    }
};

} // namespace

// Slots of 20 bytes + header (the odd seeds) make nodes only 4-byte aligned:
// clean under UBSan.
TEST(LlistModel, RandomOperations) {
    ASSERT_EQ(memm_init(32, 6), MEMM_OK);
    for (uint32_t seed : {1u, 2u, 3u, 4u, 5u, 6u}) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        ListRun(seed, seed % 2 ? 20 : int32_t(sizeof(llist_node))).run(3000);
    }
}

namespace {
void *g_refused; // the object whose release the hook refuses
uint32_t refuse_one(void *obj) { return obj == g_refused ? 1 : MEMM_OK; }
// Deletes its own node. Run with the lock held, another thread's list call
// would wait forever.
int delete_own_node(void *obj, void *plist) {
    std::thread([plist] { llist_getlength(*static_cast<llist_node **>(plist)); }).join();
    return llist_delete_byobject(static_cast<llist_node **>(plist), obj) == MEMM_OK;
}
} // namespace

// What the model's clean outcomes cannot show. The enumeration callback
// runs without the lock and may delete its own node. A release that fails
// half way through a list's cascade: of (r0 .. r4), handed over, r2's
// release is refused; r1 goes with its node, the failing node, the one
// behind it and the first node stay, the first no longer pointing at its
// released follower.
TEST(LlistCases, CallbackDeletionAndCascadeFailure) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    const uint32_t nodes = llist_initpool("nodes", 64, int32_t(sizeof(llist_node)), nullptr);
    const uint32_t recs = memm_initpool2("recs", 16, 8, nullptr, refuse_one);
    Objs r;
    std::vector<llist_node *> n;
    llist_node *list = nullptr;
    for (int32_t i = 0; i < 5; i++) {
        r.push_back(memm_calloc(recs));
        EXPECT_EQ(llist_addobject(&list, r.back(), nodes), MEMM_OK);
        n.push_back(llist_get_at(list, i));
    }
    llist_node *refs = llist_refalloc(list, nodes);
    EXPECT_EQ(llist_enumcb_bytype(refs, recs, delete_own_node, &refs), 5u);

    g_refused = r[2];
    EXPECT_EQ(llist_free_plist(&list), MEMM_ERR_HOOK_FAILED);
    for (size_t i = 0; i < 5; i++)
        EXPECT_TRUE(memm_isvalidobj(n[i]) == (i != 1) && memm_isvalidobj(r[i]) == (i != 1)) << i;
    EXPECT_TRUE(!list && !next_of(n[0]) && !next_of(n[2]));
    EXPECT_TRUE(memm_test::sound());
}
