#include "kds/containers/Typedlists.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <compare>
#include <iterator>
#include <string>
#include <type_traits>
#include <vector>

namespace kds {
namespace {

struct TWord {
    std::string Text;
};

TWord words[] = {{"pear"}, {"apple"}, {"fig"}, {"plum"}, {"date"}};

template <typename L>
std::string Texts(const L& list) {
    std::string texts;
    for (TWord* const word : list) texts += word->Text + " ";
    return texts;
}

template <typename L>
class TTypedListTest : public testing::Test {};

using TLists = testing::Types<TTypedSmartList<TWord>, TTypedSkipList<TWord>, TTypedDeque<TWord>>;
TYPED_TEST_SUITE(TTypedListTest, TLists);

TYPED_TEST(TTypedListTest, KeepsThePointerTypeThroughEditsSearchesAndSorts) {
    TypeParam list;
    for (TWord& word : words) EXPECT_EQ(list.Add(&word), &word - words);
    list.Insert(0, &words[2]);
    EXPECT_EQ(list.IndexOf(&words[2]), 0);
    EXPECT_EQ(list.Get(1)->Text, "pear");
    list.Delete(3);

    int calls = 0;
    list.Sort([&calls](const TWord* a, const TWord* b) {  // one that has a state
        ++calls;
        return a->Text.compare(b->Text);
    });
    EXPECT_GT(calls, 0);
    EXPECT_EQ(Texts(list), "apple date fig pear plum ");
    // A standard ordering serves as well, and a comparison that only reads.
    const auto byText = [](const TWord* a, const TWord* b) { return a->Text <=> b->Text; };
    std::int32_t index = -1;
    EXPECT_TRUE(list.Find(&words[3], index, byText));
    EXPECT_EQ(index, 4);
    TWord absent{"elder"};
    EXPECT_FALSE(list.Find(&absent, index, byText));
    EXPECT_EQ(index, 2);
    list.Clear();
    EXPECT_EQ(list.begin(), list.end());
}

TYPED_TEST(TTypedListTest, IsWalkedBothWaysAndByDistance) {
    static_assert(std::random_access_iterator<typename TypeParam::TIterator>);
    static_assert(!std::is_copy_constructible_v<TypeParam> &&
                  !std::is_move_assignable_v<TypeParam>);
    TypeParam list;
    for (TWord& word : words) list.Add(&word);

    std::vector<TWord*> reversed(list.rbegin(), list.rend());
    EXPECT_EQ(reversed.front(), &words[4]);
    EXPECT_EQ(reversed.back(), &words[0]);
    EXPECT_EQ(list.end() - list.begin(), 5);
    EXPECT_EQ(list.begin()[2], &words[2]);
    EXPECT_EQ(*(list.end() - 1), &words[4]);
    const auto fig = std::find_if(list.begin(), list.end(),
                                  [](const TWord* word) { return word->Text == "fig"; });
    EXPECT_EQ(fig - list.begin(), 2);
}

TEST(TTypedListsTest, HoldPointersToConstants) {
    TTypedSmartList<const TWord> list(8, 2);
    const TWord& word = words[1];
    list.Add(&word);
    list.SetItem(0, &words[3]);
    EXPECT_EQ(list.Delete(0), &words[3]);
}

TEST(TTypedCardinalHashTest, AnswersTypedItemsAndIsWalkedBothWays) {
    TTypedCardinalHash<TWord> hash(4);
    EXPECT_EQ(hash.begin(), hash.end());
    for (std::uint32_t code : {2u, 9u, 1u, 5u}) hash.Put(code, &words[code % 5]);
    EXPECT_EQ(hash.Get(9)->Text, "date");
    hash.Remove(9);
    EXPECT_EQ(hash.Get(9), nullptr);

    using TItem = TTypedCardinalHash<TWord>::TItem;
    const std::vector<TItem> expected{{1, &words[1]}, {5, &words[0]}, {2, &words[2]}};
    EXPECT_EQ(std::vector<TItem>(hash.begin(), hash.end()), expected);
    EXPECT_EQ(std::vector<TItem>(hash.rbegin(), hash.rend()),
              std::vector<TItem>(expected.rbegin(), expected.rend()));
    hash.Clear();
    EXPECT_EQ(hash.GetCount(), 0);
}

}  // namespace
}  // namespace kds
