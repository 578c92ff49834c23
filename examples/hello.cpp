#include <iostream>

#include "kds/kds.h"

int main() {
    kds::TKdsStore* const store = kds::TKdsStore::Create(u"Hello");
    kds::TKdsTable* const cities = store->Tables()->Add(u"Cities");
    cities->Columns()->Add(u"Name", kds::dtAnsiString);
    cities->Columns()->Add(u"People", kds::dtInteger);
    cities->SetPrimaryKey(u"Name");
    kds::TKdsView* const largestFirst = cities->Select(u"People desc");
    cities->Insert({u"Lviv", 717'000});
    cities->Insert({u"Kyiv", 2'952'000});
    for (kds::TKdsRecord* const city : *largestFirst) std::cout << *city << '\n';
    store->Free();
}
