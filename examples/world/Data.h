// The store of the demo: its tables, and how they are filled from the time-zone database's files.
#pragma once

#include <string>
#include <string_view>

#include "kds/kds.h"

namespace world {

struct TWorld {
    kds::TKdsStore* Store = nullptr;
    kds::TKdsTable* Countries = nullptr;  // Code, Name
    // Country, Zone, Latitude, Longitude, Coordinates, Comments, CountryName from the other table.
    kds::TKdsTable* Zones = nullptr;
};

// The tables with their columns and keys, still empty.
[[nodiscard]] TWorld CreateWorld(std::u16string_view name = u"World");
// Fills them from iso3166.tab and zone1970.tab of this folder.
void LoadWorld(const TWorld& world, const std::string& folder);

struct TPlace {
    kds::TFixed Latitude;
    kds::TFixed Longitude;
};
// From an ISO 6709 text, "+4230+00131" or "-690022+0393524": degrees, rounded to 4 places.
[[nodiscard]] TPlace ParseCoordinates(std::string_view text);

}  // namespace world
