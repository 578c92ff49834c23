#include "kds/expr/Varconvert.h"

#include <array>
#include <charconv>
#include <cmath>
#include <concepts>
#include <mutex>
#include <ostream>
#include <utility>

#include "kds/platform/Errors.h"
#include "kds/platform/Floats.h"
#include "kds/platform/Format.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

constexpr auto VarTypeNames = std::to_array<std::u16string_view>(
    {u"Empty",     u"Null",   u"Boolean",    u"Int8",      u"Int16",    u"Int32",  u"Int64",
     u"UInt8",     u"UInt16", u"UInt32",     u"UInt64",    u"Single",   u"Double", u"Currency",
     u"Date-time", u"Text",   u"8-bit text", u"Interface", u"Extended", u"Fixed"});
static_assert(VarTypeNames.size() == static_cast<std::size_t>(varFixed) + 1);

struct TNullTextHolder {
    std::mutex Lock;
    std::u16string Text;
};

// Never destroyed: static objects of the host may still convert variants.
TNullTextHolder& NullTextHolder() {
    static auto& holder = *new TNullTextHolder;
    return holder;
}

// ---- refusals ----

[[noreturn, gnu::cold]] void RaiseKind(TVarType from, std::u16string_view to) {
    throw EVariantError(
        Format(u"A value of type %s cannot be converted to %s", {VarTypeName(from), to}));
}

[[noreturn, gnu::cold]] void RaiseText(std::u16string_view text, std::u16string_view to) {
    throw EConvertError(Format(u"'%s' cannot be converted to %s", {text, to}));
}

[[noreturn, gnu::cold]] void RaiseRange(const TVariant& value, std::u16string_view to) {
    throw EIntOverflow(Format(u"%s is out of the range of %s", {VarToStr(value), to}));
}

// ---- reading texts ----

// Signs are those of a float: "+5" is a number like "-5".
[[nodiscard]] bool TextToInt64(std::u16string_view text, std::int64_t& result) noexcept {
    std::array<char, 24> digits{};
    if (text.starts_with(u'+') && !text.starts_with(u"+-")) text.remove_prefix(1);
    if (text.empty() || text.size() > digits.size()) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] >= 0x80) return false;
        digits[i] = static_cast<char>(text[i]);
    }
    const char* const end = digits.data() + text.size();
    std::int64_t value = 0;
    const auto [stop, error] = std::from_chars(digits.data(), end, value);
    if (error != std::errc{} || stop != end) return false;
    result = value;
    return true;
}

// Two digits at `at`; -1 when they are not.
[[nodiscard]] std::int32_t TwoDigits(std::u16string_view text, std::size_t at) noexcept {
    if (text.size() < at + 2) return -1;
    const unsigned high = static_cast<unsigned>(text[at]) - u'0';
    const unsigned low = static_cast<unsigned>(text[at + 1]) - u'0';
    return high > 9 || low > 9 ? -1 : static_cast<std::int32_t>(high * 10 + low);
}

// A calendar date in the first ten characters.
[[nodiscard]] bool StartsWithDate(std::u16string_view text, std::int32_t& days) noexcept {
    if (text.size() < 10) return false;
    for (const std::size_t at : {std::size_t{4}, std::size_t{7}}) {
        if (text[at] != u'-' && text[at] != u'.') return false;
    }
    const std::int32_t century = TwoDigits(text, 0);
    const std::int32_t year = TwoDigits(text, 2);
    const TCalendarDate date{century * 100 + year, TwoDigits(text, 5), TwoDigits(text, 8)};
    if (century < 0 || year < 0 || !IsValidDate(date)) return false;
    days = DaysOfDate(date);
    return true;
}

