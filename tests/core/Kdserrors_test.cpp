#include "kds/core/Kdserrors.h"

#include <gtest/gtest.h>

#include <sstream>

#include "kds/platform/Text.h"
#include "kds/platform/Translator.h"

namespace kds {
namespace {

// Restores the language that other tests expect.
class TKdsErrorsTest : public testing::Test {
protected:
    ~TKdsErrorsTest() override {
        SetTranslator(nullptr);
        SetLanguage(TLanguage::English);
    }
    // "%s%d": the directives of a text in their order.
    static std::u16string Directives(std::u16string_view text) {
        std::u16string found;
        for (std::size_t i = 0; i < text.size();) {
            const std::size_t length = DirectiveLength(text.substr(i));
            found += text.substr(i, length);
            i += std::max<std::size_t>(length, 1);
        }
        return found;
    }
};

// That all translations agree is the translator's test.
TEST_F(TKdsErrorsTest, EveryMessageHasAnEnglishTextWithTheArgumentsOfItsTranslation) {
    std::istringstream lines{std::string(FindResource(u"UKRAINIAN_KDS_LNG"))};
    int messages = 0;
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with('[')) inside = line.starts_with("[Kds.Errors]");
        const std::size_t equals = line.find('=');
        // Three behind the store's own belong to the exporters.
        if (!inside || equals == std::string::npos || ++messages > 33) continue;
        const std::u16string key(Trim(ToUtf16(line.substr(0, equals))));
        SetLanguage(TLanguage::English);
        const std::u16string english = GetMessageText(key);
        SetLanguage(TLanguage::Ukrainian);
        const std::u16string translated = GetMessageText(key);
        EXPECT_NE(english, key);
        EXPECT_NE(translated, english) << line;
        EXPECT_EQ(Directives(translated), Directives(english)) << line;
    }
    EXPECT_EQ(messages, 36);
}

// Those in which a slip of the pen would not be noticed, and that no other test raises.
TEST_F(TKdsErrorsTest, TextsAreLetterForLetterAndAnUnknownKeyIsItsOwnText) {
    const std::pair<const char16_t*, const char*> texts[] = {
        {u"DataTypeMismatch", "%s.%s datatype doesn`t match %s.%s"},
        {u"FieldPrimaryKey", "\"%s\" should be unique (primary key) of table \"%s\""},
        {u"UnresolvedLookup", "#wrong lookup"},
        {u"StaticLookupLong", "Table \"%s\" too large to be referenced by short lookup \"%s.%s\""},
        {u"Nobody's key", "Nobody's key"},
    };
    for (const auto& [key, text] : texts) EXPECT_EQ(ToUtf8(GetMessageText(key)), text);
}

TEST_F(TKdsErrorsTest, RaisesTheFormattedTextOfTheTranslator) {
    struct THost final : ITranslator {
        std::u16string Translate(std::u16string_view section, std::u16string_view key,
                                 std::u16string_view defaultText) override {
            if (section != u"Kds.Errors") return u"wrong section";
            return key == u"mine" ? u"mine: %s" : std::u16string(defaultText);
        }
    } host;
    const auto raised = [](std::u16string_view key, std::initializer_list<TFormatArg> arguments) {
        try {
            KdsError(key, arguments);
        } catch (const EKdsError& error) {
            return std::string(error.what());
        }
    };
    EXPECT_EQ(raised(u"ColumnReadonly", {u"Größe"}), "Column \"Größe\" is read only");
    SetTranslator(&host);
    EXPECT_EQ(raised(u"mine", {u"yes"}), "mine: yes");
    EXPECT_EQ(raised(u"RecordStateInvalid", {}), "Invalid operation for record state");
}

}  // namespace
}  // namespace kds
