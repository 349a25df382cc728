// Pool counts, the usage table, the integrity check as reports run it, and the
// time report, compared with text built from the reports' own formats.
#include <gtest/gtest.h>
#include <string.h>

#include "dynstr.h"
#include "memm.h"
#include "report_files.h"
#include "syslog_capture.h"

using namespace memm_test;

namespace {

std::string header() {
    return fmt("%3s %-25s %-22s %-31s %-18s\r\n", "id", "pool name", "count: cur,max,avail",
               "bytes: cur,max,avail  (max.%)", "ref cur,max,avail") +
           fmt("%3s %-25s %-22s %-31s %-18s\r\n", "--", "---------", "--------------------",
               "-----------------------------", "-----------------");
}

std::string row(uint32_t id, const std::string &label, int cur, int max, int avail, int slot, const char *mark) {
    return fmt("%3d %-25s %6d,%6d,%6d   %6d,%6d,%6d  (%1s%3d%%)   ", int(id), label.c_str(), cur, max, avail,
               cur * slot, max * slot, avail * slot, mark, avail ? max * 100 / avail : 0);
}

std::string refs(int cur, int max) { return fmt("%5d,%5d", cur, max); }

std::string total(int cur, int max, int avail) {
    return fmt(" %-29s %-21s %-30s\r\n", "----------------------", "", "-----------------------------") +
           fmt(" %-29s %-21s %6d,%6d,%6d  ( %3d%%)\r\n", "Total usage", "", cur, max, avail, max * 100 / avail) +
           "\r\n";
}

// The table of one pool without references: its row, then its hook's lines.
std::string single(const std::string &row, const std::string &lines, int cur, int max, int avail) {
    return header() + row + refs(0, 0) + lines + "\r\n" + total(cur, max, avail);
}

int g_cookie;
// Adds lines and bytes to the usage table's totals; the time report gives it none.
void extra_lines(void *cookie, uint32_t *cur, uint32_t *max, uint32_t *avail, memm_print_fn print) {
    if (!cur || !max || !avail)
        return (void)print("    - hook without totals\r\n");
    print("\r\n    - extra of %s", cookie == &g_cookie ? "mine" : "?");
    *cur += 100, *max += 200, *avail += 1000;
}

} // namespace

