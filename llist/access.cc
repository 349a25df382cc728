// Reading a list: positional access, replacing an object, searches and the
// two lengths.
//
// Two notions of "end" meet here. The length stops at the first node whose
// linked_obj is null (and negative indexes use it), while walks by position
// and the searches follow `next` to the real end:
//
//   [A] -> [null] -> [B]     length 1;  get_at(2) = B;  get_at(-1) = A
//
// Nothing is cached: every call walks from the first node.
#include "llist_private.h"

using namespace llist_detail;
using memm_detail::PoolLock;

namespace llist_detail {

uint32_t loc_llist_getlength(llist_node *list) {
    uint32_t len = 0;
    for (llist_node *node = list; node && node_obj(node); node = node_next(node))
        len++;
    return len;
}

llist_node *loc_llist_get_at(llist_node *list, int32_t index) {
    if (!memm_detail::loc_isvalidobj(list))
        return nullptr;
    int64_t pos = index;
    if (pos < 0)
        pos += loc_llist_getlength(list);
    if (pos < 0)
        return nullptr;
    llist_node *node = list;
    while (node && pos-- > 0)
        node = node_next(node);
    return node;
}

} // namespace llist_detail

namespace {

llist_node *valid_or_null(llist_node *node) { return memm_detail::loc_isvalidobj(node) ? node : nullptr; }

int same_object(void *obj, void *key) { return obj == key; }

void *searchobject(llist_node *list, void *key, llist_match_fn match) {
    if (!match)
        return nullptr;
    for (llist_node *node = list; node; node = node_next(node)) {
        void *obj = node_obj(node);
        if (match(obj, key))
            return obj;
    }
    return nullptr;
}

} // namespace

extern "C" {

llist_node *llist_get_first(llist_node *list) {
    PoolLock lock("llist_get_first");
    return valid_or_null(list);
}

llist_node *llist_get_next(llist_node *node) {
    PoolLock lock("llist_get_next");
    return valid_or_null(node) ? node_next(node) : nullptr;
}

llist_node *llist_get_at(llist_node *list, int32_t index) {
    PoolLock lock("llist_get_at");
    return loc_llist_get_at(list, index);
}

llist_node *llist_get_at_nolock(llist_node *list, int32_t index) { return loc_llist_get_at(list, index); }

void *llist_getobject_at(llist_node *list, int32_t index) {
    PoolLock lock("llist_getobject_at");
    llist_node *node = loc_llist_get_at(list, index);
    return node ? node_obj(node) : nullptr;
}

void *llist_getobject_this(llist_node *node) {
    PoolLock lock("llist_getobject_this");
    return valid_or_null(node) ? node_obj(node) : nullptr;
}

uint32_t llist_setobject_at(llist_node *list, void *obj, int32_t index) {
    PoolLock lock("llist_setobject_at");
    llist_node *node = loc_llist_get_at(list, index);
    if (!node)
        return MEMM_ERR_INVALID_ARG;
    memm_free_nolock(node_obj(node));
    node_set_obj(node, obj);
    return MEMM_OK;
}

void *llist_searchobject(llist_node *list, void *key, llist_match_fn match) {
    PoolLock lock("llist_searchobject");
    return searchobject(list, key, match);
}

llist_node *llist_search_byobject(llist_node *list, void *obj) {
    PoolLock lock("llist_search_byobject");
    for (llist_node *node = list; node; node = node_next(node))
        if (node_obj(node) == obj)
            return node;
    return nullptr;
}

uint32_t llist_getindex_byobject(llist_node *list, void *obj) {
    PoolLock lock("llist_getindex_byobject");
    uint32_t index = 0;
    for (llist_node *node = list; node; node = node_next(node), index++)
        if (node_obj(node) == obj)
            return index;
    return 0xFFFFFFFFu;
}

int llist_inlist(llist_node *list, void *obj) {
    PoolLock lock("llist_searchobject");
    return searchobject(list, obj, same_object) != nullptr;
}

uint32_t llist_getlength(llist_node *list) {
    PoolLock lock("llist_getlength");
    return loc_llist_getlength(list);
}

uint32_t llist_getlength_nolock(llist_node *list) { return loc_llist_getlength(list); }

uint32_t llist_getreallength(llist_node *list) {
    PoolLock lock("llist_realgetlength");
    uint32_t len = 0;
    for (llist_node *node = list; memm_detail::loc_isvalidobj(node); node = node_next(node))
        len++;
    return len;
}

} // extern "C"
