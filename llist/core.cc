// List nodes: node pools, the node destructor, adding, positional insert and
// releasing a whole list.
//
// Ownership in one sentence: a node holds one reference of its linked object,
// and the node destructor (the node pool's free_ex hook) gives that reference
// back, after releasing the nodes that follow it:
//
//   memm_free(A):  A -> B -> C        B.next = null, free(B) -> B's object released
//                                     C.next = null, free(C) -> C's object released
//                                     then A's object released, A's slot freed
//
// Each follower is cut off before its release, so its own destructor releases
// only its object: the cascade is a loop, never a recursion along the list.
#include "llist_private.h"

using namespace llist_detail;
using memm_detail::PoolLock;

namespace llist_detail {

// Runs as free_ex when a node's last reference is released (lock held by the
// releaser). Stops at the first failing release and returns its result: the
// node itself then stays allocated with its object, and the node whose release
// failed and those behind it stay allocated, cut off.
uint32_t loc_llist_node_destructor(void *obj) {
    llist_node *node = static_cast<llist_node *>(obj);
    llist_node *follower = node_next(node);
    // Cleared first so that a node kept alive by a failure below never points
    // at the followers released before it.
    node_set_next(node, nullptr);
    while (follower) {
        llist_node *after = node_next(follower);
        node_set_next(follower, nullptr);
        uint32_t r = memm_free_nolock(follower);
        if (r != MEMM_OK)
            return r;
        follower = after;
    }
    return memm_free_nolock(node_obj(node));
}

llist_node *loc_llist_new_node(uint32_t pool, void *obj, void *caller) {
    // Only a node pool gives nodes: another pool's objects may be smaller
    // than a node, and its release hook would not give the linked object's
    // reference back. Extension pools carry their root's hooks.
    const memm_pooldesc *p = memm_detail::loc_pool(pool);
    if (!p || p->options.free_ex != loc_llist_node_destructor ||
        p->slotsize < memm_detail::kHdrSize + sizeof(llist_node))
        return nullptr;
    void *mem = memm_calloc_nolock(pool);
    if (!mem)
        return nullptr;
    memm_detail::hdr_set_allocfrom(memm_detail::obj_to_slot(mem), caller);
    llist_node *node = static_cast<llist_node *>(mem);
    node_set_obj(node, obj); // next is null: the slot comes zero-filled
    return node;
}

uint32_t loc_llist_append_chain(llist_node **plist, llist_node *chain) {
    if (!plist || !chain)
        return MEMM_ERR_INVALID_ARG;
    Link link = list_link(plist);
    while (llist_node *node = link_node(link))
        link = next_link(node);
    link_set(link, chain);
    return MEMM_OK;
}

uint32_t loc_llist_addobject(llist_node **plist, void *obj, uint32_t pool, void *caller) {
    llist_node *node = loc_llist_new_node(pool, obj, caller);
    if (!node)
        return MEMM_ERR_NO_MEMORY;
    uint32_t r = loc_llist_append_chain(plist, node);
    if (r != MEMM_OK)
        memm_free_nolock(node); // the reference handed over goes with it
    return r;
}

uint32_t loc_llist_insert_chain_at(llist_node **plist, llist_node *chain, int32_t index) {
    if (!chain)
        return MEMM_OK;
    if (!plist)
        return MEMM_ERR_INVALID_ARG;
    int64_t remaining = index;
    if (remaining < 0)
        remaining += loc_llist_getlength(*plist);
    Link link = list_link(plist);
    llist_node *node;
    while ((node = link_node(link)) != nullptr && remaining > 0) {
        link = next_link(node);
        remaining--;
    }
    // At the end only an exact count fits; before the end a count still
    // negative (an index below -length) lands at the front.
    if (!node && remaining != 0)
        return MEMM_ERR_INVALID_ARG;
    node_set_next(chain_last(chain), node);
    link_set(link, chain);
    return MEMM_OK;
}

} // namespace llist_detail

namespace {

uint32_t addref_nolock(llist_node **plist, void *obj, uint32_t pool, void *caller) {
    void *ref = memm_refalloc_nolock(obj);
    uint32_t r = loc_llist_addobject(plist, ref, pool, caller);
    // Without a node nobody holds the reference just taken: give it back.
    if (r == MEMM_ERR_NO_MEMORY && ref)
        memm_free_nolock(ref);
    return r;
}

uint32_t insert_at(llist_node **plist, void *obj, int32_t index, uint32_t pool, void *caller) {
    PoolLock lock("llist_insert_at");
    if (!plist)
        return MEMM_ERR_INVALID_ARG;
    llist_node *node = loc_llist_new_node(pool, obj, caller);
    if (!node)
        return MEMM_ERR_NO_MEMORY;
    uint32_t r = loc_llist_insert_chain_at(plist, node, index);
    if (r != MEMM_OK) {
        // The reference of obj stays with the caller: release the node alone.
        node_set_obj(node, nullptr);
        memm_free_nolock(node);
    }
    return r;
}

} // namespace

extern "C" {

uint32_t llist_initpool(const char *name, int32_t count, int32_t objsize, const memm_pool_options *options) {
    void *caller = __builtin_return_address(0);
    if (objsize < int32_t(sizeof(llist_node)))
        return MEMM_INVALID_POOL;
    memm_pool_options opts = {};
    if (options)
        opts = *options;
    if (!opts.print && !opts.print2)
        opts.print2 = loc_llist_print_node;
    opts.free_ex = loc_llist_node_destructor;
    // As memm_initpool, but recording our caller as the pool's creation site.
    PoolLock lock("memm_initpool");
    return memm_detail::loc__initpool(name, count, objsize, &opts, MEMM_INVALID_POOL, caller);
}

uint32_t llist_addobject(llist_node **plist, void *obj, uint32_t pool) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("llist_addobject");
    return loc_llist_addobject(plist, obj, pool, caller);
}

uint32_t llist_addobject_nolock(llist_node **plist, void *obj, uint32_t pool) {
    return loc_llist_addobject(plist, obj, pool, __builtin_return_address(0));
}

uint32_t llist_addref(llist_node **plist, void *obj, uint32_t pool) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("llist_addref");
    return addref_nolock(plist, obj, pool, caller);
}

llist_node *llist_refalloc(llist_node *list, uint32_t pool) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("llist_refalloc");
    llist_node *head = nullptr;
    Link tail = list_link(&head); // appending at a kept tail: one walk in all
    for (llist_node *node = list; node; node = node_next(node)) {
        void *ref = memm_refalloc_nolock(node_obj(node));
        llist_node *copy = loc_llist_new_node(pool, ref, caller);
        if (!copy) {
            if (ref)
                memm_free_nolock(ref);
            continue;
        }
        link_set(tail, copy);
        tail = next_link(copy);
    }
    return head;
}

uint32_t llist_insert_at(llist_node **plist, void *obj, int32_t index, uint32_t pool) {
    return insert_at(plist, obj, index, pool, __builtin_return_address(0));
}

uint32_t llist_pushobject(llist_node **plist, void *obj, uint32_t pool) {
    return insert_at(plist, obj, 0, pool, __builtin_return_address(0));
}

uint32_t llist_free_plist(llist_node **plist) {
    PoolLock lock("llist_free_plist");
    if (!plist)
        return MEMM_ERR_INVALID_ARG;
    uint32_t r = memm_free_nolock(*plist);
    *plist = nullptr;
    return r;
}

} // extern "C"
