// Seeded model-based test of every writer: constructors, assignments,
// literals, formatting and appends, mixed with releases on small pools of
// several buffers, checked after every step against a plain model of the
// texts and against the storage recomputed from the buffer lists.
//
// Outcomes are predicted exactly: a write that detaches needs a free record
// slot for the old text (else the record is unchanged), an append in place
// needs none, and a text of size S fits when some buffer, once compacted,
// has S bytes free (the old text counts as live until the write ends). Only
// a collecting allocation with fewer than two free slots is not predicted;
// its outcome is accepted either way and then checked like any other.
#include <gtest/gtest.h>

#include <string.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "dynstr.h"
#include "dynstr_test_support.h"

namespace {

const char *const kLiterals[] = {"", "L", "literal", "a/literal/with/slashes", "a fairly long constant literal text"};

struct Entry {
    dynstr *rec;
    std::string text;
    uint32_t maxsize;
};

class WriterModel {
  public:
    WriterModel(uint32_t pool, uint32_t seed)
        : pool_(pool), rng_(seed), desc_(memm_test::string_pool(pool)), records_(memm_get_pool_nolock(pool)) {}

    void step() {
        const int op = pick(0, 99);
        if (model_.empty() || op < 18)
            construct();
        else if (op < 85)
            write(*random_entry());
        else
            release();
    }

    ::testing::AssertionResult consistent() const {
        for (const Entry &e : model_) {
            if (dynstr_getstring(e.rec) != e.text)
                return ::testing::AssertionFailure() << "text '" << dynstr_getstring(e.rec) << "' != '" << e.text << "'";
            if (dynstr_getmaxsize(e.rec) != e.maxsize)
                return ::testing::AssertionFailure() << "maxsize " << dynstr_getmaxsize(e.rec) << " != " << e.maxsize;
        }
        return memm_test::storage_consistent(pool_, model_.size());
    }

  private:
    int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    Entry *random_entry() { return model_.empty() ? nullptr : &model_[size_t(pick(0, int(model_.size()) - 1))]; }

    std::string random_text() {
        const int bufsize = desc_->buffersize, kind = pick(0, 9);
        const int len = kind < 5 ? pick(0, 12) : kind < 9 ? pick(0, bufsize / 4) : pick(bufsize / 2, bufsize + 20);
        std::string s(size_t(len), 'a');
        for (char &c : s)
            c = "abcdef/"[pick(0, 6)];
        return s;
    }

    uint32_t free_slots() const { return records_->alloc_count - records_->cur_count; }

    // Some buffer, once compacted, has room for the text.
    bool fits(const std::string &text) const {
        for (int k = 0; k < desc_->buffercount && !text.empty(); k++) {
            uint32_t live = 0;
            for (const dynstr *d = desc_->buf_first[k]; d; d = d->next)
                live += (d->flags & DYNSTR_FLAG_DELETED) ? 0 : DYNSTR_SIZE(d->flags);
            if (uint32_t(desc_->buffersize) - live >= text.size() + 1)
                return true;
        }
        return text.empty();
    }

    static std::string cut(const std::string &text, uint32_t maxsize) {
        return maxsize && text.size() + 1 > maxsize ? text.substr(0, maxsize - 1) : text;
    }
    // Offsets clamped to the text; a negative or excessive length: to the end.
    static std::string piece(const std::string &text, int32_t offset, int32_t length) {
        const size_t off = offset < 0 ? 0 : std::min(size_t(offset), text.size());
        const size_t rest = text.size() - off;
        return text.substr(off, length < 0 ? rest : std::min(size_t(length), rest));
    }

    // A write through a detached record: the expected result, model updated.
    uint32_t expect_write(Entry &e, const std::string &text) {
        if (free_slots() == 0)
            return MEMM_ERR_NO_MEMORY; // no record for the old text: unchanged
        const bool ok = fits(cut(text, e.maxsize));
        e.text = ok ? cut(text, e.maxsize) : "";
        return ok ? MEMM_OK : MEMM_ERR_NO_MEMORY;
    }

