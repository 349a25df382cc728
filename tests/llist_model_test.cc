// Seeded random model test: adds, inserts, pushes, deletes, removes, unlinks,
// pops, getand operations, moves, replacements, copies and releases on two
// lists, checked after every step against two std::vector models, including
// the reference count of every object and the number of nodes in use.
//
// The test holds one reference of every object for the whole run, so an
// object's expected count is 1 + the number of nodes holding it, and a
// release the model does not expect shows as a wrong count (or as a call of
// the record pool's release hook, which must never run).
#include <algorithm>
#include <random>

#include "llist_test_helpers.h"

using namespace llist_test;

namespace {

constexpr int kObjects = 8;
constexpr size_t kMaxNodes = 10; // in both lists together; a copy doubles it

class ModelRun {
  public:
    ModelRun(uint32_t seed, int32_t node_objsize, const char *records_name, const char *nodes_name)
        : rng_(seed) {
        // A small node pool, so that nodes also come from extension pools:
        // 8 + 5 extensions of 3 slots hold the 2 * kMaxNodes + 1 needed at most.
        p_ = make_pools(node_objsize, 8, records_name, nodes_name);
        objs_ = new_records(p_.records, kObjects);
    }

    // Runs `steps` random operations; stops at the first failed check.
    void run(int steps) {
        for (int i = 0; i < steps; i++) {
            const char *op = step();
            check();
            if (i % 64 == 0) {
                EXPECT_TRUE(integrity_ok());
            }
            if (::testing::Test::HasFailure()) {
                ADD_FAILURE() << "first failure at step " << i << " (" << op << ")";
                return;
            }
        }
        finish();
    }

  private:
    std::mt19937 rng_;
    Pools p_{};
    std::vector<void *> objs_;
    llist_node *lists_[2] = {nullptr, nullptr};
    std::vector<void *> model_[2];

    int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    void *any_object() { return objs_[size_t(pick(0, kObjects - 1))]; }
    size_t total() const { return model_[0].size() + model_[1].size(); }
    int32_t any_index(size_t n) { return pick(-int(n) - 2, int(n) + 2); }

    uint32_t expected_refs(void *o) const {
        return 1 + uint32_t(std::count(model_[0].begin(), model_[0].end(), o) +
                            std::count(model_[1].begin(), model_[1].end(), o));
    }

    // Detaching: -n .. n-1 address a node.
    static bool detach_pos(size_t n, int32_t index, size_t *pos) {
        int64_t i = index < 0 ? int64_t(index) + int64_t(n) : index;
        if (i < 0 || i >= int64_t(n))
            return false;
        *pos = size_t(i);
        return true;
    }
    // Inserting: 0 .. n, an index still negative after adding n goes to the
    // front of a non-empty list.
    static bool insert_pos(size_t n, int32_t index, size_t *pos) {
        int64_t i = index < 0 ? int64_t(index) + int64_t(n) : index;
        if (i < 0) {
            if (n == 0)
                return false;
            i = 0;
        }
        if (i > int64_t(n))
            return false;
        *pos = size_t(i);
        return true;
    }
    static bool find(const std::vector<void *> &m, void *o, size_t *pos) {
        auto it = std::find(m.begin(), m.end(), o);
        if (it == m.end())
            return false;
        *pos = size_t(it - m.begin());
        return true;
    }
    void erase(int l, size_t pos) { model_[l].erase(model_[l].begin() + long(pos)); }

    // The caller got the list's reference of o: the count is one above the
    // model's until the caller gives it back.
    void give_back(void *o) {
        EXPECT_EQ(refs(o), expected_refs(o) + 1);
        EXPECT_EQ(memm_free(o), MEMM_OK);
    }

