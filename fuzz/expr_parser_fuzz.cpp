// Any bytes as the text of an expression: a value's evaluator or an error, nothing else.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "tests/expr/Exprtest.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto row = kds::support::ExampleRow();
    static const auto parser = kds::MakeExpressionParser();
    // The first byte chooses whether the rest are 8-bit or 16-bit units.
    if (size == 0) return 0;
    std::u16string text;
    if (data[0] % 4 != 0) {
        text = kds::ToUtf16({reinterpret_cast<const char*>(data) + 1, size - 1});
    } else {
        text.resize((size - 1) / 2);
        std::memcpy(text.data(), data + 1, text.size() * 2);
    }
    try {
        static_cast<void>(parser->Parse(text, row));
    } catch (const kds::EKdsParseError& error) {
        const auto end = static_cast<std::int64_t>(text.size());
        if (error.Position() < 0 || error.Position() + std::int64_t{error.Length()} > end) __builtin_trap();
    }
    return 0;
}
