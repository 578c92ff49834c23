#include "kds/core/Kdslayout.h"

#include <algorithm>
#include <limits>

#include "kds/core/Kdserrors.h"

namespace kds {

void TKdsLayout::Reset(std::int32_t columnCount) {
    fSlots.clear();
    fReferenceColumns.clear();
    fDelayedColumns.clear();
    fMovesOnRead = false;
    const std::int32_t words = (columnCount + 31) / 32;
    fNotNull.assign(static_cast<std::size_t>(words), 0);
    fNullBytes = words * 4;
    fNextOffset = fNullBytes;
}

void TKdsLayout::Reserve(std::int32_t columnCount) {
    const auto count = static_cast<std::size_t>(columnCount);
    if (count <= fSlots.capacity() && count <= fDelayedColumns.capacity()) return;
    const std::size_t room = count + count / 2 + 4;
    fSlots.reserve(room);
    fReferenceColumns.reserve(room);
    fNotNull.reserve((room + 31) / 32);
    fDelayedColumns.reserve(room);  // last: it tells whether all of them succeeded
}

void TKdsLayout::Add(TKdsDataType type, TKdsSlotKind kind, std::int32_t size, bool delayed) {
    const std::int32_t column = ColumnCount();
    TKdsSlot slot;
    slot.Type = type;
    slot.Kind = kind;
    slot.Size = size;
    slot.Offset = static_cast<std::int32_t>(fNextOffset);
    slot.NullOffset = column / 32 * 4;
    slot.NullMask = std::uint32_t{1} << (column % 32);
    fNextOffset += size;
    if (delayed && size > 0) {
        slot.StampOffset = static_cast<std::int32_t>(fNextOffset);
        fNextOffset += 4;
        fDelayedColumns.push_back(column);
    }
    if (fNextOffset > std::numeric_limits<std::int32_t>::max()) KdsError(u"MaximumCapacity");
    if (kind == skMemo || kind == skCustom) fReferenceColumns.push_back(column);
    fSlots.push_back(slot);
}

void TKdsLayout::Finish() {
    fRecordSize = static_cast<std::int32_t>(fNextOffset);
    if (++fVersion == 0) ++fVersion;
}

void TKdsLayout::SetNotNull(std::int32_t column, bool value) {
    std::uint32_t& word = fNotNull[static_cast<std::size_t>(column / 32)];
    const std::uint32_t mask = Slot(column).NullMask;
    word = value ? word | mask : word & ~mask;
}

std::int32_t TKdsLayout::CompactSize(const std::byte* buffer) const noexcept {
    for (auto slot = fSlots.rbegin(); slot != fSlots.rend(); ++slot) {
        if (slot->Size > 0 && (slot->StampOffset >= 0 || slot->HasValue(buffer))) {
            return slot->End();
        }
    }
    return fNullBytes;
}

bool TKdsLayout::IsConsistent() const noexcept {
    std::int32_t offset = fNullBytes;
    for (const TKdsSlot& slot : fSlots) {
        if (slot.Offset != offset || slot.NullOffset + 4 > fNullBytes) return false;
        offset = slot.End();
    }
    return offset == fRecordSize;
}

}  // namespace kds
