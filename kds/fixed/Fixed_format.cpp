// Decimals to text.
#include "kds/fixed/Fixed.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ostream>

#include "kds/fixed/Separators.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

constexpr auto DigitPairs = [] {
    std::array<char, 200> pairs{};
    for (std::size_t i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

// The digits of a mantissa without leading zeros, at the end of a small array.
class TDigitText {
public:
    explicit TDigitText(std::uint64_t value) noexcept {
        for (; value >= 100; value /= 100) Push(value % 100);
        if (value >= 10) {
            Push(value);
        } else if (value > 0) {
            fDigits[--fStart] = static_cast<char>('0' + value);
        }
    }
    [[nodiscard]] std::string_view View() const noexcept {
        return {fDigits.data() + fStart, fDigits.size() - fStart};
    }

private:
    void Push(std::uint64_t pair) noexcept {
        fStart -= 2;
        std::memcpy(fDigits.data() + fStart, DigitPairs.data() + 2 * pair, 2);
    }
    std::array<char, 20> fDigits;
    std::size_t fStart = 20;
};

// Where the digits of a number go in its text. `Digits` has no leading zeros.
template <typename TSource>
struct TNumberLayout {
    TSource Sign{};  // 0 for none
    std::basic_string_view<TSource> Digits;
    std::size_t Whole = 0;     // digits before the separator, zeros of a negative scale included
    std::size_t Fraction = 0;  // digits behind it
    std::size_t LeadingZeros = 0;  // zeros between the separator and the first digit
    bool Grouped = false;
};

template <typename TSource>
[[nodiscard]] TNumberLayout<TSource> LayOut(std::basic_string_view<TSource> digits,
                                            std::int16_t scale, std::int32_t wanted, bool grouped) {
    TNumberLayout<TSource> layout;
    layout.Digits = digits;
    layout.Grouped = grouped;
    if (scale < 0) {
        // Zero has no digits to append zeros to.
        if (!digits.empty()) layout.Whole = digits.size() + static_cast<std::size_t>(-scale);
        return layout;
    }
    const auto decimals = static_cast<std::size_t>(scale);
    if (digits.size() > decimals) {
        layout.Whole = digits.size() - decimals;
    } else {
        layout.LeadingZeros = decimals - digits.size();
    }
    layout.Fraction = wanted >= 0 ? static_cast<std::size_t>(wanted) : decimals;
    return layout;
}

template <typename TSource, typename TTarget>
class TNumberWriter {
public:
    TNumberWriter(const TNumberLayout<TSource>& layout, TFormatSettings settings) noexcept
        : fLayout(layout),
          fDecimal(EncodeSeparator(settings.DecimalSeparator, TTarget{})),
          fThousand(EncodeSeparator(settings.ThousandSeparator, TTarget{})) {
        fGroups =
            layout.Grouped && fThousand.Count > 0 && layout.Whole > 3 ? (layout.Whole - 1) / 3 : 0;
    }

    [[nodiscard]] std::size_t Length() const noexcept {
        return (fLayout.Sign != 0 ? 1u : 0u) + std::max<std::size_t>(fLayout.Whole, 1) +
               fGroups * fThousand.Count +
               (fLayout.Fraction > 0 ? fDecimal.Count + fLayout.Fraction : 0);
    }

    // False when a character that belongs into the text is no digit.
    [[nodiscard]] bool Write(TTarget* target) noexcept {
        fTarget = target;
        if (fLayout.Sign != 0) *fTarget++ = static_cast<TTarget>(fLayout.Sign);
        if (fLayout.Whole == 0) *fTarget++ = TTarget{'0'};
        if (!WriteWhole()) return false;
        if (fLayout.Fraction == 0) return true;
        WriteSeparator(fDecimal);
        return WriteFraction();
    }

private:
    [[nodiscard]] bool WriteWhole() noexcept {
        if (fGroups == 0) return WriteDigits(0, fLayout.Whole);
        std::size_t next = fLayout.Whole - 3 * fGroups;
        if (!WriteDigits(0, next)) return false;
        for (; next < fLayout.Whole; next += 3) {
            WriteSeparator(fThousand);
            if (!WriteDigits(next, 3)) return false;
        }
        return true;
    }

    [[nodiscard]] bool WriteFraction() noexcept {
        const std::size_t zeros = std::min(fLayout.LeadingZeros, fLayout.Fraction);
        fTarget = std::fill_n(fTarget, zeros, TTarget{'0'});
        return WriteDigits(fLayout.Whole, fLayout.Fraction - zeros);
    }

    // `count` digits from `first`, zeros where the digits have ended.
    [[nodiscard]] bool WriteDigits(std::size_t first, std::size_t count) noexcept {
        const std::size_t size = fLayout.Digits.size();
        const std::size_t known = first < size ? std::min(count, size - first) : 0;
        for (std::size_t i = 0; i < known; ++i) {
            const TSource digit = fLayout.Digits[first + i];
            if (DigitOf(digit) > 9) return false;
            *fTarget++ = static_cast<TTarget>(digit);
        }
        fTarget = std::fill_n(fTarget, count - known, TTarget{'0'});
        return true;
    }

    void WriteSeparator(const TSeparator<TTarget>& separator) noexcept {
        fTarget = std::copy_n(separator.Units.begin(), separator.Count, fTarget);
    }

    const TNumberLayout<TSource>& fLayout;
    TSeparator<TTarget> fDecimal;
    TSeparator<TTarget> fThousand;
    std::size_t fGroups;
    TTarget* fTarget = nullptr;
};

// The rounding step of a text with fewer decimals: half a unit of the last one is added, and what
// lies behind it is cut off when the text is written.
[[nodiscard]] TFixed RoundedForText(const TFixed& x, std::int32_t digits) {
    if (digits < 0 || x.Scale <= digits) return x;
    return FixedAdd(x, TFixed(x.Value >= 0 ? 5 : -5, static_cast<std::int16_t>(digits + 1)));
}

template <typename TTarget>
[[nodiscard]] std::size_t WriteNumber(const TFixed& x, std::span<TTarget> buffer,
                                      TFormatSettings settings, bool thousands,
                                      std::int32_t digits) {
    const TFixed rounded = RoundedForText(x, digits);
    const TDigitText digitText(Magnitude(rounded.Value));
    TNumberLayout<char> layout = LayOut(digitText.View(), rounded.Scale, digits, thousands);
    if (rounded.Value < 0) layout.Sign = '-';
    TNumberWriter<char, TTarget> writer(layout, settings);
    const std::size_t length = writer.Length();
    // Digits of a mantissa are digits: writing them cannot fail.
    if (length <= buffer.size()) static_cast<void>(writer.Write(buffer.data()));
    return length;
}

}  // namespace

std::u16string FixedToStr(const TFixed& x) { return FixedToStr(x, DefaultFormatSettings()); }

std::u16string FixedToStr(const TFixed& x, TFormatSettings settings, bool thousands,
                          std::int32_t digits) {
    std::array<char16_t, 64> room;
    const std::size_t length = FixedToBuffer(x, room, settings, thousands, digits);
    if (length <= room.size()) return {room.data(), length};
    std::u16string text(length, u'0');
    FixedToBuffer(x, text, settings, thousands, digits);
    return text;
}

std::size_t WriteFixed(const TFixed& x, std::span<char16_t> buffer, TFormatSettings settings,
                       bool thousands, std::int32_t digits) {
    return WriteNumber(x, buffer, settings, thousands, digits);
}

std::size_t WriteFixed(const TFixed& x, std::span<char> buffer, TFormatSettings settings,
                       bool thousands, std::int32_t digits) {
    return WriteNumber(x, buffer, settings, thousands, digits);
}

std::u16string FormatAsNumber(std::u16string_view digitText, std::int16_t scale,
                              std::int32_t digits, bool thousands, TFormatSettings settings) {
    char16_t sign = 0;
    if (digitText.starts_with(u'+') || digitText.starts_with(u'-')) {
        sign = digitText.front();
        digitText.remove_prefix(1);
    }
    digitText.remove_prefix(std::min(digitText.find_first_not_of(u'0'), digitText.size()));
    TNumberLayout<char16_t> layout = LayOut(digitText, scale, digits, thousands);
    layout.Sign = sign;
    TNumberWriter<char16_t, char16_t> writer(layout, settings);
    std::u16string text(writer.Length(), u'0');
    return writer.Write(text.data()) ? text : std::u16string();
}

std::ostream& operator<<(std::ostream& stream, const TFixed& x) {
    return stream << ToUtf8(FixedToStr(x));
}

}  // namespace kds