TEST(ReportCounts, PoolAndOverallCounts) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    const uint32_t a = memm_initpool("app_a", 10, 8, nullptr);  // 24-byte slots
    const uint32_t b = memm_initpool("app_b", 20, 32, nullptr); // 48-byte slots
    memm_initpool("other", 5, 8, nullptr);
    uint32_t v[4] = {7, 7, 7, 7};
    for (uint32_t bad : {MEMM_INVALID_POOL, 8u, 5u}) // 8: beyond the capacity; 5: a free descriptor slot
        EXPECT_EQ(memm_get_stats(bad, &v[0], &v[1], &v[2]), MEMM_ERR_INVALID_ARG) << bad;
    EXPECT_EQ(memm_get_stats(a, nullptr, &v[1], &v[2]), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(memm_get_stats(a, &v[0], &v[1], nullptr), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(v[0] + v[1] + v[2], 21u); // nothing stored

    fill(a, 12); // two of them in an extension pool
    uint32_t deleted = 0, reserve_flag = 0;
    memm_get_currentcount_ptr(b, &deleted, &reserve_flag);
    std::vector<void *> objs = fill(b, 6);
    deleted = 4; // the user's own count is subtracted, and its peak (6, not the pool's 8) is the maximum
    memm_free(objs[5]);
    fill(b, 3);
    ASSERT_EQ(memm_get_stats(b, &v[0], &v[1], &v[2]), MEMM_OK);
    EXPECT_EQ(std::vector<uint32_t>(v, v + 3), (std::vector<uint32_t>{4, 6, 20}));

    // Root pools alone: the extension's two objects stay out.
    EXPECT_EQ(memm_get_overall_stats("app_", &v[0], &v[1], &v[2], &v[3]), MEMM_OK);
    EXPECT_EQ(std::vector<uint32_t>(v, v + 4), (std::vector<uint32_t>{10 + 4, 10 + 6, 10 + 20, 10 * 24 + 4 * 48}));
    EXPECT_EQ(memm_get_overall_stats("app_", nullptr, nullptr, nullptr, nullptr), MEMM_OK);
}

TEST(ReportUsageTable, SinglePoolsNamesHooksAndPrefixes) {
    ASSERT_EQ(memm_init(8, 4), MEMM_OK);
    const uint32_t id = memm_initpool("alpha", 10, 8, nullptr);
    memm_free(fill(id, 3)[1]);
    const char *whole = "abcdefghijklmnopqrstuvwxy", *too_long = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123"; // 25 and 30
    const uint32_t w = memm_initpool(whole, 2, 8, nullptr), t = memm_initpool(too_long, 2, 8, nullptr);
    memm_pool_options opts{};
    opts.print_stats = extra_lines;
    opts.cookie = &g_cookie;
    const uint32_t hooked = memm_initpool("hooked", 10, 8, &opts);
    fill(hooked, 5);
    // A string pool: a deleted placeholder between two records is not counted;
    // the buffer lines and bytes its hook gives follow its row.
    const uint32_t texts = dynstr_initpool("texts", 20, 4096);
    dynstr *gone = dynstr_fromstring(texts, "first");
    dynstr_fromstring(texts, "second");
    memm_free(gone);
    const memm_pooldesc *p = memm_get_pool_nolock(texts);
    uint32_t v[3], bytes[3] = {};
    ASSERT_EQ(memm_get_stats(texts, &v[0], &v[1], &v[2]), MEMM_OK);
    EXPECT_EQ(v[0], p->cur_count - 1);
    take_printed();
    p->options.print_stats(p->options.cookie, &bytes[0], &bytes[1], &bytes[2], print_capture);
    const std::string lines = take_printed();
    const int s = int(p->slotsize), cur = int(v[0]), max = int(v[1]), avail = int(v[2]);

    const std::string alpha = single(row(id, "alpha", 2, 3, 10, 24, " "), "", 2 * 24, 3 * 24, 10 * 24);
    const std::pair<const char *, std::string> cases[] = {
        {"alpha", alpha},
        {"alp", alpha},
        {"alphabet", "\r\n"},
        {"zzz", "\r\n"},
        {"abc", single(row(w, whole, 0, 0, 2, 24, " "), "", 0, 0, 48)},
        {"ABC", single(row(t, std::string(too_long, 22) + "...", 0, 0, 2, 24, " "), "", 0, 0, 48)},
        {"hooked", single(row(hooked, "hooked", 5, 5, 10, 24, " "), "\r\n    - extra of mine", 5 * 24 + 100,
                          5 * 24 + 200, 10 * 24 + 1000)},
        {"texts", single(row(texts, "texts", cur, max, avail, s, " "), lines, cur * s + int(bytes[0]),
                         max * s + int(bytes[1]), avail * s + int(bytes[2]))},
    };
    for (const auto &[prefix, table] : cases)
        EXPECT_EQ(usage_table(prefix), table) << prefix;
}

TEST(ReportUsageTable, PoolZeroAndAChainWithExtensions) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    const uint32_t root = memm_initpool("chain", 10, 8, nullptr);
    std::vector<void *> objs = fill(root, 16); // 10 in the root, 3 in each of two extensions
    const uint32_t e1 = memm_get_poolid(objs[10]), e2 = memm_get_poolid(objs[13]);
    memm_refalloc(objs[0]);
    memm_refalloc(objs[0]);
    memm_free(objs[0]);      // root: ref_cur 1, ref_max 2
    memm_refalloc(objs[11]); // first extension: ref_cur 1, ref_max 1

    // Pool 0 shows the highest reference count of any pool. Extension rows
    // count bytes with the root's slot size and carry running reference sums.
    const int s0 = int(memm_get_pool_nolock(0)->slotsize), n = 16 * 24;
    auto table = [&](const char *m1, const char *m2, const char *m3) {
        return header() + row(0, MEMM_POOLDESC_NAME, 4, 4, 8, s0, " ") + fmt("  obj:%5d,%5d\r\n", 2, 32767) +
               row(root, "chain", 10, 10, 10, 24, m1) + refs(1, 2) + "\r\n" +
               row(e1, " - extension -", 3, 3, 3, 24, m2) + refs(2, 2) + "\r\n" +
               row(e2, " - extension -", 3, 3, 3, 24, m3) + refs(2, 2) + "\r\n" +
               row(root, " ---- sum ----", 16, 16, 16, 24, " ") + "\r\n" + total(4 * s0 + n, 4 * s0 + n, 8 * s0 + n);
    };
    EXPECT_EQ(usage_table(""), table("+", "+", " "));
    memm_get_pool_nolock(e1)->flags |= MEMM_POOLFLAG_DEPLETION_REPORTED;
    EXPECT_EQ(usage_table(nullptr), table("+", ">", ">"));
    memm_get_pool_nolock(root)->flags |= MEMM_POOLFLAG_DEPLETION_REPORTED;
    EXPECT_EQ(usage_table(""), table(">", ">", ">"));
}

