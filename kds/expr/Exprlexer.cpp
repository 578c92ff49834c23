#include "kds/expr/Exprlexer.h"

#include <algorithm>
#include <array>

#include "kds/platform/Text.h"

namespace kds {
namespace {

struct TWord {
    std::u16string_view Word;
    TExprToken Token;
};
constexpr auto Words = std::to_array<TWord>({
    {u"OR", tkOr},       {u"IN", tkIn},         {u"IS", tkIs},           {u"AND", tkAnd},
    {u"XOR", tkXor},     {u"NOT", tkNot},       {u"DIV", tkIntDivide},   {u"MOD", tkModulo},
    {u"END", tkEndWord}, {u"LIKE", tkLike},     {u"NULL", tkNull},       {u"TRUE", tkTrue},
    {u"CASE", tkCase},   {u"WHEN", tkWhen},     {u"THEN", tkThen},       {u"ELSE", tkElse},
    {u"FALSE", tkFalse}, {u"ESCAPE", tkEscape}, {u"BETWEEN", tkBetween},
});
constexpr std::size_t LongestWord = 7;

[[nodiscard]] constexpr bool IsDigit(char16_t unit) noexcept {
    return unit >= u'0' && unit <= u'9';
}
[[nodiscard]] constexpr bool IsBlank(char16_t unit) noexcept {
    return unit == u' ' || unit == u'\t' || unit == u'\r' || unit == u'\n';
}
[[nodiscard]] constexpr bool IsSurrogate(char16_t unit) noexcept {
    return unit >= 0xD800 && unit < 0xE000;
}

// Spaces and signs beyond ASCII that no name may hold: controls, no-break and typographic spaces,
// general punctuation, mathematical operators, private and special code points.
[[nodiscard]] constexpr bool IsSymbolBeyondAscii(char16_t unit) noexcept {
    return unit < 0xC0
               ? unit != 0xAA && unit != 0xB5 && unit != 0xBA
               : unit == 0xD7 || unit == 0xF7 || (unit >= 0x2000 && unit < 0x2071) ||
                     (unit >= 0x2190 && unit < 0x2C00) || (unit >= 0x3000 && unit < 0x3005) ||
                     (unit >= 0xE000 && unit < 0xF900) || unit >= 0xFFF0 || unit == 0xFEFF;
}

}  // namespace

bool IsNameStart(char16_t unit) noexcept {
    if (unit < 0x80) {
        return (unit >= u'a' && unit <= u'z') || (unit >= u'A' && unit <= u'Z') || unit == u'_';
    }
    return !IsSurrogate(unit) && !IsSymbolBeyondAscii(unit);
}

bool IsNamePart(char16_t unit) noexcept { return IsDigit(unit) || IsNameStart(unit); }

TExprToken ReservedWord(std::u16string_view word) noexcept {
    if (word.size() < 2 || word.size() > LongestWord) return tkName;
    std::array<char16_t, LongestWord> capitals{};
    for (std::size_t i = 0; i < word.size(); ++i) {
        const char16_t unit = word[i];
        if (unit >= 0x80) return tkName;
        capitals[i] = unit >= u'a' ? static_cast<char16_t>(unit - 32) : unit;
    }
    const std::u16string_view capital(capitals.data(), word.size());
    for (const TWord& known : Words) {
        if (known.Word == capital) return known.Token;
    }
    return tkName;
}

TExprLexer::TExprLexer(std::u16string_view text)
    : fText(text), fEnd(static_cast<std::int32_t>(text.size())) {}

void TExprLexer::SkipBlanks() noexcept {
    while (fAt < fEnd && IsBlank(fText[static_cast<std::size_t>(fAt)])) ++fAt;
}

bool TExprLexer::OpensCall() const noexcept {
    std::int32_t at = fAt;
    while (at < fEnd && IsBlank(fText[static_cast<std::size_t>(at)])) ++at;
    return at < fEnd && fText[static_cast<std::size_t>(at)] == u'(';
}

void TExprLexer::Next() {
    SkipBlanks();
    fBegin = fAt;
    if (fAt >= fEnd) {
        fToken = tkEnd;
        return;
    }
    const char16_t unit = Peek();
    if (IsNameStart(unit)) return ReadWord();
    if (IsDigit(unit) || unit == u'$' || (unit == u'.' && IsDigit(Peek(1)))) {
        return ReadNumberToken();
    }
    switch (unit) {
        case u'[': return ReadBracketedName();
        case u'\'':
        case u'"': return ReadQuoted(unit);
        case u'#': return ReadDateToken();
        default: return ReadSymbol();
    }
}

void TExprLexer::ReadWord() {
    for (;;) {
        while (IsNamePart(Peek())) ++fAt;
        if (Peek() != u'.' || !IsNameStart(Peek(1))) break;
        ++fAt;  // Boss.Name: one name, which the provider takes apart
    }
    fName = Written();
    fToken = ReservedWord(fName);
}

void TExprLexer::ReadBracketedName() {
    fNameScratch.clear();
    for (++fAt; fAt < fEnd; ++fAt) {
        const char16_t unit = Peek();
        if (unit == u']') {
            if (Peek(1) != u']') {
                Take(tkName);
                fName = fNameScratch;
                return;
            }
            ++fAt;
        }
        fNameScratch += unit;
    }
    ParserError(u"MissingCloseBracket", {u"]"}, Place());
}

void TExprLexer::ReadNumberToken() {
    bool plain = true;
    fScratch.clear();
    const bool hexadecimal = Peek() == u'$';
    for (;; ++fAt) {
        const char16_t unit = Peek();
        const bool sign = (unit == u'+' || unit == u'-') && !hexadecimal && !fScratch.empty() &&
                          (fScratch.back() == 'e' || fScratch.back() == 'E') &&
                          fScratch.find_first_not_of("0123456789.") == fScratch.size() - 1;
        if (!sign && unit != u'.' && !IsNamePart(unit) && (unit != u'$' || !fScratch.empty()))
            break;
        plain = plain && unit < 0x80;
        fScratch += static_cast<char>(unit);
    }
    fValue = plain ? ReadLiteral(fScratch, fBeyond) : TExprSlot{};
    if (fValue.IsNull()) ParserError(u"InvalidNumberFormat", {Written()}, Place());
    fDecimal = fValue.Kind == ekFixed;
    fToken = tkLiteral;
}

void TExprLexer::ReadQuoted(char16_t quote) {
    fScratch.clear();
    ++fAt;
    for (;;) {
        // Whole stretches between quotes, so that pairs of units stay together.
        const std::size_t from = static_cast<std::size_t>(fAt);
        const std::size_t to = fText.find(quote, from);
        if (to == std::u16string_view::npos) {
            fAt = fEnd;
            ParserError(u"UnterminatedString", {}, Place());
        }
        AppendUtf8(fScratch, fText.substr(from, to - from));
        fAt = static_cast<std::int32_t>(to) + 1;
        if (Peek() != quote) break;
        fScratch += static_cast<char>(quote);
        ++fAt;
    }
    fToken = tkLiteral;
    fValue = TExprSlot::OfText(fScratch);
    fBeyond = fDecimal = false;
}

void TExprLexer::ReadDateToken() {
    const std::size_t to = fText.find(u'#', static_cast<std::size_t>(fAt) + 1);
    fAt = to == std::u16string_view::npos ? fEnd : static_cast<std::int32_t>(to) + 1;
    const std::u16string_view written = Written();
    if (to == std::u16string_view::npos) ParserError(u"InvalidDateFormat", {written}, Place());
    fScratch.clear();
    AppendUtf8(fScratch, written.substr(1, written.size() - 2));
    fValue = ReadDate(fScratch);
    if (fValue.IsNull()) {
        ParserError(u"InvalidDateFormat", {written.substr(1, written.size() - 2)}, Place());
    }
    fToken = tkLiteral;
    fBeyond = fDecimal = false;
}

void TExprLexer::ReadSymbol() {
    const char16_t next = Peek(1);
    switch (Peek()) {
        case u'(': return Take(tkOpen);
        case u')': return Take(tkClose);
        case u',': return Take(tkComma);
        case u'+': return Take(tkPlus);
        case u'-': return Take(tkMinus);
        case u'/': return Take(tkDivide);
        case u'%': return Take(tkModulo);
        case u'&': return Take(tkBitAnd);
        case u'~': return Take(tkBitNot);
        case u'*': return next == u'*' ? Take(tkPower, 2) : Take(tkMultiply);
        case u'|': return next == u'|' ? Take(tkJoin, 2) : Take(tkBitOr);
        case u'=': return Take(tkEqual, next == u'=' ? 2 : 1);
        case u'<':
            if (next == u'>') return Take(tkNotEqual, 2);
            if (next == u'=') return Take(tkLessEqual, 2);
            return next == u'<' ? Take(tkShiftLeft, 2) : Take(tkLess);
        case u'>':
            if (next == u'=') return Take(tkGreaterEqual, 2);
            return next == u'>' ? Take(tkShiftRight, 2) : Take(tkGreater);
        case u'!':
            if (next == u'=') return Take(tkNotEqual, 2);
            break;
        case u'^':
            ++fAt;
            // What it means differs from language to language, so nobody should have to guess.
            ParserError(u"TokenNotSupported", {u"^ (BITXOR(a, b), a ** b)"}, Place());
        default: break;
    }
    const char16_t unit = Peek();
    ++fAt;
    if (unit < 0x20 || (unit >= 0x7F && unit < 0xA0)) RaiseCharacter();
    if (IsSurrogate(unit)) {
        const bool pair = unit < 0xDC00 && Peek() >= 0xDC00 && Peek() < 0xE000;
        if (!pair) RaiseCharacter();
        ++fAt;
    }
    ParserError(u"TokenNotSupported", {Written()}, Place());
}

// The message shows the line of the character, which has no printable form itself.
void TExprLexer::RaiseCharacter() const {
    const std::size_t at = static_cast<std::size_t>(fBegin);
    const std::size_t before =
        at == 0 ? std::u16string_view::npos : fText.find_last_of(u"\r\n", at - 1);
    const std::size_t from = before == std::u16string_view::npos ? 0 : before + 1;
    const std::size_t first = std::max(from, at < 100 ? 0 : at - 100);
    const std::u16string_view line =
        fText.substr(first, std::min(fText.find_first_of(u"\r\n", at), at + 100) - first);
    ParserError(u"InvalidCharacterCode", {line}, Place());
}

void TExprLexer::RaiseInvalid(TExprPlace place) const {
    constexpr std::int32_t around = 100;
    if (fEnd <= 2 * around) ParserError(u"InvalidExpression", {fText}, place);
    const std::int32_t from = std::max(0, place.Position - around);
    const std::int32_t to = std::min(fEnd, place.Position + around);
    std::u16string shown(
        fText.substr(static_cast<std::size_t>(from), static_cast<std::size_t>(to - from)));
    if (from > 0) shown.insert(0, u"...");
    if (to < fEnd) shown += u"...";
    ParserError(u"InvalidExpression", {shown}, place);
}

}  // namespace kds
