// Seeded random model test: every mutating list function, on two lists,
// against two std::vector models. After every step: contents, both lengths,
// reads by position and by object, lookups and enumerations by type, the
// reference count of every object, the nodes in use, and that each node
// records the test (not the library) as its allocation site. Each list also
// carries a cursor enumeration that advances one object per step, so the
// list changes under it between calls.
//
// The objects are of three types: plain records, records of a pool so small
// that one of them comes from an extension pool (same type as its root), and
// dynamic strings. Sorting orders by a key per object (with ties, and a key
// for the null object too) against std::stable_sort.
//
// The test holds one reference of every object for the whole run, so an
// object's expected count is 1 + the nodes holding it; a release the model
// does not expect shows as a wrong count or as a call of the record pool's
// release hook, which must never run. One pick in nine is a null object, so
// the rule "the length ends at the first null linked_obj, walks by position
// go on" meets every operation, negative indexes included.
#include <algorithm>
#include <map>
#include <random>

#include "dynstr.h"
#include "llist_test_helpers.h"

using namespace llist_test;
using memm_model::at;
using memm_model::find;
using memm_model::insert_pos;
using memm_model::length;

namespace {

constexpr int kObjects = 8;
constexpr size_t kMaxNodes = 10; // in both lists together; a copy doubles it

enum Kind { kDelete, kRemove, kUnlink, kGetAndRemove, kGetAndUnlink };

// Sort keys: few values, so that equal keys meet; the null object has one too.
std::map<void *, int32_t> g_key;
int32_t key(void *o) { return o ? g_key.at(o) : 1; }
int32_t by_key(void *a, void *b) { return key(a) - key(b); }
int32_t by_key_signed(void *sign, void *a, void *b) { return *static_cast<int32_t *>(sign) * by_key(a, b); }

// The enumeration callback: collects what it is given, goes on.
int collect(void *obj, void *seen) {
    static_cast<Objs *>(seen)->push_back(obj);
    return 1;
}

class ModelRun {
  public:
    ModelRun(uint32_t seed, int32_t node_objsize, const char *const names[4])
        : rng_(seed), unaligned_(node_objsize % 8 != 0) {
        // A small node pool, so that nodes also come from extension pools.
        p_ = make_pools(node_objsize, 8, names[0], names[1]);
        small_ = memm_initpool2(names[2], 1, 8, nullptr, record_release);
        strings_ = dynstr_initpool(names[3], 10, 200);
        EXPECT_NE(small_, MEMM_INVALID_POOL);
        EXPECT_NE(strings_, MEMM_INVALID_POOL);
        objs_ = new_records(p_.records, kRecords);
        for (void *o : new_records(small_, kSmall))
            objs_.push_back(o);
        for (const char *text : {"one", "two"})
            objs_.push_back(dynstr_fromstring(strings_, text));
        EXPECT_EQ(objs_.size(), size_t(kObjects));
        for (size_t i = 0; i < objs_.size(); i++) {
            EXPECT_NE(objs_[i], nullptr);
            type_[objs_[i]] = i < kRecords ? p_.records : i < kRecords + kSmall ? small_ : strings_;
            g_key[objs_[i]] = int32_t(i % 3);
        }
        kinds_ = {p_.records, kStrings, LLIST_TYPE_ANY, small_, LLIST_TYPE_NONE, strings_};
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
        EXPECT_EQ(g_released, kRecords + kSmall);
    }

  private:
    static constexpr size_t kRecords = 4, kSmall = 2; // the rest are strings
    // A cursor kind besides the pool ids: llist_enum_dynstr.
    static constexpr uint32_t kStrings = 0xFFFFFFFEu;
    struct Cursor {
        size_t kind = 0; // into kinds_
        uint32_t index = 0;
        void *last = nullptr;
    };

    std::mt19937 rng_;
    bool unaligned_, saw_misaligned_ = false;
    Pools p_{};
    uint32_t small_ = MEMM_INVALID_POOL, strings_ = MEMM_INVALID_POOL;
    Objs objs_;
    std::map<void *, uint32_t> type_;
    std::vector<uint32_t> kinds_;
    llist_node *lists_[2] = {nullptr, nullptr};
    Objs model_[2];
    Cursor cursors_[2];
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

