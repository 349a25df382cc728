// Dump and list files: names, contents, appending, the profiling numbers and
// the files a depleted pool leaves behind. The test binaries redirect /var
// and /root into a private folder (support/report_files.h).
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "memm.h"
#include "report_files.h"
#include "syslog_capture.h"

using memm_test::fmt;
using memm_test::log_count;
using memm_test::print_capture;
using memm_test::read_report_file;
using memm_test::report_files;
using memm_test::take_printed;

namespace {

std::string table_for(const char *prefix) {
    take_printed();
    memm_print_stats2(prefix, print_capture);
    return take_printed();
}

std::string listing_for(const char *prefix, uint32_t options, uint32_t limit) {
    take_printed();
    memm_print_objects4(prefix, options, print_capture, limit);
    return take_printed();
}

std::string list_header(const char *tagged, const char *hide, const char *reason) {
    return fmt("\r\n\r\nList created with option:OnlyTagged=%s and hideDeletedDynstr=%s\r\n", tagged, hide) +
           fmt("Creation reason=%s\r\n\n", reason);
}

size_t occurrences(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        n++;
    return n;
}

} // namespace

TEST(ReportFiles, TaggingOnRequestAppendsAStatisticsDump) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("tagme", 4, 8, nullptr);
    void *obj = memm_calloc(id);
    memm_handle_tag_objects("tagme", 1, 7, MEMM_REASON_TAGGING);
    const std::string dump =
        std::string("\r\n\rInfo: Tagging done using memm_handle_tag_objects.\r\n") + table_for("tagme");
    EXPECT_EQ(report_files(), std::vector<std::string>{"/var/memm_dump_tagging_7"});
    EXPECT_EQ(read_report_file("/var/memm_dump_tagging_7"), dump);
    memm_handle_tag_objects("tagme", 1, 7, MEMM_REASON_TAGGING);
    EXPECT_EQ(read_report_file("/var/memm_dump_tagging_7"), dump + dump);
    EXPECT_EQ(memm_get_refcount(obj), 1u);

    // Any other reason only tags.
    memm_handle_tag_objects("tagme", 0, 8, "profiling");
    EXPECT_EQ(report_files().size(), 1u);
    take_printed();
    memm_printobject2(obj, 0, print_capture);
    EXPECT_NE(take_printed().find(".[untagged]\n"), std::string::npos);
}

TEST(ReportFiles, DepletionWritesOneDumpAndOneListing) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("scarce", 2, 8, nullptr);
    memm_initpool("scarce_too", 2, 8, nullptr); // its name begins with the depleted pool's
    memm_disallow_expansion(id);
    memm_calloc(id);
    memm_calloc(id);
    ASSERT_EQ(memm_calloc(id), nullptr);

    const int pid = int(getpid());
    const std::string dump_name = fmt("/root/memm_dump_pool_depleted_%d", pid);
    const std::string list_name = fmt("/root/memm_list_pool_depleted_%d", pid);
    EXPECT_EQ(report_files(), (std::vector<std::string>{dump_name, list_name}));

    // The dump was written before the pool was marked as reported: all pools,
    // with the (empty) integrity message as its info line.
    memm_pooldesc *p = memm_get_pool_nolock(id);
    p->flags &= uint8_t(~MEMM_POOLFLAG_DEPLETION_REPORTED);
    const std::string dump = "\r\n\rInfo: \r\n" + table_for(nullptr);
    p->flags |= MEMM_POOLFLAG_DEPLETION_REPORTED;
    const std::string list = list_header("No", "Yes", "pool_depleted") +
                             listing_for("scarce", MEMM_LIST_OPT_REQUESTED | MEMM_LIST_OPT_HIDE_DELETED_DYNSTR, 250);
    EXPECT_EQ(read_report_file(dump_name), dump);
    EXPECT_EQ(read_report_file(list_name), list);
    EXPECT_NE(list.find("LIST OF OBJECTS IN POOL scarce_too"), std::string::npos);

    // Later depletions of the same pool add nothing.
    ASSERT_EQ(memm_calloc(id), nullptr);
    EXPECT_EQ(read_report_file(dump_name), dump);
    EXPECT_EQ(read_report_file(list_name), list);
}

