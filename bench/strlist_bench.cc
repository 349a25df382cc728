// Joining a list of 1000 short strings, and splitting a 1000-item
// comma-separated line into a string list and joining it back, each beside
// the same work with std::string and a vector.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "strlist.h"

namespace {

constexpr int kItems = 1000;

struct Setup {
    uint32_t strings, nodes;
    std::string line;            // "item0,item1,...,item999"
    std::vector<std::string> items;
    llist_node *list = nullptr;  // the same items as a string list
};

const Setup &setup() {
    static const Setup s = [] {
        Setup s;
        memm_init(64, 4);
        s.strings = dynstr_initpool2("bench_strlist", 4 * kItems, 256 * 1024, 2);
        s.nodes = llist_initpool("bench_strlist_nodes", 3 * kItems, int32_t(sizeof(llist_node)), nullptr);
        for (int i = 0; i < kItems; i++) {
            s.items.push_back("item" + std::to_string(i));
            s.line += (i ? "," : "") + s.items.back();
            strlist_addstring(&s.list, s.items.back().c_str(), s.nodes, s.strings);
        }
        return s;
    }();
    return s;
}

void BM_StrlistJoin(benchmark::State &state) {
    const Setup &s = setup();
    for (auto _ : state) {
        dynstr *joined = strlist_todynstr(s.list, ",", s.strings);
        benchmark::DoNotOptimize(joined);
        memm_free(joined);
    }
}
BENCHMARK(BM_StrlistJoin);

void BM_StdStringJoin(benchmark::State &state) {
    const Setup &s = setup();
    for (auto _ : state) {
        std::string joined;
        for (size_t i = 0; i < s.items.size(); i++) {
            if (i)
                joined += ',';
            joined += s.items[i];
        }
        benchmark::DoNotOptimize(joined.data());
    }
}
BENCHMARK(BM_StdStringJoin);

void BM_StrlistSplitJoin(benchmark::State &state) {
    const Setup &s = setup();
    for (auto _ : state) {
        llist_node *list = strlist_fromstring(s.line.c_str(), ",", s.nodes, s.strings);
        dynstr *joined = strlist_todynstr(list, ",", s.strings);
        benchmark::DoNotOptimize(joined);
        memm_free(joined);
        llist_free_plist(&list);
    }
}
BENCHMARK(BM_StrlistSplitJoin);

void BM_StdSplitJoin(benchmark::State &state) {
    const Setup &s = setup();
    for (auto _ : state) {
        std::vector<std::string> parts;
        size_t start = 0;
        for (size_t at; (at = s.line.find(',', start)) != std::string::npos; start = at + 1)
            parts.emplace_back(s.line, start, at - start);
        parts.emplace_back(s.line, start);
        std::string joined;
        for (size_t i = 0; i < parts.size(); i++) {
            if (i)
                joined += ',';
            joined += parts[i];
        }
        benchmark::DoNotOptimize(joined.data());
    }
}
BENCHMARK(BM_StdSplitJoin);

} // namespace

BENCHMARK_MAIN();
