#include "examples/world/Data.h"

#include "examples/world/Files.h"

namespace world {
namespace {

// DDMM, DDDMM, DDMMSS or DDDMMSS behind the sign: the last pairs are told by the length.
kds::TFixed Degrees(std::string_view text) {
    const std::string_view digits = text.substr(1);
    const bool hasSeconds = digits.size() > 5;
    const std::size_t degreeDigits = digits.size() - (hasSeconds ? 4 : 2);
    int seconds = 3600 * ToNumber<int>(digits.substr(0, degreeDigits));
    seconds += 60 * ToNumber<int>(digits.substr(degreeDigits, 2));
    if (hasSeconds) seconds += ToNumber<int>(digits.substr(degreeDigits + 2));
    return kds::FixedDivide(text.front() == '-' ? -seconds : seconds, 3600, 4, kds::rmHalfEven);
}

}  // namespace

TPlace ParseCoordinates(std::string_view text) {
    const std::size_t middle = text.find_first_of("+-", 1);
    return {Degrees(text.substr(0, middle)), Degrees(text.substr(middle))};
}

TWorld CreateWorld(std::u16string_view name) {
    TWorld world;
    world.Store = kds::TKdsStore::Create(name);

    world.Countries = world.Store->Tables()->Add(u"Countries");
    world.Countries->Columns()->Add(u"Code", kds::dtChar, 2);
    world.Countries->Columns()->Add(u"Name", kds::dtWideString, 48)->SetAllowNull(false);
    world.Countries->SetPrimaryKey(u"Code");

    world.Zones = world.Store->Tables()->Add(u"Zones");
    kds::TKdsTableColumnList* const columns = world.Zones->Columns();
    columns->Add(u"Country", kds::dtChar, 2)->ForeignKey(u"Countries", u"Code");
    columns->Add(u"Zone", kds::dtAnsiString, 32);
    columns->Add(u"Latitude", kds::dtFixed)->SetAllowNull(false);
    columns->Add(u"Longitude", kds::dtFixed)->SetAllowNull(false);
    columns->Add(u"Coordinates", kds::dtAnsiString, 16);
    columns->Add(u"Comments", kds::dtAnsiString, 80);
    columns->AddLookup(u"CountryName", u"Country", u"Name");
    // Calculated when a row is inserted or posted, and with every read.
    columns->Add(u"FromEquator", kds::dtFixed)->SetExpression(u"ABS(Latitude)");
    kds::TKdsColumn* const label = columns->Add(u"Label", kds::dtWideString, 96);
    label->SetCalculated(true, /*stored=*/false);
    label->SetExpression(u"Zone || ' in ' || NVL(CountryName, Country)");
    world.Zones->SetPrimaryKey(u"Country, Zone");  // a key column is never null
    return world;
}

// Inside a load bracket the views are switched off; they are built once, when it is left.
void LoadWorld(const TWorld& world, const std::string& folder) {
    kds::TKdsLoad countries(world.Countries, kds::mtsMassive);
    const std::string countryText = ReadFile(folder + "/iso3166.tab");
    for (const auto& fields : SplitLines(countryText, '\t')) {
        world.Countries->Insert({fields.at(0), fields.at(1)});
    }
    countries.Leave();

    kds::TKdsLoad zones(world.Zones, kds::mtsMassive);
    const std::string zoneText = ReadFile(folder + "/zone1970.tab");
    for (const auto& fields : SplitLines(zoneText, '\t')) {
        const TPlace place = ParseCoordinates(fields.at(1));
        const kds::TVariant comments =
            fields.size() > 3 ? kds::TVariant(fields[3]) : kds::TVariant(kds::Null);
        // The first field lists the countries that share the zone: one row for each.
        for (const std::string_view country : Split(fields[0], ',')) {
            world.Zones->Insert({country, fields.at(2), kds::FixedToVar(place.Latitude),
                                 kds::FixedToVar(place.Longitude), fields[1], comments});
        }
    }
    zones.Leave();
    world.Zones->Recalculate();  // a massive bracket leaves that for later
}

}  // namespace world
