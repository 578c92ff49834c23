// Sorted set or multiset of untyped pointers: a red-black tree whose balancing can be turned off.
//
// Shape      In order the values ascend by Compare; equal ones, where they are accepted, in the
//            order in which they came. Missing children are one sentinel that every tree of the
//            process shares: black, its own child on both sides. Balanced: the root is black, a red
//            node has no red child, and every way down passes as many black nodes.
// Ownership  Owns its nodes; the values only when made to own them. See the QUIRK of Delete.
// Errors     EListError for a value that is there already (dupError) and for balancing a tree that
//            has grown unbalanced; what Compare raises. std::bad_alloc when memory runs out.
//            Whatever is raised leaves the tree as it was. A comparison that contradicts itself
//            puts values in places where they may not be found again, nothing worse.
// Cost       Search, Insert, Remove, Delete O(log n), O(n) when not balanced. Walking, Clear O(n).
//            Nothing recurses. 40 bytes a value.
// Validity   Delete of a node with two children takes the next value over into that node and frees
//            the next value's node: only that one becomes invalid, this one holds another value.
//            A node must be this tree's.
// Threads    One thread at a time for all trees of the process together: deletions write the
//            sentinel that they share.
#pragma once

#include <cstdint>
#include <iterator>
#include <memory>

#include "kds/containers/Binarytree.h"
#include "kds/util/Slab.h"

namespace kds {

enum class TRedBlackNodeColor : std::uint8_t { ncBlack, ncRed };
using enum TRedBlackNodeColor;

// What Insert does with a value that compares equal to one that is there.
enum class TDuplicates : std::uint8_t { dupIgnore, dupAccept, dupError };
using enum TDuplicates;

struct TRedBlackNode;
using PRedBlackNode = TRedBlackNode*;

struct TRedBlackNode {
    PRedBlackNode Parent;
    PRedBlackNode Left;
    PRedBlackNode Right;
    TRedBlackNodeColor Color;
    void* Value;

    static TRedBlackNode Sentinel;
    [[nodiscard]] static PRedBlackNode Nil() noexcept { return &Sentinel; }
};
static_assert(sizeof(TRedBlackNode) == 5 * sizeof(void*));

class TRedBlackTree : public TBinaryTree {
public:
    using TIterator = TTreeIterator<TRedBlackNode>;

    explicit TRedBlackTree(bool owns = false);
    ~TRedBlackTree() override { TRedBlackTree::Clear(); }

    [[nodiscard]] std::int32_t GetCount() const noexcept override { return fCount; }
    void Clear() noexcept override;

    [[nodiscard]] bool Balanced() const noexcept { return fBalanced; }
    // Off at any time, on again only when the tree is empty.
    void SetBalanced(bool value);
    [[nodiscard]] TDuplicates Duplicates() const noexcept { return fDuplicates; }
    // Duplicates that are there stay.
    void SetDuplicates(TDuplicates value) noexcept { fDuplicates = value; }

    // A node whose value compares equal, nullptr when there is none.
    [[nodiscard]] PRedBlackNode Search(void* value) const;
    void Insert(void* value);
    void Remove(void* value);  // the value that Search finds, if any
    // nullptr and the sentinel are ignored.
    void Delete(PRedBlackNode node) noexcept;
    // In order. The handler must not change the tree.
    void Handle(TBinaryTreeHandler handler) const;

    // The sentinel when the tree is empty.
    [[nodiscard]] PRedBlackNode Root() const noexcept { return fRoot; }
    // Over the nodes, in order.
    [[nodiscard]] TIterator begin() const noexcept { return {&fRoot, FirstNode(fRoot)}; }
    [[nodiscard]] TIterator end() const noexcept { return {&fRoot, nullptr}; }
    [[nodiscard]] auto rbegin() const noexcept { return std::reverse_iterator(end()); }
    [[nodiscard]] auto rend() const noexcept { return std::reverse_iterator(begin()); }

    // Whether links, count and, when balanced, colours agree with Shape. Walks everything, and
    // compares nothing.
    [[nodiscard]] bool IsConsistent() const noexcept;

protected:
    // A red node without children, not yet linked to.
    [[nodiscard]] PRedBlackNode CreateNode(PRedBlackNode parent, void* value);
    // Frees a node, with its value when the tree owns values, and sets the variable to the
    // sentinel; recursive: with everything below it.
    void DeleteNode(PRedBlackNode& node, bool recursive) noexcept;
    // The child on the other side takes the node's place, and the node becomes its child. Nothing
    // happens when there is no such child.
    void RotateLeft(PRedBlackNode node) noexcept { Rotate(node, false); }
    void RotateRight(PRedBlackNode node) noexcept { Rotate(node, true); }
    void InsertFixup(PRedBlackNode node) noexcept;
    void DeleteFixup(PRedBlackNode node) noexcept;

    bool fBalanced = true;
    TDuplicates fDuplicates = dupError;
    std::int32_t fCount = 0;
    PRedBlackNode fRoot = TRedBlackNode::Nil();

private:
    void Rotate(PRedBlackNode node, bool right) noexcept;
    void Replace(const TRedBlackNode* node, PRedBlackNode by) noexcept;
    void FreeNode(PRedBlackNode node) noexcept;

    std::unique_ptr<TSlab, TSlabDeleter> fNodes;
};

}  // namespace kds
