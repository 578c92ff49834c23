#include "kds/fixed/Fixed.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "kds/platform/Floats.h"

namespace kds {
namespace {

[[nodiscard]] std::int16_t Wrap16(std::int64_t value) noexcept {
    return static_cast<std::int16_t>(value);
}

[[nodiscard]] std::int64_t CheckedAdd(std::int64_t a, std::int64_t b) {
    std::int64_t sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) RaiseIntegerOverflow();
    return sum;
}

[[nodiscard]] std::int64_t CheckedMultiply(std::int64_t a, std::int64_t b) {
    std::int64_t product = 0;
    if (__builtin_mul_overflow(a, b, &product)) RaiseIntegerOverflow();
    return product;
}

[[nodiscard]] std::int8_t CompareInt64(std::int64_t a, std::int64_t b) noexcept {
    return static_cast<std::int8_t>((a > b) - (a < b));
}

// A mantissa with `places` decimals brought to none, cut off toward zero.
[[nodiscard]] std::int64_t ScaleMantissa(std::int64_t value, std::int16_t places) {
    if (places == 0) return value;
    if (places > 0) return value / PowerOf10(places);
    return CheckedMultiply(value, PowerOf10(Wrap16(-std::int32_t{places})));
}

// n / d rounded; d is not 0, and n is not the smallest integer when d is -1.
[[nodiscard]] std::int64_t DivideRound(std::int64_t n, std::int64_t d, TFixedRoundingMode mode) {
    const std::int64_t quotient = n / d;
    const std::uint64_t remainder = Magnitude(n % d);
    if (remainder == 0) return quotient;
    const bool negative = (n < 0) != (d < 0);
    // QUIRK: the remainder is measured against the signed divisor, so that under a negative one it
    // always counts as more than half: quotients of a negative divisor round away from zero in all
    // three half modes.
    const std::uint64_t rest = Magnitude(d) - remainder;
    const int half = d < 0 ? 1 : (remainder > rest) - (remainder < rest);
    if (!StepsAwayFromZero(mode, negative, quotient % 2 != 0, half)) return quotient;
    return negative ? quotient - 1 : quotient + 1;
}

// Second operands of products and quotients keep a digit of room; their last digit is lost.
[[nodiscard]] TFixed WithRoomForADigit(const TFixed& x) {
    if (Magnitude(x.Value) <= static_cast<std::uint64_t>(MaxMantissas[1])) return x;
    return {x.Value / 10, Wrap16(x.Scale - 1)};
}

// The largest power of ten that carries a mantissa of this size, not 0, up to 64 bits.
[[nodiscard]] std::int64_t RoomOf(std::uint64_t size) noexcept {
    std::int64_t room = 0;
    while (room < MaxPowerOf10 &&
           size <= static_cast<std::uint64_t>(MaxMantissas[static_cast<std::size_t>(room) + 1])) {
        ++room;
    }
    return room;
}

}  // namespace

TFixed FixedAddGeneral(const TFixed& a, const TFixed& b) {
    if (a.Scale == b.Scale) return {CheckedAdd(a.Value, b.Value), a.Scale};
    if (a.Scale > b.Scale) return FixedAddGeneral(b, a);
    const TFixed finer = FixedCompact(b, a.Scale);
    const std::int64_t power = PowerOf10(Wrap16(finer.Scale - a.Scale));
    return {CheckedAdd(CheckedMultiply(a.Value, power), finer.Value), finer.Scale};
}

std::int8_t FixedCompareGeneral(const TFixed& a, const TFixed& b) {
    if (a.Scale == b.Scale) return CompareInt64(a.Value, b.Value);
    if (a.Value == 0) return CompareInt64(0, b.Value);
    if (b.Value == 0) return CompareInt64(a.Value, 0);
    // The finer operand is divided and the coarser never multiplied, so nothing can overflow.
    if (a.Scale < b.Scale) {
        const std::int64_t power = PowerOf10(Wrap16(b.Scale - a.Scale));
        const std::int8_t order = CompareInt64(a.Value, b.Value / power);
        return order != 0 ? order : CompareInt64(0, b.Value % power);
    }
    const std::int64_t power = PowerOf10(Wrap16(a.Scale - b.Scale));
    const std::int8_t order = CompareInt64(a.Value / power, b.Value);
    return order != 0 ? order : CompareInt64(a.Value % power, 0);
}

TFixed FixedMultiplyGeneral(const TFixed& a, const TFixed& b, std::int32_t digits,
                            TFixedRoundingMode mode, bool forceScale) {
    if (a.Value == 0 || b.Value == 0) return {0, Wrap16(digits)};
    const TFixed right = WithRoomForADigit(b);
    const std::uint64_t limit = static_cast<std::uint64_t>(MaxInt64) / Magnitude(right.Value);
    TFixed left = a;
    std::size_t removed = 0;
    // The smallest integer stays whole beside a factor of 1: shortened it would not come back.
    while (Magnitude(left.Value) > limit &&
           !(left.Value == MinInt64 && limit == static_cast<std::uint64_t>(MaxInt64))) {
        left = {left.Value / 10, Wrap16(left.Scale - 1)};
        ++removed;
    }
    std::int64_t product = CheckedMultiply(left.Value, right.Value);
    if (removed > 0) {
        // The digits cut off have a share in the product, rounded to a unit of its last place.
        // Rounding can thus happen twice, here and below.
        const TFixed low(a.Value % PowersOf10[removed],
                         Wrap16(static_cast<std::int64_t>(removed) + digits));
        const TFixed share =
            FixedMultiplyGeneral(low, TFixed(right.Value, 0), digits, mode, /*forceScale=*/true);
        product = CheckedAdd(product, share.Value);
    }
    const std::int16_t scale = Wrap16(left.Scale + right.Scale);
    const std::int16_t surplus = Wrap16(std::int64_t{scale} - digits);
    if (surplus < 0 && !forceScale) return {product, scale};
    return {RescaleMantissa(product, surplus, mode), Wrap16(digits)};
}

