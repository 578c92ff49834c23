#include "kds/expr/Exprvalues.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>

#include "kds/expr/Exprerrors.h"
#include "kds/expr/Extvars.h"
#include "kds/expr/Varconvert.h"
#include "kds/fixed/Powers.h"
#include "kds/platform/Datetime.h"
#include "kds/platform/Floats.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

constexpr std::size_t FirstBlock = 4096;
// All texts of one evaluation together: room for dozens of the longest ones.
constexpr std::size_t MaxArenaBytes = std::size_t{256} << 20;

[[nodiscard]] bool IsDigit(char c) noexcept { return c >= '0' && c <= '9'; }

// "$FF": up to 16 digits are the bits of an integer.
[[nodiscard]] TExprSlot ReadHexadecimal(std::string_view digits) noexcept {
    std::uint64_t bits = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, bits, 16);
    if (error != std::errc{} || stop != end || digits.front() == '-') return {};
    return TExprSlot::OfInteger(static_cast<std::int64_t>(bits));
}

[[nodiscard]] TExprSlot ReadFloat(std::string_view text) noexcept {
    // Most numbers are short; longer ones go through the heap of a string only here.
    try {
        double value = 0;
        const std::u16string wide(text.begin(), text.end());
        return TextToDouble(wide, value) ? TExprSlot::OfFloat(value) : TExprSlot{};
    } catch (const std::bad_alloc&) {
        return {};
    }
}

// A mantissa of digits with at most one point; -1 without a point. False for anything else.
struct TDigits {
    std::int64_t Decimals = -1;
    std::uint64_t Value = 0;
    std::int64_t Significant = 0;
    bool Fits = true;
};
[[nodiscard]] bool ReadDigits(std::string_view text, TDigits& digits) noexcept {
    bool any = false;
    for (const char c : text) {
        if (c == '.') {
            if (digits.Decimals >= 0) return false;
            digits.Decimals = 0;
            continue;
        }
        if (!IsDigit(c)) return false;
        any = true;
        const auto digit = static_cast<std::uint64_t>(c - '0');
        if (digits.Decimals >= 0) ++digits.Decimals;
        if (digits.Significant > 0 || digit != 0) ++digits.Significant;
        digits.Fits = digits.Fits && !__builtin_mul_overflow(digits.Value, 10, &digits.Value) &&
                      !__builtin_add_overflow(digits.Value, digit, &digits.Value);
    }
    return any;
}

[[nodiscard]] int Order(auto a, auto b) noexcept { return (a > b) - (a < b); }

[[nodiscard]] int CompareFixed(TFixed a, TFixed b) noexcept {
    if (a.Scale == b.Scale) return Order(a.Value, b.Value);
    if (std::abs(a.Scale - b.Scale) <= MaxPowerOf10) return FixedCompareValue(a, b);
    return Order(ToFloat(TExprSlot::OfFixed(a)), ToFloat(TExprSlot::OfFixed(b)));
}

// A decimal with 0 to 18 places against a float, exactly: the float is mantissa x 2^power, so both
// sides are brought to one scale in 128 bits and the bits that fall out are looked at last.
[[nodiscard]] int CompareFixedFloat(TFixed a, double b) noexcept {
    if (a.Scale < 0 || a.Scale > MaxPowerOf10 || std::isinf(b)) {
        return Order(ToFloat(TExprSlot::OfFixed(a)), b);
    }
    const int signs = Order(Order(a.Value, std::int64_t{0}), Order(b, 0.0));
    if (signs != 0 || a.Value == 0) return signs;
    const int direction = a.Value < 0 ? -1 : 1;
    int power = 0;
    const double fraction = std::frexp(std::fabs(b), &power);
    const auto mantissa = static_cast<std::uint64_t>(std::ldexp(fraction, 53));
    power -= 53;
    if (power > 11) return -direction;  // the float is 2^64 or more, beyond every mantissa
    const TUInt128 scaled = TUInt128{mantissa} * static_cast<std::uint64_t>(
                                                     PowersOf10[static_cast<std::size_t>(a.Scale)]);
    const TUInt128 left = Magnitude(a.Value);
    if (power >= 0) return direction * Order(left, scaled << power);
    if (power <= -128) return direction;
    const TUInt128 whole = scaled >> -power;
    if (left != whole) return direction * Order(left, whole);
    return (whole << -power) == scaled ? 0 : -direction;
}

