// The unrolled skip list beside std::vector and the ranked index of Boost.MultiIndex, at a million
// items, same positions, same run.
//
// Data       Pointers to records of 48 bytes with ascending keys. The list and the ranked index are
//            filled in random order, so their memory is as scattered as edits leave it. Boost's
//            index orders the records by key, which takes the place of a position in an insertion.
// Checks     Both hold the same records in the same order before anything is measured.
// Measures   One iteration is one operation at a random position; positions come from a table.
//            Moving takes a record out and puts it in again, so the size stays.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <boost/multi_index/identity.hpp>
#include <boost/multi_index/ranked_index.hpp>
#include <boost/multi_index_container.hpp>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "kds/containers/Unrolledskiplist.h"

namespace kds {
namespace {

constexpr std::int32_t Count = 1'000'000;
constexpr std::size_t Probes = 1 << 18;

struct TRow {
    std::int64_t Key;
    char Payload[40];
};
struct TByKey {
    bool operator()(const TRow* a, const TRow* b) const { return a->Key < b->Key; }
};
using TRanked = boost::multi_index_container<
    TRow*, boost::multi_index::indexed_by<
               boost::multi_index::ranked_unique<boost::multi_index::identity<TRow*>, TByKey>>>;

class TBuckets final : public ISkipListTracker {
public:
    void Placed(void* const* items, std::int32_t count, std::uint32_t bucketId,
                std::int32_t) noexcept override {
        for (std::int32_t i = 0; i < count; ++i) {
            Ids[static_cast<std::size_t>(static_cast<TRow*>(items[i])->Key)] = bucketId;
        }
    }
    void Cleared() noexcept override {}

    std::vector<std::uint32_t> Ids = std::vector<std::uint32_t>(Count);
};

// Everything of one run. The list's records lie in key order, as the ranked index has them.
struct TData {
    std::vector<TRow> Rows = std::vector<TRow>(Count);
    TBuckets Buckets;
    TUnrolledSkipList List;
    TRanked Ranked;
    std::vector<void*> Vector;
    std::vector<std::int32_t> Positions;
    std::size_t Next = 0;
    bool Equal = true;

