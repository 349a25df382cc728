// Typed conversions, comparison and copying: one table per family of
// getters over accepted and refused texts, setters checked by a round trip
// through the getters, the hex writer at odd and even maximum sizes with and
// without room in the current buffer, and comparisons checked against the C
// library's own functions.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <string>
#include <vector>

#include "dynstr.h"
#include "dynstr_test_support.h"

namespace {

using namespace memm_test;

constexpr uint32_t kInvalid = MEMM_ERR_INVALID_ARG;
constexpr uint32_t kUntouched = 0xEEEEEEEEu;

uint32_t start(uint32_t records = 200, int32_t bytes = 8000, int32_t buffers = 2) {
    EXPECT_EQ(memm_init(16, 2), MEMM_OK);
    return dynstr_initpool2("convert", records, bytes, buffers);
}

// A record holding `text`: null gives an empty record, "" a literal empty text.
dynstr *record(uint32_t pool, const char *text) {
    if (!text)
        return dynstr_calloc(pool);
    return *text ? dynstr_fromstring(pool, text) : dynstr_fromliteral(pool, text);
}

int sign(int v) { return (v > 0) - (v < 0); }

TEST(DynstrConvert, NumberGettersAcceptOneNumberOnly) {
    const uint32_t pool = start();
    const struct {
        const char *text;
        bool is_signed;
        uint32_t code;
        uint32_t value; // as stored; kUntouched: not written
    } rows[] = {
        {" 42 ", false, MEMM_OK, 42},
        {"\t7\n", false, MEMM_OK, 7},
        {"010", false, MEMM_OK, 10},
        {"-1", false, MEMM_OK, 0xFFFFFFFFu}, // wraps
        {"4294967295", false, MEMM_OK, 0xFFFFFFFFu},
        {"4294967297", false, MEMM_OK, 1}, // 32 bits only
        {"42abc", false, kInvalid, 42},    // stored, then refused
        {"42 abc", false, kInvalid, 42},
        {"12 a-word-longer-than-ten", false, kInvalid, 12},
        {"0x10", false, kInvalid, 0},
        {"", false, kInvalid, kUntouched},
        {"abc", false, kInvalid, kUntouched},
        {nullptr, false, kInvalid, kUntouched},
        {"010", true, MEMM_OK, 8},
        {"0x1F", true, MEMM_OK, 31},
        {"0X1f", true, MEMM_OK, 31},
        {"-7", true, MEMM_OK, uint32_t(-7)},
        {" +5 ", true, MEMM_OK, 5},
        {"-0x10", true, MEMM_OK, uint32_t(-16)},
        {"08", true, kInvalid, 0}, // octal 0, then the word "8"
        {"x1", true, kInvalid, kUntouched},
        {nullptr, true, kInvalid, kUntouched},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text ? row.text : "(empty record)");
        dynstr *d = record(pool, row.text);
        // Each getter and its second name.
        for (int name = 0; name < 2; name++) {
            uint32_t u = kUntouched;
            int32_t i = int32_t(kUntouched);
            const uint32_t got = row.is_signed ? (name ? dynstr_getlong(d, &i) : dynstr_getint32(d, &i))
                                               : (name ? dynstr_getulong(d, &u) : dynstr_getuint32(d, &u));
            EXPECT_EQ(got, row.code);
            EXPECT_EQ(row.is_signed ? uint32_t(i) : u, row.value);
        }
    }

