// Strings: seeded runs of the shared string model (model/string_model.h),
// every constructor and writer checked after every step against predicted
// results and texts and against counters recomputed from the buffer lists;
// then what the model does not predict: parsing getters, typed writers,
// comparisons against the C library, joins against a join written here,
// the storage's merging and collection triggers, running out of buffer
// memory and long-form records.
#include <limits.h>
#include <random>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include "fixture.h"
#include "model/string_model.h"
#include "report_files.h"
#include "strlist.h"

namespace {

using memm_model::storage_fault;
using memm_model::string_pool;
constexpr uint32_t kInvalid = MEMM_ERR_INVALID_ARG;

// Collections run so far in the pool for one reason, over all buffers.
uint32_t collections(uint32_t pool, int reason) {
    uint32_t n = 0;
    for (const auto &row : string_pool(pool)->gc_reason)
        n += row[reason];
    return n;
}

void run_model(int32_t buffers, uint32_t records, int32_t total_bytes, uint32_t seed) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("model", records, total_bytes, buffers);
    ASSERT_NE(pool, MEMM_INVALID_POOL);
    memm_test::clear_logs();
    memm_model::RandomSource source(seed);
    memm_model::StringModel model(pool, source);
    for (int i = 0; i < 6000; i++) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed << ", step " << i);
        model.step();
        ASSERT_EQ(model.failure(), "");
        ASSERT_EQ(model.fault(), "");
    }
    // The run went through every path of the storage.
    const dynstr_pooldesc *desc = string_pool(pool);
    EXPECT_GT(collections(pool, DYNSTR_GC_BUFFER_FULL), 0u);
    EXPECT_GT(collections(pool, DYNSTR_GC_CTX_DEPLETED), 0u);
    EXPECT_TRUE(buffers == 1 || collections(pool, DYNSTR_GC_CTX_BALANCE) > 0);
    EXPECT_GT(desc->recup_ctx, 0u);
    EXPECT_NE(desc->state & DYNSTR_STATE_DEPLETED, 0u);
    // Sound storage gives the collector nothing to warn about.
    EXPECT_EQ(memm_test::log_count_prefix("[DYNSTR]"), 0u);
}

TEST(DynstrModel, OneBuffer) { run_model(1, 10, 600, 1); }
TEST(DynstrModel, TwoBuffers) { run_model(2, 12, 1000, 2); }
TEST(DynstrModel, ThreeBuffers) { run_model(3, 16, 1500, 3); }
TEST(DynstrModel, FourBuffers) { run_model(4, 16, 1600, 4); }
TEST(DynstrModel, FourBuffersFewRecords) { run_model(4, 6, 1200, 5); }


class Strings : public memm_test::Started {
  protected:
    uint32_t pool = 0;
    void SetUp() override {
        ASSERT_EQ(memm_init(32, 20), MEMM_OK);
        pool = strings("cases", 200, 8000);
    }
    // A record holding `text`: null gives an empty record, "" a literal empty text.
    dynstr *record(const char *text) {
        return !text ? dynstr_calloc(pool) : *text ? dynstr_fromstring(pool, text) : dynstr_fromliteral(pool, text);
    }
};

// What a getter reads from a text: "<result> <value as hex bytes>", the
// result "ok", "inv" (invalid) or "small" (output too small), and 0xee where
// nothing was written.
enum Getter { kU32, kI32, kBool, kIpv4, kIpv6, kAny, kMac, kHex2 };
std::string read(Getter g, dynstr *d) {
    uint8_t out[sizeof(dynstr_ipaddr) + 1];
    memset(out, 0xEE, sizeof out);
    uint32_t code = 0;
    size_t n = 4;
    switch (g) {
    case kU32: code = dynstr_getuint32(d, reinterpret_cast<uint32_t *>(out)); break;
    case kI32: code = dynstr_getint32(d, reinterpret_cast<int32_t *>(out)); break;
    case kBool: code = dynstr_getbool(d, reinterpret_cast<int *>(out)); break;
    case kIpv4: code = dynstr_getipv4addr(d, reinterpret_cast<uint32_t *>(out)); break;
    case kIpv6: code = dynstr_getipv6addr(d, out), n = 16; break;
    case kAny: code = dynstr_getipaddr_any(d, reinterpret_cast<dynstr_ipaddr *>(out)), n = 5; break;
    case kMac: code = dynstr_getmacaddr(d, out), n = 7; break;
    case kHex2: code = dynstr_gethexstring(d, out, 2), n = 3; break;
    }
    std::string s = code == MEMM_OK ? "ok " : code == kInvalid ? "inv " : code == MEMM_ERR_BUFFER_TOO_SMALL ? "small " : "?";
    for (size_t i = 0; i < n; i++)
        s += memm_test::fmt("%02x", out[i]);
    return s;
}

