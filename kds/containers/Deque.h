// Ring of untyped pointers with cheap insertion at both ends; every skip-list bucket holds one.
//
// Shape      Element i lives in slot fHead + i, less fCapacity once that reaches fCapacity. Slots
//            outside the ring hold leftovers and are never read.
// Units      Positions, counts and capacities are elements: signed 32-bit, counted from 0.
// Ownership  Owns its slots, never what they point to. nullptr is an ordinary element.
// Errors     Get, First, Last, PopFirst, PopLast and Extract answer nullptr for an element that is
//            not there, Put has no effect there; what changes positions raises EListError for one
//            out of range. std::bad_alloc when memory runs out. Whatever is raised leaves the ring
//            as it was, but a comparison that raises leaves its elements in any order.
// Cost       Get, Put O(1). Add, AddFirst O(1) amortised. Insert, Delete O(min(i, n - i)) pointer
//            moves. IndexOf O(n). Sort O(n log n) comparisons, O(n) when already in order.
// Validity   Insert and Delete shift every later position by one; there are no iterators. Segments
//            are good until the next change.
// Threads    No locks: one thread at a time. Sort may start workers and returns after the last.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "kds/platform/Object.h"
#include "kds/platform/Prefetch.h"
#include "kds/util/Sortutils.h"

namespace kds {

class TDeque : public TObject {
public:
    explicit TDeque(std::int32_t capacity = 0);
    ~TDeque() override = default;

    [[nodiscard]] std::int32_t Count() const noexcept { return fCount; }
    [[nodiscard]] std::int32_t Capacity() const noexcept { return fCapacity; }
    [[nodiscard]] void* Get(std::int32_t index) const noexcept {
        return InRange(index) ? fList.get()[Slot(index)] : nullptr;
    }
    // Starts to bring the element's slot near.
    void Prefetch(std::int32_t index) const noexcept {
        if (InRange(index)) kds::Prefetch(&fList.get()[Slot(index)]);
    }
    // And the slots that Insert or Delete at this position will move.
    void PrefetchShift(std::int32_t index) const noexcept {
        constexpr std::int32_t line = 8;
        const bool towardHead = index < fCount / 2;
        const std::int32_t last = towardHead ? index : fCount;
        for (std::int32_t i = towardHead ? 0 : index; i < last; i += line) Prefetch(i);
    }
    void Put(std::int32_t index, void* value) noexcept {
        if (InRange(index)) fList.get()[Slot(index)] = value;
    }
    [[nodiscard]] void* First() const noexcept { return Get(0); }
    [[nodiscard]] void* Last() const noexcept { return Get(fCount - 1); }

    std::int32_t Add(void* value);  // answers the new element's position, the old Count
    void AddFirst(void* value);
    void* PopFirst() noexcept;
    void* PopLast() noexcept;
    void Insert(std::int32_t index, void* value);
    void Delete(std::int32_t index);
    // Takes the element at `from` out and puts it back at `to`, a position of the shorter ring.
    void Move(std::int32_t from, std::int32_t to);
    void Exchange(std::int32_t i, std::int32_t j);
    // Position of the first element that is this very pointer, -1 when there is none.
    [[nodiscard]] std::int32_t IndexOf(const void* value) const noexcept;
    void* Extract(const void* value) noexcept;        // the element taken out, or nullptr
    std::int32_t Remove(const void* value) noexcept;  // the position it had, or -1

    void Append(const TDeque& other);   // all of the other's elements, in order, at the tail
    void Prepand(const TDeque& other);  // the same at the head; their order is kept
    // `count` elements of the other from position `first` on, at the tail.
    void AppendPart(const TDeque& other, std::int32_t first, std::int32_t count);
    void AppendItems(std::span<void* const> items);

    virtual void Clear() noexcept;  // keeps the slots; SetCapacity(0) gives them back
    void SetCapacity(std::int32_t capacity);
    void SetCount(std::int32_t count);  // cuts the tail off, or extends it with nullptr
    void Normalize();                   // element 0 to slot 0
    void CopyItems(void** target) const noexcept;
    // The elements where they lie: from element 0 to the seam, and from the seam to the last.
    struct TSegments {
        std::span<void* const> Front, Back;
    };
    [[nodiscard]] TSegments Segments() const noexcept;
    void Swap(TDeque& other) noexcept;
    // Moves the elements into slots of the caller's, of which there are at least Count, and leaves
    // the caller the old ones: growth that cannot fail.
    void ExchangeSlots(std::unique_ptr<void*[]>& slots, std::int32_t& capacity) noexcept;

    // Stable. `compare` is called from several threads at once; `maxThreads` <= 0 sets no cap.
    void Sort(TComparator compare, std::int32_t maxThreads = 0);
    void QuickSort(TComparator compare);  // not stable
    void InsertSort(TComparator compare);
    // Bisection over elements in order. Whether one compares equal to `value`; `index` is then the
    // first of them, else the position where `value` belongs. Calls compare(element, value).
    [[nodiscard]] bool Find(void* value, std::int32_t& index, TComparator compare) const;

    // Whether the fields agree with Shape, in O(1). Asserted after every change; tests call it too.
    [[nodiscard]] bool IsConsistent() const noexcept;

private:
    [[nodiscard]] bool InRange(std::int32_t index) const noexcept {
        // One comparison: a negative position becomes a huge one.
        return static_cast<std::uint32_t>(index) < static_cast<std::uint32_t>(fCount);
    }
    [[nodiscard]] std::int32_t Slot(std::int32_t index) const noexcept {
        const auto capacity = static_cast<std::uint32_t>(fCapacity);
        const auto slot = static_cast<std::uint32_t>(fHead) + static_cast<std::uint32_t>(index);
        return static_cast<std::int32_t>(slot < capacity ? slot : slot - capacity);
    }
    void Relay(std::int32_t capacity);
    void Grow();
    void Reserve(std::int64_t count);
    void ShiftTowardTail(std::int32_t first, std::int32_t count) noexcept;
    void ShiftTowardHead(std::int32_t first, std::int32_t count) noexcept;

    std::unique_ptr<void*[]> fList;
    std::int32_t fHead = 0;
    std::int32_t fCount = 0;
    std::int32_t fCapacity = 0;
};

}  // namespace kds
