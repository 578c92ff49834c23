// What the writer and the reader of table streams agree on.
//
// Shape      TStreamShape says of a table which columns have bytes behind the record's buffer and
//            what of the buffer itself means nothing outside the process.
// Validity   Good until the table's layout or a column's handler changes.
#pragma once

#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "kds/core/Kdstables.h"

namespace kds {

inline constexpr std::int64_t StreamVersion = 16;
inline constexpr std::int64_t StreamHasStructure = 1;
inline constexpr TKdsTableOptions StreamedOptions{mtoSkipPKCheck, mtoStaticData, mtoStripNulls};
inline constexpr std::uint8_t StreamedRowFlags = 1 << static_cast<int>(rfHighlight);

// The value of a virtual key as it stands in a stream: of a memo column all of its bytes, of others
// as many as the column's size says, filled up with zeros.
inline void StreamValue(const TKdsColumn* column, const TKdsValue& value,
                        std::vector<std::byte>& bytes) {
    const std::size_t unit = value.Type == dtWideString ? 2 : 1;
    bytes.assign(value.Data, value.Data + static_cast<std::size_t>(value.Size) * unit);
    if (column->DataType() != dtMemoString) {
        bytes.resize(static_cast<std::size_t>(column->DataSize()));
    }
}

struct TStreamShape {
    explicit TStreamShape(const TKdsTable* table) : Strips(table->Options().Has(mtoStripNulls)) {
        const TKdsLayout& layout = table->Layout();
        for (const TKdsColumn* const column : *table->Columns()) {
            const TKdsSlot& slot = layout.Slot(column->Index());
            const bool refers = slot.Kind == skMemo || slot.Kind == skCustom;
            if (refers) Foreign.emplace_back(slot.Offset, slot.Size);
            if (slot.StampOffset >= 0) Foreign.emplace_back(slot.StampOffset, 4);
            if (refers && slot.StampOffset >= 0) LateReferences.push_back(column->Index());
            if (slot.Kind == skPlain && (slot.Type == dtAnsiString || slot.Type == dtWideString)) {
                Texts.push_back(column->Index());
            }
            // One that is calculated on reading comes along, and is not kept by who reads it.
            if (column->GetIsVirtualKey()) {
                VirtualKeys.push_back(column);
            } else if (column->Occurences().Has(coMemoString) && !column->GetIsReference()) {
                Memos.push_back(column);
            }
            if (slot.Kind == skCustom) {
                CustomData.push_back(column);
                if (!column->CustomData()) Unwritable.push_back(column->Index());
            }
        }
    }
    // In a buffer of which this many bytes are there.
    void ClearForeign(std::byte* buffer, std::int32_t size) const noexcept {
        for (const auto& [offset, count] : Foreign) {
            if (offset >= size) break;
            std::memset(buffer + offset, 0, static_cast<std::size_t>(count));
        }
    }

    bool Strips;
    std::vector<std::pair<std::int32_t, std::int32_t>> Foreign;  // offset and size, ascending
    std::vector<std::int32_t> Texts;                             // with a length in the slot
    std::vector<std::int32_t> LateReferences;  // calculated, and not in the buffer
    std::vector<const TKdsColumn*> Memos;
    std::vector<const TKdsColumn*> VirtualKeys;
    std::vector<const TKdsColumn*> CustomData;
    std::vector<std::int32_t> Unwritable;  // custom data without a handler
};

}  // namespace kds
