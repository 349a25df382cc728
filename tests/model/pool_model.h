// The model of an object pool's chain that the random pool test and the
// fuzzer share: the live objects with their holders and fill byte, checked
// against the pool's counters, walks, indexes and slot states.
#ifndef MEMM_MODEL_POOL_MODEL_H
#define MEMM_MODEL_POOL_MODEL_H

#include <string.h>

#include <map>
#include <vector>

#include "failures.h"
#include "memm.h"

namespace memm_model {

struct Live {
    uint32_t refs; // holders
    uint8_t fill;  // every byte of the object
};
using LiveObjects = std::map<uint8_t *, Live>; // address order, as the walks go

// Sum of a field over a pool's chain.
template <typename F> uint64_t chain_sum(uint32_t root, F field) {
    uint64_t sum = 0;
    for (uint32_t id = root; id; id = memm_get_pool_nolock(id)->next_pool)
        sum += field(memm_get_pool_nolock(id));
    return sum;
}

// Objects in use over a pool's whole chain.
inline uint32_t in_use(uint32_t root) {
    return uint32_t(chain_sum(root, [](const memm_pooldesc *p) { return p->cur_count; }));
}

// Every slot of the chain is free or carries its pool's id, and the free
// slots plus the used ones make up the pool.
inline std::string chain_fault(uint32_t root) {
    for (uint32_t id = root; id; id = memm_get_pool_nolock(id)->next_pool) {
        const memm_pooldesc *p = memm_get_pool_nolock(id);
        uint32_t free_slots = 0;
        for (uint32_t i = 0; i < p->alloc_count; i++) {
            uint32_t state;
            memcpy(&state, p->storage + size_t(i) * p->slotsize, 4);
            if (state == MEMM_STATE_FREE)
                free_slots++;
            else if ((state & MEMM_STATE_POOLID_MASK) != id)
                return str("slot ", i, " of pool ", id, " carries pool id ", state & MEMM_STATE_POOLID_MASK);
        }
        if (free_slots + p->cur_count != p->alloc_count || (p->free_head == nullptr) != (free_slots == 0))
            return str("pool ", id, ": ", free_slots, " free slots, ", p->cur_count, " in use of ", p->alloc_count);
    }
    return "";
}

// Holders, contents, counts, walks, indexes and validity tests agree with
// the model: the chain is walked pool by pool in address order, and every
// live object's chain index leads back to it.
inline std::string objects_fault(uint32_t root, const LiveObjects &model, size_t objsize) {
    int64_t extra = 0;
    for (auto &[obj, l] : model) {
        if (memm_get_refcount(obj) != l.refs)
            return str("object ", static_cast<void *>(obj), " has ", memm_get_refcount(obj), " holders, model ", l.refs);
        for (size_t i = 0; i < objsize; i++)
            if (obj[i] != l.fill)
                return str("object ", static_cast<void *>(obj), " changed under its holder at byte ", i);
        extra += l.refs - 1;
    }
    if (in_use(root) != model.size())
        return str(in_use(root), " objects in use, model ", model.size());
    const int64_t ref_cur = int64_t(chain_sum(root, [](const memm_pooldesc *p) { return uint64_t(p->ref_cur); }));
    if (ref_cur != extra)
        return str("extra references ", ref_cur, ", model ", extra);
    std::vector<void *> expected, walked;
    for (uint32_t id = root; id; id = memm_get_pool_nolock(id)->next_pool)
        for (auto &entry : model)
            if (memm_get_poolid(entry.first) == id)
                expected.push_back(entry.first);
    for (void *o = memm_getfirst(root); o; o = memm_getnext(o))
        walked.push_back(o);
    if (walked != expected)
        return str("the walk gives ", walked.size(), " objects, model ", expected.size(), " (or another order)");
    walked.clear(); // memm_search offers each of them once, in the same order
    memm_search(root, &walked, [](void *o, void *seen) { return static_cast<std::vector<void *> *>(seen)->push_back(o), 0; });
    if (walked != expected)
        return "memm_search offers other objects";
    if (memm_enum_objects(root, [](void *, void *) { return 1; }, nullptr) != model.size())
        return "memm_enum_objects visits another number of objects";
    for (void *o : expected) {
        if (memm_getobject_byindex(root, int32_t(memm_getindex(o))) != o)
            return str("the chain index of ", o, " leads elsewhere");
        if (!memm_isvalidobj(o) || !memm_isvalidobjfrompool(memm_get_poolid(o), o))
            return str("live object ", o, " fails validation");
    }
    return chain_fault(root);
}

} // namespace memm_model

#endif
