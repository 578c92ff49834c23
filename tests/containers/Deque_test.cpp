#include "kds/containers/Deque.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <string>
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

std::vector<void*> Elements(const TDeque& ring) {
    std::vector<void*> elements(static_cast<std::size_t>(ring.Count()));
    for (std::int32_t i = 0; i < ring.Count(); ++i)
        elements[static_cast<std::size_t>(i)] = ring.Get(i);
    return elements;
}

struct TShape {
    const char* Name;
    std::int32_t Head, Count, Position;
};
constexpr TShape Shapes[] = {
    {"Single", 0, 1, 0},
    {"TailSideFlat", 0, 10, 7},
    {"HeadSideFlat", 3, 10, 2},
    {"TailCrossesSeam", 8, 10, 6},
    {"HeadCrossesSeam", 14, 10, 4},
    {"HeadAtTheSeam", 0, 10, 4},
    {"TailEndsAtTheSeam", 6, 10, 6},
    {"Middle", 5, 10, 5},
    {"AllButFull", 9, 15, 8},
    {"Full", 9, 16, 8},
    {"FullAtTheFront", 12, 16, 1},
};

class TDequeShapeTest : public testing::TestWithParam<TShape> {};

TEST_P(TDequeShapeTest, InsertKeepsTheOtherElementsInOrder) {
    const auto& [name, head, count, position] = GetParam();
    const TOwned<TDeque> ring = MakeRing(head, count);
    std::vector<void*> expected = Elements(*ring);

    ring->Insert(position, Item(99));

    expected.insert(expected.begin() + position, Item(99));
    EXPECT_TRUE(ring->IsConsistent());
    EXPECT_EQ(Elements(*ring), expected);
}

TEST_P(TDequeShapeTest, DeleteKeepsTheOtherElementsInOrder) {
    const auto& [name, head, count, position] = GetParam();
    const TOwned<TDeque> ring = MakeRing(head, count);
    std::vector<void*> expected = Elements(*ring);

    ring->Delete(position);

    expected.erase(expected.begin() + position);
    EXPECT_TRUE(ring->IsConsistent());
    EXPECT_EQ(Elements(*ring), expected);
}

TEST_P(TDequeShapeTest, SegmentsCopiesAndSearchesSeeTheElementsInOrder) {
    const auto& [name, head, count, position] = GetParam();
    const TOwned<TDeque> ring = MakeRing(head, count);
    const std::vector<void*> expected = Elements(*ring);

    const auto [front, back] = ring->Segments();
    std::vector<void*> segments(front.begin(), front.end());
    segments.insert(segments.end(), back.begin(), back.end());
    std::vector<void*> copied(expected.size());
    ring->CopyItems(copied.data());
    EXPECT_EQ(segments, expected);
    EXPECT_EQ(copied, expected);
    EXPECT_EQ(ring->IndexOf(Item(position + 1)), position);
    EXPECT_EQ(ring->IndexOf(Item(count + 1)), -1);

    ring->Normalize();
    EXPECT_EQ(ring->Segments().Front.size(), expected.size());
    EXPECT_EQ(Elements(*ring), expected);
}

TEST_P(TDequeShapeTest, PartsOfItAreAppendedInOrder) {
    const auto& [name, head, count, position] = GetParam();
    const TOwned<TDeque> ring = MakeRing(head, count);
    const std::vector<void*> elements = Elements(*ring);
    const TOwned<TDeque> target = MakeRing(12, 3);
    std::vector<void*> expected = Elements(*target);

    target->AppendPart(*ring, position, count - position);
    target->AppendPart(*ring, 0, position);
    target->Prepand(*ring);
    ring->Append(*ring);

    expected.insert(expected.end(), elements.begin() + position, elements.end());
    expected.insert(expected.end(), elements.begin(), elements.begin() + position);
    expected.insert(expected.begin(), elements.begin(), elements.end());
    EXPECT_EQ(Elements(*target), expected);
    std::vector<void*> twice = elements;
    twice.insert(twice.end(), elements.begin(), elements.end());
    EXPECT_EQ(Elements(*ring), twice);
    ring->SetCount(count);
    ring->Prepand(*ring);
    EXPECT_EQ(Elements(*ring), twice);
}

INSTANTIATE_TEST_SUITE_P(Shapes, TDequeShapeTest, testing::ValuesIn(Shapes),
                         [](const auto& tested) { return std::string(tested.param.Name); });

// The elements that stay are seen to stay by their addresses.
TEST(TDequeTest, MovesTheShorterSide) {
    const TOwned<TDeque> ring = MakeRing(4, 10);
    void* const* const head = ring->Segments().Front.data();

    ring->Insert(5, Item(99));  // as many on either side: the tail moves
    ring->Delete(5);
    EXPECT_EQ(ring->Segments().Front.data(), head);
    ring->Insert(4, Item(99));
    EXPECT_EQ(ring->Segments().Front.data(), head - 1);
    ring->Delete(5);
    EXPECT_EQ(ring->Segments().Front.data(), head - 1);
    ring->Delete(4);
    EXPECT_EQ(ring->Segments().Front.data(), head);
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
    auto routine = [](void* a, void* b) { return a < b ? -1 : a > b ? 1 : 0; };
    const auto compare = TComparator::BindCall(&routine);
    const auto find = [&](std::intptr_t number) {
        std::int32_t index = -7;
        const bool found = ring.Find(Item(number), index, compare);
        return std::pair(found, index);
    };

    EXPECT_EQ(find(0), std::pair(false, 0));
    EXPECT_EQ(find(3), std::pair(true, 1));
    EXPECT_EQ(find(4), std::pair(false, 4));
    EXPECT_EQ(find(8), std::pair(false, 5));
}

TEST(TDequeTest, SortsAcrossTheSeam) {
    auto routine = [](void* a, void* b) { return a < b ? -1 : a > b ? 1 : 0; };
    const auto compare = TComparator::BindCall(&routine);
    for (std::int32_t way = 0; way < 3; ++way) {
        const TOwned<TDeque> ring = MakeRing(10, 12);
        std::vector<void*> expected = Elements(*ring);
        ring->Exchange(0, 11);
        ring->Move(5, 2);
        if (way == 0) ring->Sort(compare, 1);
        if (way == 1) ring->QuickSort(compare);
        if (way == 2) ring->InsertSort(compare);

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
            ring.Delete(position);
            model.erase(model.begin() + position);
        } else if (random() % 4 == 0) {
            ring.AddFirst(Item(step));
            model.insert(model.begin(), Item(step));
        } else {
            ring.Insert(position, Item(step));
            model.insert(model.begin() + position, Item(step));
        }
        switch (random() % 200) {
            case 0: ring.Normalize(); break;
            case 1: ring.SetCapacity(ring.Count() + 3); break;
            case 2:
                ring.SetCount(ring.Count() / 2);
                model.resize(model.size() / 2);
                break;
            case 3:
                ring.SetCount(ring.Count() + 2);
                model.resize(model.size() + 2);
                break;
            default: break;
        }
        ASSERT_TRUE(ring.IsConsistent()) << "step " << step;
        ASSERT_EQ(Elements(ring), model) << "step " << step;
    }
}

}  // namespace
}  // namespace kds
