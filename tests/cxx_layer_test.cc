// The C++ layer (memm.hpp): owning references against a model of holder
// counts, the lock guard, and string handles against a model of their texts
// while the collector moves them.
#include <errno.h>
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "memm.hpp"
#include "model/string_storage.h"

namespace {
struct item {
    uint32_t value;
};
using item_ref = memm::ref<item>;
} // namespace

// Random copies, moves, resets, shares and hand-overs among eight refs to
// objects of a six-slot pool: after every step each object's reference
// count is its number of holders, and the pool holds exactly the held ones.
TEST(CxxLayer, RefsHoldOneReferenceEach) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    const uint32_t pool = memm_initpool("cxx_items", 6, sizeof(item), nullptr);
    memm_disallow_expansion(pool);
    std::mt19937 rng(16);
    std::vector<item_ref> refs(8);
    std::map<item *, uint32_t> holders;
    const auto drop = [&holders](const item_ref &r) {
        if (r && --holders[r.get()] == 0)
            holders.erase(r.get());
    };
    for (int step = 0; step < 2000; step++) {
        item_ref &a = refs[rng() % refs.size()], &b = refs[rng() % refs.size()];
        const int op = int(rng() % 5);
        if (op == 0 || (op < 3 && &a != &b)) // a's old object loses a holder, but not to self-assignment
            drop(a);
        switch (op) {
        case 0: // released first, so that a full pool has a slot again
            a.reset(), a = item_ref::alloc(pool);
            EXPECT_TRUE(a || holders.size() == 6);
            if (a)
                holders[a.get()] = 1;
            break;
        case 1: // copy: self-assignment included
            if (b && &a != &b)
                holders[b.get()]++;
            a = b;
            break;
        case 2: // move: the source is left empty
            if (&a != &b) {
                a = std::move(b);
                EXPECT_FALSE(b);
            }
            break;
        case 3: // release and adopt hand a reference over without counting
            if (a) {
                item_ref again = item_ref::adopt(item_ref::share(a.get()).release());
                EXPECT_EQ(memm_get_refcount(a.get()), holders[a.get()] + 1);
            }
            break;
        default:
            drop(a), a.reset();
        }
        for (const auto &[obj, count] : holders)
            ASSERT_EQ(memm_get_refcount(obj), count) << "step " << step;
        ASSERT_EQ(memm_get_pool_nolock(pool)->cur_count, holders.size()) << "step " << step;
    }
    // A released object cannot be shared again: the ref stays empty.
    refs.assign(refs.size(), item_ref());
    item *gone = item_ref::alloc(pool).get();
    EXPECT_FALSE(item_ref::share(gone));
}

// Guards nest, and leaving the outer one releases every level.
TEST(CxxLayer, LockGuardsNest) {
    ASSERT_EQ(memm_init(8, 0), MEMM_OK);
    {
        memm::lock_guard outer("cxx outer");
        { memm::lock_guard inner("cxx inner"); }
        EXPECT_EQ(memm_unlock(), 0); // the outer level is still held
        memm_lock("cxx again");
    }
    EXPECT_EQ(memm_unlock(), EPERM);
}

// Random constructions from pieces without a terminator, assignments,
// copies and releases among twelve handles in a pool small enough that the
// collector moves their texts: every handle reads its model text.
TEST(CxxLayer, StringsRoundTripWhileTheCollectorMovesThem) {
    ASSERT_EQ(memm_init(8, 2), MEMM_OK);
    const uint32_t pool = dynstr_initpool2("cxx_strings", 40, 600, 2);
    EXPECT_TRUE(!memm::dynstring(MEMM_INVALID_POOL, "x") && memm::dynstring().assign("x") == MEMM_ERR_INVALID_ARG);
    std::mt19937 rng(16);
    const std::string_view source = "peer-10.0.0.1:4711/uplink-to-core";
    std::vector<memm::dynstring> strings(12);
    std::vector<std::string> model(strings.size());
    for (int step = 0; step < 3000; step++) {
        const size_t i = rng() % strings.size(), j = rng() % strings.size();
        const std::string_view piece = source.substr(rng() % 8, rng() % 24);
        const unsigned op = rng() % 5;
        if (op == 0)
            strings[i] = memm::dynstring(pool, piece), model[i] = piece;
        else if (op < 3 && strings[i]) { // from a C string, or a view
            ASSERT_EQ(op == 1 ? strings[i].assign(std::string(piece).c_str()) : strings[i].assign(piece), MEMM_OK);
            model[i] = piece;
        } else if (op == 3 && i != j)
            strings[i] = strings[j].copy(), model[i] = model[j];
        else if (op == 4)
            strings[i] = memm::dynstring(), model[i].clear();
        for (size_t k = 0; k < strings.size(); k++)
            ASSERT_TRUE(strings[k].str() == model[k] && strings[k].size() == model[k].size() &&
                        strings[k].empty() == model[k].empty()) << "step " << step << ", handle " << k;
    }
    const auto live = std::count_if(strings.begin(), strings.end(), [](const memm::dynstring &s) { return bool(s); });
    EXPECT_TRUE(memm_model::string_pool(pool)->gc_count > 0 && memm_model::storage_fault(pool, size_t(live)).empty());
    // Handing a record over to C code and back keeps its one holder.
    memm::dynstring peer(pool, "10.0.0.1");
    peer = memm::dynstring::adopt(peer.release());
    EXPECT_TRUE(memm_get_refcount(peer.get()) == 1 && peer.str() == "10.0.0.1");
}
