// Positional list of untyped pointers in few large chunks, without links or levels: little room
// lost, and reads that write nothing.
//
// Shape      The items lie chunk behind chunk. fStarts[i] is the position of the first item of
//            chunk i, and behind the last chunk stands the number of all items. No chunk is empty,
//            none holds more than the bucket size, and a removal leaves no two neighbours that fit
//            into half of one. A chunk's slots grow by the growth step.
// Units      Positions, counts and capacities are items: signed 32-bit, from 0.
// Ownership  Owns its chunks, never what the items point to. nullptr is an ordinary item.
//            Enumerators belong to who asked for them.
// Errors     A position out of range raises EListError. std::bad_alloc when memory runs out.
//            Whatever is raised leaves the list as it was, the order of the items of a sort
//            included. After Reserve the next Insert or Add does not allocate; Delete, Exchange,
//            SetItem and Clear never do.
// Cost       n items in c chunks of up to b. Get, SetItem O(log c), O(1) where the chunks are about
//            equally full. Insert, Delete O(log c), a move of at most b pointers and a walk
//            over c numbers; Add O(1) but for a new chunk. Find O(log n) comparisons. IndexOf O(n).
//            Assign, CopyTo O(n). About 8 bytes an item when appended, 8 to 16 after
//            insertions in the middle, up to 32 after deletions there.
// Validity   Enumerators and iterators walk by position: a change before the position shifts what
//            they meet. An enumerator survives every change, and the list: beyond the last item it
//            stands on none, and when its list has gone it has ended.
// Threads    One thread at a time, but reads write nothing: workers may read a list together.
#pragma once

#include <bit>
#include <cstdint>
#include <memory>
#include <vector>

// The unit's other containers.
#include "kds/containers/Deque.h"
#include "kds/containers/Listenumerator.h"
#include "kds/containers/Unrolledskiplist.h"
#include "kds/containers/Wordscan.h"
#include "kds/platform/Object.h"
#include "kds/util/Sortutils.h"

namespace kds {

class TSmartListEnumerator;

class TSmartList : public TObject {
public:
    // Chunks of up to `bucketSize` items, 2 at least, whose slots grow by `growthStep`.
    explicit TSmartList(std::int32_t bucketSize = 2048, std::int32_t growthStep = 256);
    ~TSmartList() override;

    [[nodiscard]] std::int32_t Count() const noexcept { return fStarts[fChunks.size()]; }
    [[nodiscard]] void* Get(std::int32_t index) const {
        CheckIndex(index);
        return SlotAt(index);
    }
    void SetItem(std::int32_t index, void* value) {
        CheckIndex(index);
        SlotAt(index) = value;
    }
    std::int32_t Add(void* value) {  // answers the item's position, the old Count
        Insert(Count(), value);
        return Count() - 1;
    }
    void Insert(std::int32_t index, void* value);
    void* Delete(std::int32_t index);  // answers the item taken out
    void Exchange(std::int32_t i, std::int32_t j);
    void Clear() noexcept;

    // Position of the first item that is this very pointer, -1 when there is none.
    [[nodiscard]] std::int32_t IndexOf(const void* value) const noexcept;
    // Bisection over items in order. Whether one compares equal to `value`; `index` is then the
    // first of them, else the position where `value` belongs. Calls compare(item, value).
    [[nodiscard]] bool Find(void* value, std::int32_t& index, TComparator compare) const;
    // Stable. `compare` may be called from several threads at once; `maxThreads` <= 0 sets no cap.
    void Sort(TComparator compare, std::int32_t maxThreads = 0);
    [[nodiscard]] TIntf<IListEnumerator> GetEnumerator(TListEnumeratorDirection direction);

    // Replaces the contents by these items in order. They must not be the list's own slots.
    void Assign(void* const* items, std::int32_t count);
    void CopyTo(void** target) const noexcept;
    // Sees to it that the next Insert or Add needs no memory. Cheap when that is so already.
    void Reserve();

    // The first rule of Shape that does not hold, nullptr when all do.
    [[nodiscard]] const char* Inconsistency() const noexcept;
    [[nodiscard]] bool IsConsistent() const noexcept { return Inconsistency() == nullptr; }

private:
    friend class TSmartListEnumerator;

    using TSlots = std::unique_ptr<void*[]>;
    struct TChunk {
        TSlots Items;
        std::int32_t Capacity = 0;
    };
    // What enumerators hold on to: the list, until it goes.
    class TLife final : public IInterface {
    public:
        explicit TLife(TSmartList* list) noexcept : List(list) {}
        TSmartList* List;

    private:
        ~TLife() override = default;
    };

    void CheckIndex(std::int32_t index) const;
    [[nodiscard]] void*& SlotAt(std::int32_t index) const noexcept {
        const std::size_t chunk = ChunkAt(index);
        return fChunks[chunk].Items[static_cast<std::size_t>(index - fStarts[chunk])];
    }
    // The chunk that holds this position, 0 to Count - 1.
    [[nodiscard]] std::size_t ChunkAt(std::int32_t index) const noexcept {
        // Near where it lies if all are equally full: one of sixteen then, and no bisection.
        const std::size_t guess = static_cast<std::uint64_t>(index) * fRate >> RateBits;
        const std::size_t first = guess < Before ? 0 : guess - Before;
        const std::int32_t behind = std::countr_one(WordsBelow(&fStarts[first], index + 1));
        if (behind != 0 && behind != WordsAtOnce) {
            return first + static_cast<std::size_t>(behind) - 1;
        }
        return BisectChunks(index);
    }
    [[nodiscard]] std::size_t BisectChunks(std::int32_t index) const noexcept;
    [[nodiscard]] std::int32_t CountOf(std::size_t chunk) const noexcept {
        return fStarts[chunk + 1] - fStarts[chunk];
    }

    [[nodiscard]] TChunk MakeChunk(std::int32_t capacity);
    void Shift(std::size_t chunk, std::int32_t items) noexcept;
    void MakeRoom(std::size_t chunk);
    void InsertChunk(std::size_t at);
    void Split(std::size_t chunk);
    void RemoveChunk(std::size_t chunk) noexcept;
    void Absorb(std::size_t chunk) noexcept;

    static constexpr std::int32_t RateBits = 32;
    static constexpr std::size_t Before = WordsAtOnce / 2 - 1;  // chunks looked at before the guess

    const std::int32_t fBucketSize;
    const std::int32_t fGrowthStep;
    std::vector<TChunk> fChunks;
    std::vector<std::int32_t> fStarts;  // as Shape says, and what a scan reads beyond that
    std::uint64_t fRate = 0;            // chunks an item, in units of 2 to the power of -RateBits
    TSlots fSpare;                      // slots of a whole chunk, for the next insertion
    TIntf<TLife> fLife;                 // once there was an enumerator
};

}  // namespace kds
