// Coverage-guided fuzzer: the input is read as a sequence of operations over
// object pools, dynamic strings, lists and string lists, and after every
// operation the library's integrity checks and the shared models
// (tests/model/) must agree with what the library holds: texts and storage
// of every string pool, holders and contents of every object, nodes and
// objects of two lists. A mismatch prints what differs and traps.
//
// The library's state lives as long as the process and pools are never
// destroyed, so the pools are made once, small enough that inputs reach
// collections, extension pools and depletion, and every input releases all
// it made before it ends. Texts of released records may stay behind as dead
// space until a collection, so an input may meet string buffers as earlier
// inputs left them; the string model predicts from the buffers as they are.
//
// Choices are taken from the input bytes (ByteSource), so the string and
// list operations are exactly those of the random string and list tests,
// driven by the fuzzer instead of a seeded generator.
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "dynstr.h"
#include "llist.h"
#include "model/list_model.h"
#include "model/pool_model.h"
#include "model/string_model.h"
#include "strlist.h"

namespace {

using namespace memm_model;

// ---- the system log: dropped, apart from integrity failures ----
int g_integrity_failures = 0;

void note_log(const char *format) {
    for (const char *fault : {"[MEMM] integrity check failed", "[MEMM] dynstr integrity check failed"})
        if (strncmp(format, fault, strlen(fault)) == 0)
            g_integrity_failures++;
}

} // namespace

extern "C" {
void syslog(int, const char *format, ...) { note_log(format); }
void vsyslog(int, const char *format, va_list) { note_log(format); }
void __syslog_chk(int, int, const char *format, ...) { note_log(format); }
void __vsyslog_chk(int, int, const char *format, va_list) { note_log(format); }
}

namespace {

// ---- the pools, made once per process ----
constexpr int32_t kObjSize = 13; // slots of 32 bytes: only 4-byte aligned
constexpr int kStringPools = 3;

struct Pools {
    uint32_t objects, nodes;
    uint32_t strings[kStringPools];
    uint32_t object_capacity, node_capacity; // root plus five extension pools
};
Pools g_pools;

uint32_t chain_capacity(uint32_t count) { return count + MEMM_MAX_EXTENSION_POOLS * (count <= 15 ? 3 : count / 5); }

void make_pools() {
    if (memm_init(16, 4) != MEMM_OK)
        __builtin_trap();
    g_pools.objects = memm_initpool("fz_objects", 3, kObjSize, nullptr);
    g_pools.nodes = llist_initpool("fz_nodes", 4, 20, nullptr); // 20 bytes: nodes only 4-byte aligned
    g_pools.object_capacity = chain_capacity(3);
    g_pools.node_capacity = chain_capacity(4);
    // One 2-byte buffer: a one-character text fills it exactly.
    g_pools.strings[0] = dynstr_initpool2("fz_tiny", 2, 2, 1);
    g_pools.strings[1] = dynstr_initpool2("fz_one", 8, 400, 1);
    g_pools.strings[2] = dynstr_initpool2("fz_four", 12, 800, 4);
    for (uint32_t id : {g_pools.objects, g_pools.nodes, g_pools.strings[0], g_pools.strings[1], g_pools.strings[2]}) {
        if (id == MEMM_INVALID_POOL)
            __builtin_trap();
        memm_depletion_no_reboot(id);
    }
}

// ---- choices from the input ----
class ByteSource : public Source {
  public:
    ByteSource(const uint8_t *data, size_t size) : p_(data), end_(data + size) {}
    bool exhausted() const { return p_ == end_; }
    uint8_t byte() { return p_ < end_ ? *p_++ : 0; }
    int pick(int lo, int hi) override {
        const uint32_t span = uint32_t(hi - lo) + 1;
        uint32_t v = byte();
        if (span > 256)
            v = v << 8 | byte();
        return lo + int(v % span);
    }
    uint32_t word() override {
        uint32_t v = 0;
        for (int i = 0; i < 4; i++)
            v = v << 8 | byte();
        return v;
    }
    // One byte per text: letters with a '/' every few characters.
    void fill(std::string &s) override {
        const uint8_t b = byte();
        const size_t period = 2 + b % 7;
        for (size_t i = 0; i < s.size(); i++)
            s[i] = i % period == period - 1 ? '/' : "abcdef"[(i + b / 7) % 6];
    }

