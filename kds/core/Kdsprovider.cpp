#include "kds/core/Kdsprovider.h"

#include <cstring>

#include "kds/core/Kdstables.h"

namespace kds {
namespace {

TKdsRecord* RecordOf(TExprPosition position) noexcept {
    return const_cast<TKdsRecord*>(static_cast<const TKdsRecord*>(position.Record));
}

TKdsReading ReadingOf(TExprPosition position) noexcept {
    return position.Reading == erPosted ? TKdsReading::Posted : TKdsReading::Current;
}

TExprKind KindOf(TKdsDataType type) noexcept {
    switch (type) {
        case dtBoolean: return ekBoolean;
        case dtShort:
        case dtSmall:
        case dtInteger:
        case dtInt64:
        case dtByte:
        case dtWord:
        case dtCardinal:
        case dtUInt64: return ekInteger;
        case dtDouble:
        case dtExtended: return ekFloat;
        case dtCurrency:
        case dtFixed: return ekFixed;
        case dtDateTime:
        case dtDate:
        case dtTime: return ekDate;
        case dtChar:
        case dtAnsiString:
        case dtWideString:
        case dtMemoString: return ekText;
        default: return ekAny;
    }
}

TExprRawKind RawKindOf(TKdsDataType type) noexcept {
    switch (type) {
        case dtBoolean: return rwBoolean;
        case dtShort: return rwInt8;
        case dtSmall: return rwInt16;
        case dtInteger: return rwInt32;
        case dtInt64:
        case dtUInt64: return rwInt64;  // read, and compared, as a signed number
        case dtByte: return rwUInt8;
        case dtWord: return rwUInt16;
        case dtCardinal: return rwUInt32;
        case dtChar: return rwChar;
        case dtDouble:
        case dtExtended: return rwDouble;
        case dtCurrency: return rwCurrency;
        case dtDateTime: return rwDateTime;
        case dtDate: return rwDate;
        case dtTime: return rwTime;
        case dtAnsiString: return rwAnsi;
        case dtWideString: return rwWide;
        case dtMemoString: return rwMemo;
        case dtFixed: return rwFixed;
        default: return rwNone;
    }
}

}  // namespace

bool TKdsProvider::Contains(std::u16string_view name, std::int32_t& index) {
    const TKdsColumn* const column = fColumns->Find(name);
    index = column == nullptr ? -1 : column->Index();
    return column != nullptr;
}

TVariant TKdsProvider::Evaluate(std::int32_t index) {
    TKdsRecord* const record = RecordOf(fPosition);
    if (record == nullptr) return Null;
    TKdsValue value;
    if (!record->ReadValue(fColumns->GetItem(index), ReadingOf(fPosition), fScratch, value)) {
        return Null;
    }
    return BufferToVar(value.Type, value.Data, value.Size);
}

TExprColumn TKdsProvider::Describe(std::int32_t index) {
    const TKdsColumn* const column = fColumns->GetItem(index);
    const TKdsSlot& slot = fColumns->Layout().Slot(index);
    TExprColumn known;
    known.Kind = KindOf(column->DataType());
    known.Caseless = !column->CaseSensitive();
    known.Wide = column->DataType() == dtWideString;
    if (slot.Kind <= skMemo && slot.StampOffset < 0) {
        known.Place = {RawKindOf(slot.Type), slot.Offset, slot.Size, slot.NullOffset,
                       slot.NullMask};
    }
    return known;
}

void TKdsProvider::Fetch(TExprPosition position, std::int32_t index, TExprTarget& target) {
    TKdsRecord* const record = RecordOf(position);
    if (record == nullptr) return;
    const TKdsColumn* const column = fColumns->GetItem(index);
    TKdsValue value;
    if (!record->ReadValue(column, ReadingOf(position), fScratch, value)) return;
    // What a lookup shows may have got another type since: then it is no value of this kind.
    const TExprKind kind = KindOf(value.Type);
    if (kind != KindOf(column->DataType())) return;
    switch (kind) {
        case ekText:
            if (value.Type == dtWideString) {
                fWide.resize(static_cast<std::size_t>(value.Size));
                if (!fWide.empty()) std::memcpy(fWide.data(), value.Data, fWide.size() * 2);
                target.SetText(std::u16string_view(fWide));
            } else {
                target.SetText(std::string_view(reinterpret_cast<const char*>(value.Data),
                                                static_cast<std::size_t>(value.Size)));
            }
            return;
        case ekFloat: target.SetFloat(LoadRaw<double>(value.Data)); return;
        default: target.SetVariant(BufferToVar(value.Type, value.Data, value.Size)); return;
    }
}

const std::byte* TKdsProvider::Buffer(TExprPosition position) {
    const TKdsRecord* const record = RecordOf(position);
    // Of a row that is out the values are fetched: reading another row would take the buffer away.
    if (record == nullptr || record->IsOut() || fColumns->Layout().MovesOnRead()) return nullptr;
    return record->BufferFor(ReadingOf(position));
}

TIntf<IExpressionEvaluator> CompileExpression(TKdsTableColumnList* columns,
                                              std::u16string_view text) {
    return MakeExpressionParser()->Parse(text, MakeIntf<TKdsProvider>(columns));
}

}  // namespace kds
