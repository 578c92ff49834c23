// How a reference column finds its row in another table.
#include "kds/core/Kdsrecords.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdskeyvalues.h"
#include "kds/core/Kdsswapper.h"
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

// Numbers that are stored are compared as they lie; texts by the rule of the master's key.
bool HoldsKey(TKdsRecord* row, const TKdsColumn* column, const void* data, std::int32_t size) {
    const TKdsColumn* const field = column->MasterField();
    const TKdsSlot& slot = row->Table()->Layout().Slot(field->Index());
    if (slot.IsKeyNumber() && slot.Size == size) return row->HasNumber(slot, data);
    TKdsScratch scratch;
    TKdsValue value;
    if (!row->ReadValue(field, TKdsReading::Posted, scratch, value)) return false;
    const bool isText = IsTextType(value.Type);
    if (!isText && value.Size != size) return false;
    return CompareData(value.Type, value.Data, data, value.Size, size,
                       isText ? KeyRule(column) : TKdsCompareOptions{}) == 0;
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
        primary->Columns()->Count() > 0 && primary->Columns()->GetItem(0) == field &&
        master->Layout().Slot(field->Index()).Kind <= skCustom) {
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
        key = KeyOf(primary->ItemAt(index));
        return true;
    }
    std::int32_t index = 0;
    for (TKdsRecord* const row : *rows) {
        if (HoldsKey(row, column, data, size)) {
            key = {index, row->RowID()};
            return true;
        }
        ++index;
    }
    return false;
}

bool TKdsRecord::IsValidReference(const TKdsColumn* column, TKdsNormalLookup& key, const void* data,
                                  std::int32_t size) {
    if (column->MasterTable() == nullptr || column->MasterField() == nullptr) return false;
    if (data == nullptr || size < 0) return false;
    const TKdsRecord* const row = ValidRow(column, key, data, size);
    if (row == nullptr) return false;
    if (!column->Occurences().Has(coShortLookup)) key.RowID = row->RowID();
    return true;
}

TKdsRecord* TKdsRecord::ValidRow(const TKdsColumn* column, const TKdsNormalLookup& key,
                                 const void* data, std::int32_t size) {
    TKdsRecord* const row = column->MasterTable()->Records()->LookedUp(key.Index);
    return row != nullptr && HoldsKey(row, column, data, size) ? row : nullptr;
}

void TKdsRecord::MarkAsUnresolved(const TKdsColumn* column, void* key) noexcept {
    SaveKey(column, {}, static_cast<std::byte*>(key));
}

// What a write of a key column stores beside it: all that follow one key column look into the same
// column of the master. Unresolved in those that resolve on their first read, and in those whose
// filter does not let the row pass.
TKdsNormalLookup TKdsRecord::KeyFor(const TKdsColumn* source, const void* data, std::int32_t size,
                                    TFollowerSet& unresolved) {
    TKdsNormalLookup key;
    const TKdsTable* const master = source->MasterTable();
    if (master == nullptr || !source->CanResolve()) return key;
    bool wanted = false;
    bool filters = false;
    const auto want = [&](const TKdsColumn* column) {
        if (column->IsLazy()) return;
        wanted = true;
        filters = filters || !column->LookupFilter().empty();
        if (column->Occurences().Has(coShortLookup) &&
            master->Records()->Count() > TKdsStaticLookup{}.Index) {
            KdsError(u"StaticLookupLong", {master->Name(), fTable->Name(), column->Name()});
        }
    };
    if (source->GetIsVirtualKey()) want(source);
    for (const TKdsColumn* column = source->fFirstFollower; column != nullptr;
         column = column->fNextFollower) {
        want(column);
    }
    if (!wanted || !ResolveLookupKey(source, data, size, key) || !filters) return key;
    TKdsRecord* const row = master->Records()->ItemAt(key.Index);
    for (const TKdsColumn* column = source->fFirstFollower; column != nullptr;
         column = column->fNextFollower) {
        if (!column->PassesLookupFilter(row)) unresolved.push_back(column);
    }
    // A virtual key is what its references are.
    if (source->GetIsVirtualKey() && !unresolved.empty()) key = {};
    return key;
}

TKdsNormalLookup TKdsRecord::KeyOf(const TKdsRecord* row) {
    return {row->fTable->Records()->PositionOf(row), row->fRowID};
}

