#include "kds/views/Kdsorders.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cmath>
#include <cstring>

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdsswapper.h"
#include "kds/expr/Exprerrors.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

struct TSuffix {
    std::u16string_view Text;
    TKdsSortOption Option;
};
// Searched in this order; the canonical text follows the options' order instead.
constexpr auto Suffixes = std::to_array<TSuffix>({
    {u" desc", soDescending},
    {u" nocase", soNoCase},
    {u" nolook", soNoLookup},
});
static_assert(Suffixes.size() == 3);

template <typename F>
void ForEachItem(std::u16string_view text, F&& visit) {
    if (text.empty()) return;
    for (std::size_t start = 0;;) {
        const std::size_t comma = text.find(u',', start);
        visit(text.substr(start, comma - start));
        if (comma == std::u16string_view::npos) return;
        start = comma + 1;
    }
}

}  // namespace

// ---- Texts --------------------------------------------------------------------------------

void AnalyzeOptions(std::u16string& text, TKdsSortOptions& options) {
    std::u16string_view rest = Trim(text);
    options = {};
    for (bool found = true; found;) {
        found = false;
        for (const TSuffix& suffix : Suffixes) {
            if (!EndsWithText(rest, suffix.Text)) continue;
            options.Include(suffix.Option);
            rest = Trim(rest.substr(0, rest.size() - suffix.Text.size()));
            found = true;
            break;
        }
    }
    text = std::u16string(rest);
}

std::u16string AppendSuffixes(std::u16string_view text, TKdsSortOptions options) {
    std::u16string result(Trim(text));
    // QUIRK: in the order of the options, not of the suffix table; canonical texts are compared.
    for (const TKdsSortOption option : {soNoCase, soDescending, soNoLookup}) {
        if (options.Has(option))
            result += std::ranges::find(Suffixes, option, &TSuffix::Option)->Text;
    }
    return result;
}

std::u16string NormalizeOrder(std::u16string_view text) {
    std::u16string result;
    bool first = true;
    ForEachItem(text, [&](std::u16string_view item) {
        std::u16string name(item);
        TKdsSortOptions options;
        AnalyzeOptions(name, options);
        if (!first) result += u',';
        first = false;
        result += AppendSuffixes(name, options);
    });
    return result;
}

// ---- The parsed list ----------------------------------------------------------------------

TKdsOrderColumnList::TKdsOrderColumnList()
    : TKdsColumnList(nullptr, /*ownsObjects=*/false, /*broadcaster=*/false) {}

TOwned<TKdsOrderColumnList> TKdsOrderColumnList::Create() {
    return TOwned<TKdsOrderColumnList>(new TKdsOrderColumnList());
}

void TKdsOrderColumnList::Clear() {
    TKdsColumnList::Clear();
    fCaseless.clear();
    fDescends.clear();
    fCompiled = false;
}

// Read whole before anything is replaced: an unknown name leaves the list as it was.
void TKdsOrderColumnList::Parse(TKdsTable* table, std::u16string_view text) {
    struct TItem {
        TKdsColumn* Column;
        bool Caseless, Descends;
    };
    if (table == nullptr) throw EInvalidArgument(u"An order needs a table");
    std::vector<TItem> items;
    ForEachItem(text, [&](std::u16string_view part) {
        std::u16string name(part);
        TKdsSortOptions options;
        AnalyzeOptions(name, options);
        TKdsColumn* const column = table->Columns()->Columns(name);
        if (column->Occurences().Has(coCaseless)) options.Include(soNoCase);
        // Numbers and dates have no case, whatever the text says.
        items.push_back({column, options.Has(soNoCase) && IsTextType(column->DataType()),
                         options.Has(soDescending)});
    });
    std::vector<TKdsItem*> columns;
    std::vector<bool> caseless;
    std::vector<bool> descends;
    for (const TItem& item : items) {
        columns.push_back(item.Column);
        caseless.push_back(item.Caseless);
        descends.push_back(item.Descends);
    }
    Clear();
    fItems.swap(columns);
    fCount = fLimit = static_cast<std::int32_t>(fItems.size());
    fCaseless.swap(caseless);
    fDescends.swap(descends);
}

