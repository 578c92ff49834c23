// Exact decimals: a 64-bit mantissa and a count of decimal places.
//
// Shape      The number is Value x 10^-Scale. Nothing is normalised: (150, 2) and (15, 1) are both
//            1.5, equal to the operators and different to FixedSameValue. Scale may be negative.
//            Only FixedCompact, and FixedAdd on unequal scales, remove trailing zeros.
// Units      Scales and digits count decimal places. Scales are added and subtracted in 16 bits
//            and wrap; a power of ten outside 10^0 .. 10^18 is refused where it is needed.
// Errors     EIntOverflow when a mantissa leaves 64 bits or a power of ten is refused, EZeroDivide,
//            EMathError when rmNone meets a remainder, EConvertError from texts and floats. What
//            raises has written nothing.
// Cost       O(1), at most 18 steps of one digit; no allocation except for the texts answered.
// Threads    Pure functions; the settings used by default are one atomic value.
#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "kds/fixed/FormatSettings.h"
#include "kds/platform/Variant.h"

namespace kds {

// Where a quotient goes when the division leaves a remainder.
enum class TFixedRoundingMode : std::uint8_t {
    rmNone,      // nowhere: raises "Rounding is necessary"
    rmCeiling,   // toward +infinity
    rmDown,      // toward zero
    rmFloor,     // toward -infinity
    rmUp,        // away from zero
    rmHalfDown,  // to the nearest, an exact half toward zero
    rmHalfEven,  // to the nearest, an exact half to the even neighbour
    rmHalfUp     // to the nearest, an exact half away from zero
};
using enum TFixedRoundingMode;

// Integers whose every value a mantissa holds. Characters and booleans are no numbers here.
template <typename T>
concept TFixedInteger =
    std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char> &&
    !std::same_as<T, char8_t> && !std::same_as<T, char16_t> && !std::same_as<T, char32_t> &&
    !std::same_as<T, wchar_t> && (std::signed_integral<T> || sizeof(T) < sizeof(std::int64_t));

// A plain value record. Integers convert to it by themselves, everything else on request.
struct TFixed {
    std::int64_t Value = 0;
    std::int16_t Scale = 0;

    constexpr TFixed() = default;
    constexpr TFixed(std::int64_t value, std::int16_t scale) noexcept
        : Value(value), Scale(scale) {}
    template <TFixedInteger T>
    constexpr TFixed(T value) noexcept : Value(value) {}
    template <std::floating_point T>
    explicit TFixed(T value);
    explicit constexpr TFixed(TCurrency value) noexcept : Value(value.Scaled), Scale(4) {}
    explicit constexpr TFixed(TDecimalParts parts) noexcept
        : Value(parts.Value), Scale(parts.Scale) {}
    explicit TFixed(std::u16string_view text);
    TFixed(std::u16string_view text, TFormatSettings settings);

    // Truncated toward zero; EIntOverflow when the narrower type does not hold it.
    template <TFixedInteger T>
    explicit operator T() const;
    explicit operator double() const;
    explicit operator TCurrency() const;
    explicit constexpr operator TDecimalParts() const noexcept { return {Value, Scale}; }
    explicit operator TVariant() const { return TDecimalParts{Value, Scale}; }

