#include "kds/containers/Cardinalhash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Allocfail.h"
#include "tests/support/Seed.h"

namespace kds {
namespace {

// A pointer that nobody follows.
void* Item(std::intptr_t number) { return reinterpret_cast<void*>(number * 8); }

constexpr std::uint32_t Top = 0x80000000u;

std::uint32_t Draw(std::mt19937& random, std::uint32_t count) {
    return static_cast<std::uint32_t>(random() % count);
}

std::vector<std::uint32_t> Codes(const TCardinalHash& hash) {
    std::vector<std::uint32_t> codes;
    for (const TCardinalBucketItem item : hash) codes.push_back(item.Code);
    return codes;
}
using TCodes = std::vector<std::uint32_t>;

TEST(TCardinalHashTest, TakesFewerThanTwoBucketsForOneAndAnyOtherNumberAsItIs) {
    for (const std::int32_t buckets : {-5, 0, 1}) {
        TCardinalHash hash(buckets);
        EXPECT_EQ(hash.BucketCount(), 1);
        for (const std::uint32_t code : {7u, 0u, 3u, 0x7FFFFFFFu, 4u}) hash.Put(code, Item(1));
        EXPECT_EQ(Codes(hash), (TCodes{0, 3, 4, 7, 0x7FFFFFFF}));
    }
    TCardinalHash hash(6);  // the mask is 5: buckets 0, 1, 4 and 5 are used
    for (std::uint32_t code = 0; code < 8; ++code) hash.Put(code, Item(1));
    EXPECT_EQ(Codes(hash), (TCodes{0, 2, 1, 3, 4, 6, 5, 7}));
    EXPECT_EQ(hash.Inconsistency(), nullptr);
}

TEST(TCardinalHashTest, ReplacesWithoutCountingAndReadsNullAsAbsent) {
    TCardinalHash hash(4);
    hash.Put(5, Item(1));
    EXPECT_EQ(hash.Get(5), Item(1));
    hash.Put(5, Item(2));
    EXPECT_EQ(hash.Get(5), Item(2));
    hash.Put(5, nullptr);
    EXPECT_EQ(hash.Get(5), nullptr);
    EXPECT_EQ(hash.GetCount(), 1);
    hash.Remove(6);
    EXPECT_EQ(hash.GetCount(), 1);
    hash.Remove(5);
    EXPECT_EQ(hash.GetCount(), 0);
}

// Every change drops the cached answer, also a miss that was cached.
TEST(TCardinalHashTest, AnswersAnewAfterEveryChange) {
    TCardinalHash hash(1);
    EXPECT_EQ(hash.Get(3), nullptr);
    hash.Put(3, Item(1));
    EXPECT_EQ(hash.Get(3), Item(1));
    hash.Remove(3);
    EXPECT_EQ(hash.Get(3), nullptr);
    hash.Put(3, Item(2));
    EXPECT_EQ(hash.Get(3), Item(2));
    hash.Clear();
    EXPECT_EQ(hash.Get(3), nullptr);
    hash.Put(3, Item(3));
    EXPECT_EQ(hash.Get(3), Item(3));
    hash.InvalidateCache();
    EXPECT_EQ(hash.Get(3), Item(3));
    EXPECT_EQ(hash.Inconsistency(), nullptr);
}

// The largest positive code also fills slots that are not in use.
TEST(TCardinalHashTest, TellsCodesFromUnusedSlots) {
    for (const std::int32_t others : {0, 1, 15, 16, 40}) {
        TCardinalHash hash(1);
        EXPECT_EQ(hash.Get(0), nullptr);
        for (std::int32_t i = 1; i <= others; ++i) hash.Put(static_cast<std::uint32_t>(i), Item(i));
        EXPECT_EQ(hash.Get(0), nullptr);
        EXPECT_EQ(hash.Get(0x7FFFFFFF), nullptr);
        hash.Remove(0x7FFFFFFF);
        EXPECT_EQ(hash.GetCount(), others);
        hash.Put(0x7FFFFFFF, Item(77));
        EXPECT_EQ(hash.Get(0x7FFFFFFF), Item(77));
        hash.Remove(0x7FFFFFFF);
        EXPECT_EQ(hash.Get(0x7FFFFFFF), nullptr);
        EXPECT_EQ(hash.Inconsistency(), nullptr);
    }
}

// QUIRK: the search compares signed, the choice of the place unsigned.
TEST(TCardinalHashTest, LosesItsOrderWhenABucketMixesSigns) {
    TCardinalHash hash(1);
    hash.Put(Top, Item(1));
    hash.Put(5, Item(2));
    EXPECT_EQ(Codes(hash), (TCodes{Top, 5}));
    hash.Put(3, Item(3));  // 5 is probed, then Top, which as an unsigned number is above 3

    EXPECT_EQ(Codes(hash), (TCodes{3, Top, 5}));
    EXPECT_EQ(hash.Get(Top), nullptr);
    EXPECT_EQ(hash.Get(3), Item(3));
    hash.Put(Top, Item(4));
    EXPECT_EQ(hash.GetCount(), 4);
    hash.Clear();  // and with the codes the trouble goes
    for (const std::uint32_t code : {9u, 2u, 4u}) hash.Put(code, Item(5));
    EXPECT_EQ(Codes(hash), (TCodes{2, 4, 9}));
    EXPECT_EQ(hash.Inconsistency(), nullptr);
}

TEST(TCardinalHashTest, MissesTheSecondOfAscendingCodesBehindTheSign) {
    TCardinalHash hash(1);
    for (const std::uint32_t code : {Top - 2, Top - 1, Top, Top + 1}) hash.Put(code, Item(1));

    EXPECT_EQ(Codes(hash), (TCodes{Top, Top - 2, Top + 1, Top - 1}));
    EXPECT_EQ(hash.Get(Top), Item(1));
    EXPECT_EQ(hash.Get(Top + 1), nullptr);
}

// Buckets of one sign each keep their order, whichever sign it is.
TEST(TCardinalHashTest, KeepsSignsApartThatLieInDifferentBuckets) {
    TCardinalHash hash(2);
    for (std::uint32_t i = 0; i < 60; ++i) {
        hash.Put(Top + 2 * (i * 7 % 60) + 1, Item(i + 1));
        hash.Put(2 * (i * 7 % 60), Item(i + 100));
    }
    const TCodes codes = Codes(hash);
    EXPECT_TRUE(std::is_sorted(codes.begin(), codes.end()));
    for (std::uint32_t i = 0; i < 60; ++i) {
        EXPECT_EQ(hash.Get(Top + 2 * (i * 7 % 60) + 1), Item(i + 1));
    }
}

// What the text of the search says, step by step, over one bucket.
struct TReference {
    std::vector<std::pair<std::uint32_t, void*>> Items;