TKdsIndexMatch TKdsOrderColumnList::Match(const TKdsOrderColumnList* other,
                                          std::int32_t count) const {
    if (other == nullptr) return imNothing;
    const std::int32_t n = count == -1 ? other->Count() : count;
    if (n <= 0 || n > Count() || n > other->Count()) return imNothing;
    const bool reverse = Descends(0) != other->Descends(0);
    for (std::int32_t i = 0; i < n; ++i) {
        if (GetItem(i) != other->GetItem(i) || Caseless(i) != other->Caseless(i)) return imNothing;
        if ((Descends(i) != other->Descends(i)) != reverse) return imNothing;
    }
    return reverse ? imReverse : imDirect;
}

void TKdsOrderColumnList::DropColumn(const TKdsColumn* column) {
    for (std::int32_t i = Count() - 1; i >= 0; --i) {
        if (GetItem(i) != column) continue;
        DoDelete(i);
        fCaseless.erase(fCaseless.begin() + i);
        fDescends.erase(fDescends.begin() + i);
    }
    fCompiled = false;
}

void TKdsOrderColumnList::CheckPredictable() const {
    std::vector<TKdsColumn*> columns;
    for (TKdsColumn* const column : *this) columns.push_back(column);
    for (const TKdsColumn* const column : ColumnsReadBy(std::move(columns))) {
        if (!column->CalculatesOnRead()) continue;
        const IExpressionEvaluator* const evaluator = column->Evaluator();
        if (evaluator == nullptr || evaluator->IsPure()) continue;
        ParserError(u"InvalidExpression", {column->Name() + u" = " + column->Expression()});
    }
}

const TKdsOrderPlan& TKdsOrderColumnList::Plan(const TKdsLayout& layout) const {
    if (!fCompiled || !fPlan.IsCurrent(layout)) {
        fPlan.Compile(*this, layout);
        fCompiled = true;
    }
    return fPlan;
}

// ---- The compiled order -------------------------------------------------------------------

