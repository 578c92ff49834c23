// The services of the process: clock, random numbers, command line, files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <thread>
#include <vector>

#include "kds/platform/Clock.h"
#include "kds/platform/Errors.h"
#include "kds/platform/Files.h"
#include "kds/platform/Process.h"
#include "kds/platform/Random.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

TEST(ClockTest, TellsLocalTimeAndNeverGoesBack) {
    // Not std::time, whose clock lags by a tick; and what is told is rounded to the millisecond.
    const auto seconds = [](std::chrono::milliseconds ahead) {
        return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now() + ahead);
    };
    const std::time_t before = seconds(std::chrono::milliseconds(0));
    const TDayTime now = SplitDateTime(Now().Days);
    const std::time_t after = seconds(std::chrono::milliseconds(1));
    const TCalendarDate date = DateOfDays(now.Day);
    const int ofDay = now.Milliseconds / 1'000;
    std::tm local = *std::localtime(&before);
    local.tm_year = date.Year - 1900;
    local.tm_mon = date.Month - 1;
    local.tm_mday = date.Day;
    local.tm_hour = ofDay / 3'600;
    local.tm_min = ofDay / 60 % 60;
    local.tm_sec = ofDay % 60;
    const std::time_t told = std::mktime(&local);

    EXPECT_LE(before, told);
    EXPECT_LE(told, after);
    const std::int64_t first = QueryPerformanceCounter();
    EXPECT_LE(first, QueryPerformanceCounter());
}

TEST(ClockTest, GivesWayToATest) {
    struct TStoppedClock final : IClock {
        TDateTime Now() override { return {2.5}; }
        std::int64_t Counter() override { return 7; }
        std::int64_t TicksPerSecond() override { return 1; }
    } stopped;

    SetClock(&stopped);

    EXPECT_EQ(Now().Days, 2.5);
    EXPECT_EQ(QueryPerformanceCounter(), 7);
    SetClock(nullptr);
    EXPECT_NE(Now().Days, 2.5);
}

TEST(ProcessTest, ReadsTheCommandLineBehindTheProgram) {
    std::vector<std::u16string> expected;
    const std::vector<std::string> arguments = testing::internal::GetArgvs();
    for (std::size_t i = 1; i < arguments.size(); ++i) expected.push_back(ToUtf16(arguments[i]));

    EXPECT_EQ(Process().Parameters(), expected);
    EXPECT_GE(Process().ProcessorCount(), 1);
}

TEST(RandomTest, RepeatsARunFromItsSeed) {
    const auto draw = [] {
        std::array<std::uint64_t, 4> draws{};
        for (std::uint64_t& value : draws) value = NextRandom();
        return draws;
    };
    SeedRandom(42);
    const auto first = draw();
    const auto next = draw();
    SeedRandom(42);

    EXPECT_EQ(draw(), first);
    EXPECT_EQ(draw(), next);
    EXPECT_NE(first, next);
}

