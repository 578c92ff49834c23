// What looking into another table costs: a million detail rows (KDS_BENCH_ROWS) over 1,000 or
// 100,000 master rows, keyed by int32.
//
// Read       Of ten thousand rows, at random or the same hundred again and again: the master's
//            caption beside a text of the row's own.
// Resolve    Writing the key of a detached row beside finding the master by its primary key.
// Follow     A view of the details ordered by the caption: one post of a master and one of a
//            detail, and a look at the view after each; beside building the view anew after each.
#include <memory>
#include <random>

#include "bench/Rows.h"

namespace kds {
namespace {

class TLookupSide {
public:
    explicit TLookupSide(int masters) : fMasterCount(masters) {
        fStore = TKdsStore::Create(Format(u"Lookups%d", {masters}));
        Masters = fStore->Tables()->Add(u"Masters");
        Masters->Columns()->Add(u"Id", dtInteger);
        Masters->Columns()->Add(u"Caption", dtAnsiString, 16);
        Masters->SetPrimaryKey(u"Id");
        Details = fStore->Tables()->Add(u"Details");
        Details->Columns()->Add(u"Id", dtInteger);
        Key = Details->Columns()->Add(u"Master", dtInteger);
        Own = Details->Columns()->Add(u"Own", dtAnsiString, 16);
        Key->ForeignKey(u"Masters", u"Id");
        Caption = Details->Columns()->AddLookup(u"Caption", u"Master", u"Caption");
        for (int i = 0; i < masters; ++i) Masters->Insert({i, Name(i)});
        TKdsLoad load(Details, mtsMassive);
        for (std::int64_t i = 0; i < RowCount(); ++i) {
            const int master = Draw(masters);
            Rows.push_back(Details->Insert({i, master, Name(master)}));
        }
        load.Leave();
        std::ranges::shuffle(Rows, fRandom);
    }
    ~TLookupSide() { fStore->Free(); }
    TLookupSide(const TLookupSide&) = delete;
    TLookupSide& operator=(const TLookupSide&) = delete;

    int Draw(int bound) { return static_cast<int>(fRandom() % static_cast<unsigned>(bound)); }
    std::u16string Name(int i) { return Format(u"%d of %d", {Draw(1'000'000), i}); }
    [[nodiscard]] int MasterCount() const noexcept { return fMasterCount; }

    TKdsTable* Masters;
    TKdsTable* Details;
    TKdsColumn* Key;
    TKdsColumn* Own;
    TKdsColumn* Caption;
    std::vector<TKdsRecord*> Rows;

private:
    std::mt19937 fRandom{7};
    int fMasterCount;
    TKdsStore* fStore;
};

template <int Masters>
TLookupSide& Side() {
    static TLookupSide side(Masters);
    return side;
}

template <int Masters, bool IsLookup, int Distinct>
void Read(benchmark::State& state) {
    TLookupSide& side = Side<Masters>();
    const TKdsColumn* const column = IsLookup ? side.Caption : side.Own;
    std::size_t next = 0;
    std::int64_t sum = 0;
    for (auto _ : state) {
        for (int i = 0; i < 10'000; ++i) {
            const void* data = nullptr;
            std::int32_t size = 0;
            if (!side.Rows[next]->GetDataP(column, data, size)) {
                return state.SkipWithError("nothing there");
            }
            sum += *static_cast<const char*>(data);
            next = next + 1 == (Distinct == 0 ? side.Rows.size() : Distinct) ? 0 : next + 1;
        }
    }
    benchmark::DoNotOptimize(sum);
}

template <int Masters>
void Resolve(benchmark::State& state) {
    TLookupSide& side = Side<Masters>();
    const TOwned<TKdsRecord> row = side.Details->NewRow();
    for (auto _ : state) {
        for (int i = 0; i < 10'000; ++i) {
            row->Set<std::int32_t>(side.Key, side.Draw(side.MasterCount()));
        }
    }
}
template <int Masters>
void FindMaster(benchmark::State& state) {
    TLookupSide& side = Side<Masters>();
    for (auto _ : state) {
        for (int i = 0; i < 10'000; ++i) {
            benchmark::DoNotOptimize(side.Masters->Records()->Find({side.Draw(Masters)}));
        }
    }
}

template <int Masters, bool IsLive>
void Follow(benchmark::State& state) {
    TLookupSide& side = Side<Masters>();
    TKdsView* const view = side.Details->Select(u"Caption");
    for (auto _ : state) {
        TKdsRecord* const master = side.Masters->Records()->Items(side.Draw(Masters));
        {
            TKdsEdit edit(master);
            master->SetDataI(1, side.Name(1));
            edit.Post();
        }
        if (!IsLive) view->Refresh();
        benchmark::DoNotOptimize(view->Items(0));
        TKdsRecord* const row = side.Rows[static_cast<std::size_t>(side.Draw(10'000))];
        TKdsEdit edit(row);
        row->Set<std::int32_t>(side.Key, side.Draw(Masters));
        edit.Post();
        if (!IsLive) view->Refresh();
        benchmark::DoNotOptimize(view->Items(0));
    }
    view->Free();
}

constexpr auto Microseconds = benchmark::kMicrosecond;
constexpr auto Milliseconds = benchmark::kMillisecond;

BENCHMARK(Read<1'000, true, 0>)->Name("read 10k at random, 1k masters/kds")->Unit(Microseconds);
BENCHMARK(Read<1'000, false, 0>)->Name("read 10k at random, 1k masters/plain")->Unit(Microseconds);
BENCHMARK(Read<1'000, true, 100>)->Name("read 10k in cache, 1k masters/kds")->Unit(Microseconds);
BENCHMARK(Read<1'000, false, 100>)->Name("read 10k in cache, 1k masters/plain")->Unit(Microseconds);
BENCHMARK(Read<100'000, true, 0>)->Name("read 10k at random, 100k masters/kds")->Unit(Microseconds);
BENCHMARK(Read<100'000, false, 0>)
    ->Name("read 10k at random, 100k masters/plain")
    ->Unit(Microseconds);
BENCHMARK(Resolve<1'000>)->Name("resolve 10k keys, 1k masters/kds")->Unit(Microseconds);
BENCHMARK(FindMaster<1'000>)->Name("resolve 10k keys, 1k masters/find")->Unit(Microseconds);
BENCHMARK(Resolve<100'000>)->Name("resolve 10k keys, 100k masters/kds")->Unit(Microseconds);
BENCHMARK(FindMaster<100'000>)->Name("resolve 10k keys, 100k masters/find")->Unit(Microseconds);
BENCHMARK(Follow<1'000, true>)->Name("follow two posts, 1k masters/kds")->Unit(Milliseconds);
BENCHMARK(Follow<1'000, false>)
    ->Name("follow two posts, 1k masters/build")
    ->Unit(Milliseconds)
    ->Iterations(1);

}  // namespace
}  // namespace kds
