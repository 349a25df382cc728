// Seeded model-based test of the string storage: random creates, writes,
// resets, maximum sizes and releases on small pools, checked after every step
// against a plain model of the texts and against counters recomputed from
// the buffer lists. The model predicts every failure exactly: a write needs a
// free record slot for the old text, and a text of size S fits when some
// buffer, once compacted, has S bytes free.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "dynstr.h"
#include "dynstr_test_support.h"
#include "syslog_capture.h"

namespace {

struct Entry {
    dynstr *rec;
    std::string text;
    uint32_t maxsize;
};

class StringPoolModel {
  public:
    StringPoolModel(uint32_t pool, uint32_t seed) : pool_(pool), rng_(seed) {
        desc_ = static_cast<dynstr_pooldesc *>(memm_getpoolcookie_bypoolid(pool));
        records_ = memm_get_pool_nolock(pool);
    }

    void step() {
        const int op = pick(0, 99);
        if (op < 25)
            create_from_string();
        else if (op < 35)
            create_with_maxsize();
        else if (op < 65)
            set_text();
        else if (op < 70)
            reset();
        else if (op < 78)
            set_maxsize();
        else
            release();
    }

    ::testing::AssertionResult consistent() const;

  private:
    int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }

    std::string random_text() {
        const int bufsize = desc_->buffersize;
        const int kind = pick(0, 9);
        const int len = kind < 4 ? pick(0, 16) : kind < 8 ? pick(0, bufsize / 3) : pick(bufsize / 2, bufsize + 40);
        std::string s(size_t(len), 'a');
        for (char &c : s)
            c = char('a' + pick(0, 25));
        return s;
    }

    uint32_t free_slots() const { return records_->alloc_count - records_->cur_count; }

    // Live bytes of buffer k: what it holds once compacted.
    uint32_t live_bytes(int k) const {
        uint32_t n = 0;
        for (const dynstr *d = desc_->buf_first[k]; d; d = d->next)
            if (!(d->flags & DYNSTR_FLAG_DELETED))
                n += DYNSTR_SIZE(d->flags);
        return n;
    }

    bool fits(uint32_t size) const {
        if (size == 0)
            return true;
        for (int k = 0; k < desc_->buffercount; k++)
            if (uint32_t(desc_->buffersize) - live_bytes(k) >= size)
                return true;
        return false;
    }

    static std::string cut(const std::string &text, uint32_t maxsize) {
        return maxsize && text.size() + 1 > maxsize ? text.substr(0, maxsize - 1) : text;
    }
    static uint32_t size_for(const std::string &text) { return text.empty() ? 0 : uint32_t(text.size()) + 1; }

    Entry *random_entry() { return model_.empty() ? nullptr : &model_[size_t(pick(0, int(model_.size()) - 1))]; }

    // Writes `text` into e->rec the way every writer does, predicting the result.
    void write(Entry *e, const std::string &text) {
        const std::string want = cut(text, e->maxsize);
        uint32_t expected = MEMM_OK;
        if (free_slots() == 0)
            expected = MEMM_ERR_NO_MEMORY; // no record for the old text: unchanged
        else if (!fits(size_for(want)))
            expected = MEMM_ERR_NO_MEMORY, e->text.clear();
        else
            e->text = want;
        EXPECT_EQ(dynstr_setstring(e->rec, text.c_str()), expected) << text.size();
    }

    void create_from_string() {
        const std::string text = random_text();
        const bool ok = free_slots() >= 2 && fits(size_for(text)); // the record and the old-text record
        dynstr *d = dynstr_fromstring(pool_, text.c_str());
        EXPECT_EQ(d != nullptr, ok) << text.size();
        if (d)
            model_.push_back({d, text, 0});
    }

    void create_with_maxsize() {
        const uint32_t maxsize = uint32_t(pick(2, desc_->buffersize + 8));
        // A collecting allocation collects every buffer before it gives up.
        const uint32_t slots_after_gc = records_->alloc_count - uint32_t(model_.size()) - 1;
        const bool ok = free_slots() >= 2 || slots_after_gc >= 2;
        dynstr *d = dynstr_calloc_maxsize(pool_, maxsize);
        EXPECT_EQ(d != nullptr, ok);
        if (!d)
            return;
        model_.push_back({d, "", maxsize});
        write(&model_.back(), random_text());
    }

