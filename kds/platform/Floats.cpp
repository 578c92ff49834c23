#include "kds/platform/Floats.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <limits>

namespace kds {
namespace {

// Splits the scientific form d.ddde+xx that std::to_chars gives for the shortest digits.
template <typename T>
TDecimalDigits ShortestDigits(T value) noexcept {
    char text[40];
    const char* const end =
        std::to_chars(text, text + sizeof text, value, std::chars_format::scientific).ptr;
    TDecimalDigits result;
    const char* at = text;
    if (*at == '-') {
        result.Negative = true;
        ++at;
    }
    for (; *at != 'e'; ++at) {
        if (*at != '.') result.Digits[result.Count++] = *at;
    }
    ++at;
    if (*at == '+') ++at;
    int exponent = 0;
    std::from_chars(at, end, exponent);
    result.Exponent = exponent + 1;  // 0.d1d2.. instead of d1.d2..
    return result;
}

void StripZeros(TDecimalDigits& digits) noexcept {
    while (digits.Count > 0 && digits.Digits[digits.Count - 1] == '0') --digits.Count;
    if (digits.Count == 0) digits.Exponent = 0;
}

// Half away from zero on the decimal digits, which are what a reader sees.
void RoundDigits(TDecimalDigits& digits, int precision) noexcept {
    const int kept = std::max(precision, 1);
    if (digits.Count <= kept) return;
    const bool up = digits.Digits[kept] >= '5';
    digits.Count = kept;
    if (!up) return;
    int at = kept - 1;
    while (at >= 0 && digits.Digits[at] == '9') digits.Digits[at--] = '0';
    if (at >= 0) {
        ++digits.Digits[at];
    } else {  // 999 became 1000
        digits.Digits[0] = '1';
        ++digits.Exponent;
    }
}

template <typename T>
TDecimalDigits RoundedDigits(T value, int precision) noexcept {
    TDecimalDigits digits = ShortestDigits(value);
    RoundDigits(digits, precision);
    StripZeros(digits);
    return digits;
}

void AppendFixed(std::u16string& text, const TDecimalDigits& digits) {
    const char* const all = digits.Digits;
    if (digits.Exponent <= 0) {
        text += u"0.";
        text.append(static_cast<std::size_t>(-digits.Exponent), u'0');
        text.append(all, all + digits.Count);
        return;
    }
    const int whole = std::min(digits.Count, digits.Exponent);
    text.append(all, all + whole);
    text.append(static_cast<std::size_t>(digits.Exponent - whole), u'0');
    if (digits.Count == whole) return;
    text += u'.';
    text.append(all + whole, all + digits.Count);
}

void AppendScientific(std::u16string& text, const TDecimalDigits& digits) {
    text += static_cast<char16_t>(digits.Digits[0]);
    if (digits.Count > 1) {
        text += u'.';
        text.append(digits.Digits + 1, digits.Digits + digits.Count);
    }
    text += u'E';
    char exponent[8];
    const char* const end =
        std::to_chars(exponent, exponent + sizeof exponent, digits.Exponent - 1).ptr;
    text.append(static_cast<const char*>(exponent), end);
}

template <typename T>
std::u16string TextOf(T value, int precision) {
    if (std::isnan(value)) return u"NAN";
    if (std::isinf(value)) return value < 0 ? u"-INF" : u"INF";
    const TDecimalDigits digits = RoundedDigits(value, precision);
    std::u16string text;
    if (digits.Negative) text += u'-';
    const int exponent = digits.Exponent - 1;
    if (digits.Count == 0) {
        text += u'0';
    } else if (exponent >= -5 && exponent < std::max(precision, 1)) {
        AppendFixed(text, digits);
    } else {
        AppendScientific(text, digits);
    }
    return text;
}

constexpr bool IsDigit(char16_t unit) noexcept { return unit >= u'0' && unit <= u'9'; }

// The number d1d2.. x 10^Exponent, with as many digits as can matter: 767 decide between any two
// neighbouring doubles, and one more that is not zero stands for all that were dropped.
struct TMantissa {
    char Text[800];
    std::size_t Count = 0;
    std::int64_t Exponent = 0;
    bool AnyDigit = false;

