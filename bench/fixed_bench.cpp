// TFixed beside Intel's 64-bit decimal (BID64, Debian's libintelrdfpmath-dev), same data, same run.
//
// Data       1024 pairs from a fixed seed. Plain: mantissas of 1 to 9 digits, 0 to 4 decimals, one
//            in eight negative; quotients below 10^7, so that 16 digits hold them. Wide: a left
//            operand of 13 to 16 digits with 6 decimals and a right one of 3 to 6 digits with 2,
//            whose products and widened dividends mostly exceed 64 bits. Texts: a column of
//            amounts, 3 to 9 digits with 2 decimals; mixed, 1 to 15 digits with 0 to 6. Intel reads
//            the same texts and prints its own scientific form.
// Checks     Each pair of operations is compared over all its data before anything is measured.
//            Intel rounds a quotient to 16 digits first, so quotients may differ by one unit.
// Measures   Nanoseconds an operation, independent operations in a row; one iteration is a pass
//            over all the pairs.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "kds/fixed/Fixed.h"

// The peer's routines as its library exports them: arguments by value, rounding mode (0 is to
// nearest, half even) and status flags passed along.
std::uint64_t IntelAdd(std::uint64_t, std::uint64_t, unsigned, unsigned*) __asm__("__bid64_add");
std::uint64_t IntelMul(std::uint64_t, std::uint64_t, unsigned, unsigned*) __asm__("__bid64_mul");
std::uint64_t IntelDiv(std::uint64_t, std::uint64_t, unsigned, unsigned*) __asm__("__bid64_div");
std::uint64_t IntelQuantize(std::uint64_t, std::uint64_t, unsigned,
                            unsigned*) __asm__("__bid64_quantize");
std::uint64_t IntelFromString(char*, unsigned, unsigned*) __asm__("__bid64_from_string");
void IntelToString(char*, std::uint64_t, unsigned*) __asm__("__bid64_to_string");
int IntelLess(std::uint64_t, std::uint64_t, unsigned*) __asm__("__bid64_quiet_less");
int IntelEqual(std::uint64_t, std::uint64_t, unsigned*) __asm__("__bid64_quiet_equal");

