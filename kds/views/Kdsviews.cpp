#include "kds/views/Kdsviews.h"

#include <algorithm>

#include "kds/core/Kdserrors.h"
#include "kds/platform/Clock.h"
#include "kds/views/Kdschangefeeds.h"
#include "kds/views/Kdscomparescope.h"
#include "kds/views/Kdsviewlists.h"

namespace kds {

// ---- Life ---------------------------------------------------------------------------------

TKdsView::TKdsView(TKdsTable* table, std::u16string_view name)
    : TKdsActiveItem(nullptr, name),
      fColumns(TKdsOrderColumnList::Create()),
      fStorage(table->StorageFactory()->CreateStorage(table)),
      fCompareColumnList(fColumns.get()) {
    fTable = table;
    fGroup = table->Views();
    if (fStorage == nullptr) throw EInvalidArgument(u"The storage factory made no storage");
    fStorage->SetOwner(this);
    fRecords = fStorage->GetRecords();
    fStats.CreateTime = Now();
}

TKdsView::~TKdsView() = default;

TOwned<TKdsView> TKdsView::Create(TKdsTable* table, std::u16string_view name) {
    if (table == nullptr) throw EInvalidArgument(u"A view needs a table");
    TOwned<TKdsView> view(new TKdsView(table, name));
    view->fIsPlain = true;
    return view;
}

void TKdsView::Teardown() noexcept {
    fEnds = true;
    while (!fLinks.empty()) {
        TKdsViewLink* const link = fLinks.back();
        try {
            link->SetView(nullptr);
        } catch (...) {
            // The view is going; the handler's error has nowhere to go.
        }
    }
    if (fChanges != nullptr) fChanges->ViewEnds();
    TKdsActiveItem::Teardown();
    fStorage->Clear();
}

// Only in its list does a view hear what happens to its rows.
bool TKdsView::Ready() const noexcept {
    return TKdsActiveItem::Ready() && (Owner() != nullptr || fEntering);
}

// ---- Options ------------------------------------------------------------------------------

void TKdsView::CheckGuards() const {
    if (fTable == nullptr) return;
    if (fTable->PrimaryView() == this) KdsError(u"PrimaryViewChange");
    if (fTable->DefaultView() == this) KdsError(u"DefaultViewChange");
}

// A view that is built is built anew, less what is known to be unchanged; one that could not be
// built before gets another try.
template <typename F>
void TKdsView::ChangeOption(TKdsViewLocking locked, F&& store) {
    if (fTable != nullptr) fTable->CheckNotBusy();
    TKdsTravelGuard guard;  // links hear of it, and may end the view
    store();
    if (fTable != nullptr) fTable->ViewsChanged();
    const bool wasBuilt = fActual;
    const TLockScope lock(this, {locked});
    wasBuilt ? Refresh() : Update();
}

void TKdsView::SetFilter(std::u16string_view text) {
    if (text == fFilter) return;
    if (!text.empty()) {
        CheckGuards();
        // A text that does not compile is refused before the view has given up its rows.
        if (fTable != nullptr) (void)CompileExpression(fTable->Columns(), text);
    }
    std::u16string filter(text);
    ChangeOption(vlOrderBy, [&] { fFilter.swap(filter); });
}

void TKdsView::SetOrderBy(std::u16string_view text) {
    std::u16string order = NormalizeOrder(text);
    if (order == fOrderBy) return;
    if (fTable != nullptr) {
        TKdsView* const primary = fTable->PrimaryView();
        if (primary == this && fTable->Records()->Count() > 0) KdsError(u"PrimaryViewChange");
        if (fTable->DefaultView() == this && primary != this) {
            const bool fits = primary == nullptr ? order.empty() : order == primary->OrderBy();
            if (!fits) KdsError(u"DefaultViewChange");
        }
        // A text that does not parse is refused before the view has given up its rows.
        const TOwned<TKdsOrderColumnList> columns = TKdsOrderColumnList::Create();
        columns->Parse(fTable, order);
        columns->CheckPredictable();
    }
    ChangeOption(vlFilters, [&] { fOrderBy.swap(order); });
}

void TKdsView::SetOnAccept(TKdsAcceptRecordEvent value) {
    if (value == fOnAccept) return;
    if (value) CheckGuards();
    ChangeOption(vlOrderBy, [&] {
        fOnAccept = value;
        if (!(value == TKdsAcceptRecordEvent::Bind<&TKdsView::AnonymousAccept>(this))) {
            fAcceptProc = nullptr;
        }
    });
}

void TKdsView::SetOnCompare(TKdsComparer value) {
    if (value == fOnCompare) return;
    if (value) CheckGuards();
    ChangeOption(vlFilters, [&] { fOnCompare = value; });
}

void TKdsView::RaiseForeign() {
    throw EInvalidArgument(u"The record does not belong to the view's table");
}

// ---- Membership ---------------------------------------------------------------------------

bool TKdsView::Accept(TKdsRecord* record) {
    if (record == nullptr || record->Table() != fTable) RaiseForeign();
    bool accept = true;
    if (!HasTests()) return accept;
    TKdsBusyScope busy(fTable);
    const TKdsStateScope posted = TKdsStateScope::Posted(record);
    if (IsFiltered()) accept = fTable->ApplyFilters(this, record);
    if (accept && !fFilter.empty()) accept = EvaluatorAccept(record);
    if (!accept || !fOnAccept) return accept;
    const TKdsAcceptRecordEvent routine = fOnAccept;
    routine(this, record, accept);
    return accept;
}

void TKdsView::CompileFilter() {
    fEvaluator = nullptr;
    if (fFilter.empty()) return;
    fEvaluator = CompileExpression(fTable->Columns(), fFilter);
    fFilterLayout = fTable->Layout().Version();
}

// A row that the filter cannot judge stays out, and the view goes on.
bool TKdsView::EvaluatorAccept(TKdsRecord* record) {
    if (!fEvaluator || fFilterLayout != fTable->Layout().Version()) CompileFilter();
    if (!fEvaluator) return true;
    try {
        return fEvaluator->TestAt({record, erPosted}) > 0;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {
        if (fFilterErrors++ == 0) fFilterError = std::current_exception();
        return false;
    }
}

void TKdsView::AnonymousAccept(TKdsView* view, TKdsRecord* record, bool& accept) {
    const TIntf<TKdsAcceptRecordProc> routine = fAcceptProc;
    if (routine) routine->Accept(view, record, accept);
}

// ---- Comparison ---------------------------------------------------------------------------

TKdsComparer TKdsView::GetComparer(TKdsCompareOptions options) {
    fCompareOptions = options;
    return TKdsComparer::Bind<&TKdsView::Compare>(this);
}

namespace {

std::int32_t ByRowID(const TKdsRecord* a, const TKdsRecord* b) noexcept {
    return (a->RowID() > b->RowID()) - (a->RowID() < b->RowID());
}

}  // namespace

std::int32_t TKdsView::Compare(TKdsRecord* a, TKdsRecord* b) {
    if (a == nullptr || b == nullptr) RaiseForeign();
    if (a == b) return 0;
    const TKdsComparer custom = fOnCompare;
    if (custom) {
        const std::int32_t order = custom(a, b);
        if (order != 0) return order;
    }
    if (fSorting == omOrder) {
        const std::int32_t order =
            a->Compare(fCompareColumnList, fCompareColumnCount, b, fCompareOptions);
        if (order != 0 || !fCompareOptions.Has(coUseRowID)) return order;
    }
    return ByRowID(a, b);
}

std::int32_t TKdsView::CompareItem(TKdsRecord* item, TKdsRecord* key, TKdsCompareOptions options) {
    if (item == key) return 0;
    const TKdsComparer custom = fOnCompare;
    if (custom) {
        TKdsBusyScope busy(fTable);
        const TKdsStateScope posted = TKdsStateScope::Posted(item);
        const std::int32_t order = custom(item, key);
        if (order != 0) return order;
    }
    if (fSorting == omOrder) {
        const TKdsOrderPlan& plan = Plan();
        const bool plain = ReadsBuffers() && fCompareColumnList == fColumns.get() &&
                           !options.HasAny({coNoCase, coPartial});
        const std::int32_t count =
            fCompareColumnCount < 0 ? plan.Count() : std::min(fCompareColumnCount, plan.Count());
        const std::int32_t order =
            plain ? plan.Compare(item->PostedBuffer(), key->KeyBuffer(), count, options)
                  : OrderRecords(item, TKdsReading::Posted, key, TKdsReading::Current,
                                 fCompareColumnList, fCompareColumnCount, options);
        if (order != 0 || !options.Has(coUseRowID)) return order;
    }
    return ByRowID(item, key);
}

std::int32_t TKdsView::CompareMembers(TKdsRecord* a, TKdsRecord* b, TKdsCompareOptions options) {
    if (a == b) return 0;
    const TKdsComparer custom = fOnCompare;
    if (custom) {
        TKdsBusyScope busy(fTable);
        const TKdsStateScope postedA = TKdsStateScope::Posted(a);
        const TKdsStateScope postedB = TKdsStateScope::Posted(b);
        const std::int32_t order = custom(a, b);
        if (order != 0) return order;
    }
    if (fSorting == omOrder) {
        const TKdsOrderPlan& plan = Plan();
        const std::int32_t order =
            ReadsBuffers()
                ? plan.Compare(a->PostedBuffer(), b->PostedBuffer(), plan.Count(), options)
                : OrderRecords(a, TKdsReading::Posted, b, TKdsReading::Posted, fColumns.get(), -1,
                               options);
        if (order != 0 || !options.Has(coUseRowID)) return order;
    }
    return ByRowID(a, b);
}

const TKdsOrderPlan& TKdsView::Plan() const { return fColumns->Plan(fTable->Layout()); }

bool TKdsView::ReadsBuffers() const { return Plan().IsPlain() && !fTable->HasSwapped(); }

bool TKdsView::SameKey(const std::byte* a, const std::byte* b) const {
    return Plan().SameBytes(a, b);
}

// ---- Order of another ---------------------------------------------------------------------

namespace {

// Either option means the same where keys are looked for.
TKdsViewOptions Normalized(TKdsViewOptions options) noexcept {
    return options.Empty() ? options : TKdsViewOptions{voUnique, voPrimary};
}

}  // namespace

TKdsIndexMatch TKdsView::Suites(const TKdsOrderColumnList* columns, std::int32_t count,
                                TKdsViewOptions include, TKdsViewOptions exclude) const {
    if (fSorting != omOrder || fColumns->Count() == 0 || fOnCompare) return imNothing;
    const TKdsViewOptions own = Normalized(fOptions);
    if (!own.HasAll(Normalized(include)) || own.HasAny(Normalized(exclude))) return imNothing;
    return fColumns->Match(columns, count);
}

TKdsIndexMatch TKdsView::Suites(std::u16string_view orderBy, TKdsViewOptions include,
                                TKdsViewOptions exclude) const {
    if (!std::u16string_view(fOrderBy).starts_with(NormalizeOrder(orderBy))) return imNothing;
    // QUIRK: the length of the text as given, not of its canonical form, decides here.
    if (orderBy.size() != fOrderBy.size()) {
        if (orderBy.size() > fOrderBy.size()) return imNothing;
        if (fOrderBy[orderBy.size()] != u',') return imNothing;
    }
    const TKdsViewOptions own = Normalized(fOptions);
    if (!own.HasAll(Normalized(include)) || own.HasAny(Normalized(exclude))) return imNothing;
    const TOwned<TKdsOrderColumnList> columns = TKdsOrderColumnList::Create();
    columns->Parse(fTable, orderBy.substr(0, fOrderBy.size()));
    return Suites(columns.get(), columns->Count(), include, exclude);
}

// ---- Searches -----------------------------------------------------------------------------

void TKdsView::Search(TKdsRecord* record, TKdsOrderColumnList* columns, std::int32_t count,
                      TKdsLocateOptions options, std::int32_t& index, bool& found) {
    index = options.Has(loNearest) ? 0 : -1;
    found = false;
    if (record == nullptr || record->Table() != fTable) RaiseForeign();
    if (Count() == 0) return;
    if (columns != nullptr) {
        for (const TKdsColumn* const column : *columns) record->CheckColumn(column);
    }
    TKdsBusyScope busy(fTable);  // values may compare themselves, or be calculated
    TCompareScope scope(this, columns != nullptr ? columns : fColumns.get(), count);
    TKdsCompareOptions compare;
    compare.Set(coNoCase, options.Has(loNoCase));
    compare.Set(coPartial, options.Has(loPartial));
    compare.Set(coUseRowID, options.Has(loUseRowID));
    fCompareOptions = compare;
    fStorage->Search(record, options, compare, index, found);
}

bool TKdsView::HasEqual(TKdsRecord* record) {
    std::int32_t index = -1;
    bool found = false;
    if (BelongsBehindLast(record)) {
        index = Count();
        fStorage->SetSearchHint(index);
    } else {
        Search(record, nullptr, -1, {loNoKeyRow, loNearest}, index, found);
    }
    fCheckedRecord = found ? nullptr : record;
    fCheckedPlace = index;
    return found;
}

// Of a record that is no row yet: whether its key is beyond that of every row, as far as the row
// that came in last tells.
bool TKdsView::BelongsBehindLast(TKdsRecord* record) const {
    if (fLastRow == nullptr || record->Owner() != nullptr) return false;
    const TKdsOrderPlan* const plan = PlainPlan();
    if (plan == nullptr) return false;
    if (fTable->HasSwapped()) {
        return OrderRecords(fLastRow, TKdsReading::Posted, record, TKdsReading::Current,
                            fColumns.get(), -1, {}) < 0;
    }
    return plan->Compare(fLastRow->PostedBuffer(), record->KeyBuffer(), plan->Count(), {}) < 0;
}

const TKdsOrderPlan* TKdsView::PlainPlan() const {
    if (fSorting != omOrder || fOnCompare) return nullptr;
    const TKdsOrderPlan& plan = Plan();
    return plan.IsPlain() && plan.IsStable() ? &plan : nullptr;
}

bool TKdsView::RowsStandByKey(const TKdsRecord* but) const {
    if (fTable->fPosting != nullptr && fTable->fPosting != but) return false;
    return PlainPlan() != nullptr || (fSorting == omRowID && !fOnCompare);
}

TKdsRecord* TKdsView::Items(std::int32_t index) const {
    Freshen();
    if (index < 0 || index >= Count()) ListIndexError(index);
    return ItemAt(index);
}

std::int32_t TKdsView::IndexOf(TKdsRecord* record) const {
    if (record == nullptr || record->Table() != fTable || record->Owner() == nullptr) return -1;
    Freshen();
    return fStorage->Find(record);
}

}  // namespace kds
