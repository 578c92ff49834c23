// Runs programs: frames of slots, one for each evaluation that is under way.
//
// Shape      An evaluator keeps a stack of frames. SetPosition works on the frame above those that
//            are busy, so that a value that is calculated by the same expression for another record
//            finds a frame of its own.
// Ownership  A frame borrows its program.
// Threads    One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kds/expr/Exprprogram.h"

namespace kds {

// What one evaluation changes.
struct TExprFrame {
    std::vector<TExprSlot> Slots;
    std::vector<std::uint32_t> Loaded;  // per column: the row in which it was fetched last
    std::uint32_t Row = 1;
    TExprPosition Position;
    const std::byte* Buffer = nullptr;
    TExprArena Fetched;    // texts of columns, good for the row
    TExprArena Temporary;  // texts made on the way, good for one evaluation
    TExprPattern Pattern;  // of a LIKE whose pattern is no constant
    TDateTime Clock;
    bool HasClock = false;

    void Prepare(const TExprProgram& program);
    void Begin(TExprPosition position);
    [[nodiscard]] TDateTime Now();
};

// `typed` is nullptr when the provider is not typed or values are asked for as variants.
[[nodiscard]] TExprSlot RunExpression(const TExprProgram& program, TExprFrame& frame,
                                      IExpressionProvider* provider,
                                      ITypedExpressionProvider* typed, bool specialise);

[[nodiscard]] TIntf<IExpressionEvaluator> MakeExpressionEvaluator(
    std::u16string_view text, TExprTree& tree, TExprNodeId root,
    const TIntf<IExpressionProvider>& provider, bool specialise);

}  // namespace kds
