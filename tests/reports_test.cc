// The reports' exact texts: the usage table, the integrity check's
// messages, the time report, report files, object lines and listings
// (tagging is the pool model's), and the string pools' record lines,
// integrity check and buffer statistics, compared with text built from the
// reports' own formats.
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "fixture.h"
#include "model/string_storage.h"
#include "report_files.h"

using namespace memm_test;
using memm_model::string_pool;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

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

std::string list_header(const char *tagged, const char *hide, const char *reason) {
    return fmt("\r\n\r\nList created with option:OnlyTagged=%s and hideDeletedDynstr=%s\r\n", tagged, hide) +
           fmt("Creation reason=%s\r\n\n", reason);
}

std::string dump_info(const std::string &info) { return fmt("\r\n\rInfo: %s\r\n", info.c_str()); }

std::string object_line(void *obj, const char *name, int index, int refs = 1, bool tagged = false) {
    const memm_objhdr *hdr = reinterpret_cast<memm_objhdr *>(static_cast<uint8_t *>(obj) - MEMM_OBJHDR_SIZE);
    return fmt("%d.%s.%d.0x%08lx allocfrom=%p", int(memm_get_poolid(obj)), name, index, addr(obj), hdr->allocfrom) +
           (refs > 1 ? fmt(".[%d refs]\n", refs) : "") + (tagged ? ".[tagged]\n" : ".[untagged]\n");
}

std::string entry(void *obj, const char *name, int index, bool tagged = false) {
    return " \r\n" + object_line(obj, name, index, 1, tagged) + "\r\n";
}

std::string section(const char *name, int cur, int max, int avail, const std::string &objects,
                    const char *hook_lines = "") {
    return fmt("\r\n====== LIST OF STATISTICS OF POOL %s ======\r\n", name) +
           fmt("%s%susage cur/max/avail (max.%%): %d/%d/%d (%d%%)\r\n", name, "..........................", cur, max,
               avail, max * 100 / avail) +
           hook_lines + fmt("\r\n====== LIST OF OBJECTS IN POOL %s ======\r\n", name) + objects;
}

std::string printed(void *obj, int details) {
    take_printed();
    return memm_printobject2(obj, details, print_capture), take_printed();
}



// Listings hand the hook scratch totals, never null ones.
const char kPoolLines[] = "    - pool lines\r\n";
void pool_lines(void *, uint32_t *cur, uint32_t *max, uint32_t *avail, memm_print_fn print) {
    *cur += *max + *avail;
    print("%s", kPoolLines);
}

void *allocfrom(const void *obj) {
    void *at;
    memcpy(&at, static_cast<const char *>(obj) - MEMM_OBJHDR_SIZE + 8, sizeof at);
    return at;
}
const memm_pool_options &hooks(uint32_t pool) { return memm_get_pool_nolock(pool)->options; }
std::string record_line(uint32_t pool, const dynstr *d) {
    hooks(pool).print2(const_cast<dynstr *>(d), print_capture);
    return take_printed();
}

} // namespace

