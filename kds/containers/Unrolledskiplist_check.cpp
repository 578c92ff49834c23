// The self-check of the skip list.
#include "kds/containers/Unrolledskiplist.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "kds/containers/Skiplistenumerator.h"

namespace kds {

const char* TUnrolledSkipList::Inconsistency() const noexcept {
    if (fLevel < 1 || fLevel > MaxLevels) return "levels in use";
    if (const char* const fault = LinkFault()) return fault;
    if (const char* const fault = IdFault()) return fault;
    if (fCache != nullptr &&
        (BucketById(fCache->Id) != fCache || StartOf(fCache) != fCacheOffset)) {
        return "the cached bucket does not start where the cache says";
    }
    for (std::int32_t i = 0; i < fEnums.Count(); ++i) {
        const auto* const live = static_cast<const TSkipListEnumerator*>(fEnums.Get(i));
        if (live->fList != this) return "an enumerator of another list";
        if (live->fBucket == nullptr) continue;
        if (BucketById(live->fBucket->Id) != live->fBucket) return "an enumerator's bucket is gone";
        if (live->fPosition < -1 || live->fPosition > live->fBucket->List.Count()) {
            return "an enumerator stands outside its bucket";
        }
    }
    return nullptr;
}

// Goes along level 0 and checks each link of every level where it ends.
const char* TUnrolledSkipList::LinkFault() const noexcept {
    std::array<const TSkipListBucket*, MaxLevels> rightmost;
    std::array<std::int64_t, MaxLevels> starts{};
    rightmost.fill(fHeader);
    const TSkipListBucket* before = fHeader;
    std::int64_t position = 0;
    std::int32_t buckets = 0;
    for (const TSkipListBucket* bucket = fFirst; bucket != fTrailer;
         bucket = bucket->Level(0).Next) {
        if (const char* const fault = BucketFault(bucket)) return fault;
        if (bucket->Prev != before) return "a bucket's link back";
        if (const char* const fault = OrderFault(bucket, buckets, position)) return fault;
        for (std::int32_t level = 0; level < bucket->LevelCount; ++level) {
            const auto at = static_cast<std::size_t>(level);
            const TBucketLevel& link = rightmost[at]->Level(level);
            if (link.Next != bucket) return "a level passes over one of its buckets";
            if (link.Width != position - starts[at]) return "a width between buckets";
            rightmost[at] = bucket;
            starts[at] = position;
        }
        position += bucket->List.Count();
        before = bucket;
        ++buckets;
    }
    for (std::int32_t level = 0; level < MaxLevels; ++level) {
        const auto at = static_cast<std::size_t>(level);
        const TBucketLevel& link = rightmost[at]->Level(level);
        if (link.Next != fTrailer) return "a level does not end at the trailer";
        if (level >= fLevel) continue;
        if (link.Width != TrailerWidth + position - starts[at]) return "a width to the trailer";
        if (fRightmost[at] != rightmost[at]) return "the rightmost bucket of a level";
    }
    if (fLast != before || fTrailer->Prev != before) return "the last bucket";
    if (position != fCount) return "the number of items";
    return buckets == fOrder.Count() ? nullptr : "the number of buckets";
}

// What the compact arrays say of a bucket.
const char* TUnrolledSkipList::OrderFault(const TSkipListBucket* bucket, std::int32_t ordinal,
                                          std::int64_t start) const noexcept {
    if (ordinal >= fOrder.Count() || fOrder.At(ordinal) != bucket) return "the order of buckets";
    if (fOrder.OrdinalOf(bucket->Id) != ordinal) return "the ordinal of a bucket";
    if (fOrder.StartOf(ordinal) != start) return "the items before a bucket";
    std::int32_t offset = 0;
    if (fOrder.Locate(static_cast<std::int32_t>(start), offset) != ordinal || offset != 0) {
        return "the bucket that holds a position";
    }
    for (std::int32_t level = 0; level < MaxLevels; ++level) {
        const bool reaches = fOrder.TallAt(ordinal, level) == ordinal;
        if (reaches != (level < bucket->LevelCount)) return "the levels that a bucket reaches";
    }
    return nullptr;
}

const char* TUnrolledSkipList::BucketFault(const TSkipListBucket* bucket) const noexcept {
    const TDeque& list = bucket->List;
    if (!list.IsConsistent()) return "a bucket's ring";
    if (list.Capacity() < EndBucketLimit) return "a bucket without its slots";
    if (list.Count() > InnerBucketLimit) return "an overfull bucket";
    if (list.Count() == 0 && fCount != 0) return "an empty bucket among others";
    if (bucket->LevelCount < 1 || bucket->LevelCount > fLevel) return "the levels of a bucket";
    return BucketById(bucket->Id) == bucket ? nullptr : "the id of a bucket";
}

const char* TUnrolledSkipList::IdFault() const noexcept {
    const auto borne =
        fById.size() - static_cast<std::size_t>(std::count(fById.begin(), fById.end(), nullptr));
    if (borne != static_cast<std::size_t>(fOrder.Count())) return "an id without its bucket";
    const std::size_t spare = fSpare != nullptr ? 1 : 0;
    if (borne + spare + fFreeIds.size() != fById.size()) return "an id that got lost";
    if (fFreeIds.capacity() < fById.size()) return "no room for the ids";
    if (fSpare == nullptr) return nullptr;
    if (BucketById(fSpare->Id) != nullptr) return "the id of the spare bucket";
    const bool ready = fSpare->List.Count() == 0 && fSpare->List.Capacity() >= EndBucketLimit;
    return ready ? nullptr : "the spare bucket is not ready for use";
}

}  // namespace kds
