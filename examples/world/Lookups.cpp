#include "examples/world/Lookups.h"

#include "examples/world/Rows.h"

namespace world {
namespace {

void PrintNames(kds::TKdsView* view, std::int32_t first, std::int32_t count) {
    TSheet sheet({Right("#"), "CountryName", "Country", "Zone"});
    for (std::int32_t i = first; i < std::min(first + count, view->Count()); ++i) {
        kds::TKdsRecord* const row = view->Items(i);
        sheet.Row({std::to_string(i), Cell(row, u"CountryName"), Cell(row, u"Country"),
                   Cell(row, u"Zone")});
    }
    sheet.Print();
}

void HasComments(kds::TKdsView*, kds::TKdsRecord* row, bool& accept) {
    accept = !row->GetIsNullN(u"Comments");
}

void Rename(kds::TKdsTable* countries, const char16_t* code, const char16_t* name) {
    kds::TKdsEdit edit(countries->Records()->Find({code}));
    edit->SetDataN(u"Name", name);
    edit.Post();
}

}  // namespace

// The zones keep a key of eight bytes each; the names are in the other table alone.
void ShowLookups(const TWorld& world) {
    Title("Zones by the names of their countries: \"CountryName nocase, Zone\"");
    kds::TKdsView* const view = world.Zones->Select(u"CountryName nocase, Zone");
    PrintNames(view, 0, 3);
    const std::int32_t japan = view->Find({u"japan"});
    Say("found by \"japan\", in any case: " + At(japan));

    Title("One name is changed in the other table, and its zones move");
    Rename(world.Countries, u"JP", u"Atlantis of the East");
    PrintNames(view, view->Find({u"Atlantis of the East"}) - 1, 3);
    Rename(world.Countries, u"JP", u"Japan");

    Title("A key that leads nowhere, until its country comes");
    kds::TKdsRecord* const lost =
        world.Zones->Insert({u"XX", u"Atlantic/Atlantis", 36, -25, u"+3600-02500"});
    PrintNames(view, view->IndexOf(lost), 1);
    kds::TKdsRecord* const country = world.Countries->Insert({u"XX", u"Atlantis"});
    PrintNames(view, view->IndexOf(lost), 1);
    country->Delete();
    lost->Delete();
    view->Free();
}

void ShowCalculated(const TWorld& world) {
    Title("Calculated columns: FromEquator = ABS(Latitude), Label = Zone || ' in ' || ...");
    kds::TKdsView* const view = world.Zones->Select(u"FromEquator desc, Label", u"Label LIKE 'P%'");
    const auto print = [&] {
        TSheet sheet({Right("#"), "Label", Right("Latitude"), Right("FromEquator")});
        for (std::int32_t i = 0; i < std::min(3, view->Count()); ++i) {
            kds::TKdsRecord* const row = view->Items(i);
            sheet.Row({std::to_string(i), Cell(row, u"Label"), Cell(row, u"Latitude"),
                       Cell(row, u"FromEquator")});
        }
        sheet.Print();
    };
    print();
    Say("One latitude and one country's name are changed:");
    kds::TKdsRecord* const apia = world.Zones->Records()->Find({u"WS", u"Pacific/Apia"});
    const kds::TVariant latitude = apia->GetDataN(u"Latitude");
    const auto move = [&](const kds::TVariant& value) {
        kds::TKdsEdit edit(apia);
        edit->SetDataN(u"Latitude", value);
        edit.Post();
    };
    move(-89);
    Rename(world.Countries, u"WS", u"Samoa on Ice");
    print();
    Rename(world.Countries, u"WS", u"Samoa (western)");
    move(latitude);
    std::string refusal;
    try {
        world.Zones->Columns()->Columns(u"FromEquator")->SetExpression(u"FromEquator + 1");
    } catch (const kds::EKdsParseError& error) {
        refusal = error.what();
    }
    Say("\"FromEquator + 1\" is refused: " + refusal);
    view->Free();
}

void ShowFilters(const TWorld& world) {
    Title("Filters: a text for one view, an object for all views but the key's");
    TSheet sheet({"What", Right("Rows"), Right("Rows of the key's view")});
    const auto tell = [&](const char* what, kds::TKdsView* view) {
        sheet.Row({what, std::to_string(view->Count()),
                   std::to_string(world.Zones->PrimaryView()->Count())});
    };
    kds::TKdsView* const view = world.Zones->Select(u"Zone");
    tell("no filter", view);
    view->SetFilter(u"Latitude < 0 AND CountryName NOT LIKE '%a%'");
    tell("Latitude < 0 AND CountryName NOT LIKE '%a%'", view);
    kds::TKdsAccept filter(world.Zones, kds::TKdsAcceptRecordEvent::Bind<&HasComments>(),
                           u"with comments");
    tell("and the table shows rows with comments only", view);
    view->SetFilter({});
    tell("the table's filter alone", view);
    filter.SetEnabled(false);
    tell("switched off", view);
    sheet.Print();
    std::string refusal;
    try {
        view->SetFilter(u"Latitude < 0 AND");
    } catch (const kds::EKdsParseError& error) {
        refusal = error.what() + (" at " + std::to_string(error.Position()));
    }
    Say("\"Latitude < 0 AND\" is refused: " + refusal);
    view->Free();
}

void ShowWatch(const TWorld& world) {
    kds::TKdsTable* const zones = world.Zones;
    kds::TKdsView* const view =
        zones->Select(u"CountryName, Zone", u"Country IN ('EE', 'LT', 'LV', 'FI')");
    Title("A view that is watched, before a dozen changes");
    PrintNames(view, 0, view->Count());
    TSheet heard({"Change", "Event", Right("Old row"), Right("New row"), "Zone"});
    TListener link(&heard, "");
    link.SetView(view);
    const auto insert = [&](const char16_t* code, const char16_t* zone) {
        return zones->Insert({code, zone, 60, 25, u"+6000+02500"});
    };
    const auto move = [&](kds::TKdsRecord* row, const char16_t* column,
                          const kds::TVariant& value) {
        kds::TKdsEdit edit(row);
        row->SetDataN(column, value);
        edit.Post();
    };
    kds::TKdsRecord* const riga = zones->Records()->Find({u"LV", u"Europe/Riga"});
    kds::TKdsRecord* const vilnius = zones->Records()->Find({u"LT", u"Europe/Vilnius"});
    link.Name("1 insert Tartu");
    kds::TKdsRecord* const tartu = insert(u"EE", u"Europe/Tartu");
    link.Name("2 insert Turku");
    kds::TKdsRecord* const turku = insert(u"FI", u"Europe/Turku");
    link.Name("3 insert Oslo, which is filtered out");
    kds::TKdsRecord* const oslo = insert(u"NO", u"Europe/Oslo Harbour");
    link.Name("4 a comment of Riga, which moves nothing");
    move(riga, u"Comments", u"by the river");
    link.Name("5 rename Turku");
    move(turku, u"Zone", u"Europe/Abo");
    link.Name("6 Tartu becomes Latvian");
    move(tartu, u"Country", u"LV");
    link.Name("7 Oslo becomes Finnish");
    move(oslo, u"Country", u"FI");
    link.Name("8 Vilnius becomes Polish");
    move(vilnius, u"Country", u"PL");
    link.Name("9 edit and cancel Riga");
    riga->Edit();
    riga->SetDataN(u"Zone", u"Europe/Nowhere");
    riga->Cancel();
    link.Name("10 Estonia gets another name");
    Rename(world.Countries, u"EE", u"Zealandia");
    link.Name("11 delete Turku");
    turku->Delete();
    link.Name("12 signal Riga");
    riga->Signal();
    heard.Print();
    Title("The same view afterwards");
    PrintNames(view, 0, view->Count());

    link.SetView(nullptr);
    view->Free();
    Rename(world.Countries, u"EE", u"Estonia");
    move(vilnius, u"Country", u"LT");
    tartu->Delete();
    oslo->Delete();
}

}  // namespace world
