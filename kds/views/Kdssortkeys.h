// Copies of the keys of rows whose order is calculated, looked up or read from a file, so that a
// sort reads each value once instead of with every comparison.
//
// Shape      A block for each row, laid out like a record of nothing but the order's columns; texts
//            lie behind handles. A plan compares the blocks as it compares stored values.
// Ownership  Owns the blocks and the texts; borrows the order's columns.
// Errors     What reading a value raises, but for expressions: what these cannot calculate is null.
// Cost       One read for each row and column; memory for as many values.
// Threads    Filled on one thread; the blocks may be compared on several.
#pragma once

#include <cstddef>
#include <vector>

#include "kds/core/Kdslayout.h"
#include "kds/platform/Ansistring.h"
#include "kds/views/Kdsorders.h"

namespace kds {

class TKdsSortKeys {
public:
    explicit TKdsSortKeys(const TKdsOrderColumnList& columns);
    // Whether blocks can stand for these columns: values that compare themselves stay where they
    // are.
    [[nodiscard]] static bool CanCopy(const TKdsOrderColumnList& columns);
    // False, and the keys are of no use, when a value has another type than its column shows.
    [[nodiscard]] bool Read(const std::vector<void*>& records);
    [[nodiscard]] const TKdsOrderPlan& Plan() const noexcept { return fPlan; }
    [[nodiscard]] const std::byte* Key(std::size_t row) const noexcept {
        return fBlocks.data() + row * fStride;
    }

private:
    bool Take(TKdsRecord* record, std::byte* block);

    const TKdsOrderColumnList& fColumns;
    TKdsLayout fLayout;
    TKdsOrderPlan fPlan;
    std::size_t fStride = 0;
    std::vector<std::byte> fBlocks;
    std::vector<TAnsiString> fTexts;
    TKdsScratch fScratch;
};

}  // namespace kds
