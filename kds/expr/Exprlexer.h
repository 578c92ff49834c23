// The tokens of an expression, one at a time.
//
// Shape      Next moves to the token behind the current one; the first call finds the first token.
//            Words in any case are reserved or names; a name in brackets is never reserved. Names
//            joined by points without blanks are one name.
// Units      Positions are 16-bit units of the text.
// Ownership  Borrows the text. Value of a literal borrows the lexer's memory until the next token.
// Errors     EKdsParseError for characters, literals and brackets that are wrong in themselves.
// Cost       Linear in the text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kds/expr/Exprerrors.h"
#include "kds/expr/Exprvalues.h"

namespace kds {

enum class TExprToken : std::uint8_t {
    tkEnd,
    tkName,
    tkLiteral,
    tkOpen,
    tkClose,
    tkComma,
    // Operators
    tkOr,
    tkXor,
    tkAnd,
    tkEqual,
    tkNotEqual,
    tkLess,
    tkLessEqual,
    tkGreater,
    tkGreaterEqual,
    tkIn,
    tkLike,
    tkBetween,
    tkIs,
    tkBitOr,
    tkBitAnd,
    tkShiftLeft,
    tkShiftRight,
    tkPlus,
    tkMinus,
    tkJoin,
    tkMultiply,
    tkDivide,
    tkIntDivide,
    tkModulo,
    tkPower,
    tkNot,
    tkBitNot,
    // Other reserved words
    tkEscape,
    tkNull,
    tkTrue,
    tkFalse,
    tkCase,
    tkWhen,
    tkThen,
    tkElse,
    tkEndWord
};
using enum TExprToken;

class TExprLexer {
public:
    explicit TExprLexer(std::u16string_view text);

    void Next();
    [[nodiscard]] TExprToken Token() const noexcept { return fToken; }
    [[nodiscard]] TExprPlace Place() const noexcept { return {fBegin, fAt - fBegin}; }
    // The token as it is written.
    [[nodiscard]] std::u16string_view Written() const noexcept {
        return fText.substr(static_cast<std::size_t>(fBegin),
                            static_cast<std::size_t>(fAt - fBegin));
    }
    [[nodiscard]] std::u16string_view Name() const noexcept { return fName; }
    [[nodiscard]] const TExprSlot& Value() const noexcept { return fValue; }
    // The literal is 2^63, which is a number behind a minus only.
    [[nodiscard]] bool IsBeyond() const noexcept { return fBeyond; }
    // A number with a decimal point that is no float.
    [[nodiscard]] bool IsDecimal() const noexcept { return fDecimal; }
    // Whether the next character that is no blank is "(": a word before it is a function.
    [[nodiscard]] bool OpensCall() const noexcept;
    [[nodiscard]] std::u16string_view Text() const noexcept { return fText; }

    // InvalidExpression, with the text around the place.
    [[noreturn]] void RaiseInvalid(TExprPlace place) const;

private:
    [[nodiscard]] char16_t Peek(std::int32_t ahead = 0) const noexcept {
        return fAt + ahead < fEnd ? fText[static_cast<std::size_t>(fAt + ahead)] : u'\0';
    }
    void SkipBlanks() noexcept;
    void ReadWord();
    void ReadBracketedName();
    void ReadNumberToken();
    void ReadQuoted(char16_t quote);
    void ReadDateToken();
    void ReadSymbol();
    void Take(TExprToken token, std::int32_t units = 1) noexcept {
        fToken = token;
        fAt += units;
    }
    [[noreturn]] void RaiseCharacter() const;

    std::u16string_view fText;
    std::int32_t fAt = 0;
    std::int32_t fEnd;
    std::int32_t fBegin = 0;
    TExprToken fToken = tkEnd;
    std::u16string_view fName;
    std::u16string fNameScratch;
    std::string fScratch;
    TExprSlot fValue;
    bool fBeyond = false;
    bool fDecimal = false;
};

// Letters of any script count; digits are ASCII.
[[nodiscard]] bool IsNameStart(char16_t unit) noexcept;
[[nodiscard]] bool IsNamePart(char16_t unit) noexcept;
// The token of a reserved word in any case; tkName for every other word.
[[nodiscard]] TExprToken ReservedWord(std::u16string_view word) noexcept;

}  // namespace kds
