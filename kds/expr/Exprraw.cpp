#include "kds/expr/Exprraw.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "kds/fixed/Powers.h"
#include "kds/platform/Ansistring.h"
#include "kds/platform/Bytes.h"
#include "kds/platform/Datetime.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

[[nodiscard]] std::string_view RawText(const TExprRawPlace& place, const std::byte* data) noexcept {
    const auto* const text = reinterpret_cast<const char*>(data);
    switch (place.Kind) {
        case rwChar: return {text, strnlen(text, static_cast<std::size_t>(place.Size))};
        case rwAnsi: return {text + 2, LoadRaw<std::uint16_t>(data)};
        default: return TAnsiString::View(LoadRaw<const void*>(data));
    }
}

// Copied, because slots are not aligned.
void RawWide(const std::byte* data, std::u16string& text) {
    text.resize(LoadRaw<std::uint16_t>(data));
    std::memcpy(text.data(), data + 2, text.size() * sizeof(char16_t));
}

[[nodiscard]] double RawDate(const TExprRawPlace& place, const std::byte* data) noexcept {
    switch (place.Kind) {
        case rwDate: return static_cast<double>(LoadRaw<std::int32_t>(data)) - DayNumberOfEpoch;
        case rwTime: return JoinDateTime({0, LoadRaw<std::int32_t>(data) % MillisecondsPerDay});
        default: return LoadRaw<double>(data);
    }
}

[[nodiscard]] bool IsDateKind(TExprRawKind kind) noexcept {
    return kind == rwDateTime || kind == rwDate || kind == rwTime;
}

[[nodiscard]] double RawFloat(const TExprRawPlace& place, const std::byte* data) noexcept {
    return place.Kind == rwSingle ? static_cast<double>(LoadRaw<float>(data))
                                  : LoadRaw<double>(data);
}

[[nodiscard]] TFixed RawFixed(const std::byte* data) noexcept {
    return {LoadRaw<std::int64_t>(data), LoadRaw<std::int16_t>(data + 8)};
}

[[nodiscard]] std::int64_t RawInteger(TExprRawKind kind, const std::byte* data) noexcept {
    switch (kind) {
        case rwBoolean: return LoadRaw<std::uint8_t>(data) != 0 ? 1 : 0;
        case rwInt8: return LoadRaw<std::int8_t>(data);
        case rwInt16: return LoadRaw<std::int16_t>(data);
        case rwInt32: return LoadRaw<std::int32_t>(data);
        case rwUInt8: return LoadRaw<std::uint8_t>(data);
        case rwUInt16: return LoadRaw<std::uint16_t>(data);
        case rwUInt32: return LoadRaw<std::uint32_t>(data);
        default: return LoadRaw<std::int64_t>(data);
    }
}

// One buffer a thread for 16-bit texts on their way to a comparison.
[[nodiscard]] std::u16string& WideScratch() {
    thread_local std::u16string scratch;
    return scratch;
}

[[nodiscard]] bool HasSurrogates(std::u16string_view text) noexcept {
    return std::ranges::any_of(text, [](char16_t unit) { return unit >= 0xD800 && unit < 0xE000; });
}

}  // namespace

TExprSlot ReadRaw(const TExprRawPlace& place, const std::byte* buffer, TExprArena& arena) {
    if (!HasRawValue(place, buffer)) return {};
    const std::byte* const data = buffer + place.Offset;
    switch (place.Kind) {
        case rwNone: return {};
        case rwBoolean: return TExprSlot::OfBoolean(LoadRaw<std::uint8_t>(data) != 0);
        case rwSingle:
        case rwDouble: return TExprSlot::OfFloat(RawFloat(place, data));
        case rwCurrency: return TExprSlot::OfFixed({LoadRaw<std::int64_t>(data), 4});
        case rwFixed: return TExprSlot::OfFixed(RawFixed(data));
        case rwDateTime:
        case rwDate:
        case rwTime: return TExprSlot::OfDate(RawDate(place, data));
        case rwChar:
        case rwAnsi:
        case rwMemo: return TExprSlot::OfText(RawText(place, data));
        case rwWide:
            RawWide(data, WideScratch());
            return TExprSlot::OfText(arena.KeepWide(WideScratch()));
        default: return TExprSlot::OfInteger(RawInteger(place.Kind, data));
    }
}

// ---- preparation ----

void TExprRawCompare::Outside(bool above) noexcept {
    const bool holds = above ? fOp == opLess || fOp == opLessEqual || fOp == opNotEqual
                             : fOp == opGreater || fOp == opGreaterEqual || fOp == opNotEqual;
    fForm = holds ? TForm::Always : TForm::Never;
}

