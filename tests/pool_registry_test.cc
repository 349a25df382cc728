// Library start-up, pool creation, slot layout and the descriptor table.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dynstr.h"
#include "memm.h"
#include "syslog_capture.h"

using memm_test::fmt;
using memm_test::log_count;

namespace {

uint8_t *slot_of(void *obj) { return static_cast<uint8_t *>(obj) - MEMM_OBJHDR_SIZE; }

} // namespace

TEST(Init, SecondCallIsRefusedAndChangesNothing) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t pool = memm_initpool("keep", 4, 16, nullptr);
    void *obj = memm_calloc(pool);
    ASSERT_NE(obj, nullptr);

    EXPECT_EQ(memm_init(8, 0), MEMM_ERR_ALREADY_INITIALIZED);
    EXPECT_EQ(log_count("memm_init() may only be called once per process!"), 1u);
    EXPECT_EQ(memm_get_poolid(obj), pool);
    EXPECT_STREQ(memm_get_poolname2(pool), "keep");
    EXPECT_EQ(memm_get_number_of_pools(), 2u);
}

TEST(Init, FailedStartsLeaveLibraryNotStarted) {
    EXPECT_EQ(memm_init(1, 0), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(memm_get_number_of_pools(), 0u);
    EXPECT_EQ(memm_initpool("early", 4, 4, nullptr), MEMM_INVALID_POOL);
    EXPECT_EQ(log_count("loc__initpool() called before mem_init()"), 1u);
    // A string family that cannot be created undoes the whole start.
    EXPECT_EQ(memm_init(16, 6000000), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(log_count("dynstring init failed"), 1u);
    EXPECT_EQ(memm_get_number_of_pools(), 0u);
    EXPECT_EQ(memm_initpool("early", 4, 4, nullptr), MEMM_INVALID_POOL);
    EXPECT_EQ(log_count("loc__initpool() called before mem_init()"), 2u);
    // A later, valid start works, string pools included.
    EXPECT_EQ(memm_init(2, 1), MEMM_OK);
    EXPECT_EQ(memm_get_number_of_pools(), 2u);
    EXPECT_STREQ(memm_get_poolname2(1), "dynstr_pool");
    const uint32_t strings = dynstr_initpool("s", 4, 64);
    ASSERT_NE(strings, MEMM_INVALID_POOL);
    dynstr *d = dynstr_fromstring(strings, "text");
    EXPECT_EQ(memm_isvalidobj(d), 1);
    EXPECT_STREQ(dynstr_getstring(d), "text");
}

TEST(Init, PoolCreationBeforeInitFailsWithBothLines) {
    memm_test::clear_logs();
    EXPECT_EQ(memm_initpool("early", 4, 4, nullptr), MEMM_INVALID_POOL);
    std::vector<std::string> expected = {"loc__initpool() called before mem_init()",
                                         "[MEMM] Failed to allocate early buffer (cnt=4, objsize=4)"};
    EXPECT_EQ(memm_test::log_texts(), expected);
}

TEST(Init, PoolZeroIsTheDescriptorPool) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    EXPECT_EQ(memm_get_number_of_pools(), 1u);
    EXPECT_STREQ(memm_get_poolname2(MEMM_POOLDESC_POOL), MEMM_POOLDESC_NAME);
    memm_pooldesc *p0 = memm_get_pool_nolock(0);
    ASSERT_NE(p0, nullptr);
    EXPECT_EQ(p0->alloc_count, 4u);
    EXPECT_EQ(p0->cur_count, 1u);
    EXPECT_EQ(p0->root_pool, 0u);
    EXPECT_EQ(p0->flags, 0u);
    EXPECT_NE(p0->options.print, nullptr);
    // Descriptor i is the object of slot i of pool 0.
    EXPECT_EQ(reinterpret_cast<uint8_t *>(p0), p0->storage + MEMM_OBJHDR_SIZE);
}

TEST(Pools, IdsCountUpAndSlotSizesRoundToFourPlusHeader) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    struct Case {
        int32_t objsize;
        uint32_t slotsize;
    } cases[] = {{1, 20}, {4, 20}, {5, 24}, {8, 24}, {32, 48}, {33, 52}, {384, 400}};
    uint32_t expected_id = 1;
    for (const Case &c : cases) {
        std::string *name = new std::string("size_" + std::to_string(c.objsize)); // names are kept by pointer
        uint32_t id = memm_initpool(name->c_str(), 3, c.objsize, nullptr);
        EXPECT_EQ(id, expected_id++);
        memm_pooldesc *p = memm_get_pool_nolock(id);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(p->slotsize, c.slotsize) << c.objsize;
        EXPECT_EQ(p->last_slot, p->storage + 2 * c.slotsize);
        EXPECT_EQ(p->root_pool, id);
        EXPECT_EQ(p->next_pool, 0u);
        EXPECT_EQ(p->flags, MEMM_POOLFLAG_REBOOT_ON_DEPLETION);
    }
}

