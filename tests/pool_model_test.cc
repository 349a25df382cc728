// Seeded random walks over pools and chains checked against a plain model,
// and several threads sharing pools.
#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

#include "memm.h"
#include "model/pool_model.h"
#include "syslog_capture.h"

TEST(Model, RandomAllocReferenceReleaseMatchesTheModel) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    const int32_t objsize = 13; // slots of 32 bytes: only 4-byte aligned
    uint32_t pools[] = {memm_initpool("m_small", 5, objsize, nullptr), memm_initpool("m_large", 40, 6, nullptr)};
    memm_depletion_no_reboot(pools[0]);
    memm_depletion_no_reboot(pools[1]);
    std::mt19937 rng(20261122);
    memm_model::LiveObjects live[2];
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
            ASSERT_EQ(memm_model::objects_fault(pools[0], live[0], objsize), "") << step;
            ASSERT_EQ(memm_model::objects_fault(pools[1], live[1], 6), "") << step;
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
    EXPECT_EQ(memm_model::objects_fault(pool, {}, 0), "");
}