// The row with this key, where the key alone says which: nullptr when it has gone.
TKdsRecord* TKdsRecord::RowOfKey(const TKdsColumn* column, const TKdsNormalLookup& key) {
    TKdsTableRecordList* const rows = column->MasterTable()->Records();
    TKdsRecord* const row = rows->LookedUp(key.Index);
    if (column->Occurences().Has(coShortLookup)) return row;
    if (row != nullptr && row->RowID() == key.RowID) return row;
    return key.RowID == NoRowID ? nullptr : rows->FindRowID(key.RowID);
}

// ---- Reading ------------------------------------------------------------------------------

// Where a key leads astray. The row that it meant may only have another place now, and is then
// right whatever the lookup filter says; any other row is one that is found anew.
bool TKdsRecord::FindMaster(const TKdsColumn* column, const TKdsValue& value,
                            TKdsNormalLookup& key) {
    TKdsTableRecordList* const rows = column->MasterTable()->Records();
    if (!column->LookupFilter().empty() && key.RowID != NoRowID) {
        TKdsRecord* const row = rows->FindRowID(key.RowID);
        if (row != nullptr && HoldsKey(row, column, value.Data, value.Size)) {
            key = KeyOf(row);
            return true;
        }
    }
    key = {};
    if (!ResolveLookupKey(column, value.Data, value.Size, key)) return false;
    bool passes = false;
    try {
        passes = column->PassesLookupFilter(rows->ItemAt(key.Index));
    } catch (const EKdsError&) {
        // A filter for columns that have gone: the next write tells.
    }
    if (!passes) key = {};
    return passes;
}

TKdsRecord* TKdsRecord::MasterRow(const TKdsColumn* column, TKdsReading reading, bool& hasKey) {
    hasKey = false;
    const TKdsRowPin pin(this);  // rows of this very table may be read on the way
    if (column->IsVirtual()) {
        const TKdsColumn* const holder = column->KeyHolder();
        const TKdsSlot& place = fTable->Layout().Slot(holder->Index());
        const std::byte* const values = BufferFor(reading);
        hasKey = values != nullptr && place.HasValue(values);
        if (!hasKey || column->MasterTable() == nullptr) return nullptr;
        return RowOfKey(holder, LoadKey(holder, values + place.Offset));
    }
    const TKdsColumn* const source = column->SourceField();
    if (source == nullptr) return nullptr;
    std::optional<TKdsScratch> scratch;
    TKdsValue value;
    const TKdsSlot& from = fTable->Layout().Slot(source->Index());
    if (from.Kind == skPlain && from.StampOffset < 0) {
        const std::byte* const values = BufferFor(reading);
        hasKey = values != nullptr && from.HasValue(values);
        if (hasKey) ReadSlot(from, values, value);
    } else {
        hasKey = ReadValue(source, reading, scratch.emplace(), value);
    }
    if (!hasKey || column->MasterTable() == nullptr || !column->CanResolve()) return nullptr;
    const TKdsSlot& slot = fTable->Layout().Slot(column->Index());
    const std::byte* const buffer = BufferFor(reading);
    TKdsNormalLookup key;
    if (slot.HasValue(buffer)) key = LoadKey(column, buffer + slot.Offset);
    TKdsRecord* row = ValidRow(column, key, value.Data, value.Size);
    if (row == nullptr) {
        if (!FindMaster(column, value, key)) return nullptr;
        row = column->MasterTable()->Records()->ItemAt(key.Index);
        // The first read of a lazy column writes what it has found, where only this thread reads.
        if (column->IsLazy() && slot.HasValue(buffer) && !InParallelSort &&
            (!column->Occurences().Has(coShortLookup) || key.Index < TKdsStaticLookup{}.Index)) {
            SaveKey(column, key, const_cast<std::byte*>(buffer) + slot.Offset);
        }
    }
    return row;
}

bool TKdsRecord::FollowLookup(const TKdsColumn* column, TKdsReading reading, TKdsScratch& scratch,
                              TKdsValue& value) {
    if (const TKdsKeyValues* const key = fTable->KeyValuesOf(this)) return key->Read(column, value);
    if (column->fMasterTable != nullptr && !InParallelSort) column->FindPath();
    bool hasKey = false;
    TKdsRecord* const row = MasterRow(column, reading, hasKey);
    if (row == nullptr) {
        value.Size = hasKey ? -1 : 0;
        return false;
    }
    return row->ReadValue(column->Shown(), reading, scratch, value);
}

