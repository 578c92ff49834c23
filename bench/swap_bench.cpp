// What rows that wait in a temporary file cost; rows and units as in Rows.h, with the text as
// Char(16) and a tenth of the rows in memory.
//
// Read       A value of ten thousand rows at random that are out, beside as many reads of one row's
//            bytes at random places of a file of the same size, which the system has in its cache
//            in both cases; that file was written in batches, as the rows were, or at once, which
//            the system reads faster. Again: a value of the row that was read last.
// Out        One append that sends a batch of 1024 rows out, beside 1024 writes of one row's bytes
//            each, at the end of a file.
#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "bench/Rows.h"

namespace kds {
namespace {

constexpr int Batch = 1024;
constexpr int ReadsAtOnce = 10'000;

class TSwapSide : public TKdsSide {
public:
    TSwapSide() : TKdsSide(u"Swap", dtChar) {
        Table()->SetMaxRecordsInMemory(static_cast<std::int32_t>(RowCount() / 10));
        Table()->Swapper()->SetCachedRecordsBatch(Batch);
        for (const TRow& row : Rows()) fRows.push_back(Insert(row));
        Value = Table()->Columns()->Columns(u"Value");
    }
    [[nodiscard]] TKdsRecord* Row(std::size_t i) const { return fRows[i]; }
    [[nodiscard]] std::size_t CountOut() const {
        return static_cast<std::size_t>(Table()->Swapper()->CachedRecordsCount());
    }
    [[nodiscard]] std::int64_t Reads() const { return Table()->Swapper()->Reads(); }
    void Append() {
        TRow row = Rows()[static_cast<std::size_t>(fNext % RowCount())];
        row.Id = RowCount() + ++fNext;
        Insert(row);
    }
    // Until the next append sends a batch out.
    void Fill() {
        const TKdsSwapper* const swapper = Table()->Swapper();
        while (swapper->RecordsInMemory() < swapper->MaxRecordsInMemory()) Append();
    }
    [[nodiscard]] std::size_t ImageSize() const {
        return static_cast<std::size_t>(Table()->Layout().RecordSize());
    }
    TKdsColumn* Value = nullptr;

private:
    std::vector<TKdsRecord*> fRows;
    std::int64_t fNext = 0;
};

TSwapSide& Side() {
    static TSwapSide side;
    return side;
}

// A file of its own, which has no name any more.
class TRawFile {
public:
    TRawFile(std::size_t size, std::size_t atOnce) {
        std::string name = (std::filesystem::temp_directory_path() / "kds_swap_XXXXXX").string();
        fHandle = ::mkstemp(name.data());
        ::unlink(name.c_str());
        const std::vector<char> bytes(atOnce, 'x');
        for (std::size_t at = 0; at < size; at += bytes.size()) {
            if (::pwrite(fHandle, bytes.data(), bytes.size(), static_cast<off_t>(at)) < 0) {
                std::abort();
            }
        }
    }
    ~TRawFile() { ::close(fHandle); }
    TRawFile(const TRawFile&) = delete;
    TRawFile& operator=(const TRawFile&) = delete;
    [[nodiscard]] int Handle() const noexcept { return fHandle; }

private:
    int fHandle;
};

std::vector<std::size_t> Places() {
    std::mt19937 random(5);
    std::vector<std::size_t> places;
    for (int i = 0; i < ReadsAtOnce; ++i) places.push_back(random() % Side().CountOut());
    return places;
}

void ReadKds(benchmark::State& state) {
    TSwapSide& side = Side();
    std::vector<TKdsRecord*> rows;
    double expected = 0;
    for (const std::size_t place : Places()) {
        rows.push_back(side.Row(place));
        expected += Rows()[place].Value;
    }
    const std::int64_t before = side.Reads();
    double sum = 0;
    for (auto _ : state) {
        for (TKdsRecord* const row : rows) sum += *row->Get<double>(side.Value);
    }
    const auto rounds = static_cast<double>(state.iterations());
    if (std::abs(sum / rounds / expected - 1) > 1e-9) state.SkipWithError("other values");
    const auto reads = static_cast<double>(side.Reads() - before);
    if (reads / rounds < ReadsAtOnce * 0.99) state.SkipWithError("rows were in memory");
}
void ReadRaw(benchmark::State& state, bool inBatches) {
    const std::size_t size = Side().ImageSize();
    const std::size_t all = size * Side().CountOut();
    const TRawFile file(all, inBatches ? size * Batch : all);
    const std::vector<std::size_t> places = Places();
    std::vector<char> bytes(size);
    for (auto _ : state) {
        for (const std::size_t place : places) {
            if (::pread(file.Handle(), bytes.data(), size, static_cast<off_t>(place * size)) !=
                static_cast<ssize_t>(size)) {
                return state.SkipWithError("not read");
            }
            benchmark::DoNotOptimize(bytes.data());
        }
    }
}
void ReadAgain(benchmark::State& state) {
    TSwapSide& side = Side();
    TKdsRecord* const row = side.Row(side.CountOut() / 2);
    for (auto _ : state) benchmark::DoNotOptimize(*row->Get<double>(side.Value));
}

void OutKds(benchmark::State& state) {
    TSwapSide& side = Side();
    for (auto _ : state) {
        state.PauseTiming();
        side.Fill();
        const std::size_t before = side.CountOut();
        state.ResumeTiming();
        side.Append();
        if (side.CountOut() != before + Batch) return state.SkipWithError("no batch went out");
    }
    state.SetItemsProcessed(state.iterations() * Batch);
}
void OutRaw(benchmark::State& state) {
    const std::size_t size = Side().ImageSize();
    const TRawFile file(size * Side().CountOut(), size * Batch);
    const std::vector<char> bytes(size, 'y');
    std::size_t end = size * Side().CountOut();
    for (auto _ : state) {
        for (int i = 0; i < Batch; ++i, end += size) {
            if (::pwrite(file.Handle(), bytes.data(), size, static_cast<off_t>(end)) !=
                static_cast<ssize_t>(size)) {
                return state.SkipWithError("not written");
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * Batch);
}

BENCHMARK(ReadKds)->Name("read 10k rows that are out/kds")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(ReadRaw, batches, true)
    ->Name("read 10k rows that are out/pread")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(ReadRaw, once, false)
    ->Name("read 10k rows that are out/pread, file written at once")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(ReadAgain)->Name("read the last row again/kds");
BENCHMARK(OutKds)->Name("send 1024 rows out/kds")->Unit(benchmark::kMicrosecond)->Iterations(500);
BENCHMARK(OutRaw)
    ->Name("send 1024 rows out/pwrite")
    ->Unit(benchmark::kMicrosecond)
    ->Iterations(500);

}  // namespace
}  // namespace kds
