// Shared helpers of the llist_*_test.cc files: an object pool whose release
// hook counts releases and can be told to fail, and readers of a list that go
// through memcpy (node pools may be only 4-byte aligned).
#ifndef LLIST_TEST_HELPERS_H
#define LLIST_TEST_HELPERS_H

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <string.h>

#include <set>
#include <vector>

#include "llist.h"
#include "memm.h"
#include "syslog_capture.h"

namespace llist_test {

using Objs = std::vector<void *>;

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

// ---- node words, read and written without assuming alignment ----
inline void *word(llist_node *node, size_t offset) {
    void *p;
    memcpy(&p, reinterpret_cast<uint8_t *>(node) + offset, sizeof p);
    return p;
}
inline void *obj_of(llist_node *node) { return word(node, offsetof(llist_node, linked_obj)); }
inline llist_node *next_of(llist_node *node) {
    return static_cast<llist_node *>(word(node, offsetof(llist_node, next)));
}

// Every node / linked object to the real end (null objects included).
inline std::vector<llist_node *> nodes_of(llist_node *list) {
    std::vector<llist_node *> v;
    for (llist_node *n = list; n; n = next_of(n))
        v.push_back(n);
    return v;
}
inline Objs objects_of(llist_node *list) {
    Objs v;
    for (llist_node *n : nodes_of(list))
        v.push_back(obj_of(n));
    return v;
}

// Objects in use over a pool's whole chain (root and extension pools).
inline uint32_t in_use(uint32_t pool) {
    uint32_t n = 0;
    for (memm_pooldesc *p = memm_get_pool_nolock(pool); p;
         p = p->next_pool ? memm_get_pool_nolock(p->next_pool) : nullptr)
        n += p->cur_count;
    return n;
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
