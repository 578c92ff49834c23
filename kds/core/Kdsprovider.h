// The values of a table's rows, as expressions read them.
//
// Shape      Answers for the name of a column its index, and for an index the value in the current
//            record. Plain stored columns are also read straight from the record's buffer.
// Ownership  Borrows the columns and the record. Belongs to who made it; the evaluator compiled
//            with it shares it.
// Errors     What reading a value raises.
// Validity   Indexes hold until a column is added, deleted or moved.
// Threads    As the table.
#pragma once

#include "kds/core/Kdscolumns.h"
#include "kds/core/Kdsrecords.h"
#include "kds/expr/Expressions.h"

namespace kds {

class TKdsProvider final : public IExpressionProvider, public ITypedExpressionProvider {
public:
    explicit TKdsProvider(TKdsTableColumnList* columns) noexcept : fColumns(columns) {}
    // The record of the reads to come, with its values of now; nullptr between records.
    void Position(TKdsRecord* record) noexcept { SetPosition({record, erCurrent}); }

    void SetPosition(TExprPosition position) noexcept override { fPosition = position; }
    [[nodiscard]] bool Contains(std::u16string_view name, std::int32_t& index) override;
    [[nodiscard]] TVariant Evaluate(std::int32_t index) override;
    [[nodiscard]] TExprColumn Describe(std::int32_t index) override;
    void Fetch(TExprPosition position, std::int32_t index, TExprTarget& target) override;
    [[nodiscard]] const std::byte* Buffer(TExprPosition position) override;

private:
    TKdsTableColumnList* fColumns;
    TExprPosition fPosition;
    TKdsScratch fScratch;
};

// The evaluator of this text over the columns; EKdsParseError.
[[nodiscard]] TIntf<IExpressionEvaluator> CompileExpression(TKdsTableColumnList* columns,
                                                            std::u16string_view text);

}  // namespace kds
