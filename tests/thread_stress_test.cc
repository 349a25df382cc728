// Threads sharing pools, and the process-wide lock. Eight workers share an
// object pool, a node pool and a string pool: each runs a seeded mix of
// allocations, references, list changes, string writes (which force
// collections), lock-free identity questions and report files, keeping a
// tally of what it holds. At the end every counter must add up to the
// tallies and the pools must be sound. Under
// ThreadSanitizer this is the check that reports and the lock-free readers
// are free of data races.
#include <errno.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "fixture.h"
#include "model/pool_model.h"

namespace {

struct Held {
    void *obj;
    uint32_t pool, extra = 0, in_list = 0;
};
struct Tally {
    std::vector<Held> objs;
    std::vector<std::pair<dynstr *, std::string>> strs;
    llist_node *list = nullptr;
};
int quiet(const char *, ...) { return 0; }

void work(uint32_t objs, uint32_t nodes, uint32_t strs, int t, Tally &mine) {
    std::mt19937 rng(uint32_t(t) * 7919u + 1);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    for (int step = 0; step < 4000; step++) {
        const int op = pick(0, 99);
        Held *h = mine.objs.empty() ? nullptr : &mine.objs[size_t(pick(0, int(mine.objs.size()) - 1))];
        if (op < 20 && mine.objs.size() < 8) {
            if (void *obj = memm_calloc(objs))
                mine.objs.push_back({obj, memm_get_poolid(obj)});
        } else if (op < 25 && h) {
            for (; h->in_list; h->in_list--)
                EXPECT_EQ(llist_delete_byobject(&mine.list, h->obj), MEMM_OK);
            for (; h->extra; h->extra--)
                memm_free(h->obj);
            EXPECT_EQ(memm_free(h->obj), MEMM_OK);
            *h = mine.objs.back(), mine.objs.pop_back();
        } else if (op < 35 && h) {
            if (h->extra < 3 && pick(0, 1)) {
                EXPECT_EQ(memm_refalloc(h->obj), h->obj);
                h->extra++;
            } else if (h->extra) {
                EXPECT_EQ(memm_free(h->obj), MEMM_OK);
                h->extra--;
            }
        } else if (op < 45 && h) {
            if (h->in_list < 2 && pick(0, 1)) {
                EXPECT_EQ(llist_addref(&mine.list, h->obj, nodes), MEMM_OK);
                h->in_list++;
            } else if (h->in_list) {
                EXPECT_EQ(llist_delete_byobject(&mine.list, h->obj), MEMM_OK);
                h->in_list--;
            }
        } else if (op < 75) {
            const std::string text = "t" + std::to_string(t) + "-" + std::to_string(step) + std::string(size_t(pick(0, 40)), 'x');
            auto &s = mine.strs;
            const size_t i = s.empty() ? 0 : size_t(pick(0, int(s.size()) - 1));
            if (s.size() < 6 && (s.empty() || op < 55)) {
                if (dynstr *d = dynstr_fromstring(strs, text.c_str()))
                    s.emplace_back(d, text);
            } else if (op < 70) {
                if (dynstr_sprintf(s[i].first, "%s", text.c_str()) == MEMM_OK) // may lack a temporary record
                    s[i].second = text;
                EXPECT_EQ(dynstr_strcmp2(s[i].first, s[i].second.c_str()), 0);
            } else {
                EXPECT_EQ(memm_free(s[i].first), MEMM_OK);
                s.erase(s.begin() + long(i));
            }
        } else if (op < 96) { // the lock-free readers
            for (const Held &x : mine.objs)
                EXPECT_TRUE(memm_get_poolid(x.obj) == x.pool && memm_instanceof_no_ori(x.obj, x.pool));
            for (const auto &x : mine.strs)
                EXPECT_EQ(dynstr_strlen(x.first), x.second.size());
        } else if (op == 96) {
            memm_handle_list_objects("stress_objs", pick(0, 1), pick(0, 1), MEMM_REASON_PROFILING);
        } else if (op == 97) {
            memm_handle_tag_objects("stress", pick(0, 1), 1000 + uint32_t(t), MEMM_REASON_TAGGING);
        } else {
            memm_print_stats2(nullptr, quiet);
            memm_print_objects4("stress", MEMM_LIST_OPT_HIDE_DELETED_DYNSTR, quiet, 5);
        }
    }
}

} // namespace

