// Sequence of untyped pointers ordered by position alone, in which a known node tells its position:
// a treap whose keys are the positions themselves.
//
// Shape      In order the nodes are the sequence. Count is the size of a node's subtree. No child
//            has more Weight than its parent; weights are drawn, so the height is logarithmic.
//            Missing children are nullptr, as is an empty tree's root.
// Units      Positions and counts are elements: signed 32-bit, counted from 0.
// Ownership  Owns its nodes; the values only when made to own them. The comparison of the base is
//            not used.
// Errors     EListError for a position out of range, which changes nothing; -1 is the position of
//            nullptr. std::bad_alloc when memory runs out, which leaves the tree as it was.
// Cost       Expected O(log n) for Insert, Delete, ByIndex, ValueOf and IndexOf; O(1) when ByIndex
//            is asked for the position, or IndexOf for the node, that it was asked for last.
//            Walking, Clear O(n). Nothing recurses. 40 bytes a value.
// Validity   A node is good until it is deleted itself. A node must be this tree's.
// Threads    One thread at a time, for reading too: lookups write their caches. Making a tree
//            reseeds the generator of the process, which other threads may go on using.
#pragma once

#include <cstdint>
#include <iterator>
#include <memory>

#include "kds/containers/Binarytree.h"
#include "kds/util/Slab.h"

namespace kds {

struct TCartesianNode;
using PCartesianNode = TCartesianNode*;

struct TCartesianNode {
    PCartesianNode Parent;
    PCartesianNode Left;
    PCartesianNode Right;
    std::int32_t Weight;
    std::int32_t Count;
    void* Value;

    [[nodiscard]] static PCartesianNode Nil() noexcept { return nullptr; }
};
static_assert(sizeof(TCartesianNode) == 5 * sizeof(void*));

class TCartesianTree : public TBinaryTree {
public:
    using TIterator = TTreeIterator<TCartesianNode>;

    explicit TCartesianTree(bool owns = false);
    ~TCartesianTree() override { TCartesianTree::Clear(); }

    [[nodiscard]] std::int32_t GetCount() const noexcept override { return fCount; }
    void Clear() noexcept override;

    // The value becomes element `index`, 0 to GetCount.
    PCartesianNode Insert(std::int32_t index, void* value);
    // Sees to it that the next Insert needs no memory.
    void Reserve() { fNodes->Reserve(); }
    // Answers the value; that of an owning tree has ended and is only a number any more.
    void* Delete(std::int32_t index);
    [[nodiscard]] PCartesianNode ByIndex(std::int32_t index) const;
    [[nodiscard]] void* ValueOf(std::int32_t index) const;
    [[nodiscard]] std::int32_t IndexOf(const TCartesianNode* node) const noexcept;
    // Size of the subtree, 0 for nullptr.
    [[nodiscard]] static std::int32_t CountOf(const TCartesianNode* node) noexcept {
        return node == nullptr ? 0 : node->Count;
    }
    // In order. The handler must not change the tree.
    void Handle(TBinaryTreeHandler handler) const;

    [[nodiscard]] PCartesianNode Root() const noexcept { return fRoot; }
    // Over the nodes, in order.
    [[nodiscard]] TIterator begin() const noexcept { return {&fRoot, FirstNode(fRoot)}; }
    [[nodiscard]] TIterator end() const noexcept { return {&fRoot, nullptr}; }
    [[nodiscard]] auto rbegin() const noexcept { return std::reverse_iterator(end()); }
    [[nodiscard]] auto rend() const noexcept { return std::reverse_iterator(begin()); }

    // Whether links, counts, weights and caches agree with Shape. Walks everything.
    [[nodiscard]] bool IsConsistent() const noexcept;

protected:
    // A node of its own, not linked.
    [[nodiscard]] PCartesianNode CreateNode(std::int32_t weight, void* value);
    // Frees a node, with its value when the tree owns values, and sets the variable to nullptr;
    // recursive: with everything below it.
    void DeleteNode(PCartesianNode& node, bool recursive) noexcept;
    static void Update(PCartesianNode node) noexcept {
        node->Count = CountOf(node->Left) + CountOf(node->Right) + 1;
    }
    // The first `count` elements of the subtree and the rest of them. The tops of both keep the
    // Parent that they had.
    static void Split(PCartesianNode node, std::int32_t count, PCartesianNode& left,
                      PCartesianNode& right) noexcept;
    // All elements of `left` before all of `right`; of equal weights the right one goes on top.
    // When either is missing, the other is the answer and keeps its Parent; else the answer has
    // none.
    [[nodiscard]] static PCartesianNode Merge(PCartesianNode left, PCartesianNode right) noexcept;
    // Puts a single node in as element `index`, by its weight; takes element `index` out. Neither
    // touches fCount or the caches.
    void Link(PCartesianNode node, std::int32_t index) noexcept;
    [[nodiscard]] PCartesianNode Unlink(std::int32_t index) noexcept;
    void InvalidateCache() noexcept {
        CacheIndexOfValid = false;
        CacheByIndexValid = false;
    }

    PCartesianNode fRoot = nullptr;
    std::int32_t fCount = 0;
    mutable bool CacheIndexOfValid = false;
    mutable std::int32_t CacheIndexOfIndex = 0;
    mutable const TCartesianNode* CacheIndexOfValue = nullptr;
    mutable bool CacheByIndexValid = false;
    mutable std::int32_t CacheByIndexIndex = 0;
    mutable PCartesianNode CacheByIndexValue = nullptr;

private:
    [[nodiscard]] bool InRange(std::int32_t index) const noexcept {
        // One comparison: a negative position becomes a huge one.
        return static_cast<std::uint32_t>(index) < static_cast<std::uint32_t>(fCount);
    }
    void FreeNode(PCartesianNode node) noexcept;

    std::unique_ptr<TSlab, TSlabDeleter> fNodes;
};

}  // namespace kds
