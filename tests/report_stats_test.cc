// Pool counts, overall counts and the usage table, compared with text built
// from the table's own formats.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "memm.h"
#include "report_files.h"
#include "syslog_capture.h"

using memm_test::fmt;
using memm_test::print_capture;
using memm_test::take_printed;

namespace {

std::string header() {
    return fmt("%3s %-25s %-22s %-31s %-18s\r\n", "id", "pool name", "count: cur,max,avail",
               "bytes: cur,max,avail  (max.%)", "ref cur,max,avail") +
           fmt("%3s %-25s %-22s %-31s %-18s\r\n", "--", "---------", "--------------------",
               "-----------------------------", "-----------------");
}

std::string row(uint32_t id, const char *label, int cur, int max, int avail, int slotsize, const char *mark) {
    return fmt("%3d %-25s %6d,%6d,%6d   %6d,%6d,%6d  (%1s%3d%%)   ", int(id), label, cur, max, avail, cur * slotsize,
               max * slotsize, avail * slotsize, mark, avail ? max * 100 / avail : 0);
}

std::string refs(int cur, int max) { return fmt("%5d,%5d", cur, max); }

std::string total(int cur, int max, int avail) {
    return fmt(" %-29s %-21s %-30s\r\n", "----------------------", "", "-----------------------------") +
           fmt(" %-29s %-21s %6d,%6d,%6d  ( %3d%%)\r\n", "Total usage", "", cur, max, avail, max * 100 / avail);
}

std::string table_for(const char *prefix) {
    take_printed();
    memm_print_stats2(prefix, print_capture);
    return take_printed();
}

std::vector<void *> fill(uint32_t id, int n) {
    std::vector<void *> objs;
    for (int i = 0; i < n; i++)
        objs.push_back(memm_calloc(id));
    return objs;
}

} // namespace

TEST(ReportPoolCounts, RejectBadArgumentsAndStoreNothing) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("counts", 4, 8, nullptr);
    uint32_t cur = 7, max = 7, avail = 7;
    EXPECT_EQ(memm_get_stats(MEMM_INVALID_POOL, &cur, &max, &avail), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(memm_get_stats(8, &cur, &max, &avail), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(memm_get_stats(5, &cur, &max, &avail), MEMM_ERR_INVALID_ARG); // a free descriptor slot
    EXPECT_EQ(memm_get_stats(id, nullptr, &max, &avail), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(memm_get_stats(id, &cur, &max, nullptr), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(cur + max + avail, 21u);
}

TEST(ReportPoolCounts, SubtractTheUsersBaseCountAndUseItsPeak) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("based", 10, 8, nullptr);
    uint32_t deleted = 0, reserve_flag = 0;
    ASSERT_NE(memm_get_currentcount_ptr(id, &deleted, &reserve_flag), nullptr);
    std::vector<void *> objs = fill(id, 6); // base_peak 6
    deleted = 4;
    memm_free(objs[5]);
    uint32_t cur, max, avail;
    ASSERT_EQ(memm_get_stats(id, &cur, &max, &avail), MEMM_OK);
    EXPECT_EQ(cur, 1u);
    EXPECT_EQ(max, 6u);
    EXPECT_EQ(avail, 10u);
    memm_calloc(id); // cur_count 6 - 4: the peak stays 6
    ASSERT_EQ(memm_get_stats(id, &cur, &max, &avail), MEMM_OK);
    EXPECT_EQ(cur, 2u);
    EXPECT_EQ(max, 6u);
}

TEST(ReportOverallCounts, SumSelectedRootPoolsWithoutTheirExtensions) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t a = memm_initpool("app_a", 10, 8, nullptr);  // 24-byte slots
    uint32_t b = memm_initpool("app_b", 20, 32, nullptr); // 48-byte slots
    memm_initpool("other", 5, 8, nullptr);
    fill(a, 12); // two of them in an extension pool
    fill(b, 3);
    uint32_t cur, max, avail, bytes;
    EXPECT_EQ(memm_get_overall_stats("app_", &cur, &max, &avail, &bytes), MEMM_OK);
    EXPECT_EQ(cur, 10u + 3u);
    EXPECT_EQ(max, 10u + 3u);
    EXPECT_EQ(avail, 10u + 20u);
    EXPECT_EQ(bytes, 10u * 24 + 3u * 48);
    EXPECT_EQ(memm_get_overall_stats("app_", nullptr, nullptr, nullptr, nullptr), MEMM_OK);
}

TEST(ReportUsageTable, SinglePool) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("alpha", 10, 8, nullptr);
    std::vector<void *> objs = fill(id, 3);
    memm_free(objs[1]);
    EXPECT_EQ(table_for("alpha"),
              header() + row(id, "alpha", 2, 3, 10, 24, " ") + refs(0, 0) + "\r\n" + total(48, 72, 240) + "\r\n");
    EXPECT_EQ(table_for("alpha"), table_for("alp")); // a prefix selects by its length
    EXPECT_EQ(table_for("alphabet"), "\r\n");
    EXPECT_EQ(table_for("zzz"), "\r\n");
}

