// Order specifications: "Name, Price desc, City nocase" as text, parsed, and compiled.
//
// Shape      Items are separated by commas; each is a column name and suffixes (" desc", " nocase",
//            " nolook") in any case. The canonical text has one comma between items and lower-case
//            suffixes in the order nocase, desc, nolook. Nulls sort after all values, also in a
//            descending column.
// Ownership  An order list borrows its columns; whoever keeps one drops columns that go.
// Errors     NameNotFound for an unknown column; Parse then leaves the list as it was.
// Cost       Comparison O(columns compared), without variants; stored values of resident rows are
//            compared where they lie.
// Validity   A plan is good until the table's layout changes; it notices by itself.
// Threads    Reads are safe from several threads when IsStable says so.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kds/core/Kdscolumns.h"
#include "kds/core/Kdsrecords.h"
#include "kds/core/Kdstables.h"

namespace kds {

enum class TKdsSortOption : std::uint8_t { soNoCase, soDescending, soNoLookup };
using enum TKdsSortOption;
using TKdsSortOptions = TSet<TKdsSortOption>;

enum class TKdsIndexMatch : std::uint8_t { imNothing, imDirect, imReverse };
using enum TKdsIndexMatch;

enum class TKdsOrderMode : std::uint8_t { omRowID, omOrder };
using enum TKdsOrderMode;

// Strips the suffixes from one item and answers what they say.
void AnalyzeOptions(std::u16string& text, TKdsSortOptions& options);
[[nodiscard]] std::u16string AppendSuffixes(std::u16string_view text, TKdsSortOptions options);
[[nodiscard]] std::u16string NormalizeOrder(std::u16string_view text);

// How one column of a plan is compared.
enum class TKdsKeyKind : std::uint8_t {
    kkByte,
    kkShort,
    kkSmall,
    kkWord,
    kkInteger,
    kkCardinal,
    kkInt64,
    kkFloat,
    kkTime,
    kkText,
    kkOther,  // stored, by CompareData
    kkSlow    // not in the buffer as it stands: read through the record
};
using enum TKdsKeyKind;

struct TKdsKeyPart {
    const TKdsColumn* Column;
    TKdsSlot Slot;
    TKdsKeyKind Kind;
    bool Caseless;
    bool Descending;
};

// An order compiled against the layout of its table.
class TKdsOrderPlan {
public:
    void Compile(const TKdsOrderColumnList& columns, const TKdsLayout& layout);
    // For copies of keys: the layout has a slot for each column of the order, in that order. Texts
    // lie behind handles there, the units of wide ones as bytes.
    void CompileKeys(const TKdsOrderColumnList& columns, const TKdsLayout& keys);
    // All columns are compared in the buffers, without the records.
    [[nodiscard]] bool IsPlain() const noexcept { return fPlain; }
    // Nothing but a notified change moves a row in this order, and reading it writes nothing.
    [[nodiscard]] bool IsStable() const noexcept { return fStable; }
    [[nodiscard]] const TKdsColumnMask& Columns() const noexcept { return fMask; }
    [[nodiscard]] std::int32_t Count() const noexcept {
        return static_cast<std::int32_t>(fParts.size());
    }
    [[nodiscard]] const TKdsKeyPart& Part(std::int32_t index) const {
        return fParts[static_cast<std::size_t>(index)];
    }
    [[nodiscard]] bool IsCurrent(const TKdsLayout& layout) const noexcept {
        return fLayoutVersion == layout.Version();
    }
    // Of a plain plan: the first `count` columns of two buffers.
    [[nodiscard]] std::int32_t Compare(const std::byte* a, const std::byte* b, std::int32_t count,
                                       TKdsCompareOptions options) const;
    // A number in the order of the rows, made of as much of the first columns' values as it can
    // hold, nulls last: where two numbers differ, so do the rows. Equal numbers decide nothing
    // unless PrefixDecides.
    [[nodiscard]] std::uint64_t Prefix(const std::byte* buffer) const;
    [[nodiscard]] bool PrefixDecides() const noexcept { return fPrefixDecides; }
    [[nodiscard]] bool HasPrefix() const noexcept { return fHasPrefix; }
    // The bits of it that the first `count` columns decide; -1: all columns.
    [[nodiscard]] std::uint64_t PrefixMask(std::int32_t count) const noexcept;
    // Whether the values of the plan's columns are the same bytes in both buffers.
    [[nodiscard]] bool SameBytes(const std::byte* a, const std::byte* b) const;

private:
    void Compile(const TKdsOrderColumnList& columns, const TKdsLayout& layout, bool areKeys);

    std::vector<TKdsKeyPart> fParts;
    TKdsColumnMask fMask;
    bool fPlain = true;
    bool fStable = true;
    bool fPrefixDecides = false;
    bool fHasPrefix = false;
    std::size_t fPrefixParts = 0;
    std::uint32_t fLayoutVersion = 0;
};

class TKdsOrderColumnList final : public TKdsColumnList {
public:
    [[nodiscard]] static TOwned<TKdsOrderColumnList> Create();
    void Parse(TKdsTable* table, std::u16string_view text);
    // Can the first columns of this list serve the specification?
    [[nodiscard]] TKdsIndexMatch Match(const TKdsOrderColumnList* other, std::int32_t count) const;
    [[nodiscard]] bool Caseless(std::int32_t index) const {
        return fCaseless[static_cast<std::size_t>(index)];
    }
    [[nodiscard]] bool Descends(std::int32_t index) const {
        return fDescends[static_cast<std::size_t>(index)];
    }
    void Clear() override;
    // Compiled on first need and again when the layout has changed.
    [[nodiscard]] const TKdsOrderPlan& Plan(const TKdsLayout& layout) const;
    // InvalidExpression for a column that is calculated on reading by what comes out otherwise each
    // time, as NOW() does: rows could not keep their places.
    void CheckPredictable() const;
    // The column is gone: nothing may compare by its pointer any more.
    void DropColumn(const TKdsColumn* column);

private:
    TKdsOrderColumnList();
    ~TKdsOrderColumnList() override = default;

    std::vector<bool> fCaseless;
    std::vector<bool> fDescends;
    mutable TKdsOrderPlan fPlan;
    mutable bool fCompiled = false;
};

// The value that a row is ordered by: what an expression cannot calculate counts as null.
bool ReadOrderKey(TKdsRecord* record, const TKdsColumn* column, TKdsReading reading,
                  TKdsScratch& scratch, TKdsValue& value);

// The literal comparison of two records, each by the reading asked for. `columns` nullptr: all
// columns of a's table, ascending. `count` < 0: all of the list.
[[nodiscard]] std::int32_t CompareRecords(TKdsRecord* a, TKdsReading readA, TKdsRecord* b,
                                          TKdsReading readB, const TKdsOrderColumnList* columns,
                                          std::int32_t count, TKdsCompareOptions options);

// The same with a NaN after all numbers, so that it is an order: what views place rows by.
[[nodiscard]] std::int32_t OrderRecords(TKdsRecord* a, TKdsReading readA, TKdsRecord* b,
                                        TKdsReading readB, const TKdsOrderColumnList* columns,
                                        std::int32_t count, TKdsCompareOptions options);

}  // namespace kds
