// The reports' exact texts, compared with text built from the reports' own
// formats: the usage table and the pool integrity check's messages, the time
// report, tagging dumps and profiling lists (tagging itself and the depletion
// reports are the pool model's), object listings with the node printer, and
// the string pools' record lines, integrity check and buffer statistics.
#include <unistd.h>

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

int g_cookie;
// Adds lines and bytes to the usage table's totals; the time report gives it none.
void extra_lines(void *cookie, uint32_t *cur, uint32_t *max, uint32_t *avail, memm_print_fn print) {
    if (!cur || !max || !avail)
        return (void)print("    - hook without totals\r\n");
    print("\r\n    - extra of %s", cookie == &g_cookie ? "mine" : "?");
    *cur += 100, *max += 200, *avail += 1000;
}

void *allocfrom(const void *obj) {
    void *at;
    memcpy(&at, static_cast<const char *>(obj) - MEMM_OBJHDR_SIZE + 8, sizeof at);
    return at;
}
// An object's listing entry: its object line, with no details to show.
std::string entry(void *obj, const char *name, int index, bool tagged = false) {
    return " \r\n" +
           fmt("%d.%s.%d.0x%08lx allocfrom=%p", int(memm_get_poolid(obj)), name, index, addr(obj), allocfrom(obj)) +
           (tagged ? ".[tagged]\n" : ".[untagged]\n") + "\r\n";
}

std::string section(const char *name, int cur, int max, int avail, const std::string &objects,
                    const char *hook_lines) {
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

const memm_pool_options &hooks(uint32_t pool) { return memm_get_pool_nolock(pool)->options; }
std::string record_line(uint32_t pool, const dynstr *d) {
    hooks(pool).print2(const_cast<dynstr *>(d), print_capture);
    return take_printed();
}

} // namespace

