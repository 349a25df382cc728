// Building and walking a list of 1000 pool objects, beside std::forward_list
// of pointers.
//
// What to expect: llist_addobject/llist_addref append by walking from the
// first node (the family keeps no tail pointer), so building by appending is
// quadratic; llist_pushobject is constant per node. A walk through the public
// accessors takes the lock once per call; llist_searchobject walks the whole
// list under one lock. std::forward_list allocates from the heap and takes no
// lock, and it holds no references. llist_sort is an insertion sort (quadratic
// in comparisons, relinking only); std::forward_list::sort is a merge sort.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <forward_list>
#include <random>
#include <vector>

#include "llist.h"

namespace {

constexpr int kObjects = 1000;

struct Item {
    int value;
};

struct BenchPools {
    uint32_t items = MEMM_INVALID_POOL;
    uint32_t nodes = MEMM_INVALID_POOL;
    std::vector<void *> objs;
};

const BenchPools &pools() {
    static const BenchPools p = [] {
        BenchPools b;
        memm_init(16, 0);
        b.items = memm_initpool("bench_items", kObjects + 24, int32_t(sizeof(Item)), nullptr);
        // Room for two lists at once: the walked list and a copy.
        b.nodes = llist_initpool("bench_nodes", 2 * kObjects + 24, int32_t(sizeof(llist_node)), nullptr);
        for (int i = 0; i < kObjects; i++) {
            auto *item = static_cast<Item *>(memm_calloc(b.items));
            item->value = i;
            b.objs.push_back(item);
        }
        return b;
    }();
    return p;
}

llist_node *build_by_push(const BenchPools &p, int n) {
    llist_node *list = nullptr;
    for (int i = n - 1; i >= 0; i--) {
        memm_refalloc(p.objs[size_t(i)]);
        llist_pushobject(&list, p.objs[size_t(i)], p.nodes);
    }
    return list;
}

int never_matches(void *obj, void *sum) {
    *static_cast<long *>(sum) += static_cast<Item *>(obj)->value;
    return 0;
}

// ---- building (includes releasing the list again) ----

void BM_LlistBuildByAppend(benchmark::State &state) {
    const BenchPools &p = pools();
    const int n = int(state.range(0));
    for (auto _ : state) {
        llist_node *list = nullptr;
        for (int i = 0; i < n; i++)
            llist_addref(&list, p.objs[size_t(i)], p.nodes);
        benchmark::DoNotOptimize(list);
        llist_free_plist(&list);
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_LlistBuildByAppend)->Arg(kObjects);

void BM_LlistBuildByPush(benchmark::State &state) {
    const BenchPools &p = pools();
    const int n = int(state.range(0));
    for (auto _ : state) {
        llist_node *list = build_by_push(p, n);
        benchmark::DoNotOptimize(list);
        llist_free_plist(&list);
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_LlistBuildByPush)->Arg(kObjects);

void BM_LlistCopyByReference(benchmark::State &state) {
    const BenchPools &p = pools();
    const int n = int(state.range(0));
    llist_node *list = build_by_push(p, n);
    for (auto _ : state) {
        llist_node *copy = llist_refalloc(list, p.nodes);
        benchmark::DoNotOptimize(copy);
        llist_free_plist(&copy);
    }
    llist_free_plist(&list);
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_LlistCopyByReference)->Arg(kObjects);

void BM_ForwardListBuildByPush(benchmark::State &state) {
    const BenchPools &p = pools();
    const int n = int(state.range(0));
    for (auto _ : state) {
        std::forward_list<void *> list;
        for (int i = n - 1; i >= 0; i--)
            list.push_front(p.objs[size_t(i)]);
        benchmark::DoNotOptimize(list.front());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_ForwardListBuildByPush)->Arg(kObjects);

void BM_ForwardListBuildByAppend(benchmark::State &state) {
    const BenchPools &p = pools();
    const int n = int(state.range(0));
    for (auto _ : state) {
        std::forward_list<void *> list;
        auto tail = list.before_begin();
        for (int i = 0; i < n; i++)
            tail = list.insert_after(tail, p.objs[size_t(i)]);
        benchmark::DoNotOptimize(list.front());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_ForwardListBuildByAppend)->Arg(kObjects);

// ---- sorting a shuffled list (building and releasing it are not timed) ----

int32_t by_value(void *a, void *b) { return static_cast<Item *>(a)->value - static_cast<Item *>(b)->value; }

std::vector<void *> shuffled(const BenchPools &p, int n) {
    std::vector<void *> v(p.objs.begin(), p.objs.begin() + n);
    std::shuffle(v.begin(), v.end(), std::mt19937(42));
    return v;
}

// Insertion sort by design: quadratic in comparisons, no allocation.
void BM_LlistSort(benchmark::State &state) {
    const BenchPools &p = pools();
    const std::vector<void *> objs = shuffled(p, int(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        llist_node *list = nullptr;
        for (void *obj : objs) {
            memm_refalloc(obj);
            llist_pushobject(&list, obj, p.nodes);
        }
        state.ResumeTiming();
        llist_sort(&list, by_value);
        state.PauseTiming();
        llist_free_plist(&list);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_LlistSort)->Arg(kObjects);

void BM_ForwardListSort(benchmark::State &state) {
    const BenchPools &p = pools();
    const std::vector<void *> objs = shuffled(p, int(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        std::forward_list<void *> list(objs.begin(), objs.end());
        state.ResumeTiming();
        list.sort([](void *a, void *b) { return by_value(a, b) < 0; });
        benchmark::DoNotOptimize(list.front());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ForwardListSort)->Arg(kObjects);

// ---- walking ----

void BM_LlistWalkNext(benchmark::State &state) {
    const BenchPools &p = pools();
    const int n = int(state.range(0));
    llist_node *list = build_by_push(p, n);
    for (auto _ : state) {
        long sum = 0;
        for (llist_node *node = llist_get_first(list); node; node = llist_get_next(node))
            sum += static_cast<Item *>(llist_getobject_this(node))->value;
        benchmark::DoNotOptimize(sum);
    }
    llist_free_plist(&list);
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_LlistWalkNext)->Arg(kObjects);

void BM_LlistWalkUnderOneLock(benchmark::State &state) {
    const BenchPools &p = pools();
    const int n = int(state.range(0));
    llist_node *list = build_by_push(p, n);
    for (auto _ : state) {
        long sum = 0;
        llist_searchobject(list, &sum, never_matches);
        benchmark::DoNotOptimize(sum);
    }
    llist_free_plist(&list);
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_LlistWalkUnderOneLock)->Arg(kObjects);

void BM_LlistWalkByIndex(benchmark::State &state) {
    const BenchPools &p = pools();
    const int n = int(state.range(0));
    llist_node *list = build_by_push(p, n);
    for (auto _ : state) {
        long sum = 0;
        for (int i = 0; i < n; i++)
            sum += static_cast<Item *>(llist_getobject_at(list, i))->value;
        benchmark::DoNotOptimize(sum);
    }
    llist_free_plist(&list);
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_LlistWalkByIndex)->Arg(kObjects);

void BM_ForwardListWalk(benchmark::State &state) {
    const BenchPools &p = pools();
    const int n = int(state.range(0));
    std::forward_list<void *> list;
    for (int i = n - 1; i >= 0; i--)
        list.push_front(p.objs[size_t(i)]);
    for (auto _ : state) {
        long sum = 0;
        for (void *obj : list)
            sum += static_cast<Item *>(obj)->value;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_ForwardListWalk)->Arg(kObjects);

} // namespace

BENCHMARK_MAIN();