    std::int32_t Search(std::uint32_t code, bool exact) const {
        const auto count = static_cast<std::int32_t>(Items.size());
        std::int32_t low = 0, high = count - 1, middle = high;
        bool first = true;
        while (low <= high) {
            if (!std::exchange(first, false)) middle = (low + high) / 2;
            const auto probed = static_cast<std::int32_t>(CodeAt(middle));
            if (CodeAt(middle) == code) return middle;
            if (probed < static_cast<std::int32_t>(code)) {
                low = middle + 1;
            } else {
                high = middle - 1;
            }
        }
        if (exact) return -1;
        if (low == count) return count;
        if (high < 0) return 0;
        return CodeAt(middle) < code ? middle + 1 : middle;
    }
    std::uint32_t CodeAt(std::int32_t at) const {
        return Items[static_cast<std::size_t>(at)].first;
    }
    void Put(std::uint32_t code, void* data) {
        const std::int32_t at = Search(code, false);
        if (at < static_cast<std::int32_t>(Items.size()) && CodeAt(at) == code) {
            Items[static_cast<std::size_t>(at)].second = data;
        } else {
            Items.insert(Items.begin() + at, {code, data});
        }
    }
    void Remove(std::uint32_t code) {
        const std::int32_t at = Search(code, true);
        if (at >= 0) Items.erase(Items.begin() + at);
    }
    void* Get(std::uint32_t code) const {
        const std::int32_t at = Search(code, true);
        return at < 0 ? nullptr : Items[static_cast<std::size_t>(at)].second;
    }
};

// Both signs, so that order is lost again and again: even then the answers are the stated ones.
TEST(TCardinalHashModelTest, AgreesWithTheStatedSearchOverCodesOfBothSigns) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937 random(seed);
    for (std::int64_t round = 0; round < support::Steps(40); ++round) {
        TCardinalHash hash(1);
        TReference model;
        const std::uint32_t size = 2 + Draw(random, 50);
        for (std::int32_t step = 0; step < 400; ++step) {
            const std::uint32_t code = Draw(random, size) + (Draw(random, 2) * (Top - size / 2));
            if (random() % 3 != 0) {
                hash.Put(code, Item(step + 1));
                model.Put(code, Item(step + 1));
            } else {
                hash.Remove(code);
                model.Remove(code);
            }
            const std::uint32_t asked = Draw(random, size) + (Draw(random, 2) * (Top - size / 2));
            ASSERT_EQ(hash.Get(asked), model.Get(asked)) << "step " << step;
            ASSERT_EQ(hash.Get(asked), model.Get(asked)) << "step " << step;
            ASSERT_EQ(static_cast<std::size_t>(hash.GetCount()), model.Items.size());
            ASSERT_STREQ(hash.Inconsistency(), nullptr);
        }
    }
}

struct TRange {
    const char* Name;
    std::int32_t Buckets;
    std::uint32_t First, Size;
};

class TCardinalHashRangeTest : public testing::TestWithParam<TRange> {};

TEST_P(TCardinalHashRangeTest, AgreesWithAMapOverRandomEdits) {
    const auto& [name, buckets, firstCode, size] = GetParam();
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937 random(seed);
    TCardinalHash hash(buckets);
    std::map<std::uint32_t, void*> model;
    for (std::int64_t step = 0; step < support::Steps(20'000); ++step) {
        const std::uint32_t code = firstCode + Draw(random, size);
        // Thousands of steps mostly fill, the next ones mostly empty.
        if (random() % 10 < (step / 4000 % 2 == 0 ? 8u : 2u)) {
            hash.Put(code, Item(step + 1));
            model[code] = Item(step + 1);
        } else {
            hash.Remove(code);
            model.erase(code);
        }
        const std::uint32_t asked = random() % 4 == 0 ? code : firstCode + Draw(random, size);
        const auto found = model.find(asked);
        ASSERT_EQ(hash.Get(asked), found == model.end() ? nullptr : found->second) << step;
        ASSERT_EQ(static_cast<std::size_t>(hash.GetCount()), model.size()) << step;
        if (step % 64 == 0) {
            ASSERT_STREQ(hash.Inconsistency(), nullptr) << step;
        }
        if (step % 9000 == 8999) {
            hash.Clear();
            model.clear();
        }
    }
    std::map<std::uint32_t, void*> walked;
    for (const auto [code, data] : hash) walked.emplace(code, data);
    EXPECT_EQ(walked, model);
    TCodes back;
    for (auto at = hash.end(); at != hash.begin();) back.push_back((*--at).Code);
    std::reverse(back.begin(), back.end());
    EXPECT_EQ(back, Codes(hash));
}

INSTANTIATE_TEST_SUITE_P(Ranges, TCardinalHashRangeTest,
                         testing::Values(TRange{"ShortBuckets", 64, 1, 600},
                                         TRange{"OneLongBucket", 1, 0, 300},
                                         TRange{"SomeLongBuckets", 16, 0, 256},
                                         TRange{"UpToTheLargestPositive", 8, 0x7FFFFFFF - 99, 100},
                                         TRange{"HighCodes", 16, Top, 200},
                                         TRange{"UpToTheLargest", 4, 0xFFFFFFFF - 99, 100},
                                         TRange{"MappedArrays", 1 << 16, 0, 1'000'000}),
                         [](const auto& tested) { return std::string(tested.param.Name); });

TEST(TCardinalHashTest, StaysAsItWasWhenMemoryRunsOut) {
    for (const std::uint32_t filled : {0u, 15u, 16u, 32u}) {
        const auto make = [&] {
            auto hash = MakeOwned<TCardinalHash>(1);
            for (std::uint32_t code = 0; code < filled; ++code) hash->Put(code * 2, Item(code + 1));
            return hash;
        };
        for (const bool reserves : {false, true}) {
            const std::int64_t needed = support::FailEachAllocation(
                make,
                [&](const TOwned<TCardinalHash>& hash) {
                    reserves ? hash->Reserve(9) : hash->Put(9, Item(99));
                },
                [&](const TOwned<TCardinalHash>& hash, bool raised) {
                    EXPECT_EQ(hash->Inconsistency(), nullptr);
                    const bool added = !reserves && !raised;
                    EXPECT_EQ(hash->GetCount(),
                              static_cast<std::int32_t>(filled) + (added ? 1 : 0));
                    EXPECT_EQ(hash->Get(9), added ? Item(99) : nullptr);
                    EXPECT_EQ(hash->Get(28), filled > 14 ? Item(15) : nullptr);
                });
            EXPECT_EQ(needed, filled % 16 == 0 ? 1 : 0);
        }
        const auto hash = make();
        hash->Reserve(9);
        const std::int64_t allocations = support::Allocations();
        hash->Put(9, Item(9));
        EXPECT_EQ(support::Allocations(), allocations);
        hash->Clear();
        EXPECT_EQ(support::Allocations(), allocations);
    }
}

}  // namespace
}  // namespace kds
