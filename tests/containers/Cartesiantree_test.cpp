#include "kds/containers/Cartesiantree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "kds/containers/Typedtrees.h"
#include "kds/platform/Errors.h"
#include "kds/platform/Random.h"
#include "tests/support/Allocfail.h"
#include "tests/support/Seed.h"

namespace kds {
namespace {

using TItems = std::vector<void*>;

// A pointer that nobody follows.
void* Item(std::intptr_t number) { return reinterpret_cast<void*>(number * 8); }

// Links nodes itself, sees which values an owning tree frees, and shows the caches.
class TTree final : public TCartesianTree {
public:
    using TCartesianTree::TCartesianTree;
    ~TTree() override { Clear(); }

    // Each node hangs below the one before it, left or right as `right(number)` says.
    template <typename F>
    void LinkChain(std::int32_t count, F right) {
        PCartesianNode above = nullptr;
        for (std::int32_t i = 0; i < count; ++i) {
            PCartesianNode node = CreateNode(count - i, Item(i));
            node->Parent = above;
            node->Count = count - i;
            (above == nullptr ? fRoot : right(i) ? above->Right : above->Left) = node;
            above = node;
        }
        fCount = count;
    }
    PCartesianNode InsertWeighted(std::int32_t index, std::int32_t weight, void* value) {
        PCartesianNode node = CreateNode(weight, value);
        Link(node, index);
        ++fCount;
        InvalidateCache();
        return node;
    }
    void SplitAndMerge(std::int32_t count) {
        PCartesianNode left = nullptr;
        PCartesianNode right = nullptr;
        Split(fRoot, count, left, right);
        EXPECT_EQ(CountOf(left), std::clamp(count, 0, fCount));
        EXPECT_EQ(CountOf(left) + CountOf(right), fCount);
        PCartesianNode middle = nullptr;
        Split(right, 1, middle, right);
        const bool both = middle != nullptr && right != nullptr;
        right = Merge(middle, right);
        EXPECT_TRUE(!both || right->Parent == nullptr);
        fRoot = Merge(left, right);
        if (left == nullptr || right == nullptr) fRoot->Parent = nullptr;
    }
    using TCartesianTree::CacheByIndexIndex;
    using TCartesianTree::CacheByIndexValid;
    using TCartesianTree::CacheByIndexValue;
    using TCartesianTree::CacheIndexOfIndex;
    using TCartesianTree::CacheIndexOfValid;
    using TCartesianTree::CacheIndexOfValue;

