#include "kds/core/Kdsdata.h"

#include <algorithm>
#include <cassert>
#include <optional>

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdstables.h"
#include "kds/platform/Text.h"
#include "kds/util/Growth.h"

namespace kds {
namespace {

// Where the end that is under way on this thread keeps errors that came too late to refuse it.
constinit thread_local TFirstError* LateErrors = nullptr;

}  // namespace

// ---- Travel -------------------------------------------------------------------------------

void TKdsTravelGuard::EmptyGraveyard() noexcept {
    while (fGraveyard != nullptr) {
        TKdsItem* const dead = fGraveyard;
        fGraveyard = reinterpret_cast<TKdsItem*>(dead->fOwner & ~TKdsItem::DeadBit);
        delete dead;
    }
}

// ---- TKdsItem -----------------------------------------------------------------------------

TOwned<TKdsItem> TKdsItem::Create(TKdsItem* owner) { return TOwned<TKdsItem>(new TKdsItem(owner)); }

void TKdsItem::Notify(TKdsAction action, TKdsItem* target, std::int32_t index) {
    TKdsTravelGuard guard;
    TNotification notification{this, action, target, index};
    Notify(&notification);
}

void TKdsItem::Handle(TNotification*) {}

void TKdsItem::Free() {
    if ((fOwner & (EndingBit | DeadBit)) != 0) return;
    TKdsTravelGuard guard;
    TFirstError late;
    TFirstError* const outer = std::exchange(LateErrors, &late);
    TScopeGuard restore([&] { LateErrors = outer; });
    TScopeGuard lives([&] { fOwner &= ~EndingBit; });
    BeforeDestruction();
    lives.Dismiss();
    Teardown();
    Dispose();
    late.Rethrow();
}

void TKdsItem::BeforeDestruction() {
    fOwner |= EndingBit;
    Notify(acObjectDestroy, nullptr, 0);
}

void TKdsItem::Dispose() noexcept {
    if (TKdsTravelGuard::fDepth == 0) {
        delete this;
        return;
    }
    fOwner = reinterpret_cast<std::uintptr_t>(TKdsTravelGuard::fGraveyard) | DeadBit;
    TKdsTravelGuard::fGraveyard = this;
}

// ---- TKdsList -----------------------------------------------------------------------------

TOwned<TKdsList> TKdsList::Create(TKdsItem* owner, bool ownsObjects, bool broadcaster) {
    return TOwned<TKdsList>(new TKdsList(owner, ownsObjects, broadcaster));
}

void TKdsList::Teardown() noexcept {
    DropAll();
    while (fCursors != nullptr) {
        fCursors->fList = nullptr;
        fCursors = fCursors->fOuter;
    }
    while (fEnumerators != nullptr) {
        fEnumerators->fItems = nullptr;
        fEnumerators = fEnumerators->fNextOfList;
    }
    TKdsItem::Teardown();
}

void TKdsList::DropAll() noexcept {
    try {
        Clear();
        return;
    } catch (...) {
        // A receiver refuses, but the list is going and cannot keep anything.
    }
    while (DoGetCount() > 0) {
        TKdsItem* const item = DoGetItem(DoGetCount() - 1);
        DoDelete(DoGetCount() - 1);
        if (fOwnsObjects && item != nullptr && item->Owner() == this) {
            item->SetOwner(nullptr);
            item->FreeForced();
        }
    }
}

TKdsItem* TKdsList::Items(std::int32_t index) const {
    if (!CheckIndex(index)) ListIndexError(index);
    return DoGetItem(index);
}

std::int32_t TKdsList::IndexOf(const TKdsItem* item) const {
    const std::int32_t count = DoGetCount();
    for (std::int32_t i = 0; i < count; ++i) {
        if (DoGetItem(i) == item) return i;
    }
    return -1;
}

std::int32_t TKdsList::Locate(std::int32_t hint, const TKdsItem* item) const {
    return CheckIndex(hint) && DoGetItem(hint) == item ? hint : TKdsList::IndexOf(item);
}

void TKdsList::CheckInsert(std::int32_t index, const TKdsItem* item) const {
    if (index < 0 || index > DoGetCount()) ListIndexError(index);
    if (item == nullptr) throw EInvalidArgument(u"Cannot insert nil into a list");
}

void TKdsList::Insert(std::int32_t index, TKdsItem* item) {
    if (fOwnsObjects) throw EInvalidArgument(u"An owning list takes owned items only");
    InsertItem(index, item, nullptr, nullptr);
}

void TKdsList::InsertItem(std::int32_t index, TKdsItem* item, TRelease release, void* holder) {
    CheckInsert(index, item);
    if (!fOwnsObjects) {
        if (release != nullptr) throw EInvalidArgument(u"This list borrows its items");
        DoInsert(index, item);
        return;
    }
    const auto refuseForeign = [&] {
        // Two owners would free the item twice.
        if (item->Owner() != nullptr && (item->Owner() != this || TKdsList::IndexOf(item) >= 0)) {
            throw EInvalidArgument(u"The item belongs to a list already");
        }
    };
    refuseForeign();
    TKdsTravelGuard guard;
    Notify(acPrepareInsert, item, index);
    refuseForeign();
    // Receivers may have inserted or removed siblings meanwhile.
    index = std::min(index, DoGetCount());
    DoInsert(index, item);
    if (release != nullptr) release(holder);
    item->SetOwner(this);
    Notify(acConfirmInsert, item, index);
}

void TKdsList::Delete(std::int32_t index) {
    if (!CheckIndex(index)) ListIndexError(index);
    TKdsItem* const item = DoGetItem(index);
    if (!fOwnsObjects) {
        DoDelete(index);
        return;
    }
    TKdsTravelGuard guard;
    Notify(acPrepareDelete, item, index);
    index = Locate(index, item);
    if (index < 0) return;  // a receiver was faster
    DoDelete(index);
    TFirstError errors;
    errors.Run([&] { Notify(acConfirmDelete, item, index); });
    if (item != nullptr && item->Owner() == this) {
        item->SetOwner(nullptr);
        item->FreeForced();
    }
    errors.Rethrow();
}

void TKdsList::Remove(TKdsItem* item) {
    const std::int32_t index = IndexOf(item);
    if (index >= 0) Delete(index);
}

void TKdsList::Move(std::int32_t from, std::int32_t to) {
    if (!CheckIndex(from)) ListIndexError(from);
    if (!CheckIndex(to)) ListIndexError(to);
    if (from != to) DoSwitch(from, to);
}

// From the last to the first. What receivers put in meanwhile stays, or this might never end; an
// element that somebody keeps ends it.
void TKdsList::Clear() {
    TKdsTravelGuard guard;
    TFirstError errors;
    for (std::int32_t left = DoGetCount(); left > 0 && DoGetCount() > 0; --left) {
        left = std::min(left, DoGetCount());
        const TKdsItem* const item = DoGetItem(left - 1);
        errors.Run([&] { Delete(left - 1); });
        if (errors.Any() && CheckIndex(left - 1) && DoGetItem(left - 1) == item) break;
    }
    if (DoGetCount() == 0) DoClear();
    errors.Rethrow();
}

void TKdsList::SetMaximumCapacity(std::int32_t value) {
    if (value == fMaximumCapacity) return;
    // QUIRK: going back to unlimited counts as lowering, so a list with elements refuses it, and a
    // limit that is raised is not compared with the count. Hosts rely on both.
    if ((fMaximumCapacity == 0 || value < fMaximumCapacity) && value < DoGetCount()) {
        KdsError(u"Current capacity exceeds Maximum");
    }
    if (value < 0) KdsError(u"Current capacity exceeds Maximum");
    fMaximumCapacity = value;
    if (value < fLimit) {
        fLimit = value;
        DoResize(value);
    }
}

TIntf<TKdsListEnumerator> TKdsList::GetEnumerator(TListEnumeratorDirection direction) {
    return MakeIntf<TKdsListEnumerator>(this, direction);
}

void TKdsList::Notify(TNotification* notification) {
    if (notification->Action == acObjectDestroy) RemoveDestroyed(notification->Sender);
    TKdsItem::Notify(notification);
}

// The delete pair is sent for a dying element, which may be refused: then the element stays ours
// and its end is refused as a whole.
void TKdsList::RemoveDestroyed(TKdsItem* sender) {
    const bool owned = sender->Owner() == this;
    if (owned) sender->SetOwner(nullptr);
    try {
        Remove(sender);
    } catch (...) {
        if (!owned) throw;
        if (TKdsList::IndexOf(sender) >= 0) {
            sender->SetOwner(this);
            throw;
        }
        // It has left the list already, so its end goes on.
        KeepLateError();
    }
}

void TKdsList::KeepLateError() noexcept {
    if (LateErrors != nullptr) LateErrors->Keep(std::current_exception());
}

void TKdsList::Handle(TNotification* notification) {
    if (!fBroadcaster) return;
    TKdsSteps steps(notification);
    TKdsListCursor cursor(this);
    while (TKdsItem* const item = cursor.Next()) {
        steps.Run([&] { item->Handle(notification); });
    }
    steps.Finish();
}

TKdsItem* TKdsList::DoGetItem(std::int32_t index) const {
    assert(index >= 0 && index < fCount);
    return fItems[static_cast<std::size_t>(index)];
}

std::int32_t TKdsList::DoGetCount() const { return fCount; }

void TKdsList::DoResize(std::int32_t newCapacity) {
    fItems.resize(static_cast<std::size_t>(newCapacity));
    if (newCapacity == 0) fItems.shrink_to_fit();
}

void TKdsList::RaiseFull() const { KdsError(u"MaximumCapacity"); }

void TKdsList::DoInsert(std::int32_t index, TKdsItem* item) {
    if (fCount == fLimit) {
        if (fMaximumCapacity > 0 && fCount >= fMaximumCapacity) RaiseFull();
        std::int32_t capacity = GrownCapacity(fLimit);
        if (fMaximumCapacity > 0) capacity = std::min(capacity, fMaximumCapacity);
        DoResize(capacity);
        fLimit = capacity;
    }
    const auto begin = fItems.begin() + index;
    std::move_backward(begin, fItems.begin() + fCount, fItems.begin() + fCount + 1);
    *begin = item;
    ++fCount;
    for (TKdsListCursor* cursor = fCursors; cursor != nullptr; cursor = cursor->fOuter) {
        // Whatever comes in, the elements that were there at the start are all visited.
        if (index < cursor->fNext) ++cursor->fNext;
        if (index < cursor->fBound) ++cursor->fBound;
    }
}

void TKdsList::DoDelete(std::int32_t index) {
    const auto begin = fItems.begin() + index;
    std::move(begin + 1, fItems.begin() + fCount, begin);
    --fCount;
    fItems[static_cast<std::size_t>(fCount)] = nullptr;
    for (TKdsListCursor* cursor = fCursors; cursor != nullptr; cursor = cursor->fOuter) {
        if (index < cursor->fNext) --cursor->fNext;
        if (index < cursor->fBound) --cursor->fBound;
    }
}

void TKdsList::DoSwitch(std::int32_t from, std::int32_t to) {
    const auto begin = fItems.begin();
    if (from < to) {
        std::rotate(begin + from, begin + from + 1, begin + to + 1);
    } else {
        std::rotate(begin + to, begin + from, begin + from + 1);
    }
}

void TKdsList::DoClear() {
    fCount = 0;
    fLimit = 0;
    DoResize(0);
}

bool TKdsList::IsConsistent() const {
    if (fCount < 0 || fCount > fLimit || static_cast<std::size_t>(fLimit) != fItems.size()) {
        return false;
    }
    for (std::int32_t i = 0; i < fCount; ++i) {
        const TKdsItem* const item = fItems[static_cast<std::size_t>(i)];
        if (fOwnsObjects && (item == nullptr || item->Owner() != this)) return false;
    }
    return true;
}

// ---- TKdsListEnumerator -------------------------------------------------------------------

TKdsListEnumerator::TKdsListEnumerator(TKdsList* list, TListEnumeratorDirection direction)
    : fItems(list),
      fIndex(direction == ledForward ? -1 : list->Count()),
      fOrder(direction),
      fNextOfList(list->fEnumerators) {
    list->fEnumerators = this;
}

TKdsListEnumerator::~TKdsListEnumerator() {
    if (fItems == nullptr) return;
    TKdsListEnumerator** link = &fItems->fEnumerators;
    while (*link != this) link = &(*link)->fNextOfList;
    *link = fNextOfList;
}

bool TKdsListEnumerator::MoveNext() {
    if (fItems == nullptr) return false;
    if (fOrder == ledForward) {
        if (fIndex >= fItems->Count() - 1) return false;
        ++fIndex;
        return true;
    }
    // The list may have shrunk since the start was fixed.
    fIndex = std::min(fIndex, fItems->Count());
    if (fIndex <= 0) return false;
    --fIndex;
    return true;
}

TKdsItem* TKdsListEnumerator::GetCurrent() const {
    return fItems != nullptr && fItems->CheckIndex(fIndex) ? fItems->DoGetItem(fIndex) : nullptr;
}

// ---- TKdsName -----------------------------------------------------------------------------

TOwned<TKdsName> TKdsName::Create(TKdsItem* owner, std::u16string_view name) {
    return TOwned<TKdsName>(new TKdsName(owner, name));
}

void TKdsName::SetName(std::u16string_view newName) {
    if (fName == newName) return;
    TKdsTravelGuard guard;
    std::u16string previous(newName);
    fName.swap(previous);
    TScopeGuard restore([&] { fName.swap(previous); });
    Notify(acPrepareRename, nullptr, 0);
    restore.Dismiss();
    Notify(acConfirmRename, nullptr, 0);
}

// ---- TKdsNameList -------------------------------------------------------------------------

TOwned<TKdsNameList> TKdsNameList::Create(TKdsItem* owner, bool ownsObjects, bool broadcaster) {
    return TOwned<TKdsNameList>(new TKdsNameList(owner, ownsObjects, broadcaster));
}

void TKdsNameList::Notify(TNotification* notification) {
    if (notification->Action == acPrepareInsert && notification->Sender == this) {
        CheckUniqueName(static_cast<TKdsName*>(notification->Target));
    } else if (notification->Action == acPrepareRename && notification->Sender->Owner() == this) {
        CheckUniqueName(static_cast<TKdsName*>(notification->Sender));
    }
    TKdsList::Notify(notification);
}

std::int32_t TKdsNameList::IndexOfName(std::u16string_view name) const {
    const std::int32_t count = DoGetCount();
    for (std::int32_t i = 0; i < count; ++i) {
        const TKdsName* const item = NameAt(i);
        if (item != nullptr && SameText(item->Name(), name)) return i;
    }
    return -1;
}

TKdsName* TKdsNameList::FindByName(std::u16string_view name) const {
    const std::int32_t index = IndexOfName(name);
    return index < 0 ? nullptr : NameAt(index);
}

TKdsName* TKdsNameList::ItemByName(std::u16string_view name) const {
    TKdsName* const item = FindByName(name);
    if (item == nullptr) KdsError(u"NameNotFound", {QualifyName(name)});
    return item;
}

std::u16string TKdsNameList::QualifyName(std::u16string_view name) const {
    return std::u16string(name);
}

std::u16string TKdsNameList::GenerateName(std::u16string_view base) const {
    std::u16string name(base);
    for (std::int32_t number = 0; IndexOfName(name) >= 0; ++number) {
        name = Format(u"%s_%d", {base, number});
    }
    return name;
}

void TKdsNameList::CheckUniqueName(const TKdsName* item) const {
    const std::int32_t count = DoGetCount();
    for (std::int32_t i = 0; i < count; ++i) {
        const TKdsName* const other = NameAt(i);
        if (other == nullptr || other == item) continue;
        if (SameText(other->Name(), item->Name())) KdsError(u"DuplicateName", {item->Name()});
    }
}

void TKdsNameList::Sort() {
    // std::sort over whole pointers: stays inside the array whatever the names are.
    std::sort(fItems.begin(), fItems.begin() + fCount, [](TKdsItem* a, TKdsItem* b) {
        return CompareText(static_cast<TKdsName*>(a)->Name(), static_cast<TKdsName*>(b)->Name(),
                           true) < 0;
    });
}

// ---- Active lists and items ---------------------------------------------------------------

void TKdsActiveItem::PrepareOrDismiss() {
    fActual = Ready();
    if (!fActual) return;
    TScopeGuard undo([&] {
        fActual = false;
        Dismiss();
    });
    Prepare();
    undo.Dismiss();
}

// While the table runs a routine of the host, what is built stays and nothing is built.
void TKdsActiveItem::CheckNotBusy() const {
    if (fTable != nullptr && fTable->IsBusy()) KdsError(u"RecordStateInvalid");
}

// Links hear of what happened on the way when it is over: they may do anything, also to this item.
void TKdsActiveItem::Update() {
    if (fActual == Ready()) return;
    CheckNotBusy();
    TKdsTravelGuard guard;
    std::optional<TKdsChangeBracket> bracket;
    if (fTable != nullptr) {
        fTable->ReserveEvents(1);
        bracket.emplace(fTable);
    }
    TFirstError errors;
    errors.Run([&] {
        if (fActual) Dismiss();
        PrepareOrDismiss();
        Notify(acStatusChanged, nullptr, 0);
    });
    if (bracket) bracket->Close(errors);
    errors.Rethrow();
}

void TKdsActiveItem::Refresh() {
    if (!fActual) return;
    CheckNotBusy();
    TKdsTravelGuard guard;
    Dismiss();
    fActual = false;
    TFirstError errors;
    errors.Run([&] { Update(); });
    // It was prepared and is no longer: that, too, is a change of its status.
    if (errors.Any() && !fActual) errors.Run([&] { Notify(acStatusChanged, nullptr, 0); });
    errors.Rethrow();
}

void TKdsActiveItem::SetActive(bool value) {
    if (value == fActive) return;
    CheckNotBusy();
    fActive = value;
    Update();
}

bool TKdsActiveItem::Ready() const noexcept {
    return fActive && fGroup != nullptr && fGroup->Active();
}

void TKdsActiveItem::Teardown() noexcept {
    try {
        SetActive(false);
    } catch (...) {
        // Nobody can keep the item any more.
    }
    TKdsName::Teardown();
}

TKdsActiveList::TKdsActiveList(TKdsTable* table)
    : TKdsNameList(table, /*ownsObjects=*/true, /*broadcaster=*/true), fTable(table) {}

TOwned<TKdsActiveList> TKdsActiveList::Create(TKdsTable* table) {
    return TOwned<TKdsActiveList>(new TKdsActiveList(table));
}

void TKdsActiveList::SetActive(bool value) {
    if (value == fActive) return;
    if (fTable != nullptr && fTable->IsBusy()) KdsError(u"RecordStateInvalid");
    fActive = value;
    Update();
}

// Links hear of it when it is over for all: what they change must not meet some items that are as
// they were.
void TKdsActiveList::Update() {
    TKdsTravelGuard guard;
    std::optional<TKdsChangeBracket> bracket;
    if (fTable != nullptr) bracket.emplace(fTable);
    TFirstError errors;
    {
        TKdsListCursor cursor(this);
        while (TKdsItem* const item = cursor.Next()) {
            errors.Run([&] { static_cast<TKdsActiveItem*>(item)->Update(); });
        }
    }
    if (bracket) bracket->Close(errors);
    errors.Rethrow();
}

void TKdsActiveList::Notify(TNotification* notification) {
    if (notification->Sender != this || notification->Target == nullptr) {
        TKdsNameList::Notify(notification);
        return;
    }
    auto* const item = static_cast<TKdsActiveItem*>(notification->Target);
    TKdsSteps steps(notification);
    switch (notification->Action) {
        case acConfirmInsert:
            item->fGroup = this;
            item->fTable = fTable;
            steps.Run([&] { item->Update(); });
            steps.Run([&] { TKdsNameList::Notify(notification); });
            break;
        case acPrepareDelete: {
            // Dismissed before it leaves; taken into use again when somebody above refuses.
            const bool wasActive = item->Active();
            TScopeGuard revive([&] {
                try {
                    item->SetActive(wasActive);
                } catch (...) {
                }
            });
            item->SetActive(false);
            TKdsNameList::Notify(notification);
            revive.Dismiss();
            break;
        }
        case acConfirmDelete:
            item->fGroup = nullptr;
            item->fTable = nullptr;
            [[fallthrough]];
        default: steps.Run([&] { TKdsNameList::Notify(notification); }); break;
    }
    steps.Finish();
}

void TKdsActiveList::Clear() {
    TKdsTravelGuard guard;
    TFirstError errors;
    TKdsListCursor cursor(this);
    while (TKdsItem* const item = cursor.Next()) {
        errors.Run([&] { static_cast<TKdsActiveItem*>(item)->SetActive(false); });
    }
    errors.Run([&] { TKdsNameList::Clear(); });
    errors.Rethrow();
}

void TKdsActiveList::Teardown() noexcept {
    try {
        SetActive(false);
    } catch (...) {
    }
    TKdsNameList::Teardown();
}

}  // namespace kds
