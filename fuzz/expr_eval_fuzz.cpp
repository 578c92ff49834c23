// Any text that compiles, evaluated over one row: raw, typed and general ways agree.
#include <cstddef>
#include <cstdint>

#include "tests/expr/Exprtest.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto row = kds::support::ExampleRow();
    const std::u16string text = kds::ToUtf16({reinterpret_cast<const char*>(data), size});
    // What the clock and the dice say differs from way to way.
    const std::u16string capitals = kds::ToUpper(text);
    for (const std::u16string_view word : {u"NOW", u"TODAY", u"TIME", u"RANDOM"}) {
        if (capitals.find(word) != std::u16string::npos) return 0;
    }
    try {
        if (kds::support::OutcomeOfAllWays(text, row).find(" | ") == std::string::npos) return 0;
        // Texts may hold the separator themselves.
        const std::string raw = kds::support::Outcome(text, row, true);
        if (raw != kds::support::Outcome(text, row, false)) __builtin_trap();
    } catch (const std::bad_alloc&) {
    }
    return 0;
}
