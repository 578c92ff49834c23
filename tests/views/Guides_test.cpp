// Samples of a bucket against a plain vector: whatever comes and goes, no key's place may lie
// outside the window that they give, and the window stays narrow.
#include "kds/views/Kdsguides.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "tests/support/Seed.h"

namespace kds {
namespace {

class TSamplesTest : public testing::TestWithParam<std::uint64_t> {  // distinct keys
protected:
    void Check(std::uint64_t key, std::uint64_t mask) const {
        TKdsGuide guide;
        guide.Mask = mask;
        guide.Key = key & mask;
        TKdsWindow window{0, static_cast<std::int32_t>(Rows.size()), -1};
        Samples.Narrow(guide, window);
        const auto masked = [&](std::uint64_t row) { return row & mask; };
        const auto equal = std::ranges::equal_range(Rows, guide.Key, {}, masked);
        const auto first = static_cast<std::int32_t>(equal.begin() - Rows.begin());
        const auto last = static_cast<std::int32_t>(equal.end() - Rows.begin());
        ASSERT_LE(window.First, first);
        ASSERT_GE(window.Last, last);
        ASSERT_LE(window.Last - window.First, last - first + Widest) << "of " << Rows.size();
        if (window.Likely >= 0) {
            ASSERT_GE(window.Likely, window.First);
            ASSERT_LE(window.Likely, window.Last);
        }
    }
    void Insert(std::uint64_t key) {
        // Behind its equals, or before them: rows with one prefix may stand in any order.
        const auto place = key % 2 == 0 ? std::ranges::lower_bound(Rows, key)
                                        : std::ranges::upper_bound(Rows, key);
        const auto offset = static_cast<std::int32_t>(place - Rows.begin());
        Rows.insert(place, key);
        Samples.Inserted(offset, key, static_cast<std::int32_t>(Rows.size()));
    }
    void Delete(std::size_t offset) {
        Rows.erase(Rows.begin() + static_cast<std::ptrdiff_t>(offset));
        Samples.Removed(static_cast<std::int32_t>(offset));
    }
    static constexpr std::int32_t Widest = 10 * TKdsBucketSamples::Stride;
    std::vector<std::uint64_t> Rows;
    TKdsBucketSamples Samples;
};

TEST_P(TSamplesTest, NarrowToTheKeysPlace) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937_64 random(seed);
    const auto key = [&] { return (random() % GetParam()) << 32; };
    for (int i = 0; i < 700; ++i) Rows.push_back(key());
    std::ranges::sort(Rows);
    for (std::int32_t i = TKdsBucketSamples::Stride / 2; i < 700; i += TKdsBucketSamples::Stride) {
        Samples.Append(Rows[static_cast<std::size_t>(i)], i);
    }
    for (std::int64_t step = 0; step < support::Steps(20'000); ++step) {
        // Grows to the largest bucket there is, and shrinks again.
        const bool grows = step / 2'000 % 2 == 0;
        if (Rows.size() < 1'280 && random() % 4 < (grows ? 3u : 1u)) {
            Insert(key());
        } else if (!Rows.empty()) {
            Delete(random() % Rows.size());
        }
        ASSERT_NO_FATAL_FAILURE(Check(key(), ~std::uint64_t{0})) << "step " << step;
        ASSERT_NO_FATAL_FAILURE(Check(key(), ~std::uint64_t{0} << 36)) << "step " << step;
    }
}

INSTANTIATE_TEST_SUITE_P(Keys, TSamplesTest, testing::Values(1, 7, 500, std::uint64_t{1} << 31));

}  // namespace
}  // namespace kds
