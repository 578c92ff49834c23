#include "kds/containers/Deque.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <limits>
#include <new>
#include <utility>

#include "kds/platform/Errors.h"
#include "kds/util/Growth.h"

namespace kds {

namespace {

// Position of the first pointer that is `value`, -1 when there is none.
std::int32_t ScanFor(std::span<void* const> items, const void* value) noexcept {
    // Whole blocks first, each without a branch and by the low halves of the addresses alone, which
    // the compiler turns into vector comparisons. A block that seems to hold the value is looked
    // through properly.
    constexpr std::size_t block = 32;
    const auto low = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(value));
    std::size_t i = 0;
    for (; i + block <= items.size(); i += block) {
        std::uint32_t hits = 0;
        for (std::size_t k = 0; k < block; ++k) {
            const auto address = reinterpret_cast<std::uintptr_t>(items[i + k]);
            hits |= static_cast<std::uint32_t>(address) == low ? 1u : 0u;
        }
        if (hits == 0) continue;
        for (std::size_t k = i; k < i + block; ++k) {
            if (items[k] == value) return static_cast<std::int32_t>(k);
        }
    }
    for (; i < items.size(); ++i) {
        if (items[i] == value) return static_cast<std::int32_t>(i);
    }
    return -1;
}

}  // namespace

TDeque::TDeque(std::int32_t capacity) {
    if (capacity < 0) ListIndexError(capacity);
    Relay(capacity);
}

std::int32_t TDeque::Add(void* value) {
    if (fCount == fCapacity) Grow();
    fList[static_cast<std::size_t>(Slot(fCount))] = value;
    ++fCount;
    assert(IsConsistent());
    return fCount - 1;
}

void TDeque::AddFirst(void* value) {
    if (fCount == fCapacity) Grow();
    fHead = fHead == 0 ? fCapacity - 1 : fHead - 1;
    ++fCount;
    Put(0, value);
    assert(IsConsistent());
}

void* TDeque::PopFirst() noexcept {
    if (fCount == 0) return nullptr;
    void* const value = Get(0);
    fHead = Slot(1);
    --fCount;
    assert(IsConsistent());
    return value;
}

void* TDeque::PopLast() noexcept {
    if (fCount == 0) return nullptr;
    --fCount;
    return fList[static_cast<std::size_t>(Slot(fCount))];
}

void TDeque::Insert(std::int32_t index, void* value) {
    if (index < 0 || index > fCount) ListIndexError(index);
    if (fCount == fCapacity) Grow();
    // The shorter side moves, so an insertion near either end is nearly free, and behind the last
    // element nothing does.
    if (index >= fCount - index) {
        if (index < fCount) ShiftTowardTail(index, fCount - index);
    } else {
        fHead = fHead == 0 ? fCapacity - 1 : fHead - 1;
        ShiftTowardHead(1, index);  // the elements before `index` are one further from the new head
    }
    ++fCount;
    Put(index, value);
    assert(IsConsistent());
}

void TDeque::Delete(std::int32_t index) {
    if (!InRange(index)) ListIndexError(index);
    if (index >= fCount - index - 1) {
        ShiftTowardHead(index + 1, fCount - index - 1);
    } else {
        ShiftTowardTail(0, index);
        fHead = Slot(1);
    }
    --fCount;
    assert(IsConsistent());
}

void TDeque::Move(std::int32_t from, std::int32_t to) {
    if (!InRange(from)) ListIndexError(from);
    if (!InRange(to)) ListIndexError(to);
    if (from == to) return;
    void* const value = Get(from);
    Delete(from);
    Insert(to, value);  // the slot just freed is enough
}

void TDeque::Exchange(std::int32_t i, std::int32_t j) {
    if (!InRange(i)) ListIndexError(i);
    if (!InRange(j)) ListIndexError(j);
    void* const value = Get(i);
    Put(i, Get(j));
    Put(j, value);
}

