// The messages of section "Parser" and the error that carries where in the text something is wrong.
//
// Shape      Every message has a key; the English text here is the default that the translator may
//            replace. An unknown key is its own message text.
// Units      Positions and lengths are 16-bit units of the expression, counted from 0. A length of
//            0 points at the place where something is missing; -1 as the position means that the
//            error has no place in the text, as those that are found while a row is evaluated.
// Threads    The messages are constant; any thread may raise.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "kds/platform/Errors.h"
#include "kds/platform/Format.h"

namespace kds {

struct TExprPlace {
    std::int32_t Position = -1;
    std::int32_t Length = 0;
};

class EKdsParseError : public EKdsError {
public:
    // `key` is a constant of the program: it is only borrowed.
    EKdsParseError(std::u16string_view message, std::u16string_view key, TExprPlace place)
        : EKdsError(message), fKey(key), fPlace(place) {}
    [[nodiscard]] std::u16string_view Key() const noexcept { return fKey; }
    [[nodiscard]] std::int32_t Position() const noexcept { return fPlace.Position; }
    [[nodiscard]] std::int32_t Length() const noexcept { return fPlace.Length; }

private:
    std::u16string_view fKey;
    TExprPlace fPlace;
};

// The translated text of a key of section "Parser".
[[nodiscard]] std::u16string ParserMessageText(std::u16string_view key);

[[noreturn, gnu::cold]] void ParserError(std::u16string_view key,
                                         std::initializer_list<TFormatArg> arguments,
                                         TExprPlace place = {});

}  // namespace kds