    bool of_kind(void *o, uint32_t kind) const {
        if (!o || kind == LLIST_TYPE_NONE)
            return false;
        if (kind == LLIST_TYPE_ANY)
            return true;
        return type_.at(o) == (kind == kStrings ? strings_ : kind);
    }
    Objs matches(const Objs &m, uint32_t kind, size_t from = 0) const {
        Objs v;
        for (size_t i = from; i < m.size(); i++)
            if (of_kind(m[i], kind))
                v.push_back(m[i]);
        return v;
    }

    // First and second object of each type; the callback enumeration up to
    // the length (it compares types with memm_instanceof, so "any" gives none).
    void check_types(llist_node *list, const Objs &m) {
        for (uint32_t kind : kinds_) {
            if (kind == kStrings)
                continue;
            SCOPED_TRACE(kind);
            const Objs all = matches(m, kind);
            EXPECT_EQ(llist_get_bytype(list, kind, 0), all.empty() ? nullptr : all[0]);
            EXPECT_EQ(llist_get_bytype(list, kind, 5), all.size() < 2 ? nullptr : all[1]);
            const Objs counted(m.begin(), m.begin() + long(length(m)));
            const Objs expected = kind == LLIST_TYPE_ANY ? Objs{} : matches(counted, kind);
            Objs seen;
            EXPECT_EQ(llist_enumcb_bytype(list, kind, collect, &seen), expected.size());
            EXPECT_EQ(seen, expected);
        }
    }

