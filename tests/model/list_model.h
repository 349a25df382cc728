// The model of a list that the random list test and the fuzzer share: a
// vector of the linked objects, the rules that place and find a node in it,
// a check of a list against it, and the random steps over two lists that
// both drive. Nodes are read with memcpy, as node pools may be only 4-byte
// aligned.
#ifndef MEMM_MODEL_LIST_MODEL_H
#define MEMM_MODEL_LIST_MODEL_H

#include <string.h>

#include <algorithm>
#include <functional>
#include <map>
#include <vector>

#include "failures.h"
#include "llist.h"
#include "pool_model.h"
#include "source.h"
#include "strlist.h"

namespace memm_model {

using Objs = std::vector<void *>;

// ---- node words, read without assuming alignment ----
inline void *word(llist_node *node, size_t offset) {
    void *p;
    memcpy(&p, reinterpret_cast<uint8_t *>(node) + offset, sizeof p);
    return p;
}
inline void *obj_of(llist_node *node) { return word(node, offsetof(llist_node, linked_obj)); }
inline llist_node *next_of(llist_node *node) {
    return static_cast<llist_node *>(word(node, offsetof(llist_node, next)));
}

// Every node / linked object to the real end (null objects included).
inline std::vector<llist_node *> nodes_of(llist_node *list) {
    std::vector<llist_node *> v;
    for (llist_node *n = list; n; n = next_of(n))
        v.push_back(n);
    return v;
}
inline Objs objects_of(llist_node *list) {
    Objs v;
    for (llist_node *n : nodes_of(list))
        v.push_back(obj_of(n));
    return v;
}

// ---- positions in the model ----
// The length ends at the first null object.
inline size_t length(const Objs &m) { return size_t(std::find(m.begin(), m.end(), nullptr) - m.begin()); }

// The node a positional detach or read addresses.
inline bool at(const Objs &m, int32_t index, size_t *pos) {
    const int64_t i = index < 0 ? int64_t(index) + int64_t(length(m)) : index;
    *pos = size_t(i);
    return i >= 0 && i < int64_t(m.size());
}
// Inserting: 0 .. size; an index still negative goes to the front of a
// non-empty list.
inline bool insert_pos(const Objs &m, int32_t index, size_t *pos) {
    int64_t i = index < 0 ? int64_t(index) + int64_t(length(m)) : index;
    i = std::max<int64_t>(i, m.empty() ? -1 : 0);
    *pos = size_t(i);
    return i >= 0 && i <= int64_t(m.size());
}
inline bool find(const Objs &m, void *o, size_t *pos) {
    *pos = size_t(std::find(m.begin(), m.end(), o) - m.begin());
    return *pos < m.size();
}
// The nodes llist_split_at keeps: all of them when nothing is cut off.
inline size_t split_keep(const Objs &m, int32_t index) {
    const int64_t len = int64_t(length(m)), keep_last = int64_t(index) - 1 + (index <= 0 ? len : 0);
    if (index == 0 || index + len == 0)
        return 0;
    if (keep_last >= 0 && keep_last < int64_t(m.size()))
        return size_t(keep_last) + 1;
    return m.size();
}

// Empty when the list holds the model's objects: its nodes, lengths, reads
// by position, walks, and for each of `objects` and null its index and
// presence. Otherwise what differs.
inline std::string list_fault(llist_node *list, const Objs &m, const Objs &objects) {
    const size_t len = length(m);
    if (objects_of(list) != m)
        return str("the list holds ", objects_of(list).size(), " nodes, model ", m.size(), " (or other objects)");
    if (llist_getlength(list) != len || llist_getreallength(list) != m.size())
        return str("lengths ", llist_getlength(list), "/", llist_getreallength(list), ", model ", len, "/", m.size());
    if (llist_getobject_at(list, -1) != (len ? m[len - 1] : nullptr) ||
        llist_getobject_at(list, int32_t(m.size()) - 1) != (m.empty() ? nullptr : m.back()))
        return "the last object read by position";
    Objs walked;
    for (llist_node *n = llist_get_first(list); n; n = llist_get_next(n))
        walked.push_back(llist_getobject_this(n));
    if (walked != m)
        return "the walk by llist_get_next";
    size_t visits = 0; // nodes with a null object included
    llist_searchobject(list, &visits, [](void *, void *count) { return int(++*static_cast<size_t *>(count) == 0); });
    if (visits != m.size())
        return str("llist_searchobject visits ", visits, " nodes, model ", m.size());
    for (size_t i = 0; i <= objects.size(); i++) {
        void *o = i < objects.size() ? objects[i] : nullptr;
        size_t pos;
        const bool in = find(m, o, &pos);
        if (llist_getindex_byobject(list, o) != (in ? uint32_t(pos) : 0xFFFFFFFFu))
            return str("llist_getindex_byobject of ", o);
        if (llist_inlist(list, o) != (in && o ? 1 : 0))
            return str("llist_inlist of ", o);
    }
    return "";
}

// Two lists of one node pool changed at random, every result predicted.
// The driver supplies the objects (any_object, null included) and holds one
// reference of each; a reference a list hands back is released at once, so
// an object's count is the driver's holds plus in_lists(). Nodes run out at
// `capacity`, which the steps predict.
class ListModel {
  public:
    ListModel(Source &src, uint32_t nodes, uint32_t capacity, std::function<void *()> any_object)
        : src_(src), nodes_(nodes), capacity_(capacity), any_object_(std::move(any_object)) {}