// Levels of skip lists come from single bits, so each bit must be fair. One fixed seed: 4,096
// draws stray from one half by 32 in the mean.
TEST(RandomTest, TossesEachBitFairly) {
    SeedRandom(1);
    std::array<int, 64> ones{};
    for (int i = 0; i < 4'096; ++i) {
        const std::uint64_t value = NextRandom();
        for (std::size_t bit = 0; bit < 64; ++bit) ones[bit] += static_cast<int>(value >> bit & 1);
    }
    for (const int count : ones) EXPECT_NEAR(count, 2'048, 160);
}

TEST(RandomThreadsTest, NeverGivesTwoThreadsTheSameDraw) {
    SeedRandom(7);
    std::array<std::vector<std::uint64_t>, 2> drawn;
    {
        std::vector<std::jthread> threads;
        for (auto& values : drawn) {
            threads.emplace_back([&values] {
                for (int i = 0; i < 10'000; ++i) values.push_back(NextRandom());
            });
        }
    }
    std::vector<std::uint64_t> all = drawn[0];
    all.insert(all.end(), drawn[1].begin(), drawn[1].end());
    std::ranges::sort(all);
    EXPECT_EQ(std::ranges::adjacent_find(all), all.end());
}

// --- Files -----------------------------------------------------------------------------------

class TFilesTest : public testing::Test {
protected:
    TFilesTest() : fName(FileSystem().UniqueName(FileSystem().TemporaryFolder(), u"kds\u044F")) {}
    ~TFilesTest() override { FileSystem().Remove(fName); }

    std::span<const std::byte> Bytes(std::string_view text) {
        return std::as_bytes(std::span(text.data(), text.size()));
    }
    std::string Read(IFile& file, std::int64_t offset, std::size_t count) {
        std::string text(count, '?');
        text.resize(file.ReadAt(offset, std::as_writable_bytes(std::span(text))));
        return text;
    }
    template <typename F>
    std::u16string Refusal(F call) {
        try {
            call();
        } catch (const EStreamError& error) {
            return std::u16string(error.Message());
        }
        return u"";
    }
    const std::u16string fName;
};

TEST_F(TFilesTest, WritesAndReadsAnywhere) {
    const auto file = FileSystem().CreateExclusive(fName);
    file->WriteAt(4, Bytes("tail"));
    file->WriteAt(0, Bytes("head"));

    EXPECT_EQ(file->Size(), 8);
    EXPECT_EQ(Read(*file, 2, 100), "adtail");
    EXPECT_EQ(Read(*file, 8, 1), "");
    file->Truncate(3);
    file->Sync();
    EXPECT_EQ(Read(*FileSystem().OpenRead(fName), 0, 100), "hea");
}

TEST_F(TFilesTest, KeepsANewFileToItsOwnerAndProcess) {
    const mode_t old = ::umask(0);
    const auto file = FileSystem().CreateExclusive(fName);
    ::umask(old);
    const std::string name = ToUtf8(fName);
    struct stat status {};

    ASSERT_EQ(::stat(name.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    bool found = false;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;  // the descriptor of the iteration itself
        if (std::filesystem::read_symlink(entry.path(), gone) != std::filesystem::path(name))
            continue;
        found = true;
        EXPECT_NE(::fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0);
    }
    EXPECT_TRUE(found);
}

TEST_F(TFilesTest, RefusesWithTheSystemsReason) {
    FileSystem().CreateExclusive(fName)->WriteAt(0, Bytes("kept"));

    EXPECT_EQ(Refusal([&] { (void)FileSystem().CreateExclusive(fName); }),
              Format(u"Cannot create \"%s\": File exists", {fName}));
    EXPECT_EQ(Refusal([&] { (void)FileSystem().OpenRead(u"/no/such"); }),
              u"Cannot open \"/no/such\": No such file or directory");
    EXPECT_EQ(Refusal([&] { FileSystem().Rename(u"/no/such", fName); }),
              u"Cannot rename \"/no/such\": No such file or directory");
    EXPECT_EQ(Refusal([&] { FileSystem().OpenRead(fName)->WriteAt(0, Bytes("x")); }),
              Format(u"Cannot write \"%s\": Bad file descriptor", {fName}));
    const std::u16string cut = fName + std::u16string(1, u'\0') + u".tmp";
    EXPECT_NE(Refusal([&] { FileSystem().Remove(cut); }), u"");
    EXPECT_EQ(Read(*FileSystem().OpenRead(fName), 0, 100), "kept");
}

TEST_F(TFilesTest, RenamesOverAnOldFileAndForgivesAnAbsentOne) {
    const std::u16string target = FileSystem().UniqueName(FileSystem().TemporaryFolder(), u"kds");
    EXPECT_NE(target, fName);
    FileSystem().CreateExclusive(fName)->WriteAt(0, Bytes("new"));
    FileSystem().CreateExclusive(target)->WriteAt(0, Bytes("old text"));

    FileSystem().Rename(fName, target);

    EXPECT_EQ(Read(*FileSystem().OpenRead(target), 0, 100), "new");
    FileSystem().Remove(target);
    FileSystem().Remove(target);
}

TEST_F(TFilesTest, TakesTheTemporaryFolderFromTheEnvironment) {
    const char* const old = std::getenv("TMPDIR");
    const std::string kept = old == nullptr ? "" : old;
    ::setenv("TMPDIR", "/elsewhere", 1);
    EXPECT_EQ(FileSystem().TemporaryFolder(), u"/elsewhere");
    ::setenv("TMPDIR", "", 1);
    EXPECT_EQ(FileSystem().TemporaryFolder(), u"/tmp");
    old == nullptr ? ::unsetenv("TMPDIR") : ::setenv("TMPDIR", kept.c_str(), 1);
}

}  // namespace
}  // namespace kds
