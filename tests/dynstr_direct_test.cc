// Differential test of the strings' direct ways: the constructors' one pass
// (a new record from a C string without the temporary record of the write
// protocol) and memm_free's release of a record with the pool it found. The
// same seeded steps run on two string pools of the same geometry, where pool
// A makes its records with dynstr_fromstring / dynstr_fromsubstring and
// releases them with memm_free, and pool B makes the same texts with
// dynstr_fromprintf("%s"), which always writes the plain way, and releases
// them with memm_free_nolock, which calls the release hook as it is given.
// After every step both pools must agree on results, texts, every
// counter of both descriptors, record and buffer positions, the free-list
// order and the log lines.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "dynstr.h"
#include "dynstr_test_support.h"
#include "syslog_capture.h"

namespace {

struct Side {
    uint32_t pool;
    dynstr_pooldesc *desc;
    memm_pooldesc *records;
    std::vector<dynstr *> recs;
    std::vector<std::string> logs; // this step's lines, pool name replaced

    size_t slot(const void *p) const {
        return p ? size_t(static_cast<const uint8_t *>(p) - MEMM_OBJHDR_SIZE - records->storage) / records->slotsize + 1 : 0;
    }
    // Everything observable, with addresses as slot indexes and buffer offsets.
    std::vector<uint64_t> snapshot() const {
        const memm_pooldesc &r = *records;
        std::vector<uint64_t> v = {r.cur_count, r.max_count, r.alloc_count, uint32_t(r.base_peak), uint32_t(r.ref_cur),
                                   uint32_t(r.ref_max), r.free_calls, r.flags};
        v.insert(v.end(), r.alloc_calls, r.alloc_calls + 3);
        dynstr_pooldesc d = *desc; // the pointers out, the numbers compared bytewise below
        const auto offset = [&](int k, const char *s) { return s ? uint64_t(s - desc->buf_base[k]) + 1 : 0; };
        for (int k = 0; k < 4; k++) {
            v.insert(v.end(), {slot(d.buf_first[k]), slot(d.buf_last[k]), slot(d.buf_firstdel[k])});
            for (const dynstr *s = d.buf_first[k]; s; s = s->next)
                v.insert(v.end(), {slot(s), offset(k, s->str), s->flags});
            d.buf_base[k] = nullptr, d.buf_first[k] = d.buf_last[k] = d.buf_firstdel[k] = nullptr;
        }
        d.name = nullptr, d.poolid = 0, d.anchor = nullptr, d.countptr = nullptr;
        const auto *bytes = reinterpret_cast<const unsigned char *>(&d);
        v.insert(v.end(), bytes, bytes + sizeof d);
        for (const uint8_t *f = r.free_head; f; memcpy(&f, f + MEMM_OBJHDR_SIZE, sizeof f))
            v.push_back(slot(f + MEMM_OBJHDR_SIZE));
        for (dynstr *rec : recs)
            v.insert(v.end(), {slot(rec), rec->flags});
        return v;
    }
};

class Differential {
  public:
    Differential(int32_t buffers, uint32_t count, int32_t bytes, uint32_t seed) : rng_(seed) {
        for (int i = 0; i < 2; i++) {
            const uint32_t pool = dynstr_initpool2(kNames[i], count, bytes, buffers);
            side_[i] = {pool, memm_test::string_pool(pool), memm_get_pool_nolock(pool), {}, {}};
        }
    }

