// Making and releasing a short string beside strdup/free and std::string,
// and the collector compacting a half-deleted 1 MiB buffer, fresh and after
// a collection, beside a plain memmove of the same bytes.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "dynstr.h"
#include "memm.h"

namespace {

constexpr int32_t kBufferBytes = 1 << 20;
constexpr size_t kTextLen = 63; // 64-byte texts: 16384 fill the buffer
constexpr uint32_t kTexts = uint32_t(kBufferBytes) / (kTextLen + 1);
const char kShort[] = "interface eth0 up";

struct Pools {
    uint32_t small; // short strings
    uint32_t big;   // one 1 MiB buffer for the collector
};

const Pools &pools() {
    static const Pools p = [] {
        memm_init(64, 4);
        // Room for every text plus the reserve, so no collection runs early.
        return Pools{dynstr_initpool2("bench_short", 1024, 64 * 1024, 2),
                     dynstr_initpool2("bench_gc", kTexts + 64, kBufferBytes, 1)};
    }();
    return p;
}

void BM_DynstrFromstringFree(benchmark::State &state) {
    const uint32_t pool = pools().small;
    for (auto _ : state) {
        dynstr *d = dynstr_fromstring(pool, kShort);
        benchmark::DoNotOptimize(d);
        memm_free(d);
    }
}
BENCHMARK(BM_DynstrFromstringFree);

void BM_StrdupFree(benchmark::State &state) {
    for (auto _ : state) {
        char *s = strdup(kShort);
        benchmark::DoNotOptimize(s);
        free(s);
    }
}
BENCHMARK(BM_StrdupFree);

void BM_StdString(benchmark::State &state) {
    const char *volatile src = "interface eth0 up, link speed 1000";
    for (auto _ : state) {
        std::string s(src);
        benchmark::DoNotOptimize(s.data());
    }
}
BENCHMARK(BM_StdString);

// Fills the buffer with texts and releases every other one: half the bytes
// are placeholders that do not merge, so each live text is its own run.
std::vector<dynstr *> fill_half_deleted(uint32_t pool, const std::string &text) {
    std::vector<dynstr *> live;
    std::vector<dynstr *> all;
    for (uint32_t i = 0; i + 1 < kTexts; i++)
        all.push_back(dynstr_fromstring(pool, text.c_str()));
    for (size_t i = 0; i < all.size(); i++) {
        if (i % 2 == 0 && i + 1 < all.size())
            memm_free(all[i]);
        else
            live.push_back(all[i]);
    }
    return live;
}

// The collection is triggered by a text that does not fit the buffer's tail;
// with one buffer the collector compacts that buffer in place.
void BM_CollectHalfDeletedBuffer(benchmark::State &state) {
    const uint32_t pool = pools().big;
    const std::string text(kTextLen, 'g');
    const std::string trigger(2 * kTextLen, 't');
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<dynstr *> live = fill_half_deleted(pool, text);
        state.ResumeTiming();
        dynstr *d = dynstr_fromstring(pool, trigger.c_str());
        state.PauseTiming();
        live.push_back(d);
        for (auto it = live.rbegin(); it != live.rend(); ++it) // newest first: each is cut off the end
            memm_free(*it);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kBufferBytes);
}
BENCHMARK(BM_CollectHalfDeletedBuffer)->Unit(benchmark::kMicrosecond);

// The same buffer one collection later: the texts that survived the first
// collection (moved down by it), and new texts behind them, each lose every
// other one, and the second collection is timed. The collector finds the
// survivors ahead of its walk through the places it noted while moving
// them, so this takes about as long as the collection above (without those
// notes, a tenth longer).
void BM_CollectAfterACollection(benchmark::State &state) {
    const uint32_t pool = pools().big;
    const std::string text(kTextLen, 'g');
    const std::string trigger(2 * kTextLen, 't');
    const auto halve = [](std::vector<dynstr *> &texts) { // releases every other text but the last
        std::vector<dynstr *> kept;
        for (size_t i = 0; i < texts.size(); i++) {
            if (i % 2 == 0 && i + 1 < texts.size())
                memm_free(texts[i]);
            else
                kept.push_back(texts[i]);
        }
        texts.swap(kept);
    };
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<dynstr *> live = fill_half_deleted(pool, text);
        live.push_back(dynstr_fromstring(pool, trigger.c_str())); // the first collection
        halve(live);
        // New texts up to where the trigger no longer fits.
        const auto *desc = static_cast<const dynstr_pooldesc *>(memm_getpoolcookie_bypoolid(pool));
        std::vector<dynstr *> added;
        dynstr *d;
        while (desc->buffersize - int32_t(desc->buf_used[0]) > int32_t(2 * kTextLen + 1) &&
               (d = dynstr_fromstring(pool, text.c_str())))
            added.push_back(d);
        halve(added);
        live.insert(live.end(), added.begin(), added.end());
        state.ResumeTiming();
        d = dynstr_fromstring(pool, trigger.c_str());
        state.PauseTiming();
        live.push_back(d);
        for (auto it = live.rbegin(); it != live.rend(); ++it)
            memm_free(*it);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kBufferBytes);
}
BENCHMARK(BM_CollectAfterACollection)->Unit(benchmark::kMicrosecond);

// What the compaction amounts to at best: the live half moved down once and
// the freed half zeroed.
void BM_MemmoveSameBytes(benchmark::State &state) {
    std::vector<char> buffer(size_t(kBufferBytes), 'm');
    const size_t half = size_t(kBufferBytes) / 2;
    for (auto _ : state) {
        memmove(buffer.data(), buffer.data() + kTextLen + 1, half);
        memset(buffer.data() + half, 0, half);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kBufferBytes);
}
BENCHMARK(BM_MemmoveSameBytes)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
