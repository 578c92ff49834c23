#include "kds/platform/Text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <limits>

#include "kds/platform/Bytes.h"
#include "kds/platform/Casefold.h"

namespace kds {
namespace {

// --- Folding ---------------------------------------------------------------------------------

// Latin, Greek, Cyrillic and Armenian letters lie below this; they are looked up directly.
constexpr char32_t DirectLimit = 0x600;

constexpr auto BuildDirectTable() {
    std::array<char16_t, DirectLimit> table{};
    for (char32_t c = 0; c < DirectLimit; ++c) table[c] = static_cast<char16_t>(c);
    for (const TFoldRange& range : FoldRanges) {
        if (range.Last >= DirectLimit) break;
        for (char32_t c = range.First; c <= range.Last; c += static_cast<char32_t>(range.Stride)) {
            table[c] = static_cast<char16_t>(static_cast<std::int32_t>(c) + range.Delta);
        }
    }
    return table;
}
constexpr auto DirectTable = BuildDirectTable();

// What UTF-8 needs for it; comparison relies on a capital never needing more or less.
constexpr std::size_t Utf8Length(char32_t c) noexcept {
    return c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
}
constexpr char32_t Moved(char32_t c, std::int32_t delta) noexcept {
    return static_cast<char32_t>(static_cast<std::int32_t>(c) + delta);
}
static_assert(std::ranges::all_of(FoldRanges, [](const TFoldRange& range) {
    return Utf8Length(range.First) == Utf8Length(Moved(range.First, range.Delta)) &&
           Utf8Length(range.Last) == Utf8Length(Moved(range.Last, range.Delta)) &&
           (range.First < 0x10000 || range.First >> 10 == Moved(range.First, range.Delta) >> 10);
}));

char32_t FoldByRange(char32_t c) noexcept {
    const auto* const range = std::ranges::lower_bound(FoldRanges, c, {}, &TFoldRange::Last);
    if (range == FoldRanges.end() || c < range->First) return c;
    if ((c - range->First) % static_cast<char32_t>(range->Stride) != 0) return c;
    return Moved(c, range->Delta);
}

inline char32_t Fold(char32_t c) noexcept {
    return c < DirectLimit ? DirectTable[c] : FoldByRange(c);
}

// --- UTF-16 ----------------------------------------------------------------------------------

constexpr bool IsHigh(char32_t unit) noexcept { return unit >= 0xD800 && unit < 0xDC00; }
constexpr bool IsLow(char32_t unit) noexcept { return unit >= 0xDC00 && unit < 0xE000; }
// The lone surrogates that stand for bytes outside UTF-8.
constexpr char32_t EscapedBytes = 0xDC00;
constexpr bool IsEscapedByte(char32_t unit) noexcept { return unit >= 0xDC80 && unit <= 0xDCFF; }

constexpr char32_t JoinSurrogates(char32_t high, char32_t low) noexcept {
    return 0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00);
}

// The unit at `at` of the folded text. The first unit of a pair never changes, so only the second
// one needs its neighbour.
inline char16_t FoldedUnit(std::u16string_view text, std::size_t at) noexcept {
    const char16_t unit = text[at];
    if (unit < DirectLimit) return DirectTable[unit];
    if (IsLow(unit) && at > 0 && IsHigh(text[at - 1])) {
        return static_cast<char16_t>(EscapedBytes |
                                     (FoldByRange(JoinSurrogates(text[at - 1], unit)) & 0x3FF));
    }
    return static_cast<char16_t>(FoldByRange(unit));
}

// --- UTF-8 -----------------------------------------------------------------------------------

// What Decode answers for a byte that is not part of valid UTF-8: this bit and the byte.
constexpr char32_t InvalidByte = 0x8000'0000;

// Bytes that a decoded character took.
constexpr std::size_t TakenBytes(char32_t decoded) noexcept {
    return decoded >= InvalidByte ? 1 : Utf8Length(decoded);
}
inline char32_t FoldDecoded(char32_t decoded) noexcept {
    return decoded >= InvalidByte ? decoded & 0xFF : Fold(decoded);
}

constexpr bool IsTrail(char32_t byte) noexcept { return (byte & 0xC0) == 0x80; }

// Decodes a character of three or four bytes. Overlong forms, surrogates and what is cut short are
// not valid: their first byte stands alone, and the next one is looked at afresh.
char32_t DecodeLong(std::string_view text, std::size_t at) noexcept {
    const auto byte = [&](std::size_t offset) -> char32_t {
        return static_cast<unsigned char>(text[at + offset]);
    };
    const char32_t lead = byte(0);
    const char32_t invalid = InvalidByte | lead;
    const std::size_t left = text.size() - at;
    if (lead < 0xE0 || left < 3 || !IsTrail(byte(1)) || !IsTrail(byte(2))) return invalid;
    char32_t c = (byte(1) & 0x3F) << 6 | (byte(2) & 0x3F);
    if (lead < 0xF0) {
        c |= (lead & 0x0F) << 12;
        return c < 0x800 || IsHigh(c) || IsLow(c) ? invalid : c;
    }
    if (lead > 0xF4 || left < 4 || !IsTrail(byte(3))) return invalid;
    c = (lead & 0x07) << 18 | c << 6 | (byte(3) & 0x3F);
    return c < 0x10000 || c > 0x10FFFF ? invalid : c;
}

// Decodes the character at `at`; one and two bytes, the most frequent ones, right here.
inline char32_t Decode(std::string_view text, std::size_t at) noexcept {
    const char32_t lead = static_cast<unsigned char>(text[at]);
    if (lead < 0x80) return lead;
    if (lead >= 0xC2 && lead < 0xE0 && at + 1 < text.size()) {
        const char32_t trail = static_cast<unsigned char>(text[at + 1]);
        if (IsTrail(trail)) return (lead & 0x1F) << 6 | (trail & 0x3F);
    }
    return DecodeLong(text, at);
}

// Writes the UTF-8 form and answers its length; lone surrogates take their three-byte form.
std::size_t Encode(char32_t c, char* target) noexcept {
    const auto put = [&](std::size_t at, char32_t bits) { target[at] = static_cast<char>(bits); };
    if (c < 0x80) {
        put(0, c);
        return 1;
    }
    if (c < 0x800) {
        put(0, 0xC0 | c >> 6);
        put(1, 0x80 | (c & 0x3F));
        return 2;
    }
    if (c < 0x10000) {
        put(0, 0xE0 | c >> 12);
        put(1, 0x80 | (c >> 6 & 0x3F));
        put(2, 0x80 | (c & 0x3F));
        return 3;
    }
    put(0, 0xF0 | c >> 18);
    put(1, 0x80 | (c >> 12 & 0x3F));
    put(2, 0x80 | (c >> 6 & 0x3F));
    put(3, 0x80 | (c & 0x3F));
    return 4;
}

// --- Eight bytes at a time ---------------------------------------------------------------------

constexpr std::uint64_t Bytes8 = 0x0101010101010101;
constexpr std::uint64_t Units4 = 0x0001000100010001;

constexpr bool IsAscii8(std::uint64_t word) noexcept { return (word & Bytes8 * 0x80) == 0; }
constexpr bool IsAscii4(std::uint64_t word) noexcept { return (word & Units4 * 0xFF80) == 0; }

// Capitals of ASCII lanes. Adding lifts a lane's top bit when it is at least 'a', or past 'z'; no
// lane carries into the next, because all are below 0x80. The difference of the two marks the
// letters, and the mark moved from 0x80 to 0x20 is what a capital lacks.
constexpr std::uint64_t FoldAscii(std::uint64_t word, std::uint64_t lanes) noexcept {
    const std::uint64_t atLeastA = word + lanes * (0x80 - 'a');
    const std::uint64_t pastZ = word + lanes * (0x80 - 'z' - 1);
    return word - ((atLeastA & ~pastZ & lanes * 0x80) >> 2);
}

// The lane where two words first differ decides; `laneBits` is 8 or 16.
constexpr std::int32_t CompareLanes(std::uint64_t a, std::uint64_t b, int laneBits) noexcept {
    const int shift = std::countr_zero(a ^ b) / laneBits * laneBits;
    const std::uint64_t mask = (std::uint64_t{1} << laneBits) - 1;
    return (a >> shift & mask) < (b >> shift & mask) ? -1 : 1;
}

std::int32_t CompareSizes(std::size_t a, std::size_t b) noexcept {
    return a == b ? 0 : a < b ? -1 : 1;
}

std::size_t AsciiPrefix(std::string_view text) noexcept {
    std::size_t at = 0;
    while (at + 8 <= text.size() && IsAscii8(LoadRaw<std::uint64_t>(text.data() + at))) at += 8;
    while (at < text.size() && static_cast<unsigned char>(text[at]) < 0x80) ++at;
    return at;
}

std::size_t AsciiPrefix(std::u16string_view text) noexcept {
    std::size_t at = 0;
    while (at + 4 <= text.size() && IsAscii4(LoadRaw<std::uint64_t>(text.data() + at))) at += 4;
    while (at < text.size() && text[at] < 0x80) ++at;
    return at;
}

// --- Comparison --------------------------------------------------------------------------------

std::int32_t CompareUnits(std::u16string_view a, std::u16string_view b) noexcept {
    const std::size_t common = std::min(a.size(), b.size());
    std::size_t at = 0;
    for (; at + 4 <= common; at += 4) {
        const auto wordA = LoadRaw<std::uint64_t>(a.data() + at);
        const auto wordB = LoadRaw<std::uint64_t>(b.data() + at);
        if (wordA != wordB) return CompareLanes(wordA, wordB, 16);
    }
    for (; at < common; ++at) {
        if (a[at] != b[at]) return a[at] < b[at] ? -1 : 1;
    }
    return CompareSizes(a.size(), b.size());
}

std::int32_t CompareUnitsCaseless(std::u16string_view a, std::u16string_view b) noexcept {
    const std::size_t common = std::min(a.size(), b.size());
    std::size_t at = 0;
    while (at < common) {
        if (at + 4 <= common) {
            const auto wordA = LoadRaw<std::uint64_t>(a.data() + at);
            const auto wordB = LoadRaw<std::uint64_t>(b.data() + at);
            // Equal so far means equal first units of pairs, so equal units fold alike.
            if (wordA == wordB) {
                at += 4;
                continue;
            }
            if (IsAscii4(wordA | wordB)) {
                const std::uint64_t foldedA = FoldAscii(wordA, Units4);
                const std::uint64_t foldedB = FoldAscii(wordB, Units4);
                if (foldedA != foldedB) return CompareLanes(foldedA, foldedB, 16);
                at += 4;
                continue;
            }
        }
        const char16_t unitA = FoldedUnit(a, at);
        const char16_t unitB = FoldedUnit(b, at);
        if (unitA != unitB) return unitA < unitB ? -1 : 1;
        ++at;
    }
    return CompareSizes(a.size(), b.size());
}

// The bytes of a folded 8-bit text, one after the other.
class TFoldedBytes {
public:
    TFoldedBytes(std::string_view text, std::size_t at) noexcept : fText(text), fAt(at) {}
    // The next byte, -1 at the end.
    int Next() noexcept {
        if (fNext == fCount) {
            if (fAt == fText.size()) return -1;
            const char32_t decoded = Decode(fText, fAt);
            fNext = 0;
            fCount = TakenBytes(decoded);
            fAt += fCount;
            if (decoded >= InvalidByte) {
                fBytes[0] = static_cast<char>(decoded & 0xFF);
            } else {
                Encode(Fold(decoded), fBytes);
            }
        }
        return static_cast<unsigned char>(fBytes[fNext++]);
    }

private:
    std::string_view fText;
    std::size_t fAt;
    std::size_t fNext = 0;
    std::size_t fCount = 0;
    char fBytes[4] = {};
};

// Both texts from `at`, where both have a character boundary. Characters of different lengths end
// the common walk: from there the folded bytes are compared one by one, so that bytes outside
// UTF-8 keep one consistent order, too.
std::int32_t CompareFoldedBytes(std::string_view a, std::string_view b, std::size_t at) noexcept {
    TFoldedBytes bytesA(a, at);
    TFoldedBytes bytesB(b, at);
    for (;;) {
        const int byteA = bytesA.Next();
        const int byteB = bytesB.Next();
        if (byteA != byteB) return byteA < byteB ? -1 : 1;
        if (byteA < 0) return 0;
    }
}

std::int32_t CompareBytesCaseless(std::string_view a, std::string_view b) noexcept {
    const std::size_t common = std::min(a.size(), b.size());
    std::size_t at = 0;
    while (at < common) {
        if (at + 8 <= common) {
            const auto wordA = LoadRaw<std::uint64_t>(a.data() + at);
            const auto wordB = LoadRaw<std::uint64_t>(b.data() + at);
            if (IsAscii8(wordA | wordB)) {
                const std::uint64_t foldedA = FoldAscii(wordA, Bytes8);
                const std::uint64_t foldedB = FoldAscii(wordB, Bytes8);
                if (foldedA != foldedB) return CompareLanes(foldedA, foldedB, 8);
                at += 8;
                continue;
            }
        }
        const char32_t charA = Decode(a, at);
        const char32_t charB = Decode(b, at);
        const std::size_t taken = TakenBytes(charA);
        if (taken != TakenBytes(charB)) return CompareFoldedBytes(a, b, at);
        const char32_t foldedA = FoldDecoded(charA);
        const char32_t foldedB = FoldDecoded(charB);
        // UTF-8 sorts as its code points do, and single bytes sort as themselves.
        if (foldedA != foldedB) return foldedA < foldedB ? -1 : 1;
        at += taken;
    }
    return CompareSizes(a.size(), b.size());
}

}  // namespace

