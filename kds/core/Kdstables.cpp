#include "kds/core/Kdstables.h"

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdsstores.h"
#include "kds/core/Kdsswapper.h"
#include "kds/views/Kdsaccept.h"
#include "kds/views/Kdschangefeeds.h"
#include "kds/views/Kdsevents.h"
#include "kds/views/Kdsstorages.h"
#include "kds/views/Kdsviewlists.h"
#include "kds/views/Kdsviews.h"

namespace kds {

// ---- Life ---------------------------------------------------------------------------------

TKdsTable::TKdsTable(std::u16string_view name) : TKdsName(nullptr, name) {}

TKdsTable::~TKdsTable() = default;

TOwned<TKdsTable> TKdsTable::Create(std::u16string_view name) {
    TOwned<TKdsTable> table(new TKdsTable(name));
    table->Init();
    return table;
}

void TKdsTable::Init() {
    fStrings = MakeOwned<TKdsStringManager>();
    fSwapper = std::make_unique<TKdsSwapper>(this);
    fStorageFactory = MakeIntf<TKdsStorageFactory>();
    fColumns.reset(new TKdsTableColumnList(this));
    fRecords.reset(new TKdsTableRecordList(this));
    fViews.reset(new TKdsViewList(this));
}

// A table whose engine is running a callback of the host cannot end under it.
void TKdsTable::BeforeDestruction() {
    CheckNotBusy();
    TKdsName::BeforeDestruction();
}

void TKdsTable::Teardown() noexcept {
    fStatus = mtsDestroy;
    if (fChangeDesk != nullptr) fChangeDesk->TableEnds();
    try {
        NotifySextons();
    } catch (...) {
    }
    // Nobody looks into a table whose rows are going.
    while (!fReferrers.empty()) {
        TKdsColumn* const column = fReferrers.back();
        fReferrers.pop_back();
        column->ForgetMaster();
    }
    // The views go before the rows: they need not follow each one out.
    if (fViews != nullptr) {
        try {
            fViews->SetActive(false);
        } catch (...) {
        }
    }
    if (fSwapper != nullptr && fRecords != nullptr) {
        try {
            fSwapper->Clear();
        } catch (...) {
        }
    }
    // Observers and links may look at the lists while they hear of the end.
    TKdsTravelGuard guard;
    const auto end = [](auto& list) {
        if (list != nullptr) list->FreeForced();
        (void)list.release();
    };
    try {
        if (fRecords != nullptr) fRecords->Clear();
    } catch (...) {
    }
    fEvents.clear();
    BuryDead();
    DropLocator();
    end(fViews);
    end(fRecords);  // with the rows that somebody put in meanwhile
    BuryDead();
    ReleaseDetached();
    ForgetScopes();
    fSwapper.reset();
    fColumns.reset();
    GiveBack(std::exchange(fSpareBuffer, nullptr));
    for (TSlab** const slab : {&fSlab, &fBareSlab}) {
        if (*slab != nullptr) std::exchange(*slab, nullptr)->Abandon();
    }
    fDeacons.clear();
    fSextons.clear();
    fFilters.clear();
    TKdsName::Teardown();
}

const TIntf<IKdsStorageFactory>& TKdsTable::StorageFactory() const noexcept {
    return fStorageFactory;
}

void TKdsTable::SetStorageFactory(TIntf<IKdsStorageFactory> factory) {
    if (!factory) throw EInvalidArgument(u"A table needs a storage factory");
    fStorageFactory = std::move(factory);
}

TKdsStringManager* TKdsTable::Strings() const noexcept {
    return fStore != nullptr ? fStore->Strings() : fStrings.get();
}

void TKdsTable::EnterStore(TKdsStore* store) noexcept {
    fSwapper->DropLoaded();  // its texts go back to where they came from
    fStore = store;
    ForgetVocabularies();
    fStrings->Clear();
}

void TKdsTable::ForgetVocabularies() noexcept {
    const std::size_t locators = fLocator != nullptr ? 1 : 0;
    if (fColumns == nullptr || fRecords->Count() > 0 || fDetached.size() > locators) return;
    for (const TKdsColumn* const column : *fColumns) column->fVocabulary = nullptr;
}

void TKdsTable::SetOptions(TKdsTableOptions value) {
    if (value == fOptions) return;
    if (fOptions.Has(mtoStaticData) && !value.Has(mtoStaticData)) {
        for (const TKdsColumn* const column : fReferrers) {
            if (column->IsVirtual() && column->Occurences().Has(coShortLookup)) {
                throw EInvalidArgument(u"Short virtual keys need a master with static data");
            }
        }
    }
    if (value.Has(mtoStripNulls) != fOptions.Has(mtoStripNulls)) {
        CheckRestructure();
        fOptions = value;
        LayoutChanged();
        return;
    }
    fOptions = value;
}

std::int32_t TKdsTable::MaxRecordsInMemory() const noexcept {
    return fSwapper->MaxRecordsInMemory();
}

void TKdsTable::SetMaxRecordsInMemory(std::int32_t value) {
    fSwapper->SetMaxRecordsInMemory(value);
}

// ---- Rows ---------------------------------------------------------------------------------

TOwned<TKdsRecord> TKdsTable::NewRow(bool defaults) { return TKdsRecord::Create(this, defaults); }

TOwned<TKdsRecord> TKdsTable::NewRow(std::span<const TVariant> values, bool defaults) {
    TOwned<TKdsRecord> record = NewRow(defaults);
    record->SetValues(values);
    return record;
}

TOwned<TKdsRecord> TKdsTable::NewRow(std::initializer_list<TVariant> values, bool defaults) {
    return NewRow(std::span<const TVariant>(values.begin(), values.size()), defaults);
}

TKdsRecord* TKdsTable::Insert(std::span<const TVariant> values) {
    return fRecords->Add(NewRow(values, true));
}

TKdsRecord* TKdsTable::Insert(std::initializer_list<TVariant> values) {
    return Insert(std::span<const TVariant>(values.begin(), values.size()));
}

TKdsRecord* TKdsTable::Upsert(std::span<const TVariant> values) {
    TKdsRecord* const record = FindByColumnValues(values);
    if (record == nullptr) return Insert(values);
    record->Cancel();
    TKdsEdit edit(record);
    record->SetValues(values);
    edit.Post();
    return record;
}

TKdsRecord* TKdsTable::Upsert(std::initializer_list<TVariant> values) {
    return Upsert(std::span<const TVariant>(values.begin(), values.size()));
}

bool TKdsTable::Delete(std::span<const TVariant> values) {
    TKdsRecord* const record = fRecords->Find(values);
    if (record == nullptr) return false;
    record->Delete();
    return true;
}

bool TKdsTable::Delete(std::initializer_list<TVariant> values) {
    return Delete(std::span<const TVariant>(values.begin(), values.size()));
}

void TKdsTable::FollowAutoIncrement(TKdsRecord* record) {
    for (TKdsColumn* const column : *fColumns) {
        if (!column->fOccurences.Has(coAutoInc)) continue;
        const TVariant value = record->GetDataC(column);
        std::int64_t number = 0;
        const bool isNumber = value.Visit([&]<typename T>(const T& held) {
            if constexpr (std::is_integral_v<T> && !std::is_same_v<T, bool>) {
                number = static_cast<std::int64_t>(held);
                return true;
            }
            return false;
        });
        const std::int64_t step = column->fAutoIncStep;
        const bool beyond =
            step > 0 ? number >= column->fAutoIncNext : step < 0 && number <= column->fAutoIncNext;
        if (isNumber && beyond) column->fAutoIncNext = column->NumberAfter(number);
    }
}

// ---- Notifications ------------------------------------------------------------------------

bool TKdsTable::ClimbsNowhere() const noexcept { return IsInStore() && fStore->IsPlain(); }

bool TKdsTable::IsInStore() const noexcept {
    return fStore != nullptr && Owner() == fStore->Tables();
}

// Data upwards from the table. A list of tables has no part in them, and in its store they end.
void TKdsTable::Climb(TNotification* notification) {
    if (IsInStore()) {
        if (!fStore->IsPlain()) fStore->Notify(notification);
    } else {
        TKdsName::Notify(notification);
    }
}

void TKdsTable::Notify(TNotification* notification) {
    if (!IsOfData(*notification)) {
        TKdsName::Notify(notification);
        return;
    }
    if (!notification->Stands()) {
        Climb(notification);
        return;
    }
    TKdsSteps steps(notification);
    if (notification->Action != acStatusChanged) {
        fVersion = static_cast<std::int32_t>(static_cast<std::uint32_t>(fVersion) + 1);
        CountChange(*notification);
    }
    if (notification->Action == acConfirmDelete || notification->Action == acConfirmUpdate) {
        fKeyFailed = false;  // the rows may fit the key now
    }
    if (fViews != nullptr && !SkipsViews(*notification)) {
        if (fQuietPost != nullptr) {
            const TKdsBuffer& buffer = std::exchange(fQuietPost, nullptr)->fBuffer;
            FindChanges(buffer.Proposed, buffer.Original);
        }
        steps.Run([&] { fViews->Handle(notification); });
    }
    if (notification->Action == acConfirmDelete && !fDeacons.empty()) {
        steps.Run([&] { NotifyDeacons(static_cast<TKdsRecord*>(notification->Target)); });
    }
    steps.Run([&] { Climb(notification); });
    steps.Finish();
}

void TKdsTable::CountChange(const TNotification& notification) noexcept {
    std::uint32_t& post = fPosts[++fChangeCount % fPosts.size()];
    post = NoRowID;
    if (fReferrers.empty() || notification.Action != acConfirmUpdate) return;
    const auto* const record = static_cast<TKdsRecord*>(notification.Sender);
    const bool keepsKeys = std::ranges::none_of(fReferrers, [&](const TKdsColumn* column) {
        const TKdsColumn* const field = column->MasterField();
        if (field == nullptr) return false;
        if (fQuietPost != record) return fChanged.Has(field->Index());
        // A quiet post changes nothing that a view is ordered by.
        return fPrimaryView == nullptr || !fPrimaryView->Columns()->Contains(field);
    });
    if (keepsKeys) post = record->RowID();
}

void TKdsTable::Handle(TNotification* notification) {
    // Data were dealt with on their way up; a table without a store would meet them again here.
    if (notification->Sender->Sphere() == spData) return;
    TKdsSteps steps(notification);
    if (fColumns != nullptr) steps.Run([&] { fColumns->Handle(notification); });
    if (fViews != nullptr) steps.Run([&] { fViews->Handle(notification); });
    UnlinkDeleted(notification);
    steps.Finish();
}

// Whoever holds a pointer clears it when the object has left its list.
void TKdsTable::UnlinkDeleted(TNotification* notification) noexcept {
    TKdsItem* gone = nullptr;
    if (notification->Action == acConfirmDelete) gone = notification->Target;
    if (notification->Action == acObjectDestroy) gone = notification->Sender;
    if (gone == nullptr) return;
    if (gone == fDefaultView) fDefaultView = nullptr;
    if (gone == fPrimaryView) fPrimaryView = nullptr;
}

void TKdsTable::RaiseBusy() const { KdsError(u"RecordStateInvalid"); }

// ---- Observers ----------------------------------------------------------------------------

// Without memory of its own, for everybody must hear of it. An observer may take itself or others
// out meanwhile: its slot is emptied and goes when the outermost walk has ended.
template <typename F>
void TKdsTable::TellAll(std::vector<TIntf<IKdsSexton>>& observers, F&& tell) {
    ++fTelling;
    TFirstError errors;
    const std::size_t count = observers.size();
    for (std::size_t i = 0; i < count && i < observers.size(); ++i) {
        const TIntf<IKdsSexton> observer = observers[i];
        if (observer) errors.Run([&] { tell(*observer); });
    }
    if (--fTelling == 0) {
        std::erase(fDeacons, nullptr);
        std::erase(fSextons, nullptr);
    }
    errors.Rethrow();
}

void TKdsTable::Dismiss(std::vector<TIntf<IKdsSexton>>& observers,
                        const TIntf<IKdsSexton>& observer) noexcept {
    std::ranges::replace(observers, observer, TIntf<IKdsSexton>());
    if (fTelling == 0) std::erase(observers, nullptr);
}

void TKdsTable::AppendDeacon(TIntf<IKdsSexton> observer) {
    if (observer) fDeacons.push_back(std::move(observer));
}

void TKdsTable::RemoveDeacon(const TIntf<IKdsSexton>& observer) { Dismiss(fDeacons, observer); }

void TKdsTable::NotifyDeacons(TKdsRecord* record) {
    TellAll(fDeacons, [&](IKdsSexton& observer) { observer.RecordDeleted(this, record); });
}

void TKdsTable::AppendSexton(TIntf<IKdsSexton> observer) {
    if (observer) fSextons.push_back(std::move(observer));
}

void TKdsTable::RemoveSexton(const TIntf<IKdsSexton>& observer) { Dismiss(fSextons, observer); }

void TKdsTable::NotifySextons() {
    TellAll(fSextons, [&](IKdsSexton& observer) { observer.TableDestroyed(this); });
}

// ---- Consistency --------------------------------------------------------------------------

const char* TKdsTable::Inconsistency() const {
    if (!fColumns->IsConsistent()) return "columns, name index or layout";
    if (!fRecords->IsConsistent()) return "record list";
    if (!fSwapper->IsConsistent()) return "rows that are out";
    if (fBusy != 0 || fBracket != 0 || fTravels != 0) return "an open change";
    if (fWatch.Known && !(fWatch == LookAtViews())) return "what the views look at";
    if (fViewsRest == TRest::Yes && !ViewsRest()) return "whether the views rest";
    if (fStagedEvents != 0 || !fEvents.empty()) return "events left over";
    if (!fDead.empty() && MayBury()) return "deleted rows left over";
    if (fChangeDesk != nullptr && !fChangeDesk->IsSettled()) return "change lists left over";
    for (std::size_t i = 0; i < fDetached.size(); ++i) {
        const TKdsRecord* const record = fDetached[i];
        if (record->EffectiveState() != rsDetached ||
            record->fBuffer.DetachedSlot != static_cast<std::int64_t>(i)) {
            return "list of detached records";
        }
    }
    return fViews->Inconsistency();
}

}  // namespace kds