// A time of day that is the whole text.
[[nodiscard]] bool IsTime(std::u16string_view text, std::int32_t& milliseconds) noexcept {
    if (text.size() != 8 || text[2] != u':' || text[5] != u':') return false;
    const std::int32_t hour = TwoDigits(text, 0);
    const std::int32_t minute = TwoDigits(text, 3);
    const std::int32_t second = TwoDigits(text, 6);
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 59) {
        return false;
    }
    milliseconds = ((hour * 60 + minute) * 60 + second) * 1000;
    return true;
}

// ---- one visitor a target ----

template <typename T>
concept TAnyInteger = std::integral<T> && !std::same_as<T, bool>;

// What no target takes: nothing, null, interfaces.
template <typename T>
struct TConversion {
    const TVariant& Source;
    std::u16string_view Target;

    T operator()(std::monostate) const { RaiseKind(Source.Type(), Target); }
    T operator()(TNullValue) const { RaiseKind(Source.Type(), Target); }
    T operator()(const TIntf<IInterface>&) const { RaiseKind(Source.Type(), Target); }

protected:
    [[noreturn]] void OutOfRange() const { RaiseRange(Source, Target); }
    [[nodiscard]] double Number(std::u16string_view text) const {
        double number = 0;
        if (!TextToDouble(text, number)) RaiseText(text, Target);
        return number;
    }
};

struct TToInt64 : TConversion<std::int64_t> {
    using TConversion::operator();
    std::int64_t operator()(TAnyInteger auto value) const {
        return static_cast<std::int64_t>(value);
    }
    std::int64_t operator()(bool value) const { return value ? 1 : 0; }
    std::int64_t operator()(double value) const {
        std::int64_t result = 0;
        if (!RoundToInt64(value, result)) OutOfRange();
        return result;
    }
    std::int64_t operator()(TExtended value) const { return (*this)(value.Value); }
    std::int64_t operator()(TDateTime value) const { return (*this)(value.Days); }
    std::int64_t operator()(TCurrency value) const {
        return FixedRoundTo(TFixed(value), 0, rmHalfEven).Value;
    }
    std::int64_t operator()(TDecimalParts value) const { return FixedTrunc(TFixed(value)); }
    std::int64_t operator()(const std::u16string& text) const {
        std::int64_t result = 0;
        return TextToInt64(text, result) ? result : (*this)(Number(text));
    }
    std::int64_t operator()(const TAnsiString& text) const { return (*this)(ToUtf16(text.View())); }
};

