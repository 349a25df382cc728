// Tagging: marking every object that exists now, so that later listings can
// show only what was created since (untagged) or only what was there (tagged).
#include "memm_private.h"

namespace memm_detail {

namespace {

int loc_tag_object(void *obj, void *tag_ptr) {
    uint8_t *slot = obj_to_slot(obj);
    const uint32_t state = hdr_state(slot);
    hdr_set_state(slot, *static_cast<int *>(tag_ptr) ? state | MEMM_STATE_TAGGED : state & ~MEMM_STATE_TAGGED);
    return 1;
}

} // namespace

} // namespace memm_detail

using namespace memm_detail;

extern "C" {

int memm_tag_objects(const char *prefix, int tag) {
    // The result is that of releasing the lock, so no scope guard here.
    loc_lock("memm_tag_objects");
    for (uint32_t id = 0; id < loc_pool_count(); id++) {
        const memm_pooldesc *p = loc_pool(id);
        if (!p || !p->name || !loc_prefix_selects(prefix, p->name))
            continue;
        // The whole chain from here: an extension pool bears its root's name,
        // so it is walked with its root and again on its own turn.
        const uint32_t count = loc_enum_objects(id, loc_tag_object, &tag, false);
        loc_log("%stagged %d object(s) in pool %s\r\n", tag ? "" : "un", int(count), p->name);
    }
    return loc_unlock();
}

void memm_handle_tag_objects(const char *prefix, int tag, uint32_t number, const char *reason) {
    // One hold for both steps: the dump shows the pools as tagged.
    PoolLock lock("memm_handle_tag_objects");
    memm_tag_objects(prefix, tag);
    if (reason && strcmp(reason, MEMM_REASON_TAGGING) == 0)
        loc_memm_dump_stats(prefix, number, reason, "Tagging done using memm_handle_tag_objects.");
}

} // extern "C"
