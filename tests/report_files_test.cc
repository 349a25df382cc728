// Dump and list files: names, contents, appending, numbering, files that
// cannot be opened, and the files a depleted pool leaves behind.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "memm.h"
#include "report_files.h"
#include "syslog_capture.h"

using namespace memm_test;

namespace {

std::string list_header(const char *tagged, const char *hide, const char *reason) {
    return fmt("\r\n\r\nList created with option:OnlyTagged=%s and hideDeletedDynstr=%s\r\n", tagged, hide) +
           fmt("Creation reason=%s\r\n\n", reason);
}

std::string dump_info(const std::string &info) { return fmt("\r\n\rInfo: %s\r\n", info.c_str()); }

} // namespace

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

    ASSERT_EQ(memm_calloc(id), nullptr); // later depletions add nothing
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
        logged += line + "\n";
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
