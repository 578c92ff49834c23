// Text conversion and the library's one collation.
//
// Shape      Names and texts are 16-bit (UTF-16); 8-bit text is UTF-8. Bytes that are not valid
//            UTF-8 become the lone surrogates U+DC80..U+DCFF and come back as the same bytes; any
//            other lone surrogate goes out as its three-byte form.
//            Exact comparison is by unsigned code unit. Caseless comparison first folds each
//            character to its capital by a fixed one-to-one table, the same in every process and
//            locale, because it decides the order of sorted data. Folding never changes how many
//            code units or UTF-8 bytes a character takes, so lengths and prefixes agree in both
//            forms. Equality is comparison giving 0.
// Units      Sizes are code units: bytes of 8-bit text, 16-bit units of 16-bit text.
// Errors     None; every byte sequence is a text.
// Cost       O(n), with a fast path for ASCII. Comparisons allocate nothing.
// Threads    Pure functions over constant tables.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kds {

[[nodiscard]] std::u16string ToUtf16(std::string_view text);
[[nodiscard]] std::string ToUtf8(std::u16string_view text);
// Appends to what the target holds; for buffers that are used again and again.
void AppendUtf8(std::string& target, std::u16string_view text);

// One code point to its capital; itself when it has none of the same UTF-8 length.
[[nodiscard]] char32_t FoldCase(char32_t codePoint) noexcept;
[[nodiscard]] std::u16string ToUpper(std::u16string_view text);

// -1, 0, 1 over the whole of both texts; a shorter text sorts before its continuation.
[[nodiscard]] std::int32_t CompareText(std::u16string_view a, std::u16string_view b,
                                       bool caseless) noexcept;
[[nodiscard]] std::int32_t CompareAnsi(std::string_view a, std::string_view b,
                                       bool caseless) noexcept;
[[nodiscard]] inline bool SameText(std::u16string_view a, std::u16string_view b) noexcept {
    return CompareText(a, b, true) == 0;
}

// Without the blanks (every code unit up to U+0020) at both ends.
[[nodiscard]] std::u16string_view Trim(std::u16string_view text) noexcept;
// Whether `text` ends with `suffix` without regard to case.
[[nodiscard]] bool EndsWithText(std::u16string_view text, std::u16string_view suffix) noexcept;

// Decimal integer with optional sign, ASCII, whole text; `fallback` when it is not one.
[[nodiscard]] std::int32_t TextToIntDef(std::u16string_view text, std::int32_t fallback) noexcept;

}  // namespace kds