    void Add(char16_t digit, bool fraction) noexcept {
        AnyDigit = true;
        if (fraction) --Exponent;
        if (Count == 0 && digit == u'0') return;
        if (Count < 770) {
            Text[Count++] = static_cast<char>(digit);
            return;
        }
        ++Exponent;
        if (digit != u'0') Text[Count - 1] = '1';
    }
};

// Reads [+-] digits; false without a digit. Huge exponents are cut: no text is long enough to bring
// them back into the range of a double.
bool ParseExponent(std::u16string_view text, std::int64_t& exponent) noexcept {
    constexpr std::int64_t limit = std::int64_t{1} << 40;
    std::size_t at = 0;
    const bool negative = !text.empty() && text[0] == u'-';
    if (negative || (!text.empty() && text[0] == u'+')) ++at;
    if (at == text.size()) return false;
    std::int64_t value = 0;
    for (; at < text.size(); ++at) {
        if (!IsDigit(text[at])) return false;
        value = std::min(value * 10 + (text[at] - u'0'), limit);
    }
    exponent += negative ? -value : value;
    return true;
}

// False when the value is too large for a double; too small gives zero.
bool Convert(TMantissa& mantissa, double& value) noexcept {
    if (mantissa.Count == 0) {
        value = 0;
        return true;
    }
    // The decimal point goes in front of the digits: 0.d1d2.. x 10^magnitude.
    const std::int64_t magnitude = mantissa.Exponent + static_cast<std::int64_t>(mantissa.Count);
    if (magnitude > 400) return false;
    if (magnitude < -400) {
        value = 0;
        return true;
    }
    char* at = mantissa.Text + mantissa.Count;
    *at++ = 'e';
    at = std::to_chars(at, mantissa.Text + sizeof mantissa.Text, mantissa.Exponent).ptr;
    double result = 0;
    const auto [end, error] = std::from_chars(mantissa.Text, at, result);
    if (error != std::errc() && magnitude > 0) return false;
    value = error == std::errc() ? result : 0;
    return true;
}

}  // namespace

std::u16string FloatText(double value, int precision) { return TextOf(value, precision); }
std::u16string FloatText(float value, int precision) { return TextOf(value, precision); }

bool TextToDouble(std::u16string_view text, double& value) noexcept {
    std::size_t at = 0;
    const bool negative = !text.empty() && text[0] == u'-';
    if (negative || (!text.empty() && text[0] == u'+')) ++at;
    TMantissa mantissa;
    for (; at < text.size() && IsDigit(text[at]); ++at) mantissa.Add(text[at], false);
    if (at < text.size() && text[at] == u'.') {
        for (++at; at < text.size() && IsDigit(text[at]); ++at) mantissa.Add(text[at], true);
    }
    if (!mantissa.AnyDigit) return false;
    if (at < text.size()) {
        if (text[at] != u'e' && text[at] != u'E') return false;
        if (!ParseExponent(text.substr(at + 1), mantissa.Exponent)) return false;
    }
    double magnitude = 0;
    if (!Convert(mantissa, magnitude)) return false;
    value = negative ? -magnitude : magnitude;
    return true;
}

TDecimalDigits DigitsOfDouble(double value, int precision) noexcept {
    return RoundedDigits(value, precision);
}

bool RoundToInt64(double value, std::int64_t& result) noexcept {
    // Not std::nearbyint: the host may have changed the rounding mode.
    const double below = std::floor(value);
    const double fraction = value - below;
    std::int64_t whole = 0;
    if (!TruncToInt64(below, whole)) return false;
    // Only values below 2^53 have a fraction, so the step up cannot overflow.
    if (fraction > 0.5 || (fraction == 0.5 && whole % 2 != 0)) ++whole;
    result = whole;
    return true;
}

bool TruncToInt64(double value, std::int64_t& result) noexcept {
    constexpr double limit = 9'223'372'036'854'775'808.0;  // 2^63
    if (!(value >= -limit && value < limit)) return false;
    result = static_cast<std::int64_t>(value);
    return true;
}

}  // namespace kds
