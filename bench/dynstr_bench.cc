// Making and releasing a short string beside strdup/free and std::string,
// and the collector compacting a half-deleted 1 MiB buffer beside a plain
// memmove of the same bytes.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "dynstr.h"

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
