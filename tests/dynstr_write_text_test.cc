// Assignments, appends and formatting on an existing record: the maximum
// size of every writer with and without room in the current buffer, the
// three append paths, output vsnprintf makes awkward, sources inside the
// record's own text, and the argument checks.
#include <gtest/gtest.h>

#include <string.h>
#include <wchar.h>

#include <string>

#include "dynstr.h"
#include "dynstr_test_support.h"

namespace {

using memm_test::collections;
using memm_test::storage_consistent;
using memm_test::string_pool;

uint32_t g_sources; // a pool of its own, so sources take no room from the written record's buffer

struct Writer {
    const char *name;
    uint32_t (*write)(dynstr *); // writes 'abcdefgh', appends 'cdefgh' to 'ab'
    bool appends;
};
const Writer kWriters[] = {
    {"setstring", [](dynstr *d) { return dynstr_setstring(d, "abcdefgh"); }, false},
    {"setsubstring", [](dynstr *d) { return dynstr_setsubstring(d, "--abcdefgh", 2, -1); }, false},
    {"setdynstr", [](dynstr *d) { return dynstr_setdynstr(d, dynstr_fromstring(g_sources, "abcdefgh")); }, false},
    {"setsubdynstr", [](dynstr *d) { return dynstr_setsubdynstr(d, dynstr_fromstring(g_sources, "abcdefghi"), 0, 8); },
     false},
    {"setliteral", [](dynstr *d) { return dynstr_setliteral(d, "abcdefgh"); }, false},
    {"sprintf", [](dynstr *d) { return dynstr_sprintf(d, "%s", "abcdefgh"); }, false},
    {"addsprintf", [](dynstr *d) { return dynstr_addsprintf(d, "%s", "cdefgh"); }, true},
    {"addstring", [](dynstr *d) { return dynstr_addstring(d, "cdefgh"); }, true},
    {"addstring_size", [](dynstr *d) { return dynstr_addstring_size(d, "cdefghij", 6); }, true},
    {"adddynstr", [](dynstr *d) { return dynstr_adddynstr(d, dynstr_fromstring(g_sources, "cdefgh")); }, true},
};

TEST(DynstrWriteText, EveryWriterCutsAtTheMaximumSize) {
    ASSERT_EQ(memm_init(64, 40), MEMM_OK);
    g_sources = dynstr_initpool2("sources", 40, 4000, 1);
    for (const Writer &w : kWriters) {
        for (uint32_t free_bytes : {40u, 3u, 0u}) {
            SCOPED_TRACE(::testing::Message() << w.name << ", " << free_bytes << " bytes free");
            const std::string name = std::string(w.name) + std::to_string(free_bytes);
            const uint32_t pool = dynstr_initpool2(strdup(name.c_str()), 20, 128, 2); // two 64-byte buffers
            dynstr *d = dynstr_calloc_maxsize(pool, 5);
            if (w.appends)
                dynstr_setstring(d, "ab");
            const uint32_t used = string_pool(pool)->buf_used[0];
            if (used + free_bytes < 64)
                dynstr_fromstring(pool, std::string(63 - used - free_bytes, 'f').c_str());
            EXPECT_EQ(w.write(d), MEMM_OK);
            EXPECT_STREQ(dynstr_getstring(d), "abcd");
            EXPECT_EQ(dynstr_getmaxsize(d), 5u);
            EXPECT_EQ(dynstr_integrity_check(pool, 0), 1);
            EXPECT_EQ(string_pool(pool)->state & DYNSTR_STATE_DYNMEM_PENDING, 0u);
        }
    }
}

TEST(DynstrWriteText, AppendsGrowInPlaceMoveOrStage) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("a", 20, 200, 2); // two 100-byte buffers
    dynstr_pooldesc *p = string_pool(pool);
    dynstr *d = dynstr_calloc(pool);
    EXPECT_EQ(dynstr_addstring_size(d, "abc", 1000), MEMM_OK); // an empty record gains a text
    EXPECT_EQ(DYNSTR_SIZE(d->flags), 4u);
    char *at = d->str;
    EXPECT_EQ(dynstr_addstring(d, "def"), MEMM_OK); // the last text grows where it is
    EXPECT_EQ(d->str, at);
    dynstr *e = dynstr_fromstring(pool, "xy");
    EXPECT_EQ(dynstr_addstring_size(d, "ghijk", 2), MEMM_OK); // an older text moves
    EXPECT_STREQ(dynstr_getstring(d), "abcdefgh");
    EXPECT_EQ(d->str, p->buf_base[0] + 10);
    EXPECT_EQ(p->buf_firstdel[0]->str, at);
    const std::string fill(75, 'f');
    EXPECT_EQ(dynstr_addstring(d, fill.c_str()), MEMM_OK);
    EXPECT_EQ(dynstr_addstring(d, "ABCDEF"), MEMM_OK); // in place up to the last byte
    EXPECT_EQ(d->str, p->buf_base[0] + 10);
    EXPECT_EQ(p->buf_used[0], 100u);
    EXPECT_EQ(dynstr_addstring(d, "0123"), MEMM_OK); // no room behind it: staged
    EXPECT_EQ(dynstr_getstring(d), "abcdefgh" + fill + "ABCDEF0123");
    EXPECT_EQ(DYNSTR_BNR(d->flags), 1u);
    EXPECT_EQ(collections(pool, DYNSTR_GC_BUFFER_FULL), 1u);
    EXPECT_STREQ(dynstr_getstring(e), "xy");
    EXPECT_TRUE(storage_consistent(pool, 2));
    EXPECT_EQ(dynstr_addstring(d, "+ten chars"), MEMM_ERR_NO_MEMORY); // too long for any buffer
    EXPECT_EQ(d->str, nullptr);
    static const char kLit[] = "lit";
    dynstr *l = dynstr_fromliteral(pool, kLit);
    EXPECT_EQ(dynstr_adddynstr(l, e), MEMM_OK); // a literal is copied, not changed
    EXPECT_STREQ(dynstr_getstring(l), "litxy");
    EXPECT_STREQ(kLit, "lit");
    EXPECT_TRUE(storage_consistent(pool, 3));
}

