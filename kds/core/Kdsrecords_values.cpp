// A record's values as variants, and the operations between records.
#include "kds/core/Kdsrecords.h"

#include <ostream>

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdstables.h"
#include "kds/expr/Extvars.h"
#include "kds/expr/Varconvert.h"
#include "kds/platform/Text.h"
#include "kds/views/Kdsorders.h"

namespace kds {

TVariant TKdsRecord::GetDataC(const TKdsColumn* column) {
    CheckColumn(column);
    TKdsValue value;
    if (!ReadValue(column, TKdsReading::Current, fTable->fScratch, value)) return Null;
    return BufferToVar(value.Type, value.Data, value.Size);
}

void TKdsRecord::SetDataC(const TKdsColumn* column, const TVariant& value) {
    CheckWrite(column);
    StoreVariant(column, value);
}

namespace {

template <typename T>
void ShowText(const T& text, TKdsValue& value) noexcept {
    value.Data = reinterpret_cast<const std::byte*>(text.data());
    value.Size = static_cast<std::int32_t>(text.size());
}

}  // namespace

void ConvertVariant(TKdsDataType type, const TVariant& source, TKdsScratch& scratch,
                    TKdsValue& value) {
    value.Type = type;
    if (IsAnsiType(type)) {
        scratch.Ansi = VarToAnsi(source);
        ShowText(scratch.Ansi, value);
        return;
    }
    if (type == dtWideString) {
        scratch.Wide = VarToStr(source);
        ShowText(scratch.Wide, value);
        return;
    }
    value.Data = scratch.Number;
    if (type == dtCustomData) {
        scratch.Intf = VarToIntf(source);
        StoreRaw(scratch.Number, scratch.Intf.Get());
        value.Size = 8;
        return;
    }
    // The two small integers have crossed forms of their own; their low bytes are those of the
    // 32-bit value.
    const bool isSmall = type == dtShort || type == dtSmall;
    VarToBuffer(isSmall ? dtInteger : type, source, scratch.Number, value.Size);
    if (isSmall) value.Size = DataSize(type);
}

// A value that does not convert is the column's error; what the store itself raises passes, and
// so does running out of memory.
void HoldVariant(TKdsDataType type, const TVariant& source, TKdsScratch& scratch,
                 TKdsValue& value) {
    try {
        ConvertVariant(type, source, scratch, value);
    } catch (const EVariantError&) {
        KdsError(u"CannotConvertValue");
    } catch (const EConvertError&) {
        KdsError(u"CannotConvertValue");
    } catch (const EIntError&) {
        KdsError(u"CannotConvertValue");
    } catch (const EMathError&) {
        KdsError(u"CannotConvertValue");
    }
}

void TKdsRecord::StoreVariant(const TKdsColumn* column, const TVariant& value) {
    if (!value.Assigned()) {
        StoreNull(column);
        return;
    }
    if (column->GetIsReference()) KdsError(u"CannotLookupVariant");
    TKdsScratch scratch;
    TKdsValue raw;
    HoldVariant(column->DataType(), value, scratch, raw);
    if (column->Attributes().Has(caAutoTrim) && IsTextType(raw.Type)) {
        if (raw.Type == dtWideString) {
            scratch.Wide = Trim(scratch.Wide);
            ShowText(scratch.Wide, raw);
        } else {
            scratch.Ansi = ToUtf8(Trim(ToUtf16(scratch.Ansi)));
            ShowText(scratch.Ansi, raw);
        }
    }
    StoreValue(column, raw.Data, raw.Size);
}

TVariant TKdsRecord::GetOldC(const TKdsColumn* column) {
    CheckColumn(column);
    if (EffectiveState() != rsEditing) KdsError(u"RecordStateInvalid");
    const TKdsStateScope posted = TKdsStateScope::Posted(this);
    return GetDataC(column);
}

template <>
std::optional<std::u16string> TKdsRecord::Get(const TKdsColumn* column) {
    const void* data = nullptr;
    std::int32_t size = 0;
    if (!GetDataP(column, data, size)) return std::nullopt;
    if (column->DataType() != dtWideString)
        return VarToStr(BufferToVar(column->DataType(), data, size));
    std::u16string text(static_cast<std::size_t>(size), u'\0');
    std::memcpy(text.data(), data, text.size() * sizeof(char16_t));
    return text;
}

void TKdsRecord::SetValues(std::span<const TVariant> values) {
    if (fTable == nullptr) KdsError(u"RecordStateInvalid");
    if (values.size() > static_cast<std::size_t>(fTable->Columns()->Count())) {
        throw EInvalidArgument(u"More values than columns");
    }
    std::int32_t index = 0;
    for (const TVariant& value : values) {
        const TKdsColumn* const column = fTable->Columns()->GetItem(index++);
        // What is calculated on reading has no place for a value.
        if ((column->IsComputed() || column->GetIsReference()) && !value.Assigned()) continue;
        SetDataC(column, value);
    }
}

void TKdsRecord::CopyValueC(const TKdsColumn* column, TKdsRecord* source,
                            const TKdsColumn* sourceColumn) {
    CheckWrite(column);
    if (source == nullptr) throw EInvalidArgument(u"There is no record to copy from");
    source->CheckColumn(sourceColumn);
    TKdsScratch scratch;
    TKdsValue value;
    if (!source->ReadValue(sourceColumn, TKdsReading::Current, scratch, value)) {
        StoreNull(column);
    } else if (value.Type == column->DataType() ||
               (IsAnsiType(value.Type) && IsAnsiType(column->DataType()))) {
        StoreValue(column, value.Data, value.Size);
    } else {
        StoreVariant(column, BufferToVar(value.Type, value.Data, value.Size));
    }
}

bool TKdsRecord::SameValueC(const TKdsColumn* column, TKdsRecord* other,
                            const TKdsColumn* otherColumn) {
    CheckColumn(column);
    if (other == nullptr) return false;
    other->CheckColumn(otherColumn);
    TKdsScratch scratch1;
    TKdsScratch scratch2;
    TKdsValue value1;
    TKdsValue value2;
    const bool found1 = ReadValue(column, TKdsReading::Current, scratch1, value1);
    const bool found2 = other->ReadValue(otherColumn, TKdsReading::Current, scratch2, value2);
    if (!found1 || !found2) return found1 == found2;
    if (value1.Type == value2.Type || (IsAnsiType(value1.Type) && IsAnsiType(value2.Type))) {
        return CompareData(value1.Type, value1.Data, value2.Data, value1.Size, value2.Size, {}) ==
               0;
    }
    // Values of different families have no common raw form; custom data have no text either.
    if (value1.Type == dtCustomData || value2.Type == dtCustomData) return false;
    const TVariant a = BufferToVar(value1.Type, value1.Data, value1.Size);
    const TVariant b = BufferToVar(value2.Type, value2.Data, value2.Size);
    return a.IsText() == b.IsText() && VarToText(a) == VarToText(b);
}

std::u16string TKdsRecord::Format(const TKdsColumn* column) {
    CheckColumn(column);
    if (!column->LooksUp()) return column->FormatValue(GetDataC(column), this);
    bool hasKey = false;
    TKdsRecord* const row = MasterRow(column, TKdsReading::Current, hasKey);
    if (row == nullptr) return hasKey ? GetMessageText(u"UnresolvedLookup") : std::u16string();
    return row->Format(column->Shown());
}

// ---- Defaults -----------------------------------------------------------------------------

void TKdsRecord::AssignDefaults() {
    const TKdsOccurences occurences = fTable->Columns()->Occurences();
    if (!occurences.HasAny({coHasDefault, coAutoInc})) return;
    TKdsStateScope defaults(this, rsDefaults);
    for (TKdsColumn* const column : *fTable->Columns()) {
        if (column->fOccurences.Has(coAutoInc)) {
            StoreVariant(column, column->fAutoIncNext);
            column->fAutoIncNext = column->NumberAfter(column->fAutoIncNext);
        } else if (column->fOccurences.Has(coHasDefault)) {
            StoreVariant(column, column->DefaultValue());
        }
    }
}

// ---- Comparison ---------------------------------------------------------------------------

std::int32_t TKdsRecord::Compare(TKdsOrderColumnList* columns, std::int32_t count,
                                 TKdsRecord* other, TKdsCompareOptions options) {
    if (fTable == nullptr || other == nullptr || other->fTable == nullptr) {
        KdsError(u"RecordStateInvalid");
    }
    if (other->fTable != fTable) throw EInvalidArgument(u"The records are of different tables");
    if (columns != nullptr) {
        for (const TKdsColumn* const column : *columns) CheckColumn(column);
    }
    return CompareRecords(this, TKdsReading::Current, other, TKdsReading::Current, columns, count,
                          options);
}

std::ostream& operator<<(std::ostream& stream, TKdsRecord& record) {
    if (record.Table() == nullptr) return stream << "(no table)";
    const char* separator = "";
    for (TKdsColumn* const column : *record.Table()->Columns()) {
        stream << separator << ToUtf8(column->Name()) << '=' << ToUtf8(record.Format(column));
        separator = " ";
    }
    return stream;
}

}  // namespace kds
