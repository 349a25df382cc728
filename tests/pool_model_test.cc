// Seeded random walks over pools and chains checked against a plain model.
#include <gtest/gtest.h>

#include <random>

#include "memm.h"
#include "model/pool_model.h"

TEST(Model, RandomAllocReferenceReleaseMatchesTheModel) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    const int32_t objsize = 13; // slots of 32 bytes: only 4-byte aligned
    uint32_t pools[] = {memm_initpool("m_small", 5, objsize, nullptr), memm_initpool("m_large", 40, 6, nullptr)};
    memm_depletion_no_reboot(pools[0]);
    memm_depletion_no_reboot(pools[1]);
    std::mt19937 rng(20261122);
    memm_model::LiveObjects live[2];
    uint32_t capacity[2] = {5 + 5 * 3, 40 + 5 * 8};
    uint64_t callocs[2] = {}, frees[2] = {}; // calls made: the pools count them, on every path

    for (int step = 0; step < 20000; step++) {
        int which = rng() % 2;
        uint32_t root = pools[which];
        auto &model = live[which];
        int op = rng() % 10;
        if (op < 4) {
            auto *obj = static_cast<uint8_t *>(memm_calloc(root));
            callocs[which]++;
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
                frees[which]++;
                if (--it->second.refs == 0)
                    model.erase(it);
            }
        }
        ASSERT_EQ(memm_model::objects_fault(pools[0], live[0], objsize), "") << step;
        ASSERT_EQ(memm_model::objects_fault(pools[1], live[1], 6), "") << step;
        const auto sum = [&](auto field) { return memm_model::chain_sum(root, field); };
        ASSERT_EQ(sum([](const memm_pooldesc *p) { return p->alloc_calls[MEMM_ALLOC_CALLS_TOTAL]; }), callocs[which]);
        ASSERT_EQ(sum([](const memm_pooldesc *p) { return p->alloc_calls[MEMM_ALLOC_CALLS_FIRST_FREE] + p->alloc_calls[MEMM_ALLOC_CALLS_DYNPOOL]; }),
                  callocs[which]);
        ASSERT_EQ(sum([](const memm_pooldesc *p) { return p->free_calls; }), frees[which]) << step;
    }
}
