// The two trees beside std::set and the ranked index of Boost.MultiIndex, at a million items, same
// order of operations, same run.
//
// Data       Pointers to records of 48 bytes with ascending keys, put in in random order, so that
//            nodes and records are as scattered as edits leave them. The red-black tree and the set
//            compare through the same callback. Boost's index orders the records by key, which
//            takes the place of a position in an insertion; beside it stands an insertion with the
//            position's element as the hint.
// Checks     Each has the records in the same order as its peer before anything is measured.
// Measures   A look-up is one operation at a random position. Insertions and removals come in
//            batches of 100,000 random records of the million, and one iteration is a batch; what
//            undoes it is not measured. A removal through a node of the red-black tree includes
//            telling the record whose node became another one.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <boost/multi_index/identity.hpp>
#include <boost/multi_index/ranked_index.hpp>
#include <boost/multi_index_container.hpp>
#include <cstdint>
#include <iterator>
#include <memory>
#include <random>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include "kds/containers/Cartesiantree.h"
#include "kds/containers/Redblacktree.h"

namespace kds {
namespace {

constexpr std::int32_t Count = 1'000'000;
constexpr std::size_t Probes = 1 << 18;
constexpr std::size_t Batch = 100'000;

struct TRow {
    std::int64_t Key;
    PRedBlackNode Node;
    char Payload[32];
};

std::int32_t CompareKeys(void* a, void* b) {
    const std::int64_t left = static_cast<TRow*>(a)->Key;
    const std::int64_t right = static_cast<TRow*>(b)->Key;
    return left < right ? -1 : left > right ? 1 : 0;
}
struct TByCallback {
    TBinaryTreeCompare Compare = TBinaryTreeCompare::Bind<&CompareKeys>();
    bool operator()(TRow* a, TRow* b) const { return Compare(a, b) < 0; }
};
struct TByKey {
    bool operator()(const TRow* a, const TRow* b) const { return a->Key < b->Key; }
};
using TSet = std::set<TRow*, TByCallback>;
using TRanked = boost::multi_index_container<
    TRow*, boost::multi_index::indexed_by<
               boost::multi_index::ranked_unique<boost::multi_index::identity<TRow*>, TByKey>>>;

// The records in key order, and in the order in which they are put in.
struct TRows {
    std::vector<TRow> Rows = std::vector<TRow>(Count);
    std::vector<TRow*> Order;
    std::size_t Next = 0;

    TRows() {
        for (std::int32_t i = 0; i < Count; ++i) {
            Rows[static_cast<std::size_t>(i)].Key = i;
            Order.push_back(&Rows[static_cast<std::size_t>(i)]);
        }
        std::shuffle(Order.begin(), Order.end(), std::mt19937(20'250'101));
    }
    TRow* Any() { return Order[Next++ % Probes * 3]; }
    std::int32_t Position() { return static_cast<std::int32_t>(Any()->Key); }
    // Other records each time.
    std::span<TRow* const> NextBatch() {
        Next = (Next / Batch + 1) * Batch % Count;
        return std::span(Order).subspan(Next, Batch);
    }
};
TRows& Rows() {
    static TRows rows;
    return rows;
}

// --- By value ------------------------------------------------------------------------------------

struct TSorted {
    TRedBlackTree Tree;
    TSet Set;
    std::vector<TSet::iterator> Places = std::vector<TSet::iterator>(Count);  // by key
    bool Equal = true;