    // An append stays in place when the text is the last of the current
    // buffer and the new characters fit behind it; otherwise it detaches.
    uint32_t expect_append(Entry &e, const std::string &add) {
        const std::string want = cut(e.text + add, e.maxsize);
        if (want == e.text)
            return MEMM_OK;
        const dynstr *d = e.rec;
        const uint32_t c = desc_->curbuffer;
        in_place_ = d->str && !(d->flags & DYNSTR_FLAG_LITERAL) && DYNSTR_BNR(d->flags) == c &&
                    d->str + DYNSTR_SIZE(d->flags) == desc_->buf_base[c] + desc_->buf_used[c] &&
                    desc_->buffersize - desc_->buf_used[c] >= want.size() - e.text.size();
        if (!in_place_)
            return expect_write(e, want);
        e.text = want;
        return MEMM_OK;
    }

    uint32_t expect_literal(Entry &e, const char *lit) {
        if (e.maxsize && e.maxsize <= strlen(lit))
            return expect_write(e, lit); // held as a cut copy
        if (e.rec->str && !(e.rec->flags & DYNSTR_FLAG_LITERAL) && free_slots() == 0)
            return MEMM_ERR_NO_MEMORY;
        e.text = lit;
        literal_ = lit;
        return MEMM_OK;
    }

    void construct() {
        const std::string text = random_text();
        const int32_t off = pick(-3, 20), len = pick(-2, 30);
        const char *lit = kLiterals[pick(0, 4)];
        Entry *src = random_entry();
        const int kind = pick(src ? 0 : 4, 7);
        const size_t sep = kind == 3 ? src->text.rfind('/') : 0;
        const std::string want = kind == 0 ? src->text
                                 : kind == 1 ? piece(src->text, off, len)
                                 : kind == 2 ? piece(src->text, off, -1)
                                 : kind == 3 ? (sep == std::string::npos ? "" : src->text.substr(sep + 1))
                                 : kind == 4 ? std::string(lit)
                                 : kind == 5 ? piece(text, off, len)
                                             : text;
        // Record and literal sources allocate with collection, which is
        // predicted only while it does not collect.
        const bool predicted = kind >= 5 || free_slots() >= 2;
        const bool ok = free_slots() >= 2 && (kind == 4 || fits(want)) && !(kind == 3 && sep == std::string::npos);
        dynstr *d = kind == 0   ? dynstr_fromdynstr(src->rec)
                    : kind == 1 ? dynstr_fromsubdynstr(src->rec, off, len)
                    : kind == 2 ? dynstr_fromsubdynstr(src->rec, off, -1)
                    : kind == 3 ? dynstr_fromlastsep(src->rec, '/')
                    : kind == 4 ? dynstr_fromliteral(pool_, lit)
                    : kind == 5 ? dynstr_fromsubstring(pool_, text.c_str(), off, len)
                    : kind == 6 ? dynstr_fromstring(pool_, text.c_str())
                                : dynstr_fromprintf(pool_, "%s", text.c_str());
        if (predicted) {
            EXPECT_EQ(d != nullptr, ok) << "constructor " << kind;
        }
        if (!d)
            return;
        model_.push_back({d, want, 0});
        if (pick(0, 3) == 0) { // make it a record with a maximum size instead
            Entry &e = model_.back();
            memm_free(e.rec);
            e = {dynstr_calloc_maxsize(pool_, uint32_t(pick(1, desc_->buffersize / 2))), "", 0};
            if (!e.rec)
                return model_.pop_back();
            e.maxsize = dynstr_getmaxsize(e.rec);
            const uint32_t expected = expect_write(e, text);
            EXPECT_EQ(dynstr_setstring(e.rec, text.c_str()), expected);
        }
    }

