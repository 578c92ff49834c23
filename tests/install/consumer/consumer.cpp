// A program from outside: sees only the installed headers and library. What could break at the
// border is tried once: creation, values, an exception thrown inside and caught here, the end.
#include <iostream>

#include "kds/kds.h"

int main() {
    kds::TKdsStore* const store = kds::TKdsStore::Create(u"Shop");
    kds::TKdsTable* const table = store->Tables()->Add(u"Colours");
    table->Columns()->Add(u"Name", kds::dtAnsiString, 20);
    table->Insert({kds::TVariant(u"red")});
    bool refused = false;
    try {
        store->Tables()->Add(u"Colours");
    } catch (const kds::EKdsError& error) {
        std::cout << error.what() << '\n';
        refused = true;
    }
    const bool kept = table->Records()->Count() == 1;
    store->Free();
    return refused && kept ? 0 : 1;
}
