// String lists, seeded: both splits against a plain splitter written here,
// and the escaped join and split as exact inverses.
#include <random>

#include "fixture.h"
#include "model/string_storage.h"
#include "strlist.h"

namespace {

using Items = std::vector<std::string>;

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

std::string random_text(std::mt19937 &rng, const char *alphabet, size_t max_len) {
    std::string s(std::uniform_int_distribution<size_t>(0, max_len)(rng), ' ');
    for (char &c : s)
        c = alphabet[std::uniform_int_distribution<size_t>(0, strlen(alphabet) - 1)(rng)];
    return s;
}

class Strlist : public memm_test::Started {};

// The record is split in a one-buffer pool small enough that making the
// pieces collects the buffer and moves the text being split.
TEST_F(Strlist, SplitsMatchAPlainSplitter) {
    const uint32_t pool = strings("split", 60, 600, 1), list_nodes = nodes("split_nodes", 200);
    const std::string dead(250, '-');
    std::mt19937 rng(5);
    const char *const seps[] = {",", "::", "ab", ""};
    uint32_t moved = 0;
    for (int round = 0; round < 1500 && !HasFailure(); round++) {
        const std::string sep = seps[round % 4];
        const std::string text = random_text(rng, "ab,:x", round % 7 ? 30 : 200);
        SCOPED_TRACE("'" + text + "' at '" + sep + "'");
        const Items want = plain_split(text, sep);
        llist_node *list = strlist_fromstring(text.c_str(), sep.c_str(), list_nodes, pool);
        EXPECT_EQ(items_of(list), want);
        EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
        dynstr *filler = dynstr_fromstring(pool, dead.c_str());
        dynstr *d = dynstr_fromstring(pool, text.c_str());
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(memm_free(filler), MEMM_OK);
        const uint32_t collections = memm_model::string_pool(pool)->gc_count;
        const char *where = d->str;
        llist_node *pieces = strlist_fromdynstr(d, sep.c_str(), list_nodes);
        moved += d->str != where && memm_model::string_pool(pool)->gc_count != collections;
        EXPECT_EQ(items_of(pieces), want);
        EXPECT_EQ(llist_free_plist(&pieces), MEMM_OK);
        EXPECT_EQ(memm_free(d), MEMM_OK);
        ASSERT_EQ(memm_model::storage_fault(pool, 0), "");
    }
    EXPECT_GT(moved, 0u) << "no split moved the text it split";
}

// Whatever separators and escape characters the items hold, they come back
// exactly; the empty list joins to "" and splits into one empty item.
TEST_F(Strlist, EscapedSplitInvertsEscapedJoin) {
    const uint32_t pool = strings("escaped", 200, 4096), list_nodes = nodes("escaped_nodes", 200);
    std::mt19937 rng(9);
    for (int round = 0; round < 2000 && !HasFailure(); round++) {
        Items items(std::uniform_int_distribution<size_t>(0, 5)(rng));
        llist_node *list = nullptr;
        for (std::string &item : items) {
            item = random_text(rng, ",^ab", 6);
            ASSERT_EQ(strlist_addstring(&list, item.c_str(), list_nodes, pool), MEMM_OK);
        }
        dynstr *joined = dynstr_fromstrlist_escaped(pool, list, ",", '^');
        ASSERT_NE(joined, nullptr);
        std::string text = dynstr_getstring(joined);
        SCOPED_TRACE("joined '" + text + "'");
        llist_node *back = strlist_fromstring_escaped(&text[0], ',', '^', list_nodes, pool);
        EXPECT_EQ(items_of(back), items.empty() ? Items{""} : items);
        EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
        EXPECT_EQ(llist_free_plist(&back), MEMM_OK);
        EXPECT_EQ(memm_free(joined), MEMM_OK);
    }
    EXPECT_EQ(memm_model::storage_fault(pool, 0), "");
}

} // namespace
