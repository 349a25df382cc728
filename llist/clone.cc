// Cloning: appending to a list a copy by reference of another, all or
// nothing. Each copied node holds one more reference of its object; when the
// node pool runs dry, the whole destination list is released and the caller's
// variable cleared, so no half copy is left behind.
//
// The copy is built as a chain of its own, with a kept tail, and appended to
// the destination once at the end: one walk of each list, and a source that
// is the destination itself is copied as it was before the call.
#include "llist_private.h"

using namespace llist_detail;
using memm_detail::PoolLock;

extern "C" {

uint32_t llist_clone(llist_node **pdst, llist_node *src, uint32_t pool) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("llist_refalloc");
    if (!pdst)
        return MEMM_ERR_INVALID_ARG;
    llist_node *copy = nullptr;
    Link tail = list_link(&copy);
    for (llist_node *node = src; node && node_obj(node); node = node_next(node)) {
        void *ref = memm_refalloc_nolock(node_obj(node));
        llist_node *added = loc_llist_new_node(pool, ref, caller);
        if (!added) {
            // No node holds the reference just taken: give it back, then drop
            // the copy so far and the destination with all its nodes.
            if (ref)
                memm_free_nolock(ref);
            loc_llist_append_chain(pdst, copy);
            memm_free_nolock(*pdst);
            *pdst = nullptr;
            return MEMM_ERR_NO_MEMORY;
        }
        link_set(tail, added);
        tail = next_link(added);
    }
    loc_llist_append_chain(pdst, copy); // a null copy appends nothing
    return MEMM_OK;
}

} // extern "C"
