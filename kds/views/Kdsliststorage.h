// The list storage: rows in an array, and an array of their positions by row identifier.
//
// Shape      Two arrays: the records in the order of the view, and {row identifier, position} in
//            the order of the identifiers. While the view is built only the first is kept;
//            Prepared makes the second.
// Cost       Row at a position O(1); Find O(log n) without reading a key; Search O(log n)
//            comparisons; Insert, Delete and Switch O(n), fast ones: three passes over arrays. 16
//            bytes a row after a build, up to a quarter more after edits.
#pragma once

#include <vector>

#include "kds/core/Kdsrecordlists.h"
#include "kds/views/Kdsstorages.h"

namespace kds {

class TKdsViewRecordList final : public TKdsViewRecords {
public:
    TKdsViewRecordList() : fItems(TKdsRecordList::Create()) {}
    [[nodiscard]] std::int32_t GetCount() const override { return fItems->Count(); }
    [[nodiscard]] TKdsRecord* GetItem(std::int32_t index) const override {
        return fItems->KeptAt(index);
    }
    [[nodiscard]] TIntf<IKdsRecordEnumerator> GetEnumerator(
        TListEnumeratorDirection direction) override {
        return GetIndexedEnumerator(direction);
    }
    void Show() noexcept { ShowArray(fItems->Kept()); }
    TOwned<TKdsRecordList> fItems;
};

struct TKdsRecordIndex {
    std::uint32_t RowID;
    std::int32_t RecNo;
};
using TKdsRecordIndices = std::vector<TKdsRecordIndex>;

class TKdsViewStorageList final : public TKdsViewStorage {
public:
    [[nodiscard]] TKdsViewRecords* GetRecords() override { return &fRecords; }
    void Clear() override;
    void Append(TKdsRecord* record) override;
    void Insert(std::int32_t index, TKdsRecord* record) override;
    void Delete(std::int32_t index) override;
    void Switch(std::int32_t from, std::int32_t to) override;
    [[nodiscard]] std::int32_t Find(TKdsRecord* record) override;
    // Always by key, then row identifier, whatever the options.
    void Sort(TKdsCompareOptions compare, bool force) override;
    void Prepared() override;
    [[nodiscard]] bool IsConsistent() override;

private:
    [[nodiscard]] bool KeepsIndices() const;
    [[nodiscard]] TKdsRecordIndices::iterator EntryOf(std::uint32_t rowID);

    TKdsRecordIndices fIndices;  // by row identifier
    TKdsViewRecordList fRecords;
};

}  // namespace kds
