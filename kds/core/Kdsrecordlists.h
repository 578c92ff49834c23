// Lists of records: a plain one that borrows, and the table's own.
//
// Shape      The table's list keeps its records in a skip list, by row identifier as long as rows
//            only come in at the end (rloRowID); a row put in elsewhere makes it rloMixed until at
//            most one row is left.
// Ownership  The table's list owns its records from insertion to deletion.
// Errors     CannotInsertRecord, ColumnNotNull, UniqueViolated, MaximumCapacity leave the row with
//            the caller; CannotDeleteRecord leaves it in the list. RecordStateInvalid when the
//            table is busy with a callback of the host. In rloMixed order IndexOf and FindRowID
//            raise, and so does TKdsRecord::Delete: delete by position there.
// Cost       Add O(log n) for the key and each view; FindRowID, IndexOf O(log n); Items O(log n),
//            O(1) in sequence.
// Validity   Positions shift with every insertion and deletion.
// Threads    One thread at a time.
#pragma once

#include <algorithm>
#include <cassert>
#include <initializer_list>
#include <iterator>
#include <span>
#include <vector>

#include "kds/containers/Smartlist.h"
#include "kds/core/Kdsrecords.h"

namespace kds {

class TKdsRecordList : public TKdsList {
public:
    [[nodiscard]] static TOwned<TKdsRecordList> Create() {
        return TOwned<TKdsRecordList>(new TKdsRecordList(nullptr, false));
    }
    using TKdsList::Items;
    [[nodiscard]] TKdsRecord* Items(std::int32_t index) const {
        return static_cast<TKdsRecord*>(TKdsList::Items(index));
    }
    // Of a list that borrows, and so keeps its records in its own array: without a call; nullptr
    // for a position out of range.
    [[nodiscard]] TKdsRecord* KeptAt(std::int32_t index) const noexcept {
        assert(!OwnsObjects());
        // One comparison: a negative position becomes a huge one.
        if (static_cast<std::uint32_t>(index) >= static_cast<std::uint32_t>(fCount)) return nullptr;
        return static_cast<TKdsRecord*>(fItems[static_cast<std::size_t>(index)]);
    }
    // Of a list that borrows: all its records, where they are kept until the list next changes.
    [[nodiscard]] std::span<TKdsItem* const> Kept() const noexcept {
        assert(!OwnsObjects());
        return std::span(fItems).first(static_cast<std::size_t>(fCount));
    }
    // Of a list that borrows: its records in another order, all of them.
    void Arrange(std::span<void* const> records) noexcept {
        assert(!OwnsObjects() && records.size() == static_cast<std::size_t>(Count()));
        std::ranges::transform(records, fItems.begin(),
                               [](void* item) { return static_cast<TKdsRecord*>(item); });
    }

protected:
    TKdsRecordList(TKdsItem* owner, bool ownsObjects) noexcept
        : TKdsList(owner, ownsObjects, /*broadcaster=*/false) {}
    ~TKdsRecordList() override = default;
};

enum class TKdsRecordListOrder : std::uint8_t { rloRowID, rloMixed };
using enum TKdsRecordListOrder;

class TKdsTableRecordList final : public TKdsRecordList {
public:
    // Takes the row when the table has accepted it; a refused row raises and is still the caller's.
    TKdsRecord* Add(TOwned<TKdsRecord>&& record) {
        TKdsRecord* const kept = record.get();
        InsertItem(fItems.Count(), kept, &ReleaseHolder<TKdsRecord>, &record);
        return kept;
    }
    // By the values of the primary key, in key order; nullptr without a key or a match. Fewer
    // values than the key has columns mean the first row that begins with them.
    [[nodiscard]] TKdsRecord* Find(std::span<const TVariant> values);
    [[nodiscard]] TKdsRecord* Find(std::initializer_list<TVariant> values) {
        return Find(std::span<const TVariant>(values.begin(), values.size()));
    }
    [[nodiscard]] TKdsRecord* FindRowID(std::uint32_t rowID);
    [[nodiscard]] std::int32_t IndexOf(const TKdsItem* record) const override;
    void Delete(std::int32_t index) override;
    // Takes the record out alive: it keeps its values and its row identifier and may be added
    // again. When somebody who is told of it raises, it is out all the same, and gone.
    [[nodiscard]] TOwned<TKdsRecord> Extract(TKdsRecord* record);
    void Clear() override;
    [[nodiscard]] TKdsRecordListOrder Order() const noexcept { return fOrder; }
    [[nodiscard]] TKdsTable* Table() const noexcept { return fTable; }
    using TKdsRecordList::Notify;
    void Notify(TNotification* notification) override;
    [[nodiscard]] bool IsConsistent() const override;

