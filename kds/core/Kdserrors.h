// The message catalogue of the store and the one way in which the store raises.
//
// Shape      Every message has a section and a key; the English text here is the default that the
//            translator may replace. An unknown key is its own message text.
// Errors     KdsError raises EKdsError and never returns.
// Threads    The catalogue is constant; any thread may raise.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "kds/platform/Errors.h"
#include "kds/platform/Format.h"

namespace kds {

// Why data could not be loaded: the message says that they could not, the cause why, and the offset
// where in the stream the item begins that is at fault.
class EKdsStreamError : public EKdsError {
public:
    EKdsStreamError(std::u16string_view cause, std::int64_t offset);
    [[nodiscard]] std::u16string_view Cause() const noexcept { return *fCause; }
    [[nodiscard]] std::int64_t Offset() const noexcept { return fOffset; }

private:
    std::shared_ptr<const std::u16string> fCause;  // so that copying cannot fail
    std::int64_t fOffset;
};

// The translated text of a key of section "Kds.Errors".
[[nodiscard]] std::u16string GetMessageText(std::u16string_view key);

[[noreturn]] void KdsError(std::u16string_view key);
[[noreturn]] void KdsError(std::u16string_view key, std::initializer_list<TFormatArg> arguments);

}  // namespace kds
