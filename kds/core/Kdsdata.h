// The item model: every object of the store is an item with an owner, and every change travels
// through the items as a notification.
//
// Shape      A notification climbs from its sender through the owners (Notify) and is turned down
//            at the top (Handle); broadcasting lists hand it to each element. A list announces a
//            change with a prepare action, which any level may refuse by raising, makes the change
//            and announces it again with a confirm action.
// Units      Positions and counts are elements: signed 32-bit, counted from 0.
// Ownership  An owning list frees what it deletes; everybody else borrows. Items end through Free.
//            While a notification travels, the memory of an item that was freed is kept, so no
//            loop and no running member function stands on freed memory.
// Errors     EListError for a position out of range, EKdsError for everything the store refuses,
//            EInvalidArgument for nil and for an item that another list owns. A refused change
//            leaves everything as it was. Confirm and status actions stand: every receiver still
//            hears them, and the first error is raised again when all have.
// Cost       Items and Count O(1); IndexOf and name searches O(n); insertion and deletion O(n)
//            pointer moves. One notification costs a virtual call a level.
// Threads    A tree of items is used from one thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kds/containers/Smartlist.h"
#include "kds/platform/Errors.h"
#include "kds/platform/Interface.h"
#include "kds/platform/Object.h"

namespace kds {

class TKdsItem;
class TKdsList;
class TKdsTable;
class TKdsActiveList;

enum class TKdsAction : std::uint8_t {
    acObjectDestroy,
    acPrepareInsert,
    acConfirmInsert,
    acPrepareDelete,
    acConfirmDelete,
    acPrepareRename,
    acConfirmRename,
    acPrepareUpdate,
    acConfirmUpdate,
    acStatusChanged
};
using enum TKdsAction;

enum class TKdsSphere : std::uint8_t { spData, spMeta };
using enum TKdsSphere;

// Filled by the sender, on its own stack.
struct TNotification {
    TKdsItem* Sender = nullptr;
    TKdsAction Action = acObjectDestroy;
    TKdsItem* Target = nullptr;  // the element inserted or deleted; nullptr when about the sender
    std::int32_t Index = 0;      // position in the sender's list; 0 otherwise
    // Whether the change stands already, so that no receiver may be left out.
    [[nodiscard]] bool Stands() const noexcept {
        return Action == acConfirmInsert || Action == acConfirmDelete ||
               Action == acConfirmRename || Action == acConfirmUpdate || Action == acStatusChanged;
    }
};

// Runs the steps of one receiver. While a change may still be refused the first error ends it;
// once it stands, every step runs and Finish raises the first error.
class TKdsSteps {
public:
    explicit TKdsSteps(const TNotification* notification) noexcept
        : fStands(notification->Stands()) {}
    template <typename F>
    void Run(F&& step) {
        if (fStands) {
            fErrors.Run(std::forward<F>(step));
        } else {
            step();
        }
    }
    void Finish() { fErrors.Rethrow(); }

private:
    TFirstError fErrors;
    bool fStands;
};

// Held while a notification or an event travels: items freed meanwhile keep their memory until the
// outermost guard of the thread is left.
class TKdsTravelGuard {
public:
    TKdsTravelGuard() noexcept { ++fDepth; }
    ~TKdsTravelGuard() {
        if (--fDepth == 0 && fGraveyard != nullptr) EmptyGraveyard();
    }
    TKdsTravelGuard(const TKdsTravelGuard&) = delete;
    TKdsTravelGuard& operator=(const TKdsTravelGuard&) = delete;

private:
    friend class TKdsItem;
    static void EmptyGraveyard() noexcept;
    static inline constinit thread_local std::int32_t fDepth = 0;
    static inline constinit thread_local TKdsItem* fGraveyard = nullptr;
};

class TKdsItem : public TObject {
public:
    [[nodiscard]] static TOwned<TKdsItem> Create(TKdsItem* owner);
    [[nodiscard]] TKdsItem* Owner() const noexcept {
        return (fOwner & DeadBit) != 0 ? nullptr : reinterpret_cast<TKdsItem*>(fOwner & ~EndingBit);
    }
    [[nodiscard]] virtual TKdsSphere Sphere() const noexcept { return spData; }
    // Fills a notification with this item as its sender and sends it up.
    void Notify(TKdsAction action, TKdsItem* target, std::int32_t index);
    virtual void Notify(TNotification* notification) {
        if (TKdsItem* const owner = Owner()) {
            owner->Notify(notification);
        } else {
            Handle(notification);
        }
    }
    virtual void Handle(TNotification* notification);
    // As every object; an error of a receiver that heard of the end too late to refuse it is
    // raised when the end is complete. Nothing for an item whose end is under way.
    void Free();
    // Raises acObjectDestroy while every field is whole.
    void BeforeDestruction() override;

protected:
    explicit TKdsItem(TKdsItem* owner) noexcept : fOwner(reinterpret_cast<std::uintptr_t>(owner)) {}
    ~TKdsItem() override = default;
    void Dispose() noexcept override;
    void SetOwner(TKdsItem* owner) noexcept {
        fOwner = reinterpret_cast<std::uintptr_t>(owner) | (fOwner & EndingBit);
    }
    // Only its memory is left, until the notifications that may stand on it have travelled.
    [[nodiscard]] bool IsDead() const noexcept { return (fOwner & DeadBit) != 0; }

private:
    friend class TKdsList;
    friend class TKdsTable;
    friend class TKdsKeyChange;
    friend class TKdsTravelGuard;
    // Set when the end is announced, so that nobody who hears of it ends the item a second time.
    static constexpr std::uintptr_t EndingBit = 2;
    // A dead item needs no owner: the field links the items that wait for their memory to go.
    static constexpr std::uintptr_t DeadBit = 1;
    std::uintptr_t fOwner;
};

// A walk over a list that survives what happens to the list meanwhile: it ends at the elements
// that were there at the start, skips what was removed and ends when the list goes.
class TKdsListCursor {
public:
    explicit TKdsListCursor(TKdsList* list) noexcept;
    ~TKdsListCursor();
    TKdsListCursor(const TKdsListCursor&) = delete;
    TKdsListCursor& operator=(const TKdsListCursor&) = delete;
    // The next element, nullptr at the end.
    [[nodiscard]] TKdsItem* Next();
    // The same in a list that keeps its elements in its own array, as all do but that of records.
    [[nodiscard]] TKdsItem* NextKept() noexcept;

private:
    friend class TKdsList;
    TKdsList* fList;
    std::int32_t fNext = 0;
    std::int32_t fBound;
    TKdsListCursor* fOuter;
};

class TKdsListEnumerator;

class TKdsList : public TKdsItem {
public:
    [[nodiscard]] static TOwned<TKdsList> Create(TKdsItem* owner, bool ownsObjects,
                                                 bool broadcaster);
    [[nodiscard]] std::int32_t Count() const { return DoGetCount(); }
    [[nodiscard]] TKdsItem* Items(std::int32_t index) const;
    [[nodiscard]] bool Contains(const TKdsItem* item) const { return IndexOf(item) >= 0; }
    [[nodiscard]] bool OwnsObjects() const noexcept { return fOwnsObjects; }

