// Adding items to string lists, and the building operations that copy or
// share whole lists: from an array, clone, refalloc.
#include "strlist_private.h"

using dynstr_detail::loc_isdynstring;
using dynstr_detail::set_record_allocfrom;
using memm_detail::PoolLock;

namespace strlist_detail {

uint32_t loc_strlist_append(llist_node **plist, dynstr *d, uint32_t nodepool, void *caller) {
    if (!d)
        return MEMM_ERR_NO_MEMORY;
    set_record_allocfrom(d, caller);
    const uint32_t r = llist_detail::loc_llist_addobject(plist, d, nodepool, caller);
    // Without a node the list never took the record: nobody else holds it.
    if (r == MEMM_ERR_NO_MEMORY)
        memm_free_nolock(d);
    return r;
}

bool ListBuilder::append(dynstr *d) {
    if (!d)
        return false;
    set_record_allocfrom(d, caller_);
    llist_node *node = llist_detail::loc_llist_new_node(nodepool_, d, caller_);
    if (!node) {
        memm_free_nolock(d);
        return false;
    }
    if (tail_)
        llist_detail::node_set_next(tail_, node);
    else
        head_ = node;
    tail_ = node;
    return true;
}

void ListBuilder::discard() {
    memm_free_nolock(head_); // the node destructor releases the whole chain
    head_ = tail_ = nullptr;
}

} // namespace strlist_detail

using namespace strlist_detail;

namespace {

// Hands the item that `make` builds (lock held) to the list; a null plist is
// refused before anything is made.
template <typename Make>
uint32_t add_made(const char *reason, llist_node **plist, uint32_t nodepool, void *caller, Make make) {
    PoolLock lock(reason);
    return plist ? loc_strlist_append(plist, make(), nodepool, caller) : MEMM_ERR_INVALID_ARG;
}

uint32_t add_uint32(const char *reason, llist_node **plist, uint32_t v, uint32_t nodepool, uint32_t strpool,
                    void *caller) {
    return add_made(reason, plist, nodepool, caller, [&] { return dynstr_fromuint32(strpool, v); });
}

} // namespace

extern "C" {

uint32_t strlist_addstring_nolock(llist_node **plist, const char *s, uint32_t nodepool, uint32_t strpool) {
    if (!plist)
        return MEMM_ERR_INVALID_ARG;
    return loc_strlist_append(plist, dynstr_fromstring_nolock(strpool, s), nodepool, __builtin_return_address(0));
}

uint32_t strlist_addstring(llist_node **plist, const char *s, uint32_t nodepool, uint32_t strpool) {
    return add_made("strlist_addstring", plist, nodepool, __builtin_return_address(0),
                    [&] { return dynstr_fromstring_nolock(strpool, s); });
}

uint32_t strlist_addliteral(llist_node **plist, const char *literal, uint32_t nodepool, uint32_t strpool) {
    return add_made("strlist_addliteral", plist, nodepool, __builtin_return_address(0),
                    [&] { return dynstr_fromliteral_nolock(strpool, literal); });
}

uint32_t strlist_adduint32(llist_node **plist, uint32_t v, uint32_t nodepool, uint32_t strpool) {
    return add_uint32("strlist_adduint32", plist, v, nodepool, strpool, __builtin_return_address(0));
}

uint32_t strlist_addulong(llist_node **plist, uint32_t v, uint32_t nodepool, uint32_t strpool) {
    return add_uint32("strlist_addulong", plist, v, nodepool, strpool, __builtin_return_address(0));
}

uint32_t strlist_adddynstr(llist_node **plist, dynstr *d, uint32_t nodepool) {
    return llist_addobject(plist, d, nodepool);
}

uint32_t strlist_addref(llist_node **plist, dynstr *d, uint32_t nodepool) { return llist_addref(plist, d, nodepool); }

llist_node *strlist_fromstringarr(const char *const *arr, uint32_t nodepool, uint32_t strpool) {
    ListBuilder out(nodepool, __builtin_return_address(0));
    PoolLock lock("strlist_fromstringarr");
    for (; arr && *arr; arr++)
        out.append(dynstr_fromstring_nolock(strpool, *arr));
    return out.list();
}

// Walks the first strlist_getlength nodes, as reading them by position
// would, but in one pass.
llist_node *strlist_clone(llist_node *list, uint32_t nodepool, uint32_t strpool) {
    ListBuilder out(nodepool, __builtin_return_address(0));
    const uint32_t length = strlist_getlength(list);
    PoolLock lock("strlist_clone");
    llist_node *node = list;
    for (uint32_t i = 0; i < length && memm_detail::loc_isvalidobj(node); i++, node = llist_detail::node_next(node)) {
        void *obj = llist_detail::node_obj(node);
        // A plain pointer into a buffer is read before the new record's
        // placement may collect, so the source text cannot move under it.
        const char *text = loc_isdynstring(obj) ? dynstr_getstring_nolock(static_cast<dynstr *>(obj)) : "";
        out.append(dynstr_fromstring_nolock(strpool, text));
    }
    return out.list();
}

llist_node *strlist_refalloc(llist_node *list, uint32_t nodepool) { return llist_refalloc(list, nodepool); }

} // extern "C"
