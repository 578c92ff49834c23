// What an expression becomes: a flat list of typed instructions over numbered slots.
//
// Shape      Slots hold, in this order: the columns, the temporary values, the constants. A jump
//            goes to the instruction numbered Extra. Reading a slot of a column is safe only behind
//            a cdLoad of it on every way there.
// Threads    Read only; frames (kds/expr/Exprevaluator.h) hold what changes.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "kds/expr/Exprlike.h"
#include "kds/expr/Exprraw.h"
#include "kds/expr/Exprsets.h"
#include "kds/expr/Exprtree.h"

namespace kds {

enum class TExprCode : std::uint8_t {
    cdLoad,            // column A, unless this row has it already
    cdMove,            // Dst = A
    cdUnary,           // Dst = Op A
    cdBinary,          // Dst = A Op B
    cdCompare,         // Dst = A Op B
    cdRaw,             // Dst = raw comparison Extra
    cdMatch,           // Dst = A equals B, null equals null
    cdFirst,           // Dst = A as a truth; jump when it decides the chain
    cdNext,            // Dst = Dst AND/OR B; jump when it decides the chain
    cdInStep,          // Dst = Dst OR A equals B; jump when true
    cdSet,             // Dst = A is in set Extra
    cdLike,            // Dst = A like pattern Extra
    cdLikeText,        // Dst = A like B, with the escape in slot Extra or without
    cdCall,            // Dst = call Extra
    cdJump,            //
    cdJumpUnless,      // unless A is true
    cdJumpUnlessNull,  // unless A is null
    cdJumpUnlessIndex  // unless A, a number, has the whole part B
};
using enum TExprCode;

// Flags of an instruction: how values are compared, or which chain it belongs to.
enum TExprFlag : std::uint8_t {
    xfCaseless = 1,
    xfWide = 2,
    xfLeftDecimal = 4,
    xfRightDecimal = 8,
    xfOr = 16
};

inline constexpr std::uint32_t NoSlot = 0xFFFF'FFFF;

struct TExprInstruction {
    TExprCode Code = cdMove;
    TExprOp Op = opAdd;
    std::uint8_t Flags = 0;
    std::uint32_t Dst = 0;
    std::uint32_t A = 0;
    std::uint32_t B = 0;
    std::uint32_t Extra = 0;

    [[nodiscard]] TExprCompare How() const noexcept {
        return {{(Flags & xfCaseless) != 0, (Flags & xfWide) != 0},
                (Flags & xfLeftDecimal) != 0,
                (Flags & xfRightDecimal) != 0};
    }
};

struct TExprProgram {
    struct TCall {
        std::shared_ptr<const TExprFunction> Function;
        std::uint32_t First = 0;  // in Arguments
        std::uint32_t Count = 0;
    };
    std::vector<TExprInstruction> Code;
    std::vector<TExprTree::TColumn> Columns;
    std::vector<TExprSlot> Constants;
    std::vector<std::uint32_t> Arguments;
    std::vector<TCall> Calls;
    std::vector<TExprPattern> Patterns;
    std::vector<TExprRawCompare> RawCompares;
    std::vector<TExprSet> Sets;
    std::deque<std::string> Texts;  // of constants
    std::uint32_t TempCount = 0;
    std::uint32_t Result = 0;
    bool UsesBuffer = false;

    [[nodiscard]] std::uint32_t FirstConstant() const noexcept {
        return static_cast<std::uint32_t>(Columns.size()) + TempCount;
    }
};

}  // namespace kds
