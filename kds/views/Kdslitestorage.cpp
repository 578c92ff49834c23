#include "kds/views/Kdslitestorage.h"

#include "kds/views/Kdsviews.h"

namespace kds {

void TKdsViewStorageLite::Clear() {
    fRecords.EndEnumerators();
    fRecords.fItems.Clear();
    InvalidateCache();
}

void TKdsViewStorageLite::Append(TKdsRecord* record) { Insert(fRecords.GetCount(), record); }

void TKdsViewStorageLite::Insert(std::int32_t index, TKdsRecord* record) {
    fRecords.fItems.Insert(index, record);
    InvalidateCache();
}

void TKdsViewStorageLite::Delete(std::int32_t index) {
    fRecords.fItems.Delete(index);
    InvalidateCache();
}

void TKdsViewStorageLite::Switch(std::int32_t from, std::int32_t to) {
    fRecords.fItems.Reserve();
    fRecords.fItems.Insert(to, fRecords.fItems.Delete(from));
    InvalidateCache();
}

// The key leads to a row that stands where its values say. While the row is being posted these are
// the old ones in a view that has not heard of it yet, and the new ones in one that has. The rows
// are looked through when they may stand elsewhere.
std::int32_t TKdsViewStorageLite::Find(TKdsRecord* record) {
    return CachedFind(record, [&] {
        std::int32_t index = FindByKey(record, TKdsStateScope::Placed(record));
        if (index < 0 && record->IsPosting()) {
            index = FindByKey(record, TKdsStateScope::Posted(record));
        }
        if (index >= 0 || fOwner->RowsStandByKey(record)) return index;
        for (std::int32_t i = 0; i < fRecords.GetCount(); ++i) {
            if (fRecords.GetItem(i) == record) return i;
        }
        return -1;
    });
}

std::int32_t TKdsViewStorageLite::FindByKey(TKdsRecord* record, const TKdsStateScope&) {
    std::int32_t index = -1;
    bool found = false;
    fOwner->Search(record, nullptr, -1, {loUseRowID}, index, found);
    return found && fRecords.GetItem(index) == record ? index : -1;
}

void TKdsViewStorageLite::Sort(TKdsCompareOptions compare, bool) {
    const std::int32_t count = fRecords.GetCount();
    std::vector<void*> records(static_cast<std::size_t>(count));
    fRecords.fItems.CopyTo(records.data());
    SortRecords(records, compare);
    fRecords.fItems.Assign(records.data(), count);
    fRecords.EndEnumerators();
    InvalidateCache();
}

void TKdsViewStorageLite::Reserve(std::uint32_t) { fRecords.fItems.Reserve(); }

bool TKdsViewStorageLite::IsConsistent() { return fRecords.fItems.IsConsistent(); }

}  // namespace kds
