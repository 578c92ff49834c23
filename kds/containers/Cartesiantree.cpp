#include "kds/containers/Cartesiantree.h"

#include <algorithm>
#include <cassert>
#include <limits>
#include <new>
#include <utility>

#include "kds/platform/Errors.h"
#include "kds/platform/Prefetch.h"
#include "kds/platform/Random.h"

namespace kds {
namespace {

// 0 to 2147483646, each as likely as the others.
std::int32_t DrawWeight() noexcept {
    constexpr std::uint64_t weights = std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(NextRandom() % weights);
}

// The way down needs the left child's size, and half the time the right child next.
std::int32_t LeftCount(const TCartesianNode* node) noexcept {
    Prefetch(node->Right);
    return TCartesianTree::CountOf(node->Left);
}

// The link to go by from a node with `before` elements on its left, and what is left of `index`
// behind it. Half of all turns are guessed wrong. Where subtrees are large, so that their tops are
// few and near, the wrong guesses are what a way down costs: there both ways are worked out and one
// is picked without a branch. Further down it is the memory that is waited for, and there a guess
// brings the next node early half the time.
PCartesianNode& Turn(PCartesianNode node, bool right, std::int32_t before,
                     std::int32_t& index) noexcept {
    static constexpr PCartesianNode TCartesianNode::*Ways[] = {&TCartesianNode::Left,
                                                               &TCartesianNode::Right};
    constexpr std::int32_t large = 1024;
    if (node->Count >= large) {
        index -= (before + 1) * static_cast<std::int32_t>(right);
        return node->*Ways[right];
    }
    if (!right) return node->Left;
    index -= before + 1;
    return node->Right;
}

// Where the next subtree will hang: a link, and the node that it is in. Without a node the link is
// the caller's, and what hangs there keeps its Parent.
struct THook {
    PCartesianNode* Link;
    PCartesianNode Node = nullptr;

