// The hash beside std::unordered_map and absl::flat_hash_map, and the smart list beside
// std::vector, at a million items in the same run.
//
// Data       Codes 1 to a million, as rows get their identifiers, or a million random ones below
//            80000000h; one bucket for 8 of them. The peers have room reserved. The smart list is
//            filled by appending, or by insertion at random places, which leaves its chunks
//            unevenly full.
// Checks     All three maps answer alike before anything is measured, lists as well.
// Measures   Put makes a map and fills it: the rows' codes ascending, the others as they come. Get
//            and remove go over all codes in random order. Times are those of a million; a get of
//            a list is a single one. The label of a get says what malloc and the library's own
//            pages have given out for each item.
#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/Usedmemory.h"
#include "kds/containers/Cardinalhash.h"
#include "kds/containers/Smartlist.h"

namespace kds {
namespace {

constexpr std::size_t Count = 1'000'000;
constexpr std::int32_t Buckets = 1 << 17;
constexpr std::size_t Probes = 1 << 18;

using TCodes = std::vector<std::uint32_t>;

struct TOurs {
    TCardinalHash Map{Buckets};
    void* Get(std::uint32_t code) { return Map.Get(code); }
    void Put(std::uint32_t code, void* data) { Map.Put(code, data); }
    void Remove(std::uint32_t code) { Map.Remove(code); }
};
template <typename M>
struct TPeer {
    M Map;
    TPeer() { Map.reserve(Count); }
    void* Get(std::uint32_t code) {
        const auto found = Map.find(code);
        return found == Map.end() ? nullptr : found->second;
    }
    void Put(std::uint32_t code, void* data) { Map.insert_or_assign(code, data); }
    void Remove(std::uint32_t code) { Map.erase(code); }
};
using TUnordered = TPeer<std::unordered_map<std::uint32_t, void*>>;
using TFlat = TPeer<absl::flat_hash_map<std::uint32_t, void*>>;

struct TCodeSet {
    TCodes Put;       // in the order in which they come
    TCodes Shuffled;  // the same in another

    explicit TCodeSet(bool random) {
        std::mt19937 generator(20'250'101);
        for (std::uint32_t i = 1; i <= Count; ++i) {
            Put.push_back(random ? static_cast<std::uint32_t>(generator() & 0x7FFFFFFF) : i);
        }
        if (random) {
            std::sort(Put.begin(), Put.end());
            Put.erase(std::unique(Put.begin(), Put.end()), Put.end());
            std::shuffle(Put.begin(), Put.end(), generator);
        }
        Shuffled = Put;
        std::shuffle(Shuffled.begin(), Shuffled.end(), generator);
    }
};

template <bool Random>
const TCodeSet& Codes() {
    static const TCodeSet codes(Random);
    return codes;
}

void* DataOf(std::uint32_t code) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(code) * 16);
}

template <typename H>
std::unique_ptr<H> Filled(const TCodes& codes) {
    auto map = std::make_unique<H>();
    for (const std::uint32_t code : codes) map->Put(code, DataOf(code));
    return map;
}

// Whether the map answers every code, and only what it should.
template <typename H>
bool IsRight(H& map, const TCodes& codes) {
    return map.Get(0) == nullptr &&
           std::all_of(codes.begin(), codes.end(),
                       [&](std::uint32_t code) { return map.Get(code) == DataOf(code); });
}

template <typename H, bool Random>
void Put(benchmark::State& state) {
    const TCodes& codes = Codes<Random>().Put;
    for (auto _ : state) {
        auto map = Filled<H>(codes);
        state.PauseTiming();
        if (!IsRight(*map, codes)) state.SkipWithError("results differ");
        map.reset();
        state.ResumeTiming();
    }
}

template <typename H, bool Random>
void Get(benchmark::State& state) {
    const TCodes& codes = Codes<Random>().Put;
    const double before = UsedMemory();
    const auto map = Filled<H>(codes);
    const auto tenths = static_cast<std::size_t>(10 * (UsedMemory() - before)) / codes.size();
    state.SetLabel(std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) +
                   " bytes an item");
    if (!IsRight(*map, codes)) return state.SkipWithError("results differ");
    for (auto _ : state) {
        for (const std::uint32_t code : Codes<Random>().Shuffled) {
            benchmark::DoNotOptimize(map->Get(code));
        }
    }
}

