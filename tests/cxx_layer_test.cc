// The C++ layer (memm.hpp): owning references against a model of holder
// counts, the lock guard, and string handles against a model of their texts
// while the collector moves them.
#include <gtest/gtest.h>

#include <errno.h>

#include <atomic>
#include <chrono>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "model/string_storage.h"
#include "memm.hpp"
#include "syslog_capture.h"

using namespace memm_test;
using memm_model::string_pool;

namespace {

struct item {
    uint32_t value;
};
using item_ref = memm::ref<item>;

} // namespace

TEST(CxxLayer, RefsHoldOneReferenceEach) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    const uint32_t pool = memm_initpool("cxx_items", 6, sizeof(item), nullptr);
    memm_disallow_expansion(pool);
    std::mt19937 rng(16);
    std::vector<item_ref> refs(8);
    std::map<item *, uint32_t> holders; // the model: live objects and their holders
    for (int step = 0; step < 2000; step++) {
        item_ref &a = refs[rng() % refs.size()], &b = refs[rng() % refs.size()];
        auto drop = [&holders](const item_ref &r) {
            if (r && --holders[r.get()] == 0)
                holders.erase(r.get());
        };
        switch (rng() % 6) {
        case 0: { // alloc: empty once the pool is depleted
            drop(a);
            a.reset(); // before, so that the pool has its slot back
            a = item_ref::alloc(pool);
            if (a)
                holders[a.get()] = 1;
            else
                EXPECT_EQ(holders.size(), 6u);
            break;
        }
        case 1: // copy assignment, self-assignment included
            if (&a != &b) {
                if (b)
                    holders[b.get()]++;
                drop(a);
            }
            a = b;
            break;
        case 2: // move: free
            if (&a != &b) {
                drop(a);
                a = std::move(b);
                EXPECT_FALSE(b);
            }
            break;
        case 3:
            drop(a);
            a.reset();
            break;
        case 4: // share adds a holder; release and adopt hand one over
            if (a) {
                item_ref shared = item_ref::share(a.get());
                EXPECT_EQ(memm_get_refcount(a.get()), holders[a.get()] + 1);
                item_ref again = item_ref::adopt(shared.release());
                EXPECT_FALSE(shared);
                std::swap(again, a); // one holder leaves with `again`
            }
            break;
        default: // a copy constructed in a scope leaves the count as it was
            if (a) {
                const item_ref copy(a);
                EXPECT_EQ(memm_get_refcount(copy.get()), holders[a.get()] + 1);
            }
        }
        for (const auto &[obj, count] : holders)
            ASSERT_EQ(memm_get_refcount(obj), count) << "step " << step;
        ASSERT_EQ(memm_get_pool_nolock(pool)->cur_count, holders.size()) << "step " << step;
    }

    EXPECT_NE(memm_get_pool_nolock(pool)->flags & MEMM_POOLFLAG_DEPLETION_REPORTED, 0); // alloc met a full pool

    // A released object cannot be shared again: the ref stays empty, the bad
    // reference is logged.
    refs.assign(refs.size(), item_ref());
    item *gone = item_ref::alloc(pool).get();
    clear_logs();
    EXPECT_FALSE(item_ref::share(gone));
    EXPECT_EQ(log_count("memm__refalloc() failed (invalid object passed)"), 1u);
    EXPECT_EQ(memm_get_pool_nolock(pool)->cur_count, 0u);
}

TEST(CxxLayer, LockGuardsNestAndHoldTheLockForTheirScope) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    std::atomic<bool> entered{false};
    std::thread other;
    {
        memm::lock_guard outer("cxx outer");
        {
            memm::lock_guard inner("cxx inner");
        }
        other = std::thread([&entered] {
            memm::lock_guard hold("cxx other thread");
            entered = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_FALSE(entered); // the inner guard left the outer level held
    }
    other.join();
    EXPECT_TRUE(entered);
    EXPECT_EQ(memm_unlock(), EPERM); // every level was released
}

TEST(CxxLayer, StringsRoundTripWhileTheCollectorMovesThem) {
    ASSERT_EQ(memm_init(8, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("cxx_strings", 40, 600, 2);
    EXPECT_FALSE(memm::dynstring(MEMM_INVALID_POOL, "x"));
    EXPECT_EQ(memm::dynstring().str(), "");
    EXPECT_EQ(memm::dynstring().assign("x"), MEMM_ERR_INVALID_ARG);

    std::mt19937 rng(16);
    const std::string source = "peer-10.0.0.1:4711/uplink-to-core";
    std::vector<memm::dynstring> strings(12);
    std::vector<std::string> model(strings.size());
    for (int step = 0; step < 3000; step++) {
        const size_t i = rng() % strings.size(), j = rng() % strings.size();
        // A piece of the source that ends in the middle: no terminator there.
        const std::string_view piece = std::string_view(source).substr(rng() % 8, rng() % 24);
        switch (rng() % 5) {
        case 0:
            strings[i] = memm::dynstring(pool, piece);
            model[i] = std::string(piece);
            break;
        case 1:
            if (strings[i]) {
                ASSERT_EQ(strings[i].assign(std::string(piece).c_str()), MEMM_OK);
                model[i] = std::string(piece);
            }
            break;
        case 2:
            if (strings[i]) {
                ASSERT_EQ(strings[i].assign(piece), MEMM_OK);
                model[i] = std::string(piece);
            }
            break;
        case 3:
            if (i != j) {
                strings[i] = strings[j].copy();
                model[i] = model[j];
            }
            break;
        default:
            strings[i] = memm::dynstring();
            model[i].clear();
        }
        for (size_t k = 0; k < strings.size(); k++) {
            ASSERT_EQ(strings[k].str(), model[k]) << "step " << step;
            ASSERT_EQ(strings[k].size(), model[k].size());
            ASSERT_EQ(strings[k].empty(), model[k].empty());
        }
    }
    EXPECT_GT(string_pool(pool)->gc_count, 0u);
    size_t live = 0;
    for (const memm::dynstring &s : strings)
        live += s ? 1 : 0;
    EXPECT_EQ(memm_model::storage_fault(pool, live), "");

    // Handing a record over to C code and back keeps its one holder.
    memm::dynstring peer(pool, "10.0.0.1");
    dynstr *raw = peer.release();
    EXPECT_FALSE(peer);
    peer = memm::dynstring::adopt(raw);
    EXPECT_EQ(memm_get_refcount(peer.get()), 1u);
    EXPECT_EQ(peer.str(), "10.0.0.1");
}
