// Seeded random model test: every mutating list function, on two lists,
// against two std::vector models. After every step: contents, both lengths,
// reads by position and by object, the reference count of every object, the
// nodes in use, and that each node records the test (not the library) as its
// allocation site.
//
// The test holds one reference of every object for the whole run, so an
// object's expected count is 1 + the nodes holding it; a release the model
// does not expect shows as a wrong count or as a call of the record pool's
// release hook, which must never run. One pick in nine is a null object, so
// the rule "the length ends at the first null linked_obj, walks by position
// go on" meets every operation, negative indexes included.
#include <algorithm>
#include <random>

#include "llist_test_helpers.h"

using namespace llist_test;

namespace {

constexpr int kObjects = 8;
constexpr size_t kMaxNodes = 10; // in both lists together; a copy doubles it

enum Kind { kDelete, kRemove, kUnlink, kGetAndRemove, kGetAndUnlink };

int count_visit(void *, void *visits) {
    ++*static_cast<size_t *>(visits);
    return 0;
}

size_t length(const Objs &m) { return size_t(std::find(m.begin(), m.end(), nullptr) - m.begin()); }

// The node a positional detach or read addresses.
bool at(const Objs &m, int32_t index, size_t *pos) {
    const int64_t i = index < 0 ? int64_t(index) + int64_t(length(m)) : index;
    *pos = size_t(i);
    return i >= 0 && i < int64_t(m.size());
}
// Inserting: 0 .. size; an index still negative goes to the front of a
// non-empty list.
bool insert_pos(const Objs &m, int32_t index, size_t *pos) {
    int64_t i = index < 0 ? int64_t(index) + int64_t(length(m)) : index;
    i = std::max<int64_t>(i, m.empty() ? -1 : 0);
    *pos = size_t(i);
    return i >= 0 && i <= int64_t(m.size());
}
bool find(const Objs &m, void *o, size_t *pos) {
    *pos = size_t(std::find(m.begin(), m.end(), o) - m.begin());
    return *pos < m.size();
}

class ModelRun {
  public:
    ModelRun(uint32_t seed, int32_t node_objsize, const char *records_name, const char *nodes_name)
        : rng_(seed), unaligned_(node_objsize % 8 != 0) {
        // A small node pool, so that nodes also come from extension pools.
        p_ = make_pools(node_objsize, 8, records_name, nodes_name);
        objs_ = new_records(p_.records, kObjects);
    }

    void run(int steps) {
        memm_test::clear_logs();
        for (int i = 0; i < steps && !::testing::Test::HasFailure(); i++) {
            const char *op = step();
            check();
            EXPECT_TRUE(i % 64 || integrity_ok());
            EXPECT_FALSE(::testing::Test::HasFailure()) << "first failure at step " << i << " (" << op << ")";
        }
        for (auto &list : lists_)
            EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
        model_[0].clear();
        model_[1].clear();
        check();
        // Only the pool layer's notes on growing: no list function logs.
        EXPECT_EQ(memm_test::log_count_prefix("[MEMM] Info: "), memm_test::log_texts().size());
        EXPECT_TRUE(saw_misaligned_ || !unaligned_) << "no 4-byte aligned node was seen";
        for (void *o : objs_)
            EXPECT_EQ(memm_free(o), MEMM_OK);
        EXPECT_EQ(g_released, kObjects);
    }

  private:
    std::mt19937 rng_;
    bool unaligned_, saw_misaligned_ = false;
    Pools p_{};
    Objs objs_;
    llist_node *lists_[2] = {nullptr, nullptr};
    Objs model_[2];
    const void *self_ = module_of(reinterpret_cast<void *>(&length));

    int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    void *any_object() {
        const int i = pick(0, kObjects);
        return i == kObjects ? nullptr : objs_[size_t(i)];
    }
    int32_t any_index(size_t n) { return pick(0, 15) ? pick(-int(n) - 2, int(n) + 2) : pick(0, 1) ? INT32_MIN : INT32_MAX; }
    uint32_t expected_refs(void *o) const {
        return 1 + uint32_t(std::count(model_[0].begin(), model_[0].end(), o) +
                            std::count(model_[1].begin(), model_[1].end(), o));
    }
    // The reference the caller hands to the list.
    static void hold(void *o) {
        if (o)
            memm_refalloc(o);
    }
    // The caller has one reference of o besides its own (the list's, or one
    // the list did not take over): give it back.
    void give_back(void *o) {
        if (!o)
            return;
        EXPECT_EQ(refs(o), expected_refs(o) + 1);
        EXPECT_EQ(memm_free(o), MEMM_OK);
    }
    void check_nodes(llist_node *list) {
        for (llist_node *n : nodes_of(list)) {
            EXPECT_EQ(module_of(alloc_site(n)), self_);
            saw_misaligned_ |= reinterpret_cast<uintptr_t>(n) % 8 != 0;
        }
    }

