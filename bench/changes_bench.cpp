// What those cost who follow a view; rows and units as in Rows.h.
//
// View       One by Name beside the key's, a million rows. Nobody, an ordinary link, a change link;
//            each link adds up the positions that it hears of.
// Work       One iteration posts ten thousand random rows that the host holds. In place: the
//            double, which no view orders by; alone, nobody is told and the views are passed over.
//            Moving: every value but the key. Batch: in one change bracket. Uploads: in one
//            mtsUploads bracket, where the ordinary link hears of the end alone.
// Position   Of ten thousand random rows in the view: what telling of a row has to find out.
#include <memory>

#include "bench/Rows.h"

namespace kds {
namespace {

constexpr auto Milliseconds = benchmark::kMillisecond;

class TFollowedSide : public TKdsSide {
public:
    TFollowedSide() : TKdsSide(u"Followed") {
        LoadKept();
        Table()->Select(u"Name");
    }
    [[nodiscard]] TKdsView* ByName() const { return Table()->Views()->Items(1); }
};

TFollowedSide& Side() {
    static TFollowedSide side;
    return side;
}

// Of all works: a post of the value that a row has already is no change.
TRowSource& Source() {
    static TRowSource source(41);
    return source;
}

struct TNobody {
    explicit TNobody(TKdsView*) {}
    std::int64_t Heard = 0;
};
struct TOrdinary {
    explicit TOrdinary(TKdsView* view) { Link.SetView(view); }
    void Hear(TKdsView*, TKdsEvent* event) { Heard += event->NewRow + 1; }
    std::int64_t Heard = 0;
    TKdsViewHandler Link{TKdsViewEvent::Bind<&TOrdinary::Hear>(this)};
};
struct TChanges {
    explicit TChanges(TKdsView* view) { Link.SetView(view); }
    void Hear(TKdsView*, const TKdsChangeList& list) {
        for (const TKdsChange& change : list) Heard += change.To + 1;
    }
    std::int64_t Heard = 0;
    TKdsChangeHandler Link{TKdsChangeEvent::Bind<&TChanges::Hear>(this)};
};

enum class TBracket { Each, Batch, Uploads };

template <typename F>
void InBracket(TBracket bracket, F&& work) {
    if (bracket == TBracket::Uploads) {
        TKdsLoad load(Side().Table(), mtsUploads);
        work();
        load.Leave();
    } else if (bracket == TBracket::Batch) {
        const TKdsChangeBracket batch(Side().Table());
        work();
    } else {
        work();
    }
}

template <typename TWho, bool Moves, TBracket Bracket>
void Post(benchmark::State& state) {
    TFollowedSide& side = Side();
    TWho who(side.ByName());
    for (auto _ : state) {
        state.PauseTiming();
        const std::vector<TRow> rows = Source().BatchOf(Source().Ids());
        const auto handles = HandlesOf(side, rows);
        who.Heard = 0;
        state.ResumeTiming();
        InBracket(Bracket, [&] {
            for (std::size_t i = 0; i < rows.size(); ++i) {
                if constexpr (Moves) {
                    side.Update(handles[i], rows[i]);
                } else {
                    side.UpdateValue(handles[i], rows[i].Value);
                }
            }
        });
        state.PauseTiming();
        const bool silent = std::is_same_v<TWho, TNobody> ||
                            (std::is_same_v<TWho, TOrdinary> && Bracket == TBracket::Uploads);
        if (!silent && who.Heard < BatchSize) return state.SkipWithError("something was not told");
        if (!side.ViewsInOrder()) return state.SkipWithError("a view is out of order");
        state.ResumeTiming();
    }
}

void Position(benchmark::State& state) {
    TFollowedSide& side = Side();
    TKdsView* const view = side.ByName();
    for (auto _ : state) {
        state.PauseTiming();
        const auto handles = HandlesOf(side, Source().Ids());
        state.ResumeTiming();
        std::int64_t sum = 0;
        for (TKdsRecord* const record : handles) sum += view->IndexOf(record);
        benchmark::DoNotOptimize(sum);
    }
}

constexpr auto Each = TBracket::Each;
constexpr auto Batch = TBracket::Batch;
constexpr auto Uploads = TBracket::Uploads;

BENCHMARK(Position)->Name("position of 10k rows/kds")->Unit(Milliseconds);
BENCHMARK(Post<TNobody, false, Each>)->Name("post 10k in place/nobody")->Unit(Milliseconds);
BENCHMARK(Post<TOrdinary, false, Each>)->Name("post 10k in place/link")->Unit(Milliseconds);
BENCHMARK(Post<TChanges, false, Each>)->Name("post 10k in place/changes")->Unit(Milliseconds);
BENCHMARK(Post<TNobody, true, Each>)->Name("post 10k moving/nobody")->Unit(Milliseconds);
BENCHMARK(Post<TOrdinary, true, Each>)->Name("post 10k moving/link")->Unit(Milliseconds);
BENCHMARK(Post<TChanges, true, Each>)->Name("post 10k moving/changes")->Unit(Milliseconds);
BENCHMARK(Post<TOrdinary, false, Batch>)->Name("batch of 10k in place/link")->Unit(Milliseconds);
BENCHMARK(Post<TChanges, false, Batch>)->Name("batch of 10k in place/changes")->Unit(Milliseconds);
BENCHMARK(Post<TOrdinary, true, Batch>)->Name("batch of 10k moving/link")->Unit(Milliseconds);
BENCHMARK(Post<TChanges, true, Batch>)->Name("batch of 10k moving/changes")->Unit(Milliseconds);
BENCHMARK(Post<TOrdinary, false, Uploads>)
    ->Name("uploads of 10k in place/link")
    ->Unit(Milliseconds);
BENCHMARK(Post<TChanges, false, Uploads>)
    ->Name("uploads of 10k in place/changes")
    ->Unit(Milliseconds);
BENCHMARK(Post<TOrdinary, true, Uploads>)->Name("uploads of 10k moving/link")->Unit(Milliseconds);
BENCHMARK(Post<TChanges, true, Uploads>)->Name("uploads of 10k moving/changes")->Unit(Milliseconds);

}  // namespace
}  // namespace kds
