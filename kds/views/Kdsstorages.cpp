#include "kds/views/Kdsstorages.h"

#include <algorithm>

#include "kds/containers/Unrolledskiplist.h"
#include "kds/util/Mergesort.h"
#include "kds/views/Kdsliststorage.h"
#include "kds/views/Kdslitestorage.h"
#include "kds/views/Kdsskipstorage.h"
#include "kds/views/Kdssortkeys.h"
#include "kds/views/Kdstreestorage.h"
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

// A row, with eight bytes of its key beside it.
struct TPrefixed {
    std::uint64_t Prefix;
    TKdsRecord* Record;
    [[nodiscard]] const std::byte* Values() const noexcept { return Record->PostedBuffer(); }
};
struct TCopied {
    std::uint64_t Prefix;
    TKdsRecord* Record;
    const std::byte* Key;
    [[nodiscard]] const std::byte* Values() const noexcept { return Key; }
};

// Most comparisons are decided by the eight bytes. `make` gives the row at a place. Answers, when
// it is to find that out, whether no two rows have equal keys.
template <typename T, typename F>
bool SortByPrefix(std::vector<void*>& records, const TKdsOrderPlan& plan, bool seeksEqual,
                  F&& make) {
    std::vector<T> rows;
    rows.reserve(records.size());
    const bool hasPrefix = plan.HasPrefix();
    bool ascending = true;
    std::int64_t previous = -1;
    for (std::size_t i = 0; i < records.size(); ++i) {
        T& row = rows.emplace_back(make(i));
        if (hasPrefix) row.Prefix = plan.Prefix(row.Values());
        ascending = ascending && row.Record->RowID() > previous;
        previous = row.Record->RowID();
    }
    const bool decides = plan.PrefixDecides();
    const auto byKey = [&plan, decides](const T& a, const T& b) -> std::int32_t {
        if (a.Prefix != b.Prefix) return a.Prefix < b.Prefix ? -1 : 1;
        if (decides && a.Prefix != ~std::uint64_t{0}) return 0;
        return plan.Compare(a.Values(), b.Values(), plan.Count(), {});
    };
    MergeSort(
        rows.data(), static_cast<std::int64_t>(rows.size()),
        [&byKey, ascending](const T& a, const T& b) -> std::int32_t {
            const std::int32_t order = byKey(a, b);
            // The sort is stable: rows that came in the order of their identifiers stay so.
            if (order != 0 || ascending) return order;
            return (a.Record->RowID() > b.Record->RowID()) -
                   (a.Record->RowID() < b.Record->RowID());
        },
        0);
    std::ranges::transform(rows, records.begin(), &T::Record);
    return seeksEqual && std::ranges::adjacent_find(rows, [&byKey](const T& a, const T& b) {
                             return byKey(a, b) == 0;
                         }) == rows.end();
}

// In an order that is calculated on reading, by copies of the keys; false when there can be none.
bool SortByCopies(std::vector<void*>& records, const TKdsOrderColumnList& columns, bool seeksEqual,
                  bool& distinct) {
    if (!TKdsSortKeys::CanCopy(columns)) return false;
    TKdsSortKeys keys(columns);
    if (!keys.Read(records)) return false;
    distinct = SortByPrefix<TCopied>(records, keys.Plan(), seeksEqual, [&](std::size_t row) {
        return TCopied{0, static_cast<TKdsRecord*>(records[row]), keys.Key(row)};
    });
    return true;
}

}  // namespace

bool TKdsViewStorage::Build(std::vector<void*>&& records, bool sorts) {
    for (void* const record : records) Append(RecordOf(record));
    if (sorts) Sort({coUseRowID}, false);
    return false;
}

