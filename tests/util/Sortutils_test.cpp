#include "kds/util/Sortutils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <mutex>
#include <numeric>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kds/platform/Errors.h"
#include "kds/platform/Process.h"
#include "kds/util/Mergesort.h"
#include "tests/support/Allocfail.h"
#include "tests/support/Seed.h"

namespace kds {
namespace {

// A process with as many processors and such a command line as a test wants.
class TFakeProcess final : public IProcess {
public:
    explicit TFakeProcess(std::int32_t processors, std::vector<std::u16string> parameters = {})
        : fProcessors(processors), fParameters(std::move(parameters)) {
        SetProcess(this);
        ForgetMaxSortingThreads();
    }
    ~TFakeProcess() override {
        SetProcess(nullptr);
        ForgetMaxSortingThreads();
    }
    std::vector<std::u16string> Parameters() override { return fParameters; }
    std::int32_t ProcessorCount() override { return fProcessors; }

private:
    std::int32_t fProcessors;
    std::vector<std::u16string> fParameters;
};

// The items sorted: pointers to keys, which stand in the order the items came in.
using TKeys = std::vector<std::int32_t>;
using TPointers = std::vector<void*>;

TPointers PointersTo(TKeys& keys) {
    TPointers pointers;
    pointers.reserve(keys.size());
    for (std::int32_t& key : keys) pointers.push_back(&key);
    return pointers;
}

std::int32_t Key(const void* item) { return *static_cast<const std::int32_t*>(item); }

TPointers StablySorted(TPointers items) {
    std::stable_sort(items.begin(), items.end(),
                     [](const void* a, const void* b) { return Key(a) < Key(b); });
    return items;
}

bool SameItems(TPointers a, TPointers b) {
    std::sort(a.begin(), a.end());
    std::sort(b.begin(), b.end());
    return a == b;
}

// Counts its calls, from any thread, and raises at one of them when it is told to.
class TCounting {
public:
    explicit TCounting(std::int64_t raiseAt = 0) : fRaiseAt(raiseAt) {}
    std::int32_t Compare(void* a, void* b) {
        if (++Calls == fRaiseAt) throw std::runtime_error("at this very call");
        return Key(a) < Key(b) ? -1 : Key(a) > Key(b) ? 1 : 0;
    }
    TComparator Bound() { return TComparator::Bind<&TCounting::Compare>(this); }