std::u16string ToUtf16(std::string_view text) {
    // A byte becomes at most one unit.
    std::u16string result(text.size(), u'\0');
    char16_t* out = result.data();
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t ascii = AsciiPrefix(text.substr(at));
        out = std::transform(text.data() + at, text.data() + at + ascii, out,
                             [](char c) { return static_cast<char16_t>(c); });
        at += ascii;
        if (at == text.size()) break;
        const char32_t c = Decode(text, at);
        at += TakenBytes(c);
        if (c >= InvalidByte) {
            *out++ = static_cast<char16_t>(EscapedBytes | (c & 0xFF));
        } else if (c < 0x10000) {
            *out++ = static_cast<char16_t>(c);
        } else {
            *out++ = static_cast<char16_t>(0xD7C0 + (c >> 10));  // 0xD800 less 0x10000 >> 10
            *out++ = static_cast<char16_t>(0xDC00 | (c & 0x3FF));
        }
    }
    result.resize(static_cast<std::size_t>(out - result.data()));
    return result;
}

std::string ToUtf8(std::u16string_view text) {
    std::string result;
    AppendUtf8(result, text);
    return result;
}

void AppendUtf8(std::string& target, std::u16string_view text) {
    const std::size_t ascii = AsciiPrefix(text);
    const std::size_t old = target.size();
    // A unit becomes at most three bytes, a pair four. The room is cut to size at the end.
    target.resize(old + ascii + 3 * (text.size() - ascii));
    char* out = std::transform(text.data(), text.data() + ascii, target.data() + old,
                               [](char16_t unit) { return static_cast<char>(unit); });
    for (std::size_t at = ascii; at < text.size(); ++at) {
        char32_t c = text[at];
        if (IsHigh(c) && at + 1 < text.size() && IsLow(text[at + 1])) {
            c = JoinSurrogates(c, text[++at]);
        } else if (IsEscapedByte(c)) {
            *out++ = static_cast<char>(c & 0xFF);
            continue;
        }
        out += Encode(c, out);
    }
    target.resize(static_cast<std::size_t>(out - target.data()));
}

