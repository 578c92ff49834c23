#include "kds/expr/Vararith.h"

#include <algorithm>
#include <utility>

#include "kds/expr/Varconvert.h"
#include "kds/fixed/Fixederrors.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

// The kinds in which two numbers can meet, the wider one later.
enum class TNumberKind : std::uint8_t { nkInteger, nkDecimal, nkFloat };
using enum TNumberKind;

[[nodiscard]] TNumberKind KindOf(const TVariant& value) noexcept {
    switch (value.Type()) {
        case varCurrency:
        case varFixed: return nkDecimal;
        case varSingle:
        case varDouble:
        case varExtended:
        case varDateTime:
        case varString:
        case varAnsiString: return nkFloat;
        default: return nkInteger;  // an interface too: its conversion raises
    }
}

[[nodiscard]] TNumberKind CommonKind(const TVariant& a, const TVariant& b) noexcept {
    return std::max(KindOf(a), KindOf(b));
}

// Integers are computed as decimals without decimals, which checks each step.
[[nodiscard]] TVariant FromDecimal(const TFixed& x, TNumberKind kind) {
    return kind == nkInteger ? TVariant(x.Value) : FixedToVar(x);
}

// A sum or difference of floats; days stay days.
[[nodiscard]] TVariant FromFloat(double value, bool isDateTime) {
    return isDateTime ? TVariant(TDateTime{value}) : TVariant(value);
}

[[nodiscard]] bool IsDateTime(const TVariant& value) noexcept {
    return value.Type() == varDateTime;
}

[[nodiscard]] bool IsBeyondInt64(const TVariant& value) {
    return value.Type() == varUInt64 && !std::in_range<std::int64_t>(value.Get<std::uint64_t>());
}

}  // namespace

TVariant VarAdd(const TVariant& a, const TVariant& b) {
    if (!a.Assigned() || !b.Assigned()) return Null;
    if (a.IsText() && b.IsText()) return VarToStr(a) + VarToStr(b);
    const TNumberKind kind = CommonKind(a, b);
    if (kind != nkFloat) return FromDecimal(FixedAdd(VarToFixed(a), VarToFixed(b)), kind);
    return FromFloat(VarToDouble(a) + VarToDouble(b), IsDateTime(a) != IsDateTime(b));
}

TVariant VarSubtract(const TVariant& a, const TVariant& b) {
    if (!a.Assigned() || !b.Assigned()) return Null;
    const TNumberKind kind = CommonKind(a, b);
    if (kind != nkFloat) return FromDecimal(FixedSubtract(VarToFixed(a), VarToFixed(b)), kind);
    return FromFloat(VarToDouble(a) - VarToDouble(b), IsDateTime(a) && !IsDateTime(b));
}

TVariant VarMultiply(const TVariant& a, const TVariant& b) {
    if (!a.Assigned() || !b.Assigned()) return Null;
    const TNumberKind kind = CommonKind(a, b);
    if (kind != nkFloat) return FromDecimal(FixedMultiply(VarToFixed(a), VarToFixed(b)), kind);
    return VarToDouble(a) * VarToDouble(b);
}

TVariant VarDivide(const TVariant& a, const TVariant& b) {
    if (!a.Assigned() || !b.Assigned()) return Null;
    const double dividend = VarToDouble(a);
    const double divisor = VarToDouble(b);
    if (divisor == 0) RaiseDivideByZero();
    return dividend / divisor;
}

TVariant VarNegate(const TVariant& value) {
    if (!value.Assigned()) return Null;
    const TNumberKind kind = KindOf(value);
    if (kind != nkFloat) return FromDecimal(FixedNegative(VarToFixed(value)), kind);
    return FromFloat(-VarToDouble(value), IsDateTime(value));
}

std::partial_ordering VarCompare(const TVariant& a, const TVariant& b) {
    if (!a.Assigned() || !b.Assigned()) return a.Assigned() <=> b.Assigned();
    if (a.IsText() && b.IsText()) {
        std::u16string scratchA;
        std::u16string scratchB;
        return CompareText(VarToStrView(a, scratchA), VarToStrView(b, scratchB), false) <=> 0;
    }
    const TNumberKind kind = CommonKind(a, b);
    if (kind == nkInteger) {
        // The bits of two numbers beyond the signed range are in their order, too.
        if (IsBeyondInt64(a) != IsBeyondInt64(b)) return IsBeyondInt64(a) <=> IsBeyondInt64(b);
        return VarToInt64(a) <=> VarToInt64(b);
    }
    if (kind == nkFloat || IsBeyondInt64(a) || IsBeyondInt64(b)) {
        return VarToDouble(a) <=> VarToDouble(b);
    }
    return FixedCompareValue(VarToFixed(a), VarToFixed(b)) <=> 0;
}

}  // namespace kds
