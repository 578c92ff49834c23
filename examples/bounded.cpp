// A table with a key that holds more rows than it keeps in memory. How many, and how many of them
// in memory: the arguments. 5000000 100000 is worth a look.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>

#include "kds/kds.h"

namespace {

// Of this process, now.
double ResidentBytes() {
    double size = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return resident * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

}  // namespace

int main(int argc, char** argv) {
    const int rows = argc > 1 ? std::atoi(argv[1]) : 20'000;
    const int inMemory = argc > 2 ? std::atoi(argv[2]) : 1'000;
    kds::TKdsStore* const store = kds::TKdsStore::Create(u"Shop");
    kds::TKdsTable* const orders = store->Tables()->Add(u"Orders");
    orders->Columns()->Add(u"Id", kds::dtInteger);
    orders->Columns()->Add(u"Customer", kds::dtAnsiString, 40);
    orders->Columns()->Add(u"Price", kds::dtDouble);
    orders->SetPrimaryKey(u"Id");
    orders->SetMaxRecordsInMemory(inMemory);  // before the first row

    const double before = ResidentBytes();
    const kds::TKdsColumn* const id = orders->Columns()->Items(0);
    const kds::TKdsColumn* const customer = orders->Columns()->Items(1);
    const kds::TKdsColumn* const price = orders->Columns()->Items(2);
    for (int i = 0; i < rows; ++i) {
        kds::TOwned<kds::TKdsRecord> order = orders->NewRow();
        order->Set(id, std::int32_t{i});
        order->Set(customer, "customer " + std::to_string(i % 1000));
        order->Set(price, i * 0.5);
        orders->Records()->Add(std::move(order));
    }
    const kds::TKdsSwapper* const swapper = orders->Swapper();
    std::cout << rows << " rows, " << swapper->RecordsInMemory() << " in memory, "
              << swapper->CacheFileSize() / 1024 << " KiB in " << kds::ToUtf8(swapper->FileName())
              << '\n';
    std::cout << static_cast<int>((ResidentBytes() - before) / rows) << " resident bytes a row\n";

    kds::TKdsRecord* const first = orders->Records()->Find({0});
    std::cout << "The first one is from " << kds::ToUtf8(first->Format(u"Customer")) << '\n';
    store->Free();
    return 0;
}