  private:
    const uint8_t *p_, *end_;
};

std::vector<std::string> split(const std::string &s, const std::string &sep) {
    std::vector<std::string> out;
    size_t from = 0;
    for (size_t at; !sep.empty() && (at = s.find(sep, from)) != std::string::npos; from = at + sep.size())
        out.push_back(s.substr(from, at - from));
    out.push_back(s.substr(from));
    return out;
}

std::vector<std::string> split_escaped(const std::string &s, char sep, char esc) {
    std::vector<std::string> out(1);
    for (size_t i = 0; i < s.size(); i++) {
        if (s[i] == esc) {
            if (i + 1 < s.size())
                out.back() += s[++i];
        } else if (s[i] == sep) {
            out.emplace_back();
        } else {
            out.back() += s[i];
        }
    }
    return out;
}

bool subsequence(const std::vector<std::string> &part, const std::vector<std::string> &whole) {
    size_t j = 0;
    for (const std::string &s : part) {
        while (j < whole.size() && whole[j] != s)
            j++;
        if (j++ >= whole.size())
            return false;
    }
    return true;
}

class Run {
  public:
    Run(const uint8_t *data, size_t size)
        : src_(data, size), strings_{{g_pools.strings[0], src_}, {g_pools.strings[1], src_}, {g_pools.strings[2], src_}} {
    }

    void run() {
        static const bool trace = getenv("MEMM_FUZZ_TRACE") != nullptr;
        for (step_ = 0; !src_.exhausted(); step_++) {
            op_ = step();
            if (trace)
                fprintf(stderr, "memm_fuzz: step %d: %s; %s\n", step_, op_, state().c_str());
            adopt_new_strings();
            reap();
            check();
        }
        op_ = "release everything";
        lists_.release_all();
        expect(lists_.failure().empty(), lists_.failure());
        for (void *o : live_)
            for (; holds_[o] > 0; holds_[o]--)
                expect(memm_free(o) == MEMM_OK, "release failed");
        reap();
        expect(live_.empty() && holds_.empty() && plain_.empty(), "objects left in the model");
        check();
        // Back to the start: nothing of this input is left in any pool.
        expect(in_use(g_pools.objects) == 0 && in_use(g_pools.nodes) == 0, "objects or nodes left in use");
        for (uint32_t pool : g_pools.strings)
            expect_sound(storage_fault(pool, 0));
    }

  private:
    ByteSource src_;
    StringModel strings_[kStringPools];
    // Every live object, in the order of creation (choices must not depend
    // on addresses, so that an input replays alike), and the references this
    // run holds itself.
    Objs live_;
    std::map<void *, uint32_t> holds_;
    std::map<void *, uint8_t> plain_;  // the pool objects among them: their fill byte
    ListModel lists_{src_, g_pools.nodes, g_pools.node_capacity, [this] { return any_object(); }};
    llist_node *(&lists)[2] = lists_.lists;
    Objs (&model_)[2] = lists_.model;
    int step_ = 0;
    const char *op_ = "";

    // The string pools' buffers and texts, for tracing.
    std::string state() {
        std::string out;
        for (int k = 0; k < kStringPools; k++) {
            const dynstr_pooldesc *desc = string_pool(g_pools.strings[k]);
            out += str(desc->name, " [buffer ", desc->curbuffer, ", used");
            for (int b = 0; b < desc->buffercount; b++)
                out += str(" ", desc->buf_used[b], "/", desc->buffersize);
            out += str(", dead ", desc->delbytes, "]");
            for (const Entry &e : strings_[k].entries())
                out += str(" '", e.text, "'");
            out += k + 1 < kStringPools ? "; " : "";
        }
        return out;
    }

