// Positional sequence of untyped pointers for very many items: a skip list over buckets, each of
// them a ring of up to 1280. Records of a table and rows of a view live in one.
//
// Shape      header -> fFirst -> ... -> fLast -> trailer at level 0, fewer buckets at each higher
//            level. A link's Width is the number of items it spans: those of its bucket and of the
//            buckets passed over (none for the header). A link that ends at the trailer carries
//            2147483647 more, so a walk by position never follows it. Every width of the fLevel
//            levels in use is exact after every operation. No bucket is empty but the only one.
// Units      Positions, counts and offsets inside a bucket are items: signed 32-bit, from 0.
// Ownership  Owns its buckets, never what the items point to. nullptr is an ordinary item. Borrows
//            the tracker. Enumerators belong to who asked for them.
// Errors     Get answers nullptr for a position out of range, Put has no effect there; Insert and
//            Delete raise EListError. std::bad_alloc when memory runs out. Whatever is raised
//            leaves the list as it was, the order of the items of a sort included. After Reserve
//            the next Insert or Add does not allocate; Delete, Put and Clear never do.
// Cost       n items, b = n / 1000 buckets. Get, Put O(log b), O(1) within the bucket of the last
//            lookup. Insert, Delete O(log b) and a move of at most 640 pointers; Add at the end and
//            Insert at 0 O(levels). Find O(log n) comparisons. IndexOf O(n). FindInBucket a scan of
//            one bucket's pointers and O(log b). Assign, CopyTo O(n). About 8 bytes an item when
//            appended, 8 to 20 after edits in the middle.
// Validity   A bucket (PSkipListBucket) and what was read from it are good until the next
//            operation that is not const. A bucket id goes with the items: it is good for an item
//            until the tracker hears another one for it. Enumerators survive every change.
// Threads    No locks, and lookups write the cache: one thread at a time. Workers of a parallel
//            sort may read a list together, because there no cache is used or filled.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <vector>

#include "kds/containers/Bucketorder.h"
#include "kds/containers/Deque.h"
#include "kds/containers/Listenumerator.h"
#include "kds/platform/Interface.h"
#include "kds/platform/Object.h"
#include "kds/util/Slab.h"
#include "kds/util/Sortutils.h"

namespace kds {

// When false, positional lookups of every skip list neither use nor fill their caches.
extern std::atomic<bool> CacheSkipListIndexes;

struct TSkipListBucket;
using PSkipListBucket = TSkipListBucket*;

struct TBucketLevel {
    PSkipListBucket Next;
    std::uint32_t Width;
};

// One block: these fields, then LevelCount levels, the lowest first.
struct TSkipListBucket {
    TDeque List;
    PSkipListBucket Prev = nullptr;
    std::int16_t LevelCount = 0;
    std::int16_t LevelRoom = 0;  // levels that the block was made for
    std::uint32_t Id = 0;

    [[nodiscard]] TBucketLevel& Level(std::int32_t level) noexcept {
        return std::launder(reinterpret_cast<TBucketLevel*>(this + 1))[level];
    }
    [[nodiscard]] const TBucketLevel& Level(std::int32_t level) const noexcept {
        return std::launder(reinterpret_cast<const TBucketLevel*>(this + 1))[level];
    }
};
static_assert(sizeof(TSkipListBucket) % alignof(TBucketLevel) == 0);

// Hears where items live, so that a member can be found again by identity alone.
class ISkipListTracker {
public:
    // These items live in the bucket with this id from now on: they were put in, or a split, a
    // merge or a refill moved them. Items taken out are not reported.
    // `first` is the offset of the first of them in the bucket; later insertions and deletions
    // there shift it without being reported.
    virtual void Placed(void* const* items, std::int32_t count, std::uint32_t bucketId,
                        std::int32_t first) noexcept = 0;
    // All items are gone.
    virtual void Cleared() noexcept = 0;

protected:
    ~ISkipListTracker() = default;
};

// A bucket and the position of its first item.
struct TBucketPlace {
    PSkipListBucket Bucket = nullptr;
    std::int32_t Index = 0;
};

class TSkipListEnumerator;

class TUnrolledSkipList : public TObject {
public:
    static constexpr std::int32_t MaxLevels = 10;
    static constexpr std::int32_t EndBucketLimit = 1024;    // splits at the ends of the list
    static constexpr std::int32_t InnerBucketLimit = 1280;  // and inside it
    static constexpr std::int32_t MergeLimit = 513;         // two neighbours, before the removal

