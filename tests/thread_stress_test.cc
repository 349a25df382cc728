// Eight threads share object pools, string pools, a node pool and the report
// files: each runs a seeded mix of allocations, references, releases, list
// changes, string writes (which force collections), lock-free identity
// questions and report requests, keeping a tally of what it holds. At the
// end every counter must add up to the tallies, both integrity checks must
// pass, every report file must be whole, and releasing everything must give
// the pools back their start counts. Run under ThreadSanitizer it is the
// check that reports and the lock-free readers are free of data races.
#include <gtest/gtest.h>

#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "dynstr.h"
#include "dynstr_test_support.h"
#include "llist.h"
#include "memm.h"
#include "model/pool_model.h"
#include "report_files.h"
#include "syslog_capture.h"

namespace {

constexpr int kThreads = 8;
constexpr int kSteps = 4000;
constexpr int kReportsEach = 10; // per thread and kind of report file
constexpr uint32_t kMaxSize = 64;
const char *const kDryNames[] = {"dry_a", "dry_b", "dry_c"};

struct Pools {
    uint32_t objs, nodes, strs, tight;
    uint32_t dry[3];
};

struct HeldObj {
    void *obj;
    uint32_t own_pool; // memm_get_poolid at allocation
    uint32_t extra;    // references taken with memm_refalloc
    uint32_t in_list;  // nodes of the thread's list that hold it
};
struct HeldStr {
    dynstr *rec;
    std::string text;
    uint32_t maxsize;
};

// What one worker holds and what it asked for.
struct Tally {
    std::vector<HeldObj> objs;
    std::vector<std::pair<void *, uint32_t>> dry; // object, index of its pool
    std::vector<HeldStr> strs;
    std::vector<dynstr *> tight;
    llist_node *list = nullptr;
    int profiling = 0;
    std::vector<uint32_t> tag_numbers;
    int dry_failures = 0;
};

// A print function that formats everything and keeps nothing.
int null_print(const char *format, ...) {
    char line[512];
    va_list ap;
    va_start(ap, format);
    const int n = vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    return n;
}

size_t count_of(const std::string &text, const std::string &what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size()))
        n++;
    return n;
}
bool ends_with(const std::string &text, const std::string &end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// A list file holds whole listings, each with a banner pair per pool and
// the listing's closing line; a listing cut short by another report lacks them.
::testing::AssertionResult whole_listings(const std::string &file, size_t expected) {
    const std::string head = "\r\n\r\nList created with option:";
    if (count_of(file, head) != expected || file.compare(0, head.size(), head) != 0)
        return ::testing::AssertionFailure() << count_of(file, head) << " listings, expected " << expected;
    for (size_t at = 0; at < file.size();) {
        const size_t next = file.find(head, at + head.size());
        const std::string one = file.substr(at, next == std::string::npos ? std::string::npos : next - at);
        const size_t pools = count_of(one, "====== LIST OF STATISTICS OF POOL ");
        if (count_of(one, "Creation reason=") != 1 || pools == 0 ||
            count_of(one, "====== LIST OF OBJECTS IN POOL ") != pools || !ends_with(one, "\r\n\r\n"))
            return ::testing::AssertionFailure() << "listing not whole:\n" << one;
        at = next == std::string::npos ? file.size() : next;
    }
    return ::testing::AssertionSuccess();
}

// A dump file holds whole usage tables, each behind its "Info:" line.
::testing::AssertionResult whole_dumps(const std::string &file, size_t expected) {
    if (count_of(file, "\r\n\rInfo: ") != expected || count_of(file, " Total usage ") != expected ||
        (expected && !ends_with(file, "%)\r\n\r\n")))
        return ::testing::AssertionFailure() << "expected " << expected << " whole dumps in:\n" << file;
    return ::testing::AssertionSuccess();
}

std::string text_for(int t, int step, int len) {
    std::string s = "t" + std::to_string(t) + "-" + std::to_string(step) + "-";
    s.resize(size_t(std::max<int>(len, int(s.size()))), 'x');
    return s;
}

class Worker {
  public:
    Worker(const Pools &pools, int t, Tally &tally) : p_(pools), t_(t), rng_(uint32_t(t) * 7919u + 1), mine_(tally) {}

    void run() {
        for (step_ = 0; step_ < kSteps; step_++) {
            const int op = pick(0, 99);
            if (op < 20)
                object();
            else if (op < 30)
                reference();
            else if (op < 40)
                list();
            else if (op < 50)
                dry();
            else if (op < 74)
                string();
            else if (op < 80)
                tight();
            else if (op < 96)
                readers();
            else
                report(op);
        }
    }

  private:
    int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    template <class V> size_t any(const V &v) { return size_t(pick(0, int(v.size()) - 1)); }

    void object() {
        if (mine_.objs.size() < 8 && (mine_.objs.empty() || pick(0, 1))) {
            if (void *obj = memm_calloc(p_.objs)) {
                const uint32_t own = memm_get_poolid(obj);
                EXPECT_TRUE(memm_instanceof(obj, p_.objs));
                mine_.objs.push_back({obj, own, 0, 0});
            }
        } else if (!mine_.objs.empty()) {
            const size_t i = any(mine_.objs);
            HeldObj h = mine_.objs[i];
            for (; h.in_list; h.in_list--)
                EXPECT_EQ(llist_delete_byobject(&mine_.list, h.obj), MEMM_OK);
            for (; h.extra; h.extra--)
                EXPECT_EQ(memm_free(h.obj), MEMM_OK);
            EXPECT_EQ(memm_free(h.obj), MEMM_OK);
            mine_.objs.erase(mine_.objs.begin() + long(i));
        }
    }

    void reference() {
        if (mine_.objs.empty())
            return;
        HeldObj &h = mine_.objs[any(mine_.objs)];
        if (h.extra < 3 && pick(0, 1)) {
            EXPECT_EQ(memm_refalloc(h.obj), h.obj);
            h.extra++;
        } else if (h.extra) {
            EXPECT_EQ(memm_free(h.obj), MEMM_OK);
            h.extra--;
        }
        EXPECT_EQ(memm_get_refcount(h.obj), 1 + h.extra + h.in_list);
    }

    void list() {
        if (mine_.objs.empty())
            return;
        HeldObj &h = mine_.objs[any(mine_.objs)];
        if (h.in_list < 2 && pick(0, 1)) {
            EXPECT_EQ(llist_addref(&mine_.list, h.obj, p_.nodes), MEMM_OK);
            h.in_list++;
        } else if (h.in_list) {
            EXPECT_EQ(llist_delete_byobject(&mine_.list, h.obj), MEMM_OK);
            h.in_list--;
        }
    }

    // Small pools without expansion: they run dry and report it once each.
    void dry() {
        if (mine_.dry.size() < 3 && pick(0, 2)) {
            const uint32_t k = uint32_t(pick(0, 2));
            if (void *obj = memm_calloc(p_.dry[k]))
                mine_.dry.emplace_back(obj, k);
            else
                mine_.dry_failures++;
        } else if (!mine_.dry.empty()) {
            const size_t i = any(mine_.dry);
            EXPECT_EQ(memm_free(mine_.dry[i].first), MEMM_OK);
            mine_.dry.erase(mine_.dry.begin() + long(i));
        }
    }

    void string() {
        const int op = pick(0, 9);
        if (mine_.strs.size() < 6 && (mine_.strs.empty() || op < 3)) {
            const std::string text = text_for(t_, step_, pick(0, 40));
            if (op == 0) {
                dynstr *d = dynstr_calloc_maxsize(p_.strs, kMaxSize);
                if (!d)
                    return;
                mine_.strs.push_back({d, "", kMaxSize});
                if (dynstr_setstring(d, text.c_str()) == MEMM_OK)
                    mine_.strs.back().text = text;
            } else if (dynstr *d = dynstr_fromstring(p_.strs, text.c_str())) {
                mine_.strs.push_back({d, text, 0});
            }
        } else if (op < 8 && !mine_.strs.empty()) {
            HeldStr &s = mine_.strs[any(mine_.strs)];
            const std::string text = text_for(t_, step_, pick(0, 40));
            // A write that cannot get a temporary record leaves the text.
            if ((op < 6 ? dynstr_setstring(s.rec, text.c_str()) : dynstr_sprintf(s.rec, "%s", text.c_str())) ==
                MEMM_OK)
                s.text = text;
            EXPECT_EQ(dynstr_strcmp2(s.rec, s.text.c_str()), 0);
        } else if (!mine_.strs.empty()) {
            const size_t i = any(mine_.strs);
            EXPECT_EQ(memm_free(mine_.strs[i].rec), MEMM_OK);
            mine_.strs.erase(mine_.strs.begin() + long(i));
        }
    }

    // A string pool too small for its texts: writes run out of buffer memory.
    void tight() {
        if (mine_.tight.size() < 2 && pick(0, 1)) {
            if (dynstr *d = dynstr_fromstring(p_.tight, text_for(t_, step_, pick(30, 90)).c_str()))
                mine_.tight.push_back(d);
        } else if (!mine_.tight.empty()) {
            const size_t i = any(mine_.tight);
            if (pick(0, 1)) {
                (void)dynstr_setstring(mine_.tight[i], text_for(t_, step_, pick(30, 90)).c_str());
            } else {
                EXPECT_EQ(memm_free(mine_.tight[i]), MEMM_OK);
                mine_.tight.erase(mine_.tight.begin() + long(i));
            }
        }
    }

    // The documented lock-free readers, on what this thread holds, while
    // other threads tag, reference and create extension pools.
    void readers() {
        const uint32_t pools = memm_get_number_of_pools();
        EXPECT_GE(pools, last_pool_count_);
        last_pool_count_ = pools;
        for (const HeldObj &h : mine_.objs) {
            EXPECT_EQ(memm_get_poolid(h.obj), h.own_pool);
            EXPECT_TRUE(memm_instanceof_no_ori(h.obj, h.own_pool));
            EXPECT_NE(memm_get_pool_nolock(h.own_pool), nullptr);
        }
        for (const HeldStr &s : mine_.strs) {
            EXPECT_EQ(dynstr_strlen(s.rec), s.text.size());
            EXPECT_TRUE(memm_instanceof_no_ori(s.rec, p_.strs));
        }
    }

    void report(int op) {
        if (op == 96) {
            if (mine_.profiling < kReportsEach) {
                mine_.profiling++;
                memm_handle_list_objects("stress_objs", pick(0, 1), pick(0, 1), MEMM_REASON_PROFILING);
            }
        } else if (op == 97) {
            if (mine_.tag_numbers.size() < size_t(kReportsEach)) {
                const uint32_t number = 1000 + uint32_t(t_) * 100 + uint32_t(mine_.tag_numbers.size());
                mine_.tag_numbers.push_back(number);
                memm_handle_tag_objects("stress", pick(0, 1), number, MEMM_REASON_TAGGING);
            }
        } else if (op == 98) {
            memm_print_stats2(nullptr, null_print);
        } else {
            memm_print_objects4("stress", MEMM_LIST_OPT_HIDE_DELETED_DYNSTR, null_print, 5);
        }
    }

    const Pools &p_;
    const int t_;
    std::mt19937 rng_;
    Tally &mine_;
    int step_ = 0;
    uint32_t last_pool_count_ = 0;
};

uint64_t extra_refs(uint32_t root) {
    return memm_model::chain_sum(root, [](const memm_pooldesc *d) { return uint64_t(d->ref_cur); });
}
uint32_t live_records(uint32_t pool) {
    uint32_t cur, max, avail;
    EXPECT_EQ(memm_get_stats(pool, &cur, &max, &avail), MEMM_OK);
    return cur;
}

// Both integrity checks, as the usage table runs them, plus the string pools' own.
::testing::AssertionResult all_sound(const Pools &p) {
    const std::string table = memm_test::usage_table(nullptr);
    if (table.find("integrity check failed") != std::string::npos)
        return ::testing::AssertionFailure() << table;
    if (dynstr_integrity_check(p.strs, 0) != 1 || dynstr_integrity_check(p.tight, 0) != 1)
        return ::testing::AssertionFailure() << "dynstr integrity check failed";
    return ::testing::AssertionSuccess();
}

TEST(ThreadStress, MixedWorkloadAddsUpAndReportFilesAreWhole) {
    ASSERT_EQ(memm_init(8, 4), MEMM_OK);
    Pools p;
    p.objs = memm_initpool("stress_objs", 16, 40, nullptr);
    p.nodes = llist_initpool("stress_nodes", 160, int32_t(sizeof(llist_node)), nullptr);
    p.strs = dynstr_initpool2("stress_str", 160, 8192, 4);
    p.tight = dynstr_initpool2("stress_tight", 40, 256, 2);
    for (int k = 0; k < 3; k++) {
        p.dry[k] = memm_initpool(kDryNames[k], 4, 24, nullptr);
        memm_disallow_expansion(p.dry[k]);
    }
    for (uint32_t id : {p.objs, p.nodes, p.strs, p.tight, p.dry[0], p.dry[1], p.dry[2]})
        ASSERT_NE(id, MEMM_INVALID_POOL);

    std::vector<Tally> tallies(kThreads);
    std::vector<std::thread> threads;
    std::atomic<int> ready{0};
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([&p, &tallies, &ready, t] {
            // All start together, so that their steps overlap.
            ready++;
            while (ready.load() < kThreads)
                std::this_thread::yield();
            Worker(p, t, tallies[size_t(t)]).run();
        });
    for (std::thread &th : threads)
        th.join();

    // Every counter matches what the threads hold.
    uint64_t held = 0, refs = 0, nodes = 0, strs = 0, tight = 0, dry[3] = {}, dry_failures = 0;
    for (const Tally &tally : tallies) {
        for (const HeldObj &h : tally.objs) {
            held++, refs += h.extra + h.in_list, nodes += h.in_list;
            EXPECT_EQ(memm_get_refcount(h.obj), 1 + h.extra + h.in_list);
        }
        for (const auto &d : tally.dry)
            dry[d.second]++;
        for (const HeldStr &s : tally.strs) {
            EXPECT_EQ(dynstr_strcmp2(s.rec, s.text.c_str()), 0);
            EXPECT_EQ(dynstr_getmaxsize(s.rec), s.maxsize);
        }
        strs += tally.strs.size(), tight += tally.tight.size(), dry_failures += uint64_t(tally.dry_failures);
    }
    EXPECT_EQ(memm_model::in_use(p.objs), held);
    EXPECT_EQ(extra_refs(p.objs), refs);
    EXPECT_EQ(memm_get_pool_nolock(p.nodes)->cur_count, nodes);
    for (int k = 0; k < 3; k++)
        EXPECT_EQ(memm_get_pool_nolock(p.dry[k])->cur_count, dry[k]);
    EXPECT_EQ(live_records(p.strs), strs + 1); // + the anchor
    EXPECT_EQ(live_records(p.tight), tight + 1);
    EXPECT_TRUE(memm_test::storage_consistent(p.strs, strs));
    EXPECT_GT(memm_test::string_pool(p.strs)->gc_count, 0u);
    EXPECT_GT(dry_failures, 0u);
    EXPECT_TRUE(all_sound(p));

    // Every report file is whole: one file per profiling request, numbered
    // from 1; one dump per tagging request; one depletion dump per pool that
    // ran dry and one depletion listing for it or a string pool out of buffers.
    int profiling = 0;
    for (const Tally &tally : tallies) {
        profiling += tally.profiling;
        for (uint32_t number : tally.tag_numbers)
            EXPECT_TRUE(whole_dumps(memm_test::read_report_file("/var/memm_dump_tagging_" + std::to_string(number)), 1))
                << number;
    }
    for (int n = 0; n <= profiling + 1; n++) {
        const std::string file = memm_test::read_report_file("/var/memm_list_profiling_" + std::to_string(n));
        if (n == 0 || n > profiling)
            EXPECT_EQ(file, "") << n;
        else
            EXPECT_TRUE(whole_listings(file, 1)) << n;
    }
    size_t depleted = 0;
    for (uint32_t id = 0; id < memm_get_number_of_pools(); id++)
        if (const memm_pooldesc *d = memm_get_pool_nolock(id))
            depleted += (d->flags & MEMM_POOLFLAG_DEPLETION_REPORTED) != 0;
    EXPECT_GE(depleted, 1u);
    const std::string pid = std::to_string(getpid());
    EXPECT_TRUE(whole_dumps(memm_test::read_report_file("/root/memm_dump_pool_depleted_" + pid), depleted));
    const size_t out_of_buffers = std::min<size_t>(4, memm_test::log_count_prefix("Out of string buffer memory"));
    EXPECT_TRUE(
        whole_listings(memm_test::read_report_file("/root/memm_list_pool_depleted_" + pid), depleted + out_of_buffers));

    // Releasing everything gives the pools back their start counts.
    for (Tally &tally : tallies) {
        EXPECT_EQ(llist_free_plist(&tally.list), MEMM_OK);
        for (const HeldObj &h : tally.objs)
            for (uint32_t r = 0; r <= h.extra; r++)
                EXPECT_EQ(memm_free(h.obj), MEMM_OK);
        for (const auto &d : tally.dry)
            EXPECT_EQ(memm_free(d.first), MEMM_OK);
        for (const HeldStr &s : tally.strs)
            EXPECT_EQ(memm_free(s.rec), MEMM_OK);
        for (dynstr *d : tally.tight)
            EXPECT_EQ(memm_free(d), MEMM_OK);
    }
    EXPECT_EQ(memm_model::in_use(p.objs), 0u);
    EXPECT_EQ(extra_refs(p.objs), 0u);
    EXPECT_EQ(memm_get_pool_nolock(p.nodes)->cur_count, 0u);
    for (int k = 0; k < 3; k++)
        EXPECT_EQ(memm_get_pool_nolock(p.dry[k])->cur_count, 0u);
    EXPECT_EQ(live_records(p.strs), 1u);
    EXPECT_EQ(live_records(p.tight), 1u);
    EXPECT_TRUE(memm_test::storage_consistent(p.strs, 0));
    EXPECT_TRUE(all_sound(p));
}

} // namespace