    TSorted() {
        Tree.SetOnCompare(TBinaryTreeCompare::Bind<&CompareKeys>());
        for (TRow* row : Rows().Order) {
            Tree.Insert(row);
            Places[static_cast<std::size_t>(row->Key)] = Set.insert(row).first;
        }
        for (PRedBlackNode node : Tree) static_cast<TRow*>(node->Value)->Node = node;
        Equal = std::equal(Tree.begin(), Tree.end(), Set.begin(), Set.end(),
                           [](PRedBlackNode node, TRow* row) { return node->Value == row; });
    }
    void InsertOurs(TRow* row) { Tree.Insert(row); }
    void InsertPeer(TRow* row) {
        Places[static_cast<std::size_t>(row->Key)] = Set.insert(row).first;
    }
    void EraseOurs(TRow* row) {
        PRedBlackNode node = row->Node;
        PRedBlackNode nil = TRedBlackNode::Nil();
        const bool stays = node->Left != nil && node->Right != nil;
        Tree.Delete(node);
        if (stays) static_cast<TRow*>(node->Value)->Node = node;
    }
    void ErasePeer(TRow* row) { Set.erase(Places[static_cast<std::size_t>(row->Key)]); }
    void FindNode(TRow* row) { row->Node = Tree.Search(row); }
};
TSorted& Sorted() {
    static TSorted sorted;
    return sorted;
}

// What is measured never contains the making of the data: that is asked for first.
void SearchOurs(benchmark::State& state) {
    TSorted& all = Sorted();
    if (!all.Equal) return state.SkipWithError("results differ");
    for (auto _ : state) benchmark::DoNotOptimize(all.Tree.Search(Rows().Any()));
}
void SearchSet(benchmark::State& state) {
    TSorted& all = Sorted();
    for (auto _ : state) benchmark::DoNotOptimize(all.Set.find(Rows().Any()));
}

// Measures `timed` for each record of a batch, and not what comes before and after.
template <typename B, typename T, typename A>
void RunBatches(benchmark::State& state, B before, T timed, A after) {
    for (auto _ : state) {
        state.PauseTiming();
        const auto batch = Rows().NextBatch();
        for (TRow* row : batch) before(row);
        state.ResumeTiming();
        for (TRow* row : batch) timed(row);
        state.PauseTiming();
        for (TRow* row : batch) after(row);
        state.ResumeTiming();
    }
}

void Nothing(TRow*) {}

void InsertIntoOurs(benchmark::State& state) {
    TSorted& all = Sorted();
    RunBatches(
        state, [&](TRow* row) { all.EraseOurs(row); }, [&](TRow* row) { all.InsertOurs(row); },
        [&](TRow* row) { all.FindNode(row); });
}
void InsertIntoSet(benchmark::State& state) {
    TSorted& all = Sorted();
    RunBatches(
        state, [&](TRow* row) { all.ErasePeer(row); }, [&](TRow* row) { all.InsertPeer(row); },
        Nothing);
}
void EraseFromOurs(benchmark::State& state) {
    TSorted& all = Sorted();
    RunBatches(
        state, Nothing, [&](TRow* row) { all.EraseOurs(row); },
        [&](TRow* row) {
            all.InsertOurs(row);
            all.FindNode(row);
        });
}
void EraseFromSet(benchmark::State& state) {
    TSorted& all = Sorted();
    RunBatches(
        state, Nothing, [&](TRow* row) { all.ErasePeer(row); },
        [&](TRow* row) { all.InsertPeer(row); });
}

void BuildOurs(benchmark::State& state) {
    const auto& order = Rows().Order;
    for (auto _ : state) {
        TRedBlackTree tree;
        tree.SetOnCompare(TBinaryTreeCompare::Bind<&CompareKeys>());
        for (TRow* row : order) tree.Insert(row);
        benchmark::DoNotOptimize(tree.GetCount());
    }
}
void BuildSet(benchmark::State& state) {
    const auto& order = Rows().Order;
    for (auto _ : state) {
        TSet set;
        for (TRow* row : order) set.insert(row);
        benchmark::DoNotOptimize(set.size());
    }
}
void WalkOurs(benchmark::State& state) {
    const TRedBlackTree& tree = Sorted().Tree;
    for (auto _ : state) {
        for (PRedBlackNode node : tree) benchmark::DoNotOptimize(node);
    }
}
void WalkSet(benchmark::State& state) {
    const TSet& set = Sorted().Set;
    for (auto _ : state) {
        for (TRow* row : set) benchmark::DoNotOptimize(row);
    }
}

// --- By position ---------------------------------------------------------------------------------

struct TPlaced {
    TCartesianTree Tree;
    TRanked Ranked;
    std::vector<PCartesianNode> Nodes = std::vector<PCartesianNode>(Count);  // by key
    std::vector<TRanked::iterator> Places = std::vector<TRanked::iterator>(Count);
    bool Equal = true;

