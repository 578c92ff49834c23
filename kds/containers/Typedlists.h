// The positional containers and the hash for pointers of one type: the same operations without
// casts, C++ iteration both ways, and any callable as a comparison.
//
// Shape      Each is the untyped container, with nothing added. A comparison is called with two T*
//            and answers something that orders before, as or after 0: a number, or what <=> gives.
//            nullptr is an ordinary item and reaches it.
// Ownership  As the untyped containers: the items are borrowed. Not copied, not moved.
// Errors     Cost  Threads    Those of the untyped containers.
// Validity   Iterators are a list and a position: a change before the position shifts what they
//            meet, and one at or beyond the end must not be read.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>
#include <utility>

#include "kds/containers/Cardinalhash.h"
#include "kds/containers/Smartlist.h"

namespace kds {

// A typed comparison as the untyped containers call it.
template <typename T, typename C>
class TTypedComparison {
    static_assert(!std::is_same_v<std::invoke_result_t<const C&, T*, T*>, bool>,
                  "the comparison has three answers, not two");

public:
    explicit TTypedComparison(const C& compare) noexcept : fCompare(compare) {}
    [[nodiscard]] std::int32_t operator()(void* a, void* b) const {
        const auto order = fCompare(static_cast<T*>(a), static_cast<T*>(b));
        return order < 0 ? -1 : order > 0 ? 1 : 0;
    }

private:
    const C& fCompare;
};

// Random access to the items of a list by position; the items are read, not replaced.
template <typename T, typename L>
class TTypedIterator {
public:
    using iterator_category = std::random_access_iterator_tag;
    using value_type = T*;
    using difference_type = std::ptrdiff_t;
    using pointer = T* const*;
    using reference = T*;

    TTypedIterator() = default;
    TTypedIterator(const L* list, std::int32_t index) noexcept : fList(list), fIndex(index) {}
    [[nodiscard]] T* operator*() const { return static_cast<T*>(fList->Get(fIndex)); }
    [[nodiscard]] T* operator[](difference_type offset) const { return *(*this + offset); }
    TTypedIterator& operator+=(difference_type offset) noexcept {
        fIndex = static_cast<std::int32_t>(fIndex + offset);
        return *this;
    }
    TTypedIterator& operator-=(difference_type offset) noexcept { return *this += -offset; }
    TTypedIterator& operator++() noexcept { return *this += 1; }
    TTypedIterator& operator--() noexcept { return *this -= 1; }
    TTypedIterator operator++(int) noexcept { return std::exchange(*this, *this + 1); }
    TTypedIterator operator--(int) noexcept { return std::exchange(*this, *this - 1); }
    friend TTypedIterator operator+(TTypedIterator at, difference_type offset) noexcept {
        return at += offset;
    }
    friend TTypedIterator operator+(difference_type offset, TTypedIterator at) noexcept {
        return at += offset;
    }
    friend TTypedIterator operator-(TTypedIterator at, difference_type offset) noexcept {
        return at -= offset;
    }
    friend difference_type operator-(const TTypedIterator& a, const TTypedIterator& b) noexcept {
        return difference_type{a.fIndex} - b.fIndex;
    }
    friend bool operator==(const TTypedIterator& a, const TTypedIterator& b) noexcept {
        return a.fIndex == b.fIndex;
    }
    friend std::strong_ordering operator<=>(const TTypedIterator& a,
                                            const TTypedIterator& b) noexcept {
        return a.fIndex <=> b.fIndex;
    }

private:
    const L* fList = nullptr;
    std::int32_t fIndex = 0;
};

// What all positional containers have in common.
template <typename T, typename L>
class TTypedList : protected L {
public:
    using TIterator = TTypedIterator<T, L>;

    using L::Clear;
    using L::Count;
    using L::IndexOf;
    using L::IsConsistent;

    [[nodiscard]] T* Get(std::int32_t index) const { return Typed(L::Get(index)); }
    std::int32_t Add(T* item) { return L::Add(Untyped(item)); }
    void Insert(std::int32_t index, T* item) { L::Insert(index, Untyped(item)); }
    // Stable. The comparison may be called from several threads at once.
    template <typename C>
    void Sort(const C& compare, std::int32_t maxThreads = 0) {
        const TTypedComparison<T, C> typed(compare);
        L::Sort(TComparator::BindCall(&typed), maxThreads);
    }
    // Whether an item compares equal; `index` is then the first of them, else the place for one.
    template <typename C>
    [[nodiscard]] bool Find(T* item, std::int32_t& index, const C& compare) const {
        const TTypedComparison<T, C> typed(compare);
        return L::Find(Untyped(item), index, TComparator::BindCall(&typed));
    }

    [[nodiscard]] TIterator begin() const noexcept { return {this, 0}; }
    [[nodiscard]] TIterator end() const noexcept { return {this, Count()}; }
    [[nodiscard]] auto rbegin() const noexcept { return std::reverse_iterator(end()); }
    [[nodiscard]] auto rend() const noexcept { return std::reverse_iterator(begin()); }

protected:
    using L::L;

