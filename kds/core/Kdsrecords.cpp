#include "kds/core/Kdsrecords.h"

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdsswapper.h"
#include "kds/core/Kdstables.h"
#include "kds/views/Kdsviews.h"

namespace kds {

TKdsRecord::TKdsRecord(TKdsTable* table) noexcept : TKdsItem(nullptr), fTable(table) {}

TOwned<TKdsRecord> TKdsRecord::Create(TKdsTable* table, bool defaults) {
    if (table == nullptr) throw EInvalidArgument(u"A record needs a table");
    table->ReserveTrack();
    const bool home = table->KeepsHome() && !table->fHomeless;
    TOwned<TKdsRecord> record(new (table->Slab(home)) TKdsRecord(table));
    record->SetBit(HomelessBit, !home);
    table->Track(record.get());
    ++table->fOrphanRows;
    if (home) {
        record->fBuffer.Proposed = record->Home();
        std::memset(record->Home(), 0, static_cast<std::size_t>(table->Layout().RecordSize()));
    } else {
        record->fBuffer.Proposed = table->InitBuffer();
    }
    table->MarkLate(record->fBuffer.Proposed);
    if (defaults) record->AssignDefaults();
    return record;
}

void TKdsRecord::Teardown() noexcept {
    if (fTable != nullptr) {
        fTable->ForgetRecord(this);
        if (EffectiveState() == rsDetached) {
            fTable->Untrack(this);
            if (fRowID == NoRowID && fTable->fOrphanRows > 0) --fTable->fOrphanRows;
        } else if (!IsOut()) {
            fTable->FreeBuffer(this, fBuffer.Original);
        }
        fTable->FreeBuffer(this, std::exchange(fBuffer.Proposed, nullptr));
        LeaveTable();
    }
    TKdsItem::Teardown();
}

void TKdsRecord::LeaveTable() noexcept {
    fBuffer.Slab = HasBit(HomelessBit) ? fTable->fBareSlab : fTable->fSlab;
    fTable = nullptr;
}

void TKdsRecord::SetFlag(TKdsRecordFlag flag, bool value) noexcept {
    const auto bit = static_cast<std::uint8_t>(1u << static_cast<unsigned>(flag));
    fRowFlags = static_cast<std::uint8_t>(value ? fRowFlags | bit : fRowFlags & ~bit);
}

void TKdsRecord::SetDecimals(std::int32_t value) noexcept {
    fDecimals = static_cast<std::int8_t>(std::clamp(value, -1, 127));
}

// ---- States -------------------------------------------------------------------------------

void TKdsRecord::SwitchState(TKdsRecordState state) {
    if (IsTemporary(state)) {
        if (!IsTemporary(fRowState)) fOldState = fRowState;
    } else if (!IsTemporary(fRowState) || state != fOldState) {
        KdsError(u"RecordStateInvalid");
    }
    fRowState = state;
}

void TKdsRecord::LeaveForced() {
    if (fRowState != rsForced) return;
    fRowState = fOldState;
    // Written to a posted buffer, which may have been made full-size for it.
    if (fRowState != rsRegular || fTable == nullptr) return;
    fTable->CompactBuffer(this);
    if (IsSwapped()) fTable->fSwapper->CommitUpdate(this);
}

void TKdsRecord::RaiseState(std::u16string_view key) { KdsError(key); }

const std::byte* TKdsRecord::FetchBuffer() const {
    return fTable->fSwapper->Fetch(const_cast<TKdsRecord*>(this));
}

void TKdsRecord::MakeWritable(const TKdsSlot& slot) {
    if (IsOut()) fTable->fSwapper->BringIn(this);
    if (MovesForWrite(slot)) ExpandBuffer();
}

void TKdsRecord::ExpandBuffer() {
    assert(HasBit(CompactBit) && !IsOut());
    fTable->ExpandBuffer(EffectiveState() == rsRegular ? fBuffer.Original : fBuffer.Proposed);
    SetBit(CompactBit, false);
}

void TKdsRecord::CheckConstraints(TKdsRecordState state) {
    if (fTable == nullptr) KdsError(u"RecordStateInvalid");
    if (state != rsRegular) return;
    CheckNotNull();
    fTable->CheckUniqueViews(this);
}

void TKdsRecord::CheckNotNull() const {
    const std::byte* const buffer = FindBuffer();
    const TKdsLayout& layout = fTable->Layout();
    if (!layout.HasNotNullGap(buffer)) return;
    for (const TKdsColumn* const column : *fTable->Columns()) {
        if (!column->AllowNull() && !layout.Slot(column->Index()).HasValue(buffer)) {
            KdsError(u"ColumnNotNull", {fTable->Name(), column->Name()});
        }
    }
}

// ---- Insert -------------------------------------------------------------------------------

void TKdsRecord::PrepareInsert() {
    CheckState({rsDetached}, true, u"CannotInsertRecord");
    if (fTable->fLastRowID == NoRowID) KdsError(u"MaximumCapacity");
    if (IsOut()) fTable->fSwapper->BringIn(this);
    CheckConstraints(rsRegular);
    if (!fTable->Columns()->Occurences().Has(coCalculated)) return;
    // What is calculated once the row stands must find its room and its expressions.
    fTable->Columns()->PrepareExpressions();
    if ((fRowFlags & CompactBit) != 0) ExpandBuffer();
}

// The row stands in the list already: whatever fails on the way, it becomes whole.
void TKdsRecord::ConfirmInsert() {
    if (fRowID == NoRowID) {
        fRowID = fTable->fLastRowID++;
        if (fTable->fOrphanRows > 0) --fTable->fOrphanRows;
    } else if (fRowID >= fTable->fLastRowID) {
        fTable->fLastRowID = fRowID + 1;
    }
    const TKdsOccurences occurences = fTable->Columns()->Occurences();
    TFirstError errors;
    if (occurences.HasAny({coCalculated, coAutoInc})) {
        if (occurences.Has(coCalculated) && fTable->Status() != mtsMassive) {
            errors.Run([&] { (void)CalculateColumns(true); });
        }
        if (occurences.Has(coAutoInc)) errors.Run([&] { fTable->FollowAutoIncrement(this); });
    }
    fTable->Untrack(this);
    fBuffer.Original = std::exchange(fBuffer.Proposed, nullptr);
    Become(rsRegular);
    fTable->fModified = true;
    fTable->CompactBuffer(this);
    errors.Rethrow();
}

// ---- Update -------------------------------------------------------------------------------

void TKdsRecord::Edit() {
    if (fTable == nullptr || IsPosting() || fTable->IsBusy()) KdsError(u"RecordStateInvalid");
    CheckState({rsRegular}, true, u"RecordAlreadyEdits");
    fTable->ApproachFollowed(this, 0);
    if (IsSwapped()) fTable->fSwapper->BeforeUpdate(this);
    try {
        fBuffer.Proposed = fTable->CopyBuffer(fBuffer.Original);
    } catch (...) {
        fTable->fSwapper->CancelUpdate(this);
        throw;
    }
    fTable->MarkLate(fBuffer.Proposed);
    Become(rsEditing);
    fTable->ApproachFollowed(this, 1);
}

void TKdsRecord::Post() {
    if (fRowState != rsEditing) return;
    TKdsTable* const table = fTable;
    table->CheckNotBusy();
    TKdsChangeBracket bracket(table);
    const bool calculates = table->Columns()->Occurences().Has(coCalculated);
    const bool isQuiet = table->IsQuietPost(fBuffer.Original, fBuffer.Proposed);
    std::optional<TExpressionScope> clock;  // one time for the row and all its views
    if (!isQuiet || calculates) clock.emplace();
    if (isQuiet) {
        CheckNotNull();
        table->ReserveFollowed();
        table->ApproachFollowed(this, 2);
        if (calculates) (void)CalculateColumns(false);
    } else {
        CheckConstraints(rsRegular);
        table->FreshenViews();
        table->ReservePlaces(this);
        // Calculating changes the edit, so nothing that may fail comes behind it.
        table->ReserveChanges();
        if (calculates) (void)CalculateColumns(false);
        table->FindChanges(fBuffer.Original, fBuffer.Proposed);
        table->ApproachPlaces(this, TKdsApproach::Moving);
    }
    table->fPosting = this;
    std::swap(fBuffer.Original, fBuffer.Proposed);
    Become(rsRegular);
    table->fModified = true;
    TFirstError errors;
    {
        TKdsTravelScope travel(table);
        TNotification confirm{this, acConfirmUpdate, nullptr, 0};
        if (isQuiet) table->fQuietPost = this;
        errors.Run([&] { TKdsItem::Notify(&confirm); });
        table->fQuietPost = nullptr;
    }
    fOldState = rsRegular;
    table->FreeBuffer(this, std::exchange(fBuffer.Proposed, nullptr));
    BringHome();
    table->fPosting = nullptr;
    if (IsSwapped()) errors.Run([&] { table->fSwapper->CommitUpdate(this); });
    // Links may delete the record: nothing of it is touched from here on.
    bracket.Close(errors);
    errors.Rethrow();
}

// The posted values move into the home buffer, so that the block of memory beside the record
// holds what every comparison reads.
void TKdsRecord::BringHome() noexcept {
    if (!fTable->KeepsHome()) {
        fTable->CompactBuffer(this);
        return;
    }
    if (HasBit(HomelessBit) || IsSwapped() || fBuffer.Original == Home()) return;
    std::memcpy(Home(), fBuffer.Original, static_cast<std::size_t>(fTable->Layout().RecordSize()));
    fTable->GiveBack(std::exchange(fBuffer.Original, Home()));
}

void TKdsRecord::Cancel() {
    if (fRowState != rsEditing) return;
    if (fTable->IsBusy()) KdsError(u"RecordStateInvalid");  // its values are being compared
    fRowState = rsRegular;
    fOldState = rsRegular;
    fTable->FreeBuffer(this, std::exchange(fBuffer.Proposed, nullptr));
    if (IsSwapped()) fTable->fSwapper->CancelUpdate(this);
}

// ---- Delete -------------------------------------------------------------------------------

void TKdsRecord::Delete() {
    CheckDelete();
    if (Owner() != nullptr) fTable->ApproachPlaces(this, TKdsApproach::Leaving);
    fTable->Records()->Remove(this);
}

void TKdsRecord::CheckDelete() const {
    CheckState({rsDetached, rsDefaults, rsCalculate, rsForced, rsOriginal}, false,
               u"CannotDeleteRecord");
}

void TKdsRecord::PrepareDelete() {
    if (IsPosting()) KdsError(u"CannotDeleteRecord");
    fTable->ReserveTrack();
    Cancel();
    if (fTable->Status() == mtsDestroy) return;
    CheckState({rsRegular}, true, u"CannotDeleteRecord");
    if (IsSwapped()) fTable->fSwapper->BeforeRemove(this);
}

void TKdsRecord::ConfirmDelete() {
    // The detached record keeps its last values, for everybody who still hears of its end.
    // An edit that a table in destruction finds in a temporary state is still open. Where all rows
    // go nobody reads back what is out.
    if (IsOut()) fBuffer.Original = nullptr;
    fTable->FreeBuffer(this, std::exchange(fBuffer.Proposed, fBuffer.Original));
    Become(rsDetached);
    fTable->Track(this);
    fTable->fModified = true;
}

}  // namespace kds
