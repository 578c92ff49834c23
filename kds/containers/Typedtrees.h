// The two trees for values of one type: T* instead of untyped pointers, C++ iteration both ways,
// and a comparison from any callable.
//
// Shape      As the untyped trees. Iterators go over the values, as T*, and are nodes (Node()).
// Ownership  The comparison is held by value. A sorted tree never owns values; a sequence does when
//            made to, of a T derived from TObject.
// Errors     As the untyped trees; what the comparison raises.
// Validity   As the untyped trees. Of a sorted tree's Delete only the answer goes on from there:
//            iterators that stood on the value or the next one may not be used any more.
#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <iterator>
#include <type_traits>
#include <utility>

#include "kds/containers/Cartesiantree.h"
#include "kds/containers/Redblacktree.h"

namespace kds {

// `C` is called with two T* and answers something that orders before, as or after 0: a number, or
// what <=> gives.
template <typename T, typename C = std::function<std::int32_t(const T*, const T*)>>
class TTypedRedBlackTree final : private TRedBlackTree {
public:
    using TIterator = TTreeIterator<TRedBlackNode, T>;

    explicit TTypedRedBlackTree(C compare = C()) : fCompare(std::move(compare)) {}

    using TRedBlackTree::Balanced;
    using TRedBlackTree::Clear;
    using TRedBlackTree::Duplicates;
    using TRedBlackTree::GetCount;
    using TRedBlackTree::IsConsistent;
    using TRedBlackTree::SetBalanced;
    using TRedBlackTree::SetDuplicates;

    void Insert(T* value) { TRedBlackTree::Insert(value); }
    // A value that compares equal, end() when there is none.
    [[nodiscard]] TIterator Search(T* value) const { return At(TRedBlackTree::Search(value)); }
    void Remove(T* value) { TRedBlackTree::Remove(value); }
    // Answers the place of the next value; end() is ignored.
    TIterator Delete(TIterator place) noexcept {
        PRedBlackNode node = place.Node();
        if (node == nullptr) return end();
        PRedBlackNode nil = TRedBlackNode::Nil();
        // With two children the node stays, and it is the next value that it holds then.
        const bool stays = node->Left != nil && node->Right != nil;
        PRedBlackNode next = stays ? node : NextNode(node);
        TRedBlackTree::Delete(node);
        return At(next);
    }

    [[nodiscard]] TIterator begin() const noexcept { return At(FirstNode(fRoot)); }
    [[nodiscard]] TIterator end() const noexcept { return At(nullptr); }
    [[nodiscard]] auto rbegin() const noexcept { return std::reverse_iterator(end()); }
    [[nodiscard]] auto rend() const noexcept { return std::reverse_iterator(begin()); }

private:
    static_assert(!std::is_same_v<std::invoke_result_t<const C&, T*, T*>, bool>,
                  "the comparison has three answers, not two");

    [[nodiscard]] std::int32_t Compare(void* a, void* b) const override {
        const auto order = fCompare(static_cast<T*>(a), static_cast<T*>(b));
        return order < 0 ? -1 : order > 0 ? 1 : 0;
    }
    [[nodiscard]] TIterator At(PRedBlackNode node) const noexcept { return {&fRoot, node}; }

    C fCompare;
};

template <typename T>
class TTypedCartesianTree final : private TCartesianTree {
public:
    using TIterator = TTreeIterator<TCartesianNode, T>;

    TTypedCartesianTree() = default;
    explicit TTypedCartesianTree(bool owns)
        requires std::derived_from<T, TObject>
        : TCartesianTree(owns) {}
    ~TTypedCartesianTree() override { Clear(); }  // while FreeValue is still this one

    using TCartesianTree::Clear;
    using TCartesianTree::GetCount;
    using TCartesianTree::IsConsistent;

    TIterator Insert(std::int32_t index, T* value) {
        return At(TCartesianTree::Insert(index, value));
    }
    T* Delete(std::int32_t index) { return static_cast<T*>(TCartesianTree::Delete(index)); }
    [[nodiscard]] TIterator ByIndex(std::int32_t index) const {
        return At(TCartesianTree::ByIndex(index));
    }
    [[nodiscard]] T* ValueOf(std::int32_t index) const {
        return static_cast<T*>(TCartesianTree::ValueOf(index));
    }
    // -1 for end().
    [[nodiscard]] std::int32_t IndexOf(TIterator place) const noexcept {
        return TCartesianTree::IndexOf(place.Node());
    }

    [[nodiscard]] TIterator begin() const noexcept { return At(FirstNode(fRoot)); }
    [[nodiscard]] TIterator end() const noexcept { return At(nullptr); }
    [[nodiscard]] auto rbegin() const noexcept { return std::reverse_iterator(end()); }
    [[nodiscard]] auto rend() const noexcept { return std::reverse_iterator(begin()); }

private:
    // A T* need not be the address of its TObject.
    void FreeValue([[maybe_unused]] void* value) noexcept override {
        if constexpr (std::derived_from<T, TObject>) {
            if (value != nullptr) static_cast<T*>(value)->FreeForced();
        }
    }
    [[nodiscard]] TIterator At(PCartesianNode node) const noexcept { return {&fRoot, node}; }
};

}  // namespace kds