template <typename H, bool Random>
void Remove(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto map = Filled<H>(Codes<Random>().Put);
        state.ResumeTiming();
        for (const std::uint32_t code : Codes<Random>().Shuffled) map->Remove(code);
        state.PauseTiming();
        if (map->Get(Codes<Random>().Put[0]) != nullptr) state.SkipWithError("results differ");
        map.reset();
        state.ResumeTiming();
    }
}

struct TLists {
    std::vector<void*> Vector;
    TSmartList Appended, Inserted;
    std::vector<std::int32_t> Positions;
    bool Equal = true;

    TLists() {
        std::mt19937 random(20'250'101);
        for (std::uint32_t i = 0; i < Count; ++i) {
            Vector.push_back(DataOf(i));
            Appended.Add(DataOf(i));
            Inserted.Insert(static_cast<std::int32_t>(random() % (i + 1)), nullptr);
        }
        for (std::size_t i = 0; i < Count; ++i) {
            const auto at = static_cast<std::int32_t>(i);
            Inserted.SetItem(at, Vector[i]);
            Equal = Equal && Appended.Get(at) == Vector[i] && Inserted.Get(at) == Vector[i];
        }
        for (std::size_t i = 0; i < Probes; ++i) {
            Positions.push_back(static_cast<std::int32_t>(random() % Count));
        }
    }
};

template <typename F>
void RunLists(benchmark::State& state, F operation) {
    static TLists lists;
    if (!lists.Equal) return state.SkipWithError("results differ");
    std::size_t next = 0;
    for (auto _ : state) operation(lists, lists.Positions[next++ % Probes]);
}
// What is got is added up, so that each get does load its item.
template <typename F>
void SumLists(benchmark::State& state, F get) {
    std::uintptr_t sum = 0;
    RunLists(state, [&](TLists& lists, std::int32_t position) {
        sum += reinterpret_cast<std::uintptr_t>(get(lists, position));
    });
    benchmark::DoNotOptimize(sum);
}

void GetAppended(benchmark::State& state) {
    SumLists(state, [](TLists& lists, std::int32_t at) { return lists.Appended.Get(at); });
}
void GetInserted(benchmark::State& state) {
    SumLists(state, [](TLists& lists, std::int32_t at) { return lists.Inserted.Get(at); });
}
void GetFromVector(benchmark::State& state) {
    SumLists(state, [](TLists& lists, std::int32_t at) {
        return lists.Vector[static_cast<std::size_t>(at)];
    });
}
void MoveOurs(benchmark::State& state) {
    RunLists(state, [](TLists& lists, std::int32_t position) {
        lists.Inserted.Insert(position, lists.Inserted.Delete(position));
    });
}
void MoveInVector(benchmark::State& state) {
    RunLists(state, [](TLists& lists, std::int32_t position) {
        const auto place = lists.Vector.begin() + position;
        void* const item = *place;
        lists.Vector.erase(place);
        lists.Vector.insert(lists.Vector.begin() + position, item);
    });
}

template <typename H, bool Random>
void Register(const std::string& codes, const std::string& who) {
    const auto add = [&](const std::string& work, void (*routine)(benchmark::State&)) {
        benchmark::RegisterBenchmark((work + ", " + codes + "/" + who).c_str(), routine)
            ->Unit(benchmark::kMillisecond);
    };
    add("put", &Put<H, Random>);
    add("get", &Get<H, Random>);
    add("remove", &Remove<H, Random>);
}

[[maybe_unused]] const bool registered = [] {
    Register<TOurs, false>("row identifiers", "kds");
    Register<TUnordered, false>("row identifiers", "std::unordered_map");
    Register<TFlat, false>("row identifiers", "absl::flat_hash_map");
    Register<TOurs, true>("random codes", "kds");
    Register<TUnordered, true>("random codes", "std::unordered_map");
    Register<TFlat, true>("random codes", "absl::flat_hash_map");
    return true;
}();

BENCHMARK(GetAppended)->Name("get from an appended list/kds");
BENCHMARK(GetFromVector)->Name("get from an appended list/std::vector");
BENCHMARK(GetInserted)->Name("get from an edited list/kds");
BENCHMARK(GetFromVector)->Name("get from an edited list/std::vector");
BENCHMARK(MoveOurs)->Name("delete and insert in a list/kds");
BENCHMARK(MoveInVector)->Name("delete and insert in a list/std::vector");

}  // namespace
}  // namespace kds

BENCHMARK_MAIN();