    [[nodiscard]] static T* Typed(void* item) noexcept { return static_cast<T*>(item); }
    [[nodiscard]] static void* Untyped(const T* item) noexcept {  // T itself may be const
        return const_cast<void*>(static_cast<const void*>(item));
    }
};

template <typename T>
class TTypedSmartList final : public TTypedList<T, TSmartList> {
    using TBase = TTypedList<T, TSmartList>;

public:
    explicit TTypedSmartList(std::int32_t bucketSize = 2048, std::int32_t growthStep = 256)
        : TBase(bucketSize, growthStep) {}

    using TSmartList::Exchange;
    using TSmartList::Reserve;

    void SetItem(std::int32_t index, T* item) { TSmartList::SetItem(index, TBase::Untyped(item)); }
    T* Delete(std::int32_t index) { return TBase::Typed(TSmartList::Delete(index)); }
};

template <typename T>
class TTypedSkipList final : public TTypedList<T, TUnrolledSkipList> {
    using TBase = TTypedList<T, TUnrolledSkipList>;

public:
    using TUnrolledSkipList::Reserve;

    bool Put(std::int32_t index, T* item) noexcept {
        return TUnrolledSkipList::Put(index, TBase::Untyped(item));
    }
    T* Delete(std::int32_t index) { return TBase::Typed(TUnrolledSkipList::Delete(index)); }
};

template <typename T>
class TTypedDeque final : public TTypedList<T, TDeque> {
    using TBase = TTypedList<T, TDeque>;

public:
    explicit TTypedDeque(std::int32_t capacity = 0) : TBase(capacity) {}

    using TDeque::Delete;
    using TDeque::Exchange;
    using TDeque::Move;
    using TDeque::Remove;

    void Put(std::int32_t index, T* item) noexcept { TDeque::Put(index, TBase::Untyped(item)); }
    [[nodiscard]] T* First() const noexcept { return TBase::Typed(TDeque::First()); }
    [[nodiscard]] T* Last() const noexcept { return TBase::Typed(TDeque::Last()); }
    void AddFirst(T* item) { TDeque::AddFirst(TBase::Untyped(item)); }
    T* PopFirst() noexcept { return TBase::Typed(TDeque::PopFirst()); }
    T* PopLast() noexcept { return TBase::Typed(TDeque::PopLast()); }
    T* Extract(const T* item) noexcept { return TBase::Typed(TDeque::Extract(item)); }
};

template <typename T>
class TTypedCardinalHash final : private TCardinalHash {
public:
    struct TItem {
        std::uint32_t Code = 0;
        T* Data = nullptr;
        friend bool operator==(const TItem&, const TItem&) = default;
    };
    // Bidirectional, bucket by bucket.
    class TIterator {
    public:
        using iterator_category = std::bidirectional_iterator_tag;
        using value_type = TItem;
        using difference_type = std::ptrdiff_t;
        using pointer = const TItem*;
        using reference = TItem;

        TIterator() = default;
        explicit TIterator(TCardinalHash::TIterator place) noexcept : fPlace(place) {}
        [[nodiscard]] TItem operator*() const noexcept {
            const TCardinalBucketItem item = *fPlace;
            return {item.Code, static_cast<T*>(item.Data)};
        }
        TIterator& operator++() noexcept {
            ++fPlace;
            return *this;
        }
        TIterator& operator--() noexcept {
            --fPlace;
            return *this;
        }
        TIterator operator++(int) noexcept { return TIterator(fPlace++); }
        TIterator operator--(int) noexcept { return TIterator(fPlace--); }
        friend bool operator==(const TIterator&, const TIterator&) = default;

    private:
        TCardinalHash::TIterator fPlace;
    };

    explicit TTypedCardinalHash(std::int32_t bucketCount) : TCardinalHash(bucketCount) {}

    using TCardinalHash::Clear;
    using TCardinalHash::GetCount;
    using TCardinalHash::InvalidateCache;
    using TCardinalHash::IsConsistent;
    using TCardinalHash::Remove;
    using TCardinalHash::Reserve;

    [[nodiscard]] T* Get(std::uint32_t code) const noexcept {
        return static_cast<T*>(TCardinalHash::Get(code));
    }
    void Put(std::uint32_t code, T* data) {
        TCardinalHash::Put(code, const_cast<void*>(static_cast<const void*>(data)));
    }

    [[nodiscard]] TIterator begin() const noexcept { return TIterator(TCardinalHash::begin()); }
    [[nodiscard]] TIterator end() const noexcept { return TIterator(TCardinalHash::end()); }
    [[nodiscard]] auto rbegin() const noexcept { return std::reverse_iterator(end()); }
    [[nodiscard]] auto rend() const noexcept { return std::reverse_iterator(begin()); }
};

}  // namespace kds
