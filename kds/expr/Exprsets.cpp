#include "kds/expr/Exprsets.h"

#include <algorithm>
#include <bit>

#include "kds/platform/Text.h"

namespace kds {
namespace {

[[nodiscard]] std::uint64_t Mix(std::uint64_t bits) noexcept {
    bits *= 0x9E37'79B9'7F4A'7C15U;
    return bits ^ (bits >> 32);
}

}  // namespace

bool TExprSet::Takes(TExprKind kind, const TExprSlot& value) noexcept {
    if (value.IsNull()) return true;
    switch (kind) {
        case ekBoolean:
        case ekInteger:
        case ekFloat: return value.IsNumber();
        case ekFixed: return value.IsNumber() && value.Kind != ekFloat;
        case ekDate:
        case ekText: return value.Kind == kind;
        default: return false;
    }
}

TExprSlot TExprSet::Normal(const TExprSlot& value) const noexcept {
    switch (fKind) {
        case ekBoolean:
        case ekInteger: {
            std::int64_t whole = 0;
            if (!ToWhole(value, whole)) return {};
            const TExprSlot integer = TExprSlot::OfInteger(whole);
            return value.IsWhole() || CompareNumbers(integer, value) == 0 ? integer : TExprSlot{};
        }
        case ekFloat: {
            const TExprSlot number = TExprSlot::OfFloat(ToFloat(value) + 0.0);  // no -0
            return CompareNumbers(number, value) == 0 ? number : TExprSlot{};
        }
        case ekFixed:
            return TExprSlot::OfFixed(FixedCompact(
                {value.Integer, value.Kind == ekFixed ? value.Scale : std::int16_t{0}}, INT16_MIN));
        case ekDate: return TExprSlot::OfInteger(DateKey(value.Float));
        default: return value;
    }
}

std::uint64_t TExprSet::Hash(const TExprSlot& normal) const noexcept {
    if (normal.Kind == ekFloat) return Mix(std::bit_cast<std::uint64_t>(normal.Float));
    if (normal.Kind != ekText) {
        return Mix(static_cast<std::uint64_t>(normal.Integer) +
                   static_cast<std::uint16_t>(normal.Scale));
    }
    std::string_view text = normal.View();
    if (fCollation.Wide) text = text.substr(0, text.find('\0'));
    std::uint64_t hash = 0;
    for (std::size_t at = 0; at < text.size();) {
        auto unit = static_cast<char32_t>(static_cast<unsigned char>(text[at]));
        std::size_t length = 1;
        if (fCollation.Caseless) {
            if (unit >= 0x80) unit = CharAt(text, at, length);
            unit = FoldCase(unit);
        }
        at += length;
        hash = (hash ^ unit) * 0x0000'0100'0000'01B3U;
    }
    return Mix(hash);
}

bool TExprSet::Same(const TExprSlot& a, const TExprSlot& b) const {
    if (a.Kind == ekText) return CompareTexts(a.View(), b.View(), fCollation) == 0;
    if (a.Kind == ekFloat) return std::equal_to<>()(a.Float, b.Float);
    return a.Integer == b.Integer && a.Scale == b.Scale;
}

void TExprSet::Add(const TExprSlot& value) {
    if (value.IsNull()) {
        fHasNull = true;
    } else {
        fValues.push_back(value);
    }
}

bool TExprSet::BuildBits() {
    if (fKind > ekInteger) return false;
    std::vector<std::int64_t> values;
    for (const TExprSlot& value : fValues) {
        const TExprSlot normal = Normal(value);
        if (!normal.IsNull()) values.push_back(normal.Integer);
    }
    if (values.empty()) return false;
    const auto [least, most] = std::ranges::minmax(values);
    fRange = static_cast<std::uint64_t>(most) - static_cast<std::uint64_t>(least);
    if (fRange >= 4096 && fRange / 64 >= values.size()) return false;
    fFirst = least;
    fBits.assign(fRange / 64 + 1, 0);
    for (const std::int64_t value : values) {
        const std::uint64_t bit =
            static_cast<std::uint64_t>(value) - static_cast<std::uint64_t>(fFirst);
        fBits[bit / 64] |= std::uint64_t{1} << (bit % 64);
    }
    return true;
}

void TExprSet::Build() {
    if (BuildBits()) return;
    fTable.assign(std::bit_ceil(fValues.size() * 2 + 1), {});
    fMask = fTable.size() - 1;
    for (const TExprSlot& value : fValues) {
        const TExprSlot normal = Normal(value);
        if (normal.IsNull()) continue;
        std::uint64_t at = Hash(normal) & fMask;
        while (!fTable[at].IsNull() && !Same(fTable[at], normal)) at = (at + 1) & fMask;
        fTable[at] = normal;
    }
}

bool TExprSet::Probe(const TExprSlot& normal) const {
    for (std::uint64_t at = Hash(normal) & fMask; !fTable[at].IsNull(); at = (at + 1) & fMask) {
        if (Same(fTable[at], normal)) return true;
    }
    return false;
}

bool TExprSet::Search(const TExprSlot& value) const {
    return std::ranges::any_of(fValues, [&](const TExprSlot& member) {
        const TExprSlot same = ApplyCompare(opEqual, value, member, {fCollation, false, false});
        return !same.IsNull() && same.Integer != 0;
    });
}

TExprSlot TExprSet::Contains(const TExprSlot& value) const {
    if (value.IsNull()) return {};
    if (!fBits.empty() && value.IsWhole()) {
        const std::uint64_t bit =
            static_cast<std::uint64_t>(value.Integer) - static_cast<std::uint64_t>(fFirst);
        const bool in = bit <= fRange && (fBits[bit / 64] >> (bit % 64) & 1) != 0;
        return in || !fHasNull ? TExprSlot::OfBoolean(in) : TExprSlot{};
    }
    if (!fBits.empty()) {
        if (Search(value)) return TExprSlot::OfBoolean(true);
        return fHasNull ? TExprSlot{} : TExprSlot::OfBoolean(false);
    }
    const bool expected = value.Kind == fKind || (value.IsWhole() && fKind <= ekInteger);
    if (expected ? Probe(Normal(value)) : Search(value)) return TExprSlot::OfBoolean(true);
    return fHasNull ? TExprSlot{} : TExprSlot::OfBoolean(false);
}

}  // namespace kds
