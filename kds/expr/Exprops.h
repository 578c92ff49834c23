// What the operators do with two values of any kinds: the one general path, which the evaluator's
// shorter ones must agree with.
//
// Errors     IllegalDateOperation, IllegalBitwiseOperation and IllegalLogicOperation for kinds that
//            an operator does not take, InvalidFunctionArguments for texts that grow too long (all
//            EKdsParseError without a place), EIntOverflow. A null operand makes null, as does
//            what no number can hold: division by 0, floats beyond their range, texts that are no
//            number, dates outside the calendar.
// Threads    Pure functions.
#pragma once

#include <cstdint>

#include "kds/expr/Exprvalues.h"

namespace kds {

enum class TExprOp : std::uint8_t {
    opAdd,
    opSubtract,
    opMultiply,
    opDivide,
    opIntDivide,
    opModulo,
    opPower,
    opBitOr,
    opBitAnd,
    opShiftLeft,
    opShiftRight,
    opJoin,
    opXor,
    opNegate,
    opPlus,
    opBitNot,
    opNot,
    opIsNull,
    opEqual,
    opNotEqual,
    opLess,
    opLessEqual,
    opGreater,
    opGreaterEqual
};
using enum TExprOp;

[[nodiscard]] constexpr bool IsComparison(TExprOp op) noexcept { return op >= opEqual; }
// The comparison that gives the same with its sides exchanged.
[[nodiscard]] TExprOp Mirrored(TExprOp op) noexcept;
// Whether a comparison that came out as `order` (-1, 0, 1) holds.
[[nodiscard]] constexpr bool Holds(TExprOp op, int order) noexcept {
    switch (op) {
        case opEqual: return order == 0;
        case opNotEqual: return order != 0;
        case opLess: return order < 0;
        case opLessEqual: return order <= 0;
        case opGreater: return order > 0;
        default: return order >= 0;
    }
}

// How values are compared besides their kinds.
struct TExprCompare {
    TExprCollation Collation;
    // The side is a decimal literal, which beside a float is read as a float.
    bool LeftDecimal = false;
    bool RightDecimal = false;
};

[[nodiscard]] TExprSlot ApplyUnary(TExprOp op, const TExprSlot& a);
[[nodiscard]] TExprSlot ApplyBinary(TExprOp op, const TExprSlot& a, const TExprSlot& b,
                                    TExprArena& arena);
// False when the two have no order: one is null, or a text that is no number or date.
[[nodiscard]] bool OrderOf(const TExprSlot& a, const TExprSlot& b, TExprCompare how, int& order);
[[nodiscard]] inline TExprSlot ApplyCompare(TExprOp op, const TExprSlot& a, const TExprSlot& b,
                                            TExprCompare how) {
    int order = 0;
    return OrderOf(a, b, how, order) ? TExprSlot::OfBoolean(Holds(op, order)) : TExprSlot{};
}

// The value as a truth for AND, OR, XOR, NOT: a boolean or null.
[[nodiscard]] TExprSlot LogicOf(const TExprSlot& a);
// Three-valued.
[[nodiscard]] TExprSlot LogicAnd(const TExprSlot& a, const TExprSlot& b) noexcept;
[[nodiscard]] TExprSlot LogicOr(const TExprSlot& a, const TExprSlot& b) noexcept;

}  // namespace kds
