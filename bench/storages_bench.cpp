// The four view storages beside each other, with one view by Name, and beside the peers; rows as in
// Rows.h. Memory is in memory_bench.
//
// Build      Select of all rows, in real time, because a view sorts on several threads.
// Edits      One iteration inserts a thousand rows, or deletes as many, of random names; the key's
//            view is of the usual storage and has its part in the time.
// Positions  Ten thousand random rows, or one row again and again; random positions.
#include <memory>

#include "bench/Boostrows.h"
#include "bench/Rows.h"

namespace kds {
namespace {

constexpr std::int64_t EditSize = 1'000;

class TStorageSide : public TKdsSide {
public:
    explicit TStorageSide(TKdsStorageKind kind) : TKdsSide(NameOf(kind)) {
        LoadKept();
        Table()->SetStorageFactory(StorageFactory(kind));
        View = Table()->Select(u"Name");
    }
    static std::u16string NameOf(TKdsStorageKind kind) {
        return Format(u"Storage%d", {static_cast<int>(kind)});
    }
    TKdsView* View;
};

TStorageSide& SideOf(TKdsStorageKind kind) {
    static std::unique_ptr<TStorageSide> sides[4];
    std::unique_ptr<TStorageSide>& side = sides[static_cast<std::size_t>(kind)];
    if (side == nullptr) side = std::make_unique<TStorageSide>(kind);
    return *side;
}

TBoostSide<TByName>& BoostSide() {
    static const auto side = [] {
        auto made = std::make_unique<TBoostSide<TByName>>();
        made->LoadKept();
        return made;
    }();
    return *side;
}

const std::vector<std::int64_t>& RandomIds() {
    static const std::vector<std::int64_t> ids = [] {
        std::vector<std::int64_t> made;
        TRowSource source(9);
        for (int i = 0; i < 1'000'000; ++i) made.push_back(source.Id());
        return made;
    }();
    return ids;
}

template <typename T, typename F>
void Probe(benchmark::State& state, const std::vector<T>& items, F&& probe) {
    std::size_t next = 0;
    for (auto _ : state) {
        for (std::size_t i = 0; i < std::size_t{BatchSize}; ++i) probe(items[next + i]);
        next = (next + BatchSize) % items.size();
    }
}

void Build(benchmark::State& state, TKdsStorageKind kind) {
    TKdsTable* const table = SideOf(kind).Table();
    for (auto _ : state) {
        TKdsView* const view = table->Select(u"Name");
        state.PauseTiming();
        if (view->Count() != RowCount()) state.SkipWithError("rows are missing");
        view->Free();
        state.ResumeTiming();
    }
}

void Insert(benchmark::State& state, TKdsStorageKind kind) {
    TStorageSide& side = SideOf(kind);
    static TRowSource source(5);
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<TRow> rows = source.Batch(RowCount() + 1);
        rows.resize(EditSize);
        state.ResumeTiming();
        for (const TRow& row : rows) side.InsertKept(row);
        state.PauseTiming();
        if (side.View->Count() != RowCount() + EditSize) {
            return state.SkipWithError("an insertion was lost");
        }
        for (const TRow& row : rows) side.Delete(side.Handle(row.Id));
        state.ResumeTiming();
    }
}

void Delete(benchmark::State& state, TKdsStorageKind kind) {
    TStorageSide& side = SideOf(kind);
    static TRowSource source(6);
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<TRow> rows = source.Batch(RowCount() + 1);
        rows.resize(EditSize);
        for (const TRow& row : rows) side.InsertKept(row);
        state.ResumeTiming();
        for (const TRow& row : rows) side.Delete(side.Handle(row.Id));
        state.PauseTiming();
        if (side.View->Count() != RowCount()) return state.SkipWithError("rows are left");
        state.ResumeTiming();
    }
}

void Find(benchmark::State& state, TKdsStorageKind kind) {
    const TStorageSide& side = SideOf(kind);
    Probe(state, HandlesOf(side, RandomIds()),
          [&](TKdsRecord* record) { benchmark::DoNotOptimize(side.View->IndexOf(record)); });
}
void FindBoost(benchmark::State& state) {
    const auto& side = BoostSide();
    const auto& view = side.Set().get<1>();
    Probe(state, HandlesOf(side, RandomIds()), [&](const auto& place) {
        benchmark::DoNotOptimize(view.rank(side.Set().template project<1>(place)));
    });
}

void FindAgain(benchmark::State& state, TKdsStorageKind kind) {
    const TStorageSide& side = SideOf(kind);
    TKdsRecord* const record = side.Handle(RowCount() / 2);
    for (auto _ : state) benchmark::DoNotOptimize(side.View->IndexOf(record));
}

// Adds up what it gets, so that nobody is asked for a place alone.
void Get(benchmark::State& state, TKdsStorageKind kind) {
    const TKdsView* const view = SideOf(kind).View;
    std::uintptr_t sum = 0;
    Probe(state, RandomIds(), [&](std::int64_t id) {
        sum += reinterpret_cast<std::uintptr_t>(view->ItemAt(static_cast<std::int32_t>(id - 1)));
    });
    benchmark::DoNotOptimize(sum);
}
void GetVector(benchmark::State& state) {
    const TKdsView* const view = SideOf(skSkip).View;
    const std::vector<TKdsRecord*> rows(view->begin(), view->end());
    std::uintptr_t sum = 0;
    Probe(state, RandomIds(), [&](std::int64_t id) {
        sum += reinterpret_cast<std::uintptr_t>(rows[static_cast<std::size_t>(id - 1)]);
    });
    benchmark::DoNotOptimize(sum);
}

using TWork = void (*)(benchmark::State&, TKdsStorageKind);

void Register(const char* name, TWork work, benchmark::TimeUnit unit, bool realTime = false) {
    for (const auto& [kind, who] : {std::pair{skSkip, "skip"}, std::pair{skTree, "tree"},
                                    std::pair{skList, "list"}, std::pair{skLite, "lite"}}) {
        auto* const made = benchmark::RegisterBenchmark(
            (std::string(name) + " " + who + "/kds").c_str(),
            [work, kind = kind](benchmark::State& state) { work(state, kind); });
        made->Unit(unit);
        if (realTime) made->UseRealTime();
        if (work == Find) {
            benchmark::RegisterBenchmark((std::string(name) + " " + who + "/boost").c_str(),
                                         FindBoost)
                ->Unit(unit);
        } else if (work == Get) {
            benchmark::RegisterBenchmark((std::string(name) + " " + who + "/vector").c_str(),
                                         GetVector)
                ->Unit(unit);
        }
    }
}

const bool Registered = [] {
    Register("build", Build, benchmark::kMillisecond, true);
    Register("insert 1k", Insert, benchmark::kMillisecond);
    Register("delete 1k", Delete, benchmark::kMillisecond);
    Register("position of 10k rows", Find, benchmark::kMillisecond);
    Register("position of a row, again", FindAgain, benchmark::kNanosecond);
    Register("row at 10k positions", Get, benchmark::kMicrosecond);
    return true;
}();

}  // namespace
}  // namespace kds