    llist_node *lists[2] = {nullptr, nullptr};
    Objs model[2];
    std::map<void *, int32_t> keys; // sort keys, few values so that ties meet

    const char *step() {
        current() = this;
        switch (pick(0, 6)) {
        case 0: return add();
        case 1: return detach_at();
        case 2: return detach_byobject();
        case 3: return set_object();
        case 4: return free_or_copy();
        case 5: return order();
        default: return split_join_clone();
        }
    }
    size_t in_lists(void *o) const {
        return size_t(std::count(model[0].begin(), model[0].end(), o) + std::count(model[1].begin(), model[1].end(), o));
    }
    // Both lists against their models, and the nodes in use.
    std::string fault(const Objs &objects) const {
        for (int l = 0; l < 2; l++) {
            const std::string f = list_fault(lists[l], model[l], objects);
            if (!f.empty())
                return str("list ", l, ": ", f);
        }
        if (in_use(nodes_) != model[0].size() + model[1].size())
            return str(in_use(nodes_), " nodes in use, model ", model[0].size() + model[1].size());
        return "";
    }
    const std::string &failure() const { return f_.first(); }
    void release_all() {
        for (int l = 0; l < 2; l++)
            f_.expect(llist_free_plist(&lists[l]) == MEMM_OK && !lists[l], "llist_free_plist"), model[l].clear();
    }

  private:
    Source &src_;
    uint32_t nodes_, capacity_;
    std::function<void *()> any_object_;
    Failures f_;

    static ListModel *&current() {
        static ListModel *m = nullptr;
        return m;
    }
    static int32_t key(void *o) { return o ? current()->keys[o] : 1; }
    static int32_t by_key(void *a, void *b) { return key(a) - key(b); }
    static int32_t by_key_signed(void *sign, void *a, void *b) { return *static_cast<int32_t *>(sign) * by_key(a, b); }

    int pick(int lo, int hi) { return src_.pick(lo, hi); }
    int32_t any_index(size_t n) { return pick(0, 15) ? pick(-int(n) - 2, int(n) + 2) : pick(0, 1) ? INT32_MIN : INT32_MAX; }
    uint32_t free_nodes() const { return capacity_ - uint32_t(model[0].size() + model[1].size()); }
    // A reference for a list to take over, and one given back.
    void hold(void *o) { f_.expect(!o || memm_refalloc(o) == o, "memm_refalloc failed"); }
    void give_back(void *o) { f_.expect(!o || memm_free(o) == MEMM_OK, "release failed"); }

    const char *add() {
        const int l = pick(0, 1), mode = pick(0, 4);
        llist_node **pl = &lists[l];
        Objs &m = model[l];
        void *o = any_object_();
        const int32_t index = any_index(m.size());
        size_t pos = mode == 3 ? 0 : m.size();
        const bool placed = mode < 4 || insert_pos(m, index, &pos);
        const uint32_t want = free_nodes() == 0 ? MEMM_ERR_NO_MEMORY : placed ? MEMM_OK : MEMM_ERR_INVALID_ARG;
        if (mode != 1) // addref takes its own reference
            hold(o);
        if (mode == 2)
            memm_lock("model");
        const uint32_t r = mode == 0   ? llist_addobject(pl, o, nodes_)
                           : mode == 1 ? llist_addref(pl, o, nodes_)
                           : mode == 2 ? llist_addobject_nolock(pl, o, nodes_)
                           : mode == 3 ? llist_pushobject(pl, o, nodes_)
                                       : llist_insert_at(pl, o, index, nodes_);
        if (mode == 2)
            memm_unlock();
        f_.expect(r == want, "add mode ", mode, ": result ", r, ", expected ", want);
        if (r == MEMM_OK)
            m.insert(m.begin() + long(pos), o);
        else if (mode != 1)
            give_back(o);
        return "add/addref/push/insert_at";
    }

