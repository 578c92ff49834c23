// View storages: where a view keeps its rows in order, and how it finds them again.
//
// Shape      A storage answers how many rows there are, which row stands at a position, where a
//            row stands (Find) and where a key would stand (Search). All storages answer alike;
//            they differ in speed and memory. The factory of a table makes the storage of each new
//            view: StorageFactory answers a ready-made one, and a host may write its own.
// Units      Positions are rows: signed 32-bit, from 0; -1 means nowhere.
// Ownership  The view owns its storage; the storage borrows records. Enumerators end with the
//            storage.
// Errors     std::bad_alloc; what a host's comparer raises. A storage that raised is dismissed by
//            its view.
// Cost       Stated by each storage; docs/storages.md compares them.
// Validity   Positions shift with every change.
// Threads    One thread at a time. A sort may use several and returns after the last.
#pragma once

#include <memory>
#include <span>
#include <vector>

#include "kds/containers/Listenumerator.h"
#include "kds/core/Kdstables.h"

namespace kds {

enum class TKdsLocateOption : std::uint8_t {
    loNoCase,
    loPartial,
    loLastRow,
    loNearest,
    loNoKeyRow,
    loUseRowID
};
using enum TKdsLocateOption;
using TKdsLocateOptions = TSet<TKdsLocateOption>;

// Walks the records of a storage; ends when the storage is cleared or sorted. Changes meanwhile may
// make it skip a row or meet one twice, no more.
class IKdsRecordEnumerator : public IInterface {
public:
    virtual bool MoveNext() = 0;
    [[nodiscard]] virtual TKdsRecord* GetCurrent() const = 0;
};

// What a storage shows of its rows.
class TKdsViewRecords {
public:
    TKdsViewRecords() = default;
    TKdsViewRecords(const TKdsViewRecords&) = delete;
    TKdsViewRecords& operator=(const TKdsViewRecords&) = delete;
    virtual ~TKdsViewRecords() { EndEnumerators(); }
    [[nodiscard]] virtual std::int32_t GetCount() const = 0;
    // nullptr for a position out of range.
    [[nodiscard]] virtual TKdsRecord* GetItem(std::int32_t index) const = 0;
    // The same, without a call where the rows lie in one array.
    [[nodiscard]] TKdsRecord* At(std::int32_t index) const {
        // One comparison: a negative position becomes a huge one.
        const auto place = static_cast<std::size_t>(static_cast<std::uint32_t>(index));
        return place < fArray.size() ? static_cast<TKdsRecord*>(fArray[place]) : GetItem(index);
    }
    [[nodiscard]] virtual TIntf<IKdsRecordEnumerator> GetEnumerator(
        TListEnumeratorDirection direction) = 0;
    // Of those that GetIndexedEnumerator made.
    void EndEnumerators() noexcept;

protected:
    // Walks by position, clamped to the rows that there are.
    [[nodiscard]] TIntf<IKdsRecordEnumerator> GetIndexedEnumerator(
        TListEnumeratorDirection direction);
    // For a storage that keeps its rows in one array: after each change of their number or place.
    void ShowArray(std::span<TKdsItem* const> rows) noexcept { fArray = rows; }

private:
    friend class TKdsIndexedEnumerator;
    std::span<TKdsItem* const> fArray;
    class TKdsIndexedEnumerator* fEnumerators = nullptr;
};

class TKdsViewStorage {
public:
    TKdsViewStorage() = default;
    TKdsViewStorage(const TKdsViewStorage&) = delete;
    TKdsViewStorage& operator=(const TKdsViewStorage&) = delete;
    virtual ~TKdsViewStorage() = default;
    [[nodiscard]] virtual TKdsViewRecords* GetRecords() = 0;
    virtual void Clear() = 0;
    virtual void Append(TKdsRecord* record) = 0;
    virtual void Insert(std::int32_t index, TKdsRecord* record) = 0;
    virtual void Delete(std::int32_t index) = 0;
    // Moves the row at `from` so that it then stands at `to`.
    virtual void Switch(std::int32_t from, std::int32_t to) = 0;
    [[nodiscard]] virtual std::int32_t Find(TKdsRecord* record) = 0;
    // Must not run on an empty storage; `index` and `found` are preset by the view.
    virtual void Search(TKdsRecord* key, TKdsLocateOptions locate, TKdsCompareOptions compare,
                        std::int32_t& index, bool& found);
    virtual void Sort(TKdsCompareOptions compare, bool force) = 0;
    // Appends these rows to an empty storage and, with `sorts`, sorts them. Answers whether it
    // knows that no two rows of a unique view have equal keys.
    virtual bool Build(std::vector<void*>&& records, bool sorts);
    // After the view has filled and sorted its rows.
    virtual void Prepared() {}
    // Sees to it that placing the row with this identifier needs no memory.
    virtual void Reserve(std::uint32_t) {}
    // Brings near what placing the row will read, a step each call, beginning with step 0; answers
    // whether there is another step. A step waits for what the one before has brought, so a table
    // goes through the first steps of all its views, then the second ones. Changes nothing.
    virtual bool Approach(const TKdsRecord*, TKdsApproach, std::int32_t) { return false; }
    [[nodiscard]] virtual bool IsConsistent() { return true; }

