// Reshaping lists by relinking: reverse, split, and joining a whole chain
// into a list. Nothing here allocates or releases a node or changes a
// reference; the nodes only change lists.
//
// Splitting (A, B, C, D) at 1 (or -3): cut after the node at index - 1
//   *plist --> [A] -X-> [B] -> [C] -> [D]      returns (B, C, D), keeps (A)
#include "llist_private.h"

using namespace llist_detail;
using memm_detail::PoolLock;

extern "C" {

uint32_t llist_reverse(llist_node **plist) {
    PoolLock lock("llist_reverse");
    if (!plist)
        return MEMM_ERR_INVALID_ARG;
    llist_node *reversed = nullptr;
    llist_node *rest = *plist;
    while (rest) {
        llist_node *node = rest;
        rest = node_next(node);
        node_set_next(node, reversed);
        reversed = node;
    }
    *plist = reversed;
    return MEMM_OK;
}

llist_node *llist_split_at(llist_node **plist, int32_t index) {
    PoolLock lock("llist_split_at");
    if (!plist)
        return nullptr;
    llist_node *first = *plist;
    if (index == 0) {
        *plist = nullptr;
        return first;
    }
    // The length walk trusts every node: count it only for a valid first node.
    if (first && !memm_detail::loc_isvalidobj(first))
        return nullptr;
    if (int64_t(index) + loc_llist_getlength(first) == 0) {
        *plist = nullptr;
        return first;
    }
    // The node that stays last, at index - 1 (a negative position has the
    // length added once). No list is long enough for INT32_MIN to reach it.
    if (index == INT32_MIN)
        return nullptr;
    llist_node *last = loc_llist_get_at(first, index - 1);
    if (!last)
        return nullptr;
    llist_node *tail = node_next(last);
    node_set_next(last, nullptr);
    return tail;
}

uint32_t llist_addlist(llist_node **plist, llist_node *list) {
    PoolLock lock("llist_add");
    return loc_llist_append_chain(plist, list);
}

uint32_t llist_insert_list_at(llist_node **plist, llist_node *list, int32_t index) {
    PoolLock lock("llist_insert_list_at");
    return loc_llist_insert_chain_at(plist, list, index);
}

} // extern "C"
