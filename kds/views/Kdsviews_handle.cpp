// How a view follows its table.
#include "kds/views/Kdsviews.h"

#include <algorithm>

#include "kds/core/Kdserrors.h"
#include "kds/views/Kdschangefeeds.h"
#include "kds/views/Kdsviewlists.h"

namespace kds {

void TKdsView::Handle(TNotification* notification) {
    if (fTable == nullptr) return;
    if (fTable->IsOfData(*notification)) {
        if (fActual && !fRebuilds) HandleData(notification);
    } else {
        HandleMeta(notification);
    }
}

// ---- Records ------------------------------------------------------------------------------

// A view that could not place a record would be wrong: it gives up its rows instead and is built
// again by its next use.
void TKdsView::HandleData(TNotification* notification) {
    TScopeGuard dismiss([&] {
        GiveUp();
        RaiseEvent(evStatusChange, 0, fChangeCount, nullptr);
    });
    Follow(notification);
    // A master has changed on the way: the row was placed among rows that stand wrong, so that
    // placing these anew is not enough.
    const bool placed =
        notification->Action == acConfirmInsert || notification->Action == acConfirmUpdate;
    if (placed && fReadsOthers && !IsFresh()) fSourcesShape = 0;  // of no shape
    dismiss.Dismiss();
}

void TKdsView::GiveUp() noexcept {
    fActual = false;
    fReadsOthers = false;
    fDistinct = false;
    fLastRow = nullptr;
    if (fTable != nullptr) fTable->ViewsChanged();
    if (fChanges != nullptr) fChanges->Rebuilt();
    fStorage->Clear();
}

void TKdsView::Follow(TNotification* notification) {
    switch (notification->Action) {
        case acConfirmInsert: {
            auto* const record = static_cast<TKdsRecord*>(notification->Target);
            const TPlace place = PlaceInserted(record);
            if (place.Outcome == TOutcome::Member)
                RaiseEvent(evRecordInsert, -1, place.New, record);
            return;
        }
        case acConfirmUpdate: {
            auto* const record = static_cast<TKdsRecord*>(notification->Sender);
            const TPlace place = PlaceUpdated(record);
            if (place.Outcome == TOutcome::Removed && place.Old >= 0) {
                RaiseEvent(evRecordDelete, place.Old, -1, record);
            } else if (place.Outcome == TOutcome::Member && place.Old < 0) {
                RaiseEvent(evRecordInsert, -1, place.New, record);
            } else if (place.Old >= 0) {
                RaiseEvent(evRecordUpdate, place.Old, place.New, record);
            }
            return;
        }
        case acConfirmDelete: {
            auto* const record = static_cast<TKdsRecord*>(notification->Target);
            const TPlace place = PlaceDeleted(record);
            if (place.Outcome == TOutcome::Removed) {
                RaiseEvent(evRecordDelete, place.Old, -1, record);
            }
            return;
        }
        case acStatusChanged: {
            auto* const record = static_cast<TKdsRecord*>(notification->Sender);
            const std::int32_t index = fStorage->Find(record);
            if (index >= 0) RaiseEvent(evRecordSignal, index, index, record);
            return;
        }
        default: return;
    }
}

std::int32_t TKdsView::SearchPlace(TKdsRecord* record) {
    std::int32_t index = 0;
    bool found = false;
    Search(record, nullptr, -1, {loLastRow, loNearest, loNoKeyRow, loUseRowID}, index, found);
    return index;
}

// The place that the key check has found, or the one behind the last row, when the row fits between
// those beside it. What has happened since the check is not followed: its neighbours tell.
std::int32_t TKdsView::PlaceForNew(TKdsRecord* record) {
    const bool checked = std::exchange(fCheckedRecord, nullptr) == record;
    const std::int32_t count = Count();
    const std::int32_t place = checked ? fCheckedPlace : fLastRow != nullptr ? count : -1;
    const TKdsOrderPlan* const plan = place < 0 || place > count ? nullptr : PlainPlan();
    if (plan == nullptr) return SearchPlace(record);
    const bool swapped = fTable->HasSwapped();
    const auto stands = [&](TKdsRecord* a, TKdsRecord* b) {
        if (swapped) return CompareMembers(a, b, {coUseRowID}) < 0;
        const std::int32_t order =
            plan->Compare(a->PostedBuffer(), b->PostedBuffer(), plan->Count(), {});
        return order < 0 || (order == 0 && a->RowID() < b->RowID());
    };
    const auto fitsBehind = [&] {
        const bool isLast = place == count && fLastRow != nullptr;
        return stands(isLast ? fLastRow : ItemAt(place - 1), record);
    };
    const bool fits =
        (place == 0 || fitsBehind()) && (place == count || stands(record, ItemAt(place)));
    if (!fits) return SearchPlace(record);
    fStorage->SetSearchHint(place);
    return place;
}

TKdsView::TPlace TKdsView::PlaceInserted(TKdsRecord* record) {
    TPlace place;
    if (HasTests() && !Accept(record)) return place;
    const std::int32_t count = Count();
    const bool byRowID = fSorting == omRowID && !fOnCompare;
    // Behind the last row; a row that came back with its old number has its old place.
    const bool appends = byRowID && (count == 0 || ItemAt(count - 1)->RowID() < record->RowID());
    place.New = appends ? count : PlaceForNew(record);
    place.Outcome = TOutcome::Member;
    fStorage->Insert(place.New, record);
    if (fChanges != nullptr) fChanges->Inserted(place.New, record);
    fLastRow = place.New == count ? record : nullptr;
    PlacedUnchecked();
    return place;
}

// Without the check two rows may have one key from now on.
void TKdsView::PlacedUnchecked() noexcept {
    if (!fDistinct || !fTable->Options().Has(mtoSkipPKCheck)) return;
    fDistinct = false;
    fTable->ViewsChanged();
}

TKdsView::TPlace TKdsView::PlaceUpdated(TKdsRecord* record) {
    TPlace place;
    const bool keeps = KeepsPlace();
    if (keeps && !HasTests() && fLinks.empty() && fChanges == nullptr &&
        fTable->Status() == mtsRegular) {
        return place;
    }
    fLastRow = nullptr;
    place.Old = fStorage->Find(record);
    if (HasTests() && !Accept(record)) {
        if (place.Old >= 0) fStorage->Delete(place.Old);
        if (place.Old >= 0 && fChanges != nullptr) fChanges->Removed(place.Old, record);
        place.Outcome = TOutcome::Removed;
        return place;
    }
    if (keeps && place.Old >= 0) {
        place.New = place.Old;
        place.Outcome = TOutcome::Unchanged;
        if (fChanges != nullptr) fChanges->Posted(place.Old, place.New, record);
        return place;
    }
    place.New = SearchPlace(record);
    place.Outcome = TOutcome::Member;
    if (place.Old < 0) {
        fStorage->Insert(place.New, record);
        if (fChanges != nullptr) fChanges->Inserted(place.New, record);
        return place;
    }
    // Taking the record out shifts everything behind it.
    if (place.Old < place.New) --place.New;
    if (place.Old != place.New) fStorage->Switch(place.Old, place.New);
    if (fChanges != nullptr) fChanges->Posted(place.Old, place.New, record);
    PlacedUnchecked();
    return place;
}

TKdsView::TPlace TKdsView::PlaceDeleted(TKdsRecord* record) {
    TPlace place;
    place.Old = fStorage->Find(record);
    if (place.Old < 0) return place;
    fLastRow = nullptr;
    fStorage->Delete(place.Old);
    if (fChanges != nullptr) fChanges->Removed(place.Old, record);
    place.Outcome = TOutcome::Removed;
    return place;
}

// Whether the post has left the row where it was: row identifiers never change, nor does the order
// of a view whose columns were not touched. A comparer of the host may look at anything.
bool TKdsView::KeepsPlace() const {
    if (fOnCompare) return false;
    return fSorting == omRowID || !Plan().Columns().Meets(fTable->ChangedColumns());
}

// ---- Columns and states -------------------------------------------------------------------

void TKdsView::HandleMeta(TNotification* notification) {
    TKdsItem* const sender = notification->Sender;
    if (notification->Action == acStatusChanged) {
        if (sender == this || (sender == fTable && fChangeCount >= 1)) {
            // By value: raising the event in a regular table sets the count back.
            const std::int32_t changes = fChangeCount;
            RaiseEvent(evStatusChange, 0, changes, nullptr);
        }
        return;
    }
    if (sender == fTable->Columns()) {
        HandleColumn(notification, static_cast<TKdsColumn*>(notification->Target));
    } else if (sender->Owner() == fTable->Columns()) {
        HandleColumn(notification, static_cast<TKdsColumn*>(sender));
    }
}

void TKdsView::HandleColumn(TNotification* notification, TKdsColumn* column) {
    const TKdsAction action = notification->Action;
    const bool orders = fSorting == omOrder && fColumns->Contains(column);
    // Names and places that the filter was compiled for may not be those of now.
    const bool filters = fEvaluator && (action == acConfirmDelete || action == acConfirmRename ||
                                        std::ranges::find(fEvaluator->Columns(), column->Index()) !=
                                            fEvaluator->Columns().end());
    // Spelled while the rename may still be refused: once it stands, nothing may fail.
    if (action == acPrepareRename && orders) fRenamedOrder = OrderText();
    if (action != acConfirmInsert && action != acConfirmDelete && action != acConfirmRename &&
        action != acConfirmUpdate) {
        return;
    }
    RaiseEvent(evFieldsChange, 0, 0, nullptr);
    if (action == acConfirmInsert || (!orders && !filters && !ReadsThrough(column))) return;
    // A unique view under construction makes its columns not null; that is no news to an order.
    if (fTable->fPreparing > 0) return;
    if (action == acConfirmRename && orders) fOrderBy.swap(fRenamedOrder);
    if (action == acConfirmDelete && orders) fColumns->DropColumn(column);
    fAsleep = fAsleep || fActive;
    SetActive(false);
}

// Whether an expression stands between the view's columns and this one. Without memory: it is asked
// when a change of columns stands already. A view that is not built looks anew when it is.
bool TKdsView::ReadsThrough(const TKdsColumn* column) const noexcept {
    return fActual && std::ranges::find(fReads, column) != fReads.end();
}

// The canonical text of the parsed order, with the columns' names of now.
std::u16string TKdsView::OrderText() const {
    std::u16string order;
    for (std::int32_t i = 0; i < fColumns->Count(); ++i) {
        TKdsSortOptions options;
        options.Set(soNoCase, fColumns->Caseless(i));
        options.Set(soDescending, fColumns->Descends(i));
        if (i > 0) order += u',';
        order += AppendSuffixes(fColumns->GetItem(i)->Name(), options);
    }
    return order;
}

}  // namespace kds
