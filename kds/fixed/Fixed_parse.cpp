// Decimals from text.
#include "kds/fixed/Fixed.h"

#include <algorithm>
#include <bit>

#include "kds/fixed/Digits.h"
#include "kds/fixed/Separators.h"
#include "kds/platform/Bytes.h"

namespace kds {
namespace {

template <typename TChar>
class TFixedReader {
public:
    TFixedReader(std::basic_string_view<TChar> text, TFormatSettings settings) noexcept
        : fNext(text.data()), fEnd(text.data() + text.size()), fSettings(settings) {}

    [[nodiscard]] bool Read(TFixed& result) noexcept {
        result = {};
        if (fNext == fEnd) return false;
        const bool negative = *fNext == TChar{'-'};
        if (negative || *fNext == TChar{'+'}) ++fNext;
        // Up to 18 digits never come near the limit of the mantissa.
        const bool read = fEnd - fNext <= MaxPowerOf10 ? ReadDigits<false>() : ReadDigits<true>();
        // A mantissa beyond 63 bits shows as a sign that nobody wrote; only the smallest integer
        // is meant when it does.
        const auto value = static_cast<std::int64_t>(negative ? 0 - fMantissa : fMantissa);
        result = {value, fScale};
        return read && (value == 0 || (value < 0) == negative);
    }

private:
    template <bool Checked>
    [[nodiscard]] bool ReadDigits() noexcept {
        if (!ReadRun<Checked>()) return false;
        while (fNext != fEnd) {
            if (Accept(fSettings.DecimalSeparator)) return ReadFraction<Checked>();
            if (!Accept(fSettings.ThousandSeparator)) return false;
            if (!ReadRun<Checked>()) return false;
        }
        return true;
    }

    template <bool Checked>
    [[nodiscard]] bool ReadFraction() noexcept {
        const TChar* const start = fNext;
        const bool read = ReadRun<Checked>();
        fScale = static_cast<std::int16_t>(fNext - start);
        return read && fNext == fEnd;  // a second separator of either kind fails
    }

    // The digits up to the next character that is none; false when the mantissa is full.
    template <bool Checked>
    [[nodiscard]] bool ReadRun() noexcept {
        for (; fNext != fEnd; ++fNext) {
            const unsigned digit = DigitOf(*fNext);
            if (digit > 9) break;
            // QUIRK: the limit is a double, 922337203685477632; the sign test catches the few
            // mantissas between the largest integer and ten times this one.
            if (Checked && static_cast<double>(fMantissa) > 922337203685477600.0) return false;
            fMantissa = fMantissa * 10 + digit;
        }
        return true;
    }

    [[nodiscard]] bool Accept(char16_t separator) noexcept {
        if constexpr (sizeof(TChar) == sizeof(char16_t)) {
            if (separator == 0 || *fNext != separator) return false;
            ++fNext;
            return true;
        } else {
            const TSeparator<TChar> encoded = EncodeSeparator(separator, TChar{});
            const std::basic_string_view<TChar> rest(fNext, fEnd);
            if (encoded.Count == 0) return false;
            if (!rest.starts_with({encoded.Units.data(), encoded.Count})) return false;
            fNext += encoded.Count;
            return true;
        }
    }