namespace {

TKdsKeyKind KindOf(const TKdsSlot& slot) noexcept {
    if (slot.Kind >= skComputed || slot.StampOffset >= 0) return kkSlow;
    switch (slot.Type) {
        case dtByte: return kkByte;
        case dtShort: return kkShort;
        case dtSmall: return kkSmall;
        case dtWord: return kkWord;
        case dtInteger:
        case dtDate: return kkInteger;
        case dtCardinal: return kkCardinal;
        case dtInt64:
        case dtUInt64:
        case dtCurrency: return kkInt64;
        case dtDouble:
        case dtExtended: return kkFloat;
        case dtTime: return kkTime;
        case dtChar:
        case dtAnsiString:
        case dtMemoString: return kkText;
        default: return kkOther;
    }
}

template <typename T>
std::int32_t OrderOf(T a, T b) noexcept {
    return (a > b) - (a < b);
}
template <typename T>
std::int32_t OrderAt(const std::byte* a, const std::byte* b) noexcept {
    return OrderOf(LoadRaw<T>(a), LoadRaw<T>(b));
}

std::int32_t OrderFloats(double a, double b) noexcept {
    const bool nanA = std::isnan(a);
    const bool nanB = std::isnan(b);
    if (nanA || nanB) return static_cast<std::int32_t>(nanA) - static_cast<std::int32_t>(nanB);
    return OrderOf(a, b);
}

std::string_view TextAt(const TKdsSlot& slot, const std::byte* buffer) noexcept {
    const std::byte* const data = buffer + slot.Offset;
    const auto* const characters = reinterpret_cast<const char*>(data);
    if (slot.Type == dtChar) {
        const auto size = static_cast<std::size_t>(slot.Size);
        const void* const end = std::memchr(characters, 0, size);
        return {characters, end == nullptr ? size
                                           : static_cast<std::size_t>(
                                                 static_cast<const char*>(end) - characters)};
    }
    if (slot.Type == dtMemoString) return TAnsiString::View(LoadRaw<void*>(data));
    return {characters + 2, LoadRaw<std::uint16_t>(data)};
}

// The raw value of a stored wide text, fixed decimal and the like, for CompareData.
void RawAt(const TKdsSlot& slot, const std::byte* buffer, const std::byte*& data,
           std::int32_t& size) noexcept {
    data = buffer + slot.Offset;
    size = slot.Size;
    if (slot.Kind == skMemo) {
        const std::string_view units = TAnsiString::View(LoadRaw<void*>(data));
        data = reinterpret_cast<const std::byte*>(units.data());
        size = static_cast<std::int32_t>(units.size() / sizeof(char16_t));
    } else if (slot.Type == dtWideString) {
        size = LoadRaw<std::uint16_t>(data);
        data += 2;
    }
}

std::int32_t ComparePart(const TKdsKeyPart& part, const std::byte* a, const std::byte* b,
                         TKdsCompareOptions options) {
    const std::byte* const x = a + part.Slot.Offset;
    const std::byte* const y = b + part.Slot.Offset;
    switch (part.Kind) {
        case kkByte: return OrderAt<std::uint8_t>(x, y);
        case kkShort: return OrderAt<std::int8_t>(x, y);
        case kkSmall: return OrderAt<std::int16_t>(x, y);
        case kkWord: return OrderAt<std::uint16_t>(x, y);
        case kkInteger: return OrderAt<std::int32_t>(x, y);
        case kkCardinal: return OrderAt<std::uint32_t>(x, y);
        case kkInt64: return OrderAt<std::int64_t>(x, y);
        case kkFloat: return OrderFloats(LoadRaw<double>(x), LoadRaw<double>(y));
        case kkTime:
            return OrderOf(LoadRaw<std::int32_t>(x) / 1000, LoadRaw<std::int32_t>(y) / 1000);
        case kkText: {
            std::string_view s = TextAt(part.Slot, a);
            const std::string_view t = TextAt(part.Slot, b);
            if (options.Has(coPartial)) s = s.substr(0, t.size());
            return CompareAnsi(s, t, part.Caseless || options.Has(coNoCase));
        }
        default: break;
    }
    if (part.Caseless) options.Include(coNoCase);
    const std::byte* data1 = nullptr;
    const std::byte* data2 = nullptr;
    std::int32_t size1 = 0;
    std::int32_t size2 = 0;
    RawAt(part.Slot, a, data1, size1);
    RawAt(part.Slot, b, data2, size2);
    return CompareData(part.Slot.Type, data1, data2, size1, size2, options);
}

// Bits of a value of this kind; 64 for what may be longer.
int WidthOf(TKdsKeyKind kind) noexcept {
    switch (kind) {
        case kkByte:
        case kkShort: return 8;
        case kkSmall:
        case kkWord: return 16;
        case kkInteger:
        case kkCardinal:
        case kkTime: return 32;
        default: return 64;
    }
}

}  // namespace

void TKdsOrderPlan::Compile(const TKdsOrderColumnList& columns, const TKdsLayout& layout) {
    Compile(columns, layout, false);
}

void TKdsOrderPlan::CompileKeys(const TKdsOrderColumnList& columns, const TKdsLayout& keys) {
    Compile(columns, keys, true);
}

