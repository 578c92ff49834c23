// The message catalogue of the store and the one way in which the store raises.
//
// Shape      Every message has a section and a key; the English text here is the default that the
//            translator may replace. An unknown key is its own message text.
// Errors     KdsError raises EKdsError and never returns.
// Threads    The catalogue is constant; any thread may raise.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

#include "kds/platform/Errors.h"
#include "kds/platform/Format.h"

namespace kds {

// The translated text of a key of section "Kds.Errors".
[[nodiscard]] std::u16string GetMessageText(std::u16string_view key);

[[noreturn]] void KdsError(std::u16string_view key);
[[noreturn]] void KdsError(std::u16string_view key, std::initializer_list<TFormatArg> arguments);

// The seam behind which a later piece of the library is missing: names it in the error.
[[noreturn]] void KdsNotAvailable(std::u16string_view feature);

}  // namespace kds