    // Setters and constructors round trip; the long forms print 64 bits.
    dynstr *d = dynstr_calloc(pool);
    for (uint32_t v : {0u, 1u, 0xFFFFFFFFu}) {
        uint32_t u = 0;
        EXPECT_EQ(dynstr_setuint32(d, v), MEMM_OK);
        EXPECT_EQ(dynstr_getuint32(d, &u), MEMM_OK);
        EXPECT_EQ(u, v);
        EXPECT_EQ(dynstr_getuint32(dynstr_fromuint32(pool, v), &u), MEMM_OK);
        EXPECT_EQ(u, v);
    }
    for (int32_t v : {INT32_MIN, -1, 0, INT32_MAX}) {
        int32_t i = 0;
        EXPECT_EQ(dynstr_setint32(d, v), MEMM_OK);
        EXPECT_EQ(dynstr_getint32(d, &i), MEMM_OK);
        EXPECT_EQ(i, v);
        EXPECT_EQ(dynstr_getlong(dynstr_fromint32(pool, v), &i), MEMM_OK);
        EXPECT_EQ(i, v);
    }
    EXPECT_EQ(dynstr_setulong(d, ULONG_MAX), MEMM_OK);
    EXPECT_EQ(dynstr_getstring(d), std::to_string(ULONG_MAX));
    EXPECT_EQ(dynstr_setlong(d, LONG_MIN), MEMM_OK);
    EXPECT_EQ(dynstr_getstring(d), std::to_string(LONG_MIN));
    EXPECT_EQ(dynstr_getstring(dynstr_fromulong(pool, ULONG_MAX)), std::to_string(ULONG_MAX));
    EXPECT_EQ(dynstr_getstring(dynstr_fromlong(pool, LONG_MIN)), std::to_string(LONG_MIN));
    EXPECT_EQ(dynstr_fromuint32(MEMM_INVALID_POOL, 1), nullptr);
    EXPECT_TRUE(storage_consistent(pool, std::size(rows) + 10));
}

TEST(DynstrConvert, BooleansAndTheirConstantTexts) {
    const uint32_t pool = start();
    const struct {
        const char *text;
        int value;
    } rows[] = {{"1", 1},     {"true", 1},  {"yes", 1}, {"on", 1}, {"TRUE", 1}, {"False", 1},  {"FALSE", 1},
                {"no", 1},    {"2", 1},     {"0", 0},   {"00", 0}, {"f", 0},    {"false", 0},  {"0x10", 0},
                {"", 0},      {nullptr, 0}};
    for (const auto &row : rows) {
        int value = 7;
        EXPECT_EQ(dynstr_getbool(record(pool, row.text), &value), MEMM_OK) << row.text;
        EXPECT_EQ(value, row.value) << (row.text ? row.text : "(empty record)");
    }
    dynstr *a = dynstr_fromstring(pool, "buffered"), *b = dynstr_calloc(pool), *cut = dynstr_calloc_maxsize(pool, 1);
    for (int v : {5, 0, -1}) {
        int value = 7;
        EXPECT_EQ(dynstr_setbool(a, v), MEMM_OK);
        EXPECT_EQ(dynstr_setbool(b, v), MEMM_OK);
        EXPECT_EQ(dynstr_getbool(a, &value), MEMM_OK);
        EXPECT_EQ(value, v != 0);
        EXPECT_STREQ(dynstr_getstring(a), v ? "1" : "0");
        EXPECT_EQ(a->str, b->str); // one constant of the library, no buffer space
        EXPECT_NE(a->flags & DYNSTR_FLAG_LITERAL, 0u);
    }
    EXPECT_EQ(dynstr_setbool(cut, 1), MEMM_OK);
    EXPECT_STREQ(dynstr_getstring(cut), "");
    EXPECT_TRUE(storage_consistent(pool, std::size(rows) + 3));
}

