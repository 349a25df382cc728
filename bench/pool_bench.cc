// Allocation and release on a pool beside malloc/free and a bare lock pair,
// and two threads sharing a pool with the longest wait for the lock.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

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

// Two threads share one pool: each iteration starts two threads that make
// 20000 pairs each, each pair inside its own memm_lock and memm_unlock.
// Beside the throughput (items = pairs) two counters, the largest over the
// run: worst_wait_us, the longest memm_lock of a thread that found the lock
// held, and worst_free_wait_us, the longest time the lock then lay free
// before that thread took it (from the last holder's unlock, stamped just
// before it, to the waiter's return from memm_lock). The second is the
// wake-up latency of a sleeper; a wake-up that relied on a timeout would
// show here. On a machine shared with other work both include the times
// the scheduler keeps a thread off its core, which the same run on a
// recursive pthread mutex (around malloc and free) shows for comparison.
template <class Lock, class Unlock, class Pair>
void two_threads_worst_wait(benchmark::State &state, Lock lock, Unlock unlock, Pair pair) {
    using Clock = std::chrono::steady_clock;
    constexpr int kPairs = 20000;
    Clock::time_point last_unlock{}; // written and read under the lock
    std::atomic<int64_t> worst_ns[2] = {{0}, {0}};
    auto raise = [](std::atomic<int64_t> &worst, Clock::duration d) {
        const int64_t ns = std::chrono::duration_cast<std::chrono::nanoseconds>(d).count();
        for (int64_t seen = worst; ns > seen && !worst.compare_exchange_weak(seen, ns);)
            ;
    };
    auto work = [&] {
        for (int i = 0; i < kPairs; i++) {
            const auto asked = Clock::now();
            lock();
            const auto got = Clock::now();
            if (last_unlock > asked) { // freed while this thread waited
                raise(worst_ns[0], got - asked);
                raise(worst_ns[1], got - last_unlock);
            }
            pair();
            last_unlock = Clock::now();
            unlock();
        }
    };
    for (auto _ : state) {
        std::thread a(work), b(work);
        a.join();
        b.join();
    }
    state.SetItemsProcessed(state.iterations() * 2 * kPairs);
    state.counters["worst_wait_us"] = double(worst_ns[0]) / 1000;
    state.counters["worst_free_wait_us"] = double(worst_ns[1]) / 1000;
}

void BM_PoolPairTwoThreadsWorstWait(benchmark::State &state) {
    const uint32_t id = bench_pool();
    two_threads_worst_wait(
        state, [] { memm_lock("bench"); }, [] { memm_unlock(); },
        [id] {
            void *obj = memm_calloc(id);
            benchmark::DoNotOptimize(obj);
            memm_free(obj);
        });
}
BENCHMARK(BM_PoolPairTwoThreadsWorstWait)->UseRealTime();

void BM_MallocPairTwoThreadsWorstWaitPthread(benchmark::State &state) {
    static pthread_mutex_t mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    two_threads_worst_wait(
        state, [] { pthread_mutex_lock(&mutex); }, [] { pthread_mutex_unlock(&mutex); },
        [] {
            void *obj = calloc(1, kObjSize);
            benchmark::DoNotOptimize(obj);
            free(obj);
        });
}
BENCHMARK(BM_MallocPairTwoThreadsWorstWaitPthread)->UseRealTime();

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
