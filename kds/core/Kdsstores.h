// Stores: the named containers at the top of the data model, and their table lists.
//
// Shape      Stores() owns the stores; a store owns its table list, which owns the tables and
//            keeps a sorted index of their names.
// Ownership  Create and Add answer borrowed pointers; Free or deletion from the list ends them.
// Errors     DuplicateName for a second name in any case, NameNotFound for an unknown one. A table
//            name with a character above code 127 raises when the table already stands in the
//            list: such a table is reached by position only.
// Cost       Find of a table O(log n), of a store O(n).
// Validity   A table's position changes when a table is added; names and pointers stay.
// Threads    The list of stores is shared: create and end stores from one thread at a time. A
//            store and everything in it is used by one thread at a time.
#pragma once

#include "kds/core/Kdsdata.h"
#include "kds/core/Kdsstrings.h"
#include "kds/core/Kdstypes.h"

namespace kds {

class TKdsStore;
class TKdsTableList;

class TKdsStoreList final : public TKdsNameList {
public:
    using TKdsNameList::Items;
    [[nodiscard]] TKdsStore* Items(std::int32_t index) const;
    [[nodiscard]] TKdsStore* Stores(std::u16string_view name) const;
    [[nodiscard]] TKdsStore* Find(std::u16string_view name) const;
    using TKdsNameList::Notify;
    void Notify(TNotification* notification) override;

private:
    friend TKdsStoreList* Stores();
    TKdsStoreList();
    ~TKdsStoreList() override = default;
};

// The list of all stores. It is never destroyed, so that static objects of a host may use it.
[[nodiscard]] TKdsStoreList* Stores();

class TKdsStore : public TKdsName {
public:
    // Registers itself in Stores(); refused when the name is taken.
    static TKdsStore* Create(std::u16string_view name);
    [[nodiscard]] TKdsTableList* Tables() const noexcept { return fTables.get(); }
    [[nodiscard]] TKdsStringManager* Strings() const noexcept { return fStrings.get(); }
    [[nodiscard]] TKdsVisibility Visibility() const noexcept { return fVisibility; }
    void SetVisibility(TKdsVisibility value);
    // Of this very class, so that notifications of data, which end here, need not come at all.
    [[nodiscard]] bool IsPlain() const noexcept { return fIsPlain; }
    void Clear();  // empties every table and keeps it
    void Reset();  // removes every table
    using TKdsName::Notify;
    void Notify(TNotification* notification) override;

protected:
    explicit TKdsStore(std::u16string_view name);
    ~TKdsStore() override;
    void BeforeDestruction() override;
    void Teardown() noexcept override;

private:
    friend class TKdsStoreList;
    void CheckNotBusy() const;

    TOwned<TKdsTableList> fTables;
    TOwned<TKdsStringManager> fStrings;
    TKdsVisibility fVisibility = viRegular;
    bool fIsPlain = false;
};

class TKdsTableList final : public TKdsNameList {
public:
    // In name order as of the last addition; a rename does not move a table.
    using TKdsNameList::Items;
    [[nodiscard]] TKdsTable* Items(std::int32_t index) const;
    [[nodiscard]] TKdsTable* Tables(std::u16string_view name) const;
    [[nodiscard]] TKdsTable* Find(std::u16string_view name) const;
    TKdsTable* Add(std::u16string_view name);
    TKdsTable* Add(TOwned<TKdsTable>&& table);
    [[nodiscard]] TKdsStore* Store() const noexcept { return fStore; }
    using TKdsNameList::Notify;
    void Notify(TNotification* notification) override;
    void Handle(TNotification* notification) override;
    [[nodiscard]] TKdsName* FindByName(std::u16string_view name) const override;
    [[nodiscard]] bool IsConsistent() const override;

    // Range-for over the tables, in list order; good until the list changes.
    class TIterator {
    public:
        TIterator(const TKdsTableList* list, std::int32_t index) noexcept
            : fList(list), fIndex(index) {}
        TKdsTable* operator*() const { return fList->Items(fIndex); }
        TIterator& operator++() noexcept {
            ++fIndex;
            return *this;
        }
        friend bool operator==(const TIterator&, const TIterator&) = default;

    private:
        const TKdsTableList* fList;
        std::int32_t fIndex;
    };
    [[nodiscard]] TIterator begin() const noexcept { return {this, 0}; }
    [[nodiscard]] TIterator end() const { return {this, Count()}; }

private:
    friend class TKdsStore;
    explicit TKdsTableList(TKdsStore* store);
    ~TKdsTableList() override = default;
    void IndexName(TKdsTable* table);

    TKdsStore* fStore;
    TKdsStringList fNames;
};

}  // namespace kds