TEST(ThreadStress, MixedWorkloadAddsUp) {
    ASSERT_EQ(memm_init(8, 4), MEMM_OK);
    const uint32_t objs = memm_initpool("stress_objs", 16, 40, nullptr);
    const uint32_t nodes = llist_initpool("stress_nodes", 160, int32_t(sizeof(llist_node)), nullptr);
    const uint32_t strs = dynstr_initpool2("stress_str", 160, 8192, 4);
    std::vector<Tally> tallies(8);
    std::vector<std::thread> threads;
    std::atomic<int> ready{0};
    for (int t = 0; t < 8; t++)
        threads.emplace_back([&, t] {
            for (ready++; ready.load() < 8;) // all start together, so that their steps overlap
                std::this_thread::yield();
            work(objs, nodes, strs, t, tallies[size_t(t)]);
        });
    for (std::thread &th : threads)
        th.join();
    uint64_t held = 0, refs = 0, in_lists = 0, texts = 0;
    for (const Tally &tally : tallies) {
        for (const Held &h : tally.objs) {
            held++, refs += h.extra + h.in_list, in_lists += h.in_list;
            EXPECT_EQ(memm_get_refcount(h.obj), 1 + h.extra + h.in_list);
        }
        for (const auto &s : tally.strs)
            EXPECT_EQ(dynstr_strcmp2(s.first, s.second.c_str()), 0);
        texts += tally.strs.size();
    }
    EXPECT_EQ(memm_model::in_use(objs), held);
    EXPECT_EQ(memm_model::chain_sum(objs, [](const memm_pooldesc *d) { return uint64_t(d->ref_cur); }), refs);
    EXPECT_EQ(memm_get_pool_nolock(nodes)->cur_count, in_lists);
    uint32_t cur, max, avail;
    EXPECT_EQ(memm_get_stats(strs, &cur, &max, &avail), MEMM_OK);
    EXPECT_EQ(cur, texts + 1); // + the anchor
    EXPECT_TRUE(memm_test::sound());
    for (Tally &tally : tallies) { // releasing everything gives the pool back its start counts
        EXPECT_EQ(llist_free_plist(&tally.list), MEMM_OK);
        for (const Held &h : tally.objs)
            for (uint32_t n = 1 + h.extra; n; n--)
                memm_free(h.obj);
    }
    EXPECT_EQ(memm_model::objects_fault(objs, {}, 0), "");
}

TEST(Lock, NestingCountsAndOnlyTheHolderUnlocks) {
    EXPECT_EQ(memm_unlock(), EPERM); // also before memm_init: the lock is ready
    memm_lock("outer");
    memm_lock("inner");
    std::atomic<int> other_unlock{-1};
    std::atomic<bool> other_locked{false};
    std::thread other([&] {
        other_unlock = memm_unlock();
        memm_lock("other"); // waits for the holder
        other_locked = true;
        memm_unlock();
    });
    while (other_unlock == -1)
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(other_locked);
    EXPECT_EQ(memm_unlock(), 0);
    EXPECT_FALSE(other_locked);
    EXPECT_EQ(memm_unlock(), 0);
    other.join();
    EXPECT_EQ(other_unlock, EPERM);
    EXPECT_TRUE(other_locked);
    EXPECT_EQ(memm_unlock(), EPERM);
}

// The child of a fork made while the forking thread held the lock holds it
// too, and may unlock it and use the library.
TEST(Lock, ForkedChildOfTheHolderGoesOn) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    const uint32_t pool = memm_initpool("forked", 4, 8, nullptr);
    memm_lock("fork");
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0)
        _exit(memm_unlock() == 0 && memm_free(memm_calloc(pool)) == MEMM_OK && memm_unlock() == EPERM ? 0 : 1);
    EXPECT_EQ(memm_unlock(), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}
