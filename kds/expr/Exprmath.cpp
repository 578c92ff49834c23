// The mathematical functions.
#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>

#include "kds/expr/Exprerrors.h"
#include "kds/expr/Exprfunctions.h"
#include "kds/expr/Exprops.h"
#include "kds/fixed/Fixederrors.h"
#include "kds/fixed/Powers.h"
#include "kds/platform/Floats.h"
#include "kds/platform/Random.h"

namespace kds {

void AddMathFunctions(TExprFunctions& functions);

namespace {

void Abs(TExprCall& call) {
    const TExprSlot& x = call.Arg(0);
    const bool negative = x.Kind == ekFloat ? std::signbit(x.Float) : x.Integer < 0;
    call.Answer(ApplyUnary(negative ? opNegate : opPlus, x));
}

void Sign(TExprCall& call) {
    call.AnswerInteger(CompareNumbers(call.Arg(0), TExprSlot::OfInteger(0)));
}

// Toward zero, down or up to a whole number. Decimals and integers stay exact.
template <double (*Float)(double), TFixedRoundingMode Mode>
void ToInteger(TExprCall& call) {
    const TExprSlot& x = call.Arg(0);
    if (x.Kind == ekFloat) return call.AnswerWhole(Float(x.Float));
    if (x.IsWhole() || x.Scale <= 0 || x.Scale > MaxPowerOf10)
        return call.AnswerInteger(call.Whole(0));
    call.AnswerInteger(FixedRoundTo(x.Fixed(), 0, Mode).Value);
}

void Frac(TExprCall& call) {
    const TExprSlot& x = call.Arg(0);
    if (x.Kind == ekFloat) return call.AnswerFloat(x.Float - std::trunc(x.Float));
    if (x.Kind != ekFixed) return call.AnswerInteger(0);
    if (x.Scale <= 0) return call.Answer(TExprSlot::OfFixed({0, 0}));
    if (x.Scale > MaxPowerOf10) return call.Answer(x);
    const std::int64_t power = PowersOf10[static_cast<std::size_t>(x.Scale)];
    call.Answer(TExprSlot::OfFixed({x.Integer % power, x.Scale}));
}

// Whether digits that are cut off push the last kept one up. `rest` compares them with a half.
[[nodiscard]] bool RoundsUp(TFixedRoundingMode mode, bool negative, bool odd, int rest) noexcept {
    switch (mode) {
        case rmCeiling: return !negative;
        case rmFloor: return negative;
        case rmUp: return true;
        case rmHalfDown: return rest > 0;
        case rmHalfEven: return rest > 0 || (rest == 0 && odd);
        case rmHalfUp: return rest >= 0;
        default: return false;
    }
}

// On the digits that the float prints with, so that 2.675 becomes 2.68. False when rmNone meets
// digits to cut off.
[[nodiscard]] bool RoundFloat(double& value, std::int64_t digits, TFixedRoundingMode mode) {
    const TDecimalDigits shown = DigitsOfDouble(value, 17);
    const std::int64_t keep = shown.Exponent + digits;
    if (keep >= shown.Count) return true;
    if (mode == rmNone) return false;
    const char* const all = shown.Digits;
    std::string kept(all, all + std::max<std::int64_t>(keep, 0));
    int rest = -1;
    if (keep >= 0) {
        rest = all[keep] > '5' || (all[keep] == '5' && keep + 1 < shown.Count) ? 1
               : all[keep] == '5'                                              ? 0
                                                                               : -1;
    }
    const bool odd = !kept.empty() && (kept.back() - '0') % 2 != 0;
    bool carry = RoundsUp(mode, shown.Negative, odd, rest);
    for (std::size_t i = kept.size(); carry && i-- > 0;) {
        carry = kept[i] == '9';
        kept[i] = carry ? '0' : static_cast<char>(kept[i] + 1);
    }
    if (carry) kept.insert(0, 1, '1');
    if (kept.empty()) kept = "0";
    const std::string text = kept + "e" + std::to_string(-digits);
    double rounded = 0;
    if (!TextToDouble(std::u16string(text.begin(), text.end()), rounded)) return false;
    value = shown.Negative ? -rounded : rounded;
    return true;
}

void RoundTo(TExprCall& call, TFixedRoundingMode mode) {
    const TExprSlot& x = call.Arg(0);
    const std::int64_t digits = std::clamp<std::int64_t>(call.Whole(1, 0), -400, 400);
    if (x.Kind == ekFloat) {
        double value = x.Float;
        if (!std::isfinite(value)) return call.Answer(x);
        if (RoundFloat(value, digits, mode)) call.AnswerFloat(value);
        return;
    }
    const std::int32_t scale = x.Kind == ekFixed ? x.Scale : 0;
    if (digits >= scale) return call.Answer(ApplyUnary(opPlus, x));
    // Beyond 18 places nothing of 64 bits is left.
    TFixed rounded(0, 0);
    if (scale - digits <= MaxPowerOf10) {
        try {
            rounded = FixedRoundTo({x.Integer, static_cast<std::int16_t>(scale)},
                                   static_cast<std::int16_t>(digits), mode);
        } catch (const EIntError&) {
            throw;
        } catch (const EMathError&) {
            return;  // rmNone
        }
    } else if (mode == rmNone) {
        return;
    }
    if (x.Kind == ekFixed) {
        return call.Answer(
            TExprSlot::OfFixed(rounded.Scale < 0 ? FixedRoundTo(rounded, 0, rmDown) : rounded));
    }
    std::int64_t whole = 0;
    if (!ToWhole(TExprSlot::OfFixed(rounded), whole)) RaiseIntegerOverflow();
    call.AnswerInteger(whole);
}

[[nodiscard]] TFixedRoundingMode ModeOf(const TExprCall& call, std::size_t i) {
    const std::int64_t mode = call.Whole(i, static_cast<std::int64_t>(rmHalfUp));
    if (mode < 0 || mode > 7) call.Refuse();
    return static_cast<TFixedRoundingMode>(mode);
}
void Round(TExprCall& call) { RoundTo(call, ModeOf(call, 2)); }
void Trunc(TExprCall& call) { RoundTo(call, rmDown); }

template <double (*Function)(double)>
void OfFloat(TExprCall& call) {
    call.AnswerFloat(Function(call.Float(0)));
}

void Square(TExprCall& call) {
    call.Answer(ApplyBinary(opMultiply, call.Arg(0), call.Arg(0), call.Arena()));
}
template <TExprOp Op>
void Operator(TExprCall& call) {
    call.Answer(ApplyBinary(Op, call.Arg(0), call.Arg(1), call.Arena()));
}

void Log(TExprCall& call) {
    if (call.Count() == 1) return call.AnswerFloat(std::log10(call.Float(0)));
    call.AnswerFloat(std::log(call.Float(1)) / std::log(call.Float(0)));
}

template <int Wanted>
void Extreme(TExprCall& call) {
    std::size_t best = 0;
    for (std::size_t i = 1; i < call.Count(); ++i) {
        int order = 0;
        if (!OrderOf(call.Arg(i), call.Arg(best), {}, order)) return;
        if (order == Wanted) best = i;
    }
    call.Answer(call.Arg(best));
}

void BitXor(TExprCall& call) {
    if (call.Arg(0).Kind != ekInteger || call.Arg(1).Kind != ekInteger) {
        ParserError(u"IllegalBitwiseOperation", {});
    }
    call.AnswerInteger(call.Arg(0).Integer ^ call.Arg(1).Integer);
}

// A float as the shortest decimal that prints like it.
[[nodiscard]] bool AsDecimal(const TExprSlot& x, TFixed& result) {
    if (x.Kind != ekFloat) {
        result = {x.Integer, x.Kind == ekFixed ? x.Scale : std::int16_t{0}};
        return true;
    }
    if (!std::isfinite(x.Float)) return false;
    result = ToFixed(x.Float);
    return true;
}

void Divide(TExprCall& call) {
    const TFixedRoundingMode mode = ModeOf(call, 3);
    const std::int64_t digits = call.Whole(2);
    if (digits < 0 || digits > MaxPowerOf10) call.Refuse();
    TFixed dividend;
    TFixed divisor;
    if (!AsDecimal(call.Arg(0), dividend) || !AsDecimal(call.Arg(1), divisor)) return;
    if (divisor.Value == 0) return;
    try {
        call.Answer(TExprSlot::OfFixed(
            FixedDivide(dividend, divisor, static_cast<std::int32_t>(digits), mode)));
    } catch (const EMathError&) {
        // Rounding was ruled out.
    }
}

// A decimal of any mantissa and scale: what a literal cannot write.
void Decimal(TExprCall& call) {
    const std::int64_t scale = call.Whole(1);
    if (scale < INT16_MIN || scale > INT16_MAX) call.Refuse();
    call.Answer(TExprSlot::OfFixed({call.Whole(0), static_cast<std::int16_t>(scale)}));
}

void Random(TExprCall& call) {
    call.AnswerFloat(static_cast<double>(NextRandom() >> 11) * 0x1p-53);
}
void Pi(TExprCall& call) { call.AnswerFloat(std::numbers::pi); }

struct TEntry {
    const char16_t* Name;
    std::int32_t Least, Most;
    const char* Accepts;
    TExprKind Result;
    TExprRoutine Routine;
    std::uint8_t Flags = 0;
};

}  // namespace

void AddMathFunctions(TExprFunctions& functions) {
    const TEntry entries[] = {
        {u"ABS", 1, 1, "n", ekAny, TExprRoutine::Bind<Abs>()},
        {u"SIGN", 1, 1, "n", ekInteger, TExprRoutine::Bind<Sign>()},
        {u"INT", 1, 1, "n", ekAny, TExprRoutine::Bind<ToInteger<std::trunc, rmDown>>()},
        {u"FLOOR", 1, 1, "n", ekAny, TExprRoutine::Bind<ToInteger<std::floor, rmFloor>>()},
        {u"CEIL", 1, 1, "n", ekAny, TExprRoutine::Bind<ToInteger<std::ceil, rmCeiling>>()},
        {u"CEILING", 1, 1, "n", ekAny, TExprRoutine::Bind<ToInteger<std::ceil, rmCeiling>>()},
        {u"FRAC", 1, 1, "n", ekAny, TExprRoutine::Bind<Frac>()},
        {u"TRUNC", 1, 2, "n", ekAny, TExprRoutine::Bind<Trunc>()},
        {u"ROUND", 1, 3, "n", ekAny, TExprRoutine::Bind<Round>()},
        {u"SQRT", 1, 1, "n", ekFloat, TExprRoutine::Bind<OfFloat<std::sqrt>>()},
        {u"SQR", 1, 1, "n", ekAny, TExprRoutine::Bind<Square>()},
        {u"POWER", 2, 2, "n", ekAny, TExprRoutine::Bind<Operator<opPower>>()},
        {u"MOD", 2, 2, "n", ekInteger, TExprRoutine::Bind<Operator<opModulo>>()},
        {u"EXP", 1, 1, "n", ekFloat, TExprRoutine::Bind<OfFloat<std::exp>>()},
        {u"LN", 1, 1, "n", ekFloat, TExprRoutine::Bind<OfFloat<std::log>>()},
        {u"LOG10", 1, 1, "n", ekFloat, TExprRoutine::Bind<OfFloat<std::log10>>()},
        {u"LOG", 1, 2, "n", ekFloat, TExprRoutine::Bind<Log>()},
        {u"SIN", 1, 1, "n", ekFloat, TExprRoutine::Bind<OfFloat<std::sin>>()},
        {u"COS", 1, 1, "n", ekFloat, TExprRoutine::Bind<OfFloat<std::cos>>()},
        {u"TAN", 1, 1, "n", ekFloat, TExprRoutine::Bind<OfFloat<std::tan>>()},
        {u"ATAN", 1, 1, "n", ekFloat, TExprRoutine::Bind<OfFloat<std::atan>>()},
        {u"PI", 0, 0, "n", ekFloat, TExprRoutine::Bind<Pi>()},
        {u"MIN", 1, AnyCount, "v", ekAny, TExprRoutine::Bind<Extreme<-1>>()},
        {u"MAX", 1, AnyCount, "v", ekAny, TExprRoutine::Bind<Extreme<1>>()},
        {u"BITXOR", 2, 2, "n", ekInteger, TExprRoutine::Bind<BitXor>()},
        {u"DIVIDE", 3, 4, "n", ekFixed, TExprRoutine::Bind<Divide>()},
        {u"DECIMAL", 2, 2, "n", ekFixed, TExprRoutine::Bind<Decimal>()},
        {u"RANDOM", 0, 0, "n", ekFloat, TExprRoutine::Bind<Random>(), ffImpure},
    };
    for (const TEntry& entry : entries) {
        functions.Put({entry.Name, entry.Least, entry.Most, entry.Accepts, entry.Result,
                       entry.Flags, entry.Routine, fmCall});
    }
}

}  // namespace kds
