// Writing text into strings: a short formatted assignment beside snprintf
// into a stack buffer, a number written and read back beside snprintf and
// strtoul, and building one string from 1000 short pieces beside
// std::string::append.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "dynstr.h"

namespace {

constexpr int kPieces = 1000;
const char kPiece[] = "eth0,"; // 5 characters

uint32_t pool() {
    static const uint32_t id = [] {
        memm_init(64, 4);
        // Room for a few thousand short texts and one 5000-character string
        // per buffer, so collections are part of the steady state.
        return dynstr_initpool2("bench_writers", 1024, 64 * 1024, 2);
    }();
    return id;
}

void BM_DynstrSprintf(benchmark::State &state) {
    dynstr *d = dynstr_calloc(pool());
    unsigned n = 0;
    for (auto _ : state) {
        dynstr_sprintf(d, "%s mtu %u", "eth0", 1500 + (n++ & 7));
        benchmark::DoNotOptimize(d->str);
    }
    memm_free(d);
}
BENCHMARK(BM_DynstrSprintf);

void BM_SnprintfStackBuffer(benchmark::State &state) {
    unsigned n = 0;
    for (auto _ : state) {
        char buf[64];
        snprintf(buf, sizeof buf, "%s mtu %u", "eth0", 1500 + (n++ & 7));
        benchmark::DoNotOptimize(buf);
    }
}
BENCHMARK(BM_SnprintfStackBuffer);

// A configuration value kept as text: written from a number, read back.
void BM_DynstrSetGetUint32(benchmark::State &state) {
    dynstr *d = dynstr_calloc(pool());
    uint32_t n = 0, back = 0;
    for (auto _ : state) {
        dynstr_setuint32(d, 1500 + (n++ & 7));
        dynstr_getuint32(d, &back);
        benchmark::DoNotOptimize(back);
    }
    memm_free(d);
}
BENCHMARK(BM_DynstrSetGetUint32);

void BM_SnprintfStrtoulStackBuffer(benchmark::State &state) {
    uint32_t n = 0;
    for (auto _ : state) {
        char buf[16];
        snprintf(buf, sizeof buf, "%u", 1500 + (n++ & 7));
        unsigned long back = strtoul(buf, nullptr, 10);
        benchmark::DoNotOptimize(back);
    }
}
BENCHMARK(BM_SnprintfStrtoulStackBuffer);

// The string is the last text written, so every piece is appended in place.
void BM_DynstrAppend1000(benchmark::State &state) {
    for (auto _ : state) {
        dynstr *d = dynstr_calloc(pool());
        for (int i = 0; i < kPieces; i++)
            dynstr_addstring(d, kPiece);
        benchmark::DoNotOptimize(d->str);
        memm_free(d);
    }
    state.SetItemsProcessed(state.iterations() * kPieces);
}
BENCHMARK(BM_DynstrAppend1000);

void BM_StdStringAppend1000(benchmark::State &state) {
    for (auto _ : state) {
        std::string s;
        for (int i = 0; i < kPieces; i++)
            s.append(kPiece);
        benchmark::DoNotOptimize(s.data());
    }
    state.SetItemsProcessed(state.iterations() * kPieces);
}
BENCHMARK(BM_StdStringAppend1000);

} // namespace

BENCHMARK_MAIN();