    // What the caller gets from a detach of the node at pos (hit) or of none.
    void detached(Objs &m, bool hit, size_t pos, Kind kind, uint32_t r, llist_node *node, void *got) {
        EXPECT_EQ(r, hit ? MEMM_OK : MEMM_ERR_INVALID_ARG);
        if (!hit) {
            EXPECT_EQ(node, nullptr);
            EXPECT_EQ(got, nullptr);
            return;
        }
        void *o = m[pos];
        m.erase(m.begin() + long(pos));
        EXPECT_EQ(got, kind == kGetAndRemove ? o : nullptr);
        if (kind == kRemove || kind == kGetAndRemove)
            give_back(o);
        if (kind == kUnlink || kind == kGetAndUnlink) {
            // The detached node still holds o, and only o.
            ASSERT_NE(node, nullptr);
            EXPECT_EQ(obj_of(node), o);
            EXPECT_EQ(next_of(node), nullptr);
            EXPECT_EQ(memm_free(node), MEMM_OK);
        }
    }

    const char *step() {
        const int l = pick(0, 1);
        llist_node **pl = &lists_[l];
        Objs &m = model_[l];
        size_t pos = m.size();
        llist_node *node = nullptr;
        void *got = nullptr;
        void *o = any_object();
        const int mode = pick(0, 5);
        int32_t index = any_index(m.size());
        switch (pick(0, 7)) {
        case 0:
        case 1: {
            if (model_[0].size() + model_[1].size() >= kMaxNodes)
                return "add (full)";
            const bool ok = mode < 4 || insert_pos(m, index, &pos);
            pos = mode == 3 ? 0 : pos;
            if (mode != 1) // addref takes its own reference
                hold(o);
            if (mode == 2)
                memm_lock("model");
            const uint32_t r = mode == 0   ? llist_addobject(pl, o, p_.nodes)
                               : mode == 1 ? llist_addref(pl, o, p_.nodes)
                               : mode == 2 ? llist_addobject_nolock(pl, o, p_.nodes)
                               : mode == 3 ? llist_pushobject(pl, o, p_.nodes)
                                           : llist_insert_at(pl, o, index, p_.nodes);
            if (mode == 2)
                memm_unlock();
            EXPECT_EQ(r, ok ? MEMM_OK : MEMM_ERR_INVALID_ARG);
            if (ok)
                m.insert(m.begin() + long(pos), o);
            else
                give_back(o);
            return "add/addref/push/insert_at";
        }
        case 2:
        case 3: {
            if (mode == 5)
                index = 0;
            const bool hit = at(m, index, &pos);
            uint32_t r = hit ? MEMM_OK : MEMM_ERR_INVALID_ARG;
            switch (mode) {
            case kDelete: r = llist_delete_at(pl, index); break;
            case kRemove: r = llist_remove_at(pl, index); break;
            case kUnlink:
                node = llist_get_at(*pl, index);
                r = llist_unlink_at(pl, index);
                break;
            case kGetAndRemove: got = llist_getandremove_at(pl, index); break;
            case kGetAndUnlink: node = llist_getandunlink_at(pl, index); break;
            default: got = llist_popobject(pl); break;
            }
            detached(m, hit, pos, mode == 5 ? kGetAndRemove : Kind(mode), r, node, got);
            return "delete/remove/unlink/getandremove/getandunlink_at/pop";
        }
        case 4:
        case 5: {
            const bool hit = find(m, o, &pos);
            uint32_t r = hit ? MEMM_OK : MEMM_ERR_INVALID_ARG;
            if (mode >= 4) {
                // Mostly to the other list, sometimes within the same one.
                const int d = pick(0, 3) == 0 ? l : 1 - l;
                EXPECT_EQ(llist_move_byobject(pl, &lists_[d], o), r);
                if (hit) {
                    m.erase(m.begin() + long(pos));
                    model_[d].push_back(o);
                }
                return "move_byobject";
            }
            switch (mode) {
            case kDelete: r = llist_delete_byobject(pl, o); break;
            case kRemove: r = llist_remove_byobject(pl, o); break;
            case kUnlink:
                node = llist_search_byobject(*pl, o);
                r = llist_unlink_byobject(pl, o);
                break;
            default: node = llist_getandunlink_byobject(pl, o); break;
            }
            detached(m, hit, pos, mode == 3 ? kGetAndUnlink : Kind(mode), r, node, nullptr);
            return "delete/remove/unlink/getandunlink_byobject";
        }
        case 6: {
            const bool hit = at(m, index, &pos);
            hold(o);
            EXPECT_EQ(llist_setobject_at(*pl, o, index), hit ? MEMM_OK : MEMM_ERR_INVALID_ARG);
            if (hit)
                m[pos] = o;
            else
                give_back(o);
            return "setobject_at";
        }
        default: {
            if (mode == 0) {
                EXPECT_EQ(llist_free_plist(pl), MEMM_OK);
                EXPECT_EQ(*pl, nullptr);
                m.clear();
                return "free_plist";
            }
            llist_node *copy = llist_refalloc(*pl, p_.nodes);
            EXPECT_EQ(objects_of(copy), m);
            check_nodes(copy); // its references show in check() if the release of copy gives back too many
            EXPECT_EQ(in_use(p_.nodes), model_[0].size() + model_[1].size() + m.size());
            EXPECT_EQ(llist_free_plist(&copy), MEMM_OK);
            return "refalloc";
        }
        }
    }