    void InvalidateCache() noexcept { CacheValid = false; }
    void SetOwner(TKdsView* owner) noexcept { fOwner = owner; }
    [[nodiscard]] std::int32_t SearchHint() const noexcept { return fSearchHint; }
    void SetSearchHint(std::int32_t value) noexcept { fSearchHint = value; }

protected:
    // The stated bisection, probe by probe, starting at the hint.
    void LiteralSearch(TKdsRecord* key, TKdsLocateOptions locate, TKdsCompareOptions compare,
                       std::int32_t& index, bool& found);
    // Find through the one-entry cache; a miss is not kept.
    template <typename F>
    std::int32_t CachedFind(TKdsRecord* record, F&& find);
    // The one sort behind every storage: records into the order of the view, stable, on several
    // threads where their values can be read there. Answers as Build does.
    bool SortRecords(std::vector<void*>& records, TKdsCompareOptions compare) const;
    [[nodiscard]] static TKdsRecord* RecordOf(void* item) noexcept {
        return static_cast<TKdsRecord*>(item);
    }

    TKdsView* fOwner = nullptr;
    std::int32_t fSearchHint = 0;
    std::uint32_t CacheRowID = NoRowID;
    std::int32_t CacheRecNo = -1;
    bool CacheValid = false;
};

class IKdsStorageFactory : public IInterface {
public:
    [[nodiscard]] virtual std::unique_ptr<TKdsViewStorage> CreateStorage(TKdsTable* table) = 0;
    [[nodiscard]] virtual std::int32_t ExpectedCount(TKdsTable* table) = 0;
};

// Always the skip storage.
class TKdsStorageFactory : public IKdsStorageFactory {
public:
    [[nodiscard]] std::unique_ptr<TKdsViewStorage> CreateStorage(TKdsTable* table) override;
    // The table's rows of now.
    [[nodiscard]] std::int32_t ExpectedCount(TKdsTable* table) override;
};

enum class TKdsStorageKind : std::uint8_t { skSkip, skTree, skList, skLite };
using enum TKdsStorageKind;

// For TKdsTable::SetStorageFactory.
[[nodiscard]] TIntf<IKdsStorageFactory> StorageFactory(TKdsStorageKind kind);

template <typename F>
std::int32_t TKdsViewStorage::CachedFind(TKdsRecord* record, F&& find) {
    const std::uint32_t rowID = record->RowID();
    if (rowID == NoRowID) return -1;
    if (CacheValid && CacheRowID == rowID) return CacheRecNo;
    const std::int32_t index = find();
    // A row that is not here now may be here soon: only what was found is kept.
    if (index >= 0) {
        CacheRowID = rowID;
        CacheRecNo = index;
        CacheValid = true;
    }
    return index;
}

}  // namespace kds
