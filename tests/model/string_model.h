// The exact model of a string pool that the random string test and the
// fuzzer share: random constructors, assignments, literals, formats,
// appends, typed setters, hex texts, character replacement, maximum sizes,
// resets and releases, each checked against the texts the model predicts.
//
// Outcomes are predicted exactly: a write that detaches needs a free record
// slot for the old text (else the record is unchanged), an append in place
// needs none, and a text of size S fits when some buffer, once compacted,
// has S bytes free (the old text counts as live until the write ends). Only
// a record- or literal-sourced constructor with fewer than two free slots is
// not predicted, as its allocation may collect; its outcome is accepted
// either way and then checked like any other.
#ifndef MEMM_MODEL_STRING_MODEL_H
#define MEMM_MODEL_STRING_MODEL_H

#include <arpa/inet.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "dynstr.h"
#include "failures.h"
#include "source.h"
#include "string_storage.h"

namespace memm_model {

// Literals are suffixes of one constant text: every length up to 63 is at hand.
inline const char kLiteral[] = "a fairly long constant/literal text/with slashes/for the separator";
inline const char *literal(int len) { return kLiteral + sizeof kLiteral - 1 - std::min(len, 63); }

struct Entry {
    dynstr *rec;
    std::string text;
    uint32_t maxsize;
};

inline uint32_t size_for(const std::string &text) { return text.empty() ? 0 : uint32_t(text.size()) + 1; }
inline std::string cut(const std::string &text, uint32_t maxsize) {
    return maxsize && text.size() + 1 > maxsize ? text.substr(0, maxsize - 1) : text;
}
// Offsets clamped to the text; a negative or excessive length: to the end.
// The first n bytes (all by default) as lowercase hex.
inline std::string hex_of(const std::string &bytes, size_t n = std::string::npos) {
    std::string hex;
    for (size_t i = 0; i < n && i < bytes.size(); i++)
        hex += std::string(1, "0123456789abcdef"[uint8_t(bytes[i]) >> 4]) + "0123456789abcdef"[bytes[i] & 0xF];
    return hex;
}
inline std::string piece(const std::string &text, int32_t offset, int32_t length) {
    const size_t off = offset < 0 ? 0 : std::min(size_t(offset), text.size());
    const size_t rest = text.size() - off;
    return text.substr(off, length < 0 ? rest : std::min(size_t(length), rest));
}

class StringModel {
  public:
    StringModel(uint32_t pool, Source &src)
        : pool_(pool), src_(src), desc_(string_pool(pool)), records_(memm_get_pool_nolock(pool)) {}

    void step() {
        const int op = pick(0, 99);
        if (model_.empty() || op < 22)
            construct();
        else if (op < 82)
            write(*random_entry());
        else
            release();
    }


    // Empty when every text, maximum size and the storage agree with the
    // model; otherwise what differs.
    std::string fault() const {
        for (const Entry &e : model_) {
            if (dynstr_getstring(e.rec) != e.text || dynstr_getmaxsize(e.rec) != e.maxsize)
                return str("text '", dynstr_getstring(e.rec), "', model '", e.text, "', or the maximum size");
        }
        return storage_fault(pool_, model_.size());
    }
    // The first wrong result or effect of a step, empty while there is none.
    const std::string &failure() const { return f_.first(); }

    // The records the model knows, for a driver that also makes and
    // releases records outside it (in lists).
    std::vector<Entry> &entries() { return model_; }
    Entry *random_entry() { return model_.empty() ? nullptr : &model_[size_t(pick(0, int(model_.size()) - 1))]; }

    // A write through a detached record: the expected result, model updated.
    uint32_t expect_write(Entry &e, const std::string &text) {
        if (free_slots() == 0)
            return MEMM_ERR_NO_MEMORY; // no record for the old text: unchanged
        const bool ok = fits(cut(text, e.maxsize));
        e.text = ok ? cut(text, e.maxsize) : "";
        return ok ? MEMM_OK : MEMM_ERR_NO_MEMORY;
    }

