#include "kds/core/Kdserrors.h"

#include <gtest/gtest.h>

#include <vector>

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
    // The keys of one section of a translation file, in order.
    static std::vector<std::u16string> Keys(std::u16string_view resource,
                                            std::u16string_view section) {
        const std::u16string text = ToUtf16(FindResource(resource));
        std::vector<std::u16string> keys;
        bool inside = false;
        for (std::size_t from = 0; from < text.size();) {
            const std::size_t end = std::min(text.find(u'\n', from), text.size());
            const std::u16string_view line =
                Trim(std::u16string_view(text).substr(from, end - from));
            from = end + 1;
            if (line.starts_with(u'[')) {
                inside = line == section;
            } else if (inside && line.find(u'=') != std::u16string_view::npos) {
                keys.emplace_back(Trim(line.substr(0, line.find(u'='))));
            }
        }
        return keys;
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

TEST_F(TKdsErrorsTest, EveryMessageHasAnEnglishTextAndTranslationsWithTheSameArguments) {
    for (const auto& [resource, language, exporters] :
         {std::tuple(u"RUSSIAN_KDS_LNG", TLanguage::Russian, 2u),
          std::tuple(u"UKRAINIAN_KDS_LNG", TLanguage::Ukrainian, 3u)}) {
        const std::vector<std::u16string> keys = Keys(resource, u"[Kds.Errors]");
        ASSERT_EQ(keys.size(), 33 + exporters);
        for (std::size_t i = 0; i < 33; ++i) {
            SetLanguage(TLanguage::English);
            const std::u16string english = GetMessageText(keys[i]);
            SetLanguage(language);
            const std::u16string translated = GetMessageText(keys[i]);
            EXPECT_NE(english, keys[i]);
            EXPECT_NE(translated, english) << ToUtf8(keys[i]);
            EXPECT_EQ(Directives(translated), Directives(english)) << ToUtf8(keys[i]);
        }
    }
    const std::vector<std::u16string> keys = Keys(u"RUSSIAN_KDS_LNG", u"[Kds.Errors]");
    EXPECT_EQ(keys.front(), u"NameNotFound");
    EXPECT_EQ(keys[32], u"MaximumCapacity");
}

struct TTextCase {
    const char* Key;
    const char* Text;
};
// Those in which a slip of the pen would not be noticed.
constexpr TTextCase Texts[] = {
    {"DataTypeUnsupported", "Unsupported datatype!!!"},
    {"DataTypeMismatch", "%s.%s datatype doesn`t match %s.%s"},
    {"FieldPrimaryKey", "\"%s\" should be unique (primary key) of table \"%s\""},
    {"CannotRestructure", "Cannot change structure for non-empty table \"%s\""},
    {"DataBufferMismatch", "Datatype buffer length mismatch %s.%s"},
    {"UnresolvedLookup", "#wrong lookup"},
    {"StaticLookupLong", "Table \"%s\" too large to be referenced by short lookup \"%s.%s\""},
    {"How could we fall into rloMixed mode?", "How could we fall into rloMixed mode?"},
};

TEST_F(TKdsErrorsTest, TextsAreLetterForLetterAndAnUnknownKeyIsItsOwnText) {
    for (const TTextCase& c : Texts) EXPECT_EQ(ToUtf8(GetMessageText(ToUtf16(c.Key))), c.Text);
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
    EXPECT_EQ(raised(u"ColumnNotNull", {u"T", u"c"}), "Column \"T.c\" cannot contain null");
    SetTranslator(&host);
    EXPECT_EQ(raised(u"mine", {u"yes"}), "mine: yes");
    EXPECT_EQ(raised(u"RecordStateInvalid", {}), "Invalid operation for record state");
}

}  // namespace
}  // namespace kds
