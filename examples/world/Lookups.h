// Zones that show their countries' names, calculated columns, filters, and a view watched through a
// dozen changes.
#pragma once

#include "examples/world/Data.h"

namespace world {

void ShowLookups(const TWorld& world);
void ShowCalculated(const TWorld& world);
void ShowFilters(const TWorld& world);
void ShowWatch(const TWorld& world);

}  // namespace world
