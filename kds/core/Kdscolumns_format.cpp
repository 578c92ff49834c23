// Display texts of column values.
#include "kds/core/Kdscolumns.h"

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdsrecords.h"
#include "kds/expr/Extvars.h"
#include "kds/expr/Varconvert.h"
#include "kds/fixed/Fixed.h"

namespace kds {
namespace {

bool IsDecimalType(TKdsDataType type) noexcept {
    return type == dtDouble || type == dtCurrency || type == dtExtended || type == dtFixed;
}

bool IsNumericType(TKdsDataType type) noexcept {
    return IsDecimalType(type) || (type >= dtShort && type <= dtUInt64);
}

}  // namespace

const std::u16string& TKdsColumn::GetDisplayLabel() const noexcept {
    return fDisplayLabel.empty() ? Name() : fDisplayLabel;
}

std::int32_t TKdsColumn::GetDisplayWidth() const noexcept {
    switch (fDataType) {
        case dtBoolean: return 1;
        case dtShort:
        case dtByte: return 4;
        case dtSmall:
        case dtWord: return 6;
        case dtInteger:
        case dtCardinal: return 11;
        case dtInt64:
        case dtUInt64: return 20;
        case dtChar:
        case dtAnsiString:
        case dtWideString: return fLength;
        case dtDateTime: return 19;
        case dtDate: return 10;
        case dtTime: return 8;
        case dtMemoString: return 40;
        default: return fPrecision > 0 ? fPrecision : 16;
    }
}

// A number with a fixed count of decimals goes through the decimal type, so that 2.675 rounds as
// it is written; what does not fit there prints as it is.
std::u16string TKdsColumn::FormatValue(const TVariant& value, const TKdsRecord* record) const {
    if (fFormatter) return fFormatter->Format(this, value, record);
    if (!value.Assigned()) return {};
    if (value.Type() == varInterface) {
        const auto* const custom = value.Get<TIntf<IInterface>>().Get();
        const auto* const exportable = dynamic_cast<const IKdsExportable*>(custom);
        return exportable == nullptr ? std::u16string() : VarToText(exportable->ExportValue());
    }
    std::int32_t decimals = fDecimals;
    if (fAttributes.Has(caRowDecimals) && record != nullptr && record->Decimals() >= 0) {
        decimals = record->Decimals();
    }
    try {
        if (!IsNumericType(fDataType)) return VarToText(value);
        const double number = VarToDouble(value);
        if (number == 0 && fAttributes.Has(caZeroEmpty)) return {};
        std::u16string text =
            decimals >= 0 && IsDecimalType(fDataType)
                ? FixedToStr(VarToFixed(value), DefaultFormatSettings(), false, decimals)
                : VarToText(value);
        if (number > 0 && fAttributes.Has(caShowSign)) text.insert(0, u"+");
        return text;
    } catch (const Exception&) {
        return VarToText(value);
    }
}

}  // namespace kds
