// The keys by which a column finds its row in another table.
//
// Shape      TKdsNormalLookup: offset 0, 4 bytes, position of the master row in its table's record
//            list; offset 4, 4 bytes, its row identifier. Unresolved: all bits set.
//            TKdsStaticLookup: 2 bytes, the position; unresolved: 65535. Both lie in the record's
//            buffer as they are.
// Validity   A key is a hint that is checked on every read: the master row at the position must
//            hold the value of the key column. Where it does not, the row is looked up by value.
#pragma once

#include <cstdint>

#include "kds/core/Kdslayout.h"

namespace kds {

class TKdsTableRecordList;

struct TKdsNormalLookup {
    std::int32_t Index = -1;
    std::uint32_t RowID = 0xffff'ffffu;
};
static_assert(sizeof(TKdsNormalLookup) == 8);

struct TKdsStaticLookup {
    std::uint16_t Index = 0xffffu;
};
static_assert(sizeof(TKdsStaticLookup) == 2);

enum class TKdsLookupKind : std::uint8_t { lkNormal, lkShort };
using enum TKdsLookupKind;

// How most reads of a reference column go: the key column is a stored number, as is the master's,
// and what is shown is stored. Found once for the layouts of both tables.
struct TKdsLookupPath {
    std::uint32_t Version = 0;  // of the layouts; 0: not found, or they go another way
    std::uint32_t MasterVersion = 0;
    const TKdsLayout* MasterLayout = nullptr;
    const TKdsTableRecordList* Masters = nullptr;
    bool IsShort = false;
    TKdsSlot Source;  // the key column
    TKdsSlot Key;     // the reference column
    TKdsSlot Field;   // in the master
    TKdsSlot Shown;

    [[nodiscard]] bool IsFor(const TKdsLayout& layout) const noexcept {
        return Version == layout.Version() && MasterVersion == MasterLayout->Version();
    }
};

}  // namespace kds