TFixed FixedDivideGeneral(const TFixed& a, const TFixed& b, std::int32_t digits,
                          TFixedRoundingMode mode) {
    if (b.Value == 0) RaiseDivideByZero();
    if (a.Value == MinInt64 && b.Value == -1) RaiseInvalidRange();
    if (a.Value == 0) return {0, Wrap16(digits)};
    const TFixed right = WithRoomForADigit(b);
    // The dividend takes as many of the decimals that are wanted as it has room for.
    TFixed left = a;
    const std::int64_t wanted = std::int64_t{digits} + right.Scale - left.Scale;
    const std::int64_t widening = std::min(wanted, RoomOf(Magnitude(left.Value)));
    if (widening > 0) {
        left = {left.Value * PowersOf10[static_cast<std::size_t>(widening)],
                Wrap16(left.Scale + widening)};
    }
    const std::int16_t missing = Wrap16(std::int64_t{digits} + right.Scale - left.Scale);
    const std::int16_t surplus = Wrap16(-std::int32_t{missing});
    const std::int64_t quotient = left.Value / right.Value;
    const std::int64_t remainder = left.Value % right.Value;
    // QUIRK: surplus digits of the quotient are cut off, not rounded; the mode acts only on what
    // the remainder adds. 1.2399 / 1 to 2 digits is 1.23 in every mode. For rmHalfEven the last
    // digit of the remainder's own share counts: it is an even 0 when nothing is missing, so that
    // 3 / 2 to 0 digits is 1, while a share that fills missing digits ends like the whole.
    const std::int64_t whole = ScaleMantissa(quotient, surplus);
    const bool overflows =
        missing >= 0 && Magnitude(remainder) > static_cast<std::uint64_t>(MaxMantissa(missing));
    const std::int64_t tail =
        overflows
            ? FixedDivideGeneral(TFixed(remainder, surplus), TFixed(right.Value, 0), 0, mode).Value
            : DivideRound(ScaleMantissa(remainder, surplus), right.Value, mode);
    return {CheckedAdd(whole, tail), Wrap16(digits)};
}

TFixed FixedDivByInt(const TFixed& a, std::int64_t n) {
    const auto power = std::find(PowersOf10.begin(), PowersOf10.end(), n);
    if (power != PowersOf10.end()) {
        return {a.Value, Wrap16(a.Scale + (power - PowersOf10.begin()))};
    }
    // QUIRK: any other quotient goes through a double and keeps 15 digits.
    const TFixed quotient = ToFixed(static_cast<double>(a.Value) / static_cast<double>(n));
    return {quotient.Value, Wrap16(quotient.Scale + a.Scale)};
}

TFixed FixedCompact(const TFixed& x, std::int32_t minScale) noexcept {
    constexpr std::int32_t NoMinimum = INT16_MIN;
    if (x.Value == 0) return {0, minScale == NoMinimum ? std::int16_t{0} : Wrap16(minScale)};
    TFixed compact = x;
    while (compact.Scale > minScale && compact.Value % 10 == 0) {
        compact = {compact.Value / 10, Wrap16(compact.Scale - 1)};
    }
    return compact;
}

std::int64_t FixedToInt64(const TFixed& x) { return ScaleMantissa(x.Value, x.Scale); }

TCurrency FixedToCurrency(const TFixed& x) { return {ScaleMantissa(x.Value, Wrap16(x.Scale - 4))}; }

double FixedToDouble(const TFixed& x) {
    const auto mantissa = static_cast<double>(x.Value);
    if (x.Scale == 0) return mantissa;
    if (x.Scale > 0) return mantissa / static_cast<double>(PowerOf10(x.Scale));
    return mantissa * static_cast<double>(PowerOf10(Wrap16(-std::int32_t{x.Scale})));
}

std::int64_t FixedRound(const TFixed& x) {
    if (x.Scale == 0) return x.Value;
    std::int64_t rounded = 0;
    if (!RoundToInt64(FixedToDouble(x), rounded)) RaiseIntegerOverflow();
    return rounded;
}

TFixed ToFixed(double value, std::int16_t scale) {
    if (!std::isfinite(value)) RaiseInvalidDouble(value);
    const double power = std::pow(10.0, std::abs(scale));
    std::int64_t mantissa = 0;
    if (!RoundToInt64(scale < 0 ? value / power : value * power, mantissa)) RaiseIntegerOverflow();
    return {mantissa, scale};
}

TFixed ToFixed(double value) {
    if (!std::isfinite(value)) RaiseInvalidDouble(value);
    const TDecimalDigits digits = DigitsOfDouble(value, 15);
    std::int64_t mantissa = 0;
    for (int i = 0; i < digits.Count; ++i) mantissa = mantissa * 10 + (digits.Digits[i] - '0');
    if (digits.Negative) mantissa = -mantissa;
    if (digits.Count == 0) return {};
    // A whole number is written out as long as it fits, so that 1500 is (1500, 0).
    const int zeros = digits.Exponent - digits.Count;
    std::int64_t whole = 0;
    if (zeros >= 0 && zeros <= MaxPowerOf10 &&
        !__builtin_mul_overflow(mantissa, PowersOf10[static_cast<std::size_t>(zeros)], &whole)) {
        return {whole, 0};
    }
    return {mantissa, Wrap16(-zeros)};
}

}  // namespace kds
