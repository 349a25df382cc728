// Detaching a node from a list, by position or by object, and what happens to
// it afterwards: delete (node and one object reference released), remove
// (node released, object handed back), unlink (node handed out or left to
// its holder), and the getand / pop / move operations built on unlink.
//
// Unhooking node B:   prev.next (or *plist) = B.next;  B.next = null
//   [A] -> [B] -> [C]   =>   [A] -> [C]   and   [B] alone
// B.next is cleared before anything else happens to B, so a release of B
// never cascades into the rest of the list.
#include "llist_private.h"

using namespace llist_detail;
using memm_detail::PoolLock;

namespace {

// Step 1 of every detach: a list address, and a first node (if any) that is a
// pool object.
bool detachable(llist_node **plist) {
    if (!plist)
        return false;
    llist_node *first = *plist;
    return !first || memm_detail::loc_isvalidobj(first);
}

// The link that holds the node at index, or null when the index, once
// resolved, is negative or at or beyond the end.
Link find_link_at(llist_node **plist, int32_t index) {
    int64_t pos = index;
    if (pos < 0)
        pos += loc_llist_getlength(*plist);
    if (pos < 0)
        return nullptr;
    Link link = list_link(plist);
    for (;;) {
        llist_node *node = link_node(link);
        if (!node)
            return nullptr;
        if (pos == 0)
            return link;
        link = next_link(node);
        pos--;
    }
}

// The link that holds the first node whose linked_obj is obj, or null.
Link find_link_byobject(llist_node **plist, void *obj) {
    Link link = list_link(plist);
    while (llist_node *node = link_node(link)) {
        if (node_obj(node) == obj)
            return link;
        link = next_link(node);
    }
    return nullptr;
}

uint32_t unhook_and_finish(Link link, DetachMode mode, llist_node **out) {
    llist_node *node = link_node(link);
    link_set(link, node_next(node));
    node_set_next(node, nullptr);
    switch (mode) {
    case DetachMode::kDelete:
        return memm_free_nolock(node);
    case DetachMode::kRemove:
        node_set_obj(node, nullptr);
        return memm_free_nolock(node);
    case DetachMode::kUnlink:
        break;
    }
    if (out)
        *out = node;
    return MEMM_OK;
}

// Releases a detached node alone and hands its object, with the reference the
// node held, to the caller.
void *take_object(llist_node *node) {
    void *obj = node_obj(node);
    node_set_obj(node, nullptr);
    memm_free_nolock(node);
    return obj;
}

void *getandremove_at(llist_node **plist, int32_t index) {
    llist_node *node = nullptr;
    if (loc_llist_detach_at(plist, index, DetachMode::kUnlink, &node) != MEMM_OK)
        return nullptr;
    return take_object(node);
}

} // namespace

namespace llist_detail {

uint32_t loc_llist_detach_at(llist_node **plist, int32_t index, DetachMode mode, llist_node **out) {
    if (!detachable(plist))
        return MEMM_ERR_INVALID_ARG;
    Link link = find_link_at(plist, index);
    if (!link)
        return MEMM_ERR_INVALID_ARG;
    return unhook_and_finish(link, mode, out);
}

uint32_t loc_llist_detach_byobject(llist_node **plist, void *obj, DetachMode mode, llist_node **out) {
    if (!detachable(plist))
        return MEMM_ERR_INVALID_ARG;
    Link link = find_link_byobject(plist, obj);
    if (!link)
        return MEMM_ERR_INVALID_ARG;
    return unhook_and_finish(link, mode, out);
}

} // namespace llist_detail

extern "C" {

uint32_t llist_delete_at(llist_node **plist, int32_t index) {
    PoolLock lock("llist_delete_at");
    return loc_llist_detach_at(plist, index, DetachMode::kDelete, nullptr);
}

uint32_t llist_delete_byobject(llist_node **plist, void *obj) {
    PoolLock lock("llist_delete_byobject");
    return loc_llist_detach_byobject(plist, obj, DetachMode::kDelete, nullptr);
}

uint32_t llist_remove_at(llist_node **plist, int32_t index) {
    PoolLock lock("llist_remove_at");
    return loc_llist_detach_at(plist, index, DetachMode::kRemove, nullptr);
}

uint32_t llist_remove_byobject(llist_node **plist, void *obj) {
    PoolLock lock("llist_remove_byobject");
    return loc_llist_detach_byobject(plist, obj, DetachMode::kRemove, nullptr);
}

uint32_t llist_unlink_at(llist_node **plist, int32_t index) {
    PoolLock lock("llist_unlink_at");
    return loc_llist_detach_at(plist, index, DetachMode::kUnlink, nullptr);
}

uint32_t llist_unlink_byobject(llist_node **plist, void *obj) {
    PoolLock lock("llist_unlink_byobject");
    return loc_llist_detach_byobject(plist, obj, DetachMode::kUnlink, nullptr);
}

uint32_t llist_move_byobject(llist_node **psrc, llist_node **pdst, void *obj) {
    PoolLock lock("llist_move_byobject");
    // Checked first: a node detached with nowhere to go would be lost.
    if (!pdst)
        return MEMM_ERR_INVALID_ARG;
    llist_node *node = nullptr;
    uint32_t r = loc_llist_detach_byobject(psrc, obj, DetachMode::kUnlink, &node);
    if (r != MEMM_OK)
        return r;
    return loc_llist_append_chain(pdst, node);
}

void *llist_getandremove_at(llist_node **plist, int32_t index) {
    PoolLock lock("llist_cut_at");
    return getandremove_at(plist, index);
}

void *llist_popobject(llist_node **plist) {
    PoolLock lock("llist_cut_at");
    return getandremove_at(plist, 0);
}

llist_node *llist_getandunlink_at(llist_node **plist, int32_t index) {
    PoolLock lock("llist_cut_at");
    llist_node *node = nullptr;
    loc_llist_detach_at(plist, index, DetachMode::kUnlink, &node);
    return node;
}

llist_node *llist_getandunlink_byobject(llist_node **plist, void *obj) {
    PoolLock lock("llist_cut_byobject");
    llist_node *node = nullptr;
    loc_llist_detach_byobject(plist, obj, DetachMode::kUnlink, &node);
    return node;
}

} // extern "C"
