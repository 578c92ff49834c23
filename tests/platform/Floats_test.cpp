#include "kds/platform/Floats.h"

#include <gtest/gtest.h>

#include <bit>
#include <cfenv>
#include <cmath>
#include <limits>
#include <random>

#include "kds/platform/Text.h"
#include "tests/support/Seed.h"

namespace kds {
namespace {

struct TFloatCase {
    double Value;
    int Precision;
    const char16_t* Text;
};
constexpr TFloatCase FloatCases[] = {
    {0.1, 20, u"0.1"},
    {0.00001, 16, u"0.00001"},
    {0.000001, 16, u"1E-6"},
    {1e15, 16, u"1000000000000000"},
    {1e16, 16, u"1E16"},
    {1e19, 20, u"10000000000000000000"},
    {1e20, 20, u"1E20"},
    {0.1 + 0.2, 17, u"0.30000000000000004"},
    {0.1 + 0.2, 16, u"0.3"},
    {999.6, 3, u"1E3"},  // the carry passes the precision
    {2.5, 1, u"3"},
    {1.05, 0, u"1"},
    {5e-324, 20, u"5E-324"},
    {-1.7976931348623157e308, 20, u"-1.7976931348623157E308"},
    {0.0, 16, u"0"},
    {-0.0, 16, u"-0"},
    {std::numeric_limits<double>::infinity(), 16, u"INF"},
    {-std::numeric_limits<double>::infinity(), 16, u"-INF"},
    {std::numeric_limits<double>::quiet_NaN(), 16, u"NAN"},
};

TEST(FloatTextTest, PrintsTheFewestDigitsThatFit) {
    for (const auto& [value, precision, text] : FloatCases) {
        EXPECT_EQ(FloatText(value, precision), text) << value << " at " << precision;
    }
    EXPECT_EQ(FloatText(0.1f, 8), u"0.1");
    EXPECT_EQ(FloatText(16777217.0f, 8), u"16777216");
    EXPECT_EQ(FloatText(-std::numeric_limits<double>::quiet_NaN(), 16), u"NAN");
}

TEST(FloatTextTest, ComesBackAsTheSameBits) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937_64 random(seed);
    for (int step = 0; step < 20'000; ++step) {
        const auto value = std::bit_cast<double>(random());
        if (!std::isfinite(value)) continue;
        double read = 0;
        ASSERT_TRUE(TextToDouble(FloatText(value, 17), read)) << value;
        ASSERT_EQ(std::bit_cast<std::uint64_t>(read), std::bit_cast<std::uint64_t>(value));
    }
}

TEST(TextToDoubleTest, ReadsTheWholeOfAFiniteNumber) {
    struct TCase {
        std::u16string_view Text;
        double Value;
    };
    const std::u16string zeros(2'000, u'0');
    const std::u16string tiny = u"0." + zeros + u"125e2001";
    const std::u16string huge = u"1" + zeros + u"e-2000";
    // Half way between 1 and the next double, then one digit more, far behind.
    const std::u16string half = u"1.00000000000000011102230246251565404236316680908203125";
    const std::u16string above = half + zeros + u"1";
    const TCase cases[] = {
        {u"+5", 5},
        {u"5.", 5},
        {u".5", 0.5},
        {u"007", 7},
        {u"-1.5E+2", -150},
        {u"1e-400", 0},
        {tiny, 1.25},
        {huge, 1},
        {half, 1},
        {above, std::nextafter(1., 2)},
        {u"0e99999999999999999999", 0},
        {u"1e-99999999999999999999", 0},
    };
    for (const auto& [text, expected] : cases) {
        double value = -7;
        EXPECT_TRUE(TextToDouble(text, value)) << ToUtf8(text.substr(0, 60));
        EXPECT_EQ(value, expected) << ToUtf8(text.substr(0, 60));
    }
}

TEST(TextToDoubleTest, RefusesAnythingElseAndLeavesTheValue) {
    for (const std::u16string_view text :
         {u"",     u"+",     u".",   u"-.",    u"e5",    u"1e",
          u"1e+",  u" 1",    u"1 ",  u"0x10",  u"inf",   u"nan",
          u"1,5",  u"1.2.3", u"--1", u"1e309", u"1e400", u"1e99999999999999999999",
          u"1e5x", u"\u0661"}) {
        double value = -7;
        EXPECT_FALSE(TextToDouble(text, value)) << ToUtf8(text);
        EXPECT_EQ(value, -7);
    }
}

TEST(RoundToInt64Test, TakesTiesToEvenInAnyRoundingMode) {
    struct TCase {
        double Value;
        std::int64_t Rounded;
    };
    constexpr TCase cases[] = {{0.5, 0},
                               {2.5, 2},
                               {-2.5, -2},
                               {0.49999999999999994, 0},
                               {-2.75, -3},
                               {4503599627370495.5, 4503599627370496},
                               {-9223372036854775808.0, std::numeric_limits<std::int64_t>::min()}};
    for (const int mode : {FE_TONEAREST, FE_UPWARD, FE_DOWNWARD}) {
        std::fesetround(mode);
        for (const auto& [value, rounded] : cases) {
            std::int64_t result = -7;
            EXPECT_TRUE(RoundToInt64(value, result));
            EXPECT_EQ(result, rounded) << value;
        }
    }
    std::fesetround(FE_TONEAREST);
}

TEST(RoundToInt64Test, RefusesWhatNoIntegerHolds) {
    for (const double value :
         {9223372036854775808.0, -9223372036854777856.0, 1e300,
          std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::infinity()}) {
        std::int64_t result = -7;
        EXPECT_FALSE(RoundToInt64(value, result));
        EXPECT_FALSE(TruncToInt64(value, result));
        EXPECT_EQ(result, -7);
    }
}

}  // namespace
}  // namespace kds
