// The inline half of Fixed.h for texts: the decimals that columns mostly hold, put together in
// registers. Everything else goes to the general routines of Fixed_format.cpp, with equal results.
#pragma once

#include <array>
#include <bit>

#include "kds/fixed/Digits.h"
#include "kds/fixed/Fixed.h"
#include "kds/fixed/Powers.h"
#include "kds/platform/Bytes.h"

namespace kds {

// The general routines.
[[nodiscard]] std::size_t WriteFixed(const TFixed& x, std::span<char16_t> buffer,
                                     TFormatSettings settings, bool thousands, std::int32_t digits);
[[nodiscard]] std::size_t WriteFixed(const TFixed& x, std::span<char> buffer,
                                     TFormatSettings settings, bool thousands, std::int32_t digits);

// Plain numbers: up to 16 digits, up to 7 decimals, all of them shown, nothing grouped.
inline constexpr std::size_t MaxPlainScale = 7;
inline constexpr std::uint64_t EightDigits = 100'000'000;
inline constexpr std::uint64_t MaxPlainSize = 9'999'999'999'999'999;
// A sign, 16 digits, the separator, and what the last eight digits write behind them.
inline constexpr std::size_t PlainTextRoom = 1 + 16 + 1 + 8;

// Stores eight digits without those in the lowest `skippedBits`. Eight characters are written all
// the same, which is faster than stopping at the last digit.
template <typename TChar>
[[gnu::always_inline]] inline void StoreDigits(TChar* target, std::uint64_t digits,
                                               std::size_t skippedBits) noexcept {
    const std::uint64_t characters = (digits | DigitZeros) >> skippedBits;
    if constexpr (sizeof(TChar) == 1) {
        StoreRaw(target, characters);  // one store; a copy by characters becomes eight
    } else {
        std::array<char, 8> bytes;
        StoreRaw(bytes.data(), characters);
        for (std::size_t i = 0; i < bytes.size(); ++i) target[i] = static_cast<TChar>(bytes[i]);
    }
}

// Puts the separator before the last `scale` of `count` digits, of which `low` holds eight.
template <typename TChar>
[[nodiscard, gnu::always_inline]] inline std::size_t WriteSeparator(TChar* target,
                                                                    std::size_t count,
                                                                    std::uint64_t low,
                                                                    std::size_t scale,
                                                                    TChar separator) noexcept {
    if (scale == 0) return count;
    const std::size_t whole = count - scale;
    target[whole] = separator;
    StoreDigits(target + whole + 1, low, 8 * (8 - scale));
    return count + 1;
}

// A number of nine to sixteen digits.
template <typename TChar>
[[nodiscard, gnu::noinline]] std::size_t WriteLong(std::uint64_t size, std::size_t scale,
                                                   TChar* target, TChar separator) noexcept {
    const std::uint64_t high = SplitDigits(size / EightDigits);
    const std::uint64_t low = SplitDigits(size % EightDigits);
    const auto skippedBits = static_cast<std::size_t>(std::countr_zero(high)) & 56;
    StoreDigits(target, high, skippedBits);
    const std::size_t count = 16 - skippedBits / 8;
    StoreDigits(target + count - 8, low, 0);
    return WriteSeparator(target, count, low, scale, separator);
}

// Sizes and scales vary within a column, so nothing branches on them but this: more than eight
// digits or not, decimals or not. May write behind the end of the text.
template <typename TChar>
[[nodiscard, gnu::always_inline]] inline std::size_t WritePlain(const TFixed& x, TChar* target,
                                                                TChar separator) noexcept {
    const std::uint64_t size = Magnitude(x.Value);
    const auto scale = static_cast<std::size_t>(x.Scale);
    const std::size_t sign = x.Value < 0 ? 1 : 0;
    *target = TChar{'-'};  // overwritten when the number has no sign
    target += sign;
    if (size >= EightDigits) return sign + WriteLong(size, scale, target, separator);
    const std::uint64_t low = SplitDigits(size);
    // Leading zeros are lower bits here; the mark keeps one digit before the separator.
    const std::uint64_t mark = std::uint64_t{1} << (8 * (MaxPlainScale - scale));
    const auto skippedBits = static_cast<std::size_t>(std::countr_zero(low | mark)) & 56;
    StoreDigits(target, low, skippedBits);
    return sign + WriteSeparator(target, 8 - skippedBits / 8, low, scale, separator);
}

template <typename TChar>
[[nodiscard, gnu::always_inline]] inline std::size_t WritePlainOrAny(const TFixed& x,
                                                                     std::span<TChar> buffer,
                                                                     TFormatSettings settings,
                                                                     bool thousands,
                                                                     std::int32_t digits) {
    if (!thousands && (digits < 0 || digits == x.Scale) &&
        static_cast<std::uint16_t>(x.Scale) <= MaxPlainScale &&
        Magnitude(x.Value) <= MaxPlainSize && buffer.size() >= PlainTextRoom &&
        settings.DecimalSeparator - 1u < 0x7F) {
        return WritePlain(x, buffer.data(), static_cast<TChar>(settings.DecimalSeparator));
    }
    return WriteFixed(x, buffer, settings, thousands, digits);
}

inline std::size_t FixedToBuffer(const TFixed& x, std::span<char16_t> buffer,
                                 TFormatSettings settings, bool thousands, std::int32_t digits) {
    return WritePlainOrAny(x, buffer, settings, thousands, digits);
}

inline std::size_t FixedToBuffer(const TFixed& x, std::span<char> buffer, TFormatSettings settings,
                                 bool thousands, std::int32_t digits) {
    return WritePlainOrAny(x, buffer, settings, thousands, digits);
}

}  // namespace kds
