// Targeted cases of the string storage: merging and cut-off of deleted
// texts, each collection trigger, running out of buffer memory, long-form
// records, and pool sizes and limits.
#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

#include "dynstr.h"
#include "dynstr_test_support.h"
#include "report_files.h"
#include "syslog_capture.h"

namespace {

using namespace memm_test;

TEST(DynstrDeletion, MergingCutOffAndReleasingTwice) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("s", 20, 100, 1);
    dynstr_pooldesc *p = string_pool(pool);
    dynstr *r[6];
    const char *texts[] = {"aa", "bbb", "cccc", "d", "ee", "f"};
    for (int i = 0; i < 6; i++)
        r[i] = dynstr_fromstring(pool, texts[i]);
    memm_free(r[0]);
    memm_free(r[2]);
    memm_free(r[1]); // absorbs its deleted neighbours on both sides
    EXPECT_EQ(p->buf_first[0], r[1]);
    EXPECT_STREQ(r[1]->str, "aa&bbb&cccc");
    EXPECT_EQ(DYNSTR_SIZE(r[1]->flags), 12u);
    EXPECT_EQ(p->buf_firstdel[0], r[1]);
    EXPECT_EQ(p->recup_ctx, 2u);
    EXPECT_TRUE(storage_consistent(pool, 3));

    // A placeholder is neither released again nor written into.
    EXPECT_FALSE(dynstr_isdynstring(r[1]));
    EXPECT_STREQ(dynstr_getstring(r[1]), DYNSTR_TEXT_DELETED);
    EXPECT_EQ(memm_free(r[1]), MEMM_ERR_HOOK_FAILED);
    EXPECT_EQ(log_count("[DYNSTR] loc_dynstr_free_ex: dynstr is already freed"), 1u);
    EXPECT_EQ(dynstr_addstring(r[1], "revived"), MEMM_ERR_INVALID_ARG);
    EXPECT_TRUE(storage_consistent(pool, 3));

    // The last text is cut off at once; so is a placeholder that comes to end
    // the buffer by merging.
    memm_free(r[5]);
    EXPECT_EQ(p->buf_used[0], 17u);
    EXPECT_EQ(p->recup_bytes, 2u);
    memm_free(r[3]);
    memm_free(r[4]);
    EXPECT_EQ(p->buf_used[0], 0u);
    EXPECT_EQ(p->recup_bytes, 19u);
    EXPECT_EQ(p->recup_ctx, 6u);
    EXPECT_TRUE(storage_consistent(pool, 0));
}

TEST(DynstrCollection, EachTrigger) {
    ASSERT_EQ(memm_init(16, 6), MEMM_OK);
    // buffer_full in a single buffer: compacted in place, order kept.
    uint32_t pool = dynstr_initpool2("full1", 50, 40, 1);
    dynstr_pooldesc *p = string_pool(pool);
    dynstr *r[6];
    const char *texts[] = {"aaaa", "bbbbbb", "cc", "ddddddd", "eee", "ff"};
    for (int i = 0; i < 6; i++)
        r[i] = dynstr_fromstring(pool, texts[i]);
    memm_free(r[1]);
    memm_free(r[3]);
    ASSERT_NE(dynstr_fromstring(pool, "0123456789abcdefg"), nullptr); // fits only after compaction
    EXPECT_EQ(std::string(p->buf_base[0], 33), std::string("aaaa\0cc\0eee\0ff\0"
                                                           "0123456789abcdefg",
                                                           33));
    EXPECT_EQ(p->gc_reason[0][DYNSTR_GC_BUFFER_FULL], 1u);
    EXPECT_EQ(p->gc_ctx, 2u);
    EXPECT_EQ(p->gc_bytes, 15u);
    EXPECT_TRUE(storage_consistent(pool, 5));

    // ctx_balance: the current buffer holds more than its share of records.
    pool = dynstr_initpool2("balance", 15, 1000, 2); // 20 slots: 10 per buffer
    p = string_pool(pool);
    for (int i = 0; i < 10; i++)
        dynstr_fromstring(pool, "x");
    EXPECT_EQ(p->gc_count, 0u);
    dynstr_fromstring(pool, "eleventh");
    EXPECT_EQ(p->gc_reason[0][DYNSTR_GC_CTX_BALANCE], 1u);
    EXPECT_EQ(p->curbuffer, 1u);

    // ctx_depleted: a placement that took a reserve slot collects.
    pool = dynstr_initpool2("reserve", 2, 100, 1); // 7 slots, 5 of them reserve
    p = string_pool(pool);
    dynstr_fromstring(pool, "a"); // the record and the old-text record: 3 slots with the anchor
    EXPECT_EQ(p->gc_reason[0][DYNSTR_GC_CTX_DEPLETED], 1u);
    EXPECT_EQ(p->ctx_depleted, 0u);

    // A full record pool: a collecting allocation collects each buffer once,
    // then gives up.
    pool = dynstr_initpool2("exhausted", 5, 400, 4); // 10 slots
    p = string_pool(pool);
    while (memm_get_pool_nolock(pool)->cur_count < 9)
        ASSERT_NE(dynstr_calloc(pool), nullptr);
    const uint32_t gcs = p->gc_count;
    EXPECT_EQ(dynstr_calloc(pool), nullptr);
    EXPECT_EQ(p->gc_count - gcs, 4u);
}

