// Any text as a fixed decimal: refused, or a number whose own text reads back as the same.
#include <cstddef>
#include <cstdint>

#include "kds/fixed/Fixed.h"
#include "kds/platform/Errors.h"
#include "kds/platform/Text.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view ansi(reinterpret_cast<const char*>(data), size);
    const std::u16string text = kds::ToUtf16(ansi);
    kds::TFixed narrow, wide, again;
    const bool isNumber = kds::TryStrToFixed(text, wide);
    if (isNumber != kds::TryStrToFixed(ansi, narrow)) __builtin_trap();
    if (!isNumber) return 0;
    if (!kds::FixedSameValue(narrow, wide)) __builtin_trap();
    if (!kds::TryStrToFixed(kds::FixedToStr(wide), again)) __builtin_trap();
    if (!kds::FixedSameValue(wide, again)) __builtin_trap();
    for (std::int32_t digits = 0; digits < 20; ++digits) {
        try {
            static_cast<void>(kds::FixedToStr(wide, kds::TFormatSettings(), true, digits));
        } catch (const kds::EIntError&) {
        }
    }
    return 0;
}
