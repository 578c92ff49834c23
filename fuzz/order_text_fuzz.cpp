// Any text as the order of a view: refused with no view made, or a view in that order.
#include <cstddef>
#include <cstdint>

#include "kds/kds.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const kds::TOwned<kds::TKdsTable> table = [] {
        kds::TOwned<kds::TKdsTable> made = kds::TKdsTable::Create(u"T");
        made->Columns()->Add(u"Id", kds::dtInteger);
        made->Columns()->Add(u"Name", kds::dtAnsiString, 8);
        made->Columns()->Add(u"Desc", kds::dtWideString, 8);
        made->Columns()->Add(u"a", kds::dtBoolean);
        for (int i = 0; i < 12; ++i) {
            made->Insert({i * 5 % 12, i % 3 == 0 ? u"b" : u"A", u"w", i % 2 == 0});
        }
        return made;
    }();
    const std::u16string text = kds::ToUtf16({reinterpret_cast<const char*>(data), size});
    const std::int32_t views = table->Views()->Count();
    try {
        kds::TKdsView* const view = table->Select(text);
        if (view->Count() != 12 || !view->IsConsistent()) __builtin_trap();
        table->Views()->Delete(views);
    } catch (const kds::EKdsError&) {
        if (table->Views()->Count() != views) __builtin_trap();
    }
    return 0;
}
