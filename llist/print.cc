// The node printer that llist_initpool installs as a node pool's print2 hook
// when the caller gives neither print nor print2. With details, a listing
// shows a node as its own object line followed by
//
//   , next= :<object line of next>, linked_obj= :<object line of linked_obj>
//
// The object lines end with their own "\n"; a null word prints the null line.
#include "llist_private.h"

namespace llist_detail {

// Runs under the lock of the listing that calls it.
void loc_llist_print_node(void *obj, memm_print_fn print) {
    if (!obj || !print)
        return;
    llist_node *node = static_cast<llist_node *>(obj);
    print(", next= :");
    memm_printobject2(node_next(node), 0, print);
    print(", linked_obj= :");
    memm_printobject2(node_obj(node), 0, print);
}

} // namespace llist_detail
