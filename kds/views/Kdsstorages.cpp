#include "kds/views/Kdsstorages.h"

#include <algorithm>

#include "kds/util/Mergesort.h"
#include "kds/views/Kdsviews.h"

namespace kds {

// ---- The stated search --------------------------------------------------------------------

namespace {

// Steps from an equal row to the first or last one of its run, over the key's own row.
template <typename F>
std::int32_t EdgeOfRun(TKdsViewRecords* rows, std::int32_t place, std::int32_t step,
                       const TKdsRecord* skipped, F&& equal) {
    const std::int32_t count = rows->GetCount();
    for (std::int32_t next = place + step; next >= 0 && next < count; next += step) {
        TKdsRecord* const item = rows->GetItem(next);
        if (item == skipped) continue;
        if (!equal(item)) break;
        place = next;
    }
    return place;
}

}  // namespace

void TKdsViewStorage::Search(TKdsRecord* key, TKdsLocateOptions locate, TKdsCompareOptions compare,
                             std::int32_t& index, bool& found) {
    LiteralSearch(key, locate, compare, index, found);
}

void TKdsViewStorage::LiteralSearch(TKdsRecord* key, TKdsLocateOptions locate,
                                    TKdsCompareOptions compare, std::int32_t& index, bool& found) {
    TKdsViewRecords* const rows = GetRecords();
    const TKdsRecord* const skipped = locate.Has(loNoKeyRow) ? key : nullptr;
    std::int32_t low = 0;
    std::int32_t high = rows->GetCount() - 1;
    const std::int32_t hint = std::clamp(fSearchHint, 0, high);
    std::int32_t probe = hint;
    bool stepped = false;
    bool before = false;
    for (;;) {
        TKdsRecord* item = rows->GetItem(probe);
        bool off = false;
        if (item == skipped) {
            if (probe < high) {
                ++probe;
            } else if (probe > low) {
                --probe;
            } else {
                stepped = true;
                break;
            }
            off = true;
            item = rows->GetItem(probe);
        }
        const std::int32_t order = fOwner->CompareItem(item, key, compare);
        if (order == 0) {
            if (locate.Has(loNearest)) {
                probe = EdgeOfRun(rows, probe, locate.Has(loLastRow) ? 1 : -1, skipped,
                                  [&](TKdsRecord* other) {
                                      return fOwner->CompareItem(other, key, compare) == 0;
                                  });
            }
            found = true;
            index = probe;
            fSearchHint = probe;
            return;
        }
        before = order < 0;
        if (before) {
            low = probe + 1;
        } else {
            high = probe - 1;
        }
        if (low > high) break;
        // Next to the hint first: walking in view order then costs one step, not a bisection.
        if (probe == hint && !off) {
            probe += before ? 1 : -1;
        } else {
            probe = (low + high) / 2;
        }
    }
    fSearchHint = high >= 0 ? probe + (stepped || before ? 1 : 0) : 0;
    if (locate.Has(loNearest)) index = fSearchHint;
}

// ---- TKdsRowMap ---------------------------------------------------------------------------

void TKdsRowMap::Reserve(std::uint32_t rowID) {
    const std::size_t page = rowID / PageSize;
    if (page >= fPages.size()) {
        fPages.reserve(std::max(page + 1, fPages.size() * 2));
        fPages.resize(page + 1);
    }
    if (fPages[page] != nullptr) return;
    fPages[page] = std::make_unique<TPage>();
    std::ranges::fill(fPages[page]->Entries, None);
}

void TKdsRowMap::Put(std::uint32_t rowID, std::uint32_t value) noexcept {
    const std::size_t index = rowID / PageSize;
    if (index >= fPages.size() || fPages[index] == nullptr) return;
    TPage& page = *fPages[index];
    std::uint32_t& entry = page.Entries[rowID % PageSize];
    if (entry == None) ++page.Live;
    entry = value;
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

TKdsRecord* RecordOf(void* item) noexcept { return static_cast<TKdsRecord*>(item); }

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

std::uint64_t TKdsViewStorageSkip::PrefixOf(const TKdsRecord* record) const {
    return fOwner->GetSortMode() == omRowID ? record->RowID()
                                            : fOwner->Plan().Prefix(record->PostedBuffer());
}

TKdsRecord* TKdsViewStorageSkip::TakeOut(std::int32_t index) {
    TUnrolledSkipList& items = fRecords.fItems;
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
    for (void* const item : fRecords.fItems) fRows.Reserve(RecordOf(item)->RowID());
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
    const TKdsGuide guide = GuideTo(record, record->PlacedBuffer(), -1);
    if (!guide.Usable()) return -1;
    const TKdsWindow window = WindowIn(bucket, guide);
    return window.Likely >= 0 ? window.Likely : (window.First + window.Last) / 2;
}

// ---- Sort ---------------------------------------------------------------------------------

namespace {

// What a sort reads on worker threads may not write caches; what must not leave the calling
// thread keeps the cache and sorts alone.
class TSortSwitch {
public:
    explicit TSortSwitch(bool isVolatile) noexcept { CacheSkipListIndexes.store(isVolatile); }
    ~TSortSwitch() { CacheSkipListIndexes.store(true); }
    TSortSwitch(const TSortSwitch&) = delete;
    TSortSwitch& operator=(const TSortSwitch&) = delete;
};

bool IsVolatile(const TKdsView& view) {
    if (view.OnCompare()) return true;
    return view.GetSortMode() == omOrder && !view.Plan().IsStable();
}

struct TPrefixed {
    std::uint64_t Prefix;
    TKdsRecord* Record;
};

}  // namespace

void TKdsViewStorageSkip::Sort(TKdsCompareOptions compare, bool) {
    const bool isVolatile = IsVolatile(*fOwner);
    DropGuides();
    TSortSwitch guard(isVolatile);
    InvalidateCache();
    const TKdsOrderColumnList* const columns = fOwner->Columns();
    if (!isVolatile && fOwner->GetSortMode() == omOrder && columns->Count() > 0 &&
        compare == TKdsCompareOptions{coUseRowID} && fOwner->Plan().IsPlain()) {
        SortByPrefix(fOwner->Plan());
        return;
    }
    const auto order = [&](void* a, void* b) {
        return fOwner->CompareMembers(RecordOf(a), RecordOf(b), compare);
    };
    fRecords.fItems.Sort(TComparator::BindCall(&order), isVolatile ? 1 : 0);
}

// Most comparisons are decided by eight bytes that lie beside the pointer.
void TKdsViewStorageSkip::SortByPrefix(const TKdsOrderPlan& plan) {
    TUnrolledSkipList& items = fRecords.fItems;
    const std::int32_t count = items.Count();
    std::vector<TPrefixed> rows;
    rows.reserve(static_cast<std::size_t>(count));
    bool ascending = true;
    std::int64_t previous = -1;
    for (void* const item : items) {
        TKdsRecord* const record = RecordOf(item);
        rows.push_back({plan.Prefix(record->PostedBuffer()), record});
        ascending = ascending && record->RowID() > previous;
        previous = record->RowID();
    }
    const bool decides = plan.PrefixDecides();
    MergeSort(
        rows.data(), std::int64_t{count},
        [&plan, decides, ascending](const TPrefixed& a, const TPrefixed& b) -> std::int32_t {
            if (a.Prefix != b.Prefix) return a.Prefix < b.Prefix ? -1 : 1;
            if (!decides || a.Prefix == ~std::uint64_t{0}) {
                const std::int32_t order = plan.Compare(a.Record->PostedBuffer(),
                                                        b.Record->PostedBuffer(), plan.Count(), {});
                if (order != 0) return order;
            }
            // The sort is stable: rows that came in the order of their identifiers stay so.
            if (ascending) return 0;
            return (a.Record->RowID() > b.Record->RowID()) -
                   (a.Record->RowID() < b.Record->RowID());
        },
        0);
    std::vector<void*> sorted;
    sorted.reserve(rows.size());
    for (const TPrefixed& row : rows) sorted.push_back(row.Record);
    items.Assign(sorted.data(), count);
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

// ---- The factory --------------------------------------------------------------------------

std::unique_ptr<TKdsViewStorage> TKdsStorageFactory::CreateStorage(TKdsTable*) {
    return std::make_unique<TKdsViewStorageSkip>();
}

std::int32_t TKdsStorageFactory::ExpectedCount(TKdsTable* table) {
    return table->Records()->Count();
}

}  // namespace kds