    TUnrolledSkipList();
    ~TUnrolledSkipList() override;

    [[nodiscard]] std::int32_t Count() const noexcept { return fCount; }
    [[nodiscard]] void* Get(std::int32_t index) const noexcept {
        if (!InRange(index)) return nullptr;
        std::int32_t offset = 0;
        const PSkipListBucket bucket = BucketFor(index, offset);
        return bucket->List.Get(offset);
    }
    // Answers whether there is such a position; its item is replaced.
    bool Put(std::int32_t index, void* value) noexcept;
    std::int32_t Add(void* value) {  // answers the item's position, the old Count
        Insert(fCount, value);
        return fCount - 1;
    }
    void Insert(std::int32_t index, void* value);
    void* Delete(std::int32_t index);  // answers the item taken out
    void Clear() noexcept;

    // Position of the first item that is this very pointer, -1 when there is none.
    [[nodiscard]] std::int32_t IndexOf(const void* value) const noexcept;
    // Bisection over items in order. Whether one compares equal to `value`; `index` is then the
    // first of them, else the position where `value` belongs. Calls compare(item, value).
    [[nodiscard]] bool Find(void* value, std::int32_t& index, TComparator compare) const;
    // Stable; ends every enumerator. `maxThreads` <= 0 sets no cap.
    void Sort(TComparator compare, std::int32_t maxThreads = 0);
    [[nodiscard]] TIntf<IListEnumerator> GetEnumerator(TListEnumeratorDirection direction);

    // Replaces the contents by these items in order, into buckets as full as repeated Add makes
    // them; ends every enumerator. The items must not be the list's own slots.
    void Assign(void* const* items, std::int32_t count);
    void CopyTo(void** target) const noexcept;
    // Sees to it that the next Insert or Add needs no memory. Cheap when that is so already.
    void Reserve();

    // From now on `tracker` hears every placement, first those of the items already here; nullptr
    // ends it.
    void SetTracker(ISkipListTracker* tracker) noexcept;
    // Position of `value` in the bucket with this id, -1 when it is not there.
    [[nodiscard]] std::int32_t FindInBucket(std::uint32_t bucketId,
                                            const void* value) const noexcept;

    // Buckets, for searches that look at few items of each. Next and Prev answer nullptr at the
    // ends. A bucket's items are asked by offset: 0 to BucketCount - 1.
    [[nodiscard]] PSkipListBucket FirstBucket() const noexcept { return fFirst; }
    [[nodiscard]] PSkipListBucket LastBucket() const noexcept { return fLast; }
    [[nodiscard]] PSkipListBucket NextBucket(const TSkipListBucket* bucket) const noexcept {
        return bucket == fLast ? nullptr : bucket->Level(0).Next;
    }
    [[nodiscard]] PSkipListBucket PrevBucket(const TSkipListBucket* bucket) const noexcept {
        return bucket == fFirst ? nullptr : bucket->Prev;
    }
    [[nodiscard]] static std::int32_t BucketCount(const TSkipListBucket* bucket) noexcept {
        return bucket->List.Count();
    }
    [[nodiscard]] static void* ItemAt(const TSkipListBucket* bucket, std::int32_t offset) noexcept {
        return bucket->List.Get(offset);
    }
    static void PrefetchShift(const TSkipListBucket* bucket, std::int32_t offset) noexcept {
        bucket->List.PrefetchShift(offset);
    }
    static void PrefetchItem(const TSkipListBucket* bucket, std::int32_t offset) noexcept {
        bucket->List.Prefetch(offset);
    }
    // The bucket that holds a position of 0 to Count - 1; O(1) when it is that of the last lookup.
    [[nodiscard]] TBucketPlace BucketAt(std::int32_t index) const noexcept;
    // Position of the bucket's first item, O(log b); O(1) for the bucket of the last lookup.
    [[nodiscard]] std::int32_t BucketIndex(const TSkipListBucket* bucket) const noexcept;
    [[nodiscard]] PSkipListBucket BucketById(std::uint32_t bucketId) const noexcept;
    // The last bucket whose first item lies before what is sought, or the first bucket when none
    // does. `before(item)` must hold for the items up to some point and for none behind it; it is
    // asked about O(log b) first items. Works in an empty list, where it asks nothing.
    template <typename F>
    [[nodiscard]] TBucketPlace LowerBucket(F&& before) const;

