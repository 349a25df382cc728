// Seeded runs of the shared string model (model/string_model.h) on small
// pools: every constructor and writer, checked after every step against the
// predicted results and texts and against counters recomputed from the
// buffer lists.
#include <gtest/gtest.h>

#include "model/string_model.h"
#include "syslog_capture.h"

namespace {

using memm_model::string_pool;

// Collections run so far in the pool for one reason, over all buffers.
uint32_t collections(uint32_t pool, int reason) {
    uint32_t n = 0;
    for (const auto &row : string_pool(pool)->gc_reason)
        n += row[reason];
    return n;
}

void run_model(int32_t buffers, uint32_t records, int32_t total_bytes, uint32_t seed) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("model", records, total_bytes, buffers);
    ASSERT_NE(pool, MEMM_INVALID_POOL);
    memm_test::clear_logs();
    memm_model::RandomSource source(seed);
    memm_model::StringModel model(pool, source);
    for (int i = 0; i < 6000; i++) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed << ", step " << i);
        model.step();
        ASSERT_EQ(model.failure(), "");
        ASSERT_EQ(model.fault(), "");
    }
    // The run went through every path of the storage.
    const dynstr_pooldesc *desc = string_pool(pool);
    EXPECT_GT(collections(pool, DYNSTR_GC_BUFFER_FULL), 0u);
    EXPECT_GT(collections(pool, DYNSTR_GC_CTX_DEPLETED), 0u);
    EXPECT_TRUE(buffers == 1 || collections(pool, DYNSTR_GC_CTX_BALANCE) > 0);
    EXPECT_GT(desc->recup_ctx, 0u);
    EXPECT_NE(desc->state & DYNSTR_STATE_DEPLETED, 0u);
    // Sound storage gives the collector nothing to warn about.
    EXPECT_EQ(memm_test::log_count_prefix("[DYNSTR]"), 0u);
}

TEST(DynstrModel, OneBuffer) { run_model(1, 10, 600, 1); }
TEST(DynstrModel, TwoBuffers) { run_model(2, 12, 1000, 2); }
TEST(DynstrModel, ThreeBuffers) { run_model(3, 16, 1500, 3); }
TEST(DynstrModel, FourBuffers) { run_model(4, 16, 1600, 4); }
TEST(DynstrModel, FourBuffersFewRecords) { run_model(4, 6, 1200, 5); }

} // namespace
