#include "kds/views/Kdsskipstorage.h"

#include <algorithm>

#include "kds/views/Kdsviews.h"

namespace kds {

// ---- TKdsRowMap ---------------------------------------------------------------------------

void TKdsRowMap::AddPage(std::size_t page) {
    if (page >= fPages.size()) {
        fPages.reserve(std::max(page + 1, fPages.size() * 2));
        fPages.resize(page + 1);
    }
    fPages[page] = std::make_unique<TPage>();
    std::ranges::fill(fPages[page]->Entries, None);
}

void TKdsRowMap::ReserveBelow(std::uint32_t end) {
    for (std::uint64_t rowID = 0; rowID < end; rowID += PageSize) {
        Reserve(static_cast<std::uint32_t>(rowID));
    }
}

void TKdsRowMap::Remove(std::uint32_t rowID) noexcept {
    const std::size_t index = rowID / PageSize;
    if (index >= fPages.size() || fPages[index] == nullptr) return;
    TPage& page = *fPages[index];
    std::uint32_t& entry = page.Entries[rowID % PageSize];
    if (entry == None) return;
    entry = None;
    if (--page.Live == 0) fPages[index].reset();
}

// ---- The skip storage's rows --------------------------------------------------------------

namespace {

class TSkipRecordEnumerator final : public IKdsRecordEnumerator {
public:
    explicit TSkipRecordEnumerator(TIntf<IListEnumerator> items) : fItems(std::move(items)) {}
    bool MoveNext() override { return fItems->MoveNext(); }
    [[nodiscard]] TKdsRecord* GetCurrent() const override {
        return static_cast<TKdsRecord*>(fItems->GetCurrent());
    }

private:
    TIntf<IListEnumerator> fItems;
};

}  // namespace

TIntf<IKdsRecordEnumerator> TKdsViewRecordSkip::GetEnumerator(TListEnumeratorDirection direction) {
    return MakeIntf<TSkipRecordEnumerator>(fItems.GetEnumerator(direction));
}

TKdsViewStorageSkip::~TKdsViewStorageSkip() { fRecords.fItems.SetTracker(nullptr); }

void TKdsViewStorageSkip::Clear() {
    fRecords.fItems.SetTracker(nullptr);
    fTracks = false;
    fRecords.fItems.Clear();
    fRows.Clear();
    DropGuides();
    InvalidateCache();
}

void TKdsViewStorageSkip::Append(TKdsRecord* record) { Insert(fRecords.fItems.Count(), record); }

void TKdsViewStorageSkip::Insert(std::int32_t index, TKdsRecord* record) {
    // While the view is being built nobody asks where a row stands.
    if (!fOwner->Rebuilds()) {
        Track();
        fRows.Reserve(record->RowID());
    }
    PutIn(index, record);
    InvalidateCache();
}

void TKdsViewStorageSkip::Delete(std::int32_t index) {
    fRows.Remove(TakeOut(index)->RowID());
    InvalidateCache();
}

void TKdsViewStorageSkip::Switch(std::int32_t from, std::int32_t to) {
    fRecords.fItems.Reserve();
    PutIn(to, TakeOut(from));
    InvalidateCache();
}

// The samples of the row's bucket follow.
void TKdsViewStorageSkip::PutIn(std::int32_t index, TKdsRecord* record) {
    TUnrolledSkipList& items = fRecords.fItems;
    items.Insert(index, record);
    DropSamplesOfSwapped();
    if (fSamples.empty()) return;
    const TBucketPlace place = items.BucketAt(index);
    TKdsBucketSamples* const samples = SamplesOf(place.Bucket->Id);
    if (samples == nullptr) return;
    const std::int32_t rows = TUnrolledSkipList::BucketCount(place.Bucket);
    if (rows == 1) {
        fSamples[place.Bucket->Id].reset();  // of a bucket that bore this id before
    } else {
        samples->Inserted(index - place.Index, PrefixOf(record), rows);
    }
}

// Once rows are out nobody follows the samples, and keeping them up would read rows.
void TKdsViewStorageSkip::DropSamplesOfSwapped() noexcept {
    if (!fSamples.empty() && fOwner->Table()->HasSwapped()) DropGuides();
}

std::uint64_t TKdsViewStorageSkip::PrefixOf(const TKdsRecord* record) const {
    return fOwner->GetSortMode() == omRowID ? record->RowID()
                                            : fOwner->Plan().Prefix(record->PostedBuffer());
}

TKdsRecord* TKdsViewStorageSkip::TakeOut(std::int32_t index) {
    TUnrolledSkipList& items = fRecords.fItems;
    DropSamplesOfSwapped();
    if (!fSamples.empty()) {
        const TBucketPlace place = items.BucketAt(index);
        if (TKdsBucketSamples* const samples = SamplesOf(place.Bucket->Id)) {
            samples->Removed(index - place.Index);
        }
    }
    return RecordOf(items.Delete(index));
}

void TKdsViewStorageSkip::Reserve(std::uint32_t rowID) {
    Track();
    fRecords.fItems.Reserve();
    fRows.Reserve(rowID);
}

// ---- Find ---------------------------------------------------------------------------------

void TKdsViewStorageSkip::Placed(void* const* items, std::int32_t count, std::uint32_t bucket,
                                 std::int32_t first) noexcept {
    constexpr std::int32_t ahead = 12;
    for (std::int32_t i = 0; i < count; ++i) {
        if (i + ahead < count) RecordOf(items[i + ahead])->Prefetch();
        fRows.Put(RecordOf(items[i])->RowID(), TKdsRowMap::Entry(bucket, first + i));
    }
    // More than the one row of an insertion: buckets were divided or joined.
    if (count == 1) return;
    ++fStale;
    if (bucket < fSamples.size()) fSamples[bucket].reset();
}

void TKdsViewStorageSkip::Cleared() noexcept { fRows.Clear(); }

// From here on the list tells where its items live; the room for those already in it comes first.
void TKdsViewStorageSkip::Track() {
    if (fTracks) return;
    const auto count = static_cast<std::uint32_t>(fRecords.fItems.Count());
    const std::uint32_t end = fOwner->Table()->LastRowID();
    if (count > 0 && end - count <= count / 8) {
        // Nearly all rows there ever were are here: no need to look at each.
        fRows.ReserveBelow(end);
    } else {
        for (void* const item : fRecords.fItems) fRows.Reserve(RecordOf(item)->RowID());
    }
    fRecords.fItems.SetTracker(this);
    fTracks = true;
}

void TKdsViewStorageSkip::Prepared() { Track(); }

// By identity: no key is read, so no change of a key can make a member unfindable.
std::int32_t TKdsViewStorageSkip::Find(TKdsRecord* record) {
    return CachedFind(record, [&] {
        if (!fTracks) return fRecords.fItems.IndexOf(record);
        const std::uint32_t entry = fRows.Get(record->RowID());
        if (entry == TKdsRowMap::None) return -1;
        const TUnrolledSkipList& items = fRecords.fItems;
        const TSkipListBucket* const bucket = items.BucketById(TKdsRowMap::BucketOf(entry));
        if (bucket == nullptr) return -1;
        const std::int32_t offset = OffsetIn(bucket, TKdsRowMap::OffsetOf(entry), record);
        return offset < 0 ? -1 : items.BucketIndex(bucket) + offset;
    });
}

// Outwards from where the row was placed, and from where its key says that it should be: changes of
// the bucket move a row far from the first, but not from the second.
std::int32_t TKdsViewStorageSkip::OffsetIn(const TSkipListBucket* bucket, std::int32_t guess,
                                           const TKdsRecord* record) {
    constexpr std::int32_t reach = 12;
    const auto around = [&](std::int32_t middle) -> std::int32_t {
        for (std::int32_t distance = 0; distance < reach; ++distance) {
            for (const std::int32_t offset : {middle + distance, middle - distance}) {
                if (TUnrolledSkipList::ItemAt(bucket, offset) == record) return offset;
            }
        }
        return -1;
    };
    const bool expected = fExpectedRow == record->RowID();
    std::int32_t offset = around(expected ? fExpectedOffset : guess);
    if (offset < 0) {
        const std::int32_t likely = LikelyOffset(bucket, record);
        if (likely >= 0) offset = around(likely);
    }
    return offset >= 0 ? offset : bucket->List.IndexOf(record);
}

// By the samples of its bucket; -1 when the order has none.
std::int32_t TKdsViewStorageSkip::LikelyOffset(const TSkipListBucket* bucket,
                                               const TKdsRecord* record) {
    if (fOwner->Table()->HasSwapped()) return -1;
    const TKdsGuide guide = GuideTo(record, record->PlacedBuffer(), -1);
    if (!guide.Usable()) return -1;
    const TKdsWindow window = WindowIn(bucket, guide);
    return window.Likely >= 0 ? window.Likely : (window.First + window.Last) / 2;
}

// ---- Sort ---------------------------------------------------------------------------------

void TKdsViewStorageSkip::Sort(TKdsCompareOptions compare, bool) {
    TUnrolledSkipList& items = fRecords.fItems;
    DropGuides();
    InvalidateCache();
    std::vector<void*> records;
    records.reserve(static_cast<std::size_t>(items.Count()));
    for (void* const item : items) records.push_back(item);
    SortRecords(records, compare);
    items.Assign(records.data(), items.Count());
}

bool TKdsViewStorageSkip::Build(std::vector<void*>&& records, bool sorts) {
    DropGuides();
    InvalidateCache();
    const bool distinct = sorts && SortRecords(records, {coUseRowID});
    fRecords.fItems.Assign(records.data(), static_cast<std::int32_t>(records.size()));
    return distinct;
}

bool TKdsViewStorageSkip::IsConsistent() {
    TUnrolledSkipList& items = fRecords.fItems;
    if (!items.IsConsistent()) return false;
    if (!fTracks) return true;
    for (std::int32_t i = 0; i < items.Count(); ++i) {
        TKdsRecord* const record = RecordOf(items.Get(i));
        const std::uint32_t entry = fRows.Get(record->RowID());
        if (entry == TKdsRowMap::None ||
            items.FindInBucket(TKdsRowMap::BucketOf(entry), record) != i) {
            return false;
        }
    }
    return true;
}

}  // namespace kds
