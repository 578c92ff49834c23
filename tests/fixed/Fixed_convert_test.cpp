#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <random>
#include <sstream>
#include <string>

#include "kds/fixed/Fixed.h"
#include "kds/fixed/Powers.h"
#include "kds/platform/Errors.h"
#include "kds/platform/Text.h"
#include "tests/support/Seed.h"

namespace kds {
namespace {

using std::string_view_literals::operator""sv;

constexpr TFormatSettings Plain{u'.', u','};

std::string Show(const TFixed& x) {
    return std::to_string(x.Value) + " / " + std::to_string(x.Scale);
}

template <typename F>
std::u16string MessageOf(F&& operation) {
    try {
        operation();
    } catch (const EConvertError& error) {
        return std::u16string(error.Message());
    }
    return u"nothing raised";
}

// ---- texts to decimals ----

struct TParseCase {
    std::u16string_view Text;
    std::optional<TFixed> Expected;
    TFormatSettings Settings = Plain;
};
constexpr TParseCase ParseCases[] = {
    {u"1,234.50", TFixed(123450, 2)},
    {u"+", TFixed(0, 0)},
    {u"-", TFixed(0, 0)},
    {u".", TFixed(0, 0)},
    {u"-0.00", TFixed(0, 2)},
    {u"0000000000000000000000000.1", TFixed(1, 1)},
    {u"9223372036854775807", TFixed(MaxInt64, 0)},
    {u"-9223372036854775808", TFixed(MinInt64, 0)},
    {u"1.234,5", TFixed(12345, 1), {u',', u'.'}},
    {u"1\u2019234567\u00B75", TFixed(12345675, 1), {u'\u00B7', u'\u2019'}},
    {std::u16string_view(u"12\u000034", 5), {}, {0, 0}},
    {u"1234,5", {}, {u'.', 0}},
    {u"123456", TFixed(123456, 0), {u'6', u','}},  // a digit is a digit first
};

void ExpectReads(const TParseCase& tested) {
    const auto& [text, expected, settings] = tested;
    const std::string bytes = ToUtf8(text);
    TFixed wide;
    TFixed narrow;
    EXPECT_EQ(TryStrToFixed(text, wide, settings), expected.has_value()) << bytes;
    EXPECT_EQ(TryStrToFixed(bytes, narrow, settings), expected.has_value()) << bytes;
    if (!expected) return;
    EXPECT_EQ(Show(wide), Show(*expected)) << bytes;
    EXPECT_EQ(Show(narrow), Show(*expected)) << bytes;
}

TEST(TFixedTextTest, ReadsBothWidthsAlike) {
    for (const TParseCase& tested : ParseCases) ExpectReads(tested);
    // The last two digit strings would wrap round to 5 and to 1.
    for (const std::u16string_view text :
         {u"1.2,3", u"12.3.4", u" 12", u"12 ", u"", u"--1", u"1-", u"1e3", u"123456\uFF11",
          u"9223372036854775808", u"-922337203685477580.9", u"92233720368547758085",
          u"18446744073709551617"}) {
        ExpectReads({text, {}});
    }
}

TEST(TFixedTextTest, RefusesWithTheTextAtFault) {
    EXPECT_EQ(MessageOf([] { TFixed x(u"12 apples"); }), u"'12 apples' is not a valid fixed value");
    EXPECT_EQ(Show(StrToFixedDef(u"12 apples", {7, 1})), "7 / 1");
    EXPECT_EQ(Show(StrToFixed(u"<1.25>", 1, 4)), "125 / 2");
    EXPECT_EQ(MessageOf([] { static_cast<void>(StrToFixed(u"1.25", 2, 3)); }),
              u"'25' is not a valid fixed value");
    EXPECT_EQ(MessageOf([] { static_cast<void>(StrToFixed(u"1.25", 9, 1)); }),
              u"'' is not a valid fixed value");
    EXPECT_THROW(static_cast<void>(StrToFixed(u"1.25", -1, 2)), EConvertError);
    EXPECT_THROW(static_cast<void>(StrToFixed(u"1.25", 1, -2)), EConvertError);
}

// The rules of reading, one character after the other.
std::optional<TFixed> ReadLiterally(std::u16string_view text, TFormatSettings settings) {
    if (text.empty()) return std::nullopt;
    const bool negative = text[0] == u'-';
    if (negative || text[0] == u'+') text.remove_prefix(1);
    std::uint64_t mantissa = 0;
    std::int16_t scale = 0;
    bool fraction = false;
    for (const char16_t c : text) {
        if (c >= u'0' && c <= u'9') {
            if (static_cast<double>(mantissa) > 922337203685477600.0) return std::nullopt;
            mantissa = mantissa * 10 + static_cast<std::uint64_t>(c - u'0');
            if (fraction) ++scale;
        } else if (c != 0 && c == settings.DecimalSeparator && !fraction) {
            fraction = true;
        } else if (c == 0 || c != settings.ThousandSeparator || fraction) {
            return std::nullopt;
        }
    }
    const auto value = static_cast<std::int64_t>(negative ? 0 - mantissa : mantissa);
    if (value != 0 && (value < 0) != negative) return std::nullopt;
    return TFixed(value, scale);
}

TEST(TFixedTextModelTest, ReadsRandomTextsByTheRules) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937 random(seed);
    constexpr std::u16string_view Rare = u".,+-/:\u0000x\u00B7"sv;
    for (std::int64_t step = support::Steps(200'000); step > 0; --step) {
        std::u16string text;
        for (std::size_t size = random() % 25; text.size() < size;) {
            text += static_cast<char16_t>(u'0' + random() % 10);
        }
        // Mostly numbers: a sign, a separator somewhere, now and then a stranger.
        if (random() % 3 == 0) text.insert(0, 1, random() % 2 == 0 ? u'-' : u'+');
        for (unsigned extra = random() % 4; extra > 0; --extra) {
            const char16_t inserted = random() % 2 == 0 ? u'.' : Rare[random() % Rare.size()];
            text.insert(random() % (text.size() + 1), 1, inserted);
        }
        const TFormatSettings settings{random() % 8 == 0 ? u'\0' : u'.',
                                       random() % 8 == 0 ? u'\u00B7' : u','};
        ExpectReads({text, ReadLiterally(text, settings), settings});
        if (testing::Test::HasFailure()) return;
    }
}

// ---- decimals to texts ----

struct TFormatCase {
    TFixed Number;
    std::u16string_view Expected;
    std::int32_t Digits = -1;
    bool Thousands = false;
    TFormatSettings Settings = Plain;
};
constexpr TFormatCase FormatCases[] = {
    {{12345, 3}, u"12.3", 1},
    {{12355, 3}, u"12.4", 1},
    {{-12355, 3}, u"-12.4", 1},
    {{-4, 3}, u"-0.0", 1},
    {{999, 2}, u"10.0", 1},
    {{5, 0}, u"5.00", 2},
    {{5, 3}, u"0.00500", 5},
    {{1500, 3}, u"2", 0},
    {{12, -2}, u"1200", 2},
    {{0, -2}, u"0"},
    {{12, -5}, u"1,200,000", -1, true},
    {{1234567, 2}, u"12,345.67", -1, true},
    {{-123456, 0}, u"-123,456", -1, true},
    {{1234567, 2}, u"12345.67", -1, true, {u'.', 0}},
    {{1234567, 2}, u"1234567", -1, false, {0, u','}},
    {{1234567, 2}, u"12\u2019345\u00B767", -1, true, {u'\u00B7', u'\u2019'}},
    {{MinInt64, 19}, u"-0.9223372036854775808"},
    {{7, 25}, u"0.0000000000000000000000007"},
};

TEST(TFixedTextTest, WritesBothWidthsAlike) {
    for (const auto& [number, expected, digits, thousands, settings] : FormatCases) {
        EXPECT_EQ(FixedToStr(number, settings, thousands, digits), expected) << Show(number);
        const std::string bytes = ToUtf8(expected);
        char buffer[64];
        const std::size_t size = FixedToBuffer(number, buffer, settings, thousands, digits);
        EXPECT_EQ(std::string_view(buffer, size), bytes) << Show(number);
        char16_t wide[64];
        const std::size_t wideSize = FixedToBuffer(number, wide, settings, thousands, digits);
        EXPECT_EQ(std::u16string_view(wide, wideSize), expected) << Show(number);
        // A buffer of just the size takes the text, a shorter one stays as it was.
        std::string exact(bytes.size(), '?');
        EXPECT_EQ(FixedToBuffer(number, exact, settings, thousands, digits), bytes.size());
        EXPECT_EQ(exact, bytes);
        std::string shorter(bytes.size() - 1, '?');
        EXPECT_EQ(FixedToBuffer(number, shorter, settings, thousands, digits), bytes.size());
        EXPECT_EQ(shorter, std::string(bytes.size() - 1, '?'));
    }
}

TEST(TFixedTextTest, RoundingATextCanBeRefused) {
    EXPECT_THROW(static_cast<void>(FixedToStr({MaxInt64, 1}, Plain, false, 0)), EIntOverflow);
    EXPECT_THROW(static_cast<void>(FixedToStr({1, 30}, Plain, false, 2)), EIntOverflow);
    EXPECT_EQ(FixedToStr({1, 3}, Plain, false, 200).size(), 202u);
}

TEST(TFixedTextTest, SeparatesDigitTexts) {
    EXPECT_EQ(FormatAsNumber(u"+0012345", 2, -1, true, Plain), u"+123.45");
    EXPECT_EQ(FormatAsNumber(u"", 2, -1, false, Plain), u"0.00");
    EXPECT_EQ(FormatAsNumber(u"12x45", 2, -1, false, Plain), u"");
    EXPECT_EQ(FormatAsNumber(u"123x5", 2, -1, false, Plain), u"");
    EXPECT_EQ(FormatAsNumber(u"123x5", 2, 0, false, Plain), u"123") << "never written";
    EXPECT_EQ(FormatAsNumber(u"1234x", 2, 1, false, Plain), u"123.4");
}

// The text of a number put together with the plainest means.
std::u16string WriteLiterally(const TFixed& x) {
    std::string digits = std::to_string(x.Value);
    const bool negative = digits[0] == '-';
    if (negative) digits.erase(0, 1);
    const auto scale = static_cast<std::size_t>(std::max<int>(x.Scale, 0));
    if (digits.size() <= scale) digits.insert(0, scale + 1 - digits.size(), '0');
    if (x.Scale < 0 && x.Value != 0) digits.append(static_cast<std::size_t>(-x.Scale), '0');
    if (scale > 0) digits.insert(digits.size() - scale, ".");
    return ToUtf16((negative ? "-" : "") + digits);
}

TEST(TFixedTextModelTest, TextsComeBack) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937_64 random(seed);
    for (std::int64_t step = support::Steps(200'000); step > 0; --step) {
        const std::int64_t power = PowersOf10[random() % PowersOf10.size()];
        const std::int64_t bits = static_cast<std::int64_t>(random()) >> (random() % 64);
        const std::int64_t value =
            random() % 4 == 0 ? power - static_cast<std::int64_t>(random() % 3) : bits;
        const TFixed x(value, static_cast<std::int16_t>(static_cast<int>(random() % 24) - 3));
        const std::u16string text = WriteLiterally(x);
        ASSERT_EQ(FixedToStr(x, Plain), text) << Show(x);
        char buffer[64];
        const std::string_view bytes(buffer, FixedToBuffer(x, buffer, Plain));
        ASSERT_EQ(bytes, ToUtf8(text)) << Show(x);
        if (x.Scale < 0) continue;
        TFixed narrow;
        ASSERT_TRUE(TryStrToFixed(bytes, narrow, Plain)) << bytes;
        ASSERT_TRUE(FixedSameValue(narrow, x)) << bytes;
        ASSERT_TRUE(FixedSameValue(StrToFixed(text, Plain), x)) << bytes;
    }
}

TEST(TFixedTextTest, SettingsOfTheProcessAreUsedByDefault) {
    const TFormatSettings before = DefaultFormatSettings();
    EXPECT_EQ(before, Plain);
    SetDefaultFormatSettings({u',', u'.'});
    EXPECT_EQ(TFixed(-15, 1).ToString(), u"-1,5");
    EXPECT_EQ(Show(TFixed(u"1.000,5")), "10005 / 1");
    SetDefaultFormatSettings(before);
}

// ---- floats, variants, streams ----

TEST(TFixedFloatTest, TakesTheShortestFormOfAFloat) {
    constexpr std::pair<double, TFixed> Cases[] = {
        {1.25, {125, 2}},
        {-0.1, {-1, 1}},
        {-0.0, {0, 0}},
        {0.1 + 0.2, {3, 1}},
        {1.0 / 3, {333333333333333, 15}},
        {123456789012345678.0, {123456789012346000, 0}},
        {9e18, {9000000000000000000, 0}},
        {1e19, {1, -19}},
        {-1.5e300, {-15, -299}},
        {5e-324, {5, 324}},
    };
    for (const auto& [value, expected] : Cases) {
        EXPECT_EQ(Show(ToFixed(value)), Show(expected)) << value;
    }
    constexpr double Infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(MessageOf([] { TFixed x(Infinity); }), u"inf is not a valid double value");
    EXPECT_EQ(MessageOf([] { TFixed x(-std::nan("")); }), u"nan is not a valid double value");
}

TEST(TFixedFloatTest, RoundsAFloatToAScale) {
    EXPECT_EQ(Show(ToFixed(0.125, 2)), "12 / 2") << "ties to even";
    EXPECT_EQ(Show(ToFixed(0.375, 2)), "38 / 2");
    EXPECT_EQ(Show(ToFixed(-1234.5, -2)), "-12 / -2");
    EXPECT_THROW(static_cast<void>(ToFixed(1e10, 10)), EIntOverflow);
    EXPECT_THROW(static_cast<void>(ToFixed(std::nan(""), 1)), EConvertError);
}

TEST(TFixedFloatTest, GivesAFloat) {
    EXPECT_EQ(FixedToDouble({15, 1}), 1.5);
    EXPECT_EQ(FixedToDouble({15, -2}), 1500.0);
    EXPECT_THROW(static_cast<void>(FixedToDouble({15, 19})), EIntOverflow);
    EXPECT_EQ(static_cast<double>(TFixed(-1, 18)), -1e-18);
}

TEST(TFixedTest, TravelsInAVariantAndAStream) {
    const TVariant carried = FixedToVar({150, 2});
    EXPECT_TRUE(VarIsFixed(carried));
    EXPECT_FALSE(VarIsFixed(TVariant(1.5)));
    EXPECT_TRUE(FixedSameValue(TFixed(carried.Get<TDecimalParts>()), {150, 2}));
    std::ostringstream stream;
    stream << TFixed(-150, 2);
    EXPECT_EQ(stream.str(), "-1.50");
}

}  // namespace
}  // namespace kds
