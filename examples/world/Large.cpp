#include "examples/world/Large.h"

#include <malloc.h>

#include <array>
#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "examples/world/Files.h"
#include "examples/world/Terminal.h"

namespace world {
namespace {

// Of Debian's package unicode-data.
constexpr const char* UnicodeData = "/usr/share/unicode/UnicodeData.txt";

// The fields of a line of the file, in their order. Cardinals are written in hexadecimal, bytes in
// decimal.
struct TField {
    std::u16string_view Name;
    kds::TKdsDataType Type;
    std::int32_t Length = 0;
};
constexpr auto Fields = std::to_array<TField>({
    {u"Code", kds::dtCardinal},
    {u"Name", kds::dtAnsiString, 88},
    {u"Category", kds::dtChar, 2},
    {u"Combining", kds::dtByte},
    {u"Direction", kds::dtAnsiString, 3},
    {u"Decomposition", kds::dtMemoString},
    {u"Decimal", kds::dtByte},
    {u"Digit", kds::dtByte},
    {u"Numeric", kds::dtAnsiString, 16},
    {u"Mirrored", kds::dtBoolean},
    {u"OldName", kds::dtMemoString},
    {u"Comment", kds::dtMemoString},
    {u"Upper", kds::dtCardinal},
    {u"Lower", kds::dtCardinal},
    {u"Title", kds::dtCardinal},
});
using TLine = std::vector<std::string_view>;

constexpr auto Orders = std::to_array<std::u16string_view>({
    u"Name",
    u"Category, Name",
    u"Direction, Code desc",
    u"Upper, Lower desc",
});

kds::TKdsTable* AddTable(kds::TKdsStore* store, std::u16string_view name) {
    kds::TKdsTable* const table = store->Tables()->Add(name);
    for (const TField& field : Fields) {
        table->Columns()->Add(field.Name, field.Type, std::max(field.Length, 1));
    }
    table->SetPrimaryKey(u"Code");
    return table;
}

// The typed way in: no variant is built. A field without text stays null.
void AddRow(kds::TKdsTable* table, const TLine& line) {
    kds::TOwned<kds::TKdsRecord> row = table->NewRow();
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i].empty()) continue;
        const kds::TKdsColumn* const column = table->Columns()->Items(static_cast<std::int32_t>(i));
        switch (column->DataType()) {
            case kds::dtCardinal: row->Set(column, ToNumber<std::uint32_t>(line[i], 16)); break;
            case kds::dtByte: row->Set(column, ToNumber<std::uint8_t>(line[i], 10)); break;
            case kds::dtBoolean: row->Set(column, line[i] == "Y"); break;
            default: row->Set(column, line[i]); break;
        }
    }
    table->Records()->Add(std::move(row));
}

// What the program has from the heap at this moment.
std::size_t HeapBytes() {
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

template <typename F>
std::vector<std::string> Measure(const std::string& work, std::size_t rows, F&& act) {
    const std::size_t before = HeapBytes();
    const auto start = std::chrono::steady_clock::now();
    act();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    const auto count = static_cast<double>(rows);
    const double bytes = (static_cast<double>(HeapBytes()) - static_cast<double>(before)) / count;
    return {work, std::to_string(rows), Number(1e3 * took.count(), 1), Number(count / took.count()),
            Number(bytes, 1)};
}

}  // namespace

void ShowLarge(kds::TKdsStore* store) {
    Title("The whole Unicode character table");
    // The fields lie ready before the clock starts: what is measured is the table's work.
    const std::string text = ReadFile(UnicodeData);
    const std::vector<TLine> lines = SplitLines(text, ';');
    kds::TKdsTable* const bulk = AddTable(store, u"Bulk");
    kds::TKdsTable* const live = AddTable(store, u"Live");
    kds::TKdsView* const byName = live->Select(Orders[0]);
    for (std::size_t i = 1; i < Orders.size(); ++i) live->Select(Orders[i]);

    TSheet sheet({"Way", Right("Rows"), Right("ms"), Right("Rows a second"), Right("Bytes a row")});
    sheet.Row(Measure("in bulk, the key built at the end", lines.size(), [&] {
        kds::TKdsLoad load(bulk, kds::mtsMassive);
        for (const TLine& line : lines) AddRow(bulk, line);
        load.Leave();
    }));
    sheet.Row(Measure("four views built over them", lines.size(), [&] {
        for (const std::u16string_view order : Orders) bulk->Select(order);
    }));
    sheet.Row(Measure("row by row, the key and four views live", lines.size(), [&] {
        for (const TLine& line : lines) AddRow(live, line);
    }));
    sheet.Print();

    const std::int32_t nearest = byName->FindNearest({u"SNOW"});
    Say("the nearest to \"SNOW\" among " + std::to_string(byName->Count()) +
        " names: " + kds::ToUtf8(byName->Items(nearest)->Format(u"Name")));
}

}  // namespace world