char32_t FoldCase(char32_t codePoint) noexcept { return Fold(codePoint); }

std::u16string ToUpper(std::u16string_view text) {
    std::u16string result(text.size(), u'\0');
    for (std::size_t at = 0; at < text.size(); ++at) result[at] = FoldedUnit(text, at);
    return result;
}

std::int32_t CompareText(std::u16string_view a, std::u16string_view b, bool caseless) noexcept {
    return caseless ? CompareUnitsCaseless(a, b) : CompareUnits(a, b);
}

std::int32_t CompareAnsi(std::string_view a, std::string_view b, bool caseless) noexcept {
    if (caseless) return CompareBytesCaseless(a, b);
    const int order = a.compare(b);  // by unsigned byte
    return order < 0 ? -1 : order > 0 ? 1 : 0;
}

std::u16string_view Trim(std::u16string_view text) noexcept {
    while (!text.empty() && text.front() <= u' ') text.remove_prefix(1);
    while (!text.empty() && text.back() <= u' ') text.remove_suffix(1);
    return text;
}

bool EndsWithText(std::u16string_view text, std::u16string_view suffix) noexcept {
    return text.size() >= suffix.size() &&
           SameText(text.substr(text.size() - suffix.size()), suffix);
}

std::int32_t TextToIntDef(std::u16string_view text, std::int32_t fallback) noexcept {
    std::size_t at = 0;
    const bool negative = !text.empty() && text[0] == u'-';
    if (negative || (!text.empty() && text[0] == u'+')) ++at;
    if (at == text.size()) return fallback;
    constexpr std::int64_t limit = std::numeric_limits<std::int32_t>::max();
    std::int64_t value = 0;
    for (; at < text.size(); ++at) {
        if (text[at] < u'0' || text[at] > u'9') return fallback;
        value = value * 10 + (text[at] - u'0');
        if (value > limit + 1) return fallback;
    }
    if (negative) value = -value;
    return value > limit ? fallback : static_cast<std::int32_t>(value);
}

}  // namespace kds