    TData() {
        std::mt19937 random(20'250'101);
        std::vector<TRow*> order;
        for (std::int32_t i = 0; i < Count; ++i) {
            TRow& row = Rows[static_cast<std::size_t>(i)];
            row.Key = i;
            order.push_back(&row);
            Vector.push_back(&row);
        }
        std::shuffle(order.begin(), order.end(), random);
        List.SetTracker(&Buckets);
        for (TRow* row : order) {
            Ranked.insert(row);
            std::int32_t index = 0;
            static_cast<void>(List.Find(row, index, TComparator::Bind<&CompareKeys>()));
            List.Insert(index, row);
        }
        for (std::size_t i = 0; i < Probes; ++i) {
            Positions.push_back(static_cast<std::int32_t>(random() % Count));
        }
        Equal = std::equal(Ranked.begin(), Ranked.end(), List.begin(), List.end());
    }
    static std::int32_t CompareKeys(void* a, void* b) {
        const std::int64_t left = static_cast<TRow*>(a)->Key;
        const std::int64_t right = static_cast<TRow*>(b)->Key;
        return left < right ? -1 : left > right ? 1 : 0;
    }
    std::int32_t Position() { return Positions[Next++ % Probes]; }
};

TData& Data() {
    static TData data;
    return data;
}

template <typename F>
void Run(benchmark::State& state, F operation) {
    TData& data = Data();
    if (!data.Equal) return state.SkipWithError("results differ");
    for (auto _ : state) operation(data, data.Position());
}

void MoveOurs(benchmark::State& state) {
    Run(state, [](TData& data, std::int32_t position) {
        // Back to where it was, so that the order by key stands for the others.
        data.List.Insert(position, data.List.Delete(position));
    });
}
void MoveInVector(benchmark::State& state) {
    Run(state, [](TData& data, std::int32_t position) {
        void* const row = data.Vector[static_cast<std::size_t>(position)];
        data.Vector.erase(data.Vector.begin() + position);
        data.Vector.insert(data.Vector.begin() + position, row);
    });
}
void MoveRanked(benchmark::State& state) {
    Run(state, [](TData& data, std::int32_t position) {
        const auto found = data.Ranked.nth(static_cast<std::size_t>(position));
        TRow* const row = *found;
        data.Ranked.erase(found);
        data.Ranked.insert(row);
    });
}

void GetOurs(benchmark::State& state) {
    Run(state, [](TData& data, std::int32_t position) {
        benchmark::DoNotOptimize(data.List.Get(position));
    });
}
void GetRanked(benchmark::State& state) {
    Run(state, [](TData& data, std::int32_t position) {
        benchmark::DoNotOptimize(*data.Ranked.nth(static_cast<std::size_t>(position)));
    });
}

void PositionOurs(benchmark::State& state) {
    Run(state, [](TData& data, std::int32_t position) {
        const auto row = static_cast<std::size_t>(position);
        benchmark::DoNotOptimize(data.List.FindInBucket(data.Buckets.Ids[row], &data.Rows[row]));
    });
}
void PositionRanked(benchmark::State& state) {
    TData& data = Data();
    std::vector<TRanked::iterator> known;  // by key; found outside the measurement
    known.reserve(Count);
    for (auto each = data.Ranked.begin(); each != data.Ranked.end(); ++each) known.push_back(each);
    Run(state, [&](TData& all, std::int32_t position) {
        benchmark::DoNotOptimize(all.Ranked.rank(known[static_cast<std::size_t>(position)]));
    });
}

void AppendOurs(benchmark::State& state) {
    for (auto _ : state) {
        TUnrolledSkipList list;
        for (std::int32_t i = 0; i < Count; ++i) list.Add(&list);
        benchmark::DoNotOptimize(list.Count());
    }
}
void AppendToVector(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<void*> list;
        for (std::int32_t i = 0; i < Count; ++i) list.push_back(&list);
        benchmark::DoNotOptimize(list.data());
    }
}

void WalkOurs(benchmark::State& state) {
    for (auto _ : state) {
        for (void* item : Data().List) benchmark::DoNotOptimize(item);
    }
}
void WalkOursByPosition(benchmark::State& state) {
    for (auto _ : state) {
        for (std::int32_t i = 0; i < Count; ++i) benchmark::DoNotOptimize(Data().List.Get(i));
    }
}
void WalkRanked(benchmark::State& state) {
    for (auto _ : state) {
        for (TRow* row : Data().Ranked) benchmark::DoNotOptimize(row);
    }
}

BENCHMARK(MoveOurs)->Name("delete and insert at a random position/kds");
BENCHMARK(MoveInVector)->Name("delete and insert at a random position/std::vector");
BENCHMARK(MoveRanked)->Name("delete and insert at a random position/Boost ranked");
BENCHMARK(GetOurs)->Name("get at a random position/kds");
BENCHMARK(GetRanked)->Name("get at a random position/Boost ranked");
BENCHMARK(PositionOurs)->Name("position of a known item/kds");
BENCHMARK(PositionRanked)->Name("position of a known item/Boost ranked");
BENCHMARK(AppendOurs)->Name("append a million/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(AppendToVector)->Name("append a million/std::vector")->Unit(benchmark::kMillisecond);
BENCHMARK(WalkOurs)->Name("walk over a million/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(WalkRanked)->Name("walk over a million/Boost ranked")->Unit(benchmark::kMillisecond);
BENCHMARK(WalkOursByPosition)->Name("walk by position/kds")->Unit(benchmark::kMillisecond);
BENCHMARK(WalkRanked)->Name("walk by position/Boost ranked")->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kds

BENCHMARK_MAIN();
