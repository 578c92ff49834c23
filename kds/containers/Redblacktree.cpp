#include "kds/containers/Redblacktree.h"

#include <cassert>
#include <limits>
#include <new>
#include <utility>

#include "kds/platform/Errors.h"
#include "kds/platform/Prefetch.h"

namespace kds {

// Ready before any constructor runs: trees may be static objects of other units.
constinit TRedBlackNode TRedBlackNode::Sentinel{nullptr, &Sentinel, &Sentinel, ncBlack, nullptr};

namespace {

constexpr bool Leftward = false;
constexpr bool Rightward = true;

PRedBlackNode& Child(PRedBlackNode node, bool right) noexcept {
    return right ? node->Right : node->Left;
}

// A comparison waits for the node's value to come near; both ways on come with it meanwhile.
void PrefetchChildren(const TRedBlackNode* node) noexcept {
    Prefetch(node->Left);
    Prefetch(node->Right);
}

}  // namespace

TRedBlackTree::TRedBlackTree(bool owns)
    : TBinaryTree(owns), fNodes(TSlab::Create(sizeof(TRedBlackNode))) {}

void TRedBlackTree::Clear() noexcept {
    // Whoever looks on while values end meets an empty tree.
    PRedBlackNode root = std::exchange(fRoot, TRedBlackNode::Nil());
    fCount = 0;
    DeleteNode(root, true);
}

void TRedBlackTree::SetBalanced(bool value) {
    if (value == fBalanced) return;
    if (value && fCount > 0) throw EListError(u"Invalid operation on a non-empty tree");
    fBalanced = value;
}

PRedBlackNode TRedBlackTree::Search(void* value) const {
    PRedBlackNode node = fRoot;
    while (node != TRedBlackNode::Nil()) {
        PrefetchChildren(node);
        const std::int32_t order = Compare(value, node->Value);
        if (order == 0) return node;
        node = order > 0 ? node->Right : node->Left;
    }
    return nullptr;
}

void TRedBlackTree::Insert(void* value) {
    PRedBlackNode current = fRoot;
    PRedBlackNode parent = nullptr;
    std::int32_t last = 0;
    while (current != TRedBlackNode::Nil()) {
        PrefetchChildren(current);
        last = Compare(value, current->Value);
        if (last == 0) {
            if (fDuplicates == dupIgnore) return;
            if (fDuplicates == dupError) ListDuplicateError(value);
        }
        parent = current;
        current = last >= 0 ? current->Right : current->Left;  // equal ones behind those before
    }
    PRedBlackNode node = CreateNode(parent, value);
    if (parent == nullptr) {
        fRoot = node;
    } else {
        Child(parent, last >= 0) = node;
    }
    ++fCount;
    if (fBalanced) InsertFixup(node);
}

void TRedBlackTree::Remove(void* value) {
    if (PRedBlackNode node = Search(value)) Delete(node);
}

void TRedBlackTree::Delete(PRedBlackNode node) noexcept {
    if (node == nullptr || node == TRedBlackNode::Nil()) return;
    assert(!fBalanced || RootOf(node) == fRoot);  // of this tree; dear when there may be a chain
    const bool hasTwo = node->Left != TRedBlackNode::Nil() && node->Right != TRedBlackNode::Nil();
    PRedBlackNode gone = hasTwo ? FirstNode(node->Right) : node;
    PRedBlackNode below = gone->Left != TRedBlackNode::Nil() ? gone->Left : gone->Right;
    // Also when that is the sentinel: the repair walks up from it.
    below->Parent = gone->Parent;
    Replace(gone, below);
    // QUIRK: only the value moves, so `node` stays, and what is released below with the other node
    // is, in an owning tree, the very value that `node` holds now; the value deleted is not freed.
    // Owning trees may have only nodes with at most one child deleted. Hosts rely on which of the
    // two nodes stays.
    if (gone != node) node->Value = gone->Value;
    if (fBalanced && gone->Color == ncBlack) DeleteFixup(below);
    DeleteNode(gone, false);
    --fCount;
}

void TRedBlackTree::Handle(TBinaryTreeHandler handler) const {
    if (!handler) return;
    for (PRedBlackNode node : *this) handler(node);
}

PRedBlackNode TRedBlackTree::CreateNode(PRedBlackNode parent, void* value) {
    if (fCount == std::numeric_limits<std::int32_t>::max()) throw std::bad_alloc();
    return new (fNodes->Allocate())
        TRedBlackNode{parent, TRedBlackNode::Nil(), TRedBlackNode::Nil(), ncRed, value};
}

void TRedBlackTree::DeleteNode(PRedBlackNode& node, bool recursive) noexcept {
    if (node == nullptr || node == TRedBlackNode::Nil()) return;
    if (recursive) {
        ReleaseNodes(node, [this](PRedBlackNode each) { FreeNode(each); });
    } else {
        FreeNode(node);
    }
    node = TRedBlackNode::Nil();
}

void TRedBlackTree::FreeNode(PRedBlackNode node) noexcept {
    if (fOwns) FreeValue(node->Value);
    fNodes->Free(node);
}

// Whatever linked to the node links to the other one.
void TRedBlackTree::Replace(const TRedBlackNode* node, PRedBlackNode by) noexcept {
    PRedBlackNode parent = node->Parent;
    if (parent == nullptr) {
        fRoot = by;
    } else {
        Child(parent, node == parent->Right) = by;
    }
}

void TRedBlackTree::Rotate(PRedBlackNode node, bool right) noexcept {
    PRedBlackNode raised = Child(node, !right);
    if (raised == TRedBlackNode::Nil()) return;
    PRedBlackNode moved = Child(raised, right);
    Child(node, !right) = moved;
    // The sentinel's Parent is what a deletion goes by just now: it is not this one's to write.
    if (moved != TRedBlackNode::Nil()) moved->Parent = node;
    raised->Parent = node->Parent;
    Replace(node, raised);
    Child(raised, right) = node;
    node->Parent = raised;
}

// The only fault there may be is that of two red nodes, `node` and its parent. Each round mends
// it or moves it two steps up.
void TRedBlackTree::InsertFixup(PRedBlackNode node) noexcept {
    while (node != fRoot && node->Parent->Color == ncRed) {
        PRedBlackNode parent = node->Parent;
        PRedBlackNode grand = parent->Parent;
        if (grand == nullptr) break;  // a red root only wants its colour
        const bool side = parent == grand->Right ? Rightward : Leftward;
        PRedBlackNode uncle = Child(grand, !side);
        if (uncle->Color == ncRed) {
            parent->Color = ncBlack;
            uncle->Color = ncBlack;
            grand->Color = ncRed;
            node = grand;
            continue;
        }
        if (node == Child(parent, !side)) {
            Rotate(parent, side);  // the inner grandchild becomes the outer one's parent
            std::swap(node, parent);
        }
        parent->Color = ncBlack;
        grand->Color = ncRed;
        Rotate(grand, !side);
    }
    fRoot->Color = ncBlack;
}

// Ways through `node`, which may be the sentinel, lack one black node. Each round mends that or
// moves it one step up.
void TRedBlackTree::DeleteFixup(PRedBlackNode node) noexcept {
    while (node != fRoot && node->Color == ncBlack) {
        PRedBlackNode parent = node->Parent;
        const bool side = node == parent->Right ? Rightward : Leftward;
        PRedBlackNode sibling = Child(parent, !side);
        if (sibling->Color == ncRed) {
            sibling->Color = ncBlack;
            parent->Color = ncRed;
            Rotate(parent, side);
            sibling = Child(parent, !side);
        }
        assert(sibling != TRedBlackNode::Nil());  // else this was no red-black tree
        if (sibling->Left->Color == ncBlack && sibling->Right->Color == ncBlack) {
            sibling->Color = ncRed;
            node = parent;
            continue;
        }
        if (Child(sibling, !side)->Color == ncBlack) {
            Child(sibling, side)->Color = ncBlack;
            sibling->Color = ncRed;
            Rotate(sibling, !side);
            sibling = Child(parent, !side);
        }
        sibling->Color = parent->Color;
        parent->Color = ncBlack;
        Child(sibling, !side)->Color = ncBlack;
        Rotate(parent, side);
        node = fRoot;
    }
    node->Color = ncBlack;
}

bool TRedBlackTree::IsConsistent() const noexcept {
    const TRedBlackNode* const nil = TRedBlackNode::Nil();
    if (nil->Left != nil || nil->Right != nil || nil->Color != ncBlack || nil->Value != nullptr) {
        return false;
    }
    std::int32_t blackHeight = -1;
    const auto coloured = [&](const TRedBlackNode* node) {
        if (!fBalanced) return true;
        if (node->Color == ncRed) {
            if (node == fRoot || node->Left->Color == ncRed || node->Right->Color == ncRed) {
                return false;
            }
        }
        if (node->Left != nil && node->Right != nil) return true;
        std::int32_t blacks = 0;  // on the way that ends here
        for (const TRedBlackNode* up = node; up != nullptr; up = up->Parent) {
            if (up->Color == ncBlack) ++blacks;
        }
        if (blackHeight < 0) blackHeight = blacks;
        return blacks == blackHeight;
    };
    return NodesHold<TRedBlackNode>(fRoot, fCount, coloured);
}

}  // namespace kds