    // Range-for over the items, in order; good until the next change of the list.
    class TIterator;
    [[nodiscard]] TIterator begin() const noexcept;
    [[nodiscard]] TIterator end() const noexcept;

    // The first rule of Shape that does not hold, nullptr when all do. Walks everything.
    [[nodiscard]] const char* Inconsistency() const noexcept;
    [[nodiscard]] bool IsConsistent() const noexcept { return Inconsistency() == nullptr; }

private:
    friend class TSkipListEnumerator;

    static constexpr std::uint32_t TrailerWidth = 2147483647u;
    static constexpr std::size_t Line = 64;  // of the cache; blocks begin at one
    // Blocks of one, of two and of more lines: those of a list lie together, so that walks over
    // them meet few pages.
    static constexpr std::array<std::size_t, 3> BlockLines{1, 2, 4};

    // The way down to a position: per level the last bucket at or before it, as an ordinal; -1 is
    // the header.
    struct TPath {
        std::array<std::int32_t, MaxLevels> Ordinal;
    };

    [[nodiscard]] bool InRange(std::int32_t index) const noexcept {
        // One comparison: a negative position becomes a huge one.
        return static_cast<std::uint32_t>(index) < static_cast<std::uint32_t>(fCount);
    }
    [[nodiscard]] static bool CacheUsable() noexcept {
        return CacheSkipListIndexes.load(std::memory_order_relaxed) && !InParallelSort;
    }
    // `index` is 0 to Count; Count answers the place behind the last item.
    [[nodiscard]] PSkipListBucket BucketFor(std::int32_t index,
                                            std::int32_t& offset) const noexcept {
        if (fCache != nullptr && CacheUsable()) {
            const std::int32_t within = index - fCacheOffset;
            if (within >= 0 && within < fCache->List.Count()) {
                offset = within;
                return fCache;
            }
        }
        return WalkTo(index, offset);
    }
    [[nodiscard]] PSkipListBucket WalkTo(std::int32_t index, std::int32_t& offset) const noexcept;
    [[nodiscard]] PSkipListBucket Descend(std::int32_t index, TPath& path,
                                          std::int32_t& offset) const noexcept;
    [[nodiscard]] PSkipListBucket BucketOn(const TPath& path, std::int32_t level) const noexcept;
    [[nodiscard]] std::int32_t StartOn(const TPath& path, std::int32_t level) const noexcept;
    void Widen(const TPath& path, std::uint32_t items) noexcept;
    [[nodiscard]] std::int32_t StartOf(const TSkipListBucket* bucket) const noexcept;
    void Remember(PSkipListBucket bucket, std::int32_t start) const noexcept;

    void Initialize() noexcept;
    void Finalize() noexcept;
    [[nodiscard]] static std::int32_t DrawLevel() noexcept;
    [[nodiscard]] static std::size_t BlockClass(std::int32_t levels) noexcept;
    [[nodiscard]] PSkipListBucket CreateBlock(std::int32_t levels);
    void DestroyBlock(PSkipListBucket bucket) noexcept;
    [[nodiscard]] PSkipListBucket CreateBucket(std::int32_t levels);
    PSkipListBucket DestroyBucket(PSkipListBucket bucket) noexcept;
    [[nodiscard]] PSkipListBucket TakeSpareBucket();
    void GrowBucket(PSkipListBucket bucket);