TEST(DynstrConvert, AddressGettersFollowInetPton) {
    const uint32_t pool = start();
    const char *texts[] = {"192.168.1.2", "10.0.0.1",  "0.0.0.0", "255.255.255.255", "192.168.1", "256.1.1.1",
                           "1.2.3.4 ",    " 1.2.3.4",  "::1",     "fe80::1:2",       "::ffff:1.2.3.4", "1::2::3",
                           "host",        "2001:db8::ff00:42:8329"};
    for (const char *text : texts) {
        SCOPED_TRACE(text);
        dynstr *d = dynstr_fromstring(pool, text);
        uint8_t want4[4], want6[16];
        const bool is4 = inet_pton(AF_INET, text, want4) == 1, is6 = inet_pton(AF_INET6, text, want6) == 1;
        uint32_t v4 = kUntouched, alias = kUntouched;
        uint8_t v6[16] = {};
        dynstr_ipaddr any = {7, {}};
        EXPECT_EQ(dynstr_getipv4addr(d, &v4), is4 ? MEMM_OK : kInvalid);
        EXPECT_EQ(dynstr_getipaddr(d, &alias), is4 ? MEMM_OK : kInvalid);
        EXPECT_EQ(dynstr_getipv6addr(d, v6), is6 ? MEMM_OK : kInvalid);
        EXPECT_EQ(dynstr_getipaddr_any(d, &any), is4 || is6 ? MEMM_OK : kInvalid);
        EXPECT_EQ(any.family, is4 ? DYNSTR_IPADDR_FAMILY_V4 : is6 ? DYNSTR_IPADDR_FAMILY_V6 : 7u);
        EXPECT_EQ(v4, alias);
        if (is4) {
            EXPECT_EQ(memcmp(&v4, want4, 4), 0);
            EXPECT_EQ(memcmp(any.addr, want4, 4), 0);
            // The text maker gives inet_ntop's text back.
            char ntop[INET_ADDRSTRLEN];
            inet_ntop(AF_INET, want4, ntop, sizeof ntop);
            EXPECT_EQ(dynstr_setipv4addr(d, v4), MEMM_OK);
            EXPECT_STREQ(dynstr_getstring(d), ntop);
            EXPECT_STREQ(dynstr_getstring(dynstr_fromipaddr(pool, v4)), ntop);
        }
        if (is6) {
            EXPECT_EQ(memcmp(v6, want6, 16), 0);
            EXPECT_EQ(memcmp(any.addr, want6, 16), 0);
            char ntop[INET6_ADDRSTRLEN];
            inet_ntop(AF_INET6, want6, ntop, sizeof ntop);
            EXPECT_EQ(dynstr_setipaddr_any(d, &any), MEMM_OK);
            EXPECT_STREQ(dynstr_getstring(d), ntop);
        }
    }
    // The first octet is the lowest-addressed byte: bits 0-7 here.
    uint32_t v4 = 0;
    EXPECT_EQ(dynstr_getipv4addr(dynstr_fromstring(pool, "192.168.1.2"), &v4), MEMM_OK);
    EXPECT_EQ(v4 & 0xFF, 192u);
    EXPECT_EQ(v4 >> 24, 2u);
    EXPECT_STREQ(dynstr_getstring(dynstr_fromipv4addr(pool, v4)), "192.168.1.2");
    // A literal empty text is the zero address.
    dynstr *empty = dynstr_fromliteral(pool, "");
    uint8_t v6[16];
    memset(v6, 0xEE, sizeof v6);
    dynstr_ipaddr any = {7, {1}};
    EXPECT_EQ(dynstr_getipv4addr(empty, &v4), MEMM_OK);
    EXPECT_EQ(v4, 0u);
    EXPECT_EQ(dynstr_getipv6addr(empty, v6), MEMM_OK);
    EXPECT_EQ(v6[0] | v6[15], 0);
    EXPECT_EQ(dynstr_getipaddr_any(empty, &any), MEMM_OK);
    EXPECT_EQ(any.family, DYNSTR_IPADDR_FAMILY_V4);
    EXPECT_EQ(any.addr[0], 0);
    // Families other than 1 and 2, and null addresses, are refused.
    dynstr *d = dynstr_fromstring(pool, "keep");
    any.family = 3;
    EXPECT_EQ(dynstr_setipaddr_any(d, &any), kInvalid);
    EXPECT_EQ(dynstr_setipaddr_any(d, nullptr), kInvalid);
    EXPECT_EQ(dynstr_setipv6addr(d, nullptr), kInvalid);
    EXPECT_STREQ(dynstr_getstring(d), "keep");
}

TEST(DynstrConvert, MacAddressesTwelveDigitsOrSixPairs) {
    const uint32_t pool = start();
    const uint8_t want[6] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}, untouched[6] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    const struct {
        const char *text;
        bool ok;
    } rows[] = {
        {"00:1a:2B:3c:4d:5e", true}, {"00-1a-2b-3c-4d-5e", true}, {"00:1a-2b.3c:4d:5e", true},
        {"001a2b3c4d5e", true},      {"001A2B3C4D5E", true},      {"0:1a:2b:3c:4d:5e", false},
        {"001a2b3c4d5", false},      {"001a2b3c4d5e0", false},    {"zz1a2b3c4d5e", false},
        {"00:1a:2b:3c:4d:5e:", false}, {"00:1a:2b:3c:4d:zz", false}, {nullptr, false},
    };
    for (const auto &row : rows) {
        uint8_t out[7]; // a guard byte behind the six
        memset(out, 0xEE, sizeof out);
        EXPECT_EQ(dynstr_getmacaddr(record(pool, row.text), out), row.ok ? MEMM_OK : kInvalid) << row.text;
        EXPECT_EQ(memcmp(out, row.ok ? want : untouched, 6), 0) << row.text;
        EXPECT_EQ(out[6], 0xEE) << row.text;
    }
}

