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
    fDirectory.clear();
    InvalidateCache();
}

void TKdsViewStorageSkip::Append(TKdsRecord* record) { Insert(fRecords.fItems.Count(), record); }

void TKdsViewStorageSkip::Insert(std::int32_t index, TKdsRecord* record) {
    // While the view is being built nobody asks where a row stands.
    if (!fOwner->Rebuilds()) {
        Track();
        fRows.Reserve(record->RowID());
    }
    fRecords.fItems.Insert(index, record);
    InvalidateCache();
}

void TKdsViewStorageSkip::Delete(std::int32_t index) {
    TKdsRecord* const record = RecordOf(fRecords.fItems.Delete(index));
    fRows.Remove(record->RowID());
    InvalidateCache();
}

void TKdsViewStorageSkip::Switch(std::int32_t from, std::int32_t to) {
    fRecords.fItems.Reserve();
    void* const record = fRecords.fItems.Delete(from);
    fRecords.fItems.Insert(to, record);
    InvalidateCache();
}

void TKdsViewStorageSkip::Reserve(std::uint32_t rowID) {
    Track();
    fRecords.fItems.Reserve();
    fRows.Reserve(rowID);
}

// ---- Find ---------------------------------------------------------------------------------

void TKdsViewStorageSkip::Placed(void* const* items, std::int32_t count, std::uint32_t bucket,
                                 std::int32_t first) noexcept {
    for (std::int32_t i = 0; i < count; ++i) {
        fRows.Put(RecordOf(items[i])->RowID(), TKdsRowMap::Entry(bucket, first + i));
    }
    // More than the one row of an insertion: buckets were divided or joined.
    if (count > 1) ++fStale;
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

// Outwards from where the row was placed; few changes of a bucket move a row far.
std::int32_t TKdsViewStorageSkip::OffsetIn(const TSkipListBucket* bucket, std::int32_t guess,
                                           const TKdsRecord* record) const noexcept {
    constexpr std::int32_t reach = 24;
    for (std::int32_t distance = 0; distance < reach; ++distance) {
        if (TUnrolledSkipList::ItemAt(bucket, guess + distance) == record) return guess + distance;
        if (TUnrolledSkipList::ItemAt(bucket, guess - distance) == record) return guess - distance;
    }
    return bucket->List.IndexOf(record);
}

// ---- Search -------------------------------------------------------------------------------

// Whether the rows are in order by what is compared, and the result depends on nothing else: then
// buckets are searched by their first rows. Everything else goes probe by probe.
bool TKdsViewStorageSkip::CanSearchByOrder(TKdsLocateOptions locate,
                                           TKdsCompareOptions compare) const {
    if (fOwner->OnCompare()) return false;
    const bool total = compare.Has(coUseRowID);
    if (fOwner->GetSortMode() == omRowID) return true;
    if (fOwner->CompareColumns() != fOwner->Columns()) return false;
    const TKdsOrderPlan& plan = fOwner->Plan();
    if (!plan.IsPlain()) return false;
    const bool whole = fOwner->CompareCount() < 0 || fOwner->CompareCount() >= plan.Count();
    const std::int32_t count = whole ? plan.Count() : fOwner->CompareCount();
    if (compare.Has(coNoCase) || (compare.Has(coPartial) && count != 1)) return false;
    if (total && (!whole || compare.Has(coPartial))) return false;
    // Several equal rows: which one is met first depends on the probes, unless an end is asked for.
    return locate.Has(loNearest) || total ||
           (whole && !compare.Has(coPartial) && fOwner->IsDistinct());
}

void TKdsViewStorageSkip::Search(TKdsRecord* key, TKdsLocateOptions locate,
                                 TKdsCompareOptions compare, std::int32_t& index, bool& found) {
    // A row that is being edited equals itself where it stood: only the probes tell whether they
    // meet it there.
    const bool misplaced = key->RowState() == rsEditing && !locate.Has(loNoKeyRow);
    if (misplaced || !CanSearchByOrder(locate, compare)) {
        LiteralSearch(key, locate, compare, index, found);
        return;
    }
    const std::uint32_t rowID = key->RowID();
    const auto byRowID = [rowID](TKdsRecord* item) {
        return (item->RowID() > rowID) - (item->RowID() < rowID);
    };
    if (fOwner->GetSortMode() == omRowID) {
        SearchByOrder(key, locate, {true, rowID, nullptr}, byRowID, index, found);
        return;
    }
    const TKdsOrderPlan& plan = fOwner->Plan();
    const std::byte* const values = key->KeyBuffer();
    const std::int32_t count = fOwner->CompareCount() < 0 ? plan.Count() : fOwner->CompareCount();
    TGuide guide;
    if (plan.HasPrefix() && count > 0 && !compare.Has(coPartial)) {
        guide = {true, plan.Prefix(values), &plan};
    }
    SearchByOrder(
        key, locate, guide,
        [&](TKdsRecord* item) {
            if (item == key) return 0;
            if (guide.Usable) {
                const std::uint64_t prefix = plan.Prefix(item->PostedBuffer());
                if (prefix != guide.Key) return prefix < guide.Key ? -1 : 1;
            }
            const std::int32_t order = plan.Compare(item->PostedBuffer(), values, count, compare);
            return order != 0 || !compare.Has(coUseRowID) ? order : byRowID(item);
        },
        index, found);
}

template <typename F>
void TKdsViewStorageSkip::SearchByOrder(TKdsRecord* key, TKdsLocateOptions locate,
                                        const TGuide& guide, F&& compare, std::int32_t& index,
                                        bool& found) {
    TUnrolledSkipList& items = fRecords.fItems;
    TKdsRecord* const skipped = locate.Has(loNoKeyRow) ? key : nullptr;
    const auto at = [&](std::int32_t place) { return RecordOf(items.Get(place)); };
    const bool nearest = locate.Has(loNearest);
    if (nearest && locate.Has(loLastRow)) {
        std::int32_t place =
            Boundary([&](TKdsRecord* item) { return compare(item) <= 0; }, skipped, guide);
        std::int32_t last = place - 1;
        if (last >= 0 && skipped != nullptr && at(last) == skipped) --last;
        found = last >= 0 && compare(at(last)) == 0;
        if (!found && skipped != nullptr && at(place) == skipped) ++place;
        index = found ? last : place;
        fSearchHint = index;
        return;
    }
    std::int32_t place =
        Boundary([&](TKdsRecord* item) { return compare(item) < 0; }, skipped, guide);
    if (skipped != nullptr && at(place) == skipped) ++place;
    TKdsRecord* const item = at(place);
    found = item != nullptr && compare(item) == 0;
    fSearchHint = place;
    if (found || nearest) index = place;
}

// The position of the first row of which `before` does not hold. The row to be skipped counts as
// the one behind it does, so that its own, perhaps outdated, place misleads nobody.
template <typename F>
std::int32_t TKdsViewStorageSkip::Boundary(F&& before, TKdsRecord* skipped, const TGuide& guide) {
    TUnrolledSkipList& items = fRecords.fItems;
    const auto holds = [&](TKdsRecord* item) {
        if (item != skipped) return before(item);
        TKdsRecord* const next = RecordOf(items.Get(Find(skipped) + 1));
        return next != nullptr && before(next);
    };
    std::uint64_t low = 0;
    std::uint64_t high = ~std::uint64_t{0};
    PSkipListBucket bucket = nullptr;
    if (fSearchHint >= items.Count() - 1) {
        // At the end, where ascending rows go.
        bucket = items.LastBucket();
        if (holds(RecordOf(bucket->List.Last()))) return items.Count();
        if (!holds(RecordOf(bucket->List.First()))) bucket = nullptr;
    }
    if (bucket == nullptr && guide.Usable) bucket = LikelyBucket(guide, holds, low, high);
    for (int moves = 0; bucket != nullptr && moves < 4; ++moves) {
        const std::int32_t offset = BoundaryIn(bucket, holds, guide, low, high);
        if (offset == 0) {
            const PSkipListBucket previous = items.PrevBucket(bucket);
            if (previous == nullptr || holds(RecordOf(previous->List.Last()))) {
                return items.BucketIndex(bucket);
            }
            bucket = previous;
        } else if (offset == TUnrolledSkipList::BucketCount(bucket)) {
            const PSkipListBucket next = items.NextBucket(bucket);
            if (next == nullptr || !holds(RecordOf(next->List.First()))) {
                return items.BucketIndex(bucket) + offset;
            }
            bucket = next;
        } else {
            return items.BucketIndex(bucket) + offset;
        }
    }
    // The directory led astray; a few times more and it is written anew.
    if (guide.Usable) fStale += static_cast<std::int32_t>(fDirectory.size()) / 128 + 1;
    const TBucketPlace place = items.LowerBucket([&](void* item) { return holds(RecordOf(item)); });
    return place.Index + BoundaryIn(place.Bucket, holds, TGuide{}, 0, 0);
}

// Bisection. With a guide the first probe goes where the prefixes say, as rows are mostly spread
// evenly between the ends of a bucket, and the boundary is bracketed from there; the rows of the
// bracket are fetched together, for it is waiting for them one by one that takes the time.
template <typename F>
std::int32_t TKdsViewStorageSkip::BoundaryIn(const TSkipListBucket* bucket, F&& holds,
                                             const TGuide& guide, std::uint64_t low,
                                             std::uint64_t high) {
    constexpr std::int32_t bracket = 16;
    const auto at = [&](std::int32_t offset) {
        return RecordOf(TUnrolledSkipList::ItemAt(bucket, offset));
    };
    std::int32_t first = 0;
    std::int32_t last = TUnrolledSkipList::BucketCount(bucket);
    if (guide.Usable && low < guide.Key && guide.Key < high && last > 2 * bracket) {
        const double share = static_cast<double>(guide.Key - low) / static_cast<double>(high - low);
        std::int32_t probe = std::min(static_cast<std::int32_t>(share * last), last - 1);
        const bool upwards = holds(at(probe));
        for (std::int32_t step = bracket; first < last; step *= 2) {
            (upwards ? first : last) = upwards ? probe + 1 : probe;
            const std::int32_t next = upwards ? probe + step : probe - step;
            const std::int32_t from = std::max(std::min(probe, next), first);
            const std::int32_t to = std::min(std::max(probe, next), last);
            for (std::int32_t i = from; i < to && step == bracket; ++i) at(i)->Prefetch();
            if (next < first || next >= last) break;
            probe = next;
            if (holds(at(probe)) == upwards) continue;
            (upwards ? last : first) = upwards ? probe : probe + 1;
            break;
        }
    }
    if (last - first <= bracket) {
        for (std::int32_t i = first; i < last; ++i) at(i)->Prefetch();
    }
    while (first < last) {
        const std::int32_t middle = (first + last) / 2;
        if (last - first > bracket) {
            // Both rows that may be asked next come while this one is waited for.
            at((first + middle) / 2)->Prefetch();
            at((middle + last) / 2)->Prefetch();
        }
        if (holds(at(middle))) {
            first = middle + 1;
        } else {
            last = middle;
        }
    }
    return first;
}

// By the directory, which may be outdated: the caller checks what it finds there. Where many
// buckets begin with the same prefix, their first rows are asked.
template <typename F>
PSkipListBucket TKdsViewStorageSkip::LikelyBucket(const TGuide& guide, F&& holds,
                                                  std::uint64_t& low, std::uint64_t& high) {
    constexpr std::int32_t worthwhile = 1024;
    const TUnrolledSkipList& items = fRecords.fItems;
    if (items.Count() < worthwhile) return nullptr;
    if (fDirectory.empty() || fStale > static_cast<std::int32_t>(fDirectory.size()) / 8 + 4) {
        MakeDirectory(guide);
        if (fDirectory.empty()) return nullptr;
    }
    const auto [equal, next] =
        std::ranges::equal_range(fDirectory, guide.Key, {}, &TSeparator::Prefix);
    auto first = equal == fDirectory.begin() ? equal : equal - 1;
    auto last = next;  // behind the last bucket that may be the one
    while (last - first > 1) {
        const auto middle = first + (last - first) / 2;
        const PSkipListBucket bucket = items.BucketById(middle->Bucket);
        if (bucket == nullptr) return nullptr;
        if (holds(RecordOf(bucket->List.First()))) {
            first = middle;
        } else {
            last = middle;
        }
    }
    if (first->Prefix < guide.Key) low = first->Prefix;
    if (last != fDirectory.end()) high = last->Prefix;
    return items.BucketById(first->Bucket);
}

// Without memory for it there is none, and a search finds its way by the buckets themselves.
void TKdsViewStorageSkip::MakeDirectory(const TGuide& guide) {
    const TUnrolledSkipList& items = fRecords.fItems;
    fDirectory.clear();
    fStale = 0;
    try {
        for (PSkipListBucket bucket = items.FirstBucket(); bucket != nullptr;
             bucket = items.NextBucket(bucket)) {
            fDirectory.push_back({guide.Of(RecordOf(bucket->List.First())), bucket->Id});
        }
    } catch (const std::bad_alloc&) {
        fDirectory.clear();
        return;
    }
    // A row that is out of place at the moment must not make the search in here go astray.
    std::ranges::sort(fDirectory, {}, &TSeparator::Prefix);
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
    fDirectory.clear();
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
