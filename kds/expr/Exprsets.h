// A set of constants for IN and for chains of OR: one probe instead of one comparison each.
//
// Shape      Open addressing over values in a normal form of the kind of the left side, or bits
//            for integers that lie close together; constants
//            that no value of that kind equals are left out. All constants are also kept as they
//            came, for a left side whose value turns out to be of another kind.
// Cost       O(1) a probe.
// Threads    Read only once it is built.
#pragma once

#include <cstdint>
#include <vector>

#include "kds/expr/Exprops.h"

namespace kds {

class TExprSet {
public:
    TExprSet(TExprKind kind, TExprCollation collation) : fKind(kind), fCollation(collation) {}
    // Whether `value` may be a member beside left sides of this kind.
    [[nodiscard]] static bool Takes(TExprKind kind, const TExprSlot& value) noexcept;

    void Add(const TExprSlot& value);
    void Build();
    // A boolean, or null when the value is null, or when it is not in and the set holds null.
    [[nodiscard]] TExprSlot Contains(const TExprSlot& value) const;

private:
    [[nodiscard]] TExprSlot Normal(const TExprSlot& value) const noexcept;
    [[nodiscard]] std::uint64_t Hash(const TExprSlot& normal) const noexcept;
    [[nodiscard]] bool Same(const TExprSlot& a, const TExprSlot& b) const;
    [[nodiscard]] bool BuildBits();
    [[nodiscard]] bool Probe(const TExprSlot& normal) const;
    [[nodiscard]] bool Search(const TExprSlot& value) const;

    TExprKind fKind;
    TExprCollation fCollation;
    bool fHasNull = false;
    std::vector<TExprSlot> fValues;
    std::vector<TExprSlot> fTable;  // null: free
    std::uint64_t fMask = 0;
    // Integers that lie close together are bits instead, counted from the smallest.
    std::vector<std::uint64_t> fBits;
    std::int64_t fFirst = 0;
    std::uint64_t fRange = 0;
};

}  // namespace kds
