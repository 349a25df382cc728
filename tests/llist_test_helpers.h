// Shared helpers of the llist_*_test.cc files: an object pool whose release
// hook counts releases and can be told to fail, and the list readers of the
// shared model.
#ifndef LLIST_TEST_HELPERS_H
#define LLIST_TEST_HELPERS_H

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <string.h>

#include <set>
#include <vector>

#include "llist.h"
#include "memm.h"
#include "model/list_model.h"
#include "syslog_capture.h"

namespace llist_test {

using memm_model::in_use;
using memm_model::next_of;
using memm_model::nodes_of;
using memm_model::obj_of;
using memm_model::objects_of;
using memm_model::Objs;

// Final releases seen by the record pool's hook, and the records whose
// release the hook refuses (it answers 1, so memm_free reports a hook failure).
inline int g_released = 0;
inline std::set<void *> g_refuse;

inline uint32_t record_release(void *obj) {
    if (g_refuse.count(obj))
        return 1;
    g_released++;
    return MEMM_OK;
}

struct Pools {
    uint32_t records, nodes;
};

// Call right after memm_init. Pool names must be unique and outlive the
// pools: give string literals.
inline Pools make_pools(int32_t node_objsize = int32_t(sizeof(llist_node)), int32_t node_count = 64,
                        const char *records_name = "llt_records", const char *nodes_name = "llt_nodes") {
    Pools p{memm_initpool2(records_name, 64, 8, nullptr, record_release),
            llist_initpool(nodes_name, node_count, node_objsize, nullptr)};
    EXPECT_NE(p.records, MEMM_INVALID_POOL);
    EXPECT_NE(p.nodes, MEMM_INVALID_POOL);
    return p;
}

inline Objs new_records(uint32_t pool, int n) {
    Objs v;
    for (int i = 0; i < n; i++)
        v.push_back(memm_calloc(pool));
    return v;
}

// A new list of objs; with addref each node takes a reference of its own,
// else the caller's.
inline llist_node *list_of(const Objs &objs, uint32_t pool, bool addref = true) {
    llist_node *list = nullptr;
    for (void *o : objs)
        EXPECT_EQ(addref ? llist_addref(&list, o, pool) : llist_addobject(&list, o, pool), MEMM_OK);
    return list;
}

inline uint32_t refs(void *obj) { return memm_get_refcount(obj); }

// The loaded module (executable or shared library) holding a code address,
// and the call site a node's header records.
inline const void *module_of(const void *addr) {
    Dl_info info{};
    return dladdr(addr, &info) ? info.dli_fbase : nullptr;
}
inline const void *alloc_site(llist_node *node) {
    memm_objhdr h;
    memcpy(&h, reinterpret_cast<uint8_t *>(node) - MEMM_OBJHDR_SIZE, sizeof h);
    return h.allocfrom;
}

// A fake node: a buffer whose "header" names no pool (state 0xFFFFFFFF), so
// memm_isvalidobj rejects it without reading outside the buffer.
struct FakeNode {
    alignas(16) uint8_t bytes[MEMM_OBJHDR_SIZE + sizeof(llist_node)];
    FakeNode(void *obj, llist_node *next) {
        void *words[2] = {obj, next};
        memset(bytes, 0xFF, MEMM_OBJHDR_SIZE);
        memcpy(bytes + MEMM_OBJHDR_SIZE, words, sizeof words);
    }
    llist_node *node() { return reinterpret_cast<llist_node *>(bytes + MEMM_OBJHDR_SIZE); }
};

// Runs the pool integrity check (through memm_get_overall_stats) and tells
// whether it logged a failure.
inline bool integrity_ok() {
    size_t before = memm_test::log_count_prefix("[MEMM] integrity check failed");
    memm_get_overall_stats(nullptr, nullptr, nullptr, nullptr, nullptr);
    return memm_test::log_count_prefix("[MEMM] integrity check failed") == before;
}

} // namespace llist_test

#endif
