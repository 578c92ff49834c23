// Finding rows of a view by values.
#include "kds/views/Kdsviews.h"

#include "kds/core/Kdskeyvalues.h"
#include "kds/views/Kdscomparescope.h"

namespace kds {

// The values go into the table's locator, which is never a row.
template <typename F>
void TKdsView::WithKey(const TKdsOrderColumnList* columns, std::span<const TVariant> values,
                       F&& use) {
    if (values.size() > static_cast<std::size_t>(columns->Count())) {
        throw EInvalidArgument(u"More values than order columns");
    }
    TOwned<TKdsRecord> key = fTable->TakeLocator();
    TScopeGuard giveBack([&] { fTable->GiveLocator(std::move(key)); });
    TKdsKeyValues shown(key.get());
    std::int32_t count = 0;
    for (const TVariant& value : values) {
        const TKdsColumn* const column = columns->GetItem(count++);
        if (column->LooksUp() || column->IsComputed()) {
            shown.Add(column, value);
        } else {
            key->StoreVariant(column, value);
        }
    }
    use(key.get(), count);
}

void TKdsView::SearchKey(std::span<const TVariant> values, TKdsLocateOptions options,
                         std::int32_t& index, bool& found) {
    index = -1;
    found = false;
    if (fSorting != omOrder || fTable == nullptr) return;
    WithKey(fColumns.get(), values, [&](TKdsRecord* key, std::int32_t count) {
        Search(key, nullptr, count, options, index, found);
    });
}

std::int32_t TKdsView::Find(std::span<const TVariant> values) { return FindRow(values); }

std::int32_t TKdsView::FindRow(std::span<const TVariant> values, TKdsLocateOptions options) {
    std::int32_t index = -1;
    bool found = false;
    options.Include(loNearest);  // so that of several rows one is meant
    SearchKey(values, options, index, found);
    return found ? index : -1;
}

TKdsRecord* TKdsView::FindRecord(std::span<const TVariant> values, TKdsLocateOptions options) {
    const std::int32_t index = FindRow(values, options);
    return index < 0 ? nullptr : ItemAt(index);
}

std::int32_t TKdsView::FindNearest(std::span<const TVariant> values, TKdsLocateOptions options) {
    std::int32_t index = -1;
    bool found = false;
    options.Include(loNearest);
    SearchKey(values, options, index, found);
    return index;
}

// ---- By any columns -----------------------------------------------------------------------

std::int32_t TKdsView::Locate(std::u16string_view columns, std::span<const TVariant> values,
                              TKdsLocateOptions options) {
    if (fTable == nullptr) return -1;
    const TOwned<TKdsOrderColumnList> list = TKdsOrderColumnList::Create();
    list->Parse(fTable, columns);
    if (list->Count() == 0) throw EInvalidArgument(u"There are no columns to locate by");
    std::int32_t index = -1;
    WithKey(list.get(), values, [&](TKdsRecord* key, std::int32_t count) {
        if (IsOrderedBy(*list, count, options)) {
            bool found = false;
            options.Exclude(loNoCase);  // the order's columns say the same
            const bool nearest = options.Has(loNearest);
            options.Include(loNearest);
            Search(key, nullptr, count, options, index, found);
            if (!found && !nearest) index = -1;
            return;
        }
        if (options.Has(loNearest)) {
            throw EInvalidArgument(u"The view is not ordered by the columns to locate by");
        }
        index = ScanFor(key, list.get(), count, options);
    });
    return index;
}

// Whether a search in the view's own order finds what is equal in these columns: in whatever
// direction, but with the same letters.
bool TKdsView::IsOrderedBy(const TKdsOrderColumnList& columns, std::int32_t count,
                           TKdsLocateOptions options) const {
    if (fSorting != omOrder || fOnCompare || count > fColumns->Count()) return false;
    if (options.Has(loPartial) && count > 1) return false;
    for (std::int32_t i = 0; i < count; ++i) {
        const TKdsColumn* const column = columns.GetItem(i);
        if (fColumns->GetItem(i) != column) return false;
        const bool isText = IsAnsiType(column->DataType()) || column->DataType() == dtWideString;
        const bool caseless = columns.Caseless(i) || options.Has(loNoCase);
        if (isText && fColumns->Caseless(i) != caseless) return false;
    }
    return true;
}

std::int32_t TKdsView::ScanFor(TKdsRecord* key, const TKdsOrderColumnList* columns,
                               std::int32_t count, TKdsLocateOptions options) {
    TKdsBusyScope busy(fTable);  // values may compare themselves, or be calculated
    TKdsCompareOptions compare;
    compare.Set(coNoCase, options.Has(loNoCase));
    compare.Set(coPartial, options.Has(loPartial));
    const std::int32_t rows = Count();
    for (std::int32_t i = 0; i < rows; ++i) {
        const std::int32_t place = options.Has(loLastRow) ? rows - 1 - i : i;
        if (OrderRecords(ItemAt(place), TKdsReading::Posted, key, TKdsReading::Current, columns,
                         count, compare) == 0) {
            return place;
        }
    }
    return -1;
}

// ---- Ranges -------------------------------------------------------------------------------

TKdsView::TIterator TKdsView::LowerBound(std::span<const TVariant> values) {
    return Bound(values, false);
}

TKdsView::TIterator TKdsView::UpperBound(std::span<const TVariant> values) {
    return Bound(values, true);
}

// By bisection: however many rows are equal, none is stepped over.
TKdsView::TIterator TKdsView::Bound(std::span<const TVariant> values, bool isUpper) {
    if (fSorting != omOrder || fTable == nullptr) return end();
    std::int32_t low = 0;
    WithKey(fColumns.get(), values, [&](TKdsRecord* key, std::int32_t count) {
        TKdsBusyScope busy(fTable);  // values may compare themselves, or be calculated
        TCompareScope scope(this, fColumns.get(), count);
        for (std::int32_t high = Count(); low < high;) {
            const std::int32_t middle = low + (high - low) / 2;
            const std::int32_t order = CompareItem(ItemAt(middle), key, {});
            const bool before = isUpper ? order <= 0 : order < 0;
            (before ? low : high) = before ? middle + 1 : middle;
        }
    });
    return {this, low};
}

}  // namespace kds