    // An owning list takes the item when it has accepted it; a refused item is still the caller's.
    // It also keeps the item when a receiver of the confirmation raises.
    template <typename T>
    T* Append(TOwned<T>&& item) {
        return Insert(Count(), std::move(item));
    }
    template <typename T>
    T* Insert(std::int32_t index, TOwned<T>&& item) {
        T* const kept = item.get();
        InsertItem(index, kept, &ReleaseHolder<T>, &item);
        return kept;
    }
    // For lists that borrow their elements.
    void Append(TKdsItem* item) { Insert(Count(), item); }
    void Insert(std::int32_t index, TKdsItem* item);

    virtual void Delete(std::int32_t index);
    void Remove(TKdsItem* item);
    // Takes the element out at `from` and puts it in so that it then stands at `to`.
    void Move(std::int32_t from, std::int32_t to);
    [[nodiscard]] std::int32_t MaximumCapacity() const noexcept { return fMaximumCapacity; }
    void SetMaximumCapacity(std::int32_t value);
    [[nodiscard]] TIntf<TKdsListEnumerator> GetEnumerator(TListEnumeratorDirection direction);

    using TKdsItem::Notify;
    void Notify(TNotification* notification) override;
    void Handle(TNotification* notification) override;
    [[nodiscard]] virtual std::int32_t IndexOf(const TKdsItem* item) const;
    virtual void Clear();
    // Whether count, capacity and owner links agree. Tests call it after each step.
    [[nodiscard]] virtual bool IsConsistent() const;

protected:
    TKdsList(TKdsItem* owner, bool ownsObjects, bool broadcaster) noexcept
        : TKdsItem(owner), fBroadcaster(broadcaster), fOwnsObjects(ownsObjects) {}
    ~TKdsList() override = default;
    void Teardown() noexcept override;

