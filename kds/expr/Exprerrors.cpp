#include "kds/expr/Exprerrors.h"

#include <algorithm>
#include <array>

#include "kds/platform/Translator.h"

namespace kds {
namespace {

struct TParserMessage {
    std::u16string_view Key;
    std::u16string_view Text;
};

// The texts are fixed letter for letter: translation files and hosts look for them.
constexpr auto ParserMessages = std::to_array<TParserMessage>({
    {u"CircularReference", u"Circular reference for %s detected"},
    {u"InvalidFunctionArguments", u"Invalid arguments for function \"%s\""},
    {u"IllegalDateOperation", u"Illegal arguments for date/time operation"},
    {u"IllegalLogicOperation", u"Illegal arguments for boolean operation"},
    {u"IllegalBitwiseOperation", u"Illegal arguments for bitwize operation"},
    {u"InvalidCharacterCode", u"Invalid character code in line:\r%s"},
    {u"UnterminatedString", u"Unterminated string literal"},
    {u"MissingCloseBracket", u"Missing closing bracket \"%s\""},
    {u"MissingArgument", u"Missing argument for \"%s\""},
    {u"CannotResolveEntry", u"Unknown function or variable \"%s\""},
    {u"InvalidBracketUsage", u"Invalid bracket \"%s\" usage"},
    {u"InvalidDateFormat", u"Invalid date/time format \"%s\""},
    {u"InvalidNumberFormat", u"Invalid number format \"%s\""},
    {u"IllegalUnaryToken", u"Illegal unary \"%s\" usage"},
    {u"TokenNotSupported", u"Unsupported symbol \"%s\""},
    {u"InvalidExpression", u"Invalid expression:\r%s"},
});
static_assert(ParserMessages.size() == 16);

}  // namespace

std::u16string ParserMessageText(std::u16string_view key) {
    const auto* const found = std::ranges::find(ParserMessages, key, &TParserMessage::Key);
    return Translator().Translate(u"Parser", key,
                                  found == ParserMessages.end() ? key : found->Text);
}

void ParserError(std::u16string_view key, std::initializer_list<TFormatArg> arguments,
                 TExprPlace place) {
    throw EKdsParseError(Format(ParserMessageText(key), arguments), key, place);
}

}  // namespace kds
