// How a view is built.
#include "kds/views/Kdsviews.h"

#include <algorithm>

#include "kds/core/Kdserrors.h"
#include "kds/platform/Clock.h"
#include "kds/views/Kdschangefeeds.h"
#include "kds/views/Kdsviewlists.h"

namespace kds {

void TKdsView::Prepare() {
    if (fTable->IsBusy()) KdsError(u"RecordStateInvalid");
    const std::int64_t start = QueryPerformanceCounter();
    fAsleep = false;
    fReadsOthers = false;
    fLastRow = nullptr;
    std::vector<TKdsColumn*> madeNotNull;
    TScopeGuard fail([&] {
        fRebuilds = false;
        fDistinct = false;
        fLastRow = nullptr;
        fTable->ViewsChanged();
        fStorage->Clear();
        SetNullability(madeNotNull, true);
    });
    const TExpressionScope clock;  // one time for all rows
    if (!fLocking.Has(vlFilters) || !fEvaluator) {
        CompileFilter();
        fFilterErrors = 0;
        fFilterError = nullptr;
    }
    if (!fLocking.Has(vlOrderBy)) ParseOrder(madeNotNull);
    CheckExpressions();
    TKdsIndexMatch match = imNothing;
    TKdsView* const source = ReusableView(match);
    const bool keepsRows = fLocking.Has(vlFilters) && source == nullptr && fSorting == omOrder;
    std::int64_t filtered = 0;
    bool distinct = false;
    {
        TKdsBusyScope busy(fTable);
        fRebuilds = true;
        bool sorts = fSorting == omOrder || fOnCompare;
        if (source == nullptr && fSorting == omRowID && fTable->Records()->Order() == rloMixed) {
            sorts = true;
        }
        if (!keepsRows && source == nullptr && !HasTests() && !fTable->Columns()->LooksUp()) {
            distinct = TakeAll(sorts, filtered);
            sorts = false;
        } else {
            if (!keepsRows) Fill(source, match);
            filtered = QueryPerformanceCounter();
        }
        if (source != nullptr) {
            sorts = fColumns->Count() != source->fColumns->Count() || fOnCompare;
            // Backwards, equal keys and nulls stand in the wrong order.
            // Nor is what is calculated read once more to find that out.
            if (!sorts && match == imReverse) sorts = !Plan().IsPlain() || !IsInOrder({coUseRowID});
        }
        fReadsOthers = false;  // now the rows are placed by what is there now
        if (fTable->Columns()->LooksUp()) {
            fSourcesShape = fTable->Shape();
            fSources = Sources();
            if (!fSources.empty()) RepairKeys();
        }
        if (sorts && Count() > 1) SortRows(fLocking.Has(vlFilters) || source != nullptr);
        if (distinct) fDistinct = true;
        if (Unique() && !distinct) CheckDistinct();
        fRebuilds = false;
        fStorage->Prepared();
    }
    fail.Dismiss();
    fReadsOthers = fTable->Columns()->LooksUp() && !fSources.empty();
    if (fChanges != nullptr) fChanges->Rebuilt();
    fTable->ViewsChanged();
    const std::int64_t end = QueryPerformanceCounter();
    fStats.UpdateTime = Now();
    ++fStats.UpdateCount;
    fStats.LastFilter = filtered - start;
    fStats.LastSort = end - filtered;
    fStats.LastUpdate = end - start;
    fStats.TotalUpdate += fStats.LastUpdate;
}

// Lets go of the rows: while a view is not built it does not hear of their end. Only a view that
// is about to sort the same rows anew keeps them.
void TKdsView::Dismiss() {
    fLastRow = nullptr;
    if (fChanges != nullptr) fChanges->Rebuilt();
    const bool comesBack = fTable != nullptr && fTable->Views()->Active() && fActive;
    if (!fLocking.Has(vlFilters) || !comesBack) {
        fStorage->Clear();
        fEvaluator = nullptr;
        fLocking.Set(vlFilters, false);  // whoever is about to build it has no rows to go by
    }
    fStorage->InvalidateCache();
}

// A column that does not compile any more is told of here.
void TKdsView::CheckExpressions() {
    fReads.clear();
    if (!fTable->Columns()->Occurences().HasAny({coExpression, coReference, coVirtualKey})) return;
    fColumns->CheckPredictable();
    const std::vector<TKdsColumn*> read = ColumnsRead();
    for (const TKdsColumn* const column : read) {
        if (column->ExpressionError()) std::rethrow_exception(column->ExpressionError());
    }
    fReads.assign(read.begin(), read.end());
}

// `madeNotNull` are the columns that this changes, also when it raises on the way.
void TKdsView::ParseOrder(std::vector<TKdsColumn*>& madeNotNull) {
    fSorting = fOrderBy.empty() ? omRowID : omOrder;
    fColumns->Parse(fTable, fOrderBy);
    if (!fOptions.HasAny({voUnique, voPrimary})) return;
    if (fColumns->Count() == 0) KdsError(u"InvalidUniqueKey");
    for (TKdsColumn* const column : *fColumns) {
        if (column->Attributes().Has(caAutoInc) || !column->AllowNull()) continue;
        madeNotNull.push_back(column);
    }
    SetNullability(madeNotNull, false);
}

void TKdsView::SetNullability(const std::vector<TKdsColumn*>& columns, bool value) {
    if (!value) fTable->ReserveEvents(2 * columns.size());  // there and back again
    ++fTable->fPreparing;
    TScopeGuard prepared([&] { --fTable->fPreparing; });
    TFirstError errors;
    for (TKdsColumn* const column : columns) {
        errors.Run([&] { column->SetAllowNull(value); });
    }
    if (!value) errors.Rethrow();
}

// The default view, when its rows stand in an order that serves and all of them are there.
TKdsView* TKdsView::ReusableView(TKdsIndexMatch& match) {
    match = imNothing;
    if (fSorting != omOrder || fTable->HasFilters()) return nullptr;
    TKdsView* source = nullptr;
    try {
        source = fTable->GetDefaultView(0);
    } catch (...) {
        return nullptr;  // it cannot be built; that is no reason not to build this one
    }
    if (source == nullptr || source == this || !source->fActual || source->fRebuilds)
        return nullptr;
    match = source->Suites(fColumns.get(), fColumns->Count(), {}, {});
    return match == imNothing ? nullptr : source;
}

void TKdsView::Fill(TKdsView* source, TKdsIndexMatch match) {
    fStorage->Clear();
    const auto take = [&](TKdsRecord* record) {
        if (!HasTests() || Accept(record)) fStorage->Append(record);
    };
    if (source == nullptr) {
        for (TKdsRecord* const record : *fTable->Records()) take(record);
    } else if (match == imDirect) {
        for (TKdsRecord* const record : *source) take(record);
    } else {
        for (std::int32_t i = source->Count() - 1; i >= 0; --i) take(source->ItemAt(i));
    }
}

// What needs neither test nor repair is sorted before the storage has it.
bool TKdsView::TakeAll(bool sorts, std::int64_t& filtered) {
    fStorage->Clear();
    std::vector<void*> rows;
    rows.reserve(static_cast<std::size_t>(fTable->Records()->Count()));
    for (TKdsRecord* const record : *fTable->Records()) rows.push_back(record);
    filtered = QueryPerformanceCounter();
    return fStorage->Build(std::move(rows), sorts && rows.size() > 1);
}

void TKdsView::SortRows(bool force) { fStorage->Sort({coUseRowID}, force); }

bool TKdsView::IsInOrder(TKdsCompareOptions options) {
    for (std::int32_t i = 1; i < Count(); ++i) {
        if (CompareMembers(ItemAt(i - 1), ItemAt(i), options) > 0) return false;
    }
    return true;
}

void TKdsView::CheckDistinct() {
    std::vector<TKdsRecord*> rows(begin(), end());
    const auto byKey = [&](TKdsRecord* a, TKdsRecord* b) {
        return OrderRecords(a, TKdsReading::Posted, b, TKdsReading::Posted, fColumns.get(), -1, {});
    };
    // In a custom order equal keys need not be neighbours.
    if (fOnCompare) {
        std::ranges::sort(rows, [&](TKdsRecord* a, TKdsRecord* b) { return byKey(a, b) < 0; });
    }
    const bool plain = ReadsBuffers();
    for (std::size_t i = 1; i < rows.size(); ++i) {
        const std::int32_t order =
            plain ? Plan().Compare(rows[i - 1]->PostedBuffer(), rows[i]->PostedBuffer(),
                                   fColumns->Count(), {})
                  : byKey(rows[i - 1], rows[i]);
        if (order == 0) KdsError(u"DuplicateRecords", {Name()});
    }
    fDistinct = true;
}

bool TKdsView::IsConsistent() {
    Freshen();  // what has changed in other tables may wait
    if (!fActual) return true;
    if (!fStorage->IsConsistent()) return false;
    if (fLastRow != nullptr && (Count() == 0 || ItemAt(Count() - 1) != fLastRow)) return false;
    const bool ordered = fSorting == omOrder || fOnCompare;
    if (ordered && !IsInOrder({coUseRowID})) return false;
    for (TKdsRecord* const record : *this) {
        if (record->Owner() != fTable->Records()) return false;
    }
    return true;
}

}  // namespace kds
