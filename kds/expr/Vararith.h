// Arithmetic and comparison of variants of any kinds.
//
// Shape      Two numbers meet in the wider of their kinds: integers (booleans count as 1 and 0) are
//            computed in 64 bits, with a fixed decimal or currency they become fixed decimals, with
//            a float they become floats. Texts are read as floats, but VarAdd joins two texts. A
//            date-time with a number added or taken off stays one. What meets null or empty is
//            null.
// Errors     EIntOverflow and the other errors of the fixed decimals; EZeroDivide; EConvertError
//            for a text that is no number; EVariantError for an interface.
// Threads    Pure functions.
#pragma once

#include <compare>

#include "kds/platform/Variant.h"

namespace kds {

[[nodiscard]] TVariant VarAdd(const TVariant& a, const TVariant& b);
[[nodiscard]] TVariant VarSubtract(const TVariant& a, const TVariant& b);
[[nodiscard]] TVariant VarMultiply(const TVariant& a, const TVariant& b);
// Always a float: quotients of decimals want digits and a mode, which FixedDivide takes.
[[nodiscard]] TVariant VarDivide(const TVariant& a, const TVariant& b);
[[nodiscard]] TVariant VarNegate(const TVariant& value);

// By numeric value; two texts by their characters. Null and empty are equal to each other and less
// than anything else. Unordered when a NaN is compared.
[[nodiscard]] std::partial_ordering VarCompare(const TVariant& a, const TVariant& b);

}  // namespace kds
