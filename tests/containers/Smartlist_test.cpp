#include "kds/containers/Smartlist.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kds/platform/Errors.h"
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

// Items 0 to count - 1, in chunks of up to 8 whose slots grow by 2.
TOwned<TSmartList> MakeList(std::int32_t count) {
    auto list = MakeOwned<TSmartList>(8, 2);
    for (std::int32_t i = 0; i < count; ++i) list->Add(Item(i));
    return list;
}

TItems Contents(const TSmartList& list) {
    TItems items(static_cast<std::size_t>(list.Count()));
    list.CopyTo(items.data());
    return items;
}

TItems Walked(IListEnumerator& walk) {
    TItems items;
    while (walk.MoveNext()) items.push_back(walk.GetCurrent());
    return items;
}

std::int32_t ByAddress(void* a, void* b) { return a < b ? -1 : a > b ? 1 : 0; }
TComparator AddressOrder() { return TComparator::Bind<&ByAddress>(); }

struct TSizes {
    const char* Name;
    std::int32_t BucketSize, GrowthStep, Most;
};

class TSmartListModelTest : public testing::TestWithParam<TSizes> {};

// The oracle is a vector: slow in the middle, but nobody doubts it.
TEST_P(TSmartListModelTest, AgreesWithAVectorOverRandomEdits) {
    const auto& [name, bucketSize, growthStep, most] = GetParam();
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937 random(seed);
    TSmartList list(bucketSize, growthStep);
    TItems model;
    bool grows = true;
    for (std::int64_t step = 0; step < support::Steps(10'000); ++step) {
        if (model.empty() || static_cast<std::int32_t>(model.size()) >= most) grows = model.empty();
        const bool inserts = model.empty() || random() % 10 < (grows ? 9u : 1u);
        auto position = static_cast<std::int32_t>(random() % (model.size() + inserts));
        if (random() % 4 == 0) position = 0;
        if (random() % 4 == 0) position = static_cast<std::int32_t>(model.size()) - !inserts;
        if (random() % 3 == 0) list.Reserve();
        if (inserts) {
            list.Insert(position, Item(step));
            model.insert(model.begin() + position, Item(step));
        } else {
            ASSERT_EQ(list.Delete(position), model[static_cast<std::size_t>(position)]);
            model.erase(model.begin() + position);
        }
        if (!model.empty()) {
            const auto i = random() % model.size();
            const auto j = random() % model.size();
            list.Exchange(static_cast<std::int32_t>(i), static_cast<std::int32_t>(j));
            std::swap(model[i], model[j]);
            ASSERT_EQ(list.Get(static_cast<std::int32_t>(j)), model[j]);
        }
        ASSERT_STREQ(list.Inconsistency(), nullptr) << "step " << step;
        if (step % 16 == 0) {
            ASSERT_EQ(Contents(list), model) << "step " << step;
        }
    }
    EXPECT_EQ(Contents(list), model);
}

INSTANTIATE_TEST_SUITE_P(Sizes, TSmartListModelTest,
                         testing::Values(TSizes{"Smallest", 2, 1, 300}, TSizes{"Odd", 7, 3, 500},
                                         TSizes{"Small", 16, 4, 1000},
                                         TSizes{"OfItsUser", 2048, 256, 9000}),
                         [](const auto& tested) { return std::string(tested.param.Name); });

TEST(TSmartListTest, IsFilledChunkByChunkAndClearedWithoutAllocating) {
    TSmartList list;
    for (const std::int32_t count : {0, 1, 2048, 2049, 9000, 5}) {
        const TItems items = Numbered(count);
        list.Assign(items.data(), count);
        EXPECT_EQ(list.Inconsistency(), nullptr);
        EXPECT_EQ(Contents(list), items);
        for (std::int32_t i = 0; i < count; ++i) ASSERT_EQ(list.Get(i), Item(i));
        EXPECT_EQ(list.IndexOf(Item(count - 1)), count - 1);
        EXPECT_EQ(list.IndexOf(Item(count)), -1);
    }
    EXPECT_THROW(list.Assign(nullptr, -1), EListError);
    const std::int64_t allocations = support::Allocations();
    list.Clear();
    EXPECT_EQ(support::Allocations(), allocations);
    EXPECT_EQ(list.Count(), 0);
    EXPECT_EQ(list.Add(Item(3)), 0);
    EXPECT_EQ(list.Inconsistency(), nullptr);
}

TEST(TSmartListTest, RefusesPositionsOutOfRangeAndChangesNothing) {
    constexpr std::int32_t lowest = std::numeric_limits<std::int32_t>::min();
    constexpr std::int32_t highest = std::numeric_limits<std::int32_t>::max();
    const auto list = MakeList(20);
    for (const std::int32_t index : {-1, 20, lowest, highest}) {
        EXPECT_THROW(static_cast<void>(list->Get(index)), EListError);
        EXPECT_THROW(list->SetItem(index, Item(9)), EListError);
        EXPECT_THROW(list->Delete(index), EListError);
        EXPECT_THROW(list->Exchange(index, 0), EListError);
        EXPECT_THROW(list->Exchange(0, index), EListError);
        EXPECT_THROW(list->Insert(index == 20 ? 21 : index, Item(9)), EListError);
    }
    EXPECT_EQ(list->Inconsistency(), nullptr);
    EXPECT_EQ(Contents(*list), Numbered(20));
    EXPECT_THROW(TSmartList(1, 1), EListError);
    EXPECT_THROW(TSmartList(8, 0), EListError);
}

// Lists that are full at the front and nearly empty behind mislead the guess of the chunk.
TEST(TSmartListTest, FindsPositionsInUnevenChunks) {
    TSmartList list(64, 16);
    for (std::int32_t i = 0; i < 6400; ++i) list.Add(Item(i));
    TItems model = Numbered(6400);
    for (std::int32_t chunk = 99; chunk >= 30; --chunk) {
        for (std::int32_t i = 0; i < 31; ++i) list.Delete(chunk * 64);
        model.erase(model.begin() + chunk * 64, model.begin() + chunk * 64 + 31);
    }
    ASSERT_EQ(list.Inconsistency(), nullptr);
    for (std::int32_t i = 0; i < list.Count(); ++i) {
        ASSERT_EQ(list.Get(i), model[static_cast<std::size_t>(i)]);
    }
    list.SetItem(5000 / 2, Item(-1));
    EXPECT_EQ(list.IndexOf(Item(-1)), 2500);
}

TEST(TSmartListTest, FindsTheFirstOfEqualItemsOrThePlaceForOne) {
    TSmartList list(2, 1);
    for (const std::intptr_t number : {1, 3, 3, 3, 7}) list.Add(Item(number));
    const auto find = [&](std::intptr_t number) {
        std::int32_t index = -7;
        const bool found = list.Find(Item(number), index, AddressOrder());
        return std::pair(found, index);
    };

    EXPECT_EQ(find(0), std::pair(false, 0));
    EXPECT_EQ(find(3), std::pair(true, 1));
    EXPECT_EQ(find(4), std::pair(false, 4));
    EXPECT_EQ(find(8), std::pair(false, 5));
}

TEST(TSmartListSortTest, SortsStablyOnThreadsAndKeepsTheItemsWhenTheComparisonRaises) {
    std::mt19937 random(support::Seed());
    TSmartList list;
    for (std::int32_t i = 0; i < 40'000; ++i) {
        list.Insert(static_cast<std::int32_t>(random() % static_cast<unsigned>(i + 1)), Item(i));
    }
    const TItems before = Contents(list);
    const auto tens = [](void* item) { return reinterpret_cast<std::uintptr_t>(item) / 80; };
    std::int32_t calls = 0;
    auto raising = [&](void* a, void* b) {
        if (++calls == 200'000) throw EConvertError(u"no order");
        return ByAddress(a, b);
    };
    EXPECT_THROW(list.Sort(TComparator::BindCall(&raising), 1), EConvertError);
    EXPECT_EQ(Contents(list), before);

    auto byTens = [&](void* a, void* b) {
        return tens(a) < tens(b) ? -1 : tens(a) > tens(b) ? 1 : 0;
    };
    list.Sort(TComparator::BindCall(&byTens));

    TItems expected = before;
    std::stable_sort(expected.begin(), expected.end(),
                     [&](void* a, void* b) { return tens(a) < tens(b); });
    EXPECT_EQ(Contents(list), expected);
    EXPECT_EQ(list.Inconsistency(), nullptr);
}

// --- Enumerators ---------------------------------------------------------------------------------

TEST(TSmartListEnumeratorTest, WalksBothWaysAndThenStaysAtTheEnd) {
    const auto list = MakeList(20);
    const auto forward = list->GetEnumerator(ledForward);
    const auto reverse = list->GetEnumerator(ledReverse);
    EXPECT_EQ(forward->GetCurrent(), nullptr);
    EXPECT_EQ(reverse->GetCurrent(), nullptr);

    TItems expected = Numbered(20);
    EXPECT_EQ(Walked(*forward), expected);
    std::reverse(expected.begin(), expected.end());
    EXPECT_EQ(Walked(*reverse), expected);
    list->Add(Item(50));
    list->Insert(0, Item(51));
    for (IListEnumerator* const walk : {forward.Get(), reverse.Get()}) {
        EXPECT_EQ(walk->GetCurrent(), nullptr);
        EXPECT_FALSE(walk->MoveNext());
    }
}

TEST(TSmartListEnumeratorTest, IsClampedToAListThatShrinksAndGrows) {
    const auto list = MakeList(20);
    const auto forward = list->GetEnumerator(ledForward);
    const auto reverse = list->GetEnumerator(ledReverse);
    for (std::int32_t i = 0; i < 5; ++i) forward->MoveNext();
    for (std::int32_t i = 0; i < 3; ++i) reverse->MoveNext();
    EXPECT_EQ(forward->GetCurrent(), Item(4));
    EXPECT_EQ(reverse->GetCurrent(), Item(17));

    while (list->Count() > 4) list->Delete(list->Count() - 1);
    EXPECT_EQ(forward->GetCurrent(), nullptr);
    EXPECT_EQ(reverse->GetCurrent(), nullptr);
    EXPECT_EQ(Walked(*reverse), (TItems{Item(3), Item(2), Item(1), Item(0)}));
    for (std::int32_t i = 4; i < 7; ++i) list->Add(Item(i));
    EXPECT_EQ(forward->GetCurrent(), Item(4));
    EXPECT_EQ(Walked(*forward), (TItems{Item(5), Item(6)}));
}

TEST(TSmartListEnumeratorTest, HasEndedWhenItsListIsClearedOrGone) {
    auto list = std::make_unique<TSmartList>(8, 2);
    for (std::int32_t i = 0; i < 20; ++i) list->Add(Item(i));
    for (const TListEnumeratorDirection direction : {ledForward, ledReverse}) {
        const auto cleared = list->GetEnumerator(direction);
        TSmartList other(4, 1);
        other.Add(Item(1));
        auto walk = other.GetEnumerator(direction);
        EXPECT_TRUE(walk->MoveNext());
        other.Clear();
        EXPECT_EQ(walk->GetCurrent(), nullptr);
        EXPECT_FALSE(walk->MoveNext());
    }
    const auto started = list->GetEnumerator(ledForward);
    const auto fresh = list->GetEnumerator(ledReverse);
    EXPECT_TRUE(started->MoveNext());
    list.reset();

    for (IListEnumerator* const walk : {started.Get(), fresh.Get()}) {
        EXPECT_EQ(walk->GetCurrent(), nullptr);
        EXPECT_FALSE(walk->MoveNext());
    }
}

// --- Memory --------------------------------------------------------------------------------------

TEST(TSmartListTest, StaysAsItWasWhenMemoryRunsOut) {
    // 16: two full chunks. 18: the slots of the last one are full. 64: so are the arrays of chunks.
    for (const std::int32_t count : {0, 16, 18, 64}) {
        const TItems before = Numbered(count);
        const auto make = [&] { return MakeList(count); };
        for (const auto change :
             {+[](TSmartList& list) { list.Insert(0, Item(99)); },
              +[](TSmartList& list) {
                  list.Insert(list.Count() / 2 + 1 - !list.Count(), Item(99));
              },
              +[](TSmartList& list) { list.Add(Item(99)); },
              +[](TSmartList& list) { list.Reserve(); },
              +[](TSmartList& list) { list.Sort(AddressOrder()); },
              +[](TSmartList& list) { list.Assign(Numbered(30).data(), 30); },
              +[](TSmartList& list) { static_cast<void>(list.GetEnumerator(ledForward)); }}) {
            support::FailEachAllocation(
                make, [&](const TOwned<TSmartList>& list) { change(*list); },
                [&](const TOwned<TSmartList>& list, bool raised) {
                    EXPECT_EQ(list->Inconsistency(), nullptr);
                    if (raised) {
                        EXPECT_EQ(Contents(*list), before);
                    }
                });
        }
    }
}

TEST(TSmartListTest, NeedsNoMemoryForAnInsertionAfterReserve) {
    std::mt19937 random(support::Seed());
    TSmartList list(8, 2);
    for (std::int32_t i = 0; i < 3000; ++i) {
        const auto position = random() % static_cast<std::uint32_t>(list.Count() + 1);
        list.Reserve();
        const std::int64_t allocations = support::Allocations();
        list.Insert(static_cast<std::int32_t>(position), Item(i));
        ASSERT_EQ(support::Allocations(), allocations);
    }
    const std::int64_t allocations = support::Allocations();
    while (list.Count() > 0) list.Delete(list.Count() / 3);
    EXPECT_EQ(support::Allocations(), allocations);
}

}  // namespace
}  // namespace kds