    void Append(void* value) noexcept;
    void Prepend(void* value) noexcept;
    void InsertInside(std::int32_t index, void* value);
    void PutIn(PSkipListBucket bucket, std::int32_t offset, void* value,
               std::int32_t start) noexcept;
    PSkipListBucket Split(TPath& path, std::int32_t index, std::int32_t& offset,
                          PSkipListBucket fresh) noexcept;
    [[nodiscard]] std::int32_t MoveHalf(PSkipListBucket bucket, std::int32_t index,
                                        std::int32_t offset, PSkipListBucket fresh) noexcept;
    void RaiseLevel(TPath& path, std::int32_t levels) noexcept;
    bool MergeAround(PSkipListBucket bucket, std::int32_t start) noexcept;
    void Absorb(PSkipListBucket bucket, PSkipListBucket next, std::int32_t nextStart) noexcept;
    void Unlink(PSkipListBucket bucket, std::int32_t start) noexcept;
    void Refill(void* const* items, std::int32_t count, PSkipListBucket more) noexcept;
    void ReportPart(const TSkipListBucket* bucket, std::int32_t first) const noexcept;
    [[nodiscard]] const char* LinkFault() const noexcept;
    [[nodiscard]] const char* OrderFault(const TSkipListBucket* bucket, std::int32_t ordinal,
                                         std::int64_t start) const noexcept;
    [[nodiscard]] const char* BucketFault(const TSkipListBucket* bucket) const noexcept;
    [[nodiscard]] const char* IdFault() const noexcept;
    template <typename F>
    void EachEnumerator(const F& routine) noexcept;
    void EndEnumerators() noexcept;

    std::array<std::unique_ptr<TSlab, TSlabDeleter>, BlockLines.size()> fBlocks;
    std::int32_t fCount = 0;
    std::int32_t fLevel = 1;
    PSkipListBucket fHeader = nullptr;
    PSkipListBucket fTrailer = nullptr;
    PSkipListBucket fFirst = nullptr;
    PSkipListBucket fLast = nullptr;
    TDeque fEnums;  // of TSkipListEnumerator
    mutable PSkipListBucket fCache = nullptr;
    mutable std::int32_t fCacheOffset = 0;

    // Per level in use the bucket whose link ends at the trailer; an append widens just these.
    std::array<PSkipListBucket, MaxLevels> fRightmost{};
    TBucketOrder fOrder{MaxLevels};
    ISkipListTracker* fTracker = nullptr;
    std::vector<PSkipListBucket> fById;   // nullptr for an id that no bucket of the list bears
    std::vector<std::uint32_t> fFreeIds;  // has room for every id there is
    // What the next insertion may need: an empty bucket with id and level, and slots for a bucket
    // that outgrows its first ones.
    PSkipListBucket fSpare = nullptr;
    std::unique_ptr<void*[]> fSpareSlots;
};

template <typename F>
TBucketPlace TUnrolledSkipList::LowerBucket(F&& before) const {
    PSkipListBucket bucket = fHeader;
    PSkipListBucket refused =
        fTrailer;  // asked about at a higher level already, or not to be asked
    std::int32_t index = 0;
    if (fCount != 0) {
        for (std::int32_t level = fLevel; level-- > 0;) {
            for (;;) {
                const TBucketLevel& link = bucket->Level(level);
                if (link.Next == refused || link.Next == fTrailer) break;
                if (!before(link.Next->List.First())) {
                    refused = link.Next;
                    break;
                }
                index += static_cast<std::int32_t>(link.Width);
                bucket = link.Next;
            }
        }
    }
    return {bucket == fHeader ? fFirst : bucket, index};
}

// Forward iterator: a bucket and an offset in it.
class TUnrolledSkipList::TIterator {
public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = void*;
    using difference_type = std::ptrdiff_t;
    using pointer = void* const*;
    using reference = void*;

    TIterator() = default;
    [[nodiscard]] void* operator*() const noexcept { return fBucket->List.Get(fOffset); }
    TIterator& operator++() noexcept {
        if (++fOffset == fBucket->List.Count()) {
            fBucket = fBucket->Level(0).Next;
            fOffset = 0;
        }
        return *this;
    }
    TIterator operator++(int) noexcept {
        TIterator old = *this;
        ++*this;
        return old;
    }
    friend bool operator==(const TIterator&, const TIterator&) = default;

private:
    friend class TUnrolledSkipList;
    TIterator(const TSkipListBucket* bucket, std::int32_t offset) noexcept
        : fBucket(bucket), fOffset(offset) {}

    const TSkipListBucket* fBucket = nullptr;
    std::int32_t fOffset = 0;
};

inline TUnrolledSkipList::TIterator TUnrolledSkipList::begin() const noexcept {
    return fCount == 0 ? end() : TIterator(fFirst, 0);
}
inline TUnrolledSkipList::TIterator TUnrolledSkipList::end() const noexcept {
    return TIterator(fTrailer, 0);
}

}  // namespace kds