    TItems Freed;

private:
    void FreeValue(void* value) noexcept override { Freed.push_back(value); }
};

TItems Contents(const TCartesianTree& tree) {
    TItems items;
    for (PCartesianNode node : tree) items.push_back(node->Value);
    return items;
}

TEST(TCartesianTreeTest, RefusesPositionsOutOfRangeAndChangesNothing) {
    TTree tree;
    EXPECT_EQ(tree.IndexOf(nullptr), -1);
    EXPECT_THROW(tree.Delete(0), EListError);
    tree.Insert(0, Item(5));
    EXPECT_EQ(tree.Delete(0), Item(5));
    EXPECT_EQ(tree.Root(), nullptr);
    for (const std::intptr_t number : {2, 3, 4}) tree.Insert(tree.GetCount(), Item(number));
    tree.Insert(0, Item(1));
    (void)tree.ByIndex(2);

    for (const std::int32_t index : {-1, 4, 5, std::numeric_limits<std::int32_t>::min()}) {
        EXPECT_THROW((void)tree.ByIndex(index), EListError);
        EXPECT_THROW(tree.Delete(index), EListError);
        if (index == 4) continue;
        try {
            tree.Insert(index, nullptr);
            ADD_FAILURE();
        } catch (const EListError& error) {
            EXPECT_TRUE(error.Message().starts_with(u"List index out of bounds ("));
        }
    }
    EXPECT_EQ(tree.CacheByIndexIndex, 2);
    EXPECT_EQ(Contents(tree), (TItems{Item(1), Item(2), Item(3), Item(4)}));
}

// That an answer comes from the cache is seen by putting another one there.
TEST(TCartesianTreeTest, AnswersARepeatedQuestionFromTheCacheUntilTheNextChange) {
    TTree tree;
    for (std::int32_t i = 0; i < 10; ++i) tree.Insert(i, Item(i));
    const auto ask = [&] {
        EXPECT_EQ(tree.IndexOf(tree.ByIndex(3)), 3);
        EXPECT_EQ(tree.ValueOf(3), Item(3));
        tree.CacheByIndexValue = nullptr;
        tree.CacheIndexOfIndex = 77;
    };
    ask();
    EXPECT_EQ(tree.ValueOf(3), nullptr);
    EXPECT_EQ(tree.IndexOf(tree.CacheIndexOfValue), 77);
    EXPECT_FALSE(tree.IsConsistent());
    EXPECT_EQ(tree.IndexOf(tree.ByIndex(4)), 4);  // another one
    EXPECT_TRUE(tree.IsConsistent());
    for (std::int32_t* const field : {&tree.Root()->Count, &tree.Root()->Weight}) {
        const std::int32_t kept = std::exchange(*field, 0);
        EXPECT_FALSE(tree.IsConsistent());
        *field = kept;
    }

    ask();
    tree.Insert(10, Item(10));
    ask();
    tree.Delete(10);
    ask();
    tree.Clear();
    EXPECT_FALSE(tree.CacheByIndexValid || tree.CacheIndexOfValid);
}

// Of equal weights the one behind stands above: with that there is one shape for given weights, so
// the shape is right when no right child is as heavy as its parent.
void ExpectTheOnlyShape(const TCartesianTree& tree) {
    ASSERT_TRUE(tree.IsConsistent());
    for (PCartesianNode node : tree) {
        ASSERT_TRUE(node->Right == nullptr || node->Right->Weight < node->Weight);
    }
}

TEST(TCartesianTreeModelTest, AgreesWithAVectorOverRandomEdits) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937 random(seed);
    TTree tree;
    TItems model;
    std::vector<PCartesianNode> nodes;
    const auto insert = [&](std::int32_t position, void* item) {
        // Few weights, so that ties are everywhere.
        const auto weight = static_cast<std::int32_t>(random() % 8);
        nodes.insert(nodes.begin() + position, tree.InsertWeighted(position, weight, item));
        model.insert(model.begin() + position, item);
    };
    for (std::int32_t i = 0; i < 1500; ++i) insert(i / 2, Item(-i));
    for (std::int64_t step = 0; step < support::Steps(10'000); ++step) {
        SCOPED_TRACE(testing::Message() << "step " << step);
        // Shrinks to nothing first, then grows and shrinks in turn.
        const bool grows = model.empty() || random() % 10 < (step / 2000 % 2 == 1 ? 7u : 1u);
        const auto position = static_cast<std::int32_t>(random() % (model.size() + grows));
        if (grows) {
            insert(position, Item(step));
        } else {
            ASSERT_EQ(tree.Delete(position), model[static_cast<std::size_t>(position)]);
            nodes.erase(nodes.begin() + position);
            model.erase(model.begin() + position);
        }
        ASSERT_EQ(tree.GetCount(), static_cast<std::int32_t>(model.size()));
        if (model.empty() || (model.size() > 100 && step % 20 != 0)) continue;
        ASSERT_EQ(Contents(tree), model);
        ASSERT_NO_FATAL_FAILURE(ExpectTheOnlyShape(tree));
        tree.SplitAndMerge(static_cast<std::int32_t>(random() % (model.size() + 3)) - 1);
        ASSERT_NO_FATAL_FAILURE(ExpectTheOnlyShape(tree));
        for (std::int32_t i = 0; i < tree.GetCount(); i += 1 + static_cast<int>(random() % 50)) {
            PCartesianNode const node = nodes[static_cast<std::size_t>(i)];
            ASSERT_EQ(tree.ByIndex(i), node);
            ASSERT_EQ(tree.IndexOf(node), i);
        }
    }
}

TEST(TCartesianTreeTest, StaysLowAndDrawsTheSameWeightsFromTheSameSeed) {
    std::vector<std::int32_t> weights[2];
    std::int64_t steps = 0;
    for (auto& drawn : weights) {
        SeedRandom(5);
        TTree tree;  // asks for another seed
        for (std::int32_t i = 0; i < 50'000; ++i) drawn.push_back(tree.Insert(i, Item(i))->Weight);
        for (PCartesianNode node : tree) {
            for (const TCartesianNode* up = node; up != nullptr; up = up->Parent) ++steps;
        }
    }
    EXPECT_EQ(weights[0], weights[1]);
    EXPECT_LT(steps, 2 * 50'000 * 40);  // 19 a node are to be expected
}

TEST(TCartesianTreeTest, WalksCutsAndFreesAChainOfAMillionNodes) {
    constexpr std::int32_t count = 1'000'000;
    for (std::int32_t period = 1; period <= 3; ++period) {  // all left, to and fro, mostly right
        const auto right = [&](std::int32_t i) { return i % period != 0; };
        TTree tree;
        tree.LinkChain(count, right);
        void* const middle = tree.ValueOf(count / 2);
        std::int32_t visited = 0;
        auto visit = [&](void*) { ++visited; };

        tree.Handle(TBinaryTreeHandler::BindCall(&visit));
        EXPECT_EQ(visited, count);
        EXPECT_EQ(std::distance(tree.rbegin(), tree.rend()), count);
        tree.SplitAndMerge(count / 2);
        EXPECT_EQ(tree.IndexOf(tree.Insert(count / 2, Item(-1))), count / 2);
        EXPECT_TRUE(tree.IsConsistent());
        tree.Delete(count / 2);
        EXPECT_EQ(tree.ValueOf(count / 2), middle);
        tree.Clear();
        tree.LinkChain(count, right);  // freed by the destructor
    }
}

TEST(TCartesianTreeTest, FreesOwnedValuesOnceAndStaysWholeWithoutMemory) {
    TTree tree(true);
    for (std::int32_t i = 0; i < 5; ++i) tree.InsertWeighted(i, 9 - i, Item(i));
    EXPECT_EQ(tree.Delete(1), Item(1));
    EXPECT_EQ(tree.Freed, TItems{Item(1)});
    const auto fill = [&] {
        const support::TFailingAllocation failure(1, true);
        for (std::int32_t i = 0; i < 1000; ++i) tree.Insert(0, Item(5));
    };
    EXPECT_THROW(fill(), std::bad_alloc);
    EXPECT_TRUE(tree.IsConsistent());
    while (tree.GetCount() > 4) tree.Delete(0);

    tree.Freed.clear();
    tree.Clear();
    EXPECT_EQ(tree.Freed, (TItems{Item(4), Item(3), Item(2), Item(0)}));
    EXPECT_EQ(tree.GetCount(), 0);
}

TEST(TTypedCartesianTreeTest, KeepsTypedValuesByPositionAndEndsThoseItOwns) {
    struct TBase {
        virtual ~TBase() = default;
    };
    // Its TObject does not lie at its own address.
    struct TValue final : TBase, TObject {
        explicit TValue(std::int32_t& alive) : Alive(alive) { ++Alive; }
        ~TValue() override { --Alive; }
        std::int32_t& Alive;
    };
    std::int32_t alive = 0;
    {
        TTypedCartesianTree<TValue> tree(true);
        TCartesianTree untyped(true);
        for (std::int32_t i = 0; i < 4; ++i) {
            tree.Insert(0, new TValue(alive));
            untyped.Insert(0, static_cast<TObject*>(new TValue(alive)));
        }
        tree.Delete(2);
        untyped.Delete(2);
        EXPECT_EQ(alive, 6);
    }
    EXPECT_EQ(alive, 0);

    int numbers[] = {0, 1, 2, 3};
    TTypedCartesianTree<int> tree;
    for (int& number : numbers) tree.Insert(0, &number);
    std::vector<int*> values(tree.begin(), tree.end());
    EXPECT_EQ(values, (std::vector<int*>{numbers + 3, numbers + 2, numbers + 1, numbers}));
    std::reverse(values.begin(), values.end());
    EXPECT_EQ(values, std::vector<int*>(tree.rbegin(), tree.rend()));
    EXPECT_EQ(tree.IndexOf(tree.ByIndex(2)), 2);
    EXPECT_EQ(tree.IndexOf(tree.end()), -1);
    EXPECT_EQ(tree.Delete(1), numbers + 2);
    EXPECT_EQ(tree.ValueOf(1), numbers + 1);
}

}  // namespace
}  // namespace kds
