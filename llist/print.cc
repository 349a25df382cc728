// The node printer that llist_initpool installs as a node pool's print2 hook
// when the caller gives neither print nor print2.
//
// For now it prints nothing; the entry point exists so that node pools carry
// their print2 hook from the start and listings pick up the node lines as soon
// as the printer is filled in.
#include "llist_private.h"

namespace llist_detail {

void loc_llist_print_node(void *obj, memm_print_fn print) {
    (void)obj;
    (void)print;
}

} // namespace llist_detail
