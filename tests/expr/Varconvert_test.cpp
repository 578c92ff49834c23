#include "kds/expr/Varconvert.h"

#include <gtest/gtest.h>

#include <compare>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "kds/expr/Vararith.h"
#include "kds/platform/Errors.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

constexpr double Infinity = std::numeric_limits<double>::infinity();
constexpr double Nan = std::numeric_limits<double>::quiet_NaN();
constexpr std::int64_t MinInteger = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t MaxInteger = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t MaxUnsigned = std::numeric_limits<std::uint64_t>::max();

class TThing : public IInterface {};

// The answer of a conversion as text, or the class of its refusal.
template <typename F>
std::string Outcome(F&& conversion, const TVariant& value) {
    try {
        std::ostringstream stream;
        stream << TVariant(conversion(value));
        return stream.str();
    } catch (const EVariantError&) {
        return "EVariantError";
    } catch (const EConvertError&) {
        return "EConvertError";
    } catch (const EIntOverflow&) {
        return "EIntOverflow";
    }
}

struct TConversionCase {
    TVariant Value;
    const char* Int64;
    const char* Double;
    const char* Currency;
    const char* Fixed;
    const char* Boolean;
};

TEST(VarConvertTest, TakesEachKindToEachNumber) {
    const TConversionCase cases[] = {
        {true, "1", "1", "1", "1", "True"},
        {std::int8_t{-128}, "-128", "-128", "-128", "-128", "True"},
        {std::uint16_t{65535}, "65535", "65535", "65535", "65535", "True"},
        {0, "0", "0", "0", "0", "False"},
        {MinInteger, "-9223372036854775808", "-9.223372036854776E18", "EIntOverflow",
         "-9223372036854775808", "True"},
        {MaxUnsigned, "-1", "1.844674407370955E19", "EIntOverflow", "EIntOverflow", "True"},
        {0.1f, "0", "0.1000000014901161", "0.1", "0.1", "True"},
        {2.5, "2", "2.5", "2.5", "2.5", "True"},
        {-3.5, "-4", "-3.5", "-3.5", "-3.5", "True"},
        {0.00005, "0", "0.00005", "0", "0.00005", "True"},
        {TExtended{1500}, "1500", "1500", "1500", "1500", "True"},
        {1e19, "EIntOverflow", "1E19", "EIntOverflow", "10000000000000000000", "True"},
        {Infinity, "EIntOverflow", "INF", "EIntOverflow", "EConvertError", "True"},
        {Nan, "EIntOverflow", "NAN", "EIntOverflow", "EConvertError", "False"},
        {TCurrency{25'000}, "2", "2.5", "2.5", "2.5000", "True"},
        {TCurrency{35'000}, "4", "3.5", "3.5", "3.5000", "True"},
        {TDecimalParts{-19'999, 4}, "-1", "-1.9999", "-1.9999", "-1.9999", "True"},
        {TDecimalParts{199'999, 5}, "1", "1.99999", "1.9999", "1.99999", "True"},
        {TDecimalParts{0, 2}, "0", "0", "0", "0.00", "False"},
        {TDecimalParts{1, 19}, "EIntOverflow", "EIntOverflow", "0", "0.0000000000000000001",
         "True"},
        {TDateTime{1.5}, "2", "1.5", "1.5", "1.5", "True"},
        {u"12", "12", "12", "12", "12", "True"},
        {"+2.5", "2", "2.5", "2.5", "2.5", "True"},
        {u"9223372036854775807", "9223372036854775807", "9.223372036854776E18", "EIntOverflow",
         "9223372036854775807", "True"},
        {u"9223372036854775808", "EIntOverflow", "9.223372036854776E18", "EIntOverflow",
         "EConvertError", "True"},
        {u"922337203685477.5807", "922337203685478", "922337203685477.6", "922337203685477.5807",
         "922337203685477.5807", "True"},
        {u"0.00005", "0", "0.00005", "0", "0.00005", "True"},
        {u"1e3", "1000", "1000", "1000", "EConvertError", "True"},
        {u"TRUE", "EConvertError", "EConvertError", "EConvertError", "EConvertError", "True"},
        {"false", "EConvertError", "EConvertError", "EConvertError", "EConvertError", "False"},
    };
    const auto toFixed = [](const TVariant& value) { return FixedToVar(VarToFixed(value)); };
    using TOutcomes = std::vector<std::string>;
    const auto outcomes = [&](const TVariant& value) {
        return TOutcomes{Outcome(VarToInt64, value), Outcome(VarToDouble, value),
                         Outcome(VarToCurrency, value), Outcome(toFixed, value),
                         Outcome(VarToBoolean, value)};
    };
    for (const auto& [value, int64, real, currency, fixed, boolean] : cases) {
        EXPECT_EQ(outcomes(value), (TOutcomes{int64, real, currency, fixed, boolean})) << value;
    }
    for (const TVariant& value :
         {TVariant(u""), TVariant(u" 1"), TVariant(u"+-1"), TVariant(u"\u0131")}) {
        EXPECT_EQ(outcomes(value), TOutcomes(5, "EConvertError")) << value;
    }
    for (const TVariant& value : {TVariant(), TVariant(Null), TVariant(MakeIntf<TThing>())}) {
        EXPECT_EQ(outcomes(value), TOutcomes(5, "EVariantError")) << value;
    }
}

TEST(VarConvertTest, TakesDateTimesFromTextsAndNumbers) {
    EXPECT_EQ(Outcome(VarToDateTime, u"2024-02-29 12:30:00"), "2024-02-29T12:30:00");
    EXPECT_EQ(VarToDateTime("1899-12-28T06:00:00").Days, -2.25) << "size of the time, not its sum";
    EXPECT_EQ(VarToDateTime(u"12:00:00").Days, 0.5);
    EXPECT_EQ(VarToDateTime(u"1.25").Days, 1.25);
    EXPECT_EQ(VarToDateTime(45'351).Days, 45'351);
    EXPECT_EQ(Outcome(VarToDateTime, u"2024-02-30"), "EConvertError");
    EXPECT_EQ(Outcome(VarToDateTime, Null), "EVariantError");
    EXPECT_EQ(Outcome(VarToDateTime, MakeIntf<TThing>()), "EVariantError");
}

TEST(VarConvertTest, TextsSayWhatTheValueIs) {
    EXPECT_EQ(VarToStr(true), u"True");
    EXPECT_EQ(VarToStr(TCurrency{std::numeric_limits<std::int64_t>::max()}),
              u"922337203685477.5807");
    EXPECT_EQ(VarToStr(TCurrency{1'200'000}), u"120");
    EXPECT_EQ(VarToStr(TDateTime{-2.25}), u"1899-12-28T06:00:00");
    EXPECT_EQ(VarToStr(TDateTime{0.5}), u"12:00:00");
    EXPECT_EQ(VarToStr(Null), u"");
    EXPECT_EQ(VarToAnsi(u"Gr\u00FC\u00DFe"),
              "Gr\xC3\xBC\xC3\x9F"
              "e");
    EXPECT_EQ(VarToAnsi("a\xFFz"), "a\xFFz") << "bytes of no text come through";
    EXPECT_EQ(Outcome(VarToStr, MakeIntf<TThing>()), "EVariantError");
    std::ostringstream stream;
    stream << TVariant(MakeIntf<TThing>()) << " " << TVariant(u"\u20AC");
    EXPECT_EQ(stream.str(), "(interface) \xE2\x82\xAC");
}

TEST(VarConvertTest, ViewsShowHeldTextInPlace) {
    const TVariant wide(u"wide");
    const TVariant narrow("narrow");
    std::u16string scratch;
    std::string ansiScratch;
    EXPECT_EQ(VarToStrView(wide, scratch).data(), wide.Get<std::u16string>().data());
    EXPECT_EQ(VarToAnsiView(narrow, ansiScratch).data(), narrow.Get<TAnsiString>().View().data());
    EXPECT_EQ(VarToStrView(narrow, scratch), u"narrow");
    EXPECT_EQ(VarToAnsiView(wide, ansiScratch), "wide");
    EXPECT_EQ(VarToAnsiView(17, ansiScratch), "17");
}

TEST(VarConvertTest, InterfacesComeBackAndNullIsNone) {
    const TIntf<TThing> thing = MakeIntf<TThing>();
    EXPECT_EQ(VarToIntf(thing).Get(), thing.Get());
    EXPECT_FALSE(VarToIntf(Null));
    EXPECT_FALSE(VarToIntf({}));
    EXPECT_THROW(static_cast<void>(VarToIntf(1)), EVariantError);
}

TEST(VarConvertTest, RefusalsNameValueAndTarget) {
    const auto message = [](auto&& conversion) -> std::string {
        try {
            conversion();
        } catch (const Exception& error) {
            return error.what();
        }
        return "nothing raised";
    };
    EXPECT_EQ(message([] { static_cast<void>(VarToInt64(Null)); }),
              "A value of type Null cannot be converted to an integer");
    EXPECT_EQ(message([] { static_cast<void>(VarToCurrency(u"abc")); }),
              "'abc' cannot be converted to a currency");
    EXPECT_EQ(message([] { static_cast<void>(VarToInt64(1e20)); }),
              "1E20 is out of the range of an integer");
}

TEST(VarArithTest, MeetsInTheWiderKind) {
    const TVariant half = TDecimalParts{50, 2};
    EXPECT_EQ(VarAdd(1, std::uint8_t{2}), TVariant(std::int64_t{3}));
    EXPECT_EQ(VarAdd(1, half), TVariant(TDecimalParts{15, 1}));
    EXPECT_EQ(VarMultiply(TCurrency{20'000}, half), TVariant(TDecimalParts{1'000'000, 6}));
    EXPECT_EQ(VarSubtract(half, 0.25), TVariant(0.25));
    EXPECT_EQ(VarDivide(1, half), TVariant(2.0));
    EXPECT_EQ(VarNegate(half), TVariant(TDecimalParts{-50, 2}));
    EXPECT_EQ(VarAdd(u"a", "b"), TVariant(u"ab"));
    EXPECT_EQ(VarAdd(u"2", 1), TVariant(3.0));
    EXPECT_EQ(VarAdd(TDateTime{1.5}, 1), TVariant(TDateTime{2.5}));
    EXPECT_EQ(VarSubtract(TDateTime{3}, TDateTime{1}), TVariant(2.0));
    EXPECT_EQ(VarMultiply(Null, 1), TVariant(Null));
    EXPECT_THROW(static_cast<void>(VarAdd(MaxInteger, 1)), EIntOverflow);
    EXPECT_THROW(static_cast<void>(VarDivide(1, 0)), EZeroDivide);
    EXPECT_THROW(static_cast<void>(VarAdd(u"x", 1)), EConvertError);
    EXPECT_THROW(static_cast<void>(VarAdd(MakeIntf<TThing>(), 1)), EVariantError);
}

TEST(VarArithTest, ComparesByNumber) {
    EXPECT_TRUE(std::is_eq(VarCompare(TDecimalParts{150, 2}, TDecimalParts{15, 1})));
    EXPECT_TRUE(std::is_gt(VarCompare(TDecimalParts{15, 1}, 1)));
    EXPECT_TRUE(std::is_lt(VarCompare(TCurrency{14'999}, TDecimalParts{15, 1})));
    EXPECT_TRUE(std::is_lt(VarCompare(MaxInteger - 1, MaxInteger))) << "no float between them";
    EXPECT_TRUE(std::is_gt(VarCompare(MaxUnsigned, MaxInteger)));
    EXPECT_TRUE(std::is_gt(VarCompare(MaxUnsigned, MaxUnsigned - 1)));
    EXPECT_TRUE(std::is_gt(VarCompare(MaxUnsigned, TDecimalParts{15, 1})));
    EXPECT_TRUE(std::is_lt(VarCompare(u"B", "a")));
    EXPECT_TRUE(std::is_lt(VarCompare(Null, -1)));
    EXPECT_TRUE(std::is_eq(VarCompare(Null, {})));
    EXPECT_FALSE(std::is_lteq(VarCompare(Nan, 1)) || std::is_gteq(VarCompare(Nan, 1)));
}

}  // namespace
}  // namespace kds
