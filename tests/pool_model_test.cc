// Seeded random walks over pools and chains checked against a plain model,
// and the short paths of allocation and release against the general path.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "memm.h"
#include "model/pool_model.h"
#include "syslog_capture.h"

TEST(Model, RandomAllocReferenceReleaseMatchesTheModel) {
    ASSERT_EQ(memm_init(4, 0), MEMM_OK);
    const int32_t objsize = 13; // slots of 32 bytes: only 4-byte aligned
    uint32_t pools[] = {memm_initpool("m_small", 5, objsize, nullptr), memm_initpool("m_large", 40, 6, nullptr)};
    memm_depletion_no_reboot(pools[0]);
    memm_depletion_no_reboot(pools[1]);
    std::mt19937 rng(20261122);
    memm_model::LiveObjects live[2];
    uint32_t capacity[2] = {5 + 5 * 3, 40 + 5 * 8};

    for (int step = 0; step < 20000; step++) {
        int which = rng() % 2;
        uint32_t root = pools[which];
        auto &model = live[which];
        int op = rng() % 10;
        if (op < 4) {
            auto *obj = static_cast<uint8_t *>(memm_calloc(root));
            if (model.size() == capacity[which]) {
                ASSERT_EQ(obj, nullptr) << step;
                continue;
            }
            ASSERT_NE(obj, nullptr) << step;
            ASSERT_EQ(model.count(obj), 0u);
            size_t size = which ? 6 : objsize;
            for (size_t i = 0; i < size; i++)
                ASSERT_EQ(obj[i], 0) << "slot not zero-filled";
            uint8_t fill = uint8_t(rng());
            memset(obj, fill, size);
            model[obj] = {1, fill};
            ASSERT_TRUE(memm_instanceof(obj, root));
        } else if (!model.empty()) {
            auto it = model.begin();
            std::advance(it, rng() % model.size());
            uint8_t *obj = it->first;
            if (op < 6 && it->second.refs < 5) {
                ASSERT_EQ(memm_refalloc(obj), obj);
                it->second.refs++;
            } else {
                ASSERT_EQ(memm_free(obj), MEMM_OK);
                if (--it->second.refs == 0)
                    model.erase(it);
            }
        }
        ASSERT_EQ(memm_model::objects_fault(pools[0], live[0], objsize), "") << step;
        ASSERT_EQ(memm_model::objects_fault(pools[1], live[1], 6), "") << step;
    }
}

namespace {

// One run of the differential test: a pool and the calls that drive it. The
// short run goes through memm_calloc and memm_free, whose common cases take
// a short path; the general run through the _nolock entries under
// memm_lock, which always take the general path.
struct Driver {
    const char *name;
    bool general;
    uint32_t root;
    uint32_t base_count = 0;
    void *site = nullptr; // allocfrom of this run's objects

    void *calloc() {
        if (!general)
            return memm_calloc(root);
        memm_lock("diff");
        void *obj = memm_calloc_nolock(root);
        memm_unlock();
        return obj;
    }
    uint32_t free(void *obj) {
        if (!general)
            return memm_free(obj);
        memm_lock("diff");
        const uint32_t r = memm_free_nolock(obj);
        memm_unlock();
        return r;
    }
};

std::vector<const memm_pooldesc *> chain_of(uint32_t root) {
    std::vector<const memm_pooldesc *> chain;
    for (uint32_t id = root; id; id = memm_get_pool_nolock(id)->next_pool)
        chain.push_back(memm_get_pool_nolock(id));
    return chain;
}

// Where an object lies: (pool's place in its chain, slot index), or (-1, -1).
std::pair<int, int64_t> position(uint32_t root, const void *obj) {
    if (!obj)
        return {-1, -1};
    const auto chain = chain_of(root);
    for (size_t k = 0; k < chain.size(); k++) {
        const int64_t at = int64_t(reinterpret_cast<uintptr_t>(obj) - MEMM_OBJHDR_SIZE -
                                   reinterpret_cast<uintptr_t>(chain[k]->storage));
        if (at >= 0 && at < int64_t(chain[k]->alloc_count) * chain[k]->slotsize)
            return {int(k), at / chain[k]->slotsize};
    }
    return {-1, -1};
}

// Everything a caller can see of a chain, addresses made relative: the
// descriptors' figures, the free lists in order, every header and the
// object bytes of every slot in use.
std::vector<int64_t> picture(const Driver &run) {
    std::vector<int64_t> pic;
    for (uint32_t id = run.root; id; id = memm_get_pool_nolock(id)->next_pool) {
        const memm_pooldesc *p = memm_get_pool_nolock(id);
        pic.insert(pic.end(), {p->slotsize, p->cur_count, p->max_count, p->alloc_count, p->base_peak, p->ref_cur,
                               p->ref_max, int64_t(p->free_calls), int64_t(p->alloc_calls[0]),
                               int64_t(p->alloc_calls[1]), int64_t(p->alloc_calls[2]), p->flags, -2});
        const size_t link_at = p->slotsize >= MEMM_OBJHDR_SIZE + sizeof(void *) ? MEMM_OBJHDR_SIZE : 8;
        for (uint8_t *slot = p->free_head; slot; memcpy(&slot, slot + link_at, sizeof slot))
            pic.push_back((slot - p->storage) / p->slotsize);
        pic.push_back(-3);
        for (uint32_t i = 0; i < p->alloc_count; i++) {
            const uint8_t *slot = p->storage + size_t(i) * p->slotsize;
            uint32_t words[2];
            memcpy(words, slot, sizeof words);
            pic.push_back(words[1]);
            if (words[0] == MEMM_STATE_FREE) {
                pic.push_back(-4);
                continue; // the rest of a free slot may be poisoned
            }
            pic.insert(pic.end(), {words[0] & ~MEMM_STATE_POOLID_MASK, (words[0] & MEMM_STATE_POOLID_MASK) == id});
            void *site;
            memcpy(&site, slot + 8, sizeof site);
            pic.push_back(site == run.site);
            pic.insert(pic.end(), slot + MEMM_OBJHDR_SIZE, slot + p->slotsize);
        }
    }
    return pic;
}

// The log lines of one step with pool names, numbers and addresses blanked.
std::vector<std::string> step_logs(const char *name) {
    std::vector<std::string> lines = memm_test::log_texts();
    memm_test::clear_logs();
    for (std::string &line : lines) {
        for (size_t at; (at = line.find(name)) != std::string::npos;)
            line.replace(at, strlen(name), "<pool>");
        std::string out;
        for (size_t i = 0; i < line.size(); i++) {
            if (line.compare(i, 2, "0x") == 0 || isdigit(static_cast<unsigned char>(line[i]))) {
                i += line.compare(i, 2, "0x") == 0 ? 2 : 0;
                while (i < line.size() && isxdigit(static_cast<unsigned char>(line[i])))
                    i++;
                out += '#';
                i--;
            } else {
                out += line[i];
            }
        }
        line = out;
    }
    return lines;
}

} // namespace