    void construct() {
        const std::string text = random_text();
        const char *t = text.c_str(), *lit = literal(pick(0, 63));
        const int32_t off = pick(-3, 20), len = pick(-2, 30);
        Entry *src = random_entry();
        const int kind = pick(src ? 0 : 4, 9);
        const std::string stext = src ? src->text : "";
        const size_t sep = stext.rfind('/');
        const uint32_t maxsize = uint32_t(pick(1, pick(0, 1) ? 64 : desc_->buffersize + 8));
        // Record, literal and hex sources allocate with collection, which
        // is predicted only while it does not collect.
        const bool predicted = (kind >= 5 && kind != 8) || free_slots() >= 2;
        bool ok;
        std::string want;
        auto expect = [&](const std::string &w) { want = w, ok = free_slots() >= 2 && fits(w); };
        dynstr *d;
        switch (kind) {
        case 0: expect(stext), d = dynstr_fromdynstr(src->rec); break;
        case 1: expect(piece(stext, off, len)), d = dynstr_fromsubdynstr(src->rec, off, len); break;
        case 2: expect(piece(stext, off, -1)), d = dynstr_fromsubdynstr(src->rec, off, -1); break;
        case 3: // the text behind the last '/'; with none, no record (and sep + 1 wraps to 0)
            expect(stext.substr(sep + 1)), ok = ok && sep != std::string::npos, d = dynstr_fromlastsep(src->rec, '/');
            break;
        case 4: want = lit, ok = free_slots() >= 2, d = dynstr_fromliteral(pool_, lit); break;
        case 5: expect(piece(text, off, len)), d = dynstr_fromsubstring(pool_, t, off, len); break;
        case 6: expect(text), d = dynstr_fromstring(pool_, t); break;
        case 7: expect(text), d = dynstr_fromprintf(pool_, "%s", t); break;
        case 8: expect(hex_of(text)), d = dynstr_hexstringfromdata(pool_, bytes(text), uint32_t(text.size())); break;
        default: // a collecting allocation collects every buffer before it gives up
            want = "", ok = free_slots() >= 2 || records_->alloc_count - model_.size() - 1 >= 2;
            d = dynstr_calloc_maxsize(pool_, maxsize);
        }
        f_.expect(!predicted || (d != nullptr) == ok, "constructor ", kind, (d ? " made a record" : " failed"));
        f_.expect(!d || kind != 4 || d->str == lit, "a literal is referred to, not copied");
        if (d)
            model_.push_back({d, want, kind == 9 ? maxsize : 0});
    }

  private:
    int pick(int lo, int hi) { return src_.pick(lo, hi); }
    uint32_t free_slots() const { return records_->alloc_count - records_->cur_count; }
    static const uint8_t *bytes(const std::string &s) { return reinterpret_cast<const uint8_t *>(s.data()); }

    // Empty, short, a fair share of a buffer, or about a buffer and more.
    std::string random_text() {
        const int bufsize = desc_->buffersize, kind = pick(0, 9);
        const int len = kind < 4 ? pick(0, 16) : kind < 8 ? pick(0, bufsize / 4) : pick(bufsize / 2, bufsize + 40);
        std::string s(size_t(len), 'a');
        src_.fill(s);
        return s;
    }

