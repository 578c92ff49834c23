// From the tree to the program.
//
// Shape      Temporary values are numbered like a stack, so that a program needs as many as its
//            deepest place. Chains that lean to the left (sums, AND, OR) are walked in a loop.
//            Of the terms of an OR, those that compare one column with constants become one set.
// Cost       Linear in the tree.
#pragma once

#include "kds/expr/Exprprogram.h"

namespace kds {

[[nodiscard]] TExprProgram CompileExpression(TExprTree& tree, TExprNodeId root, bool specialise);
// The value of a node whose operands are all known. The text of the answer may lie in `arena`.
[[nodiscard]] TExprSlot ComputeConstant(TExprTree& tree, TExprNodeId id, TExprArena& arena);

}  // namespace kds
