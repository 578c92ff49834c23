// How a record's values are found, read and written in their raw form.
#include "kds/core/Kdsrecords.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <optional>

#include "kds/core/Kdserrors.h"
#include "kds/core/Kdsswapper.h"
#include "kds/core/Kdstables.h"
#include "kds/expr/Varconvert.h"
#include "kds/platform/Text.h"

namespace kds {
void TKdsRecord::CheckColumn(const TKdsColumn* column) const {
    if (fTable == nullptr || column == nullptr || column->Owner() != fTable->Columns()) {
        RaiseColumn();
    }
}

void TKdsRecord::RaiseColumn() const {
    if (fTable == nullptr) KdsError(u"RecordStateInvalid");
    throw EInvalidArgument(u"The column does not belong to the record's table");
}

TKdsColumn* TKdsRecord::ColumnAt(std::int32_t index) const {
    if (fTable == nullptr) KdsError(u"RecordStateInvalid");
    return fTable->Columns()->Items(index);
}

TKdsColumn* TKdsRecord::ColumnBy(std::u16string_view name) const {
    if (fTable == nullptr) KdsError(u"RecordStateInvalid");
    return fTable->Columns()->Columns(name);
}

void TKdsRecord::RaiseMismatch(const TKdsColumn* column, std::u16string_view key) {
    KdsError(key, {column->Table()->Name(), column->Name()});
}

void TKdsRecord::RaiseNotRaw() { throw EVariantError(u"The column's values have another type"); }

// ---- Reading ------------------------------------------------------------------------------

namespace {

// The slot holds a value. Memo texts and custom data are answered through their reference.
[[gnu::always_inline]] inline TKdsValue StoredValue(const TKdsSlot& slot,
                                                    const std::byte* buffer) noexcept {
    const std::byte* const data = buffer + slot.Offset;
    switch (slot.Type) {
        case dtChar: {
            const void* const end = std::memchr(data, 0, static_cast<std::size_t>(slot.Size));
            const auto size =
                end == nullptr
                    ? slot.Size
                    : static_cast<std::int32_t>(static_cast<const std::byte*>(end) - data);
            return {data, size, slot.Type};
        }
        case dtAnsiString:
        case dtWideString: return {data + 2, LoadRaw<std::uint16_t>(data), slot.Type};
        case dtMemoString: {
            const std::string_view text = TAnsiString::View(LoadRaw<void*>(data));
            return {reinterpret_cast<const std::byte*>(text.data()),
                    static_cast<std::int32_t>(text.size()), slot.Type};
        }
        default: return {data, slot.Size, slot.Type};
    }
}

}  // namespace

void TKdsRecord::ReadSlot(const TKdsSlot& slot, const std::byte* buffer,
                          TKdsValue& value) noexcept {
    value = StoredValue(slot, buffer);
}

// The way of most reads of another table's value, which calls nothing: from the row's buffer to the
// row at the place of the key, if it has the value and is not being changed.
[[gnu::always_inline]] inline bool TKdsRecord::FindMasterValues(const TKdsLookupPath& path,
                                                                const std::byte* buffer,
                                                                const std::byte*& values) const {
    if (!path.IsFor(fTable->Layout()) || !path.Source.HasValue(buffer) ||
        !path.Key.HasValue(buffer)) {
        return false;
    }
    const std::byte* const key = buffer + path.Key.Offset;
    const TKdsRecord* const row = path.Masters->InDirectory(
        path.IsShort ? LoadRaw<std::uint16_t>(key) : LoadRaw<std::int32_t>(key));
    if (row == nullptr || row->fRowState != rsRegular || row->IsOut()) return false;
    values = row->fBuffer.Original;
    return path.Field.HasValue(values) &&
           path.Field.IsSameNumber(values + path.Field.Offset, buffer + path.Source.Offset);
}

bool TKdsRecord::ReadLookup(const TKdsColumn* column, TKdsReading reading, TKdsScratch& scratch,
                            TKdsValue& value) {
    const TKdsSlot& shown = column->fPath.Shown;
    const std::byte* const buffer = fTable->fKeyValues == nullptr ? BufferFor(reading) : nullptr;
    const std::byte* values = nullptr;
    if (buffer == nullptr || !FindMasterValues(column->fPath, buffer, values)) {
        return FollowLookup(column, reading, scratch, value);
    }
    if (!shown.HasValue(values)) return false;
    value = StoredValue(shown, values);
    return true;
}

bool TKdsRecord::ReadValue(const TKdsColumn* column, TKdsReading reading, TKdsScratch& scratch,
                           TKdsValue& value) {
    value = {};
    const TKdsSlot& slot = fTable->Layout().Slot(column->Index());
    if (slot.Kind >= skComputed || slot.StampOffset >= 0) {
        if (slot.Kind == skLookup) return ReadLookup(column, reading, scratch, value);
        if (reading == TKdsReading::Posted) {
            const TKdsStateScope posted = TKdsStateScope::Posted(this);
            return ReadValue(column, TKdsReading::Current, scratch, value);
        }
        if (slot.Kind == skComputed) return ReadComputed(column, scratch, value);
        if (!IsOut()) RefreshDelayed(column, slot);
    }
    if (IsOut()) return ReadOut(column, slot, scratch, value);
    const std::byte* const buffer = BufferFor(reading);
    if (buffer == nullptr || !slot.HasValue(buffer)) return false;
    value = StoredValue(slot, buffer);
    return true;
}

// Of a row that is out. Copied, because reading another such row takes the buffer away.
bool TKdsRecord::ReadOut(const TKdsColumn* column, const TKdsSlot& slot, TKdsScratch& scratch,
                         TKdsValue& value) {
    std::optional<TKdsRowPin> pin;
    if (slot.StampOffset >= 0) {
        pin.emplace(this);
        RefreshDelayed(column, slot);
    }
    const std::byte* const buffer = FindBuffer();
    if (buffer == nullptr || !slot.HasValue(buffer)) return false;
    value = StoredValue(slot, buffer);
    const auto size = static_cast<std::size_t>(value.Size);
    if (slot.Type == dtWideString) {
        scratch.Wide.resize(size);
        if (size > 0) std::memcpy(scratch.Wide.data(), value.Data, size * sizeof(char16_t));
        value.Data = reinterpret_cast<const std::byte*>(scratch.Wide.data());
    } else if (IsTextType(slot.Type) || size > sizeof scratch.Number) {
        scratch.Ansi.assign(reinterpret_cast<const char*>(value.Data), size);
        value.Data = reinterpret_cast<const std::byte*>(scratch.Ansi.data());
    } else {
        if (slot.Type == dtCustomData) scratch.Intf = BufferToIntf(value.Data);
        std::memcpy(scratch.Number, value.Data, size);
        value.Data = scratch.Number;
    }
    return true;
}

bool TKdsRecord::GetDataP(const TKdsColumn* column, const void*& data, std::int32_t& size) {
    // Two lines of the cache are asked for at once, where one would tell of the other.
    if (column != nullptr) kds::Prefetch(HomeBuffer() + column->DataOffset());
    CheckColumn(column);
    return column->GetIsReference() ? GetLookupP(column, data, size) : GetOwnP(column, data, size);
}

bool TKdsRecord::GetOwnP(const TKdsColumn* column, const void*& data, std::int32_t& size) {
    TKdsValue value;
    const bool found = ReadValue(column, TKdsReading::Current, fTable->fScratch, value);
    data = value.Data;
    size = value.Size;
    return found;
}

bool TKdsRecord::GetLookupP(const TKdsColumn* column, const void*& data, std::int32_t& size) {
    const TKdsSlot& shown = column->fPath.Shown;
    const std::byte* values = nullptr;
    if (fRowState != rsRegular || IsOut() || column->TargetField() == nullptr ||
        !FindMasterValues(column->fPath, fBuffer.Original, values) || !shown.HasValue(values)) {
        return FollowLookupP(column, data, size);
    }
    const TKdsValue value = StoredValue(shown, values);
    data = value.Data;
    size = value.Size;
    return true;
}

bool TKdsRecord::FollowLookupP(const TKdsColumn* column, const void*& data, std::int32_t& size) {
    if (column->TargetField() == nullptr) {
        // The row itself, which a pointer of 8 bytes leads to.
        bool hasKey = false;
        data = MasterRow(column, TKdsReading::Current, hasKey);
        size = data != nullptr ? 8 : hasKey ? -1 : 0;
        return data != nullptr;
    }
    TKdsValue value;
    const bool found = ReadLookup(column, TKdsReading::Current, fTable->fScratch, value);
    data = value.Data;
    size = value.Size;
    return found;
}

bool TKdsRecord::GetIsNullC(const TKdsColumn* column) {
    const void* data = nullptr;
    std::int32_t size = 0;
    return !GetDataP(column, data, size);
}

// ---- Writing ------------------------------------------------------------------------------

std::byte* TKdsRecord::CheckWrite(const TKdsColumn* column) {
    CheckColumn(column);
    if (fTable->Status() == mtsRegular || fTable->Status() == mtsUploads) {
        CheckState({rsDetached, rsEditing, rsDefaults, rsCalculate, rsForced}, true,
                   u"CannotModifyRecord");
        if (column->ReadOnly() &&
            !TKdsRecordStates{rsDefaults, rsCalculate, rsForced}.Has(fRowState)) {
            KdsError(u"ColumnReadonly", {column->Name()});
        }
    }
    return const_cast<std::byte*>(FindBuffer());
}

namespace {

// Numbers of any stored size; a call of memcpy would cost more than the copy.
void CopyNumber(std::byte* target, const void* data, std::int32_t size) noexcept {
    assert(data != nullptr);
    switch (size) {
        case 8: StoreRaw(target, LoadRaw<std::uint64_t>(data)); return;
        case 4: StoreRaw(target, LoadRaw<std::uint32_t>(data)); return;
        case 2: StoreRaw(target, LoadRaw<std::uint16_t>(data)); return;
        case 1: StoreRaw(target, LoadRaw<std::uint8_t>(data)); return;
        default: std::memmove(target, data, static_cast<std::size_t>(size)); return;
    }
}

}  // namespace

// Most writes set a number or a text of a column that may be written, in a row that is being built
// or edited: what could be wrong is asked at once, and told by the long way.
void TKdsRecord::SetDataP(const TKdsColumn* column, const void* data, std::int32_t size) {
    const bool isOpen = (fRowState == rsDetached || fRowState == rsEditing) &&
                        !HasBit(CompactBit | OutBit) && fTable != nullptr;
    if (isOpen && column != nullptr && column->Owner() == fTable->Columns() &&
        !column->ReadOnly() && data != nullptr) {
        const TKdsSlot& slot = fTable->Layout().Slot(column->Index());
        std::byte* const target = fBuffer.Proposed + slot.Offset;
        if (slot.Resolves) {
            StoreKey(column, data, size);
            return;
        }
        if (slot.Kind == skPlain && size == slot.Size && !IsTextType(slot.Type) &&
            (size == 8 || size == 4)) {
            if (size == 8) {
                StoreRaw(target, LoadRaw<std::uint64_t>(data));
            } else {
                StoreRaw(target, LoadRaw<std::uint32_t>(data));
            }
            slot.MarkValue(fBuffer.Proposed);
            return;
        }
        if (slot.Kind == skPlain && IsTextType(slot.Type)) {
            StoreText(column, slot, data, size);
            return;
        }
        if (slot.Kind == skMemo) {
            StoreReference(column, slot, data, size);
            return;
        }
    }
    SetChecked(column, data, size);
}

void TKdsRecord::SetChecked(const TKdsColumn* column, const void* data, std::int32_t size) {
    CheckWrite(column);
    StoreValue(column, data, size);
}

void TKdsRecord::SetNullC(const TKdsColumn* column) {
    CheckWrite(column);
    // A reference shows nothing when its key is null.
    const TKdsColumn* const source = column->GetIsReference() ? column->SourceField() : nullptr;
    if (source != nullptr) CheckWrite(source);
    StoreNull(source != nullptr ? source : column);
}

// Everything that can fail happens before the slot is touched.
void TKdsRecord::StoreValue(const TKdsColumn* column, const void* data, std::int32_t size) {
    const TKdsSlot& slot = fTable->Layout().Slot(column->Index());
    if (slot.Resolves) {
        StoreKey(column, data, size);
        return;
    }
    StorePlain(column, slot, data, size);
}

void TKdsRecord::StorePlain(const TKdsColumn* column, const TKdsSlot& slot, const void* data,
                            std::int32_t size) {
    if (data == nullptr && size != 0) throw EInvalidArgument(u"A value needs its data");
    switch (slot.Kind) {
        case skComputed: KdsError(u"DataTypeUnsupported");
        case skLookup: StoreReferenceKey(column, slot, data, size); return;
        case skMemo:
        case skCustom: StoreReference(column, slot, data, size); return;
        case skPlain: break;
    }
    if (IsTextType(slot.Type)) {
        StoreText(column, slot, data, size);
        return;
    }
    if (size != slot.Size) RaiseMismatch(column, u"DataBufferMismatch");
    std::byte raw[16];
    if (MovesForWrite(slot)) {  // the value may lie in the buffer that goes
        CopyNumber(raw, data, size);
        data = raw;
    }
    std::byte* const buffer = WritableBuffer(slot);
    CopyNumber(buffer + slot.Offset, data, size);
    slot.MarkValue(buffer);
}

void TKdsRecord::StoreText(const TKdsColumn* column, const TKdsSlot& slot, const void* data,
                           std::int32_t size) {
    if (size < 0) RaiseMismatch(column, u"DataBufferMismatch");
    if (size > column->Length()) RaiseMismatch(column, u"DataBufferOverflow");
    const std::size_t bytes =
        static_cast<std::size_t>(size) * (slot.Type == dtWideString ? sizeof(char16_t) : 1);
    // Making a compact buffer full-size would move the source under our feet.
    if (MovesForWrite(slot)) {
        const std::string copy(static_cast<const char*>(data), bytes);
        ExpandBuffer();
        StoreText(column, slot, copy.data(), size);
        return;
    }
    std::byte* const buffer = WritableBuffer(slot);
    std::byte* const target = buffer + slot.Offset;
    if (slot.Type == dtChar) {
        if (bytes > 0) std::memmove(target, data, bytes);
        std::memset(target + bytes, 0, static_cast<std::size_t>(slot.Size) - bytes);
    } else {
        if (bytes > 0) std::memmove(target + 2, data, bytes);
        StoreRaw(target, static_cast<std::uint16_t>(size));
    }
    slot.MarkValue(buffer);
}

// The new reference is taken before the old one is dropped: both may be the same text.
void TKdsRecord::StoreReference(const TKdsColumn* column, const TKdsSlot& slot, const void* data,
                                std::int32_t size) {
    if (slot.Kind == skMemo) {
        if (size < 0) RaiseMismatch(column, u"DataBufferMismatch");
        TKdsStringManager* const strings = fTable->Strings();
        TAnsiString text = strings->ReferString(
            column, {static_cast<const char*>(data), static_cast<std::size_t>(size)});
        TScopeGuard giveBack([&] { strings->ClearString(column, text); });
        std::byte* const buffer = WritableBuffer(slot);
        giveBack.Dismiss();
        TAnsiString previous = TAnsiString::Attach(LoadRaw<void*>(buffer + slot.Offset));
        StoreRaw(buffer + slot.Offset, text.Detach());
        slot.MarkValue(buffer);
        strings->ClearString(column, previous);
        return;
    }
    if (size != slot.Size) RaiseMismatch(column, u"DataBufferMismatch");
    const TIntf<IInterface> intf = BufferToIntf(data);
    std::byte* const buffer = WritableBuffer(slot);
    IntfToBuffer(buffer + slot.Offset, intf);
    slot.MarkValue(buffer);
}

void TKdsRecord::StoreNull(const TKdsColumn* column) {
    const TKdsSlot& slot = fTable->Layout().Slot(column->Index());
    if (slot.Kind == skComputed) KdsError(u"DataTypeUnsupported");
    std::byte* const buffer = WritableBuffer(slot);
    if (slot.Kind == skMemo) {
        TAnsiString previous = TAnsiString::Attach(LoadRaw<void*>(buffer + slot.Offset));
        StoreRaw<void*>(buffer + slot.Offset, nullptr);
        fTable->Strings()->ClearString(column, previous);
    } else if (slot.Kind == skCustom) {
        IntfToBuffer(buffer + slot.Offset, nullptr);
    } else {
        std::memset(buffer + slot.Offset, 0, static_cast<std::size_t>(slot.Size));
    }
    slot.MarkNull(buffer);
    if (slot.Resolves) NullReferences(column);
}

}  // namespace kds
