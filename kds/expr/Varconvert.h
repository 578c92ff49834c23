// Conversions of a variant to one kind: the one place where the library makes them.
//
// Shape      Booleans count as 1 and 0, currencies and fixed decimals as their numbers, date-times
//            as days since 1899-12-30. Texts are read as numbers of ASCII digits with "." as the
//            decimal separator, whole, whatever the settings of the process are; only VarToFixed
//            reads them as fixed decimals in the default format settings.
//            Floats round to integers and currencies to the nearest, ties to even; fixed decimals
//            are cut off, as everywhere.
// Errors     EVariantError when the kind cannot become the other one: empty and null to a number,
//            an interface to anything else. EConvertError when a text cannot be read. EIntOverflow
//            when a number does not fit, NaN and infinities included.
// Threads    Pure functions, except for the null text, which is one locked value of the process.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "kds/fixed/Fixed.h"
#include "kds/platform/Variant.h"

namespace kds {

// The name of a kind, for messages: Int64, Date-time, Text..
[[nodiscard]] std::u16string_view VarTypeName(TVarType type) noexcept;

// The text that stands for null and empty; empty by default.
[[nodiscard]] std::u16string NullText();
void SetNullText(std::u16string_view text);

// Unsigned integers beyond 2^63 - 1 keep their bits and come out negative.
[[nodiscard]] std::int64_t VarToInt64(const TVariant& value);
// Numbers other than 0 are true; of texts, "true" and "false" in any case, and numbers.
[[nodiscard]] bool VarToBoolean(const TVariant& value);
[[nodiscard]] double VarToDouble(const TVariant& value);
[[nodiscard]] TCurrency VarToCurrency(const TVariant& value);
// Texts are dates, times or both, as TextToDateTime reads them, or numbers of days.
[[nodiscard]] TDateTime VarToDateTime(const TVariant& value);
[[nodiscard]] TFixed VarToFixed(const TVariant& value);
// Null and empty are no interface.
[[nodiscard]] TIntf<IInterface> VarToIntf(const TVariant& value);

// Text as people read it, and as the other conversions read it back: True and False, a currency's
// exact decimals, the day of every date-time but one of day 0, which is a time.
[[nodiscard]] std::u16string VarToStr(const TVariant& value);
// The same in UTF-8.
[[nodiscard]] std::string VarToAnsi(const TVariant& value);
// Without a copy when the variant holds text of the width that is asked for; otherwise the text is
// made in `scratch`. Good while both are unchanged.
[[nodiscard]] std::u16string_view VarToStrView(const TVariant& value, std::u16string& scratch);
[[nodiscard]] std::string_view VarToAnsiView(const TVariant& value, std::string& scratch);
// Like VarToStr; an interface, which has no text, prints as (interface).
std::ostream& operator<<(std::ostream& stream, const TVariant& value);

// Date, time, or date, "T" or a blank, and time: 2024-02-29, 12:30:00, 2024-02-29T12:30:00. Either
// separator of the date may be "." instead. False, and `result` untouched, for anything else.
[[nodiscard]] bool TextToDateTime(std::u16string_view text, TDateTime& result) noexcept;
// "2024-02-29", with "T12:30:00" behind it when `milliseconds` of the day is above 0.
[[nodiscard]] std::u16string DateTimeText(TDayTime parts);
// "12:30:00"
[[nodiscard]] std::u16string TimeText(std::int32_t milliseconds);

}  // namespace kds