    [[noreturn]] void fail(const std::string &what) {
        fprintf(stderr, "memm_fuzz: step %d (%s): %s\n", step_, op_, what.c_str());
        fprintf(stderr, "  %s\n", state().c_str());
        for (int l = 0; l < 2; l++) {
            fprintf(stderr, "  list %d, model then list:\n   ", l);
            for (void *o : model_[l])
                fprintf(stderr, " %p", o);
            fprintf(stderr, "\n   ");
            for (void *o : objects_of(lists[l]))
                fprintf(stderr, " %p", o);
            fprintf(stderr, "\n");
        }
        __builtin_trap();
    }
    void expect(bool ok, const std::string &what) {
        if (!ok)
            fail(what);
    }
    void expect_sound(const std::string &fault) { expect(fault.empty(), fault); }

    int pick(int lo, int hi) { return src_.pick(lo, hi); }
    StringModel &any_strings() { return strings_[pick(0, kStringPools - 1)]; }
    static Entry *find_entry(StringModel &m, const void *rec) {
        for (Entry &e : m.entries())
            if (e.rec == rec)
                return &e;
        return nullptr;
    }
    int string_pool_of(void *o) {
        for (int k = 0; k < kStringPools; k++)
            if (find_entry(strings_[k], o))
                return k;
        return -1;
    }
    Entry *entry_of(void *o) {
        const int k = string_pool_of(o);
        return k < 0 ? nullptr : find_entry(strings_[k], o);
    }
    // Any live object, or null.
    void *any_object() {
        const int i = pick(0, int(live_.size()));
        return i == int(live_.size()) ? nullptr : live_[size_t(i)];
    }
    int32_t any_index(size_t n) { return pick(0, 15) ? pick(-int(n) - 2, int(n) + 2) : pick(0, 1) ? INT32_MIN : INT32_MAX; }
    size_t in_lists(void *o) const { return lists_.in_lists(o); }
    uint32_t expected_refs(void *o) const { return holds_.at(o) + uint32_t(in_lists(o)); }
    // Records the string model made are held by this run.
    void adopt_new_strings() {
        for (StringModel &m : strings_)
            for (const Entry &e : m.entries())
                if (!holds_.count(e.rec))
                    live_.push_back(e.rec), holds_[e.rec] = 1, lists_.keys[e.rec] = int32_t(e.text.size() % 3);
    }
    void adopt_list_item(int k, void *rec, uint32_t holds) {
        dynstr *d = static_cast<dynstr *>(rec);
        strings_[k].entries().push_back({d, dynstr_getstring(d), dynstr_getmaxsize(d)});
        live_.push_back(rec), holds_[rec] = holds, lists_.keys[rec] = 2;
    }
    // Objects neither this run nor a list holds have been released.
    void reap() {
        for (auto it = live_.begin(); it != live_.end();) {
            void *o = *it;
            if (holds_[o] || in_lists(o)) {
                ++it;
                continue;
            }
            plain_.erase(o), lists_.keys.erase(o), holds_.erase(o);
            for (StringModel &m : strings_) {
                std::vector<Entry> &es = m.entries();
                es.erase(std::remove_if(es.begin(), es.end(), [o](const Entry &e) { return e.rec == o; }), es.end());
            }
            it = live_.erase(it);
        }
    }

    void check() {
        for (StringModel &m : strings_) {
            expect(m.failure().empty(), m.failure());
            expect_sound(m.fault());
        }
        LiveObjects objects;
        for (auto &[o, fill] : plain_)
            objects[static_cast<uint8_t *>(o)] = {expected_refs(o), fill};
        expect_sound(objects_fault(g_pools.objects, objects, kObjSize));
        for (auto &[o, holds] : holds_)
            expect(memm_get_refcount(o) == holds + in_lists(o),
                   str("object ", o, " has ", memm_get_refcount(o), " holders, model ", holds + in_lists(o)));
        for (int l = 0; l < 2; l++)
        expect(lists_.failure().empty(), lists_.failure());
        expect_sound(lists_.fault(live_));
        memm_get_overall_stats(nullptr, nullptr, nullptr, nullptr, nullptr);
        expect(g_integrity_failures == 0, "integrity check failed");
    }