TEST(DynstrConvert, EveryGetterRefusesBadRecordsAndNullResults) {
    const uint32_t pool = start(), plain = memm_initpool("plain", 4, 32, nullptr);
    dynstr *gone = dynstr_fromstring(pool, "1");
    dynstr_fromstring(pool, "keeps gone a placeholder");
    memm_free(gone);
    uint8_t out[16];
    using Getter = uint32_t (*)(dynstr *, void *);
    const Getter getters[] = {
        [](dynstr *d, void *o) { return dynstr_getuint32(d, static_cast<uint32_t *>(o)); },
        [](dynstr *d, void *o) { return dynstr_getint32(d, static_cast<int32_t *>(o)); },
        [](dynstr *d, void *o) { return dynstr_getbool(d, static_cast<int *>(o)); },
        [](dynstr *d, void *o) { return dynstr_getipv4addr(d, static_cast<uint32_t *>(o)); },
        [](dynstr *d, void *o) { return dynstr_getipv6addr(d, static_cast<uint8_t *>(o)); },
        [](dynstr *d, void *o) { return dynstr_getipaddr_any(d, static_cast<dynstr_ipaddr *>(o)); },
        [](dynstr *d, void *o) { return dynstr_getmacaddr(d, static_cast<uint8_t *>(o)); },
        [](dynstr *d, void *o) { return dynstr_gethexstring(d, static_cast<uint8_t *>(o), 16); },
    };
    for (size_t g = 0; g < std::size(getters); g++) {
        for (dynstr *d : {static_cast<dynstr *>(nullptr), gone, static_cast<dynstr *>(memm_calloc(plain))})
            EXPECT_EQ(getters[g](d, out), kInvalid) << "getter " << g << ", " << dynstr_getstring(d);
        EXPECT_EQ(getters[g](dynstr_fromstring(pool, "1"), nullptr), kInvalid) << "getter " << g;
    }
    for (auto set : {dynstr_setuint32, dynstr_setipv4addr})
        EXPECT_EQ(set(gone, 1), kInvalid);
    EXPECT_EQ(dynstr_setbool(nullptr, 1), kInvalid);
    EXPECT_EQ(dynstr_sethexstring(gone, out, 1), kInvalid);
}

// Four bytes whose text (size 9) the maximum sizes below cut.
const uint8_t kHexData[] = {0x01, 0xAB, 0x7F, 0x80};

TEST(DynstrConvert, HexWriterKeepsWholeBytesStagingWhenTheTailIsShort) {
    ASSERT_EQ(memm_init(64, 40), MEMM_OK);
    const struct {
        uint32_t maxsize;
        const char *text;
    } rows[] = {{0, "01ab7f80"}, {1, ""},       {2, ""},         {3, "01"},       {4, "01"},
                {5, "01ab"},     {8, "01ab7f"}, {9, "01ab7f80"}, {10, "01ab7f80"}};
    for (const auto &row : rows) {
        for (uint32_t free_bytes : {40u, 3u}) {
            SCOPED_TRACE(::testing::Message() << "maxsize " << row.maxsize << ", " << free_bytes << " bytes free");
            const std::string name = "hex" + std::to_string(row.maxsize) + "_" + std::to_string(free_bytes);
            const uint32_t pool = dynstr_initpool2(strdup(name.c_str()), 20, 128, 2); // two 64-byte buffers
            dynstr *d = dynstr_calloc_maxsize(pool, row.maxsize);
            dynstr_fromstring(pool, std::string(63 - free_bytes, 'f').c_str());
            EXPECT_EQ(dynstr_sethexstring(d, kHexData, 4), MEMM_OK);
            EXPECT_STREQ(dynstr_getstring(d), row.text);
            EXPECT_EQ(dynstr_getmaxsize(d), row.maxsize);
            // A text larger than the tail was staged, then placed after a collection.
            EXPECT_EQ(collections(pool, DYNSTR_GC_BUFFER_FULL), strlen(row.text) + 1 > free_bytes ? 1u : 0u);
            EXPECT_TRUE(storage_consistent(pool, 2));
        }
    }
    const uint32_t pool = dynstr_initpool2("hex", 20, 128, 2);
    dynstr *d = dynstr_fromstring(pool, "old");
    EXPECT_EQ(dynstr_sethexstring(d, kHexData, 0), MEMM_OK);
    EXPECT_EQ(d->str, nullptr);
    EXPECT_EQ(dynstr_sethexstring(d, nullptr, 4), MEMM_OK);
    EXPECT_EQ(d->str, nullptr);
    EXPECT_STREQ(dynstr_getstring(dynstr_hexstringfromdata(pool, kHexData, 2)), "01ab");
    EXPECT_STREQ(dynstr_getstring(dynstr_hexstringfromdata(pool, nullptr, 2)), "");
    EXPECT_EQ(dynstr_hexstringfromdata(MEMM_INVALID_POOL, kHexData, 2), nullptr);
    const uint8_t big[100] = {};
    EXPECT_EQ(dynstr_hexstringfromdata(pool, big, 100), nullptr); // 201 bytes: no buffer holds them
    EXPECT_TRUE(storage_consistent(pool, 3));
}