    [[nodiscard]] std::int64_t AsInt64() const;
    void SetAsInt64(std::int64_t value) noexcept { *this = TFixed(value, 0); }
    [[nodiscard]] std::u16string ToString() const;
};
using PFixed = TFixed*;
static_assert(std::is_trivially_copyable_v<TFixed> && sizeof(TFixed) == 16);

// Construction. No scale is checked here.
[[nodiscard]] constexpr TFixed ToFixed(std::int64_t value, std::int16_t scale) noexcept {
    return {value, scale};
}
template <TFixedInteger T>
[[nodiscard]] constexpr TFixed ToFixed(T value) noexcept {
    return value;
}
[[nodiscard]] constexpr TFixed ToFixed(TCurrency value) noexcept { return TFixed(value); }
// value x 10^scale to the nearest integer, ties to even; EIntOverflow when it leaves 64 bits.
[[nodiscard]] TFixed ToFixed(double value, std::int16_t scale);
// The shortest decimal form, of at most 15 digits. EConvertError for NaN and infinities.
[[nodiscard]] TFixed ToFixed(double value);

[[nodiscard]] constexpr bool FixedIsZero(const TFixed& x) noexcept { return x.Value == 0; }
[[nodiscard]] constexpr TFixed FixedPositive(const TFixed& x) noexcept { return x; }
[[nodiscard]] TFixed FixedNegative(const TFixed& x);

// Conversions to numbers; surplus decimals are cut off except by FixedRound.
[[nodiscard]] std::int64_t FixedToInt64(const TFixed& x);
[[nodiscard]] TCurrency FixedToCurrency(const TFixed& x);
[[nodiscard]] double FixedToDouble(const TFixed& x);
[[nodiscard]] std::int64_t FixedTrunc(const TFixed& x);
// To the nearest integer, ties to even, by way of a double: not exact above 2^53.
[[nodiscard]] std::int64_t FixedRound(const TFixed& x);

// Arithmetic. Sums and the product of two are exact.
[[nodiscard]] TFixed FixedAdd(const TFixed& a, const TFixed& b);
[[nodiscard]] TFixed FixedSubtract(const TFixed& a, const TFixed& b);
[[nodiscard]] TFixed FixedMultiply(const TFixed& a, const TFixed& b);
// Rounded to `digits` decimals. A product with fewer keeps its own scale unless `forceScale`.
[[nodiscard]] TFixed FixedMultiply(const TFixed& a, const TFixed& b, std::int32_t digits,
                                   TFixedRoundingMode mode, bool forceScale);
// A quotient of exactly `digits` decimals.
[[nodiscard]] TFixed FixedDivide(const TFixed& a, const TFixed& b, std::int32_t digits,
                                 TFixedRoundingMode mode);
// The quotient cut off to an integer.
[[nodiscard]] std::int64_t FixedDiv(const TFixed& a, const TFixed& b);
// Exact when n is a power of ten, else a quotient of 15 digits by way of a double.
[[nodiscard]] TFixed FixedDivByInt(const TFixed& a, std::int64_t n);

// x with exactly `scale` decimals.
[[nodiscard]] TFixed FixedRoundTo(const TFixed& x, std::int16_t scale, TFixedRoundingMode mode);
// Without trailing zeros, down to `minScale`. The scale of zero becomes `minScale`, or 0 when that
// is -32768, which stands for no minimum at all.
[[nodiscard]] TFixed FixedCompact(const TFixed& x, std::int32_t minScale) noexcept;

// -1, 0, 1 by numeric value; EIntOverflow when the scales of two numbers other than zero differ by
// more than 18.
[[nodiscard]] std::int8_t FixedCompareValue(const TFixed& a, const TFixed& b);
// Whether both are the same representation, not only the same number.
[[nodiscard]] constexpr bool FixedSameValue(const TFixed& a, const TFixed& b) noexcept {
    return a.Scale == b.Scale && a.Value == b.Value;
}
// The second operand when both are equal.
[[nodiscard]] TFixed FixedMin(const TFixed& a, const TFixed& b);
[[nodiscard]] TFixed FixedMax(const TFixed& a, const TFixed& b);

// Texts to decimals: [+-] digits, separators of thousands anywhere before the decimal one. The
// whole text must be the number; a lone sign is zero. 8-bit text is UTF-8.
[[nodiscard]] TFixed StrToFixed(std::u16string_view text, TFormatSettings settings);
[[nodiscard]] TFixed StrToFixed(std::u16string_view text);
// `length` characters of a buffer from `start`, counted from 0. What reaches beyond the buffer is
// refused like any other text that is no decimal.
[[nodiscard]] TFixed StrToFixed(std::u16string_view buffer, std::int32_t start, std::int32_t length,
                                TFormatSettings settings);
[[nodiscard]] TFixed StrToFixed(std::u16string_view buffer, std::int32_t start,
                                std::int32_t length);
// `result` is (0, 0) or what was read so far when the answer is false.
[[nodiscard]] bool TryStrToFixed(std::u16string_view text, TFixed& result,
                                 TFormatSettings settings) noexcept;
[[nodiscard]] bool TryStrToFixed(std::u16string_view text, TFixed& result) noexcept;
[[nodiscard]] bool TryStrToFixed(std::string_view text, TFixed& result,
                                 TFormatSettings settings) noexcept;
[[nodiscard]] bool TryStrToFixed(std::string_view text, TFixed& result) noexcept;
[[nodiscard]] TFixed StrToFixedDef(std::u16string_view text, const TFixed& fallback,
                                   TFormatSettings settings) noexcept;
[[nodiscard]] TFixed StrToFixedDef(std::u16string_view text, const TFixed& fallback) noexcept;

// Decimals to texts. `digits` of -1 means all decimals of the scale; fewer are rounded half away
// from zero, which can overflow like any sum.
[[nodiscard]] std::u16string FixedToStr(const TFixed& x);
[[nodiscard]] std::u16string FixedToStr(const TFixed& x, TFormatSettings settings,
                                        bool thousands = false, std::int32_t digits = -1);
// The same into a buffer, without a terminator; 64 characters hold every number with a scale of
// -18 to 18. Answers the length of the text. When that is more than the buffer holds, nothing was
// written; otherwise what lies behind the text in the buffer may have changed. 8-bit text is UTF-8.
std::size_t FixedToBuffer(const TFixed& x, std::span<char16_t> buffer, TFormatSettings settings,
                          bool thousands = false, std::int32_t digits = -1);
std::size_t FixedToBuffer(const TFixed& x, std::span<char> buffer, TFormatSettings settings,
                          bool thousands = false, std::int32_t digits = -1);
// Puts the separators into a text of digits. Empty when it holds anything but digits after a sign.
[[nodiscard]] std::u16string FormatAsNumber(std::u16string_view digitText, std::int16_t scale,
                                            std::int32_t digits, bool thousands,
                                            TFormatSettings settings);
std::ostream& operator<<(std::ostream& stream, const TFixed& x);

// A variant carries a decimal exactly; kds/expr/Varconvert.h reads one from every kind.
[[nodiscard]] inline TVariant FixedToVar(const TFixed& x) { return TVariant(x); }
[[nodiscard]] inline bool VarIsFixed(const TVariant& value) noexcept {
    return value.Type() == varFixed;
}

}  // namespace kds

#include "kds/fixed/Fixedinline.h"
#include "kds/fixed/Fixedtext.h"