    const char *step() {
        const int l = pick(0, 1);
        llist_node **pl = &lists_[l];
        std::vector<void *> &m = model_[l];
        const bool room = total() < kMaxNodes;
        size_t pos = 0;
        switch (pick(0, 17)) {
        case 0: {
            if (!room)
                return "add (full)";
            void *o = any_object();
            memm_refalloc(o);
            EXPECT_EQ(llist_addobject(pl, o, p_.nodes), MEMM_OK);
            m.push_back(o);
            return "addobject";
        }
        case 1: {
            if (!room)
                return "addref (full)";
            void *o = any_object();
            EXPECT_EQ(llist_addref(pl, o, p_.nodes), MEMM_OK);
            m.push_back(o);
            return "addref";
        }
        case 2: {
            if (!room)
                return "insert (full)";
            void *o = any_object();
            int32_t index = any_index(m.size());
            memm_refalloc(o);
            if (insert_pos(m.size(), index, &pos)) {
                EXPECT_EQ(llist_insert_at(pl, o, index, p_.nodes), MEMM_OK);
                m.insert(m.begin() + long(pos), o);
            } else {
                EXPECT_EQ(llist_insert_at(pl, o, index, p_.nodes), MEMM_ERR_INVALID_ARG);
                give_back(o);
            }
            return "insert_at";
        }
        case 3: {
            if (!room)
                return "push (full)";
            void *o = any_object();
            memm_refalloc(o);
            EXPECT_EQ(llist_pushobject(pl, o, p_.nodes), MEMM_OK);
            m.insert(m.begin(), o);
            return "pushobject";
        }
        case 4: {
            int32_t index = any_index(m.size());
            if (detach_pos(m.size(), index, &pos)) {
                EXPECT_EQ(llist_delete_at(pl, index), MEMM_OK);
                erase(l, pos);
            } else {
                EXPECT_EQ(llist_delete_at(pl, index), MEMM_ERR_INVALID_ARG);
            }
            return "delete_at";
        }
        case 5: {
            void *o = any_object();
            if (find(m, o, &pos)) {
                EXPECT_EQ(llist_delete_byobject(pl, o), MEMM_OK);
                erase(l, pos);
            } else {
                EXPECT_EQ(llist_delete_byobject(pl, o), MEMM_ERR_INVALID_ARG);
            }
            return "delete_byobject";
        }
        case 6: {
            int32_t index = any_index(m.size());
            if (detach_pos(m.size(), index, &pos)) {
                void *o = m[pos];
                EXPECT_EQ(llist_remove_at(pl, index), MEMM_OK);
                erase(l, pos);
                give_back(o);
            } else {
                EXPECT_EQ(llist_remove_at(pl, index), MEMM_ERR_INVALID_ARG);
            }
            return "remove_at";
        }
        case 7: {
            void *o = any_object();
            if (find(m, o, &pos)) {
                EXPECT_EQ(llist_remove_byobject(pl, o), MEMM_OK);
                erase(l, pos);
                give_back(o);
            } else {
                EXPECT_EQ(llist_remove_byobject(pl, o), MEMM_ERR_INVALID_ARG);
            }
            return "remove_byobject";
        }
        case 8: {
            void *o = llist_popobject(pl);
            if (m.empty()) {
                EXPECT_EQ(o, nullptr);
            } else {
                EXPECT_EQ(o, m.front());
                erase(l, 0);
                give_back(o);
            }
            return "popobject";
        }
        case 9: {
            int32_t index = any_index(m.size());
            void *o = llist_getandremove_at(pl, index);
            if (detach_pos(m.size(), index, &pos)) {
                EXPECT_EQ(o, m[pos]);
                erase(l, pos);
                give_back(o);
            } else {
                EXPECT_EQ(o, nullptr);
            }
            return "getandremove_at";
        }
        case 10: {
            int32_t index = any_index(m.size());
            llist_node *node = llist_getandunlink_at(pl, index);
            if (detach_pos(m.size(), index, &pos)) {
                EXPECT_NE(node, nullptr);
                if (node) {
                    EXPECT_EQ(obj_of(node), m[pos]);
                    EXPECT_EQ(next_of(node), nullptr);
                    erase(l, pos);
                    EXPECT_EQ(memm_free(node), MEMM_OK);
                }
            } else {
                EXPECT_EQ(node, nullptr);
            }
            return "getandunlink_at";
        }
        case 11: {
            void *o = any_object();
            llist_node *node = llist_getandunlink_byobject(pl, o);
            if (find(m, o, &pos)) {
                EXPECT_NE(node, nullptr);
                if (node) {
                    EXPECT_EQ(obj_of(node), o);
                    erase(l, pos);
                    EXPECT_EQ(memm_free(node), MEMM_OK);
                }
            } else {
                EXPECT_EQ(node, nullptr);
            }
            return "getandunlink_byobject";
        }
        case 12: {
            int32_t index = any_index(m.size());
            llist_node *node = llist_get_at(*pl, index);
            if (detach_pos(m.size(), index, &pos)) {
                EXPECT_NE(node, nullptr);
                EXPECT_EQ(llist_unlink_at(pl, index), MEMM_OK);
                erase(l, pos);
                EXPECT_EQ(memm_free(node), MEMM_OK);
            } else {
                EXPECT_EQ(node, nullptr);
                EXPECT_EQ(llist_unlink_at(pl, index), MEMM_ERR_INVALID_ARG);
            }
            return "unlink_at";
        }
        case 13: {
            void *o = any_object();
            llist_node *node = llist_search_byobject(*pl, o);
            if (find(m, o, &pos)) {
                EXPECT_EQ(llist_unlink_byobject(pl, o), MEMM_OK);
                erase(l, pos);
                EXPECT_EQ(memm_free(node), MEMM_OK);
            } else {
                EXPECT_EQ(node, nullptr);
                EXPECT_EQ(llist_unlink_byobject(pl, o), MEMM_ERR_INVALID_ARG);
            }
            return "unlink_byobject";
        }
        case 14:
        case 15: {
            // Mostly to the other list, sometimes within the same one.
            const int d = pick(0, 3) == 0 ? l : 1 - l;
            void *o = any_object();
            if (find(m, o, &pos)) {
                EXPECT_EQ(llist_move_byobject(pl, &lists_[d], o), MEMM_OK);
                erase(l, pos);
                model_[d].push_back(o);
            } else {
                EXPECT_EQ(llist_move_byobject(pl, &lists_[d], o), MEMM_ERR_INVALID_ARG);
            }
            return "move_byobject";
        }
        case 16: {
            void *o = any_object();
            int32_t index = any_index(m.size());
            memm_refalloc(o);
            if (detach_pos(m.size(), index, &pos)) {
                EXPECT_EQ(llist_setobject_at(*pl, o, index), MEMM_OK);
                m[pos] = o;
            } else {
                EXPECT_EQ(llist_setobject_at(*pl, o, index), MEMM_ERR_INVALID_ARG);
                give_back(o);
            }
            return "setobject_at";
        }
        default: {
            if (pick(0, 7) == 0) {
                EXPECT_EQ(llist_free_plist(pl), MEMM_OK);
                EXPECT_EQ(*pl, nullptr);
                m.clear();
                return "free_plist";
            }
            llist_node *copy = llist_refalloc(*pl, p_.nodes);
            EXPECT_EQ(objects_of(copy), m);
            for (void *o : objs_)
                EXPECT_EQ(refs(o), expected_refs(o) + uint32_t(std::count(m.begin(), m.end(), o)));
            EXPECT_EQ(in_use(p_.nodes), total() + m.size());
            EXPECT_EQ(llist_free_plist(&copy), MEMM_OK);
            return "refalloc";
        }
        }
    }

