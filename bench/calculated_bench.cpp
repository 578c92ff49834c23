// What a calculated column costs: rows and units as in Rows.h, and a column beside them that is
// calculated as `Value * 2 + Group`.
//
// Post       Edit, one value, Post, of a row that the host holds; no view looks at it. Beside the
//            same rows with a plain column in the place of the calculated one.
// Build      Select by the column that is calculated on reading, beside the stored one. In real
//            time, because a view sorts on several threads.
#include <memory>

#include "bench/Rows.h"

namespace kds {
namespace {

enum TStorage { Plain, Stored, Unstored };

class TSide : public TKdsSide {
public:
    explicit TSide(TStorage storage)
        : TKdsSide(storage == Plain    ? u"Plain"
                   : storage == Stored ? u"Stored"
                                       : u"Unstored") {
        Sum = Table()->Columns()->Add(u"Sum", dtDouble);
        if (storage != Plain) {
            Sum->SetCalculated(true, storage == Stored);
            Sum->SetExpression(u"Value * 2 + [Group]");
        }
        LoadKept();
        if (storage == Stored) Table()->Recalculate();
    }
    [[nodiscard]] bool SumsAreRight(const std::vector<std::int64_t>& ids) const {
        return std::ranges::all_of(ids, [&](std::int64_t id) {
            const TRow row = Read(Handle(id));
            return Handle(id)->Get<double>(Sum) == row.Value * 2 + row.Group;
        });
    }
    TKdsColumn* Sum;
};

template <TStorage Storage>
TSide& Side() {
    static TSide side(Storage);
    return side;
}

template <TStorage Storage>
void Post(benchmark::State& state) {
    TSide& side = Side<Storage>();
    static TRowSource source(4);  // a run goes on where the one before ended
    std::vector<std::int64_t> ids;
    for (auto _ : state) {
        state.PauseTiming();
        ids = source.Ids();
        const double value = source.Value();
        const auto handles = HandlesOf(side, ids);
        state.ResumeTiming();
        for (TKdsRecord* const handle : handles) side.UpdateValue(handle, value);
    }
    if (Storage != Plain && !side.SumsAreRight(ids)) state.SkipWithError("wrong sums");
}

template <TStorage Storage>
void Build(benchmark::State& state) {
    TSide& side = Side<Storage>();
    for (auto _ : state) {
        TKdsView* const view = side.Table()->Select(u"Sum");
        state.PauseTiming();
        bool isRight = view->Count() == RowCount();
        for (std::int32_t i = 1; i < view->Count(); i += 997) {
            isRight &= *view->Items(i - 1)->Get<double>(side.Sum) <=
                       *view->Items(i)->Get<double>(side.Sum);
        }
        view->Free();
        state.ResumeTiming();
        if (!isRight) return state.SkipWithError("not in order");
    }
}

BENCHMARK(Post<Plain>)->Name("post 10k rows/plain")->Unit(benchmark::kMillisecond);
BENCHMARK(Post<Stored>)->Name("post 10k rows/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(Build<Stored>)
    ->Name("view by a calculated column/stored")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(Build<Unstored>)
    ->Name("view by a calculated column/kds")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kds
