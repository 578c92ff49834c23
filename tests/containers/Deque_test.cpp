#include "kds/containers/Deque.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <vector>

#include "kds/platform/Errors.h"
#include "tests/support/Allocfail.h"
#include "tests/support/Seed.h"

namespace kds {
namespace {

// A pointer that nobody follows.
void* Item(std::intptr_t number) { return reinterpret_cast<void*>(number * 8); }

// 16 slots, element 0 in slot `head`, elements Item(1), Item(2)...
TOwned<TDeque> MakeRing(std::int32_t head, std::int32_t count) {
    auto ring = MakeOwned<TDeque>(16);
    for (std::int32_t i = 0; i < head; ++i) {
        ring->Add(nullptr);
        ring->PopFirst();
    }
    for (std::int32_t i = 0; i < count; ++i) ring->Add(Item(i + 1));
    return ring;
}

std::int32_t ByAddress(void* a, void* b) { return a < b ? -1 : a > b ? 1 : 0; }
const TComparator AddressOrder = TComparator::Bind<&ByAddress>();

std::vector<void*> Elements(const TDeque& ring) {
    std::vector<void*> elements(static_cast<std::size_t>(ring.Count()));
    for (std::int32_t i = 0; i < ring.Count(); ++i)
        elements[static_cast<std::size_t>(i)] = ring.Get(i);
    return elements;
}

// The elements that stay are seen to stay by their addresses.
TEST(TDequeTest, MovesTheShorterSide) {
    const TOwned<TDeque> ring = MakeRing(4, 10);
    const auto head = [&] { return ring->Segments().Front.data(); };
    void* const* const start = head();

    ring->Insert(5, Item(99));  // as many on either side: the tail moves
    ring->Delete(5);
    EXPECT_EQ(head(), start);
    ring->Insert(4, Item(99));
    EXPECT_EQ(head(), start - 1);
    ring->Delete(4);
    EXPECT_EQ(head(), start);
}

// A search goes by blocks and by half addresses first.
TEST(TDequeTest, FindsEachElementAndNoneThatIsAlikeInItsLowHalf) {
    TDeque ring;
    for (std::int32_t i = 0; i < 100; ++i) ring.Add(Item(i));
    ring.Delete(0);
    for (std::int32_t i = 1; i < 100; ++i) {
        const std::intptr_t twin = i + (std::intptr_t{1} << 40);
        EXPECT_EQ(ring.IndexOf(Item(i)), i - 1);
        EXPECT_EQ(ring.IndexOf(Item(twin)), -1);
    }
    EXPECT_EQ(ring.Extract(Item(50)), Item(50));
    EXPECT_EQ(ring.Remove(Item(50)), -1);
    EXPECT_EQ(ring.Remove(Item(51)), 49);
}

TEST(TDequeTest, GrowsByAQuarterAndAtLeastBySixteen) {
    TDeque ring;
    std::vector<std::int32_t> capacities;
    for (std::int32_t i = 0; i < 130; ++i) {
        ring.Add(nullptr);
        if (capacities.empty() || capacities.back() != ring.Capacity()) {
            capacities.push_back(ring.Capacity());
        }
    }

    EXPECT_EQ(capacities, (std::vector<std::int32_t>{16, 32, 48, 64, 80, 100, 125, 156}));
    ring.SetCount(156);
    ring.AppendPart(ring, 0, 1);  // a step, though one slot would do
    EXPECT_EQ(ring.Capacity(), 195);
}

TEST(TDequeTest, AnswersNothingOutOfRangeAndRefusesChangesThere) {
    TDeque ring;
    constexpr std::int32_t lowest = std::numeric_limits<std::int32_t>::min();
    EXPECT_EQ(ring.First(), nullptr);
    EXPECT_EQ(ring.PopFirst(), nullptr);
    EXPECT_EQ(ring.PopLast(), nullptr);
    EXPECT_EQ(ring.Extract(Item(1)), nullptr);
    ring.Add(Item(1));
    ring.Add(Item(2));
    ring.Put(2, Item(9));
    ring.Put(-1, Item(9));
    for (const std::int32_t index : {-1, 2, lowest}) {
        EXPECT_EQ(ring.Get(index), nullptr);
        EXPECT_THROW(ring.Delete(index), EListError);
        EXPECT_THROW(ring.Move(0, index), EListError);
        EXPECT_THROW(ring.Exchange(index, 0), EListError);
    }
    EXPECT_THROW(ring.Insert(3, nullptr), EListError);
    EXPECT_THROW(ring.Insert(-1, nullptr), EListError);
    EXPECT_THROW(ring.AppendPart(ring, 1, 2), EListError);
    EXPECT_THROW(ring.SetCount(-1), EListError);
    EXPECT_THROW(ring.SetCapacity(1), EListError);

    EXPECT_EQ(Elements(ring), (std::vector<void*>{Item(1), Item(2)}));
    try {
        ring.Delete(2);
    } catch (const EListError& error) {
        EXPECT_EQ(error.Message(), u"List index out of bounds (2)");
    }
}

TEST(TDequeTest, FindsTheFirstOfEqualElementsOrThePlaceForOne) {
    TDeque ring;
    for (const std::intptr_t number : {1, 3, 3, 3, 7}) ring.Add(Item(number));
    const auto find = [&](std::intptr_t number) {
        std::int32_t index = -7;
        const bool found = ring.Find(Item(number), index, AddressOrder);
        return std::pair(found, index);
    };

    EXPECT_EQ(find(0), std::pair(false, 0));
    EXPECT_EQ(find(3), std::pair(true, 1));
    EXPECT_EQ(find(4), std::pair(false, 4));
    EXPECT_EQ(find(8), std::pair(false, 5));
}

TEST(TDequeTest, SortsAcrossTheSeam) {
    for (std::int32_t way = 0; way < 3; ++way) {
        const TOwned<TDeque> ring = MakeRing(10, 12);
        const std::vector<void*> expected = Elements(*ring);
        ring->Exchange(0, 11);
        ring->Move(5, 2);
        if (way == 0) ring->Sort(AddressOrder, 1);
        if (way == 1) ring->QuickSort(AddressOrder);
        if (way == 2) ring->InsertSort(AddressOrder);

        EXPECT_EQ(Elements(*ring), expected);
    }
}

TEST(TDequeTest, StaysAsItWasWhenMemoryRunsOut) {
    const auto full = [] { return MakeRing(9, 16); };
    const std::vector<void*> before = Elements(*full());
    for (const auto change :
         {+[](TDeque& ring) { ring.Insert(4, nullptr); },
          +[](TDeque& ring) { ring.AddFirst(nullptr); }, +[](TDeque& ring) { ring.Append(ring); },
          +[](TDeque& ring) { ring.SetCount(40); }}) {
        const std::int64_t needed = support::FailEachAllocation(
            full, [&](const TOwned<TDeque>& ring) { change(*ring); },
            [&](const TOwned<TDeque>& ring, bool raised) {
                EXPECT_TRUE(ring->IsConsistent());
                if (raised) {
                    EXPECT_EQ(Elements(*ring), before);
                }
            });
        EXPECT_EQ(needed, 1);
    }
}

// Read in each of the ways there are.
void ExpectElements(const TDeque& ring, const std::vector<void*>& expected) {
    ASSERT_TRUE(ring.IsConsistent());
    ASSERT_EQ(Elements(ring), expected);
    std::vector<void*> copied(expected.size());
    ring.CopyItems(copied.data());
    ASSERT_EQ(copied, expected);
    const auto [front, back] = ring.Segments();
    std::vector<void*> segments(front.begin(), front.end());
    segments.insert(segments.end(), back.begin(), back.end());
    ASSERT_EQ(segments, expected);
}

// The oracle is a vector: slow in the middle, but nobody doubts it.
TEST(TDequeModelTest, AgreesWithAVectorOverRandomEdits) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937 random(seed);
    TDeque ring;
    std::vector<void*> model;
    for (std::int64_t step = 0; step < support::Steps(20'000); ++step) {
        // A thousand steps mostly grow, the next mostly shrink, so empty is met again and again.
        const bool grows = model.empty() || random() % 10 < (step / 1000 % 2 == 0 ? 7u : 3u);
        const auto position = static_cast<std::int32_t>(random() % (model.size() + grows));
        if (!grows) {
            const auto place = model.begin() + position;
            ASSERT_EQ(ring.IndexOf(*place),
                      std::find(model.begin(), place, *place) - model.begin());
            ring.Delete(position);
            model.erase(place);
        } else if (random() % 4 == 0) {
            ring.AddFirst(Item(step));
            model.insert(model.begin(), Item(step));
        } else {
            ring.Insert(position, Item(step));
            model.insert(model.begin() + position, Item(step));
        }
        const std::vector<void*> before = model;
        const TOwned<TDeque> other = MakeRing(12, 6);
        switch (random() % 200) {
            case 0:
                ring.Normalize();
                ASSERT_EQ(ring.Segments().Front.size(), model.size());
                break;
            case 1: ring.SetCapacity(ring.Count() + 3); break;
            case 2:
                ring.SetCount(ring.Count() / 2);
                model.resize(model.size() / 2);
                break;
            case 3:
                ring.SetCount(ring.Count() + 2);
                model.resize(model.size() + 2);
                break;
            case 4:
                ring.AppendPart(*other, 2, 3);
                model.insert(model.end(), {Item(3), Item(4), Item(5)});
                break;
            case 5:
                ring.Prepand(*other);
                for (std::int32_t i = 6; i > 0; --i) model.insert(model.begin(), Item(i));
                break;
            case 6:
                ring.Append(ring);
                model.insert(model.end(), before.begin(), before.end());
                break;
            case 7:
                ring.Prepand(ring);
                model.insert(model.end(), before.begin(), before.end());
                break;
            default: break;
        }
        // What doubles is cut, lest the steps grow slow.
        if (model.size() > 1000) {
            ring.SetCount(300);
            model.resize(300);
        }
        ASSERT_NO_FATAL_FAILURE(ExpectElements(ring, model)) << "step " << step;
    }
}

}  // namespace
}  // namespace kds
