// Decimal text of binary floats, and back, independent of any locale.
//
// Shape      FloatText prints the fewest digits that identify the value in its own width, rounded
//            to `precision` significant digits only when that is shorter. Fixed notation while the
//            decimal exponent is at least -5 and below the precision, else scientific: 1E20,
//            1.5E-7. "." separates decimals, nothing groups thousands. NAN, INF, -INF; -0 is "-0".
// Cost       O(digits), no allocation beyond the answer. DigitsOfDouble allocates nothing.
// Threads    Pure functions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kds {

[[nodiscard]] std::u16string FloatText(double value, int precision);
// The same for a 32-bit float: the digits identify it among 32-bit floats.
[[nodiscard]] std::u16string FloatText(float value, int precision);

// A finite ASCII number, the whole text: [+-] digits [. digits] [(e|E) [+-] digits], with at least
// one digit in the mantissa. False, and `value` untouched, for anything else (hex, inf, blanks).
[[nodiscard]] bool TextToDouble(std::u16string_view text, double& value) noexcept;

// The value is 0.d1d2d3.. x 10^Exponent; no trailing zeros; zero has no digits.
struct TDecimalDigits {
    char Digits[24] = {};
    int Count = 0;
    int Exponent = 0;
    bool Negative = false;
};
// Shortest digits of a finite value, rounded to at most `precision` significant ones.
[[nodiscard]] TDecimalDigits DigitsOfDouble(double value, int precision) noexcept;

// To the nearest integer, ties to even. False, and `result` untouched, for NaN and out of range.
[[nodiscard]] bool RoundToInt64(double value, std::int64_t& result) noexcept;
// Toward zero, same contract.
[[nodiscard]] bool TruncToInt64(double value, std::int64_t& result) noexcept;

}  // namespace kds
