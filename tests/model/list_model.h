// The model of a list that the random list test and the fuzzer share: a
// vector of the linked objects, the rules that place and find a node in it,
// and a check of a list against it. Nodes are read with memcpy, as node
// pools may be only 4-byte aligned.
#ifndef MEMM_MODEL_LIST_MODEL_H
#define MEMM_MODEL_LIST_MODEL_H

#include <string.h>

#include <algorithm>
#include <vector>

#include "failures.h"
#include "llist.h"
#include "pool_model.h"

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

} // namespace memm_model

#endif