TEST(ReportUsageTable, PoolZeroShowsTheHighestReferenceCountOfAnyPool) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("beta", 4, 8, nullptr);
    void *obj = memm_calloc(id);
    memm_refalloc(obj);
    memm_refalloc(obj);
    memm_free(obj);
    const memm_pooldesc *p0 = memm_get_pool_nolock(0);
    const int slot = int(p0->slotsize);
    EXPECT_EQ(table_for(MEMM_POOLDESC_NAME),
              header() + row(0, MEMM_POOLDESC_NAME, 2, 2, 8, slot, " ") + fmt("  obj:%5d,%5d", 2, 32767) + "\r\n" +
                  total(2 * slot, 2 * slot, 8 * slot) + "\r\n");
}

TEST(ReportUsageTable, ChainRowsMarksSumRowAndReferenceColumns) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t root = memm_initpool("chain", 10, 8, nullptr);
    std::vector<void *> objs = fill(root, 16);
    const uint32_t e1 = memm_get_poolid(objs[10]), e2 = memm_get_poolid(objs[13]);
    ASSERT_NE(e1, e2);
    memm_refalloc(objs[0]);
    memm_refalloc(objs[0]);
    memm_free(objs[0]); // root: ref_cur 1, ref_max 2
    memm_refalloc(objs[11]); // first extension: ref_cur 1, ref_max 1

    // Bytes are counted with the root's slot size, also for the extension rows.
    auto table = [&](const char *m1, const char *m2, const char *m3) {
        return header() + row(root, "chain", 10, 10, 10, 24, m1) + refs(1, 2) + "\r\n" +
               row(e1, " - extension -", 3, 3, 3, 24, m2) + refs(2, 2) + "\r\n" +
               row(e2, " - extension -", 3, 3, 3, 24, m3) + refs(2, 2) +
               fmt("\r\n%3d %-25s %6d,%6d,%6d   %6d,%6d,%6d  (%1s%3d%%)   ", int(root), " ---- sum ----", 16, 16, 16,
                   16 * 24, 16 * 24, 16 * 24, " ", 100) +
               "\r\n" + total(16 * 24, 16 * 24, 16 * 24) + "\r\n";
    };
    EXPECT_EQ(table_for("chain"), table("+", "+", " "));
    memm_get_pool_nolock(e1)->flags |= MEMM_POOLFLAG_DEPLETION_REPORTED;
    EXPECT_EQ(table_for("chain"), table("+", ">", ">"));
    memm_get_pool_nolock(root)->flags |= MEMM_POOLFLAG_DEPLETION_REPORTED;
    EXPECT_EQ(table_for("chain"), table(">", ">", ">"));
}

TEST(ReportUsageTable, LongNamesAreCutTo22CharactersAndDots) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    const char *longest_whole = "abcdefghijklmnopqrstuvwxy"; // 25
    const char *too_long = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123"; // 30
    uint32_t a = memm_initpool(longest_whole, 2, 8, nullptr);
    uint32_t b = memm_initpool(too_long, 2, 8, nullptr);
    EXPECT_EQ(table_for("abc"), header() + row(a, longest_whole, 0, 0, 2, 24, " ") + refs(0, 0) + "\r\n" +
                                    total(0, 0, 48) + "\r\n");
    EXPECT_EQ(table_for("ABC"), header() + row(b, "ABCDEFGHIJKLMNOPQRSTUV...", 0, 0, 2, 24, " ") + refs(0, 0) +
                                    "\r\n" + total(0, 0, 48) + "\r\n");
}

namespace {
int g_cookie;
void extra_lines(void *cookie, uint32_t *cur, uint32_t *max, uint32_t *avail, memm_print_fn print) {
    print("\r\n    - extra of %s", cookie == &g_cookie ? "mine" : "?");
    *cur += 100;
    *max += 200;
    *avail += 1000;
}
} // namespace

TEST(ReportUsageTable, PrintStatsHookAddsLinesAndBytes) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    memm_pool_options opts{};
    opts.print_stats = extra_lines;
    opts.cookie = &g_cookie;
    uint32_t id = memm_initpool("hooked", 10, 8, &opts);
    fill(id, 5);
    EXPECT_EQ(table_for("hooked"), header() + row(id, "hooked", 5, 5, 10, 24, " ") + refs(0, 0) +
                                       "\r\n    - extra of mine" + "\r\n" + total(220, 320, 1240) + "\r\n");
}
