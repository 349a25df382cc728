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

namespace memm_model {

using Objs = std::vector<void *>;

// ---- node words, read without assuming alignment ----
inline void *word(llist_node *node, size_t offset) {
    void *p;
    memcpy(&p, reinterpret_cast<uint8_t *>(node) + offset, sizeof p);
    return p;
}
inline llist_node *next_of(llist_node *node) {
    return static_cast<llist_node *>(word(node, offsetof(llist_node, next)));
}

// Every linked object to the real end (null objects included).
inline Objs objects_of(llist_node *list) {
    Objs v;
    for (llist_node *n = list; n; n = next_of(n))
        v.push_back(word(n, offsetof(llist_node, linked_obj)));
    return v;
}

// ---- positions in the model ----
// The length ends at the first null object; negative indexes count from it.
inline size_t length(const Objs &m) { return size_t(std::find(m.begin(), m.end(), nullptr) - m.begin()); }
inline int64_t resolved(const Objs &m, int32_t index) { return index < 0 ? index + int64_t(length(m)) : index; }

// The node a positional detach or read addresses.
inline bool at(const Objs &m, int32_t index, size_t *pos) {
    const int64_t i = resolved(m, index);
    *pos = size_t(i);
    return i >= 0 && i < int64_t(m.size());
}
// Inserting: 0 .. size; an index still negative goes to the front of a
// non-empty list.
inline bool insert_pos(const Objs &m, int32_t index, size_t *pos) {
    const int64_t i = m.empty() ? resolved(m, index) : std::max<int64_t>(resolved(m, index), 0);
    *pos = size_t(i);
    return i >= 0 && i <= int64_t(m.size());
}
inline bool find(const Objs &m, void *o, size_t *pos) {
    *pos = size_t(std::find(m.begin(), m.end(), o) - m.begin());
    return *pos < m.size();
}
// The nodes llist_split_at keeps: the cut goes behind the node at index - 1;
// all of them stay when there is none.
inline size_t split_keep(const Objs &m, int32_t index) {
    size_t pos;
    if (index == 0 || resolved(m, index) == 0)
        return 0;
    return index != INT32_MIN && at(m, index - 1, &pos) ? pos + 1 : m.size();
}

// Empty when the list holds the model's objects: its nodes, lengths, and
// for each of `objects` its index and presence. Otherwise what differs.
inline std::string list_fault(llist_node *list, const Objs &m, const Objs &objects) {
    if (objects_of(list) != m)
        return str("the list holds ", objects_of(list).size(), " nodes, model ", m.size(), " (or other objects)");
    if (llist_getlength(list) != length(m) || llist_getreallength(list) != m.size())
        return str("lengths ", llist_getlength(list), "/", llist_getreallength(list), ", model ", length(m), "/",
                   m.size());
    for (void *o : objects) {
        size_t pos;
        const bool in = find(m, o, &pos);
        if (llist_getindex_byobject(list, o) != (in ? uint32_t(pos) : 0xFFFFFFFFu) || llist_inlist(list, o) != in)
            return str("llist_getindex_byobject or llist_inlist of ", o);
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

    // One step on a random list, with a random object and index; its name.
    // Every result it can check at once it checks (see failure()); the
    // lists themselves the driver checks after it (fault()).
    const char *step() {
        current_ = this;
        const int kind = src_.pick(0, 2);
        return kind == 0 ? add() : kind == 1 ? detach() : reshape();
    }
    size_t in_lists(void *o) const {
        return size_t(std::count(model[0].begin(), model[0].end(), o) +
                      std::count(model[1].begin(), model[1].end(), o));
    }
    // Both lists against their models, and the nodes in use.
    std::string fault(const Objs &objects) const {
        for (int l = 0; l < 2; l++)
            if (const std::string f = list_fault(lists[l], model[l], objects); !f.empty())
                return str("list ", l, ": ", f);
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

    static inline ListModel *current_ = nullptr; // the model whose keys the comparisons read
    static int32_t key(void *o) { return o ? current_->keys[o] : 1; }
    static int32_t by_key(void *a, void *b) { return key(a) - key(b); }
    static int32_t by_key_signed(void *sign, void *a, void *b) { return *static_cast<int32_t *>(sign) * by_key(a, b); }

    int32_t any_index(size_t n) {
        return src_.pick(0, 15) ? src_.pick(-int(n) - 2, int(n) + 2) : src_.pick(0, 1) ? INT32_MIN : INT32_MAX;
    }
    uint32_t free_nodes() const { return capacity_ - uint32_t(model[0].size() + model[1].size()); }
    // A reference for a list to take over, and one given back.
    void hold(void *o) { f_.expect(!o || memm_refalloc(o) == o, "memm_refalloc failed"); }
    void give_back(void *o) { f_.expect(!o || memm_free(o) == MEMM_OK, "release failed"); }

    // Every way in: at the end (with the caller's reference or a new one),
    // at a position, before the first object that compares above (the list
    // sorted or not), and in place of the object at a position.
    const char *add() {
        const int l = src_.pick(0, 1), mode = src_.pick(0, 4);
        Objs &m = model[l];
        void *o = any_object_();
        const int32_t index = any_index(m.size());
        size_t pos = m.size();
        if (mode == 3)
            pos = size_t(std::find_if(m.begin(), m.end(), [&](void *x) { return by_key(o, x) < 0; }) - m.begin());
        const bool placed = mode == 4 ? at(m, index, &pos) : mode != 2 || insert_pos(m, index, &pos);
        // A replacement needs no node; the list releases the object it held.
        const bool room = free_nodes() > 0 || mode == 4, in = room && placed;
        const uint32_t want = in || mode == 3 ? MEMM_OK : room ? MEMM_ERR_INVALID_ARG : MEMM_ERR_NO_MEMORY;
        if (mode != 1) // addref takes its own reference
            hold(o);
        const uint32_t r = mode == 0   ? llist_addobject(&lists[l], o, nodes_)
                           : mode == 1 ? llist_addref(&lists[l], o, nodes_)
                           : mode == 2 ? llist_insert_at(&lists[l], o, index, nodes_)
                           : mode == 3 ? llist_insert_sorted(&lists[l], o, nodes_, by_key)
                                       : llist_setobject_at(lists[l], o, index);
        f_.expect(r == want, "add mode ", mode, ": result ", r, ", expected ", want);
        if (in && mode == 4)
            m[pos] = o;
        else if (in)
            m.insert(m.begin() + long(pos), o);
        else if (mode != 1)
            give_back(o);
        return "add/addref/insert_at/insert_sorted/setobject_at";
    }

    // One node detached by position or by object, or moved to the end of a
    // list. What the caller gets back (an object with its reference, or a
    // node) is released: a wrong one shows in the counts.
    const char *detach() {
        const int l = src_.pick(0, 1), mode = src_.pick(0, 6), d = src_.pick(0, 3) ? 1 - l : l;
        llist_node **pl = &lists[l];
        Objs &m = model[l];
        void *o = any_object_();
        const int32_t index = any_index(m.size());
        size_t pos;
        const bool hit = mode < 3 ? at(m, index, &pos) : find(m, o, &pos);
        uint32_t r = hit ? MEMM_OK : MEMM_ERR_INVALID_ARG;
        void *found = mode == 4 ? llist_search_byobject(*pl, o) : nullptr;
        switch (mode) {
        case 0: r = llist_remove_at(pl, index), give_back(hit ? m[pos] : nullptr); break;
        case 1: give_back(llist_getandremove_at(pl, index)); break;
        case 2: give_back(llist_getandunlink_at(pl, index)); break;
        case 3: r = llist_delete_byobject(pl, o); break;
        case 4: r = llist_unlink_byobject(pl, o), give_back(found); break;
        case 5: give_back(llist_getandunlink_byobject(pl, o)); break;
        default: r = llist_move_byobject(pl, &lists[d], o); break;
        }
        f_.expect(r == (hit ? MEMM_OK : MEMM_ERR_INVALID_ARG), "detach mode ", mode, ": result ", r);
        if (hit && mode == 6)
            model[d].push_back(o);
        if (hit)
            m.erase(m.begin() + long(pos));
        return "remove/getandremove/getandunlink/delete/unlink/move";
    }

    // Sorting (stable, both comparison shapes) and reversing; a split whose
    // tail is joined again, to either list, at the end or at a position; a
    // copy of one list appended to either list.
    const char *reshape() {
        const int l = src_.pick(0, 1), d = src_.pick(0, 1), mode = src_.pick(0, 5);
        Objs &m = model[l], &dm = model[d];
        int32_t sign = mode == 1 && src_.pick(0, 1) ? -1 : 1;
        if (mode < 2) {
            mode ? llist_sort_ex(&lists[l], &sign, by_key_signed) : llist_sort(&lists[l], by_key);
            if (length(m) >= 2)
                std::stable_sort(m.begin(), m.end(), [&](void *a, void *b) { return sign * by_key(a, b) < 0; });
            return "sort/sort_ex";
        }
        if (mode == 2) {
            f_.expect(llist_reverse(&lists[l]) == MEMM_OK, "reverse");
            std::reverse(m.begin(), m.end());
            return "reverse";
        }
        if (mode == 3) {
            const int32_t index = any_index(m.size());
            const Objs tail_model(m.begin() + long(split_keep(m, index)), m.end());
            m.resize(m.size() - tail_model.size());
            llist_node *tail = llist_split_at(&lists[l], index);
            const int32_t to = any_index(dm.size());
            size_t pos = dm.size();
            const bool at_end = src_.pick(0, 1), ok = at_end ? tail != nullptr : insert_pos(dm, to, &pos);
            const uint32_t r = at_end ? llist_addlist(&lists[d], tail) : llist_insert_list_at(&lists[d], tail, to);
            // A null tail is joined anywhere, as nothing; a refused one is
            // released (what its nodes held shows in the counts).
            f_.expect(r == (ok || (!at_end && !tail) ? MEMM_OK : MEMM_ERR_INVALID_ARG), "addlist/insert_list_at ", r);
            if (ok)
                dm.insert(dm.begin() + long(pos), tail_model.begin(), tail_model.end());
            else
                llist_free_plist(&tail);
            return "split_at + addlist/insert_list_at";
        }
        // A copy of one list appended to either list: by clone up to the
        // length, all or nothing (without nodes for the whole copy the
        // destination list is released); by refalloc to the real end, as many
        // nodes as there are. A copy onto itself copies the list as it was.
        const Objs copied(m.begin(),
                          m.begin() + long(mode == 5 ? length(m) : std::min<size_t>(m.size(), free_nodes())));
        const bool room = copied.size() <= free_nodes();
        const uint32_t r = mode == 5 ? llist_clone(&lists[d], lists[l], nodes_)
                                     : llist_addlist(&lists[d], llist_refalloc(lists[l], nodes_));
        const uint32_t want = !room ? MEMM_ERR_NO_MEMORY : copied.empty() && mode == 4 ? MEMM_ERR_INVALID_ARG : MEMM_OK;
        f_.expect(r == want, "clone/refalloc: result ", r, ", expected ", want);
        dm.insert(dm.end(), copied.begin(), copied.end());
        if (!room)
            dm.clear();
        return "clone/refalloc";
    }
};

} // namespace memm_model

#endif
