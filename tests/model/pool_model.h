// The model of an object pool's chain that the random pool test and the
// fuzzer share: the live objects with their holders, tag mark and fill
// byte, checked against the pool's counters, walks and indexes. The slot
// states are the library's own integrity check's, which its users run too.
#ifndef MEMM_MODEL_POOL_MODEL_H
#define MEMM_MODEL_POOL_MODEL_H

#include <string.h>

#include <map>
#include <vector>

#include "failures.h"
#include "memm.h"

namespace memm_model {

struct Live {
    uint32_t refs;       // holders
    uint8_t fill;        // every byte of the object
    bool tagged = false; // the tag mark, which references leave alone
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

// Holders, tag marks, contents, counts, walks, indexes and validity tests
// agree with the model: the chain is walked pool by pool in address order,
// and every live object's chain index leads back to it.
inline std::string objects_fault(uint32_t root, const LiveObjects &model, size_t objsize) {
    int64_t extra = 0;
    for (auto &[obj, l] : model) {
        uint32_t state;
        memcpy(&state, obj - MEMM_OBJHDR_SIZE, 4);
        if (memm_get_refcount(obj) != l.refs || ((state & MEMM_STATE_TAGGED) != 0) != l.tagged)
            return str("object ", static_cast<void *>(obj), " has ", memm_get_refcount(obj), " holders, model ", l.refs,
                       " (or another tag mark)");
        for (size_t i = 0; i < objsize; i++)
            if (obj[i] != l.fill)
                return str("object ", static_cast<void *>(obj), " differs from the model at byte ", i);
        extra += l.refs - 1;
    }
    const int64_t ref_cur = int64_t(chain_sum(root, [](const memm_pooldesc *p) { return uint64_t(p->ref_cur); }));
    if (in_use(root) != model.size() || ref_cur != extra)
        return str(in_use(root), " objects in use, ", ref_cur, " extra references, model ", model.size(), ", ", extra);
    std::vector<void *> expected, walked, searched;
    for (uint32_t id = root; id; id = memm_get_pool_nolock(id)->next_pool)
        for (auto &entry : model)
            if (memm_get_poolid(entry.first) == id)
                expected.push_back(entry.first);
    for (void *o = memm_getfirst(root); o; o = memm_getnext(o))
        walked.push_back(o);
    // memm_search offers each of them once, in the same order.
    memm_search(root, &searched, [](void *o, void *v) { return static_cast<decltype(&searched)>(v)->push_back(o), 0; });
    if (walked != expected || searched != expected ||
        memm_enum_objects(root, [](void *, void *) { return 1; }, nullptr) != model.size())
        return str("the walks give ", walked.size(), " and ", searched.size(), " objects, model ", expected.size(),
                   " (or another order)");
    for (void *o : expected) // each one's chain index leads back to it, and it passes validation
        if (memm_getobject_byindex(root, int32_t(memm_getindex(o))) != o || !memm_isvalidobj(o) ||
            !memm_isvalidobjfrompool(memm_get_poolid(o), o))
            return str("live object ", o, " has another chain index or fails validation");
    return "";
}

} // namespace memm_model

#endif
