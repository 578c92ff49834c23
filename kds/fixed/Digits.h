// Decimal digits, eight at a time: the bytes of one 64-bit word, the first digit in the lowest.
//
// Shape      Digits are values 0 to 9 here, not characters; DigitZeros turns one into the other.
//            Pairs, fours and eights are formed or split in all bytes at once, with multiplications
//            by reciprocals that are exact in the ranges they meet.
// Threads    Pure functions.
#pragma once

#include <cstdint>

namespace kds {

inline constexpr std::uint64_t DigitZeros = 0x3030303030303030;  // the text 00000000

// The digits of a value below 10^8, leading zeros included. Each step splits every number n of its
// word into n div p and, w bits higher, n mod p: n x 2^w less n div p times (p x 2^w - 1).
[[nodiscard]] constexpr std::uint64_t SplitDigits(std::uint64_t value) noexcept {
    const std::uint64_t tenThousands = value * 109951163 >> 40;
    const std::uint64_t fours = (value << 32) - tenThousands * ((10'000ULL << 32) - 1);
    const std::uint64_t hundreds = (fours * 10486 >> 20) & 0x0000007F0000007F;
    const std::uint64_t pairs = (fours << 16) - hundreds * ((100ULL << 16) - 1);
    const std::uint64_t tens = (pairs * 103 >> 10) & 0x000F000F000F000F;
    return (pairs << 8) - tens * ((10ULL << 8) - 1);
}

// The value of eight digits.
[[nodiscard]] constexpr std::uint64_t JoinDigits(std::uint64_t digits) noexcept {
    const std::uint64_t pairs = (digits * ((10ULL << 8) + 1) >> 8) & 0x00FF00FF00FF00FF;
    const std::uint64_t fours = (pairs * ((100ULL << 16) + 1) >> 16) & 0x0000FFFF0000FFFF;
    return fours * ((10'000ULL << 32) + 1) >> 32;
}

// Whether all eight bytes are 0 to 9.
[[nodiscard]] constexpr bool AreDigits(std::uint64_t digits) noexcept {
    return (((digits + 0x7676767676767676) | digits) & 0x8080808080808080) == 0;
}

}  // namespace kds
