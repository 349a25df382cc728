// Joining string lists: a seeded random test against a plain join of the
// items, over separators of every length, escaping, ranges, literal items,
// and current buffers whose free tail is too short (the staged second
// attempt); then the joins that must fail, leaving nothing behind.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "dynstr.h"
#include "dynstr_test_support.h"
#include "llist.h"
#include "syslog_capture.h"

namespace {

using memm_test::storage_consistent;

std::string expected_join(const std::vector<std::string> &items, const std::string &sep, unsigned char esc,
                          int32_t first, int32_t end) {
    const bool escaping = esc && sep.size() <= 1;
    std::string out;
    bool written = false;
    for (int32_t i = 0; i < int32_t(items.size()); i++) {
        if (i < first || i >= end)
            continue;
        if (written)
            out += sep;
        for (char c : items[size_t(i)]) {
            if (escaping && ((!sep.empty() && c == sep[0]) || static_cast<unsigned char>(c) == esc))
                out += char(esc);
            out += c;
        }
        written = true;
    }
    return out;
}

struct Fixture {
    uint32_t strings, nodes;
    Fixture() {
        EXPECT_EQ(memm_init(16, 2), MEMM_OK);
        strings = dynstr_initpool2("join", 60, 2048, 2);
        nodes = llist_initpool("join_nodes", 40, int32_t(sizeof(llist_node)), nullptr);
    }
};

TEST(DynstrJoin, MatchesAPlainJoin) {
    Fixture f;
    std::mt19937 rng(11);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    const char *const seps[] = {"", ",", ", ", "::"};
    static const char kLiteral[] = "lit,^";
    uint32_t staged_rounds = 0;
    for (int round = 0; round < 3000; round++) {
        SCOPED_TRACE(::testing::Message() << "round " << round);
        std::vector<std::string> items;
        llist_node *list = nullptr;
        const int n = pick(0, 6);
        for (int i = 0; i < n; i++) {
            std::string text(size_t(pick(0, 3) ? pick(0, 6) : pick(20, 120)), 'x');
            for (char &c : text)
                c = "ab,^: "[pick(0, 5)];
            dynstr *d = pick(0, 7) ? dynstr_fromstring(f.strings, text.c_str()) : dynstr_fromliteral(f.strings, kLiteral);
            ASSERT_NE(d, nullptr);
            items.push_back(dynstr_getstring(d));
            ASSERT_EQ(llist_addobject(&list, d, f.nodes), MEMM_OK);
        }
        const std::string sep = seps[pick(0, 3)];
        unsigned char esc = 0;
        const dynstr_pooldesc *desc = memm_test::string_pool(f.strings);
        const uint32_t tail = uint32_t(desc->buffersize) - desc->buf_used[desc->curbuffer];
        dynstr *joined;
        int32_t first = 0, end = n;
        switch (pick(0, 2)) {
        case 0: joined = dynstr_fromstrlist(f.strings, list, sep.c_str()); break;
        case 1:
            esc = pick(0, 3) ? '^' : 0;
            joined = dynstr_fromstrlist_escaped(f.strings, list, sep.c_str(), esc);
            break;
        default:
            first = pick(-1, n + 1), end = pick(-1, n + 1);
            joined = dynstr_frompartialstrlist(f.strings, list, sep.c_str(), first, end);
        }
        const std::string want = expected_join(items, sep, esc, first, end);
        ASSERT_NE(joined, nullptr);
        EXPECT_EQ(dynstr_getstring(joined), want);
        EXPECT_EQ(dynstr_strlen(joined), want.size());
        // A join too long for the free tail went through a staged block.
        staged_rounds += want.size() + 1 > tail;
        EXPECT_TRUE(storage_consistent(f.strings, size_t(n) + 1));
        EXPECT_EQ(memm_free(joined), MEMM_OK);
        EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
        if (::testing::Test::HasFailure())
            return;
    }
    EXPECT_TRUE(storage_consistent(f.strings, 0));
    EXPECT_GT(staged_rounds, 0u);
}

// A join fails as a whole when some node of the list does not hold a live
// record, also a node outside the range or beyond a null linked_obj; no
// record or block is left behind.
TEST(DynstrJoin, RefusesListsWithoutLiveRecords) {
    Fixture f;
    const uint32_t other = memm_initpool("join_other", 4, 8, nullptr);
    llist_node *list = nullptr;
    dynstr *a = dynstr_fromstring(f.strings, "a"), *b = dynstr_fromstring(f.strings, "b");
    ASSERT_EQ(llist_addobject(&list, a, f.nodes), MEMM_OK);
    ASSERT_EQ(llist_addobject(&list, b, f.nodes), MEMM_OK);
    struct Case {
        const char *what;
        void *last; // appended behind "a", "b"
    };
    dynstr *deleted = dynstr_fromstring(f.strings, "gone");
    ASSERT_NE(dynstr_fromstring(f.strings, "behind"), nullptr);
    ASSERT_EQ(memm_free(deleted), MEMM_OK); // stays as a placeholder in its buffer
    const Case cases[] = {{"deleted record", deleted}, {"object of another pool", memm_calloc(other)}, {"null", nullptr}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(llist_addobject_nolock(&list, c.last, f.nodes), MEMM_OK);
        const uint32_t in_use = memm_get_pool_nolock(f.strings)->cur_count;
        EXPECT_EQ(dynstr_fromstrlist(f.strings, list, ","), nullptr);
        EXPECT_EQ(dynstr_frompartialstrlist(f.strings, list, ",", 0, 1), nullptr);
        EXPECT_EQ(dynstr_fromstrlist_escaped(f.strings, list, ",", '^'), nullptr);
        EXPECT_EQ(memm_get_pool_nolock(f.strings)->cur_count, in_use);
        EXPECT_EQ(memm_test::log_count_prefix("[DYNSTR]"), 0u) << "a failed join is quiet";
        ASSERT_EQ(llist_unlink_at(&list, 2), MEMM_OK);
    }
    // Arguments outside the contract are refused too.
    EXPECT_EQ(dynstr_fromstrlist(f.strings, list, nullptr), nullptr);
    EXPECT_EQ(dynstr_fromstrlist(other, list, ","), nullptr);
    EXPECT_EQ(dynstr_fromstrlist(MEMM_INVALID_POOL, list, ","), nullptr);
    dynstr *ok = dynstr_fromstrlist(f.strings, list, ",");
    EXPECT_STREQ(dynstr_getstring(ok), "a,b");
    dynstr *none = dynstr_fromstrlist(f.strings, nullptr, ",");
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->str, nullptr);
}

} // namespace