// Valid UTF-8 of three and four bytes; 1 for bytes that belong to no character.
[[nodiscard]] std::size_t LongCharLength(std::string_view text, std::size_t at) noexcept {
    const auto byte = [&](std::size_t offset) {
        return static_cast<unsigned>(static_cast<unsigned char>(text[at + offset]));
    };
    const auto trails = [&](std::size_t count) {
        if (text.size() - at <= count) return false;
        for (std::size_t i = 1; i <= count; ++i) {
            if ((byte(i) & 0xC0) != 0x80) return false;
        }
        return true;
    };
    const unsigned lead = byte(0);
    if (lead < 0xC2 || lead > 0xF4) return 1;
    if (lead < 0xE0) return trails(1) ? 2 : 1;
    if (lead < 0xF0) {
        if (!trails(2) || (lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xED && byte(1) > 0x9F)) {
            return 1;
        }
        return 3;
    }
    if (!trails(3) || (lead == 0xF0 && byte(1) < 0x90) || (lead == 0xF4 && byte(1) > 0x8F)) {
        return 1;
    }
    return 4;
}

}  // namespace

// ---- memory ----

void TExprArena::Empty() noexcept {
    fBlock = 0;
    fUsed = 0;
    fTotal = 0;
    fVariants.clear();
}

char* TExprArena::Allocate(std::size_t size) {
    if (size > 4 * MaxExprTextLength || fTotal + size > MaxArenaBytes) {
        ParserError(u"InvalidFunctionArguments", {u"CONCAT"});
    }
    while (fBlock < fBlocks.size() && fBlocks[fBlock].Size - fUsed < size + 1) {
        ++fBlock;
        fUsed = 0;
    }
    if (fBlock == fBlocks.size()) {
        const std::size_t last = fBlocks.empty() ? FirstBlock / 2 : fBlocks.back().Size;
        const std::size_t room = std::max(size + 1, std::min(last * 2, std::size_t{1} << 20));
        fBlocks.push_back({std::make_unique_for_overwrite<char[]>(room), room});
        fUsed = 0;
    }
    char* const given = fBlocks[fBlock].Bytes.get() + fUsed;
    fUsed += size;
    fTotal += size + 1;  // above 0 for empty texts, too
    return given;
}

std::string_view TExprArena::Keep(std::string_view text) {
    char* const copy = Allocate(text.size());
    if (!text.empty()) std::memcpy(copy, text.data(), text.size());
    return {copy, text.size()};
}

std::string_view TExprArena::KeepWide(std::u16string_view text) {
    fScratch.clear();
    AppendUtf8(fScratch, text);
    return Keep(fScratch);
}

const TVariant* TExprArena::KeepVariant(TVariant value) {
    return &fVariants.emplace_back(std::move(value));
}

// ---- variants ----

TExprSlot SlotOfVariant(const TVariant& value, TExprArena& arena) {
    switch (value.Type()) {
        case varEmpty:
        case varNull: return {};
        case varBoolean: return TExprSlot::OfBoolean(value.Get<bool>());
        case varShortInt:
        case varSmallInt:
        case varInteger:
        case varInt64:
        case varByte:
        case varWord:
        case varCardinal:
        case varUInt64: return TExprSlot::OfInteger(VarToInt64(value));
        case varSingle:
        case varDouble:
        case varExtended: return TExprSlot::OfFloat(VarToDouble(value));
        case varCurrency: return TExprSlot::OfFixed(TFixed(value.Get<TCurrency>()));
        case varFixed: return TExprSlot::OfFixed(TFixed(value.Get<TDecimalParts>()));
        case varDateTime: return TExprSlot::OfDate(value.Get<TDateTime>().Days);
        case varString: return TExprSlot::OfText(arena.KeepWide(value.Get<std::u16string>()));
        case varAnsiString: return TExprSlot::OfText(arena.Keep(value.Get<TAnsiString>().View()));
        case varInterface: break;
    }
    TExprSlot slot;
    slot.Kind = ekOther;
    slot.Other = arena.KeepVariant(value);
    return slot;
}

TVariant VariantOfSlot(const TExprSlot& slot) {
    switch (slot.Kind) {
        case ekBoolean: return slot.Integer != 0;
        case ekInteger:
            if (slot.Integer == static_cast<std::int32_t>(slot.Integer)) {
                return static_cast<std::int32_t>(slot.Integer);
            }
            return slot.Integer;
        case ekFixed: return FixedToVar(slot.Fixed());
        case ekFloat: return slot.Float;
        case ekDate: return TDateTime{slot.Float};
        case ekText: return ToUtf16(slot.View());
        case ekOther: return *slot.Other;
        case ekNull:
        case ekAny: break;
    }
    return Null;
}

// ---- reading texts ----