    const char *step() {
        switch (pick(0, 17)) {
        case 0: return new_object();
        case 1: return reference();
        case 2: return release();
        case 3: any_strings().construct(); return "string constructor";
        case 4:
        case 5: {
            StringModel &m = any_strings();
            if (Entry *e = m.random_entry())
                m.write(*e);
            return "string writer";
        }
        case 6:
        case 7:
        case 8:
        case 9:
        case 10:
        case 11:
        case 12: return lists_.step();
        case 13: return build_string_list();
        case 14: return join();
        case 15: return clone_string_list();
        case 16: return set_item();
        default: return read_item();
        }
    }

    const char *new_object() {
        auto *o = static_cast<uint8_t *>(memm_calloc(g_pools.objects));
        expect((o == nullptr) == (plain_.size() == g_pools.object_capacity), "memm_calloc against the capacity");
        if (!o)
            return "memm_calloc (depleted)";
        for (int i = 0; i < kObjSize; i++)
            expect(o[i] == 0, "slot not zero-filled");
        const uint8_t fill = src_.byte();
        memset(o, fill, kObjSize);
        live_.push_back(o), plain_[o] = fill, holds_[o] = 1, lists_.keys[o] = fill % 3;
        return "memm_calloc";
    }

    const char *reference() {
        void *o = any_object();
        if (!o || expected_refs(o) >= 8)
            return "refalloc (none)";
        const bool as_string = entry_of(o) && pick(0, 1);
        void *r = as_string ? dynstr_refalloc(static_cast<dynstr *>(o)) : memm_refalloc(o);
        expect(r == o, "refalloc failed");
        holds_[o]++;
        return as_string ? "dynstr_refalloc" : "memm_refalloc";
    }

    const char *release() {
        Objs held;
        for (void *o : live_)
            if (holds_[o])
                held.push_back(o);
        if (held.empty())
            return "release (none)";
        void *o = held[size_t(pick(0, int(held.size()) - 1))];
        expect(memm_free(o) == MEMM_OK, "memm_free failed");
        holds_[o]--;
        return "memm_free";
    }

    // A new string list of pool k appended to a list: its items are
    // pieces of `pieces` in order (a piece that cannot be stored is left
    // out, unless `whole`); the lists hold them, this run does not.
    void append_items(llist_node *items, int k, const std::vector<std::string> &pieces, bool whole) {
        std::vector<std::string> texts;
        for (void *o : objects_of(items)) {
            expect(dynstr_isdynstring(o) && memm_get_poolid(o) == g_pools.strings[k], "an item that is no record of its pool");
            texts.push_back(dynstr_getstring(static_cast<dynstr *>(o)));
        }
        expect(whole ? !items || texts == pieces : subsequence(texts, pieces), "the items are not the pieces");
        for (void *o : objects_of(items))
            adopt_list_item(k, o, 0);
        const int l = pick(0, 1);
        if (items)
            expect(llist_addlist(&lists[l], items) == MEMM_OK, "addlist of new items");
        const Objs added = objects_of(items);
        model_[l].insert(model_[l].end(), added.begin(), added.end());
    }

    const char *build_string_list() {
        static const char *const seps[] = {"/", "a", "ab", "", "//"};
        const int k = pick(0, kStringPools - 1), mode = pick(0, 2);
        const char *sep = seps[pick(0, 4)];
        std::string text(size_t(pick(0, 40)), 'a');
        src_.fill(text);
        if (mode == 0) {
            append_items(strlist_fromstring(text.c_str(), sep, g_pools.nodes, g_pools.strings[k]), k, split(text, sep), false);
            return "strlist_fromstring";
        }
        if (mode == 1) {
            Entry *e = strings_[k].random_entry();
            if (!e)
                return "strlist_fromdynstr (none)";
            const std::vector<std::string> pieces = split(e->text, sep);
            append_items(strlist_fromdynstr(e->rec, sep, g_pools.nodes), k, pieces, false);
            return "strlist_fromdynstr";
        }
        const char sepc = "/a"[pick(0, 1)], esc = "bc"[pick(0, 1)];
        std::vector<char> buf(text.begin(), text.end());
        buf.push_back('\0');
        append_items(strlist_fromstring_escaped(buf.data(), sepc, esc, g_pools.nodes, g_pools.strings[k]), k,
                     split_escaped(text, sepc, esc), true);
        return "strlist_fromstring_escaped";
    }

