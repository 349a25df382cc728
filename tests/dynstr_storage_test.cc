// Targeted cases of the string storage: cut-off and merging of deleted
// texts, each collection trigger, the out-of-buffer-memory path, size forms
// and limits, placeholder texts and misuse.
#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <vector>

#include "dynstr.h"
#include "report_files.h"
#include "syslog_capture.h"

namespace {

using memm_test::log_count;

dynstr_pooldesc *desc_of(uint32_t pool) { return static_cast<dynstr_pooldesc *>(memm_getpoolcookie_bypoolid(pool)); }

uint32_t start_pool(uint32_t records, int32_t total, int32_t buffers) {
    EXPECT_EQ(memm_init(16, 2), MEMM_OK);
    return dynstr_initpool2("s", records, total, buffers);
}

bool zero(const char *p, size_t n) {
    for (size_t i = 0; i < n; i++)
        if (p[i])
            return false;
    return true;
}

TEST(DynstrDeletion, LastTextsAreCutOffAtOnce) {
    const uint32_t pool = start_pool(20, 100, 1);
    dynstr_pooldesc *p = desc_of(pool);
    dynstr *a = dynstr_fromstring(pool, "abc");
    dynstr *b = dynstr_fromstring(pool, "defg");
    ASSERT_EQ(p->buf_used[0], 9u);
    EXPECT_EQ(memm_free(b), MEMM_OK);
    EXPECT_EQ(p->buf_used[0], 4u);
    EXPECT_TRUE(zero(p->buf_base[0] + 4, 96));
    EXPECT_EQ(p->recup_bytes, 5u);
    EXPECT_EQ(p->recup_ctx, 1u);
    EXPECT_EQ(memm_free(a), MEMM_OK);
    EXPECT_EQ(p->buf_used[0], 0u);
    EXPECT_EQ(p->recup_bytes, 9u);
    EXPECT_EQ(p->buf_first[0], nullptr);
    EXPECT_EQ(memm_get_pool_nolock(pool)->cur_count, 1u); // the anchor only
}

TEST(DynstrDeletion, AdjacentPlaceholdersMergeBothWays) {
    const uint32_t pool = start_pool(20, 100, 1);
    dynstr_pooldesc *p = desc_of(pool);
    dynstr *r[4] = {dynstr_fromstring(pool, "aa"), dynstr_fromstring(pool, "bbb"), dynstr_fromstring(pool, "cccc"),
                    dynstr_fromstring(pool, "d")};
    memm_free(r[0]);
    memm_free(r[2]);
    EXPECT_EQ(p->delcount, 2u);
    memm_free(r[1]); // merges backwards with r[0], forwards with r[2]
    const dynstr *merged = p->buf_first[0];
    EXPECT_STREQ(merged->str, "aa&bbb&cccc");
    EXPECT_EQ(DYNSTR_SIZE(merged->flags), 12u);
    EXPECT_EQ(merged->next, r[3]);
    EXPECT_EQ(p->buf_firstdel[0], merged);
    EXPECT_EQ(p->recup_ctx, 2u);
    EXPECT_EQ(p->delcount, 1u);
    EXPECT_EQ(p->delbytes, 12u);
    EXPECT_STREQ(dynstr_getstring(r[3]), "d");
    EXPECT_EQ(dynstr_integrity_check(pool, 0), 1);
}

TEST(DynstrDeletion, ReleasingAPlaceholderAgainFails) {
    const uint32_t pool = start_pool(20, 100, 1);
    dynstr *a = dynstr_fromstring(pool, "abc");
    dynstr_fromstring(pool, "keeps a as a placeholder");
    ASSERT_EQ(memm_free(a), MEMM_OK);
    EXPECT_FALSE(dynstr_isdynstring(a));
    EXPECT_STREQ(dynstr_getstring(a), DYNSTR_TEXT_DELETED);
    memm_test::clear_logs();
    EXPECT_EQ(memm_free(a), MEMM_ERR_HOOK_FAILED);
    EXPECT_EQ(log_count("[DYNSTR] loc_dynstr_free_ex: dynstr is already freed"), 1u);
    EXPECT_EQ(desc_of(pool)->delcount, 1u);
    EXPECT_EQ(dynstr_integrity_check(pool, 0), 1);
    // Writing into the placeholder is refused: it would revive dead space.
    EXPECT_EQ(dynstr_setstring(a, "revived"), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(dynstr_sprintf(a, "%s", "revived"), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(dynstr_addstring(a, "revived"), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(desc_of(pool)->delcount, 1u);
    EXPECT_EQ(dynstr_integrity_check(pool, 0), 1);
}

TEST(DynstrCollection, BufferFullStagesTextAndCollectsTheNextBuffer) {
    const uint32_t pool = start_pool(50, 64, 2); // two buffers of 32 bytes
    dynstr_pooldesc *p = desc_of(pool);
    dynstr *a = dynstr_fromstring(pool, "0123456789012345678"); // 20 bytes in buffer 0
    ASSERT_EQ(p->curbuffer, 0u);
    dynstr *b = dynstr_fromstring(pool, "abcdefghijklmno"); // 16 bytes: does not fit behind a
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(p->curbuffer, 1u);
    EXPECT_EQ(b->str, p->buf_base[1]);
    EXPECT_EQ(DYNSTR_BNR(b->flags), 1u);
    EXPECT_EQ(p->gc_reason[0][DYNSTR_GC_BUFFER_FULL], 1u);
    EXPECT_EQ(p->state & DYNSTR_STATE_DYNMEM_PENDING, 0u);
    EXPECT_STREQ(dynstr_getstring(a), "0123456789012345678");
}

TEST(DynstrCollection, OneBufferIsCompactedInPlaceKeepingOrder) {
    const uint32_t pool = start_pool(50, 40, 1);
    dynstr_pooldesc *p = desc_of(pool);
    const char *texts[] = {"aaaa", "bbbbbb", "cc", "ddddddd", "eee", "ff"};
    dynstr *r[6];
    for (int i = 0; i < 6; i++)
        r[i] = dynstr_fromstring(pool, texts[i]);
    ASSERT_EQ(p->buf_used[0], 30u);
    memm_free(r[1]);
    memm_free(r[3]); // two placeholders in the middle: 7 + 8 bytes
    dynstr *big = dynstr_fromstring(pool, "0123456789abcdefg"); // 18 bytes fit only after compaction
    ASSERT_NE(big, nullptr);
    EXPECT_EQ(p->gc_reason[0][DYNSTR_GC_BUFFER_FULL], 1u);
    EXPECT_EQ(std::string(p->buf_base[0], 38), std::string("aaaa\0cc\0eee\0ff\0", 15) + "0123456789abcdefg" +
                                                      std::string(6, '\0'));
    EXPECT_EQ(r[2]->str, p->buf_base[0] + 5);
    EXPECT_EQ(r[4]->prev, r[2]);
    EXPECT_EQ(p->gc_ctx, 2u);
    EXPECT_EQ(p->gc_bytes, 15u);
    EXPECT_EQ(p->delcount, 0u);
    EXPECT_TRUE(zero(p->buf_base[0] + 33, 7));
    EXPECT_EQ(dynstr_integrity_check(pool, 0), 1);
}

TEST(DynstrCollection, TooManyRecordsInTheCurrentBufferTriggerCtxBalance) {
    const uint32_t pool = start_pool(15, 1000, 2); // capacity 20, ctx_limit 10
    dynstr_pooldesc *p = desc_of(pool);
    for (int i = 0; i < 10; i++)
        dynstr_fromstring(pool, "x");
    EXPECT_EQ(p->gc_count, 0u);
    dynstr_fromstring(pool, "eleventh");
    EXPECT_EQ(p->gc_reason[0][DYNSTR_GC_CTX_BALANCE], 1u);
    EXPECT_EQ(p->curbuffer, 1u);
}

TEST(DynstrCollection, ReserveSlotMakesTheNextPlacementCollect) {
    const uint32_t pool = start_pool(2, 100, 1); // 7 slots, 5 of them reserve
    dynstr_pooldesc *p = desc_of(pool);
    dynstr_fromstring(pool, "a"); // record and old-text record: 3 slots with the anchor
    EXPECT_EQ(p->gc_reason[0][DYNSTR_GC_CTX_DEPLETED], 1u);
    EXPECT_EQ(p->ctx_depleted, 0u);
    EXPECT_EQ(memm_get_pool_nolock(pool)->cur_count, 2u);
}

TEST(DynstrCollection, FullRecordPoolCollectsEachBufferOnceThenGivesUp) {
    const uint32_t pool = start_pool(5, 400, 4); // 10 slots
    dynstr_pooldesc *p = desc_of(pool);
    while (memm_get_pool_nolock(pool)->cur_count < 9)
        ASSERT_NE(dynstr_calloc(pool), nullptr);
    const uint32_t gcs = p->gc_count;
    EXPECT_EQ(dynstr_calloc(pool), nullptr);
    EXPECT_EQ(p->gc_count - gcs, 4u);
}

TEST(DynstrCollection, CollectingAllocationReclaimsPlaceholderSlots) {
    const uint32_t pool = start_pool(6, 400, 1); // 11 slots
    dynstr_pooldesc *p = desc_of(pool);
    dynstr *keep = dynstr_fromstring(pool, "keep");
    dynstr *r[5];
    for (auto &d : r)
        d = dynstr_fromstring(pool, "r");
    memm_free(r[0]);
    memm_free(r[2]); // two placeholders hold slots
    while (memm_get_pool_nolock(pool)->cur_count < 10)
        ASSERT_NE(dynstr_calloc(pool), nullptr);
    const uint32_t gcs = p->gc_reason[0][DYNSTR_GC_CTX_DEPLETED];
    EXPECT_NE(dynstr_calloc(pool), nullptr);
    EXPECT_EQ(p->gc_reason[0][DYNSTR_GC_CTX_DEPLETED], gcs + 1);
    EXPECT_EQ(p->delcount, 0u);
    EXPECT_STREQ(dynstr_getstring(keep), "keep");
    EXPECT_STREQ(dynstr_getstring(r[3]), "r");
}

TEST(DynstrOutOfMemory, TextLargerThanEveryBufferEmptiesTheRecord) {
    const uint32_t pool = start_pool(20, 64, 2);
    dynstr_pooldesc *p = desc_of(pool);
    const std::string big(40, 'x');
    dynstr *d = dynstr_fromstring(pool, "small");
    memm_test::clear_logs();
    EXPECT_EQ(dynstr_setstring(d, big.c_str()), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(d->str, nullptr);
    EXPECT_EQ(DYNSTR_SIZE(d->flags), 0u);
    EXPECT_NE(d->flags & DYNSTR_FLAG_LITERAL, 0u);
    EXPECT_STREQ(dynstr_getstring(d), "");
    EXPECT_NE(p->state & DYNSTR_STATE_DEPLETED, 0u);
    EXPECT_EQ(log_count("Out of string buffer memory for pool 's' !!!!!!!!!!!!!!!!!!!!!!!!!!!!!!"), 1u);
    EXPECT_EQ(dynstr_fromstring(pool, big.c_str()), nullptr);
    EXPECT_EQ(memm_get_pool_nolock(pool)->cur_count, 2u); // anchor and d
    EXPECT_EQ(dynstr_integrity_check(pool, 0), 1);
}

TEST(DynstrOutOfMemory, OnlyFourListingsInTheLifeOfTheProcess) {
    const uint32_t pool = start_pool(20, 64, 2);
    const std::string big(40, 'x');
    for (int i = 0; i < 6; i++)
        EXPECT_EQ(dynstr_fromstring(pool, big.c_str()), nullptr);
    EXPECT_EQ(log_count("Out of string buffer memory for pool 's' !!!!!!!!!!!!!!!!!!!!!!!!!!!!!!"), 6u);
    const std::string list = memm_test::read_report_file(memm_test::fmt("/root/memm_list_pool_depleted_%d", getpid()));
    size_t listings = 0;
    for (size_t at = list.find("Creation reason=pool_depleted"); at != std::string::npos;
         at = list.find("Creation reason=pool_depleted", at + 1))
        listings++;
    EXPECT_EQ(listings, 4u);
}

TEST(DynstrSizes, LongFormRecordsAndPlaceholders) {
    const uint32_t pool = start_pool(20, 300000, 1);
    const std::string t1(40000, 'a'), t2(40000, 'b');
    dynstr *a = dynstr_fromstring(pool, t1.c_str());
    dynstr *b = dynstr_fromstring(pool, t2.c_str());
    dynstr_fromstring(pool, "tail");
    EXPECT_EQ(a->flags & DYNSTR_FLAG_LONG, 0u);
    ASSERT_EQ(dynstr_setstring(a, (t1 + t2).c_str()), MEMM_OK);
    EXPECT_NE(a->flags & DYNSTR_FLAG_LONG, 0u);
    EXPECT_EQ(DYNSTR_SIZE(a->flags), 80001u);
    EXPECT_EQ(dynstr_strlen(a), 80000u);
    EXPECT_EQ(dynstr_getmaxsize(a), 0u);
    EXPECT_EQ(dynstr_setmaxsize(a, 100000), MEMM_OK);
    EXPECT_EQ(DYNSTR_SIZE(a->flags), 80001u);
    memm_free(b); // merges with a's old text into one long placeholder
    const dynstr *merged = desc_of(pool)->buf_first[0];
    EXPECT_EQ(merged->flags & (DYNSTR_FLAG_LONG | DYNSTR_FLAG_DELETED), DYNSTR_FLAG_LONG | DYNSTR_FLAG_DELETED);
    EXPECT_EQ(DYNSTR_SIZE(merged->flags), 80002u);
    EXPECT_EQ(dynstr_integrity_check(pool, 0), 1);
    ASSERT_EQ(dynstr_setstring(a, "short"), MEMM_OK);
    EXPECT_EQ(a->flags & (DYNSTR_FLAG_LONG | DYNSTR_FLAG_LITERAL), 0u);
    EXPECT_EQ(DYNSTR_SIZE(a->flags), 6u);
}

TEST(DynstrSizes, BufferLimitsAndMaximumSizes) {
    ASSERT_EQ(memm_init(16, 4), MEMM_OK);
    EXPECT_EQ(dynstr_initpool2("huge", 10, int32_t(DYNSTR_LONG_SIZE_MAX) + 1, 1), MEMM_INVALID_POOL);
    EXPECT_EQ(log_count("[DYNSTR] dynstr_initpool(): invalid buffer size 134217728"), 1u);
    EXPECT_EQ(dynstr_initpool2("none", 10, 100, 0), MEMM_INVALID_POOL);
    EXPECT_EQ(log_count("[DYNSTR] dynstr_initpool(): invalid buffer count 0"), 1u);
    EXPECT_EQ(dynstr_initpool2("five", 10, 100, 5), MEMM_INVALID_POOL);
    EXPECT_EQ(log_count("dynstr_initpool(): poolcount exceeds maximum"), 1u);

    const uint32_t pool = dynstr_initpool2("s", 10, 64, 1);
    const std::string exact(63, 'e');
    dynstr *d = dynstr_fromstring(pool, exact.c_str());
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(desc_of(pool)->buf_used[0], 64u);
    EXPECT_EQ(dynstr_getmaxsize(dynstr_calloc_maxlen(pool, 2046)), 2047u);
    EXPECT_EQ(dynstr_getmaxsize(dynstr_calloc_maxlen(pool, 2047)), 0u);
    memm_free(d);
    dynstr *m = dynstr_calloc_maxsize(pool, 5);
    EXPECT_EQ(dynstr_setstring(m, "abcdefgh"), MEMM_OK);
    EXPECT_STREQ(dynstr_getstring(m), "abcd");
    EXPECT_EQ(dynstr_getmaxsize(m), 5u);
}

TEST(DynstrPools, BufferCountAndSizeFollowTheRecordCount) {
    ASSERT_EQ(memm_init(16, 3), MEMM_OK);
    const dynstr_pooldesc *two = desc_of(dynstr_initpool("two", 10000, 1001));
    const dynstr_pooldesc *four = desc_of(dynstr_initpool("four", 10001, 1001));
    EXPECT_EQ(two->buffercount, 2);
    EXPECT_EQ(two->buffersize, 500);
    EXPECT_EQ(four->buffercount, 4);
    EXPECT_EQ(four->buffersize, 250);
    EXPECT_EQ(memm_get_pool_nolock(four->poolid)->alloc_count, 10006u);
    EXPECT_EQ(memm_get_pool_nolock(four->poolid)->cur_count, 1u);
    EXPECT_EQ(dynstr_init(3), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(log_count("dynstring init failed"), 1u);
    EXPECT_EQ(dynstr_getstring(four->anchor), std::string(DYNSTR_TEXT_NOT_DYNSTR));
    EXPECT_EQ(dynstr_initpool("huge", 0x7FFFFFFBu, 1000), MEMM_INVALID_POOL);
    EXPECT_EQ(log_count("[DYNSTR] dynstr_initpool(): invalid record count 2147483643"), 1u);
}

TEST(DynstrPools, SetMaxsizeAndReset) {
    const uint32_t pool = start_pool(20, 10000, 1);
    dynstr *d = dynstr_fromstring(pool, "01234567890123456789");
    EXPECT_EQ(dynstr_setmaxsize(d, 10), MEMM_OK);
    EXPECT_STREQ(dynstr_getstring(d), "012345678");
    EXPECT_EQ(dynstr_setmaxsize(d, 0), MEMM_OK);
    EXPECT_STREQ(dynstr_getstring(d), "012345678");
    const std::string long_text(4000, 'q');
    ASSERT_EQ(dynstr_setstring(d, long_text.c_str()), MEMM_OK);
    EXPECT_EQ(dynstr_setmaxsize(d, 3000), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(dynstr_strlen(d), 2999u);
    EXPECT_EQ(dynstr_getmaxsize(d), 0u);
    ASSERT_EQ(dynstr_setmaxsize(d, 16), MEMM_OK);
    // No slot left for the old text: the cut fails and the maximum stays.
    std::vector<dynstr *> filler;
    while (dynstr *f = dynstr_calloc(pool))
        filler.push_back(f);
    memm_lock("test");
    while (void *f = memm_calloc_nolock_nogc(pool))
        filler.push_back(static_cast<dynstr *>(f));
    memm_unlock();
    EXPECT_EQ(dynstr_setmaxsize(d, 4), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(dynstr_strlen(d), 15u);
    EXPECT_EQ(dynstr_getmaxsize(d), 16u);
    EXPECT_EQ(dynstr_integrity_check(pool, 0), 1);
    for (dynstr *f : filler)
        memm_free(f);
    EXPECT_EQ(dynstr_reset(d), MEMM_OK);
    EXPECT_EQ(d->str, nullptr);
    EXPECT_EQ(dynstr_getmaxsize(d), 0u);
    EXPECT_EQ(dynstr_reset(nullptr), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(log_count("[DYNSTR] \"dynstr_reset() invalid param\""), 1u);
    EXPECT_EQ(dynstr_setmaxsize(nullptr, 3), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(log_count("[DYNSTR] \"dynstr_setmaxsize() invalid param\""), 1u);
}

TEST(DynstrReading, PlaceholderTexts) {
    const uint32_t pool = start_pool(20, 100, 1);
    const uint32_t plain = memm_initpool("plain", 4, 32, nullptr);
    memm_pool_options options = {};
    options.cookie = memm_calloc(plain); // a pool object, but no string-pool descriptor
    const uint32_t cookied = memm_initpool("cookied", 4, 32, &options);
    EXPECT_STREQ(dynstr_getstring(nullptr), DYNSTR_TEXT_NOT_MEMMSTR);
    EXPECT_STREQ(dynstr_getstring(static_cast<dynstr *>(memm_calloc(plain))), DYNSTR_TEXT_NOT_MEMMSTR);
    EXPECT_STREQ(dynstr_getstring(static_cast<dynstr *>(memm_calloc(cookied))), DYNSTR_TEXT_NOT_DYNSTR);
    EXPECT_EQ(dynstr_fromstring(plain, "x"), nullptr);
    EXPECT_EQ(dynstr_fromstring(pool, nullptr), nullptr);
    dynstr *empty = dynstr_fromstring(pool, "");
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->str, nullptr);
    EXPECT_EQ(DYNSTR_SIZE(empty->flags), 0u);
    EXPECT_STREQ(dynstr_getstring(empty), "");
    EXPECT_EQ(dynstr_setstring(empty, nullptr), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(dynstr_setstring(nullptr, "x"), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(dynstr_strlen(nullptr), 0u);
}

} // namespace
