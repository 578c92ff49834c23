// Powers of ten within 64 bits, and division by them without a division instruction.
//
// Shape      Tables of 19 entries, 0 .. MaxPowerOf10. PowerOf10 and MaxMantissa check their index;
//            code that has checked indexes the tables.
// Errors     EIntOverflow "%d is not a valid fixed scale" for an index outside the tables.
// Threads    Constant tables and pure functions.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "kds/fixed/Fixederrors.h"

namespace kds {

inline constexpr std::int32_t MaxPowerOf10 = 18;
inline constexpr std::int64_t MinInt64 = INT64_MIN;
inline constexpr std::int64_t MaxInt64 = INT64_MAX;

__extension__ using TUInt128 = unsigned __int128;

// 1, 10, 100 ..
inline constexpr auto PowersOf10 = [] {
    std::array<std::int64_t, MaxPowerOf10 + 1> powers{1};
    for (std::size_t i = 1; i < powers.size(); ++i) powers[i] = powers[i - 1] * 10;
    return powers;
}();

// The largest mantissa that the power of the same index does not carry beyond 64 bits.
inline constexpr auto MaxMantissas = [] {
    std::array<std::int64_t, MaxPowerOf10 + 1> limits{};
    for (std::size_t i = 0; i < limits.size(); ++i) limits[i] = MaxInt64 / PowersOf10[i];
    return limits;
}();

[[nodiscard]] inline std::int64_t PowerOf10(std::int16_t index) {
    if (index < 0 || index > MaxPowerOf10) RaiseInvalidScale(index);
    return PowersOf10[static_cast<std::size_t>(index)];
}
[[nodiscard]] inline std::int64_t MaxMantissa(std::int16_t index) {
    if (index < 0 || index > MaxPowerOf10) RaiseInvalidScale(index);
    return MaxMantissas[static_cast<std::size_t>(index)];
}

// The absolute value; the smallest 64-bit integer has one here.
[[nodiscard]] constexpr std::uint64_t Magnitude(std::int64_t value) noexcept {
    const auto signs = static_cast<std::uint64_t>(value >> 63);  // all ones below zero
    return (static_cast<std::uint64_t>(value) ^ signs) - signs;
}

// n div 10^k is (n x Multiplier) >> (64 + Shift) for every n up to 2^63 and k above 0: the
// multiplier is 2^(64 + Shift) / 10^k rounded up, too large by less than 10^k < 2^(Shift + 1), so
// the product is too large by less than 2^(64 + Shift), which never reaches the next multiple.
struct TReciprocal {
    std::uint64_t Multiplier = 0;
    std::uint64_t Shift = 0;
};
inline constexpr auto ReciprocalsOf10 = [] {
    std::array<TReciprocal, MaxPowerOf10 + 1> reciprocals{};
    for (std::size_t i = 1; i < reciprocals.size(); ++i) {
        const auto divisor = static_cast<std::uint64_t>(PowersOf10[i]);
        const auto shift = static_cast<std::uint64_t>(std::bit_width(divisor) - 1);
        const TUInt128 quotient = ((TUInt128{1} << (64 + shift)) - 1) / divisor;
        reciprocals[i] = {static_cast<std::uint64_t>(quotient) + 1, shift};
    }
    return reciprocals;
}();

// `power` lies in 1 .. MaxPowerOf10 and `value` is at most 2^63.
[[nodiscard]] constexpr std::uint64_t DivideByPower(std::uint64_t value,
                                                    std::size_t power) noexcept {
    const TReciprocal& reciprocal = ReciprocalsOf10[power];
    const TUInt128 product = TUInt128{value} * reciprocal.Multiplier;
    return static_cast<std::uint64_t>(product >> 64) >> reciprocal.Shift;
}

}  // namespace kds
