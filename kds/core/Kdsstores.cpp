#include "kds/core/Kdsstores.h"

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdstables.h"

namespace kds {

// ---- The list of stores -------------------------------------------------------------------

TKdsStoreList::TKdsStoreList()
    : TKdsNameList(nullptr, /*ownsObjects=*/true, /*broadcaster=*/false) {}

TKdsStoreList* Stores() {
    static TKdsStoreList* const list = new TKdsStoreList();
    return list;
}

TKdsStore* TKdsStoreList::Items(std::int32_t index) const {
    return static_cast<TKdsStore*>(TKdsNameList::Items(index));
}

TKdsStore* TKdsStoreList::Stores(std::u16string_view name) const {
    return static_cast<TKdsStore*>(ItemByName(name));
}

TKdsStore* TKdsStoreList::Find(std::u16string_view name) const {
    return static_cast<TKdsStore*>(FindByName(name));
}

// While a table runs a routine of the host, its store stays.
void TKdsStoreList::Notify(TNotification* notification) {
    if (notification->Sender == this && notification->Action == acPrepareDelete) {
        static_cast<TKdsStore*>(notification->Target)->CheckNotBusy();
    }
    TKdsNameList::Notify(notification);
}

// ---- TKdsStore ----------------------------------------------------------------------------

TKdsStore::TKdsStore(std::u16string_view name) : TKdsName(nullptr, name) {
    fStrings = MakeOwned<TKdsStringManager>();
    fTables.reset(new TKdsTableList(this));
}

TKdsStore::~TKdsStore() = default;

TKdsStore* TKdsStore::Create(std::u16string_view name) {
    TOwned<TKdsStore> store(new TKdsStore(name));
    store->fIsPlain = true;
    return Stores()->Append(std::move(store));
}

void TKdsStore::CheckNotBusy() const {
    if (fTables == nullptr) return;
    for (const TKdsTable* const table : *fTables) table->CheckNotBusy();
}

void TKdsStore::BeforeDestruction() {
    CheckNotBusy();
    TKdsName::BeforeDestruction();
}

void TKdsStore::Teardown() noexcept {
    // Notifications of the dying tables must not meet a list that is half gone.
    const TOwned<TKdsTableList> ending = std::move(fTables);
    TKdsName::Teardown();
    // `ending` frees the list, and with it the tables, as the last step.
}

void TKdsStore::Notify(TNotification* notification) {
    // Data notifications end here: their table has dealt with them on their way up.
    if (notification->Sender->Sphere() != spMeta) return;
    TKdsSteps steps(notification);
    if (fTables != nullptr) steps.Run([&] { fTables->Handle(notification); });
    steps.Run([&] { TKdsName::Notify(notification); });
    steps.Finish();
}

void TKdsStore::SetVisibility(TKdsVisibility value) {
    if (value == fVisibility) return;
    fVisibility = value;
    TKdsTravelGuard guard;
    TFirstError errors;
    TKdsListCursor cursor(fTables.get());
    while (TKdsItem* const table = cursor.Next()) {
        errors.Run([&] { table->Notify(acStatusChanged, nullptr, 0); });
    }
    errors.Rethrow();
}

void TKdsStore::Clear() {
    CheckNotBusy();
    // What can fail comes before the first table is emptied.
    for (TKdsTable* const table : *fTables) table->ReserveClear();
    TKdsTravelGuard guard;
    TFirstError errors;
    TKdsListCursor cursor(fTables.get());
    while (TKdsItem* const table = cursor.Next()) {
        errors.Run([&] { static_cast<TKdsTable*>(table)->Clear(); });
    }
    fStrings->Clear();
    errors.Rethrow();
}

void TKdsStore::Reset() {
    CheckNotBusy();
    TKdsTravelGuard guard;
    TFirstError errors;
    errors.Run([&] { fTables->Clear(); });
    fStrings->Clear();
    errors.Rethrow();
}

// ---- TKdsTableList ------------------------------------------------------------------------

TKdsTableList::TKdsTableList(TKdsStore* store)
    : TKdsNameList(store, /*ownsObjects=*/true, /*broadcaster=*/true), fStore(store) {}

TKdsTable* TKdsTableList::Items(std::int32_t index) const {
    return static_cast<TKdsTable*>(TKdsNameList::Items(index));
}

TKdsTable* TKdsTableList::Tables(std::u16string_view name) const {
    return static_cast<TKdsTable*>(ItemByName(name));
}

TKdsTable* TKdsTableList::Find(std::u16string_view name) const {
    return static_cast<TKdsTable*>(FindByName(name));
}

TKdsName* TKdsTableList::FindByName(std::u16string_view name) const {
    return static_cast<TKdsTable*>(fNames.FindObject(name));
}

TKdsTable* TKdsTableList::Add(TOwned<TKdsTable>&& table) {
    TKdsTable* const kept = Append(std::move(table));
    Sort();
    return kept;
}

TKdsTable* TKdsTableList::Add(std::u16string_view name) {
    TKdsTable* const table = Add(TKdsTable::Create(name));
    Sort();
    return table;
}

void TKdsTableList::Notify(TNotification* notification) {
    if (notification->Sender == this) {
        auto* const table = static_cast<TKdsTable*>(notification->Target);
        if (notification->Action == acPrepareDelete) table->CheckNotBusy();
        if (notification->Action == acConfirmInsert) table->EnterStore(fStore);
        if (notification->Action == acConfirmDelete) table->fStore = nullptr;
    }
    TKdsNameList::Notify(notification);
}

void TKdsTableList::IndexName(TKdsTable* table) { fNames.Add(table->Name(), table); }

void TKdsTableList::Handle(TNotification* notification) {
    TKdsSteps steps(notification);
    const bool ours = notification->Sender == this;
    // So that the index, which follows when the change stands, needs no memory then.
    if (ours && notification->Action == acPrepareInsert) {
        fNames.Reserve(static_cast<TKdsTable*>(notification->Target)->Name());
    } else if (notification->Action == acPrepareRename && notification->Sender->Owner() == this) {
        fNames.Reserve(static_cast<TKdsTable*>(notification->Sender)->Name());
    }
    if (ours && notification->Action == acConfirmInsert) {
        steps.Run([&] { IndexName(static_cast<TKdsTable*>(notification->Target)); });
    } else if (ours && notification->Action == acConfirmDelete) {
        const std::int32_t index =
            fNames.IndexOfObject(static_cast<TKdsTable*>(notification->Target));
        if (index >= 0) fNames.Delete(index);
    } else if (notification->Action == acConfirmRename && notification->Sender->Owner() == this) {
        auto* const table = static_cast<TKdsTable*>(notification->Sender);
        const std::int32_t index = fNames.IndexOfObject(table);
        // A table that never came into the index, for its name, stays out of it.
        if (index >= 0) {
            fNames.Delete(index);
            steps.Run([&] { IndexName(table); });
        }
    }
    steps.Run([&] { TKdsNameList::Handle(notification); });
    steps.Finish();
}

bool TKdsTableList::IsConsistent() const {
    if (!TKdsNameList::IsConsistent() || !fNames.IsConsistent()) return false;
    for (std::int32_t i = 0; i < fNames.Count(); ++i) {
        const auto* const table = static_cast<TKdsTable*>(fNames.Objects(i));
        if (!Contains(table) || table->Name() != fNames.Strings(i)) return false;
    }
    return true;
}

}  // namespace kds
