#include "kds/platform/Translator.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <vector>

#include "kds/platform/Resources.h"
#include "kds/platform/Seam.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

// --- Resources -------------------------------------------------------------------------------

struct TTranslation {
    std::u16string Section, Key, Text;
};
using TCatalogue = std::vector<TTranslation>;

std::u16string Unescape(std::u16string_view text) {
    std::u16string result;
    result.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char16_t next = text[at] == u'\\' && at + 1 < text.size() ? text[at + 1] : u'\0';
        switch (next) {
            case u'r': result += u'\r'; break;
            case u'n': result += u'\n'; break;
            case u'\\': result += u'\\'; break;
            default: result += text[at]; continue;
        }
        ++at;
    }
    return result;
}

TCatalogue ParseCatalogue(std::string_view bytes) {
    const std::u16string text = ToUtf16(bytes);
    TCatalogue catalogue;
    std::u16string_view rest = text;
    if (rest.starts_with(u'\uFEFF')) rest.remove_prefix(1);
    std::u16string_view section;
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find(u'\n'), rest.size());
        const std::u16string_view line = Trim(rest.substr(0, end));  // takes the \r, too
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (line.size() >= 2 && line.front() == u'[' && line.back() == u']') {
            section = Trim(line.substr(1, line.size() - 2));
            continue;
        }
        const std::size_t equals = line.find(u'=');
        if (equals == std::u16string_view::npos) continue;
        catalogue.push_back({std::u16string(section), std::u16string(Trim(line.substr(0, equals))),
                             Unescape(Trim(line.substr(equals + 1)))});
    }
    return catalogue;
}

// Read when first asked for and never freed: stores that are themselves static may still raise
// errors while the program ends.
const TCatalogue& RussianCatalogue() {
    static const auto* const catalogue =
        new TCatalogue(ParseCatalogue(FindResource(u"RUSSIAN_KDS_LNG")));
    return *catalogue;
}
const TCatalogue& UkrainianCatalogue() {
    static const auto* const catalogue =
        new TCatalogue(ParseCatalogue(FindResource(u"UKRAINIAN_KDS_LNG")));
    return *catalogue;
}

std::atomic<TLanguage> currentLanguage{TLanguage::English};

class TResourceTranslator final : public ITranslator {
public:
    std::u16string Translate(std::u16string_view section, std::u16string_view key,
                             std::u16string_view defaultText) override {
        const TLanguage language = Language();
        if (language == TLanguage::English) return std::u16string(defaultText);
        const TCatalogue& catalogue =
            language == TLanguage::Russian ? RussianCatalogue() : UkrainianCatalogue();
        const auto found = std::ranges::find_if(catalogue, [&](const TTranslation& entry) {
            return SameText(entry.Key, key) && SameText(entry.Section, section);
        });
        return found == catalogue.end() ? std::u16string(defaultText) : found->Text;
    }
};

constinit TSeam<ITranslator, TResourceTranslator> seam;

// --- Plurals ---------------------------------------------------------------------------------

// Which of one, few and many the number takes in Russian and Ukrainian: 1 and 21 but not 11 take
// the first, 2 to 4 and 22 to 24 but not 12 to 14 the second.
std::size_t SlavicForm(std::uint64_t number) noexcept {
    const std::uint64_t last = number % 10;
    const bool teen = number / 10 % 10 == 1;
    if (last == 1 && !teen) return 0;
    return last >= 2 && last <= 4 && !teen ? 1 : 2;
}

std::size_t EnglishForm(std::uint64_t number) noexcept { return number == 1 ? 0 : 1; }

// The form of a selector, given what stands between its brackets.
std::u16string_view SelectForm(std::u16string_view forms, TLanguage language,
                               std::int64_t number) noexcept {
    const auto count = static_cast<std::size_t>(std::ranges::count(forms, u';')) + 1;
    const auto magnitude =
        number < 0 ? 0 - static_cast<std::uint64_t>(number) : static_cast<std::uint64_t>(number);
    const bool slavic = count == 3 || (count != 2 && language != TLanguage::English);
    std::size_t left = std::min(slavic ? SlavicForm(magnitude) : EnglishForm(magnitude), count - 1);
    for (; left > 0; --left) forms.remove_prefix(forms.find(u';') + 1);
    return forms.substr(0, forms.find(u';'));
}

// Walks the text; `numberOf(n)` is the number that the n-th directive, counted from 0, prints.
template <typename F>
std::u16string ExpandSelectors(std::u16string_view text, TLanguage language, F numberOf) {
    std::u16string result;
    result.reserve(text.size());
    std::size_t directives = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        result += text[at];
        if (text[at] != u'%') continue;
        const std::size_t next = at + 1;
        const std::size_t end = text.find(u']', next);
        if (next < text.size() && text[next] == u'[' && end != std::u16string_view::npos) {
            result.pop_back();
            result += SelectForm(text.substr(next + 1, end - next - 1), language,
                                 numberOf(directives == 0 ? 0 : directives - 1));
            at = end;
        } else if (const std::size_t length = DirectiveLength(text.substr(at)); length > 0) {
            result += text.substr(next, length - 1);
            at += length - 1;
            if (text[at] != u'%') ++directives;
        }
    }
    return result;
}

}  // namespace

ITranslator& Translator() { return seam.Get(); }
void SetTranslator(ITranslator* translator) noexcept { seam.Set(translator); }

std::u16string MessageText(std::u16string_view section, std::span<const TMessage> messages,
                           std::u16string_view key) {
    const auto found = std::ranges::find(messages, key, &TMessage::Key);
    return Translator().Translate(section, key, found == messages.end() ? key : found->Text);
}

void SetLanguage(TLanguage language) noexcept {
    currentLanguage.store(language, std::memory_order_relaxed);
}
TLanguage Language() noexcept { return currentLanguage.load(std::memory_order_relaxed); }

std::string_view FindResource(std::u16string_view name) noexcept {
    for (const TResource& resource : Resources()) {
        if (SameText(resource.Name, name)) return resource.Bytes;
    }
    return {};
}

std::u16string ExpandPlurals(std::u16string_view text, TLanguage language,
                             std::span<const TFormatArg> arguments) {
    return ExpandSelectors(text, language, [&](std::size_t directive) -> std::int64_t {
        if (directive >= arguments.size()) return 0;
        const auto* const number = std::get_if<std::int64_t>(&arguments[directive].Value());
        return number == nullptr ? 0 : *number;
    });
}

std::u16string ExpandPlurals(std::u16string_view text, TLanguage language, std::int64_t number) {
    return ExpandSelectors(text, language, [=](std::size_t) { return number; });
}

}  // namespace kds
