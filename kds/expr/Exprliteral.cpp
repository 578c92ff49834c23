#include <cmath>

#include "kds/expr/Expressions.h"
#include "kds/expr/Exprlexer.h"
#include "kds/expr/Varconvert.h"
#include "kds/fixed/Powers.h"
#include "kds/platform/Datetime.h"
#include "kds/platform/Floats.h"

namespace kds {
namespace {

[[nodiscard]] std::u16string FloatLiteral(double value) {
    if (std::isnan(value)) return u"NULL";
    if (std::isinf(value)) throw EConvertError(u"An infinity has no literal");
    std::u16string text = FloatText(value, 17);
    // Without an exponent it would be a decimal or an integer.
    if (text.find_first_of(u"eE") == std::u16string::npos) text += u"e0";
    return text;
}

[[nodiscard]] std::u16string DecimalLiteral(TFixed value) {
    constexpr std::int64_t limit = 1'000'000'000'000'000'000;  // 18 digits
    if (value.Scale >= 1 && value.Scale <= MaxPowerOf10 && value.Value > -limit &&
        value.Value < limit) {
        return FixedToStr(value, TFormatSettings{});
    }
    return Format(u"DECIMAL(%d, %d)", {value.Value, value.Scale});
}

[[nodiscard]] std::u16string DateLiteral(double days) {
    if (std::isnan(days)) return u"NULL";
    const TDayTime parts = SplitDateTime(days);
    if (!IsCalendarDay(parts.Day)) throw EConvertError(u"The date-time lies outside the calendar");
    return u"#" + (parts.Day == 0 ? TimeText(parts.Milliseconds) : DateTimeText(parts)) + u"#";
}

[[nodiscard]] std::u16string Quoted(std::u16string_view text, char16_t open, char16_t close) {
    std::u16string quoted(1, open);
    for (const char16_t unit : text) {
        quoted += unit;
        if (unit == close) quoted += unit;
    }
    return quoted += close;
}

}  // namespace

std::u16string ToLiteral(const TVariant& value) {
    switch (value.Type()) {
        case varEmpty:
        case varNull: return u"NULL";
        case varBoolean: return value.Get<bool>() ? u"TRUE" : u"FALSE";

        case varSingle: return FloatLiteral(static_cast<double>(value.Get<float>()));
        case varDouble: return FloatLiteral(value.Get<double>());
        case varExtended: return FloatLiteral(value.Get<TExtended>().Value);
        case varCurrency: return DecimalLiteral(TFixed(value.Get<TCurrency>()));
        case varFixed: return DecimalLiteral(TFixed(value.Get<TDecimalParts>()));
        case varDateTime: return DateLiteral(value.Get<TDateTime>().Days);
        case varString:
        case varAnsiString: return Quoted(VarToStr(value), u'\'', u'\'');
        case varInterface: throw EVariantError(u"An interface has no literal");
        default: return VarToStr(VarToInt64(value));
    }
}

std::u16string ToExpressionName(std::u16string_view name) {
    bool plain = !name.empty() && IsNameStart(name.front()) && ReservedWord(name) == tkName;
    for (const char16_t unit : name) plain = plain && IsNamePart(unit);
    return plain ? std::u16string(name) : Quoted(name, u'[', u']');
}

}  // namespace kds
