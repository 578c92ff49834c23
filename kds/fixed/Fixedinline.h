// The inline half of Fixed.h: operators, and the common cases of the arithmetic.
//
// Each operation here decides only what fits 64 bits in one step, and answers exactly what the
// general routine of Fixed.cpp would; everything else, refusals included, is left to that routine.
#pragma once

#include "kds/fixed/Fixed.h"
#include "kds/fixed/Powers.h"

namespace kds {

// The general routines.
[[nodiscard]] TFixed FixedAddGeneral(const TFixed& a, const TFixed& b);
[[nodiscard]] std::int8_t FixedCompareGeneral(const TFixed& a, const TFixed& b);
[[nodiscard]] TFixed FixedMultiplyGeneral(const TFixed& a, const TFixed& b, std::int32_t digits,
                                          TFixedRoundingMode mode, bool forceScale);
[[nodiscard]] TFixed FixedDivideGeneral(const TFixed& a, const TFixed& b, std::int32_t digits,
                                        TFixedRoundingMode mode);

// Whether a quotient steps away from zero. `half` tells the remainder from half the divisor: -1
// below, 0 equal, 1 above.
[[nodiscard]] inline bool StepsAwayFromZero(TFixedRoundingMode mode, bool negative, bool odd,
                                            int half) {
    switch (mode) {
        case rmNone: RaiseRoundingNecessary();
        case rmCeiling: return !negative;
        case rmDown: return false;
        case rmFloor: return negative;
        case rmUp: return true;
        case rmHalfEven: return half > 0 || (half == 0 && odd);
        case rmHalfUp: return half >= 0;
        case rmHalfDown: break;
    }
    return half > 0;  // also for codes that are no mode
}

// value / 10^power, rounded. `power` lies in 1 .. 18.
[[nodiscard]] inline std::int64_t DivideByPowerRounded(std::int64_t value, std::size_t power,
                                                       TFixedRoundingMode mode) {
    const std::uint64_t size = Magnitude(value);
    const auto divisor = static_cast<std::uint64_t>(PowersOf10[power]);
    std::uint64_t quotient = DivideByPower(size, power);
    const std::uint64_t remainder = size - quotient * divisor;
    if (remainder != 0) {
        const std::uint64_t twice = 2 * remainder;
        const int half = (twice > divisor) - (twice < divisor);
        quotient += StepsAwayFromZero(mode, value < 0, (quotient & 1) != 0, half);
    }
    return static_cast<std::int64_t>(value < 0 ? 0 - quotient : quotient);
}

// Drops `places` decimals from a mantissa, or appends zeros when `places` is negative.
[[nodiscard]] inline std::int64_t RescaleMantissa(std::int64_t value, std::int16_t places,
                                                  TFixedRoundingMode mode) {
    if (places == 0) return value;
    if (places > 0 && places <= MaxPowerOf10) {
        return DivideByPowerRounded(value, static_cast<std::size_t>(places), mode);
    }
    if (places > 0) RaiseInvalidScale(places);
    std::int64_t scaled = 0;
    const std::int64_t power = PowerOf10(static_cast<std::int16_t>(-places));
    if (__builtin_mul_overflow(value, power, &scaled)) RaiseIntegerOverflow();
    return scaled;
}

inline TFixed FixedNegative(const TFixed& x) {
    if (x.Value == MinInt64) RaiseIntegerOverflow();
    return {-x.Value, x.Scale};
}

inline TFixed FixedAdd(const TFixed& a, const TFixed& b) {
    std::int64_t sum = 0;
    if (a.Scale == b.Scale) {
        if (__builtin_add_overflow(a.Value, b.Value, &sum)) RaiseIntegerOverflow();
        return {sum, a.Scale};
    }
    const bool finerIsA = a.Scale > b.Scale;
    const std::int64_t finer = finerIsA ? a.Value : b.Value;
    const std::int64_t coarser = finerIsA ? b.Value : a.Value;
    const std::int32_t places = finerIsA ? a.Scale - b.Scale : b.Scale - a.Scale;
    // Trailing zeros of the finer operand are the general routine's to remove.
    std::int64_t widened = 0;
    if (places <= MaxPowerOf10 && finer % 10 != 0 &&
        !__builtin_mul_overflow(coarser, PowersOf10[static_cast<std::size_t>(places)], &widened) &&
        !__builtin_add_overflow(widened, finer, &sum)) {
        return {sum, finerIsA ? a.Scale : b.Scale};
    }
    return FixedAddGeneral(a, b);
}

inline TFixed FixedSubtract(const TFixed& a, const TFixed& b) {
    return FixedAdd(a, FixedNegative(b));
}

inline TFixed FixedMultiply(const TFixed& a, const TFixed& b) {
    std::int64_t product = 0;
    if (__builtin_mul_overflow(a.Value, b.Value, &product)) RaiseIntegerOverflow();
    return {product, static_cast<std::int16_t>(a.Scale + b.Scale)};
}

inline TFixed FixedMultiply(const TFixed& a, const TFixed& b, std::int32_t digits,
                            TFixedRoundingMode mode, bool forceScale) {
    // Neither operand is shortened when the second leaves room for a digit and the product fits.
    std::int64_t product = 0;
    if (Magnitude(b.Value) <= static_cast<std::uint64_t>(MaxMantissas[1]) &&
        !__builtin_mul_overflow(a.Value, b.Value, &product) && product != 0 &&
        product != MinInt64) {
        const auto scale = static_cast<std::int16_t>(a.Scale + b.Scale);
        const auto surplus = static_cast<std::int16_t>(std::int64_t{scale} - digits);
        if (surplus < 0 && !forceScale) return {product, scale};
        return {RescaleMantissa(product, surplus, mode), static_cast<std::int16_t>(digits)};
    }
    return FixedMultiplyGeneral(a, b, digits, mode, forceScale);
}

inline TFixed FixedDivide(const TFixed& a, const TFixed& b, std::int32_t digits,
                          TFixedRoundingMode mode) {
    // The dividend takes all the decimals that are wanted and the divisor keeps its digits.
    const std::int64_t places = std::int64_t{digits} + b.Scale - a.Scale;
    const std::uint64_t divisor = Magnitude(b.Value);
    if (static_cast<std::uint64_t>(places) <= MaxPowerOf10 && divisor != 0 &&
        divisor <= static_cast<std::uint64_t>(MaxMantissas[1])) {
        const auto power = static_cast<std::size_t>(places);
        const std::uint64_t size = Magnitude(a.Value);
        if (size <= static_cast<std::uint64_t>(MaxMantissas[power])) {
            const std::uint64_t dividend = size * static_cast<std::uint64_t>(PowersOf10[power]);
            const bool negative = (a.Value < 0) != (b.Value < 0);
            std::uint64_t quotient = dividend / divisor;
            const std::uint64_t remainder = dividend % divisor;
            if (remainder != 0) {
                // QUIRK: what the remainder adds is rounded by itself, and its own quotient is 0.
                // So the remainder is measured against the signed divisor, always above half of a
                // negative one, and rmHalfEven finds an even 0 and leaves an exact half where it
                // is.
                const std::uint64_t twice = 2 * remainder;
                const int half = b.Value < 0 ? 1 : (twice > divisor) - (twice < divisor);
                quotient += StepsAwayFromZero(mode, negative, /*odd=*/false, half);
            }
            return {static_cast<std::int64_t>(negative ? 0 - quotient : quotient),
                    static_cast<std::int16_t>(digits)};
        }
    }
    return FixedDivideGeneral(a, b, digits, mode);
}

inline TFixed FixedRoundTo(const TFixed& x, std::int16_t scale, TFixedRoundingMode mode) {
    return {RescaleMantissa(x.Value, static_cast<std::int16_t>(x.Scale - scale), mode), scale};
}

inline std::int8_t FixedCompareValue(const TFixed& a, const TFixed& b) {
    if (a.Scale == b.Scale) {
        return static_cast<std::int8_t>((a.Value > b.Value) - (a.Value < b.Value));
    }
    const bool finerIsA = a.Scale > b.Scale;
    const std::int64_t finer = finerIsA ? a.Value : b.Value;
    const std::int64_t coarser = finerIsA ? b.Value : a.Value;
    const std::int32_t places = finerIsA ? a.Scale - b.Scale : b.Scale - a.Scale;
    std::int64_t widened = 0;
    if (places <= MaxPowerOf10 &&
        !__builtin_mul_overflow(coarser, PowersOf10[static_cast<std::size_t>(places)], &widened)) {
        const int order = (widened > finer) - (widened < finer);
        return static_cast<std::int8_t>(finerIsA ? -order : order);
    }
    return FixedCompareGeneral(a, b);
}

inline TFixed FixedMin(const TFixed& a, const TFixed& b) {
    return FixedCompareValue(a, b) == -1 ? a : b;
}
inline TFixed FixedMax(const TFixed& a, const TFixed& b) {
    return FixedCompareValue(a, b) == 1 ? a : b;
}
inline std::int64_t FixedTrunc(const TFixed& x) { return x.Scale == 0 ? x.Value : FixedToInt64(x); }
inline std::int64_t FixedDiv(const TFixed& a, const TFixed& b) {
    return FixedTrunc(FixedDivide(a, b, 0, rmDown));
}

template <std::floating_point T>
TFixed::TFixed(T value) : TFixed(ToFixed(static_cast<double>(value))) {}
inline TFixed::TFixed(std::u16string_view text) : TFixed(StrToFixed(text)) {}
inline TFixed::TFixed(std::u16string_view text, TFormatSettings settings)
    : TFixed(StrToFixed(text, settings)) {}

template <TFixedInteger T>
TFixed::operator T() const {
    const std::int64_t whole = FixedTrunc(*this);
    if (!std::in_range<T>(whole)) RaiseIntegerOverflow();
    return static_cast<T>(whole);
}
inline TFixed::operator double() const { return FixedToDouble(*this); }
inline TFixed::operator TCurrency() const { return FixedToCurrency(*this); }
inline std::int64_t TFixed::AsInt64() const { return FixedTrunc(*this); }
inline std::u16string TFixed::ToString() const { return FixedToStr(*this); }

[[nodiscard]] constexpr TFixed operator+(const TFixed& x) noexcept { return x; }
[[nodiscard]] inline TFixed operator-(const TFixed& x) { return FixedNegative(x); }
[[nodiscard]] inline TFixed operator+(const TFixed& a, const TFixed& b) { return FixedAdd(a, b); }
[[nodiscard]] inline TFixed operator-(const TFixed& a, const TFixed& b) {
    return FixedSubtract(a, b);
}
[[nodiscard]] inline TFixed operator*(const TFixed& a, const TFixed& b) {
    return FixedMultiply(a, b);
}
inline TFixed& operator+=(TFixed& a, const TFixed& b) { return a = FixedAdd(a, b); }
inline TFixed& operator-=(TFixed& a, const TFixed& b) { return a = FixedSubtract(a, b); }
inline TFixed& operator*=(TFixed& a, const TFixed& b) { return a = FixedMultiply(a, b); }
inline TFixed& operator++(TFixed& x) { return x = FixedAdd(x, {1, 0}); }
inline TFixed& operator--(TFixed& x) { return x = FixedAdd(x, {-1, 0}); }

// Weak: equal numbers may differ in representation.
[[nodiscard]] inline std::weak_ordering operator<=>(const TFixed& a, const TFixed& b) {
    return FixedCompareValue(a, b) <=> 0;
}
[[nodiscard]] inline bool operator==(const TFixed& a, const TFixed& b) {
    return FixedCompareValue(a, b) == 0;
}

}  // namespace kds
