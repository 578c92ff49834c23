#include "kds/platform/Errors.h"

#include <array>
#include <charconv>
#include <cstdint>

#include "kds/platform/Text.h"

namespace kds {

struct Exception::TText {
    explicit TText(std::u16string_view message) : Message(message), Utf8(ToUtf8(message)) {}
    const std::u16string Message;
    const std::string Utf8;
};

// Running out of memory here raises std::bad_alloc in place of the error that was to be built.
Exception::Exception(std::u16string_view message) : fText(std::make_shared<TText>(message)) {}

// A moved-from exception has no text; it is still asked by some loggers.
std::u16string_view Exception::Message() const noexcept {
    return fText == nullptr ? std::u16string_view() : std::u16string_view(fText->Message);
}

const char* Exception::what() const noexcept { return fText == nullptr ? "" : fText->Utf8.c_str(); }

void ListIndexError(long long index) {
    throw EListError(Format(u"List index out of bounds (%d)", {index}));
}

void ListDuplicateError(const void* item) {
    std::array<char, 2 * sizeof(std::uintptr_t)> digits;
    const auto written = std::to_chars(digits.data(), digits.data() + digits.size(),
                                       reinterpret_cast<std::uintptr_t>(item), 16);
    const std::u16string address(digits.data(), written.ptr);
    throw EListError(Format(u"List does not allow duplicates (0x%s)", {address}));
}

}  // namespace kds
