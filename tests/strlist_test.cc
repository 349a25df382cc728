// String lists: the splits against a plain splitter written here, the
// escaped split and join as exact inverses, ownership through the add,
// remove, clone and refalloc family, items by position, and pools that run
// dry part-way through a split.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "dynstr_test_support.h"
#include "strlist.h"

namespace {

using Items = std::vector<std::string>;
using memm_test::storage_consistent;

// Split at every occurrence of sep, empty items kept; an empty sep splits nothing.
Items plain_split(const std::string &text, const std::string &sep) {
    Items out;
    size_t start = 0;
    for (size_t at; !sep.empty() && (at = text.find(sep, start)) != std::string::npos; start = at + sep.size())
        out.push_back(text.substr(start, at - start));
    out.push_back(text.substr(start));
    return out;
}

Items items_of(llist_node *list) {
    Items out;
    for (uint32_t i = 0; i < strlist_getlength(list); i++)
        out.push_back(strlist_getstring_at(list, int32_t(i)));
    return out;
}

size_t in_use(uint32_t pool) { return memm_get_pool_nolock(pool)->cur_count; }

struct Pools {
    uint32_t strings, nodes;
    Pools(uint32_t records = 200, int32_t bytes = 4096, int32_t nodes_count = 200, int32_t buffers = 2) {
        EXPECT_EQ(memm_init(16, 2), MEMM_OK);
        strings = dynstr_initpool2("sl_strings", records, bytes, buffers);
        nodes = llist_initpool("sl_nodes", nodes_count, int32_t(sizeof(llist_node)), nullptr);
    }
};

std::string random_text(std::mt19937 &rng, const char *alphabet, size_t max_len) {
    std::string s(std::uniform_int_distribution<size_t>(0, max_len)(rng), ' ');
    const size_t n = strlen(alphabet);
    for (char &c : s)
        c = alphabet[std::uniform_int_distribution<size_t>(0, n - 1)(rng)];
    return s;
}

// Both splits give what the plain splitter gives. The record is split in a
// one-buffer pool small enough that making the pieces collects the buffer
// and moves the text being split down over the dead text in front of it.
TEST(Strlist, SplitsMatchAPlainSplitter) {
    Pools p(60, 600, 200, 1);
    const std::string dead(250, '-');
    std::mt19937 rng(5);
    const char *const seps[] = {",", "::", "ab", ""};
    uint32_t moved = 0;
    for (int round = 0; round < 1500; round++) {
        const std::string sep = seps[round % 4];
        const std::string text = random_text(rng, "ab,:x", round % 7 ? 30 : 200);
        SCOPED_TRACE("'" + text + "' at '" + sep + "'");
        const Items want = plain_split(text, sep);
        llist_node *list = strlist_fromstring(text.c_str(), sep.c_str(), p.nodes, p.strings);
        EXPECT_EQ(items_of(list), want);
        EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
        dynstr *filler = dynstr_fromstring(p.strings, dead.c_str());
        dynstr *d = dynstr_fromstring(p.strings, text.c_str());
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(memm_free(filler), MEMM_OK);
        const uint32_t gc_before = memm_test::string_pool(p.strings)->gc_count;
        const char *where = d->str;
        llist_node *pieces = strlist_fromdynstr(d, sep.c_str(), p.nodes);
        moved += d->str != where && memm_test::string_pool(p.strings)->gc_count != gc_before;
        EXPECT_EQ(items_of(pieces), want);
        EXPECT_EQ(llist_free_plist(&pieces), MEMM_OK);
        EXPECT_EQ(memm_free(d), MEMM_OK);
        ASSERT_TRUE(storage_consistent(p.strings, 0));
        if (::testing::Test::HasFailure())
            return;
    }
    EXPECT_GT(moved, 0u) << "no split moved the text it split";
    EXPECT_EQ(strlist_fromstring(nullptr, ",", p.nodes, p.strings), nullptr);
    EXPECT_EQ(strlist_fromdynstr(nullptr, ",", p.nodes), nullptr);
}

// Escaped join, then escaped split: the items come back exactly, whatever
// separators and escape characters they hold. The empty list joins to ""
// and splits into one empty item.
TEST(Strlist, EscapedSplitInvertsEscapedJoin) {
    Pools p;
    std::mt19937 rng(9);
    for (int round = 0; round < 2000; round++) {
        Items items(std::uniform_int_distribution<size_t>(0, 5)(rng));
        llist_node *list = nullptr;
        for (std::string &item : items) {
            item = random_text(rng, ",^ab", 6);
            ASSERT_EQ(strlist_addstring(&list, item.c_str(), p.nodes, p.strings), MEMM_OK);
        }
        dynstr *joined = dynstr_fromstrlist_escaped(p.strings, list, ",", '^');
        ASSERT_NE(joined, nullptr);
        std::string text = dynstr_getstring(joined);
        SCOPED_TRACE("joined '" + text + "'");
        llist_node *back = strlist_fromstring_escaped(&text[0], ',', '^', p.nodes, p.strings);
        EXPECT_EQ(items_of(back), items.empty() ? Items{""} : items);
        EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
        EXPECT_EQ(llist_free_plist(&back), MEMM_OK);
        EXPECT_EQ(memm_free(joined), MEMM_OK);
        if (::testing::Test::HasFailure())
            return;
    }
    EXPECT_TRUE(storage_consistent(p.strings, 0));
    char trailing[] = "ab^";
    llist_node *list = strlist_fromstring_escaped(trailing, ',', '^', p.nodes, p.strings);
    EXPECT_EQ(items_of(list), Items{"ab"});
    EXPECT_EQ(strlist_fromstring_escaped(nullptr, ',', '^', p.nodes, p.strings), nullptr);
}

// Items record the line that added or split them, not the library's.
__attribute__((noinline)) llist_node *built_here(uint32_t nodes, uint32_t strings) {
    llist_node *list = strlist_fromstring("a", ",", nodes, strings);
    strlist_addstring(&list, "b", nodes, strings);
    strlist_adduint32(&list, 3, nodes, strings);
    __asm__ volatile("" ::: "memory");
    return list;
}

TEST(Strlist, ItemsRecordTheirCaller) {
    Pools p;
    llist_node *list = built_here(p.nodes, p.strings);
    const char *start = reinterpret_cast<const char *>(&built_here);
    for (int32_t i = 0; i < 3; i++) {
        const char *at = static_cast<const char *>(memm_test::allocfrom(strlist_getdynstr_at(list, i)));
        EXPECT_TRUE(at >= start && at < start + 256) << "item " << i;
    }
}

// Who holds each record after the operations that hand references over.
TEST(Strlist, OwnershipAndItemsByPosition) {
    Pools p;
    const uint32_t other = memm_initpool("sl_other", 4, 8, nullptr);
    llist_node *list = nullptr;
    dynstr *mine = dynstr_fromstring(p.strings, "mine");
    static const char kLiteral[] = "lit";
    ASSERT_EQ(strlist_addstring(&list, "a", p.nodes, p.strings), MEMM_OK);
    ASSERT_EQ(strlist_addliteral(&list, kLiteral, p.nodes, p.strings), MEMM_OK);
    ASSERT_EQ(strlist_adduint32(&list, 42, p.nodes, p.strings), MEMM_OK);
    ASSERT_EQ(strlist_addulong(&list, uint32_t(0x100000007ull), p.nodes, p.strings), MEMM_OK);
    ASSERT_EQ(strlist_addref(&list, mine, p.nodes), MEMM_OK);
    EXPECT_EQ(memm_get_refcount(mine), 2u);
    EXPECT_EQ(items_of(list), (Items{"a", "lit", "42", "7", "mine"}));
    EXPECT_EQ(strlist_getdynstr_at(list, 1)->str, kLiteral);

    // Failed adds change nothing and leave nothing behind.
    const size_t records = in_use(p.strings);
    EXPECT_EQ(strlist_addstring(&list, nullptr, p.nodes, p.strings), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(strlist_addstring(&list, "x", p.nodes, other), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(strlist_addstring(&list, "x", other, p.strings), MEMM_ERR_NO_MEMORY);
    EXPECT_EQ(strlist_addstring(nullptr, "x", p.nodes, p.strings), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(in_use(p.strings), records);
    EXPECT_EQ(strlist_getlength(list), 5u);

    // Positions: -1 is the last item; past the end there is no record.
    uint32_t v = 0;
    EXPECT_EQ(strlist_getuint32_at(list, &v, 2), MEMM_OK);
    EXPECT_EQ(v, 42u);
    EXPECT_EQ(strlist_getulong_at(list, &v, -2), MEMM_OK);
    EXPECT_EQ(v, 7u);
    EXPECT_EQ(strlist_getuint32_at(list, &v, 0), MEMM_ERR_INVALID_ARG);
    EXPECT_EQ(strlist_getuint32_at(list, &v, 5), MEMM_ERR_INVALID_ARG);
    EXPECT_STREQ(strlist_getstring_at(list, -1), "mine");
    EXPECT_STREQ(strlist_getstring_at(list, 5), "");
    EXPECT_STREQ(strlist_getstring_at(nullptr, 0), "");
    EXPECT_EQ(strlist_getdynstr_at(list, 5), nullptr);
    EXPECT_EQ(strlist_setstring_at(list, "b", 0), MEMM_OK);
    EXPECT_EQ(strlist_setstring_at(list, "b", 9), MEMM_ERR_INVALID_ARG);

    dynstr *joined = strlist_partialtodynstr(list, "+", p.strings, 1, 3);
    EXPECT_STREQ(dynstr_getstring(joined), "lit+42");
    EXPECT_EQ(memm_free(joined), MEMM_OK);

    // refalloc shares the records, clone copies them; a foreign object in
    // the list clones as "".
    void *foreign = memm_calloc(other);
    ASSERT_EQ(strlist_adddynstr(&list, static_cast<dynstr *>(foreign), p.nodes), MEMM_OK);
    llist_node *shared = strlist_refalloc(list, p.nodes);
    EXPECT_EQ(memm_get_refcount(mine), 3u);
    EXPECT_EQ(memm_get_refcount(foreign), 2u);
    llist_node *copy = strlist_clone(list, p.nodes, p.strings);
    EXPECT_EQ(items_of(copy), (Items{"b", "lit", "42", "7", "mine", ""}));
    EXPECT_NE(strlist_getdynstr_at(copy, 1)->str, kLiteral) << "a clone copies literals too";
    EXPECT_EQ(memm_get_refcount(mine), 3u);
    EXPECT_EQ(llist_free_plist(&copy), MEMM_OK);
    EXPECT_EQ(llist_free_plist(&shared), MEMM_OK);

    // remove hands the list's reference to the caller; delete releases it.
    EXPECT_EQ(strlist_remove_byobject(&list, mine), MEMM_OK);
    EXPECT_EQ(memm_get_refcount(mine), 2u);
    EXPECT_EQ(strlist_delete_at(&list, 0), MEMM_OK);
    EXPECT_EQ(strlist_remove_at(&list, 0), MEMM_OK); // "lit", now the caller's
    EXPECT_EQ(items_of(list), (Items{"42", "7", ""}));
    EXPECT_EQ(memm_free(mine), MEMM_OK);
    EXPECT_EQ(memm_get_refcount(mine), 1u);

    uint32_t index = 0;
    dynstr *last = nullptr;
    Items seen;
    while (dynstr *d = strlist_enum_dynstr(list, &index, &last))
        seen.push_back(dynstr_getstring(d));
    EXPECT_EQ(seen, (Items{"42", "7"}));
    EXPECT_EQ(strlist_todynstr(list, "+", p.strings), nullptr) << "a foreign object fails the join";

    // A node with a null object ends the list's length: a clone stops there.
    ASSERT_EQ(llist_addobject(&list, nullptr, p.nodes), MEMM_OK);
    ASSERT_EQ(strlist_addstring(&list, "behind", p.nodes, p.strings), MEMM_OK);
    copy = strlist_clone(list, p.nodes, p.strings);
    EXPECT_EQ(items_of(copy), (Items{"42", "7", ""}));
    EXPECT_EQ(llist_getreallength(copy), 3u);
    EXPECT_EQ(strlist_partialtodynstr(list, "+", p.strings, 0, 2), nullptr) << "also outside the range";
}

// Node and string pools that run dry part-way: the plain splits keep the
// items that could be made, the escaped split gives nothing, and no record
// or node is left over either way.
TEST(Strlist, PoolsRunningDryPartWay) {
    Pools p(6, 4096, 4);
    memm_disallow_expansion(p.nodes);
    const std::string line = "a,b,c,d,e,f,g,h,i,j";
    llist_node *list = strlist_fromstring(line.c_str(), ",", p.nodes, p.strings);
    EXPECT_EQ(items_of(list), (Items{"a", "b", "c", "d"})); // four nodes
    EXPECT_TRUE(storage_consistent(p.strings, 4));
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);

    std::string escaped = line;
    EXPECT_EQ(strlist_fromstring_escaped(&escaped[0], ',', '^', p.nodes, p.strings), nullptr);
    escaped = "a,b";
    EXPECT_EQ(strlist_fromstring_escaped(&escaped[0], ',', '^', p.nodes, p.nodes), nullptr) << "no string pool";
    EXPECT_EQ(in_use(p.nodes), 0u);
    EXPECT_TRUE(storage_consistent(p.strings, 0));

    const char *const arr[] = {"1", "2", "3", "4", "5", "6", nullptr};
    list = strlist_fromstringarr(arr, p.nodes, p.strings);
    EXPECT_EQ(items_of(list), (Items{"1", "2", "3", "4"}));
    EXPECT_EQ(strlist_addstring(&list, "x", p.nodes, p.strings), MEMM_ERR_NO_MEMORY);
    EXPECT_TRUE(storage_consistent(p.strings, 4));
    dynstr *d = dynstr_fromstring(p.strings, "p;q;r");
    llist_node *pieces = strlist_fromdynstr(d, ";", p.nodes);
    EXPECT_EQ(pieces, nullptr) << "no node left";
    EXPECT_TRUE(storage_consistent(p.strings, 5));
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);

    // More pieces than records: the record pool's slots and reserve run out.
    const uint32_t more_nodes = llist_initpool("sl_more_nodes", 40, int32_t(sizeof(llist_node)), nullptr);
    memm_disallow_expansion(p.strings);
    pieces = strlist_fromstring("1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20", ",", more_nodes, p.strings);
    const Items got = items_of(pieces);
    ASSERT_GT(got.size(), 0u);
    EXPECT_LT(got.size(), 20u);
    for (size_t i = 0; i < got.size(); i++)
        EXPECT_EQ(got[i], std::to_string(i + 1));
    EXPECT_TRUE(storage_consistent(p.strings, got.size() + 1));
    EXPECT_EQ(llist_free_plist(&pieces), MEMM_OK);
    EXPECT_EQ(memm_free(d), MEMM_OK);
    EXPECT_TRUE(storage_consistent(p.strings, 0));
    EXPECT_EQ(in_use(p.nodes), 0u);
}

} // namespace
