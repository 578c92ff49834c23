// How the skip storage finds the place of a key: by the buckets' first rows and by samples of the
// rows in them, so that few rows are read; and how a table has the places of a row brought near.
#include "kds/views/Kdsskipstorage.h"

#include <algorithm>

#include "kds/platform/Prefetch.h"
#include "kds/views/Kdsviews.h"

namespace kds {
namespace {

constexpr std::int32_t WorthGuiding = 1024;      // rows
constexpr std::int32_t WorthApproaching = 4096;  // fewer are near anyway

TKdsRecord* RowAt(const TSkipListBucket* bucket, std::int32_t offset) noexcept {
    return static_cast<TKdsRecord*>(TUnrolledSkipList::ItemAt(bucket, offset));
}

}  // namespace

// ---- The rows decide ----------------------------------------------------------------------

// Whether the rows are in order by what is compared, and the result depends on nothing else: then
// buckets are searched by their first rows. Everything else goes probe by probe.
bool TKdsViewStorageSkip::CanSearchByOrder(TKdsLocateOptions locate,
                                           TKdsCompareOptions compare) const {
    if (fOwner->OnCompare()) return false;
    const bool total = compare.Has(coUseRowID);
    if (fOwner->GetSortMode() == omRowID) return true;
    if (fOwner->CompareColumns() != fOwner->Columns()) return false;
    const TKdsOrderPlan& plan = fOwner->Plan();
    if (!fOwner->ReadsBuffers()) return false;
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
    // Where rows never change the list searches by itself, and leaves no hint.
    if (fOwner->Table()->Options().Has(mtoStaticData) &&
        !locate.HasAny({loLastRow, loNearest, loNoKeyRow})) {
        const auto order = [&](void* item, void* sought) {
            return fOwner->CompareItem(RecordOf(item), RecordOf(sought), compare);
        };
        std::int32_t place = 0;
        found = fRecords.fItems.Find(key, place, TComparator::BindCall(&order));
        if (found) index = place;
        return;
    }
    if (misplaced || !CanSearchByOrder(locate, compare)) {
        LiteralSearch(key, locate, compare, index, found);
        return;
    }
    const std::uint32_t rowID = key->RowID();
    const auto byRowID = [rowID](TKdsRecord* item) {
        return (item->RowID() > rowID) - (item->RowID() < rowID);
    };
    if (fOwner->GetSortMode() == omRowID) {
        SearchByOrder(key, locate, GuideTo(key, nullptr, -1), byRowID, index, found);
        return;
    }
    const TKdsOrderPlan& plan = fOwner->Plan();
    const std::byte* const values = key->KeyBuffer();
    const std::int32_t count = fOwner->CompareCount() < 0 ? plan.Count() : fOwner->CompareCount();
    const bool guided = !compare.Has(coPartial);
    const TKdsGuide guide = guided ? GuideTo(key, values, count) : TKdsGuide{};
    const TKdsRowReader reader(fOwner->Table()->RowsAtHome(key));
    SearchByOrder(
        key, locate, guide,
        [&](TKdsRecord* item) {
            if (item == key) return 0;
            const std::byte* const row = reader.Values(item);
            if (guide.Usable()) {
                const std::uint64_t prefix = plan.Prefix(row) & guide.Mask;
                if (prefix != guide.Key) return prefix < guide.Key ? -1 : 1;
            }
            const std::int32_t order = plan.Compare(row, values, count, compare);
            return order != 0 || !compare.Has(coUseRowID) ? order : byRowID(item);
        },
        index, found);
}

template <typename F>
void TKdsViewStorageSkip::SearchByOrder(TKdsRecord* key, TKdsLocateOptions locate,
                                        const TKdsGuide& guide, F&& compare, std::int32_t& index,
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
std::int32_t TKdsViewStorageSkip::Boundary(F&& before, TKdsRecord* skipped,
                                           const TKdsGuide& guide) {
    TUnrolledSkipList& items = fRecords.fItems;
    const auto holds = [&](TKdsRecord* item) {
        if (item != skipped) return before(item);
        TKdsRecord* const next = RecordOf(items.Get(Find(skipped) + 1));
        return next != nullptr && before(next);
    };
    PSkipListBucket bucket = nullptr;
    TKdsWindow window;
    if (fSearchHint >= items.Count() - 1) {
        // At the end, where ascending rows go.
        bucket = items.LastBucket();
        if (holds(RecordOf(bucket->List.Last()))) return items.Count();
        if (!holds(RecordOf(bucket->List.First()))) bucket = nullptr;
    }
    if (bucket == nullptr && guide.Usable()) {
        if (fForecast.Known && fForecast.Guide.Key == guide.Key) {
            bucket = items.BucketById(fForecast.Bucket);
            window = fForecast.Window;
        } else {
            bucket = LikelyBucket(guide, holds);
        }
        fForecast.Known = false;
    }
    for (int moves = 0; bucket != nullptr && moves < 4; ++moves) {
        if (window.Last == 0) window = WindowIn(bucket, guide);
        const std::int32_t offset = BoundaryIn(bucket, holds, guide, window);
        window = {};
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
    if (guide.Usable()) fStale += static_cast<std::int32_t>(fDirectory.size()) / 128 + 1;
    const TBucketPlace place = items.LowerBucket([&](void* item) { return holds(RecordOf(item)); });
    const std::int32_t count = TUnrolledSkipList::BucketCount(place.Bucket);
    return place.Index + BoundaryIn(place.Bucket, holds, TKdsGuide{}, {0, count, -1});
}

// Inside the window first; where the rows at its edges do not confirm it, beyond.
template <typename F>
std::int32_t TKdsViewStorageSkip::BoundaryIn(const TSkipListBucket* bucket, F&& holds,
                                             const TKdsGuide& guide, TKdsWindow window) const {
    const std::int32_t count = TUnrolledSkipList::BucketCount(bucket);
    const auto at = [&](std::int32_t offset) { return RowAt(bucket, offset); };
    std::int32_t first = std::clamp(window.First, 0, count);
    std::int32_t last = std::clamp(window.Last, first, count);
    const std::int32_t left = first;
    const std::int32_t right = last;
    // From the likely row outwards, in growing steps.
    if (window.Likely >= first && window.Likely < last) {
        const bool upwards = holds(at(window.Likely));
        (upwards ? first : last) = upwards ? window.Likely + 1 : window.Likely;
        for (std::int32_t step = 1; first < last; step *= 2) {
            const std::int32_t probe = upwards ? first + step - 1 : last - step;
            if (probe < first || probe >= last) break;
            const bool held = holds(at(probe));
            (held ? first : last) = held ? probe + 1 : probe;
            if (held != upwards) break;
        }
    }
    while (first < last) {
        const std::int32_t middle = (first + last) / 2;
        if (guide.Usable() && last - first > 2) {
            // Both rows that may be asked next come while this one is waited for.
            guide.Prefetch(at((first + middle) / 2));
            guide.Prefetch(at((middle + 1 + last) / 2 < last ? (middle + 1 + last) / 2 : middle));
        }
        if (holds(at(middle))) {
            first = middle + 1;
        } else {
            last = middle;
        }
    }
    if (first == left && left > 0 && !holds(at(left - 1))) {
        return BoundaryIn(bucket, holds, TKdsGuide{}, {0, left - 1, -1});
    }
    if (first == right && right < count && holds(at(right))) {
        return BoundaryIn(bucket, holds, TKdsGuide{}, {right + 1, count, -1});
    }
    return first;
}

// ---- Guides -------------------------------------------------------------------------------

// By the first `count` columns of these values of the key; -1: all.
TKdsGuide TKdsViewStorageSkip::GuideTo(const TKdsRecord* key, const std::byte* values,
                                       std::int32_t count) const {
    TKdsGuide guide;
    if (fOwner->GetSortMode() == omRowID) {
        guide.Key = key->RowID();
        guide.Mask = ~std::uint64_t{0};
        return guide;
    }
    const TKdsOrderPlan& plan = fOwner->Plan();
    if (!plan.HasPrefix() || count == 0 || !fOwner->ReadsBuffers()) return guide;
    guide.Mask = plan.PrefixMask(count);
    guide.Key = plan.Prefix(values) & guide.Mask;
    guide.Plan = &plan;
    guide.Reader = TKdsRowReader(fOwner->Table()->RowsAtHome(key));
    return guide;
}

void TKdsViewStorageSkip::DropGuides() noexcept {
    fDirectory.clear();
    fSamples.clear();
    fForecast.Known = false;
}

// By the directory, which may be outdated: the caller checks what it finds there. Where many
// buckets begin with the same prefix, their first rows are asked. Values may compare themselves and
// search this very view meanwhile, so that the directory is another one afterwards.
template <typename F>
PSkipListBucket TKdsViewStorageSkip::LikelyBucket(const TKdsGuide& guide, F&& holds) {
    if (!UpdateDirectory(guide)) return nullptr;
    const TUnrolledSkipList& items = fRecords.fItems;
    const auto equal = EqualBuckets(guide);
    auto first = static_cast<std::size_t>(equal.begin() - fDirectory.begin());
    auto last = first + equal.size();  // behind the last bucket that may be the one
    if (first > 0) --first;
    while (last > first + 1) {
        const std::size_t middle = first + (last - first) / 2;
        const PSkipListBucket bucket = items.BucketById(fDirectory[middle].Bucket);
        if (bucket == nullptr) return nullptr;
        (holds(RecordOf(bucket->List.First())) ? first : last) = middle;
        if (last > fDirectory.size()) return nullptr;
    }
    return items.BucketById(fDirectory[first].Bucket);
}

// The buckets that begin with the prefix that is sought.
std::ranges::subrange<TKdsViewStorageSkip::TDirectory::const_iterator>
TKdsViewStorageSkip::EqualBuckets(const TKdsGuide& guide) const {
    return std::ranges::equal_range(fDirectory, guide.Key, {}, [&](const TSeparator& separator) {
        return separator.Prefix & guide.Mask;
    });
}

bool TKdsViewStorageSkip::UpdateDirectory(const TKdsGuide& guide) {
    if (fRecords.fItems.Count() < WorthGuiding) return false;
    if (fDirectory.empty() || fStale > static_cast<std::int32_t>(fDirectory.size()) / 8 + 4) {
        MakeDirectory(guide);
    }
    return !fDirectory.empty();
}

// Without memory for it there is none, and a search finds its way by the buckets themselves.
void TKdsViewStorageSkip::MakeDirectory(const TKdsGuide& guide) {
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

TKdsBucketSamples* TKdsViewStorageSkip::SamplesOf(std::uint32_t bucket) const noexcept {
    return bucket < fSamples.size() ? fSamples[bucket].get() : nullptr;
}

// The part of a bucket where the key belongs; all of it without samples.
TKdsWindow TKdsViewStorageSkip::WindowIn(const TSkipListBucket* bucket, const TKdsGuide& guide) {
    TKdsWindow window{0, TUnrolledSkipList::BucketCount(bucket), -1};
    if (!guide.Usable() || fRecords.fItems.Count() < WorthGuiding) return window;
    const TKdsBucketSamples* samples = SamplesOf(bucket->Id);
    if (samples == nullptr) samples = MakeSamples(bucket, guide);
    if (samples != nullptr) samples->Narrow(guide, window);
    return window;
}

TKdsBucketSamples* TKdsViewStorageSkip::MakeSamples(const TSkipListBucket* bucket,
                                                    const TKdsGuide& guide) noexcept {
    const std::int32_t rows = TUnrolledSkipList::BucketCount(bucket);
    constexpr std::int32_t stride = TKdsBucketSamples::Stride;
    try {
        if (bucket->Id >= fSamples.size()) fSamples.resize(bucket->Id + 1);
        std::unique_ptr<TKdsBucketSamples>& samples = fSamples[bucket->Id];
        samples = std::make_unique<TKdsBucketSamples>();
        for (std::int32_t i = stride / 2; i < rows; i += stride) guide.Prefetch(RowAt(bucket, i));
        for (std::int32_t i = stride / 2; i < rows; i += stride) {
            samples->Append(guide.Of(RowAt(bucket, i)), i);
        }
        return samples.get();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// ---- Bringing places near -----------------------------------------------------------------

bool TKdsViewStorageSkip::Approach(const TKdsRecord* record, TKdsApproach way, std::int32_t step) {
    if (fRecords.fItems.Count() < WorthApproaching || fOwner->OnCompare()) return false;
    const bool leaves = way != TKdsApproach::Entering && ApproachPresent(record, step);
    const bool enters = way != TKdsApproach::Leaving && ApproachNext(record, step);
    return leaves || enters;
}

// Where the row stands: its entry in the row map, its bucket, the pointers around it.
bool TKdsViewStorageSkip::ApproachPresent(const TKdsRecord* record, std::int32_t step) {
    if (!fTracks) return false;
    if (step == 0) return fRows.Prefetch(record->RowID());
    const std::uint32_t entry = fRows.Get(record->RowID());
    if (entry == TKdsRowMap::None) return false;
    const std::uint32_t id = TKdsRowMap::BucketOf(entry);
    const PSkipListBucket bucket = fRecords.fItems.BucketById(id);
    if (bucket == nullptr) return false;
    const TKdsBucketSamples* const samples = SamplesOf(id);
    std::int32_t guess = TKdsRowMap::OffsetOf(entry);
    if (step == 1) {
        kds::Prefetch(bucket);
        if (samples != nullptr) {
            samples->Prefetch(static_cast<double>(guess) / TUnrolledSkipList::EndBucketLimit);
            samples->PrefetchOffsets();
        }
        return true;
    }
    TUnrolledSkipList::PrefetchItem(bucket, guess);
    if (samples != nullptr) guess = std::max(LikelyOffset(bucket, record), 0);
    fExpectedRow = record->RowID();
    fExpectedOffset = guess;
    TUnrolledSkipList::PrefetchItem(bucket, guess);
    TUnrolledSkipList::PrefetchShift(bucket, guess);
    return false;
}

// Where it will stand: the bucket and its samples, the pointers, the rows around the place, the
// pointers that will move.
bool TKdsViewStorageSkip::ApproachNext(const TKdsRecord* record, std::int32_t step) {
    if (step == 0) return Forecast(record);
    if (!fForecast.Known) return false;
    const TSkipListBucket* const bucket = fRecords.fItems.BucketById(fForecast.Bucket);
    if (bucket == nullptr) return fForecast.Known = false;
    const TKdsGuide& guide = fForecast.Guide;
    if (step == 1) fForecast.Window = WindowIn(bucket, guide);
    const TKdsWindow& window = fForecast.Window;
    const std::int32_t likely = window.Likely >= 0 ? window.Likely : window.First;
    if (step == 1) {
        TUnrolledSkipList::PrefetchItem(bucket, likely);
    } else if (step == 2) {
        constexpr std::int32_t reach = 3;
        const std::int32_t first = std::max(window.First - 1, likely - reach);
        const std::int32_t last = std::min(window.Last, likely + reach);
        for (std::int32_t i = first; i <= last; ++i) {
            if (const TKdsRecord* const row = RowAt(bucket, i)) guide.Prefetch(row);
        }
    } else {
        TUnrolledSkipList::PrefetchShift(bucket, likely);
        return false;
    }
    return true;
}

// The bucket where the row will stand, when the directory alone tells.
bool TKdsViewStorageSkip::Forecast(const TKdsRecord* record) {
    const TUnrolledSkipList& items = fRecords.fItems;
    fForecast.Known = false;
    // At the end everything is near; and rows in the order of their identifiers go there.
    if (fSearchHint >= items.Count() - 1 || fOwner->GetSortMode() == omRowID) return false;
    const TKdsGuide guide = GuideTo(record, record->KeyBuffer(), -1);
    if (!guide.Usable() || !UpdateDirectory(guide)) return false;
    const auto equal = EqualBuckets(guide);
    if (equal.size() > 1) return false;
    const auto first = equal.begin() == fDirectory.begin() ? equal.begin() : equal.begin() - 1;
    const TSkipListBucket* const bucket = items.BucketById(first->Bucket);
    if (bucket == nullptr) return false;
    fForecast = {guide, first->Bucket, {}, true};
    kds::Prefetch(bucket);
    if (const TKdsBucketSamples* const samples = SamplesOf(first->Bucket)) {
        const std::uint64_t low = first->Prefix;
        const bool isLast = first + 1 == fDirectory.end();
        const std::uint64_t high = isLast ? ~std::uint64_t{0} : (first + 1)->Prefix;
        const bool inside = low < guide.Key && guide.Key < high;
        samples->Prefetch(
            inside ? static_cast<double>(guide.Key - low) / static_cast<double>(high - low) : 0);
    }
    return true;
}

}  // namespace kds
