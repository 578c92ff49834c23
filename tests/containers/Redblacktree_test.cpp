#include "kds/containers/Redblacktree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kds/containers/Typedtrees.h"
#include "kds/platform/Errors.h"
#include "tests/support/Allocfail.h"
#include "tests/support/Seed.h"

namespace kds {
namespace {

using TItems = std::vector<void*>;

// A pointer that nobody follows.
void* Item(std::intptr_t number) { return reinterpret_cast<void*>(number * 8); }

// By tens only: many items compare equal.
std::int32_t ByTens(void* a, void* b) {
    const auto ten = [](void* item) { return reinterpret_cast<std::intptr_t>(item) / 80; };
    return ten(a) < ten(b) ? -1 : ten(a) > ten(b) ? 1 : 0;
}

// Links nodes itself, and sees which values an owning tree frees.
class TTree final : public TRedBlackTree {
public:
    explicit TTree(TItems* freed = nullptr) : TRedBlackTree(freed != nullptr), fFreed(freed) {
        SetOnCompare(TBinaryTreeCompare::Bind<&ByTens>());
    }

    // Each node hangs below the one before it, left or right as `right(number)` says.
    template <typename F>
    void LinkChain(std::int32_t count, F right) {
        PRedBlackNode above = nullptr;
        for (std::int32_t i = 0; i < count; ++i) {
            PRedBlackNode node = CreateNode(above, Item(i));
            (above == nullptr ? fRoot : right(i) ? above->Right : above->Left) = node;
            above = node;
        }
        fCount = count;
    }
    using TRedBlackTree::RotateLeft;

private:
    void FreeValue(void* value) noexcept override { fFreed->push_back(value); }

