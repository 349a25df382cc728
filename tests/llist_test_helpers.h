// Shared helpers of the llist_*_test.cc files: an object pool whose release
// hook counts releases and can be told to fail, and readers of a list that go
// through memcpy (node pools may be only 4-byte aligned).
#ifndef LLIST_TEST_HELPERS_H
#define LLIST_TEST_HELPERS_H

#include <gtest/gtest.h>
#include <string.h>

#include <set>
#include <vector>

#include "llist.h"
#include "memm.h"
#include "syslog_capture.h"

namespace llist_test {

struct Record {
    int id;
    int pad;
};

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
    uint32_t records;
    uint32_t nodes;
};

// Call right after memm_init: a record pool and a node pool. Pool names must
// be unique and outlive the pools: give string literals.
inline Pools make_pools(int32_t node_objsize = int32_t(sizeof(llist_node)), int32_t node_count = 64,
                        const char *records_name = "llt_records", const char *nodes_name = "llt_nodes") {
    Pools p;
    p.records = memm_initpool2(records_name, 64, int32_t(sizeof(Record)), nullptr, record_release);
    p.nodes = llist_initpool(nodes_name, node_count, node_objsize, nullptr);
    EXPECT_NE(p.records, MEMM_INVALID_POOL);
    EXPECT_NE(p.nodes, MEMM_INVALID_POOL);
    return p;
}

inline void *new_record(uint32_t pool, int id) {
    auto *r = static_cast<Record *>(memm_calloc(pool));
    EXPECT_NE(r, nullptr);
    if (r)
        r->id = id;
    return r;
}

inline std::vector<void *> new_records(uint32_t pool, int n) {
    std::vector<void *> v;
    for (int i = 0; i < n; i++)
        v.push_back(new_record(pool, i));
    return v;
}

// ---- node words, read without assuming alignment ----
inline void *obj_of(llist_node *node) {
    void *p;
    memcpy(&p, reinterpret_cast<uint8_t *>(node) + offsetof(llist_node, linked_obj), sizeof p);
    return p;
}
inline llist_node *next_of(llist_node *node) {
    llist_node *p;
    memcpy(&p, reinterpret_cast<uint8_t *>(node) + offsetof(llist_node, next), sizeof p);
    return p;
}
inline void set_next(llist_node *node, llist_node *next) {
    memcpy(reinterpret_cast<uint8_t *>(node) + offsetof(llist_node, next), &next, sizeof next);
}
inline void set_obj(llist_node *node, void *obj) {
    memcpy(reinterpret_cast<uint8_t *>(node) + offsetof(llist_node, linked_obj), &obj, sizeof obj);
}

// Every node to the real end (nulls included).
inline std::vector<llist_node *> nodes_of(llist_node *list) {
    std::vector<llist_node *> v;
    for (llist_node *n = list; n; n = next_of(n))
        v.push_back(n);
    return v;
}
inline std::vector<void *> objects_of(llist_node *list) {
    std::vector<void *> v;
    for (llist_node *n = list; n; n = next_of(n))
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

// A fake object: a buffer whose "header" names no pool (state 0xFFFFFFFF),
// so memm_isvalidobj rejects it without reading outside the buffer.
struct FakeObject {
    alignas(16) uint8_t bytes[64];
    FakeObject() { memset(bytes, 0xFF, sizeof bytes); memset(bytes + MEMM_OBJHDR_SIZE, 0, sizeof bytes - MEMM_OBJHDR_SIZE); }
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
