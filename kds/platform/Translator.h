// The translator: texts for a section and key in the current language.
//
// Shape      Texts come from INI resources that are compiled into the library: RUSSIAN_KDS_LNG and
//            UKRAINIAN_KDS_LNG. English is the default that the caller passes. A host may install
//            a translator of its own.
//            A resource is UTF-8, with or without a byte-order mark: [section] lines and key=text
//            lines. Blanks around keys and texts do not count, a line without "=" says nothing,
//            and \r, \n and \\ in a text stand for carriage return, line feed and one backslash.
//            Sections and keys are found without regard to case; the first of equals wins.
// Ownership  SetTranslator borrows; nullptr brings back the built-in one.
// Errors     None of its own: an unknown section or key answers the default. std::bad_alloc.
// Cost       A resource is read at the first text asked of its language; O(texts) a lookup.
// Threads    Any thread may translate. Switch language and translator before other threads use
//            the library.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "kds/platform/Format.h"

namespace kds {

class ITranslator {
public:
    virtual ~ITranslator() = default;
    [[nodiscard]] virtual std::u16string Translate(std::u16string_view section,
                                                   std::u16string_view key,
                                                   std::u16string_view defaultText) = 0;
};

[[nodiscard]] ITranslator& Translator();
void SetTranslator(ITranslator* translator) noexcept;

// A line of a section's catalogue: the text is the English default.
struct TMessage {
    std::u16string_view Key;
    std::u16string_view Text;
};
// The text of a key in the current language. An unknown key is its own text.
[[nodiscard]] std::u16string MessageText(std::u16string_view section,
                                         std::span<const TMessage> messages,
                                         std::u16string_view key);

// The language of the built-in translator.
enum class TLanguage : std::uint8_t { English, Russian, Ukrainian };
void SetLanguage(TLanguage language) noexcept;
[[nodiscard]] TLanguage Language() noexcept;

// The raw bytes of a resource, "RUSSIAN_KDS_LNG" for instance; empty when there is none.
[[nodiscard]] std::string_view FindResource(std::u16string_view name) noexcept;

// Expands plural selectors "%[record;records]" and leaves every other directive alone: pass the
// text through this before Format, with the same arguments. A selector goes by the number that the
// nearest directive before it prints, or by the first argument when there is none before it.
// Two forms are read by the English rule (one, other) and three by the Slavic one (one, few, many)
// whatever the language, because a text without a translation stays English; any other count by
// the rule of `language`, whose missing forms are replaced by the last one.
[[nodiscard]] std::u16string ExpandPlurals(std::u16string_view text, TLanguage language,
                                           std::span<const TFormatArg> arguments);
// The same with one number for all selectors.
[[nodiscard]] std::u16string ExpandPlurals(std::u16string_view text, TLanguage language,
                                           std::int64_t number);

}  // namespace kds