    // Unchecked: the caller has tested the position.
    [[nodiscard]] virtual TKdsItem* DoGetItem(std::int32_t index) const;
    [[nodiscard]] virtual std::int32_t DoGetCount() const;
    virtual void DoResize(std::int32_t newCapacity);
    virtual void DoInsert(std::int32_t index, TKdsItem* item);
    virtual void DoDelete(std::int32_t index);
    virtual void DoSwitch(std::int32_t from, std::int32_t to);
    virtual void DoClear();

    using TRelease = void (*)(void* holder) noexcept;
    virtual void InsertItem(std::int32_t index, TKdsItem* item, TRelease release, void* holder);
    template <typename T>
    static void ReleaseHolder(void* holder) noexcept {
        (void)static_cast<TOwned<T>*>(holder)->release();
    }
    [[noreturn]] void RaiseFull() const;
    static void ClearOwner(TKdsItem* item) noexcept { item->SetOwner(nullptr); }
    void TakeOwnership(TKdsItem* item) noexcept { item->SetOwner(this); }
    // Where `item` is now: `hint` if it still stands there, else wherever it is, else -1.
    [[nodiscard]] std::int32_t Locate(std::int32_t hint, const TKdsItem* item) const;
    [[nodiscard]] bool CheckIndex(std::int32_t index) const {
        return index >= 0 && index < DoGetCount();
    }
    void CheckInsert(std::int32_t index, const TKdsItem* item) const;
    // For the error being handled, raised by somebody who hears too late that an item ends.
    static void KeepLateError() noexcept;
    // Ends every element, refusals unheard, last first.
    void DropAll() noexcept;

    std::vector<TKdsItem*> fItems;  // its size is the capacity
    std::int32_t fCount = 0;
    std::int32_t fLimit = 0;
    bool fBroadcaster;
    bool fOwnsObjects;
    std::int32_t fMaximumCapacity = 0;  // 0: unlimited

private:
    friend class TKdsListCursor;
    friend class TKdsListEnumerator;
    void RemoveDestroyed(TKdsItem* sender);

