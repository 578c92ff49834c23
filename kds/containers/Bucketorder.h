// The buckets of a list in order, in few and compact arrays: which bucket holds a position, where
// a bucket begins, and which one before it reaches up to a level. A walk over the buckets
// themselves answers the same, but goes through memory that is far apart.
//
// Shape      Ordinals count the buckets from 0. The items before a bucket are sums in a binary
//            indexed tree over the ordinals; each level has a bit for every bucket that reaches it.
// Ownership  Borrows the buckets.
// Errors     std::bad_alloc from Reserve alone.
// Cost       b buckets. Locate, StartOf, Add O(log b); Insert, Remove O(b) over the arrays; the
//            others O(1), TallAt O(b / 64) at worst. About 25 bytes a bucket.
// Threads    Reads from anywhere while nobody writes.
#pragma once

#include <cstdint>
#include <vector>

namespace kds {

struct TSkipListBucket;

class TBucketOrder {
public:
    explicit TBucketOrder(std::int32_t levels) noexcept : fLevels(levels) {}

    // Room for so many buckets with ids below that number, so that nothing else fails.
    void Reserve(std::size_t buckets);
    void Clear() noexcept;
    // At the end; until Finish, only Append may follow.
    void Append(TSkipListBucket* bucket, std::int32_t count) noexcept;
    void Finish() noexcept;
    void Insert(std::int32_t ordinal, TSkipListBucket* bucket, std::int32_t count) noexcept;
    void Remove(std::int32_t ordinal) noexcept;
    void Add(std::int32_t ordinal, std::int32_t items) noexcept;
    // The bucket there, or its id, has become another one.
    void Replace(std::int32_t ordinal, TSkipListBucket* bucket) noexcept;

    [[nodiscard]] std::int32_t Count() const noexcept {
        return static_cast<std::int32_t>(fEntries.size());
    }
    [[nodiscard]] TSkipListBucket* At(std::int32_t ordinal) const noexcept {
        return fEntries[static_cast<std::size_t>(ordinal)].Bucket;
    }
    [[nodiscard]] std::int32_t OrdinalOf(std::uint32_t id) const noexcept {
        return static_cast<std::int32_t>(fOrdinals[id]);
    }
    // Items before the bucket.
    [[nodiscard]] std::int32_t StartOf(std::int32_t ordinal) const noexcept;
    // The bucket that holds this position, the last one for the position behind all.
    [[nodiscard]] std::int32_t Locate(std::int32_t index, std::int32_t& offset) const noexcept;
    // The last bucket at or before this one that reaches the level; -1 when there is none.
    [[nodiscard]] std::int32_t TallAt(std::int32_t ordinal, std::int32_t level) const noexcept;

private:
    struct TEntry {
        TSkipListBucket* Bucket;
        std::uint32_t Id;
        std::int32_t Levels;
    };
    void Build() noexcept;
    void Unbuild() noexcept;

    std::int32_t fLevels;
    std::vector<TEntry> fEntries;
    std::vector<std::int32_t> fTree;       // between Unbuild and Build the items of each bucket
    std::vector<std::uint32_t> fOrdinals;  // by id
    std::vector<std::uint64_t> fTall;      // level by level from 1 on, fTallWords each
    std::size_t fTallWords = 0;
};

}  // namespace kds
