// Rows without further views beside SQLite, and posts that no view cares about beside
// Boost.MultiIndex; rows, peers and units as in Rows.h.
//
// Load       All rows by ascending key into a fresh table, every check and notification on: typed
//            values on NewRow, then Records()->Add. Once as it is and once inside a load bracket,
//            which builds the key's view at its end. SQLite: one transaction. Neither side's end is
//            measured.
// Find       A random key among all, by variant through Records()->Find, and one value of the row.
// Post       Edit, one value that no view orders by, Post, of a row that the host holds; none, four
//            and eight views beside the key's, nobody listening. Boost: modify through an iterator,
//            four indexes beside the key's.
#include <memory>

#include "bench/Boostrows.h"
#include "bench/Rows.h"
#include "bench/Sqliterows.h"

namespace kds {
namespace {

// ---- load -----------------------------------------------------------------------------------

void LoadKds(benchmark::State& state, bool massive) {
    const std::vector<TRow>& rows = Rows();
    for (auto _ : state) {
        auto side = std::make_unique<TKdsSide>(u"Load");
        if (massive) {
            TKdsLoad load(side->Table(), mtsMassive);
            side->Load();
            load.Leave();
        } else {
            side->Load();
        }
        state.PauseTiming();
        const bool right = side->Count() == RowCount() && side->Holds(rows.front()) &&
                           side->Holds(rows.back()) && side->ViewsInOrder();
        side.reset();
        state.ResumeTiming();
        if (!right) return state.SkipWithError("not what was loaded");
    }
}
void LoadRegular(benchmark::State& state) { LoadKds(state, false); }
void LoadMassive(benchmark::State& state) { LoadKds(state, true); }

void LoadSqlite(benchmark::State& state) {
    const std::vector<TRow>& rows = Rows();
    for (auto _ : state) {
        auto side = std::make_unique<TSqliteSide>();
        side->Load();
        side->Commit();
        state.PauseTiming();
        const bool right =
            side->Count() == RowCount() && side->Holds(rows.front()) && side->Holds(rows.back());
        side.reset();
        state.ResumeTiming();
        if (!right) return state.SkipWithError("not what was loaded");
    }
}

// ---- find -----------------------------------------------------------------------------------

template <typename TSide>
TSide& Loaded();
template <>
TKdsSide& Loaded() {
    static TKdsSide side(u"Find");
    if (side.Count() == 0) side.Load();
    return side;
}
template <>
TSqliteSide& Loaded() {
    static TSqliteSide side;
    if (side.Count() == 0) side.Load();
    return side;
}

template <typename TSide>
void Find(benchmark::State& state) {
    TSide& side = Loaded<TSide>();
    TRowSource source(3);
    for (auto _ : state) {
        state.PauseTiming();
        const std::vector<std::int64_t> ids = source.Ids();
        double expected = 0;
        for (const std::int64_t id : ids)
            expected += Rows()[static_cast<std::size_t>(id - 1)].Value;
        state.ResumeTiming();
        double sum = 0;
        for (const std::int64_t id : ids) sum += side.FindValue(id);
        if (sum != expected) return state.SkipWithError("wrong rows");
    }
}

// The position alone, without the row.
void FindPosition(benchmark::State& state) {
    TKdsSide& side = Loaded<TKdsSide>();
    TRowSource source(3);
    TKdsView* const view = side.Table()->PrimaryView();
    for (auto _ : state) {
        state.PauseTiming();
        const std::vector<std::int64_t> ids = source.Ids();
        state.ResumeTiming();
        bool right = true;
        for (const std::int64_t id : ids) right &= view->Find({id}) == id - 1;
        if (!right) return state.SkipWithError("wrong positions");
    }
}

// ---- post -----------------------------------------------------------------------------------

template <int Views>
TKdsSide& Posted() {
    static const std::u16string_view orders[] = {
        u"Name",      u"Group,Name",     u"Date,Id",    u"Group desc,Date",
        u"Name desc", u"Date desc,Name", u"Date,Group", u"Id desc"};
    static TKdsSide side(Views == 0 ? u"Post0" : Views == 4 ? u"Post4" : u"Post8");
    if (side.Count() == 0) {
        side.LoadKept();
        for (int i = 0; i < Views; ++i) side.Table()->Select(orders[i]);
    }
    return side;
}

auto& PostedInBoost() {
    static TBoostSide<TByName, TByGroupName, TByDateId, TByGroupDescDate> side;
    if (side.Count() == 0) side.LoadKept();
    return side;
}

template <typename TSide>
void PostQuietly(benchmark::State& state, TSide& side) {
    static TRowSource source(4);  // a run goes on where the one before ended
    std::vector<std::int64_t> ids;
    double value = 0;
    for (auto _ : state) {
        state.PauseTiming();
        ids = source.Ids();
        value = source.Value();
        const auto handles = HandlesOf(side, ids);
        state.ResumeTiming();
        for (const auto& handle : handles) side.UpdateValue(handle, value);
    }
    for (const std::int64_t id : ids) {
        TRow row = Rows()[static_cast<std::size_t>(id - 1)];
        row.Value = value;
        if (!side.Holds(row)) return state.SkipWithError("a post was lost");
    }
    if (!side.ViewsInOrder()) state.SkipWithError("a view is out of order");
}
template <int Views>
void PostKds(benchmark::State& state) {
    PostQuietly(state, Posted<Views>());
}
void PostBoost(benchmark::State& state) { PostQuietly(state, PostedInBoost()); }

BENCHMARK(LoadRegular)->Name("load, ascending key/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(LoadSqlite)->Name("load, ascending key/sqlite")->Unit(benchmark::kMillisecond);
BENCHMARK(LoadMassive)->Name("load, ascending key, bracket/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(LoadSqlite)->Name("load, ascending key, bracket/sqlite")->Unit(benchmark::kMillisecond);
BENCHMARK(Find<TKdsSide>)->Name("find 10k keys and read/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(Find<TSqliteSide>)->Name("find 10k keys and read/sqlite")->Unit(benchmark::kMillisecond);
BENCHMARK(FindPosition)->Name("find 10k keys, position alone/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(PostKds<0>)->Name("post 10k no key changes, 0 views/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(PostKds<4>)->Name("post 10k no key changes, 4 views/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(PostBoost)->Name("post 10k no key changes, 4 views/boost")->Unit(benchmark::kMillisecond);
BENCHMARK(PostKds<8>)->Name("post 10k no key changes, 8 views/kds")->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kds