TEST(ReportFiles, DepletionDumpCarriesTheIntegrityMessage) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("faulty", 2, 8, nullptr);
    memm_disallow_expansion(id);
    memm_calloc(id);
    memm_calloc(id);
    memm_get_pool_nolock(id)->cur_count = 3;
    ASSERT_EQ(memm_calloc(id), nullptr);
    const std::string msg =
        fmt("pool %d:%s has bookkeeping error (free[%d] + used[%d] != alloc[%d])\r\n", int(id), "faulty", 0, 3, 2);
    const std::string dump = read_report_file(fmt("/root/memm_dump_pool_depleted_%d", int(getpid())));
    EXPECT_EQ(dump.rfind("\r\n\rInfo: " + msg + "\r\n[MEMM] integrity check failed: " + msg + "\r\n", 0), 0u) << dump;
}

TEST(ReportFiles, ListsOnRequest) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("listed", 4, 8, nullptr);
    memm_calloc(id);
    memm_handle_list_objects("listed", 1, 0, MEMM_REASON_TAGGING); // not a listing reason
    memm_handle_list_objects("listed", 1, 0, "other");
    memm_handle_list_objects("listed", 1, 0, nullptr);
    EXPECT_TRUE(report_files().empty());

    memm_handle_list_objects("listed", 1, 0, MEMM_REASON_PROFILING);
    EXPECT_EQ(read_report_file("/var/memm_list_profiling_1"),
              list_header("Yes", "No", "profiling") +
                  listing_for("listed", MEMM_LIST_OPT_REQUESTED | MEMM_LIST_OPT_ONLY_TAGGED, 0));
}

TEST(ReportFiles, ProfilingListsAreNumberedOneTo255ThenZero) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    memm_initpool("prof", 2, 8, nullptr);
    for (int i = 0; i < 257; i++)
        memm_handle_list_objects("prof", 0, 0, MEMM_REASON_PROFILING);
    std::vector<std::string> files = report_files();
    EXPECT_EQ(files.size(), 256u);
    for (int n = 0; n <= 255; n++)
        EXPECT_TRUE(memm_test::report_file_exists(fmt("/var/memm_list_profiling_%d", n))) << n;
    const std::string marker = "List created with option";
    EXPECT_EQ(occurrences(read_report_file("/var/memm_list_profiling_1"), marker), 1u);
    EXPECT_EQ(occurrences(read_report_file("/var/memm_list_profiling_255"), marker), 1u);
    EXPECT_EQ(occurrences(read_report_file("/var/memm_list_profiling_0"), marker), 2u);
}

TEST(ReportFiles, UnopenableFilesAreLoggedAndSkipped) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    memm_initpool("nowhere", 2, 8, nullptr);
    memm_test::set_report_folders_unwritable(true);
    memm_handle_tag_objects("nowhere", 1, 3, MEMM_REASON_TAGGING);
    memm_handle_list_objects("nowhere", 0, 0, MEMM_REASON_PROFILING);
    memm_test::set_report_folders_unwritable(false);
    EXPECT_EQ(log_count("Could not open /var/memm_dump_tagging_3 stats file"), 1u);
    EXPECT_EQ(log_count("Could not open /var/memm_list_profiling_1 file"), 1u);
    EXPECT_TRUE(report_files().empty());
    // The failed profiling list still used up its number.
    memm_handle_list_objects("nowhere", 0, 0, MEMM_REASON_PROFILING);
    EXPECT_EQ(report_files(), std::vector<std::string>{"/var/memm_list_profiling_2"});
}