TKdsRecord* TKdsRecord::GetAsRowC(const TKdsColumn* column) {
    CheckColumn(column);
    if (!column->GetIsReference()) KdsError(u"LookupReference");
    bool hasKey = false;
    return MasterRow(column, TKdsReading::Current, hasKey);
}

void TKdsRecord::RepairKey(const TKdsColumn* column) {
    if (column->IsVirtual()) column = column->KeyHolder();
    const TKdsSlot& slot = fTable->Layout().Slot(column->Index());
    if (column->MasterTable() == nullptr || !column->CanResolve()) return;
    // A row that is out is right as well, only slower: what is mended there would be read once.
    if (IsOut() || fBuffer.Original == nullptr || !slot.HasValue(fBuffer.Original)) return;
    std::byte* const place = fBuffer.Original + slot.Offset;
    TKdsNormalLookup key = LoadKey(column, place);
    if (column->IsVirtual()) {
        const TKdsRecord* const row = RowOfKey(column, key);
        if (row != nullptr && !column->Occurences().Has(coShortLookup)) {
            SaveKey(column, KeyOf(row), place);
        }
        return;
    }
    TKdsScratch scratch;
    TKdsValue value;
    if (!ReadValue(column->SourceField(), TKdsReading::Posted, scratch, value)) return;
    if (IsValidReference(column, key, value.Data, value.Size)) return;
    FindMaster(column, value, key);
    if (column->Occurences().Has(coShortLookup) && key.Index >= TKdsStaticLookup{}.Index) key = {};
    SaveKey(column, key, place);
}

// ---- Writing ------------------------------------------------------------------------------

// The value, and behind it the keys of all columns that follow it. Looking them up may fail and
// comes first; once the value is stored the buffer has its full size, so that nothing fails.
void TKdsRecord::StoreKey(const TKdsColumn* column, const void* data, std::int32_t size) {
    const TKdsSlot& slot = fTable->Layout().Slot(column->Index());
    if (data == nullptr && size == 0) data = "";
    // What is no value at all is refused before anybody reads it.
    if (data == nullptr || size < 0 ||
        (slot.Kind == skLookup && !IsTextType(slot.Type) && size != column->DataSize())) {
        if (data == nullptr) throw EInvalidArgument(u"A value needs its data");
        RaiseMismatch(column, u"DataBufferMismatch");
    }
    TFollowerSet unresolved;  // takes memory only for filters
    const TKdsNormalLookup key = KeyFor(column, data, size, unresolved);
    if (slot.Kind == skLookup) {
        StoreVirtual(column, key, unresolved);
        return;
    }
    // The value may lie in the buffer that goes when it is made full-size.
    if (MovesForWrite(slot)) {
        const std::size_t unit = slot.Type == dtWideString ? 2 : 1;
        const auto* const bytes = static_cast<const std::byte*>(data);
        const std::vector<std::byte> copy(bytes, bytes + static_cast<std::size_t>(size) * unit);
        ExpandBuffer();
        StorePlain(column, slot, copy.data(), size);
    } else {
        StorePlain(column, slot, data, size);
    }
    SaveKeys(column, key, unresolved);
}

// A key column that keeps no value, and the keys of those that follow it.
void TKdsRecord::StoreVirtual(const TKdsColumn* source, const TKdsNormalLookup& key,
                              const TFollowerSet& unresolved) {
    const TKdsSlot& slot = fTable->Layout().Slot(source->Index());
    std::byte* const buffer = WritableBuffer(slot);
    if (slot.Size > 0) SaveKey(source, key, buffer + slot.Offset);
    slot.MarkValue(buffer);
    SaveKeys(source, key, unresolved);
}

TKdsNormalLookup TKdsRecord::VirtualKeyIn(const TKdsColumn* source,
                                          const std::byte* buffer) noexcept {
    const TKdsColumn* const holder = source->KeyHolder();
    const TKdsSlot& slot = source->Table()->Layout().Slot(holder->Index());
    return slot.HasValue(buffer) ? LoadKey(holder, buffer + slot.Offset) : TKdsNormalLookup{};
}

