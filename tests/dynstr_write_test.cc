// Targeted cases of the writers: the recorded allocation site, argument
// checks and placeholder texts, every writer's maximum size with and without
// room in the current buffer, the three append paths, and output vsnprintf
// makes awkward.
#include <gtest/gtest.h>

#include <stdarg.h>
#include <string.h>
#include <wchar.h>

#include <string>

#include "dynstr.h"
#include "dynstr_test_support.h"
#include "syslog_capture.h"

namespace {

using namespace memm_test;

uint32_t g_pool;
dynstr *g_src;

// One helper per constructor, never a tail call, so the recorded caller must
// lie inside the helper.
#define SITE(name, call)                                                                                               \
    __attribute__((noinline)) dynstr *name() {                                                                         \
        dynstr *d = call;                                                                                              \
        __asm__ volatile("" ::: "memory");                                                                             \
        return d;                                                                                                      \
    }
SITE(site_fromstring, dynstr_fromstring(g_pool, "abc"))
SITE(site_fromstring_nolock, dynstr_fromstring_nolock(g_pool, "abc"))
SITE(site_fromsubstring, dynstr_fromsubstring(g_pool, "abc", 1, 1))
SITE(site_fromdynstr, dynstr_fromdynstr(g_src))
SITE(site_fromdynstr_nolock, dynstr_fromdynstr_nolock(g_src))
SITE(site_fromsubdynstr, dynstr_fromsubdynstr(g_src, 1, -1))
SITE(site_fromsubdynstr_nolock, dynstr_fromsubdynstr_nolock(g_src, 1, -1))
SITE(site_fromliteral, dynstr_fromliteral(g_pool, "lit"))
SITE(site_fromliteral_nolock, dynstr_fromliteral_nolock(g_pool, "lit"))
SITE(site_fromprintf, dynstr_fromprintf(g_pool, "%d", 7))
SITE(site_fromlastsep, dynstr_fromlastsep(g_src, '/'))
SITE(site_fromulong, dynstr_fromulong(g_pool, 1))
SITE(site_fromuint32, dynstr_fromuint32(g_pool, 1))
SITE(site_fromlong, dynstr_fromlong(g_pool, -1))
SITE(site_fromint32, dynstr_fromint32(g_pool, -1))
SITE(site_fromipv4addr, dynstr_fromipv4addr(g_pool, 0x0100007F))
SITE(site_fromipaddr, dynstr_fromipaddr(g_pool, 0x0100007F))
SITE(site_hexstringfromdata, dynstr_hexstringfromdata(g_pool, reinterpret_cast<const uint8_t *>("ab"), 2))
__attribute__((noinline)) dynstr *vprintf_helper(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    dynstr *d = dynstr_fromvprintf(g_pool, fmt, ap);
    va_end(ap);
    return d;
}
SITE(site_fromvprintf, vprintf_helper("%s", "x"))

bool recorded_by(dynstr *(*site)()) {
    dynstr *d = site();
    const char *at = static_cast<const char *>(allocfrom(d)), *start = reinterpret_cast<const char *>(site);
    return d && at >= start && at < start + 256;
}

TEST(DynstrWrite, EveryConstructorRecordsItsCaller) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    g_pool = dynstr_initpool2("c", 40, 1000, 2);
    g_src = dynstr_fromstring(g_pool, "a/b");
    for (auto site : {site_fromstring, site_fromsubstring, site_fromdynstr, site_fromsubdynstr, site_fromliteral,
                      site_fromprintf, site_fromulong, site_fromuint32, site_fromlong, site_fromint32,
                      site_fromipv4addr, site_fromipaddr, site_hexstringfromdata})
        EXPECT_TRUE(recorded_by(site));
    memm_lock("test");
    for (auto site :
         {site_fromstring_nolock, site_fromdynstr_nolock, site_fromsubdynstr_nolock, site_fromliteral_nolock})
        EXPECT_TRUE(recorded_by(site));
    memm_unlock();
    // vprintf_helper is the caller here; the text after a separator records
    // a site inside the library.
    EXPECT_FALSE(recorded_by(site_fromvprintf));
    EXPECT_FALSE(recorded_by(site_fromlastsep));
    EXPECT_TRUE(storage_consistent(g_pool, 20));
}