TEST(ReportUsageTable, SinglePoolsNamesHooksAndPrefixes) {
    ASSERT_EQ(memm_init(8, 4), MEMM_OK);
    const uint32_t id = memm_initpool("alpha", 10, 8, nullptr);
    memm_free(fill(id, 3)[1]);
    const char *too_long = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123";
    const uint32_t t = memm_initpool(too_long, 2, 8, nullptr);
    memm_pool_options opts{};
    opts.print_stats = extra_lines;
    opts.cookie = &g_cookie;
    const uint32_t hooked = memm_initpool("hooked", 10, 8, &opts);
    fill(hooked, 5);
    const std::pair<const char *, std::string> cases[] = {
        {"alp", single(row(id, "alpha", 2, 3, 10, 24, " "), "", 2 * 24, 3 * 24, 10 * 24)},
        {"alphabet", "\r\n"},
        {"ABC", single(row(t, std::string(too_long, 22) + "...", 0, 0, 2, 24, " "), "", 0, 0, 48)},
        {"hooked", single(row(hooked, "hooked", 5, 5, 10, 24, " "), "\r\n    - extra of mine", 5 * 24 + 100,
                          5 * 24 + 200, 10 * 24 + 1000)},
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

TEST(ReportFiles, DepletionWritesOneDumpAndOneListing) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    const uint32_t id = memm_initpool("scarce", 260, 8, nullptr);
    memm_initpool("scarce_too", 2, 8, nullptr); // its name begins with the depleted pool's
    const uint32_t faulty = memm_initpool("faulty", 2, 8, nullptr);
    memm_get_pool_nolock(faulty)->cur_count = 1; // the dump's info line carries the integrity message
    const std::string msg =
        fmt("pool %d:%s has bookkeeping error (free[%d] + used[%d] != alloc[%d])\r\n", int(faulty), "faulty", 2, 1, 2);
    memm_disallow_expansion(id);
    fill(id, 260);
    ASSERT_EQ(memm_calloc(id), nullptr);

    const std::string dump_name = fmt("/root/memm_dump_pool_depleted_%d", int(getpid()));
    const std::string list_name = fmt("/root/memm_list_pool_depleted_%d", int(getpid()));
    EXPECT_EQ(report_files(), (std::vector<std::string>{dump_name, list_name}));
    // The dump (all pools) was written before the pool was marked as reported.
    memm_pooldesc *p = memm_get_pool_nolock(id);
    p->flags &= uint8_t(~MEMM_POOLFLAG_DEPLETION_REPORTED);
    const std::string dump = dump_info(msg) + usage_table(nullptr);
    p->flags |= MEMM_POOLFLAG_DEPLETION_REPORTED;
    const std::string list = list_header("No", "Yes", "pool_depleted") +
                             listing("scarce", MEMM_LIST_OPT_REQUESTED | MEMM_LIST_OPT_HIDE_DELETED_DYNSTR, 250);
    EXPECT_EQ(read_report_file(dump_name), dump);
    EXPECT_EQ(read_report_file(list_name), list);
}

TEST(ReportFiles, TaggingDumpsAndProfilingLists) {
    setenv("MEMM_LOG", "stderr", 1); // read by memm_init: diagnostics also go to standard error
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    memm_calloc(memm_initpool("listed", 4, 8, nullptr));
    for (const char *reason : {MEMM_REASON_TAGGING, "other", static_cast<const char *>(nullptr)})
        memm_handle_list_objects("listed", 1, 0, reason);           // not listing reasons
    memm_handle_tag_objects("listed", 1, 8, MEMM_REASON_PROFILING); // not a dumping reason: only tags
    EXPECT_NE(listing("listed", MEMM_LIST_OPT_ONLY_TAGGED).find(".[tagged]"), std::string::npos);
    set_report_folders_unwritable(true);
    clear_logs();
    const std::string on_stderr = output_to_fd(2, [] {
        memm_handle_tag_objects("listed", 0, 3, MEMM_REASON_TAGGING);
        memm_handle_list_objects("listed", 1, 0, MEMM_REASON_PROFILING);
    });
    set_report_folders_unwritable(false);
    EXPECT_EQ(log_count("Could not open " + report_path("/var/memm_dump_tagging_3") + " stats file"), 1u);
    EXPECT_EQ(log_count("Could not open " + report_path("/var/memm_list_profiling_1") + " file"), 1u);
    std::string logged;
    for (const std::string &line : log_texts())
        logged += !line.empty() && line.back() == '\n' ? line : line + "\n";
    EXPECT_EQ(on_stderr, logged);
    EXPECT_EQ(listing("listed", MEMM_LIST_OPT_ONLY_TAGGED).find(".[tagged]"),
              std::string::npos); // untagged all the same

    memm_handle_tag_objects("listed", 0, 7, MEMM_REASON_TAGGING);
    memm_handle_tag_objects("listed", 0, 7, MEMM_REASON_TAGGING);
    const std::string dump = dump_info("Tagging done using memm_handle_tag_objects.") + usage_table("listed");
    EXPECT_EQ(read_report_file("/var/memm_dump_tagging_7"), dump + dump);
    // A list file gets the whole listing; standard output only the line
    // that ends each pool's objects.
    EXPECT_EQ(output_to_fd(1, [] { memm_handle_list_objects("listed", 1, 0, MEMM_REASON_PROFILING); }), "\r\n");
    for (int i = 0; i < 255; i++) // the failed list used up number 1
        memm_handle_list_objects("listed", 1, 0, MEMM_REASON_PROFILING);
    std::vector<std::string> names{"/var/memm_dump_tagging_7", "/var/memm_list_profiling_0"};
    for (int n = 2; n <= 255; n++)
        names.push_back(fmt("/var/memm_list_profiling_%d", n));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(report_files(), names);
    const std::string one =
        list_header("Yes", "No", "profiling") + listing("listed", MEMM_LIST_OPT_REQUESTED | MEMM_LIST_OPT_ONLY_TAGGED);
    EXPECT_EQ(read_report_file("/var/memm_list_profiling_2"), one);
    EXPECT_EQ(read_report_file("/var/memm_list_profiling_255"), one);
    EXPECT_EQ(read_report_file("/var/memm_list_profiling_0"), one + one);
}

TEST(ListingObjects, OptionsLimitExtensionsAndCountCheck) {
    ASSERT_EQ(memm_init(8, 4), MEMM_OK);
    memm_pool_options opts{};
    opts.print_stats = pool_lines;
    const uint32_t id = memm_initpool("many", 10, 8, &opts);
    memm_initpool("other", 2, 8, nullptr);
    std::vector<void *> objs = fill(id, 5);
    memm_tag_objects("many", 1);
    for (void *o : fill(id, 6))
        objs.push_back(o); // objects 0-4 tagged, 5-10 not; 10 in an extension pool, listed on its own turn

    // A limit L passes over all but the last L + 1 objects of each pool,
    // counting before the tag test; from 2^31 on it counts as no limit.
    const uint32_t T = MEMM_LIST_OPT_ONLY_TAGGED;
    const uint32_t cases[][3] = {// options, limit, first index listed
                                 {0, 0, 0}, {0, 2, 7}, {0, 6, 3}, {0, 1u << 31, 0}, {T, 0, 0}, {T, 6, 3}, {T, 9, 0}};
    for (const auto &c : cases) {
        std::string objects;
        for (uint32_t i = c[2]; i < 10; i++)
            if ((i < 5) == (c[0] == T))
                objects += entry(objs[i], "many", int(i), i < 5);
        const std::string ext = section("many", 1, 1, 3, c[0] == T ? "" : entry(objs[10], "many", 0), kPoolLines);
        EXPECT_EQ(listing("many", c[0], c[1]), section("many", 10, 10, 10, objects, kPoolLines) + ext + "\r\n")
            << c[0] << " " << c[1];
    }
    EXPECT_EQ(listing("nothing", 0), "\r\n");
    // Standard output gets the line that ends each pool's objects and pool
    // 0's descriptor lines; the rest goes to the print function.
    std::string every_pool, expected;
    const std::string out = output_to_fd(1, [&every_pool] { every_pool = listing(nullptr, 0); });
    const char *const kObjects = "LIST OF OBJECTS";
    for (size_t at = every_pool.find(kObjects); at != std::string::npos; at = every_pool.find(kObjects, at + 1))
        expected += "\r\n";
    EXPECT_EQ(out.substr(0, 10), " - 'memm_p");
    EXPECT_EQ(out.substr(out.size() - expected.size() + 2), expected.substr(2));
    EXPECT_EQ(every_pool.find(" - 'other'"), std::string::npos);

    // String pools hide deleted placeholders on request, through their list_filter.
    const uint32_t strings = dynstr_initpool("hiding", 20, 4096);
    dynstr *kept = dynstr_fromstring(strings, "kept"), *gone = dynstr_fromstring(strings, "gone");
    dynstr_fromstring(strings, "after");
    memm_free(gone);
    const std::string all = listing("hiding", 0), shown = listing("hiding", MEMM_LIST_OPT_HIDE_DELETED_DYNSTR);
    auto has = [](const std::string &text, void *obj) {
        return text.find(fmt("0x%08lx", addr(obj))) != std::string::npos;
    };
    EXPECT_TRUE(has(all, gone) && has(shown, kept));
    EXPECT_FALSE(has(shown, gone));
    EXPECT_NE(shown.find(" - bnr="), std::string::npos); // records print through the pool's print2

}

TEST(DynstrIntegrity, VerboseListingAndRecordLines) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("p", 10, 200, 2);
    CaptureStdout();
    EXPECT_EQ(dynstr_integrity_check(pool, 1), 1);
    EXPECT_EQ(dynstr_integrity_check(MEMM_POOLDESC_POOL, 1), 1); // not a string pool: silent
    EXPECT_EQ(GetCapturedStdout(), "Checking dynstr pool 'p'\r\n"
                                   " + alloc-list buffer 0: --> cnt=0, delcnt=0\r\n"
                                   " + alloc-list buffer 1: --> cnt=0, delcnt=0\r\n");
    dynstr *a = dynstr_fromstring(pool, "ab");
    dynstr *b = dynstr_fromstring(pool, "cd");
    dynstr_fromstring(pool, "e");
    memm_free(a);
    memm_free(b);
    const dynstr *merged = string_pool(pool)->buf_first[0];
    const std::string line = record_line(pool, merged);
    EXPECT_EQ(line, fmt(" - bnr=0, maxsize=0, size=6, deleted, data=0x%08lx='ab&cd', allocaddr %p",
                        static_cast<unsigned long>(reinterpret_cast<uintptr_t>(merged->str)), allocfrom(merged)));
    CaptureStdout();
    EXPECT_EQ(dynstr_integrity_check(pool, 1), 1);
    const std::string out = GetCapturedStdout();
    EXPECT_NE(out.find(fmt("\r\n%p", static_cast<const void *>(merged)) + line), std::string::npos);
    EXPECT_NE(out.find("--> cnt=2, delcnt=1\r\n + alloc-list buffer 1: --> cnt=0, delcnt=0\r\n"), std::string::npos);

    // An empty text, and a preview cut after 47 characters.
    dynstr *empty = dynstr_fromstring(pool, "");
    EXPECT_EQ(record_line(pool, empty),
              fmt(" - bnr=-1, maxsize=0, size=0, literal, data=0x00000000='', allocaddr %p", allocfrom(empty)));
    const std::string t47(47, 'a'), t48 = std::string(47, 'b') + "c";
    dynstr *d47 = dynstr_fromstring(pool, t47.c_str());
    dynstr *d48 = dynstr_calloc_maxsize(pool, 60);
    dynstr_setstring(d48, t48.c_str());
    EXPECT_NE(record_line(pool, d47).find("size=48, data=0x"), std::string::npos);
    EXPECT_NE(record_line(pool, d47).find("='" + t47 + "', allocaddr"), std::string::npos);
    EXPECT_NE(record_line(pool, d48).find("maxsize=60, size=49, data="), std::string::npos);
    EXPECT_NE(record_line(pool, d48).find("='" + std::string(47, 'b') + "...', allocaddr"), std::string::npos);
    hooks(pool).print2(string_pool(pool), print_capture); // not a record of a string pool
    EXPECT_EQ(take_printed(), "");
}

