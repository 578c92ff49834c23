#include "kds/expr/Extvars.h"

#include <algorithm>

#include "kds/expr/Varconvert.h"
#include "kds/platform/Floats.h"

namespace kds {
namespace {

[[nodiscard]] std::u16string DateTimeToText(TDateTime value) {
    const TDayTime parts = SplitDateTime(value.Days);
    // QUIRK: a date-time before the epoch has a negative day and prints its time only, like one of
    // day 0.
    return parts.Day <= 0 ? TimeText(parts.Milliseconds) : DateTimeText(parts);
}

// What a text says as a number; the text itself when it says none.
[[nodiscard]] TVariant NumberOrText(std::u16string_view text) {
    double number = 0;
    if (!TextToDouble(text, number)) return text;
    std::int64_t integer = 0;
    const bool isInteger = std::all_of(text.begin() + (text[0] == u'-' ? 1 : 0), text.end(),
                                       [](char16_t c) { return c >= u'0' && c <= u'9'; }) &&
                           TruncToInt64(number, integer);
    if (isInteger && integer == static_cast<std::int32_t>(integer)) {
        return static_cast<std::int32_t>(integer);
    }
    return TExtended{number};
}

}  // namespace

std::u16string VarToText(const TVariant& value) {
    switch (value.Type()) {
        case varBoolean: return value.Get<bool>() ? u"1" : u"0";
        case varDateTime: return DateTimeToText(value.Get<TDateTime>());
        case varCurrency: return FloatText(VarToDouble(value), 18);
        default: return VarToStr(value);
    }
}

TVariant TextToVar(std::u16string_view text) {
    if (text == NullText()) return Null;
    TDateTime dateTime;
    if (TextToDateTime(text, dateTime)) return dateTime;
    // A date or time with more behind it is no number either.
    TVariant number = NumberOrText(text);
    // "007", "1.50" and "+5" would come back as something else.
    if (VarToText(number) != text) return text;
    return number;
}

bool VarEqual(const TVariant& a, const TVariant& b) noexcept {
    if (a.Type() != varFixed || b.Type() != varFixed) return a == b;
    const TFixed x(a.Get<TDecimalParts>());
    const TFixed y(b.Get<TDecimalParts>());
    // Scales too far apart to be compared: only zeros are equal then.
    if (x.Scale - y.Scale > MaxPowerOf10 || y.Scale - x.Scale > MaxPowerOf10) {
        return x.Value == 0 && y.Value == 0;
    }
    return x == y;
}

bool VarEqual(const TVariant& value, std::span<const TVariant> others) noexcept {
    return std::any_of(others.begin(), others.end(),
                       [&](const TVariant& other) { return VarEqual(value, other); });
}

bool VarAssigned(const TVariant& value) noexcept { return value.Assigned(); }

TVariant ExtendedToVar(double value) { return TExtended{value}; }

double VarToExtended(const TVariant& value) { return VarToDouble(value); }

}  // namespace kds
