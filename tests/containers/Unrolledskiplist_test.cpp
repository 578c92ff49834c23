#include "kds/containers/Unrolledskiplist.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kds/containers/Smartlist.h"
#include "kds/platform/Errors.h"
#include "kds/platform/Process.h"
#include "kds/platform/Random.h"
#include "tests/support/Allocfail.h"
#include "tests/support/Seed.h"

namespace kds {
namespace {

using TItems = std::vector<void*>;

// A pointer that nobody follows.
void* Item(std::intptr_t number) { return reinterpret_cast<void*>(number * 8); }

TItems Numbered(std::int32_t count) {
    TItems items;
    for (std::int32_t i = 0; i < count; ++i) items.push_back(Item(i));
    return items;
}

// Items 0 to count - 1, in buckets as full as appending makes them.
TOwned<TUnrolledSkipList> MakeList(std::int32_t count) {
    auto list = MakeOwned<TUnrolledSkipList>();
    for (std::int32_t i = 0; i < count; ++i) list->Add(Item(i));
    return list;
}

TItems Contents(const TUnrolledSkipList& list) {
    TItems items(static_cast<std::size_t>(list.Count()));
    list.CopyTo(items.data());
    return items;
}

std::vector<std::int32_t> BucketCounts(const TUnrolledSkipList& list) {
    std::vector<std::int32_t> counts;
    for (auto* bucket = list.FirstBucket(); bucket != nullptr; bucket = list.NextBucket(bucket)) {
        counts.push_back(TUnrolledSkipList::BucketCount(bucket));
    }
    return counts;
}
using TCounts = std::vector<std::int32_t>;

std::int32_t ByAddress(void* a, void* b) { return a < b ? -1 : a > b ? 1 : 0; }
TComparator AddressOrder() { return TComparator::Bind<&ByAddress>(); }

// Remembers by brute force in which bucket every item was placed last.
class TRecorder final : public ISkipListTracker {
public:
    explicit TRecorder(TUnrolledSkipList& list) : fList(list) { list.SetTracker(this); }
    void Placed(void* const* items, std::int32_t count, std::uint32_t bucketId,
                std::int32_t first) noexcept override {
        const auto* const bucket = fList.BucketById(bucketId);
        for (std::int32_t i = 0; i < count; ++i) {
            Ids[items[i]] = bucketId;
            EXPECT_EQ(TUnrolledSkipList::ItemAt(bucket, first + i), items[i]);
        }
        Highest = std::max(Highest, bucketId);
    }
    void Cleared() noexcept override { Ids.clear(); }

