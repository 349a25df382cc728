// Threads sharing pools, and the process-wide lock. Eight workers start
// while the main thread holds the lock two levels deep: each finds that it
// cannot unlock a lock it does not hold, then sleeps on the lock until the
// main thread's last unlock, which must wake them all (a free lock never
// sits idle while a thread waits). Each worker then makes objects with
// three holders and lets them go, rewrites strings so that the collector
// moves the others' texts, reads its objects and texts without the lock and
// now and then runs the reports, which walk every pool. Afterwards every
// pool must be back to its start counts and sound. Under ThreadSanitizer
// this is the check that the lock orders all of it and that the lock-free
// readers and the reports are free of data races.
#include <errno.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "fixture.h"
#include "model/pool_model.h"

namespace {

// Worker t: each step lets go of the object made four steps before (read
// first without the lock) and makes one with three holders: its maker, a
// reference and a node of the worker's list. It checks one of its six texts
// and writes it anew, by a new record or in place. The last steps only let
// go, and the texts are released at the end.
void work(uint32_t objs, uint32_t nodes, uint32_t strs, int t) {
    void *held[4] = {};
    std::pair<dynstr *, std::string> texts[6] = {};
    llist_node *list = nullptr;
    for (int step = 0; step < 3004; step++) {
        void *&obj = held[step % 4];
        if (obj) { // made four steps ago: its three holders let go
            EXPECT_TRUE(memm_instanceof_no_ori(obj, memm_get_poolid(obj)) && memm_instanceof(obj, objs));
            EXPECT_TRUE(memm_get_refcount(obj) == 3 && llist_delete_byobject(&list, obj) == MEMM_OK);
            EXPECT_TRUE(memm_free(obj) == MEMM_OK && memm_free(obj) == MEMM_OK);
        }
        obj = step < 3000 ? memm_calloc(objs) : nullptr;
        EXPECT_TRUE(!obj || (memm_refalloc(obj) == obj && llist_addref(&list, obj, nodes) == MEMM_OK));
        auto &[str, text] = texts[step % 6];
        EXPECT_TRUE(!str || (dynstr_strlen(str) == text.size() && dynstr_strcmp2(str, text.c_str()) == 0));
        const std::string now = std::to_string(t) + "-" + std::to_string(step) + std::string(size_t(step % 41), 'x');
        if (step % 12 < 6) { // released and made anew
            EXPECT_EQ(memm_free(str), MEMM_OK);
            str = step < 3000 ? dynstr_fromstring(strs, now.c_str()) : nullptr;
            text = now;
        } else if (dynstr_sprintf(str, "%s", now.c_str()) == MEMM_OK) { // may lack a temporary record
            text = now;
        }
        if (step % 500 == 0) { // the reports, which walk the pools: a listing, and tagging with its usage dump
            memm_handle_list_objects("stress", 0, 1, MEMM_REASON_PROFILING);
            memm_handle_tag_objects("stress", step % 1000 == 0, 1000 + uint32_t(t), MEMM_REASON_TAGGING);
        }
    }
    for (auto &[str, text] : texts)
        EXPECT_EQ(memm_free(str), MEMM_OK);
    EXPECT_EQ(list, nullptr);
}

} // namespace

TEST(ThreadStress, MixedWorkloadLeavesThePoolsAsTheyStarted) {
    EXPECT_EQ(memm_unlock(), EPERM); // the lock is ready before memm_init
    ASSERT_EQ(memm_init(8, 4), MEMM_OK);
    const uint32_t objs = memm_initpool("stress_objs", 4, 40, nullptr);
    const uint32_t nodes = llist_initpool("stress_nodes", 160, int32_t(sizeof(llist_node)), nullptr);
    const uint32_t strs = dynstr_initpool2("stress_str", 160, 8192, 4);
    std::vector<std::thread> threads;
    std::atomic<int> started{0};
    memm_lock("outer");
    memm_lock("inner");
    for (int t = 0; t < 8; t++)
        threads.emplace_back([&, t] {
            EXPECT_EQ(memm_unlock(), EPERM); // only the holder unlocks
            memm_lock("worker");
            started++;
            memm_unlock();
            work(objs, nodes, strs, t);
        });
    EXPECT_EQ(memm_unlock(), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(started, 0); // one level is still held
    EXPECT_EQ(memm_unlock(), 0);
    for (std::thread &th : threads) // a worker left asleep on the free lock never ends
        th.join();
    EXPECT_EQ(memm_model::objects_fault(objs, {}, 0), "");
    EXPECT_EQ(memm_model::in_use(nodes), 0u);
    EXPECT_TRUE(memm_test::sound());
}