TEST(DynstrWriteText, FormattingLeavesTheFreeTailZero) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("s", 20, 128, 2); // two 64-byte buffers
    dynstr *d = dynstr_calloc(pool);
    EXPECT_EQ(dynstr_addsprintf(d, "%s-%u", "eth", 0u), MEMM_OK); // empty old text: measured, then staged
    EXPECT_EQ(dynstr_addsprintf(d, "%u", 12u), MEMM_OK);
    EXPECT_STREQ(dynstr_getstring(d), "eth-012");
    const std::string long_text(60, 'L'); // more than the 56 free bytes: printed again into a staged block
    EXPECT_EQ(dynstr_addsprintf(d, "%s", long_text.c_str() + 10), MEMM_OK);
    EXPECT_EQ(dynstr_getstring(d), "eth-012" + long_text.substr(10));
    EXPECT_EQ(collections(pool, DYNSTR_GC_BUFFER_FULL), 2u); // one per staged text
    EXPECT_TRUE(storage_consistent(pool, 1));
    EXPECT_EQ(dynstr_sprintf(d, "ab%cde", 0), MEMM_OK); // output ends at a zero byte
    EXPECT_STREQ(dynstr_getstring(d), "ab");
    EXPECT_TRUE(storage_consistent(pool, 1));
    EXPECT_EQ(dynstr_sprintf(d, "%c%s", 0, "abc"), MEMM_OK);
    EXPECT_EQ(d->str, nullptr);
    EXPECT_TRUE(storage_consistent(pool, 1));
    const wchar_t euro[] = {0x20AC, 0}; // not encodable in the C locale: vsnprintf fails
    EXPECT_EQ(dynstr_sprintf(d, "ok"), MEMM_OK);
    EXPECT_EQ(dynstr_sprintf(d, "ab%ls", euro), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(d->str, nullptr);
    EXPECT_EQ(dynstr_fromprintf(pool, "%ls", euro), nullptr);
    EXPECT_EQ(dynstr_addsprintf(d, "%s%ls", long_text.c_str(), euro), MEMM_ERR_INVALID_ARG);
    EXPECT_TRUE(storage_consistent(pool, 1));
}

