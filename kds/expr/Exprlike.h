// Patterns of LIKE: % stands for any characters, _ for one.
//
// Shape      A pattern is cut at its % into pieces of characters; the first piece must begin the
//            text, the last one end it, and those between are found one behind the other, each at
//            its first place. A place that was found is never given up, so that nothing is tried
//            twice: O(text x longest piece) at worst.
// Units      Characters of UTF-8; caseless patterns fold each.
// Errors     InvalidFunctionArguments "LIKE" for an escape that is not one character, or that
//            escapes anything but %, _ and itself, and for pieces of more than 4096 characters.
// Cost       A pattern that is compiled into the place of another takes over its memory, so that
//            patterns made of values cost none for each row.
// Threads    A compiled pattern is read only.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kds/expr/Exprerrors.h"

namespace kds {

class TExprPattern {
public:
    // `escape` is the text behind ESCAPE; nullptr without one.
    void Compile(std::string_view pattern, const std::string_view* escape, bool caseless,
                 TExprPlace place = {});
    [[nodiscard]] bool Matches(std::string_view text) const noexcept;

private:
    struct TPiece {
        std::u32string Characters;
        std::string Bytes;  // the same, when bytes can be compared
    };
    [[nodiscard]] std::span<TPiece> Pieces() noexcept { return {fPieces.data(), fCount}; }
    [[nodiscard]] std::span<const TPiece> Pieces() const noexcept {
        return {fPieces.data(), fCount};
    }
    void BeginPiece();
    void CutByBytes();
    [[nodiscard]] bool MatchesBytes(std::string_view text) const noexcept;
    [[nodiscard]] bool MatchesCharacters(std::string_view text) const noexcept;
    // The end of a piece that begins at `at`; npos when it does not.
    [[nodiscard]] std::size_t EndOfPiece(const std::u32string& piece, std::string_view text,
                                         std::size_t at) const noexcept;

    std::vector<TPiece> fPieces;  // with spare ones behind those in use
    std::size_t fCount = 0;
    bool fCaseless = false;
    bool fByBytes = false;  // no _ and no folding
};

}  // namespace kds
