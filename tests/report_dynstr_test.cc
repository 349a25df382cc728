// String pools in the reports: their buffer lines and bytes in the usage
// table, their adjusted counts, and the hide-deleted listing option.
#include <gtest/gtest.h>

#include <string>

#include "dynstr.h"
#include "memm.h"
#include "report_files.h"
#include "syslog_capture.h"

using memm_test::fmt;
using memm_test::print_capture;
using memm_test::take_printed;

namespace {

unsigned long addr(const void *p) { return static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p)); }

std::string listing(const char *prefix, uint32_t options) {
    take_printed();
    memm_print_objects4(prefix, options, print_capture, 0);
    return take_printed();
}

} // namespace

TEST(ReportStringPool, UsageTableShowsTheBufferLinesAndBytes) {
    ASSERT_EQ(memm_init(8, 4), MEMM_OK);
    uint32_t id = dynstr_initpool("texts", 20, 4096);
    ASSERT_NE(id, MEMM_INVALID_POOL);
    dynstr_fromstring(id, "first");
    dynstr *second = dynstr_fromstring(id, "second");
    dynstr_fromstring(id, "third");
    memm_free(second); // stays as a deleted placeholder between its neighbours

    uint32_t cur, max, avail;
    ASSERT_EQ(memm_get_stats(id, &cur, &max, &avail), MEMM_OK);
    const memm_pooldesc *p = memm_get_pool_nolock(id);
    EXPECT_EQ(cur, p->cur_count - 1); // the placeholder is not counted

    // The pool's own lines and bytes, as its hook gives them.
    uint32_t hook_cur = 0, hook_max = 0, hook_avail = 0;
    take_printed();
    p->options.print_stats(p->options.cookie, &hook_cur, &hook_max, &hook_avail, print_capture);
    const std::string hook_lines = take_printed();
    ASSERT_FALSE(hook_lines.empty());

    const int slot = int(p->slotsize);
    const uint32_t bytes_cur = cur * slot + hook_cur, bytes_max = max * slot + hook_max,
                   bytes_avail = avail * slot + hook_avail;
    const std::string expected =
        fmt("%3s %-25s %-22s %-31s %-18s\r\n", "id", "pool name", "count: cur,max,avail",
            "bytes: cur,max,avail  (max.%)", "ref cur,max,avail") +
        fmt("%3s %-25s %-22s %-31s %-18s\r\n", "--", "---------", "--------------------",
            "-----------------------------", "-----------------") +
        fmt("%3d %-25s %6d,%6d,%6d   %6d,%6d,%6d  (%1s%3d%%)   ", int(id), "texts", int(cur), int(max), int(avail),
            int(cur) * slot, int(max) * slot, int(avail) * slot, " ", int(max * 100 / avail)) +
        fmt("%5d,%5d", int(p->ref_cur), int(p->ref_max)) + hook_lines + "\r\n" +
        fmt(" %-29s %-21s %-30s\r\n", "----------------------", "", "-----------------------------") +
        fmt(" %-29s %-21s %6d,%6d,%6d  ( %3d%%)\r\n", "Total usage", "", int(bytes_cur), int(bytes_max),
            int(bytes_avail), int(bytes_max * 100 / bytes_avail)) +
        "\r\n";
    take_printed();
    memm_print_stats2("texts", print_capture);
    EXPECT_EQ(take_printed(), expected);
}

TEST(ReportStringPool, HideDeletedOptionHidesPlaceholders) {
    ASSERT_EQ(memm_init(8, 4), MEMM_OK);
    uint32_t id = dynstr_initpool("hiding", 20, 4096);
    dynstr *kept = dynstr_fromstring(id, "kept");
    dynstr *gone = dynstr_fromstring(id, "gone");
    dynstr_fromstring(id, "after");
    memm_free(gone);
    ASSERT_TRUE(memm_isvalidobj(gone)); // a placeholder, still in use

    const std::string all = listing("hiding", 0), shown = listing("hiding", MEMM_LIST_OPT_HIDE_DELETED_DYNSTR);
    EXPECT_NE(all.find(fmt("0x%08lx allocfrom", addr(gone))), std::string::npos);
    EXPECT_EQ(shown.find(fmt("0x%08lx allocfrom", addr(gone))), std::string::npos);
    EXPECT_NE(shown.find(fmt("0x%08lx allocfrom", addr(kept))), std::string::npos);
    EXPECT_NE(shown.find(" - bnr="), std::string::npos); // records print through the pool's print2
}