    void Hang(PCartesianNode subtree) const noexcept {
        *Link = subtree;
        if (Node != nullptr && subtree != nullptr) subtree->Parent = Node;
    }
};

}  // namespace

TCartesianTree::TCartesianTree(bool owns)
    : TBinaryTree(owns), fNodes(TSlab::Create(sizeof(TCartesianNode))) {
    ReseedRandom();
}

void TCartesianTree::Clear() noexcept {
    // Whoever looks on while values end meets an empty tree.
    PCartesianNode root = std::exchange(fRoot, nullptr);
    fCount = 0;
    InvalidateCache();
    DeleteNode(root, true);
}

PCartesianNode TCartesianTree::Insert(std::int32_t index, void* value) {
    if (index < 0 || index > fCount) ListIndexError(index);
    PCartesianNode node = CreateNode(DrawWeight(), value);
    Link(node, index);
    ++fCount;
    InvalidateCache();
    return node;
}

// The shape is what splitting the whole tree at `index` and merging the left part, the node and the
// right part gives. Weights, and of equal ones the later position, decide what stands above what,
// so there is one shape; and the nodes that stay above the new one need not be taken apart for it.
void TCartesianTree::Link(PCartesianNode node, std::int32_t index) noexcept {
    THook hook{&fRoot};
    PCartesianNode other = fRoot;
    while (other != nullptr) {
        const std::int32_t before = LeftCount(other);
        const bool goesLeft = index <= before;
        if (other->Weight < node->Weight) break;
        if (other->Weight == node->Weight && !goesLeft) break;
        hook = {&Turn(other, !goesLeft, before, index), other};
        ++other->Count;
        other = *hook.Link;
    }
    hook.Hang(node);
    node->Count = CountOf(other) + 1;
    Split(other, index, node->Left, node->Right);
    if (node->Left != nullptr) node->Left->Parent = node;
    if (node->Right != nullptr) node->Right->Parent = node;
}

void* TCartesianTree::Delete(std::int32_t index) {
    if (!InRange(index)) ListIndexError(index);
    PCartesianNode node = Unlink(index);
    --fCount;
    InvalidateCache();
    void* const value = node->Value;  // an owning tree ends it with the node
    DeleteNode(node, true);
    return value;
}

// For the same reason what hangs below the node, merged, takes its place.
PCartesianNode TCartesianTree::Unlink(std::int32_t index) noexcept {
    THook hook{&fRoot};
    PCartesianNode node = fRoot;
    for (;;) {
        assert(node != nullptr);
        const std::int32_t before = LeftCount(node);
        if (index == before) break;
        hook = {&Turn(node, index > before, before, index), node};
        --node->Count;
        node = *hook.Link;
    }
    hook.Hang(Merge(node->Left, node->Right));
    // A lone child comes out of the merger untouched, and the root has no parent to be given.
    if (fRoot != nullptr) fRoot->Parent = nullptr;
    node->Left = node->Right = nullptr;
    return node;
}

PCartesianNode TCartesianTree::ByIndex(std::int32_t index) const {
    if (!InRange(index)) ListIndexError(index);
    if (CacheByIndexValid && index == CacheByIndexIndex) return CacheByIndexValue;
    PCartesianNode node = fRoot;
    std::int32_t rest = index;
    while (node != nullptr) {
        const std::int32_t before = LeftCount(node);
        if (before == rest) break;
        node = Turn(node, rest > before, before, rest);
    }
    CacheByIndexIndex = index;
    CacheByIndexValue = node;
    CacheByIndexValid = true;
    return node;
}

void* TCartesianTree::ValueOf(std::int32_t index) const {
    const TCartesianNode* const node = ByIndex(index);
    return node == nullptr ? nullptr : node->Value;
}

std::int32_t TCartesianTree::IndexOf(const TCartesianNode* node) const noexcept {
    if (node == nullptr) return -1;
    if (CacheIndexOfValid && CacheIndexOfValue == node) return CacheIndexOfIndex;
    std::int32_t index = CountOf(node->Left);
    const TCartesianNode* current = node;
    for (const TCartesianNode* up = node->Parent; up != nullptr; up = up->Parent) {
        if (current == up->Right) index += CountOf(up->Left) + 1;
        current = up;
    }
    assert(current == fRoot);  // a node of this tree
    CacheIndexOfValue = node;
    CacheIndexOfIndex = index;
    CacheIndexOfValid = true;
    return index;
}

void TCartesianTree::Handle(TBinaryTreeHandler handler) const {
    if (!handler) return;
    for (PCartesianNode node : *this) handler(node);
}

PCartesianNode TCartesianTree::CreateNode(std::int32_t weight, void* value) {
    if (fCount == std::numeric_limits<std::int32_t>::max()) throw std::bad_alloc();
    return new (fNodes->Allocate()) TCartesianNode{nullptr, nullptr, nullptr, weight, 1, value};
}

void TCartesianTree::DeleteNode(PCartesianNode& node, bool recursive) noexcept {
    if (node == nullptr) return;
    if (recursive) {
        ReleaseNodes(node, [this](PCartesianNode each) { FreeNode(each); });
    } else {
        FreeNode(node);
    }
    node = nullptr;
}

void TCartesianTree::FreeNode(PCartesianNode node) noexcept {
    if (fOwns) FreeValue(node->Value);
    fNodes->Free(node);
}

void TCartesianTree::Split(PCartesianNode node, std::int32_t count, PCartesianNode& left,
                           PCartesianNode& right) noexcept {
    count = std::clamp(count, 0, CountOf(node));
    THook toLeft{&left};
    THook toRight{&right};
    // Each node on the way goes to one side with what hangs on that side of it; the parts to come
    // hang where the way went on. As soon as all that is left belongs to one side, it goes there.
    while (count > 0 && count < CountOf(node)) {
        const std::int32_t first = LeftCount(node) + 1;
        if (first > count) {
            toRight.Hang(node);
            node->Count -= count;
            toRight = {&node->Left, node};
            node = node->Left;
        } else {
            toLeft.Hang(node);
            node->Count = count;
            count -= first;
            toLeft = {&node->Right, node};
            node = node->Right;
        }
    }
    toLeft.Hang(count > 0 ? node : nullptr);
    toRight.Hang(count > 0 ? nullptr : node);
}

PCartesianNode TCartesianTree::Merge(PCartesianNode left, PCartesianNode right) noexcept {
    if (left == nullptr) return right;
    if (right == nullptr) return left;
    PCartesianNode top = nullptr;
    THook hook{&top};
    while (left != nullptr && right != nullptr) {
        const std::int32_t count = left->Count + right->Count;
        const bool leftOnTop = left->Weight > right->Weight;
        PCartesianNode& upper = leftOnTop ? left : right;
        PCartesianNode const node = upper;
        hook.Hang(node);
        node->Count = count;
        hook = {leftOnTop ? &node->Right : &node->Left, node};
        upper = *hook.Link;
    }
    hook.Hang(left != nullptr ? left : right);
    top->Parent = nullptr;
    return top;
}

bool TCartesianTree::IsConsistent() const noexcept {
    const auto holds = [](const TCartesianNode* node) {
        for (const TCartesianNode* child : {node->Left, node->Right}) {
            if (child != nullptr && child->Weight > node->Weight) return false;
        }
        return node->Weight >= 0 && std::int64_t{node->Count} == std::int64_t{CountOf(node->Left)} +
                                                                     CountOf(node->Right) + 1;
    };
    if (!NodesHold<TCartesianNode>(fRoot, fCount, holds)) return false;
    const auto isAt = [this](const TCartesianNode* node, std::int32_t index) {
        if (!InRange(index)) return false;
        const TCartesianNode* each = FirstNode(fRoot);
        for (std::int32_t i = 0; i < index; ++i) each = NextNode(each);
        return each == node;
    };
    if (CacheIndexOfValid && !isAt(CacheIndexOfValue, CacheIndexOfIndex)) return false;
    return !CacheByIndexValid || isAt(CacheByIndexValue, CacheByIndexIndex);
}

}  // namespace kds