void TKdsOrderPlan::Compile(const TKdsOrderColumnList& columns, const TKdsLayout& layout,
                            bool areKeys) {
    fParts.clear();
    fPlain = true;
    fStable = true;
    fMask.Reset(layout.ColumnCount());
    std::int32_t index = 0;
    for (const TKdsColumn* const column : columns) {
        const std::int32_t place = areKeys ? index : column->Index();
        const TKdsSlot& slot = layout.Slot(place);
        const TKdsKeyKind kind = KindOf(slot);
        fParts.push_back({column, slot, kind, columns.Caseless(index), columns.Descends(index)});
        fMask.Include(place);
        if (kind == kkSlow) fPlain = false;
        // A value that compares itself may do so on the calling thread only.
        if (kind == kkSlow || slot.Type == dtCustomData) fStable = false;
        ++index;
    }
    const TKdsKeyKind first = fParts.empty() ? kkSlow : fParts.front().Kind;
    fPrefixDecides = fParts.size() == 1 && first <= kkTime && first != kkFloat;
    fHasPrefix = fPlain && !fParts.empty() && first < kkOther;
    fPrefixParts = 0;
    for (int bits = 64; fHasPrefix && fPrefixParts < fParts.size() && bits > 8;) {
        const TKdsKeyKind kind = fParts[fPrefixParts].Kind;
        if (kind >= kkOther) break;
        ++fPrefixParts;
        bits -= WidthOf(kind) + 1;
    }
    fLayoutVersion = layout.Version();
}

std::int32_t TKdsOrderPlan::Compare(const std::byte* a, const std::byte* b, std::int32_t count,
                                    TKdsCompareOptions options) const {
    for (const TKdsKeyPart& part : fParts) {
        if (count-- == 0) break;
        const bool hasA = part.Slot.HasValue(a);
        const bool hasB = part.Slot.HasValue(b);
        if (!hasA || !hasB) {
            // Before the direction: nulls are last in descending columns too.
            if (hasA != hasB) return hasA ? -1 : 1;
            continue;
        }
        const std::int32_t order = ComparePart(part, a, b, options);
        if (order != 0) return part.Descending ? (order < 0 ? 1 : -1) : order;
    }
    return 0;
}

