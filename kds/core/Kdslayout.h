// Where the values of a table's columns lie in a record buffer.
//
// Shape      offset 0          null words: 32 columns a word, a set bit means "holds a value"
//            behind them       the columns' values in column order, packed; behind the value of a
//                              column with delayed calculation its 32-bit calculation stamp
//            Per type a slot holds: numbers their bytes; Char the characters, zero-padded;
//            AnsiString and WideString a 16-bit length and the characters; MemoString and
//            CustomData one counted reference.
// Units      Offsets and sizes are bytes.
// Ownership  Plain data. The references in a buffer are counted by who copies or frees it.
// Cost       Everything asked per value is O(1); CompactSize O(columns).
// Validity   Version changes with every change of the layout.
// Threads    Read-only while the table holds records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kds/core/Kdstypes.h"
#include "kds/platform/Bytes.h"

namespace kds {

enum class TKdsSlotKind : std::uint8_t {
    skPlain,   // the bytes are the value
    skMemo,    // a TAnsiString handle
    skCustom,  // an interface pointer
    // From here on the bytes alone are not the value.
    skComputed,  // not stored: computed on every read
    skLookup     // a key of a row in another table
};
using enum TKdsSlotKind;

struct TKdsSlot {
    std::int32_t Offset = 0;
    std::int32_t Size = 0;  // 0 for a column that is not stored
    std::int32_t NullOffset = 0;
    std::uint32_t NullMask = 0;
    std::int32_t StampOffset = -1;  // -1 without delayed calculation
    TKdsDataType Type = dtUnknown;
    TKdsSlotKind Kind = skPlain;
    bool Resolves = false;  // other columns' lookup keys follow the value

    [[nodiscard]] std::int32_t End() const noexcept {
        return StampOffset < 0 ? Offset + Size : StampOffset + 4;
    }
    // Equal numbers of such a column have equal bytes, of this size.
    [[nodiscard]] bool IsKeyNumber() const noexcept {
        return Kind == skPlain && StampOffset < 0 && (Size == 4 || Size == 8) &&
               !IsTextType(Type) && Type != dtDouble;
    }
    [[nodiscard]] bool IsSameNumber(const void* a, const void* b) const noexcept {
        return Size == 4 ? LoadRaw<std::uint32_t>(a) == LoadRaw<std::uint32_t>(b)
                         : LoadRaw<std::uint64_t>(a) == LoadRaw<std::uint64_t>(b);
    }
    [[nodiscard]] bool HasValue(const std::byte* buffer) const noexcept {
        return (LoadRaw<std::uint32_t>(buffer + NullOffset) & NullMask) != 0;
    }
    void MarkValue(std::byte* buffer) const noexcept {
        StoreRaw(buffer + NullOffset, LoadRaw<std::uint32_t>(buffer + NullOffset) | NullMask);
    }
    void MarkNull(std::byte* buffer) const noexcept {
        StoreRaw(buffer + NullOffset, LoadRaw<std::uint32_t>(buffer + NullOffset) & ~NullMask);
    }
};

class TKdsLayout {
public:
    void Reset(std::int32_t columnCount);
    // Sees to it that a layout of so many columns needs no memory.
    void Reserve(std::int32_t columnCount);
    // Columns are added in column order; `size` is the room in the buffer, 0 for none.
    void Add(TKdsDataType type, TKdsSlotKind kind, std::int32_t size, bool delayed);
    void SetResolves(std::int32_t column) {
        TKdsSlot& slot = fSlots[static_cast<std::size_t>(column)];
        slot.Resolves = true;
        if (slot.StampOffset >= 0) fMovesOnRead = true;
    }
    void Finish();
    // Which columns must hold a value; asked by whole words on the insert path.
    void SetNotNull(std::int32_t column, bool value);

    [[nodiscard]] const TKdsSlot& Slot(std::int32_t column) const {
        return fSlots[static_cast<std::size_t>(column)];
    }
    [[nodiscard]] std::int32_t ColumnCount() const noexcept {
        return static_cast<std::int32_t>(fSlots.size());
    }
    [[nodiscard]] std::int32_t NullOffset() const noexcept { return 0; }
    [[nodiscard]] std::int32_t NullBytes() const noexcept { return fNullBytes; }
    [[nodiscard]] std::int32_t RecordSize() const noexcept { return fRecordSize; }
    // Never 0.
    [[nodiscard]] std::uint32_t Version() const noexcept { return fVersion; }
    // A read may calculate a key and write the keys that follow it, for which a compact buffer may
    // have to grow.
    [[nodiscard]] bool MovesOnRead() const noexcept { return fMovesOnRead; }
    // Columns whose slot holds a counted reference.
    [[nodiscard]] const std::vector<std::int32_t>& ReferenceColumns() const noexcept {
        return fReferenceColumns;
    }
    [[nodiscard]] const std::vector<std::int32_t>& DelayedColumns() const noexcept {
        return fDelayedColumns;
    }
    [[nodiscard]] bool HasNotNullGap(const std::byte* buffer) const noexcept {
        for (std::size_t word = 0; word < fNotNull.size(); ++word) {
            if ((fNotNull[word] & ~LoadRaw<std::uint32_t>(buffer + word * 4)) != 0) return true;
        }
        return false;
    }
    // Where the last value in use ends. A pure function of the null words: delayed columns always
    // count as used, because a read may write their value and stamp.
    [[nodiscard]] std::int32_t CompactSize(const std::byte* buffer) const noexcept;
    [[nodiscard]] bool IsConsistent() const noexcept;

private:
    std::vector<TKdsSlot> fSlots;
    std::vector<std::int32_t> fReferenceColumns;
    std::vector<std::int32_t> fDelayedColumns;
    std::vector<std::uint32_t> fNotNull;
    std::int32_t fNullBytes = 0;
    std::int32_t fRecordSize = 0;
    std::int64_t fNextOffset = 0;
    std::uint32_t fVersion = 1;
    bool fMovesOnRead = false;
};

}  // namespace kds