    void step() {
        const int op = pick(0, 99);
        const size_t n = side_[0].recs.size(), i = n ? size_t(pick(0, int(n) - 1)) : 0;
        std::string text(size_t(pick(0, 9) < 8 ? pick(0, 40) : pick(0, side_[0].desc->buffersize + 20)), 'x');
        for (char &c : text)
            c = "abcdef/"[pick(0, 6)];
        const int32_t off = pick(-3, 20), len = pick(0, 2) ? -1 : pick(-2, 30);
        const size_t from = std::min(size_t(std::max(off, 0)), text.size());
        const std::string piece = text.substr(from, len < 0 ? std::string::npos : size_t(len));
        const std::string &made = op % 2 ? text : piece; // by dynstr_fromstring, else by dynstr_fromsubstring
        for (int s = 0; s < 2; s++) {
            Side &side = side_[s];
            memm_test::clear_logs();
            results_[s] = 0;
            if (n == 0 || op < 40) {
                dynstr *d = s == 1 ? dynstr_fromprintf(side.pool, "%s", made.c_str())
                            : op % 2 ? dynstr_fromstring(side.pool, text.c_str())
                                     : dynstr_fromsubstring(side.pool, text.c_str(), off, len);
                results_[s] = d != nullptr;
                if (d)
                    side.recs.push_back(d);
            } else if (op < 55) {
                results_[s] = dynstr_setstring(side.recs[i], text.c_str());
            } else if (op < 60) {
                results_[s] = dynstr_setliteral(side.recs[i], "constant");
            } else {
                if (s == 0) {
                    results_[s] = memm_free(side.recs[i]);
                } else {
                    memm_lock("differential");
                    results_[s] = memm_free_nolock(side.recs[i]);
                    memm_unlock();
                }
                side.recs.erase(side.recs.begin() + long(i));
            }
            side.logs.clear();
            for (std::string line : memm_test::log_texts()) {
                for (size_t at = 0; (at = line.find(kNames[s], at)) != std::string::npos; at += 5)
                    line.replace(at, 5, kNames[0]);
                side.logs.push_back(line);
            }
        }
    }

    ::testing::AssertionResult agree() const {
        const Side &a = side_[0], &b = side_[1];
        if (results_[0] != results_[1])
            return ::testing::AssertionFailure() << "results " << results_[0] << " / " << results_[1];
        if (a.recs.size() != b.recs.size())
            return ::testing::AssertionFailure() << "record counts differ";
        for (size_t i = 0; i < a.recs.size(); i++)
            if (std::string(dynstr_getstring(a.recs[i])) != dynstr_getstring(b.recs[i]))
                return ::testing::AssertionFailure() << "text of record " << i;
        if (a.logs != b.logs)
            return ::testing::AssertionFailure() << "log lines differ (" << a.logs.size() << " / " << b.logs.size() << ")";
        const std::vector<uint64_t> sa = a.snapshot(), sb = b.snapshot();
        if (sa != sb) {
            const size_t at = size_t(std::mismatch(sa.begin(), sa.end(), sb.begin(), sb.end()).first - sa.begin());
            return ::testing::AssertionFailure() << "counters, positions or free list differ at " << at;
        }
        return memm_test::storage_consistent(a.pool, a.recs.size());
    }

    const Side &a() const { return side_[0]; }

  private:
    static constexpr const char *kNames[2] = {"diffA", "diffB"};
    int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    std::mt19937 rng_;
    Side side_[2];
    uint32_t results_[2] = {};
};

void run(int32_t buffers, uint32_t count, int32_t bytes, uint32_t seed) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    Differential diff(buffers, count, bytes, seed);
    for (int i = 0; i < 5000; i++) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed << ", step " << i);
        diff.step();
        ASSERT_TRUE(diff.agree());
    }
    // Both ways were compared around every kind of collection.
    for (int reason : {DYNSTR_GC_BUFFER_FULL, DYNSTR_GC_CTX_DEPLETED, DYNSTR_GC_CTX_BALANCE})
        EXPECT_TRUE(memm_test::collections(diff.a().pool, reason) > 0 || (buffers == 1 && reason == DYNSTR_GC_CTX_BALANCE))
            << "reason " << reason;
}

TEST(DynstrDirect, OneBuffer) { run(1, 12, 600, 11); }
TEST(DynstrDirect, TwoBuffers) { run(2, 16, 1000, 12); }
TEST(DynstrDirect, FourBuffers) { run(4, 24, 1600, 13); }

} // namespace
