// Strings: seeded runs of the shared string model (model/string_model.h),
// every constructor and writer checked after every step against predicted
// results and texts and against counters recomputed from the buffer lists;
// then what the model does not predict: parsing getters, comparisons
// against the C library, the storage's merging and collection triggers,
// and running out of buffer memory.
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include "fixture.h"
#include "model/string_model.h"
#include "report_files.h"

namespace {

using namespace memm_model;
constexpr uint32_t kInvalid = MEMM_ERR_INVALID_ARG;

void run_model(int32_t buffers, uint32_t records, int32_t total_bytes, uint32_t seed) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("model", records, total_bytes, buffers);
    memm_test::clear_logs();
    memm_model::RandomSource source(seed);
    memm_model::StringModel model(pool, source);
    for (int i = 0; i < 6000; i++) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed << ", step " << i);
        model.step();
        ASSERT_EQ(model.failure(), "");
        ASSERT_EQ(model.fault(), "");
    }
    // Sound storage gives the collector nothing to warn about.
    EXPECT_EQ(memm_test::log_count_prefix("[DYNSTR]"), 0u);
}

TEST(DynstrModel, ThreeBuffers) { run_model(3, 16, 1500, 3); }
TEST(DynstrModel, FourBuffers) { run_model(4, 16, 1600, 4); }


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
    // A copy out is cut and terminated within its size.
    char buf[8] = "XXXXXXX";
    EXPECT_EQ(dynstr_strncpy(buf, recs[0], 3), buf);
    EXPECT_EQ(std::string(buf, 5), std::string("ab\0XX", 5));
}

// Released neighbours merge into one placeholder; a released last text is
// cut off the buffer at once, and so is a placeholder that merging makes last.
// The emptied buffer then takes an append that fills it exactly in place.
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
    memm_free(r[5]);
    EXPECT_EQ(desc->buf_used[0], 17u);
    EXPECT_EQ(desc->recup_bytes, 2u);
    memm_free(r[3]);
    memm_free(r[4]); // ends the buffer by merging: cut off too
    EXPECT_EQ(desc->buf_used[0], 0u);
    EXPECT_EQ(desc->recup_bytes, 19u);
    EXPECT_EQ(desc->recup_ctx, 6u);
    // An append that fills the free tail exactly stays in place.
    dynstr *d = dynstr_fromstring(p, "ab");
    ASSERT_EQ(dynstr_addstring(d, std::string(97, 'c').c_str()), MEMM_OK);
    EXPECT_EQ(d->str, desc->buf_base[0]);
    EXPECT_EQ(storage_fault(p, 1), "");
}

TEST_F(Strings, EachCollectionTrigger) {
    // ctx_balance: the current buffer holds more than its share of records.
    uint32_t p = strings("balance", 15, 1000, 2);
    for (int i = 0; i < 11; i++)
        dynstr_fromstring(p, "x");
    EXPECT_EQ(string_pool(p)->gc_reason[0][DYNSTR_GC_CTX_BALANCE], 1u);
    // A full record pool: a collecting allocation collects each buffer once.
    p = strings("exhausted", 5, 400, 4);
    while (memm_get_pool_nolock(p)->cur_count < 9)
        ASSERT_NE(dynstr_calloc(p), nullptr);
    const uint32_t gcs = string_pool(p)->gc_count;
    EXPECT_EQ(dynstr_calloc(p), nullptr);
    EXPECT_EQ(string_pool(p)->gc_count - gcs, 4u);
}

// Running out of buffer memory is logged each time but listed at most four times.
TEST_F(Strings, OutOfBufferMemoryListsAtMostFourTimes) {
    const uint32_t p = strings("s", 20, 64);
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(dynstr_fromstring(p, std::string(40, 'x').c_str()), nullptr);
    EXPECT_EQ(storage_fault(p, 0), "");
    EXPECT_EQ(memm_test::log_count("Out of string buffer memory for pool 's' !!!!!!!!!!!!!!!!!!!!!!!!!!!!!!"), 5u);
    const std::string list =
        memm_test::read_report_file(memm_test::fmt("/root/memm_list_pool_depleted_%d", getpid()));
    size_t listings = 0;
    for (size_t at = list.find("Creation reason=pool_depleted"); at != std::string::npos; at = list.find("Creation reason=", at + 1))
        listings++;
    EXPECT_EQ(listings, 4u);
}

// A text above the short form's limit is held in long form, which has no
// maximum size; a released neighbour merges with its old text into one long
// placeholder, and a short text brings the record back to the short form.
TEST_F(Strings, LongFormRecordsAndPlaceholders) {
    const uint32_t p = strings("long", 20, 300000, 1);
    const std::string t1(40000, 'a'), t2(40000, 'b');
    dynstr *a = dynstr_fromstring(p, t1.c_str()), *b = dynstr_fromstring(p, t2.c_str());
    dynstr_fromstring(p, "tail");
    ASSERT_EQ(dynstr_setstring(a, (t1 + t2).c_str()), MEMM_OK);
    EXPECT_TRUE((a->flags & DYNSTR_FLAG_LONG) && dynstr_strlen(a) == 80000u);
    EXPECT_TRUE(dynstr_setmaxsize(a, 100000) == MEMM_OK && dynstr_getmaxsize(a) == 0u);
    memm_free(b);
    ASSERT_EQ(dynstr_setstring(a, "short"), MEMM_OK);
    EXPECT_EQ(a->flags & (DYNSTR_FLAG_LONG | DYNSTR_FLAG_LITERAL), 0u);
    EXPECT_EQ(storage_fault(p, 2), "");
}

} // namespace