// One table: pool 0's row with the highest reference count of any pool, a
// name cut to its column, a hook's lines and totals, and a chain whose
// extension rows count bytes with the root's slot size, carry running
// reference sums and take the depletion mark from the first reported pool
// on. A prefix selects the pools whose names begin with it. Then each fault
// the pool integrity check finds heads the table and the log.
TEST(ReportUsageTable, RowsChainsPrefixesAndIntegrityFaults) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    memm_pool_options opts{};
    opts.print_stats = extra_lines;
    opts.cookie = &g_cookie;
    const char *name = "hooked_ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    const uint32_t id = memm_initpool(name, 4, 8, &opts);
    memm_free(fill(id, 3)[0]);
    const uint32_t root = memm_initpool("chain", 10, 8, nullptr);
    std::vector<void *> objs = fill(root, 16); // 10 in the root, 3 in each of two extensions
    const uint32_t e1 = memm_get_poolid(objs[10]), e2 = memm_get_poolid(objs[13]);
    memm_refalloc(objs[0]);
    memm_refalloc(objs[0]);
    memm_free(objs[0]);      // root: ref_cur 1, ref_max 2
    memm_refalloc(objs[11]); // first extension: ref_cur 1, ref_max 1
    const std::string hooked = row(id, "hooked_ABCDEFGHIJKLMNO...", 2, 3, 4, 24, " ") + refs(0, 0) +
                               "\r\n    - extra of mine\r\n";
    const int s0 = int(memm_get_pool_nolock(0)->slotsize), n = 2 * 24 + 16 * 24 + 100, m = 3 * 24 + 16 * 24 + 200;
    auto table = [&](const char *m2, const char *m3) {
        return header() + row(0, MEMM_POOLDESC_NAME, 5, 5, 8, s0, " ") + fmt("  obj:%5d,%5d\r\n", 2, 32767) +
               hooked + row(root, "chain", 10, 10, 10, 24, "+") + refs(1, 2) + "\r\n" +
               row(e1, " - extension -", 3, 3, 3, 24, m2) + refs(2, 2) + "\r\n" +
               row(e2, " - extension -", 3, 3, 3, 24, m3) + refs(2, 2) + "\r\n" +
               row(root, " ---- sum ----", 16, 16, 16, 24, " ") + "\r\n" +
               total(5 * s0 + n, 5 * s0 + m, 8 * s0 + 4 * 24 + 16 * 24 + 1000);
    };
    EXPECT_EQ(usage_table(""), table("+", " "));
    memm_get_pool_nolock(e1)->flags |= MEMM_POOLFLAG_DEPLETION_REPORTED;
    EXPECT_EQ(usage_table(nullptr), table(">", ">"));
    EXPECT_EQ(usage_table("hooked"), header() + hooked + total(2 * 24 + 100, 3 * 24 + 200, 4 * 24 + 1000));
    EXPECT_EQ(usage_table("hooked_ABCDEFGHIJKLMNOPQRSTUVWXYZ!"), "\r\n");

    memm_pooldesc *p = memm_get_pool_nolock(id);
    uint8_t *used = p->storage + p->slotsize, *free_slot = p->free_head; // slot 1 in use, slot 0 released
    // Patches `size` bytes at `at`, expects `msg` from the table and the log, then repairs.
    auto fault = [&](void *at, const void *value, size_t size, const std::string &msg) {
        const std::string saved(static_cast<const char *>(at), size), line = "[MEMM] integrity check failed: " + msg;
        memcpy(at, value, size);
        const std::string out = usage_table("");
        EXPECT_EQ(out.rfind(line + "\r\n", 0), 0u) << out;
        uint32_t cur = 0;
        memm_get_overall_stats(name, &cur, nullptr, nullptr, nullptr);
        EXPECT_EQ(log_count(line), 1u) << msg;
        EXPECT_EQ(cur, p->cur_count); // the counts are still summed
        memcpy(at, saved.data(), size);
    };
    const uint32_t other_id = 5, three = 3;
    const char *broken = "pool %d:%s has bookkeeping error (free[%d] + used[%d] != alloc[%d])\r\n";
    fault(used, &other_id, 4,
          fmt("pool %d:%s item %d:0x%08lx has invalid poolid: %d", int(id), name, 1, addr(used), 5));
    fault(free_slot, &id, 4,
          fmt("pool %d:%s has used item[0x%08lx] in free list\r\n", int(id), name, addr(free_slot)));
    fault(&p->cur_count, &three, 4, fmt(broken, int(id), name, 2, 3, 4));
    static uint8_t elsewhere[64];
    const uint8_t *outside = elsewhere; // a free list leaving the pool is counted up to there, not followed
    fault(free_slot + MEMM_OBJHDR_SIZE, &outside, sizeof outside, fmt(broken, int(id), name, 1, 2, 4));

    // Only the first fault is described.
    memm_get_pool_nolock(root)->cur_count = 1;
    p->cur_count = 3;
    EXPECT_EQ(usage_table("").rfind("[MEMM] integrity check failed: " + fmt(broken, int(id), name, 2, 3, 4), 0), 0u);
}

// Allocation counts with their shares (truncated) and release counts, an
// extension pool on its own release line; the duration columns stay at zero.
TEST(ReportTimestats, AllocationSharesAndReleaseCounts) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    memm_pool_options opts{};
    opts.print_stats = extra_lines;
    const uint32_t timed = memm_initpool("timed", 10, 8, &opts);
    memm_initpool("tidle", 10, 8, nullptr);     // no counts: no lines
    std::vector<void *> objs = fill(timed, 11); // 10 from the free list, 1 through a new extension
    const uint32_t ext = memm_get_poolid(objs[10]);
    memm_free(objs[0]);
    memm_free(objs[10]);
    const std::string zeros = fmt("%5lu.%03lu /%4lu.%03lu /%4lu.%03lu\r\n", 0ul, 0ul, 0ul, 0ul, 0ul, 0ul);
    auto heading = [](const char *third) {
        return fmt("%3s %-25s  %-35s \r\n", "id", "pool name", third) +
               fmt("%3s %-25s  %-35s \r\n", "--", "---------", "------------------------------");
    };
    auto share = [&](const char *label, unsigned long pct) { return fmt("     - %-22s %8lu%%: ", label, pct) + zeros; };
    const std::string freed = fmt("%8lu: %lu.%03lu/%lu.%03lu/%lu.%03lu\r\n", 1ul, 0ul, 0ul, 0ul, 0ul, 0ul, 0ul) +
                              "    - hook without totals\r\n";
    CaptureStdout();
    EXPECT_EQ(memm_print_timestats("t"), 0);
    EXPECT_EQ(GetCapturedStdout(), heading("alloc cnt: total/avg/max (msec)") +
                                       fmt("%3d %-25s  %8lu: ", int(timed), "timed", 11ul) + zeros +
                                       share("first_free", 90) + share("dynpool", 9) + "\r\n" +
                                       heading("free cnt: total/avg/max (msec)") +
                                       fmt("%3d %-25s  ", int(timed), "timed") + freed +
                                       fmt("%3d %-25s  ", int(ext), "timed") + freed);
}