    void set_text() {
        if (Entry *e = random_entry())
            write(e, random_text());
    }

    void reset() {
        Entry *e = random_entry();
        if (!e)
            return;
        e->maxsize = 0;
        const bool ok = free_slots() > 0;
        if (ok)
            e->text.clear();
        EXPECT_EQ(dynstr_reset(e->rec), ok ? MEMM_OK : MEMM_ERR_NO_MEMORY);
    }

    void set_maxsize() {
        Entry *e = random_entry();
        // A failed cut would leave a maximum below the size; keep a slot free.
        if (!e || free_slots() == 0)
            return;
        const uint32_t m = pick(0, 9) == 0 ? 3000 : uint32_t(pick(0, desc_->buffersize + 8));
        uint32_t expected = MEMM_OK;
        if (m && size_for(e->text) > m) {
            if (fits(m))
                e->text = cut(e->text, m);
            else
                expected = MEMM_ERR_NO_MEMORY, e->text.clear();
        }
        if (expected == MEMM_OK && m > DYNSTR_MAXSIZE_LIMIT)
            expected = MEMM_ERR_INVALID_ARG;
        e->maxsize = m > DYNSTR_MAXSIZE_LIMIT ? 0 : m;
        EXPECT_EQ(dynstr_setmaxsize(e->rec, m), expected);
    }

    void release() {
        if (model_.empty())
            return;
        const size_t i = size_t(pick(0, int(model_.size()) - 1));
        EXPECT_EQ(memm_free(model_[i].rec), MEMM_OK);
        model_.erase(model_.begin() + long(i));
    }

    uint32_t pool_;
    std::mt19937 rng_;
    dynstr_pooldesc *desc_;
    memm_pooldesc *records_;
    std::vector<Entry> model_;
};

::testing::AssertionResult StringPoolModel::consistent() const {
    for (const Entry &e : model_) {
        if (dynstr_getstring(e.rec) != e.text)
            return ::testing::AssertionFailure() << "text '" << dynstr_getstring(e.rec) << "' != '" << e.text << "'";
        if (dynstr_getmaxsize(e.rec) != e.maxsize)
            return ::testing::AssertionFailure() << "maxsize " << dynstr_getmaxsize(e.rec) << " != " << e.maxsize;
    }
    return memm_test::storage_consistent(pool_, model_.size());
}

void run_model(int32_t buffers, uint32_t records, int32_t total_bytes, uint32_t seed, int steps) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("model", records, total_bytes, buffers);
    ASSERT_NE(pool, MEMM_INVALID_POOL);
    StringPoolModel model(pool, seed);
    for (int i = 0; i < steps; i++) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed << ", step " << i);
        model.step();
        ASSERT_TRUE(model.consistent());
        if (::testing::Test::HasFailure())
            return;
    }
    // Every collection trigger was exercised along the way.
    const auto *desc = memm_test::string_pool(pool);
    EXPECT_GT(memm_test::collections(pool, DYNSTR_GC_CTX_DEPLETED), 0u);
    EXPECT_GT(memm_test::collections(pool, DYNSTR_GC_BUFFER_FULL), 0u);
    if (buffers > 1) {
        EXPECT_GT(memm_test::collections(pool, DYNSTR_GC_CTX_BALANCE), 0u);
    }
    EXPECT_GT(desc->recup_ctx, 0u);
    EXPECT_NE(desc->state & DYNSTR_STATE_DEPLETED, 0u);
}

TEST(DynstrModel, OneBufferRandomOperations) { run_model(1, 10, 600, 1, 4000); }

TEST(DynstrModel, TwoBuffersRandomOperations) { run_model(2, 12, 1000, 2, 4000); }

TEST(DynstrModel, FourBuffersRandomOperations) { run_model(4, 16, 1600, 3, 4000); }

TEST(DynstrModel, FourBuffersOtherSeed) { run_model(4, 6, 1200, 4, 4000); }

} // namespace