TEST(DynstrConvert, HexReaderFormulasAndOutputSize) {
    const uint32_t pool = start();
    // Every byte value survives a round trip.
    uint8_t all[256], back[256];
    for (int i = 0; i < 256; i++)
        all[i] = uint8_t(i);
    dynstr *d = dynstr_hexstringfromdata(pool, all, 256);
    EXPECT_EQ(dynstr_gethexstring(d, back, 256), MEMM_OK);
    EXPECT_EQ(memcmp(all, back, 256), 0);

    const struct {
        const char *text;
        int32_t outsize;
        uint32_t code;
        std::vector<uint8_t> out; // the first outsize bytes afterwards
    } rows[] = {
        {"ABC", 2, MEMM_OK, {0xAB, 0xC0}},
        {"ABC", 1, MEMM_ERR_BUFFER_TOO_SMALL, {0xEE}},
        {"01ab", 4, MEMM_OK, {0x01, 0xAB, 0x00, 0x00}},
        {"fF", 1, MEMM_OK, {0xFF}},
        {"x1", 1, MEMM_OK, {0x11}}, // not validated: 'x' counts from 'a', modulo 16
        {" 1", 1, MEMM_OK, {0x01}},
        {"1 ", 1, MEMM_OK, {0xF0}}, // a low "digit" below '0' is negative
        {"zz", 1, MEMM_OK, {0x33}},
        {nullptr, 0, MEMM_OK, {}},
        {nullptr, 2, MEMM_OK, {0x00, 0x00}},
        {nullptr, -1, MEMM_ERR_BUFFER_TOO_SMALL, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(::testing::Message() << (row.text ? row.text : "(empty record)") << " into " << row.outsize);
        uint8_t out[8];
        memset(out, 0xEE, sizeof out);
        EXPECT_EQ(dynstr_gethexstring(record(pool, row.text), out, row.outsize), row.code);
        EXPECT_EQ(std::vector<uint8_t>(out, out + row.out.size()), row.out);
        EXPECT_EQ(out[row.out.size()], 0xEE); // nothing written behind the output
    }
}

TEST(DynstrCompare, ComparisonsAgreeWithTheCLibrary) {
    const uint32_t pool = start();
    std::vector<dynstr *> recs;
    std::vector<const char *> texts = {"abc", "ABC", "abcd", "abXY", "", "b", "a\xe9", "Abd"};
    for (const char *t : texts)
        recs.push_back(*t ? dynstr_fromstring(pool, t) : dynstr_calloc(pool));
    // Bad records take part with their placeholder texts.
    // Live neighbours keep two released records apart as placeholders.
    dynstr *gone1 = dynstr_fromstring(pool, "g1");
    dynstr_fromstring(pool, "x");
    dynstr *gone2 = dynstr_fromstring(pool, "g2");
    dynstr_fromstring(pool, "y");
    memm_free(gone1);
    memm_free(gone2);
    recs.insert(recs.end(), {nullptr, gone1, gone2});
    texts.insert(texts.end(), {DYNSTR_TEXT_NOT_MEMMSTR, DYNSTR_TEXT_DELETED, DYNSTR_TEXT_DELETED});
    for (size_t i = 0; i < recs.size(); i++) {
        for (size_t j = 0; j < recs.size(); j++) {
            const char *a = texts[i], *b = texts[j];
            SCOPED_TRACE(::testing::Message() << "'" << a << "' and '" << b << "'");
            EXPECT_EQ(sign(dynstr_strcmp(recs[i], recs[j])), sign(strcmp(a, b)));
            EXPECT_EQ(sign(dynstr_strcmpi(recs[i], recs[j])), sign(strcasecmp(a, b)));
            EXPECT_EQ(sign(dynstr_strcmp2(recs[i], b)), sign(strcmp(a, b)));
            EXPECT_EQ(sign(dynstr_strcmpi2(recs[i], b)), sign(strcasecmp(a, b)));
            for (uint32_t n : {0u, 1u, 2u, 3u, 100u}) {
                EXPECT_EQ(sign(dynstr_strncmp(recs[i], recs[j], n)), sign(strncmp(a, b, n))) << n;
                EXPECT_EQ(sign(dynstr_strncmp2(recs[i], b, n)), sign(strncmp(a, b, n))) << n;
            }
        }
        // A null C string compares as "".
        EXPECT_EQ(sign(dynstr_strcmp2(recs[i], nullptr)), sign(strcmp(texts[i], "")));
        EXPECT_EQ(sign(dynstr_strcmpi2(recs[i], nullptr)), sign(strcasecmp(texts[i], "")));
        EXPECT_EQ(sign(dynstr_strncmp2(recs[i], nullptr, 2)), sign(strncmp(texts[i], "", 2)));
    }
}

TEST(DynstrCompare, CopiesOutAndReplacesCharacters) {
    const uint32_t pool = start();
    dynstr *d = dynstr_fromstring(pool, "abcdef");
    const struct {
        dynstr *rec;
        uint32_t n;
        const char *bytes; // the first n bytes afterwards; the rest stays 'X'
    } copies[] = {{d, 4, "abc"}, {d, 1, ""}, {d, 0, ""}, {d, 10, "abcdef\0\0\0"}, {nullptr, 6, "*NOT_"}};
    for (const auto &c : copies) {
        char buf[16];
        memset(buf, 'X', sizeof buf);
        EXPECT_EQ(dynstr_strncpy(buf, c.rec, c.n), buf);
        EXPECT_EQ(std::string(buf, sizeof buf),
                  std::string(c.bytes, c.n ? c.n - 1 : 0) + std::string(c.n ? 1 : 0, '\0') + std::string(16 - c.n, 'X'))
            << c.n;
    }
    EXPECT_EQ(dynstr_strncpy(nullptr, d, 4), nullptr);
    for (dynstr *r : {d, dynstr_calloc(pool), static_cast<dynstr *>(nullptr)}) {
        char *copy = dynstr_strdup(r);
        EXPECT_STREQ(copy, dynstr_getstring(r));
        EXPECT_NE(copy, dynstr_getstring(r));
        free(copy);
    }

    static const char kConstant[] = "a.b.c";
    const struct {
        dynstr *rec;
        char from, to;
        uint32_t code, count;
        const char *text;
    } rows[] = {
        {dynstr_fromstring(pool, "a.b.c"), '.', '/', MEMM_OK, 2, "a/b/c"},
        {dynstr_fromstring(pool, "a.b.c"), 'x', '/', MEMM_OK, 0, "a.b.c"},
        {dynstr_fromstring(pool, "a.b.c"), '.', '\0', kInvalid, 99, "a.b.c"},
        {dynstr_fromstring(pool, "a.b.c"), '\0', '.', kInvalid, 99, "a.b.c"},
        {dynstr_fromliteral(pool, kConstant), '.', '-', MEMM_OK, 2, "a-b-c"}, // changed in a copy
        {dynstr_calloc(pool), '.', '-', MEMM_OK, 0, ""},
        {nullptr, '.', '-', kInvalid, 0, DYNSTR_TEXT_NOT_MEMMSTR},
    };
    for (const auto &row : rows) {
        uint32_t count = 99;
        EXPECT_EQ(dynstr_replace_char(row.rec, row.from, row.to, &count), row.code) << row.text;
        EXPECT_EQ(count, row.count) << row.text;
        EXPECT_STREQ(dynstr_getstring(row.rec), row.text);
    }
    EXPECT_STREQ(kConstant, "a.b.c");
    EXPECT_EQ(rows[4].rec->flags & DYNSTR_FLAG_LITERAL, 0u); // now in a buffer
    EXPECT_EQ(dynstr_replace_char(rows[0].rec, '/', '_', nullptr), MEMM_OK);
    EXPECT_STREQ(dynstr_getstring(rows[0].rec), "a_b_c");
    EXPECT_TRUE(storage_consistent(pool, std::size(rows) + 1));
}

} // namespace
