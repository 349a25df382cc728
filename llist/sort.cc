// Ordering a list: the stable insertion sort (both comparison shapes) and the
// ordered insert, which share one step: put a lone node into a chain before
// the first node whose object it compares below.
//
//   sorted: [1] -> [3] -> [3'] -> [5]      insert [3"]:
//   cmp(3", 1) >= 0, cmp(3", 3) >= 0, cmp(3", 3') >= 0, cmp(3", 5) < 0
//   sorted: [1] -> [3] -> [3'] -> [3"] -> [5]
//
// A node goes after every node it compares equal to, so taking the nodes off
// the unsorted list front first keeps equal objects in their order (stable).
// Nodes are relinked, never allocated; the comparison sees objects only.
#include "llist_private.h"

using namespace llist_detail;
using memm_detail::PoolLock;

namespace {

// The two comparison shapes behind one call.
struct Order {
    llist_compare_fn cmp = nullptr;
    llist_compare_ex_fn cmp_ex = nullptr;
    void *ctx = nullptr;

    bool before(void *a, void *b) const { return (cmp ? cmp(a, b) : cmp_ex(ctx, a, b)) < 0; }
};

// Links the lone `node` into the chain at `chain_link` before the first node
// whose object it compares below, or at the end.
void insert_in_order(Link chain_link, llist_node *node, const Order &order) {
    void *obj = node_obj(node);
    Link link = chain_link;
    llist_node *at;
    while ((at = link_node(link)) != nullptr && !order.before(obj, node_obj(at)))
        link = next_link(at);
    node_set_next(node, at);
    link_set(link, node);
}

uint32_t sort(llist_node **plist, const Order &order) {
    PoolLock lock("llist_sort");
    if (loc_llist_getlength(*plist) < 2)
        return MEMM_OK;
    llist_node *sorted = nullptr;
    llist_node *rest = *plist;
    while (rest) {
        llist_node *node = rest;
        rest = node_next(node); // insert_in_order sets node's next anew
        insert_in_order(list_link(&sorted), node, order);
    }
    *plist = sorted;
    return MEMM_OK;
}

} // namespace

extern "C" {

uint32_t llist_sort(llist_node **plist, llist_compare_fn cmp) {
    if (!plist || !cmp)
        return MEMM_ERR_INVALID_ARG;
    Order order;
    order.cmp = cmp;
    return sort(plist, order);
}

uint32_t llist_sort_ex(llist_node **plist, void *ctx, llist_compare_ex_fn cmp) {
    if (!plist || !cmp)
        return MEMM_ERR_INVALID_ARG;
    Order order;
    order.cmp_ex = cmp;
    order.ctx = ctx;
    return sort(plist, order);
}

uint32_t llist_insert_sorted(llist_node **plist, void *obj, uint32_t pool, llist_compare_fn cmp) {
    void *caller = __builtin_return_address(0);
    PoolLock lock("llist_insert_sorted");
    // Nothing to report failures with: without a list or an order, add
    // nothing rather than take over a reference that goes nowhere.
    if (!plist || !cmp)
        return MEMM_OK;
    llist_node *node = loc_llist_new_node(pool, obj, caller);
    if (!node)
        return MEMM_OK;
    Order order;
    order.cmp = cmp;
    insert_in_order(list_link(plist), node, order);
    return MEMM_OK;
}

} // extern "C"