TEST(Pools, DuplicateNamesFailButEmptyNamesMayRepeat) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    EXPECT_NE(memm_initpool("dup", 4, 32, nullptr), MEMM_INVALID_POOL);
    memm_test::clear_logs();
    EXPECT_EQ(memm_initpool("dup", 4, 32, nullptr), MEMM_INVALID_POOL);
    EXPECT_EQ(log_count("[MEMM] Failed to allocate dup buffer (cnt=4, objsize=48)"), 1u);
    EXPECT_EQ(memm_initpool(MEMM_POOLDESC_NAME, 4, 32, nullptr), MEMM_INVALID_POOL);
    EXPECT_NE(memm_initpool("", 4, 32, nullptr), MEMM_INVALID_POOL);
    EXPECT_NE(memm_initpool("", 4, 32, nullptr), MEMM_INVALID_POOL);
}

TEST(Pools, BadArgumentsFailWithTheirLogLine) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    memm_test::clear_logs();
    EXPECT_EQ(memm_initpool(nullptr, 4, 8, nullptr), MEMM_INVALID_POOL);
    EXPECT_EQ(memm_initpool("zero", 0, 8, nullptr), MEMM_INVALID_POOL);
    EXPECT_EQ(memm_initpool("neg", -3, 8, nullptr), MEMM_INVALID_POOL);
    EXPECT_EQ(memm_initpool("nosize", 4, 0, nullptr), MEMM_INVALID_POOL);
    EXPECT_EQ(memm_initpool("negsize", 4, -1, nullptr), MEMM_INVALID_POOL);
    EXPECT_EQ(memm_initpool("huge", 0x7FFFFFFF, 64, nullptr), MEMM_INVALID_POOL);
    std::vector<std::string> expected = {
        "[MEMM] Failed to allocate <no_name> buffer (cnt=4, objsize=8)",
        "[MEMM] Failed to allocate zero buffer (cnt=0, objsize=8)",
        "[MEMM] Failed to allocate neg buffer (cnt=-3, objsize=8)",
        "[MEMM] Failed to allocate nosize buffer (cnt=4, objsize=0)",
        "[MEMM] Failed to allocate negsize buffer (cnt=4, objsize=-1)",
        "[MEMM] Failed to allocate huge buffer (cnt=2147483647, objsize=80)",
    };
    EXPECT_EQ(memm_test::log_texts(), expected);
    // A failed creation hands its descriptor back: the next pool still works.
    uint32_t id = memm_initpool("after", 2, 8, nullptr);
    EXPECT_NE(id, MEMM_INVALID_POOL);
    EXPECT_STREQ(memm_get_poolname2(id), "after");
}

TEST(Pools, WrappersInstallTheirHooks) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    auto print = [](void *) {};
    auto free_ex = [](void *) -> uint32_t { return MEMM_OK; };
    auto free2_ex = [](void *, memm_release_fn) -> uint32_t { return MEMM_OK; };
    uint32_t a = memm_initpool2("two", 2, 8, print, free_ex);
    uint32_t b = memm_initpool3("three", 2, 8, print, free2_ex);
    memm_pooldesc *pa = memm_get_pool_nolock(a), *pb = memm_get_pool_nolock(b);
    ASSERT_TRUE(pa && pb);
    EXPECT_EQ(pa->options.print, static_cast<memm_print_hook_fn>(print));
    EXPECT_EQ(pa->options.free_ex, static_cast<memm_free_ex_fn>(free_ex));
    EXPECT_EQ(pa->options.free2_ex, nullptr);
    EXPECT_EQ(pb->options.free2_ex, static_cast<memm_free2_ex_fn>(free2_ex));
    EXPECT_EQ(pb->options.free_ex, nullptr);
    EXPECT_EQ(pb->options.gc, nullptr);
}

TEST(Pools, OptionsRecordIsCopiedWhole) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    int cookie = 0;
    memm_pool_options opts = {};
    opts.cookie = &cookie;
    opts.reserve = 7;
    uint32_t id = memm_initpool("opts", 8, 8, &opts);
    opts.cookie = nullptr; // the pool keeps its own copy
    EXPECT_EQ(memm_get_pool_nolock(id)->options.cookie, &cookie);
    EXPECT_EQ(memm_get_pool_nolock(id)->options.reserve, 7u);
}