TEST(DynstrIntegrity, EachFaultPrintsItsMessageAlsoWhenSilent) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("p", 10, 200, 2);
    dynstr_pooldesc *p = string_pool(pool);
    dynstr *a = dynstr_fromstring(pool, "hello");
    dynstr *b = dynstr_fromstring(pool, "x");
    const std::pair<std::function<void()>, const char *> faults[] = {
        {[&] { p->buf_used[0] = 9; }, "\r\n  - E: buffer 0 used bytes doesn't match last dynstr, "},
        {[&] { p->buf_used[1] = 5; },
         "\r\n  - E: buffer 1 has no first dynstr but has used bytes, "
         "\r\n  - E: buffer 1 has no last dynstr but has used bytes, "},
        {[&] { a->flags |= 3u << DYNSTR_MAXSIZE_SHIFT; }, "\r\n  - E: DYNSTR_MAXSIZE(3) < DYNSTR_SIZE(6), "},
        {[&] { a->flags = (a->flags & ~0xFFFFu) | 9; }, "\r\n  - E: DYNSTR_SIZE(9) != strlen+1(6, 'hello'), "},
        {[&] { a->flags |= 1u << DYNSTR_BNR_SHIFT; }, "\r\n  - E: curr has wrong buffernr, "},
        {[&] { b->flags |= DYNSTR_FLAG_LITERAL; }, "\r\n  - E: curr has wrong buffernr, \r\n  - E: literal pstr found, "},
        {[&] { b->prev = nullptr; }, "\r\n  - E: next->prev != curr, "},
        {[&] { b->str = a->str; },
         "\r\n  - E: buffer 0 used bytes doesn't match last dynstr, \r\n  - E: next->str >= curr->str, "
         "\r\n  - E: DYNSTR_SIZE(2) != strlen+1(6, 'hello'), "},
        {[&] { p->buf_last[0] = a; },
         "\r\n  - E: buffer 0 used bytes doesn't match last dynstr, \r\n  - E: !next && last != curr, "},
    };
    const dynstr_pooldesc saved = *p;
    const dynstr saved_a = *a, saved_b = *b;
    for (const auto &f : faults) {
        f.first();
        CaptureStdout();
        EXPECT_EQ(dynstr_integrity_check(pool, 0), 0);
        EXPECT_EQ(GetCapturedStdout(), f.second);
        *p = saved, *a = saved_a, *b = saved_b;
    }
    EXPECT_EQ(dynstr_integrity_check(pool, 0), 1);
}

