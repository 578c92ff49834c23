// The lite storage: rows in chunks of an array, and nothing else.
//
// Shape      A smart list of the records in the order of the view. A row is found by its key; only
//            where the order may have changed without notice, all rows are looked through.
// Cost       Row at a position O(log n), O(1) in sequence; Find and Search O(log n) comparisons;
//            Insert, Delete and Switch O(n / 2048) and a move of at most 2048 pointers. 8 bytes a
//            row after a build, up to twice that after edits.
#pragma once

#include "kds/containers/Smartlist.h"
#include "kds/views/Kdsstorages.h"

namespace kds {

class TKdsViewRecordLite final : public TKdsViewRecords {
public:
    [[nodiscard]] std::int32_t GetCount() const override { return fItems.Count(); }
    [[nodiscard]] TKdsRecord* GetItem(std::int32_t index) const override {
        if (index < 0 || index >= fItems.Count()) return nullptr;
        return static_cast<TKdsRecord*>(fItems.Get(index));
    }
    [[nodiscard]] TIntf<IKdsRecordEnumerator> GetEnumerator(
        TListEnumeratorDirection direction) override {
        return GetIndexedEnumerator(direction);
    }
    TSmartList fItems{2048, 256};
};

class TKdsViewStorageLite final : public TKdsViewStorage {
public:
    [[nodiscard]] TKdsViewRecords* GetRecords() override { return &fRecords; }
    void Clear() override;
    void Append(TKdsRecord* record) override;
    void Insert(std::int32_t index, TKdsRecord* record) override;
    void Delete(std::int32_t index) override;
    void Switch(std::int32_t from, std::int32_t to) override;
    [[nodiscard]] std::int32_t Find(TKdsRecord* record) override;
    void Sort(TKdsCompareOptions compare, bool force) override;
    void Reserve(std::uint32_t rowID) override;
    [[nodiscard]] bool IsConsistent() override;

private:
    // By the values that the record answers within the scope.
    [[nodiscard]] std::int32_t FindByKey(TKdsRecord* record, const TKdsStateScope& values);

    TKdsViewRecordLite fRecords;
};

}  // namespace kds
