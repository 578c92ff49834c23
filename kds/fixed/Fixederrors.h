// The eight messages of the decimal and the routines that raise them.
//
// Shape      The texts are raised as they stand: no translator sees them. SInvalidPower and
//            SInvalidMulti belong to the group although nothing raises them now.
#pragma once

#include <cstdint>
#include <string_view>

namespace kds {

inline constexpr std::u16string_view SInvalidScale = u"%d is not a valid fixed scale";
inline constexpr std::u16string_view SInvalidPower = u"Integer overflow (scale)";
inline constexpr std::u16string_view SInvalidMulti = u"Integer overflow (multiply)";
inline constexpr std::u16string_view SInvalidRange = u"Integer overflow (range)";
inline constexpr std::u16string_view SInvalidFixed = u"'%s' is not a valid fixed value";
inline constexpr std::u16string_view SInvalidDbl = u"%g is not a valid double value";
inline constexpr std::u16string_view SDivideByZero = u"Divide by zero";
inline constexpr std::u16string_view SNeedRndMode = u"Rounding is necessary";
// Any other step that leaves 64 bits.
inline constexpr std::u16string_view SIntegerOverflow = u"Integer overflow";

[[noreturn, gnu::cold]] void RaiseInvalidScale(std::int32_t scale);        // EIntOverflow
[[noreturn, gnu::cold]] void RaiseInvalidRange();                          // EIntOverflow
[[noreturn, gnu::cold]] void RaiseIntegerOverflow();                       // EIntOverflow
[[noreturn, gnu::cold]] void RaiseDivideByZero();                          // EZeroDivide
[[noreturn, gnu::cold]] void RaiseRoundingNecessary();                     // EMathError
[[noreturn, gnu::cold]] void RaiseInvalidFixed(std::u16string_view text);  // EConvertError
[[noreturn, gnu::cold]] void RaiseInvalidDouble(double value);             // EConvertError

}  // namespace kds