    void check() {
        for (int l = 0; l < 2; l++) {
            llist_node *list = lists_[l];
            const Objs &m = model_[l];
            const size_t len = length(m);
            EXPECT_EQ(objects_of(list), m);
            check_nodes(list);
            EXPECT_EQ(llist_getlength(list), len);
            EXPECT_EQ(llist_getreallength(list), m.size());
            EXPECT_EQ(llist_getobject_at(list, -1), len ? m[len - 1] : nullptr);
            EXPECT_EQ(llist_getobject_at(list, int32_t(m.size()) - 1), m.empty() ? nullptr : m.back());
            Objs walked;
            for (llist_node *n = llist_get_first(list); n; n = llist_get_next(n))
                walked.push_back(llist_getobject_this(n));
            EXPECT_EQ(walked, m);
            size_t visits = 0; // nodes with a null object included
            EXPECT_EQ(llist_searchobject(list, &visits, count_visit), nullptr);
            EXPECT_EQ(visits, m.size());
            for (size_t i = 0; i <= objs_.size(); i++) {
                void *o = i < objs_.size() ? objs_[i] : nullptr;
                size_t pos;
                const bool in = find(m, o, &pos);
                EXPECT_EQ(llist_getindex_byobject(list, o), in ? uint32_t(pos) : 0xFFFFFFFFu);
                EXPECT_EQ(llist_inlist(list, o), in && o ? 1 : 0);
            }
        }
        for (void *o : objs_)
            EXPECT_EQ(refs(o), expected_refs(o));
        EXPECT_EQ(in_use(p_.nodes), model_[0].size() + model_[1].size());
        EXPECT_EQ(g_released, 0);
    }
};

void run_seeds(std::initializer_list<uint32_t> seeds, int32_t node_objsize) {
    static const char *const names[][2] = {{"r1", "n1"}, {"r2", "n2"}, {"r3", "n3"}, {"r4", "n4"}};
    ASSERT_NE(module_of(reinterpret_cast<void *>(&llist_addobject)), module_of(reinterpret_cast<void *>(&length)));
    for (size_t i = 0; i < seeds.size(); i++) {
        SCOPED_TRACE(testing::Message() << "seed " << seeds.begin()[i]);
        g_released = 0;
        ModelRun(seeds.begin()[i], node_objsize, names[i][0], names[i][1]).run(3000);
    }
}

} // namespace

TEST(LlistModel, RandomOperationsMatchTheVectorModel) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    run_seeds({1u, 2u, 3u, 20240601u}, int32_t(sizeof(llist_node)));
}

// Slots of 20 bytes + header: nodes are only 4-byte aligned (clean under UBSan).
TEST(LlistModel, RandomOperationsMatchTheVectorModelWithUnalignedNodes) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    run_seeds({7u, 8u, 9u}, 20);
}