    // One step of the list's cursor enumeration; a new round (of the next
    // kind) after the end.
    void advance_cursor(int l) {
        const Objs &m = model_[l];
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
        const uint32_t index = c.index + (expected ? 1 : 0), index_before = c.index;
        void *const last_before = c.last;
        void *got;
        if (kind == kStrings) {
            dynstr *last = static_cast<dynstr *>(c.last);
            got = llist_enum_dynstr(lists_[l], &c.index, &last);
            c.last = last;
        } else if (pick(0, 1)) {
            got = llist_enum_bytype(lists_[l], kind, &c.index, &c.last);
        } else {
            memm_lock("model");
            got = llist_enum_bytype_nolock(lists_[l], kind, &c.index, &c.last);
            memm_unlock();
        }
        EXPECT_EQ(got, expected) << "kind " << kind << ", index " << index;
        // An empty list is a null one: nothing changes.
        EXPECT_EQ(c.index, lists_[l] ? index : index_before);
        EXPECT_EQ(c.last, lists_[l] ? got : last_before);
        if (!got && lists_[l])
            c = Cursor{(c.kind + 1) % kinds_.size(), 0, nullptr};
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
        switch (pick(0, 9)) {
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
        case 7: {
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
        case 8: return order(pl, m, o, mode);
        default: return split_join_clone(l, index, mode);
        }
    }

    // Sorting, ordered insert and reverse relink the list's own nodes.
    const char *order(llist_node **pl, Objs &m, void *o, int mode) {
        std::vector<llist_node *> before = nodes_of(*pl);
        std::sort(before.begin(), before.end());
        const char *op;
        if (mode < 2) {
            int32_t sign = pick(0, 1) ? 1 : -1;
            if (mode == 0)
                EXPECT_EQ(llist_sort(pl, by_key), MEMM_OK);
            else
                EXPECT_EQ(llist_sort_ex(pl, &sign, by_key_signed), MEMM_OK);
            if (length(m) >= 2)
                std::stable_sort(m.begin(), m.end(), [&](void *a, void *b) {
                    return (mode == 0 ? by_key(a, b) : by_key_signed(&sign, a, b)) < 0;
                });
            op = "sort/sort_ex";
        } else if (mode < 4) {
            if (model_[0].size() + model_[1].size() >= kMaxNodes)
                return "insert_sorted (full)";
            hold(o);
            EXPECT_EQ(llist_insert_sorted(pl, o, p_.nodes, by_key), MEMM_OK);
            // Before the first object it compares below, sorted list or not.
            m.insert(std::find_if(m.begin(), m.end(), [&](void *x) { return by_key(o, x) < 0; }), o);
            return "insert_sorted";
        } else {
            EXPECT_EQ(llist_reverse(pl), MEMM_OK);
            std::reverse(m.begin(), m.end());
            op = "reverse";
        }
        std::vector<llist_node *> after = nodes_of(*pl);
        std::sort(after.begin(), after.end());
        EXPECT_EQ(after, before) << "the same nodes, relinked";
        return op;
    }

    // A split whose tail is joined again, to either list, at the end or at a
    // position; or a clone of one list appended to either list.
    const char *split_join_clone(int l, int32_t index, int mode) {
        Objs &m = model_[l];
        const int d = pick(0, 1);
        Objs &dm = model_[d];
        if (mode < 3) {
            const size_t cut = memm_model::split_keep(m, index);
            const Objs tail_model(m.begin() + long(cut), m.end());
            m.resize(cut);
            llist_node *tail = llist_split_at(&lists_[l], index);
            EXPECT_EQ(objects_of(tail), tail_model);
            EXPECT_EQ(objects_of(lists_[l]), m);
            if (mode == 0) {
                EXPECT_EQ(llist_addlist(&lists_[d], tail), tail ? MEMM_OK : MEMM_ERR_INVALID_ARG);
                dm.insert(dm.end(), tail_model.begin(), tail_model.end());
                return "split_at + addlist";
            }
            const int32_t at = any_index(dm.size());
            size_t pos = 0;
            const bool ok = insert_pos(dm, at, &pos) || !tail;
            EXPECT_EQ(llist_insert_list_at(&lists_[d], tail, at), ok ? MEMM_OK : MEMM_ERR_INVALID_ARG);
            if (ok && tail) {
                dm.insert(dm.begin() + long(pos), tail_model.begin(), tail_model.end());
            } else if (tail) {
                // Refused: the tail goes back where it came from.
                EXPECT_EQ(llist_addlist(&lists_[l], tail), MEMM_OK);
                m.insert(m.end(), tail_model.begin(), tail_model.end());
            }
            return "split_at + insert_list_at";
        }
        const size_t len = length(m);
        if (model_[0].size() + model_[1].size() + len > kMaxNodes)
            return "clone (full)";
        const Objs copied(m.begin(), m.begin() + long(len)); // a clone onto itself copies the list as it was
        EXPECT_EQ(llist_clone(&lists_[d], lists_[l], p_.nodes), MEMM_OK);
        dm.insert(dm.end(), copied.begin(), copied.end());
        return "clone";
    }

    void check() {
        for (int l = 0; l < 2; l++) {
            llist_node *list = lists_[l];
            const Objs &m = model_[l];
            EXPECT_EQ(memm_model::list_fault(list, m, objs_), "");
            check_nodes(list);
            check_types(list, m);
            advance_cursor(l);
        }
        for (void *o : objs_)
            EXPECT_EQ(refs(o), expected_refs(o));
        EXPECT_EQ(in_use(p_.nodes), model_[0].size() + model_[1].size());
        EXPECT_EQ(g_released, 0);
    }
};

void run_seeds(std::initializer_list<uint32_t> seeds, int32_t node_objsize) {
    static const char *const names[][4] = {
        {"r1", "n1", "m1", "s1"}, {"r2", "n2", "m2", "s2"}, {"r3", "n3", "m3", "s3"}, {"r4", "n4", "m4", "s4"}};
    ASSERT_NE(module_of(reinterpret_cast<void *>(&llist_addobject)), module_of(reinterpret_cast<void *>(&length)));
    for (size_t i = 0; i < seeds.size(); i++) {
        SCOPED_TRACE(testing::Message() << "seed " << seeds.begin()[i]);
        g_released = 0;
        ModelRun(seeds.begin()[i], node_objsize, names[i]).run(3000);
    }
}

} // namespace

TEST(LlistModel, RandomOperationsMatchTheVectorModel) {
    ASSERT_EQ(memm_init(16, 4), MEMM_OK);
    run_seeds({1u, 2u, 3u, 20240601u}, int32_t(sizeof(llist_node)));
}

// Slots of 20 bytes + header: nodes are only 4-byte aligned (clean under UBSan).
TEST(LlistModel, RandomOperationsMatchTheVectorModelWithUnalignedNodes) {
    ASSERT_EQ(memm_init(16, 4), MEMM_OK);
    run_seeds({7u, 8u, 9u}, 20);
}
