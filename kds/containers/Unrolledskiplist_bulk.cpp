// The operations of the skip list that go over whole buckets: searches, bulk copies, sorting, and
// the check of everything.
#include "kds/containers/Unrolledskiplist.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <memory>
#include <span>

#include "kds/containers/Skiplistenumerator.h"
#include "kds/platform/Errors.h"

namespace kds {

std::int32_t TUnrolledSkipList::IndexOf(const void* value) const noexcept {
    std::int32_t index = 0;
    for (PSkipListBucket bucket = fFirst; bucket != fTrailer; bucket = bucket->Level(0).Next) {
        const std::int32_t offset = bucket->List.IndexOf(value);
        if (offset >= 0) return index + offset;
        index += bucket->List.Count();
    }
    return -1;
}

bool TUnrolledSkipList::Find(void* value, std::int32_t& index, TComparator compare) const {
    const TBucketPlace place = LowerBucket([&](void* item) { return compare(item, value) < 0; });
    std::int32_t offset = 0;
    bool found = place.Bucket->List.Find(value, offset, compare);
    // Behind the last item of the bucket means at the first one of the next.
    const PSkipListBucket next = NextBucket(place.Bucket);
    if (offset == place.Bucket->List.Count() && next != nullptr) {
        found = compare(next->List.First(), value) == 0;
    }
    index = place.Index + offset;
    return found;
}

void TUnrolledSkipList::Sort(TComparator compare, std::int32_t maxThreads) {
    const auto items = std::make_unique_for_overwrite<void*[]>(static_cast<std::size_t>(fCount));
    CopyTo(items.get());
    MergeSortList(items.get(), 0, fCount - 1, compare, maxThreads);
    Assign(items.get(), fCount);
}

void TUnrolledSkipList::Assign(void* const* items, std::int32_t count) {
    if (count < 0) ListIndexError(count);
    const std::int32_t needed = std::max(1, count / EndBucketLimit + (count % EndBucketLimit != 0));
    // The buckets that are missing come first; from then on nothing fails.
    PSkipListBucket more = nullptr;
    TScopeGuard release([&]() noexcept {
        while (more != nullptr) more = DestroyBucket(more);
    });
    for (std::int32_t i = fOrder.Count(); i < needed; ++i) {
        const PSkipListBucket bucket = CreateBucket(DrawLevel());
        bucket->Level(0).Next = more;
        more = bucket;
    }
    release.Dismiss();
    EndEnumerators();
    Refill(items, count, more);
    assert(IsConsistent());
}

// Fills the buckets at hand, then those of the chain `more`, and links them afresh; what is left
// over goes.
void TUnrolledSkipList::Refill(void* const* items, std::int32_t count,
                               PSkipListBucket more) noexcept {
    fLast->Level(0).Next = more;  // one chain, ended by nullptr
    PSkipListBucket next = fFirst;
    std::array<std::int32_t, MaxLevels> starts{};  // of the rightmost bucket of each level
    fRightmost.fill(fHeader);
    fLevel = 1;
    fOrder.Clear();
    fLast = fHeader;
    std::int32_t index = 0;
    do {
        const PSkipListBucket bucket = next;
        next = bucket->Level(0).Next;
        const std::int32_t part = std::min(count - index, EndBucketLimit);
        bucket->List.Clear();
        bucket->List.AppendItems({items + index, static_cast<std::size_t>(part)});
        for (std::int32_t level = 0; level < bucket->LevelCount; ++level) {
            const auto at = static_cast<std::size_t>(level);
            fRightmost[at]->Level(level) = {bucket, static_cast<std::uint32_t>(index - starts[at])};
            fRightmost[at] = bucket;
            starts[at] = index;
        }
        bucket->Prev = fLast;
        fLast = bucket;
        fLevel = std::max<std::int32_t>(fLevel, bucket->LevelCount);
        fById[bucket->Id] = bucket;
        fOrder.Append(bucket, part);
        index += part;
        if (fTracker != nullptr && part > 0)
            fTracker->Placed(items + index - part, part, bucket->Id, 0);
    } while (index < count);
    while (next != nullptr) next = DestroyBucket(next);
    fOrder.Finish();
    for (std::int32_t level = 0; level < MaxLevels; ++level) {
        const auto at = static_cast<std::size_t>(level);
        const std::int32_t spanned = level < fLevel ? count - starts[at] : 0;
        fRightmost[at]->Level(level) = {fTrailer,
                                        TrailerWidth + static_cast<std::uint32_t>(spanned)};
    }
    fTrailer->Prev = fLast;
    fCount = count;
    fCache = nullptr;
    if (fTracker != nullptr && count == 0) fTracker->Cleared();
}

void TUnrolledSkipList::CopyTo(void** target) const noexcept {
    for (PSkipListBucket bucket = fFirst; bucket != fTrailer; bucket = bucket->Level(0).Next) {
        bucket->List.CopyItems(target);
        target += bucket->List.Count();
    }
}

void TUnrolledSkipList::SetTracker(ISkipListTracker* tracker) noexcept {
    fTracker = tracker;
    for (PSkipListBucket bucket = fFirst; bucket != fTrailer; bucket = bucket->Level(0).Next) {
        ReportPart(bucket, 0);
    }
}

// Tells the tracker of a bucket's items from an offset on, as they lie in the ring.
void TUnrolledSkipList::ReportPart(const TSkipListBucket* bucket,
                                   std::int32_t first) const noexcept {
    if (fTracker == nullptr) return;
    const auto [front, back] = bucket->List.Segments();
    const auto skipped = static_cast<std::size_t>(first);
    std::int32_t offset = first;
    for (const std::span<void* const> part :
         {front.subspan(std::min(skipped, front.size())),
          back.subspan(skipped - std::min(skipped, front.size()))}) {
        if (part.empty()) continue;
        const auto size = static_cast<std::int32_t>(part.size());
        fTracker->Placed(part.data(), size, bucket->Id, offset);
        offset += size;
    }
}

TBucketPlace TUnrolledSkipList::BucketAt(std::int32_t index) const noexcept {
    assert(InRange(index));
    std::int32_t offset = 0;
    const PSkipListBucket bucket = BucketFor(index, offset);
    return {bucket, index - offset};
}

std::int32_t TUnrolledSkipList::BucketIndex(const TSkipListBucket* bucket) const noexcept {
    if (!CacheUsable()) return StartOf(bucket);
    if (bucket != fCache) {
        fCacheOffset = StartOf(bucket);
        fCache = fById[bucket->Id];
    }
    return fCacheOffset;
}

std::int32_t TUnrolledSkipList::StartOf(const TSkipListBucket* bucket) const noexcept {
    return fOrder.StartOf(fOrder.OrdinalOf(bucket->Id));
}

PSkipListBucket TUnrolledSkipList::BucketById(std::uint32_t bucketId) const noexcept {
    return bucketId < fById.size() ? fById[bucketId] : nullptr;
}

std::int32_t TUnrolledSkipList::FindInBucket(std::uint32_t bucketId,
                                             const void* value) const noexcept {
    const PSkipListBucket bucket = BucketById(bucketId);
    if (bucket == nullptr) return -1;
    const std::int32_t offset = bucket->List.IndexOf(value);
    return offset < 0 ? -1 : BucketIndex(bucket) + offset;
}

}  // namespace kds