    // Some buffer, once compacted, has room for the text.
    bool fits(const std::string &text) const {
        for (int k = 0; k < desc_->buffercount && !text.empty(); k++) {
            uint32_t live = 0;
            for (const dynstr *d = desc_->buf_first[k]; d; d = d->next)
                live += (d->flags & DYNSTR_FLAG_DELETED) ? 0 : DYNSTR_SIZE(d->flags);
            if (uint32_t(desc_->buffersize) - live >= size_for(text))
                return true;
        }
        return text.empty();
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

    // Whole bytes only: a maximum size leaves an odd text size.
    uint32_t expect_hex(Entry &e, const std::string &bytes) {
        size_t n = bytes.size();
        if (e.maxsize && e.maxsize < 2 * n + 1)
            n = (e.maxsize - 1) / 2;
        return expect_write(e, hex_of(bytes, n));
    }

    // A buffered text changes in place; a literal is first copied into a
    // buffer, which is a write. Nothing to replace: nothing happens.
    uint32_t expect_replace(Entry &e, char from, char to) {
        const uint32_t n = uint32_t(std::count(e.text.begin(), e.text.end(), from));
        replaced_ = 0;
        if (n == 0)
            return MEMM_OK;
        in_place_ = !(e.rec->flags & DYNSTR_FLAG_LITERAL);
        const uint32_t result = in_place_ ? MEMM_OK : expect_write(e, e.text);
        if (result == MEMM_OK) {
            std::replace(e.text.begin(), e.text.end(), from, to);
            replaced_ = n;
        }
        return result;
    }

    // A maximum below the text's size cuts it; a failed cut for want of a
    // slot keeps text and maximum, so the maximum never lies below the size.
    uint32_t expect_maxsize(Entry &e, uint32_t m) {
        uint32_t result = MEMM_OK;
        if (m && size_for(e.text) > m) {
            result = expect_write(e, cut(e.text, m));
            if (size_for(e.text) > m)
                return result;
        }
        e.maxsize = m > DYNSTR_MAXSIZE_LIMIT ? 0 : m;
        return result == MEMM_OK && m > DYNSTR_MAXSIZE_LIMIT ? MEMM_ERR_INVALID_ARG : result;
    }

  public:
    // One of the writers; the sources may be e itself or point into its text.
    void write(Entry &e) {
        Entry &s = *random_entry();
        const std::string old = e.text, stext = s.text, text = random_text();
        const std::string add = text.substr(0, size_t(pick(0, 60)));
        const int32_t off = pick(-3, 20), len = pick(-2, 30);
        const uint32_t n = uint32_t(pick(0, 50));
        // Maximum sizes and literal lengths often at the edge of a cut.
        const int edge = pick(0, 2) == 0 ? int(size_for(old)) - pick(0, 1) : -1;
        const uint32_t m = edge >= 0 ? uint32_t(edge) : pick(0, 9) ? uint32_t(pick(0, desc_->buffersize + 8)) : 3000;
        const char *lit = literal(e.maxsize && pick(0, 1) ? int(e.maxsize) - pick(0, 1) : pick(0, 63));
        const char *before = e.rec->str;
        const uint32_t gc_before = desc_->gc_count;
        in_place_ = false;
        literal_ = nullptr;
        dynstr *const r = e.rec;
        const char *own = dynstr_getstring(r), *t = text.c_str(), *a = add.c_str();
        const uint32_t value = src_.word();
        char ipv4[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &value, ipv4, sizeof ipv4);
        uint32_t want, got, replaced = 0; // each case: the expected result (model updated), then the call
        const int kind = pick(0, 21);
        switch (kind) {
        case 0: want = expect_write(e, piece(text, off, len)), got = dynstr_setsubstring(r, t, off, len); break;
        case 1: want = expect_write(e, piece(old, off, len)), got = dynstr_setsubstring(r, own, off, len); break;
        case 2: want = expect_write(e, stext), got = dynstr_setdynstr(r, s.rec); break;
        case 3: want = expect_write(e, piece(stext, off, len)), got = dynstr_setsubdynstr(r, s.rec, off, len); break;
        case 4: want = expect_write(e, add + ":" + std::to_string(n)), got = dynstr_sprintf(r, "%s:%u", a, n); break;
        case 5: want = expect_write(e, "<" + old + ">"), got = dynstr_sprintf(r, "<%s>", own); break;
        case 6: want = expect_literal(e, lit), got = dynstr_setliteral(r, lit); break;
        case 7: want = expect_append(e, add), got = dynstr_addstring(r, a); break;
        case 8: want = expect_append(e, add.substr(0, n)), got = dynstr_addstring_size(r, a, n); break;
        case 9: // appending a record to itself is refused
            want = s.rec == r ? MEMM_ERR_INVALID_ARG : expect_append(e, stext), got = dynstr_adddynstr(r, s.rec);
            break;
        case 10: want = expect_append(e, old), got = dynstr_addstring(r, own); break;
        // Formatting always detaches, also when nothing is added.
        case 11: want = expect_write(e, old + add + old), got = dynstr_addsprintf(r, "%s%s", a, own); break;
        case 12: e.maxsize = 0, want = expect_write(e, ""), got = dynstr_reset(r); break;
        case 13: want = expect_maxsize(e, m), got = dynstr_setmaxsize(r, m); break;
        case 14: want = expect_write(e, std::to_string(value)), got = dynstr_setuint32(r, value); break;
        case 15: want = expect_write(e, std::to_string(int32_t(value))), got = dynstr_setint32(r, int32_t(value)); break;
        case 16: want = expect_write(e, ipv4), got = dynstr_setipv4addr(r, value); break;
        case 17: want = expect_hex(e, add), got = dynstr_sethexstring(r, bytes(add), uint32_t(add.size())); break;
        case 18: // the library's constant text, not the test's
            want = expect_literal(e, value & 1 ? "1" : "0"), got = dynstr_setbool(r, int(value & 1)), literal_ = nullptr;
            break;
        case 19:
            want = expect_replace(e, '/', '.'), got = dynstr_replace_char(r, '/', '.', &replaced);
            f_.expect(replaced == replaced_, "replaced ", replaced, ", expected ", replaced_);
            break;
        default: want = expect_write(e, text), got = dynstr_setstring(r, t);
        }
        f_.expect(got == want, "writer ", kind, ": result ", got, ", expected ", want);
        // A text grows in place exactly when predicted (unless a collection
        // after the placement moved it); a kept literal is referred to.
        if (desc_->gc_count == gc_before && want == MEMM_OK && e.text != old && !old.empty())
            f_.expect((e.rec->str == before) == in_place_, "writer ", kind, (in_place_ ? " moved" : " stayed"));
        f_.expect(!literal_ || want != MEMM_OK || e.rec->str == literal_, "literal copied");
    }

  private:
    void release() {
        const size_t i = size_t(pick(0, int(model_.size()) - 1));
        f_.expect(memm_free(model_[i].rec) == MEMM_OK, "release failed");
        model_.erase(model_.begin() + long(i));
    }

    uint32_t pool_;
    Source &src_;
    Failures f_;
    dynstr_pooldesc *desc_;
    memm_pooldesc *records_;
    std::vector<Entry> model_;
    bool in_place_ = false;         // the last append or replacement was predicted to stay in place
    uint32_t replaced_ = 0;         // characters the last replacement was predicted to change
    const char *literal_ = nullptr; // the last setliteral was predicted to keep this
};

} // namespace memm_model

#endif
