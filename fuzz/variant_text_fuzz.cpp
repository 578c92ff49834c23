// Any text as a value of every kind: refused, or one whose own text reads back as the same.
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
        const kds::TVariant value(read(text));
        const std::u16string written = kds::VarToStr(value);
        if (kds::VarToStr(kds::TVariant(read(kds::TVariant(written)))) != written) {
            __builtin_trap();
        }
    } catch (const kds::Exception&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view ansi(reinterpret_cast<const char*>(data), size);
    const std::u16string wide = kds::ToUtf16(ansi);
    for (const kds::TVariant& text : {kds::TVariant(ansi), kds::TVariant(wide)}) {
        Check(text, kds::VarToInt64);
        Check(text, kds::VarToBoolean);
        Check(text, kds::VarToDouble);
        Check(text, kds::VarToCurrency);
        Check(text, kds::VarToDateTime);
        Check(text, kds::VarToFixed);
        // Into the slot of every type of number.
        for (int type = 1; type < kds::KdsDataTypeCount; ++type) {
            const auto number = static_cast<kds::TKdsDataType>(type);
            if (kds::DataSize(number) == 0 || kds::IsTextType(number)) continue;
            std::byte slot[16];
            std::int32_t length = 0;
            try {
                kds::VarToBuffer(number, text, slot, length);
                static_cast<void>(kds::BufferToVar(number, slot, length));
            } catch (const kds::Exception&) {
            }
        }
    }
    return 0;
}
