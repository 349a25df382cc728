// Seeded random walks over three pool chains checked against a plain model
// after every step: a chain that grows by three-slot extensions, one that
// grows by a fifth of its root and stops "rebooting" on depletion, and one
// that may not grow at all. The model predicts which slot each allocation
// takes (the first free one of the chain, root first, last released first),
// when an extension is made and how large, when a chain is depleted, every
// log line of those paths and of tagging, and the counters, peaks, tag
// marks, walks, indexes and slot states the pools must show afterwards.
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>

#include "fixture.h"
#include "model/pool_model.h"
#include "report_files.h"

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
    const memm_pooldesc *root = memm_get_pool_nolock(c.root);
    const bool from_root = !nogc || id == c.root;
    if (from_root)
        c.calls[MEMM_ALLOC_CALLS_TOTAL]++, c.calls[root->free_head ? MEMM_ALLOC_CALLS_FIRST_FREE : MEMM_ALLOC_CALLS_DYNPOOL]++;
    for (uint32_t p : nogc ? std::vector<uint32_t>{id} : ids)
        if (memm_get_pool_nolock(p)->free_head)
            return memm_get_pool_nolock(p)->free_head;
    // Without growth a full pool refuses silently, before the root counts the
    // call; only a pool that may never grow reports its depletion.
    if (nogc && (id != c.root || c.grows)) {
        if (from_root)
            c.calls[MEMM_ALLOC_CALLS_TOTAL]--, c.calls[MEMM_ALLOC_CALLS_DYNPOOL]--;
        return nullptr;
    }
    if (c.grows && ids.size() <= MEMM_MAX_EXTENSION_POOLS) {
        const int n = c.count <= 15 ? 3 : c.count / 5;
        logs.push_back(fmt("[MEMM] Info: Pool [%d: %s] extended with an extra dynamic pool (%d, %d elements)",
                           int(c.root), c.name, int(memm_get_number_of_pools()), n));
        return kNewExtension;
    }
    if (!c.depleted)
        logs.push_back(fmt("memm__calloc() failed for pool '%s' (pool depleted), POOL DEPLETED !!!!!!!!!!!!!!!", c.name));
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
        if (memm_get_stats(id, &cur, &max, &avail) != MEMM_OK || cur != used[id] || max != peak[id] || avail != slots)
            return memm_model::str("pool ", id, ": ", cur, "/", max, "/", avail, ", model ", used[id], "/", peak[id], "/", slots);
        if (p->root_pool != c.root || p->name != c.name || p->slotsize != slotsize || p->ref_max != ref_peak[id] ||
            p->last_slot != p->storage + (slots - 1) * slotsize || p->options.cookie != root->options.cookie)
            return memm_model::str("pool ", id, " has another shape or reference peak");
        if (memm_get_poolname2(id) != c.name || ((root->flags & MEMM_POOLFLAG_DEPLETION_REPORTED) != 0) != c.depleted)
            return memm_model::str("pool ", id, " has another name or depletion mark");
    }
    return "";
}

} // namespace

TEST(Model, RandomAllocReferenceReleaseMatchesTheModel) {
    ASSERT_EQ(memm_init(32, 0), MEMM_OK); // room for every extension: the table never grows
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
    std::map<uint8_t *, bool> tagged; // the tag mark of each live object
    std::mt19937 rng(20261122);

    for (int step = 0; step < 20000; step++) {
        SCOPED_TRACE(step);
        Chain &c = chains[rng() % 3];
        auto &model = c.live;
        const std::vector<uint32_t> ids = pools_of(c.root);
        const uint32_t op = rng() % 10, id = ids[rng() % ids.size()]; // an extension's id stands for its root
        const bool filling = step / 1500 % 2 == 0;                    // phases that fill and empty the chains
        std::vector<std::string> logs;
        memm_test::clear_logs();
        if (rng() % 50 == 0) { // tagging marks the chain's objects, logging each of its pools with the objects from it on
            const int tag = int(rng() % 2);
            for (size_t k = 0; k < ids.size(); k++) {
                size_t n = 0;
                for (auto &[obj, l] : model)
                    n += std::find(ids.begin() + long(k), ids.end(), memm_get_poolid(obj)) != ids.end();
                logs.push_back(fmt("%stagged %d object(s) in pool %s\r\n", tag ? "" : "un", int(n), c.name));
            }
            for (auto &entry : model)
                tagged[entry.first] = tag;
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
                for (int i = 0; i < c.objsize; i++)
                    ASSERT_EQ(obj[i], 0) << "slot not zero-filled";
                const uint8_t fill = uint8_t(rng());
                memset(obj, fill, size_t(c.objsize));
                model[obj] = {1, fill}, tagged[obj] = false;
                ASSERT_TRUE(memm_instanceof(obj, c.root) && memm_get_poolname(obj) == c.name);
            }
        } else if (!model.empty()) {
            auto it = model.begin();
            std::advance(it, rng() % model.size());
            uint8_t *obj = it->first;
            if (op < 6 && it->second.refs < 5) {
                ASSERT_EQ(memm_refalloc(obj), obj);
                it->second.refs++;
            } else {
                ASSERT_EQ(memm_free(obj), MEMM_OK);
                c.frees++;
                if (--it->second.refs == 0) {
                    model.erase(it), tagged.erase(obj);
                    ASSERT_TRUE(!memm_isvalidobj(obj) && !memm_get_refcount(obj) && !memm_getnext(obj));
                }
            }
        }
        ASSERT_EQ(memm_test::log_texts(), logs);
        ASSERT_TRUE(memm_test::sound());
        int32_t refs_max = 0;
        for (Chain &each : chains) {
            ASSERT_EQ(memm_model::objects_fault(each.root, each.live, size_t(each.objsize)), "");
            ASSERT_EQ(chain_figures(each, peak, ref_peak), "");
            const uint64_t *calls = memm_get_pool_nolock(each.root)->alloc_calls;
            ASSERT_EQ(std::vector<uint64_t>(calls, calls + 3), std::vector<uint64_t>(each.calls, each.calls + 3));
            ASSERT_EQ(memm_model::chain_sum(each.root, [](const memm_pooldesc *p) { return p->free_calls; }), each.frees);
        }
        for (auto &[obj, mark] : tagged) { // references leave the mark alone
            uint32_t state;
            memcpy(&state, obj - MEMM_OBJHDR_SIZE, 4);
            ASSERT_EQ((state & MEMM_STATE_TAGGED) != 0, mark);
        }
        for (auto &[pool, r] : ref_peak)
            refs_max = std::max(refs_max, r);
        ASSERT_EQ(memm_get_pool_nolock(0)->ref_max, refs_max); // pool 0 shows the peak over all pools
    }
    for (Chain &c : chains) // every chain reached its limit at least once
        EXPECT_TRUE(c.depleted) << c.name;
    // The first depletion wrote the dump and the listing.
    EXPECT_EQ(memm_test::report_files(), (std::vector<std::string>{fmt("/root/memm_dump_pool_depleted_%d", int(getpid())),
                                                                    fmt("/root/memm_list_pool_depleted_%d", int(getpid()))}));
}
