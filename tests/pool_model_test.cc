// Seeded random walks over three pool chains checked against a plain model
// after every step: a chain that grows by three-slot extensions, one that
// grows by a fifth of its root and stops "rebooting" on depletion, and one
// that may not grow at all. The descriptor table starts small, so it grows
// with the chains. The model predicts which slot each allocation takes (the
// first free one of the chain, root first, last released first), when an
// extension is made and how large, when the table grows first, when a chain
// is depleted, every log line of those paths and of tagging, and the
// counters, peaks, tag marks, contents (zero when new), walks and indexes
// the pools must show afterwards; the library's integrity check runs after
// every step too.
#include <algorithm>
#include <map>
#include <random>

#include "fixture.h"
#include "model/pool_model.h"

namespace {

using memm_test::fmt;

struct Chain {
    const char *name;
    int32_t count, objsize;
    bool grows, reboots;
    uint32_t root = 0;
    memm_model::LiveObjects live;
    uint64_t calls[3] = {}, frees = 0; // what the root's alloc_calls and the chain's free_calls must show
    bool depleted = false;
};

// What expected_slot answers for an allocation that must make an extension:
// its first slot, whose address is not known before.
uint8_t *const kNewExtension = reinterpret_cast<uint8_t *>(1);

std::vector<uint32_t> pools_of(uint32_t root) {
    std::vector<uint32_t> ids;
    for (uint32_t id = root; id; id = memm_get_pool_nolock(id)->next_pool)
        ids.push_back(id);
    return ids;
}

// The allocation the model expects from `id` of chain c; the log lines it
// must leave go to `logs`, null when the pool cannot serve it.
uint8_t *expected_slot(Chain &c, uint32_t id, bool nogc, std::vector<std::string> &logs) {
    const std::vector<uint32_t> ids = pools_of(c.root);
    const bool root_free = memm_get_pool_nolock(c.root)->free_head;
    const bool counted = !nogc || id == c.root; // the root counts the calls made to it or its chain
    for (uint32_t p : nogc ? std::vector<uint32_t>{id} : ids)
        if (memm_get_pool_nolock(p)->free_head) {
            c.calls[MEMM_ALLOC_CALLS_TOTAL] += counted;
            c.calls[root_free ? MEMM_ALLOC_CALLS_FIRST_FREE : MEMM_ALLOC_CALLS_DYNPOOL] += counted;
            return memm_get_pool_nolock(p)->free_head;
        }
    // Without growth a full pool refuses silently, before the root counts the
    // call; only a pool that may never grow reports its depletion.
    if (nogc && (id != c.root || c.grows))
        return nullptr;
    c.calls[MEMM_ALLOC_CALLS_TOTAL]++, c.calls[MEMM_ALLOC_CALLS_DYNPOOL]++;
    if (c.grows && ids.size() <= MEMM_MAX_EXTENSION_POOLS) {
        const int n = c.count <= 15 ? 3 : c.count / 5;
        const memm_pooldesc *table = memm_get_pool_nolock(0);
        if (table->cur_count == table->alloc_count) // a full descriptor table grows first
            logs.push_back(fmt("[MEMM] Info: Pooldescr [%s] reallocated to increase its size (%d elements)",
                               MEMM_POOLDESC_NAME, int(table->alloc_count * 3 / 2 + 2)));
        logs.push_back(fmt("[MEMM] Info: Pool [%d: %s] extended with an extra dynamic pool (%d, %d elements)",
                           int(c.root), c.name, int(memm_get_number_of_pools()), n));
        return kNewExtension;
    }
    if (!c.depleted)
        logs.push_back(
            fmt("memm__calloc() failed for pool '%s' (pool depleted), POOL DEPLETED !!!!!!!!!!!!!!!", c.name));
    if (c.reboots)
        logs.push_back(fmt("memm__calloc() failed for pool '%s' (pool depleted)", c.name));
    c.depleted = true;
    return nullptr;
}

// Each pool's shape, figures and peaks: extensions share the root's name and
// hooks with 12-byte longer slots; current, peak and available counts and
// the reference peaks follow the model.
std::string chain_figures(const Chain &c, std::map<uint32_t, uint32_t> &peak, std::map<uint32_t, int32_t> &ref_peak) {
    std::map<uint32_t, uint32_t> used;
    std::map<uint32_t, int32_t> refs;
    for (auto &[obj, l] : c.live)
        used[memm_get_poolid(obj)]++, refs[memm_get_poolid(obj)] += int32_t(l.refs - 1);
    const memm_pooldesc *root = memm_get_pool_nolock(c.root);
    for (uint32_t id : pools_of(c.root)) {
        const memm_pooldesc *p = memm_get_pool_nolock(id);
        peak[id] = std::max(peak[id], used[id]);
        ref_peak[id] = std::max(ref_peak[id], refs[id]);
        const uint32_t slots = id == c.root ? uint32_t(c.count) : c.count <= 15 ? 3u : uint32_t(c.count) / 5;
        const uint32_t slotsize = (uint32_t(c.objsize) + 19) / 4 * 4 + (id == c.root ? 0 : 12);
        uint32_t cur, max, avail;
        if (memm_get_stats(id, &cur, &max, &avail) != MEMM_OK || cur != used[id] || max != peak[id] || avail != slots ||
            p->root_pool != c.root || p->name != c.name || memm_get_poolname2(id) != c.name ||
            p->slotsize != slotsize || p->last_slot != p->storage + (slots - 1) * slotsize ||
            p->options.cookie != root->options.cookie || p->ref_max != ref_peak[id] ||
            ((root->flags & MEMM_POOLFLAG_DEPLETION_REPORTED) != 0) != c.depleted)
            return memm_model::str("pool ", id, ": ", cur, "/", max, "/", avail, ", model ", used[id], "/", peak[id],
                                   "/", slots, ", or another shape, reference peak or depletion mark");
    }
    return "";
}

} // namespace

