// The C++ layer (memm.hpp): owning references against a model of holder
// counts, string handles, and the lock guard.
#include <errno.h>
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "memm.hpp"

namespace {
struct item {
    uint32_t value;
};
using item_ref = memm::ref<item>;
} // namespace

// Random copies, moves, resets, shares and hand-overs among eight refs to
// objects of a six-slot pool: after every step each object's reference
// count is the number of refs holding it, and the pool holds exactly those.
TEST(CxxLayer, RefsHoldOneReferenceEach) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    const uint32_t pool = memm_initpool("cxx_items", 6, sizeof(item), nullptr);
    memm_disallow_expansion(pool);
    std::mt19937 rng(16);
    std::vector<item_ref> refs(8);
    for (int step = 0; step < 2000; step++) {
        item_ref &a = refs[rng() % refs.size()], &b = refs[rng() % refs.size()];
        switch (rng() % 5) {
        case 0: // released first, so that a full pool has a slot again
            a.reset(), a = item_ref::alloc(pool);
            break;
        case 1: a = b; break; // copy: self-assignment included
        case 2: // move: the source is left empty, else it shows as an uncounted holder
            if (&a != &b)
                a = std::move(b);
            break;
        case 3: // share counts a reference; release and adopt hand it over without counting
            if (a)
                a = item_ref::adopt(item_ref::share(a.get()).release());
            break;
        default: a.reset();
        }
        std::map<item *, uint32_t> holders;
        for (const item_ref &r : refs)
            holders[r.get()] += bool(r);
        holders.erase(nullptr);
        for (const auto &[obj, count] : holders)
            ASSERT_EQ(memm_get_refcount(obj), count) << "step " << step;
        ASSERT_EQ(memm_get_pool_nolock(pool)->cur_count, holders.size()) << "step " << step;
    }
}

// String handles: built from a piece without a terminator, copied,
// assigned, and handed over to C code and back keeping their one holder.
// str() takes its own lock guard, nested here in an outer one, whose end
// releases every level.
TEST(CxxLayer, StringHandlesAndNestedLockGuards) {
    ASSERT_EQ(memm_init(8, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("cxx_strings", 40, 600, 2);
    memm::dynstring peer(pool, std::string_view("10.0.0.1:4711").substr(0, 8));
    const memm::dynstring copy = peer.copy();
    ASSERT_EQ(peer.assign(std::string_view("uplink-to-core").substr(0, 6)), MEMM_OK);
    peer = memm::dynstring::adopt(peer.release());
    EXPECT_TRUE(copy.str() == "10.0.0.1" && copy.size() == 8 && memm::dynstring().empty());
    EXPECT_EQ(memm_get_refcount(peer.get()), 1);
    {
        memm::lock_guard outer("cxx outer");
        EXPECT_EQ(peer.str(), "uplink");
        EXPECT_EQ(memm_unlock(), 0); // the outer level is still held
        memm_lock("cxx again");
    }
    EXPECT_EQ(memm_unlock(), EPERM);
}
