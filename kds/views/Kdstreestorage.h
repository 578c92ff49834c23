// The tree storage: rows in a cartesian tree, and a hash from row identifiers to its nodes.
//
// Shape      The tree holds the rows by position. The hash has a bucket for about 8 rows and grows
//            with them.
// Cost       Row at a position O(log n), O(1) when asked again; Find a look into the hash and
//            O(log n) steps up, without reading a key; Search O(log n) comparisons and
//            O(log n * log n) steps; Insert, Delete and Switch O(log n), nothing is moved. About 64
//            bytes a row.
#pragma once

#include <memory>

#include "kds/containers/Cardinalhash.h"
#include "kds/containers/Cartesiantree.h"
#include "kds/views/Kdsstorages.h"

namespace kds {

class TKdsViewRecordTree final : public TKdsViewRecords {
public:
    [[nodiscard]] std::int32_t GetCount() const override { return fItems.GetCount(); }
    [[nodiscard]] TKdsRecord* GetItem(std::int32_t index) const override {
        if (index < 0 || index >= fItems.GetCount()) return nullptr;
        return static_cast<TKdsRecord*>(fItems.ValueOf(index));
    }
    [[nodiscard]] TIntf<IKdsRecordEnumerator> GetEnumerator(
        TListEnumeratorDirection direction) override {
        return GetIndexedEnumerator(direction);
    }
    // Lookups remember where they have been. The nodes are the tree's own, the records are not.
    mutable TCartesianTree fItems{/*owns=*/false};
};

// Row identifier to node. Identifiers from 2147483648 up have a hash of their own, because the
// buckets of a hash keep codes of one sign in order only.
class TKdsNodeMap {
public:
    static constexpr std::int32_t RowsPerBucket = 8;
    // `capacity` rows are expected.
    explicit TKdsNodeMap(std::int32_t capacity) noexcept : fCapacity(capacity) {}
    void Put(std::uint32_t rowID, PCartesianNode node);
    // Of a row that is there: needs no memory.
    void Replace(std::uint32_t rowID, PCartesianNode node) noexcept;
    void Remove(std::uint32_t rowID) noexcept;
    [[nodiscard]] PCartesianNode Get(std::uint32_t rowID) const noexcept;
    void Clear() noexcept;
    [[nodiscard]] std::int32_t Count() const noexcept;
    // Sees to it that the next Put of this identifier needs no memory.
    void Reserve(std::uint32_t rowID);

private:
    using THash = std::unique_ptr<TCardinalHash>;
    [[nodiscard]] const THash& HashOf(std::uint32_t rowID) const noexcept {
        return fHashes[rowID >> 31];
    }
    [[nodiscard]] TCardinalHash& RoomFor(std::uint32_t rowID);

    THash fHashes[2];  // made when their first row comes
    std::int32_t fCapacity;
};

class TKdsViewStorageTree final : public TKdsViewStorage {
public:
    // For about `capacity` rows to begin with.
    explicit TKdsViewStorageTree(std::int32_t capacity) noexcept : fNodes(capacity) {}
    [[nodiscard]] TKdsViewRecords* GetRecords() override { return &fRecords; }
    void Clear() override;
    // At the place that the order gives it. While the view is built at the end: the sort comes.
    void Append(TKdsRecord* record) override;
    void Insert(std::int32_t index, TKdsRecord* record) override;
    void Delete(std::int32_t index) override;
    void Switch(std::int32_t from, std::int32_t to) override;
    [[nodiscard]] std::int32_t Find(TKdsRecord* record) override;
    // Only when `force` is set, or rows were appended while the view is built.
    void Sort(TKdsCompareOptions compare, bool force) override;
    void Prepared() override;
    void Reserve(std::uint32_t rowID) override;
    [[nodiscard]] bool IsConsistent() override;

private:
    [[nodiscard]] std::int32_t PlaceOf(TKdsRecord* record) const;

    TKdsViewRecordTree fRecords;
    TKdsNodeMap fNodes;
    bool fUnsorted = false;
};

}  // namespace kds