namespace kds {
namespace {

constexpr std::size_t Count = 1024;
constexpr unsigned NearestEven = 0;

struct TOperands {
    std::vector<TFixed> Left, Right;
    std::vector<std::uint64_t> IntelLeft, IntelRight;
};

unsigned intelFlags = 0;

// Sign, exponent biased by 398, coefficient below 10^16; from 2^53 on the exponent moves down by
// two bits behind a pair of ones and the coefficient loses its top three bits, which are known.
std::uint64_t ToIntel(const TFixed& x) {
    const std::uint64_t sign = x.Value < 0 ? std::uint64_t{1} << 63 : 0;
    const auto exponent = static_cast<std::uint64_t>(398 - x.Scale);
    const std::uint64_t coefficient = Magnitude(x.Value);
    if (coefficient >> 53 == 0) return sign | exponent << 53 | coefficient;
    const std::uint64_t low = coefficient & ((std::uint64_t{1} << 51) - 1);
    return sign | std::uint64_t{3} << 61 | exponent << 51 | low;
}

bool SameNumber(const TFixed& ours, std::uint64_t theirs) {
    return IntelEqual(ToIntel(ours), theirs, &intelFlags) != 0;
}

class TGenerator {
public:
    TFixed Number(int minDigits, int maxDigits, int minScale, int maxScale) {
        const auto digits = static_cast<std::size_t>(Between(minDigits, maxDigits));
        const std::int64_t low = PowersOf10[digits - 1];
        std::int64_t value =
            std::uniform_int_distribution<std::int64_t>(low, 10 * low - 1)(fRandom);
        if (Between(1, 8) == 1) value = -value;
        return {value, static_cast<std::int16_t>(Between(minScale, maxScale))};
    }

private:
    int Between(int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(fRandom);
    }
    std::mt19937_64 fRandom{20'240'229};
};

bool HasShortQuotient(const TFixed& a, const TFixed& b) {
    const double quotient = FixedToDouble(a) / FixedToDouble(b);
    return quotient < 1e7 && quotient > -1e7;
}

TOperands MakeOperands(bool wide) {
    TGenerator generator;
    TOperands operands;
    while (operands.Left.size() < Count) {
        const TFixed a = wide ? generator.Number(13, 15, 6, 6) : generator.Number(1, 9, 0, 4);
        const TFixed b = wide ? generator.Number(3, 6, 2, 2) : generator.Number(1, 9, 0, 4);
        if (!HasShortQuotient(a, b)) continue;
        operands.Left.push_back(a);
        operands.Right.push_back(b);
        operands.IntelLeft.push_back(ToIntel(a));
        operands.IntelRight.push_back(ToIntel(b));
    }
    return operands;
}

const TOperands& Plain() {
    static const TOperands operands = MakeOperands(false);
    return operands;
}
const TOperands& Wide() {
    static const TOperands operands = MakeOperands(true);
    return operands;
}

// ---- the operations, ours and theirs ----

const std::uint64_t IntelCent = ToIntel({1, 2});
const std::uint64_t IntelEighth = ToIntel({1, 8});

struct TAdd {
    static TFixed Ours(const TFixed& a, const TFixed& b) { return FixedAdd(a, b); }
    static std::uint64_t Theirs(std::uint64_t a, std::uint64_t b) {
        return IntelAdd(a, b, NearestEven, &intelFlags);
    }
    static bool Agree(const TFixed& ours, std::uint64_t theirs) { return SameNumber(ours, theirs); }
};
struct TCompare {
    static bool Ours(const TFixed& a, const TFixed& b) { return FixedCompareValue(a, b) < 0; }
    static bool Theirs(std::uint64_t a, std::uint64_t b) {
        return IntelLess(a, b, &intelFlags) != 0;
    }
    static bool Agree(bool ours, bool theirs) { return ours == theirs; }
};
struct TMultiplyExact {
    static TFixed Ours(const TFixed& a, const TFixed& b) { return FixedMultiply(a, b); }
    static std::uint64_t Theirs(std::uint64_t a, std::uint64_t b) {
        return IntelMul(a, b, NearestEven, &intelFlags);
    }
    // Products beyond 16 digits are rounded on the other side only.
    static bool Agree(const TFixed& ours, std::uint64_t theirs) {
        return Magnitude(ours.Value) >= 10'000'000'000'000'000 || SameNumber(ours, theirs);
    }
};
struct TMultiplyAndRound {
    static TFixed Ours(const TFixed& a, const TFixed& b) {
        return FixedMultiply(a, b, 2, rmHalfEven, true);
    }
    static std::uint64_t Theirs(std::uint64_t a, std::uint64_t b) {
        const std::uint64_t product = IntelMul(a, b, NearestEven, &intelFlags);
        return IntelQuantize(product, IntelCent, NearestEven, &intelFlags);
    }
    static bool Agree(const TFixed& ours, std::uint64_t theirs) {
        return Magnitude(ours.Value) >= 10'000'000'000'000'000 || SameNumber(ours, theirs) ||
               SameNumber({ours.Value + 1, 2}, theirs) || SameNumber({ours.Value - 1, 2}, theirs);
    }
};
struct TDivideTo8 {
    static TFixed Ours(const TFixed& a, const TFixed& b) {
        return FixedDivide(a, b, 8, rmHalfEven);
    }
    static std::uint64_t Theirs(std::uint64_t a, std::uint64_t b) {
        const std::uint64_t quotient = IntelDiv(a, b, NearestEven, &intelFlags);
        return IntelQuantize(quotient, IntelEighth, NearestEven, &intelFlags);
    }
    static bool Agree(const TFixed& ours, std::uint64_t theirs) {
        return SameNumber(ours, theirs) || SameNumber({ours.Value + 1, 8}, theirs) ||
               SameNumber({ours.Value - 1, 8}, theirs);
    }
};

template <typename TOperation>
bool AllAgree(const TOperands& data) {
    for (std::size_t i = 0; i < Count; ++i) {
        if (!TOperation::Agree(TOperation::Ours(data.Left[i], data.Right[i]),
                               TOperation::Theirs(data.IntelLeft[i], data.IntelRight[i]))) {
            return false;
        }
    }
    return true;
}

void Finish(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(Count));
    state.counters["ns/op"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * static_cast<double>(Count) / 1e9,
        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

template <typename TOperation, const TOperands& (*Data)()>
void Ours(benchmark::State& state) {
    const TOperands& data = Data();
    if (!AllAgree<TOperation>(data)) return state.SkipWithError("results differ");
    for (auto _ : state) {
        for (std::size_t i = 0; i < Count; ++i) {
            benchmark::DoNotOptimize(TOperation::Ours(data.Left[i], data.Right[i]));
        }
    }
    Finish(state);
}

template <typename TOperation, const TOperands& (*Data)()>
void Theirs(benchmark::State& state) {
    const TOperands& data = Data();
    for (auto _ : state) {
        for (std::size_t i = 0; i < Count; ++i) {
            benchmark::DoNotOptimize(TOperation::Theirs(data.IntelLeft[i], data.IntelRight[i]));
        }
    }
    Finish(state);
}

// ---- texts ----

struct TTexts {
    std::vector<TFixed> Values;
    std::vector<std::uint64_t> IntelValues;
    std::vector<std::string> Texts;
};

TTexts MakeTexts(int minDigits, int maxDigits, int minScale, int maxScale) {
    TGenerator generator;
    TTexts made;
    for (std::size_t i = 0; i < Count; ++i) {
        made.Values.push_back(generator.Number(minDigits, maxDigits, minScale, maxScale));
        made.IntelValues.push_back(ToIntel(made.Values.back()));
        char buffer[64];
        made.Texts.emplace_back(buffer, FixedToBuffer(made.Values.back(), buffer, {}));
    }
    return made;
}

const TTexts& Amounts() {
    static const TTexts texts = MakeTexts(3, 9, 2, 2);
    return texts;
}
const TTexts& Mixed() {
    static const TTexts texts = MakeTexts(1, 15, 0, 6);
    return texts;
}

bool TextsAgree(const TTexts& data) {
    for (std::size_t i = 0; i < Count; ++i) {
        TFixed ours;
        std::string text = data.Texts[i];
        const std::uint64_t theirs = IntelFromString(text.data(), NearestEven, &intelFlags);
        if (!TryStrToFixed(data.Texts[i], ours) || !FixedSameValue(ours, data.Values[i]) ||
            theirs != data.IntelValues[i]) {
            return false;
        }
    }
    return true;
}

template <const TTexts& (*Data)()>
void ParseOurs(benchmark::State& state) {
    const TTexts& data = Data();
    if (!TextsAgree(data)) return state.SkipWithError("results differ");
    for (auto _ : state) {
        for (const std::string& text : data.Texts) {
            TFixed value;
            benchmark::DoNotOptimize(TryStrToFixed(std::string_view(text), value));
            benchmark::DoNotOptimize(value);
        }
    }
    Finish(state);
}

template <const TTexts& (*Data)()>
void ParseTheirs(benchmark::State& state) {
    std::vector<std::string> texts = Data().Texts;  // their interface wants writable text
    for (auto _ : state) {
        for (std::string& text : texts) {
            benchmark::DoNotOptimize(IntelFromString(text.data(), NearestEven, &intelFlags));
        }
    }
    Finish(state);
}

template <const TTexts& (*Data)()>
void FormatOurs(benchmark::State& state) {
    const TTexts& data = Data();
    char buffer[64];
    for (auto _ : state) {
        for (const TFixed& value : data.Values) {
            benchmark::DoNotOptimize(FixedToBuffer(value, buffer, TFormatSettings{}));
            benchmark::ClobberMemory();
        }
    }
    Finish(state);
}

template <const TTexts& (*Data)()>
void FormatTheirs(benchmark::State& state) {
    const TTexts& data = Data();
    char buffer[64];
    for (auto _ : state) {
        for (const std::uint64_t value : data.IntelValues) {
            IntelToString(buffer, value, &intelFlags);
            benchmark::DoNotOptimize(buffer);
            benchmark::ClobberMemory();
        }
    }
    Finish(state);
}

BENCHMARK(Ours<TAdd, Plain>)->Name("add/kds");
BENCHMARK(Theirs<TAdd, Plain>)->Name("add/intel");
BENCHMARK(Ours<TCompare, Plain>)->Name("compare/kds");
BENCHMARK(Theirs<TCompare, Plain>)->Name("compare/intel");
BENCHMARK(Ours<TMultiplyExact, Plain>)->Name("multiply exactly/kds");
BENCHMARK(Theirs<TMultiplyExact, Plain>)->Name("multiply exactly/intel");
BENCHMARK(Ours<TMultiplyAndRound, Plain>)->Name("multiply and round to 2/kds");
BENCHMARK(Theirs<TMultiplyAndRound, Plain>)->Name("multiply and round to 2/intel");
BENCHMARK(Ours<TMultiplyAndRound, Wide>)->Name("multiply and round to 2, wide/kds");
BENCHMARK(Theirs<TMultiplyAndRound, Wide>)->Name("multiply and round to 2, wide/intel");
BENCHMARK(Ours<TDivideTo8, Plain>)->Name("divide to 8/kds");
BENCHMARK(Theirs<TDivideTo8, Plain>)->Name("divide to 8/intel");
BENCHMARK(Ours<TDivideTo8, Wide>)->Name("divide to 8, wide/kds");
BENCHMARK(Theirs<TDivideTo8, Wide>)->Name("divide to 8, wide/intel");
BENCHMARK(ParseOurs<Amounts>)->Name("parse/kds");
BENCHMARK(ParseTheirs<Amounts>)->Name("parse/intel");
BENCHMARK(ParseOurs<Mixed>)->Name("parse, mixed/kds");
BENCHMARK(ParseTheirs<Mixed>)->Name("parse, mixed/intel");
BENCHMARK(FormatOurs<Amounts>)->Name("format/kds");
BENCHMARK(FormatTheirs<Amounts>)->Name("format/intel");
BENCHMARK(FormatOurs<Mixed>)->Name("format, mixed/kds");
BENCHMARK(FormatTheirs<Mixed>)->Name("format, mixed/intel");

}  // namespace
}  // namespace kds

BENCHMARK_MAIN();