TEST(DynstrOutOfMemory, EmptiesTheRecordAndListsOnlyFourTimes) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    // A buffer left exactly full: the listing must not show the record at
    // the free position, one past the buffer's end.
    const uint32_t full = dynstr_initpool2("full", 2, 2, 1);
    dynstr *x = dynstr_fromstring(full, "x");
    const char *end = string_pool(full)->buf_base[0] + 2;
    EXPECT_EQ(dynstr_setstring(x, "y"), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(x->str, nullptr);
    EXPECT_EQ(read_report_file(fmt("/root/memm_list_pool_depleted_%d", getpid())).find(fmt("data=0x%08lx", addr(end))),
              std::string::npos);
    EXPECT_TRUE(storage_consistent(full, 1));

    const uint32_t pool = dynstr_initpool2("s", 20, 64, 2);
    const std::string big(40, 'x');
    dynstr *d = dynstr_fromstring(pool, "small");
    EXPECT_EQ(dynstr_setstring(d, big.c_str()), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(d->str, nullptr);
    EXPECT_EQ(d->flags, DYNSTR_FLAG_LITERAL);
    EXPECT_NE(string_pool(pool)->state & DYNSTR_STATE_DEPLETED, 0u);
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(dynstr_fromstring(pool, big.c_str()), nullptr);
    EXPECT_TRUE(storage_consistent(pool, 1));
    EXPECT_EQ(log_count("Out of string buffer memory for pool 's' !!!!!!!!!!!!!!!!!!!!!!!!!!!!!!"), 6u);
    const std::string list = read_report_file(fmt("/root/memm_list_pool_depleted_%d", getpid()));
    size_t listings = 0;
    for (size_t at = list.find("Creation reason=pool_depleted"); at != std::string::npos;
         at = list.find("Creation reason=pool_depleted", at + 1))
        listings++;
    EXPECT_EQ(listings, 4u); // the first of them for "full"
}

TEST(DynstrSizes, LongFormRecordsAndPlaceholders) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("s", 20, 300000, 1);
    const std::string t1(40000, 'a'), t2(40000, 'b');
    dynstr *a = dynstr_fromstring(pool, t1.c_str());
    dynstr *b = dynstr_fromstring(pool, t2.c_str());
    dynstr_fromstring(pool, "tail");
    EXPECT_EQ(a->flags & DYNSTR_FLAG_LONG, 0u);
    ASSERT_EQ(dynstr_setstring(a, (t1 + t2).c_str()), MEMM_OK);
    EXPECT_EQ(a->flags & DYNSTR_FLAG_LONG, DYNSTR_FLAG_LONG);
    EXPECT_EQ(dynstr_strlen(a), 80000u);
    EXPECT_EQ(dynstr_setmaxsize(a, 100000), MEMM_OK); // a long record has no maximum
    EXPECT_EQ(dynstr_getmaxsize(a), 0u);
    memm_free(b); // merges with a's old text into one long placeholder
    const dynstr *merged = string_pool(pool)->buf_first[0];
    EXPECT_EQ(merged->flags & (DYNSTR_FLAG_LONG | DYNSTR_FLAG_DELETED), DYNSTR_FLAG_LONG | DYNSTR_FLAG_DELETED);
    EXPECT_EQ(DYNSTR_SIZE(merged->flags), 80002u);
    EXPECT_TRUE(storage_consistent(pool, 2));
    ASSERT_EQ(dynstr_setstring(a, "short"), MEMM_OK);
    EXPECT_EQ(a->flags & (DYNSTR_FLAG_LONG | DYNSTR_FLAG_LITERAL), 0u);
    EXPECT_EQ(DYNSTR_SIZE(a->flags), 6u);
    // A maximum above the limit is refused, but still cuts the text.
    ASSERT_EQ(dynstr_setstring(a, std::string(4000, 'q').c_str()), MEMM_OK);
    EXPECT_EQ(dynstr_setmaxsize(a, 3000), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(dynstr_strlen(a), 2999u);
    EXPECT_EQ(dynstr_getmaxsize(a), 0u);
}

TEST(DynstrSizes, PoolShapesAndLimits) {
    ASSERT_EQ(memm_init(16, 3), MEMM_OK);
    const struct {
        uint32_t records;
        int32_t total, buffers;
        const char *log;
    } refused[] = {
        {10, int32_t(DYNSTR_LONG_SIZE_MAX) + 1, 1, "[DYNSTR] dynstr_initpool(): invalid buffer size 134217728"},
        {10, 100, 0, "[DYNSTR] dynstr_initpool(): invalid buffer count 0"},
        {10, 100, 5, "dynstr_initpool(): poolcount exceeds maximum"},
    };
    for (const auto &r : refused) {
        EXPECT_EQ(dynstr_initpool2("bad", r.records, r.total, r.buffers), MEMM_INVALID_POOL);
        EXPECT_EQ(log_count(r.log), 1u);
    }
    EXPECT_EQ(dynstr_initpool("huge", 0x7FFFFFFBu, 1000), MEMM_INVALID_POOL);
    EXPECT_EQ(log_count("[DYNSTR] dynstr_initpool(): invalid record count 2147483643"), 1u);
    // Up to 10000 records two buffers, above that four.
    const dynstr_pooldesc *two = string_pool(dynstr_initpool("two", 10000, 1001));
    const dynstr_pooldesc *four = string_pool(dynstr_initpool("four", 10001, 1001));
    EXPECT_EQ(two->buffercount, 2);
    EXPECT_EQ(two->buffersize, 500);
    EXPECT_EQ(four->buffercount, 4);
    EXPECT_EQ(four->buffersize, 250);
    EXPECT_EQ(memm_get_pool_nolock(four->poolid)->alloc_count, 10006u);

    const uint32_t pool = dynstr_initpool2("s", 10, 64, 1);
    ASSERT_NE(dynstr_fromstring(pool, std::string(63, 'e').c_str()), nullptr); // fills the buffer exactly
    EXPECT_EQ(string_pool(pool)->buf_used[0], 64u);
    EXPECT_EQ(dynstr_getmaxsize(dynstr_calloc_maxlen(pool, 2046)), 2047u);
    EXPECT_EQ(dynstr_getmaxsize(dynstr_calloc_maxlen(pool, 2047)), 0u);
    // A second initialisation fails, and the pools' descriptors go unrecognised.
    EXPECT_EQ(dynstr_init(3), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(log_count("dynstring init failed"), 1u);
    EXPECT_EQ(dynstr_getstring(four->anchor), std::string(DYNSTR_TEXT_NOT_DYNSTR));
}

} // namespace
