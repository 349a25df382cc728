// The time report: allocation shares per pool and release counts, with the
// duration columns kept at zero.
#include <gtest/gtest.h>

#include <string>

#include "memm.h"
#include "syslog_capture.h"

using memm_test::fmt;

namespace {

std::string heading(const char *third) {
    return fmt("%3s %-25s  %-35s \r\n", "id", "pool name", third) +
           fmt("%3s %-25s  %-35s \r\n", "--", "---------", "------------------------------");
}

std::string share(const char *label, unsigned long percent) {
    return fmt("     - %-22s %8lu%%: %5lu.%03lu /%4lu.%03lu /%4lu.%03lu", label, percent, 0ul, 0ul, 0ul, 0ul, 0ul, 0ul) +
           "\r\n";
}

void no_totals(void *, uint32_t *cur, uint32_t *max, uint32_t *avail, memm_print_fn print) {
    print("    - hook %s\r\n", !cur && !max && !avail ? "without totals" : "with totals");
}

} // namespace

TEST(ReportTimestats, AllocationSharesAndReleaseCounts) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    memm_pool_options opts{};
    opts.print_stats = no_totals;
    uint32_t id = memm_initpool("timed", 10, 8, &opts);
    memm_initpool("idle", 10, 8, nullptr); // no counts: no line
    void *objs[11];
    for (void *&o : objs)
        o = memm_calloc(id); // 10 from the free list, 1 through a new extension
    const uint32_t ext = memm_get_poolid(objs[10]);
    memm_free(objs[0]);
    memm_free(objs[10]);

    testing::internal::CaptureStdout();
    int rc = memm_print_timestats("timed");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(rc, 0);
    // 10 of 11 passes took the first free slot (90%), 1 went another way (9%).
    std::string expected =
        heading("alloc cnt: total/avg/max (msec)") +
        fmt("%3d %-25s  %8lu: %5lu.%03lu /%4lu.%03lu /%4lu.%03lu\r\n", int(id), "timed", 11ul, 0ul, 0ul, 0ul, 0ul, 0ul,
            0ul) +
        share("first_free", 90) + share("dynpool", 9) + "\r\n" + heading("free cnt: total/avg/max (msec)") +
        fmt("%3d %-25s  %8lu: %lu.%03lu/%lu.%03lu/%lu.%03lu\r\n", int(id), "timed", 1ul, 0ul, 0ul, 0ul, 0ul, 0ul, 0ul) +
        "    - hook without totals\r\n" +
        fmt("%3d %-25s  %8lu: %lu.%03lu/%lu.%03lu/%lu.%03lu\r\n", int(ext), "timed", 1ul, 0ul, 0ul, 0ul, 0ul, 0ul, 0ul) +
        "    - hook without totals\r\n";
    EXPECT_EQ(out, expected);
}

TEST(ReportTimestats, SharesUseUnsignedDivisionOfTheCounters) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("counted", 10, 8, nullptr);
    memm_pooldesc *p = memm_get_pool_nolock(id);
    p->alloc_calls[MEMM_ALLOC_CALLS_TOTAL] = 200;
    p->alloc_calls[MEMM_ALLOC_CALLS_FIRST_FREE] = 150;
    testing::internal::CaptureStdout();
    memm_print_timestats("counted");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find(share("first_free", 75)), std::string::npos) << out;
    EXPECT_EQ(out.find("dynpool"), std::string::npos) << out; // a zero counter gets no line
}