struct TToDouble : TConversion<double> {
    using TConversion::operator();
    double operator()(TAnyInteger auto value) const { return static_cast<double>(value); }
    double operator()(bool value) const { return value ? 1 : 0; }
    double operator()(double value) const { return value; }
    double operator()(TExtended value) const { return value.Value; }
    double operator()(TDateTime value) const { return value.Days; }
    double operator()(TCurrency value) const { return static_cast<double>(value.Scaled) / 10'000; }
    double operator()(TDecimalParts value) const { return FixedToDouble(TFixed(value)); }
    double operator()(const std::u16string& text) const { return Number(text); }
    double operator()(const TAnsiString& text) const { return Number(ToUtf16(text.View())); }
};

struct TToBoolean : TConversion<bool> {
    using TConversion::operator();
    bool operator()(TAnyInteger auto value) const { return value != 0; }
    bool operator()(bool value) const { return value; }
    bool operator()(double value) const { return value < 0 || value > 0; }
    bool operator()(TExtended value) const { return (*this)(value.Value); }
    bool operator()(TDateTime value) const { return (*this)(value.Days); }
    bool operator()(TCurrency value) const { return value.Scaled != 0; }
    bool operator()(TDecimalParts value) const { return value.Value != 0; }
    bool operator()(const std::u16string& text) const {
        if (SameText(text, u"true")) return true;
        return !SameText(text, u"false") && (*this)(Number(text));
    }
    bool operator()(const TAnsiString& text) const { return (*this)(ToUtf16(text.View())); }
};

struct TToCurrency : TConversion<TCurrency> {
    using TConversion::operator();
    TCurrency operator()(TAnyInteger auto value) const {
        std::int64_t scaled = 0;
        if (__builtin_mul_overflow(value, 10'000, &scaled)) OutOfRange();
        return {scaled};
    }
    TCurrency operator()(bool value) const { return {value ? 10'000 : 0}; }
    TCurrency operator()(double value) const {
        std::int64_t scaled = 0;
        if (!RoundToInt64(value * 10'000, scaled)) OutOfRange();
        return {scaled};
    }
    TCurrency operator()(TExtended value) const { return (*this)(value.Value); }
    TCurrency operator()(TDateTime value) const { return (*this)(value.Days); }
    TCurrency operator()(TCurrency value) const { return value; }
    TCurrency operator()(TDecimalParts value) const { return FixedToCurrency(TFixed(value)); }
    TCurrency operator()(const std::u16string& text) const {
        const double number = Number(text);
        // The decimals of the text itself, where it has the form of one and not too many of them.
        TFixed exact;
        if (!TryStrToFixed(text, exact, TFormatSettings{}) || exact.Scale > 4 + MaxPowerOf10) {
            return (*this)(number);
        }
        return {FixedRoundTo(exact, 4, rmHalfEven).Value};
    }
    TCurrency operator()(const TAnsiString& text) const { return (*this)(ToUtf16(text.View())); }
};

struct TToFixed : TConversion<TFixed> {
    using TConversion::operator();
    TFixed operator()(TAnyInteger auto value) const {
        if (!std::in_range<std::int64_t>(value)) OutOfRange();
        return TFixed(static_cast<std::int64_t>(value), 0);
    }
    TFixed operator()(bool value) const { return {value ? 1 : 0, 0}; }
    TFixed operator()(double value) const { return ToFixed(value); }
    // By way of its own digits: 0.1 of 32 bits is 0.1 and not 0.100000001490116.
    TFixed operator()(float value) const {
        auto wide = static_cast<double>(value);
        if (std::isfinite(value)) static_cast<void>(TextToDouble(FloatText(value, 9), wide));
        return ToFixed(wide);
    }
    TFixed operator()(TExtended value) const { return ToFixed(value.Value); }
    TFixed operator()(TDateTime value) const { return ToFixed(value.Days); }
    TFixed operator()(TCurrency value) const { return TFixed(value); }
    TFixed operator()(TDecimalParts value) const { return TFixed(value); }
    TFixed operator()(const std::u16string& text) const { return StrToFixed(text); }
    TFixed operator()(const TAnsiString& text) const { return StrToFixed(ToUtf16(text.View())); }
};

struct TToStr {
    const TVariant& Source;
    std::u16string operator()(std::monostate) const { return NullText(); }
    std::u16string operator()(TNullValue) const { return NullText(); }
    std::u16string operator()(bool value) const { return value ? u"True" : u"False"; }
    std::u16string operator()(TAnyInteger auto value) const {
        std::array<char, 24> digits;
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
        return {digits.data(), end};
    }
    std::u16string operator()(float value) const { return FloatText(value, 8); }
    std::u16string operator()(double value) const { return FloatText(value, 16); }
    std::u16string operator()(TExtended value) const { return FloatText(value.Value, 20); }
    std::u16string operator()(TCurrency value) const {
        return FixedToStr(FixedCompact(TFixed(value), 0), TFormatSettings{});
    }
    std::u16string operator()(TDateTime value) const {
        const TDayTime parts = SplitDateTime(value.Days);
        return parts.Day == 0 ? TimeText(parts.Milliseconds) : DateTimeText(parts);
    }
    std::u16string operator()(const std::u16string& text) const { return text; }
    std::u16string operator()(const TAnsiString& text) const { return ToUtf16(text.View()); }
    std::u16string operator()(TDecimalParts value) const { return FixedToStr(TFixed(value)); }
    std::u16string operator()(const TIntf<IInterface>&) const {
        RaiseKind(Source.Type(), u"a text");
    }
};

}  // namespace

std::u16string_view VarTypeName(TVarType type) noexcept {
    return VarTypeNames[static_cast<std::size_t>(type)];
}

std::u16string NullText() {
    TNullTextHolder& holder = NullTextHolder();
    const std::lock_guard lock(holder.Lock);
    return holder.Text;
}

void SetNullText(std::u16string_view text) {
    std::u16string copy(text);
    TNullTextHolder& holder = NullTextHolder();
    const std::lock_guard lock(holder.Lock);
    holder.Text.swap(copy);
}

std::int64_t VarToInt64(const TVariant& value) {
    return value.Visit(TToInt64{{value, u"an integer"}});
}

bool VarToBoolean(const TVariant& value) { return value.Visit(TToBoolean{{value, u"a boolean"}}); }

double VarToDouble(const TVariant& value) { return value.Visit(TToDouble{{value, u"a float"}}); }

TCurrency VarToCurrency(const TVariant& value) {
    return value.Visit(TToCurrency{{value, u"a currency"}});
}

TDateTime VarToDateTime(const TVariant& value) {
    if (value.IsText()) {
        std::u16string scratch;
        TDateTime result;
        if (TextToDateTime(VarToStrView(value, scratch), result)) return result;
    }
    return {value.Visit(TToDouble{{value, u"a date-time"}})};
}

TFixed VarToFixed(const TVariant& value) {
    return value.Visit(TToFixed{{value, u"a fixed decimal"}});
}

TIntf<IInterface> VarToIntf(const TVariant& value) {
    if (!value.Assigned()) return {};
    if (value.Type() != varInterface) RaiseKind(value.Type(), u"an interface");
    return value.Get<TIntf<IInterface>>();
}

std::u16string VarToStr(const TVariant& value) { return value.Visit(TToStr{value}); }

std::string VarToAnsi(const TVariant& value) {
    std::string scratch;
    const std::string_view text = VarToAnsiView(value, scratch);
    if (text.data() == scratch.data()) return scratch;
    return std::string(text);
}

std::u16string_view VarToStrView(const TVariant& value, std::u16string& scratch) {
    if (value.Type() == varString) return value.Get<std::u16string>();
    scratch = VarToStr(value);
    return scratch;
}

std::string_view VarToAnsiView(const TVariant& value, std::string& scratch) {
    if (value.Type() == varAnsiString) return value.Get<TAnsiString>().View();
    scratch.clear();
    std::u16string wide;
    AppendUtf8(scratch, VarToStrView(value, wide));
    return scratch;
}

std::ostream& operator<<(std::ostream& stream, const TVariant& value) {
    if (value.Type() == varInterface) return stream << "(interface)";
    return stream << VarToAnsi(value);
}

bool TextToDateTime(std::u16string_view text, TDateTime& result) noexcept {
    TDayTime parts;
    if (StartsWithDate(text, parts.Day)) {
        const std::u16string_view rest = text.substr(10);
        if (!rest.empty()) {
            if (rest[0] != u'T' && rest[0] != u' ') return false;
            if (!IsTime(rest.substr(1), parts.Milliseconds)) return false;
        }
    } else if (!IsTime(text, parts.Milliseconds)) {
        return false;
    }
    result = {JoinDateTime(parts)};
    return true;
}

std::u16string DateTimeText(TDayTime parts) {
    const TCalendarDate date = DateOfDays(parts.Day);
    const std::u16string text = Format(u"%.4d-%.2d-%.2d", {date.Year, date.Month, date.Day});
    return parts.Milliseconds > 0 ? text + u'T' + TimeText(parts.Milliseconds) : text;
}

std::u16string TimeText(std::int32_t milliseconds) {
    const std::int32_t seconds = milliseconds / 1000;
    return Format(u"%.2d:%.2d:%.2d", {seconds / 3600, seconds / 60 % 60, seconds % 60});
}

}  // namespace kds
