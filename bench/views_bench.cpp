// Live ordered views beside SQLite with as many indexes and beside Boost.MultiIndex with a ranked
// index a view; rows, peers and units as in Rows.h.
//
// Views      By Name; by Value descending; by Group and Name; by Date and Id. Nobody listens.
// Edits      One iteration edits ten thousand rows. Insert: new rows behind the last key; they are
//            deleted again outside the measurement. Post: every value of random rows but the key,
//            so that each row moves in each view; or the double alone, so that it moves in one.
//            Delete: random rows; new ones with the same keys take their place unmeasured. Hosts
//            hold the record or the iterator; SQLite finds the row by its key.
// Positions  In the view by name, random positions and random rows.
// Build      Select on a table without further views with an accept routine that takes half of the
//            rows, against std::stable_sort of pointers to the accepted rows, gathered before the
//            measurement. In real time, because a view sorts on several threads.
#include <memory>

#include "bench/Boostrows.h"
#include "bench/Rows.h"
#include "bench/Sqliterows.h"

namespace kds {
namespace {

class TLiveKdsSide : public TKdsSide {
public:
    TLiveKdsSide() : TKdsSide(u"Live") {
        LoadKept();
        for (const std::u16string_view order :
             {u"Name", u"Value desc", u"Group,Name", u"Date,Id"}) {
            Table()->Select(order);
        }
    }
    // Behind the key's.
    [[nodiscard]] TKdsView* ByName() const { return Table()->Views()->Items(1); }
};
class TLiveBoostSide : public TBoostSide<TByName, TByValueDesc, TByGroupName, TByDateId> {
public:
    TLiveBoostSide() { LoadKept(); }
};
class TLiveSqliteSide : public TSqliteSide {
public:
    TLiveSqliteSide() { LoadKept(); }
};

template <typename TSide>
TSide& Live() {
    static TSide side;
    return side;
}

template <typename TSide>
void CheckEdits(benchmark::State& state, TSide& side, const std::vector<TRow>& written) {
    for (const TRow& row : written) {
        if (!side.Holds(row)) return state.SkipWithError("an edit was lost");
    }
    if (side.Count() != RowCount()) return state.SkipWithError("wrong number of rows");
    if (!side.ViewsInOrder()) return state.SkipWithError("a view is out of order");
}

template <typename TSide>
void Insert(benchmark::State& state) {
    auto& side = Live<TSide>();
    static TRowSource source(5);  // a run goes on where the one before ended
    for (auto _ : state) {
        state.PauseTiming();
        const std::vector<TRow> rows = source.Batch(RowCount() + 1);
        state.ResumeTiming();
        for (const TRow& row : rows) side.InsertKept(row);
        state.PauseTiming();
        if (!side.Holds(rows.front()) || side.Count() != RowCount() + BatchSize) {
            return state.SkipWithError("an insertion was lost");
        }
        for (const TRow& row : rows) side.Delete(side.Handle(row.Id));
        state.ResumeTiming();
    }
    CheckEdits(state, side, {});
}

template <typename TSide>
void Post(benchmark::State& state) {
    auto& side = Live<TSide>();
    static TRowSource source(6);  // a run goes on where the one before ended
    std::vector<TRow> rows;
    for (auto _ : state) {
        state.PauseTiming();
        rows = source.BatchOf(source.Ids());
        const auto handles = HandlesOf(side, rows);
        state.ResumeTiming();
        for (std::size_t i = 0; i < rows.size(); ++i) side.Update(handles[i], rows[i]);
    }
    CheckEdits(state, side, rows);
}

template <typename TSide>
void PostOne(benchmark::State& state) {
    auto& side = Live<TSide>();
    static TRowSource source(7);  // a run goes on where the one before ended
    for (auto _ : state) {
        state.PauseTiming();
        const std::vector<TRow> rows = source.BatchOf(source.Ids());
        const auto handles = HandlesOf(side, rows);
        state.ResumeTiming();
        for (std::size_t i = 0; i < rows.size(); ++i) side.UpdateValue(handles[i], rows[i].Value);
    }
    CheckEdits(state, side, {});
}

template <typename TSide>
void Delete(benchmark::State& state) {
    auto& side = Live<TSide>();
    static TRowSource source(8);  // a run goes on where the one before ended
    std::vector<TRow> rows;
    for (auto _ : state) {
        state.PauseTiming();
        rows = source.BatchOf(source.Ids());
        const auto handles = HandlesOf(side, rows);
        state.ResumeTiming();
        for (const auto& handle : handles) side.Delete(handle);
        state.PauseTiming();
        if (side.Count() != RowCount() - BatchSize) return state.SkipWithError("rows are left");
        for (const TRow& row : rows) side.InsertKept(row);
        state.ResumeTiming();
    }
    CheckEdits(state, side, rows);
}

// ---- positions --------------------------------------------------------------------------------

const std::vector<std::int64_t>& RandomIds() {
    static const std::vector<std::int64_t> ids = [] {
        std::vector<std::int64_t> made;
        TRowSource source(9);
        for (int i = 0; i < 1'000'000; ++i) made.push_back(source.Id());
        return made;
    }();
    return ids;
}

// Calls `probe` with a batch of these an iteration.
template <typename T, typename F>
void Probe(benchmark::State& state, const std::vector<T>& items, F&& probe) {
    std::size_t next = 0;
    for (auto _ : state) {
        for (std::size_t i = 0; i < std::size_t{BatchSize}; ++i) probe(items[next + i]);
        next = (next + BatchSize) % items.size();
    }
}

void ItemKds(benchmark::State& state) {
    const TKdsView* const view = Live<TLiveKdsSide>().ByName();
    Probe(state, RandomIds(), [&](std::int64_t id) {
        benchmark::DoNotOptimize(view->Items(static_cast<std::int32_t>(id - 1)));
    });
}
void ItemBoost(benchmark::State& state) {
    const auto& view = Live<TLiveBoostSide>().Set().get<1>();
    Probe(state, RandomIds(), [&](std::int64_t id) {
        benchmark::DoNotOptimize(view.nth(static_cast<std::size_t>(id - 1)));
    });
}
// And one value of it: a node of the peer holds the row, a view holds a pointer to it.
void ItemReadKds(benchmark::State& state) {
    const TLiveKdsSide& side = Live<TLiveKdsSide>();
    const TKdsView* const view = side.ByName();
    Probe(state, RandomIds(), [&](std::int64_t id) {
        benchmark::DoNotOptimize(side.IdOf(view->Items(static_cast<std::int32_t>(id - 1))));
    });
}
void ItemReadBoost(benchmark::State& state) {
    const auto& view = Live<TLiveBoostSide>().Set().get<1>();
    Probe(state, RandomIds(), [&](std::int64_t id) {
        benchmark::DoNotOptimize(view.nth(static_cast<std::size_t>(id - 1))->Id);
    });
}

void PositionKds(benchmark::State& state) {
    const TLiveKdsSide& side = Live<TLiveKdsSide>();
    const TKdsView* const view = side.ByName();
    Probe(state, HandlesOf(side, RandomIds()),
          [&](TKdsRecord* record) { benchmark::DoNotOptimize(view->IndexOf(record)); });
}
void PositionBoost(benchmark::State& state) {
    const TLiveBoostSide& side = Live<TLiveBoostSide>();
    const auto& view = side.Set().get<1>();
    Probe(state, HandlesOf(side, RandomIds()), [&](TLiveBoostSide::TPlace place) {
        benchmark::DoNotOptimize(view.rank(side.Set().project<1>(place)));
    });
}

// ---- build ------------------------------------------------------------------------------------

TKdsSide& Plain() {
    static TKdsSide side(u"Build");
    if (side.Count() == 0) side.Load();
    return side;
}

template <typename TOrder>
std::vector<const TRow*> Accepted() {
    std::vector<const TRow*> accepted;
    for (const TRow& row : Rows()) {
        if (row.Group < 500) accepted.push_back(&row);
    }
    return accepted;
}
template <typename TOrder>
void SortPointers(std::vector<const TRow*>& rows) {
    std::stable_sort(rows.begin(), rows.end(),
                     [](const TRow* a, const TRow* b) { return TOrder()(*a, *b); });
}

template <typename TOrder>
void BuildKds(benchmark::State& state, std::u16string_view order) {
    TKdsSide& side = Plain();
    std::vector<const TRow*> expected = Accepted<TOrder>();
    SortPointers<TOrder>(expected);
    const auto accept = [&](TKdsView*, TKdsRecord* record, bool& accepted) {
        accepted = side.InLowerHalf(record);
    };
    for (auto _ : state) {
        TKdsView* const view =
            side.Table()->Select(order, {}, TKdsAcceptRecordEvent::BindCall(&accept));
        state.PauseTiming();
        bool right = view->Count() == static_cast<std::int32_t>(expected.size());
        for (std::int32_t i = 0; right && i < view->Count(); ++i) {
            right = side.IdOf(view->Items(i)) == expected[static_cast<std::size_t>(i)]->Id;
        }
        view->Free();
        state.ResumeTiming();
        if (!right) return state.SkipWithError("wrong order");
    }
}
template <typename TOrder>
void BuildSorted(benchmark::State& state) {
    const std::vector<const TRow*> accepted = Accepted<TOrder>();
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<const TRow*> rows = accepted;
        state.ResumeTiming();
        SortPointers<TOrder>(rows);
        benchmark::DoNotOptimize(rows.data());
    }
}

void BuildByName(benchmark::State& state) { BuildKds<TByName>(state, u"Name"); }
void BuildByValue(benchmark::State& state) { BuildKds<TByValueDesc>(state, u"Value desc"); }
void BuildByGroupName(benchmark::State& state) { BuildKds<TByGroupName>(state, u"Group,Name"); }

constexpr auto Milliseconds = benchmark::kMillisecond;

BENCHMARK(Insert<TLiveKdsSide>)->Name("insert 10k, 4 views/kds")->Unit(Milliseconds);
BENCHMARK(Insert<TLiveSqliteSide>)->Name("insert 10k, 4 views/sqlite")->Unit(Milliseconds);
BENCHMARK(Insert<TLiveBoostSide>)->Name("insert 10k, 4 views/boost")->Unit(Milliseconds);
BENCHMARK(Post<TLiveKdsSide>)->Name("post 10k, moving in 4 views/kds")->Unit(Milliseconds);
BENCHMARK(Post<TLiveSqliteSide>)->Name("post 10k, moving in 4 views/sqlite")->Unit(Milliseconds);
BENCHMARK(Post<TLiveBoostSide>)->Name("post 10k, moving in 4 views/boost")->Unit(Milliseconds);
BENCHMARK(PostOne<TLiveKdsSide>)->Name("post 10k, moving in 1 of 4/kds")->Unit(Milliseconds);
BENCHMARK(PostOne<TLiveSqliteSide>)->Name("post 10k, moving in 1 of 4/sqlite")->Unit(Milliseconds);
BENCHMARK(PostOne<TLiveBoostSide>)->Name("post 10k, moving in 1 of 4/boost")->Unit(Milliseconds);
BENCHMARK(Delete<TLiveKdsSide>)->Name("delete 10k, 4 views/kds")->Unit(Milliseconds);
BENCHMARK(Delete<TLiveSqliteSide>)->Name("delete 10k, 4 views/sqlite")->Unit(Milliseconds);
BENCHMARK(Delete<TLiveBoostSide>)->Name("delete 10k, 4 views/boost")->Unit(Milliseconds);
BENCHMARK(ItemKds)->Name("row at 10k positions/kds")->Unit(Milliseconds);
BENCHMARK(ItemBoost)->Name("row at 10k positions/boost")->Unit(Milliseconds);
BENCHMARK(ItemReadKds)->Name("row at 10k positions, read/kds")->Unit(Milliseconds);
BENCHMARK(ItemReadBoost)->Name("row at 10k positions, read/boost")->Unit(Milliseconds);
BENCHMARK(PositionKds)->Name("position of 10k rows/kds")->Unit(Milliseconds);
BENCHMARK(PositionBoost)->Name("position of 10k rows/boost")->Unit(Milliseconds);
BENCHMARK(BuildByName)->Name("build half by name/kds")->Unit(Milliseconds)->UseRealTime();
BENCHMARK(BuildSorted<TByName>)
    ->Name("build half by name/stable_sort")
    ->Unit(Milliseconds)
    ->UseRealTime();
BENCHMARK(BuildByValue)->Name("build half by value/kds")->Unit(Milliseconds)->UseRealTime();
BENCHMARK(BuildSorted<TByValueDesc>)
    ->Name("build half by value/stable_sort")
    ->Unit(Milliseconds)
    ->UseRealTime();
BENCHMARK(BuildByGroupName)
    ->Name("build half by group, name/kds")
    ->Unit(Milliseconds)
    ->UseRealTime();
BENCHMARK(BuildSorted<TByGroupName>)
    ->Name("build half by group, name/stable_sort")
    ->Unit(Milliseconds)
    ->UseRealTime();

}  // namespace
}  // namespace kds
