// The canonical text of a variant, which no locale or setting of the user changes, and its reading.
//
// Shape      VarToText writes it, TextToVar reads it: a text becomes a null, an integer, a float or
//            a date-time only when that prints as the very same text again (date-times excepted,
//            which are read in more forms than they print), so no text is ever altered by a
//            conversion there and back.
//            A float that was read is of the extended kind, varExtended.
// Errors     VarToText raises EVariantError for an interface, which has no text. TextToVar and the
//            comparisons raise nothing; any text is at least itself.
// Threads    As kds/expr/Varconvert.h: the null text is shared, the rest is pure.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "kds/platform/Variant.h"

namespace kds {

[[nodiscard]] std::u16string VarToText(const TVariant& value);
[[nodiscard]] TVariant TextToVar(std::u16string_view text);

// Same kind and same value: an integer never equals a float. Fixed decimals are compared as
// numbers. Empty equals empty and null equals null, and neither equals anything else.
[[nodiscard]] bool VarEqual(const TVariant& a, const TVariant& b) noexcept;
// Whether it equals one of them, asked in order up to the first that does.
[[nodiscard]] bool VarEqual(const TVariant& value, std::span<const TVariant> others) noexcept;
// Neither empty nor null.
[[nodiscard]] bool VarAssigned(const TVariant& value) noexcept;

[[nodiscard]] TVariant ExtendedToVar(double value);
// The float of the extended kind; any other number is converted as by VarToDouble.
[[nodiscard]] double VarToExtended(const TVariant& value);

}  // namespace kds