    void check() {
        for (int l = 0; l < 2; l++) {
            const std::vector<void *> &m = model_[l];
            EXPECT_EQ(objects_of(lists_[l]), m);
            EXPECT_EQ(llist_getlength(lists_[l]), m.size());
            EXPECT_EQ(llist_getreallength(lists_[l]), m.size());
            if (!m.empty()) {
                EXPECT_EQ(llist_getobject_at(lists_[l], -1), m.back());
                EXPECT_EQ(llist_getobject_at(lists_[l], 0), m.front());
            }
            for (void *o : objs_) {
                size_t pos;
                const bool in = find(m, o, &pos);
                EXPECT_EQ(llist_inlist(lists_[l], o), in ? 1 : 0);
                EXPECT_EQ(llist_getindex_byobject(lists_[l], o), in ? uint32_t(pos) : 0xFFFFFFFFu);
            }
        }
        for (void *o : objs_)
            EXPECT_EQ(refs(o), expected_refs(o));
        EXPECT_EQ(in_use(p_.nodes), total());
        EXPECT_EQ(g_released, 0);
    }

    void finish() {
        for (auto &list : lists_)
            EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
        model_[0].clear();
        model_[1].clear();
        check();
        EXPECT_TRUE(integrity_ok());
        for (void *o : objs_)
            EXPECT_EQ(memm_free(o), MEMM_OK);
        EXPECT_EQ(g_released, kObjects);
    }
};

} // namespace

TEST(LlistModel, RandomOperationsMatchTheVectorModel) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    const uint32_t seeds[] = {1u, 2u, 3u, 20240601u};
    const char *names[][2] = {{"r1", "n1"}, {"r2", "n2"}, {"r3", "n3"}, {"r4", "n4"}};
    for (size_t i = 0; i < 4; i++) {
        SCOPED_TRACE(testing::Message() << "seed " << seeds[i]);
        g_released = 0;
        ModelRun(seeds[i], int32_t(sizeof(llist_node)), names[i][0], names[i][1]).run(3000);
        if (HasFailure())
            return;
    }
}

// The same in a node pool of 36-byte slots, where nodes are 4-byte aligned.
TEST(LlistModel, RandomOperationsMatchTheVectorModelWithUnalignedNodes) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    const uint32_t seeds[] = {7u, 8u, 9u};
    const char *names[][2] = {{"r7", "n7"}, {"r8", "n8"}, {"r9", "n9"}};
    for (size_t i = 0; i < 3; i++) {
        SCOPED_TRACE(testing::Message() << "seed " << seeds[i]);
        g_released = 0;
        ModelRun(seeds[i], 20, names[i][0], names[i][1]).run(3000);
        if (HasFailure())
            return;
    }
}