    // What the caller gets from detaching the node at pos (hit) or none:
    // kind 0 delete, 1 remove, 2 unlink, 3 getandremove, 4 getandunlink.
    void detached(Objs &m, bool hit, size_t pos, int kind, uint32_t r, llist_node *node, void *got) {
        f_.expect(r == (hit ? MEMM_OK : MEMM_ERR_INVALID_ARG), "detach kind ", kind, ": result ", r);
        if (!hit) {
            f_.expect(!node && !got, "a failed detach returned something");
            return;
        }
        void *o = m[pos];
        m.erase(m.begin() + long(pos));
        f_.expect(got == (kind == 3 ? o : nullptr), "getandremove returned another object");
        if (kind == 1 || kind == 3)
            give_back(o);
        if (kind == 2 || kind == 4) {
            f_.expect(node && obj_of(node) == o && !next_of(node), "the detached node");
            f_.expect(memm_free(node) == MEMM_OK, "release of the detached node failed");
        }
    }

    const char *detach_at() {
        const int l = pick(0, 1), mode = pick(0, 5);
        llist_node **pl = &lists[l];
        Objs &m = model[l];
        const int32_t index = mode == 5 ? 0 : any_index(m.size());
        size_t pos;
        const bool hit = at(m, index, &pos);
        uint32_t r = hit ? MEMM_OK : MEMM_ERR_INVALID_ARG;
        llist_node *node = nullptr;
        void *got = nullptr;
        switch (mode) {
        case 0: r = llist_delete_at(pl, index); break;
        case 1: r = llist_remove_at(pl, index); break;
        case 2: node = llist_get_at(*pl, index), r = llist_unlink_at(pl, index); break;
        case 3: got = llist_getandremove_at(pl, index); break;
        case 4: node = llist_getandunlink_at(pl, index); break;
        default: got = llist_popobject(pl); break;
        }
        detached(m, hit, pos, mode == 5 ? 3 : mode, r, node, got);
        return "delete/remove/unlink/getandremove/getandunlink_at/pop";
    }

    const char *detach_byobject() {
        const int l = pick(0, 1), mode = pick(0, 4);
        llist_node **pl = &lists[l];
        Objs &m = model[l];
        void *o = any_object_();
        size_t pos;
        const bool hit = find(m, o, &pos);
        uint32_t r = hit ? MEMM_OK : MEMM_ERR_INVALID_ARG;
        llist_node *node = nullptr;
        if (mode == 4) { // mostly to the other list, sometimes within the same one
            const int d = pick(0, 3) ? 1 - l : l;
            f_.expect(llist_move_byobject(pl, &lists[d], o) == r, "llist_move_byobject result");
            if (hit)
                m.erase(m.begin() + long(pos)), model[d].push_back(o);
            return "move_byobject";
        }
        switch (mode) {
        case 0: r = llist_delete_byobject(pl, o); break;
        case 1: r = llist_remove_byobject(pl, o); break;
        case 2: node = llist_search_byobject(*pl, o), r = llist_unlink_byobject(pl, o); break;
        default: node = llist_getandunlink_byobject(pl, o); break;
        }
        detached(m, hit, pos, mode == 3 ? 4 : mode, r, node, nullptr);
        return "delete/remove/unlink/getandunlink_byobject";
    }

    const char *set_object() {
        const int l = pick(0, 1);
        Objs &m = model[l];
        void *o = any_object_();
        const int32_t index = any_index(m.size());
        size_t pos;
        const bool hit = at(m, index, &pos);
        hold(o);
        f_.expect(llist_setobject_at(lists[l], o, index) == (hit ? MEMM_OK : MEMM_ERR_INVALID_ARG), "setobject_at");
        if (hit)
            m[pos] = o;
        else
            give_back(o);
        return "setobject_at";
    }

