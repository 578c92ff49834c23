// The values of a search key in columns that read other tables or are calculated on reading.
//
// Shape      A record has no place for such a value, only for the key of a row that may not exist.
//            While a TKdsKeyValues lives, reads of its record answer what was added here, and
//            null in the other columns of this kind.
// Ownership  Borrows the record. They end in the order opposite to that in which they began.
// Errors     CannotConvertValue for a value that is none of the type of what the column shows.
#pragma once

#include <list>

#include "kds/core/Kdsrecords.h"

namespace kds {

class TKdsKeyValues {
public:
    explicit TKdsKeyValues(TKdsRecord* record) noexcept;
    ~TKdsKeyValues();
    TKdsKeyValues(const TKdsKeyValues&) = delete;
    TKdsKeyValues& operator=(const TKdsKeyValues&) = delete;
    void Add(const TKdsColumn* column, const TVariant& value);
    bool Read(const TKdsColumn* column, TKdsValue& value) const noexcept;

private:
    friend class TKdsTable;
    struct TEntry {
        const TKdsColumn* Column = nullptr;
        TKdsScratch Scratch;
        TKdsValue Value;
    };
    TKdsTable* fTable;
    TKdsRecord* fRecord;
    const TKdsKeyValues* fOuter;
    std::list<TEntry> fEntries;  // whose values lie in them
};

}  // namespace kds
