// Tagging: the marks it sets and clears and the log line per selected pool.
#include <gtest/gtest.h>
#include <string.h>

#include "memm.h"
#include "syslog_capture.h"

using memm_test::fmt;
using memm_test::log_count;

namespace {

bool tagged(void *obj) {
    uint32_t state;
    memcpy(&state, static_cast<uint8_t *>(obj) - MEMM_OBJHDR_SIZE, sizeof state);
    return state & MEMM_STATE_TAGGED;
}

std::string tag_line(const char *un, int n, const char *name) {
    return fmt("%stagged %d object(s) in pool %s\r\n", un, n, name);
}

} // namespace

TEST(ListingTagging, MarksSelectedPoolsAndLogsEach) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t a = memm_initpool("t_a", 4, 8, nullptr);
    memm_initpool("t_b", 4, 8, nullptr);
    uint32_t other = memm_initpool("u_c", 4, 8, nullptr);
    void *x = memm_calloc(a), *y = memm_calloc(a), *z = memm_calloc(other);
    memm_refalloc(y);

    EXPECT_EQ(memm_tag_objects("t_", 1), 0);
    EXPECT_EQ(log_count(tag_line("", 2, "t_a")), 1u);
    EXPECT_EQ(log_count(tag_line("", 0, "t_b")), 1u);
    EXPECT_EQ(memm_test::log_count_prefix("tagged"), 2u);
    EXPECT_TRUE(tagged(x) && tagged(y));
    EXPECT_FALSE(tagged(z));
    EXPECT_EQ(memm_get_refcount(y), 2u); // the mark leaves the reference count alone

    EXPECT_EQ(memm_tag_objects("t_a", 0), 0);
    EXPECT_EQ(log_count(tag_line("un", 2, "t_a")), 1u);
    EXPECT_FALSE(tagged(x) || tagged(y));
    EXPECT_EQ(memm_get_refcount(y), 2u);

    memm_test::clear_logs();
    memm_tag_objects("nothing", 1);
    EXPECT_TRUE(memm_test::logs().empty());
}

TEST(ListingTagging, ExtensionPoolsCountWithTheirRootAndOnTheirOwnTurn) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    uint32_t id = memm_initpool("chain", 10, 8, nullptr);
    void *last = nullptr;
    for (int i = 0; i < 12; i++)
        last = memm_calloc(id);
    memm_tag_objects("chain", 1);
    EXPECT_EQ(log_count(tag_line("", 12, "chain")), 1u);
    EXPECT_EQ(log_count(tag_line("", 2, "chain")), 1u);
    EXPECT_TRUE(tagged(last));
    // A released object comes back untagged.
    memm_free(last);
    EXPECT_FALSE(tagged(memm_calloc(id)));
}