    const char *free_or_copy() {
        const int l = pick(0, 1);
        if (pick(0, 1)) {
            f_.expect(llist_free_plist(&lists[l]) == MEMM_OK && !lists[l], "llist_free_plist");
            model[l].clear();
            return "free_plist";
        }
        // Nodes that cannot be had are skipped: a depleted pool gives a prefix.
        const Objs &m = model[l];
        const Objs want(m.begin(), m.begin() + long(std::min<size_t>(m.size(), free_nodes())));
        std::map<void *, uint32_t> refs;
        for (void *o : want)
            if (o)
                refs[o] = memm_get_refcount(o);
        llist_node *copy = pick(0, 1) ? llist_refalloc(lists[l], nodes_) : strlist_refalloc(lists[l], nodes_);
        f_.expect(objects_of(copy) == want, "llist_refalloc copied other objects");
        for (auto &[o, n] : refs)
            f_.expect(memm_get_refcount(o) == n + uint32_t(std::count(want.begin(), want.end(), o)), "a copy's references");
        f_.expect(llist_free_plist(&copy) == MEMM_OK, "release of the copy");
        return "refalloc";
    }

    // Sorting, ordered insert and reverse relink the list's own nodes.
    const char *order() {
        const int l = pick(0, 1), mode = pick(0, 4);
        llist_node **pl = &lists[l];
        Objs &m = model[l];
        std::vector<llist_node *> before = nodes_of(*pl);
        if (mode < 2) {
            int32_t sign = pick(0, 1) ? 1 : -1;
            f_.expect((mode ? llist_sort_ex(pl, &sign, by_key_signed) : llist_sort(pl, by_key)) == MEMM_OK, "sort");
            if (length(m) >= 2)
                std::stable_sort(m.begin(), m.end(), [&](void *a, void *b) { return (mode ? sign : 1) * by_key(a, b) < 0; });
        } else if (mode < 4) {
            void *o = any_object_();
            const bool room = free_nodes() > 0;
            hold(o);
            f_.expect(llist_insert_sorted(pl, o, nodes_, by_key) == MEMM_OK, "insert_sorted");
            if (!room)
                give_back(o);
            else // before the first object it compares below, sorted list or not
                m.insert(std::find_if(m.begin(), m.end(), [&](void *x) { return by_key(o, x) < 0; }), o);
            return "insert_sorted";
        } else {
            f_.expect(llist_reverse(pl) == MEMM_OK, "reverse");
            std::reverse(m.begin(), m.end());
        }
        std::vector<llist_node *> after = nodes_of(*pl);
        std::sort(before.begin(), before.end());
        std::sort(after.begin(), after.end());
        f_.expect(after == before, "sorting or reversing did not just relink the nodes");
        return "sort/sort_ex/reverse";
    }

    // A split whose tail is joined again, to either list, at the end or at a
    // position; or a clone of one list appended to either list.
    const char *split_join_clone() {
        const int l = pick(0, 1), d = pick(0, 1), mode = pick(0, 2);
        Objs &m = model[l], &dm = model[d];
        if (mode < 2) {
            const int32_t index = any_index(m.size());
            const size_t keep = split_keep(m, index);
            const Objs tail_model(m.begin() + long(keep), m.end());
            m.resize(keep);
            llist_node *tail = llist_split_at(&lists[l], index);
            f_.expect(objects_of(tail) == tail_model && objects_of(lists[l]) == m, "split_at");
            if (mode == 0) {
                f_.expect(llist_addlist(&lists[d], tail) == (tail ? MEMM_OK : MEMM_ERR_INVALID_ARG), "addlist");
                dm.insert(dm.end(), tail_model.begin(), tail_model.end());
                return "split_at + addlist";
            }
            const int32_t to = any_index(dm.size());
            size_t pos = 0;
            const bool ok = insert_pos(dm, to, &pos) || !tail;
            f_.expect(llist_insert_list_at(&lists[d], tail, to) == (ok ? MEMM_OK : MEMM_ERR_INVALID_ARG), "insert_list_at");
            if (ok && tail) {
                dm.insert(dm.begin() + long(pos), tail_model.begin(), tail_model.end());
            } else if (tail) { // refused: the tail goes back where it came from
                f_.expect(llist_addlist(&lists[l], tail) == MEMM_OK, "addlist of a refused tail");
                m.insert(m.end(), tail_model.begin(), tail_model.end());
            }
            return "split_at + insert_list_at";
        }
        // Without nodes for the whole copy the destination list is released;
        // a clone onto itself copies the list as it was.
        const Objs copied(m.begin(), m.begin() + long(length(m)));
        const bool room = copied.size() <= free_nodes();
        f_.expect(llist_clone(&lists[d], lists[l], nodes_) == (room ? MEMM_OK : MEMM_ERR_NO_MEMORY), "clone");
        if (room)
            dm.insert(dm.end(), copied.begin(), copied.end());
        else
            f_.expect(!lists[d], "a failed clone left its destination"), dm.clear();
        return "clone";
    }
};

} // namespace memm_model

#endif
