#include "kds/views/Kdsliststorage.h"

#include <algorithm>

#include "kds/util/Growth.h"
#include "kds/views/Kdsviews.h"

namespace kds {

// While the view is being built nobody asks where a row stands.
bool TKdsViewStorageList::KeepsIndices() const { return !fOwner->Rebuilds(); }

// The row's entry, or where it would stand.
TKdsRecordIndices::iterator TKdsViewStorageList::EntryOf(std::uint32_t rowID) {
    return std::ranges::lower_bound(fIndices, rowID, {}, &TKdsRecordIndex::RowID);
}

void TKdsViewStorageList::Clear() {
    fRecords.EndEnumerators();
    fRecords.fItems->Clear();
    fRecords.Show();
    fIndices = {};
    InvalidateCache();
}

void TKdsViewStorageList::Append(TKdsRecord* record) { Insert(fRecords.GetCount(), record); }

void TKdsViewStorageList::Insert(std::int32_t index, TKdsRecord* record) {
    InvalidateCache();
    if (!KeepsIndices()) {
        fRecords.fItems->Insert(index, record);
        fRecords.Show();
        return;
    }
    if (fIndices.size() == fIndices.capacity()) {
        const auto capacity = static_cast<std::int32_t>(fIndices.capacity());
        fIndices.reserve(static_cast<std::size_t>(GrownCapacity(capacity)));
    }
    fRecords.fItems->Insert(index, record);
    fRecords.Show();
    if (index < fRecords.GetCount() - 1) {
        for (TKdsRecordIndex& entry : fIndices) entry.RecNo += entry.RecNo >= index ? 1 : 0;
    }
    fIndices.insert(EntryOf(record->RowID()), {record->RowID(), index});
}

void TKdsViewStorageList::Delete(std::int32_t index) {
    const TKdsRecord* const record = fRecords.GetItem(index);
    fRecords.fItems->Delete(index);
    fRecords.Show();
    InvalidateCache();
    if (!KeepsIndices()) return;
    fIndices.erase(EntryOf(record->RowID()));
    if (index == fRecords.GetCount()) return;
    for (TKdsRecordIndex& entry : fIndices) entry.RecNo -= entry.RecNo >= index ? 1 : 0;
}

void TKdsViewStorageList::Switch(std::int32_t from, std::int32_t to) {
    const TKdsRecord* const record = fRecords.GetItem(from);
    fRecords.fItems->Move(from, to);
    InvalidateCache();
    if (!KeepsIndices()) return;
    for (TKdsRecordIndex& entry : fIndices) {
        entry.RecNo -= entry.RecNo >= from ? 1 : 0;
        entry.RecNo += entry.RecNo >= to ? 1 : 0;
    }
    EntryOf(record->RowID())->RecNo = to;
}

std::int32_t TKdsViewStorageList::Find(TKdsRecord* record) {
    return CachedFind(record, [&] {
        const auto entry = EntryOf(record->RowID());
        if (entry == fIndices.end() || entry->RowID != record->RowID()) return -1;
        return fRecords.GetItem(entry->RecNo) == record ? entry->RecNo : -1;
    });
}

void TKdsViewStorageList::Sort(TKdsCompareOptions, bool) {
    fRecords.EndEnumerators();
    std::vector<void*> records;
    records.reserve(static_cast<std::size_t>(fRecords.GetCount()));
    for (std::int32_t i = 0; i < fRecords.GetCount(); ++i) records.push_back(fRecords.GetItem(i));
    SortRecords(records, {coUseRowID});
    fRecords.fItems->Arrange(records);
    InvalidateCache();
    if (KeepsIndices()) Prepared();
}

void TKdsViewStorageList::Prepared() {
    TKdsRecordIndices indices;
    indices.reserve(static_cast<std::size_t>((fRecords.GetCount() / 16 + 1) * 16));
    for (std::int32_t i = 0; i < fRecords.GetCount(); ++i) {
        indices.push_back({fRecords.GetItem(i)->RowID(), i});
    }
    std::ranges::sort(indices, {}, &TKdsRecordIndex::RowID);
    fIndices = std::move(indices);
}

bool TKdsViewStorageList::IsConsistent() {
    const std::int32_t count = fRecords.GetCount();
    if (!KeepsIndices()) return true;
    if (fIndices.size() != static_cast<std::size_t>(count)) return false;
    const bool ascends =
        std::ranges::is_sorted(fIndices, std::less_equal<>{}, &TKdsRecordIndex::RowID);
    return ascends && std::ranges::all_of(fIndices, [&](const auto& entry) {
               const TKdsRecord* const record = fRecords.GetItem(entry.RecNo);
               return record != nullptr && record->RowID() == entry.RowID;
           });
}

}  // namespace kds
