// Seeded runs of the shared string model (model/string_model.h) on small
// pools: every constructor and writer, checked after every step against the
// predicted results and texts and against counters recomputed from the
// buffer lists. Then the constructors' one-pass way against the plain one.
#include <gtest/gtest.h>

#include <random>

#include "model/string_model.h"
#include "syslog_capture.h"

namespace {

using memm_model::string_pool;

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

// The strings' direct ways against the plain ones: the constructors' one
// pass (a new record from a C string without the temporary record of the
// write protocol) and memm_free's release of a record with the pool it
// found. The same seeded steps run on two pools of one geometry: pool A
// makes its records with dynstr_fromstring / dynstr_fromsubstring and
// releases them with memm_free, pool B makes the same texts with
// dynstr_fromprintf("%s") and releases them with memm_free_nolock, which
// calls the release hook as it is given. After every step both must agree on
// results, texts, every counter of both descriptors, record and buffer
// positions, the free-list order and the log lines.

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
            side_[i] = {pool, string_pool(pool), memm_get_pool_nolock(pool), {}, {}};
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
        return ::testing::AssertionResult(memm_model::storage_fault(a.pool, a.recs.size()).empty());
    }

    const Side &a() const { return side_[0]; }

  private:
    static constexpr const char *kNames[2] = {"diffA", "diffB"};
    int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    std::mt19937 rng_;
    Side side_[2];
    uint32_t results_[2] = {};
};

void run_direct(int32_t buffers, uint32_t count, int32_t bytes, uint32_t seed) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    Differential diff(buffers, count, bytes, seed);
    for (int i = 0; i < 5000; i++) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed << ", step " << i);
        diff.step();
        ASSERT_TRUE(diff.agree());
    }
    // Both ways were compared around every kind of collection.
    for (int reason : {DYNSTR_GC_BUFFER_FULL, DYNSTR_GC_CTX_DEPLETED, DYNSTR_GC_CTX_BALANCE})
        EXPECT_TRUE(collections(diff.a().pool, reason) > 0 || (buffers == 1 && reason == DYNSTR_GC_CTX_BALANCE))
            << "reason " << reason;
}

TEST(DynstrDirect, OneBuffer) { run_direct(1, 12, 600, 11); }
TEST(DynstrDirect, TwoBuffers) { run_direct(2, 16, 1000, 12); }
TEST(DynstrDirect, FourBuffers) { run_direct(4, 24, 1600, 13); }

} // namespace
