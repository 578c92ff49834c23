#include "kds/platform/Text.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/support/Seed.h"

namespace kds {
namespace {

std::int32_t Sign(int order) { return order < 0 ? -1 : order > 0 ? 1 : 0; }

// --- Conversion ------------------------------------------------------------------------------

struct TDecodeCase {
    const char* Name;
    std::string_view Bytes;
    std::u16string_view Units;
};
constexpr TDecodeCase DecodeCases[] = {
    {"TwoBytes", "\xD1\x8F", u"\u044F"},
    {"ThreeBytes", "\xEF\xBF\xBD", u"\uFFFD"},
    {"LastCharacter", "\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
    {"AboveTheLastCharacter", "\xF4\x90\x80\x80", u"\xDCF4\xDC90\xDC80\xDC80"},
    {"LoneTrailByte", "a\x80z", u"a\xDC80z"},
    // The rest of the character lies behind the end and must not be read.
    {"TruncatedTwo", {"abcdefgh\xD1\x8F", 9}, u"abcdefgh\xDCD1"},
    {"TruncatedThree", {"\xE2\x82\xAC", 2}, u"\xDCE2\xDC82"},
    {"TruncatedFour", {"\xF0\x90\x90\xA8", 3}, u"\xDCF0\xDC90\xDC90"},
    {"TruncatedByAscii", "\xE2\x82x", u"\xDCE2\xDC82x"},
    {"TruncatedByALead", "\xE2\xD1\x8F", u"\xDCE2\u044F"},
    {"OverlongTwo", "\xC0\x80", u"\xDCC0\xDC80"},
    {"OverlongThree", "\xE0\x9F\xBF", u"\xDCE0\xDC9F\xDCBF"},
    {"OverlongFour", "\xF0\x8F\xBF\xBF", u"\xDCF0\xDC8F\xDCBF\xDCBF"},
    {"SurrogateInThreeBytes", "\xED\xB2\x80", u"\xDCED\xDCB2\xDC80"},
    {"NeverALead", "\xFF", u"\xDCFF"},
};

class TDecodeTest : public testing::TestWithParam<TDecodeCase> {};

TEST_P(TDecodeTest, ComesBackAsTheSameBytes) {
    const TDecodeCase& tested = GetParam();

    EXPECT_EQ(ToUtf16(tested.Bytes), tested.Units);
    EXPECT_EQ(ToUtf8(tested.Units), tested.Bytes);
}

INSTANTIATE_TEST_SUITE_P(Forms, TDecodeTest, testing::ValuesIn(DecodeCases),
                         [](const auto& tested) { return std::string(tested.param.Name); });

TEST(TextTest, SendsOtherLoneSurrogatesOutAsThreeBytes) {
    std::string target = "key=";
    AppendUtf8(target, u"\u00E9");
    EXPECT_EQ(target, "key=\xC3\xA9");
    EXPECT_EQ(ToUtf8(u"\xD83Dx"), "\xED\xA0\xBDx");
    EXPECT_EQ(ToUtf8(u"\xDE00"), "\xED\xB8\x80");
    EXPECT_EQ(ToUtf8(u"\xDC7F"), "\xED\xB1\xBF");  // just outside the escaped bytes
}

// --- Folding ---------------------------------------------------------------------------------

TEST(FoldCaseTest, KeepsLengthsAndNeverFoldsTwice) {
    int folded = 0;
    for (char32_t c = 0; c < 0x110000; ++c) {
        const char32_t capital = FoldCase(c);
        if (capital == c) continue;
        ++folded;
        ASSERT_EQ(FoldCase(capital), capital) << static_cast<unsigned>(c);
        const auto bytes = [](char32_t x) { return x < 0x80 ? 1 : x < 0x800 ? 2 : 3; };
        ASSERT_TRUE(c >= 0x10000 ? c >> 10 == capital >> 10 : bytes(c) == bytes(capital))
            << static_cast<unsigned>(c);
    }
    EXPECT_EQ(folded, 26 + 1393);  // a hole in a range or a wrong stride shows here
}

TEST(FoldCaseTest, KnowsTheScripts) {
    constexpr std::u32string_view letters =
        U"z\u00FF\u0101\u03C2\u0451\u0491\u0561\u10D0\u2C30\uFF41\u1F80\U00010428";
    constexpr std::u32string_view capitals =
        U"Z\u0178\u0100\u03A3\u0401\u0490\u0531\u1C90\u2C00\uFF21\u1F88\U00010400";
    for (std::size_t i = 0; i < letters.size(); ++i) EXPECT_EQ(FoldCase(letters[i]), capitals[i]);
    // Another length, or ASCII: dotless and dotted i, sharp s, long s, kelvin, turned a.
    for (const char32_t c : U"\u0131\u0130\u00DF\u017F\u212A\u0250@[`{") EXPECT_EQ(FoldCase(c), c);
    EXPECT_EQ(ToUpper(u"stra\u00DFe \u044F\U00010428\xDC28"),
              u"STRA\u00DFE \u042F\U00010400\xDC28");
}

// --- Comparison ------------------------------------------------------------------------------

// The definition itself: fold the whole of both texts, then compare code units.
std::string FoldedBytes(std::string_view text) { return ToUtf8(ToUpper(ToUtf16(text))); }

TEST(CompareTest, AgreesWithComparingFoldedCopies) {
    const std::uint32_t seed = support::Seed();
    SCOPED_TRACE(testing::Message() << "repeat with KDS_TEST_SEED=" << seed);
    std::mt19937 random(seed);
    // Letters whose cases differ in the first, the last or every byte, what stands next to the
    // ASCII letters, a pair, and bytes that are no text.
    std::vector<std::string_view> pieces = {"a", "A", "z", "Z", "@", "[", "`", "{"};
    for (const std::string_view odd :
         {"\xD1\x8F", "\xD0\xAF", "\xC3\xBF", "\xC5\xB8", "\xF0\x90\x90\xA8", "\xF0\x90\x90\x80",
          "\xD1", "\x80", "\xFF"}) {
        pieces.push_back(odd);
    }
    pieces.emplace_back("\0", 1);
    const auto draw = [&](std::size_t length) {
        std::string text;
        for (std::size_t i = 0; i < length; ++i) text += pieces[random() % std::size(pieces)];
        return text;
    };
    const auto switchCase = [&](std::string text) {
        for (char& c : text) {
            if ((c == 'a' || c == 'A' || c == 'z' || c == 'Z') && random() % 2 == 0) c ^= 0x20;
        }
        return text;
    };
    for (int step = 0; step < 20'000; ++step) {
        const std::string prefix = draw(random() % 12);
        const std::string a = prefix + draw(random() % 3);
        const std::string b = switchCase(prefix) + draw(random() % 3);
        const std::u16string wideA = ToUtf16(a);
        const std::u16string wideB = ToUtf16(b);
        SCOPED_TRACE(testing::Message() << "step " << step);
        ASSERT_EQ(ToUtf8(wideA), a);
        ASSERT_EQ(CompareAnsi(a, b, false), Sign(a.compare(b)));
        ASSERT_EQ(CompareText(wideA, wideB, false), Sign(wideA.compare(wideB)));
        ASSERT_EQ(CompareAnsi(a, b, true), Sign(FoldedBytes(a).compare(FoldedBytes(b))));
        ASSERT_EQ(CompareText(wideA, wideB, true), Sign(ToUpper(wideA).compare(ToUpper(wideB))));
    }
}

// --- Small helpers ---------------------------------------------------------------------------

TEST(TextTest, TrimsBlanksAtBothEnds) {
    EXPECT_EQ(Trim(u" \t a b\r\n"), u"a b");
    EXPECT_EQ(Trim(u" \t\r\n"), u"");
    EXPECT_EQ(Trim(u"\u00A0x"), u"\u00A0x");
}

TEST(TextTest, FindsSuffixesWithoutRegardToCase) {
    EXPECT_TRUE(EndsWithText(u"Price DESC", u"desc"));
    EXPECT_FALSE(EndsWithText(u"esc", u"desc"));
}

TEST(TextTest, ReadsWholeDecimalIntegers) {
    EXPECT_EQ(TextToIntDef(u"-0", -99), 0);
    EXPECT_EQ(TextToIntDef(u"+007", -99), 7);
    EXPECT_EQ(TextToIntDef(u"2147483647", -99), 2147483647);
    EXPECT_EQ(TextToIntDef(u"-2147483648", -99), -2147483647 - 1);
    for (const std::u16string_view text : {u"2147483648", u"-2147483649", u"99999999999999999999",
                                           u"", u"-", u" 1", u"1 ", u"0x10", u"1.", u"\u0661"}) {
        EXPECT_EQ(TextToIntDef(text, -99), -99) << ToUtf8(text);
    }
}

}  // namespace
}  // namespace kds
