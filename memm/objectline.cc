// The object line: what listings and memm_printobject show of one object.
//
//   <poolid>.<name>.<slot index>.0x<object> allocfrom=<caller>[.[<n> refs]\n].[tagged|untagged]\n
//
// followed, with details, by the pool's own print2 (or print) output.
#include <stdio.h>

#include "memm_private.h"

namespace memm_detail {

// Prints the line of the object whose header is `slot`. A released slot
// carries the free marker, whose pool-id bits name no pool holding it, so a
// released object prints as invalid. Lock held.
void loc_printobject(uint8_t *slot, int details, memm_print_fn print) {
    if (!slot) {
        print(" Obj is 0x0: null !!\n");
        return;
    }
    const memm_pooldesc *p = loc_header_pool(slot);
    void *obj = slot_to_obj(slot);
    if (!p) {
        print("\n ?.?.?.0x%08lx: invalid object\n", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(obj)));
        return;
    }
    const uint32_t state = hdr_state(slot);
    print("%d.%s.%d.0x%08lx allocfrom=%p", int(state_poolid(state)), p->name,
          int((slot - p->storage) / p->slotsize), static_cast<unsigned long>(reinterpret_cast<uintptr_t>(obj)),
          hdr_allocfrom(slot));
    if (state >= kRefUnit)
        print(".[%d refs]\n", int((state >> MEMM_STATE_REFS_SHIFT) + 1));
    print((state & MEMM_STATE_TAGGED) ? ".[tagged]\n" : ".[untagged]\n");
    if (!details)
        return;
    if (p->options.print2)
        p->options.print2(obj, print);
    else if (p->options.print)
        p->options.print(obj);
}

} // namespace memm_detail

using namespace memm_detail;

extern "C" {

int memm_printobject2(void *obj, int details, memm_print_fn print) {
    // The result is that of releasing the lock, so no scope guard here.
    loc_lock("memm_printobject");
    if (print)
        loc_printobject(obj ? obj_to_slot(obj) : nullptr, details, print);
    return loc_unlock();
}

int memm_printobject(void *obj, int details) { return memm_printobject2(obj, details, printf); }

} // extern "C"
