// Buffers of a table's rows, the rows outside it, load brackets and change brackets.
#include "kds/core/Kdstables.h"

#include <cstring>

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdsswapper.h"
#include "kds/views/Kdschangefeeds.h"
#include "kds/views/Kdsevents.h"
#include "kds/views/Kdsviewlists.h"
#include "kds/views/Kdsviews.h"

namespace kds {

// ---- Buffers ------------------------------------------------------------------------------

TSlab& TKdsTable::Slab(bool home) {
    TSlab*& slab = home ? fSlab : fBareSlab;
    if (slab == nullptr) slab = TSlab::Create(sizeof(TKdsRecord) + (home ? BufferRoom() : 0));
    return *slab;
}

// Of full size and with anything in it.
std::byte* TKdsTable::TakeBuffer() {
    if (fSpareBuffer != nullptr) return std::exchange(fSpareBuffer, nullptr);
    return static_cast<std::byte*>(::operator new(BufferRoom()));
}

std::byte* TKdsTable::InitBuffer() {
    std::byte* const buffer = TakeBuffer();
    std::memset(buffer, 0, static_cast<std::size_t>(Layout().RecordSize()));
    return buffer;
}

// A heap buffer without references. The latest one is kept: most tables edit one row at a time.
void TKdsTable::GiveBack(std::byte* buffer) noexcept {
    if (buffer != nullptr && fSpareBuffer == nullptr && KeepsHome() && fStatus != mtsDestroy) {
        fSpareBuffer = buffer;
    } else {
        ::operator delete(buffer);
    }
}

void TKdsTable::FreeBuffer(TKdsRecord* record, std::byte* buffer) noexcept {
    if (buffer == nullptr) return;
    ReleaseReferences(buffer);
    if (record->HasBit(TKdsRecord::HomelessBit) || buffer != record->Home()) GiveBack(buffer);
}

std::byte* TKdsTable::CopyBuffer(const std::byte* source) {
    std::byte* const copy = TakeBuffer();
    const auto size = static_cast<std::size_t>(Layout().RecordSize());
    const auto used = KeepsHome() ? size : static_cast<std::size_t>(Layout().CompactSize(source));
    std::memcpy(copy, source, used);
    if (used < size) std::memset(copy + used, 0, size - used);
    if (!Layout().ReferenceColumns().empty()) RetainReferences(copy);
    return copy;
}

// Shrinks the posted buffer to the bytes in use, in tables that strip nulls. Memory that cannot be
// had leaves it full-size, which is correct too.
void TKdsTable::CompactBuffer(TKdsRecord* record) noexcept {
    if (KeepsHome() || record->IsOut() || record->fBuffer.Original == nullptr) return;
    const auto size = static_cast<std::size_t>(Layout().CompactSize(record->fBuffer.Original));
    void* const compact = ::operator new(size, std::nothrow);
    if (compact == nullptr) return;
    std::memcpy(compact, record->fBuffer.Original, size);
    ::operator delete(record->fBuffer.Original);
    record->fBuffer.Original = static_cast<std::byte*>(compact);
    record->fRowFlags |= TKdsRecord::CompactBit;
}

// The buffer in full size: its compact form has no room behind the last value.
void TKdsTable::ExpandBuffer(std::byte*& buffer) {
    std::byte* const full = InitBuffer();
    std::memcpy(full, buffer, static_cast<std::size_t>(Layout().CompactSize(buffer)));
    ::operator delete(std::exchange(buffer, full));
}

void TKdsTable::RetainReferences(const std::byte* buffer) noexcept {
    for (const std::int32_t column : Layout().ReferenceColumns()) {
        const TKdsSlot& slot = Layout().Slot(column);
        if (!slot.HasValue(buffer)) continue;
        if (slot.Kind == skMemo) {
            TAnsiString::Retain(LoadRaw<void*>(buffer + slot.Offset));
        } else if (auto* const intf = LoadRaw<IInterface*>(buffer + slot.Offset)) {
            intf->Retain();
        }
    }
}

void TKdsTable::ReleaseReferences(std::byte* buffer) noexcept {
    for (const std::int32_t column : Layout().ReferenceColumns()) {
        const TKdsSlot& slot = Layout().Slot(column);
        if (!slot.HasValue(buffer)) continue;
        if (slot.Kind == skMemo) {
            TAnsiString text = TAnsiString::Attach(LoadRaw<void*>(buffer + slot.Offset));
            Strings()->ClearString(fColumns->GetItem(column), text);
        } else if (auto* const intf = LoadRaw<IInterface*>(buffer + slot.Offset)) {
            intf->Release();
        }
    }
}

// ---- Detached rows ------------------------------------------------------------------------

namespace {

// Room for so many more, so that adding them cannot fail.
template <typename T>
void ReserveMore(std::vector<T>& items, std::size_t count) {
    if (items.capacity() - items.size() >= count) return;
    items.reserve(std::max<std::size_t>({16, items.size() * 2, items.size() + count}));
}

}  // namespace

void TKdsTable::GrowTrack() { ReserveMore(fDetached, 1); }

void TKdsTable::ReserveDead() { ReserveMore(fDead, 1); }

// The dead wait for the events that name them; when there are none each is buried at once.
void TKdsTable::ReserveDeaths() {
    const auto count = MayBury() ? std::size_t{1} : static_cast<std::size_t>(fRecords->Count());
    ReserveMore(fDetached, count);
    ReserveMore(fDead, count);
    ReserveEvents(count);
}

void TKdsTable::ReserveClear() {
    ReserveDeaths();
    ReserveEvents(5);  // the views go, perhaps twice, and come back
}

void TKdsTable::Track(TKdsRecord* record) {
    ReserveTrack();
    record->fBuffer.DetachedSlot = static_cast<std::int64_t>(fDetached.size());
    fDetached.push_back(record);
}

void TKdsTable::MarkDelayed(std::byte* buffer) const noexcept {
    for (const std::int32_t column : Layout().DelayedColumns()) {
        StoreRaw(buffer + Layout().Slot(column).StampOffset,
                 static_cast<std::uint32_t>(fVersion) - 1);
    }
}

TOwned<TKdsRecord> TKdsTable::TakeLocator() {
    TOwned<TKdsRecord> locator = std::move(fLocator);
    if (locator == nullptr) {
        locator = TKdsRecord::Create(this, false);
        --fOrphanRows;  // it will never be inserted
    }
    // What an earlier search left behind must not take part in this one.
    std::byte* const buffer = locator->fBuffer.Proposed;
    ReleaseReferences(buffer);
    std::memset(buffer, 0, static_cast<std::size_t>(Layout().RecordSize()));
    if (!Layout().DelayedColumns().empty()) FollowMasters();
    for (const std::int32_t column : Layout().DelayedColumns()) {
        // Counts as calculated: what is sought must not be calculated away.
        StoreRaw(buffer + Layout().Slot(column).StampOffset, fVersion);
    }
    return locator;
}

void TKdsTable::GiveLocator(TOwned<TKdsRecord>&& locator) noexcept {
    DropLocator();
    if (!Layout().ReferenceColumns().empty() && locator->fTable != nullptr) {
        // The pool need not keep what was sought.
        ReleaseReferences(locator->fBuffer.Proposed);
        std::memset(locator->fBuffer.Proposed, 0, static_cast<std::size_t>(Layout().NullBytes()));
    }
    fLocator = std::move(locator);
}

void TKdsTable::DropLocator() noexcept {
    if (fLocator == nullptr) return;
    ++fOrphanRows;  // its end counts down again
    fLocator.reset();
}

// Rows of the host outlive their table without values.
void TKdsTable::ReleaseDetached() noexcept {
    while (!fDetached.empty()) {
        TKdsRecord* const record = fDetached.back();
        fDetached.pop_back();
        FreeBuffer(record, std::exchange(record->fBuffer.Proposed, nullptr));
        record->LeaveTable();
    }
}

void TKdsTable::CheckRestructure() {
    const std::size_t locators = fLocator != nullptr ? 1 : 0;
    if ((fRecords != nullptr && fRecords->Count() > 0) || fDetached.size() > locators) {
        KdsError(u"CannotRestructure", {Name()});
    }
    DropLocator();
}

void TKdsTable::LayoutChanged() noexcept {
    ViewsChanged();
    for (TSlab** const slab : {&fSlab, &fBareSlab}) {
        if (*slab != nullptr) std::exchange(*slab, nullptr)->Abandon();
    }
    ::operator delete(std::exchange(fSpareBuffer, nullptr));
}

// ---- Load brackets ------------------------------------------------------------------------

void TKdsTable::EnterLoad(TKdsTableStatus status) {
    TKdsTravelGuard guard;  // links hear of it, and may end the table
    CheckNotBusy();
    if (fLoadLocks > 0) {
        ++fLoadLocks;
        return;
    }
    if (status == mtsDestroy || status == mtsMassive) {
        TScopeGuard undo([&] {
            try {
                if (fViews != nullptr) fViews->SetActive(true);
            } catch (...) {
            }
        });
        // Before the status: the links hear the views go while the table is still regular.
        fViews->SetActive(false);
        undo.Dismiss();
    }
    ++fLoadLocks;
    fStatus = status;
    Notify(acStatusChanged, nullptr, 0);
}

void TKdsTable::LeaveLoad() {
    if (fLoadLocks == 0) return;
    if (fLoadLocks == 1) CheckNotBusy();
    if (--fLoadLocks > 0) return;
    TKdsChangeBracket bracket(this);  // links hear of it when all views are built
    const TKdsTableStatus status = std::exchange(fStatus, mtsRegular);
    TFirstError errors;
    if (status == mtsDestroy || status == mtsMassive) {
        errors.Run([&] { fViews->SetActive(true); });
    }
    errors.Run([&] { Notify(acStatusChanged, nullptr, 0); });
    bracket.Close(errors);
    errors.Rethrow();
}

void TKdsTable::Clear() {
    DropLocator();
    if (fStatus == mtsDestroy || fRecords->Count() == 0) return;
    CheckNotBusy();
    ReserveClear();
    TKdsChangeBracket bracket(this);
    EnterLoad(mtsDestroy);
    TFirstError errors;
    // Inside a bracket that keeps the views on they would follow every row out; they are built
    // again at the end instead.
    const bool switchesOff = fViews->Active();
    errors.Run([&] {
        if (switchesOff) fViews->SetActive(false);
    });
    errors.Run([&] { fRecords->Clear(); });
    errors.Run([&] {
        if (fRecords->Count() > 0) return;  // somebody keeps a row
        // Not before, or such a row might lose its values with the file.
        fSwaps = false;
        errors.Run([&] { fSwapper->Clear(); });
        fStrings->Clear();
        fLastRowID = 0;
        fOrphanRows = 0;
        fVersion = 0;
        ++fChangeCount;
        fPosts.fill(NoRowID);
        UnresolveReaders();
        for (TKdsColumn* const column : *fColumns) column->fAutoIncNext = column->fAutoIncSeed;
    });
    errors.Run([&] {
        if (switchesOff && fLoadLocks > 1) fViews->SetActive(true);
    });
    errors.Run([&] { LeaveLoad(); });
    bracket.Close(errors);
    ForgetVocabularies();
    errors.Rethrow();
}

// New rows take the identifiers of those that have gone.
void TKdsTable::UnresolveReaders() noexcept {
    for (const TKdsColumn* const column : fReferrers) {
        const TKdsTable* const table = column->Table();
        if (table == nullptr || !column->IsVirtual() || column->ActualSize() == 0) continue;
        for (TKdsRecord* const row : *table->Records()) row->Unresolve(column);
        for (TKdsRecord* const row : table->fDetached) row->Unresolve(column);
    }
}

// ---- Change brackets ----------------------------------------------------------------------

void TKdsTable::ReserveEvents(std::size_t each) {
    if (fViews != nullptr) {
        ReserveMore(fEvents,
                    each * (static_cast<std::size_t>(fViews->end() - fViews->begin()) + 1));
    }
}

bool TKdsTable::QueueEvent(TKdsView* view, const TKdsEvent& event) noexcept {
    try {
        fEvents.push_back({view, event});
        if (event.Origin != nullptr) ++fQueuedOrigins;
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void TKdsTable::ForgetView(TKdsView* view) noexcept {
    for (TKdsQueuedEvent& queued : fEvents) {
        if (queued.View == view) queued.View = nullptr;
    }
}

void TKdsTable::ForgetRecord(const TKdsRecord* record) noexcept {
    for (TKdsQueuedEvent& queued : fEvents) {
        if (queued.Event.Origin == record) queued.Event.Origin = nullptr;
    }
    if (fChangeDesk != nullptr) fChangeDesk->ForgetRecord(record);
    for (TKdsTableScope* scope = fScopes; scope != nullptr; scope = scope->fNext) {
        if (scope->fRecord == record) scope->fRecord = nullptr;
    }
}

// ---- Scopes of the host -------------------------------------------------------------------

TKdsTableScope::TKdsTableScope(TKdsTable* table) : fTable(table) {
    if (table == nullptr) throw EInvalidArgument(u"There is no table or record to begin with");
    fNext = std::exchange(table->fScopes, this);
}

TKdsTableScope::~TKdsTableScope() {
    if (fTable == nullptr) return;
    TKdsTableScope** link = &fTable->fScopes;
    while (*link != this) link = &(*link)->fNext;
    *link = fNext;
}

void TKdsTableScope::CheckOpen() const {
    if (!fOpen || fTable == nullptr) KdsError(u"RecordStateInvalid");
}

void TKdsTable::ForgetScopes() noexcept {
    while (fScopes != nullptr) {
        TKdsTableScope* const scope = fScopes;
        fScopes = scope->fNext;
        scope->fTable = nullptr;
        scope->fRecord = nullptr;
    }
}

TKdsEdit::TKdsEdit(TKdsRecord* record) : TKdsTableScope(TableOf(record)) {
    record->Edit();
    fRecord = record;
}

TKdsTable* TKdsEdit::TableOf(TKdsRecord* record) noexcept {
    if (record == nullptr) return nullptr;
    record->PrefetchWhole();
    return record->Table();
}

TKdsEdit::~TKdsEdit() {
    if (fOpen && fRecord != nullptr) fRecord->Cancel();
}

// What raises before the values were exchanged leaves the edit open; the record may also be gone
// by the hand of a link, and then there is nothing left to cancel.
void TKdsEdit::Post() {
    CheckOpen();
    if (fRecord == nullptr) KdsError(u"RecordStateInvalid");
    fRecord->Post();
    fOpen = false;
}

TKdsLoad::TKdsLoad(TKdsTable* table, TKdsTableStatus status) : TKdsTableScope(table) {
    const std::int32_t before = table->fLoadLocks;
    try {
        table->EnterLoad(status);
    } catch (...) {
        // A receiver of the news raised: the bracket stands, but nobody would leave it.
        if (fTable != nullptr && table->fLoadLocks > before) End();
        throw;
    }
}

TKdsLoad::~TKdsLoad() {
    if (fOpen && fTable != nullptr) End();
}

void TKdsLoad::End() noexcept {
    try {
        Leave();
    } catch (...) {
    }
}

void TKdsLoad::Leave() {
    CheckOpen();
    fOpen = false;
    fTable->LeaveLoad();
}

void TKdsTable::CloseBracket(TFirstError& errors) noexcept {
    --fBracket;
    if (!fReferrers.empty() && fBracket == 0 && !fDelivers) FreshenReaders(errors);
    if (fEvents.empty() && fDead.empty() && fChangeDesk == nullptr) return;
    // What the handlers of events change makes change lists of its own.
    if (fBracket == 0 && fChangeDesk != nullptr) fChangeDesk->Seal(errors);
    if (fBracket == 0 && !fDelivers) DeliverEvents(errors);
    if (fChangeDesk != nullptr) fChangeDesk->Deliver(errors);
    if (MayBury()) BuryDead();
}

TKdsChangeDesk* TKdsTable::ChangeDesk() {
    if (fChangeDesk == nullptr) fChangeDesk = std::make_unique<TKdsChangeDesk>(this);
    return fChangeDesk.get();
}

bool TKdsTable::HoldsChanges() const noexcept { return fChangeDesk->HoldsRows(); }

// Events of operations nested in a link's handler join the queue and arrive in order.
void TKdsTable::DeliverEvents(TFirstError& errors) noexcept {
    fDelivers = true;
    for (std::size_t next = 0; next < fEvents.size(); ++next) {
        const TKdsQueuedEvent queued = fEvents[next];
        if (queued.View == nullptr) continue;
        errors.Run([&] { queued.View->Deliver(queued.Event); });
    }
    fEvents.clear();
    fQueuedOrigins = 0;
    fDelivers = false;
}

void TKdsTable::BuryDead() noexcept {
    // A handler may have put a row back: then it lives.
    for (std::size_t next = 0; next < fDead.size(); ++next) {
        TKdsRecord* const record = fDead[next];
        if (record->Owner() == nullptr && !record->IsDead()) record->FreeForced();
    }
    fDead.clear();
}

}  // namespace kds
