// Writes into a memo column that shares its texts, beside a search in absl::flat_hash_set, and what
// such a column costs in memory.
//
// Data       A thousand distinct texts of 40 random letters, in a random order of a million.
// Checks     The rows read back what was written; the dictionary holds each text once.
// Measures   Write: into one row that is being built, beside rows with all the texts; each write
//            finds the new text and gives the old one back. Find: one search of the same text.
//            Memory: what malloc and the library's pages give out for a million rows with an
//            int32 and such a text, above rows without that column, per row; the slot takes 8 of
//            these bytes.
#include <absl/container/flat_hash_set.h>
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "bench/Usedmemory.h"
#include "kds/kds.h"

namespace kds {
namespace {

constexpr std::size_t Distinct = 1000;
constexpr std::size_t Size = 40;
constexpr std::int32_t RowCount = 1'000'000;

const std::vector<std::string>& Texts() {
    static const std::vector<std::string> texts = [] {
        std::mt19937 random(1);
        std::vector<std::string> made(Distinct, std::string(Size, ' '));
        for (std::string& text : made) {
            for (char& letter : text) letter = static_cast<char>('a' + random() % 26);
        }
        return made;
    }();
    return texts;
}

const std::vector<std::uint16_t>& Order() {
    static const std::vector<std::uint16_t> order = [] {
        std::mt19937 random(2);
        std::vector<std::uint16_t> made(1 << 20);
        for (std::uint16_t& place : made) place = static_cast<std::uint16_t>(random() % Distinct);
        return made;
    }();
    return order;
}

const std::string& TextOf(std::size_t i) { return Texts()[Order()[i % Order().size()]]; }

class TPooled {
public:
    explicit TPooled(bool hasText) : fTable(TKdsTable::Create(u"Pooled")) {
        fTable->Columns()->Add(u"Number", dtInteger);
        if (!hasText) return;
        Text = fTable->Columns()->Add(u"Text", dtMemoString);
        Text->SetDictionary(u"Texts");
    }
    TKdsRecord* Insert(std::size_t i) {
        TOwned<TKdsRecord> row = fTable->NewRow();
        row->Set(fTable->Columns()->Items(0), static_cast<std::int32_t>(i));
        if (Text != nullptr) row->Set(Text, TextOf(i));
        return fTable->Records()->Add(std::move(row));
    }
    [[nodiscard]] TOwned<TKdsRecord> NewRow() { return fTable->NewRow(); }
    [[nodiscard]] std::size_t CountTexts() const {
        TKdsStringManager* const strings = fTable->Strings();
        return static_cast<std::size_t>(strings->GetDictionary(Text)->Count());
    }
    TKdsColumn* Text = nullptr;

private:
    TOwned<TKdsTable> fTable;
};

void Write(benchmark::State& state) {
    TPooled side(true);
    for (std::size_t i = 0; side.CountTexts() < Distinct; ++i) side.Insert(i);
    const TOwned<TKdsRecord> row = side.NewRow();
    std::size_t i = 0;
    for (auto _ : state) row->Set(side.Text, TextOf(i++));
    if (*row->Get<std::string_view>(side.Text) != TextOf(i - 1)) {
        state.SkipWithError("another text");
    }
}
BENCHMARK(Write);

void FindAbsl(benchmark::State& state) {
    const absl::flat_hash_set<std::string> set(Texts().begin(), Texts().end());
    std::size_t i = 0;
    for (auto _ : state) {
        const auto found = set.find(TextOf(i++));
        benchmark::DoNotOptimize(found->data());
    }
}
BENCHMARK(FindAbsl);

double UseOf(bool hasText, benchmark::State& state) {
    const double before = UsedMemory();
    TPooled side(hasText);
    for (std::size_t i = 0; i < RowCount; ++i) side.Insert(i);
    if (hasText && side.CountTexts() != Distinct) state.SkipWithError("not each text once");
    return UsedMemory() - before;
}

void Memory(benchmark::State& state) {
    (void)TextOf(0);
    for (auto _ : state) {
        const double without = UseOf(false, state);
        state.counters["bytes_a_row"] = (UseOf(true, state) - without) / RowCount;
    }
}
BENCHMARK(Memory)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
}  // namespace kds
