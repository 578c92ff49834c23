#include "kds/fixed/Fixederrors.h"

#include <cmath>

#include "kds/platform/Errors.h"
#include "kds/platform/Format.h"

namespace kds {

void RaiseInvalidScale(std::int32_t scale) { throw EIntOverflow(Format(SInvalidScale, {scale})); }

void RaiseInvalidRange() { throw EIntOverflow(SInvalidRange); }

void RaiseIntegerOverflow() { throw EIntOverflow(SIntegerOverflow); }

void RaiseDivideByZero() { throw EZeroDivide(SDivideByZero); }

void RaiseRoundingNecessary() { throw EMathError(SNeedRndMode); }

void RaiseInvalidFixed(std::u16string_view text) {
    throw EConvertError(Format(SInvalidFixed, {text}));
}

void RaiseInvalidDouble(double value) {
    // Spelled here, because the sign of a NaN is an accident of the platform.
    if (std::isnan(value)) throw EConvertError(Format(SInvalidDbl, {u"nan"}));
    if (std::isinf(value)) throw EConvertError(Format(SInvalidDbl, {value < 0 ? u"-inf" : u"inf"}));
    throw EConvertError(Format(SInvalidDbl, {value}));
}

}  // namespace kds