    const TChar* fNext;
    const TChar* fEnd;
    TFormatSettings fSettings;
    std::uint64_t fMantissa = 0;
    std::int16_t fScale = 0;
};

// ---- short 8-bit texts: digits and at most one separator ----
//
// The characters are gathered in words, right-aligned as text, the separator is closed out and
// eight digits are joined at a time, so that nothing branches on where the separator stands.

constexpr std::uint64_t EveryByte = 0x0101010101010101;
constexpr std::uint64_t HalfZeros = DigitZeros >> 32;

// A one in the highest bit of each byte that equals the separator; bytes behind the first such may
// be marked without being equal. Both hold characters less '0'.
[[nodiscard]] std::uint64_t MarkSeparators(std::uint64_t word, std::uint64_t separators) noexcept {
    const std::uint64_t difference = word ^ separators;
    return (difference - EveryByte) & ~difference & (EveryByte << 7);
}

// Moves the characters before the first mark one byte on, over the separator.
[[nodiscard]] std::uint64_t CloseOut(std::uint64_t word, std::uint64_t marks) noexcept {
    const std::uint64_t first = marks & (0 - marks);
    const std::uint64_t behind = 0 - (first << 1);
    const std::uint64_t before = (first >> 7) - 1;
    return (word & behind) | (word & before) << 8;
}

// How many characters of the word stand behind the first mark.
[[nodiscard]] std::int16_t CountBehind(std::uint64_t marks) noexcept {
    return static_cast<std::int16_t>((63 - std::countr_zero(marks)) / 8);
}

[[nodiscard]] TFixed MakeFixed(std::uint64_t size, bool negative, std::int16_t scale) noexcept {
    return {static_cast<std::int64_t>(negative ? 0 - size : size), scale};
}

// Four to eight characters.
[[nodiscard]] bool ReadOneWord(const char* text, std::size_t size, std::uint64_t separators,
                               bool negative, TFixed& result) noexcept {
    const std::uint64_t firstFour = LoadRaw<std::uint32_t>(text) ^ HalfZeros;
    const std::uint64_t lastFour = LoadRaw<std::uint32_t>(text + size - 4) ^ HalfZeros;
    std::uint64_t word = firstFour << (8 * (8 - size)) | lastFour << 32;
    const std::uint64_t marks = MarkSeparators(word, separators);
    std::int16_t scale = 0;
    if (marks != 0) {
        word = CloseOut(word, marks);
        scale = CountBehind(marks);
    }
    if (!AreDigits(word)) return false;
    result = MakeFixed(JoinDigits(word), negative, scale);
    return true;
}

// Nine to fifteen characters.
[[nodiscard]] bool ReadTwoWords(const char* text, std::size_t size, std::uint64_t separators,
                                bool negative, TFixed& result) noexcept {
    std::uint64_t last = LoadRaw<std::uint64_t>(text + size - 8) ^ DigitZeros;
    std::uint64_t first = (LoadRaw<std::uint64_t>(text) ^ DigitZeros) << (8 * (16 - size));
    std::int16_t scale = 0;
    // One separator is closed out; a second one stays and is no digit.
    if (const std::uint64_t inLast = MarkSeparators(last, separators); inLast != 0) {
        last = CloseOut(last, inLast) | first >> 56;
        first <<= 8;
        scale = CountBehind(inLast);
    } else if (const std::uint64_t inFirst = MarkSeparators(first, separators); inFirst != 0) {
        first = CloseOut(first, inFirst);
        scale = static_cast<std::int16_t>(8 + CountBehind(inFirst));
    }
    if (!AreDigits(first) || !AreDigits(last)) return false;
    const std::uint64_t high = JoinDigits(first);
    result = MakeFixed(high * 100'000'000 + JoinDigits(last), negative, scale);
    return true;
}

// False when the text is none of the short ones or anything else is in it; then the reader above
// decides.
[[nodiscard]] bool ReadShortText(std::string_view text, char16_t separator,
                                 TFixed& result) noexcept {
    if (text.empty() || separator - 1u >= 0x7F || DigitOf(separator) <= 9) return false;
    const bool negative = text.front() == '-';
    text.remove_prefix(negative || text.front() == '+' ? 1 : 0);
    const std::size_t size = text.size();
    const std::uint64_t separators = EveryByte * (separator ^ unsigned{'0'});
    if (size - 4 <= 4) return ReadOneWord(text.data(), size, separators, negative, result);
    if (size - 9 <= 6) return ReadTwoWords(text.data(), size, separators, negative, result);
    return false;
}

template <typename TChar>
[[nodiscard, gnu::noinline]] bool ReadAnyText(std::basic_string_view<TChar> text, TFixed& result,
                                              TFormatSettings settings) noexcept {
    return TFixedReader<TChar>(text, settings).Read(result);
}

}  // namespace

TFixed StrToFixed(std::u16string_view text, TFormatSettings settings) {
    TFixed result;
    if (!TryStrToFixed(text, result, settings)) RaiseInvalidFixed(text);
    return result;
}

TFixed StrToFixed(std::u16string_view text) { return StrToFixed(text, DefaultFormatSettings()); }

TFixed StrToFixed(std::u16string_view buffer, std::int32_t start, std::int32_t length,
                  TFormatSettings settings) {
    const auto first = static_cast<std::size_t>(std::max(start, 0));
    const auto count = static_cast<std::size_t>(std::max(length, 0));
    const std::u16string_view slice =
        buffer.substr(std::min(first, buffer.size()), count);  // what there is of it
    if (start < 0 || slice.size() != count) RaiseInvalidFixed(slice);
    return StrToFixed(slice, settings);
}

TFixed StrToFixed(std::u16string_view buffer, std::int32_t start, std::int32_t length) {
    return StrToFixed(buffer, start, length, DefaultFormatSettings());
}

bool TryStrToFixed(std::u16string_view text, TFixed& result, TFormatSettings settings) noexcept {
    return ReadAnyText(text, result, settings);
}

bool TryStrToFixed(std::u16string_view text, TFixed& result) noexcept {
    return ReadAnyText(text, result, DefaultFormatSettings());
}

bool TryStrToFixed(std::string_view text, TFixed& result, TFormatSettings settings) noexcept {
    return ReadShortText(text, settings.DecimalSeparator, result) ||
           ReadAnyText(text, result, settings);
}

bool TryStrToFixed(std::string_view text, TFixed& result) noexcept {
    return TryStrToFixed(text, result, DefaultFormatSettings());
}

TFixed StrToFixedDef(std::u16string_view text, const TFixed& fallback,
                     TFormatSettings settings) noexcept {
    TFixed result;
    return TryStrToFixed(text, result, settings) ? result : fallback;
}

TFixed StrToFixedDef(std::u16string_view text, const TFixed& fallback) noexcept {
    return StrToFixedDef(text, fallback, DefaultFormatSettings());
}

}  // namespace kds
