// Views whose order shows columns of other tables: how they follow what changes there. No
// notification crosses tables; each table counts its changes, and a view whose tables have counted
// on places its rows anew when it is used next.
#include "kds/views/Kdsviews.h"

#include <algorithm>

#include "kds/core/Kdsstores.h"
#include "kds/views/Kdschangefeeds.h"
#include "kds/views/Kdsviewlists.h"

namespace kds {

std::vector<TKdsColumn*> TKdsView::ColumnsRead() const {
    std::vector<TKdsColumn*> columns;
    for (TKdsColumn* const column : *fColumns) columns.push_back(column);
    if (fEvaluator && fFilterLayout == fTable->Layout().Version()) {
        for (const std::int32_t index : fEvaluator->Columns()) {
            columns.push_back(fTable->Columns()->GetItem(index));
        }
    }
    return ColumnsReadBy(std::move(columns));
}

std::vector<TKdsView::TSource> TKdsView::Sources() const {
    std::vector<TSource> sources;
    for (const TKdsColumn* const column : ColumnsRead()) {
        if (!column->LooksUp()) continue;
        TKdsTable* const table = column->MasterTable();
        const TKdsColumn* const shown = column->Shown();
        const bool isDirect = fColumns->Contains(column) && (shown == nullptr || !shown->LooksUp());
        sources.push_back({table, table == nullptr ? 0 : table->ChangeCount(), isDirect});
    }
    return sources;
}

// Without memory: this is asked on every use. A table that has gone has changed the shape.
bool TKdsView::IsFresh() const noexcept {
    return fSourcesShape == fTable->Shape() &&
           std::ranges::all_of(fSources, [](const TSource& source) {
               return source.Table == nullptr || source.Changes == source.Table->ChangeCount();
           });
}

// Not from inside a routine of the host or while rows are on their way: the view is as it was then,
// and follows with its next use.
void TKdsView::FollowOthers() {
    if (!fActual || fRebuilds || fTable->IsBusy() || fTable->fTravels > 0 || IsFresh()) return;
    TKdsChangeBracket bracket(fTable);  // links hear of it when the view is right
    TFirstError errors;
    errors.Run([&] {
        fReadsOthers = false;  // not again from in here
        TScopeGuard again([&] { fReadsOthers = fActual; });
        std::vector<TSource> sources = Sources();
        if (fSourcesShape == fTable->Shape() && PlaceReadersOf(sources)) {
            fSources = std::move(sources);
            if (fChanges != nullptr) fChanges->Rebuilt();
            if (!fLinks.empty()) Notify(acStatusChanged, nullptr, 0);
            return;
        }
        again.Dismiss();
        Refresh();  // being built the view says anew what it reads
    });
    bracket.Close(errors);
    errors.Rethrow();
}

// The master rows posted since, when nothing else has happened there that a lookup can see.
bool TKdsView::PostedMasters(const TSource& before, const TSource& now,
                             std::vector<TKdsRecord*>& masters) const {
    if (before.Table != now.Table || before.IsDirect != now.IsDirect) return false;
    if (before.Changes == now.Changes) return true;
    if (now.Table == nullptr || !now.IsDirect) return false;
    // A row posted here was placed among rows that showed it and stood wrong already.
    if (now.Table == fTable) return false;
    if (now.Table->Records()->Order() == rloMixed) return false;
    for (std::uint64_t change = before.Changes + 1; change <= now.Changes; ++change) {
        const std::uint32_t rowID = now.Table->PostedBy(change);
        if (rowID == NoRowID) return false;
        TKdsRecord* const master = now.Table->Records()->FindRowID(rowID);
        if (master == nullptr) return false;
        if (std::ranges::find(masters, master) == masters.end()) masters.push_back(master);
    }
    return true;
}

// Only the rows that show what was posted, when they are few; false: all of them.
bool TKdsView::PlaceReadersOf(const std::vector<TSource>& sources) {
    if (sources.size() != fSources.size()) return false;
    if (Unique()) return false;    // what is shown may be the same from now on
    if (fEvaluator) return false;  // rows may come and go
    std::vector<TKdsRecord*> masters;
    for (std::size_t i = 0; i < sources.size(); ++i) {
        if (!PostedMasters(fSources[i], sources[i], masters)) return false;
    }
    std::vector<TKdsRecord*> rows;
    for (const TKdsColumn* const column : *fColumns) {
        if (!column->LooksUp() || column->MasterTable() == nullptr) continue;
        if (column->IsVirtual()) return false;  // no value says which rows those are
        for (TKdsRecord* const master : masters) {
            if (master->Table() == column->MasterTable()) {
                CollectReaders(column, master, rows);
            }
        }
    }
    std::ranges::sort(rows);
    const auto same = std::ranges::unique(rows);
    rows.erase(same.begin(), same.end());
    if (rows.size() > static_cast<std::size_t>(fRecords->GetCount()) / 4 + 16) return false;
    ReplaceRows(rows);
    return true;
}

// The rows whose key column holds the key of this master row.
void TKdsView::CollectReaders(const TKdsColumn* column, TKdsRecord* master,
                              std::vector<TKdsRecord*>& rows) const {
    const TKdsColumn* const source = column->SourceField();
    TKdsScratch masterScratch;
    TKdsValue key;
    if (!column->CanResolve() ||
        !master->ReadValue(column->MasterField(), TKdsReading::Posted, masterScratch, key)) {
        return;
    }
    const TKdsSlot& slot = fTable->Layout().Slot(source->Index());
    if (slot.IsKeyNumber() && slot.Size == key.Size) {
        for (TKdsRecord* const row : *fTable->Records()) {
            if (row->HasNumber(slot, key.Data)) rows.push_back(row);
        }
        return;
    }
    for (TKdsRecord* const row : *fTable->Records()) {
        TKdsScratch scratch;
        TKdsValue value;
        if (!row->ReadValue(source, TKdsReading::Posted, scratch, value)) continue;
        // Caseless, so that what a caseless key finds is not left out.
        if (CompareData(value.Type, value.Data, key.Data, value.Size, key.Size, {coNoCase}) == 0) {
            rows.push_back(row);
        }
    }
}

// All of them out first: only among rows that stand right does a search find its way.
void TKdsView::ReplaceRows(const std::vector<TKdsRecord*>& rows) {
    TScopeGuard fail([&] { GiveUp(); });
    fLastRow = nullptr;
    std::vector<TKdsRecord*> members;
    for (TKdsRecord* const row : rows) {
        const std::int32_t index = fStorage->Find(row);
        if (index < 0) continue;
        fStorage->Delete(index);
        members.push_back(row);
    }
    for (TKdsRecord* const row : members) {
        const TKdsStateScope posted = TKdsStateScope::Posted(row);
        fStorage->Insert(SearchPlace(row), row);
    }
    fail.Dismiss();
}

// So that a sort, which reads each key many times, meets none that leads astray.
void TKdsView::RepairKeys() {
    for (const TKdsColumn* const column : *fColumns) {
        if (!column->LooksUp()) continue;
        for (TKdsRecord* const row : *fTable->Records()) row->RepairKey(column);
    }
}

// ---- When tables ask ------------------------------------------------------------------------

void TKdsTable::FreshenReadingViews() {
    TKdsListCursor cursor(fViews.get());
    while (TKdsItem* const item = cursor.NextKept()) static_cast<TKdsView*>(item)->Freshen();
}

void TKdsTable::FreshenReaders(TFirstError& errors) noexcept {
    if (fFreshened == fChangeCount) return;
    fFreshened = fChangeCount;
    TKdsTravelGuard guard;  // links hear of it, and may end views and tables
    for (std::size_t i = 0; i < fReferrers.size(); ++i) {
        TKdsTable* const table = fReferrers[i]->Table();
        if (table == nullptr || table->Views() == nullptr) continue;
        TKdsListCursor cursor(table->Views());
        while (TKdsItem* const item = cursor.NextKept()) {
            const auto* const view = static_cast<TKdsView*>(item);
            if (view->ReadsOthers() && view->IsFollowed()) {
                errors.Run([&] { view->Freshen(); });
            }
        }
    }
}

}  // namespace kds
