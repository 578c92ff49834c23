#include "kds/core/Kdskeyvalues.h"

#include "kds/core/Kdstables.h"

namespace kds {

TKdsKeyValues::TKdsKeyValues(TKdsRecord* record) noexcept
    : fTable(record->Table()), fRecord(record), fOuter(fTable->fKeyValues) {
    fTable->fKeyValues = this;
}

TKdsKeyValues::~TKdsKeyValues() { fTable->fKeyValues = fOuter; }

void TKdsKeyValues::Add(const TKdsColumn* column, const TVariant& value) {
    if (!value.Assigned()) return;
    const TKdsColumn* shown = column;
    while (shown->LooksUp() && shown->Shown() != nullptr) shown = shown->Shown();
    TEntry& entry = fEntries.emplace_back();
    HoldVariant(shown->DataType(), value, entry.Scratch, entry.Value);
    entry.Column = column;  // from here on it is found
}

bool TKdsKeyValues::Read(const TKdsColumn* column, TKdsValue& value) const noexcept {
    for (const TEntry& entry : fEntries) {
        if (entry.Column != column) continue;
        value = entry.Value;
        return true;
    }
    return false;
}

const TKdsKeyValues* TKdsTable::KeyValuesFor(const TKdsRecord* record) const noexcept {
    const TKdsKeyValues* values = fKeyValues;
    while (values != nullptr && values->fRecord != record) values = values->fOuter;
    return values;
}

}  // namespace kds