    // One of the assignments, literals, appends or formats; the sources
    // may be e itself or point into its text.
    void write(Entry &e) {
        Entry &s = *random_entry();
        const std::string old = e.text, stext = s.text, text = random_text().substr(0, size_t(pick(0, 60)));
        const int32_t off = pick(-3, 20), len = pick(-2, 30);
        const uint32_t n = uint32_t(pick(0, 50));
        const char *lit = kLiterals[pick(0, 4)];
        const char *before = e.rec->str;
        const uint32_t gc_before = desc_->gc_count;
        in_place_ = false;
        literal_ = nullptr;
        uint32_t want, got;
        switch (pick(0, 11)) {
        case 0:
            want = expect_write(e, text), got = dynstr_setstring(e.rec, text.c_str());
            break;
        case 1:
            want = expect_write(e, piece(text, off, len)), got = dynstr_setsubstring(e.rec, text.c_str(), off, len);
            break;
        case 2:
            want = expect_write(e, stext), got = dynstr_setdynstr(e.rec, s.rec);
            break;
        case 3:
            want = expect_write(e, piece(stext, off, len)), got = dynstr_setsubdynstr(e.rec, s.rec, off, len);
            break;
        case 4:
            want = expect_write(e, text + ":" + std::to_string(len));
            got = dynstr_sprintf(e.rec, "%s:%d", text.c_str(), len);
            break;
        case 5:
            want = expect_write(e, "<" + old + ">"), got = dynstr_sprintf(e.rec, "<%s>", dynstr_getstring(e.rec));
            break;
        case 6:
            want = expect_literal(e, lit), got = dynstr_setliteral(e.rec, lit);
            break;
        case 7:
            want = expect_append(e, text), got = dynstr_addstring(e.rec, text.c_str());
            break;
        case 8:
            want = expect_append(e, text.substr(0, n)), got = dynstr_addstring_size(e.rec, text.c_str(), n);
            break;
        case 9:
            want = &s == &e ? MEMM_ERR_INVALID_ARG : expect_append(e, stext), got = dynstr_adddynstr(e.rec, s.rec);
            break;
        case 10:
            want = expect_append(e, old), got = dynstr_addstring(e.rec, dynstr_getstring(e.rec));
            break;
        default: // formatting always detaches, also when nothing is added
            want = expect_write(e, old + text + old);
            got = dynstr_addsprintf(e.rec, "%s%s", text.c_str(), dynstr_getstring(e.rec));
        }
        EXPECT_EQ(got, want);
        // A text grows in place exactly when predicted (unless a collection
        // after the placement moved it); a kept literal is referred to.
        if (desc_->gc_count == gc_before && want == MEMM_OK && e.text != old && !old.empty()) {
            EXPECT_EQ(e.rec->str == before, in_place_);
        }
        if (literal_ && want == MEMM_OK) {
            EXPECT_EQ(e.rec->str, literal_);
        }
    }

    void release() {
        const size_t i = size_t(pick(0, int(model_.size()) - 1));
        EXPECT_EQ(memm_free(model_[i].rec), MEMM_OK);
        model_.erase(model_.begin() + long(i));
    }

    uint32_t pool_;
    std::mt19937 rng_;
    dynstr_pooldesc *desc_;
    memm_pooldesc *records_;
    std::vector<Entry> model_;
    bool in_place_ = false;          // the last append was predicted to stay in place
    const char *literal_ = nullptr;  // the last setliteral was predicted to keep this
};

void run_model(int32_t buffers, uint32_t records, int32_t total_bytes, uint32_t seed, int steps) {
    ASSERT_EQ(memm_init(16, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("writers", records, total_bytes, buffers);
    ASSERT_NE(pool, MEMM_INVALID_POOL);
    WriterModel model(pool, seed);
    for (int i = 0; i < steps; i++) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed << ", step " << i);
        model.step();
        ASSERT_TRUE(model.consistent());
        if (::testing::Test::HasFailure())
            return;
    }
    // The run went through every path of the storage.
    const dynstr_pooldesc *desc = memm_test::string_pool(pool);
    EXPECT_GT(memm_test::collections(pool, DYNSTR_GC_BUFFER_FULL), 0u);
    EXPECT_GT(memm_test::collections(pool, DYNSTR_GC_CTX_DEPLETED), 0u);
    EXPECT_GT(desc->recup_ctx, 0u);
    EXPECT_NE(desc->state & DYNSTR_STATE_DEPLETED, 0u);
}

TEST(DynstrWriteModel, TwoBuffers) { run_model(2, 12, 1000, 11, 4000); }

TEST(DynstrWriteModel, ThreeBuffers) { run_model(3, 16, 1500, 12, 4000); }

TEST(DynstrWriteModel, FourBuffersFewRecords) { run_model(4, 6, 1200, 13, 4000); }

TEST(DynstrWriteModel, OneBuffer) { run_model(1, 10, 600, 14, 4000); }

} // namespace
