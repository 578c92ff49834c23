// The whole Unicode character table in the store, and how fast it got there.
#pragma once

#include "kds/kds.h"

namespace world {

// Reads UnicodeData.txt where Debian's package unicode-data puts it.
void ShowLarge(kds::TKdsStore* store);

}  // namespace world