    std::atomic<std::int64_t> Calls = 0;

private:
    std::int64_t fRaiseAt;
};

void MergeAll(TPointers& items, TComparator compare, std::int32_t maxThreads = 1) {
    MergeSortList(items.data(), 0, static_cast<std::int32_t>(items.size()) - 1, compare,
                  maxThreads);
}

// Each way to sort a range. Two go on from what is in order already.
using TSort = void (*)(void** list, std::int32_t first, std::int32_t last, TComparator compare);
constexpr TSort StableSorts[] = {
    InsertSortList,
    [](void** list, std::int32_t first, std::int32_t last, TComparator compare) {
        MergeSortList(list, first, last, compare, 1);
    },
    [](void** list, std::int32_t first, std::int32_t last, TComparator compare) {
        const std::int32_t start = first + (last - first) / 3;
        InsertSortList(list, first, start - 1, compare);
        BinarySortList(list, first, last, start, compare);
    },
    [](void** list, std::int32_t first, std::int32_t last, TComparator compare) {
        const std::int32_t start = first + (last - first) / 3;
        InsertSortList(list, first, start - 1, compare);
        InsertSortList(list, start, last, compare);
        MergeSortedLists(list, first, last, start, compare);
    },
};

// --- Results -----------------------------------------------------------------------------------

struct TPattern {
    const char* Name;
    std::int32_t (*Key)(std::int32_t index, std::int32_t count, std::mt19937& random);
};
std::int32_t Below(std::mt19937& random, std::int32_t limit) {
    return static_cast<std::int32_t>(random() % static_cast<std::uint32_t>(limit));
}
constexpr TPattern Patterns[] = {
    {"Random", [](std::int32_t, std::int32_t, std::mt19937& r) { return Below(r, 1 << 30); }},
    {"FewKeys", [](std::int32_t, std::int32_t, std::mt19937& r) { return Below(r, 5); }},
    {"AllEqual", [](std::int32_t, std::int32_t, std::mt19937&) { return 7; }},
    {"Ascending", [](std::int32_t i, std::int32_t, std::mt19937&) { return i; }},
    {"Descending", [](std::int32_t i, std::int32_t n, std::mt19937&) { return n - i; }},
    {"DescendingPairs", [](std::int32_t i, std::int32_t n, std::mt19937&) { return (n - i) / 2; }},
    {"OrganPipe", [](std::int32_t i, std::int32_t n, std::mt19937&) { return std::min(i, n - i); }},
    {"SawTeeth", [](std::int32_t i, std::int32_t, std::mt19937&) { return i % 100; }},
    // The merges gallop: one side wins in blocks.
    {"LongBlocks", [](std::int32_t i, std::int32_t n, std::mt19937&) { return i / 40 * 7919 % n; }},
    {"NearlySorted", [](std::int32_t i, std::int32_t n,
                        std::mt19937& r) { return Below(r, 20) == 0 ? Below(r, n) : i; }},
    {"TailUnsorted", [](std::int32_t i, std::int32_t n,
                        std::mt19937& r) { return i < n - n / 10 ? i : Below(r, n); }},
};

class TSortPatternTest : public testing::TestWithParam<TPattern> {
protected:
    TKeys Draw(std::int32_t count) {
        TKeys keys;
        for (std::int32_t i = 0; i < count; ++i) {
            keys.push_back(GetParam().Key(i, count, fRandom));
        }
        return keys;
    }

private:
    std::mt19937 fRandom{support::Seed()};
};

TEST_P(TSortPatternTest, GivesWhatTheStandardStableSortGives) {
    const TFakeProcess process(64);
    for (const std::int32_t count :
         {0, 1, 2, 3, 31, 32, 33, 64, 100, 511, 512, 1000, 4099, 16383, 16384, 50'000, 140'000}) {
        TKeys keys = Draw(count);
        const TPointers unsorted = PointersTo(keys);
        const TPointers expected = StablySorted(unsorted);
        // 5 and 17 chunks leave groups without an upper half; no more than 16 are ever made.
        for (const std::int32_t threads : {1, 2, 5, 17}) {
            if (threads > 1 && count < 16384) continue;
            TPointers items = unsorted;
            MergeAll(items, TCounting().Bound(), threads);
            ASSERT_EQ(items, expected)
                << count << " items, " << threads << " threads, KDS_TEST_SEED=" << support::Seed();
        }
    }
}

// Values with the comparison inlined take another way through the merge.
TEST_P(TSortPatternTest, GivesTheSameForItemsSortedAsValues) {
    for (const std::int32_t count : {1, 31, 32, 600, 30'000}) {
        std::vector<std::int64_t> items;  // keys above their places
        for (const std::int64_t key : Draw(count)) items.push_back(key << 32 | std::ssize(items));
        auto expected = items;
        std::ranges::sort(expected);  // by the places too: stably, that is

        const auto compare = [](std::int64_t a, std::int64_t b) {
            if (a >> 32 == b >> 32) return 0;
            return a < b ? std::numeric_limits<std::int32_t>::min() : 1;
        };
        MergeSort(items.data(), count, compare, 1);

        ASSERT_EQ(items, expected) << count << " items, KDS_TEST_SEED=" << support::Seed();
    }
}

TEST_P(TSortPatternTest, EverySortAgreesOnPartsOfAnArray) {
    for (const std::int32_t count : {1, 2, 5, 6, 7, 40, 300}) {
        TKeys keys = Draw(count);
        const TPointers unsorted = PointersTo(keys);
        // The items outside the range stay where they are.
        const std::int32_t first = count / 5;
        const std::int32_t last = count - 1 - count / 7;
        TPointers expected = unsorted;
        std::stable_sort(expected.begin() + first, expected.begin() + last + 1,
                         [](const void* a, const void* b) { return Key(a) < Key(b); });
        TCounting counting;
        for (const TSort sort : StableSorts) {
            TPointers items = unsorted;
            sort(items.data(), first, last, counting.Bound());
            EXPECT_EQ(items, expected);
        }
        TPointers quick = unsorted;
        QuickSortList(quick.data(), first, last, counting.Bound());
        EXPECT_TRUE(SameItems(quick, unsorted));
        EXPECT_TRUE(std::ranges::equal(quick, expected, {}, Key, Key));
    }
}

INSTANTIATE_TEST_SUITE_P(Patterns, TSortPatternTest, testing::ValuesIn(Patterns),
                         [](const auto& tested) { return std::string(tested.param.Name); });

TEST(TIsSortedListTest, LooksAtTheRangeAndAllowsEqualNeighbours) {
    TKeys keys = {9, 1, 2, 2, 3, 0};
    TPointers items = PointersTo(keys);
    TCounting counting;
    const auto sorted = [&](std::int32_t first, std::int32_t last) {
        return IsSortedList(items.data(), first, last, counting.Bound());
    };

    EXPECT_TRUE(sorted(1, 4));
    EXPECT_FALSE(sorted(0, 1));
    EXPECT_FALSE(sorted(1, 5));
    EXPECT_TRUE(sorted(3, 2));
}

// --- Work done ---------------------------------------------------------------------------------

TEST(TMergeSortWorkTest, ComparesOnceForEachNeighbourWhenOneRunIsAll) {
    for (const std::int32_t count : {2, 31, 32, 5000, 100'000}) {
        TKeys keys(static_cast<std::size_t>(count));
        std::iota(keys.begin(), keys.end(), 0);
        const TPointers ascending = PointersTo(keys);
        for (TPointers items : {ascending, TPointers(ascending.rbegin(), ascending.rend())}) {
            TCounting counting;
            const std::int64_t allocations = support::Allocations();

            MergeAll(items, counting.Bound());

            EXPECT_EQ(support::Allocations(), allocations);
            EXPECT_EQ(counting.Calls, count - 1);
            EXPECT_EQ(items, ascending);
        }
    }
}

// Run A comes first, and each run lies wholly below the one before. A merge then begins by
// comparing the first items of its two runs, which nothing else does, and the merged run starts
// with the first item of the higher one: "CB CA" reads: C with B, then these with A.
std::string MergesOfRuns(const std::vector<std::int32_t>& lengths) {
    TKeys keys;
    std::int32_t base = 1 << 30;
    for (const std::int32_t length : lengths) {
        base -= 1000;
        for (std::int32_t i = 0; i < length; ++i) keys.push_back(base + i);
    }
    TPointers items = PointersTo(keys);
    const auto run = [](void* item) {
        return static_cast<char>('A' + ((1 << 30) - Key(item)) / 1000 - 1);
    };
    std::string merges;
    std::set<void*> merged;  // first items that no longer lead a run
    auto compare = [&](void* a, void* b) {
        const bool bothLead = (Key(a) - base) % 1000 == 0 && (Key(b) - base) % 1000 == 0 &&
                              !merged.contains(a) && !merged.contains(b);
        if (bothLead) {
            if (!merges.empty()) merges += ' ';
            merges += {run(a), run(b)};
            merged.insert(b);
        }
        return Key(a) - Key(b);
    };

    MergeAll(items, TComparator::BindCall(&compare));

    return merges;
}

TEST(TMergeSortWorkTest, RunsMeetInTheOrderThatTheirLengthsDemand) {
    EXPECT_EQ(MergesOfRuns({120, 80, 25, 20, 30}), "DC ED EB EA") << "no look at a fourth run";
    EXPECT_EQ(MergesOfRuns({50, 30, 20, 28}), "CB CA DC") << "the third equals the sum";
    EXPECT_EQ(MergesOfRuns({50, 50, 28}), "BA CB") << "the second equals the top";
    EXPECT_EQ(MergesOfRuns({25, 20, 25}), "CB CA") << "the third equals the top";
    EXPECT_EQ(MergesOfRuns({25, 20, 26}), "BA CB") << "the third is below the top";
}

// Lengths of runs that the collapse rule, which never looks at a fourth run, lets pile up to 21
// on the stack: two more than the largest stack made for arrays of this size would hold.
constexpr std::int32_t PilingRuns[] = {
    20205, 17,  16,   18,   34,  74,  158,  316,  632,  1264, 2527, 5055, 10093, 17, 16,
    18,    34,  74,   158,  316, 632, 1263, 2527, 5037, 17,   16,   18,   34,    74, 158,
    316,   631, 1263, 2509, 17,  16,  18,   34,   74,   158,  315,  631,  1245,  17, 16,
    18,    34,  74,   157,  315, 613, 17,   16,   18,   34,   73,   157,  297,   17, 16,
    18,    34,  74,   137,  21,  19,  38,   58,   19,   18,   20,   16,   5130};

TEST(TMergeSortWorkTest, KeepsRoomForRunsThatPileUp) {
    TKeys keys;
    std::int32_t base = 1 << 30;
    for (const std::int32_t length : PilingRuns) {
        base -= 1 << 20;  // each run starts below the one before
        for (std::int32_t i = 0; i < length; ++i) keys.push_back(base + i);
    }
    ASSERT_EQ(keys.size(), 65'536u);
    TPointers items = PointersTo(keys);
    const TPointers expected = StablySorted(items);

    MergeAll(items, TCounting().Bound());

    EXPECT_EQ(items, expected);
}

TEST(TMergeSortThreadsTest, StartsNoMoreThanAskedForAndNoneForFewItems) {
    struct TCase {
        std::int32_t Processors, Count, MaxThreads;
        std::size_t Threads;
    };
    // The last two: 40 chunks of 8192 are there, and 16 is the most in any case.
    for (const auto& [processors, count, maxThreads, expected] :
         {TCase{8, 16'383, 0, 1}, TCase{8, 16'384, 0, 2}, TCase{1, 100'000, 0, 1},
          TCase{3, 100'000, -1, 3}, TCase{8, 100'000, 2, 2}, TCase{8, 30'000, 6, 3},
          TCase{64, 330'000, 0, 16}, TCase{64, 330'000, 20, 16}}) {
        const TFakeProcess process(processors);
        TKeys keys(static_cast<std::size_t>(count));
        std::iota(keys.begin(), keys.end(), 0);
        TPointers items = PointersTo(keys);
        std::mutex mutex;
        std::set<std::thread::id> threads;
        std::atomic<bool> flagged = true;
        auto compare = [&](void* a, void* b) {
            if (InParallelSort != (expected > 1)) flagged = false;
            const std::scoped_lock lock(mutex);
            threads.insert(std::this_thread::get_id());
            return Key(a) - Key(b);
        };

        MergeAll(items, TComparator::BindCall(&compare), maxThreads);

        EXPECT_EQ(threads.size(), expected) << count << " items";
        EXPECT_TRUE(threads.contains(std::this_thread::get_id()));
        EXPECT_TRUE(flagged);
        EXPECT_FALSE(InParallelSort);
        EXPECT_EQ(items, StablySorted(items));
    }
}

TEST(TMaxSortingThreadsTest, IsDecidedByTheCommandLineAndTheProcessors) {
    struct TCase {
        std::int32_t Processors;
        std::vector<std::u16string> Parameters;
        std::int32_t Threads;
    };
    const TCase cases[] = {
        {6, {}, 6},
        {0, {}, 1},
        {6, {u"x", u"/maxsortingthreads", u"3", u"y"}, 3},
        {6, {u"-MaxSortingThreads", u"40"}, 40},
        {6, {u"/MAXSORTINGTHREADS", u"0"}, 6},
        {6, {u"-maxsortingthreads", u"two"}, 6},
        {6, {u"4", u"-maxsortingthreads"}, 6},
        {6, {u"maxsortingthreads", u"2"}, 6},
        {6, {u"-maxsortingthreadsx", u"2", u"-"}, 6},
        {6, {u"-maxsortingthreads", u"2", u"-maxsortingthreads", u"5"}, 2},
    };
    for (const auto& [processors, parameters, threads] : cases) {
        const TFakeProcess process(processors, parameters);
        EXPECT_EQ(MaxSortingThreads(), threads) << "case " << testing::PrintToString(parameters);
    }
}

// --- Comparisons that break their promise --------------------------------------------------------

struct TUnsoundCase {
    const char* Name;
    std::int32_t (*Compare)(void* a, void* b);
};
std::int32_t Flip(void*, void*) {
    static std::atomic<std::uint32_t> state = 1;  // any sequence will do
    return static_cast<std::int32_t>((state = state * 1664525 + 1013904223) >> 29) - 4;
}
constexpr TUnsoundCase UnsoundCases[] = {
    {"AlwaysBefore", [](void*, void*) { return std::numeric_limits<std::int32_t>::min(); }},
    {"AlwaysAfter", [](void*, void*) { return std::numeric_limits<std::int32_t>::max(); }},
    {"AnyAnswer", Flip},
    // Like scissors, paper and stone.
    {"Cyclic", [](void* a, void* b) { return (Key(a) - Key(b) + 300'000) % 3 - 1; }},
    {"BeforeUnlessMuchSmaller", [](void* a, void* b) { return Key(a) - Key(b) > -50 ? -1 : 1; }},
};

class TUnsoundComparisonTest : public testing::TestWithParam<TUnsoundCase> {};

// The arrays end where their memory ends, so the address sanitizer sees a step beyond.
TEST_P(TUnsoundComparisonTest, LeavesAPermutation) {
    const TFakeProcess process(4);
    auto routine = GetParam().Compare;
    const TComparator compare = TComparator::BindCall(&routine);
    std::mt19937 random(support::Seed());
    for (const std::int32_t count : {2, 3, 6, 20, 33, 64, 1000, 3000, 40'000}) {
        TKeys keys(static_cast<std::size_t>(count));
        for (std::int32_t& key : keys) key = Below(random, 1000);
        const TPointers unsorted = PointersTo(keys);
        const std::int32_t last = count - 1;
        const auto attempt = [&](auto sort) {
            TPointers items = unsorted;
            try {
                sort(items.data());
            } catch (const EInvalidArgument& error) {
                EXPECT_EQ(error.Message(), u"Comparison method violates its general contract!");
            }
            ASSERT_TRUE(SameItems(items, unsorted)) << count << " items, seed " << support::Seed();
        };
        attempt([&](void** list) { MergeSortList(list, 0, last, compare, 0); });
        if (count > 3000) continue;
        attempt([&](void** list) { QuickSortList(list, 0, last, compare); });
        for (const TSort sort : StableSorts) {
            attempt([&](void** list) { sort(list, 0, last, compare); });
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, TUnsoundComparisonTest, testing::ValuesIn(UnsoundCases),
                         [](const auto& tested) { return std::string(tested.param.Name); });

TEST(TMergeSortErrorsTest, SaysThatTheComparisonIsInconsistent) {
    TKeys keys(2000);
    for (std::int32_t i = 0; i < 2000; ++i) {
        keys[static_cast<std::size_t>(i)] = i % 1000 * 2 + i / 1000;
    }
    TPointers items = PointersTo(keys);
    const TPointers unsorted = items;
    std::int32_t calls = 0;
    // In order while the two runs are found, then always after: the copied side wins for ever.
    auto compare = [&](void* a, void* b) { return ++calls < 2100 ? Key(a) - Key(b) : 1; };

    try {
        MergeAll(items, TComparator::BindCall(&compare));
        ADD_FAILURE() << "nothing was raised";
    } catch (const EInvalidArgument& error) {
        EXPECT_EQ(error.Message(), u"Comparison method violates its general contract!");
    }
    EXPECT_TRUE(SameItems(items, unsorted));
}

// --- Failures ------------------------------------------------------------------------------------

TKeys RandomKeys(std::int32_t count, std::uint32_t seed, std::int32_t range = 1 << 30) {
    std::mt19937 random(seed);
    TKeys keys(static_cast<std::size_t>(count));
    for (std::int32_t& key : keys) key = Below(random, range);
    return keys;
}

// Whatever call raises, the error comes out and the items are all there. Blocks make the merge
// gallop as well.
TEST(TMergeSortErrorsTest, KeepsTheItemsWhicheverComparisonRaises) {
    TKeys random = RandomKeys(150, support::Seed());
    TKeys blocks(400);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        blocks[i] = static_cast<std::int32_t>(i / 40 * 7 % 10 * 100 + i % 40);
    }
    std::vector<TSort> sorts(std::begin(StableSorts), std::end(StableSorts));
    sorts.push_back(QuickSortList);
    for (TKeys* keys : {&random, &blocks}) {
        const TPointers unsorted = PointersTo(*keys);
        const auto last = static_cast<std::int32_t>(unsorted.size()) - 1;
        for (const TSort sort : sorts) {
            TCounting all;
            TPointers sorted = unsorted;
            sort(sorted.data(), 0, last, all.Bound());
            for (std::int64_t nth = 1; nth <= std::min<std::int64_t>(all.Calls, 4000); ++nth) {
                TPointers items = unsorted;
                TCounting raising(nth);
                ASSERT_THROW(sort(items.data(), 0, last, raising.Bound()), std::runtime_error);
                ASSERT_TRUE(SameItems(items, unsorted)) << "call " << nth;
            }
        }
    }
}

TEST(TMergeSortErrorsTest, BringsAWorkersErrorToTheCallerWhenAllHaveEnded) {
    const TFakeProcess process(7);
    TKeys keys = RandomKeys(58'000, support::Seed());
    const TPointers unsorted = PointersTo(keys);
    TCounting all;
    TPointers sorted = unsorted;
    MergeAll(sorted, all.Bound(), 7);
    for (std::int64_t step = 1; step <= 12; ++step) {
        TPointers items = unsorted;
        // Early ones in a chunk's sort, late ones in a merge.
        TCounting raising(all.Calls * step / 41);

        ASSERT_THROW(MergeAll(items, raising.Bound(), 7), std::runtime_error);

        const std::int64_t calls = raising.Calls;
        ASSERT_TRUE(SameItems(items, unsorted)) << "step " << step;
        ASSERT_EQ(raising.Calls, calls);
        ASSERT_FALSE(InParallelSort);
    }
}

// With several threads the first allocations are those of the threads themselves: a thread that
// cannot start leaves its chunk to the caller.
TEST(TMergeSortErrorsTest, SurvivesEachAllocationThatFails) {
    const TFakeProcess process(5);
    for (const std::int32_t threads : {1, 5}) {
        TKeys keys = RandomKeys(45'000, support::Seed());
        const TPointers unsorted = PointersTo(keys);
        const TPointers expected = StablySorted(unsorted);
        std::int32_t refusals = 0;
        std::int32_t sortedAnyway = 0;
        const std::int64_t needed = support::FailEachAllocation(
            [&] { return TPointers(unsorted); },
            [&](TPointers& items) { MergeAll(items, TCounting().Bound(), threads); },
            [&](const TPointers& items, bool raised) {
                ++(raised ? refusals : sortedAnyway);
                EXPECT_TRUE(raised ? SameItems(items, unsorted) : items == expected);
            });
        EXPECT_EQ(refusals + sortedAnyway, needed + 1);
        EXPECT_GE(refusals, 3);
        EXPECT_GE(sortedAnyway, threads > 1 ? 2 : 1);  // the last run gets all it asks for
    }
}

}  // namespace
}  // namespace kds