std::int32_t TDeque::IndexOf(const void* value) const noexcept {
    const TSegments segments = Segments();
    const std::int32_t front = ScanFor(segments.Front, value);
    if (front >= 0) return front;
    const std::int32_t back = ScanFor(segments.Back, value);
    return back < 0 ? -1 : back + static_cast<std::int32_t>(segments.Front.size());
}

void* TDeque::Extract(const void* value) noexcept {
    const std::int32_t index = IndexOf(value);
    void* const found = Get(index);
    if (index >= 0) Delete(index);
    return found;
}

std::int32_t TDeque::Remove(const void* value) noexcept {
    const std::int32_t index = IndexOf(value);
    if (index >= 0) Delete(index);
    return index;
}

void TDeque::Append(const TDeque& other) { AppendPart(other, 0, other.fCount); }

void TDeque::Prepand(const TDeque& other) {
    if (&other == this) {  // twice the same elements: which half is the new one cannot be told
        Append(other);
        return;
    }
    Reserve(std::int64_t{fCount} + other.fCount);
    for (std::int32_t i = other.fCount; i-- > 0;) AddFirst(other.Get(i));
}

void TDeque::AppendPart(const TDeque& other, std::int32_t first, std::int32_t count) {
    if (first < 0 || first > other.fCount) ListIndexError(first);
    if (count < 0 || count > other.fCount - first) ListIndexError(std::int64_t{first} + count);
    Reserve(std::int64_t{fCount} + count);
    const auto [front, back] = other.Segments();  // only now: the other may be this ring
    const auto skipped = static_cast<std::size_t>(first);
    const auto taken = static_cast<std::size_t>(count);
    if (skipped < front.size()) {
        const std::size_t fromFront = std::min(taken, front.size() - skipped);
        AppendItems(front.subspan(skipped, fromFront));
        AppendItems(back.first(taken - fromFront));
    } else {
        AppendItems(back.subspan(skipped - front.size(), taken));
    }
}

void TDeque::AppendItems(std::span<void* const> items) {
    Reserve(fCount + static_cast<std::int64_t>(items.size()));
    if (items.empty()) return;
    const auto tail = static_cast<std::size_t>(Slot(fCount));
    const std::size_t flat = std::min(items.size(), static_cast<std::size_t>(fCapacity) - tail);
    std::copy_n(items.data(), flat, fList.get() + tail);
    std::copy(items.begin() + static_cast<std::ptrdiff_t>(flat), items.end(), fList.get());
    fCount += static_cast<std::int32_t>(items.size());
    assert(IsConsistent());
}

void TDeque::Clear() noexcept {
    fHead = 0;
    fCount = 0;
}

void TDeque::SetCapacity(std::int32_t capacity) {
    if (capacity < fCount) ListIndexError(capacity);
    if (capacity != fCapacity) Relay(capacity);
}

void TDeque::SetCount(std::int32_t count) {
    if (count < 0) ListIndexError(count);
    Reserve(count);
    for (std::int32_t i = fCount; i < count; ++i) {
        fList[static_cast<std::size_t>(Slot(i))] = nullptr;
    }
    fCount = count;
    assert(IsConsistent());
}

void TDeque::Normalize() {
    if (fHead == 0) return;
    const std::int32_t head = std::exchange(fHead, 0);
    std::rotate(fList.get(), fList.get() + head, fList.get() + fCapacity);
}

void TDeque::CopyItems(void** target) const noexcept {
    const auto [front, back] = Segments();
    std::copy(back.begin(), back.end(), std::copy(front.begin(), front.end(), target));
}

TDeque::TSegments TDeque::Segments() const noexcept {
    const std::int32_t flat = std::min(fCount, fCapacity - fHead);
    return {{fList.get() + fHead, static_cast<std::size_t>(flat)},
            {fList.get(), static_cast<std::size_t>(fCount - flat)}};
}

void TDeque::Swap(TDeque& other) noexcept {
    std::swap(fList, other.fList);
    std::swap(fHead, other.fHead);
    std::swap(fCount, other.fCount);
    std::swap(fCapacity, other.fCapacity);
}

