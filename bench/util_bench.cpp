// The merge sort beside std::stable_sort, same data, same comparison, same run.
//
// Data       A million records of 48 bytes in one block, with 64-bit keys from a fixed seed, and
//            the array of pointers to them in the order of the block. Random: the pointers are
//            shuffled, too, so each comparison reaches for two far records. Nearly sorted: one in a
//            hundred keys is random, the others ascend.
// Checks     Each result is compared with that of std::stable_sort before anything is measured.
// Measures   One iteration is one sort; copying the unsorted array back is not counted. Pointers
//            are compared through the same delegate on both sides. Values are a key with its
//            pointer, 16 bytes, and the comparison is inlined, as when a view is built.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "kds/util/Mergesort.h"
#include "kds/util/Sortutils.h"

namespace kds {
namespace {

constexpr std::int32_t Count = 1'000'000;

struct TRow {
    std::int64_t Key;
    char Payload[40];
};

struct TRowOrder {
    std::int32_t Compare(void* a, void* b) {
        const std::int64_t left = static_cast<const TRow*>(a)->Key;
        const std::int64_t right = static_cast<const TRow*>(b)->Key;
        return left < right ? -1 : left > right ? 1 : 0;
    }
};
TRowOrder rowOrder;
const TComparator Order = TComparator::Bind<&TRowOrder::Compare>(&rowOrder);

struct TData {
    std::vector<TRow> Rows;
    std::vector<void*> Pointers;
};

template <typename K>
TData MakeData(K key) {
    TData data;
    data.Rows.resize(Count);
    for (std::int32_t i = 0; i < Count; ++i) {
        TRow& row = data.Rows[static_cast<std::size_t>(i)];
        row.Key = key(i);
        data.Pointers.push_back(&row);
    }
    return data;
}

std::mt19937_64 generator(20'250'101);
std::int64_t Random() { return static_cast<std::int64_t>(generator() >> 1); }

const TData& RandomRows() {
    static const TData data = [] {
        TData made = MakeData([](std::int32_t) { return Random(); });
        std::shuffle(made.Pointers.begin(), made.Pointers.end(), generator);
        return made;
    }();
    return data;
}
const TData& FewKeys() {
    static const TData data = MakeData([](std::int32_t) { return Random() % 100; });
    return data;
}
const TData& NearlySorted() {
    static const TData data = MakeData(
        [](std::int32_t i) { return Random() % 100 == 0 ? Random() % Count : std::int64_t{i}; });
    return data;
}
const TData& Sorted() {
    static const TData data = MakeData([](std::int32_t i) { return std::int64_t{i}; });
    return data;
}
const TData& Descending() {
    static const TData data = MakeData([](std::int32_t i) { return std::int64_t{Count - i}; });
    return data;
}

void StandardSort(std::vector<void*>& items, std::int32_t) {
    std::stable_sort(items.begin(), items.end(), [](void* a, void* b) { return Order(a, b) < 0; });
}
void OurSort(std::vector<void*>& items, std::int32_t threads) {
    MergeSortList(items.data(), 0, Count - 1, Order, threads);
}

template <void (*Sort)(std::vector<void*>&, std::int32_t), const TData& (*Data)(),
          std::int32_t Threads>
void SortPointers(benchmark::State& state) {
    std::vector<void*> expected = Data().Pointers;
    StandardSort(expected, 1);
    std::vector<void*> items = Data().Pointers;
    Sort(items, Threads);
    if (items != expected) return state.SkipWithError("results differ");
    for (auto _ : state) {
        state.PauseTiming();
        items = Data().Pointers;
        state.ResumeTiming();
        Sort(items, Threads);
    }
}

struct TKeyed {
    std::uint64_t Key;
    void* Row;
};
std::vector<TKeyed> KeyedRows() {
    std::vector<TKeyed> items;
    items.reserve(Count);
    for (void* row : RandomRows().Pointers) {
        items.push_back({static_cast<std::uint64_t>(static_cast<TRow*>(row)->Key), row});
    }
    return items;
}

void OurSortOfValues(benchmark::State& state) {
    const std::vector<TKeyed> unsorted = KeyedRows();
    std::vector<TKeyed> items;
    for (auto _ : state) {
        state.PauseTiming();
        items = unsorted;
        state.ResumeTiming();
        MergeSort(
            items.data(), Count,
            [](const TKeyed& a, const TKeyed& b) {
                return static_cast<std::int32_t>(a.Key > b.Key) -
                       static_cast<std::int32_t>(a.Key < b.Key);
            },
            1);
    }
}

void StandardSortOfValues(benchmark::State& state) {
    const std::vector<TKeyed> unsorted = KeyedRows();
    std::vector<TKeyed> items;
    for (auto _ : state) {
        state.PauseTiming();
        items = unsorted;
        state.ResumeTiming();
        std::stable_sort(items.begin(), items.end(),
                         [](const TKeyed& a, const TKeyed& b) { return a.Key < b.Key; });
    }
}

constexpr auto Unit = benchmark::kMillisecond;
BENCHMARK(SortPointers<OurSort, RandomRows, 1>)->Name("random, one thread/kds")->Unit(Unit);
BENCHMARK(SortPointers<StandardSort, RandomRows, 1>)
    ->Name("random, one thread/std::stable_sort")
    ->Unit(Unit);
BENCHMARK(SortPointers<OurSort, RandomRows, 2>)
    ->Name("random, two threads/kds")
    ->Unit(Unit)
    ->UseRealTime();
BENCHMARK(SortPointers<OurSort, RandomRows, 1>)
    ->Name("random, two threads/kds on one thread")
    ->Unit(Unit)
    ->UseRealTime();
BENCHMARK(SortPointers<OurSort, FewKeys, 1>)->Name("a hundred keys/kds")->Unit(Unit);
BENCHMARK(SortPointers<StandardSort, FewKeys, 1>)
    ->Name("a hundred keys/std::stable_sort")
    ->Unit(Unit);
BENCHMARK(SortPointers<OurSort, NearlySorted, 1>)->Name("nearly sorted/kds")->Unit(Unit);
BENCHMARK(SortPointers<StandardSort, NearlySorted, 1>)
    ->Name("nearly sorted/std::stable_sort")
    ->Unit(Unit);
BENCHMARK(SortPointers<OurSort, Sorted, 1>)->Name("sorted/kds")->Unit(Unit);
BENCHMARK(SortPointers<StandardSort, Sorted, 1>)->Name("sorted/std::stable_sort")->Unit(Unit);
BENCHMARK(SortPointers<OurSort, Descending, 1>)->Name("descending/kds")->Unit(Unit);
BENCHMARK(SortPointers<StandardSort, Descending, 1>)
    ->Name("descending/std::stable_sort")
    ->Unit(Unit);
BENCHMARK(OurSortOfValues)->Name("random keys as values/kds")->Unit(Unit);
BENCHMARK(StandardSortOfValues)->Name("random keys as values/std::stable_sort")->Unit(Unit);
BENCHMARK(SortPointers<StandardSort, RandomRows, 1>)
    ->Name("random keys as values/std::stable_sort of the pointers")
    ->Unit(Unit);

}  // namespace
}  // namespace kds

BENCHMARK_MAIN();