TExprSlot ReadLiteral(std::string_view text, bool& beyond) noexcept {
    beyond = false;
    if (text.empty()) return {};
    if (text.front() == '$')
        return text.size() == 1 ? TExprSlot{} : ReadHexadecimal(text.substr(1));
    if (!IsDigit(text.front()) && text.front() != '.') return {};
    TDigits digits;
    if (!ReadDigits(text, digits)) return ReadFloat(text);
    if (digits.Decimals < 0) {
        constexpr std::uint64_t limit = std::uint64_t{1} << 63;
        if (!digits.Fits || digits.Value > limit) return {};
        beyond = digits.Value == limit;
        return TExprSlot::OfInteger(static_cast<std::int64_t>(digits.Value));
    }
    if (digits.Fits && digits.Significant <= 18 && digits.Decimals <= 18) {
        return TExprSlot::OfFixed(
            {static_cast<std::int64_t>(digits.Value), static_cast<std::int16_t>(digits.Decimals)});
    }
    return ReadFloat(text);
}

TExprSlot ReadNumber(std::string_view text) noexcept {
    const auto blank = [](char c) { return static_cast<unsigned char>(c) <= 0x20; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    bool beyond = false;
    TExprSlot number = ReadLiteral(text, beyond);
    if (beyond) return negative ? number : TExprSlot{};
    if (!negative || number.IsNull()) return number;
    if (number.Kind == ekFloat) {
        number.Float = -number.Float;
    } else if (number.Integer != MinInt64) {
        number.Integer = -number.Integer;
    } else {
        return {};
    }
    return number;
}

TExprSlot ReadBoolean(std::string_view text) noexcept {
    if (text == "1" || CompareAnsi(text, "true", true) == 0) return TExprSlot::OfBoolean(true);
    if (text == "0" || CompareAnsi(text, "false", true) == 0) return TExprSlot::OfBoolean(false);
    return {};
}

TExprSlot ReadDate(std::string_view text) noexcept {
    constexpr std::size_t longest = 19;
    if (text.size() > longest) return {};
    std::array<char16_t, longest> wide{};
    std::ranges::transform(text, wide.begin(),
                           [](char c) { return static_cast<unsigned char>(c); });
    TDateTime date;
    return TextToDateTime({wide.data(), text.size()}, date) ? TExprSlot::OfDate(date.Days)
                                                            : TExprSlot{};
}

TExprSlot CanonicalText(const TExprSlot& slot, TExprArena& arena) {
    switch (slot.Kind) {
        case ekNull:
        case ekText: return slot;
        case ekBoolean: return TExprSlot::OfText(slot.Integer != 0 ? "1" : "0");
        case ekInteger: {
            char* const text = arena.Allocate(24);
            char* const end = std::to_chars(text, text + 24, slot.Integer).ptr;
            arena.GiveBack(static_cast<std::size_t>(text + 24 - end));
            return TExprSlot::OfText({text, static_cast<std::size_t>(end - text)});
        }
        default: return TExprSlot::OfText(arena.KeepWide(VarToText(VariantOfSlot(slot))));
    }
}

// ---- numbers ----

double ToFloat(const TExprSlot& number) noexcept {
    if (number.Kind == ekFloat || number.Kind == ekDate) return number.Float;
    if (number.Kind != ekFixed) return static_cast<double>(number.Integer);
    const auto mantissa = static_cast<double>(number.Integer);
    if (number.Scale >= 0 && number.Scale <= 22) return mantissa / std::pow(10.0, number.Scale);
    return mantissa * std::pow(10.0, -number.Scale);
}

bool ToWhole(const TExprSlot& number, std::int64_t& result) noexcept {
    if (number.Kind == ekFloat) return TruncToInt64(number.Float, result);
    if (number.Kind != ekFixed || number.Scale == 0) {
        result = number.Integer;
        return true;
    }
    if (number.Scale > MaxPowerOf10) {
        result = 0;
        return true;
    }
    if (number.Scale > 0) {
        result = number.Integer / PowersOf10[static_cast<std::size_t>(number.Scale)];
        return true;
    }
    if (number.Integer == 0 || number.Scale < -MaxPowerOf10) {
        result = 0;
        return number.Integer == 0;
    }
    return !__builtin_mul_overflow(number.Integer,
                                   PowersOf10[static_cast<std::size_t>(-number.Scale)], &result);
}

int Truth(const TExprSlot& slot) noexcept {
    switch (slot.Kind) {
        case ekBoolean:
        case ekInteger:
        case ekFixed: return slot.Integer != 0 ? 1 : 0;
        case ekFloat: return slot.Float < 0 || slot.Float > 0 ? 1 : 0;
        case ekText: {
            const TExprSlot boolean = ReadBoolean(slot.View());
            return boolean.IsNull() ? Truth(ReadNumber(slot.View())) : Truth(boolean);
        }
        default: return -1;
    }
}

int CompareNumbers(const TExprSlot& a, const TExprSlot& b) noexcept {
    if (a.Kind == ekFloat) {
        if (b.Kind == ekFloat) return Order(a.Float, b.Float);
        return -CompareFixedFloat({b.Integer, b.Kind == ekFixed ? b.Scale : std::int16_t{0}},
                                  a.Float);
    }
    const TFixed left(a.Integer, a.Kind == ekFixed ? a.Scale : std::int16_t{0});
    if (b.Kind == ekFloat) return CompareFixedFloat(left, b.Float);
    return CompareFixed(left, {b.Integer, b.Kind == ekFixed ? b.Scale : std::int16_t{0}});
}

// ---- date-times ----

std::int64_t DateKey(double days) noexcept {
    const TDayTime parts = SplitDateTime(days);
    return std::int64_t{parts.Day} * 86'400 + parts.Milliseconds / 1000;
}

double LinearDays(double days) noexcept {
    const TDayTime parts = SplitDateTime(days);
    return parts.Day + static_cast<double>(parts.Milliseconds) / MillisecondsPerDay;
}

double DaysApart(double a, double b) noexcept {
    const TDayTime x = SplitDateTime(a);
    const TDayTime y = SplitDateTime(b);
    const std::int64_t apart =
        (std::int64_t{x.Day} - y.Day) * MillisecondsPerDay + x.Milliseconds - y.Milliseconds;
    return static_cast<double>(apart) / MillisecondsPerDay;
}

bool IsCalendarDay(double day) noexcept {
    constexpr double first = 1 - DayNumberOfEpoch;
    constexpr double last = 2'958'465;  // 9999-12-31
    return day >= first && day < last + 1;
}

TExprSlot DateOfLinear(double linear) noexcept {
    if (!IsCalendarDay(linear)) return {};
    double day = std::floor(linear);
    double milliseconds = std::round((linear - day) * MillisecondsPerDay);
    if (milliseconds >= MillisecondsPerDay) {
        day += 1;
        milliseconds = 0;
    }
    if (!IsCalendarDay(day)) return {};
    return TExprSlot::OfDate(
        JoinDateTime({static_cast<std::int32_t>(day), static_cast<std::int32_t>(milliseconds)}));
}

// ---- texts ----

int CompareTexts(std::string_view a, std::string_view b, TExprCollation collation) {
    if (collation.Wide) {
        a = a.substr(0, a.find('\0'));
        b = b.substr(0, b.find('\0'));
        // Below the first byte of U+D800 both orders are the same.
        const auto late = [](char c) { return static_cast<unsigned char>(c) >= 0xED; };
        if (std::ranges::any_of(a, late) || std::ranges::any_of(b, late)) {
            return CompareText(ToUtf16(a), ToUtf16(b), collation.Caseless);
        }
    }
    return CompareAnsi(a, b, collation.Caseless);
}

std::size_t CharLength(std::string_view text, std::size_t at) noexcept {
    return static_cast<unsigned char>(text[at]) < 0x80 ? 1 : LongCharLength(text, at);
}

std::size_t CharCount(std::string_view text) noexcept {
    std::size_t count = 0;
    for (std::size_t at = 0; at < text.size(); at += CharLength(text, at)) ++count;
    return count;
}

std::size_t CharBytes(std::string_view text, std::size_t count) noexcept {
    std::size_t at = 0;
    for (; at < text.size() && count > 0; --count) at += CharLength(text, at);
    return at;
}

// Bytes outside UTF-8 are answered as the lone surrogates that stand for them.
char32_t CharAt(std::string_view text, std::size_t at, std::size_t& length) noexcept {
    const auto byte = [&](std::size_t offset) {
        return static_cast<char32_t>(static_cast<unsigned char>(text[at + offset]));
    };
    length = CharLength(text, at);
    if (length == 1) return byte(0) < 0x80 ? byte(0) : 0xDC00 + byte(0);
    if (length == 2) return (byte(0) & 0x1F) << 6 | (byte(1) & 0x3F);
    if (length == 3) return (byte(0) & 0x0F) << 12 | (byte(1) & 0x3F) << 6 | (byte(2) & 0x3F);
    return (byte(0) & 0x07) << 18 | (byte(1) & 0x3F) << 12 | (byte(2) & 0x3F) << 6 |
           (byte(3) & 0x3F);
}

std::size_t PutChar(char* target, char32_t character) noexcept {
    const auto put = [&](std::size_t at, char32_t bits) { target[at] = static_cast<char>(bits); };
    if (character < 0x80) {
        put(0, character);
        return 1;
    }
    if (character >= 0xDC80 && character <= 0xDCFF) {
        put(0, character & 0xFF);
        return 1;
    }
    const std::size_t length = character < 0x800 ? 2 : character < 0x10000 ? 3 : 4;
    for (std::size_t i = length - 1; i > 0; --i, character >>= 6) {
        put(i, 0x80 | (character & 0x3F));
    }
    put(0, (length == 2 ? 0xC0 : length == 3 ? 0xE0 : 0xF0) | character);
    return length;
}

}  // namespace kds