// Tagging dumps are appended to their numbered file; profiling lists take
// numbers 1 to 255, then all go to 0. Other reasons write nothing; a file
// that cannot be opened is logged (also on standard error with MEMM_LOG).
TEST(ReportFiles, TaggingDumpsAndProfilingLists) {
    setenv("MEMM_LOG", "stderr", 1); // read by memm_init
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

    memm_handle_tag_objects("listed", 0, 7, MEMM_REASON_TAGGING);
    memm_handle_tag_objects("listed", 0, 7, MEMM_REASON_TAGGING);
    const std::string dump = "\r\n\rInfo: Tagging done using memm_handle_tag_objects.\r\n" + usage_table("listed");
    EXPECT_EQ(read_report_file("/var/memm_dump_tagging_7"), dump + dump);
    // Standard output gets only the line that ends each pool's objects.
    EXPECT_EQ(output_to_fd(1, [] { memm_handle_list_objects("listed", 1, 0, MEMM_REASON_PROFILING); }), "\r\n");
    for (int i = 0; i < 255; i++) // the failed list used up number 1
        memm_handle_list_objects("listed", 1, 0, MEMM_REASON_PROFILING);
    EXPECT_EQ(report_files().size(), 256u); // the dump, and lists 0 and 2 to 255
    const std::string one = "\r\n\r\nList created with option:OnlyTagged=Yes and hideDeletedDynstr=No\r\n"
                            "Creation reason=profiling\r\n\n" +
                            listing("listed", MEMM_LIST_OPT_REQUESTED | MEMM_LIST_OPT_ONLY_TAGGED);
    EXPECT_EQ(read_report_file("/var/memm_list_profiling_255"), one);
    EXPECT_EQ(read_report_file("/var/memm_list_profiling_0"), one + one);
}

// A limit L passes over all but the last L + 1 objects of each pool,
// counting before the tag test; from 2^31 on it counts as no limit. An
// extension pool is listed on its own turn.
TEST(ListingObjects, OptionsLimitsExtensionsAndNodeDetails) {
    ASSERT_EQ(memm_init(8, 4), MEMM_OK);
    memm_pool_options opts{};
    opts.print_stats = pool_lines;
    const uint32_t id = memm_initpool("many", 10, 8, &opts);
    std::vector<void *> objs = fill(id, 5);
    memm_tag_objects("many", 1);
    for (void *o : fill(id, 6))
        objs.push_back(o); // objects 0-4 tagged, 5-10 not; 10 in an extension pool

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

    // A node pool's details are the object lines of each node's next node and object.
    const uint32_t nodes = llist_initpool("nodes", 8, int32_t(sizeof(llist_node)), nullptr);
    llist_node *list = nullptr;
    llist_addobject(&list, objs[0], nodes);
    llist_addobject(&list, objs[1], nodes);
    llist_node *last = llist_get_next(list);
    const std::string first_details = ", next= :" + printed(last, 0) + ", linked_obj= :" + printed(objs[0], 0);
    const std::string last_details = ", next= :" + printed(nullptr, 0) + ", linked_obj= :" + printed(objs[1], 0);
    const std::string listed = listing("nodes", 0);
    EXPECT_NE(listed.find(" \r\n" + printed(list, 0) + first_details + "\r\n"), std::string::npos) << listed;
    EXPECT_NE(listed.find(" \r\n" + printed(last, 0) + last_details + "\r\n"), std::string::npos) << listed;
}