namespace {

// Maps values to unsigned numbers of the same order.
std::uint64_t Ordinal(std::int64_t value) noexcept {
    return static_cast<std::uint64_t>(value) ^ (std::uint64_t{1} << 63);
}
std::uint64_t Ordinal(double value) noexcept {
    if (std::isnan(value)) return ~std::uint64_t{1};
    if (value == 0) value = 0;  // -0 is equal to 0
    const auto bits = std::bit_cast<std::uint64_t>(value);
    return (bits >> 63) != 0 ? ~bits : bits | (std::uint64_t{1} << 63);
}
// The first bytes, folded where the comparison folds. Folding keeps ASCII among ASCII, and a
// character beyond it ends the prefix there: its bytes count as the largest.
std::uint64_t Ordinal(std::string_view text, bool caseless) noexcept {
    std::uint64_t result = 0;
    if (!text.empty()) std::memcpy(&result, text.data(), std::min(text.size(), sizeof result));
    if constexpr (std::endian::native == std::endian::little) result = __builtin_bswap64(result);
    if (!caseless) return result;
    // Eight characters at once; those of interest have no upper bit, so no sum runs over.
    constexpr std::uint64_t ones = 0x0101'0101'0101'0101;
    const std::uint64_t foreign = result & ones << 7;
    const std::uint64_t plain = result & ~(ones << 7);
    const std::uint64_t fromA = plain + ones * (0x80 - 'a');
    const std::uint64_t pastZ = plain + ones * (0x80 - 'z' - 1);
    result = plain - (((fromA & ~pastZ) >> 2) & ones << 5);
    if (foreign == 0) return result;
    const int from = std::countl_zero(foreign) / 8 * 8;
    return (from == 0 ? 0 : result & ~std::uint64_t{0} << (64 - from)) | std::uint64_t{0xff}
                                                                             << (56 - from);
}

// The order of 64 bits in fewer: sign, bit width, and as many of the bits behind the leading one as
// there is room for, so that small numbers are told apart exactly.
std::uint64_t Shortened(std::int64_t value, int bits) noexcept {
    assert(bits > 8 && bits <= 64);
    const std::uint64_t magnitude = static_cast<std::uint64_t>(value < 0 ? ~value : value);
    const int width = static_cast<int>(std::bit_width(magnitude));
    const int room = bits - 7;
    std::uint64_t code = 0;
    if (width > 1) {
        code =
            width - 1 <= room ? magnitude << (room - width + 1) : magnitude >> (width - 1 - room);
        code &= (std::uint64_t{1} << room) - 1;
    }
    code |= static_cast<std::uint64_t>(width) << room;
    const std::uint64_t sign = std::uint64_t{1} << (bits - 1);
    return value < 0 ? sign - 1 - code : sign | code;
}

// The value's place among all of its kind, in the upper `bits` of 64; the other bits are zero.
std::uint64_t PlaceOf(const TKdsKeyPart& part, const std::byte* buffer, int bits) {
    const std::byte* const data = buffer + part.Slot.Offset;
    constexpr std::uint64_t high = std::uint64_t{1} << 63;
    switch (part.Kind) {
        case kkByte: return std::uint64_t{LoadRaw<std::uint8_t>(data)} << 56;
        case kkWord: return std::uint64_t{LoadRaw<std::uint16_t>(data)} << 48;
        case kkCardinal: return std::uint64_t{LoadRaw<std::uint32_t>(data)} << 32;
        case kkShort:
            return static_cast<std::uint64_t>(std::int64_t{LoadRaw<std::int8_t>(data)}) << 56 ^
                   high;
        case kkSmall:
            return static_cast<std::uint64_t>(std::int64_t{LoadRaw<std::int16_t>(data)}) << 48 ^
                   high;
        case kkInteger:
            return static_cast<std::uint64_t>(std::int64_t{LoadRaw<std::int32_t>(data)}) << 32 ^
                   high;
        case kkTime:
            return static_cast<std::uint64_t>(std::int64_t{LoadRaw<std::int32_t>(data) / 1000})
                       << 32 ^
                   high;
        case kkInt64:
            if (bits < 64) return Shortened(LoadRaw<std::int64_t>(data), bits) << (64 - bits);
            return Ordinal(LoadRaw<std::int64_t>(data));
        case kkFloat: return Ordinal(LoadRaw<double>(data));
        case kkText: return Ordinal(TextAt(part.Slot, buffer), part.Caseless);
        default: return 0;
    }
}

}  // namespace

// The columns one behind the other, as many bits of each as there is room for. A column that is
// there in full has a bit of its own for null, because what follows must not outweigh it; in the
// last one null is the greatest number.
std::uint64_t TKdsOrderPlan::Prefix(const std::byte* buffer) const {
    std::uint64_t result = 0;
    int bits = 64;
    for (std::size_t i = 0; i < fPrefixParts; ++i) {
        const TKdsKeyPart& part = fParts[i];
        const bool whole = i + 1 < fPrefixParts;
        const int width = whole ? WidthOf(part.Kind) : bits;
        assert(width > 0 && width <= bits && bits <= 64);
        const bool has = part.Slot.HasValue(buffer);
        std::uint64_t place = ~std::uint64_t{0};
        if (has) {
            place = PlaceOf(part, buffer, width);
            if (part.Descending) place = ~place;
        }
        if (whole) {
            if (!has) result |= std::uint64_t{1} << (bits - 1);
            --bits;
        }
        bits -= width;
        result |= place >> (64 - width) << bits;
    }
    return result;
}

std::uint64_t TKdsOrderPlan::PrefixMask(std::int32_t count) const noexcept {
    constexpr std::uint64_t all = ~std::uint64_t{0};
    if (count < 0 || static_cast<std::size_t>(count) >= fPrefixParts) return all;
    int bits = 64;
    for (std::int32_t i = 0; i < count; ++i) bits -= WidthOf(Part(i).Kind) + 1;
    assert(bits >= 0);
    return all << bits;
}

