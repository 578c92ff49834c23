// Columns that are calculated by expressions: how these are compiled, and in which order they are
// calculated.
#include "kds/core/Kdscolumns.h"

#include <algorithm>

#include "kds/core/Kdsprovider.h"
#include "kds/core/Kdstables.h"
#include "kds/expr/Exprerrors.h"

namespace kds {

void TKdsColumn::SetExpression(std::u16string_view value) {
    if (value == fExpression) return;
    TKdsTable* const table = Table();
    TKdsAttributes attributes = fAttributes;
    TIntf<IExpressionEvaluator> evaluator;
    std::uint32_t layout = 0;
    if (!value.empty()) {
        attributes.Include(caCalculated);
        CheckAttributes(attributes, fLookupKind);
        if (table != nullptr) {
            evaluator = CompileIn(table->Columns(), value);
            table->Columns()->CheckCircle(this, *evaluator);
            layout = table->Layout().Version();
        }
    }
    std::u16string text(value);
    Change(attributes != fAttributes, [&] {
        fAttributes = attributes;
        fExpression.swap(text);
        DropEvaluator();
        fEvaluator = std::move(evaluator);
        fEvaluatorLayout = layout;
    });
}

TIntf<IExpressionEvaluator> TKdsColumn::CompileIn(TKdsTableColumnList* list,
                                                  std::u16string_view text) const {
    TIntf<IExpressionEvaluator> evaluator = CompileExpression(list, text);
    evaluator->SetName(Name());
    return evaluator;
}

// A text that no longer compiles leaves the column null and is told when a view is built that
// reads it; without memory for it the next use tries again.
void TKdsColumn::CompileAnew(TKdsTableColumnList* list) {
    if (fExpression.empty() || fEvaluatorLayout == list->Layout().Version()) return;
    DropEvaluator();
    try {
        fEvaluator = CompileIn(list, fExpression);
    } catch (const EKdsParseError&) {
        fExpressionError = std::current_exception();
    }
    fEvaluatorLayout = list->Layout().Version();
}

void TKdsColumn::GiveUpExpression() {
    fEvaluator = nullptr;
    fExpressionError = std::make_exception_ptr(EKdsParseError(
        Format(ParserMessageText(u"CircularReference"), {Name()}), u"CircularReference", {}));
}

void TKdsColumn::DropEvaluator() noexcept {
    fEvaluator = nullptr;
    fEvaluatorLayout = 0;
    fExpressionError = nullptr;
}

IExpressionEvaluator* TKdsColumn::Evaluator() const {
    TKdsTable* const table = Table();
    if (table == nullptr || !Calculated()) return nullptr;
    table->Columns()->PrepareExpressions();
    return fEvaluator.Get();
}

const std::exception_ptr& TKdsColumn::ExpressionError() const {
    if (TKdsTable* const table = Table()) table->Columns()->PrepareExpressions();
    return fExpressionError;
}

// ---- The order of calculation -------------------------------------------------------------

// The columns of the same row that reading this one reads at once. What a reference shows depends
// on the key beside it.
std::vector<TKdsColumn*> TKdsTableColumnList::SameRowReads(const TKdsColumn* column) const {
    std::vector<TKdsColumn*> reads;
    if (column->Calculated() && column->fEvaluator) {
        for (const std::int32_t index : column->fEvaluator->Columns()) {
            reads.push_back(GetItem(index));
        }
    } else if (column->fSourceField != nullptr) {
        reads.push_back(column->fSourceField);
    }
    return reads;
}

// With this evaluator the column must not read itself. No other circle can come to be.
void TKdsTableColumnList::CheckCircle(const TKdsColumn* column,
                                      const IExpressionEvaluator& evaluator) const {
    fTable->Columns()->PrepareExpressions();
    std::vector<const TKdsColumn*> read;
    for (const std::int32_t index : evaluator.Columns()) read.push_back(GetItem(index));
    for (std::size_t i = 0; i < read.size(); ++i) {
        if (read[i] == column) ParserError(u"CircularReference", {column->Name()});
        for (const TKdsColumn* const next : SameRowReads(read[i])) {
            if (std::ranges::find(read, next) == read.end()) read.push_back(next);
        }
    }
}

// A walk into the depth: white columns are not seen yet, grey ones lie on the way to where it is,
// black ones are done. A grey one that is met again reads itself, which only columns that got other
// names can bring about; its expression is then given up. On a stack of its own: chains may be
// long.
void TKdsTableColumnList::MakeExpressions() {
    for (TKdsColumn* const column : *this) column->CompileAnew(this);
    enum class TShade : std::uint8_t { White, Grey, Black };
    struct TStep {
        TKdsColumn* Column;
        std::vector<TKdsColumn*> Reads;
    };
    std::vector<TShade> shades(static_cast<std::size_t>(fCount), TShade::White);
    const auto shade = [&](const TKdsColumn* column) -> TShade& {
        return shades[static_cast<std::size_t>(column->Index())];
    };
    std::vector<TKdsColumn*> order;
    std::vector<TStep> way;
    const auto enter = [&](TKdsColumn* column) {
        way.push_back({column, SameRowReads(column)});
        std::ranges::reverse(way.back().Reads);  // taken from the back
        shade(column) = TShade::Grey;
    };
    for (TKdsColumn* const first : *this) {
        if (shade(first) == TShade::White) enter(first);
        while (!way.empty()) {
            TStep& step = way.back();
            if (step.Reads.empty()) {
                TKdsColumn* const done = step.Column;
                shade(done) = TShade::Black;
                if (done->Calculated() && !done->CalculatesOnRead()) order.push_back(done);
                way.pop_back();
                continue;
            }
            TKdsColumn* const next = step.Reads.back();
            step.Reads.pop_back();
            if (shade(next) == TShade::White) {
                enter(next);
            } else if (shade(next) == TShade::Grey) {
                // On the way round there is an expression: keys alone lead to no circle in a row.
                auto on = way.rbegin();
                while (!on->Column->fEvaluator) ++on;
                on->Column->GiveUpExpression();
            }
        }
    }
    fCalculationOrder = std::move(order);
    fExpressionsReady = true;
}

// A column has got other properties. Who was compiled by them is compiled anew, and what is
// calculated by it may read differently now.
void TKdsTableColumnList::ExpressionsChanged(const TKdsColumn* column) noexcept {
    for (TKdsColumn* const reader : *this) {
        bool concerns = reader->fExpressionError != nullptr;  // another try
        if (reader->fEvaluator && reader->fEvaluatorLayout == fLayout.Version()) {
            const auto read = reader->fEvaluator->Columns();
            concerns = std::ranges::find(read, column->Index()) != read.end();
        }
        if (concerns) reader->fEvaluatorLayout = 0;
    }
    fExpressionsReady = false;
    if (column->Calculated() || column->LooksUp()) fTable->SourcesChanged();
}

std::vector<TKdsColumn*> ColumnsReadBy(std::vector<TKdsColumn*> columns) {
    const auto add = [&](TKdsColumn* column) {
        if (column != nullptr && std::ranges::find(columns, column) == columns.end()) {
            columns.push_back(column);
        }
    };
    for (std::size_t i = 0; i < columns.size(); ++i) {
        const TKdsColumn* const column = columns[i];
        if (column->LooksUp()) {
            add(column->Shown());
            if (!column->IsVirtual()) add(column->SourceField());
        }
        if (!column->CalculatesOnRead()) continue;
        const IExpressionEvaluator* const evaluator = column->Evaluator();
        if (evaluator == nullptr) continue;
        const TKdsTableColumnList* const list = column->Table()->Columns();
        for (const std::int32_t index : evaluator->Columns()) add(list->GetItem(index));
    }
    return columns;
}

}  // namespace kds