    const char *join() {
        static const char *const seps[] = {",", "", "/", "--"};
        const int l = pick(0, 1), k = pick(0, kStringPools - 1), mode = pick(0, 2);
        const Objs &m = model_[l];
        const std::string sep = seps[pick(0, 3)];
        const unsigned char esc = "\0b/"[pick(0, 2)];
        int32_t first = 0, end = int32_t(m.size());
        if (mode == 1) {
            first = pick(0, int(m.size()));
            end = pick(first, int(m.size()));
        }
        // Every node must hold a live record, in range or not.
        bool joinable = true;
        std::string want;
        for (int32_t i = 0; i < int32_t(m.size()); i++) {
            const Entry *e = entry_of(m[size_t(i)]);
            joinable = joinable && e;
            if (!e || i < first || i >= end)
                continue;
            if (i > first)
                want += sep;
            for (char c : e->text) {
                if (mode == 2 && esc && sep.size() <= 1 && (c == char(esc) || (sep.size() == 1 && c == sep[0])))
                    want += char(esc);
                want += c;
            }
        }
        dynstr *d = mode == 0   ? strlist_todynstr(lists[l], sep.c_str(), g_pools.strings[k])
                    : mode == 1 ? strlist_partialtodynstr(lists[l], sep.c_str(), g_pools.strings[k], first, end)
                                : dynstr_fromstrlist_escaped(g_pools.strings[k], lists[l], sep.c_str(), esc);
        // Whether the join finds room is not predicted; what it holds is.
        expect(joinable || !d, "a join of a list with a node that holds no record");
        if (d) {
            expect(dynstr_getstring(d) == want, str("join '", dynstr_getstring(d), "', expected '", want, "'"));
            adopt_list_item(k, d, 1);
        }
        return "join";
    }

    const char *clone_string_list() {
        const int l = pick(0, 1), k = pick(0, kStringPools - 1);
        const Objs &m = model_[l];
        std::vector<std::string> texts;
        for (size_t i = 0; i < length(m); i++) {
            const Entry *e = entry_of(m[i]);
            texts.push_back(e ? e->text : "");
        }
        append_items(strlist_clone(lists[l], g_pools.nodes, g_pools.strings[k]), k, texts, false);
        return "strlist_clone";
    }

    const char *set_item() {
        const int l = pick(0, 1);
        const Objs &m = model_[l];
        const int32_t index = any_index(m.size());
        std::string text(size_t(pick(0, 30)), 'a');
        src_.fill(text);
        size_t pos;
        Entry *e = at(m, index, &pos) ? entry_of(m[pos]) : nullptr;
        if (e) {
            // The model predicts the write for the record's own pool.
            StringModel &sm = strings_[string_pool_of(e->rec)];
            const uint32_t want = sm.expect_write(*e, text);
            expect(strlist_setstring_at(lists[l], text.c_str(), index) == want, "strlist_setstring_at result");
        } else {
            expect(strlist_setstring_at(lists[l], text.c_str(), index) == MEMM_ERR_INVALID_ARG, "strlist_setstring_at of no record");
        }
        return "strlist_setstring_at";
    }

    const char *read_item() {
        const int l = pick(0, 1);
        const Objs &m = model_[l];
        const int32_t index = any_index(m.size());
        size_t pos;
        const Entry *e = at(m, index, &pos) ? entry_of(m[pos]) : nullptr;
        expect(strlist_getstring_at(lists[l], index) == (e ? e->text : std::string()), "strlist_getstring_at");
        expect(strlist_getdynstr_at(lists[l], index) == (e ? e->rec : nullptr), "strlist_getdynstr_at");
        return "strlist_getstring_at";
    }
};

} // namespace

// Pools live as long as the process, and their descriptors lie in memory the
// leak checker does not scan: their storage is not a leak.
extern "C" const char *__lsan_default_suppressions() { return "leak:loc__initpool\nleak:dynstr_initpool2\n"; }

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    make_pools();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Run(data, size).run();
    return 0;
}