// value x 10^decimals as the largest integer that is not above it; between two integers the
// operator is bent so that the lower one says the same.
bool TExprRawCompare::PrepareInteger(const TExprSlot& value, std::int32_t decimals) {
    std::int64_t floor = 0;
    bool exact = true;
    fForm = TForm::Integer;
    if (value.Kind == ekFloat) {
        if (decimals != 0) return false;
        const double below = std::floor(value.Float);
        constexpr double limit = 9223372036854775808.0;
        if (!(below >= -limit && below < limit)) {
            Outside(value.Float > 0);
            return true;
        }
        floor = static_cast<std::int64_t>(below);
        exact = !(below < value.Float);
    } else {
        const std::int32_t scale = value.Kind == ekFixed ? value.Scale : 0;
        const std::int32_t shift = decimals - scale;
        if (shift > MaxPowerOf10 || shift < -MaxPowerOf10) return false;
        const std::int64_t power = PowersOf10[static_cast<std::size_t>(std::abs(shift))];
        if (shift >= 0) {
            if (__builtin_mul_overflow(value.Integer, power, &floor)) {
                Outside(value.Integer > 0);
                return true;
            }
        } else {
            floor = value.Integer / power;
            exact = floor * power == value.Integer;
            if (!exact && value.Integer < 0) --floor;
        }
    }
    fConstant = TExprSlot::OfInteger(floor);
    if (exact) return true;
    switch (fOp) {
        case opEqual: fForm = TForm::Never; break;
        case opNotEqual: fForm = TForm::Always; break;
        case opLess: fOp = opLessEqual; break;
        case opGreaterEqual: fOp = opGreater; break;
        default: break;
    }
    return true;
}

std::optional<TExprRawCompare> TExprRawCompare::Prepare(const TExprColumn& column, TExprOp op,
                                                        const TExprSlot& value, TExprCompare how) {
    TExprRawCompare prepared;
    prepared.fPlace = column.Place;
    prepared.fOp = op;
    prepared.fCollation = how.Collation;
    prepared.fConstant = value;
    const TExprRawKind kind = column.Place.Kind;
    const bool isText = kind >= rwChar;
    if (kind == rwNone || isText != (value.Kind == ekText)) return std::nullopt;
    if (isText) {
        prepared.fForm = kind == rwWide ? TForm::Wide : TForm::Ansi;
        prepared.fWide = kind == rwWide ? ToUtf16(value.View()) : std::u16string();
        prepared.fWide.resize(std::min(prepared.fWide.find(u'\0'), prepared.fWide.size()));
        if (kind != rwWide && how.Collation.Wide) return std::nullopt;
        if (HasSurrogates(prepared.fWide)) return std::nullopt;
        return prepared;
    }
    if (IsDateKind(kind) != (value.Kind == ekDate)) return std::nullopt;
    if (value.Kind == ekDate) {
        prepared.fForm = TForm::Integer;
        prepared.fConstant = TExprSlot::OfInteger(DateKey(value.Float));
        return prepared;
    }
    if (!value.IsNumber()) return std::nullopt;
    if (kind == rwFixed) {
        prepared.fForm = TForm::Fixed;
        return prepared;
    }
    if (kind == rwSingle || kind == rwDouble) {
        prepared.fForm = TForm::Float;
        prepared.fConstant = TExprSlot::OfFloat(ToFloat(value));
        if (CompareNumbers(prepared.fConstant, value) != 0) return std::nullopt;
        return prepared;
    }
    if (!prepared.PrepareInteger(value, kind == rwCurrency ? 4 : 0)) return std::nullopt;
    return prepared;
}

// ---- comparison ----

std::int64_t TExprRawCompare::LoadInteger(const std::byte* data) const noexcept {
    switch (fPlace.Kind) {
        case rwDateTime: return DateKey(LoadRaw<double>(data));
        case rwDate: return (std::int64_t{LoadRaw<std::int32_t>(data)} - DayNumberOfEpoch) * 86'400;
        case rwTime: return LoadRaw<std::int32_t>(data) % MillisecondsPerDay / 1000;
        default: return RawInteger(fPlace.Kind, data);
    }
}

int TExprRawCompare::Test(const std::byte* buffer, TExprArena& arena) const {
    if (!HasRawValue(fPlace, buffer)) return -1;
    const std::byte* const data = buffer + fPlace.Offset;
    int order = 0;
    switch (fForm) {
        case TForm::Never: return 0;
        case TForm::Always: return 1;
        case TForm::Integer: {
            // A date-time that is no number is null.
            if (fPlace.Kind == rwDateTime && std::isnan(LoadRaw<double>(data))) return -1;
            const std::int64_t value = LoadInteger(data);
            order = (value > fConstant.Integer) - (value < fConstant.Integer);
            break;
        }
        case TForm::Float: {
            const double value = RawFloat(fPlace, data);
            if (value != value) return -1;
            order = (value > fConstant.Float) - (value < fConstant.Float);
            break;
        }
        case TForm::Fixed:
            order = CompareNumbers(TExprSlot::OfFixed(RawFixed(data)), fConstant);
            break;
        case TForm::Ansi: {
            const std::string_view text = RawText(fPlace, data);
            const std::string_view constant = fConstant.View();
            if (fOp <= opNotEqual) {
                // Folding keeps sizes, so texts of different sizes are different; most others
                // differ in their first byte.
                const bool differs =
                    text.size() != constant.size() ||
                    (!text.empty() && !fCollation.Caseless && text.front() != constant.front());
                if (differs) return fOp == opNotEqual;
            }
            order = CompareAnsi(text, constant, fCollation.Caseless);
            break;
        }
        case TForm::Wide: {
            std::u16string& wide = WideScratch();
            RawWide(data, wide);
            if (HasSurrogates(wide)) {
                order = CompareTexts(arena.KeepWide(wide), fConstant.View(), fCollation);
            } else {
                const std::u16string_view text(wide);
                order = CompareText(text.substr(0, text.find(u'\0')), fWide, fCollation.Caseless);
            }
            break;
        }
    }
    return Holds(fOp, order) ? 1 : 0;
}

}  // namespace kds