bool TKdsOrderPlan::SameBytes(const std::byte* a, const std::byte* b) const {
    for (const TKdsKeyPart& part : fParts) {
        const TKdsSlot& slot = part.Slot;
        if (slot.Kind >= skComputed || slot.StampOffset >= 0) return false;
        const bool hasA = slot.HasValue(a);
        if (hasA != slot.HasValue(b)) return false;
        if (!hasA) continue;
        if (slot.Kind == skMemo) {
            if (TextAt(slot, a) != TextAt(slot, b)) return false;
        } else if (std::memcmp(a + slot.Offset, b + slot.Offset,
                               static_cast<std::size_t>(slot.Size)) != 0) {
            return false;
        }
    }
    return true;
}

// ---- Comparison through the records -------------------------------------------------------

bool ReadOrderKey(TKdsRecord* record, const TKdsColumn* column, TKdsReading reading,
                  TKdsScratch& scratch, TKdsValue& value) {
    const TKdsColumn* last = column;
    while (last->LooksUp() && last->Shown() != nullptr) last = last->Shown();
    if (last->Expression().empty()) return record->ReadValue(column, reading, scratch, value);
    try {
        return record->ReadValue(column, reading, scratch, value);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {
        return false;
    }
}

namespace {

template <bool NanIsLast>
std::int32_t CompareByColumns(TKdsRecord* a, TKdsReading readA, TKdsRecord* b, TKdsReading readB,
                              const TKdsOrderColumnList* columns, std::int32_t count,
                              TKdsCompareOptions options) {
    const TKdsColumnList* const source =
        columns != nullptr ? static_cast<const TKdsColumnList*>(columns) : a->Table()->Columns();
    count = count < 0 ? source->Count() : std::min(count, source->Count());
    const TKdsCompareOptions given = options & TKdsCompareOptions{coNoCase, coPartial};
    TKdsScratch scratchA;
    TKdsScratch scratchB;
    const TKdsRowPin pin(a);  // so that reading b does not make it read once more
    for (std::int32_t i = 0; i < count; ++i) {
        const TKdsColumn* const column = source->GetItem(i);
        TKdsValue x;
        TKdsValue y;
        const bool hasA = NanIsLast ? ReadOrderKey(a, column, readA, scratchA, x)
                                    : a->ReadValue(column, readA, scratchA, x);
        const bool hasB = NanIsLast ? ReadOrderKey(b, column, readB, scratchB, y)
                                    : b->ReadValue(column, readB, scratchB, y);
        if (!hasA || !hasB) {
            if (hasA != hasB) return hasA ? -1 : 1;
            continue;
        }
        TKdsCompareOptions used = given;
        if (columns != nullptr && columns->Caseless(i)) used.Include(coNoCase);
        std::int32_t order = 0;
        if (NanIsLast && (x.Type == dtDouble || x.Type == dtExtended)) {
            order = OrderFloats(LoadRaw<double>(x.Data), LoadRaw<double>(y.Data));
        } else {
            order = CompareData(x.Type, x.Data, y.Data, x.Size, y.Size, used);
        }
        if (order == 0) continue;
        // Not negated: a host's comparer may answer the smallest number there is.
        if (columns != nullptr && columns->Descends(i)) return order < 0 ? 1 : -1;
        return order;
    }
    return 0;
}

}  // namespace

std::int32_t CompareRecords(TKdsRecord* a, TKdsReading readA, TKdsRecord* b, TKdsReading readB,
                            const TKdsOrderColumnList* columns, std::int32_t count,
                            TKdsCompareOptions options) {
    return CompareByColumns<false>(a, readA, b, readB, columns, count, options);
}

std::int32_t OrderRecords(TKdsRecord* a, TKdsReading readA, TKdsRecord* b, TKdsReading readB,
                          const TKdsOrderColumnList* columns, std::int32_t count,
                          TKdsCompareOptions options) {
    return CompareByColumns<true>(a, readA, b, readB, columns, count, options);
}

}  // namespace kds