TEST(DynstrWrite, ArgumentChecksAndPlaceholderTexts) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("s", 20, 200, 2), plain = memm_initpool("plain", 4, 32, nullptr);
    memm_pool_options options = {};
    options.cookie = memm_calloc(plain); // a cookie, but no string-pool descriptor
    const uint32_t cookied = memm_initpool("cookied", 4, 32, &options);
    auto *foreign = static_cast<dynstr *>(memm_calloc(plain));
    dynstr *d = dynstr_fromstring(pool, "d"), *empty = dynstr_calloc(pool), *gone = dynstr_fromstring(pool, "gone");
    dynstr_fromstring(pool, "keeps gone a placeholder");
    memm_free(gone);
    EXPECT_STREQ(dynstr_getstring(nullptr), DYNSTR_TEXT_NOT_MEMMSTR);
    EXPECT_STREQ(dynstr_getstring(foreign), DYNSTR_TEXT_NOT_MEMMSTR);
    EXPECT_STREQ(dynstr_getstring(static_cast<dynstr *>(memm_calloc(cookied))), DYNSTR_TEXT_NOT_DYNSTR);
    EXPECT_STREQ(dynstr_getstring(empty), "");
    EXPECT_EQ(dynstr_strlen(nullptr), 0u);

    // Constructors give null and keep nothing.
    const uint32_t in_use = memm_get_pool_nolock(pool)->cur_count;
    for (uint32_t id : {plain, MEMM_INVALID_POOL, 999u})
        for (dynstr *made : {dynstr_fromstring(id, "x"), dynstr_fromsubstring(id, "x", 0, 1),
                             dynstr_fromliteral(id, "x"), dynstr_fromprintf(id, "x")})
            EXPECT_EQ(made, nullptr) << id;
    for (dynstr *src : {static_cast<dynstr *>(nullptr), gone, foreign})
        for (dynstr *made : {dynstr_fromdynstr(src), dynstr_fromsubdynstr(src, 0, -1), dynstr_fromlastsep(src, 'b')})
            EXPECT_EQ(made, nullptr) << dynstr_getstring(src);
    for (dynstr *made : {dynstr_fromstring(pool, nullptr), dynstr_fromsubstring(pool, nullptr, 0, 1),
                         dynstr_fromliteral(pool, nullptr), dynstr_fromlastsep(d, '\0')})
        EXPECT_EQ(made, nullptr);
    EXPECT_EQ(memm_get_pool_nolock(plain)->cur_count, 2u);
    EXPECT_EQ(memm_get_pool_nolock(pool)->cur_count, in_use);

    // Writers refuse a missing source, a missing or foreign record, and a
    // placeholder, which they would revive. Results are checked in call order.
    int call = 0;
    for (uint32_t got : {dynstr_setstring(d, nullptr), dynstr_setdynstr(d, nullptr),
                         dynstr_setsubstring(d, nullptr, 0, 1), dynstr_sprintf(d, nullptr),
                         dynstr_setliteral(d, nullptr), dynstr_addstring(d, nullptr), dynstr_adddynstr(d, d)})
        EXPECT_EQ(got, MEMM_ERR_INVALID_ARG) << "call " << call++;
    for (dynstr *r : {static_cast<dynstr *>(nullptr), gone, foreign}) {
        call = 0;
        for (uint32_t got : {dynstr_setstring(r, "x"), dynstr_setsubstring(r, "x", 0, 1), dynstr_setdynstr(r, d),
                             dynstr_setsubdynstr(r, d, 0, 1), dynstr_setsubdynstr(d, r, 0, 1), dynstr_sprintf(r, "x"),
                             dynstr_addsprintf(r, "x"), dynstr_setliteral(r, "x"), dynstr_addstring_size(r, "x", 1),
                             dynstr_addstring(r, "x"), dynstr_adddynstr(r, d), dynstr_adddynstr(d, r), dynstr_reset(r),
                             dynstr_setmaxsize(r, 3)})
            EXPECT_EQ(got, MEMM_ERR_INVALID_ARG) << dynstr_getstring(r) << ", call " << call++;
    }
    EXPECT_EQ(log_count("[DYNSTR] \"dynstr_reset() invalid param\""), 3u);
    EXPECT_EQ(log_count("[DYNSTR] \"dynstr_setmaxsize() invalid param\""), 3u);
    // Nothing to append: success without a change.
    for (uint32_t got : {dynstr_addstring_size(d, nullptr, 1), dynstr_addstring_size(d, "", 1),
                         dynstr_addstring_size(d, "xyz", 0), dynstr_adddynstr(d, empty)})
        EXPECT_EQ(got, MEMM_OK);
    EXPECT_STREQ(dynstr_getstring(d), "d");
    // No buffer room: the half-made record goes again.
    const std::string huge(300, 'h');
    EXPECT_EQ(dynstr_fromstring(pool, huge.c_str()), nullptr);
    EXPECT_EQ(dynstr_fromprintf(pool, "%s", huge.c_str()), nullptr);
    EXPECT_TRUE(storage_consistent(pool, 3));
}

uint32_t g_sources; // a pool of its own, so sources take no room from the written record's buffer
dynstr *source(const char *text) { return dynstr_fromstring(g_sources, text); }