void TDeque::ExchangeSlots(std::unique_ptr<void*[]>& slots, std::int32_t& capacity) noexcept {
    assert(capacity >= fCount);
    if (fCount > 0) CopyItems(slots.get());
    std::swap(fList, slots);
    std::swap(fCapacity, capacity);
    fHead = 0;
    assert(IsConsistent());
}

void TDeque::Sort(TComparator compare, std::int32_t maxThreads) {
    Normalize();
    MergeSortList(fList.get(), 0, fCount - 1, compare, maxThreads);
}

void TDeque::QuickSort(TComparator compare) {
    Normalize();
    QuickSortList(fList.get(), 0, fCount - 1, compare);
}

void TDeque::InsertSort(TComparator compare) {
    Normalize();
    InsertSortList(fList.get(), 0, fCount - 1, compare);
}

bool TDeque::Find(void* value, std::int32_t& index, TComparator compare) const {
    std::int32_t low = 0;
    std::int32_t high = fCount;
    while (low < high) {
        const std::int32_t middle = low + (high - low) / 2;
        if (compare(Get(middle), value) < 0) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    index = low;
    return low < fCount && compare(Get(low), value) == 0;
}

bool TDeque::IsConsistent() const noexcept {
    if (fCount < 0 || fCount > fCapacity || fHead < 0) return false;
    return fCapacity == 0 ? fHead == 0 : fHead < fCapacity && fList != nullptr;
}

// The elements move to slots of their own, element 0 to slot 0.
void TDeque::Relay(std::int32_t capacity) {
    auto slots =
        capacity == 0 ? nullptr : std::make_unique<void*[]>(static_cast<std::size_t>(capacity));
    ExchangeSlots(slots, capacity);
}

void TDeque::Grow() {
    if (fCapacity == std::numeric_limits<std::int32_t>::max()) throw std::bad_alloc();
    Relay(GrownCapacity(fCapacity));
}

// Room for `count` elements in all, by at least one growth step so that appending stays cheap.
void TDeque::Reserve(std::int64_t count) {
    if (count <= fCapacity) return;
    if (count > std::numeric_limits<std::int32_t>::max()) throw std::bad_alloc();
    Relay(std::max(GrownCapacity(fCapacity), static_cast<std::int32_t>(count)));
}

// Moves elements [first, first + count) one slot toward the tail; the slot after them is free.
void TDeque::ShiftTowardTail(std::int32_t first, std::int32_t count) noexcept {
    if (count == 0) return;
    void** const slots = fList.get();
    const std::int64_t begin = Slot(first);
    const std::int64_t end = begin + count;  // past fCapacity when the range wraps
    if (end < fCapacity) {
        std::move_backward(slots + begin, slots + end, slots + end + 1);
        return;
    }
    // The range reaches the seam. Back to front: the wrapped part, the element that crosses the
    // seam, the part before it; any other order overwrites an element before it has moved.
    const std::int64_t wrapped = end - fCapacity;
    std::move_backward(slots, slots + wrapped, slots + wrapped + 1);
    slots[0] = slots[fCapacity - 1];
    std::move_backward(slots + begin, slots + fCapacity - 1, slots + fCapacity);
}

// Moves elements [first, first + count) one slot toward the head; the slot before them is free.
void TDeque::ShiftTowardHead(std::int32_t first, std::int32_t count) noexcept {
    if (count == 0) return;
    void** const slots = fList.get();
    const std::int64_t begin = Slot(first);
    const std::int64_t end = begin + count;  // past fCapacity when the range wraps
    // Front to back, for the same reason: the part before the seam, the element that crosses it,
    // the wrapped part. A range that begins at the seam has nothing before it.
    const std::int64_t flatEnd = std::min<std::int64_t>(end, fCapacity);
    if (begin > 0) std::move(slots + begin, slots + flatEnd, slots + begin - 1);
    const std::int64_t wrapped = begin > 0 ? end - flatEnd : count;
    if (wrapped == 0) return;
    slots[fCapacity - 1] = slots[0];
    std::move(slots + 1, slots + wrapped, slots);
}

}  // namespace kds
