#include "kds/containers/Unrolledskiplist.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <limits>
#include <utility>

#include "kds/containers/Skiplistenumerator.h"
#include "kds/platform/Errors.h"
#include "kds/platform/Random.h"

namespace kds {

constinit std::atomic<bool> CacheSkipListIndexes = true;

TUnrolledSkipList::TUnrolledSkipList() {
    TScopeGuard release([this]() noexcept { Finalize(); });
    fHeader = CreateBlock(MaxLevels);
    fTrailer = CreateBlock(MaxLevels);
    fFirst = CreateBucket(1);
    Initialize();
    release.Dismiss();
}

TUnrolledSkipList::~TUnrolledSkipList() { Finalize(); }

// Links the empty list: the sentinels and the one bucket that there always is, fFirst.
void TUnrolledSkipList::Initialize() noexcept {
    fCount = 0;
    fLevel = 1;
    fCache = nullptr;
    for (std::int32_t level = 0; level < MaxLevels; ++level) {
        fHeader->Level(level) = {fTrailer, TrailerWidth};
        fTrailer->Level(level) = {nullptr, TrailerWidth};
    }
    fRightmost.fill(fHeader);
    fHeader->Level(0) = {fFirst, 0};
    fFirst->LevelCount = 1;  // a bucket kept from before may have had more
    fFirst->Level(0) = {fTrailer, TrailerWidth};
    fFirst->Prev = fHeader;
    fTrailer->Prev = fFirst;
    fLast = fFirst;
    fRightmost[0] = fFirst;
    fById[fFirst->Id] = fFirst;
    fOrder.Clear();
    fOrder.Append(fFirst, 0);
    fOrder.Finish();
}

// Releases everything; a list whose construction failed has only some of it.
void TUnrolledSkipList::Finalize() noexcept {
    EndEnumerators();
    if (fSpare != nullptr) DestroyBlock(fSpare);
    if (fCount == 0 && fLast == nullptr) {  // not linked yet
        if (fFirst != nullptr) DestroyBlock(fFirst);
        if (fTrailer != nullptr) DestroyBlock(fTrailer);
        if (fHeader != nullptr) DestroyBlock(fHeader);
        return;
    }
    for (PSkipListBucket bucket = fHeader; bucket != nullptr;) {
        DestroyBlock(std::exchange(bucket, bucket->Level(0).Next));
    }
}

void TUnrolledSkipList::Clear() noexcept {
    EndEnumerators();
    // The first bucket stays, so clearing cannot fail.
    for (PSkipListBucket bucket = fFirst->Level(0).Next; bucket != fTrailer;) {
        bucket = DestroyBucket(bucket);
    }
    fFirst->List.Clear();
    Initialize();
    assert(IsConsistent());
    if (fTracker != nullptr) fTracker->Cleared();
}

// One level, and one more as long as a draw from four gives 0: each pair of bits is a draw.
std::int32_t TUnrolledSkipList::DrawLevel() noexcept {
    return 1 + std::min(std::countr_zero(NextRandom()) / 2, MaxLevels - 1);
}

std::size_t TUnrolledSkipList::BlockClass(std::int32_t levels) noexcept {
    const std::size_t size =
        sizeof(TSkipListBucket) + static_cast<std::size_t>(levels) * sizeof(TBucketLevel);
    std::size_t at = 0;
    while (BlockLines[at] * Line < size) ++at;
    return at;
}

PSkipListBucket TUnrolledSkipList::CreateBlock(std::int32_t levels) {
    static_assert(sizeof(TSkipListBucket) + MaxLevels * sizeof(TBucketLevel) <=
                  BlockLines.back() * Line);
    constexpr std::size_t firstBlocks = 4;
    const std::size_t at = BlockClass(levels);
    if (fBlocks[at] == nullptr) {
        fBlocks[at].reset(TSlab::Create(BlockLines[at] * Line, Line, firstBlocks));
    }
    auto* const bucket = new (fBlocks[at]->Allocate()) TSkipListBucket;
    auto* const level = reinterpret_cast<TBucketLevel*>(bucket + 1);
    std::uninitialized_fill_n(level, levels, TBucketLevel{nullptr, 0});
    bucket->LevelCount = static_cast<std::int16_t>(levels);
    bucket->LevelRoom = bucket->LevelCount;
    return bucket;
}

void TUnrolledSkipList::DestroyBlock(PSkipListBucket bucket) noexcept {
    const std::size_t at = BlockClass(bucket->LevelRoom);
    bucket->~TSkipListBucket();
    fBlocks[at]->Free(bucket);
}

// An empty bucket outside the list, with an id that nobody else bears.
PSkipListBucket TUnrolledSkipList::CreateBucket(std::int32_t levels) {
    const PSkipListBucket bucket = CreateBlock(levels);
    TScopeGuard release([&]() noexcept { DestroyBlock(bucket); });
    bucket->List.SetCapacity(EndBucketLimit);
    if (fFreeIds.empty()) {
        // With room to take every id back, so that giving one back cannot fail.
        if (fById.size() == fById.capacity()) fById.reserve(2 * fById.size() + 8);
        fFreeIds.reserve(fById.capacity());
        fOrder.Reserve(fById.capacity());
        fById.push_back(nullptr);
        fFreeIds.push_back(static_cast<std::uint32_t>(fById.size() - 1));
    }
    bucket->Id = fFreeIds.back();
    fFreeIds.pop_back();
    release.Dismiss();
    return bucket;
}

// The bucket is out of the list or about to go with all others; answers its successor. It becomes
// the spare one when there is none. Its level was drawn without regard to where it stood, so it
// serves as the next draw.
PSkipListBucket TUnrolledSkipList::DestroyBucket(PSkipListBucket bucket) noexcept {
    const PSkipListBucket next = bucket->Level(0).Next;
    fById[bucket->Id] = nullptr;
    if (fSpare == nullptr) {
        bucket->List.Clear();
        fSpare = bucket;
    } else {
        fFreeIds.push_back(bucket->Id);
        DestroyBlock(bucket);
    }
    return next;
}

PSkipListBucket TUnrolledSkipList::TakeSpareBucket() {
    return fSpare != nullptr ? std::exchange(fSpare, nullptr) : CreateBucket(DrawLevel());
}

void TUnrolledSkipList::Reserve() {
    if (fSpare == nullptr) fSpare = CreateBucket(DrawLevel());
    if (fSpareSlots == nullptr) fSpareSlots = std::make_unique<void*[]>(InnerBucketLimit);
}

// Slots for as many items as a bucket ever holds. They are put by beforehand so that this step of
// an insertion, too, can be made not to fail.
void TUnrolledSkipList::GrowBucket(PSkipListBucket bucket) {
    if (fSpareSlots == nullptr) fSpareSlots = std::make_unique<void*[]>(InnerBucketLimit);
    std::int32_t capacity = InnerBucketLimit;
    bucket->List.ExchangeSlots(fSpareSlots, capacity);
    fSpareSlots.reset();
}

bool TUnrolledSkipList::Put(std::int32_t index, void* value) noexcept {
    if (!InRange(index)) return false;
    std::int32_t offset = 0;
    const PSkipListBucket bucket = BucketFor(index, offset);
    bucket->List.Put(offset, value);
    if (fTracker != nullptr) fTracker->Placed(&value, 1, bucket->Id, offset);
    return true;
}

PSkipListBucket TUnrolledSkipList::WalkTo(std::int32_t index, std::int32_t& offset) const noexcept {
    const PSkipListBucket bucket = fOrder.At(fOrder.Locate(index, offset));
    if (CacheUsable()) {
        fCache = bucket;
        fCacheOffset = index - offset;
    }
    return bucket;
}

// The bucket with this position, and the way there.
PSkipListBucket TUnrolledSkipList::Descend(std::int32_t index, TPath& path,
                                           std::int32_t& offset) const noexcept {
    std::int32_t ordinal = fOrder.Locate(index, offset);
    const PSkipListBucket bucket = fOrder.At(ordinal);
    for (std::int32_t level = 0; level < fLevel; ++level) {
        if (ordinal >= 0) ordinal = fOrder.TallAt(ordinal, level);
        path.Ordinal[static_cast<std::size_t>(level)] = ordinal;
    }
    return bucket;
}

PSkipListBucket TUnrolledSkipList::BucketOn(const TPath& path, std::int32_t level) const noexcept {
    const std::int32_t ordinal = path.Ordinal[static_cast<std::size_t>(level)];
    return ordinal < 0 ? fHeader : fOrder.At(ordinal);
}

std::int32_t TUnrolledSkipList::StartOn(const TPath& path, std::int32_t level) const noexcept {
    const std::int32_t ordinal = path.Ordinal[static_cast<std::size_t>(level)];
    return ordinal < 0 ? 0 : fOrder.StartOf(ordinal);
}

// By so many items in the bucket at the end of the path.
void TUnrolledSkipList::Widen(const TPath& path, std::uint32_t items) noexcept {
    for (std::int32_t level = 0; level < fLevel; ++level) {
        BucketOn(path, level)->Level(level).Width += items;
    }
    fOrder.Add(path.Ordinal[0], static_cast<std::int32_t>(items));
}

// After a change: the old cache may name a bucket that is gone, or an index that has moved.
void TUnrolledSkipList::Remember(PSkipListBucket bucket, std::int32_t start) const noexcept {
    fCache = CacheUsable() ? bucket : nullptr;
    fCacheOffset = start;
}

void TUnrolledSkipList::Insert(std::int32_t index, void* value) {
    if (index < 0 || index > fCount) ListIndexError(index);
    if (fCount == std::numeric_limits<std::int32_t>::max()) throw std::bad_alloc();
    if (index == fCount && fLast->List.Count() < EndBucketLimit) {
        Append(value);
    } else if (index == 0 && fFirst->List.Count() < EndBucketLimit) {
        Prepend(value);
    } else {
        InsertInside(index, value);
    }
}

void TUnrolledSkipList::Append(void* value) noexcept {
    // At every level the link that ends at the trailer spans the new item, whoever's link that is.
    for (std::int32_t level = 0; level < fLevel; ++level) {
        ++fRightmost[static_cast<std::size_t>(level)]->Level(level).Width;
    }
    fOrder.Add(fOrder.Count() - 1, 1);
    const std::int32_t offset = fLast->List.Count();
    PutIn(fLast, offset, value, fCount - offset);
}

void TUnrolledSkipList::Prepend(void* value) noexcept {
    for (std::int32_t level = 0; level < fLevel; ++level) {
        ++(level < fFirst->LevelCount ? fFirst : fHeader)->Level(level).Width;
    }
    fOrder.Add(0, 1);
    PutIn(fFirst, 0, value, 0);
}

void TUnrolledSkipList::InsertInside(std::int32_t index, void* value) {
    TPath path;
    std::int32_t offset = 0;
    PSkipListBucket bucket = Descend(index, path, offset);
    const std::int32_t limit = index == 0 || index == fCount ? EndBucketLimit : InnerBucketLimit;
    // What can fail comes first; from then on nothing does.
    if (bucket->List.Count() >= limit) {
        bucket = Split(path, index, offset, TakeSpareBucket());
    } else if (bucket->List.Count() == bucket->List.Capacity()) {
        GrowBucket(bucket);
    }
    Widen(path, 1);
    PutIn(bucket, offset, value, index - offset);
}

// The last step of every insertion. There is a free slot, and the widths count the item already.
void TUnrolledSkipList::PutIn(PSkipListBucket bucket, std::int32_t offset, void* value,
                              std::int32_t start) noexcept {
    bucket->List.Insert(offset, value);
    ++fCount;
    EachEnumerator([&](TSkipListEnumerator& live) {
        if (live.At(bucket, offset)) live.Follow(bucket, 1);
    });
    Remember(bucket, start);
    if (fTracker != nullptr) fTracker->Placed(&value, 1, bucket->Id, offset);
}

// Links `fresh` behind the bucket that the path leads to and divides the items between them. The
// path and the offset then lead to the place of the new item; answers its bucket.
PSkipListBucket TUnrolledSkipList::Split(TPath& path, std::int32_t index, std::int32_t& offset,
                                         PSkipListBucket fresh) noexcept {
    const PSkipListBucket bucket = BucketOn(path, 0);
    const std::int32_t ordinal = path.Ordinal[0];
    RaiseLevel(path, fresh->LevelCount);
    const std::int32_t kept = MoveHalf(bucket, index, offset, fresh);
    const std::int32_t start = StartOn(path, 0) + kept;
    const bool intoFresh = offset != 0 && offset >= kept;
    for (std::int32_t level = 0; level < fresh->LevelCount; ++level) {
        const auto at = static_cast<std::size_t>(level);
        const PSkipListBucket holder = BucketOn(path, level);
        TBucketLevel& before = holder->Level(level);
        // The old link is cut where `fresh` starts.
        const auto front = static_cast<std::uint32_t>(start - StartOn(path, level));
        fresh->Level(level) = {before.Next, before.Width - front};
        before = {fresh, front};
        if (fRightmost[at] == holder) fRightmost[at] = fresh;
    }
    for (std::int32_t level = 0; intoFresh && level < fresh->LevelCount; ++level) {
        path.Ordinal[static_cast<std::size_t>(level)] = ordinal + 1;
    }
    const std::int32_t moved = fresh->List.Count();
    fOrder.Replace(ordinal, bucket);
    fOrder.Add(ordinal, -moved);
    fOrder.Insert(ordinal + 1, fresh, moved);
    fresh->Prev = bucket;
    fresh->Level(0).Next->Prev = fresh;
    if (fLast == bucket) fLast = fresh;
    if (intoFresh) offset -= kept;
    return intoFresh ? fresh : bucket;
}

// Moves the items that go to `fresh`; answers how many stay. Appending moves none, inserting at 0
// moves all, inserting between moves the upper half.
std::int32_t TUnrolledSkipList::MoveHalf(PSkipListBucket bucket, std::int32_t index,
                                         std::int32_t offset, PSkipListBucket fresh) noexcept {
    const std::int32_t count = bucket->List.Count();
    std::int32_t kept = count;
    if (index == 0) {
        // The rings change places, and the ids go with them: for the items nothing has changed.
        kept = 0;
        bucket->List.Swap(fresh->List);
        std::swap(bucket->Id, fresh->Id);
        fById[bucket->Id] = bucket;
    } else if (offset < count) {
        kept = count / 2;
        fresh->List.AppendPart(bucket->List, kept, count - kept);
        bucket->List.SetCount(kept);
    }
    fById[fresh->Id] = fresh;
    if (kept == count) return kept;
    EachEnumerator([&](TSkipListEnumerator& live) {
        // One that stands before the first item stays and meets the new one.
        if (live.At(bucket, kept)) live.Follow(fresh, -kept);
    });
    if (kept > 0) ReportPart(fresh, 0);
    return kept;
}

// Takes levels into use up to a new bucket's: until now their header link spanned everything.
void TUnrolledSkipList::RaiseLevel(TPath& path, std::int32_t levels) noexcept {
    for (; fLevel < levels; ++fLevel) {
        const auto at = static_cast<std::size_t>(fLevel);
        fHeader->Level(fLevel) = {fTrailer, TrailerWidth + static_cast<std::uint32_t>(fCount)};
        fRightmost[at] = fHeader;
        path.Ordinal[at] = -1;
    }
}

void* TUnrolledSkipList::Delete(std::int32_t index) {
    if (!InRange(index)) ListIndexError(index);
    TPath path;
    std::int32_t offset = 0;
    PSkipListBucket bucket = Descend(index, path, offset);
    if (MergeAround(bucket, index - offset)) bucket = Descend(index, path, offset);
    const std::int32_t start = index - offset;
    // The only bucket stays, empty.
    const bool goes = bucket->List.Count() == 1 && fOrder.Count() > 1;

    Widen(path, ~std::uint32_t{0});
    void* const value = bucket->List.Get(offset);
    bucket->List.Delete(offset);
    --fCount;
    EachEnumerator([&](TSkipListEnumerator& live) {
        if (live.fBucket != bucket) return;
        live.Removed(offset);
        if (goes) live.BucketGoes(PrevBucket(bucket), NextBucket(bucket));
    });
    if (goes) {
        Unlink(bucket, start);
        DestroyBucket(bucket);
    }
    Remember(goes ? nullptr : bucket, start);
    return value;
}

// Before an item of this bucket goes: merges it with a neighbour when the two hold few, rather with
// the one before it. Answers whether it has; then the bucket may be gone.
bool TUnrolledSkipList::MergeAround(PSkipListBucket bucket, std::int32_t start) noexcept {
    const std::int32_t count = bucket->List.Count();
    if (count > MergeLimit) return false;  // as a rule, and then no neighbour is looked at
    const PSkipListBucket before = PrevBucket(bucket);
    const PSkipListBucket after = NextBucket(bucket);
    if (before != nullptr && before->List.Count() + count <= MergeLimit) {
        Absorb(before, bucket, start);
    } else if (after != nullptr && count + after->List.Count() <= MergeLimit) {
        Absorb(bucket, after, start + count);
    } else {
        return false;
    }
    return true;
}

// Merges a bucket with the next one, which starts at position `nextStart` and goes.
void TUnrolledSkipList::Absorb(PSkipListBucket bucket, PSkipListBucket next,
                               std::int32_t nextStart) noexcept {
    const std::int32_t count = bucket->List.Count();
    fOrder.Add(fOrder.OrdinalOf(bucket->Id), next->List.Count());
    bucket->List.Append(next->List);
    EachEnumerator([&](TSkipListEnumerator& live) {
        if (live.fBucket == next) live.Follow(bucket, count);
    });
    Unlink(next, nextStart);
    DestroyBucket(next);
    ReportPart(bucket, count);
}

// Takes a bucket out of every level; the links that led to it span its items from now on. The
// bucket may be empty already, so its predecessors are those that start strictly before it.
void TUnrolledSkipList::Unlink(PSkipListBucket bucket, std::int32_t start) noexcept {
    PSkipListBucket before = fHeader;
    std::int64_t position = 0;
    for (std::int32_t level = fLevel; level-- > 0;) {
        while (position + before->Level(level).Width < start) {
            position += before->Level(level).Width;
            before = before->Level(level).Next;
        }
        if (level >= bucket->LevelCount) continue;
        TBucketLevel& link = before->Level(level);
        assert(link.Next == bucket);
        link.Next = bucket->Level(level).Next;
        link.Width += bucket->Level(level).Width;
        if (fRightmost[static_cast<std::size_t>(level)] == bucket) {
            fRightmost[static_cast<std::size_t>(level)] = before;
        }
    }
    bucket->Level(0).Next->Prev = bucket->Prev;
    if (fFirst == bucket) fFirst = bucket->Level(0).Next;
    if (fLast == bucket) fLast = bucket->Prev;
    fOrder.Remove(fOrder.OrdinalOf(bucket->Id));
}

template <typename F>
void TUnrolledSkipList::EachEnumerator(const F& routine) noexcept {
    for (std::int32_t i = 0; i < fEnums.Count(); ++i) {
        routine(*static_cast<TSkipListEnumerator*>(fEnums.Get(i)));
    }
}

void TUnrolledSkipList::EndEnumerators() noexcept {
    EachEnumerator([](TSkipListEnumerator& live) { live.End(); });
    fEnums.Clear();
}

TIntf<IListEnumerator> TUnrolledSkipList::GetEnumerator(TListEnumeratorDirection direction) {
    auto* const live = new TSkipListEnumerator(this, direction);
    TIntf<IListEnumerator> answer(live);
    fEnums.Add(live);
    return answer;
}

}  // namespace kds