TEST(ReportIntegrity, EachFaultIsDescribedAndTheReportsGoOn) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    const uint32_t id = memm_initpool("victim", 4, 8, nullptr);
    memm_pooldesc *p = memm_get_pool_nolock(id);
    uint8_t *used = static_cast<uint8_t *>(fill(id, 2)[1]) - MEMM_OBJHDR_SIZE, *free_slot = p->free_head;
    // Patches `size` bytes at `at`, expects `msg` from the table and the log, then repairs.
    auto fault = [&](void *at, const void *value, size_t size, const std::string &msg) {
        const std::string saved(static_cast<const char *>(at), size), line = "[MEMM] integrity check failed: " + msg;
        memcpy(at, value, size);
        const std::string out = usage_table("");
        EXPECT_EQ(out.rfind(line + "\r\n", 0), 0u) << out;
        EXPECT_NE(out.find("Total usage"), std::string::npos) << out; // the table follows
        uint32_t cur = 0;
        memm_get_overall_stats("victim", &cur, nullptr, nullptr, nullptr);
        EXPECT_EQ(log_count(line), 1u) << msg;
        EXPECT_EQ(cur, p->cur_count); // and the counts are still summed
        memcpy(at, saved.data(), size);
    };
    const uint32_t other_id = 5, three = 3;
    const char *broken = "pool %d:%s has bookkeeping error (free[%d] + used[%d] != alloc[%d])\r\n";
    fault(used, &other_id, 4,
          fmt("pool %d:%s item %d:0x%08lx has invalid poolid: %d", int(id), "victim", 1, addr(used), 5));
    fault(free_slot, &id, 4,
          fmt("pool %d:%s has used item[0x%08lx] in free list\r\n", int(id), "victim", addr(free_slot)));
    fault(&p->cur_count, &three, 4, fmt(broken, int(id), "victim", 2, 3, 4));
    static uint8_t elsewhere[64];
    const uint8_t *outside = elsewhere; // a free list leaving the pool is counted up to there, not followed
    fault(free_slot + MEMM_OBJHDR_SIZE, &outside, sizeof outside, fmt(broken, int(id), "victim", 1, 2, 4));

    // Only the first fault is described.
    memm_get_pool_nolock(memm_initpool("later", 4, 8, nullptr))->cur_count = 1;
    p->cur_count = 3;
    EXPECT_EQ(usage_table("").rfind("[MEMM] integrity check failed: " + fmt(broken, int(id), "victim", 2, 3, 4), 0),
              0u);
}

TEST(ReportTimestats, AllocationSharesAndReleaseCounts) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    memm_pool_options opts{};
    opts.print_stats = extra_lines;
    const uint32_t timed = memm_initpool("timed", 10, 8, &opts);
    const uint32_t tally = memm_initpool("tally", 10, 8, nullptr);
    memm_initpool("tidle", 10, 8, nullptr);     // no counts: no lines
    std::vector<void *> objs = fill(timed, 11); // 10 from the free list, 1 through a new extension
    const uint32_t ext = memm_get_poolid(objs[10]);
    memm_free(objs[0]);
    memm_free(objs[10]);
    uint64_t *calls = memm_get_pool_nolock(tally)->alloc_calls; // none through an extension: no dynpool line
    calls[MEMM_ALLOC_CALLS_TOTAL] = 200, calls[MEMM_ALLOC_CALLS_FIRST_FREE] = 150;

    // The duration columns stay at zero.
    const std::string zeros = fmt("%5lu.%03lu /%4lu.%03lu /%4lu.%03lu\r\n", 0ul, 0ul, 0ul, 0ul, 0ul, 0ul);
    auto heading = [](const char *third) {
        return fmt("%3s %-25s  %-35s \r\n", "id", "pool name", third) +
               fmt("%3s %-25s  %-35s \r\n", "--", "---------", "------------------------------");
    };
    auto alloc = [&](uint32_t id, const char *name, unsigned long n) {
        return fmt("%3d %-25s  %8lu: ", int(id), name, n) + zeros;
    };
    auto share = [&](const char *label, unsigned long pct) { return fmt("     - %-22s %8lu%%: ", label, pct) + zeros; };
    const std::string freed = fmt("%8lu: %lu.%03lu/%lu.%03lu/%lu.%03lu\r\n", 1ul, 0ul, 0ul, 0ul, 0ul, 0ul, 0ul) +
                              "    - hook without totals\r\n";
    testing::internal::CaptureStdout();
    EXPECT_EQ(memm_print_timestats("t"), 0);
    // Shares truncate: 10 of 11 is 90%, 1 of 11 is 9%.
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              heading("alloc cnt: total/avg/max (msec)") + alloc(timed, "timed", 11) + share("first_free", 90) +
                  share("dynpool", 9) + alloc(tally, "tally", 200) + share("first_free", 75) + "\r\n" +
                  heading("free cnt: total/avg/max (msec)") + fmt("%3d %-25s  ", int(timed), "timed") + freed +
                  fmt("%3d %-25s  ", int(ext), "timed") + freed);
}