TEST(DynstrWriteText, SourcesInsideTheRecordsOwnText) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("s", 40, 400, 2);
    dynstr *d = dynstr_fromstring(pool, "ab");
    char *before = d->str;
    EXPECT_EQ(dynstr_setdynstr(d, d), MEMM_OK);
    EXPECT_NE(d->str, before);
    EXPECT_EQ(dynstr_sprintf(d, "%s", dynstr_getstring(d)), MEMM_OK);
    EXPECT_EQ(dynstr_addsprintf(d, "%s", dynstr_getstring(d)), MEMM_OK);
    EXPECT_STREQ(dynstr_getstring(d), "abab");
    EXPECT_EQ(dynstr_setsubdynstr(d, d, 1, 2), MEMM_OK);
    EXPECT_STREQ(dynstr_getstring(d), "ba");
    EXPECT_EQ(dynstr_addstring(d, dynstr_getstring(d)), MEMM_OK); // in place, overlapping its own text
    EXPECT_STREQ(dynstr_getstring(d), "baba");
    EXPECT_EQ(dynstr_setstring(d, dynstr_getstring(d) + 1), MEMM_OK);
    EXPECT_STREQ(dynstr_getstring(d), "aba");
    EXPECT_TRUE(storage_consistent(pool, 1));
}

TEST(DynstrWriteText, ArgumentChecksAndResultCodes) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("s", 20, 400, 2);
    auto *foreign = static_cast<dynstr *>(memm_calloc(memm_initpool("plain", 4, 32, nullptr)));
    dynstr *d = dynstr_fromstring(pool, "d"), *empty = dynstr_calloc(pool), *gone = dynstr_fromstring(pool, "gone");
    dynstr_fromstring(pool, "keeps gone a placeholder");
    memm_free(gone);
    const uint32_t bad = MEMM_ERR_INVALID_ARG;
    EXPECT_EQ(dynstr_setstring(d, nullptr), bad);
    EXPECT_EQ(dynstr_setdynstr(d, nullptr), bad);
    EXPECT_EQ(dynstr_setsubstring(d, nullptr, 0, 1), bad);
    EXPECT_EQ(dynstr_sprintf(d, nullptr), bad);
    EXPECT_EQ(dynstr_addstring(d, nullptr), bad);
    EXPECT_EQ(dynstr_adddynstr(d, d), bad);
    EXPECT_EQ(dynstr_adddynstr(d, nullptr), bad);
    for (dynstr *r : {static_cast<dynstr *>(nullptr), gone, foreign}) {
        EXPECT_EQ(dynstr_setsubstring(r, "x", 0, 1), bad);
        EXPECT_EQ(dynstr_setsubdynstr(r, d, 0, 1), bad);
        EXPECT_EQ(dynstr_setsubdynstr(d, r, 0, 1), bad);
        EXPECT_EQ(dynstr_sprintf(r, "x"), bad);
        EXPECT_EQ(dynstr_addsprintf(r, "x"), bad);
        EXPECT_EQ(dynstr_setliteral(r, "x"), bad);
        EXPECT_EQ(dynstr_addstring_size(r, "x", 1), bad);
        EXPECT_EQ(dynstr_addstring(r, "x"), bad);
        EXPECT_EQ(dynstr_adddynstr(r, d), bad);
        EXPECT_EQ(dynstr_adddynstr(d, r), bad);
        if (r != gone) { // a placeholder still counts as in a string pool
            EXPECT_EQ(dynstr_setstring(r, "x"), bad);
            EXPECT_EQ(dynstr_setdynstr(r, d), bad);
        }
    }
    // Nothing to append: success without a change.
    EXPECT_EQ(dynstr_addstring_size(d, nullptr, 1), MEMM_OK);
    EXPECT_EQ(dynstr_addstring_size(d, "", 1), MEMM_OK);
    EXPECT_EQ(dynstr_addstring_size(d, "xyz", 0), MEMM_OK);
    EXPECT_EQ(dynstr_adddynstr(d, empty), MEMM_OK);
    EXPECT_STREQ(dynstr_getstring(d), "d");
    EXPECT_TRUE(storage_consistent(pool, 3));
}

} // namespace
