#include "kds/expr/Extvars.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <string>
#include <vector>

#include "kds/expr/Varconvert.h"
#include "kds/platform/Errors.h"
#include "kds/platform/Text.h"
#include "tests/support/Seed.h"

namespace kds {
namespace {

TVariant DateTime(std::int32_t day, std::int32_t milliseconds) {
    return TDateTime{JoinDateTime({day, milliseconds})};
}

constexpr std::int32_t LeapDay2024 = 45'351;
constexpr std::int32_t Noon = 43'200'000;
constexpr std::int32_t HalfPastTwelve = 45'000'000;

struct TTextCase {
    TVariant Value;
    std::u16string_view Text;
};

TEST(VarToTextTest, PrintsEachKind) {
    const TTextCase cases[] = {
        {{}, u""},
        {Null, u""},
        {true, u"1"},
        {false, u"0"},
        {std::int8_t{-5}, u"-5"},
        {std::numeric_limits<std::uint64_t>::max(), u"18446744073709551615"},
        {0.1f, u"0.1"},
        {0.1 + 0.2, u"0.3"},
        {TExtended{0.1 + 0.2}, u"0.30000000000000004"},
        {TExtended{1e19}, u"10000000000000000000"},
        {1e16, u"1E16"},
        {TCurrency{123'400}, u"12.34"},
        {TCurrency{std::numeric_limits<std::int64_t>::max()}, u"922337203685477.6"},
        {TDecimalParts{-150, 2}, u"-1.50"},
        {u"text", u"text"},
        {"Gr\xC3\xBC\xC3\x9F"
         "e",
         u"Gr\u00FC\u00DFe"},
        {DateTime(0, 0), u"00:00:00"},
        {DateTime(0, HalfPastTwelve), u"12:30:00"},
        {DateTime(LeapDay2024, 0), u"2024-02-29"},
        {DateTime(LeapDay2024, HalfPastTwelve + 999), u"2024-02-29T12:30:00"},
        {DateTime(LeapDay2024, 1), u"2024-02-29T00:00:00"},
        {DateTime(-693'593, 0), u"00:00:00"},
        {DateTime(-1, Noon), u"12:00:00"}};
    for (const auto& [value, text] : cases) EXPECT_EQ(VarToText(value), text) << value;
    EXPECT_THROW(static_cast<void>(VarToText(TIntf<IInterface>())), EVariantError);
}

TEST(TextToVarTest, ReadsWhatPrintsTheSame) {
    const TTextCase cases[] = {{Null, u""},
                               {1, u"1"},
                               {-5, u"-5"},
                               {7, u"7"},
                               {std::numeric_limits<std::int32_t>::min(), u"-2147483648"},
                               {TExtended{2147483648.0}, u"2147483648"},
                               {TExtended{1.5}, u"1.5"},
                               {TExtended{0.1}, u"0.1"},
                               {TExtended{9.95}, u"9.95"},
                               {TExtended{1e20}, u"1E20"},
                               {TExtended{1.5e-7}, u"1.5E-7"},
                               {DateTime(LeapDay2024, 0), u"2024-02-29"},
                               {DateTime(LeapDay2024, Noon), u"2024.02.29 12:00:00"},
                               {DateTime(LeapDay2024, Noon), u"2024-02.29T12:00:00"},
                               {DateTime(-1, Noon), u"1899-12-29T12:00:00"},
                               {DateTime(0, HalfPastTwelve), u"12:30:00"}};
    for (const auto& [value, text] : cases) {
        const TVariant read = TextToVar(text);
        EXPECT_EQ(VarTypeName(read.Type()), VarTypeName(value.Type())) << ToUtf8(text);
        EXPECT_EQ(read, value) << ToUtf8(text);
    }
}

TEST(TextToVarTest, LeavesEverythingElseAsText) {
    for (const std::u16string_view text :
         {u"007", u"1.50", u"+5", u"5.", u".5", u"-0", u"1e3", u" 1", u"1 ", u"1,5", u"0x10",
          u"inf", u"nan", u"-", u"--1", u"1e999", u"NULL"}) {
        EXPECT_EQ(TextToVar(text), TVariant(text)) << ToUtf8(text);
    }
    for (const std::u16string_view text :
         {u"0.1000000000000000055", u"9007199254740993", u"20x4-02-28", u"2024-02-30",
          u"2024-13-01", u"0000-01-01", u"2024-02-29x", u"2024-02-29T", u"2024-02-29 ",
          u"2024-02-29T25:00:00", u"2024-02-29T12:00", u"2024-02-29T12:00:00.5",
          u"2024-02-29t12:00:00", u"24:00:00", u"12:60:00", u"12:30", u"12:30:00 ", u"2024/02/29",
          u"12\uFF10:00:00"}) {
        EXPECT_EQ(TextToVar(text), TVariant(text)) << ToUtf8(text);
    }
}

TEST(TextToVarTest, TheNullTextStandsForNullOnly) {
    SetNullText(u"2024-02-29");
    EXPECT_EQ(TextToVar(u"2024-02-29"), TVariant(Null)) << "null goes before dates";
    EXPECT_EQ(VarToText(Null), u"2024-02-29");
    EXPECT_EQ(VarToText({}), u"2024-02-29");
    EXPECT_EQ(TextToVar(u""), TVariant(u""));
    SetNullText(u"");
}

TEST(TextToVarModelTest, NoTextIsAltered) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937 random(seed);
    constexpr std::u16string_view alphabet = u"0011223456789.-:ET +x";
    constexpr std::u16string_view dateTime = u"2024-02-29T12:30:00";
    for (std::int64_t step = support::Steps(100'000); step > 0; --step) {
        std::u16string text;
        // Random letters, or a date-time of which a few letters were exchanged.
        if (random() % 2 == 0) text = dateTime.substr(0, random() % (dateTime.size() + 1));
        for (auto edits = random() % 8; edits > 0; --edits) {
            const char16_t letter = alphabet[random() % alphabet.size()];
            const std::size_t at = random() % (text.size() + 1);
            at == text.size() || random() % 2 == 0 ? text.insert(at, 1, letter)
                                                   : text.replace(at, 1, 1, letter);
        }
        const TVariant read = TextToVar(text);
        const std::u16string printed = VarToText(read);
        if (read.Type() != varDateTime) {
            ASSERT_EQ(printed, text);
        } else if (read.Get<TDateTime>().Days >= 1) {
            ASSERT_EQ(TextToVar(printed), read) << ToUtf8(text);
        }
    }
}

TEST(VarEqualTest, WantsTheSameKind) {
    EXPECT_FALSE(VarEqual(1, 1.0));
    EXPECT_FALSE(VarEqual(1, std::int64_t{1}));
    EXPECT_FALSE(VarEqual(u"a", "a")) << "16-bit and 8-bit";
    EXPECT_TRUE(VarEqual(u"a", u"a"));
    EXPECT_TRUE(VarEqual(TVariant(), TVariant()));
    EXPECT_TRUE(VarEqual(Null, Null));
    EXPECT_FALSE(VarEqual(Null, TVariant()));
    EXPECT_FALSE(VarEqual(Null, 0));
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_FALSE(VarEqual(nan, nan));
}

TEST(VarEqualTest, ComparesDecimalsAsNumbers) {
    EXPECT_TRUE(VarEqual(TDecimalParts{150, 2}, TDecimalParts{15, 1}));
    EXPECT_FALSE(VarEqual(TDecimalParts{150, 2}, TDecimalParts{151, 2}));
    EXPECT_FALSE(VarEqual(TDecimalParts{1, 40}, TDecimalParts{1, 0})) << "too far apart to compare";
    EXPECT_TRUE(VarEqual(TDecimalParts{0, 40}, TDecimalParts{0, 0}));
}

TEST(VarEqualTest, FindsAValueAmongOthers) {
    const std::vector<TVariant> others = {1.0, Null, u"x", 1};
    EXPECT_TRUE(VarEqual(1, others));
    EXPECT_TRUE(VarEqual(Null, others));
    EXPECT_FALSE(VarEqual(TVariant(), others));
    EXPECT_FALSE(VarEqual(1, std::span(others).first(3)));
}

TEST(ExtendedVariantTest, CarriesAFloatExactly) {
    const TVariant carried = ExtendedToVar(0.1 + 0.2);
    EXPECT_EQ(carried.Type(), varExtended);
    EXPECT_EQ(VarToExtended(carried), 0.1 + 0.2);
    EXPECT_EQ(VarToExtended(u"2.5"), 2.5);
    EXPECT_TRUE(VarAssigned(carried));
    EXPECT_FALSE(VarAssigned(Null));
    EXPECT_FALSE(VarAssigned({}));
}

}  // namespace
}  // namespace kds