TEST(Table, EnlargingKeepsIdsNamesObjectsAndDescriptorAddresses) {
    ASSERT_EQ(memm_init(3, 0), MEMM_OK);
    std::vector<uint32_t> ids;
    std::vector<memm_pooldesc *> descs;
    std::vector<uint32_t *> counts;
    std::vector<void *> objs;
    static char names[40][8];
    for (int i = 0; i < 40; i++) {
        snprintf(names[i], sizeof names[i], "p%d", i);
        memm_test::clear_logs();
        uint32_t id = memm_initpool(names[i], 2, 8, nullptr);
        ASSERT_EQ(id, uint32_t(i + 1));
        ids.push_back(id);
        descs.push_back(memm_get_pool_nolock(id));
        counts.push_back(memm_get_currentcount_ptr(id, nullptr, nullptr));
        objs.push_back(memm_calloc(id));
    }
    // 3 -> 6 -> 11 -> 18 -> 29 -> 45: each growth logged with the new capacity.
    EXPECT_EQ(memm_get_pool_nolock(0)->alloc_count, 45u);
    EXPECT_EQ(memm_get_number_of_pools(), 41u);
    for (int i = 0; i < 40; i++) {
        EXPECT_EQ(memm_get_pool_nolock(ids[i]), descs[i]);
        EXPECT_EQ(memm_get_currentcount_ptr(ids[i], nullptr, nullptr), counts[i]);
        EXPECT_EQ(*counts[i], 1u);
        EXPECT_STREQ(memm_get_poolname2(ids[i]), names[i]);
        EXPECT_EQ(memm_get_poolid(objs[i]), ids[i]);
        // Both kept storage ranges, the table's grown one and the pool's.
        EXPECT_EQ(memm_isvalidobj(descs[i]), 1);
        EXPECT_EQ(memm_isvalidobj_nolock(objs[i]), 1);
    }
}

TEST(Table, EnlargementIsLoggedWithTheNewCapacity) {
    ASSERT_EQ(memm_init(2, 0), MEMM_OK);
    ASSERT_NE(memm_initpool("a", 1, 8, nullptr), MEMM_INVALID_POOL); // fills the table of 2
    memm_test::clear_logs();
    ASSERT_NE(memm_initpool("b", 1, 8, nullptr), MEMM_INVALID_POOL);
    EXPECT_EQ(log_count(fmt("[MEMM] Info: Pooldescr [%s] reallocated to increase its size (%d elements)",
                            MEMM_POOLDESC_NAME, 2 * 3 / 2 + 2)),
              1u);
}

TEST(Slots, FreshPoolHandsOutAscendingZeroFilledSlotsThenLifo) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    const int n = 6;
    uint32_t id = memm_initpool("order", n, 20, nullptr);
    memm_pooldesc *p = memm_get_pool_nolock(id);
    std::vector<uint8_t *> objs;
    for (int i = 0; i < n; i++) {
        auto *o = static_cast<uint8_t *>(memm_calloc(id));
        ASSERT_EQ(slot_of(o), p->storage + size_t(i) * p->slotsize);
        objs.push_back(o);
    }
    for (uint8_t *o : objs)
        memset(o, 0xAB, 20);
    uint8_t *a = objs[1], *b = objs[4];
    ASSERT_EQ(memm_free(a), MEMM_OK);
    ASSERT_EQ(memm_free(b), MEMM_OK);
    EXPECT_EQ(memm_calloc(id), b);
    EXPECT_EQ(memm_calloc(id), a);
    for (uint8_t *o : {a, b}) {
        uint32_t state;
        memcpy(&state, slot_of(o), 4);
        EXPECT_EQ(state, id);
        for (int i = 4; i < 8; i++) // reserved word
            EXPECT_EQ(slot_of(o)[i], 0);
        for (int i = 0; i < 20; i++)
            EXPECT_EQ(o[i], 0);
    }
}

namespace {
// Allocates from a known function so the recorded call site can be checked.
// (not a tail call, or the recorded return address would be our caller's).
__attribute__((noinline)) void *allocate_here(uint32_t id) {
    void *obj = memm_calloc(id);
    __asm__ volatile("" ::: "memory");
    return obj;
}
} // namespace

TEST(Slots, AllocfromRecordsTheCallingCode) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    uint32_t id = memm_initpool("site", 2, 8, nullptr);
    void *obj = allocate_here(id);
    void *site;
    memcpy(&site, slot_of(obj) + 8, sizeof site);
    auto lo = reinterpret_cast<uintptr_t>(&allocate_here);
    EXPECT_GT(reinterpret_cast<uintptr_t>(site), lo);
    EXPECT_LT(reinterpret_cast<uintptr_t>(site), lo + 256);
}

TEST(Slots, OneByteObjectsShareNoWordsWithTheirNeighbours) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    const int n = 64;
    uint32_t id = memm_initpool("bytes", n, 1, nullptr);
    std::vector<uint8_t *> objs;
    for (int round = 0; round < 3; round++) {
        objs.clear();
        for (int i = 0; i < n; i++) {
            auto *o = static_cast<uint8_t *>(memm_calloc(id));
            ASSERT_NE(o, nullptr);
            ASSERT_EQ(memm_get_poolid(o), id);
            *o = uint8_t(i);
            objs.push_back(o);
        }
        for (int i = 0; i < n; i++)
            ASSERT_EQ(*objs[i], uint8_t(i));
        for (int i = 0; i < n; i += 2)
            ASSERT_EQ(memm_free(objs[i]), MEMM_OK);
        for (int i = 1; i < n; i += 2) {
            ASSERT_EQ(*objs[i], uint8_t(i)) << "a free link overwrote a neighbour";
            ASSERT_EQ(memm_get_poolid(objs[i]), id);
            ASSERT_EQ(memm_free(objs[i]), MEMM_OK);
        }
    }
    EXPECT_EQ(memm_get_pool_nolock(id)->cur_count, 0u);
}
