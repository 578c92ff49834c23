// What the two trees of untyped pointers share: callbacks, base class, and walks over their nodes.
//
// Shape      A node has Parent (nullptr at the root), Left, Right and Value. Where a child is
//            missing stands TNode::Nil(). Walks go by Parent: they need no stack and no memory,
//            whatever the height.
// Ownership  Trees own their nodes. Values are the tree's only when it was made to own them; then
//            FreeValue ends them.
// Validity   An iterator is a node and good as long as that node is. Who walks must not change the
//            tree meanwhile.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <type_traits>

#include "kds/platform/Delegate.h"
#include "kds/platform/Object.h"

namespace kds {

// Negative when A orders before B, 0 when they are equal, positive when A orders after B.
using TBinaryTreeCompare = TDelegate<std::int32_t(void*, void*)>;
// Hears each node once: the node itself (PRedBlackNode, PCartesianNode), not its value.
using TBinaryTreeHandler = TDelegate<void(void*)>;

class TBinaryTree : public TObject {
public:
    ~TBinaryTree() override = default;

    // 0 as long as no routine is assigned: every value is then equal to every other.
    [[nodiscard]] virtual std::int32_t Compare(void* a, void* b) const {
        return fOnCompare ? fOnCompare(a, b) : 0;
    }
    [[nodiscard]] virtual std::int32_t GetCount() const noexcept = 0;
    virtual void Clear() noexcept = 0;

    [[nodiscard]] bool Owns() const noexcept { return fOwns; }
    [[nodiscard]] TBinaryTreeCompare OnCompare() const noexcept { return fOnCompare; }
    // Values already in a tree that is ordered by them stay where they are.
    void SetOnCompare(TBinaryTreeCompare value) noexcept { fOnCompare = value; }

protected:
    explicit TBinaryTree(bool owns) noexcept : fOwns(owns) {}
    // Ended through Free, a derived class still hears about its values. One that ends as a plain
    // value calls Clear in its own destructor when it has another FreeValue.
    void Teardown() noexcept override { Clear(); }
    // Ends a value of an owning tree. The pointer must have been a TObject* when it was put in.
    virtual void FreeValue(void* value) noexcept {
        if (value != nullptr) static_cast<TObject*>(value)->FreeForced();
    }

    const bool fOwns;
    TBinaryTreeCompare fOnCompare;
};

// --- Walks over nodes ----------------------------------------------------------------------------

// Leftmost and rightmost node below `top`, itself included; nullptr when `top` is missing.
template <typename TNode>
[[nodiscard]] TNode* FirstNode(TNode* top) noexcept {
    if (top == TNode::Nil()) return nullptr;
    while (top->Left != TNode::Nil()) top = top->Left;
    return top;
}
template <typename TNode>
[[nodiscard]] TNode* LastNode(TNode* top) noexcept {
    if (top == TNode::Nil()) return nullptr;
    while (top->Right != TNode::Nil()) top = top->Right;
    return top;
}

// The node after and before this one in the whole tree, nullptr when there is none.
template <typename TNode>
[[nodiscard]] TNode* NextNode(TNode* node) noexcept {
    if (node->Right != TNode::Nil()) return FirstNode(node->Right);
    TNode* up = node->Parent;
    while (up != nullptr && node == up->Right) {
        node = up;
        up = up->Parent;
    }
    return up;
}
template <typename TNode>
[[nodiscard]] TNode* PrevNode(TNode* node) noexcept {
    if (node->Left != TNode::Nil()) return LastNode(node->Left);
    TNode* up = node->Parent;
    while (up != nullptr && node == up->Left) {
        node = up;
        up = up->Parent;
    }
    return up;
}

template <typename TNode>
[[nodiscard]] const TNode* RootOf(const TNode* node) noexcept {
    while (node->Parent != nullptr) node = node->Parent;
    return node;
}

// Calls release(node) for every node below `top`, itself included: children first, left before
// right. A link is taken back before its node goes, which is how the way up knows what is left.
template <typename TNode, typename F>
void ReleaseNodes(TNode* top, F&& release) noexcept {
    TNode* node = top;
    for (;;) {
        if (node->Left != TNode::Nil()) {
            node = node->Left;
        } else if (node->Right != TNode::Nil()) {
            node = node->Right;
        } else {
            if (node == top) return release(node);
            TNode* const up = node->Parent;
            (node == up->Left ? up->Left : up->Right) = TNode::Nil();
            release(node);
            node = up;
        }
    }
}

// Whether there are `count` nodes below `root`, linked both ways, and holds(node) for each of them.
// No link is followed before it was checked, so this ends whatever the damage.
template <typename TNode, typename F>
[[nodiscard]] bool NodesHold(const TNode* root, std::int64_t count, F&& holds) noexcept {
    if (root == TNode::Nil()) return count == 0;
    if (root == nullptr || root->Parent != nullptr) return false;
    const auto linked = [](const TNode* node, const TNode* child, const TNode* other) {
        if (child == TNode::Nil()) return true;
        return child != nullptr && child != other && child->Parent == node;
    };
    for (const TNode* node = root;;) {
        if (--count < 0 || !linked(node, node->Left, node->Right)) return false;
        if (!linked(node, node->Right, node->Left) || !holds(node)) return false;
        if (node->Left != TNode::Nil()) {
            node = node->Left;
            continue;
        }
        // Up to the first node that has a right side where this has not been yet.
        const TNode* below = nullptr;
        while (node->Right == TNode::Nil() || node->Right == below) {
            below = node;
            node = node->Parent;
            if (node == nullptr) return count == 0;
        }
        node = node->Right;
    }
}

// Goes both ways over the nodes of a tree, or over their values as TItem*. The end is no node; from
// there the way back begins at the tree's last one.
template <typename TNode, typename TItem = TNode>
class TTreeIterator {
public:
    using iterator_category = std::bidirectional_iterator_tag;
    using value_type = TItem*;
    using difference_type = std::ptrdiff_t;
    using pointer = TItem* const*;
    using reference = TItem*;

    TTreeIterator() = default;
    TTreeIterator(TNode* const* root, TNode* node) noexcept : fRoot(root), fNode(node) {}

    [[nodiscard]] TItem* operator*() const noexcept {
        if constexpr (std::is_same_v<TItem, TNode>) {
            return fNode;
        } else {
            return static_cast<TItem*>(fNode->Value);
        }
    }
    [[nodiscard]] TNode* Node() const noexcept { return fNode; }  // nullptr at the end
    TTreeIterator& operator++() noexcept {
        fNode = NextNode(fNode);
        return *this;
    }
    TTreeIterator& operator--() noexcept {
        fNode = fNode == nullptr ? LastNode(*fRoot) : PrevNode(fNode);
        return *this;
    }
    TTreeIterator operator++(int) noexcept {
        TTreeIterator old = *this;
        ++*this;
        return old;
    }
    TTreeIterator operator--(int) noexcept {
        TTreeIterator old = *this;
        --*this;
        return old;
    }
    friend bool operator==(const TTreeIterator&, const TTreeIterator&) = default;

private:
    TNode* const* fRoot = nullptr;
    TNode* fNode = nullptr;
};

}  // namespace kds
