#include "kds/expr/Exprops.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "kds/expr/Exprerrors.h"
#include "kds/fixed/Powers.h"

namespace kds {
namespace {

// A number as it takes part in arithmetic: booleans are integers, texts are read. Null when a text
// is none.
[[nodiscard]] TExprSlot NumberOf(const TExprSlot& a) {
    switch (a.Kind) {
        case ekBoolean: return TExprSlot::OfInteger(a.Integer);
        case ekText: return ReadNumber(a.View());
        case ekDate: ParserError(u"IllegalDateOperation", {});
        case ekOther: ParserError(u"InvalidExpression", {u"(interface)"});
        default: return a;
    }
}

[[nodiscard]] TExprSlot FiniteFloat(double value) noexcept {
    return std::isfinite(value) ? TExprSlot::OfFloat(value) : TExprSlot{};
}

[[nodiscard]] TFixed DecimalOf(const TExprSlot& a) noexcept {
    return {a.Integer, a.Kind == ekFixed ? a.Scale : std::int16_t{0}};
}

[[nodiscard]] TExprSlot IntegerSum(TExprOp op, std::int64_t a, std::int64_t b) {
    std::int64_t result = 0;
    const bool overflow = op == opAdd        ? __builtin_add_overflow(a, b, &result)
                          : op == opSubtract ? __builtin_sub_overflow(a, b, &result)
                                             : __builtin_mul_overflow(a, b, &result);
    if (overflow) RaiseIntegerOverflow();
    return TExprSlot::OfInteger(result);
}

[[nodiscard]] TExprSlot DecimalSum(TExprOp op, TFixed a, TFixed b) {
    if (op == opAdd) return TExprSlot::OfFixed(FixedAdd(a, b));
    if (op == opSubtract) return TExprSlot::OfFixed(FixedSubtract(a, b));
    return TExprSlot::OfFixed(FixedMultiply(a, b));
}

// Sums and products: integers, decimals or floats, whichever is the widest of the two.
[[nodiscard]] TExprSlot Sum(TExprOp op, const TExprSlot& a, const TExprSlot& b) {
    if (a.Kind == ekFloat || b.Kind == ekFloat) {
        const double x = ToFloat(a);
        const double y = ToFloat(b);
        return FiniteFloat(op == opAdd ? x + y : op == opSubtract ? x - y : x * y);
    }
    if (a.Kind == ekFixed || b.Kind == ekFixed) return DecimalSum(op, DecimalOf(a), DecimalOf(b));
    return IntegerSum(op, a.Integer, b.Integer);
}

[[nodiscard]] TExprSlot WholeQuotient(TExprOp op, const TExprSlot& a, const TExprSlot& b) {
    std::int64_t x = 0;
    std::int64_t y = 0;
    if (!ToWhole(a, x) || !ToWhole(b, y) || y == 0) return {};
    if (y == -1) {  // the one quotient that 64 bits may not hold
        return op == opModulo ? TExprSlot::OfInteger(0) : IntegerSum(opSubtract, 0, x);
    }
    return TExprSlot::OfInteger(op == opModulo ? x % y : x / y);
}

[[nodiscard]] TExprSlot Power(const TExprSlot& a, const TExprSlot& b) {
    if (!a.IsWhole() || !b.IsWhole() || b.Integer < 0) {
        return FiniteFloat(std::pow(ToFloat(a), ToFloat(b)));
    }
    std::int64_t base = a.Integer;
    std::int64_t result = 1;
    // -1, 0 and 1 come back to themselves; any other base overflows within 63 steps.
    if (base >= -1 && base <= 1) {
        const bool odd = b.Integer % 2 != 0;
        return TExprSlot::OfInteger(b.Integer == 0 ? 1 : odd ? base : base * base);
    }
    for (std::int64_t exponent = b.Integer; exponent > 0; --exponent) {
        if (__builtin_mul_overflow(result, base, &result)) RaiseIntegerOverflow();
    }
    return TExprSlot::OfInteger(result);
}

// A date takes part: date + number, number + date, date - number, date - date.
[[nodiscard]] TExprSlot DateSum(TExprOp op, const TExprSlot& a, const TExprSlot& b) {
    const bool dates = a.Kind == ekDate && b.Kind == ekDate;
    if (dates && op == opSubtract) {
        return TExprSlot::OfFloat(DaysApart(a.Float, b.Float));
    }
    const TExprSlot& date = a.Kind == ekDate ? a : b;
    const TExprSlot& days = a.Kind == ekDate ? b : a;
    if (dates || !days.IsNumber() || op > opSubtract || (op == opSubtract && b.Kind == ekDate)) {
        ParserError(u"IllegalDateOperation", {});
    }
    const double moved = ToFloat(days);
    return DateOfLinear(LinearDays(date.Float) + (op == opAdd ? moved : -moved));
}

[[nodiscard]] TExprSlot Join(const TExprSlot& a, const TExprSlot& b, TExprArena& arena,
                             std::u16string_view name) {
    const std::string_view left = CanonicalText(a, arena).View();
    const std::string_view right = CanonicalText(b, arena).View();
    const std::size_t size = left.size() + right.size();
    if (size > MaxExprTextLength && CharCount(left) + CharCount(right) > MaxExprTextLength) {
        ParserError(u"InvalidFunctionArguments", {name});
    }
    char* const joined = arena.Allocate(size);
    std::copy(left.begin(), left.end(), joined);
    std::copy(right.begin(), right.end(), joined + left.size());
    return TExprSlot::OfText({joined, size});
}

[[nodiscard]] TExprSlot Bitwise(TExprOp op, const TExprSlot& a, const TExprSlot& b) {
    if (a.Kind != ekInteger || b.Kind != ekInteger) ParserError(u"IllegalBitwiseOperation", {});
    const auto x = static_cast<std::uint64_t>(a.Integer);
    const std::int64_t y = b.Integer;
    if (op == opBitOr) return TExprSlot::OfInteger(a.Integer | y);
    if (op == opBitAnd) return TExprSlot::OfInteger(a.Integer & y);
    if (y < 0 || y > 63) return TExprSlot::OfInteger(0);
    if (op == opShiftLeft) return TExprSlot::OfInteger(static_cast<std::int64_t>(x << y));
    return TExprSlot::OfInteger(a.Integer >> y);
}

// A number beside a text: the text as a number, as a float when it is a decimal beside a float.
[[nodiscard]] bool OrderNumberText(const TExprSlot& number, std::string_view text, int& order) {
    if (number.Kind == ekBoolean) {
        const TExprSlot boolean = ReadBoolean(text);
        if (boolean.IsNull()) return false;
        order = CompareNumbers(number, boolean);
        return true;
    }
    TExprSlot read = ReadNumber(text);
    if (read.IsNull()) return false;
    if (number.Kind == ekFloat && read.Kind == ekFixed) read = TExprSlot::OfFloat(ToFloat(read));
    order = CompareNumbers(number, read);
    return true;
}

[[nodiscard]] bool OrderDate(const TExprSlot& a, const TExprSlot& b, int& order) {
    const TExprSlot& other = a.Kind == ekDate ? b : a;
    if (other.Kind != ekDate && other.Kind != ekText) ParserError(u"IllegalDateOperation", {});
    const TExprSlot x = a.Kind == ekDate ? a : ReadDate(a.View());
    const TExprSlot y = b.Kind == ekDate ? b : ReadDate(b.View());
    if (x.IsNull() || y.IsNull()) return false;
    const std::int64_t left = DateKey(x.Float);
    const std::int64_t right = DateKey(y.Float);
    order = (left > right) - (left < right);
    return true;
}

}  // namespace

TExprOp Mirrored(TExprOp op) noexcept {
    switch (op) {
        case opLess: return opGreater;
        case opLessEqual: return opGreaterEqual;
        case opGreater: return opLess;
        case opGreaterEqual: return opLessEqual;
        default: return op;
    }
}

TExprSlot LogicOf(const TExprSlot& a) {
    if (a.IsNull()) return {};
    if (!a.IsNumber()) ParserError(u"IllegalLogicOperation", {});
    return TExprSlot::OfBoolean(Truth(a) > 0);
}

TExprSlot LogicAnd(const TExprSlot& a, const TExprSlot& b) noexcept {
    if ((!a.IsNull() && a.Integer == 0) || (!b.IsNull() && b.Integer == 0)) {
        return TExprSlot::OfBoolean(false);
    }
    return a.IsNull() ? a : b;
}

TExprSlot LogicOr(const TExprSlot& a, const TExprSlot& b) noexcept {
    if ((!a.IsNull() && a.Integer != 0) || (!b.IsNull() && b.Integer != 0)) {
        return TExprSlot::OfBoolean(true);
    }
    return a.IsNull() ? a : b;
}

TExprSlot ApplyUnary(TExprOp op, const TExprSlot& a) {
    if (op == opIsNull) return TExprSlot::OfBoolean(a.IsNull());
    if (a.IsNull()) return {};
    if (op == opNot) {
        const TExprSlot truth = LogicOf(a);
        return truth.IsNull() ? truth : TExprSlot::OfBoolean(truth.Integer == 0);
    }
    if (op == opBitNot) {
        if (a.Kind != ekInteger) ParserError(u"IllegalBitwiseOperation", {});
        return TExprSlot::OfInteger(~a.Integer);
    }
    const TExprSlot number = NumberOf(a);
    if (op == opPlus || number.IsNull()) return number;
    if (number.Kind == ekFloat) return TExprSlot::OfFloat(-number.Float);
    if (number.Kind == ekFixed) return TExprSlot::OfFixed(FixedNegative(number.Fixed()));
    return IntegerSum(opSubtract, 0, number.Integer);
}

TExprSlot ApplyBinary(TExprOp op, const TExprSlot& a, const TExprSlot& b, TExprArena& arena) {
    if (op == opXor) {
        const TExprSlot x = LogicOf(a);
        const TExprSlot y = LogicOf(b);
        if (x.IsNull() || y.IsNull()) return {};
        return TExprSlot::OfBoolean(x.Integer != y.Integer);
    }
    if (a.IsNull() || b.IsNull()) return {};
    if (op == opJoin) return Join(a, b, arena, u"||");
    if (op >= opBitOr) return Bitwise(op, a, b);
    if (op == opAdd && a.Kind == ekText && b.Kind == ekText) return Join(a, b, arena, u"+");
    if (a.Kind == ekDate || b.Kind == ekDate) return DateSum(op, a, b);
    const TExprSlot x = NumberOf(a);
    const TExprSlot y = NumberOf(b);
    if (x.IsNull() || y.IsNull()) return {};
    switch (op) {
        case opDivide: return FiniteFloat(ToFloat(x) / ToFloat(y));
        case opIntDivide:
        case opModulo: return WholeQuotient(op, x, y);
        case opPower: return Power(x, y);
        default: return Sum(op, x, y);
    }
}

bool OrderOf(const TExprSlot& a, const TExprSlot& b, TExprCompare how, int& order) {
    if (a.IsNull() || b.IsNull()) return false;
    if (a.Kind == ekOther || b.Kind == ekOther) {
        ParserError(u"InvalidExpression", {u"(interface)"});
    }
    if (a.Kind == ekDate || b.Kind == ekDate) return OrderDate(a, b, order);
    if (a.Kind == ekText && b.Kind == ekText) {
        order = CompareTexts(a.View(), b.View(), how.Collation);
        return true;
    }
    if (b.Kind == ekText) return OrderNumberText(a, b.View(), order);
    if (a.Kind == ekText) {
        const bool ordered = OrderNumberText(b, a.View(), order);
        order = -order;
        return ordered;
    }
    if (how.LeftDecimal && b.Kind == ekFloat) {
        order = CompareNumbers(TExprSlot::OfFloat(ToFloat(a)), b);
    } else if (how.RightDecimal && a.Kind == ekFloat) {
        order = CompareNumbers(a, TExprSlot::OfFloat(ToFloat(b)));
    } else {
        order = CompareNumbers(a, b);
    }
    return true;
}

}  // namespace kds