TEST(Model, RandomAllocReferenceReleaseMatchesTheModel) {
    ASSERT_EQ(memm_init(2, 0), MEMM_OK); // the descriptor table grows with the chains
    int cookie;
    memm_pool_options opts = {};
    opts.cookie = &cookie; // extensions copy their root's options
    Chain chains[] = {{"m_small", 5, 13, true, true, 0, {}}, {"m_large", 40, 6, true, false, 0, {}},
                      {"m_fixed", 3, 8, false, true, 0, {}}};
    for (Chain &c : chains)
        ASSERT_NE(c.root = memm_initpool(c.name, c.count, c.objsize, &opts), MEMM_INVALID_POOL);
    memm_depletion_no_reboot(chains[1].root);
    memm_disallow_expansion(chains[2].root);
    std::map<uint32_t, uint32_t> peak;
    std::map<uint32_t, int32_t> ref_peak;
    std::mt19937 rng(20261122);

    for (int step = 0; step < 20000; step++) {
        SCOPED_TRACE(step);
        Chain &c = chains[rng() % 3];
        const std::vector<uint32_t> ids = pools_of(c.root);
        const uint32_t op = rng() % 10, id = ids[rng() % ids.size()]; // an extension's id stands for its root
        const bool filling = step / 1500 % 2 == 0;                    // phases that fill and empty the chains
        std::vector<std::string> logs;
        memm_test::clear_logs();
        if (rng() % 50 == 0) { // tagging: each pool of the chain logs the objects of the chain from it on
            const int tag = int(rng() % 2);
            for (size_t k = 0; k < ids.size(); k++) {
                size_t n = 0;
                for (auto &[obj, l] : c.live)
                    n += std::find(ids.begin() + long(k), ids.end(), memm_get_poolid(obj)) != ids.end();
                logs.push_back(fmt("%stagged %d object(s) in pool %s\r\n", tag ? "" : "un", int(n), c.name));
            }
            for (auto &entry : c.live)
                entry.second.tagged = tag;
            ASSERT_EQ(memm_tag_objects(c.name, tag), 0);
        } else if (op < (filling ? 6u : 3u)) {
            const bool nogc = op == 0;
            uint8_t *expected = expected_slot(c, id, nogc, logs);
            memm_lock("model");
            auto *obj = static_cast<uint8_t *>(nogc ? memm_calloc_nolock_nogc(id) : memm_calloc(id));
            memm_unlock();
            if (expected == kNewExtension)
                ASSERT_EQ(memm_get_poolid(obj), memm_get_number_of_pools() - 1);
            else
                ASSERT_EQ(obj, expected ? expected + MEMM_OBJHDR_SIZE : nullptr);
            if (obj) {
                c.live[obj] = {1, 0}; // zero-filled
                ASSERT_TRUE(memm_instanceof(obj, c.root) && memm_get_poolname(obj) == c.name);
            }
        } else if (!c.live.empty()) {
            auto it = std::next(c.live.begin(), long(rng() % c.live.size()));
            uint8_t *obj = it->first;
            if (op < 6 && it->second.refs < 5) { // a new holder, who writes the object
                ASSERT_EQ(memm_refalloc(obj), obj);
                it->second.refs++;
                memset(obj, it->second.fill = uint8_t(rng()), size_t(c.objsize));
            } else {
                ASSERT_EQ(memm_free(obj), MEMM_OK);
                c.frees++;
                if (--it->second.refs == 0)
                    c.live.erase(it);
            }
        }
        ASSERT_EQ(memm_test::log_texts(), logs);
        ASSERT_TRUE(memm_test::sound());
        for (Chain &each : chains) {
            ASSERT_EQ(memm_model::objects_fault(each.root, each.live, size_t(each.objsize)), "");
            ASSERT_EQ(chain_figures(each, peak, ref_peak), "");
            const uint64_t *calls = memm_get_pool_nolock(each.root)->alloc_calls;
            ASSERT_EQ(std::vector<uint64_t>(calls, calls + 3), std::vector<uint64_t>(each.calls, each.calls + 3));
            ASSERT_EQ(memm_model::chain_sum(each.root, [](auto *p) { return p->free_calls; }), each.frees);
        }
    }
}
