#include "kds/containers/Bucketorder.h"

#include <algorithm>
#include <bit>

#include "kds/containers/Unrolledskiplist.h"

namespace kds {

void TBucketOrder::Reserve(std::size_t buckets) {
    if (buckets <= fOrdinals.size()) return;
    const std::size_t words = (buckets + 63) / 64;
    const auto upper = static_cast<std::size_t>(fLevels - 1);
    std::vector<std::uint64_t> tall(upper * words);
    for (std::size_t level = 0; level < upper && fTallWords > 0; ++level) {
        std::copy_n(fTall.data() + level * fTallWords, fTallWords, tall.data() + level * words);
    }
    fEntries.reserve(buckets);
    fTree.reserve(buckets);
    fOrdinals.resize(buckets);  // last of what may fail
    fTall.swap(tall);
    fTallWords = words;
}

void TBucketOrder::Clear() noexcept {
    fEntries.clear();
    fTree.clear();
}

void TBucketOrder::Append(TSkipListBucket* bucket, std::int32_t count) noexcept {
    fEntries.push_back({bucket, bucket->Id, bucket->LevelCount});
    fTree.push_back(count);
}

void TBucketOrder::Finish() noexcept { Build(); }

void TBucketOrder::Insert(std::int32_t ordinal, TSkipListBucket* bucket,
                          std::int32_t count) noexcept {
    Unbuild();
    fEntries.insert(fEntries.begin() + ordinal, {bucket, bucket->Id, bucket->LevelCount});
    fTree.insert(fTree.begin() + ordinal, count);
    Build();
}

void TBucketOrder::Remove(std::int32_t ordinal) noexcept {
    Unbuild();
    fEntries.erase(fEntries.begin() + ordinal);
    fTree.erase(fTree.begin() + ordinal);
    Build();
}

void TBucketOrder::Replace(std::int32_t ordinal, TSkipListBucket* bucket) noexcept {
    TEntry& entry = fEntries[static_cast<std::size_t>(ordinal)];
    entry.Bucket = bucket;
    entry.Id = bucket->Id;
    fOrdinals[entry.Id] = static_cast<std::uint32_t>(ordinal);
}

// From the items of each bucket to sums over 1, 2, 4... buckets, and all that follows from the
// order of the buckets.
void TBucketOrder::Build() noexcept {
    const std::size_t count = fEntries.size();
    for (std::size_t i = 1; i <= count; ++i) {
        const std::size_t next = i + (i & (~i + 1));
        if (next <= count) fTree[next - 1] += fTree[i - 1];
    }
    std::ranges::fill(fTall, 0);
    for (std::size_t i = 0; i < count; ++i) {
        const TEntry& entry = fEntries[i];
        fOrdinals[entry.Id] = static_cast<std::uint32_t>(i);
        for (std::int32_t level = 1; level < entry.Levels; ++level) {
            fTall[static_cast<std::size_t>(level - 1) * fTallWords + i / 64] |= std::uint64_t{1}
                                                                                << i % 64;
        }
    }
}

void TBucketOrder::Unbuild() noexcept {
    const std::size_t count = fEntries.size();
    for (std::size_t i = count; i >= 1; --i) {
        const std::size_t next = i + (i & (~i + 1));
        if (next <= count) fTree[next - 1] -= fTree[i - 1];
    }
}

void TBucketOrder::Add(std::int32_t ordinal, std::int32_t items) noexcept {
    for (std::size_t i = static_cast<std::size_t>(ordinal) + 1; i <= fTree.size();
         i += i & (~i + 1)) {
        fTree[i - 1] += items;
    }
}

std::int32_t TBucketOrder::StartOf(std::int32_t ordinal) const noexcept {
    std::int32_t items = 0;
    for (auto i = static_cast<std::size_t>(ordinal); i > 0; i &= i - 1) items += fTree[i - 1];
    return items;
}

std::int32_t TBucketOrder::Locate(std::int32_t index, std::int32_t& offset) const noexcept {
    std::size_t before = 0;
    std::int32_t rest = index;
    for (std::size_t step = std::bit_floor(fTree.size()); step > 0; step /= 2) {
        const std::size_t next = before + step;
        // The last bucket takes what lies behind all items.
        if (next >= fTree.size() || fTree[next - 1] > rest) continue;
        before = next;
        rest -= fTree[next - 1];
    }
    offset = rest;
    return static_cast<std::int32_t>(before);
}

std::int32_t TBucketOrder::TallAt(std::int32_t ordinal, std::int32_t level) const noexcept {
    if (level == 0) return ordinal;
    const std::uint64_t* const words =
        fTall.data() + static_cast<std::size_t>(level - 1) * fTallWords;
    auto at = static_cast<std::size_t>(ordinal) / 64;
    std::uint64_t word = words[at] & ~std::uint64_t{0} >> (63 - ordinal % 64);
    while (word == 0) {
        if (at == 0) return -1;
        word = words[--at];
    }
    return static_cast<std::int32_t>(at * 64) + 63 - std::countl_zero(word);
}

}  // namespace kds
