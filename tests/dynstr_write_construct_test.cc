// Constructors: the recorded allocation site, argument checks, substring
// clamping, the text after a separator, and literals kept or copied.
#include <gtest/gtest.h>

#include <stdarg.h>
#include <string.h>

#include <string>

#include "dynstr.h"
#include "dynstr_test_support.h"
#include "syslog_capture.h"

namespace {

using memm_test::storage_consistent;

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
    void *at;
    memcpy(&at, reinterpret_cast<const char *>(d) - MEMM_OBJHDR_SIZE + 8, sizeof at);
    const char *start = reinterpret_cast<const char *>(site);
    return d && static_cast<const char *>(at) >= start && static_cast<const char *>(at) < start + 256;
}

TEST(DynstrWriteConstruct, EveryConstructorRecordsItsCaller) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    g_pool = dynstr_initpool2("c", 40, 1000, 2);
    g_src = dynstr_fromstring(g_pool, "a/b");
    for (auto site : {site_fromstring, site_fromsubstring, site_fromdynstr, site_fromsubdynstr, site_fromliteral,
                      site_fromprintf})
        EXPECT_TRUE(recorded_by(site));
    memm_lock("test");
    for (auto site : {site_fromstring_nolock, site_fromdynstr_nolock, site_fromsubdynstr_nolock, site_fromliteral_nolock})
        EXPECT_TRUE(recorded_by(site));
    memm_unlock();
    // vprintf_helper is the caller here; the text after a separator records
    // a site inside the library.
    EXPECT_FALSE(recorded_by(site_fromvprintf));
    EXPECT_FALSE(recorded_by(site_fromlastsep));
    EXPECT_TRUE(storage_consistent(g_pool, 13));
}

TEST(DynstrWriteConstruct, BadArgumentsGiveNullAndKeepNothing) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("c", 10, 200, 2), plain = memm_initpool("plain", 4, 32, nullptr);
    dynstr *live = dynstr_fromstring(pool, "abc"), *gone = dynstr_fromstring(pool, "gone");
    dynstr_fromstring(pool, "keeps gone a placeholder");
    memm_free(gone);
    auto *foreign = static_cast<dynstr *>(memm_calloc(plain));
    const uint32_t in_use = memm_get_pool_nolock(pool)->cur_count;
    for (uint32_t bad : {plain, MEMM_INVALID_POOL, 999u}) {
        EXPECT_EQ(dynstr_fromstring(bad, "x"), nullptr);
        EXPECT_EQ(dynstr_fromsubstring(bad, "x", 0, 1), nullptr);
        EXPECT_EQ(dynstr_fromliteral(bad, "x"), nullptr);
        EXPECT_EQ(dynstr_fromprintf(bad, "x"), nullptr);
    }
    EXPECT_EQ(dynstr_fromstring(pool, nullptr), nullptr);
    EXPECT_EQ(dynstr_fromsubstring(pool, nullptr, 0, 1), nullptr);
    EXPECT_EQ(dynstr_fromliteral(pool, nullptr), nullptr);
    for (dynstr *src : {static_cast<dynstr *>(nullptr), gone, foreign}) {
        EXPECT_EQ(dynstr_fromdynstr(src), nullptr);
        EXPECT_EQ(dynstr_fromsubdynstr(src, 0, -1), nullptr);
        EXPECT_EQ(dynstr_fromlastsep(src, 'b'), nullptr);
    }
    EXPECT_EQ(dynstr_fromlastsep(live, '\0'), nullptr);
    EXPECT_EQ(memm_get_pool_nolock(plain)->cur_count, 1u);
    EXPECT_EQ(memm_get_pool_nolock(pool)->cur_count, in_use);
    // No buffer room: the half-made record is released again.
    const std::string huge(300, 'h');
    EXPECT_EQ(dynstr_fromstring(pool, huge.c_str()), nullptr);
    EXPECT_EQ(dynstr_fromprintf(pool, "%s", huge.c_str()), nullptr);
    EXPECT_TRUE(storage_consistent(pool, 2));
}

TEST(DynstrWriteConstruct, PiecesSeparatorsAndLiterals) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("c", 40, 1000, 2);
    dynstr *src = dynstr_fromstring(pool, "abcdef");
    EXPECT_STREQ(dynstr_getstring(dynstr_fromsubdynstr(src, -5, -1)), "abcdef");
    EXPECT_EQ(dynstr_fromsubdynstr(src, 7, -1)->str, nullptr);
    EXPECT_STREQ(dynstr_getstring(dynstr_fromsubdynstr(src, 2, 100)), "cdef");
    EXPECT_STREQ(dynstr_getstring(dynstr_fromsubstring(pool, "abcdef", -1, 3)), "abc"); // clamped like a record
    EXPECT_EQ(dynstr_fromsubstring(pool, "abcdef", 9, 1)->str, nullptr);
    EXPECT_EQ(dynstr_fromstring(pool, "")->str, nullptr);
    EXPECT_STREQ(dynstr_getstring(dynstr_fromlastsep(dynstr_fromstring(pool, "/a/b/c"), '/')), "c");
    EXPECT_EQ(dynstr_fromlastsep(dynstr_fromstring(pool, "abc/"), '/')->str, nullptr);
    EXPECT_EQ(dynstr_fromlastsep(dynstr_fromstring(pool, "abc"), '/'), nullptr);

    // A literal is referred to, takes no buffer space, and is copied only
    // when the maximum size cannot hold it.
    static const char kTen[] = "0123456789";
    const uint32_t used = memm_test::string_pool(pool)->usedbytes;
    dynstr *lit = dynstr_fromliteral(pool, kTen), *roomy = dynstr_calloc_maxsize(pool, 11);
    dynstr *tight = dynstr_calloc_maxsize(pool, 10);
    EXPECT_EQ(lit->str, kTen);
    EXPECT_EQ(DYNSTR_SIZE(lit->flags), 11u);
    EXPECT_EQ(dynstr_setliteral(roomy, kTen), MEMM_OK);
    EXPECT_EQ(roomy->str, kTen);
    EXPECT_EQ(memm_test::string_pool(pool)->usedbytes, used);
    EXPECT_EQ(dynstr_setliteral(tight, kTen), MEMM_OK);
    EXPECT_STREQ(dynstr_getstring(tight), "012345678");
    EXPECT_EQ(dynstr_getmaxsize(tight), 10u);
    EXPECT_EQ(dynstr_setliteral(nullptr, kTen), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(dynstr_setliteral(lit, nullptr), MEMM_ERR_INVALID_ARG);
    EXPECT_TRUE(storage_consistent(pool, 15));
}

} // namespace
