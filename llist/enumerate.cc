// Walking a list for the objects of one type (a root pool id) or for dynamic
// strings only: the first or second match, the cursor enumerations and the
// callback enumeration.
//
// The cursor is the caller's (count delivered, last object delivered); it
// holds no node, so a step never follows a node released since the last one:
//
//   last still in the list:  the next match after the first node holding it
//   last gone (or null):     the match at position `index` among the matches
//                            now in the list (0-based), counted from the start
//
//   (s1, s2, s3), delivered s1, then s1 deleted:  (s2, s3), index 1 -> s3
#include "dynstr.h"
#include "llist_private.h"

using namespace llist_detail;
using memm_detail::PoolLock;

namespace {

struct Filter {
    uint32_t type;
    bool strings_only;

    bool accepts(void *obj) const {
        if (!obj || type == LLIST_TYPE_NONE)
            return false;
        if (type != LLIST_TYPE_ANY && !memm_instanceof(obj, type))
            return false;
        return !strings_only || dynstr_isdynstring(obj);
    }
};

// From the node in *cursor on, the next object that the filter accepts; with
// `skip`, the first one found is passed over. The matching node goes to
// *cursor; at the end null is returned and *cursor left as it was.
void *find_next(llist_node **cursor, const Filter &filter, bool skip) {
    for (llist_node *node = *cursor; node; node = node_next(node)) {
        void *obj = node_obj(node);
        if (!filter.accepts(obj))
            continue;
        if (skip) {
            skip = false;
            continue;
        }
        *cursor = node;
        return obj;
    }
    return nullptr;
}

llist_node *first_node_holding(llist_node *list, void *obj) {
    for (llist_node *node = list; node; node = node_next(node))
        if (node_obj(node) == obj)
            return node;
    return nullptr;
}

// One cursor step (lock held). A null `last` counts as gone: looking it up
// would find a node with a null linked_obj and resume behind it, after the
// round had ended.
void *enum_step(llist_node *list, const Filter &filter, uint32_t *index, void *last) {
    llist_node *cursor = list;
    void *found;
    if (*index == 0) {
        found = find_next(&cursor, filter, false);
    } else if (llist_node *at = last ? first_node_holding(list, last) : nullptr) {
        cursor = at;
        found = find_next(&cursor, filter, true);
    } else {
        // Each search skips the match the previous one stopped at.
        found = nullptr;
        for (uint32_t i = 0; i < *index; i++)
            if (!(found = find_next(&cursor, filter, true)))
                break;
    }
    if (found)
        ++*index;
    return found;
}

} // namespace

extern "C" {

void *llist_get_bytype(llist_node *list, uint32_t type, int skip) {
    PoolLock lock("llist_get_bytype");
    llist_node *cursor = list;
    return find_next(&cursor, Filter{type, false}, skip != 0);
}

void *llist_enum_bytype_nolock(llist_node *list, uint32_t type, uint32_t *index, void **last) {
    if (!list || !index || !last)
        return nullptr;
    return *last = enum_step(list, Filter{type, false}, index, *last);
}

void *llist_enum_bytype(llist_node *list, uint32_t type, uint32_t *index, void **last) {
    PoolLock lock("llist_enum_bytype");
    return llist_enum_bytype_nolock(list, type, index, last);
}

dynstr *llist_enum_dynstr(llist_node *list, uint32_t *index, dynstr **last) {
    PoolLock lock("llist_enum_dynstr");
    if (!list || !index || !last)
        return nullptr;
    return *last = static_cast<dynstr *>(enum_step(list, Filter{LLIST_TYPE_ANY, true}, index, *last));
}

// The lock is held only while one node is read, never during cb: this is one
// of the two places where the library lowers its lock. Callbacks may be long
// (other threads must not wait for them) and may change the list, deleting
// the current node included; the successor is read before cb runs and is
// checked to be a live pool object before it is read in turn.
uint32_t llist_enumcb_bytype(llist_node *list, uint32_t type, llist_enum_fn cb, void *ctx) {
    if (!cb)
        return 0;
    uint32_t accepted = 0;
    llist_node *node = list;
    for (;;) {
        void *obj = nullptr;
        {
            PoolLock lock("llist_enumcb_bytype");
            if (memm_detail::loc_isvalidobj(node)) {
                obj = node_obj(node);
                node = node_next(node);
            }
        }
        if (!obj)
            return accepted;
        if (memm_instanceof(obj, type)) {
            if (!cb(obj, ctx))
                return accepted;
            accepted++;
        }
    }
}

} // extern "C"
