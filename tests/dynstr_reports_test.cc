// The exact texts of the string integrity check, the record line and the
// buffer statistics lines.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

#include "dynstr.h"
#include "dynstr_test_support.h"
#include "report_files.h"
#include "syslog_capture.h"

namespace {

using namespace memm_test;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

const memm_pool_options &hooks(uint32_t pool) { return memm_get_pool_nolock(pool)->options; }

std::string record_line(uint32_t pool, const dynstr *d) {
    hooks(pool).print2(const_cast<dynstr *>(d), print_capture);
    return take_printed();
}

uint32_t start_pool() {
    EXPECT_EQ(memm_init(16, 2), MEMM_OK);
    return dynstr_initpool2("p", 10, 200, 2);
}

TEST(DynstrIntegrity, VerboseListingAndRecordLines) {
    const uint32_t pool = start_pool();
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
    const uint32_t pool = start_pool();
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
    const uint32_t pool = start_pool();
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

} // namespace
