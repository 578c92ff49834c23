// Any text as a value of every kind: refused, or one whose own text reads back as the same. A date's
// text drops milliseconds, and a time of nothing else with them: that of the date without them does.
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "kds/core/Kdstypes.h"
#include "kds/expr/Varconvert.h"
#include "kds/platform/Errors.h"
#include "kds/platform/Text.h"

namespace {

// Nothing but the library's own errors come out; `read` again from the value's text.
template <typename F>
void Check(const kds::TVariant& text, F&& read) {
    try {
        const auto reread = [&](const std::u16string& written) {
            return kds::VarToStr(kds::TVariant(read(kds::TVariant(written))));
        };
        kds::TVariant value(read(text));
        std::u16string written = kds::VarToStr(value);
        if (value.Type() == kds::varDateTime) written = reread(written);
        if (reread(written) != written) __builtin_trap();
    } catch (const kds::Exception&) {
    }
}

}  // namespace

// The first byte chooses the kind, so that one refusal costs one exception, and the width of the
// text: the highest bit makes it 8-bit.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string_view ansi(reinterpret_cast<const char*>(data) + 1, size - 1);
    const kds::TVariant text =
        (data[0] & 0x80) != 0 ? kds::TVariant(ansi) : kds::TVariant(kds::ToUtf16(ansi));
    const int kind = (data[0] & 0x7f) % (6 + kds::KdsDataTypeCount);
    switch (kind) {
        case 0: Check(text, kds::VarToInt64); return 0;
        case 1: Check(text, kds::VarToBoolean); return 0;
        case 2: Check(text, kds::VarToDouble); return 0;
        case 3: Check(text, kds::VarToCurrency); return 0;
        case 4: Check(text, kds::VarToDateTime); return 0;
        case 5: Check(text, kds::VarToFixed); return 0;
        default: break;
    }
    // Into the slot of a type of number.
    const auto type = static_cast<kds::TKdsDataType>(kind - 6);
    if (kds::DataSize(type) == 0 || kds::IsTextType(type)) return 0;
    std::byte slot[16];
    std::int32_t length = 0;
    try {
        kds::VarToBuffer(type, text, slot, length);
        static_cast<void>(kds::BufferToVar(type, slot, length));
    } catch (const kds::Exception&) {
    }
    return 0;
}
