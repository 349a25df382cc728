// Allocation and release on a pool beside malloc/free and a bare lock pair.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <stdlib.h>

#include "memm.h"

namespace {

constexpr int32_t kObjSize = 64;

uint32_t bench_pool() {
    static const uint32_t id = [] {
        memm_init(64, 0);
        return memm_initpool("bench_objects", 1024, kObjSize, nullptr);
    }();
    return id;
}

void BM_PoolCallocFree(benchmark::State &state) {
    const uint32_t id = bench_pool();
    for (auto _ : state) {
        void *obj = memm_calloc(id);
        benchmark::DoNotOptimize(obj);
        memm_free(obj);
    }
}
BENCHMARK(BM_PoolCallocFree);

// The same pair with a hundred objects live, so the free list is not one slot deep.
void BM_PoolCallocFreeWithLiveObjects(benchmark::State &state) {
    const uint32_t id = bench_pool();
    void *live[100];
    for (void *&obj : live)
        obj = memm_calloc(id);
    for (auto _ : state) {
        void *obj = memm_calloc(id);
        benchmark::DoNotOptimize(obj);
        memm_free(obj);
    }
    for (void *obj : live)
        memm_free(obj);
}
BENCHMARK(BM_PoolCallocFreeWithLiveObjects);

void BM_PoolReferencePair(benchmark::State &state) {
    const uint32_t id = bench_pool();
    void *obj = memm_calloc(id);
    for (auto _ : state) {
        benchmark::DoNotOptimize(memm_refalloc(obj));
        memm_free(obj);
    }
    memm_free(obj);
}
BENCHMARK(BM_PoolReferencePair);

void BM_MallocFree(benchmark::State &state) {
    for (auto _ : state) {
        void *obj = calloc(1, kObjSize);
        benchmark::DoNotOptimize(obj);
        free(obj);
    }
}
BENCHMARK(BM_MallocFree);

void BM_RecursiveLockUnlock(benchmark::State &state) {
    pthread_mutex_t mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    for (auto _ : state) {
        pthread_mutex_lock(&mutex);
        benchmark::ClobberMemory();
        pthread_mutex_unlock(&mutex);
    }
}
BENCHMARK(BM_RecursiveLockUnlock);

} // namespace

BENCHMARK_MAIN();