// Each writer writes 'abcde' or appends 'cde' to 'ab': one character more
// than a maximum size of 5 holds.
const struct {
    const char *name;
    uint32_t (*write)(dynstr *);
    bool appends;
} kWriters[] = {
    {"setstring", [](dynstr *d) { return dynstr_setstring(d, "abcde"); }, false},
    {"setsubstring", [](dynstr *d) { return dynstr_setsubstring(d, "--abcde", 2, -1); }, false},
    {"setdynstr", [](dynstr *d) { return dynstr_setdynstr(d, source("abcde")); }, false},
    {"setsubdynstr", [](dynstr *d) { return dynstr_setsubdynstr(d, source("abcdef"), 0, 5); }, false},
    {"setliteral", [](dynstr *d) { return dynstr_setliteral(d, "abcde"); }, false},
    {"sprintf", [](dynstr *d) { return dynstr_sprintf(d, "%s", "abcde"); }, false},
    {"addsprintf", [](dynstr *d) { return dynstr_addsprintf(d, "%s", "cde"); }, true},
    {"addstring", [](dynstr *d) { return dynstr_addstring(d, "cde"); }, true},
    {"addstring_size", [](dynstr *d) { return dynstr_addstring_size(d, "cdefg", 3); }, true},
    {"adddynstr", [](dynstr *d) { return dynstr_adddynstr(d, source("cde")); }, true},
};

TEST(DynstrWrite, EveryWriterCutsAtTheMaximumSize) {
    ASSERT_EQ(memm_init(64, 48), MEMM_OK);
    g_sources = dynstr_initpool2("sources", 40, 4000, 1);
    for (const auto &w : kWriters) {
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
            EXPECT_TRUE(storage_consistent(pool, used + free_bytes < 64 ? 2 : 1));
        }
        // A maximum size of 1 cuts any text to the empty string, which takes
        // no room: a write into an exactly full buffer succeeds.
        const uint32_t full = dynstr_initpool2(strdup((std::string(w.name) + "_full").c_str()), 4, 2, 1);
        dynstr *d = dynstr_calloc_maxsize(full, 1);
        ASSERT_NE(dynstr_fromstring(full, "f"), nullptr);
        EXPECT_EQ(w.write(d), MEMM_OK) << w.name;
        EXPECT_STREQ(dynstr_getstring(d), "") << w.name;
    }
}

TEST(DynstrWrite, AppendsGrowInPlaceMoveOrStage) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("a", 20, 200, 2); // two 100-byte buffers
    dynstr_pooldesc *p = string_pool(pool);
    dynstr *d = dynstr_calloc(pool);
    EXPECT_EQ(dynstr_addstring_size(d, "abc", 1000), MEMM_OK); // an empty record gains a text
    EXPECT_EQ(DYNSTR_SIZE(d->flags), 4u);
    char *at = d->str;
    EXPECT_EQ(dynstr_addstring(d, "def"), MEMM_OK); // the last text grows where it is
    EXPECT_EQ(d->str, at);
    dynstr_fromstring(pool, "xy");
    EXPECT_EQ(dynstr_addstring_size(d, "ghijk", 2), MEMM_OK); // an older text moves to the free position
    EXPECT_EQ(d->str, p->buf_base[0] + 10);
    const std::string fill(81, 'f');
    EXPECT_EQ(dynstr_addstring(d, fill.c_str()), MEMM_OK); // in place up to the last byte
    EXPECT_EQ(d->str, p->buf_base[0] + 10);
    EXPECT_EQ(p->buf_used[0], 100u);
    EXPECT_EQ(dynstr_addstring(d, "0123"), MEMM_OK); // no room behind it: staged, placed in the next buffer
    EXPECT_EQ(DYNSTR_BNR(d->flags), 1u);
    EXPECT_EQ(collections(pool, DYNSTR_GC_BUFFER_FULL), 1u);
    EXPECT_EQ(dynstr_getstring(d), "abcdefgh" + fill + "0123");
    EXPECT_TRUE(storage_consistent(pool, 2));
}

TEST(DynstrWrite, FormattingLeavesTheFreeTailZero) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("s", 20, 128, 2); // two 64-byte buffers
    dynstr *d = dynstr_fromstring(pool, "eth-012");
    const std::string long_text(50, 'L'); // more than the 56 free bytes with the old text: printed again, staged
    EXPECT_EQ(dynstr_addsprintf(d, "%s", long_text.c_str()), MEMM_OK);
    EXPECT_EQ(dynstr_getstring(d), "eth-012" + long_text);
    EXPECT_EQ(collections(pool, DYNSTR_GC_BUFFER_FULL), 1u);
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

} // namespace
