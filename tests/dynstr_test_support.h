// Checks shared by the string tests: sound storage, allocation sites,
// collection counts.
#ifndef MEMM_TEST_DYNSTR_SUPPORT_H
#define MEMM_TEST_DYNSTR_SUPPORT_H

#include <gtest/gtest.h>

#include <string.h>

#include "dynstr.h"
#include "model/string_storage.h"

namespace memm_test {

using memm_model::string_pool;

// Sound storage for a pool holding `live` records besides its anchor (see
// memm_model::storage_fault).
inline ::testing::AssertionResult storage_consistent(uint32_t pool, size_t live) {
    const std::string fault = memm_model::storage_fault(pool, live);
    return fault.empty() ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << fault;
}

// The allocation site recorded in a record's header.
inline void *allocfrom(const dynstr *d) {
    void *at;
    memcpy(&at, reinterpret_cast<const char *>(d) - MEMM_OBJHDR_SIZE + 8, sizeof at);
    return at;
}

// Collections run so far in the pool for one reason, over all buffers.
inline uint32_t collections(uint32_t pool, int reason) {
    uint32_t n = 0;
    for (const auto &row : string_pool(pool)->gc_reason)
        n += row[reason];
    return n;
}

} // namespace memm_test

#endif
