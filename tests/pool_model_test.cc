// Seeded random walks over pools and chains checked against a plain model,
// and several threads sharing pools.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "memm.h"
#include "syslog_capture.h"

namespace {

struct Live {
    uint32_t refs;
    uint8_t fill;
};

// Sum of a field over a pool's chain.
template <typename F> uint64_t chain_sum(uint32_t root, F field) {
    uint64_t sum = 0;
    for (uint32_t id = root;; ) {
        const memm_pooldesc *p = memm_get_pool_nolock(id);
        sum += field(p);
        if (!p->next_pool)
            return sum;
        id = p->next_pool;
    }
}

// Every slot of the chain is free or carries its pool's id, and the free
// slots plus the used ones make up the pool.
void expect_sound_chain(uint32_t root) {
    for (uint32_t id = root; id; id = memm_get_pool_nolock(id)->next_pool) {
        const memm_pooldesc *p = memm_get_pool_nolock(id);
        uint32_t free_slots = 0;
        for (uint32_t i = 0; i < p->alloc_count; i++) {
            uint32_t state;
            memcpy(&state, p->storage + size_t(i) * p->slotsize, 4);
            if (state == MEMM_STATE_FREE)
                free_slots++;
            else
                ASSERT_EQ(state & MEMM_STATE_POOLID_MASK, id);
        }
        ASSERT_EQ(free_slots + p->cur_count, p->alloc_count);
        ASSERT_EQ(p->free_head == nullptr, free_slots == 0);
    }
}

// The walks, indexes and validity tests agree with the model: the chain is
// walked pool by pool in address order, and every live object's chain index
// leads back to it.
void expect_walks_match(uint32_t root, const std::map<uint8_t *, Live> &model) {
    std::vector<void *> expected;
    for (uint32_t id = root; id; id = memm_get_pool_nolock(id)->next_pool)
        for (auto &entry : model) // a map: address order
            if (memm_get_poolid(entry.first) == id)
                expected.push_back(entry.first);
    std::vector<void *> walked;
    for (void *o = memm_getfirst(root); o; o = memm_getnext(o))
        walked.push_back(o);
    ASSERT_EQ(walked, expected);
    ASSERT_EQ(memm_enum_objects(root, [](void *, void *) { return 1; }, nullptr), model.size());
    for (void *o : expected) {
        ASSERT_EQ(memm_getobject_byindex(root, int32_t(memm_getindex(o))), o);
        ASSERT_TRUE(memm_isvalidobj(o) && memm_isvalidobjfrompool(memm_get_poolid(o), o));
    }
}

} // namespace

TEST(Model, RandomAllocReferenceReleaseMatchesTheModel) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    const int32_t objsize = 13; // slots of 32 bytes: only 4-byte aligned
    uint32_t pools[] = {memm_initpool("m_small", 5, objsize, nullptr), memm_initpool("m_large", 40, 6, nullptr)};
    memm_depletion_no_reboot(pools[0]);
    memm_depletion_no_reboot(pools[1]);
    std::mt19937 rng(20261122);
    std::map<uint8_t *, Live> live[2];
    uint32_t capacity[2] = {5 + 5 * 3, 40 + 5 * 8};

    for (int step = 0; step < 20000; step++) {
        int which = rng() % 2;
        uint32_t root = pools[which];
        auto &model = live[which];
        int op = rng() % 10;
        if (op < 4) {
            auto *obj = static_cast<uint8_t *>(memm_calloc(root));
            if (model.size() == capacity[which]) {
                ASSERT_EQ(obj, nullptr) << step;
                continue;
            }
            ASSERT_NE(obj, nullptr) << step;
            ASSERT_EQ(model.count(obj), 0u);
            size_t size = which ? 6 : objsize;
            for (size_t i = 0; i < size; i++)
                ASSERT_EQ(obj[i], 0) << "slot not zero-filled";
            uint8_t fill = uint8_t(rng());
            memset(obj, fill, size);
            model[obj] = {1, fill};
            ASSERT_TRUE(memm_instanceof(obj, root));
        } else if (!model.empty()) {
            auto it = model.begin();
            std::advance(it, rng() % model.size());
            uint8_t *obj = it->first;
            if (op < 6 && it->second.refs < 5) {
                ASSERT_EQ(memm_refalloc(obj), obj);
                it->second.refs++;
            } else {
                ASSERT_EQ(memm_free(obj), MEMM_OK);
                if (--it->second.refs == 0)
                    model.erase(it);
            }
        }
        if (step % 97 == 0) {
            for (int w = 0; w < 2; w++) {
                size_t size = w ? 6 : objsize;
                int64_t extra = 0;
                for (auto &[obj, l] : live[w]) {
                    ASSERT_EQ(memm_get_refcount(obj), l.refs);
                    for (size_t i = 0; i < size; i++)
                        ASSERT_EQ(obj[i], l.fill) << "object bytes changed under its holder";
                    extra += l.refs - 1;
                }
                EXPECT_EQ(chain_sum(pools[w], [](const memm_pooldesc *p) { return p->cur_count; }), live[w].size());
                expect_walks_match(pools[w], live[w]);
                EXPECT_EQ(int64_t(chain_sum(pools[w], [](const memm_pooldesc *p) { return uint64_t(p->ref_cur); })),
                          extra);
            }
            expect_sound_chain(pools[0]);
            expect_sound_chain(pools[1]);
        }
    }
}

TEST(Threads, SharedPoolsEndWithConsistentCounts) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    uint32_t pool = memm_initpool("shared_threads", 64, 24, nullptr);
    const int threads = 4, rounds = 20000;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; t++) {
        workers.emplace_back([pool, t] {
            std::mt19937 rng(t);
            std::vector<void *> mine;
            for (int i = 0; i < rounds; i++) {
                if (mine.size() < 20 && rng() % 2) {
                    if (void *obj = memm_calloc(pool))
                        mine.push_back(obj);
                } else if (!mine.empty()) {
                    void *obj = mine.back();
                    memm_refalloc(obj);
                    memm_free(obj);
                    memm_free(obj);
                    mine.pop_back();
                }
            }
            for (void *obj : mine)
                memm_free(obj);
        });
    }
    for (auto &w : workers)
        w.join();
    uint64_t cur = 0, ref = 0;
    for (uint32_t id = pool; id; id = memm_get_pool_nolock(id)->next_pool) {
        cur += memm_get_pool_nolock(id)->cur_count;
        ref += uint64_t(memm_get_pool_nolock(id)->ref_cur);
    }
    EXPECT_EQ(cur, 0u);
    EXPECT_EQ(ref, 0u);
    expect_sound_chain(pool);
}
