#include "kds/expr/Exprlike.h"

#include <cstring>

#include "kds/expr/Exprvalues.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

constexpr std::size_t LongestPiece = 4096;
// No character has this code.
constexpr char32_t AnyCharacter = 0xFFFF'FFFF;

// Where the last `count` characters begin; npos when there are fewer.
[[nodiscard]] std::size_t FromEnd(std::string_view text, std::size_t count) noexcept {
    const std::size_t all = CharCount(text);
    return all < count ? std::string_view::npos : CharBytes(text, all - count);
}

}  // namespace

void TExprPattern::Compile(std::string_view pattern, const std::string_view* escape, bool caseless,
                           TExprPlace place) {
    const auto refuse = [&] { ParserError(u"InvalidFunctionArguments", {u"LIKE"}, place); };
    std::size_t length = 0;
    char32_t escapes = AnyCharacter;
    if (escape != nullptr) {
        if (escape->empty()) refuse();
        escapes = CharAt(*escape, 0, length);
        if (length != escape->size()) refuse();
    }
    fCaseless = caseless;
    fByBytes = true;
    fCount = 0;
    BeginPiece();
    for (std::size_t at = 0; at < pattern.size();) {
        char32_t character = CharAt(pattern, at, length);
        at += length;
        if (character == escapes) {
            if (at >= pattern.size()) refuse();
            character = CharAt(pattern, at, length);
            at += length;
            if (character != escapes && character != U'%' && character != U'_') refuse();
        } else if (character == U'%') {
            // Several in a row are as one.
            if (fCount == 1 || !Pieces().back().Characters.empty()) BeginPiece();
            continue;
        } else if (character == U'_') {
            character = AnyCharacter;
            fByBytes = false;
        }
        std::u32string& piece = Pieces().back().Characters;
        piece += caseless && character != AnyCharacter ? FoldCase(character) : character;
        if (piece.size() > LongestPiece) refuse();
    }
    fByBytes = fByBytes && !caseless;
    if (fByBytes) CutByBytes();
}

void TExprPattern::BeginPiece() {
    if (fCount == fPieces.size()) fPieces.emplace_back();
    fPieces[fCount].Characters.clear();
    fPieces[fCount].Bytes.clear();
    ++fCount;
}

void TExprPattern::CutByBytes() {
    for (TPiece& piece : Pieces()) {
        for (const char32_t character : piece.Characters) {
            char bytes[4];
            piece.Bytes.append(bytes, PutChar(bytes, character));
        }
    }
}

bool TExprPattern::Matches(std::string_view text) const noexcept {
    return fByBytes ? MatchesBytes(text) : MatchesCharacters(text);
}

bool TExprPattern::MatchesBytes(std::string_view text) const noexcept {
    const std::span<const TPiece> pieces = Pieces();
    const std::string& first = pieces.front().Bytes;
    if (pieces.size() == 1) return text == first;
    const std::string& last = pieces.back().Bytes;
    if (text.size() < first.size() + last.size() || !text.starts_with(first) ||
        !text.ends_with(last)) {
        return false;
    }
    text = text.substr(first.size(), text.size() - first.size() - last.size());
    for (std::size_t i = 1; i + 1 < pieces.size(); ++i) {
        const std::size_t found = text.find(pieces[i].Bytes);
        if (found == std::string_view::npos) return false;
        text.remove_prefix(found + pieces[i].Bytes.size());
    }
    return true;
}

std::size_t TExprPattern::EndOfPiece(const std::u32string& piece, std::string_view text,
                                     std::size_t at) const noexcept {
    for (const char32_t expected : piece) {
        if (at >= text.size()) return std::string_view::npos;
        std::size_t length = 0;
        const char32_t character = CharAt(text, at, length);
        at += length;
        if (expected == AnyCharacter) continue;
        if ((fCaseless ? FoldCase(character) : character) != expected) {
            return std::string_view::npos;
        }
    }
    return at;
}

bool TExprPattern::MatchesCharacters(std::string_view text) const noexcept {
    const std::span<const TPiece> pieces = Pieces();
    std::size_t at = EndOfPiece(pieces.front().Characters, text, 0);
    if (at == std::string_view::npos) return false;
    if (pieces.size() == 1) return at == text.size();
    const std::u32string& last = pieces.back().Characters;
    const std::size_t tail = FromEnd(text.substr(at), last.size());
    if (tail == std::string_view::npos ||
        EndOfPiece(last, text, at + tail) == std::string_view::npos) {
        return false;
    }
    text = text.substr(0, at + tail);
    for (std::size_t i = 1; i + 1 < pieces.size(); ++i) {
        const std::u32string& piece = pieces[i].Characters;
        std::size_t end = EndOfPiece(piece, text, at);
        while (end == std::string_view::npos) {
            if (at >= text.size()) return false;
            at += CharLength(text, at);
            end = EndOfPiece(piece, text, at);
        }
        at = end;
    }
    return true;
}

}  // namespace kds