    TItems* fFreed;
};

TItems Contents(const TRedBlackTree& tree) {
    TItems items;
    for (PRedBlackNode node : tree) items.push_back(node->Value);
    return items;
}

template <typename F>
std::u16string Refusal(F change) {
    try {
        change();
    } catch (const EListError& error) {
        return std::u16string(error.Message());
    }
    return u"nothing raised";
}

TEST(TRedBlackTreeTest, StartsEmptyAndTakesAllValuesForEqualWithoutAComparison) {
    TRedBlackTree tree;
    tree.Delete(nullptr);
    tree.Delete(TRedBlackNode::Nil());
    tree.Remove(Item(1));
    EXPECT_EQ(tree.Search(Item(1)), nullptr);
    tree.Insert(Item(2));
    tree.Handle(nullptr);

    EXPECT_TRUE(tree.Balanced());
    EXPECT_EQ(tree.Search(Item(1)), tree.Root());
    EXPECT_EQ(Refusal([&] { tree.Insert(Item(0x1234)); }),
              u"List does not allow duplicates (0x91a0)");
    EXPECT_EQ(Contents(tree), TItems{Item(2)});
}

TEST(TRedBlackTreeTest, GrowsAChainWithoutBalanceAndIsBalancedAgainOnlyWhenEmpty) {
    TTree tree;
    constexpr std::int32_t count = 20'000;
    for (std::int32_t i = 0; i < 100; ++i) tree.Insert(Item(i * 10));
    tree.SetBalanced(false);  // allowed at any time
    for (std::int32_t i = 100; i < count; ++i) tree.Insert(Item(i * 10));
    for (std::int32_t i = 0; i < count; i += 2) tree.Remove(Item(i * 10));

    EXPECT_EQ(tree.GetCount(), count / 2);
    EXPECT_EQ(tree.Search(Item(count * 10 - 10))->Left, TRedBlackNode::Nil());
    EXPECT_TRUE(tree.IsConsistent());
    EXPECT_EQ(Refusal([&] { tree.SetBalanced(true); }), u"Invalid operation on a non-empty tree");
    EXPECT_FALSE(tree.Balanced());
    tree.Clear();
    tree.SetBalanced(true);
    EXPECT_TRUE(tree.Balanced());
}

TEST(TRedBlackTreeTest, WalksAndFreesAChainOfAMillionNodes) {
    constexpr std::int32_t count = 1'000'000;
    for (std::int32_t period = 1; period <= 3; ++period) {  // all left, to and fro, mostly right
        const auto right = [&](std::int32_t i) { return i % period != 0; };
        TTree tree;
        tree.SetBalanced(false);
        tree.LinkChain(count, right);
        std::int32_t visited = 0;
        auto visit = [&](void*) { ++visited; };

        tree.Handle(TBinaryTreeHandler::BindCall(&visit));
        EXPECT_EQ(visited, count);
        EXPECT_EQ(std::distance(tree.rbegin(), tree.rend()), count);
        EXPECT_TRUE(tree.IsConsistent());
        tree.Clear();
        EXPECT_EQ(tree.begin(), tree.end());
        tree.LinkChain(count, right);  // freed by the destructor
    }
}

// The value of the node with two children is lost, and the next value, which that node holds from
// then on, is freed twice.
TEST(TRedBlackTreeTest, QuirkOwningDeleteFreesTheValueThatTookThePlace) {
    TItems freed;
    {
        const TOwned<TTree> tree = MakeOwned<TTree>(&freed);
        for (const std::intptr_t tens : {4, 2, 6, 1, 3, 5, 7}) tree->Insert(Item(tens * 10));
        PRedBlackNode root = tree->Root();
        tree->Delete(root);
        EXPECT_EQ(tree->Root(), root);
        EXPECT_EQ(root->Value, Item(50));
        tree->Remove(Item(70));  // a leaf: its own value
    }
    EXPECT_EQ(freed,
              (TItems{Item(50), Item(70), Item(10), Item(30), Item(20), Item(60), Item(50)}));
}

TEST(TRedBlackTreeTest, WritesTheSentinelsParentInDeletionsButNotInRotations) {
    TTree tree;
    TTree other;
    for (const std::intptr_t number : {10, 20, 30}) {
        tree.Insert(Item(number));
        other.Insert(Item(number));
    }
    tree.Delete(tree.Root()->Left);
    other.Delete(other.Root()->Left);
    EXPECT_EQ(TRedBlackNode::Sentinel.Parent, other.Root());

    PRedBlackNode root = tree.Root();
    tree.RotateLeft(root);  // its right child's left child is the sentinel
    EXPECT_EQ(TRedBlackNode::Sentinel.Parent, other.Root());
    tree.RotateLeft(root);  // nothing to raise
    EXPECT_EQ(tree.Root()->Left, root);
    EXPECT_EQ(Contents(tree), (TItems{Item(20), Item(30)}));
}

TEST(TRedBlackTreeTest, StaysWholeWhateverTheComparisonDoesAndWithoutMemory) {
    std::mt19937 random(support::Seed());
    TTree tree;
    tree.SetDuplicates(dupAccept);
    auto wild = [&](void*, void*) {
        if (random() % 100 == 0) throw EConvertError(u"no order");
        return static_cast<std::int32_t>(random() % 3) - 1;
    };
    tree.SetOnCompare(TBinaryTreeCompare::BindCall(&wild));
    for (std::int32_t i = 0; i < 3000; ++i) {
        try {
            i % 3 < 2 ? tree.Insert(Item(i)) : tree.Remove(Item(i));
        } catch (const EConvertError&) {
        }
        ASSERT_TRUE(tree.IsConsistent());
    }
    EXPECT_GT(tree.GetCount(), 500);
    tree.SetOnCompare(nullptr);
    const auto fill = [&] {
        const support::TFailingAllocation failure(1, true);
        for (std::int32_t i = 0; i < 100'000; ++i) tree.Insert(Item(i));
    };
    EXPECT_THROW(fill(), std::bad_alloc);
    EXPECT_TRUE(tree.IsConsistent());
}

TEST(TRedBlackTreeTest, NoticesDamage) {
    TTree tree;
    for (std::int32_t i = 0; i < 20; ++i) tree.Insert(Item(i * 10));
    PRedBlackNode root = tree.Root();
    const auto notices = [&](auto& field, auto value) {
        const auto kept = std::exchange(field, value);
        const bool noticed = !tree.IsConsistent();
        field = kept;
        return noticed && tree.IsConsistent();
    };
    EXPECT_TRUE(notices(root->Right->Color, root->Right->Color == ncRed ? ncBlack : ncRed));
    EXPECT_TRUE(notices(root->Left->Parent, root->Right));
    EXPECT_TRUE(notices(root->Left, root->Right));
    EXPECT_TRUE(notices(root->Left, nullptr));
    EXPECT_TRUE(notices(root->Right->Right, root));
    EXPECT_TRUE(notices(TRedBlackNode::Sentinel.Color, ncRed));
}

// The oracle is a multiset, which keeps equal items in order of insertion too.
TEST(TRedBlackTreeModelTest, AgreesWithAMultisetOverRandomEdits) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937 random(seed);
    const auto less = [](void* a, void* b) { return ByTens(a, b) < 0; };
    std::multiset<void*, decltype(less)> model(less);
    TTree tree;
    for (std::int64_t step = 0; step < support::Steps(20'000); ++step) {
        // A thousand steps mostly grow, the next mostly shrink, so empty is met again and again.
        const bool grows = random() % 10 < (step / 1000 % 2 == 0 ? 7u : 3u);
        void* const item = Item(static_cast<std::intptr_t>(random() % 2000));
        const bool isNew = !model.contains(item);
        if (model.empty()) tree.SetBalanced(random() % 4 != 0);
        ASSERT_EQ(tree.Search(item) == nullptr, isNew);
        if (grows) {
            tree.SetDuplicates(static_cast<TDuplicates>(random() % 3));
            const bool refused = Refusal([&] { tree.Insert(item); }) != u"nothing raised";
            ASSERT_EQ(refused, !isNew && tree.Duplicates() == dupError);
            if (isNew || tree.Duplicates() == dupAccept) model.insert(item);
        } else if (!model.empty()) {
            const auto rank = static_cast<std::ptrdiff_t>(random() % model.size());
            tree.Delete(*std::next(tree.begin(), rank));
            model.erase(std::next(model.begin(), rank));
        }
        ASSERT_TRUE(tree.IsConsistent()) << "step " << step;
        ASSERT_EQ(tree.GetCount(), static_cast<std::int32_t>(model.size()));
        ASSERT_EQ(Contents(tree), TItems(model.begin(), model.end())) << "step " << step;
    }
}

TEST(TTypedRedBlackTreeTest, KeepsTypedValuesInOrderOfAnyCallable) {
    std::vector<int> numbers{5, 3, 7, 1, 4, 6, 8, 2};
    const auto ordered = [](const int* a, const int* b) { return *a <=> *b; };
    TTypedRedBlackTree<int, decltype(ordered)> tree(ordered);
    TTypedRedBlackTree<int> descending([](const int* a, const int* b) { return *b - *a; });
    for (int& number : numbers) {
        tree.Insert(&number);
        descending.Insert(&number);
    }
    const auto values = [](auto first, auto last) {
        std::vector<int> result;
        for (; first != last; ++first) result.push_back(**first);
        return result;
    };
    int sought = 7;
    EXPECT_EQ(*tree.Search(&sought), &numbers[2]);
    sought = 9;
    EXPECT_EQ(tree.Search(&sought), tree.end());
    EXPECT_EQ(values(descending.rbegin(), descending.rend()), values(tree.begin(), tree.end()));

    for (auto place = tree.begin(); place != tree.end(); ++place) {
        place = tree.Delete(place);  // every other one; the answer goes on behind it
    }
    EXPECT_EQ(values(tree.begin(), tree.end()), (std::vector<int>{2, 4, 6, 8}));
    EXPECT_TRUE(tree.IsConsistent());
}

}  // namespace
}  // namespace kds