TEST(DynstrStatistics, PoolAndBufferLines) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("p", 10, 200, 2);
    dynstr_pooldesc *p = string_pool(pool);
    dynstr *a = dynstr_fromstring(pool, "abc");
    dynstr_fromstring(pool, "defgh");
    memm_free(a);
    uint32_t live = 1, peak = 1, capacity = 1;
    hooks(pool).print_stats(p, &live, &peak, &capacity, print_capture);
    EXPECT_EQ(take_printed(), "\r\n    - 2 buffers,        #gc, min#/gc:     0,    -1        6,    10,   200  (   5%)"
                              "    curr:    3%"
                              "\r\n     ->string buffer 1,   # used/del:     1,     1        6,    10,   100  "
                              "(  10%)    curr:    6%"
                              "\r\n     - string buffer 2,   # used/del:     0,     0        0,     0,   100  "
                              "(   0%)    curr:    0%");
    EXPECT_EQ(live, 7u);
    EXPECT_EQ(peak, 11u);
    EXPECT_EQ(capacity, 201u);
    hooks(pool).print_stats(p, nullptr, nullptr, nullptr, print_capture);
    EXPECT_EQ(take_printed(), "    - updatepool calls per gc avg/min: 0/4294967295\r\n"
                              "    - recup ctx/data:  0%/ 0%, gc_cnt:0, avg dynstr/bytes/fill: 0/0/0%\r\n");

    dynstr_fromstring(pool, std::string(95, 'z').c_str()); // does not fit: collects buffer 1
    hooks(pool).print_stats(p, nullptr, nullptr, nullptr, print_capture);
    EXPECT_EQ(take_printed(), "    - updatepool calls per gc avg/min: 3/3\r\n"
                              "    - recup ctx/data:  0%/ 0%, gc_cnt:1, avg dynstr/bytes/fill: 0/0/0%\r\n"
                              "     - string buffer 1, gc reason ctx_balance/ctx_depleted/buffer_full:   0%/  0%/100%\r\n"
                              "     - string buffer 2, gc reason ctx_balance/ctx_depleted/buffer_full:   0%/  0%/  0%\r\n");

    // Large collection counts eat into the padding; a depleted pool shows >100%.
    p->state |= DYNSTR_STATE_DEPLETED;
    p->gc_count = 1000000;
    hooks(pool).print_stats(p, &live, &peak, &capacity, print_capture);
    const std::string line = take_printed();
    EXPECT_NE(line.find("buffers,       #gc, min#/gc:1000000,"), std::string::npos) << line;
    EXPECT_NE(line.find("  (>100%)"), std::string::npos) << line;
    p->gc_count = 10000000;
    hooks(pool).print_stats(p, &live, &peak, &capacity, print_capture);
    EXPECT_NE(take_printed().find("buffers,      #gc, min#/gc:10000000,"), std::string::npos);
}


// A node's details are the object lines of its next node and of its object.
TEST(LlistNodePrinter, ListingsShowNextAndLinkedObject) {
    ASSERT_EQ(memm_init(16, 0), MEMM_OK);
    const uint32_t nodes = llist_initpool("nodes", 8, int32_t(sizeof(llist_node)), nullptr);
    std::vector<void *> r = fill(memm_initpool("records", 4, 8, nullptr), 2);
    llist_node *list = nullptr;
    llist_addobject(&list, r[0], nodes);
    llist_addobject(&list, r[1], nodes);
    llist_node *last = llist_get_next(list);
    const std::string first_details = ", next= :" + printed(last, 0) + ", linked_obj= :" + printed(r[0], 0);
    const std::string last_details = ", next= :" + printed(nullptr, 0) + ", linked_obj= :" + printed(r[1], 0);
    EXPECT_EQ(printed(list, 1), printed(list, 0) + first_details);
    const std::string listed = listing("nodes", 0);
    EXPECT_NE(listed.find(" \r\n" + printed(list, 0) + first_details + "\r\n"), std::string::npos) << listed;
    EXPECT_NE(listed.find(" \r\n" + printed(last, 0) + last_details + "\r\n"), std::string::npos) << listed;
}
