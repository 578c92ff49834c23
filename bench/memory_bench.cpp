// Bytes a row: with the key alone, and of each further view, after a build and after edits; rows
// and peers as in Rows.h.
//
// Measures   What malloc has given out and what the library has mapped for itself, of which the
//            last part may not be touched yet; and what the process keeps resident. Per row.
//            The figures are counters; the time is that of the filling. A program of its own, so
//            that nothing else has been given out and freed before.
// Figures    key: rows by ascending key, no other view. view: the mean of the four of views_bench.
//            view after edits: the same once a fifth of the rows has been posted to other places.
#include <malloc.h>
#include <unistd.h>

#include <fstream>

#include "bench/Boostrows.h"
#include "bench/Rows.h"
#include "bench/Sqliterows.h"
#include "bench/Usedmemory.h"

namespace kds {
namespace {

struct TUse {
    double Allocated = 0;
    double Resident = 0;
    friend TUse operator-(const TUse& a, const TUse& b) {
        return {a.Allocated - b.Allocated, a.Resident - b.Resident};
    }
};

TUse Use() {
    malloc_trim(0);
    std::ifstream statm("/proc/self/statm");
    double size = 0;
    double resident = 0;
    statm >> size >> resident;
    return {UsedMemory(), resident * static_cast<double>(sysconf(_SC_PAGESIZE))};
}

void Report(benchmark::State& state, const TUse& use, double parts) {
    const double rows = static_cast<double>(RowCount()) * parts;
    state.counters["allocated"] = use.Allocated / rows;
    state.counters["resident"] = use.Resident / rows;
}

void KeyKds(benchmark::State& state) {
    (void)Rows();
    for (auto _ : state) {
        const TUse before = Use();
        TKdsSide side(u"Memory");
        side.Load();
        Report(state, Use() - before, 1);
        if (side.Count() != RowCount()) state.SkipWithError("rows are missing");
    }
}

void ViewKds(benchmark::State& state, bool edited) {
    (void)Rows();
    for (auto _ : state) {
        TKdsSide side(u"Memory");
        side.LoadKept();
        const TUse before = Use();
        for (const std::u16string_view order :
             {u"Name", u"Value desc", u"Group,Name", u"Date,Id"}) {
            side.Table()->Select(order);
        }
        TRowSource source(1);
        for (std::int64_t done = 0; edited && done < RowCount() / 5; done += BatchSize) {
            for (const TRow& row : source.BatchOf(source.Ids())) {
                side.Update(side.Handle(row.Id), row);
            }
        }
        Report(state, Use() - before, 4);
        if (!side.ViewsInOrder()) state.SkipWithError("a view is out of order");
    }
}
void BuiltViewKds(benchmark::State& state) { ViewKds(state, false); }

// One view by Name, of each storage.
template <TKdsStorageKind Kind>
void StorageKds(benchmark::State& state) {
    (void)Rows();
    for (auto _ : state) {
        TKdsSide side(u"Memory");
        side.LoadKept();
        side.Table()->SetStorageFactory(StorageFactory(Kind));
        const TUse before = Use();
        side.Table()->Select(u"Name");
        Report(state, Use() - before, 1);
    }
}
void EditedViewKds(benchmark::State& state) { ViewKds(state, true); }

template <typename TSide>
void Key(benchmark::State& state) {
    (void)Rows();
    for (auto _ : state) {
        const TUse before = Use();
        TSide side;
        for (const TRow& row : Rows()) side.InsertOnly(row);
        Report(state, Use() - before, 1);
        if (side.Count() != RowCount()) state.SkipWithError("rows are missing");
    }
}

// What one more index costs, of four.
void ViewSqlite(benchmark::State& state) {
    (void)Rows();
    for (auto _ : state) {
        TSqliteSide side;
        side.Load();
        const TUse before = Use();
        side.MakeIndexes();
        Report(state, Use() - before, 4);
    }
}
void ViewBoost(benchmark::State& state) {
    (void)Rows();
    for (auto _ : state) {
        const TUse start = Use();
        TBoostSide<> keyed;
        for (const TRow& row : Rows()) keyed.InsertOnly(row);
        const TUse key = Use() - start;
        const TUse before = Use();
        TBoostSide<TByName, TByValueDesc, TByGroupName, TByDateId> side;
        for (const TRow& row : Rows()) side.InsertOnly(row);
        Report(state, Use() - before - key, 4);
    }
}

BENCHMARK(KeyKds)->Name("key/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(Key<TSqliteSide>)->Name("key/sqlite")->Unit(benchmark::kMillisecond);
BENCHMARK(Key<TBoostSide<>>)->Name("key/boost")->Unit(benchmark::kMillisecond);
BENCHMARK(BuiltViewKds)->Name("view/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(EditedViewKds)->Name("view after edits/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(StorageKds<skSkip>)->Name("storage skip/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(StorageKds<skTree>)->Name("storage tree/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(StorageKds<skList>)->Name("storage list/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(StorageKds<skLite>)->Name("storage lite/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(ViewSqlite)->Name("view/sqlite")->Unit(benchmark::kMillisecond);
BENCHMARK(ViewBoost)->Name("view/boost")->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kds
