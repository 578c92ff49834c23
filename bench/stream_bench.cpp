// Saving a table to a file and loading it back, beside SQLite's backup of a base in memory to a
// file and back; rows and units as in Rows.h, with the text as Char(16).
//
// Save       All rows with the structure into a new file, with the file's sync and without it. kds
//            with sync is SaveToFile, which renames the file into place as well. Raw: the bytes of
//            that file by fwrite in blocks of 64 KB, without sync.
// Load       From that file into a fresh table or base, the key's view built.
// Size       The file's bytes over the payload, as the counter "ratio" of SaveKds.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>

#include "bench/Rows.h"
#include "bench/Sqliterows.h"

namespace kds {
namespace {

constexpr std::int64_t Payload = 41;

std::string FileName(std::string_view name) {
    return (std::filesystem::temp_directory_path() / name).string();
}

TKdsSide& LoadedKds() {
    static TKdsSide side(u"Stream", dtChar);
    static const bool loaded = (side.LoadKept(), true);
    static_cast<void>(loaded);
    return side;
}

TSqliteSide& LoadedSqlite() {
    static TSqliteSide side;
    static const bool loaded = (side.Load(), side.Commit(), true);
    static_cast<void>(loaded);
    return side;
}

void SaveKds(benchmark::State& state, bool syncs) {
    TKdsTable* const table = LoadedKds().Table();
    const std::string name = FileName("kds_bench.kds");
    for (auto _ : state) {
        state.PauseTiming();
        FileSystem().Remove(ToUtf16(name));
        state.ResumeTiming();
        if (syncs) {
            table->SaveToFile(ToUtf16(name));
        } else {
            TFileStream stream(FileSystem().CreateExclusive(ToUtf16(name)));
            table->SaveToStream(stream);
        }
    }
    state.counters["ratio"] = static_cast<double>(std::filesystem::file_size(name)) /
                              static_cast<double>(Payload * RowCount());
}

void SaveSqlite(benchmark::State& state, bool syncs) {
    TSqliteSide& side = LoadedSqlite();
    const std::string name = FileName("kds_bench.sqlite");
    for (auto _ : state) {
        state.PauseTiming();
        std::filesystem::remove(name);
        state.ResumeTiming();
        side.BackUp(name.c_str(), syncs);
    }
}

void SaveRaw(benchmark::State& state) {
    TMemoryStream stream;
    LoadedKds().Table()->SaveToStream(stream);
    const std::string name = FileName("kds_bench.raw");
    for (auto _ : state) {
        state.PauseTiming();
        std::filesystem::remove(name);
        state.ResumeTiming();
        std::FILE* const file = std::fopen(name.c_str(), "wb");
        constexpr std::size_t block = 64 * 1024;
        const auto& bytes = stream.Bytes();
        for (std::size_t at = 0; at < bytes.size(); at += block) {
            std::fwrite(bytes.data() + at, 1, std::min(block, bytes.size() - at), file);
        }
        std::fclose(file);
    }
    std::filesystem::remove(name);
}

void LoadKds(benchmark::State& state) {
    const std::string name = FileName("kds_bench.kds");
    if (!LoadedKds().Table()->SaveToFile(ToUtf16(name))) return state.SkipWithError("not saved");
    for (auto _ : state) {
        auto side = std::make_unique<TKdsSide>(u"Load", dtChar);
        static_cast<void>(side->Table()->LoadFromFile(ToUtf16(name)));
        state.PauseTiming();
        const bool right = side->Count() == RowCount() && side->Holds(Rows().front()) &&
                           side->Holds(Rows().back()) && side->ViewsInOrder();
        side.reset();
        state.ResumeTiming();
        if (!right) return state.SkipWithError("not what was saved");
    }
    std::filesystem::remove(name);
}

void LoadSqlite(benchmark::State& state) {
    const std::string name = FileName("kds_bench.sqlite");
    std::filesystem::remove(name);
    LoadedSqlite().BackUp(name.c_str(), false);
    for (auto _ : state) {
        auto side = std::make_unique<TSqliteSide>();
        side->Commit();
        side->Restore(name.c_str());
        state.PauseTiming();
        const bool right = side->Count() == RowCount() && side->Holds(Rows().back());
        side.reset();
        state.ResumeTiming();
        if (!right) return state.SkipWithError("not what was saved");
    }
    std::filesystem::remove(name);
}

BENCHMARK_CAPTURE(SaveKds, sync, true)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(SaveSqlite, sync, true)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(SaveKds, plain, false)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(SaveSqlite, plain, false)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(SaveRaw)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(LoadKds)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(LoadSqlite)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace kds