    // Range-for over the records in list order; good until the list changes.
    class TIterator {
    public:
        explicit TIterator(TUnrolledSkipList::TIterator place) noexcept : fPlace(place) {}
        TKdsRecord* operator*() const noexcept { return static_cast<TKdsRecord*>(*fPlace); }
        TIterator& operator++() noexcept {
            ++fPlace;
            return *this;
        }
        friend bool operator==(const TIterator& a, const TIterator& b) noexcept {
            return a.fPlace == b.fPlace;
        }

    private:
        TUnrolledSkipList::TIterator fPlace;
    };
    // Unchecked.
    [[nodiscard]] TKdsRecord* ItemAt(std::int32_t index) const {
        return static_cast<TKdsRecord*>(static_cast<TKdsItem*>(fItems.Get(index)));
    }
    // For lookups, which ask for rows all over the list again and again: nullptr out of range. From
    // an array of all rows, 8 bytes each, which is filled when they have asked for a quarter as
    // many and emptied by the next change of the list.
    [[nodiscard]] TKdsRecord* LookedUp(std::int32_t index) {
        TKdsRecord* const row = InDirectory(index);
        return row != nullptr ? row : LookUp(index);
    }
    // nullptr also while there is no such array.
    [[nodiscard]] TKdsRecord* InDirectory(std::int32_t index) const noexcept {
        // One comparison: a negative position becomes a huge one.
        const auto place = static_cast<std::size_t>(static_cast<std::uint32_t>(index));
        return place < fDirectory.size() ? fDirectory[place] : nullptr;
    }
    [[nodiscard]] TIterator begin() const noexcept { return TIterator(fItems.begin()); }
    [[nodiscard]] TIterator end() const noexcept { return TIterator(fItems.end()); }

protected:
    [[nodiscard]] TKdsItem* DoGetItem(std::int32_t index) const override;
    [[nodiscard]] std::int32_t DoGetCount() const override { return fItems.Count(); }
    void DoResize(std::int32_t) override {}
    void DoInsert(std::int32_t index, TKdsItem* item) override;
    void DoDelete(std::int32_t index) override;
    void DoSwitch(std::int32_t from, std::int32_t to) override;
    void DoClear() override;
    void InsertItem(std::int32_t index, TKdsItem* item, TRelease release, void* holder) override;

private:
    friend class TKdsTable;
    friend class TKdsRecord;
    explicit TKdsTableRecordList(TKdsTable* table);
    ~TKdsTableRecordList() override = default;
    [[nodiscard]] TKdsRecord* LookUp(std::int32_t index);
    void DropDirectory() noexcept {
        fLookups = 0;
        if (!fDirectory.empty()) fDirectory.clear();
    }
    [[nodiscard]] std::int32_t SearchRowID(std::uint32_t rowID) const;
    // Where this very record stands, whatever the order of the list.
    [[nodiscard]] std::int32_t PositionOf(const TKdsItem* item) const;
    // The delete pair. `bury`: the record is freed when the change bracket closes.
    void TakeOut(std::int32_t index, TOwned<TKdsRecord>* keeper, bool bury);
    void RemoveDying(TKdsRecord* record);
    [[nodiscard]] bool HoldsRowID(std::uint32_t rowID) const;
    void CheckComing(TKdsRecord* record);
    void PassPrepareInsert(TNotification* notification);
    void PassConfirmInsert(TNotification* notification, TFirstError& errors);
    void ConfirmPlace(TKdsRecord* record, std::int32_t index);

    TUnrolledSkipList fItems;
    std::vector<TKdsRecord*> fDirectory;  // all rows in order, or none
    std::int32_t fLookups = 0;            // since the rows last changed
    TKdsRecordListOrder fOrder = rloRowID;
    TKdsTable* fTable;
};

}  // namespace kds