void TKdsRecord::SetVirtualKeyIn(const TKdsColumn* source, const TKdsNormalLookup& key,
                                 std::byte* buffer) noexcept {
    const TKdsLayout& layout = source->Table()->Layout();
    const auto set = [&](const TKdsColumn* column) {
        const TKdsSlot& slot = layout.Slot(column->Index());
        if (slot.Size > 0 && slot.HasValue(buffer)) SaveKey(column, key, buffer + slot.Offset);
    };
    set(source);
    for (const TKdsColumn* column = source->fFirstFollower; column != nullptr;
         column = column->fNextFollower) {
        set(column);
    }
}

void TKdsRecord::SaveKeys(const TKdsColumn* source, const TKdsNormalLookup& key,
                          const TFollowerSet& unresolved) {
    for (const TKdsColumn* column = source->fFirstFollower; column != nullptr;
         column = column->fNextFollower) {
        const TKdsSlot& slot = fTable->Layout().Slot(column->Index());
        std::byte* const buffer = WritableBuffer(slot);
        const bool leaves =
            column->IsLazy() || std::ranges::find(unresolved, column) != unresolved.end();
        SaveKey(column, leaves ? TKdsNormalLookup{} : key, buffer + slot.Offset);
        slot.MarkValue(buffer);
    }
}

void TKdsRecord::Unresolve(const TKdsColumn* column) noexcept {
    const TKdsSlot& slot = fTable->Layout().Slot(column->Index());
    const auto unresolve = [&](std::byte* buffer) {
        if (buffer != nullptr && slot.HasValue(buffer)) SaveKey(column, {}, buffer + slot.Offset);
    };
    unresolve(fBuffer.Proposed);
    if (fRowState == rsDetached) return;
    try {
        if (IsOut()) fTable->fSwapper->BringIn(this);
        unresolve(fBuffer.Original);
        if (IsSwapped() && !fTable->fSwapper->KeepUnsaved(this)) SetBit(StaleKeysBit, true);
        if (fRowState == rsRegular) fTable->fSwapper->CommitUpdate(this);
    } catch (...) {
        // It cannot be read, and is without keys when it can be; or it stays in memory.
        if (IsOut()) SetBit(StaleKeysBit, true);
    }
}

void TKdsRecord::ForgetKeysIn(std::byte* buffer) const noexcept {
    for (const TKdsColumn* const column : *fTable->Columns()) {
        const TKdsSlot& slot = fTable->Layout().Slot(column->Index());
        if (!column->IsVirtual() || column->ActualSize() == 0 || !slot.HasValue(buffer)) continue;
        SaveKey(column, {}, buffer + slot.Offset);
    }
}

void TKdsRecord::NullReferences(const TKdsColumn* source) {
    for (const TKdsColumn* column = source->fFirstFollower; column != nullptr;
         column = column->fNextFollower) {
        StoreNull(column);
    }
}

// A key that the host brings: kept when it leads to the row of the key column's value.
void TKdsRecord::StoreReferenceKey(const TKdsColumn* column, const TKdsSlot& slot, const void* data,
                                   std::int32_t size) {
    if (size != slot.Size || data == nullptr) RaiseMismatch(column, u"DataBufferMismatch");
    TKdsNormalLookup key = LoadKey(column, static_cast<const std::byte*>(data));
    const TKdsColumn* const source = column->SourceField();
    if (column->IsVirtual()) {
        const TKdsRecord* const row =
            column->MasterTable() == nullptr ? nullptr : RowOfKey(column, key);
        StoreVirtual(source, row == nullptr ? TKdsNormalLookup{} : KeyOf(row), {});
        return;
    }
    TKdsScratch scratch;
    TKdsValue value;
    const bool hasKey =
        column->CanResolve() && ReadValue(source, TKdsReading::Current, scratch, value);
    if (!hasKey || !IsValidReference(column, key, value.Data, value.Size) ||
        !column->PassesLookupFilter(column->MasterTable()->Records()->ItemAt(key.Index))) {
        key = {};
    }
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
    if (column->IsVirtual()) {
        CheckWrite(column->SourceField());
        if (master->Owner() == nullptr) throw EInvalidArgument(u"The record is not in its table");
        StoreVirtual(column->SourceField(), KeyOf(master), {});
        return;
    }
    CopyValueC(column->SourceField(), master, column->MasterField());
}

}  // namespace kds
