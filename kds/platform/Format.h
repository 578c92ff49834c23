// Message formatting: %s, %d, %g and %.Nd, and nothing else.
//
// Errors     Never fails and never reads past its arguments, because translation files may replace
//            the patterns: a placeholder without an argument, or with one of another kind, prints
//            the argument as it is (or nothing), an unknown directive prints itself, %% prints %.
//            N has one or two digits; more make an unknown directive.
// Cost       O(length of the result), one string.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace kds {

// One argument: an integer, a float, or a text that is only borrowed for the call.
class TFormatArg {
public:
    template <std::integral T>
    TFormatArg(T value) : fValue(static_cast<std::int64_t>(value)) {}
    TFormatArg(double value) : fValue(value) {}
    TFormatArg(char16_t value) : fValue(value) {}
    TFormatArg(std::u16string_view value) : fValue(value) {}
    TFormatArg(const std::u16string& value) : fValue(std::u16string_view(value)) {}
    TFormatArg(const char16_t* value) : fValue(std::u16string_view(value)) {}
    using TValue = std::variant<std::int64_t, double, char16_t, std::u16string_view>;
    [[nodiscard]] const TValue& Value() const noexcept { return fValue; }

private:
    TValue fValue;
};

// %s text; %d integer, %.Nd padded with zeros to N digits after the sign; %g shortest float.
[[nodiscard]] std::u16string Format(std::u16string_view pattern,
                                    std::span<const TFormatArg> arguments);
[[nodiscard]] inline std::u16string Format(std::u16string_view pattern,
                                           std::initializer_list<TFormatArg> arguments) {
    return Format(pattern, std::span<const TFormatArg>(arguments.begin(), arguments.size()));
}

// Code units of the directive that `text` begins with, %% included; 0 when it begins with none.
[[nodiscard]] std::size_t DirectiveLength(std::u16string_view text) noexcept;

}  // namespace kds