// A string pool's verbose integrity check lists each buffer's records
// through the record line, which shows the record's fields and a preview cut
// after 47 characters; the buffer statistics show the pool line, a line per
// buffer and, without totals, the collector's lines; each fault the check
// finds is printed, also when it is not verbose.
TEST(DynstrReports, RecordLinesIntegrityCheckAndStatistics) {
    ASSERT_EQ(memm_init(16, 3), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("p", 10, 200, 2), other = dynstr_initpool2("q", 10, 200, 2);
    dynstr_pooldesc *p = string_pool(pool);
    CaptureStdout();
    EXPECT_EQ(dynstr_integrity_check(pool, 1), 1);
    EXPECT_EQ(GetCapturedStdout(), "Checking dynstr pool 'p'\r\n"
                                   " + alloc-list buffer 0: --> cnt=0, delcnt=0\r\n"
                                   " + alloc-list buffer 1: --> cnt=0, delcnt=0\r\n");
    dynstr *a = dynstr_fromstring(pool, "abc");
    dynstr_fromstring(pool, "defgh");
    memm_free(a); // a deleted placeholder
    const std::string line = record_line(pool, a);
    EXPECT_EQ(line, fmt(" - bnr=0, maxsize=0, size=4, deleted, data=0x%08lx='abc', allocaddr %p", addr(a->str),
                        allocfrom(a)));
    CaptureStdout();
    EXPECT_EQ(dynstr_integrity_check(pool, 1), 1);
    const std::string out = GetCapturedStdout();
    EXPECT_NE(out.find(fmt("\r\n%p", static_cast<const void *>(a)) + line), std::string::npos);
    EXPECT_NE(out.find("--> cnt=2, delcnt=1\r\n + alloc-list buffer 1: --> cnt=0, delcnt=0\r\n"), std::string::npos);
    // Listings show records through the same line and hide deleted ones on request.
    EXPECT_NE(listing("p", 0).find(" \r\n" + printed(a, 0) + line + "\r\n"), std::string::npos);
    const std::string shown = listing("p", MEMM_LIST_OPT_HIDE_DELETED_DYNSTR);
    EXPECT_TRUE(shown.find(line) == std::string::npos && shown.find("='defgh'") != std::string::npos) << shown;

    dynstr *empty = dynstr_fromstring(other, "");
    EXPECT_EQ(record_line(other, empty),
              fmt(" - bnr=-1, maxsize=0, size=0, literal, data=0x00000000='', allocaddr %p", allocfrom(empty)));
    const std::string t47(47, 'a'), t48 = std::string(47, 'b') + "c";
    dynstr *d47 = dynstr_fromstring(other, t47.c_str()), *d48 = dynstr_calloc_maxsize(other, 60);
    dynstr_setstring(d48, t48.c_str());
    EXPECT_NE(record_line(other, d47).find("size=48, data=0x"), std::string::npos);
    EXPECT_NE(record_line(other, d47).find("='" + t47 + "', allocaddr"), std::string::npos);
    EXPECT_NE(record_line(other, d48).find("maxsize=60, size=49, data="), std::string::npos);
    EXPECT_NE(record_line(other, d48).find("='" + std::string(47, 'b') + "...', allocaddr"), std::string::npos);
    hooks(pool).print2(p, print_capture); // not a record of a string pool
    EXPECT_EQ(take_printed(), "");

    uint32_t live = 1, peak = 1, capacity = 1;
    hooks(pool).print_stats(p, &live, &peak, &capacity, print_capture);
    EXPECT_EQ(take_printed(),
              "\r\n    - 2 buffers,        #gc, min#/gc:     0,    -1        6,    10,   200  (   5%)    curr:    3%"
              "\r\n     ->string buffer 1,   # used/del:     1,     1        6,    10,   100  (  10%)    curr:    6%"
              "\r\n     - string buffer 2,   # used/del:     0,     0        0,     0,   100  (   0%)    curr:    0%");
    EXPECT_TRUE(live == 7 && peak == 11 && capacity == 201);
    hooks(pool).print_stats(p, nullptr, nullptr, nullptr, print_capture);
    EXPECT_EQ(take_printed(), "    - updatepool calls per gc avg/min: 0/4294967295\r\n"
                              "    - recup ctx/data:  0%/ 0%, gc_cnt:0, avg dynstr/bytes/fill: 0/0/0%\r\n");
    dynstr_fromstring(pool, std::string(95, 'z').c_str()); // does not fit: collects buffer 1
    hooks(pool).print_stats(p, nullptr, nullptr, nullptr, print_capture);
    EXPECT_EQ(take_printed(),
              "    - updatepool calls per gc avg/min: 3/3\r\n"
              "    - recup ctx/data:  0%/ 0%, gc_cnt:1, avg dynstr/bytes/fill: 0/0/0%\r\n"
              "     - string buffer 1, gc reason ctx_balance/ctx_depleted/buffer_full:   0%/  0%/100%\r\n"
              "     - string buffer 2, gc reason ctx_balance/ctx_depleted/buffer_full:   0%/  0%/  0%\r\n");
    // Large collection counts eat into the padding; a depleted pool shows >100%.
    p->state |= DYNSTR_STATE_DEPLETED;
    p->gc_count = 1000000;
    hooks(pool).print_stats(p, &live, &peak, &capacity, print_capture);
    const std::string padded = take_printed();
    EXPECT_NE(padded.find("buffers,       #gc, min#/gc:1000000,"), std::string::npos) << padded;
    EXPECT_NE(padded.find("  (>100%)"), std::string::npos) << padded;
    p->gc_count = 10000000;
    hooks(pool).print_stats(p, &live, &peak, &capacity, print_capture);
    EXPECT_NE(take_printed().find("buffers,      #gc, min#/gc:10000000,"), std::string::npos);

    // Each fault the check finds prints its message, also when not verbose, and fails the check.
    const uint32_t third = dynstr_initpool2("r", 10, 200, 2);
    p = string_pool(third);
    a = dynstr_fromstring(third, "hello");
    dynstr *b = dynstr_fromstring(third, "x");
    const std::pair<std::function<void()>, const char *> faults[] = {
        {[&] { p->buf_used[0] = 9; }, "\r\n  - E: buffer 0 used bytes doesn't match last dynstr, "},
        {[&] { p->buf_used[1] = 5; },
         "\r\n  - E: buffer 1 has no first dynstr but has used bytes, "
         "\r\n  - E: buffer 1 has no last dynstr but has used bytes, "},
        {[&] { a->flags |= 3u << DYNSTR_MAXSIZE_SHIFT; }, "\r\n  - E: DYNSTR_MAXSIZE(3) < DYNSTR_SIZE(6), "},
        {[&] { a->flags = (a->flags & ~0xFFFFu) | 9; }, "\r\n  - E: DYNSTR_SIZE(9) != strlen+1(6, 'hello'), "},
        {[&] { a->flags |= 1u << DYNSTR_BNR_SHIFT; }, "\r\n  - E: curr has wrong buffernr, "},
        {[&] { b->flags |= DYNSTR_FLAG_LITERAL; },
         "\r\n  - E: curr has wrong buffernr, \r\n  - E: literal pstr found, "},
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
        EXPECT_EQ(dynstr_integrity_check(third, 0), 0);
        EXPECT_EQ(GetCapturedStdout(), f.second);
        *p = saved, *a = saved_a, *b = saved_b;
    }
    EXPECT_EQ(dynstr_integrity_check(third, 0), 1);
}
