#include "kds/core/Kdsrecordlists.h"

#include <algorithm>
#include <cmath>
#include <typeinfo>

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdsswapper.h"
#include "kds/core/Kdstables.h"
#include "kds/util/Sortutils.h"
#include "kds/views/Kdsviews.h"

namespace kds {

TKdsTableRecordList::TKdsTableRecordList(TKdsTable* table)
    : TKdsRecordList(table, /*ownsObjects=*/true), fTable(table) {}

// ---- Storage ------------------------------------------------------------------------------

TKdsItem* TKdsTableRecordList::DoGetItem(std::int32_t index) const {
    return static_cast<TKdsRecord*>(fItems.Get(index));
}

void TKdsTableRecordList::DoInsert(std::int32_t index, TKdsItem* item) {
    if (fMaximumCapacity > 0 && fItems.Count() >= fMaximumCapacity) RaiseFull();
    fItems.Insert(index, static_cast<TKdsRecord*>(item));
    DropDirectory();
}

void TKdsTableRecordList::DoDelete(std::int32_t index) {
    (void)fItems.Delete(index);
    DropDirectory();
}

void TKdsTableRecordList::DoSwitch(std::int32_t from, std::int32_t to) {
    fTable->CheckNotBusy();
    fItems.Reserve();
    void* const record = fItems.Delete(from);
    fItems.Insert(to, record);
    fOrder = rloMixed;
    DropDirectory();
}

void TKdsTableRecordList::DoClear() {
    fItems.Clear();
    DropDirectory();
    fDirectory = {};
}

TKdsRecord* TKdsTableRecordList::LookUp(std::int32_t index) {
    if (index < 0 || index >= fItems.Count()) return nullptr;
    if (++fLookups > fItems.Count() / 4 && !InParallelSort) {
        fLookups = 0;
        try {
            fDirectory.reserve(static_cast<std::size_t>(fItems.Count()));
            for (TKdsRecord* const record : *this) fDirectory.push_back(record);
        } catch (const std::bad_alloc&) {
            fDirectory.clear();  // it goes without
        }
    }
    return ItemAt(index);
}

// ---- Searches -----------------------------------------------------------------------------

// Identifiers ascend, each by one at least, which bounds the position from both ends. Where few
// rows were deleted they are spread evenly, so that a guess by proportion soon hits; every other
// probe halves what is left, wherever the guesses lead.
std::int32_t TKdsTableRecordList::SearchRowID(std::uint32_t rowID) const {
    const auto idAt = [&](std::int64_t index) -> std::int64_t {
        return static_cast<TKdsRecord*>(fItems.Get(static_cast<std::int32_t>(index)))->RowID();
    };
    if (fItems.Count() == 0) return -1;
    const std::int64_t wanted = rowID;
    std::int64_t low = 0;
    std::int64_t high = fItems.Count() - 1;
    std::int64_t lowID = idAt(low);
    std::int64_t highID = idAt(high);
    for (int guesses = 6; lowID <= wanted && wanted <= highID; --guesses) {
        if (lowID == wanted) return static_cast<std::int32_t>(low);
        if (highID == wanted) return static_cast<std::int32_t>(high);
        const std::int64_t first = std::max(low + 1, high - (highID - wanted));
        const std::int64_t last = std::min(high - 1, low + (wanted - lowID));
        if (first > last) return -1;
        const double share =
            static_cast<double>(wanted - lowID) / static_cast<double>(highID - lowID);
        const std::int64_t probe =
            guesses > 0
                ? std::clamp<std::int64_t>(
                      low + std::llround(share * static_cast<double>(high - low)), first, last)
                : (first + last) / 2;
        const std::int64_t found = idAt(probe);
        if (found == wanted) return static_cast<std::int32_t>(probe);
        (found < wanted ? low : high) = probe;
        (found < wanted ? lowID : highID) = found;
    }
    return -1;
}

std::int32_t TKdsTableRecordList::PositionOf(const TKdsItem* item) const {
    const auto* const record = static_cast<const TKdsRecord*>(item);
    if (fOrder == rloMixed) return fItems.IndexOf(record);
    const std::int32_t index = SearchRowID(record->RowID());
    // Another table's row may bear the same number.
    return index >= 0 && fItems.Get(index) == record ? index : -1;
}

std::int32_t TKdsTableRecordList::IndexOf(const TKdsItem* record) const {
    if (fOrder == rloMixed) KdsError(u"How could we fall into rloMixed mode?");
    if (record == nullptr || record->Owner() != this) return -1;
    return PositionOf(record);
}

TKdsRecord* TKdsTableRecordList::FindRowID(std::uint32_t rowID) {
    if (fOrder == rloMixed) KdsError(u"How could we fall into rloMixed mode?");
    if (rowID == NoRowID) return nullptr;
    const std::int32_t index = SearchRowID(rowID);
    return index < 0 ? nullptr : static_cast<TKdsRecord*>(fItems.Get(index));
}

TKdsRecord* TKdsTableRecordList::Find(std::span<const TVariant> values) {
    TKdsView* const primary = fTable->UsablePrimaryView();
    if (primary == nullptr) return nullptr;
    const std::int32_t index = primary->Find(values);
    return index < 0 ? nullptr : primary->Items(index);
}

// ---- Insertion ----------------------------------------------------------------------------

void TKdsTableRecordList::InsertItem(std::int32_t index, TKdsItem* item, TRelease release,
                                     void* holder) {
    if (item == nullptr || index < 0 || index > fItems.Count()) CheckInsert(index, item);
    if (typeid(*item) != typeid(TKdsRecord)) {
        throw EInvalidArgument(u"A record list takes records only");
    }
    auto* const record = static_cast<TKdsRecord*>(item);
    // A row of another table has another layout.
    if (record->Table() != fTable || record->Owner() != nullptr) KdsError(u"CannotInsertRecord");
    fTable->CheckNotBusy();
    TKdsChangeBracket bracket(fTable);
    TFirstError errors;
    if (fTable->IsUnheard()) {
        TKdsTravelScope travel(fTable);
        CheckComing(record);
        DoInsert(index, record);
        release(holder);
        TakeOwnership(record);
        ConfirmPlace(record, index);
        errors.Run([&] { record->ConfirmInsert(); });
        fTable->CountUnheard();
    } else {
        const TExpressionScope clock;  // one time for the row and all its views
        fTable->FreshenViews();
        // The bracket's guard covers both: they are sent without one of their own.
        TKdsTravelScope travel(fTable);
        // In any other state it has no values to go by, and is refused.
        if (record->RowState() == rsDetached) {
            fTable->ApproachPlaces(record, TKdsApproach::Entering);
        }
        TNotification prepare{this, acPrepareInsert, record, index};
        PassPrepareInsert(&prepare);
        fTable->ReservePlaces(record);
        DoInsert(index, record);
        release(holder);
        TakeOwnership(record);
        TNotification confirm{this, acConfirmInsert, record, index};
        PassConfirmInsert(&confirm, errors);
    }
    if (fTable->fHomeless) errors.Run([&] { fTable->fSwapper->CommitAppend(); });
    bracket.Close(errors);
    errors.Rethrow();
}

void TKdsTableRecordList::ConfirmPlace(TKdsRecord* record, std::int32_t index) {
    const std::int32_t last = fItems.Count() - 1;
    if (index != last) {
        fOrder = rloMixed;
    } else if (last > 0 && record->RowID() != NoRowID) {
        // A row that comes back with its old number may stand behind a higher one.
        const auto* const before = static_cast<TKdsRecord*>(fItems.Get(last - 1));
        if (before->RowID() > record->RowID()) fOrder = rloMixed;
    }
}

// ---- Deletion -----------------------------------------------------------------------------

void TKdsTableRecordList::Delete(std::int32_t index) {
    if (!CheckIndex(index)) ListIndexError(index);
    TakeOut(index, nullptr, /*bury=*/true);
}

TOwned<TKdsRecord> TKdsTableRecordList::Extract(TKdsRecord* record) {
    if (record == nullptr || record->Owner() != this) KdsError(u"CannotDeleteRecord");
    record->CheckDelete();
    TOwned<TKdsRecord> keeper;
    TakeOut(PositionOf(record), &keeper, /*bury=*/false);
    return keeper;
}

void TKdsTableRecordList::TakeOut(std::int32_t index, TOwned<TKdsRecord>* keeper, bool bury) {
    fTable->CheckNotBusy();
    TKdsChangeBracket bracket(fTable);
    fTable->FreshenViews();  // what links hear of it is told of views that are right
    TFirstError errors;
    {
        TKdsTravelScope travel(fTable);
        auto* const record = static_cast<TKdsRecord*>(fItems.Get(index));
        fTable->ReserveEvents(1);
        if (bury) fTable->ReserveDead();
        Notify(acPrepareDelete, record, index);
        DoDelete(index);
        errors.Run([&] { Notify(acConfirmDelete, record, index); });
        ClearOwner(record);
        if (bury) fTable->fDead.push_back(record);
        if (keeper != nullptr) keeper->reset(record);
    }
    bracket.Close(errors);
    errors.Rethrow();
}

void TKdsTableRecordList::Clear() {
    fTable->CheckNotBusy();
    fTable->ReserveDeaths();
    TKdsTravelGuard guard;
    TFirstError errors;
    errors.Run([&] { TKdsRecordList::Clear(); });
    if (fItems.Count() == 0) fOrder = rloRowID;
    errors.Rethrow();
}

// ---- Notifications ------------------------------------------------------------------------

void TKdsTableRecordList::CheckComing(TKdsRecord* record) {
    if (record->RowID() != NoRowID && HoldsRowID(record->RowID())) {
        KdsError(u"CannotInsertRecord");
    }
    record->PrepareInsert();
}

void TKdsTableRecordList::PassPrepareInsert(TNotification* notification) {
    CheckComing(static_cast<TKdsRecord*>(notification->Target));
    TKdsItem::Notify(notification);
}

void TKdsTableRecordList::PassConfirmInsert(TNotification* notification, TFirstError& errors) {
    auto* const record = static_cast<TKdsRecord*>(notification->Target);
    ConfirmPlace(record, notification->Index);
    errors.Run([&] { record->ConfirmInsert(); });
    errors.Run([&] { TKdsItem::Notify(notification); });
}

void TKdsTableRecordList::Notify(TNotification* notification) {
    auto* const record = static_cast<TKdsRecord*>(notification->Target);
    TKdsSteps steps(notification);
    if (notification->Sender == this) {
        switch (notification->Action) {
            case acPrepareInsert: PassPrepareInsert(notification); return;
            case acConfirmInsert: {
                TFirstError errors;
                PassConfirmInsert(notification, errors);
                errors.Rethrow();
                return;
            }
            case acPrepareDelete: record->PrepareDelete(); break;
            case acConfirmDelete:
                if (fItems.Count() <= 1) fOrder = rloRowID;
                record->ConfirmDelete();
                break;
            default: break;
        }
    } else if (notification->Action == acObjectDestroy && notification->Sender->Owner() == this) {
        RemoveDying(static_cast<TKdsRecord*>(notification->Sender));
    }
    // Not the list's own reaction: it would look for any sender among the records.
    steps.Run([&] { TKdsItem::Notify(notification); });
    if (notification->Sender == this && notification->Action == acConfirmDelete &&
        record->IsSwapped()) {
        fTable->fSwapper->CommitRemove(record);
    }
    steps.Finish();
}

// A record that ends itself leaves the list with the delete pair; a refusal keeps it.
void TKdsTableRecordList::RemoveDying(TKdsRecord* record) {
    if (fOrder == rloMixed) KdsError(u"How could we fall into rloMixed mode?");
    try {
        TakeOut(PositionOf(record), nullptr, /*bury=*/false);
    } catch (...) {
        if (record->Owner() == this) throw;
        KeepLateError();
    }
}

bool TKdsTableRecordList::HoldsRowID(std::uint32_t rowID) const {
    if (fOrder == rloRowID) return SearchRowID(rowID) >= 0;
    for (const TKdsRecord* const record : *this) {
        if (record->RowID() == rowID) return true;
    }
    return false;
}

bool TKdsTableRecordList::IsConsistent() const {
    if (!fItems.IsConsistent()) return false;
    if (!fDirectory.empty() && fDirectory.size() != static_cast<std::size_t>(fItems.Count())) {
        return false;
    }
    std::int64_t previous = -1;
    auto known = fDirectory.begin();
    for (TKdsRecord* const record : *this) {
        if (record->Owner() != this || record->Table() != fTable) return false;
        if (known != fDirectory.end() && *known++ != record) return false;
        if (record->RowID() >= fTable->LastRowID()) return false;
        if (fOrder == rloRowID && record->RowID() <= previous) return false;
        previous = record->RowID();
    }
    return true;
}

}  // namespace kds