// The short paths of memm_calloc and memm_free against the general path: the
// same seeded sequence of allocations, releases (double ones included),
// references, tagging and user counts drives two pools of each shape, and
// after every step both give the same results, log lines, figures, free
// lists and slot contents.
TEST(Model, ShortPathsMatchTheGeneralPathStepByStep) {
    ASSERT_EQ(memm_init(64, 0), MEMM_OK); // room for every extension: the table never grows in between
    const int32_t sizes[] = {3, 13, 64}; // the free link in allocfrom, 4-byte aligned slots, a larger object
    const char *names[][2] = {{"diff_s3", "diff_g3"}, {"diff_s13", "diff_g13"}, {"diff_s64", "diff_g64"}};
    std::vector<std::array<Driver, 2>> pairs;
    pairs.reserve(3); // the pools keep the address of base_count
    for (int k = 0; k < 3; k++) {
        pairs.push_back({Driver{names[k][0], false, 0}, Driver{names[k][1], true, 0}});
        for (Driver &run : pairs.back()) {
            run.root = memm_initpool(run.name, 6, sizes[k], nullptr);
            ASSERT_NE(run.root, MEMM_INVALID_POOL);
            memm_get_currentcount_ptr(run.root, &run.base_count, nullptr);
        }
    }
    struct Held {
        void *obj[2];
        int refs;
    };
    std::vector<std::vector<Held>> live(3), gone(3);
    std::mt19937 rng(20261123);
    memm_test::clear_logs();
    for (int step = 0; step < 6000; step++) {
        const int k = int(rng() % 3), op = int(rng() % 16);
        auto &runs = pairs[k];
        const size_t pick = rng();
        const uint8_t fill = uint8_t(rng());
        const int tag = int(rng() % 2);
        uint64_t result[2];
        std::vector<std::string> logs[2];
        for (int r = 0; r < 2; r++) {
            Driver &run = runs[r];
            if (op < 6) {
                auto *obj = static_cast<uint8_t *>(run.calloc());
                const auto at = position(run.root, obj);
                result[r] = uint64_t(at.first) << 32 | uint64_t(at.second);
                if (obj) {
                    if (!run.site)
                        memcpy(&run.site, obj - 8, sizeof run.site);
                    memset(obj, fill, size_t(sizes[k]));
                    if (r == 0)
                        live[k].push_back({{obj, nullptr}, 1});
                    else
                        live[k].back().obj[1] = obj;
                }
            } else if (op < 12 && !live[k].empty()) {
                Held &h = live[k][pick % live[k].size()];
                result[r] = run.free(h.obj[r]);
                if (r == 1 && --h.refs == 0) {
                    gone[k].push_back(h);
                    h = live[k].back();
                    live[k].pop_back();
                }
            } else if (op < 14 && !live[k].empty()) {
                Held &h = live[k][pick % live[k].size()];
                result[r] = memm_refalloc(h.obj[r]) == h.obj[r];
                h.refs += r;
            } else if (op == 14 && !gone[k].empty()) {
                // A released object again: a double release while its slot is
                // free, a release of whatever took the slot since otherwise.
                Held &h = gone[k][pick % gone[k].size()];
                const bool reused = std::any_of(live[k].begin(), live[k].end(),
                                                [&](const Held &l) { return l.obj[r] == h.obj[r]; });
                result[r] = reused ? 2 : run.free(h.obj[r]);
            } else if (op == 15) {
                result[r] = uint64_t(memm_tag_objects(run.name, tag));
                run.base_count = uint32_t(pick % 8);
            } else {
                result[r] = 3;
            }
            logs[r] = step_logs(run.name);
        }
        ASSERT_EQ(result[0], result[1]) << "step " << step;
        ASSERT_EQ(logs[0], logs[1]) << "step " << step;
        ASSERT_EQ(picture(runs[0]), picture(runs[1])) << "step " << step;
    }
}
