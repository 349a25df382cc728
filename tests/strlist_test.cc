// String lists, seeded: random items with separators and escape characters
// of their own are copied, joined plainly over a range against a join
// written here, joined with escapes and split back, exactly; the
// joined text is split at separator strings by both splits, against a plain
// splitter written here. The one-buffer pool is small, and a released filler
// leaves dead space in it, so that making the pieces of a record's text
// collects the buffer and moves the text being split.
#include "fixture.h"
#include "model/source.h"
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

// The texts of a new list, read by position and by enumeration; the list
// is released.
Items take_items(llist_node *list) {
    Items out;
    dynstr *last = nullptr;
    for (uint32_t i = 0, index = 0; i < strlist_getlength(list); i++) {
        out.push_back(strlist_getstring_at(list, int32_t(i)));
        EXPECT_EQ(strlist_enum_dynstr(list, &index, &last), strlist_getdynstr_at(list, int32_t(i)));
    }
    EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
    return out;
}

class Strlist : public memm_test::Started {};

TEST_F(Strlist, EscapedJoinsSplitBackAndSplitsMatchAPlainSplitter) {
    const uint32_t pool = strings("split", 200, 700, 1), list_nodes = nodes("split_nodes", 300);
    const uint32_t joins = strings("joins", 16, 4000, 2);
    const char *const seps[] = {"/", "//", "a/", ""};
    memm_model::RandomSource src(5);
    for (int round = 0; round < 2000 && !HasFailure(); round++) {
        Items items(size_t(src.pick(1, round % 7 ? 5 : 40)));
        llist_node *list = nullptr;
        for (std::string &item : items) {
            item.resize(size_t(src.pick(0, 6)));
            src.fill(item); // letters and '/': the escape character is 'a'
            ASSERT_EQ(strlist_addstring(&list, item.c_str(), list_nodes, pool), MEMM_OK);
        }
        EXPECT_EQ(take_items(strlist_clone(list, list_nodes, pool)), items);
        dynstr *filler = dynstr_fromstring(pool, std::string(250, '-').c_str());
        dynstr *joined = dynstr_fromstrlist_escaped(pool, list, "/", 'a');
        ASSERT_NE(joined, nullptr);
        EXPECT_EQ(memm_free(filler), MEMM_OK);
        const std::string text = dynstr_getstring(joined), sep = seps[round % 4];
        SCOPED_TRACE("'" + text + "' at '" + sep + "'");
        EXPECT_EQ(take_items(strlist_fromdynstr(joined, sep.c_str(), list_nodes)), plain_split(text, sep));
        EXPECT_EQ(take_items(strlist_fromstring(text.c_str(), sep.c_str(), list_nodes, pool)), plain_split(text, sep));
        std::string escaped = text;
        EXPECT_EQ(take_items(strlist_fromstring_escaped(&escaped[0], '/', 'a', list_nodes, pool)), items);
        // Plain joins, whole or of the items in [first, end), against a join
        // written here, into a pool where a filler leaves the free tail too
        // small for most: they take the second attempt, of the measured size.
        const dynstr_pooldesc *desc = memm_model::string_pool(joins);
        const uint32_t room = uint32_t(desc->buffersize) - desc->buf_used[desc->curbuffer];
        dynstr *tail = dynstr_fromstring(joins, std::string(room > 9 ? room - 2 - round % 8 : 0, 'f').c_str());
        const int32_t first = round % 3 ? round % 5 - 1 : 0, end = round % 3 ? round / 5 % 7 : INT32_MAX;
        std::string want;
        for (int32_t pos = std::max(first, 0); pos < std::min(end, int32_t(items.size())); pos++)
            want += (pos > std::max(first, 0) ? "," : "") + items[size_t(pos)];
        dynstr *plain = round % 3 == 0 ? dynstr_fromstrlist(joins, list, ",")
                      : round % 3 == 1 ? dynstr_frompartialstrlist(joins, list, ",", first, end)
                                       : strlist_partialtodynstr(list, ",", joins, first, end);
        EXPECT_STREQ(plain ? dynstr_getstring(plain) : "(failed)", want.c_str()) << first << ".." << end;
        memm_free(plain);
        memm_free(tail);
        EXPECT_EQ(llist_free_plist(&list), MEMM_OK);
        EXPECT_EQ(memm_free(joined), MEMM_OK);
        ASSERT_EQ(memm_model::storage_fault(pool, 0), "");
    }
    // An escaped split that runs out of string memory half way leaves no node behind.
    char text[] = "a-first-item-of-forty-characters-or-so-x,a-second-item-that-no-longer-fits-at-all";
    const uint32_t tiny = strings("tiny", 8, 48, 1), used = memm_get_pool_nolock(list_nodes)->cur_count;
    EXPECT_EQ(strlist_fromstring_escaped(text, ',', '^', list_nodes, tiny), nullptr);
    EXPECT_EQ(memm_get_pool_nolock(list_nodes)->cur_count, used);
}

} // namespace