TEST_F(Strings, GettersAcceptWhatTheyDocument) {
    const struct {
        Getter g;
        const char *text;
        const char *want;
    } rows[] = {
        {kU32, " 42 ", "ok 2a000000"}, {kU32, "010", "ok 0a000000"}, {kU32, "-1", "ok ffffffff"},
        {kU32, "4294967297", "ok 01000000"}, {kU32, "42abc", "inv 2a000000"},
        {kU32, "12 a-word-longer-than-ten", "inv 0c000000"}, {kU32, "0x10", "inv 00000000"},
        {kU32, "", "inv eeeeeeee"}, {kU32, nullptr, "inv eeeeeeee"}, {kI32, "0x1F", "ok 1f000000"},
        {kI32, "010", "ok 08000000"}, {kI32, "-0x10", "ok f0ffffff"}, {kI32, " +5 ", "ok 05000000"},
        {kI32, "08", "inv 00000000"}, {kI32, "x1", "inv eeeeeeee"}, {kBool, "true", "ok 01000000"},
        {kBool, "no", "ok 01000000"}, {kBool, "00", "ok 00000000"}, {kBool, "f", "ok 00000000"},
        {kBool, "0x10", "ok 00000000"}, {kBool, nullptr, "ok 00000000"}, {kIpv4, "192.168.1.2", "ok c0a80102"},
        {kIpv4, "192.168.1", "inv eeeeeeee"}, {kIpv4, " 1.2.3.4", "inv eeeeeeee"}, {kIpv4, "", "ok 00000000"},
        {kIpv6, "fe80::1:2", "ok fe800000000000000000000000010002"},
        {kIpv6, "1::2::3", "inv eeeeeeeeeeeeeeeeeeeeeeeeeeeeeeee"}, {kAny, "::ffff:1.2.3.4", "ok 0200000000"},
        {kAny, "10.0.0.1", "ok 010000000a"}, {kAny, "host", "inv eeeeeeeeee"},
        {kMac, "00:1a:2B:3c:4d:5e", "ok 001a2b3c4d5eee"}, {kMac, "00:1a-2b.3c:4d:5e", "ok 001a2b3c4d5eee"},
        {kMac, "001A2B3C4D5E", "ok 001a2b3c4d5eee"}, {kMac, "0:1a:2b:3c:4d:5e", "inv eeeeeeeeeeeeee"},
        {kMac, "001a2b3c4d5e0", "inv eeeeeeeeeeeeee"}, {kMac, "00:1a:2b:3c:4d:zz", "inv eeeeeeeeeeeeee"},
        {kHex2, "ABC", "ok abc0ee"}, {kHex2, "x1 ", "ok 1100ee"}, {kHex2, "zz", "ok 3300ee"},
        {kHex2, nullptr, "ok 0000ee"}, {kHex2, "ABCDEF", "small eeeeee"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(read(row.g, record(row.text)), row.want) << row.g << " '" << (row.text ? row.text : "(empty)") << "'";
}

TEST_F(Strings, TypedWritersAndConstructors) {
    dynstr *d = dynstr_calloc(pool);
    const uint8_t v6[16] = {0xfe, 0x80, 15, 1};
    dynstr_ipaddr any = {DYNSTR_IPADDR_FAMILY_V6, {}};
    memcpy(any.addr, v6, 16);
    const std::pair<std::function<uint32_t()>, const char *> rows[] = { // a refused write keeps the text
        {[&] { return dynstr_setulong(d, ULONG_MAX); }, "18446744073709551615"},
        {[&] { return dynstr_setlong(d, LONG_MIN); }, "-9223372036854775808"},
        {[&] { return dynstr_setipaddr(d, 0x0201A8C0); }, "192.168.1.2"},
        {[&] { return dynstr_setipv6addr(d, v6); }, "fe80:f01::"},
        {[&] { return dynstr_setipaddr_any(d, &any); }, "fe80:f01::"},
        {[&] { return dynstr_setipv6addr(d, nullptr) - kInvalid; }, "fe80:f01::"},
        {[&] { return dynstr_setstring(d, dynstr_getstring(dynstr_fromulong(pool, ULONG_MAX))); }, "18446744073709551615"},
        {[&] { return dynstr_setdynstr(d, dynstr_fromlong(pool, -5)); }, "-5"},
        {[&] { return dynstr_setdynstr(d, dynstr_fromint32(pool, -6)); }, "-6"},
        {[&] { return dynstr_setdynstr(d, dynstr_fromuint32(pool, 7)); }, "7"},
        {[&] { return dynstr_setdynstr(d, dynstr_fromipv4addr(pool, 0x04030201)); }, "1.2.3.4"},
        {[&] { return dynstr_setdynstr(d, dynstr_fromipaddr(pool, 0x04030201)); }, "1.2.3.4"},
        {[&] { return dynstr_setdynstr(d, dynstr_hexstringfromdata(pool, v6, 3)); }, "fe800f"},
        {[&] { return dynstr_setdynstr(d, dynstr_hexstringfromdata(pool, nullptr, 3)); }, ""},
    };
    for (const auto &[call, text] : rows) {
        EXPECT_EQ(call(), MEMM_OK) << text;
        EXPECT_STREQ(dynstr_getstring(d), text);
    }
    const uint8_t big[100] = {};
    EXPECT_EQ(dynstr_hexstringfromdata(strings("small", 20, 128), big, 100), nullptr); // 201 bytes fit no buffer
    EXPECT_EQ(storage_fault(pool, 1 + 8), "");
}

int sign(int v) { return (v > 0) - (v < 0); }

TEST_F(Strings, ComparisonsAgreeWithTheCLibrary) {
    std::vector<const char *> texts = {"abc", "ABC", "abcd", "abXY", "", "b", "a\xe9", "Abd"};
    std::vector<dynstr *> recs;
    for (const char *t : texts)
        recs.push_back(*t ? record(t) : record(nullptr));
    dynstr *gone = record("g1");
    record("x"); // keeps gone a placeholder
    memm_free(gone);
    recs.insert(recs.end(), {nullptr, gone});
    texts.insert(texts.end(), {DYNSTR_TEXT_NOT_MEMMSTR, DYNSTR_TEXT_DELETED});
    for (size_t i = 0; i < recs.size(); i++) {
        for (size_t j = 0; j < recs.size(); j++) {
            const char *a = texts[i], *b = texts[j];
            EXPECT_EQ(sign(dynstr_strcmp(recs[i], recs[j])), sign(strcmp(a, b))) << a << " " << b;
            EXPECT_EQ(sign(dynstr_strcmpi(recs[i], recs[j])), sign(strcasecmp(a, b))) << a << " " << b;
            EXPECT_EQ(sign(dynstr_strcmp2(recs[i], b)), sign(strcmp(a, b))) << a << " " << b;
            EXPECT_EQ(sign(dynstr_strcmpi2(recs[i], b)), sign(strcasecmp(a, b))) << a << " " << b;
            for (uint32_t n : {0u, 1u, 3u, 100u}) {
                EXPECT_EQ(sign(dynstr_strncmp(recs[i], recs[j], n)), sign(strncmp(a, b, n))) << a << " " << b << n;
                EXPECT_EQ(sign(dynstr_strncmp2(recs[i], b, n)), sign(strncmp(a, b, n))) << a << " " << b << n;
            }
        }
    }
    // Copies out: cut and terminated, zero-padded, placeholder texts.
    const std::pair<uint32_t, std::string> copies[] = {{4, std::string("abc\0", 4)},
                                                      {10, std::string("abc\0\0\0\0\0\0\0", 10)}};
    for (const auto &[n, bytes] : copies) {
        char buf[16];
        memset(buf, 'X', sizeof buf);
        EXPECT_EQ(dynstr_strncpy(buf, recs[0], n), buf);
        EXPECT_EQ(std::string(buf, n), bytes);
        EXPECT_EQ(buf[n], 'X');
    }
    char *dup = dynstr_strdup(recs[2]);
    EXPECT_STREQ(dup, "abcd");
    free(dup);
}

// Joins of random items, separators, escapes and ranges against a join
// written here. A filler leaves the current buffer's free tail at a random
// size, so that many joins overflow it and take the counted second attempt;
// a node that holds no record fails the whole join.
TEST_F(Strings, JoinsMatchAPlainJoin) {
    const uint32_t list_nodes = nodes("join_nodes", 64), plain = memm_initpool("not_strings", 4, 8, nullptr);
    const dynstr_pooldesc *desc = string_pool(pool);
    std::mt19937 rng(3);
    for (int round = 0; round < 1500 && !HasFailure(); round++) {
        const std::string sep = std::vector<std::string>{",", "::", "", "^"}[rng() % 4];
        const unsigned char esc = rng() % 2 ? '^' : 0;
        const int32_t first = int32_t(rng() % 5) - 1, end = int32_t(rng() % 7);
        const int kind = int(rng() % 4), bad_at = rng() % 8 ? -1 : int(rng() % 4), n = int(rng() % 6);
        std::string want;
        int joined = 0;
        llist_node *list = nullptr;
        for (int pos = 0; pos < n; pos++) {
            std::string item(rng() % 60, 'a');
            for (char &c : item)
                c = "ab,:^"[rng() % 5];
            void *obj = pos == bad_at ? memm_calloc(plain) : nullptr; // held by the list alone
            ASSERT_EQ(obj ? llist_addobject(&list, obj, list_nodes) : strlist_addstring(&list, item.c_str(), list_nodes, pool),
                      MEMM_OK);
            if (kind == 2 && esc && sep.size() <= 1)
                for (size_t at = 0; (at = item.find_first_of(sep + char(esc), at)) != std::string::npos; at += 2)
                    item.insert(at, 1, char(esc));
            if (kind == 0 || kind == 2 || (pos >= first && pos < end))
                want += (joined++ ? sep : "") + item;
        }
        const uint32_t free_tail = uint32_t(desc->buffersize) - desc->buf_used[desc->curbuffer];
        const uint32_t filled = free_tail > 1 ? free_tail - 1 - rng() % std::min(free_tail - 1, 300u) : 0;
        dynstr *filler = dynstr_fromstring(pool, std::string(filled, 'f').c_str());
        dynstr *d = kind == 0 ? dynstr_fromstrlist(pool, list, sep.c_str())
                  : kind == 1 ? dynstr_frompartialstrlist(pool, list, sep.c_str(), first, end)
                  : kind == 2 ? dynstr_fromstrlist_escaped(pool, list, sep.c_str(), esc)
                              : strlist_partialtodynstr(list, sep.c_str(), pool, first, end);
        EXPECT_EQ(d ? dynstr_getstring(d) : "(failed)", bad_at >= 0 && bad_at < n ? "(failed)" : want)
            << "kind " << kind << ", sep '" << sep << "', range " << first << ".." << end;
        for (dynstr *rec : {d, filler})
            memm_free(rec);
        ASSERT_EQ(llist_free_plist(&list), MEMM_OK);
        ASSERT_EQ(storage_fault(pool, 0), "");
    }
    // An escaped split that runs out of string memory half way leaves nothing behind.
    char text[] = "a-first-item-of-forty-characters-or-so-x,a-second-item-that-no-longer-fits-at-all";
    const uint32_t tiny = strings("tiny", 8, 48, 1), used = memm_get_pool_nolock(list_nodes)->cur_count;
    EXPECT_EQ(strlist_fromstring_escaped(text, ',', '^', list_nodes, tiny), nullptr);
    EXPECT_EQ(memm_get_pool_nolock(list_nodes)->cur_count, used);
    EXPECT_EQ(storage_fault(tiny, 0), "");
}

// Released neighbours merge into one placeholder; a released last text is
// cut off the buffer at once, and so is a placeholder that merging makes last.
TEST_F(Strings, ReleasedTextsMergeAndTheLastIsCutOff) {
    const uint32_t p = strings("merge", 20, 100, 1);
    dynstr_pooldesc *desc = string_pool(p);
    dynstr *r[6];
    const char *texts[] = {"aa", "bbb", "cccc", "d", "ee", "f"};
    for (int i = 0; i < 6; i++)
        r[i] = dynstr_fromstring(p, texts[i]);
    memm_free(r[0]);
    memm_free(r[2]);
    memm_free(r[1]); // absorbs its deleted neighbours on both sides
    EXPECT_EQ(desc->buf_first[0], r[1]);
    EXPECT_STREQ(r[1]->str, "aa&bbb&cccc");
    EXPECT_EQ(desc->buf_firstdel[0], r[1]);
    EXPECT_EQ(desc->recup_ctx, 2u);
    memm_free(r[5]);
    EXPECT_EQ(desc->buf_used[0], 17u);
    EXPECT_EQ(desc->recup_bytes, 2u);
    memm_free(r[3]);
    memm_free(r[4]); // ends the buffer by merging: cut off too
    EXPECT_EQ(desc->buf_used[0], 0u);
    EXPECT_EQ(desc->recup_bytes, 19u);
    EXPECT_EQ(desc->recup_ctx, 6u);
    EXPECT_EQ(storage_fault(p, 0), "");
}

TEST_F(Strings, EachCollectionTrigger) {
    // ctx_balance: the current buffer holds more than its share of records.
    uint32_t p = strings("balance", 15, 1000, 2);
    for (int i = 0; i < 11; i++)
        dynstr_fromstring(p, "x");
    EXPECT_EQ(string_pool(p)->gc_reason[0][DYNSTR_GC_CTX_BALANCE], 1u);
    EXPECT_EQ(string_pool(p)->curbuffer, 1u);
    // A full record pool: a collecting allocation collects each buffer once.
    p = strings("exhausted", 5, 400, 4);
    while (memm_get_pool_nolock(p)->cur_count < 9)
        ASSERT_NE(dynstr_calloc(p), nullptr);
    const uint32_t gcs = string_pool(p)->gc_count;
    EXPECT_EQ(dynstr_calloc(p), nullptr);
    EXPECT_EQ(string_pool(p)->gc_count - gcs, 4u);
}

TEST_F(Strings, OutOfBufferMemoryEmptiesTheRecordAndListsFourTimes) {
    const std::string file = memm_test::fmt("/root/memm_list_pool_depleted_%d", getpid());
    const uint32_t p = strings("s", 20, 64);
    const std::string big(40, 'x');
    dynstr *d = dynstr_fromstring(p, "small");
    EXPECT_EQ(dynstr_setstring(d, big.c_str()), MEMM_ERR_NO_MEMORY);
    EXPECT_TRUE(d->str == nullptr && d->flags == DYNSTR_FLAG_LITERAL);
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(dynstr_fromstring(p, big.c_str()), nullptr);
    EXPECT_EQ(storage_fault(p, 1), "");
    EXPECT_EQ(memm_test::log_count("Out of string buffer memory for pool 's' !!!!!!!!!!!!!!!!!!!!!!!!!!!!!!"), 6u);
    const std::string list = memm_test::read_report_file(file);
    size_t listings = 0;
    for (size_t at = list.find("Creation reason=pool_depleted"); at != std::string::npos; at = list.find("Creation reason=", at + 1))
        listings++;
    EXPECT_EQ(listings, 4u); // at most four listings, however many failures
}

TEST_F(Strings, LongFormRecordsAndPlaceholders) {
    const uint32_t p = strings("long", 20, 300000, 1);
    const std::string t1(40000, 'a'), t2(40000, 'b');
    dynstr *a = dynstr_fromstring(p, t1.c_str()), *b = dynstr_fromstring(p, t2.c_str());
    dynstr_fromstring(p, "tail");
    ASSERT_EQ(dynstr_setstring(a, (t1 + t2).c_str()), MEMM_OK);
    EXPECT_TRUE((a->flags & DYNSTR_FLAG_LONG) && dynstr_strlen(a) == 80000u);
    EXPECT_EQ(dynstr_setmaxsize(a, 100000), MEMM_OK); // a long record has no maximum
    EXPECT_EQ(dynstr_getmaxsize(a), 0u);
    memm_free(b); // merges with a's old text into one long placeholder
    ASSERT_EQ(dynstr_setstring(a, "short"), MEMM_OK);
    EXPECT_EQ(a->flags & (DYNSTR_FLAG_LONG | DYNSTR_FLAG_LITERAL), 0u);
    EXPECT_EQ(storage_fault(p, 2), "");
}

} // namespace
