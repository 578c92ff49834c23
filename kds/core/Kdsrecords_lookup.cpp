// How a reference column finds its row in another table.
#include "kds/core/Kdsrecords.h"

#include <cstring>

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdstables.h"
#include "kds/util/Sortutils.h"
#include "kds/views/Kdsviews.h"

namespace kds {
namespace {

constexpr std::int32_t WorthSearching = 10;  // more rows than this

TKdsNormalLookup LoadKey(const TKdsColumn* column, const std::byte* place) noexcept {
    if (!column->Occurences().Has(coShortLookup)) return LoadRaw<TKdsNormalLookup>(place);
    const std::uint16_t index = LoadRaw<TKdsStaticLookup>(place).Index;
    return {index == TKdsStaticLookup{}.Index ? -1 : index, NoRowID};
}

void SaveKey(const TKdsColumn* column, const TKdsNormalLookup& key, std::byte* place) noexcept {
    if (!column->Occurences().Has(coShortLookup)) {
        StoreRaw(place, key);
    } else if (key.Index < 0) {
        StoreRaw(place, TKdsStaticLookup{});
    } else {
        StoreRaw(place, TKdsStaticLookup{static_cast<std::uint16_t>(key.Index)});
    }
}

// What is equal in the order of the master's key is equal here, too.
TKdsCompareOptions KeyRule(const TKdsColumn* column) {
    const TKdsView* const primary = column->MasterTable()->PrimaryView();
    TKdsCompareOptions options;
    if (primary != nullptr && primary->Columns()->Count() > 0 &&
        primary->Columns()->GetItem(0) == column->MasterField()) {
        options.Set(coNoCase, primary->Columns()->Caseless(0));
    }
    return options;
}

bool HoldsKey(TKdsRecord* row, const TKdsColumn* field, const void* data, std::int32_t size,
              TKdsCompareOptions rule) {
    TKdsScratch scratch;
    TKdsValue value;
    if (!row->ReadValue(field, TKdsReading::Posted, scratch, value)) return false;
    if (!IsTextType(value.Type) && value.Size != size) return false;
    if (value.Size == size && (size == 4 || size == 8) && !IsTextType(value.Type) &&
        value.Type != dtDouble && value.Type != dtCustomData) {
        return std::memcmp(value.Data, data, static_cast<std::size_t>(size)) == 0;
    }
    return CompareData(value.Type, value.Data, data, value.Size, size, rule) == 0;
}

}  // namespace

// ---- Keys ---------------------------------------------------------------------------------

bool TKdsRecord::ResolveLookupKey(const TKdsColumn* column, const void* data, std::int32_t size,
                                  TKdsNormalLookup& key) {
    TKdsTable* const master = column->MasterTable();
    const TKdsColumn* const field = column->MasterField();
    if (master == nullptr || field == nullptr || data == nullptr || size < 0) return false;
    TKdsTableRecordList* const rows = master->Records();
    const TKdsView* const primary = master->PrimaryView();
    if (rows->Count() > WorthSearching && primary != nullptr && primary->Actual() &&
        primary->Columns()->Count() > 0 && primary->Columns()->GetItem(0) == field) {
        // A longer text than the master can hold is none of its keys.
        const TKdsSlot& slot = master->Layout().Slot(field->Index());
        const bool fits = slot.Kind == skMemo ||
                          (IsTextType(slot.Type) ? size <= field->Length() : size == slot.Size);
        if (!fits) return false;
        TOwned<TKdsRecord> locator = master->TakeLocator();
        TScopeGuard giveBack([&] { master->GiveLocator(std::move(locator)); });
        locator->StorePlain(field, slot, data, size);
        std::int32_t index = -1;
        bool found = false;
        master->PrimaryView()->Search(locator.get(), nullptr, 1, {}, index, found);
        if (!found) return false;
        const TKdsRecord* const row = primary->ItemAt(index);
        key = {rows->PositionOf(row), row->RowID()};
        return true;
    }
    const TKdsCompareOptions rule = KeyRule(column);
    std::int32_t index = 0;
    for (TKdsRecord* const row : *rows) {
        if (HoldsKey(row, field, data, size, rule)) {
            key = {index, row->RowID()};
            return true;
        }
        ++index;
    }
    return false;
}

bool TKdsRecord::IsValidReference(const TKdsColumn* column, TKdsNormalLookup& key, const void* data,
                                  std::int32_t size) {
    TKdsTable* const master = column->MasterTable();
    if (master == nullptr || column->MasterField() == nullptr) return false;
    if (data == nullptr || size < 0) return false;
    if (key.Index < 0 || key.Index >= master->Records()->Count()) return false;
    TKdsRecord* const row = master->Records()->ItemAt(key.Index);
    if (!HoldsKey(row, column->MasterField(), data, size, KeyRule(column))) return false;
    if (!column->Occurences().Has(coShortLookup)) key.RowID = row->RowID();
    return true;
}

void TKdsRecord::MarkAsUnresolved(const TKdsColumn* column, void* key) noexcept {
    SaveKey(column, {}, static_cast<std::byte*>(key));
}

// What a write stores: nothing yet in a column that resolves on the first read.
TKdsNormalLookup TKdsRecord::KeyFor(const TKdsColumn* column, const void* data, std::int32_t size) {
    TKdsNormalLookup key;
    const TKdsTable* const master = column->MasterTable();
    if (master == nullptr || !column->CanResolve()) return key;
    if (column->Occurences().Has(coLazyLookup)) return key;
    if (column->Occurences().Has(coShortLookup) &&
        master->Records()->Count() > TKdsStaticLookup{}.Index) {
        KdsError(u"StaticLookupLong", {master->Name(), fTable->Name(), column->Name()});
    }
    ResolveLookupKey(column, data, size, key);
    return key;
}

// ---- Reading ------------------------------------------------------------------------------

TKdsRecord* TKdsRecord::MasterRow(const TKdsColumn* column, TKdsReading reading, bool& hasKey) {
    hasKey = false;
    const TKdsColumn* const source = column->SourceField();
    if (source == nullptr) return nullptr;
    TKdsScratch scratch;
    TKdsValue value;
    hasKey = ReadValue(source, reading, scratch, value);
    if (!hasKey || column->MasterTable() == nullptr || !column->CanResolve()) return nullptr;
    const TKdsSlot& slot = fTable->Layout().Slot(column->Index());
    const std::byte* const buffer = BufferFor(reading);
    TKdsNormalLookup key;
    if (slot.HasValue(buffer)) key = LoadKey(column, buffer + slot.Offset);
    if (!IsValidReference(column, key, value.Data, value.Size)) {
        key = {};
        if (!ResolveLookupKey(column, value.Data, value.Size, key)) return nullptr;
        // The first read of a lazy column writes what it has found, where only this thread reads.
        if (column->Occurences().Has(coLazyLookup) && slot.HasValue(buffer) && !InParallelSort &&
            (!column->Occurences().Has(coShortLookup) || key.Index < TKdsStaticLookup{}.Index)) {
            SaveKey(column, key, const_cast<std::byte*>(buffer) + slot.Offset);
        }
    }
    return column->MasterTable()->Records()->ItemAt(key.Index);
}

bool TKdsRecord::ReadLookup(const TKdsColumn* column, TKdsReading reading, TKdsScratch& scratch,
                            TKdsValue& value) {
    bool hasKey = false;
    TKdsRecord* const row = MasterRow(column, reading, hasKey);
    if (row == nullptr) {
        value.Size = hasKey ? -1 : 0;
        return false;
    }
    const TKdsColumn* const shown =
        column->TargetField() != nullptr ? column->TargetField() : column->MasterField();
    return row->ReadValue(shown, reading, scratch, value);
}

TKdsRecord* TKdsRecord::GetAsRowC(const TKdsColumn* column) {
    CheckColumn(column);
    if (!column->GetIsReference()) KdsError(u"LookupReference");
    bool hasKey = false;
    return MasterRow(column, TKdsReading::Current, hasKey);
}

void TKdsRecord::RepairKey(const TKdsColumn* column) {
    const TKdsSlot& slot = fTable->Layout().Slot(column->Index());
    const TKdsColumn* const source = column->SourceField();
    if (source == nullptr || fBuffer.Original == nullptr || !slot.HasValue(fBuffer.Original)) {
        return;
    }
    TKdsScratch scratch;
    TKdsValue value;
    if (!column->CanResolve() || !ReadValue(source, TKdsReading::Posted, scratch, value)) return;
    std::byte* const place = fBuffer.Original + slot.Offset;
    TKdsNormalLookup key = LoadKey(column, place);
    if (IsValidReference(column, key, value.Data, value.Size)) return;
    key = {};
    ResolveLookupKey(column, value.Data, value.Size, key);
    if (column->Occurences().Has(coShortLookup) && key.Index >= TKdsStaticLookup{}.Index) key = {};
    SaveKey(column, key, place);
}

// ---- Writing ------------------------------------------------------------------------------

// The value, and behind it the keys of all columns that follow it. Looking them up may fail and
// comes first; once the value is stored the buffer has its full size, so that nothing fails.
void TKdsRecord::StoreKey(const TKdsColumn* column, const void* data, std::int32_t size) {
    struct TFollower {
        const TKdsSlot* Slot;
        const TKdsColumn* Column;
        TKdsNormalLookup Key;
    };
    std::vector<TFollower> followers;
    const TKdsLayout& layout = fTable->Layout();
    if (data == nullptr && size == 0) data = "";
    // What is no value at all is refused before anybody reads it.
    if (data == nullptr || size < 0) StorePlain(column, layout.Slot(column->Index()), data, size);
    for (const TKdsColumn* const other : *fTable->Columns()) {
        if (other->SourceField() != column) continue;
        followers.push_back({&layout.Slot(other->Index()), other, KeyFor(other, data, size)});
    }
    if (followers.empty()) {
        StorePlain(column, layout.Slot(column->Index()), data, size);
        return;
    }
    // The value may lie in the buffer that goes when it is made full-size.
    if (MovesForWrite(*followers.back().Slot)) {
        const std::size_t unit = layout.Slot(column->Index()).Type == dtWideString ? 2 : 1;
        const auto* const bytes = static_cast<const std::byte*>(data);
        const std::vector<std::byte> copy(bytes, bytes + static_cast<std::size_t>(size) * unit);
        ExpandBuffer();
        StorePlain(column, layout.Slot(column->Index()), copy.data(), size);
    } else {
        StorePlain(column, layout.Slot(column->Index()), data, size);
    }
    for (const TFollower& follower : followers) {
        std::byte* const buffer = WritableBuffer(*follower.Slot);
        SaveKey(follower.Column, follower.Key, buffer + follower.Slot->Offset);
        follower.Slot->MarkValue(buffer);
    }
}

void TKdsRecord::NullReferences(const TKdsColumn* source) {
    for (const TKdsColumn* const other : *fTable->Columns()) {
        if (other->SourceField() == source) StoreNull(other);
    }
}

// A key that the host brings: kept when it leads to the row of the key column's value.
void TKdsRecord::StoreReferenceKey(const TKdsColumn* column, const TKdsSlot& slot, const void* data,
                                   std::int32_t size) {
    if (size != slot.Size || data == nullptr) RaiseMismatch(column, u"DataBufferMismatch");
    TKdsNormalLookup key = LoadKey(column, static_cast<const std::byte*>(data));
    TKdsScratch scratch;
    TKdsValue value;
    const TKdsColumn* const source = column->SourceField();
    const bool hasKey =
        column->CanResolve() && ReadValue(source, TKdsReading::Current, scratch, value);
    if (!hasKey || !IsValidReference(column, key, value.Data, value.Size)) key = {};
    std::byte* const buffer = WritableBuffer(slot);
    SaveKey(column, key, buffer + slot.Offset);
    slot.MarkValue(buffer);
}

void TKdsRecord::SetAsRowC(const TKdsColumn* column, TKdsRecord* master) {
    CheckColumn(column);
    if (!column->GetIsReference() || column->SourceField() == nullptr) {
        KdsError(u"LookupReference");
    }
    if (master == nullptr) {
        SetNullC(column->SourceField());
        return;
    }
    if (master->Table() != column->MasterTable()) {
        throw EInvalidArgument(u"The record does not belong to the table that is looked into");
    }
    CopyValueC(column->SourceField(), master, column->MasterField());
}

}  // namespace kds
