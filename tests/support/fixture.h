// The one fixture of the hand cases: the library started, pools made on
// demand, and the checks every case ends with. Each case runs in its own
// process, so memm_init runs once per case.
#ifndef MEMM_TEST_FIXTURE_H
#define MEMM_TEST_FIXTURE_H

#include <gtest/gtest.h>

#include "dynstr.h"
#include "llist.h"
#include "memm.h"
#include "syslog_capture.h"

namespace memm_test {

// Both integrity checks pass: the pools' (run by the overall statistics,
// which log what they find) and every string pool's.
inline ::testing::AssertionResult sound() {
    const size_t before = log_count_prefix("[MEMM] integrity check failed");
    memm_get_overall_stats(nullptr, nullptr, nullptr, nullptr, nullptr);
    if (log_count_prefix("[MEMM] integrity check failed") != before)
        return ::testing::AssertionFailure() << "pool integrity check failed";
    for (uint32_t id = 1; id < memm_get_number_of_pools(); id++)
        if (dynstr_integrity_check(id, 0) != 1) // 1 also for pools of other kinds
            return ::testing::AssertionFailure() << "string pool " << id;
    return ::testing::AssertionSuccess();
}

class Started : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(memm_init(16, 4), MEMM_OK);
        clear_logs();
    }
    static uint32_t strings(const char *name, uint32_t records = 16, int32_t bytes = 1024, int32_t buffers = 2) {
        return dynstr_initpool2(name, records, bytes, buffers);
    }
    static uint32_t nodes(const char *name, uint32_t count = 16) {
        return llist_initpool(name, count, int32_t(sizeof(llist_node)), nullptr);
    }
};

} // namespace memm_test

#endif
