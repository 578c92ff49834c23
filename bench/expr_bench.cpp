// Expressions beside SQLite's WHERE, in one run.
//
// Rows       A million in raw buffers as a table holds them: null word, name (12 characters of
//            8-bit text), value (float), grp (integer). SQLite has the same in memory.
// Filters    One iteration passes all rows; both sides count what they accept and must agree.
// Compile    A text of 20 terms; a chain of 10,000 terms beside the lexer alone over its text.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "kds/expr/Expressions.h"
#include "kds/expr/Exprlexer.h"
#include "kds/platform/Bytes.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

constexpr std::size_t RowCount = 1'000'000;
constexpr std::size_t FewRows = 100'000;
constexpr std::int32_t RowSize = 4 + 2 + 12 + 8 + 4;

// Buffers one behind the other; a position is the address of one.
class TRows final : public IExpressionProvider, public ITypedExpressionProvider {
public:
    TRows() : fBytes(RowCount * RowSize) {
        std::mt19937 random(1);
        for (std::size_t i = 0; i < RowCount; ++i) {
            std::byte* const row = fBytes.data() + i * RowSize;
            StoreRaw<std::uint32_t>(row, 7);
            StoreRaw<std::uint16_t>(row + 4, 12);
            for (int c = 0; c < 12; ++c) {
                row[6 + c] = static_cast<std::byte>('a' + random() % 26);
            }
            StoreRaw<double>(row + 18, static_cast<double>(random() % 100'000) / 100);
            StoreRaw<std::int32_t>(row + 26, static_cast<std::int32_t>(random() % 20'000));
        }
    }
    bool Contains(std::u16string_view name, std::int32_t& index) override {
        index = name == u"name" ? 0 : name == u"value" ? 1 : name == u"grp" ? 2 : -1;
        return index >= 0;
    }
    TVariant Evaluate(std::int32_t) override { return Null; }
    TExprColumn Describe(std::int32_t index) override {
        if (index == 0) return {ekText, false, false, {rwAnsi, 4, 0, 0, 1}};
        if (index == 1) return {ekFloat, false, false, {rwDouble, 18, 0, 0, 2}};
        return {ekInteger, false, false, {rwInt32, 26, 0, 0, 4}};
    }
    void Fetch(TExprPosition, std::int32_t, TExprTarget&) override {}
    const std::byte* Buffer(TExprPosition position) override {
        return static_cast<const std::byte*>(position.Record);
    }
    [[nodiscard]] const std::byte* Row(std::size_t i) const { return fBytes.data() + i * RowSize; }

private:
    std::vector<std::byte> fBytes;
};

const TIntf<TRows>& Rows() {
    static const auto rows = MakeIntf<TRows>();
    return rows;
}

sqlite3* Base() {
    static sqlite3* const base = [] {
        sqlite3* made = nullptr;
        sqlite3_open(":memory:", &made);
        sqlite3_exec(made,
                     "PRAGMA case_sensitive_like = ON; CREATE TABLE r(name TEXT, value REAL, grp"
                     " INTEGER); BEGIN",
                     nullptr, nullptr, nullptr);
        sqlite3_stmt* insert = nullptr;
        sqlite3_prepare_v2(made, "INSERT INTO r VALUES(?1, ?2, ?3)", -1, &insert, nullptr);
        for (std::size_t i = 0; i < RowCount; ++i) {
            const std::byte* const row = Rows()->Row(i);
            sqlite3_bind_text(insert, 1, reinterpret_cast<const char*>(row + 6), 12, SQLITE_STATIC);
            sqlite3_bind_double(insert, 2, LoadRaw<double>(row + 18));
            sqlite3_bind_int(insert, 3, LoadRaw<std::int32_t>(row + 26));
            sqlite3_step(insert);
            sqlite3_reset(insert);
        }
        sqlite3_finalize(insert);
        return made;
    }();
    return base;
}

[[nodiscard]] std::string Chain(int terms) {
    std::string text = "grp = 0";
    for (int i = 1; i < terms; ++i) text += " OR grp = " + std::to_string(i * 2);
    return text;
}
[[nodiscard]] std::string Terms20() {
    std::string text = "value * 2 + grp > 1500";
    for (int i = 1; i < 20; ++i) {
        text += i % 2 == 0 ? " AND grp <> " + std::to_string(i)
                           : " AND (name LIKE 'b%' OR value < " + std::to_string(i) + ".5)";
    }
    return text;
}

std::int64_t CountOurs(const std::string& text, std::size_t rows) {
    const auto evaluator = MakeExpressionParser()->Parse(ToUtf16(text), Rows());
    std::int64_t count = 0;
    for (std::size_t i = 0; i < rows; ++i) {
        count += evaluator->TestAt({Rows()->Row(i), erPosted}) > 0 ? 1 : 0;
    }
    return count;
}
std::int64_t CountSqlite(const std::string& text) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(Base(), ("SELECT count(*) FROM r WHERE " + text).c_str(), -1, &statement,
                       nullptr);
    sqlite3_step(statement);
    const std::int64_t count = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    return count;
}

const char* const Filters[] = {"value*2+grp > 1500 AND name LIKE 'b%'", "grp > 15000",
                               "value >= 500.5", "name = 'bbbbbbbbbbbb'"};

void FilterOurs(benchmark::State& state) {
    const std::string text = Filters[state.range(0)];
    std::int64_t count = 0;
    for (auto _ : state) count = CountOurs(text, RowCount);
    state.SetLabel(text);
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(RowCount));
    if (count != CountSqlite(text)) state.SkipWithError("the counts differ");
}
void FilterSqlite(benchmark::State& state) {
    const std::string text = Filters[state.range(0)];
    Base();
    for (auto _ : state) benchmark::DoNotOptimize(CountSqlite(text));
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(RowCount));
}
BENCHMARK(FilterOurs)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
BENCHMARK(FilterSqlite)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);