    std::map<void*, std::uint32_t> Ids;
    std::uint32_t Highest = 0;

private:
    TUnrolledSkipList& fList;
};

// --- Buckets -----------------------------------------------------------------------------------

struct TSplitCase {
    const char* Name;
    std::int32_t Appended, InsertedInside, Position;
    TCounts Counts;
};

class TSplitTest : public testing::TestWithParam<TSplitCase> {};

TEST_P(TSplitTest, MakesRoomForTheItem) {
    const auto& [name, appended, inside, position, counts] = GetParam();
    const auto list = MakeList(appended);
    for (std::int32_t i = 0; i < inside; ++i) list->Insert(500, Item(5000 + i));
    TItems expected = Contents(*list);

    list->Insert(position, Item(9999));

    expected.insert(expected.begin() + position, Item(9999));
    EXPECT_EQ(list->Inconsistency(), nullptr);
    EXPECT_EQ(BucketCounts(*list), counts);
    EXPECT_EQ(Contents(*list), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Places, TSplitTest,
    testing::Values(TSplitCase{"BehindAFullBucket", 1024, 0, 1024, {1024, 1}},
                    TSplitCase{"BeforeAFullBucket", 1030, 0, 0, {1, 1024, 6}},
                    TSplitCase{"InAnInnerBucketThatMayGrow", 1025, 255, 100, {1280, 1}},
                    TSplitCase{"InTheLowerHalf", 1025, 256, 100, {641, 640, 1}},
                    TSplitCase{"AtTheEndOfTheLowerHalf", 1025, 256, 639, {641, 640, 1}},
                    TSplitCase{"BetweenTheHalves", 1025, 256, 640, {640, 641, 1}},
                    TSplitCase{"InTheUpperHalf", 1025, 256, 1279, {640, 641, 1}},
                    // A bucket at an end may hold more than the limit there.
                    TSplitCase{"BehindAGrownBucket", 1024, 100, 1124, {1124, 1}},
                    TSplitCase{"BeforeAGrownBucket", 1024, 100, 0, {1, 1124}}),
    [](const auto& tested) { return std::string(tested.param.Name); });

struct TDeletionCase {
    TCounts Before;
    std::int32_t Position;
    TCounts After;
};
const TDeletionCase Deletions[] = {
    {{257, 257}, 0, {256, 257}},  // 514 before: not yet
    {{257, 257}, 513, {257, 256}},
    {{256, 257}, 0, {512}},
    {{257, 256}, 512, {512}},
    {{300, 214, 300}, 400, {300, 213, 300}},
    {{300, 213, 300}, 400, {512, 300}},  // with the predecessor first
    {{1, 1024, 1}, 1025, {1, 1024}},
    {{1, 1024, 1}, 0, {1024, 1}},
    {{1}, 0, {0}},  // the only bucket stays
};

TEST(TUnrolledSkipListTest, DeletionsMergeSmallNeighboursAndDropEmptyBuckets) {
    for (const auto& [before, position, after] : Deletions) {
        SCOPED_TRACE(testing::PrintToString(before));
        const auto list = MakeList(1024 * static_cast<std::int32_t>(before.size()));
        std::int32_t first = 0;
        for (const std::int32_t count : before) {
            for (std::int32_t i = count; i < 1024; ++i) list->Delete(first);
            first += count;
        }
        ASSERT_EQ(BucketCounts(*list), before);
        TItems expected = Contents(*list);

        EXPECT_EQ(list->Delete(position), expected[static_cast<std::size_t>(position)]);

        expected.erase(expected.begin() + position);
        EXPECT_EQ(list->Inconsistency(), nullptr);
        EXPECT_EQ(BucketCounts(*list), after);
        EXPECT_EQ(Contents(*list), expected);
        EXPECT_EQ(list->Add(Item(9999)), static_cast<std::int32_t>(expected.size()));
        EXPECT_EQ(list->Get(list->Count() - 1), Item(9999));
    }
}

TEST(TUnrolledSkipListTest, AnswersNothingOutOfRangeAndRefusesChangesThere) {
    constexpr std::int32_t lowest = std::numeric_limits<std::int32_t>::min();
    constexpr std::int32_t highest = std::numeric_limits<std::int32_t>::max();
    const auto list = MakeList(2000);
    for (const std::int32_t index : {-1, 2000, lowest, highest}) {
        EXPECT_EQ(list->Get(index), nullptr);
        EXPECT_FALSE(list->Put(index, Item(9)));
        EXPECT_THROW(list->Delete(index), EListError);
        if (index != 2000) {
            EXPECT_THROW(list->Insert(index, Item(9)), EListError);
        }
    }

    EXPECT_EQ(list->Inconsistency(), nullptr);
    EXPECT_EQ(Contents(*list), Numbered(2000));
}

// --- Whole lists ---------------------------------------------------------------------------------

TEST(TUnrolledSkipListTest, IsRefilledAsAppendingWouldFillIt) {
    const auto list = MakeOwned<TUnrolledSkipList>();
    TRecorder recorder(*list);
    for (const std::int32_t count : {3000, 0, 1, 1024, 9000, 1025, 2048, 5}) {
        const TItems items = Numbered(count);
        list->Assign(items.data(), count);

        EXPECT_EQ(list->Inconsistency(), nullptr) << count;
        EXPECT_EQ(BucketCounts(*list), BucketCounts(*MakeList(count))) << count;
        EXPECT_EQ(TItems(list->begin(), list->end()), items) << count;
        for (std::int32_t i = 0; i < count; ++i) {
            ASSERT_EQ(list->Get(i), Item(i));
            ASSERT_EQ(list->FindInBucket(recorder.Ids.at(Item(i)), Item(i)), i);
        }
        EXPECT_TRUE(count > 0 || recorder.Ids.empty());
        list->Insert(count / 2, Item(9999));  // the refilled list is an ordinary one
        list->Put(count / 2, Item(8888));
        EXPECT_EQ(list->Inconsistency(), nullptr) << count;
        EXPECT_EQ(list->FindInBucket(recorder.Ids.at(Item(8888)), Item(8888)), count / 2);
    }
    EXPECT_EQ(list->FindInBucket(recorder.Highest + 100, Item(0)), -1);
    for (std::uint32_t id = 0; id <= recorder.Highest; ++id) {  // some of them out of use
        EXPECT_EQ(list->FindInBucket(id, Item(9999)), -1);
    }
    EXPECT_THROW(list->Assign(nullptr, -1), EListError);
}

TEST(TUnrolledSkipListTest, ClearsToTheEmptyLayoutWithoutAllocating) {
    SeedRandom(support::Seed());
    const auto list = MakeList(50'000);
    // The first bucket is the one that stays; best it has several levels.
    while (list->FirstBucket()->LevelCount == 1 && list->Count() > 20'000) list->Delete(0);
    TRecorder recorder(*list);
    EXPECT_EQ(recorder.Ids.size(), static_cast<std::size_t>(list->Count()));
    const std::int64_t allocations = support::Allocations();

    list->Clear();

    EXPECT_EQ(support::Allocations(), allocations);
    EXPECT_EQ(list->Inconsistency(), nullptr);
    EXPECT_EQ(BucketCounts(*list), TCounts{0});
    EXPECT_TRUE(recorder.Ids.empty());
    list->Insert(0, Item(1));
    EXPECT_EQ(list->Inconsistency(), nullptr);
}

TEST(TUnrolledSkipListSortTest, SortsStablyAndKeepsTheItemsWhenTheComparisonRaises) {
    std::mt19937 random(support::Seed());
    const auto list = MakeOwned<TUnrolledSkipList>();
    for (std::int32_t i = 0; i < 30'000; ++i) {
        list->Insert(static_cast<std::int32_t>(random() % static_cast<unsigned>(i + 1)), Item(i));
    }
    TItems items = Contents(*list);
    std::int32_t calls = 0;
    auto raising = [&](void* a, void* b) {
        if (++calls == 200'000) throw EConvertError(u"no order");
        return ByAddress(a, b);
    };
    EXPECT_THROW(list->Sort(TComparator::BindCall(&raising), 1), EConvertError);
    EXPECT_EQ(Contents(*list), items);
    EXPECT_EQ(list->Inconsistency(), nullptr);

    // By tens only, so that equal items must keep their order.
    auto tens = [](void* a, void* b) {
        const auto ten = [](void* item) { return reinterpret_cast<std::intptr_t>(item) / 80; };
        return static_cast<std::int32_t>(ten(a) - ten(b));
    };
    list->Sort(TComparator::BindCall(&tens));

    std::ranges::stable_sort(items, [&](void* a, void* b) { return tens(a, b) < 0; });
    EXPECT_EQ(Contents(*list), items);
    EXPECT_EQ(list->Inconsistency(), nullptr);
    EXPECT_EQ(BucketCounts(*list).front(), 1024);
}

// The thread sanitizer would see the cache being written by two threads.
TEST(TUnrolledSkipListSortTest, IsReadByAllThreadsOfASortWithoutItsCache) {
    class TTwoProcessors final : public IProcess {
        std::vector<std::u16string> Parameters() override { return {}; }
        std::int32_t ProcessorCount() override { return 2; }
    } process;
    SetProcess(&process);
    ForgetMaxSortingThreads();
    constexpr std::int32_t count = 17'000;
    const auto keys = MakeList(count);
    TItems positions;
    for (std::intptr_t i = 0; i < count; ++i) positions.push_back(Item(i * 7919 % count));
    const auto key = [&](void* item) {
        return keys->Get(static_cast<std::int32_t>(reinterpret_cast<std::intptr_t>(item) / 8));
    };
    auto compare = [&](void* a, void* b) { return ByAddress(key(a), key(b)); };

    MergeSortList(positions.data(), 0, count - 1, TComparator::BindCall(&compare), 0);

    EXPECT_EQ(positions, Numbered(count));
    EXPECT_EQ(keys->Inconsistency(), nullptr);
    SetProcess(nullptr);
    ForgetMaxSortingThreads();
}

// --- Searches ------------------------------------------------------------------------------------

TEST(TUnrolledSkipListSearchTest, FindsTheFirstOfEqualItemsOrThePlaceForOne) {
    TUnrolledSkipList list;
    std::int32_t index = -7;
    EXPECT_FALSE(list.Find(Item(1), index, AddressOrder()));
    EXPECT_EQ(index, 0);

    // Even numbers, a thousand of each, so that runs of equal items cross the ends of buckets.
    for (std::int32_t i = 0; i < 12'000; ++i) list.Add(Item(i / 1000 * 2 + 2));
    for (std::int32_t number = 0; number < 28; ++number) {
        const bool there = number % 2 == 0 && number >= 2 && number < 26;
        EXPECT_EQ(list.Find(Item(number), index, AddressOrder()), there) << number;
        EXPECT_EQ(index, std::clamp((number - 1) / 2 * 1000, 0, 12'000)) << number;
    }
    EXPECT_EQ(list.IndexOf(Item(12)), 5000);
    EXPECT_EQ(list.IndexOf(Item(11)), -1);

    // And runs that begin with a bucket.
    list.Clear();
    for (std::int32_t i = 0; i < 3072; ++i) list.Add(Item(i / 1024));
    EXPECT_TRUE(list.Find(Item(1), index, AddressOrder()));
    EXPECT_EQ(index, 1024);
}

TEST(TUnrolledSkipListSearchTest, LooksAtFewBucketsAndFewItemsOfOne) {
    const auto list = MakeList(200'000);
    for (std::int32_t sought = 0; sought < 200'000; sought += 777) {
        std::set<void*> asked;
        const TBucketPlace place = list->LowerBucket([&](void* first) {
            EXPECT_TRUE(asked.insert(first).second) << "asked twice";
            return first <= Item(sought);
        });
        ASSERT_EQ(place.Index, sought / 1024 * 1024);
        ASSERT_EQ(place.Bucket, list->BucketAt(sought).Bucket);
        ASSERT_EQ(list->BucketIndex(place.Bucket), place.Index);
        // Of 196 buckets; some twenty as a rule, but levels are drawn.
        ASSERT_LT(asked.size(), 120u);
    }
    const TBucketPlace lowest = list->LowerBucket([](void*) { return false; });
    EXPECT_EQ(lowest.Bucket, list->FirstBucket());
    EXPECT_EQ(list->LowerBucket([](void*) { return true; }).Bucket, list->LastBucket());
}

// --- Enumerators ---------------------------------------------------------------------------------

// Buckets go under its feet. The model below rarely empties one.
TEST(TSkipListEnumeratorTest, VisitsAllWhileItsItemsAreDeletedBehindIt) {
    for (const auto direction : {ledForward, ledReverse}) {
        const auto list = MakeList(5000);
        const auto live = list->GetEnumerator(direction);
        TItems visited;
        while (live->MoveNext()) {
            visited.push_back(live->GetCurrent());
            ASSERT_EQ(list->Delete(direction == ledForward ? 0 : list->Count() - 1),
                      visited.back());
            ASSERT_EQ(live->GetCurrent(), nullptr);
            ASSERT_EQ(list->Inconsistency(), nullptr);
        }
        TItems expected = Numbered(5000);
        if (direction == ledReverse) std::ranges::reverse(expected);
        EXPECT_EQ(visited, expected);
    }
}

TEST(TSkipListEnumeratorTest, EndsWithTheListItsContentsOrItsOrder) {
    for (std::int32_t way = 0; way < 4; ++way) {
        auto list = MakeList(2000);
        const auto started = list->GetEnumerator(ledForward);
        const auto fresh = list->GetEnumerator(ledReverse);
        ASSERT_TRUE(started->MoveNext());
        if (way == 0) list->Clear();
        if (way == 1) list->Sort(AddressOrder());
        if (way == 2) list->Assign(nullptr, 0);
        if (way == 3) list.reset();

        EXPECT_EQ(started->GetCurrent(), nullptr);
        EXPECT_FALSE(started->MoveNext());
        EXPECT_FALSE(fresh->MoveNext());
        if (list) {
            EXPECT_EQ(list->Inconsistency(), nullptr);
        }
    }
    const auto list = MakeList(1);
    const auto over = list->GetEnumerator(ledForward);
    EXPECT_TRUE(over->MoveNext());
    EXPECT_FALSE(over->MoveNext());
    list->Add(Item(1));
    EXPECT_FALSE(over->MoveNext());
    EXPECT_EQ(over->GetCurrent(), nullptr);
}

// --- The model -----------------------------------------------------------------------------------

// An enumerator beside what it should do, told in positions of the whole list.
struct TWatched {
    TIntf<IListEnumerator> Live;
    bool Forward = true;
    bool Started = false;
    void* Current = nullptr;
    // Forward: the next item's position. Reverse: how many items are still to come.
    std::int32_t Next = 0;

    // Whether what comes next is still certain. One that goes back and whose item was deleted
    // stands between two items; whether it meets one put right there is left open.
    [[nodiscard]] bool Inserted(std::int32_t position) {
        if (!Started) return true;
        if (!Forward && Current == nullptr && position == Next) return false;
        if (Forward ? position < Next : position <= Next) ++Next;
        return true;
    }
    void Deleted(std::int32_t position, const void* item) {
        if (Current == item) Current = nullptr;
        if (Started && position < Next) --Next;
    }
    // Whether the enumerator goes on; checks where to.
    bool Step(const TItems& model) {
        const auto count = static_cast<std::int32_t>(model.size());
        if (!std::exchange(Started, true)) Next = Forward ? 0 : count;
        if (!Forward) --Next;
        const bool more = Next >= 0 && Next < count;
        EXPECT_EQ(Live->MoveNext(), more);
        if (!more) return false;
        Current = model[static_cast<std::size_t>(Next)];
        if (Forward) ++Next;
        return true;
    }
};

class TSkipListModel {
public:
    explicit TSkipListModel(std::uint32_t seed) : fRandom(seed) {
        for (std::intptr_t i = 1; i <= 10'000; ++i) fModel.push_back(Item(-i));
        fList.Assign(fModel.data(), static_cast<std::int32_t>(fModel.size()));
    }

    void Step(std::int64_t step) {
        // Phases that mostly grow and mostly shrink, at the ends, anywhere, or in one spot.
        // At first the list mostly grows, in the end it is empty again and again.
        const std::int64_t phase = step / 4000;
        const bool grows = fModel.empty() || Draw(10) < (phase % 2 == 0 ? 8 : 1);
        const auto count = static_cast<std::int32_t>(fModel.size());
        const std::int32_t most = grows ? count : count - 1;
        std::int32_t position = Draw(most + 1);
        switch (phase / 2 % 4) {
            case 0: position = Draw(2) == 0 ? 0 : most; break;
            case 1: position = std::min(most, most / 2 + Draw(100)); break;
            default: break;
        }
        if (Draw(500) == 0) CacheSkipListIndexes = !CacheSkipListIndexes;
        if (Draw(40) == 0) fList.Reserve();
        if (grows) {
            Insert(position, Item(1 + step));
        } else {
            Delete(position);
        }
        MoveEnumerators();
        Check(position, step % 1000 == 0);
    }

    [[nodiscard]] std::size_t MostBuckets() const { return fMostBuckets; }
    [[nodiscard]] std::uint32_t HighestId() const { return fRecorder.Highest; }

private:
    std::int32_t Draw(std::int32_t limit) {
        return static_cast<std::int32_t>(fRandom() % static_cast<std::uint32_t>(limit));
    }

    void Insert(std::int32_t position, void* item) {
        fList.Insert(position, item);
        fModel.insert(fModel.begin() + position, item);
        std::erase_if(fEnumerators, [&](TWatched& each) { return !each.Inserted(position); });
    }

    void Delete(std::int32_t position) {
        void* const item = fModel[static_cast<std::size_t>(position)];
        EXPECT_EQ(fList.Delete(position), item);
        fModel.erase(fModel.begin() + position);
        fRecorder.Ids.erase(item);
        for (TWatched& each : fEnumerators) each.Deleted(position, item);
    }

    // Some just born, some far on: the list moves all of them along.
    void MoveEnumerators() {
        if (fEnumerators.size() < 12 && Draw(20) == 0) {
            const bool forward = Draw(2) == 0;
            fEnumerators.push_back(
                {fList.GetEnumerator(forward ? ledForward : ledReverse), forward});
            for (std::int32_t steps = Draw(2) * Draw(4000); steps > 0; --steps) {
                if (!fEnumerators.back().Step(fModel)) {
                    fEnumerators.pop_back();
                    break;
                }
            }
        }
        std::erase_if(fEnumerators, [&](TWatched& each) {
            return Draw(3) == 0 ? !each.Step(fModel) : Draw(3000) == 0;
        });
    }

    void Check(std::int32_t position, bool all) {
        ASSERT_EQ(fList.Inconsistency(), nullptr);
        ASSERT_EQ(fList.Count(), static_cast<std::int32_t>(fModel.size()));
        for (const TWatched& each : fEnumerators) {
            ASSERT_EQ(each.Live->GetCurrent(), each.Current);
        }
        if (all) {
            ASSERT_EQ(Contents(fList), fModel);
            fMostBuckets = std::max(fMostBuckets, BucketCounts(fList).size());
        }
        const auto count = static_cast<std::int32_t>(fModel.size());
        const std::int32_t first = all ? 0 : std::max(0, position - 2);
        const std::int32_t last = all ? count : std::min(count, position + 3);
        for (std::int32_t i = first; i < last; ++i) {
            void* const item = fModel[static_cast<std::size_t>(i)];
            ASSERT_EQ(fList.Get(i), item);
            ASSERT_EQ(fList.FindInBucket(fRecorder.Ids.at(item), item), i);
        }
    }

    std::mt19937 fRandom;
    TUnrolledSkipList fList;
    TRecorder fRecorder{fList};
    TItems fModel;
    std::vector<TWatched> fEnumerators;
    std::size_t fMostBuckets = 0;
};

TEST(TSkipListModelTest, AgreesWithAVectorOverRandomEdits) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    SeedRandom(seed);
    TSkipListModel model(seed);
    const std::int64_t steps = support::Steps(64'000);
    for (std::int64_t step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
        SCOPED_TRACE(testing::Message() << "step " << step);
        model.Step(step);
    }
    CacheSkipListIndexes = true;
    // Ids are used again: one for each bucket there was at a time, and the spare one's.
    EXPECT_LE(model.HighestId(), model.MostBuckets() + 2);
}

// --- Failures ------------------------------------------------------------------------------------

// Lists in which an insertion has to split, to push a full bucket along, or to grow a ring.
TEST(TUnrolledSkipListMemoryTest, StaysAsItWasWhenMemoryRunsOut) {
    struct TCase {
        std::int32_t Count;
        void (*Change)(TUnrolledSkipList& list);
    };
    for (const auto& [count, change] : {
             TCase{1024, [](TUnrolledSkipList& list) { list.Add(Item(9)); }},
             TCase{1024, [](TUnrolledSkipList& list) { list.Insert(0, Item(9)); }},
             TCase{1024, [](TUnrolledSkipList& list) { list.Insert(500, Item(9)); }},
             TCase{3000, [](TUnrolledSkipList& list) { list.Sort(AddressOrder()); }},
             TCase{3000, [](TUnrolledSkipList& list) { list.Reserve(); }},
             TCase{10,
                   [](TUnrolledSkipList& list) {
                       const TItems items = Numbered(5000);
                       list.Assign(items.data(), 5000);
                   }},
             TCase{10, [](TUnrolledSkipList& list) { (void)list.GetEnumerator(ledForward); }},
         }) {
        const TItems before = Numbered(count);
        const std::int64_t needed = support::FailEachAllocation(
            [&] { return MakeList(count); },
            [&](const TOwned<TUnrolledSkipList>& list) { change(*list); },
            [&](const TOwned<TUnrolledSkipList>& list, bool raised) {
                EXPECT_EQ(list->Inconsistency(), nullptr);
                if (raised) {
                    EXPECT_EQ(Contents(*list), before);
                }
            });
        EXPECT_GE(needed, 1) << count;
    }
    support::FailEachAllocation([] { return 0; }, [](int) { const TUnrolledSkipList list; },
                                [](int, bool) {});  // the address sanitizer looks for leaks
}

TEST(TUnrolledSkipListMemoryTest, AllocatesNothingInAnInsertionThatWasReserved) {
    std::mt19937 random(support::Seed());
    const auto list = MakeList(1024);
    for (std::int32_t i = 0; i < 60'000; ++i) {
        const std::int32_t count = list->Count();
        const auto anywhere =
            static_cast<std::int32_t>(random() % static_cast<std::uint32_t>(count));
        const std::int32_t spots[] = {count, 0, count / 2, anywhere, anywhere, anywhere};
        const std::int32_t position = spots[i / 10'000];
        list->Reserve();
        const std::int64_t allocations = support::Allocations();
        list->Insert(position, Item(i));
        ASSERT_EQ(support::Allocations(), allocations) << i;
        if (i % 3 == 2) {
            list->Delete(position / 2);
            ASSERT_EQ(support::Allocations(), allocations) << i;
        }
    }
    EXPECT_EQ(list->Inconsistency(), nullptr);
}

TEST(TUnrolledSkipListMemoryTest, TheBucketThatWentServesTheNextSplit) {
    const auto list = MakeList(1025);
    list->Delete(1024);
    const std::int64_t allocations = support::Allocations();

    list->Add(Item(1));

    EXPECT_EQ(support::Allocations(), allocations);
}

}  // namespace
}  // namespace kds
