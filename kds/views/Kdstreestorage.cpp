#include "kds/views/Kdstreestorage.h"

#include <algorithm>
#include <bit>

#include "kds/views/Kdsviews.h"

namespace kds {

// ---- TKdsNodeMap --------------------------------------------------------------------------

// The hash of the identifier, large enough for one more row. Its buckets never become more by
// themselves, so that it is replaced by one of twice as many.
TCardinalHash& TKdsNodeMap::RoomFor(std::uint32_t rowID) {
    THash& hash = fHashes[rowID >> 31];
    const std::int32_t rows = hash == nullptr ? fCapacity : hash->GetCount() + 1;
    const auto buckets = static_cast<std::int32_t>(
        std::bit_ceil(static_cast<std::uint32_t>(std::max(rows, 1) - 1) / RowsPerBucket + 1));
    if (hash != nullptr && hash->BucketCount() >= buckets) return *hash;
    auto larger = std::make_unique<TCardinalHash>(buckets);
    if (hash != nullptr) {
        for (const TCardinalBucketItem item : *hash) larger->Put(item.Code, item.Data);
    }
    hash = std::move(larger);
    return *hash;
}

void TKdsNodeMap::Put(std::uint32_t rowID, PCartesianNode node) { RoomFor(rowID).Put(rowID, node); }

void TKdsNodeMap::Replace(std::uint32_t rowID, PCartesianNode node) noexcept {
    HashOf(rowID)->Put(rowID, node);
}

void TKdsNodeMap::Reserve(std::uint32_t rowID) { RoomFor(rowID).Reserve(rowID); }

void TKdsNodeMap::Remove(std::uint32_t rowID) noexcept {
    if (const THash& hash = HashOf(rowID)) hash->Remove(rowID);
}

PCartesianNode TKdsNodeMap::Get(std::uint32_t rowID) const noexcept {
    const THash& hash = HashOf(rowID);
    return hash == nullptr ? nullptr : static_cast<PCartesianNode>(hash->Get(rowID));
}

void TKdsNodeMap::Clear() noexcept {
    for (THash& hash : fHashes) hash.reset();
}

std::int32_t TKdsNodeMap::Count() const noexcept {
    std::int32_t count = 0;
    for (const THash& hash : fHashes) count += hash == nullptr ? 0 : hash->GetCount();
    return count;
}

// ---- TKdsViewStorageTree ------------------------------------------------------------------

void TKdsViewStorageTree::Clear() {
    fRecords.EndEnumerators();
    fNodes.Clear();
    fRecords.fItems.Clear();
    fUnsorted = false;
    InvalidateCache();
}

void TKdsViewStorageTree::Append(TKdsRecord* record) {
    const std::int32_t count = fRecords.GetCount();
    if (fOwner->Rebuilds()) {
        fUnsorted = true;
        Insert(count, record);
        return;
    }
    const bool byRowID = fOwner->GetSortMode() == omRowID && !fOwner->OnCompare();
    const bool isLast =
        byRowID && (count == 0 || fRecords.GetItem(count - 1)->RowID() < record->RowID());
    fSearchHint = isLast ? fSearchHint : PlaceOf(record);
    Insert(isLast ? count : fSearchHint, record);
}

// Behind the last row that sorts before or like it: down the nodes, which every search by probes
// would lead to as well.
std::int32_t TKdsViewStorageTree::PlaceOf(TKdsRecord* record) const {
    const TCartesianTree& items = fRecords.fItems;
    std::int32_t place = 0;
    for (PCartesianNode node = items.Root(); node != nullptr;) {
        const bool before =
            fOwner->CompareMembers(RecordOf(node->Value), record, {coUseRowID}) <= 0;
        if (before) place += TCartesianTree::CountOf(node->Left) + 1;
        node = before ? node->Right : node->Left;
    }
    return place;
}

void TKdsViewStorageTree::Insert(std::int32_t index, TKdsRecord* record) {
    InvalidateCache();
    Reserve(record->RowID());
    fNodes.Put(record->RowID(), fRecords.fItems.Insert(index, record));
}

void TKdsViewStorageTree::Delete(std::int32_t index) {
    fNodes.Remove(fRecords.GetItem(index)->RowID());
    fRecords.fItems.Delete(index);
    InvalidateCache();
}

void TKdsViewStorageTree::Switch(std::int32_t from, std::int32_t to) {
    TKdsRecord* const record = fRecords.GetItem(from);
    Delete(from);
    Insert(to, record);
}

std::int32_t TKdsViewStorageTree::Find(TKdsRecord* record) {
    return CachedFind(record, [&] {
        const PCartesianNode node = fNodes.Get(record->RowID());
        if (node == nullptr || node->Value != record) return -1;
        return fRecords.fItems.IndexOf(node);
    });
}

// The tree keeps its shape; its nodes get the rows in their new order, which cannot fail.
void TKdsViewStorageTree::Sort(TKdsCompareOptions, bool force) {
    if (!force && !fUnsorted) return;
    const TCartesianTree& items = fRecords.fItems;
    std::vector<void*> records;
    records.reserve(static_cast<std::size_t>(items.GetCount()));
    for (const PCartesianNode node : items) records.push_back(node->Value);
    SortRecords(records, {coUseRowID});
    fRecords.EndEnumerators();
    auto next = records.begin();
    for (const PCartesianNode node : items) {
        node->Value = *next++;
        fNodes.Replace(RecordOf(node->Value)->RowID(), node);
    }
    fUnsorted = false;
    InvalidateCache();
}

void TKdsViewStorageTree::Prepared() { fUnsorted = false; }

void TKdsViewStorageTree::Reserve(std::uint32_t rowID) {
    fRecords.fItems.Reserve();
    fNodes.Reserve(rowID);
}

bool TKdsViewStorageTree::IsConsistent() {
    TCartesianTree& items = fRecords.fItems;
    if (!items.IsConsistent() || fNodes.Count() != items.GetCount()) return false;
    return std::ranges::all_of(items, [&](PCartesianNode node) {
        return fNodes.Get(RecordOf(node->Value)->RowID()) == node;
    });
}

}  // namespace kds