// Evaluation alone: the terms are compiled before.
void ChainEvaluate(benchmark::State& state) {
    const auto evaluator =
        MakeExpressionParser()->Parse(ToUtf16(Chain(static_cast<int>(state.range(0)))), Rows());
    for (auto _ : state) {
        for (std::size_t i = 0; i < FewRows; ++i) {
            benchmark::DoNotOptimize(evaluator->TestAt({Rows()->Row(i), erPosted}));
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(FewRows));
}
BENCHMARK(ChainEvaluate)->Arg(1)->Arg(10'000)->Unit(benchmark::kMillisecond);

void ChainLexer(benchmark::State& state) {
    const std::u16string text = ToUtf16(Chain(static_cast<int>(state.range(0))));
    for (auto _ : state) {
        TExprLexer lexer(text);
        for (lexer.Next(); lexer.Token() != tkEnd; lexer.Next()) {
        }
    }
}
void ChainCompile(benchmark::State& state) {
    const std::u16string text = ToUtf16(Chain(static_cast<int>(state.range(0))));
    const auto parser = MakeExpressionParser();
    for (auto _ : state) benchmark::DoNotOptimize(parser->Parse(text, Rows()));
}
BENCHMARK(ChainLexer)->Arg(1'000)->Arg(10'000)->Unit(benchmark::kMicrosecond);
BENCHMARK(ChainCompile)->Arg(1'000)->Arg(10'000)->Unit(benchmark::kMicrosecond);

void CompileOurs(benchmark::State& state) {
    const std::u16string text = ToUtf16(Terms20());
    const auto parser = MakeExpressionParser();
    for (auto _ : state) benchmark::DoNotOptimize(parser->Parse(text, Rows()));
}
void CompileSqlite(benchmark::State& state) {
    const std::string text = "SELECT rowid FROM r WHERE " + Terms20();
    Base();
    for (auto _ : state) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(Base(), text.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
            return state.SkipWithError("does not compile");
        }
        sqlite3_finalize(statement);
    }
}
BENCHMARK(CompileOurs)->Unit(benchmark::kMicrosecond);
BENCHMARK(CompileSqlite)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace kds