    TPlaced() {
        for (TRow* row : Rows().Order) {
            const auto place = Ranked.insert(row).first;
            Places[static_cast<std::size_t>(row->Key)] = place;
            Nodes[static_cast<std::size_t>(row->Key)] =
                Tree.Insert(static_cast<std::int32_t>(Ranked.rank(place)), row);
        }
        Equal = std::equal(Tree.begin(), Tree.end(), Ranked.begin(), Ranked.end(),
                           [](PCartesianNode node, TRow* row) { return node->Value == row; });
    }
};
TPlaced& Placed() {
    static TPlaced placed;
    return placed;
}

// The positions at which the records of a batch are taken out one by one and, in the opposite
// order, put in again: the same for both.
const std::vector<std::int32_t>& Positions() {
    static const std::vector<std::int32_t> positions = [] {
        std::mt19937 random(20'250'102);
        std::vector<std::int32_t> drawn;
        for (std::size_t i = 0; i < Batch; ++i) {
            drawn.push_back(static_cast<std::int32_t>(random() % (Count - i)));
        }
        return drawn;
    }();
    return positions;
}

void GetOurs(benchmark::State& state) {
    TPlaced& all = Placed();
    if (!all.Equal) return state.SkipWithError("results differ");
    for (auto _ : state) benchmark::DoNotOptimize(all.Tree.ByIndex(Rows().Position()));
}
void GetRanked(benchmark::State& state) {
    TPlaced& all = Placed();
    for (auto _ : state) {
        const auto position = static_cast<std::size_t>(Rows().Position());
        benchmark::DoNotOptimize(all.Ranked.nth(position));
    }
}
void IndexOurs(benchmark::State& state) {
    TPlaced& all = Placed();
    for (auto _ : state) {
        const auto key = static_cast<std::size_t>(Rows().Position());
        benchmark::DoNotOptimize(all.Tree.IndexOf(all.Nodes[key]));
    }
}
void IndexRanked(benchmark::State& state) {
    TPlaced& all = Placed();
    for (auto _ : state) {
        const auto key = static_cast<std::size_t>(Rows().Position());
        benchmark::DoNotOptimize(all.Ranked.rank(all.Places[key]));
    }
}

enum class TPart { Removal, Insertion };

// Removes at every position of the batch and undoes it; measures one of the two.
template <typename R, typename I>
void RunPlaces(benchmark::State& state, TPart measured, R remove, I insert) {
    std::vector<TRow*> taken;
    taken.reserve(Batch);
    for (auto _ : state) {
        if (measured != TPart::Removal) state.PauseTiming();
        taken.clear();
        for (const std::int32_t position : Positions()) taken.push_back(remove(position));
        measured == TPart::Removal ? state.PauseTiming() : state.ResumeTiming();
        for (std::size_t i = Batch; i-- > 0;) insert(Positions()[i], taken[i]);
        if (measured == TPart::Removal) state.ResumeTiming();
    }
}
void PlacesOurs(benchmark::State& state, TPart measured) {
    TPlaced& all = Placed();
    RunPlaces(
        state, measured,
        [&](std::int32_t position) { return static_cast<TRow*>(all.Tree.Delete(position)); },
        [&](std::int32_t position, TRow* row) {
            all.Nodes[static_cast<std::size_t>(row->Key)] = all.Tree.Insert(position, row);
        });
}
void PlacesRanked(benchmark::State& state, TPart measured, bool withHint) {
    TPlaced& all = Placed();
    RunPlaces(
        state, measured,
        [&](std::int32_t position) {
            const auto place = all.Ranked.nth(static_cast<std::size_t>(position));
            TRow* const row = *place;
            all.Ranked.erase(place);
            return row;
        },
        [&](std::int32_t position, TRow* row) {
            auto& place = all.Places[static_cast<std::size_t>(row->Key)];
            if (withHint) {
                place = all.Ranked.insert(all.Ranked.nth(static_cast<std::size_t>(position)), row);
            } else {
                place = all.Ranked.insert(row).first;
            }
        });
}
void RemoveOurs(benchmark::State& state) { PlacesOurs(state, TPart::Removal); }
void RemoveRanked(benchmark::State& state) { PlacesRanked(state, TPart::Removal, false); }
void PlaceOurs(benchmark::State& state) { PlacesOurs(state, TPart::Insertion); }
void PlaceRanked(benchmark::State& state) { PlacesRanked(state, TPart::Insertion, false); }
void PlaceRankedWithHint(benchmark::State& state) { PlacesRanked(state, TPart::Insertion, true); }

constexpr auto Milliseconds = benchmark::kMillisecond;

BENCHMARK(SearchOurs)->Name("find a value/kds");
BENCHMARK(SearchSet)->Name("find a value/std::set");
BENCHMARK(InsertIntoOurs)->Name("insert 100,000 values/kds")->Unit(Milliseconds);
BENCHMARK(InsertIntoSet)->Name("insert 100,000 values/std::set")->Unit(Milliseconds);
BENCHMARK(EraseFromOurs)->Name("erase 100,000 nodes/kds")->Unit(Milliseconds);
BENCHMARK(EraseFromSet)->Name("erase 100,000 nodes/std::set")->Unit(Milliseconds);
BENCHMARK(BuildOurs)->Name("insert a million values and clear/kds")->Unit(Milliseconds);
BENCHMARK(BuildSet)->Name("insert a million values and clear/std::set")->Unit(Milliseconds);
BENCHMARK(WalkOurs)->Name("walk over a million values/kds")->Unit(Milliseconds);
BENCHMARK(WalkSet)->Name("walk over a million values/std::set")->Unit(Milliseconds);
BENCHMARK(GetOurs)->Name("get at a random position/kds");
BENCHMARK(GetRanked)->Name("get at a random position/Boost ranked");
BENCHMARK(IndexOurs)->Name("position of a known node/kds");
BENCHMARK(IndexRanked)->Name("position of a known node/Boost ranked");
BENCHMARK(PlaceOurs)->Name("insert at 100,000 positions/kds")->Unit(Milliseconds);
BENCHMARK(PlaceRanked)->Name("insert at 100,000 positions/Boost ranked")->Unit(Milliseconds);
BENCHMARK(PlaceRankedWithHint)
    ->Name("insert at 100,000 positions/Boost ranked with hint")
    ->Unit(Milliseconds);
BENCHMARK(RemoveOurs)->Name("delete at 100,000 positions/kds")->Unit(Milliseconds);
BENCHMARK(RemoveRanked)->Name("delete at 100,000 positions/Boost ranked")->Unit(Milliseconds);

}  // namespace
}  // namespace kds

BENCHMARK_MAIN();