bool TKdsViewStorage::SortRecords(std::vector<void*>& records, TKdsCompareOptions compare) const {
    const bool swapped = fOwner->Table()->HasSwapped();
    const bool isVolatile = swapped || IsVolatile(*fOwner);
    TSortSwitch guard(isVolatile);
    if (!isVolatile && fOwner->GetSortMode() == omOrder && fOwner->Columns()->Count() > 0 &&
        compare == TKdsCompareOptions{coUseRowID} && fOwner->Plan().IsPlain()) {
        return SortByPrefix<TPrefixed>(records, fOwner->Plan(), fOwner->Unique(),
                                       [&](std::size_t row) {
                                           return TPrefixed{0, RecordOf(records[row])};
                                       });
    }
    bool distinct = false;
    if (isVolatile && !fOwner->OnCompare() && fOwner->GetSortMode() == omOrder &&
        compare == TKdsCompareOptions{coUseRowID} &&
        SortByCopies(records, *fOwner->Columns(), fOwner->Unique(), distinct)) {
        return distinct;
    }
    MergeSort(
        records.data(), static_cast<std::int64_t>(records.size()),
        [&](void* a, void* b) { return fOwner->CompareMembers(RecordOf(a), RecordOf(b), compare); },
        isVolatile ? 1 : 0);
    return false;
}

// ---- Enumerators --------------------------------------------------------------------------

// Knows its rows, and they know it, so that it ends with them.
class TKdsIndexedEnumerator final : public IKdsRecordEnumerator {
public:
    TKdsIndexedEnumerator(TKdsViewRecords* rows, TListEnumeratorDirection direction)
        : fRows(rows),
          fStep(direction == ledForward ? 1 : -1),
          fIndex(direction == ledForward ? -1 : rows->GetCount()),
          fNext(rows->fEnumerators) {
        rows->fEnumerators = this;
    }
    bool MoveNext() override {
        if (fRows == nullptr) return false;
        fIndex = fStep > 0 ? fIndex + 1 : std::min(fIndex, fRows->GetCount()) - 1;
        if (fIndex >= 0 && fIndex < fRows->GetCount()) return true;
        Leave();
        return false;
    }
    [[nodiscard]] TKdsRecord* GetCurrent() const override {
        return fRows == nullptr || fIndex < 0 ? nullptr : fRows->GetItem(fIndex);
    }

private:
    friend class TKdsViewRecords;
    ~TKdsIndexedEnumerator() override { Leave(); }
    void Leave() noexcept {
        if (fRows == nullptr) return;
        TKdsIndexedEnumerator** link = &fRows->fEnumerators;
        while (*link != this) link = &(*link)->fNext;
        *link = fNext;
        fRows = nullptr;
    }

    TKdsViewRecords* fRows;
    std::int32_t fStep;
    std::int32_t fIndex;
    TKdsIndexedEnumerator* fNext;
};

TIntf<IKdsRecordEnumerator> TKdsViewRecords::GetIndexedEnumerator(
    TListEnumeratorDirection direction) {
    return MakeIntf<TKdsIndexedEnumerator>(this, direction);
}

void TKdsViewRecords::EndEnumerators() noexcept {
    while (fEnumerators != nullptr) fEnumerators->Leave();
}

// ---- Factories ----------------------------------------------------------------------------

std::unique_ptr<TKdsViewStorage> TKdsStorageFactory::CreateStorage(TKdsTable*) {
    return std::make_unique<TKdsViewStorageSkip>();
}

std::int32_t TKdsStorageFactory::ExpectedCount(TKdsTable* table) {
    return table->Records()->Count();
}

namespace {

class TTreeStorageFactory final : public TKdsStorageFactory {
public:
    [[nodiscard]] std::unique_ptr<TKdsViewStorage> CreateStorage(TKdsTable* table) override {
        return std::make_unique<TKdsViewStorageTree>(ExpectedCount(table));
    }
};

template <typename T>
class TFactoryOf final : public TKdsStorageFactory {
public:
    [[nodiscard]] std::unique_ptr<TKdsViewStorage> CreateStorage(TKdsTable*) override {
        return std::make_unique<T>();
    }
};

}  // namespace

TIntf<IKdsStorageFactory> StorageFactory(TKdsStorageKind kind) {
    switch (kind) {
        case skTree: return MakeIntf<TTreeStorageFactory>();
        case skList: return MakeIntf<TFactoryOf<TKdsViewStorageList>>();
        case skLite: return MakeIntf<TFactoryOf<TKdsViewStorageLite>>();
        default: return MakeIntf<TKdsStorageFactory>();
    }
}

}  // namespace kds
