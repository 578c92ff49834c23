#include "kds/platform/Translator.h"

#include <gtest/gtest.h>

#include <vector>

#include "kds/platform/Errors.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

class TTranslatorTest : public testing::Test {
protected:
    ~TTranslatorTest() override {
        SetLanguage(TLanguage::English);
        SetTranslator(nullptr);
    }
};

// FNV-1a over 64 bits.
std::uint64_t Sum(std::string_view bytes) {
    std::uint64_t sum = 0xCBF29CE484222325;
    for (const char byte : bytes) sum = (sum ^ static_cast<unsigned char>(byte)) * 0x100000001B3;
    return sum;
}

// Their lines, keys, blanks and marks are agreed with other programs: not a byte may change.
TEST_F(TTranslatorTest, CarriesTheResourceFilesByteForByte) {
    EXPECT_EQ(Sum(FindResource(u"RUSSIAN_KDS_LNG")), 0xFFE7EA82E2D96422u);
    EXPECT_EQ(Sum(FindResource(u"UKRAINIAN_KDS_LNG")), 0xAC279931DD4CA911u);
    EXPECT_EQ(FindResource(u"FRENCH_KDS_LNG"), "");
}

// QUIRK: the Russian file lacks one message and writes another one without "=".
TEST_F(TTranslatorTest, RussianKeepsItsTwoIrregularities) {
    SetLanguage(TLanguage::Russian);
    EXPECT_EQ(Translator().Translate(u"Parser", u"InvalidCharacterCode", u"English"), u"English");
    EXPECT_EQ(Translator().Translate(u"Kds.Errors", u"KdsExportProgress", u"English"), u"English");
    SetLanguage(TLanguage::Ukrainian);
    EXPECT_NE(Translator().Translate(u"Parser", u"InvalidCharacterCode", u"English"), u"English");
    EXPECT_NE(Translator().Translate(u"Kds.Errors", u"KdsExportProgress", u"English"), u"English");
}

TEST_F(TTranslatorTest, AnswersTheCurrentLanguage) {
    EXPECT_EQ(Translator().Translate(u"Kds.Errors", u"NameNotFound", u"default"), u"default");
    SetLanguage(TLanguage::Russian);
    EXPECT_EQ(Translator().Translate(u"Kds.Errors", u"NameNotFound", u""),
              u"\u042D\u043B\u0435\u043C\u0435\u043D\u0442 \u0441 \u0438\u043C\u0435\u043D\u0435"
              u"\u043C \"%s\" \u043D\u0435 \u043D\u0430\u0439\u0434\u0435\u043D");
    EXPECT_EQ(Translator().Translate(u"Parser", u"NameNotFound", u"default"), u"default");
    EXPECT_EQ(Translator().Translate(u"Kds.Errors", u"", u"default"), u"default");
}

TEST_F(TTranslatorTest, ReadsPaddedKeysAndEscapes) {
    SetLanguage(TLanguage::Russian);

    const std::u16string text = Translator().Translate(u"Kds.Import", u"ImportErrorLn", u"");

    EXPECT_EQ(Format(text, {7, u"x"}),
              u"\u041E\u0448\u0438\u0431\u043A\u0430 \u0432 \u0441\u0442\u0440\u043E\u043A\u0435 "
              u"\u21167:\r\nx.");
    EXPECT_TRUE(Translator().Translate(u"Kds.Import", u"ImportWrongTab", u"").starts_with(u". "));
}

TEST_F(TTranslatorTest, GivesWayToTheHostsTranslator) {
    struct THostTranslator final : ITranslator {
        std::u16string Translate(std::u16string_view section, std::u16string_view key,
                                 std::u16string_view defaultText) override {
            return Format(u"%s/%s/%s", {section, key, defaultText});
        }
    } host;

    SetTranslator(&host);

    EXPECT_EQ(Translator().Translate(u"S", u"K", u"D"), u"S/K/D");
    SetTranslator(nullptr);
    EXPECT_EQ(Translator().Translate(u"S", u"K", u"D"), u"D");
}

TEST(ExpandPluralsTest, PicksTheFormOfEachNumber) {
    const auto forms = [](std::u16string_view text, std::vector<int> numbers) {
        std::u16string result;
        for (const int number : numbers) result += ExpandPlurals(text, TLanguage::Russian, number);
        return result;
    };
    EXPECT_EQ(forms(u"%[1;2]", {0, 1, 2, 11, 21, -1}), u"212221");
    EXPECT_EQ(forms(u"%[a;b;c]", {0, 1, 2, 4, 5, 11, 12, 14, 21, 22, 25, 101, 111, 112, -3}),
              u"cabbcccc"
              u"abcaccb");
    EXPECT_EQ(forms(u"%[x]", {1, 5}), u"xx");
}

TEST(ExpandPluralsTest, GoesByTheDirectiveBeforeIt) {
    const TFormatArg arguments[] = {u"file", 1, 5};
    EXPECT_EQ(ExpandPlurals(u"%s: %d %[record;records], %.2d %[record;records] (100%%[a;b])",
                            TLanguage::English, arguments),
              u"%s: %d record, %.2d records (100%%[a;b])");
    EXPECT_EQ(ExpandPlurals(u"100%% of %s, %d %[a;b]", TLanguage::English, arguments),
              u"100%% of %s, %d a");
    EXPECT_EQ(ExpandPlurals(u"%[one;many", TLanguage::English, arguments), u"%[one;many");
    EXPECT_EQ(ExpandPlurals(u"%d%d%d%d %[a;b] %", TLanguage::English, arguments), u"%d%d%d%d b %");
}

TEST(ExpandPluralsTest, ReadsTheCarriedStatistics) {
    SetLanguage(TLanguage::Ukrainian);
    const TFormatArg arguments[] = {1, 22};
    const std::u16string text = Translator().Translate(u"Kds.Import", u"ImportStats", u"");
    SetLanguage(TLanguage::English);

    const std::u16string line =
        Format(ExpandPlurals(text, TLanguage::Ukrainian, arguments), arguments);

    EXPECT_EQ(ToUtf8(line), "Прочитано: 1 запис, завантажено: 22 записи.");
}

}  // namespace
}  // namespace kds
