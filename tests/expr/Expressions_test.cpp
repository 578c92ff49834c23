#include "kds/expr/Expressions.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <set>

#include "kds/expr/Exprfunctions.h"
#include "kds/expr/Exprlike.h"
#include "kds/platform/Clock.h"
#include "kds/platform/Translator.h"
#include "tests/expr/Exprtest.h"
#include "tests/support/Seed.h"

namespace kds {
namespace {

using support::ExampleRow;
using support::OutcomeOfAllWays;
using support::TRowProvider;

[[nodiscard]] std::u16string Repeated(std::u16string_view part, int count) {
    std::u16string text;
    for (int i = 0; i < count; ++i) text += part;
    return text;
}
[[nodiscard]] TIntf<IExpressionEvaluator> Compiled(std::u16string_view text,
                                                   const TIntf<TRowProvider>& row = ExampleRow()) {
    return MakeExpressionParser()->Parse(text, row);
}

// ---- the document -------------------------------------------------------------------------

// Lines such as "    Id + 1 -> 8" are examples; the value is a literal of the language, or "!" and
// the key of an error.
TEST(TExpressionsDocTest, EveryExampleGivesWhatTheDocumentSays) {
    std::ifstream file("docs/expressions.md");
    ASSERT_TRUE(file) << "run from the project's folder";
    const auto row = ExampleRow();
    int examples = 0;
    std::string all;
    for (std::string line; std::getline(file, line);) {
        all += line;
        const std::size_t arrow = line.rfind(" -> ");
        if (!line.starts_with("    ") || arrow == std::string::npos) continue;
        ++examples;
        std::string outcome = OutcomeOfAllWays(Trim(ToUtf16(line.substr(4, arrow - 4))), row);
        if (outcome.starts_with('!')) outcome = outcome.substr(0, outcome.find('@'));
        EXPECT_EQ(outcome, line.substr(arrow + 4)) << line;
    }
    EXPECT_GT(examples, 150);
    for (const std::u16string& name : ExpressionFunctions().Names()) {
        EXPECT_NE(all.find(ToUtf8(name) + "("), std::string::npos) << ToUtf8(name);
    }
}

// ---- errors -------------------------------------------------------------------------------

struct TErrorCase {
    const char16_t* Text;
    const char* Expected;
};
constexpr TErrorCase ErrorCases[] = {
    {u"", "!InvalidExpression@0"},
    {u" \t\r\n", "!InvalidExpression@4"},
    {u"1 +", "!MissingArgument@2"},
    {u"MAX(1,)", "!MissingArgument@5"},
    {u"MAX(,1)", "!MissingArgument@0"},
    {u"NOT", "!MissingArgument@0"},
    {u"Id BETWEEN 1", "!MissingArgument@3"},
    {u"Id IS", "!MissingArgument@3"},
    {u"* 2", "!IllegalUnaryToken@0"},
    {u"1 + / 2", "!IllegalUnaryToken@4"},
    {u"1 = AND 2", "!IllegalUnaryToken@4"},
    {u"1 + NOT TRUE", "!IllegalUnaryToken@4"},
    {u"1)", "!InvalidBracketUsage@1"},
    {u"()", "!InvalidBracketUsage@1"},
    {u")", "!InvalidBracketUsage@0"},
    {u"Id IN ()", "!InvalidBracketUsage@7"},
    {u"(1", "!MissingCloseBracket@2"},
    {u"ABS(1", "!MissingCloseBracket@5"},
    {u"[Id", "!MissingCloseBracket@0"},
    {u"1 + Nobody", "!CannotResolveEntry@4"},
    {u"NOBODY(1)", "!CannotResolveEntry@0"},
    {u"ABS()", "!InvalidFunctionArguments@0"},
    {u"ABS(1, 2)", "!InvalidFunctionArguments@0"},
    {u"ABS('x')", "!InvalidFunctionArguments@4"},
    {u"YEAR(Id)", "!InvalidFunctionArguments@5"},
    {u"Name LIKE 'a' ESCAPE 'xx'", "!InvalidFunctionArguments@5"},
    {u"REPEAT('x', 1048577)", "!InvalidFunctionArguments@0"},
    {u"'open", "!UnterminatedString@0"},
    {u"1.2.3", "!InvalidNumberFormat@0"},
    {u"1e", "!InvalidNumberFormat@0"},
    {u"12ab", "!InvalidNumberFormat@0"},
    {u"1e999", "!InvalidNumberFormat@0"},
    {u"$", "!InvalidNumberFormat@0"},
    {u"1 + 9223372036854775808", "!InvalidNumberFormat@4"},
    {u"-9223372036854775809", "!InvalidNumberFormat@1"},
    {u"-9223372036854775808 ** 2", "!InvalidNumberFormat@1"},
    {u"Id > 'x'", "!InvalidNumberFormat@5"},
    {u"#2024-02-30#", "!InvalidDateFormat@0"},
    {u"#2024", "!InvalidDateFormat@0"},
    {u"Made > 'soon'", "!InvalidDateFormat@7"},
    {u"2 ^ 3", "!TokenNotSupported@2"},
    {u"1 ; 2", "!TokenNotSupported@2"},
    {u"1 + \x01", "!InvalidCharacterCode@4"},
    {u"1 + \xD800", "!InvalidCharacterCode@4"},
    {u"1 2", "!InvalidExpression@2"},
    {u"1 = 2 = 3", "!InvalidExpression@6"},
    {u"CASE 1", "!InvalidExpression@6"},
    {u"Made * 2", "!IllegalDateOperation@5"},
    {u"Made + Made", "!IllegalDateOperation@5"},
    {u"Made = 1", "!IllegalDateOperation@5"},
    {u"1 - Made", "!IllegalDateOperation@2"},
    {u"Made AND TRUE", "!IllegalLogicOperation@0"},
    {u"NOT Name", "!IllegalLogicOperation@4"},
    {u"1.5 | 2", "!IllegalBitwiseOperation@4"},
    {u"Made & 2", "!IllegalBitwiseOperation@5"},
    {u"9223372036854775807 + 1", "!Integer overflow"},
};

TEST(TExpressionErrorTest, NamesTheMessageAndThePlace) {
    const auto row = ExampleRow();
    for (const auto& [text, expected] : ErrorCases) {
        EXPECT_EQ(OutcomeOfAllWays(text, row), expected) << ToUtf8(text);
    }
}

TEST(TExpressionErrorTest, EveryMessageIsTranslatedAndFormatted) {
    try {
        static_cast<void>(Compiled(u"Id +"));
        FAIL();
    } catch (const EKdsParseError& error) {
        EXPECT_STREQ(error.what(), "Missing argument for \"+\"");
        EXPECT_EQ(error.Length(), 1);
    }
    SetLanguage(TLanguage::Ukrainian);
    std::u16string translated;
    try {
        static_cast<void>(Compiled(u"Nobody"));
    } catch (const EKdsParseError& error) {
        translated = error.Message();
    }
    SetLanguage(TLanguage::English);
    EXPECT_EQ(ToUtf8(translated), "Невідома функція або змінна \"Nobody\"");
}

// ---- bounds -------------------------------------------------------------------------------

TEST(TExpressionBoundsTest, NestingEndsAtItsLimitAndLengthDoesNot) {
    const auto row = ExampleRow();
    const auto outcome = [&](const std::u16string& text) {
        const std::string all = support::Outcome(text, row, true);
        return all.substr(0, all.find('@'));
    };
    EXPECT_EQ(outcome(Repeated(u"(", 256) + u"1" + Repeated(u")", 256)), "1");
    for (const std::u16string_view link :
         {u"(", u"NOT ", u"- ", u"2 ** ", u"ABS(", u"CASE ", u"~"}) {
        EXPECT_EQ(outcome(Repeated(link, 257) + u"1"), "!InvalidExpression") << ToUtf8(link);
        EXPECT_EQ(outcome(Repeated(link, 100'000) + u"1"), "!InvalidExpression") << ToUtf8(link);
    }
    for (const auto& [part, expected] :
         std::initializer_list<std::pair<const char16_t*, const char*>>{
             {u"Id + ", "1400007"},
             {u"Id <> 7 OR ", "TRUE"},
             {u"Missing = 1 OR Id = 3 OR Id = 4 OR Id = 5 XOR ", "NULL"},
             {u"Id = 7 AND ", "TRUE"},
             {u"Name || ", "!InvalidFunctionArguments"}}) {
        const std::string result = outcome(Repeated(part, 200'000) + u"Id");
        EXPECT_TRUE(result.starts_with(expected)) << ToUtf8(part) << result;
    }
    EXPECT_EQ(outcome(u"'" + Repeated(u"a", 100'000) + u"' LIKE '" + Repeated(u"%a", 4000) + u"b'"),
              "FALSE");
}

TEST(TExpressionBoundsTest, AnyTextIsAnErrorOrAValue) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937 random(seed);
    const auto row = ExampleRow();
    const std::u16string_view parts[] = {
        u"Id",   u"Name", u"Code",    u"Price",   u"Fee",    u"Made", u"Note", u"(",   u")",
        u",",    u"1",    u"2.5",     u"'a'",     u"'5'",    u"NULL", u"+",    u"-",   u"*",
        u"/",    u"**",   u"||",      u"=",       u"<",      u"AND",  u"OR",   u"NOT", u"IN",
        u"LIKE", u"IS",   u"BETWEEN", u"CASE",    u"WHEN",   u"THEN", u"ELSE", u"END", u"IIF(",
        u"MAX(", u"#",    u"[",       u"MOD",     u"\xD800", u"^",    u"&",    u">>",  u"~",
        u"XOR",  u"NVL(", u"DECODE(", u"SUBSTR(", u"1e9"};
    for (std::int64_t step = 0; step < support::Steps(6000); ++step) {
        std::u16string text;
        for (std::size_t count = random() % 12; count > 0; --count) {
            text += random() % 9 == 0 ? std::u16string(1, static_cast<char16_t>(random()))
                                      : std::u16string(parts[random() % std::size(parts)]) + u" ";
        }
        ASSERT_FALSE(support::OutcomeOfAllWays(text, row).empty()) << ToUtf8(text);
    }
}

// ---- raw forms ----------------------------------------------------------------------------

// Every operator between every column and constants at, between and beyond its values: raw, typed
// and general evaluation agree, and both ways round.
TEST(TExpressionRawTest, ComparisonsOnBuffersAgreeWithTheGeneralOnes) {
    const auto row = ExampleRow();
    const std::u16string_view constants[] = {u"7",
                                             u"-5",
                                             u"6.5",
                                             u"7.0",
                                             u"7e0",
                                             u"6.999e0",
                                             u"1e300",
                                             u"-1e300",
                                             u"0.1",
                                             u"0.1e0",
                                             u"1/3",
                                             u"2.5",
                                             u"2.50001",
                                             u"9223372036854775807",
                                             u"1.25",
                                             u"TRUE",
                                             u"FALSE",
                                             u"NULL",
                                             u"'7'",
                                             u"' -5 '",
                                             u"'bx-20'",
                                             u"'BX-20'",
                                             u"'Brass bolt'",
                                             u"'Brass bolu'",
                                             u"''",
                                             u"#2024-02-29#",
                                             u"#2024-02-29T12:30:00#",
                                             u"#12:30:00#",
                                             u"'2024-02-29'",
                                             u"60000"};
    int compared = 0;
    for (const auto& column : row->Columns) {
        for (const std::u16string_view constant : constants) {
            for (const std::u16string_view op : {u"=", u"<>", u"<", u"<=", u">", u">="}) {
                const std::u16string name = ToExpressionName(column.Name);
                const std::u16string text =
                    name + u" " + std::u16string(op) + u" " + std::u16string(constant);
                const std::string outcome = OutcomeOfAllWays(text, row);
                ASSERT_EQ(outcome.find(" | "), std::string::npos)
                    << ToUtf8(text) << ": " << outcome;
                compared += outcome == "TRUE" || outcome == "FALSE" ? 1 : 0;
            }
            const std::u16string list = ToExpressionName(column.Name) + u" IN (" +
                                        std::u16string(constant) + u", " +
                                        std::u16string(constant) + u", NULL)";
            const std::string outcome = OutcomeOfAllWays(list, row);
            ASSERT_EQ(outcome.find(" | "), std::string::npos) << ToUtf8(list) << ": " << outcome;
        }
    }
    EXPECT_GT(compared, 1000);
}

TEST(TExpressionRawTest, FetchesAColumnAtMostOnceARow) {
    const auto row = ExampleRow();
    row->HasBuffer = false;
    const auto evaluator = Compiled(u"Id * Id + Id > 3 AND Id BETWEEN 1 AND 9 OR Fee > 1", row);
    evaluator->SetPosition({});
    EXPECT_EQ(evaluator->Test(), 1);
    EXPECT_EQ(evaluator->Test(), 1);
    EXPECT_EQ(row->Fetches, 1);
    row->Set(0, Null);
    evaluator->SetPosition({});
    EXPECT_EQ(evaluator->Test(), 1);
    EXPECT_EQ(row->Fetches, 3);
    const std::vector<std::int32_t> columns(evaluator->Columns().begin(),
                                            evaluator->Columns().end());
    EXPECT_EQ(columns, (std::vector<std::int32_t>{0, 4}));
}

// Cheap terms go first where no order can be told from the outside: an error of one term hides, or
// is hidden by, no more than as written.
TEST(TExpressionChainTest, TermsChangePlacesUnseen) {
    const auto row = ExampleRow();
    const std::u16string_view terms[] = {u"Price * 2 + Id > 3", u"Price * 2 + Id < 3",
                                         u"Name LIKE 'B%'",     u"Id = 8",
                                         u"Missing = 1",        u"Big + 1 > 0",
                                         u"Big - Small > 0",    u"NOT (Id * 2e0 > 0 OR Fee = 1)"};
    constexpr std::size_t count = std::size(terms);
    for (std::size_t i = 0; i < count * count * count; ++i) {
        for (const std::u16string_view op : {u" AND ", u" OR "}) {
            const std::u16string text = std::u16string(terms[i % count]) + std::u16string(op) +
                                        std::u16string(terms[i / count % count]) +
                                        std::u16string(op) +
                                        std::u16string(terms[i / count / count]);
            const std::string outcome = OutcomeOfAllWays(text, row);
            ASSERT_EQ(outcome.find(" | "), std::string::npos) << ToUtf8(text) << ": " << outcome;
        }
    }
    row->HasBuffer = false;
    row->Fetches = 0;
    const auto evaluator =
        Compiled(u"Price / 3 + Fee > 1 AND Price * 2 + Id > 3 AND Small = 9", row);
    evaluator->SetPosition({});
    EXPECT_EQ(evaluator->Test(), 0);
    EXPECT_EQ(row->Fetches, 1);
}

// ---- sets ---------------------------------------------------------------------------------

TEST(TExpressionSetTest, LongChainsAndListsFindTheirMembers) {
    const auto row = ExampleRow();
    std::u16string chain = u"Missing = 1";
    std::u16string list = u"Code IN ('x'";
    for (int i = 0; i < 2000; ++i) {
        const std::u16string number = VarToStr(i * 3);
        chain += u" OR Id = " + number;
        list += u", 'BX-" + number + u"'";
    }
    for (const int id : {0, 3, 5, 5997, 5998, -1}) {
        row->Set(0, id);
        row->Set(2, u"bX-" + VarToStr(id));
        const bool in = id >= 0 && id % 3 == 0 && id < 6000;
        EXPECT_EQ(OutcomeOfAllWays(chain, row), in ? "TRUE" : "NULL") << id;
        EXPECT_EQ(OutcomeOfAllWays(list + u")", row), in ? "TRUE" : "FALSE") << id;
        EXPECT_EQ(OutcomeOfAllWays(list + u", NULL)", row), in ? "TRUE" : "NULL") << id;
    }
}

// ---- LIKE ---------------------------------------------------------------------------------

// Tries everything: slow, but nobody doubts it.
[[nodiscard]] bool LikeOracle(std::string_view text, std::string_view pattern) {
    if (pattern.empty()) return text.empty();
    if (pattern[0] == '%') {
        return LikeOracle(text, pattern.substr(1)) ||
               (!text.empty() && LikeOracle(text.substr(1), pattern));
    }
    return !text.empty() && (pattern[0] == '_' || pattern[0] == text[0]) &&
           LikeOracle(text.substr(1), pattern.substr(1));
}

TEST(TExprPatternTest, AgreesWithTryingEverything) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937 random(seed);
    const auto text = [&](std::string_view from, std::size_t most) {
        std::string made;
        for (std::size_t count = random() % (most + 1); count > 0; --count) {
            made += from[random() % from.size()];
        }
        return made;
    };
    TExprPattern exact;
    TExprPattern caseless;
    for (int step = 0; step < 20'000; ++step) {
        const std::string pattern = text("ab%_", 7);
        const std::string tested = text("ab", 9);
        exact.Compile(pattern, nullptr, false);
        caseless.Compile(pattern, nullptr, true);
        const bool expected = LikeOracle(tested, pattern);
        ASSERT_EQ(exact.Matches(tested), expected) << tested << " LIKE " << pattern;
        ASSERT_EQ(caseless.Matches(ToUtf8(ToUpper(ToUtf16(tested)))), expected) << pattern;
    }
}

// ---- literals -----------------------------------------------------------------------------

TEST(TExpressionLiteralTest, CompilesBackToAnEqualValueOfEveryKind) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937_64 random(seed);
    std::vector<TVariant> values = {Null,
                                    true,
                                    false,
                                    0,
                                    -1,
                                    INT64_MIN,
                                    INT64_MAX,
                                    std::uint64_t{5},
                                    0.1,
                                    -0.0,
                                    1e300,
                                    5e-324,
                                    0.1F,
                                    TExtended{1.0 / 3},
                                    TCurrency{INT64_MIN},
                                    TCurrency{-12'345},
                                    TDecimalParts{5, 0},
                                    TDecimalParts{INT64_MAX, 18},
                                    TDecimalParts{7, -3},
                                    TDecimalParts{3, 40},
                                    u"",
                                    u"it's",
                                    std::u16string(u"a\0\r\n\xD800 b", 7),
                                    TAnsiString("\xFF\x80 bytes"),
                                    u"Ґрунт 𝄞",
                                    VarToDateTime(u"2024-02-29T23:59:59"),
                                    TDateTime{-1.25},
                                    TDateTime{0.5},
                                    TDateTime{0}};
    for (int i = 0; i < 2000; ++i) {
        double number = std::bit_cast<double>(random());
        if (std::isfinite(number)) values.emplace_back(number);
        values.emplace_back(static_cast<std::int64_t>(random()) >> random() % 64);
        values.emplace_back(TDecimalParts{static_cast<std::int64_t>(random()) >> random() % 64,
                                          static_cast<std::int16_t>(random() % 19)});
    }
    for (const TVariant& value : values) {
        const std::u16string literal = ToLiteral(value);
        const auto evaluator = Compiled(literal);
        const TVariant back = evaluator->Evaluate();
        TExprArena arena;
        const TExprSlot a = SlotOfVariant(value, arena);
        const TExprSlot b = SlotOfVariant(back, arena);
        ASSERT_EQ(a.Kind, b.Kind) << ToUtf8(literal);
        if (value.Type() == varString) {
            EXPECT_EQ(ToUtf8(VarToStr(back)), ToUtf8(VarToStr(value)));
        } else if (a.Kind == ekFixed || a.Kind == ekInteger) {
            EXPECT_EQ(a.Integer, b.Integer) << ToUtf8(literal);
            EXPECT_EQ(a.Scale, b.Scale) << ToUtf8(literal);
        } else if (a.Kind == ekFloat) {
            EXPECT_EQ(a.Float, b.Float) << ToUtf8(literal);
        } else if (a.Kind == ekDate) {
            EXPECT_EQ(DateKey(a.Float), DateKey(b.Float)) << ToUtf8(literal);
        }
    }
    EXPECT_EQ(ToUtf8(ToExpressionName(u"Order [1]")), "[Order [1]]]");
    EXPECT_EQ(ToUtf8(ToExpressionName(u"like")), "[like]");
    EXPECT_THROW(static_cast<void>(ToLiteral(std::numeric_limits<double>::infinity())),
                 EConvertError);
}

// ---- exact comparison ---------------------------------------------------------------------

TEST(TExprValuesTest, ComparesDecimalsAndFloatsExactly) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937_64 random(seed);
    for (int step = 0; step < 50'000; ++step) {
        const std::int64_t mantissa = static_cast<std::int64_t>(random()) >> random() % 60;
        const auto scale = static_cast<std::int16_t>(random() % 19);
        double other = static_cast<double>(mantissa) / std::pow(10.0, scale);
        for (std::uint64_t moves = random() % 3; moves > 0; --moves) {
            other = std::nextafter(other, random() % 2 == 0 ? 1e300 : -1e300);
        }
        // 80-bit floats hold every mantissa; what they cannot tell apart is left out.
        const long double exact = static_cast<long double>(mantissa);
        const long double scaled = static_cast<long double>(other) * powl(10.0L, scale);
        if (std::fabs(static_cast<double>(exact - scaled)) <=
            std::fabs(static_cast<double>(exact)) * 1e-18) {
            continue;
        }
        const int expected = exact < scaled ? -1 : 1;
        ASSERT_EQ(CompareNumbers(TExprSlot::OfFixed({mantissa, scale}), TExprSlot::OfFloat(other)),
                  expected)
            << mantissa << " " << scale << " " << other;
    }
}

// ---- clocks, functions of the host, re-entry ----------------------------------------------

struct TStepClock final : IClock {
    TDateTime Now() override { return {Days += 1}; }
    std::int64_t Counter() override { return 0; }
    std::int64_t TicksPerSecond() override { return 1; }
    double Days = 45'000.5;
};

TEST(TExpressionClockTest, IsReadOnceAnEvaluationAndOnceAScope) {
    TStepClock clock;
    SetClock(&clock);
    const auto evaluator = Compiled(u"NOW() = NOW() AND TODAY() <= NOW()");
    const auto now = Compiled(u"NOW()");
    EXPECT_EQ(evaluator->Test(), 1);
    EXPECT_EQ(now->Evaluate(), TVariant(TDateTime{45'002.5}));
    {
        const TExpressionScope build;
        EXPECT_EQ(now->Evaluate(), TVariant(TDateTime{45'003.5}));
        EXPECT_EQ(now->Evaluate(), TVariant(TDateTime{45'003.5}));
    }
    EXPECT_EQ(now->Evaluate(), TVariant(TDateTime{45'004.5}));
    SetClock(nullptr);
    EXPECT_TRUE(now->ReadsClock());
    EXPECT_FALSE(now->IsPure());
    EXPECT_FALSE(Compiled(u"RANDOM()")->IsPure());
    EXPECT_TRUE(Compiled(u"Id + 1")->IsPure());
}

void TwiceOrThrow(TExprCall& call) {
    if (call.Whole(0) == 13) throw EInvalidArgument(u"unlucky");
    call.AnswerInteger(call.Whole(0) * 2);
}

TEST(TExpressionFunctionsTest, OfTheHostAreCheckedCalledAndMayThrow) {
    TExprFunctions functions;
    functions.Add({u"Twice", 1, 1, "n", ekInteger, 0, TExprRoutine::Bind<TwiceOrThrow>(), fmCall});
    TExprOptions options;
    options.Functions = &functions;
    const auto row = ExampleRow();
    const auto evaluator = MakeExpressionParser(options)->Parse(u"twice(Id) + TWICE(1)", row);
    functions.Add({u"Twice", 0, 0, "n", ekInteger, 0, TExprRoutine::Bind<TwiceOrThrow>(), fmCall});
    EXPECT_EQ(evaluator->Evaluate(), TVariant(16));
    row->Set(0, 13);
    evaluator->SetPosition({});
    EXPECT_THROW(static_cast<void>(evaluator->Evaluate()), EInvalidArgument);
    row->Set(0, Null);
    evaluator->SetPosition({});
    EXPECT_EQ(evaluator->Evaluate(), TVariant(Null));
    EXPECT_THROW(static_cast<void>(MakeExpressionParser(options)->Parse(u"Twice(1)", row)),
                 EKdsParseError);
    EXPECT_THROW(functions.Add({u"x", 0, 0, "n", ekAny, 0, {}, fmCall}), EInvalidArgument);
}

// A chain of records whose column is calculated from the next record's by the same expression.
struct TChain final : IExpressionProvider {
    bool Contains(std::u16string_view name, std::int32_t& index) override {
        index = 0;
        return name == u"Boss.Depth";
    }
    TVariant Evaluate(std::int32_t) override {
        const auto* const record = static_cast<const int*>(Position.Record);
        if (*record == 0) return 0;
        Evaluator->SetPosition({record + Step, erCurrent});
        return Evaluator->Evaluate();
    }
    void SetPosition(TExprPosition position) override { Position = position; }
    IExpressionEvaluator* Evaluator = nullptr;
    TExprPosition Position;
    int Step = 1;
};

TEST(TExpressionReentryTest, ClimbsAChainAndRefusesACircleAndACliff) {
    const auto chain = MakeIntf<TChain>();
    const auto evaluator = MakeExpressionParser()->Parse(u"1 + Boss.Depth", chain);
    evaluator->SetName(u"Depth");
    chain->Evaluator = evaluator.Get();
    int records[100];
    std::fill(std::begin(records), std::end(records), 1);
    records[99] = 0;
    const auto depthFrom = [&](int at) {
        evaluator->SetPosition({records + at, erCurrent});
        return evaluator->Evaluate();
    };
    EXPECT_EQ(depthFrom(80), TVariant(20));
    chain->Step = 0;
    try {
        static_cast<void>(depthFrom(0));
        FAIL();
    } catch (const EKdsParseError& error) {
        EXPECT_STREQ(error.what(), "Circular reference for Depth detected");
    }
    chain->Step = 1;
    EXPECT_THROW(static_cast<void>(depthFrom(0)), EKdsParseError);
    EXPECT_EQ(depthFrom(80), TVariant(20));
}

}  // namespace
}  // namespace kds
