// The pool integrity check through the reports that run it: each fault's
// message, and the reports going on after it.
#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include "memm.h"
#include "report_files.h"
#include "syslog_capture.h"

using memm_test::fmt;
using memm_test::log_count;
using memm_test::print_capture;
using memm_test::take_printed;

namespace {

uint8_t *slot_of(void *obj) { return static_cast<uint8_t *>(obj) - MEMM_OBJHDR_SIZE; }
void set_state(uint8_t *slot, uint32_t state) { memcpy(slot, &state, sizeof state); }
unsigned long addr(const void *p) { return static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p)); }

std::string failed_line(const std::string &msg) { return "[MEMM] integrity check failed: " + msg; }

// The message as the usage table prints it, and the table after it.
std::string table_with_fault() {
    take_printed();
    memm_print_stats2("", print_capture);
    return take_printed();
}

} // namespace

TEST(ReportIntegrity, SlotWithAnotherPoolsIdAndTheReportGoesOn) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("victim", 4, 8, nullptr);
    memm_calloc(id);
    void *obj = memm_calloc(id);
    set_state(slot_of(obj), 5);
    const std::string msg =
        fmt("pool %d:%s item %d:0x%08lx has invalid poolid: %d", int(id), "victim", 1, addr(slot_of(obj)), 5);

    std::string out = table_with_fault();
    EXPECT_EQ(out.rfind(failed_line(msg) + "\r\n", 0), 0u) << out;
    EXPECT_NE(out.find("Total usage"), std::string::npos); // the table follows

    uint32_t cur = 0;
    memm_get_overall_stats("victim", &cur, nullptr, nullptr, nullptr);
    EXPECT_EQ(log_count(failed_line(msg)), 1u);
    EXPECT_EQ(cur, 2u); // and the counts are still summed
}

TEST(ReportIntegrity, UsedSlotOnTheFreeList) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("freelist", 4, 8, nullptr);
    memm_calloc(id);
    uint8_t *head = memm_get_pool_nolock(id)->free_head;
    set_state(head, id); // looks in use, is still linked as free
    const std::string msg = fmt("pool %d:%s has used item[0x%08lx] in free list\r\n", int(id), "freelist", addr(head));
    EXPECT_EQ(table_with_fault().rfind(failed_line(msg) + "\r\n", 0), 0u);
}

TEST(ReportIntegrity, CountsThatDoNotAddUp) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("books", 4, 8, nullptr);
    memm_calloc(id);
    memm_get_pool_nolock(id)->cur_count = 2;
    const std::string msg =
        fmt("pool %d:%s has bookkeeping error (free[%d] + used[%d] != alloc[%d])\r\n", int(id), "books", 3, 2, 4);
    EXPECT_EQ(table_with_fault().rfind(failed_line(msg) + "\r\n", 0), 0u);
}

TEST(ReportIntegrity, FreeListLeavingThePoolIsCountedNotFollowed) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("broken", 4, 8, nullptr);
    uint8_t *head = memm_get_pool_nolock(id)->free_head;
    static uint8_t elsewhere[64];
    uint8_t *link = elsewhere;
    memcpy(head + MEMM_OBJHDR_SIZE, &link, sizeof link); // the first free slot now links out of the pool
    const std::string msg =
        fmt("pool %d:%s has bookkeeping error (free[%d] + used[%d] != alloc[%d])\r\n", int(id), "broken", 1, 0, 4);
    EXPECT_EQ(table_with_fault().rfind(failed_line(msg) + "\r\n", 0), 0u);
}

TEST(ReportIntegrity, OnlyTheFirstFaultIsDescribed) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t a = memm_initpool("first", 4, 8, nullptr);
    uint32_t b = memm_initpool("second", 4, 8, nullptr);
    memm_get_pool_nolock(b)->cur_count = 3;
    memm_get_pool_nolock(a)->cur_count = 1;
    std::string out = table_with_fault();
    EXPECT_NE(out.find(fmt("pool %d:first has bookkeeping error", int(a))), std::string::npos) << out;
    EXPECT_EQ(out.find("second has bookkeeping"), std::string::npos);
}