    TKdsListCursor* fCursors = nullptr;
    TKdsListEnumerator* fEnumerators = nullptr;
};

inline TKdsListCursor::TKdsListCursor(TKdsList* list) noexcept
    : fList(list), fBound(list->DoGetCount()), fOuter(list->fCursors) {
    list->fCursors = this;
}

inline TKdsListCursor::~TKdsListCursor() {
    if (fList == nullptr) return;
    TKdsListCursor** link = &fList->fCursors;
    while (*link != this) link = &(*link)->fOuter;
    *link = fOuter;
}

inline TKdsItem* TKdsListCursor::Next() {
    if (fList == nullptr || fNext >= fBound || fNext >= fList->DoGetCount()) return nullptr;
    return fList->DoGetItem(fNext++);
}

inline TKdsItem* TKdsListCursor::NextKept() noexcept {
    if (fList == nullptr || fNext >= fBound || fNext >= fList->fCount) return nullptr;
    return fList->fItems[static_cast<std::size_t>(fNext++)];
}

// Walks a list forward or in reverse. A reverse walk starts at the count of its creation.
class TKdsListEnumerator final : public IInterface {
public:
    TKdsListEnumerator(TKdsList* list, TListEnumeratorDirection direction);
    bool MoveNext();
    // nullptr before the first step, after the last, and once the list is gone.
    [[nodiscard]] TKdsItem* GetCurrent() const;

private:
    friend class TKdsList;
    ~TKdsListEnumerator() override;
    TKdsList* fItems;
    std::int32_t fIndex;
    TListEnumeratorDirection fOrder;
    TKdsListEnumerator* fNextOfList;
};

class TKdsName : public TKdsItem {
public:
    [[nodiscard]] static TOwned<TKdsName> Create(TKdsItem* owner, std::u16string_view name);
    [[nodiscard]] const std::u16string& Name() const noexcept { return fName; }
    void SetName(std::u16string_view newName);
    [[nodiscard]] TKdsSphere Sphere() const noexcept override { return spMeta; }

protected:
    TKdsName(TKdsItem* owner, std::u16string_view name) : TKdsItem(owner), fName(name) {}
    ~TKdsName() override = default;

private:
    std::u16string fName;
};

// Names are compared without regard to case, and no two elements bear the same name.
class TKdsNameList : public TKdsList {
public:
    [[nodiscard]] static TOwned<TKdsNameList> Create(TKdsItem* owner, bool ownsObjects,
                                                     bool broadcaster);
    [[nodiscard]] TKdsSphere Sphere() const noexcept override { return spMeta; }
    using TKdsList::Notify;
    void Notify(TNotification* notification) override;
    [[nodiscard]] std::int32_t IndexOfName(std::u16string_view name) const;
    [[nodiscard]] TKdsName* ItemByName(std::u16string_view name) const;
    [[nodiscard]] virtual std::u16string QualifyName(std::u16string_view name) const;
    [[nodiscard]] virtual TKdsName* FindByName(std::u16string_view name) const;
    // The first of base, base_0, base_1... that nobody bears.
    [[nodiscard]] std::u16string GenerateName(std::u16string_view base) const;
    void CheckUniqueName(const TKdsName* item) const;
    // By name; equal names cannot occur, so the order is total.
    virtual void Sort();

protected:
    using TKdsList::TKdsList;
    ~TKdsNameList() override = default;
    [[nodiscard]] TKdsName* NameAt(std::int32_t index) const {
        return static_cast<TKdsName*>(DoGetItem(index));
    }
};

class TKdsActiveItem;

// The active items of one table. Switching the list off dismisses them all.
class TKdsActiveList : public TKdsNameList {
public:
    [[nodiscard]] static TOwned<TKdsActiveList> Create(TKdsTable* table);
    [[nodiscard]] bool Active() const noexcept { return fActive; }
    void SetActive(bool value);
    [[nodiscard]] TKdsTable* Table() const noexcept { return fTable; }
    [[nodiscard]] virtual bool Ready() const noexcept { return fActive && fTable != nullptr; }
    // Every element is brought up to date, also when one of them fails; then its error is raised.
    void Update();
    using TKdsNameList::Notify;
    void Notify(TNotification* notification) override;
    void Clear() override;

protected:
    explicit TKdsActiveList(TKdsTable* table);
    ~TKdsActiveList() override = default;
    void Teardown() noexcept override;

    bool fActive = true;
    TKdsTable* fTable;
};

// Prepared exactly while it is wanted, sits in a group, and the group is switched on.
class TKdsActiveItem : public TKdsName {
public:
    [[nodiscard]] bool Active() const noexcept { return fActive; }
    void SetActive(bool value);
    [[nodiscard]] bool Actual() const noexcept { return fActual; }
    [[nodiscard]] TKdsActiveList* Group() const noexcept { return fGroup; }
    [[nodiscard]] TKdsTable* Table() const noexcept { return fTable; }
    [[nodiscard]] virtual bool Ready() const noexcept;
    virtual void Prepare() {}
    virtual void Dismiss() {}
    // Prepares or dismisses the item when its readiness has changed. When Prepare raises, the item
    // is dismissed, stays wanted and is tried again by the next Update.
    void Update();
    // Builds a prepared item anew; nothing for one that is not prepared.
    void Refresh();

protected:
    TKdsActiveItem(TKdsItem* owner, std::u16string_view name) : TKdsName(owner, name) {}
    ~TKdsActiveItem() override = default;
    void Teardown() noexcept override;
    void PrepareOrDismiss();
    void CheckNotBusy() const;

    bool fActive = false;
    bool fActual = false;
    TKdsActiveList* fGroup = nullptr;
    TKdsTable* fTable = nullptr;

private:
    friend class TKdsActiveList;
};

}  // namespace kds
