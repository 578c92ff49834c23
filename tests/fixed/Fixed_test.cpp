#include "kds/fixed/Fixed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <typeinfo>
#include <vector>

#include "kds/fixed/Powers.h"
#include "kds/platform/Errors.h"
#include "kds/platform/Text.h"
#include "tests/support/Seed.h"

namespace kds {
namespace {

__extension__ using TInt128 = __int128;

// What an operation came to: a decimal, or the class and message of its refusal. A plain number is
// a decimal without decimals here.
template <typename F>
std::string Outcome(F&& operation) {
    try {
        const TFixed x = operation();
        return std::to_string(x.Value) + " / " + std::to_string(x.Scale);
    } catch (const EZeroDivide& error) {
        return std::string("EZeroDivide: ") + error.what();
    } catch (const EMathError& error) {
        return std::string("EMathError: ") + error.what();
    } catch (const EIntOverflow& error) {
        return std::string("EIntOverflow: ") + error.what();
    } catch (const EConvertError& error) {
        return std::string("EConvertError: ") + error.what();
    }
}

constexpr TFixedRoundingMode Modes[] = {rmNone, rmCeiling,  rmDown,     rmFloor,
                                        rmUp,   rmHalfDown, rmHalfEven, rmHalfUp};

// What the models further down do not call, and the texts of the refusals, which they do not know.
TEST(TFixedTest, ComesTo) {
    using F = TFixed;
    static constexpr F Least(MinInt64, 0);
    const std::string overflow = "EIntOverflow: Integer overflow";
    const std::pair<std::string, std::string> cases[] = {
        {Outcome([] { return FixedRoundTo(F(125, 2), 1, rmHalfEven); }), "12 / 1"},
        {Outcome([] { return FixedRoundTo(F(-125, 2), 1, rmHalfUp); }), "-13 / 1"},
        {Outcome([] { return FixedRoundTo(F(125, 2), 1, rmNone); }),
         "EMathError: Rounding is necessary"},
        {Outcome([] { return FixedRoundTo(F(1, 21), 2, rmUp); }),
         "EIntOverflow: 19 is not a valid fixed scale"},
        {Outcome([] { return FixedMultiply(F(15, 1), F(2, 0), 4, rmHalfUp, false); }), "30 / 1"},
        {Outcome([] { return FixedMultiply(F(15, 1), F(2, 0), 4, rmHalfUp, true); }), "30000 / 4"},
        // A digit of the second is lost.
        {Outcome([] { return FixedMultiply(1, MaxInt64, 0, rmUp, false); }),
         "922337203685477580 / -1"},
        {Outcome([] { return FixedMultiply(F(5, 1), F(0, 9), 70'000, rmNone, false); }),
         "0 / 4464"},
        {Outcome([] { return FixedMultiply(Least, -1, 0, rmNone, true); }), overflow},
        {Outcome([] { return FixedDivide(1, 3, 4, rmUp); }), "3334 / 4"},
        // It looks at the share of the remainder.
        {Outcome([] { return FixedDivide(3, 2, 0, rmHalfEven); }), "1 / 0"},
        {Outcome([] { return FixedDivide(0, 0, 0, rmDown); }), "EZeroDivide: Divide by zero"},
        {Outcome([] { return FixedDivide(Least, F(-1, 4), 2, rmDown); }), overflow + " (range)"},
        {Outcome([] { return F(150, 2) + F(1, 0); }), "25 / 1"},
        {Outcome([] { return 1 + F(150, 2); }), "25 / 1"},
        {Outcome([] { return -Least; }), overflow},
        {Outcome([] { return -1 - Least; }), overflow},
        {Outcome([] { return FixedDiv(F(-79, 1), 2); }), "-3 / 0"},
        {Outcome([] { return FixedDivByInt(5, 100); }), "5 / 2"},
        {Outcome([] { return FixedDivByInt(F(5, 1), 4); }), "125 / 3"},
        {Outcome([] { return FixedDivByInt(-5, 0); }),
         "EConvertError: -inf is not a valid double value"},
        {Outcome([] { return FixedDivByInt(0, 0); }),
         "EConvertError: nan is not a valid double value"},
        {Outcome([] { return FixedCompact(F(0, 5), 2); }), "0 / 2"},
        {Outcome([] { return FixedCompact(F(0, 5), -32768); }), "0 / 0"},
        {Outcome([] { return FixedCompact(F(1200, 0), -32768); }), "12 / -2"},
        {Outcome([] { return FixedCompact(F(1000, 3), 2); }), "100 / 2"},
        {Outcome([] { return FixedMin(F(10, 1), F(1, 0)); }), "1 / 0"},
        {Outcome([] { return FixedMax(F(10, 1), F(1, 0)); }), "1 / 0"},
        {Outcome([] { return FixedToInt64(F(-15, -2)); }), "-1500 / 0"},
        {Outcome([] { return FixedToInt64(F(-1999, 3)); }), "-1 / 0"},
        {Outcome([] { return FixedToInt64(F(1, -32768)); }),
         "EIntOverflow: -32768 is not a valid fixed scale"},
        {Outcome([] { return FixedToCurrency(F(123456789, 6)).Scaled; }), "1234567 / 0"},
        {Outcome([] { return FixedRound(F(25, 1)); }), "2 / 0"},
        {Outcome([] { return FixedRound(F(MaxInt64, -1)); }), overflow},
        {Outcome([] { return static_cast<std::int32_t>(F(30'000'000'000, 0)); }), overflow},
        {Outcome([x = F(25, 1)]() mutable { return ++x; }), "35 / 1"},
    };
    for (const auto& row : cases) EXPECT_EQ(row.first, row.second) << "row " << &row - cases;
}

TEST(TFixedTest, ComparesNumbersAndNotRepresentations) {
    EXPECT_EQ(TFixed(150, 2), TFixed(15, 1));
    EXPECT_FALSE(FixedSameValue({150, 2}, {15, 1}));
    EXPECT_GT(2, TFixed(19, 1));
    EXPECT_EQ(FixedCompareValue({0, 500}, {0, -500}), 0);
    EXPECT_EQ(FixedCompareValue({0, 500}, {-3, 0}), 1);
    EXPECT_THROW(static_cast<void>(TFixed(1, 19) < TFixed(1, 0)), EIntOverflow);
}

// ---- the operations word for word, without any shortcut ----

std::int16_t Wrap(std::int64_t value) { return static_cast<std::int16_t>(value); }

std::int64_t Fit(TInt128 value) {
    if (value < MinInt64 || value > MaxInt64) RaiseIntegerOverflow();
    return static_cast<std::int64_t>(value);
}

TInt128 Abs(TInt128 value) { return value < 0 ? -value : value; }

std::int64_t LiteralScale(std::int64_t value, std::int16_t places) {
    if (places < 0) return Fit(TInt128{value} * PowerOf10(Wrap(-places)));
    return places == 0 ? value : value / PowerOf10(places);
}

std::int64_t LiteralDivideRound(std::int64_t n, std::int64_t d, TFixedRoundingMode mode) {
    const std::int64_t remainder = n % d;
    const std::int64_t quotient = n / d;
    if (remainder == 0) return quotient;
    const std::int64_t step = (n < 0) == (d < 0) ? 1 : -1;
    const TInt128 twice = 2 * Abs(remainder);
    switch (mode) {
        case rmNone: RaiseRoundingNecessary();
        case rmCeiling: return step > 0 ? quotient + step : quotient;
        case rmDown: return quotient;
        case rmFloor: return step < 0 ? quotient + step : quotient;
        case rmUp: return quotient + step;
        default: break;
    }
    if (twice < d) return quotient;
    if (twice > d) return quotient + step;
    if (mode == rmHalfEven) return quotient % 2 != 0 ? quotient + step : quotient;
    return mode == rmHalfUp ? quotient + step : quotient;
}

std::int64_t LiteralRescale(std::int64_t value, std::int16_t places, TFixedRoundingMode mode) {
    if (places <= 0) return LiteralScale(value, places);
    return LiteralDivideRound(value, PowerOf10(places), mode);
}

TFixed LiteralAdd(const TFixed& a, const TFixed& b) {
    if (a.Scale == b.Scale) return {Fit(TInt128{a.Value} + b.Value), a.Scale};
    if (a.Scale > b.Scale) return LiteralAdd(b, a);
    const TFixed c = FixedCompact(b, a.Scale);
    const std::int64_t widened = Fit(TInt128{a.Value} * PowerOf10(Wrap(c.Scale - a.Scale)));
    return {Fit(TInt128{widened} + c.Value), c.Scale};
}

std::int8_t LiteralCompare(const TFixed& a, const TFixed& b) {
    const auto order = [](std::int64_t x, std::int64_t y) { return x < y ? -1 : x > y ? 1 : 0; };
    int c = 0;
    if (a.Scale == b.Scale || a.Value == 0 || b.Value == 0) {
        c = order(a.Value, b.Value);
    } else if (a.Scale < b.Scale) {
        const std::int64_t power = PowerOf10(Wrap(b.Scale - a.Scale));
        c = order(a.Value, b.Value / power);
        if (c == 0) c = order(0, b.Value % power);
    } else {
        const std::int64_t power = PowerOf10(Wrap(a.Scale - b.Scale));
        c = order(a.Value / power, b.Value);
        if (c == 0) c = order(a.Value % power, 0);
    }
    return static_cast<std::int8_t>(c);
}

TFixed LiteralShorten(TFixed b) {
    if (Abs(b.Value) > MaxMantissa(1)) b = {b.Value / 10, Wrap(b.Scale - 1)};
    return b;
}

TFixed LiteralMultiply(const TFixed& a, const TFixed& b, std::int32_t digits,
                       TFixedRoundingMode mode, bool force) {
    if (a.Value == 0 || b.Value == 0) return {0, Wrap(digits)};
    const TFixed right = LiteralShorten(b);
    const TInt128 limit = MaxInt64 / Abs(right.Value);
    TFixed left = a;
    while (!((left.Value != MinInt64 || limit == MaxInt64) &&
             (Abs(left.Value) <= limit || left.Value == MinInt64))) {
        left = {left.Value / 10, Wrap(left.Scale - 1)};
    }
    const std::int16_t removed = Wrap(a.Scale - left.Scale);
    std::int64_t product = Fit(TInt128{left.Value} * right.Value);
    if (removed > 0) {
        const TFixed low(a.Value % PowerOf10(removed), Wrap(std::int64_t{removed} + digits));
        product = Fit(TInt128{product} +
                      LiteralMultiply(low, {right.Value, 0}, digits, mode, true).Value);
    }
    const std::int16_t surplus = Wrap(std::int64_t{left.Scale} + right.Scale - digits);
    if (surplus < 0 && !force) return {product, Wrap(left.Scale + right.Scale)};
    return {LiteralRescale(product, surplus, mode), Wrap(digits)};
}

TFixed LiteralDivide(const TFixed& a, const TFixed& b, std::int32_t digits,
                     TFixedRoundingMode mode) {
    if (b.Value == 0) RaiseDivideByZero();
    if (a.Value == MinInt64 && b.Value == -1) RaiseInvalidRange();
    if (a.Value == 0) return {0, Wrap(digits)};
    const TFixed right = LiteralShorten(b);
    std::int64_t k = std::min<std::int64_t>(std::int64_t{digits} + right.Scale - a.Scale, 18);
    while (k > 0 && Abs(a.Value) > MaxMantissa(Wrap(k))) --k;
    TFixed left = a;
    if (k > 0) left = {a.Value * PowerOf10(Wrap(k)), Wrap(a.Scale + k)};
    const std::int16_t e = Wrap(std::int64_t{digits} + right.Scale - left.Scale);
    const std::int64_t whole = LiteralScale(left.Value / right.Value, Wrap(-e));
    const std::int64_t rest = left.Value % right.Value;
    const std::int64_t tail =
        e >= 0 && Abs(rest) > MaxMantissa(e)
            ? LiteralDivide({rest, Wrap(-e)}, {right.Value, 0}, 0, mode).Value
            : LiteralDivideRound(LiteralScale(rest, Wrap(-e)), right.Value, mode);
    return {Fit(TInt128{whole} + tail), Wrap(digits)};
}

// ---- random operands, most of them near some limit ----

class TOperandSource {
public:
    explicit TOperandSource(std::uint32_t seed) : fRandom(seed) {}
    std::int64_t Mantissa() {
        const std::int64_t power = PowersOf10[fRandom() % PowersOf10.size()];
        const std::int64_t near = static_cast<std::int64_t>(fRandom() % 5) - 2;
        const std::int64_t sign = fRandom() % 2 == 0 ? 1 : -1;
        switch (fRandom() % 8) {
            case 0: return near;
            case 1: return near < 0 ? MaxInt64 + near : MinInt64 + near;
            case 2: return sign * (MaxInt64 / power + near % 2 * (power > 1));
            case 3: return sign * (power + near);
            case 4: return sign * (power / 2 + near);
            case 5: return sign * static_cast<std::int64_t>(fRandom() % 1000) * (power / 1000 + 1);
            default: return static_cast<std::int64_t>(fRandom()) >> (fRandom() % 64);
        }
    }
    std::int16_t Scale() {
        if (fRandom() % 64 == 0) return Wrap(static_cast<std::int64_t>(fRandom()));
        return Wrap(static_cast<std::int64_t>(fRandom() % 24) - 4);
    }
    TFixed Operand() { return {Mantissa(), Scale()}; }
    TFixedRoundingMode Mode() { return static_cast<TFixedRoundingMode>(fRandom() % 9); }
    bool Flag() { return fRandom() % 2 == 0; }

private:
    std::mt19937_64 fRandom;
};

TEST(TFixedModelTest, ShortcutsAnswerWhatTheWordsSay) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    TOperandSource source(seed);
    for (std::int64_t step = support::Steps(50'000); step > 0; --step) {
        const TFixed a = source.Operand();
        const TFixed b = source.Operand();
        const std::int16_t digits = source.Scale();
        const TFixedRoundingMode mode = source.Mode();
        const bool force = source.Flag();
        const auto agree = [&](const char* name, auto ours, auto literal) {
            ASSERT_EQ(Outcome(ours), Outcome(literal))
                << name << " of " << a.Value << "/" << a.Scale << " and " << b.Value << "/"
                << b.Scale << ", digits " << digits << ", mode " << static_cast<int>(mode)
                << ", force " << force;
        };
        agree(
            "add", [&] { return FixedAdd(a, b); }, [&] { return LiteralAdd(a, b); });
        agree(
            "compare", [&] { return FixedCompareValue(a, b); },
            [&] { return LiteralCompare(a, b); });
        agree(
            "round", [&] { return FixedRoundTo(a, digits, mode); },
            [&]() -> TFixed {
                return {LiteralRescale(a.Value, Wrap(a.Scale - digits), mode), digits};
            });
        agree(
            "multiply", [&] { return FixedMultiply(a, b, digits, mode, force); },
            [&] { return LiteralMultiply(a, b, digits, mode, force); });
        agree(
            "divide", [&] { return FixedDivide(a, b, digits, mode); },
            [&] { return LiteralDivide(a, b, digits, mode); });
        if (HasFatalFailure()) return;
    }
}

// ---- what is true of the numbers, by 128-bit arithmetic ----

// n / d with d above 0, nullopt for rmNone with a remainder.
std::optional<TInt128> TrueQuotient(TInt128 n, TInt128 d, TFixedRoundingMode mode) {
    TInt128 floor = n / d;
    if (n % d != 0 && n < 0) --floor;
    const TInt128 rest = n - floor * d;
    if (rest == 0) return floor;
    const bool half = 2 * rest == d;
    const TInt128 nearest = 2 * rest > d ? floor + 1 : floor;
    switch (mode) {
        case rmNone: return std::nullopt;
        case rmCeiling: return floor + 1;
        case rmFloor: return floor;
        case rmDown: return n < 0 ? floor + 1 : floor;
        case rmUp: return n < 0 ? floor : floor + 1;
        case rmHalfDown: return half ? (n < 0 ? floor + 1 : floor) : nearest;
        case rmHalfUp: return half ? (n < 0 ? floor : floor + 1) : nearest;
        case rmHalfEven: return half ? floor + (floor % 2 != 0) : nearest;
    }
    return std::nullopt;
}

std::string TrueOutcome(std::optional<TInt128> value, std::int16_t scale) {
    return Outcome([&]() -> TFixed {
        if (!value) RaiseRoundingNecessary();
        return {Fit(*value), scale};
    });
}

TEST(TFixedModelTest, NumbersAreTrueIn128Bits) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    TOperandSource source(seed);
    std::mt19937 random(seed);
    for (std::int64_t step = support::Steps(50'000); step > 0; --step) {
        const TFixedRoundingMode mode = Modes[random() % std::size(Modes)];
        const auto places = static_cast<std::int16_t>(random() % 19);
        const TInt128 power = PowersOf10[static_cast<std::size_t>(places)];
        const TFixed a(source.Mantissa(), 0);
        const TFixed b(source.Mantissa(), places);
        SCOPED_TRACE(testing::Message() << a.Value << " and " << b.Value << "/" << places
                                        << " in mode " << static_cast<int>(mode));
        const TInt128 sum = a.Value * power + b.Value;
        ASSERT_EQ(FixedCompareValue(a, b), a.Value * power < b.Value   ? -1
                                           : a.Value * power > b.Value ? 1
                                                                       : 0);
        if (sum >= MinInt64 && sum <= MaxInt64 && a.Value * power / MaxInt64 == 0 &&
            a.Value * power != MinInt64) {
            const TFixed ours = FixedAdd(a, b);
            ASSERT_EQ(
                TInt128{ours.Value} * PowersOf10[static_cast<std::size_t>(places - ours.Scale)],
                sum);
        }
        ASSERT_EQ(Outcome([&] { return FixedRoundTo(b, 0, mode); }),
                  TrueOutcome(TrueQuotient(b.Value, power, mode), 0));
        // Products and quotients are rounded once, and from all digits, while the second operand
        // leaves room for one and the product fits.
        if (Abs(b.Value) > MaxMantissa(1) || b.Value == 0) continue;
        const TInt128 product = TInt128{a.Value} * b.Value;
        if (product != 0 && Abs(product) <= MaxInt64) {
            ASSERT_EQ(Outcome([&] { return FixedMultiply(a, b, 0, mode, true); }),
                      TrueOutcome(TrueQuotient(product, power, mode), 0));
        }
        // Which of two refusals comes first is not a matter of numbers.
        const bool tooLarge = b.Value > 0 && Abs(a.Value * power / b.Value) > MaxInt64;
        // An exact half is left where it is when the dividend took all the digits.
        const bool isHalf = b.Value > 0 && Abs(2 * (a.Value * power % b.Value)) == b.Value;
        if (b.Value > 0 && a.Value != 0 && !(tooLarge && mode == rmNone) &&
            !(isHalf && mode == rmHalfEven)) {
            ASSERT_EQ(Outcome([&] {
                          return FixedDivide(a, {b.Value, 0}, places, mode);
                      }),
                      TrueOutcome(TrueQuotient(a.Value * power, b.Value, mode), places));
        }
    }
}

}  // namespace
}  // namespace kds
