// A separator of a number format as it stands in a text, 16-bit or UTF-8.
#pragma once

#include <array>
#include <cstddef>

namespace kds {

// One 16-bit character, or its one to three bytes of UTF-8.
template <typename TChar>
struct TSeparator {
    std::array<TChar, 4> Units{};
    std::size_t Count = 0;  // 0 when there is none
};

[[nodiscard]] constexpr TSeparator<char16_t> EncodeSeparator(char16_t separator,
                                                             char16_t /*kind*/) noexcept {
    return {{separator}, separator != 0 ? std::size_t{1} : std::size_t{0}};
}

[[nodiscard]] constexpr TSeparator<char> EncodeSeparator(char16_t separator,
                                                         char /*kind*/) noexcept {
    const auto byte = [](int bits) { return static_cast<char>(static_cast<unsigned char>(bits)); };
    const char last = byte(0x80 | (separator & 0x3F));
    if (separator == 0) return {};
    if (separator < 0x80) return {{byte(separator)}, 1};
    if (separator < 0x800) return {{byte(0xC0 | separator >> 6), last}, 2};
    return {{byte(0xE0 | separator >> 12), byte(0x80 | (separator >> 6 & 0x3F)), last}, 3};
}

// The value of a digit; above 9 when the character is none.
template <typename TChar>
[[nodiscard]] constexpr unsigned DigitOf(TChar unit) noexcept {
    return static_cast<unsigned>(unit) - unsigned{'0'};
}

}  // namespace kds
